// Connection server: accepts peers on its own thread or in the caller's turns, and keeps them in a
// bounded list.
//
// Being in the list is what makes a connection the server's: whoever takes it out, under the list
// lock, reports its end, once. Callbacks run without that lock. Incoming connections hold a
// reference to the server, so that one that outlives it finds an empty list instead of freed memory.

#include "tarn_check.h"
#include "tarn_conn_internal.h"
#include "tarn_list.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_str.h"
#include "tarn_sys.h"
#include "tarn_text.h"
#include "tarn_thread.h"

#include <algorithm>
#include <cerrno>
#include <utility>

struct tarn_conn_server
{
    TARN_CONN listener;  ///< of kind tarn::conn_server; its context is this record
    TARN_THREAD thread;  ///< atomic; null: no loop runs
    TARN_LIST conn_list; ///< under conn_list_cs
    TARN_CRITICAL_SECTION conn_list_cs;
    uint32_t last_print; ///< tick; of the thread that runs the turns
    uint32_t max_conn;
    tarn_conn_on_connect on_connect;
    tarn_conn_on_disconnect on_disconnect;
    void *context;
    uint32_t refs;                  ///< atomic: the handle, turns, incoming connections
    uint8_t destroyed;              ///< under conn_list_cs
    tarn::callback_count callbacks; ///< of the upper level
};

namespace
{

using tarn::conn_link;
using tarn::conn_pin;
using tarn::link_pin;

constexpr uint32_t print_interval_ms = 60000;

TARN_THREAD thread_of(TARN_CONN_SERVER svr)
{
    return __atomic_load_n(&svr->thread, __ATOMIC_ACQUIRE);
}

/** Keeps a server's memory for a scope. */
class [[nodiscard]] server_pin
{
public:
    explicit server_pin(TARN_CONN_SERVER svr) : svr_(svr)
    {
        tarn::conn_server_ref(svr);
    }
    server_pin(const server_pin &) = delete;
    server_pin &operator=(const server_pin &) = delete;
    ~server_pin()
    {
        tarn::conn_server_unref(svr_);
    }

private:
    TARN_CONN_SERVER svr_;
};

void free_server(TARN_CONN_SERVER svr)
{
    tarn_conn_destroy(svr->listener);
    tarn_list_destroy(svr->conn_list);
    tarn_critical_section_destroy(svr->conn_list_cs);
    tarn_mem_free(svr);
}

// ---- the list ---------------------------------------------------------------------------------------

enum class added
{
    yes,
    full,
    server_gone
};

added add_to_list(TARN_CONN_SERVER svr, TARN_CONN conn)
{
    const tarn::critical_section_guard guard(svr->conn_list_cs);
    if (svr->destroyed != 0)
    {
        return added::server_gone;
    }
    return tarn_list_push_back(svr->conn_list, conn) ? added::yes : added::full;
}

/** Take a connection out, and count the report of its end.
 *  @return false when it is not in the list: it is somebody else's to report */
bool remove_from_list(TARN_CONN_SERVER svr, TARN_CONN conn)
{
    const tarn::critical_section_guard guard(svr->conn_list_cs);
    if (tarn_list_remove(svr->conn_list, conn) == nullptr)
    {
        return false;
    }
    tarn::count_callback(svr->callbacks);
    return true;
}

/** The same for any connection. One that is in the list is not freed, because its destroy passes the
 *  list first; afterwards the count of its callbacks keeps it.
 *  @return null when the list is empty */
TARN_CONN pop_from_list(TARN_CONN_SERVER svr)
{
    const tarn::critical_section_guard guard(svr->conn_list_cs);
    if (tarn_list_is_empty(svr->conn_list))
    {
        return nullptr;
    }
    auto *const conn = static_cast<TARN_CONN>(tarn_list_pop_front(svr->conn_list));
    tarn::count_callback(svr->callbacks);
    tarn::count_callback(conn->callbacks);
    return conn;
}

/** Report the end of a connection that the caller has taken out of the list. */
void report_end(TARN_CONN_SERVER svr, TARN_CONN conn)
{
    const server_pin pin(svr);
    const tarn::callback_scope scope(svr->callbacks);
    TARN_LOG_TRACE("remove broken connection %s", tarn_conn_name(conn));
    if (svr->on_disconnect != nullptr)
    {
        svr->on_disconnect(conn, svr->context);
        return;
    }
    tarn_conn_destroy(conn);
}

/** Call the server's on_connect. */
int report_connect(TARN_CONN_SERVER svr, TARN_CONN conn)
{
    tarn::count_callback(svr->callbacks);
    tarn::count_callback(conn->callbacks);
    const tarn::callback_scope server_scope(svr->callbacks);
    const tarn::callback_scope scope(conn->callbacks);
    return svr->on_connect(conn, svr->context);
}

// ---- status print -----------------------------------------------------------------------------------

/** One line per connection, copied under the lock and logged without it. */
void print_status(TARN_CONN_SERVER svr)
{
    if (tarn_tick_ms_since(svr->last_print) <= print_interval_ms)
    {
        return;
    }
    svr->last_print = tarn_tick_ms();
    if (!TARN_LOG_ENABLED(TARN_LOG_LEVEL_DEBUG))
    {
        return;
    }
    struct line
    {
        char text[256];
    };
    uint32_t count = 0;
    tarn::unique_mem<line> lines;
    {
        const tarn::critical_section_guard guard(svr->conn_list_cs);
        const uint32_t total = tarn_list_count(svr->conn_list);
        lines = tarn::unique_mem<line>::make_array(total);
        for (; lines && count < total; ++count)
        {
            auto *const conn = static_cast<TARN_CONN>(tarn_list_get_at(svr->conn_list, count));
            (void)tarn_str_printf(lines.get()[count].text, sizeof(line), "%s, %s",
                                  tarn_conn_name(conn),
                                  tarn_conn_is_connected(conn) ? "connected" : "broken");
        }
    }
    TARN_LOG_DEBUG("********************");
    TARN_LOG_DEBUG("total %u connections", count);
    for (uint32_t i = 0; i < count; ++i)
    {
        TARN_LOG_DEBUG("%s", lines.get()[i].text);
    }
    TARN_LOG_DEBUG("--------------------");
}

// ---- one turn ---------------------------------------------------------------------------------------

TARN_CONN accept_tls(conn_link *listener)
{
    auto *const link = static_cast<conn_link *>(tarn::conn_tls()->tls_accept(listener->tls_h));
    return link != nullptr ? link->conn : nullptr;
}

void log_accepted(TARN_CONN conn, const conn_link *link)
{
    const bool tls = link->tls_h != nullptr;
    TARN_LOG_TRACE("Accept connection (sock=%p) from %s%s%s%s%s", static_cast<void *>(link->sock),
                   conn->peer_addr, conn->peer_port != nullptr ? ":" : "",
                   conn->peer_port != nullptr ? conn->peer_port : "", tls ? ", cipher = " : "",
                   tls ? tarn::conn_tls()->tls_cipher_name(link->tls_h) : "");
}

void log_peer_certificate(const conn_link *link)
{
    const tlsu_if *const tls = tarn::conn_tls();
    TLSU_CERT cert = tls->tls_peer_cert(link->tls_h);
    if (cert == nullptr)
    {
        return; // a client without one
    }
    if (TARN_LOG_ENABLED(TARN_LOG_LEVEL_TRACE))
    {
        const char *const text = tls->x509_print(cert);
        TARN_LOG_TRACE("\n---[ PEER CERT ]---\n%s---[ PEER CERT ]---\n",
                       text != nullptr ? text : "");
    }
    tls->x509_free(cert);
}

/** Let a peer in: into the list, then to the upper level. The caller holds the connection.
 *  @return false when it was turned away */
bool admit(TARN_CONN_SERVER svr, TARN_CONN conn, const conn_link *link)
{
    switch (add_to_list(svr, conn))
    {
    case added::full:
        TARN_LOG_WARN("max connection count %u exceed!", svr->max_conn);
        [[fallthrough]];
    case added::server_gone:
        tarn_conn_destroy(conn);
        return false;
    case added::yes:
        break;
    }
    if (tarn::conn_mark_connected(conn, link) && report_connect(svr, conn) != 0)
    {
        TARN_LOG_WARN("this connection is reject by upper level!");
        // Out of the list first, or its end would be reported to the level that refused it.
        if (remove_from_list(svr, conn))
        {
            const tarn::callback_scope scope(svr->callbacks);
            tarn_conn_destroy(conn);
        }
        return false;
    }
    return true;
}

/** Accept at most one peer. */
void serve_one(TARN_CONN_SERVER svr)
{
    const server_pin pin(svr); // on_connect may destroy the server
    const link_pin listener = tarn::conn_hold_link(svr->listener);
    if (!listener)
    {
        return;
    }
    TARN_CONN conn = listener->tls_h != nullptr
                         ? accept_tls(listener.get())
                         : tarn::conn_accept(listener.get(), listener->timeout_ms);
    if (conn == nullptr)
    {
        if (tarn::socket_is_shut_down(listener->sock))
        {
            (void)tarn_thread_sleep(100); // being destroyed: do not spin until the stop
        }
        return;
    }
    const conn_pin conn_held(conn);
    const link_pin link = tarn::conn_hold_link(conn);
    log_accepted(conn, link.get());
    if (link->tls_h != nullptr)
    {
        log_peer_certificate(link.get());
    }
    if (admit(svr, conn, link.get()))
    {
        TARN_LOG_INFO("Accept connection from %s%s%s", conn->peer_addr,
                      conn->peer_port != nullptr ? ":" : "",
                      conn->peer_port != nullptr ? conn->peer_port : "");
        print_status(svr);
    }
}

void *conn_server_loop_proc(void *arg, void *)
{
    auto *const svr = static_cast<TARN_CONN_SERVER>(arg);
    // Not before the starter has stored the thread, which a destroy inside on_connect has to find.
    if (thread_of(svr) != TARN_INVALID_HANDLE)
    {
        serve_one(svr);
    }
    return nullptr;
}

// ---- making -----------------------------------------------------------------------------------------

/** The listening connection, bound; null on failure. */
TARN_CONN make_listener(TARN_CONN_SERVER svr, const tlsu_credentials *secret, const char *addr,
                        const char *port, uint32_t timeout)
{
    TLSU_CTX tls_ctx_h = nullptr;
    do
    {
        if (secret != nullptr && tarn::conn_is_set(port))
        {
            if (!tarn::conn_has_tls())
            {
                break;
            }
            tls_ctx_h = tarn::conn_make_tls_context(secret);
            BON(tls_ctx_h);
        }
        else if (secret != nullptr)
        {
            TARN_LOG_WARN("credentials are not used without a port: %s",
                          addr != nullptr ? addr : "");
        }
        TARN_CONN conn = tarn::conn_make(tarn::conn_server, addr, port, nullptr, nullptr, timeout);
        BON(conn);
        conn->tls_ctx_h = std::exchange(tls_ctx_h, nullptr);
        conn->owns_tls_ctx = 1;
        tarn::conn_fill_tls_io(&conn->tls_io, conn->tls_ctx_h != nullptr ? secret->flags : 0, 0);
        conn->context = svr;
        conn_link *const link = tarn::conn_make_link(conn);
        if (link != nullptr && tarn::conn_walk_bind(link))
        {
            (void)tarn::conn_set_link(conn, link);
            return conn;
        }
        if (link != nullptr)
        {
            tarn::link_unref(link);
        }
        tarn_conn_destroy(conn);
    } while (0);
    if (tls_ctx_h != nullptr)
    {
        tarn::conn_tls()->ctx_destroy(tls_ctx_h);
    }
    return nullptr;
}

bool start_listening(TARN_CONN_SERVER svr, const char *addr, const char *port)
{
    const link_pin link = tarn::conn_hold_link(svr->listener);
    if (tarn_socket_listen(link->sock, static_cast<int>(std::min(svr->max_conn, 0xFFFFu))) == 0)
    {
        return true;
    }
    const int error = errno;
    TARN_LOG_ERROR("fail to listen port %s, error = %d (%s)", port != nullptr ? port : addr, error,
                   tarn::error_text(error).c_str());
    return false;
}

} // namespace

namespace tarn
{

void conn_server_ref(TARN_CONN_SERVER svr)
{
    (void)__atomic_add_fetch(&svr->refs, 1, __ATOMIC_RELAXED);
}

void conn_server_unref(TARN_CONN_SERVER svr)
{
    if (__atomic_sub_fetch(&svr->refs, 1, __ATOMIC_ACQ_REL) == 0)
    {
        free_server(svr);
    }
}

TARN_CONN_SERVER conn_server_of(TARN_CONN listener)
{
    return static_cast<TARN_CONN_SERVER>(listener->context);
}

void server_conn_destroy(TARN_CONN conn, void *server)
{
    auto *const svr = static_cast<TARN_CONN_SERVER>(server);
    if (remove_from_list(svr, conn))
    {
        report_end(svr, conn);
    }
}

} // namespace tarn

TARN_CONN_SERVER tarn_conn_server_create(const struct tlsu_credentials *secret, const char *addr,
                                         const char *port, uint32_t timeout, uint32_t max_conn,
                                         tarn_conn_on_connect on_connect,
                                         tarn_conn_on_disconnect on_disconnect, void *context)
{
    TARN_LOG_TRACE("secret = %p, addr = %s, port = %s, timeout = %u, max_conn = %u, "
                   "on_connect = %p, on_disconnect = %p, context = %p",
                   static_cast<const void *>(secret), addr != nullptr ? addr : "",
                   port != nullptr ? port : "", timeout, max_conn,
                   reinterpret_cast<void *>(on_connect), reinterpret_cast<void *>(on_disconnect),
                   context);
    RVON(on_connect, NULL);
    RVON(addr, NULL);
    auto owner = tarn::unique_mem<tarn_conn_server>::make();
    TARN_CONN_SERVER svr = owner.release();
    do
    {
        BON(svr);
        svr->refs = 1;
        svr->max_conn = max_conn;
        svr->on_connect = on_connect;
        svr->on_disconnect = on_disconnect;
        svr->context = context;
        svr->last_print = tarn_tick_ms();
        svr->listener = make_listener(svr, secret, addr, port, timeout);
        if (svr->listener == nullptr)
        {
            break;
        }
        svr->conn_list = tarn_list_create(max_conn);
        BOF(svr->conn_list != TARN_INVALID_HANDLE);
        svr->conn_list_cs = tarn_critical_section_create();
        BOF(svr->conn_list_cs != TARN_INVALID_HANDLE);
        if (start_listening(svr, addr, port))
        {
            return svr;
        }
    } while (0);
    if (svr != nullptr)
    {
        free_server(svr);
    }
    return nullptr;
}

int tarn_conn_server_loop_start(TARN_CONN_SERVER svr)
{
    RVON(svr, TARN_ERRLN);
    RVOF_TEXT(TARN_INVALID_HANDLE == thread_of(svr), TARN_ERRLN,
              "RVOF(TARN_INVALID_HANDLE == svr->thread,TARN_ERRLN)");
    TARN_THREAD thread =
        tarn_thread_start(conn_server_loop_proc, svr, nullptr, 0, "conn_server_loop_proc");
    if (thread == TARN_INVALID_HANDLE)
    {
        TARN_LOG_ERROR("failed to create server_proc thread");
        return TARN_ERRLN;
    }
    __atomic_store_n(&svr->thread, thread, __ATOMIC_RELEASE);
    return 0;
}

void tarn_conn_server_loop_stop(TARN_CONN_SERVER svr)
{
    RON(svr);
    if (TARN_THREAD thread = __atomic_exchange_n(&svr->thread, nullptr, __ATOMIC_ACQ_REL))
    {
        tarn_thread_stop(thread);
    }
}

int tarn_conn_server_loop(TARN_CONN_SERVER svr)
{
    RVON(svr, TARN_ERRLN);
    RVOF_TEXT(TARN_INVALID_HANDLE == thread_of(svr), TARN_ERRLN,
              "RVOF(TARN_INVALID_HANDLE == svr->thread,TARN_ERRLN)");
    serve_one(svr);
    return 0;
}

void tarn_conn_server_destroy(TARN_CONN_SERVER svr)
{
    if (svr == nullptr)
    {
        return;
    }
    const server_pin pin(svr);
    {
        const tarn::critical_section_guard guard(svr->conn_list_cs);
        if (std::exchange(svr->destroyed, uint8_t{1}) != 0)
        {
            return; // a destroy is under way, this is a callback of its
        }
    }
    tarn::conn_abort(svr->listener); // ends an accept that waits
    tarn_conn_server_loop_stop(svr);
    // Handshakes in hand hold references to the server; they end with the listening session.
    tarn::conn_disconnect_link(svr->listener, nullptr);
    while (TARN_CONN conn = pop_from_list(svr))
    {
        const conn_pin held(conn);
        tarn::conn_abort(conn); // its reader notices
        const tarn::callback_scope scope(conn->callbacks);
        report_end(svr, conn);
    }
    tarn::wait_for_callbacks(svr->callbacks);
    tarn::conn_server_unref(svr);
}

TARN_SOCKET tarn_conn_server_socket(TARN_CONN_SERVER svr)
{
    RVON(svr, NULL);
    const link_pin link = tarn::conn_hold_link(svr->listener);
    return link ? link->sock : TARN_INVALID_HANDLE;
}
