// Requests of visitors to the creator, through the slots in the segment.
//
// A slot goes round its states by compare-and-swap of one byte: 0 free, 1 claimed, 2 posted
// (visitor), 3 taken, 4 served (creator), 5 collecting, 0 (visitor). The semaphore only wakes the
// creator; each idle pass looks at the states as well, because a visitor may die between the two.
//
// What makes it safe when somebody is late or dies:
// - The creator takes a served slot back after 5 s, by 4 -> 3; the visitor collects by 4 -> 5. Only
//   one of them wins, and the creator frees the block of an answer that was never collected.
// - A visitor that comes late may find the answer of another one in what was its slot. It compares
//   user id and size, and a ticket that the calls of one process leave in private memory, after it
//   has won the slot, and puts back what is not its own.
// - Slots that a dead visitor left in 1 or 5 are emptied when its process is gone, or after a
//   minute, which is longer than any visitor waits.
// - The creator believes its own record about who has which block, and nothing in a slot.

#include "tarn_os.h"
#include "tarn_semaphore_internal.h"
#include "tarn_shm_internal.h"
#include "tarn_shmx_internal.h"
#include "tarn_sys.h"

namespace tarn
{
namespace
{

constexpr uint32_t alive_check_ms = 500;   // how often the user of a stuck slot is looked at
constexpr uint32_t creator_check_ms = 100; // how often a waiting visitor looks at the creator
constexpr uint32_t request_wait_ms = 100;  // of the request thread
constexpr uint32_t spins_per_yield = 64;
constexpr uint32_t yields_per_clock = 16;

bool change_state(shmx_request_slot &slot, slot_state from, slot_state to)
{
    auto expected = static_cast<uint8_t>(from);
    return std::atomic_ref(slot.state)
        .compare_exchange_strong(expected, static_cast<uint8_t>(to), std::memory_order_acq_rel,
                                 std::memory_order_relaxed);
}

slot_state state_of(const shmx_request_slot &slot)
{
    return static_cast<slot_state>(shmx_load(slot.state, std::memory_order_acquire));
}

void zero_slot(shmx_request_slot &slot)
{
    shmx_store(slot.user_id, 0);
    shmx_store(slot.size, 0);
    shmx_store(slot.offset, 0);
    shmx_store(slot.tick, 0);
}

// ---- visitor ------------------------------------------------------------------------------------

struct request
{
    uint32_t user_id;
    uint32_t size;
    uint32_t offset;
};

/** A request in a slot. */
struct pending_request
{
    size_t index;
    uint32_t ticket;
};

bool is_own(TARN_SHMX shmx, const pending_request &pending)
{
    return shmx_load(shmx->tickets[pending.index], std::memory_order_acquire) == pending.ticket;
}

/** Write a request into a slot that was just claimed, and wake the creator. */
bool post(TARN_SHMX shmx, const request &wanted, pending_request *pending)
{
    shmx_request_slot &slot = shmx->view.header->slots[pending->index];
    pending->ticket = std::atomic_ref(shmx->next_ticket).fetch_add(1) + 1;
    shmx_store(shmx->tickets[pending->index], pending->ticket, std::memory_order_release);
    shmx_store(slot.user_id, wanted.user_id);
    shmx_store(slot.size, wanted.size);
    shmx_store(slot.offset, wanted.offset);
    shmx_store(slot.tick, 0);
    if (!change_state(slot, slot_state::claimed, slot_state::posted))
    {
        return false; // the creator has given us up
    }
    tarn_semaphore_post(shmx->semaphore, 1, nullptr);
    return true;
}

bool claim(TARN_SHMX shmx, size_t index)
{
    shmx_request_slot &slot = shmx->view.header->slots[index];
    return state_of(slot) == slot_state::free &&
           change_state(slot, slot_state::free, slot_state::claimed);
}

enum class collect_result
{
    collected,
    not_yet,
    lost ///< given up by the creator, or another's by now
};

/** Take the answer, if it is there, and empty the slot.
 *  @param offset  receives the block offset */
collect_result collect(TARN_SHMX shmx, const request &wanted, const pending_request &pending,
                       uint32_t *offset)
{
    shmx_request_slot &slot = shmx->view.header->slots[pending.index];
    const slot_state state = state_of(slot);
    if (state == slot_state::free || state == slot_state::claimed || !is_own(shmx, pending))
    {
        return collect_result::lost;
    }
    if (state != slot_state::served ||
        !change_state(slot, slot_state::served, slot_state::collecting))
    {
        return collect_result::not_yet;
    }
    if (!is_own(shmx, pending) || shmx_load(slot.user_id) != wanted.user_id ||
        shmx_load(slot.size) != wanted.size)
    {
        (void)change_state(slot, slot_state::collecting, slot_state::served);
        return collect_result::lost;
    }
    *offset = shmx_load(slot.offset);
    zero_slot(slot);
    (void)change_state(slot, slot_state::collecting, slot_state::free);
    return collect_result::collected;
}

/** Tells, now and then, whether waiting for the creator makes sense. */
class patience
{
public:
    explicit patience(TARN_SHMX shmx, uint32_t limit_ms)
        : shmx_(shmx), start_(tarn_tick_ms()), checked_(start_), limit_ms_(limit_ms)
    {
    }
    /** Asks the clock, and every 100 ms the system. */
    bool ends()
    {
        if (tarn_tick_ms_since(start_) > limit_ms_)
        {
            return true;
        }
        if (tarn_tick_ms_since(checked_) >= creator_check_ms)
        {
            checked_ = tarn_tick_ms();
            return shm_is_abandoned(shmx_->shm);
        }
        return false;
    }

private:
    TARN_SHMX shmx_;
    uint32_t start_;
    uint32_t checked_;
    uint32_t limit_ms_;
};

/** Wait for an answer without sleeping: it comes within microseconds, and the processor is given up
 *  in between for the case that the creator needs this very one. */
collect_result await_busily(TARN_SHMX shmx, const request &wanted, const pending_request &pending,
                            patience *waiting, uint32_t *offset)
{
    for (uint32_t turn = 1;; ++turn)
    {
        const collect_result result = collect(shmx, wanted, pending, offset);
        if (result != collect_result::not_yet)
        {
            return result;
        }
        shmx_pause();
        if (turn % spins_per_yield == 0)
        {
            shmx_yield();
        }
        if (turn % (spins_per_yield * yields_per_clock) == 0 && waiting->ends())
        {
            return collect_result::not_yet;
        }
    }
}

// ---- creator ------------------------------------------------------------------------------------

/** Empty a slot that the creator has in state 3. */
void abort_slot(shmx_request_slot &slot)
{
    zero_slot(slot);
    (void)change_state(slot, slot_state::taken, slot_state::free);
}

/** @return the answer; none: the request cannot be served */
block_offset shmx_blk_alloc_for_visitor(TARN_SHMX shmx, const request &wanted)
{
    uint32_t alloc_size = 0;
    return shmx_blk_alloc_by_creator(shmx, wanted.size, wanted.user_id, &alloc_size);
}

bool shmx_blk_free_for_visitor(TARN_SHMX shmx, const request &wanted)
{
    const shmx_block_header *block = shmx_block_at(shmx->view, block_offset{wanted.offset});
    if (block != nullptr && shmx_load(block->user_id) != wanted.user_id &&
        shmx_load(block->user_id) != shmx_freed)
    {
        TARN_LOG_WARN("block <%u> is not of user_id = [%u]", wanted.offset, wanted.user_id);
        return false;
    }
    return shmx_blk_free_by_creator(shmx, block_offset{wanted.offset}, wanted.user_id);
}

/** Serve a slot that was just taken. */
void serve(TARN_SHMX shmx, shmx_request_slot &slot, slot_watch &watch)
{
    const request wanted = {shmx_load(slot.user_id), shmx_load(slot.size), shmx_load(slot.offset)};
    const bool is_alloc = wanted.offset == 0 && wanted.size != 0 && wanted.user_id != 0 &&
                          wanted.user_id <= shmx->view.max_user_count;
    const bool is_free =
        wanted.offset != 0 && wanted.size == 0 && wanted.user_id <= shmx->view.max_user_count;
    const block_offset block =
        is_alloc ? shmx_blk_alloc_for_visitor(shmx, wanted) : block_offset::none;
    if (block == block_offset::none && !(is_free && shmx_blk_free_for_visitor(shmx, wanted)))
    {
        abort_slot(slot);
        return;
    }
    if (is_alloc)
    {
        shmx_store(slot.offset, raw(block));
    }
    const uint32_t now = tarn_tick_ms();
    shmx_store(slot.tick, now);
    watch = {
        static_cast<uint8_t>(slot_state::served), is_alloc, raw(block), wanted.user_id, now, now};
    if (!change_state(slot, slot_state::taken, slot_state::served))
    {
        TARN_LOG_ERROR("failed to set state to [%d], expect [%d], actual [%d]",
                       static_cast<int>(slot_state::served), static_cast<int>(slot_state::taken),
                       static_cast<int>(state_of(slot)));
        if (is_alloc)
        {
            (void)shmx_blk_free_by_creator(shmx, block, wanted.user_id);
        }
        watch.has_block = 0;
    }
}

/** Take back an answer that nobody has collected. */
void take_back(TARN_SHMX shmx, shmx_request_slot &slot, slot_watch &watch)
{
    if (!change_state(slot, slot_state::served, slot_state::taken))
    {
        return; // just being collected
    }
    if (watch.has_block != 0)
    {
        (void)shmx_blk_free_by_creator(shmx, block_offset{watch.block}, watch.user_id);
        watch.has_block = 0;
    }
    abort_slot(slot);
}

/** True when the process that has the user id is gone. */
bool user_is_gone(TARN_SHMX shmx, uint32_t user_id)
{
    if (user_id == 0 || user_id > shmx->view.max_user_count)
    {
        return false;
    }
    const uint32_t owner =
        shmx_load(*shmx_slot_word(&shmx->view.users[user_id].lock)) & lock_owner_mask;
    return owner != 0 && process_is_gone(static_cast<int>(owner));
}

/** A slot that a visitor has, or a state that is none: emptied when the visitor is gone or has had
 *  it for too long. */
void watch_visitor(TARN_SHMX shmx, shmx_request_slot &slot, slot_watch &watch, uint8_t state,
                   uint32_t now)
{
    bool is_stuck = tarn_tick_ms_diff(watch.seen_tick, now) > shmx_limit.stuck_ms;
    if (!is_stuck && tarn_tick_ms_diff(watch.alive_tick, now) > alive_check_ms)
    {
        watch.alive_tick = now;
        is_stuck = user_is_gone(shmx, shmx_load(slot.user_id));
    }
    if (is_stuck && change_state(slot, slot_state{state}, slot_state::taken))
    {
        watch.has_block = 0; // the visitor may have it: it stays with the user id
        abort_slot(slot);
    }
}

/** One slot in a pass. */
void examine(TARN_SHMX shmx, size_t index, uint32_t now)
{
    shmx_request_slot &slot = shmx->view.header->slots[index];
    slot_watch &watch = shmx->watches[index];
    const slot_state state = state_of(slot);
    if (state == slot_state::posted)
    {
        if (change_state(slot, slot_state::posted, slot_state::taken))
        {
            serve(shmx, slot, watch);
        }
        return;
    }
    if (watch.state != static_cast<uint8_t>(state))
    {
        watch.state = static_cast<uint8_t>(state);
        watch.seen_tick = now;
        watch.alive_tick = now;
    }
    if (state == slot_state::free)
    {
        watch.has_block = 0;
    }
    else if (state != slot_state::served)
    {
        watch_visitor(shmx, slot, watch, watch.state, now);
    }
    else if (tarn_tick_ms_diff(watch.seen_tick, now) > shmx_limit.served_ms)
    {
        take_back(shmx, slot, watch);
    }
}

} // namespace

shmx_limits shmx_limit;

block_offset shmx_request_alloc(TARN_SHMX shmx, uint32_t size)
{
    patience waiting(shmx, shmx_limit.alloc_ms);
    const request wanted = {shmx->user_id, size, 0};
    pending_request pending{};
    while (pending.index < shmx_slot_count && !claim(shmx, pending.index))
    {
        ++pending.index;
    }
    if (pending.index == shmx_slot_count)
    {
        TARN_LOG_WARN("all request slots are busy, size = [%u]", size);
        return block_offset::none;
    }
    uint32_t offset = 0;
    if (!post(shmx, wanted, &pending) ||
        await_busily(shmx, wanted, pending, &waiting, &offset) != collect_result::collected)
    {
        TARN_LOG_WARN("the creator gave no block, size = [%u]", size);
        return block_offset::none; // the creator empties the slot
    }
    return block_offset{offset};
}

bool shmx_request_free(TARN_SHMX shmx, block_offset block, uint32_t owner)
{
    patience claiming(shmx, shmx_limit.free_claim_ms);
    const request wanted = {owner, 0, raw(block)};
    pending_request pending{};
    for (uint32_t tries = 1; !claim(shmx, pending.index); ++tries)
    {
        pending.index = (pending.index + 1) % shmx_slot_count;
        if (tries % shmx_slot_count == 0)
        {
            if (claiming.ends())
            {
                return false;
            }
            shmx_yield();
        }
    }
    if (!post(shmx, wanted, &pending))
    {
        return false;
    }
    patience waiting(shmx, shmx_limit.free_answer_ms);
    uint32_t offset = 0;
    for (;;)
    {
        const collect_result result = collect(shmx, wanted, pending, &offset);
        if (result != collect_result::not_yet)
        {
            return result == collect_result::collected;
        }
        if (waiting.ends())
        {
            return false;
        }
        tarn_sleep_ms(1);
    }
}

void shmx_serve_requests(TARN_SHMX shmx)
{
    shmx_store(shmx->gate.server, shmx_thread_id());
    if (semaphore_take_within(shmx->semaphore, request_wait_ms))
    {
        // One pass serves all that is posted, so the other wake-ups are used up.
        for (size_t i = 0; i < shmx_slot_count && tarn_semaphore_wait(shmx->semaphore, 0); ++i)
        {
        }
    }
    const uint32_t now = tarn_tick_ms();
    for (size_t i = 0; i < shmx_slot_count; ++i)
    {
        examine(shmx, shmx->request_cursor, now);
        shmx->request_cursor = static_cast<uint32_t>((shmx->request_cursor + 1) % shmx_slot_count);
    }
}

} // namespace tarn
