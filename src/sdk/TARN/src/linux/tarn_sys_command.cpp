// Shell commands with captured output.
//
// What popen() does, with three differences that a daemon needs: SIGPIPE, which the process
// ignores, is back to its default in the command, or a command whose output nobody reads any more
// would never end; the descriptor is read without stdio; and waiting for output has a limit.

#include "tarn_sys.h"

#include "tarn_os.h"
#include "tarn_process_state.h"
#include "tarn_raii.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr size_t piece_size = 128;

/** A running shell with the end of the pipe that its output comes from. */
struct shell
{
    pid_t pid = -1;
    tarn::unique_fd output;
};

/** What the child has of its own: standard output is the pipe, SIGPIPE has its default. */
class [[nodiscard]] spawn_settings
{
public:
    explicit spawn_settings(int standard_output)
    {
        (void)posix_spawn_file_actions_init(&actions_);
        (void)posix_spawnattr_init(&attributes_);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        (void)posix_spawnattr_setsigdefault(&attributes_, &defaults);
        (void)posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
        complete_ =
            posix_spawn_file_actions_adddup2(&actions_, standard_output, STDOUT_FILENO) == 0;
    }
    spawn_settings(const spawn_settings &) = delete;
    spawn_settings &operator=(const spawn_settings &) = delete;
    ~spawn_settings()
    {
        (void)posix_spawnattr_destroy(&attributes_);
        (void)posix_spawn_file_actions_destroy(&actions_);
    }
    bool spawn(const char *cmd, pid_t *pid)
    {
        char name[] = "sh";
        char option[] = "-c";
        char end_of_options[] = "--";
        char *const arguments[] = {name, option, end_of_options, const_cast<char *>(cmd), nullptr};
        // The new process reads the environment before this call returns.
        const tarn::lock_guard lock(tarn::environment_lock);
        return complete_ &&
               posix_spawn(pid, "/bin/sh", &actions_, &attributes_, arguments, environ) == 0;
    }

private:
    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
    bool complete_ = false;
};

bool start_shell(const char *cmd, shell *out)
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0)
    {
        return false;
    }
    out->output.reset(ends[0]);
    const tarn::unique_fd input(ends[1]);
    return spawn_settings(input.get()).spawn(cmd, &out->pid);
}

/** A string that grows at its end; always terminated, null while empty. */
class [[nodiscard]] growing_text
{
public:
    /** @return false when memory ran out; the text then stays as it was */
    bool append(const char *bytes, size_t n)
    {
        if (n >= capacity_ - length_)
        {
            const size_t wanted = std::max(capacity_ * 2, length_ + n + 1);
            void *const grown = tarn_mem_realloc(text_.get(), wanted);
            if (grown == nullptr)
            {
                return false;
            }
            (void)text_.release();
            text_.reset(static_cast<char *>(grown));
            capacity_ = wanted;
        }
        std::memcpy(text_.get() + length_, bytes, n);
        length_ += n;
        text_.get()[length_] = '\0';
        return true;
    }
    char *release()
    {
        return text_.release();
    }

private:
    tarn::unique_mem<char> text_;
    size_t length_ = 0;
    size_t capacity_ = 0;
};

/** Wait until there is something to read, at most so long as the limit leaves.
 *  @return false when the time is over */
bool wait_for_output(int fd, uint32_t start, uint32_t timeout_ms)
{
    if (timeout_ms == TARN_INFINITE)
    {
        return true; // the read waits
    }
    for (;;)
    {
        const uint32_t elapsed = tarn_tick_ms_since(start);
        if (elapsed >= timeout_ms)
        {
            return false;
        }
        pollfd watched = {fd, POLLIN, 0};
        const uint32_t left = std::min<uint32_t>(timeout_ms - elapsed, INT_MAX);
        if (poll(&watched, 1, static_cast<int>(left)) == 1)
        {
            return true;
        }
    }
}

void read_output(int fd, uint32_t timeout_ms, growing_text *output)
{
    const uint32_t start = tarn_tick_ms();
    while (wait_for_output(fd, start, timeout_ms))
    {
        char piece[piece_size];
        const ssize_t n = tarn::retry_eintr([&] { return read(fd, piece, sizeof piece); });
        if (n <= 0)
        {
            return;
        }
        TARN_LOG_DEBUG("read_len = %lu", static_cast<unsigned long>(n));
        if (!output->append(piece, static_cast<size_t>(n)))
        {
            return;
        }
    }
}

char *failure_text(const char *cmd)
{
    const int length = std::snprintf(nullptr, 0, "fail to run [%s]\n", cmd);
    const size_t size = length < 0 ? 0 : static_cast<size_t>(length) + 1;
    auto text = tarn::unique_mem<char>::make_array(size);
    if (text && size != 0)
    {
        (void)std::snprintf(text.get(), size, "fail to run [%s]\n", cmd);
    }
    return text.release();
}

/** Exit status of a normal end; a negative code of its own for every other. */
int result_of(int status)
{
    if (WIFEXITED(status))
    {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status))
    {
        return TARN_ERRLN;
    }
    if (WIFSTOPPED(status) && WSTOPSIG(status) == 127)
    {
        return TARN_ERRLN;
    }
    return TARN_ERRLN;
}

} // namespace

int tarn_sys_command_run(const char *cmd, char **output, uint32_t timeout_ms)
{
    RVON(cmd, TARN_ERRLN);
    if (output != nullptr && *output != nullptr)
    {
        TARN_LOG_ERROR("content of argument output should be null!");
        return TARN_ERRLN;
    }
    // Whoever were cancelled in here would leave a zombie.
    const tarn::cancel_guard no_cancel;
    shell sh;
    if (!start_shell(cmd, &sh))
    {
        if (output != nullptr)
        {
            *output = failure_text(cmd);
        }
        return TARN_ERRLN;
    }
    growing_text text;
    if (output != nullptr)
    {
        read_output(sh.output.get(), timeout_ms, &text);
        *output = text.release();
    }
    sh.output.reset(); // a command that still prints ends by SIGPIPE
    int status = -1;
    if (tarn::retry_eintr([&] { return waitpid(sh.pid, &status, 0); }) == -1)
    {
        status = -1; // another part of the process reaps its children
    }
    const int error = errno;
    const int rc = result_of(status);
    TARN_LOG_DEBUG("cmd = %s, status = %d, rc = %d, result = %s, errno = %d (%s)", cmd, status, rc,
                   output != nullptr && *output != nullptr ? *output : "<nil>", error,
                   tarn::error_text(error).c_str());
    return rc;
}
