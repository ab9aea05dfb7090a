// Private: layout and insides of the shared heap; for the tarn_shmx*.cpp files and the tests.
//
// Every process that has the segment open can write anywhere into it at any time. So nothing that
// is read from it is used before it was checked, and each word is read once. What must not go wrong
// is kept outside of it: the creator alone carves and links blocks, and has its own record of them;
// the segment shows a copy for the others. A visitor has its own record of the blocks that it
// keeps.
//
// Lock order: header lock, then a handle's own lock. No log line, wait or request under either.
#ifndef TARN_SHMX_INTERNAL_H
#define TARN_SHMX_INTERNAL_H

#include "tarn_semaphore.h"
#include "tarn_shm.h"
#include "tarn_shmx.h"
#include "tarn_shmx_port.h"
#include "tarn_thread.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace tarn
{

// ---- the shared layout --------------------------------------------------------------------------

inline constexpr uint32_t shmx_fourcc = 0x10395211;
inline constexpr size_t shmx_class_count = 16;
inline constexpr size_t shmx_large_list = 16; ///< index behind those of the classes
inline constexpr size_t shmx_list_count = 17;
inline constexpr size_t shmx_slot_count = 100;
inline constexpr uint32_t shmx_slack_size = 4096;  ///< at the segment's end
inline constexpr uint32_t shmx_freed = 0xFFFFFFFF; ///< user id of a freed block

/** What a block of each class occupies, its header included. */
inline constexpr std::array<uint32_t, shmx_class_count> shmx_class_sizes = {
    52, 60, 72, 80, 92, 100, 112, 120, 132, 140, 152, 160, 200, 220, 240, 260};
inline constexpr uint32_t shmx_smallest_block = shmx_class_sizes.front();
inline constexpr uint32_t shmx_block_unit = 4; ///< blocks begin at every multiple from the first on

/** Room for a lock word with 4-byte alignment wherever the slot lies. All slots of this layout are
 *  4-aligned, so the displacement is always 0; it is written, never read. */
struct shmx_lock_slot
{
    uint32_t displacement;
    uint32_t words[2];
};
static_assert(sizeof(shmx_lock_slot) == 12 && offsetof(shmx_lock_slot, displacement) == 0 &&
              offsetof(shmx_lock_slot, words) == 4);

enum class slot_state : uint8_t
{
    free = 0,
    claimed = 1,    ///< by a visitor
    posted = 2,     ///< request complete
    taken = 3,      ///< by the creator
    served = 4,     ///< answer complete
    collecting = 5, ///< by the visitor
};

struct shmx_request_slot
{
    uint8_t state; ///< slot_state; hands the rest over
    uint8_t unused[3];
    uint32_t user_id;
    uint32_t size;   ///< not 0: allocate; 0: free
    uint32_t offset; ///< of the block: to be freed, or the answer
    uint32_t tick;   ///< ms, when the creator served it
};
static_assert(sizeof(shmx_request_slot) == 20 && offsetof(shmx_request_slot, state) == 0 &&
              offsetof(shmx_request_slot, user_id) == 4 && offsetof(shmx_request_slot, size) == 8 &&
              offsetof(shmx_request_slot, offset) == 12 && offsetof(shmx_request_slot, tick) == 16);

struct shmx_segment_header
{
    uint32_t fourcc; ///< written last by the creator
    shmx_lock_slot lock;
    uint8_t reserved[24];
    uint32_t user_table_size;
    uint32_t meta_zone_size;
    uint32_t data_zone_size;
    uint32_t max_user_count;
    uint32_t spare_blocks[shmx_list_count]; ///< heads of the free lists, block offsets
    uint32_t spare_offset;                  ///< where the never-used part begins
    shmx_request_slot slots[shmx_slot_count];
};
static_assert(sizeof(shmx_segment_header) == 2128 && offsetof(shmx_segment_header, fourcc) == 0 &&
              offsetof(shmx_segment_header, lock) == 4 &&
              offsetof(shmx_segment_header, reserved) == 16 &&
              offsetof(shmx_segment_header, user_table_size) == 40 &&
              offsetof(shmx_segment_header, meta_zone_size) == 44 &&
              offsetof(shmx_segment_header, data_zone_size) == 48 &&
              offsetof(shmx_segment_header, max_user_count) == 52 &&
              offsetof(shmx_segment_header, spare_blocks) == 56 &&
              offsetof(shmx_segment_header, spare_offset) == 124 &&
              offsetof(shmx_segment_header, slots) == 128);

struct shmx_user_entry
{
    shmx_lock_slot lock; ///< holds the process id of who has the user id
    uint32_t process_id;
};
static_assert(sizeof(shmx_user_entry) == 16 && offsetof(shmx_user_entry, lock) == 0 &&
              offsetof(shmx_user_entry, process_id) == 12);

struct shmx_block_header
{
    uint32_t next;       ///< in a free list; block offset, 0 at the end
    uint32_t alloc_size; ///< header included
    uint32_t data_size;  ///< as requested
    uint32_t user_id;    ///< owner, or shmx_freed
    shmx_lock_slot lock; ///< for the application
};
static_assert(sizeof(shmx_block_header) == 28 && offsetof(shmx_block_header, next) == 0 &&
              offsetof(shmx_block_header, alloc_size) == 4 &&
              offsetof(shmx_block_header, data_size) == 8 &&
              offsetof(shmx_block_header, user_id) == 12 &&
              offsetof(shmx_block_header, lock) == 16);

/** An event, in a block of 113 bytes whose last byte is the displacement of this record in it. The
 *  areas of mutex and condition variable hold futex words, because those of the C library do not
 *  survive a process that is killed while it waits or signals. */
struct shmx_event_record
{
    uint32_t fourcc;
    uint32_t padding;
    uint32_t lock; ///< priority-inheriting; begins the 40 bytes of the mutex
    uint32_t mutex_rest[9];
    uint32_t sequence; ///< counts sets; waiters sleep on it; begins the 48 bytes of the condition
    uint32_t users;    ///< inside a call; too high after one was killed
    uint32_t condition_rest[10];
    uint8_t manual_reset;
    uint8_t signalled;
    uint8_t tail[6];
};
inline constexpr uint32_t shmx_event_fourcc = 0x65130128;
inline constexpr uint32_t shmx_event_block_size = 113;
static_assert(sizeof(shmx_event_record) == 104 && offsetof(shmx_event_record, fourcc) == 0 &&
              offsetof(shmx_event_record, lock) == 8 &&
              offsetof(shmx_event_record, sequence) == 48 &&
              offsetof(shmx_event_record, users) == 52 &&
              offsetof(shmx_event_record, manual_reset) == 96 &&
              offsetof(shmx_event_record, signalled) == 97);

// ---- words of the segment -----------------------------------------------------------------------

/** One word of shared memory. Relaxed unless the caller says otherwise: what orders the memory is a
 *  lock or a slot state. */
template <typename T>
inline T shmx_load(const T &word, std::memory_order order = std::memory_order_relaxed)
{
    return std::atomic_ref(const_cast<T &>(word)).load(order);
}
template <typename T>
inline void shmx_store(T &word, std::type_identity_t<T> value,
                       std::memory_order order = std::memory_order_relaxed)
{
    std::atomic_ref(word).store(value, order);
}

// ---- locks --------------------------------------------------------------------------------------

/** An uncontended lock and unlock are one compare-and-swap each; the rest is in
 *  tarn_shmx_lock.cpp. */
inline bool shmx_take_free_word(uint32_t *word)
{
    uint32_t expected = 0;
    return std::atomic_ref(*word).compare_exchange_strong(
        expected, shmx_thread_id(), std::memory_order_acquire, std::memory_order_relaxed);
}
int shmx_lock_held_word(uint32_t *word, uint32_t limit_ms);
bool shmx_unlock_wanted_word(uint32_t *word);

/** Result of taking a lock: 0 or an error number. */
inline int shmx_lock(uint32_t *word, uint32_t limit_ms = lock_without_limit)
{
    return shmx_take_free_word(word) ? 0 : shmx_lock_held_word(word, limit_ms);
}
int shmx_try_lock(uint32_t *word);

inline bool shmx_unlock(uint32_t *word)
{
    uint32_t expected = shmx_thread_id();
    return std::atomic_ref(*word).compare_exchange_strong(expected, 0, std::memory_order_release,
                                                          std::memory_order_relaxed) ||
           shmx_unlock_wanted_word(word);
}

/** The 4-aligned word of a slot. */
inline uint32_t *shmx_slot_word(void *slot)
{
    const uintptr_t behind = reinterpret_cast<uintptr_t>(slot) + sizeof(uint32_t);
    return reinterpret_cast<uint32_t *>((behind + 3) & ~uintptr_t{3});
}

/** A fresh, unlocked slot. */
inline void shmx_init_slot(shmx_lock_slot *slot)
{
    shmx_store(slot->displacement, 0);
    shmx_store(slot->words[0], 0);
    shmx_store(slot->words[1], 0);
}

/** Locks that are only ever held for moments are given up after this time: their word was
 *  overwritten, or their holder is stopped. */
inline constexpr uint32_t internal_lock_limit_ms = 10000;

/** Holds a lock word for its scope. */
class [[nodiscard]] shmx_word_guard
{
public:
    explicit shmx_word_guard(uint32_t *word, uint32_t limit_ms = internal_lock_limit_ms)
        : word_(word), error_(shmx_lock(word, limit_ms))
    {
    }
    shmx_word_guard(const shmx_word_guard &) = delete;
    shmx_word_guard &operator=(const shmx_word_guard &) = delete;
    ~shmx_word_guard()
    {
        if (error_ == 0)
        {
            (void)shmx_unlock(word_);
        }
    }
    explicit operator bool() const noexcept
    {
        return error_ == 0;
    }
    [[nodiscard]] int error() const noexcept
    {
        return error_;
    }

private:
    uint32_t *word_;
    int error_;
};

// ---- the creator's gate -------------------------------------------------------------------------

/** What guards the creator's record of the heap behind the header lock, which other processes can
 *  overwrite. All atomic. */
struct shmx_gate_words
{
    uint32_t taken;       ///< 1: a thread that is not the favoured one is inside
    uint32_t inside;      ///< 1: the favoured thread is, or looks whether it may be; written by it
    uint32_t favoured;    ///< id of that thread; 0: none yet; shmx_no_favourite: never again
    uint32_t server;      ///< id of the request thread, which is not favoured
    uint32_t can_barrier; ///< 1: there may be a favoured thread
};
inline constexpr uint32_t shmx_no_favourite = 0xFFFFFFFF;

/** Enter as any thread; in tarn_shmx_gate.cpp. */
void shmx_enter_gate(shmx_gate_words &gate);

/** Holds the gate for its scope. Beside the request thread nearly always one thread uses a heap.
 *  That one is favoured: it announces itself with a plain store and looks whether the gate is
 *  taken; a thread that takes the gate makes up for the missing barrier between the two with one
 *  on all processors. A second such thread ends this, and then all pay for an atomic exchange. */
class [[nodiscard]] shmx_gate
{
public:
    explicit shmx_gate(shmx_gate_words *gate) : gate_(*gate), is_favoured_(enter_favoured(*gate))
    {
        if (!is_favoured_)
        {
            shmx_enter_gate(gate_);
        }
    }
    shmx_gate(const shmx_gate &) = delete;
    shmx_gate &operator=(const shmx_gate &) = delete;
    ~shmx_gate()
    {
        shmx_store(is_favoured_ ? gate_.inside : gate_.taken, 0, std::memory_order_release);
    }

private:
    static bool enter_favoured(shmx_gate_words &gate)
    {
        const uint32_t self = shmx_thread_id();
        if (shmx_load(gate.favoured) != self)
        {
            return false;
        }
        shmx_store(gate.inside, 1);
        std::atomic_signal_fence(std::memory_order_seq_cst); // the other side has the barrier
        if (shmx_load(gate.taken, std::memory_order_acquire) == 0 &&
            shmx_load(gate.favoured) == self)
        {
            return true;
        }
        shmx_store(gate.inside, 0, std::memory_order_release);
        return false;
    }

    shmx_gate_words &gate_;
    bool is_favoured_;
};

// ---- a mapped segment ---------------------------------------------------------------------------

/** Offset of a block's header in the data zone; what links, slots and event names hold. */
enum class block_offset : uint32_t
{
    none = 0
};
/** Offset of what the application gets, 28 bytes further on. */
enum class data_offset : uint32_t
{
    none = 0
};
constexpr uint32_t raw(block_offset offset)
{
    return static_cast<uint32_t>(offset);
}
constexpr uint32_t raw(data_offset offset)
{
    return static_cast<uint32_t>(offset);
}
constexpr data_offset data_of(block_offset offset)
{
    return offset == block_offset::none
               ? data_offset::none
               : data_offset{raw(offset) + static_cast<uint32_t>(sizeof(shmx_block_header))};
}

/** Where the zones of a segment lie here, and their checked sizes. */
struct shmx_view
{
    shmx_segment_header *header;
    shmx_user_entry *users; ///< max_user_count + 1 entries
    uint8_t *meta;
    uint8_t *data;
    uint32_t meta_size;
    uint32_t data_size;
    uint32_t max_user_count;
    uint32_t first_offset; ///< of the first block
};

/** Bytes that a segment takes; more than 32 bits when it cannot be. */
constexpr uint64_t shmx_segment_size(uint64_t size, uint64_t meta_size, uint64_t max_user_count)
{
    return size + meta_size + 16 * (max_user_count + 134) + shmx_slack_size;
}

/** Fill in a view from sizes that have been checked against the mapping. */
void shmx_set_view(shmx_view *view, void *area, uint32_t size, uint32_t meta_size,
                   uint32_t max_user_count);

/** The header of a block, or null for an offset at which none can begin. */
inline shmx_block_header *shmx_block_at(const shmx_view &view, block_offset offset)
{
    const uint32_t at = raw(offset);
    if (at < view.first_offset || (at - view.first_offset) % shmx_block_unit != 0 ||
        uint64_t{at} + shmx_smallest_block > view.data_size)
    {
        return nullptr;
    }
    return reinterpret_cast<shmx_block_header *>(view.data + at);
}

/** The block that an application's address belongs to, or none. */
block_offset shmx_block_of_address(const shmx_view &view, const void *address);

/** alloc_size of a block, read once and checked to lie within the data zone; 0: nonsense. */
uint32_t shmx_checked_alloc_size(const shmx_view &view, block_offset offset);

inline void *shmx_data_at(const shmx_view &view, block_offset offset)
{
    return view.data + raw(data_of(offset));
}

/** List of each size in units of 4 bytes: the first class that is not smaller. */
inline constexpr auto shmx_list_table = [] {
    std::array<uint8_t, shmx_class_sizes.back() / shmx_block_unit + 1> table{};
    size_t list = 0;
    for (size_t unit = 0; unit < table.size(); ++unit)
    {
        while (shmx_class_sizes[list] < unit * shmx_block_unit)
        {
            ++list;
        }
        table[unit] = static_cast<uint8_t>(list);
    }
    return table;
}();

inline size_t shmx_list_of(uint32_t alloc_size)
{
    const size_t unit = (size_t{alloc_size} + shmx_block_unit - 1) / shmx_block_unit;
    return unit < shmx_list_table.size() ? shmx_list_table[unit] : shmx_large_list;
}

/** List index of a request, and the bytes that its block occupies. The size is at most 4 GiB less
 *  36. */
struct shmx_fit
{
    size_t list;
    uint32_t alloc_size;
};
inline shmx_fit shmx_fit_of(uint32_t size)
{
    const uint32_t needed = (size + 32 + 3) & ~3u;
    const size_t list = shmx_list_of(needed);
    return {list, list == shmx_large_list ? needed : shmx_class_sizes[list]};
}

// ---- the creator's record of the heap -----------------------------------------------------------

/** A block that has been carved. Blocks are never split, merged or given back, so their order is
 *  that of their offsets. */
struct heap_block
{
    uint32_t offset;
    uint32_t alloc_size;
    uint32_t next;  ///< number of the next in its free list plus 1; 0 at the end
    uint32_t owner; ///< user id, or shmx_freed
};

/** The truth about the heap; the caller holds the locks. */
struct shmx_heap
{
    heap_block *blocks;
    uint32_t block_count;
    uint32_t block_capacity;
    uint32_t *cells; ///< number plus 1 of the first block that begins in each cell of the data zone
    uint32_t heads[shmx_list_count]; ///< number plus 1
    uint32_t spare_offset;
    uint32_t *user_blocks; ///< how many blocks each user id has
    uint32_t overwritten;  ///< 1: a word in the segment was not what had been put there; log it
};

/** @return false when memory ran out */
bool shmx_heap_open(shmx_heap *heap, const shmx_view &view);
void shmx_heap_close(shmx_heap *heap);

/** What was done, for the log lines after the locks are released. */
struct heap_report
{
    block_offset block;
    uint32_t alloc_size;
    uint32_t owner; ///< before a free
    uint32_t next;  ///< in the list; block offset
    size_t list;
    uint32_t spare_offset;
    bool from_list;
};

/** Take a block for a user.
 *  @return false when the heap is exhausted */
bool shmx_heap_alloc(shmx_heap *heap, const shmx_view &view, uint32_t size, uint32_t user_id,
                     heap_report *report);

enum class heap_free_result
{
    freed,
    no_block,
    already_freed,
    other_owner
};

/** Any owner will do for shmx_heap_free(). */
inline constexpr uint32_t heap_any_owner = shmx_freed;

heap_free_result shmx_heap_free(shmx_heap *heap, const shmx_view &view, block_offset offset,
                                uint32_t owner, heap_report *report);

// ---- a visitor's reserve ------------------------------------------------------------------------

/** A block that the application freed and that waits here to be used again. */
struct reserve_node
{
    uint32_t offset;
    uint32_t alloc_size;
    uint32_t next;  ///< number in its queue, or right child
    uint32_t left;  ///< left child
    uint32_t order; ///< of insertion, among blocks of one size
    uint32_t priority;
};

/** Blocks by size: a queue per class, a tree for all other sizes; and by offset. Numbers count from
 *  1, 0 is none. The caller holds the handle's lock. */
struct shmx_reserve
{
    reserve_node *nodes; ///< nodes[0] is not used
    uint32_t capacity;
    uint32_t used;      ///< nodes ever taken
    uint32_t free_node; ///< linked by next
    uint32_t *index;    ///< open addressing, by offset; a power of two of places
    uint32_t index_size;
    uint32_t count;
    uint32_t class_mask; ///< bit i: queue i has blocks
    uint32_t heads[shmx_class_count];
    uint32_t tails[shmx_class_count];
    uint32_t tree;
    uint32_t next_order;
    uint32_t random;
};

enum class reserve_result
{
    kept,
    already_there,
    no_memory
};

/** Put a block in, unless it is there. */
reserve_result shmx_reserve_put(shmx_reserve *reserve, uint32_t offset, uint32_t alloc_size);

/** Take out the smallest block of at least so many bytes, the oldest among equals.
 *  @return its offset; 0: there is none */
uint32_t shmx_reserve_take(shmx_reserve *reserve, uint32_t alloc_size, uint32_t *taken_size);
void shmx_reserve_close(shmx_reserve *reserve);

// ---- requests -----------------------------------------------------------------------------------

/** Times of a request; a test changes them while no heap exists. */
struct shmx_limits
{
    uint32_t alloc_ms = 10000;       ///< a visitor waits so long for a block
    uint32_t free_claim_ms = 30000;  ///< for a slot to free one
    uint32_t free_answer_ms = 10000; ///< and for the answer
    uint32_t served_ms = 5000;       ///< an answer is kept so long
    uint32_t stuck_ms = 60000;       ///< a slot stays with a visitor so long
};
extern shmx_limits shmx_limit;

/** What the creator remembers of a slot. */
struct slot_watch
{
    uint8_t state;       ///< as last seen
    uint8_t has_block;   ///< served with an allocation
    uint32_t block;      ///< block offset of that
    uint32_t user_id;    ///< for whom
    uint32_t seen_tick;  ///< ms, when the state was first seen
    uint32_t alive_tick; ///< ms, when its user was last found alive
};

/** Allocate through the creator.
 *  @return none when there is no slot, no memory, no creator or no time left */
block_offset shmx_request_alloc(TARN_SHMX shmx, uint32_t size);

/** Free through the creator. */
bool shmx_request_free(TARN_SHMX shmx, block_offset block, uint32_t owner);

/** One pass of the creator's request thread. */
void shmx_serve_requests(TARN_SHMX shmx);

// ---- the two ways to a block --------------------------------------------------------------------

/** Take a block from the heap under its locks, with log lines; creator only.
 *  @param alloc_size  receives what it occupies */
block_offset shmx_blk_alloc_by_creator(TARN_SHMX shmx, uint32_t size, uint32_t user_id,
                                       uint32_t *alloc_size);

/** Give a block back; creator only.
 *  @param owner  whose it must be, or heap_any_owner */
bool shmx_blk_free_by_creator(TARN_SHMX shmx, block_offset block, uint32_t owner);

/** What the public calls do, for the debug twins and events as well. */
block_offset shmx_blk_alloc(TARN_SHMX shmx, uint32_t size);
bool shmx_blk_free(TARN_SHMX shmx, block_offset block);

/** Check the zones against the size of the mapping, and keep in the view what was checked.
 *  @return false, with a line, when they do not fit or it is no heap */
bool shmx_map_zones(TARN_SHMX shmx);

/** False, with a line, in a child of the process that made the handle: its records are copies. */
bool shmx_is_in_own_process(TARN_SHMX shmx);

} // namespace tarn

struct tarn_shmx
{
    tarn_handle_header header;
    uint32_t user_id; ///< 0: creator
    TARN_SHM shm;
    tarn::shmx_view view;
    TARN_SEMAPHORE semaphore;
    TARN_THREAD thread; ///< creator
    uint32_t fork_generation;
    uint32_t process_id;
    uint32_t lock;              ///< visitor: guards reserve; a lock word of this process
    tarn::shmx_gate_words gate; ///< creator: guards heap
    // creator
    tarn::shmx_heap heap;
    tarn::slot_watch watches[tarn::shmx_slot_count]; ///< request thread only
    uint32_t request_cursor;                         ///< request thread only
    // visitor
    tarn::shmx_reserve reserve;
    uint32_t next_ticket;                    ///< atomic
    uint32_t tickets[tarn::shmx_slot_count]; ///< atomic: the call of this process in each slot
};

#endif
