// Local IPC: servers. The server thread accepts, asks for the callbacks of each caller, greets it,
// and takes lost connections out of the list, one per pass.
//
// A connection reads nothing before it is admitted, after its on_connected: so that comes first.

#include "tarn_check.h"
#include "tarn_ipc_internal.h"
#include "tarn_str.h"

#include <cerrno>
#include <cstring>

namespace
{

using tarn::conn_ref_owner;
using tarn::ipc_conn;
using tarn::ipc_p;
using tarn::ipc_server;

constexpr int max_questions = 10;

bool is_closing(const ipc_server *svr)
{
    return tarn::ipc_load(svr->closing) != 0;
}

/** A connection as log lines show it. */
const char *shown(const ipc_conn *conn)
{
    return conn->caller_text;
}

void *socket_of(ipc_conn *conn)
{
    const tarn::critical_section_guard guard(conn->lock);
    return conn->line != nullptr ? conn->line->sock : TARN_INVALID_HANDLE;
}

// ---- dead connections -------------------------------------------------------------------------------

bool ipc_conn_is_dead(void *item, void *, void *)
{
    return tarn::ipc_load(static_cast<ipc_conn *>(item)->status) != tarn::ipc_connected;
}

/** Say why a connection is dead. */
void log_dead(ipc_conn *conn)
{
    const auto status = static_cast<int>(tarn::ipc_load(conn->status));
    void *const sock = socket_of(conn);
    if (sock == nullptr)
    {
        TARN_LOG_TRACE("[%p:%s:%s] connection is shutdown, status = [%d], sock = [%p]", ipc_p(conn),
                       conn->callee, shown(conn), status, sock);
    }
    else
    {
        TARN_LOG_TRACE("[%p:%s:%s] connection broken, status = [%d], sock = [%p]", ipc_p(conn),
                       conn->callee, shown(conn), status, sock);
    }
    TARN_LOG_DEBUG("[%s:%s] remove dead conn, sock = [%p]", conn->callee, shown(conn), sock);
}

// ---- admission --------------------------------------------------------------------------------------

int32_t ask_once(ipc_server *svr, ipc_conn *conn)
{
    tarn::count_callback(svr->callbacks);
    const tarn::callback_scope scope(svr->callbacks);
    return svr->cb.on_connect(tarn::handle_of(svr), conn->caller, &conn->cb, svr->cb.object,
                              tarn::handle_of(conn));
}

/** Get the callbacks of a caller. */
bool resolve_callbacks(ipc_server *svr, ipc_conn *conn)
{
    int32_t result = -1;
    for (int i = 0; i < max_questions && result != 0 && !is_closing(svr); ++i)
    {
        tarn::ipc_server_remove_inactive_connection(svr);
        result = ask_once(svr, conn);
        if (result != 0)
        {
            (void)tarn_thread_sleep(tarn::ipc_limit.resolve_ms);
        }
    }
    if (result != 0)
    {
        TARN_LOG_TRACE("[%p:%p:%s] get callback failed on name [%s], error = [%d]", ipc_p(svr),
                       ipc_p(conn), svr->name, shown(conn), result);
        return false;
    }
    if (conn->cb.on_connected == nullptr || conn->cb.on_disconnected == nullptr ||
        conn->cb.on_call == nullptr)
    {
        TARN_LOG_TRACE("[%p:%p:%s] get callback function error on name [%s]", ipc_p(svr),
                       ipc_p(conn), svr->name, shown(conn));
        return false;
    }
    return true;
}

/** Send the greeting; before it nothing else goes out. */
bool greet(ipc_server *svr, ipc_conn *conn)
{
    const tarn::send_part greeting = {TARN_IPC_NEGOTIATION, tarn::ipc_greeting_size};
    const int64_t sent =
        tarn::socket_send_parts(conn->line->sock, {&greeting, 1}, tarn::ipc_limit.send_ms);
    const int error = errno;
    if (sent != static_cast<int64_t>(tarn::ipc_greeting_size))
    {
        TARN_LOG_TRACE("[%p:%p:%s:%s] send negotiation data fail! error = [%d]", ipc_p(svr),
                       ipc_p(conn), svr->name, shown(conn), error);
        return false;
    }
    const tarn::critical_section_guard guard(conn->lock);
    conn->greeted = 1;
    return true;
}

/** Into the list, which takes the reference over. */
bool add_to_list(ipc_server *svr, ipc_conn *conn)
{
    const tarn::critical_section_guard guard(svr->lock);
    return !is_closing(svr) && !tarn_list_is_full(svr->conn_list) &&
           tarn_list_push_back(svr->conn_list, conn);
}

/** @return false when the connection is turned away: it is still the caller's */
bool admit(ipc_server *svr, ipc_conn *conn)
{
    if (!resolve_callbacks(svr, conn) || is_closing(svr))
    {
        return false;
    }
    TARN_THREAD thread = tarn::ipc_start_thread(conn);
    if (thread == TARN_INVALID_HANDLE)
    {
        TARN_LOG_TRACE("[%p:%p:%s:%s] start thread failed, err = [%d].", ipc_p(svr), ipc_p(conn),
                       svr->name, shown(conn), errno);
        return false;
    }
    tarn::ipc_store(conn->thread, thread);
    if (!greet(svr, conn))
    {
        return false;
    }
    if (!add_to_list(svr, conn))
    {
        TARN_LOG_TRACE("[%p:%p:%s:%s] conn_list full!.", ipc_p(svr), ipc_p(conn), svr->name,
                       shown(conn));
        return false;
    }
    TARN_LOG_DEBUG("[%p:%p:%s:%s] add new conn [%p] to list !", ipc_p(svr), ipc_p(conn), svr->name,
                   shown(conn), ipc_p(conn));
    TARN_LOG_DEBUG("[%p:%p:%s:%s] invoke connection on_connected.", ipc_p(svr), ipc_p(conn),
                   svr->name, shown(conn));
    tarn::ipc_report_connected(conn, conn->caller);
    (void)tarn_event_set(conn->admitted);
    return true;
}

void accept_one(ipc_server *svr, tarn::socket_owner sock, const char *caller)
{
    char text[tarn::ipc_name_size];
    tarn::ipc_copy_shown(text, sizeof text, caller, std::strlen(caller));
    TARN_LOG_INFO("[%p:%p:%s] new connection accept, sock = [%p], caller = [%s]", ipc_p(svr),
                  nullptr, svr->name, ipc_p(sock.get()), text);
    conn_ref_owner conn = tarn::ipc_conn_create(svr->name, caller, svr);
    if (!conn)
    {
        TARN_LOG_TRACE("[%p:%p:%s] ipc_conn_create failed", ipc_p(svr), nullptr, svr->name);
        TARN_LOG_DEBUG("close sock = [%p]", ipc_p(sock.get()));
        return;
    }
    // The list's reference is taken over by admission; this one keeps the record for the pass.
    const conn_ref_owner held = tarn::ipc_pin(conn.get());
    if (tarn::ipc_adopt(conn.get(), std::move(sock)) && admit(svr, conn.get()))
    {
        (void)conn.release();
        return;
    }
    TARN_LOG_DEBUG("destroy ipc conn");
    tarn::ipc_conn_destroy(conn.release());
}

void serve_one(ipc_server *svr)
{
    if (is_closing(svr))
    {
        (void)tarn_thread_sleep(100); // until the stop
        return;
    }
    char caller[4096] = "";
    tarn::socket_owner sock(
        tarn_socket_accept_local(svr->sock, caller, sizeof caller, tarn::ipc_limit.accept_ms));
    if (sock)
    {
        accept_one(svr, std::move(sock), caller);
    }
    else if (!is_closing(svr))
    {
        tarn::ipc_server_remove_inactive_connection(svr);
    }
}

void *ipc_server_proc(void *arg, void *)
{
    auto *const svr = static_cast<ipc_server *>(arg);
    // Not before the starter has stored the thread, which a destroy inside on_connect has to find.
    if (tarn::ipc_load(svr->thread) == TARN_INVALID_HANDLE)
    {
        return nullptr;
    }
    tarn::ipc_server_ref(svr); // a callback may destroy the server
    const tarn::unique_handle<ipc_server *, tarn::ipc_server_unref> pin(svr);
    serve_one(svr);
    return nullptr;
}

void stop_thread(ipc_server *svr)
{
    if (TARN_THREAD thread = __atomic_exchange_n(&svr->thread, nullptr, __ATOMIC_ACQ_REL))
    {
        tarn_thread_stop(thread);
    }
}

ipc_conn *pop_conn(ipc_server *svr)
{
    const tarn::critical_section_guard guard(svr->lock);
    return tarn_list_is_empty(svr->conn_list)
               ? nullptr
               : static_cast<ipc_conn *>(tarn_list_pop_front(svr->conn_list));
}

using server_owner = tarn::unique_handle<ipc_server *, tarn::ipc_server_unref>;

server_owner make_server(const char *name, uint32_t max_connection,
                         const tarn_ipc_server_callbacks *cb_func)
{
    server_owner svr(tarn::make_object<ipc_server>(TARN_HANDLE_TYPE_IPC).release());
    RVON(svr, server_owner());
    svr.get()->refs = 1;
    tarn::ipc_copy_name(svr.get()->name, name);
    svr.get()->cb = *cb_func;
    svr.get()->lock = tarn_critical_section_create();
    RVON(svr.get()->lock, server_owner());
    svr.get()->conn_list = tarn_list_create(max_connection);
    RVON(svr.get()->conn_list, server_owner());
    return svr;
}

bool start_listening(ipc_server *svr, uint32_t max_connection)
{
    svr->sock = tarn::ipc_create_socket(svr->name).release();
    if (svr->sock == TARN_INVALID_HANDLE)
    {
        TARN_LOG_TRACE("[%p:%s] create socket failed, error = [%d]", ipc_p(svr), svr->name, errno);
        return false;
    }
    if (tarn_socket_listen(svr->sock, static_cast<uint16_t>(max_connection)) != 0)
    {
        TARN_LOG_TRACE("[%p:%s] fail to listen, error = [%d]", ipc_p(svr), svr->name, errno);
        return false;
    }
    return true;
}

bool start_thread(ipc_server *svr)
{
    TARN_THREAD thread = tarn_thread_start(ipc_server_proc, svr, nullptr, 0, "ipc_server_proc");
    if (thread == TARN_INVALID_HANDLE)
    {
        TARN_LOG_TRACE("[%p:%s] fail to start thread, error = [%d]", ipc_p(svr), svr->name, errno);
        return false;
    }
    const bool started = tarn_thread_wait_for_start(thread, tarn::ipc_limit.start_ms);
    if (!started)
    {
        TARN_LOG_TRACE("[%p:%s] wait thread start failed, error = [%d]", ipc_p(svr), svr->name,
                       errno);
        tarn_thread_stop(thread);
        return false;
    }
    tarn::ipc_store(svr->thread, thread);
    return true;
}

} // namespace

namespace tarn
{

void ipc_server_ref(ipc_server *svr)
{
    (void)__atomic_add_fetch(&svr->refs, 1, __ATOMIC_RELAXED);
}

void ipc_server_unref(ipc_server *svr)
{
    if (__atomic_sub_fetch(&svr->refs, 1, __ATOMIC_ACQ_REL) == 0)
    {
        tarn_socket_destroy(svr->sock);
        tarn_list_destroy(svr->conn_list);
        tarn_critical_section_destroy(svr->lock);
        tarn_mem_free(svr);
    }
}

void ipc_server_remove_inactive_connection(ipc_server *svr)
{
    ipc_conn *dead = nullptr;
    {
        const critical_section_guard guard(svr->lock);
        dead = static_cast<ipc_conn *>(
            tarn_list_remove_if(svr->conn_list, ipc_conn_is_dead, nullptr, nullptr));
        if (dead == nullptr)
        {
            return;
        }
        count_callback(svr->callbacks); // a destroy on another thread waits for on_disconnected
    }
    const callback_scope scope(svr->callbacks);
    log_dead(dead);
    ipc_conn_destroy(dead);
}

int ipc_server_destroy(ipc_server *svr)
{
    {
        const critical_section_guard guard(svr->lock);
        if (svr->closing != 0)
        {
            return 1; // a destroy is under way, this is a callback of its
        }
        ipc_store(svr->closing, 1);
    }
    (void)tarn_socket_shutdown(svr->sock); // ends an accept that waits
    stop_thread(svr);
    // Here and not with the last reference: the name is free when this returns. Where the server
    // thread itself has led here, it is inside a callback, and accepts no more.
    tarn_socket_destroy(std::exchange(svr->sock, nullptr));
    while (ipc_conn *const conn = pop_conn(svr))
    {
        ipc_conn_destroy(conn);
    }
    wait_for_callbacks(svr->callbacks);
    ipc_server_unref(svr);
    return 1;
}

} // namespace tarn

// The check texts show the arguments as they stand here.
// clang-format off
TARN_IPC tarn_ipc_create(const char *name, uint32_t max_connection,
                         const tarn_ipc_server_callbacks *cb_func)
{
    RVON(name, TARN_INVALID_HANDLE);
    RVOF(tarn_str_len( name ) > 0, TARN_INVALID_HANDLE);
    RVOF(max_connection > 0, TARN_INVALID_HANDLE);
    RVON(cb_func, TARN_INVALID_HANDLE);
    RVON(cb_func->on_connect, TARN_INVALID_HANDLE);
    // clang-format on
    server_owner svr = make_server(name, max_connection, cb_func);
    RVON(svr, TARN_INVALID_HANDLE);
    if (!start_listening(svr.get(), max_connection) || !start_thread(svr.get()))
    {
        return TARN_INVALID_HANDLE;
    }
    return tarn::handle_of(svr.release());
}
