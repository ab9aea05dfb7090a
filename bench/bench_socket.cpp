// Sockets against the bare system calls: ping-pong over TCP and over an abstract local name, with
// and without a time-out, a message in seven parts, bulk data one way.

#include "ratio.h"

#include "tarn_socket.h"
#include "tarn_socket_internal.h"

#include <array>
#include <cstdlib>
#include <span>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr uint32_t timeout_ms = 500;

/** Two connected sockets. */
struct pair
{
    explicit pair(int domain)
    {
        const tarn::socket_owner listener(tarn_socket_create(domain, SOCK_STREAM, 0));
        client.reset(tarn_socket_create(domain, SOCK_STREAM, 0));
        const uint32_t loopback = htonl(INADDR_LOOPBACK);
        const std::string name = "bench" + std::to_string(::getpid());
        if (domain == AF_UNIX)
        {
            (void)tarn_socket_bind_local(listener.get(), name.c_str());
            (void)tarn_socket_listen(listener.get(), 1);
            (void)tarn_socket_connect_local_with_timeout(client.get(), name.c_str(), timeout_ms);
            peer.reset(tarn_socket_accept_local(listener.get(), nullptr, 0, timeout_ms));
            return;
        }
        (void)tarn_socket_bind(listener.get(), loopback, 0);
        (void)tarn_socket_listen(listener.get(), 1);
        sockaddr_in own{};
        socklen_t length = sizeof own;
        (void)::getsockname(tarn_socket_get_handle(listener.get()),
                            reinterpret_cast<sockaddr *>(&own), &length);
        (void)tarn_socket_connect_with_timeout(client.get(), loopback, own.sin_port, timeout_ms);
        peer.reset(tarn_socket_accept(listener.get(), nullptr, nullptr, timeout_ms));
        (void)tarn_socket_setopt_tcp_nodelay(client.get(), 1);
        (void)tarn_socket_setopt_tcp_nodelay(peer.get(), 1);
    }
    tarn::socket_owner client;
    tarn::socket_owner peer;
};

/** Reads or drops everything until the client shuts down; echoes whole messages of size bytes. */
void serve(TARN_SOCKET peer, size_t size, bool echo)
{
    const int fd = tarn_socket_get_handle(peer);
    std::string buf(64 * 1024, '\0');
    for (size_t have = 0;;)
    {
        const ssize_t n = ::recv(fd, buf.data(), echo ? size - have : buf.size(), 0);
        if (n <= 0)
        {
            return;
        }
        have += static_cast<size_t>(n);
        if (echo && have == size)
        {
            (void)::send(fd, buf.data(), size, MSG_NOSIGNAL);
            have = 0;
        }
    }
}

template <typename Turn>
void with_server(benchmark::State &state, int domain, size_t size, bool echo, Turn turn)
{
    const pair sockets(domain);
    std::thread server([&] { serve(sockets.peer.get(), size, echo); });
    std::string message(size, 'm');
    for (auto step : state)
    {
        turn(sockets.client.get(), message);
    }
    (void)tarn_socket_shutdown(sockets.client.get());
    server.join();
}

template <typename Receive>
void receive_all(std::string &message, Receive receive)
{
    for (size_t have = 0; have < message.size();)
    {
        const ssize_t n = receive(message.data() + have, message.size() - have);
        if (n <= 0)
        {
            std::abort();
        }
        have += static_cast<size_t>(n);
    }
}

template <int Domain, size_t Size>
void bare_ping_pong(benchmark::State &state)
{
    with_server(state, Domain, Size, true, [](TARN_SOCKET p, std::string &message) {
        const int fd = tarn_socket_get_handle(p);
        (void)::send(fd, message.data(), message.size(), MSG_NOSIGNAL);
        receive_all(message, [fd](char *at, size_t left) { return ::recv(fd, at, left, 0); });
    });
}

template <int Domain, size_t Size, uint32_t Timeout>
void tarn_ping_pong(benchmark::State &state)
{
    with_server(state, Domain, Size, true, [](TARN_SOCKET p, std::string &message) {
        (void)tarn_socket_send(p, message.data(), message.size());
        receive_all(message,
                    [p](char *at, size_t left) { return tarn_socket_recv(p, at, left, Timeout); });
    });
}

void gathered_ping_pong(benchmark::State &state)
{
    with_server(state, AF_INET, 64, true, [](TARN_SOCKET p, std::string &message) {
        std::array<tarn::send_part, 7> parts{};
        for (size_t i = 0; i < 7; ++i)
        {
            parts[i] = {message.data() + 4 * i, i < 6 ? 4u : 40u};
        }
        (void)tarn::socket_send_parts(p, parts, TARN_INFINITE);
        receive_all(message, [p](char *at, size_t left) {
            return tarn_socket_recv(p, at, left, TARN_INFINITE);
        });
    });
}

constexpr size_t bulk_size = 64 * 1024;

void bare_bulk(benchmark::State &state)
{
    with_server(state, AF_INET, bulk_size, false, [](TARN_SOCKET p, std::string &message) {
        (void)::send(tarn_socket_get_handle(p), message.data(), message.size(), MSG_NOSIGNAL);
    });
}

void tarn_bulk(benchmark::State &state)
{
    with_server(state, AF_INET, bulk_size, false, [](TARN_SOCKET p, std::string &message) {
        (void)tarn_socket_send(p, message.data(), message.size());
    });
}

void bare_tcp_64(benchmark::State &state)
{
    bare_ping_pong<AF_INET, 64>(state);
}
void bare_tcp_4096(benchmark::State &state)
{
    bare_ping_pong<AF_INET, 4096>(state);
}
void bare_local_64(benchmark::State &state)
{
    bare_ping_pong<AF_UNIX, 64>(state);
}
void tarn_tcp_64(benchmark::State &state)
{
    tarn_ping_pong<AF_INET, 64, TARN_INFINITE>(state);
}
void tarn_tcp_64_timed(benchmark::State &state)
{
    tarn_ping_pong<AF_INET, 64, timeout_ms>(state);
}
void tarn_tcp_4096_timed(benchmark::State &state)
{
    tarn_ping_pong<AF_INET, 4096, timeout_ms>(state);
}
void tarn_local_64_timed(benchmark::State &state)
{
    tarn_ping_pong<AF_UNIX, 64, timeout_ms>(state);
}

BENCHMARK(bare_tcp_64)->UseRealTime();
BENCHMARK(tarn_tcp_64)->UseRealTime();
BENCHMARK(tarn_tcp_64_timed)->UseRealTime();
BENCHMARK(gathered_ping_pong)->UseRealTime();
BENCHMARK(bare_tcp_4096)->UseRealTime();
BENCHMARK(tarn_tcp_4096_timed)->UseRealTime();
BENCHMARK(bare_local_64)->UseRealTime();
BENCHMARK(tarn_local_64_timed)->UseRealTime();
BENCHMARK(bare_bulk)->UseRealTime()->MinTime(0.5);
BENCHMARK(tarn_bulk)->UseRealTime()->MinTime(0.5);

} // namespace

int main(int argc, char **argv)
{
    return bench::run(
        argc, argv,
        {{"TCP 64 B ping-pong", "tarn_tcp_64", "bare_tcp_64", 1.25},
         {"TCP 64 B ping-pong with a time-out", "tarn_tcp_64_timed", "bare_tcp_64", 1.25},
         {"TCP 64 B ping-pong in seven parts", "gathered_ping_pong", "bare_tcp_64", 1.25},
         {"TCP 4 KiB ping-pong with a time-out", "tarn_tcp_4096_timed", "bare_tcp_4096", 1.25},
         {"local 64 B ping-pong with a time-out", "tarn_local_64_timed", "bare_local_64", 1.25},
         {"TCP bulk, 64 KiB a call", "tarn_bulk", "bare_bulk", 1.05}});
}
