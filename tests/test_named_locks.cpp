// Mutexes and read-write locks, shared by name between processes and private to one.

#include "support.h"

#include "tarn_mutex.h"
#include "tarn_raii.h"
#include "tarn_rwlock.h"
#include "tarn_shm.h"
#include "tarn_sys.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

#include <unistd.h>

using support::child_process;
using support::expect_check;
using support::log_capture;

namespace
{

void destroy_shm(TARN_SHM shm)
{
    (void)tarn_shm_destroy(shm);
}
using shm_owner = tarn::unique_handle<TARN_SHM, destroy_shm>;
using mutex_owner = tarn::unique_handle<TARN_MUTEX, tarn_mutex_destroy>;
using rwlock_owner = tarn::unique_handle<TARN_RWLOCK, tarn_rwlock_destroy>;

class NamedLock : public testing::Test
{
protected:
    support::layer layer_;
    std::string name_ = support::unique_name("lock");
};

void say(const char *text)
{
    std::printf("%s\n", text);
    std::fflush(stdout);
}

// ---- both kinds ---------------------------------------------------------------------------------

TEST_F(NamedLock, RefusesNamesThatDoNotFit)
{
    log_capture log;
    expect_check("RVON(name,TARN_INVALID_HANDLE)");
    expect_check("RVOF(tarn_str_len( name ) > 0,TARN_INVALID_HANDLE)");
    expect_check("RVOF(tarn_str_printf( mutex_name, TARN_NAME_MAX, MUTEX_MEMORY_NAME_PATTERN, name "
                 ") > 0,TARN_INVALID_HANDLE)");
    expect_check("RVOF(tarn_str_printf( rwlock_name, TARN_NAME_MAX, RWLOCK_MEMORY_NAME_PATTERN, "
                 "name ) > 0,TARN_INVALID_HANDLE)");
    const std::string long_name(102, 'n');
    EXPECT_EQ(tarn_mutex_create(0, ""), nullptr);
    EXPECT_EQ(tarn_mutex_create(0, long_name.c_str()), nullptr);
    EXPECT_EQ(tarn_mutex_open(nullptr), nullptr);
    EXPECT_EQ(tarn_mutex_open(""), nullptr);
    EXPECT_EQ(tarn_mutex_open(long_name.c_str()), nullptr);
    EXPECT_EQ(tarn_rwlock_create(0, ""), nullptr);
    EXPECT_EQ(tarn_rwlock_create(0, long_name.c_str() + 1), nullptr);
    EXPECT_EQ(tarn_rwlock_open(nullptr), nullptr);
    EXPECT_EQ(tarn_rwlock_open(""), nullptr);
    EXPECT_EQ(tarn_rwlock_open(long_name.c_str()), nullptr);
    const std::string fits = name_ + std::string(101 - name_.size(), 'n');
    EXPECT_TRUE(mutex_owner(tarn_mutex_create(0, fits.c_str())));
    EXPECT_TRUE(rwlock_owner(tarn_rwlock_create(0, fits.substr(0, 100).c_str())));
}

TEST_F(NamedLock, ObjectsHaveTheStatedLayout)
{
    const support::leak_check leaks;
    const mutex_owner m(tarn_mutex_create(0, name_.c_str()));
    const rwlock_owner rw(tarn_rwlock_create(7, name_.c_str()));
    const shm_owner m_memory(tarn_shm_open(("MUTEX_" + name_).c_str()));
    const shm_owner rw_memory(tarn_shm_open(("RWLOCK_" + name_).c_str()));
    ASSERT_TRUE(m_memory);
    ASSERT_TRUE(rw_memory);
    EXPECT_EQ(tarn_shm_size(m_memory.get()), 48u);
    EXPECT_EQ(tarn_shm_size(rw_memory.get()), 64u);
    EXPECT_EQ(std::memcmp(tarn_shm_buffer(m_memory.get()), "KELMUTEX", 8), 0);
    EXPECT_EQ(std::memcmp(tarn_shm_buffer(rw_memory.get()), "TARNRWLK", 8), 0);
    log_capture log;
    EXPECT_EQ(tarn_mutex_create(0, name_.c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "cannot create share memory object MUTEX_" + name_));
    EXPECT_EQ(tarn_rwlock_create(0, name_.c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "cannot create share memory object RWLOCK_" + name_));
}

TEST_F(NamedLock, OpenerRefusesWhatIsNoLock)
{
    log_capture log;
    EXPECT_EQ(tarn_mutex_open(name_.c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "fail to open share memory object MUTEX_" + name_));
    EXPECT_EQ(tarn_rwlock_open(name_.c_str()), nullptr);
    EXPECT_TRUE(log.contains("error", "fail to open share memory object RWLOCK_" + name_));
    for (const uint32_t size : {47u, 49u, 64u})
    {
        const shm_owner other(tarn_shm_create(("MUTEX_" + name_).c_str(), size));
        EXPECT_EQ(tarn_mutex_open(name_.c_str()), nullptr);
    }
    EXPECT_EQ(log.count("mismatch size on share memory object MUTEX_" + name_), 3u);
    const shm_owner other(tarn_shm_create(("MUTEX_" + name_).c_str(), 48));
    const shm_owner other_rw(tarn_shm_create(("RWLOCK_" + name_).c_str(), 64));
    for (const char *tag : {"KELMUTEY", "TARNRWLX", ""})
    {
        std::memcpy(tarn_shm_buffer(other.get()), tag, std::strlen(tag));
        std::memcpy(tarn_shm_buffer(other_rw.get()), tag, std::strlen(tag));
        EXPECT_EQ(tarn_mutex_open(name_.c_str()), nullptr);
        EXPECT_EQ(tarn_rwlock_open(name_.c_str()), nullptr);
    }
    EXPECT_EQ(log.count("tag mismatch on share memory object MUTEX_" + name_), 3u);
    EXPECT_EQ(log.count("tag mismatch on share memory object RWLOCK_" + name_), 3u);
}

TEST_F(NamedLock, NullHandlesAreReported)
{
    log_capture log;
    expect_check("RVON(m,-1)");
    EXPECT_EQ(tarn_mutex_lock(nullptr), -1);
    EXPECT_EQ(tarn_mutex_unlock(nullptr), -1);
    tarn_mutex_destroy(nullptr);
    EXPECT_FALSE(tarn_rwlock_wrlock(nullptr, 0));
    EXPECT_FALSE(tarn_rwlock_rdlock(nullptr, 5));
    tarn_rwlock_unlock(nullptr);
    tarn_rwlock_destroy(nullptr);
    EXPECT_EQ(log.count("invalid rwlock handle!"), 3u);
    EXPECT_EQ(log.count("rc = -1, error = "), 2u);
}

// ---- mutex --------------------------------------------------------------------------------------

TEST_F(NamedLock, UnnamedMutexOrdersThreads)
{
    const mutex_owner m(tarn_mutex_create(0, nullptr));
    int count = 0;
    const auto add = [&] {
        for (int i = 0; i < 10000; ++i)
        {
            EXPECT_EQ(tarn_mutex_lock(m.get()), 0);
            ++count;
            EXPECT_EQ(tarn_mutex_unlock(m.get()), 0);
        }
    };
    std::thread other(add);
    add();
    other.join();
    EXPECT_EQ(count, 20000);
}

/** args: name, what to do. */
TARN_TEST_ROLE(mutex_peer)
{
    const support::layer layer;
    TARN_MUTEX m = tarn_mutex_open(args[0].c_str());
    if (m == nullptr)
    {
        return 1;
    }
    if (args[1] == "die")
    {
        (void)tarn_mutex_lock(m);
        say("locked");
        for (;;)
        {
            ::pause();
        }
    }
    TARN_SHM shm = tarn_shm_open(args[1].c_str());
    auto *counter = static_cast<volatile uint32_t *>(tarn_shm_buffer(shm));
    for (int i = 0; i < 20000; ++i)
    {
        if (tarn_mutex_lock(m) != 0)
        {
            return 2;
        }
        *counter = *counter + 1;
        (void)tarn_mutex_unlock(m);
    }
    (void)tarn_shm_destroy(shm);
    say("done");
    (void)std::getchar(); // closing destroys the mutex for the others too
    tarn_mutex_destroy(m);
    return 0;
}

TEST_F(NamedLock, MutexOrdersTwoProcesses)
{
    const support::leak_check leaks;
    const std::string counter_name = support::unique_name("count");
    const shm_owner counter_memory(tarn_shm_create(counter_name.c_str(), 4));
    for (const uint32_t flags : {0u, TARN_MUTEX_ROBUST})
    {
        auto *counter = static_cast<volatile uint32_t *>(tarn_shm_buffer(counter_memory.get()));
        *counter = 0;
        const mutex_owner m(tarn_mutex_create(flags, name_.c_str()));
        child_process one = child_process::role("mutex_peer", {name_, counter_name});
        child_process two = child_process::role("mutex_peer", {name_, counter_name});
        ASSERT_TRUE(one.wait_for_line("done", 60000));
        ASSERT_TRUE(two.wait_for_line("done", 60000));
        EXPECT_EQ(tarn_mutex_lock(m.get()), 0);
        EXPECT_EQ(*counter, 40000u);
        EXPECT_EQ(tarn_mutex_unlock(m.get()), 0);
        one.close_input();
        two.close_input();
        EXPECT_EQ(one.wait(), 0);
        EXPECT_EQ(two.wait(), 0);
        EXPECT_EQ(tarn_mutex_lock(m.get()), EINVAL) << "destroyed by those who had opened it";
    }
}

TEST_F(NamedLock, RobustMutexGoesOnAfterItsHolderDied)
{
    log_capture log;
    const mutex_owner m(tarn_mutex_create(TARN_MUTEX_ROBUST, name_.c_str()));
    for (int round = 1; round <= 20; ++round)
    {
        child_process holder = child_process::role("mutex_peer", {name_, "die"});
        ASSERT_TRUE(holder.wait_for_line("locked"));
        std::thread killer([&holder] { holder.signal(SIGKILL); });
        EXPECT_EQ(tarn_mutex_lock(m.get()), 0);
        killer.join();
        EXPECT_EQ(log.count("its holder has died"), static_cast<size_t>(round));
        EXPECT_EQ(tarn_mutex_unlock(m.get()), 0);
    }
    EXPECT_TRUE(log.contains("warn", "its holder has died"));
    if (!support::with_tsan) // reports the mistake itself
    {
        EXPECT_EQ(tarn_mutex_unlock(m.get()), EPERM);
    }
    EXPECT_EQ(tarn_mutex_lock(m.get()), 0); // destroyed while held
}

TEST_F(NamedLock, PlainMutexOfADeadHolderStaysLocked)
{
    const mutex_owner m(tarn_mutex_create(0, name_.c_str()));
    child_process holder = child_process::role("mutex_peer", {name_, "die"});
    ASSERT_TRUE(holder.wait_for_line("locked"));
    holder.signal(SIGKILL);
    EXPECT_EQ(holder.wait(), -SIGKILL);
    child_process waiter = child_process::role("mutex_peer", {name_, "die"});
    EXPECT_FALSE(waiter.wait_for_line("locked", 300));
    waiter.signal(SIGKILL);
    (void)waiter.wait();
}

TEST_F(NamedLock, OverwrittenKindIsRefused)
{
    const mutex_owner m(tarn_mutex_create(TARN_MUTEX_ROBUST, name_.c_str()));
    const shm_owner memory(tarn_shm_open(("MUTEX_" + name_).c_str()));
    auto *kind =
        reinterpret_cast<int *>(static_cast<uint8_t *>(tarn_shm_buffer(memory.get())) + 24);
    const int good = *kind;
    for (const int bad : {0, 1, 2, 32, 128 | 32, 128 | 48, 128 | 17, -1})
    {
        *kind = bad;
        EXPECT_EQ(tarn_mutex_lock(m.get()), EINVAL) << bad;
        EXPECT_EQ(tarn_mutex_unlock(m.get()), EINVAL) << bad;
    }
    *kind = good;
    EXPECT_EQ(tarn_mutex_lock(m.get()), 0);
    EXPECT_EQ(tarn_mutex_unlock(m.get()), 0);
}

// ---- read-write lock ----------------------------------------------------------------------------

/** args: name, "read" or "write". Holds the lock until its input ends. */
TARN_TEST_ROLE(rwlock_holder)
{
    const support::layer layer;
    TARN_RWLOCK rw = tarn_rwlock_open(args[0].c_str());
    const bool held =
        args[1] == "read" ? tarn_rwlock_rdlock(rw, TARN_INFINITE) : tarn_rwlock_wrlock(rw, 1000);
    say(held ? "held" : "refused");
    (void)std::getchar();
    tarn_rwlock_unlock(rw);
    say("released");
    return 0;
}

TEST_F(NamedLock, RwlockOrdersTwoProcessesWithinTheirTime)
{
    const rwlock_owner rw(tarn_rwlock_create(0, name_.c_str()));
    log_capture log;
    {
        child_process writer = child_process::role("rwlock_holder", {name_, "write"});
        ASSERT_TRUE(writer.wait_for_line("held"));
        const double waited =
            support::elapsed_ms([&] { EXPECT_FALSE(tarn_rwlock_wrlock(rw.get(), 20)); });
        EXPECT_GE(waited, 19.0);
        EXPECT_LT(waited, 10000.0);
        char line[128];
        std::snprintf(line, sizeof line, "rwlock = %p, rc = 16, error = Device or resource busy",
                      static_cast<void *>(rw.get()));
        EXPECT_TRUE(log.contains("warn", line));
        EXPECT_FALSE(tarn_rwlock_rdlock(rw.get(), 0));
        EXPECT_TRUE(log.contains("debug", line));
        std::thread release([&writer] { writer.close_input(); });
        EXPECT_TRUE(tarn_rwlock_wrlock(rw.get(), TARN_INFINITE));
        release.join();
        tarn_rwlock_unlock(rw.get());
    }
    {
        child_process reader = child_process::role("rwlock_holder", {name_, "read"});
        ASSERT_TRUE(reader.wait_for_line("held"));
        EXPECT_TRUE(tarn_rwlock_rdlock(rw.get(), 0));
        tarn_rwlock_unlock(rw.get());
        EXPECT_FALSE(tarn_rwlock_wrlock(rw.get(), 5));
        std::thread release([&reader] { reader.close_input(); });
        EXPECT_TRUE(tarn_rwlock_wrlock(rw.get(), 10000));
        release.join();
        tarn_rwlock_unlock(rw.get());
    }
}

TEST_F(NamedLock, RwlockDebugFormsNameTheCaller)
{
    const rwlock_owner rw(tarn_rwlock_create(0, nullptr));
    log_capture log;
    char handle[32];
    std::snprintf(handle, sizeof handle, "%p", static_cast<void *>(rw.get()));
    EXPECT_TRUE(tarn_rwlock_wrlock_dbg("a.c", 7, "f", rw.get(), 9));
    EXPECT_FALSE(tarn_rwlock_rdlock_dbg("a.c", 8, "g", rw.get(), 0));
    tarn_rwlock_unlock_dbg("a.c", 9, "h", rw.get());
    for (const char *text : {"[a.c:7:f] %s 9 WWW-", "[a.c:7:f] %s 9 WWW=1", "[a.c:8:g] %s 0 RRR-",
                             "[a.c:8:g] %s 0 RRR=0", "[a.c:9:h] %s UUU-", "[a.c:9:h] %s UUU="})
    {
        std::string line = text;
        line.replace(line.find("%s"), 2, handle);
        EXPECT_TRUE(log.contains("info", line)) << line;
    }
}

TEST_F(NamedLock, FailingAllocationsLeaveNothingBehind)
{
    const support::leak_check leaks;
    log_capture log;
    expect_check("RVON(m,TARN_INVALID_HANDLE)");
    expect_check("RVON(rw,TARN_INVALID_HANDLE)");
    expect_check("RVON(system,TARN_INVALID_HANDLE)");
    support::fail_each_allocation([](size_t) {
        mutex_owner m(tarn_mutex_create(0, nullptr));
        rwlock_owner rw(tarn_rwlock_create(0, nullptr));
        EXPECT_TRUE(support::allocation_failed() || (m && rw));
    });
}

} // namespace
