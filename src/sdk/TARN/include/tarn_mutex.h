/** @file
 *  Mutexes that processes share by name; without a name, ordinary ones of this process.
 *
 *  One process creates a name, others open it; each closes its own handle. Closing any handle of a
 *  name, an opened one too, destroys the lock for all who share it: close only when no process uses
 *  it any more. The thread that locked unlocks; no mutex is recursive.
 *
 *  A process that dies while it holds a mutex leaves it locked: tarn_mutex_lock() has no time-out
 *  and then waits for ever. A mutex created with TARN_MUTEX_ROBUST is handed to the next locker
 *  instead, who finds what the mutex guards in whatever state the dead process left it.
 *
 *  The lock lives in memory that any local user may write to (tarn_shm.h). Its kind is checked
 *  before each use and anything else than what this module makes is refused; a process that writes
 *  into the rest can still block the others, and can harm the users of a robust mutex, whose system
 *  lock holds links between the locks of a thread.
 *  Names: 1 to 101 characters without '/'.
 *  Threads: any. Locking is no cancellation point. */
#ifndef TARN_MUTEX_H
#define TARN_MUTEX_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_mutex *TARN_MUTEX;

/** Flag of tarn_mutex_create(): the mutex survives the death of its holder. Of no effect without a
 *  name. */
#define TARN_MUTEX_ROBUST 0x1u

/** Create a mutex, unlocked.
 *  @param flags  0 or TARN_MUTEX_ROBUST; other bits are ignored
 *  @param name   copied; null: a mutex of this process only
 *  @return the handle; TARN_INVALID_HANDLE when the name is empty or too long, a live process has
 *          it created already, the system refuses (ERROR) or memory ran out. */
TARN_API TARN_MUTEX tarn_mutex_create(uint32_t flags, const char *name);

/** Open a mutex that another handle, usually another process's, created.
 *  @return the handle; TARN_INVALID_HANDLE when name is null, empty or too long, stands for none,
 *          or what stands there is no mutex (ERROR). */
TARN_API TARN_MUTEX tarn_mutex_open(const char *name);

/** Lock; waits without limit.
 *  @return 0; -1 for null; else an errno number: EINVAL when the lock was destroyed or overwritten.
 *          A robust mutex whose holder died gives 0 too, after a WARN line. */
TARN_API int tarn_mutex_lock(TARN_MUTEX m);

/** Unlock.
 *  @return 0; -1 for null; else an errno number as tarn_mutex_lock(), EPERM when a robust mutex is
 *          not held by the calling thread. */
TARN_API int tarn_mutex_unlock(TARN_MUTEX m);

/** Destroy the lock, for every process that shares it, and free the handle; null is ignored. A
 *  robust mutex that the calling thread holds is unlocked first. */
TARN_API void tarn_mutex_destroy(TARN_MUTEX m);

TARN_END_DECLS

#endif
