// gatewayd under a service manager: in the background with its lines in syslog, its level file, the
// process watchdog.

#include "gatewayd_support.h"

#include "tarn_sys.h"

#include <utility>

#include <sys/prctl.h>

using namespace gatewayd_test;

namespace
{

/** An instance in the background. Its parent ends; the test becomes the new one and so learns the
 *  exit status. */
class background
{
public:
    background(const instance &self, std::vector<std::string> arguments) : self_(self)
    {
        EXPECT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        // the variable may be set already, and the first one of a name counts
        const char *const asan = std::getenv("ASAN_OPTIONS");
        const std::string options = asan != nullptr ? asan : "";
        arguments.insert(arguments.begin(),
                         {"/usr/bin/env", "ASAN_OPTIONS=" + options + ":verify_asan_link_order=0",
                          "LD_PRELOAD=" TARN_TEST_SYSLOG_LIBRARY,
                          "TARN_TEST_SYSLOG=" + dir_.file("syslog"), program, "-d", self.option()});
        child_process parent = child_process::program(arguments);
        EXPECT_EQ(parent.read_rest(), ""); // to the end: the daemon has let go of the terminal
        EXPECT_EQ(parent.wait(), 0);
        pid_ = find();
        EXPECT_GT(pid_, 0);
        EXPECT_TRUE(self.is_locked());
    }
    background(const background &) = delete;
    background &operator=(const background &) = delete;
    ~background()
    {
        if (pid_ > 0)
        {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    [[nodiscard]] pid_t pid() const
    {
        return pid_;
    }
    [[nodiscard]] std::string log() const
    {
        return support::read_file(dir_.file("syslog"));
    }
    [[nodiscard]] bool wait_for(const std::string &text) const
    {
        return support::wait_until([&] { return log().find(text) != std::string::npos; }, 60000);
    }
    void expect_orderly_end()
    {
        ASSERT_GT(pid_, 0); // -1 would be every process
        ::kill(pid_, SIGTERM);
        int status = -1;
        EXPECT_TRUE(
            support::wait_until([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, 20000));
        EXPECT_EQ(status, 0);
        pid_ = -1;
        EXPECT_FALSE(self_.is_locked());
    }

private:
    /** The process that has the instance's name among its arguments. */
    [[nodiscard]] pid_t find() const
    {
        for (const auto &entry : std::filesystem::directory_iterator("/proc"))
        {
            const pid_t pid = std::atoi(entry.path().filename().c_str());
            if (pid > 0 && pid != ::getpid() &&
                support::read_file(entry.path() / "cmdline").find(self_.name()) !=
                    std::string::npos)
            {
                return pid;
            }
        }
        return -1;
    }

    const instance &self_;
    const support::temp_dir dir_;
    pid_t pid_ = -1;
};

/** Lines of the log that hold the text. */
size_t count(const std::string &log, const std::string &text)
{
    size_t found = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
    {
        ++found;
    }
    return found;
}

} // namespace

TEST(GatewaydDaemon, ReadsRelativePathsAndEndsOrderly)
{
    const instance self;
    const support::temp_dir dir;
    ASSERT_EQ(::mkdir(dir.file("files").c_str(), 0700), 0);
    support::write_file(dir.file("relative.conf"),
                        "period = 20\nname = " + self.name() + "\nspool = files\n");
    const std::filesystem::path directory = std::filesystem::current_path();
    std::filesystem::current_path(dir.path());
    background daemon(self, {"-f", "relative.conf"});
    std::filesystem::current_path(directory);
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(daemon.pid()) + "/cwd"), "/");
    ASSERT_TRUE(daemon.wait_for("running"));
    EXPECT_TRUE(daemon.wait_for("files into " + dir.file("files")));
    EXPECT_TRUE(self.has_heap());
    daemon.expect_orderly_end();
    EXPECT_FALSE(self.has_heap());
}

// While it is quiet the daemon still changes points: uptime, every 20 ms.
TEST(GatewaydDaemon, LevelFileSilencesARunningDaemonAndItsSuccessor)
{
    const instance self;
    {
        background daemon(self, {"--period=20"});
        ASSERT_TRUE(daemon.wait_for("uptime_s = "));
        EXPECT_EQ(support::read_file(self.level_file()), "INFO\n");
        support::write_file(self.level_file(), "ERROR\n");
        ASSERT_TRUE(daemon.wait_for("<4>"));
        EXPECT_TRUE(daemon.wait_for("change the log level from INFO to ERROR"));
        // readings under way may still get a line out
        size_t before = count(daemon.log(), "\n");
        EXPECT_TRUE(support::wait_until([&] {
            tarn_sleep_ms(200);
            return std::exchange(before, count(daemon.log(), "\n")) == before;
        }));
        support::write_file(self.level_file(), "INFO\n");
        EXPECT_TRUE(support::wait_until([&] { return count(daemon.log(), "\n") > before; }));
        support::write_file(self.level_file(), "ERROR\n");
        EXPECT_TRUE(
            support::wait_until([&] { return count(daemon.log(), "from INFO to ERROR") == 2; }));
        daemon.expect_orderly_end();
    }
    background successor(self, {"--period=20", "--log-level=DEBUG"});
    EXPECT_TRUE(support::wait_until([&] { return self.has_heap(); }, 60000));
    EXPECT_EQ(support::read_file(self.level_file()), "ERROR\n");
    const std::string log = successor.log();
    EXPECT_EQ(count(log, "uptime_s = "), 0u) << log;
    EXPECT_EQ(count(log, "telemetry every"), 0u) << log;
    support::write_file(self.level_file(), "DEBUG\n");
    EXPECT_TRUE(successor.wait_for(" points, "));
    successor.expect_orderly_end();
}

TEST(GatewaydDaemon, KicksTheWatchdogThatIsThere)
{
    const instance self;
    foreground daemon = start({self.option(), "--period=3600000"},
                              {"LD_LIBRARY_PATH=" TARN_WATCHPROCESS_DIR "/nothing"});
    EXPECT_TRUE(daemon.wait_for_line("register 30"));
    EXPECT_TRUE(daemon.wait_for_line("strobe"));
    EXPECT_TRUE(daemon.wait_for_line("strobe"));
    daemon.signal(SIGTERM);
    EXPECT_TRUE(daemon.wait_for_line("unregister"));
    EXPECT_EQ(daemon.wait(), 0);
}
