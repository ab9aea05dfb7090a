// Named pipes and dynamic libraries.

#include "support.h"

#include "tarn_dll.h"
#include "tarn_os.h"
#include "tarn_pipe.h"
#include "tarn_raii.h"

#include <cerrno>
#include <csignal>

#include <fcntl.h>
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

TEST(Dll, LoadsCallsAndUnloadsWithoutLeak)
{
    const support::leak_check leaks;
    for (int i = 0; i < 10000; ++i)
    {
        const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
        TARN_DLL d = tarn_dll_load("libm.so.6");
        ASSERT_NE(d, nullptr);
        using function = double (*)(double);
        const auto root = reinterpret_cast<function>(tarn_dll_get_function(d, "sqrt"));
        ASSERT_NE(root, nullptr);
        EXPECT_EQ(root(9.0), 3.0);
        tarn_close_handle(d);
    }
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
