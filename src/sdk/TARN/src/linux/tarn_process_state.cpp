// Facts of the process that modules below the process frame read.

#include "tarn_process_state.h"

#include "tarn_process.h"

#include <cerrno>

constinit TARN_EVENT __tarn_process_exit_event__ = nullptr;

namespace tarn
{

constinit process_state process{};
constinit static_mutex environment_lock;

// The event is exported as plain data, hence the built-ins.
TARN_EVENT exit_event() noexcept
{
    return __atomic_load_n(&__tarn_process_exit_event__, __ATOMIC_ACQUIRE);
}

TARN_EVENT exchange_exit_event(TARN_EVENT event) noexcept
{
    return __atomic_exchange_n(&__tarn_process_exit_event__, event, __ATOMIC_ACQ_REL);
}

const char *program_short_name() noexcept
{
    return program_invocation_short_name;
}

const char *program_full_name() noexcept
{
    return program_invocation_name;
}

} // namespace tarn
