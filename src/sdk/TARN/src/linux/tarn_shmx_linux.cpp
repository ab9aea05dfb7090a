// Kernel half of the shared heap: priority-inheriting futexes, futex waits, thread and process ids.
//
// The words are shared between processes, so no operation has the private flag.

#include "tarn_shmx_port.h"

#include <atomic>
#include <cerrno>
#include <ctime>

#include <linux/futex.h>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef FUTEX_LOCK_PI2
#define FUTEX_LOCK_PI2 13
#endif

namespace
{

/** On the only thread that the child has. */
void after_fork()
{
    tarn::shmx_known_thread_id = 0;
    tarn::shmx_fork_count.fetch_add(1, std::memory_order_relaxed);
}

long futex(uint32_t *word, int operation, uint32_t value, const timespec *time)
{
    return ::syscall(SYS_futex, word, operation, value, time, nullptr, 0);
}

timespec from_ms(uint64_t ms)
{
    timespec time{};
    time.tv_sec = static_cast<time_t>(ms / 1000);
    time.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
    return time;
}

timespec deadline_after(clockid_t clock, uint32_t ms)
{
    timespec now{};
    (void)::clock_gettime(clock, &now);
    const timespec span = from_ms(ms);
    now.tv_sec += span.tv_sec;
    now.tv_nsec += span.tv_nsec;
    if (now.tv_nsec >= 1000000000)
    {
        now.tv_nsec -= 1000000000;
        ++now.tv_sec;
    }
    return now;
}

int lock_with_limit(uint32_t *word, uint32_t limit_ms)
{
    const timespec monotonic = deadline_after(CLOCK_MONOTONIC, limit_ms);
    if (futex(word, FUTEX_LOCK_PI2, 0, &monotonic) == 0)
    {
        return 0;
    }
    if (errno != ENOSYS)
    {
        return errno;
    }
    const timespec wall = deadline_after(CLOCK_REALTIME, limit_ms); // older kernels know no other
    return futex(word, FUTEX_LOCK_PI, 0, &wall) == 0 ? 0 : errno;
}

} // namespace

namespace tarn
{

constinit thread_local uint32_t shmx_known_thread_id = 0;
constinit std::atomic<uint32_t> shmx_fork_count{0};

uint32_t shmx_learn_thread_id()
{
    [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, after_fork);
    shmx_known_thread_id = static_cast<uint32_t>(::gettid());
    return shmx_known_thread_id;
}

uint32_t shmx_process_id()
{
    return static_cast<uint32_t>(::getpid());
}

int shmx_futex_lock(uint32_t *word, uint32_t limit_ms)
{
    int error = EINTR;
    while (error == EINTR)
    {
        switch (limit_ms)
        {
        case 0:
            error = futex(word, FUTEX_TRYLOCK_PI, 0, nullptr) == 0 ? 0 : errno;
            break;
        case lock_without_limit:
            error = futex(word, FUTEX_LOCK_PI, 0, nullptr) == 0 ? 0 : errno;
            break;
        default:
            error = lock_with_limit(word, limit_ms);
            break;
        }
    }
    return error;
}

int shmx_futex_unlock(uint32_t *word)
{
    return futex(word, FUTEX_UNLOCK_PI, 0, nullptr) == 0 ? 0 : errno;
}

void shmx_futex_wait(uint32_t *word, uint32_t value, uint32_t ms)
{
    const timespec span = from_ms(ms);
    (void)futex(word, FUTEX_WAIT, value, &span); // relative, on the monotonic clock
}

int shmx_futex_wake(uint32_t *word, bool all)
{
    return futex(word, FUTEX_WAKE, all ? INT32_MAX : 1, nullptr) >= 0 ? 0 : errno;
}

bool shmx_allow_barrier()
{
    return ::syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}

void shmx_barrier_everywhere()
{
    (void)::syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
}

void shmx_pause()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
    asm volatile("yield");
#endif
}

void shmx_yield()
{
    (void)::sched_yield();
}

} // namespace tarn
