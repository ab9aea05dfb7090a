// Mutexes: POSIX mutexes on the heap, or process-shared in a shared memory object.
//
// The C library acts on the kind that stands inside the mutex: with a kind that another process
// wrote there it would follow links into anywhere. So the kind is looked at before each use, and
// only the kinds that are made here pass.

#include "tarn_mutex.h"

#include "tarn_check.h"
#include "tarn_modules.h"
#include "tarn_named_lock_internal.h"
#include "tarn_str.h"

#include <array>
#include <cerrno>

#include <pthread.h>
#include <unistd.h>

#define MUTEX_MEMORY_NAME_PATTERN "MUTEX_%s"

struct tarn_mutex
{
    tarn_handle_header header;
    TARN_SHM shm;            ///< null: unnamed
    pthread_mutex_t *system; ///< in the shared object, or a heap block of its own
};
TARN_ASSERT_RECORD(tarn_mutex);

namespace
{

using shared_mutex = tarn::tagged_lock<pthread_mutex_t>;
static_assert(offsetof(shared_mutex, tag) == 0 && offsetof(shared_mutex, system) == 8);
#if defined(__x86_64__) && defined(__LP64__)
static_assert(sizeof(shared_mutex) == 48);
#endif

constexpr char mutex_tag[] = "KELMUTEX";

/** Lock elision, which the C library may note in a mutex that it has locked. */
constexpr int elision_bits = 0x300;

class mutex_attributes
{
public:
    mutex_attributes() noexcept : error_(pthread_mutexattr_init(&attributes_)) {}
    mutex_attributes(const mutex_attributes &) = delete;
    mutex_attributes &operator=(const mutex_attributes &) = delete;
    ~mutex_attributes()
    {
        if (error_ == 0)
        {
            (void)pthread_mutexattr_destroy(&attributes_);
        }
    }
    [[nodiscard]] bool is_valid() const
    {
        return error_ == 0;
    }
    bool share(bool robust)
    {
        return pthread_mutexattr_setpshared(&attributes_, PTHREAD_PROCESS_SHARED) == 0 &&
               (!robust || pthread_mutexattr_setrobust(&attributes_, PTHREAD_MUTEX_ROBUST) == 0);
    }
    [[nodiscard]] const pthread_mutexattr_t *get() const
    {
        return &attributes_;
    }

private:
    pthread_mutexattr_t attributes_{};
    int error_;
};

/** The kind word of a mutex made with the module's attributes. */
int made_kind(bool robust)
{
    mutex_attributes attributes;
    pthread_mutex_t mutex{};
    (void)attributes.share(robust);
    (void)pthread_mutex_init(&mutex, attributes.get());
    const int kind = mutex.__data.__kind;
    (void)pthread_mutex_destroy(&mutex);
    return kind;
}

int kind_of(pthread_mutex_t *mutex)
{
    return std::atomic_ref(mutex->__data.__kind).load(std::memory_order_relaxed) & ~elision_bits;
}

/** True for a kind that tarn_mutex_create() makes; a destroyed mutex has none. */
bool has_known_kind(TARN_MUTEX m)
{
    if (m->shm == nullptr)
    {
        return true;
    }
    static const std::array<int, 2> known = {made_kind(false), made_kind(true)};
    const int kind = kind_of(m->system);
    return kind == known[0] || kind == known[1];
}

bool init_shared(pthread_mutex_t *system, bool robust, const char *name)
{
    mutex_attributes attributes;
    if (!attributes.is_valid())
    {
        TARN_LOG_ERROR("fail to initial mutex attr for mutex %s", name);
        return false;
    }
    if (!attributes.share(robust))
    {
        TARN_LOG_ERROR("fail to set share attr for mutex %s", name);
        return false;
    }
    if (pthread_mutex_init(system, attributes.get()) != 0)
    {
        TARN_LOG_ERROR("fail to initial mutex %s", name);
        return false;
    }
    return true;
}

bool make_object_name(const char *name, char *mutex_name)
{
    // clang-format off
    RVOF_TEXT(tarn_str_len(name) > 0, false, "RVOF(tarn_str_len( name ) > 0,TARN_INVALID_HANDLE)");
    RVOF_TEXT(tarn::is_whole_name(tarn_str_printf(mutex_name, TARN_NAME_MAX, MUTEX_MEMORY_NAME_PATTERN, name)), false, "RVOF(tarn_str_printf( mutex_name, TARN_NAME_MAX, MUTEX_MEMORY_NAME_PATTERN, name ) > 0,TARN_INVALID_HANDLE)");
    // clang-format on
    return true;
}

TARN_MUTEX create_unnamed()
{
    auto m = tarn::make_object<tarn_mutex>(TARN_HANDLE_TYPE_MUTEX);
    RVON(m, TARN_INVALID_HANDLE);
    auto system = tarn::unique_mem<pthread_mutex_t>::make();
    RVON(system, TARN_INVALID_HANDLE);
    (void)pthread_mutex_init(system.get(), nullptr);
    m->system = system.release();
    return m.release();
}

TARN_MUTEX create_named(const char *name, bool robust)
{
    char mutex_name[TARN_NAME_MAX];
    if (!make_object_name(name, mutex_name))
    {
        return TARN_INVALID_HANDLE;
    }
    auto m = tarn::make_object<tarn_mutex>(TARN_HANDLE_TYPE_MUTEX);
    RVON(m, TARN_INVALID_HANDLE);
    tarn::shm_owner shm;
    auto *shared = tarn::create_lock_memory<shared_mutex>(mutex_name, &shm);
    if (shared == nullptr || !init_shared(&shared->system, robust, name))
    {
        return TARN_INVALID_HANDLE;
    }
    tarn::publish_lock(shared, tarn::lock_tag(mutex_tag));
    m->system = &shared->system;
    m->shm = shm.release();
    return m.release();
}

/** A robust mutex must not leave this process's memory while the thread's list of locks holds it.
 *  */
void unlock_own_robust(TARN_MUTEX m)
{
    static const int robust_kind = made_kind(true);
    if (m->shm != nullptr && kind_of(m->system) == robust_kind &&
        std::atomic_ref(m->system->__data.__owner).load(std::memory_order_relaxed) == ::gettid())
    {
        (void)pthread_mutex_unlock(m->system);
    }
}

} // namespace

TARN_MUTEX tarn_mutex_create(uint32_t flags, const char *name)
{
    return name == nullptr ? create_unnamed()
                           : create_named(name, (flags & TARN_MUTEX_ROBUST) != 0);
}

TARN_MUTEX tarn_mutex_open(const char *name)
{
    RVON(name, TARN_INVALID_HANDLE);
    char mutex_name[TARN_NAME_MAX];
    if (!make_object_name(name, mutex_name))
    {
        return TARN_INVALID_HANDLE;
    }
    auto m = tarn::make_object<tarn_mutex>(TARN_HANDLE_TYPE_MUTEX);
    RVON(m, TARN_INVALID_HANDLE);
    tarn::shm_owner shm;
    auto *shared =
        tarn::open_lock_memory<shared_mutex>(mutex_name, tarn::lock_tag(mutex_tag), &shm);
    if (shared == nullptr)
    {
        return TARN_INVALID_HANDLE;
    }
    m->system = &shared->system;
    m->shm = shm.release();
    return m.release();
}

int tarn_mutex_lock(TARN_MUTEX m)
{
    RVON(m, -1);
    if (!has_known_kind(m))
    {
        return EINVAL;
    }
    const int rc = pthread_mutex_lock(m->system);
    if (rc != EOWNERDEAD)
    {
        return rc;
    }
    (void)pthread_mutex_consistent(m->system);
    TARN_LOG_WARN("mutex = %p, its holder has died, what it guards may be half done",
                  static_cast<void *>(m));
    return 0;
}

int tarn_mutex_unlock(TARN_MUTEX m)
{
    RVON(m, -1);
    return has_known_kind(m) ? pthread_mutex_unlock(m->system) : EINVAL;
}

void tarn_mutex_destroy(TARN_MUTEX m)
{
    if (m == nullptr)
    {
        return;
    }
    if (has_known_kind(m))
    {
        unlock_own_robust(m);
        // Deliberately also by a handle that opened it; a mutex that is held stays as it is.
        (void)pthread_mutex_destroy(m->system);
    }
    if (m->shm != nullptr)
    {
        (void)tarn_shm_destroy(m->shm);
    }
    else
    {
        tarn_mem_free(m->system);
    }
    tarn_mem_free(m);
}

bool tarn_mutex_init(void)
{
    return true;
}

void tarn_mutex_uninit(void) {}
