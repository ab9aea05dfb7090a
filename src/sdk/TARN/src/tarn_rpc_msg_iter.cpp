// Reading of RPC messages: the iterator and the lookups by id.
//
// The bytes come from a peer. Every operation looks at the rest of the data, from the current
// element on, through a reader that never leaves it. The walk takes a step of at most that rest:
// an element that claims more is the last one, and no claim can bring the offset back.

#include "tarn_rpc_msg.h"

#include "tarn_check.h"
#include "tarn_rpc_msg_internal.h"
#include "tarn_wire.h"

#include <cstring>
#include <utility>

namespace
{

using tarn::wire_reader;

// Each failure of the two lookups has a code of its own; constants, so that it stays when lines move.
constexpr int read_not_opened = -1880;
constexpr int read_not_found = -1884;
constexpr int read_other_type = -1891;
constexpr int read_no_value = -1902;
constexpr int get_not_opened = -1933;
constexpr int get_not_found = -1937;
constexpr int get_other_type = -1944;
constexpr int get_no_value = -1960;

// ---- one element ---------------------------------------------------------------------------------

/** The data from the current element on; empty at the end. */
inline std::span<const uint8_t> rest_of(const tarn_rpc_msg_iter &it)
{
    return {it.msg->data + it.offset, it.msg->data_len - it.offset};
}

/** Bytes that the element at the front of a rest, which is not empty, claims; the rest, when it does
 *  not come to telling them. */
inline uint64_t element_size(std::span<const uint8_t> rest)
{
    const uint8_t elm_type = rest[0];
    if (elm_type == MSG_ELM_TYPE_STRING)
    {
        wire_reader in(rest);
        (void)in.bytes(tarn::rpc_element_header_size);
        const uint64_t length = in.u32();
        return in.ok() ? in.position() + length + 1 : rest.size();
    }
    return tarn::rpc_element_header_size + (elm_type == MSG_ELM_TYPE_OBJECT_BEGIN
                                                ? tarn::rpc_element_count_size
                                                : tarn::rpc_element_value_size[elm_type]);
}

/** Step on from an element.
 *  @return false when that is the end */
inline bool advance(tarn_rpc_msg_iter &it)
{
    const auto rest = rest_of(it);
    const uint64_t size = element_size(rest);
    if (size < rest.size()) [[likely]]
    {
        it.offset += static_cast<uint32_t>(size);
        return true;
    }
    it.offset = it.msg->data_len;
    return false;
}

/** Go to the last of the elements that the zeros of a message are: 3 bytes each, id 0. A frame of 24
 *  bytes can stand for a billion of them. */
inline void skip_zeros(tarn_rpc_msg_iter &it)
{
    const uint32_t size = tarn::rpc_element_header_size;
    if (it.offset >= it.msg->zeros_begin && it.offset < it.msg->zeros_end)
    {
        it.offset += (it.msg->zeros_end - it.offset - 1) / size * size;
    }
}

/** The value of a string at the front of a rest; false when it is cut off. */
inline bool find_string(std::span<const uint8_t> rest, std::span<const uint8_t> &value)
{
    wire_reader in(rest);
    (void)in.bytes(tarn::rpc_element_header_size);
    value = in.bytes(in.u32());
    (void)in.u8();
    return in.ok();
}

/** The value of another element at the front of a rest; false when it is cut off. */
inline bool find_fixed(std::span<const uint8_t> rest, std::span<const uint8_t> &value)
{
    const size_t size = tarn::rpc_element_value_size[rest[0]];
    if (rest.size() < tarn::rpc_element_header_size + size) [[unlikely]]
    {
        return false;
    }
    value = rest.subspan(tarn::rpc_element_header_size, size);
    return true;
}

/** The value of the current element, which is not the end; false for a marker and when it is cut
 *  off. On the path of every element that is read, in both value operations. */
[[gnu::always_inline]] inline bool find_value(const tarn_rpc_msg_iter &it,
                                              std::span<const uint8_t> &value)
{
    const auto rest = rest_of(it);
    const uint8_t elm_type = rest[0];
    if (elm_type == MSG_ELM_TYPE_STRING)
    {
        return find_string(rest, value);
    }
    if (tarn::is_rpc_marker(elm_type))
    {
        TARN_LOG_ERROR("invalid elm_type [%d]", elm_type);
        return false;
    }
    return find_fixed(rest, value);
}

/** The line of a value that was found; the last thing of each value operation, so that a level that
 *  hides it costs them next to nothing. */
inline void log_value(const tarn_rpc_msg_iter &it, std::span<const uint8_t> value)
{
    TARN_LOG_DEBUG("elm_type = [%d], v_offset = [%u], v_size = [%u], it->offset = [%u]",
                   it.msg->data[it.offset], static_cast<uint32_t>(value.data() - it.msg->data),
                   static_cast<uint32_t>(value.size()), it.offset);
}

template <typename Number>
void store(void *to, Number number, size_t offset = 0)
{
    std::memcpy(static_cast<uint8_t *>(to) + offset, &number, sizeof number);
}

/** Copy a value of a fixed size in host order. */
inline void copy_fixed(void *to, std::span<const uint8_t> value)
{
    wire_reader in(value);
    switch (value.size())
    {
    case 1:
        store(to, in.u8());
        break;
    case 2:
        store(to, in.u16());
        break;
    case 4:
        store(to, in.u32());
        break;
    case 8:
        store(to, in.u64());
        break;
    case 16:
        store(to, in.u64(), tarn::rpc_high_half);
        store(to, in.u64(), tarn::rpc_low_half);
        break;
    default: // no value
        break;
    }
}

inline void copy_value(void *to, uint8_t elm_type, std::span<const uint8_t> value)
{
    switch (elm_type)
    {
    case MSG_ELM_TYPE_STRING:
        tarn_mem_copy(to, value.data(), value.size());
        break;
    case MSG_ELM_TYPE_HANDLE:
        store(to, wire_reader(value).u64() + tarn::rpc_handle_base);
        break;
    default:
        copy_fixed(to, value);
        break;
    }
}

// ---- iterators -----------------------------------------------------------------------------------

/** Take a reference on the message, from offset 0. */
void open(tarn_rpc_msg_iter &it, TARN_RPC_MSG msg)
{
    (void)tarn_rpc_msg_add_ref(msg);
    it.msg = msg;
    TARN_LOG_HEX(&tarn_default_logger, TARN_LOG_LEVEL_DEBUG, "[BUF]", msg->data,
                 tarn::rpc_msg_dump_len(*msg));
}

/** The iterator of one lookup: lives on the stack, so that lookups do not allocate. */
class [[nodiscard]] lookup
{
public:
    explicit lookup(TARN_RPC_MSG msg)
    {
        open(it_, msg);
    }
    lookup(const lookup &) = delete;
    lookup &operator=(const lookup &) = delete;
    ~lookup()
    {
        (void)tarn_rpc_msg_release(it_.msg);
    }
    /** Go to the first element with this id. Id 0 is none: an element that is cut off reads so. */
    bool find(uint16_t elm_id)
    {
        if (elm_id == TARN_RPC_INVALID_ELEM_ID || it_.msg->data_len == 0)
        {
            return false;
        }
        do
        {
            skip_zeros(it_);
            if (tarn_rpc_msg_element_id(&it_) == elm_id)
            {
                return true;
            }
        } while (advance(it_));
        return false;
    }
    /** The element found is of this type. */
    [[nodiscard]] bool is_of_type(uint8_t elm_type) const
    {
        const uint8_t actual = it_.msg->data[it_.offset];
        if (actual != elm_type)
        {
            TARN_LOG_ERROR("invalid element type [%d], expect [%d]", actual, elm_type);
        }
        return actual == elm_type;
    }
    TARN_RPC_MSG_ITER it()
    {
        return &it_;
    }

private:
    tarn_rpc_msg_iter it_ = {};
};

} // namespace

int tarn_rpc_msg_read_begin(TARN_RPC_MSG msg_h, TARN_RPC_MSG_ITER *itor)
{
    RVON(msg_h, -1);
    RVON(itor, -1);
    auto it = tarn::make_frequent_object<tarn_rpc_msg_iter>();
    RVON(it, -1);
    open(*it, msg_h);
    *itor = it.release();
    return 0;
}

int tarn_rpc_msg_read_next(TARN_RPC_MSG_ITER *itor)
{
    TARN_RPC_MSG_ITER *const it = itor;
    RVON(itor, TARN_ERRLN);
    RVON_TEXT(*it, TARN_ERRLN, "RVON(itor,TARN_ERRLN)");
    RVOF((*it)->offset < (*it)->msg->data_len, TARN_ERRLN);
    if (!advance(**it))
    {
        tarn_rpc_msg_read_end(it);
        return TARN_ERRLN;
    }
    return 0;
}

void tarn_rpc_msg_read_end(TARN_RPC_MSG_ITER *itor)
{
    if (itor == nullptr || *itor == nullptr)
    {
        return;
    }
    const TARN_RPC_MSG_ITER it = std::exchange(*itor, nullptr);
    (void)tarn_rpc_msg_release(it->msg);
    tarn_mem_free(it);
}

int tarn_rpc_msg_next_element(TARN_RPC_MSG_ITER it)
{
    RVON(it, -1);
    RVOF(it->offset < it->msg->data_len, -1);
    return advance(*it) ? 0 : -2;
}

uint16_t tarn_rpc_msg_element_id(TARN_RPC_MSG_ITER it)
{
    RVON(it, TARN_RPC_INVALID_ELEM_ID);
    RVOF(it->offset < it->msg->data_len, TARN_RPC_INVALID_ELEM_ID);
    wire_reader in(rest_of(*it));
    (void)in.u8();
    return in.u16();
}

uint8_t tarn_rpc_msg_element_type(TARN_RPC_MSG_ITER it)
{
    RVON(it, MSG_ELM_TYPE_NULL);
    RVOF(it->offset < it->msg->data_len, MSG_ELM_TYPE_NULL);
    return it->msg->data[it->offset];
}

uint32_t tarn_rpc_msg_element_child_count(TARN_RPC_MSG_ITER it)
{
    RVON(it, 0);
    RVOF(it->offset < it->msg->data_len, 0);
    wire_reader in(rest_of(*it));
    const uint8_t elm_type = in.u8();
    (void)in.u16();
    return elm_type == MSG_ELM_TYPE_OBJECT_BEGIN || elm_type == MSG_ELM_TYPE_ARRAY_BEGIN ? in.u32()
                                                                                         : 0;
}

int tarn_rpc_msg_element_value_ptr(TARN_RPC_MSG_ITER it, const void **elm_value,
                                   uint32_t *elm_value_len)
{
    RVON(it, -1);
    RVON(elm_value, -2);
    RVON(elm_value_len, -3);
    RVOF(it->offset < it->msg->data_len, -1);
    std::span<const uint8_t> value;
    if (!find_value(*it, value))
    {
        return -1;
    }
    *elm_value = value.data();
    *elm_value_len = static_cast<uint32_t>(value.size());
    log_value(*it, value);
    return 0;
}

int tarn_rpc_msg_element_value(TARN_RPC_MSG_ITER it, void *elm_value, uint32_t *elm_value_len)
{
    RVON(it, -1);
    RVON(elm_value, -2);
    RVON(elm_value_len, -3);
    RVOF(it->offset < it->msg->data_len, -1);
    std::span<const uint8_t> value;
    if (!find_value(*it, value))
    {
        return -1;
    }
    const uint8_t elm_type = it->msg->data[it->offset];
    if (*elm_value_len < value.size())
    {
        TARN_LOG_ERROR("element type [%d], value_len [%d] < actual size [%d]", elm_type,
                       *elm_value_len, static_cast<int>(value.size()));
        return -2;
    }
    *elm_value_len = static_cast<uint32_t>(value.size());
    copy_value(elm_value, elm_type, value);
    log_value(*it, value);
    return 0;
}

int tarn_rpc_msg_read_element(TARN_RPC_MSG msg_h, uint16_t elm_id, uint8_t elm_type, void *buffer,
                              uint32_t buffer_len, uint32_t *value_len)
{
    if (msg_h == nullptr)
    {
        TARN_LOG_DEBUG("failed to read message!");
        return read_not_opened;
    }
    lookup element(msg_h);
    if (!element.find(elm_id))
    {
        return read_not_found;
    }
    if (!element.is_of_type(elm_type))
    {
        return read_other_type;
    }
    const int rc = tarn_rpc_msg_element_value(element.it(), buffer, &buffer_len);
    if (rc != 0)
    {
        TARN_LOG_ERROR("failed to read element value, rc = [%d]", rc);
        return read_no_value;
    }
    if (value_len != nullptr)
    {
        *value_len = buffer_len;
    }
    return 0;
}

int tarn_rpc_msg_get_element_ptr(TARN_RPC_MSG msg_h, uint16_t elm_id, uint8_t elm_type,
                                 const void **ptr, uint32_t *len)
{
    if (msg_h == nullptr)
    {
        TARN_LOG_DEBUG("failed to read message!");
        return get_not_opened;
    }
    lookup element(msg_h);
    if (!element.find(elm_id))
    {
        return get_not_found;
    }
    if (!element.is_of_type(elm_type))
    {
        return get_other_type;
    }
    uint32_t size = 0;
    const int rc = tarn_rpc_msg_element_value_ptr(element.it(), ptr, &size);
    if (rc != 0)
    {
        TARN_LOG_ERROR("failed to get element [%d] pointer with type [%d], rc = [%d]", elm_id,
                       elm_type, rc);
        return get_no_value;
    }
    if (len != nullptr)
    {
        *len = size;
    }
    return 0;
}
