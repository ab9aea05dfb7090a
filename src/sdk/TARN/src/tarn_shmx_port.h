// Private: what the shared heap needs of the kernel; for the tarn_shmx*.cpp files. Written in
// linux/tarn_shmx_linux.cpp.
//
// Words lie in memory that processes share, at any address, 4-aligned. Error numbers are returned,
// errno is not kept. No call is a cancellation point.
#ifndef TARN_SHMX_PORT_H
#define TARN_SHMX_PORT_H

#include <atomic>
#include <cstdint>

namespace tarn
{

/** Id of the calling thread, when it has asked for it since the process was forked; else 0. */
[[gnu::tls_model("initial-exec")]] extern constinit thread_local uint32_t shmx_known_thread_id;
uint32_t shmx_learn_thread_id();

/** Kernel's id of the calling thread, as lock words hold it. No system call but for the first call
 *  of a thread, and the first one after a fork. */
inline uint32_t shmx_thread_id()
{
    const uint32_t id = shmx_known_thread_id;
    return id != 0 ? id : shmx_learn_thread_id();
}

/** Id of the process: that of its first thread. A system call. */
uint32_t shmx_process_id();

/** Changes with each fork, in the child only, from the first shmx_thread_id() on. */
extern constinit std::atomic<uint32_t> shmx_fork_count;
inline uint32_t shmx_fork_generation()
{
    return shmx_fork_count.load(std::memory_order_relaxed);
}

/** Bits of a lock word that hold the owner's thread id; the others are the kernel's. */
inline constexpr uint32_t lock_owner_mask = 0x3FFFFFFF;

/** No limit for shmx_futex_lock(). */
inline constexpr uint32_t lock_without_limit = 0xFFFFFFFF;

/** Take a priority-inheriting lock whose word is not 0; waits while its owner lives.
 *  @param limit_ms  0 tries once
 *  @return 0 when taken; ESRCH: the owner in the word does not exist; EAGAIN: try again, or busy
 *          when tried once; ETIMEDOUT; another error number */
int shmx_futex_lock(uint32_t *word, uint32_t limit_ms);

/** Release a priority-inheriting lock of the calling thread that others may wait for.
 *  @return 0, or EPERM when the word names another owner, or another error number */
int shmx_futex_unlock(uint32_t *word);

/** Sleep while the word has a value; may return without cause.
 *  @param ms  at most so long on the monotonic clock; not infinite */
void shmx_futex_wait(uint32_t *word, uint32_t value, uint32_t ms);

/** Wake one sleeper of a word, or all.
 *  @return 0, or an error number */
int shmx_futex_wake(uint32_t *word, bool all);

/** Get this process ready for shmx_barrier_everywhere().
 *  @return false when the kernel cannot do it */
bool shmx_allow_barrier();

/** A full memory barrier on every processor that runs a thread of this process. */
void shmx_barrier_everywhere();

/** One turn of a busy wait: a hint to the processor; a chance for other threads on it. */
void shmx_pause();
void shmx_yield();

} // namespace tarn

#endif
