// Private: the record of a typed data value and the table of its types; for tarn_data*.cpp,
// tarn_ipc.cpp and the tests.
#ifndef TARN_DATA_INTERNAL_H
#define TARN_DATA_INTERNAL_H

#include "tarn_data.h"

#include "tarn_raii.h"

#include <array>
#include <cstring>

/** Place of a value in a list. */
enum
{
    TARN_DATA_ROLE_SINGLE = 0, ///< by itself
    TARN_DATA_ROLE_HEAD = 1,   ///< the first of a list, also when the others have been removed
    TARN_DATA_ROLE_CHILD = 2   ///< further down a list
};

struct tarn_data
{
    tarn_handle_header header;
    uint8_t type; ///< TARN_DATA_TYPE_*
    union
    {
        uint64_t scalar;      ///< in its first 1, 2, 4 or 8 bytes, in the order of the host
        tarn_data_pair *pair; ///< owned
        uint32_t length;      ///< of the string
    } word;
    char *buffer;    ///< of a string: `length` bytes, owned; null when there are none, and after an
                     ///< allocation that failed, whatever the length
    tarn_data *next; ///< owned
    tarn_data *tail; ///< of a head: the last of its list; of any other value: itself
    uint32_t count;  ///< of a head: the values of its list; of any other value: 1
    uint32_t role;
};
TARN_ASSERT_RECORD(tarn_data);
static_assert(sizeof(tarn_data_pair) == 16 && sizeof(tarn_data::word) == 8);

namespace tarn
{

enum class data_form : uint8_t
{
    invalid,
    null,
    boolean,
    integer,
    real,
    pointer,
    pair,
    text,
    count ///< number of forms
};

/** How a text is read, by the scan pattern that gives the same. */
enum class text_pattern : uint8_t
{
    none,    ///< not at all
    truth,   ///< "true" or "false"
    int32,   ///< "%i"
    low32,   ///< "%il": as "%i", the upper half of the 64 bits zero
    int64,   ///< "%li"
    real32,  ///< "%f", and "%fl": single precision, widened
    real64,  ///< "%lf"
    address, ///< "%p"
};

struct data_type
{
    data_form form;
    uint8_t width; ///< bytes of the raw value; 0 for those with a length of their own
    bool is_signed;
    const char *print;        ///< its text: the printf format; integers are given as 32 bits
    text_pattern get_pattern; ///< how a text is got as this type
    text_pattern set_pattern; ///< how this type is set from a text
};

/** By type code; code 0 is not a type. */
inline constexpr std::array<data_type, 16> data_types = {{
    {data_form::invalid, 0, false, "", text_pattern::none, text_pattern::none},
    {data_form::null, 0, false, "nil", text_pattern::none, text_pattern::none},
    {data_form::boolean, 1, false, "%s", text_pattern::truth, text_pattern::truth},
    {data_form::integer, 1, false, "%u", text_pattern::int32, text_pattern::int32},
    {data_form::integer, 2, false, "%u", text_pattern::int32, text_pattern::int32},
    {data_form::integer, 4, false, "%u", text_pattern::int32, text_pattern::int32},
    {data_form::integer, 8, false, "%ul", text_pattern::low32, text_pattern::int64},
    {data_form::integer, 1, true, "%d", text_pattern::int32, text_pattern::int32},
    {data_form::integer, 2, true, "%d", text_pattern::int32, text_pattern::int32},
    {data_form::integer, 4, true, "%d", text_pattern::int32, text_pattern::int32},
    {data_form::integer, 8, true, "%dl", text_pattern::low32, text_pattern::int32},
    {data_form::real, 4, true, "%f", text_pattern::real32, text_pattern::real32},
    {data_form::real, 8, true, "%fl", text_pattern::real32, text_pattern::real64},
    {data_form::pointer, 8, false, "%p", text_pattern::none, text_pattern::address},
    {data_form::pair, 16, false, "", text_pattern::none, text_pattern::none},
    {data_form::text, 0, false, "", text_pattern::none, text_pattern::none},
}};

/** The row of a type; that of code 0 for codes that are no types. */
constexpr const data_type &data_type_of(uint8_t code) noexcept
{
    return data_types[code < data_types.size() ? code : 0];
}

template <typename T>
T load_as(const void *from) noexcept
{
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <typename T>
void store_as(void *to, uint64_t bits) noexcept
{
    const T value = static_cast<T>(bits);
    std::memcpy(to, &value, sizeof value);
}

/** The 0, 1, 2, 4 or 8 bytes of a scalar, in the order of the host, as a number. */
inline uint64_t load_scalar(const void *from, size_t width) noexcept
{
    switch (width)
    {
    case 1:
        return load_as<uint8_t>(from);
    case 2:
        return load_as<uint16_t>(from);
    case 4:
        return load_as<uint32_t>(from);
    case 8:
        return load_as<uint64_t>(from);
    default:
        return 0;
    }
}

/** The low bytes of a number as a scalar of that width. */
inline void store_scalar(void *to, size_t width, uint64_t bits) noexcept
{
    switch (width)
    {
    case 1:
        return store_as<uint8_t>(to, bits);
    case 2:
        return store_as<uint16_t>(to, bits);
    case 4:
        return store_as<uint32_t>(to, bits);
    case 8:
        return store_as<uint64_t>(to, bits);
    default:
        return;
    }
}

/** A string that has lost its bytes to an allocation that failed. */
inline bool lacks_buffer(const tarn_data &data) noexcept
{
    return data.word.length != 0 && data.buffer == nullptr;
}

using unique_data = unique_handle<TARN_DATA, tarn_data_destroy>;

/** A null value by itself; empty when memory ran out. */
inline unique_data data_create()
{
    // every field is written here, so the block need not be cleared
    auto *const data = static_cast<tarn_data *>(tarn_mem_realloc(nullptr, sizeof(tarn_data)));
    if (data != nullptr)
    {
        data->header = {sizeof(tarn_data), TARN_HANDLE_TYPE_DATA};
        data->type = TARN_DATA_TYPE_NULL;
        data->word.scalar = 0;
        data->buffer = nullptr;
        data->next = nullptr;
        data->tail = data;
        data->count = 1;
        data->role = TARN_DATA_ROLE_SINGLE;
    }
    return unique_data(data);
}

/** Append a list to a head, both known to be that. */
void data_append(tarn_data *head, tarn_data *list) noexcept;

/** Give a string a new buffer of `length` bytes: `size` of them from source, which may lie in the
 *  old buffer, the rest zero.
 *  @return false when memory ran out: the string then has the length but no buffer. */
bool data_replace_string(tarn_data *data, const void *source, uint32_t size, uint32_t length);

/** tarn_data_alloc_from_buf() with a limit, for frames of a peer: bytes of more than max_values
 *  values are malformed. A value of one byte takes 64 in memory. */
TARN_DATA data_read_list(const uint8_t *buf, uint32_t buf_len, uint32_t *used, uint32_t max_values);

} // namespace tarn

#endif
