/** @file
 *  Clock, ticks and sleeps; setting and printing the wall-clock time, a monitor of its changes;
 *  the program's own place, install directories, shell commands, the process watchdog.
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

/* ---- wall-clock time: set, print, watch ------------------------------------------------------- */

/** Set the wall clock, and the hardware clock after it (sync(), then "hwclock -w -f /dev/rtc").
 *  @param time  not null
 *  @return true when the wall clock was set, whatever became of the hardware clock; false for null
 *          and when the system refuses (ERROR): it takes a privilege.
 *  Blocking: until the disks are in sync and the command has ended. */
TARN_API bool tarn_time_set(const tarn_time *time);

/** Text of a time by a strftime() format.
 *  @param time    null: the current time
 *  @param local   local time, else UTC
 *  @param buf     out; null: a buffer of 128 bytes of the calling thread, used again by its next
 *                 call
 *  @param len     of buf; not looked at when buf is null
 *  @return the buffer, with an empty text when the result does not fit or the time has no calendar
 *          form; null when format is null or len is 0. */
TARN_API char *tarn_time_format(const tarn_time *time, bool local, const char *format, char *buf,
                                size_t len);

/** Print a time by a strftime() format into a buffer.
 *  @param buf   out; null only with len 0, which prints nothing
 *  @return length of the text without NUL; 0, with an empty text, when it does not fit; TARN_ERRLN
 *          when format is null, buf is null or len 0 but not both, or the time has no calendar
 *          form. */
TARN_API int tarn_time_print(char *buf, size_t len, const tarn_time *time, const char *format,
                             bool local);

/** ISO 8601 text of a time: "2025-07-01T14:03:07+02:00" for local time, with the offset that holds
 *  at that time, "2025-07-01T12:03:07Z" for UTC. Offset and Z are left out where they do not fit.
 *  Arguments and result as tarn_time_format(); the thread's buffer is another one. */
TARN_API char *tarn_time_get_iso8601_str(const tarn_time *time, bool local, char *buf, size_t len);

/** Called on the monitor's thread when the wall clock was set; changes within a second of one
 *  another are told together. */
typedef void (*tarn_time_change_callback)(void);

/** Start the monitor of changes of the wall clock; it runs until tarn_uninit().
 *  @param callback  null: changes are only logged, at TRACE
 *  @return 0; -1 when it runs already; -2 without a descriptor (ERROR); -3 when it cannot be armed
 *          (ERROR) or its thread not be started. */
TARN_API int tarn_time_monitor_change(tarn_time_change_callback callback);

/* ---- the program and its directories ---------------------------------------------------------- */

/** File name of the running program, without directory; also when the file has been deleted or
 *  replaced since.
 *  @param buf  out: the name and a NUL; untouched on failure
 *  @return length of the name; -1 when buf is null; -2 when len is below 2; -3 when the system does
 *          not tell; -4 when what it tells is no path; -5 when buf is too small. */
TARN_API int tarn_sys_get_process_name(char *buf, size_t len);

/** Directory of the running program, without '/' at its end unless it is the root.
 *  @param buf  out: the path and a NUL; untouched on failure
 *  @return length of the path; TARN_ERRLN when buf is null or too small, or the system does not
 *          tell. */
TARN_API int tarn_sys_get_process_directory(char *buf, size_t len);

/** Install directory: the environment's FERNWICK_PATH, else MOSSVAL_PATH, else "/opt/fernwick". The
 *  directories are found at the first call and stay; of a longer value the first 1024 bytes count,
 *  an empty one counts as none. Static texts. */
TARN_API const char *tarn_sys_install_dir(void);

/** The install directory's "project". */
TARN_API const char *tarn_sys_project_dir(void);

/** The project directory's "default-ca-certificates.crt". */
TARN_API const char *tarn_sys_default_ca_file(void);

/** The environment's TMPDIR, else "/tmp"; valid until that variable is changed. */
TARN_API const char *tarn_sys_temp_dir(void);

/* ---- shell commands --------------------------------------------------------------------------- */

/** Run a shell command and wait for its end.
 *  The command runs with this process's environment; its standard output is the pipe that is read
 *  here, and SIGPIPE ends it as usual although this process ignores it.
 *  @param cmd         what `sh -c` understands; never put foreign text into it
 *  @param output      null: the output is discarded, the command meets a closed pipe. Else it must
 *                     point to null and receives all that the command printed, as a new string (a
 *                     zero byte follows; bytes of zero in between are kept), for the caller to free;
 *                     it stays null when nothing was printed. When the command cannot be started:
 *                     "fail to run [CMD]\n"
 *  @param timeout_ms  the output is read for so long; TARN_INFINITE until its end. Only the reading
 *                     ends then: a command that goes on without printing is still waited for
 *  @return exit status, 0 to 255; TARN_ERRLN when cmd is null, *output is not, the command cannot be
 *          started or was ended by a signal.
 *  Blocking: until the command has ended; no cancellation point. */
TARN_API int tarn_sys_command_run(const char *cmd, char **output, uint32_t timeout_ms);

/* ---- the process watchdog --------------------------------------------------------------------- */

/* A process that has a time-out set must kick the watchdog more often than that, or the watchdog
 * acts. It is reached through libwatchprocess.so, which is loaded at the first call of any of these
 * functions; without that library, and with TARN_WDT_DISABLED in the environment at tarn_init()
 * (1, y, true or yes, in any case), there is no watchdog.
 * The watchdog of a service manager (WATCHDOG_USEC and NOTIFY_SOCKET in the environment, see
 * tarn_process.h) is kicked as well, independently of all that. */

/** Register the process with the watchdog, or change its time-out.
 *  @param seconds  0 takes the process out
 *  @return true when the watchdog took it, or is disabled; false when it refuses (ERROR) or there
 *          is no library or not that function in it. */
TARN_API bool tarn_wdt_set_timeout(uint32_t seconds);

/** The time-out that was last set with success, in seconds; 0 when none is or the watchdog is
 *  disabled. */
TARN_API uint32_t tarn_wdt_get_timeout(void);

/** Tell the watchdog that the process is well. */
TARN_API void tarn_wdt_kick(void);

TARN_END_DECLS

#endif
