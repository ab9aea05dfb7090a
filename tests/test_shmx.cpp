// The shared heap in the hands of its creator and of visitors in other processes.

#include "support.h"

#include "shmx_support.h"

#include "tarn_sys.h"

#include <csignal>
#include <cstring>
#include <map>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

using namespace shmx_test;
using support::child_process;
using support::expect_check;
using support::log_capture;

namespace
{

class Shmx : public testing::Test
{
protected:
    support::layer layer_;
    std::string name_ = support::unique_name("shmx");
};

/** Address of a block's header word: 0 next, 1 alloc_size, 2 data_size, 3 user_id. */
uint32_t word_of(void *ptr, size_t index)
{
    return tarn::shmx_load(static_cast<uint32_t *>(ptr)[static_cast<ptrdiff_t>(index) - 7]);
}

// ---- creator ------------------------------------------------------------------------------------

TEST_F(Shmx, RefusesArgumentsThatMakeNoHeap)
{
    const support::leak_check leaks;
    log_capture log;
    const std::string long_name(108, 'n');
    EXPECT_EQ(tarn_shmx_create(long_name.c_str(), 1, 0, 1), nullptr);
    EXPECT_TRUE(log.contains("error", "name = [" + long_name + "] is too long "));
    EXPECT_EQ(tarn_shmx_open(long_name.c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "The name of the share memory object is too long."));
    EXPECT_EQ(tarn_shmx_open(name_.c_str()), nullptr);
    EXPECT_TRUE(
        log.contains("error", "failed to open share memory object with name [" + name_ + "]"));
    // Sums that do not fit into 32 bits.
    EXPECT_EQ(tarn_shmx_create(name_.c_str(), 0xFFFFF000u, 0, 1), nullptr);
    EXPECT_EQ(tarn_shmx_create(name_.c_str(), 4096, 0xFFFFFFFFu, 1), nullptr);
    EXPECT_EQ(tarn_shmx_create(name_.c_str(), 4096, 0, 0x10000000u), nullptr);
    EXPECT_EQ(log.count("failed to create share memory object with name [" + name_ + "] size ["),
              3u);
    expect_check("RVON(name,TARN_INVALID_HANDLE)");
    EXPECT_EQ(tarn_shmx_create(nullptr, 1, 1, 1), nullptr);
    EXPECT_EQ(tarn_shmx_open(nullptr), nullptr);
    expect_check("RVON(shmx,false)");
    EXPECT_FALSE(tarn_shmx_destroy(nullptr));
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 4096, 0, 1));
    EXPECT_TRUE(heap);
    EXPECT_EQ(tarn_shmx_create(name_.c_str(), 4096, 0, 1), nullptr);
}

TEST_F(Shmx, SizesFallIntoTheirClasses)
{
    const log_capture log;
    for (const uint32_t meta : {0u, 1u, 2u, 3u})
    {
        const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 20, meta, 3));
        struct expectation
        {
            uint32_t size;
            uint32_t alloc_size;
        };
        for (const expectation &e : {expectation{0, 52},
                                     {1, 52},
                                     {20, 52},
                                     {21, 60},
                                     {28, 60},
                                     {29, 72},
                                     {40, 72},
                                     {41, 80},
                                     {200, 240},
                                     {208, 240},
                                     {209, 260},
                                     {228, 260},
                                     {229, 264},
                                     {1001, 1036}})
        {
            auto *data = static_cast<uint8_t *>(tarn_shmx_blk_alloc(heap.get(), e.size));
            ASSERT_NE(data, nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % 4, 0u);
            EXPECT_EQ(word_of(data, 1), e.alloc_size) << e.size;
            EXPECT_EQ(tarn_shmx_blk_size(data), e.size);
            EXPECT_EQ(word_of(data, 3), 0u);
            std::memset(data, 0xEE, e.alloc_size - 28);
            tarn_shmx_blk_free(heap.get(), data);
            EXPECT_EQ(word_of(data, 3), 0xFFFFFFFFu);
            // The same block comes back, and is clean.
            auto *again = static_cast<uint8_t *>(tarn_shmx_blk_alloc(heap.get(), e.size));
            EXPECT_EQ(again, data);
            EXPECT_EQ(std::count(again, again + e.alloc_size - 28, 0),
                      static_cast<ptrdiff_t>(e.alloc_size - 28));
            tarn_shmx_blk_free(heap.get(), again);
        }
        EXPECT_EQ(check_heap(heap.get()), "");
    }
}

TEST_F(Shmx, LargeBlocksAreTakenFirstFitAndKeptInOrder)
{
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 20, 0, 1));
    std::vector<void *> blocks;
    for (const uint32_t size : {900u, 300u, 600u, 300u, 1200u})
    {
        blocks.push_back(tarn_shmx_blk_alloc(heap.get(), size));
    }
    EXPECT_TRUE(log.contains("debug", "@@@@ large size request, size = [900] @@@@"));
    for (void *block : blocks)
    {
        tarn_shmx_blk_free(heap.get(), block);
    }
    EXPECT_EQ(check_heap(heap.get()), "");
    EXPECT_EQ(tarn_shmx_blk_alloc(heap.get(), 301), blocks[2]) << "600 is the first that fits";
    EXPECT_EQ(tarn_shmx_blk_alloc(heap.get(), 250), blocks[1]) << "the older of two equal ones";
    EXPECT_EQ(tarn_shmx_blk_alloc(heap.get(), 250), blocks[3]);
    EXPECT_EQ(tarn_shmx_blk_alloc(heap.get(), 1200), blocks[4]);
    EXPECT_EQ(check_heap(heap.get()), "");
}

TEST_F(Shmx, ExhaustionAndWrongFreesChangeNothing)
{
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 64 + 3 * 52, 0, 1));
    void *blocks[3];
    for (void *&block : blocks)
    {
        block = tarn_shmx_blk_alloc(heap.get(), 20);
        EXPECT_NE(block, nullptr);
    }
    for (const uint32_t size : {20u, 300u, 0xFFFFFFF0u, 0xFFFFFFFFu})
    {
        EXPECT_EQ(tarn_shmx_blk_alloc(heap.get(), size), nullptr);
    }
    EXPECT_EQ(log.count("share memory exhausted!"), 4u);
    tarn_shmx_blk_free(heap.get(), blocks[1]);
    tarn_shmx_blk_free(heap.get(), blocks[1]);
    tarn_shmx_blk_free_offset(heap.get(), tarn_shmx_ptr_to_offset(heap.get(), blocks[1]));
    EXPECT_EQ(log.count("already freed previously"), 2u);
    tarn_shmx_blk_free(heap.get(), static_cast<uint8_t *>(blocks[0]) + 4);
    tarn_shmx_blk_free(heap.get(), &log);
    tarn_shmx_blk_free_offset(heap.get(), 0xFFFFFFF0u);
    EXPECT_EQ(log.count("no block begins at"), 1u);
    EXPECT_EQ(log.count("no address of a block"), 1u);
    EXPECT_EQ(log.count("no offset of a block"), 1u);
    EXPECT_EQ(check_heap(heap.get()), "");
    EXPECT_EQ(tarn_shmx_blk_alloc(heap.get(), 1), blocks[1]);
    EXPECT_EQ(tarn_shmx_offset_to_ptr(heap.get(), 0), nullptr);
    EXPECT_EQ(tarn_shmx_ptr_to_offset(heap.get(), nullptr), 0u);
    EXPECT_EQ(tarn_shmx_offset_to_ptr(heap.get(), 64 + 3 * 52), nullptr);
}

TEST_F(Shmx, StatisticsShowWhatIsUsed)
{
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 2000000, 0, 1));
    void *small = tarn_shmx_blk_alloc(heap.get(), 20);
    void *other = tarn_shmx_blk_alloc(heap.get(), 20);
    void *large = tarn_shmx_blk_alloc(heap.get(), 1000000);
    tarn_shmx_blk_free(heap.get(), small);
    tarn_shmx_blk_free(heap.get(), other);
    tarn_shmx_blk_free(heap.get(), large);
    char line[256];
    const int length = tarn_shmx_info_print(heap.get(), line, sizeof line);
    EXPECT_STREQ(line,
                 "total = 2,000,000, unused = 999,800, reclaim = 104, used = 1,000,200, "
                 "actual_used = 1,000,096, usage = 50.00%, [2,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]");
    EXPECT_EQ(length, static_cast<int>(std::strlen(line)));
    EXPECT_EQ(tarn_shmx_info_print(heap.get(), line, 8), 7);
    log_capture log;
    tarn::shmx_store(static_cast<uint32_t *>(small)[-7], raw_block_offset(heap.get(), small));
    EXPECT_GT(tarn_shmx_info_print(heap.get(), line, sizeof line), 0);
    EXPECT_TRUE(log.contains("error", "loop list detected!"));
}

TEST_F(Shmx, DebugTwinsUseTheCallersLevelAndPlace)
{
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 4096, 0, 1));
    log_capture log;
    void *block = tarn_shmx_blk_alloc_dbg("a.c", 3, "f", TARN_LOG_LEVEL_INFO, heap.get(), 20);
    char text[160];
    std::snprintf(text, sizeof text,
                  "info [a.c:3:f] tarn_shmx_blk_alloc data_size = [20], alloc_size = [52], return "
                  "[92](%p)",
                  block);
    EXPECT_TRUE(log.contains(text)) << text;
    EXPECT_TRUE(tarn_shmx_blk_lock_dbg("a.c", 4, "f", TARN_LOG_LEVEL_WARN, block));
    EXPECT_TRUE(tarn_shmx_blk_unlock_dbg("a.c", 5, "f", TARN_LOG_LEVEL_WARN, block));
    EXPECT_EQ(log.count("warn [a.c:4:f] tarn_shmx_blk_lock ["), 2u);
    EXPECT_TRUE(log.contains("] end, result = 1"));
    EXPECT_EQ(log.count("warn [a.c:5:f] tarn_shmx_blk_unlock ["), 2u);
    tarn_shmx_blk_free_dbg("a.c", 6, "f", TARN_LOG_LEVEL_ERROR, heap.get(), block);
    std::snprintf(text, sizeof text,
                  "error [a.c:6:f] tarn_shmx_blk_free shmx_blk = [64](%p), alloc_size = [52]",
                  block);
    EXPECT_TRUE(log.contains(text)) << text;
}

/** Reads the segment as any other program would. */
TEST_F(Shmx, AnIndependentReaderFindsTheStatedLayout)
{
    const log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 100000, 33, 5));
    child_process visitor = start_visitor(name_, "hold");
    ASSERT_TRUE(visitor.wait_for_line("ready"));
    const child_process &held = visitor;
    void *blocks[8];
    for (void *&block : blocks)
    {
        block = tarn_shmx_blk_alloc(heap.get(), 40);
        std::memcpy(block, "pattern", 8);
    }
    void *large = tarn_shmx_blk_alloc(heap.get(), 500);
    for (const size_t i : {1, 3, 5})
    {
        tarn_shmx_blk_free(heap.get(), blocks[i]);
    }
    tarn_shmx_blk_free(heap.get(), large);
    std::memset(tarn_shmx_meta_zone(heap.get()), 'M', tarn_shmx_meta_zone_size(heap.get()));
    const uint32_t event = tarn_shmx_event_create(heap.get(), true, true);
    child_process reader = child_process::program(
        {"/usr/bin/env", "python3", std::string(TARN_TEST_DATA_DIR) + "/shmx_reader.py", name_,
         "100000", "33", "5", std::to_string(held.pid()), std::to_string(event)});
    const std::string output = reader.read_rest();
    EXPECT_EQ(reader.wait(), 0) << output;
    visitor.close_input();
    EXPECT_EQ(visitor.wait(), 0);
}

TEST_F(Shmx, ThreadsOfTheCreatorShareTheHeap)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_WARN);
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 4 << 20, 0, 1));
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (uint32_t seed = 1; seed <= 4; ++seed)
    {
        threads.emplace_back([&, seed] {
            wrong += churn(heap.get(), seed, support::with_sanitizer ? 3000 : 50000);
        });
    }
    for (std::thread &thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(check_heap(heap.get()), "");
    EXPECT_EQ(used_blocks(heap.get(), 0), 0u);
}

/** Count up inside a gate, by the favoured thread and by others. */
void use_gate(bool can_barrier)
{
    const int rounds = support::with_sanitizer ? 2000 : 20000;
    tarn::shmx_gate_words words{};
    words.can_barrier = can_barrier ? 1 : 0;
    int count = 0; // guarded by the gate
    const auto work = [&](bool serves) {
        if (serves)
        {
            tarn::shmx_store(words.server, tarn::shmx_thread_id());
        }
        for (int i = 0; i < rounds; ++i)
        {
            const tarn::shmx_gate gate(&words);
            ++count;
        }
    };
    const uint32_t first = can_barrier ? tarn::shmx_thread_id() : tarn::shmx_no_favourite;
    work(false);
    EXPECT_EQ(words.favoured, first);
    std::thread server(work, true);
    work(false);
    server.join();
    EXPECT_EQ(count, 3 * rounds);
    EXPECT_EQ(words.favoured, first) << "the request thread takes it from nobody";
    std::thread serving(work, true);
    std::thread other(work, false); // ends the favour under way
    work(false);
    serving.join();
    other.join();
    EXPECT_EQ(count, 6 * rounds);
    EXPECT_EQ(words.favoured, tarn::shmx_no_favourite);
    EXPECT_EQ(words.inside + words.taken, 0u);
}

TEST_F(Shmx, GateLetsOneThreadInWhoeverIsFavoured)
{
    use_gate(tarn::shmx_allow_barrier());
    use_gate(false);
}

TEST_F(Shmx, FailingAllocationsLeaveNothingBehind)
{
    const support::leak_check leaks;
    const support::level_scope quiet(TARN_LOG_LEVEL_WARN);
    log_capture log;
    // Tables of the layer get their first buckets here: without memory for those a process ends.
    const heap_owner first(tarn_shmx_create((name_ + "_1").c_str(), 4096, 0, 1));
    support::fail_each_allocation([this](size_t) {
        const heap_owner heap(tarn_shmx_create(name_.c_str(), 4096, 0, 1));
        EXPECT_TRUE(support::allocation_failed() || heap);
        if (heap)
        {
            const heap_owner visitor(tarn_shmx_open(name_.c_str()));
            void *block = tarn_shmx_blk_alloc(heap.get(), 10);
            EXPECT_TRUE(support::allocation_failed() || (visitor && block != nullptr));
        }
    });
}

// ---- visitors -----------------------------------------------------------------------------------

TEST_F(Shmx, VisitorKeepsItsFreedBlocksAndGivesBackOthers)
{
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 20, 0, 4));
    const heap_owner visitor(tarn_shmx_open(name_.c_str()));
    ASSERT_TRUE(visitor);
    EXPECT_EQ(tarn_shmx_user_id(visitor.get()), 1u);
    EXPECT_EQ(tarn_shmx_user_id(heap.get()), 0u);
    auto *own = static_cast<uint8_t *>(tarn_shmx_blk_alloc(visitor.get(), 100));
    ASSERT_NE(own, nullptr);
    EXPECT_TRUE(log.contains("debug", "from creator, offset = <64>("));
    EXPECT_EQ(word_of(own, 3), 1u);
    std::memset(own, 0xEE, 100);
    tarn_shmx_blk_free(visitor.get(), own);
    EXPECT_TRUE(log.contains("debug", "to reserved table, alloc_size = [132]"));
    EXPECT_EQ(word_of(own, 3), 1u) << "stays allocated in the shared heap";
    tarn_shmx_blk_free(visitor.get(), own);
    EXPECT_EQ(log.count("already freed previously"), 1u);
    auto *again = static_cast<uint8_t *>(tarn_shmx_blk_alloc(visitor.get(), 50));
    EXPECT_EQ(again, own) << "the smallest that fits";
    EXPECT_TRUE(log.contains("debug", "from cache, offset = <64>("));
    EXPECT_EQ(tarn_shmx_blk_size(again), 50u);
    EXPECT_EQ(std::count(again, again + 132 - 28, 0), 132 - 28);

    void *creators = tarn_shmx_blk_alloc(heap.get(), 70);
    void *seen =
        tarn_shmx_offset_to_ptr(visitor.get(), tarn_shmx_ptr_to_offset(heap.get(), creators));
    tarn_shmx_blk_free(visitor.get(), seen);
    EXPECT_TRUE(log.contains("debug", "to creator, alloc_size = [112]"));
    EXPECT_EQ(word_of(creators, 3), 0xFFFFFFFFu);
    tarn_shmx_blk_free(visitor.get(), seen);
    EXPECT_EQ(log.count("already freed previously"), 2u);

    EXPECT_EQ(used_blocks(heap.get(), 1), 1u);
    void *visitors =
        tarn_shmx_offset_to_ptr(heap.get(), tarn_shmx_ptr_to_offset(visitor.get(), again));
    tarn_shmx_blk_free(heap.get(), visitors);
    EXPECT_TRUE(log.contains("debug", "find by user_id = [1] get ["));
    EXPECT_TRUE(log.contains("debug", "remove record <64>("));
    EXPECT_EQ(used_blocks(heap.get(), 1), 0u);
    tarn_shmx_blk_free(visitor.get(), again);
    EXPECT_EQ(log.count("already freed previously"), 3u);
    EXPECT_EQ(check_heap(heap.get()), "");
    expect_check("RVOZ(size,block_offset::none)");
    EXPECT_EQ(tarn_shmx_blk_alloc(visitor.get(), 0), nullptr);
}

TEST_F(Shmx, ReserveGivesTheSmallestAndOldestOfAnySize)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_WARN);
    tarn::shmx_reserve reserve{};
    std::multimap<uint32_t, uint32_t> model; // keeps the order of insertion among equals
    dice random(7);
    uint32_t offset = 64;
    for (int i = 0; i < 40000; ++i)
    {
        const bool grows = i % 8000 < 5000;
        if (random() % 3 < (grows ? 2u : 1u))
        {
            const uint32_t size =
                random() % 2 ? tarn::shmx_class_sizes[random() % 16] : 264 + random() % 500 * 4;
            ASSERT_EQ(tarn::shmx_reserve_put(&reserve, offset, size), tarn::reserve_result::kept);
            EXPECT_EQ(tarn::shmx_reserve_put(&reserve, offset, size),
                      tarn::reserve_result::already_there);
            model.emplace(size, offset);
            offset += 260;
            continue;
        }
        const uint32_t wanted = random() % 2 ? 33 + random() % 230 : random() % 2400;
        uint32_t taken_size = 0;
        const uint32_t taken = tarn::shmx_reserve_take(&reserve, wanted, &taken_size);
        const auto expected = model.lower_bound(wanted);
        ASSERT_EQ(taken, expected == model.end() ? 0 : expected->second) << i;
        if (taken != 0)
        {
            EXPECT_EQ(taken_size, expected->first);
            model.erase(expected);
        }
    }
    EXPECT_EQ(reserve.count, model.size());
    tarn::shmx_reserve_close(&reserve);
}

TEST_F(Shmx, UserIdsBelongToTheProcessAndAreTakenOverFromADeadOne)
{
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 2));
    heap_owner first;
    std::thread([&] { first.reset(tarn_shmx_open(name_.c_str())); }).join();
    EXPECT_EQ(tarn_shmx_user_id(first.get()), 1u) << "the opening thread has ended";
    child_process other = start_visitor(name_, "hold");
    ASSERT_TRUE(other.wait_for_line("ready 2"));
    EXPECT_EQ(tarn_shmx_open(name_.c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "no user id available"));
    EXPECT_FALSE(log.contains("takeover"));
    other.signal(SIGKILL);
    // Not collected yet: a dead process all the same.
    ASSERT_TRUE(support::wait_until([&] {
        const heap_owner second(tarn_shmx_open(name_.c_str()));
        return second && tarn_shmx_user_id(second.get()) == 2;
    }));
    EXPECT_EQ(
        log.count("takeover user_id [2] with dirty pid [" + std::to_string(other.pid()) + "]"), 1u);
    first.reset();
    const heap_owner again(tarn_shmx_open(name_.c_str()));
    EXPECT_EQ(tarn_shmx_user_id(again.get()), 1u);
    EXPECT_EQ(log.count("takeover"), 1u);
}

TEST_F(Shmx, LookFromOutsideTakesNoUserId)
{
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 77, 1));
    tarn_shmx_blk_free(heap.get(), tarn_shmx_blk_alloc(heap.get(), 20));
    tarn_shmx_blk_free(heap.get(), tarn_shmx_blk_alloc(heap.get(), 1000));
    child_process other = start_visitor(name_, "hold");
    ASSERT_TRUE(other.wait_for_line("ready 1")); // which was the only one
    tarn_shmx_look look = {};
    tarn_shmx_user users[2] = {};
    support::expect_check("RVOF(look->size == sizeof *look,TARN_ERRLN)");
    EXPECT_LT(tarn_shmx_look_at(name_.c_str(), &look, users, 2), 0);
    look.size = sizeof look;
    ASSERT_EQ(tarn_shmx_look_at(name_.c_str(), &look, users, 2), 0);
    EXPECT_EQ(look.data_size, 1u << 16);
    EXPECT_EQ(look.meta_zone_size, 77u);
    EXPECT_EQ(look.max_user_count, 1u);
    EXPECT_EQ(look.user_count, 1u);
    EXPECT_EQ(users[0].user_id, 1u);
    EXPECT_EQ(users[0].process_id, static_cast<uint32_t>(other.pid()));
    EXPECT_EQ(users[1].user_id, 0u);
    EXPECT_EQ(look.slot_count, 100u);
    EXPECT_EQ(look.busy_slots, 0u);
    EXPECT_GE(look.used_size, 52u + 1028u);
    EXPECT_EQ(look.class_size[0], 52u);
    EXPECT_EQ(look.free_count[0], 1u);
    EXPECT_EQ(look.large_count, 1u);
    EXPECT_EQ(tarn_shmx_look_at(name_.c_str(), &look, nullptr, 0), 0);
    EXPECT_EQ(look.user_count, 1u);
    EXPECT_EQ(tarn_shmx_look_at((name_ + "x").c_str(), &look, nullptr, 0), -1);
    TARN_SHM plain = tarn_shm_create((name_ + "y").c_str(), 5000);
    EXPECT_EQ(tarn_shmx_look_at((name_ + "y").c_str(), &look, nullptr, 0), -2);
    tarn_shm_destroy(plain);
}

TEST_F(Shmx, ChildOfAForkCannotUseItsParentsHandle)
{
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 2));
    std::fflush(stdout);
    const pid_t child = ::fork();
    if (child == 0)
    {
        const bool refused = tarn_shmx_blk_alloc(heap.get(), 10) == nullptr;
        ::_exit(refused ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(Shmx, BusySlotsFailAllocationsAtOnce)
{
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 2));
    const heap_owner visitor(tarn_shmx_open(name_.c_str()));
    tarn::shmx_segment_header *header = visitor.get()->view.header;
    for (tarn::shmx_request_slot &slot : header->slots)
    {
        tarn::shmx_store(slot.state, 1);
    }
    EXPECT_LT(
        support::elapsed_ms([&] { EXPECT_EQ(tarn_shmx_blk_alloc(visitor.get(), 10), nullptr); }),
        5000.0);
    void *block = tarn_shmx_blk_alloc(heap.get(), 10);
    std::thread release([&] {
        ASSERT_FALSE(log.wait_for("already freed", 50));
        tarn::shmx_store(header->slots[42].state, 0);
    });
    void *seen = tarn_shmx_offset_to_ptr(visitor.get(), tarn_shmx_ptr_to_offset(heap.get(), block));
    tarn_shmx_blk_free(visitor.get(), seen); // keeps trying
    release.join();
    EXPECT_EQ(word_of(block, 3), 0xFFFFFFFFu);
    for (tarn::shmx_request_slot &slot : header->slots)
    {
        tarn::shmx_store(slot.state, 0);
    }
}

TEST_F(Shmx, ServedAnswersThatNobodyCollectsAreTakenBack)
{
    const shmx_times times({.served_ms = 500});
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 2));
    tarn::shmx_request_slot &slot = heap.get()->view.header->slots[7];
    tarn::shmx_store(slot.state, 1);
    tarn::shmx_store(slot.user_id, 2);
    tarn::shmx_store(slot.size, 40);
    tarn::shmx_store(slot.state, 2, std::memory_order_release); // posted, but nobody is woken
    ASSERT_TRUE(support::wait_until([&] { return tarn::shmx_load(slot.state) == 4; }));
    EXPECT_EQ(used_blocks(heap.get(), 2), 1u);
    EXPECT_NE(tarn::shmx_load(slot.offset), 0u);
    EXPECT_NE(tarn::shmx_load(slot.tick), 0u);
    EXPECT_FALSE(support::wait_until([&] { return tarn::shmx_load(slot.state) == 0; }, 300));
    ASSERT_TRUE(support::wait_until([&] { return tarn::shmx_load(slot.state) == 0; }));
    EXPECT_EQ(used_blocks(heap.get(), 2), 0u) << "the block went back";
    EXPECT_EQ(tarn::shmx_load(slot.offset), 0u);
    EXPECT_EQ(check_heap(heap.get()), "");
}

TEST_F(Shmx, SlotsThatAVisitorKeepsForEverComeBack)
{
    const shmx_times times({.stuck_ms = 500});
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 2));
    tarn::shmx_request_slot &slot = heap.get()->view.header->slots[3];
    for (const uint8_t state : std::initializer_list<uint8_t>{1, 3, 5, 77})
    {
        tarn::shmx_store(slot.state, state); // of nobody who could be found dead
        EXPECT_TRUE(support::wait_until([&] { return tarn::shmx_load(slot.state) == 0; }));
    }
}

/** The creator's side of a slot, by hand. */
class hand_served
{
public:
    hand_served(TARN_SHMX heap, size_t index) : slot_(heap->view.header->slots[index])
    {
        if (heap->thread != nullptr)
        {
            tarn_thread_stop(std::exchange(heap->thread, nullptr));
        }
    }
    bool is_posted() const
    {
        return support::wait_until([this] { return tarn::shmx_load(slot_.state) == 2; });
    }
    void answer(uint8_t state, uint32_t user_id, uint32_t size, uint32_t offset) const
    {
        tarn::shmx_store(slot_.state, 3);
        tarn::shmx_store(slot_.user_id, user_id);
        tarn::shmx_store(slot_.size, size);
        tarn::shmx_store(slot_.offset, offset);
        tarn::shmx_store(slot_.state, state, std::memory_order_release);
    }
    tarn::shmx_request_slot &slot() const
    {
        return slot_;
    }

private:
    tarn::shmx_request_slot &slot_;
};

TEST_F(Shmx, VisitorTakesNoAnswerButItsOwn)
{
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 2));
    const heap_owner visitor(tarn_shmx_open(name_.c_str()));
    const hand_served hand(heap.get(), 0);
    const uint32_t small = raw_block_offset(heap.get(), tarn_shmx_blk_alloc(heap.get(), 20));
    const struct
    {
        const char *title;
        uint8_t state;
        uint32_t user_id;
        uint32_t size;
        uint32_t offset;
        uint8_t left;
    } cases[] = {{"given up", 0, 0, 0, 0, 0},
                 {"given up and claimed by another", 1, 0, 0, 0, 1},
                 {"of another user", 4, 2, 200, small, 4},
                 {"of another size", 4, 1, 20, small, 4},
                 {"too small a block", 4, 1, 200, small, 0},
                 {"no block", 4, 1, 200, 0xFFFFFFF0, 0},
                 {"an odd place", 4, 1, 200, small + 1, 0}};
    for (const auto &each : cases)
    {
        void *got = &log;
        std::thread asking([&] { got = tarn_shmx_blk_alloc(visitor.get(), 200); });
        EXPECT_TRUE(hand.is_posted()) << each.title;
        hand.answer(each.state, each.user_id, each.size, each.offset);
        asking.join();
        EXPECT_EQ(got, nullptr) << each.title;
        EXPECT_EQ(tarn::shmx_load(hand.slot().state), each.left) << each.title;
        hand.answer(0, 0, 0, 0);
    }
    EXPECT_EQ(log.count("the creator gave no block, size = [200]"), 4u);
    EXPECT_EQ(log.count("is no block of 200 bytes"), 3u);
}

TEST_F(Shmx, ARequestThatIsServedTooLateCostsNoBlock)
{
    const shmx_times times({.alloc_ms = 200, .free_answer_ms = 200, .served_ms = 100});
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 2));
    const heap_owner visitor(tarn_shmx_open(name_.c_str()));
    const hand_served hand(heap.get(), 0); // a creator that is too slow
    EXPECT_EQ(tarn_shmx_blk_alloc(visitor.get(), 40), nullptr);
    EXPECT_EQ(tarn::shmx_load(hand.slot().state), 2) << "left to the creator";
    EXPECT_TRUE(support::wait_until([&] {
        tarn::shmx_serve_requests(heap.get());
        return tarn::shmx_load(hand.slot().state) == 0;
    }));
    EXPECT_EQ(heap.get()->heap.block_count, 1u) << "served";
    EXPECT_EQ(used_blocks(heap.get(), 1), 0u) << "and taken back";
    // The same while the visitor frees.
    void *block = tarn_shmx_blk_alloc(heap.get(), 40);
    tarn_shmx_blk_free(
        visitor.get(),
        tarn_shmx_offset_to_ptr(visitor.get(), tarn_shmx_ptr_to_offset(heap.get(), block)));
    EXPECT_TRUE(log.contains("error", "failed to request shmx_blk <64>("));
    EXPECT_TRUE(support::wait_until([&] {
        tarn::shmx_serve_requests(heap.get());
        return tarn::shmx_load(hand.slot().state) == 0;
    }));
    EXPECT_EQ(used_blocks(heap.get(), 0), 0u);
    EXPECT_EQ(check_heap(heap.get()), "");
}

TEST_F(Shmx, CreatorStopsWhileVisitorsAsk)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    heap_owner heap(tarn_shmx_create(name_.c_str(), 16 << 20, 0, 2));
    const heap_owner visitor(tarn_shmx_open(name_.c_str()));
    std::atomic<int> got{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
    {
        threads.emplace_back([&] {
            while (void *block = tarn_shmx_blk_alloc(visitor.get(), 40))
            {
                std::memset(block, 0x5A, 40);
                ++got;
            }
        });
    }
    EXPECT_TRUE(support::wait_until([&] { return got > 30; }));
    heap.reset();
    for (std::thread &thread : threads)
    {
        thread.join();
    }
}

TEST_F(Shmx, RequestsThatAreNoneAreRefused)
{
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 2));
    const heap_owner visitor(tarn_shmx_open(name_.c_str()));
    const uint32_t block = raw_block_offset(heap.get(), tarn_shmx_blk_alloc(heap.get(), 40));
    const uint32_t visitors =
        raw_block_offset(visitor.get(), tarn_shmx_blk_alloc(visitor.get(), 40));
    struct bad_request
    {
        uint32_t user_id;
        uint32_t size;
        uint32_t offset;
    };
    for (const bad_request &bad : {bad_request{3, 40, 0},
                                   {0, 40, 0},
                                   {1, 0xFFFFFFF0u, 0},
                                   {1, 0, 0},
                                   {1, 40, block},
                                   {1, 0, block},
                                   {0, 0, visitors},
                                   {2, 0, visitors},
                                   {0xFFFFFFFF, 0, block},
                                   {0, 0, block + 4},
                                   {0, 0, 0xFFFFFFFF},
                                   {1, 0, 60}})
    {
        tarn::shmx_request_slot &slot = heap.get()->view.header->slots[99];
        tarn::shmx_store(slot.user_id, bad.user_id);
        tarn::shmx_store(slot.size, bad.size);
        tarn::shmx_store(slot.offset, bad.offset);
        tarn::shmx_store(slot.state, 2, std::memory_order_release);
        EXPECT_TRUE(support::wait_until([&] { return tarn::shmx_load(slot.state) == 0; }))
            << bad.user_id << ' ' << bad.size << ' ' << bad.offset;
    }
    EXPECT_EQ(used_blocks(heap.get(), 0), 1u);
    EXPECT_EQ(used_blocks(heap.get(), 1), 1u);
    EXPECT_EQ(check_heap(heap.get()), "");
}

TEST_F(Shmx, VisitorFailsEarlyWhenItsCreatorIsGone)
{
    log_capture log;
    heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 2));
    const heap_owner visitor(tarn_shmx_open(name_.c_str()));
    void *block = tarn_shmx_blk_alloc(heap.get(), 10);
    void *seen = tarn_shmx_offset_to_ptr(visitor.get(), tarn_shmx_ptr_to_offset(heap.get(), block));
    heap.reset();
    EXPECT_LT(
        support::elapsed_ms([&] { EXPECT_EQ(tarn_shmx_blk_alloc(visitor.get(), 10), nullptr); }),
        8000.0);
    EXPECT_LT(support::elapsed_ms([&] { tarn_shmx_blk_free(visitor.get(), seen); }), 20000.0);
    EXPECT_TRUE(log.contains("error", "failed to request shmx_blk <64>("));
}

TEST_F(Shmx, ProcessesAndThreadsShareTheHeap)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_WARN);
    log_capture log;
    const int visitors = support::with_sanitizer ? 3 : 15;
    const heap_owner heap(
        tarn_shmx_create(name_.c_str(), 64 << 20, 0, static_cast<uint32_t>(visitors)));
    std::vector<child_process> others;
    for (int i = 0; i < visitors; ++i)
    {
        others.push_back(start_visitor(name_, "churn"));
    }
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (uint32_t seed = 1; seed <= 4; ++seed)
    {
        threads.emplace_back([&, seed] { wrong += churn(heap.get(), seed, churn_rounds()); });
    }
    for (std::thread &thread : threads)
    {
        thread.join();
    }
    for (child_process &other : others)
    {
        const std::string output = other.read_rest(120000);
        EXPECT_EQ(other.wait(60000), 0) << output;
    }
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(check_heap(heap.get()), "");
    EXPECT_EQ(used_blocks(heap.get(), 0), 0u);
}

TEST_F(Shmx, BlocksPassBetweenProcesses)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_WARN);
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 20, 4 * 1024, 4));
    child_process giver = start_visitor(name_, "give");
    child_process taker = start_visitor(name_, "take");
    EXPECT_EQ(giver.wait(60000), 0) << giver.read_rest();
    EXPECT_EQ(taker.wait(60000), 0) << taker.read_rest();
    EXPECT_EQ(check_heap(heap.get()), "");
    EXPECT_EQ(log.count("already freed"), 0u);
}

// ---- nonsense in the segment --------------------------------------------------------------------

TEST_F(Shmx, ScribblesDoNotLeadAstray)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_WARN);
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 64, 4));
    dice random(11);
    std::vector<void *> held;
    auto *words = reinterpret_cast<uint32_t *>(heap.get()->view.header);
    const size_t count = (sizeof(tarn::shmx_segment_header) + (1 << 16)) / 4;
    const auto is_lock_word = [&](size_t at) { return at >= 1 && at <= 3; };
    for (int i = 0; i < 20000; ++i)
    {
        for (int k = 0; k < 4; ++k)
        {
            const size_t at = random() % 2 ? random() % 532 : random() % count;
            const uint32_t values[] = {0u,   0xFFFFFFFFu,      0x7FFFFFFFu, 64u,
                                       116u, random() % 70000, random()};
            if (!is_lock_word(at))
            {
                tarn::shmx_store(words[at], values[random() % 7]);
            }
        }
        if (random() % 2 || held.empty())
        {
            if (void *block = tarn_shmx_blk_alloc(heap.get(), random() % 400))
            {
                held.push_back(block);
            }
        }
        else
        {
            std::swap(held[random() % held.size()], held.back());
            tarn_shmx_blk_free(heap.get(), held.back());
            held.pop_back();
        }
        if (i % 100 == 0)
        {
            char line[200];
            (void)tarn_shmx_info_print(heap.get(), line, sizeof line);
        }
    }
    EXPECT_TRUE(log.contains("error", "were overwritten and have been restored"));
    EXPECT_EQ(used_blocks(heap.get(), 0), held.size());
}

TEST_F(Shmx, ScribblesDoNotLeadAVisitorAstray)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_ERROR);
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 64, 4));
    const heap_owner visitor(tarn_shmx_open(name_.c_str()));
    dice random(12);
    std::vector<void *> held;
    auto *data = reinterpret_cast<uint32_t *>(heap.get()->view.data);
    for (int i = 0; i < (support::with_sanitizer ? 500 : 3000); ++i)
    {
        for (int k = 0; k < 8; ++k)
        {
            const uint32_t values[] = {0u,  0xFFFFFFFFu,      0x7FFFFFFFu, 1u,
                                       52u, random() % 70000, random()};
            tarn::shmx_store(data[random() % 2048], values[random() % 7]);
        }
        void *block =
            random() % 2 ? tarn_shmx_blk_alloc(visitor.get(), 1 + random() % 400) : nullptr;
        if (block != nullptr)
        {
            held.push_back(block);
        }
        else if (!held.empty())
        {
            std::swap(held[random() % held.size()], held.back());
            tarn_shmx_blk_free(visitor.get(), held.back());
            held.pop_back();
        }
        char line[200];
        (void)tarn_shmx_info_print(visitor.get(), line, sizeof line);
    }
    EXPECT_TRUE(log.contains("error", "is no block"));
    EXPECT_LE(used_blocks(heap.get(), 1) + used_blocks(heap.get(), 0),
              heap.get()->heap.block_count);
}

// ---- events -------------------------------------------------------------------------------------

TEST_F(Shmx, EventsKeepTheirStateAndTime)
{
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 2));
    const uint32_t manual = tarn_shmx_event_create(heap.get(), true, true);
    const uint32_t automatic = tarn_shmx_event_create(heap.get(), false, false);
    EXPECT_TRUE(tarn_shmx_event_wait(heap.get(), manual, 0));
    EXPECT_TRUE(tarn_shmx_event_wait(heap.get(), manual, TARN_INFINITE));
    EXPECT_TRUE(tarn_shmx_event_reset(heap.get(), manual));
    EXPECT_FALSE(tarn_shmx_event_wait(heap.get(), manual, 0));
    EXPECT_TRUE(tarn_shmx_event_set(heap.get(), automatic));
    EXPECT_TRUE(tarn_shmx_event_wait(heap.get(), automatic, 10));
    const double waited =
        support::elapsed_ms([&] { EXPECT_FALSE(tarn_shmx_event_wait(heap.get(), automatic, 60)); });
    EXPECT_GE(waited, 60.0);
    EXPECT_LT(waited, 10000.0);
    {
        // Its lock is held by a thread that does not go on.
        child_process holder = start_visitor(name_, "hold");
        ASSERT_TRUE(holder.wait_for_line("ready"));
        auto *record = reinterpret_cast<tarn::shmx_event_record *>(
            static_cast<uint8_t *>(tarn_shmx_offset_to_ptr(heap.get(), automatic + 28)));
        tarn::shmx_store(record->lock, static_cast<uint32_t>(holder.pid()));
        EXPECT_FALSE(tarn_shmx_event_wait(heap.get(), automatic, 0));
        EXPECT_FALSE(log.contains("failed to lock mutex"));
        EXPECT_LT(support::elapsed_ms(
                      [&] { EXPECT_FALSE(tarn_shmx_event_wait(heap.get(), automatic, 5)); }),
                  9000.0);
        EXPECT_TRUE(log.contains("error", "failed to lock mutex, error = [110]("));
        tarn::shmx_store(record->lock, 0);
    }
    EXPECT_STREQ(tarn_shmx_event_name(manual), ("TARNSHMXEVT_" + std::to_string(manual)).c_str());
    EXPECT_TRUE(tarn_shmx_event_destroy(heap.get(), manual));
    EXPECT_TRUE(tarn_shmx_event_destroy(heap.get(), automatic));
    EXPECT_EQ(used_blocks(heap.get(), 0), 0u);

    EXPECT_FALSE(tarn_shmx_event_set(heap.get(), manual));
    EXPECT_FALSE(tarn_shmx_event_reset(heap.get(), 0xFFFFFFFF));
    EXPECT_EQ(log.count("fourcc [0] mismatch!"), 2u);
    EXPECT_FALSE(tarn_shmx_event_destroy(heap.get(), 3));
    EXPECT_TRUE(log.contains("error", "fourcc 0 mismatch!"));
    EXPECT_GE(support::elapsed_ms([&] { (void)tarn_shmx_event_wait(heap.get(), manual, 30); }),
              29.0);
    EXPECT_TRUE(log.contains("error", "fourcc mismatch! expected = [0x65130128], actual = [0x0]"));
}

TEST_F(Shmx, EventsWakeOtherProcesses)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_WARN);
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 64, 4));
    auto *events = static_cast<uint32_t *>(tarn_shmx_meta_zone(heap.get()));
    events[0] = tarn_shmx_event_create(heap.get(), false, false);
    events[1] = tarn_shmx_event_create(heap.get(), false, false);
    child_process echo = start_visitor(name_, "echo");
    const int rounds = support::with_sanitizer ? 300 : 3000;
    for (int i = 0; i < rounds; ++i)
    {
        ASSERT_TRUE(tarn_shmx_event_set(heap.get(), events[0]));
        ASSERT_TRUE(tarn_shmx_event_wait(heap.get(), events[1], 10000)) << i;
    }
    tarn::shmx_store(events[2], 1);
    EXPECT_TRUE(tarn_shmx_event_destroy(heap.get(), events[0])) << "while the other waits";
    EXPECT_EQ(echo.wait(), 0);
    EXPECT_FALSE(tarn_shmx_event_wait(heap.get(), events[1], 0));
}

TEST_F(Shmx, OneSetWakesAllProcessesOrOne)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_WARN);
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 64, 4));
    auto *events = static_cast<uint32_t *>(tarn_shmx_meta_zone(heap.get()));
    for (const bool manual : {true, false})
    {
        events[0] = tarn_shmx_event_create(heap.get(), manual, false);
        std::vector<child_process> waiters;
        for (int i = 0; i < 3; ++i)
        {
            waiters.push_back(start_visitor(name_, "await"));
        }
        const auto *record = reinterpret_cast<tarn::shmx_event_record *>(
            static_cast<uint8_t *>(tarn_shmx_offset_to_ptr(heap.get(), events[0] + 28)));
        EXPECT_TRUE(support::wait_until([&] { return tarn::shmx_load(record->users) == 3; }));
        for (uint32_t left = manual ? 0 : 2;; --left)
        {
            EXPECT_TRUE(tarn_shmx_event_set(heap.get(), events[0]));
            EXPECT_TRUE(
                support::wait_until([&] { return tarn::shmx_load(record->users) == left; }));
            EXPECT_EQ(tarn::shmx_load(record->signalled), manual ? 1 : 0);
            if (left == 0)
            {
                break;
            }
            EXPECT_FALSE(
                support::wait_until([&] { return tarn::shmx_load(record->users) < left; }, 50));
        }
        for (child_process &waiter : waiters)
        {
            EXPECT_EQ(waiter.wait(), 0) << waiter.read_rest();
        }
        EXPECT_TRUE(tarn_shmx_event_destroy(heap.get(), events[0]));
    }
}

TEST_F(Shmx, ManualEventsWakeAllAndAutomaticOnesOne)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_WARN);
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 16, 0, 1));
    for (const bool manual : {true, false})
    {
        const uint32_t event = tarn_shmx_event_create(heap.get(), manual, false);
        std::atomic<int> woken{0};
        std::atomic<int> left{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 4; ++i)
        {
            waiters.emplace_back([&] {
                woken += tarn_shmx_event_wait(heap.get(), event, TARN_INFINITE) ? 1 : 0;
                ++left;
            });
        }
        EXPECT_TRUE(tarn_shmx_event_set(heap.get(), event));
        const int expected = manual ? 4 : 1;
        EXPECT_TRUE(support::wait_until([&] { return woken == expected; }));
        EXPECT_TRUE(tarn_shmx_event_destroy(heap.get(), event)) << "while the others wait";
        EXPECT_TRUE(support::wait_until([&] { return left == 4; }));
        EXPECT_EQ(woken, expected);
        for (std::thread &waiter : waiters)
        {
            waiter.join();
        }
    }
}

} // namespace
