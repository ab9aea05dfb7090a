// System services of the wall clock: setting, printing, the monitor of its changes; start-up of the
// system module. Ticks, sleeps and calendar records are in tarn_sys_clock.cpp, which nothing but
// the core lies below.

#include "tarn_sys.h"

#include "tarn_check.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_process_state.h"
#include "tarn_raii.h"
#include "tarn_sys_internal.h"
#include "tarn_thread.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>

#include <sys/resource.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace
{

constexpr size_t text_size = 128;
constinit thread_local char format_text[text_size] = "";
constinit thread_local char iso8601_text[text_size] = "";

constexpr uint32_t monitor_cycle_ms = 1000;

struct monitor_state
{
    std::atomic<bool> claimed{
        false}; ///< whoever sets it starts the monitor, or is told that it runs
    std::atomic<TARN_THREAD> thread{nullptr};
    int fd = -1; ///< like callback written before the thread starts and after it has ended
    tarn_time_change_callback callback = nullptr;
};
constinit monitor_state monitor;

/** A buffer for a text, and what became of it. */
struct printed
{
    size_t length; ///< 0: the buffer holds an empty text
    bool has_calendar;
    tm fields;
};

/** Print a time; len is at least 1. */
printed print_time(char *buf, size_t len, const tarn_time *time, const char *format, bool local)
{
    printed p{};
    buf[0] = '\0';
    if (time != nullptr && time->seconds > INT64_MAX)
    {
        return p; // a time_t would be negative
    }
    const time_t seconds = time != nullptr ? static_cast<time_t>(time->seconds) : ::time(nullptr);
    {
        // The zone is read from the environment, by strftime() too; a thread cancelled inside would
        // leave the C library's own lock held.
        const tarn::cancel_guard no_cancel;
        const tarn::lock_guard lock(tarn::environment_lock);
        tzset();
        p.has_calendar =
            (local ? localtime_r(&seconds, &p.fields) : gmtime_r(&seconds, &p.fields)) != nullptr;
        p.length = p.has_calendar ? strftime(buf, len, format, &p.fields) : 0;
    }
    if (p.length == 0)
    {
        buf[0] = '\0'; // what strftime() leaves in a buffer that is too small is undefined
    }
    return p;
}

/** Append the distance to UTC, where it fits whole. */
void append_zone(char *buf, size_t len, const printed &p, bool local)
{
    char zone[sizeof "+24:59"] = "Z";
    if (local)
    {
        const int minutes = static_cast<int>(p.fields.tm_gmtoff / 60);
        const int distance = std::abs(minutes);
        (void)std::snprintf(zone, sizeof zone, "%c%02d:%02d", minutes < 0 ? '-' : '+',
                            distance / 60 % 100, distance % 60);
    }
    const size_t zone_size = std::strlen(zone) + 1;
    if (p.length != 0 && zone_size <= len - p.length)
    {
        std::memcpy(buf + p.length, zone, zone_size);
    }
}

void *time_change_monitor_proc(void *, void *)
{
    uint64_t exp = 0;
    const ssize_t s = tarn::retry_eintr([&] { return read(monitor.fd, &exp, sizeof exp); });
    const int error = errno;
    if (s >= 0)
    {
        TARN_LOG_TRACE("meow? s=%zd, exp=%lu", s, static_cast<unsigned long>(exp));
    }
    else if (error != ECANCELED)
    {
        TARN_LOG_DEBUG("errno = %d", error);
    }
    else
    {
        TARN_LOG_TRACE("%s: time changed.", __func__);
        if (monitor.callback != nullptr)
        {
            monitor.callback();
        }
    }
    return nullptr;
}

/** A descriptor that reports changes of the wall clock and never expires.
 *  @return 0; -2 or -3 */
int open_change_descriptor(tarn::unique_fd *out)
{
    tarn::unique_fd fd(timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC));
    if (!fd)
    {
        const int error = errno;
        TARN_LOG_ERROR("timerfd_create failed, error = %d", error);
        return -2;
    }
    itimerspec never{};
    never.it_value.tv_sec = std::numeric_limits<time_t>::max();
    if (timerfd_settime(fd.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr) !=
        0)
    {
        const int error = errno;
        TARN_LOG_ERROR("timerfd_settime failed, error = %d", error);
        return -3;
    }
    *out = std::move(fd);
    return 0;
}

void stop_time_monitor()
{
    TARN_THREAD thread = monitor.thread.exchange(nullptr);
    if (thread != nullptr)
    {
        tarn_thread_stop(thread);
        tarn::close_fd(std::exchange(monitor.fd, -1));
        monitor.claimed = false;
    }
}

} // namespace

bool tarn_time_set(const tarn_time *time)
{
    RVON(time, false);
    const timespec now = {static_cast<time_t>(time->seconds),
                          static_cast<long>(time->microseconds) * 1000};
    if (clock_settime(CLOCK_REALTIME, &now) != 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("clock_settime failed, error = %d (%s)", error,
                       tarn::error_text(error).c_str());
        return false;
    }
    sync();
    // Not system(): that makes the whole process ignore SIGINT and SIGQUIT meanwhile.
    (void)tarn_sys_command_run("hwclock -w -f /dev/rtc", nullptr, TARN_INFINITE);
    return true;
}

char *tarn_time_format(const tarn_time *time, bool local, const char *format, char *buf, size_t len)
{
    RVON(format, NULL);
    char *const text = buf != nullptr ? buf : format_text;
    const size_t size = buf != nullptr ? len : text_size;
    RVOF(size > 0, NULL);
    (void)print_time(text, size, time, format, local);
    return text;
}

int tarn_time_print(char *buf, size_t len, const tarn_time *time, const char *format, bool local)
{
    RVON(format, TARN_ERRLN);
    RVOT(buf == NULL && len > 0, TARN_ERRLN);
    RVOT(buf != NULL && len == 0, TARN_ERRLN);
    if (len == 0)
    {
        return 0;
    }
    const printed p = print_time(buf, len, time, format, local);
    RVOF(p.has_calendar, TARN_ERRLN);
    return static_cast<int>(p.length);
}

char *tarn_time_get_iso8601_str(const tarn_time *time, bool local, char *buf, size_t len)
{
    char *const text = buf != nullptr ? buf : iso8601_text;
    const size_t size = buf != nullptr ? len : text_size;
    RVOF(size > 0, NULL);
    const printed p = print_time(text, size, time, "%Y-%m-%dT%H:%M:%S", local);
    append_zone(text, size, p, local);
    return text;
}

int tarn_time_monitor_change(tarn_time_change_callback callback)
{
    RVOT_TEXT(monitor.claimed.exchange(true), -1,
              "RVOT(time_change_monitor_thread != TARN_INVALID_HANDLE,-1)");
    tarn::scope_exit not_started([] { monitor.claimed = false; });
    tarn::unique_fd fd;
    if (const int rc = open_change_descriptor(&fd); rc != 0)
    {
        return rc;
    }
    monitor.fd = fd.get();
    monitor.callback = callback;
    TARN_THREAD thread = tarn_thread_start(time_change_monitor_proc, nullptr, nullptr,
                                           monitor_cycle_ms, "time_change_monitor_proc");
    RVON(thread, -3);
    (void)fd.release();
    monitor.thread = thread;
    not_started.dismiss();
    return 0;
}

bool tarn_sys_init(void)
{
    const rlimit none = {0, 0};
    const int rc = setrlimit(RLIMIT_CORE, &none);
    TARN_LOG_TRACE("RLIMIT_CORE returned %d", rc);
    tarn::wdt_read_environment();
    return true;
}

void tarn_sys_uninit(void)
{
    stop_time_monitor();
}
