// Private: the poll schedule of the timed semaphore wait, and a wait without it; for
// tarn_semaphore.cpp, the shared heap and the tests.
#ifndef TARN_SEMAPHORE_INTERNAL_H
#define TARN_SEMAPHORE_INTERNAL_H

#include "tarn_semaphore.h"

#include <cstdint>

namespace tarn
{

/** Sleeps between tries: 11 of 1 ms, then 12 each of 2, 4, 8, 16, 32 and 64 ms, then 100 ms for
 *  ever. */
class poll_schedule
{
public:
    /** Length of the next sleep in milliseconds. */
    uint32_t next() noexcept
    {
        if (failures_++ > 10)
        {
            step_ms_ = step_ms_ * 2 < 100 ? step_ms_ * 2 : 100;
            failures_ = 0;
        }
        return step_ms_;
    }

private:
    uint32_t step_ms_ = 1;
    uint32_t failures_ = 0;
};

/** Take one unit, sleeping in the kernel until there is one: for a server that has to answer at
 *  once, which the polling tarn_semaphore_wait() does not.
 *  @param ms  at most so long on the monotonic clock; not infinite
 *  @return true when a unit was taken */
bool semaphore_take_within(TARN_SEMAPHORE sem, uint32_t ms);

} // namespace tarn

#endif
