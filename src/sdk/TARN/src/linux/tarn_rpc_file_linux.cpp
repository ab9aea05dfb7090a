// What file transfer needs of the kernel.

#include "tarn_rpc_file_port.h"

#include "tarn_os.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarn
{

bool rpc_file_regular_size(int fd, uint64_t *size)
{
    struct stat status
    {
    };
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))
    {
        return false;
    }
    *size = static_cast<uint64_t>(status.st_size);
    return true;
}

int rpc_file_open_destination(const char *path)
{
    // Without O_NONBLOCK the open of a pipe would wait for its other end.
    unique_fd fd(retry_eintr([&] {
        return ::open(path,
                      O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                      0666);
    }));
    if (!fd)
    {
        return -1;
    }
    uint64_t size = 0;
    if (!rpc_file_regular_size(fd.get(), &size))
    {
        errno = EINVAL;
        return -1;
    }
    if (retry_eintr([&] { return ::flock(fd.get(), LOCK_EX | LOCK_NB); }) != 0)
    {
        return -1;
    }
    return fd.release();
}

int rpc_file_keep_lock(int fd)
{
    return ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

int rpc_file_truncate(int fd, uint64_t size)
{
    return retry_eintr([&] { return ::ftruncate(fd, static_cast<off_t>(size)); });
}

int64_t rpc_file_read_at(int fd, void *buf, size_t n, uint64_t position)
{
    size_t done = 0;
    while (done < n)
    {
        const ssize_t got = retry_eintr([&] {
            return ::pread(fd, static_cast<char *>(buf) + done, n - done,
                           static_cast<off_t>(position + done));
        });
        if (got < 0)
        {
            return -1;
        }
        if (got == 0)
        {
            break;
        }
        done += static_cast<size_t>(got);
    }
    return static_cast<int64_t>(done);
}

uint64_t rpc_random_token()
{
    uint64_t token = 0;
    const auto got = retry_eintr([&] { return ::getrandom(&token, sizeof token, 0); });
    return got == static_cast<ssize_t>(sizeof token) ? token : 0;
}

} // namespace tarn
