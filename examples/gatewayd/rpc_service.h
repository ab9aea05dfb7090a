// The points, an echo and statistics over RPC, and files that clients send: see protocol.h. One server
// on a TCP port, with TLS when there are credentials, and one on a local socket.
#pragma once

#include "points.h"
#include "settings.h"
#include "work_gate.h"

#include "tarn_rpc.h"

namespace gatewayd
{

class rpc_service
{
public:
    rpc_service(point_table &points, work_gate &gate) : points_(points), gate_(gate) {}
    rpc_service(const rpc_service &) = delete;
    rpc_service &operator=(const rpc_service &) = delete;
    ~rpc_service()
    {
        close();
    }

    /** Opens the servers that the settings ask for; they are borrowed while it is open. */
    bool open(const settings &wanted);
    /** Closes servers and connections; running requests are cut off. */
    void close();

private:
    static int on_peer_connecting(TARN_RPC server, void *self, const char *peer, TARN_RPC conn,
                                  TARN_RPC_CALLBACK *callbacks, void **conn_context);
    static void on_connected(TARN_RPC conn, void *self);
    static void on_disconnected(TARN_RPC conn, void *self);
    static int on_msg(TARN_RPC conn, uint32_t seq_no, uint32_t msg_id, TARN_RPC_MSG msg,
                      TARN_RPC_MSG reply, void *self);
    static void on_file_received(void *self);

    bool open_server(const settings &wanted, const char *addr, const char *port, TARN_RPC *out);
    int answer(uint32_t msg_id, TARN_RPC_MSG msg, TARN_RPC_MSG reply);
    int get(TARN_RPC_MSG msg, TARN_RPC_MSG reply);
    int set(TARN_RPC_MSG msg);
    int list(TARN_RPC_MSG reply);
    int stats(TARN_RPC_MSG reply);

    point_table &points_;
    work_gate &gate_;
    TARN_RPC tcp_ = TARN_INVALID_HANDLE;
    TARN_RPC local_ = TARN_INVALID_HANDLE;
};

} // namespace gatewayd
