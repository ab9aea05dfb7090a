// The creator's record of the shared heap, and the zones of a segment.
//
// Blocks are only ever carved from the never-used part, in rising order, and then move between the
// free lists and their users. The record keeps one entry per block in that order. The number of the
// first block of each cell of the data zone leads from an offset to its entry in constant time, so
// that any offset can be asked for without trust.
//
// The links in the segment are a copy that other processes may read. When it is found changed it is
// put right from the record.

#include "tarn_shmx_internal.h"

#include <algorithm>

namespace tarn
{
namespace
{

constexpr uint32_t cell_size = 64;
static_assert(2 * shmx_smallest_block > cell_size, "at most two blocks begin in a cell");
constexpr uint32_t first_capacity = 256;

uint32_t cell_of(const shmx_view &view, uint32_t offset)
{
    return (offset - view.first_offset) / cell_size;
}

/** Number of a block plus 1; 0 when no block begins there. */
uint32_t find_block(const shmx_heap *heap, const shmx_view &view, uint32_t offset)
{
    if (offset < view.first_offset || offset >= heap->spare_offset)
    {
        return 0;
    }
    const uint32_t number = heap->cells[cell_of(view, offset)];
    if (number == 0 || heap->blocks[number - 1].offset == offset)
    {
        return number;
    }
    return number < heap->block_count && heap->blocks[number].offset == offset ? number + 1 : 0;
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
    heap->blocks[heap->block_count++] = {offset, alloc_size, 0, 0};
    heap->spare_offset += alloc_size;
    uint32_t &cell = heap->cells[cell_of(view, offset)];
    cell = cell == 0 ? heap->block_count : cell;
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
    const bool is_possible = alloc_size >= shmx_smallest_block &&
                             alloc_size % shmx_block_unit == 0 &&
                             uint64_t{raw(offset)} + alloc_size <= view.data_size;
    return is_possible ? alloc_size : 0;
}

// ---- the record ---------------------------------------------------------------------------------

bool shmx_heap_open(shmx_heap *heap, const shmx_view &view)
{
    // Untouched parts of these take no memory.
    const size_t cells = size_t{view.data_size} / cell_size + 1;
    heap->cells = static_cast<uint32_t *>(tarn_mem_alloc(cells * sizeof(uint32_t)));
    heap->user_blocks = static_cast<uint32_t *>(
        tarn_mem_alloc((size_t{view.max_user_count} + 1) * sizeof(uint32_t)));
    heap->spare_offset = view.first_offset;
    return heap->cells != nullptr && heap->user_blocks != nullptr;
}

void shmx_heap_close(shmx_heap *heap)
{
    tarn_mem_free(heap->blocks);
    tarn_mem_free(heap->cells);
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
