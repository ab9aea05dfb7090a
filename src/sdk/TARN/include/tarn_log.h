/** @file
 *  Logging: one process-wide level, a static default logger that the whole layer writes through,
 *  optional named loggers, one line format.
 *
 *  Where lines go: standard output (buffered stdio, never flushed here) while the process runs in
 *  the foreground; syslog, facility user, once it has daemonised (tarn_process_daemonize()).
 *  A foreground line reads
 *
 *      14:03:07.042 mydaemon.info [tarn.cpp:203:tarn_init] init_count = 1
 *
 *  in local time; a syslog entry has the bracketed position and the message only.
 *
 *  Threads: every function may be called from any thread, before tarn_init() as well. A line is
 *  handed over whole. Lines of one process never mix; lines of several processes that write into
 *  one pipe do not mix either while they are no longer than PIPE_BUF (4096 bytes), because the
 *  buffer of standard output is handed on at line ends only.
 *  Logging keeps errno, and a thread is never cancelled inside it.
 *  Not for signal handlers. */
#ifndef TARN_LOG_H
#define TARN_LOG_H

#include "tarn_api.h"

#include <stdarg.h>
#include <stdint.h>

TARN_BEGIN_DECLS

/** Levels; the numbers are those of the syslog priorities. TRACE is deliberately less verbose than
 *  DEBUG: a threshold of TRACE shows TRACE and everything more severe. */
enum
{
    TARN_LOG_LEVEL_FATAL = 2,
    TARN_LOG_LEVEL_ERROR = 3,
    TARN_LOG_LEVEL_WARN = 4,
    TARN_LOG_LEVEL_INFO = 5,
    TARN_LOG_LEVEL_TRACE = 6,
    TARN_LOG_LEVEL_DEBUG = 7
};

/** A logger: a plain record that lives for the rest of the process; there is no destroy. Level and
 *  flags may be changed while threads log: each is read once per line, without a lock. The name
 *  stays as created. */
typedef struct tarn_logger
{
    struct tarn_logger *next; /**< the layer's: list of all created loggers */
    char *name;               /**< shown before the level; null: the program's short name */
    uint32_t level;           /**< own threshold; 0: follow tarn_log_level */
    uint8_t enabled;          /**< only the value 1 lets the logger write */
    uint8_t show_file;        /**< show the source file's base name */
    uint8_t show_func;        /**< show the function's name */
    uint8_t show_line;        /**< show the source line */
} tarn_logger;

/** The process-wide threshold, TARN_LOG_LEVEL_INFO at start. A message of level L is written when
 *  L is not greater. Read it freely; change it with tarn_log_level_set(). */
extern TARN_API int32_t tarn_log_level;

/** The logger that the layer itself and the TARN_LOG_* macros write through. */
extern TARN_API tarn_logger tarn_default_logger;

/** Write one line.
 *  @param logger  borrowed for the call; not null
 *  @param level   a TARN_LOG_LEVEL_* value; also the syslog priority
 *  @param file    base name of the source file, shown as it stands
 *  @param line    source line
 *  @param func    function name
 *  @param format  printf format; a message that holds a NUL byte ends there
 *  @return 0 when written; -1 when the logger is not enabled; -2 when the level is above the
 *          logger's threshold (its own, or tarn_log_level); below -2 when memory ran out. */
TARN_API int tarn_log_print(tarn_logger *logger, int32_t level, const char *file, int line,
                            const char *func, const char *format, ...) TARN_PRINTF(6, 7);

/** The same with an argument list, which is used up. */
TARN_API int tarn_log_vprint(tarn_logger *logger, int32_t level, const char *file, int line,
                             const char *func, const char *format, va_list args) TARN_PRINTF(6, 0);

/** Write one line with a hex dump: "[LEN] PREFIX 00 ab 10".
 *  Does not test the level before it formats: call it through TARN_LOG_HEX.
 *  @param prefix  may be null or empty: left out
 *  @param data    len bytes, borrowed for the call; may be null when len is 0
 *  @return as tarn_log_print(). */
TARN_API int tarn_log_hex(tarn_logger *logger, int32_t level, const char *file, int line,
                          const char *func, const char *prefix, const void *data, uint32_t len);

/** Create a logger, which then lives until the process ends.
 *  @param name     copied; null: the program's short name is shown
 *  @param enabled  1 lets it write
 *  @param level    own threshold; 0 follows tarn_log_level
 *  @return the logger; null when memory ran out. */
TARN_API tarn_logger *tarn_logger_create(const char *name, uint8_t enabled, uint32_t level,
                                         uint8_t show_file, uint8_t show_func, uint8_t show_line);

/** Set the process-wide threshold, and the syslog mask with it. */
TARN_API void tarn_log_level_set(int32_t level);

/** Level of a name: FATAL, ERROR, WARN, INFO, TRACE or DEBUG in any case, white space around it
 *  ignored.
 *  @return 2 to 7; the current tarn_log_level for null and for any other text. */
TARN_API int32_t log_level_from_str(const char *str);

/** Upper-case name of a level; "INFO" for numbers without a name. Static text. */
TARN_API const char *log_level_to_str(int32_t level);

/** Watch the level file of this process, "/tmp/tarn_log_level/NAME" with NAME as
 *  tarn_process_name() gives it: its level is loaded now and whenever the file is written (about
 *  once a second); a missing file is made with the current level, writable by every user. The file
 *  so wins over TARN_LOG_LEVEL and the command line. tarn_init() calls this in a daemon; the watch
 *  lasts until the process ends.
 *  Only a regular file at that very place is read or made, links are not followed.
 *  @return 0; negative when it already runs or the file cannot be read, made or watched (logged). */
TARN_API int tarn_log_level_monitor_start(void);

/** Level that a level file names.
 *  @return as log_level_from_str() of its text; the current level when the file cannot be read. */
TARN_API int32_t log_level_file_read(const char *path);

/** Base name of the calling source file. */
#if defined(__FILE_NAME__)
#define TARN_FILE_NAME __FILE_NAME__
#else
#define TARN_FILE_NAME                                                                             \
    (__builtin_strrchr(__FILE__, '/') ? __builtin_strrchr(__FILE__, '/') + 1 : __FILE__)
#endif

/** True when a message of this level passes the process-wide threshold. */
#define TARN_LOG_ENABLED(level) (__atomic_load_n(&tarn_log_level, __ATOMIC_RELAXED) >= (level))

/** Log through a logger: TARN_LOG_TO(logger, level, format, ...). No argument is evaluated, and
 *  nothing is called, while the process-wide threshold hides the level. */
#define TARN_LOG_TO(logger, level, ...)                                                            \
    do                                                                                             \
    {                                                                                              \
        if (TARN_LOG_ENABLED(level))                                                               \
        {                                                                                          \
            (void)tarn_log_print((logger), (level), TARN_FILE_NAME, __LINE__, __func__,            \
                                 __VA_ARGS__);                                                     \
        }                                                                                          \
    } while (0)

/** Log through the default logger: TARN_LOG_INFO("port %s opened", name). */
#define TARN_LOG(level, ...) TARN_LOG_TO(&tarn_default_logger, level, __VA_ARGS__)
#define TARN_LOG_FATAL(...) TARN_LOG(TARN_LOG_LEVEL_FATAL, __VA_ARGS__)
#define TARN_LOG_ERROR(...) TARN_LOG(TARN_LOG_LEVEL_ERROR, __VA_ARGS__)
#define TARN_LOG_WARN(...) TARN_LOG(TARN_LOG_LEVEL_WARN, __VA_ARGS__)
#define TARN_LOG_INFO(...) TARN_LOG(TARN_LOG_LEVEL_INFO, __VA_ARGS__)
#define TARN_LOG_TRACE(...) TARN_LOG(TARN_LOG_LEVEL_TRACE, __VA_ARGS__)
#define TARN_LOG_DEBUG(...) TARN_LOG(TARN_LOG_LEVEL_DEBUG, __VA_ARGS__)

/** Log an empty line body, as module teardowns do. */
#define TARN_LOG_EMPTY(level) TARN_LOG(level, "%s", "")

/** Hex dump through a logger, formatted only when the level is shown. */
#define TARN_LOG_HEX(logger, level, prefix, data, len)                                             \
    do                                                                                             \
    {                                                                                              \
        if (TARN_LOG_ENABLED(level))                                                               \
        {                                                                                          \
            (void)tarn_log_hex((logger), (level), TARN_FILE_NAME, __LINE__, __func__, (prefix),    \
                               (data), (len));                                                     \
        }                                                                                          \
    } while (0)

TARN_END_DECLS

#endif
