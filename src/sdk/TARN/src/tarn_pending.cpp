// Start-up and teardown of modules that have their place in the table but no code yet.

#include "tarn_modules.h"

#define TARN_PENDING_MODULE(name)                                                                  \
    bool tarn_##name##_init(void)                                                                  \
    {                                                                                              \
        return true;                                                                               \
    }                                                                                              \
    void tarn_##name##_uninit(void) {}

TARN_PENDING_MODULE(shmx)
TARN_PENDING_MODULE(ipc)
TARN_PENDING_MODULE(rpc)
