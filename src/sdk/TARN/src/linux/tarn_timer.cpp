// Timers: a timerfd, and a loop thread that reads it when there is a callback.
//
// Stopping. `running` says whether the timer is to tick. A timer's thread blocks in read(), which
// is what brings the ticks in soonest: a stop from outside lets the descriptor expire at once, the
// thread then finds the timer stopped and ends. Callers of tarn_timer_wait() poll the descriptor
// together with stop_fd, the shadow of `running` for poll(): readable while the timer is stopped.
// A start from outside is marked in `changing`, which keeps a second one away; a start or stop from
// inside the callback only flips `running` and the descriptor, and the thread goes on or ends when
// the callback has returned. So there is never more than one thread per timer.
//
// Who frees the timer. It counts its users: the handle, each call under way that may outlast the
// handle, and the thread. The thread's share goes with `thread`, the thread's handle: whoever takes
// that out of the record gives the share back: a stopper after the join, or the thread when it ends
// by itself. When the join was refused (timers that stop one another in a circle) the thread is
// still in its procedure: it is marked as an orphan then and gives its share back itself.
//
// crit_sect guards the marked fields and orders the settings of the descriptor with `running`. It
// is a leaf: no callback, log line, wait or join under it.

#include "tarn_timer.h"

#include "tarn_critical_section.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_sys.h"
#include "tarn_thread.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace
{

/** Sums and products of nanoseconds: two of 64 bits always fit. */
__extension__ using wide_ns = unsigned __int128;

constexpr uint64_t ns_per_s = 1000000000;
constexpr uint64_t wait_slice_ns = 60 * ns_per_s;

} // namespace

struct tarn_timer
{
    tarn_handle_header header;
    int32_t fd;         ///< the timer descriptor; reads block when there is a callback
    uint32_t monotonic; ///< 0 or 1, which is also the clock's id
    tarn_timer_callback callback;
    void *arg1;
    void *arg2;
    uint64_t interval_ns; ///< under crit_sect, as all up to `thread`
    uint64_t offset_ns;
    uint64_t due_sec; ///< of the next expiry; a monotonic timer only counts intervals here
    uint64_t due_nsec;
    TARN_THREAD thread;              ///< null: no thread, or a stopper is joining it
    TARN_CRITICAL_SECTION crit_sect; ///< see above
    int32_t stop_fd;                 ///< without callback: readable while the timer is stopped
    uint32_t users;                  ///< see above; shared, atomic access only
    bool running;                    ///< under crit_sect, as all below
    bool changing;                   ///< a start or stop from outside is under way
    bool closed;                     ///< destroyed from inside its callback
    bool in_proc;                    ///< the thread is in its procedure
    bool orphaned;                   ///< the thread could not be joined
};
TARN_ASSERT_RECORD(tarn_timer);
static_assert(CLOCK_REALTIME == 0 && CLOCK_MONOTONIC == 1);

namespace
{

/** The timer whose callback the calling thread is in. */
constinit thread_local const tarn_timer *in_callback_of = nullptr;

// ---- users ---------------------------------------------------------------------------------------

void free_timer(TARN_TIMER t)
{
    tarn::close_fd(t->fd);
    tarn::close_fd(t->stop_fd);
    tarn_critical_section_destroy(t->crit_sect);
    tarn_mem_free(t);
}

void add_user(TARN_TIMER t)
{
    (void)__atomic_add_fetch(&t->users, 1, __ATOMIC_RELAXED); // the caller has a share
}

void drop_user(TARN_TIMER t)
{
    // Acquire and release: the last user sees all that the others did.
    if (__atomic_sub_fetch(&t->users, 1, __ATOMIC_ACQ_REL) == 0)
    {
        free_timer(t);
    }
}

/** One more user for its scope. */
class [[nodiscard]] timer_user
{
public:
    explicit timer_user(TARN_TIMER t) : t_(t)
    {
        add_user(t_);
    }
    timer_user(const timer_user &) = delete;
    timer_user &operator=(const timer_user &) = delete;
    ~timer_user()
    {
        drop_user(t_);
    }

private:
    TARN_TIMER t_;
};

using locked = tarn::critical_section_guard;

bool is_running(TARN_TIMER t)
{
    const locked lock(t->crit_sect);
    return t->running;
}

// ---- settings of the descriptor ------------------------------------------------------------------

timespec to_timespec(wide_ns ns)
{
    return {static_cast<time_t>(ns / ns_per_s), static_cast<long>(ns % ns_per_s)};
}

uint64_t to_ns(const timespec &time)
{
    return static_cast<uint64_t>(time.tv_sec) * ns_per_s + static_cast<uint64_t>(time.tv_nsec);
}

void advance_due(TARN_TIMER t, uint64_t intervals)
{
    const wide_ns ns = t->due_nsec + wide_ns{t->interval_ns} * intervals;
    t->due_sec += static_cast<uint64_t>(ns / ns_per_s);
    t->due_nsec = static_cast<uint64_t>(ns % ns_per_s);
}

/** First multiple of the interval after now, or within the coming second, plus the offset. */
wide_ns first_expiry(uint64_t now_ns, uint64_t interval_ns, uint64_t offset_ns)
{
    const wide_ns first = wide_ns{now_ns} + std::max(interval_ns, ns_per_s);
    return first / interval_ns * interval_ns + offset_ns;
}

/** Arm the descriptor of a running timer by its interval and offset; the lock is held.
 *  @param clock_failed  out: it was the clock
 *  @return 0, or an error number */
int arm(TARN_TIMER t, bool *clock_failed)
{
    itimerspec setting{};
    setting.it_interval = to_timespec(t->interval_ns);
    setting.it_value = setting.it_interval;
    int flags = 0;
    if (t->monotonic == 0)
    {
        timespec now{};
        *clock_failed = clock_gettime(CLOCK_REALTIME, &now) != 0;
        if (*clock_failed)
        {
            return errno;
        }
        const wide_ns first = first_expiry(to_ns(now), t->interval_ns, t->offset_ns);
        t->due_sec = static_cast<uint64_t>(first / ns_per_s);
        t->due_nsec = static_cast<uint64_t>(first % ns_per_s);
        setting.it_value = to_timespec(first);
        flags = TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET;
    }
    return timerfd_settime(t->fd, flags, &setting, nullptr) == 0 ? 0 : errno;
}

/** Arm the timer, unless it has been stopped meanwhile.
 *  @return 0, or TARN_ERRLN */
int set_timer(TARN_TIMER t)
{
    bool clock_failed = false;
    int error = 0;
    {
        const locked lock(t->crit_sect);
        error = t->running ? arm(t, &clock_failed) : 0;
    }
    if (clock_failed)
    {
        TARN_LOG_ERROR("clock_gettime failed, error = %d (%s)", error,
                       tarn::error_text(error).c_str());
        return TARN_ERRLN;
    }
    if (error != 0)
    {
        TARN_LOG_ERROR("timerfd_settime failed, error = %d (%s)", error,
                       tarn::error_text(error).c_str());
        return TARN_ERRLN;
    }
    return 0;
}

/** Mark the timer as running; the lock is held. */
void mark_running(TARN_TIMER t, uint64_t interval_ns, uint64_t offset_ns)
{
    t->interval_ns = interval_ns;
    t->offset_ns = offset_ns;
    t->running = true;
    eventfd_t stops = 0;
    if (t->stop_fd >= 0)
    {
        (void)eventfd_read(t->stop_fd, &stops); // never blocks
    }
}

/** Mark the timer as stopped; the lock is held. */
void mark_stopped(TARN_TIMER t)
{
    t->running = false;
    if (t->stop_fd >= 0)
    {
        (void)eventfd_write(t->stop_fd, 1);
    }
}

/** End the read that the timer's thread is in or comes to; the lock is held, the timer stopped. */
void wake_thread(TARN_TIMER t)
{
    itimerspec at_once{};
    at_once.it_value.tv_nsec = 1;
    (void)timerfd_settime(t->fd, 0, &at_once, nullptr);
}

/** Disarm a stopped timer; the lock is held.
 *  @return 0, or an error number */
int disarm_locked(TARN_TIMER t)
{
    const itimerspec never{};
    return t->running || timerfd_settime(t->fd, 0, &never, nullptr) == 0 ? 0 : errno;
}

/** Disarm a stopped timer, but not while its thread may wait for the expiry that ends it. */
void disarm(TARN_TIMER t)
{
    int error = 0;
    {
        const locked lock(t->crit_sect);
        const bool may_wait = t->in_proc && in_callback_of != t;
        error = may_wait ? 0 : disarm_locked(t);
    }
    if (error != 0)
    {
        TARN_LOG_ERROR("timerfd_settime failed, error = %d (%s)", error,
                       tarn::error_text(error).c_str());
    }
}

// ---- waiting and reading -------------------------------------------------------------------------

enum class wait_result
{
    readable, ///< an expiry, or the clock was set
    stopped,
    nothing, ///< not in time, or interrupted
    failed   ///< errno says why
};

wait_result wait_for_expiry(TARN_TIMER t, uint64_t ns)
{
    pollfd watched[] = {{t->fd, POLLIN, 0}, {t->stop_fd, POLLIN, 0}};
    const timespec limit = to_timespec(ns);
    if (ppoll(watched, std::size(watched), &limit, nullptr) == -1)
    {
        return errno == EINTR ? wait_result::nothing : wait_result::failed;
    }
    if (watched[1].revents != 0)
    {
        return wait_result::stopped;
    }
    return watched[0].revents != 0 ? wait_result::readable : wait_result::nothing;
}

void log_wait_error(int error)
{
    TARN_LOG_ERROR("select failed, error = %d (%s)", error, tarn::error_text(error).c_str());
}

struct expiry_count
{
    int result; ///< of the read
    int error;
    uint64_t count;
    [[nodiscard]] bool complete() const noexcept
    {
        return result == int{sizeof count};
    }
};

expiry_count read_expiries(TARN_TIMER t)
{
    expiry_count e{};
    e.result =
        static_cast<int>(tarn::retry_eintr([&] { return read(t->fd, &e.count, sizeof e.count); }));
    e.error = errno;
    return e;
}

void log_read_error(const expiry_count &e)
{
    TARN_LOG_ERROR("read return %d, error = %d (%s)", e.result, e.error,
                   tarn::error_text(e.error).c_str());
}

/** The system time was set under a wall-clock timer. */
void realign(TARN_TIMER t)
{
    TARN_LOG_WARN("system time changed, adjust timer");
    if (const int rc = set_timer(t); rc != 0)
    {
        TARN_LOG_ERROR("failed to set timer, rc = %d", rc);
    }
}

bool is_clock_change(TARN_TIMER t, const expiry_count &e)
{
    return e.result < 0 && e.error == ECANCELED && t->monotonic == 0;
}

/** @return the count, TARN_ERRLN, or 0 when another waiter has it */
int64_t take_expiries(TARN_TIMER t)
{
    const expiry_count e = read_expiries(t);
    if (e.complete())
    {
        return static_cast<int64_t>(std::min<uint64_t>(e.count, INT64_MAX));
    }
    if (e.result < 0 && e.error == EAGAIN)
    {
        return 0;
    }
    if (is_clock_change(t, e))
    {
        realign(t); // for the next wait; this one fails
    }
    log_read_error(e);
    return TARN_ERRLN;
}

// ---- the timer's thread --------------------------------------------------------------------------

struct due_time
{
    uint64_t sec;
    uint32_t nsec;
};

/** Time of the latest of count expiries; the record goes on to the one after it. Done before the
 *  callback, which may start the timer anew.
 *  @return false when the timer is stopped: the expiry is there to say so */
bool take_due(TARN_TIMER t, uint64_t count, due_time *out)
{
    const locked lock(t->crit_sect);
    if (!t->running)
    {
        return false;
    }
    if (t->monotonic == 0 && count > 1)
    {
        advance_due(t, count - 1);
    }
    *out = {t->due_sec, static_cast<uint32_t>(t->due_nsec)};
    advance_due(t, 1);
    return true;
}

/** Wait for an expiry and report it. */
void serve_expiry(TARN_TIMER t)
{
    const expiry_count e = read_expiries(t);
    due_time due{};
    if (is_clock_change(t, e))
    {
        realign(t);
    }
    else if (e.result < 0)
    {
        log_read_error(e);
    }
    else if (take_due(t, e.count, &due) && e.complete())
    {
        in_callback_of = t;
        (void)t->callback(t, e.count, due.sec, due.nsec, t->arg1, t->arg2);
        in_callback_of = nullptr;
    }
}

/** The thread leaves its procedure for good; t is gone afterwards, unless others use it. */
void leave_proc(TARN_TIMER t, bool unwinding)
{
    TARN_THREAD own = nullptr;
    bool drop = false;
    {
        const locked lock(t->crit_sect);
        own = std::exchange(t->thread, nullptr);
        drop = own != nullptr || t->orphaned;
        t->in_proc = false;
        t->orphaned = false;
        if (unwinding)
        {
            mark_stopped(t);
        }
        (void)disarm_locked(t);
    }
    if (drop)
    {
        drop_user(t);
    }
    if (own != nullptr && !unwinding)
    {
        tarn_thread_stop(own);
    }
    else if (!unwinding)
    {
        (void)tarn_thread_sleep(TARN_INFINITE); // the stopper is about to set the stop event
    }
}

void *tarn_timer_proc(void *timer, void *)
{
    auto *const t = static_cast<TARN_TIMER>(timer);
    {
        const locked lock(t->crit_sect);
        t->in_proc = true;
    }
    // Unwound: cancelled, or the callback left through pthread_exit().
    tarn::scope_exit unwound([t] { leave_proc(t, true); });
    while (!tarn_thread_sleep(0) && is_running(t))
    {
        serve_expiry(t);
    }
    unwound.dismiss();
    leave_proc(t, false);
    return nullptr;
}

// ---- start and stop ------------------------------------------------------------------------------

/** Marks a start or stop from outside for its scope; false when there is one already. */
class [[nodiscard]] change_guard
{
public:
    explicit change_guard(TARN_TIMER t) : t_(t)
    {
        const locked lock(t->crit_sect);
        ours_ = !std::exchange(t->changing, true);
    }
    change_guard(const change_guard &) = delete;
    change_guard &operator=(const change_guard &) = delete;
    ~change_guard()
    {
        if (ours_)
        {
            const locked lock(t_->crit_sect);
            t_->changing = false;
        }
    }
    explicit operator bool() const noexcept
    {
        return ours_;
    }

private:
    TARN_TIMER t_;
    bool ours_ = false;
};

/** Join the thread whose handle the caller took out of the record, or never put there. */
void join_thread(TARN_TIMER t, TARN_THREAD thread)
{
    tarn_thread_stop(thread);
    bool ended = false;
    {
        const locked lock(t->crit_sect);
        ended = !t->in_proc;
        t->orphaned = t->in_proc;
    }
    if (ended)
    {
        drop_user(t);
    }
}

void stop_from_outside(TARN_TIMER t)
{
    TARN_THREAD thread = nullptr;
    {
        const locked lock(t->crit_sect);
        thread = std::exchange(t->thread, nullptr);
        mark_stopped(t);
        if (thread != nullptr)
        {
            wake_thread(t);
        }
    }
    if (thread != nullptr)
    {
        join_thread(t, thread);
    }
    disarm(t);
}

void stop_from_callback(TARN_TIMER t)
{
    {
        const locked lock(t->crit_sect);
        mark_stopped(t);
    }
    disarm(t);
}

bool start_thread(TARN_TIMER t)
{
    add_user(t);
    TARN_THREAD thread = tarn_thread_start(tarn_timer_proc, t, nullptr, 0, "tarn_timer_proc");
    if (thread == TARN_INVALID_HANDLE)
    {
        drop_user(t);
        return false;
    }
    bool keep = false;
    {
        const locked lock(t->crit_sect);
        keep = t->running;
        t->thread = keep ? thread : nullptr;
    }
    if (!keep) // stopped by another thread before its handle could be found
    {
        join_thread(t, thread);
    }
    return keep;
}

/** Mark the timer as running from inside its callback.
 *  @return false when the callback has destroyed it, or another thread is waiting for the
 *          callback's end */
bool go_on(TARN_TIMER t, uint64_t interval_ns, uint64_t offset_ns)
{
    const locked lock(t->crit_sect);
    if (t->thread == nullptr || t->closed)
    {
        return false;
    }
    mark_running(t, interval_ns, offset_ns);
    return true;
}

/** Mark the timer as running from outside.
 *  @return false when the last run could not be joined and is still in its callback */
bool begin(TARN_TIMER t, uint64_t interval_ns, uint64_t offset_ns)
{
    const locked lock(t->crit_sect);
    if (t->in_proc)
    {
        return false;
    }
    mark_running(t, interval_ns, offset_ns);
    return true;
}

/** A start from inside the callback: the thread is there already. */
int restart_from_callback(TARN_TIMER t, uint64_t interval_ns, uint64_t offset_ns)
{
    stop_from_callback(t);
    if (!go_on(t, interval_ns, offset_ns))
    {
        return TARN_ERRLN;
    }
    if (set_timer(t) != 0)
    {
        stop_from_callback(t);
        return TARN_ERRLN;
    }
    return 0;
}

int get_setting(TARN_TIMER t, itimerspec *setting)
{
    if (timerfd_gettime(t->fd, setting) != 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("timerfd_gettime failed, error = %d (%s)", error,
                       tarn::error_text(error).c_str());
        return TARN_ERRLN;
    }
    return 0;
}

} // namespace

TARN_TIMER tarn_timer_create(int kind, tarn_timer_callback callback, void *arg1, void *arg2)
{
    RVOF(kind == TARN_TIMER_WALL_CLOCK || kind == TARN_TIMER_MONOTONIC, TARN_INVALID_HANDLE);
    using section_owner = tarn::unique_handle<TARN_CRITICAL_SECTION, tarn_critical_section_destroy>;
    auto t = tarn::make_object<tarn_timer>(TARN_HANDLE_TYPE_TIMER);
    RVON(t, TARN_INVALID_HANDLE);
    section_owner crit_sect(tarn_critical_section_create());
    RVON(crit_sect, TARN_INVALID_HANDLE);
    t->monotonic = kind == TARN_TIMER_MONOTONIC ? 1 : 0;
    const int blocking = callback != nullptr ? 0 : TFD_NONBLOCK;
    tarn::unique_fd fd(
        timerfd_create(static_cast<clockid_t>(t->monotonic), blocking | TFD_CLOEXEC));
    RVON(fd, TARN_INVALID_HANDLE);
    tarn::unique_fd stop_fd(callback != nullptr ? -1 : eventfd(1, EFD_NONBLOCK | EFD_CLOEXEC));
    RVOF(callback != NULL || stop_fd, TARN_INVALID_HANDLE);
    t->callback = callback;
    t->arg1 = arg1;
    t->arg2 = arg2;
    t->users = 1;
    t->fd = fd.release();
    t->stop_fd = stop_fd.release();
    t->crit_sect = crit_sect.release();
    return t.release();
}

int tarn_timer_start(TARN_TIMER t, uint64_t interval_ns, uint64_t offset_ns)
{
    RVON(t, TARN_ERRLN);
    RVOZ(interval_ns, TARN_ERRLN);
    if (in_callback_of == t)
    {
        return restart_from_callback(t, interval_ns, offset_ns);
    }
    const tarn::cancel_guard no_cancel;
    const timer_user user(t);
    const change_guard change(t);
    RVOF(change, TARN_ERRLN);
    stop_from_outside(t);
    RVOF(begin(t, interval_ns, offset_ns), TARN_ERRLN);
    if (t->callback != nullptr && !start_thread(t))
    {
        TARN_LOG_ERROR("fail to start timer thread");
        stop_from_outside(t);
        return TARN_ERRLN;
    }
    if (set_timer(t) != 0)
    {
        stop_from_outside(t);
        return TARN_ERRLN;
    }
    return 0;
}

void tarn_timer_stop(TARN_TIMER t)
{
    RON(t);
    if (in_callback_of == t)
    {
        stop_from_callback(t);
        return;
    }
    const tarn::cancel_guard no_cancel; // a half-done change would stay so
    const timer_user user(t);
    const change_guard change(t);
    stop_from_outside(t);
}

void tarn_timer_destroy(TARN_TIMER t)
{
    if (t == nullptr)
    {
        return;
    }
    tarn_timer_stop(t);
    if (in_callback_of == t)
    {
        const locked lock(t->crit_sect);
        t->closed = true;
    }
    drop_user(t);
}

int tarn_timer_get_remain_time(TARN_TIMER t, uint64_t *remain_ns)
{
    RVON(t, TARN_ERRLN);
    RVON(remain_ns, TARN_ERRLN);
    itimerspec setting{};
    const int rc = get_setting(t, &setting);
    if (rc == 0)
    {
        *remain_ns = to_ns(setting.it_value);
    }
    return rc;
}

int tarn_timer_get_interval(TARN_TIMER t, uint64_t *interval_ns)
{
    RVON(t, TARN_ERRLN);
    RVON(interval_ns, TARN_ERRLN);
    itimerspec setting{};
    const int rc = get_setting(t, &setting);
    if (rc == 0)
    {
        *interval_ns = to_ns(setting.it_interval);
    }
    return rc;
}

bool tarn_timer_is_started(TARN_TIMER t)
{
    uint64_t remain_ns = 0;
    return tarn_timer_get_remain_time(t, &remain_ns) == 0 && remain_ns != 0;
}

int64_t tarn_timer_wait(TARN_TIMER t, uint32_t timeout_ns)
{
    RVON(t, TARN_ERRLN);
    const timer_user user(t);
    const uint64_t start = tarn_tick_ns();
    const uint64_t limit = timeout_ns == TARN_INFINITE ? UINT64_MAX : timeout_ns / 1000 * 1000;
    for (;;)
    {
        if (!is_running(t))
        {
            TARN_LOG_WARN("timer is not started!");
            return TARN_ERRLN;
        }
        if (t->callback != nullptr)
        {
            TARN_LOG_WARN("this timer is created with callback function!");
            return TARN_ERRLN;
        }
        const uint64_t elapsed = std::min(tarn_tick_ns_since(start), limit);
        const wait_result result = wait_for_expiry(t, std::min(limit - elapsed, wait_slice_ns));
        if (result == wait_result::failed)
        {
            log_wait_error(errno);
            return TARN_ERRLN;
        }
        if (result == wait_result::readable)
        {
            if (const int64_t count = take_expiries(t); count != 0)
            {
                return count;
            }
        }
        if (elapsed == limit && result != wait_result::stopped)
        {
            return 0;
        }
    }
}

bool tarn_timer_init(void)
{
    return true;
}

void tarn_timer_uninit(void) {}
