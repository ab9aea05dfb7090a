/** @file
 *  C++: locks and events, threads, jobs, timers. Part of tarn.hpp, which says what holds for all of
 *  it. */
#ifndef TARN_CXX_SYNC_HPP
#define TARN_CXX_SYNC_HPP

#include "tarn_critical_section.h"
#include "tarn_cxx_owner.hpp"
#include "tarn_event.h"
#include "tarn_mutex.h"
#include "tarn_rwlock.h"
#include "tarn_semaphore.h"
#include "tarn_thread.h"
#include "tarn_thread_pool.h"
#include "tarn_timer.h"

#include <cstring>
#include <functional>

namespace tarn
{
inline namespace v1
{

// ---- locks and events ----------------------------------------------------------------------------

class event_ref : public handle_ref<TARN_EVENT>
{
public:
    using handle_ref::handle_ref;
    bool set() const
    {
        return tarn_event_set(handle_);
    }
    bool clear() const ///< tarn_event_reset(); reset() closes an owner
    {
        return tarn_event_reset(handle_);
    }
    bool wait(uint32_t ms = TARN_INFINITE) const
    {
        return tarn_event_wait(handle_, ms);
    }
};
class event : public owner<event_ref, tarn_event_destroy>
{
public:
    using owner::owner;
    static event manual_reset(bool initial_state = false)
    {
        return event(tarn_event_create(true, initial_state));
    }
    static event auto_reset(bool initial_state = false)
    {
        return event(tarn_event_create(false, initial_state));
    }
};

class semaphore_ref : public handle_ref<TARN_SEMAPHORE>
{
public:
    using handle_ref::handle_ref;
    bool wait(uint32_t ms = TARN_INFINITE) const
    {
        return tarn_semaphore_wait(handle_, ms);
    }
    void post(uint32_t count = 1) const
    {
        tarn_semaphore_post(handle_, count, nullptr);
    }
};
class semaphore : public owner<semaphore_ref, tarn_semaphore_destroy>
{
public:
    using owner::owner;
    static semaphore create(const char *name, uint32_t value)
    {
        return semaphore(tarn_semaphore_create(name, value));
    }
    static semaphore open(const char *name)
    {
        return semaphore(tarn_semaphore_open(name));
    }
};

/** lock(), unlock() and try_lock() also make it a mutex for std::lock_guard and std::unique_lock. */
class critical_section_ref : public handle_ref<TARN_CRITICAL_SECTION>
{
public:
    using handle_ref::handle_ref;
    using lock_type = critical_section_ref;
    void lock() const
    {
        tarn_critical_section_enter(handle_);
    }
    bool try_lock() const
    {
        return tarn_critical_section_try_enter(handle_);
    }
    void unlock() const
    {
        tarn_critical_section_leave(handle_);
    }
};
class critical_section : public owner<critical_section_ref, tarn_critical_section_destroy>
{
public:
    using owner::owner;
    static critical_section create()
    {
        return critical_section(tarn_critical_section_create());
    }
};

class mutex_ref : public handle_ref<TARN_MUTEX>
{
public:
    using handle_ref::handle_ref;
    using lock_type = mutex_ref;
    bool lock() const ///< true when locked
    {
        return tarn_mutex_lock(handle_) == 0;
    }
    void unlock() const
    {
        (void)tarn_mutex_unlock(handle_);
    }
};
class mutex : public owner<mutex_ref, tarn_mutex_destroy>
{
public:
    using owner::owner;
    static mutex create(const char *name = nullptr, uint32_t flags = 0)
    {
        return mutex(tarn_mutex_create(flags, name));
    }
    static mutex open(const char *name)
    {
        return mutex(tarn_mutex_open(name));
    }
};

class rwlock_ref : public handle_ref<TARN_RWLOCK>
{
public:
    using handle_ref::handle_ref;
    /** One side of the lock with a time-out, for scoped_lock. */
    template <auto Lock>
    struct side
    {
        using lock_type = side;
        TARN_RWLOCK handle;
        uint32_t ms;
        bool lock() const ///< true when locked in time
        {
            return Lock(handle, ms);
        }
        void unlock() const
        {
            tarn_rwlock_unlock(handle);
        }
    };
    /** For tarn::scoped_lock lock(rw.reader(100)); */
    [[nodiscard]] auto reader(uint32_t ms = TARN_INFINITE) const
    {
        return side<tarn_rwlock_rdlock>{handle_, ms};
    }
    [[nodiscard]] auto writer(uint32_t ms = TARN_INFINITE) const
    {
        return side<tarn_rwlock_wrlock>{handle_, ms};
    }
};
class rwlock : public owner<rwlock_ref, tarn_rwlock_destroy>
{
public:
    using owner::owner;
    static rwlock create(const char *name = nullptr)
    {
        return rwlock(tarn_rwlock_create(0, name));
    }
    static rwlock open(const char *name)
    {
        return rwlock(tarn_rwlock_open(name));
    }
};

/** Holds a lock for its scope: critical_section, mutex, one side of an rwlock, a block of a shared
 *  heap. False when it was not taken. Keeps the handle, not the owner, which may be moved meanwhile
 *  but not closed. */
template <typename Lock>
class [[nodiscard]] scoped_lock
{
public:
    explicit scoped_lock(Lock lock)
        : lock_(lock), held_(detail::call_or(true, [&lock] { return lock.lock(); }))
    {
    }
    scoped_lock(const scoped_lock &) = delete;
    scoped_lock &operator=(const scoped_lock &) = delete;
    ~scoped_lock()
    {
        if (held_)
        {
            lock_.unlock();
        }
    }
    explicit operator bool() const noexcept
    {
        return held_;
    }

private:
    Lock lock_;
    bool held_;
};
template <typename Owner>
scoped_lock(const Owner &) -> scoped_lock<typename Owner::lock_type>;

// ---- threads, jobs, timers -----------------------------------------------------------------------

class thread_ref : public handle_ref<TARN_THREAD>
{
public:
    using handle_ref::handle_ref;
    bool wait_for_start(uint32_t ms) const
    {
        return tarn_thread_wait_for_start(handle_, ms);
    }
    void change_loop_cycle(uint32_t ms) const
    {
        tarn_thread_change_loop_cycle(handle_, ms);
    }
    void set_priority(int priority) const
    {
        tarn_thread_set_priority(handle_, priority);
    }
};

/** A loop thread. A callable that wants to end the loop from inside resets the owner, or returns
 *  false: it is not called again then, and the thread waits to be closed. */
class thread : public callback_owner<thread_ref, tarn_thread_stop>
{
public:
    using callback_owner::callback_owner;
    /** Start a loop thread.
     *  @param loop_cycle  milliseconds, as tarn_thread_start(); TARN_THREAD_ONCE is refused: a thread
     *                     that runs once ends its handle by itself, see run_once()
     *  @param f           called without arguments; returns nothing, or bool: false for no more calls
     *  @param stack_size  as tarn_thread_start_ex() */
    template <typename F>
    static thread start(uint32_t loop_cycle, const char *name, F f, uint32_t stack_size = 0)
    {
        const auto create = [&](detail::callable_of<F> *callable) -> TARN_THREAD {
            return tarn_thread_start_ex(entry<F>, callable, nullptr, loop_cycle, stack_size, name);
        };
        return loop_cycle == TARN_THREAD_ONCE ? thread() : thread(std::move(f), create);
    }
    /** Call f once on a thread of its own, which nobody waits for; f is destroyed when it has
     *  returned.
     *  @return as tarn_thread_run_once(); 0 when there was no memory either */
    template <typename F>
    static uint64_t run_once(F f)
    {
        auto *const callable = detail::make_callable(std::move(f));
        const auto once = [](void *arg) {
            auto *const running = static_cast<detail::callable_of<F> *>(arg);
            const detail::running_call call(running);
            (void)detail::running_call::adopt(running);
            (void)running->call();
        };
        const uint64_t id = callable != nullptr ? tarn_thread_run_once(once, callable) : 0;
        if (id == 0 && callable != nullptr)
        {
            callable->drop(callable);
        }
        return id;
    }

private:
    template <typename F>
    static void *entry(void *arg, void *)
    {
        auto *const running = static_cast<detail::callable_of<F> *>(arg);
        const detail::running_call call(running);
        if (!detail::call_or(true, [running] { return running->call(); }) && !call.orphaned())
        {
            (void)tarn_thread_sleep(TARN_INFINITE);
        }
        return nullptr;
    }
};

class thread_pool_ref : public handle_ref<TARN_THREAD_POOL>
{
public:
    using handle_ref::handle_ref;
    /** Run f() once on a worker; nothing is allocated for it.
     *  @param job  copied as bytes: it holds up to two pointers' worth of plain data (references,
     *              pointers, numbers). A larger one is passed as std::ref(job) and has to outlive
     *              the job
     *  @return as tarn_thread_pool_start_thread_ex() */
    template <typename F>
    bool run(F job, uint32_t timeout_ms = 5000) const
    {
        static_assert(std::is_trivially_copyable_v<F> && sizeof(F) <= 2 * sizeof(void *) &&
                          alignof(F) <= alignof(void *),
                      "too large or not plain data: capture a pointer, or pass std::ref(job)");
        void *args[2] = {};
        std::memcpy(args, static_cast<const void *>(std::addressof(job)), sizeof job);
        const auto entry = [](void *arg1, void *arg2) -> void * {
            void *const copies[2] = {arg1, arg2};
            alignas(void *) unsigned char place[sizeof copies];
            std::memcpy(place, copies, sizeof copies);
            (void)(*std::launder(reinterpret_cast<F *>(place)))();
            return nullptr;
        };
        return tarn_thread_pool_start_thread_ex(handle_, timeout_ms, entry, args[0], args[1]);
    }
};
class thread_pool : public owner<thread_pool_ref, tarn_thread_pool_destroy>
{
public:
    using owner::owner;
    static thread_pool create(uint32_t max_thread_count)
    {
        return thread_pool(tarn_thread_pool_create(max_thread_count));
    }
};

/** What a timer's callable is told; see tarn_timer_callback. */
struct tick
{
    uint64_t expirations;
    uint64_t due_sec;
    uint32_t due_nsec;
};
class timer_ref : public handle_ref<TARN_TIMER>
{
public:
    using handle_ref::handle_ref;
    int start(uint64_t interval_ns, uint64_t offset_ns = 0) const
    {
        return tarn_timer_start(handle_, interval_ns, offset_ns);
    }
    void stop() const
    {
        tarn_timer_stop(handle_);
    }
    [[nodiscard]] bool is_started() const
    {
        return tarn_timer_is_started(handle_);
    }
    int64_t wait(uint32_t timeout_ns) const
    {
        return tarn_timer_wait(handle_, timeout_ns);
    }
};
class timer : public callback_owner<timer_ref, tarn_timer_destroy>
{
public:
    using callback_owner::callback_owner;
    /** Create a timer that calls f(const tick &), or f(), on its own thread once it is started.
     *  @param kind  TARN_TIMER_WALL_CLOCK or TARN_TIMER_MONOTONIC */
    template <typename F>
    static timer create(int kind, F f)
    {
        return timer(std::move(f), [kind](detail::callable_of<F> *callable) {
            return tarn_timer_create(kind, entry<F>, callable, nullptr);
        });
    }
    /** Create a timer to wait() for. */
    static timer create(int kind)
    {
        return timer(tarn_timer_create(kind, nullptr, nullptr, nullptr));
    }

private:
    template <typename F>
    static void *entry(TARN_TIMER, uint64_t expirations, uint64_t due_sec, uint32_t due_nsec,
                       void *arg, void *)
    {
        auto *const running = static_cast<detail::callable_of<F> *>(arg);
        const detail::running_call call(running);
        if constexpr (std::is_invocable_v<F &, const tick &>)
        {
            (void)running->call(tick{expirations, due_sec, due_nsec});
        }
        else
        {
            (void)running->call();
        }
        return nullptr;
    }
};

} // namespace v1
} // namespace tarn

#endif
