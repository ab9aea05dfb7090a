// Shared memory objects: System V segments that are found through the key of a backing file.
//
// The lock on the backing file decides who has created a name; it goes with the creator's life, so
// a file whose lock is free is stale. The directory is open to every user: files are created
// exclusively, never through a link, and what is opened has to be a regular file. The file is only
// ever compared with its path by device and inode, because the path may have been taken by a newer
// object meanwhile.
//
// The key holds 16 bits of the inode, so two files may share one. A segment that is attached
// somewhere is in use: the creator then takes another file rather than another's segment.

#include "tarn_shm.h"

#include "tarn_check.h"
#include "tarn_critical_section.h"
#include "tarn_hash.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_shm_internal.h"
#include "tarn_str.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

struct tarn_shm
{
    tarn_handle_header header;
    int32_t fd;         ///< of the backing file; a creator's holds the lock
    int32_t key;        ///< System V key
    int32_t segment_id; ///< -1: none yet
    uint32_t size;      ///< of the area; checked, never read from the segment again
    void *attached;     ///< start of the segment; null: not attached
    void *area;         ///< attached + 8
    uint8_t created;    ///< made by tarn_shm_create()
    uint8_t owns_file;  ///< created, and the lock was taken
    char path[128];     ///< of the backing file
};
TARN_ASSERT_RECORD(tarn_shm);

namespace
{

constexpr int segment_flags = SHM_NORESERVE | IPC_CREAT | 0666;
static_assert(segment_flags == 0x13B6);

constexpr int max_tries = 16; // each one lost to another process at work on the same name or key

struct module_state
{
    const char *root_path = nullptr;         ///< null: not chosen yet
    TARN_HASH created = TARN_INVALID_HANDLE; ///< path -> TARN_SHM; under created_cs
    TARN_CRITICAL_SECTION created_cs = TARN_INVALID_HANDLE;
};
constinit module_state shm_state;

void destroy_quietly(TARN_SHM shm)
{
    (void)tarn_shm_destroy(shm);
}
using object_owner = tarn::unique_handle<TARN_SHM, destroy_quietly>;

bool is_directory(const char *path)
{
    struct stat status
    {
    };
    return ::stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

bool same_file(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/** True when the open file is still what stands at the path. */
bool is_at(int fd, const char *path)
{
    struct stat open_one
    {
    };
    struct stat named
    {
    };
    return ::fstat(fd, &open_one) == 0 && ::lstat(path, &named) == 0 && same_file(open_one, named);
}

/** The key that ftok() gives for a file with this status: taken from the open file, because the
 *  path may name another one by now. */
key_t key_of(const struct stat &status)
{
    return static_cast<key_t>((static_cast<uint32_t>(status.st_ino) & 0xFFFF) |
                              (static_cast<uint32_t>(status.st_dev) & 0xFF) << 16 |
                              static_cast<uint32_t>(tarn::shm_project) << 24);
}

uint64_t page_size()
{
    static const auto size = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    return size;
}

uint64_t page_rounded(uint64_t size)
{
    return (size + page_size() - 1) / page_size() * page_size();
}

/** Size to ask the kernel for: one byte more than the area, like the file. The header and the last
 *  7 bytes of the area lie in what rounding to whole pages adds. Where it adds too little, for
 *  seven sizes in each page, the segment takes all 8 bytes. */
size_t segment_size(uint32_t size)
{
    const uint64_t usual = uint64_t{size} + 1;
    const uint64_t needed = uint64_t{size} + sizeof(tarn::shm_segment_header);
    return page_rounded(usual) >= needed ? usual : needed;
}

/** True for a name that makes a file in the root directory. */
bool makes_file_name(const char *name)
{
    return name[0] != '\0' && tarn_str_chr(name, '/') == nullptr;
}

bool format_path(char *path, size_t size, const char *name)
{
    const int length = tarn_str_printf(path, size, "%s/TARN_SHM_%s", tarn::shm_root(), name);
    return length > 0 && static_cast<size_t>(length) < size;
}

object_owner make_shm_object(const char *name)
{
    object_owner owner(tarn::make_object<tarn_shm>(TARN_HANDLE_TYPE_SHM).release());
    TARN_SHM shm = owner.get();
    if (shm == nullptr)
    {
        TARN_LOG_ERROR("cannot allocate memory for share memory item!");
        return owner;
    }
    shm->fd = -1;
    shm->segment_id = -1;
    if (!format_path(shm->path, sizeof shm->path, name))
    {
        TARN_LOG_ERROR("fail to copy name for share memory!");
        owner.reset();
    }
    return owner;
}

// ---- segments -----------------------------------------------------------------------------------

/** What the header of a segment says, for a moment's look.
 *  @return false when the segment cannot be attached or is too small to have one */
bool peek_header(int segment_id, tarn::shm_segment_header *out)
{
    struct shmid_ds status
    {
    };
    if (::shmctl(segment_id, IPC_STAT, &status) != 0 || status.shm_segsz == 0)
    {
        return false;
    }
    void *attached = ::shmat(segment_id, nullptr, SHM_RDONLY);
    if (attached == reinterpret_cast<void *>(-1))
    {
        return false;
    }
    *out = *static_cast<const tarn::shm_segment_header *>(attached);
    (void)::shmdt(attached);
    return true;
}

bool is_dead(pid_t pid)
{
    return pid > 0 && tarn::process_is_gone(pid); // 0: a process that cannot be named here
}

/** Remove the segment that a dead creator left behind: its key is lost with its file. Processes
 *  that have it attached keep it until they detach. */
void remove_stale_segment(int stale_fd)
{
    struct stat file
    {
    };
    if (::fstat(stale_fd, &file) != 0)
    {
        return;
    }
    const int id = ::shmget(key_of(file), 0, 0);
    struct shmid_ds segment
    {
    };
    tarn::shm_segment_header header{};
    if (id >= 0 && ::shmctl(id, IPC_STAT, &segment) == 0 && is_dead(segment.shm_cpid) &&
        peek_header(id, &header) && header.flag == tarn::shm_flag &&
        uint64_t{header.size} + 1 == static_cast<uint64_t>(file.st_size))
    {
        (void)::shmctl(id, IPC_RMID, nullptr);
    }
}

enum class key_state
{
    free,
    in_use,
    failed
};

/** Clear a key that a segment stands in the way of: one that nobody has attached and that is ours,
 *  by its user or by its flag, is a leftover. */
key_state free_key(TARN_SHM shm)
{
    const int id = ::shmget(shm->key, 0, 0);
    if (id < 0)
    {
        return errno == ENOENT ? key_state::free : key_state::in_use;
    }
    struct shmid_ds status
    {
    };
    if (::shmctl(id, IPC_STAT, &status) != 0)
    {
        return errno == EINVAL || errno == EIDRM ? key_state::free : key_state::in_use;
    }
    tarn::shm_segment_header header{};
    const bool is_ours = status.shm_perm.uid == ::geteuid() ||
                         (peek_header(id, &header) && header.flag == tarn::shm_flag);
    if (status.shm_nattch != 0 || !is_ours)
    {
        return key_state::in_use;
    }
    if (::shmctl(id, IPC_RMID, nullptr) != 0 && errno != EINVAL && errno != EIDRM)
    {
        const int error = errno;
        TARN_LOG_ERROR("shmget(%s) failed and IPC_RMID failed, errno = %d (%s).", shm->path, error,
                       tarn::error_text(error).c_str());
        return key_state::failed;
    }
    return key_state::free;
}

/** A segment of its own under the file's key.
 *  @return in_use: the key belongs to somebody else */
key_state make_segment(TARN_SHM shm)
{
    // Exclusively, so that another's segment is never taken for a new one.
    const auto get = [shm] {
        return ::shmget(shm->key, segment_size(shm->size), segment_flags | IPC_EXCL);
    };
    shm->segment_id = get();
    if (shm->segment_id < 0)
    {
        const key_state state = free_key(shm);
        if (state != key_state::free)
        {
            return state;
        }
        shm->segment_id = get();
    }
    if (shm->segment_id >= 0)
    {
        return key_state::free;
    }
    const int error = errno;
    if (error == EEXIST)
    {
        return key_state::in_use;
    }
    TARN_LOG_ERROR("shmget(%s) failed, errno = %d (%s).", shm->path, error,
                   tarn::error_text(error).c_str());
    return key_state::failed;
}

bool attach(TARN_SHM shm)
{
    void *attached = ::shmat(shm->segment_id, nullptr, 0);
    if (attached == reinterpret_cast<void *>(-1))
    {
        const int error = errno;
        TARN_LOG_ERROR("shmat(%d) failed, errno = %d (%s).", shm->segment_id, error,
                       tarn::error_text(error).c_str());
        return false;
    }
    shm->attached = attached;
    shm->area = static_cast<uint8_t *>(attached) + sizeof(tarn::shm_segment_header);
    return true;
}

// ---- the backing file ---------------------------------------------------------------------------

/** Take the lock of a backing file; logs a refusal. */
bool lock_file(int fd, const char *path)
{
    if (tarn::retry_eintr([fd] { return ::flock(fd, LOCK_EX | LOCK_NB); }) == 0)
    {
        return true;
    }
    const int error = errno;
    TARN_LOG_WARN("failed to lock the share memory object %s, errno = %d (%s).", path, error,
                  tarn::error_text(error).c_str());
    return false;
}

tarn::unique_fd open_file(const char *path)
{
    // Not blocking: what stands there may be a pipe.
    return tarn::unique_fd(tarn::retry_eintr(
        [path] { return ::open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); }));
}

enum class step
{
    done,
    again, ///< another process was faster
    failed ///< logged
};

/** Remove what stands at the path: a file whose lock is free, a link, a pipe.
 *  @param stale  keeps the removed file open, so that its inode is not used again meanwhile */
step remove_stale_file(const char *path, tarn::unique_fd *stale)
{
    tarn::unique_fd fd = open_file(path);
    struct stat status
    {
    };
    if (fd && ::fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode))
    {
        if (!lock_file(fd.get(), path))
        {
            return step::failed;
        }
        if (!is_at(fd.get(), path))
        {
            return step::again;
        }
        remove_stale_segment(fd.get());
        *stale = std::move(fd);
    }
    else if (!fd && errno == EACCES)
    {
        return step::done; // cannot tell whether it is in use: the creation fails on it
    }
    (void)::unlink(path); // does not follow a link
    return step::done;
}

/** Create the backing file and take its lock. */
step make_file(TARN_SHM shm)
{
    shm->fd = tarn::retry_eintr([shm] {
        return ::open(shm->path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    });
    if (shm->fd < 0)
    {
        return errno == EEXIST ? step::again : step::failed;
    }
    (void)::fchmod(shm->fd, 0666); // whatever the umask is
    if (!lock_file(shm->fd, shm->path))
    {
        return step::failed; // another creator took it for a stale one, and goes on with the name
    }
    if (!is_at(shm->fd, shm->path))
    {
        tarn::close_fd(std::exchange(shm->fd, -1));
        return step::again;
    }
    shm->owns_file = 1;
    return step::done;
}

bool make_locked_file(TARN_SHM shm)
{
    step result = step::again;
    for (int i = 0; i < max_tries && result == step::again; ++i)
    {
        tarn::unique_fd stale;
        result = remove_stale_file(shm->path, &stale);
        if (result == step::failed)
        {
            return false;
        }
        if (result == step::done)
        {
            result = make_file(shm);
        }
    }
    if (result != step::done && shm->fd < 0)
    {
        const int error = result == step::again ? EEXIST : errno;
        TARN_LOG_WARN("Could not create share memory object [%s], errno = [%d] (%s).", shm->path,
                      error, tarn::error_text(error).c_str());
    }
    return result == step::done;
}

/** Give the file its size; with room in the file system for all of it.
 *  @return 0, or the error number */
int allocate_file(TARN_SHM shm, const char *name)
{
    const off_t size = static_cast<off_t>(shm->size) + 1;
    int error = EINTR;
    while (error == EINTR)
    {
        error = ::posix_fallocate(shm->fd, 0, size);
    }
    if (error != 0)
    {
        TARN_LOG_ERROR("Could not set the size to %u for shm [%s], file = [%s], fd = [%d], "
                       "errno = %d (%s).",
                       shm->size, name, shm->path, shm->fd, error, tarn::error_text(error).c_str());
    }
    return error;
}

bool size_file(TARN_SHM shm, const char *name)
{
    int error = allocate_file(shm, name);
    if (error == ENOSPC || error == ENOENT)
    {
        TARN_LOG_WARN("remove unused share memory files.");
        tarn::shm_remove_unused_files(tarn::shm_root(), shm->fd);
        error = allocate_file(shm, name);
    }
    return error == 0;
}

bool set_key(TARN_SHM shm, struct stat *status)
{
    if (::fstat(shm->fd, status) != 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("ftok(%s) failed, errno = %d (%s).", shm->path, error,
                       tarn::error_text(error).c_str());
        return false;
    }
    shm->key = key_of(*status);
    return true;
}

// ---- creation -----------------------------------------------------------------------------------

/** Backing file and segment. Files whose keys are taken stay open until one with a free key is
 *  found, so that each try gets another inode. */
bool make_file_and_segment(TARN_SHM shm, const char *name)
{
    std::array<tarn::unique_fd, max_tries> aside;
    for (tarn::unique_fd &kept : aside)
    {
        struct stat status
        {
        };
        if (!make_locked_file(shm) || !size_file(shm, name) || !set_key(shm, &status))
        {
            return false;
        }
        const key_state state = make_segment(shm);
        if (state != key_state::in_use)
        {
            return state == key_state::free;
        }
        (void)::unlink(shm->path);
        [[maybe_unused]] const int emptied = ::ftruncate(shm->fd, 0); // its memory, not its inode
        shm->owns_file = 0;
        kept.reset(std::exchange(shm->fd, -1));
    }
    TARN_LOG_ERROR("shmget(%s) failed, errno = %d (%s).", shm->path, EEXIST,
                   tarn::error_text(EEXIST).c_str());
    return false;
}

/** Size first, flag last: an opener that sees the flag sees the size. */
void publish_header(TARN_SHM shm)
{
    auto *header = static_cast<tarn::shm_segment_header *>(shm->attached);
    std::atomic_ref(header->size).store(shm->size, std::memory_order_relaxed);
    std::atomic_ref(header->flag).store(tarn::shm_flag, std::memory_order_release);
}

bool is_created_here(const char *path)
{
    return tarn_hash_find_ex(shm_state.created, path, tarn_str_len(path), nullptr);
}

/** Under created_cs. */
TARN_SHM create_object(const char *name, uint32_t size)
{
    object_owner owner = make_shm_object(name);
    TARN_SHM shm = owner.get();
    if (shm == nullptr)
    {
        return TARN_INVALID_HANDLE;
    }
    shm->created = 1;
    shm->size = size;
    if (is_created_here(shm->path))
    {
        TARN_LOG_ERROR("the share memory object [%s] already been created previously.", shm->path);
        return TARN_INVALID_HANDLE;
    }
    if (!make_file_and_segment(shm, name) || !attach(shm) ||
        tarn_hash_add_ex(shm_state.created, shm->path, tarn_str_len(shm->path), shm) == nullptr)
    {
        return TARN_INVALID_HANDLE;
    }
    publish_header(shm);
    return owner.release();
}

// ---- opening ------------------------------------------------------------------------------------

bool open_backing_file(TARN_SHM shm, struct stat *status)
{
    shm->fd = open_file(shm->path).release();
    if (shm->fd < 0)
    {
        const int error = errno;
        TARN_LOG_TRACE("Could not open the share memory object %s, error = %d (%s).", shm->path,
                       error, tarn::error_text(error).c_str());
        return false;
    }
    int error = ::fstat(shm->fd, status) == 0 ? 0 : errno;
    if (error == 0 && !S_ISREG(status->st_mode))
    {
        error = EINVAL;
    }
    if (error != 0)
    {
        TARN_LOG_ERROR("Could not get file status for share memory object %s, error = %d (%s).",
                       shm->path, error, tarn::error_text(error).c_str());
        return false;
    }
    shm->key = key_of(*status);
    return true;
}

bool find_segment(TARN_SHM shm, const struct stat &file)
{
    shm->segment_id = ::shmget(shm->key, static_cast<size_t>(file.st_size), 0);
    if (shm->segment_id < 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("shmget(%s) failed, errno = %d (%s).", shm->path, error,
                       tarn::error_text(error).c_str());
    }
    return shm->segment_id >= 0;
}

/** Check the header against what the kernel knows. The size is taken over once: another process can
 *  change it at any time. */
bool check_header(TARN_SHM shm, const struct stat &file)
{
    struct shmid_ds status
    {
    };
    const bool is_known = ::shmctl(shm->segment_id, IPC_STAT, &status) == 0;
    if (!is_known || status.shm_segsz == 0)
    {
        TARN_LOG_ERROR("no segment behind share memory object %s", shm->path);
        return false;
    }
    auto *header = static_cast<tarn::shm_segment_header *>(shm->attached);
    const uint32_t flag = std::atomic_ref(header->flag).load(std::memory_order_acquire);
    if (flag != tarn::shm_flag)
    {
        TARN_LOG_ERROR("invalid share memory flag %x!", flag);
        return false;
    }
    shm->size = std::atomic_ref(header->size).load(std::memory_order_relaxed);
    if (page_rounded(status.shm_segsz) < uint64_t{shm->size} + sizeof *header ||
        static_cast<uint64_t>(file.st_size) < uint64_t{shm->size} + 1)
    {
        TARN_LOG_ERROR("share memory object %s says a size of %u, which it does not have",
                       shm->path, shm->size);
        return false;
    }
    return true;
}

// ---- destruction --------------------------------------------------------------------------------

void remove_segment(TARN_SHM shm)
{
    if (::shmctl(shm->segment_id, IPC_RMID, nullptr) != 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("shmctl(%d, IPC_RMID, NULL) failed, errno = %d (%s).", shm->segment_id,
                       error, tarn::error_text(error).c_str());
    }
}

/** Delete the backing file, unless the path belongs to a newer object. */
void remove_file(TARN_SHM shm)
{
    struct stat named
    {
    };
    if (::lstat(shm->path, &named) == 0 && !is_at(shm->fd, shm->path))
    {
        return;
    }
    if (::unlink(shm->path) != 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("remove(%s) failed, errno = %d (%s).", shm->path, error,
                       tarn::error_text(error).c_str());
    }
}

/** What only the creator does; nothing that a creation has not come to. */
void remove_created(TARN_SHM shm)
{
    const tarn::critical_section_guard guard(shm_state.created_cs);
    void *known = nullptr;
    if (shm_state.created != nullptr &&
        tarn_hash_find_ex(shm_state.created, shm->path, tarn_str_len(shm->path), &known) &&
        known == shm)
    {
        (void)tarn_hash_remove_ex(shm_state.created, shm->path, tarn_str_len(shm->path));
    }
    if (shm->segment_id >= 0)
    {
        remove_segment(shm);
    }
    if (shm->owns_file != 0)
    {
        remove_file(shm);
    }
    tarn::close_fd(std::exchange(shm->fd, -1)); // drops the lock, inside the critical section
}

} // namespace

namespace tarn
{

const char *shm_root()
{
    return shm_state.root_path != nullptr ? shm_state.root_path : "/dev/shm";
}

bool shm_is_abandoned(TARN_SHM shm)
{
    struct shmid_ds status
    {
    };
    if (::shmctl(shm->segment_id, IPC_STAT, &status) != 0)
    {
        return errno == EINVAL || errno == EIDRM;
    }
    return (status.shm_perm.mode & SHM_DEST) != 0 || is_dead(status.shm_cpid);
}

} // namespace tarn

TARN_SHM tarn_shm_create(const char *name, uint32_t size)
{
    RVON(name, TARN_INVALID_HANDLE);
    TARN_LOG_TRACE("name = %s, size = %u", name, size);
    if (tarn_str_len(name) > tarn::shm_max_name)
    {
        TARN_LOG_ERROR("name = %s is too long ", name);
        return TARN_INVALID_HANDLE;
    }
    RVOF(makes_file_name(name), TARN_INVALID_HANDLE);
    RVOF(size < UINT32_MAX, TARN_INVALID_HANDLE); // the file is one byte larger
    RVON(shm_state.created, TARN_INVALID_HANDLE);
    const tarn::critical_section_guard guard(shm_state.created_cs);
    return create_object(name, size);
}

TARN_SHM tarn_shm_open(const char *name)
{
    RVON(name, TARN_INVALID_HANDLE);
    TARN_LOG_TRACE("name = [%s]", name);
    if (tarn_str_len(name) > tarn::shm_max_name)
    {
        TARN_LOG_ERROR("The name of the share memory object is too long.");
        return TARN_INVALID_HANDLE;
    }
    RVOF(makes_file_name(name), TARN_INVALID_HANDLE);
    object_owner owner = make_shm_object(name);
    TARN_SHM shm = owner.get();
    struct stat file
    {
    };
    if (shm == nullptr || !open_backing_file(shm, &file) || !find_segment(shm, file) ||
        !attach(shm) || !check_header(shm, file))
    {
        return TARN_INVALID_HANDLE;
    }
    return owner.release();
}

bool tarn_shm_destroy(TARN_SHM shm)
{
    RVON(shm, false);
    if (shm->attached != nullptr && ::shmdt(shm->attached) != 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("shmdt(%p) failed, errno = %d (%s).", shm->attached, error,
                       tarn::error_text(error).c_str());
    }
    if (shm->created != 0)
    {
        remove_created(shm);
    }
    tarn::close_fd(shm->fd);
    tarn_mem_free(shm);
    return true;
}

void *tarn_shm_buffer(TARN_SHM shm)
{
    RVON(shm, NULL);
    return shm->area;
}

uint32_t tarn_shm_size(TARN_SHM shm)
{
    RVON(shm, 0);
    return shm->size;
}

bool tarn_shm_remove_file(const char *name)
{
    RVON(name, false);
    RVOF(makes_file_name(name) && tarn_str_len(name) <= tarn::shm_max_name, false);
    char path[sizeof(tarn_shm::path)];
    return format_path(path, sizeof path, name) && ::unlink(path) == 0;
}

bool tarn_shm_init(void)
{
    TARN_HASH &htbl_shm_created = shm_state.created;
    TARN_CRITICAL_SECTION &htbl_shm_created_cs = shm_state.created_cs;
    if (htbl_shm_created == TARN_INVALID_HANDLE)
    {
        htbl_shm_created = tarn_hash_create(0);
    }
    RVOF_TEXT(htbl_shm_created != nullptr, false, "RVOF(htbl_shm_created != ((void*)0),false)");
    if (htbl_shm_created_cs == TARN_INVALID_HANDLE)
    {
        htbl_shm_created_cs = tarn_critical_section_create();
    }
    RVOF_TEXT(htbl_shm_created_cs != nullptr, false,
              "RVOF(htbl_shm_created_cs != ((void*)0),false)");
    if (shm_state.root_path == nullptr)
    {
        shm_state.root_path = is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
        TARN_LOG_TRACE("shm_root_path = [%s]", shm_state.root_path);
    }
    return true;
}

void tarn_shm_uninit(void)
{
    tarn_hash_destroy(std::exchange(shm_state.created, nullptr));
    tarn_critical_section_destroy(std::exchange(shm_state.created_cs, nullptr));
}
