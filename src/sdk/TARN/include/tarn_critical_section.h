/** @file
 *  Critical sections: recursive locks between the threads of one process.
 *
 *  The thread that entered leaves, as often as it entered.
 *  Threads: any. Enter blocks until the lock is free; it is no cancellation point. */
#ifndef TARN_CRITICAL_SECTION_H
#define TARN_CRITICAL_SECTION_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_critical_section *TARN_CRITICAL_SECTION;

/** Create a critical section.
 *  @return the handle, destroyed with tarn_critical_section_destroy(); TARN_INVALID_HANDLE when
 *          memory ran out. */
TARN_API TARN_CRITICAL_SECTION tarn_critical_section_create(void);

/** Destroy a critical section that no thread holds or waits for; null is ignored. */
TARN_API void tarn_critical_section_destroy(TARN_CRITICAL_SECTION cs);

/** Lock; null is ignored. */
TARN_API void tarn_critical_section_enter(TARN_CRITICAL_SECTION cs);

/** Unlock; null is ignored. */
TARN_API void tarn_critical_section_leave(TARN_CRITICAL_SECTION cs);

/** Lock if that needs no waiting.
 *  @return true when locked; false when another thread holds it, or for null. */
TARN_API bool tarn_critical_section_try_enter(TARN_CRITICAL_SECTION cs);

/** Enter and leave with a DEBUG trace that names the caller, for lock hunts. */
TARN_API void tarn_critical_section_enter_dbg(const char *file, int line, const char *func,
                                              TARN_CRITICAL_SECTION cs);
TARN_API void tarn_critical_section_leave_dbg(const char *file, int line, const char *func,
                                              TARN_CRITICAL_SECTION cs);

TARN_END_DECLS

/** Enter and leave; a build with TARN_DEBUG defined traces the callers. */
#ifdef TARN_DEBUG
#define TARN_CRITICAL_SECTION_ENTER(cs)                                                            \
    tarn_critical_section_enter_dbg(TARN_FILE_NAME, __LINE__, __func__, (cs))
#define TARN_CRITICAL_SECTION_LEAVE(cs)                                                            \
    tarn_critical_section_leave_dbg(TARN_FILE_NAME, __LINE__, __func__, (cs))
#else
#define TARN_CRITICAL_SECTION_ENTER(cs) tarn_critical_section_enter(cs)
#define TARN_CRITICAL_SECTION_LEAVE(cs) tarn_critical_section_leave(cs)
#endif

#endif
