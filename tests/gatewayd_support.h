// What the tests of gatewayd share: it runs as a process, driven by command line, configuration file
// and signals.
#pragma once

#include "support.h"

#include "tarn_raii.h"

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <set>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace gatewayd_test
{

using support::child_process;

inline constexpr char program[] = TARN_BINARY_DIR "/gatewayd";

/** A name for an instance, and the files that go with it. */
class instance
{
public:
    instance() = default;
    instance(const instance &) = delete;
    instance &operator=(const instance &) = delete;
    ~instance()
    {
        EXPECT_FALSE(has_heap()) << "left behind";
        (void)::unlink(lock_file().c_str());
        (void)::unlink(level_file().c_str());
    }
    [[nodiscard]] const std::string &name() const
    {
        return name_;
    }
    [[nodiscard]] std::string option() const
    {
        return "--name=" + name_;
    }
    [[nodiscard]] std::string level_file() const
    {
        return "/tmp/tarn_log_level/" + name_;
    }
    /** Some process holds the lock. */
    [[nodiscard]] bool is_locked() const
    {
        const int fd = ::open(lock_file().c_str(), O_RDONLY | O_CLOEXEC);
        const bool locked = fd >= 0 && ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        ::close(fd);
        return locked;
    }
    /** The shared heap's segment has a file. */
    [[nodiscard]] bool has_heap() const
    {
        return std::filesystem::exists("/dev/shm/TARN_SHM_" + name_);
    }

private:
    [[nodiscard]] std::string lock_file() const
    {
        return "/tmp/tarn_proc_" + name_ + ".pid";
    }
    std::string name_ = support::unique_name("gw");
};

/** A daemon in the foreground. One that is killed leaves its shared heap behind, so at the end of its
 *  scope it is asked to go first. */
class foreground : public child_process
{
public:
    explicit foreground(child_process &&child) noexcept : child_process(std::move(child)) {}
    foreground(foreground &&) noexcept = default;
    foreground &operator=(foreground &&) = delete;
    foreground(const foreground &) = delete;
    foreground &operator=(const foreground &) = delete;
    ~foreground()
    {
        if (pid() > 0)
        {
            signal(SIGTERM);
            (void)read_rest();
            (void)wait();
        }
    }
};

inline foreground start(std::vector<std::string> arguments,
                        const std::vector<std::string> &environment = {})
{
    arguments.insert(arguments.begin(), program);
    return foreground(child_process::program(arguments, environment));
}

/** An instance in the foreground that runs, with telemetry that does not disturb.
 *  @param also  lines that it has written then, too; in any order */
inline foreground start_running(const instance &self, std::vector<std::string> arguments = {},
                                std::set<std::string> also = {})
{
    arguments.insert(arguments.begin(), {self.option(), "--period=3600000"});
    foreground daemon = start(arguments);
    also.insert("running");
    std::string line = "first";
    while (!also.empty() && !line.empty())
    {
        line = daemon.read_line(60000);
        std::erase_if(
            also, [&](const std::string &text) { return line.find(text) != std::string::npos; });
    }
    EXPECT_TRUE(also.empty()) << "no " << *also.begin();
    return daemon;
}

/** Reads an instance's lines for its scope: each change of a point is one, and a pipe that is full
 *  would hold the daemon up. */
class drain
{
public:
    explicit drain(child_process &daemon)
        : thread_([&daemon](const std::stop_token &stop) {
              while (!stop.stop_requested())
              {
                  (void)daemon.read_line(50);
              }
          })
    {
    }

private:
    std::jthread thread_;
};

/** In the right time as far as a busy machine lets one tell. */
inline void expect_orderly_end(child_process &daemon, int sig = SIGTERM)
{
    daemon.signal(sig);
    const double ms = support::elapsed_ms([&] { EXPECT_EQ(daemon.wait(), 0); });
    EXPECT_LT(ms, 10000);
    EXPECT_NE(daemon.read_rest().find("ended with status 0"), std::string::npos);
}

struct failure
{
    std::vector<std::string> arguments;
    std::vector<std::string> texts; ///< all of them in the output
};

inline void expect_failure(const failure &row)
{
    foreground daemon = start(row.arguments);
    const std::string output = daemon.read_rest();
    const int status = daemon.wait();
    EXPECT_GT(status, 0) << output;
    for (const std::string &text : row.texts)
    {
        EXPECT_NE(output.find(text), std::string::npos) << "no '" << text << "' in\n" << output;
    }
}

} // namespace gatewayd_test
