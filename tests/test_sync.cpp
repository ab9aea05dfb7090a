// Critical sections, events, semaphores.

#include "support.h"

#include "tarn_critical_section.h"
#include "tarn_event.h"
#include "tarn_event_internal.h"
#include "tarn_raii.h"
#include "tarn_semaphore.h"
#include "tarn_semaphore_internal.h"
#include "tarn_sys.h"

#include <csignal>
#include <numeric>
#include <thread>

#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>

using support::elapsed_ms;
using support::expect_check;
using support::log_capture;
using support::signal_storm;
using event_owner = tarn::unique_handle<TARN_EVENT, tarn_event_destroy>;
using semaphore_owner = tarn::unique_handle<TARN_SEMAPHORE, tarn_semaphore_destroy>;
using section_owner = tarn::unique_handle<TARN_CRITICAL_SECTION, tarn_critical_section_destroy>;

namespace
{

// ---- critical sections ---------------------------------------------------------------------------

TEST(CriticalSection, IsRecursiveAndExcludesOtherThreads)
{
    const section_owner owner(tarn_critical_section_create());
    TARN_CRITICAL_SECTION cs = owner.get();
    tarn_critical_section_enter(cs);
    EXPECT_TRUE(tarn_critical_section_try_enter(cs));
    std::thread([cs] { EXPECT_FALSE(tarn_critical_section_try_enter(cs)); }).join();
    tarn_critical_section_leave(cs);
    std::thread([cs] { EXPECT_FALSE(tarn_critical_section_try_enter(cs)); }).join();
    tarn_critical_section_leave(cs);

    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back([&] {
            for (int n = 0; n < 5000; ++n)
            {
                const tarn::critical_section_guard guard(cs);
                ++counter;
            }
        });
    }
    for (auto &thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(counter, 20000);
}

TEST(CriticalSection, IgnoresNullAndTracesItsCallers)
{
    tarn_critical_section_enter(nullptr);
    tarn_critical_section_leave(nullptr);
    tarn_critical_section_destroy(nullptr);
    EXPECT_FALSE(tarn_critical_section_try_enter(nullptr));

    const section_owner owner(tarn_critical_section_create());
    log_capture log;
    tarn_critical_section_enter_dbg("f.c", 7, "fn", owner.get());
    EXPECT_TRUE(tarn_critical_section_try_enter(owner.get()));
    tarn_critical_section_leave(owner.get());
    tarn_critical_section_leave_dbg("f.c", 8, "fn", owner.get());
    ASSERT_EQ(log.messages().size(), 3u);
    EXPECT_TRUE(log.messages()[0].starts_with("f.c 7 fn: crit_sect_enter 0x"));
    EXPECT_TRUE(log.messages()[0].ends_with(" 0"));
    EXPECT_TRUE(log.messages()[1].ends_with(" +++"));
    EXPECT_TRUE(log.messages()[2].starts_with("f.c 8 fn: crit_sect_leave 0x"));
    EXPECT_TRUE(log.messages()[2].ends_with(" ---"));
    std::thread([&] {
        EXPECT_TRUE(tarn_critical_section_try_enter(owner.get()));
        tarn_critical_section_leave(owner.get());
    }).join();
}

// ---- events --------------------------------------------------------------------------------------

TEST(Event, AutoResetSatisfiesOneWaitAndManualResetAll)
{
    const event_owner automatic(tarn_event_create(false, true));
    EXPECT_TRUE(tarn_event_set(automatic.get()));
    EXPECT_TRUE(tarn_event_set(automatic.get()));
    EXPECT_TRUE(tarn_event_wait(automatic.get(), 0));
    EXPECT_FALSE(tarn_event_wait(automatic.get(), 0));

    const event_owner manual(tarn_event_create(true, false));
    EXPECT_FALSE(tarn_event_wait(manual.get(), 1));
    EXPECT_TRUE(tarn_event_set(manual.get()));
    EXPECT_TRUE(tarn_event_wait(manual.get(), 0));
    EXPECT_TRUE(tarn_event_wait(manual.get(), TARN_INFINITE));
    EXPECT_TRUE(tarn_event_reset(manual.get()));
    EXPECT_FALSE(tarn_event_wait(manual.get(), 0));
}

TEST(Event, RefusesNull)
{
    expect_check("RVON(ev,false)");
    EXPECT_FALSE(tarn_event_set(nullptr));
    EXPECT_FALSE(tarn_event_reset(nullptr));
    EXPECT_FALSE(tarn_event_wait(nullptr, 5));
    tarn_event_destroy(nullptr);
}

TEST(Event, ZeroTimeoutGivesUpWhileAnotherThreadIsInside)
{
    const event_owner ev(tarn_event_create(true, true));
    std::thread([&] {
        tarn::event_lock(ev.get());
        std::thread([&] { EXPECT_FALSE(tarn_event_wait(ev.get(), 0)); }).join();
        tarn::event_unlock(ev.get());
    }).join();
    EXPECT_TRUE(tarn_event_wait(ev.get(), 0));
    EXPECT_TRUE(tarn::event_is_set(ev.get()));
}

TEST(Event, WaitKeepsItsTimeUnderSignals)
{
    const event_owner ev(tarn_event_create(false, false));
    const signal_storm storm;
    const double waited = elapsed_ms([&] { EXPECT_FALSE(tarn_event_wait(ev.get(), 60)); });
    EXPECT_GE(waited, 59);
    EXPECT_LT(waited, 2000);
}

TEST(Event, SetWakesOneOrAllWaiters)
{
    for (const bool manual : {false, true})
    {
        const event_owner ev(tarn_event_create(manual, false));
        std::atomic<int> woken{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 4; ++i)
        {
            waiters.emplace_back(
                [&] { woken += tarn_event_wait(ev.get(), TARN_INFINITE) ? 1 : 0; });
        }
        tarn_event_set(ev.get());
        EXPECT_TRUE(support::wait_until([&] { return woken == (manual ? 4 : 1); }));
        for (int i = 1; !manual && i < 4; ++i)
        {
            EXPECT_TRUE(support::wait_until([&] { return woken == i; }));
            tarn_event_set(ev.get());
        }
        for (auto &waiter : waiters)
        {
            waiter.join();
        }
        EXPECT_EQ(woken, 4);
    }
}

// A waiter that is let through destroys the event while the setter may still be inside its set.
TEST(Event, MayBeDestroyedByTheWaiterItLetThrough)
{
    for (int i = 0; i < (support::with_tsan ? 300 : 2000); ++i)
    {
        TARN_EVENT ev = tarn_event_create(false, false);
        std::thread setter([ev] { tarn_event_set(ev); });
        EXPECT_TRUE(tarn_event_wait(ev, TARN_INFINITE));
        tarn_event_destroy(ev);
        setter.join();
    }
}

TEST(Event, CancelledWaiterLeavesItUsable)
{
    const event_owner ev(tarn_event_create(false, false));
    for (const uint32_t ms : {TARN_INFINITE, 60000u})
    {
        std::atomic<bool> waiting{false};
        pthread_t waiter{};
        struct argument
        {
            TARN_EVENT ev;
            uint32_t ms;
            std::atomic<bool> *waiting;
        } shared = {ev.get(), ms, &waiting};
        ASSERT_EQ(pthread_create(
                      &waiter, nullptr,
                      [](void *p) -> void * {
                          auto *a = static_cast<argument *>(p);
                          a->waiting->store(true);
                          tarn_event_wait(a->ev, a->ms);
                          return nullptr;
                      },
                      &shared),
                  0);
        ASSERT_TRUE(support::wait_until([&] { return waiting.load(); }));
        pthread_cancel(waiter);
        void *result = nullptr;
        pthread_join(waiter, &result);
        EXPECT_EQ(result, PTHREAD_CANCELED);
        EXPECT_TRUE(tarn_event_set(ev.get())); // would hang on a mutex left locked
        EXPECT_TRUE(tarn_event_wait(ev.get(), 1000));
    }
}

// ---- semaphores ----------------------------------------------------------------------------------

TEST(Semaphore, CountsUnits)
{
    const semaphore_owner sem(tarn_semaphore_create(nullptr, 2));
    EXPECT_TRUE(tarn_semaphore_wait(sem.get(), 0));
    EXPECT_TRUE(tarn_semaphore_wait(sem.get(), TARN_INFINITE));
    EXPECT_FALSE(tarn_semaphore_wait(sem.get(), 0));
    int status = 7;
    tarn_semaphore_post(sem.get(), 3, &status);
    EXPECT_EQ(status, 0); // of the query, never the value
    for (int i = 0; i < 3; ++i)
    {
        EXPECT_TRUE(tarn_semaphore_wait(sem.get(), 10));
    }
    EXPECT_FALSE(tarn_semaphore_wait(sem.get(), 0));

    const semaphore_owner full(tarn_semaphore_create(nullptr, SEM_VALUE_MAX - 1));
    tarn_semaphore_post(full.get(), 0xFFFFFFFF, nullptr); // ends at the limit
    EXPECT_EQ(tarn_semaphore_create(nullptr, 0x80000000u), nullptr);

    expect_check("RON(sem)");
    expect_check("RVON(sem,false)");
    tarn_semaphore_post(nullptr, 1, &status);
    EXPECT_FALSE(tarn_semaphore_wait(nullptr, 0));
    tarn_semaphore_destroy(nullptr);
}

TEST(Semaphore, PollScheduleDoublesFromOneToAHundredMilliseconds)
{
    std::vector<uint32_t> steps(11 + 6 * 12 + 20);
    tarn::poll_schedule schedule;
    std::generate(steps.begin(), steps.end(), [&] { return schedule.next(); });
    auto at = steps.begin();
    EXPECT_EQ(std::count(at, at + 11, 1u), 11);
    at += 11;
    for (uint32_t step = 2; step <= 64; step *= 2, at += 12)
    {
        EXPECT_EQ(std::count(at, at + 12, step), 12) << step;
    }
    EXPECT_EQ(std::count(at, steps.end(), 100u), 20);
}

TEST(Semaphore, TimedWaitKeepsItsTime)
{
    const semaphore_owner sem(tarn_semaphore_create(nullptr, 0));
    const signal_storm storm;
    const double waited = elapsed_ms([&] { EXPECT_FALSE(tarn_semaphore_wait(sem.get(), 50)); });
    EXPECT_GE(waited, 49);
    EXPECT_LT(waited, 2000);
    std::thread poster([&] { tarn_semaphore_post(sem.get(), 2, nullptr); });
    EXPECT_TRUE(tarn_semaphore_wait(sem.get(), 20000));
    EXPECT_TRUE(tarn_semaphore_wait(sem.get(), TARN_INFINITE)); // interrupted again and again
    poster.join();
}

TEST(Semaphore, NamesAreLimitedAndReplacedByANewCreator)
{
    const std::string name = support::unique_name("sem");
    const mode_t mask = ::umask(077);
    const semaphore_owner first(tarn_semaphore_create(name.c_str(), 1));
    EXPECT_EQ(::umask(mask), 077u);
    struct stat status
    {
    };
    ASSERT_EQ(::stat(("/dev/shm/sem." + name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0666u);
    {
        const semaphore_owner opened(tarn_semaphore_open(name.c_str()));
        EXPECT_TRUE(tarn_semaphore_wait(opened.get(), 0));
        EXPECT_FALSE(tarn_semaphore_wait(first.get(), 0));
    } // an opener does not remove the name
    {
        const semaphore_owner second(tarn_semaphore_create(name.c_str(), 5));
        ASSERT_TRUE(second);
        EXPECT_FALSE(tarn_semaphore_wait(first.get(), 0)); // another object now
        const semaphore_owner opened(tarn_semaphore_open(name.c_str()));
        EXPECT_TRUE(tarn_semaphore_wait(opened.get(), 0));
    }
    log_capture log;
    EXPECT_EQ(tarn_semaphore_open(name.c_str()), nullptr);
    EXPECT_TRUE(log.contains("trace", "coundn't open semaphore object /" + name + ", errno = 2."));

    const std::string longest = (name + std::string(107, 'x')).substr(0, 107);
    EXPECT_TRUE(semaphore_owner(tarn_semaphore_create(longest.c_str(), 0)));
    EXPECT_EQ(tarn_semaphore_create((longest + "x").c_str(), 0), nullptr);
    EXPECT_TRUE(log.contains("error", "The name for the semaphore object is too long."));
    EXPECT_EQ(tarn_semaphore_open((longest + "x").c_str()), nullptr);
    EXPECT_TRUE(log.contains("trace", "The name for the semaphore object is too long."));
    EXPECT_EQ(tarn_semaphore_create("a/b", 0), nullptr);
    EXPECT_TRUE(log.contains("error", "couldn't open the semaphore object /a/b, errno = 22"));
    expect_check("RVON(name,TARN_INVALID_HANDLE)");
    EXPECT_EQ(tarn_semaphore_open(nullptr), nullptr);
}

TARN_TEST_ROLE(semaphore_peer)
{
    TARN_SEMAPHORE ping = tarn_semaphore_open(args[0].c_str());
    TARN_SEMAPHORE pong = tarn_semaphore_open(args[1].c_str());
    for (int i = 0; i < 500; ++i)
    {
        if (!tarn_semaphore_wait(ping, i % 2 == 0 ? TARN_INFINITE : 10000))
        {
            return 1;
        }
        tarn_semaphore_post(pong, 1, nullptr);
    }
    tarn_semaphore_destroy(ping);
    tarn_semaphore_destroy(pong);
    return 0;
}

TEST(Semaphore, OrdersTwoProcesses)
{
    const std::string ping_name = support::unique_name("ping");
    const std::string pong_name = support::unique_name("pong");
    const semaphore_owner ping(tarn_semaphore_create(ping_name.c_str(), 0));
    const semaphore_owner pong(tarn_semaphore_create(pong_name.c_str(), 0));
    auto peer = support::child_process::role("semaphore_peer", {ping_name, pong_name});
    for (int i = 0; i < 500; ++i)
    {
        EXPECT_FALSE(tarn_semaphore_wait(pong.get(), 0)) << "an answer before its question";
        tarn_semaphore_post(ping.get(), 1, nullptr);
        ASSERT_TRUE(tarn_semaphore_wait(pong.get(), 10000));
    }
    EXPECT_EQ(peer.wait(), 0);
}

} // namespace
