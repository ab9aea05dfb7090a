// Serial ports: which device a name stands for.
//
// Names come and go with the adapters that are plugged in, and any of them may be a chain of links.

#include "tarn_serial_internal.h"

#include "tarn_str.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace
{

constexpr int link_max = 40;
constexpr size_t target_max = tarn::serial_name_max;

/** Kept off the stack, which may be a small one. */
struct work_space
{
    char path[PATH_MAX];
    char plain[PATH_MAX];
};

enum class hop
{
    end, // the path is no link
    followed,
    refused
};

/** Replace a path that is a link by what it points to; a relative target takes the place of the
 *  last component. */
hop follow(char (&path)[PATH_MAX])
{
    char target[target_max + 1]; // filled to the last byte by a target that is too long
    const ssize_t length = ::readlink(path, target, sizeof target);
    if (length < 0)
    {
        return hop::end;
    }
    const char *const slash = target[0] == '/' ? nullptr : std::strrchr(path, '/');
    const size_t kept = slash != nullptr ? static_cast<size_t>(slash + 1 - path) : 0;
    const auto added = static_cast<size_t>(length);
    if (added > target_max || kept + added >= sizeof path)
    {
        return hop::refused;
    }
    tarn_mem_copy(path + kept, target, added);
    path[kept + added] = '\0';
    return hop::followed;
}

bool follow_all(char (&path)[PATH_MAX])
{
    for (int i = 0; i <= link_max; ++i)
    {
        if (const hop result = follow(path); result != hop::followed)
        {
            return result == hop::end;
        }
    }
    return false;
}

/** Pseudo terminals are numbered anew in each file system that has them. */
bool is_pseudo_terminal(uint64_t device)
{
    constexpr unsigned first_major = 136;
    constexpr unsigned last_major = 143;
    return major(device) >= first_major && major(device) <= last_major;
}

/** The target of a link in a directory, from its last '/' on; null when the entry is no link, or one
 *  without '/' or with too long a target. */
const char *last_part(DIR *dir, const char *entry, char (&target)[target_max + 1])
{
    const ssize_t length = ::readlinkat(::dirfd(dir), entry, target, sizeof target);
    if (length < 0 || static_cast<size_t>(length) > target_max)
    {
        return nullptr;
    }
    target[length] = '\0';
    return std::strrchr(target, '/');
}

/** First link whose name contains the identifier, as above. */
const char *find_by_id(DIR *dir, const char *id, char (&target)[target_max + 1])
{
    while (const dirent *const entry = ::readdir(dir))
    {
        if (std::strstr(entry->d_name, id) == nullptr)
        {
            continue;
        }
        if (const char *const name = last_part(dir, entry->d_name, target); name != nullptr)
        {
            return name;
        }
    }
    return nullptr;
}

} // namespace

namespace tarn
{

const char *serial_by_id_path = "/dev/serial/by-id";

bool serial_resolve(const char *port, serial_node *out)
{
    const auto work = unique_mem<work_space>::make();
    RVON(work, false);
    (void)tarn_str_printf(work->path, sizeof work->path, "%s", port);
    if (!follow_all(work->path))
    {
        return false;
    }
    // Links in the directories and ".." would give one device several names, and as many locks.
    const bool exists = ::realpath(work->path, work->plain) != nullptr;
    const char *const node = exists ? work->plain : work->path;
    const size_t length = std::strlen(node);
    if (length > serial_name_max)
    {
        return false;
    }
    tarn_mem_copy(out->path, node, length + 1);
    struct stat status
    {
    };
    if (::stat(node, &status) == 0 && S_ISCHR(status.st_mode))
    {
        out->file_system = status.st_dev;
        out->device = status.st_rdev;
    }
    return true;
}

bool serial_same_device(const serial_node &a, const serial_node &b)
{
    if (a.device == 0 || b.device == 0)
    {
        return std::strcmp(a.path, b.path) == 0;
    }
    return a.device == b.device &&
           (a.file_system == b.file_system || !is_pseudo_terminal(a.device));
}

} // namespace tarn

int tarn_serial_get_tty_name_by_id(const char *id, char *buffer, size_t len)
{
    RVON(id, TARN_ERRLN);
    RVON(buffer, TARN_ERRLN);
    DIR *const dir = ::opendir(tarn::serial_by_id_path);
    RVON(dir, -1);
    const tarn::scope_exit close_dir([dir] {
        const tarn::cancel_guard no_cancel;
        (void)::closedir(dir);
    });
    char target[target_max + 1];
    const char *const name = find_by_id(dir, id, target);
    if (name == nullptr)
    {
        return -2;
    }
    RVOF(sizeof "/dev" + tarn_str_len(name) <= len, TARN_ERRLN);
    (void)tarn_str_printf(buffer, len, "/dev%s", name);
    return 0;
}
