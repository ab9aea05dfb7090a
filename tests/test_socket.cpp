// Sockets: the same suite over IPv4, IPv6, abstract and file-named local sockets; then what only
// one family has, names to addresses, and the ends that another thread or the peer makes.

#include "support.h"
#include "support_net.h"

#include "tarn_dir.h"
#include "tarn_modules.h"
#include "tarn_raii.h"
#include "tarn_socket.h"
#include "tarn_socket_internal.h"
#include "tarn_thread.h"

#include <cerrno>
#include <cstring>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using support::elapsed_ms;
using support::expect_check;
using support::in_namespace;
using support::leak_check;
using support::log_capture;
using support::unique_name;
using support::wait_until;
using tarn::socket_owner;

namespace
{

const bool allowed = support::allow_namespaces();

/** Sockets as files share one directory; a test that is not about making it finds it there. */
const int directory_made = tarn_dir_create("/tmp/tarn", 0777);

const uint32_t loopback = htonl(INADDR_LOOPBACK);
constexpr uint32_t long_ms = 20000;
/** How late an answer may be on a loaded machine. */
constexpr double slack_ms = support::with_sanitizer ? 3000 : 1500;

// ---- one face for four kinds of address ------------------------------------------------------------

enum class kind
{
    ipv4,
    ipv6,
    abstract,
    file
};

bool is_local(kind k)
{
    return k == kind::abstract || k == kind::file;
}

socket_owner make(kind k, int type = SOCK_STREAM)
{
    const int domain = k == kind::ipv4 ? AF_INET : k == kind::ipv6 ? AF_INET6 : AF_UNIX;
    socket_owner p(tarn_socket_create(domain, type, 0));
    EXPECT_TRUE(p);
    return p;
}

int bind_to(kind k, TARN_SOCKET p, const char *name)
{
    switch (k)
    {
    case kind::ipv4:
        return tarn_socket_bind(p, loopback, 0);
    case kind::ipv6:
        return tarn_socket_bind_ipv6(p, in6addr_loopback.s6_addr, 0);
    case kind::abstract:
        return tarn_socket_bind_local(p, name);
    default:
        return tarn_socket_bind_local_not_abstract(p, name);
    }
}

/** @param where  a port number or a service name */
int connect_to(kind k, TARN_SOCKET p, const std::string &where, uint32_t timeout_ms)
{
    switch (k)
    {
    case kind::ipv4:
        return tarn_socket_connect_with_timeout(
            p, loopback, htons(static_cast<uint16_t>(std::stoi(where))), timeout_ms);
    case kind::ipv6:
        return tarn_socket_connect_ipv6_with_timeout(p, in6addr_loopback.s6_addr,
                                                     htons(static_cast<uint16_t>(std::stoi(where))),
                                                     timeout_ms);
    case kind::abstract:
        return tarn_socket_connect_local_with_timeout(p, where.c_str(), timeout_ms);
    default:
        return tarn_socket_connect_local_not_abstract(p, where.c_str(), timeout_ms);
    }
}

std::string own_port(TARN_SOCKET p)
{
    sockaddr_in6 own{};
    socklen_t length = sizeof own;
    EXPECT_EQ(::getsockname(tarn_socket_get_handle(p), reinterpret_cast<sockaddr *>(&own), &length),
              0);
    return std::to_string(ntohs(own.sin6_port)); // at the same place for IPv4
}

/** @param peer  out: "loopback" or the service name */
socket_owner accept_from(kind k, TARN_SOCKET p, uint32_t timeout_ms, std::string *peer = nullptr)
{
    uint32_t ip = 0;
    uint8_t ip6[16] = {};
    uint16_t port = 0;
    char name[128] = "?";
    socket_owner accepted(k == kind::ipv4 ? tarn_socket_accept(p, &ip, &port, timeout_ms)
                          : k == kind::ipv6
                              ? tarn_socket_accept_ipv6(p, ip6, &port, timeout_ms)
                              : tarn_socket_accept_local(p, name, sizeof name, timeout_ms));
    if (peer != nullptr)
    {
        const bool known = ip == loopback || IN6_IS_ADDR_LOOPBACK(ip6);
        *peer = is_local(k) ? name : known && port != 0 ? "loopback" : "?";
    }
    return accepted;
}

/** A listening socket; the file of a local one goes with it. */
struct listener
{
    explicit listener(kind k, int backlog = 16) : name(unique_name("sock")), socket(make(k))
    {
        EXPECT_EQ(bind_to(k, socket.get(), name.c_str()), 0);
        EXPECT_EQ(tarn_socket_listen(socket.get(), backlog), 0);
        where = is_local(k) ? name : own_port(socket.get());
    }
    listener(const listener &) = delete;
    listener &operator=(const listener &) = delete;
    ~listener()
    {
        ::unlink(("/tmp/tarn/" + name + ".sock").c_str());
    }
    [[nodiscard]] TARN_SOCKET get() const
    {
        return socket.get();
    }
    std::string name;
    socket_owner socket;
    std::string where;
};

/** Two connected sockets of this process. */
struct connected_pair
{
    explicit connected_pair(kind k) : client(make(k))
    {
        const listener server(k);
        EXPECT_EQ(connect_to(k, client.get(), server.where, long_ms), 0);
        peer = accept_from(k, server.get(), long_ms);
        EXPECT_TRUE(peer);
    }
    socket_owner client;
    socket_owner peer;
};

/** Connects until the backlog takes no more. */
std::vector<socket_owner> fill_backlog(kind k, const listener &server)
{
    std::vector<socket_owner> clients;
    int result = 0;
    while (result == 0 && clients.size() < 20)
    {
        clients.push_back(make(k));
        result = connect_to(k, clients.back().get(), server.where, 200);
    }
    EXPECT_EQ(result, TARN_SOCKET_CONNECT_TIMEOUT);
    return clients;
}

/** Runs a call on a thread of its own, ends it by a shutdown once it blocks, and joins. */
void expect_shutdown_ends(TARN_SOCKET p, const std::function<void()> &call)
{
    std::atomic<pid_t> id{0};
    std::thread thread([&] {
        id = ::gettid();
        call();
    });
    EXPECT_TRUE(wait_until([&] {
        const std::string status =
            id == 0 ? "" : support::read_file("/proc/self/task/" + std::to_string(id) + "/stat");
        return status.find(") S ") != std::string::npos;
    }));
    EXPECT_LT(elapsed_ms([&] {
                  (void)tarn_socket_shutdown(p);
                  thread.join();
              }),
              slack_ms);
}

// Echoes what it receives until its peer closes, or until it is told to end by a 'q'.
TARN_TEST_ROLE(echo)
{
    const auto k = static_cast<kind>(std::stoi(args.at(0)));
    socket_owner p = make(k);
    if (is_local(k) && bind_to(k, p.get(), args.at(2).c_str()) != 0)
    {
        return 2;
    }
    if (connect_to(k, p.get(), args.at(1), long_ms) != 0)
    {
        return 3;
    }
    for (;;)
    {
        std::vector<char> buf(8192);
        const int n = tarn_socket_recv(p.get(), buf.data(), buf.size(), long_ms);
        if (n <= 0 || buf[0] == 'q')
        {
            return n > 0 ? 0 : n == -1 && errno == ECONNRESET ? 1 : 4;
        }
        const tarn::send_part part = {buf.data(), static_cast<size_t>(n)};
        if (tarn::socket_send_parts(p.get(), {&part, 1}, long_ms) != n)
        {
            return 5;
        }
    }
}

class Socket : public testing::TestWithParam<kind>
{
protected:
    const leak_check leaks_;
};

TEST_P(Socket, TwoProcessesSpeakBothWaysAndSeeEachOtherClose)
{
    const kind k = GetParam();
    const listener server(k);
    const std::string name = unique_name("client");
    for (const bool child_closes : {true, false})
    {
        auto child = support::child_process::role(
            "echo", {std::to_string(static_cast<int>(k)), server.where, name});
        std::string peer;
        socket_owner p = accept_from(k, server.get(), long_ms, &peer);
        ASSERT_TRUE(p);
        EXPECT_EQ(peer, is_local(k) ? name : "loopback");
        EXPECT_EQ(tarn_socket_get_type(p.get()), tarn_socket_get_type(server.get()));
        EXPECT_EQ(::fcntl(tarn_socket_get_handle(p.get()), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(::fcntl(tarn_socket_get_handle(p.get()), F_GETFL) & O_NONBLOCK, 0);
        tarn::socket_credentials child_credentials{};
        if (is_local(k))
        {
            EXPECT_TRUE(tarn::socket_peer_credentials(p.get(), &child_credentials));
            EXPECT_EQ(child_credentials.pid, child.pid());
        }
        const std::string body(100000, 'b');
        const tarn::send_part parts[] = {{"head", 4}, {nullptr, 0}, {body.data(), body.size()}};
        ASSERT_EQ(tarn::socket_send_parts(p.get(), parts, long_ms), 100004);
        std::string back;
        while (back.size() < 100004)
        {
            char buf[9000];
            const int n = tarn_socket_recv(p.get(), buf, sizeof buf, long_ms);
            ASSERT_GT(n, 0);
            back.append(buf, static_cast<size_t>(n));
        }
        EXPECT_EQ(back, "head" + body);
        EXPECT_TRUE(tarn_socket_is_connected(p.get()));
        EXPECT_EQ(tarn_socket_send(p.get(), "q", child_closes ? 1 : 0), child_closes ? 1 : 0);
        if (child_closes)
        {
            char byte = 0;
            EXPECT_EQ(tarn::socket_receive(p.get(), &byte, 1, long_ms), 0);
            errno = EAGAIN;
            EXPECT_EQ(tarn_socket_recv(p.get(), &byte, 1, 10), -1);
            EXPECT_EQ(errno, ECONNRESET);
            EXPECT_FALSE(tarn_socket_is_connected(p.get()));
            EXPECT_TRUE(wait_until([&] { return tarn_socket_send(p.get(), "x", 1) == -1; }));
        }
        p.reset();
        EXPECT_EQ(child.wait(), child_closes ? 0 : 1);
        ::unlink(("/tmp/tarn/" + name + ".sock").c_str());
    }
}

TEST_P(Socket, TimeoutsAreKeptAlsoUnderSignals)
{
    const kind k = GetParam();
    const connected_pair pair(k);
    const listener silent(k);
    const listener full(k, 0);
    const auto waiting = fill_backlog(k, full);
    const std::string big(8u << 20, 'x');
    const tarn::send_part part = {big.data(), big.size()};
    char byte = 0;
    static constexpr uint32_t ms = 120;
    const auto takes_its_time = [](const char *what, const std::function<void()> &call) {
        const double passed = elapsed_ms(call);
        EXPECT_GE(passed, ms) << what;
        EXPECT_LT(passed, ms + slack_ms) << what;
    };
    const support::signal_storm storm;
    takes_its_time("accept", [&] { EXPECT_FALSE(accept_from(k, silent.get(), ms)); });
    takes_its_time("recv", [&] { EXPECT_EQ(tarn_socket_recv(pair.peer.get(), &byte, 1, ms), 0); });
    takes_its_time("wait_for_recv",
                   [&] { EXPECT_EQ(tarn_socket_wait_for_recv(pair.peer.get(), ms), 0); });
    takes_its_time("connect", [&] {
        EXPECT_EQ(connect_to(k, make(k).get(), full.where, ms), TARN_SOCKET_CONNECT_TIMEOUT);
        EXPECT_EQ(errno, ETIMEDOUT);
    });
    takes_its_time("send", [&] {
        const int64_t sent = tarn::socket_send_parts(pair.client.get(), {&part, 1}, ms);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_GT(sent, 0);
        EXPECT_LT(sent, static_cast<int64_t>(big.size()));
    });
    EXPECT_TRUE(tarn_socket_is_connected(pair.client.get())); // although no byte fits in
    // 0 is one millisecond, except for a connect
    EXPECT_GE(elapsed_ms([&] { EXPECT_EQ(tarn_socket_recv(pair.client.get(), &byte, 1, 0), 0); }),
              1.0);
    EXPECT_EQ(connect_to(k, make(k).get(), full.where, 0), TARN_SOCKET_CONNECT_TIMEOUT);
}

TEST_P(Socket, ConnectLeavesABlockingSocketWithKeepAliveAndFailsAtOnceWhereNobodyListens)
{
    const kind k = GetParam();
    const connected_pair pair(k);
    const int fd = tarn_socket_get_handle(pair.client.get());
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    const auto option = [fd](int level, int name) {
        int value = 0;
        socklen_t length = sizeof value;
        EXPECT_EQ(::getsockopt(fd, level, name, &value, &length), 0);
        return value;
    };
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
    if (!is_local(k))
    {
        EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 30);
        EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 3);
        EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPCNT), 3);
        EXPECT_EQ(tarn_socket_setopt_tcp_nodelay(pair.client.get(), 1), 0);
        EXPECT_EQ(option(IPPROTO_TCP, TCP_NODELAY), 1);
    }
    std::string nobody;
    {
        const listener gone(k);
        nobody = gone.where;
    }
    const socket_owner p = make(k);
    EXPECT_LT(elapsed_ms([&] { EXPECT_EQ(connect_to(k, p.get(), nobody, long_ms), -1); }),
              slack_ms);
    EXPECT_EQ(errno, k == kind::file ? ENOENT : ECONNREFUSED);
    EXPECT_EQ(::fcntl(tarn_socket_get_handle(p.get()), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_FALSE(tarn_socket_is_connected(p.get()));
}

TEST_P(Socket, ShutdownFromAnotherThreadEndsEveryBlockedCall)
{
    const kind k = GetParam();
    const listener silent(k);
    expect_shutdown_ends(silent.get(),
                         [&] { EXPECT_FALSE(accept_from(k, silent.get(), TARN_INFINITE)); });
    EXPECT_FALSE(accept_from(k, silent.get(), TARN_INFINITE)); // and all later ones

    char byte = 0;
    for (const uint32_t timeout_ms : {TARN_INFINITE, long_ms})
    {
        const connected_pair pair(k);
        expect_shutdown_ends(pair.peer.get(), [&] {
            EXPECT_EQ(tarn_socket_recv(pair.peer.get(), &byte, 1, timeout_ms), -1);
        });
        const connected_pair stuffed(k);
        const std::string big(32u << 20, 'x');
        const tarn::send_part part = {big.data(), big.size()};
        expect_shutdown_ends(stuffed.client.get(), [&] {
            EXPECT_LT(tarn::socket_send_parts(stuffed.client.get(), {&part, 1}, timeout_ms),
                      static_cast<int64_t>(big.size()));
            EXPECT_EQ(errno, EPIPE);
        });
    }

    const listener full(k, 0);
    const auto waiting = fill_backlog(k, full);
    const socket_owner caller = make(k);
    expect_shutdown_ends(caller.get(), [&] {
        EXPECT_EQ(connect_to(k, caller.get(), full.where, TARN_INFINITE), -1);
    });
    // A shutdown that comes first is not lost.
    const socket_owner late = make(k);
    (void)tarn_socket_shutdown(late.get());
    EXPECT_EQ(connect_to(k, late.get(), full.where, long_ms), -1);
    EXPECT_EQ(errno, ECONNABORTED);
}

TEST(SocketDatagram, ShutdownEndsABlockedReceive)
{
    char byte = 0;
    for (const uint32_t timeout_ms : {TARN_INFINITE, long_ms})
    {
        const socket_owner p = make(kind::ipv4, SOCK_DGRAM);
        ASSERT_EQ(bind_to(kind::ipv4, p.get(), ""), 0);
        expect_shutdown_ends(
            p.get(), [&] { EXPECT_EQ(tarn_socket_recv(p.get(), &byte, 1, timeout_ms), -1); });
        EXPECT_EQ(tarn_socket_recvfrom(p.get(), &byte, 1, nullptr, nullptr, timeout_ms), 0);
    }
}

TEST_P(Socket, WorksWithDescriptorsAbove1023)
{
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const tarn::scope_exit restore([limit] { ::setrlimit(RLIMIT_NOFILE, &limit); });
    rlimit raised = limit;
    raised.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 4096);
    raised.rlim_max = std::max(limit.rlim_max, raised.rlim_cur);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
    std::vector<tarn::unique_fd> ballast;
    for (int i = 0; i < 2000; ++i)
    {
        ballast.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    const kind k = GetParam();
    const listener server(k);
    EXPECT_FALSE(accept_from(k, server.get(), 0));
    const connected_pair pair(k);
    ASSERT_GT(tarn_socket_get_handle(pair.client.get()), 1023);
    char byte = 0;
    EXPECT_EQ(tarn_socket_recv(pair.peer.get(), &byte, 1, 5), 0);
    EXPECT_EQ(tarn_socket_send(pair.client.get(), "z", 1), 1);
    EXPECT_EQ(tarn_socket_wait_for_recv(pair.peer.get(), TARN_INFINITE), 1);
    EXPECT_TRUE(tarn_socket_is_connected(pair.peer.get()));
    EXPECT_EQ(tarn_socket_recv(pair.peer.get(), &byte, 1, TARN_INFINITE), 1);
    EXPECT_EQ(byte, 'z');
}

std::string name_of(const testing::TestParamInfo<kind> &family)
{
    static const char *const names[] = {"IPv4", "IPv6", "Abstract", "File"};
    return names[static_cast<size_t>(family.param)];
}
INSTANTIATE_TEST_SUITE_P(Over, Socket,
                         testing::Values(kind::ipv4, kind::ipv6, kind::abstract, kind::file),
                         name_of);

// ---- arguments -----------------------------------------------------------------------------------

TEST(SocketArguments, WrongSocketsAreRefusedWithTheirTexts)
{
    expect_check("RVON(p,-1)");
    expect_check("RVON(p,false)");
    expect_check("RVOF(p->handle != INVALID_SOCKET,-1)");
    expect_check("RVOF(p->handle != INVALID_SOCKET,TARN_INVALID_HANDLE)");
    expect_check("RVOF(p->handle != -1,false)");
    expect_check("RVOF(TARN_SOCKET_TYPE_IPV4 == p->sock_type,-1)");
    expect_check("RVOF(TARN_SOCKET_TYPE_IPV6 == p->sock_type,-1)");
    expect_check("RVOF(TARN_SOCKET_TYPE_LOCAL == p->sock_type,-1)");
    expect_check("RVOF(TARN_SOCKET_TYPE_LOCAL == p->sock_type,TARN_INVALID_HANDLE)");
    char buf[4] = {};
    tarn_socket closed{};
    closed.sock_type = TARN_SOCKET_TYPE_IPV4;
    closed.handle = INVALID_SOCKET;
    for (TARN_SOCKET p : {static_cast<TARN_SOCKET>(nullptr), &closed})
    {
        EXPECT_EQ(tarn_socket_shutdown(p), -1);
        EXPECT_EQ(tarn_socket_recv(p, buf, 4, 0), -1);
        EXPECT_EQ(tarn_socket_recvfrom(p, buf, 4, nullptr, nullptr, 0), -1);
        EXPECT_EQ(tarn_socket_send(p, buf, 4), -1);
        EXPECT_EQ(tarn_socket_sendto(p, buf, 4, loopback, 1), -1);
        EXPECT_EQ(tarn_socket_connect_ex(p, "127.0.0.1", "1", nullptr, 0), -1);
        EXPECT_EQ(tarn_socket_listen(p, 1), -1);
        EXPECT_EQ(tarn_socket_wait_for_recv(p, 0), 0);
        EXPECT_FALSE(tarn_socket_is_connected(p));
    }
    EXPECT_EQ(tarn_socket_accept(&closed, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(tarn_socket_get_sock_addr(&closed), 0u);
    const socket_owner local = make(kind::abstract);
    EXPECT_EQ(tarn_socket_bind(local.get(), loopback, 0), -1);
    EXPECT_EQ(tarn_socket_connect_ipv6_with_timeout(local.get(), in6addr_loopback.s6_addr, 1, 0),
              -1);
    const socket_owner ip = make(kind::ipv4);
    EXPECT_EQ(tarn_socket_connect_local_with_timeout(ip.get(), "x", 0), -1);
    EXPECT_EQ(tarn_socket_accept_local(ip.get(), nullptr, 0, 0), nullptr);
    EXPECT_EQ(tarn_socket_setopt_bind_to_device(ip.get(), "lo-and-another-long-name"), -1);
    EXPECT_EQ(tarn_socket_setopt_broadcast(ip.get(), 1), 0);
    EXPECT_EQ(tarn_socket_create(-1, SOCK_STREAM, 0), nullptr);
    tarn_socket_destroy(nullptr);
}

TEST(SocketArguments, FailingAllocationsLeaveNothingBehind)
{
    expect_check("RVON(p,TARN_INVALID_HANDLE)");
    expect_check("RVON(accepted,{})");
    const leak_check leaks;
    const listener server(kind::ipv4);
    (void)support::fail_each_allocation([&](size_t) {
        const socket_owner client(tarn_socket_create_tcp_connection_with_timeout(
            "127.0.0.1", server.where.c_str(), nullptr, nullptr, long_ms));
        if (client)
        {
            TARN_CLOSE_HANDLE(accept_from(kind::ipv4, server.get(), long_ms).release());
        }
    });
}

TEST(SocketArguments, BacklogIsTheLow16BitsAndAtMost128)
{
    for (const auto &[asked, expected] :
         {std::pair(1000, 128u), std::pair(0x10005, 5u), std::pair(-1, 128u)})
    {
        const listener server(kind::ipv4, asked);
        tcp_info info{};
        socklen_t length = sizeof info;
        ASSERT_EQ(::getsockopt(tarn_socket_get_handle(server.get()), IPPROTO_TCP, TCP_INFO, &info,
                               &length),
                  0);
        EXPECT_EQ(info.tcpi_sacked, expected); // the limit, of a listening socket
    }
}

TEST(SocketArguments, ConvertsByteOrder)
{
    EXPECT_EQ(tarn_socket_htons(0x0102), htons(0x0102));
    EXPECT_EQ(tarn_socket_htonl(0x01020304), htonl(0x01020304));
    const uint64_t wire = tarn_socket_htonll(0x0102030405060708);
    EXPECT_EQ(std::memcmp(&wire, "\1\2\3\4\5\6\7\10", 8), 0);
    EXPECT_EQ(tarn_socket_ntohll(wire), 0x0102030405060708u);
}

// ---- local names ---------------------------------------------------------------------------------

sockaddr_un local_form(std::string_view path)
{
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    std::memcpy(un.sun_path, path.data(), path.size());
    return un;
}

TEST(SocketLocal, TellsServiceNamesOfPeersApart)
{
    const std::string full = "/tarn/sock/" + std::string(96, 'n');
    const std::string name = unique_name("peer");
    const std::pair<std::string, std::string> cases[] = {
        {"", ""}, // not bound
        {std::string(1, '\0') + "/tarn/sock/" + name, name},
        {std::string(1, '\0') + full, full.substr(11)}, // without room for a terminator
        {std::string(1, '\0') + "/other/" + name, ""},
        {"/tmp/tarn_" + name + ".sock", ""},
    };
    const listener server(kind::abstract);
    const sockaddr_un to = local_form(std::string(1, '\0') + "/tarn/sock/" + server.name);
    const auto length = [](std::string_view path) {
        return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    };
    for (const auto &[path, expected] : cases)
    {
        const tarn::unique_fd client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un own = local_form(path);
        ASSERT_EQ(::bind(client.get(), reinterpret_cast<const sockaddr *>(&own),
                         path.empty() ? sizeof(sa_family_t) : length(path)),
                  0);
        // An address without path makes the system choose an abstract name; the case of no name at
        // all is the client below.
        ASSERT_EQ(::connect(client.get(), reinterpret_cast<const sockaddr *>(&to),
                            length("0/tarn/sock/" + server.name)),
                  0);
        std::string peer;
        EXPECT_TRUE(accept_from(kind::abstract, server.get(), long_ms, &peer));
        EXPECT_EQ(peer, expected) << path;
        if (path.starts_with('/'))
        {
            ::unlink(path.c_str());
        }
    }
    const socket_owner nameless = make(kind::abstract);
    ASSERT_EQ(connect_to(kind::abstract, nameless.get(), server.where, long_ms), 0);
    char tiny[3] = {'?', '?', '?'};
    EXPECT_TRUE(socket_owner(tarn_socket_accept_local(server.get(), tiny, 3, long_ms)));
    EXPECT_STREQ(tiny, "");
    const socket_owner named = make(kind::abstract);
    ASSERT_EQ(tarn_socket_bind_local(named.get(), name.c_str()), 0);
    ASSERT_EQ(connect_to(kind::abstract, named.get(), server.where, long_ms), 0);
    EXPECT_TRUE(socket_owner(tarn_socket_accept_local(server.get(), tiny, 3, long_ms)));
    EXPECT_EQ(std::string(tiny), name.substr(0, 2));
}

TEST(SocketLocal, LongAbstractNamesAreCutAlikeAndLongFileNamesRefused)
{
    const log_capture log;
    const std::string tail(120, 'l');
    const std::string name = unique_name("long") + tail;
    const socket_owner server = make(kind::abstract);
    ASSERT_EQ(tarn_socket_bind_local(server.get(), name.c_str()), 0);
    ASSERT_EQ(tarn_socket_listen(server.get(), 1000), 0);
    EXPECT_TRUE(log.contains("warn", "is cut"));
    EXPECT_EQ(connect_to(kind::abstract, make(kind::abstract).get(), name, long_ms), 0);
    EXPECT_EQ(connect_to(kind::abstract, make(kind::abstract).get(), name.substr(0, 95), long_ms),
              0);
    EXPECT_EQ(connect_to(kind::abstract, make(kind::abstract).get(), name.substr(0, 94), long_ms),
              -1);
    const socket_owner again = make(kind::abstract);
    EXPECT_EQ(tarn_socket_bind_local(again.get(), name.c_str()), -1);
    EXPECT_TRUE(log.contains("error", "failed, error = 98 (Address already in use)"));

    const socket_owner p = make(kind::file);
    EXPECT_LT(tarn_socket_bind_local_not_abstract(p.get(), name.c_str()), 0);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(tarn_socket_connect_local_not_abstract(p.get(), "../etc/x", 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

// Replaces /tmp by an empty directory for the calling thread's namespace.
void empty_tmp()
{
    ASSERT_EQ(::mount("none", "/tmp", "tmpfs", 0, nullptr), 0);
}

unsigned mode_of(const char *path)
{
    struct stat status
    {
    };
    EXPECT_EQ(::lstat(path, &status), 0) << path;
    return status.st_mode;
}

TEST(SocketLocal, FilesAreOpenToEveryUserAndReplacedWithoutFollowingLinks)
{
    const mode_t old_mask = ::umask(0077);
    const tarn::scope_exit restore([old_mask] { ::umask(old_mask); });
    expect_check("RVOF(0 == rc,false)"); // the directory is missing
    in_namespace([] {
        empty_tmp();
        for (int i = 0; i < 2; ++i) // the second finds the file of the first
        {
            const socket_owner p = make(kind::file);
            ASSERT_EQ(tarn_socket_bind_local_not_abstract(p.get(), "svc"), 0);
            EXPECT_EQ(mode_of("/tmp/tarn"), S_IFDIR | 0777u);
            EXPECT_EQ(mode_of("/tmp/tarn/svc.sock"), S_IFSOCK | 0666u);
        }
        support::write_file("/tmp/secret", "s");
        const unsigned secret_mode = mode_of("/tmp/secret");
        ASSERT_EQ(::symlink("/tmp/secret", "/tmp/tarn/link.sock"), 0);
        const socket_owner link = make(kind::file);
        EXPECT_EQ(tarn_socket_bind_local_not_abstract(link.get(), "link"), 0);
        EXPECT_EQ(mode_of("/tmp/tarn/link.sock"), S_IFSOCK | 0666u);
        EXPECT_EQ(support::read_file("/tmp/secret"), "s");
        // What stands in the socket's place when the mode is set keeps its own.
        ASSERT_EQ(::link("/tmp/secret", "/tmp/tarn/swapped.sock"), 0);
        const auto directory = tarn::socket_port::open_directory("/tmp/tarn");
        EXPECT_EQ(tarn::socket_port::set_socket_file_mode(directory.get(), "swapped.sock", 0666),
                  -1);
        EXPECT_EQ(mode_of("/tmp/secret"), secret_mode);

        ASSERT_EQ(::mkdir("/tmp/tarn/dir.sock", 0700), 0);
        const log_capture log;
        const socket_owner p = make(kind::file);
        EXPECT_LT(tarn_socket_bind_local_not_abstract(p.get(), "dir"), 0);
        EXPECT_TRUE(log.contains("error", "bind /tmp/tarn/dir.sock failed, error = 21"));
        ASSERT_EQ(::rename("/tmp/tarn", "/tmp/elsewhere"), 0);
        ASSERT_EQ(::symlink("/tmp/elsewhere", "/tmp/tarn"), 0);
        EXPECT_LT(tarn_socket_bind_local_not_abstract(p.get(), "svc"), 0);
    });
}

TEST(SocketLocal, ConnectWaitsForRoomInTheBacklog)
{
    const listener full(kind::abstract, 0);
    const auto waiting = fill_backlog(kind::abstract, full);
    const socket_owner p = make(kind::abstract);
    std::thread server([&] { EXPECT_TRUE(accept_from(kind::abstract, full.get(), long_ms)); });
    EXPECT_EQ(connect_to(kind::abstract, p.get(), full.where, long_ms), 0);
    server.join();
    tarn::socket_credentials me{};
    EXPECT_TRUE(tarn::socket_peer_credentials(p.get(), &me));
    EXPECT_FALSE(tarn::socket_peer_credentials(make(kind::abstract).get(), &me));
    EXPECT_EQ(me.uid, ::geteuid());
}

// ---- datagrams -----------------------------------------------------------------------------------

TEST(SocketDatagram, RecvfromPollsAndTellsTheSender)
{
    const socket_owner a = make(kind::ipv4, SOCK_DGRAM);
    const socket_owner b = make(kind::ipv4, SOCK_DGRAM);
    ASSERT_EQ(bind_to(kind::ipv4, a.get(), ""), 0);
    ASSERT_EQ(bind_to(kind::ipv4, b.get(), ""), 0);
    EXPECT_EQ(tarn_socket_get_sock_addr(a.get()), loopback);
    const auto port = [](const socket_owner &p) {
        return htons(static_cast<uint16_t>(std::stoi(own_port(p.get()))));
    };
    char buf[16] = {};
    uint32_t ip = 7;
    uint16_t from = 7;
    EXPECT_EQ(tarn_socket_recvfrom(b.get(), buf, sizeof buf, &ip, &from, 0), 0);
    {
        const support::signal_storm storm;
        const double passed = elapsed_ms(
            [&] { EXPECT_EQ(tarn_socket_recvfrom(b.get(), buf, sizeof buf, &ip, &from, 100), 0); });
        EXPECT_GE(passed, 100.0);
        EXPECT_LT(passed, 100 + slack_ms);
    }
    EXPECT_EQ(ip, 7u); // untouched
    ASSERT_EQ(tarn_socket_sendto(a.get(), "hello", 5, loopback, port(b)), 5);
    EXPECT_EQ(tarn_socket_recvfrom(b.get(), buf, sizeof buf, &ip, &from, TARN_INFINITE), 5);
    EXPECT_EQ(ip, loopback);
    EXPECT_EQ(from, port(a));
    ASSERT_EQ(tarn_socket_sendto(a.get(), "", 0, loopback, port(b)), 0);
    EXPECT_EQ(tarn_socket_recvfrom(b.get(), buf, sizeof buf, &ip, &from, long_ms), 0);

    const socket_owner six = make(kind::ipv6, SOCK_DGRAM);
    ASSERT_EQ(bind_to(kind::ipv6, six.get(), ""), 0);
    const socket_owner sender = make(kind::ipv6, SOCK_DGRAM);
    ASSERT_EQ(connect_to(kind::ipv6, sender.get(), own_port(six.get()), long_ms), 0);
    ASSERT_EQ(tarn_socket_send(sender.get(), "hello", 5), 5);
    ip = 7;
    EXPECT_EQ(tarn_socket_recvfrom(six.get(), buf, sizeof buf, &ip, &from, long_ms), 0);
    EXPECT_EQ(ip, 7u);
    EXPECT_EQ(tarn_socket_get_sock_addr(six.get()), 0u);
}

// ---- names to addresses --------------------------------------------------------------------------

/** Puts "ADDRESS many" lines into the namespace's hosts file. */
void name_many(const std::vector<std::string> &addresses)
{
    std::string hosts;
    for (const std::string &address : addresses)
    {
        hosts += address + " many\n";
    }
    empty_tmp();
    support::write_file("/tmp/hosts", hosts);
    ASSERT_EQ(::mount("/tmp/hosts", "/etc/hosts", nullptr, MS_BIND, nullptr), 0);
}

TEST(SocketResolve, EachAddressIsTriedOnASocketOfItsOwnUntilOneAnswers)
{
    in_namespace([] {
        name_many({"::1", "127.0.0.2", "127.0.0.3", "127.0.0.1"});
        const leak_check leaks;
        const log_capture log;
        const listener server(kind::ipv4); // on 127.0.0.1 only
        TARN_SOCKET connecting = server.get();
        const socket_owner p(tarn_socket_create_tcp_connection_with_timeout(
            "many", server.where.c_str(), "lo", &connecting, long_ms));
        ASSERT_TRUE(p);
        EXPECT_EQ(connecting, nullptr);
        EXPECT_EQ(tarn_socket_get_type(p.get()), uint32_t{TARN_SOCKET_TYPE_IPV4});
        EXPECT_TRUE(accept_from(kind::ipv4, server.get(), long_ms));
        const size_t attempts = log.count("connecting many:" + server.where + " ...");
        EXPECT_GE(attempts, 2u); // 127.0.0.1 is not the first
        EXPECT_EQ(log.count("connect failed, error = ") + log.count("getsockopt return error "),
                  attempts - 1);
        EXPECT_EQ(log.count("bind to device lo"), attempts);

        const socket_owner one = make(kind::ipv4);
        EXPECT_EQ(tarn_socket_connect_ex(one.get(), "many", server.where.c_str(), nullptr, long_ms),
                  0);
        EXPECT_TRUE(accept_from(kind::ipv4, server.get(), long_ms));
        const socket_owner six = make(kind::ipv6);
        EXPECT_EQ(tarn_socket_connect_ex(six.get(), "127.0.0.1", "9", nullptr, long_ms), -2);
        EXPECT_EQ(tarn_socket_connect_ex(make(kind::ipv4).get(), "127.0.0.1", "1", nullptr, 500),
                  -1);
    });
}

TEST(SocketResolve, FailsWithoutAddressDeviceOrTime)
{
    const log_capture log;
    EXPECT_FALSE(socket_owner(tarn_socket_create_tcp_connection_with_timeout(
        "127.0.0.1", "no-such-port", nullptr, nullptr, 0)));
    EXPECT_TRUE(log.contains("error", "getaddrinfo for 127.0.0.1:no-such-port failed: "));
    EXPECT_EQ(tarn_socket_connect_ex(make(kind::ipv4).get(), nullptr, nullptr, nullptr, 0), -1);
    EXPECT_FALSE(socket_owner(tarn_socket_create_tcp_connection_with_timeout(
        "127.0.0.1", "1", "no-such-device", nullptr, 0)));
    EXPECT_TRUE(log.contains("bind to device no-such-device"));
    EXPECT_TRUE(log.contains("error", "fail to bind to interface no-such-device, error = 19"));
    // An address that never answers: a neighbour that nobody is.
    in_namespace([] {
        (void)support::shell("ip link add ev0 type veth peer name ev1 && ip link set ev1 up && "
                             "ip link set ev0 up && ip addr add 10.99.0.1/24 dev ev0 && "
                             "ip neigh add 10.99.0.2 lladdr 02:00:00:00:00:01 dev ev0");
        const socket_owner p = make(kind::ipv4);
        const support::signal_storm storm;
        const double passed = elapsed_ms(
            [&p] { EXPECT_EQ(tarn_socket_connect_ex(p.get(), "10.99.0.2", "7", "ev0", 150), -2); });
        EXPECT_GE(passed, 150.0);
        EXPECT_LT(passed, 150 + slack_ms);
    });
}

TEST(SocketResolve, AnotherThreadEndsTheAttemptOrTheWholeWalk)
{
    const leak_check leaks;
    const listener full(kind::ipv4, 0);
    const auto waiting = fill_backlog(kind::ipv4, full);
    TARN_SOCKET connecting = nullptr;
    std::thread attempt([&] {
        EXPECT_FALSE(socket_owner(tarn_socket_create_tcp_connection_with_timeout(
            "127.0.0.1", full.where.c_str(), nullptr, &connecting, TARN_INFINITE)));
    });
    EXPECT_TRUE(wait_until([&] { return tarn_socket_abort_connect(&connecting); }));
    attempt.join();
    EXPECT_FALSE(tarn_socket_abort_connect(&connecting));

    tarn::connect_slot slot{};
    std::thread walk([&] {
        EXPECT_FALSE(socket_owner(tarn::socket_create_tcp_connection(
            "127.0.0.1", full.where.c_str(), nullptr, slot, TARN_INFINITE)));
    });
    tarn::socket_abort(slot); // before or during the walk
    walk.join();
    const socket_owner p = make(kind::ipv4);
    EXPECT_FALSE(tarn::socket_publish(slot, p.get()));
    tarn::socket_abort_clear(slot);
    EXPECT_TRUE(tarn::socket_publish(slot, p.get()));
    EXPECT_TRUE(tarn::socket_unpublish(slot));
}

TEST(SocketResolve, AStopRequestEndsTheWalk)
{
    const support::layer layer;
    const listener server(kind::ipv4);
    struct context
    {
        const listener *server;
        std::atomic<int> stage{0};
    } shared{&server, {}};
    TARN_THREAD thread = tarn_thread_start(
        [](void *arg, void *) -> void * {
            auto &c = *static_cast<context *>(arg);
            c.stage = 1;
            while (!tarn_thread_sleep(1000))
            {
            }
            const char *port = c.server->where.c_str();
            const socket_owner p(tarn_socket_create_tcp_connection_with_timeout(
                "127.0.0.1", port, nullptr, nullptr, long_ms));
            const int result =
                tarn_socket_connect_ex(make(kind::ipv4).get(), "127.0.0.1", port, nullptr, long_ms);
            c.stage = !p && result == -2 ? 2 : 3;
            return nullptr;
        },
        &shared, nullptr, 0, "walker");
    EXPECT_TRUE(wait_until([&] { return shared.stage == 1; }));
    tarn_thread_stop(thread);
    EXPECT_EQ(shared.stage, 2);
}

// ---- the host, resources, traffic lines ------------------------------------------------------------

TEST(SocketHost, AddressesAreThoseOfStartUp)
{
    in_namespace([] {
        (void)support::shell("ip link add ev0 type veth peer name ev1 && "
                             "ip addr add 10.98.1.5/20 dev ev0");
        const support::layer layer;
        EXPECT_TRUE(tarn_socket_init()); // again: replaces the first list
        uint32_t ip = 0;
        EXPECT_EQ(tarn_socket_get_if_addr("ev0"), inet_addr("10.98.1.5"));
        EXPECT_EQ(tarn_socket_get_if_addr("ev1"), 0u);
        EXPECT_EQ(tarn_socket_is_local_addr(loopback), 1);
        EXPECT_EQ(tarn_socket_is_local_addr(inet_addr("10.98.1.6")), 0);
        const socket_owner p = make(kind::ipv4);
        EXPECT_EQ(tarn_socket_get_broadcast_addr(p.get(), &ip), 0); // bound to no address
        (void)support::shell("ip link set ev0 up");
        ASSERT_EQ(tarn_socket_bind(p.get(), inet_addr("10.98.1.5"), 0), 0);
        EXPECT_EQ(tarn_socket_get_broadcast_addr(p.get(), &ip), 1);
        EXPECT_EQ(ip, inet_addr("10.98.15.255"));
    });
}

TEST(SocketHost, AcceptWithoutDescriptorsPausesAndRecovers)
{
    const listener server(kind::ipv4);
    const socket_owner client = make(kind::ipv4);
    ASSERT_EQ(connect_to(kind::ipv4, client.get(), server.where, long_ms), 0);
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int next = ::dup(0);
    ::close(next);
    const rlimit none = {static_cast<rlim_t>(next), limit.rlim_max};
    double passed = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    passed = elapsed_ms([&] { EXPECT_FALSE(accept_from(kind::ipv4, server.get(), long_ms)); });
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_GE(passed, 99.0);
    EXPECT_TRUE(accept_from(kind::ipv4, server.get(), long_ms));
}

TEST(SocketHost, TrafficIsLoggedOnlyWhenAskedFor)
{
    for (const bool loud : {false, true})
    {
        ::setenv("TARN_LOG_SOCKET", loud ? "1" : "0", 1);
        const support::layer layer;
        ::unsetenv("TARN_LOG_SOCKET");
        const log_capture log;
        {
            const connected_pair pair(kind::abstract);
            char buf[8];
            EXPECT_EQ(tarn_socket_send(pair.client.get(), "\1\2", 2), 2);
            EXPECT_EQ(tarn_socket_recv(pair.peer.get(), buf, sizeof buf, long_ms), 2);
            EXPECT_TRUE(tarn_socket_is_connected(pair.peer.get()));
        }
        for (const char *line :
             {"[TX] 01 02", "[RX] 01 02", "] shutdown return [0], error = 0", "] close",
              "select return 1, errno = 0", "getsockopt return 0, errno = 0, err = 0",
              "recv return -1, errno = 11"})
        {
            EXPECT_EQ(log.contains("info", line), loud) << line;
        }
    }
}

} // namespace
