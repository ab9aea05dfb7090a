// The C++ header: what owners and callables do when they are moved, closed or destroyed at awkward
// moments. What the wrapped functions do is tested with their modules.
#include "tarn.hpp"

#include "support.h"
#include "tarn_sys.h"

#include <array>
#include <memory>
#include <mutex>
#if __has_include(<span>)
#include <span>
#endif
#include <string>

#include <pthread.h>

namespace
{

using support::expect_check;
using support::wait_until;

constexpr uint32_t patience_ms = 20000;

/** Tells, through weak_ptr, whether the callable that captured it still exists. */
std::shared_ptr<int> witness()
{
    return std::make_shared<int>(0);
}

class Hpp : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        const tarn::layer first; // opens descriptors that stay with the process
    }
    support::leak_check leaks_; // looks when the layer is down
    tarn::layer layer_;
};

// ---- owners --------------------------------------------------------------------------------------

static_assert(!std::is_copy_constructible_v<tarn::event> &&
              !std::is_copy_assignable_v<tarn::event>);
static_assert(std::is_nothrow_move_constructible_v<tarn::thread> &&
              std::is_nothrow_move_assignable_v<tarn::rpc>);
static_assert(sizeof(tarn::event) == sizeof(TARN_EVENT) &&
              sizeof(tarn::event_ref) == sizeof(void *));
static_assert(std::is_trivially_copyable_v<tarn::rpc_ref>);
static_assert(!std::is_convertible_v<tarn::event_ref, tarn::event>,
              "a view never becomes an owner");
static_assert(!std::is_convertible_v<const std::array<int, 2> &, tarn::bytes>);

TEST_F(Hpp, OwnerMovesReleasesAndCloses)
{
    tarn::event a = tarn::event::manual_reset(true);
    const TARN_EVENT first = a.get();
    tarn::event b = std::move(a);
    EXPECT_FALSE(a); // NOLINT: moved-from owners are empty, that is promised
    EXPECT_EQ(b.get(), first);
    tarn::event &alias = b;
    b = std::move(alias);
    EXPECT_EQ(b.get(), first);
    b = tarn::event::auto_reset(); // closes the first one: the leak check of the sanitizer looks
    EXPECT_NE(b.get(), nullptr);
    TARN_EVENT out = b.release();
    EXPECT_FALSE(b);
    b.reset(out);
    EXPECT_TRUE(b.set() && b.wait(0));

    expect_check("RVON(ev,false)");
    EXPECT_FALSE(a.set());
}

int closed = 0;
void count_close(int *handle)
{
    pthread_testcancel(); // many a close is a cancellation point
    ++*handle;
    ++closed;
}
using counting = tarn::owner<tarn::handle_ref<int *>, count_close>;

TEST_F(Hpp, OwnerClosesEachHandleOnce)
{
    int handles[4] = {};
    closed = 0;
    {
        counting a(&handles[0]);
        counting b(std::move(a));
        counting c(&handles[1]);
        c = std::move(b);
        EXPECT_EQ(handles[1], 1);
        c.reset(&handles[2]);
        EXPECT_EQ(handles[0], 1);
        std::swap(a, c);
        c.reset(&handles[3]);
        EXPECT_EQ(c.release(), &handles[3]);
    }
    EXPECT_EQ(handles[2], 1);
    EXPECT_EQ(handles[3], 0);
    EXPECT_EQ(closed, 3);
}

// Unwinding that began inside a destructor would end the process.
TEST_F(Hpp, OwnerIsClosedByAThreadThatIsBeingCancelled)
{
    int handle = 0;
    std::atomic<bool> went_on{false};
    tarn::thread t = tarn::thread::start(0, "doomed", [&] {
        (void)pthread_cancel(pthread_self());
        {
            const counting owner(&handle);
        }
        went_on = true;
        pthread_testcancel();
    });
    EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
    EXPECT_TRUE(went_on);
    EXPECT_EQ(handle, 1);
    t.reset();
}

TEST_F(Hpp, BytesTakeTextsArraysAndSpans)
{
    const auto size = [](tarn::const_bytes b) { return b.size(); };
    const auto room = [](tarn::bytes b) { return b.size(); };
    char text[8] = "abc";
    uint16_t numbers[3] = {};
    EXPECT_EQ(size("abc"), 3u);
    EXPECT_EQ(size(text), 3u);
    EXPECT_EQ(room(text), 8u);
    EXPECT_EQ(size(numbers), 6u);
    EXPECT_EQ(size(std::string("a\0b", 3)), 3u);
    EXPECT_EQ(room(std::vector<uint32_t>(4)), 16u);
#if defined(__cpp_lib_span)
    EXPECT_EQ(size(std::span(numbers).subspan(1)), 4u);
    EXPECT_EQ(room(std::as_writable_bytes(std::span(numbers))), 6u);
#endif
    EXPECT_EQ(tarn::const_bytes(nullptr, size_t{UINT32_MAX} + 2).size32(), UINT32_MAX);
}

// ---- locks ---------------------------------------------------------------------------------------

TEST_F(Hpp, ScopedLockSurvivesMoveOfItsOwner)
{
    tarn::critical_section cs = tarn::critical_section::create();
    tarn::critical_section moved;
    {
        const tarn::scoped_lock lock(cs);
        moved = std::move(cs);
        std::thread other([&] { EXPECT_FALSE(moved.try_lock()); });
        other.join();
    }
    std::thread other([&] {
        const std::lock_guard<tarn::critical_section> lock(moved); // the standard's guard, too
    });
    other.join();
}

TEST_F(Hpp, ScopedLockThatWasNotTakenUnlocksNothing)
{
    const tarn::rwlock rw = tarn::rwlock::create();
    const tarn::scoped_lock reading(rw.reader(0));
    ASSERT_TRUE(reading);
    {
        const tarn::scoped_lock writing(rw.writer(0));
        EXPECT_FALSE(writing);
    }
    std::thread other([&] { EXPECT_FALSE(tarn::scoped_lock(rw.writer(0))); });
    other.join(); // had the failed one unlocked, the second would have succeeded

    expect_check("RVON(m,-1)");
    EXPECT_FALSE(tarn::scoped_lock(tarn::mutex()));
}

// ---- threads -------------------------------------------------------------------------------------

TEST_F(Hpp, ThreadKeepsItsCallableWhileTheOwnerMoves)
{
    auto alive = witness();
    const std::weak_ptr<int> watched = alive;
    std::atomic<int> calls{0};
    tarn::thread first = tarn::thread::start(
        1, "mover", [&calls, own = 0, alive = std::move(alive)]() mutable { calls = ++own; });
    ASSERT_TRUE(first);
    tarn::thread second;
    for (int i = 0; i < 100; ++i)
    {
        second = std::move(first);
        first = std::move(second);
    }
    EXPECT_TRUE(wait_until([&] { return calls >= 3; }));
    EXPECT_FALSE(watched.expired());
    first.reset();
    EXPECT_TRUE(watched.expired());
    const int at_end = calls;
    tarn_sleep_ms(5);
    EXPECT_EQ(calls, at_end);
}

TEST_F(Hpp, ThreadWhoseCallableReturnsFalseCallsNoMore)
{
    std::atomic<int> calls{0};
    const tarn::event third = tarn::event::manual_reset();
    tarn::thread t = tarn::thread::start(0, "three", [&] {
        if (++calls == 3)
        {
            third.set();
        }
        return calls < 3;
    });
    EXPECT_TRUE(third.wait(patience_ms));
    t.change_loop_cycle(1); // the handle is still there
    t.reset();
    EXPECT_EQ(calls, 3);
}

// The callable goes on after it has closed its owner: what it captured must still be there.
TEST_F(Hpp, ThreadCloseFromInsideKeepsTheCallableUntilItReturns)
{
    struct worker
    {
        tarn::event started = tarn::event::manual_reset();
        tarn::thread thread;
    };
    for (const bool destroy : {false, true})
    {
        auto owner = std::make_unique<worker>();
        auto alive = witness();
        const std::weak_ptr<int> watched = alive;
        const tarn::event assigned = tarn::event::manual_reset();
        const tarn::event done = tarn::event::manual_reset();
        owner->thread = tarn::thread::start(
            0, "self", [&, text = std::string(100, 'x'), alive = std::move(alive)] {
                ASSERT_TRUE(assigned.wait(patience_ms));
                destroy ? owner.reset() : owner->thread.reset();
                EXPECT_EQ(text, std::string(100, 'x'));
                EXPECT_EQ(*alive, 0);
                done.set();
            });
        assigned.set();
        EXPECT_TRUE(done.wait(patience_ms));
        EXPECT_TRUE(wait_until([&] { return watched.expired(); }));
        EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
        EXPECT_TRUE(destroy || !owner->thread);
    }
}

TEST_F(Hpp, ThreadCancelledInsideItsCallableFreesItOnce)
{
    auto alive = witness();
    const std::weak_ptr<int> watched = alive;
    const tarn::event started = tarn::event::manual_reset();
    tarn::thread t = tarn::thread::start(0, "cancelled", [&, alive = std::move(alive)] {
        const tarn::event local = tarn::event::manual_reset(); // unwound with the frame
        started.set();
        (void)local.wait();
    });
    ASSERT_TRUE(started.wait(patience_ms));
    EXPECT_TRUE(tarn_thread_cancel(tarn_thread_id(t.get())));
    EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
    t.reset();
    EXPECT_TRUE(watched.expired());
}

TEST_F(Hpp, ThreadThatRunsOnceIsNotOwned)
{
    auto alive = witness();
    const std::weak_ptr<int> watched = alive;
    EXPECT_FALSE(tarn::thread::start(TARN_THREAD_ONCE, "once", [alive] {}));
    EXPECT_NE(tarn::thread::run_once([alive = std::move(alive)] { ++*alive; }), 0u);
    EXPECT_TRUE(wait_until([&] { return watched.expired() && tarn_thread_count() == 0; }));
}

TEST_F(Hpp, CreationWithoutMemoryLeavesNothingBehind)
{
    support::log_capture log;
    for (const char *text :
         {"RVON(t,TARN_INVALID_HANDLE)", "RVON(ev,TARN_INVALID_HANDLE)",
          "RVON(cs,TARN_INVALID_HANDLE)", "RVON(crit_sect,TARN_INVALID_HANDLE)",
          "RVOF(kind == TARN_TIMER_WALL_CLOCK || kind == TARN_TIMER_MONOTONIC,TARN_INVALID_HANDLE)",
          "RVOF(0 == rc,NULL)"})
    {
        expect_check(text);
    }
    const std::string large(1000, 'x');
    EXPECT_GE(support::fail_each_allocation([&](size_t) {
                  auto t = tarn::thread::start(1, "memory", [large] {});
                  auto m = tarn::timer::create(TARN_TIMER_MONOTONIC, [large] {});
                  EXPECT_TRUE(support::allocation_failed() || (t && m));
              }),
              4u);
    EXPECT_FALSE(tarn::timer::create(99, [large] {}));
    EXPECT_FALSE(tarn::file_monitor::start("/nowhere/at/all", [large](const char *) {}));
}

// ---- jobs and timers -----------------------------------------------------------------------------

TEST_F(Hpp, PoolCopiesSmallJobsAndBorrowsLargeOnes)
{
    tarn::thread_pool pool = tarn::thread_pool::create(1);
    std::atomic<int> sum{0};
    const int add = 3;
    std::array<int, 64> numbers{};
    numbers.fill(2);
    const auto large = [&sum, numbers] {
        for (const int n : numbers)
        {
            sum += n;
        }
    };
    EXPECT_TRUE(pool.run([&sum, &add] { sum += add; }, TARN_INFINITE));
    EXPECT_TRUE(pool.run(std::ref(large), TARN_INFINITE));
    EXPECT_TRUE(pool.run(
        +[] {}, TARN_INFINITE));
    EXPECT_TRUE(wait_until([&] { return sum == 3 + 128; }));
    EXPECT_EQ(support::fail_each_allocation(
                  [&](size_t) { EXPECT_TRUE(pool.run([&sum] { ++sum; }, TARN_INFINITE)); }),
              0u)
        << "a warm pool runs a job without allocating";
    pool.run([&pool] { pool.reset(); }, TARN_INFINITE);
    EXPECT_TRUE(wait_until([] { return tarn_thread_count() == 0; }));
    EXPECT_FALSE(pool);
}

TEST_F(Hpp, TimerIsMovedAndDestroysItselfInItsCallback)
{
    auto alive = witness();
    const std::weak_ptr<int> watched = alive;
    const tarn::event done = tarn::event::manual_reset();
    std::atomic<uint64_t> ticks{0};
    std::atomic<tarn::timer *> place{nullptr};
    tarn::timer first = tarn::timer::create(TARN_TIMER_MONOTONIC,
                                            [&, alive = std::move(alive)](const tarn::tick &tick) {
                                                ticks += tick.expirations;
                                                if (tarn::timer *self = place.load())
                                                {
                                                    self->reset();
                                                    EXPECT_EQ(*alive, 0);
                                                    place = nullptr;
                                                    done.set();
                                                }
                                            });
    ASSERT_EQ(first.start(1000000), 0);
    tarn::timer second = std::move(first);
    EXPECT_TRUE(wait_until([&] { return ticks >= 2; }));
    place = &second;
    EXPECT_TRUE(done.wait(patience_ms));
    EXPECT_TRUE(wait_until([&] { return watched.expired(); }));

    tarn::timer plain = tarn::timer::create(TARN_TIMER_MONOTONIC, [&] { done.clear(); });
    ASSERT_EQ(plain.start(1000000), 0);
    EXPECT_TRUE(wait_until([&] { return !done.wait(0); }));
    plain = tarn::timer::create(TARN_TIMER_MONOTONIC); // closes the running one
    ASSERT_EQ(plain.start(1000000), 0);
    EXPECT_GE(plain.wait(TARN_INFINITE), 1);
}

TEST_F(Hpp, FileMonitorStopsItself)
{
    const support::temp_dir place;
    const std::string path = place.file("watched");
    support::write_file(path, "1");
    tarn::file_monitor monitor;
    const tarn::event assigned = tarn::event::manual_reset();
    const tarn::event done = tarn::event::manual_reset();
    monitor = tarn::file_monitor::start(path.c_str(), [&, copy = path](const char *changed) {
        ASSERT_TRUE(assigned.wait(patience_ms));
        monitor.reset();
        EXPECT_EQ(copy, changed);
        done.set();
    });
    ASSERT_TRUE(monitor);
    assigned.set();
    support::write_file(path, "2");
    EXPECT_TRUE(done.wait(patience_ms));
}

// ---- containers, typed data, messages ------------------------------------------------------------

TEST_F(Hpp, WalksBorrowTheirCallable)
{
    int items[] = {1, 2, 3};
    const tarn::list list = tarn::list::create(3);
    const tarn::hash hash = tarn::hash::create();
    for (int &item : items)
    {
        list.push_back(&item);
    }
    int sum = 0;
    list.for_each([&sum](void *item) { sum += *static_cast<int *>(item); });
    const auto is_two = [](void *item) { return *static_cast<int *>(item) == 2; };
    EXPECT_EQ(sum, 6);
    EXPECT_EQ(list.find_if(is_two), &items[1]);
    EXPECT_EQ(list.remove_if(is_two), &items[1]);
    EXPECT_EQ(list.find_if(is_two), nullptr);
    tarn_list_clear(list.get());

    // a key that is part of a longer text, and the empty one
    EXPECT_EQ(hash.add(std::string_view("abcd").substr(0, 2), &items[0]), &items[0]);
    EXPECT_EQ(hash.add({}, nullptr), nullptr);
    EXPECT_EQ(hash.find("ab").value_or(nullptr), &items[0]);
    EXPECT_TRUE(hash.find("").has_value());
    EXPECT_FALSE(hash.find("abcd").has_value());
    uint32_t seen = 0;
    hash.for_each([&](const void *, void *) { ++seen; });
    EXPECT_EQ(seen, 2u);
}

TEST_F(Hpp, DataListOwnsWhatWasAppended)
{
    tarn::data all =
        tarn::data::list(true, uint8_t{200}, -7, 2.5, std::string_view("textual", 4), "");
    ASSERT_EQ(all.count(), 6u);
    EXPECT_EQ(all.as<bool>(), true);
    EXPECT_EQ(all.at(1).as<uint8_t>(), 200);
    EXPECT_EQ(all.at(2).as<long>(), -7);
    EXPECT_EQ(all.at(3).as<float>(), 2.5f);
    EXPECT_EQ(all.at(4).text(), "text");
    EXPECT_EQ(all.at(5).text(), "");
    EXPECT_EQ(all.text(), std::nullopt);
    EXPECT_EQ(all.at(4).as<bool>(), std::nullopt);

    tarn::data other = tarn::data::of(1ull);
    EXPECT_TRUE(all.append(std::move(other)));
    EXPECT_FALSE(all.append(tarn::data()));
    EXPECT_EQ(all.count(), 7u);
    expect_check("RVON(data,NULL)");
    EXPECT_GE(support::fail_each_allocation([](size_t) {
                  const auto list = tarn::data::list(1, "two", 3.0);
                  EXPECT_NE(static_cast<bool>(list), support::allocation_failed());
              }),
              3u);
}

TEST_F(Hpp, MessageGivesBackWhatWasWritten)
{
    tarn::rpc_message message = tarn::rpc_message::create();
    const std::string_view long_text = "name and more";
    EXPECT_EQ(message.write(1, long_text.substr(0, 4)), 0);
    EXPECT_EQ(message.write(2, std::string_view{}), 0);
    EXPECT_EQ(message.write(3, true), 0);
    EXPECT_EQ(message.write(4, -1.5), 0);
    EXPECT_EQ(message.object(5, [&] { message.write(6, int64_t{-9}); }), 0);
    expect_check("RVOF(elm_id != 0,-2)");
    EXPECT_NE(message.write(0, 1), 0);

    const tarn::rpc_message kept = tarn::rpc_message::share(message);
    message.reset();
    EXPECT_EQ(kept.text(1), "name");
    EXPECT_EQ(kept.text(2), "");
    EXPECT_EQ(kept.read<bool>(3), true);
    EXPECT_EQ(kept.read<double>(4), -1.5);
    EXPECT_EQ(kept.read<int64_t>(6), -9);
    EXPECT_EQ(kept.read<uint64_t>(6), std::nullopt);
    EXPECT_EQ(kept.text(9), std::nullopt);

    std::string types;
    for (auto it = kept.elements(); it; it.next())
    {
        types += std::to_string(it.type()) + (it.value<double>() ? "!" : it.text() ? "?" : ".");
        auto moved = std::move(it);
        it = std::move(moved);
    }
    EXPECT_EQ(types, "60?60?11.41!1.23.2.");
    EXPECT_FALSE(tarn::rpc_message::create().elements());
}

TEST_F(Hpp, SharedBlockIsFreedLockedAndHandedOver)
{
    const std::string name = support::unique_name("hpp");
    const tarn::shmx heap = tarn::shmx::create(name.c_str(), 65536, 16, 4);
    ASSERT_TRUE(heap);
    uint32_t offset = 0;
    {
        tarn::shmx_block block = heap.alloc(100);
        offset = block.offset();
        const tarn::scoped_lock lock(block);
        EXPECT_TRUE(lock);
        tarn::shmx_block other = heap.alloc(100);
        void *const kept = other.release();
        other = std::move(block);
        EXPECT_EQ(heap.at(offset).get(), other.get());
        EXPECT_EQ(other.area().size(), 100u);
        tarn_shmx_blk_free(heap.get(), kept);
        EXPECT_FALSE(block); // NOLINT: promised to be empty
    }
    const tarn::shmx_block again = heap.alloc(100);
    EXPECT_TRUE(again);
}

// ---- handlers ------------------------------------------------------------------------------------

TEST_F(Hpp, RpcServesWithLambdasAndMovedOwners)
{
    const std::string name = support::unique_name("hpp");
    std::atomic<int> gone{0};
    struct doubler
    {
        int on_msg(tarn::rpc_ref, const tarn::rpc_request &request)
        {
            request.reply.write(1, 2 * request.msg.read<int32_t>(1).value_or(0));
            return 5;
        }
        void on_connected(tarn::rpc_ref peer)
        {
            peer.loop_start();
        }
        void on_disconnected(tarn::rpc_ref peer)
        {
            const tarn::rpc ends(peer.get());
        }
    } one_peer;
    auto handler =
        tarn::handlers(tarn::on_peer_connecting([&](tarn::rpc_ref, const char *, tarn::rpc_ref,
                                                    tarn::rpc_peer peer) { peer.use(one_peer); }),
                       tarn::on_msg([](tarn::rpc_ref, const tarn::rpc_request &) { return -77; }));
    auto client_handler = tarn::handlers(tarn::on_disconnected([&](tarn::rpc_ref) { ++gone; }));

    tarn::rpc server = tarn::rpc::server({name.c_str(), nullptr, 100}, handler);
    ASSERT_TRUE(server);
    ASSERT_EQ(server.loop_start(), 0);
    tarn::rpc client = tarn::rpc::client({name.c_str(), nullptr, 5000}, client_handler);
    ASSERT_EQ(client.loop_start(), 0);
    ASSERT_TRUE(wait_until([&] { return client.is_connected(); }));
    tarn::rpc moved_server = std::move(server);
    tarn::rpc moved_client = std::move(client);

    const tarn::rpc_message question = tarn::rpc_message::create();
    question.write(1, 21);
    tarn::rpc_message answer;
    EXPECT_EQ(moved_client.call(1, TARN_RPC_MSG_ID_MIN, question, answer, patience_ms), 5);
    EXPECT_EQ(answer.read<int32_t>(1), 42);
    moved_server.reset();
    EXPECT_TRUE(wait_until([&] { return gone > 0; }));
}

TEST_F(Hpp, ConnectionIsDestroyedInItsOwnCallback)
{
    const std::string name = support::unique_name("hpp");
    std::atomic<TARN_CONN> accepted{nullptr};
    auto serving = tarn::handlers(tarn::on_connect([&](tarn::conn_ref c) { accepted = c.get(); }));
    tarn::conn_server server = tarn::conn_server::create({name.c_str(), nullptr, 100}, serving);
    ASSERT_EQ(server.loop_start(), 0);

    tarn::conn client;
    const std::string text = "still here";
    auto handler = tarn::handlers(tarn::on_disconnect([&, text](tarn::conn_ref) {
        client.reset();
        EXPECT_EQ(text, "still here");
    }));
    client = tarn::conn::client({name.c_str(), nullptr, 5000}, handler);
    ASSERT_EQ(client.connect(), 0);
    ASSERT_TRUE(wait_until([&] { return accepted.load() != nullptr; }));
    EXPECT_EQ(client.write("hello"), 5);
    char buffer[16];
    EXPECT_EQ(tarn::conn_ref(accepted).read(buffer, patience_ms), 5);
    server.reset();
    EXPECT_LT(client.read(buffer, patience_ms), 0);
    EXPECT_FALSE(client);
}

TEST_F(Hpp, IpcAnswersCallsAndPosts)
{
    const std::string name = support::unique_name("hpp");
    std::atomic<uint32_t> posts{0};
    struct
    {
        std::atomic<uint32_t> *posts;
        int32_t on_call(tarn::ipc_ref, uint32_t func_id, tarn::data_ref args, tarn::data *results)
        {
            if (results == nullptr)
            {
                ++*posts;
                return 0;
            }
            *results = tarn::data::list(args.as<double>().value_or(0) / 2,
                                        args.next().text().value_or(""));
            return static_cast<int32_t>(func_id);
        }
    } functions{&posts};
    auto nothing = tarn::handlers();
    tarn::ipc server = tarn::ipc::create(name.c_str(), 4, functions);
    ASSERT_TRUE(server);
    tarn::ipc client = tarn::ipc::open(name.c_str(), support::unique_name("c").c_str(), nothing);
    ASSERT_TRUE(client);
    tarn::ipc moved = std::move(client);

    int32_t ret = 0;
    tarn::data results = tarn::data::of(1); // replaced, not leaked
    EXPECT_EQ(moved.call(9, tarn::data::list(5, "five"), ret, &results), 0);
    EXPECT_EQ(ret, 9);
    EXPECT_EQ(results.as<double>(), 2.5);
    EXPECT_EQ(results.next().text(), "five");
    EXPECT_EQ(moved.post(9), 0);
    EXPECT_TRUE(wait_until([&] { return posts == 1; }));
    EXPECT_FALSE(tarn::ipc::open("nobody/at/home", "caller", nothing));
}

TEST_F(Hpp, TlsObjectsAreFreedThroughTheirTable)
{
    tlsu_if table{};
    table.size = sizeof table;
    if (tlsu_if_get(&table) != 0)
    {
        return; // a build without TLS
    }
    tarn::tls_store store(table, table.x509_store_new());
    ASSERT_TRUE(store);
    tarn::tls_store moved = std::move(store);
    store = tarn::tls_store(table, table.x509_store_new());
    moved = std::move(store);
    EXPECT_TRUE(moved && !store); // NOLINT: promised to be empty
}

} // namespace
