/** @file
 *  Thread pool: a bounded number of worker threads that run one job each at a time.
 *
 *  Workers are made when a job needs one and none is idle, up to the pool's maximum, and then stay
 *  until the pool is destroyed. The worker that finished last runs the next job, so that few of
 *  them stay warm. Workers are loop threads named "thread_pool_thread" (tarn_thread.h).
 *  A job may call any function on its pool, its destroy included; it may also end its thread
 *  (cancelled, pthread_exit): the worker then gets a new thread with its next job.
 *  Threads: any function from any thread; destroy as the last call on a pool. */
#ifndef TARN_THREAD_POOL_H
#define TARN_THREAD_POOL_H

#include "tarn.h"
#include "tarn_thread.h"

TARN_BEGIN_DECLS

typedef struct tarn_thread_pool *TARN_THREAD_POOL;

/** Create a pool; no thread is started yet.
 *  @param max_thread_count  at most so many workers ever exist; not 0
 *  @return the pool, destroyed with tarn_thread_pool_destroy(); TARN_INVALID_HANDLE for a maximum
 *          of 0 or when memory ran out. */
TARN_API TARN_THREAD_POOL tarn_thread_pool_create(uint32_t max_thread_count);

/** Run proc(arg1, arg2) once on a worker.
 *  @param timeout_ms  waits so long for a worker while all of them are busy; 0 tries once;
 *                     TARN_INFINITE without limit
 *  @param proc        not null; what it returns is not used
 *  @param arg1,arg2   handed through; must stay valid until the job has ended
 *  @return true when the job was launched: it runs exactly once, also when the pool is destroyed
 *          meanwhile; false when an argument is null, no worker became free in time, the pool was
 *          destroyed while waiting, or the worker's thread could not be started: the pool then has
 *          room for one worker less from there on.
 *  Blocking: up to timeout_ms, a cancellation point; then shortly, until the worker is ready. */
TARN_API bool tarn_thread_pool_start_thread_ex(TARN_THREAD_POOL tp, uint32_t timeout_ms,
                                               tarn_thread_proc proc, void *arg1, void *arg2);

/** The same with a time-out of 5000 ms. */
TARN_API bool tarn_thread_pool_start_thread(TARN_THREAD_POOL tp, tarn_thread_proc proc, void *arg1,
                                            void *arg2);

/** Destroy a pool; null is ignored.
 *  Idle workers are ended and joined; launches that wait for a worker give up. Workers that run a
 *  job at that moment are left alone: each ends by itself after its job, and the last one frees
 *  what is left of the pool. What the jobs use must therefore outlive them, not only the pool. */
TARN_API void tarn_thread_pool_destroy(TARN_THREAD_POOL tp);

TARN_END_DECLS

#endif
