/** @file
 *  C++: the bases of all views and owners, callables on the heap, views of bytes. Part of tarn.hpp,
 *  which says what holds for all of it. */
#ifndef TARN_CXX_OWNER_HPP
#define TARN_CXX_OWNER_HPP

#include "tarn.h"

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>

#include <pthread.h>

namespace tarn
{
/** The interface's own version: part of every symbol, so that programs compiled against different
 *  editions of this header can be linked together. */
inline namespace v1
{

/** Frees a block of tarn_mem_alloc(). */
struct mem_free
{
    void operator()(void *block) const noexcept
    {
        tarn_mem_free(block);
    }
};
/** Owner of what a C function hands out for tarn_mem_free(): mem_ptr<char> text(tarn_str_dup(s)). */
template <typename T>
using mem_ptr = std::unique_ptr<T, mem_free>;

namespace detail
{

/** Keeps the calling thread from being cancelled: unwinding must not begin inside a destructor. */
class no_cancel
{
public:
    no_cancel() noexcept
    {
        (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_);
    }
    no_cancel(const no_cancel &) = delete;
    no_cancel &operator=(const no_cancel &) = delete;
    ~no_cancel()
    {
        (void)pthread_setcancelstate(old_, nullptr);
    }

private:
    int old_ = 0;
};

/** A callable on the heap; drop destroys it. */
struct callable
{
    void (*drop)(callable *);
};

template <typename F>
struct callable_of : callable
{
    F call;
};

/** Move a callable to the heap; null when memory ran out. What its own constructor throws is the
 *  caller's. */
template <typename F>
callable_of<F> *make_callable(F f)
{
    static_assert(alignof(callable_of<F>) <= alignof(std::max_align_t));
    mem_ptr<void> memory(tarn_mem_alloc(sizeof(callable_of<F>)));
    if (!memory)
    {
        return nullptr;
    }
    const auto drop = [](callable *base) {
        auto *const self = static_cast<callable_of<F> *>(base);
        self->~callable_of<F>();
        tarn_mem_free(self);
    };
    auto *const made = ::new (memory.get()) callable_of<F>{{drop}, std::move(f)};
    (void)memory.release();
    return made;
}

/** Marks that the calling thread is inside a callable, for as long as the object lives. An owner
 *  that is closed from in there leaves the callable to this object. */
class running_call
{
public:
    explicit running_call(callable *running) noexcept : running_(running), outer_(innermost_)
    {
        innermost_ = this;
    }
    running_call(const running_call &) = delete;
    running_call &operator=(const running_call &) = delete;
    ~running_call()
    {
        innermost_ = outer_;
        if (orphaned_)
        {
            running_->drop(running_);
        }
    }
    /** True when the owner has gone meanwhile. */
    [[nodiscard]] bool orphaned() const noexcept
    {
        return orphaned_;
    }
    /** Leave a callable to the calling thread's call of it, if there is one. */
    static bool adopt(const callable *c) noexcept
    {
        running_call *outermost = nullptr;
        for (running_call *call = innermost_; call != nullptr; call = call->outer_)
        {
            outermost = call->running_ == c ? call : outermost;
        }
        if (outermost != nullptr)
        {
            outermost->orphaned_ = true;
        }
        return outermost != nullptr;
    }

private:
    inline static thread_local running_call *innermost_ = nullptr;
    callable *running_;
    running_call *outer_;
    bool orphaned_ = false;
};

/** Call f; what it returns, or fallback if it returns nothing. */
template <typename R, typename F>
R call_or(R fallback, F &&f)
{
    if constexpr (std::is_void_v<std::invoke_result_t<F>>)
    {
        f();
        return fallback;
    }
    else
    {
        return static_cast<R>(f());
    }
}

/** A callable that is borrowed for one call of the C interface, as its argument, and back. */
template <typename F>
void *borrow(F &f)
{
    return const_cast<void *>(static_cast<const void *>(std::addressof(f)));
}
template <typename F>
std::remove_reference_t<F> &borrowed(void *arg)
{
    return *static_cast<std::remove_reference_t<F> *>(arg);
}

template <typename C>
using element_of = std::remove_pointer_t<decltype(std::data(std::declval<C &>()))>;
template <typename C, typename = void>
inline constexpr bool is_contiguous = false;
template <typename C>
inline constexpr bool
    is_contiguous<C, std::void_t<element_of<C>, decltype(std::size(std::declval<C &>()))>> =
        std::is_trivially_copyable_v<element_of<C>>;

} // namespace detail

/** Bytes that are read: from a pointer and a size, a text (without its NUL), or anything that
 *  std::data() and std::size() work for, std::span and std::vector among them. */
class const_bytes
{
public:
    constexpr const_bytes(const void *data, size_t size) noexcept : data_(data), size_(size) {}
    constexpr const_bytes(std::string_view text) noexcept : const_bytes(text.data(), text.size()) {}
    constexpr const_bytes(const char *text) noexcept : const_bytes(std::string_view(text)) {}
    template <typename C, typename = std::enable_if_t<detail::is_contiguous<const C> &&
                                                      !std::is_convertible_v<C &, const char *>>>
    constexpr const_bytes(const C &c) noexcept
        : const_bytes(std::data(c), std::size(c) * sizeof(*std::data(c)))
    {
    }
    [[nodiscard]] constexpr const void *data() const noexcept
    {
        return data_;
    }
    [[nodiscard]] constexpr size_t size() const noexcept
    {
        return size_;
    }
    /** The size where the interface counts in 32 bits; what is beyond is left out. */
    [[nodiscard]] constexpr uint32_t size32() const noexcept
    {
        return size_ > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(size_);
    }

private:
    const void *data_;
    size_t size_;
};

/** Bytes that are written, from the same. A char array counts with its whole size. */
class bytes
{
public:
    constexpr bytes(void *data, size_t size) noexcept : data_(data), size_(size) {}
    template <typename C, typename = std::enable_if_t<detail::is_contiguous<C> &&
                                                      !std::is_const_v<detail::element_of<C>>>>
    constexpr bytes(C &&c) noexcept : bytes(std::data(c), std::size(c) * sizeof(*std::data(c)))
    {
    }
    [[nodiscard]] constexpr void *data() const noexcept
    {
        return data_;
    }
    [[nodiscard]] constexpr size_t size() const noexcept
    {
        return size_;
    }
    [[nodiscard]] constexpr uint32_t size32() const noexcept
    {
        return const_bytes(data_, size_).size32();
    }

private:
    void *data_;
    size_t size_;
};

/** Base of all views: a handle that somebody else closes. */
template <typename Handle>
class handle_ref
{
public:
    using handle_type = Handle;
    constexpr handle_ref() noexcept = default;
    constexpr handle_ref(Handle handle) noexcept : handle_(handle) {}
    [[nodiscard]] constexpr Handle get() const noexcept
    {
        return handle_;
    }
    constexpr explicit operator bool() const noexcept
    {
        return handle_ != nullptr;
    }

protected:
    Handle handle_ = nullptr;
};

/** Base of all owners: a view whose handle goes with it. */
template <typename Ref, auto Destroy>
class [[nodiscard]] owner : public Ref
{
public:
    using handle_type = typename Ref::handle_type;
    constexpr owner() noexcept = default;
    /** Take a handle over. */
    constexpr explicit owner(handle_type handle) noexcept : Ref(handle) {}
    owner(owner &&other) noexcept : Ref(other.release()) {}
    owner &operator=(owner &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~owner()
    {
        reset();
    }
    /** Hand the handle out, unclosed; the owner is empty then. */
    [[nodiscard]] handle_type release() noexcept
    {
        return std::exchange(this->handle_, nullptr);
    }
    /** Close the handle, and own another one. */
    void reset(handle_type handle = nullptr) noexcept
    {
        if (handle_type old = std::exchange(this->handle_, handle); old != nullptr)
        {
            const detail::no_cancel guard;
            (void)Destroy(old);
        }
    }
};

/** Base of the owners that keep a callable beside the handle. */
template <typename Ref, auto Destroy>
class [[nodiscard]] callback_owner : public Ref
{
public:
    using handle_type = typename Ref::handle_type;
    constexpr callback_owner() noexcept = default;
    /** Take a handle over, whose callback is not of this header. */
    constexpr explicit callback_owner(handle_type handle) noexcept : Ref(handle) {}
    callback_owner(callback_owner &&other) noexcept
        : Ref(std::exchange(other.handle_, nullptr)),
          callable_(std::exchange(other.callable_, nullptr))
    {
    }
    callback_owner &operator=(callback_owner &&other) noexcept
    {
        if (this != &other)
        {
            reset();
            this->handle_ = std::exchange(other.handle_, nullptr);
            callable_ = std::exchange(other.callable_, nullptr);
        }
        return *this;
    }
    ~callback_owner()
    {
        reset();
    }
    /** Hand the handle out, unclosed. Its callable stays for the rest of the process: for a thread
     *  or timer that is not meant to end before. */
    [[nodiscard]] handle_type release() noexcept
    {
        callable_ = nullptr;
        return std::exchange(this->handle_, nullptr);
    }
    /** Close. From another thread: waits for a call that runs, as the C function does, and then
     *  destroys the callable. From inside the callable: returns at once, this call is the last one,
     *  and the callable is destroyed when it has returned. */
    void reset() noexcept
    {
        detail::callable *const callable = std::exchange(callable_, nullptr);
        const bool inside = callable != nullptr && detail::running_call::adopt(callable);
        if (handle_type old = std::exchange(this->handle_, nullptr); old != nullptr)
        {
            const detail::no_cancel guard;
            (void)Destroy(old);
        }
        if (callable != nullptr && !inside)
        {
            callable->drop(callable);
        }
    }

protected:
    /** Own what create(callable) makes of the callable; empty when either fails. */
    template <typename F, typename Create>
    callback_owner(F f, Create create)
    {
        if (auto *const callable = detail::make_callable(std::move(f)); callable != nullptr)
        {
            this->handle_ = create(callable);
            if (this->handle_ == nullptr)
            {
                callable->drop(callable);
                return;
            }
            callable_ = callable;
        }
    }

private:
    detail::callable *callable_ = nullptr;
};

/** tarn_init() and tarn_uninit(). The first member of a daemon's main; false when a module failed to
 *  start. Not movable: the layer is one per process. */
class [[nodiscard]] layer
{
public:
    layer() noexcept : started_(tarn_init()) {}
    layer(const layer &) = delete;
    layer &operator=(const layer &) = delete;
    ~layer()
    {
        if (started_)
        {
            tarn_uninit();
        }
    }
    explicit operator bool() const noexcept
    {
        return started_;
    }

private:
    bool started_;
};

} // namespace v1
} // namespace tarn

#endif
