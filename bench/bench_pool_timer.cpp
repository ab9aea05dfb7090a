// Thread pool, timers and ticks beside what the system gives bare: a job against a post to a waiting
// thread and its answer, a timer's callback against a thread that reads a timerfd, ticks against
// clock_gettime().
//
// All threads run with real-time priority where that is allowed: on a busy machine the figures of a
// hand-over between threads are those of its other load, and of whether the two happen to share a
// processor.

#include "ratio.h"

#include "tarn.h"
#include "tarn_event.h"
#include "tarn_sys.h"
#include "tarn_thread_pool.h"
#include "tarn_timer.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <thread>

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace
{

// ---- jobs ----------------------------------------------------------------------------------------

/** Pinned to one processor after the other, as loop threads are. */
void pin_like_a_loop_thread()
{
    static std::atomic<unsigned> next{0};
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(++next % std::thread::hardware_concurrency(), &set);
    (void)pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

void bare_hand_off(benchmark::State &state)
{
    sem_t ask;
    sem_t answer;
    sem_init(&ask, 0, 0);
    sem_init(&answer, 0, 0);
    std::atomic<bool> done{false};
    std::thread worker([&] {
        pin_like_a_loop_thread();
        while (sem_wait(&ask) == 0 && !done)
        {
            sem_post(&answer);
        }
    });
    for (auto turn : state)
    {
        sem_post(&ask);
        sem_wait(&answer);
    }
    done = true;
    sem_post(&ask);
    worker.join();
}
BENCHMARK(bare_hand_off)->UseRealTime();

void *answer_job(void *answer, void *)
{
    sem_post(static_cast<sem_t *>(answer));
    return nullptr;
}

void pool_job(benchmark::State &state)
{
    TARN_THREAD_POOL tp = tarn_thread_pool_create(2);
    sem_t answer;
    sem_init(&answer, 0, 0);
    for (auto turn : state)
    {
        (void)tarn_thread_pool_start_thread(tp, answer_job, &answer, nullptr);
        sem_wait(&answer);
    }
    tarn_thread_pool_destroy(tp);
}
BENCHMARK(pool_job)->UseRealTime();

// ---- timers --------------------------------------------------------------------------------------

constexpr uint64_t interval_ns = 1000000;
constexpr size_t ticks = 300;
// Each run is short and there are many of them, so that each side finds a moment in which the
// machine does nothing else.
constexpr int runs = 25;

uint64_t now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

/** How late the ticks of a run were seen. */
class lateness
{
public:
    /** @param remain_ns  to the first tick */
    void begin(uint64_t remain_ns)
    {
        due_ = now_ns() + remain_ns - interval_ns;
    }
    /** @return false after the last tick that counts */
    bool tick(uint64_t expirations)
    {
        const uint64_t now = now_ns();
        due_ += expirations * interval_ns;
        if (count_ < ticks)
        {
            late_[count_++] = now - due_;
        }
        return count_ < ticks;
    }
    [[nodiscard]] double mean() const
    {
        uint64_t sum = 0;
        for (const uint64_t late : late_)
        {
            sum += late;
        }
        return static_cast<double>(sum) / ticks * 1e-9;
    }
    [[nodiscard]] double percentile_99()
    {
        std::sort(std::begin(late_), std::end(late_));
        return static_cast<double>(late_[ticks * 99 / 100]) * 1e-9;
    }

private:
    uint64_t due_ = 0;
    uint64_t late_[ticks] = {};
    size_t count_ = 0;
};

lateness bare_run()
{
    lateness late;
    std::thread([&late] {
        pin_like_a_loop_thread();
        const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
        itimerspec setting{};
        setting.it_value.tv_nsec = setting.it_interval.tv_nsec = interval_ns;
        timerfd_settime(fd, 0, &setting, nullptr);
        timerfd_gettime(fd, &setting);
        late.begin(static_cast<uint64_t>(setting.it_value.tv_nsec));
        uint64_t expirations = 0;
        while (read(fd, &expirations, sizeof expirations) == sizeof expirations &&
               late.tick(expirations))
        {
        }
        close(fd);
    }).join();
    return late;
}

struct tarn_run_state
{
    lateness late;
    TARN_EVENT done;
};

void *on_tick(TARN_TIMER t, uint64_t expirations, uint64_t, uint32_t, void *state, void *)
{
    auto *const run = static_cast<tarn_run_state *>(state);
    if (!run->late.tick(expirations))
    {
        tarn_timer_stop(t);
        (void)tarn_event_set(run->done);
    }
    return nullptr;
}

lateness tarn_run()
{
    tarn_run_state run{{}, tarn_event_create(true, false)};
    TARN_TIMER t = tarn_timer_create(TARN_TIMER_MONOTONIC, on_tick, &run, nullptr);
    (void)tarn_timer_start(t, interval_ns, 0);
    uint64_t remain_ns = 0;
    (void)tarn_timer_get_remain_time(t, &remain_ns);
    run.late.begin(remain_ns); // a millisecond before the first tick
    (void)tarn_event_wait(run.done, TARN_INFINITE);
    tarn_timer_destroy(t);
    tarn_event_destroy(run.done);
    return run.late;
}

template <lateness (*run)()>
void mean_of(benchmark::State &state)
{
    for (auto turn : state)
    {
        state.SetIterationTime(run().mean());
    }
}

template <lateness (*run)()>
void percentile_of(benchmark::State &state)
{
    for (auto turn : state)
    {
        state.SetIterationTime(run().percentile_99());
    }
}

void timer_settings(benchmark::internal::Benchmark *b)
{
    b->UseManualTime()->Iterations(1)->Repetitions(runs)->Unit(benchmark::kMicrosecond);
}
BENCHMARK(mean_of<bare_run>)->Apply(timer_settings);
BENCHMARK(mean_of<tarn_run>)->Apply(timer_settings);
BENCHMARK(percentile_of<bare_run>)->Apply(timer_settings);
BENCHMARK(percentile_of<tarn_run>)->Apply(timer_settings);

// ---- ticks ---------------------------------------------------------------------------------------

void bare_clock(benchmark::State &state)
{
    for (auto turn : state)
    {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        benchmark::DoNotOptimize(now);
    }
}
BENCHMARK(bare_clock);

void tick_ms(benchmark::State &state)
{
    for (auto turn : state)
    {
        benchmark::DoNotOptimize(tarn_tick_ms());
    }
}
BENCHMARK(tick_ms);

void tick_ns(benchmark::State &state)
{
    for (auto turn : state)
    {
        benchmark::DoNotOptimize(tarn_tick_ns());
    }
}
BENCHMARK(tick_ns);

} // namespace

int main(int argc, char **argv)
{
    const sched_param priority{sched_get_priority_min(SCHED_FIFO)};
    (void)pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority); // inherited by all others
    if (!tarn_init())
    {
        return 1;
    }
    const int status = bench::run(
        argc, argv,
        {{"pool job", "pool_job", "bare_hand_off", 3.0},
         {"1 ms timer, mean lateness", "mean_of<tarn_run>", "mean_of<bare_run>", 1.2},
         {"1 ms timer, 99th percentile", "percentile_of<tarn_run>", "percentile_of<bare_run>", 1.2},
         {"millisecond tick", "tick_ms", "bare_clock", 1.2},
         {"nanosecond tick", "tick_ns", "bare_clock", 1.2}});
    tarn_uninit();
    return status;
}
