/** @file
 *  Process frame: standard command line, single-instance lock, daemon mode, termination signals
 *  and the exit event.
 *
 *  Shape of a daemon's main:
 *
 *      int rc = tarn_process_parse_cmdline_ex(argc, argv, "mydaemon", "1.0", "", true,
 *                                             &config_file, my_options, 0);
 *      if (rc != 0) return 1;               // its messages are out already
 *      if (!tarn_init()) return 1;
 *      start_my_threads();
 *      while (!tarn_process_wait_exit(1000)) my_periodic_work();
 *      stop_my_threads();
 *      tarn_uninit();
 *
 *  Signals, from tarn_init() on: SIGTERM, SIGINT and SIGQUIT end the process by their default
 *  action until the first tarn_process_wait_exit(); from then on the first three set the exit
 *  event and the fourth kills. SIGPIPE is ignored. SIGUSR1 switches the logging of serial traffic
 *  on, SIGUSR2 off. In a forked child that goes on without exec, termination signals take their
 *  default action until its own first tarn_process_wait_exit().
 *  A service manager that started the process with NOTIFY_SOCKET in its environment, see
 *  sd_notify(3), is told READY=1 at the first exit wait, STOPPING=1 when a wait sees the exit event,
 *  and, with WATCHDOG_USEC set as well, WATCHDOG=1 on each tarn_wdt_kick().
 *  Threads: the command line, instance lock and daemon calls belong to the main thread before any
 *  other thread runs; the rest may be called from any thread. */
#ifndef TARN_PROCESS_H
#define TARN_PROCESS_H

#include "tarn.h"
#include "tarn_cmdline_option.h"
#include "tarn_event.h"

TARN_BEGIN_DECLS

/** The exit event: manual reset, set by termination signals; null before tarn_init() and after
 *  tarn_uninit(). Other threads may wait for it or set it. */
extern TARN_API TARN_EVENT __tarn_process_exit_event__;

/** Wait for the exit event; from the first call on, termination signals ask for an orderly exit
 *  instead of killing the process.
 *  @param ms  at most so long; TARN_INFINITE without limit
 *  @return true when the event is set: leave the main loop. */
TARN_API bool tarn_process_wait_exit(uint32_t ms);

/** The short standard command line: -d, -f FILE, -log LEVEL, -t, -v, --version. Other arguments
 *  are ignored. Call it before tarn_init().
 *  @param instance_name    name of the instance lock; copied, and then the process's name
 *  @param version,revision texts of the version line; revision may be null or empty
 *  @param single_instance  take the instance lock first
 *  @param config_file_out  receives the argument of -f (in argv); null: -f is an error
 *  @return 0: go on; negative: end the program, the reason was printed or logged:
 *          -1 an instance is already running, -2 no instance name, -3 version printed, -4 bad
 *          arguments (usage printed), -5 cannot become a daemon. */
TARN_API int tarn_process_parse_cmdline(int argc, char *const *argv, const char *instance_name,
                                        const char *version, const char *revision,
                                        bool single_instance, const char **config_file_out);

/** The table-driven standard command line: -d/--daemon, -f/--config=FILE, --log-level=LEVEL,
 *  --help, -v/--version and the caller's own rows. Call it before tarn_init().
 *  @param config_file_out  may be null; receives the argument of -f (in argv) or null
 *  @param extra_options    may be null; rows as tarn_cmdline_option.h describes, behind the
 *                          standard ones
 *  @param allow_unknown    1: arguments that no row takes are no error
 *  @return 0: go on; negative: end the program (bad arguments, help or version printed, an instance
 *          running, no daemon); positive, with allow_unknown 1 only: the mask of positional
 *          arguments, bit i for argument i. Unlike the short form it does not keep the instance
 *          name as the process's name. */
TARN_API int tarn_process_parse_cmdline_ex(int argc, char *const *argv, const char *instance_name,
                                           const char *version, const char *revision,
                                           bool single_instance, const char **config_file_out,
                                           const tarn_cmdline_option *extra_options,
                                           int allow_unknown);

/** Take the instance lock: an flock on /tmp/tarn_proc_NAME.pid that lasts until the process ends.
 *  Asking again for a name that this process holds gives 0.
 *  @param name  without '/'
 *  @return 1 when this is the only instance; 0 when not or when the lock cannot be had (logged). */
TARN_API int tarn_process_is_first_instance(const char *name);

/** Print "PROGRAM VERSION rev REVISION", or "PROGRAM VERSION" for a null or empty revision. */
TARN_API void tarn_process_print_version(const char *program, const char *version,
                                         const char *revision);

/** Print the usage text of the short command line, with the -f line when with_config. */
TARN_API void tarn_process_print_usage(const char *program, bool with_config);

/** Print the usage text of the table-driven command line; extra_options may be null. */
TARN_API void tarn_process_print_usage_ex(const char *program,
                                          const tarn_cmdline_option *extra_options);

/** Become a daemon: fork, change to /, standard streams to /dev/null; from then on lines go to
 *  syslog. Threads do not survive it, so call it before tarn_init().
 *  @return false when the system refuses. */
TARN_API bool tarn_process_daemonize(void);

/** True once tarn_process_daemonize() has succeeded. */
TARN_API bool tarn_process_is_daemon(void);

/** The instance name of the short command line, else the program's short name. Valid until
 *  tarn_uninit(). */
TARN_API const char *tarn_process_name(void);

/** The program's invocation name: its last component, and as it was given. */
TARN_API const char *tarn_process_program_name(void);
TARN_API const char *tarn_process_program_path(void);

/** The process id. */
TARN_API int tarn_process_id(void);

/** True while traffic of serial ports is logged: switched on by -t or SIGUSR1, off by SIGUSR2. */
TARN_API bool tarn_process_is_serial_traffic_logged(void);

/** Environment variables. Changes wait for readers inside the layer; a pointer that getenv gave
 *  stays valid only until the variable is changed, so set variables before threads start.
 *  @return getenv: the value or null; setenv, clearenv: true on success. */
TARN_API const char *tarn_process_getenv(const char *name);
TARN_API bool tarn_process_setenv(const char *name, const char *value, bool overwrite);
TARN_API bool tarn_process_clearenv(void);

/** The process watchdog (tarn_wdt_set_timeout() and so on in tarn_sys.h): register with a time-out in
 *  seconds, kick, and take the process out again. Registering and taking out give 0, or TARN_ERRLN
 *  when the watchdog refuses or there is none. */
TARN_API int tarn_process_wdt_set_timeout(uint32_t seconds);
TARN_API void tarn_process_wdt_kick(void);
TARN_API int tarn_process_wdt_disable(void);

TARN_END_DECLS

#endif
