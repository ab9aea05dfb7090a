// Typed data from bytes of any origin: reading takes memory in proportion to the bytes, writing gives
// the same bytes again, and every conversion of what was read is safe.

#include "tarn_data.h"
#include "tarn_data_internal.h"
#include "tarn_mem_internal.h"

#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{

size_t requested = 0;

void require(bool condition)
{
    if (!condition)
    {
        std::abort();
    }
}

template <typename T>
void get_and_set(TARN_DATA data, bool (*get)(TARN_DATA, T *), bool (*set)(TARN_DATA, T))
{
    T value = 0;
    if (get(data, &value))
    {
        (void)set(data, value);
    }
}

/** Each value is got as every type, and set to what was got. */
void convert(TARN_DATA data)
{
    char text[100];
    int32_t length = sizeof text;
    const bool has_text = tarn_data_get_as_string(data, text, &length);
    require(!has_text || (length <= static_cast<int32_t>(sizeof text) && text[length - 1] == '\0'));
    get_and_set(data, tarn_data_get_as_boolean, tarn_data_set_as_boolean);
    get_and_set(data, tarn_data_get_as_uint8, tarn_data_set_as_uint8);
    get_and_set(data, tarn_data_get_as_uint16, tarn_data_set_as_uint16);
    get_and_set(data, tarn_data_get_as_uint32, tarn_data_set_as_uint32);
    get_and_set(data, tarn_data_get_as_uint64, tarn_data_set_as_uint64);
    get_and_set(data, tarn_data_get_as_int8, tarn_data_set_as_int8);
    get_and_set(data, tarn_data_get_as_int16, tarn_data_set_as_int16);
    get_and_set(data, tarn_data_get_as_int32, tarn_data_set_as_int32);
    get_and_set(data, tarn_data_get_as_int64, tarn_data_set_as_int64);
    get_and_set(data, tarn_data_get_as_float, tarn_data_set_as_float);
    get_and_set(data, tarn_data_get_as_double, tarn_data_set_as_double);
    if (has_text)
    {
        (void)tarn_data_set_as_string(data, text);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    tarn_log_level_set(0);
    tarn::mem_fail_hook.store([](size_t size) {
        requested += size;
        return false;
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    if (size == 0)
    {
        return 0;
    }
    uint32_t used = 0;
    requested = 0;
    tarn::unique_data list(tarn_data_alloc_from_buf(bytes, static_cast<uint32_t>(size), &used));
    require(requested <= size * sizeof(tarn_data));
    if (!list)
    {
        return 0;
    }
    require(used <= size && (used == size || bytes[used] == 0));
    std::vector<uint8_t> again(used);
    require(tarn_data_write_to_buf(list.get(), again.data(), used) == used);
    require(std::memcmp(again.data(), bytes, used) == 0);
    require(used == 1 || tarn_data_write_to_buf(list.get(), again.data(), used - 1) == 0);

    const tarn::unique_data copy(tarn_data_dup_list(list.get()));
    require(tarn_data_count(copy.get()) == tarn_data_count(list.get()));
    for (TARN_DATA data = list.get(); data != nullptr; data = tarn_data_get_next(data))
    {
        convert(data);
    }
    while (list)
    {
        const tarn::unique_data first(list.release());
        list.reset(tarn_data_remove_head(first.get()));
    }
    return 0;
}
