// Private: facts of the process that modules below the process frame read; for the log, the
// clock, threads and the process frame.
//
// All of it is static data that is valid before tarn_init() and after tarn_uninit().
#ifndef TARN_PROCESS_STATE_H
#define TARN_PROCESS_STATE_H

#include "tarn_event.h"
#include "tarn_raii.h"

#include <atomic>

namespace tarn
{

struct process_state
{
    std::atomic<bool> is_daemon;          ///< set once, after daemon(3)
    std::atomic<bool> log_serial_traffic; ///< flipped by a signal handler
    std::atomic<uint32_t> thread_count;   ///< registered loop threads; read by a signal handler
    std::atomic<int32_t> utc_offset_s;    ///< seconds east of UTC, as of the last logged second
};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int32_t>::is_always_lock_free,
              "signal handlers use these");

extern process_state process;

/** Held over every change of the environment, and over what reads it inside the C library (time
 *  zone conversions): a change may move the array under a reader. Guards nothing else. */
extern static_mutex environment_lock;

/** The exit event; null before start-up and after teardown. */
TARN_EVENT exit_event() noexcept;

/** Replace the exit event and return the old one. */
TARN_EVENT exchange_exit_event(TARN_EVENT event) noexcept;

/** Last component of the invocation name, and the name as given. */
const char *program_short_name() noexcept;
const char *program_full_name() noexcept;

} // namespace tarn

#endif
