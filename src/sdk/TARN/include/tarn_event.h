/** @file
 *  Events: a flag that threads set and wait for.
 *
 *  A manual-reset event stays set, and lets every waiter through, until it is reset; an auto-reset
 *  event lets one waiter through and is not set then.
 *  Time-outs in milliseconds on the monotonic clock: setting the wall clock neither shortens nor
 *  lengthens a wait, and a signal handler that runs does not end it.
 *  Threads: any. A wait is a cancellation point and leaves the event usable when the waiter is
 *  cancelled. Not for signal handlers. */
#ifndef TARN_EVENT_H
#define TARN_EVENT_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_event *TARN_EVENT;

/** Create an event.
 *  @param manual_reset   true: stays set until tarn_event_reset(); false: a successful wait
 *                        clears it
 *  @param initial_state  true: set from the start
 *  @return the handle, destroyed with tarn_event_destroy(); TARN_INVALID_HANDLE when memory ran
 *          out. */
TARN_API TARN_EVENT tarn_event_create(bool manual_reset, bool initial_state);

/** Destroy an event; null is ignored. No thread may be waiting for it: set it and join the waiters
 *  first, otherwise this call does not return. A thread that has been let through by a set may
 *  destroy the event at once, even while the setter is still inside tarn_event_set(). */
TARN_API void tarn_event_destroy(TARN_EVENT ev);

/** Set the event: wakes all waiters of a manual-reset event, one of an auto-reset event.
 *  @return true; false for null. */
TARN_API bool tarn_event_set(TARN_EVENT ev);

/** Clear the event.
 *  @return true; false for null. */
TARN_API bool tarn_event_reset(TARN_EVENT ev);

/** Wait until the event is set, and clear an auto-reset event.
 *  @param ms  at most so long; TARN_INFINITE without limit. 0 looks without waiting and gives
 *             false, even for a set event, while another thread is inside a call on it: test
 *             again rather than conclude that it was never set.
 *  @return true when the event was or became set in time; false otherwise and for null. */
TARN_API bool tarn_event_wait(TARN_EVENT ev, uint32_t ms);

TARN_END_DECLS

#endif
