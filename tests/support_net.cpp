#include "support_net.h"

#include "support.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support
{
namespace
{

constexpr int wanted = CLONE_NEWNET | CLONE_NEWNS;
constexpr const char *started_again = "TARN_TEST_IN_USER_NAMESPACE";
constexpr const char *do_without = "TARN_TEST_WITHOUT_NAMESPACES";

bool namespaces_are_allowed()
{
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        ::_exit(::unshare(wanted) == 0 ? 0 : 1);
    }
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && status == 0;
}

} // namespace

bool allow_namespaces()
{
    if (namespaces_are_allowed())
    {
        return true;
    }
    char self[4096] = "";
    if (std::getenv(started_again) != nullptr || ::readlink("/proc/self/exe", self, 4095) < 0)
    {
        return false;
    }
    // A sanitizer's own thread keeps a process from moving into a user namespace by itself.
    const std::string command_line = read_file("/proc/self/cmdline");
    std::vector<const char *> argv = {"unshare", "--user", "--map-root-user", self};
    for (size_t at = std::strlen(command_line.c_str()) + 1; at < command_line.size();
         at += std::strlen(&command_line[at]) + 1)
    {
        argv.push_back(&command_line[at]);
    }
    argv.push_back(nullptr);
    ::setenv(started_again, "1", 1);
    ::execvp(argv[0], const_cast<char **>(argv.data()));
    return false;
}

void in_namespace(const std::function<void()> &body)
{
    std::thread([&body] {
        const int refused = ::unshare(wanted) == 0 ? 0 : errno;
        if (refused != 0 && std::getenv(do_without) != nullptr)
        {
            std::printf("NOT TESTED: no network namespace: %s\n", std::strerror(refused));
            return;
        }
        ASSERT_EQ(refused, 0) << "no network namespace: " << std::strerror(refused) << "; set "
                              << do_without << " to leave out what needs one";
        ASSERT_EQ(::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr), 0);
        ASSERT_EQ(shell("ip link set lo up"), "");
        body();
    }).join();
}

std::string shell(const std::string &command)
{
    auto child =
        child_process::program({"/bin/sh", "-c", "PATH=$PATH:/usr/sbin:/sbin; " + command});
    child.close_input();
    std::string output = child.read_rest();
    EXPECT_EQ(child.wait(), 0) << command << "\n" << output;
    return output;
}

} // namespace support
