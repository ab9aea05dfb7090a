// The points over local IPC, under the instance's name: see protocol.h.
#pragma once

#include "points.h"
#include "work_gate.h"

#include "tarn_ipc.h"

namespace gatewayd
{

class ipc_service
{
public:
    ipc_service(point_table &points, work_gate &gate) : points_(points), gate_(gate) {}
    ipc_service(const ipc_service &) = delete;
    ipc_service &operator=(const ipc_service &) = delete;
    ~ipc_service()
    {
        close();
    }

    bool open(const char *name, uint32_t max_conn);
    /** Closes the server and its connections; running calls are cut off. */
    void close();

private:
    static int32_t on_connect(TARN_IPC server, const char *caller, tarn_ipc_callbacks *callbacks,
                              void *self, TARN_IPC conn);
    static void on_connected(TARN_IPC conn, const char *caller, void *self, TARN_IPC same);
    static void on_disconnected(TARN_IPC conn, const char *caller, void *self, TARN_IPC same);
    static int32_t on_call(TARN_IPC conn, uint32_t function, TARN_DATA args, TARN_DATA *results,
                           void *self);

    int32_t answer(uint32_t function, TARN_DATA args, TARN_DATA *results);
    int32_t get(TARN_DATA args, TARN_DATA *results);
    int32_t set(TARN_DATA args);
    int32_t list(TARN_DATA *results);

    point_table &points_;
    work_gate &gate_;
    TARN_IPC server_ = TARN_INVALID_HANDLE;
};

} // namespace gatewayd
