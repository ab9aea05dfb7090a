// How late a loop thread with a cycle of 10 ms begins its calls, against a bare thread that sleeps
// until the time. The time shown is the mean lateness: of each call, the distance between its start
// and the time that lies one cycle behind the start before.

#include "ratio.h"

#include "tarn.h"
#include "tarn_event.h"
#include "tarn_sys.h"
#include "tarn_thread.h"

#include <cmath>
#include <cstdint>
#include <ctime>
#include <thread>

#include <pthread.h>

namespace
{

constexpr uint32_t cycle_ms = 10;
constexpr int64_t cycle_ns = int64_t{cycle_ms} * 1000000;
// A run is short and there are many of them, so that each side finds a moment in which the machine
// does nothing else.
constexpr int64_t calls = 20;
constexpr int runs = 25;

int64_t now_ns()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

/** Adds up the lateness of calls; too early counts like too late. */
class lateness
{
public:
    /** @return false after the last call that counts */
    bool call()
    {
        const int64_t now = now_ns();
        if (last_ != 0)
        {
            sum_ += std::abs(now - last_ - cycle_ns);
        }
        last_ = now;
        return ++calls_ <= calls;
    }
    [[nodiscard]] double mean_seconds() const
    {
        return static_cast<double>(sum_) / calls * 1e-9;
    }

private:
    int64_t last_ = 0;
    int64_t sum_ = 0;
    int64_t calls_ = 0;
};

void pin_to(unsigned processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    (void)pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

/** Pinned to one processor after the other, as loop threads are. */
void bare_loop(lateness *late)
{
    static unsigned next = 0;
    pin_to(next++ % std::thread::hardware_concurrency());
    timespec until{};
    for (clock_gettime(CLOCK_MONOTONIC, &until); late->call();)
    {
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_nsec += cycle_ns;
        if (until.tv_nsec >= 1000000000)
        {
            until.tv_nsec -= 1000000000;
            ++until.tv_sec;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    }
}

void bare_thread(benchmark::State &state)
{
    for (auto turn : state)
    {
        lateness late;
        std::thread(bare_loop, &late).join();
        state.SetIterationTime(late.mean_seconds());
    }
}
BENCHMARK(bare_thread)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(runs)
    ->Unit(benchmark::kMicrosecond);

struct tarn_run
{
    lateness late;
    TARN_EVENT done;
};

void *tarn_proc(void *object, void *)
{
    auto *const run = static_cast<tarn_run *>(object);
    if (!run->late.call())
    {
        tarn_thread_set_loop_cycle(TARN_THREAD_ONCE);
        (void)tarn_event_set(run->done);
    }
    return nullptr;
}

void tarn_thread(benchmark::State &state)
{
    for (auto turn : state)
    {
        tarn_run run{{}, tarn_event_create(true, false)};
        (void)tarn_thread_start(tarn_proc, &run, nullptr, cycle_ms, "bench");
        (void)tarn_event_wait(run.done, TARN_INFINITE);
        state.SetIterationTime(run.late.mean_seconds());
        tarn_event_destroy(run.done);
    }
}
BENCHMARK(tarn_thread)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(runs)
    ->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv)
{
    if (!tarn_init())
    {
        return 1;
    }
    const int status =
        bench::run(argc, argv, {{"loop thread lateness", "tarn_thread", "bare_thread", 1.5}});
    tarn_uninit();
    return status;
}
