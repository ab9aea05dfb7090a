// Serial ports: modem lines, breaks, and the wait for events.

#include "tarn_serial_internal.h"

#include "tarn_sys.h"
#include "tarn_thread.h"

#include <cerrno>

#include <poll.h>
#include <sys/ioctl.h>

namespace
{

/** Kernel's bits of the modem lines, by modem control bit number. */
constexpr int line_bits[] = {0, TIOCM_DSR, TIOCM_DTR, TIOCM_RTS, TIOCM_CTS, TIOCM_CAR, TIOCM_RNG};

constexpr int select_ms = 1000;
constexpr uint32_t pause_ms = 5;

constexpr uint32_t line_events = TARN_SERIAL_EVENT_LINE | TARN_SERIAL_EVENT_LINE2 |
                                 TARN_SERIAL_EVENT_LINE3 | TARN_SERIAL_EVENT_LINE4;

/** Events that come from the descriptor, in the order in which they are waited for. */
struct ready_event
{
    uint32_t bits;
    short condition;
};
constexpr ready_event ready_events[] = {{TARN_SERIAL_EVENT_READ | TARN_SERIAL_EVENT_READ2, POLLIN},
                                        {TARN_SERIAL_EVENT_WRITE, POLLOUT},
                                        {TARN_SERIAL_EVENT_EXCEPTION, POLLPRI}};
constexpr uint32_t all_events = TARN_SERIAL_EVENT_READ | TARN_SERIAL_EVENT_READ2 |
                                TARN_SERIAL_EVENT_WRITE | TARN_SERIAL_EVENT_EXCEPTION | line_events;

/** Kernel's bit of a modem line; 0 for a number that is none. */
int line_bit(int32_t bit)
{
    return bit >= TARN_SERIAL_MCB_DSR && bit <= TARN_SERIAL_MCB_RI ? line_bits[bit] : 0;
}

int control(TARN_SERIAL port, unsigned long request, int *lines)
{
    return tarn::serial_os.ioctl(port->fd, request, lines);
}

bool set_break(TARN_SERIAL port, bool on)
{
    if (control(port, on ? TIOCSBRK : TIOCCBRK, nullptr) == -1)
    {
        TARN_LOG_TRACE("%s, get error = %d", on ? "SETBREAK" : "CLRBREAK", errno);
        return false;
    }
    return true;
}

/** One look for each event of the mask.
 *  @param found  receives the bits that are there
 *  @return false when the wait has to end */
bool look(TARN_SERIAL port, uint32_t mask, uint32_t *found)
{
    for (const ready_event &event : ready_events)
    {
        if ((mask & event.bits) == 0)
        {
            continue;
        }
        const int ready = tarn::serial_select(port->fd, event.condition, select_ms);
        if (ready < 0)
        {
            return false; // EINTR as well: the caller looks why a signal came
        }
        *found |= ready > 0 ? mask & event.bits : 0;
    }
    int lines = 0;
    if (control(port, TIOCMGET, &lines) == -1)
    {
        TARN_LOG_TRACE("TIOCMGET failed, error = %d", errno);
        return false;
    }
    *found |= mask & line_events; // the lines are not compared: deliberate
    return true;
}

} // namespace

namespace tarn
{

int serial_select(int fd, short wanted, int timeout_ms)
{
    if (fd < 0) // poll() would wait without it
    {
        errno = EBADF;
        return -1;
    }
    pollfd polled = {fd, wanted, 0};
    const int ready = ::poll(&polled, 1, timeout_ms);
    if (ready <= 0)
    {
        return ready;
    }
    if ((polled.revents & POLLNVAL) != 0)
    {
        errno = EBADF;
        return -1;
    }
    const int accepted = wanted | (wanted == POLLIN    ? POLLHUP | POLLERR
                                   : wanted == POLLOUT ? POLLERR
                                                       : 0);
    return (polled.revents & accepted) != 0 ? 1 : 0;
}

} // namespace tarn

bool tarn_serial_get_mcb(TARN_SERIAL port, int32_t bit)
{
    RVON(port, false);
    RVOZ(line_bit(bit), false);
    int lines = 0;
    if (control(port, TIOCMGET, &lines) == -1)
    {
        TARN_LOG_TRACE("bit = %d, error = %d", bit, errno);
        return false;
    }
    return (lines & line_bit(bit)) != 0;
}

bool tarn_serial_set_mcb(TARN_SERIAL port, int32_t bit, bool on)
{
    RVON(port, false);
    if (bit == TARN_SERIAL_MCB_BREAK)
    {
        return set_break(port, on);
    }
    RVOZ(line_bit(bit), false);
    int lines = 0;
    if (control(port, TIOCMGET, &lines) == -1)
    {
        TARN_LOG_TRACE("bit = %d, get error = %d", bit, errno);
        return false;
    }
    lines = on ? lines | line_bit(bit) : lines & ~line_bit(bit);
    if (control(port, TIOCMSET, &lines) == -1)
    {
        TARN_LOG_TRACE("bit = %d, set %d error = %d", bit, on, errno);
        return false;
    }
    return true;
}

bool tarn_serial_get_comm_mask(TARN_SERIAL port, uint32_t *event_mask)
{
    RVON(port, false);
    RVON(event_mask, false);
    *event_mask = port->event_mask;
    return true;
}

bool tarn_serial_set_comm_mask(TARN_SERIAL port, uint32_t event_mask)
{
    RVON(port, false);
    port->event_mask = event_mask;
    return true;
}

int tarn_serial_wait_comm_event(TARN_SERIAL port, uint32_t *event_mask)
{
    RVON(port, 0);
    RVON(event_mask, 0);
    const uint32_t mask = port->event_mask & all_events; // without any the wait would never end
    uint32_t found = 0;
    while (mask != 0 && look(port, mask, &found) && found == 0 && !tarn_thread_sleep(0))
    {
        tarn_sleep_ms(pause_ms);
    }
    if (found == 0)
    {
        return 0;
    }
    *event_mask = found;
    return 1;
}
