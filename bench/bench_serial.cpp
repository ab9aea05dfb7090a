// Traffic of a serial port beside the bare calls with the same sizes and the same wait per read.
//
// 1 MiB goes through a pseudo terminal in each direction: what the port writes in 64-byte pieces, and
// what it reads in 30-byte pieces. The other end moves larger blocks, with bare calls, on both sides
// of each comparison, and does not count: a block is read once it has arrived as a whole. Counted is
// the processor time of the port's calls, none of which waits.

#include "ratio.h"

#include "tarn_serial.h"

#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace
{

constexpr size_t total = 1u << 20;
constexpr size_t block = 1920; // a multiple of both sizes, below what a terminal buffers
constexpr size_t read_size = 30;
constexpr size_t write_size = 64;

/** Both ends of a pseudo terminal; the slave as a port of the layer, or as a bare raw descriptor. */
class line
{
public:
    explicit line(bool as_port)
        : as_port_(as_port), master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        char name[128] = "";
        (void)::grantpt(master_);
        (void)::unlockpt(master_);
        (void)::ptsname_r(master_, name, sizeof name);
        slave_ = ::open(name, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (as_port)
        {
            port_ = tarn_serial_open(name, 115200, 8, 1, TARN_SERIAL_PARITY_NONE);
            return;
        }
        termios settings{};
        (void)::tcgetattr(slave_, &settings);
        ::cfmakeraw(&settings);
        (void)::tcsetattr(slave_, TCSANOW, &settings);
    }
    line(const line &) = delete;
    line &operator=(const line &) = delete;
    ~line()
    {
        tarn_serial_close(port_);
        ::close(slave_);
        ::close(master_);
    }
    [[nodiscard]] size_t read_some(char *buffer) const
    {
        if (as_port_)
        {
            uint32_t count = 0;
            (void)tarn_serial_read(port_, buffer, read_size, &count);
            return count;
        }
        pollfd polled = {slave_, POLLIN, 0};
        const ssize_t n = ::poll(&polled, 1, 0) > 0 ? ::read(slave_, buffer, read_size) : 0;
        return n > 0 ? static_cast<size_t>(n) : 0;
    }
    [[nodiscard]] bool write_piece(const char *piece) const
    {
        return as_port_ ? tarn_serial_write(port_, piece, write_size) == 0
                        : ::write(slave_, piece, write_size) == ssize_t{write_size};
    }
    /** The other end sends one block, which is there to be read then, or takes one. */
    [[nodiscard]] bool send_block(const char *bytes) const
    {
        bool good = ::write(master_, bytes, block) == ssize_t{block};
        for (int there = 0; good && there < static_cast<int>(block);)
        {
            good = ::ioctl(slave_, FIONREAD, &there) == 0;
        }
        return good;
    }
    void take_block(char *buffer) const
    {
        for (size_t taken = 0; taken < block;)
        {
            const ssize_t n = ::read(master_, buffer, block - taken);
            taken += n > 0 ? static_cast<size_t>(n) : block;
        }
    }

private:
    bool as_port_;
    int master_;
    int slave_ = -1; ///< beside the port, it only tells what has arrived
    TARN_SERIAL port_ = nullptr;
};

/** Processor time of this thread, in seconds. */
double now()
{
    timespec time{};
    (void)::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/** Read one block and write one.
 *  @return its time; negative on failure */
double move_block(const line &ends, char *buffer)
{
    const double start = now();
    bool good = true;
    for (size_t got = 0; got < block && good;)
    {
        const size_t n = ends.read_some(buffer);
        good = n != 0;
        got += n;
    }
    for (size_t sent = 0; sent < block && good; sent += write_size)
    {
        good = ends.write_piece(buffer);
    }
    return good ? now() - start : -1;
}

void move_megabyte(benchmark::State &state, bool as_port)
{
    const line ends(as_port);
    char buffer[block] = "";
    for (auto turn : state)
    {
        double time = 0;
        for (size_t moved = 0; moved < total; moved += block)
        {
            const double part = ends.send_block(buffer) ? move_block(ends, buffer) : -1;
            if (part < 0)
            {
                state.SkipWithError("the pseudo terminal does not work");
                return;
            }
            time += part;
            ends.take_block(buffer);
        }
        state.SetIterationTime(time);
    }
}

void bare_traffic(benchmark::State &state)
{
    move_megabyte(state, false);
}
BENCHMARK(bare_traffic)->UseManualTime();

void tarn_traffic(benchmark::State &state)
{
    move_megabyte(state, true);
}
BENCHMARK(tarn_traffic)->UseManualTime();

} // namespace

int main(int argc, char **argv)
{
    if (!tarn_init())
    {
        return 1;
    }
    const int status = bench::run(argc, argv,
                                  {{"1 MiB each way, 30-byte reads and 64-byte writes",
                                    "tarn_traffic", "bare_traffic", 1.3}});
    tarn_uninit();
    return status;
}
