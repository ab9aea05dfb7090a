// gatewayd's RPC: every message over TCP, TLS and a local socket, files, and the end under load.

#include "gatewayd_support.h"
#include "rpc_support.h"

#include "../examples/gatewayd/protocol.h"

#include "tarn_rpc_file.h"

using namespace gatewayd_test;
using rpc_test::msg_owner;
using rpc_test::rpc_owner;
using rpc_test::transport;

namespace
{

#if defined(TARN_WITH_TLS)
/** A directory with the credentials of both ends, as tarnctl makes one. */
class tls_directory
{
public:
    tls_directory()
    {
        const auto &made = tlsu_test::all();
        put("secret", std::string(tlsu_test::secret) + "\n");
        EXPECT_EQ(::chmod(file("secret").c_str(), 0600), 0);
        for (const auto &[name, who] :
             {std::pair("server", &made.server), {"client", &made.client}})
        {
            put(std::string(name) + ".chain", tlsu_test::encipher(made.chain));
            put(std::string(name) + ".cert", tlsu_test::encipher(who->cert_text));
            put(std::string(name) + ".key", tlsu_test::encipher(who->key_text));
        }
        put("root.pem", made.root.cert_text);
    }
    void put(const std::string &name, const std::string &content) const
    {
        support::write_file(file(name), content);
    }
    [[nodiscard]] std::string file(const std::string &name) const
    {
        return dir_.file(name);
    }
    [[nodiscard]] std::string option() const
    {
        return "--tls-dir=" + dir_.path();
    }

private:
    support::temp_dir dir_;
};
#else
/** No directory is ever asked for. */
struct tls_directory
{
    [[nodiscard]] std::string option() const
    {
        return "";
    }
};
#endif

/** An instance that serves one kind of transport. */
struct served
{
    explicit served(const std::string &kind, std::vector<std::string> arguments = {})
        : at(rpc_test::make_transport(kind)), daemon(start_running(self, options(arguments)))
    {
    }
    [[nodiscard]] rpc_owner connect(rpc_test::client_log *log = nullptr) const
    {
        return rpc_test::connected_client(at, log);
    }
    std::vector<std::string> options(std::vector<std::string> arguments) const
    {
        if (at.port.empty())
        {
            arguments.push_back("--local=" + at.addr);
        }
        else
        {
            arguments.push_back("--rpc-port=" + at.port);
        }
        if (at.server_secret != nullptr)
        {
            arguments.push_back(credentials.option());
        }
        return arguments;
    }
    instance self;
    tls_directory credentials;
    transport at;
    foreground daemon;
};

/** A request in the making. */
struct request
{
    msg_owner msg{tarn_rpc_msg_create()};
    request &text(uint16_t id, const std::string &value)
    {
        const auto size = static_cast<uint32_t>(value.size());
        EXPECT_EQ(tarn_rpc_msg_write_element_value(msg.get(), id, MSG_ELM_TYPE_STRING,
                                                   value.c_str(), size),
                  0);
        return *this;
    }
    template <typename Number>
    request &number(uint16_t id, uint8_t type, Number value)
    {
        EXPECT_EQ(tarn_rpc_msg_write_element_value(msg.get(), id, type, &value, 0), 0);
        return *this;
    }
    request &value(double number_value)
    {
        return number(GATEWAYD_ELM_VALUE, MSG_ELM_TYPE_DOUBLE, number_value);
    }
};

struct reply
{
    int code;
    msg_owner msg;
    template <typename Number>
    Number number(uint16_t id, uint8_t type) const
    {
        Number value{};
        EXPECT_EQ(tarn_rpc_msg_read_element(msg.get(), id, type, &value, sizeof value, nullptr), 0);
        return value;
    }
};

reply call(const rpc_owner &rpc, uint32_t id, const request &asked = {}, uint32_t seq = 1)
{
    TARN_RPC_MSG answer = nullptr;
    const int code = tarn_rpc_msg_send(rpc.get(), seq, id, asked.msg.get(), &answer, 60000);
    return {code, msg_owner(answer)};
}

std::string bytes_of(const msg_owner &msg)
{
    return {reinterpret_cast<const char *>(tarn_rpc_msg_data(msg.get())),
            tarn_rpc_msg_data_len(msg.get())};
}

uint64_t now_ms()
{
    tarn_time now{};
    EXPECT_TRUE(tarn_time_get(&now));
    return now.seconds * 1000 + now.microseconds / 1000;
}

/** A message of every kind of element. */
request all_elements()
{
    request made;
    const unsigned char id[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    EXPECT_EQ(tarn_rpc_msg_write_array_begin(made.msg.get(), 7), 0);
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_EQ(tarn_rpc_msg_write_object_begin(made.msg.get(), 8), 0);
        made.text(1, std::string("text\0with NUL", 13)).text(1, "").value(-1.5);
        made.number(9, MSG_ELM_TYPE_UINT8, uint8_t{9}).number(9, MSG_ELM_TYPE_INT64, int64_t{-9});
        EXPECT_EQ(
            tarn_rpc_msg_write_element_value(made.msg.get(), 5, MSG_ELM_TYPE_NULL, nullptr, 0), 0);
        EXPECT_EQ(tarn_rpc_msg_write_element_value(made.msg.get(), 5, 99, nullptr, 0), 0);
        EXPECT_EQ(tarn_rpc_msg_write_element_value(made.msg.get(), 6, MSG_ELM_TYPE_BYTES16, id, 16),
                  0);
        EXPECT_EQ(tarn_rpc_msg_write_object_end(made.msg.get()), 0);
    }
    EXPECT_EQ(tarn_rpc_msg_write_array_end(made.msg.get()), 0);
    return made;
}

/** Sends a file and waits for its end. @return what went wrong, or nothing */
std::string send_file(const rpc_owner &rpc, const std::string &path, const std::string &name)
{
    struct progress
    {
        std::atomic<bool> ended{false};
        std::string error;
        static void report(TARN_RPC_FILE_SEND, uint32_t percent, const char *error, void *context)
        {
            auto *const self = static_cast<progress *>(context);
            const bool was_full = std::exchange(self->full, percent == 100 && error == nullptr);
            if (error != nullptr || was_full)
            {
                self->error = error != nullptr ? error : "";
                self->ended = true;
            }
        }
        bool full = false;
    } seen;
    TARN_RPC_FILE_SEND sending = tarn_rpc_file_send_begin(rpc.get(), path.c_str(), name.c_str(), 0,
                                                          60000, progress::report, &seen);
    EXPECT_NE(sending, nullptr);
    EXPECT_TRUE(support::wait_until([&] { return seen.ended.load(); }, 60000));
    tarn_rpc_file_send_destroy(sending);
    return seen.error;
}

class GatewaydRpc : public testing::TestWithParam<const char *>
{
protected:
    support::layer layer_;
    support::level_scope quiet_{TARN_LOG_LEVEL_FATAL};
};

class GatewaydRawRpc : public GatewaydRpc
{
};

INSTANTIATE_TEST_SUITE_P(Transports, GatewaydRawRpc, rpc_test::raw_kinds,
                         [](const auto &param) { return std::string(param.param); });
INSTANTIATE_TEST_SUITE_P(Transports, GatewaydRpc, rpc_test::kinds,
                         [](const auto &param) { return std::string(param.param); });

} // namespace

TEST_P(GatewaydRpc, PointsAreSetGotAndListed)
{
    served gateway(GetParam());
    const rpc_owner client = gateway.connect();
    const uint64_t before = now_ms();
    EXPECT_EQ(call(client, GATEWAYD_MSG_SET, request().text(1, "b/x-1_y.z").value(1.5)).code, 0);
    EXPECT_EQ(call(client, GATEWAYD_MSG_SET, request().value(-2).text(1, "a")).code, 0);
    const reply got = call(client, GATEWAYD_MSG_GET, request().text(1, "b/x-1_y.z"));
    EXPECT_EQ(got.code, 0);
    EXPECT_EQ(got.number<double>(2, MSG_ELM_TYPE_DOUBLE), 1.5);
    const auto time_ms = got.number<uint64_t>(3, MSG_ELM_TYPE_UINT64);
    EXPECT_GE(time_ms, before);
    EXPECT_LE(time_ms, now_ms());

    const reply listed = call(client, GATEWAYD_MSG_LIST);
    EXPECT_EQ(listed.code, 0);
    TARN_RPC_MSG_ITER it = nullptr;
    ASSERT_EQ(tarn_rpc_msg_read_begin(listed.msg.get(), &it), 0);
    EXPECT_EQ(tarn_rpc_msg_element_type(it), MSG_ELM_TYPE_ARRAY_BEGIN);
    EXPECT_EQ(tarn_rpc_msg_element_id(it), 1);
    const uint32_t count = tarn_rpc_msg_element_child_count(it);
    std::string shape;
    std::vector<std::string> names;
    while (tarn_rpc_msg_read_next(&it) == 0)
    {
        char name[64] = "";
        uint32_t len = sizeof name;
        if (tarn_rpc_msg_element_type(it) == MSG_ELM_TYPE_STRING &&
            tarn_rpc_msg_element_value(it, name, &len) == 0)
        {
            names.emplace_back(name, len);
        }
        shape += std::to_string(tarn_rpc_msg_element_type(it)) + ":" +
                 std::to_string(tarn_rpc_msg_element_id(it)) + " ";
    }
    tarn_rpc_msg_read_end(&it);
    EXPECT_EQ(names.size(), count);
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(std::count(names.begin(), names.end(), "b/x-1_y.z"), 1);
    EXPECT_EQ(std::count(names.begin(), names.end(), "uptime_s"), 1);
    EXPECT_TRUE(shape.starts_with("1:2 60:1 41:2 33:3 2:")) << shape;
    expect_orderly_end(gateway.daemon);
}

TEST_P(GatewaydRpc, WrongRequestsGetTheirCodes)
{
    served gateway(GetParam());
    const rpc_owner client = gateway.connect();
    const auto wrong = [&](uint32_t id, const request &asked, int code) {
        EXPECT_EQ(call(client, id, asked).code, code) << id << " " << bytes_of(asked.msg);
    };
    for (const uint32_t id : {GATEWAYD_MSG_GET, GATEWAYD_MSG_SET})
    {
        wrong(id, request(), -1);
        wrong(id, request().value(1), -1);
        wrong(id, request().number(1, MSG_ELM_TYPE_UINT32, 5u).value(1), -1);
        TARN_RPC_MSG none = nullptr;
        EXPECT_EQ(tarn_rpc_msg_send(client.get(), 2, id, nullptr, &none, 60000), -1);
    }
    wrong(GATEWAYD_MSG_SET, request().text(1, "x"), -1);
    wrong(GATEWAYD_MSG_SET, request().text(1, "x").number(2, MSG_ELM_TYPE_FLOAT, 1.0f), -1);
    wrong(GATEWAYD_MSG_GET, request().text(1, "x"), -2);
    wrong(GATEWAYD_MSG_GET, request().text(1, ""), -2);
    for (const std::string &name :
         {std::string(), std::string(64, 'n'), std::string("a b"), std::string("a=b"),
          std::string("a\0b", 3), std::string("\xc3\xa4")})
    {
        wrong(GATEWAYD_MSG_SET, request().text(1, name).value(1), -3);
    }
    wrong(GATEWAYD_MSG_SET, request().text(1, std::string(63, 'n')).value(1), 0);
    wrong(1005, request(), GATEWAYD_NO_SUCH_CALL);
    wrong(999999, request(), GATEWAYD_NO_SUCH_CALL);
    const drain lines(gateway.daemon);
    for (int i = 0; i < 1024; ++i)
    {
        (void)call(client, GATEWAYD_MSG_SET, request().text(1, "p" + std::to_string(i)).value(i));
    }
    wrong(GATEWAYD_MSG_SET, request().text(1, "one.more").value(1), GATEWAYD_TABLE_FULL);
    wrong(GATEWAYD_MSG_SET, request().text(1, "p0").value(7), 0);
    EXPECT_EQ(call(client, GATEWAYD_MSG_LIST).code, 0);
}

TEST_P(GatewaydRpc, EchoCarriesTheBytesUpToItsLimit)
{
    served gateway(GetParam());
    const rpc_owner client = gateway.connect();
    constexpr size_t around = 8; // of a string element
    const auto comes_back = [&](const request &asked) {
        const reply echoed = call(client, GATEWAYD_MSG_ECHO, asked);
        EXPECT_EQ(echoed.code, 0);
        EXPECT_TRUE(bytes_of(echoed.msg) == bytes_of(asked.msg));
    };
    comes_back(request());
    comes_back(all_elements());
    comes_back(request().text(9, std::string((1 << 20) - around, 'x')));
    const std::string large((1 << 20) - around + 1, 'x');
    EXPECT_EQ(call(client, GATEWAYD_MSG_ECHO, request().text(9, large)).code, -4);
    EXPECT_EQ(call(client, GATEWAYD_MSG_ECHO).code, 0) << "the connection still stands";
}

TEST_P(GatewaydRawRpc, EchoOfNonsenseIsRefused)
{
    served gateway(GetParam());
    rpc_test::raw_peer peer(gateway.at);
    const std::string strings[] = {
        std::string("\x3c\0\1\0\0\0\5ab", 9),                        // cut off
        std::string("\x3c\0\1\0\0\0\2abc", 10),                      // no 0 byte behind it
        std::string("\x0b\0\0\1", 4),                                // id 0
        std::string("\2\0\1", 3),                                    // an end without its begin
        std::string("\1\0\1\0\0\0\1", 7),                            // a begin without its end
        std::string("\1\0\1\0\0\0\7\2\0\1", 10),                     // a wrong count of children
        std::string("\3\0\1\0\0\0\2\x0b\0\1\1\x15\0\1\1\4\0\1", 18), // an array of two types
        std::string(1, '\x3c'),
    };
    uint32_t seq = 0;
    for (const std::string &bytes : strings)
    {
        ASSERT_TRUE(peer.send(rpc_test::frame(++seq, GATEWAYD_MSG_ECHO, 1, bytes)));
        const std::string reply = peer.read(24);
        EXPECT_EQ(reply.substr(20), rpc_test::words({0xffffffff})) << seq;
    }
}

TEST_P(GatewaydRpc, StatisticsCount)
{
    served gateway(GetParam());
    const rpc_owner client = gateway.connect();
    const rpc_owner other = gateway.connect();
    EXPECT_EQ(call(other, GATEWAYD_MSG_ECHO).code, 0);
    const reply first = call(client, GATEWAYD_MSG_STATS);
    EXPECT_EQ(first.code, 0);
    EXPECT_EQ(first.number<uint64_t>(1, MSG_ELM_TYPE_UINT64), 2u);
    EXPECT_EQ(first.number<uint64_t>(2, MSG_ELM_TYPE_UINT64), 2u);
    const auto uptime_ms = first.number<uint64_t>(3, MSG_ELM_TYPE_UINT64);
    EXPECT_TRUE(support::wait_until([&] {
        return call(client, GATEWAYD_MSG_STATS).number<uint64_t>(3, MSG_ELM_TYPE_UINT64) >
               uptime_ms;
    }));
}

TEST_P(GatewaydRpc, FilesLandInTheSpoolUnderPlainNamesOnly)
{
    const support::temp_dir spool;
    const support::temp_dir source;
    std::string content(700001, '\0');
    for (size_t i = 0; i < content.size(); ++i)
    {
        content[i] = static_cast<char>(i * 7 + i / 251);
    }
    support::write_file(source.file("file"), content);
    served gateway(GetParam(), {"--spool=" + spool.path()});
    const rpc_owner client = gateway.connect();
    EXPECT_EQ(send_file(client, source.file("file"), "report 1.bin"), "");
    EXPECT_TRUE(support::read_file(spool.file("report 1.bin")) == content);
    for (const std::string name : {"../up", "/tmp/absolute", "sub/file", "..", ".hidden", "a..b",
                                   "back\\slash", "line\nend"})
    {
        EXPECT_NE(send_file(client, source.file("file"), name), "") << name;
    }
    EXPECT_NE(send_file(client, source.file("file"), std::string(256, 'n')), "");
    // nothing but the one file, here and beside it
    size_t files = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator(spool.path()))
    {
        ++files;
    }
    EXPECT_EQ(files, 1u);
    EXPECT_FALSE(std::filesystem::exists(spool.path() + "/../up"));
    EXPECT_FALSE(std::filesystem::exists("/tmp/absolute"));
    EXPECT_EQ(call(client, GATEWAYD_MSG_ECHO).code, 0);
}

TEST_P(GatewaydRpc, WithoutASpoolFilesAreRefused)
{
    const support::temp_dir source;
    support::write_file(source.file("file"), "content");
    served gateway(GetParam());
    const rpc_owner client = gateway.connect();
    EXPECT_NE(send_file(client, source.file("file"), "name"), "");
}

TEST_P(GatewaydRpc, MoreConnectionsThanAllowedAreTurnedAway)
{
    served gateway(GetParam(), {"--max-conn=1"});
    const rpc_owner client = gateway.connect();
    EXPECT_EQ(call(client, GATEWAYD_MSG_ECHO).code, 0);
    const rpc_owner second = rpc_test::make_client(gateway.at);
    (void)tarn_rpc_loop(second.get()); // connects, and is dropped
    TARN_RPC_MSG answer = nullptr;
    EXPECT_LT(tarn_rpc_msg_send(second.get(), 1, GATEWAYD_MSG_ECHO, nullptr, &answer, 1000), 0);
    EXPECT_EQ(call(client, GATEWAYD_MSG_ECHO).code, 0);
}

// Every request that was running is answered, by its result or by a refusal, and nothing stays.
TEST_P(GatewaydRpc, SigtermUnderLoadEndsInTime)
{
    served gateway(GetParam());
    std::atomic<bool> stop{false};
    std::atomic<int> strange{0};
    std::atomic<int> answered{0};
    std::vector<std::jthread> load;
    for (int i = 0; i < 4; ++i)
    {
        load.emplace_back([&] {
            const rpc_owner client = gateway.connect();
            request asked;
            asked.text(9, std::string(200000, 'x'));
            bool ending = false;
            while (!stop && tarn_rpc_is_connected(client.get()))
            {
                TARN_RPC_MSG answer = nullptr;
                const int code = tarn_rpc_msg_send(client.get(), 1, GATEWAYD_MSG_ECHO,
                                                   asked.msg.get(), &answer, 60000);
                const msg_owner owner(answer);
                ending = ending || code == GATEWAYD_ENDING;
                // a failure of the layer is the number of a source line
                const bool lost = code < -20;
                strange += lost || code == GATEWAYD_ENDING ||
                                   (code == 0 && bytes_of(owner) == bytes_of(asked.msg))
                               ? 0
                               : 1;
                strange += code == 0 && ending ? 1 : 0;
                answered += code == 0 ? 1 : 0;
            }
        });
    }
    EXPECT_TRUE(support::wait_until([&] { return answered > 20; }, 60000));
    expect_orderly_end(gateway.daemon);
    stop = true;
    load.clear();
    EXPECT_EQ(strange, 0);
    EXPECT_FALSE(gateway.self.has_heap());
    EXPECT_FALSE(gateway.self.is_locked());
}

#if defined(TARN_WITH_TLS)

TEST(GatewaydTls, OnlyPeersOfTheAuthorityAreServed)
{
    const support::layer layer;
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    served gateway("tls");
    const tlsu_test::credentials stranger(tlsu_test::all().stranger);
    transport at = gateway.at;
    for (const tlsu_credentials *const secret :
         {stranger.get(), static_cast<const tlsu_credentials *>(nullptr)})
    {
        at.client_secret = secret;
        const rpc_owner client = rpc_test::make_client(at);
        (void)tarn_rpc_loop(client.get());
        TARN_RPC_MSG answer = nullptr;
        EXPECT_LT(tarn_rpc_msg_send(client.get(), 1, GATEWAYD_MSG_ECHO, nullptr, &answer, 2000),
                  -20);
    }
    const rpc_test::raw_peer silent[3] = {rpc_test::raw_peer(gateway.at),
                                          rpc_test::raw_peer(gateway.at),
                                          rpc_test::raw_peer(gateway.at)};
    EXPECT_EQ(call(gateway.connect(), GATEWAYD_MSG_ECHO).code, 0);
    expect_orderly_end(gateway.daemon);
}

TEST(GatewaydTls, DirectoriesThatDoNotFitAreRefused)
{
    const support::layer layer;
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    const instance self;
    const auto refused = [&](const tls_directory &dir, const std::string &why) {
        const failure row = {{self.option(), "-d", dir.option()},
                             {dir.option(), "takes the path of a directory", why}};
        expect_failure(row);
    };
    const tls_directory good;
    for (const std::string file : {"secret", "server.chain", "server.cert", "server.key"})
    {
        const tls_directory dir;
        std::filesystem::remove(dir.file(file));
        refused(dir, file + ": No such file");
        dir.put(file, "");
        refused(dir, file);
        dir.put(file, std::string(100000, 'x'));
        refused(dir, file + ": too large");
    }
    const tls_directory dir;
    dir.put("secret", "another secret\n");
    refused(dir, "server.cert, server.key");
    dir.put("secret", std::string(tlsu_test::secret) + "\n");
    dir.put("server.chain", tlsu_test::encipher("no certificate"));
    refused(dir, "server.chain");
}

#endif
