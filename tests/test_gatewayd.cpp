// gatewayd, driven as its user drives it: by command line, configuration file and signals.

#include "support.h"

#include "tarn_raii.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using support::child_process;

namespace
{

constexpr char program[] = TARN_BINARY_DIR "/gatewayd";

/** A name for an instance, and the lock file that goes with it. */
class instance
{
public:
    instance() = default;
    instance(const instance &) = delete;
    instance &operator=(const instance &) = delete;
    ~instance()
    {
        (void)::unlink(lock_file().c_str());
    }
    [[nodiscard]] const std::string &name() const
    {
        return name_;
    }
    [[nodiscard]] std::string option() const
    {
        return "--name=" + name_;
    }
    /** Some process holds the lock. */
    [[nodiscard]] bool is_locked() const
    {
        const int fd = ::open(lock_file().c_str(), O_RDONLY | O_CLOEXEC);
        const bool locked = fd >= 0 && ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        ::close(fd);
        return locked;
    }

private:
    [[nodiscard]] std::string lock_file() const
    {
        return "/tmp/tarn_proc_" + name_ + ".pid";
    }
    std::string name_ = support::unique_name("gw");
};

child_process start(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), program);
    return child_process::program(arguments);
}

/** Value of the next line that reports the point, or NaN. */
double next_value(child_process &daemon, const std::string &point)
{
    const std::string report = "] " + point + " = ";
    int lines = 0;
    for (std::string line = daemon.read_line(); !line.empty() && lines < 10000; ++lines)
    {
        if (const size_t at = line.find(report); at != std::string::npos)
        {
            return std::strtod(line.c_str() + at + report.size(), nullptr);
        }
        line = daemon.read_line();
    }
    return std::nan("");
}

void expect_orderly_end(child_process &daemon, int sig)
{
    daemon.signal(sig);
    const double ms = support::elapsed_ms([&] { EXPECT_EQ(daemon.wait(), 0); });
    EXPECT_LT(ms, 2000);
    EXPECT_NE(daemon.read_rest().find("ended with status 0"), std::string::npos);
}

struct failure
{
    std::vector<std::string> arguments;
    std::vector<std::string> texts; ///< all of them in the output
};

void expect_failure(const failure &row)
{
    child_process daemon = start(row.arguments);
    const std::string output = daemon.read_rest();
    const int status = daemon.wait();
    EXPECT_GT(status, 0) << output;
    for (const std::string &text : row.texts)
    {
        EXPECT_NE(output.find(text), std::string::npos) << "no '" << text << "' in\n" << output;
    }
}

/** The process that has this name among its arguments. */
pid_t find_process(const std::string &name)
{
    for (const auto &entry : std::filesystem::directory_iterator("/proc"))
    {
        const pid_t pid = std::atoi(entry.path().filename().c_str());
        if (pid > 0 && pid != ::getpid() &&
            support::read_file(entry.path() / "cmdline").find(name) != std::string::npos)
        {
            return pid;
        }
    }
    return -1;
}

/** The main thread is in a wait with a time-out, which is its exit wait: before the first of these a
 *  signal would kill. */
bool main_thread_waits(pid_t pid)
{
    std::istringstream call(support::read_file("/proc/" + std::to_string(pid) + "/syscall"));
    std::string number;
    std::string address;
    std::string operation;
    std::string value;
    std::string time_out;
    call >> number >> address >> operation >> value >> time_out;
    return number == std::to_string(SYS_futex) && time_out != "0x0";
}

} // namespace

TEST(Gatewayd, TelemetryIsLoggedEachPeriodWhenItChanges)
{
    const instance self;
    child_process daemon = start({self.option(), "--period", "20"});
    // From the first line on: the total never changes again, and may come before "running".
    EXPECT_GE(next_value(daemon, "load.15min"), 0);
    const double total = next_value(daemon, "mem.total_kib");
    const double available = next_value(daemon, "mem.available_kib");
    EXPECT_GT(total, 1024);
    EXPECT_GT(available, 0);
    EXPECT_LE(available, total);
    const double first = next_value(daemon, "uptime_s");
    double last = first;
    for (int i = 0; i < 10; ++i)
    {
        const double next = next_value(daemon, "uptime_s");
        EXPECT_GT(next, last); // a value that has not changed is not logged
        last = next;
    }
    EXPECT_GE(last - first, 0.1);
    expect_orderly_end(daemon, SIGTERM);
}

TEST(Gatewayd, EveryTerminationSignalEndsItInTimeWithStatusZero)
{
    for (const int sig : {SIGTERM, SIGINT, SIGQUIT})
    {
        const instance self;
        // in the middle of a period that is far longer than the time allowed
        child_process daemon = start({self.option(), "--period=3600000"});
        ASSERT_TRUE(daemon.wait_for_line("running"));
        expect_orderly_end(daemon, sig);
        EXPECT_FALSE(self.is_locked());
    }
}

TEST(Gatewayd, SecondInstanceOfANameIsRefused)
{
    const instance self;
    const instance other;
    child_process daemon = start({self.option()});
    ASSERT_TRUE(daemon.wait_for_line("running"));
    expect_failure({{self.option()}, {"another instance is already running", self.name()}});
    expect_failure({{self.option(), "-d"}, {"another instance is already running"}});
    child_process neighbour = start({other.option()});
    EXPECT_TRUE(neighbour.wait_for_line("running"));
    expect_orderly_end(neighbour, SIGTERM);
    expect_orderly_end(daemon, SIGTERM);
    child_process successor = start({self.option()});
    EXPECT_TRUE(successor.wait_for_line("running"));
    expect_orderly_end(successor, SIGTERM);
}

TEST(Gatewayd, BadOptionsEndWithAMessage)
{
    const std::string period_takes = "takes a whole number of milliseconds, 10 to 3600000";
    const std::string name_takes = "takes 1 to 63 letters";
    const std::vector<failure> rows = {
        {{"--bogus"}, {"--bogus", "--help"}},
        {{"-x"}, {"-x", "--help"}},
        {{"stray"}, {"'stray'", "--help"}},
        {{"--period=9"}, {"--period=9", period_takes}},
        {{"--period=3600001"}, {"--period=3600001", period_takes}},
        {{"--period=99999999999999999999"}, {"--period=9999", period_takes}},
        {{"--period=-5"}, {"--period=-5", period_takes}},
        {{"--period=12x"}, {"--period=12x", period_takes}},
        {{"--period="}, {"--period=", period_takes}},
        {{"--period"}, {"--period:", period_takes}},
        {{"--name", "--period=100"}, {"--name:", name_takes}},
        {{"--name=a/b"}, {"--name=a/b", name_takes}},
        {{"--name=.."}, {"--name=..", name_takes}},
        {{"--name=" + std::string(64, 'n')}, {name_takes}},
        {{"--log-level=info"}, {"--log-level=info", "takes DEBUG"}},
        {{"--log-level"}, {"--log-level:", "takes DEBUG"}},
        {{"-f"}, {"-f:", "takes the name of a file"}},
        {{"-df"}, {"-df:", "takes the name of a file"}},
        {{"--config="}, {"--config=", "takes the name of a file"}},
        {std::vector<std::string>(40, "-v"), {"too much arguments"}},
    };
    for (failure row : rows)
    {
        expect_failure(row);
        // in the background nobody would see the message, nor the status
        row.arguments.insert(row.arguments.begin(), "-d");
        expect_failure(row);
    }
}

TEST(Gatewayd, HelpAndVersionAreNoFailure)
{
    child_process help = start({"--help", "-f", "no such file"});
    const std::string text = help.read_rest();
    EXPECT_EQ(help.wait(), 0);
    for (const char *option : {"--name=NAME", "--period=MS", "--config=FILE", "--daemon"})
    {
        EXPECT_NE(text.find(option), std::string::npos) << text;
    }
    child_process version = start({"-v"});
    EXPECT_EQ(version.read_line(), "gatewayd " TARN_VERSION_STRING);
    EXPECT_EQ(version.wait(), 0);
    expect_failure({{"--help", "stray"}, {"'stray'"}});
}

TEST(Gatewayd, BadConfigurationEndsWithFileLineAndKey)
{
    struct row
    {
        std::string content;
        std::vector<std::string> texts;
    };
    const row rows[] = {
        {"\n# comment\nperiod = soon\n", {":3: period:", "'soon'", "takes a whole number"}},
        {"period = 100\nname = a b\n", {":2: name:", "'a b'", "takes 1 to 63 letters"}},
        {"period =\n", {":1: period:", "''", "takes a whole number"}},
        {"perid = 100", {":1: perid:", "unknown key", "name period"}},
        {"Period = 100", {":1: Period:", "unknown key"}},
        {" = 100\n", {":1: :", "unknown key"}},
        {"period 100 # = 5\n", {":1: period 100:", "KEY = VALUE"}},
        {std::string("period = 1\0"
                     "00",
                     13),
         {":1: period:", "'1?00'"}},
        {"\x1b[2Jx = 1\n", {":1: ?[2Jx:", "unknown key"}},
        {std::string(3000, 'k') + "=1", {":1: kkk", "...: unknown key"}},
        {std::string(70000, '\n'), {"too large"}},
    };
    const support::temp_dir dir;
    const std::string file = dir.file("bad.conf");
    for (const auto &[content, texts] : rows)
    {
        support::write_file(file, content);
        expect_failure({{"-f", file}, texts});
        expect_failure({{"-f", file}, {file}});
        expect_failure({{"-d", "--config=" + file}, texts});
    }
}

TEST(Gatewayd, ConfigurationThatIsNoReadableFileIsRefused)
{
    const support::temp_dir dir;
    const std::string fifo = dir.file("fifo"); // opening it would wait for a writer
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const failure rows[] = {
        {{"-f", dir.file("missing")}, {dir.file("missing"), "No such file"}},
        {{"-f", dir.path()}, {dir.path(), "not a file"}},
        {{"-f", fifo}, {fifo, "not a file"}},
        {{"-f", "/dev/zero"}, {"/dev/zero", "too large"}},
    };
    for (const failure &row : rows)
    {
        expect_failure(row);
    }
}

TEST(Gatewayd, ConfigurationIsHonouredAndTheCommandLineWins)
{
    const instance self;
    const instance other;
    const support::temp_dir dir;
    const std::string file = dir.file("gatewayd.conf");
    support::write_file(file, "# of this test\r\n\r\n  period = 250\r\n\tname\t=\t" + self.name() +
                                  "  # the instance\r\n#period = 1\nperiod=300");
    child_process daemon = start({"-f", file});
    EXPECT_TRUE(daemon.wait_for_line(self.name() + ": telemetry every 300 ms"));
    ASSERT_TRUE(daemon.wait_for_line("running"));
    EXPECT_TRUE(self.is_locked());

    child_process neighbour = start({other.option(), "-f", file, "--period=50"});
    EXPECT_TRUE(neighbour.wait_for_line(other.name() + ": telemetry every 50 ms"));
    ASSERT_TRUE(neighbour.wait_for_line("running"));
    EXPECT_TRUE(other.is_locked());
    expect_orderly_end(neighbour, SIGTERM);
    expect_orderly_end(daemon, SIGTERM);
}

TEST(Gatewayd, DaemonReadsARelativeConfigurationAndEndsOrderly)
{
    const instance self;
    const support::temp_dir dir;
    support::write_file(dir.file("relative.conf"), "period = 20\nname = " + self.name() + "\n");
    // The daemon's parent ends; this process becomes the new one, and so learns the exit status.
    ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    const tarn::scope_exit end_daemon([&] {
        if (const pid_t left = find_process(self.name()); left > 0)
        {
            ::kill(left, SIGKILL);
        }
    });
    const std::filesystem::path directory = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    child_process parent = start({"-d", "-f", "relative.conf", "--log-level=FATAL", self.option()});
    std::filesystem::current_path(directory);
    EXPECT_EQ(parent.read_rest(), ""); // to the end: the daemon has let go of the terminal
    EXPECT_EQ(parent.wait(), 0);
    ASSERT_TRUE(self.is_locked());
    const pid_t daemon = find_process(self.name());
    ASSERT_GT(daemon, 0);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemon) + "/cwd"), "/");
    ASSERT_TRUE(support::wait_until([&] { return main_thread_waits(daemon); }));
    ::kill(daemon, SIGTERM);
    int status = -1;
    EXPECT_TRUE(
        support::wait_until([&] { return ::waitpid(daemon, &status, WNOHANG) == daemon; }, 2000));
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(self.is_locked());
}
