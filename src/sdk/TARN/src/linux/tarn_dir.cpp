// Directories: creation with parents, path splitting, listing, free space.

#include "tarn_dir.h"

#include "tarn_check.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_str.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

struct tarn_dir
{
    tarn_handle_header header;
    DIR *stream;
    char *path;
};
TARN_ASSERT_RECORD(tarn_dir);

namespace
{

constexpr size_t path_size = 4096;

/** A copy of what the listing needs of a dirent, which itself lives only until the next read. */
struct dir_entry
{
    unsigned char type;   // DT_*
    char name[path_size]; // file systems may give out names longer than NAME_MAX
};

} // namespace

struct tarn_dir_itor
{
    TARN_DIR dir;
    const dir_entry *dent; ///< null, or the entry below
    dir_entry entry;
};

namespace
{

constexpr uint32_t default_mode = 0775;

using text_owner = tarn::unique_mem<char>;
using dir_owner = tarn::unique_handle<TARN_DIR, tarn_dir_close>;
using itor_owner = tarn::unique_mem<tarn_dir_itor>;

/** Each thread's latest results; freed when the thread ends. */
thread_local text_owner last_dirname;
thread_local text_owner last_basename;
thread_local text_owner last_path_name;

/** Place of the last separator; 0 when there is none, or only one at the very beginning. */
size_t last_separator(std::string_view path)
{
    const size_t at = path.find_last_of("/\\");
    return at == std::string_view::npos ? 0 : at;
}

/** Keep a text as the calling thread's latest result; it may lie inside the one it replaces. */
const char *keep(text_owner &slot, std::string_view text)
{
    auto copy = text_owner::make_array(text.size() + 1);
    RVON(copy, NULL);
    tarn_mem_copy(copy.get(), text.data(), text.size());
    slot = std::move(copy);
    return slot.get();
}

/** Create one directory with exactly this mode. The process's umask is left alone: it belongs to
 *  all threads. */
int create_directory(const char *path, mode_t mode)
{
    if (::mkdir(path, mode | 0700) != 0)
    {
        return -1;
    }
    const tarn::unique_fd fd(tarn::retry_eintr(
        [path] { return ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
    struct stat status
    {
    };
    if (!fd || ::fstat(fd.get(), &status) != 0)
    {
        return -1;
    }
    // A group that the parent hands down stays. EPERM: the file system knows no owners and modes.
    const mode_t wanted = mode | (status.st_mode & S_ISGID);
    return ::fchmod(fd.get(), wanted) == 0 || errno == EPERM ? 0 : -1;
}

/** Type of a file whose entry does not tell it. Apart, because it is rare and its record large. */
[[gnu::cold, gnu::noinline]] unsigned char type_of_file(DIR *stream, const char *name)
{
    struct stat status
    {
    };
    if (::fstatat(::dirfd(stream), name, &status, AT_SYMLINK_NOFOLLOW) != 0)
    {
        return DT_UNKNOWN;
    }
    return S_ISDIR(status.st_mode) ? DT_DIR : S_ISREG(status.st_mode) ? DT_REG : DT_UNKNOWN;
}

unsigned char entry_type(DIR *stream, const dirent &found)
{
    return found.d_type != DT_UNKNOWN ? found.d_type : type_of_file(stream, found.d_name);
}

/** Copy the name with the padding behind it: quicker than to look for its end. Not with memcpy(),
 *  which the compiler would turn into an instruction that is slow for a few bytes. The last byte of
 *  the target stays 0. */
void copy_name(dir_entry *target, const dirent &found)
{
    const size_t size = found.d_reclen - offsetof(dirent, d_name);
    tarn_mem_copy(target->name, found.d_name, std::min(size, path_size - 1));
}

bool is_self_or_parent(const char *name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

/** Move to the next entry.
 *  @return false at the end */
bool advance(TARN_DIR_ITOR itor)
{
    itor->dent = nullptr;
    while (const dirent *const found = ::readdir(itor->dir->stream))
    {
        const unsigned char type = entry_type(itor->dir->stream, *found);
        if (type == DT_DIR && is_self_or_parent(found->d_name))
        {
            continue;
        }
        itor->entry.type = type;
        copy_name(&itor->entry, *found);
        itor->dent = &itor->entry;
        return true;
    }
    return false;
}

bool belongs(TARN_DIR d, TARN_DIR_ITOR itor)
{
    if (itor->dir != d)
    {
        TARN_LOG_WARN("dir handle mismatch!");
        return false;
    }
    return true;
}

} // namespace

int tarn_dir_create(const char *dir_path, uint32_t mode)
{
    RVON(dir_path, -1);
    const size_t length = std::strlen(dir_path);
    const bool slash_missing = length != 0 && dir_path[length - 1] != '/';
    const text_owner path = text_owner::make_array(path_size);
    RVON(path, -1);
    if (length + (slash_missing ? 1 : 0) >= path_size)
    {
        errno = ENAMETOOLONG;
        TARN_LOG_ERROR("create directory %s failed, error = %d (%s)", dir_path, ENAMETOOLONG,
                       tarn::error_text(ENAMETOOLONG).c_str());
        return -1;
    }
    (void)std::snprintf(path.get(), path_size, "%s%s", dir_path, slash_missing ? "/" : "");
    for (char *at = path.get() + (length != 0 ? 1 : 0); *at != '\0'; ++at)
    {
        if (*at != '/')
        {
            continue;
        }
        *at = '\0';
        const int rc = create_directory(path.get(), mode != 0 ? mode : default_mode);
        if (rc != 0 && errno != EEXIST)
        {
            const int error = errno;
            TARN_LOG_ERROR("create directory %s failed, error = %d (%s)", path.get(), error,
                           tarn::error_text(error).c_str());
            return rc;
        }
        *at = '/';
    }
    return 0;
}

int tarn_dir_create_for_file(const char *path)
{
    return tarn_dir_create(tarn_dir_dirname(path), 0);
}

bool tarn_dir_is_exist(const char *path)
{
    RVON(path, false);
    struct stat status
    {
    };
    const int rc = ::stat(path, &status);
    RVOF(0 == rc, false);
    return S_ISDIR(status.st_mode);
}

const char *tarn_dir_dirname(const char *path)
{
    RVON(path, NULL);
    const std::string_view text = path;
    const size_t at = last_separator(text);
    return keep(last_dirname, at == 0 ? "." : text.substr(0, at));
}

const char *tarn_dir_basename(const char *path)
{
    RVON(path, NULL);
    const std::string_view text = path;
    const size_t at = last_separator(text);
    return keep(last_basename, at == 0 ? "" : text.substr(at + 1));
}

char tarn_dir_separator(void)
{
    return '/';
}

TARN_DIR tarn_dir_open(const char *path)
{
    RVON(path, TARN_INVALID_HANDLE);
    dir_owner owner(tarn::make_object<tarn_dir>(TARN_HANDLE_TYPE_DIR).release());
    TARN_DIR d = owner.get();
    RVON(d, TARN_INVALID_HANDLE);
    d->path = tarn_str_dup(path);
    RVON(d->path, TARN_INVALID_HANDLE);
    d->stream = ::opendir(path); // close-on-exec
    if (d->stream == nullptr)
    {
        const int error = errno;
        TARN_LOG_ERROR("fail to open dir %s, error = %d (%s)", path, error,
                       tarn::error_text(error).c_str());
        return TARN_INVALID_HANDLE;
    }
    return owner.release();
}

void tarn_dir_close(TARN_DIR d)
{
    if (d == nullptr)
    {
        return;
    }
    if (d->stream != nullptr)
    {
        (void)::closedir(d->stream);
    }
    tarn_mem_free(d->path);
    tarn_mem_free(d);
}

TARN_DIR_ITOR tarn_dir_read_begin(TARN_DIR d)
{
    RVON(d, NULL);
    itor_owner itor = itor_owner::make();
    RVON(itor, NULL);
    itor->dir = d;
    ::rewinddir(d->stream);
    return advance(itor.get()) ? itor.release() : nullptr;
}

TARN_DIR_ITOR tarn_dir_read_next(TARN_DIR d, TARN_DIR_ITOR itor)
{
    RVON(itor, NULL);
    if (!belongs(d, itor))
    {
        return nullptr;
    }
    itor_owner owner(itor);
    return advance(itor) ? owner.release() : nullptr;
}

void tarn_dir_read_end(TARN_DIR d, TARN_DIR_ITOR itor)
{
    RON(itor);
    if (belongs(d, itor))
    {
        tarn_mem_free(itor);
    }
}

bool tarn_dir_itor_is_directory(TARN_DIR_ITOR itor)
{
    RVON(itor, false);
    RVON(itor->dent, false);
    return itor->dent->type == DT_DIR;
}

bool tarn_dir_itor_is_file(TARN_DIR_ITOR itor)
{
    RVON(itor, false);
    RVON(itor->dent, false);
    return itor->dent->type == DT_REG;
}

const char *tarn_dir_itor_name(TARN_DIR_ITOR itor)
{
    RVON(itor, NULL);
    RVON_TEXT(itor->dent, NULL, "RVON(itor->dent,false)");
    return itor->dent->name;
}

const char *tarn_dir_itor_path_name(TARN_DIR_ITOR itor)
{
    RVON(itor, NULL);
    RVON_TEXT(itor->dent, NULL, "RVON(itor->dent,false)");
    if (!last_path_name)
    {
        last_path_name = text_owner::make_array(path_size);
        RVON(last_path_name, NULL);
    }
    (void)tarn_str_printf(last_path_name.get(), path_size, "%s/%s", itor->dir->path,
                          itor->dent->name);
    return last_path_name.get();
}

uint64_t tarn_dir_free_space_size(const char *path)
{
    RVON(path, 0);
    struct statfs status
    {
    };
    if (tarn::retry_eintr([&] { return ::statfs(path, &status); }) != 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("statfs failed, error = %d (%s)", error, tarn::error_text(error).c_str());
        return 0;
    }
    return static_cast<uint64_t>(status.f_bfree) * static_cast<uint64_t>(status.f_bsize);
}

bool tarn_dir_init(void)
{
    return true;
}

void tarn_dir_uninit(void) {}
