// The notification protocol of service managers, sd_notify(3): one datagram per state.

#include "tarn_service_notify.h"

#include "tarn_log.h"
#include "tarn_os.h"
#include "tarn_process_state.h"
#include "tarn_raii.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

struct manager_address
{
    sockaddr_un address;
    socklen_t length; ///< 0: there is no manager, or none that can be reached
};

manager_address find_manager()
{
    manager_address manager{};
    const tarn::lock_guard lock(tarn::environment_lock);
    const char *const name = std::getenv("NOTIFY_SOCKET");
    const size_t length = name != nullptr ? std::strlen(name) : 0;
    if (length < 2 || length >= sizeof manager.address.sun_path ||
        (name[0] != '/' && name[0] != '@'))
    {
        return manager;
    }
    manager.address.sun_family = AF_UNIX;
    std::memcpy(manager.address.sun_path, name, length);
    if (name[0] == '@')
    {
        manager.address.sun_path[0] = '\0'; // abstract names are not terminated, but counted
    }
    manager.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    return manager;
}

/** @return 0 or an error number */
int send_state(const manager_address &manager, const char *state)
{
    const tarn::unique_fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd)
    {
        return errno;
    }
    const timeval limit{1, 0};
    (void)::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const auto sent = tarn::retry_eintr([&] {
        return ::sendto(fd.get(), state, std::strlen(state), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr *>(&manager.address), manager.length);
    });
    return sent < 0 ? errno : 0;
}

bool watchdog_is_asked_of_us()
{
    const tarn::lock_guard lock(tarn::environment_lock);
    const char *const process = std::getenv("WATCHDOG_PID");
    return std::getenv("WATCHDOG_USEC") != nullptr &&
           (process == nullptr || std::strtol(process, nullptr, 10) == ::getpid());
}

} // namespace

namespace tarn
{

void service_notify(const char *state)
{
    const manager_address manager = find_manager();
    if (manager.length == 0)
    {
        return;
    }
    const cancel_guard no_cancel;
    if (const int error = send_state(manager, state); error != 0)
    {
        TARN_LOG_WARN("service manager not told \"%s\", error = [%d] (%s)", state, error,
                      error_text(error).c_str());
    }
}

bool service_notify_watchdog()
{
    const bool asked = watchdog_is_asked_of_us();
    if (asked)
    {
        service_notify("WATCHDOG=1");
    }
    return asked;
}

} // namespace tarn
