// Logging: threshold, loggers, the line format and its two sinks.
//
// Threads: no lock but that of standard output's buffer. Each call builds its line in a buffer of
// its own, 1 KiB on the stack and heap beyond, and hands it over whole. Level, flags and the daemon
// flag are read once per line with relaxed loads: a change takes effect with some later line.
// Nothing that a line passes through may log or use a check macro, which at DEBUG would come back
// here without end.

#include "tarn_log.h"

#include "tarn.h"
#include "tarn_check.h"
#include "tarn_log_internal.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_process_state.h"
#include "tarn_sys_internal.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <stdio_ext.h>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

constinit int32_t tarn_log_level = TARN_LOG_LEVEL_INFO;
constinit tarn_logger tarn_default_logger = {nullptr, nullptr, 0, 1, 1, 1, 1};

namespace
{

using tarn::log_position;
using tarn::text_writer;

constexpr size_t stack_line_size = 1024;
constexpr size_t max_int_digits = 11;

constexpr char level_tags[8][20] = {"L0", "L1", "fatal", "error", "warn", "info", "trace", "debug"};

struct level_name
{
    int32_t level;
    const char *name;
};
constexpr level_name level_names[] = {
    {TARN_LOG_LEVEL_FATAL, "FATAL"}, {TARN_LOG_LEVEL_ERROR, "ERROR"},
    {TARN_LOG_LEVEL_WARN, "WARN"},   {TARN_LOG_LEVEL_INFO, "INFO"},
    {TARN_LOG_LEVEL_TRACE, "TRACE"}, {TARN_LOG_LEVEL_DEBUG, "DEBUG"},
};

/** The two lower-case digits of every byte; constant, because dumps are made before start-up. */
constexpr auto hex_table = [] {
    constexpr char digits[] = "0123456789abcdef";
    std::array<std::array<char, 3>, 256> table{};
    for (size_t i = 0; i < table.size(); ++i)
    {
        table[i] = {digits[i >> 4], digits[i & 15], '\0'};
    }
    return table;
}();

/** All created loggers, newest first; they are never removed. */
constinit std::atomic<tarn_logger *> loggers{nullptr};

int32_t threshold()
{
    return __atomic_load_n(&tarn_log_level, __ATOMIC_RELAXED);
}

int32_t clamp_level(int32_t level)
{
    return level < 0 ? 0 : level > TARN_LOG_LEVEL_DEBUG ? TARN_LOG_LEVEL_DEBUG : level;
}

bool flag(const uint8_t &value)
{
    return __atomic_load_n(&value, __ATOMIC_RELAXED) != 0;
}

const char *or_empty(const char *text)
{
    return text != nullptr ? text : "";
}

const char *shown_name(const tarn_logger &logger)
{
    return logger.name != nullptr ? logger.name : tarn::program_short_name();
}

/** @return 0 when the logger lets the level through, else the result of the logging call */
int check_logger(const tarn_logger &logger, int32_t level)
{
    if (__atomic_load_n(&logger.enabled, __ATOMIC_RELAXED) != 1)
    {
        return -1;
    }
    const uint32_t own = __atomic_load_n(&logger.level, __ATOMIC_RELAXED);
    return (own != 0 ? int64_t{level} > int64_t{own} : level > threshold()) ? -2 : 0;
}

/** Holds the lock of standard output. ThreadSanitizer does not know it and has to be told. */
class [[nodiscard]] stdout_guard
{
public:
    stdout_guard()
    {
        flockfile(stdout);
#if defined(__SANITIZE_THREAD__)
        __tsan_acquire(stdout);
#endif
    }
    stdout_guard(const stdout_guard &) = delete;
    stdout_guard &operator=(const stdout_guard &) = delete;
    ~stdout_guard()
    {
#if defined(__SANITIZE_THREAD__)
        __tsan_release(stdout);
#endif
        funlockfile(stdout);
    }
};

/** Write all of it; an error drops the rest, as stdio would. */
void write_out(std::string_view text)
{
    while (!text.empty())
    {
        const ssize_t n = tarn::retry_eintr(
            [&] { return ::write(fileno_unlocked(stdout), text.data(), text.size()); });
        if (n <= 0)
        {
            return;
        }
        text.remove_prefix(static_cast<size_t>(n));
    }
}

/** Put a line into standard output's buffer. The buffer goes out at line ends only: processes that
 *  share a pipe would otherwise cut each other's lines at the buffer's edge. It is written here
 *  and not by stdio, which drops what it holds when a signal handler interrupts the write. */
void write_to_stdout(std::string_view line)
{
    const stdout_guard guard;
    const size_t buffer = __fbufsize(stdout); // 0 before the first write, which makes it
    const size_t size = buffer == 0 ? PIPE_BUF : __flbf(stdout) != 0 ? 0 : buffer;
    const size_t pending = __fpending(stdout);
    if (pending + line.size() > size)
    {
        write_out({stdout->_IO_write_base, pending});
        __fpurge(stdout);
    }
    if (line.size() <= size)
    {
        (void)fwrite_unlocked(line.data(), 1, line.size(), stdout);
    }
    else
    {
        write_out(line);
    }
}

void hand_over(const char *line, size_t length, int32_t level, bool foreground)
{
    if (const auto tap = tarn::log_tap.load(std::memory_order_acquire); tap != nullptr)
    {
        tap(level, {line, length});
    }
    else if (foreground)
    {
        write_to_stdout({line, length});
    }
    else
    {
        syslog(clamp_level(level), "%s", line);
    }
}

struct built_line
{
    size_t needed; ///< buffer size that holds the whole line; 0: the format cannot be printed
    size_t length; ///< of what stands in the buffer, newline included
};

/** What a line is made of. */
struct line_source
{
    const tarn_logger &logger;
    int32_t level;
    log_position position;
    bool foreground;
    std::string_view stamp;
    const char *format;
};

/** Build a line, cut to the buffer: prefix, message, newline at the message's first NUL, NUL. */
built_line build_line(const line_source &source, char *out, size_t size, va_list args)
{
    text_writer prefix(out, size - 1);
    tarn::log_append_prefix(prefix, source.logger, source.level, source.position, source.foreground,
                            source.stamp);
    const size_t start = prefix.length();
    const int n = std::vsnprintf(out + start, size - 1 - start, source.format, args);
    if (n < 0)
    {
        return {0, 0};
    }
    const size_t length = start + std::strlen(out + start);
    out[length] = '\n';
    out[length + 1] = '\0';
    const size_t prefix_size =
        prefix.truncated() ? tarn::log_prefix_size(source.logger, source.position) : start;
    return {prefix_size + static_cast<size_t>(n) + 2, length + 1};
}

} // namespace

namespace tarn
{

constinit std::atomic<log_tap_function> log_tap{nullptr};

size_t log_prefix_size(const tarn_logger &logger, const log_position &position)
{
    return time_stamp_length + std::strlen(shown_name(logger)) + sizeof level_tags[0] +
           std::strlen(or_empty(position.file)) + max_int_digits +
           std::strlen(or_empty(position.func)) + sizeof ". [::] ";
}

void log_append_prefix(text_writer &out, const tarn_logger &logger, int32_t level,
                       const log_position &position, bool foreground, std::string_view stamp)
{
    if (foreground)
    {
        out.append(stamp).append(shown_name(logger)).append('.');
        out.append(level_tags[clamp_level(level)]).append(' ');
    }
    const bool file = flag(logger.show_file);
    const bool line = flag(logger.show_line);
    const bool func = flag(logger.show_func);
    if (!file && !line && !func)
    {
        return;
    }
    const size_t open = out.append('[').length();
    if (file)
    {
        out.append(or_empty(position.file));
    }
    if (line)
    {
        out.append(out.length() > open ? ":" : "").append_int(position.line);
    }
    if (func)
    {
        out.append(out.length() > open ? ":" : "").append(or_empty(position.func));
    }
    out.append("] ");
}

void log_write_from_handler(int32_t level, const log_position &position, std::string_view message)
{
    if (level > threshold() || check_logger(tarn_default_logger, level) != 0)
    {
        return;
    }
    char line[512];
    char stamp[time_stamp_length];
    text_writer out(line, sizeof line - 1);
    time_stamp_from_handler(stamp);
    log_append_prefix(out, tarn_default_logger, level, position, true, {stamp, sizeof stamp});
    out.append(message);
    line[out.length()] = '\n';
    pollfd ready = {STDOUT_FILENO, POLLOUT, 0};
    if (::poll(&ready, 1, 100) == 1)
    {
        [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, line, out.length() + 1);
    }
}

} // namespace tarn

int tarn_log_vprint(tarn_logger *logger, int32_t level, const char *file, int line,
                    const char *func, const char *format, va_list args)
{
    if (const int refused = check_logger(*logger, level); refused != 0)
    {
        return refused;
    }
    const tarn::errno_keeper keep_errno;
    const tarn::cancel_guard no_cancel;
    const bool foreground = !tarn::process.is_daemon.load(std::memory_order_relaxed);
    char stamp[tarn::time_stamp_length];
    const bool stamped = foreground && tarn::time_stamp_local(stamp);
    const line_source source = {
        *logger, level, {file, line, func}, foreground, {stamp, stamped ? sizeof stamp : 0},
        format};

    va_list second_pass;
    va_copy(second_pass, args);
    const tarn::scope_exit end_second_pass([&] { va_end(second_pass); });
    char stack_line[stack_line_size];
    built_line built = build_line(source, stack_line, sizeof stack_line, args);
    if (built.needed == 0)
    {
        return TARN_ERRLN;
    }
    if (built.needed <= sizeof stack_line)
    {
        hand_over(stack_line, built.length, level, foreground);
        return 0;
    }
    const tarn::unique_mem<char> heap_line(tarn_mem_realloc(nullptr, built.needed));
    if (!heap_line)
    {
        return TARN_ERRLN;
    }
    built = build_line(source, heap_line.get(), built.needed, second_pass);
    hand_over(heap_line.get(), built.length, level, foreground);
    return 0;
}

int tarn_log_print(tarn_logger *logger, int32_t level, const char *file, int line, const char *func,
                   const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int result = tarn_log_vprint(logger, level, file, line, func, format, args);
    va_end(args);
    return result;
}

int tarn_log_hex(tarn_logger *logger, int32_t level, const char *file, int line, const char *func,
                 const char *prefix, const void *data, uint32_t len)
{
    constexpr size_t room_for_length = 100;
    const size_t size = std::strlen(or_empty(prefix)) + size_t{3} * len + room_for_length + 1;
    const tarn::unique_mem<char> text(tarn_mem_realloc(nullptr, size));
    if (!text)
    {
        return TARN_ERRLN;
    }
    text_writer head(text.get(), size);
    head.append('[').append_int(len).append("] ");
    if (prefix != nullptr && *prefix != '\0')
    {
        head.append(prefix).append(' ');
    }
    char *out = text.get() + head.length();
    const auto *bytes = static_cast<const uint8_t *>(data);
    for (uint32_t i = 0; i < len; ++i)
    {
        if (i != 0)
        {
            *out++ = ' ';
        }
        out = std::copy_n(hex_table[bytes[i]].data(), 2, out);
    }
    *out = '\0';
    return tarn_log_print(logger, level, file, line, func, "%s", text.get());
}

tarn_logger *tarn_logger_create(const char *name, uint8_t enabled, uint32_t level,
                                uint8_t show_file, uint8_t show_func, uint8_t show_line)
{
    auto owner = tarn::unique_mem<tarn_logger>::make();
    tarn_logger *const logger = owner.get();
    RVON(logger, NULL);
    if (name != nullptr)
    {
        const size_t size = std::strlen(name) + 1;
        logger->name = static_cast<char *>(tarn_mem_alloc(size));
        RVON(logger->name, NULL);
        tarn_mem_copy(logger->name, name, size);
    }
    logger->enabled = enabled;
    logger->level = level;
    logger->show_file = show_file;
    logger->show_func = show_func;
    logger->show_line = show_line;
    logger->next = loggers.load(std::memory_order_relaxed);
    while (!loggers.compare_exchange_weak(logger->next, logger, std::memory_order_release,
                                          std::memory_order_relaxed))
    {
    }
    return owner.release();
}

void tarn_log_level_set(int32_t level)
{
    __atomic_store_n(&tarn_log_level, level, __ATOMIC_RELAXED);
    // Every priority up to the level; the shift count wraps at 32 for numbers that are no level.
    const uint32_t up_to = (1u << ((static_cast<uint32_t>(level) + 1u) & 31u)) - 1u;
    (void)setlogmask(static_cast<int>(up_to));
}

int32_t log_level_from_str(const char *str)
{
    RVON_TEXT(str, threshold(), "RVON(str,tarn_log_level)");
    constexpr std::string_view white = " \t\n\v\f\r";
    std::string_view text(str);
    text.remove_prefix(std::min(text.find_first_not_of(white), text.size()));
    text.remove_suffix(text.size() - (text.find_last_not_of(white) + 1));
    for (const auto &[level, name] : level_names)
    {
        if (text.size() == std::strlen(name) && strncasecmp(text.data(), name, text.size()) == 0)
        {
            return level;
        }
    }
    return threshold();
}

const char *log_level_to_str(int32_t level)
{
    for (const auto &known : level_names)
    {
        if (known.level == level)
        {
            return known.name;
        }
    }
    return "INFO";
}

bool tarn_log_init(void)
{
    openlog(tarn::program_short_name(), 0, LOG_USER);
    const tarn::lock_guard lock(tarn::environment_lock);
    if (const char *level = std::getenv("TARN_LOG_LEVEL"); level != nullptr)
    {
        tarn_log_level_set(log_level_from_str(level));
    }
    return true;
}

void tarn_log_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    closelog();
}
