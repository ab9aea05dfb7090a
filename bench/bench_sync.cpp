// Events against a mutex with a condition variable; critical sections against a recursive mutex.

#include "ratio.h"

#include "tarn_critical_section.h"
#include "tarn_event.h"

#include <atomic>
#include <thread>

#include <pthread.h>

namespace
{

/** What an event is made of, and nothing else. */
class bare_event
{
public:
    void set()
    {
        pthread_mutex_lock(&mutex_);
        set_ = true;
        pthread_cond_signal(&condition_);
        pthread_mutex_unlock(&mutex_);
    }
    void wait()
    {
        pthread_mutex_lock(&mutex_);
        while (!set_)
        {
            pthread_cond_wait(&condition_, &mutex_);
        }
        set_ = false;
        pthread_mutex_unlock(&mutex_);
    }

private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition_ = PTHREAD_COND_INITIALIZER;
    bool set_ = false;
};

class tarn_auto_event
{
public:
    tarn_auto_event() = default;
    tarn_auto_event(const tarn_auto_event &) = delete;
    tarn_auto_event &operator=(const tarn_auto_event &) = delete;
    ~tarn_auto_event()
    {
        tarn_event_destroy(event_);
    }
    void set()
    {
        (void)tarn_event_set(event_);
    }
    void wait()
    {
        (void)tarn_event_wait(event_, TARN_INFINITE);
    }

private:
    TARN_EVENT event_ = tarn_event_create(false, false);
};

/** There and back between two threads. */
template <typename Event>
void ping_pong(benchmark::State &state)
{
    Event ping;
    Event pong;
    std::atomic<bool> ends{false};
    std::thread partner([&] {
        for (ping.wait(); !ends.load(std::memory_order_relaxed); ping.wait())
        {
            pong.set();
        }
    });
    for (auto turn : state)
    {
        ping.set();
        pong.wait();
    }
    ends.store(true, std::memory_order_relaxed);
    ping.set();
    partner.join();
}

void bare_ping_pong(benchmark::State &state)
{
    ping_pong<bare_event>(state);
}
BENCHMARK(bare_ping_pong)->UseRealTime();

void tarn_ping_pong(benchmark::State &state)
{
    ping_pong<tarn_auto_event>(state);
}
BENCHMARK(tarn_ping_pong)->UseRealTime();

void bare_recursive_mutex(benchmark::State &state)
{
    pthread_mutex_t mutex;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mutex, &attributes);
    for (auto turn : state)
    {
        pthread_mutex_lock(&mutex);
        pthread_mutex_unlock(&mutex);
    }
    pthread_mutex_destroy(&mutex);
    pthread_mutexattr_destroy(&attributes);
}
BENCHMARK(bare_recursive_mutex);

void tarn_critical_section_pair(benchmark::State &state)
{
    const TARN_CRITICAL_SECTION section = tarn_critical_section_create();
    for (auto turn : state)
    {
        tarn_critical_section_enter(section);
        tarn_critical_section_leave(section);
    }
    tarn_critical_section_destroy(section);
}
BENCHMARK(tarn_critical_section_pair);

} // namespace

int main(int argc, char **argv)
{
    // A daemon has threads: before a process starts its first one, the C library's locks do
    // without atomic operations.
    std::thread([] {}).join();
    return bench::run(
        argc, argv,
        {{"event ping-pong", "tarn_ping_pong", "bare_ping_pong", 1.25},
         {"critical section", "tarn_critical_section_pair", "bare_recursive_mutex", 1.3}});
}
