// Private: small owners for clean-up and locks; for the layer's own sources.
//
// All are move-only or immovable and nodiscard. Destructors run when a cancelled thread is unwound
// as well, so none of them is skipped there.
#ifndef TARN_RAII_H
#define TARN_RAII_H

#include "tarn.h"
#include "tarn_critical_section.h"

#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

// Thread-safety annotations, checked when the sources are compiled with clang -Wthread-safety.
#if defined(__clang__)
#define TARN_ANNOTATE(x) __attribute__((x))
#else
#define TARN_ANNOTATE(x)
#endif
#define TARN_CAPABILITY(name) TARN_ANNOTATE(capability(name))
#define TARN_SCOPED_CAPABILITY TARN_ANNOTATE(scoped_lockable)
#define TARN_GUARDED_BY(lock) TARN_ANNOTATE(guarded_by(lock))
#define TARN_REQUIRES(...) TARN_ANNOTATE(requires_capability(__VA_ARGS__))
#define TARN_ACQUIRE(...) TARN_ANNOTATE(acquire_capability(__VA_ARGS__))
#define TARN_RELEASE(...) TARN_ANNOTATE(release_capability(__VA_ARGS__))

namespace tarn
{

/** Runs a callable at the end of the scope unless dismissed. */
template <typename F>
class [[nodiscard]] scope_exit
{
public:
    explicit scope_exit(F action) : action_(std::move(action)) {}
    scope_exit(const scope_exit &) = delete;
    scope_exit &operator=(const scope_exit &) = delete;
    ~scope_exit()
    {
        if (armed_)
        {
            action_();
        }
    }
    void dismiss() noexcept
    {
        armed_ = false;
    }

private:
    F action_;
    bool armed_ = true;
};

/** Owns one block of tarn_mem_alloc(). */
template <typename T>
class [[nodiscard]] unique_mem
{
public:
    unique_mem() = default;
    explicit unique_mem(void *block) noexcept : block_(static_cast<T *>(block)) {}
    unique_mem(unique_mem &&other) noexcept : block_(other.release()) {}
    unique_mem &operator=(unique_mem &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_mem()
    {
        tarn_mem_free(block_);
    }
    /** A zero-filled object of type T; empty when memory ran out. */
    static unique_mem make()
    {
        return unique_mem(tarn_mem_alloc(sizeof(T)));
    }
    /** A zero-filled array; empty when memory ran out. */
    static unique_mem make_array(size_t count)
    {
        size_t bytes = 0;
        return __builtin_mul_overflow(count, sizeof(T), &bytes) ? unique_mem()
                                                                : unique_mem(tarn_mem_alloc(bytes));
    }
    [[nodiscard]] T *get() const noexcept
    {
        return block_;
    }
    [[nodiscard]] T *release() noexcept
    {
        return std::exchange(block_, nullptr);
    }
    void reset(T *block = nullptr) noexcept
    {
        tarn_mem_free(std::exchange(block_, block));
    }
    T *operator->() const noexcept
    {
        return block_;
    }
    T &operator*() const noexcept
    {
        return *block_;
    }
    explicit operator bool() const noexcept
    {
        return block_ != nullptr;
    }

private:
    T *block_ = nullptr;
};

/** Owns one handle; Destroy is the destroy, close or stop function of its kind. */
template <typename Handle, void (*Destroy)(Handle)>
class [[nodiscard]] unique_handle
{
public:
    unique_handle() = default;
    explicit unique_handle(Handle handle) noexcept : handle_(handle) {}
    unique_handle(unique_handle &&other) noexcept : handle_(other.release()) {}
    unique_handle &operator=(unique_handle &&other)
    {
        reset(other.release());
        return *this;
    }
    ~unique_handle()
    {
        reset();
    }
    [[nodiscard]] Handle get() const noexcept
    {
        return handle_;
    }
    [[nodiscard]] Handle release() noexcept
    {
        return std::exchange(handle_, nullptr);
    }
    void reset(Handle handle = nullptr)
    {
        if (Handle old = std::exchange(handle_, handle); old != nullptr)
        {
            Destroy(old);
        }
    }
    explicit operator bool() const noexcept
    {
        return handle_ != nullptr;
    }

private:
    Handle handle_ = nullptr;
};

/** A plain lock for static data and records that live as long as the process: needs no creation,
 *  is never destroyed, so it works before tarn_init() and after tarn_uninit(). Not recursive. */
class TARN_CAPABILITY("mutex") static_mutex
{
public:
    constexpr static_mutex() = default;
    static_mutex(const static_mutex &) = delete;
    static_mutex &operator=(const static_mutex &) = delete;
    void lock() TARN_ACQUIRE()
    {
        mutex_.lock();
    }
    void unlock() TARN_RELEASE()
    {
        mutex_.unlock();
    }

private:
    std::mutex mutex_;
};

/** An object of static storage that is never destroyed, because threads may use it while main() and
 *  the functions behind it return. */
template <typename T>
class immortal
{
public:
    immortal()
    {
        ::new (storage_) T();
    }
    immortal(const immortal &) = delete;
    immortal &operator=(const immortal &) = delete;
    [[nodiscard]] T &get() noexcept
    {
        return *std::launder(reinterpret_cast<T *>(storage_));
    }

private:
    alignas(T) unsigned char storage_[sizeof(T)];
};

/** Holds a static_mutex for its scope. */
class [[nodiscard]] TARN_SCOPED_CAPABILITY lock_guard
{
public:
    explicit lock_guard(static_mutex &mutex) TARN_ACQUIRE(mutex) : mutex_(mutex)
    {
        mutex_.lock();
    }
    lock_guard(const lock_guard &) = delete;
    lock_guard &operator=(const lock_guard &) = delete;
    ~lock_guard() TARN_RELEASE()
    {
        mutex_.unlock();
    }

private:
    static_mutex &mutex_;
};

/** Holds a critical section for its scope; a null one counts as no lock. */
class [[nodiscard]] critical_section_guard
{
public:
    explicit critical_section_guard(TARN_CRITICAL_SECTION cs) : cs_(cs)
    {
        tarn_critical_section_enter(cs_);
    }
    critical_section_guard(const critical_section_guard &) = delete;
    critical_section_guard &operator=(const critical_section_guard &) = delete;
    ~critical_section_guard()
    {
        tarn_critical_section_leave(cs_);
    }

private:
    TARN_CRITICAL_SECTION cs_;
};

/** Allocate a zero-filled object record and write its handle header. */
template <typename Record>
unique_mem<Record> make_object(uint16_t type)
{
    static_assert(sizeof(Record) <= UINT16_MAX, "the header holds the size in 16 bits");
    auto object = unique_mem<Record>::make();
    if (object)
    {
        object->header = {static_cast<uint16_t>(sizeof(Record)), type};
    }
    return object;
}

} // namespace tarn

/** What every object record has to be; stands behind its definition. */
#define TARN_ASSERT_RECORD(Record)                                                                 \
    static_assert(std::is_standard_layout_v<Record> && std::is_trivially_destructible_v<Record>);  \
    static_assert(offsetof(Record, header) == 0)

#endif
