// Connections beside bare sockets of the same family: ping-pong of 64 bytes and 4 KiB, a message
// written in seven pieces, and bulk in one direction.

#include "ratio.h"

#include "tarn_conn.h"
#include "tarn_conn_internal.h"

#include <array>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

constexpr size_t bulk_piece = 65536;

/** A connected pair of bare sockets, with the far end echoing or swallowing on a thread. */
class bare_pair
{
public:
    bare_pair(int family, size_t echo_size) : echo_size_(echo_size)
    {
        const int listener = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_storage address{};
        socklen_t length = 0;
        if (family == AF_INET)
        {
            auto *in = reinterpret_cast<sockaddr_in *>(&address);
            in->sin_family = AF_INET;
            in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            length = sizeof *in;
        }
        else
        {
            address.ss_family = AF_UNIX; // autobind
            length = sizeof(sa_family_t);
        }
        (void)::bind(listener, reinterpret_cast<sockaddr *>(&address), length);
        (void)::listen(listener, 1);
        length = sizeof address;
        (void)::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
        near_ = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        (void)::connect(near_, reinterpret_cast<sockaddr *>(&address), length);
        far_ = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        ::close(listener);
        const int one = 1;
        (void)::setsockopt(near_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        (void)::setsockopt(far_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        thread_ = std::thread([this] { serve(); });
    }
    ~bare_pair()
    {
        ::shutdown(near_, SHUT_RDWR);
        thread_.join();
        ::close(near_);
        ::close(far_);
    }
    [[nodiscard]] int near() const
    {
        return near_;
    }
    static bool read_all(int fd, char *buffer, size_t size)
    {
        for (size_t got = 0; got < size;)
        {
            const ssize_t n = ::recv(fd, buffer + got, size - got, 0);
            if (n <= 0)
            {
                return false;
            }
            got += static_cast<size_t>(n);
        }
        return true;
    }

private:
    void serve()
    {
        std::vector<char> buffer(bulk_piece);
        if (echo_size_ == 0)
        {
            while (::recv(far_, buffer.data(), buffer.size(), 0) > 0)
            {
            }
            return;
        }
        while (read_all(far_, buffer.data(), echo_size_))
        {
            (void)::send(far_, buffer.data(), echo_size_, MSG_NOSIGNAL);
        }
    }
    size_t echo_size_;
    int near_ = -1;
    int far_ = -1;
    std::thread thread_;
};

/** The same over connections. */
class tarn_pair
{
public:
    tarn_pair(int family, size_t echo_size) : echo_size_(echo_size)
    {
        const std::string name = "bench_conn_" + std::to_string(::getpid());
        const bool tcp = family == AF_INET;
        server_ = tarn_conn_server_create(nullptr, tcp ? "127.0.0.1" : name.c_str(),
                                          tcp ? "0" : nullptr, 10000, 4, on_connect, nullptr, this);
        std::string port;
        if (tcp)
        {
            sockaddr_in address{};
            socklen_t length = sizeof address;
            (void)::getsockname(tarn_socket_get_handle(tarn_conn_server_socket(server_)),
                                reinterpret_cast<sockaddr *>(&address), &length);
            port = std::to_string(ntohs(address.sin_port));
        }
        client_ = tarn_conn_create(nullptr, nullptr, nullptr, tcp ? "127.0.0.1" : name.c_str(),
                                   tcp ? port.c_str() : nullptr, 5000, nullptr, nullptr, nullptr);
        std::thread connecting([this] { (void)tarn_conn_connect(client_); });
        (void)tarn_conn_server_loop(server_);
        connecting.join();
    }
    ~tarn_pair()
    {
        tarn_conn_disconnect(client_);
        thread_.join();
        tarn_conn_destroy(client_);
        tarn_conn_server_destroy(server_);
    }
    [[nodiscard]] TARN_CONN client() const
    {
        return client_;
    }
    static bool read_all(TARN_CONN conn, char *buffer, size_t size)
    {
        for (size_t got = 0; got < size;)
        {
            const int n = tarn_conn_read(conn, buffer + got, size - got, 10000);
            if (n <= 0)
            {
                return false;
            }
            got += static_cast<size_t>(n);
        }
        return true;
    }

private:
    static int on_connect(TARN_CONN conn, void *context)
    {
        auto *const self = static_cast<tarn_pair *>(context);
        self->thread_ = std::thread([self, conn] { self->serve(conn); });
        return 0;
    }
    void serve(TARN_CONN conn)
    {
        std::vector<char> buffer(bulk_piece);
        if (echo_size_ == 0)
        {
            while (tarn_conn_read(conn, buffer.data(), buffer.size(), 10000) > 0)
            {
            }
            return;
        }
        while (read_all(conn, buffer.data(), echo_size_))
        {
            (void)tarn_conn_write(conn, buffer.data(), echo_size_);
        }
    }
    size_t echo_size_;
    TARN_CONN_SERVER server_ = nullptr;
    TARN_CONN client_ = nullptr;
    std::thread thread_;
};

template <int Family, size_t Size>
void bare_ping(benchmark::State &state)
{
    const bare_pair pair(Family, Size);
    std::vector<char> message(Size, 'm');
    for (auto turn : state)
    {
        (void)::send(pair.near(), message.data(), Size, MSG_NOSIGNAL);
        if (!bare_pair::read_all(pair.near(), message.data(), Size))
        {
            state.SkipWithError("lost");
            break;
        }
    }
}

template <int Family, size_t Size>
void tarn_ping(benchmark::State &state)
{
    const tarn_pair pair(Family, Size);
    std::vector<char> message(Size, 'm');
    for (auto turn : state)
    {
        (void)tarn_conn_write(pair.client(), message.data(), Size);
        if (!tarn_pair::read_all(pair.client(), message.data(), Size))
        {
            state.SkipWithError("lost");
            break;
        }
    }
}

/** Seven pieces of eight bytes, gathered. */
void tarn_pieces(benchmark::State &state)
{
    const tarn_pair pair(AF_INET, 56);
    std::array<char, 56> message{};
    std::array<tarn::send_part, 7> parts{};
    for (size_t i = 0; i < parts.size(); ++i)
    {
        parts[i] = {message.data() + 8 * i, 8};
    }
    for (auto turn : state)
    {
        (void)tarn::conn_write_parts(pair.client(), parts, TARN_INFINITE);
        if (!tarn_pair::read_all(pair.client(), message.data(), message.size()))
        {
            state.SkipWithError("lost");
            break;
        }
    }
}

void bare_bulk(benchmark::State &state)
{
    const bare_pair pair(AF_INET, 0);
    const std::vector<char> piece(bulk_piece, 'b');
    for (auto turn : state)
    {
        (void)::send(pair.near(), piece.data(), piece.size(), MSG_NOSIGNAL);
    }
}

void tarn_bulk(benchmark::State &state)
{
    const tarn_pair pair(AF_INET, 0);
    const std::vector<char> piece(bulk_piece, 'b');
    for (auto turn : state)
    {
        (void)tarn_conn_write(pair.client(), piece.data(), piece.size());
    }
}

BENCHMARK(bare_ping<AF_INET, 64>)->Name("bare_tcp_64")->UseRealTime();
BENCHMARK(tarn_ping<AF_INET, 64>)->Name("tarn_tcp_64")->UseRealTime();
BENCHMARK(bare_ping<AF_INET, 4096>)->Name("bare_tcp_4096")->UseRealTime();
BENCHMARK(tarn_ping<AF_INET, 4096>)->Name("tarn_tcp_4096")->UseRealTime();
BENCHMARK(bare_ping<AF_UNIX, 64>)->Name("bare_local_64")->UseRealTime();
BENCHMARK(tarn_ping<AF_UNIX, 64>)->Name("tarn_local_64")->UseRealTime();
BENCHMARK(tarn_pieces)->UseRealTime();
BENCHMARK(bare_bulk)->UseRealTime();
BENCHMARK(tarn_bulk)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    return bench::run(argc, argv,
                      {{"TCP ping-pong, 64 B", "tarn_tcp_64", "bare_tcp_64", 1.25},
                       {"TCP ping-pong, 4 KiB", "tarn_tcp_4096", "bare_tcp_4096", 1.25},
                       {"local ping-pong, 64 B", "tarn_local_64", "bare_local_64", 1.25},
                       {"TCP ping-pong in seven pieces", "tarn_pieces", "bare_tcp_64", 1.25},
                       {"TCP bulk, 64 KiB writes", "tarn_bulk", "bare_bulk", 1 / 0.95}});
}
