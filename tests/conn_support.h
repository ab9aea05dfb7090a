// What the tests of connections share: callbacks that count, a server that echoes, endpoints of every
// kind, with TLS where the library has it.
#pragma once

#include "support.h"

#include "tarn_conn.h"
#include "tarn_raii.h"
#if defined(TARN_WITH_TLS)
#include "tlsu_support.h"
#endif

#include <algorithm>
#include <mutex>
#include <thread>

namespace conn_test
{

using conn_owner = tarn::unique_handle<TARN_CONN, tarn_conn_destroy>;
using server_owner = tarn::unique_handle<TARN_CONN_SERVER, tarn_conn_server_destroy>;

/** Counts what a client's callbacks are told. */
struct client_log
{
    std::atomic<int> connects{0};
    std::atomic<int> disconnects{0};
    std::atomic<int> answer{0};
    std::atomic<bool> destroy_inside{false};

    static int on_connect(TARN_CONN, void *context)
    {
        auto *self = static_cast<client_log *>(context);
        ++self->connects;
        return self->answer;
    }
    static void on_disconnect(TARN_CONN conn, void *context)
    {
        auto *self = static_cast<client_log *>(context);
        ++self->disconnects;
        if (self->destroy_inside)
        {
            tarn_conn_destroy(conn);
        }
    }
};

/** A server's upper level: keeps what it admits, destroys what breaks. With echo a thread per
 *  connection sends everything back. */
struct echo_server
{
    std::atomic<int> admitted{0};
    std::atomic<int> ended{0};
    std::atomic<int> refuse{0};
    bool echo = true;
    std::mutex lock;
    std::vector<TARN_CONN> live;
    std::vector<std::thread> readers;

    static int on_connect(TARN_CONN conn, void *context)
    {
        auto *self = static_cast<echo_server *>(context);
        EXPECT_TRUE(tarn_conn_is_incoming(conn));
        if (self->refuse != 0)
        {
            return self->refuse;
        }
        const std::lock_guard guard(self->lock);
        ++self->admitted;
        self->live.push_back(conn);
        if (self->echo)
        {
            self->readers.emplace_back([conn] { serve(conn); });
        }
        return 0;
    }
    static void serve(TARN_CONN conn)
    {
        char buffer[65536];
        for (;;)
        {
            const int n = tarn_conn_read(conn, buffer, sizeof buffer, 1000);
            if (n < 0 || (n > 0 && tarn_conn_write(conn, buffer, static_cast<size_t>(n)) != n))
            {
                return;
            }
        }
    }
    static void on_disconnect(TARN_CONN conn, void *context)
    {
        auto *self = static_cast<echo_server *>(context);
        const std::lock_guard guard(self->lock);
        EXPECT_EQ(std::erase(self->live, conn), 1u) << "reported twice";
        self->broken.push_back(conn);
        ++self->ended;
    }
    size_t live_count()
    {
        const std::lock_guard guard(lock);
        return live.size();
    }
    /** Readers are joined before their connections go. */
    void finish()
    {
        for (auto &reader : readers)
        {
            reader.join();
        }
        readers.clear();
        for (TARN_CONN conn : broken)
        {
            tarn_conn_destroy(conn);
        }
        broken.clear();
    }
    std::vector<TARN_CONN> broken;
};

struct endpoint
{
    const char *kind;
    std::string addr;
    std::string port; ///< empty: local
    const struct tlsu_credentials *server_secret = nullptr;
    const struct tlsu_credentials *client_secret = nullptr;
    [[nodiscard]] const char *port_or_null() const
    {
        return port.empty() ? nullptr : port.c_str();
    }
};

#if defined(TARN_WITH_TLS)
inline const auto kinds = testing::Values("ipv4", "ipv6", "local", "tls");
#else
inline const auto kinds = testing::Values("ipv4", "ipv6", "local");
#endif

inline endpoint make_endpoint(const std::string &kind)
{
    if (kind == "ipv4")
    {
        return {"ipv4", "127.0.0.1", std::to_string(support::free_port())};
    }
    if (kind == "ipv6")
    {
        return {"ipv6", "::1", std::to_string(support::free_port())};
    }
#if defined(TARN_WITH_TLS)
    if (kind == "tls")
    {
        return {"tls", "127.0.0.1", std::to_string(support::free_port()),
                tlsu_test::server_credentials().get(), tlsu_test::client_credentials().get()};
    }
#endif
    return {"local", support::unique_name("conn"), ""};
}

inline server_owner start_server(const endpoint &at, echo_server *upper, uint32_t max_conn = 16)
{
    server_owner svr(tarn_conn_server_create(at.server_secret, at.addr.c_str(), at.port_or_null(),
                                             TARN_INFINITE, max_conn, echo_server::on_connect,
                                             echo_server::on_disconnect, upper));
    EXPECT_TRUE(svr);
    EXPECT_EQ(tarn_conn_server_loop_start(svr.get()), 0);
    return svr;
}

inline conn_owner make_client(const endpoint &at, client_log *log = nullptr)
{
    return conn_owner(tarn_conn_create(at.client_secret, nullptr, nullptr, at.addr.c_str(),
                                       at.port_or_null(), 5000,
                                       log != nullptr ? client_log::on_connect : nullptr,
                                       log != nullptr ? client_log::on_disconnect : nullptr, log));
}

inline std::string read_exactly(TARN_CONN conn, size_t size)
{
    std::string text(size, '\0');
    size_t got = 0;
    while (got < size)
    {
        const int n = tarn_conn_read(conn, text.data() + got, size - got, 10000);
        if (n <= 0)
        {
            break;
        }
        got += static_cast<size_t>(n);
    }
    text.resize(got);
    return text;
}

} // namespace conn_test
