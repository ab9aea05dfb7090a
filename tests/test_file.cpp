// Files: handles, whole files, access tests, the monitor.

#include "support.h"

#include "tarn_file.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_thread.h"

#include <cstdio>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using support::expect_check;
using support::log_capture;
using support::wait_until;
using file_owner = tarn::unique_handle<TARN_FILE, tarn_file_close>;

namespace
{

std::string load(const std::string &path, bool *ok = nullptr)
{
    size_t size = 12345;
    const tarn::unique_mem<char> content(tarn_file_load(path.c_str(), &size));
    if (ok != nullptr)
    {
        *ok = static_cast<bool>(content);
    }
    if (!content)
    {
        EXPECT_EQ(size, 12345u) << "written on failure";
        return {};
    }
    EXPECT_EQ(content.get()[size], '\0');
    return std::string(content.get(), size);
}

bool closes_on_exec(TARN_FILE f)
{
    auto *const stream = static_cast<FILE *>(tarn_file_get_fp(f));
    return stream != nullptr && ::fcntl(::fileno(stream), F_GETFD) == FD_CLOEXEC;
}

TEST(File, HandlesReadWriteSeekAndFormat)
{
    const support::temp_dir dir;
    const std::string path = dir.file("f");
    {
        const file_owner f(tarn_file_open(path.c_str(), "w+"));
        ASSERT_TRUE(f);
        EXPECT_TRUE(closes_on_exec(f.get()));
        size_t done = 77;
        EXPECT_TRUE(tarn_file_write(f.get(), "hello", 5, &done));
        EXPECT_EQ(done, 5u);
        EXPECT_FALSE(tarn_file_write(f.get(), "hello", 0, nullptr));
        EXPECT_EQ(tarn_file_printf(f.get(), " %d", 42), 3);
        EXPECT_EQ(tarn_file_seek(f.get(), 6, SEEK_SET), 0);
        int value = 0;
        EXPECT_EQ(tarn_file_scanf(f.get(), "%d", &value), 1);
        EXPECT_EQ(value, 42);
        char byte = 0;
        EXPECT_FALSE(tarn_file_read(f.get(), &byte, 1, &done)); // at the end
        EXPECT_EQ(done, 5u);

        EXPECT_EQ(tarn_file_seek(f.get(), 2, SEEK_SET), 0);
        size_t size = 0;
        const tarn::unique_mem<char> whole(tarn_file_read_to_buffer(f.get(), &size));
        EXPECT_EQ(size, 8u);
        EXPECT_STREQ(whole.get(), "hello 42");
        EXPECT_TRUE(tarn_file_read(f.get(), &byte, 1, nullptr));
        EXPECT_EQ(byte, 'l'); // the position was kept
    }
    EXPECT_EQ(tarn_file_size(path.c_str()), 8u);
    EXPECT_EQ(tarn_file_size(dir.file("none").c_str()), 0u);

    // With a character set behind the mode proper, which close on exec has to stand in front of.
    if (!support::with_asan) // the C library never frees what it makes for the set
    {
        const file_owner wide(tarn_file_open(path.c_str(), "r,ccs=UTF-8"));
        EXPECT_TRUE(closes_on_exec(wide.get()));
    }
    const file_owner empty(tarn_file_open_tmpfile());
    EXPECT_TRUE(closes_on_exec(empty.get()));
    size_t size = 9;
    const tarn::unique_mem<char> nothing(tarn_file_read_to_buffer(empty.get(), &size));
    ASSERT_TRUE(nothing);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(*nothing, '\0');
    log_capture log;
    EXPECT_EQ(tarn_file_open(dir.file("none").c_str(), "r"), nullptr);
    EXPECT_TRUE(log.contains("error", "fail to open " + dir.file("none") + " with mode r"));
    EXPECT_EQ(tarn_file_open(path.c_str(), std::string(100, 'r').c_str()), nullptr);
}

TEST(File, NullArgumentsAreRefused)
{
    expect_check("RVON(f,NULL)");
    expect_check("RVON(f,false)");
    expect_check("RVON(f,-1)");
    expect_check("RVON(path,false)");
    expect_check("RVON(path,NULL)");
    expect_check("RVON(path,TARN_INVALID_HANDLE)");
    EXPECT_EQ(tarn_file_get_fp(nullptr), nullptr);
    EXPECT_FALSE(tarn_file_read(nullptr, nullptr, 1, nullptr));
    EXPECT_EQ(tarn_file_seek(nullptr, 0, 0), -1);
    EXPECT_EQ(tarn_file_printf(nullptr, "x"), -1);
    EXPECT_EQ(tarn_file_open(nullptr, "r"), nullptr);
    EXPECT_EQ(tarn_file_load(nullptr, nullptr), nullptr);
    EXPECT_FALSE(tarn_file_delete(nullptr));
    EXPECT_FALSE(tarn_file_exists(nullptr));
    tarn_file_close(nullptr);
}

TEST(File, WholeFilesOfEverySizeComeBack)
{
    const support::temp_dir dir;
    const std::string path = dir.file("deep/er/file"); // directories are made
    for (const size_t size : {1u, 4095u, 4096u, 4097u, 100u << 20})
    {
        std::string content(size, '\0');
        for (size_t i = 0; i < size; ++i)
        {
            content[i] = static_cast<char>(i * 7 ^ i >> 11);
        }
        ASSERT_TRUE(tarn_file_write_buffer(path.c_str(), content.data(), size));
        EXPECT_TRUE(load(path) == content) << size;
    }
    EXPECT_FALSE(tarn_file_write_buffer(path.c_str(), "", 0)); // no block was written
    EXPECT_EQ(tarn_file_size(path.c_str()), 0u);
    bool ok = false;
    EXPECT_EQ(load(path, &ok), "");
    EXPECT_TRUE(ok);
    // Their size reads 0; the second gives out no more than what fits the first read.
    for (const char *name : {"/proc/cpuinfo", "/proc/sys/kernel/pid_max"})
    {
        EXPECT_EQ(load(name), support::read_file(name));
        EXPECT_GT(load(name).size(), 2u);
    }
    load(dir.path(), &ok); // a directory opens, but cannot be read
    EXPECT_FALSE(ok);
    load(dir.file("none"), &ok);
    EXPECT_FALSE(ok);

    const std::string bare = support::unique_name("no_directory");
    EXPECT_TRUE(tarn_file_write_buffer(bare.c_str(), "x", 1));
    EXPECT_EQ(load(bare), "x");
    EXPECT_TRUE(tarn_file_delete(bare.c_str()));
}

/** Writes to a full disk and to one that is read-only; both are its own. Prints "refused" where it
 *  may not mount. Then it is an ordinary user in a directory that it may not write to. */
TARN_TEST_ROLE(bad_disks)
{
    const std::string disk = args[0] + "/disk";
    const std::string file = disk + "/file";
    const std::string content(1 << 20, 'x');
    tarn_log_level_set(TARN_LOG_LEVEL_FATAL);
    const auto write = [](const std::string &path, std::string_view bytes) {
        return tarn_file_write_buffer(path.c_str(), bytes.data(), bytes.size()) ? "1" : "0";
    };
    if (::unshare(CLONE_NEWNS) == 0 &&
        ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        ::mount("none", disk.c_str(), "tmpfs", 0, "size=65536") == 0)
    {
        std::printf("%s%s", write(file, content), write(file, content.substr(0, 65536)));
        (void)::mount("none", disk.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr);
        std::printf("%s%s\n", write(file, "x"), write(disk + "/deep/file", "x"));
    }
    else
    {
        std::printf("refused\n");
    }
    [[maybe_unused]] const int lowered = ::seteuid(65534);
    const std::string locked = args[0] + "/locked";
    std::printf("%s%s\n", write(locked + "/file", "x"), write(locked + "/deep/file", "x"));
    [[maybe_unused]] const int raised = ::seteuid(::getuid()); // a leak checker needs the rights
    return 0;
}

TEST(File, FullAndReadOnlyPlacesAreReportedAsSuch)
{
    const support::temp_dir dir;
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(dir.file("disk").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(dir.file("locked").c_str(), 0555), 0);
    auto child = support::child_process::role("bad_disks", {dir.path()});
    const std::string told = child.read_rest();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(told == "0100\n00\n" || told == "refused\n00\n") << told;
}

TEST(File, WriteFailuresAreNotReportedAsSuccess)
{
    const support::temp_dir dir;
    log_capture log;
    EXPECT_FALSE(tarn_file_write_buffer("/proc/no such/file", "x", 1));
    EXPECT_TRUE(log.contains("error", "fail to open /proc/no such/file for write"));
    EXPECT_FALSE(tarn_file_write_buffer(dir.path().c_str(), "x", 1)); // a directory
    EXPECT_FALSE(tarn_file_write_buffer("/dev/full", "x", 1));        // a full disk
    // A file size limit cuts the write short.
    struct rlimit old
    {
    };
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    const struct rlimit small = {100000, old.rlim_max};
    ASSERT_NE(::signal(SIGXFSZ, SIG_IGN), SIG_ERR);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const std::string content(200000, 'x');
    EXPECT_FALSE(
        tarn_file_write_buffer(dir.file("limited").c_str(), content.data(), content.size()));
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    EXPECT_TRUE(
        tarn_file_write_buffer(dir.file("limited").c_str(), content.data(), content.size()));
}

TEST(File, PipesNeverBlockTheOpen)
{
    const support::temp_dir dir;
    const std::string path = dir.file("fifo");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(load(path), "");                                  // no writer
    EXPECT_FALSE(tarn_file_write_buffer(path.c_str(), "x", 1)); // no reader
    const std::string content(300000, 'p');
    const int hold = ::open(path.c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_EQ(::fcntl(hold, F_SETFL, 0), 0);
    std::thread writer(
        [&] { EXPECT_TRUE(tarn_file_write_buffer(path.c_str(), content.data(), content.size())); });
    std::string got;
    char chunk[65536];
    while (got.size() < content.size())
    {
        const ssize_t n = ::read(hold, chunk, sizeof chunk);
        got.append(chunk, n > 0 ? static_cast<size_t>(n) : 0);
    }
    writer.join();
    ::close(hold);
    EXPECT_TRUE(got == content);
}

TEST(File, AccessTestsAndDelete)
{
    const support::temp_dir dir;
    const std::string path = dir.file("f");
    EXPECT_FALSE(tarn_file_exists(path.c_str()));
    support::write_file(path, "x");
    EXPECT_TRUE(tarn_file_exists(path.c_str()));
    EXPECT_TRUE(tarn_file_is_readable(path.c_str()));
    EXPECT_TRUE(tarn_file_is_writable(path.c_str()));
    EXPECT_EQ(tarn_file_access(path.c_str(), X_OK), -1);
    tarn_file_sync();
    EXPECT_TRUE(tarn_file_delete(path.c_str()));
    log_capture log;
    EXPECT_FALSE(tarn_file_delete(path.c_str()));
    EXPECT_TRUE(log.contains("error", "delete " + path + " failed, error = 2 (No such file"));
}

TEST(File, AllocationFailuresLeaveNothing)
{
    const support::temp_dir dir;
    const support::leak_check leaks;
    const std::string path = dir.file("f");
    support::write_file(path, "content");
    expect_check("RVON(f,TARN_INVALID_HANDLE)");
    expect_check("RVON(file_buf,NULL)");
    support::fail_each_allocation([&](size_t) {
        const file_owner f(tarn_file_open(path.c_str(), "r"));
        EXPECT_EQ(f.get() == nullptr, support::allocation_failed());
        if (f)
        {
            const tarn::unique_mem<char> whole(tarn_file_read_to_buffer(f.get(), nullptr));
            EXPECT_EQ(whole.get() == nullptr, support::allocation_failed());
        }
    });
    support::fail_each_allocation([&](size_t) {
        const tarn::unique_mem<char> whole(tarn_file_load(path.c_str(), nullptr));
        EXPECT_EQ(whole.get() == nullptr, support::allocation_failed());
    });
}

// ---- monitor -------------------------------------------------------------------------------------

struct watch
{
    std::function<void(TARN_FILE_MONITOR)> action;
    std::atomic<int> calls{0};
    std::atomic<int> inside{0};
    std::string path;

    static void called(TARN_FILE_MONITOR fm, const char *path, uint32_t event, void *user)
    {
        auto *self = static_cast<watch *>(user);
        EXPECT_EQ(self->path, path);
        EXPECT_EQ(event, 0u);
        self->inside.fetch_add(1);
        self->calls.fetch_add(1);
        const tarn::scope_exit leave([self] { self->inside.fetch_sub(1); }); // unwound, too
        if (self->action)
        {
            self->action(fm);
        }
    }
};

class Monitor : public testing::Test
{
protected:
    support::layer layer_;
    support::leak_check leaks_;
    support::temp_dir dir_;
    watch watch_;
    TARN_FILE_MONITOR start(watch &w)
    {
        w.path = dir_.file(support::unique_name("watched"));
        support::write_file(w.path, "0");
        return tarn_file_monitor_start(w.path.c_str(), watch::called, &w);
    }
    TARN_FILE_MONITOR start()
    {
        return start(watch_);
    }
};

TEST_F(Monitor, RefusesWhatItCannotWatch)
{
    log_capture log;
    expect_check("RVON(file_name,NULL)");
    expect_check("RVOT(tarn_str_is_empty( file_name ),NULL)");
    expect_check("RVON(callback_function,NULL)");
    expect_check("RVOF(0 == rc,NULL)");
    EXPECT_EQ(tarn_file_monitor_start(nullptr, watch::called, nullptr), nullptr);
    EXPECT_EQ(tarn_file_monitor_start("  ", watch::called, nullptr), nullptr);
    EXPECT_EQ(tarn_file_monitor_start("/etc/passwd", nullptr, nullptr), nullptr);
    EXPECT_EQ(tarn_file_monitor_start(dir_.file("none").c_str(), watch::called, nullptr), nullptr);
    expect_check("RON(fm)");
    tarn_file_monitor_stop(nullptr);
    expect_check("RVON(fm,NULL)");
    expect_check("RVON(fm->path,NULL)");
    expect_check("RVON(copy,NULL)");
    expect_check("RVON(ev,TARN_INVALID_HANDLE)");
    expect_check("RVON(t,TARN_INVALID_HANDLE)");
    expect_check("RVOF(thread != TARN_INVALID_HANDLE,NULL)");
    support::fail_each_allocation([](size_t) {
        TARN_FILE_MONITOR fm = tarn_file_monitor_start("/etc/passwd", watch::called, nullptr);
        EXPECT_EQ(fm == nullptr, support::allocation_failed());
        if (fm != nullptr)
        {
            tarn_file_monitor_stop(fm);
        }
    });
}

TEST_F(Monitor, ManyWritesInAPeriodGiveOneCall)
{
    TARN_FILE_MONITOR fm = start();
    ASSERT_NE(fm, nullptr);
    // Started anew, the period has a second to go: all of this falls into it.
    const double took = support::elapsed_ms([&] {
        const tarn::unique_fd fd(::open(watch_.path.c_str(), O_WRONLY));
        for (int i = 0; i < 3000; ++i)
        {
            ASSERT_EQ(::pwrite(fd.get(), "x", 1, i), 1);
            ASSERT_EQ(::ftruncate(fd.get(), i % 2), 0); // tells apart from the write before
        }
    });
    EXPECT_TRUE(wait_until([&] { return watch_.calls >= 1; }));
    EXPECT_LE(watch_.calls, 2 + took / 1000);
    const int first = watch_.calls;
    support::write_file(watch_.path, "again");
    EXPECT_TRUE(wait_until([&] { return watch_.calls > first; }));
    EXPECT_LE(watch_.calls, first + 2);
    // Another file renamed over it, and the old one is gone: one last call.
    const int before = watch_.calls;
    support::write_file(dir_.file("new"), "n");
    ASSERT_EQ(::rename(dir_.file("new").c_str(), watch_.path.c_str()), 0);
    EXPECT_TRUE(wait_until([&] { return watch_.calls == before + 1; }));
    tarn_file_monitor_stop(fm);
    EXPECT_EQ(watch_.calls, before + 1);
    // Deleted: the same.
    fm = start();
    ASSERT_EQ(::unlink(watch_.path.c_str()), 0);
    EXPECT_TRUE(wait_until([&] { return watch_.calls == before + 2; }));
    tarn_file_monitor_stop(fm);
    EXPECT_EQ(watch_.calls, before + 2);
}

TEST_F(Monitor, MayBeStoppedInsideItsCallbackOrWhileItRuns)
{
    watch_.action = tarn_file_monitor_stop;
    ASSERT_NE(start(), nullptr);
    support::write_file(watch_.path, "1");
    EXPECT_TRUE(wait_until([&] { return watch_.calls == 1; }));
    EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));

    std::atomic<bool> hold{true};
    watch_.action = [&](TARN_FILE_MONITOR) { (void)wait_until([&] { return !hold; }); };
    TARN_FILE_MONITOR fm = start();
    support::write_file(watch_.path, "2");
    EXPECT_TRUE(wait_until([&] { return watch_.calls == 2; }));
    log_capture log;
    std::thread stopper([&] {
        tarn_file_monitor_stop(fm);
        EXPECT_EQ(watch_.inside, 0);
    });
    EXPECT_TRUE(log.wait_for("try join thread"));
    hold = false;
    stopper.join();
}

TEST_F(Monitor, CallbacksThatStopOneAnotherDoNotHang)
{
    watch other;
    TARN_FILE_MONITOR monitors[2] = {};
    std::atomic<int> met{0};
    const auto stop_it = [&](TARN_FILE_MONITOR fm) {
        ++met;
        (void)wait_until([&] { return met == 3; });
        tarn_file_monitor_stop(fm == monitors[0] ? monitors[1] : monitors[0]);
    };
    watch_.action = stop_it;
    other.action = stop_it;
    monitors[0] = start();
    monitors[1] = start(other);
    ++met;
    support::write_file(watch_.path, "1");
    support::write_file(other.path, "1");
    EXPECT_TRUE(wait_until([&] { return met == 3 && watch_.inside == 0 && other.inside == 0; }));
    EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
}

} // namespace
