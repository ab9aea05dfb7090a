// Client of the process watchdog, a library that some boards have and that is loaded when it is
// first needed.

#include "tarn_sys.h"

#include "tarn_check.h"
#include "tarn_process_state.h"
#include "tarn_raii.h"
#include "tarn_service_notify.h"
#include "tarn_sys_internal.h"

#include <atomic>
#include <cstdlib>

#include <dlfcn.h>
#include <strings.h>

namespace
{

/** What the library has, as we call it: results of 0 are good. Any of them may be missing. */
struct watchdog_functions
{
    int (*watch_process_register)(int timeout_s);
    int (*watch_process_strobe)();
    int (*watch_process_unregister)();
    int (*watch_process_unregister_cmd)(const char *cmd);
    const char *(*watch_process_error_string)(int rc);
};

enum class load_state
{
    untried,
    loaded,
    missing ///< not tried again: a daemon kicks every second
};

struct watchdog_state
{
    std::atomic<bool> disabled{false}; ///< by the environment, at start-up
    std::atomic<uint32_t> timeout_s{0};
    tarn::static_mutex lock; ///< of what follows, while it is filled; not held while loading
    std::atomic<load_state> state{load_state::untried};
    void *watch_process_dll_h = nullptr; ///< both fixed once the state is no longer `untried`
    watchdog_functions functions{};
};
constinit watchdog_state watchdog;

template <typename Function>
void look_up(void *dll, const char *name, Function *out)
{
    *out = reinterpret_cast<Function>(dlsym(dll, name));
}

watchdog_functions functions_of(void *dll)
{
    watchdog_functions f{};
    look_up(dll, "watch_process_register", &f.watch_process_register);
    look_up(dll, "watch_process_strobe", &f.watch_process_strobe);
    look_up(dll, "watch_process_unregister", &f.watch_process_unregister);
    look_up(dll, "watch_process_unregister_cmd", &f.watch_process_unregister_cmd);
    look_up(dll, "watch_process_error_string", &f.watch_process_error_string);
    return f;
}

void load_library()
{
    void *const dll = dlopen("libwatchprocess.so", RTLD_NOW);
    const watchdog_functions functions = dll != nullptr ? functions_of(dll) : watchdog_functions{};
    {
        const tarn::lock_guard lock(watchdog.lock);
        if (watchdog.state.load(std::memory_order_relaxed) == load_state::untried)
        {
            watchdog.watch_process_dll_h = dll;
            watchdog.functions = functions;
            watchdog.state.store(dll != nullptr ? load_state::loaded : load_state::missing,
                                 std::memory_order_release);
            return;
        }
    }
    if (dll != nullptr) // another thread was first
    {
        (void)dlclose(dll);
    }
}

/** @return false when there is no library */
bool watchdog_loaded()
{
    if (watchdog.state.load(std::memory_order_acquire) == load_state::untried)
    {
        load_library();
    }
    RVOF_TEXT(watchdog.watch_process_dll_h != nullptr, false,
              "RVOF(watch_process_dll_h != ((void *)0),false)");
    return true;
}

bool register_process(uint32_t seconds)
{
    const auto watch_process_register = watchdog.functions.watch_process_register;
    RVON(watch_process_register, false);
    const int timeout_s = static_cast<int>(seconds);
    if (const int rc = watch_process_register(timeout_s); rc != 0)
    {
        TARN_LOG_ERROR("watch_process_register with timeout %d seconds failed, rc = %d", timeout_s,
                       rc);
        return false;
    }
    return true;
}

bool unregister_process()
{
    const auto watch_process_unregister = watchdog.functions.watch_process_unregister;
    RVON(watch_process_unregister, false);
    if (const int rc = watch_process_unregister(); rc != 0)
    {
        TARN_LOG_ERROR("watch_process_unregister failed, rc = %d", rc);
        return false;
    }
    return true;
}

bool disabled_by_environment()
{
    const tarn::lock_guard lock(tarn::environment_lock);
    const char *const value = std::getenv("TARN_WDT_DISABLED");
    for (const char *const word : {"1", "y", "true", "yes"})
    {
        if (value != nullptr && strcasecmp(value, word) == 0)
        {
            return true;
        }
    }
    return false;
}

} // namespace

namespace tarn
{

void wdt_read_environment()
{
    const bool disabled = disabled_by_environment();
    watchdog.disabled = disabled;
    if (disabled)
    {
        TARN_LOG_WARN("watch dog function disabled by environment variable TARN_WDT_DISABLED");
    }
}

} // namespace tarn

bool tarn_wdt_set_timeout(uint32_t seconds)
{
    const bool watch_process_disabled = watchdog.disabled;
    RVOT(watch_process_disabled, true);
    RVOF(seconds <= INT32_MAX, false);
    if (!watchdog_loaded() || !(seconds != 0 ? register_process(seconds) : unregister_process()))
    {
        return false;
    }
    watchdog.timeout_s = seconds;
    return true;
}

uint32_t tarn_wdt_get_timeout(void)
{
    return watchdog.disabled ? 0 : watchdog.timeout_s.load();
}

void tarn_wdt_kick(void)
{
    const bool is_watched_by_manager = tarn::service_notify_watchdog();
    if (watchdog.disabled || (is_watched_by_manager && watchdog.state == load_state::missing) ||
        !watchdog_loaded())
    {
        return;
    }
    const auto watch_process_strobe = watchdog.functions.watch_process_strobe;
    RON(watch_process_strobe);
    if (const int rc = watch_process_strobe(); rc != 0)
    {
        TARN_LOG_DEBUG("watch_process_strobe failed, rc = %d", rc);
    }
}
