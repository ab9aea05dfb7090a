// A list of ten values, written to bytes and read back, beside the allocations that the list that
// was read cannot do without: one per value, one for the string.

#include "ratio.h"

#include "tarn_data.h"

#include <array>
#include <cstdlib>

namespace
{

constexpr size_t value_size = 48; ///< of a value in memory
constexpr uint32_t text_size = 16;

TARN_DATA ten_values()
{
    const uint8_t truth = 1;
    const uint64_t number = 0x0123456789ABCDEF;
    const float single = 1.5f;
    const double real = 2.5;
    const char text[text_size] = "fifteen letters";
    TARN_DATA list = tarn_data_alloc(TARN_DATA_TYPE_BOOLEAN, &truth, nullptr);
    for (const uint8_t type : {TARN_DATA_TYPE_UINT8, TARN_DATA_TYPE_UINT16, TARN_DATA_TYPE_UINT32,
                               TARN_DATA_TYPE_UINT64, TARN_DATA_TYPE_INT32, TARN_DATA_TYPE_INT64})
    {
        tarn_data_add_tail(list, tarn_data_alloc(type, &number, nullptr));
    }
    tarn_data_add_tail(list, tarn_data_alloc(TARN_DATA_TYPE_FLOAT, &single, nullptr));
    tarn_data_add_tail(list, tarn_data_alloc(TARN_DATA_TYPE_DOUBLE, &real, nullptr));
    tarn_data_add_tail(list, tarn_data_alloc(TARN_DATA_TYPE_STRING, text, &text_size));
    return list;
}

void write_and_read(benchmark::State &state)
{
    TARN_DATA list = ten_values();
    std::array<uint8_t, 256> buffer{};
    for (auto _ : state)
    {
        const uint32_t size = tarn_data_write_to_buf(list, buffer.data(), buffer.size());
        TARN_DATA copy = tarn_data_alloc_from_buf(buffer.data(), size, nullptr);
        benchmark::DoNotOptimize(copy);
        tarn_data_destroy(copy);
    }
    state.SetItemsProcessed(state.iterations() * tarn_data_count(list));
    tarn_data_destroy(list);
}

void malloc_and_free(benchmark::State &state)
{
    std::array<void *, 11> blocks{};
    for (auto _ : state)
    {
        for (size_t i = 0; i < blocks.size(); ++i)
        {
            blocks[i] = std::malloc(i < 10 ? value_size : text_size);
            benchmark::DoNotOptimize(blocks[i]);
        }
        for (void *block : blocks)
        {
            std::free(block);
        }
    }
    state.SetItemsProcessed(state.iterations() * 10);
}

BENCHMARK(write_and_read);
BENCHMARK(malloc_and_free);

} // namespace

int main(int argc, char **argv)
{
    return bench::run(argc, argv, {{"typed data", "write_and_read", "malloc_and_free", 2.0}});
}
