// Named pipes: a pair of FIFOs in a directory that every local user may write to.
//
// So a FIFO is never opened through a link, and what is opened has to be a FIFO. The handle removes
// only the FIFOs that it has made.

#include "tarn_pipe.h"

#include "tarn_check.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_str.h"
#include "tarn_sys.h"
#include "tarn_thread.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

struct tarn_pipe
{
    tarn_handle_header header;
    int32_t read_fd;
    int32_t write_fd;
    char *read_path;  ///< kept only when this handle made the FIFO
    char *write_path; ///< likewise
};
TARN_ASSERT_RECORD(tarn_pipe);

namespace
{

constexpr uint32_t retry_ms = 5;

using object_owner = tarn::unique_handle<TARN_PIPE, tarn_pipe_close>;

/** The two FIFOs of a pair, as one side uses them. */
struct side
{
    char read_path[TARN_NAME_MAX];
    char write_path[TARN_NAME_MAX];
};

bool was_formatted(int printed)
{
    return printed > 0 && printed < TARN_NAME_MAX;
}

/** The paths as the creating side uses them. A name that would be cut, or would leave the
 *  directory, counts as one that cannot be formatted. */
bool make_names(const char *name, char *pipe_name_rd, char *pipe_name_wr)
{
    // clang-format off
    RVOF_TEXT(tarn_str_len(name) > 0, false, "RVOF(tarn_str_len( name ) > 0,TARN_INVALID_HANDLE)");
    RVOF_TEXT(tarn_str_chr(name, '/') == NULL && was_formatted(tarn_str_printf(pipe_name_rd, TARN_NAME_MAX, "/tmp/tarn_pipe_%s_rd", name)), false, "RVOF(tarn_str_printf( pipe_name_rd, TARN_NAME_MAX, \"/tmp/tarn_pipe_%s_rd\", name ) > 0,TARN_INVALID_HANDLE)");
    RVOF_TEXT(was_formatted(tarn_str_printf(pipe_name_wr, TARN_NAME_MAX, "/tmp/tarn_pipe_%s_wr", name)), false, "RVOF(tarn_str_printf( pipe_name_wr, TARN_NAME_MAX, \"/tmp/tarn_pipe_%s_wr\", name ) > 0,TARN_INVALID_HANDLE)");
    // clang-format on
    return true;
}

/** Make a FIFO if it is not there.
 *  @param made  receives a copy of the path when this call made it */
bool make_fifo(const char *path, char **made)
{
    if (::mkfifo(path, 0777) == 0)
    {
        *made = tarn_str_dup(path);
        if (*made == nullptr)
        {
            (void)::unlink(path);
            return false;
        }
        return true;
    }
    if (errno == EEXIST)
    {
        return true;
    }
    TARN_LOG_ERROR("mkfifo %s failed, error = %d", path, errno);
    return false;
}

/** Open one end without blocking.
 *  @return descriptor, or -1 with errno */
int open_fifo(const char *path, int access_mode)
{
    tarn::unique_fd fd(tarn::retry_eintr(
        [&] { return ::open(path, access_mode | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC); }));
    struct stat status
    {
    };
    if (fd && (::fstat(fd.get(), &status) != 0 || !S_ISFIFO(status.st_mode)))
    {
        errno = EINVAL;
        return -1;
    }
    return fd.release();
}

void log_write_open_failure(const char *path, int error)
{
    TARN_LOG_ERROR("cannot open pipe %s for write, error = %d", path, error);
}

void log_read_open_failure(const char *path, int error)
{
    TARN_LOG_ERROR("cannot open pipe %s for read, error = %d", path, error);
}

bool open_write_end(TARN_PIPE p, const char *path)
{
    p->write_fd = open_fifo(path, O_WRONLY);
    if (p->write_fd < 0)
    {
        log_write_open_failure(path, errno);
    }
    return p->write_fd >= 0;
}

bool open_read_end(TARN_PIPE p, const char *path)
{
    p->read_fd = open_fifo(path, O_RDONLY);
    if (p->read_fd < 0)
    {
        log_read_open_failure(path, errno);
    }
    return p->read_fd >= 0;
}

object_owner make_pipe_object()
{
    object_owner p(tarn::make_object<tarn_pipe>(TARN_HANDLE_TYPE_PIPE).release());
    if (p)
    {
        p.get()->read_fd = -1;
        p.get()->write_fd = -1;
    }
    return p;
}

TARN_PIPE pipe_create(const char *read_path, const char *write_path)
{
    object_owner owner = make_pipe_object();
    TARN_PIPE p = owner.get();
    RVON(p, TARN_INVALID_HANDLE);
    const bool opened = make_fifo(write_path, &p->write_path) &&
                        make_fifo(read_path, &p->read_path) && open_write_end(p, write_path) &&
                        open_read_end(p, read_path);
    return opened ? owner.release() : TARN_INVALID_HANDLE;
}

// ---- waiting for the peer ------------------------------------------------------------------------

/** True when the descriptor is still what stands at the path: a peer that ended may have removed
 *  the FIFO, and another one made it anew. */
bool is_at(int fd, const char *path)
{
    struct stat open_one
    {
    };
    struct stat named
    {
    };
    return ::fstat(fd, &open_one) == 0 && ::lstat(path, &named) == 0 &&
           open_one.st_dev == named.st_dev && open_one.st_ino == named.st_ino;
}

/** Close a descriptor that is no longer what stands at the path. */
void drop_if_gone(int32_t *fd, const char *path)
{
    if (*fd >= 0 && !is_at(*fd, path))
    {
        tarn::close_fd(std::exchange(*fd, -1));
    }
}

bool make_missing(const char *path, char **made)
{
    struct stat status
    {
    };
    if (::lstat(path, &status) == 0)
    {
        return true;
    }
    tarn_mem_free(std::exchange(*made, nullptr));
    return make_fifo(path, made);
}

/** Hold the read end of what stands at the path now. A peer that is just closing may remove it
 *  before it is open: the next try makes it anew. */
bool hold_read_end(TARN_PIPE p, const char *path)
{
    drop_if_gone(&p->read_fd, path);
    if (p->read_fd < 0 && !make_missing(path, &p->read_path))
    {
        return false;
    }
    if (p->read_fd < 0)
    {
        p->read_fd = open_fifo(path, O_RDONLY);
    }
    if (p->read_fd < 0 && errno != ENOENT)
    {
        log_read_open_failure(path, errno);
        return false;
    }
    return true;
}

/** Tells whether somebody holds the write end of a FIFO: a read would say "closed" until then.
 *  tee() answers without taking a byte; its copy goes into a pipe of no further use. */
class writer_probe
{
public:
    bool open()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        {
            return false;
        }
        out_.reset(ends[0]);
        in_.reset(ends[1]);
        return true;
    }
    [[nodiscard]] bool has_writer(int read_fd) const
    {
        return ::tee(read_fd, in_.get(), 1, SPLICE_F_NONBLOCK) != 0;
    }

private:
    tarn::unique_fd out_;
    tarn::unique_fd in_;
};

/** True when writers were there and all have closed. */
bool writers_are_gone(int read_fd)
{
    pollfd watched = {read_fd, POLLIN, 0};
    return ::poll(&watched, 1, 0) == 1 && (watched.revents & POLLHUP) != 0;
}

/** True when the peer holds its ends of both FIFOs, or has come, written and gone. In that order:
 *  a peer closes its ends before it removes the FIFOs. A live writer, while our write end is not
 *  what stands at the path, is another peer than the one which that end belongs to. */
bool has_met(TARN_PIPE p, const side &paths, const writer_probe &probe)
{
    return p->read_fd >= 0 && p->write_fd >= 0 && probe.has_writer(p->read_fd) &&
           (is_at(p->write_fd, paths.write_path) || writers_are_gone(p->read_fd));
}

/** One try to meet the peer.
 *  @return 0 when both directions stand; the error number to report, ENXIO and ENOENT meaning that
 *          the peer is not there yet */
int try_to_meet(TARN_PIPE p, const side &paths, const writer_probe &probe)
{
    drop_if_gone(&p->write_fd, paths.write_path);
    if (p->write_fd < 0)
    {
        p->write_fd = open_fifo(paths.write_path, O_WRONLY);
    }
    if (p->write_fd < 0)
    {
        return errno;
    }
    return has_met(p, paths, probe) ? 0 : ENXIO;
}

bool meet_peer(TARN_PIPE p, const side &paths, uint32_t timeout_ms)
{
    const uint32_t start = tarn_tick_ms();
    writer_probe probe;
    if (!probe.open())
    {
        return false;
    }
    while (!has_met(p, paths, probe))
    {
        if (!hold_read_end(p, paths.read_path) || !make_missing(paths.write_path, &p->write_path))
        {
            return false;
        }
        const int error = try_to_meet(p, paths, probe);
        if (error == 0)
        {
            return true;
        }
        const uint32_t elapsed = tarn_tick_ms_since(start);
        const bool late = timeout_ms != TARN_INFINITE && elapsed >= timeout_ms;
        if ((error != ENXIO && error != ENOENT) || late || tarn_thread_sleep(0))
        {
            log_write_open_failure(paths.write_path, error);
            return false;
        }
        tarn_sleep_ms(timeout_ms == TARN_INFINITE ? retry_ms
                                                  : std::min(retry_ms, timeout_ms - elapsed));
    }
    return true;
}

TARN_PIPE pipe_create_wait(const side &paths, uint32_t timeout_ms)
{
    object_owner owner = make_pipe_object();
    TARN_PIPE p = owner.get();
    RVON(p, TARN_INVALID_HANDLE);
    return meet_peer(p, paths, timeout_ms) ? owner.release() : TARN_INVALID_HANDLE;
}

void remove_fifo(char *path)
{
    if (path != nullptr)
    {
        (void)::unlink(path);
        tarn_mem_free(path);
    }
}

/** Map the result of a read or write. */
int moved(ssize_t n, size_t *done)
{
    if (n > 0 && done != nullptr)
    {
        *done = static_cast<size_t>(n);
    }
    return n > 0 ? 0 : n < 0 ? -1 : -2;
}

} // namespace

TARN_PIPE tarn_pipe_create(const char *name)
{
    RVON(name, TARN_INVALID_HANDLE);
    side paths;
    return make_names(name, paths.read_path, paths.write_path)
               ? pipe_create(paths.read_path, paths.write_path)
               : TARN_INVALID_HANDLE;
}

TARN_PIPE tarn_pipe_open(const char *name)
{
    RVON(name, TARN_INVALID_HANDLE);
    side paths;
    return make_names(name, paths.write_path, paths.read_path)
               ? pipe_create(paths.read_path, paths.write_path)
               : TARN_INVALID_HANDLE;
}

TARN_PIPE tarn_pipe_create_wait(const char *name, uint32_t timeout_ms)
{
    RVON(name, TARN_INVALID_HANDLE);
    side paths;
    return make_names(name, paths.read_path, paths.write_path) ? pipe_create_wait(paths, timeout_ms)
                                                               : TARN_INVALID_HANDLE;
}

TARN_PIPE tarn_pipe_open_wait(const char *name, uint32_t timeout_ms)
{
    RVON(name, TARN_INVALID_HANDLE);
    side paths;
    return make_names(name, paths.write_path, paths.read_path) ? pipe_create_wait(paths, timeout_ms)
                                                               : TARN_INVALID_HANDLE;
}

void tarn_pipe_close(TARN_PIPE p)
{
    if (p == nullptr)
    {
        return;
    }
    tarn::close_fd(p->read_fd);
    tarn::close_fd(p->write_fd);
    remove_fifo(p->read_path);
    remove_fifo(p->write_path);
    tarn_mem_free(p);
}

int tarn_pipe_read(TARN_PIPE p, void *buf, size_t len, size_t *done)
{
    RVON(p, -3);
    RVON(buf, -1);
    return moved(tarn::retry_eintr([&] { return ::read(p->read_fd, buf, len); }), done);
}

int tarn_pipe_write(TARN_PIPE p, const void *buf, size_t len, size_t *done)
{
    RVON(p, -3);
    RVON(buf, -1);
    return moved(tarn::retry_eintr([&] { return ::write(p->write_fd, buf, len); }), done);
}

bool tarn_pipe_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_pipe_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
