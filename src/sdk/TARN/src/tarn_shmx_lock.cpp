// Locks of the shared heap: priority-inheriting futexes in shared words.
//
// An uncontended lock and unlock are one compare-and-swap each: the protocol lets a thread put its
// id into a word of 0, and 0 into a word that holds nothing but its id. Everything else is the
// kernel's, so processes that always call it and those that do not can share a lock. The kernel may
// leave bits of its own beside the owner's id; ids are compared without them.
//
// A word with the id of a thread that does not exist belongs to a dead process. Whoever finds it
// replaces exactly that word; of two that try only one does, and nobody wipes the other's lock.

#include "tarn_os.h"
#include "tarn_shmx_internal.h"

#include <algorithm>
#include <cerrno>

namespace tarn
{
namespace
{

constexpr uint32_t kernel_waiters_bit = 0x80000000;
constexpr int again_tries = 5;

/** ThreadSanitizer does not see what the kernel does to a word: an access that orders like it. */
void order_as_kernel(uint32_t *word, std::memory_order order)
{
#if defined(__SANITIZE_THREAD__)
    (void)std::atomic_ref(*word).fetch_or(0, order);
#else
    (void)word;
    (void)order;
#endif
}

/** Empty a lock word that was seen with a dead owner. A failed try may have added the waiters bit.
 *  */
void clear_dead_owner(uint32_t *word, uint32_t seen)
{
    const uint32_t dead = seen & lock_owner_mask;
    uint32_t expected = shmx_load(*word);
    while (dead != 0 && (expected & lock_owner_mask) == dead)
    {
        if (std::atomic_ref(*word).compare_exchange_weak(expected, 0))
        {
            return;
        }
    }
}

/** The kernel's way, with one more try after a dead owner, and a few when the kernel asks for it.
 *  */
int take_from_kernel(uint32_t *word, uint32_t limit_ms)
{
    bool took_over = false;
    int error = EAGAIN;
    for (int i = 0; i < again_tries && error == EAGAIN; ++i)
    {
        const uint32_t seen = shmx_load(*word);
        error = shmx_futex_lock(word, limit_ms);
        if (error == ESRCH && !took_over)
        {
            clear_dead_owner(word, seen);
            took_over = true;
            error = shmx_take_free_word(word) ? 0 : shmx_futex_lock(word, limit_ms);
        }
        if (limit_ms == 0)
        {
            break; // EAGAIN is the answer
        }
    }
    if (error == 0)
    {
        order_as_kernel(word, std::memory_order_acquire);
    }
    return error;
}

static_assert((kernel_waiters_bit & lock_owner_mask) == 0);

} // namespace

int shmx_lock_held_word(uint32_t *word, uint32_t limit_ms)
{
    const int error = take_from_kernel(word, limit_ms);
    if (error != 0 && error != EAGAIN)
    {
        TARN_LOG_ERROR("futex_call FUTEX_LOCK_PI failed, errno = [%d](%s)", error,
                       error_text(error).c_str());
    }
    return error;
}

int shmx_try_lock(uint32_t *word)
{
    if (shmx_take_free_word(word))
    {
        return 0;
    }
    const int error = take_from_kernel(word, 0);
    if (error != 0 && error != EAGAIN)
    {
        TARN_LOG_ERROR("futex_call FUTEX_TRYLOCK_PI failed, errno = [%d](%s)", error,
                       error_text(error).c_str());
    }
    return error;
}

bool shmx_unlock_wanted_word(uint32_t *word)
{
    order_as_kernel(word, std::memory_order_release);
    const int error = shmx_futex_unlock(word);
    if (error != 0)
    {
        TARN_LOG_ERROR("futex_call FUTEX_UNLOCK_PI failed, errno = [%d](%s)", error,
                       error_text(error).c_str());
    }
    return error == 0;
}

} // namespace tarn
