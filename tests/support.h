// Helpers that all tests share: log capture, announced check failures, child processes, leak
// checks, temporary places, deadlines, failing allocations.
//
// Every test runs at log level DEBUG. A check macro that fails during a test fails the test unless
// the test has announced it with expect_check(); an announced one that does not come fails it too.
#pragma once

#include "tarn.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace support
{

/** Announce a check failure, e.g. "RVON(buf,NULL)"; it may then come any number of times, but at
 *  least once. */
void expect_check(std::string_view text);

/** Collects the log lines of its scope, from all threads, in place of standard output. */
class log_capture
{
public:
    log_capture();
    log_capture(const log_capture &) = delete;
    log_capture &operator=(const log_capture &) = delete;
    ~log_capture();

    /** Whole lines without newline, as "14:03:07.042 name.info [file:1:func] text". */
    [[nodiscard]] std::vector<std::string> lines() const;
    /** The messages alone, behind the bracketed position. */
    [[nodiscard]] std::vector<std::string> messages() const;
    /** Lines that hold the text; write ".warn [" and the like to ask for a level as well. */
    [[nodiscard]] size_t count(std::string_view text) const;
    [[nodiscard]] bool contains(std::string_view text) const
    {
        return count(text) != 0;
    }
    /** The whole line with the text is of this level ("warn"). */
    [[nodiscard]] bool contains(std::string_view level, std::string_view text) const;
    /** Waits until a line holds the text. */
    [[nodiscard]] bool wait_for(std::string_view text, uint32_t timeout_ms = 10000) const;
    void clear();
};

/** Sets the log level for its scope. */
class level_scope
{
public:
    explicit level_scope(int32_t level);
    level_scope(const level_scope &) = delete;
    level_scope &operator=(const level_scope &) = delete;
    ~level_scope();

private:
    int32_t old_;
};

/** tarn_init() for its scope. */
class layer
{
public:
    layer()
    {
        EXPECT_TRUE(tarn_init());
    }
    layer(const layer &) = delete;
    layer &operator=(const layer &) = delete;
    ~layer()
    {
        tarn_uninit();
    }
};

/** Polls a condition until it holds or the deadline passes. */
bool wait_until(const std::function<bool()> &condition, uint32_t timeout_ms = 10000);

/** Milliseconds of a call on the monotonic clock. */
double elapsed_ms(const std::function<void()> &call);

/** Signals the calling thread every millisecond for its scope, with a handler that does nothing and
 *  restarts no system call. */
class signal_storm
{
public:
    signal_storm();
    signal_storm(const signal_storm &) = delete;
    signal_storm &operator=(const signal_storm &) = delete;
    ~signal_storm();

private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

/** Fails the test when its scope leaves more descriptors, threads or child processes than it
 *  found. */
class leak_check
{
public:
    leak_check();
    leak_check(const leak_check &) = delete;
    leak_check &operator=(const leak_check &) = delete;
    ~leak_check();

private:
    size_t descriptors_;
    size_t threads_;
};
size_t open_descriptors();
size_t running_threads();

/** A directory of its own, removed with all that is in it. */
class temp_dir
{
public:
    temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
    ~temp_dir();
    [[nodiscard]] const std::string &path() const
    {
        return path_;
    }
    [[nodiscard]] std::string file(std::string_view name) const
    {
        return path_ + "/" + std::string(name);
    }

private:
    std::string path_;
};

void write_file(const std::string &path, std::string_view content);
std::string read_file(const std::string &path);

/** A name that no other test process uses, of letters, digits and '_'. */
std::string unique_name(std::string_view prefix = "t");

/** A TCP port of the loopback interface that is free just now. */
uint16_t free_port();

/** A pseudo terminal: the test holds the master, the code under test opens the slave by name. */
class pty_pair
{
public:
    pty_pair();
    pty_pair(const pty_pair &) = delete;
    pty_pair &operator=(const pty_pair &) = delete;
    ~pty_pair();
    [[nodiscard]] int master() const
    {
        return master_;
    }
    [[nodiscard]] const std::string &slave_name() const
    {
        return slave_name_;
    }
    void close_master();

private:
    int master_;
    std::string slave_name_;
};

/** Calls the function again and again, with the first, the second, ... allocation of the calling
 *  thread failing, until one run passes without a failure; that last run is included. The function
 *  is told whether an allocation is going to fail (it cannot know if the call gets that far).
 *  @return number of runs in which an allocation failed */
size_t fail_each_allocation(const std::function<void(size_t nth)> &call);

/** True when the allocation that fail_each_allocation() chose has failed in this run. */
bool allocation_failed();

/** A process that plays a role: this test binary, run again with the role's name. */
class child_process
{
public:
    /** A role of this binary (TARN_TEST_ROLE). */
    static child_process role(std::string_view name, const std::vector<std::string> &args = {});
    /** Any program. environment holds extra "NAME=value" entries. */
    static child_process program(const std::vector<std::string> &argv,
                                 const std::vector<std::string> &environment = {});
    child_process(child_process &&other) noexcept;
    child_process &operator=(child_process &&) = delete;
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;
    /** Kills and reaps a child that still runs. */
    ~child_process();

    [[nodiscard]] pid_t pid() const
    {
        return pid_;
    }
    /** Next line of its standard output or error, without newline; empty at the end or after the
     *  time-out. */
    std::string read_line(uint32_t timeout_ms = 10000);
    /** Reads lines until one holds the text. */
    bool wait_for_line(std::string_view text, uint32_t timeout_ms = 10000);
    /** Everything that it still writes until it closes its output. */
    std::string read_rest(uint32_t timeout_ms = 20000);
    bool write_line(std::string_view text);
    void close_input();
    void signal(int sig) const;
    /** Exit status, or minus the number of the signal that ended it; -1000 after the time-out. */
    int wait(uint32_t timeout_ms = 20000);

private:
    child_process(pid_t pid, int in, int out) : pid_(pid), in_(in), out_(out) {}
    pid_t pid_;
    int in_;
    int out_;
    std::string buffer_;
};

using role_function = int (*)(const std::vector<std::string> &args);
bool register_role(const char *name, role_function function);

/** Defines what a child process of this binary does: TARN_TEST_ROLE(echo) { ... return 0; }; its
 *  arguments are `args`. The layer is not started, the log level is INFO, lines go to standard
 *  output. */
#define TARN_TEST_ROLE(name)                                                                       \
    static int role_##name(const std::vector<std::string> &args);                                  \
    static const bool role_##name##_known = support::register_role(#name, role_##name);            \
    static int role_##name([[maybe_unused]] const std::vector<std::string> &args)

/** Runs a role or all tests. */
int run(int argc, char **argv);

/** True in builds under ThreadSanitizer or AddressSanitizer, where counts are cut. */
#if defined(__SANITIZE_THREAD__)
inline constexpr bool with_tsan = true;
#else
inline constexpr bool with_tsan = false;
#endif
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool with_asan = true;
#else
inline constexpr bool with_asan = false;
#endif
inline constexpr bool with_sanitizer = with_tsan || with_asan;

} // namespace support
