// Shared events: a flag in a block, under a priority-inheriting lock, with a counter to sleep on.
//
// Any process may be killed at any instruction. A lock of a dead process is taken over, and what it
// guards is one byte at a time, so never half done. Nothing counts on a waiter to come back: it
// compares the counter that it saw under the lock, and looks at the flag again each second, because
// a setter may die between the flag and the wake-up, and a woken waiter before it takes the flag.
//
// A destroyed event's block may be given to somebody else, so nobody may touch it then: destroying
// wakes the waiters and stays until all who are inside have counted themselves out. One that was
// killed never counts itself out; the wait for it ends after the time in which every living one
// must have looked.

#include "tarn_os.h"
#include "tarn_shmx_internal.h"
#include "tarn_str.h"
#include "tarn_sys.h"

#include <algorithm>
#include <cerrno>

namespace tarn
{
namespace
{

constexpr uint32_t look_again_ms = 1000;
constexpr uint32_t leave_limit_ms = 3 * look_again_ms;
constexpr uint32_t shortest_lock_limit_ms = 100;
constexpr size_t name_size = 128;

thread_local char name_buffer[name_size];

/** The record in an event's block; null when there cannot be one. The displacement byte is not
 *  believed: blocks are 4-aligned, so it is 0. */
shmx_event_record *record_at(TARN_SHMX shmx, uint32_t event)
{
    shmx_block_header *block = shmx_block_at(shmx->view, block_offset{event});
    if (block == nullptr ||
        uint64_t{event} + sizeof *block + shmx_event_block_size > shmx->view.data_size)
    {
        return nullptr;
    }
    return reinterpret_cast<shmx_event_record *>(block + 1);
}

uint32_t fourcc_of(const shmx_event_record *record)
{
    return record == nullptr ? 0 : shmx_load(record->fourcc, std::memory_order_acquire);
}

bool is_event(const shmx_event_record *record)
{
    return fourcc_of(record) == shmx_event_fourcc;
}

/** Takes the event's lock; says so when it cannot. */
class [[nodiscard]] event_guard
{
public:
    explicit event_guard(shmx_event_record *record, uint32_t limit_ms = internal_lock_limit_ms)
        : guard_(&record->lock, limit_ms)
    {
        if (!guard_)
        {
            TARN_LOG_ERROR("failed to lock mutex, error = [%d](%s)", guard_.error(),
                           error_text(guard_.error()).c_str());
        }
    }
    explicit operator bool() const noexcept
    {
        return static_cast<bool>(guard_);
    }

private:
    shmx_word_guard guard_;
};

bool take_flag(shmx_event_record *record)
{
    if (shmx_load(record->signalled) == 0)
    {
        return false;
    }
    if (shmx_load(record->manual_reset) == 0)
    {
        shmx_store(record->signalled, 0);
    }
    return true;
}

/** Finds an event, and is counted in it as long as it may touch the record. */
class [[nodiscard]] event_user
{
public:
    /** Counted first, and then looked once more: a destroyer takes the fourcc away first and then
     *  looks at the count, so one of the two sees the other. */
    explicit event_user(shmx_event_record *record) : record_(is_event(record) ? record : nullptr)
    {
        if (record_ != nullptr)
        {
            (void)std::atomic_ref(record_->users).fetch_add(1);
            found_ = shmx_load(record_->fourcc, std::memory_order_seq_cst) == shmx_event_fourcc;
        }
    }
    event_user(const event_user &) = delete;
    event_user &operator=(const event_user &) = delete;
    ~event_user()
    {
        if (record_ != nullptr)
        {
            (void)std::atomic_ref(record_->users).fetch_sub(1, std::memory_order_release);
        }
    }
    explicit operator bool() const noexcept
    {
        return found_;
    }

private:
    shmx_event_record *record_;
    bool found_ = false;
};

/** Time that is left of a time-out; its end may be never. */
class time_left
{
public:
    explicit time_left(uint32_t timeout_ms) : start_(tarn_tick_ns()), timeout_ms_(timeout_ms) {}
    /** The next sleep, at most a second; 0: none. */
    [[nodiscard]] uint32_t slice() const
    {
        return std::min(left_ms(), look_again_ms);
    }
    /** How long to wait for the lock, which is only held for moments: hardly longer than for the
     *  event, also when its word was overwritten or its holder is stopped. */
    [[nodiscard]] uint32_t lock_limit() const
    {
        return std::clamp(left_ms(), shortest_lock_limit_ms, internal_lock_limit_ms);
    }

private:
    [[nodiscard]] uint32_t left_ms() const
    {
        if (timeout_ms_ == TARN_INFINITE)
        {
            return TARN_INFINITE;
        }
        const uint64_t passed_ns = tarn_tick_ns_since(start_);
        const uint64_t timeout_ns = uint64_t{timeout_ms_} * 1000000;
        return passed_ns >= timeout_ns
                   ? 0
                   : static_cast<uint32_t>((timeout_ns - passed_ns + 999999) / 1000000);
    }

    uint64_t start_;
    uint32_t timeout_ms_;
};

/** Waits with the lock held now and then; the caller is counted. */
bool wait_for_flag(shmx_event_record *record, uint32_t timeout_ms)
{
    const time_left left(timeout_ms);
    for (;;)
    {
        uint32_t sequence = 0;
        {
            const event_guard guard(record, left.lock_limit());
            if (!guard || !is_event(record))
            {
                return false;
            }
            if (take_flag(record))
            {
                return true;
            }
            sequence = shmx_load(record->sequence);
        }
        const uint32_t slice = left.slice();
        if (slice == 0)
        {
            return false;
        }
        shmx_futex_wait(&record->sequence, sequence, slice);
    }
}

bool look_once(shmx_event_record *record)
{
    if (shmx_try_lock(&record->lock) != 0)
    {
        return false;
    }
    const bool result = is_event(record) && take_flag(record);
    (void)shmx_unlock(&record->lock);
    return result;
}

/** Sleep where there is no event: as long as the caller would have waited, so that a loop round a
 *  destroyed event does not spin. Ends when the thread is asked to stop. */
void sleep_instead(uint32_t timeout_ms)
{
    const uint32_t ms = timeout_ms == TARN_INFINITE ? look_again_ms : timeout_ms;
    const uint32_t start = tarn_tick_ms();
    for (uint32_t passed = 0; passed < ms; passed = tarn_tick_ms_since(start))
    {
        const uint32_t slice = std::min(ms - passed, look_again_ms);
        const uint32_t slept_from = tarn_tick_ms();
        if (tarn_thread_sleep(slice))
        {
            return;
        }
        if (tarn_tick_ms_since(slept_from) < slice / 2) // no thread that can be asked to stop
        {
            tarn_sleep_ms(slice);
        }
    }
}

/** Wake whom a set lets through.
 *  @return 0 or an error number */
int signal(shmx_event_record *record)
{
    const bool all = shmx_load(record->manual_reset) != 0;
    return shmx_futex_wake(&record->sequence, all);
}

/** Wait until all have left a record whose fourcc is gone. */
void await_leaving(shmx_event_record *record)
{
    const uint32_t start = tarn_tick_ms();
    while (shmx_load(record->users, std::memory_order_seq_cst) != 0 &&
           tarn_tick_ms_since(start) < leave_limit_ms)
    {
        (void)shmx_futex_wake(&record->sequence, true);
        tarn_sleep_ms(1);
    }
}

} // namespace
} // namespace tarn

using tarn::shmx_event_record;

uint32_t tarn_shmx_event_create(TARN_SHMX shmx, bool manual_reset, bool initial_state)
{
    RVON(shmx, 0);
    const tarn::block_offset block = tarn::shmx_blk_alloc(shmx, tarn::shmx_event_block_size);
    if (block == tarn::block_offset::none)
    {
        return 0;
    }
    shmx_event_record *record = tarn::record_at(shmx, tarn::raw(block));
    tarn::shmx_store(record->manual_reset, manual_reset ? 1 : 0);
    tarn::shmx_store(record->fourcc, tarn::shmx_event_fourcc, std::memory_order_release);
    if (initial_state)
    {
        (void)tarn_shmx_event_set(shmx, tarn::raw(block));
    }
    return tarn::raw(block);
}

bool tarn_shmx_event_set(TARN_SHMX shmx, uint32_t event)
{
    RVON(shmx, false);
    shmx_event_record *record = tarn::record_at(shmx, event);
    const tarn::event_user user(record);
    if (!user)
    {
        TARN_LOG_ERROR("fourcc [%u] mismatch!", tarn::fourcc_of(record));
        return false;
    }
    {
        const tarn::event_guard guard(record);
        if (!guard)
        {
            return false;
        }
        tarn::shmx_store(record->signalled, 1);
        (void)std::atomic_ref(record->sequence).fetch_add(1, std::memory_order_relaxed);
    }
    // Behind the lock, so that the woken waiter finds it free.
    const int error = tarn::signal(record);
    if (error != 0)
    {
        TARN_LOG_ERROR("failed to signal the condition variable, error = %d (%s)", error,
                       tarn::error_text(error).c_str());
        (void)tarn_shmx_event_reset(shmx, event);
        return false;
    }
    return true;
}

bool tarn_shmx_event_reset(TARN_SHMX shmx, uint32_t event)
{
    RVON(shmx, false);
    shmx_event_record *record = tarn::record_at(shmx, event);
    const tarn::event_user user(record);
    if (!user)
    {
        TARN_LOG_ERROR("fourcc [%u] mismatch!", tarn::fourcc_of(record));
        return false;
    }
    const tarn::event_guard guard(record);
    if (!guard)
    {
        return false;
    }
    tarn::shmx_store(record->signalled, 0);
    return true;
}

bool tarn_shmx_event_wait(TARN_SHMX shmx, uint32_t event, uint32_t timeout_ms)
{
    RVON(shmx, false);
    shmx_event_record *record = tarn::record_at(shmx, event);
    {
        const tarn::event_user user(record);
        if (user)
        {
            return timeout_ms == 0 ? tarn::look_once(record)
                                   : tarn::wait_for_flag(record, timeout_ms);
        }
    }
    TARN_LOG_ERROR("fourcc mismatch! expected = [0x%x], actual = [0x%x]", tarn::shmx_event_fourcc,
                   tarn::fourcc_of(record));
    tarn::sleep_instead(timeout_ms);
    return false;
}

bool tarn_shmx_event_destroy(TARN_SHMX shmx, uint32_t event)
{
    RVON(shmx, false);
    shmx_event_record *record = tarn::record_at(shmx, event);
    if (!tarn::is_event(record))
    {
        TARN_LOG_ERROR("fourcc %u mismatch!", tarn::fourcc_of(record));
        return false;
    }
    {
        const tarn::event_guard guard(record);
        if (!guard || !tarn::is_event(record))
        {
            return false;
        }
        tarn::shmx_store(record->fourcc, 0, std::memory_order_seq_cst);
        (void)std::atomic_ref(record->sequence).fetch_add(1, std::memory_order_relaxed);
    }
    tarn::await_leaving(record);
    return tarn::shmx_blk_free(shmx, tarn::block_offset{event});
}

const char *tarn_shmx_event_name(uint32_t event)
{
    (void)tarn_str_printf(tarn::name_buffer, sizeof tarn::name_buffer, "TARNSHMXEVT_%u", event);
    return tarn::name_buffer;
}
