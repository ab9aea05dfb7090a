#include "rpc_service.h"

#include "protocol.h"
#include "rpc_echo.h"
#include "spool.h"

#include "tarn_rpc_file.h"

#include <cstdio>

namespace gatewayd
{
namespace
{

/** How long a server's turn waits for a peer. */
constexpr uint32_t accept_ms = 1000;

/** Room for an echo that is too large to be told so, and for blocks of files. */
constexpr uint32_t frame_limit = 4 * GATEWAYD_ECHO_MAX;

/** The text of an element, without a NUL behind it. */
bool read_name(TARN_RPC_MSG msg, std::string_view *out)
{
    const void *text = nullptr;
    uint32_t len = 0;
    if (msg == nullptr ||
        tarn_rpc_msg_get_element_ptr(msg, GATEWAYD_ELM_NAME, MSG_ELM_TYPE_STRING, &text, &len) != 0)
    {
        return false;
    }
    *out = {static_cast<const char *>(text), len};
    out->remove_suffix(out->ends_with('\0') ? 1 : 0);
    return true;
}

bool write_value(TARN_RPC_MSG reply, const point &shown)
{
    return tarn_rpc_msg_write_element_value(reply, GATEWAYD_ELM_VALUE, MSG_ELM_TYPE_DOUBLE,
                                            &shown.value, 0) == 0 &&
           tarn_rpc_msg_write_element_value(reply, GATEWAYD_ELM_TIME_MS, MSG_ELM_TYPE_UINT64,
                                            &shown.time_ms, 0) == 0;
}

bool write_point(TARN_RPC_MSG reply, const point &shown)
{
    return tarn_rpc_msg_write_object_begin(reply, GATEWAYD_ELM_POINT) == 0 &&
           tarn_rpc_msg_write_element_value(reply, GATEWAYD_ELM_NAME, MSG_ELM_TYPE_STRING,
                                            shown.name, 0) == 0 &&
           write_value(reply, shown) && tarn_rpc_msg_write_object_end(reply) == 0;
}

int result_of(bool written)
{
    return written ? GATEWAYD_OK : GATEWAYD_FAILED;
}

} // namespace

// ---- servers ------------------------------------------------------------------------------------

bool rpc_service::open_server(const settings &wanted, const char *addr, const char *port,
                              TARN_RPC *out)
{
    const TARN_RPC_CALLBACK callbacks = {
        sizeof callbacks, on_peer_connecting, on_connected, on_disconnected, on_msg, nullptr};
    const tlsu_credentials *const secret = port != nullptr ? wanted.tls : nullptr;
    if (tarn_rpc_server_create(secret, addr, port, accept_ms, wanted.max_conn, &callbacks, this,
                               out) != 0)
    {
        TARN_LOG_ERROR("cannot serve RPC on %s%s%s", addr, port != nullptr ? " port " : "",
                       port != nullptr ? port : "");
        return false;
    }
    tarn_rpc_set_frame_limit(*out, frame_limit);
    if (tarn_rpc_loop_start(*out) != 0)
    {
        return false;
    }
    TARN_LOG_INFO("RPC on %s%s%s", port != nullptr ? "" : "local socket ", tarn_rpc_name(*out),
                  secret != nullptr ? " with TLS" : "");
    return true;
}

bool rpc_service::open(const settings &wanted)
{
    set_spool(wanted.spool);
    if (has_spool())
    {
        TARN_LOG_INFO("files into %s", wanted.spool);
    }
    char port[8];
    (void)std::snprintf(port, sizeof port, "%u", static_cast<unsigned>(wanted.rpc_port));
    return (wanted.rpc_port == 0 || open_server(wanted, wanted.rpc_addr, port, &tcp_)) &&
           (wanted.local[0] == '\0' || open_server(wanted, wanted.local, nullptr, &local_));
}

void rpc_service::close()
{
    for (TARN_RPC *server : {&tcp_, &local_})
    {
        tarn_rpc_destroy(*server);
        *server = TARN_INVALID_HANDLE;
    }
}

// ---- connections --------------------------------------------------------------------------------

int rpc_service::on_peer_connecting(TARN_RPC, void *self, const char *, TARN_RPC conn,
                                    TARN_RPC_CALLBACK *, void **conn_context)
{
    auto *const me = static_cast<rpc_service *>(self);
    if (me->gate_.is_closed())
    {
        return GATEWAYD_ENDING;
    }
    *conn_context = me;
    if (has_spool())
    {
        tarn_rpc_set_file_callbacks(conn, choose_destination, nullptr, on_file_received, me);
    }
    return 0;
}

void rpc_service::on_connected(TARN_RPC conn, void *self)
{
    static_cast<rpc_service *>(self)->gate_.count_connection(1);
    if (tarn_rpc_loop_start(conn) != 0)
    {
        TARN_LOG_ERROR("cannot serve %s", tarn_rpc_peer_address(conn));
        tarn_rpc_destroy(conn);
    }
}

void rpc_service::on_disconnected(TARN_RPC conn, void *self)
{
    static_cast<rpc_service *>(self)->gate_.count_connection(-1);
    tarn_rpc_destroy(conn);
}

void rpc_service::on_file_received(void *)
{
    TARN_LOG_INFO("file received");
}

// ---- requests -----------------------------------------------------------------------------------

int rpc_service::on_msg(TARN_RPC, uint32_t, uint32_t msg_id, TARN_RPC_MSG msg, TARN_RPC_MSG reply,
                        void *self)
{
    auto *const me = static_cast<rpc_service *>(self);
    const work_gate::pass pass(me->gate_);
    return pass.is_inside() ? me->answer(msg_id, msg, reply) : GATEWAYD_ENDING;
}

int rpc_service::answer(uint32_t msg_id, TARN_RPC_MSG msg, TARN_RPC_MSG reply)
{
    switch (msg_id)
    {
    case GATEWAYD_MSG_ECHO:
        return echo_elements(msg, reply);
    case GATEWAYD_MSG_GET:
        return get(msg, reply);
    case GATEWAYD_MSG_SET:
        return set(msg);
    case GATEWAYD_MSG_LIST:
        return list(reply);
    case GATEWAYD_MSG_STATS:
        return stats(reply);
    default:
        return GATEWAYD_NO_SUCH_CALL;
    }
}

int rpc_service::get(TARN_RPC_MSG msg, TARN_RPC_MSG reply)
{
    std::string_view name;
    point found = {};
    if (!read_name(msg, &name))
    {
        return GATEWAYD_WRONG_ELEMENT;
    }
    if (!points_.get(name, &found))
    {
        return GATEWAYD_NO_SUCH_POINT;
    }
    return reply != nullptr ? result_of(write_value(reply, found)) : GATEWAYD_OK;
}

int rpc_service::set(TARN_RPC_MSG msg)
{
    std::string_view name;
    double value = 0;
    if (!read_name(msg, &name) ||
        tarn_rpc_msg_read_element(msg, GATEWAYD_ELM_VALUE, MSG_ELM_TYPE_DOUBLE, &value,
                                  sizeof value, nullptr) != 0)
    {
        return GATEWAYD_WRONG_ELEMENT;
    }
    return code_of(points_.set(name, value));
}

int rpc_service::list(TARN_RPC_MSG reply)
{
    if (reply == nullptr)
    {
        return GATEWAYD_OK;
    }
    const point_list points(points_);
    bool written =
        points.is_whole() && tarn_rpc_msg_write_array_begin(reply, GATEWAYD_ELM_POINTS) == 0;
    for (const point &shown : points.all())
    {
        written = written && write_point(reply, shown);
    }
    return result_of(written && tarn_rpc_msg_write_array_end(reply) == 0);
}

int rpc_service::stats(TARN_RPC_MSG reply)
{
    const struct
    {
        uint16_t id;
        uint64_t value;
    } rows[] = {{GATEWAYD_ELM_REQUESTS, gate_.requests()},
                {GATEWAYD_ELM_CONNECTIONS, gate_.connections()},
                {GATEWAYD_ELM_UPTIME_MS, gate_.uptime_ms()}};
    bool written = true;
    for (const auto &[id, value] : rows)
    {
        written =
            written && (reply == nullptr || tarn_rpc_msg_write_element_value(
                                                reply, id, MSG_ELM_TYPE_UINT64, &value, 0) == 0);
    }
    return result_of(written);
}

} // namespace gatewayd
