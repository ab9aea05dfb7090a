// Owners and helpers round system calls.

#include "tarn_os.h"

#include <cstring>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

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

} // namespace tarn
