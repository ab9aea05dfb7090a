// The log level file, with the real example daemon and with the functions alone.

#include "support.h"

#include "tarn_log.h"
#include "tarn_process.h"

#include <filesystem>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using support::expect_check;
using support::log_capture;

namespace
{

constexpr char level_dir[] = "/tmp/tarn_log_level";

std::string level_file(const std::string &name)
{
    return std::string(level_dir) + "/" + name;
}

TEST(LevelFile, OnlyRegularFilesAreRead)
{
    const support::temp_dir dir;
    const std::string file = dir.file("level");
    const support::level_scope level(TARN_LOG_LEVEL_DEBUG);
    const std::pair<const char *, int32_t> texts[] = {
        {"ERROR\n", 3}, {" warn ", 4}, {"", 7}, {"verbose", 7}, {"INFO\0ERROR", 5}};
    log_capture log;
    for (const auto &[text, expected] : texts)
    {
        support::write_file(file, text);
        EXPECT_EQ(log_level_file_read(file.c_str()), expected) << text;
    }
    EXPECT_TRUE(log.contains("debug", "read " + file + " get ERROR"));
    support::write_file(file, std::string(1 << 20, ' ') + "ERROR"); // only the beginning counts
    EXPECT_EQ(log_level_file_read(file.c_str()), 7);
    support::write_file(file, "ERROR");
    ASSERT_EQ(::symlink(file.c_str(), dir.file("link").c_str()), 0);
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);
    for (const char *name : {"link", "fifo", "none", "."})
    {
        EXPECT_EQ(log_level_file_read(dir.file(name).c_str()), 7) << name;
        EXPECT_TRUE(log.contains("debug", "read " + dir.file(name) + " get (null)"));
    }
    expect_check("RVON(path,current)");
    EXPECT_EQ(log_level_file_read(nullptr), 7);
}

/** Starts the monitor under an instance name, the way a daemon has one; prints its lines. */
TARN_TEST_ROLE(level_monitor)
{
    const char *argv[] = {"level_monitor", nullptr};
    ::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (tarn_process_parse_cmdline(1, const_cast<char *const *>(argv), args[0].c_str(), "1", "",
                                   true, nullptr) != 0 ||
        !tarn_init())
    {
        return 1;
    }
    tarn_log_level_set(TARN_LOG_LEVEL_DEBUG);
    if (args.size() > 1)
    {
        [[maybe_unused]] const int lowered = ::seteuid(65534);
    }
    const int rc = tarn_log_level_monitor_start();
    if (rc == 0 && tarn_log_level_monitor_start() >= 0)
    {
        return 2;
    }
    TARN_LOG_FATAL("result %d", rc < 0 ? -1 : rc);
    std::string line(64, '\0');
    while (::fgets(line.data(), 64, stdin) != nullptr)
    {
        TARN_LOG_WARN("a warning");
        TARN_LOG_FATAL("%.*s", static_cast<int>(line.find('\n')), line.c_str());
    }
    [[maybe_unused]] const int raised = ::seteuid(::getuid()); // a leak checker needs the rights
    tarn_uninit();
    return 0;
}

class LevelMonitor : public testing::Test
{
protected:
    std::string name_ = support::unique_name("level");
    std::string file_ = level_file(name_);
    void TearDown() override
    {
        std::filesystem::remove(file_);
        std::filesystem::remove("/tmp/tarn_proc_" + name_ + ".pid");
    }
};

TEST_F(LevelMonitor, MakesTheFileFollowsItAndFindsItAgain)
{
    const mode_t mask = ::umask(077);
    {
        auto child = support::child_process::role("level_monitor", {name_});
        ::umask(mask);
        EXPECT_TRUE(child.wait_for_line("write the log level \"DEBUG\" to " + file_));
        EXPECT_TRUE(child.wait_for_line("already started"));
        EXPECT_TRUE(child.wait_for_line("result 0"));
        EXPECT_EQ(support::read_file(file_), "DEBUG\n");
        struct stat status
        {
        };
        ASSERT_EQ(::stat(file_.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0666u);
        support::write_file(file_, "ERROR\n");
        EXPECT_TRUE(child.wait_for_line("change the log level from DEBUG to ERROR"));
        // The line comes just before the change: soon no warning stands before a marker any more.
        EXPECT_TRUE(support::wait_until([&] {
            child.write_line("marker");
            return child.read_line().find("marker") != std::string::npos ||
                   !child.wait_for_line("marker");
        }));
        child.close_input();
        EXPECT_EQ(child.wait(), 0);
    }
    auto child = support::child_process::role("level_monitor", {name_});
    EXPECT_TRUE(child.wait_for_line("result 0"));
    ASSERT_TRUE(child.write_line("marker"));
    EXPECT_NE(child.read_line().find("marker"), std::string::npos);
    support::write_file(file_, "DEBUG\n"); // and up again
    EXPECT_TRUE(support::wait_until([&] {
        child.write_line("again");
        return child.read_line().find("a warning") != std::string::npos;
    }));
    child.close_input();
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(LevelMonitor, PlantedLinksAndPipesAreRefused)
{
    const support::temp_dir dir;
    std::filesystem::create_directory(level_dir);
    for (const bool link : {true, false})
    {
        if (link)
        {
            ASSERT_EQ(::symlink(dir.file("target").c_str(), file_.c_str()), 0); // dangling
        }
        else
        {
            ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
        }
        auto child = support::child_process::role("level_monitor", {name_});
        EXPECT_TRUE(child.wait_for_line("fail to open " + file_ + " for write, error = "));
        EXPECT_TRUE(child.wait_for_line("result -1"));
        child.close_input();
        EXPECT_EQ(child.wait(), 0);
        std::filesystem::remove(file_);
    }
    EXPECT_FALSE(std::filesystem::exists(dir.file("target")));
}

TEST_F(LevelMonitor, AFileThatCannotBeReadChangesNothing)
{
    std::filesystem::create_directory(level_dir);
    support::write_file(file_, "ERROR\n");
    ASSERT_EQ(::chmod(file_.c_str(), 0200), 0);
    auto child = support::child_process::role("level_monitor", {name_, "as an ordinary user"});
    EXPECT_TRUE(child.wait_for_line("read " + file_ + " get (null)"));
    EXPECT_TRUE(child.wait_for_line("load the log level \"DEBUG\" from " + file_));
    EXPECT_TRUE(child.wait_for_line("fail to start thread"));
    EXPECT_TRUE(child.wait_for_line("result -1"));
    child.close_input();
    EXPECT_EQ(child.wait(), 0);
}

/** Starts the monitor where its directory is a link; in a /tmp of its own. */
TARN_TEST_ROLE(planted_directory)
{
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("none", "/tmp", "tmpfs", 0, nullptr) != 0)
    {
        std::printf("refused\n");
        return 0;
    }
    if (::mkdir("/tmp/victim", 0777) != 0 || ::symlink("/tmp/victim", level_dir) != 0 ||
        tarn_log_level_monitor_start() >= 0)
    {
        return 1;
    }
    return std::filesystem::is_empty("/tmp/victim") ? 0 : 2;
}

TEST_F(LevelMonitor, APlantedDirectoryIsRefused)
{
    auto child = support::child_process::role("planted_directory");
    const std::string told = child.read_rest();
    EXPECT_TRUE(told.find("fail to create dir /tmp/tarn_log_level") != std::string::npos ||
                told == "refused\n")
        << told;
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(LevelMonitor, ALongNameIsNotCut)
{
    name_ += std::string(236 - name_.size(), 'n');
    auto child = support::child_process::role("level_monitor", {name_});
    EXPECT_TRUE(child.wait_for_line("error = 36"));
    EXPECT_TRUE(child.wait_for_line("result -1"));
    child.close_input();
    EXPECT_EQ(child.wait(), 0);
}

} // namespace
