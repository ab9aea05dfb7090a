// Loop threads.
//
// Who frees a thread object. Every live object is in the registry, and leaving it, under the
// registry lock, settles the owner: tarn_thread_stop() from another thread takes the object out,
// marks it "joining" and frees it after the join; in every other case (one-shot, stopped from its
// own proc, cancelled, loop cycle changed to once) the thread itself frees it as the last thing it
// does. A stopper whose join fails hands the object back ("handed_over") unless the thread has
// ended by then. So exactly one side frees, and a handle that is not in the registry is never
// looked into.
//
// Gate: the creator holds the object's gate mutex from before the system thread exists until the
// thread is pinned, detached and registered. The new thread passes the gate first, so even a
// one-shot thread cannot free its object under its creator.
//
// Lock order: gate before registry; nothing is logged, waited for or called under either, but the
// creator's system calls under the gate, where only the new thread waits.

#include "tarn_thread.h"

#include "tarn_check.h"
#include "tarn_event_internal.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_process_state.h"
#include "tarn_raii.h"
#include "tarn_sys.h"
#include "tarn_text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace
{

constexpr uint32_t default_stack_size = 0x200000;
constexpr uint32_t min_stack_size = 16384;
constexpr size_t name_size = 40;

} // namespace

struct tarn_thread
{
    tarn_handle_header header;
    pthread_t thread; ///< 0 once detached by a self-stop; under the registry lock
    tarn_thread_proc proc;
    uint32_t loop_cycle; ///< shared, atomic access only
    void *arg1;
    void *arg2;
    uint32_t loop_start; ///< shared, atomic access only
    char thread_name[name_size];
    TARN_EVENT start_event;
    TARN_EVENT stop_event;
    tarn_thread *next;
    pthread_mutex_t gate;
    bool one_shot;          ///< fixed at creation: detached, frees itself
    bool joining;           ///< a stopper joins and frees; under the registry lock
    bool handed_over;       ///< the join failed, the thread frees; under the registry lock
    bool ended;             ///< the thread touches the object no more; under the registry lock
    tarn_thread *waits_for; ///< whose end this thread is joining; under the registry lock
};
TARN_ASSERT_RECORD(tarn_thread);

namespace
{

struct registry_state
{
    tarn::static_mutex lock;
    tarn_thread *head TARN_GUARDED_BY(lock) = nullptr;
    std::atomic<uint32_t> pin_counter{0};
    std::atomic<uint32_t> processors{1};
    std::atomic<pthread_t> main_thread{0};
};
constinit registry_state registry;

/** What a loop thread knows of itself; null on other threads. */
constinit thread_local tarn_thread *self = nullptr;

uint32_t load_cycle(const tarn_thread *t)
{
    return __atomic_load_n(&t->loop_cycle, __ATOMIC_RELAXED);
}

void store_cycle(tarn_thread *t, uint32_t ms)
{
    __atomic_store_n(&t->loop_cycle, ms, __ATOMIC_SEQ_CST);
}

unsigned long id_of(pthread_t thread)
{
    return static_cast<unsigned long>(thread);
}

void register_thread(tarn_thread *t)
{
    const tarn::lock_guard lock(registry.lock);
    t->next = registry.head;
    registry.head = t;
    tarn::process.thread_count.fetch_add(1, std::memory_order_relaxed);
}

/** Take t out of the registry; t is looked into only when it is there. */
bool unregister(const tarn_thread *t) TARN_REQUIRES(registry.lock)
{
    for (tarn_thread **link = &registry.head; *link != nullptr; link = &(*link)->next)
    {
        if (*link == t)
        {
            *link = t->next;
            // Release: who sees the count drop also sees what the thread did.
            tarn::process.thread_count.fetch_sub(1, std::memory_order_release);
            return true;
        }
    }
    return false;
}

void free_object(tarn_thread *t)
{
    tarn_event_destroy(t->start_event);
    tarn_event_destroy(t->stop_event);
    (void)pthread_mutex_destroy(&t->gate);
    tarn_mem_free(t);
}

/** Release the object of the calling thread, which nobody joins. */
void thread_cancel_routine(tarn_thread *t)
{
    char name[name_size];
    std::memcpy(name, t->thread_name, sizeof name);
    TARN_LOG_TRACE("thread_name = %s", name);
    self = nullptr;
    bool detach = false;
    {
        const tarn::lock_guard lock(registry.lock);
        (void)unregister(t);
        detach = !t->one_shot && t->thread != 0;
        t->thread = 0;
    }
    if (detach)
    {
        (void)pthread_detach(pthread_self());
    }
    free_object(t);
    TARN_LOG_TRACE("thread_name = %s, t = %p", name, static_cast<void *>(t));
}

/** Settle who frees the object at the end of the calling thread.
 *  @return true when that is the thread itself */
bool end_as_owner(tarn_thread *t)
{
    const tarn::lock_guard lock(registry.lock);
    t->ended = true;
    if (t->joining && !t->handed_over)
    {
        return false;
    }
    (void)unregister(t); // from here on no stopper finds it
    return true;
}

/** Ends a loop thread that is unwound: cancelled, or its proc left through pthread_exit(). */
class [[nodiscard]] unwind_guard
{
public:
    explicit unwind_guard(tarn_thread *t) noexcept : t_(t) {}
    unwind_guard(const unwind_guard &) = delete;
    unwind_guard &operator=(const unwind_guard &) = delete;
    ~unwind_guard()
    {
        if (t_ != nullptr)
        {
            const tarn::cancel_guard no_cancel;
            self = nullptr;
            if (end_as_owner(t_))
            {
                thread_cancel_routine(t_);
            }
        }
    }
    void dismiss() noexcept
    {
        t_ = nullptr;
    }

private:
    tarn_thread *t_;
};

void run_loop(tarn_thread *t)
{
    while (!tarn::event_is_set(t->stop_event))
    {
        const uint32_t start = tarn_tick_ms();
        __atomic_store_n(&t->loop_start, start, __ATOMIC_SEQ_CST);
        t->proc(t->arg1, t->arg2);
        // Read once, so that a change between a test and the wait cannot make the wait negative.
        const uint32_t cycle = load_cycle(t);
        if (t->one_shot || cycle == TARN_THREAD_ONCE)
        {
            return;
        }
        if (cycle == 0)
        {
            continue;
        }
        const uint32_t elapsed = tarn_tick_ms_since(start);
        // After an overrun the shortest pause, on the stop event too, which a stop cuts short.
        (void)tarn_event_wait(t->stop_event, elapsed < cycle ? cycle - elapsed : 1);
    }
}

void *thread_loop(void *object)
{
    auto *const t = static_cast<tarn_thread *>(object);
    (void)pthread_mutex_lock(&t->gate);
    (void)pthread_mutex_unlock(&t->gate);

    char name[name_size];
    std::memcpy(name, t->thread_name, sizeof name);
    const pthread_t id = pthread_self();
    const int tid = gettid();
    void *const address = reinterpret_cast<void *>(id);
    TARN_LOG_TRACE("enter proc = %s, thread_object = %p, thread_addr = %p, tid = %d", name, object,
                   address, tid);
    unwind_guard guard(t);
    (void)tarn_event_set(t->start_event);
    self = t;
    run_loop(t);
    TARN_LOG_TRACE("proc = %s, addr = %p, tid = %d, loop_cycle = %u before pthread_cleanup_pop",
                   name, address, tid, load_cycle(t));
    // No cancellation from here on: the object may be gone before the thread is.
    const tarn::cancel_guard no_cancel;
    guard.dismiss();
    self = nullptr;
    if (end_as_owner(t))
    {
        thread_cancel_routine(t);
    }
    TARN_LOG_TRACE("leave proc = %s, addr = %p, tid = %d", name, address, tid);
    return nullptr;
}

/** Restrict a new thread to one processor, in turn over all of them. */
void thread_set_affinity(pthread_t thread)
{
    const uint32_t processors = registry.processors.load(std::memory_order_relaxed);
    if (processors < 2)
    {
        return;
    }
    const uint32_t turn = registry.pin_counter.fetch_add(1, std::memory_order_relaxed) + 1;
    const uint32_t processor = turn % processors;
    if (processor >= CPU_SETSIZE)
    {
        return;
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    // The call returns an error number, never -1: an absent processor passes unnoticed.
    const int rc = pthread_setaffinity_np(thread, sizeof set, &set);
    if (rc == -1)
    {
        TARN_LOG_ERROR("thread %lu create failed!,set affinity = %d failed", id_of(thread), rc);
    }
}

/** Owns thread attributes. */
class [[nodiscard]] thread_attributes
{
public:
    thread_attributes()
    {
        (void)pthread_attr_init(&attributes_);
    }
    thread_attributes(const thread_attributes &) = delete;
    thread_attributes &operator=(const thread_attributes &) = delete;
    ~thread_attributes()
    {
        (void)pthread_attr_destroy(&attributes_);
    }
    pthread_attr_t *get() noexcept
    {
        return &attributes_;
    }
    void set_stack_size(uint32_t wanted)
    {
        const uint32_t size = wanted == 0 ? default_stack_size : std::max(wanted, min_stack_size);
        (void)pthread_attr_setstacksize(&attributes_, size);
    }
    size_t stack_size()
    {
        size_t size = 0;
        (void)pthread_attr_getstacksize(&attributes_, &size);
        return size;
    }

private:
    pthread_attr_t attributes_;
};

using object_owner = tarn::unique_handle<tarn_thread *, free_object>;

object_owner make_thread_object(tarn_thread_proc proc, void *arg1, void *arg2, uint32_t loop_cycle,
                                const char *name)
{
    object_owner owner(tarn::make_object<tarn_thread>(TARN_HANDLE_TYPE_THREAD).release());
    tarn_thread *const t = owner.get();
    if (t == nullptr)
    {
        return owner;
    }
    (void)pthread_mutex_init(&t->gate, nullptr);
    t->proc = proc;
    t->loop_cycle = loop_cycle;
    t->arg1 = arg1;
    t->arg2 = arg2;
    t->one_shot = loop_cycle == TARN_THREAD_ONCE;
    tarn::text_writer(t->thread_name, sizeof t->thread_name).append(name);
    t->start_event = tarn_event_create(true, false);
    t->stop_event = tarn_event_create(true, false);
    if (t->start_event == TARN_INVALID_HANDLE || t->stop_event == TARN_INVALID_HANDLE)
    {
        return object_owner();
    }
    return owner;
}

struct started_thread
{
    TARN_THREAD handle; ///< may be gone already for a one-shot thread
    pthread_t id;
};

/** Create the system thread behind the gate.
 *  @return 0, or an error number; the object then has no thread */
int launch(tarn_thread *t, pthread_attr_t *attributes, pthread_t *id)
{
    (void)pthread_mutex_lock(&t->gate);
    const int rc = pthread_create(id, attributes, thread_loop, t);
    if (rc == 0)
    {
        t->thread = *id;
        thread_set_affinity(*id);
        if (t->one_shot)
        {
            (void)pthread_detach(*id);
        }
        register_thread(t);
    }
    (void)pthread_mutex_unlock(&t->gate);
    return rc;
}

started_thread start_thread(tarn_thread_proc proc, void *arg1, void *arg2, uint32_t loop_cycle,
                            uint32_t stack_size, const char *thread_name)
{
    constexpr started_thread none = {TARN_INVALID_HANDLE, 0};
    const char *const name = thread_name != nullptr ? thread_name : "";
    TARN_LOG_DEBUG("thread_name = [%s], loop_cycle = [%u], stack_size = [%u]", name, loop_cycle,
                   stack_size);
    RVON(proc, none);
    object_owner t = make_thread_object(proc, arg1, arg2, loop_cycle, name);
    RVON_TEXT(t, none, "RVON(t,TARN_INVALID_HANDLE)");
    thread_attributes attributes;
    attributes.set_stack_size(stack_size);
    TARN_LOG_DEBUG("thread_name = [%s], stacksize = [%u]", name,
                   static_cast<unsigned>(attributes.stack_size()));
    pthread_t id = 0;
    if (const int error = launch(t.get(), attributes.get(), &id); error != 0)
    {
        TARN_LOG_ERROR("thread %s create failed!, error = %d (%s)", name, error,
                       tarn::error_text(error).c_str());
        return none;
    }
    TARN_LOG_DEBUG("[%s] handle = %p", name, reinterpret_cast<void *>(id));
    return {t.release(), id};
}

void *call_once_proc(void *fn, void *arg)
{
    reinterpret_cast<void (*)(void *)>(fn)(arg);
    return nullptr;
}

/** What a stop found and decided, in one step under the registry lock. */
struct stop_ticket
{
    enum class action
    {
        none,  ///< not registered, or a one-shot thread: ends by itself
        join,  ///< the caller joins and frees
        detach ///< the caller is the thread itself
    } action;
    bool deadlock; ///< the thread waits, directly or over others, for the caller's end
    pthread_t thread;
    uint32_t loop_cycle;
    char name[name_size];
};

/** True when joining t would close a circle. pthread_join() itself misses circles of two threads
 *  that enter it at the same time, and all longer ones. */
bool waits_for_caller(const tarn_thread *t) TARN_REQUIRES(registry.lock)
{
    for (; t != nullptr && self != nullptr; t = t->waits_for)
    {
        if (t == self)
        {
            return true;
        }
    }
    return false;
}

stop_ticket take_for_stop(TARN_THREAD t)
{
    stop_ticket ticket{};
    const tarn::lock_guard lock(registry.lock);
    if (!unregister(t))
    {
        return ticket;
    }
    ticket.thread = t->thread;
    ticket.loop_cycle = load_cycle(t);
    std::memcpy(ticket.name, t->thread_name, sizeof ticket.name);
    if (t->one_shot)
    {
        ticket.action = stop_ticket::action::none;
    }
    else if (pthread_equal(t->thread, pthread_self()) != 0)
    {
        ticket.action = stop_ticket::action::detach;
        t->thread = 0; // the loop frees the object after the current call
    }
    else
    {
        ticket.action = stop_ticket::action::join;
        ticket.deadlock = waits_for_caller(t);
        t->joining = true;
        if (self != nullptr && !ticket.deadlock)
        {
            self->waits_for = t;
        }
    }
    return ticket;
}

/** The join failed: leave the object to its thread, if that still runs.
 *  @return true when the thread has ended and the object is the caller's after all */
bool hand_over(TARN_THREAD t, pthread_t thread, bool cancel)
{
    const tarn::lock_guard lock(registry.lock);
    if (t->ended)
    {
        return true;
    }
    t->handed_over = true;
    if (cancel)
    {
        (void)pthread_cancel(thread); // it cannot have ended: that would take the registry lock
    }
    return false;
}

/** Join a thread; not to be cancelled in it, or nobody would free the object.
 *  @return 0, or an error number: the thread may still run */
int join(pthread_t thread)
{
    const tarn::cancel_guard no_cancel;
    const int error = pthread_join(thread, nullptr);
    if (self != nullptr)
    {
        const tarn::lock_guard lock(registry.lock);
        self->waits_for = nullptr;
    }
    return error;
}

void join_and_free(TARN_THREAD t, const stop_ticket &ticket)
{
    const int error = ticket.deadlock ? EDEADLK : join(ticket.thread);
    if (error != 0)
    {
        TARN_LOG_WARN("pthread_join failed, errno = [%d](%s)", error,
                      tarn::error_text(error).c_str());
        if (!hand_over(t, ticket.thread, error != ESRCH))
        {
            return;
        }
        (void)pthread_detach(ticket.thread);
    }
    free_object(t);
}

} // namespace

TARN_THREAD tarn_thread_start_ex(tarn_thread_proc proc, void *arg1, void *arg2, uint32_t loop_cycle,
                                 uint32_t stack_size, const char *thread_name)
{
    return start_thread(proc, arg1, arg2, loop_cycle, stack_size, thread_name).handle;
}

TARN_THREAD tarn_thread_start(tarn_thread_proc proc, void *arg1, void *arg2, uint32_t loop_cycle,
                              const char *thread_name)
{
    return tarn_thread_start_ex(proc, arg1, arg2, loop_cycle, 0, thread_name);
}

uint64_t tarn_thread_run_once(void (*fn)(void *arg), void *arg)
{
    RVON(fn, 0);
    return start_thread(call_once_proc, reinterpret_cast<void *>(fn), arg, TARN_THREAD_ONCE, 0,
                        "oneshot_proc")
        .id;
}

void tarn_thread_stop(TARN_THREAD t)
{
    RON(t);
    const stop_ticket ticket = take_for_stop(t);
    TARN_LOG_TRACE("t = %p, thread_name = %s, loop_cycle = %u, thread = %p", static_cast<void *>(t),
                   ticket.name, ticket.loop_cycle, reinterpret_cast<void *>(ticket.thread));
    if (ticket.action != stop_ticket::action::none)
    {
        // The object cannot go meanwhile: either this is its thread or this call frees it.
        TARN_LOG_TRACE("set thread stop event");
        (void)tarn_event_set(t->stop_event);
    }
    if (ticket.action == stop_ticket::action::join)
    {
        TARN_LOG_TRACE("try join thread");
        join_and_free(t, ticket);
    }
    else if (ticket.action == stop_ticket::action::detach)
    {
        TARN_LOG_TRACE("detach thread");
        (void)pthread_detach(ticket.thread);
    }
    TARN_LOG_TRACE("finished");
}

bool tarn_thread_wait_for_start(TARN_THREAD t, uint32_t ms)
{
    RVON(t, false);
    return tarn_event_wait(t->start_event, ms);
}

uint32_t tarn_thread_get_loop_cycle(TARN_THREAD t)
{
    RVON(t, 0);
    return load_cycle(t);
}

void tarn_thread_change_loop_cycle(TARN_THREAD t, uint32_t ms)
{
    RON(t);
    store_cycle(t, ms);
}

void tarn_thread_set_loop_cycle(uint32_t ms)
{
    if (self == nullptr)
    {
        return;
    }
    TARN_LOG_DEBUG("loop_cycle = %d", static_cast<int>(ms));
    store_cycle(self, ms);
}

uint32_t tarn_thread_self_loop_cycle(void)
{
    return self != nullptr ? load_cycle(self) : 0;
}

const char *tarn_thread_self_name(void)
{
    return self != nullptr ? self->thread_name : nullptr;
}

uint32_t tarn_thread_id(TARN_THREAD t)
{
    RVON(t, 0);
    const tarn::lock_guard lock(registry.lock);
    return static_cast<uint32_t>(t->thread);
}

uint32_t tarn_thread_self_id(void)
{
    return static_cast<uint32_t>(pthread_self());
}

uint32_t tarn_thread_loop_start_tick(TARN_THREAD t)
{
    RVON(t, 0);
    return __atomic_load_n(&t->loop_start, __ATOMIC_RELAXED);
}

bool tarn_thread_sleep(uint32_t ms)
{
    if (self != nullptr)
    {
        return tarn_event_wait(self->stop_event, ms);
    }
    if (pthread_equal(registry.main_thread.load(std::memory_order_relaxed), pthread_self()) != 0)
    {
        // Before start-up and after teardown there is no event to wait for.
        TARN_EVENT exit_event = tarn::exit_event();
        return exit_event != TARN_INVALID_HANDLE && tarn_event_wait(exit_event, ms);
    }
    return false;
}

bool tarn_thread_cancel(uint64_t id)
{
    const tarn::lock_guard lock(registry.lock);
    for (const tarn_thread *t = registry.head; t != nullptr; t = t->next)
    {
        if (t->thread != 0 && (t->thread == id || static_cast<uint32_t>(t->thread) == id))
        {
            return pthread_cancel(t->thread) == 0;
        }
    }
    return false;
}

void tarn_thread_set_priority(TARN_THREAD t, int priority)
{
    int policy = SCHED_OTHER;
    int scheduling_priority = 0;
    switch (priority)
    {
    case 0:
        policy = SCHED_FIFO;
        scheduling_priority = sched_get_priority_max(policy);
        break;
    case 1:
        policy = SCHED_RR;
        scheduling_priority = sched_get_priority_max(policy) - 20;
        break;
    case 2:
    case 3:
        scheduling_priority = (sched_get_priority_max(policy) - sched_get_priority_min(policy)) / 2;
        break;
    case 4:
        policy = SCHED_IDLE;
        scheduling_priority = sched_get_priority_min(policy);
        break;
    default:
        return;
    }
    sched_param parameters{};
    parameters.sched_priority = scheduling_priority;
    int rc = 0;
    {
        const tarn::lock_guard lock(registry.lock);
        const pthread_t thread = t != nullptr ? t->thread : pthread_self();
        rc = thread == 0 ? ESRCH : pthread_setschedparam(thread, policy, &parameters);
    }
    if (rc != 0)
    {
        TARN_LOG_ERROR("!!!!!!!!!!!! pthread_setschedparam failed !!!!!!!!!!!!");
    }
}

uint32_t tarn_thread_count(void)
{
    const uint32_t count = tarn::process.thread_count.load(std::memory_order_acquire);
    if (!TARN_LOG_ENABLED(TARN_LOG_LEVEL_DEBUG) || count == 0)
    {
        return count;
    }
    using name_text = char[name_size];
    const auto names = tarn::unique_mem<name_text>::make_array(count);
    uint32_t copied = 0;
    if (names)
    {
        const tarn::lock_guard lock(registry.lock);
        for (const tarn_thread *t = registry.head; t != nullptr && copied < count; t = t->next)
        {
            std::memcpy(names.get()[copied++], t->thread_name, name_size);
        }
    }
    for (uint32_t i = 0; i < copied; ++i)
    {
        TARN_LOG_DEBUG("thread name = %s", names.get()[i]);
    }
    return count;
}

bool tarn_tls_key_create(tarn_tls_key *key, void (*destructor)(void *value))
{
    RVON(key, false);
    static_assert(sizeof(pthread_key_t) == sizeof(tarn_tls_key));
    return pthread_key_create(key, destructor) == 0;
}

void *tarn_tls_get(tarn_tls_key key)
{
    return pthread_getspecific(key);
}

bool tarn_tls_set(tarn_tls_key key, const void *value)
{
    return pthread_setspecific(key, value) == 0;
}

bool tarn_thread_init(void)
{
    const long processors = sysconf(_SC_NPROCESSORS_CONF);
    registry.processors.store(processors < 1 ? 1 : static_cast<uint32_t>(processors),
                              std::memory_order_relaxed);
    registry.main_thread.store(pthread_self(), std::memory_order_relaxed);
    return true;
}

// The registry stays: threads that were not stopped still leave it when they end.
void tarn_thread_uninit(void) {}
