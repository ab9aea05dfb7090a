// Typed data values: the byte form that travels between processes.
//
// The bytes may come from anyone. A length is held against what is there before anything is
// allocated for it, so what a buffer costs is bounded by its size.

#include "tarn_data.h"

#include "tarn_data_internal.h"
#include "tarn_wire.h"

#include <algorithm>
#include <limits>

using tarn::load_as;
using tarn::store_as;
using tarn::unique_data;
using tarn::wire_reader;
using tarn::wire_writer;

namespace
{

/** For log lines; sizes beyond an int show as the largest one. */
int shown(uint64_t size)
{
    return static_cast<int>(std::min<uint64_t>(size, std::numeric_limits<int>::max()));
}

/** Write one value.
 *  @return its size; 0 when it does not fit or lacks its pair or buffer */
size_t write_single(const tarn_data &data, wire_writer &out)
{
    const size_t start = out.position();
    out.u8(data.type);
    switch (data.type)
    {
    case TARN_DATA_TYPE_NULL:
        break;
    case TARN_DATA_TYPE_BOOLEAN:
    case TARN_DATA_TYPE_UINT8:
    case TARN_DATA_TYPE_INT8:
        out.u8(load_as<uint8_t>(&data.word));
        break;
    case TARN_DATA_TYPE_UINT16:
    case TARN_DATA_TYPE_INT16:
        out.u16(load_as<uint16_t>(&data.word));
        break;
    case TARN_DATA_TYPE_UINT32:
    case TARN_DATA_TYPE_INT32:
    case TARN_DATA_TYPE_FLOAT:
        out.u32(load_as<uint32_t>(&data.word));
        break;
    case TARN_DATA_TYPE_UINT64:
    case TARN_DATA_TYPE_INT64:
    case TARN_DATA_TYPE_DOUBLE:
        out.u64(load_as<uint64_t>(&data.word));
        break;
    case TARN_DATA_TYPE_POINTER: // its low half: it does not survive the trip anyway
        out.u32(static_cast<uint32_t>(load_as<uint64_t>(&data.word)));
        break;
    case TARN_DATA_TYPE_PAIR:
        if (data.word.pair == nullptr)
        {
            return 0;
        }
        out.u64(data.word.pair->major_part);
        out.u32(data.word.pair->minor_part);
        break;
    case TARN_DATA_TYPE_STRING:
        if (tarn::lacks_buffer(data))
        {
            return 0;
        }
        out.u32(data.word.length);
        out.bytes(data.buffer, data.word.length);
        break;
    default:
        return 0;
    }
    return out.ok() ? out.position() - start : 0;
}

/** What the bytes of one value say before it gets memory of its own. */
struct payload
{
    tarn_data_pair pair{};
    std::span<const uint8_t> text;
};

/** Read what stands behind the type.
 *  @return false for a code that is no type; whether all of it was there is for the reader to say */
bool read_payload(wire_reader &in, tarn_data *data, payload &more)
{
    switch (data->type)
    {
    case TARN_DATA_TYPE_NULL:
        return true;
    case TARN_DATA_TYPE_BOOLEAN:
    case TARN_DATA_TYPE_UINT8:
    case TARN_DATA_TYPE_INT8:
        store_as<uint8_t>(&data->word, in.u8());
        return true;
    case TARN_DATA_TYPE_UINT16:
    case TARN_DATA_TYPE_INT16:
        store_as<uint16_t>(&data->word, in.u16());
        return true;
    case TARN_DATA_TYPE_UINT32:
    case TARN_DATA_TYPE_INT32:
    case TARN_DATA_TYPE_FLOAT:
        store_as<uint32_t>(&data->word, in.u32());
        return true;
    case TARN_DATA_TYPE_UINT64:
    case TARN_DATA_TYPE_INT64:
    case TARN_DATA_TYPE_DOUBLE:
        store_as<uint64_t>(&data->word, in.u64());
        return true;
    case TARN_DATA_TYPE_POINTER:
        store_as<uint64_t>(&data->word, in.u32());
        return true;
    case TARN_DATA_TYPE_PAIR:
        more.pair.major_part = in.u64();
        more.pair.minor_part = in.u32();
        return true;
    case TARN_DATA_TYPE_STRING:
        more.text = in.bytes(in.u32());
        return true;
    default:
        return false;
    }
}

/** Read one value by itself. */
TARN_DATA create_single_data_from_buffer(wire_reader &in)
{
    unique_data owner = tarn::data_create();
    tarn_data *const data = owner.get();
    RVON(data, NULL);
    const size_t start = in.position();
    const size_t buf_len = in.remaining();
    payload more;
    data->type = in.u8();
    if (!read_payload(in, data, more))
    {
        TARN_LOG_ERROR("%s: unknown data type = %d\n", __func__, data->type);
        return TARN_INVALID_HANDLE;
    }
    if (!in.ok())
    {
        TARN_LOG_ERROR("%s: data_size = %d > buf_len = %d\n", __func__, shown(in.needed() - start),
                       shown(buf_len));
        return TARN_INVALID_HANDLE;
    }
    const auto length = static_cast<uint32_t>(more.text.size());
    if (data->type == TARN_DATA_TYPE_STRING &&
        !tarn::data_replace_string(data, more.text.data(), length, length))
    {
        TARN_LOG_ERROR("%s: fail to alloc memory for string, len = %d\n", __func__, shown(length));
        return TARN_INVALID_HANDLE;
    }
    if (data->type == TARN_DATA_TYPE_PAIR && !tarn_data_set_value(data, &more.pair, nullptr))
    {
        return TARN_INVALID_HANDLE;
    }
    return owner.release();
}

} // namespace

namespace tarn
{

TARN_DATA data_read_list(const uint8_t *buf, uint32_t buf_len, uint32_t *used, uint32_t max_values)
{
    unique_data list;
    tarn_data *last = nullptr;
    uint32_t count = 0;
    wire_reader in({buf, buf_len});
    while (in.remaining() != 0 && buf[in.position()] != 0)
    {
        if (count == max_values)
        {
            TARN_LOG_ERROR("more than %u values", max_values);
            return TARN_INVALID_HANDLE;
        }
        tarn_data *const data = create_single_data_from_buffer(in);
        if (data == nullptr)
        {
            return TARN_INVALID_HANDLE;
        }
        if (++count == 1)
        {
            list.reset(data);
        }
        else
        {
            data->role = TARN_DATA_ROLE_CHILD;
            last->next = data;
        }
        last = data;
    }
    if (count > 1)
    {
        list.get()->tail = last;
        list.get()->count = count;
        list.get()->role = TARN_DATA_ROLE_HEAD;
    }
    if (used != nullptr)
    {
        *used = static_cast<uint32_t>(in.position());
    }
    return list.release();
}

} // namespace tarn

uint32_t tarn_data_write_to_buf(TARN_DATA data_handle, void *buf, uint32_t buf_len)
{
    RVON(data_handle, 0);
    RVON(buf, 0);
    RVOF(buf_len > 0, 0);
    wire_writer out({static_cast<uint8_t *>(buf), buf_len});
    for (const tarn_data *data = data_handle; data != nullptr; data = data->next)
    {
        const size_t len = write_single(*data, out);
        RVOF(len > 0, 0);
    }
    return static_cast<uint32_t>(out.position());
}

TARN_DATA tarn_data_alloc_from_buf(const void *buf, uint32_t buf_len, uint32_t *used)
{
    RVON(buf, TARN_INVALID_HANDLE);
    RVOF(buf_len > 0, TARN_INVALID_HANDLE);
    return tarn::data_read_list(static_cast<const uint8_t *>(buf), buf_len, used,
                                std::numeric_limits<uint32_t>::max());
}
