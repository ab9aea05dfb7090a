// Events: a flag under a mutex, with a condition variable on the monotonic clock.
//
// A setter signals while it holds the mutex, and a waiter never looks at the flag without it:
// whoever is let through may destroy the event at once, because the setter's unlock is then the
// last thing that touches it. A lock-free look at the flag would break that.

#include "tarn_event.h"

#include "tarn_event_internal.h"
#include "tarn_modules.h"
#include "tarn_raii.h"

#include <ctime>

#include <pthread.h>

struct tarn_event
{
    tarn_handle_header header;
    pthread_mutex_t mutex;
    pthread_cond_t condition;
    pthread_condattr_t attributes;
    uint8_t manual_reset;
    uint8_t state; ///< 1: set; under mutex
};
TARN_ASSERT_RECORD(tarn_event);

namespace
{

/** Holds the event's mutex; releases it also when the waiter is cancelled. */
class [[nodiscard]] event_guard
{
public:
    explicit event_guard(TARN_EVENT ev) : event_guard(ev, pthread_mutex_lock(&ev->mutex) == 0) {}
    static event_guard try_lock(TARN_EVENT ev)
    {
        return event_guard(ev, pthread_mutex_trylock(&ev->mutex) == 0);
    }
    event_guard(const event_guard &) = delete;
    event_guard &operator=(const event_guard &) = delete;
    ~event_guard()
    {
        if (locked_)
        {
            (void)pthread_mutex_unlock(&ev_->mutex);
        }
    }
    explicit operator bool() const noexcept
    {
        return locked_;
    }

private:
    event_guard(TARN_EVENT ev, bool locked) noexcept : ev_(ev), locked_(locked) {}
    TARN_EVENT ev_;
    bool locked_;
};

timespec deadline_after(uint32_t ms)
{
    timespec at{};
    (void)clock_gettime(CLOCK_MONOTONIC, &at);
    at.tv_sec += ms / 1000;
    at.tv_nsec += static_cast<long>(ms % 1000) * 1000000;
    if (at.tv_nsec >= 1000000000)
    {
        at.tv_nsec -= 1000000000;
        ++at.tv_sec;
    }
    return at;
}

bool take(TARN_EVENT ev)
{
    if (ev->manual_reset == 0)
    {
        ev->state = 0;
    }
    return true;
}

} // namespace

namespace tarn
{

bool event_is_set(TARN_EVENT ev)
{
    const event_guard guard(ev);
    return ev->state == 1;
}

void event_lock(TARN_EVENT ev)
{
    (void)pthread_mutex_lock(&ev->mutex);
}

void event_unlock(TARN_EVENT ev)
{
    (void)pthread_mutex_unlock(&ev->mutex);
}

} // namespace tarn

TARN_EVENT tarn_event_create(bool manual_reset, bool initial_state)
{
    auto ev = tarn::make_object<tarn_event>(TARN_HANDLE_TYPE_EVENT);
    RVON(ev, TARN_INVALID_HANDLE);
    // None of these fails on Linux for these arguments.
    (void)pthread_mutex_init(&ev->mutex, nullptr);
    (void)pthread_condattr_init(&ev->attributes);
    (void)pthread_condattr_setclock(&ev->attributes, CLOCK_MONOTONIC);
    (void)pthread_cond_init(&ev->condition, &ev->attributes);
    ev->manual_reset = manual_reset ? 1 : 0;
    ev->state = initial_state ? 1 : 0;
    return ev.release();
}

void tarn_event_destroy(TARN_EVENT ev)
{
    if (ev == nullptr)
    {
        return;
    }
    (void)pthread_cond_destroy(&ev->condition);
    (void)pthread_condattr_destroy(&ev->attributes);
    (void)pthread_mutex_destroy(&ev->mutex);
    tarn_mem_free(ev);
}

bool tarn_event_set(TARN_EVENT ev)
{
    RVON(ev, false);
    const event_guard guard(ev);
    ev->state = 1;
    (void)(ev->manual_reset != 0 ? pthread_cond_broadcast(&ev->condition)
                                 : pthread_cond_signal(&ev->condition));
    return true;
}

bool tarn_event_reset(TARN_EVENT ev)
{
    RVON(ev, false);
    const event_guard guard(ev);
    ev->state = 0;
    return true;
}

bool tarn_event_wait(TARN_EVENT ev, uint32_t ms)
{
    RVON(ev, false);
    if (ms == 0)
    {
        // Only tries the mutex: false while another thread is inside, even when the event is set.
        const event_guard guard = event_guard::try_lock(ev);
        return guard && ev->state == 1 && take(ev);
    }
    const event_guard guard(ev);
    if (ev->state == 1)
    {
        return take(ev);
    }
    const timespec deadline = ms == TARN_INFINITE ? timespec{} : deadline_after(ms);
    while (ev->state != 1)
    {
        const int rc = ms == TARN_INFINITE
                           ? pthread_cond_wait(&ev->condition, &ev->mutex)
                           : pthread_cond_timedwait(&ev->condition, &ev->mutex, &deadline);
        if (rc != 0 && ev->state != 1)
        {
            return false;
        }
    }
    return take(ev);
}

bool tarn_event_init(void)
{
    return true;
}

void tarn_event_uninit(void) {}
