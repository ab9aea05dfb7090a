#include "support.h"

#include "tarn_log_internal.h"
#include "tarn_mem_internal.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support
{
namespace
{

using clock = std::chrono::steady_clock;

struct log_state
{
    std::mutex lock;
    std::vector<std::string> captured;
    std::vector<std::string> unannounced;
    std::map<std::string, size_t, std::less<>> announced;
};
log_state state;
std::atomic<int> captures{0};

std::string_view message_of(std::string_view line)
{
    const size_t open = line.find('[');
    const size_t close = line.find("] ", open);
    return open == std::string_view::npos || close == std::string_view::npos
               ? line
               : line.substr(close + 2);
}

bool is_failed_check(std::string_view message)
{
    static constexpr std::string_view macros[] = {"RVON(", "RVOF(", "RVOT(", "RVOZ(", "RON(",
                                                  "ROT(",  "BON(",  "BOF(",  "BOT("};
    return message.ends_with(") failed") &&
           std::any_of(std::begin(macros), std::end(macros),
                       [&](std::string_view macro) { return message.starts_with(macro); });
}

// Takes the lock only for lines that matter: a lock per line would order the threads under test
// and hide their races.
void tap(int32_t, std::string_view line)
{
    line.remove_suffix(line.ends_with('\n') ? 1 : 0);
    const bool capturing = captures.load(std::memory_order_relaxed) != 0;
    const bool failed_check = is_failed_check(message_of(line));
    if (!capturing && !failed_check)
    {
        return;
    }
    const std::lock_guard guard(state.lock);
    if (capturing)
    {
        state.captured.emplace_back(line);
    }
    if (failed_check)
    {
        std::string_view text = message_of(line);
        text.remove_suffix(std::string_view(" failed").size());
        if (const auto known = state.announced.find(text); known != state.announced.end())
        {
            ++known->second;
        }
        else
        {
            state.unannounced.emplace_back(line);
        }
    }
}

/** Level, tap and announced checks of every test. */
class check_listener : public testing::EmptyTestEventListener
{
    void OnTestStart(const testing::TestInfo &) override
    {
        tarn_log_level_set(TARN_LOG_LEVEL_DEBUG);
        const std::lock_guard guard(state.lock);
        state.unannounced.clear();
        state.announced.clear();
    }
    void OnTestEnd(const testing::TestInfo &) override
    {
        const std::lock_guard guard(state.lock);
        for (const auto &line : state.unannounced)
        {
            ADD_FAILURE() << "unannounced check: " << line;
        }
        for (const auto &[text, times] : state.announced)
        {
            EXPECT_NE(times, 0u) << "announced check did not fail: " << text;
        }
    }
};

std::map<std::string, role_function, std::less<>> &roles()
{
    static std::map<std::string, role_function, std::less<>> known;
    return known;
}

size_t entries_of(const char *directory)
{
    size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(directory))
    {
        ++count;
    }
    return count;
}

thread_local size_t allocations_until_failure = 0;
thread_local bool allocation_has_failed = false;

bool fail_nth(size_t)
{
    if (allocations_until_failure == 0 || --allocations_until_failure != 0)
    {
        return false;
    }
    allocation_has_failed = true;
    return true;
}

} // namespace

void expect_check(std::string_view text)
{
    const std::lock_guard guard(state.lock);
    state.announced.emplace(text, 0);
}

log_capture::log_capture()
{
    clear();
    captures.fetch_add(1);
}

log_capture::~log_capture()
{
    captures.fetch_sub(1);
}

std::vector<std::string> log_capture::lines() const
{
    const std::lock_guard guard(state.lock);
    return state.captured;
}

std::vector<std::string> log_capture::messages() const
{
    std::vector<std::string> all = lines();
    for (std::string &line : all)
    {
        line = std::string(message_of(line));
    }
    return all;
}

size_t log_capture::count(std::string_view text) const
{
    const std::lock_guard guard(state.lock);
    return static_cast<size_t>(
        std::count_if(state.captured.begin(), state.captured.end(), [&](const std::string &line) {
            return line.find(text) != std::string::npos;
        }));
}

bool log_capture::contains(std::string_view level, std::string_view text) const
{
    const std::lock_guard guard(state.lock);
    const std::string tag = "." + std::string(level) + " ";
    return std::any_of(state.captured.begin(), state.captured.end(), [&](const std::string &line) {
        const size_t at = line.find(tag);
        return at != std::string::npos && at < line.find('[') &&
               line.find(text) != std::string::npos;
    });
}

bool log_capture::wait_for(std::string_view text, uint32_t timeout_ms) const
{
    return wait_until([&] { return contains(text); }, timeout_ms);
}

void log_capture::clear()
{
    const std::lock_guard guard(state.lock);
    state.captured.clear();
}

level_scope::level_scope(int32_t level) : old_(__atomic_load_n(&tarn_log_level, __ATOMIC_RELAXED))
{
    tarn_log_level_set(level);
}

level_scope::~level_scope()
{
    tarn_log_level_set(old_);
}

bool wait_until(const std::function<bool()> &condition, uint32_t timeout_ms)
{
    const auto deadline = clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!condition())
    {
        if (clock::now() > deadline)
        {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

double elapsed_ms(const std::function<void()> &call)
{
    const auto start = clock::now();
    call();
    return std::chrono::duration<double, std::milli>(clock::now() - start).count();
}

size_t open_descriptors()
{
    return entries_of("/proc/self/fd");
}

size_t running_threads()
{
    return entries_of("/proc/self/task");
}

signal_storm::signal_storm()
{
    struct sigaction action
    {
    };
    action.sa_handler = [](int) {};
    ::sigaction(SIGURG, &action, nullptr); // no SA_RESTART
    const pthread_t target = pthread_self();
    thread_ = std::thread([this, target] {
        while (!done_)
        {
            pthread_kill(target, SIGURG);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
}

signal_storm::~signal_storm()
{
    done_ = true;
    thread_.join();
}

leak_check::leak_check()
{
    if (with_tsan)
    {
        std::thread([] {}).join(); // its runtime starts a thread of its own with the first one
    }
    descriptors_ = open_descriptors();
    threads_ = running_threads();
}

leak_check::~leak_check()
{
    // Detached threads may take a moment to go.
    EXPECT_TRUE(wait_until([this] { return running_threads() <= threads_; }))
        << running_threads() << " threads, " << threads_ << " before";
    EXPECT_TRUE(wait_until([this] { return open_descriptors() <= descriptors_; }, 2000))
        << open_descriptors() << " descriptors, " << descriptors_ << " before";
}

temp_dir::temp_dir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "tarn_test_XXXXXX").string();
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    path_ = pattern;
}

temp_dir::~temp_dir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void write_file(const std::string &path, std::string_view content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string read_file(const std::string &path)
{
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::string unique_name(std::string_view prefix)
{
    static std::atomic<unsigned> next{0};
    return std::string(prefix) + "_" + std::to_string(getpid()) + "_" +
           std::to_string(next.fetch_add(1));
}

uint16_t free_port()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&address), length), 0);
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length), 0);
    ::close(fd);
    return ntohs(address.sin_port);
}

pty_pair::pty_pair() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
{
    char name[128] = "";
    EXPECT_GE(master_, 0);
    EXPECT_EQ(::grantpt(master_), 0);
    EXPECT_EQ(::unlockpt(master_), 0);
    EXPECT_EQ(::ptsname_r(master_, name, sizeof name), 0);
    slave_name_ = name;
}

pty_pair::~pty_pair()
{
    close_master();
}

void pty_pair::close_master()
{
    if (master_ >= 0)
    {
        ::close(master_);
        master_ = -1;
    }
}

bool allocation_failed()
{
    return allocation_has_failed;
}

size_t fail_each_allocation(const std::function<void(size_t)> &call)
{
    tarn::mem_fail_hook.store(fail_nth);
    size_t nth = 0;
    do
    {
        ++nth;
        allocation_has_failed = false;
        allocations_until_failure = nth;
        call(nth);
        allocations_until_failure = 0;
    } while (allocation_has_failed && !testing::Test::HasFatalFailure());
    tarn::mem_fail_hook.store(nullptr);
    return nth - 1;
}

bool register_role(const char *name, role_function function)
{
    return roles().emplace(name, function).second;
}

child_process child_process::role(std::string_view name, const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {"/proc/self/exe", "--role=" + std::string(name)};
    argv.insert(argv.end(), args.begin(), args.end());
    return program(argv);
}

child_process child_process::program(const std::vector<std::string> &argv,
                                     const std::vector<std::string> &environment)
{
    int in[2];
    int out[2];
    EXPECT_EQ(::pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
    std::vector<char *> arguments;
    for (const std::string &argument : argv)
    {
        arguments.push_back(const_cast<char *>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    std::vector<char *> variables;
    for (char **variable = environ; *variable != nullptr; ++variable)
    {
        variables.push_back(*variable);
    }
    for (const std::string &variable : environment)
    {
        variables.push_back(const_cast<char *>(variable.c_str()));
    }
    variables.push_back(nullptr);
    const pid_t pid = ::vfork();
    if (pid == 0)
    {
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(out[1], STDERR_FILENO);
        ::execve(arguments[0], arguments.data(), variables.data());
        ::_exit(127);
    }
    EXPECT_GT(pid, 0);
    ::close(in[0]);
    ::close(out[1]);
    return child_process(pid, in[1], out[0]);
}

child_process::child_process(child_process &&other) noexcept
    : pid_(std::exchange(other.pid_, -1)), in_(std::exchange(other.in_, -1)),
      out_(std::exchange(other.out_, -1)), buffer_(std::move(other.buffer_))
{
}

child_process::~child_process()
{
    if (pid_ > 0)
    {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    close_input();
    if (out_ >= 0)
    {
        ::close(out_);
    }
}

std::string child_process::read_line(uint32_t timeout_ms)
{
    const auto deadline = clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;)
    {
        if (const size_t end = buffer_.find('\n'); end != std::string::npos)
        {
            std::string line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            return line;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
        pollfd ready = {out_, POLLIN, 0};
        if (left < 0 || ::poll(&ready, 1, static_cast<int>(left)) == 0)
        {
            return {};
        }
        char chunk[4096];
        const ssize_t n = ::read(out_, chunk, sizeof chunk);
        if (n == 0 || (n < 0 && errno != EINTR))
        {
            return std::exchange(buffer_, {});
        }
        buffer_.append(chunk, n > 0 ? static_cast<size_t>(n) : 0);
    }
}

bool child_process::wait_for_line(std::string_view text, uint32_t timeout_ms)
{
    const auto deadline = clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;)
    {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
        const std::string line = read_line(left < 0 ? 0 : static_cast<uint32_t>(left));
        if (line.find(text) != std::string::npos)
        {
            return true;
        }
        if (line.empty() && (clock::now() >= deadline || ::kill(pid_, 0) != 0))
        {
            return false;
        }
        if (line.empty())
        {
            pollfd ready = {out_, POLLIN, 0};
            char byte = 0;
            if (::poll(&ready, 1, 0) == 1 && buffer_.empty() && ::read(out_, &byte, 1) == 0)
            {
                return false; // closed
            }
            if (byte != 0)
            {
                buffer_.push_back(byte);
            }
        }
    }
}

std::string child_process::read_rest(uint32_t timeout_ms)
{
    std::string all = std::exchange(buffer_, {});
    const auto deadline = clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;)
    {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
        pollfd ready = {out_, POLLIN, 0};
        char chunk[65536];
        if (left < 0 || ::poll(&ready, 1, static_cast<int>(left)) != 1)
        {
            return all;
        }
        const ssize_t n = ::read(out_, chunk, sizeof chunk);
        if (n <= 0)
        {
            return all;
        }
        all.append(chunk, static_cast<size_t>(n));
    }
}

bool child_process::write_line(std::string_view text)
{
    const std::string line = std::string(text) + "\n";
    return ::write(in_, line.data(), line.size()) == static_cast<ssize_t>(line.size());
}

void child_process::close_input()
{
    if (in_ >= 0)
    {
        ::close(in_);
        in_ = -1;
    }
}

void child_process::signal(int sig) const
{
    if (pid_ > 0) // once it is collected there is no such process, and -1 means every process
    {
        ::kill(pid_, sig);
    }
}

int child_process::wait(uint32_t timeout_ms)
{
    int status = 0;
    if (pid_ <= 0 ||
        !wait_until([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, timeout_ms))
    {
        return -1000;
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

int run(int argc, char **argv)
{
    constexpr std::string_view role_option = "--role=";
    if (argc > 1 && std::string_view(argv[1]).starts_with(role_option))
    {
        const auto known = roles().find(std::string_view(argv[1]).substr(role_option.size()));
        return known == roles().end()
                   ? 126
                   : known->second(std::vector<std::string>(argv + 2, argv + argc));
    }
    testing::InitGoogleTest(&argc, argv);
    (void)::signal(SIGPIPE, SIG_IGN);
    tarn::log_tap.store(tap);
    testing::UnitTest::GetInstance()->listeners().Append(new check_listener);
    return RUN_ALL_TESTS();
}

} // namespace support
