// The clock: ticks at the edge of their range, sleeps under signals, calendar conversions.

#include "support.h"

#include "tarn_process.h"
#include "tarn_sys.h"
#include "tarn_sys_internal.h"

#include <csignal>
#include <ctime>
#include <thread>

#include <sys/time.h>

using support::elapsed_ms;
using support::expect_check;

namespace
{

void set_zone(const char *zone)
{
    EXPECT_TRUE(tarn_process_setenv("TZ", zone, true));
}

std::string text_of(const tarn_systime &t)
{
    char text[128];
    (void)std::snprintf(text, sizeof text, "%u-%u-%u wd%u yd%u %u:%u:%u.%u tz%d dst%d", t.year,
                        t.month, t.day, t.weekday, t.day_of_year, t.hour, t.minute, t.second,
                        t.millisecond, t.timezone, t.daylight_saving);
    return text;
}

// ---- ticks and sleeps ------------------------------------------------------------------------

TEST(Ticks, PassTheirEdgeWithoutEverBeingZero)
{
    const uint64_t ns = tarn_tick_ns();
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);
    const auto monotonic =
        static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
    EXPECT_LE(ns, monotonic);
    EXPECT_LT(monotonic - ns, 10000000000u);
    EXPECT_LT(tarn_tick_ms() - static_cast<uint32_t>(ns / 1000000), 10000u);
    tarn::tick_ms_offset.store(0u - tarn_tick_ms() - 20); // 0, if it ever were, in 20 ms
    const uint32_t start = tarn_tick_ms();
    uint32_t last = start;
    while (tarn_tick_ms_since(start) < 40)
    {
        const uint32_t tick = tarn_tick_ms();
        EXPECT_NE(tick, 0u);
        EXPECT_GE(tarn_tick_ms_compare(tick, last), 0);
        last = tick;
    }
    last = tarn_tick_ms();
    tarn::tick_ms_offset.store(0);
    EXPECT_GT(start, 0xFFFFFF00u);
    EXPECT_LT(last, 0x1000u);
    EXPECT_EQ(tarn_tick_ms_diff(0xFFFFFFF0, 0x10), 0x20u);
    EXPECT_EQ(tarn_tick_ns_diff(UINT64_MAX, 4), 5u);
    EXPECT_LT(tarn_tick_ns_since(ns), 60000000000u);
}

TEST(Ticks, CompareOnTheCircle)
{
    const struct
    {
        uint32_t a, b;
        int expected;
    } cases[] = {{0, 0, 0},
                 {1, 0, 1},
                 {0, 1, -1},
                 {0x7FFFFFFE, 0, 1},
                 {0x7FFFFFFF, 0, -1},
                 {0x80000000, 0, -1},
                 {0xFFFFFFFF, 0, -1},
                 {0, 0x7FFFFFFE, -1},
                 {0, 0x7FFFFFFF, 1},
                 {0, 0x80000000, 1},
                 {0, 0xFFFFFFFF, 1},
                 {0xFFFFFFF0, 0x10, -1},
                 {0x10, 0xFFFFFFF0, 1}};
    const auto wide = [](uint32_t tick) { // the same distance from the edges and the middle
        return static_cast<uint64_t>(tick) + (tick >= 0x40000000 ? 0x7FFFFFFF80000000 : 0) +
               (tick > 0xC0000000 ? 0x7FFFFFFF80000000 : 0);
    };
    for (const auto &[a, b, expected] : cases)
    {
        EXPECT_EQ(tarn_tick_ms_compare(a, b), expected) << std::hex << a << " " << b;
        EXPECT_EQ(tarn_tick_ns_compare(wide(a), wide(b)), expected) << std::hex << wide(a);
    }
}

TEST(Sleep, LastsItsTimeOverSignalsFromASecondUp)
{
    EXPECT_GE(elapsed_ms([] { tarn_sleep_ms(0); }), 1.0);
    EXPECT_GE(elapsed_ms([] { tarn_sleep_us(0); }), 0.001);
    EXPECT_GT(elapsed_ms([] { tarn_sleep_ns(0); }), 0.0);
    EXPECT_GE(elapsed_ms([] { tarn_sleep_ms(15); }), 15.0);
    EXPECT_GE(elapsed_ms([] { tarn_sleep_us(1999); }), 1.999);
    EXPECT_GE(elapsed_ms([] { tarn_sleep_ns(2000000); }), 2.0);
    struct sigaction action
    {
    };
    action.sa_handler = [](int) {};
    (void)sigaction(SIGALRM, &action, nullptr);
    itimerval every = {{0, 7000}, {0, 7000}};
    (void)setitimer(ITIMER_REAL, &every, nullptr);
    EXPECT_GE(elapsed_ms([] { tarn_sleep_ms(1000); }), 1000);
    EXPECT_GE(elapsed_ms([] { tarn_sleep_us(1000000); }), 1000);
    EXPECT_GE(elapsed_ms([] { tarn_sleep_ns(1000000000); }), 1000);
    EXPECT_LT(elapsed_ms([] { tarn_sleep_ms(999); }), 900); // one usleep, ended by the signal
    every = {};
    (void)setitimer(ITIMER_REAL, &every, nullptr);
}

// ---- wall clock ------------------------------------------------------------------------------

TEST(WallClock, AgreesWithTheSystemsInAllForms)
{
    set_zone("IST-5:30");
    tarn_time times[3] = {};
    tarn_systime local{};
    tarn_systime utc{};
    char stamp[tarn::time_stamp_length];
    const auto before = static_cast<uint64_t>(::time(nullptr));
    EXPECT_TRUE(tarn_time_get(&times[0]));
    EXPECT_TRUE(tarn_systime_local(&local));
    EXPECT_TRUE(tarn_systime_utc(&utc));
    EXPECT_TRUE(tarn::time_stamp_local(stamp)); // tells handlers the distance to UTC
    EXPECT_TRUE(tarn_systime_to_time(&local, &times[1]));
    EXPECT_TRUE(tarn_systime_to_time(&utc, &times[2])); // read as local time, which is 5:30 ahead
    tarn::time_stamp_from_handler(stamp);
    const auto after = static_cast<uint64_t>(tarn_time_now()) + 1;
    times[2].seconds += 19800;
    for (const tarn_time &time : times)
    {
        EXPECT_TRUE(time.seconds >= before && time.seconds <= after) << time.seconds;
        EXPECT_LT(time.microseconds, 1000000u);
    }
    EXPECT_EQ(times[1].microseconds, local.millisecond * 1000u);
    EXPECT_EQ(local.timezone, -330);
    EXPECT_EQ(utc.timezone, 0);
    const int minute =
        ((stamp[0] - '0') * 10 + stamp[1] - '0') * 60 + (stamp[3] - '0') * 10 + stamp[4] - '0';
    EXPECT_LE((minute - local.hour * 60 - local.minute + 1440) % 1440, 1);
}

TEST(WallClock, ConvertsInZones)
{
    const char *const berlin = "CET-1CEST,M3.5.0,M10.5.0/3";
    const struct
    {
        const char *zone;
        uint64_t seconds;
        const char *local;
        uint64_t late; ///< what the way back adds: the daylight field is always 0
    } cases[] = {
        {"UTC0", 0, "1970-1-1 wd5 yd1 0:0:0.999 tz0 dst0", 0},
        {"UTC0", 951782399, "2000-2-28 wd2 yd59 23:59:59.999 tz0 dst0", 0},
        {"UTC0", 978307199, "2000-12-31 wd1 yd366 23:59:59.999 tz0 dst0", 0},
        {berlin, 1737000000, "2025-1-16 wd5 yd16 5:0:0.999 tz-60 dst0", 0},
        {berlin, 1752638400, "2025-7-16 wd4 yd197 6:0:0.999 tz-60 dst0", 3600},
        {"EST5EDT,M3.2.0,M11.1.0", 1737000000, "2025-1-15 wd4 yd15 23:0:0.999 tz300 dst0", 0},
        {"IST-5:30", 1737000000, "2025-1-16 wd5 yd16 9:30:0.999 tz-330 dst0", 0},
        {"UTC0", 2147483648, "2038-1-19 wd3 yd19 3:14:8.999 tz0 dst0", 0},
        {"UTC0", 2005949145599, "65535-12-31 wd3 yd365 23:59:59.999 tz0 dst0", 0},
    };
    for (const auto &c : cases)
    {
        set_zone(c.zone);
        const tarn_time time = {c.seconds, 999999};
        tarn_systime local{};
        tarn_systime utc{};
        tarn_time back{};
        EXPECT_TRUE(tarn_time_to_systime_local(&time, &local));
        EXPECT_EQ(text_of(local), c.local) << c.zone;
        EXPECT_EQ(tarn_time_zone_minutes(), local.timezone);
        EXPECT_TRUE(tarn_time_to_systime_utc(&time, &utc));
        EXPECT_EQ(utc.hour * 3600u + utc.minute * 60u + utc.second, c.seconds % 86400);
        EXPECT_EQ(utc.timezone, 0);
        EXPECT_TRUE(tarn_systime_to_time(&local, &back));
        EXPECT_EQ(back.seconds, c.seconds + c.late) << c.local;
        EXPECT_EQ(back.microseconds, 999000u);
    }
}

TEST(WallClock, RefusesWhatHasNoCalendarForm)
{
    set_zone("UTC0");
    tarn_systime out{};
    tarn_time time{};
    for (const uint64_t seconds : {2005949145600, 67768036191676800, INT64_MAX, INT64_MIN, -1L})
    {
        time = {seconds, 0};
        EXPECT_FALSE(tarn_time_to_systime_utc(&time, &out)) << seconds;
        EXPECT_FALSE(tarn_time_to_systime_local(&time, &out)) << seconds;
    }
    EXPECT_EQ(text_of(out), text_of({})); // untouched
    time = {1, 1};
    EXPECT_FALSE(tarn_systime_to_time(&out, &time)); // the year 0
    EXPECT_EQ(time.seconds, 1u);
    expect_check("RVON(time,false)");
    expect_check("RVON(out,false)");
    expect_check("RVON(systime,false)");
    EXPECT_FALSE(tarn_time_get(nullptr));
    EXPECT_FALSE(tarn_systime_local(nullptr));
    EXPECT_FALSE(tarn_systime_utc(nullptr));
    EXPECT_FALSE(tarn_time_to_systime_utc(nullptr, &out));
    EXPECT_FALSE(tarn_time_to_systime_local(&time, nullptr));
    EXPECT_FALSE(tarn_systime_to_time(nullptr, &time));
    EXPECT_FALSE(tarn_systime_to_time(&out, nullptr));
}

TEST(WallClock, ConversionsAndLinesRunBesideChangesOfTheEnvironment)
{
    set_zone("UTC0");
    const auto convert = [](const std::stop_token &stop) {
        const tarn_time time = {1737000000, 0};
        while (!stop.stop_requested())
        {
            tarn_systime local{};
            tarn_systime utc{};
            EXPECT_TRUE(tarn_time_to_systime_local(&time, &local));
            EXPECT_TRUE(tarn_time_to_systime_utc(&time, &utc));
            EXPECT_EQ(utc.hour, 4);
            EXPECT_EQ(local.timezone, local.hour == 4 ? 0 : -330);
            (void)tarn_time_zone_minutes();
            TARN_LOG_INFO("line");
        }
    };
    const std::jthread one(convert), two(convert);
    for (int i = 0; i < (support::with_sanitizer ? 300 : 3000); ++i)
    {
        set_zone(i % 2 != 0 ? "UTC0" : "IST-5:30");
        EXPECT_TRUE(tarn_process_setenv(support::unique_name().c_str(), "grows", true));
    }
}

} // namespace
