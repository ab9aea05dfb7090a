// Death in the shared heap: creators, visitors and lock holders killed at any instruction.
// TARN_SOAK=1 runs a thousand rounds.

#include "shmx_support.h"

#include "tarn_shm.h"

#include <cerrno>
#include <chrono>
#include <csignal>

#include <linux/filter.h>
#include <linux/futex.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace shmx_test;
using support::child_process;
using support::log_capture;

namespace
{

int rounds(int usual)
{
    return support::with_sanitizer ? usual / 10 : soak() ? 1000 : usual;
}

class ShmxDeath : public testing::Test
{
protected:
    support::layer layer_;
    support::level_scope quiet_{TARN_LOG_LEVEL_WARN};
    std::string name_ = support::unique_name("shmxd");
};

void say(const std::string &text)
{
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

void pause_at_random(dice &random, uint32_t limit_us)
{
    std::this_thread::sleep_for(std::chrono::microseconds(random() % limit_us));
}

/** Words of the meta zone that the processes meet by. */
enum meta_word
{
    event_word,
    block_word,
    counter_word
};

uint32_t *meta_of(TARN_SHMX heap)
{
    return static_cast<uint32_t *>(tarn_shmx_meta_zone(heap));
}

/** A block and an event that everybody uses. */
void put_shared_things(TARN_SHMX heap)
{
    meta_of(heap)[event_word] = tarn_shmx_event_create(heap, false, false);
    meta_of(heap)[block_word] = tarn_shmx_ptr_to_offset(heap, tarn_shmx_blk_alloc(heap, 64));
}

void *shared_block(TARN_SHMX heap)
{
    return tarn_shmx_offset_to_ptr(heap, meta_of(heap)[block_word]);
}

/** Everything that can be done to a heap, for ever. */
void do_everything(TARN_SHMX heap, uint32_t seed)
{
    dice random(seed);
    std::vector<void *> held;
    char line[256];
    for (;;)
    {
        switch (random() % 8)
        {
        case 0:
        case 1:
        case 2:
            if (void *block = tarn_shmx_blk_alloc(heap, 1 + random() % 600))
            {
                held.push_back(block);
            }
            break;
        case 3:
        case 4:
            if (!held.empty())
            {
                tarn_shmx_blk_free(heap, held.back());
                held.pop_back();
            }
            break;
        case 5: // to the creator and back: the slots are busy
            (void)tarn::shmx_request_free(heap, tarn::shmx_request_alloc(heap, 1 + random() % 300),
                                          tarn_shmx_user_id(heap));
            break;
        case 6:
            (void)tarn_shmx_blk_lock(shared_block(heap));
            (void)tarn_shmx_info_print(heap, line, sizeof line);
            (void)tarn_shmx_blk_unlock(shared_block(heap));
            break;
        default:
            (void)tarn_shmx_event_set(heap, meta_of(heap)[event_word]);
            (void)tarn_shmx_event_wait(heap, meta_of(heap)[event_word], random() % 3);
            break;
        }
        if (held.size() > 20)
        {
            tarn_shmx_blk_free(heap, held.front());
            held.erase(held.begin());
        }
    }
}

/** args: name, seed, threads. */
TARN_TEST_ROLE(doomed_visitor)
{
    const support::layer layer;
    const heap_owner heap(tarn_shmx_open(args[0].c_str()));
    if (!heap)
    {
        return 1;
    }
    say("ready");
    tarn_log_level_set(TARN_LOG_LEVEL_FATAL);
    const auto seed = static_cast<uint32_t>(std::stoul(args[1]));
    std::thread second([&] { do_everything(heap.get(), seed + 1); });
    do_everything(heap.get(), seed);
    return 0;
}

/** The survivors can go on: blocks, locks, events, statistics. */
void expect_working(TARN_SHMX heap, const std::string &when)
{
    void *block = tarn_shmx_blk_alloc(heap, 100);
    EXPECT_NE(block, nullptr) << when;
    if (block != nullptr)
    {
        tarn_shmx_blk_free(heap, block);
    }
    EXPECT_TRUE(tarn_shmx_blk_lock(shared_block(heap))) << when;
    EXPECT_TRUE(tarn_shmx_blk_unlock(shared_block(heap))) << when;
    const uint32_t event = meta_of(heap)[event_word];
    EXPECT_TRUE(tarn_shmx_event_reset(heap, event)) << when;
    EXPECT_TRUE(tarn_shmx_event_set(heap, event)) << when;
    EXPECT_TRUE(tarn_shmx_event_wait(heap, event, 5000)) << when;
    char line[256];
    EXPECT_GT(tarn_shmx_info_print(heap, line, sizeof line), 0) << when;
}

/** Slots that nobody alive is using; one in which a dead visitor left no user id takes its time to
 *  come back. */
bool slots_are_free(TARN_SHMX heap)
{
    const auto &slots = heap->view.header->slots;
    return std::all_of(std::begin(slots), std::end(slots),
                       [](const auto &slot) { return tarn::shmx_load(slot.state) == 0; });
}

TEST_F(ShmxDeath, VisitorsDieAtAnyInstruction)
{
    const shmx_times times({.stuck_ms = 10000}); // long for a living one all the same
    const support::leak_check leaks;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 200 << 20, 64, 3));
    put_shared_things(heap.get());
    const heap_owner survivor(tarn_shmx_open(name_.c_str()));
    ASSERT_TRUE(survivor);
    dice random(3);
    pid_t last_pid = 0;
    for (int round = 0; round < rounds(120); ++round)
    {
        child_process doomed =
            child_process::role("doomed_visitor", {name_, std::to_string(random() % 1000000)});
        if (last_pid != 0)
        {
            const std::string line = doomed.read_line();
            ASSERT_NE(
                line.find("takeover user_id [2] with dirty pid [" + std::to_string(last_pid) + "]"),
                std::string::npos)
                << line;
        }
        ASSERT_TRUE(doomed.wait_for_line("ready"));
        pause_at_random(random, 4000);
        doomed.signal(SIGKILL);
        last_pid = doomed.pid();
        ASSERT_EQ(doomed.wait(), -SIGKILL);
        const std::string when = "round " + std::to_string(round);
        ASSERT_EQ(check_heap(heap.get()), "") << when;
        expect_working(heap.get(), when);
        expect_working(survivor.get(), when);
    }
    EXPECT_TRUE(support::wait_until([&] { return slots_are_free(heap.get()); }, 70000));
    EXPECT_EQ(check_heap(heap.get()), "");
    EXPECT_EQ(used_blocks(heap.get(), 0), 2u);
    EXPECT_GT(used_blocks(heap.get(), 2), 0u) << "what the dead had stays with the user id";
    EXPECT_TRUE(tarn_shmx_event_destroy(heap.get(), meta_of(heap.get())[event_word]));
}

/** args: name. */
TARN_TEST_ROLE(doomed_creator)
{
    const support::layer layer;
    const heap_owner heap(tarn_shmx_create(args[0].c_str(), 8 << 20, 64, 3));
    if (!heap)
    {
        return 1;
    }
    put_shared_things(heap.get());
    say("ready");
    tarn_log_level_set(TARN_LOG_LEVEL_FATAL);
    dice random(static_cast<uint32_t>(::getpid()));
    for (;;)
    {
        (void)churn(heap.get(), random(), 200);
        char line[256];
        (void)tarn_shmx_info_print(heap.get(), line, sizeof line);
        (void)tarn_shmx_event_set(heap.get(), meta_of(heap.get())[event_word]);
    }
}

TEST_F(ShmxDeath, CreatorsDieAtAnyInstruction)
{
    const support::leak_check leaks;
    log_capture log;
    dice random(4);
    for (int round = 0; round < rounds(30); ++round)
    {
        child_process creator = child_process::role("doomed_creator", {name_});
        ASSERT_TRUE(creator.wait_for_line("ready"));
        const heap_owner visitor(tarn_shmx_open(name_.c_str()));
        ASSERT_TRUE(visitor);
        std::thread killer([&] {
            pause_at_random(random, 4000);
            creator.signal(SIGKILL);
        });
        const double waited = support::elapsed_ms([&] {
            while (tarn_shmx_blk_alloc(visitor.get(), 50) != nullptr)
            {
                (void)tarn_shmx_event_wait(visitor.get(), meta_of(visitor.get())[event_word], 1);
            }
        });
        killer.join();
        EXPECT_LT(waited, 9000.0);
        EXPECT_TRUE(tarn_shmx_blk_lock(shared_block(visitor.get())));
        EXPECT_TRUE(tarn_shmx_blk_unlock(shared_block(visitor.get())));
        char line[256];
        EXPECT_GT(tarn_shmx_info_print(visitor.get(), line, sizeof line), 0);
        EXPECT_EQ(log.count("loop list detected!"), 0u);
        ASSERT_EQ(creator.wait(), -SIGKILL);
    }
    // The last one's remains are replaced.
    EXPECT_TRUE(heap_owner(tarn_shmx_create(name_.c_str(), 4096, 0, 1)));
}

/** args: name, what to hold or wait for. */
TARN_TEST_ROLE(lock_holder)
{
    const support::layer layer;
    const heap_owner heap(tarn_shmx_open(args[0].c_str()));
    const std::string &what = args[1];
    if (what == "block")
    {
        (void)tarn_shmx_blk_lock(shared_block(heap.get()));
    }
    else if (what == "header")
    {
        (void)tarn::shmx_lock(tarn::shmx_slot_word(&heap.get()->view.header->lock));
    }
    else if (what == "event")
    {
        auto *data = static_cast<uint8_t *>(
            tarn_shmx_offset_to_ptr(heap.get(), meta_of(heap.get())[event_word] + 28));
        (void)tarn::shmx_lock(&reinterpret_cast<tarn::shmx_event_record *>(data)->lock);
    }
    else if (what == "wait")
    {
        say("held");
        (void)tarn_shmx_event_wait(heap.get(), meta_of(heap.get())[event_word], TARN_INFINITE);
    }
    else // a slot in a state, with or without the user id
    {
        tarn::shmx_request_slot &slot = heap.get()->view.header->slots[50];
        tarn::shmx_store(slot.user_id, tarn_shmx_user_id(heap.get()));
        tarn::shmx_store(slot.state, static_cast<uint8_t>(std::stoi(what)));
    }
    say("held");
    for (;;)
    {
        ::pause();
    }
}

TEST_F(ShmxDeath, LocksOfTheDeadAreTakenOver)
{
    log_capture log;
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 20, 64, 4));
    put_shared_things(heap.get());
    for (const char *what : {"block", "header", "event", "wait", "wait"})
    {
        child_process holder = child_process::role("lock_holder", {name_, what});
        ASSERT_TRUE(holder.wait_for_line("held"));
        // A second one, that dies while it waits for the first.
        child_process waiter = child_process::role("lock_holder", {name_, what});
        (void)waiter.wait_for_line("held", 50);
        std::thread killer([&] {
            (void)log.wait_for("never", 20); // the main thread waits for the lock by then
            waiter.signal(SIGKILL);
            holder.signal(SIGKILL);
        });
        if (std::string(what) != "wait") // whoever waits and lives takes the event
        {
            expect_working(heap.get(), what);
        }
        killer.join();
        ASSERT_EQ(holder.wait(), -SIGKILL);
        ASSERT_EQ(waiter.wait(), -SIGKILL);
        expect_working(heap.get(), what);
    }
    const double waited = support::elapsed_ms(
        [&] { EXPECT_TRUE(tarn_shmx_event_destroy(heap.get(), meta_of(heap.get())[event_word])); });
    EXPECT_LT(waited, 10000.0) << "with four dead waiters counted";
}

TEST_F(ShmxDeath, SlotsOfTheDeadComeBack)
{
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 20, 64, 4));
    for (const char *state : {"1", "5", "3", "77"})
    {
        child_process holder = child_process::role("lock_holder", {name_, state});
        ASSERT_TRUE(holder.wait_for_line("held"));
        EXPECT_FALSE(support::wait_until([&] { return slots_are_free(heap.get()); }, 800))
            << "the visitor lives";
        holder.signal(SIGKILL);
        ASSERT_EQ(holder.wait(), -SIGKILL);
        EXPECT_TRUE(support::wait_until([&] { return slots_are_free(heap.get()); }, 10000))
            << state;
    }
}

TEST_F(ShmxDeath, OfManyOnlyOneTakesADeadLock)
{
    child_process dead = child_process::role("shmx_visitor", {name_, "hold"});
    const auto dead_id = static_cast<uint32_t>(dead.pid());
    (void)dead.wait();
    for (int round = 0; round < (support::with_sanitizer ? 50 : 1000); ++round)
    {
        alignas(8) uint32_t word = dead_id | (round % 2 != 0 ? 0x80000000u : 0);
        std::atomic<int> inside{0};
        std::atomic<int> wrong{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 3; ++i)
        {
            threads.emplace_back([&] {
                const int error = tarn::shmx_lock(&word);
                wrong += error != 0 || ++inside != 1;
                --inside;
                wrong += !tarn::shmx_unlock(&word);
            });
        }
        for (std::thread &thread : threads)
        {
            thread.join();
        }
        ASSERT_EQ(wrong, 0) << round;
        ASSERT_EQ(word & tarn::lock_owner_mask, 0u);
    }
}

/** From here on a lock that goes to the kernel ends the process. */
bool forbid_lock_calls()
{
    const auto low_word_of_operation =
        static_cast<uint32_t>(offsetof(seccomp_data, args) + sizeof(uint64_t)); // little-endian
    sock_filter rules[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_futex, 0, 6),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, low_word_of_operation),
        BPF_STMT(BPF_ALU | BPF_AND | BPF_K, static_cast<uint32_t>(FUTEX_CMD_MASK)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, FUTEX_LOCK_PI, 4, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, FUTEX_UNLOCK_PI, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, FUTEX_TRYLOCK_PI, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 13 /* FUTEX_LOCK_PI2 */, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS)};
    const sock_fprog program = {static_cast<unsigned short>(std::size(rules)), rules};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

/** args: name, "alone" or "held". */
TARN_TEST_ROLE(kernel_avoider)
{
    const support::layer layer;
    const heap_owner heap(tarn_shmx_open(args[0].c_str()));
    const uint32_t event = meta_of(heap.get())[event_word];
    if (!forbid_lock_calls())
    {
        return 1;
    }
    if (args[1] == "held")
    {
        tarn_shmx_blk_lock(shared_block(heap.get()));
    }
    char line[256];
    for (int i = 0; i < 100; ++i)
    {
        if (!tarn_shmx_blk_lock(shared_block(heap.get())) ||
            !tarn_shmx_blk_unlock(shared_block(heap.get())) ||
            !tarn_shmx_event_set(heap.get(), event) ||
            !tarn_shmx_event_wait(heap.get(), event, 0) ||
            tarn_shmx_info_print(heap.get(), line, sizeof line) <= 0)
        {
            return 2;
        }
    }
    return 0;
}

TEST_F(ShmxDeath, UncontendedLocksDoNotCallTheKernel)
{
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 20, 64, 4));
    put_shared_things(heap.get());
    child_process alone = child_process::role("kernel_avoider", {name_, "alone"});
    EXPECT_EQ(alone.wait(), 0);
    ASSERT_TRUE(tarn_shmx_blk_lock(shared_block(heap.get())));
    child_process held = child_process::role("kernel_avoider", {name_, "held"});
    EXPECT_EQ(held.wait(), -SIGSYS) << "the filter does its work";
    EXPECT_TRUE(tarn_shmx_blk_unlock(shared_block(heap.get())));
}

/** Always calls the kernel, as a simple program would. */
TARN_TEST_ROLE(kernel_locker)
{
    const support::layer layer;
    const heap_owner heap(tarn_shmx_open(args[0].c_str()));
    auto *block = static_cast<uint8_t *>(shared_block(heap.get()));
    auto *word = reinterpret_cast<uint32_t *>(block - 8);
    uint32_t &counter = meta_of(heap.get())[counter_word];
    for (int i = 0; i < 5000; ++i)
    {
        if (::syscall(SYS_futex, word, FUTEX_LOCK_PI, 0, nullptr, nullptr, 0) != 0)
        {
            return 1;
        }
        *static_cast<volatile uint32_t *>(&counter) = counter + 1;
        if (::syscall(SYS_futex, word, FUTEX_UNLOCK_PI, 0, nullptr, nullptr, 0) != 0)
        {
            return 2;
        }
    }
    return 0;
}

TEST_F(ShmxDeath, LocksAgreeWithProcessesThatCallTheKernel)
{
    const heap_owner heap(tarn_shmx_create(name_.c_str(), 1 << 20, 64, 4));
    put_shared_things(heap.get());
    child_process one = child_process::role("kernel_locker", {name_});
    child_process two = child_process::role("kernel_locker", {name_});
    uint32_t &counter = meta_of(heap.get())[counter_word];
    for (int i = 0; i < 50000; ++i)
    {
        ASSERT_TRUE(tarn_shmx_blk_lock(shared_block(heap.get())));
        *static_cast<volatile uint32_t *>(&counter) = counter + 1;
        ASSERT_TRUE(tarn_shmx_blk_unlock(shared_block(heap.get())));
    }
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(two.wait(), 0);
    EXPECT_EQ(counter, 60000u);
    log_capture log;
    EXPECT_FALSE(tarn_shmx_blk_unlock(shared_block(heap.get())));
    EXPECT_TRUE(log.contains("error", "futex_call FUTEX_UNLOCK_PI failed, errno = [1]("));
    EXPECT_TRUE(tarn_shmx_blk_lock(shared_block(heap.get())));
    EXPECT_FALSE(tarn_shmx_blk_lock(shared_block(heap.get())));
    EXPECT_TRUE(log.contains("error", "futex_call FUTEX_LOCK_PI failed, errno = [35]("));
}

} // namespace
