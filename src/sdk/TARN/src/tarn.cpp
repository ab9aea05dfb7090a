// Spine of the layer: counted start-up and teardown of the modules, and the generic close.
//
// tarn_init() and tarn_uninit() are called from the main thread only, before threads start and
// after they have been stopped, so the count needs no lock.

#include "tarn.h"

#include "tarn_critical_section.h"
#include "tarn_data.h"
#include "tarn_dir.h"
#include "tarn_dll.h"
#include "tarn_event.h"
#include "tarn_file.h"
#include "tarn_hash.h"
#include "tarn_ipc.h"
#include "tarn_list.h"
#include "tarn_md5.h"
#include "tarn_mhash.h"
#include "tarn_modules.h"
#include "tarn_mutex.h"
#include "tarn_pipe.h"
#include "tarn_process.h"
#include "tarn_regex.h"
#include "tarn_ringbuf.h"
#include "tarn_rpc.h"
#include "tarn_rwlock.h"
#include "tarn_semaphore.h"
#include "tarn_serial.h"
#include "tarn_shm.h"
#include "tarn_shmx.h"
#include "tarn_socket.h"
#include "tarn_thread.h"
#include "tarn_thread_pool.h"
#include "tarn_timer.h"

#include <algorithm>

namespace tarn
{
namespace
{

constexpr std::array<module_stop, module_count> in_reverse(
    std::array<module_stop, module_count> table)
{
    std::reverse(table.begin(), table.end());
    return table;
}

} // namespace

#define TARN_MODULE_START(name) tarn_##name##_init,
#define TARN_MODULE_STOP(name) tarn_##name##_uninit,
constinit std::array<module_start, module_count> module_start_table = {
    TARN_MODULE_LIST(TARN_MODULE_START)};
constinit std::array<module_stop, module_count> module_stop_table =
    in_reverse({TARN_MODULE_LIST(TARN_MODULE_STOP)});
#undef TARN_MODULE_START
#undef TARN_MODULE_STOP

} // namespace tarn

namespace
{

/** Users of the layer: 0 is not started, negative after a teardown too many. */
int32_t init_count = 0;

bool start_modules()
{
    for (size_t i = 0; i < tarn::module_count; ++i)
    {
        if (!tarn::module_start_table[i]())
        {
            TARN_LOG_FATAL("failed at %d", static_cast<int>(i));
            // Entries i-1 to 0 of the teardown table, which is in reverse order: the last i
            // modules of the start-up order, not those that have started. Every teardown accepts
            // a module that never started, every start-up one that was not torn down.
            for (size_t k = i; k-- > 0;)
            {
                tarn::module_stop_table[k]();
            }
            return false;
        }
    }
    return true;
}

template <typename Handle, auto Close>
void close_as(void *handle)
{
    (void)Close(static_cast<Handle>(handle));
}

/** What the generic close does, by type tag; null for tags that are not in use. */
constexpr auto close_table = [] {
    std::array<void (*)(void *), TARN_HANDLE_TYPE_MHASH + 1> table{};
    table[TARN_HANDLE_TYPE_CRITICAL_SECTION] =
        close_as<TARN_CRITICAL_SECTION, tarn_critical_section_destroy>;
    table[TARN_HANDLE_TYPE_EVENT] = close_as<TARN_EVENT, tarn_event_destroy>;
    table[TARN_HANDLE_TYPE_FILE] = close_as<TARN_FILE, tarn_file_close>;
    table[TARN_HANDLE_TYPE_LIST] = close_as<TARN_LIST, tarn_list_destroy>;
    table[TARN_HANDLE_TYPE_MUTEX] = close_as<TARN_MUTEX, tarn_mutex_destroy>;
    table[TARN_HANDLE_TYPE_RWLOCK] = close_as<TARN_RWLOCK, tarn_rwlock_destroy>;
    table[TARN_HANDLE_TYPE_SEMAPHORE] = close_as<TARN_SEMAPHORE, tarn_semaphore_destroy>;
    table[TARN_HANDLE_TYPE_SERIAL] = close_as<TARN_SERIAL, tarn_serial_close>;
    table[TARN_HANDLE_TYPE_SHM] = close_as<TARN_SHM, tarn_shm_destroy>;
    table[TARN_HANDLE_TYPE_SOCKET] = close_as<TARN_SOCKET, tarn_socket_destroy>;
    table[TARN_HANDLE_TYPE_TIMER] = close_as<TARN_TIMER, tarn_timer_destroy>;
    table[TARN_HANDLE_TYPE_THREAD] = close_as<TARN_THREAD, tarn_thread_stop>;
    table[TARN_HANDLE_TYPE_THREAD_POOL] = close_as<TARN_THREAD_POOL, tarn_thread_pool_destroy>;
    table[TARN_HANDLE_TYPE_DATA] = close_as<TARN_DATA, tarn_data_destroy>;
    table[TARN_HANDLE_TYPE_IPC] = close_as<TARN_IPC, tarn_ipc_destroy>;
    table[TARN_HANDLE_TYPE_REGEX] = close_as<TARN_REGEX, tarn_regex_destroy>;
    table[TARN_HANDLE_TYPE_HASH] = close_as<TARN_HASH, tarn_hash_destroy>;
    table[TARN_HANDLE_TYPE_DLL] = close_as<TARN_DLL, tarn_dll_unload>;
    table[TARN_HANDLE_TYPE_PIPE] = close_as<TARN_PIPE, tarn_pipe_close>;
    table[TARN_HANDLE_TYPE_RPC] = close_as<TARN_RPC, tarn_rpc_destroy>;
    table[TARN_HANDLE_TYPE_MD5] = close_as<TARN_MD5, tarn_md5_destroy>;
    table[TARN_HANDLE_TYPE_DIR] = close_as<TARN_DIR, tarn_dir_close>;
    table[TARN_HANDLE_TYPE_SHMX] = close_as<TARN_SHMX, tarn_shmx_destroy>;
    table[TARN_HANDLE_TYPE_RINGBUF] = close_as<TARN_RINGBUF, tarn_ringbuf_destroy>;
    table[TARN_HANDLE_TYPE_MHASH] = close_as<TARN_MHASH, tarn_mhash_destroy>;
    return table;
}();

} // namespace

bool tarn_init(void)
{
    if (init_count == 0)
    {
        if (!start_modules())
        {
            return false;
        }
        if (tarn_process_is_daemon())
        {
            (void)tarn_log_level_monitor_start(); // a daemon runs without it, too
        }
    }
    ++init_count;
    TARN_LOG_TRACE("init_count = %d", init_count);
    return true;
}

void tarn_uninit(void)
{
    TARN_LOG_TRACE("init_count = %d", init_count);
    if (init_count == 1)
    {
        for (const tarn::module_stop stop : tarn::module_stop_table)
        {
            stop();
        }
    }
    // No guard: a teardown without a start-up leaves -1.
    --init_count;
}

void tarn_close_handle(void *handle)
{
    if (handle == nullptr)
    {
        return;
    }
    const uint16_t type = static_cast<const tarn_handle_header *>(handle)->type;
    if (type < close_table.size() && close_table[type] != nullptr)
    {
        close_table[type](handle);
    }
}

void tarn_close_handle_dbg(void *handle, const char *file, int line, const char *func)
{
    TARN_LOG_INFO("from [%s:%d:%s] obj_h = [%p]", file, line, func, handle);
    tarn_close_handle(handle);
}

const char *tarn_version(void)
{
    return TARN_VERSION_STRING;
}
