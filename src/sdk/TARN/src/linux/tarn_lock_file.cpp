// Lock files in directories that every user may write to.

#include "tarn_lock_file_internal.h"

#include "tarn_text.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

/** A file that nobody slipped in: regular, and with no second name. */
bool is_plain_file(int fd)
{
    struct stat status
    {
    };
    return ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1;
}

/** Open the file, or create it with mode 0666 whatever the umask. Links are not followed: the
 *  directory is open to every user. */
tarn::unique_fd open_or_create(const char *path)
{
    constexpr int flags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    tarn::unique_fd fd(tarn::retry_eintr([path] { return ::open(path, flags); }));
    if (!fd && errno == ENOENT)
    {
        fd.reset(
            tarn::retry_eintr([path] { return ::open(path, flags | O_CREAT | O_EXCL, 0666); }));
        if (fd)
        {
            (void)::fchmod(fd.get(), 0666);
        }
        else if (errno == EEXIST) // another process was faster
        {
            fd.reset(tarn::retry_eintr([path] { return ::open(path, flags); }));
        }
    }
    if (fd && !is_plain_file(fd.get()))
    {
        fd.reset();
        errno = EINVAL;
    }
    return fd;
}

/** Take over a lock file that another user left: owner and mode are changed through a descriptor
 *  of the very file, never by its path. */
void take_over(const char *path)
{
    const tarn::unique_fd place(
        tarn::retry_eintr([path] { return ::open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC); }));
    if (!place || !is_plain_file(place.get()))
    {
        return;
    }
    char by_descriptor[32];
    tarn::text_writer(by_descriptor, sizeof by_descriptor)
        .append("/proc/self/fd/")
        .append_int(place.get());
    [[maybe_unused]] const int owned =
        ::fchownat(place.get(), "", ::geteuid(), ::getegid(), AT_EMPTY_PATH);
    (void)::chmod(by_descriptor, 0666);
}

} // namespace

namespace tarn
{

unique_fd open_lock_file(const char *path)
{
    unique_fd fd = open_or_create(path);
    if (!fd && errno == EACCES)
    {
        take_over(path);
        fd = open_or_create(path);
    }
    if (fd && fd.get() <= STDERR_FILENO) // the process was started without standard streams
    {
        fd.reset(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
    return fd;
}

} // namespace tarn
