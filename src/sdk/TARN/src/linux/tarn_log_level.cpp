// Log level file: a small file per process through which its level is changed while it runs.
//
// The directory is open to every local user, so anybody may put a link, a pipe or an endless file
// at the place of our file. It is therefore only ever opened without following links, without
// blocking, and read or written when it is a regular file; of a long one only the beginning counts.

#include "tarn_log.h"

#include "tarn_dir.h"
#include "tarn_file.h"
#include "tarn_os.h"
#include "tarn_process.h"
#include "tarn_raii.h"
#include "tarn_text.h"

#include <atomic>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr char level_dir[] = "/tmp/tarn_log_level";
constexpr size_t path_size = 256;
constexpr size_t max_text = 1024;

/** Set while the monitor runs, and while it is being started. */
constinit std::atomic<bool> started{false};

/** Kept for the rest of the process. */
constinit TARN_FILE_MONITOR level_monitor = nullptr;

/** Open a regular file without following a link; empty otherwise. */
tarn::unique_fd open_regular(const char *path)
{
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY;
    tarn::unique_fd fd(tarn::retry_eintr([path] { return ::open(path, flags); }));
    struct stat status
    {
    };
    if (fd && (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)))
    {
        fd.reset();
    }
    return fd;
}

/** Read the beginning of a level file.
 *  @return false when it cannot be read */
bool read_text(int fd, char *text)
{
    const ssize_t n = tarn::retry_eintr([&] { return ::read(fd, text, max_text); });
    text[n > 0 ? n : 0] = '\0';
    return n >= 0;
}

/** The directory of all level files, made for everybody if it is missing. */
tarn::unique_fd open_level_dir()
{
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const auto open_it = [] { return ::open(level_dir, flags); };
    tarn::unique_fd dir(tarn::retry_eintr(open_it));
    if (!dir && errno == ENOENT)
    {
        (void)tarn_dir_create(level_dir, 0777); // exactly, whatever the umask
        dir.reset(tarn::retry_eintr(open_it));
    }
    return dir;
}

int cannot_write(const char *path, int error)
{
    TARN_LOG_WARN("fail to open %s for write, error = %d (%s)", path, error,
                  tarn::error_text(error).c_str());
    return TARN_ERRLN;
}

/** Make the file with the current level. */
int write_level_file(int dir, const char *path, const char *name)
{
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const tarn::unique_fd fd(tarn::retry_eintr([&] { return ::openat(dir, name, flags, 0666); }));
    if (!fd)
    {
        return cannot_write(path, errno);
    }
    const char *const level = log_level_to_str(__atomic_load_n(&tarn_log_level, __ATOMIC_RELAXED));
    TARN_LOG_DEBUG("write the log level \"%s\" to %s", level, path);
    char line[32];
    tarn::text_writer text(line, sizeof line);
    text.append(level).append('\n');
    (void)::fchmod(fd.get(), 0666);
    if (tarn::retry_eintr([&] { return ::write(fd.get(), line, text.length()); }) < 0)
    {
        return cannot_write(path, errno);
    }
    return 0;
}

/** Load the level from the file, or make the file. */
int meet_level_file(int dir, const char *path, const char *name)
{
    struct stat status
    {
    };
    if (::fstatat(dir, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
    {
        return write_level_file(dir, path, name);
    }
    if (!S_ISREG(status.st_mode))
    {
        return cannot_write(path, EEXIST);
    }
    tarn_log_level_set(log_level_file_read(path));
    TARN_LOG_DEBUG("load the log level \"%s\" from %s",
                   log_level_to_str(__atomic_load_n(&tarn_log_level, __ATOMIC_RELAXED)), path);
    return 0;
}

void tarn_log_level_config_file_change_handler(TARN_FILE_MONITOR, const char *path, uint32_t,
                                               void *)
{
    const int32_t current = __atomic_load_n(&tarn_log_level, __ATOMIC_RELAXED);
    const int32_t level = log_level_file_read(path);
    if (level != current)
    {
        TARN_LOG_WARN("change the log level from %s to %s", log_level_to_str(current),
                      log_level_to_str(level));
        tarn_log_level_set(level);
    }
}

int start_monitor()
{
    const tarn::unique_fd dir = open_level_dir();
    if (!dir)
    {
        TARN_LOG_ERROR("fail to create dir %s", level_dir);
        return TARN_ERRLN;
    }
    const char *const name = tarn_process_name();
    char path[path_size];
    tarn::text_writer text(path, sizeof path);
    text.append(level_dir).append('/').append(name);
    if (text.truncated() || std::strchr(name, '/') != nullptr)
    {
        return cannot_write(path, ENAMETOOLONG); // cut, it would be another program's file
    }
    if (const int rc = meet_level_file(dir.get(), path, name); rc != 0)
    {
        return rc;
    }
    level_monitor =
        tarn_file_monitor_start(path, tarn_log_level_config_file_change_handler, nullptr);
    if (level_monitor == nullptr)
    {
        TARN_LOG_ERROR("fail to start thread");
        return TARN_ERRLN;
    }
    return 0;
}

} // namespace

int32_t log_level_file_read(const char *path)
{
    const int32_t current = __atomic_load_n(&tarn_log_level, __ATOMIC_RELAXED);
    RVON(path, current);
    char text[max_text + 1];
    const tarn::unique_fd fd = open_regular(path);
    const bool read = fd && read_text(fd.get(), text);
    TARN_LOG_DEBUG("read %s get %s", path, read ? text : "(null)");
    return read ? log_level_from_str(text) : current;
}

int tarn_log_level_monitor_start(void)
{
    if (started.exchange(true, std::memory_order_acq_rel))
    {
        TARN_LOG_ERROR("already started");
        return TARN_ERRLN;
    }
    const int rc = start_monitor();
    if (rc != 0)
    {
        started.store(false, std::memory_order_release);
    }
    return rc;
}
