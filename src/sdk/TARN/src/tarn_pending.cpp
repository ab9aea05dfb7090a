// Start-up and teardown of modules that have their place in the table but no code yet.

#include "tarn_modules.h"

#define TARN_PENDING_MODULE(name)                                                                  \
    bool tarn_##name##_init(void)                                                                  \
    {                                                                                              \
        return true;                                                                               \
    }                                                                                              \
    void tarn_##name##_uninit(void) {}

TARN_PENDING_MODULE(shm)
TARN_PENDING_MODULE(shmx)
TARN_PENDING_MODULE(mutex)
TARN_PENDING_MODULE(rwlock)
TARN_PENDING_MODULE(serial)
TARN_PENDING_MODULE(thread_pool)
TARN_PENDING_MODULE(timer)
TARN_PENDING_MODULE(ipc)

// Until the TLS utility is there, its table cannot be had.
extern "C" int tlsu_if_get(struct tlsu_if *)
{
    return -1;
}
