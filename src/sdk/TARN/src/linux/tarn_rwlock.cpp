// Read-write locks: POSIX ones on the heap, or process-shared in a shared memory object.
//
// A timed lock polls: the clocked calls of the C library give another error number than the one
// that the log line shows for a busy lock.

#include "tarn_rwlock.h"

#include "tarn_check.h"
#include "tarn_modules.h"
#include "tarn_named_lock_internal.h"
#include "tarn_os.h"
#include "tarn_str.h"
#include "tarn_sys.h"

#include <cerrno>

#include <pthread.h>

#define RWLOCK_MEMORY_NAME_PATTERN "RWLOCK_%s"

struct tarn_rwlock
{
    tarn_handle_header header;
    TARN_SHM shm;             ///< null: unnamed
    pthread_rwlock_t *system; ///< in the shared object, or a heap block of its own
};
TARN_ASSERT_RECORD(tarn_rwlock);

namespace
{

using shared_rwlock = tarn::tagged_lock<pthread_rwlock_t>;
static_assert(offsetof(shared_rwlock, tag) == 0 && offsetof(shared_rwlock, system) == 8);
#if defined(__x86_64__) && defined(__LP64__)
static_assert(sizeof(shared_rwlock) == 64);
#endif

constexpr char rwlock_tag[] = "TARNRWLK";

class rwlock_attributes
{
public:
    rwlock_attributes() noexcept : error_(pthread_rwlockattr_init(&attributes_)) {}
    rwlock_attributes(const rwlock_attributes &) = delete;
    rwlock_attributes &operator=(const rwlock_attributes &) = delete;
    ~rwlock_attributes()
    {
        if (error_ == 0)
        {
            (void)pthread_rwlockattr_destroy(&attributes_);
        }
    }
    [[nodiscard]] bool is_valid() const
    {
        return error_ == 0;
    }
    bool share()
    {
        return pthread_rwlockattr_setpshared(&attributes_, PTHREAD_PROCESS_SHARED) == 0;
    }
    [[nodiscard]] const pthread_rwlockattr_t *get() const
    {
        return &attributes_;
    }

private:
    pthread_rwlockattr_t attributes_{};
    int error_;
};

bool init_shared(pthread_rwlock_t *system, const char *name)
{
    rwlock_attributes attributes;
    if (!attributes.is_valid())
    {
        TARN_LOG_ERROR("fail to initial rwlock attr for rwlock %s", name);
        return false;
    }
    if (!attributes.share())
    {
        TARN_LOG_ERROR("fail to set share attr for rwlock %s", name);
        return false;
    }
    if (pthread_rwlock_init(system, attributes.get()) != 0)
    {
        TARN_LOG_ERROR("fail to initial rwlock %s", name);
        return false;
    }
    return true;
}

bool make_object_name(const char *name, char *rwlock_name)
{
    // clang-format off
    RVOF_TEXT(tarn_str_len(name) > 0, false, "RVOF(tarn_str_len( name ) > 0,TARN_INVALID_HANDLE)");
    RVOF_TEXT(tarn::is_whole_name(tarn_str_printf(rwlock_name, TARN_NAME_MAX, RWLOCK_MEMORY_NAME_PATTERN, name)), false, "RVOF(tarn_str_printf( rwlock_name, TARN_NAME_MAX, RWLOCK_MEMORY_NAME_PATTERN, name ) > 0,TARN_INVALID_HANDLE)");
    // clang-format on
    return true;
}

TARN_RWLOCK create_unnamed()
{
    auto rw = tarn::make_object<tarn_rwlock>(TARN_HANDLE_TYPE_RWLOCK);
    RVON(rw, TARN_INVALID_HANDLE);
    auto system = tarn::unique_mem<pthread_rwlock_t>::make();
    RVON(system, TARN_INVALID_HANDLE);
    (void)pthread_rwlock_init(system.get(), nullptr);
    rw->system = system.release();
    return rw.release();
}

TARN_RWLOCK create_named(const char *name)
{
    char rwlock_name[TARN_NAME_MAX];
    if (!make_object_name(name, rwlock_name))
    {
        return TARN_INVALID_HANDLE;
    }
    auto rw = tarn::make_object<tarn_rwlock>(TARN_HANDLE_TYPE_RWLOCK);
    RVON(rw, TARN_INVALID_HANDLE);
    tarn::shm_owner shm;
    auto *shared = tarn::create_lock_memory<shared_rwlock>(rwlock_name, &shm);
    if (shared == nullptr || !init_shared(&shared->system, name))
    {
        return TARN_INVALID_HANDLE;
    }
    tarn::publish_lock(shared, tarn::lock_tag(rwlock_tag));
    rw->system = &shared->system;
    rw->shm = shm.release();
    return rw.release();
}

using system_call = int (*)(pthread_rwlock_t *);

/** Result of the last try. */
int lock_within(pthread_rwlock_t *system, system_call lock, system_call try_lock, uint32_t ms)
{
    if (ms == TARN_INFINITE)
    {
        return lock(system);
    }
    const uint32_t start = tarn_tick_ms();
    int rc = try_lock(system);
    while (rc != 0 && ms != 0 && tarn_tick_ms_since(start) <= ms)
    {
        tarn_sleep_ms(1);
        rc = try_lock(system);
    }
    return rc;
}

/** @return 0, an errno number, or -1 for null */
int take(TARN_RWLOCK rw, system_call lock, system_call try_lock, uint32_t ms)
{
    if (rw == nullptr)
    {
        TARN_LOG_ERROR("invalid rwlock handle!");
        return -1;
    }
    return lock_within(rw->system, lock, try_lock, ms);
}

} // namespace

TARN_RWLOCK tarn_rwlock_create(uint32_t flags, const char *name)
{
    (void)flags;
    return name == nullptr ? create_unnamed() : create_named(name);
}

TARN_RWLOCK tarn_rwlock_open(const char *name)
{
    RVON(name, TARN_INVALID_HANDLE);
    char rwlock_name[TARN_NAME_MAX];
    if (!make_object_name(name, rwlock_name))
    {
        return TARN_INVALID_HANDLE;
    }
    auto rw = tarn::make_object<tarn_rwlock>(TARN_HANDLE_TYPE_RWLOCK);
    RVON(rw, TARN_INVALID_HANDLE);
    tarn::shm_owner shm;
    auto *shared =
        tarn::open_lock_memory<shared_rwlock>(rwlock_name, tarn::lock_tag(rwlock_tag), &shm);
    if (shared == nullptr)
    {
        return TARN_INVALID_HANDLE;
    }
    rw->system = &shared->system;
    rw->shm = shm.release();
    return rw.release();
}

bool tarn_rwlock_wrlock(TARN_RWLOCK rw, uint32_t ms)
{
    const int rc = take(rw, pthread_rwlock_wrlock, pthread_rwlock_trywrlock, ms);
    if (rc != 0)
    {
        TARN_LOG_WARN("rwlock = %p, rc = %d, error = %s", static_cast<void *>(rw), rc,
                      tarn::error_text(rc).c_str());
    }
    return rc == 0;
}

bool tarn_rwlock_rdlock(TARN_RWLOCK rw, uint32_t ms)
{
    const int rc = take(rw, pthread_rwlock_rdlock, pthread_rwlock_tryrdlock, ms);
    if (rc != 0)
    {
        // Deliberately quieter than for a writer.
        TARN_LOG_DEBUG("rwlock = %p, rc = %d, error = %s", static_cast<void *>(rw), rc,
                       tarn::error_text(rc).c_str());
    }
    return rc == 0;
}

void tarn_rwlock_unlock(TARN_RWLOCK rw)
{
    if (rw == nullptr)
    {
        TARN_LOG_ERROR("invalid rwlock handle!");
        return;
    }
    (void)pthread_rwlock_unlock(rw->system);
}

bool tarn_rwlock_wrlock_dbg(const char *file, int line, const char *func, TARN_RWLOCK rw,
                            uint32_t ms)
{
    void *const shown = rw;
    TARN_LOG_INFO("[%s:%d:%s] %p %u WWW-", file, line, func, shown, ms);
    const bool result = tarn_rwlock_wrlock(rw, ms);
    TARN_LOG_INFO("[%s:%d:%s] %p %u WWW=%d", file, line, func, shown, ms, result ? 1 : 0);
    return result;
}

bool tarn_rwlock_rdlock_dbg(const char *file, int line, const char *func, TARN_RWLOCK rw,
                            uint32_t ms)
{
    void *const shown = rw;
    TARN_LOG_INFO("[%s:%d:%s] %p %u RRR-", file, line, func, shown, ms);
    const bool result = tarn_rwlock_rdlock(rw, ms);
    TARN_LOG_INFO("[%s:%d:%s] %p %u RRR=%d", file, line, func, shown, ms, result ? 1 : 0);
    return result;
}

void tarn_rwlock_unlock_dbg(const char *file, int line, const char *func, TARN_RWLOCK rw)
{
    void *const shown = rw;
    TARN_LOG_INFO("[%s:%d:%s] %p UUU-", file, line, func, shown);
    tarn_rwlock_unlock(rw);
    TARN_LOG_INFO("[%s:%d:%s] %p UUU=", file, line, func, shown);
}

void tarn_rwlock_destroy(TARN_RWLOCK rw)
{
    if (rw == nullptr)
    {
        return;
    }
    // Deliberately also by a handle that opened it. The C library's call touches nothing that
    // waits.
    (void)pthread_rwlock_destroy(rw->system);
    if (rw->shm != nullptr)
    {
        (void)tarn_shm_destroy(rw->shm);
    }
    else
    {
        tarn_mem_free(rw->system);
    }
    tarn_mem_free(rw);
}

bool tarn_rwlock_init(void)
{
    return true;
}

void tarn_rwlock_uninit(void) {}
