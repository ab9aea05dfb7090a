// Clean-up of backing files when their file system is full: what no process uses goes.
//
// A file is in use when its lock is taken (its creator lives) or any process has it open. The usual
// way is a shell command with fuser(1). A directory that every user may write to can hold names
// that a shell would take apart, and fuser does not see processes of other process namespaces; the
// same is then done here.

#include "tarn_shm_internal.h"

#include "tarn_os.h"
#include "tarn_str.h"
#include "tarn_sys.h"
#include "tarn_text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

constexpr uint32_t command_timeout_ms = 10000;

// clang-format off
constexpr char cleanup_command[] =
    "if which fuser &> /dev/null; then for i in $(ls %s/TARN_SHM_* 2>/dev/null); do if ! fuser -s $i; then rm -f $i && logger -s \"rm -f $i\"; fi done else rm -f `ls -1S %s/TARN_SHM_* | head -1`; fi";
// clang-format on

struct dir_closer
{
    void operator()(DIR *dir) const
    {
        (void)::closedir(dir);
    }
};
using unique_dir = std::unique_ptr<DIR, dir_closer>;

/** Calls fn(directory descriptor, name) for each entry until fn returns false.
 *  @return false when fn did */
template <typename Fn>
bool for_each_entry(const char *path, Fn fn)
{
    const unique_dir dir(::opendir(path));
    if (!dir)
    {
        return true;
    }
    while (const dirent *entry = ::readdir(dir.get()))
    {
        if (!fn(::dirfd(dir.get()), entry->d_name))
        {
            return false;
        }
    }
    return true;
}

/** The same for the entries that are backing files by their name. */
template <typename Fn>
bool for_each_backing_file(const char *root, Fn fn)
{
    return for_each_entry(root, [&fn](int dir_fd, const char *name) {
        const size_t length = sizeof tarn::shm_file_prefix - 1;
        return std::strncmp(name, tarn::shm_file_prefix, length) != 0 || fn(dir_fd, name);
    });
}

/** A name that means itself to a shell. */
bool is_plain(const char *name)
{
    constexpr char plain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-";
    return name[std::strspn(name, plain)] == '\0';
}

bool is_same_file(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

tarn::unique_fd open_regular(int dir_fd, const char *name, struct stat *status)
{
    tarn::unique_fd fd(::openat(dir_fd, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd && (::fstat(fd.get(), status) != 0 || !S_ISREG(status->st_mode)))
    {
        fd.reset();
    }
    return fd;
}

/** True when the lock is free, and then taken until fd is closed. */
bool take_lock(int fd)
{
    return ::flock(fd, LOCK_EX | LOCK_NB) == 0;
}

/** True when one of the descriptors in a /proc/PID/fd directory is open on the file. */
bool has_open(const char *fd_dir, const struct stat &file, int except_fd)
{
    return !for_each_entry(fd_dir, [&](int dir_fd, const char *name) {
        struct stat open_one
        {
        };
        const bool counts = except_fd < 0 || std::atoi(name) != except_fd;
        return !(counts && ::fstatat(dir_fd, name, &open_one, 0) == 0 &&
                 is_same_file(open_one, file));
    });
}

/** True when a process that we may look into has the file open, other than through own_fd. */
bool is_open_somewhere(const struct stat &file, int own_fd)
{
    return !for_each_entry("/proc", [&](int, const char *name) {
        if (name[0] < '0' || name[0] > '9')
        {
            return true;
        }
        char path[64];
        tarn::text_writer(path, sizeof path).append("/proc/").append(name).append("/fd");
        return !has_open(path, file, std::atoi(name) == ::getpid() ? own_fd : -1);
    });
}

/** Remove one file if it is unused. */
void remove_if_unused(int dir_fd, const char *name)
{
    struct stat status
    {
    };
    const tarn::unique_fd fd = open_regular(dir_fd, name, &status);
    if (!fd || !take_lock(fd.get()) || is_open_somewhere(status, fd.get()))
    {
        return;
    }
    // The lock is held: a creator that finds the file now leaves it alone.
    if (::unlinkat(dir_fd, name, 0) == 0)
    {
        ::syslog(LOG_USER | LOG_NOTICE, "rm -f %s", name);
    }
}

bool has_fuser()
{
    const char *path = std::getenv("PATH");
    std::string_view rest = path != nullptr ? path : "/bin:/usr/bin";
    while (!rest.empty())
    {
        const size_t end = std::min(rest.find(':'), rest.size());
        char file[1024];
        tarn::text_writer text(file, sizeof file);
        text.append(rest.substr(0, end)).append("/fuser");
        if (!text.truncated() && ::access(file, X_OK) == 0)
        {
            return true;
        }
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return false;
}

/** True when the command would do what it is meant to do: names that it cannot misread, and no
 *  locked file that fuser might not see a user of. */
bool is_safe_for_shell(const char *root, int own_fd)
{
    struct stat own
    {
    };
    const bool has_own = own_fd >= 0 && ::fstat(own_fd, &own) == 0;
    return has_fuser() && for_each_backing_file(root, [&](int dir_fd, const char *name) {
               struct stat status
               {
               };
               const tarn::unique_fd fd = open_regular(dir_fd, name, &status);
               return is_plain(name) && fd &&
                      ((has_own && is_same_file(status, own)) || take_lock(fd.get()));
           });
}

void run_command(const char *root)
{
    char command[512];
    const int length = tarn_str_printf(command, sizeof command, cleanup_command, root, root);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof command)
    {
        return;
    }
    char *output = nullptr;
    (void)tarn_sys_command_run(command, &output, command_timeout_ms);
    tarn_mem_free(output);
}

} // namespace

namespace tarn
{

void shm_remove_unused_files(const char *root, int own_fd)
{
    if (is_safe_for_shell(root, own_fd))
    {
        run_command(root);
        return;
    }
    // The own file is locked through another descriptor, so it stays.
    (void)for_each_backing_file(root, [](int dir_fd, const char *name) {
        remove_if_unused(dir_fd, name);
        return true;
    });
}

} // namespace tarn
