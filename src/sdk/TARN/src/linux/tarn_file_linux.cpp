// What the file module needs of the kernel.

#include "tarn_file_port.h"

#include "tarn.h"
#include "tarn_os.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

// The kernel moves at most 2 GiB per call.
constexpr size_t max_transfer = size_t{1} << 30;

/** Open without blocking, then let reads and writes block as usual. */
int open_then_block(const char *path, int flags)
{
    tarn::unique_fd fd(tarn::retry_eintr(
        [&] { return ::open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, 0666); }));
    if (!fd || ::fcntl(fd.get(), F_SETFL, flags & O_ACCMODE) != 0)
    {
        return -1;
    }
    return fd.release();
}

} // namespace

namespace tarn
{

int file_open_read(const char *path)
{
    return open_then_block(path, O_RDONLY);
}

int file_open_write(const char *path)
{
    return open_then_block(path, O_WRONLY | O_CREAT | O_TRUNC);
}

std::FILE *file_open_tmp()
{
    std::FILE *const stream = std::tmpfile();
    if (stream != nullptr)
    {
        (void)::fcntl(::fileno(stream), F_SETFD, FD_CLOEXEC); // tmpfile() itself does not
    }
    return stream;
}

uint64_t file_size_hint(int fd)
{
    struct stat status
    {
    };
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode)
               ? static_cast<uint64_t>(status.st_size)
               : 0;
}

int64_t file_read_some(int fd, void *buf, size_t n)
{
    return retry_eintr([&] { return ::read(fd, buf, std::min(n, max_transfer)); });
}

bool file_write_all(int fd, const void *buf, size_t n)
{
    const auto *at = static_cast<const char *>(buf);
    while (n != 0)
    {
        const ssize_t done =
            retry_eintr([&] { return ::write(fd, at, std::min(n, max_transfer)); });
        if (done <= 0)
        {
            return false;
        }
        at += done;
        n -= static_cast<size_t>(done);
    }
    return true;
}

bool file_close_written(int fd)
{
    const cancel_guard no_cancel;
    // Some file systems tell of a full disk only here. EINTR: the descriptor is gone all the same.
    return ::close(fd) == 0 || errno == EINTR;
}

int file_stat(const char *path, uint64_t *size_bytes)
{
    struct stat status
    {
    };
    const int rc = ::stat(path, &status);
    if (rc == 0)
    {
        *size_bytes = static_cast<uint64_t>(status.st_size);
    }
    return rc;
}

int file_access(const char *path, int mode)
{
    return ::access(path, mode);
}

void file_sync_all()
{
    ::sync();
}

int file_watch_open(const char *path)
{
    unique_fd fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!fd)
    {
        const int error = errno;
        TARN_LOG_ERROR("inotify_init1 failed, error = %d (%s)", error, error_text(error).c_str());
        return -1;
    }
    if (::inotify_add_watch(fd.get(), path, IN_MODIFY) < 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("inotify_add_watch(%s) failed, error = %d (%s)", path, error,
                       error_text(error).c_str());
        return -1;
    }
    return fd.release();
}

bool file_watch_drain(int fd)
{
    // A busy writer adds events while they are taken, so there is a bound.
    constexpr int max_pieces = 256;
    alignas(inotify_event) char events[4096];
    int pieces = 0;
    while (pieces < max_pieces &&
           retry_eintr([&] { return ::read(fd, events, sizeof events); }) > 0)
    {
        ++pieces;
    }
    return pieces != 0;
}

} // namespace tarn
