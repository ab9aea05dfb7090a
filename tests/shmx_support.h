// What the tests of the shared heap share: visitors in processes of their own, work on a heap with
// patterns in its blocks, and a check of the whole heap.
#pragma once

#include "support.h"

#include "tarn_raii.h"
#include "tarn_shmx.h"
#include "tarn_shmx_internal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace shmx_test
{

inline void destroy_heap(TARN_SHMX heap)
{
    (void)tarn_shmx_destroy(heap);
}
using heap_owner = tarn::unique_handle<TARN_SHMX, destroy_heap>;

/** Times that a test does not want to wait out; the usual ones afterwards. */
class shmx_times
{
public:
    explicit shmx_times(const tarn::shmx_limits &limits)
    {
        tarn::shmx_limit = limits;
    }
    shmx_times(const shmx_times &) = delete;
    shmx_times &operator=(const shmx_times &) = delete;
    ~shmx_times()
    {
        tarn::shmx_limit = tarn::shmx_limits();
    }
};

inline uint32_t raw_block_offset(TARN_SHMX heap, const void *ptr)
{
    return tarn_shmx_ptr_to_offset(heap, ptr) - 28;
}

/** TARN_SOAK=1 asks for the full counts. */
inline bool soak()
{
    return std::getenv("TARN_SOAK") != nullptr;
}

inline int churn_rounds()
{
    return support::with_sanitizer ? 300 : 16000;
}

/** Blocks that the creator has recorded under a user id. */
inline uint32_t used_blocks(TARN_SHMX heap, uint32_t user_id)
{
    const tarn::shmx_gate gate(&heap->gate);
    return heap->heap.user_blocks[user_id];
}

/** Compares the lists in the segment with the creator's record, and adds everything up.
 *  @return what is wrong, or nothing */
inline std::string check_heap(TARN_SHMX shmx)
{
    const tarn::shmx_word_guard header(tarn::shmx_slot_word(&shmx->view.header->lock));
    const tarn::shmx_gate gate(&shmx->gate);
    if (!header)
    {
        return "a lock is stuck";
    }
    const tarn::shmx_heap &heap = shmx->heap;
    std::map<uint32_t, const tarn::heap_block *> blocks;
    std::vector<uint32_t> owned(shmx->view.max_user_count + 1);
    size_t free_blocks = 0;
    uint64_t total = shmx->view.first_offset;
    for (uint32_t i = 0; i < heap.block_count; ++i)
    {
        const tarn::heap_block &block = heap.blocks[i];
        if (block.offset != total)
        {
            return "a gap before " + std::to_string(block.offset);
        }
        total += block.alloc_size;
        blocks[block.offset] = &block;
        if (block.owner == tarn::shmx_freed)
        {
            ++free_blocks;
        }
        else
        {
            ++owned[block.owner];
        }
    }
    if (total != heap.spare_offset || total != shmx->view.header->spare_offset)
    {
        return "spare offset";
    }
    for (size_t id = 0; id < owned.size(); ++id)
    {
        if (owned[id] != heap.user_blocks[id])
        {
            return "blocks of user " + std::to_string(id);
        }
    }
    size_t listed = 0;
    for (size_t list = 0; list < tarn::shmx_list_count; ++list)
    {
        uint32_t last_size = 0;
        for (uint32_t at = shmx->view.header->spare_blocks[list]; at != 0;)
        {
            const auto found = blocks.find(at);
            const auto *block = tarn::shmx_block_at(shmx->view, tarn::block_offset{at});
            if (found == blocks.end() || found->second->owner != tarn::shmx_freed ||
                block->user_id != tarn::shmx_freed || ++listed > free_blocks)
            {
                return "list " + std::to_string(list) + " at " + std::to_string(at);
            }
            const bool fits = list < 16 ? block->alloc_size == tarn::shmx_class_sizes[list]
                                        : block->alloc_size >= last_size;
            if (!fits || block->alloc_size != found->second->alloc_size)
            {
                return "size at " + std::to_string(at);
            }
            last_size = block->alloc_size;
            at = block->next;
        }
    }
    return listed == free_blocks ? "" : "free blocks that are in no list";
}

/** Numbers that are the same in each run. */
class dice
{
public:
    explicit dice(uint32_t seed) : engine_(seed) {}
    uint32_t operator()()
    {
        return static_cast<uint32_t>(engine_());
    }

private:
    std::mt19937 engine_;
};

/** Allocates and frees at random, with a pattern in each block.
 *  @return number of blocks that were not clean at first or not as written later */
inline int churn(TARN_SHMX heap, uint32_t seed, int rounds)
{
    struct held_block
    {
        uint8_t *data;
        uint32_t size;
        uint8_t pattern;
    };
    dice random(seed);
    std::vector<held_block> held;
    int wrong = 0;
    const auto release = [&](size_t i) {
        std::swap(held[i], held.back());
        const held_block block = held.back();
        held.pop_back();
        wrong += std::count(block.data, block.data + block.size, block.pattern) !=
                 static_cast<ptrdiff_t>(block.size);
        tarn_shmx_blk_free(heap, block.data);
    };
    for (int i = 0; i < rounds; ++i)
    {
        if (held.size() < 64 && random() % 2 != 0)
        {
            const uint32_t size = 1 + (random() % 16 == 0 ? random() % 3000 : random() % 250);
            auto *data = static_cast<uint8_t *>(tarn_shmx_blk_alloc(heap, size));
            if (data != nullptr)
            {
                wrong += std::count(data, data + size, 0) != static_cast<ptrdiff_t>(size);
                const auto pattern = static_cast<uint8_t>(random());
                std::memset(data, pattern, size);
                held.push_back({data, size, pattern});
            }
        }
        else if (!held.empty())
        {
            release(random() % held.size());
        }
    }
    while (!held.empty())
    {
        release(held.size() - 1);
    }
    return wrong;
}

/** A visitor in a process of its own. */
inline support::child_process start_visitor(const std::string &name, const std::string &task)
{
    return support::child_process::role("shmx_visitor", {name, task});
}

// ---- the visitor's tasks ------------------------------------------------------------------------

inline int churn_in_threads(TARN_SHMX heap)
{
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [&, i] { wrong += churn(heap, 100 * tarn_shmx_user_id(heap) + i, churn_rounds()); });
    }
    for (std::thread &thread : threads)
    {
        thread.join();
    }
    return wrong == 0 ? 0 : 1;
}

/** A ring of block offsets in the meta zone: word 0 counts puts, word 1 takes, 100 places follow.
 *  */
inline int pass_blocks(TARN_SHMX heap, bool gives)
{
    auto *words = static_cast<uint32_t *>(tarn_shmx_meta_zone(heap));
    const uint32_t rounds = support::with_sanitizer ? 300 : 3000;
    for (uint32_t i = 0; i < rounds; ++i)
    {
        uint32_t &mine = words[gives ? 0 : 1];
        const uint32_t &other = words[gives ? 1 : 0];
        const uint32_t limit = gives ? 100 : 0;
        while (gives ? i - tarn::shmx_load(other, std::memory_order_acquire) >= limit
                     : tarn::shmx_load(other, std::memory_order_acquire) <= i)
        {
            std::this_thread::yield();
        }
        uint32_t &place = words[2 + i % 100];
        if (gives)
        {
            void *block = tarn_shmx_blk_alloc(heap, 60);
            if (block == nullptr)
            {
                return 2;
            }
            std::memset(block, static_cast<int>(i & 0xFF), 60);
            place = tarn_shmx_ptr_to_offset(heap, block);
        }
        else
        {
            const auto *data = static_cast<const uint8_t *>(tarn_shmx_offset_to_ptr(heap, place));
            if (std::count(data, data + 60, static_cast<uint8_t>(i)) != 60)
            {
                return 3;
            }
            tarn_shmx_blk_free_offset(heap, place);
        }
        tarn::shmx_store(mine, i + 1, std::memory_order_release);
    }
    return 0;
}

/** Answers event 0 of the meta zone with event 1 until word 2 is set. */
inline int echo_events(TARN_SHMX heap)
{
    const auto *events = static_cast<const uint32_t *>(tarn_shmx_meta_zone(heap));
    while (tarn::shmx_load(events[2]) == 0)
    {
        if (tarn_shmx_event_wait(heap, events[0], 500) && !tarn_shmx_event_set(heap, events[1]))
        {
            return 4;
        }
    }
    return 0;
}

inline int run_visitor(TARN_SHMX heap, const std::string &task)
{
    if (task == "churn")
    {
        return churn_in_threads(heap);
    }
    if (task == "give" || task == "take")
    {
        return pass_blocks(heap, task == "give");
    }
    if (task == "echo")
    {
        return echo_events(heap);
    }
    if (task == "await")
    {
        const auto *events = static_cast<const uint32_t *>(tarn_shmx_meta_zone(heap));
        return tarn_shmx_event_wait(heap, events[0], 60000) ? 0 : 5;
    }
    std::printf("ready %u\n", tarn_shmx_user_id(heap));
    std::fflush(stdout);
    (void)std::getchar();
    return 0;
}

/** args: name of the heap, task. */
TARN_TEST_ROLE(shmx_visitor)
{
    const support::layer layer;
    tarn_log_level_set(TARN_LOG_LEVEL_WARN);
    const heap_owner heap(tarn_shmx_open(args[0].c_str()));
    return heap ? run_visitor(heap.get(), args[1]) : 1;
}

} // namespace shmx_test
