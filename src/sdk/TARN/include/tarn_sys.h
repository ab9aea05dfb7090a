/** @file
 *  Clock, ticks and sleeps.
 *
 *  Ticks count on the monotonic clock: setting the wall clock does not move them. They are never
 *  0, so that 0 can stand for "not set". The millisecond tick has 32 bits and wraps after 49.7
 *  days; differences and comparisons take that into account as long as the two ticks lie less than
 *  24 days apart.
 *  Threads: every function may be called from any thread; none may be called from a signal handler
 *  except the ticks. */
#ifndef TARN_SYS_H
#define TARN_SYS_H

#include "tarn.h"

TARN_BEGIN_DECLS

/** A point of wall-clock time. */
typedef struct tarn_time
{
    uint64_t seconds;      /**< since 1970-01-01 00:00:00 UTC */
    uint32_t microseconds; /**< 0 to 999999 */
} tarn_time;

/** A wall-clock time as calendar fields. */
typedef struct tarn_systime
{
    uint16_t year;           /**< in full, e.g. 2025 */
    uint16_t month;          /**< 1 to 12 */
    uint16_t weekday;        /**< 1 to 7, Sunday is 1 */
    uint16_t day_of_year;    /**< 1 to 366 */
    uint16_t day;            /**< of the month, 1 to 31 */
    uint16_t hour;           /**< 0 to 23 */
    uint16_t minute;         /**< 0 to 59 */
    uint16_t second;         /**< 0 to 60 */
    uint16_t millisecond;    /**< 0 to 999 */
    int16_t timezone;        /**< minutes west of UTC without summer time; 0 for UTC records */
    int16_t daylight_saving; /**< always 0, also in summer */
} tarn_systime;

/** Milliseconds on the monotonic clock, cut to 32 bits; never 0. */
TARN_API uint32_t tarn_tick_ms(void);

/** Nanoseconds on the monotonic clock; never 0. */
TARN_API uint64_t tarn_tick_ns(void);

/** Ticks that passed since start, over a wrap-around too. */
TARN_API uint32_t tarn_tick_ms_since(uint32_t start);
TARN_API uint64_t tarn_tick_ns_since(uint64_t start);

/** b - a, over a wrap-around too: the ticks from a on to b. */
TARN_API uint32_t tarn_tick_ms_diff(uint32_t a, uint32_t b);
TARN_API uint64_t tarn_tick_ns_diff(uint64_t a, uint64_t b);

/** Order of two ticks on the circle.
 *  @return 0 when equal; 1 when a is later than b; -1 when it is earlier. A distance of exactly
 *          half the circle less one step counts as earlier when a is the larger number, as later
 *          when b is. */
TARN_API int tarn_tick_ms_compare(uint32_t a, uint32_t b);
TARN_API int tarn_tick_ns_compare(uint64_t a, uint64_t b);

/** Sleep; 0 counts as 1. From one second up the sleep lasts its whole time even when signals
 *  arrive; below, a signal handler that runs ends it early. */
TARN_API void tarn_sleep_ms(uint32_t ms);
TARN_API void tarn_sleep_us(uint32_t us);

/** Sleep for nanoseconds; 0 counts as 1; lasts its whole time even when signals arrive. */
TARN_API void tarn_sleep_ns(uint64_t ns);

/** Wall-clock time in whole seconds since 1970-01-01 00:00:00 UTC. */
TARN_API int64_t tarn_time_now(void);

/** Wall-clock time with microseconds.
 *  @param time  out; not null
 *  @return false when time is null or the clock cannot be read. */
TARN_API bool tarn_time_get(tarn_time *time);

/** Current time as a calendar record, in local time or in UTC.
 *  @param out  out; not null; untouched on failure
 *  @return false when out is null or the time has no calendar form. */
TARN_API bool tarn_systime_local(tarn_systime *out);
TARN_API bool tarn_systime_utc(tarn_systime *out);

/** Calendar record of a time, in UTC or in local time; milliseconds are cut.
 *  @return false when an argument is null or the time has no calendar form (year above 65535). */
TARN_API bool tarn_time_to_systime_utc(const tarn_time *time, tarn_systime *out);
TARN_API bool tarn_time_to_systime_local(const tarn_time *time, tarn_systime *out);

/** Time of a calendar record that is read as local time, with its daylight-saving field (which
 *  this layer always fills with 0): a record taken in summer time comes out one hour late.
 *  @return false when an argument is null or the record lies before 1970 or has no time. */
TARN_API bool tarn_systime_to_time(const tarn_systime *systime, tarn_time *time);

/** Minutes west of UTC of the local zone, without summer time. */
TARN_API int tarn_time_zone_minutes(void);

TARN_END_DECLS

#endif
