// Named pipes and dynamic libraries.

#include "support.h"

#include "tarn_dll.h"
#include "tarn_os.h"
#include "tarn_pipe.h"
#include "tarn_raii.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <thread>

#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

using support::expect_check;
using support::log_capture;
using pipe_owner = tarn::unique_handle<TARN_PIPE, tarn_pipe_close>;

namespace
{

std::string rd_path(const std::string &name)
{
    return "/tmp/tarn_pipe_" + name + "_rd";
}

std::string wr_path(const std::string &name)
{
    return "/tmp/tarn_pipe_" + name + "_wr";
}

bool exists(const std::string &path)
{
    return ::access(path.c_str(), F_OK) == 0;
}

TEST(Pipe, RefusesNamesThatMakeNoPath)
{
    expect_check("RVON(name,TARN_INVALID_HANDLE)");
    expect_check("RVOF(tarn_str_len( name ) > 0,TARN_INVALID_HANDLE)");
    expect_check("RVOF(tarn_str_printf( pipe_name_rd, TARN_NAME_MAX, \"/tmp/tarn_pipe_%s_rd\", "
                 "name ) > 0,TARN_INVALID_HANDLE)");
    for (const auto create : {tarn_pipe_create, tarn_pipe_open})
    {
        EXPECT_EQ(create(nullptr), nullptr);
        EXPECT_EQ(create(""), nullptr);
        EXPECT_EQ(create(std::string(90, 'n').c_str()), nullptr); // 89 fit
        EXPECT_EQ(create("../name"), nullptr);
    }
}

TEST(Pipe, StatedOrderNeedsAPeerThatHoldsItsReadEnd)
{
    const support::leak_check leaks;
    const std::string name = support::unique_name("pipe");
    log_capture log;
    EXPECT_EQ(tarn_pipe_create(name.c_str()), nullptr);
    EXPECT_TRUE(
        log.contains("error", "cannot open pipe " + wr_path(name) + " for write, error = 6"));
    EXPECT_FALSE(exists(wr_path(name))) << "made by the failed call";

    // A raw peer that found or made the FIFOs: they are left.
    ASSERT_EQ(::mkfifo(wr_path(name).c_str(), 0600), 0);
    const tarn::unique_fd peer(::open(wr_path(name).c_str(), O_RDONLY | O_NONBLOCK));
    {
        const pipe_owner p(tarn_pipe_create(name.c_str()));
        ASSERT_TRUE(p);
        const tarn::unique_fd peer_out(::open(rd_path(name).c_str(), O_WRONLY | O_NONBLOCK));
        ASSERT_TRUE(peer_out);
        size_t done = 0;
        EXPECT_EQ(tarn_pipe_write(p.get(), "abc", 3, &done), 0);
        EXPECT_EQ(done, 3u);
        char text[8] = "";
        EXPECT_EQ(::read(peer.get(), text, sizeof text), 3);
        EXPECT_EQ(tarn_pipe_read(p.get(), text, sizeof text, &done), -1); // empty
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(::write(peer_out.get(), "xy", 2), 2);
        EXPECT_EQ(tarn_pipe_read(p.get(), text, 1, &done), 0);
        EXPECT_EQ(done, 1u);
        const std::string block(65536, 'f');
        while (tarn_pipe_write(p.get(), block.data(), block.size(), &done) == 0)
        {
        }
        EXPECT_EQ(errno, EAGAIN); // full
        EXPECT_EQ(tarn_pipe_read(p.get(), text, 8, &done), 0);
    }
    EXPECT_TRUE(exists(wr_path(name)));
    EXPECT_FALSE(exists(rd_path(name)));
    ::unlink(wr_path(name).c_str());
    expect_check("RVON(p,-3)");
    EXPECT_EQ(tarn_pipe_read(nullptr, nullptr, 1, nullptr), -3);
    EXPECT_EQ(tarn_pipe_write(nullptr, nullptr, 1, nullptr), -3);
}

/** Meets the stated calls of the other process: holds the FIFO that this one reads, then waits until
 *  it can open the other one, and sends back what comes. */
TARN_TEST_ROLE(raw_peer)
{
    const std::string &in_path = args[0];
    const std::string &out_path = args[1];
    if (::mkfifo(in_path.c_str(), 0600) != 0)
    {
        return 1;
    }
    const int in = ::open(in_path.c_str(), O_RDONLY | O_NONBLOCK);
    std::printf("ready\n");
    std::fflush(stdout);
    int out = -1;
    (void)support::wait_until(
        [&] { return (out = ::open(out_path.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; });
    char buf[64];
    ssize_t n = -1;
    while ((n = ::read(in, buf, sizeof buf)) != 0)
    {
        if (n > 0 && ::write(out, buf, static_cast<size_t>(n)) != n)
        {
            return 2;
        }
    }
    return ::unlink(in_path.c_str()) == 0 ? 0 : 3; // it was left to its maker
}

TEST(Pipe, BothStatedFormsTalkToARawPeer)
{
    for (const bool creates : {true, false})
    {
        const std::string name = support::unique_name("pipe");
        const std::string in = creates ? rd_path(name) : wr_path(name);
        const std::string out = creates ? wr_path(name) : rd_path(name);
        auto peer = support::child_process::role("raw_peer", {out, in});
        ASSERT_TRUE(peer.wait_for_line("ready"));
        pipe_owner p(creates ? tarn_pipe_create(name.c_str()) : tarn_pipe_open(name.c_str()));
        ASSERT_TRUE(p);
        ASSERT_EQ(tarn_pipe_write(p.get(), "there and back", 14, nullptr), 0);
        char echo[64] = "";
        size_t n = 0;
        EXPECT_TRUE(support::wait_until(
            [&] { return tarn_pipe_read(p.get(), echo, sizeof echo, &n) == 0; }));
        EXPECT_EQ(std::string_view(echo, n), "there and back");
        p.reset();
        EXPECT_EQ(peer.wait(), 0);
        EXPECT_FALSE(exists(in));
    }
}

TEST(Pipe, PlantedLinksAndFilesAreNotOpened)
{
    const support::temp_dir dir;
    const std::string name = support::unique_name("pipe");
    support::write_file(dir.file("victim"), "keep");
    ASSERT_EQ(::symlink(dir.file("victim").c_str(), wr_path(name).c_str()), 0);
    log_capture log;
    EXPECT_EQ(tarn_pipe_create(name.c_str()), nullptr);
    EXPECT_EQ(tarn_pipe_create_wait(name.c_str(), 100), nullptr);
    ::unlink(wr_path(name).c_str());
    support::write_file(wr_path(name), "");
    EXPECT_EQ(tarn_pipe_create(name.c_str()), nullptr);
    EXPECT_EQ(log.count(" for write, error = "), 3u);
    ::unlink(wr_path(name).c_str());
    EXPECT_EQ(support::read_file(dir.file("victim")), "keep");
}

TEST(Pipe, WaitFormsGiveUpInTime)
{
    const std::string name = support::unique_name("pipe");
    log_capture log;
    for (const uint32_t ms : {0u, 60u})
    {
        const double waited =
            support::elapsed_ms([&] { EXPECT_EQ(tarn_pipe_open_wait(name.c_str(), ms), nullptr); });
        EXPECT_GE(waited, ms - 1.0);
        EXPECT_LT(waited, 5000.0);
    }
    EXPECT_EQ(log.count("cannot open pipe " + rd_path(name) + " for write, error = 6"), 2u);
    EXPECT_FALSE(exists(rd_path(name)));
}

TARN_TEST_ROLE(pipe_peer)
{
    ::signal(SIGPIPE, SIG_IGN);
    TARN_PIPE p = tarn_pipe_open_wait(args[0].c_str(), 20000);
    if (p == nullptr)
    {
        return 1;
    }
    char buf[64];
    for (;;)
    {
        size_t n = 0;
        const int rc = tarn_pipe_read(p, buf, sizeof buf, &n);
        if (rc == -2)
        {
            break; // the other side has closed
        }
        if (rc == 0 && tarn_pipe_write(p, buf, n, nullptr) != 0)
        {
            return 2;
        }
    }
    tarn_pipe_close(p);
    return 0;
}

TEST(Pipe, TwoProcessesMeetAndTalkInBothDirections)
{
    const std::string name = support::unique_name("pipe");
    ::signal(SIGPIPE, SIG_IGN);
    for (const bool kill_peer : {false, true})
    {
        auto peer = support::child_process::role("pipe_peer", {name});
        pipe_owner p(tarn_pipe_create_wait(name.c_str(), 20000));
        ASSERT_TRUE(p);
        char echo[64];
        size_t n = 0;
        for (int i = 0; i < 200; ++i)
        {
            const std::string text = "message " + std::to_string(i);
            ASSERT_EQ(tarn_pipe_write(p.get(), text.data(), text.size(), nullptr), 0);
            ASSERT_TRUE(support::wait_until([&] {
                const int rc = tarn_pipe_read(p.get(), echo, sizeof echo, &n);
                EXPECT_NE(rc, -2);
                return rc == 0;
            }));
            ASSERT_EQ(std::string_view(echo, n), text);
        }
        if (kill_peer)
        {
            peer.signal(SIGKILL);
            EXPECT_EQ(peer.wait(), -SIGKILL);
            EXPECT_EQ(tarn_pipe_read(p.get(), echo, sizeof echo, &n), -2);
            EXPECT_EQ(tarn_pipe_write(p.get(), "x", 1, nullptr), -1);
            EXPECT_EQ(errno, EPIPE);
        }
        else
        {
            p.reset();
            EXPECT_EQ(peer.wait(), 0);
            EXPECT_FALSE(exists(rd_path(name)));
            EXPECT_FALSE(exists(wr_path(name)));
        }
    }
    ::unlink(rd_path(name).c_str()); // what the killed peer had made
    ::unlink(wr_path(name).c_str());
}

/** The raw end of a FIFO as soon as it can be opened. */
tarn::unique_fd open_soon(const std::string &path, int access_mode)
{
    tarn::unique_fd fd;
    EXPECT_TRUE(support::wait_until([&] {
        fd.reset(::open(path.c_str(), access_mode | O_NONBLOCK));
        return static_cast<bool>(fd);
    }));
    return fd;
}

/** Waits until somebody holds the write end of a raw read end. */
void wait_for_writer(const tarn::unique_fd &in)
{
    char byte = 0;
    EXPECT_TRUE(support::wait_until([&] { return ::read(in.get(), &byte, 1) == -1; }));
}

TEST(Pipe, WaitFormOutlastsAPeerThatGivesUpHalfWay)
{
    const std::string name = support::unique_name("pipe");
    pipe_owner p;
    std::thread waiting([&] { p.reset(tarn_pipe_create_wait(name.c_str(), 20000)); });
    // It gives up when the other side holds the write end already, and takes the FIFO with it.
    tarn::unique_fd in = open_soon(wr_path(name), O_RDONLY);
    wait_for_writer(in);
    ASSERT_EQ(::unlink(wr_path(name).c_str()), 0);
    in.reset();
    in = open_soon(wr_path(name), O_RDONLY); // made anew
    const tarn::unique_fd out = open_soon(rd_path(name), O_WRONLY);
    waiting.join();
    ASSERT_TRUE(p);
    char text[4] = "";
    EXPECT_EQ(tarn_pipe_write(p.get(), "new", 3, nullptr), 0);
    EXPECT_EQ(::read(in.get(), text, sizeof text), 3);
}

TEST(Pipe, WaitFormReadsAPeerThatHasWrittenAndGone)
{
    const std::string name = support::unique_name("pipe");
    ASSERT_EQ(::mkfifo(wr_path(name).c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo(rd_path(name).c_str(), 0600), 0);
    tarn::unique_fd in = open_soon(wr_path(name), O_RDONLY);
    pipe_owner p;
    std::thread waiting([&] { p.reset(tarn_pipe_create_wait(name.c_str(), 20000)); });
    wait_for_writer(in);
    tarn::unique_fd out = open_soon(rd_path(name), O_WRONLY);
    EXPECT_EQ(::write(out.get(), "bye", 3), 3);
    out.reset();
    in.reset();
    ::unlink(rd_path(name).c_str());
    ::unlink(wr_path(name).c_str());
    waiting.join();
    ASSERT_TRUE(p);
    char text[4] = "";
    EXPECT_EQ(tarn_pipe_read(p.get(), text, sizeof text, nullptr), 0);
    EXPECT_STREQ(text, "bye");
    EXPECT_EQ(tarn_pipe_read(p.get(), text, sizeof text, nullptr), -2);
}

TEST(Dll, LoadsCallsAndUnloadsWithoutLeak)
{
    const support::leak_check leaks;
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    const char *const library = TARN_WATCHPROCESS_DIR "/nothing/libwatchprocess.so";
    size_t used = 0;
    for (int i = 0; i < 10000; ++i)
    {
        TARN_DLL d = tarn_dll_load(library);
        ASSERT_NE(d, nullptr);
        using function = const char *(*)(int);
        const auto text =
            reinterpret_cast<function>(tarn_dll_get_function(d, "watch_process_error_string"));
        ASSERT_NE(text, nullptr);
        ASSERT_STREQ(text(0), "good");
        tarn_close_handle(d);
        ASSERT_EQ(::dlopen(library, RTLD_NOW | RTLD_NOLOAD), nullptr); // really gone
        used = i == 99 ? ::mallinfo2().uordblks : used;
    }
    EXPECT_LT(::mallinfo2().uordblks, used + 9900 * 8); // the smallest leak would be twice that
}

TEST(Dll, MissingFilesAndSymbolsAreReported)
{
    log_capture log;
    EXPECT_EQ(tarn_dll_load("libno_such_thing.so"), nullptr);
    EXPECT_TRUE(log.contains("debug", "dll_name = [libno_such_thing.so]"));
    EXPECT_TRUE(log.contains("error", "failed to load libno_such_thing.so: cannot open"));
    TARN_DLL d = tarn_dll_load_dbg("libm.so.6", "f.c", 3);
    EXPECT_TRUE(log.contains("info", "tarn_dll_load(libm.so.6) from [f.c:3]"));
    EXPECT_EQ(tarn_dll_get_function(d, "no_such_symbol"), nullptr);
    EXPECT_TRUE(log.contains("trace", "fail to get function no_such_symbol, error = "));
    tarn_dll_unload(d);
    tarn_dll_unload(nullptr);
    expect_check("RVON(d,NULL)");
    EXPECT_EQ(tarn_dll_get_function(nullptr, "x"), nullptr);
    expect_check("RVON(dll,TARN_INVALID_HANDLE)");
    EXPECT_EQ(support::fail_each_allocation([](size_t) {
                  TARN_DLL dll = tarn_dll_load("libm.so.6");
                  EXPECT_EQ(dll == nullptr, support::allocation_failed());
                  tarn_dll_unload(dll);
              }),
              1u);
}

} // namespace
