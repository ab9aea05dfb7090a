// Clock: monotonic ticks, sleeps, the wall clock and its calendar form.
//
// Nothing keeps state between calls but the per-thread second of the log's time stamp. Conversions
// that look at the time zone hold the environment lock, since the C library then reads TZ.

#include "tarn_sys.h"

#include "tarn_os.h"
#include "tarn_process_state.h"
#include "tarn_sys_internal.h"
#include "tarn_text.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include <sys/time.h>
#include <unistd.h>

namespace tarn
{

constinit std::atomic<uint32_t> tick_ms_offset{0};

} // namespace tarn

namespace
{

constexpr uint64_t ns_per_s = 1000000000;
constexpr uint64_t us_per_s = 1000000;

timespec monotonic_now()
{
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

/** Sleep the whole time, over signal handlers that run meanwhile. */
void sleep_whole(uint64_t ns)
{
    timespec left = {static_cast<time_t>(ns / ns_per_s), static_cast<long>(ns % ns_per_s)};
    while (nanosleep(&left, &left) == -1 && errno == EINTR)
    {
    }
}

/** The three orders of two ticks on a circle whose half is half + 1 steps long. */
template <typename Tick>
int compare_on_circle(Tick a, Tick b, Tick half)
{
    if (a == b)
    {
        return 0;
    }
    const bool a_is_later =
        a > b ? static_cast<Tick>(a - b) < half : static_cast<Tick>(b - a) > half - 1;
    return a_is_later ? 1 : -1;
}

bool fill_systime(const tm &fields, uint32_t microseconds, long minutes_west, tarn_systime *out)
{
    const int64_t year = int64_t{fields.tm_year} + 1900;
    if (year < 0 || year > UINT16_MAX)
    {
        return false;
    }
    *out = {.year = static_cast<uint16_t>(year),
            .month = static_cast<uint16_t>(fields.tm_mon + 1),
            .weekday = static_cast<uint16_t>(fields.tm_wday + 1),
            .day_of_year = static_cast<uint16_t>(fields.tm_yday + 1),
            .day = static_cast<uint16_t>(fields.tm_mday),
            .hour = static_cast<uint16_t>(fields.tm_hour),
            .minute = static_cast<uint16_t>(fields.tm_min),
            .second = static_cast<uint16_t>(fields.tm_sec),
            .millisecond = static_cast<uint16_t>(microseconds / 1000),
            .timezone = static_cast<int16_t>(minutes_west),
            .daylight_saving = 0};
    return true;
}

// A thread cancelled inside these conversions would leave the C library's own lock held.
bool to_local(time_t seconds, tm *fields, long *minutes_west)
{
    const tarn::cancel_guard no_cancel;
    const tarn::lock_guard lock(tarn::environment_lock);
    tzset();
    *minutes_west = timezone / 60;
    return localtime_r(&seconds, fields) != nullptr;
}

// The C library looks at TZ here too, the first time.
bool to_utc(time_t seconds, tm *fields)
{
    const tarn::cancel_guard no_cancel;
    const tarn::lock_guard lock(tarn::environment_lock);
    return gmtime_r(&seconds, fields) != nullptr;
}

/** True when the seconds of a tarn_time are a time_t as well; other ones lie far beyond all years. */
bool is_time_t(uint64_t seconds)
{
    return seconds <= INT64_MAX;
}

bool systime_local(time_t seconds, uint32_t microseconds, tarn_systime *out)
{
    tm fields{};
    long minutes_west = 0;
    return to_local(seconds, &fields, &minutes_west) &&
           fill_systime(fields, microseconds, minutes_west, out);
}

bool systime_utc(time_t seconds, uint32_t microseconds, tarn_systime *out)
{
    tm fields{};
    return to_utc(seconds, &fields) && fill_systime(fields, microseconds, 0, out);
}

/** Write "HH:MM:SS" for a second of the day. */
void write_clock(char *out, uint32_t second_of_day)
{
    char text[9];
    tarn::text_writer(text, sizeof text)
        .append_padded(second_of_day / 3600, 2)
        .append(':')
        .append_padded(second_of_day / 60 % 60, 2)
        .append(':')
        .append_padded(second_of_day % 60, 2);
    std::memcpy(out, text, 8);
}

/** Write ".mmm " behind the clock. */
void write_fraction(char *out, uint32_t milliseconds)
{
    char text[6];
    tarn::text_writer(text, sizeof text).append('.').append_padded(milliseconds, 3).append(' ');
    std::memcpy(out, text, 5);
}

/** The second that a thread has broken down last; second -1 is none. */
struct stamp_cache
{
    int64_t second;
    char clock[8];
};
constinit thread_local stamp_cache last_stamp = {-1, {}};

bool refresh_stamp(time_t second)
{
    tm fields{};
    long minutes_west = 0;
    if (!to_local(second, &fields, &minutes_west))
    {
        return false;
    }
    const int second_of_day = (fields.tm_hour * 60 + fields.tm_min) * 60 + fields.tm_sec;
    write_clock(last_stamp.clock, static_cast<uint32_t>(second_of_day));
    last_stamp.second = second;
    tarn::process.utc_offset_s.store(static_cast<int32_t>(fields.tm_gmtoff),
                                     std::memory_order_relaxed);
    return true;
}

} // namespace

namespace tarn
{

bool time_stamp_local(char *out)
{
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 ||
        (last_stamp.second != now.tv_sec && !refresh_stamp(now.tv_sec)))
    {
        return false;
    }
    std::memcpy(out, last_stamp.clock, sizeof last_stamp.clock);
    write_fraction(out + sizeof last_stamp.clock, static_cast<uint32_t>(now.tv_nsec / 1000000));
    return true;
}

void time_stamp_from_handler(char *out) noexcept
{
    constexpr int64_t day_s = 86400;
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    const int64_t local = now.tv_sec + process.utc_offset_s.load(std::memory_order_relaxed);
    write_clock(out, static_cast<uint32_t>((local % day_s + day_s) % day_s));
    write_fraction(out + 8, static_cast<uint32_t>(now.tv_nsec / 1000000));
}

} // namespace tarn

uint32_t tarn_tick_ms(void)
{
    for (;;)
    {
        const timespec now = monotonic_now();
        // In 32 bits, which is quicker: what they cut off is nothing that the result would keep.
        const uint32_t tick = static_cast<uint32_t>(now.tv_sec) * 1000u +
                              static_cast<uint32_t>(now.tv_nsec) / 1000000u +
                              tarn::tick_ms_offset.load(std::memory_order_relaxed);
        if (tick != 0)
        {
            return tick;
        }
    }
}

uint64_t tarn_tick_ns(void)
{
    for (;;)
    {
        const timespec now = monotonic_now();
        const uint64_t tick =
            static_cast<uint64_t>(now.tv_sec) * ns_per_s + static_cast<uint64_t>(now.tv_nsec);
        if (tick != 0)
        {
            return tick;
        }
    }
}

uint32_t tarn_tick_ms_since(uint32_t start)
{
    return tarn_tick_ms() - start;
}

uint64_t tarn_tick_ns_since(uint64_t start)
{
    return tarn_tick_ns() - start;
}

uint32_t tarn_tick_ms_diff(uint32_t a, uint32_t b)
{
    return b - a;
}

uint64_t tarn_tick_ns_diff(uint64_t a, uint64_t b)
{
    return b - a;
}

int tarn_tick_ms_compare(uint32_t a, uint32_t b)
{
    return compare_on_circle<uint32_t>(a, b, 0x7FFFFFFF);
}

int tarn_tick_ns_compare(uint64_t a, uint64_t b)
{
    return compare_on_circle<uint64_t>(a, b, 0x7FFFFFFFFFFFFFFF);
}

void tarn_sleep_ms(uint32_t ms)
{
    if (ms < 1000)
    {
        (void)usleep(ms == 0 ? 1000 : ms * 1000);
        return;
    }
    sleep_whole(uint64_t{ms} * 1000000);
}

void tarn_sleep_us(uint32_t us)
{
    if (us < us_per_s)
    {
        (void)usleep(us == 0 ? 1 : us);
        return;
    }
    sleep_whole(uint64_t{us} * 1000);
}

void tarn_sleep_ns(uint64_t ns)
{
    sleep_whole(ns == 0 ? 1 : ns);
}

int64_t tarn_time_now(void)
{
    return ::time(nullptr);
}

bool tarn_time_get(tarn_time *time)
{
    RVON(time, false);
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0)
    {
        return false;
    }
    *time = {static_cast<uint64_t>(now.tv_sec), static_cast<uint32_t>(now.tv_nsec / 1000)};
    return true;
}

bool tarn_systime_local(tarn_systime *out)
{
    RVON(out, false);
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    return systime_local(now.tv_sec, static_cast<uint32_t>(now.tv_usec), out);
}

bool tarn_systime_utc(tarn_systime *out)
{
    RVON(out, false);
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    return systime_utc(now.tv_sec, static_cast<uint32_t>(now.tv_usec), out);
}

bool tarn_time_to_systime_utc(const tarn_time *time, tarn_systime *out)
{
    RVON(time, false);
    RVON(out, false);
    return is_time_t(time->seconds) &&
           systime_utc(static_cast<time_t>(time->seconds), time->microseconds, out);
}

bool tarn_time_to_systime_local(const tarn_time *time, tarn_systime *out)
{
    RVON(time, false);
    RVON(out, false);
    return is_time_t(time->seconds) &&
           systime_local(static_cast<time_t>(time->seconds), time->microseconds, out);
}

bool tarn_systime_to_time(const tarn_systime *systime, tarn_time *time)
{
    RVON(systime, false);
    RVON(time, false);
    tm fields{};
    fields.tm_year = systime->year - 1900;
    fields.tm_mon = systime->month - 1;
    fields.tm_mday = systime->day;
    fields.tm_hour = systime->hour;
    fields.tm_min = systime->minute;
    fields.tm_sec = systime->second;
    fields.tm_isdst = systime->daylight_saving;
    time_t seconds = -1;
    {
        const tarn::cancel_guard no_cancel;
        const tarn::lock_guard lock(tarn::environment_lock);
        seconds = mktime(&fields);
    }
    if (seconds < 0)
    {
        return false;
    }
    *time = {static_cast<uint64_t>(seconds), uint32_t{systime->millisecond} * 1000};
    return true;
}

int tarn_time_zone_minutes(void)
{
    const tarn::cancel_guard no_cancel;
    const tarn::lock_guard lock(tarn::environment_lock);
    tzset();
    return static_cast<int>(timezone / 60);
}
