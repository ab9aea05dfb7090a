// A visitor's reserve: blocks that its application freed, kept to be used again.
//
// Blocks of the size classes, nearly all, stand in a queue per class with a bit that says whether
// it holds any; other sizes stand in a tree whose shape is kept by random priorities. Either way
// the smallest fitting block is found without looking at the others. A table by offset tells a
// block that is freed twice.

#include "tarn_mem.h"
#include "tarn_shmx_internal.h"

#include <algorithm>
#include <bit>

namespace tarn
{
namespace
{

constexpr uint32_t first_capacity = 64;

// ---- by offset ----------------------------------------------------------------------------------

uint32_t place_of(const shmx_reserve *reserve, uint32_t offset)
{
    return (offset * 0x9E3779B1u) >> std::countl_zero(reserve->index_size - 1);
}

/** Where the offset stands, or the free place where it would; there always is one. */
uint32_t find_place(const shmx_reserve *reserve, uint32_t offset)
{
    const uint32_t mask = reserve->index_size - 1;
    uint32_t place = place_of(reserve, offset);
    while (reserve->index[place] != 0 && reserve->nodes[reserve->index[place]].offset != offset)
    {
        place = (place + 1) & mask;
    }
    return place;
}

/** Close the gap of a removed entry: move up those that had to go past it. */
void remove_place(shmx_reserve *reserve, uint32_t place)
{
    const uint32_t mask = reserve->index_size - 1;
    for (uint32_t next = (place + 1) & mask; reserve->index[next] != 0; next = (next + 1) & mask)
    {
        const uint32_t home = place_of(reserve, reserve->nodes[reserve->index[next]].offset);
        if (((next - home) & mask) >= ((next - place) & mask))
        {
            reserve->index[place] = reserve->index[next];
            place = next;
        }
    }
    reserve->index[place] = 0;
}

bool grow(shmx_reserve *reserve)
{
    const uint32_t capacity = std::max(first_capacity, reserve->capacity * 2);
    const uint32_t index_size = capacity * 2;
    auto *index = static_cast<uint32_t *>(tarn_mem_alloc(size_t{index_size} * sizeof(uint32_t)));
    void *nodes = index == nullptr
                      ? nullptr
                      : tarn_mem_realloc(reserve->nodes, size_t{capacity} * sizeof(reserve_node));
    if (nodes == nullptr)
    {
        tarn_mem_free(index);
        return false;
    }
    uint32_t *old_index = reserve->index;
    const uint32_t old_size = reserve->index_size;
    reserve->nodes = static_cast<reserve_node *>(nodes);
    reserve->index = index;
    reserve->index_size = index_size;
    reserve->capacity = capacity;
    reserve->used = std::max(reserve->used, 1u); // node 0 stands for none
    for (uint32_t i = 0; i < old_size; ++i)
    {
        if (old_index[i] != 0)
        {
            index[find_place(reserve, reserve->nodes[old_index[i]].offset)] = old_index[i];
        }
    }
    tarn_mem_free(old_index);
    return true;
}

// ---- the tree -----------------------------------------------------------------------------------

// next is the right child here. Order: size, then insertion. Heap of priorities.

bool is_before(const reserve_node &a, const reserve_node &b)
{
    return a.alloc_size != b.alloc_size ? a.alloc_size < b.alloc_size
                                        : static_cast<int32_t>(a.order - b.order) < 0;
}

/** Hang a node in where its priority says, and split what stood there round it. */
void tree_insert(shmx_reserve *reserve, uint32_t node)
{
    reserve_node *nodes = reserve->nodes;
    uint32_t *link = &reserve->tree;
    while (*link != 0 && nodes[*link].priority >= nodes[node].priority)
    {
        link = is_before(nodes[node], nodes[*link]) ? &nodes[*link].left : &nodes[*link].next;
    }
    uint32_t rest = *link;
    *link = node;
    uint32_t *smaller = &nodes[node].left;
    uint32_t *larger = &nodes[node].next;
    while (rest != 0)
    {
        if (is_before(nodes[node], nodes[rest]))
        {
            *larger = rest;
            larger = &nodes[rest].left;
            rest = nodes[rest].left;
        }
        else
        {
            *smaller = rest;
            smaller = &nodes[rest].next;
            rest = nodes[rest].next;
        }
    }
    *smaller = 0;
    *larger = 0;
}

/** Take out the first node of at least the size; 0: none. */
uint32_t tree_take(shmx_reserve *reserve, uint32_t alloc_size)
{
    reserve_node *nodes = reserve->nodes;
    uint32_t *found = nullptr;
    for (uint32_t *link = &reserve->tree; *link != 0;)
    {
        const bool fits = nodes[*link].alloc_size >= alloc_size;
        found = fits ? link : found;
        link = fits ? &nodes[*link].left : &nodes[*link].next;
    }
    if (found == nullptr)
    {
        return 0;
    }
    const uint32_t node = *found;
    uint32_t left = nodes[node].left;
    uint32_t right = nodes[node].next;
    while (left != 0 && right != 0) // join what is below it
    {
        const bool left_up = nodes[left].priority >= nodes[right].priority;
        *found = left_up ? left : right;
        found = left_up ? &nodes[left].next : &nodes[right].left;
        (left_up ? left : right) = *found;
    }
    *found = left != 0 ? left : right;
    return node;
}

// ---- the queues ---------------------------------------------------------------------------------

/** There is room for one. */
uint32_t new_node(shmx_reserve *reserve)
{
    const uint32_t node = reserve->free_node;
    if (node == 0)
    {
        return reserve->used++;
    }
    reserve->free_node = reserve->nodes[node].next;
    return node;
}

uint32_t next_random(shmx_reserve *reserve)
{
    uint32_t x = reserve->random == 0 ? 0x9E3779B9u : reserve->random;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return reserve->random = x;
}

/** The queue of exactly this size; shmx_large_list when there is none. */
size_t queue_of(uint32_t alloc_size)
{
    const size_t list = shmx_list_of(alloc_size);
    return list != shmx_large_list && shmx_class_sizes[list] == alloc_size ? list : shmx_large_list;
}

void queue_put(shmx_reserve *reserve, size_t queue, uint32_t node)
{
    reserve->nodes[node].next = 0;
    if ((reserve->class_mask & 1u << queue) == 0)
    {
        reserve->heads[queue] = node;
    }
    else
    {
        reserve->nodes[reserve->tails[queue]].next = node;
    }
    reserve->tails[queue] = node;
    reserve->class_mask |= 1u << queue;
}

uint32_t queue_take(shmx_reserve *reserve, size_t queue)
{
    const uint32_t node = reserve->heads[queue];
    reserve->heads[queue] = reserve->nodes[node].next;
    if (reserve->heads[queue] == 0)
    {
        reserve->class_mask &= ~(1u << queue);
    }
    return node;
}

/** The smallest node that fits, from the queues or the tree, whichever has the smaller one. */
uint32_t take_node(shmx_reserve *reserve, uint32_t alloc_size)
{
    const size_t first = shmx_list_of(alloc_size);
    const uint32_t fitting =
        first == shmx_large_list ? 0 : reserve->class_mask & ~((1u << first) - 1);
    if (fitting == 0)
    {
        return tree_take(reserve, alloc_size);
    }
    // Sizes between the classes are only seen in a segment of somebody else's making.
    const auto queue = static_cast<size_t>(std::countr_zero(fitting));
    return queue_take(reserve, queue);
}

} // namespace

reserve_result shmx_reserve_put(shmx_reserve *reserve, uint32_t offset, uint32_t alloc_size)
{
    if (reserve->free_node == 0 && reserve->used >= reserve->capacity && !grow(reserve))
    {
        return reserve_result::no_memory;
    }
    const uint32_t place = find_place(reserve, offset);
    if (reserve->index[place] != 0)
    {
        return reserve_result::already_there;
    }
    const uint32_t node = new_node(reserve);
    reserve->nodes[node] = {offset, alloc_size, 0, 0, reserve->next_order++, 0};
    reserve->index[place] = node;
    ++reserve->count;
    const size_t queue = queue_of(alloc_size);
    if (queue != shmx_large_list)
    {
        queue_put(reserve, queue, node);
        return reserve_result::kept;
    }
    reserve->nodes[node].priority = next_random(reserve);
    tree_insert(reserve, node);
    return reserve_result::kept;
}

uint32_t shmx_reserve_take(shmx_reserve *reserve, uint32_t alloc_size, uint32_t *taken_size)
{
    if (reserve->count == 0)
    {
        return 0;
    }
    const uint32_t node = take_node(reserve, alloc_size);
    if (node == 0)
    {
        return 0;
    }
    const uint32_t offset = reserve->nodes[node].offset;
    *taken_size = reserve->nodes[node].alloc_size;
    remove_place(reserve, find_place(reserve, offset));
    reserve->nodes[node].next = reserve->free_node;
    reserve->free_node = node;
    --reserve->count;
    return offset;
}

void shmx_reserve_close(shmx_reserve *reserve)
{
    tarn_mem_free(reserve->nodes);
    tarn_mem_free(reserve->index);
    *reserve = {};
}

} // namespace tarn
