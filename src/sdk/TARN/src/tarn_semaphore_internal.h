// Private: the poll schedule of the timed semaphore wait; for tarn_semaphore.cpp and the tests.
#ifndef TARN_SEMAPHORE_INTERNAL_H
#define TARN_SEMAPHORE_INTERNAL_H

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

} // namespace tarn

#endif
