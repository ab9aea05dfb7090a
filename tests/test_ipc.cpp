// Local IPC: servers, clients and calls; real processes at both ends, and an independent peer.

#include "support_ipc.h"

#include "tarn_modules.h"
#include "tarn_sys.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

/** A server and a client of this process. */
struct pair_of_ends
{
    std::string callee = unique_name("callee");
    std::string caller = unique_name("caller");
    ipc_side server_side;
    ipc_side client_side;
    ipc_owner server;
    ipc_owner client;

    void start()
    {
        server.reset(server_side.serve(callee));
        ASSERT_TRUE(server);
        client.reset(client_side.open(callee, caller));
        ASSERT_TRUE(client);
    }
};

std::string call_text(TARN_IPC conn, uint32_t func_id, const std::string &text, int32_t *ret)
{
    TARN_DATA out = nullptr;
    const int32_t result = tarn_ipc_call(conn, func_id, ipc_text(text).get(), ret, &out);
    EXPECT_EQ(result, 0);
    const tarn::unique_data owner(out);
    return ipc_text_of(out);
}

/** Serves an echo, sleeps of func_id 2, and its process id, until its input closes. */
TARN_TEST_ROLE(ipc_server)
{
    support::layer layer;
    ipc_side side;
    side.on_call = [](TARN_IPC conn, uint32_t func_id, TARN_DATA in, TARN_DATA *out) {
        if (func_id == 2)
        {
            tarn_sleep_ms(60000);
        }
        return ipc_echo(conn, func_id, in, out);
    };
    const ipc_owner server(side.serve(args.at(0)));
    std::printf(server ? "ready\n" : "failed\n");
    std::fflush(stdout);
    char end = 0;
    (void)!read(0, &end, 1);
    return 0;
}

/** Opens a connection and makes calls; func_id 2 is not answered. */
TARN_TEST_ROLE(ipc_client)
{
    support::layer layer;
    ipc_side side;
    const ipc_owner client(side.open(args.at(0), args.at(1)));
    if (!client)
    {
        return 2;
    }
    const int count = std::atoi(args.at(2).c_str());
    for (int i = 0; i < count; ++i)
    {
        int32_t ret = 0;
        if (call_text(client.get(), 7, args.at(1) + std::to_string(i), &ret) !=
                args.at(1) + std::to_string(i) ||
            ret != 7)
        {
            return 3;
        }
    }
    std::printf("done\n");
    std::fflush(stdout);
    char end = 0;
    return count != 0 || read(0, &end, 1) <= 0 ? 0 : 4;
}

} // namespace

// ---- arguments ----------------------------------------------------------------------------------------

TEST(IpcCreate, RefusesWrongArguments)
{
    const support::layer layer;
    ipc_side side;
    const tarn_ipc_server_callbacks cb = side.server_callbacks();
    const tarn_ipc_server_callbacks none{};
    support::expect_check("RVON(name,TARN_INVALID_HANDLE)");
    support::expect_check("RVOF(tarn_str_len( name ) > 0,TARN_INVALID_HANDLE)");
    support::expect_check("RVOF(max_connection > 0,TARN_INVALID_HANDLE)");
    support::expect_check("RVON(cb_func,TARN_INVALID_HANDLE)");
    support::expect_check("RVON(cb_func->on_connect,TARN_INVALID_HANDLE)");
    EXPECT_EQ(tarn_ipc_create(nullptr, 1, &cb), nullptr);
    EXPECT_EQ(tarn_ipc_create("", 1, &cb), nullptr);
    EXPECT_EQ(tarn_ipc_create("x", 0, &cb), nullptr);
    EXPECT_EQ(tarn_ipc_create("x", 1, nullptr), nullptr);
    EXPECT_EQ(tarn_ipc_create("x", 1, &none), nullptr);
}

TEST(IpcOpen, RefusesWrongArgumentsInTheirOrder)
{
    const support::layer layer;
    ipc_side side;
    const tarn_ipc_callbacks cb = side.callbacks();
    const auto open = [&](const char *check, const char *callee, const char *caller,
                          const tarn_ipc_callbacks *set) {
        support::expect_check(check);
        const support::log_capture log;
        EXPECT_EQ(tarn_ipc_open(callee, caller, set), nullptr);
        EXPECT_EQ(tarn_ipc_open_async(callee, caller, set), nullptr);
        EXPECT_EQ(log.count(std::string(check) + " failed"), 2u);
    };
    tarn_ipc_callbacks part{};
    open("RVON(cb_func,TARN_INVALID_HANDLE)", nullptr, nullptr, nullptr);
    open("RVON(cb_func->on_call,TARN_INVALID_HANDLE)", nullptr, nullptr, &part);
    part.on_call = cb.on_call;
    open("RVON(cb_func->on_connected,TARN_INVALID_HANDLE)", nullptr, nullptr, &part);
    part.on_connected = cb.on_connected;
    open("RVON(cb_func->on_disconnected,TARN_INVALID_HANDLE)", nullptr, nullptr, &part);
    open("RVON(callee_name,TARN_INVALID_HANDLE)", nullptr, nullptr, &cb);
    open("RVOF(tarn_str_len( callee_name ) > 0,TARN_INVALID_HANDLE)", "", nullptr, &cb);
    open("RVON(caller_name,TARN_INVALID_HANDLE)", "x", nullptr, &cb);
    open("RVOF(tarn_str_len( caller_name ) > 0,TARN_INVALID_HANDLE)", "x", "", &cb);
}

TEST(IpcCall, TellsEachWrongArgument)
{
    const support::layer layer;
    pair_of_ends ends;
    ends.start();
    TARN_IPC conn = ends.client.get();
    std::array<uint8_t, 64> buffer{};
    uint32_t length = sizeof buffer;
    int32_t ret = 0;
    TARN_DATA out = nullptr;
    support::expect_check("RVON(conn,-1)");
    support::expect_check("RVON(buffer,-2)");
    support::expect_check("RVON(buffer_len,-3)");
    support::expect_check("RVOF(*buffer_len > sizeof( IPC_COMM_DATA ),-4)");
    support::expect_check("RVON(c,-5)");
    EXPECT_EQ(tarn_ipc_format_request_buffer(nullptr, 1, nullptr, buffer.data(), &length, true),
              -1);
    EXPECT_EQ(tarn_ipc_format_request_buffer(conn, 1, nullptr, nullptr, &length, true), -2);
    EXPECT_EQ(tarn_ipc_format_request_buffer(conn, 1, nullptr, buffer.data(), nullptr, true), -3);
    length = 12;
    EXPECT_EQ(tarn_ipc_format_request_buffer(conn, 1, nullptr, buffer.data(), &length, true), -4);
    length = sizeof buffer;
    EXPECT_EQ(
        tarn_ipc_format_request_buffer(ends.server.get(), 1, nullptr, buffer.data(), &length, true),
        -5);
    for (length = 13; length < 18; ++length)
    {
        uint32_t room = length;
        EXPECT_EQ(tarn_ipc_format_request_buffer(conn, 1, nullptr, buffer.data(), &room, true), -6);
    }
    EXPECT_EQ(tarn_ipc_format_request_buffer(conn, 1, nullptr, buffer.data(), &length, true), 0);
    EXPECT_EQ(length, 18u);

    support::expect_check("RVOF(buffer_len >= sizeof( IPC_COMM_DATA ),-3)");
    support::expect_check("RVOT(ret == NULL && args_out != NULL,-2)");
    support::expect_check("RVON(buffer,-3)");
    support::expect_check("RVOF(comm_data->data_len + ( comm_data->data_buf - (uint8_t*) comm_data "
                          ") <= buffer_len,-4)");
    EXPECT_EQ(tarn_ipc_call_by_request_buffer(nullptr, buffer.data(), 18, &ret, &out), -1);
    EXPECT_EQ(tarn_ipc_call_by_request_buffer(conn, nullptr, 18, &ret, &out), -3);
    EXPECT_EQ(tarn_ipc_call_by_request_buffer(conn, buffer.data(), 11, &ret, &out), -3);
    EXPECT_EQ(tarn_ipc_call_by_request_buffer(conn, buffer.data(), 18, nullptr, &out), -2);
    EXPECT_EQ(tarn_ipc_call_by_request_buffer(conn, buffer.data(), 17, &ret, &out), -4);
    EXPECT_EQ(tarn_ipc_call_by_request_buffer(ends.server.get(), buffer.data(), 18, &ret, &out),
              -5);
    EXPECT_EQ(tarn_ipc_call_by_request_buffer(conn, buffer.data(), 18, &ret, &out), 0);
    const uint32_t wrapping = 0xFFFFFFFF;
    std::memcpy(buffer.data() + 4, &wrapping, 4);
    EXPECT_EQ(tarn_ipc_call_by_request_buffer(conn, buffer.data(), 18, &ret, &out), -4);

    const support::log_capture log;
    EXPECT_EQ(tarn_ipc_call(nullptr, 1, nullptr, &ret, &out), -1);
    EXPECT_EQ(tarn_ipc_call(conn, 1, nullptr, nullptr, &out), -2);
    EXPECT_EQ(tarn_ipc_call(ends.server.get(), 1, nullptr, &ret, &out), -3);
    EXPECT_TRUE(log.contains("warn", "func_id = [1], ipc is not conn type"));
}

// ---- calls --------------------------------------------------------------------------------------------

TEST(IpcCall, CarriesArgumentsResultsAndNames)
{
    const support::leak_checked_layer layer;
    {
        pair_of_ends ends;
        ends.server_side.on_call = ipc_echo;
        ends.start();
        EXPECT_EQ(ends.client_side.seen_name, ends.callee);
        ASSERT_TRUE(wait_until([&] { return ends.server_side.connected == 1; }));
        EXPECT_EQ(ends.server_side.seen_name, ends.caller);
        int32_t ret = 0;
        EXPECT_EQ(call_text(ends.client.get(), 42, "hello", &ret), "hello");
        EXPECT_EQ(ret, 42);
        TARN_DATA out = reinterpret_cast<TARN_DATA>(&ret);
        EXPECT_EQ(tarn_ipc_call(ends.client.get(), 0x80000001u, nullptr, &ret, &out), 0);
        EXPECT_EQ(ret, static_cast<int32_t>(0x80000001u));
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(tarn_ipc_call(ends.client.get(), 5, nullptr, nullptr, nullptr), 0);
        EXPECT_TRUE(wait_until([&] { return ends.server_side.calls == 3; }));
        int32_t pid = 0;
        uint32_t uid = 0;
        EXPECT_TRUE(tarn_ipc_get_peer(ends.client.get(), &pid, &uid, nullptr));
        EXPECT_EQ(pid, getpid());
        EXPECT_EQ(uid, getuid());
        ends.client.reset();
        EXPECT_EQ(ends.client_side.disconnected, 1);
        EXPECT_TRUE(wait_until([&] { return ends.server_side.disconnected == 1; }));
    }
}

TEST(IpcCall, ServerCallsItsClient)
{
    const support::layer layer;
    pair_of_ends ends;
    std::atomic<TARN_IPC> incoming{nullptr};
    ends.server_side.on_connected = [&](TARN_IPC conn) {
        int32_t ret = 0;
        EXPECT_EQ(tarn_ipc_call(conn, 1, nullptr, &ret, nullptr), -213); // nobody receives yet
        EXPECT_EQ(tarn_ipc_call(conn, 1, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(tarn_ipc_destroy(conn), 0);
        incoming = conn;
    };
    ends.server_side.on_call = [&](TARN_IPC conn, uint32_t, TARN_DATA, TARN_DATA *) {
        int32_t ret = 0;
        EXPECT_EQ(tarn_ipc_call(conn, 9, nullptr, &ret, nullptr), 0); // a call back inside a call
        return ret + 1;
    };
    ends.client_side.on_call = ipc_echo;
    ends.start();
    ASSERT_TRUE(wait_until([&] { return incoming != nullptr && ends.client_side.calls == 1; }));
    int32_t ret = 0;
    EXPECT_EQ(call_text(incoming, 3, "back", &ret), "back");
    EXPECT_EQ(tarn_ipc_call(ends.client.get(), 1, nullptr, &ret, nullptr), 0);
    EXPECT_EQ(ret, 10);
}

TEST(IpcCall, LargestArgumentsPassAndLargerOnesAreRefused)
{
    const support::layer layer;
    pair_of_ends ends;
    ends.server_side.on_call = [](TARN_IPC, uint32_t func_id, TARN_DATA in, TARN_DATA *out) {
        if (func_id == 1)
        {
            *out = in; // the arguments themselves
        }
        else if (func_id == 2)
        {
            *out =
                ipc_text(std::string(tarn::ipc_max_args - 4, 'x')).release(); // one byte too many
        }
        else
        {
            *out = tarn_data_get_next(in); // one of them
        }
        return 5;
    };
    ends.start();
    int32_t ret = 0;
    const std::string largest(tarn::ipc_max_args - 5, 'm');
    EXPECT_EQ(call_text(ends.client.get(), 1, largest, &ret), largest);
    EXPECT_EQ(ret, 5);
    EXPECT_EQ(tarn_ipc_call(ends.client.get(), 1, ipc_text(largest + "m").get(), &ret, nullptr),
              -106);
    TARN_DATA out = nullptr;
    EXPECT_EQ(tarn_ipc_call(ends.client.get(), 2, nullptr, &ret, &out), 0);
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(out, nullptr);
    const tarn::unique_data two = ipc_text("first");
    ASSERT_TRUE(tarn_data_add_tail(two.get(), ipc_text("second").release()));
    EXPECT_EQ(tarn_ipc_call(ends.client.get(), 3, two.get(), &ret, &out), 0);
    EXPECT_EQ(ipc_text_of(out), "second");
    tarn_data_destroy(out);
    // More values than the peer would take.
    tarn::unique_data many(tarn_data_alloc(TARN_DATA_TYPE_NULL, nullptr, nullptr));
    for (uint32_t i = 0; i < tarn::ipc_max_values; ++i)
    {
        (void)tarn_data_add_tail(many.get(),
                                 tarn_data_alloc(TARN_DATA_TYPE_NULL, nullptr, nullptr));
    }
    EXPECT_EQ(tarn_ipc_call(ends.client.get(), 3, many.get(), &ret, &out), -106);
}

TEST(IpcCall, OneRequestBufferServesSeveralThreads)
{
    const support::layer layer;
    pair_of_ends ends;
    ends.server_side.on_call = ipc_echo;
    ends.start();
    std::array<char, 200> room{};
    char *const buffer = room.data() + 1; // unaligned
    uint32_t length = sizeof room - 1;
    ASSERT_EQ(tarn_ipc_format_request_buffer(ends.client.get(), 77, ipc_text("again").get(), buffer,
                                             &length, true),
              0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i)
            {
                int32_t ret = 0;
                TARN_DATA out = nullptr;
                EXPECT_EQ(
                    tarn_ipc_call_by_request_buffer(ends.client.get(), buffer, length, &ret, &out),
                    0);
                EXPECT_EQ(ipc_text_of(out), "again");
                tarn_data_destroy(out);
            }
        });
    }
    for (std::thread &thread : threads)
    {
        thread.join();
    }
    // The same buffer without a place for the result is a post message.
    EXPECT_EQ(tarn_ipc_call_by_request_buffer(ends.client.get(), buffer, length, nullptr, nullptr),
              0);
    EXPECT_TRUE(wait_until([&] { return ends.server_side.calls == 801; }));
}

TEST(IpcOpen, FailsWithoutServerAndWithATakenName)
{
    const support::leak_checked_layer layer;
    const support::log_capture log;
    ipc_side side;
    const std::string name = unique_name("nobody");
    const std::string caller = unique_name("caller");
    EXPECT_EQ(side.open(name, caller), nullptr);
    EXPECT_TRUE(log.contains(name + ":" + caller + "] connect failed, err = [111]"));
    const ipc_owner server(side.serve(name));
    ASSERT_TRUE(server);
    EXPECT_EQ(side.serve(name), nullptr);
    EXPECT_TRUE(log.contains("[" + name + "] fail to bind, error = [98]."));
    const ipc_owner client(side.open(name, caller));
    ASSERT_TRUE(client);
    EXPECT_EQ(side.open(name, caller), nullptr);
    EXPECT_TRUE(log.contains("[" + name + ":" + caller + "] create socket failed, error = [98]."));
}

TEST(IpcOpen, FailsWithoutTheGreeting)
{
    const support::leak_checked_layer layer;
    const ipc_times times([](tarn::ipc_limits &limit) { limit.greeting_ms = 600; });
    const std::string name = unique_name("rude");
    const tarn::socket_owner listener = tarn::ipc_create_socket(name.c_str());
    ASSERT_EQ(tarn_socket_listen(listener.get(), 4), 0);
    const struct
    {
        const char *bytes;
        size_t size;
        const char *line;
    } cases[] = {
        {"", 0, "negotiation buffer size error (0)."},
        {"TARN_IPC_NEGOTIATION", 20, "negotiation buffer size error (20)."},
        {"TARN_IPC_\n%s%s%s%s%s%s%s", 21, "negotiation data error (TARN_IPC_?%s%s%s%s%s%)."}};
    for (const auto &each : cases)
    {
        const support::log_capture log;
        tarn::socket_owner peer;
        std::thread server([&] {
            peer.reset(tarn_socket_accept_local(listener.get(), nullptr, 0, 5000));
            EXPECT_TRUE(each.size == 0 || tarn_socket_send(peer.get(), each.bytes, each.size) > 0);
        });
        ipc_side side;
        EXPECT_EQ(side.open(name, unique_name("c")), nullptr);
        server.join();
        EXPECT_TRUE(log.contains(each.line)) << each.line;
        EXPECT_EQ(side.connected + side.disconnected, 0);
    }
}

TEST(IpcModule, StartsOnceWaitsForHandlersAndStartsAgain)
{
    const support::leak_checked_layer layer;
    {
        const support::log_capture log;
        EXPECT_TRUE(tarn_ipc_init());
        EXPECT_FALSE(log.contains("create thread pool"));
    }
    for (int round = 0; round < 2; ++round)
    {
        pair_of_ends ends;
        std::atomic<int> running{0};
        ends.server_side.on_call = [&](TARN_IPC, uint32_t, TARN_DATA, TARN_DATA *) {
            ++running;
            tarn_sleep_ms(50);
            --running;
            return 0;
        };
        ends.start();
        EXPECT_EQ(tarn_ipc_call(ends.client.get(), 1, nullptr, nullptr, nullptr), 0);
        ASSERT_TRUE(wait_until([&] { return running == 1; }));
        tarn_ipc_uninit();
        EXPECT_EQ(running, 0);
        tarn_ipc_uninit();
        const support::log_capture log;
        EXPECT_TRUE(tarn_ipc_init());
        EXPECT_TRUE(log.contains("debug", "create thread pool, size = [256]"));
        tarn_close_handle(ends.client.release());
        EXPECT_EQ(ends.client_side.disconnected, 1);
    }
}

TEST(IpcServer, TurnsAwayWhoGetsNoCallbacksAndWhoIsTooMany)
{
    const support::leak_checked_layer layer;
    const ipc_times times([](tarn::ipc_limits &limit) {
        limit.resolve_ms = 1;
        limit.accept_ms = 20;
    });
    const support::log_capture log;
    const std::string name = unique_name("server");
    ipc_side side;
    std::atomic<int> questions{0};
    side.on_connect = [&](TARN_IPC, const char *caller) {
        ++questions;
        return std::string_view(caller).starts_with("bad") ? -7 : 0;
    };
    const ipc_owner server(side.serve(name, 1));
    ipc_side client_side;
    EXPECT_EQ(client_side.open(name, unique_name("bad")), nullptr);
    EXPECT_EQ(questions, 10);
    EXPECT_TRUE(log.wait_for("], error = [-7]"));
    ipc_owner first(client_side.open(name, unique_name("good")));
    ASSERT_TRUE(first);
    ASSERT_TRUE(wait_until([&] { return side.connected == 1; }));
    ipc_side second_side;
    const ipc_owner second(second_side.open(name, unique_name("more")));
    EXPECT_TRUE(log.wait_for("conn_list full!."));
    EXPECT_TRUE(wait_until([&] { return second_side.disconnected == 1; }));
    first.reset();
    EXPECT_TRUE(log.wait_for("remove dead conn"));
    EXPECT_TRUE(wait_until([&] { return side.disconnected == 1; }));
    const ipc_owner third(client_side.open(name, unique_name("late")));
    EXPECT_TRUE(wait_until([&] { return side.connected == 2; }));
}

// ---- several processes --------------------------------------------------------------------------------

TEST(IpcProcesses, ManyCallOneAnother)
{
    const support::leak_checked_layer layer;
    const size_t count = support::with_sanitizer ? 8 : 50;
    const std::string name = unique_name("hub");
    ipc_side side;
    side.on_call = ipc_echo;
    {
        const ipc_owner server(side.serve(name, 64));
        std::vector<support::child_process> clients;
        for (size_t i = 0; i < count; ++i)
        {
            clients.push_back(support::child_process::role(
                "ipc_client", {name, unique_name("c" + std::to_string(i)), "20"}));
        }
        for (support::child_process &client : clients)
        {
            EXPECT_EQ(client.wait(60000), 0);
        }
        EXPECT_EQ(side.calls, static_cast<int>(count * 20));
    }
    EXPECT_EQ(side.disconnected, static_cast<int>(count));
}

TEST(IpcProcesses, CallersReturnWhenTheServerIsKilled)
{
    const support::leak_checked_layer layer;
    const std::string name = unique_name("mortal");
    auto server = support::child_process::role("ipc_server", {name});
    ASSERT_TRUE(server.wait_for_line("ready"));
    ipc_side side;
    const ipc_owner client(side.open(name, unique_name("caller")));
    ASSERT_TRUE(client);
    std::atomic<int> lost{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
    {
        threads.emplace_back([&] {
            int32_t ret = 0;
            lost += tarn_ipc_call(client.get(), 2, nullptr, &ret, nullptr) == -213 ? 1 : 0;
        });
    }
    int32_t ret = 0;
    EXPECT_EQ(call_text(client.get(), 1, "alive", &ret), "alive"); // slow calls hold up no fast one
    server.signal(SIGKILL);
    // Within a second where the machine is idle, and not after the 30 s of a call.
    EXPECT_LT(support::elapsed_ms([&] {
                  for (std::thread &thread : threads)
                  {
                      thread.join();
                  }
              }),
              10000);
    EXPECT_EQ(lost, 8);
    EXPECT_TRUE(wait_until([&] { return side.disconnected == 1; }));
    support::expect_check("RVOF(tarn::ipc_load(c->status) == tarn::ipc_connected,-4)");
    EXPECT_EQ(tarn_ipc_call(client.get(), 1, nullptr, &ret, nullptr), -4);
}

TEST(IpcProcesses, AKilledClientEndsNoHandlerAndNoOtherClient)
{
    const support::leak_checked_layer layer;
    const ipc_times times([](tarn::ipc_limits &limit) { limit.accept_ms = 20; });
    const std::string name = unique_name("hub");
    ipc_side side;
    std::atomic<bool> go_on{false};
    side.on_call = [&](TARN_IPC conn, uint32_t func_id, TARN_DATA in, TARN_DATA *out) {
        EXPECT_TRUE(func_id != 7 || wait_until([&] { return go_on.load(); }));
        return ipc_echo(conn, func_id, in, out);
    };
    {
        const ipc_owner server(side.serve(name));
        auto victim = support::child_process::role("ipc_client", {name, unique_name("v"), "1"});
        ASSERT_TRUE(wait_until([&] { return side.calls == 1; }));
        victim.signal(SIGKILL);
        EXPECT_TRUE(wait_until([&] { return side.disconnected == 1; }));
        ipc_side other;
        const ipc_owner client(other.open(name, unique_name("o")));
        int32_t ret = 0;
        EXPECT_EQ(call_text(client.get(), 1, "other", &ret), "other");
        go_on = true; // its answer goes nowhere
    }
}

// ---- an independent peer ------------------------------------------------------------------------------

namespace
{

/** Frames by hand: what the table says, from scratch. */
constexpr const char *python_peer = R"(
import socket, struct, sys
def sock(name):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.bind("\0/tarn/sock/" + name)
    s.settimeout(10)
    return s
def frame(seq, cmd, data):
    return b"STX" + struct.pack(">BBI", seq, cmd, len(data)) + data + b"ETX"
def exactly(s, n):
    data = b""
    while len(data) < n:
        more = s.recv(n - len(data))
        if not more: raise SystemExit("closed")
        data += more
    return data
def read_frame(s):
    head = exactly(s, 9)
    assert head[:3] == b"STX", head
    seq, cmd, n = struct.unpack(">BBI", head[3:])
    data = exactly(s, n)
    assert exactly(s, 3) == b"ETX"
    return seq, cmd, data
)";

support::child_process python(const std::string &script, const std::vector<std::string> &args)
{
    std::vector<std::string> argv = {"/usr/bin/env", "python3", "-c", python_peer + script};
    argv.insert(argv.end(), args.begin(), args.end());
    return support::child_process::program(argv);
}

} // namespace

TEST(IpcWire, AnIndependentClientIsServed)
{
    const support::layer layer;
    const std::string name = unique_name("wire");
    ipc_side side;
    side.on_call = ipc_echo;
    const ipc_owner server(side.serve(name));
    auto peer = python(R"(
s = sock(sys.argv[2]); s.connect("\0/tarn/sock/" + sys.argv[1])
assert exactly(s, 21) == b"TARN_IPC_NEGOTIATION\0"
args = bytes([5]) + struct.pack(">I", 0x01020304) + bytes([15]) + struct.pack(">I", 3) + b"abc"
s.sendall(b"noise" + frame(9, 1, b"") + frame(200, 2, struct.pack(">II", 0x11223344, 7) + args + b"\0"))
assert read_frame(s) == (200, 3, struct.pack(">II", 0x11223344, 0x11223344) + args + b"\0")
s.sendall(frame(1, 4, struct.pack(">II", 5, 0) + b"\0") + frame(2, 2, struct.pack(">II", 6, 0)))
assert read_frame(s) == (2, 3, struct.pack(">II", 6, 6) + b"\0")   # no terminator: accepted
s.sendall(frame(3, 2, b"\0\0\0") + frame(4, 2, struct.pack(">I", 6) + b"\0\0\0") + frame(5, 9, b"x") + frame(6, 3, struct.pack(">II", 1, 1)))
s.sendall(frame(7, 2, struct.pack(">II", 8, 1) + b"\x63\0"))        # no such type: no answer
s.sendall(b"STX" + struct.pack(">BBI", 8, 2, 524289))                # too long: hunts again
big = struct.pack(">II", 10, 1) + bytes([15]) + struct.pack(">I", 524274) + b"z" * 524274 + b"\0"
assert len(big) == 524288
s.sendall(frame(11, 2, big))
assert read_frame(s) == (11, 3, struct.pack(">II", 10, 10) + big[8:])
for i in range(12):                                                  # every byte of the tags
    bad = bytearray(frame(12, 2, struct.pack(">II", 1, 0) + b"\0"))
    at = i if i < 3 else len(bad) - 3 + i % 3
    bad[at] ^= 1
    s.sendall(bytes(bad))
s.sendall(b"S" + frame(13, 2, struct.pack(">II", 13, 0) + b"\0"))     # a doubled S loses the frame
s.sendall(frame(14, 2, struct.pack(">II", 14, 0) + b"\0"))
assert read_frame(s) == (14, 3, struct.pack(">II", 14, 14) + b"\0")
print("good")
)",
                       {name, unique_name("py")});
    EXPECT_EQ(peer.read_line(), "good");
    EXPECT_EQ(peer.wait(), 0) << peer.read_rest();
}

TEST(IpcWire, AnIndependentServerIsCalled)
{
    const support::leak_checked_layer layer;
    const ipc_times times([](tarn::ipc_limits &limit) { limit.slice_ms = 20; });
    const support::log_capture log;
    const std::string name = unique_name("wire");
    auto peer = python(R"(
import time
l = sock(sys.argv[1]); l.listen(5)
print("ready", flush=True)
s, caller = l.accept()
assert caller == b"\0/tarn/sock/" + sys.argv[2].encode(), caller
greeting = b"TARN_IPC_NEGOTIATION\0"
for i in range(20): s.sendall(greeting[i:i+1]); time.sleep(0.002)
s.sendall(greeting[20:] + frame(1, 4, struct.pack(">II", 77, 0) + b"\0"))   # a frame glued behind
seq, cmd, data = read_frame(s)
assert (seq, cmd) == (1, 2), (seq, cmd)
assert data[:4] == struct.pack(">I", 0xCAFE0001) and data[4:8] != b"\0\0\0\0"
assert data[8:] == bytes([15]) + struct.pack(">I", 2) + b"hi" + b"\0", data
s.sendall(frame(1, 3, struct.pack(">Ii", 0xCAFE0001, -5) + bytes([4]) + struct.pack(">H", 513) + b"\0"))
seq, cmd, data = read_frame(s)                                    # no results wanted
assert (seq, cmd, data) == (2, 2, struct.pack(">II", 2, 0) + b"\0")
s.sendall(frame(2, 3, struct.pack(">I", 2)))                      # no return value
seq, cmd, data = read_frame(s)
assert (seq, cmd, data) == (3, 4, struct.pack(">II", 3, 0) + b"\0")
seq, cmd, data = read_frame(s)
s.sendall(frame(seq, 3, struct.pack(">II", 999, 0) + b"\0"))      # another function
s.sendall(frame(seq, 3, b"\0\0"))
seq2, cmd, data = read_frame(s)                                   # after that one gave up
s.sendall(frame(seq, 3, struct.pack(">II", 4, 44) + b"\0"))       # too late
s.sendall(frame(seq2, 3, struct.pack(">II", 4, 45) + b"\x63\0"))  # results that do not parse
s.recv(1)
)",
                       {name, "py_" + name});
    ASSERT_EQ(peer.read_line(), "ready");
    ipc_side side;
    const ipc_owner client(side.open(name, "py_" + name));
    ASSERT_TRUE(client);
    EXPECT_TRUE(wait_until([&] { return side.calls == 1; }));
    int32_t ret = 0;
    TARN_DATA out = nullptr;
    EXPECT_EQ(tarn_ipc_call(client.get(), 0xCAFE0001u, ipc_text("hi").get(), &ret, &out), 0);
    EXPECT_EQ(ret, -5);
    uint16_t value = 0;
    EXPECT_TRUE(tarn_data_get_as_uint16(out, &value));
    EXPECT_EQ(value, 513);
    tarn_data_destroy(out);
    EXPECT_EQ(tarn_ipc_call(client.get(), 2, nullptr, &ret, nullptr), 0);
    EXPECT_EQ(ret, -8);
    EXPECT_EQ(tarn_ipc_call(client.get(), 3, nullptr, nullptr, nullptr), 0);
    tarn::ipc_limit.response_ms = 200; // read by this thread alone
    EXPECT_EQ(tarn_ipc_call(client.get(), 4, nullptr, &ret, nullptr), -213);
    tarn::ipc_limit.response_ms = tarn::ipc_limits().response_ms;
    EXPECT_TRUE(log.contains("4] send request timeout!"));
    EXPECT_EQ(tarn_ipc_call(client.get(), 4, nullptr, &ret, &out), 0);
    EXPECT_EQ(ret, 45);
    EXPECT_EQ(out, nullptr);
    // The mismatch came while its call waited, or was one more late answer on a busy machine.
    EXPECT_TRUE(log.contains("func_id mismatch, req = [4], rsp = [999] ") ||
                log.count("find request error, seq_num = [4]") == 3);
    EXPECT_TRUE(log.contains("find request error, seq_num = [4]"));
    EXPECT_TRUE(log.contains("fail to extract args_out"));
}
