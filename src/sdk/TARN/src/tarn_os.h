// Private: owners and helpers round system calls; for the sources in linux/ and for portable ones
// that hold descriptors.
#ifndef TARN_OS_H
#define TARN_OS_H

#include <cerrno>
#include <utility>

namespace tarn
{

/** Keeps errno over its scope. */
class [[nodiscard]] errno_keeper
{
public:
    errno_keeper() noexcept : saved_(errno) {}
    errno_keeper(const errno_keeper &) = delete;
    errno_keeper &operator=(const errno_keeper &) = delete;
    ~errno_keeper()
    {
        errno = saved_;
    }

private:
    int saved_;
};

/** Keeps the calling thread from being cancelled inside its scope. */
class [[nodiscard]] cancel_guard
{
public:
    cancel_guard() noexcept;
    cancel_guard(const cancel_guard &) = delete;
    cancel_guard &operator=(const cancel_guard &) = delete;
    ~cancel_guard();

private:
    int old_state_;
};

/** Close a descriptor; -1 is ignored. Keeps errno and is no cancellation point. */
void close_fd(int fd) noexcept;

/** Owns a descriptor. */
class [[nodiscard]] unique_fd
{
public:
    unique_fd() = default;
    explicit unique_fd(int fd) noexcept : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd()
    {
        close_fd(fd_);
    }
    [[nodiscard]] int get() const noexcept
    {
        return fd_;
    }
    [[nodiscard]] int release() noexcept
    {
        return std::exchange(fd_, -1);
    }
    void reset(int fd = -1) noexcept
    {
        close_fd(std::exchange(fd_, fd));
    }
    explicit operator bool() const noexcept
    {
        return fd_ >= 0;
    }

private:
    int fd_ = -1;
};

/** True when no thread of a process is left, also while its parent has not collected it; false when
 *  that cannot be told. The id of any of its threads will do. Keeps errno. */
bool process_is_gone(int process_id) noexcept;

/** Duplicate a descriptor, close-on-exec; empty on failure, with errno set. */
unique_fd duplicate_fd(int fd) noexcept;

/** Repeat a system call that returns -1 on failure while a signal handler interrupts it. */
template <typename Call>
auto retry_eintr(Call call)
{
    auto result = call();
    while (result == -1 && errno == EINTR)
    {
        result = call();
    }
    return result;
}

/** Text of an error number, as an argument of a log line: TARN_LOG_ERROR("... (%s)",
 *  error_text(errno).c_str()). Any thread; no shared buffer. */
class error_text
{
public:
    explicit error_text(int error_number) noexcept;
    error_text(const error_text &) = delete;
    error_text &operator=(const error_text &) = delete;
    [[nodiscard]] const char *c_str() const noexcept
    {
        return text_;
    }

private:
    const char *text_;
    char buffer_[64];
};

} // namespace tarn

#endif
