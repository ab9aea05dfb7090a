// RPC endpoints: servers, and the life of their connections.
//
// A server connection is in its server's table from its admission on. Whoever finds it there, under
// the table's lock, may take a reference: leaving the table is a part of its destroy.

#include "tarn_check.h"
#include "tarn_rpc_internal.h"
#include "tarn_str.h"
#include "tarn_sys.h"
#include "tarn_text.h"

#include <utility>

namespace
{

using tarn::critical_section_guard;
using tarn::rpc_pin;

/** Put a server connection into its server's table. */
bool enter_table(TARN_RPC server, TARN_RPC rpc)
{
    const critical_section_guard guard(server->conn_table_cs);
    return tarn_hash_add_ex(server->conn_table, &rpc->cli_h, sizeof rpc->cli_h, rpc) != nullptr;
}

/** Take the server connection of a connection out of the table, with a reference; null when it is
 *  not there. */
TARN_RPC take_from_table(TARN_RPC server, TARN_CONN conn)
{
    const critical_section_guard guard(server->conn_table_cs);
    auto *const rpc =
        static_cast<TARN_RPC>(tarn_hash_remove_ex(server->conn_table, &conn, sizeof conn));
    if (rpc != nullptr)
    {
        tarn::rpc_ref(rpc);
    }
    return rpc;
}

/** A new server connection over an accepted connection; null when memory ran out. */
TARN_RPC make_server_conn(TARN_RPC server, TARN_CONN conn)
{
    TARN_RPC rpc = tarn::rpc_make(RPC_OBJ_TYPE_SERVER_CONN, nullptr, nullptr);
    if (rpc == nullptr)
    {
        return nullptr;
    }
    rpc->cli_h = conn;
    tarn::conn_ref(conn);
    rpc->owner = server;
    tarn::rpc_ref(server);
    rpc->callbacks = server->callbacks;
    rpc->callbacks.on_idle = nullptr;
    rpc->frame_limit = __atomic_load_n(&server->frame_limit, __ATOMIC_RELAXED);
    rpc->keep_alive_ms = server->keep_alive_ms;
    tarn::rpc_touch(rpc);
    tarn::rpc_line_up(rpc);
    return rpc;
}

/** Turn a peer away: its connection goes back to the level below, which closes it. */
int turn_away(TARN_RPC rpc)
{
    rpc->detached = 1;
    tarn_rpc_destroy(rpc);
    return TARN_ERRLN;
}

/** Ask the application whether it admits a peer. */
int ask_application(TARN_RPC server, TARN_RPC rpc, const char *peer)
{
    if (server->callbacks.on_peer_connecting == nullptr)
    {
        return TARN_ERRLN;
    }
    const int rc = server->callbacks.on_peer_connecting(server, server->context, peer, rpc,
                                                        &rpc->callbacks, &rpc->context);
    if (rc == 0 && rpc->callbacks.size < sizeof rpc->callbacks)
    {
        TARN_LOG_WARN("TARN_RPC_CALLBACK size too small!");
        rpc->callbacks = {};
    }
    return rc;
}

int on_server_connect(TARN_CONN conn, void *context)
{
    auto *const server = static_cast<TARN_RPC>(context);
    const rpc_pin server_pin(server);
    const char *const peer = tarn_conn_peer_endpoint(conn);
    TARN_LOG_INFO("[%s] incoming connect from [%s]", tarn::rpc_name(server), peer);
    TARN_RPC rpc = make_server_conn(server, conn);
    if (rpc == nullptr)
    {
        return TARN_ERRLN;
    }
    const rpc_pin pin(rpc);
    const int rc = ask_application(server, rpc, peer);
    if (rc != 0)
    {
        TARN_LOG_WARN("[%s] on_peer_connecting return [%d], drop peer(%s) connecting request",
                      tarn::rpc_name(server), rc, peer);
        return turn_away(rpc);
    }
    if (!tarn::rpc_is_alive(rpc))
    {
        return TARN_ERRLN; // destroyed by the callback, its connection too
    }
    if (!tarn::rpc_is_alive(server) || !enter_table(server, rpc))
    {
        return turn_away(rpc);
    }
    if (rpc->callbacks.on_connected != nullptr)
    {
        rpc->callbacks.on_connected(rpc, rpc->context);
    }
    return 0;
}

void on_server_disconnect(TARN_CONN conn, void *context)
{
    auto *const server = static_cast<TARN_RPC>(context);
    TARN_RPC rpc = take_from_table(server, conn);
    if (rpc == nullptr)
    {
        return; // not admitted, or being destroyed
    }
    tarn::rpc_line_lost(rpc);
    // Without a callback the object destroys itself; inside a turn of its own the next turn does.
    if (rpc->callbacks.on_disconnected != nullptr || tarn::rpc_turn_depth(rpc) == 0)
    {
        tarn::rpc_report_end(rpc);
    }
    tarn::rpc_unref(rpc);
}

/** "ADDRESS:PORT" */
char *make_name(const char *addr, const char *port)
{
    char text[512];
    tarn::text_writer name(text, sizeof text);
    name.append(addr != nullptr ? addr : "");
    if (tarn::conn_is_set(port))
    {
        name.append(':').append(port);
    }
    return tarn_str_dup(text);
}

} // namespace

namespace tarn
{

void rpc_leave_table(TARN_RPC rpc)
{
    if (rpc->owner == nullptr)
    {
        return;
    }
    const critical_section_guard guard(rpc->owner->conn_table_cs);
    void *found = nullptr;
    if (tarn_hash_find_ex(rpc->owner->conn_table, &rpc->cli_h, sizeof rpc->cli_h, &found) &&
        found == rpc)
    {
        (void)tarn_hash_remove_ex(rpc->owner->conn_table, &rpc->cli_h, sizeof rpc->cli_h);
    }
}

void rpc_report_end(TARN_RPC rpc)
{
    // Counted before the mark is looked at: a destroy of the server that finds it set waits for the
    // report that is under way.
    const rpc_pin server_pin(rpc->owner);
    count_callback(rpc->owner->foreign_turns);
    const callback_scope scope(rpc->owner->foreign_turns);
    if (__atomic_exchange_n(&rpc->reported, uint8_t{1}, __ATOMIC_ACQ_REL) != 0)
    {
        return;
    }
    if (rpc->callbacks.on_disconnected != nullptr)
    {
        rpc->callbacks.on_disconnected(rpc, rpc->context);
        return;
    }
    tarn_rpc_destroy(rpc);
}

} // namespace tarn

int tarn_rpc_server_create(const struct tlsu_credentials *secret, const char *bind_addr,
                           const char *bind_port, uint32_t timeout, uint32_t max_conn,
                           const TARN_RPC_CALLBACK *callbacks, void *context, TARN_RPC *rpc_h)
{
    RVON(rpc_h, TARN_ERRLN);
    TARN_RPC rpc = tarn::rpc_make(RPC_OBJ_TYPE_SERVER, callbacks, context);
    RVON(rpc, TARN_ERRLN);
    rpc->bind_addr = bind_addr != nullptr ? tarn_str_dup(bind_addr) : nullptr;
    rpc->bind_port = bind_port != nullptr ? tarn_str_dup(bind_port) : nullptr;
    rpc->name = make_name(bind_addr, bind_port);
    rpc->svr_h = rpc->name == nullptr
                     ? nullptr
                     : tarn_conn_server_create(secret, bind_addr, bind_port, timeout, max_conn,
                                               on_server_connect, on_server_disconnect, rpc);
    if (rpc->svr_h == TARN_INVALID_HANDLE)
    {
        tarn::rpc_discard(rpc);
        TARN_CHECK_FAILED("RVON(rpc,TARN_ERRLN)");
        return TARN_ERRLN;
    }
    *rpc_h = rpc;
    return 0;
}
