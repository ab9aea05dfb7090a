// gatewayd in the foreground: telemetry, options, configuration file, signals.

#include "gatewayd_support.h"
#include "support_serial.h"

#include <sstream>

using namespace gatewayd_test;

namespace
{

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

} // namespace

TEST(Gatewayd, TelemetryIsLoggedEachPeriodWhenItChanges)
{
    const instance self;
    foreground daemon = start({self.option(), "--period", "20"});
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
        foreground daemon = start({self.option(), "--period=3600000"});
        ASSERT_TRUE(daemon.wait_for_line("running"));
        expect_orderly_end(daemon, sig);
        EXPECT_FALSE(self.is_locked());
    }
}

TEST(Gatewayd, SecondInstanceOfANameIsRefused)
{
    const instance self;
    const instance other;
    foreground daemon = start({self.option()});
    ASSERT_TRUE(daemon.wait_for_line("running"));
    expect_failure({{self.option()}, {"an instance is already running", self.name()}});
    expect_failure({{self.option(), "-d"}, {"an instance is already running"}});
    foreground neighbour = start({other.option()});
    EXPECT_TRUE(neighbour.wait_for_line("running"));
    expect_orderly_end(neighbour, SIGTERM);
    expect_orderly_end(daemon, SIGTERM);
    foreground successor = start({self.option()});
    EXPECT_TRUE(successor.wait_for_line("running"));
    expect_orderly_end(successor, SIGTERM);
}

TEST(Gatewayd, BadOptionsEndWithAMessage)
{
    const std::string period_takes = "takes a whole number of milliseconds, 10 to 3600000";
    const std::string name_takes = "takes 1 to 63 letters";
    const std::string addr_takes = "takes an IPv4 or IPv6 address";
    const std::string port_takes = "takes a whole number, 0 to 65535";
    const std::string serial_takes = "takes the path of a serial device";
    const std::string baud_takes = "takes a whole number of bits per second, 50 to 4000000";
    const std::string spool_takes = "takes the path of a directory that can be written to";
    const support::temp_dir dir;
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
        {{"--rpc-addr=localhost"}, {"--rpc-addr=localhost", addr_takes}},
        {{"--rpc-addr=1.2.3.4.5"}, {"--rpc-addr=1.2.3.4.5", addr_takes}},
        {{"--rpc-addr=127.0.0.1,::1"}, {"--rpc-addr=", addr_takes}},
        {{"--rpc-addr"}, {"--rpc-addr:", addr_takes}},
        {{"--rpc-port=65536"}, {"--rpc-port=65536", port_takes}},
        {{"--rpc-port=http"}, {"--rpc-port=http", port_takes}},
        {{"--rpc-port=-1"}, {"--rpc-port=-1", port_takes}},
        {{"--rpc-port="}, {"--rpc-port=", port_takes}},
        {{"--local=a/b"}, {"--local=a/b", name_takes}},
        {{"--local=same", "--name=same"}, {"--local=same", "takes another name"}},
        {{"--tls-dir=/no/such"}, {"--tls-dir=/no/such", "takes the path of a directory"}},
        {{"--tls-dir=/dev/null"}, {"--tls-dir=/dev/null", "takes the path of a directory"}},
        {{"--tls-dir=" + dir.path()}, {"--tls-dir=", "takes the path of a directory", "secret"}},
        {{"--tls-dir"}, {"--tls-dir:", "takes the path of a directory"}},
        {{"--serial=/dev/no such"}, {"--serial=/dev/no such", serial_takes}},
        {{"--serial=/dev/null"}, {"--serial=/dev/null", serial_takes}},
        {{"--serial=" + dir.path()}, {"--serial=", serial_takes}},
        {{"--serial=" + std::string(5000, 'x')}, {"--serial=", serial_takes}},
        {{"--baud=49"}, {"--baud=49", baud_takes}},
        {{"--baud=fast"}, {"--baud=fast", baud_takes}},
        {{"--baud=4000001"}, {"--baud=4000001", baud_takes}},
        {{"--spool=/no/such"}, {"--spool=/no/such", spool_takes}},
        {{"--spool=/dev/null"}, {"--spool=/dev/null", spool_takes}},
        {{"--spool=\x1b["}, {"--spool=?[", spool_takes}},
        {{"--spool="}, {"--spool=", spool_takes}},
        {{"--max-conn=0"}, {"--max-conn=0", "takes a whole number, 1 to 256"}},
        {{"--max-conn=257"}, {"--max-conn=257", "takes a whole number, 1 to 256"}},
        {{"--max-conn=many"}, {"--max-conn=many", "takes a whole number, 1 to 256"}},
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
    foreground help = start({"--help", "-f", "no such file"});
    const std::string text = help.read_rest();
    EXPECT_EQ(help.wait(), 0);
    for (const char *option : {"--name=NAME", "--period=MS", "--rpc-addr=ADDR", "--rpc-port=PORT",
                               "--local=NAME", "--tls-dir=DIR", "--serial=DEVICE", "--baud=RATE",
                               "--spool=DIR", "--max-conn=N", "--config=FILE", "--daemon"})
    {
        EXPECT_NE(text.find(option), std::string::npos) << text;
    }
    foreground version = start({"-v"});
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
        {"rpc-port = x\n", {":1: rpc-port:", "'x'", "takes a whole number, 0 to 65535"}},
        {"spool = /no/such\n", {":1: spool:", "'/no/such'", "takes the path of a directory"}},
        {"spool =\n", {":1: spool:", "''", "takes the path of a directory"}},
        {"max-conn = 0\n", {":1: max-conn:", "'0'", "takes a whole number, 1 to 256"}},
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

TEST(Gatewayd, EverySettingOfTheConfigurationIsTaken)
{
    const instance self;
    const support::temp_dir dir;
    const support::serial_pty tty;
    const std::string port = std::to_string(support::free_port());
    const std::string file = dir.file("gatewayd.conf");
    support::write_file(file, "period = 100\nrpc-addr = ::1\nrpc-port = " + port + "\nlocal = " +
                                  self.name() + "-local\nserial = " + tty.slave_name() +
                                  "\nbaud = 19200\nspool = " + dir.path() + "\nmax-conn = 2\n");
    foreground daemon = start_running(
        self, {"-f", file, "--rpc-addr=127.0.0.1", "--period=200"},
        {"telemetry every 200 ms", "RPC on 127.0.0.1:" + port,
         "RPC on local socket " + self.name() + "-local", "IPC as " + self.name(),
         "reading points from " + tty.slave_name() + " at 19200 baud", "files into " + dir.path()});
    expect_orderly_end(daemon);
}

// What can only be found out in the attempt ends it as well.
TEST(Gatewayd, PlacesThatAreTakenEndWithALine)
{
    const instance self;
    const instance other;
    const std::string port = "--rpc-port=" + std::to_string(support::free_port());
    foreground first = start_running(self, {port, "--local=" + self.name() + "-local"});
    expect_failure(
        {{other.option(), port}, {"cannot serve RPC on 127.0.0.1", "ended with status 1"}});
    expect_failure({{other.option(), "--local=" + self.name() + "-local"},
                    {"cannot serve RPC on " + self.name() + "-local"}});
    expect_failure({{other.option(), "--local=" + self.name()}, {"cannot serve RPC on"}});
    EXPECT_FALSE(other.has_heap());
    expect_orderly_end(first);
}

TEST(Gatewayd, ConfigurationIsHonouredAndTheCommandLineWins)
{
    const instance self;
    const instance other;
    const support::temp_dir dir;
    const std::string file = dir.file("gatewayd.conf");
    support::write_file(file, "# of this test\r\n\r\n  period = 250\r\n\tname\t=\t" + self.name() +
                                  "  # the instance\r\n#period = 1\nperiod=300");
    foreground daemon = start({"-f", file});
    EXPECT_TRUE(daemon.wait_for_line(self.name() + ": telemetry every 300 ms"));
    ASSERT_TRUE(daemon.wait_for_line("running"));
    EXPECT_TRUE(self.is_locked());

    foreground neighbour = start({other.option(), "-f", file, "--period=50"});
    EXPECT_TRUE(neighbour.wait_for_line(other.name() + ": telemetry every 50 ms"));
    ASSERT_TRUE(neighbour.wait_for_line("running"));
    EXPECT_TRUE(other.is_locked());
    expect_orderly_end(neighbour, SIGTERM);
    expect_orderly_end(daemon, SIGTERM);
}
