#include "rpc_echo.h"

#include "protocol.h"

#include "tarn_mem.h"

namespace gatewayd
{
namespace
{

/** An iterator over a message, for its scope. */
class message_walk
{
public:
    explicit message_walk(TARN_RPC_MSG msg)
    {
        stands_ = tarn_rpc_msg_read_begin(msg, &it_) == 0;
    }
    message_walk(const message_walk &) = delete;
    message_walk &operator=(const message_walk &) = delete;
    ~message_walk()
    {
        tarn_rpc_msg_read_end(&it_);
    }
    /** At an element. */
    [[nodiscard]] bool stands() const
    {
        return stands_;
    }
    [[nodiscard]] TARN_RPC_MSG_ITER at() const
    {
        return it_;
    }
    void go_on()
    {
        stands_ = tarn_rpc_msg_read_next(&it_) == 0;
    }

private:
    TARN_RPC_MSG_ITER it_ = nullptr;
    bool stands_;
};

/** A string is taken where it stands; numbers are at most 16 bytes and change their byte order. */
bool copy_value(TARN_RPC_MSG_ITER it, uint16_t id, uint8_t type, TARN_RPC_MSG reply)
{
    const void *text = nullptr;
    uint32_t len = 0;
    if (type == MSG_ELM_TYPE_STRING)
    {
        return tarn_rpc_msg_element_value_ptr(it, &text, &len) == 0 &&
               tarn_rpc_msg_write_element_value(reply, id, type, len != 0 ? text : "", len) == 0;
    }
    unsigned char value[16];
    len = sizeof value;
    return tarn_rpc_msg_element_value(it, value, &len) == 0 &&
           tarn_rpc_msg_write_element_value(reply, id, type, value, len) == 0;
}

bool copy_element(TARN_RPC_MSG_ITER it, TARN_RPC_MSG reply)
{
    const uint16_t id = tarn_rpc_msg_element_id(it);
    const uint8_t type = tarn_rpc_msg_element_type(it);
    switch (type)
    {
    case MSG_ELM_TYPE_OBJECT_BEGIN:
        return tarn_rpc_msg_write_object_begin(reply, id) == 0;
    case MSG_ELM_TYPE_OBJECT_END:
        return tarn_rpc_msg_write_object_end(reply) == 0;
    case MSG_ELM_TYPE_ARRAY_BEGIN:
        return tarn_rpc_msg_write_array_begin(reply, id) == 0;
    case MSG_ELM_TYPE_ARRAY_END:
        return tarn_rpc_msg_write_array_end(reply) == 0;
    default:
        return copy_value(it, id, type, reply);
    }
}

} // namespace

int echo_elements(TARN_RPC_MSG msg, TARN_RPC_MSG reply)
{
    const uint32_t size = msg != nullptr ? tarn_rpc_msg_data_len(msg) : 0;
    if (size > GATEWAYD_ECHO_MAX)
    {
        return GATEWAYD_TOO_LARGE;
    }
    if (size == 0 || reply == nullptr)
    {
        return GATEWAYD_OK;
    }
    for (message_walk walk(msg); walk.stands(); walk.go_on())
    {
        if (!copy_element(walk.at(), reply))
        {
            return GATEWAYD_WRONG_ELEMENT;
        }
    }
    // What comes out the same was well formed to the last byte.
    const bool same = tarn_rpc_msg_data_len(reply) == size &&
                      tarn_mem_compare(tarn_rpc_msg_data(msg), tarn_rpc_msg_data(reply), size) == 0;
    return same ? GATEWAYD_OK : GATEWAYD_WRONG_ELEMENT;
}

} // namespace gatewayd
