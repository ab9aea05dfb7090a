// Owners and helpers round system calls.

#include "tarn_os.h"

#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

namespace tarn
{

cancel_guard::cancel_guard() noexcept : old_state_(0)
{
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old_state_);
}

cancel_guard::~cancel_guard()
{
    (void)pthread_setcancelstate(old_state_, nullptr);
}

void close_fd(int fd) noexcept
{
    if (fd >= 0)
    {
        const errno_keeper keep_errno;
        const cancel_guard no_cancel;
        // Not repeated after EINTR: Linux has released the descriptor by then.
        (void)::close(fd);
    }
}

unique_fd duplicate_fd(int fd) noexcept
{
    return unique_fd(::fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

error_text::error_text(int error_number) noexcept : buffer_{}
{
    const errno_keeper keep_errno;
    text_ = strerror_r(error_number, buffer_, sizeof buffer_);
}

bool process_is_gone(int process_id) noexcept
{
    const errno_keeper keep_errno;
    const cancel_guard no_cancel;
    const unique_fd fd(static_cast<int>(::syscall(SYS_pidfd_open, process_id, 0)));
    if (fd)
    {
        pollfd ended = {fd.get(), POLLIN, 0};
        return ::poll(&ended, 1, 0) == 1; // readable once its last thread has ended
    }
    if (errno == ESRCH)
    {
        return true;
    }
    // An older kernel, no descriptor left, or the id of another thread than the first.
    return ::kill(process_id, 0) != 0 && errno == ESRCH;
}

} // namespace tarn
