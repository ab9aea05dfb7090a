// Local IPC: the record of a connection, its lines, its callbacks and its receiving thread.

#include "tarn_check.h"
#include "tarn_ipc_internal.h"
#include "tarn_os.h"
#include "tarn_sys.h"

#include <cerrno>
#include <cstring>

namespace
{

using tarn::conn_ref_owner;
using tarn::ipc_conn;
using tarn::ipc_line;
using tarn::ipc_p;
using tarn::ipc_pending;
using tarn::line_owner;
using tarn::socket_owner;

bool is_connected(const ipc_conn *conn)
{
    return tarn::ipc_load(conn->status) == tarn::ipc_connected;
}

bool is_closing(const ipc_conn *conn)
{
    return tarn::ipc_load(conn->closing) != 0;
}

// ---- callbacks of the receiving side ------------------------------------------------------------------

/** Marks the calling thread as the one that the connection's frames wait for. */
class [[nodiscard]] receiving_scope
{
public:
    explicit receiving_scope(const ipc_conn *conn) noexcept;
    receiving_scope(const receiving_scope &) = delete;
    receiving_scope &operator=(const receiving_scope &) = delete;
    ~receiving_scope();
    static bool contains(const ipc_conn *conn);

private:
    const ipc_conn *conn_;
    const receiving_scope *outer_;
};

/** The scopes of the calling thread, innermost first. */
constinit thread_local const receiving_scope *receiving = nullptr;

receiving_scope::receiving_scope(const ipc_conn *conn) noexcept : conn_(conn), outer_(receiving)
{
    receiving = this;
}

receiving_scope::~receiving_scope()
{
    receiving = outer_;
}

bool receiving_scope::contains(const ipc_conn *conn)
{
    const receiving_scope *scope = receiving;
    while (scope != nullptr && scope->conn_ != conn)
    {
        scope = scope->outer_;
    }
    return scope != nullptr;
}

/** Call on_disconnected when on_connected was called, or when a closing connection does not forbid
 *  the report of a vain attempt. */
void report_disconnected(ipc_conn *conn, bool vain_attempt)
{
    {
        const tarn::critical_section_guard guard(conn->lock);
        const bool due = conn->reported != 0 || (vain_attempt && conn->closing == 0);
        conn->reported = 0;
        if (!due)
        {
            return;
        }
        tarn::count_callback(conn->callbacks);
    }
    TARN_LOG_DEBUG("[%p:%p:%p:%s:%s] invoke on_disconnected", ipc_p(conn->server), ipc_p(conn),
                   ipc_p(conn->line), conn->callee, conn->caller_text);
    const tarn::callback_scope counted(conn->callbacks);
    const receiving_scope scope(conn);
    conn->cb.on_disconnected(tarn::handle_of(conn), conn->caller, conn->cb.object,
                             tarn::handle_of(conn));
}

// ---- lines --------------------------------------------------------------------------------------------

line_owner make_line(socket_owner sock)
{
    line_owner line(tarn::unique_mem<ipc_line>::make().release());
    RVON(line, line_owner());
    line.get()->refs = 1;
    line.get()->send_lock = tarn_critical_section_create();
    RVON(line.get()->send_lock, line_owner());
    line.get()->sock = sock.release();
    return line;
}

/** Close the socket of a line that was dropped. Only where nothing receives on it any more. */
void close_line(ipc_conn *conn)
{
    ipc_line *const line = conn->line;
    if (line == nullptr)
    {
        return;
    }
    TARN_SOCKET sock = nullptr;
    {
        const tarn::critical_section_guard sending(line->send_lock);
        const tarn::critical_section_guard guard(conn->lock);
        sock = std::exchange(line->sock, nullptr);
    }
    if (sock != nullptr)
    {
        tarn_socket_destroy(sock);
    }
}

/** What came together with the greeting is dropped; the machine follows it, so that a frame of which
 *  it is the beginning is dropped whole. */
void discard(ipc_conn *conn, std::span<const uint8_t> bytes)
{
    conn->receiver.discard = tarn::ipc_discard_all;
    tarn::ipc_feed(conn, bytes);
    conn->receiver.discard =
        conn->receiver.state == 0 ? tarn::ipc_discard_none : tarn::ipc_discard_frame;
}

/** One attempt of an asynchronous client.
 *  @return true when it stands and was reported */
bool reconnect(ipc_conn *conn)
{
    tarn::ipc_drop_line(conn, tarn::ipc_disconnected);
    close_line(conn);
    socket_owner sock = tarn::ipc_create_socket(conn->caller);
    if (!sock)
    {
        return false;
    }
    size_t received = 0;
    const std::span<uint8_t> buf(conn->buffer, tarn::ipc_buffer_size);
    sock = tarn::ipc_connect_to_server({conn, conn->callee, conn->caller_text}, std::move(sock),
                                       conn->slot, buf, received);
    if (!sock || !tarn::ipc_adopt(conn, std::move(sock)))
    {
        return false;
    }
    discard(conn, buf.subspan(tarn::ipc_greeting_size, received - tarn::ipc_greeting_size));
    tarn::ipc_report_connected(conn, conn->callee);
    return true;
}

// ---- receiving ----------------------------------------------------------------------------------------

void receive_failed(ipc_conn *conn, const ipc_line *line, int error)
{
    if (error != EAGAIN)
    {
        TARN_LOG_TRACE("[%p:%p:%p:%s:%s] recv return -1, errno = [%d]", ipc_p(conn->server),
                       ipc_p(conn), ipc_p(line), conn->callee, conn->caller_text, error);
    }
    if (error == EINTR || error == EAGAIN)
    {
        return;
    }
    const bool gone = error == ECONNRESET || error == ENOTCONN;
    tarn::ipc_drop_line(conn, gone ? tarn::ipc_disconnected : tarn::ipc_broken);
}

/** Take in what the peer sent. */
void receive_once(ipc_conn *conn)
{
    ipc_line *const line = conn->line; // only this thread replaces it
    const uint32_t next_ms = tarn::ipc_retry_parked(conn);
    TARN_SOCKET sock = line->sock;
    if (sock == TARN_INVALID_HANDLE)
    {
        return; // a callback destroyed the connection
    }
    const int n = tarn::socket_receive(sock, conn->buffer, tarn::ipc_buffer_size, next_ms);
    const int error = errno;
    if (n > 0)
    {
        tarn::ipc_feed(conn, {conn->buffer, static_cast<size_t>(n)});
    }
    else if (n == 0)
    {
        TARN_LOG_TRACE("[%p:%p:%p:%s:%s] recv return 0, errno = [%d], sock = [%p]",
                       ipc_p(conn->server), ipc_p(conn), ipc_p(line), conn->callee,
                       conn->caller_text, error, ipc_p(sock));
        tarn::ipc_drop_line(conn, tarn::ipc_disconnected);
        close_line(conn);
    }
    else if (n == -1)
    {
        receive_failed(conn, line, error);
    }
    else if (n != tarn::receive_timed_out || next_ms == TARN_INFINITE)
    {
        TARN_LOG_TRACE("[%p:%p:%p:%s:%s] unknown return code [%d]", ipc_p(conn->server),
                       ipc_p(conn), ipc_p(line), conn->callee, conn->caller_text, n);
        tarn::ipc_drop_line(conn, tarn::ipc_broken);
    }
}

/** A connection without line.
 *  @return true when it has one now */
bool stand_up(ipc_conn *conn)
{
    if (conn->server == nullptr)
    {
        report_disconnected(conn, false); // a sender has broken it since the last pass
    }
    if (is_closing(conn) || conn->server != nullptr || conn->auto_connect == 0)
    {
        (void)tarn_thread_sleep(tarn::ipc_limit.reconnect_ms); // until it is destroyed
        return false;
    }
    if (!reconnect(conn))
    {
        report_disconnected(conn, true);
        (void)tarn_thread_sleep(tarn::ipc_limit.reconnect_ms);
        return false;
    }
    return true;
}

void conn_pass(ipc_conn *conn)
{
    if (conn->server != nullptr)
    {
        (void)tarn_event_wait(conn->admitted, TARN_INFINITE);
    }
    if (!is_connected(conn) && !stand_up(conn))
    {
        return;
    }
    receive_once(conn);
    if (conn->server == nullptr && !is_connected(conn))
    {
        report_disconnected(conn, false);
    }
}

void *ipc_conn_proc(void *arg, void *)
{
    auto *const conn = static_cast<ipc_conn *>(arg);
    // Not before the starter has stored the thread, which a destroy inside a callback has to find.
    if (tarn::ipc_load(conn->thread) == TARN_INVALID_HANDLE)
    {
        return nullptr;
    }
    const conn_ref_owner pin = tarn::ipc_pin(conn);
    conn_pass(conn);
    return nullptr;
}

// ---- ending -------------------------------------------------------------------------------------------

void free_conn(ipc_conn *conn)
{
    tarn::ipc_receiver_reset(conn);
    while (conn->parked != nullptr)
    {
        tarn::ipc_frame_free(std::exchange(conn->parked, conn->parked->next));
    }
    if (conn->line != nullptr)
    {
        tarn::ipc_line_unref(conn->line);
    }
    tarn_list_destroy(conn->request_list);
    tarn_event_destroy(conn->admitted);
    tarn_critical_section_destroy(conn->lock);
    tarn_mem_free(conn->buffer);
    if (conn->server != nullptr)
    {
        tarn::ipc_server_unref(conn->server);
    }
    tarn_mem_free(conn);
}

/** Wake every caller; under the lock. */
void fail_pending(ipc_conn *conn)
{
    while (conn->request_list != TARN_INVALID_HANDLE && !tarn_list_is_empty(conn->request_list))
    {
        auto *const pending = static_cast<ipc_pending *>(tarn_list_pop_front(conn->request_list));
        pending->linked = false;
        (void)tarn_event_set(pending->event);
    }
}

} // namespace

namespace tarn
{

// ---- references ---------------------------------------------------------------------------------------

void ipc_conn_ref(ipc_conn *conn)
{
    (void)__atomic_add_fetch(&conn->refs, 1, __ATOMIC_RELAXED);
}

void ipc_conn_unref(ipc_conn *conn)
{
    if (__atomic_sub_fetch(&conn->refs, 1, __ATOMIC_ACQ_REL) == 0)
    {
        free_conn(conn);
    }
}

void ipc_line_ref(ipc_line *line)
{
    (void)__atomic_add_fetch(&line->refs, 1, __ATOMIC_RELAXED);
}

void ipc_line_unref(ipc_line *line)
{
    if (__atomic_sub_fetch(&line->refs, 1, __ATOMIC_ACQ_REL) == 0)
    {
        tarn_socket_destroy(line->sock);
        tarn_critical_section_destroy(line->send_lock);
        tarn_mem_free(line);
    }
}

line_owner ipc_hold_line(ipc_conn *conn)
{
    const critical_section_guard guard(conn->lock);
    if (conn->status != ipc_connected || conn->line == nullptr || conn->greeted == 0)
    {
        return {};
    }
    ipc_line_ref(conn->line);
    return line_owner(conn->line);
}

// ---- connections --------------------------------------------------------------------------------------

conn_ref_owner ipc_conn_create(const char *callee, const char *caller, ipc_server *svr)
{
    conn_ref_owner conn(make_object<ipc_conn>(TARN_HANDLE_TYPE_IPC).release());
    RVON(conn, conn_ref_owner());
    ipc_conn *const c = conn.get();
    c->refs = 1;
    ipc_copy_name(c->callee, callee);
    ipc_copy_name(c->caller, caller);
    ipc_copy_shown(c->caller_text, sizeof c->caller_text, c->caller, std::strlen(c->caller));
    c->lock = tarn_critical_section_create();
    RVON(c->lock, conn_ref_owner());
    c->request_list = tarn_list_create(ipc_max_requests);
    RVON(c->request_list, conn_ref_owner());
    c->admitted = tarn_event_create(true, false);
    RVON(c->admitted, conn_ref_owner());
    c->buffer = static_cast<uint8_t *>(tarn_mem_realloc(nullptr, ipc_buffer_size));
    RVON(c->buffer, conn_ref_owner());
    if (svr != nullptr)
    {
        ipc_server_ref(svr);
        c->server = svr;
    }
    return conn;
}

bool ipc_adopt(ipc_conn *conn, socket_owner sock)
{
    line_owner line = make_line(std::move(sock));
    if (!line)
    {
        return false;
    }
    ipc_receiver_reset(conn);
    ipc_line *old = nullptr;
    {
        const critical_section_guard guard(conn->lock);
        if (conn->closing != 0)
        {
            return false;
        }
        old = std::exchange(conn->line, line.release());
        ipc_store(conn->status, ipc_connected);
    }
    if (old != nullptr)
    {
        ipc_line_unref(old);
    }
    return true;
}

void ipc_drop_line(ipc_conn *conn, uint32_t status, const ipc_line *line)
{
    const critical_section_guard guard(conn->lock);
    if (line != nullptr && line != conn->line)
    {
        return; // an older one: it is down already
    }
    ipc_store(conn->status, status);
    if (conn->line != nullptr)
    {
        ipc_store(conn->line->dead, 1);
        if (conn->line->sock != TARN_INVALID_HANDLE)
        {
            (void)socket_shut_down(conn->line->sock);
        }
    }
    fail_pending(conn);
}

void ipc_report_connected(ipc_conn *conn, const char *name)
{
    {
        const critical_section_guard guard(conn->lock);
        if (conn->closing != 0)
        {
            return;
        }
        conn->reported = 1;
        count_callback(conn->callbacks);
    }
    const callback_scope counted(conn->callbacks);
    const receiving_scope scope(conn);
    conn->cb.on_connected(handle_of(conn), name, conn->cb.object, handle_of(conn));
}

TARN_THREAD ipc_start_thread(ipc_conn *conn)
{
    return tarn_thread_start(ipc_conn_proc, conn, nullptr, 0, "ipc_conn_proc");
}

void ipc_conn_destroy(ipc_conn *conn)
{
    {
        const critical_section_guard guard(conn->lock);
        if (conn->closing != 0)
        {
            return;
        }
        ipc_store(conn->closing, 1);
    }
    const conn_ref_owner handle(conn);
    socket_abort(conn->slot);
    ipc_drop_line(conn, ipc_disconnected);
    (void)tarn_event_set(conn->admitted);
    if (TARN_THREAD thread = __atomic_exchange_n(&conn->thread, nullptr, __ATOMIC_ACQ_REL))
    {
        tarn_thread_stop(thread);
    }
    report_disconnected(conn, false);
    close_line(conn);
    TARN_LIST released = nullptr;
    {
        const critical_section_guard guard(conn->lock);
        fail_pending(conn);
        released = std::exchange(conn->request_list, nullptr);
    }
    tarn_list_destroy(released);
}

bool ipc_begin_call(ipc_conn *conn)
{
    const critical_section_guard guard(conn->lock);
    if (conn->closing != 0)
    {
        return false;
    }
    count_callback(conn->callbacks);
    if (conn->server != nullptr)
    {
        count_callback(conn->server->callbacks);
    }
    return true;
}

void ipc_touch(ipc_conn *conn)
{
    __atomic_store_n(&conn->last_activity_tick, tarn_tick_ms(), __ATOMIC_RELAXED);
}

bool ipc_is_receiving(const ipc_conn *conn)
{
    return receiving_scope::contains(conn);
}

} // namespace tarn
