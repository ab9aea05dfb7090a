/** @file
 *  Counting semaphores, private to the process or shared by name between processes.
 *
 *  Time-outs in milliseconds on the monotonic clock.
 *  Threads: any. A wait is a cancellation point; signal handlers that run do not end it. */
#ifndef TARN_SEMAPHORE_H
#define TARN_SEMAPHORE_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_semaphore *TARN_SEMAPHORE;

/** Create a semaphore.
 *  @param name   null: private to this process. Else 1 to 107 characters without '/', copied: the
 *                semaphore is created anew with mode 0666 and replaces any of that name, also one
 *                that live processes still use (they keep the old one among themselves)
 *  @param value  units at the start
 *  @return the handle; TARN_INVALID_HANDLE when the name is too long (logged at ERROR), the
 *          system refuses (ERROR with errno) or memory ran out. Destroying the handle that
 *          created a name removes the name. */
TARN_API TARN_SEMAPHORE tarn_semaphore_create(const char *name, uint32_t value);

/** Open a semaphore that another handle, usually another process's, created.
 *  @return the handle; TARN_INVALID_HANDLE when name is null, too long, or stands for none. */
TARN_API TARN_SEMAPHORE tarn_semaphore_open(const char *name);

/** Take one unit.
 *  @param ms  TARN_INFINITE blocks without limit; 0 tries once; anything else tries again and
 *             again, 1 ms apart at first and 100 ms apart in the end, until ms have passed
 *  @return true when a unit was taken; false when not in time, and for null. */
TARN_API bool tarn_semaphore_wait(TARN_SEMAPHORE sem, uint32_t ms);

/** Release units; null does nothing.
 *  @param count       how many; posting ends early at the system's limit (SEM_VALUE_MAX)
 *  @param status_out  may be null; receives 0 when the semaphore's value could be read beforehand,
 *                     -1 when not: never the value itself */
TARN_API void tarn_semaphore_post(TARN_SEMAPHORE sem, uint32_t count, int *status_out);

/** Close the semaphore, remove its name when this handle created it, free the handle; null is
 *  ignored. No thread may be waiting through the handle. */
TARN_API void tarn_semaphore_destroy(TARN_SEMAPHORE sem);

TARN_END_DECLS

#endif
