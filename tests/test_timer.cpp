// Timers: alignment, counts, changes of the clock, every way to stop, waiting.

#include "support.h"
#include "support_clock.h"

#include "tarn_event.h"
#include "tarn_raii.h"
#include "tarn_thread.h"
#include "tarn_timer.h"

#include <mutex>
#include <thread>

#include <pthread.h>
#include <sys/resource.h>

using support::expect_check;
using support::log_capture;
using support::wait_until;
using timer_owner = tarn::unique_handle<TARN_TIMER, tarn_timer_destroy>;

namespace
{

constexpr uint64_t ms = 1000000;
constexpr uint64_t second = 1000 * ms;
constexpr uint64_t day = 86400 * second;

uint64_t wall_ns()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * second + static_cast<uint64_t>(now.tv_nsec);
}

/** A callback that notes its calls and then does what a test wants. */
struct recorder
{
    struct tick
    {
        uint64_t count;
        uint64_t due;
        uint64_t now;
    };
    std::function<void(TARN_TIMER, size_t)> action; ///< given the number of calls
    std::mutex lock;
    std::vector<tick> ticks;
    std::atomic<size_t> calls{0};
    std::atomic<int> inside{0};

    static void *callback(TARN_TIMER t, uint64_t expirations, uint64_t due_sec, uint32_t due_nsec,
                          void *arg1, void *arg2)
    {
        auto *const self = static_cast<recorder *>(arg1);
        EXPECT_EQ(arg2, &self->lock);
        EXPECT_EQ(self->inside.fetch_add(1), 0);
        EXPECT_LT(due_nsec, second);
        {
            const std::lock_guard guard(self->lock);
            self->ticks.push_back({expirations, due_sec * second + due_nsec, wall_ns()});
        }
        const size_t call = self->calls.fetch_add(1) + 1;
        struct leave // also when the thread is unwound
        {
            std::atomic<int> &inside;
            ~leave()
            {
                inside.fetch_sub(1);
            }
        } left{self->inside};
        if (self->action)
        {
            self->action(t, call);
        }
        return nullptr;
    }
    TARN_TIMER make(int kind)
    {
        return tarn_timer_create(kind, callback, this, &lock);
    }
    bool wait_calls(size_t n)
    {
        return wait_until([&] { return calls >= n; });
    }
};

class Timer : public testing::Test
{
protected:
    support::layer layer_;
    support::leak_check leaks_;
    support::clock_lock clock_;
    void TearDown() override
    {
        EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
    }
};

TEST_F(Timer, RefusesBadArguments)
{
    for (const char *text : {"RVOF(kind == TARN_TIMER_WALL_CLOCK || kind == TARN_TIMER_MONOTONIC,"
                             "TARN_INVALID_HANDLE)",
                             "RVOZ(interval_ns,TARN_ERRLN)", "RVON(remain_ns,TARN_ERRLN)",
                             "RVON(interval_ns,TARN_ERRLN)", "RVON(t,TARN_ERRLN)"})
    {
        expect_check(text);
    }
    EXPECT_EQ(tarn_timer_create(0, nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(tarn_timer_create(3, nullptr, nullptr, nullptr), nullptr);
    const timer_owner t(tarn_timer_create(TARN_TIMER_MONOTONIC, nullptr, nullptr, nullptr));
    EXPECT_LT(tarn_timer_start(t.get(), 0, 0), 0);
    EXPECT_LT(tarn_timer_get_remain_time(t.get(), nullptr), 0);
    EXPECT_LT(tarn_timer_get_interval(t.get(), nullptr), 0);
    EXPECT_FALSE(tarn_timer_is_started(nullptr));
    tarn_timer_destroy(nullptr);
}

TEST_F(Timer, CreationAndStartFailCleanly)
{
    for (const char *text :
         {"RVON(t,TARN_INVALID_HANDLE)", "RVON(crit_sect,TARN_INVALID_HANDLE)",
          "RVON(cs,TARN_INVALID_HANDLE)", "RVON(ev,TARN_INVALID_HANDLE)",
          "RVON(fd,TARN_INVALID_HANDLE)", "RVOF(callback != NULL || stop_fd,TARN_INVALID_HANDLE)"})
    {
        expect_check(text);
    }
    log_capture log;
    recorder r;
    EXPECT_EQ(support::fail_each_allocation([&](size_t) {
                  const timer_owner t(r.make(TARN_TIMER_MONOTONIC));
                  if (t && tarn_timer_start(t.get(), second, 0) != 0)
                  {
                      EXPECT_FALSE(tarn_timer_is_started(t.get()));
                      EXPECT_EQ(tarn_timer_start(t.get(), second, 0), 0);
                  }
              }),
              5u);
    EXPECT_EQ(log.count("fail to start timer thread"), 3u);

    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    for (const rlim_t more : {0, 1})
    {
        const auto next = static_cast<rlim_t>(::dup(0));
        ::close(static_cast<int>(next));
        const rlimit few = {next + more, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
        EXPECT_EQ(tarn_timer_create(TARN_TIMER_WALL_CLOCK, nullptr, nullptr, nullptr), nullptr);
        setrlimit(RLIMIT_NOFILE, &before);
    }
}

TEST_F(Timer, WallClockTicksFallOnMultiplesAndAreAllCounted)
{
    struct row
    {
        uint64_t interval;
        uint64_t offset;
    };
    for (const row &r :
         {row{20 * ms, 0}, row{20 * ms, 7 * ms}, row{30 * ms, 161 * ms}, row{12345678, 1}})
    {
        recorder seen;
        seen.action = [&](TARN_TIMER, size_t call) {
            // late every third time: the ticks meanwhile are counted by the next call
            std::this_thread::sleep_for(std::chrono::milliseconds(call % 3 == 0 ? 70 : 0));
        };
        TARN_TIMER t = seen.make(TARN_TIMER_WALL_CLOCK);
        ASSERT_EQ(tarn_timer_start(t, r.interval, r.offset), 0);
        ASSERT_TRUE(seen.wait_calls(8));
        TARN_CLOSE_HANDLE(t);
        uint64_t most = 0;
        for (size_t i = 0; i < seen.ticks.size(); ++i)
        {
            const auto &tick = seen.ticks[i];
            EXPECT_EQ((tick.due - r.offset) % r.interval, 0u);
            EXPECT_GE(tick.now, tick.due);
            if (i > 0)
            {
                EXPECT_EQ(tick.due - seen.ticks[i - 1].due, tick.count * r.interval);
                EXPECT_LT(seen.ticks[i - 1].now, tick.due + r.interval);
            }
            most = std::max(most, tick.count);
        }
        EXPECT_GE(most, 2u);
    }
}

TEST_F(Timer, FirstTickIsTheNextMultipleWhateverTheInterval)
{
    const timer_owner t(tarn_timer_create(TARN_TIMER_WALL_CLOCK, nullptr, nullptr, nullptr));
    for (const uint64_t interval : {ms, 300 * ms, second, 10 * second, 60 * second, 3 * day})
    {
        for (const uint64_t offset : {uint64_t{0}, 5 * second, 10 * day + 3})
        {
            uint64_t remain = 0;
            uint64_t set = 0;
            const uint64_t before = wall_ns();
            ASSERT_EQ(tarn_timer_start(t.get(), interval, offset), 0);
            ASSERT_EQ(tarn_timer_get_remain_time(t.get(), &remain), 0);
            const uint64_t after = wall_ns();
            ASSERT_EQ(tarn_timer_get_interval(t.get(), &set), 0);
            EXPECT_EQ(set, interval);
            const uint64_t ahead = std::max(interval, second);
            // a multiple of the interval lies between these two
            EXPECT_LT((before + remain - offset - 1) / interval,
                      (after + remain - offset) / interval);
            EXPECT_LE(before + remain, after + ahead + offset);
            EXPECT_GT(after + remain, before + offset + ahead - interval);
            EXPECT_TRUE(tarn_timer_is_started(t.get()));
        }
    }
    tarn_timer_stop(t.get());
    EXPECT_FALSE(tarn_timer_is_started(t.get()));
}

TEST_F(Timer, TakesTheSmallestAndTheLargestIntervals)
{
    for (const int kind : {TARN_TIMER_WALL_CLOCK, TARN_TIMER_MONOTONIC})
    {
        recorder r;
        const timer_owner t(r.make(kind));
        ASSERT_EQ(tarn_timer_start(t.get(), 1, 0), 0);
        ASSERT_TRUE(r.wait_calls(3));
        EXPECT_LT(support::elapsed_ms([&] { tarn_timer_stop(t.get()); }), 5000.0);
        EXPECT_GT(r.ticks.back().count, 100u);
        const size_t calls = r.calls;
        double quickest_stop = 10000;
        for (const uint64_t interval : {5 * day, UINT64_MAX, second + 1, 2 * day, 60 * second})
        {
            EXPECT_EQ(tarn_timer_start(t.get(), interval, UINT64_MAX), 0);
            EXPECT_TRUE(tarn_timer_is_started(t.get()));
            const double took = support::elapsed_ms([&] { tarn_timer_stop(t.get()); });
            quickest_stop = std::min(quickest_stop, took);
        }
        EXPECT_LT(quickest_stop, 900.0); // none of them waits out a second
        EXPECT_EQ(r.calls, calls);
    }
}

TEST_F(Timer, SettingTheClockRealignsWallClockTimersOnly)
{
    log_capture log;
    recorder wall;
    recorder steady;
    const timer_owner wall_timer(wall.make(TARN_TIMER_WALL_CLOCK));
    const timer_owner steady_timer(steady.make(TARN_TIMER_MONOTONIC));
    const timer_owner waited(tarn_timer_create(TARN_TIMER_WALL_CLOCK, nullptr, nullptr, nullptr));
    ASSERT_EQ(tarn_timer_start(wall_timer.get(), 50 * ms, 3 * ms), 0);
    ASSERT_EQ(tarn_timer_start(steady_timer.get(), 10 * ms, 0), 0);
    ASSERT_EQ(tarn_timer_start(waited.get(), 100 * second, 0), 0);
    ASSERT_TRUE(wall.wait_calls(2));
    const bool was_set = support::set_clock_to_itself(); // not everywhere allowed
    EXPECT_EQ(was_set, log.wait_for("system time changed, adjust timer", was_set ? 10000 : 200));
    const int64_t rc = tarn_timer_wait(waited.get(), 1000);
    EXPECT_EQ(rc < 0, was_set);
    EXPECT_EQ(log.contains("error", "read return -1, error = 125 (Operation canceled)"), was_set);
    EXPECT_EQ(tarn_timer_wait(waited.get(), 1000), 0); // once only
    const size_t calls = wall.calls;
    ASSERT_TRUE(wall.wait_calls(calls + 3) && steady.wait_calls(10));
    tarn_timer_stop(wall_timer.get());
    EXPECT_EQ(log.count("warn [tarn_timer.cpp"), was_set ? 2u : 0u); // one each, none for monotonic
    for (const auto &tick : wall.ticks)
    {
        EXPECT_EQ((tick.due - 3 * ms) % (50 * ms), 0u);
        EXPECT_GE(tick.now, tick.due);
    }
}

TEST_F(Timer, CallbackMayStopAndRestartItsTimer)
{
    recorder r;
    r.action = [](TARN_TIMER t, size_t call) {
        if (call == 3)
        {
            tarn_timer_stop(t);
            EXPECT_FALSE(tarn_timer_is_started(t));
        }
        else if (call >= 5 && call < 8)
        {
            EXPECT_EQ(tarn_timer_start(t, (call - 3) * ms, 0), 0);
            EXPECT_EQ(tarn_thread_count(), 1u);
            std::this_thread::sleep_for(std::chrono::milliseconds(20)); // no second call meanwhile
        }
    };
    const timer_owner t(r.make(TARN_TIMER_MONOTONIC));
    ASSERT_EQ(tarn_timer_start(t.get(), 2 * ms, 0), 0);
    ASSERT_TRUE(wait_until([] { return tarn_thread_count() == 0; })); // ended by itself
    EXPECT_EQ(r.calls, 3u);
    ASSERT_EQ(tarn_timer_start(t.get(), 2 * ms, 0), 0);
    ASSERT_TRUE(r.wait_calls(12));
    uint64_t interval = 0;
    EXPECT_EQ(tarn_timer_get_interval(t.get(), &interval), 0);
    EXPECT_EQ(interval, 4 * ms);
}

TEST_F(Timer, CallbackMayDestroyItsTimerOrEndItsThread)
{
    const std::function<void(TARN_TIMER, size_t)> endings[] = {
        [](TARN_TIMER t, size_t) { tarn_timer_destroy(t); },
        [](TARN_TIMER t, size_t) {
            tarn_timer_destroy(t);
            pthread_exit(nullptr);
        },
        [](TARN_TIMER, size_t) { pthread_exit(nullptr); },
        [](TARN_TIMER, size_t) {
            EXPECT_TRUE(tarn_thread_cancel(tarn_thread_self_id()));
            pthread_testcancel();
        }};
    for (size_t i = 0; i < std::size(endings); ++i)
    {
        recorder r;
        r.action = endings[i];
        TARN_TIMER t = r.make(TARN_TIMER_MONOTONIC);
        ASSERT_EQ(tarn_timer_start(t, ms, 0), 0);
        ASSERT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
        EXPECT_EQ(r.calls, 1u);
        if (i >= 2)
        {
            EXPECT_TRUE(wait_until([&] { return !tarn_timer_is_started(t); }));
            r.action = nullptr;
            ASSERT_EQ(tarn_timer_start(t, ms, 0), 0); // with a new thread
            ASSERT_TRUE(r.wait_calls(3));
            tarn_timer_destroy(t);
        }
    }
}

TEST_F(Timer, StopFromOutsideWinsOverRestartFromInside)
{
    for (int round = 0; round < (support::with_sanitizer ? 50 : 300); ++round)
    {
        recorder r;
        r.action = [&](TARN_TIMER t, size_t) {
            const int rc = tarn_timer_start(t, 100000, 0);
            EXPECT_TRUE(rc <= 0);
        };
        const timer_owner t(r.make(TARN_TIMER_MONOTONIC));
        ASSERT_EQ(tarn_timer_start(t.get(), 50000, 0), 0);
        ASSERT_TRUE(r.wait_calls(1));
        tarn_timer_stop(t.get());
        const size_t calls = r.calls;
        EXPECT_FALSE(tarn_timer_is_started(t.get()));
        std::this_thread::yield();
        EXPECT_EQ(r.calls, calls);
    }
}

TEST_F(Timer, TimersThatStopOneAnotherDoNotHang)
{
    recorder a;
    recorder b;
    TARN_TIMER timers[] = {a.make(TARN_TIMER_MONOTONIC), b.make(TARN_TIMER_MONOTONIC)};
    std::atomic<int> met{0};
    a.action = [&](TARN_TIMER, size_t) {
        ++met;
        (void)wait_until([&] { return met == 2; });
        tarn_timer_stop(timers[1]);
    };
    b.action = [&](TARN_TIMER, size_t) {
        ++met;
        (void)wait_until([&] { return met == 2; });
        tarn_timer_stop(timers[0]);
    };
    ASSERT_EQ(tarn_timer_start(timers[0], ms, 0), 0);
    ASSERT_EQ(tarn_timer_start(timers[1], ms, 0), 0);
    EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
    EXPECT_TRUE(wait_until([&] { return a.inside == 0 && b.inside == 0; }));
    tarn_timer_destroy(timers[0]);
    tarn_timer_destroy(timers[1]);
}

TEST_F(Timer, TwoHundredRunAtOnce)
{
    std::vector<std::unique_ptr<recorder>> recorders;
    std::vector<timer_owner> timers;
    for (int i = 0; i < 200; ++i)
    {
        recorders.push_back(std::make_unique<recorder>());
        timers.emplace_back(
            recorders.back()->make(i % 2 == 0 ? TARN_TIMER_WALL_CLOCK : TARN_TIMER_MONOTONIC));
        ASSERT_EQ(tarn_timer_start(timers.back().get(), 20 * ms, 0), 0);
    }
    for (const auto &r : recorders)
    {
        EXPECT_TRUE(r->wait_calls(3));
    }
    timers.clear();
}

TEST_F(Timer, WaitReportsTicksTimeOutsAndMisuse)
{
    log_capture log;
    const timer_owner t(tarn_timer_create(TARN_TIMER_MONOTONIC, nullptr, nullptr, nullptr));
    EXPECT_LT(tarn_timer_wait(t.get(), 0), 0);
    EXPECT_TRUE(log.contains("warn", "timer is not started!"));
    recorder r;
    const timer_owner calling(r.make(TARN_TIMER_MONOTONIC));
    ASSERT_EQ(tarn_timer_start(calling.get(), day, 0), 0);
    EXPECT_LT(tarn_timer_wait(calling.get(), 0), 0);
    EXPECT_TRUE(log.contains("warn", "this timer is created with callback function!"));

    ASSERT_EQ(tarn_timer_start(t.get(), 100 * ms, 0), 0);
    for (const uint32_t timeout : {0u, 999u, 2000000u})
    {
        EXPECT_EQ(tarn_timer_wait(t.get(), timeout), 0);
    }
    EXPECT_GE(tarn_timer_wait(t.get(), 4000000000), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_GE(tarn_timer_wait(t.get(), 0), 2);
    EXPECT_GE(tarn_timer_wait(t.get(), TARN_INFINITE), 1);

    ASSERT_EQ(tarn_timer_start(t.get(), day, 0), 0);
    std::atomic<int64_t> result{1};
    std::thread waiting([&] { result = tarn_timer_wait(t.get(), TARN_INFINITE); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(result, 1);
    tarn_timer_stop(t.get());
    waiting.join();
    EXPECT_LT(result, 0);
}

} // namespace
