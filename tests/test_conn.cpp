// Connections and the connection server: one suite over every kind of endpoint, then particular
// cases.

#include "conn_support.h"
#include "support_net.h"

#include "tarn_conn_internal.h"
#include "tarn_sys.h"
#include "tarn_sys_internal.h"
#include "tarn_thread.h"

#include <cerrno>
#include <cstdlib>

#include <sys/socket.h>
#include <unistd.h>

using namespace conn_test;
using support::expect_check;
using support::log_capture;
using support::wait_until;

namespace
{

const bool allowed = support::allow_namespaces();

class Conn : public testing::TestWithParam<const char *>
{
protected:
    support::layer layer_;
    support::leak_check leaks_;
    support::level_scope quiet_{TARN_LOG_LEVEL_TRACE};
    endpoint at_ = make_endpoint(GetParam());
};

INSTANTIATE_TEST_SUITE_P(Endpoints, Conn, kinds,
                         [](const auto &kind) { return std::string(kind.param); });

TEST_P(Conn, CarriesBytesBothWaysAndReportsItsEnds)
{
    echo_server upper;
    client_log log;
    {
        const server_owner svr = start_server(at_, &upper);
        const conn_owner client = make_client(at_, &log);
        EXPECT_FALSE(tarn_conn_is_connected(client.get()));
        char byte = 0;
        EXPECT_LT(tarn_conn_read(client.get(), &byte, 1, 1000), 0);
        ASSERT_EQ(tarn_conn_connect(client.get()), 0);
        EXPECT_TRUE(tarn_conn_is_connected(client.get()));
        EXPECT_FALSE(tarn_conn_is_incoming(client.get()));
        EXPECT_EQ(log.connects, 1);
        const std::string peer = at_.port.empty() ? at_.addr : at_.addr + ":" + at_.port;
        EXPECT_EQ(tarn_conn_peer_endpoint(client.get()), peer);
        EXPECT_EQ(tarn_conn_name(client.get()),
                  std::string(tarn_conn_local_endpoint(client.get())) + "<->" + peer);

        EXPECT_EQ(tarn_conn_idle_ms(client.get()), 0u);
        EXPECT_LT(tarn_conn_read(client.get(), &byte, 0, TARN_INFINITE), 0); // changes nothing
        EXPECT_LT(tarn_conn_read(client.get(), nullptr, 1, TARN_INFINITE), 0);
        EXPECT_EQ(tarn_conn_read(client.get(), &byte, 1, 20), 0); // nothing there
        EXPECT_GE(tarn_conn_idle_ms(client.get()), 15u);
        ASSERT_EQ(tarn_conn_write(client.get(), "hello", 5), 5);
        EXPECT_EQ(read_exactly(client.get(), 5), "hello");
        EXPECT_LT(tarn_conn_idle_ms(client.get()), 5000u);

        // Several parts go out as one, and megabytes in both directions at once.
        const std::string big(3u << 20, 'b');
        std::thread writer([&] {
            const tarn::send_part parts[] = {{"<", 1}, {big.data(), big.size()}, {"", 0}, {">", 1}};
            EXPECT_EQ(tarn::conn_write_parts(client.get(), parts, TARN_INFINITE),
                      static_cast<int64_t>(big.size() + 2));
        });
        EXPECT_TRUE(read_exactly(client.get(), big.size() + 2) == "<" + big + ">");
        writer.join();

        tarn_conn_disconnect(client.get());
        tarn_conn_disconnect(client.get());
        EXPECT_EQ(log.disconnects, 1);
        EXPECT_LT(tarn_conn_read(client.get(), &byte, 1, 1000), 0);
        EXPECT_TRUE(wait_until([&] { return upper.ended == 1; })); // the server found the break

        ASSERT_EQ(tarn_conn_connect(client.get()), 0); // and again
        ASSERT_EQ(tarn_conn_connect(client.get()), 0); // over a standing one
        EXPECT_EQ(log.connects, 3);
        EXPECT_EQ(log.disconnects, 2);
        ASSERT_EQ(tarn_conn_write(client.get(), "x", 1), 1);
        EXPECT_EQ(read_exactly(client.get(), 1), "x");
    }
    EXPECT_EQ(log.disconnects, 3);
    EXPECT_EQ(upper.admitted, 3);
    EXPECT_EQ(upper.ended, 3);
    upper.finish();
}

TEST_P(Conn, ServerLimitsRefusesAndAdmitsAgain)
{
    echo_server upper;
    log_capture log;
    {
        const server_owner svr = start_server(at_, &upper, 2);
        std::vector<conn_owner> clients;
        for (int i = 0; i < 3; ++i)
        {
            clients.push_back(make_client(at_));
            ASSERT_EQ(tarn_conn_connect(clients.back().get()), 0);
        }
        char byte = 0;
        EXPECT_LT(tarn_conn_read(clients[2].get(), &byte, 1, 10000), 0); // closed by the server
        EXPECT_TRUE(log.contains("warn", "max connection count 2 exceed!"));
        tarn_conn_disconnect(clients[0].get());
        EXPECT_TRUE(wait_until([&] { return upper.ended == 1; }));
        EXPECT_TRUE(log.contains("trace", "remove broken connection "));
        upper.refuse = -7;
        ASSERT_EQ(tarn_conn_connect(clients[0].get()), 0);
        EXPECT_LT(tarn_conn_read(clients[0].get(), &byte, 1, 10000), 0);
        EXPECT_TRUE(log.contains("warn", "this connection is reject by upper level!"));
        upper.refuse = 0;
        ASSERT_EQ(tarn_conn_connect(clients[0].get()), 0);
        ASSERT_EQ(tarn_conn_write(clients[0].get(), "y", 1), 1);
        EXPECT_EQ(read_exactly(clients[0].get(), 1), "y");
        EXPECT_EQ(upper.ended, 1); // a refused one is not reported
    }                              // destroyed with live peers
    EXPECT_EQ(upper.ended, 3);
    EXPECT_EQ(upper.admitted, 3);
    upper.finish();
}

TEST_P(Conn, MayBeDestroyedInItsOwnCallback)
{
    echo_server upper;
    const server_owner svr = start_server(at_, &upper);
    for (const bool by_read : {true, false})
    {
        client_log log;
        log.destroy_inside = true;
        TARN_CONN client = make_client(at_, &log).release();
        ASSERT_EQ(tarn_conn_connect(client), 0);
        EXPECT_TRUE(wait_until([&] { return upper.live_count() == 1; }));
        if (by_read)
        {
            tarn::conn_abort(upper.live[0]);
            char byte = 0;
            EXPECT_LT(tarn_conn_read(client, &byte, 1, 10000), 0);
        }
        else
        {
            tarn_conn_disconnect(client);
        }
        EXPECT_EQ(log.disconnects, 1);
        EXPECT_TRUE(wait_until([&] { return upper.live_count() == 0; }));
    }
    upper.finish();
}

TEST_P(Conn, ConnectsAgainFromTheSameAddressAtOnce)
{
    echo_server upper;
    {
        const server_owner svr = start_server(at_, &upper);
        std::atomic<int> again{1};
        const auto on_disconnect = [](TARN_CONN conn, void *result) {
            auto &told = *static_cast<std::atomic<int> *>(result);
            told = told == 1 ? tarn_conn_connect(conn) : told.load();
        };
        const conn_owner inside(tarn_conn_create(at_.client_secret, nullptr, nullptr,
                                                 at_.addr.c_str(), at_.port_or_null(), 5000,
                                                 nullptr, on_disconnect, &again));
        ASSERT_EQ(tarn_conn_connect(inside.get()), 0);
        EXPECT_TRUE(wait_until([&] { return upper.live_count() == 1; }));
        tarn::conn_abort(upper.live[0]);
        char byte = 0;
        EXPECT_LT(tarn_conn_read(inside.get(), &byte, 1, 10000), 0);
        EXPECT_EQ(again, 0) << "from inside its callback";

        const conn_owner client = make_client(at_); // while its reader is still leaving
        for (int round = 0; round < 20; ++round)
        {
            ASSERT_EQ(tarn_conn_connect(client.get()), 0) << round;
            std::thread reader(
                [&] { EXPECT_LT(tarn_conn_read(client.get(), &byte, 1, TARN_INFINITE), 0); });
            std::this_thread::sleep_for(std::chrono::milliseconds(round % 3));
            tarn_conn_disconnect(client.get());
            EXPECT_EQ(tarn_conn_connect(client.get()), 0) << round;
            tarn_conn_disconnect(client.get());
            reader.join();
        }
    }
    upper.finish();
}

TEST_P(Conn, AnotherThreadDisconnectsUnderReadAndWrite)
{
    echo_server upper;
    upper.echo = false; // peers that never read
    {
        const server_owner svr = start_server(at_, &upper);
        for (int round = 0; round < (support::with_sanitizer ? 10 : 40); ++round)
        {
            client_log log;
            const conn_owner client = make_client(at_, &log);
            ASSERT_EQ(tarn_conn_connect(client.get()), 0);
            std::thread reader([&] {
                char buffer[256];
                while (tarn_conn_read(client.get(), buffer, sizeof buffer, TARN_INFINITE) >= 0)
                {
                }
            });
            std::thread writer([&] {
                const std::string big(1u << 20, 'w');
                while (tarn_conn_write(client.get(), big.data(), big.size()) ==
                       static_cast<int>(big.size()))
                {
                }
            });
            std::this_thread::sleep_for(std::chrono::milliseconds(round % 4));
            tarn_conn_disconnect(client.get());
            reader.join();
            writer.join();
            EXPECT_EQ(log.disconnects, 1);
        }
    }
    EXPECT_EQ(upper.ended, upper.admitted);
    upper.finish();
}

TEST_P(Conn, WriteThatThePeerCutsShortIsReportedAndTheNextReadFindsTheBreak)
{
    echo_server upper;
    upper.echo = false;
    const log_capture log;
    {
        const server_owner svr = start_server(at_, &upper);
        client_log told;
        const conn_owner client = make_client(at_, &told);
        ASSERT_EQ(tarn_conn_connect(client.get()), 0);
        EXPECT_TRUE(wait_until([&] { return upper.live_count() == 1; }));
        std::thread cutter([&] {
            EXPECT_EQ(read_exactly(upper.live[0], 1), "w"); // the write has begun
            tarn_conn_disconnect(upper.live[0]);
        });
        const std::string big(64u << 20, 'w');
        EXPECT_LT(tarn_conn_write(client.get(), big.data(), big.size()),
                  static_cast<int>(big.size()));
        cutter.join();
        EXPECT_TRUE(log.contains("error", at_.server_secret != nullptr
                                              ? "SSL_write error = 5 ("
                                              : "tarn_socket_send error = "));
        EXPECT_EQ(told.disconnects, 0);
        EXPECT_TRUE(tarn_conn_is_connected(client.get()));
        char byte = 0;
        EXPECT_LT(tarn_conn_read(client.get(), &byte, 1, 10000), 0);
        EXPECT_EQ(told.disconnects, 1);
    }
    upper.finish();
}

/** Takes whatever connects, one after the other, on one thread of its own. */
class turnstile
{
public:
    explicit turnstile(const endpoint &at)
        : svr_(tarn_conn_server_create(at.server_secret, at.addr.c_str(), at.port_or_null(),
                                       TARN_INFINITE, 64, on_connect, on_disconnect, this))
    {
        EXPECT_EQ(tarn_conn_server_loop_start(svr_.get()), 0);
        thread_ = std::thread([this] { serve(); });
    }
    /** Waits until all that were let in are gone. */
    void finish()
    {
        EXPECT_TRUE(wait_until([this] { return ended == admitted; }));
        ends_ = true;
        thread_.join();
        svr_.reset();
        EXPECT_EQ(ended, admitted) << "none was left in the list";
    }
    std::atomic<int> admitted{0};
    std::atomic<int> ended{0};

private:
    static int on_connect(TARN_CONN conn, void *context)
    {
        auto *const self = static_cast<turnstile *>(context);
        const std::lock_guard guard(self->lock_);
        self->arrived_.push_back(conn);
        ++self->admitted;
        return 0;
    }
    static void on_disconnect(TARN_CONN, void *context)
    {
        ++static_cast<turnstile *>(context)->ended;
    }
    TARN_CONN next()
    {
        const std::lock_guard guard(lock_);
        if (arrived_.empty())
        {
            return nullptr;
        }
        TARN_CONN conn = arrived_.front();
        arrived_.erase(arrived_.begin());
        return conn;
    }
    void serve()
    {
        while (!ends_)
        {
            const conn_owner conn(next());
            char byte = 0;
            for (int n = 0; conn && n >= 0;)
            {
                n = tarn_conn_read(conn.get(), &byte, 1, 1000);
                if (n > 0)
                {
                    (void)tarn_conn_write(conn.get(), &byte, 1);
                }
            }
            if (!conn)
            {
                std::this_thread::yield();
            }
        }
    }
    std::mutex lock_;
    std::vector<TARN_CONN> arrived_;
    std::atomic<bool> ends_{false};
    server_owner svr_;
    std::thread thread_;
};

size_t resident_pages()
{
    const std::string statm = support::read_file("/proc/self/statm");
    return std::stoul(statm.substr(statm.find(' ')));
}

/** TARN_SOAK=1 keeps it up for 30 seconds. */
TEST_P(Conn, ChurnLeavesNothing)
{
    const bool soak = std::getenv("TARN_SOAK") != nullptr;
    const bool is_slow = support::with_sanitizer || at_.server_secret != nullptr;
    const support::level_scope silent(TARN_LOG_LEVEL_WARN);
    turnstile server(at_);
    const uint32_t start = tarn_tick_ms();
    size_t pages = 0;
    int rounds = 0;
    for (; soak ? tarn_tick_ms_since(start) < 30000 : rounds < (is_slow ? 100 : 1000); ++rounds)
    {
        const conn_owner client = make_client(at_);
        ASSERT_EQ(tarn_conn_connect(client.get()), 0) << rounds;
        if (rounds % 3 == 0)
        {
            ASSERT_EQ(tarn_conn_write(client.get(), "z", 1), 1);
            EXPECT_EQ(read_exactly(client.get(), 1), "z");
        }
        pages = rounds == 500 ? resident_pages() : pages;
    }
    EXPECT_TRUE(wait_until([&] { return server.admitted == rounds; }));
    server.finish();
    if (soak && !support::with_sanitizer)
    {
        EXPECT_LE(resident_pages(), pages + 512) << "after " << rounds << " connections";
        EXPECT_TRUE(is_slow || rounds >= 30000) << rounds;
    }
}

TEST_P(Conn, TurnsMayBeRunByTheCaller)
{
    echo_server upper;
    server_owner svr(tarn_conn_server_create(at_.server_secret, at_.addr.c_str(),
                                             at_.port_or_null(), 30, 4, echo_server::on_connect,
                                             nullptr, &upper));
    ASSERT_TRUE(svr);
    EXPECT_NE(tarn_conn_server_socket(svr.get()), nullptr);
    const double waited =
        support::elapsed_ms([&] { EXPECT_EQ(tarn_conn_server_loop(svr.get()), 0); });
    EXPECT_GE(waited, 28.0);
    const conn_owner client = make_client(at_);
    std::thread connecting([&] { EXPECT_EQ(tarn_conn_connect(client.get()), 0); });
    while (upper.admitted == 0)
    {
        ASSERT_EQ(tarn_conn_server_loop(svr.get()), 0);
    }
    connecting.join();
    ASSERT_EQ(tarn_conn_server_loop_start(svr.get()), 0);
    const support::level_scope debug(TARN_LOG_LEVEL_DEBUG);
    expect_check("RVOF(TARN_INVALID_HANDLE == svr->thread,TARN_ERRLN)");
    if (at_.server_secret != nullptr)
    {
        expect_check("RVON(cli_conn_h,NULL)"); // nobody came
    }
    EXPECT_LT(tarn_conn_server_loop(svr.get()), 0);
    EXPECT_LT(tarn_conn_server_loop_start(svr.get()), 0);
    tarn_conn_server_loop_stop(svr.get());
    EXPECT_EQ(tarn_conn_server_loop(svr.get()), 0); // the listener is still there
    tarn_conn_disconnect(client.get());
    upper.finish(); // the reader finds the break; without on_disconnect the server destroys it
    EXPECT_EQ(upper.ended, 0);
    svr.reset();
}

// ---- particular cases ----------------------------------------------------------------------------

class ConnCase : public testing::Test
{
protected:
    support::layer layer_;
    support::leak_check leaks_;
};

TEST_F(ConnCase, MissingArgumentsAndRefusalsAreReported)
{
    log_capture log;
    expect_check("RVON(peer_addr,NULL)");
    expect_check("RVON(on_connect,NULL)");
    expect_check("RVON(addr,NULL)");
    expect_check("RVON(conn,TARN_ERRLN)");
    expect_check("RVON(conn,false)");
    EXPECT_EQ(
        tarn_conn_create(nullptr, nullptr, nullptr, nullptr, "1", 1, nullptr, nullptr, nullptr),
        nullptr);
    EXPECT_EQ(tarn_conn_server_create(nullptr, "127.0.0.1", "0", 1, 1, nullptr, nullptr, nullptr),
              nullptr);
    EXPECT_EQ(tarn_conn_server_create(nullptr, nullptr, "80", 1, 1, echo_server::on_connect,
                                      nullptr, nullptr),
              nullptr);
    EXPECT_LT(tarn_conn_connect(nullptr), 0);
    EXPECT_FALSE(tarn_conn_is_connected(nullptr));
    tarn_conn_destroy(nullptr);
    tarn_conn_server_destroy(nullptr);

    echo_server upper;
    upper.echo = false;
    const endpoint at = make_endpoint("ipv4");
    server_owner svr = start_server(at, &upper);
    EXPECT_EQ(tarn_conn_server_create(nullptr, at.addr.c_str(), at.port.c_str(), 1, 1,
                                      echo_server::on_connect, nullptr, nullptr),
              nullptr); // the port is taken
    client_log refused;
    refused.answer = 5;
    const conn_owner client = make_client(at, &refused);
    EXPECT_LT(tarn_conn_connect(client.get()), 0);
    EXPECT_TRUE(log.contains("error", "cb_on_connect return 5"));
    EXPECT_EQ(refused.disconnects, 1);
    expect_check("RVOF(buf_len > 0,TARN_ERRLN)");
    EXPECT_LT(tarn_conn_write(client.get(), "", 0), 0);
    expect_check("RVOF(conn->is_connected,TARN_ERRLN)");
    EXPECT_LT(tarn_conn_write(client.get(), "x", 1), 0);
    EXPECT_TRUE(wait_until([&] { return upper.live_count() == 1; }));
    EXPECT_LT(tarn_conn_connect(upper.live[0]), 0);
    EXPECT_TRUE(log.contains("error", "cannot do connect on incoming or server socket!"));
    svr.reset();
    upper.finish();
}

#if !defined(TARN_WITH_TLS)
TEST_F(ConnCase, CredentialsNeedTheTlsUtility)
{
    const log_capture log;
    const struct tlsu_credentials *const any = reinterpret_cast<struct tlsu_credentials *>(&layer_);
    EXPECT_EQ(
        tarn_conn_create(any, nullptr, nullptr, "127.0.0.1", "1", 1, nullptr, nullptr, nullptr),
        nullptr);
    EXPECT_EQ(tarn_conn_server_create(any, "127.0.0.1", "0", 1, 1, echo_server::on_connect, nullptr,
                                      nullptr),
              nullptr);
    EXPECT_EQ(log.count("TLS util library is not available!"), 2u);
}
#endif

TEST_F(ConnCase, AddressWalkGoesOnAfterASuccessAndTheLastAttemptDecides)
{
    log_capture log;
    echo_server upper;
    upper.echo = false;
    const endpoint at = make_endpoint("ipv4");
    const std::string closed = std::to_string(support::free_port());
    const std::string ports = closed + "; ;," + at.port + "|" + closed;
    const struct
    {
        std::string addrs, ports;
        bool connects;
        int admitted;
    } cases[] = {
        {"127.0.0.1", at.port, true, 1},
        {" 127.0.0.1 ,127.0.0.1", at.port, true, 2}, // both are tried
        {"127.0.0.1;::1", at.port, false, 1},        // the last one fails and decides
        {"::1|127.0.0.1", at.port, true, 1},
        {"127.0.0.1", ports, true, 1}, // ports until one answers
        {"no.such.host.invalid,127.0.0.1", at.port, true, 1},
        {"127.0.0.1", closed, false, 0},
    };
    server_owner svr = start_server(at, &upper);
    expect_check("BOF(conn->sock != TARN_INVALID_HANDLE)");
    int expected = 0;
    for (const auto &c : cases)
    {
        const conn_owner client(tarn_conn_create(nullptr, nullptr, nullptr, c.addrs.c_str(),
                                                 c.ports.c_str(), 3000, nullptr, nullptr, nullptr));
        EXPECT_EQ(tarn_conn_connect(client.get()) == 0, c.connects) << c.addrs << " " << c.ports;
        expected += c.admitted;
        EXPECT_TRUE(wait_until([&] { return upper.admitted == expected; })) << c.addrs;
    }
    EXPECT_TRUE(log.contains("warn", "connect to 127.0.0.1:" + closed + " failed, error = 111"));
    svr.reset();
    upper.finish();
}

TEST_F(ConnCase, AnAddressThatNeverAnswersCostsItsTimeAndAStopEndsTheWalk)
{
    log_capture log;
    echo_server upper;
    upper.echo = false;
    support::in_namespace([&] {
        (void)support::shell("ip link add ev0 type veth peer name ev1 && ip link set ev1 up && "
                             "ip link set ev0 up && ip addr add 10.99.0.1/24 dev ev0 && "
                             "ip neigh add 10.99.0.2 lladdr 02:00:00:00:00:01 dev ev0");
        const endpoint at = make_endpoint("ipv4");
        server_owner svr = start_server(at, &upper);
        const auto make = [&](uint32_t timeout) {
            return conn_owner(tarn_conn_create(nullptr, nullptr, nullptr, "10.99.0.2,127.0.0.1",
                                               at.port.c_str(), timeout, nullptr, nullptr,
                                               nullptr));
        };
        const conn_owner client = make(150);
        EXPECT_GE(support::elapsed_ms([&] { EXPECT_EQ(tarn_conn_connect(client.get()), 0); }), 150);
        EXPECT_TRUE(log.contains("warn", "connect to 10.99.0.2:" + at.port +
                                             " failed, error = 110 (Connection timed out)"));
        EXPECT_TRUE(wait_until([&] { return upper.admitted == 1; }));

        expect_check("BOF(conn->sock != TARN_INVALID_HANDLE)");
        const conn_owner stopped = make(300);
        const auto connect = [](void *conn, void *) -> void * {
            EXPECT_LT(tarn_conn_connect(static_cast<TARN_CONN>(conn)), 0);
            return nullptr;
        };
        log.clear();
        TARN_THREAD thread = tarn_thread_start(connect, stopped.get(), nullptr, 100000, "connect");
        EXPECT_TRUE(log.wait_for("connecting to 10.99.0.2"));
        tarn_thread_stop(thread);

        const conn_owner dropped = make(60000);
        log.clear();
        std::thread connecting([&] { EXPECT_LT(tarn_conn_connect(dropped.get()), 0); });
        EXPECT_TRUE(log.wait_for("connecting 10.99.0.2"));
        EXPECT_LT(support::elapsed_ms([&] {
                      tarn_conn_disconnect(dropped.get());
                      connecting.join();
                  }),
                  20000);
        EXPECT_EQ(upper.admitted, 1);
        svr.reset();
    });
    upper.finish();
}

TEST_F(ConnCase, DestroyWaitsForACallbackOfAnotherThread)
{
    struct state
    {
        std::atomic<bool> inside{false};
        std::atomic<bool> destroying{false};
        std::atomic<bool> left{false};
    } shared;
    const auto on_disconnect = [](TARN_CONN, void *context) {
        auto &told = *static_cast<state *>(context);
        told.inside = true;
        EXPECT_TRUE(wait_until([&] { return told.destroying.load(); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // time to go wrong
        told.left = true;
    };
    echo_server upper;
    upper.echo = false;
    const endpoint at = make_endpoint("ipv4");
    server_owner svr = start_server(at, &upper);
    TARN_CONN client = tarn_conn_create(nullptr, nullptr, nullptr, at.addr.c_str(), at.port.c_str(),
                                        5000, nullptr, on_disconnect, &shared);
    ASSERT_EQ(tarn_conn_connect(client), 0);
    EXPECT_TRUE(wait_until([&] { return upper.live_count() == 1; }));
    std::thread reader([client] {
        char byte = 0;
        EXPECT_LT(tarn_conn_read(client, &byte, 1, TARN_INFINITE), 0);
    });
    tarn::conn_abort(upper.live[0]);
    EXPECT_TRUE(wait_until([&] { return shared.inside.load(); }));
    shared.destroying = true;
    tarn_conn_destroy(client);
    EXPECT_TRUE(shared.left);
    reader.join();
    svr.reset();
    upper.finish();
}

TEST_F(ConnCase, LocalClientsOfOneProcessHaveNamesOfTheirOwn)
{
    echo_server upper;
    upper.echo = false;
    for (const std::string &name : {support::unique_name("names"), std::string("Wardmon")})
    {
        const endpoint at = {"local", name, ""};
        server_owner svr = start_server(at, &upper);
        const conn_owner a = make_client(at);
        const conn_owner b = make_client(at);
        ASSERT_EQ(tarn_conn_connect(a.get()), 0);
        ASSERT_EQ(tarn_conn_connect(b.get()), 0);
        EXPECT_STRNE(tarn_conn_local_endpoint(a.get()), tarn_conn_local_endpoint(b.get()));
        EXPECT_TRUE(wait_until([&] { return upper.live_count() == 2; }));
        EXPECT_STREQ(tarn_conn_peer_endpoint(upper.live[0]), tarn_conn_local_endpoint(a.get()));
        EXPECT_STREQ(tarn_conn_peer_endpoint(upper.live[1]), tarn_conn_local_endpoint(b.get()));
        svr.reset();
        upper.finish();
    }
    ::unlink("/tmp/tarn/Wardmon.sock");
}

TEST_F(ConnCase, StopRequestAndDisconnectEndAConnectThatWaits)
{
    // A listener with a full backlog that nobody empties.
    const endpoint at = make_endpoint("local");
    const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const tarn::socket_address address =
        tarn::socket_port::local_address(std::string("\0/tarn/sock/", 12) + at.addr);
    ASSERT_EQ(tarn::socket_port::bind(listener, address), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    const conn_owner filler = make_client(at);
    ASSERT_EQ(tarn_conn_connect(filler.get()), 0);
    const conn_owner client(tarn_conn_create(nullptr, nullptr, nullptr, at.addr.c_str(), nullptr,
                                             60000, nullptr, nullptr, nullptr));
    std::atomic<int> result{1};
    expect_check("BOF(conn->sock != TARN_INVALID_HANDLE)");
    std::thread connecting([&] { result = tarn_conn_connect(client.get()); });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(result, 1);
    const double took = support::elapsed_ms([&] {
        tarn_conn_disconnect(client.get());
        connecting.join();
    });
    EXPECT_LT(result, 0);
    EXPECT_LT(took, 10000.0);
    ::close(listener);
}

TEST_F(ConnCase, ServerMayBeDestroyedInsideOnConnect)
{
    static TARN_CONN_SERVER svr;
    const endpoint at = make_endpoint("local");
    const auto on_connect = [](TARN_CONN, void *done) -> int {
        tarn_conn_server_destroy(svr);
        *static_cast<std::atomic<bool> *>(done) = true;
        return 0;
    };
    std::atomic<bool> done{false};
    svr = tarn_conn_server_create(nullptr, at.addr.c_str(), nullptr, TARN_INFINITE, 4, on_connect,
                                  nullptr, &done);
    ASSERT_NE(svr, nullptr);
    ASSERT_EQ(tarn_conn_server_loop_start(svr), 0);
    const conn_owner client = make_client(at);
    ASSERT_EQ(tarn_conn_connect(client.get()), 0);
    EXPECT_TRUE(wait_until([&] { return done.load(); }));
    char byte = 0;
    EXPECT_LT(tarn_conn_read(client.get(), &byte, 1, 10000), 0);
    EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
}

TEST_F(ConnCase, StatusIsPrintedOnceAMinute)
{
    echo_server upper;
    upper.echo = false;
    const endpoint at = make_endpoint("local");
    log_capture log;
    server_owner svr = start_server(at, &upper);
    const conn_owner first = make_client(at);
    ASSERT_EQ(tarn_conn_connect(first.get()), 0);
    EXPECT_TRUE(log.wait_for("Accept connection from "));
    EXPECT_FALSE(log.contains("total "));
    tarn::tick_ms_offset = 60001; // a minute later
    const conn_owner second = make_client(at);
    ASSERT_EQ(tarn_conn_connect(second.get()), 0);
    EXPECT_TRUE(log.wait_for("--------------------"));
    EXPECT_TRUE(log.contains("debug", "total 2 connections"));
    EXPECT_EQ(log.count(", connected"), 2u);
    tarn::tick_ms_offset = 0;
    svr.reset();
    upper.finish();
}

} // namespace
