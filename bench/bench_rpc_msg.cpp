// A message of 20 mixed elements, built and read back, against the same elements copied into a plain
// buffer and out again with their bytes swapped.
//
// The bare side writes the same bytes from the same table, and reads them into the same structures:
// one switch over the size per element, no checks. It takes a buffer of the same size from the heap
// for each message, as ours does.

#include "ratio.h"

#include "tarn_rpc_msg.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace
{

constexpr size_t buffer_size = 65536;
constexpr char text[] = "boiler 3, feed water";

struct element
{
    uint16_t id;
    uint8_t type;
    uint8_t size;
    uint64_t value[3];
};

const element elements[] = {
    {1, MSG_ELM_TYPE_UINT32, 4, {70000}},
    {2, MSG_ELM_TYPE_UINT16, 2, {700}},
    {3, MSG_ELM_TYPE_BOOL, 1, {1}},
    {4, MSG_ELM_TYPE_INT64, 8, {uint64_t(-5)}},
    {5, MSG_ELM_TYPE_DOUBLE, 8, {0x4009'21fb'5444'2d18}},
    {6, MSG_ELM_TYPE_STRING, 20, {}},
    {7, MSG_ELM_TYPE_FLOAT, 4, {0x4049'0fdb}},
    {8, MSG_ELM_TYPE_INT8, 1, {0xF0}},
    {9, MSG_ELM_TYPE_HANDLE, 8, {0x7fff'0000'1234}},
    {10, MSG_ELM_TYPE_BYTES16, 16, {1, 2}},
    {11, MSG_ELM_TYPE_UINT64, 8, {1}},
    {12, MSG_ELM_TYPE_INT32, 4, {0xFFFF'FFF0}},
    {13, MSG_ELM_TYPE_STRING, 7, {}},
    {14, MSG_ELM_TYPE_UINT8, 1, {9}},
    {15, MSG_ELM_TYPE_NULL, 0, {}},
    {16, MSG_ELM_TYPE_INT16, 2, {0xFFF0}},
    {17, MSG_ELM_TYPE_UINT32, 4, {3}},
    {18, MSG_ELM_TYPE_STRING, 12, {}},
    {19, MSG_ELM_TYPE_UINT32, 4, {4}},
    {20, MSG_ELM_TYPE_DOUBLE, 8, {0}},
};
static_assert(std::size(elements) == 20);

const void *value_of(const element &e)
{
    return e.type == MSG_ELM_TYPE_STRING ? static_cast<const void *>(text) : e.value;
}

/** What has been read, in the order of the message. */
struct reading
{
    element found[std::size(elements)];
};

void tarn_message(benchmark::State &state)
{
    for (auto turn : state)
    {
        const TARN_RPC_MSG msg = tarn_rpc_msg_create();
        for (const element &e : elements)
        {
            (void)tarn_rpc_msg_write_element_value(msg, e.id, e.type, value_of(e), e.size);
        }
        reading out;
        element *to = out.found;
        TARN_RPC_MSG_ITER it = nullptr;
        (void)tarn_rpc_msg_read_begin(msg, &it);
        do
        {
            uint32_t size = sizeof to->value;
            to->id = tarn_rpc_msg_element_id(it);
            to->type = tarn_rpc_msg_element_type(it);
            (void)tarn_rpc_msg_element_value(it, to->value, &size);
            to->size = static_cast<uint8_t>(size);
            ++to;
        } while (tarn_rpc_msg_read_next(&it) == 0);
        (void)tarn_rpc_msg_release(msg);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(tarn_message);

template <typename Number, Number (*Swap)(Number)>
void swap_one(uint8_t *to, const uint8_t *from)
{
    Number number;
    std::memcpy(&number, from, sizeof number);
    number = Swap(number);
    std::memcpy(to, &number, sizeof number);
}

uint16_t swap16(uint16_t n)
{
    return __builtin_bswap16(n);
}
uint32_t swap32(uint32_t n)
{
    return __builtin_bswap32(n);
}
uint64_t swap64(uint64_t n)
{
    return __builtin_bswap64(n);
}

void swap_copy(uint8_t type, void *to_, const void *from_, size_t size)
{
    auto *const to = static_cast<uint8_t *>(to_);
    const auto *const from = static_cast<const uint8_t *>(from_);
    switch (type == MSG_ELM_TYPE_STRING ? 0 : size)
    {
    case 1:
        *to = *from;
        break;
    case 2:
        swap_one<uint16_t, swap16>(to, from);
        break;
    case 4:
        swap_one<uint32_t, swap32>(to, from);
        break;
    case 8:
        swap_one<uint64_t, swap64>(to, from);
        break;
    case 16:
        swap_one<uint64_t, swap64>(to, from + 8);
        swap_one<uint64_t, swap64>(to + 8, from);
        break;
    default:
        std::memcpy(to, from, size);
        break;
    }
}

void bare_copy(benchmark::State &state)
{
    for (auto turn : state)
    {
        auto *const buffer = static_cast<uint8_t *>(std::malloc(buffer_size));
        uint8_t *at = buffer;
        for (const element &e : elements)
        {
            *at = e.type;
            swap_one<uint16_t, swap16>(at + 1, reinterpret_cast<const uint8_t *>(&e.id));
            at += 3;
            if (e.type == MSG_ELM_TYPE_STRING)
            {
                const uint32_t size = e.size;
                swap_one<uint32_t, swap32>(at, reinterpret_cast<const uint8_t *>(&size));
                at[4 + size] = 0;
                std::memcpy(at + 4, text, size);
                at += 5 + size;
                continue;
            }
            swap_copy(e.type, at, e.value, e.size);
            at += e.size;
        }
        benchmark::DoNotOptimize(buffer);
        benchmark::ClobberMemory();
        reading out;
        element *to = out.found;
        at = buffer;
        for (const element &e : elements)
        {
            to->type = *at;
            swap_one<uint16_t, swap16>(reinterpret_cast<uint8_t *>(&to->id), at + 1);
            at += 3;
            uint32_t size = e.size;
            if (to->type == MSG_ELM_TYPE_STRING)
            {
                swap_one<uint32_t, swap32>(reinterpret_cast<uint8_t *>(&size), at);
                std::memcpy(to->value, at + 4, size);
                at += 5 + size;
            }
            else
            {
                swap_copy(to->type, to->value, at, size);
                at += size;
            }
            to->size = static_cast<uint8_t>(size);
            ++to;
        }
        std::free(buffer);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(bare_copy);

} // namespace

int main(int argc, char **argv)
{
    return bench::run(
        argc, argv, {{"message of 20 elements, built and read", "tarn_message", "bare_copy", 3.0}});
}
