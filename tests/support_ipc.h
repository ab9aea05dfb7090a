// What the tests of local IPC share: servers and clients whose callbacks are C++ functions, and a
// scope for shorter times.
#pragma once

#include "support.h"

#include "tarn_data.h"
#include "tarn_data_internal.h"
#include "tarn_ipc.h"
#include "tarn_ipc_internal.h"

#include <atomic>
#include <functional>
#include <string>

namespace support
{

/** The layer for a scope that leaves nothing behind: neither while it is up nor with its end. */
class leak_checked_layer
{
private:
    /** What the first start-up opens stays for the process's life. */
    const bool warm_ = [] {
        const layer first;
        return true;
    }();
    const leak_check leaks_;
    const layer layer_;
};

/** Times that a test does not want to wait out; the usual ones afterwards. */
class ipc_times
{
public:
    explicit ipc_times(const std::function<void(tarn::ipc_limits &)> &change)
    {
        change(tarn::ipc_limit);
    }
    ipc_times(const ipc_times &) = delete;
    ipc_times &operator=(const ipc_times &) = delete;
    ~ipc_times()
    {
        tarn::ipc_limit = tarn::ipc_limits();
    }
};

/** Callbacks of connections, with counts. */
struct ipc_side
{
    std::function<int32_t(TARN_IPC, uint32_t, TARN_DATA, TARN_DATA *)> on_call;
    std::function<void(TARN_IPC)> on_connected;
    std::function<void(TARN_IPC)> on_disconnected;
    std::function<int32_t(TARN_IPC conn, const char *caller)> on_connect;
    std::atomic<int> connected{0};
    std::atomic<int> disconnected{0};
    std::atomic<int> calls{0};
    std::string seen_name; ///< of the last on_connected

    tarn_ipc_callbacks callbacks()
    {
        return {[](TARN_IPC conn, const char *name, void *object, TARN_IPC same) {
                    auto *const self = static_cast<ipc_side *>(object);
                    EXPECT_EQ(conn, same);
                    self->seen_name = name;
                    ++self->connected;
                    if (self->on_connected)
                    {
                        self->on_connected(conn);
                    }
                },
                [](TARN_IPC conn, const char *, void *object, TARN_IPC same) {
                    auto *const self = static_cast<ipc_side *>(object);
                    EXPECT_EQ(conn, same);
                    ++self->disconnected;
                    if (self->on_disconnected)
                    {
                        self->on_disconnected(conn);
                    }
                },
                [](TARN_IPC conn, uint32_t func_id, TARN_DATA args_in, TARN_DATA *args_out,
                   void *object) {
                    auto *const self = static_cast<ipc_side *>(object);
                    ++self->calls;
                    return self->on_call ? self->on_call(conn, func_id, args_in, args_out) : 0;
                },
                this};
    }
    tarn_ipc_server_callbacks server_callbacks()
    {
        return {[](TARN_IPC, const char *caller, tarn_ipc_callbacks *cb_func, void *object,
                   TARN_IPC conn) -> int32_t {
                    auto *const self = static_cast<ipc_side *>(object);
                    *cb_func = self->callbacks();
                    return self->on_connect ? self->on_connect(conn, caller) : 0;
                },
                this};
    }
    TARN_IPC serve(const std::string &name, uint32_t max_connection = 64)
    {
        const tarn_ipc_server_callbacks cb = server_callbacks();
        return tarn_ipc_create(name.c_str(), max_connection, &cb);
    }
    TARN_IPC open(const std::string &callee, const std::string &caller)
    {
        const tarn_ipc_callbacks cb = callbacks();
        return tarn_ipc_open(callee.c_str(), caller.c_str(), &cb);
    }
    TARN_IPC open_async(const std::string &callee, const std::string &caller)
    {
        const tarn_ipc_callbacks cb = callbacks();
        return tarn_ipc_open_async(callee.c_str(), caller.c_str(), &cb);
    }
};

/** Destroys at the end of its scope. */
using ipc_owner =
    tarn::unique_handle<TARN_IPC, [](TARN_IPC handle) { EXPECT_EQ(tarn_ipc_destroy(handle), 1); }>;

inline tarn::unique_data ipc_text(const std::string &text)
{
    const auto length = static_cast<uint32_t>(text.size());
    return tarn::unique_data(tarn_data_alloc(TARN_DATA_TYPE_STRING, text.data(), &length));
}

inline std::string ipc_text_of(TARN_DATA data)
{
    return data != nullptr && tarn_data_get_str_buffer(data) != nullptr
               ? std::string(tarn_data_get_str_buffer(data), tarn_data_get_str_len(data))
               : std::string();
}

/** Answers with the arguments. */
inline int32_t ipc_echo(TARN_IPC, uint32_t func_id, TARN_DATA args_in, TARN_DATA *args_out)
{
    if (args_out != nullptr && args_in != nullptr)
    {
        *args_out = tarn_data_dup_list(args_in);
    }
    return static_cast<int32_t>(func_id);
}

} // namespace support
