// Atomic module: a place in the module table only; atomic operations are used inline where they
// are needed.

#include "tarn.h"

#include "tarn_modules.h"

bool tarn_atomic_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_atomic_uninit(void) {}
