// The process frame, in real processes: signals, command lines, instance lock, daemon mode.

#include "support.h"
#include "support_log.h"

#include "tarn_event.h"
#include "tarn_modules.h"
#include "tarn_process.h"
#include "tarn_sys.h"
#include "tarn_thread.h"

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <thread>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using support::child_process;
using support::expect_check;

// One role goes on after a fork of a process that has threads.
extern "C" const char *__tsan_default_options()
{
    return "die_after_fork=0";
}

/** Daemon mode fails; default actions of signals do nothing, as in the first process of a
 *  container. */
static bool fail_daemon = false;
static bool immune = false;

extern "C" int daemon(int nochdir, int noclose) noexcept
{
    EXPECT_EQ(nochdir | noclose, 0);
    return fail_daemon ? -1
                       : reinterpret_cast<decltype(&daemon)>(::dlsym(RTLD_NEXT, "daemon"))(0, 0);
}

extern "C" int raise(int sig) noexcept
{
    return immune ? 0 : static_cast<int>(::syscall(SYS_tgkill, ::getpid(), ::gettid(), sig));
}

namespace
{

/** Log lines as "level: message", everything else as printed. */
std::string plain(const std::string &output)
{
    std::string text;
    for (const std::string &line : support::split_lines(output))
    {
        text += support::without_prefix(line) + "\n";
    }
    return text;
}

// ---- termination signals -----------------------------------------------------------------------

/** Waits for its end. args: level, and any of "wait" (for the exit event, and then on), "daemon",
 *  "immune". */
TARN_TEST_ROLE(target)
{
    const auto given = [&](const char *word) {
        return std::find(args.begin(), args.end(), word) != args.end();
    };
    const int report = ::dup(STDOUT_FILENO);
    support::capture_syslog(report);
    EXPECT_TRUE(!given("daemon") || tarn_process_daemonize());
    EXPECT_TRUE(tarn_init());
    tarn_log_level_set(std::stoi(args[0]));
    immune = given("immune");
    for (int i = 0; i < 2; ++i)
    {
        const auto idle = [](void *, void *) -> void * { return nullptr; };
        TARN_THREAD thread = tarn_thread_start(idle, nullptr, nullptr, 1000000, "idle");
        EXPECT_TRUE(tarn_thread_wait_for_start(thread, TARN_INFINITE));
    }
    EXPECT_FALSE(given("wait") && tarn_process_wait_exit(0));
    ::dprintf(report, "pid %d threads %u\n", ::getpid(), tarn_thread_count());
    for (bool asked = false;; std::fflush(stdout))
    {
        ::usleep(1000);
        if (given("wait") && !asked && tarn_process_wait_exit(10))
        {
            std::fflush(stdout);
            asked = ::dprintf(report, "asked\n") > 0;
        }
    }
}

TEST(Signals, BeforeTheFirstWaitKillAtOnce)
{
    for (const int sig : {SIGTERM, SIGINT, SIGQUIT})
    {
        child_process child = child_process::role("target", {"6"});
        ASSERT_TRUE(child.wait_for_line("pid"));
        child.signal(sig);
        const std::string output = plain(child.read_rest());
        EXPECT_EQ(child.wait(), -sig);
        EXPECT_TRUE(output.ends_with("trace: sig = " + std::to_string(sig) +
                                     ", use_default_handler = 1, term_sig_count = 0\n"
                                     "trace: raise signal for default process\n"))
            << output;
    }
    child_process child = child_process::role("target", {"5", "immune"});
    ASSERT_TRUE(child.wait_for_line("pid"));
    child.signal(SIGTERM);
    EXPECT_EQ(child.wait(), 128 + SIGTERM);
}

TEST(Signals, ThreeAskForAnExitAndTheFourthKills)
{
    child_process child = child_process::role("target", {"6", "wait"});
    ASSERT_TRUE(child.wait_for_line("pid"));
    const int signals[] = {SIGTERM, SIGINT, SIGQUIT};
    for (int i = 0; i < 3; ++i)
    {
        child.signal(signals[i]);
        ASSERT_TRUE(child.wait_for_line(
            "sig = " + std::to_string(signals[i]) +
            ", use_default_handler = 0, term_sig_count = " + std::to_string(i)));
        ASSERT_TRUE(i != 0 || child.wait_for_line("asked"));
    }
    child.signal(SIGTERM);
    const std::string output = child.read_rest();
    EXPECT_EQ(child.wait(), -SIGTERM);
    EXPECT_EQ(plain(output), "trace: sig = 15, use_default_handler = 0, term_sig_count = 3\n"
                             "warn: 2 threads still running\n");
    EXPECT_NE(output.find(":termination_signals_handler] 2 threads"), std::string::npos) << output;
}

TEST(Signals, DaemonHandsItsLastLinesToSyslog)
{
    // By a name of its own, because a daemon has a log level file.
    const support::temp_dir dir;
    const std::string name = support::unique_name("daemon");
    std::filesystem::create_symlink(std::filesystem::canonical("/proc/self/exe"), dir.file(name));
    bool seen = false;
    for (int attempt = 0; attempt < 3 && !seen; ++attempt) // it waits for syslog 100 ms at most
    {
        child_process child =
            child_process::program({dir.file(name), "--role=target", "4", "wait", "daemon"});
        int pid = 0;
        int threads = 0;
        const std::string ready = child.read_line();
        ASSERT_EQ(std::sscanf(ready.c_str(), "pid %d threads %d", &pid, &threads), 2);
        ASSERT_GT(pid, 0);
        EXPECT_EQ(::kill(pid, SIGTERM), 0);
        EXPECT_EQ(child.read_line(), "asked");
        for (int i = 0; i < 10; ++i)
        {
            ::kill(pid, SIGTERM);
            ::usleep(10000);
        }
        const std::string rest = child.read_rest();
        seen = rest.starts_with("<4>[tarn_process_signal.cpp:") &&
               rest.ends_with("] " + std::to_string(threads) + " threads still running\n");
    }
    EXPECT_TRUE(seen);
    std::filesystem::remove("/tmp/tarn_log_level/" + name);
}

/** Sends SIGTERM until it ends the child.
 *  @return how many it took */
int terminate(child_process &child, uint32_t pause_ms)
{
    int sent = 0;
    for (int status = -1000; status != -SIGTERM && sent < 2000; ++sent)
    {
        child.signal(SIGTERM);
        status = child.wait(pause_ms);
        EXPECT_TRUE(status == -SIGTERM || status == -1000) << status;
    }
    return sent;
}

/** Several threads log and allocate. args: lines of each; "wait" for the exit event; a file to make
 *  once the pipe of standard output is full. */
TARN_TEST_ROLE(busy)
{
    const bool waits = args.size() > 1 && args[1] == "wait";
    EXPECT_TRUE(tarn_init());
    EXPECT_FALSE(waits && tarn_process_wait_exit(0));
    TARN_LOG_INFO("ready");
    std::fflush(stdout);
    if (args.size() > 2)
    {
        tarn_log_level_set(TARN_LOG_LEVEL_TRACE);
        ::fcntl(STDOUT_FILENO, F_SETFL, O_NONBLOCK);
        while (::write(STDOUT_FILENO, "x", 1) == 1)
        {
        }
        ::fcntl(STDOUT_FILENO, F_SETFL, 0);
        support::write_file(args[2], "full");
    }
    {
        const std::jthread floods([&] { support::flood(0, 4, std::stoi(args[0])); });
        while (waits && !tarn_process_wait_exit(1))
        {
        }
    }
    TARN_LOG_INFO("orderly");
    tarn_uninit();
    return 0;
}

TEST(Signals, KillAProcessThatHangsInTheLog)
{
    const support::temp_dir dir;
    for (const std::string mode : {"default", "wait"})
    {
        child_process child = child_process::role("busy", {"10000", mode, dir.file(mode)});
        ASSERT_TRUE(support::wait_until([&] { return std::filesystem::exists(dir.file(mode)); }));
        EXPECT_GE(terminate(child, 20), mode == "wait" ? 4 : 1);
    }
}

TEST(Signals, ThousandsWhileAllThreadsLogLoseNoLine)
{
    constexpr int lines = 1500;
    const int signals = support::with_sanitizer ? 1500 : 4500;
    for (int round = 0; round < (support::with_sanitizer ? 1 : 3); ++round)
    {
        child_process child = child_process::role("busy", {std::to_string(lines), "wait"});
        ASSERT_TRUE(child.wait_for_line("ready"));
        std::atomic<int> sent{0};
        const std::jthread sender([&] {
            for (int i = 1; i <= signals; sent.store(i++))
            {
                child.signal(i % (signals / 3) == 0 ? SIGTERM : i % 2 == 0 ? SIGUSR1 : SIGUSR2);
                ::usleep(10);
            }
        });
        std::string output;
        while (sent.load() < signals) // slower than the writers, whose pipe is mostly full
        {
            output += child.read_line() + "\n";
            ::usleep(200);
        }
        output += child.read_rest(60000);
        EXPECT_EQ(child.wait(), 0);
        EXPECT_EQ(support::expect_whole_floods(output, 4, lines),
                  std::vector<std::string>{"info: orderly"});
    }
}

TEST(Signals, KillABusyProcessAtAnyInstruction)
{
    for (unsigned round = 0; round < (support::with_sanitizer ? 6 : 30); ++round)
    {
        const bool waits = round % 2 == 0;
        child_process child =
            child_process::role("busy", {"1000000000", waits ? "wait" : "default"});
        ASSERT_TRUE(child.wait_for_line("ready"));
        std::string output;
        {
            const std::jthread reader([&] { output = child.read_rest(30000); });
            ::usleep(round * 100);
            EXPECT_GE(terminate(child, 2), waits ? 4 : 1);
        }
        EXPECT_EQ(output.find("0 threads still running") != std::string::npos, waits);
    }
}

/** A forked child lives by its own signals. args: what the child does. */
TARN_TEST_ROLE(forker)
{
    const std::string &mode = args[0];
    int reply[2];
    EXPECT_TRUE(tarn_init() && ::pipe2(reply, O_CLOEXEC) == 0);
    EXPECT_FALSE(tarn_process_wait_exit(0));
    // Wait until all threads run: a sanitizer's thread start is not made for a fork in its middle.
    ::kill(::getpid(), SIGTERM);
    EXPECT_TRUE(tarn_process_wait_exit(10000));
    EXPECT_TRUE(tarn_event_reset(__tarn_process_exit_event__));
    if (mode == "both start")
    {
        tarn_uninit();
        ::kill(::getpid(), SIGTERM); // there is no event to set, and the next one begins not set
    }
    const pid_t pid = ::fork();
    if (pid == 0 && mode == "restarts")
    {
        tarn_uninit();
    }
    EXPECT_TRUE((mode != "both start" && (pid != 0 || mode != "restarts")) || tarn_init());
    if (pid == 0)
    {
        EXPECT_TRUE(mode != "becomes a daemon" || tarn_process_daemonize());
        const bool early = mode != "does not wait" && tarn_process_wait_exit(0);
        ::kill(::getpid(), SIGTERM);
        const bool asked = tarn_process_wait_exit(10000);
        EXPECT_EQ(::write(reply[1], !early && asked ? "y" : "n", 1), 1);
        ::_exit(0);
    }
    ::close(reply[1]);
    char answer = '-';
    int status = 0;
    EXPECT_GE(::read(reply[0], &answer, 1), 0);
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    const bool disturbed = tarn_process_wait_exit(100);
    ::kill(::getpid(), SIGTERM);
    std::printf("%c %d, disturbed %d, asked %d\n", answer, status, disturbed,
                tarn_process_wait_exit(10000));
    tarn_uninit();
    return 0;
}

TEST(Signals, OfAForkedChildDoNotReachItsParent)
{
    for (const char *mode :
         {"does not wait", "waits", "becomes a daemon", "restarts", "both start"})
    {
        child_process child = child_process::role("forker", {mode});
        const std::string answer = mode == std::string("does not wait") ? "- 15" : "y 0";
        EXPECT_EQ(child.read_rest(), answer + ", disturbed 0, asked 1\n") << mode;
        EXPECT_EQ(child.wait(), 0);
    }
}

TEST(Signals, InterruptWaitsAndArePlain)
{
    (void)::signal(SIGPIPE, SIG_DFL);
    const support::layer layer;
    for (const int sig : {SIGTERM, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGPIPE})
    {
        struct sigaction action
        {
        };
        ASSERT_EQ(::sigaction(sig, nullptr, &action), 0);
        EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_NODEFER | SA_RESETHAND | SA_SIGINFO), 0);
        EXPECT_TRUE(support::with_tsan || sigisemptyset(&action.sa_mask)); // it sets its own
        EXPECT_NE(action.sa_handler, SIG_DFL);
        EXPECT_EQ(action.sa_handler == SIG_IGN, sig == SIGPIPE);
    }
}

TEST(Signals, SwitchTheSerialTrafficFlag)
{
    const support::layer layer;
    for (const int sig : {SIGUSR1, SIGUSR2, SIGPIPE}) // on, off, ignored
    {
        EXPECT_EQ(::raise(sig), 0);
        EXPECT_TRUE(support::wait_until(
            [&] { return tarn_process_is_serial_traffic_logged() == (sig == SIGUSR1); }));
    }
}

// ---- instance lock ---------------------------------------------------------------------------

/** A lock name with its file, which is removed at the end. */
struct lock_name
{
    std::string name = support::unique_name("lock");
    std::string file = "/tmp/tarn_proc_" + name + ".pid";
    ~lock_name()
    {
        std::filesystem::remove(file);
    }
};

unsigned mode_of(const std::string &file)
{
    return static_cast<unsigned>(std::filesystem::status(file).permissions());
}

/** Asks for each lock name and holds what it got until its input ends. "powerless" gives up the
 *  right to open every file. */
TARN_TEST_ROLE(instance)
{
    ::umask(077);
    for (const std::string &name : args)
    {
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        const __user_cap_data_struct none[2] = {};
        name == "powerless"
            ? (void)::syscall(SYS_capset, &header, none)
            : (void)std::printf("%d\n", tarn_process_is_first_instance(name.c_str()));
    }
    std::printf("umask %o\n", ::umask(0));
    std::fflush(stdout);
    return std::getchar() == EOF ? 0 : 1;
}

TEST(Instance, OneProcessAtATimeHoldsTheLock)
{
    const lock_name lock;
    child_process first = child_process::role("instance", {lock.name, lock.name});
    EXPECT_EQ(first.read_line(), "1");
    const std::string busy = "warn: another instance is running with name " + lock.name;
    EXPECT_EQ(support::without_prefix(first.read_line()), busy); // its own second question
    EXPECT_EQ(first.read_line(), "0");
    EXPECT_EQ(first.read_line(), "umask 77");
    EXPECT_EQ(mode_of(lock.file), 0666u);
    child_process second = child_process::role("instance", {lock.name});
    EXPECT_EQ(support::without_prefix(second.read_line()), busy);
    EXPECT_EQ(second.read_line(), "0");
    first.close_input();
    EXPECT_EQ(first.wait(), 0);
    child_process third = child_process::role("instance", {lock.name});
    EXPECT_EQ(third.read_line(), "1");
    EXPECT_EQ(std::filesystem::file_size(lock.file), 0u);
}

TEST(Instance, TakesOverAFileThatItMayNotOpen)
{
    const lock_name lock;
    support::write_file(lock.file, "");
    ASSERT_EQ(::chmod(lock.file.c_str(), 0), 0);
    child_process child = child_process::role("instance", {"powerless", lock.name});
    EXPECT_EQ(child.read_line(), "1");
    EXPECT_EQ(mode_of(lock.file), 0666u);
}

TEST(Instance, RefusesWhatIsNoPlainFileAndTouchesNothing)
{
    const lock_name target;
    support::write_file(target.file, "kept");
    ASSERT_EQ(::chmod(target.file.c_str(), 0600), 0);
    const auto refused = [](const std::string &name, const std::string &file) {
        const support::leak_check leaks;
        const support::log_capture log;
        EXPECT_EQ(tarn_process_is_first_instance(name.c_str()), 0);
        EXPECT_TRUE(log.contains("warn", "] fail to open file " + file)) << file;
    };
    int (*const plant[])(const char *, const char *) = {
        [](const char *there, const char *here) { return ::symlink(there, here); },
        [](const char *there, const char *here) { return ::link(there, here); },
        [](const char *, const char *here) { return ::mkfifo(here, 0666); },
        [](const char *, const char *here) { return ::mkdir(here, 0777); },
        [](const char *, const char *here) { return ::symlink("no_such_file", here); }};
    for (const auto &planted : plant)
    {
        const lock_name lock;
        ASSERT_EQ(planted(target.file.c_str(), lock.file.c_str()), 0);
        refused(lock.name, lock.file + ", error = ");
    }
    EXPECT_EQ(mode_of(target.file), 0600u);
    EXPECT_EQ(support::read_file(target.file), "kept");
    EXPECT_FALSE(std::filesystem::exists("/tmp/no_such_file"));
    refused("../" + target.name, "/tmp/tarn_proc_../");
    refused("a/b", "/tmp/tarn_proc_a/b.pid, error = 22 (Invalid argument)");
    refused(std::string(300, 'n'), "/tmp/tarn_proc_nnn");
    refused(std::string(6000, 'n'), "/tmp/tarn_proc_nnn");
    expect_check("RVON(name,0)");
    EXPECT_EQ(tarn_process_is_first_instance(nullptr), 0);
}

// ---- command lines ---------------------------------------------------------------------------

int period = 0;
bool fast = false;
const tarn_cmdline_option own_rows[] = {
    {"p", "period", "MS", "loop period", TARN_CMDLINE_OPTION_INTEGER, &period},
    {nullptr, "fast", nullptr, "no pauses", TARN_CMDLINE_OPTION_FLAG, &fast},
    {nullptr, nullptr, nullptr, nullptr, 0, nullptr},
};

/** Parses a command line before tarn_init(), the long form a second time without arguments, and
 *  prints each result with all that is not as at the start. args: "short" or "long"; lock name or
 *  "-"; how to call: s single instance, c takes no config file, u allows unknown options, b has no
 *  rows of its own, e with a log level in the environment, l with all log lines; the arguments. */
TARN_TEST_ROLE(command_line)
{
    const auto with = [&](char c) { return args[2].find(c) != std::string::npos; };
    std::vector<char *> argv = {const_cast<char *>("/opt/bin/prog")};
    std::transform(args.begin() + 3, args.end(), std::back_inserter(argv),
                   [](const std::string &word) { return const_cast<char *>(word.c_str()); });
    const char *const lock = args[1] == "-" ? nullptr : args[1].c_str();
    fail_daemon = true;
    EXPECT_EQ(with('e') ? ::setenv("TARN_LOG_LEVEL", "ERROR", 1) : 0, 0);
    tarn_log_level_set(with('l') ? TARN_LOG_LEVEL_DEBUG : TARN_LOG_LEVEL_INFO);
    for (int argc = static_cast<int>(argv.size()); argc != 0; argc = argc > 1 ? 1 : 0)
    {
        const char *config = args[0] == "long" ? "stays" : nullptr;
        const char **const out = with('c') ? nullptr : &config;
        const bool single = with('s') && argc > 1;
        const int rc =
            args[0] == "short"
                ? tarn_process_parse_cmdline(argc, argv.data(), lock, "1.2", "r7", with('s'), out)
                : tarn_process_parse_cmdline_ex(argc, argv.data(), lock, "1.2", "r7", single, out,
                                                with('b') ? nullptr : own_rows, with('u') ? 1 : 0);
        EXPECT_TRUE(args[0] == "long" || rc < 0 || tarn_log_init());
        const std::string name = tarn_process_name();
        EXPECT_TRUE(rc >= 0 || args[0] == "short" || config == std::string("stays"));
        config = out == nullptr || rc < 0 ? nullptr : config;
        const char *const variable = tarn_process_getenv("TARN_LOG_LEVEL");
        std::printf("%s%s%s%s%s%s%s%s%s%s\n", rc < -5 ? "fail" : std::to_string(rc).c_str(),
                    config ? " config " : "", config ? config : "", variable ? " variable " : "",
                    variable ? variable : "",
                    tarn_log_level != 5 ? (" level " + std::to_string(tarn_log_level)).c_str() : "",
                    tarn_process_is_serial_traffic_logged() ? " serial" : "",
                    name != "exe" ? (" name " + name).c_str() : "",
                    period != 0 ? (" period " + std::to_string(period)).c_str() : "",
                    fast ? " fast" : "");
        argc = args[0] == "short" ? 1 : argc;
    }
    return 0;
}

struct command_line_case
{
    std::string line;
    std::string expected;
};

void expect_command_lines(const std::vector<command_line_case> &cases)
{
    for (const auto &[line, expected] : cases)
    {
        std::istringstream in(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
        child_process child = child_process::role("command_line", words);
        EXPECT_EQ(plain(child.read_rest()), expected) << line;
        EXPECT_EQ(child.wait(), 0) << line;
    }
}

const std::string version_line = "prog 1.2 rev r7\n";

TEST(ShortForm, GivesCodesValuesAndTexts)
{
    const lock_name lock;
    const lock_name held;
    child_process holder = child_process::role("instance", {held.name});
    ASSERT_EQ(holder.read_line(), "1");
    const std::string head =
        version_line + "usage: prog [OPTIONS]\n\nValid options:\n"
                       "  -d                                        : run program as a daemon\n";
    const std::string config =
        "  -f <config-file>                          : specify a config file\n";
    const std::string tail =
        "  -log <DEBUG|TRACE|INFO|WARN|ERROR|FATAL>  : set log level, default is WARN\n"
        "  -t                                        : log serial port (if any) traffic\n"
        "  -v|--version                              : show program version information\n";
    expect_command_lines({
        {"short - -", "0\n"},
        {"short - - x --help -", "0\n"}, // ignored
        {"short - - -f a.ini -log WARN -t", "0 config a.ini variable WARN level 4 serial\n"},
        {"short - - -f -t", "0 config -t\n"},
        {"short - - -log DEBUG", "0 variable DEBUG level 7\n"},
        {"short - e -log DEBUG", "0 variable DEBUG level 7\n"},
        {"short - - -t -v -f", version_line + "-3 serial\n"},
        {"short - - --version", version_line + "-3\n"},
        {"short - - -f", head + config + tail + "-4\n"},
        {"short - - -log", head + config + tail + "-4\n"},
        {"short - - -log debug", head + config + tail + "-4\n"},
        {"short - - -log DEBUGX", head + config + tail + "-4\n"},
        {"short - c -f a.ini", head + tail + "-4\n"},
        {"short - - -d -log WARN", "fatal: cannot set process as a daemon!\n\n-5\n"},
        {"short " + lock.name + " s -log INFO", "0 variable INFO name " + lock.name + "\n"},
        {"short " + lock.name + " s -v", version_line + "-3 name " + lock.name + "\n"},
        {"short " + held.name + " s -v", // the lock comes before the version
         "warn: another instance is running with name " + held.name +
             "\nfatal: an instance is already running!\n\n-1\n"},
        {"short - s", "-2\n"},
    });
    expect_check("RVON(instance_name,-2)");
    expect_check("RVON(joined,TARN_ERRLN)");
    char name[] = "prog";
    char *none[] = {name, nullptr};
    EXPECT_EQ(tarn_process_parse_cmdline(0, none + 1, nullptr, "", "", true, nullptr), -2);
    EXPECT_EQ(tarn_process_parse_cmdline(0, none + 1, nullptr, "", "", false, nullptr), 0);
    EXPECT_EQ(tarn_process_parse_cmdline(3, none, nullptr, "", "", false, nullptr), 0);
    const auto parse = [&](size_t) {
        const int rc =
            tarn_process_parse_cmdline_ex(1, none, "", "", "", false, nullptr, own_rows, 0);
        EXPECT_EQ(rc < 0, support::allocation_failed());
    };
    EXPECT_EQ(support::fail_each_allocation(parse), 1u);
}

TEST(LongForm, GivesCodesValuesAndTextsAndForgetsThem)
{
    const lock_name lock;
    const lock_name held;
    child_process holder = child_process::role("instance", {held.name});
    ASSERT_EQ(holder.read_line(), "1");
    const std::string standard =
        "Usage: prog [OPTIONS]...\n\nAvailable options:\n"
        "  -d, --daemon                                       run program as a daemon\n"
        "  -f, --config=FILE                                  specify a config file\n"
        "  --log-level=<DEBUG|TRACE|INFO|WARN|ERROR|FATAL>    set log level, default is INFO\n"
        "  --help                                             display this help and exit\n"
        "  -v, --version                                      output version information and exit\n";
    const std::string own = "  -p, --period=MS                                    loop period\n"
                            "  --fast                                             no pauses\n";
    const std::string fail = "fail\n0\n"; // and then without arguments
    const std::string help = "\nTry 'exe --help' for more information.\n" + fail;
    std::string positional;
    for (int i = 1; i <= 31; ++i)
    {
        positional += " x";
    }
    expect_command_lines({
        {"long - -", "0\n"},
        {"long - c -f a.ini", "0\n0\n"},
        {"long - - --config=a.ini -p 50 --fast",
         "0 config a.ini period 50 fast\n0 period 50 fast\n"},
        {"long - - --log-level=DEBUG", "0 variable DEBUG level 7\n0 variable DEBUG level 7\n"},
        {"long - el --log-level=WARN",
         "debug: set TARN_LOG_LEVEL = WARN\n0 variable WARN level 4\n0 variable WARN level 4\n"},
        {"long - - --log-level=debug", "error: invalid log-level debug\n" + fail},
        {"long - - -v x y", "exe: invalid options -- 'x' 'y' " + help},
        {"long - - -v x -f y", "exe: invalid options -- 'x' " + help},
        {"long - u -p5 x --bogus", "4 period 5\n0 period 5\n"},
        {"long - u" + positional,
         version_line + standard + own + "-2\n0\n"}, // the sign of the result
        {"long - - -w", "error: invalid option -w\n" + version_line + standard + own + fail},
        {"long - b -p", "error: invalid option -p\n" + version_line + standard + fail},
        {"long " + held.name + " s --help -v", standard + own + fail}, // no lock is asked for
        {"long " + held.name + " s -v", version_line + fail},
        {"long " + held.name + " s -d", "warn: another instance is running with name " + held.name +
                                            "\nfatal: another instance is already running!\n" +
                                            fail},
        {"long " + lock.name + " s -f x", "0 config x\n0\n"}, // no name is kept
        {"long - s", "0\n"},
        {"long - s -f x", fail}, // a lock without a name
        {"long - - -d --log-level=loud", "fatal: cannot set process as a daemon!\n" + fail},
    });
}

// ---- daemon, names, environment --------------------------------------------------------------

/** Says which of the layer's descriptors a program that it starts would get. args: lock name. */
TARN_TEST_ROLE(descriptors)
{
    const auto passed_on = [] {
        std::vector<int> all;
        for (int fd = 0; fd < 1024; ++fd)
        {
            if (::fcntl(fd, F_GETFD) == 0)
            {
                all.push_back(fd);
            }
        }
        return all;
    };
    const std::vector<int> before = passed_on();
    EXPECT_EQ(tarn_process_is_first_instance(args[0].c_str()), 1);
    EXPECT_TRUE(tarn_init());
    std::puts(passed_on() == before ? "none" : "some");
    tarn_uninit();
    return 0;
}

TEST(Process, NoDescriptorReachesAProgramThatItStarts)
{
    const lock_name lock;
    EXPECT_EQ(child_process::role("descriptors", {lock.name}).read_rest(), "none\n");
}

/** Becomes a daemon through its command line and runs until its input ends. args: lock name; any
 *  other to begin without standard input. */
TARN_TEST_ROLE(become_daemon)
{
    const int report = ::dup(STDOUT_FILENO);
    const int input = ::dup(STDIN_FILENO);
    char prog[] = "prog";
    char option[] = "-d";
    char *argv[] = {prog, option, nullptr};
    std::printf("in the buffer, daemon %d\n", tarn_process_is_daemon());
    if (args.size() > 1)
    {
        ::close(STDIN_FILENO);
    }
    const int rc = tarn_process_parse_cmdline(2, argv, args[0].c_str(), "", "", true, nullptr);
    ::dprintf(report, "%d %d %s\n", rc, tarn_process_is_daemon(),
              std::filesystem::current_path().c_str());
    char byte = 0;
    return static_cast<int>(::read(input, &byte, 1));
}

TEST(Daemon, KeepsItsLockAndLosesNothing)
{
    for (const bool without_input : {false, true})
    {
        const lock_name lock;
        std::vector<std::string> args = {lock.name, "without input"};
        args.resize(without_input ? 2 : 1);
        child_process child = child_process::role("become_daemon", args);
        EXPECT_EQ(child.read_line(), "in the buffer, daemon 0");
        EXPECT_EQ(child.read_line(), "0 1 /");
        EXPECT_EQ(child.wait(), 0); // the starter
        support::log_capture log;
        EXPECT_EQ(tarn_process_is_first_instance(lock.name.c_str()), 0);
        EXPECT_TRUE(log.contains("another instance is running with name " + lock.name));
        child.close_input();
        EXPECT_EQ(child.read_rest(), "");
        child_process next = child_process::role("instance", {lock.name});
        EXPECT_EQ(next.read_line(), "1");
    }
}

TEST(Process, NamesVersionAndEnvironment)
{
    EXPECT_EQ(tarn_process_id(), ::getpid());
    EXPECT_STREQ(tarn_process_program_name(), "test_process");
    EXPECT_TRUE(std::string(tarn_process_program_path()).ends_with("/test_process"));
    EXPECT_STREQ(tarn_process_name(), "test_process");
    EXPECT_FALSE(tarn_process_is_daemon());
    testing::internal::CaptureStdout();
    tarn_process_print_version("p", "1", nullptr);
    tarn_process_print_version("p", "1", "");
    tarn_process_print_version("p", "1", "%s");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "p 1\np 1\np 1 rev %s\n");
    const std::string name = support::unique_name("VARIABLE");
    EXPECT_EQ(tarn_process_getenv(name.c_str()), nullptr);
    for (const auto &[value, overwrite, expected] :
         {std::tuple{"one", false, "one"}, {"two", false, "one"}, {"two", true, "two"}})
    {
        EXPECT_TRUE(tarn_process_setenv(name.c_str(), value, overwrite));
        EXPECT_STREQ(tarn_process_getenv(name.c_str()), expected);
    }
    EXPECT_FALSE(tarn_process_setenv("a=b", "c", true));
    expect_check("RVON(name,NULL)");
    expect_check("RVON(name,false)");
    expect_check("RVON(value,false)");
    EXPECT_EQ(tarn_process_getenv(nullptr), nullptr);
    EXPECT_FALSE(tarn_process_setenv(nullptr, "", true));
    EXPECT_FALSE(tarn_process_setenv("x", nullptr, true));
    const pid_t pid = ::fork(); // the variables of this process are still needed
    if (pid == 0)
    {
        ::_exit(tarn_process_clearenv() && tarn_process_getenv("PATH") == nullptr ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(tarn_process_init() && __tarn_process_exit_event__ == nullptr);
    tarn_process_uninit();
    EXPECT_EQ(__tarn_process_exit_event__, nullptr);
    expect_check("RVON(ev,false)");
    EXPECT_FALSE(tarn_process_wait_exit(0)); // nothing to wait for
}

// ---- the service manager -------------------------------------------------------------------------

/** Says what a daemon says: waits twice, kicks twice, sees its exit event twice. */
TARN_TEST_ROLE(service)
{
    EXPECT_TRUE(tarn_init());
    EXPECT_FALSE(tarn_process_wait_exit(1));
    EXPECT_FALSE(tarn_process_wait_exit(1));
    tarn_wdt_kick();
    tarn_wdt_kick();
    tarn_event_set(__tarn_process_exit_event__);
    EXPECT_TRUE(tarn_process_wait_exit(1));
    EXPECT_TRUE(tarn_process_wait_exit(1));
    tarn_uninit();
    return 0;
}

/** A manager's socket, and what a service told it. */
class service_manager
{
public:
    explicit service_manager(const std::string &name)
        : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        if (name[0] == '@')
        {
            address.sun_path[0] = '\0';
        }
        const auto length = offsetof(sockaddr_un, sun_path) + name.size();
        EXPECT_EQ(
            ::bind(fd_, reinterpret_cast<sockaddr *>(&address), static_cast<socklen_t>(length)), 0);
    }
    service_manager(const service_manager &) = delete;
    service_manager &operator=(const service_manager &) = delete;
    ~service_manager()
    {
        ::close(fd_);
    }
    std::string story_of(const std::vector<std::string> &environment)
    {
        child_process child =
            child_process::program({"/proc/self/exe", "--role=service"}, environment);
        (void)child.read_rest();
        EXPECT_EQ(child.wait(), 0);
        std::string story;
        char text[64];
        for (ssize_t n = 0; (n = ::recv(fd_, text, sizeof text, 0)) > 0;)
        {
            story += std::string(text, static_cast<size_t>(n)) + " ";
        }
        return story;
    }

private:
    int fd_;
};

TEST(ServiceManager, IsToldReadyKicksAndStopping)
{
    const support::temp_dir dir;
    const std::string of_process = "@tarn-test-" + std::to_string(::getpid());
    for (const std::string &name : {dir.file("notify"), of_process})
    {
        service_manager manager(name);
        const std::string socket = "NOTIFY_SOCKET=" + name;
        EXPECT_EQ(manager.story_of({socket}), "READY=1 STOPPING=1 ");
        EXPECT_EQ(manager.story_of({socket, "WATCHDOG_USEC=1000000"}),
                  "READY=1 WATCHDOG=1 WATCHDOG=1 STOPPING=1 ");
        EXPECT_EQ(manager.story_of({socket, "WATCHDOG_USEC=1000000", "WATCHDOG_PID=1"}),
                  "READY=1 STOPPING=1 ");
        EXPECT_EQ(manager.story_of({"WATCHDOG_USEC=1000000"}), "");
        for (const std::string &wrong : {std::string("@"), std::string("relative/path"),
                                         "/" + std::string(200, 'x'), dir.file("nobody")})
        {
            EXPECT_EQ(manager.story_of({"NOTIFY_SOCKET=" + wrong}), "");
        }
    }
}

} // namespace
