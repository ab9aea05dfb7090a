// Serial ports: rates that have no constant of their own, through the kernel's termios2.
//
// Its header declares a struct termios other than the C library's, so no other include here may
// bring that in.

#include "tarn_serial_internal.h"

#include <cerrno>

#include <asm/termbits.h>
#include <sys/ioctl.h>

namespace tarn
{

int set_custom_baudrate(int fd, uint32_t baudrate)
{
    TARN_LOG_TRACE("fd = %d, baudrate = %u", fd, baudrate);
    termios2 settings{};
    if (serial_os.ioctl(fd, TCGETS2, &settings) == -1)
    {
        TARN_LOG_ERROR("ioctl(TCGETS2) failed, error = %d", errno);
        return -1;
    }
    // A rate of the input's own would win over c_ispeed.
    settings.c_cflag &= ~static_cast<tcflag_t>(CBAUD | CIBAUD);
    settings.c_cflag |= BOTHER;
    settings.c_ispeed = baudrate;
    settings.c_ospeed = baudrate;
    if (serial_os.ioctl(fd, TCSETS2, &settings) == -1)
    {
        TARN_LOG_ERROR("ioctl(TCSETS2) failed, error = %d", errno);
        return -2;
    }
    return 0;
}

} // namespace tarn
