// Private: pieces of the log line for callers that cannot use tarn_log_print(); for tarn_log.cpp,
// the process frame's signal handlers and the tests.
#ifndef TARN_LOG_INTERNAL_H
#define TARN_LOG_INTERNAL_H

#include "tarn_log.h"

#include "tarn_text.h"

#include <atomic>
#include <string_view>

namespace tarn
{

/** Takes finished lines, newline included, in place of both sinks while it is set; for tests. */
using log_tap_function = void (*)(int32_t level, std::string_view line);
extern std::atomic<log_tap_function> log_tap;

/** Where a message comes from. */
struct log_position
{
    const char *file;
    int line;
    const char *func;
};

/** Append what stands before the message: time stamp, name and level (foreground only: stamp is
 *  empty otherwise and both are left out), then the bracketed position. Safe in signal
 *  handlers. */
void log_append_prefix(text_writer &out, const tarn_logger &logger, int32_t level,
                       const log_position &position, bool foreground, std::string_view stamp);

/** Buffer size that holds every prefix of this logger and position, terminator included. */
size_t log_prefix_size(const tarn_logger &logger, const log_position &position);

/** Write a foreground line of the default logger straight to descriptor 1, if the threshold shows
 *  the level: for a signal handler that is about to end the process. Safe in signal handlers; a
 *  standard output that takes nothing for 100 ms costs the line, not the exit. */
void log_write_from_handler(int32_t level, const log_position &position, std::string_view message);

} // namespace tarn

#endif
