/** @file
 *  Periodic timers: ticks on the wall clock, or from the start on by the monotonic clock; reported
 *  to a callback on the timer's own thread, or waited for by the caller.
 *
 *  A wall-clock timer ticks at the multiples of its interval since 1970-01-01 00:00:00 UTC, plus
 *  its offset: every full minute, or second 5 of every minute. When the system time is set it
 *  aligns itself anew (WARN). A monotonic timer ticks every interval from its start on, whatever
 *  happens to the wall clock.
 *  Intervals and offsets are in nanoseconds. Ticks that come while the last one is still being
 *  worked on are not lost but counted together.
 *
 *  Threads: any; start, stop and destroy from one thread at a time, and at any moment from the
 *  timer's own callback. */
#ifndef TARN_TIMER_H
#define TARN_TIMER_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_timer *TARN_TIMER;

/** Kinds of timers. */
enum
{
    TARN_TIMER_WALL_CLOCK = 1,
    TARN_TIMER_MONOTONIC = 2
};

/** Called on the timer's thread, "tarn_timer_proc", never twice at the same time. It may call any
 *  function on its timer: a restart takes effect at once, after a stop or destroy this was the
 *  last call.
 *  @param expirations  ticks since the last call; more than 1 when calls took too long
 *  @param due_sec,due_nsec  the wall-clock time of the latest of these ticks; without meaning for a
 *                      monotonic timer
 *  @return not used */
typedef void *(*tarn_timer_callback)(TARN_TIMER t, uint64_t expirations, uint64_t due_sec,
                                     uint32_t due_nsec, void *arg1, void *arg2);

/** Create a timer, not started.
 *  @param kind      TARN_TIMER_WALL_CLOCK or TARN_TIMER_MONOTONIC
 *  @param callback  null: the timer is waited for with tarn_timer_wait()
 *  @param arg1,arg2 handed through to the callback; must stay valid while the timer runs
 *  @return the timer, destroyed with tarn_timer_destroy(); TARN_INVALID_HANDLE for other kinds, and
 *          when memory or descriptors ran out. */
TARN_API TARN_TIMER tarn_timer_create(int kind, tarn_timer_callback callback, void *arg1,
                                      void *arg2);

/** Start a timer, or start it anew.
 *  @param interval_ns  from tick to tick; not 0. A monotonic timer ticks first after one interval,
 *                      a wall-clock timer at the next multiple of it, an interval below one second
 *                      within the coming second
 *  @param offset_ns    wall-clock timers: added to every tick; more than an interval delays the
 *                      first tick by as much
 *  @return 0; TARN_ERRLN when an argument is null or 0, the thread cannot be started (ERROR), the
 *          system refuses (ERROR), or another thread is starting or stopping the timer. The timer
 *          is stopped then. */
TARN_API int tarn_timer_start(TARN_TIMER t, uint64_t interval_ns, uint64_t offset_ns);

/** Stop a timer: waits for a callback that runs, unless called from it, so hold no lock that the
 *  callback takes; calls of tarn_timer_wait() return. */
TARN_API void tarn_timer_stop(TARN_TIMER t);

/** Stop a timer and free it; null is ignored. Calls of tarn_timer_wait() that are under way
 *  return. */
TARN_API void tarn_timer_destroy(TARN_TIMER t);

/** Nanoseconds to the next tick; 0 for a stopped timer.
 *  @param remain_ns  out; not null
 *  @return 0; TARN_ERRLN when an argument is null or the system refuses. */
TARN_API int tarn_timer_get_remain_time(TARN_TIMER t, uint64_t *remain_ns);

/** Nanoseconds from tick to tick; 0 for a stopped timer.
 *  @param interval_ns  out; not null
 *  @return 0; TARN_ERRLN when an argument is null or the system refuses. */
TARN_API int tarn_timer_get_interval(TARN_TIMER t, uint64_t *interval_ns);

/** True while the time to the next tick is above 0. Not to be relied on for intervals of a few
 *  nanoseconds. */
TARN_API bool tarn_timer_is_started(TARN_TIMER t);

/** Wait for the next tick of a started timer without callback.
 *  @param timeout_ns  nanoseconds, cut to microseconds, so at most 4.29 seconds; 0 only looks;
 *                     TARN_INFINITE without limit
 *  @return the number of ticks since the last wait, at least 1; 0 when none came in time;
 *          TARN_ERRLN when t is null, not started, stopped meanwhile or has a callback (WARN), and
 *          on a read error (ERROR): so once after the system time was set, with the wall-clock
 *          timer aligned anew. */
TARN_API int64_t tarn_timer_wait(TARN_TIMER t, uint32_t timeout_ns);

TARN_END_DECLS

#endif
