// The creator's record of the shared heap, and the zones of a segment.
//
// Blocks are only ever carved from the never-used part, in rising order, and then move between the
// free lists and their users. The record keeps one entry per block in that order. A bit per
// possible start and a count per word of bits lead from an offset to its entry in constant time, so
// that any number can be asked for without trust.
//
// The links in the segment are a copy that other processes may read. When it is found changed it is
// put right from the record.

#include "tarn_shmx_internal.h"

#include <algorithm>
#include <bit>

namespace tarn
{
namespace
{

constexpr uint32_t start_unit = 4; // blocks begin at every multiple of it from the first one on
constexpr uint32_t units_per_word = 64;
constexpr uint32_t first_capacity = 256;

/** List of each size in units of 4 bytes: the first class that is not smaller. */
constexpr auto list_table = [] {
    std::array<uint8_t, shmx_class_sizes.back() / start_unit + 1> table{};
    size_t list = 0;
    for (size_t unit = 0; unit < table.size(); ++unit)
    {
        while (shmx_class_sizes[list] < unit * start_unit)
        {
            ++list;
        }
        table[unit] = static_cast<uint8_t>(list);
    }
    return table;
}();

uint32_t unit_of(const shmx_view &view, uint32_t offset)
{
    return (offset - view.first_offset) / start_unit;
}

/** Number of a block plus 1; 0 when no block begins there. */
uint32_t find_block(const shmx_heap *heap, const shmx_view &view, uint32_t offset)
{
    if (offset < view.first_offset || offset >= heap->spare_offset ||
        (offset - view.first_offset) % start_unit != 0)
    {
        return 0;
    }
    const uint32_t unit = unit_of(view, offset);
    const uint64_t word = heap->starts[unit / units_per_word];
    const uint64_t bit = uint64_t{1} << unit % units_per_word;
    if ((word & bit) == 0)
    {
        return 0;
    }
    return heap->ranks[unit / units_per_word] +
           static_cast<uint32_t>(std::popcount(word & (bit - 1))) + 1;
}

bool make_room_for_block(shmx_heap *heap)
{
    if (heap->block_count < heap->block_capacity)
    {
        return true;
    }
    const uint32_t capacity = std::max(first_capacity, heap->block_capacity * 2);
    void *blocks = tarn_mem_realloc(heap->blocks, size_t{capacity} * sizeof(heap_block));
    if (blocks == nullptr)
    {
        return false;
    }
    heap->blocks = static_cast<heap_block *>(blocks);
    heap->block_capacity = capacity;
    return true;
}

uint32_t offset_of(const shmx_heap *heap, uint32_t number)
{
    return number == 0 ? 0 : heap->blocks[number - 1].offset;
}

/** Put a word of the segment to its value, and note when it was not what it should have been. */
void publish(shmx_heap *heap, uint32_t &word, uint32_t expected, uint32_t value)
{
    if (shmx_load(word) != expected)
    {
        heap->overwritten = 1;
    }
    shmx_store(word, value);
}

shmx_block_header *header_of(const shmx_view &view, const heap_block &block)
{
    return reinterpret_cast<shmx_block_header *>(view.data + block.offset);
}

/** Record a new block at the spare offset.
 *  @return its number plus 1; 0 when the zone or memory is exhausted */
uint32_t carve(shmx_heap *heap, const shmx_view &view, uint32_t alloc_size)
{
    if (uint64_t{heap->spare_offset} + alloc_size > view.data_size || !make_room_for_block(heap))
    {
        return 0;
    }
    const uint32_t offset = heap->spare_offset;
    const uint32_t word = unit_of(view, offset) / units_per_word;
    // The words between the last start and this one hold no starts, but their counts are asked for
    // only where a bit is set, so only this one has to be right.
    if (heap->starts[word] == 0)
    {
        heap->ranks[word] = heap->block_count;
    }
    heap->starts[word] |= uint64_t{1} << unit_of(view, offset) % units_per_word;
    heap->blocks[heap->block_count++] = {offset, alloc_size, 0, 0};
    heap->spare_offset += alloc_size;
    publish(heap, view.header->spare_offset, offset, heap->spare_offset);
    return heap->block_count;
}

/** Unlink the block behind prev (0: the head) of a list. */
uint32_t unlink_behind(shmx_heap *heap, const shmx_view &view, size_t list, uint32_t prev)
{
    uint32_t &link = prev == 0 ? heap->heads[list] : heap->blocks[prev - 1].next;
    const uint32_t number = link;
    const heap_block &block = heap->blocks[number - 1];
    uint32_t &shown =
        prev == 0 ? view.header->spare_blocks[list] : header_of(view, heap->blocks[prev - 1])->next;
    publish(heap, shown, block.offset, offset_of(heap, block.next));
    link = block.next;
    return number;
}

/** The first block of the large list that has the size. */
uint32_t take_large(shmx_heap *heap, const shmx_view &view, uint32_t alloc_size)
{
    uint32_t prev = 0;
    for (uint32_t number = heap->heads[shmx_large_list]; number != 0;
         number = heap->blocks[number - 1].next)
    {
        if (heap->blocks[number - 1].alloc_size >= alloc_size)
        {
            return unlink_behind(heap, view, shmx_large_list, prev);
        }
        prev = number;
    }
    return 0;
}

uint32_t take_from_list(shmx_heap *heap, const shmx_view &view, const shmx_fit &fit)
{
    if (fit.list == shmx_large_list)
    {
        return take_large(heap, view, fit.alloc_size);
    }
    return heap->heads[fit.list] == 0 ? 0 : unlink_behind(heap, view, fit.list, 0);
}

/** The block behind which a freed one goes; 0: to the front. Large blocks stand in the order of
 *  their sizes. */
uint32_t place_in_list(const shmx_heap *heap, size_t list, uint32_t alloc_size)
{
    uint32_t prev = 0;
    if (list == shmx_large_list)
    {
        for (uint32_t number = heap->heads[list];
             number != 0 && heap->blocks[number - 1].alloc_size <= alloc_size;
             number = heap->blocks[number - 1].next)
        {
            prev = number;
        }
    }
    return prev;
}

void link_behind(shmx_heap *heap, const shmx_view &view, size_t list, uint32_t prev,
                 uint32_t number)
{
    uint32_t &link = prev == 0 ? heap->heads[list] : heap->blocks[prev - 1].next;
    heap_block &block = heap->blocks[number - 1];
    block.next = link;
    link = number;
    // The block first, so that the list is whole at any moment.
    shmx_store(header_of(view, block)->next, offset_of(heap, block.next));
    uint32_t &shown =
        prev == 0 ? view.header->spare_blocks[list] : header_of(view, heap->blocks[prev - 1])->next;
    publish(heap, shown, offset_of(heap, block.next), block.offset);
}

} // namespace

shmx_fit shmx_fit_of(uint32_t size)
{
    const uint32_t needed = (size + 32 + 3) & ~3u;
    const size_t list = shmx_list_of(needed);
    return {list, list == shmx_large_list ? needed : shmx_class_sizes[list]};
}

size_t shmx_list_of(uint32_t alloc_size)
{
    const size_t unit = (size_t{alloc_size} + start_unit - 1) / start_unit;
    return unit < list_table.size() ? list_table[unit] : shmx_large_list;
}

// ---- a mapped segment ---------------------------------------------------------------------------

void shmx_set_view(shmx_view *view, void *area, uint32_t size, uint32_t meta_size,
                   uint32_t max_user_count)
{
    view->header = static_cast<shmx_segment_header *>(area);
    view->users = reinterpret_cast<shmx_user_entry *>(view->header + 1);
    view->meta = reinterpret_cast<uint8_t *>(view->users + max_user_count + 1);
    view->data = view->meta + meta_size;
    view->data_size = size;
    view->meta_size = meta_size;
    view->max_user_count = max_user_count;
    // Blocks are 4-aligned in memory, and offset 0 is never one.
    view->first_offset = 64 - static_cast<uint32_t>(reinterpret_cast<uintptr_t>(view->data) % 4);
}

shmx_block_header *shmx_block_at(const shmx_view &view, block_offset offset)
{
    const uint32_t at = raw(offset);
    if (at < view.first_offset || (at - view.first_offset) % start_unit != 0 ||
        uint64_t{at} + shmx_smallest_block > view.data_size)
    {
        return nullptr;
    }
    return reinterpret_cast<shmx_block_header *>(view.data + at);
}

block_offset shmx_block_of_address(const shmx_view &view, const void *address)
{
    const auto at = reinterpret_cast<uintptr_t>(address);
    const auto zone = reinterpret_cast<uintptr_t>(view.data);
    if (at < zone + sizeof(shmx_block_header) || at - zone >= view.data_size)
    {
        return block_offset::none;
    }
    const block_offset offset{static_cast<uint32_t>(at - zone - sizeof(shmx_block_header))};
    return shmx_block_at(view, offset) == nullptr ? block_offset::none : offset;
}

uint32_t shmx_checked_alloc_size(const shmx_view &view, block_offset offset)
{
    const shmx_block_header *block = shmx_block_at(view, offset);
    if (block == nullptr)
    {
        return 0;
    }
    const uint32_t alloc_size = shmx_load(block->alloc_size);
    const bool is_possible = alloc_size >= shmx_smallest_block && alloc_size % start_unit == 0 &&
                             uint64_t{raw(offset)} + alloc_size <= view.data_size;
    return is_possible ? alloc_size : 0;
}

// ---- the record ---------------------------------------------------------------------------------

bool shmx_heap_open(shmx_heap *heap, const shmx_view &view)
{
    // Untouched parts of these take no memory.
    const size_t words = size_t{view.data_size} / (start_unit * units_per_word) + 1;
    heap->starts = static_cast<uint64_t *>(tarn_mem_alloc(words * sizeof(uint64_t)));
    heap->ranks = static_cast<uint32_t *>(tarn_mem_alloc(words * sizeof(uint32_t)));
    heap->user_blocks = static_cast<uint32_t *>(
        tarn_mem_alloc((size_t{view.max_user_count} + 1) * sizeof(uint32_t)));
    heap->spare_offset = view.first_offset;
    return heap->starts != nullptr && heap->ranks != nullptr && heap->user_blocks != nullptr;
}

void shmx_heap_close(shmx_heap *heap)
{
    tarn_mem_free(heap->blocks);
    tarn_mem_free(heap->starts);
    tarn_mem_free(heap->ranks);
    tarn_mem_free(heap->user_blocks);
    *heap = {};
}

bool shmx_heap_alloc(shmx_heap *heap, const shmx_view &view, uint32_t size, uint32_t user_id,
                     heap_report *report)
{
    const shmx_fit fit = shmx_fit_of(size);
    uint32_t number = take_from_list(heap, view, fit);
    report->from_list = number != 0;
    if (number == 0)
    {
        number = carve(heap, view, fit.alloc_size);
    }
    report->spare_offset = heap->spare_offset;
    if (number == 0)
    {
        return false;
    }
    heap_block &block = heap->blocks[number - 1];
    shmx_block_header *header = header_of(view, block);
    report->block = block_offset{block.offset};
    report->alloc_size = block.alloc_size;
    report->list = fit.list;
    report->next = offset_of(heap, block.next);
    block.owner = user_id;
    block.next = 0;
    ++heap->user_blocks[user_id];
    shmx_store(header->next, 0);
    shmx_store(header->alloc_size, block.alloc_size);
    shmx_store(header->data_size, size);
    shmx_init_slot(&header->lock); // a used block still has its last user's lock word
    shmx_store(header->user_id, user_id);
    return true;
}

heap_free_result shmx_heap_free(shmx_heap *heap, const shmx_view &view, block_offset offset,
                                uint32_t owner, heap_report *report)
{
    const uint32_t number = find_block(heap, view, raw(offset));
    if (number == 0)
    {
        return heap_free_result::no_block;
    }
    heap_block &block = heap->blocks[number - 1];
    *report = {offset, block.alloc_size, block.owner, 0, shmx_list_of(block.alloc_size), 0, false};
    if (block.owner == shmx_freed)
    {
        return heap_free_result::already_freed;
    }
    if (owner != heap_any_owner && block.owner != owner)
    {
        return heap_free_result::other_owner;
    }
    --heap->user_blocks[block.owner];
    block.owner = shmx_freed;
    shmx_store(header_of(view, block)->user_id, shmx_freed);
    shmx_store(header_of(view, block)->alloc_size, block.alloc_size);
    link_behind(heap, view, report->list, place_in_list(heap, report->list, block.alloc_size),
                number);
    report->next = offset_of(heap, block.next);
    return heap_free_result::freed;
}

} // namespace tarn
