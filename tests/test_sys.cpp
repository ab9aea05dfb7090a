// System services: time texts, the clock and its monitor, the program's place, shell commands, the
// watchdog.

#include "support.h"
#include "support_clock.h"

#include "tarn_process.h"
#include "tarn_sys.h"
#include "tarn_thread.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <thread>

#include <sys/resource.h>
#include <sys/wait.h>

using support::child_process;
using support::expect_check;
using support::log_capture;
using support::wait_until;

namespace
{

/** No new descriptors for its scope. */
class no_descriptors
{
public:
    no_descriptors()
    {
        getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none = {3, before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    no_descriptors(const no_descriptors &) = delete;
    no_descriptors &operator=(const no_descriptors &) = delete;
    ~no_descriptors()
    {
        setrlimit(RLIMIT_NOFILE, &before_);
    }

private:
    rlimit before_{};
};

// ---- time texts ----------------------------------------------------------------------------------

/** The local zone for its scope. */
class zone
{
public:
    explicit zone(const char *name)
    {
        tarn_process_setenv("TZ", name, true);
    }
    zone(const zone &) = delete;
    zone &operator=(const zone &) = delete;
    ~zone()
    {
        tarn_process_setenv("TZ", "UTC0", true);
    }
};

TEST(SysTime, PrintsLocalTimeWithTheOffsetThatHolds)
{
    constexpr const char *new_york = "EST5EDT,M3.2.0,M11.1.0";
    struct row
    {
        const char *zone;
        uint64_t seconds;
        const char *local;
        const char *utc;
    };
    for (const row &r :
         {row{new_york, 1705320000, "2024-01-15T07:00:00-05:00", "2024-01-15T12:00:00Z"},
          row{new_york, 1719835200, "2024-07-01T08:00:00-04:00", "2024-07-01T12:00:00Z"},
          row{"IST-5:30", 1705320000, "2024-01-15T17:30:00+05:30", "2024-01-15T12:00:00Z"},
          row{"WEST0:30", 1705320000, "2024-01-15T11:30:00-00:30", "2024-01-15T12:00:00Z"},
          row{"NST3:30", 0, "1969-12-31T20:30:00-03:30", "1970-01-01T00:00:00Z"},
          row{"UTC0", 4102444800, "2100-01-01T00:00:00+00:00", "2100-01-01T00:00:00Z"},
          row{"FAR-24", 32503680000, "3000-01-02T00:00:00+24:00", "3000-01-01T00:00:00Z"}})
    {
        const zone z(r.zone);
        const tarn_time time = {r.seconds, 999999};
        EXPECT_STREQ(tarn_time_get_iso8601_str(&time, true, nullptr, 0), r.local);
        EXPECT_STREQ(tarn_time_get_iso8601_str(&time, false, nullptr, 0), r.utc);
    }
    const zone z(new_york);
    const tarn_time time = {1719835200, 0};
    char text[64];
    EXPECT_STREQ(tarn_time_format(&time, true, "%d %B %Y %H:%M %z %Z", nullptr, 0),
                 "01 July 2024 08:00 -0400 EDT");
    EXPECT_EQ(tarn_time_format(&time, false, "%H:%M", text, sizeof text), text);
    EXPECT_STREQ(text, "12:00");
    EXPECT_EQ(tarn_time_print(text, sizeof text, &time, "%j", true), 3);
    EXPECT_STREQ(text, "183");
    EXPECT_EQ(tarn_time_print(text, sizeof text, nullptr, "%s", true), 10); // now
    EXPECT_NEAR(std::atof(text), static_cast<double>(tarn_time_now()), 5.0);
}

TEST(SysTime, KeepsToTheBufferAndToTheThread)
{
    const zone z("UTC0");
    const tarn_time time = {1705320000, 0};
    const std::string base = "2024-01-15T12:00:00";
    for (size_t size = 1; size < 28; ++size)
    {
        const std::unique_ptr<char[]> text(new char[size]); // an exact block, for the sanitizer
        EXPECT_EQ(tarn_time_get_iso8601_str(&time, false, text.get(), size), text.get());
        EXPECT_EQ(text.get(), size < 20 ? "" : size < 21 ? base : base + "Z");
        (void)tarn_time_get_iso8601_str(&time, true, text.get(), size);
        EXPECT_EQ(text.get(), size < 20 ? "" : size < 26 ? base : base + "+00:00");
        EXPECT_EQ(tarn_time_print(text.get(), size, &time, "%F", false), size < 11 ? 0 : 10);
        EXPECT_EQ(std::strlen(text.get()), size < 11 ? 0u : 10u);
    }
    const std::string wide(200, 'x');
    EXPECT_STREQ(tarn_time_format(&time, false, wide.c_str(), nullptr, 0), "");
    for (const uint64_t no_date : {UINT64_MAX / 4, UINT64_MAX})
    {
        const tarn_time beyond = {no_date, 0};
        EXPECT_STREQ(tarn_time_get_iso8601_str(&beyond, true, nullptr, 0), "");
    }
    const char *const kept = tarn_time_format(&time, false, "kept", nullptr, 0);
    (void)tarn_time_get_iso8601_str(&time, false, nullptr, 0);
    std::thread([&] { (void)tarn_time_format(&time, false, "other", nullptr, 0); }).join();
    EXPECT_STREQ(kept, "kept");

    for (const char *text : {"RVOF(size > 0,NULL)", "RVOT(buf == NULL && len > 0,TARN_ERRLN)",
                             "RVOT(buf != NULL && len == 0,TARN_ERRLN)"})
    {
        expect_check(text);
    }
    char c = '?';
    EXPECT_EQ(tarn_time_format(&time, false, "", &c, 0), nullptr);
    EXPECT_EQ(tarn_time_get_iso8601_str(&time, false, &c, 0), nullptr);
    EXPECT_LT(tarn_time_print(nullptr, 5, &time, "%F", false), 0);
    EXPECT_LT(tarn_time_print(&c, 0, &time, "%F", false), 0);
    EXPECT_EQ(tarn_time_print(nullptr, 0, &time, "%F", false), 0);
    EXPECT_EQ(c, '?');
}

// ---- the clock -----------------------------------------------------------------------------------

TEST(SysClock, IsSetWithThePrivilegeOnly)
{
    const support::clock_lock clock;
    const support::leak_check leaks;
    log_capture log;
    expect_check("RVON(time,false)");
    EXPECT_FALSE(tarn_time_set(nullptr));
    const tarn_time wrong = {1705320000, 1000000};
    EXPECT_FALSE(tarn_time_set(&wrong));
    EXPECT_EQ(log.count("clock_settime failed, error = "), 1u);
    log.clear();
    const bool allowed = support::set_clock_to_itself();
    tarn_time now{};
    ASSERT_TRUE(tarn_time_get(&now));
    EXPECT_EQ(tarn_time_set(&now), allowed);
    EXPECT_EQ(log.contains("error", "clock_settime failed, error = 1 (Operation not permitted)"),
              !allowed);
    EXPECT_EQ(log.contains("cmd = hwclock -w -f /dev/rtc, status = "), allowed);
}

std::atomic<int> changes{0};

TEST(SysClock, MonitorReportsEachChangeOnce)
{
    const support::clock_lock clock;
    (void)support::layer(); // what stays of a first start-up is no leak
    const support::leak_check leaks;
    log_capture log;
    changes = 0;
    const auto count = [] { ++changes; };
    const support::layer layer;
    {
        const no_descriptors none;
        EXPECT_EQ(tarn_time_monitor_change(count), -2);
        EXPECT_TRUE(log.contains("error", "timerfd_create failed, error = 24"));
    }
    for (const char *text :
         {"RVON(thread,-3)", "RVON(t,TARN_INVALID_HANDLE)", "RVON(ev,TARN_INVALID_HANDLE)",
          "RVOT(time_change_monitor_thread != TARN_INVALID_HANDLE,-1)"})
    {
        expect_check(text);
    }
    EXPECT_EQ(support::fail_each_allocation([&](size_t) {
                  const int rc = tarn_time_monitor_change(count);
                  EXPECT_EQ(rc, support::allocation_failed() ? -3 : 0);
              }),
              3u);
    EXPECT_EQ(tarn_time_monitor_change(count), -1);
    ASSERT_TRUE(log.wait_for("errno = 11")); // it has looked and found nothing
    EXPECT_EQ(changes, 0);
    const bool allowed = support::set_clock_to_itself();
    EXPECT_TRUE(!allowed || wait_until([] { return changes == 1; }));
    EXPECT_EQ(log.contains("trace", "time_change_monitor_proc: time changed."), allowed);
    log.clear();
    ASSERT_TRUE(log.wait_for("errno = 11"));
    EXPECT_EQ(changes, allowed ? 1 : 0);
}

// ---- the program's place -------------------------------------------------------------------------

/** Prints its name and directory, after a line of input. */
TARN_TEST_ROLE(where)
{
    std::getchar();
    char name[512] = "";
    char directory[4200] = "";
    const int name_length = tarn_sys_get_process_name(name, sizeof name);
    const int directory_length = tarn_sys_get_process_directory(directory, sizeof directory);
    std::printf("%d %s\n%d %s\n", name_length, name, directory_length, directory);
    return 0;
}

TEST(SysPlace, IsFoundForDeepPathsAndDeletedPrograms)
{
    const support::temp_dir dir;
    std::string deep = dir.path();
    while (deep.size() < 3500)
    {
        deep += "/" + std::string(200, 'd');
    }
    std::filesystem::create_directories(deep);
    for (const char *name : {"program", "named (deleted)"})
    {
        for (const bool deleted : {false, true})
        {
            const std::string path = deep + "/" + name;
            std::filesystem::copy_file("/proc/self/exe", path);
            child_process child = child_process::program({path, "--role=where"});
            if (deleted)
            {
                // not before the loader is done with it
                EXPECT_TRUE(wait_until([&] {
                    std::error_code ignored;
                    return std::filesystem::read_symlink(
                               "/proc/" + std::to_string(child.pid()) + "/exe", ignored) == path;
                }));
                std::filesystem::remove(path);
            }
            child.write_line("");
            EXPECT_EQ(child.read_line(), std::to_string(std::strlen(name)) + " " + name);
            EXPECT_EQ(child.read_line(), std::to_string(deep.size()) + " " + deep);
            EXPECT_EQ(child.wait(), 0);
            std::filesystem::remove(path);
        }
    }
}

TEST(SysPlace, RefusesSmallBuffers)
{
    const std::string path = std::filesystem::read_symlink("/proc/self/exe");
    const size_t name = path.size() - path.rfind('/') - 1;
    const size_t directory = path.rfind('/');
    for (const char *text :
         {"RVON(buf,-1)", "RVOF(len > 1,-2)", "RVON(path,-3)", "RVOF(length < len,-5)",
          "RVON(buf,TARN_ERRLN)", "RVOF(len > 1,TARN_ERRLN)", "RVOF(length < len,TARN_ERRLN)"})
    {
        expect_check(text);
    }
    char text[4200] = "?";
    EXPECT_EQ(tarn_sys_get_process_name(nullptr, 10), -1);
    EXPECT_EQ(tarn_sys_get_process_name(text, 1), -2);
    EXPECT_EQ(tarn_sys_get_process_name(text, name), -5);
    EXPECT_LT(tarn_sys_get_process_directory(nullptr, 10), 0);
    EXPECT_LT(tarn_sys_get_process_directory(text, 1), 0);
    EXPECT_LT(tarn_sys_get_process_directory(text, directory), 0);
    EXPECT_STREQ(text, "?");
    (void)support::fail_each_allocation([&](size_t nth) {
        EXPECT_EQ(tarn_sys_get_process_name(text, name + 1),
                  nth == 1 ? -3 : static_cast<int>(name));
    });
    EXPECT_EQ(path.substr(directory + 1), text);
    EXPECT_EQ(tarn_sys_get_process_directory(text, directory + 1), static_cast<int>(directory));
    EXPECT_EQ(path.substr(0, directory), text);
}

TARN_TEST_ROLE(directories)
{
    std::printf("%s\n%s\n%s\n%s\n", tarn_sys_default_ca_file(), tarn_sys_project_dir(),
                tarn_sys_install_dir(), tarn_sys_temp_dir());
    tarn_process_setenv("FERNWICK_PATH", "/late", true);
    tarn_process_setenv("TMPDIR", "/late", true);
    std::printf("%s\n%s\n", tarn_sys_install_dir(), tarn_sys_temp_dir());
    return 0;
}

TEST(SysPlace, DirectoriesComeFromTheEnvironmentOnce)
{
    struct row
    {
        std::vector<std::string> environment;
        std::string install;
        std::string temp;
    };
    const std::string huge(3000, 'h');
    for (const row &r :
         {row{{"FERNWICK_PATH=/f", "MOSSVAL_PATH=/m", "TMPDIR=/t"}, "/f", "/t"},
          row{{"FERNWICK_PATH=", "MOSSVAL_PATH=/m", "TMPDIR="}, "/m", "/tmp"},
          row{{"FERNWICK_PATH=", "MOSSVAL_PATH=", "TMPDIR=/t"}, "/opt/fernwick", "/t"},
          row{{"FERNWICK_PATH=" + huge, "TMPDIR=/t"}, huge.substr(0, 1024), "/t"}})
    {
        child_process child =
            child_process::program({"/proc/self/exe", "--role=directories"}, r.environment);
        EXPECT_EQ(child.read_line(), r.install + "/project/default-ca-certificates.crt");
        EXPECT_EQ(child.read_line(), r.install + "/project");
        EXPECT_EQ(child.read_line(), r.install);
        EXPECT_EQ(child.read_line(), r.temp);
        EXPECT_EQ(child.read_line(), r.install);
        EXPECT_EQ(child.read_line(), "/late");
        EXPECT_EQ(child.wait(), 0);
    }
}

// ---- shell commands ------------------------------------------------------------------------------

/** Runs a command and gives its result; output receives what it printed, up to `bytes`. */
int run(const char *cmd, std::string *output, size_t bytes = 0, uint32_t timeout_ms = TARN_INFINITE)
{
    char *text = nullptr;
    const int rc = tarn_sys_command_run(cmd, &text, timeout_ms);
    output->assign(text != nullptr ? text : "",
                   text != nullptr ? std::max(bytes, std::strlen(text)) : 0);
    tarn_mem_free(text);
    return rc;
}

TEST(SysCommand, GivesTheWholeOutputAndTheExitStatus)
{
    const support::layer layer; // ignores SIGPIPE
    const support::leak_check leaks;
    std::string output;
    EXPECT_EQ(run("printf %0300d 7", &output), 0);
    EXPECT_EQ(output, std::string(299, '0') + "7");
    EXPECT_EQ(run("printf 'a\\0b\\0\\0c'; exit 7", &output, 6), 7);
    EXPECT_EQ(output, std::string("a\0b\0\0c", 6));
    EXPECT_EQ(run("exit 255", &output), 255);
    EXPECT_EQ(run("no-such-command-here 2>/dev/null", &output), 127);
    EXPECT_EQ(run("-x 2>/dev/null", &output), 127); // not an option of the shell
    char *nothing = nullptr;
    EXPECT_EQ(tarn_sys_command_run("true", &nothing, TARN_INFINITE), 0);
    EXPECT_EQ(nothing, nullptr);

    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    constexpr size_t large = 10 << 20;
    EXPECT_EQ(run("head -c 10485760 /dev/zero | tr '\\0' x", &output), 0);
    EXPECT_EQ(output, std::string(large, 'x'));
}

TEST(SysCommand, EndsByTimeOutSignalOrRefusal)
{
    const support::layer layer;
    const support::leak_check leaks;
    log_capture log;
    std::string output;
    const int killed = run("kill -9 $$", &output);
    EXPECT_LT(killed, 0);
    EXPECT_TRUE(log.contains("cmd = kill -9 $$, status = 9, rc = "));
    EXPECT_TRUE(log.contains("result = <nil>, errno = "));
    {
        const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
        const double took = support::elapsed_ms([&] {
            EXPECT_EQ(run("while :; do echo tick; done", &output, 0, 150), killed); // SIGPIPE
        });
        EXPECT_GE(took, 148.0);
        EXPECT_LT(took, 5000.0);
        EXPECT_TRUE(output.starts_with("tick\ntick\n"));
        // what is silent is waited for, but not read beyond the limit
        EXPECT_EQ(run("sleep 0.3; echo late; exit 3", &output, 0, 50), killed);
        EXPECT_EQ(output, "");
        EXPECT_EQ(run("sleep 0.2; exit 3", &output, 0, 50), 3);
        EXPECT_LT(tarn_sys_command_run("exec yes", nullptr, 0), 0);
    }
    expect_check("RVON(cmd,TARN_ERRLN)");
    EXPECT_LT(tarn_sys_command_run(nullptr, nullptr, 0), 0);
    char text[] = "mine";
    char *mine = text;
    EXPECT_LT(tarn_sys_command_run("true", &mine, 0), 0);
    EXPECT_TRUE(log.contains("error", "content of argument output should be null!"));
    EXPECT_STREQ(mine, "mine");
    const no_descriptors none;
    EXPECT_LT(run("true", &output), 0);
    EXPECT_EQ(output, "fail to run [true]\n");
    EXPECT_LT(tarn_sys_command_run("true", nullptr, 0), 0);
}

TEST(SysCommand, LeavesNothingBehind)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    const support::leak_check leaks;
    std::string output;
    for (int i = 0; i < (support::with_sanitizer ? 100 : 1000); ++i)
    {
        ASSERT_EQ(run("echo x", &output), 0);
        ASSERT_EQ(output, "x\n");
    }
    EXPECT_EQ(support::fail_each_allocation([&](size_t nth) {
                  EXPECT_EQ(run("printf %0300d 7", &output), 0);
                  EXPECT_EQ(output.size() < 300, support::allocation_failed()) << nth;
              }),
              3u); // 128, 256 and 300 bytes
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

// ---- the watchdog --------------------------------------------------------------------------------

/** Sets a time-out, kicks and takes itself out, telling the results. */
TARN_TEST_ROLE(watchdog)
{
    tarn_log_level_set(TARN_LOG_LEVEL_DEBUG);
    tarn_init();
    std::printf("set %d\n", tarn_wdt_set_timeout(30));
    std::printf("get %u\n", tarn_wdt_get_timeout());
    tarn_wdt_kick();
    std::printf("reset %d\n", tarn_wdt_set_timeout(0));
    std::printf("get %u\n", tarn_wdt_get_timeout());
    std::printf("set %d\n", tarn_process_wdt_set_timeout(5) == 0);
    tarn_process_wdt_kick();
    std::printf("reset %d\n", tarn_process_wdt_disable() == 0);
    tarn_uninit();
    return 0;
}

/** What the role and the library print, without log lines; those go to *log. */
std::vector<std::string> watchdog_story(const std::vector<std::string> &environment,
                                        std::string *log)
{
    child_process child =
        child_process::program({"/proc/self/exe", "--role=watchdog"}, environment);
    std::istringstream lines(child.read_rest());
    std::vector<std::string> story;
    log->clear();
    for (std::string line; std::getline(lines, line);)
    {
        // The role's and the library's own lines; log lines may go on over several.
        const std::string word = line.substr(0, line.find(' '));
        if (word == "set" || word == "get" || word == "reset" || word == "register" ||
            word == "strobe" || word == "unregister")
        {
            story.push_back(line);
        }
        else
        {
            *log += line + "\n";
        }
    }
    EXPECT_EQ(child.wait(), 0);
    return story;
}

std::string library(const char *missing)
{
    return std::string("LD_LIBRARY_PATH=" TARN_WATCHPROCESS_DIR "/") + missing;
}

using story = std::vector<std::string>;

TEST(SysWatchdog, IsServedByTheLibraryAsFarAsItGoes)
{
    const story whole = {"register 30", "set 1",      "get 30", "strobe", "unregister", "reset 1",
                         "get 0",       "register 5", "set 1",  "strobe", "unregister", "reset 1"};
    std::string log;
    for (const char *missing : {"nothing", "unregister_cmd", "error_string"})
    {
        EXPECT_EQ(watchdog_story({library(missing)}, &log), whole) << missing;
    }
    EXPECT_EQ(watchdog_story({library("register")}, &log),
              (story{"set 0", "get 0", "strobe", "unregister", "reset 1", "get 0", "set 0",
                     "strobe", "unregister", "reset 1"}));
    EXPECT_EQ(watchdog_story({library("strobe")}, &log),
              (story{"register 30", "set 1", "get 30", "unregister", "reset 1", "get 0",
                     "register 5", "set 1", "unregister", "reset 1"}));
    EXPECT_EQ(watchdog_story({library("unregister")}, &log),
              (story{"register 30", "set 1", "get 30", "strobe", "reset 0", "get 30", "register 5",
                     "set 1", "strobe", "reset 0"}));

    EXPECT_EQ(watchdog_story({library("nothing"), "WATCH_PROCESS_RC=4"}, &log),
              (story{"register 30", "set 0", "get 0", "strobe", "unregister", "reset 0", "get 0",
                     "register 5", "set 0", "strobe", "unregister", "reset 0"}));
    for (const char *text :
         {"watch_process_register with timeout 30 seconds failed, rc = 4",
          "watch_process_strobe failed, rc = 4", "watch_process_unregister failed, rc = 4"})
    {
        EXPECT_NE(log.find(text), std::string::npos) << text;
    }
}

TEST(SysWatchdog, IsNotThereWithoutLibraryOrWhenDisabled)
{
    std::string log;
    EXPECT_EQ(watchdog_story({library("nowhere")}, &log),
              (story{"set 0", "get 0", "reset 0", "get 0", "set 0", "reset 0"}));
    EXPECT_NE(log.find("RVOF(watch_process_dll_h != ((void *)0),false) failed"), std::string::npos);
    for (const char *word : {"1", "y", "true", "yes", "YES", "0", "no", ""})
    {
        const bool disabled = std::strchr("1yYt", *word) != nullptr && *word != '\0';
        const story told =
            watchdog_story({library("nothing"), std::string("TARN_WDT_DISABLED=") + word}, &log);
        EXPECT_EQ(told == (story{"set 1", "get 0", "reset 1", "get 0", "set 1", "reset 1"}),
                  disabled)
            << word;
        EXPECT_EQ(log.find("watch dog function disabled by environment variable "
                           "TARN_WDT_DISABLED") != std::string::npos,
                  disabled);
        EXPECT_EQ(log.find("RVOT(watch_process_disabled,true) failed") != std::string::npos,
                  disabled);
    }
}

// ---- start-up ------------------------------------------------------------------------------------

TEST(Sys, StartUpSwitchesCoreDumpsOff)
{
    log_capture log;
    const support::layer layer;
    EXPECT_TRUE(log.contains("trace", "RLIMIT_CORE returned 0"));
    rlimit core{};
    getrlimit(RLIMIT_CORE, &core);
    EXPECT_EQ(core.rlim_cur + core.rlim_max, 0u);
}

} // namespace
