// Serial ports: settings as termios holds them.
//
// What a value means is decided in functions on a record alone; what goes to the device goes through
// change() or serial_configure(). A custom rate is not part of the record that the C library knows:
// it is set behind it.

#include "tarn_serial_internal.h"

#include <algorithm>
#include <cerrno>

#include <termios.h>

namespace
{

struct rate
{
    uint32_t baudrate;
    speed_t speed;
};

constexpr rate standard_rates[] = {
    {0, B0},         {50, B50},       {75, B75},         {110, B110},      {134, B134},
    {150, B150},     {200, B200},     {300, B300},       {600, B600},      {1200, B1200},
    {1800, B1800},   {2400, B2400},   {4800, B4800},     {9600, B9600},    {19200, B19200},
    {38400, B38400}, {57600, B57600}, {115200, B115200}, {230400, B230400}};

/** Null for a custom rate. */
const rate *find_standard(uint32_t baudrate)
{
    const auto *const found =
        std::find_if(std::begin(standard_rates), std::end(standard_rates),
                     [baudrate](const rate &standard) { return standard.baudrate == baudrate; });
    return found != std::end(standard_rates) ? found : nullptr;
}

void set_flag(tcflag_t &flags, tcflag_t flag, bool on)
{
    flags = on ? flags | flag : flags & ~flag;
}

void log_attributes(int stage, const termios &t)
{
    TARN_LOG_TRACE(
        "tcgetattr(%d) c_iflag = %x, c_oflag = %x, c_cflag = %x, c_lflag = %x, c_line = %x, c_ispeed = %u, c_ospeed = %u",
        stage, t.c_iflag, t.c_oflag, t.c_cflag, t.c_lflag, t.c_line, t.c_ispeed, t.c_ospeed);
}

bool read_settings(TARN_SERIAL port, termios *t)
{
    if (tarn::serial_os.tcgetattr(port->fd, t) != 0)
    {
        TARN_LOG_ERROR("fail to get attr on port %s", port->port);
        return false;
    }
    return true;
}

bool write_settings(TARN_SERIAL port, int when, const termios &t)
{
    if (tarn::retry_eintr([&] { return tarn::serial_os.tcsetattr(port->fd, when, &t); }) != 0)
    {
        TARN_LOG_ERROR("fail to set attr");
        return false;
    }
    return true;
}

/** Set a rate behind the settings, unless it is a standard one and so among them. */
bool set_if_custom(TARN_SERIAL port, uint32_t baudrate)
{
    return tarn::serial_is_standard_rate(baudrate) ||
           tarn::set_custom_baudrate(port->fd, baudrate) == 0;
}

/** Change what edit(termios) changes; pending output is sent with the old settings first.
 *  @param baudrate  set behind them when it is a custom rate; 0 is none
 *  @return 0; -1 when the settings cannot be read; -2 when they cannot be written */
template <typename Edit>
int change(TARN_SERIAL port, Edit edit, uint32_t baudrate = 0)
{
    termios t{};
    if (!read_settings(port, &t))
    {
        return -1;
    }
    edit(&t);
    // The rate recorded at the opening, when custom, comes back with every change.
    const bool written = write_settings(port, TCSADRAIN, t) && set_if_custom(port, baudrate) &&
                         set_if_custom(port, port->baudrate);
    return written ? 0 : -2;
}

} // namespace

namespace tarn
{

bool serial_is_standard_rate(uint32_t baudrate)
{
    return find_standard(baudrate) != nullptr;
}

void serial_apply_baudrate(termios *settings, uint32_t baudrate)
{
    if (const rate *const standard = find_standard(baudrate); standard != nullptr)
    {
        settings->c_cflag &= ~static_cast<tcflag_t>(CIBAUD); // no rate of the input's own
        (void)::cfsetispeed(settings, standard->speed);
        (void)::cfsetospeed(settings, standard->speed);
    }
}

void serial_apply_bytesize(termios *settings, int32_t bytesize)
{
    settings->c_cflag &= ~static_cast<tcflag_t>(CSIZE);
    settings->c_cflag |= bytesize == 5 ? CS5 : bytesize == 6 ? CS6 : bytesize == 7 ? CS7 : CS8;
}

void serial_apply_stopbits(termios *settings, int32_t stopbits)
{
    set_flag(settings->c_cflag, CSTOPB, stopbits == 2);
}

void serial_apply_parity(termios *settings, int32_t parity)
{
    const bool stick = parity == TARN_SERIAL_PARITY_MARK || parity == TARN_SERIAL_PARITY_SPACE;
    const bool odd = parity == TARN_SERIAL_PARITY_ODD || parity == TARN_SERIAL_PARITY_MARK;
    const bool any = odd || stick || parity == TARN_SERIAL_PARITY_EVEN;
    set_flag(settings->c_cflag, PARENB, any);
    set_flag(settings->c_iflag, IGNPAR, !any);
    settings->c_iflag &= ~static_cast<tcflag_t>(INPCK); // input parity is never checked: deliberate
    if (any)
    {
        set_flag(settings->c_cflag, PARODD, odd);
        set_flag(settings->c_cflag, CMSPAR, stick);
    }
}

bool serial_configure(TARN_SERIAL port, int32_t bytesize, int32_t stopbits, int32_t parity)
{
    termios t{};
    if (!read_settings(port, &t))
    {
        return false;
    }
    log_attributes(0, t);
    ::cfmakeraw(&t);
    log_attributes(1, t);
    serial_apply_parity(&t, parity);
    serial_apply_baudrate(&t, port->baudrate);
    serial_apply_bytesize(&t, bytesize);
    t.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
    serial_apply_stopbits(&t, stopbits);
    t.c_cflag |= CREAD | CLOCAL;
    t.c_cc[VMIN] = 1;
    t.c_cc[VTIME] = 0;
    log_attributes(2, t);
    return write_settings(port, TCSANOW, t) && set_if_custom(port, port->baudrate);
}

} // namespace tarn

int tarn_serial_set_baudrate(TARN_SERIAL port, uint32_t baudrate)
{
    RVON(port, TARN_ERRLN);
    return change(
        port, [baudrate](termios *t) { tarn::serial_apply_baudrate(t, baudrate); }, baudrate);
}

int tarn_serial_set_bytesize(TARN_SERIAL port, int32_t bytesize)
{
    RVON(port, TARN_ERRLN);
    return change(port, [bytesize](termios *t) { tarn::serial_apply_bytesize(t, bytesize); });
}

int tarn_serial_set_stopbits(TARN_SERIAL port, int32_t stopbits)
{
    RVON(port, TARN_ERRLN);
    return change(port, [stopbits](termios *t) { tarn::serial_apply_stopbits(t, stopbits); });
}

int tarn_serial_set_parity(TARN_SERIAL port, int32_t parity)
{
    RVON(port, TARN_ERRLN);
    return change(port, [parity](termios *t) { tarn::serial_apply_parity(t, parity); });
}
