// Semaphores: POSIX semaphores, unnamed or named.
//
// A timed wait polls; its schedule is part of the behaviour that programs rely on. Only the last
// sleep is cut to the time that is left.

#include "tarn_semaphore.h"

#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_semaphore_internal.h"
#include "tarn_sys.h"
#include "tarn_text.h"
#include "tarn_umask_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>

struct tarn_semaphore
{
    tarn_handle_header header;
    sem_t *system;
    uint8_t named;
    uint8_t owner;  ///< created the name and removes it
    char name[109]; ///< "/NAME"
};
TARN_ASSERT_RECORD(tarn_semaphore);

namespace
{

constexpr size_t max_name_length = 107;

using object_owner = tarn::unique_mem<tarn_semaphore>;

object_owner make_named(const char *name)
{
    auto sem = tarn::make_object<tarn_semaphore>(TARN_HANDLE_TYPE_SEMAPHORE);
    if (sem)
    {
        sem->named = 1;
        tarn::text_writer(sem->name, sizeof sem->name).append('/').append(name);
    }
    return sem;
}

TARN_SEMAPHORE create_unnamed(uint32_t value)
{
    auto sem = tarn::make_object<tarn_semaphore>(TARN_HANDLE_TYPE_SEMAPHORE);
    RVON(sem, TARN_INVALID_HANDLE);
    auto system = tarn::unique_mem<sem_t>::make();
    RVON(system, TARN_INVALID_HANDLE);
    if (sem_init(system.get(), 0, value) != 0)
    {
        return TARN_INVALID_HANDLE;
    }
    sem->system = system.release();
    return sem.release();
}

TARN_SEMAPHORE create_named(const char *name, uint32_t value)
{
    if (std::strlen(name) > max_name_length)
    {
        TARN_LOG_ERROR("The name for the semaphore object is too long.");
        return TARN_INVALID_HANDLE;
    }
    object_owner sem = make_named(name);
    RVON(sem, TARN_INVALID_HANDLE);
    int error = 0;
    {
        // sem_open applies the umask and there is no descriptor to change the mode of afterwards.
        const tarn::umask_window no_umask;
        (void)sem_unlink(sem->name);
        sem->system = sem_open(sem->name, O_CREAT | O_EXCL, 0666, value);
        error = errno;
    }
    if (sem->system == SEM_FAILED)
    {
        TARN_LOG_ERROR("couldn't open the semaphore object %s, errno = %d (%s).", sem->name, error,
                       tarn::error_text(error).c_str());
        return TARN_INVALID_HANDLE;
    }
    sem->owner = 1;
    return sem.release();
}

bool try_take(TARN_SEMAPHORE sem)
{
    return tarn::retry_eintr([sem] { return sem_trywait(sem->system); }) == 0;
}

bool take_within(TARN_SEMAPHORE sem, uint32_t ms)
{
    const uint32_t start = tarn_tick_ms();
    tarn::poll_schedule schedule;
    for (uint32_t elapsed = 0; elapsed <= ms; elapsed = tarn_tick_ms_since(start))
    {
        if (try_take(sem))
        {
            return true;
        }
        tarn_sleep_ms(std::min(schedule.next(), std::max(ms - elapsed, 1u)));
    }
    return false;
}

} // namespace

namespace tarn
{

bool semaphore_take_within(TARN_SEMAPHORE sem, uint32_t ms)
{
    timespec deadline{};
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += ms / 1000;
    deadline.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
    if (deadline.tv_nsec >= 1000000000)
    {
        deadline.tv_nsec -= 1000000000;
        ++deadline.tv_sec;
    }
    return retry_eintr([&] { return sem_clockwait(sem->system, CLOCK_MONOTONIC, &deadline); }) == 0;
}

} // namespace tarn

TARN_SEMAPHORE tarn_semaphore_create(const char *name, uint32_t value)
{
    return name == nullptr ? create_unnamed(value) : create_named(name, value);
}

TARN_SEMAPHORE tarn_semaphore_open(const char *name)
{
    RVON(name, TARN_INVALID_HANDLE);
    if (std::strlen(name) > max_name_length)
    {
        TARN_LOG_TRACE("The name for the semaphore object is too long.");
        return TARN_INVALID_HANDLE;
    }
    object_owner sem = make_named(name);
    RVON(sem, TARN_INVALID_HANDLE);
    sem->system = sem_open(sem->name, 0);
    if (sem->system == SEM_FAILED)
    {
        const int error = errno;
        TARN_LOG_TRACE("coundn't open semaphore object %s, errno = %d.", sem->name, error);
        return TARN_INVALID_HANDLE;
    }
    return sem.release();
}

bool tarn_semaphore_wait(TARN_SEMAPHORE sem, uint32_t ms)
{
    RVON(sem, false);
    switch (ms)
    {
    case TARN_INFINITE:
        return tarn::retry_eintr([sem] { return sem_wait(sem->system); }) == 0;
    case 0:
        return try_take(sem);
    default:
        return take_within(sem, ms);
    }
}

void tarn_semaphore_post(TARN_SEMAPHORE sem, uint32_t count, int *status_out)
{
    RON(sem);
    int value = 0;
    const int status = sem_getvalue(sem->system, &value);
    if (status_out != nullptr)
    {
        *status_out = status; // of the query, not the value
    }
    for (; count != 0 && sem_post(sem->system) == 0; --count)
    {
    }
}

void tarn_semaphore_destroy(TARN_SEMAPHORE sem)
{
    if (sem == nullptr)
    {
        return;
    }
    if (sem->named != 0)
    {
        (void)sem_close(sem->system);
        if (sem->owner != 0)
        {
            (void)sem_unlink(sem->name);
        }
    }
    else
    {
        (void)sem_destroy(sem->system);
        tarn_mem_free(sem->system);
    }
    tarn_mem_free(sem);
}

bool tarn_semaphore_init(void)
{
    return true;
}

void tarn_semaphore_uninit(void) {}
