/** @file
 *  Read-write locks that processes share by name; without a name, ordinary ones of this process.
 *
 *  One process creates a name, others open it; each closes its own handle. Closing any handle of a
 *  name, an opened one too, destroys the lock for all who share it: close only when no process uses
 *  it any more. No lock is recursive. There is no cure for a process that dies while it holds one:
 *  use time-outs, and create the name anew.
 *  Time-outs in milliseconds on the monotonic clock; a timed call tries every millisecond. The lock
 *  lives in memory that any local user may write to (tarn_shm.h); whoever does can make calls fail
 *  or wait, no more.
 *  Names: 1 to 100 characters without '/'.
 *  Threads: any. Blocking and timed calls wait; the sleep of a timed one is a cancellation point.
 *  */
#ifndef TARN_RWLOCK_H
#define TARN_RWLOCK_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_rwlock *TARN_RWLOCK;

/** Create a read-write lock, unlocked.
 *  @param flags  any value; not used
 *  @param name   copied; null: a lock of this process only
 *  @return the handle; TARN_INVALID_HANDLE when the name is empty or too long, a live process has
 *          it created already, the system refuses (ERROR) or memory ran out. */
TARN_API TARN_RWLOCK tarn_rwlock_create(uint32_t flags, const char *name);

/** Open a lock that another handle, usually another process's, created.
 *  @return the handle; TARN_INVALID_HANDLE when name is null, empty or too long, stands for none,
 *          or what stands there is no read-write lock (ERROR). */
TARN_API TARN_RWLOCK tarn_rwlock_open(const char *name);

/** Lock for writing.
 *  @param ms  TARN_INFINITE waits without limit; 0 tries once
 *  @return true when taken in time; false otherwise (WARN) and for null (ERROR). */
TARN_API bool tarn_rwlock_wrlock(TARN_RWLOCK rw, uint32_t ms);

/** Lock for reading, together with other readers; a failure is logged at DEBUG only. Otherwise as
 *  tarn_rwlock_wrlock(). */
TARN_API bool tarn_rwlock_rdlock(TARN_RWLOCK rw, uint32_t ms);

/** Release a lock of either kind that the calling thread holds; null is reported at ERROR. */
TARN_API void tarn_rwlock_unlock(TARN_RWLOCK rw);

/** The same with INFO lines before and after that name the caller, for lock hunts. */
TARN_API bool tarn_rwlock_wrlock_dbg(const char *file, int line, const char *func, TARN_RWLOCK rw,
                                     uint32_t ms);
TARN_API bool tarn_rwlock_rdlock_dbg(const char *file, int line, const char *func, TARN_RWLOCK rw,
                                     uint32_t ms);
TARN_API void tarn_rwlock_unlock_dbg(const char *file, int line, const char *func, TARN_RWLOCK rw);

/** Destroy the lock, for every process that shares it, and free the handle; null is ignored. */
TARN_API void tarn_rwlock_destroy(TARN_RWLOCK rw);

TARN_END_DECLS

#endif
