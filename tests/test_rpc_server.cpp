// RPC endpoints from the answering side: the bytes of frames, hostile peers, many connections, the
// admission and the end of server connections; one suite over every transport.

#include "rpc_support.h"

#include <numeric>
#include <thread>

using namespace rpc_test;
using support::expect_check;
using support::log_capture;
using support::wait_until;

namespace
{

class RpcServer : public RpcBase
{
};
INSTANTIATE_TEST_SUITE_P(Transports, RpcServer, raw_kinds,
                         [](const auto &kind) { return std::string(kind.param); });

/** Without raw peers. */
class RpcServerLoad : public RpcBase
{
};
INSTANTIATE_TEST_SUITE_P(Transports, RpcServerLoad, kinds,
                         [](const auto &kind) { return std::string(kind.param); });

/** The element that text_message() writes. */
std::string text_element(std::string_view text)
{
    return std::string("\x3c\0\1", 3) + words({static_cast<uint32_t>(text.size())}) +
           std::string(text) + '\0';
}

/** The peer is answered: the server's machine is in step with it. */
void expect_served(raw_peer &peer, uint32_t seq = 77)
{
    ASSERT_TRUE(peer.send(frame(seq, 1000, 1, text_element("ok"))));
    const std::string expected = frame(seq, 1000 | 0x80000000u, 7, text_element("ok"));
    EXPECT_EQ(peer.read(expected.size()), expected);
}

TEST_P(RpcServer, FramesAreTheExpectedBytes)
{
    server svr(at_);
    svr.start();
    raw_peer peer(at_);
    // literally, once
    const std::string request("TrPC\0\0\0\x1a\0\0\0\5\0\0\3\xe8\0\0\0\x0a\0\0\0\1"
                              "\x3c\0\1\0\0\0\2hi\0",
                              34);
    EXPECT_EQ(request, frame(5, 1000, 1, text_element("hi")));
    ASSERT_TRUE(peer.send(request));
    EXPECT_EQ(peer.read(34), std::string("TrPC\0\0\0\x1a\0\0\0\5\x80\0\3\xe8\0\0\0\x0a\0\0\0\7"
                                         "\x3c\0\1\0\0\0\2hi\0",
                                         34));
    // no data asked for: a reply all the same
    ASSERT_TRUE(peer.send(frame(6, 1000, 0, text_element("hi"))));
    EXPECT_EQ(peer.read(24), frame(6, 1000 | 0x80000000u, 7));
    // and what the server sends by itself
    ASSERT_TRUE(wait_until([&] { return svr.any() != nullptr; }));
    const msg_owner msg = text_message("x");
    EXPECT_EQ(tarn_rpc_msg_send(svr.any(), 9, 1001, msg.get(), nullptr, 0), 0);
    EXPECT_EQ(peer.read(33), frame(9, 1001, 0, text_element("x")));
}

TEST_P(RpcServer, PeerWithoutTheLibraryIsUnderstood)
{
    server svr(at_);
    svr.start();
    std::vector<std::string> argv = {"/usr/bin/env", "python3",
                                     std::string(TARN_TEST_DATA_DIR) + "/rpc_frame.py", at_.addr};
    if (!at_.port.empty())
    {
        argv.push_back(at_.port);
    }
    auto peer = support::child_process::program(argv);
    EXPECT_EQ(peer.read_rest(), "ok\n");
    EXPECT_EQ(peer.wait(), 0);
}

TEST_P(RpcServer, AnyFragmentationIsTheSameFrame)
{
    server svr(at_);
    svr.start();
    raw_peer peer(at_);
    const std::string text(3000, 'f');
    const std::string request = frame(1, 1000, 1, text_element(text));
    const std::string reply = frame(1, 1000 | 0x80000000u, 7, text_element(text));
    const std::string whole = request + request + request;
    for (const size_t piece : {size_t{1}, size_t{7}, size_t{23}, size_t{1000}, whole.size()})
    {
        for (size_t at = 0; at < whole.size(); at += piece)
        {
            ASSERT_TRUE(peer.send(std::string_view(whole).substr(at, piece)));
        }
        EXPECT_EQ(peer.read(3 * reply.size()), reply + reply + reply);
    }
    // larger than a chunk, behind a small one
    const std::string big(300000, 'B');
    ASSERT_TRUE(peer.send(request + frame(2, 1000, 1, text_element(big)) + request));
    const std::string expected = reply + frame(2, 1000 | 0x80000000u, 7, text_element(big)) + reply;
    EXPECT_TRUE(peer.read(expected.size()) == expected);
}

TEST_P(RpcServer, FindsItsWayThroughGarbage)
{
    server svr(at_);
    svr.start();
    raw_peer peer(at_);
    log_capture log;
    for (const std::string &garbage :
         {std::string("noise"), words({magic}) + words({1}), words({magic, 7}),
          words({magic, 0, magic, 0}), std::string("TrP"), std::string(100000, 'T') + "x",
          frame(3, 1000 | 0x80000000u, 0), frame(3, 1000 | 0x80000000u, 0, "unasked")})
    {
        ASSERT_TRUE(peer.send(garbage + "....")); // a byte that ends a half magic
        expect_served(peer);
    }
    for (uint32_t len = 1; len < 8; ++len)
    {
        ASSERT_TRUE(peer.send(words({magic, len})));
        expect_served(peer);
        EXPECT_TRUE(log.contains("warn", "invalid frame size [" + std::to_string(len) + "]!"));
    }
    // a doubled first byte costs the frame that it begins
    ASSERT_TRUE(peer.send("T" + frame(1, 1000, 1, text_element("lost"))));
    expect_served(peer);
    // seq_no and msg_id alone, with a tail that is too short for more
    for (uint32_t len = 8; len < 16; ++len)
    {
        ASSERT_TRUE(peer.send(words({magic, len, 4, 1000}) + std::string(len - 8, '\xff')));
        EXPECT_EQ(peer.read(24), frame(4, 1000 | 0x80000000u, 7));
    }
    // ids of the layer's own
    ASSERT_TRUE(peer.send(frame(8, 999, 1, text_element("?"))));
    const std::string refusal = peer.read(24);
    EXPECT_EQ(refusal.substr(0, 20), frame(8, 999 | 0x80000000u, 0).substr(0, 20));
    EXPECT_LT(static_cast<signed char>(refusal[20]), 0);
    EXPECT_TRUE(log.contains("warn", "unknown msg_id [999]"));
}

TEST_P(RpcServer, LengthsAreNotTrusted)
{
    std::atomic<uint32_t> seen{0};
    server svr(at_, [&](TARN_RPC, uint32_t, uint32_t id, TARN_RPC_MSG msg, TARN_RPC_MSG rsp) {
        if (id == 1001)
        {
            seen = tarn_rpc_msg_data_len(msg);
            const uint8_t *const data = tarn_rpc_msg_data(msg);
            EXPECT_EQ(std::accumulate(data, data + std::min(seen.load(), 4096u), 0u),
                      static_cast<uint32_t>('a' + 'b'));
        }
        EXPECT_NE(id, 1003u) << "of a line that was given up";
        return echo(nullptr, 0, 0, msg, rsp);
    });
    svr.start();
    raw_peer peer(at_);
    // more data announced than the frame has: zeros, not the bytes of the frame before
    ASSERT_TRUE(peer.send(frame(1, 1000, 1, text_element(std::string(5000, 's')))));
    (void)peer.read(24 + 8 + 5000);
    const uint32_t most = support::with_sanitizer ? 1u << 20 : 0xFFFFFFFFu;
    for (const uint32_t claimed : {3u, 100000u, most})
    {
        ASSERT_TRUE(peer.send(words({magic, 18, 2, 1001, claimed, 0}) + "ab"));
        EXPECT_EQ(peer.read(24), frame(2, 1001 | 0x80000000u, 7));
        EXPECT_EQ(seen, claimed);
    }
    ASSERT_TRUE(peer.send(words({magic, 16, 2, 1002, most, 0}))); // nothing of it came
    EXPECT_EQ(peer.read(24), frame(2, 1002 | 0x80000000u, 7));
    // less: the rest is left out
    ASSERT_TRUE(peer.send(words({magic, 19, 2, 1001, 2, 0}) + "abc"));
    EXPECT_EQ(peer.read(24), frame(2, 1001 | 0x80000000u, 7));
    EXPECT_EQ(seen, 2u);
    // four gigabytes announced, then silence: the others are served meanwhile
    raw_peer liar(at_);
    const auto address_space = [] {
        return std::stoul(support::read_file("/proc/self/statm")) * 4096;
    };
    const size_t before = address_space();
    ASSERT_TRUE(liar.send(words({magic, 0xFFFFFFFFu, 1, 1000}) + std::string(100000, 'z')));
    expect_served(peer);
    EXPECT_LT(address_space(), before + (1u << 30)); // memory for what has come, not for the claim
    ASSERT_TRUE(wait_until([&] { return svr.admitted == 2; }));
    liar.close();
    EXPECT_TRUE(wait_until([&] { return svr.ended == 1; }));
    // a limit that was asked for
    tarn_rpc_set_frame_limit(svr.get(), 1000);
    for (const std::string &above :
         {words({magic, 1001}) + "x", words({magic, 16, 1, 1000, 1001, 0})})
    {
        raw_peer bold(at_);
        expect_served(bold);
        ASSERT_TRUE(bold.send(above + frame(2, 1003, 1)));
        EXPECT_TRUE(bold.closed());
    }
    expect_served(peer); // admitted before the limit
}

TEST_P(RpcServer, SurvivesFloodsAndPeersThatLeaveOrNeverRead)
{
    server svr(at_, [](TARN_RPC rpc, uint32_t seq, uint32_t id, TARN_RPC_MSG msg,
                       TARN_RPC_MSG rsp) { return echo(rpc, seq, id, msg, rsp); });
    svr.start();
    raw_peer peer(at_);
    // keep-alives
    std::string flood;
    for (int i = 0; i < 10000; ++i)
    {
        flood += words({magic, 0});
    }
    for (int i = 0; i < (support::with_sanitizer ? 5 : 100); ++i)
    {
        ASSERT_TRUE(peer.send(flood));
    }
    expect_served(peer);
    {
        // one that never reads: its replies fill the socket
        raw_peer deaf(at_);
        const std::string request = frame(1, 1000, 1, text_element(std::string(100000, 'd')));
        std::thread sender([&] {
            while (deaf.send(request))
            {
            }
        });
        tarn_sleep_ms(50);
        expect_served(peer);
        // half a frame and gone
        for (size_t at = 1; at < request.size(); at += 9999)
        {
            raw_peer half(at_);
            ASSERT_TRUE(half.send(std::string_view(request).substr(0, at)));
        }
        expect_served(peer);
        svr.stop(); // ends the reply that is stuck
        sender.join();
    }
    EXPECT_TRUE(peer.closed());
    EXPECT_EQ(svr.admitted, svr.ended);
}

TEST_P(RpcServer, ReplyCountsOnce)
{
    // The library asks, a raw peer answers: twice, late, under another id.
    server svr(at_);
    svr.start();
    raw_peer peer(at_);
    ASSERT_TRUE(wait_until([&] { return svr.any() != nullptr; }));
    for (uint32_t seq = 0; seq < 3; ++seq)
    {
        std::thread answer([&] {
            EXPECT_EQ(peer.read(33), frame(seq, 1000, 1, text_element("q")));
            const std::string right = frame(seq, 1000 | 0x80000000u, 5, text_element("r"));
            EXPECT_TRUE(peer.send(frame(seq, 0x80000000u, 1) + right + right + right));
        });
        const outcome got = call(svr.any(), seq, "q");
        answer.join();
        EXPECT_EQ(got.code, 5);
        EXPECT_EQ(got.text, "r");
    }
    // a negative code may come with data
    std::thread answer([&] {
        (void)peer.read(33);
        EXPECT_TRUE(peer.send(frame(9, 1000 | 0x80000000u, 0xFFFFFFFFu, text_element("why"))));
    });
    const outcome got = call(svr.any(), 9, "q");
    answer.join();
    EXPECT_EQ(got.code, -1);
    EXPECT_EQ(got.text, "why");
}

TEST_P(RpcServerLoad, ServesManyClientsAndOneSharedOne)
{
    server svr(at_);
    svr.start();
    // handshakes take their time
    const uint32_t count = support::with_sanitizer || at_.client_secret != nullptr ? 16 : 64;
    const uint32_t rounds = support::with_sanitizer ? 20 : 50;
    const rpc_owner shared = connected_client(at_);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < count; ++t)
    {
        threads.emplace_back([&, t] {
            const rpc_owner own = connected_client(at_);
            for (uint32_t i = 0; i < rounds; ++i)
            {
                const std::string text = std::to_string(t * 1000 + i);
                EXPECT_EQ(call(own.get(), i, text).text, text);
                EXPECT_EQ(call(shared.get(), t, text).text, text);
            }
        });
    }
    for (auto &thread : threads)
    {
        thread.join();
    }
    EXPECT_TRUE(wait_until([&] { return svr.ended == static_cast<int>(count); }));
}

TEST_P(RpcServerLoad, DestroyWithLiveConnectionsLeavesNothing)
{
    for (const bool own_the_end : {true, false}) // without on_disconnected they destroy themselves
    {
        std::atomic<bool> stop{false};
        server svr(
            at_,
            [&](TARN_RPC rpc, uint32_t seq, uint32_t id, TARN_RPC_MSG msg, TARN_RPC_MSG rsp) {
                (void)call(rpc, 1, "asks back");
                return echo(rpc, seq, id, msg, rsp);
            },
            256, own_the_end);
        svr.start();
        const int count = support::with_sanitizer || at_.client_secret != nullptr ? 20 : 100;
        std::vector<std::unique_ptr<client_log>> logs;
        std::vector<rpc_owner> clients;
        std::vector<std::thread> callers;
        std::atomic<int> failed{0};
        for (int i = 0; i < count; ++i)
        {
            logs.push_back(std::make_unique<client_log>());
            clients.push_back(connected_client(at_, logs.back().get()));
        }
        for (const rpc_owner &client : clients)
        {
            callers.emplace_back([&failed, rpc = client.get()] {
                while (call(rpc, 2, "x").code == 7)
                {
                }
                ++failed;
            });
        }
        EXPECT_TRUE(wait_until([&] { return svr.admitted == count; }));
        tarn_sleep_ms(20);
        svr.stop();
        EXPECT_EQ(svr.ended, own_the_end ? count : 0);
        for (auto &caller : callers)
        {
            caller.join();
        }
        clients.clear();
        EXPECT_EQ(failed, count);
        EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
    }
}

TEST_P(RpcServer, PeerMayBeTurnedAwayAndComeBack)
{
    server svr(at_, echo, 2);
    svr.refuse = -9;
    svr.start();
    const log_capture log;
    raw_peer refused(at_);
    EXPECT_TRUE(refused.closed());
    EXPECT_TRUE(log.contains("warn", "on_peer_connecting return [-9], drop peer("));
    {
        const tarn::critical_section_guard guard(svr.get()->conn_table_cs);
        EXPECT_EQ(tarn_hash_count(svr.get()->conn_table), 0u);
    }
    svr.refuse = 0;
    {
        raw_peer first(at_);
        raw_peer second(at_);
        expect_served(first);
        expect_served(second);
        raw_peer third(at_);
        EXPECT_TRUE(third.closed()); // the server is full
    }
    EXPECT_TRUE(wait_until([&] { return svr.ended == 2; }));
    raw_peer again(at_);
    expect_served(again);
    EXPECT_EQ(svr.admitted, 3);
}

TEST_P(RpcServer, WithoutCallbacksPeersAreTurnedAwayOrAnsweredWithZero)
{
    TARN_RPC rpc = nullptr;
    ASSERT_EQ(tarn_rpc_server_create(nullptr, at_.addr.c_str(), at_.port_or_null(), 10000, 4,
                                     nullptr, nullptr, &rpc),
              0);
    const rpc_owner svr(rpc);
    raw_peer refused(at_);
    EXPECT_EQ(tarn_rpc_loop(svr.get()), 0); // by hand
    EXPECT_TRUE(refused.closed());

    // A client without on_msg, whose peer asks.
    const transport other = make_transport(GetParam());
    server asking(other);
    asking.start();
    const rpc_owner client = connected_client(other);
    ASSERT_TRUE(wait_until([&] { return asking.any() != nullptr; }));
    EXPECT_EQ(call(asking.any(), 1, "anybody?").code, 0);
}

TEST_P(RpcServer, ConnectionMayBeDestroyedInItsCallbacks)
{
    // A connection that goes in its own handler, while the server lives on.
    server svr(at_, [](TARN_RPC rpc, uint32_t, uint32_t, TARN_RPC_MSG, TARN_RPC_MSG) {
        tarn_conn_disconnect(tarn_rpc_conn(rpc)); // on_disconnected destroys it, here
        return 0;
    });
    svr.start();
    for (int i = 0; i < 20; ++i)
    {
        raw_peer peer(at_);
        ASSERT_TRUE(peer.send(frame(1, 1000, 1)));
        EXPECT_TRUE(peer.closed());
    }
    EXPECT_TRUE(wait_until([&] { return svr.ended == 20; }));
}

TEST_P(RpcServer, KeepsTheLineAliveAndDropsAMutePeer)
{
    server svr(at_);
    svr.start();
    client_log log;
    rpc_owner client = connected_client(at_, &log);
    raw_peer mute(at_);
    raw_peer trickle(at_);
    EXPECT_TRUE(wait_until([&] { return svr.admitted == 3; }));
    log_capture lines;
    std::atomic<bool> stop{false};
    std::thread drip([&] {
        while (!stop && trickle.send("x"))
        {
            tarn_sleep_ms(50);
        }
    });
    {
        const support::level_scope debug(TARN_LOG_LEVEL_DEBUG);
        expect_check("RVON(msg,TARN_ERRLN)"); // what the peer makes of a keep-alive
        tarn::tick_ms_offset += 10000;
        EXPECT_TRUE(lines.wait_for("] send keep alive"));
        EXPECT_TRUE(lines.wait_for("] no req match reply with seq_no [0]"));
    }
    tarn::tick_ms_offset += 20100; // the client has been heard of, the others have not
    EXPECT_TRUE(mute.closed());
    EXPECT_TRUE(trickle.closed());
    stop = true;
    drip.join();
    EXPECT_TRUE(wait_until([&] { return svr.ended == 2; }));
    EXPECT_EQ(lines.count("] conn timeout!"), 2u);
    EXPECT_EQ(log.disconnects, 0);
    EXPECT_GT(log.idles, 0);
    EXPECT_EQ(call(client.get(), 1, "still").text, "still");
    tarn::tick_ms_offset = 0;
}

} // namespace
