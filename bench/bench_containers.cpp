// Ring buffer: write and read of 4 KiB beside two copies of as much. List: push and pop beside a
// queue of nodes from malloc, and the number of allocations after the first round, which is 0.

#include "ratio.h"

#include "tarn_list.h"
#include "tarn_ringbuf.h"

#include "tarn_mem_internal.h"

#include <cstdlib>
#include <cstring>

namespace
{

constexpr size_t block_size = 4096;

struct
{
    unsigned char source[block_size] = {1, 2, 3};
    unsigned char target[block_size] = {};
} data;

constexpr size_t capacity = 4 * block_size;

void ringbuf(benchmark::State &state)
{
    TARN_RINGBUF rb = tarn_ringbuf_create(capacity);
    for (auto _ : state)
    {
        tarn_ringbuf_write(rb, data.source, block_size);
        tarn_ringbuf_read(rb, data.target, block_size);
        benchmark::ClobberMemory();
    }
    tarn_ringbuf_destroy(rb);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(block_size));
}
BENCHMARK(ringbuf);

// To where the ring buffer puts its blocks, so that as much cache is touched and in the same steps,
// the position in memory as well; but never in two pieces.
unsigned char *position = nullptr;

void two_memcpys(benchmark::State &state)
{
    auto *storage = static_cast<unsigned char *>(std::calloc(1, capacity + block_size));
    size_t size = block_size;
    benchmark::DoNotOptimize(size); // the library's memcpy, not an inlined string instruction
    position = storage;
    for (auto _ : state)
    {
        std::memcpy(position, data.source, size);
        benchmark::ClobberMemory();
        std::memcpy(data.target, position, size);
        position += block_size;
        position -= position > storage + capacity ? capacity + 1 : 0;
        benchmark::ClobberMemory();
    }
    std::free(storage);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(block_size));
}
BENCHMARK(two_memcpys);

constexpr int queue_length = 100;
std::atomic<int64_t> allocations{0};

bool count_allocation(size_t)
{
    ++allocations;
    return false;
}

void list(benchmark::State &state)
{
    TARN_LIST l = tarn_list_create(queue_length);
    const auto round = [l] {
        for (int i = 0; i < queue_length; ++i)
        {
            tarn_list_push_back(l, l);
        }
        for (int i = 0; i < queue_length; ++i)
        {
            benchmark::DoNotOptimize(tarn_list_pop_front(l));
        }
    };
    round();
    allocations = 0;
    tarn::mem_fail_hook = count_allocation;
    for (auto _ : state)
    {
        round();
    }
    tarn::mem_fail_hook = nullptr;
    state.counters["allocations"] = static_cast<double>(allocations);
    tarn_list_destroy(l);
}
BENCHMARK(list);

struct bare_node
{
    void *item;
    bare_node *next;
};

void malloc_list(benchmark::State &state)
{
    for (auto _ : state)
    {
        bare_node *first = nullptr;
        bare_node **end = &first;
        for (int i = 0; i < queue_length; ++i)
        {
            auto *node = static_cast<bare_node *>(std::malloc(sizeof(bare_node)));
            *node = {node, nullptr};
            *end = node;
            end = &node->next;
        }
        while (first != nullptr)
        {
            bare_node *node = first;
            first = node->next;
            benchmark::DoNotOptimize(node->item);
            std::free(node);
        }
    }
}
BENCHMARK(malloc_list);

} // namespace

int main(int argc, char **argv)
{
    return bench::run(argc, argv,
                      {{"ring buffer write+read of 4 KiB", "ringbuf", "two_memcpys", 1.2},
                       {"list push+pop", "list", "malloc_list", 1}});
}
