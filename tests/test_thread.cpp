// Loop threads: pacing, every way to end one, the registry.

#include "support.h"

#include "tarn_event.h"
#include "tarn_process.h"
#include "tarn_raii.h"
#include "tarn_sys.h"
#include "tarn_thread.h"

#include <mutex>
#include <thread>

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

using support::expect_check;
using support::log_capture;
using support::wait_until;

namespace
{

/** A thread function with what it saw. */
struct probe
{
    std::atomic<int> calls{0};
    std::atomic<bool> done{false};
    std::atomic<TARN_THREAD> handle{nullptr};
    std::atomic<uint32_t> work_ms{0};
    std::mutex lock;
    std::vector<double> starts_ms;

    static void *proc(void *p, void *)
    {
        auto *self = static_cast<probe *>(p);
        {
            const std::lock_guard guard(self->lock);
            self->starts_ms.push_back(static_cast<double>(tarn_tick_ns()) / 1e6);
        }
        self->calls.fetch_add(1);
        if (self->work_ms != 0)
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(self->work_ms));
        }
        return nullptr;
    }
    std::vector<double> gaps()
    {
        const std::lock_guard guard(lock);
        std::vector<double> result;
        for (size_t i = 1; i < starts_ms.size(); ++i)
        {
            result.push_back(starts_ms[i] - starts_ms[i - 1]);
        }
        return result;
    }
};

size_t base_threads = 0;

/** Lets another moment pass in every round. */
void spin(int round)
{
    for (int i = 0; i < round % 64 * 50; ++i)
    {
        asm volatile("" ::: "memory");
    }
}

class Thread : public testing::Test
{
protected:
    support::layer layer_;
    support::leak_check leaks_;
    void SetUp() override
    {
        base_threads = support::running_threads();
    }
    void TearDown() override
    {
        EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; })) << tarn_thread_count();
    }
};

TEST_F(Thread, CycleIsMeasuredFromStartToStart)
{
    probe p;
    p.work_ms = 15;
    TARN_THREAD t = tarn_thread_start(probe::proc, &p, nullptr, 40, "paced");
    ASSERT_TRUE(wait_until([&] { return p.calls >= 6; }));
    tarn_thread_stop(t);
    const auto gaps = p.gaps();
    for (const double gap : gaps)
    {
        EXPECT_GE(gap, 38.0);
    }
    EXPECT_LT(*std::min_element(gaps.begin(), gaps.end()), 55.0); // 40, not 40 + 15
}

TEST_F(Thread, OverrunStartsTheNextCallAtOnceAndCycleZeroNeverWaits)
{
    probe slow;
    slow.work_ms = 30;
    TARN_THREAD t = tarn_thread_start(probe::proc, &slow, nullptr, 20, "slow");
    ASSERT_TRUE(wait_until([&] { return slow.calls >= 4; }));
    tarn_thread_stop(t);
    const auto gaps = slow.gaps();
    EXPECT_LT(*std::min_element(gaps.begin(), gaps.end()), 39.0); // 30 and 1, not 40

    probe busy;
    t = tarn_thread_start(probe::proc, &busy, nullptr, 0, "busy");
    ASSERT_TRUE(wait_until([&] { return busy.calls >= 200; }));
    tarn_thread_stop(t);
}

TEST_F(Thread, StopCutsTheWaitShort)
{
    probe p;
    TARN_THREAD t = tarn_thread_start(probe::proc, &p, nullptr, 3600000, "hourly");
    ASSERT_TRUE(wait_until([&] { return p.calls == 1; }));
    EXPECT_LT(support::elapsed_ms([&] { tarn_thread_stop(t); }), 5000.0);
    EXPECT_EQ(p.calls, 1);
}

TEST_F(Thread, ReportsItself)
{
    static std::atomic<bool> done{false};
    const auto proc = [](void *arg1, void *arg2) -> void * {
        if (done)
        {
            return nullptr; // the second call, with the cycle that the first one set
        }
        EXPECT_EQ(arg1, &done);
        EXPECT_EQ(arg2, nullptr);
        EXPECT_STREQ(tarn_thread_self_name(), "a name that is cut to thirty-nine bytes");
        EXPECT_EQ(tarn_thread_self_loop_cycle(), 3600000u);
        tarn_thread_set_loop_cycle(1); // takes effect with the wait after this call
        EXPECT_EQ(tarn_thread_self_loop_cycle(), 1u);
        done = true;
        return nullptr;
    };
    TARN_THREAD t = tarn_thread_start(proc, &done, nullptr, 3600000,
                                      "a name that is cut to thirty-nine bytes, and terminated");
    ASSERT_TRUE(wait_until([] { return done.load(); }));
    EXPECT_TRUE(tarn_thread_wait_for_start(t, 0) || tarn_thread_wait_for_start(t, 1000));
    EXPECT_EQ(tarn_thread_get_loop_cycle(t), 1u);
    EXPECT_NE(tarn_thread_id(t), 0u);
    EXPECT_NE(tarn_thread_loop_start_tick(t), 0u);
    EXPECT_EQ(reinterpret_cast<tarn_handle_header *>(t)->type, TARN_HANDLE_TYPE_THREAD);
    {
        log_capture log;
        EXPECT_EQ(tarn_thread_count(), 1u);
        EXPECT_TRUE(log.contains("debug", "thread name = a name that"));
    }
    tarn_thread_change_loop_cycle(t, 7);
    tarn_close_handle(t);

    // A foreign thread has none of this, and its sleep does not sleep.
    std::thread([] {
        EXPECT_EQ(tarn_thread_self_name(), nullptr);
        EXPECT_EQ(tarn_thread_self_loop_cycle(), 0u);
        tarn_thread_set_loop_cycle(5);
        EXPECT_LT(support::elapsed_ms([] { EXPECT_FALSE(tarn_thread_sleep(10000)); }), 5000.0);
    }).join();
}

TEST_F(Thread, ChangedCycleMayNotTurnTheWaitNegative)
{
    // Raised during the call, changed from outside during the wait, in all orders.
    probe p;
    TARN_THREAD t = tarn_thread_start(probe::proc, &p, nullptr, 1, "changed");
    for (int i = 0; i < 2000; ++i)
    {
        tarn_thread_change_loop_cycle(t, i % 3 == 0 ? 0 : i % 3 == 1 ? 1 : 2);
    }
    const int before = p.calls;
    EXPECT_TRUE(wait_until([&] { return p.calls > before + 2; }));
    tarn_thread_stop(t);
}

TEST_F(Thread, SleepEndsWithAStopRequestOrTheExitEvent)
{
    static std::atomic<int> state;
    state = 0;
    const auto proc = [](void *, void *) -> void * {
        state = 1;
        state = tarn_thread_sleep(TARN_INFINITE) ? 2 : 3;
        return nullptr;
    };
    TARN_THREAD t = tarn_thread_start(proc, nullptr, nullptr, 0, "sleeper");
    ASSERT_TRUE(wait_until([] { return state == 1; }));
    tarn_thread_stop(t);
    EXPECT_EQ(state, 2);

    EXPECT_FALSE(tarn_thread_sleep(2)); // main thread
    tarn_event_set(__tarn_process_exit_event__);
    EXPECT_TRUE(tarn_thread_sleep(TARN_INFINITE));
    tarn_event_reset(__tarn_process_exit_event__);
}

TEST_F(Thread, StackSizesAreRaisedAndReported)
{
    static std::atomic<size_t> stack;
    const auto proc = [](void *, void *) -> void * {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        size_t size = 0;
        pthread_attr_getstacksize(&attributes, &size);
        stack = size;
        pthread_attr_destroy(&attributes);
        return nullptr;
    };
    const std::pair<uint32_t, size_t> cases[] = {{0, 0x200000}, {1000, 16384}, {0x40000, 0x40000}};
    for (const auto &[wanted, given] : cases)
    {
        if (support::with_sanitizer && given < 0x200000)
        {
            continue; // their runtimes need more
        }
        log_capture log;
        stack = 0;
        TARN_THREAD t = tarn_thread_start_ex(proc, nullptr, nullptr, 1000, wanted, "stack");
        ASSERT_NE(t, nullptr);
        EXPECT_TRUE(log.contains("debug", "stacksize = [" + std::to_string(given) + "]"));
        EXPECT_TRUE(wait_until([] { return stack != 0; }));
        tarn_thread_stop(t);
        // glibc may hand over the stack of an ended thread, up to four times as large
        EXPECT_GE(stack, given);
        EXPECT_LE(stack, 4 * given);
    }
}

TEST_F(Thread, AreSpreadOverTheProcessors)
{
    static std::atomic<int> allowed;
    const auto proc = [](void *, void *) -> void * {
        cpu_set_t set;
        sched_getaffinity(0, sizeof set, &set);
        allowed = CPU_COUNT(&set);
        return nullptr;
    };
    for (int i = 0; i < 3; ++i)
    {
        allowed = 0;
        TARN_THREAD t = tarn_thread_start(proc, nullptr, nullptr, 1000, "pinned");
        ASSERT_TRUE(wait_until([] { return allowed != 0; }));
        tarn_thread_stop(t);
    }
    cpu_set_t main_set;
    sched_getaffinity(0, sizeof main_set, &main_set);
    if (sysconf(_SC_NPROCESSORS_CONF) >= 2 && CPU_COUNT(&main_set) >= 2)
    {
        EXPECT_EQ(allowed, 1);
    }
}

void *noop(void *, void *)
{
    return nullptr;
}

TEST_F(Thread, StartFailuresAreReported)
{
    log_capture log;
    expect_check("RVON(t,TARN_INVALID_HANDLE)");
    expect_check("RVON(ev,TARN_INVALID_HANDLE)");
    const size_t failures = support::fail_each_allocation([](size_t) {
        TARN_THREAD t = tarn_thread_start(noop, nullptr, nullptr, TARN_THREAD_ONCE, "x");
        EXPECT_EQ(t == nullptr, support::allocation_failed());
    });
    EXPECT_EQ(failures, 3u);
    struct rlimit limit
    {
    };
    ASSERT_EQ(::getrlimit(RLIMIT_AS, &limit), 0);
    if (!support::with_sanitizer) // they reserve more than any limit
    {
        const struct rlimit tight = {limit.rlim_max < (1ul << 30) ? limit.rlim_max : 1ul << 30,
                                     limit.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_AS, &tight), 0);
        EXPECT_EQ(tarn_thread_start_ex(noop, nullptr, nullptr, 1, 0xFFFFF000u, "huge"), nullptr);
        EXPECT_TRUE(log.contains("error", "thread huge create failed!, error = 11"));
        ASSERT_EQ(::setrlimit(RLIMIT_AS, &limit), 0);
    }
    expect_check("RVON(proc,none)");
    EXPECT_EQ(tarn_thread_start(nullptr, nullptr, nullptr, 1, nullptr), nullptr);
    expect_check("RVON(fn,0)");
    EXPECT_EQ(tarn_thread_run_once(nullptr, nullptr), 0u);
    expect_check("RON(t)");
    tarn_thread_stop(nullptr);
}

// ---- ends ----------------------------------------------------------------------------------------

TEST_F(Thread, OneShotsFreeThemselvesInATightLoop)
{
    std::atomic<int> runs{0};
    const int rounds = support::with_sanitizer ? 500 : 3000;
    for (int i = 0; i < rounds; ++i)
    {
        const uint64_t id = tarn_thread_run_once(
            [](void *p) { static_cast<std::atomic<int> *>(p)->fetch_add(1); }, &runs);
        ASSERT_NE(id, 0u);
    }
    EXPECT_TRUE(wait_until([&] { return runs == rounds; }));
}

void *stop_self(void *p, void *)
{
    auto *self = static_cast<probe *>(p);
    self->calls.fetch_add(1);
    while (self->handle == nullptr)
    {
        sched_yield();
    }
    tarn_thread_stop(self->handle);
    tarn_thread_stop(self->handle); // ended: not in the registry any more
    EXPECT_TRUE(tarn_thread_sleep(TARN_INFINITE));
    self->done = true;
    return nullptr;
}

TEST_F(Thread, MayStopItselfFromItsProc)
{
    for (int i = 0; i < (support::with_sanitizer ? 100 : 500); ++i)
    {
        probe p;
        p.handle = tarn_thread_start(stop_self, &p, nullptr, i % 2 == 0 ? 0 : 1000, "self");
        ASSERT_TRUE(wait_until([&] { return p.done.load(); }));
        ASSERT_TRUE(wait_until([] { return support::running_threads() <= base_threads; }));
        EXPECT_EQ(p.calls, 1);
    }
}

TEST_F(Thread, StopsFromOutsideInAnyPhase)
{
    const int rounds = support::with_sanitizer ? 500 : 3000;
    for (int i = 0; i < rounds; ++i)
    {
        probe p;
        TARN_THREAD t = tarn_thread_start(probe::proc, &p, nullptr,
                                          static_cast<uint32_t>(i % 3 == 0 ? 0 : i % 3), "stopped");
        ASSERT_NE(t, nullptr);
        spin(i);
        tarn_thread_stop(t);
        const int calls = p.calls;
        EXPECT_EQ(p.calls, calls); // nothing runs after stop has returned
    }
}

TEST_F(Thread, MayBeCancelledInAnyPhase)
{
    const auto proc = [](void *p, void *) -> void * {
        static_cast<std::atomic<int> *>(p)->fetch_add(1);
        TARN_LOG_DEBUG("no cancellation point, also with %s", "arguments");
        pthread_testcancel();
        return nullptr;
    };
    const int rounds = support::with_sanitizer ? 400 : 2000;
    std::atomic<int> calls{0};
    for (int i = 0; i < rounds; ++i)
    {
        // 0: back to back, 1: mostly in the wait, 3600000: only in the wait
        const uint32_t cycle = i % 3 == 0 ? 0 : i % 3 == 1 ? 1 : 3600000;
        TARN_THREAD t = tarn_thread_start(proc, &calls, nullptr, cycle, "cancelled");
        ASSERT_NE(t, nullptr);
        const uint32_t id = tarn_thread_id(t);
        spin(i);
        EXPECT_TRUE(tarn_thread_cancel(id));
        ASSERT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
        EXPECT_FALSE(tarn_thread_cancel(id));
    }
    EXPECT_FALSE(tarn_thread_cancel(0));
}

TEST_F(Thread, OneShotsMayBeCancelledAndExitEarly)
{
    const tarn::unique_handle<TARN_EVENT, tarn_event_destroy> never(tarn_event_create(true, false));
    const uint64_t id = tarn_thread_run_once(
        [](void *ev) { (void)tarn_event_wait(static_cast<TARN_EVENT>(ev), TARN_INFINITE); },
        never.get());
    EXPECT_TRUE(tarn_thread_cancel(id));
    ASSERT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
    EXPECT_NE(tarn_thread_run_once([](void *) { pthread_exit(nullptr); }, nullptr), 0u);
    ASSERT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
}

TEST_F(Thread, EndsAfterTheCallWhenTheCycleBecomesOnce)
{
    probe p;
    TARN_THREAD t = tarn_thread_start(probe::proc, &p, nullptr, 1, "late once");
    ASSERT_TRUE(wait_until([&] { return p.calls >= 2; }));
    tarn_thread_change_loop_cycle(t, TARN_THREAD_ONCE);
    ASSERT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
    tarn_thread_stop(t); // ended: ignored
}

TEST_F(Thread, ConcurrentStopAndCancelFreeOnce)
{
    for (int i = 0; i < (support::with_sanitizer ? 200 : 1000); ++i)
    {
        probe p;
        TARN_THREAD t = tarn_thread_start(probe::proc, &p, nullptr, 1, "contended");
        const uint32_t id = tarn_thread_id(t);
        std::thread canceller([id] { (void)tarn_thread_cancel(id); });
        tarn_thread_stop(t);
        canceller.join();
        ASSERT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
    }
}

// Each stops the other: one join fails with EDEADLK, that thread is cancelled and frees itself.
TEST_F(Thread, TwoThreadsThatStopEachOtherBothEnd)
{
    static std::atomic<TARN_THREAD> other[2];
    static std::atomic<int> running;
    log_capture log;
    for (int i = 0; i < 20; ++i)
    {
        other[0] = other[1] = nullptr;
        running = 0;
        const auto proc = [](void *arg, void *) -> void * {
            auto *victim = static_cast<std::atomic<TARN_THREAD> *>(arg);
            TARN_THREAD t = nullptr;
            ++running;
            while (running != 2 || (t = victim->load()) == nullptr)
            {
                sched_yield();
            }
            tarn_thread_stop(t);
            return nullptr;
        };
        TARN_THREAD a = tarn_thread_start(proc, &other[1], nullptr, 3600000, "a");
        TARN_THREAD b = tarn_thread_start(proc, &other[0], nullptr, 3600000, "b");
        other[0] = a;
        other[1] = b;
        ASSERT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
        ASSERT_TRUE(wait_until([] { return support::running_threads() <= base_threads; }));
    }
    EXPECT_EQ(log.count("pthread_join failed, errno = [35]"), log.count(".warn [tarn_thread.cpp"));
}

TEST_F(Thread, PriorityTableIsApplied)
{
    static std::atomic<int> policy;
    const auto proc = [](void *arg, void *) -> void * {
        tarn_thread_set_priority(nullptr, *static_cast<int *>(arg));
        sched_param parameters{};
        int current = 0;
        pthread_getschedparam(pthread_self(), &current, &parameters);
        policy = current * 1000 + parameters.sched_priority;
        return nullptr;
    };
    for (int priority = 0; priority <= 5; ++priority)
    {
        const int expected[] = {
            SCHED_FIFO * 1000 + 99, SCHED_RR * 1000 + 79, 0, 0, SCHED_IDLE * 1000, 0};
        log_capture log;
        policy = -1;
        TARN_THREAD t = tarn_thread_start(proc, &priority, nullptr, 3600000, "prio");
        ASSERT_TRUE(wait_until([] { return policy != -1; }));
        tarn_thread_stop(t);
        if (log.contains("!!!!!!!!!!!! pthread_setschedparam failed !!!!!!!!!!!!"))
        {
            EXPECT_EQ(policy, 0) << "a refused priority must change nothing";
            EXPECT_LE(priority, 1) << "only real time needs privileges";
        }
        else
        {
            EXPECT_EQ(policy, expected[priority]) << priority;
        }
    }
}

TEST_F(Thread, SpecificDataIsPerThread)
{
    static std::atomic<int> destroyed;
    destroyed = 0;
    tarn_tls_key key = 0;
    ASSERT_TRUE(tarn_tls_key_create(&key, [](void *) { ++destroyed; }));
    int mine = 0;
    ASSERT_TRUE(tarn_tls_set(key, &mine));
    std::thread([key] {
        EXPECT_EQ(tarn_tls_get(key), nullptr);
        int theirs = 0;
        EXPECT_TRUE(tarn_tls_set(key, &theirs));
        EXPECT_EQ(tarn_tls_get(key), &theirs);
    }).join();
    EXPECT_EQ(tarn_tls_get(key), &mine);
    EXPECT_EQ(destroyed, 1);
    expect_check("RVON(key,false)");
    EXPECT_FALSE(tarn_tls_key_create(nullptr, nullptr));
    pthread_key_delete(key);
}

} // namespace
