// The system time as a shared resource of tests: setting it is felt by every process.
#pragma once

#include <ctime>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace support
{

/** Keeps other tests that hold it from setting the system time, in other processes too. It is a
 *  lock on a directory that is always there, so nothing is left behind. */
class clock_lock
{
public:
    clock_lock() : fd_(::open("/etc", O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        ::flock(fd_, LOCK_EX);
    }
    clock_lock(const clock_lock &) = delete;
    clock_lock &operator=(const clock_lock &) = delete;
    ~clock_lock()
    {
        ::close(fd_);
    }

private:
    int fd_;
};

/** Sets the system time to what it is, which counts as a change all the same.
 *  @return false without the privilege to do that */
inline bool set_clock_to_itself()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return ::clock_settime(CLOCK_REALTIME, &now) == 0;
}

} // namespace support
