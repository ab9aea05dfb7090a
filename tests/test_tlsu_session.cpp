// TLS sessions: handshake, traffic and end over connections that break up, stall and lie; the
// openssl program at the other end.

#include "tlsu_support.h"

#include "tarn_critical_section.h"
#include "tarn_thread.h"

#include <numeric>

using namespace tlsu_test;
using support::elapsed_ms;
using support::expect_check;
using support::log_capture;

namespace
{

const ctx_owner &server_ctx()
{
    static const ctx_owner ctx = all().server.make_ctx(all().chain);
    return ctx;
}

const ctx_owner &client_ctx()
{
    static const ctx_owner ctx = all().client.make_ctx(all().chain);
    return ctx;
}

std::string numbered(size_t size)
{
    std::string bytes(size, '\0');
    uint32_t state = 1;
    for (char &byte : bytes)
    {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

/** Both ends of one connection in memory. */
struct link
{
    memory_connection client{TLSU_CONN_TYPE_CLIENT};
    memory_connection server{3};
    link()
    {
        memory_connection::join(client, server);
    }
    void open(const ctx_owner &at_client = client_ctx(), const ctx_owner &at_server = server_ctx())
    {
        ASSERT_TRUE(client.open(at_client));
        ASSERT_TRUE(server.open(at_server));
    }
    /** @return whether client and server have come through the handshake */
    std::pair<bool, bool> shake_hands()
    {
        bool served = false;
        std::thread server_side([&] {
            served = server.shake_hands();
            if (!served)
            {
                server.cut();
            }
        });
        const bool connected = tls().tls_connect(client.session.get()) == 0;
        if (!connected)
        {
            client.cut();
        }
        server_side.join();
        return {connected, served};
    }
};

constexpr std::pair<bool, bool> both(true, true);

// ---- traffic ---------------------------------------------------------------------------------------

TEST(Session, CarriesDataInAnyFragmentation)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    struct
    {
        int minor;
        size_t max_receive;
        size_t max_send;
        uint32_t piece_size;
    } const cases[] = {{3, 1, SIZE_MAX, 0},
                       {2, 1, 3, 0},
                       {3, 7, SIZE_MAX, 0},
                       {2, SIZE_MAX, SIZE_MAX, 0},
                       {3, SIZE_MAX, SIZE_MAX, 17408},
                       {3, SIZE_MAX, 1000, 1u << 30}};
    const std::string data = numbered(100000);
    for (const auto &c : cases)
    {
        const ctx_owner ctx = all().server.make_ctx(all().chain);
        use_only_tls(ctx.get(), c.minor);
        link l;
        for (memory_connection *end : {&l.client, &l.server})
        {
            end->max_receive = c.max_receive;
            end->max_send = c.max_send;
            end->record.piece_size = c.piece_size;
        }
        l.open(client_ctx(), ctx);
        ASSERT_EQ(l.shake_hands(), both);
        EXPECT_STREQ(tls().tls_cipher_name(l.client.session.get()),
                     tls().tls_cipher_name(l.server.session.get()));
        EXPECT_EQ(l.client.write(data), length(data));
        EXPECT_EQ(l.server.read(data.size()), data);
        EXPECT_EQ(l.server.write(data), length(data));
        EXPECT_EQ(l.client.read(data.size(), 1000), data);
        const int limit = c.piece_size == 0 ? 4096 : c.piece_size == 17408 ? 17408 : 65536;
        EXPECT_LE(l.client.largest_send, limit);
        EXPECT_LE(l.client.largest_receive, limit);
    }
}

TEST(Session, KeepsOrderOfGluedRecordsReadByteByByte)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    link l;
    l.open();
    ASSERT_EQ(l.shake_hands(), both);
    std::string all_of_it;
    for (int i = 0; i < 1000; ++i)
    {
        const std::string part = std::to_string(i) + ",";
        EXPECT_EQ(l.client.write(part), length(part));
        all_of_it += part;
    }
    EXPECT_EQ(l.server.read(all_of_it.size(), 1), all_of_it);
    // far more than the stock of plain text holds
    const std::string large = numbered(3u << 20);
    EXPECT_EQ(l.client.write(large), length(large));
    EXPECT_EQ(l.server.read(1, 1), large.substr(0, 1));
    EXPECT_EQ(l.server.read(large.size() - 1), large.substr(1));
    char byte = 0;
    EXPECT_EQ(tls().tls_read(l.server.session.get(), &byte, 1, 0), 0);
    EXPECT_EQ(tls().tls_read(l.server.session.get(), nullptr, 0, 0), 0);
}

TEST(Session, BothSidesWriteAtFullSpeed)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    link l;
    l.client.capacity = l.server.capacity = 512; // so that everybody waits for room all the time
    l.open();
    ASSERT_EQ(l.shake_hands(), both);
    const std::string data = numbered((support::with_sanitizer ? 1u : 4u) << 20);
    std::vector<std::thread> threads;
    for (memory_connection *end : {&l.client, &l.server})
    {
        threads.emplace_back([&data, end] { EXPECT_EQ(end->write(data), length(data)); });
        threads.emplace_back([&data, end] { EXPECT_TRUE(end->read(data.size()) == data); });
    }
    for (auto &thread : threads)
    {
        thread.join();
    }
}

// ---- the end ---------------------------------------------------------------------------------------

TEST(Session, HandsOutWhatCameBeforeTheEnd)
{
    link l;
    l.open();
    ASSERT_EQ(l.shake_hands(), both);
    EXPECT_EQ(l.client.write("last words"), 10);
    l.server.put(std::string("\x17\x03\x03\0\x14", 5) + "not of this session!");
    EXPECT_EQ(l.server.read(4), "last");
    EXPECT_EQ(l.server.read(100), " words");
    EXPECT_TRUE(l.server.is_at_end());
    EXPECT_TRUE(l.server.is_at_end());
    EXPECT_EQ(tls().tls_error_get(l.server.session.get()), 1);
    EXPECT_STREQ(tls().error_text_get(1), "failure in the TLS protocol or the library");
    EXPECT_LT(l.server.write("x"), 0);
    EXPECT_TRUE(l.client.is_at_end()) << "the alert";

    log_capture log;
    tls().errors_print(TARN_LOG_LEVEL_WARN);
    EXPECT_TRUE(log.contains("warn", "alert"));
    log.clear();
    tls().errors_print(TARN_LOG_LEVEL_WARN);
    EXPECT_TRUE(log.lines().empty());
}

TEST(Session, EndsWithItsConnection)
{
    link l;
    l.open();
    ASSERT_EQ(l.shake_hands(), both);
    EXPECT_EQ(l.client.write("bytes"), 5);
    l.client.cut();
    EXPECT_EQ(l.server.read(100), "bytes");
    EXPECT_TRUE(l.server.is_at_end());
    EXPECT_EQ(tls().tls_error_get(l.server.session.get()), 5);
    EXPECT_LT(l.client.write("more"), 0);

    // a record that was sent in part only is not followed by others
    link m;
    m.open();
    ASSERT_EQ(m.shake_hands(), both);
    m.client.sends_left = 2;
    EXPECT_LT(m.client.write(std::string(16384, 'x')), 0);
    m.client.sends_left = -1;
    const size_t on_the_way = m.server.waiting();
    EXPECT_LT(m.client.write("x"), 0);
    EXPECT_TRUE(m.client.is_at_end());
    EXPECT_EQ(m.server.waiting(), on_the_way);
}

// ---- handshakes that fail --------------------------------------------------------------------------

TEST(Handshake, FailsOnGarbageAtOnce)
{
    for (const std::string &garbage :
         {std::string("GET / HTTP/1.0\r\n\r\n"), std::string(5000, '\x16'), numbered(20000),
          std::string("\x15\x03\x03\x00\x02\x02\x28", 7)})
    {
        link l;
        l.open();
        l.server.put(garbage);
        EXPECT_LT(elapsed_ms([&] { EXPECT_FALSE(l.server.shake_hands()); }), 5000);
        l.client.put(garbage);
        EXPECT_LT(elapsed_ms([&] { EXPECT_LT(tls().tls_connect(l.client.session.get()), 0); }),
                  5000);
        EXPECT_LT(tls().tls_connect(l.client.session.get()), 0);
    }
}

TEST(Handshake, IsGivenUpInTimeWhenThePeerStalls)
{
    log_capture log;
    link l;
    l.client.record.handshake_timeout_ms = l.server.record.handshake_timeout_ms = 300;
    l.open();
    std::atomic<bool> ends{false};
    std::thread dribble([&] {
        const std::string hello("\x16\x03\x01\x40\x00\x01", 6);
        for (size_t i = 0; !ends; ++i)
        {
            l.client.put(i < hello.size() ? hello.substr(i, 1) : "x");
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    const double dribbled =
        elapsed_ms([&] { EXPECT_LT(tls().tls_connect(l.client.session.get()), 0); });
    ends = true;
    dribble.join();
    EXPECT_LT(dribbled, 3000);
    link silent;
    silent.server.record.handshake_timeout_ms = 300;
    silent.open();
    const double waited = elapsed_ms([&] { EXPECT_FALSE(silent.server.shake_hands()); });
    EXPECT_GE(waited, 299);
    EXPECT_LT(waited, 3000);
    EXPECT_GE(log.count("TLS handshake timed out"), 1u);
}

TEST(Handshake, EndsWithItsLoopThread)
{
    link l;
    l.open();
    const auto connect = [](void *session, void *) -> void * {
        EXPECT_LT(tls().tls_connect(static_cast<TLSU_SESSION>(session)), 0);
        return nullptr;
    };
    const TARN_THREAD thread =
        tarn_thread_start(connect, l.client.session.get(), nullptr, 1000000, "connect");
    EXPECT_TRUE(support::wait_until([&] { return l.server.waiting() != 0; }));
    EXPECT_LT(elapsed_ms([&] { tarn_thread_stop(thread); }), 3000);
}

TEST(Handshake, HoldsThePeerToTheFlags)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    const ctx_owner old = all().server.make_ctx(all().chain);
    use_only_tls(old.get(), 2);
    const ctx_owner stranger = all().stranger.make_ctx(all().chain);
    struct
    {
        uint32_t flags;
        const char *name;
        const ctx_owner &at_server;
        bool succeeds;
    } const cases[] = {
        {0, "", old, true},
        {0, "elsewhere.test", server_ctx(), true},
        {0, "", stranger, false},
        {TLSU_FLAG_TLS13_ONLY, "", server_ctx(), true},
        {TLSU_FLAG_TLS13_ONLY, "", old, false},
        {TLSU_FLAG_REQUIRE_PEER_CERT, "", server_ctx(), true},
        {TLSU_FLAG_CHECK_PEER_NAME, "gateway.test", server_ctx(), true},
        {TLSU_FLAG_CHECK_PEER_NAME, "elsewhere.test", server_ctx(), false},
        {TLSU_FLAG_CHECK_PEER_NAME, "192.168.0.1", server_ctx(), false},
        {TLSU_FLAG_CHECK_PEER_NAME, "fe80::1%eth0", server_ctx(), false},
        {TLSU_FLAG_CHECK_PEER_NAME, "", server_ctx(), false},
    };
    for (const auto &c : cases)
    {
        link l;
        l.client.record.flags = c.flags;
        l.client.peer_name = c.name;
        l.open(client_ctx(), c.at_server);
        EXPECT_EQ(l.shake_hands().first, c.succeeds) << c.flags << " " << c.name;
    }
    // without the longer record no flag is looked at
    link l;
    l.client.record.flags = TLSU_FLAG_CHECK_PEER_NAME;
    l.client.record.base.size = sizeof(tlsu_conn_if);
    l.open();
    EXPECT_EQ(l.shake_hands(), both);
    EXPECT_EQ(tls().tls_conn_get(l.client.session.get()), &l.client);
    const cert_owner peer(tls().tls_peer_cert(l.client.session.get()));
    EXPECT_STREQ(tls().x509_serial_number_get(peer.get()),
                 tls().x509_serial_number_get(all().server.cert.get()));
}

// ---- accepting -------------------------------------------------------------------------------------

/** A listening end whose peers are put in front of its door. */
class memory_listener : public memory_connection
{
public:
    explicit memory_listener(bool side_by_side) : memory_connection(TLSU_CONN_TYPE_SERVER)
    {
        if (side_by_side)
        {
            record.accept_now = [](void *h) -> void * {
                return static_cast<memory_listener &>(self(h)).accept(false);
            };
        }
        EXPECT_TRUE(open(server_ctx()));
    }
    ~memory_listener() override
    {
        session = {}; // closes what is in hand
        EXPECT_EQ(closed, wanted_closed);
    }
    void arrive(memory_connection &client, uint32_t timeout_ms = 0)
    {
        auto end = std::make_unique<accepted>(*this);
        end->record.handshake_timeout_ms = timeout_ms;
        EXPECT_TRUE(end->open(server_ctx()));
        memory_connection::join(*end, client);
        arrived_.push_back(std::move(end));
    }
    connection *accept(bool) override
    {
        if (arrived_.empty())
        {
            return nullptr;
        }
        ends_.push_back(std::move(arrived_.front()));
        arrived_.pop_front();
        return ends_.back().get();
    }
    size_t closed = 0;
    size_t wanted_closed = 0;

private:
    struct accepted : memory_connection
    {
        explicit accepted(memory_listener &at) : memory_connection(3), listener(at) {}
        void close() override
        {
            ++listener.closed;
            cut();
            session = {};
        }
        memory_listener &listener;
    };
    std::deque<std::unique_ptr<accepted>> arrived_;
    std::deque<std::unique_ptr<accepted>> ends_;
};

TEST(Accept, SilentPeersDoNotHoldUpOthers)
{
    memory_listener listener(true);
    std::deque<memory_connection> silent;
    for (int i = 0; i < 40; ++i)
    {
        listener.arrive(silent.emplace_back(3));
    }
    memory_connection client(TLSU_CONN_TYPE_CLIENT);
    listener.arrive(client);
    EXPECT_TRUE(client.open(client_ctx()));
    std::thread peer([&] { EXPECT_EQ(tls().tls_connect(client.session.get()), 0); });
    void *found = nullptr;
    // 41 peers for 32 places: some of the silent ones give way after a second
    EXPECT_LT(elapsed_ms([&] {
                  while (found == nullptr)
                  {
                      found = tls().tls_accept(listener.session.get());
                  }
              }),
              8000);
    peer.join();
    EXPECT_EQ(static_cast<connection *>(found)->write("welcome"), 7);
    EXPECT_EQ(client.read(7), "welcome");
    EXPECT_GE(listener.closed, 1u);
    listener.wanted_closed = 40;
}

TEST(Accept, GivesUpOneAfterTheOtherByDefault)
{
    log_capture log;
    expect_check("RVON(cli_conn_h,NULL)");
    memory_listener listener(false);
    memory_connection silent(3);
    memory_connection liar(3);
    memory_connection client(TLSU_CONN_TYPE_CLIENT);
    listener.arrive(silent, 250);
    listener.arrive(liar, 250);
    listener.arrive(client);
    EXPECT_EQ(liar.send("SSH-2.0-x\r\n", 11), 11);
    const double waited =
        elapsed_ms([&] { EXPECT_EQ(tls().tls_accept(listener.session.get()), nullptr); });
    EXPECT_GE(waited, 249);
    EXPECT_LT(waited, 3000);
    EXPECT_TRUE(log.contains("timed out"));
    EXPECT_EQ(tls().tls_accept(listener.session.get()), nullptr);
    EXPECT_EQ(listener.closed, 2u);
    EXPECT_TRUE(client.open(client_ctx()));
    std::thread peer([&] { EXPECT_EQ(tls().tls_connect(client.session.get()), 0); });
    EXPECT_NE(tls().tls_accept(listener.session.get()), nullptr);
    peer.join();
    EXPECT_EQ(tls().tls_accept(listener.session.get()), nullptr);
    listener.wanted_closed = 2;

    expect_check("RVOF(tls_svr->conn_if.type( tls_svr->conn_h ) == TLSU_CONN_TYPE_SERVER,NULL)");
    EXPECT_EQ(tls().tls_accept(client.session.get()), nullptr);
    expect_check("RVOF(tls->conn_if.type( tls->conn_h ) == "
                 "TLSU_CONN_TYPE_CLIENT,TARN_ERROR_LINE_NUMBER)");
    EXPECT_LT(tls().tls_connect(listener.session.get()), 0);
}

TEST(Session, IsNotMadeWithoutWhatItNeeds)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    memory_connection end(3);
    EXPECT_EQ(tls().tls_create(nullptr, &end.record.base, &end), nullptr);
    EXPECT_EQ(tls().tls_create(server_ctx().get(), nullptr, &end), nullptr);
    end.record.base.size = offsetof(tlsu_conn_if, receive);
    EXPECT_FALSE(end.open(server_ctx()));
    end.record.base.size = sizeof end.record;
    EXPECT_GT(support::fail_each_allocation([&](size_t) {
                  EXPECT_TRUE(end.open(server_ctx()) || support::allocation_failed());
              }),
              3u);
    EXPECT_LT(tls().tls_read(nullptr, nullptr, 0, 0), 0);
    EXPECT_LT(tls().tls_write(nullptr, "", 0), 0);
    EXPECT_LT(tls().tls_read(end.session.get(), nullptr, -1, 0), 0);
    EXPECT_LT(tls().tls_write(end.session.get(), nullptr, 1), 0);
}

// ---- the openssl program ---------------------------------------------------------------------------

int tcp_socket(uint16_t port, bool listens)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *const any = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(listens ? ::bind(fd, any, sizeof address) | ::listen(fd, 5)
                      : ::connect(fd, any, sizeof address),
              0);
    return fd;
}

uint16_t port_of(int fd)
{
    sockaddr_in address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
    return ntohs(address.sin_port);
}

/** s_client connects to our session.
 *  @param then  what happens with the session when the handshake has succeeded
 *  @return whether it has */
bool serve_program(const std::vector<std::string> &options, uint32_t flags,
                   const std::function<void(socket_connection &, support::child_process &)> &then)
{
    const int listener = tcp_socket(0, true);
    auto program = start_openssl(
        {"s_client", "-connect", "127.0.0.1:" + std::to_string(port_of(listener))}, options);
    socket_connection server(3, ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    ::close(listener);
    server.record.flags = flags;
    EXPECT_TRUE(server.open(server_ctx()));
    const bool finished = server.shake_hands();
    if (finished)
    {
        then(server, program);
    }
    return finished;
}

TEST(Interop, ServesTheOpensslClient)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    const pem_files files;
    for (const std::string version : {"-tls1_2", "-tls1_3"})
    {
        for (const std::string who : {"", "client", "stranger"})
        {
            for (const uint32_t flags : {0u, uint32_t{TLSU_FLAG_REQUIRE_PEER_CERT}})
            {
                std::vector<std::string> options = {version, "-CAfile", files.path("root"),
                                                    "-verify_return_error"};
                const auto presented = files.present(who);
                options.insert(options.end(), presented.begin(), presented.end());
                const bool admitted = who == "client" || (who.empty() && flags == 0);
                const auto talk = [&](socket_connection &server, support::child_process &program) {
                    const cert_owner peer(tls().tls_peer_cert(server.session.get()));
                    EXPECT_EQ(static_cast<bool>(peer), !who.empty());
                    EXPECT_TRUE(program.write_line("hello from the program"));
                    EXPECT_EQ(server.read(23), "hello from the program\n");
                    EXPECT_EQ(server.write("hello from us\n"), 14);
                    EXPECT_TRUE(program.wait_for_line("hello from us"));
                    if (version == "-tls1_3")
                    {
                        EXPECT_TRUE(program.write_line("K")); // new keys, and ours are wanted too
                        EXPECT_TRUE(program.wait_for_line("KEYUPDATE"));
                    }
                    EXPECT_EQ(server.write("still here\n"), 11);
                    EXPECT_TRUE(program.wait_for_line("still here"));
                    program.close_input(); // it says goodbye
                    EXPECT_TRUE(server.is_at_end());
                    EXPECT_EQ(tls().tls_error_get(server.session.get()), 6);
                    EXPECT_EQ(program.wait(), 0);
                };
                EXPECT_EQ(serve_program(options, flags, talk), admitted)
                    << version << " " << who << " " << flags;
            }
        }
    }
}

TEST(Interop, ResumesASessionOfTheOpensslClient)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    const pem_files files;
    const std::string stored = files.path("session");
    for (const std::string way : {"-sess_out", "-sess_in"})
    {
        const auto talk = [&](socket_connection &server, support::child_process &program) {
            EXPECT_TRUE(
                program.wait_for_line(way == "-sess_in" ? "Reused, TLSv1.2" : "New, TLSv1.2"));
            program.close_input();
            EXPECT_TRUE(server.is_at_end());
            program.wait();
        };
        auto options = files.present("client");
        options.insert(options.end(), {"-tls1_2", way, stored});
        EXPECT_TRUE(serve_program(options, TLSU_FLAG_REQUIRE_PEER_CERT, talk));
    }
}

/** Our session connects to s_server.
 *  @return whether the handshake succeeds */
bool connect_to_program(
    const std::vector<std::string> &options, uint32_t flags, const std::string &name,
    uint32_t piece_size,
    const std::function<void(socket_connection &, support::child_process &)> &then)
{
    auto program = start_openssl({"s_server", "-accept", "127.0.0.1:0"}, options);
    socket_connection client(TLSU_CONN_TYPE_CLIENT, tcp_socket(port_of_s_server(program), false));
    client.record.flags = flags;
    client.record.piece_size = piece_size;
    client.peer_name = name;
    EXPECT_TRUE(client.open(client_ctx()));
    const bool finished = tls().tls_connect(client.session.get()) == 0;
    if (finished)
    {
        then(client, program);
    }
    return finished;
}

TEST(Interop, ConnectsToTheOpensslServer)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    const pem_files files;
    struct
    {
        const char *who;
        bool wants_cert;
        uint32_t flags;
        const char *name;
        bool succeeds;
    } const cases[] = {
        {"server", false, 0, "", true},
        {"server", true, 0, "", true},
        {"stranger", false, 0, "", false},
        {"server", false, TLSU_FLAG_CHECK_PEER_NAME, "gateway.test", true},
        {"server", false, TLSU_FLAG_CHECK_PEER_NAME, "other.test", false},
    };
    for (const std::string version : {"-tls1_2", "-tls1_3"})
    {
        for (const auto &c : cases)
        {
            std::vector<std::string> options = files.present(c.who);
            options.insert(options.end(), {version, "-CAfile", files.path("root")});
            if (c.wants_cert)
            {
                options.insert(options.end(), {"-Verify", "3", "-verify_return_error"});
            }
            const auto talk = [&](socket_connection &client, support::child_process &program) {
                EXPECT_EQ(client.write("hello from us\n"), 14);
                EXPECT_TRUE(program.wait_for_line("hello from us"));
                EXPECT_TRUE(program.write_line("hello from the program"));
                EXPECT_EQ(client.read(23), "hello from the program\n");
                // in 1.2 another handshake, which we do not go along with and the program then
                // ends; in 1.3 new keys, and ours are wanted too
                EXPECT_TRUE(program.write_line(version == "-tls1_2" ? "r" : "K"));
                EXPECT_TRUE(client.waits_to_be_read());
                if (version == "-tls1_3")
                {
                    EXPECT_TRUE(program.write_line("still there?"));
                    EXPECT_EQ(client.read(13), "still there?\n");
                    EXPECT_EQ(client.write("still here\n"), 11);
                    EXPECT_TRUE(program.wait_for_line("still here"));
                    EXPECT_TRUE(program.write_line("Q"));
                }
                EXPECT_TRUE(client.is_at_end());
            };
            EXPECT_EQ(connect_to_program(options, c.flags, c.name, 0, talk), c.succeeds)
                << version << " " << c.who << " " << c.name;
        }
    }
}

// The tickets behind a handshake come in several records here. A write between two of them has to
// receive the rest first.
TEST(Interop, WritesWhileAMessageBehindTheHandshakeIsHalfThere)
{
    const pem_files files;
    std::vector<std::string> options = files.present("server");
    options.insert(options.end(), {"-tls1_3", "-Verify", "3", "-CAfile", files.path("root"), "-rev",
                                   "-max_send_frag", "512"});
    log_capture log;
    const auto talk = [&log](socket_connection &client, support::child_process &) {
        log.clear();
        constexpr size_t count = 60;
        std::string answers;
        for (size_t i = 0; i < count; ++i)
        {
            for (int n = 0; n < 50 && client.waits_to_be_read(10);
                 ++n) // a byte of the network each
            {
                char byte = 0;
                const int got = tls().tls_read(client.session.get(), &byte, 1, 0);
                EXPECT_GE(got, 0);
                answers.append(&byte, got > 0 ? 1 : 0);
            }
            EXPECT_EQ(client.write("ab\n"), 3);
        }
        EXPECT_TRUE(log.contains("*** ")) << "no message came in halves";
        answers += client.read(3 * count - answers.size());
        EXPECT_EQ(answers.size(), 3 * count);
        EXPECT_EQ(answers.find_first_not_of("ba\n"), std::string::npos);
    };
    EXPECT_TRUE(connect_to_program(options, 0, "", 1, talk));
}

} // namespace
