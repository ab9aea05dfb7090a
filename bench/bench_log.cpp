// The price of a log statement: one that the level hides, and one whose line goes to /dev/null.

#include "ratio.h"

#include "tarn_log.h"

#include <cstdint>
#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

namespace
{

/** Standard output leads to /dev/null for its scope. */
class silent_stdout
{
public:
    silent_stdout()
    {
        (void)std::fflush(stdout);
        saved_ = ::dup(STDOUT_FILENO);
        const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        (void)::dup2(null, STDOUT_FILENO);
        ::close(null);
    }
    silent_stdout(const silent_stdout &) = delete;
    silent_stdout &operator=(const silent_stdout &) = delete;
    ~silent_stdout()
    {
        (void)std::fflush(stdout);
        (void)::dup2(saved_, STDOUT_FILENO);
        ::close(saved_);
    }

private:
    int saved_;
};

int32_t bare_level = TARN_LOG_LEVEL_INFO;

void bare_disabled(benchmark::State &state)
{
    int value = 0;
    for (auto turn : state)
    {
        benchmark::DoNotOptimize(++value);
        if (__atomic_load_n(&bare_level, __ATOMIC_RELAXED) >= TARN_LOG_LEVEL_DEBUG)
        {
            (void)std::printf("value %d\n", value);
        }
        benchmark::ClobberMemory();
    }
}
BENCHMARK(bare_disabled);

void tarn_disabled(benchmark::State &state)
{
    int value = 0;
    for (auto turn : state)
    {
        benchmark::DoNotOptimize(++value);
        TARN_LOG_DEBUG("value %d", value);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(tarn_disabled);

/** The calendar fields of now, made anew once a second. */
const tm &cached_local_time(time_t seconds)
{
    static time_t cached_seconds = 0;
    static tm cached{};
    if (seconds != cached_seconds)
    {
        cached_seconds = seconds;
        localtime_r(&seconds, &cached);
    }
    return cached;
}

void bare_enabled(benchmark::State &state)
{
    const silent_stdout silence;
    int value = 0;
    char line[1024];
    for (auto turn : state)
    {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        const tm &fields = cached_local_time(now.tv_sec);
        const int length = std::snprintf(
            line, sizeof line, "%02d:%02d:%02d.%03ld %s.%s [%s:%d:%s] port %s value %d\n",
            fields.tm_hour, fields.tm_min, fields.tm_sec, now.tv_nsec / 1000000, "bench_log",
            "info", "bench_log.cpp", __LINE__, __func__, "ttyS0", ++value);
        (void)std::fwrite(line, 1, static_cast<size_t>(length), stdout);
    }
}
BENCHMARK(bare_enabled);

void tarn_enabled(benchmark::State &state)
{
    const silent_stdout silence;
    int value = 0;
    for (auto turn : state)
    {
        TARN_LOG_INFO("port %s value %d", "ttyS0", ++value);
    }
}
BENCHMARK(tarn_enabled);

} // namespace

int main(int argc, char **argv)
{
    // As in a daemon whose output goes to a file; a terminal would cost a system call per line.
    (void)std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
    return bench::run(argc, argv,
                      {{"disabled log", "tarn_disabled", "bare_disabled", 2.0},
                       {"enabled log", "tarn_enabled", "bare_enabled", 1.5}});
}
