// Serial ports: the lock that keeps every other opener away from a device.

#include "tarn_serial_internal.h"

#include "tarn_lock_file_internal.h"
#include "tarn_str.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/file.h>

namespace
{

constexpr char directory[] = "/tmp/";
constexpr size_t path_size = sizeof "/tmp/tarn_serial" + tarn::serial_name_max;

/** "/tmp/tarn_serial_dev_ttyS0" of "/dev/ttyS0". */
void make_path(char (&path)[path_size], const char *node)
{
    (void)tarn_str_printf(path, path_size, "/tmp/tarn_serial%s", node);
    std::replace(path + sizeof directory - 1, path + std::strlen(path), '/', '_');
}

} // namespace

namespace tarn
{

unique_fd serial_lock(const char *node, const char *port)
{
    char path[path_size];
    make_path(path, node);
    unique_fd fd = open_lock_file(path);
    if (!fd)
    {
        TARN_LOG_ERROR("fail to open file %s, error = %d", path, errno);
        return fd;
    }
    // Held by the open file itself: a second open of the same process is refused as well.
    if (retry_eintr([&] { return ::flock(fd.get(), LOCK_EX | LOCK_NB); }) == 0)
    {
        return fd;
    }
    if (const int error = errno; error == EAGAIN)
    {
        TARN_LOG_WARN("serial port %s has been opened!", port);
    }
    else
    {
        TARN_LOG_ERROR("flock return errno = %d with name %s", error, path);
    }
    return unique_fd();
}

void serial_unlock(int fd)
{
    if (fd >= 0)
    {
        // The close alone would leave the lock to a child that is between its fork and its exec.
        (void)::flock(fd, LOCK_UN);
    }
    close_fd(fd);
}

} // namespace tarn
