// RPC endpoints from the requester's side: requests and replies, the loop and who runs it, time-outs,
// reconnection, destroys inside callbacks; one suite over every transport.

#include "rpc_support.h"

#include <thread>

using namespace rpc_test;
using support::expect_check;
using support::log_capture;
using support::wait_until;

namespace
{

class Rpc : public RpcBase
{
};
INSTANTIATE_TEST_SUITE_P(Transports, Rpc, kinds,
                         [](const auto &kind) { return std::string(kind.param); });

TEST_P(Rpc, RequestIsAnsweredWithCodeAndData)
{
    server svr(at_);
    svr.start();
    client_log log;
    {
        const rpc_owner client = connected_client(at_, &log);
        EXPECT_EQ(log.connects, 1);
        const outcome answer = call(client.get(), 1, "hello");
        EXPECT_EQ(answer.code, 7);
        EXPECT_EQ(answer.text, "hello");
        const std::string big(1u << 20, 'b');
        EXPECT_TRUE(call(client.get(), 1, big).text == big);
        // no data, no reply wanted, an id with the reply bit
        TARN_RPC_MSG rsp = nullptr;
        EXPECT_EQ(tarn_rpc_msg_send(client.get(), 2, 1000 | 0x80000000u, nullptr, &rsp, 20000), 7);
        EXPECT_EQ(rsp, nullptr);
        EXPECT_EQ(tarn_rpc_msg_send(client.get(), 3, 1000, nullptr, nullptr, 0), 0);
        EXPECT_EQ(tarn_rpc_element_send(client.get(), 4, 1000, 1, MSG_ELM_TYPE_STRING, "one", 0,
                                        &rsp, 20000),
                  7);
        EXPECT_EQ(text_of(msg_owner(rsp).get()), "one");
        // the server asks, too
        log.on_msg = echo;
        EXPECT_EQ(call(svr.any(), 5, "back").text, "back");
        EXPECT_EQ(tarn_rpc_type(svr.any()), static_cast<uint32_t>(RPC_OBJ_TYPE_SERVER_CONN));
        EXPECT_STREQ(tarn_rpc_peer_address(client.get()),
                     tarn_conn_peer_endpoint(tarn_rpc_conn(client.get())));
        EXPECT_STREQ(tarn_rpc_name(client.get()), tarn_conn_name(tarn_rpc_conn(client.get())));
        EXPECT_EQ(tarn_rpc_context(client.get()), &log);
        EXPECT_TRUE(tarn_rpc_is_connected(svr.get()));
    }
    EXPECT_EQ(log.disconnects, 1);
    EXPECT_TRUE(wait_until([&] { return svr.ended == 1; }));
}

TEST_P(Rpc, SenderRunsTheTurnsWhenThereIsNoThread)
{
    server svr(at_);
    svr.start();
    const rpc_owner client = make_client(at_);
    EXPECT_FALSE(tarn_rpc_is_connected(client.get()));
    EXPECT_LT(call(client.get(), 1, "early").code, 0);
    EXPECT_EQ(tarn_rpc_loop(client.get()), 0); // connects
    ASSERT_TRUE(tarn_rpc_is_connected(client.get()));
    // Several threads: one runs the turns, and hands over when it has its own reply.
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 8; ++t)
    {
        threads.emplace_back([&, t] {
            for (uint32_t i = 0; i < (support::with_sanitizer ? 20 : 200); ++i)
            {
                const std::string text = std::to_string(t) + ":" + std::to_string(i);
                EXPECT_EQ(call(client.get(), t, text).text, text);
            }
        });
    }
    for (auto &thread : threads)
    {
        thread.join();
    }
    // A thread takes over, and gives back, while a request waits.
    ASSERT_EQ(tarn_rpc_loop_start(client.get()), 0);
    {
        const support::level_scope debug(TARN_LOG_LEVEL_DEBUG);
        const log_capture log;
        expect_check("RVOF(TARN_INVALID_HANDLE == rpc->thread,TARN_ERRLN)");
        EXPECT_LT(tarn_rpc_loop_start(client.get()), 0);
        EXPECT_LT(tarn_rpc_loop(client.get()), 0);
        expect_check("RVOF(rpc->thread != TARN_INVALID_HANDLE,TARN_ERRLN)");
        EXPECT_EQ(tarn_rpc_loop_stop(client.get()), 0);
        EXPECT_LT(tarn_rpc_loop_stop(client.get()), 0);
    }
    EXPECT_EQ(call(client.get(), 9, "again").text, "again");
}

TEST_P(Rpc, CallbackMaySendOnItsOwnObject)
{
    // Both sides ask back inside their handlers, down to a depth beyond the one at which requests
    // are put off.
    client_log log;
    const uint32_t depth = 24;
    const auto nested = [depth](TARN_RPC rpc, uint32_t seq, uint32_t, TARN_RPC_MSG msg,
                                TARN_RPC_MSG rsp) {
        if (seq < depth)
        {
            const outcome inner = call(rpc, seq + 1, text_of(msg) + ".");
            if (inner.code != 7)
            {
                return -1;
            }
        }
        return echo(rpc, seq, 0, msg, rsp);
    };
    log.on_msg = nested;
    server svr(at_, nested);
    svr.start();
    const rpc_owner client = connected_client(at_, &log);
    EXPECT_EQ(call(client.get(), 1, "x").text, "x");
    EXPECT_EQ(call(client.get(), depth, "y").text, "y");
}

TEST_P(Rpc, RefusalsAreReported)
{
    server svr(at_);
    svr.start();
    log_capture log;
    TARN_RPC none = nullptr;
    TARN_RPC_CALLBACK small = {sizeof small - 1, nullptr, nullptr, nullptr, nullptr, nullptr};
    int context = 0;
    ASSERT_EQ(tarn_rpc_client_create(nullptr, nullptr, nullptr, at_.addr.c_str(),
                                     at_.port_or_null(), 1000, &small, &context, &none),
              0);
    EXPECT_TRUE(log.contains("warn", "TARN_RPC_CALLBACK size too small!"));
    EXPECT_EQ(tarn_rpc_context(none), nullptr);
    EXPECT_EQ(tarn_rpc_get_tunable(none), 100u);
    EXPECT_EQ(tarn_rpc_set_tunable(none, 5), 0);
    EXPECT_EQ(tarn_rpc_get_tunable(none), 5u);
    EXPECT_LT(call(none, 1, "x").code, 0);
    EXPECT_TRUE(log.contains("] has not connected!"));
    tarn_close_handle(none);
    TARN_RPC_MSG rsp = nullptr;
    EXPECT_LT(tarn_rpc_msg_send(svr.get(), 1, 1000, nullptr, &rsp, 100), 0);
    EXPECT_TRUE(log.contains("] forbidden to send on server type rpc!"));
    const support::level_scope debug(TARN_LOG_LEVEL_DEBUG);
    expect_check("RVON(rpc_h,TARN_ERRLN)");
    expect_check("RVON(rpc,TARN_ERRLN)");
    expect_check("RVON(peer_addr,NULL)");
    EXPECT_LT(
        tarn_rpc_client_create(nullptr, nullptr, nullptr, "x", "1", 1, nullptr, nullptr, nullptr),
        0);
    EXPECT_LT(
        tarn_rpc_client_create(nullptr, nullptr, nullptr, nullptr, "1", 1, nullptr, nullptr, &none),
        0);
    tarn_rpc_destroy(nullptr);
}

TEST_P(Rpc, SequenceNumberInUseIsRefusedAndTheLineKept)
{
    std::atomic<bool> inside{false};
    std::atomic<bool> go{false};
    server svr(at_,
               [&](TARN_RPC rpc, uint32_t seq, uint32_t id, TARN_RPC_MSG msg, TARN_RPC_MSG rsp) {
                   inside = true;
                   EXPECT_TRUE(wait_until([&] { return go.load(); }));
                   return echo(rpc, seq, id, msg, rsp);
               });
    svr.start();
    const rpc_owner client = connected_client(at_);
    std::thread first([&] { EXPECT_EQ(call(client.get(), 5, "first").text, "first"); });
    EXPECT_TRUE(wait_until([&] { return inside.load(); }));
    EXPECT_LT(call(client.get(), 5, "second").code, 0);
    go = true;
    first.join();
    EXPECT_EQ(call(client.get(), 5, "third").text, "third");
}

TEST_P(Rpc, TimeoutClosesTheLineAndTheClientComesBack)
{
    std::atomic<bool> slow{true};
    server svr(at_,
               [&](TARN_RPC rpc, uint32_t seq, uint32_t id, TARN_RPC_MSG msg, TARN_RPC_MSG rsp) {
                   (void)wait_until([&] { return !slow; });
                   return echo(rpc, seq, id, msg, rsp);
               });
    svr.start();
    client_log log;
    const rpc_owner client = connected_client(at_, &log, 1);
    std::thread other([&] { EXPECT_LT(call(client.get(), 2, "waits", TARN_INFINITE).code, 0); });
    log_capture lines;
    EXPECT_TRUE(wait_until([&] {
        const tarn::critical_section_guard guard(client->lock);
        return tarn_hash_count(client->pending) == 1;
    }));
    EXPECT_LT(call(client.get(), 1, "slow", 50).code, 0);
    EXPECT_TRUE(lines.contains("error", "wait reply timeout!"));
    other.join(); // with the line
    EXPECT_TRUE(wait_until([&] { return log.disconnects == 1; }));
    slow = false;
    EXPECT_TRUE(wait_until([&] { return log.connects == 2; }));
    EXPECT_EQ(call(client.get(), 1, "x").text, "x");
}

TEST_P(Rpc, RequestsThatWaitFailWithTheLine)
{
    std::atomic<int> waiting{0};
    std::atomic<bool> go{false};
    server svr(at_, [&](TARN_RPC, uint32_t, uint32_t, TARN_RPC_MSG, TARN_RPC_MSG) {
        ++waiting;
        (void)wait_until([&] { return go.load(); });
        return 0;
    });
    svr.start();
    client_log log;
    const rpc_owner client = connected_client(at_, &log, 1);
    std::vector<std::thread> senders;
    for (uint32_t i = 0; i < 16; ++i)
    {
        senders.emplace_back(
            [&, i] { EXPECT_LT(call(client.get(), i, "x", TARN_INFINITE).code, 0); });
    }
    EXPECT_TRUE(wait_until([&] {
        const tarn::critical_section_guard guard(client->lock);
        return waiting == 1 && tarn_hash_count(client->pending) == senders.size();
    }));
    tarn::conn_abort(tarn_rpc_conn(svr.any()));
    for (auto &sender : senders)
    {
        sender.join();
    }
    go = true;
    EXPECT_TRUE(wait_until([&] { return log.connects == 2; }));
    EXPECT_EQ(call(client.get(), 1, "x").code, 0);
}

TEST_P(Rpc, ConnectionReadsAsLongAsItIsTold)
{
    server svr(at_);
    svr.start();
    const rpc_owner client = make_client(at_);
    EXPECT_EQ(tarn_rpc_loop(client.get()), 0);
    ASSERT_TRUE(wait_until([&] { return svr.any() != nullptr; }));
    TARN_CONN conn = tarn_rpc_conn(client.get());
    char bytes[64];
    for (const uint32_t limit_ms : {100u, 150u})
    {
        const support::signal_storm storm;
        int n = -1;
        // counted in whole ticks under TLS
        EXPECT_GT(
            support::elapsed_ms([&] { n = tarn_conn_read(conn, bytes, sizeof bytes, limit_ms); }),
            limit_ms - 2);
        EXPECT_EQ(n, 0);
    }
    std::thread later([&] {
        tarn_sleep_ms(250); // beyond the limits before
        EXPECT_EQ(tarn_rpc_msg_send(svr.any(), 1, 1000, nullptr, nullptr, 0), 0);
    });
    EXPECT_EQ(tarn_conn_read(conn, bytes, sizeof bytes, TARN_INFINITE), 24);
    later.join();
}

TEST_P(Rpc, CallbackMayStopTheLoopThatOthersWaitFor)
{
    std::atomic<bool> go{false};
    server svr(at_,
               [&](TARN_RPC rpc, uint32_t seq, uint32_t id, TARN_RPC_MSG msg, TARN_RPC_MSG rsp) {
                   EXPECT_TRUE(wait_until([&] { return go.load(); }));
                   return echo(rpc, seq, id, msg, rsp);
               });
    svr.start();
    client_log log;
    std::atomic<bool> stopped{false};
    log.on_msg = [&](TARN_RPC rpc, uint32_t, uint32_t, TARN_RPC_MSG, TARN_RPC_MSG) {
        EXPECT_EQ(tarn_rpc_loop_stop(rpc), 0);
        stopped = true;
        return 0;
    };
    const rpc_owner client = connected_client(at_, &log);
    std::thread waits([&] { EXPECT_EQ(call(client.get(), 1, "x").text, "x"); });
    EXPECT_TRUE(wait_until([&] {
        const tarn::critical_section_guard guard(client->lock);
        return tarn_hash_count(client->pending) == 1;
    }));
    ASSERT_TRUE(wait_until([&] { return svr.any() != nullptr; }));
    EXPECT_EQ(tarn_rpc_msg_send(svr.any(), 1, 1000, nullptr, nullptr, 0), 0);
    EXPECT_TRUE(wait_until([&] { return stopped.load(); }));
    go = true;
    waits.join(); // it runs the turns itself now
}

TEST_P(Rpc, MayBeDestroyedInItsCallbacks)
{
    server svr(at_);
    svr.start();
    for (const char *const where : {"handler", "disconnect", "idle"})
    {
        client_log log;
        std::atomic<bool> gone{false};
        const auto destroy = [&](TARN_RPC rpc) {
            tarn_rpc_destroy(rpc);
            gone = true;
        };
        const std::string_view callback = where;
        if (callback == "handler")
        {
            log.on_msg = [&](TARN_RPC rpc, uint32_t, uint32_t, TARN_RPC_MSG, TARN_RPC_MSG) {
                destroy(rpc);
                return 0;
            };
        }
        else
        {
            (callback == "idle" ? log.on_idle : log.on_disconnect) = destroy;
        }
        (void)connected_client(at_, &log).release();
        EXPECT_TRUE(wait_until([&] { return svr.any() != nullptr; }));
        if (callback == "handler")
        {
            EXPECT_EQ(tarn_rpc_msg_send(svr.any(), 1, 1000, nullptr, nullptr, 0), 0);
        }
        else if (callback == "disconnect")
        {
            tarn::conn_abort(tarn_rpc_conn(svr.any()));
        }
        EXPECT_TRUE(wait_until([&] { return gone.load(); })) << where;
        EXPECT_TRUE(wait_until([&] { return svr.any() == nullptr; })) << where;
        EXPECT_EQ(log.disconnects, 1) << where;
    }
}

TEST_P(Rpc, DestroyEndsWhatOthersWaitFor)
{
    std::atomic<int> nested{0};
    client_log log;
    log.on_msg = [&](TARN_RPC rpc, uint32_t, uint32_t, TARN_RPC_MSG, TARN_RPC_MSG) {
        ++nested;
        while (call(rpc, 1, "x").code == 7)
        {
        }
        return 0;
    };
    server svr(at_);
    svr.start();
    TARN_RPC client = connected_client(at_, &log).release();
    ASSERT_TRUE(wait_until([&] { return svr.any() != nullptr; }));
    std::vector<std::thread> senders;
    std::atomic<int> running{0};
    for (uint32_t i = 0; i < 4; ++i)
    {
        senders.emplace_back([&, i] {
            const tarn::rpc_pin pin(client); // inside when it is destroyed
            ++running;
            while (call(client, i + 10, "x").code == 7)
            {
            }
        });
    }
    EXPECT_TRUE(wait_until([&] { return running == 4; }));
    EXPECT_EQ(tarn_rpc_msg_send(svr.any(), 1, 1000, nullptr, nullptr, 0), 0);
    EXPECT_TRUE(wait_until([&] { return nested == 1; }));
    tarn_rpc_destroy(client);
    for (auto &sender : senders)
    {
        sender.join();
    }
    EXPECT_EQ(log.disconnects, 1);
    EXPECT_TRUE(wait_until([&] { return svr.ended == 1; }));
}

TEST_P(Rpc, ClientReconnectsAtMostOnceASecond)
{
    client_log log;
    const rpc_owner client = make_client(at_, &log);
    {
        const log_capture lines;
        const support::level_scope debug(TARN_LOG_LEVEL_DEBUG);
        if (at_.client_secret == nullptr)
        {
            expect_check("BOF(conn->sock != TARN_INVALID_HANDLE)");
        }
        ASSERT_EQ(tarn_rpc_loop_start(client.get()), 0);
        EXPECT_TRUE(wait_until([&] { return lines.count("return [-") == 1; }));
        tarn_sleep_ms(300);
        EXPECT_EQ(lines.count("return [-"), 1u);
        EXPECT_TRUE(wait_until([&] { return lines.count("return [-") == 2; }));
    }
    server svr(at_);
    svr.start();
    EXPECT_TRUE(wait_until([&] { return log.connects == 1; }));
    // A destroy does not wait for the rest of a second.
    svr.stop();
    EXPECT_TRUE(wait_until([&] { return log.disconnects == 1; }));
}

} // namespace
