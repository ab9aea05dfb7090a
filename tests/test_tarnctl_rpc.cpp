// tarnctl's calls, against servers that the test runs itself: RPC over TCP, TLS and local sockets,
// files, local calls.

#include "rpc_support.h"
#include "support_ipc.h"
#include "tarnctl_support.h"

#include "tarn_rpc_file.h"

#include <csignal>

using namespace tarnctl_test;

namespace
{

/** The servers are a stage here: what they note of pings and of ends is the concern of other tests. */
struct stage
{
    const support::level_scope level{TARN_LOG_LEVEL_INFO};
    const support::layer layer;
};

#if defined(TARN_WITH_TLS)
/** Credentials that 'tarnctl tls init' made, as a server loads them. */
class server_credentials
{
public:
    explicit server_credentials(const std::string &dir)
        : secret_(support::read_file(dir + "/secret")),
          chain_(support::read_file(dir + "/server.chain")),
          cert_(support::read_file(dir + "/server.cert")),
          key_(support::read_file(dir + "/server.key"))
    {
        secret_.erase(secret_.find('\n'));
        const auto length = [](const std::string &text) { return static_cast<int>(text.size()); };
        record_ = {sizeof record_,  TLSU_FLAG_REQUIRE_PEER_CERT,
                   secret_.c_str(), chain_.data(),
                   cert_.data(),    key_.data(),
                   length(chain_),  length(cert_),
                   length(key_),    0};
    }
    [[nodiscard]] const tlsu_credentials *get() const
    {
        return &record_;
    }

private:
    std::string secret_;
    std::string chain_;
    std::string cert_;
    std::string key_;
    tlsu_credentials record_ = {};
};

/** One set for all tests of the process. */
const std::string &credentials_dir()
{
    static const support::temp_dir dir;
    static const std::string path = [] {
        (void)expect_ok({"tls", "init", dir.file("set")});
        return dir.file("set");
    }();
    return path;
}
#endif

/** A server and the words with which tarnctl reaches it. */
class place
{
public:
    explicit place(const std::string &kind)
    {
        if (kind == "local")
        {
            at_ = rpc_test::make_transport("local");
            words_ = {"local:" + at_.addr};
            return;
        }
        at_ = rpc_test::make_transport("tcp");
        words_ = {at_.addr + ":" + at_.port};
#if defined(TARN_WITH_TLS)
        if (kind == "tls")
        {
            credentials_ = std::make_unique<server_credentials>(credentials_dir());
            at_.server_secret = credentials_->get();
            words_.push_back("--tls-dir=" + credentials_dir());
        }
#endif
    }
    [[nodiscard]] const rpc_test::transport &at() const
    {
        return at_;
    }
    /** "rpc", the subcommand, what stands before the server and behind it. */
    [[nodiscard]] std::vector<std::string> command(const std::string &name,
                                                   std::vector<std::string> before,
                                                   const std::vector<std::string> &behind) const
    {
        before.insert(before.begin(), {"rpc", name});
        before.push_back(words_[0]);
        before.insert(before.end(), behind.begin(), behind.end());
        before.insert(before.end(), words_.begin() + 1, words_.end());
        return before;
    }

private:
    rpc_test::transport at_;
#if defined(TARN_WITH_TLS)
    std::unique_ptr<server_credentials> credentials_;
#endif
    std::vector<std::string> words_;
};

/** Gives back the elements that it got. */
int echo_all(TARN_RPC, uint32_t, uint32_t id, TARN_RPC_MSG msg, TARN_RPC_MSG rsp)
{
    if (id == 1001)
    {
        return -2;
    }
    TARN_RPC_MSG_ITER it = nullptr;
    if (msg == nullptr || tarn_rpc_msg_read_begin(msg, &it) != 0)
    {
        return 3;
    }
    do
    {
        const uint16_t elm = tarn_rpc_msg_element_id(it);
        char value[256] = "";
        uint32_t length = sizeof value;
        switch (const uint8_t type = tarn_rpc_msg_element_type(it))
        {
        case MSG_ELM_TYPE_OBJECT_BEGIN:
            (void)tarn_rpc_msg_write_object_begin(rsp, elm);
            break;
        case MSG_ELM_TYPE_OBJECT_END:
            (void)tarn_rpc_msg_write_object_end(rsp);
            break;
        case MSG_ELM_TYPE_ARRAY_BEGIN:
            (void)tarn_rpc_msg_write_array_begin(rsp, elm);
            break;
        case MSG_ELM_TYPE_ARRAY_END:
            (void)tarn_rpc_msg_write_array_end(rsp);
            break;
        default:
            EXPECT_EQ(tarn_rpc_msg_element_value(it, value, &length), 0);
            EXPECT_EQ(tarn_rpc_msg_write_element_value(rsp, elm, type, value, length), 0);
        }
    } while (tarn_rpc_msg_read_next(&it) == 0);
    return 7;
}

class TarnctlRpc : public testing::TestWithParam<std::string>
{
protected:
    const stage stage_;
    const place place_{GetParam()};
};
INSTANTIATE_TEST_SUITE_P(All, TarnctlRpc, rpc_test::kinds,
                         [](const auto &row) { return row.param; });

/** What a receiving application notes, as the callbacks have no other way. */
struct inbox
{
    std::mutex lock;   ///< guards the next two
    std::string path;  ///< empty: files are refused
    std::string name;  ///< as the sender gave it
    std::string taken; ///< path of the file that is being received; of the loop's thread
    std::atomic<int> ends{0};
    std::atomic<TARN_RPC> conn{nullptr};
    std::atomic<uint32_t> break_at{101}; ///< percent at which the connection breaks, once

    static inline inbox *self = nullptr;
    static int begin(const char *file_name, uint32_t, const char **dst_path, void *)
    {
        const std::lock_guard guard(self->lock);
        self->name = file_name;
        self->taken = self->path;
        *dst_path = self->taken.c_str();
        return self->taken.empty() ? -5 : 0;
    }
    static void progress(uint32_t percent, void *)
    {
        if (percent >= self->break_at)
        {
            self->break_at = 101;
            tarn_conn_disconnect(tarn_rpc_conn(self->conn));
        }
    }
    static void end(void *)
    {
        ++self->ends;
    }
    void set_path(const std::string &to)
    {
        const std::lock_guard guard(lock);
        path = to;
    }
    std::string last_name()
    {
        const std::lock_guard guard(lock);
        return name;
    }
    /** Before the server is started. */
    void attach(rpc_test::server &server)
    {
        self = this;
        server.prepare = [this](TARN_RPC rpc) {
            conn = rpc;
            tarn_rpc_set_file_callbacks(rpc, begin, progress, end, nullptr);
        };
    }
};

std::string pattern(size_t size)
{
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i)
    {
        bytes[i] = static_cast<char>(i * 7 + i / 1000);
    }
    return bytes;
}

} // namespace

TEST_P(TarnctlRpc, CallPrintsTheAnswerAsATree)
{
    rpc_test::server server(place_.at(), echo_all);
    server.start();
    const auto call = [&](const std::vector<std::string> &elements) {
        return place_.command("call", {}, elements);
    };
    EXPECT_EQ(expect_ok(call({"1000", "1:string=two words}", "2:double=-1.5e3", "3:[", "4:{",
                              "5:bool=true", "6:null", "}", "]", "7:int64=-9",
                              "8:bytes16=000102030405060708090a0b0c0d0e0f", "9:hex=00ff"})),
              "code 7\n1 string \"two words}\"\n2 double -1500\n3 array (1)\n  4 object (2)\n"
              "    5 bool true\n    6 null\n7 int64 -9\n"
              "8 bytes16 000102030405060708090a0b0c0d0e0f\n9 string \"\\x00\\xff\"\n");
    const std::string nested = "1:[2:{3:uint8=1, 4:string=\"a } \\\"b\\\"\"} 2:{3:uint8=0xff}]";
    EXPECT_EQ(expect_ok(call({"1000", nested})),
              "code 7\n1 array (2)\n  2 object (2)\n    3 uint8 1\n    4 string \"a } \\\"b\\\"\"\n"
              "  2 object (1)\n    3 uint8 255\n");
    const std::string json = expect_ok(
        call({"--json", "1000", nested, "9:hex=00ff", "5:float=0.1", "6:string=\xc3\xa4\"\\"}));
    EXPECT_EQ(json_value(json, "v['code'], len(v['elements'][0]['elements']), "
                               "v['elements'][0]['elements'][0]['elements'][1]['value'], "
                               "v['elements'][1]['hex'], v['elements'][2]['value'], "
                               "v['elements'][3]['value'] == '\\u00e4\"\\\\'"),
              "7 2 a } \"b\" 00ff 0.1 True");
    EXPECT_EQ(expect_ok(call({"1000"})), "code 3\n");
    EXPECT_EQ(expect_error(1, call({"1001"}), {"code -2", "documentation"}).out, "code -2\n");
}

TEST_P(TarnctlRpc, PingTellsTimes)
{
    rpc_test::server server(place_.at());
    server.start();
    const std::string text = expect_ok(place_.command("ping", {}, {"--count=3", "--interval=1"}));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 5);
    EXPECT_TRUE(has(text, "seq=3 time=")) << text;
    EXPECT_TRUE(has(text, "3 sent, 3 answered, 0% lost\nmin/avg/max = ")) << text;
    const std::string json =
        expect_ok(place_.command("ping", {}, {"--count=2", "--interval=0", "--json"}));
    EXPECT_EQ(json_value(json, "len(all), all[1]['seq'], all[2]['received'], "
                               "0 < all[2]['min_ms'] <= all[2]['avg_ms'] <= all[2]['max_ms']"),
              "3 2 2 True");
}

TEST_P(TarnctlRpc, SentFileArrives)
{
    const support::temp_dir dir;
    inbox box;
    rpc_test::server server(place_.at());
    box.attach(server);
    server.start();
    const std::string content = pattern(1500000);
    support::write_file(dir.file("source.bin"), content);
    box.set_path(dir.file("arrived"));
    const std::string text = expect_ok(place_.command("send", {dir.file("source.bin")}, {}));
    EXPECT_TRUE(has(text, "sent as source.bin: 1.4 MiB in ")) << text;
    EXPECT_EQ(text.find('\r'), std::string::npos) << "no bar without a terminal";
    EXPECT_EQ(box.last_name(), "source.bin");
    EXPECT_TRUE(support::read_file(dir.file("arrived")) == content);
    const std::string json =
        expect_ok(place_.command("send", {dir.file("source.bin")}, {"other", "--json"}));
    EXPECT_EQ(json_value(json, "v['bytes'], v['dest'], v['bytes_per_second'] > 0"),
              "1500000 other True");
    EXPECT_EQ(box.ends, 2);
    box.set_path("");
    (void)expect_error(1, place_.command("send", {dir.file("source.bin")}, {}),
                       {"refuses source.bin", "check that it takes files"});
}

TEST_P(TarnctlRpc, SendGoesOnAfterABreak)
{
    const support::temp_dir dir;
    inbox box;
    rpc_test::server server(place_.at());
    box.attach(server);
    box.break_at = 40;
    server.start();
    const std::string content = pattern(4000000);
    support::write_file(dir.file("source"), content);
    box.set_path(dir.file("arrived"));
    const run_result made = run(place_.command("send", {dir.file("source")}, {"--retry=30"}));
    EXPECT_EQ(made.status, 0) << made.err;
    EXPECT_TRUE(has(made.err, "broke, trying for 30 s")) << made.err;
    EXPECT_EQ(server.admitted, 2);
    EXPECT_EQ(box.ends, 1);
    EXPECT_TRUE(support::read_file(dir.file("arrived")) == content);
}

TEST(TarnctlRpcEnds, ServerThatGoesAwayIsToldOf)
{
    const stage stage;
    const place at("tcp");
    rpc_test::server server(at.at(),
                            [](TARN_RPC rpc, uint32_t, uint32_t, TARN_RPC_MSG, TARN_RPC_MSG) {
                                tarn_conn_disconnect(tarn_rpc_conn(rpc));
                                return 0;
                            });
    inbox box;
    box.attach(server);
    box.break_at = 0;
    server.start();
    (void)expect_error(1, at.command("call", {}, {"1000"}),
                       {"no answer", "--tls-dir", "--timeout"});
    const support::temp_dir dir;
    support::write_file(dir.file("source"), "content");
    box.set_path(dir.file("arrived"));
    auto child = start(at.command("send", {dir.file("source")}, {"--retry=1"}), dir.file("err"));
    ASSERT_TRUE(support::wait_until([&] { return box.break_at != 0; }, 60000));
    server.stop();
    EXPECT_EQ(child.wait(60000), 1);
    EXPECT_TRUE(has(support::read_file(dir.file("err")), "run the same command again"));
}

#if defined(TARN_WITH_TLS)
TEST(TarnctlRpcEnds, WrongCredentialsAreRefused)
{
    const stage stage;
    const support::temp_dir dir;
    (void)expect_ok({"tls", "init", dir.file("other")});
    const place at("tls");
    rpc_test::server server(at.at());
    server.start();
    const std::string target = at.at().addr + ":" + at.at().port;
    (void)expect_error(1, {"rpc", "ping", target, "--tls-dir", dir.file("other")},
                       {"cannot connect", "same root"});
    (void)expect_error(1, {"rpc", "call", target, "1000", "--timeout=2000"},
                       {"no answer", "--tls-dir"});
    support::write_file(dir.file("other/client.key"), "noise");
    (void)expect_error(1, {"rpc", "ping", target, "--tls-dir", dir.file("other")},
                       {"credentials are no good", "tarnctl tls init"});
}
#endif

TEST(TarnctlRpcEnds, SendDrawsABarOnATerminal)
{
    const stage stage;
    const support::temp_dir dir;
    const place at("tcp");
    inbox box;
    rpc_test::server server(at.at());
    box.attach(server);
    server.start();
    support::write_file(dir.file("source"), pattern(900000));
    box.set_path(dir.file("arrived"));
    support::pty_pair pty;
    std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$@\" >" + pty.slave_name(), "sh",
                                     program};
    const auto words = at.command("send", {dir.file("source")}, {});
    argv.insert(argv.end(), words.begin(), words.end());
    auto child = support::child_process::program(argv);
    std::string seen;
    EXPECT_TRUE(support::wait_until([&] {
        pollfd waited = {pty.master(), POLLIN, 0};
        char bytes[4096];
        const ssize_t n =
            ::poll(&waited, 1, 10) == 1 ? ::read(pty.master(), bytes, sizeof bytes) : 0;
        seen.append(bytes, n > 0 ? static_cast<size_t>(n) : 0);
        return has(seen, "sent as source");
    }));
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(has(seen, "\r[##############################] 100%  878.9 KiB of 878.9 KiB"))
        << seen;
}

// ---- local calls --------------------------------------------------------------------------------------

TEST(TarnctlIpc, CallPrintsWhatTheFunctionGives)
{
    const stage stage;
    const std::string name = support::unique_name("ctl_ipc");
    support::ipc_side side;
    side.on_call = [](TARN_IPC conn, uint32_t func, TARN_DATA in, TARN_DATA *out) {
        return func == 9 ? -3 : support::ipc_echo(conn, func, in, out);
    };
    const support::ipc_owner server(side.serve(name));
    EXPECT_EQ(
        expect_ok({"ipc", "call", name, "5", "string=a b", "double=2.5", "int8=-7", "null",
                   "bool=true", "pair=1,2", "uint64=0xffffffffffffffff", "hex=00ff", "string="}),
        "code 5\nstring \"a b\"\ndouble 2.5\nint8 -7\nnull\nbool true\npair 1,2\n"
        "uint64 18446744073709551615\nstring \"\\x00\\xff\"\nstring \"\"\n");
    const std::string json =
        expect_ok({"ipc", "call", name, "4", "string=x", "float=0.1", "--json"});
    EXPECT_EQ(json_value(json, "v['code'], v['values'][0]['value'], v['values'][1]['value']"),
              "4 x 0.1");
    EXPECT_EQ(expect_ok({"ipc", "call", name, "0"}), "code 0\n");
    EXPECT_EQ(expect_error(1, {"ipc", "call", name, "9"}, {"code -3"}).out, "code -3\n");
}
