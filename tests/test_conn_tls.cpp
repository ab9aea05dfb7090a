// Connections over TLS where the peer is not ours: the openssl program in both roles, peers that
// stall, fail and lie in the handshake. The suite of two ends of ours is in test_conn.cpp.

#include "conn_support.h"
#include "support_net.h"

#include "tarn_conn_internal.h"
#include "tarn_sys_internal.h"

#include <csignal>

using namespace conn_test;
using support::expect_check;
using support::log_capture;
using support::wait_until;
using tlsu_test::client_credentials;
using tlsu_test::credentials;
using tlsu_test::pem_files;
using tlsu_test::server_credentials;
using tlsu_test::start_openssl;

namespace
{

const bool allowed = support::allow_namespaces();

class ConnTls : public testing::Test
{
protected:
    support::layer layer_;
    support::leak_check leaks_;
    support::level_scope quiet_{TARN_LOG_LEVEL_TRACE};
    endpoint at_ = make_endpoint("tls");
};

using options = std::vector<std::string>;

options operator+(options all, const options &more)
{
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

/** A bare TCP connection to an endpoint. */
class bare_peer
{
public:
    explicit bare_peer(const endpoint &at) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(std::stoi(at.port)));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    void send(const std::string &bytes) const
    {
        EXPECT_EQ(::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    /** Everything until the server closes. */
    [[nodiscard]] std::string read_rest() const
    {
        std::string all;
        char buffer[4096];
        ssize_t n = 0;
        while ((n = ::recv(fd_.get(), buffer, sizeof buffer, 0)) > 0)
        {
            all.append(buffer, static_cast<size_t>(n));
        }
        return all;
    }

private:
    tarn::unique_fd fd_;
};

/** First bytes of a handshake message that never gets whole. */
const std::string half_a_hello("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11);

// ---- the openssl program ---------------------------------------------------------------------------

TEST_F(ConnTls, ServesTheOpensslClient)
{
    const pem_files files;
    for (const uint32_t flags : {0u, uint32_t{TLSU_FLAG_REQUIRE_PEER_CERT}})
    {
        const credentials own(tlsu_test::all().server, flags);
        endpoint at = make_endpoint("tls");
        at.server_secret = own.get();
        echo_server upper;
        const log_capture log;
        server_owner svr = start_server(at, &upper);
        int admitted = 0;
        for (const std::string version : {"-tls1_2", "-tls1_3"})
        {
            for (const std::string who : {"", "client", "stranger"})
            {
                SCOPED_TRACE(version + " " + who + " " + std::to_string(flags));
                // It trusts the root only: the server has to show the certificate between.
                auto program = start_openssl({"s_client", "-connect", at.addr + ":" + at.port},
                                             options{version, "-CAfile", files.path("root"),
                                                     "-verify_return_error", "-quiet"} +
                                                 files.present(who));
                if (who == "stranger" || (who.empty() && flags != 0))
                {
                    EXPECT_NE(program.wait(), 0);
                    continue;
                }
                ++admitted;
                EXPECT_TRUE(program.write_line("hello from the program"));
                EXPECT_TRUE(program.wait_for_line("hello from the program")); // sent back
                program.signal(SIGTERM);
                (void)program.wait();
                EXPECT_TRUE(wait_until([&] { return upper.ended == admitted; }));
            }
        }
        EXPECT_EQ(upper.admitted, admitted);
        EXPECT_EQ(log.count(", cipher = TLS_"), 2u - flags) << "TLS 1.3";
        EXPECT_EQ(log.count(", cipher = "), static_cast<size_t>(admitted));
        EXPECT_EQ(log.count("---[ PEER CERT ]---"), 2u);
        EXPECT_TRUE(log.contains("Serial Number: "));
        EXPECT_TRUE(log.contains("warn", "peer certificate refused: "));
        svr.reset();
        upper.finish();
    }
}

TEST_F(ConnTls, ConnectsToTheOpensslServer)
{
    const pem_files files;
    const struct
    {
        const char *who;
        bool wants_cert;
        uint32_t flags;
        const char *addr;
        bool succeeds;
    } cases[] = {
        {"server", false, 0, "127.0.0.1", true},
        {"server", true, TLSU_FLAG_REQUIRE_PEER_CERT, "127.0.0.1", true},
        {"stranger", false, 0, "127.0.0.1", false},
        {"server", true, TLSU_FLAG_CHECK_PEER_NAME, "127.0.0.1", false}, // it is gateway.test
        {"server", false, TLSU_FLAG_CHECK_PEER_NAME, "gateway.test", true},
        {"server", false, TLSU_FLAG_CHECK_PEER_NAME, "other.test", false},
        {"server", false, TLSU_FLAG_TLS13_ONLY, "127.0.0.1", true}, // with 1.3
    };
    const log_capture log;
    support::in_namespace([&] {
        const support::temp_dir dir;
        support::write_file(dir.file("hosts"), "127.0.0.1 gateway.test other.test\n");
        (void)support::shell("mount --bind " + dir.file("hosts") + " /etc/hosts");
        for (const std::string version : {"-tls1_2", "-tls1_3"})
        {
            for (const auto &c : cases)
            {
                SCOPED_TRACE(version + " " + c.who + " " + c.addr + " " + std::to_string(c.flags));
                auto program =
                    start_openssl({"s_server", "-accept", "127.0.0.1:0", "-rev", version},
                                  options{"-CAfile", files.path("root")} + files.present(c.who) +
                                      (c.wants_cert ? options{"-Verify", "3"} : options{}));
                const std::string port = std::to_string(tlsu_test::port_of_s_server(program));
                const credentials own(tlsu_test::all().client, c.flags);
                client_log told;
                const conn_owner client(
                    tarn_conn_create(own.get(), nullptr, nullptr, c.addr, port.c_str(), 20000,
                                     client_log::on_connect, client_log::on_disconnect, &told));
                const bool too_old = c.flags == TLSU_FLAG_TLS13_ONLY && version == "-tls1_2";
                EXPECT_EQ(tarn_conn_connect(client.get()) == 0, c.succeeds && !too_old);
                EXPECT_EQ(tarn_conn_is_connected(client.get()), c.succeeds && !too_old);
                EXPECT_EQ(told.connects, c.succeeds && !too_old ? 1 : 0);
                if (told.connects != 0)
                {
                    ASSERT_EQ(tarn_conn_write(client.get(), "drawer\n", 7), 7);
                    EXPECT_EQ(read_exactly(client.get(), 7), "reward\n");
                    program.signal(SIGTERM);
                    char byte = 0;
                    EXPECT_LT(tarn_conn_read(client.get(), &byte, 1, 20000), 0);
                    EXPECT_EQ(told.disconnects, 1);
                }
            }
        }
    });
    EXPECT_TRUE(log.contains("trace", "TLS connect success"));
    EXPECT_TRUE(log.contains("info", "current cipher: [TLS_"));
    EXPECT_TRUE(log.contains("error", "TLS connect failed, rc = -"));
    EXPECT_TRUE(log.contains("error", "SSL_get_error() return 1 ("));
    EXPECT_TRUE(log.contains("error", "certificate verify failed"));
}

// ---- handshakes that go wrong ------------------------------------------------------------------------

TEST_F(ConnTls, PeersThatStallOrFailHoldUpNobody)
{
    echo_server upper;
    server_owner svr = start_server(at_, &upper);
    const conn_owner before = make_client(at_);
    ASSERT_EQ(tarn_conn_connect(before.get()), 0);
    std::vector<std::unique_ptr<bare_peer>> bad;
    const double took = support::elapsed_ms([&] {
        for (int round = 0; round < 5; ++round)
        {
            for (const std::string &first : {std::string(), half_a_hello, std::string("GET / \r\n"),
                                             std::string("\x15\x03\x01\x00\x02\x02\x28", 7)})
            {
                bad.push_back(std::make_unique<bare_peer>(at_));
                bad.back()->send(first);
            }
            // One that stood before, and one that comes behind them.
            ASSERT_EQ(tarn_conn_write(before.get(), "ping", 4), 4);
            EXPECT_EQ(read_exactly(before.get(), 4), "ping");
            const conn_owner client = make_client(at_);
            ASSERT_EQ(tarn_conn_connect(client.get()), 0);
            ASSERT_EQ(tarn_conn_write(client.get(), "pong", 4), 4);
            EXPECT_EQ(read_exactly(client.get(), 4), "pong");
        }
    });
    EXPECT_LT(took, 9000) << "less than one stalled handshake is given";
    EXPECT_EQ(upper.admitted, 6);
    EXPECT_LT(support::elapsed_ms([&] { svr.reset(); }), 5000);
    for (const auto &peer : bad)
    {
        (void)peer->read_rest(); // all of them are closed
    }
    upper.finish();
}

TEST_F(ConnTls, StalledPeersAreGivenUpInTime)
{
    const log_capture log;
    echo_server upper;
    server_owner svr = start_server(at_, &upper);
    const bare_peer silent(at_);
    const bare_peer half(at_);
    half.send(half_a_hello);
    EXPECT_TRUE(wait_until([&] { return log.count("] accepted") == 2; }));
    tarn::tick_ms_offset = 10001; // the time is up
    EXPECT_EQ(silent.read_rest() + half.read_rest(), "");
    tarn::tick_ms_offset = 0;
    EXPECT_EQ(log.count("timed out"), 2u);
    EXPECT_EQ(upper.admitted, 0);
    svr.reset();
    upper.finish();
}

TEST_F(ConnTls, StoppingDoesNotWaitForAHandshake)
{
    echo_server upper;
    server_owner svr = start_server(at_, &upper);
    const bare_peer silent(at_);
    const conn_owner client = make_client(at_);
    ASSERT_EQ(tarn_conn_connect(client.get()), 0); // so the silent one is in hand
    EXPECT_LT(support::elapsed_ms([&] { tarn_conn_server_loop_stop(svr.get()); }), 5000);
    ASSERT_EQ(tarn_conn_server_loop_start(svr.get()), 0);
    tarn_conn_disconnect(client.get());
    ASSERT_EQ(tarn_conn_connect(client.get()), 0);
    EXPECT_LT(support::elapsed_ms([&] { svr.reset(); }), 5000);
    EXPECT_EQ(silent.read_rest(), "");
    upper.finish();
}

TEST_F(ConnTls, ClientGivesUpASilentServerInTimeOrWhenDisconnected)
{
    const tarn::socket_owner listener(tarn_socket_create(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(tarn_socket_bind(listener.get(), htonl(INADDR_LOOPBACK), 0), 0);
    ASSERT_EQ(tarn_socket_listen(listener.get(), 5), 0);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ASSERT_EQ(::getsockname(tarn_socket_get_handle(listener.get()),
                            reinterpret_cast<sockaddr *>(&address), &size),
              0);
    const std::string port = std::to_string(ntohs(address.sin_port));
    const auto make = [&](uint32_t timeout) {
        return conn_owner(tarn_conn_create(client_credentials().get(), nullptr, nullptr,
                                           "127.0.0.1", port.c_str(), timeout, nullptr, nullptr,
                                           nullptr));
    };
    const conn_owner hasty = make(300);
    const double waited =
        support::elapsed_ms([&] { EXPECT_LT(tarn_conn_connect(hasty.get()), 0); });
    EXPECT_GE(waited, 299);
    EXPECT_LT(waited, 8000);

    const conn_owner patient = make(60000);
    const tarn::socket_owner dropped(tarn_socket_accept(listener.get(), nullptr, nullptr, 10000));
    std::thread connecting([&] { EXPECT_LT(tarn_conn_connect(patient.get()), 0); });
    const tarn::socket_owner accepted(tarn_socket_accept(listener.get(), nullptr, nullptr, 20000));
    char byte = 0;
    EXPECT_EQ(tarn_socket_recv(accepted.get(), &byte, 1, 20000), 1); // it has begun to shake hands
    EXPECT_LT(support::elapsed_ms([&] {
                  tarn_conn_disconnect(patient.get());
                  connecting.join();
              }),
              20000);
    EXPECT_FALSE(tarn_conn_is_connected(patient.get()));
}

TEST_F(ConnTls, CredentialsThatMakeNoContextAreRefused)
{
    const support::level_scope debug(TARN_LOG_LEVEL_DEBUG);
    const log_capture log;
    expect_check("BON(tls_ctx_h)");
    const credentials wrong(tlsu_test::all().server, 0, "another secret");
    tlsu_credentials short_one = *server_credentials().get();
    short_one.size = offsetof(tlsu_credentials, key_len);
    for (const tlsu_credentials *secret : {wrong.get(), &std::as_const(short_one)})
    {
        EXPECT_EQ(tarn_conn_create(secret, nullptr, nullptr, "127.0.0.1", "1", 1, nullptr, nullptr,
                                   nullptr),
                  nullptr);
        EXPECT_EQ(tarn_conn_server_create(secret, "127.0.0.1", "0", 1, 1, echo_server::on_connect,
                                          nullptr, nullptr),
                  nullptr);
    }
    EXPECT_TRUE(log.contains("error", "credentials of "));
    // without a port they are not looked at
    const conn_owner local(tarn_conn_create(wrong.get(), nullptr, nullptr, "x", nullptr, 1, nullptr,
                                            nullptr, nullptr));
    EXPECT_TRUE(local);
    EXPECT_TRUE(log.contains("warn", "credentials are not used without a port: x"));
}

} // namespace
