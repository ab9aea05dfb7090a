// Serial ports: names, exclusion, reading and writing. Settings and events have files of their own.

#include "support_serial.h"

#include "tarn_process.h"
#include "tarn_process_state.h"
#include "tarn_str.h"
#include "tarn_sys_internal.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <memory>
#include <thread>

#include <sys/stat.h>

using support::expect_check;
using support::log_capture;
using support::serial_lock_path;
using support::serial_owner;
using support::serial_pty;

namespace
{

serial_owner open_port(const std::string &name)
{
    return serial_owner(tarn_serial_open(name.c_str(), 9600, 8, 1, 0));
}

/** The path with as many slashes more as it takes to be so long. */
std::string padded(const std::string &path, size_t length)
{
    return std::string(length - path.size(), '/') + path;
}

std::string link_to(const support::temp_dir &dir, const std::string &name,
                    const std::string &target)
{
    EXPECT_EQ(::symlink(target.c_str(), dir.file(name).c_str()), 0) << name;
    return dir.file(name);
}

struct read_result
{
    int result;
    std::string bytes;
    bool operator==(const read_result &) const = default;
};

read_result read_port(TARN_SERIAL port, uint32_t len)
{
    const auto buffer = std::make_unique<char[]>(len); // of that very size: one byte more is found
    uint32_t count = 77;
    const int result = tarn_serial_read(port, buffer.get(), len, &count);
    EXPECT_LE(count, len);
    return {result, std::string(buffer.get(), count)};
}

void feed(const serial_pty &pty, std::string_view bytes)
{
    ASSERT_EQ(::write(pty.master(), bytes.data(), bytes.size()), ssize_t(bytes.size()));
}

/** Opens the port it is given, says how that went, and holds it until its input ends. Is the first
 *  process of a session, as daemons are. */
TARN_TEST_ROLE(serial_holder)
{
    EXPECT_GT(::setsid(), 0);
    const support::layer layer;
    const serial_owner port = open_port(args.at(0));
    const tarn::unique_fd terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC));
    std::puts(!port ? "refused" : terminal ? "is controlled by it" : "holds it");
    std::fflush(stdout);
    (void)std::getchar();
    return 0;
}

class Serial : public testing::Test
{
    support::layer layer_;
    support::leak_check leaks_; // without what the first start-up leaves for the next
};

// ---- names and exclusion -------------------------------------------------------------------------

TEST_F(Serial, EveryNameOfADeviceIsOnePort)
{
    const serial_pty pty;
    const support::temp_dir dir;
    const std::string node = pty.slave_name();
    std::string chain = link_to(dir, "0", node);
    for (int i = 1; i < 40; ++i)
    {
        chain = link_to(dir, std::to_string(i), std::to_string(i - 1));
    }
    const std::string too_many = link_to(dir, "40", "39");
    const std::string deep = padded(node, 256);
    const std::string names[] = {
        node,
        chain,
        link_to(dir, "relative", std::filesystem::relative(node, dir.path()).string()),
        link_to(dir, "directory", "/dev/pts") + node.substr(8),
        "/dev/../dev/./pts" + node.substr(8),
        padded(node, 255),
        deep,
        link_to(dir, "deep", deep),
    };
    for (const std::string &name : names)
    {
        log_capture log;
        const serial_owner port = open_port(name);
        ASSERT_TRUE(port) << name;
        EXPECT_STREQ(port.get()->node.path, node.c_str());
        EXPECT_STREQ(port.get()->port, name.c_str());
        for (const std::string &other : names)
        {
            EXPECT_FALSE(open_port(other)) << other << " while open as " << name;
            EXPECT_TRUE(log.contains("warn", "serial port " + other + " has been opened!"));
        }
    }
    log_capture log;
    EXPECT_FALSE(open_port(too_many));
    EXPECT_FALSE(open_port(link_to(dir, "long", padded(node, 257))));
    EXPECT_FALSE(open_port(link_to(dir, "far", std::string(250, 'x'))));
    EXPECT_FALSE(open_port(link_to(dir, "loop", "loop")));
    EXPECT_EQ(log.count("failed to open port " + dir.path()), 4u);
    expect_check("RVON(port,TARN_INVALID_HANDLE)");
    expect_check("RVOF(tarn_str_len(port) <= tarn::serial_name_max,TARN_INVALID_HANDLE)");
    EXPECT_FALSE(open_port(padded(node, 257)));
    EXPECT_EQ(tarn_serial_open(nullptr, 9600, 8, 1, 0), nullptr);
}

TEST_F(Serial, NodesOfOneDeviceAreTheSame)
{
    const uint64_t uart = 4u << 8 | 64u;
    const uint64_t terminal = 136u << 8;
    using tarn::serial_same_device;
    EXPECT_TRUE(serial_same_device({"/dev/ttyS0", 5, uart}, {"/jail/ttyS0", 6, uart}));
    EXPECT_FALSE(serial_same_device({"/dev/ttyS0", 5, uart}, {"/dev/ttyS0", 5, uart + 1}));
    EXPECT_TRUE(serial_same_device({"/dev/pts/0", 5, terminal}, {"/pts/0", 5, terminal}));
    EXPECT_FALSE(serial_same_device({"/dev/pts/0", 5, terminal}, {"/jail/pts/0", 6, terminal}))
        << "each instance of their file system numbers them anew";
    EXPECT_TRUE(serial_same_device({"/gone", 0, 0}, {"/gone", 0, 0}));
    EXPECT_FALSE(serial_same_device({"/gone", 0, 0}, {"/lost", 0, 0}));
}

TEST_F(Serial, LockFileIsNamedAfterTheDeviceAndForEveryone)
{
    const support::temp_dir dir;
    const std::string path = dir.file("no_tty");
    const std::string lock = serial_lock_path(path);
    support::write_file(path, "content");
    log_capture log;
    const mode_t mask = ::umask(077);
    EXPECT_FALSE(open_port(path));
    ::umask(mask);
    EXPECT_TRUE(log.contains("error", "fd is not a tty on port " + path));
    struct stat status
    {
    };
    ASSERT_EQ(::lstat(lock.c_str(), &status), 0) << lock;
    EXPECT_EQ(status.st_mode, mode_t{S_IFREG | 0666});
    ::unlink(lock.c_str());

    // The name of a file has 255 characters at most: a deeper device has no lock, and is refused.
    const std::string fits = dir.path() + "/" + std::string(244 - dir.path().size() - 1, 'd');
    EXPECT_FALSE(open_port(fits));
    EXPECT_TRUE(log.contains("error", "failed to open port " + fits));
    EXPECT_EQ(::unlink(serial_lock_path(fits).c_str()), 0);
    EXPECT_FALSE(open_port(fits + "d"));
    EXPECT_TRUE(log.contains("error", "fail to open file " + serial_lock_path(fits + "d") +
                                          ", error = " + std::to_string(ENAMETOOLONG)));
}

TEST_F(Serial, WhatIsPlantedAtTheLockFilesPlaceIsNotUsed)
{
    const serial_pty pty;
    const support::temp_dir dir;
    const std::string lock = serial_lock_path(pty.slave_name());
    const std::string victim = dir.file("victim");
    log_capture log;
    ::unlink(lock.c_str());
    support::write_file(victim, "keep");
    const std::function<int()> plants[] = {
        [&] { return ::symlink(victim.c_str(), lock.c_str()); },
        [&] { return ::symlink(dir.file("nothing").c_str(), lock.c_str()); },
        [&] { return ::link(victim.c_str(), lock.c_str()); },
        [&] { return ::mkfifo(lock.c_str(), 0666); },
        [&] { return ::mkdir(lock.c_str(), 0777); },
    };
    for (const auto &plant : plants)
    {
        ASSERT_EQ(plant(), 0);
        EXPECT_FALSE(pty.open());
        std::filesystem::remove(lock);
    }
    EXPECT_EQ(log.count("fail to open file " + lock + ", error = "), std::size(plants));
    EXPECT_EQ(support::read_file(victim), "keep");
    EXPECT_FALSE(std::filesystem::exists(dir.file("nothing")));
    EXPECT_TRUE(pty.open());
}

TEST_F(Serial, OtherProcessesAreKeptOutUntilTheHolderEnds)
{
    const serial_pty pty;
    const support::temp_dir dir;
    const std::string link = link_to(dir, "link", pty.slave_name());
    log_capture log;
    {
        auto holder = support::child_process::role("serial_holder", {pty.slave_name()});
        ASSERT_TRUE(holder.wait_for_line("holds it"));
        EXPECT_FALSE(open_port(link));
        EXPECT_TRUE(log.contains("warn", "serial port " + link + " has been opened!"));
        holder.signal(SIGKILL);
        EXPECT_EQ(holder.wait(), -SIGKILL);
    }
    const serial_owner port = open_port(link);
    ASSERT_TRUE(port);
    auto late = support::child_process::role("serial_holder", {pty.slave_name()});
    EXPECT_TRUE(late.wait_for_line("refused"));
    late.close_input();
    EXPECT_EQ(late.wait(), 0);
}

TEST_F(Serial, ClosedPortIsFreeThoughAChildStillHasItsDescriptors)
{
    const serial_pty pty;
    serial_owner port = pty.open();
    for (const int fd : {port.get()->fd, port.get()->lock_fd})
    {
        EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    }
    const tarn::unique_fd inherited = tarn::duplicate_fd(port.get()->lock_fd);
    EXPECT_FALSE(pty.open());
    port.reset();
    EXPECT_TRUE(std::filesystem::exists(serial_lock_path(pty.slave_name())));
    EXPECT_TRUE(pty.open());
}

TEST_F(Serial, ThreadsNeverHoldAPortTwice)
{
    const serial_pty pty;
    const support::temp_dir dir;
    const std::string link = link_to(dir, "link", pty.slave_name());
    const support::level_scope quiet(TARN_LOG_LEVEL_ERROR);
    std::atomic<int> holders{0};
    std::atomic<int> times{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back([&, i] {
            while (times.load() < 100)
            {
                const serial_owner port = open_port(i % 2 == 0 ? link : pty.slave_name());
                if (port)
                {
                    EXPECT_EQ(holders.fetch_add(1), 0);
                    ++times;
                    holders.fetch_sub(1);
                }
            }
        });
    }
    for (std::thread &thread : threads)
    {
        thread.join();
    }
}

TEST_F(Serial, HundredPortsAreOpenAtOnceAndNoMore)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_ERROR);
    const std::vector<serial_pty> ptys(101);
    std::vector<serial_owner> ports(100);
    std::transform(ptys.begin(), ptys.begin() + 100, ports.begin(),
                   [](const serial_pty &pty) { return pty.open(); });
    EXPECT_TRUE(std::all_of(ports.begin(), ports.end(), [](const auto &p) { return bool(p); }));
    log_capture log;
    const size_t descriptors = support::open_descriptors();
    EXPECT_FALSE(ptys[100].open());
    EXPECT_TRUE(log.contains("error", "fail to add to list"));
    EXPECT_EQ(support::open_descriptors(), descriptors);
    ports[50].reset();
    EXPECT_TRUE(ptys[100].open()) << "the failure has left the device unlocked";
}

TEST_F(Serial, FailedAllocationsLeaveNothingOpen)
{
    const serial_pty pty;
    const size_t descriptors = support::open_descriptors();
    tarn_log_level_set(TARN_LOG_LEVEL_FATAL); // lines allocate, and failures are expected
    support::fail_each_allocation([&](size_t) {
        const serial_owner port = pty.open();
        EXPECT_EQ(bool(port), !support::allocation_failed());
    });
    tarn_log_level_set(TARN_LOG_LEVEL_DEBUG);
    EXPECT_EQ(support::open_descriptors(), descriptors);
}

TEST_F(Serial, DeviceIsFoundByItsIdentifier)
{
    const support::temp_dir dir;
    struct path_scope
    {
        const char *kept = tarn::serial_by_id_path;
        ~path_scope()
        {
            tarn::serial_by_id_path = kept;
        }
    } const scope;
    const std::string missing = dir.file("missing");
    char name[16] = "untouched";
    tarn::serial_by_id_path = missing.c_str();
    expect_check("RVON(dir,-1)");
    EXPECT_EQ(tarn_serial_get_tty_name_by_id("FTDI", name, sizeof name), -1);

    tarn::serial_by_id_path = dir.path().c_str();
    support::write_file(dir.file("usb-FTDI_file"), "no link");
    link_to(dir, "usb-FTDI_plain", "ttyUSB9");
    link_to(dir, "usb-FTDI_long", std::string(250, 'x') + "/ttyUSB8");
    EXPECT_EQ(tarn_serial_get_tty_name_by_id("FTDI", name, sizeof name), -2);
    link_to(dir, "usb-FTDI_FT232R_A9-if00-port0", "../../ttyUSB0");
    link_to(dir, "usb-Prolific_2303-if00-port0", "../../ttyUSB12");
    EXPECT_EQ(tarn_serial_get_tty_name_by_id("None", name, sizeof name), -2);
    expect_check("RVOF(sizeof \"/dev\" + tarn_str_len(name) <= len,TARN_ERRLN)");
    EXPECT_LT(tarn_serial_get_tty_name_by_id("FTDI", name, 12), 0);
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(tarn_serial_get_tty_name_by_id("FTDI", name, 13), 0);
    EXPECT_STREQ(name, "/dev/ttyUSB0");
    EXPECT_EQ(tarn_serial_get_tty_name_by_id("2303", name, sizeof name), 0);
    EXPECT_STREQ(name, "/dev/ttyUSB12");
}

// ---- reading and writing -------------------------------------------------------------------------

TEST_F(Serial, ReadTellsSelectResultAndCountApart)
{
    const serial_pty pty;
    const serial_owner owner = pty.open();
    TARN_SERIAL const port = owner.get();
    std::string sent(75, ' ');
    for (size_t i = 0; i < sent.size(); ++i)
    {
        sent[i] = static_cast<char>(i * 5); // NUL, control bytes and bytes above 127
    }
    EXPECT_EQ(read_port(port, 30), (read_result{0, ""}));
    feed(pty, sent);
    EXPECT_EQ(read_port(port, 0), (read_result{1, ""})); // fills the buffer
    EXPECT_EQ(read_port(port, 7), (read_result{0, sent.substr(0, 7)}));
    EXPECT_EQ(read_port(port, 22), (read_result{0, sent.substr(7, 22)}));
    EXPECT_EQ(read_port(port, 1000), (read_result{0, sent.substr(29, 1)}));
    EXPECT_EQ(read_port(port, 1000), (read_result{1, sent.substr(30, 30)}));
    EXPECT_EQ(read_port(port, 15), (read_result{1, sent.substr(60)}));
    EXPECT_EQ(read_port(port, 15), (read_result{0, ""}));

    uint32_t count = 0;
    char byte = 0;
    expect_check("RVON(port,TARN_ERRLN)");
    expect_check("RVON(buffer,TARN_ERRLN)");
    expect_check("RVON(read_count,TARN_ERRLN)");
    EXPECT_LT(tarn_serial_read(nullptr, &byte, 1, &count), 0);
    EXPECT_LT(tarn_serial_read(port, nullptr, 1, &count), 0);
    EXPECT_LT(tarn_serial_read(port, &byte, 1, nullptr), 0);
}

TEST_F(Serial, FailedReadStoresNothing)
{
    const serial_pty pty;
    const serial_owner owner = pty.open();
    TARN_SERIAL const port = owner.get();
    const std::string head = "[" + pty.slave_name() + "] ";
    log_capture log;
    const tarn::unique_fd directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int fd = std::exchange(port->fd, directory.get());
    EXPECT_EQ(read_port(port, 30), (read_result{-1, ""}));
    EXPECT_TRUE(log.contains("error", head + "read failed, error = 21"));
    for (const int bad : {-1, 100000})
    {
        port->fd = bad;
        EXPECT_EQ(read_port(port, 30), (read_result{-1, ""}));
    }
    port->fd = fd;
    EXPECT_EQ(log.count(head + "select failed, error = 9"), 2u);
    feed(pty, "abc");
    EXPECT_EQ(read_port(port, 30), (read_result{1, "abc"}));

    int ends[2]; // a hang-up counts as ready, though poll() does not call it that
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    ::close(ends[1]);
    port->fd = ends[0];
    EXPECT_EQ(read_port(port, 30), (read_result{1, ""}));
    port->fd = fd;
    ::close(ends[0]);

    const support::serial_seam seam; // another process took what was there
    tarn::serial_os.read = [](int, void *, size_t) {
        static int calls = 0;
        errno = ++calls == 1 ? EINTR : EAGAIN;
        return ptrdiff_t{-1};
    };
    feed(pty, "abc");
    log.clear();
    EXPECT_EQ(read_port(port, 30), (read_result{1, ""}));
    EXPECT_EQ(read_port(port, 30), (read_result{1, ""}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Serial, DescriptorsAbove1023Work)
{
    std::vector<tarn::unique_fd> low;
    do
    {
        low.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    } while (low.back().get() < 1023);
    const serial_pty pty;
    const serial_owner port = pty.open();
    ASSERT_GT(port.get()->fd, 1023);
    feed(pty, "abc");
    EXPECT_EQ(read_port(port.get(), 30), (read_result{1, "abc"}));
}

TEST_F(Serial, WriteSendsAllOrFailsAtOnce)
{
    const serial_pty pty;
    const serial_owner port = pty.open();
    const std::string text(64, 'w');
    char got[128];
    EXPECT_EQ(tarn_serial_write(port.get(), text.data(), 64), 0);
    EXPECT_EQ(::read(pty.master(), got, sizeof got), 64);
    EXPECT_EQ(std::string(got, 64), text);
    EXPECT_EQ(tarn_serial_write(port.get(), nullptr, 0), 0);
    expect_check("RVOF(bytes != NULL || len == 0,TARN_ERRLN)");
    EXPECT_LT(tarn_serial_write(port.get(), nullptr, 1), 0);

    // A reader that never reads: what there is room for is taken, then the call fails.
    const std::string much(1u << 20, 'm');
    EXPECT_EQ(tarn_serial_write(port.get(), much.data(), 1u << 20), -1);
    EXPECT_EQ(errno, EAGAIN);
    while (tarn_serial_write(port.get(), "x", 1) == 0) // the terminal moves some along meanwhile
    {
    }
    EXPECT_EQ(tarn_serial_purge(port.get(), false, true), 0);
    EXPECT_EQ(tarn_serial_write(port.get(), "x", 1), 0);
    EXPECT_EQ(tarn_serial_flush(port.get()), 0);
}

int zero_writes;
uint32_t ms_per_zero;

/** Takes no byte for a number of calls, in which time passes; then one byte a call. */
ptrdiff_t reluctant_write(int, const void *, size_t)
{
    if (zero_writes == 0)
    {
        return 1;
    }
    --zero_writes;
    tarn::tick_ms_offset += ms_per_zero;
    return 0;
}

TEST_F(Serial, DeviceThatTakesNoByteIsTriedForAMinute)
{
    const serial_pty pty;
    const serial_owner port = pty.open();
    const support::serial_seam seam;
    tarn::serial_os.write = reluctant_write;
    zero_writes = 50;
    ms_per_zero = 1100;
    const double waited = support::elapsed_ms(
        [&] { EXPECT_EQ(tarn_serial_write(port.get(), "abc", 3), 0) << "after 55 seconds"; });
    EXPECT_GE(waited, 50) << "it sleeps in between";
    zero_writes = 100;
    ms_per_zero = 11000;
    EXPECT_EQ(tarn_serial_write(port.get(), "abc", 3), -1);
    EXPECT_EQ(zero_writes, 94) << "the sixth came after 66 seconds";
    tarn::tick_ms_offset = 0;
    tarn::serial_os.write = [](int, const void *, size_t len) {
        static int calls = 0;
        errno = EINTR;
        return ++calls == 1 ? ptrdiff_t{-1} : static_cast<ptrdiff_t>(len);
    };
    EXPECT_EQ(tarn_serial_write(port.get(), "abc", 3), 0);
}

TEST_F(Serial, PurgeDropsWhatItIsAskedTo)
{
    const serial_pty pty;
    const serial_owner port = pty.open();
    feed(pty, "old");
    EXPECT_EQ(tarn_serial_purge(port.get(), false, false), -1);
    EXPECT_EQ(tarn_serial_purge(port.get(), false, true), 0);
    EXPECT_EQ(read_port(port.get(), 30), (read_result{1, "old"}));
    feed(pty, "old");
    EXPECT_TRUE(support::wait_until([&] { // what is still under way to the terminal would stay
        int there = 0;
        return ::ioctl(port.get()->fd, FIONREAD, &there) == 0 && there == 3;
    }));
    EXPECT_EQ(tarn_serial_purge(port.get(), true, false), 0);
    EXPECT_EQ(read_port(port.get(), 30), (read_result{0, ""}));

    int on = 1; // the master is told what was dropped
    ASSERT_EQ(::ioctl(pty.master(), TIOCPKT, &on), 0);
    ASSERT_EQ(::fcntl(pty.master(), F_SETFL, O_NONBLOCK), 0);
    for (const int dropped :
         {TIOCPKT_FLUSHREAD, TIOCPKT_FLUSHWRITE, TIOCPKT_FLUSHREAD | TIOCPKT_FLUSHWRITE})
    {
        EXPECT_EQ(tarn_serial_purge(port.get(), (dropped & TIOCPKT_FLUSHREAD) != 0,
                                    (dropped & TIOCPKT_FLUSHWRITE) != 0),
                  0);
        char status = 0;
        EXPECT_EQ(::read(pty.master(), &status, 1), 1);
        EXPECT_EQ(status, dropped);
    }
    expect_check("RVON(port,TARN_ERRLN)");
    EXPECT_LT(tarn_serial_purge(nullptr, true, true), 0);
    EXPECT_LT(tarn_serial_flush(nullptr), 0);
    EXPECT_LT(tarn_serial_write(nullptr, "x", 1), 0);
    EXPECT_LT(tarn_serial_reopen(nullptr), 0);
}

TEST_F(Serial, DeviceThatDisappearsFailsEveryCall)
{
    serial_pty pty;
    const serial_owner port = pty.open();
    feed(pty, "last");
    pty.disappear();
    const read_result last = read_port(port.get(), 30);
    EXPECT_EQ(last.result, 1);
    EXPECT_TRUE(last.bytes.empty() || last.bytes == "last");
    EXPECT_EQ(read_port(port.get(), 30), (read_result{1, ""}));
    EXPECT_EQ(tarn_serial_write(port.get(), "x", 1), -1);
    EXPECT_EQ(tarn_serial_flush(port.get()), -1);
    EXPECT_EQ(tarn_serial_purge(port.get(), true, true), -1);
    EXPECT_EQ(tarn_serial_set_stopbits(port.get(), 2), -1);
    log_capture log;
    EXPECT_EQ(tarn_serial_reopen(port.get()), -1);
    EXPECT_TRUE(log.contains("error", "failed to open port " + pty.slave_name()));
    EXPECT_EQ(read_port(port.get(), 30), (read_result{-1, ""}));
    EXPECT_EQ(tarn_serial_write(port.get(), "x", 1), -1);
    EXPECT_EQ(tarn_serial_flush(port.get()), -1);
    EXPECT_EQ(tarn_serial_purge(port.get(), true, true), -1);
}

TEST_F(Serial, ReopenKeepsToTheDeviceAndItsSettings)
{
    const serial_pty pty;
    const serial_pty other;
    const support::temp_dir dir;
    const serial_owner port = open_port(link_to(dir, "port", pty.slave_name()));
    ASSERT_TRUE(port);
    EXPECT_EQ(tarn_serial_set_stopbits(port.get(), 2), 0);
    EXPECT_EQ(tarn_serial_reopen(port.get()), 0);
    termios settings{};
    EXPECT_EQ(::tcgetattr(port.get()->fd, &settings), 0);
    EXPECT_EQ(settings.c_cflag & CSTOPB, unsigned{CSTOPB});
    EXPECT_EQ(::fcntl(port.get()->fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    feed(pty, "abc");
    EXPECT_EQ(read_port(port.get(), 30), (read_result{1, "abc"}));

    // The link now names a device that this port has not locked.
    std::filesystem::remove(dir.file("port"));
    link_to(dir, "port", other.slave_name());
    EXPECT_EQ(tarn_serial_reopen(port.get()), -1);
    std::filesystem::remove(dir.file("port"));
    support::write_file(dir.file("port"), "");
    log_capture log;
    EXPECT_EQ(tarn_serial_reopen(port.get()), -2);
    EXPECT_TRUE(log.contains("error", "fd is not a tty on port " + dir.file("port")));
    std::filesystem::remove(dir.file("port"));
    link_to(dir, "port", pty.slave_name());
    EXPECT_EQ(tarn_serial_reopen(port.get()), 0);
    EXPECT_FALSE(pty.open()) << "locked all the while";
}

// ---- traffic and handles -------------------------------------------------------------------------

TEST_F(Serial, TrafficIsLoggedWhileSwitchedOn)
{
    const serial_pty pty;
    const serial_owner port = pty.open();
    const std::string name = "[" + pty.slave_name() + "]";
    const auto bytes = std::make_unique<char[]>(4); // no text: "%" and no terminator
    tarn_mem_copy(bytes.get(), "%n\xFF!", 4);
    log_capture log;
    EXPECT_EQ(tarn_serial_write(port.get(), bytes.get(), 4), 0);
    EXPECT_FALSE(log.contains("buf_len"));
    tarn_serial_log_traffic(true);
    EXPECT_EQ(tarn_serial_write(port.get(), bytes.get(), 4), 0);
    EXPECT_TRUE(log.contains("debug", name + " buf_len = [4], str = [%n\xFF!]"));
    EXPECT_TRUE(log.contains("info", "[4] " + name + " 25 6e ff 21"));
    EXPECT_EQ(tarn_serial_write(port.get(), nullptr, 0), 0);
    EXPECT_TRUE(log.contains("debug", name + " buf_len = [0], str = []"));
    feed(pty, "in");
    EXPECT_EQ(read_port(port.get(), 1).bytes, "i");
    EXPECT_EQ(read_port(port.get(), 9).bytes, "n");
    EXPECT_TRUE(log.contains("info", "[1] " + name + " 6e"));
    log.clear();
    EXPECT_EQ(read_port(port.get(), 9).bytes, "");
    EXPECT_TRUE(log.lines().empty()) << "no bytes, no lines";
    EXPECT_EQ(::raise(SIGUSR2), 0);
    EXPECT_FALSE(tarn_process_is_serial_traffic_logged());
    EXPECT_EQ(tarn_serial_write(port.get(), "x", 1), 0);
    EXPECT_FALSE(log.contains("buf_len"));
    EXPECT_EQ(::raise(SIGUSR1), 0);
    EXPECT_EQ(tarn_serial_write(port.get(), "x", 1), 0);
    EXPECT_TRUE(log.contains("buf_len = [1], str = [x]"));
    tarn_serial_log_traffic(false);
}

TEST_F(Serial, GenericCloseClosesAPort)
{
    const serial_pty pty;
    const size_t descriptors = support::open_descriptors();
    TARN_SERIAL const port = pty.open().release();
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->header.type, TARN_HANDLE_TYPE_SERIAL);
    log_capture log;
    tarn_close_handle(port);
    EXPECT_TRUE(log.contains("port = [" + pty.slave_name() + "]"));
    EXPECT_EQ(support::open_descriptors(), descriptors);
    EXPECT_TRUE(pty.open());
    tarn_serial_close(nullptr);
}

TEST(SerialModule, PortsOutliveTheLayerButNoneOpensWithoutIt)
{
    const serial_pty pty;
    log_capture log;
    EXPECT_FALSE(pty.open());
    EXPECT_TRUE(log.contains("error", "fail to add to list"));
    serial_owner port;
    {
        const support::layer layer;
        port = pty.open();
        ASSERT_TRUE(port);
    }
    EXPECT_TRUE(log.contains("is not empty! count = 1"));
    EXPECT_EQ(tarn_serial_write(port.get(), "x", 1), 0);
}

} // namespace
