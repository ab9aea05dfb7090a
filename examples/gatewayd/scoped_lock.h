// Holding a critical section for a scope.
#pragma once

#include "tarn_critical_section.h"

namespace gatewayd
{

class scoped_lock
{
public:
    explicit scoped_lock(TARN_CRITICAL_SECTION lock) : lock_(lock)
    {
        TARN_CRITICAL_SECTION_ENTER(lock_);
    }
    scoped_lock(const scoped_lock &) = delete;
    scoped_lock &operator=(const scoped_lock &) = delete;
    ~scoped_lock()
    {
        TARN_CRITICAL_SECTION_LEAVE(lock_);
    }

private:
    TARN_CRITICAL_SECTION lock_;
};

} // namespace gatewayd
