// Process frame: standard command line, instance lock, daemon mode, names, environment.
//
// The command line is parsed before tarn_init(), on the main thread and before any other thread
// runs; only the names and the environment wrappers are for all threads. Signals are in
// tarn_process_signal.cpp.

#include "tarn_process.h"

#include "tarn_lock_file_internal.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_process_internal.h"
#include "tarn_process_state.h"
#include "tarn_raii.h"
#include "tarn_service_notify.h"
#include "tarn_sys.h"
#include "tarn_text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <sys/file.h>
#include <unistd.h>

namespace
{

/** Values of the standard options of the table-driven command line. */
struct standard_options
{
    bool daemon;
    const char *config_file;
    const char *log_level;
    bool help;
    bool version;
};
constinit standard_options options{};

constexpr size_t standard_row_count = 5;

/** The standard rows and the end row. */
constinit const tarn_cmdline_option standard_table[standard_row_count + 1] = {
    {"d", "daemon", nullptr, "run program as a daemon", TARN_CMDLINE_OPTION_FLAG, &options.daemon},
    {"f", "config", "FILE", "specify a config file", TARN_CMDLINE_OPTION_STRING,
     &options.config_file},
    {nullptr, "log-level", "<DEBUG|TRACE|INFO|WARN|ERROR|FATAL>", "set log level, default is INFO",
     TARN_CMDLINE_OPTION_STRING, &options.log_level},
    {nullptr, "help", nullptr, "display this help and exit", TARN_CMDLINE_OPTION_FLAG,
     &options.help},
    {"v", "version", nullptr, "output version information and exit", TARN_CMDLINE_OPTION_FLAG,
     &options.version},
    {nullptr, nullptr, nullptr, nullptr, 0, nullptr},
};

constexpr const char *level_names[] = {"DEBUG", "TRACE", "INFO", "WARN", "ERROR", "FATAL"};
constexpr const char level_variable[] = "TARN_LOG_LEVEL";
constexpr size_t lock_path_size = 4097;

/** Instance name of the short command line; owned. */
constinit std::atomic<char *> instance_process_name{nullptr};

/** What the service manager was told; a forked child is not its business and inherits both. */
constinit std::atomic<bool> told_ready{false};
constinit std::atomic<bool> told_stopping{false};

bool is_level_name(const char *text)
{
    return std::any_of(std::begin(level_names), std::end(level_names),
                       [text](const char *name) { return std::strcmp(text, name) == 0; });
}

const char *base_name(const char *path)
{
    const char *const slash = std::strrchr(path, '/');
    return slash != nullptr ? slash + 1 : path;
}

const char *program_of(int argc, char *const *argv)
{
    return argc > 0 && argv[0] != nullptr ? base_name(argv[0]) : tarn::program_short_name();
}

/** The standard rows, the caller's rows and the end row; empty when memory ran out. */
tarn::unique_mem<tarn_cmdline_option> join_tables(const tarn_cmdline_option *extra_options)
{
    const size_t extra = tarn_cmdline_option_count(extra_options);
    auto table = tarn::unique_mem<tarn_cmdline_option>::make_array(standard_row_count + extra + 1);
    if (table)
    {
        std::copy_n(standard_table, standard_row_count, table.get());
        if (extra != 0)
        {
            std::copy_n(extra_options, extra, table.get() + standard_row_count);
        }
    }
    return table;
}

// ---- instance lock ---------------------------------------------------------------------------

tarn::unique_fd open_instance_lock(const char *path, const char *name)
{
    if (std::strchr(name, '/') != nullptr || std::strlen(name) >= lock_path_size - 32)
    {
        errno = EINVAL;
        return tarn::unique_fd();
    }
    return tarn::open_lock_file(path);
}

// ---- the two command lines -------------------------------------------------------------------

struct short_options
{
    bool daemon = false;
    const char *log_level = nullptr;
};

enum class scan_result
{
    done,
    version,
    error
};

scan_result scan_short(int argc, char *const *argv, const char **config_file_out,
                       short_options *found)
{
    for (int i = 1; i < argc && argv[i] != nullptr; ++i)
    {
        const std::string_view argument = argv[i];
        const char *const next = i + 1 < argc ? argv[i + 1] : nullptr;
        if (argument == "--version" || argument == "-v")
        {
            return scan_result::version;
        }
        if (argument == "-d")
        {
            found->daemon = true;
        }
        else if (argument == "-f")
        {
            if (config_file_out == nullptr || next == nullptr)
            {
                return scan_result::error;
            }
            *config_file_out = next;
            ++i;
        }
        else if (argument == "-log")
        {
            if (next == nullptr || !is_level_name(next))
            {
                return scan_result::error;
            }
            found->log_level = next;
            ++i;
        }
        else if (argument == "-t")
        {
            tarn::process.log_serial_traffic.store(true, std::memory_order_relaxed);
        }
    }
    return scan_result::done;
}

/** Keep a copy of the instance name as the process name. */
bool keep_process_name(const char *name)
{
    const size_t size = std::strlen(name) + 1;
    auto *const copy = static_cast<char *>(tarn_mem_alloc(size));
    if (copy == nullptr)
    {
        return false;
    }
    std::memcpy(copy, name, size);
    tarn_mem_free(instance_process_name.exchange(copy, std::memory_order_acq_rel));
    return true;
}

void print_unknown(int argc, char *const *argv, unsigned mask)
{
    std::printf("%s: invalid options -- ", tarn::program_short_name());
    for (int i = 1; i < argc && i < 32; ++i)
    {
        if ((mask >> i & 1u) != 0)
        {
            std::printf("'%s' ", argv[i]);
        }
    }
    std::printf("\nTry '%s --help' for more information.\n", tarn::program_short_name());
}

/** The --log-level option: the variable for the log's start-up, and the level at once.
 *  @return 0, or a negative result */
int apply_log_level()
{
    if (options.log_level == nullptr)
    {
        return 0;
    }
    if (!is_level_name(options.log_level))
    {
        TARN_LOG_ERROR("invalid log-level %s", options.log_level);
        return TARN_ERRLN;
    }
    TARN_LOG_DEBUG("set %s = %s", level_variable, options.log_level);
    (void)tarn_process_setenv(level_variable, options.log_level, true);
    tarn_log_level_set(log_level_from_str(options.log_level));
    return 0;
}

/** Instance lock and daemon mode of the table-driven command line.
 *  @return 0, or a negative result */
int enter_frame(const char *instance_name, bool single_instance)
{
    if (single_instance)
    {
        RVON(instance_name, TARN_ERRLN);
        if (tarn_process_is_first_instance(instance_name) == 0)
        {
            TARN_LOG_FATAL("another instance is already running!");
            return TARN_ERRLN;
        }
    }
    if (options.daemon && !tarn_process_daemonize())
    {
        TARN_LOG_FATAL("cannot set process as a daemon!");
        return TARN_ERRLN;
    }
    return apply_log_level();
}

} // namespace

bool tarn_process_wait_exit(uint32_t ms)
{
    tarn::restart_signal_relay();
    tarn::use_default_signal_action(false);
    if (!told_ready.exchange(true))
    {
        tarn::service_notify("READY=1");
    }
    const bool exit_asked = tarn_event_wait(tarn::exit_event(), ms);
    if (exit_asked && !told_stopping.exchange(true))
    {
        tarn::service_notify("STOPPING=1");
    }
    return exit_asked;
}

int tarn_process_parse_cmdline(int argc, char *const *argv, const char *instance_name,
                               const char *version, const char *revision, bool single_instance,
                               const char **config_file_out)
{
    if (single_instance)
    {
        RVON(instance_name, -2);
        if (tarn_process_is_first_instance(instance_name) <= 0)
        {
            TARN_LOG_FATAL("an instance is already running!\n");
            return -1;
        }
        RVOF(keep_process_name(instance_name), TARN_ERRLN);
    }
    if (argc < 2)
    {
        return 0;
    }
    const char *const program = program_of(argc, argv);
    short_options found;
    switch (scan_short(argc, argv, config_file_out, &found))
    {
    case scan_result::version:
        tarn_process_print_version(program, version, revision);
        return -3;
    case scan_result::error:
        tarn_process_print_version(program, version, revision);
        tarn_process_print_usage(program, config_file_out != nullptr);
        return -4;
    case scan_result::done:
        break;
    }
    if (found.daemon && !tarn_process_daemonize())
    {
        TARN_LOG_FATAL("cannot set process as a daemon!\n");
        return -5;
    }
    if (found.log_level != nullptr)
    {
        (void)tarn_process_setenv(level_variable, found.log_level, true);
    }
    return 0;
}

int tarn_process_parse_cmdline_ex(int argc, char *const *argv, const char *instance_name,
                                  const char *version, const char *revision, bool single_instance,
                                  const char **config_file_out,
                                  const tarn_cmdline_option *extra_options, int allow_unknown)
{
    options = {};
    const auto joined = join_tables(extra_options);
    RVON(joined, TARN_ERRLN);
    const char *const program = program_of(argc, argv);
    const int unknown = tarn_cmdline_option_parse(argc, argv, joined.get(), allow_unknown);
    if (unknown < 0)
    {
        tarn_process_print_version(program, version, revision);
        tarn_process_print_usage_ex(program, extra_options);
        return unknown;
    }
    if (unknown >= 1 && allow_unknown != 1)
    {
        print_unknown(argc, argv, static_cast<unsigned>(unknown));
        return TARN_ERRLN;
    }
    if (options.help)
    {
        tarn_process_print_usage_ex(program, extra_options);
        return TARN_ERRLN;
    }
    if (options.version)
    {
        tarn_process_print_version(program, version, revision);
        return TARN_ERRLN;
    }
    if (const int rc = enter_frame(instance_name, single_instance); rc < 0)
    {
        return rc;
    }
    if (config_file_out != nullptr)
    {
        *config_file_out = options.config_file;
    }
    return unknown;
}

int tarn_process_is_first_instance(const char *name)
{
    RVON(name, 0);
    const auto path = tarn::unique_mem<char>::make_array(lock_path_size);
    RVON(path, 0);
    tarn::text_writer(path.get(), lock_path_size)
        .append("/tmp/tarn_proc_")
        .append(name)
        .append(".pid");
    tarn::unique_fd fd = open_instance_lock(path.get(), name);
    if (!fd)
    {
        const int error = errno;
        TARN_LOG_WARN("fail to open file %s, error = %d (%s)", path.get(), error,
                      tarn::error_text(error).c_str());
        return 0;
    }
    // An flock, because it is kept over the fork of daemon(); record locks are not.
    if (tarn::retry_eintr([&] { return ::flock(fd.get(), LOCK_EX | LOCK_NB); }) != 0)
    {
        const int error = errno;
        if (error == EWOULDBLOCK)
        {
            TARN_LOG_WARN("another instance is running with name %s", name);
        }
        else
        {
            TARN_LOG_ERROR("flock return errno = %d with name %s", error, name);
        }
        return 0;
    }
    (void)fd.release(); // open, and so locked, until the process ends
    return 1;
}

void tarn_process_print_version(const char *program, const char *version, const char *revision)
{
    if (revision == nullptr || *revision == '\0')
    {
        std::printf("%s %s\n", program, version);
        return;
    }
    std::printf("%s %s rev %s\n", program, version, revision);
}

void tarn_process_print_usage(const char *program, bool with_config)
{
    std::printf("usage: %s [OPTIONS]\n", program);
    std::printf("\nValid options:\n");
    std::printf("  -d                                        : run program as a daemon\n");
    if (with_config)
    {
        std::printf("  -f <config-file>                          : specify a config file\n");
    }
    std::printf("  -log <DEBUG|TRACE|INFO|WARN|ERROR|FATAL>  : set log level, default is WARN\n");
    std::printf("  -t                                        : log serial port (if any) traffic\n");
    std::printf("  -v|--version                              : show program version information\n");
}

void tarn_process_print_usage_ex(const char *program, const tarn_cmdline_option *extra_options)
{
    const auto joined = join_tables(extra_options);
    std::printf("Usage: %s [OPTIONS]...\n\nAvailable options:\n", program);
    tarn_cmdline_option_print(joined ? joined.get() : standard_table);
}

bool tarn_process_daemonize(void)
{
    // What stands in stdio buffers would be written twice, or never.
    (void)std::fflush(nullptr);
    if (::daemon(0, 0) != 0)
    {
        return false;
    }
    tarn::process.is_daemon.store(true, std::memory_order_relaxed);
    tarn::restart_signal_relay();
    return true;
}

bool tarn_process_is_daemon(void)
{
    return tarn::process.is_daemon.load(std::memory_order_relaxed);
}

const char *tarn_process_name(void)
{
    const char *const name = instance_process_name.load(std::memory_order_acquire);
    return name != nullptr ? name : tarn::program_short_name();
}

const char *tarn_process_program_name(void)
{
    return tarn::program_short_name();
}

const char *tarn_process_program_path(void)
{
    return tarn::program_full_name();
}

int tarn_process_id(void)
{
    return ::getpid();
}

bool tarn_process_is_serial_traffic_logged(void)
{
    return tarn::process.log_serial_traffic.load(std::memory_order_relaxed);
}

const char *tarn_process_getenv(const char *name)
{
    RVON(name, NULL);
    const tarn::lock_guard lock(tarn::environment_lock);
    return std::getenv(name);
}

bool tarn_process_setenv(const char *name, const char *value, bool overwrite)
{
    RVON(name, false);
    RVON(value, false);
    const tarn::lock_guard lock(tarn::environment_lock);
    return ::setenv(name, value, overwrite ? 1 : 0) == 0;
}

bool tarn_process_clearenv(void)
{
    const tarn::lock_guard lock(tarn::environment_lock);
    return ::clearenv() == 0;
}

int tarn_process_wdt_set_timeout(uint32_t seconds)
{
    RVOF(tarn_wdt_set_timeout(seconds), TARN_ERRLN);
    return 0;
}

void tarn_process_wdt_kick(void)
{
    tarn_wdt_kick();
}

int tarn_process_wdt_disable(void)
{
    return tarn_process_wdt_set_timeout(0);
}

bool tarn_process_init(void)
{
    return tarn::start_signals();
}

void tarn_process_uninit(void)
{
    tarn_mem_free(instance_process_name.exchange(nullptr, std::memory_order_acq_rel));
    tarn::stop_signals();
}
