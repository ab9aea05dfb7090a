// Private: system locks in shared memory objects behind a tag; for tarn_mutex.cpp and
// tarn_rwlock.cpp.
//
// The tag is the last thing a creator writes: who sees it sees an initialised lock. A stale object
// is replaced by the creation, so there is never an old tag in front of a lock that is being made.
#ifndef TARN_NAMED_LOCK_INTERNAL_H
#define TARN_NAMED_LOCK_INTERNAL_H

#include "tarn_raii.h"
#include "tarn_shm.h"

#include <atomic>
#include <cstdint>
#include <cstring>

namespace tarn
{

/** What stands in the shared object. */
template <typename System>
struct tagged_lock
{
    uint64_t tag; ///< eight ASCII bytes
    System system;
};

/** The tag as the number that its bytes make in memory. */
inline uint64_t lock_tag(const char (&text)[9])
{
    uint64_t tag = 0;
    std::memcpy(&tag, text, sizeof tag);
    return tag;
}

inline void destroy_shm(TARN_SHM shm)
{
    (void)tarn_shm_destroy(shm);
}
using shm_owner = unique_handle<TARN_SHM, destroy_shm>;

/** A new shared object for a lock.
 *  @return null after a log line */
template <typename Layout>
Layout *create_lock_memory(const char *object_name, shm_owner *shm)
{
    shm->reset(tarn_shm_create(object_name, sizeof(Layout)));
    if (!*shm)
    {
        TARN_LOG_ERROR("cannot create share memory object %s", object_name);
        return nullptr;
    }
    auto *layout = static_cast<Layout *>(tarn_shm_buffer(shm->get()));
    if (layout == nullptr)
    {
        TARN_LOG_ERROR("cannot get share memory buffer of %s", object_name);
        return nullptr;
    }
    std::atomic_ref(layout->tag).store(0, std::memory_order_relaxed);
    return layout;
}

template <typename Layout>
void publish_lock(Layout *layout, uint64_t tag)
{
    std::atomic_ref(layout->tag).store(tag, std::memory_order_release);
}

/** The shared object of an existing lock.
 *  @return null after a log line */
template <typename Layout>
Layout *open_lock_memory(const char *object_name, uint64_t tag, shm_owner *shm)
{
    shm->reset(tarn_shm_open(object_name));
    if (!*shm)
    {
        TARN_LOG_ERROR("fail to open share memory object %s", object_name);
        return nullptr;
    }
    if (tarn_shm_size(shm->get()) != sizeof(Layout))
    {
        TARN_LOG_ERROR("mismatch size on share memory object %s", object_name);
        return nullptr;
    }
    auto *layout = static_cast<Layout *>(tarn_shm_buffer(shm->get()));
    if (layout == nullptr)
    {
        TARN_LOG_ERROR("fail to get buffer of share memory object %s", object_name);
        return nullptr;
    }
    if (std::atomic_ref(layout->tag).load(std::memory_order_acquire) != tag)
    {
        TARN_LOG_ERROR("tag mismatch on share memory object %s", object_name);
        return nullptr;
    }
    return layout;
}

/** True when snprintf's result says that the whole object name is there. */
inline bool is_whole_name(int printed)
{
    return printed > 0 && printed < TARN_NAME_MAX;
}

} // namespace tarn

#endif
