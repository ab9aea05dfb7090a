// Sockets: life, IPv4 and IPv6, options, traffic. Connecting is in tarn_socket_connect.cpp, local
// names are in tarn_socket_local.cpp, the host's addresses in tarn_socket_host.cpp, the system calls
// in linux/tarn_socket_linux.cpp.
//
// A record belongs to the thread that uses it; the one field that another thread touches is the
// shut-down mark.
//
// Timed reads try first and wait only when there is nothing, so that bytes which are there already
// cost one system call.

#include "tarn_socket.h"

#include "tarn_check.h"
#include "tarn_modules.h"
#include "tarn_process_state.h"
#include "tarn_socket_internal.h"
#include "tarn_str.h"
#include "tarn_thread.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace os = tarn::socket_port;

namespace
{

constexpr int max_backlog = 128;
/** Pause of an accept that found no descriptor or memory: the peer keeps the listener readable. */
constexpr uint32_t resource_pause_ms = 100;

/** Traffic lines are written while it is false. */
constinit std::atomic<bool> quiet{true};

int bind_address(TARN_SOCKET p, const tarn::socket_address &address)
{
    const int result = os::bind(p->handle, address);
    if (result != 0)
    {
        TARN_LOG_ERROR("errno = %d", errno);
    }
    return result;
}

// ---- accepting -----------------------------------------------------------------------------------

constexpr uint32_t at_least_one_ms(uint32_t timeout_ms)
{
    return timeout_ms == 0 ? 1 : timeout_ms;
}

bool ran_out_of_resources(int error)
{
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

/** The interruptible sleep ends at once on threads that are none of the layer's. */
void pause_for_resources(const tarn::deadline &limit)
{
    const tarn::errno_keeper keep_errno;
    const uint64_t left_ms = limit.infinite() ? resource_pause_ms : limit.left_ns() / 1000000;
    const uint32_t pause_ms =
        static_cast<uint32_t>(std::min<uint64_t>(left_ms + 1, resource_pause_ms));
    const uint32_t start = tarn_tick_ms();
    if (!tarn_thread_sleep(pause_ms) && tarn_tick_ms_since(start) == 0)
    {
        tarn_sleep_ms(pause_ms);
    }
}

tarn::unique_fd accept_within(TARN_SOCKET p, const tarn::deadline &limit,
                              tarn::socket_address &peer)
{
    tarn::unique_fd accepted(os::accept(p->handle, peer));
    if (!accepted && errno == EAGAIN && tarn::socket_wait(p, os::readiness::read, limit) > 0)
    {
        // Once only: a local listener that was shut down is ready and has no peer for ever, and the
        // peer that made it ready may be gone.
        accepted.reset(os::accept(p->handle, peer));
    }
    if (!accepted && ran_out_of_resources(errno))
    {
        pause_for_resources(limit);
    }
    return accepted;
}

// ---- traffic -------------------------------------------------------------------------------------

/** errno of a call that failed, 0 for one that did not. */
int error_of(int64_t result)
{
    return result < 0 ? errno : 0;
}

void log_transfer(TARN_SOCKET p, const char *call, const char *title, const void *buf,
                  int64_t result)
{
    if (tarn::socket_quiet())
    {
        return;
    }
    TARN_LOG_INFO("[%p] %s return [%d], error = %d", static_cast<void *>(p), call,
                  static_cast<int>(result), error_of(result));
    if (result > 0)
    {
        TARN_LOG_HEX(&tarn_default_logger, TARN_LOG_LEVEL_INFO, title, buf,
                     static_cast<uint32_t>(result));
    }
}

/** Calls receive(mode), and again after a wait when there was nothing.
 *  @return what it gave; tarn::receive_timed_out; -1 when waiting failed. */
template <typename Receive>
int receive_within(TARN_SOCKET p, uint32_t timeout_ms, Receive receive)
{
    if (timeout_ms == TARN_INFINITE)
    {
        return static_cast<int>(receive(os::transfer::block));
    }
    const tarn::deadline limit(timeout_ms);
    ptrdiff_t n = receive(os::transfer::poll);
    if (n < 0 && errno == EAGAIN)
    {
        const int ready = tarn::socket_wait(p, os::readiness::read, limit);
        if (ready <= 0)
        {
            return ready == 0 ? tarn::receive_timed_out : -1;
        }
        n = receive(os::transfer::poll);
        if (n < 0 && errno == EAGAIN)
        {
            // Ready with nothing to read: a datagram that was dropped for its checksum, or a
            // datagram socket that was shut down, which stays ready.
            return tarn::socket_is_shut_down(p) ? 0 : tarn::receive_timed_out;
        }
    }
    return static_cast<int>(n);
}

int receive_stream(TARN_SOCKET p, void *buf, size_t size, uint32_t timeout_ms)
{
    const int result = receive_within(p, at_least_one_ms(timeout_ms), [&](os::transfer mode) {
        return os::receive(p->handle, buf, size, mode);
    });
    log_transfer(p, "recv", "[RX]", buf, result);
    return result;
}

/** Below this the system's own limit is too coarse. */
constexpr uint32_t shortest_receive_limit_ms = 100;

/** Have the system keep a time limit for receives. @return false when it cannot */
bool limit_receives(TARN_SOCKET p, uint32_t limit_ms)
{
    if (p->receive_limit_ms != limit_ms)
    {
        if (os::set_receive_limit(p->handle, limit_ms) != 0)
        {
            return false;
        }
        p->receive_limit_ms = limit_ms;
    }
    return true;
}

/** What tarn_socket_recv() returns for the result of a receive. */
int result_of_receive(int result)
{
    if (result == 0)
    {
        // The system leaves errno alone here; a stale EAGAIN would look like a time-out.
        errno = ECONNRESET;
        return -1;
    }
    return result == tarn::receive_timed_out ? 0 : result;
}

/** @return false at an error or the limit, with errno and what went out until then */
bool send_all(TARN_SOCKET p, std::span<const tarn::send_part> parts, const tarn::deadline &limit,
              size_t &sent)
{
    size_t whole = 0;
    for (const tarn::send_part &part : parts)
    {
        whole += part.size;
    }
    const auto mode = limit.infinite() ? os::transfer::block : os::transfer::poll;
    while (sent < whole)
    {
        const ptrdiff_t n = os::send_parts(p->handle, parts, sent, mode);
        if (n >= 0)
        {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (errno != EAGAIN && errno != EINTR)
        {
            return false;
        }
        const int ready = errno == EINTR ? 1 : tarn::socket_wait(p, os::readiness::write, limit);
        if (ready <= 0)
        {
            errno = ready == 0 ? ETIMEDOUT : errno;
            return false;
        }
    }
    return true;
}

void log_parts(TARN_SOCKET p, std::span<const tarn::send_part> parts, size_t sent, int error)
{
    if (tarn::socket_quiet())
    {
        return;
    }
    TARN_LOG_INFO("[%p] send return [%zu], error = %d", static_cast<void *>(p), sent, error);
    for (const tarn::send_part &part : parts)
    {
        const size_t shown = std::min(part.size, sent);
        if (shown != 0)
        {
            TARN_LOG_HEX(&tarn_default_logger, TARN_LOG_LEVEL_INFO, "[TX]", part.data,
                         static_cast<uint32_t>(shown));
        }
        sent -= shown;
    }
}

/** First half of the liveness test; the errno of a pending error is left behind. */
bool has_no_error(TARN_SOCKET p)
{
    const tarn::deadline now(0);
    const int ready = os::wait(p->handle, os::readiness::write, now);
    TARN_SOCKET_LOG("select return %d, errno = %d", ready, error_of(ready));
    if (ready <= 0)
    {
        return true; // a full send buffer is no fault; the peek finds a bad descriptor
    }
    int error = 0;
    const int result = os::take_error(p->handle, error);
    TARN_SOCKET_LOG("getsockopt return %d, errno = %d, err = %d", result, error_of(result), error);
    if (error != 0)
    {
        errno = error;
    }
    return result == 0 && error == 0;
}

} // namespace

namespace tarn
{

bool socket_quiet()
{
    return quiet.load(std::memory_order_relaxed);
}

bool socket_is_shut_down(TARN_SOCKET p)
{
    return std::atomic_ref(p->shut_down).load() != 0;
}

int socket_shut_down(TARN_SOCKET p)
{
    std::atomic_ref(p->shut_down).store(1); // before the call, see the record
    return os::shut_down(p->handle);
}

void socket_log_shutdown(const void *p, int result)
{
    TARN_SOCKET_LOG("[%p] shutdown return [%d], error = %d", p, result, error_of(result));
}

int socket_wait(TARN_SOCKET p, os::readiness what, const deadline &limit)
{
    const int ready = os::wait(p->handle, what, limit);
    if (ready < 0)
    {
        TARN_LOG_ERROR("select failed, error = %d", errno);
    }
    return ready;
}

int socket_receive(TARN_SOCKET p, void *buf, size_t size, uint32_t timeout_ms)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVON(buf, -1);
    return receive_stream(p, buf, size, timeout_ms);
}

int socket_receive_alone(TARN_SOCKET p, void *buf, size_t size, uint32_t timeout_ms)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVON(buf, -1);
    const bool infinite = timeout_ms == TARN_INFINITE;
    const bool by_system = infinite || timeout_ms >= shortest_receive_limit_ms;
    if (!by_system || !limit_receives(p, infinite ? 0 : timeout_ms))
    {
        return result_of_receive(receive_stream(p, buf, size, timeout_ms));
    }
    const deadline limit(timeout_ms);
    const auto n = static_cast<int>(os::receive(p->handle, buf, size, os::transfer::block));
    if (n < 0 && !infinite && (errno == EAGAIN || errno == EINTR))
    {
        // The system's ticks may end it early, and a signal does so always.
        const auto left_ms = static_cast<uint32_t>((limit.left_ns() + 999999) / 1000000);
        return result_of_receive(receive_stream(p, buf, size, left_ms));
    }
    log_transfer(p, "recv", "[RX]", buf, n);
    return result_of_receive(n);
}

socket_owner socket_accept(TARN_SOCKET p, socket_address &peer, uint32_t timeout_ms)
{
    const deadline limit(at_least_one_ms(timeout_ms));
    if (os::make_nonblocking(p->handle) != 0)
    {
        return {};
    }
    unique_fd descriptor = accept_within(p, limit, peer);
    if (!descriptor || os::type_of(peer) != p->sock_type)
    {
        return {};
    }
    auto accepted = make_object<tarn_socket>(TARN_HANDLE_TYPE_SOCKET);
    RVON(accepted, {});
    accepted->sock_type = p->sock_type;
    accepted->handle = descriptor.release();
    return socket_owner(accepted.release());
}

int64_t socket_send_parts(TARN_SOCKET p, std::span<const send_part> parts, uint32_t timeout_ms)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVOF(parts.size() <= os::max_send_parts, -1);
    size_t sent = 0;
    const bool complete = send_all(p, parts, deadline(timeout_ms), sent);
    const int error = complete ? 0 : errno;
    log_parts(p, parts, sent, error);
    return complete || sent != 0 || error == ETIMEDOUT ? static_cast<int64_t>(sent) : -1;
}

bool socket_peer_credentials(TARN_SOCKET p, socket_credentials *out)
{
    RVON(p, false);
    RVOF(p->handle != INVALID_SOCKET, false);
    RVOF(TARN_SOCKET_TYPE_LOCAL == p->sock_type, false);
    RVON(out, false);
    return os::peer_credentials(p->handle, *out) == 0;
}

} // namespace tarn

// ---- life ----------------------------------------------------------------------------------------

TARN_SOCKET tarn_socket_create(int domain, int type, int protocol)
{
    auto p = tarn::make_object<tarn_socket>(TARN_HANDLE_TYPE_SOCKET);
    RVON(p, TARN_INVALID_HANDLE);
    p->handle = os::open(domain, type, protocol);
    if (p->handle == INVALID_SOCKET)
    {
        return TARN_INVALID_HANDLE;
    }
    p->sock_type = os::type_of_domain(domain);
    return p.release();
}

int tarn_socket_shutdown(TARN_SOCKET p)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    const int result = tarn::socket_shut_down(p);
    tarn::socket_log_shutdown(p, result);
    return result;
}

void tarn_socket_destroy(TARN_SOCKET p)
{
    if (p == nullptr)
    {
        return;
    }
    const tarn::errno_keeper keep_errno;
    if (p->handle != INVALID_SOCKET)
    {
        (void)tarn_socket_shutdown(p);
        TARN_SOCKET_LOG("[%p] close", static_cast<void *>(p));
        tarn::close_fd(p->handle);
    }
    tarn_mem_free(p);
}

int tarn_socket_get_handle(TARN_SOCKET p)
{
    RVON(p, INVALID_SOCKET);
    return p->handle;
}

uint32_t tarn_socket_get_type(TARN_SOCKET p)
{
    RVON(p, 0);
    return p->sock_type;
}

// ---- names ---------------------------------------------------------------------------------------

int tarn_socket_bind(TARN_SOCKET p, uint32_t ip, uint16_t port)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVOF(TARN_SOCKET_TYPE_IPV4 == p->sock_type, -1);
    return bind_address(p, os::ipv4_address(ip, port));
}

int tarn_socket_bind_ipv6(TARN_SOCKET p, const uint8_t *ip, uint16_t port)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVOF(TARN_SOCKET_TYPE_IPV6 == p->sock_type, -1);
    RVON(ip, -1);
    return bind_address(p, os::ipv6_address(ip, port));
}

uint32_t tarn_socket_get_sock_addr(TARN_SOCKET p)
{
    RVON(p, 0);
    RVOF_TEXT(p->handle != INVALID_SOCKET, 0, "RVOF(p->handle != INVALID_SOCKET,-1)");
    tarn::socket_address own{};
    if (os::own_address(p->handle, own) != 0)
    {
        TARN_LOG_TRACE("getsockname failed, error = [%d]", errno);
        return 0;
    }
    return os::type_of(own) == TARN_SOCKET_TYPE_IPV4 ? os::ipv4_of(own) : 0;
}

bool tarn_socket_is_connected(TARN_SOCKET p)
{
    RVON(p, false);
    RVOF(p->handle != -1, false);
    if (!has_no_error(p))
    {
        return false;
    }
    char seen[16];
    const ptrdiff_t n = os::receive(p->handle, seen, sizeof seen, os::transfer::peek);
    TARN_SOCKET_LOG("recv return %d, errno = %d", static_cast<int>(n), error_of(n));
    return n > 0 || (n < 0 && errno == EAGAIN);
}

// ---- listening -----------------------------------------------------------------------------------

int tarn_socket_listen(TARN_SOCKET p, int backlog)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    return os::listen(p->handle, std::min(backlog & 0xFFFF, max_backlog));
}

TARN_SOCKET tarn_socket_accept(TARN_SOCKET p, uint32_t *ip, uint16_t *port, uint32_t timeout_ms)
{
    RVON(p, TARN_INVALID_HANDLE);
    RVOF(p->handle != INVALID_SOCKET, TARN_INVALID_HANDLE);
    RVOF(TARN_SOCKET_TYPE_IPV4 == p->sock_type, TARN_INVALID_HANDLE);
    tarn::socket_address peer{};
    tarn::socket_owner accepted = tarn::socket_accept(p, peer, timeout_ms);
    if (accepted && ip != nullptr)
    {
        *ip = os::ipv4_of(peer);
    }
    if (accepted && port != nullptr)
    {
        *port = os::port_of(peer);
    }
    return accepted.release();
}

TARN_SOCKET tarn_socket_accept_ipv6(TARN_SOCKET p, uint8_t *ip, uint16_t *port, uint32_t timeout_ms)
{
    RVON(p, TARN_INVALID_HANDLE);
    RVOF(p->handle != INVALID_SOCKET, TARN_INVALID_HANDLE);
    RVOF(TARN_SOCKET_TYPE_IPV6 == p->sock_type, TARN_INVALID_HANDLE);
    tarn::socket_address peer{};
    tarn::socket_owner accepted = tarn::socket_accept(p, peer, timeout_ms);
    if (accepted && ip != nullptr)
    {
        os::ipv6_of(peer, ip);
    }
    if (accepted && port != nullptr)
    {
        *port = os::port_of(peer);
    }
    return accepted.release();
}

// ---- options -------------------------------------------------------------------------------------

int tarn_socket_setopt_broadcast(TARN_SOCKET p, int value)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    return os::set_option(p->handle, os::option::broadcast, value);
}

int tarn_socket_setopt_reuse_addr(TARN_SOCKET p, int value)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    return os::set_option(p->handle, os::option::reuse_addr, value);
}

int tarn_socket_setopt_tcp_nodelay(TARN_SOCKET p, int value)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    return os::set_option(p->handle, os::option::tcp_nodelay, value);
}

int tarn_socket_setopt_bind_to_device(TARN_SOCKET p, const char *if_name)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVON(if_name, -1);
    return os::bind_to_device(p->handle, if_name);
}

// ---- traffic -------------------------------------------------------------------------------------

int tarn_socket_wait_for_recv(TARN_SOCKET p, uint32_t timeout_ms)
{
    constexpr uint32_t slice_ms = 1000;
    RVON(p, false);
    RVOF(p->handle != -1, false);
    int ready = 0;
    do
    {
        const tarn::deadline limit(timeout_ms == TARN_INFINITE ? slice_ms
                                                               : at_least_one_ms(timeout_ms));
        ready = tarn::socket_wait(p, os::readiness::read, limit);
    } while (ready == 0 && timeout_ms == TARN_INFINITE);
    return ready;
}

int tarn_socket_recv(TARN_SOCKET p, void *buf, size_t size, uint32_t timeout_ms)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVON(buf, -1);
    return result_of_receive(receive_stream(p, buf, size, timeout_ms));
}

int tarn_socket_recvfrom(TARN_SOCKET p, void *buf, size_t size, uint32_t *ip, uint16_t *port,
                         uint32_t timeout_ms)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVON(buf, -1);
    tarn::socket_address from{};
    const int result = receive_within(p, timeout_ms, [&](os::transfer mode) {
        return os::receive_from(p->handle, buf, size, from, mode);
    });
    log_transfer(p, "recvfrom", "[RX]", buf, result);
    if (result < 0)
    {
        return result == tarn::receive_timed_out ? 0 : -1;
    }
    if (os::type_of(from) != TARN_SOCKET_TYPE_IPV4)
    {
        return 0;
    }
    if (ip != nullptr)
    {
        *ip = os::ipv4_of(from);
    }
    if (port != nullptr)
    {
        *port = os::port_of(from);
    }
    return result;
}

int tarn_socket_send(TARN_SOCKET p, const void *buf, size_t len)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVON(buf, -1);
    const int result = static_cast<int>(os::send(p->handle, buf, len));
    log_transfer(p, "send", "[TX]", buf, result);
    return result;
}

int tarn_socket_sendto(TARN_SOCKET p, const void *buf, size_t len, uint32_t ip, uint16_t port)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVOF(TARN_SOCKET_TYPE_IPV4 == p->sock_type, -1);
    RVON(buf, -1);
    const int result =
        static_cast<int>(os::send_to(p->handle, buf, len, os::ipv4_address(ip, port)));
    log_transfer(p, "sendto", "[TX]", buf, result);
    return result;
}

// ---- start-up and teardown -----------------------------------------------------------------------

namespace
{

bool traffic_is_asked_for()
{
    const tarn::lock_guard lock(tarn::environment_lock);
    const char *value = std::getenv("TARN_LOG_SOCKET");
    return value != nullptr && tarn_str_equal_nocase(value, "1");
}

} // namespace

bool tarn_socket_init(void)
{
    quiet.store(!traffic_is_asked_for(), std::memory_order_relaxed);
    TARN_LOG_TRACE("%zu interface addresses", tarn::socket_host_read());
    return true;
}

void tarn_socket_uninit(void)
{
    tarn::socket_host_forget();
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
