// RPC messages: their life, and the writing of elements; tarn_rpc_msg_iter.cpp reads them.
//
// A message grows at its end only. Every write makes room first and counts the element as a child
// last, so that a refused one leaves neither bytes nor a count behind. Positions inside the data
// are kept as offsets: the buffer moves when it grows.

#include "tarn_rpc_msg.h"

#include "tarn_rpc_msg_internal.h"
#include "tarn_str.h"
#include "tarn_sys.h"
#include "tarn_wire.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace tarn
{
namespace
{

constexpr uint32_t growth_step = 65536;

/** Data that a frame can carry: its length field counts 16 bytes beside them. */
constexpr uint32_t max_capacity = UINT32_MAX - 16;

// ---- buffer and record ----------------------------------------------------------------------------

/** A message that owns a buffer of capacity + 1 bytes; null when there is none. The buffer is freed
 *  when the record cannot be had. */
TARN_RPC_MSG make_message(unique_mem<uint8_t> data, uint32_t capacity)
{
    RVON(data, TARN_INVALID_HANDLE);
    auto msg = make_frequent_object<tarn_rpc_msg>();
    RVON(msg, TARN_INVALID_HANDLE);
    msg->ref_count = 1;
    msg->capacity = capacity;
    msg->data = data.release();
    return msg.release();
}

void pop_object(TARN_RPC_MSG msg)
{
    rpc_open_object *const object = std::exchange(msg->object_stack, msg->object_stack->next);
    if (--msg->open_count >= rpc_own_open_objects)
    {
        tarn_mem_free(object);
    }
}

void free_message(TARN_RPC_MSG msg)
{
    while (msg->object_stack != nullptr)
    {
        pop_object(msg);
    }
    tarn_mem_free(msg->data);
    tarn_mem_free(msg);
}

/** Enlarge the buffer by whole steps; the message is unchanged when that fails. */
bool enlarge(TARN_RPC_MSG msg, uint64_t needed)
{
    const uint64_t steps = (needed - msg->capacity + growth_step - 1) / growth_step;
    const uint64_t capacity = msg->capacity + steps * growth_step;
    RVOF(capacity <= max_capacity, false);
    void *const data = tarn_mem_realloc(msg->data, static_cast<size_t>(capacity) + 1);
    RVON(data, false);
    msg->data = static_cast<uint8_t *>(data);
    msg->capacity = static_cast<uint32_t>(capacity);
    return true;
}

/** Make room for size more bytes. */
inline bool grow(TARN_RPC_MSG msg, uint64_t size)
{
    const uint64_t needed = msg->data_len + size;
    return needed <= msg->capacity || enlarge(msg, needed);
}

/** A writer over the free part of the buffer, with the header of an element written. */
inline wire_writer begin_element(TARN_RPC_MSG msg, uint8_t elm_type, uint16_t elm_id)
{
    wire_writer out({msg->data + msg->data_len, msg->capacity - msg->data_len});
    out.u8(elm_type);
    out.u16(elm_id);
    return out;
}

/** Take over what has been written. */
inline void commit(TARN_RPC_MSG msg, const wire_writer &out)
{
    msg->data_len += static_cast<uint32_t>(out.position());
}

// ---- elements ------------------------------------------------------------------------------------

/** Count a new child of an open object or array. */
int count_child(rpc_open_object &object, uint8_t child_type)
{
    switch (object.type)
    {
    case MSG_ELM_TYPE_OBJECT_BEGIN:
        break;
    case MSG_ELM_TYPE_ARRAY_BEGIN:
        // the count tells the first child: 0 is a type like any other
        if (object.child_count != 0 && object.child_type != child_type)
        {
            TARN_LOG_ERROR("elm_type [%d] mismatch, expect [%d]", child_type, object.child_type);
            return -1;
        }
        object.child_type = child_type;
        break;
    default:
        TARN_LOG_ERROR("invalid object type [%d]", object.type);
        return -1;
    }
    ++object.child_count;
    return 0;
}

/** Count a new element where it stands in an object or array. */
inline int rpc_msg_update_child_count(TARN_RPC_MSG msg_h, uint8_t child_type)
{
    return msg_h->object_stack == nullptr ? 0 : count_child(*msg_h->object_stack, child_type);
}

int rpc_msg_write_object_begin(TARN_RPC_MSG msg_h, uint8_t type, uint16_t elm_id)
{
    constexpr uint32_t size = rpc_element_header_size + rpc_element_count_size;
    RVON(msg_h, -1);
    RVOF(elm_id != 0, -1);
    TARN_LOG_DEBUG("offset = [%u], type = [%u], elm_id = [%u]", msg_h->data_len, type, elm_id);
    RVOF(grow(msg_h, size), -1);
    unique_mem<rpc_open_object> further;
    if (msg_h->open_count >= rpc_own_open_objects)
    {
        further = unique_mem<rpc_open_object>::make();
        RVON(further, -1);
    }
    const int rc = rpc_msg_update_child_count(msg_h, type);
    RVOF(0 == rc, rc);
    rpc_open_object *const object =
        further ? further.release() : &msg_h->own_objects[msg_h->open_count];
    *object = {.next = msg_h->object_stack,
               .child_count = 0,
               .count_offset = msg_h->data_len + rpc_element_header_size,
               .elm_id = elm_id,
               .type = type,
               .child_type = 0};
    msg_h->object_stack = object;
    ++msg_h->open_count;
    wire_writer out = begin_element(msg_h, type, elm_id);
    out.u32(0); // of an object that is never ended
    commit(msg_h, out);
    return 0;
}

int rpc_msg_write_object_end(TARN_RPC_MSG msg_h, uint8_t begin_type, uint8_t end_type)
{
    RVON(msg_h, -1);
    const rpc_open_object *const object = msg_h->object_stack;
    if (object == nullptr || object->type != begin_type)
    {
        TARN_LOG_ERROR("invalid operation");
        return -1;
    }
    RVOF(grow(msg_h, rpc_element_header_size), -1);
    commit(msg_h, begin_element(msg_h, end_type, object->elm_id));
    wire_writer({msg_h->data + object->count_offset, rpc_element_count_size})
        .u32(object->child_count);
    pop_object(msg_h);
    return 0;
}

/** Size of the value that is to be written; more than a message holds for a text that is too long. */
inline uint64_t expected_size(uint8_t elm_type, const void *value, uint32_t value_len)
{
    if (elm_type != MSG_ELM_TYPE_STRING)
    {
        return rpc_element_value_size[elm_type];
    }
    return value_len != 0 ? value_len : tarn_str_len(static_cast<const char *>(value));
}

template <typename Number>
Number load(const void *value, size_t offset = 0)
{
    Number number;
    std::memcpy(&number, static_cast<const uint8_t *>(value) + offset, sizeof number);
    return number;
}

inline void write_fixed(wire_writer &out, const void *value, uint64_t size)
{
    switch (size)
    {
    case 1:
        out.u8(load<uint8_t>(value));
        break;
    case 2:
        out.u16(load<uint16_t>(value));
        break;
    case 4:
        out.u32(load<uint32_t>(value));
        break;
    case 8:
        out.u64(load<uint64_t>(value));
        break;
    case 16:
        out.u64(load<uint64_t>(value, rpc_high_half));
        out.u64(load<uint64_t>(value, rpc_low_half));
        break;
    default: // no value
        break;
    }
}

inline void write_string(wire_writer &out, const void *value, uint32_t size)
{
    out.u32(size);
    out.bytes(value, size);
    out.u8(0);
}

/** Append an element, for which there is room. */
inline void write_element(TARN_RPC_MSG msg, uint16_t elm_id, uint8_t elm_type, const void *value,
                          uint64_t size)
{
    wire_writer out = begin_element(msg, elm_type, elm_id);
    switch (elm_type)
    {
    case MSG_ELM_TYPE_STRING:
        write_string(out, value, static_cast<uint32_t>(size));
        break;
    case MSG_ELM_TYPE_HANDLE:
        out.u64(load<uint64_t>(value) - rpc_handle_base);
        break;
    default:
        write_fixed(out, value, size);
        break;
    }
    commit(msg, out);
}

} // namespace

TARN_RPC_MSG rpc_msg_from_frame(const rpc_frame_fields &fields, std::span<const uint8_t> arrived)
{
    const size_t size = size_t{fields.data_len} + 1;
    const size_t present = std::min<size_t>(fields.data_len, arrived.size());
    RVOZ(size, TARN_INVALID_HANDLE); // more than a host of 32 bits can address
    // Zeroed pages of a large block come from the kernel as they are touched. What is overwritten
    // whole needs no zeros.
    unique_mem<uint8_t> data(present == fields.data_len ? tarn_mem_realloc(nullptr, size)
                                                        : tarn_mem_alloc(size));
    RVON(data, TARN_INVALID_HANDLE);
    tarn_mem_copy(data.get(), arrived.data(), present);
    data.get()[fields.data_len] = 0;
    const TARN_RPC_MSG msg = make_message(std::move(data), fields.data_len);
    RVON(msg, TARN_INVALID_HANDLE);
    if (present < fields.data_len)
    {
        msg->zeros_begin = static_cast<uint32_t>(present);
        msg->zeros_end = fields.data_len;
    }
    msg->seq_no = fields.seq_no;
    msg->msg_id = fields.msg_id;
    msg->rsp_flag_or_code = fields.rsp_flag_or_code;
    msg->data_len = fields.data_len;
    return msg;
}

} // namespace tarn

namespace
{

constexpr uint32_t network_to_host(uint32_t number)
{
    return std::endian::native == std::endian::little ? __builtin_bswap32(number) : number;
}

} // namespace

// ---- lifetime ------------------------------------------------------------------------------------

TARN_RPC_MSG tarn_rpc_msg_create(void)
{
    // not zeroed: what goes out has been written first
    const TARN_RPC_MSG msg = tarn::make_message(
        tarn::unique_mem<uint8_t>(tarn_mem_realloc(nullptr, size_t{tarn::growth_step} + 1)),
        tarn::growth_step);
    RVON(msg, TARN_INVALID_HANDLE);
    TARN_LOG_DEBUG("msg = [%p], ref_count = [%d]", static_cast<void *>(msg), 1);
    return msg;
}

int32_t tarn_rpc_msg_add_ref(TARN_RPC_MSG msg_h)
{
    RVON(msg_h, TARN_ERRLN);
    const auto count =
        static_cast<int32_t>(__atomic_add_fetch(&msg_h->ref_count, 1u, __ATOMIC_RELAXED));
    TARN_LOG_DEBUG("msg = [%p], ref_count = [%d]", static_cast<void *>(msg_h), count);
    return count;
}

int32_t tarn_rpc_msg_release(TARN_RPC_MSG msg_h)
{
    RVON(msg_h, TARN_ERRLN);
    // Acquire and release: what others did with the message comes before the last one frees it.
    // Whoever is not the last does not touch it any more.
    const auto count =
        static_cast<int32_t>(__atomic_sub_fetch(&msg_h->ref_count, 1u, __ATOMIC_ACQ_REL));
    TARN_LOG_DEBUG("msg = [%p], ref_count = [%d]", static_cast<void *>(msg_h), count);
    if (count <= 0)
    {
        tarn::free_message(msg_h);
    }
    return count;
}

// ---- accessors -----------------------------------------------------------------------------------

const uint8_t *tarn_rpc_msg_data(TARN_RPC_MSG msg_h)
{
    RVON(msg_h, NULL);
    return msg_h->data;
}

uint32_t tarn_rpc_msg_data_len(TARN_RPC_MSG msg_h)
{
    RVON(msg_h, 0);
    return msg_h->data_len;
}

uint32_t tarn_rpc_msg_time_stamp(TARN_RPC_MSG msg_h)
{
    RVON(msg_h, 0);
    return msg_h->time_stamp;
}

void tarn_rpc_msg_set_time_stamp(TARN_RPC_MSG msg_h, uint32_t tick_ms)
{
    RON(msg_h);
    msg_h->time_stamp = tick_ms;
}

uint32_t tarn_rpc_msg_elapsed_ms(TARN_RPC_MSG msg_h)
{
    RVON(msg_h, 0);
    return tarn_tick_ms_since(msg_h->time_stamp);
}

uint64_t tarn_rpc_msg_user_value(TARN_RPC_MSG msg_h)
{
    RVON(msg_h, 0);
    return msg_h->user_value;
}

void tarn_rpc_msg_set_user_value(TARN_RPC_MSG msg_h, uint64_t value)
{
    RON(msg_h);
    msg_h->user_value = value;
}

uint32_t tarn_rpc_msg_seq_no(TARN_RPC_MSG msg_h)
{
    RVON(msg_h, 0);
    return network_to_host(msg_h->seq_no); // deliberately, see the header
}

uint32_t tarn_rpc_msg_id(TARN_RPC_MSG msg_h)
{
    RVON(msg_h, 0);
    return network_to_host(msg_h->msg_id);
}

// ---- writing -------------------------------------------------------------------------------------

int tarn_rpc_msg_write_element_value(TARN_RPC_MSG msg_h, uint16_t elm_id, uint8_t elm_type,
                                     const void *value, uint32_t value_len)
{
    constexpr uint32_t string_frame = tarn::rpc_element_count_size + 1; // length and 0 byte
    RVON(msg_h, -1);
    RVOF(elm_id != 0, -2);
    TARN_LOG_DEBUG("offset = [%u], elm_type = [%u], elm_id = [%u]", msg_h->data_len, elm_type,
                   elm_id);
    if (tarn::is_rpc_marker(elm_type))
    {
        TARN_LOG_ERROR("unexpected elm_type [%d]", elm_type);
        return -1;
    }
    const bool is_string = elm_type == MSG_ELM_TYPE_STRING;
    const bool has_value = is_string || tarn::rpc_element_value_size[elm_type] != 0;
    RVOF(value != NULL || !has_value, -1);
    const uint64_t size = tarn::expected_size(elm_type, value, value_len);
    if (value_len != 0 && value_len != size)
    {
        TARN_LOG_ERROR("invalid value len [%d] for type [%d], expect len [%d]!", value_len,
                       elm_type, static_cast<int>(size));
        return -1;
    }
    const uint64_t element_size =
        tarn::rpc_element_header_size + size + (is_string ? string_frame : 0);
    RVOF(tarn::grow(msg_h, element_size), -1);
    const int rc = tarn::rpc_msg_update_child_count(msg_h, elm_type);
    RVOF(0 == rc, rc);
    tarn::write_element(msg_h, elm_id, elm_type, value, size);
    return 0;
}

int tarn_rpc_msg_write_object_begin(TARN_RPC_MSG msg_h, uint16_t elm_id)
{
    return tarn::rpc_msg_write_object_begin(msg_h, MSG_ELM_TYPE_OBJECT_BEGIN, elm_id);
}

int tarn_rpc_msg_write_object_end(TARN_RPC_MSG msg_h)
{
    return tarn::rpc_msg_write_object_end(msg_h, MSG_ELM_TYPE_OBJECT_BEGIN,
                                          MSG_ELM_TYPE_OBJECT_END);
}

int tarn_rpc_msg_write_array_begin(TARN_RPC_MSG msg_h, uint16_t elm_id)
{
    return tarn::rpc_msg_write_object_begin(msg_h, MSG_ELM_TYPE_ARRAY_BEGIN, elm_id);
}

int tarn_rpc_msg_write_array_end(TARN_RPC_MSG msg_h)
{
    return tarn::rpc_msg_write_object_end(msg_h, MSG_ELM_TYPE_ARRAY_BEGIN, MSG_ELM_TYPE_ARRAY_END);
}
