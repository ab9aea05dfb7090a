// Settings of serial ports, read back from the device.

#include "support_serial.h"

// The kernel's record, which the C library does not declare; the request numbers hold its size.
struct termios2
{
    uint32_t c_iflag, c_oflag, c_cflag, c_lflag;
    uint8_t c_line, c_cc[19];
    uint32_t c_ispeed, c_ospeed;
};

using support::expect_check;
using support::log_capture;
using support::serial_owner;
using support::serial_pty;

namespace
{

constexpr uint32_t custom_speed = 0010000; // BOTHER

constexpr std::pair<uint32_t, speed_t> table[] = {
    {0, B0},         {50, B50},       {75, B75},         {110, B110},      {134, B134},
    {150, B150},     {200, B200},     {300, B300},       {600, B600},      {1200, B1200},
    {1800, B1800},   {2400, B2400},   {4800, B4800},     {9600, B9600},    {19200, B19200},
    {38400, B38400}, {57600, B57600}, {115200, B115200}, {230400, B230400}};

termios2 read_back(TARN_SERIAL port)
{
    termios2 t{};
    EXPECT_EQ(::ioctl(port->fd, TCGETS2, &t), 0);
    return t;
}

/** The device runs at this rate in both directions; code is its constant in the flags. */
void expect_rate(TARN_SERIAL port, uint32_t baudrate, uint32_t code)
{
    const termios2 t = read_back(port);
    EXPECT_EQ(t.c_cflag & CBAUD, code) << baudrate;
    EXPECT_EQ(t.c_ospeed, baudrate);
    EXPECT_EQ(t.c_ispeed, baudrate);
}

/** Called when the settings of a pseudo terminal are written: it takes them and says so. */
int accepting_tcsetattr(int fd, int when, const termios *settings) noexcept
{
    (void)::tcsetattr(fd, when, settings);
    return 0;
}

class SerialSettings : public testing::Test
{
    support::layer layer_;
};

TEST_F(SerialSettings, OpeningMakesARawPort)
{
    const serial_pty pty;
    log_capture log;
    const serial_owner port = pty.open();
    ASSERT_TRUE(port);
    const termios2 t = read_back(port.get());
    EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0u);
    EXPECT_EQ(t.c_oflag & OPOST, 0u);
    EXPECT_EQ(t.c_iflag & (IXON | ICRNL | ISTRIP | INPCK), 0u);
    EXPECT_EQ(t.c_iflag & IGNPAR, unsigned{IGNPAR});
    EXPECT_EQ(t.c_cflag & (CREAD | CLOCAL | CRTSCTS), unsigned{CREAD | CLOCAL});
    EXPECT_EQ(t.c_cc[VMIN], 1);
    EXPECT_EQ(t.c_cc[VTIME], 0);
    EXPECT_TRUE(log.contains("port = " + pty.slave_name() + ", file_node == " + pty.slave_name() +
                             ", baudrate = 9600, byte = 8, stop = 1, parity = 0"));
    for (const char *const stage : {"0", "1", "2"})
    {
        EXPECT_TRUE(log.contains("trace", "tcgetattr(" + std::string(stage) + ") c_iflag = "));
    }
}

TEST_F(SerialSettings, EveryTableRateIsSetAtTheOpeningAndLater)
{
    const serial_pty pty;
    for (const auto &[baudrate, code] : table)
    {
        const serial_owner port = pty.open(baudrate);
        ASSERT_TRUE(port) << baudrate;
        EXPECT_EQ(read_back(port.get()).c_cflag & CBAUD, code) << baudrate;
    }
    const serial_owner port = pty.open(1200);
    for (const auto &[baudrate, code] : table)
    {
        if (baudrate != 0) // the speed fields keep the last real rate
        {
            EXPECT_EQ(tarn_serial_set_baudrate(port.get(), baudrate), 0);
            expect_rate(port.get(), baudrate, code);
        }
    }
}

TEST_F(SerialSettings, CustomRateOfTheOpeningReturnsAfterEverySetter)
{
    const support::serial_seam seam;
    tarn::serial_os.tcsetattr = accepting_tcsetattr;
    const serial_pty pty;
    log_capture log;
    for (const uint32_t baudrate : {250000u, 12345u, 9601u})
    {
        const serial_owner port = pty.open(baudrate);
        ASSERT_TRUE(port);
        expect_rate(port.get(), baudrate, custom_speed);
        EXPECT_TRUE(log.contains("baudrate = " + std::to_string(baudrate)));
        for (const uint32_t other : {115200u, 0u, 500000u})
        {
            EXPECT_EQ(tarn_serial_set_baudrate(port.get(), other), 0);
            expect_rate(port.get(), baudrate, custom_speed);
        }
        for (const auto set :
             {tarn_serial_set_bytesize, tarn_serial_set_stopbits, tarn_serial_set_parity})
        {
            EXPECT_EQ(tarn_serial_set_baudrate(port.get(), 9600), 0);
            log.clear();
            EXPECT_EQ(set(port.get(), 2), 0);
            expect_rate(port.get(), baudrate, custom_speed);
            EXPECT_EQ(log.count(", baudrate = " + std::to_string(baudrate)), 1u);
        }
    }
}

TEST_F(SerialSettings, CustomRateReplacesBothRatesAndNothingElse)
{
    const support::serial_seam seam;
    static termios2 held;
    held = {};
    held.c_cflag = CS7 | B9600 | B300 << 16; // 300 for input
    tarn::serial_os.ioctl = [](int, unsigned long request, void *settings) {
        auto *const given = static_cast<termios2 *>(settings);
        (request == TCSETS2 ? held : *given) = request == TCSETS2 ? *given : held;
        return 0;
    };
    EXPECT_EQ(tarn::set_custom_baudrate(0, 12345), 0);
    EXPECT_EQ(held.c_cflag, CS7 | custom_speed);
    EXPECT_EQ(held.c_ispeed, 12345u);
    EXPECT_EQ(held.c_ospeed, 12345u);
}

TEST_F(SerialSettings, CustomRateOnAPortOpenedAtATableRateStaysUntilTheNext)
{
    const serial_pty pty;
    const serial_owner port = pty.open(9600);
    EXPECT_EQ(tarn_serial_set_baudrate(port.get(), 250000), 0);
    expect_rate(port.get(), 250000, custom_speed);
    EXPECT_EQ(tarn_serial_set_stopbits(port.get(), 2), 0);
    expect_rate(port.get(), 250000, custom_speed);
    EXPECT_EQ(tarn_serial_set_baudrate(port.get(), 115200), 0);
    expect_rate(port.get(), 115200, B115200);
    EXPECT_NE(read_back(port.get()).c_cflag & CSTOPB, 0u);
    EXPECT_EQ(tarn_serial_set_stopbits(port.get(), 3), 0);
    EXPECT_EQ(read_back(port.get()).c_cflag & CSTOPB, 0u);
}

TEST_F(SerialSettings, EverySizeAndParityReachesTheDevice)
{
    const support::line_device device;
    TARN_SERIAL const port = device.port();
    for (const auto &[bytesize, flag] : std::initializer_list<std::pair<int, int>>{
             {5, CS5}, {6, CS6}, {7, CS7}, {8, CS8}, {9, CS8}})
    {
        EXPECT_EQ(tarn_serial_set_bytesize(port, bytesize), 0);
        EXPECT_EQ(device.settings().c_cflag & CSIZE, unsigned(flag)) << bytesize;
    }
    for (const auto &[stopbits, flag] :
         std::initializer_list<std::pair<int, int>>{{2, CSTOPB}, {1, 0}, {2, CSTOPB}, {0, 0}})
    {
        EXPECT_EQ(tarn_serial_set_stopbits(port, stopbits), 0);
        EXPECT_EQ(device.settings().c_cflag & CSTOPB, unsigned(flag)) << stopbits;
    }
    constexpr unsigned mask = PARENB | PARODD | CMSPAR;
    for (const auto &[parity, flags] :
         std::initializer_list<std::pair<int, unsigned>>{{1, PARENB | PARODD},
                                                         {2, PARENB},
                                                         {3, mask},
                                                         {4, PARENB | CMSPAR},
                                                         {1, PARENB | PARODD}})
    {
        EXPECT_EQ(tarn_serial_set_parity(port, parity), 0);
        EXPECT_EQ(device.settings().c_cflag & mask, flags) << parity;
        EXPECT_EQ(device.settings().c_iflag & (IGNPAR | INPCK), 0u) << parity;
    }
    for (const int none : {0, 5, -1})
    {
        EXPECT_EQ(tarn_serial_set_parity(port, 2), 0);
        support::kept.settings.c_iflag |= INPCK;
        EXPECT_EQ(tarn_serial_set_parity(port, none), 0);
        EXPECT_EQ(device.settings().c_cflag & PARENB, 0u) << none;
        EXPECT_EQ(device.settings().c_iflag & (IGNPAR | INPCK), unsigned{IGNPAR}) << none;
    }
    if (device.is_kept())
    {
        EXPECT_EQ(support::kept.when, TCSADRAIN) << "pending output goes out first";
    }
}

TEST_F(SerialSettings, OpeningReplacesWhatTheDeviceHad)
{
    const support::line_device device(false);
    support::kept.settings.c_cflag = CRTSCTS | CSTOPB | CS5 | PARENB | B300 << 16; // for input
    support::kept.settings.c_iflag = INPCK | IXON | ICRNL;
    EXPECT_TRUE(tarn::serial_configure(device.port(), 7, 1, TARN_SERIAL_PARITY_MARK));
    EXPECT_EQ(support::kept.settings.c_cflag & ~unsigned{CBAUD},
              unsigned{CS7 | PARENB | PARODD | CMSPAR | CREAD | CLOCAL});
    EXPECT_EQ(support::kept.settings.c_iflag, 0u);
    EXPECT_EQ(support::kept.when, TCSANOW);

    const serial_pty pty;
    const serial_owner port(
        tarn_serial_open(pty.slave_name().c_str(), 19200, 6, 2, TARN_SERIAL_PARITY_SPACE));
    EXPECT_EQ(support::kept.settings.c_cflag & (CSIZE | CSTOPB | PARENB | PARODD | CMSPAR | CBAUD),
              unsigned{CS6 | CSTOPB | PARENB | CMSPAR | B19200});
}

TEST_F(SerialSettings, DeviceThatRefusesItsSettingsIsLeftClosedAndUnlocked)
{
    const support::serial_seam seam;
    const serial_pty pty;
    const size_t descriptors = support::open_descriptors();
    log_capture log;
    tarn::serial_os.tcgetattr = [](int, termios *) { return -1; };
    EXPECT_FALSE(pty.open());
    EXPECT_TRUE(log.contains("error", "fail to get attr on port " + pty.slave_name()));
    tarn::serial_os = seam.kept;
    tarn::serial_os.tcsetattr = [](int, int, const termios *) { return -1; };
    EXPECT_FALSE(pty.open());
    EXPECT_TRUE(log.contains("error", "fail to set attr"));
    tarn::serial_os = seam.kept;
    tarn::serial_os.ioctl = [](int, unsigned long, void *) { return -1; };
    EXPECT_FALSE(pty.open(250000));
    EXPECT_EQ(support::open_descriptors(), descriptors);
    EXPECT_TRUE(pty.open()) << "a table rate does without that call";
}

TEST_F(SerialSettings, FailuresTellReadingFromWriting)
{
    const support::serial_seam seam;
    const serial_pty pty;
    const serial_owner port = pty.open(250000);
    log_capture log;
    tarn::serial_os.ioctl = [](int fd, unsigned long request, void *argument) {
        errno = EPERM;
        return request == TCSETS2 ? -1 : ::ioctl(fd, request, argument);
    };
    EXPECT_EQ(tarn::set_custom_baudrate(port.get()->fd, 5), -2);
    EXPECT_TRUE(log.contains("error", "ioctl(TCSETS2) failed, error = 1"));
    EXPECT_EQ(tarn_serial_set_stopbits(port.get(), 2), -2); // the rate does not come back
    tarn::serial_os = seam.kept;

    tarn::serial_os.tcsetattr = [](int, int, const termios *) {
        static int interrupted = 0;
        errno = interrupted++ == 0 ? EINTR : EINVAL;
        return -1;
    };
    for (const auto set :
         {tarn_serial_set_bytesize, tarn_serial_set_stopbits, tarn_serial_set_parity})
    {
        EXPECT_EQ(set(port.get(), 1), -2);
    }
    EXPECT_EQ(tarn_serial_set_baudrate(port.get(), 300), -2);
    EXPECT_EQ(log.count("fail to set attr"), 4u);

    const int fd = std::exchange(port.get()->fd, -1);
    EXPECT_EQ(tarn_serial_set_baudrate(port.get(), 300), -1);
    EXPECT_TRUE(log.contains("error", "fail to get attr on port " + pty.slave_name()));
    EXPECT_EQ(tarn::set_custom_baudrate(-1, 5), -1);
    EXPECT_TRUE(log.contains("error", "ioctl(TCGETS2) failed, error = 9"));
    port.get()->fd = fd;

    expect_check("RVON(port,TARN_ERRLN)");
    EXPECT_LT(tarn_serial_set_baudrate(nullptr, 9600), 0);
    EXPECT_LT(tarn_serial_set_bytesize(nullptr, 8), 0);
    EXPECT_LT(tarn_serial_set_stopbits(nullptr, 1), 0);
    EXPECT_LT(tarn_serial_set_parity(nullptr, 0), 0);
}

} // namespace
