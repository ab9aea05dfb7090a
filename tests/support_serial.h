// A port for tests that need what a pseudo terminal lacks: byte sizes, parity, modem lines, breaks.
//
// That is a serial device of the machine that answers for its modem lines and is nobody's console;
// where there is none, a pseudo terminal whose settings and lines are kept here, behind the calls
// that the module makes.
#pragma once

#include "support.h"

#include "tarn_serial_internal.h"

#include <cerrno>
#include <fstream>
#include <utility>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace support
{

using serial_owner = tarn::unique_handle<TARN_SERIAL, tarn_serial_close>;

/** Lock file of a device. */
inline std::string serial_lock_path(std::string node)
{
    for (char &c : node)
    {
        c = c == '/' ? '_' : c;
    }
    return "/tmp/tarn_serial" + node;
}

/** A pseudo terminal to open as a port; takes its lock file away while nobody else can have that
 *  terminal's number. */
struct serial_pty : pty_pair
{
    serial_pty() = default;
    serial_pty(const serial_pty &) = delete;
    serial_pty &operator=(const serial_pty &) = delete;
    ~serial_pty()
    {
        ::unlink(serial_lock_path(slave_name()).c_str());
    }
    /** Close the master, but keep the terminal's number from going to another process. */
    void disappear()
    {
        number.reset(::open(slave_name().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        close_master();
    }
    [[nodiscard]] serial_owner open(uint32_t baudrate = 9600) const
    {
        return serial_owner(tarn_serial_open(slave_name().c_str(), baudrate, 8, 1, 0));
    }
    tarn::unique_fd number;
};

/** Gives the module's system calls back at the end of the scope. */
struct serial_seam
{
    serial_seam() : kept(tarn::serial_os) {}
    serial_seam(const serial_seam &) = delete;
    serial_seam &operator=(const serial_seam &) = delete;
    ~serial_seam()
    {
        tarn::serial_os = kept;
    }
    tarn::serial_system kept;
};

/** The device that answers where there is no real one. */
struct kept_device
{
    termios settings;
    int when;
    int lines;
    bool in_break;
    unsigned long failing; ///< request that fails with EIO
};
inline kept_device kept;
inline std::atomic<int> looks_at_lines{0};

inline int kept_ioctl(int, unsigned long request, void *argument)
{
    if (request == kept.failing)
    {
        errno = EIO;
        return -1;
    }
    switch (request)
    {
    case TIOCMGET:
        ++looks_at_lines;
        *static_cast<int *>(argument) = kept.lines;
        return 0;
    case TIOCMSET:
        kept.lines = *static_cast<int *>(argument);
        return 0;
    case TIOCSBRK:
    case TIOCCBRK:
        kept.in_break = request == TIOCSBRK;
        return 0;
    default:
        errno = ENOTTY;
        return -1;
    }
}

inline int kept_tcgetattr(int, termios *settings) noexcept
{
    *settings = kept.settings;
    return 0;
}

inline int kept_tcsetattr(int fd, int when, const termios *settings) noexcept
{
    (void)::tcsetattr(fd, when, settings); // raw mode counts for the pseudo terminal, too
    kept.settings = *settings;
    kept.when = when;
    return 0;
}

/** A real device to test with; empty when the machine has none. */
inline std::string find_real_port()
{
    std::string consoles;
    std::getline(std::ifstream("/proc/consoles"), consoles, '\0');
    for (int i = 0; i < 32; ++i)
    {
        const std::string name = "ttyS" + std::to_string(i);
        const std::string path = "/dev/" + name;
        const tarn::unique_fd fd(::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        int lines = 0;
        if (consoles.find(name + " ") == std::string::npos && fd &&
            ::ioctl(fd.get(), TIOCMGET, &lines) == 0)
        {
            return path;
        }
    }
    return {};
}

class line_device
{
public:
    explicit line_device(bool may_be_real = true)
    {
        if (const std::string real = may_be_real ? find_real_port() : ""; !real.empty())
        {
            before_.reset(::open(real.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
            (void)::tcgetattr(before_.get(), &settings_before_);
            port_ = serial_owner(tarn_serial_open(real.c_str(), 9600, 8, 1, 0));
        }
        if (is_kept_ = !port_; is_kept_)
        {
            kept = {};
            tarn::serial_os.ioctl = kept_ioctl;
            tarn::serial_os.tcgetattr = kept_tcgetattr;
            tarn::serial_os.tcsetattr = kept_tcsetattr;
            port_ = pty_.open();
        }
        EXPECT_TRUE(port_);
    }
    line_device(const line_device &) = delete;
    line_device &operator=(const line_device &) = delete;
    ~line_device()
    {
        if (!is_kept_)
        {
            (void)::tcsetattr(before_.get(), TCSANOW, &settings_before_);
        }
    }
    [[nodiscard]] TARN_SERIAL port() const
    {
        return port_.get();
    }
    [[nodiscard]] int master() const
    {
        return pty_.master();
    }
    /** Only where it is no real one. */
    void disappear()
    {
        pty_.disappear();
    }
    [[nodiscard]] bool is_kept() const
    {
        return is_kept_;
    }
    [[nodiscard]] termios settings() const
    {
        termios t{};
        EXPECT_EQ(tarn::serial_os.tcgetattr(port()->fd, &t), 0);
        return t;
    }
    [[nodiscard]] int lines() const
    {
        int lines = 0;
        EXPECT_EQ(tarn::serial_os.ioctl(port()->fd, TIOCMGET, &lines), 0);
        return lines;
    }

private:
    serial_seam seam_;
    serial_pty pty_;
    tarn::unique_fd before_;
    termios settings_before_{};
    bool is_kept_;
    serial_owner port_;
};

} // namespace support
