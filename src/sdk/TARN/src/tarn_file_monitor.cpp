// File monitor: a loop thread that looks once a second whether a watched file was modified.
//
// Lifetime: tarn_file_monitor_stop() from another thread joins the monitor's thread and frees.
// From inside the callback it only marks the monitor; the thread frees it when the callback has
// returned, and touches nothing of it after that.

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
    bool stopped; ///< by the own callback; monitor thread only
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

/** Calls back, and frees the monitor afterwards if the callback has stopped it: also when the
 *  thread is cancelled inside. */
void call_back(TARN_FILE_MONITOR fm)
{
    const tarn::scope_exit leave([fm] {
        current = nullptr;
        if (fm->stopped)
        {
            free_monitor(fm);
        }
    });
    current = fm;
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
        }
        return;
    }
    tarn_thread_stop(__atomic_load_n(&fm->thread, __ATOMIC_ACQUIRE));
    free_monitor(fm);
}
