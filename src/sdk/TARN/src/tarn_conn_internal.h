// Private: the connection record and its link; for tarn_conn*.cpp, the RPC endpoints, local IPC and
// the tests.
#ifndef TARN_CONN_INTERNAL_H
#define TARN_CONN_INTERNAL_H

#include "tarn_conn.h"

#include "tarn_critical_section.h"
#include "tarn_socket_internal.h"
#include "tlsu.h"

#include <span>

namespace tarn
{

enum conn_kind : uint32_t
{
    conn_client = 1,
    conn_server = 2,
    conn_incoming = 3
};

/** One transport of a connection: its socket and, over that, its TLS session. A connect makes a new
 *  one, a disconnect takes it away. Who uses it holds a reference, so that a disconnect by another
 *  thread only shuts it down: the last reference closes. */
struct conn_link
{
    uint32_t refs;          ///< atomic
    TARN_CONN leaving;      ///< with a reference: whose disconnect took it down; null before
    uint32_t kind;          ///< conn_kind
    uint32_t timeout_ms;    ///< of a connect or an accept
    TARN_CONN conn;         ///< whose link it is; alive while the link is being set up
    TARN_SOCKET sock;       ///< written while the link is set up, fixed afterwards
    TLSU_SESSION tls_h;     ///< null: plain
    uint32_t send_limit_ms; ///< of one piece of a session's bytes; atomic; 0: none
    char *peer_host;        ///< address that is being connected, for the check of its certificate
    connect_slot slot;      ///< shows the socket to socket_abort()
};

void link_ref(conn_link *link);
void link_unref(conn_link *link);

/** Count of the callbacks of an object that run, or are going to; its fields belong to the functions
 *  below, which share one lock. Zero is a valid start. */
struct callback_count
{
    uint32_t running;
};

/** A text that others may be reading: never changed, kept until the connection goes. */
struct conn_text
{
    conn_text *next;
    char text[1];
};

} // namespace tarn

struct tarn_conn
{
    uint32_t kind;         ///< tarn::conn_kind
    tarn::conn_link *link; ///< under lock
    uint32_t timeout_ms;
    uint8_t is_connected; ///< atomic; set and cleared under lock
    uint8_t owns_tls_ctx; ///< an incoming connection has its server's
    TLSU_CTX tls_ctx_h;
    tarn_conn_on_connect on_connect;
    tarn_conn_on_disconnect on_disconnect;
    void *context;
    char *bind_addr;
    char *bind_port;
    char *peer_addr;
    char *peer_port;
    const char *name; ///< these three: atomic, point into texts
    const char *local_name;
    const char *peer_name;
    uint32_t last_tick; ///< atomic; 0: no activity yet
    tlsu_conn_if_ex tls_io;
    TARN_CRITICAL_SECTION lock; ///< leaf; guards link and texts
    tarn::conn_text *texts;
    uint32_t refs;     ///< atomic: the handle, and every call that is inside
    uint8_t destroyed; ///< atomic
    tarn::callback_count callbacks;
    tarn::callback_count leaving; ///< links that were taken down but are in use still
    TARN_CONN_SERVER server;      ///< of an incoming connection, with a reference
};

namespace tarn
{

/** A reference on a connection's memory, for a level above that still calls on it while it is being
 *  destroyed: such calls fail. */
void conn_ref(TARN_CONN conn);
void conn_unref(TARN_CONN conn);

/** Keeps a connection's memory while a call is inside. */
class [[nodiscard]] conn_pin
{
public:
    explicit conn_pin(TARN_CONN conn);
    conn_pin(const conn_pin &) = delete;
    conn_pin &operator=(const conn_pin &) = delete;
    ~conn_pin();

private:
    TARN_CONN conn_;
};

/** Holds a link; empty when there is none. */
class [[nodiscard]] link_pin
{
public:
    link_pin() = default;
    /** Takes over a reference. */
    explicit link_pin(conn_link *link) noexcept : link_(link) {}
    link_pin(link_pin &&other) noexcept : link_(std::exchange(other.link_, nullptr)) {}
    link_pin &operator=(link_pin &&) = delete;
    ~link_pin()
    {
        reset();
    }
    [[nodiscard]] conn_link *get() const noexcept
    {
        return link_;
    }
    conn_link *operator->() const noexcept
    {
        return link_;
    }
    void reset()
    {
        if (conn_link *const link = std::exchange(link_, nullptr))
        {
            link_unref(link);
        }
    }
    explicit operator bool() const noexcept
    {
        return link_ != nullptr;
    }

private:
    conn_link *link_ = nullptr;
};

/** The current link, held. */
link_pin conn_hold_link(TARN_CONN conn);

/** Write several parts as one, in one system call or TLS record as far as their size allows.
 *  @param timeout_ms  of a plain connection's whole write
 *  @return bytes of the parts that were handed on, counted from the beginning of the first one: all
 *          on success; fewer, or negative, when the connection failed (logged) or is not connected. */
int64_t conn_write_parts(TARN_CONN conn, std::span<const send_part> parts, uint32_t timeout_ms);

/** The same on a link that the caller holds, whether it is the connection's current one or not: what
 *  belongs to one link never goes out on the next. */
int64_t conn_write_link_parts(TARN_CONN conn, conn_link *link, std::span<const send_part> parts,
                              uint32_t timeout_ms);

/** End what other threads are blocked in on this connection, without disconnecting: its reader finds
 *  the break. */
void conn_abort(TARN_CONN conn);

/* ---- between the sources of this module ---------------------------------------------------------- */

/** The TLS utility's functions; null without it. */
const tlsu_if *conn_tls();

/** Whether there is a table; logged when there is none. */
bool conn_has_tls();

/** New context of credentials.
 *  @return null on failure */
TLSU_CTX conn_make_tls_context(const tlsu_credentials *secret);

/** Fill in the record through which a session reaches its connection.
 *  @param handshake_timeout_ms  0: the TLS utility's own limit */
void conn_fill_tls_io(tlsu_conn_if_ex *io, uint32_t flags, uint32_t handshake_timeout_ms);

/** A new object of a kind, with one reference; null when memory ran out. */
TARN_CONN conn_make(uint32_t kind, const char *bind_addr, const char *bind_port,
                    const char *peer_addr, const char *peer_port, uint32_t timeout_ms);

/** A new link of a connection, with its session when the connection has a context; null on
 *  failure. */
conn_link *conn_make_link(TARN_CONN conn);

/** Make a link the connection's own; takes over the reference.
 *  @return false when the connection has been destroyed: the link is gone then */
bool conn_set_link(TARN_CONN conn, conn_link *link);

/** Mark connected, if this is still the link.
 *  @return false when it was disconnected meanwhile */
bool conn_mark_connected(TARN_CONN conn, const conn_link *link);

/** Take a link down and call on_disconnect when the connection stood; does nothing when the
 *  connection has another link by now.
 *  @param link  null: whichever it has
 *  @param held  the caller's own hold on it, given up before the callback, which may want to connect
 *               from the same address; may be null */
void conn_disconnect_link(TARN_CONN conn, const conn_link *link, link_pin *held = nullptr);

/** Count a callback that is going to run: under the lock that decides that it does, so that a
 *  destroy on another thread waits for it. */
void count_callback(callback_count &count);

/** Runs a callback that was counted, and ends its count. */
class [[nodiscard]] callback_scope
{
public:
    explicit callback_scope(callback_count &count) noexcept;
    callback_scope(const callback_scope &) = delete;
    callback_scope &operator=(const callback_scope &) = delete;
    ~callback_scope();

private:
    friend uint32_t own_callbacks(const callback_count &count);
    callback_count &count_;
    const callback_scope *outer_;
};

/** Wait until no other thread is inside a callback, or about to be. */
void wait_for_callbacks(const callback_count &count);

/** Endpoint text of an address and a port, either may be null: "ADDRESS:PORT". */
void conn_set_peer(TARN_CONN conn, const char *addr, const char *port);
void conn_set_local(TARN_CONN conn, const char *addr, const char *port);

/** A socket for one pair of addresses, bound when there is an address to bind to; null on failure
 *  (logged). */
TARN_SOCKET conn_socket_create(const char *bind_addr, const char *bind_port, const char *peer_addr,
                               const char *peer_port);

/** Connect a link's transport: the walk over all addresses and ports.
 *  @return true when the last one stands */
bool conn_walk_connect(conn_link *link);

/** Bind a server's link: the walk over all addresses and ports.
 *  @return true when the last one stands */
bool conn_walk_bind(conn_link *link);

/** Wait for a peer on a server's listening link.
 *  @return a new incoming connection with one reference; null when none came */
TARN_CONN conn_accept(conn_link *listener, uint32_t timeout_ms);

/** True for a text with something in it. */
inline bool conn_is_set(const char *text)
{
    return text != nullptr && *text != '\0';
}

/** What only the system knows; written in linux/tarn_conn_linux.cpp. */
TARN_SOCKET conn_local_stream_socket();
/** Numeric text of an IPv6 address of 16 bytes; size at least 46. */
void conn_ipv6_text(const uint8_t *ip, char *out, size_t size);

/** The reference of a server that an incoming connection holds. */
void conn_server_ref(TARN_CONN_SERVER svr);
void conn_server_unref(TARN_CONN_SERVER svr);

/** The server of a listening connection. */
TARN_CONN_SERVER conn_server_of(TARN_CONN listener);

/** on_disconnect of incoming connections; the context is the server. */
void server_conn_destroy(TARN_CONN conn, void *server);

} // namespace tarn

#endif
