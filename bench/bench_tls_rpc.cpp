// RPC over TLS between two processes, beside OpenSSL straight on the socket: a request with its reply.
//
// The other process is forked before anything else is started: it serves the bare echo (a thread per
// connection) and the RPC server, and ends when this one does.

#include "ratio.h"
#include "tls_identity.h"

#include "tarn_rpc.h"
#include "tarn_sys.h"

#include <algorithm>
#include <csignal>
#include <thread>

#include <openssl/ssl.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace
{

using tls_bench::require;

struct meeting_point
{
    uint16_t bare_port;
    uint16_t rpc_port;
};
meeting_point there;

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/** A socket that is bound to a free port. */
int bound_socket(uint16_t &port)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    auto *const any = reinterpret_cast<sockaddr *>(&address);
    require(::bind(fd, any, size) == 0 && ::getsockname(fd, any, &size) == 0, "bind");
    port = ntohs(address.sin_port);
    return fd;
}

/** Put the calling thread on one processor: the two ends of a bare exchange are apart, as the threads
 *  of RPC are. */
void pin(unsigned processor)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor % std::max(1u, std::thread::hardware_concurrency()), &set);
    (void)::sched_setaffinity(0, sizeof set, &set);
}

// ---- OpenSSL on the socket ----------------------------------------------------------------------------

class bare_end
{
public:
    bare_end(int fd, bool is_client) : fd_(fd), ssl_(SSL_new(tls_bench::ctx()))
    {
        const int on = 1;
        (void)::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        require(ssl_ != nullptr && SSL_set_fd(ssl_, fd) == 1, "SSL_new");
        require((is_client ? SSL_connect(ssl_) : SSL_accept(ssl_)) == 1, "handshake");
    }
    bare_end(const bare_end &) = delete;
    bare_end &operator=(const bare_end &) = delete;
    ~bare_end()
    {
        SSL_free(ssl_);
        ::close(fd_);
    }
    bool write(const char *bytes, size_t size)
    {
        return SSL_write(ssl_, bytes, static_cast<int>(size)) > 0;
    }
    /** @return 0 at the end */
    size_t read(char *bytes, size_t size)
    {
        const int n = SSL_read(ssl_, bytes, static_cast<int>(size));
        return n > 0 ? static_cast<size_t>(n) : 0;
    }

private:
    int fd_;
    SSL *ssl_;
};

void echo(int fd)
{
    pin(1);
    bare_end peer(fd, false);
    std::vector<char> bytes(16384);
    for (size_t n = 0; (n = peer.read(bytes.data(), bytes.size())) != 0;)
    {
        if (!peer.write(bytes.data(), n))
        {
            break;
        }
    }
}

void bare_tls(benchmark::State &state)
{
    cpu_set_t before;
    (void)::sched_getaffinity(0, sizeof before, &before);
    pin(0);
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(there.bare_port);
    require(::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
            "connect");
    {
        bare_end end(fd, true);
        std::vector<char> bytes(static_cast<size_t>(state.range(0)), 'p');
        for (auto _ : state)
        {
            require(end.write(bytes.data(), bytes.size()), "SSL_write");
            for (size_t got = 0; got < bytes.size();)
            {
                const size_t n = end.read(bytes.data() + got, bytes.size() - got);
                require(n != 0, "SSL_read");
                got += n;
            }
        }
    }
    (void)::sched_setaffinity(0, sizeof before, &before);
}
BENCHMARK(bare_tls)->Arg(64)->Arg(4096)->UseRealTime();

// ---- RPC ------------------------------------------------------------------------------------------------

int on_peer(TARN_RPC, void *, const char *, TARN_RPC, TARN_RPC_CALLBACK *, void **)
{
    return 0;
}

void on_connected(TARN_RPC rpc, void *)
{
    (void)tarn_rpc_loop_start(rpc);
}

int on_msg(TARN_RPC, uint32_t, uint32_t, TARN_RPC_MSG msg, TARN_RPC_MSG rsp, void *)
{
    const void *bytes = nullptr;
    uint32_t size = 0;
    return tarn_rpc_msg_get_element_ptr(msg, 1, MSG_ELM_TYPE_STRING, &bytes, &size) == 0
               ? tarn_rpc_msg_write_element_value(rsp, 1, MSG_ELM_TYPE_STRING, bytes, size)
               : -1;
}

void rpc_tls(benchmark::State &state)
{
    TARN_RPC rpc = nullptr;
    require(tarn_rpc_client_create(&tls_bench::own(), nullptr, nullptr, "127.0.0.1",
                                   std::to_string(there.rpc_port).c_str(), 10000, nullptr, nullptr,
                                   &rpc) == 0 &&
                tarn_rpc_loop_start(rpc) == 0,
            "client");
    while (!tarn_rpc_is_connected(rpc))
    {
        tarn_sleep_ms(1);
    }
    const std::vector<char> bytes(static_cast<size_t>(state.range(0)), 'p');
    uint32_t seq_no = 0;
    for (auto _ : state)
    {
        TARN_RPC_MSG rsp = nullptr;
        require(tarn_rpc_element_send(rpc, seq_no++, 1000, 1, MSG_ELM_TYPE_STRING, bytes.data(),
                                      static_cast<uint32_t>(bytes.size()), &rsp, 10000) == 0 &&
                    rsp != nullptr,
                "request");
        (void)tarn_rpc_msg_release(rsp);
    }
    tarn_rpc_destroy(rpc);
}
BENCHMARK(rpc_tls)->Arg(64)->Arg(4096)->UseRealTime();

// ---- the other process --------------------------------------------------------------------------------

[[noreturn]] void serve(int to_parent)
{
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    require(tarn_init(), "tarn_init");
    tarn_log_level_set(TARN_LOG_LEVEL_FATAL); // clients come and go
    const int listener = bound_socket(there.bare_port);
    require(::listen(listener, 16) == 0, "listen");
    ::close(bound_socket(there.rpc_port));
    const TARN_RPC_CALLBACK callbacks = {sizeof callbacks, on_peer, on_connected,
                                         nullptr,          on_msg,  nullptr};
    TARN_RPC rpc = nullptr;
    require(tarn_rpc_server_create(&tls_bench::own(), "127.0.0.1",
                                   std::to_string(there.rpc_port).c_str(), TARN_INFINITE, 16,
                                   &callbacks, nullptr, &rpc) == 0 &&
                tarn_rpc_loop_start(rpc) == 0,
            "server");
    require(::write(to_parent, &there, sizeof there) == sizeof there, "write");
    for (;;)
    {
        std::thread(echo, ::accept(listener, nullptr, nullptr)).detach();
    }
}

} // namespace

int main(int argc, char **argv)
{
    (void)tls_bench::own(); // for both
    int ends[2];
    require(::pipe(ends) == 0, "pipe");
    const pid_t child = ::fork();
    if (child == 0)
    {
        serve(ends[1]);
    }
    ::close(ends[1]);
    require(::read(ends[0], &there, sizeof there) == sizeof there, "the other process");
    require(tarn_init(), "tarn_init");
    tarn_log_level_set(TARN_LOG_LEVEL_FATAL);
    const int rc =
        bench::run(argc, argv,
                   {{"request and reply, 64 B, TLS", "rpc_tls/64", "bare_tls/64", 2.0},
                    {"request and reply, 4 KiB, TLS", "rpc_tls/4096", "bare_tls/4096", 2.0}});
    (void)::kill(child, SIGKILL);
    (void)::waitpid(child, nullptr, 0);
    return rc;
}
