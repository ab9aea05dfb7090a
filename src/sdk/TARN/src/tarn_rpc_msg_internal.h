// Private: the records of a message and its iterator, the sizes of element values, and messages made
// from received frames; for tarn_rpc*.cpp, tests, fuzz targets and benchmarks.
#ifndef TARN_RPC_MSG_INTERNAL_H
#define TARN_RPC_MSG_INTERNAL_H

#include "tarn_rpc_msg.h"

#include "tarn_raii.h"

#include <array>
#include <bit>
#include <span>

namespace tarn
{

/** An object or array that is being written. */
struct rpc_open_object
{
    rpc_open_object *next; ///< the one around it
    uint32_t child_count;
    uint32_t count_offset; ///< where the count will be stored; the buffer may move, so no pointer
    uint16_t elm_id;
    uint8_t type;       ///< MSG_ELM_TYPE_OBJECT_BEGIN or _ARRAY_BEGIN
    uint8_t child_type; ///< arrays: type of all children, once there is one
};

/** Objects that can be open at a time before further ones are allocated. */
inline constexpr uint32_t rpc_own_open_objects = 4;

} // namespace tarn

/** A message, all numbers in host order. Its type tag is 0: the generic close leaves it alone. */
struct tarn_rpc_msg
{
    tarn_handle_header header;
    uint32_t ref_count; ///< the last one to give up its share frees; shared, atomic access only
    uint32_t capacity;  ///< of data, which is one byte larger
    uint32_t time_stamp;
    uint64_t user_value;
    tarn::rpc_open_object *object_stack; ///< innermost open object; null: none is open
    uint32_t seq_no;                     ///< of the frame that carried a received message
    uint32_t msg_id;                     ///< likewise, without the bit that marks a reply
    uint32_t rsp_flag_or_code;           ///< likewise; 1 in a message sent for a reply
    uint8_t *data;
    uint32_t data_len;
    uint32_t open_count;  ///< length of object_stack
    uint32_t zeros_begin; ///< from here to zeros_end a received message has bytes that never came
    uint32_t zeros_end;   ///< 0: all came
    tarn::rpc_open_object own_objects[tarn::rpc_own_open_objects]; ///< bottom of object_stack
};
TARN_ASSERT_RECORD(tarn_rpc_msg);

/** A place in a message; holds one reference on it. Type tag 0 as well. */
struct tarn_rpc_msg_iter
{
    tarn_handle_header header;
    uint32_t offset; ///< of the current element, at most data_len
    TARN_RPC_MSG msg;
};
TARN_ASSERT_RECORD(tarn_rpc_msg_iter);

namespace tarn
{

/** Sizes of type, id and count or length. */
inline constexpr uint32_t rpc_element_header_size = 3;
inline constexpr uint32_t rpc_element_count_size = 4;

/** Size of an element's value by its type code; strings tell theirs, any other code has none. */
inline constexpr auto rpc_element_value_size = [] {
    std::array<uint8_t, 256> size{};
    size[MSG_ELM_TYPE_ARRAY_BEGIN] = 4;
    size[MSG_ELM_TYPE_HANDLE] = 8;
    size[MSG_ELM_TYPE_BOOL] = 1;
    size[MSG_ELM_TYPE_INT8] = 1;
    size[MSG_ELM_TYPE_INT16] = 2;
    size[MSG_ELM_TYPE_INT32] = 4;
    size[MSG_ELM_TYPE_INT64] = 8;
    size[MSG_ELM_TYPE_UINT8] = 1;
    size[MSG_ELM_TYPE_UINT16] = 2;
    size[MSG_ELM_TYPE_UINT32] = 4;
    size[MSG_ELM_TYPE_UINT64] = 8;
    size[MSG_ELM_TYPE_FLOAT] = 4;
    size[MSG_ELM_TYPE_DOUBLE] = 8;
    size[MSG_ELM_TYPE_BYTES16] = 16;
    return size;
}();

/** Handles travel as their distance from this base, so that tokens can be made relative; 0. */
inline constinit uint64_t rpc_handle_base = 0;

constexpr bool is_rpc_marker(uint8_t elm_type) noexcept
{
    return elm_type >= MSG_ELM_TYPE_OBJECT_BEGIN && elm_type <= MSG_ELM_TYPE_ARRAY_END;
}

/** Where the high and the low half of a 128-bit number stand in this host's memory. */
inline constexpr size_t rpc_high_half = std::endian::native == std::endian::little ? 8 : 0;
inline constexpr size_t rpc_low_half = 8 - rpc_high_half;

/** make_object() for records that come and go with every message, without calloc(), which goes past
 *  the C library's cache of small blocks.
 *  @return a zero-filled record of type tag 0; empty when memory ran out. */
template <typename Record>
unique_mem<Record> make_frequent_object()
{
    unique_mem<Record> object(tarn_mem_realloc(nullptr, sizeof(Record)));
    if (object)
    {
        tarn_mem_zero(object.get(), sizeof(Record));
        object->header.size = sizeof(Record);
    }
    return object;
}

/** What the header of a frame says. */
struct rpc_frame_fields
{
    uint32_t seq_no;
    uint32_t msg_id; ///< without the bit that marks a reply
    uint32_t rsp_flag_or_code;
    uint32_t data_len; ///< above 0
};

/** Make a message from a received frame.
 *  It has the stated length whatever has arrived: bytes that never came are 0 and cost no memory
 *  until they are written to, bytes beyond the stated length are left out.
 *  @param arrived  copied
 *  @return the message with one reference; null when memory ran out. */
TARN_RPC_MSG rpc_msg_from_frame(const rpc_frame_fields &fields, std::span<const uint8_t> arrived);

/** Bytes of a message that are worth a dump: not the zeros that stand for what never came. */
inline uint32_t rpc_msg_dump_len(const tarn_rpc_msg &msg) noexcept
{
    return msg.zeros_end != 0 ? msg.zeros_begin : msg.data_len;
}

/** Owns one reference on a message. */
inline void rpc_msg_drop(TARN_RPC_MSG msg_h)
{
    (void)tarn_rpc_msg_release(msg_h);
}
using unique_rpc_msg = unique_handle<TARN_RPC_MSG, rpc_msg_drop>;

} // namespace tarn

#endif
