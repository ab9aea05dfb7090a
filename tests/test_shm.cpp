// Shared memory objects: life and death of a name, foreign bytes, what stands in the way.

#include "support.h"

#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_shm.h"
#include "tarn_shm_internal.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

using support::child_process;
using support::expect_check;
using support::log_capture;

namespace
{

void destroy(TARN_SHM shm)
{
    (void)tarn_shm_destroy(shm);
}
using shm_owner = tarn::unique_handle<TARN_SHM, destroy>;

std::string path_of(const std::string &name)
{
    return std::string(tarn::shm_root()) + "/TARN_SHM_" + name;
}

bool exists(const std::string &path)
{
    struct stat status
    {
    };
    return ::lstat(path.c_str(), &status) == 0;
}

/** The segment behind a file, found the way any other program would; -1: none. */
int segment_of(const std::string &path)
{
    const key_t key = ::ftok(path.c_str(), 82);
    return key == -1 ? -1 : ::shmget(key, 0, 0);
}

bool is_gone(int segment)
{
    struct shmid_ds status
    {
    };
    return ::shmctl(segment, IPC_STAT, &status) != 0;
}

class Shm : public testing::Test
{
protected:
    support::layer layer_;
    std::string name_ = support::unique_name("shm");
    std::string path_ = path_of(name_);
};

// ---- in one process -----------------------------------------------------------------------------

TEST_F(Shm, AreaHasTheStatedLayoutForEverySize)
{
    const support::leak_check leaks;
    const log_capture log;
    std::vector<uint32_t> sizes = {0, 1, 8192, 1u << 30};
    for (uint32_t size = 4087; size <= 4097; ++size)
    {
        sizes.push_back(size);
    }
    for (const uint32_t size : sizes)
    {
        const shm_owner made(tarn_shm_create(name_.c_str(), size));
        ASSERT_TRUE(made) << size;
        const shm_owner opened(tarn_shm_open(name_.c_str()));
        ASSERT_TRUE(opened) << size;
        EXPECT_EQ(tarn_shm_size(opened.get()), size);
        struct stat file
        {
        };
        ASSERT_EQ(::stat(path_.c_str(), &file), 0);
        EXPECT_EQ(file.st_size, off_t{size} + 1);
        EXPECT_EQ(file.st_mode & 07777, 0666u);
        const int segment = segment_of(path_);
        struct shmid_ds status
        {
        };
        ASSERT_EQ(::shmctl(segment, IPC_STAT, &status), 0);
        const bool short_of_room = size % 4096 >= 4089;
        EXPECT_EQ(status.shm_segsz, size_t{size} + (short_of_room ? 8 : 1));
        EXPECT_EQ(status.shm_perm.mode & 0777, 0666);
        auto *area = static_cast<uint8_t *>(tarn_shm_buffer(made.get()));
        uint32_t header[2];
        std::memcpy(header, area - 8, 8);
        EXPECT_EQ(header[0], 0x80106513u);
        EXPECT_EQ(header[1], size);
        if (size != 0)
        {
            area[0] = 0x5A;
            area[size - 1] = 0xA5;
            const auto *seen = static_cast<const uint8_t *>(tarn_shm_buffer(opened.get()));
            EXPECT_EQ(seen[size - 1], 0xA5);
        }
    }
    EXPECT_FALSE(exists(path_));
}

TEST_F(Shm, NamesAreLimitedAndPlain)
{
    log_capture log;
    const std::string longest = name_ + std::string(107 - name_.size(), 'n');
    const shm_owner made(tarn_shm_create(longest.c_str(), 1));
    EXPECT_TRUE(made);
    EXPECT_EQ(tarn_shm_create((longest + "n").c_str(), 1), nullptr);
    EXPECT_TRUE(log.contains("error", "name = " + longest + "n is too long "));
    EXPECT_EQ(tarn_shm_open((longest + "n").c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "The name of the share memory object is too long."));
    expect_check("RVOF(makes_file_name(name),TARN_INVALID_HANDLE)");
    EXPECT_EQ(tarn_shm_create("", 1), nullptr);
    EXPECT_EQ(tarn_shm_create("x/../../y", 1), nullptr);
    EXPECT_EQ(tarn_shm_open("../y"), nullptr);
    expect_check("RVON(name,TARN_INVALID_HANDLE)");
    EXPECT_EQ(tarn_shm_create(nullptr, 1), nullptr);
    EXPECT_EQ(tarn_shm_open(nullptr), nullptr);
    expect_check("RVOF(size < UINT32_MAX,TARN_INVALID_HANDLE)");
    EXPECT_EQ(tarn_shm_create(name_.c_str(), UINT32_MAX), nullptr);
    expect_check("RVON(shm,false)");
    EXPECT_FALSE(tarn_shm_destroy(nullptr));
    expect_check("RVON(shm,NULL)");
    EXPECT_EQ(tarn_shm_buffer(nullptr), nullptr);
    expect_check("RVON(shm,0)");
    EXPECT_EQ(tarn_shm_size(nullptr), 0u);
}

TEST_F(Shm, SecondCreationInTheProcessFails)
{
    log_capture log;
    shm_owner made(tarn_shm_create(name_.c_str(), 16));
    EXPECT_EQ(tarn_shm_create(name_.c_str(), 16), nullptr);
    EXPECT_TRUE(
        log.contains("the share memory object [" + path_ + "] already been created previously."));
    EXPECT_TRUE(exists(path_));
    tarn_close_handle(made.release());
    EXPECT_FALSE(exists(path_));
    EXPECT_TRUE(shm_owner(tarn_shm_create(name_.c_str(), 16)));
}

TEST_F(Shm, OpenerChecksWhatItFinds)
{
    const support::leak_check leaks;
    log_capture log;
    EXPECT_EQ(tarn_shm_open(name_.c_str()), nullptr);
    EXPECT_TRUE(log.contains("trace", "Could not open the share memory object " + path_));
    const shm_owner made(tarn_shm_create(name_.c_str(), 100));
    auto *header = reinterpret_cast<uint32_t *>(tarn_shm_buffer(made.get())) - 2;
    for (const uint32_t size : {101u, 5000u, 0xFFFFFFFFu})
    {
        header[1] = size;
        EXPECT_EQ(tarn_shm_open(name_.c_str()), nullptr);
        EXPECT_TRUE(log.contains("error", "says a size of " + std::to_string(size)));
    }
    EXPECT_EQ(tarn_shm_size(made.get()), 100u) << "read from the segment again";
    header[1] = 100;
    header[0] = 0x1234;
    EXPECT_EQ(tarn_shm_open(name_.c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "invalid share memory flag 1234!"));
    header[0] = 0;
    EXPECT_EQ(tarn_shm_open(name_.c_str()), nullptr);

    support::write_file(path_of(name_ + "_f"), "file without a segment");
    EXPECT_EQ(tarn_shm_open((name_ + "_f").c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "shmget(" + path_of(name_ + "_f") + ") failed, errno = 2"));
    EXPECT_TRUE(tarn_shm_remove_file((name_ + "_f").c_str()));
    EXPECT_FALSE(tarn_shm_remove_file((name_ + "_f").c_str()));
    ASSERT_EQ(::mkfifo(path_of(name_ + "_p").c_str(), 0600), 0);
    EXPECT_EQ(tarn_shm_open((name_ + "_p").c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "Could not get file status for share memory object"));
    EXPECT_TRUE(shm_owner(tarn_shm_create((name_ + "_p").c_str(), 1))) << "a pipe in the way";
}

TEST_F(Shm, PlantedLinksAreNotFollowed)
{
    const support::temp_dir dir;
    support::write_file(dir.file("victim"), "keep");
    log_capture log;
    for (const char *target : {"victim", "missing"})
    {
        ASSERT_EQ(::symlink(dir.file(target).c_str(), path_.c_str()), 0);
        EXPECT_EQ(tarn_shm_open(name_.c_str()), nullptr);
        const shm_owner made(tarn_shm_create(name_.c_str(), 64));
        EXPECT_TRUE(made) << "the link was ours to remove";
    }
    EXPECT_EQ(support::read_file(dir.file("victim")), "keep");
    EXPECT_FALSE(exists(dir.file("missing")));
}

TEST_F(Shm, ReplacesStaleFilesButNotAttachedSegments)
{
    log_capture log;
    support::write_file(path_, std::string(9999, 'x'));
    // A segment left under the old file's key, of another size: nobody's, so it may stay or go.
    const int stale = ::shmget(::ftok(path_.c_str(), 82), 123, IPC_CREAT | 0600);
    ASSERT_GE(stale, 0);
    {
        const shm_owner made(tarn_shm_create(name_.c_str(), 64));
        ASSERT_TRUE(made);
        const shm_owner opened(tarn_shm_open(name_.c_str()));
        EXPECT_TRUE(opened);
    }
    (void)::shmctl(stale, IPC_RMID, nullptr);

    // An object whose file was removed and made anew by somebody: the newcomer's file stays.
    shm_owner made(tarn_shm_create(name_.c_str(), 64));
    const int segment = segment_of(path_);
    EXPECT_TRUE(tarn_shm_remove_file(name_.c_str()));
    support::write_file(path_, "newcomer");
    made.reset();
    EXPECT_TRUE(is_gone(segment));
    EXPECT_EQ(support::read_file(path_), "newcomer");
    ::unlink(path_.c_str());
}

TEST_F(Shm, StaleSegmentsOfEverySizeAreReplaced)
{
    log_capture log;
    // A file's key is made of its inode, and these mostly count up: leave segments of other sizes
    // where the next files' keys will be.
    support::write_file(path_, "x");
    struct stat file
    {
    };
    ASSERT_EQ(::stat(path_.c_str(), &file), 0);
    const uint32_t sizes[] = {1, 5000, 5001, 5002, 9000, 1u << 20};
    std::vector<int> stale;
    for (uint32_t next = 1; next <= 60; ++next)
    {
        const auto key = static_cast<key_t>((file.st_ino + next) & 0xFFFF) |
                         static_cast<key_t>((file.st_dev & 0xFF) << 16) | (82 << 24);
        const int id = ::shmget(key, sizes[next % std::size(sizes)], IPC_CREAT | IPC_EXCL | 0600);
        if (id >= 0)
        {
            stale.push_back(id);
        }
    }
    for (int i = 0; i < 6; ++i)
    {
        const shm_owner made(tarn_shm_create(name_.c_str(), 5000));
        ASSERT_TRUE(made);
        struct shmid_ds status
        {
        };
        ASSERT_EQ(::shmctl(segment_of(path_), IPC_STAT, &status), 0);
        EXPECT_EQ(status.shm_segsz, 5001u);
        EXPECT_EQ(status.shm_nattch, 1u);
        const shm_owner opened(tarn_shm_open(name_.c_str()));
        EXPECT_TRUE(opened);
    }
    for (const int id : stale)
    {
        (void)::shmctl(id, IPC_RMID, nullptr);
    }
}

// ---- several processes --------------------------------------------------------------------------

/** Creates NAME, says so, and lives until its input ends. */
TARN_TEST_ROLE(shm_creator)
{
    const support::layer layer;
    TARN_SHM shm = tarn_shm_create(args[0].c_str(), 5000);
    if (shm != nullptr)
    {
        std::strcpy(static_cast<char *>(tarn_shm_buffer(shm)), "hello");
    }
    std::printf("%s\n", shm != nullptr ? "created" : "refused");
    std::fflush(stdout);
    (void)std::getchar();
    tarn_close_handle(shm);
    return 0;
}

TEST_F(Shm, LiveCreatorKeepsItsNameAndADeadOneLosesIt)
{
    const support::leak_check leaks;
    log_capture log;
    child_process creator = child_process::role("shm_creator", {name_});
    ASSERT_TRUE(creator.wait_for_line("created"));
    EXPECT_EQ(tarn_shm_create(name_.c_str(), 64), nullptr);
    EXPECT_TRUE(log.contains("warn", "failed to lock the share memory object " + path_));
    const shm_owner survivor(tarn_shm_open(name_.c_str()));
    ASSERT_TRUE(survivor);
    EXPECT_FALSE(tarn::shm_is_abandoned(survivor.get()));
    const int orphan = segment_of(path_);

    creator.signal(SIGKILL);
    EXPECT_EQ(creator.wait(), -SIGKILL);
    EXPECT_TRUE(tarn::shm_is_abandoned(survivor.get()));
    const shm_owner made(tarn_shm_create(name_.c_str(), 64));
    ASSERT_TRUE(made);
    EXPECT_NE(segment_of(path_), orphan);
    EXPECT_STREQ(static_cast<char *>(tarn_shm_buffer(survivor.get())), "hello");
    EXPECT_EQ(tarn_shm_size(survivor.get()), 5000u);
    struct shmid_ds status
    {
    };
    EXPECT_TRUE(::shmctl(orphan, IPC_STAT, &status) != 0 || (status.shm_perm.mode & SHM_DEST) != 0)
        << "leaked when its key was lost";
}

/** Creates and destroys NAME as often as it can; counts in an object of its own who holds it. */
TARN_TEST_ROLE(shm_racer)
{
    const support::layer layer;
    tarn_log_level_set(TARN_LOG_LEVEL_FATAL);
    int wins = 0;
    for (int i = 0; i < 20000 && wins < 200; ++i)
    {
        TARN_SHM shm = tarn_shm_create(args[0].c_str(), 64);
        if (shm == nullptr)
        {
            continue;
        }
        ++wins;
        auto *owner = static_cast<std::atomic<uint32_t> *>(tarn_shm_buffer(shm));
        if (owner->exchange(static_cast<uint32_t>(::getpid())) != 0 ||
            owner->exchange(0) != static_cast<uint32_t>(::getpid()))
        {
            return 2; // somebody else has the same segment
        }
        (void)tarn_shm_destroy(shm);
    }
    return wins > 0 ? 0 : 1;
}

TEST_F(Shm, RacingCreatorsNeverShareAName)
{
    std::vector<child_process> racers;
    for (int i = 0; i < 3; ++i)
    {
        racers.push_back(child_process::role("shm_racer", {name_}));
    }
    for (child_process &racer : racers)
    {
        EXPECT_EQ(racer.wait(60000), 0);
    }
    EXPECT_FALSE(exists(path_));
}

// ---- a namespace of its own ---------------------------------------------------------------------

/** Role result where the system lets nobody make a namespace: nothing can be shown then. */
constexpr int no_namespace = 77;

bool enter_mount_namespace()
{
    const bool entered = ::unshare(CLONE_NEWNS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0;
    return entered && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/** A small /dev/shm that is full: args[0] says whether names are "plain" or "odd". */
TARN_TEST_ROLE(shm_full)
{
    if (!enter_mount_namespace() || ::mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=256k") != 0)
    {
        return no_namespace;
    }
    const support::layer layer;
    support::write_file("/dev/shm/TARN_SHM_stale", std::string(150 * 1024, 's'));
    support::write_file("/dev/shm/TARN_SHM_locked", std::string(8 * 1024, 'l'));
    support::write_file("/dev/shm/TARN_SHM_open", std::string(8 * 1024, 'o'));
    support::write_file("/dev/shm/other", "x");
    if (args[0] == "odd")
    {
        support::write_file("/dev/shm/TARN_SHM_$(touch ran) ;other", "odd");
    }
    const tarn::unique_fd open_one(::open("/dev/shm/TARN_SHM_open", O_RDONLY));
    const tarn::unique_fd locked(::open("/dev/shm/TARN_SHM_locked", O_RDONLY));
    if (args[0] == "odd" && ::flock(locked.get(), LOCK_EX | LOCK_NB) != 0)
    {
        return 1;
    }
    TARN_SHM shm = tarn_shm_create("new", 100 * 1024);
    const bool as_wanted = shm != nullptr && !exists("/dev/shm/TARN_SHM_stale") &&
                           exists("/dev/shm/TARN_SHM_locked") && exists("/dev/shm/TARN_SHM_open") &&
                           exists("/dev/shm/other") && !exists("ran") && !exists("/dev/shm/ran");
    const bool refused =
        tarn_shm_create("huge", 300 * 1024) == nullptr && !exists("/dev/shm/TARN_SHM_huge");
    tarn_close_handle(shm);
    return as_wanted && refused ? 0 : 1;
}

TEST(ShmPlace, FullFileSystemIsClearedOfUnusedFiles)
{
    for (const char *names : {"plain", "odd"})
    {
        child_process child = child_process::role("shm_full", {names});
        const std::string output = child.read_rest();
        const int status = child.wait();
        ASSERT_TRUE(status == 0 || status == no_namespace) << names << '\n' << output;
        if (status == 0)
        {
            EXPECT_NE(output.find("remove unused share memory files."), std::string::npos);
            EXPECT_NE(output.find("Could not set the size to 307200 for shm [huge], file = "
                                  "[/dev/shm/TARN_SHM_huge]"),
                      std::string::npos);
            EXPECT_NE(output.find("errno = 28"), std::string::npos);
        }
    }
}

TARN_TEST_ROLE(shm_no_dev_shm)
{
    if (!enter_mount_namespace() || ::mount("tmpfs", "/dev", "tmpfs", 0, "size=64k") != 0 ||
        ::mount("tmpfs", "/tmp", "tmpfs", 0, "size=64k") != 0)
    {
        return no_namespace;
    }
    const support::layer layer;
    TARN_SHM shm = tarn_shm_create("x", 10);
    const bool found = exists("/tmp/TARN_SHM_x");
    tarn_close_handle(shm);
    return shm != nullptr && found ? 0 : 1;
}

TEST(ShmPlace, WithoutDevShmFilesLieUnderTmp)
{
    child_process child = child_process::role("shm_no_dev_shm");
    const int status = child.wait();
    EXPECT_TRUE(status == 0 || status == no_namespace);
}

} // namespace
