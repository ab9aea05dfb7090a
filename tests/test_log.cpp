// The log: line format, thresholds, loggers, dumps, and the two sinks in real processes.

#include "support.h"
#include "support_log.h"

#include "tarn_modules.h"
#include "tarn_process.h"

#include <cerrno>
#include <climits>
#include <thread>

#include <pthread.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

using support::child_process;
using support::expect_check;
using support::split_lines;

namespace
{

/** The lines that a call logs, without their time stamps and with "|" between them. */
template <typename Call>
std::string logged(Call call)
{
    const support::log_capture log;
    call();
    std::string text;
    for (const std::string &line : log.lines())
    {
        text += (text.empty() ? "" : "|") + line.substr(std::min<size_t>(13, line.size()));
    }
    return text;
}

/** What a logger makes of a text at a level. */
std::string logged(tarn_logger *logger, int32_t level, int result, const std::string &text)
{
    return logged([&] {
        EXPECT_EQ(tarn_log_print(logger, level, "f.c", 7, "fn", "%s", text.c_str()), result);
    });
}

const std::string program = tarn_process_program_name();

// ---- lines -----------------------------------------------------------------------------------

TEST(Line, ShowsFileLineAndFunctionAsFlagged)
{
    const char *const positions[] = {"",     "[f.c] ",   "[fn] ",   "[f.c:fn] ",
                                     "[7] ", "[f.c:7] ", "[7:fn] ", "[f.c:7:fn] "};
    for (uint8_t flags = 0; flags < 8; ++flags)
    {
        tarn_logger *const logger = tarn_logger_create("n", 1, 0, flags & 1, flags & 2, flags & 4);
        EXPECT_EQ(logged(logger, 5, 0, "m"), "n.info " + std::string(positions[flags]) + "m");
    }
    EXPECT_EQ(logged(&tarn_default_logger, 5, 0, "%"), program + ".info [f.c:7:fn] %");
}

TEST(Line, CarriesItsLevelsTagAndPassesItsLoggersThreshold)
{
    const char *const tags[] = {"L0", "L1", "fatal", "error", "warn", "info", "trace", "debug"};
    for (const uint32_t own : {0u, 1u, 3u, 7u, 0xFFFFFFFFu})
    {
        tarn_logger *const logger = tarn_logger_create("n", 1, own, 0, 0, 0);
        for (const int32_t global : {-1, 2, 6, 7})
        {
            const support::level_scope scope(global);
            for (int32_t level = -2; level <= 9; ++level)
            {
                const bool shown = level <= (own != 0 ? int64_t{own} : global);
                EXPECT_EQ(logged(logger, level, shown ? 0 : -2, "m"),
                          shown ? "n." + std::string(tags[std::clamp(level, 0, 7)]) + " m" : "");
            }
        }
    }
    for (const unsigned enabled : {0u, 2u, 255u})
    {
        tarn_logger off = {nullptr, nullptr, 0, static_cast<uint8_t>(enabled), 0, 0, 0};
        EXPECT_EQ(logged(&off, 9, -1, "m"), "");
    }
}

TEST(Line, IsWholeWhateverItsLength)
{
    const std::string name(3000, 'n');
    tarn_logger *const wordy = tarn_logger_create(name.c_str(), 1, 0, 1, 1, 1);
    tarn_logger *const bare = tarn_logger_create("n", 1, 0, 0, 0, 0);
    for (size_t length = 950; length < 1100; ++length) // over the edge of the stack buffer
    {
        const std::string text(length, 'x');
        ASSERT_EQ(logged(bare, 5, 0, text), "n.info " + text);
        ASSERT_EQ(logged([&] {
                      tarn_log_print(wordy, 5, text.c_str(), INT_MIN, text.c_str(), "%s", "m");
                  }),
                  name + ".info [" + text + ":-2147483648:" + text + "] m");
    }
    const std::string huge(1 << 20, 'h');
    EXPECT_TRUE(logged(bare, 5, 0, huge) == "n.info " + huge);
    EXPECT_EQ(logged([&] { TARN_LOG_TO(bare, 5, "a%cb", 0); }), "n.info a"); // still a line
    EXPECT_EQ(logged([&] { tarn_log_print(wordy, 5, nullptr, 1, nullptr, "m"); }),
              name + ".info [1:] m");
}

TEST(Line, KeepsErrnoAndReportsExhaustion)
{
    errno = EXDEV;
    TARN_LOG_INFO("%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(errno, EXDEV);
    expect_check("RVON(logger,NULL)");
    expect_check("RVON(logger->name,NULL)");
    const std::string text(5000, 'x');
    const auto failures = [](auto call) {
        return support::fail_each_allocation([&](size_t) {
            const bool done = call();
            EXPECT_EQ(done, !support::allocation_failed());
        });
    };
    auto *const logger = &tarn_default_logger;
    EXPECT_EQ(
        failures([&] { return tarn_log_print(logger, 5, "", 1, "", "%s", text.c_str()) > -3; }),
        1u);
    EXPECT_EQ(failures([&] { return tarn_log_hex(logger, 5, "", 1, "", "", "", 0) > -3; }), 1u);
    EXPECT_EQ(failures([] { return tarn_logger_create("n", 1, 0, 1, 1, 1) != nullptr; }), 2u);
}

// ---- macros, levels, loggers, dumps ----------------------------------------------------------

TEST(Macros, EvaluateNothingWhenTheLevelIsHidden)
{
    int evaluated = 0;
    const auto count = [&] { return ++evaluated; };
    const auto logger = [&] { return count() != 0 ? &tarn_default_logger : nullptr; };
    const support::level_scope trace(TARN_LOG_LEVEL_TRACE);
    EXPECT_EQ(logged([&] {
                  TARN_LOG_DEBUG("%d", count());
                  TARN_LOG_TO(logger(), TARN_LOG_LEVEL_DEBUG, "%d", count());
                  TARN_LOG_HEX(logger(), TARN_LOG_LEVEL_DEBUG, "", "x",
                               static_cast<uint32_t>(count()));
              }),
              "");
    EXPECT_EQ(evaluated, 0);
    const std::string shown = logged([&] { TARN_LOG_TRACE("%d", __LINE__ + 0 * count()); });
    const std::string line = shown.substr(shown.rfind(' ') + 1);
    EXPECT_EQ(shown, program + ".trace [test_log.cpp:" + line + ":operator()] " + line);
    EXPECT_EQ(evaluated, 1);
}

TEST(Levels, HaveNamesAndSetTheSyslogMask)
{
    const support::level_scope scope(TARN_LOG_LEVEL_ERROR);
    const std::pair<const char *, int32_t> texts[] = {
        {"FATAL", 2},  {"error", 3},          {"Warn", 4},    {"iNFO", 5},   {"TRACE", 6},
        {"debug", 7},  {" \t Debug\r\n ", 7}, {"verbose", 3}, {"", 3},       {" \t ", 3},
        {"DEBUGx", 3}, {"DEBU", 3},           {"7", 3},       {"de bug", 3}, {"\x80", 3}};
    for (const auto &[text, expected] : texts)
    {
        EXPECT_EQ(log_level_from_str(text), expected) << text;
    }
    expect_check("RVON(str,tarn_log_level)");
    const support::level_scope debug(TARN_LOG_LEVEL_DEBUG);
    EXPECT_EQ(log_level_from_str(nullptr), TARN_LOG_LEVEL_DEBUG);
    std::string names;
    for (const int32_t level : {INT_MIN, 1, 2, 3, 4, 5, 6, 7, 8})
    {
        names += std::string(log_level_to_str(level)) + " ";
    }
    EXPECT_EQ(names, "INFO INFO FATAL ERROR WARN INFO TRACE DEBUG INFO ");
    const std::pair<int32_t, int> masks[] = {
        {0, 1},        {2, 7},        {5, 0x3F},    {7, 0xFF},   {30, INT_MAX},
        {31, INT_MAX}, {-1, INT_MAX}, {INT_MIN, 1}, {INT_MAX, 1}}; // an empty one changes nothing
    for (const auto &[level, mask] : masks)
    {
        tarn_log_level_set(level);
        EXPECT_EQ(tarn_log_level, level);
        EXPECT_EQ(setlogmask(0), mask) << level;
    }
}

TEST(Logger, CreationFromManyThreadsLosesNone)
{
    const auto create = [] {
        for (int i = 0; i < 500; ++i)
        {
            EXPECT_NE(tarn_logger_create("chained", 1, 1000, 1, 1, 1), nullptr);
        }
    };
    {
        const std::jthread one(create), two(create), three(create), four(create);
    }
    int found = 0;
    for (auto *l = tarn_logger_create("last", 1, 0, 1, 1, 1); l != nullptr; l = l->next)
    {
        found += l->level == 1000 && std::string(l->name) == "chained" ? 1 : 0;
    }
    EXPECT_EQ(found, 2000);
}

TEST(Hex, DumpsLengthPrefixAndBytes)
{
    tarn_logger *const bare = tarn_logger_create("n", 1, 0, 0, 0, 0);
    const auto dump = [&](const char *prefix, const std::string &bytes) {
        const auto *const data = bytes.empty() ? nullptr : bytes.data();
        return logged(
            [&] { TARN_LOG_HEX(bare, 5, prefix, data, static_cast<uint32_t>(bytes.size())); });
    };
    EXPECT_EQ(dump("rx", std::string("\x00\xab\x10", 3)), "n.info [3] rx 00 ab 10");
    EXPECT_EQ(dump("", "\x7f"), "n.info [1] 7f");
    EXPECT_EQ(dump(nullptr, ""), "n.info [0] ");
    EXPECT_EQ(dump("100%s", ""), "n.info [0] 100%s ");
    std::string bytes;
    std::string text = "n.info [65536] " + std::string(2000, 'p');
    for (unsigned i = 0; i < 65536; ++i)
    {
        bytes.push_back(static_cast<char>(i));
        text += std::string(" ") + "0123456789abcdef"[i >> 4 & 15] + "0123456789abcdef"[i & 15];
    }
    EXPECT_TRUE(dump(std::string(2000, 'p').c_str(), bytes) == text);
    bare->level = 3;
    EXPECT_EQ(tarn_log_hex(bare, 4, "f", 1, "fn", "p", "x", 1), -2);
}

// ---- standard output, from real processes ----------------------------------------------------

TARN_TEST_ROLE(start_up)
{
    EXPECT_TRUE(tarn_log_init());
    std::printf("%d %d\n", tarn_log_level, setlogmask(0));
    TARN_LOG_INFO("hello");
    return 0;
}

TEST(Foreground, LineFollowsTheZoneAndTheVariableSetsTheLevel)
{
    const std::pair<const char *, const char *> cases[] = {
        {nullptr, "5 255\n"}, {" warn ", "4 31\n"}, {"loud", "5 63\n"}}; // unset: mask unchanged
    for (const auto &[level, numbers] : cases)
    {
        EXPECT_TRUE(tarn_process_setenv("TZ", "IST-5:30", true));
        EXPECT_TRUE(level == nullptr || tarn_process_setenv("TARN_LOG_LEVEL", level, true));
        const time_t before = ::time(nullptr) + 19800;
        const std::string output = child_process::role("start_up").read_rest();
        const std::string line = output.substr(std::string(numbers).size());
        EXPECT_TRUE(output.starts_with(numbers)) << output;
        EXPECT_EQ(line.empty(), numbers[0] == '4');
        if (!line.empty())
        {
            const int minute = std::stoi(line.substr(0, 2)) * 60 + std::stoi(line.substr(3, 2));
            EXPECT_LE((minute - before / 60 % 1440 + 1440) % 1440, 1) << line;
            EXPECT_EQ(line.substr(13, 23), "exe.info [test_log.cpp:");
            EXPECT_TRUE(line.ends_with(":role_start_up] hello\n")) << line;
            EXPECT_EQ(support::without_prefix(line), "info: hello\n"); // the stamp is one
        }
    }
}

/** Several processes, several threads in each, into one pipe. args: processes, threads, lines. */
TARN_TEST_ROLE(family)
{
    for (int p = 0; p < std::stoi(args[0]); ++p)
    {
        if (::fork() != 0)
        {
            continue;
        }
        support::flood(p * std::stoi(args[1]), std::stoi(args[1]), std::stoi(args[2]));
        return 0;
    }
    int worst = 0;
    for (int status = 0; ::wait(&status) > 0;)
    {
        worst = std::max(worst, status);
    }
    return worst != 0 ? 1 : 0;
}

TEST(Foreground, LinesOfManyThreadsAndProcessesInOnePipeStayWhole)
{
    const int lines = support::with_sanitizer ? 200 : 1000;
    child_process child = child_process::role("family", {"3", "4", std::to_string(lines)});
    EXPECT_TRUE(support::expect_whole_floods(child.read_rest(60000), 12, lines).empty());
    EXPECT_EQ(child.wait(), 0);
}

const size_t lengths[] = {1 << 20, 10, 4071, 4072, 4073, 1976, 1, 5000, 0, 70000};

TARN_TEST_ROLE(mixed)
{
    const int buffering = std::stoi(args[0]);
    EXPECT_TRUE(buffering < 0 || std::setvbuf(stdout, nullptr, buffering, 2000) == 0);
    tarn_logger *const bare = tarn_logger_create("bare", 1, 0, 0, 0, 0);
    for (const size_t length : lengths)
    {
        TARN_LOG_TO(bare, 5, "%s", std::string(length, 'm').c_str());
        std::printf("[%zu]\n", length);
    }
    return 0;
}

TEST(Foreground, LinesOfEverySizeGoOutInOrderWithWhatTheProgramPrints)
{
    for (const int buffering : {-1, _IOFBF, _IOLBF, _IONBF})
    {
        child_process child = child_process::role("mixed", {std::to_string(buffering)});
        const std::vector<std::string> lines = split_lines(child.read_rest());
        ASSERT_EQ(lines.size(), 2 * std::size(lengths));
        for (size_t i = 0; i < lines.size(); i += 2)
        {
            const std::string expected = "bare.info " + std::string(lengths[i / 2], 'm');
            EXPECT_TRUE(lines[i].substr(13) == expected) << buffering << " " << lengths[i / 2];
            EXPECT_EQ(lines[i + 1], "[" + std::to_string(lengths[i / 2]) + "]");
        }
    }
}

TARN_TEST_ROLE(cancelled)
{
    const auto log_for_ever = [](void *) -> void * {
        for (size_t i = 0;; ++i)
        {
            TARN_LOG_INFO("%s", std::string(i % 3000, 'c').c_str());
            pthread_testcancel();
        }
    };
    for (unsigned i = 0; i < 200; ++i)
    {
        pthread_t thread{};
        (void)pthread_create(&thread, nullptr, log_for_ever, nullptr);
        ::usleep(i % 50 * 10);
        (void)pthread_cancel(thread);
        (void)pthread_join(thread, nullptr);
    }
    TARN_LOG_INFO("the end");
    return 0;
}

TEST(Foreground, ThreadCancelledWhileItLogsLeavesNoLockBehind)
{
    child_process child = child_process::role("cancelled");
    EXPECT_TRUE(child.read_rest(60000).ends_with("the end\n"));
    EXPECT_EQ(child.wait(), 0);
}

// ---- syslog ----------------------------------------------------------------------------------

TARN_TEST_ROLE(daemon)
{
    support::capture_syslog(::dup(STDOUT_FILENO));
    tarn_logger *const named = tarn_logger_create("named", 1, 4, 0, 0, 0);
    TARN_LOG_INFO("still in the foreground");
    EXPECT_TRUE(tarn_process_daemonize());
    TARN_LOG_TO(named, TARN_LOG_LEVEL_FATAL, "100%%s");
    TARN_LOG_INFO("%s", std::string(3000, 'x').c_str());
    TARN_LOG_HEX(named, TARN_LOG_LEVEL_ERROR, "rx", "\x01\x02", 2);
    TARN_LOG_TO(named, TARN_LOG_LEVEL_INFO, "hidden by its logger");
    (void)tarn_log_print(named, -5, "f", 1, "fn", "below all levels");
    return 0;
}

TEST(Daemon, HandsLinesToSyslogWithoutTimeAndName)
{
    child_process child = child_process::role("daemon");
    const std::vector<std::string> lines = split_lines(child.read_rest());
    EXPECT_EQ(child.wait(), 0);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(support::without_prefix(lines[0]), "info: still in the foreground");
    EXPECT_EQ(lines[1], "<2>100%s");
    EXPECT_TRUE(lines[2].starts_with("<5>[test_log.cpp:")) << lines[2];
    EXPECT_TRUE(lines[2].ends_with(":role_daemon] " + std::string(3000, 'x')));
    EXPECT_EQ(lines[3], "<3>[2] rx 01 02");
    EXPECT_EQ(lines[4], "<0>below all levels");
}

} // namespace
