// Thread pool: workers on demand, an idle stack, one job at a time per worker.
//
// Hand-over of a job: the launcher takes an idle worker off the stack (or makes one), waits until
// it is inside its wait for a launch (evt_ready), stores the job and posts sem_launch once. From
// the take to the post the worker is the launcher's, from the post to its return to the stack its
// own. A stored job is cleared by running it and by nothing else.
//
// Who frees the pool: it counts its users, which are the handle, every launch under way and, from
// the post on, the job that the launch has become. Destroy closes the pool, ends the idle workers
// and drops the handle's share. A worker that comes back from a job to a closed pool ends itself;
// the last user frees the pool.
//
// Waiting launches count themselves under the lock before they wait on evt_free, which a worker
// that returns sets for one of them. That event remembers one return only, so whoever leaves the
// wait passes it on while there is more to take.
//
// crit_sect is a leaf: nothing is allocated, logged, waited for or joined under it.

#include "tarn_thread_pool.h"

#include "tarn_check.h"
#include "tarn_critical_section.h"
#include "tarn_event.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_semaphore.h"
#include "tarn_sys.h"

#include <algorithm>

namespace
{

constexpr uint32_t default_timeout_ms = 5000;
/** Between tries to make a worker while memory is short. */
constexpr uint32_t retry_ms = 10;

/** Belongs to the pool while it is on the idle stack, to one launch or job otherwise. */
struct work_thread
{
    TARN_THREAD handle; ///< null until its first job, and again after a job that ended the thread
    TARN_SEMAPHORE sem_launch; ///< one post launches one job
    TARN_EVENT evt_ready;      ///< set while the worker waits for a launch
    uint8_t exit;              ///< the worker is to end; shared, atomic access only
    tarn_thread_proc proc;
    void *arg1;
    void *arg2;
    work_thread *next;
};

} // namespace

struct tarn_thread_pool
{
    tarn_handle_header header;
    work_thread *thread_list;        ///< idle workers, the last freed first; under crit_sect
    uint32_t max_thread_count;       ///< fixed
    uint32_t thread_count;           ///< workers made so far; under crit_sect
    TARN_CRITICAL_SECTION crit_sect; ///< guards this record where marked
    TARN_EVENT evt_free;             ///< automatic reset: wakes one waiting launch
    uint32_t waiters;                ///< launches that wait for a worker; under crit_sect
    uint32_t users;                  ///< see above; shared, atomic access only
    bool closed;                     ///< destroyed, but still in use; under crit_sect
};
TARN_ASSERT_RECORD(tarn_thread_pool);

namespace
{

void *work_thread_proc(void *pool, void *worker);

// ---- workers -------------------------------------------------------------------------------------

void ask_to_end(work_thread *w)
{
    if (__atomic_exchange_n(&w->exit, uint8_t{1}, __ATOMIC_SEQ_CST) == 0)
    {
        tarn_semaphore_post(w->sem_launch, 1, nullptr);
    }
}

/** Free a worker that nobody else can reach any more. Called by its own thread it returns at once
 *  and the thread ends after the current call; else it joins the thread. */
void work_thread_destory(work_thread *w)
{
    if (w->handle != nullptr)
    {
        ask_to_end(w);
        tarn_thread_stop(w->handle);
    }
    tarn_semaphore_destroy(w->sem_launch);
    tarn_event_destroy(w->evt_ready);
    tarn_mem_free(w);
}

using worker_owner = tarn::unique_handle<work_thread *, work_thread_destory>;

/** A worker without a thread; null when memory ran out. */
work_thread *work_thread_create()
{
    worker_owner w(tarn::unique_mem<work_thread>::make().release());
    RVON(w, nullptr);
    w.get()->sem_launch = tarn_semaphore_create(nullptr, 0);
    RVON(w.get()->sem_launch, nullptr);
    w.get()->evt_ready = tarn_event_create(true, false);
    RVON(w.get()->evt_ready, nullptr);
    return w.release();
}

// ---- users of the pool ---------------------------------------------------------------------------

void drop_user(TARN_THREAD_POOL tp)
{
    // Acquire and release: the last user sees all that the others did.
    if (__atomic_sub_fetch(&tp->users, 1, __ATOMIC_ACQ_REL) == 0)
    {
        tarn_critical_section_destroy(tp->crit_sect);
        tarn_event_destroy(tp->evt_free);
        tarn_mem_free(tp);
    }
}

/** One more user for its scope, unless released to the job. */
class [[nodiscard]] pool_user
{
public:
    explicit pool_user(TARN_THREAD_POOL tp) : tp_(tp)
    {
        (void)__atomic_add_fetch(&tp->users, 1, __ATOMIC_RELAXED); // the caller holds a share
    }
    pool_user(const pool_user &) = delete;
    pool_user &operator=(const pool_user &) = delete;
    ~pool_user()
    {
        if (tp_ != nullptr)
        {
            drop_user(tp_);
        }
    }
    void release() noexcept
    {
        tp_ = nullptr;
    }

private:
    TARN_THREAD_POOL tp_;
};

// ---- taking a worker -----------------------------------------------------------------------------

/** A launch that waits, counted from its first vain try to the end of the scope. */
class [[nodiscard]] waiter
{
public:
    explicit waiter(TARN_THREAD_POOL tp) : tp_(tp) {}
    waiter(const waiter &) = delete;
    waiter &operator=(const waiter &) = delete;
    ~waiter()
    {
        if (counted_ && leave())
        {
            (void)tarn_event_set(tp_->evt_free);
        }
    }
    /** Call it under the lock under which nothing was found. */
    void enter() noexcept
    {
        tp_->waiters += counted_ ? 0 : 1;
        counted_ = true;
    }

private:
    /** @return true when others wait and have something to wake for */
    bool leave()
    {
        const tarn::critical_section_guard lock(tp_->crit_sect);
        --tp_->waiters;
        return tp_->waiters != 0 && (tp_->thread_list != nullptr || tp_->closed ||
                                     tp_->thread_count < tp_->max_thread_count);
    }

    TARN_THREAD_POOL tp_;
    bool counted_ = false;
};

enum class attempt_result
{
    taken,     ///< there is a worker
    busy,      ///< all workers run jobs
    room,      ///< the place of one more is reserved, which is still to be made
    no_memory, ///< it could not be made, its place is given back
    closed     ///< the pool was destroyed
};

struct attempt
{
    attempt_result result;
    work_thread *thread;
};

/** Take the top of the idle stack, or reserve the place of a worker to be made.
 *  @param before,after  the stack's top, for the log */
attempt pop_or_reserve(TARN_THREAD_POOL tp, waiter &self, const void **before, const void **after)
{
    attempt a{attempt_result::busy, nullptr};
    const tarn::critical_section_guard lock(tp->crit_sect);
    *before = tp->thread_list;
    if (tp->closed)
    {
        a.result = attempt_result::closed;
    }
    else if (tp->thread_list != nullptr)
    {
        a = {attempt_result::taken, tp->thread_list};
        tp->thread_list = a.thread->next;
    }
    else if (tp->thread_count < tp->max_thread_count)
    {
        ++tp->thread_count;
        a.result = attempt_result::room;
    }
    else
    {
        self.enter();
    }
    *after = tp->thread_list;
    return a;
}

/** Make the worker whose place is reserved, or give the place back. */
attempt make_reserved(TARN_THREAD_POOL tp, waiter &self)
{
    if (work_thread *const made = work_thread_create(); made != nullptr)
    {
        return {attempt_result::taken, made};
    }
    const tarn::critical_section_guard lock(tp->crit_sect);
    --tp->thread_count;
    self.enter();
    return {attempt_result::no_memory, nullptr};
}

attempt try_take(TARN_THREAD_POOL tp, waiter &self)
{
    const void *before = nullptr;
    const void *after = nullptr;
    attempt a = pop_or_reserve(tp, self, &before, &after);
    if (a.result == attempt_result::room)
    {
        a = make_reserved(tp, self);
    }
    TARN_LOG_DEBUG("[0] thread = %p, thread_list = %p", static_cast<void *>(nullptr), before);
    TARN_LOG_DEBUG("[1] thread = %p, thread_list = %p", static_cast<void *>(a.thread), after);
    return a;
}

/** Milliseconds until more than timeout_ms will have passed. */
uint32_t time_left(uint32_t timeout_ms, uint32_t elapsed_ms)
{
    return timeout_ms == TARN_INFINITE ? TARN_INFINITE
                                       : std::min(timeout_ms - elapsed_ms + 1, TARN_INFINITE - 1);
}

/** @return the worker, which is the caller's; null when there was none in time */
work_thread *take_worker(TARN_THREAD_POOL tp, uint32_t timeout_ms)
{
    const uint32_t start = tarn_tick_ms();
    waiter self(tp);
    for (;;)
    {
        const attempt a = try_take(tp, self);
        if (a.result == attempt_result::taken || a.result == attempt_result::closed)
        {
            return a.thread;
        }
        const uint32_t elapsed = tarn_tick_ms_since(start);
        if (timeout_ms == 0 || (timeout_ms != TARN_INFINITE && elapsed > timeout_ms))
        {
            return nullptr;
        }
        const uint32_t left = time_left(timeout_ms, elapsed);
        (void)tarn_event_wait(
            tp->evt_free, a.result == attempt_result::no_memory ? std::min(left, retry_ms) : left);
    }
}

/** Start the thread of a worker that has none.
 *  @return false when it cannot be started: the worker is of no use then */
bool start_worker(TARN_THREAD_POOL tp, work_thread *thread)
{
    thread->handle = tarn_thread_start(work_thread_proc, tp, thread, 0, "thread_pool_thread");
    RVOF_TEXT(thread->handle != nullptr, false, "RVOF(thread->handle != ((void*)0),false)");
    RVOF_TEXT(tarn_thread_wait_for_start(thread->handle, TARN_INFINITE), false,
              "RVOF(tarn_thread_wait_for_start( thread->handle, ((uint32_t)-1) ),false)");
    return true;
}

// ---- the worker's thread -------------------------------------------------------------------------

/** The job is over: back to the idle stack, or to the end when the pool is closed. Only the user's
 *  share keeps the pool after the worker is on the stack. */
void give_back(TARN_THREAD_POOL tp, work_thread *w)
{
    bool closed = false;
    bool wake = false;
    {
        const tarn::critical_section_guard lock(tp->crit_sect);
        closed = tp->closed;
        if (!closed)
        {
            w->next = tp->thread_list;
            tp->thread_list = w;
            wake = tp->waiters != 0;
        }
    }
    if (closed)
    {
        work_thread_destory(w);
    }
    else if (wake)
    {
        (void)tarn_event_set(tp->evt_free);
    }
    drop_user(tp);
}

void run_job(TARN_THREAD_POOL tp, work_thread *w, const char *name)
{
    const tarn_thread_proc proc = std::exchange(w->proc, nullptr);
    if (proc == nullptr)
    {
        return;
    }
    // Unwound: the job was cancelled or left through pthread_exit(), and with it the thread.
    tarn::scope_exit thread_is_gone([tp, w] {
        w->handle = nullptr;
        give_back(tp, w);
    });
    TARN_LOG_DEBUG("[%s] before proc", name);
    (void)proc(w->arg1, w->arg2);
    TARN_LOG_DEBUG("[%s] after proc", name);
    thread_is_gone.dismiss();
    give_back(tp, w);
}

/** @return true when the worker is to end */
bool told_to_end(work_thread *w, const char *name)
{
    if (__atomic_load_n(&w->exit, __ATOMIC_SEQ_CST) == 0)
    {
        return false;
    }
    TARN_LOG_DEBUG("[%s] exit", name);
    // Called again until the thread's stop is requested, which follows at once.
    const tarn::cancel_guard no_cancel;
    tarn_sleep_ms(1);
    return true;
}

/** Not to be cancelled: the worker may be idle, with its next job on the way. */
bool wait_for_launch(work_thread *w)
{
    const tarn::cancel_guard no_cancel;
    return tarn_semaphore_wait(w->sem_launch, TARN_INFINITE);
}

void *work_thread_proc(void *pool, void *worker)
{
    auto *const tp = static_cast<TARN_THREAD_POOL>(pool);
    auto *const w = static_cast<work_thread *>(worker);
    const char *const name = tarn_thread_self_name();
    TARN_LOG_DEBUG("[%s] enter", name);
    if (told_to_end(w, name))
    {
        return nullptr;
    }
    TARN_LOG_DEBUG("[%s] set ready event", name);
    (void)tarn_event_set(w->evt_ready);
    if (!wait_for_launch(w))
    {
        // The job may be stored by now: it stays, and the next wait finds its post.
        (void)tarn_event_reset(w->evt_ready);
        TARN_LOG_DEBUG("[%s] return on wait fail.", name);
        return nullptr;
    }
    TARN_LOG_DEBUG("[%s] reset ready event", name);
    (void)tarn_event_reset(w->evt_ready);
    if (told_to_end(w, name))
    {
        return nullptr;
    }
    run_job(tp, w, name);
    TARN_LOG_DEBUG("[%s] finish", name);
    return nullptr;
}

} // namespace

TARN_THREAD_POOL tarn_thread_pool_create(uint32_t max_thread_count)
{
    RVOF(max_thread_count > 0, TARN_INVALID_HANDLE);
    using section_owner = tarn::unique_handle<TARN_CRITICAL_SECTION, tarn_critical_section_destroy>;
    auto tp = tarn::make_object<tarn_thread_pool>(TARN_HANDLE_TYPE_THREAD_POOL);
    RVON(tp, TARN_INVALID_HANDLE);
    section_owner crit_sect(tarn_critical_section_create());
    RVON(crit_sect, TARN_INVALID_HANDLE);
    tp->evt_free = tarn_event_create(false, false);
    RVON(tp->evt_free, TARN_INVALID_HANDLE);
    tp->crit_sect = crit_sect.release();
    tp->max_thread_count = max_thread_count;
    tp->users = 1;
    return tp.release();
}

bool tarn_thread_pool_start_thread_ex(TARN_THREAD_POOL tp, uint32_t timeout_ms,
                                      tarn_thread_proc proc, void *arg1, void *arg2)
{
    RVON(tp, false);
    RVON(proc, false);
    pool_user user(tp);
    worker_owner thread(take_worker(tp, timeout_ms));
    RVON(thread, false);
    // A launcher cancelled from here on would take the worker with it.
    const tarn::cancel_guard no_cancel;
    work_thread *const w = thread.get();
    if (w->handle == nullptr && !start_worker(tp, w))
    {
        return false;
    }
    (void)tarn_event_wait(w->evt_ready, TARN_INFINITE);
    w->proc = proc;
    w->arg1 = arg1;
    w->arg2 = arg2;
    user.release();
    tarn_semaphore_post(thread.release()->sem_launch, 1, nullptr);
    return true;
}

bool tarn_thread_pool_start_thread(TARN_THREAD_POOL tp, tarn_thread_proc proc, void *arg1,
                                   void *arg2)
{
    return tarn_thread_pool_start_thread_ex(tp, default_timeout_ms, proc, arg1, arg2);
}

void tarn_thread_pool_destroy(TARN_THREAD_POOL tp)
{
    if (tp == nullptr)
    {
        return;
    }
    work_thread *idle = nullptr;
    bool wake = false;
    {
        const tarn::critical_section_guard lock(tp->crit_sect);
        tp->closed = true;
        idle = std::exchange(tp->thread_list, nullptr);
        wake = tp->waiters != 0;
    }
    if (wake)
    {
        (void)tarn_event_set(tp->evt_free);
    }
    // All are told before the first is joined, so that they end side by side.
    for (work_thread *w = idle; w != nullptr; w = w->next)
    {
        if (w->handle != nullptr)
        {
            ask_to_end(w);
        }
    }
    while (idle != nullptr)
    {
        work_thread_destory(std::exchange(idle, idle->next));
    }
    drop_user(tp);
}

bool tarn_thread_pool_init(void)
{
    return true;
}

void tarn_thread_pool_uninit(void) {}
