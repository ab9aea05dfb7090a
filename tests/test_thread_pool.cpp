// Thread pool: every job once, reuse, time-outs, destroy at any moment.

#include "support.h"

#include "tarn_event.h"
#include "tarn_raii.h"
#include "tarn_thread_pool.h"

#include <set>
#include <thread>

#include <pthread.h>

using support::elapsed_ms;
using support::expect_check;
using pool_owner = tarn::unique_handle<TARN_THREAD_POOL, tarn_thread_pool_destroy>;
using event_owner = tarn::unique_handle<TARN_EVENT, tarn_event_destroy>;

namespace
{

/** A job that says that it runs, and runs until it is released, by the end of its scope at last. */
struct held_job
{
    ~held_job()
    {
        end();
        EXPECT_TRUE(thread == 0 || support::wait_until([this] { return ended.load(); }));
    }
    event_owner begun{tarn_event_create(true, false)};
    event_owner release{tarn_event_create(true, false)};
    std::atomic<uint32_t> thread{0};
    std::atomic<bool> ended{false};

    static void *proc(void *job, void *)
    {
        auto *self = static_cast<held_job *>(job);
        self->thread = tarn_thread_self_id();
        tarn_event_set(self->begun.get());
        tarn_event_wait(self->release.get(), TARN_INFINITE);
        self->ended = true;
        return nullptr;
    }
    bool start(TARN_THREAD_POOL tp, uint32_t timeout_ms = 5000)
    {
        return tarn_thread_pool_start_thread_ex(tp, timeout_ms, proc, this, nullptr) &&
               tarn_event_wait(begun.get(), 10000);
    }
    void end()
    {
        tarn_event_set(release.get());
    }
};

/** Number of the thread that the pool's next job runs on. */
uint32_t next_worker(TARN_THREAD_POOL tp)
{
    held_job job;
    EXPECT_TRUE(job.start(tp));
    return job.thread;
}

class ThreadPool : public testing::Test
{
protected:
    support::layer layer_;
    support::leak_check leaks_;
    void TearDown() override
    {
        EXPECT_TRUE(support::wait_until([] { return tarn_thread_count() == 0; }));
    }
};

TEST_F(ThreadPool, RefusesBadArguments)
{
    expect_check("RVOF(max_thread_count > 0,TARN_INVALID_HANDLE)");
    expect_check("RVON(tp,false)");
    expect_check("RVON(proc,false)");
    EXPECT_EQ(tarn_thread_pool_create(0), nullptr);
    EXPECT_FALSE(tarn_thread_pool_start_thread(nullptr, held_job::proc, nullptr, nullptr));
    const pool_owner tp(tarn_thread_pool_create(1));
    EXPECT_FALSE(tarn_thread_pool_start_thread(tp.get(), nullptr, nullptr, nullptr));
    tarn_thread_pool_destroy(nullptr);
    TARN_CLOSE_HANDLE(tarn_thread_pool_create(4));
}

class ThreadPoolStress : public ThreadPool, public testing::WithParamInterface<uint32_t>
{
};

TEST_P(ThreadPoolStress, RunsEveryJobOnceAndKeepsToItsMaximum)
{
    constexpr uint32_t producers = 8;
    constexpr uint32_t each = support::with_sanitizer ? 4000 : 125000;
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    std::vector<std::atomic<uint8_t>> runs(producers * each);
    std::atomic<uint32_t> refused{0};
    std::atomic<uint32_t> most_threads{0};
    TARN_THREAD_POOL tp = tarn_thread_pool_create(GetParam());
    std::vector<std::thread> threads;
    for (uint32_t p = 0; p < producers; ++p)
    {
        threads.emplace_back([&, p] {
            for (uint32_t i = p * each; i < (p + 1) * each; ++i)
            {
                const auto count = [](void *run, void *) -> void * {
                    static_cast<std::atomic<uint8_t> *>(run)->fetch_add(1);
                    return nullptr;
                };
                refused +=
                    tarn_thread_pool_start_thread_ex(tp, TARN_INFINITE, count, &runs[i], nullptr)
                        ? 0
                        : 1;
            }
            most_threads = std::max(most_threads.load(), tarn_thread_count());
        });
    }
    for (std::thread &thread : threads)
    {
        thread.join();
    }
    tarn_thread_pool_destroy(tp); // the last jobs may still run
    EXPECT_TRUE(support::wait_until([] { return tarn_thread_count() == 0; }));
    EXPECT_EQ(refused, 0u);
    EXPECT_LE(most_threads, GetParam());
    EXPECT_EQ(std::count(runs.begin(), runs.end(), 1), std::ptrdiff_t{producers * each});
}

INSTANTIATE_TEST_SUITE_P(Workers, ThreadPoolStress, testing::Values(1u, 2u, 8u, 256u));

TEST_F(ThreadPool, ReusesTheWorkerThatFinishedLast)
{
    const pool_owner tp(tarn_thread_pool_create(3));
    held_job first;
    held_job second;
    ASSERT_TRUE(first.start(tp.get()));
    ASSERT_TRUE(second.start(tp.get()));
    EXPECT_NE(first.thread, second.thread);
    support::log_capture log;
    second.end();
    ASSERT_TRUE(log.wait_for("[thread_pool_thread] finish"));
    log.clear();
    first.end();
    ASSERT_TRUE(log.wait_for("[thread_pool_thread] finish"));
    for (int i = 0; i < 10; ++i)
    {
        log.clear();
        EXPECT_EQ(next_worker(tp.get()), first.thread);
        ASSERT_TRUE(log.wait_for("[thread_pool_thread] finish"));
    }
    EXPECT_EQ(tarn_thread_count(), 2u);
}

TEST_F(ThreadPool, BusyPoolKeepsCallersForTheirTimeOut)
{
    const pool_owner tp(tarn_thread_pool_create(2));
    held_job first;
    held_job second;
    ASSERT_TRUE(first.start(tp.get()));
    ASSERT_TRUE(second.start(tp.get()));
    expect_check("RVON(thread,false)");
    held_job third;
    const double took = elapsed_ms([&] { EXPECT_FALSE(third.start(tp.get(), 100)); });
    EXPECT_GE(took, 100.0);
    EXPECT_LT(took, 4000.0); // not the default
    EXPECT_LT(elapsed_ms([&] { EXPECT_FALSE(third.start(tp.get(), 0)); }), 4000.0);

    std::atomic<bool> launched{false};
    std::thread waiting([&] { launched = third.start(tp.get(), TARN_INFINITE); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(launched);
    second.end();
    waiting.join();
    EXPECT_TRUE(launched);
    EXPECT_EQ(third.thread, second.thread);
    first.end();
    third.end();
}

TEST_F(ThreadPool, DestroyedWhileJobsRunItLetsThemFinish)
{
    TARN_THREAD_POOL tp = tarn_thread_pool_create(2);
    held_job first;
    held_job second;
    ASSERT_TRUE(first.start(tp));
    ASSERT_TRUE(second.start(tp));
    expect_check("RVON(thread,false)");
    std::vector<std::thread> waiting;
    std::atomic<int> gave_up{0};
    support::log_capture log;
    for (int i = 0; i < 3; ++i)
    {
        waiting.emplace_back([&] {
            gave_up += tarn_thread_pool_start_thread_ex(tp, TARN_INFINITE, held_job::proc, nullptr,
                                                        nullptr)
                           ? 0
                           : 1;
        });
    }
    ASSERT_TRUE(support::wait_until([&] { return log.count("[1] thread") >= 3; }));
    tarn_thread_pool_destroy(tp);
    for (std::thread &thread : waiting)
    {
        thread.join();
    }
    EXPECT_EQ(gave_up, 3);
    EXPECT_FALSE(first.ended);
    first.end();
    second.end();
    EXPECT_TRUE(support::wait_until([] { return tarn_thread_count() == 0; }));
    EXPECT_TRUE(first.ended && second.ended);
}

TEST_F(ThreadPool, JobMayDestroyItsPool)
{
    TARN_THREAD_POOL tp = tarn_thread_pool_create(4);
    held_job idle_soon;
    ASSERT_TRUE(idle_soon.start(tp));
    static std::atomic<bool> destroyed{false};
    const auto destroy = [](void *pool, void *) -> void * {
        tarn_thread_pool_destroy(static_cast<TARN_THREAD_POOL>(pool));
        destroyed = true;
        return nullptr;
    };
    idle_soon.end();
    ASSERT_TRUE(tarn_thread_pool_start_thread(tp, destroy, tp, nullptr));
    EXPECT_TRUE(support::wait_until([] { return destroyed.load(); }));
}

TEST_F(ThreadPool, WorkerOutlivesAJobThatEndsItsThread)
{
    const pool_owner tp(tarn_thread_pool_create(1));
    const auto leave = [](void *, void *) -> void * { pthread_exit(nullptr); };
    const auto cancelled = [](void *, void *) -> void * {
        EXPECT_TRUE(tarn_thread_cancel(tarn_thread_self_id()));
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
        return nullptr;
    };
    for (int i = 0; i < 20; ++i)
    {
        ASSERT_TRUE(tarn_thread_pool_start_thread(tp.get(), leave, nullptr, nullptr));
        ASSERT_TRUE(tarn_thread_pool_start_thread(tp.get(), cancelled, nullptr, nullptr));
        EXPECT_NE(next_worker(tp.get()), 0u);
    }
}

TEST_F(ThreadPool, LosesTheRoomOfAWorkerWhoseThreadCannotStart)
{
    // Without memory for the worker itself nothing is lost; without memory for its thread one place.
    expect_check("RVON(thread,false)");
    expect_check("RVOF(thread->handle != ((void*)0),false)");
    for (const char *text :
         {"RVON(tp,TARN_INVALID_HANDLE)", "RVON(crit_sect,TARN_INVALID_HANDLE)",
          "RVON(cs,TARN_INVALID_HANDLE)", "RVON(tp->evt_free,TARN_INVALID_HANDLE)",
          "RVON(ev,TARN_INVALID_HANDLE)", "RVON(w,nullptr)", "RVON(w.get()->sem_launch,nullptr)",
          "RVON(w.get()->evt_ready,nullptr)", "RVON(sem,TARN_INVALID_HANDLE)",
          "RVON(system,TARN_INVALID_HANDLE)", "RVON(t,TARN_INVALID_HANDLE)"})
    {
        expect_check(text);
    }
    const auto nothing = [](void *, void *) -> void * { return nullptr; };
    size_t lost = 0;
    const size_t failures = support::fail_each_allocation([&](size_t) {
        support::log_capture log;
        const pool_owner tp(tarn_thread_pool_create(1));
        if (!tp || tarn_thread_pool_start_thread_ex(tp.get(), 0, nothing, nullptr, nullptr))
        {
            return;
        }
        const bool no_thread = log.contains("RVOF(thread->handle != ((void*)0),false) failed");
        EXPECT_EQ(tarn_thread_pool_start_thread_ex(tp.get(), 0, nothing, nullptr, nullptr),
                  !no_thread);
        lost += no_thread ? 1 : 0;
    });
    EXPECT_GE(failures, 9u);
    EXPECT_EQ(lost, 3u); // the thread object and its two events
}

} // namespace
