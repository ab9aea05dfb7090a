// Local IPC: handles, and making and destroying connections. Their record and receiving thread are in
// tarn_ipc_conn.cpp, connecting in tarn_ipc_connect.cpp, calls and handlers in tarn_ipc_call.cpp,
// frames in tarn_ipc_frame.cpp, servers in tarn_ipc_server.cpp, the handler threads in
// tarn_ipc_pool.cpp.
//
// Who frees what: a connection has a reference for its handle (or its server's list) and one for
// each frame in the pool, each call under way and each pass of its thread; the last one frees it. So
// any callback may destroy the connection under the calls that led to it.
//
// A line is one standing of a connection: its socket, its sequence numbers. Handlers and callers hold
// the line that they began on; when it is lost they send nothing any more, whatever line the
// connection has by then. A lost line is first shut down, under the connection's lock, by any thread;
// its socket is closed by the receiving thread, or by a destroy that has joined it, after the last
// sender has left: a closed descriptor's number may be another socket's at once.

#include "tarn_ipc.h"

#include "tarn_check.h"
#include "tarn_ipc_internal.h"
#include "tarn_str.h"

#include <cerrno>

namespace
{

using tarn::conn_ref_owner;
using tarn::ipc_conn;
using tarn::ipc_p;
using tarn::socket_owner;

bool is_closing(const ipc_conn *conn)
{
    return tarn::ipc_load(conn->closing) != 0;
}

int destroy_conn(ipc_conn *conn)
{
    if (conn->server != nullptr)
    {
        TARN_LOG_WARN("[%s:%s] destroy ipc_conn [%p] owned by ipc_svr [%p]!", conn->callee,
                      conn->caller_text, ipc_p(conn), ipc_p(conn->server));
        return 0;
    }
    const conn_ref_owner pin = tarn::ipc_pin(conn);
    {
        const tarn::critical_section_guard guard(conn->lock);
        if (conn->closing != 0)
        {
            return 1; // a destroy is under way, this is a callback of its
        }
    }
    tarn::ipc_conn_destroy(conn);
    tarn::wait_for_callbacks(conn->callbacks);
    return 1;
}

/** @param wait  until it runs */
bool start_client_thread(ipc_conn *conn, bool wait)
{
    TARN_THREAD thread = tarn::ipc_start_thread(conn);
    if (thread == TARN_INVALID_HANDLE)
    {
        TARN_LOG_TRACE("[%p:%s:%s] fail to start ipc conn thread, error = [%d].", ipc_p(conn),
                       conn->callee, conn->caller_text, errno);
        return false;
    }
    if (wait && !tarn_thread_wait_for_start(thread, tarn::ipc_limit.start_ms))
    {
        TARN_LOG_TRACE("[%p:%s:%s] wait ipc conn thread start failed, error = [%d].", ipc_p(conn),
                       conn->callee, conn->caller_text, errno);
        tarn_thread_stop(thread);
        return false;
    }
    {
        const tarn::critical_section_guard guard(conn->lock);
        if (conn->closing == 0)
        {
            tarn::ipc_store(conn->thread, thread);
            return true;
        }
    }
    tarn_thread_stop(thread); // destroyed by another thread since on_connected
    return false;
}

/** A client's connection, without line. */
conn_ref_owner make_client(const char *callee_name, const char *caller_name,
                           const tarn_ipc_callbacks *cb_func)
{
    conn_ref_owner conn = tarn::ipc_conn_create(callee_name, caller_name, nullptr);
    if (!conn)
    {
        TARN_LOG_TRACE("[%p:%s:%s] fail to create ipc conn object.", nullptr, callee_name,
                       caller_name);
        return conn;
    }
    conn.get()->cb = *cb_func;
    conn.get()->greeted = 1;
    return conn;
}

} // namespace

namespace tarn
{

ipc_limits ipc_limit;

ipc_conn *ipc_conn_of(TARN_IPC handle)
{
    const auto *const header = reinterpret_cast<const tarn_handle_header *>(handle);
    return header->type == TARN_HANDLE_TYPE_IPC && header->size == sizeof(ipc_conn)
               ? reinterpret_cast<ipc_conn *>(handle)
               : nullptr;
}

ipc_server *ipc_server_of(TARN_IPC handle)
{
    const auto *const header = reinterpret_cast<const tarn_handle_header *>(handle);
    return header->type == TARN_HANDLE_TYPE_IPC && header->size == sizeof(ipc_server)
               ? reinterpret_cast<ipc_server *>(handle)
               : nullptr;
}

} // namespace tarn

// The check texts show the arguments as they stand here.
// clang-format off
TARN_IPC tarn_ipc_open(const char *callee_name, const char *caller_name,
                       const tarn_ipc_callbacks *cb_func)
{
    RVON(cb_func, TARN_INVALID_HANDLE);
    RVON(cb_func->on_call, TARN_INVALID_HANDLE);
    RVON(cb_func->on_connected, TARN_INVALID_HANDLE);
    RVON(cb_func->on_disconnected, TARN_INVALID_HANDLE);
    RVON(callee_name, TARN_INVALID_HANDLE);
    RVOF(tarn_str_len( callee_name ) > 0, TARN_INVALID_HANDLE);
    RVON(caller_name, TARN_INVALID_HANDLE);
    RVOF(tarn_str_len( caller_name ) > 0, TARN_INVALID_HANDLE);
    // clang-format on
    socket_owner sock = tarn::ipc_create_socket(caller_name);
    if (!sock)
    {
        TARN_LOG_TRACE("[%s:%s] create socket failed, error = [%d].", callee_name, caller_name,
                       errno);
        return TARN_INVALID_HANDLE;
    }
    tarn::connect_slot slot{};
    uint8_t greeting[tarn::ipc_greeting_size]; // no room for more: frames may follow
    size_t received = 0;
    sock = tarn::ipc_connect_to_server({nullptr, callee_name, caller_name}, std::move(sock), slot,
                                       greeting, received);
    if (!sock)
    {
        return TARN_INVALID_HANDLE;
    }
    conn_ref_owner conn = make_client(callee_name, caller_name, cb_func);
    if (!conn || !tarn::ipc_adopt(conn.get(), std::move(sock)))
    {
        return TARN_INVALID_HANDLE;
    }
    const conn_ref_owner pin = tarn::ipc_pin(conn.get()); // a callback may destroy it
    ipc_conn *const c = conn.release();
    tarn::ipc_report_connected(c, c->callee);
    if (is_closing(c))
    {
        return TARN_INVALID_HANDLE;
    }
    if (!start_client_thread(c, true))
    {
        (void)destroy_conn(c);
        return TARN_INVALID_HANDLE;
    }
    return tarn::handle_of(c);
}

// The check texts show the arguments as they stand here.
// clang-format off
TARN_IPC tarn_ipc_open_async(const char *callee_name, const char *caller_name,
                             const tarn_ipc_callbacks *cb_func)
{
    RVON(cb_func, TARN_INVALID_HANDLE);
    RVON(cb_func->on_call, TARN_INVALID_HANDLE);
    RVON(cb_func->on_connected, TARN_INVALID_HANDLE);
    RVON(cb_func->on_disconnected, TARN_INVALID_HANDLE);
    RVON(callee_name, TARN_INVALID_HANDLE);
    RVOF(tarn_str_len( callee_name ) > 0, TARN_INVALID_HANDLE);
    RVON(caller_name, TARN_INVALID_HANDLE);
    RVOF(tarn_str_len( caller_name ) > 0, TARN_INVALID_HANDLE);
    // clang-format on
    conn_ref_owner conn = make_client(callee_name, caller_name, cb_func);
    RVON(conn, TARN_INVALID_HANDLE);
    conn.get()->auto_connect = 1;
    return start_client_thread(conn.get(), false) ? tarn::handle_of(conn.release())
                                                  : TARN_INVALID_HANDLE;
}

int tarn_ipc_destroy(TARN_IPC handle)
{
    RVON(handle, 0);
    if (ipc_conn *const conn = tarn::ipc_conn_of(handle))
    {
        return destroy_conn(conn);
    }
    tarn::ipc_server *const svr = tarn::ipc_server_of(handle);
    return svr != nullptr ? tarn::ipc_server_destroy(svr) : 0;
}

bool tarn_ipc_get_peer(TARN_IPC conn, int32_t *pid, uint32_t *uid, uint32_t *gid)
{
    RVON(conn, false);
    ipc_conn *const c = tarn::ipc_conn_of(conn);
    RVON(c, false);
    tarn::socket_credentials peer{};
    {
        const tarn::critical_section_guard guard(c->lock); // the socket is not closed meanwhile
        if (c->line == nullptr || c->line->sock == TARN_INVALID_HANDLE ||
            !tarn::socket_peer_credentials(c->line->sock, &peer))
        {
            return false;
        }
    }
    const auto give = [](auto *out, auto value) {
        if (out != nullptr)
        {
            *out = value;
        }
    };
    give(pid, peer.pid);
    give(uid, peer.uid);
    give(gid, peer.gid);
    return true;
}
