// Connections: the TLS utility's table, and the record through which its sessions reach us.
//
// A session knows its link, not its connection: while one thread is inside a session on a link that
// another thread has taken down, the link is what still stands.

#include "tarn_conn_internal.h"
#include "tarn_modules.h"
#include "tarn_str.h"
#include "tarn_text.h"
#include "tarn_thread.h"

#include <algorithm>
#include <cerrno>

static_assert(sizeof(tlsu_if) == 320 || sizeof(void *) != 8);
static_assert(sizeof(tlsu_conn_if) == 64 || sizeof(void *) != 8);

namespace
{

using tarn::conn_link;

/** The functions of the TLS utility; size 0 without it. Written by the module's start-up only. */
constinit tlsu_if table{};

/** An accept waits in slices, to see a stop request. */
constexpr uint32_t accept_slice_ms = 500;
constexpr uint32_t incoming_timeout_ms = 30000;
constexpr size_t address_text_size = TARN_NAME_MAX;

conn_link *link_of(void *conn_h)
{
    return static_cast<conn_link *>(conn_h);
}

// ---- accepting --------------------------------------------------------------------------------------

/** Texts of a peer. */
struct peer_texts
{
    char addr[address_text_size];
    char port[8];
};

TARN_SOCKET accept_ipv4(TARN_SOCKET listener, peer_texts *peer, uint32_t timeout_ms)
{
    uint32_t ip = 0;
    uint16_t port = 0;
    TARN_SOCKET sock = tarn_socket_accept(listener, &ip, &port, timeout_ms);
    const uint32_t host = tarn_socket_ntohl(ip);
    (void)tarn_str_printf(peer->addr, sizeof peer->addr, "%u.%u.%u.%u", host >> 24,
                          host >> 16 & 255u, host >> 8 & 255u, host & 255u);
    (void)tarn_str_printf(peer->port, sizeof peer->port, "%u", tarn_socket_ntohs(port));
    return sock;
}

TARN_SOCKET accept_ipv6(TARN_SOCKET listener, peer_texts *peer, uint32_t timeout_ms)
{
    uint8_t ip[16] = {};
    uint16_t port = 0;
    TARN_SOCKET sock = tarn_socket_accept_ipv6(listener, ip, &port, timeout_ms);
    tarn::conn_ipv6_text(ip, peer->addr, sizeof peer->addr);
    (void)tarn_str_printf(peer->port, sizeof peer->port, "%u", tarn_socket_ntohs(port));
    return sock;
}

TARN_SOCKET accept_once(TARN_SOCKET listener, peer_texts *peer, uint32_t timeout_ms)
{
    *peer = {};
    switch (tarn_socket_get_type(listener))
    {
    case TARN_SOCKET_TYPE_IPV4:
        return accept_ipv4(listener, peer, timeout_ms);
    case TARN_SOCKET_TYPE_IPV6:
        return accept_ipv6(listener, peer, timeout_ms);
    default:
        return tarn_socket_accept_local(listener, peer->addr, sizeof peer->addr, timeout_ms);
    }
}

/** Wait for a peer until the time is up, a stop is requested, or the listener is shut down. */
TARN_SOCKET accept_peer(const conn_link *listener, peer_texts *peer, uint32_t timeout_ms)
{
    const tarn::deadline limit(timeout_ms);
    for (;;)
    {
        const uint64_t left_ms =
            limit.infinite() ? accept_slice_ms : (limit.left_ns() + 999999) / 1000000;
        const auto slice = static_cast<uint32_t>(std::min<uint64_t>(left_ms, accept_slice_ms));
        TARN_SOCKET sock = accept_once(listener->sock, peer, slice);
        if (sock != TARN_INVALID_HANDLE || tarn::socket_is_shut_down(listener->sock) ||
            (!limit.infinite() && limit.left_ns() == 0) || tarn_thread_sleep(0))
        {
            return sock;
        }
    }
}

/** The connection of a peer's socket, which it takes over; null on failure. */
TARN_CONN make_incoming(const conn_link *listener, TARN_SOCKET accepted, const peer_texts &peer)
{
    tarn::socket_owner sock(accepted);
    TARN_CONN svr = listener->conn;
    TARN_CONN conn = tarn::conn_make(tarn::conn_incoming, svr->bind_addr, svr->bind_port, peer.addr,
                                     *peer.port != '\0' ? peer.port : nullptr, incoming_timeout_ms);
    if (conn == nullptr)
    {
        return nullptr;
    }
    conn->tls_ctx_h = svr->tls_ctx_h;
    conn->tls_io = svr->tls_io;
    conn->server = tarn::conn_server_of(svr);
    tarn::conn_server_ref(conn->server);
    conn->on_disconnect = tarn::server_conn_destroy;
    conn->context = conn->server;
    conn_link *const link = tarn::conn_make_link(conn);
    if (link == nullptr || !tarn::socket_publish(link->slot, sock.get()))
    {
        tarn_conn_destroy(conn);
        return nullptr;
    }
    if (tarn_socket_get_type(sock.get()) != TARN_SOCKET_TYPE_LOCAL)
    {
        (void)tarn_socket_setopt_tcp_nodelay(sock.get(), 1);
    }
    link->sock = sock.release();
    (void)tarn::conn_set_link(conn, link);
    return conn;
}

conn_link *accept_link(conn_link *listener, uint32_t timeout_ms)
{
    TARN_CONN conn = tarn::conn_accept(listener, timeout_ms);
    return conn != nullptr ? conn->link : nullptr; // nobody else knows it yet
}

// ---- the connection under a session -----------------------------------------------------------------

int tlsu_conn_type(void *conn_h)
{
    return static_cast<int>(link_of(conn_h)->kind);
}

TLSU_SESSION tlsu_conn_tls(void *conn_h)
{
    return link_of(conn_h)->tls_h;
}

void tlsu_conn_close(void *conn_h)
{
    tarn_conn_destroy(link_of(conn_h)->conn);
}

int tlsu_conn_connect(void *conn_h)
{
    return tarn::conn_walk_connect(link_of(conn_h)) ? 0 : TARN_ERRLN;
}

void *tlsu_conn_accept(void *conn_h)
{
    return accept_link(link_of(conn_h), link_of(conn_h)->timeout_ms);
}

void *tlsu_conn_accept_now(void *conn_h)
{
    return accept_link(link_of(conn_h), 0);
}

int tlsu_conn_send(void *conn_h, const void *bytes, int len)
{
    const conn_link *const link = link_of(conn_h);
    TARN_LOG_DEBUG("conn = [%p], sock = [%p], buf_len = [%d]", static_cast<void *>(link->conn),
                   static_cast<void *>(link->sock), len);
    const tarn::send_part part = {bytes, static_cast<size_t>(len)};
    const uint32_t limit = __atomic_load_n(&link->send_limit_ms, __ATOMIC_RELAXED);
    return static_cast<int>(
        tarn::socket_send_parts(link->sock, {&part, 1}, limit != 0 ? limit : TARN_INFINITE));
}

int tlsu_conn_recv(void *conn_h, void *buffer, int max_len, uint32_t timeout_ms)
{
    const conn_link *const link = link_of(conn_h);
    TARN_LOG_DEBUG("conn = [%p], sock = [%p], buf_len = [%d], timeout_ms = [%u]",
                   static_cast<void *>(link->conn), static_cast<void *>(link->sock), max_len,
                   timeout_ms);
    const int n = tarn::socket_receive_alone(link->sock, buffer, static_cast<size_t>(max_len),
                                             timeout_ms); // the session lets in one at a time
    return n < 0 && errno == EINTR ? 0 : n;
}

const char *tlsu_conn_peer_name(void *conn_h)
{
    return link_of(conn_h)->peer_host;
}

} // namespace

namespace tarn
{

const tlsu_if *conn_tls()
{
    return &table;
}

bool conn_has_tls()
{
    if (table.ctx_create == nullptr)
    {
        TARN_LOG_ERROR("TLS util library is not available!");
        return false;
    }
    return true;
}

TLSU_CTX conn_make_tls_context(const tlsu_credentials *secret)
{
    if (secret->size < offsetof(tlsu_credentials, reserved))
    {
        TARN_LOG_ERROR("credentials of %u bytes are too short", secret->size);
        return nullptr;
    }
    return table.ctx_create(secret->secret, secret->chain, secret->chain_len, secret->cert,
                            secret->cert_len, secret->key, secret->key_len);
}

void conn_fill_tls_io(tlsu_conn_if_ex *io, uint32_t flags, uint32_t handshake_timeout_ms)
{
    *io = {};
    io->base.size = sizeof *io;
    io->base.type = tlsu_conn_type;
    io->base.tls = tlsu_conn_tls;
    io->base.close = tlsu_conn_close;
    io->base.connect = tlsu_conn_connect;
    io->base.accept = tlsu_conn_accept;
    io->base.send = tlsu_conn_send;
    io->base.receive = tlsu_conn_recv;
    io->flags = flags;
    io->handshake_timeout_ms = handshake_timeout_ms;
    io->peer_name = tlsu_conn_peer_name;
    io->accept_now = tlsu_conn_accept_now;
    io->piece_size = 17408; // a whole TLS record at once
}

TARN_CONN conn_accept(conn_link *listener, uint32_t timeout_ms)
{
    peer_texts peer;
    TARN_SOCKET sock = accept_peer(listener, &peer, timeout_ms);
    return sock != TARN_INVALID_HANDLE ? make_incoming(listener, sock, peer) : nullptr;
}

} // namespace tarn

bool tarn_conn_init(void)
{
#if defined(TARN_WITH_TLS)
    // Once: the table never changes, and a thread that was told to go before the last teardown may
    // be closing its session still.
    if (table.size == 0)
    {
        tlsu_if filled = {};
        filled.size = sizeof filled;
        const int rc = tlsu_if_get(&filled);
        if (rc == 0)
        {
            table = filled;
        }
        else
        {
            TARN_LOG_ERROR("tlsu_if_get failed, rc = [%d]", rc);
        }
    }
#endif
    return true; // without a table only TLS connections fail
}

void tarn_conn_uninit(void) {}
