// Directories: creation, path splitting, listing, free space.

#include "support.h"

#include "tarn_dir.h"
#include "tarn_raii.h"

#include <cstring>
#include <filesystem>
#include <set>
#include <thread>

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

using support::expect_check;
using support::log_capture;
using dir_owner = tarn::unique_handle<TARN_DIR, tarn_dir_close>;

namespace
{

/** What readdir() below makes of the entries. */
enum class entries
{
    as_they_are,
    without_type, ///< as some file systems have them
    with_long_name
};
entries shown = entries::as_they_are;

} // namespace

/** Stands in front of the C library's. */
extern "C" dirent *readdir(DIR *stream)
{
    using function = dirent *(*)(DIR *);
    static const auto next = reinterpret_cast<function>(::dlsym(RTLD_NEXT, "readdir"));
    static struct
    {
        dirent entry;
        char more[1000];
    } large;
    dirent *const found = next(stream);
    if (found != nullptr && shown == entries::without_type)
    {
        found->d_type = DT_UNKNOWN;
    }
    if (found != nullptr && shown == entries::with_long_name)
    {
        large.entry.d_type = DT_REG;
        large.entry.d_reclen = sizeof large;
        std::memset(reinterpret_cast<char *>(&large) + offsetof(dirent, d_name), 'n', 1000);
        return &large.entry;
    }
    return found;
}

namespace
{

mode_t mode_of(const std::string &path)
{
    struct stat status
    {
    };
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

TEST(Dir, CreatesAllParentsWithTheExactMode)
{
    const support::temp_dir base;
    const mode_t mask = ::umask(0077);
    EXPECT_EQ(tarn_dir_create(base.file("a/b/c").c_str(), 0), 0);
    EXPECT_EQ(tarn_dir_create(base.file("a/b/c").c_str(), 0), 0);
    EXPECT_EQ(tarn_dir_create(base.file("odd//x/./../y/").c_str(), 01777), 0);
    EXPECT_EQ(tarn_dir_create_for_file(base.file("for/a/file").c_str()), 0);
    EXPECT_EQ(::umask(mask), 0077u); // untouched
    for (const char *name : {"a", "a/b", "a/b/c", "for", "for/a"})
    {
        EXPECT_EQ(mode_of(base.file(name)), 0775u) << name;
    }
    EXPECT_EQ(mode_of(base.file("odd/y")), 01777u);
    EXPECT_FALSE(std::filesystem::exists(base.file("for/a/file")));
    EXPECT_TRUE(tarn_dir_is_exist(base.file("odd/x").c_str()));
    ASSERT_EQ(::chmod(base.file("for").c_str(), 02770), 0); // hands its group down
    EXPECT_EQ(tarn_dir_create(base.file("for/group").c_str(), 0), 0);
    EXPECT_EQ(mode_of(base.file("for/group")), 02775u);

    support::write_file(base.file("plain"), "");
    EXPECT_EQ(tarn_dir_create(base.file("plain").c_str(), 0), 0); // exists, whatever it is
    EXPECT_FALSE(tarn_dir_is_exist(base.file("plain").c_str()));
    log_capture log;
    EXPECT_EQ(tarn_dir_create(base.file("plain/below").c_str(), 0), -1);
    EXPECT_TRUE(log.contains("error", "create directory " + base.file("plain/below") +
                                          " failed, error = 20 (Not a directory)"));
    EXPECT_EQ(tarn_dir_create("", 0), 0);
    EXPECT_EQ(tarn_dir_create("/", 0), 0);
    expect_check("RVON(dir_path,-1)");
    EXPECT_EQ(tarn_dir_create(nullptr, 0), -1);
    expect_check("RVOF(0 == rc,false)");
    EXPECT_FALSE(tarn_dir_is_exist(base.file("none").c_str()));
}

TEST(Dir, LongPathsAreRefusedNotCut)
{
    const support::temp_dir base;
    std::string path = base.path();
    while (path.size() < 4094)
    {
        path += "/" + std::string(std::min<size_t>(200, 4094 - path.size()), 'd');
    }
    path.resize(4094);
    EXPECT_EQ(tarn_dir_create(path.c_str(), 0), 0);
    EXPECT_TRUE(tarn_dir_is_exist(path.c_str()));
    log_capture log;
    for (const size_t more : {1u, 2u, 5000u})
    {
        EXPECT_EQ(tarn_dir_create((path + std::string(more, 'x')).c_str(), 0), -1);
    }
    EXPECT_EQ(log.count("error = 36 (File name too long)"), 3u);
}

TEST(Dir, SplitsPathsAtTheLastSeparator)
{
    const struct
    {
        const char *path, *dir, *base;
    } cases[] = {{"a/b/file.txt", "a/b", "file.txt"},
                 {"file.txt", ".", ""},
                 {"/file.txt", ".", ""},
                 {"//file", "/", "file"},
                 {"a\\b", "a", "b"},
                 {"\\b", ".", ""},
                 {"a/", "a", ""},
                 {"", ".", ""},
                 {"/", ".", ""}};
    for (const auto &[path, dir, base] : cases)
    {
        EXPECT_STREQ(tarn_dir_dirname(path), dir) << path;
        EXPECT_STREQ(tarn_dir_basename(path), base) << path;
    }
    // A result may be split again; another thread's results are its own.
    EXPECT_STREQ(tarn_dir_dirname(tarn_dir_dirname("a/b/c")), "a");
    const char *mine = tarn_dir_dirname("mine/x");
    std::thread([] { EXPECT_STREQ(tarn_dir_dirname("theirs/x"), "theirs"); }).join();
    EXPECT_STREQ(mine, "mine");
    EXPECT_EQ(tarn_dir_separator(), '/');
    expect_check("RVON(path,NULL)");
    EXPECT_EQ(tarn_dir_dirname(nullptr), nullptr);
    EXPECT_EQ(tarn_dir_basename(nullptr), nullptr);
}

TEST(Dir, ListsEveryEntryOnceWithItsType)
{
    const support::temp_dir base;
    const support::leak_check leaks;
    const dir_owner d(tarn_dir_open(base.path().c_str()));
    ASSERT_TRUE(d);
    EXPECT_EQ(tarn_dir_read_begin(d.get()), nullptr); // empty
    std::set<std::string> expected;
    for (int i = 0; i < 300; ++i)
    {
        expected.insert("file " + std::to_string(i));
        support::write_file(base.file("file " + std::to_string(i)), "");
    }
    std::filesystem::create_directory(base.file("dir"));
    std::filesystem::create_symlink("dir", base.file("link"));
    expected.insert({"dir", "link"});
    for (const entries round : {entries::as_they_are, entries::without_type, entries::as_they_are})
    {
        shown = round;
        std::set<std::string> seen;
        for (TARN_DIR_ITOR i = tarn_dir_read_begin(d.get()); i != nullptr;
             i = tarn_dir_read_next(d.get(), i))
        {
            const std::string name = tarn_dir_itor_name(i);
            EXPECT_TRUE(seen.insert(name).second) << name;
            EXPECT_EQ(tarn_dir_itor_is_directory(i), name == "dir");
            EXPECT_EQ(tarn_dir_itor_is_file(i), name.starts_with("file"));
            EXPECT_EQ(tarn_dir_itor_path_name(i), base.file(name));
        }
        EXPECT_EQ(seen, expected);
    }
    shown = entries::with_long_name;
    TARN_DIR_ITOR named = tarn_dir_read_begin(d.get());
    shown = entries::as_they_are;
    EXPECT_EQ(tarn_dir_itor_name(named), std::string(1000, 'n'));
    tarn_dir_read_end(d.get(), named);

    const dir_owner other(tarn_dir_open("/"));
    TARN_DIR_ITOR itor = tarn_dir_read_begin(d.get());
    log_capture log;
    EXPECT_EQ(tarn_dir_read_next(other.get(), itor), nullptr);
    tarn_dir_read_end(other.get(), itor);
    EXPECT_EQ(log.count(".warn ["), 2u);
    EXPECT_TRUE(log.contains("warn", "dir handle mismatch!"));
    tarn_dir_read_end(d.get(), itor);
    EXPECT_EQ(tarn_dir_open(base.file("none").c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "fail to open dir " + base.file("none") + ", error = 2 (No"));
}

TEST(Dir, AllocationFailuresLeaveNothing)
{
    expect_check("RVON(d,TARN_INVALID_HANDLE)");
    expect_check("RVON(d->path,TARN_INVALID_HANDLE)");
    expect_check("RVON(copy,NULL)");
    expect_check("RVON(itor,NULL)");
    support::fail_each_allocation([](size_t) {
        const dir_owner d(tarn_dir_open("/"));
        TARN_DIR_ITOR itor = d ? tarn_dir_read_begin(d.get()) : nullptr;
        EXPECT_EQ(itor == nullptr, support::allocation_failed());
        if (itor != nullptr)
        {
            tarn_dir_read_end(d.get(), itor);
        }
    });
}

TEST(Dir, FreeSpaceIsThatOfTheFileSystem)
{
    struct statfs status
    {
    };
    ASSERT_EQ(::statfs("/proc", &status), 0);
    EXPECT_EQ(tarn_dir_free_space_size("/proc"), 0u);
    EXPECT_GT(tarn_dir_free_space_size("/tmp"), 0u);
    log_capture log;
    EXPECT_EQ(tarn_dir_free_space_size("/no such place"), 0u);
    EXPECT_TRUE(log.contains("error", "statfs failed, error = 2 (No such file or directory)"));
}

} // namespace
