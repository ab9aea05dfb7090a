// Modem lines and breaks of serial ports, and the wait for events.

#include "support_serial.h"

#include "tarn_thread.h"

#include <atomic>
#include <csignal>
#include <thread>

#include <pthread.h>

using support::expect_check;
using support::kept;
using support::line_device;
using support::log_capture;
using support::serial_owner;
using support::serial_pty;

namespace
{

constexpr std::pair<int, int> all_lines[] = {
    {TARN_SERIAL_MCB_DSR, TIOCM_DSR}, {TARN_SERIAL_MCB_DTR, TIOCM_DTR},
    {TARN_SERIAL_MCB_RTS, TIOCM_RTS}, {TARN_SERIAL_MCB_CTS, TIOCM_CTS},
    {TARN_SERIAL_MCB_CD, TIOCM_CAR},  {TARN_SERIAL_MCB_RI, TIOCM_RNG}};

class SerialEvent : public testing::Test
{
    support::layer layer_;
};

/** One wait with a mask.
 *  @return the bits reported; 0 when the wait ended without any */
uint32_t wait_for(TARN_SERIAL port, uint32_t mask)
{
    constexpr uint32_t untouched = 0xA5000000u;
    uint32_t found = untouched;
    EXPECT_TRUE(tarn_serial_set_comm_mask(port, mask));
    const int result = tarn_serial_wait_comm_event(port, &found);
    EXPECT_EQ(result, found == untouched ? 0 : 1);
    return result == 1 ? found : 0;
}

TEST_F(SerialEvent, LinesAreSetAndReadOneByOne)
{
    const line_device device;
    TARN_SERIAL const port = device.port();
    for (const auto &[bit, line] : all_lines)
    {
        const bool is_output = line == TIOCM_DTR || line == TIOCM_RTS;
        for (const bool on : {true, false, true})
        {
            const int others = device.lines() & (TIOCM_DTR | TIOCM_RTS) & ~line;
            EXPECT_TRUE(tarn_serial_set_mcb(port, bit, on));
            EXPECT_EQ(tarn_serial_get_mcb(port, bit), (device.lines() & line) != 0) << bit;
            EXPECT_EQ(device.lines() & (TIOCM_DTR | TIOCM_RTS) & ~line, others);
            if (is_output || device.is_kept())
            {
                EXPECT_EQ(tarn_serial_get_mcb(port, bit), on) << bit;
            }
        }
    }
    for (const bool on : {true, false})
    {
        EXPECT_TRUE(tarn_serial_set_mcb(port, TARN_SERIAL_MCB_BREAK, on));
        EXPECT_EQ(kept.in_break, on && device.is_kept());
    }
    expect_check("RVOZ(line_bit(bit),false)");
    for (const int bit : {0, -1, 8, INT32_MIN, INT32_MAX})
    {
        EXPECT_FALSE(tarn_serial_get_mcb(port, bit));
        EXPECT_FALSE(tarn_serial_set_mcb(port, bit, true));
    }
    EXPECT_FALSE(tarn_serial_get_mcb(port, TARN_SERIAL_MCB_BREAK));
}

TEST_F(SerialEvent, LineFailuresSayWhichCallFailed)
{
    const line_device device(false);
    log_capture log;
    kept.failing = TIOCMGET;
    EXPECT_FALSE(tarn_serial_get_mcb(device.port(), 5));
    EXPECT_TRUE(log.contains("trace", "bit = 5, error = 5"));
    EXPECT_FALSE(tarn_serial_set_mcb(device.port(), 3, true));
    EXPECT_TRUE(log.contains("trace", "bit = 3, get error = 5"));
    kept.failing = TIOCMSET;
    EXPECT_FALSE(tarn_serial_set_mcb(device.port(), 2, true));
    EXPECT_TRUE(log.contains("trace", "bit = 2, set 1 error = 5"));
    kept.failing = TIOCSBRK;
    EXPECT_FALSE(tarn_serial_set_mcb(device.port(), 7, true));
    EXPECT_TRUE(log.contains("trace", "SETBREAK, get error = 5"));
    kept.failing = TIOCCBRK;
    EXPECT_FALSE(tarn_serial_set_mcb(device.port(), 7, false));
    EXPECT_TRUE(log.contains("trace", "CLRBREAK, get error = 5"));
}

TEST_F(SerialEvent, WaitReportsWhatTheMaskAsksFor)
{
    const line_device device(false);
    TARN_SERIAL const port = device.port();
    ASSERT_EQ(::write(device.master(), "x", 1), 1);
    EXPECT_EQ(wait_for(port, 1), 1u);
    EXPECT_EQ(wait_for(port, 2), 2u);
    EXPECT_EQ(wait_for(port, 3), 3u);
    EXPECT_EQ(wait_for(port, 7), 7u);
    EXPECT_EQ(wait_for(port, 4), 4u);
    // The lines have not changed: they are reported on every pass nevertheless.
    for (const uint32_t lines : {8u, 16u, 32u, 256u, 8u | 16u | 32u | 256u})
    {
        EXPECT_EQ(wait_for(port, lines), lines);
        EXPECT_EQ(wait_for(port, lines | 5), lines | 5);
    }
    EXPECT_EQ(wait_for(port, 64u | 0xFFFFFE00u), 0u) << "nothing to wait for";
    uint32_t mask = 0;
    EXPECT_TRUE(tarn_serial_get_comm_mask(port, &mask));
    EXPECT_EQ(mask, 64u | 0xFFFFFE00u);
}

TEST_F(SerialEvent, ExceptionalConditionOfADescriptorIsReported)
{
    const line_device device(false);
    TARN_SERIAL const port = device.port();
    // A master in packet mode is in that condition after the slave has flushed its output.
    int on = 1;
    ASSERT_EQ(::ioctl(device.master(), TIOCPKT, &on), 0);
    const int fd = std::exchange(port->fd, device.master());
    ASSERT_EQ(::tcflush(fd, TCIOFLUSH), 0);
    EXPECT_EQ(wait_for(port, 128), 128u);
    port->fd = fd;
    EXPECT_GE(support::elapsed_ms([&] { EXPECT_EQ(wait_for(port, 128 | 8), 8u); }), 900)
        << "each look takes up to a second";
}

TEST_F(SerialEvent, WaitGoesOnUntilDataComes)
{
    const line_device device(false);
    std::atomic<uint32_t> found{0};
    std::thread waiter([&] { found = wait_for(device.port(), 1); });
    const int before = support::looks_at_lines.load();
    EXPECT_TRUE(support::wait_until([&] { return support::looks_at_lines.load() > before; }));
    EXPECT_EQ(found.load(), 0u);
    ASSERT_EQ(::write(device.master(), "x", 1), 1);
    waiter.join();
    EXPECT_EQ(found.load(), 1u);
}

TEST_F(SerialEvent, DeviceWithoutLinesEndsTheWaitButKeepsWhatWasFound)
{
    const serial_pty pty;
    const serial_owner port = pty.open();
    log_capture log;
    ASSERT_EQ(::write(pty.master(), "x", 1), 1);
    EXPECT_EQ(wait_for(port.get(), 1 | 8), 1u);
    EXPECT_EQ(wait_for(port.get(), 8), 0u);
    EXPECT_EQ(log.count("TIOCMGET failed, error = 25"), 2u);
}

TEST_F(SerialEvent, DeviceThatDisappearsEndsTheWait)
{
    {
        line_device device(false); // answers for its lines: nothing else ends the wait
        std::atomic<bool> ended{false};
        std::thread waiter([&] {
            EXPECT_EQ(wait_for(device.port(), 1), 1u) << "a hang-up can be read";
            ended = true;
        });
        const int before = support::looks_at_lines.load();
        EXPECT_TRUE(support::wait_until([&] { return support::looks_at_lines.load() > before; }));
        EXPECT_FALSE(ended.load());
        device.disappear();
        waiter.join();
    }
    serial_pty pty;
    const serial_owner port = pty.open();
    pty.disappear();
    EXPECT_LE(wait_for(port.get(), 4), 4u);
    EXPECT_EQ(wait_for(port.get(), 128), 0u);
    const int fd = std::exchange(port.get()->fd, -1);
    EXPECT_EQ(wait_for(port.get(), 1 | 8), 0u);
    port.get()->fd = fd;
}

TEST_F(SerialEvent, SignalEndsTheWait)
{
    const line_device device(false);
    struct sigaction action
    {
    };
    struct sigaction old
    {
    };
    action.sa_handler = [](int) {};
    ASSERT_EQ(::sigaction(SIGURG, &action, &old), 0);
    std::atomic<bool> ended{false};
    std::thread waiter([&] {
        EXPECT_EQ(wait_for(device.port(), 1), 0u);
        ended = true;
    });
    EXPECT_TRUE(support::wait_until([&] {
        ::pthread_kill(waiter.native_handle(), SIGURG); // may come before the wait has begun
        return ended.load();
    }));
    waiter.join();
    ::sigaction(SIGURG, &old, nullptr);
}

TEST_F(SerialEvent, StopRequestEndsTheWaitOfALoopThread)
{
    const line_device device(false);
    static std::atomic<int> waits;
    waits = 0;
    ASSERT_TRUE(tarn_serial_set_comm_mask(device.port(), 1));
    TARN_THREAD const thread = tarn_thread_start(
        [](void *port, void *) -> void * {
            uint32_t found = 0;
            ++waits;
            EXPECT_EQ(tarn_serial_wait_comm_event(static_cast<TARN_SERIAL>(port), &found), 0);
            return nullptr;
        },
        device.port(), nullptr, 0, "serial_wait");
    ASSERT_NE(thread, nullptr);
    EXPECT_TRUE(support::wait_until([] { return waits.load() > 0; }));
    EXPECT_LT(support::elapsed_ms([&] { tarn_thread_stop(thread); }), 20000);
}

TEST_F(SerialEvent, NullArgumentsAreRefused)
{
    const serial_pty pty;
    const serial_owner port = pty.open();
    uint32_t mask = 7;
    expect_check("RVON(port,false)");
    expect_check("RVON(port,0)");
    expect_check("RVON(event_mask,false)");
    expect_check("RVON(event_mask,0)");
    EXPECT_FALSE(tarn_serial_get_mcb(nullptr, 1));
    EXPECT_FALSE(tarn_serial_set_mcb(nullptr, 1, true));
    EXPECT_FALSE(tarn_serial_set_comm_mask(nullptr, 1));
    EXPECT_FALSE(tarn_serial_get_comm_mask(nullptr, &mask));
    EXPECT_FALSE(tarn_serial_get_comm_mask(port.get(), nullptr));
    EXPECT_EQ(tarn_serial_wait_comm_event(nullptr, &mask), 0);
    EXPECT_EQ(tarn_serial_wait_comm_event(port.get(), nullptr), 0);
    EXPECT_TRUE(tarn_serial_get_comm_mask(port.get(), &mask));
    EXPECT_EQ(mask, 0u) << "none after the opening";
}

} // namespace
