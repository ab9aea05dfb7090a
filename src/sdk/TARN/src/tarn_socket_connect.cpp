// Sockets: connecting within a time-out, over the addresses of a name, and its end by another
// thread.
//
// A shutdown ends a connect that is under way, but one that comes between the socket's creation and
// the system's connect would be lost: the mark in the record is set before the shutdown and looked
// at after the connect has begun, so that one of the two always sees the other.
//
// A socket that is shown to other threads is shut down by them under the same lock under which it
// is taken back, and freed only after that.

#include "tarn_socket.h"

#include "tarn_socket_internal.h"
#include "tarn_sys.h"
#include "tarn_thread.h"

#include <algorithm>
#include <atomic>
#include <cerrno>

namespace os = tarn::socket_port;

namespace
{

/** How often a connect looks for room in the full backlog of a local server, which nothing
 *  announces. */
constexpr uint64_t backlog_retry_ns = 2000000;

/** Guards every place in which a connecting socket is published. */
constinit tarn::static_mutex publication_lock;

int connect_failed(int error)
{
    TARN_LOG_TRACE("connect failed, error = %d", error);
    errno = error;
    return -1;
}

int timed_out()
{
    TARN_LOG_TRACE("select timeout");
    errno = ETIMEDOUT;
    return TARN_SOCKET_CONNECT_TIMEOUT;
}

/** The outcome of a connect that is no longer under way. */
int connect_outcome(TARN_SOCKET p)
{
    int error = 0;
    if (os::take_error(p->handle, error) != 0)
    {
        TARN_LOG_ERROR("getsockopt failed, error = %d", errno);
        return -1;
    }
    if (error != 0)
    {
        TARN_LOG_TRACE("getsockopt return error %d", error);
        errno = error;
        return -1;
    }
    // A socket that never began to connect is writable and without error too.
    tarn::socket_address peer{};
    return os::peer_address(p->handle, peer) == 0 ? 0 : connect_failed(errno);
}

int wait_for_outcome(TARN_SOCKET p, const tarn::deadline &limit)
{
    const int ready = tarn::socket_wait(p, os::readiness::write, limit);
    if (ready == 0)
    {
        return timed_out();
    }
    return ready < 0 ? -1 : connect_outcome(p);
}

/** A local socket does not queue at a full backlog: it has to come again. */
int retry_local(TARN_SOCKET p, const tarn::socket_address &address, const tarn::deadline &limit)
{
    for (;;)
    {
        if (!limit.infinite() && limit.left_ns() == 0)
        {
            return timed_out();
        }
        tarn_sleep_ns(limit.infinite()
                          ? backlog_retry_ns
                          : std::clamp<uint64_t>(limit.left_ns(), 1, backlog_retry_ns));
        if (tarn::socket_is_shut_down(p) || os::connect(p->handle, address) == 0)
        {
            return 0; // the caller looks at the mark
        }
        if (errno != EAGAIN)
        {
            return connect_failed(errno);
        }
    }
}

int connect_nonblocking(TARN_SOCKET p, const tarn::socket_address &address, uint32_t timeout_ms)
{
    const tarn::deadline limit(timeout_ms);
    if (os::connect(p->handle, address) == 0)
    {
        return 0;
    }
    if (errno != EINPROGRESS && errno != EAGAIN)
    {
        return connect_failed(errno);
    }
    if (tarn::socket_is_shut_down(p))
    {
        return 0; // as above
    }
    return errno == EAGAIN && p->sock_type == TARN_SOCKET_TYPE_LOCAL
               ? retry_local(p, address, limit)
               : wait_for_outcome(p, limit);
}

// ---- names to addresses --------------------------------------------------------------------------

const char *text_of(const char *text)
{
    return text == nullptr ? "" : text;
}

bool resolved(const tarn::resolved_addresses &addresses, const char *host, const char *port)
{
    if (addresses.error() != 0)
    {
        TARN_LOG_ERROR("getaddrinfo for %s:%s failed: %s", text_of(host), text_of(port),
                       addresses.error_text());
    }
    return addresses.error() == 0;
}

bool bind_to_device(TARN_SOCKET p, const char *device)
{
    (void)tarn_socket_setopt_reuse_addr(p, 1);
    TARN_LOG_TRACE("bind to device %s", device);
    const bool bound = os::bind_to_device(p->handle, device) == 0;
    if (!bound)
    {
        TARN_LOG_ERROR("fail to bind to interface %s, error = %d", device, errno);
    }
    return bound;
}

bool stop_requested()
{
    return tarn_thread_sleep(0);
}

// ---- publication ---------------------------------------------------------------------------------

/** Where an attempt is shown: either may be null. */
struct publication
{
    TARN_SOCKET *place;
    const bool *aborted;
};

bool publish(const publication &where, TARN_SOCKET p)
{
    const tarn::lock_guard lock(publication_lock);
    if (where.aborted != nullptr && *where.aborted)
    {
        return false;
    }
    if (where.place != nullptr)
    {
        // Atomic for callers that look whether an attempt runs.
        std::atomic_ref(*where.place).store(p, std::memory_order_relaxed);
    }
    return true;
}

void unpublish(const publication &where)
{
    const tarn::lock_guard lock(publication_lock);
    if (where.place != nullptr)
    {
        std::atomic_ref(*where.place).store(nullptr, std::memory_order_relaxed);
    }
}

bool is_aborted(const publication &where)
{
    const tarn::lock_guard lock(publication_lock);
    return where.aborted != nullptr && *where.aborted;
}

/** Shuts the socket at a place down and sets the mark beside it.
 *  @return true when there was one */
bool shut_down_published(const TARN_SOCKET &place, bool *mark)
{
    TARN_SOCKET p = TARN_INVALID_HANDLE;
    int result = 0;
    {
        const tarn::lock_guard lock(publication_lock);
        if (mark != nullptr)
        {
            *mark = true;
        }
        p = place;
        result = p == TARN_INVALID_HANDLE ? 0 : tarn::socket_shut_down(p);
    }
    if (p != TARN_INVALID_HANDLE)
    {
        tarn::socket_log_shutdown(p, result);
    }
    return p != TARN_INVALID_HANDLE;
}

/** One attempt on a socket of its own.
 *  @return empty when it failed */
tarn::socket_owner attempt(const tarn::resolved_address &candidate, const char *host,
                           const char *port, const char *device, const publication &where,
                           uint32_t timeout_ms)
{
    tarn::socket_owner p(tarn_socket_create(candidate.domain, candidate.type, candidate.protocol));
    if (!p || (device != nullptr && !bind_to_device(p.get(), device)) || !publish(where, p.get()))
    {
        return {};
    }
    int result = -1;
    {
        const tarn::scope_exit take_back([&where] { unpublish(where); });
        TARN_LOG_TRACE("connecting %s:%s ...", text_of(host), text_of(port));
        result = tarn::socket_connect(p.get(), candidate.address, timeout_ms);
    }
    // Shut down between the connect and the unpublishing: of no use any more.
    if (result != 0 || tarn::socket_is_shut_down(p.get()))
    {
        return {};
    }
    return p;
}

TARN_SOCKET connect_to_any(const char *host, const char *port, const char *device,
                           const publication &where, uint32_t timeout_ms)
{
    tarn::resolved_addresses addresses(host, port);
    if (!resolved(addresses, host, port))
    {
        return TARN_INVALID_HANDLE;
    }
    tarn::resolved_address candidate{};
    while (addresses.next(candidate) && !stop_requested() && !is_aborted(where))
    {
        if (auto p = attempt(candidate, host, port, device, where, timeout_ms))
        {
            return p.release();
        }
    }
    return TARN_INVALID_HANDLE;
}

} // namespace

namespace tarn
{

int socket_connect(TARN_SOCKET p, const socket_address &address, uint32_t timeout_ms)
{
    os::enable_keep_alive(p->handle);
    const int flags = os::get_flags(p->handle);
    if (flags < 0)
    {
        TARN_LOG_ERROR("fcntl(..., F_GETFL) %d", errno);
        return flags;
    }
    if (const int result = os::set_nonblocking(p->handle, flags); result < 0)
    {
        TARN_LOG_ERROR("fcntl(..., F_SETFL) %d", errno);
        return result;
    }
    const scope_exit restore_flags([p, flags] {
        const errno_keeper keep_errno;
        (void)os::set_flags(p->handle, flags);
    });
    if (socket_is_shut_down(p))
    {
        return connect_failed(ECONNABORTED);
    }
    const int result = connect_nonblocking(p, address, timeout_ms);
    if (result == 0 && socket_is_shut_down(p))
    {
        (void)os::shut_down(p->handle);
        return connect_failed(ECONNABORTED);
    }
    return result;
}

bool socket_publish(connect_slot &slot, TARN_SOCKET p)
{
    return publish({&slot.socket, &slot.aborted}, p);
}

bool socket_unpublish(connect_slot &slot)
{
    const lock_guard lock(publication_lock);
    slot.socket = nullptr;
    return !slot.aborted;
}

void socket_abort(connect_slot &slot)
{
    (void)shut_down_published(slot.socket, &slot.aborted);
}

void socket_abort_clear(connect_slot &slot)
{
    const lock_guard lock(publication_lock);
    slot.aborted = false;
}

TARN_SOCKET socket_create_tcp_connection(const char *host, const char *port, const char *device,
                                         connect_slot &slot, uint32_t timeout_ms)
{
    return connect_to_any(host, port, device, {&slot.socket, &slot.aborted}, timeout_ms);
}

} // namespace tarn

int tarn_socket_connect_with_timeout(TARN_SOCKET p, uint32_t ip, uint16_t port, uint32_t timeout_ms)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVOF(TARN_SOCKET_TYPE_IPV4 == p->sock_type, -1);
    return tarn::socket_connect(p, os::ipv4_address(ip, port), timeout_ms);
}

int tarn_socket_connect_ipv6_with_timeout(TARN_SOCKET p, const uint8_t *ip, uint16_t port,
                                          uint32_t timeout_ms)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVOF(TARN_SOCKET_TYPE_IPV6 == p->sock_type, -1);
    RVON(ip, -1);
    return tarn::socket_connect(p, os::ipv6_address(ip, port), timeout_ms);
}

int tarn_socket_connect_ex(TARN_SOCKET p, const char *host, const char *port, const char *device,
                           uint32_t timeout_ms)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    tarn::resolved_addresses addresses(host, port);
    if (!resolved(addresses, host, port) || (device != nullptr && !bind_to_device(p, device)))
    {
        return -1;
    }
    int result = TARN_SOCKET_CONNECT_TIMEOUT;
    bool tried = false;
    tarn::resolved_address candidate{};
    while (addresses.next(candidate) && !stop_requested())
    {
        if (candidate.sock_type != p->sock_type)
        {
            continue;
        }
        if (tried)
        {
            (void)os::disconnect(p->handle); // an attempt that failed stands in the next one's way
        }
        tried = true;
        TARN_LOG_TRACE("connecting %s:%s ...", text_of(host), text_of(port));
        result = tarn::socket_connect(p, candidate.address, timeout_ms);
        if (result == 0 || tarn::socket_is_shut_down(p))
        {
            break;
        }
    }
    return result;
}

TARN_SOCKET tarn_socket_create_tcp_connection_with_timeout(const char *host, const char *port,
                                                           const char *device,
                                                           TARN_SOCKET *connecting,
                                                           uint32_t timeout_ms)
{
    if (connecting != nullptr)
    {
        unpublish({connecting, nullptr});
    }
    return connect_to_any(host, port, device, {connecting, nullptr}, timeout_ms);
}

bool tarn_socket_abort_connect(TARN_SOCKET *connecting)
{
    RVON(connecting, false);
    return shut_down_published(*connecting, nullptr);
}
