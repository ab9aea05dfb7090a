// Private: seams and fast paths of the system module; for its own files, the log, the process
// frame and the tests.
#ifndef TARN_SYS_INTERNAL_H
#define TARN_SYS_INTERNAL_H

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace tarn
{

/** Added to every tick, so that tests can put a tick at the edge of its range or let seconds pass
 *  at once. 0 in every program. */
extern std::atomic<uint32_t> tick_ms_offset;

/** Length of a time stamp "14:03:07.042 ". */
inline constexpr size_t time_stamp_length = 13;

/** Write the local wall-clock time as a stamp, time_stamp_length characters and no terminator.
 *  The broken-down second is kept per thread: the time zone is looked at once per second, under
 *  the environment lock.
 *  @return false when the time has no calendar form; nothing is written then. */
bool time_stamp_local(char *out);

/** The same without locks, from the last known distance to UTC. Safe in signal handlers. */
void time_stamp_from_handler(char *out) noexcept;

/** Look whether the environment disables the watchdog (WARN); at start-up. */
void wdt_read_environment();

} // namespace tarn

#endif
