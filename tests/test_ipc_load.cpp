// Local IPC under load and at its ends: full tables and pools, destroys at bad moments, restarts,
// peers that do not behave.

#include "support_ipc.h"

#include "tarn_event.h"
#include "tarn_sys.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include <unistd.h>

using support::ipc_echo;
using support::ipc_owner;
using support::ipc_side;
using support::ipc_text;
using support::ipc_text_of;
using support::ipc_times;
using support::unique_name;
using support::wait_until;

namespace
{

/** Holds handlers back until it is opened. */
struct gate
{
    TARN_EVENT event = tarn_event_create(true, false);
    std::atomic<int> inside{0};
    gate() = default;
    gate(const gate &) = delete;
    gate &operator=(const gate &) = delete;
    ~gate()
    {
        tarn_event_destroy(event);
    }
    void pass()
    {
        ++inside;
        (void)tarn_event_wait(event, TARN_INFINITE);
        --inside;
    }
    void open()
    {
        (void)tarn_event_set(event);
    }
};

/** Bring one more handler of func_id 1 into the gate. A post is lost while the pool counts as full,
 *  and a thread that has answered counts until it has left its handler: then it is sent again. */
bool post_into(const gate &closed, TARN_IPC conn, int wanted)
{
    const support::log_capture log;
    const auto post = [conn] { return tarn_ipc_call(conn, 1, nullptr, nullptr, nullptr) == 0; };
    size_t refused = 0;
    return post() && wait_until(
                         [&] {
                             if (log.count("start request handler for post message") > refused)
                             {
                                 ++refused;
                                 (void)post();
                             }
                             return closed.inside == wanted;
                         },
                         60000);
}

int32_t ask(TARN_IPC conn, uint32_t func_id, int32_t *ret)
{
    return tarn_ipc_call(conn, func_id, nullptr, ret, nullptr);
}

void run_threads(int count, const std::function<void(int)> &work)
{
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
    {
        threads.emplace_back(work, i);
    }
    for (std::thread &thread : threads)
    {
        thread.join();
    }
}

/** A client of bare socket calls, greeted. */
tarn::socket_owner bare_client(const std::string &callee)
{
    tarn::socket_owner sock = tarn::ipc_create_socket(unique_name("bare").c_str());
    EXPECT_EQ(tarn_socket_connect_local_with_timeout(sock.get(), callee.c_str(), 5000), 0);
    char greeting[21];
    size_t got = 0;
    while (got < sizeof greeting)
    {
        const int n = tarn_socket_recv(sock.get(), greeting + got, sizeof greeting - got, 5000);
        if (n <= 0)
        {
            break;
        }
        got += static_cast<size_t>(n);
    }
    EXPECT_EQ(std::memcmp(greeting, "TARN_IPC_NEGOTIATION", 21), 0);
    return sock;
}

std::string frame(uint8_t seq_num, uint8_t cmd, uint32_t func_id, bool wants_out,
                  const std::string &rest)
{
    const auto big = [](uint32_t value) {
        return std::string{static_cast<char>(value >> 24), static_cast<char>(value >> 16),
                           static_cast<char>(value >> 8), static_cast<char>(value)};
    };
    const std::string payload = big(func_id) + big(wants_out ? 1 : 0) + rest + '\0';
    return "STX" + std::string{static_cast<char>(seq_num), static_cast<char>(cmd)} +
           big(static_cast<uint32_t>(payload.size())) + payload + "ETX";
}

/** Memory of this process. */
size_t resident_bytes()
{
    size_t pages = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * 4096;
}

TARN_TEST_ROLE(echo_server)
{
    support::layer layer;
    ipc_side side;
    side.on_call = ipc_echo;
    const ipc_owner server(side.serve(args.at(0)));
    std::printf("ready\n");
    std::fflush(stdout);
    char end = 0;
    (void)!read(0, &end, 1);
    return 0;
}

} // namespace

// ---- load ---------------------------------------------------------------------------------------------

TEST(IpcLoad, AsManyCallsWaitAsThereAreNumbers)
{
    const support::leak_checked_layer layer;
    const std::string name = unique_name("busy");
    gate closed;
    ipc_side side;
    side.on_call = [&](TARN_IPC, uint32_t func_id, TARN_DATA, TARN_DATA *) {
        closed.pass();
        return static_cast<int32_t>(func_id);
    };
    ipc_side client_side;
    {
        const ipc_owner server(side.serve(name));
        const ipc_owner client(client_side.open(name, unique_name("c")));
        std::thread last([&] {
            int32_t ret = 0;
            EXPECT_TRUE(wait_until([&] { return closed.inside == 255; }, 60000));
            const support::log_capture log;
            EXPECT_EQ(ask(client.get(), 1, &ret), -209);
            EXPECT_TRUE(log.contains("warn", "no available sequence number!"));
            char buffer[18];
            uint32_t length = sizeof buffer;
            EXPECT_EQ(
                tarn_ipc_format_request_buffer(client.get(), 1, nullptr, buffer, &length, true), 0);
            EXPECT_EQ(tarn_ipc_call_by_request_buffer(client.get(), buffer, length, &ret, nullptr),
                      -9);
            closed.open();
        });
        run_threads(255, [&](int i) {
            int32_t ret = 0;
            EXPECT_EQ(ask(client.get(), static_cast<uint32_t>(i), &ret), 0);
            EXPECT_EQ(ret, i);
        });
        last.join();
    }
}

TEST(IpcLoad, EveryAnswerReachesItsCaller)
{
    const support::leak_checked_layer layer;
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    const std::string name = unique_name("echo");
    auto server = support::child_process::role("echo_server", {name});
    ASSERT_TRUE(server.wait_for_line("ready"));
    constexpr int threads = 32;
    const int calls = (support::with_sanitizer ? 15000 : 300000) / threads;
    ipc_side side;
    {
        const ipc_owner client(side.open(name, unique_name("c")));
        ASSERT_TRUE(client);
        std::atomic<int> right{0};
        run_threads(threads, [&](int t) {
            for (int i = 0; i < calls; ++i)
            {
                const auto value = static_cast<uint32_t>(t * calls + i);
                const tarn::unique_data in(tarn_data_alloc(TARN_DATA_TYPE_UINT32, &value, nullptr));
                int32_t ret = 0;
                TARN_DATA out = nullptr;
                uint32_t got = ~value;
                if (tarn_ipc_call(client.get(), 7, in.get(), &ret, &out) == 0 && ret == 7 &&
                    tarn_data_get_as_uint32(out, &got) && got == value)
                {
                    ++right;
                }
                tarn_data_destroy(out);
            }
        });
        EXPECT_EQ(right, threads * calls);
    }
    server.close_input();
    EXPECT_EQ(server.wait(), 0);
}

TEST(IpcLoad, APostLoopLosesNothing)
{
    const support::leak_checked_layer layer;
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    const std::string name = unique_name("post");
    const int posts = support::with_sanitizer ? 5000 : 100000;
    std::atomic<int64_t> sum{0};
    ipc_side side;
    side.on_call = [&](TARN_IPC, uint32_t func_id, TARN_DATA, TARN_DATA *) {
        sum += func_id;
        return 0;
    };
    ipc_side client_side;
    const ipc_owner server(side.serve(name));
    const ipc_owner client(client_side.open(name, unique_name("c")));
    for (int i = 0; i < posts; ++i)
    {
        ASSERT_EQ(tarn_ipc_call(client.get(), static_cast<uint32_t>(i), nullptr, nullptr, nullptr),
                  0);
    }
    EXPECT_TRUE(wait_until([&] { return side.calls == posts; })) << side.calls;
    EXPECT_TRUE(wait_until([&] { return sum == int64_t{posts} * (posts - 1) / 2; }));
}

TEST(IpcLoad, AFullPoolRefusesAndRecovers)
{
    const support::leak_checked_layer layer;
    const ipc_times times([](tarn::ipc_limits &limit) { limit.retry_ms = 20; });
    const std::string name = unique_name("full");
    gate closed;
    ipc_side side;
    side.on_call = [&](TARN_IPC, uint32_t func_id, TARN_DATA, TARN_DATA *) {
        if (func_id == 1)
        {
            closed.pass();
        }
        return static_cast<int32_t>(func_id);
    };
    ipc_side client_side;
    {
        const ipc_owner server(side.serve(name));
        const ipc_owner client(client_side.open(name, unique_name("c")));
        const tarn::scope_exit let_go([&] { closed.open(); });
        int32_t ret = 0;
        for (int i = 1; i <= 255; ++i)
        {
            ASSERT_TRUE(post_into(closed, client.get(), i));
        }
        // One thread is free: fast ones pass the slow ones.
        EXPECT_EQ(ask(client.get(), 2, &ret), 0);
        ASSERT_TRUE(post_into(closed, client.get(), 256));
        {
            const support::log_capture log;
            tarn::ipc_limit.response_ms = 500; // read by this thread alone
            EXPECT_EQ(ask(client.get(), 2, &ret), -213);
            tarn::ipc_limit.response_ms = tarn::ipc_limits().response_ms;
            EXPECT_TRUE(log.wait_for("fail to start request handler"));
            EXPECT_EQ(tarn_ipc_call(client.get(), 1, nullptr, nullptr, nullptr), 0);
            EXPECT_TRUE(log.wait_for("fail to start request handler for post message"));
        }
        closed.open();
        EXPECT_TRUE(wait_until([&] { return closed.inside == 0; }));
        EXPECT_EQ(ask(client.get(), 2, &ret), 0);
        EXPECT_EQ(ret, 2);
    }
}

TEST(IpcLoad, HandlersThatFillThePoolStillGetTheirAnswers)
{
    const support::layer layer;
    const std::string name = unique_name("nest");
    std::atomic<int> inside{0};
    ipc_side side;
    side.on_call = [&](TARN_IPC conn, uint32_t, TARN_DATA, TARN_DATA *) {
        ++inside;
        EXPECT_TRUE(wait_until([&] { return inside >= 128; }, 60000));
        int32_t ret = -1;
        EXPECT_EQ(ask(conn, 5, &ret), 0);
        return ret;
    };
    ipc_side client_side;
    client_side.on_call = [](TARN_IPC, uint32_t func_id, TARN_DATA, TARN_DATA *) {
        return static_cast<int32_t>(func_id);
    };
    const ipc_owner server(side.serve(name));
    const ipc_owner client(client_side.open(name, unique_name("c")));
    run_threads(128, [&](int) {
        int32_t ret = 0;
        EXPECT_EQ(ask(client.get(), 1, &ret), 0);
        EXPECT_EQ(ret, 5);
    });
}

// ---- ends ---------------------------------------------------------------------------------------------

TEST(IpcEnds, AServerIsDestroyedWhileHandlersRun)
{
    const support::leak_checked_layer layer;
    const std::string name = unique_name("server");
    std::atomic<int> running{0};
    ipc_side side;
    side.on_call = [&](TARN_IPC, uint32_t, TARN_DATA, TARN_DATA *) {
        ++running;
        tarn_sleep_ms(100);
        --running;
        return 0;
    };
    ipc_side client_side;
    {
        ipc_owner server(side.serve(name));
        const ipc_owner client(client_side.open(name, unique_name("c")));
        std::thread caller([&] {
            int32_t ret = 0;
            EXPECT_EQ(ask(client.get(), 1, &ret), -213);
        });
        ASSERT_TRUE(wait_until([&] { return running == 1; }));
        server.reset();
        EXPECT_EQ(running, 0); // it has waited
        EXPECT_EQ(side.disconnected, 1);
        caller.join();
    }
    EXPECT_EQ(client_side.disconnected, 1);
}

TEST(IpcEnds, AClientIsDestroyedInsideItsCallbacks)
{
    const support::leak_checked_layer layer;
    const ipc_times times([](tarn::ipc_limits &limit) { limit.accept_ms = 20; });
    const std::string name = unique_name("server");
    ipc_side side;
    std::atomic<TARN_IPC> incoming{nullptr};
    side.on_connected = [&](TARN_IPC conn) { incoming = conn; };
    const auto destroy = [](TARN_IPC conn) { EXPECT_EQ(tarn_ipc_destroy(conn), 1); };
    {
        ipc_owner server(side.serve(name));
        ipc_side first; // while it opens
        first.on_connected = destroy;
        EXPECT_EQ(first.open(name, unique_name("a")), nullptr);
        EXPECT_EQ(first.disconnected, 1);
        ipc_side second; // on its own thread
        second.on_connected = destroy;
        EXPECT_NE(second.open_async(name, unique_name("b")), nullptr);
        EXPECT_TRUE(wait_until([&] { return second.disconnected == 1; }));
        ipc_side third; // on a handler's thread, while another handler runs and a call waits
        gate closed;
        const tarn::scope_exit let_go([&] { closed.open(); });
        third.on_call = [&](TARN_IPC conn, uint32_t func_id, TARN_DATA, TARN_DATA *) {
            if (func_id == 1)
            {
                closed.pass();
                return 0;
            }
            destroy(conn);
            EXPECT_EQ(closed.inside, 0); // it has waited
            return 0;
        };
        ASSERT_TRUE(wait_until([&] { return side.disconnected == 2; }));
        incoming = nullptr;
        ASSERT_NE(third.open(name, unique_name("d")), nullptr);
        ASSERT_TRUE(wait_until([&] { return incoming != nullptr; }));
        EXPECT_EQ(tarn_ipc_call(incoming, 1, nullptr, nullptr, nullptr), 0);
        ASSERT_TRUE(wait_until([&] { return closed.inside == 1; }));
        EXPECT_EQ(tarn_ipc_call(incoming, 2, nullptr, nullptr, nullptr), 0);
        EXPECT_TRUE(wait_until([&] { return third.disconnected == 1; }));
        closed.open();
        ipc_side fourth; // when it is lost
        fourth.on_disconnected = destroy;
        ASSERT_NE(fourth.open(name, unique_name("e")), nullptr);
        server.reset();
        EXPECT_TRUE(wait_until([&] { return fourth.disconnected == 1; }));
    }
}

TEST(IpcEnds, AClientIsDestroyedByAnotherThreadUnderCallsAndHandlers)
{
    const support::leak_checked_layer layer;
    const std::string name = unique_name("server");
    gate closed;
    ipc_side side;
    std::atomic<TARN_IPC> incoming{nullptr};
    side.on_connected = [&](TARN_IPC conn) { incoming = conn; };
    side.on_call = [&](TARN_IPC, uint32_t, TARN_DATA, TARN_DATA *) {
        closed.pass();
        return 0;
    };
    ipc_side client_side;
    std::atomic<int> running{0};
    client_side.on_call = [&](TARN_IPC, uint32_t, TARN_DATA, TARN_DATA *) {
        ++running;
        tarn_sleep_ms(100);
        --running;
        return 0;
    };
    const ipc_owner server(side.serve(name));
    ipc_owner client(client_side.open(name, unique_name("c")));
    const tarn::scope_exit let_go([&] { closed.open(); });
    ASSERT_TRUE(wait_until([&] { return incoming != nullptr; }));
    std::thread destroyer([&] {
        EXPECT_TRUE(wait_until([&] { return closed.inside == 8; }));
        EXPECT_EQ(tarn_ipc_call(incoming, 1, nullptr, nullptr, nullptr), 0);
        EXPECT_TRUE(wait_until([&] { return running == 1; }));
        client.reset();
        EXPECT_EQ(running, 0); // it has waited
        EXPECT_EQ(client_side.disconnected, 1);
    });
    TARN_IPC const conn = client.get();
    run_threads(8, [&](int) {
        int32_t ret = 0;
        EXPECT_EQ(ask(conn, 1, &ret), -213);
    });
    destroyer.join();
}

TEST(IpcEnds, AServerIsDestroyedInsideItsCallbacks)
{
    const support::leak_checked_layer layer;
    for (const int where : {0, 1, 2, 3})
    {
        const std::string name = unique_name("server");
        ipc_side side;
        std::atomic<TARN_IPC> server{nullptr};
        std::atomic<int> destroyed{0};
        const auto destroy_in = [&](int here) {
            if (here == where)
            {
                EXPECT_TRUE(wait_until([&] { return server != nullptr; }));
                EXPECT_EQ(tarn_ipc_destroy(server), 1);
                ipc_side next;
                EXPECT_TRUE(ipc_owner(next.serve(name))) << "the name is free at once";
                ++destroyed;
            }
        };
        side.on_connect = [&](TARN_IPC, const char *) {
            destroy_in(0);
            return 0;
        };
        side.on_connected = [&](TARN_IPC) { destroy_in(1); };
        side.on_call = [&](TARN_IPC, uint32_t, TARN_DATA, TARN_DATA *) {
            destroy_in(2);
            return 0;
        };
        side.on_disconnected = [&](TARN_IPC) { destroy_in(3); };
        const ipc_times times([](tarn::ipc_limits &limit) { limit.accept_ms = 20; });
        server = side.serve(name);
        ipc_side client_side;
        ipc_owner client(client_side.open(name, unique_name("c")));
        EXPECT_EQ(static_cast<bool>(client), where != 0);
        if (client && where == 2)
        {
            int32_t ret = 0;
            EXPECT_EQ(ask(client.get(), 1, &ret), -213);
        }
        client.reset();
        EXPECT_TRUE(wait_until([&] { return destroyed == 1; })) << where;
        EXPECT_EQ(side.connected, side.disconnected);
    }
}

TEST(IpcEnds, AnAsynchronousClientFollowsItsServersRestarts)
{
    const support::leak_checked_layer layer;
    const ipc_times times([](tarn::ipc_limits &limit) {
        limit.reconnect_ms = 1;
        limit.accept_ms = 20;
    });
    const std::string name = unique_name("phoenix");
    const int restarts = support::with_sanitizer ? 20 : 100;
    ipc_side client_side;
    {
        const ipc_owner client(client_side.open_async(name, unique_name("c")));
        ASSERT_TRUE(client);
        EXPECT_TRUE(wait_until([&] { return client_side.disconnected >= 2; })); // vain attempts
        for (int i = 0; i < restarts; ++i)
        {
            ipc_side side;
            side.on_call = ipc_echo;
            const ipc_owner server(side.serve(name));
            ASSERT_TRUE(server);
            ASSERT_TRUE(wait_until([&] { return client_side.connected == i + 1; }));
            int32_t ret = 0;
            ASSERT_EQ(ask(client.get(), 3, &ret), 0);
            ASSERT_TRUE(wait_until([&] { return side.connected == 1; }));
        }
        auto *const conn = tarn::ipc_conn_of(client.get());
        EXPECT_TRUE(wait_until([&] { return tarn::ipc_load(conn->status) != 1; }));
        EXPECT_EQ(tarn_list_count(conn->request_list), 0u);
    }
    EXPECT_EQ(client_side.connected, restarts);
}

TEST(IpcEnds, ADestroyDoesNotWaitForAServerThatDoesNotGreet)
{
    const support::leak_checked_layer layer;
    const ipc_times times([](tarn::ipc_limits &limit) { limit.greeting_ms = 60000; });
    const std::string name = unique_name("silent");
    const tarn::socket_owner listener = tarn::ipc_create_socket(name.c_str());
    ASSERT_EQ(tarn_socket_listen(listener.get(), 4), 0);
    ipc_side side;
    ipc_owner client(side.open_async(name, unique_name("c")));
    const tarn::socket_owner peer(tarn_socket_accept_local(listener.get(), nullptr, 0, 5000));
    ASSERT_TRUE(peer);
    EXPECT_LT(support::elapsed_ms([&] { client.reset(); }), 20000);
    EXPECT_EQ(side.connected, 0);
}

TEST(IpcEnds, FailedAllocationsLeaveNothingBehind)
{
    const support::leak_checked_layer layer;
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    const std::string name = unique_name("poor");
    ipc_side side;
    side.on_call = ipc_echo;
    EXPECT_GT(support::fail_each_allocation([&](size_t) {
                  const ipc_owner server(side.serve(name));
                  EXPECT_TRUE(server || support::allocation_failed());
              }),
              5u);
    const ipc_owner server(side.serve(name));
    ipc_side client_side;
    EXPECT_GT(support::fail_each_allocation([&](size_t) {
                  ipc_owner client(client_side.open(name, unique_name("c")));
                  EXPECT_TRUE(client || support::allocation_failed());
              }),
              5u);
    const ipc_owner client(client_side.open(name, unique_name("c")));
    EXPECT_GT(support::fail_each_allocation([&](size_t) {
                  int32_t ret = 0;
                  const int32_t result = ask(client.get(), 5, &ret);
                  EXPECT_TRUE(result == 0 || support::allocation_failed()) << result;
              }),
              1u);
}

// ---- peers that do not behave -------------------------------------------------------------------------

TEST(IpcHostile, APeerThatFloodsWithoutReadingHoldsUpNobodyElse)
{
    const support::leak_checked_layer layer;
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    const ipc_times times([](tarn::ipc_limits &limit) {
        limit.send_ms = 1000;
        limit.retry_ms = 10;
        limit.accept_ms = 50;
    });
    const std::string name = unique_name("flooded");
    ipc_side side;
    side.on_call = ipc_echo;
    {
        const ipc_owner server(side.serve(name));
        ipc_side good_side;
        const ipc_owner good(good_side.open(name, unique_name("good")));
        const tarn::socket_owner flooder = bare_client(name);
        const std::string text(20000, 'f');
        std::string args = {15, 0, 0, 0x4E, 0x20};
        const std::string flood = frame(1, 2, 1, true, args + text);
        std::atomic<bool> refused{false};
        std::thread flooding([&] {
            const tarn::send_part part = {flood.data(), flood.size()};
            while (tarn::socket_send_parts(flooder.get(), {&part, 1}, 5000) ==
                   static_cast<int64_t>(flood.size()))
            {
            }
            refused = true;
        });
        const size_t before = resident_bytes();
        int served = 0;
        while (!refused)
        {
            int32_t ret = 0;
            EXPECT_EQ(ask(good.get(), 4, &ret), 0);
            ++served;
        }
        flooding.join();
        EXPECT_GT(served, 0);
        if (!support::with_sanitizer)
        {
            EXPECT_LT(resident_bytes() - std::min(before, resident_bytes()), size_t{64} << 20);
        }
        EXPECT_TRUE(wait_until([&] { return side.disconnected == 1; }));
    }
}

TEST(IpcHostile, WhatCameWithTheGreetingIsDiscardedByAnAsynchronousClient)
{
    const support::layer layer;
    const std::string name = unique_name("hasty");
    const tarn::socket_owner listener = tarn::ipc_create_socket(name.c_str());
    ASSERT_EQ(tarn_socket_listen(listener.get(), 4), 0);
    ipc_side side;
    const ipc_owner client(side.open_async(name, unique_name("c")));
    const tarn::socket_owner peer(tarn_socket_accept_local(listener.get(), nullptr, 0, 5000));
    ASSERT_TRUE(peer);
    const std::string whole = frame(1, 4, 1, false, "");
    const std::string cut = frame(1, 4, 2, false, std::string(1, '\x01'));
    const std::string first =
        std::string("TARN_IPC_NEGOTIATION", 21) + whole + cut.substr(0, cut.size() - 5);
    ASSERT_EQ(tarn_socket_send(peer.get(), first.data(), first.size()),
              static_cast<int>(first.size()));
    ASSERT_TRUE(wait_until([&] { return side.connected == 1; }));
    std::atomic<uint32_t> seen{0};
    side.on_call = [&](TARN_IPC, uint32_t func_id, TARN_DATA, TARN_DATA *) {
        seen = func_id;
        return 0;
    };
    const std::string rest = cut.substr(cut.size() - 5) + frame(1, 4, 3, false, "");
    ASSERT_EQ(tarn_socket_send(peer.get(), rest.data(), rest.size()),
              static_cast<int>(rest.size()));
    ASSERT_TRUE(wait_until([&] { return seen != 0; }));
    EXPECT_EQ(seen, 3u);
    EXPECT_EQ(side.calls, 1);
}
