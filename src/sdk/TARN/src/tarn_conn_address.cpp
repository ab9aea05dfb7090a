// Connections: sockets for pairs of addresses, and the walk over lists of addresses and ports.
//
// The walk calls a handler for every port of every address. A result above 0 ends the ports of an
// address, one above 1 ends the walk. A success is 1: the walk deliberately goes on to the next
// address, whose attempt replaces the socket of the one before, and the last attempt decides.

#include "tarn_algorithm.h"
#include "tarn_conn_internal.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_str.h"

#include <cerrno>

namespace
{

using tarn::conn_is_set;
using tarn::conn_link;
using tarn::socket_owner;

constexpr int handler_failed = 0;
constexpr int handler_done = 1;
constexpr int handler_aborted = 2; ///< ends the walk

/** The one service whose local socket is a file. */
constexpr char file_service[] = "Wardmon";

const char *or_empty(const char *text)
{
    return text != nullptr ? text : "";
}

/** For texts of the form "%s%s%s": address, separator, port. */
const char *separator(const char *port)
{
    return conn_is_set(port) ? ":" : "";
}

bool is_file_service(const char *name)
{
    return tarn_str_equal(name, file_service);
}

/** The first address of a look-up that is IPv4 or IPv6. */
bool resolve(const char *addr, const char *port, tarn::resolved_address *out)
{
    tarn::resolved_addresses found(addr, port);
    if (found.error() != 0)
    {
        TARN_LOG_ERROR("getaddrinfo failed for ( %s : %s ), rc = %d (%s)", or_empty(addr),
                       or_empty(port), found.error(), found.error_text());
        return false;
    }
    while (found.next(*out))
    {
        if (out->sock_type != 0)
        {
            return true;
        }
    }
    return false;
}

TARN_SOCKET network_socket(const char *bind_addr, const char *bind_port, const char *peer_addr,
                           const char *peer_port)
{
    const bool bound = conn_is_set(bind_addr);
    tarn::resolved_address address{};
    if (!resolve(bound ? bind_addr : peer_addr, bound ? bind_port : peer_port, &address))
    {
        return TARN_INVALID_HANDLE;
    }
    socket_owner sock(tarn_socket_create(address.domain, address.type, address.protocol));
    if (!sock)
    {
        const int error = errno;
        TARN_LOG_ERROR("fail to create socket, error = %d (%s)", error,
                       tarn::error_text(error).c_str());
        return TARN_INVALID_HANDLE;
    }
    (void)tarn_socket_setopt_tcp_nodelay(sock.get(), 1);
    if (bound)
    {
        (void)tarn_socket_setopt_reuse_addr(sock.get(), 1);
        if (tarn::socket_port::bind(tarn_socket_get_handle(sock.get()), address.address) != 0)
        {
            const int error = errno;
            TARN_LOG_ERROR("fail to bind addr = %s, port = %s, error = %d (%s)", bind_addr,
                           or_empty(bind_port), error, tarn::error_text(error).c_str());
            return TARN_INVALID_HANDLE;
        }
    }
    return sock.release();
}

TARN_SOCKET local_socket(const char *bind_addr)
{
    socket_owner sock(tarn::conn_local_stream_socket());
    if (!sock)
    {
        const int error = errno;
        TARN_LOG_ERROR("fail to create socket, error = %d (%s)", error,
                       tarn::error_text(error).c_str());
        return TARN_INVALID_HANDLE;
    }
    if (conn_is_set(bind_addr))
    {
        const int rc = is_file_service(bind_addr)
                           ? tarn_socket_bind_local_not_abstract(sock.get(), bind_addr)
                           : tarn_socket_bind_local(sock.get(), bind_addr);
        if (rc != 0)
        {
            const int error = errno;
            TARN_LOG_ERROR("fail to bind addr = %s, error = %d (%s)", bind_addr, error,
                           tarn::error_text(error).c_str());
            return TARN_INVALID_HANDLE;
        }
    }
    return sock.release();
}

bool is_network(TARN_CONN conn, const char *port)
{
    return conn_is_set(conn->bind_port) || conn_is_set(port);
}

/** Close the socket of the attempt before. */
void close_socket(conn_link *link)
{
    if (link->sock != TARN_INVALID_HANDLE)
    {
        (void)tarn::socket_unpublish(link->slot);
        tarn_socket_destroy(std::exchange(link->sock, nullptr));
    }
}

int connect_socket(TARN_CONN conn, TARN_SOCKET sock, const char *addr, const char *port,
                   uint32_t timeout_ms)
{
    if (is_network(conn, port))
    {
        return tarn_socket_connect_ex(sock, addr, port, nullptr, timeout_ms);
    }
    return is_file_service(addr) ? tarn_socket_connect_local_not_abstract(sock, addr, timeout_ms)
                                 : tarn_socket_connect_local_with_timeout(sock, addr, timeout_ms);
}

/** One attempt to connect. */
int addr_handler_connect(conn_link *link, const char *addr, const char *port)
{
    TARN_CONN conn = link->conn;
    close_socket(link);
    socket_owner sock(tarn::conn_socket_create(conn->bind_addr, conn->bind_port, addr, port));
    if (!sock)
    {
        return handler_failed;
    }
    if (!tarn::socket_publish(link->slot, sock.get()))
    {
        return handler_aborted;
    }
    // Kept for the check of a certificate, whose name has to be this one.
    tarn_mem_free(std::exchange(link->peer_host, addr != nullptr ? tarn_str_dup(addr) : nullptr));
    const int rc = connect_socket(conn, sock.get(), addr, port, link->timeout_ms);
    const int error = errno;
    if (rc == 0)
    {
        link->sock = sock.release();
        tarn::conn_set_peer(conn, addr, port);
        return handler_done;
    }
    TARN_LOG_WARN("connect to %s%s%s failed, error = %d (%s)", or_empty(addr), separator(port),
                  or_empty(port), error, tarn::error_text(error).c_str());
    return tarn::socket_unpublish(link->slot) ? handler_failed : handler_aborted;
}

/** One attempt to bind a listening socket. */
int addr_handler_bind(conn_link *link, const char *addr, const char *port)
{
    close_socket(link);
    socket_owner sock(tarn::conn_socket_create(addr, port, nullptr, nullptr));
    if (!sock || !tarn::socket_publish(link->slot, sock.get()))
    {
        return handler_failed;
    }
    link->sock = sock.release();
    return handler_done;
}

int call_connect_handler(void *link, void *, const char *addr, const char *port, void *)
{
    return addr_handler_connect(static_cast<conn_link *>(link), addr, port);
}

int call_bind_handler(void *link, void *, const char *addr, const char *port, void *)
{
    return addr_handler_bind(static_cast<conn_link *>(link), addr, port);
}

} // namespace

namespace tarn
{

TARN_SOCKET conn_socket_create(const char *bind_addr, const char *bind_port, const char *peer_addr,
                               const char *peer_port)
{
    return conn_is_set(bind_port) || conn_is_set(peer_port)
               ? network_socket(bind_addr, bind_port, peer_addr, peer_port)
               : local_socket(bind_addr);
}

bool conn_walk_connect(conn_link *link)
{
    TARN_CONN conn = link->conn;
    (void)tarn_algorithm_for_each_pair(link, nullptr, conn->peer_addr, conn->peer_port,
                                       call_connect_handler, nullptr);
    return link->sock != TARN_INVALID_HANDLE;
}

bool conn_walk_bind(conn_link *link)
{
    TARN_CONN conn = link->conn;
    (void)tarn_algorithm_for_each_pair(link, nullptr, conn->bind_addr, conn->bind_port,
                                       call_bind_handler, nullptr);
    return link->sock != TARN_INVALID_HANDLE;
}

} // namespace tarn
