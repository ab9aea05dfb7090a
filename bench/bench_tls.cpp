// TLS sessions, and the connections on top of them, beside OpenSSL straight on the socket: bulk data,
// small round trips, handshakes. All use the same credentials over loopback TCP.

#include "ratio.h"
#include "tls_identity.h"

#include "tarn.h"
#include "tarn_conn.h"

#include <openssl/ssl.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

using namespace tls_bench;

constexpr size_t burst = size_t{4} << 20;
constexpr size_t message = 64;

// ---- sockets ---------------------------------------------------------------------------------------

/** Both ends of a TCP connection over the loopback interface. */
struct tcp_pair
{
    int client = -1;
    int server = -1;

    tcp_pair()
    {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto *const any = reinterpret_cast<sockaddr *>(&address);
        require(bind(listener, any, size) == 0 && listen(listener, 1) == 0, "listen");
        require(getsockname(listener, any, &size) == 0, "getsockname");
        client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        require(connect(client, any, size) == 0, "connect");
        server = accept(listener, nullptr, nullptr);
        require(server >= 0, "accept");
        close(listener);
        for (const int fd : {client, server})
        {
            const int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        }
    }
    tcp_pair(const tcp_pair &) = delete;
    tcp_pair &operator=(const tcp_pair &) = delete;
    ~tcp_pair()
    {
        close(client);
        close(server);
    }
};

// ---- the ways to talk --------------------------------------------------------------------------

/** Ours: a session over a connection record that reads and writes a socket. */
class tarn_end
{
public:
    tarn_end(int fd, bool is_client) : fd_(fd), is_client_(is_client)
    {
        tlsu_conn_if_ex record{};
        tlsu_conn_if &conn_if = record.base;
        conn_if.size = sizeof record;
        conn_if.type = [](void *conn_h) {
            return self(conn_h).is_client_ ? TLSU_CONN_TYPE_CLIENT : 3;
        };
        conn_if.connect = [](void *) { return 0; };
        conn_if.send = [](void *conn_h, const void *bytes, int len) {
            return static_cast<int>(
                send(self(conn_h).fd_, bytes, static_cast<size_t>(len), MSG_NOSIGNAL));
        };
        conn_if.receive = receive;
        record.piece_size = 17408; // a whole record
        session_ = tls().tls_create(ctx(), &conn_if, this);
        require(session_ != nullptr, "tls_create");
    }
    tarn_end(const tarn_end &) = delete;
    tarn_end &operator=(const tarn_end &) = delete;
    ~tarn_end()
    {
        tls().tls_destroy(session_);
    }
    void shake_hands()
    {
        // as tls_connect and tls_accept do
        require(tls().tls_write(session_, nullptr, 0) == 0, "handshake");
    }
    void write(const char *bytes, size_t size)
    {
        require(tls().tls_write(session_, bytes, static_cast<int>(size)) >= 0, "tls_write");
    }
    /** @return 0 at the end */
    size_t read(char *bytes, size_t size)
    {
        int n = 0;
        while (n == 0)
        {
            n = tls().tls_read(session_, bytes, static_cast<int>(size), 0xFFFFFFFFu);
        }
        return n > 0 ? static_cast<size_t>(n) : 0;
    }
    static constexpr size_t write_size = 65536;

private:
    static tarn_end &self(void *conn_h)
    {
        return *static_cast<tarn_end *>(conn_h);
    }
    static int receive(void *conn_h, void *buffer, int max_len, uint32_t timeout_ms)
    {
        pollfd waited{self(conn_h).fd_, POLLIN, 0};
        if (timeout_ms != 0xFFFFFFFFu && poll(&waited, 1, static_cast<int>(timeout_ms)) < 1)
        {
            return 0;
        }
        const ssize_t n = recv(waited.fd, buffer, static_cast<size_t>(max_len), 0);
        return n > 0 ? static_cast<int>(n) : -1;
    }

    int fd_;
    bool is_client_;
    TLSU_SESSION session_;
};

/** OpenSSL on the socket. */
class bare_end
{
public:
    bare_end(int fd, bool is_client) : ssl_(SSL_new(ctx()))
    {
        require(ssl_ != nullptr && SSL_set_fd(ssl_, fd) == 1, "SSL_new");
        is_client ? SSL_set_connect_state(ssl_) : SSL_set_accept_state(ssl_);
    }
    bare_end(const bare_end &) = delete;
    bare_end &operator=(const bare_end &) = delete;
    ~bare_end()
    {
        SSL_free(ssl_);
    }
    void shake_hands()
    {
        require(SSL_do_handshake(ssl_) == 1, "SSL_do_handshake");
    }
    void write(const char *bytes, size_t size)
    {
        require(SSL_write(ssl_, bytes, static_cast<int>(size)) > 0, "SSL_write");
    }
    size_t read(char *bytes, size_t size)
    {
        const int n = SSL_read(ssl_, bytes, static_cast<int>(size));
        return n > 0 ? static_cast<size_t>(n) : 0;
    }
    static constexpr size_t write_size = 16384;

private:
    SSL *ssl_;
};

/** A connection of the layer, plain sockets and all. */
class conn_end
{
public:
    explicit conn_end(TARN_CONN conn) : conn_(conn) {}
    void shake_hands() {}
    void write(const char *bytes, size_t size)
    {
        require(tarn_conn_write(conn_, bytes, size) == static_cast<int>(size), "tarn_conn_write");
    }
    size_t read(char *bytes, size_t size)
    {
        const int n = tarn_conn_read(conn_, bytes, size, 0xFFFFFFFFu);
        return n > 0 ? static_cast<size_t>(n) : 0;
    }
    static constexpr size_t write_size = 65536;

private:
    TARN_CONN conn_;
};

/** The two ends of one TCP connection. */
template <typename End>
class ends
{
public:
    void cut()
    {
        shutdown(pair_.client, SHUT_RDWR);
    }

private:
    tcp_pair pair_;

public:
    End client{pair_.client, true};
    End server{pair_.server, false};
};

uint16_t free_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *const any = reinterpret_cast<sockaddr *>(&address);
    require(bind(fd, any, size) == 0 && getsockname(fd, any, &size) == 0, "bind");
    close(fd);
    return ntohs(address.sin_port);
}

template <>
class ends<conn_end>
{
public:
    ends()
    {
        std::thread accepting([this] { tarn_conn_server_loop(server_handle_); });
        require(tarn_conn_connect(client_handle_) == 0, "tarn_conn_connect");
        accepting.join();
        require(accepted_ != nullptr, "accept");
        server = conn_end(accepted_);
    }
    ends(const ends &) = delete;
    ends &operator=(const ends &) = delete;
    ~ends()
    {
        tarn_conn_destroy(client_handle_);
        tarn_conn_server_destroy(server_handle_);
    }
    void cut()
    {
        tarn_conn_disconnect(client_handle_);
    }

private:
    static int on_connect(TARN_CONN conn, void *self)
    {
        static_cast<ends *>(self)->accepted_ = conn;
        return 0;
    }
    const std::string port_ = std::to_string(free_port());
    TARN_CONN accepted_ = nullptr;
    TARN_CONN_SERVER server_handle_ = tarn_conn_server_create(&own(), "127.0.0.1", port_.c_str(),
                                                              10000, 1, on_connect, nullptr, this);
    TARN_CONN client_handle_ = tarn_conn_create(&own(), nullptr, nullptr, "127.0.0.1",
                                                port_.c_str(), 10000, nullptr, nullptr, nullptr);

public:
    conn_end client{client_handle_};
    conn_end server{nullptr};
};

// ---- benchmarks ------------------------------------------------------------------------------------

/** The server's end, with a thread of its own that works on it from the handshake on. */
template <typename End>
class served
{
public:
    explicit served(const std::function<void(End &)> &serve)
        : thread_([this, serve] {
              ends_.server.shake_hands();
              serve(ends_.server);
          })
    {
        ends_.client.shake_hands();
    }
    served(const served &) = delete;
    served &operator=(const served &) = delete;
    ~served()
    {
        ends_.cut();
        thread_.join();
    }
    End &client()
    {
        return ends_.client;
    }

private:
    ends<End> ends_;
    std::thread thread_;
};

/** One burst from the client to the server. */
template <typename End>
void bulk(benchmark::State &state)
{
    std::counting_semaphore<> arrived(0);
    served<End> connection([&arrived](End &server) {
        std::vector<char> buffer(65536);
        size_t received = 0;
        for (size_t n = server.read(buffer.data(), buffer.size()); n != 0;
             n = server.read(buffer.data(), buffer.size()))
        {
            received += n;
            if (received == burst)
            {
                received = 0;
                arrived.release();
            }
        }
    });
    const std::vector<char> data(End::write_size, 'x');
    for (auto turn : state)
    {
        for (size_t sent = 0; sent < burst; sent += data.size())
        {
            connection.client().write(data.data(), data.size());
        }
        arrived.acquire();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * burst));
}

template <typename End>
void read_whole(End &end, std::array<char, message> *buffer)
{
    for (size_t filled = 0; filled < message;)
    {
        const size_t n = end.read(buffer->data() + filled, message - filled);
        if (n == 0)
        {
            return;
        }
        filled += n;
    }
}

/** One message to the server and back. */
template <typename End>
void ping_pong(benchmark::State &state)
{
    served<End> connection([](End &server) {
        std::array<char, message> buffer{};
        for (size_t n = server.read(buffer.data(), message); n != 0;
             n = server.read(buffer.data(), message))
        {
            server.write(buffer.data(), n);
        }
    });
    std::array<char, message> buffer{};
    for (auto turn : state)
    {
        connection.client().write(buffer.data(), message);
        read_whole(connection.client(), &buffer);
    }
}

/** One handshake, over a connection that stands. */
template <typename End>
void handshake(benchmark::State &state)
{
    for (auto turn : state)
    {
        state.PauseTiming();
        {
            const tcp_pair pair;
            std::binary_semaphore start(0);
            std::thread server([&] {
                start.acquire();
                End end(pair.server, false);
                end.shake_hands();
            });
            state.ResumeTiming();
            start.release();
            End client(pair.client, true);
            client.shake_hands();
            server.join();
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
}

void bare_bulk(benchmark::State &state)
{
    bulk<bare_end>(state);
}
BENCHMARK(bare_bulk)->UseRealTime();

void tarn_bulk(benchmark::State &state)
{
    bulk<tarn_end>(state);
}
BENCHMARK(tarn_bulk)->UseRealTime();

void tarn_conn_bulk(benchmark::State &state)
{
    bulk<conn_end>(state);
}
BENCHMARK(tarn_conn_bulk)->UseRealTime();

void bare_ping_pong(benchmark::State &state)
{
    ping_pong<bare_end>(state);
}
BENCHMARK(bare_ping_pong)->UseRealTime();

void tarn_ping_pong(benchmark::State &state)
{
    ping_pong<tarn_end>(state);
}
BENCHMARK(tarn_ping_pong)->UseRealTime();

void tarn_conn_ping_pong(benchmark::State &state)
{
    ping_pong<conn_end>(state);
}
BENCHMARK(tarn_conn_ping_pong)->UseRealTime();

void bare_handshake(benchmark::State &state)
{
    handshake<bare_end>(state);
}
BENCHMARK(bare_handshake)->UseRealTime();

void tarn_handshake(benchmark::State &state)
{
    handshake<tarn_end>(state);
}
BENCHMARK(tarn_handshake)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    tarn_log_level_set(TARN_LOG_LEVEL_WARN);
    require(tarn_init(), "tarn_init");
    const int status =
        bench::run(argc, argv,
                   {{"bulk data, session", "tarn_bulk", "bare_bulk", 1.25},
                    {"bulk data, connection", "tarn_conn_bulk", "bare_bulk", 1.25},
                    {"64-byte ping-pong, session", "tarn_ping_pong", "bare_ping_pong", 1.4},
                    {"64-byte ping-pong, connection", "tarn_conn_ping_pong", "bare_ping_pong", 1.4},
                    {"handshake", "tarn_handshake", "bare_handshake", 1.2}});
    tarn_uninit();
    return status;
}
