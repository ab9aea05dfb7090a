// gatewayd in the foreground: telemetry, options, configuration file, signals.

#include "gatewayd_support.h"

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
    expect_failure({{self.option()}, {"an instance is already running", self.name()}});
    expect_failure({{self.option(), "-d"}, {"an instance is already running"}});
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
