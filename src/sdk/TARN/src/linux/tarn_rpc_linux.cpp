// What senders of RPC requests wait on: a semaphore of the C library.

#include "tarn_rpc_port.h"

#include "tarn.h"
#include "tarn_raii.h"

#include <ctime>

#include <semaphore.h>

namespace tarn
{

struct rpc_signal
{
    sem_t count;
};

rpc_signal *rpc_signal_create()
{
    auto signal = unique_mem<rpc_signal>::make();
    if (!signal || ::sem_init(&signal->count, 0, 0) != 0)
    {
        return nullptr;
    }
    return signal.release();
}

void rpc_signal_destroy(rpc_signal *signal)
{
    if (signal != nullptr)
    {
        (void)::sem_destroy(&signal->count);
        tarn_mem_free(signal);
    }
}

void rpc_signal_set(rpc_signal *signal)
{
    (void)::sem_post(&signal->count);
}

void rpc_signal_wait(rpc_signal *signal, uint32_t ms)
{
    if (ms == TARN_INFINITE)
    {
        (void)::sem_wait(&signal->count);
        return;
    }
    timespec end{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += static_cast<time_t>(ms / 1000);
    end.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
    if (end.tv_nsec >= 1000000000)
    {
        end.tv_nsec -= 1000000000;
        ++end.tv_sec;
    }
    (void)::sem_clockwait(&signal->count, CLOCK_MONOTONIC, &end);
}

} // namespace tarn
