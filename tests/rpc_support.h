// What the tests of RPC endpoints and file transfer share: the transports that every suite runs over,
// a server whose handler is a function, a client, and a peer that speaks raw bytes.
#pragma once

#include "support.h"

#include "tarn_rpc.h"
#include "tarn_rpc_internal.h"
#include "tarn_socket_port.h"
#include "tarn_sys.h"
#include "tarn_sys_internal.h"
#if defined(TARN_WITH_TLS)
#include "tlsu_support.h"
#endif

#include <cstring>
#include <memory>
#include <mutex>
#include <set>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rpc_test
{

/** Where two endpoints meet. */
struct transport
{
    std::string addr;
    std::string port; ///< empty: local
    const struct tlsu_credentials *server_secret = nullptr;
    const struct tlsu_credentials *client_secret = nullptr;
    [[nodiscard]] const char *port_or_null() const
    {
        return port.empty() ? nullptr : port.c_str();
    }
};

/** The kinds of transports; a further one is one line in both. Raw peers speak no TLS. */
#if defined(TARN_WITH_TLS)
inline const auto kinds = testing::Values("tcp", "local", "tls");
#else
inline const auto kinds = testing::Values("tcp", "local");
#endif
inline const auto raw_kinds = testing::Values("tcp", "local");
inline transport make_transport(const std::string &kind)
{
    if (kind == "local")
    {
        return {.addr = support::unique_name("rpc"), .port = ""};
    }
    transport at = {.addr = "127.0.0.1", .port = std::to_string(support::free_port())};
#if defined(TARN_WITH_TLS)
    if (kind == "tls")
    {
        at.server_secret = tlsu_test::server_credentials().get();
        at.client_secret = tlsu_test::client_credentials().get();
    }
#endif
    return at;
}

struct rpc_destroyer
{
    void operator()(TARN_RPC rpc) const
    {
        tarn_rpc_destroy(rpc);
    }
};
using rpc_owner = std::unique_ptr<std::remove_pointer_t<TARN_RPC>, rpc_destroyer>;
using msg_owner = tarn::unique_rpc_msg;

using handler = std::function<int(TARN_RPC, uint32_t seq, uint32_t id, TARN_RPC_MSG, TARN_RPC_MSG)>;

/** Appends the request's bytes to the reply. */
inline int echo(TARN_RPC, uint32_t, uint32_t, TARN_RPC_MSG msg, TARN_RPC_MSG rsp)
{
    if (msg != nullptr && rsp != nullptr)
    {
        const void *text = nullptr;
        uint32_t len = 0;
        if (tarn_rpc_msg_get_element_ptr(msg, 1, MSG_ELM_TYPE_STRING, &text, &len) == 0)
        {
            (void)tarn_rpc_msg_write_element_value(rsp, 1, MSG_ELM_TYPE_STRING, text, len);
        }
    }
    return 7;
}

/** A server on a thread of its own; its connections have theirs. */
class server
{
public:
    explicit server(const transport &at, handler on_msg = echo, uint32_t max_conn = 256,
                    bool own_the_end = true)
        : on_msg_(std::move(on_msg))
    {
        TARN_RPC_CALLBACK callbacks = {sizeof callbacks, on_peer,
                                       on_connected,     own_the_end ? on_disconnected : nullptr,
                                       on_request,       nullptr};
        EXPECT_EQ(tarn_rpc_server_create(at.server_secret, at.addr.c_str(), at.port_or_null(),
                                         TARN_INFINITE, max_conn, &callbacks, this, &rpc_),
                  0);
    }
    server(const server &) = delete;
    server &operator=(const server &) = delete;
    ~server()
    {
        stop();
    }
    void start()
    {
        EXPECT_EQ(tarn_rpc_loop_start(rpc_), 0);
    }
    void stop()
    {
        tarn_rpc_destroy(std::exchange(rpc_, nullptr));
    }
    [[nodiscard]] TARN_RPC get() const
    {
        return rpc_;
    }
    /** A connection that stands now; null when there is none. */
    TARN_RPC any()
    {
        const std::lock_guard guard(lock_);
        return live_.empty() ? nullptr : *live_.begin();
    }
    std::function<void(TARN_RPC)> prepare; ///< called for each new connection
    std::atomic<int> refuse{0};
    std::atomic<int> admitted{0};
    std::atomic<int> ended{0};

private:
    static int on_peer(TARN_RPC, void *context, const char *peer, TARN_RPC conn,
                       TARN_RPC_CALLBACK *, void **conn_context)
    {
        auto *self = static_cast<server *>(context);
        EXPECT_NE(peer, nullptr);
        *conn_context = self;
        if (self->prepare)
        {
            self->prepare(conn);
        }
        return self->refuse;
    }
    static void on_connected(TARN_RPC rpc, void *context)
    {
        auto *self = static_cast<server *>(context);
        {
            const std::lock_guard guard(self->lock_);
            self->live_.insert(rpc);
        }
        ++self->admitted;
        EXPECT_EQ(tarn_rpc_loop_start(rpc), 0);
    }
    static void on_disconnected(TARN_RPC rpc, void *context)
    {
        auto *self = static_cast<server *>(context);
        {
            const std::lock_guard guard(self->lock_);
            EXPECT_EQ(self->live_.erase(rpc), 1u) << "reported twice";
        }
        tarn_rpc_destroy(rpc);
        ++self->ended;
    }
    static int on_request(TARN_RPC rpc, uint32_t seq, uint32_t id, TARN_RPC_MSG msg,
                          TARN_RPC_MSG rsp, void *context)
    {
        return static_cast<server *>(context)->on_msg_(rpc, seq, id, msg, rsp);
    }

    TARN_RPC rpc_ = nullptr;
    handler on_msg_;
    std::mutex lock_;
    std::set<TARN_RPC> live_;
};

/** Counts what a client is told. */
struct client_log
{
    std::atomic<int> connects{0};
    std::atomic<int> disconnects{0};
    std::atomic<int> idles{0};
    handler on_msg;
    std::function<void(TARN_RPC)> on_disconnect;
    std::function<void(TARN_RPC)> on_idle;

    static void connected(TARN_RPC, void *context)
    {
        ++static_cast<client_log *>(context)->connects;
    }
    static void disconnected(TARN_RPC rpc, void *context)
    {
        auto *self = static_cast<client_log *>(context);
        ++self->disconnects;
        if (self->on_disconnect)
        {
            self->on_disconnect(rpc);
        }
    }
    static int request(TARN_RPC rpc, uint32_t seq, uint32_t id, TARN_RPC_MSG msg, TARN_RPC_MSG rsp,
                       void *context)
    {
        auto *self = static_cast<client_log *>(context);
        return self->on_msg ? self->on_msg(rpc, seq, id, msg, rsp) : 0;
    }
    static void idle(TARN_RPC rpc, void *context)
    {
        auto *self = static_cast<client_log *>(context);
        ++self->idles;
        if (self->on_idle)
        {
            self->on_idle(rpc);
        }
    }
};

inline rpc_owner make_client(const transport &at, client_log *log = nullptr)
{
    TARN_RPC_CALLBACK callbacks = {sizeof callbacks,      nullptr,
                                   client_log::connected, client_log::disconnected,
                                   client_log::request,   client_log::idle};
    TARN_RPC rpc = nullptr;
    EXPECT_EQ(tarn_rpc_client_create(at.client_secret, nullptr, nullptr, at.addr.c_str(),
                                     at.port_or_null(), 5000, log != nullptr ? &callbacks : nullptr,
                                     log, &rpc),
              0);
    return rpc_owner(rpc);
}

/** A client that is up, on a thread of its own. */
inline rpc_owner connected_client(const transport &at, client_log *log = nullptr,
                                  uint32_t reconnect_ms = tarn::rpc_reconnect_ms)
{
    rpc_owner client = make_client(at, log);
    client->reconnect_ms = reconnect_ms;
    EXPECT_EQ(tarn_rpc_loop_start(client.get()), 0);
    EXPECT_TRUE(support::wait_until([&] { return tarn_rpc_is_connected(client.get()); }));
    return client;
}

inline msg_owner text_message(std::string_view text)
{
    msg_owner msg(tarn_rpc_msg_create());
    EXPECT_EQ(tarn_rpc_msg_write_element_value(msg.get(), 1, MSG_ELM_TYPE_STRING, text.data(),
                                               static_cast<uint32_t>(text.size())),
              0);
    return msg;
}

inline std::string text_of(TARN_RPC_MSG msg)
{
    const void *text = nullptr;
    uint32_t len = 0;
    return msg != nullptr &&
                   tarn_rpc_msg_get_element_ptr(msg, 1, MSG_ELM_TYPE_STRING, &text, &len) == 0
               ? std::string(static_cast<const char *>(text), len)
               : std::string();
}

struct outcome
{
    int code;
    std::string text;
};

inline outcome call(TARN_RPC rpc, uint32_t seq, std::string_view text, uint32_t timeout_ms = 20000,
                    uint32_t id = 1000)
{
    const msg_owner msg = text_message(text);
    TARN_RPC_MSG rsp = nullptr;
    const int code = tarn_rpc_msg_send(rpc, seq, id, msg.get(), &rsp, timeout_ms);
    const msg_owner owner(rsp);
    return {code, text_of(rsp)};
}

/** Big-endian bytes of 32-bit words. */
inline std::string words(std::initializer_list<uint32_t> values)
{
    std::string bytes;
    for (const uint32_t value : values)
    {
        for (int shift = 24; shift >= 0; shift -= 8)
        {
            bytes.push_back(static_cast<char>(value >> shift));
        }
    }
    return bytes;
}

inline constexpr uint32_t magic = 0x54725043;

inline std::string frame(uint32_t seq, uint32_t id, uint32_t flag, std::string_view data = {})
{
    const auto len = static_cast<uint32_t>(data.size());
    return words({magic, 16 + len, seq, id, len, flag}).append(data);
}

/** An end of a connection without the layer. */
class raw_peer
{
public:
    explicit raw_peer(int fd) : fd_(fd) {}
    explicit raw_peer(const transport &at) : fd_(connect_to(at)) {}
    raw_peer(const raw_peer &) = delete;
    raw_peer &operator=(const raw_peer &) = delete;
    ~raw_peer()
    {
        close();
    }
    void close()
    {
        if (fd_ >= 0)
        {
            ::close(std::exchange(fd_, -1));
        }
    }
    [[nodiscard]] int fd() const
    {
        return fd_;
    }
    /** False when the other end has gone. */
    bool send(std::string_view bytes)
    {
        while (!bytes.empty())
        {
            const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (n <= 0)
            {
                return false;
            }
            bytes.remove_prefix(static_cast<size_t>(n));
        }
        return true;
    }
    /** Exactly so many bytes; fewer at the end or after ten seconds. */
    std::string read(size_t size)
    {
        std::string bytes(size, '\0');
        size_t got = 0;
        while (got < size && readable(10000))
        {
            const ssize_t n = ::recv(fd_, bytes.data() + got, size - got, 0);
            if (n <= 0)
            {
                break;
            }
            got += static_cast<size_t>(n);
        }
        bytes.resize(got);
        return bytes;
    }
    [[nodiscard]] bool readable(int timeout_ms) const
    {
        pollfd waiting = {fd_, POLLIN, 0};
        return ::poll(&waiting, 1, timeout_ms) == 1;
    }
    /** The other end closed. */
    bool closed()
    {
        while (readable(10000))
        {
            char bytes[4096];
            if (::recv(fd_, bytes, sizeof bytes, 0) <= 0)
            {
                return true;
            }
        }
        return false;
    }

private:
    static int connect_to(const transport &at)
    {
        if (at.port.empty())
        {
            const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            const auto address =
                tarn::socket_port::local_address(std::string("\0/tarn/sock/", 12) + at.addr);
            EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr *>(&address.form),
                                static_cast<socklen_t>(address.length)),
                      0);
            return fd;
        }
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(std::stoi(at.port)));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        return fd;
    }
    int fd_;
};

/** One suite over all transports. */
class RpcBase : public testing::TestWithParam<const char *>
{
protected:
    support::layer layer_;
    support::leak_check leaks_;
    support::level_scope quiet_{TARN_LOG_LEVEL_WARN};
    transport at_ = make_transport(GetParam());
};

} // namespace rpc_test
