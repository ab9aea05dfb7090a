// File monitor: a loop thread that looks once a second whether a watched file was modified.
//
// Who frees the monitor. It counts its users: the handle, and a callback under way. A stop drops the
// handle's share, from another thread after it has joined the monitor's thread. So the last one to
// go is the callback when the monitor was stopped inside it, and when the join was refused because
// callbacks of two monitors stop one another. Nothing of the monitor is touched behind a callback.

#include "tarn_file.h"

#include "tarn_file_port.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_str.h"
#include "tarn_thread.h"

struct tarn_file_monitor
{
    int32_t watch_fd;
    char *path;
    TARN_THREAD thread; ///< atomic access only: null until the starter has stored it
    tarn_file_monitor_callback callback;
    void *user_arg;
    bool stopped;   ///< by the own callback; monitor thread only
    uint32_t users; ///< see above; shared, atomic access only
};

namespace
{

constexpr uint32_t period_ms = 1000;

/** The monitor whose callback the calling thread is inside. */
constinit thread_local TARN_FILE_MONITOR current = nullptr;

void free_monitor(TARN_FILE_MONITOR fm)
{
    tarn_mem_free(fm->path);
    tarn::close_fd(fm->watch_fd);
    tarn_mem_free(fm);
}

void drop_user(TARN_FILE_MONITOR fm)
{
    // Acquire and release: the last user sees all that the others did.
    if (__atomic_sub_fetch(&fm->users, 1, __ATOMIC_ACQ_REL) == 0)
    {
        free_monitor(fm);
    }
}

/** Calls back as a user of the monitor, also when the thread is cancelled inside. */
void call_back(TARN_FILE_MONITOR fm)
{
    const tarn::scope_exit leave([fm] {
        current = nullptr;
        drop_user(fm);
    });
    current = fm;
    // The handle's share is there still: a stop joins this thread first.
    (void)__atomic_add_fetch(&fm->users, 1, __ATOMIC_RELAXED);
    fm->callback(fm, fm->path, 0, fm->user_arg);
}

void *file_monitor_proc(void *arg, void *)
{
    auto *const fm = static_cast<TARN_FILE_MONITOR>(arg);
    // A callback may stop the monitor, so none is made before the starter has stored the thread;
    // the events wait for the next round.
    if (__atomic_load_n(&fm->thread, __ATOMIC_ACQUIRE) != TARN_INVALID_HANDLE &&
        tarn::file_watch_drain(fm->watch_fd))
    {
        call_back(fm);
    }
    return nullptr;
}

using monitor_owner = tarn::unique_handle<TARN_FILE_MONITOR, free_monitor>;

} // namespace

TARN_FILE_MONITOR tarn_file_monitor_start(const char *file_name,
                                          tarn_file_monitor_callback callback_function,
                                          void *user_arg)
{
    RVON(file_name, NULL);
    // clang-format off
    RVOT(tarn_str_is_empty( file_name ), NULL);
    // clang-format on
    RVON(callback_function, NULL);
    uint64_t size = 0;
    const int rc = tarn::file_stat(file_name, &size);
    RVOF(0 == rc, NULL);
    monitor_owner owner(tarn::unique_mem<tarn_file_monitor>::make().release());
    TARN_FILE_MONITOR fm = owner.get();
    RVON(fm, NULL);
    fm->watch_fd = tarn::file_watch_open(file_name);
    if (fm->watch_fd < 0)
    {
        return nullptr;
    }
    fm->path = tarn_str_dup(file_name);
    RVON(fm->path, NULL);
    fm->callback = callback_function;
    fm->user_arg = user_arg;
    fm->users = 1;
    TARN_THREAD thread =
        tarn_thread_start(file_monitor_proc, fm, nullptr, period_ms, "file_monitor_proc");
    RVOF(thread != TARN_INVALID_HANDLE, NULL);
    __atomic_store_n(&fm->thread, thread, __ATOMIC_RELEASE);
    return owner.release();
}

void tarn_file_monitor_stop(TARN_FILE_MONITOR fm)
{
    RON(fm);
    if (fm == current)
    {
        if (!fm->stopped)
        {
            fm->stopped = true;
            tarn_thread_stop(fm->thread); // detaches; the loop ends after this call
            drop_user(fm);
        }
        return;
    }
    tarn_thread_stop(__atomic_load_n(&fm->thread, __ATOMIC_ACQUIRE));
    drop_user(fm);
}
