// Local IPC between two processes beside a bare local socket between the same two: calls answered
// with their arguments, post messages in a loop, and one connection shared by 32 threads.

#include "ratio.h"

#include "tarn_data.h"
#include "tarn_ipc.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <csignal>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr uint32_t echo_call = 1;
constexpr uint32_t swallow_call = 2;
/** A frame's bytes beside those of a string. */
constexpr size_t frame_extra = 9 + 8 + 5 + 1 + 3;

std::string service_name()
{
    static const std::string name = "bench_ipc_" + std::to_string(getpid());
    return name;
}

bool read_all(int fd, char *buffer, size_t size)
{
    for (size_t got = 0; got < size;)
    {
        const ssize_t n = ::recv(fd, buffer + got, size - got, 0);
        if (n <= 0)
        {
            return false;
        }
        got += static_cast<size_t>(n);
    }
    return true;
}

/** Each end on a processor of its own, as the loop threads of two processes have it. */
void pin_to(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu % static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN)), &set);
    (void)pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

/** The other process: a server of ours, and the far ends of the bare sockets. */
struct other_process
{
    int echo[2][2]{}; ///< 64 B and 4 KiB
    int swallow[2]{};
    pid_t pid = -1;

    static constexpr size_t sizes[2] = {64, 4096};

    void start()
    {
        int ready[2];
        (void)!::pipe(ready);
        for (auto &pair : echo)
        {
            (void)::socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
        }
        (void)::socketpair(AF_UNIX, SOCK_STREAM, 0, swallow);
        const std::string name = service_name();
        pid = ::fork();
        if (pid == 0)
        {
            (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
            serve(name, ready[1]);
            ::_exit(0);
        }
        char byte = 0;
        (void)!::read(ready[0], &byte, 1);
    }
    void stop() const
    {
        ::kill(pid, SIGKILL);
        (void)::waitpid(pid, nullptr, 0);
    }

private:
    void serve(const std::string &name, int ready)
    {
        (void)tarn_init();
        const tarn_ipc_server_callbacks cb = {
            [](TARN_IPC, const char *, tarn_ipc_callbacks *set, void *, TARN_IPC) -> int32_t {
                *set = {[](TARN_IPC, const char *, void *, TARN_IPC) {},
                        [](TARN_IPC, const char *, void *, TARN_IPC) {},
                        [](TARN_IPC, uint32_t func_id, TARN_DATA in, TARN_DATA *out, void *) {
                            if (func_id == echo_call && out != nullptr)
                            {
                                *out = in;
                            }
                            return 0;
                        },
                        nullptr};
                return 0;
            },
            nullptr};
        (void)tarn_ipc_create(name.c_str(), 8, &cb);
        std::vector<std::thread> threads;
        for (size_t i = 0; i < 2; ++i)
        {
            threads.emplace_back([this, i] {
                pin_to(1);
                std::vector<char> buffer(sizes[i] + frame_extra);
                while (read_all(echo[i][1], buffer.data(), buffer.size()))
                {
                    (void)::send(echo[i][1], buffer.data(), buffer.size(), MSG_NOSIGNAL);
                }
            });
        }
        threads.emplace_back([this] {
            pin_to(1);
            std::vector<char> buffer(65536);
            while (::recv(swallow[1], buffer.data(), buffer.size(), 0) > 0)
            {
            }
        });
        (void)!::write(ready, "", 1);
        for (std::thread &thread : threads)
        {
            thread.join();
        }
    }
};
other_process other;

TARN_IPC connection()
{
    static TARN_IPC conn = [] {
        (void)tarn_init();
        const tarn_ipc_callbacks cb = {
            [](TARN_IPC, const char *, void *, TARN_IPC) {},
            [](TARN_IPC, const char *, void *, TARN_IPC) {},
            [](TARN_IPC, uint32_t, TARN_DATA, TARN_DATA *, void *) -> int32_t { return 0; },
            nullptr};
        return tarn_ipc_open(service_name().c_str(), (service_name() + "_client").c_str(), &cb);
    }();
    return conn;
}

bool call_once(TARN_DATA args)
{
    int32_t ret = 0;
    TARN_DATA out = nullptr;
    const int32_t result = tarn_ipc_call(connection(), echo_call, args, &ret, &out);
    tarn_data_destroy(out);
    return result == 0;
}

TARN_DATA text_of(size_t size)
{
    const std::string text(size, 'b');
    const auto length = static_cast<uint32_t>(size);
    return tarn_data_alloc(TARN_DATA_TYPE_STRING, text.data(), &length);
}

void tarn_call(benchmark::State &state)
{
    TARN_DATA args = text_of(static_cast<size_t>(state.range(0)));
    for ([[maybe_unused]] auto _ : state)
    {
        if (!call_once(args))
        {
            state.SkipWithError("call failed");
        }
    }
    tarn_data_destroy(args);
}

void bare_call(benchmark::State &state)
{
    const auto size = static_cast<size_t>(state.range(0));
    const int fd = other.echo[size == 64 ? 0 : 1][0];
    std::vector<char> buffer(size + frame_extra, 'b');
    cpu_set_t old;
    (void)pthread_getaffinity_np(pthread_self(), sizeof old, &old);
    pin_to(0);
    for ([[maybe_unused]] auto _ : state)
    {
        (void)::send(fd, buffer.data(), buffer.size(), MSG_NOSIGNAL);
        (void)read_all(fd, buffer.data(), buffer.size());
    }
    (void)pthread_setaffinity_np(pthread_self(), sizeof old, &old);
}

void tarn_post(benchmark::State &state)
{
    TARN_DATA args = text_of(64);
    for ([[maybe_unused]] auto _ : state)
    {
        if (tarn_ipc_call(connection(), swallow_call, args, nullptr, nullptr) != 0)
        {
            state.SkipWithError("post failed");
        }
    }
    (void)call_once(args); // the posts before it have been read
    tarn_data_destroy(args);
}

void bare_post(benchmark::State &state)
{
    std::vector<char> buffer(64 + frame_extra, 'b');
    cpu_set_t old;
    (void)pthread_getaffinity_np(pthread_self(), sizeof old, &old);
    pin_to(0);
    for ([[maybe_unused]] auto _ : state)
    {
        (void)::send(other.swallow[0], buffer.data(), buffer.size(), MSG_NOSIGNAL);
    }
    (void)pthread_setaffinity_np(pthread_self(), sizeof old, &old);
}

/** Time per call when a number of threads share the connection. */
void shared_by(benchmark::State &state, int threads)
{
    constexpr int calls = 50;
    for ([[maybe_unused]] auto _ : state)
    {
        std::vector<std::thread> callers;
        const auto start = std::chrono::steady_clock::now();
        for (int t = 0; t < threads; ++t)
        {
            callers.emplace_back([] {
                TARN_DATA args = text_of(64);
                for (int i = 0; i < calls; ++i)
                {
                    (void)call_once(args);
                }
                tarn_data_destroy(args);
            });
        }
        for (std::thread &caller : callers)
        {
            caller.join();
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count() / (threads * calls));
    }
}

void one_thread(benchmark::State &state)
{
    shared_by(state, 1);
}

void many_threads(benchmark::State &state)
{
    shared_by(state, 32);
}

} // namespace

BENCHMARK(tarn_call)->Arg(64)->Arg(4096)->UseRealTime();
BENCHMARK(bare_call)->Arg(64)->Arg(4096)->UseRealTime();
BENCHMARK(tarn_post)->UseRealTime();
BENCHMARK(bare_post)->UseRealTime();
BENCHMARK(one_thread)->UseManualTime()->Iterations(20);
BENCHMARK(many_threads)->UseManualTime()->Iterations(20);

int main(int argc, char **argv)
{
    other.start();
    const int result =
        bench::run(argc, argv,
                   {{"call with response, 64 B", "tarn_call/64", "bare_call/64", 3.5},
                    {"call with response, 4 KiB", "tarn_call/4096", "bare_call/4096", 3.5},
                    {"post message in a loop", "tarn_post", "bare_post", 1 / 0.3},
                    {"32 threads, time per call of one", "many_threads", "one_thread", 1 / 1.5}});
    other.stop();
    return result;
}
