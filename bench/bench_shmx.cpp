// The shared heap: its creator's way, a visitor's two ways, and events, beside malloc, an allocator
// for shared memory of another kind where one is installed, semaphores, and a bare mutex and
// condition.
//
// The other side of a ping-pong is a child process; it is forked from main before the first heap,
// so that it has no copy of one.

#include "ratio.h"

#include "tarn.h"
#include "tarn_shmx.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>

#include <pthread.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <csignal>
#include <unistd.h>

#if __has_include(<boost/interprocess/managed_shared_memory.hpp>)
#define WITH_BOOST 1
#include <boost/interprocess/managed_shared_memory.hpp>
#endif

namespace
{

/** Shared between this process and its child, without any heap. */
struct ground
{
    sem_t there;
    sem_t back;
    pthread_mutex_t mutex;
    pthread_cond_t condition;
    int turn;
    uint32_t there_event;
    uint32_t back_event;
    char name[64];
    std::atomic<int> ready;
};

ground *common = nullptr;

enum class role
{
    creator,
    semaphores,
    condition,
    events
};

void set_turn(int turn)
{
    pthread_mutex_lock(&common->mutex);
    common->turn = turn;
    pthread_cond_broadcast(&common->condition);
    pthread_mutex_unlock(&common->mutex);
}

void wait_turn(int turn)
{
    pthread_mutex_lock(&common->mutex);
    while (common->turn != turn)
    {
        pthread_cond_wait(&common->condition, &common->mutex);
    }
    pthread_mutex_unlock(&common->mutex);
}

[[noreturn]] void play(role part)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (part == role::creator || part == role::events)
    {
        (void)tarn_init();
        const std::string name = std::string(common->name) + (part == role::creator ? "c" : "e");
        TARN_SHMX heap = tarn_shmx_create(name.c_str(), 64u << 20, 0, 8);
        common->there_event = tarn_shmx_event_create(heap, false, false);
        common->back_event = tarn_shmx_event_create(heap, false, false);
        ++common->ready;
        while (part == role::events &&
               tarn_shmx_event_wait(heap, common->there_event, TARN_INFINITE))
        {
            (void)tarn_shmx_event_set(heap, common->back_event);
        }
    }
    ++common->ready;
    while (part == role::semaphores)
    {
        sem_wait(&common->there);
        sem_post(&common->back);
    }
    while (part == role::condition)
    {
        wait_turn(1);
        set_turn(0);
    }
    for (;;)
    {
        pause();
    }
}

/** Anew for each partner: the last one was killed inside them. */
void init_bare_objects()
{
    common->turn = 0;
    sem_init(&common->there, 1, 0);
    sem_init(&common->back, 1, 0);
    pthread_mutexattr_t mutex_attributes;
    pthread_mutexattr_init(&mutex_attributes);
    pthread_mutexattr_setpshared(&mutex_attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutex_init(&common->mutex, &mutex_attributes);
    pthread_condattr_t condition_attributes;
    pthread_condattr_init(&condition_attributes);
    pthread_condattr_setpshared(&condition_attributes, PTHREAD_PROCESS_SHARED);
    pthread_cond_init(&common->condition, &condition_attributes);
}

/** The other process while a benchmark runs. */
class partner
{
public:
    explicit partner(role part)
    {
        common->ready = 0;
        init_bare_objects();
        pid_ = fork();
        if (pid_ == 0)
        {
            play(part);
        }
        while (common->ready == 0)
        {
            usleep(100);
        }
    }
    partner(const partner &) = delete;
    partner &operator=(const partner &) = delete;
    ~partner()
    {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        for (const char *heap : {"c", "e"}) // creating one replaces what the killed one has left
        {
            const std::string name = std::string(common->name) + heap;
            (void)tarn_shmx_destroy(tarn_shmx_create(name.c_str(), 4096, 0, 1));
        }
    }

private:
    pid_t pid_;
};

TARN_SHMX own_heap()
{
    static TARN_SHMX heap = tarn_shmx_create(common->name, 64u << 20, 0, 8);
    return heap;
}

void malloc_pair(benchmark::State &state)
{
    for (auto _ : state)
    {
        void *block = std::malloc(static_cast<size_t>(state.range(0)));
        benchmark::DoNotOptimize(block);
        std::free(block);
    }
}
BENCHMARK(malloc_pair)->Arg(40)->Arg(200);

void creator_pair(benchmark::State &state)
{
    TARN_SHMX heap = own_heap();
    for (auto _ : state)
    {
        void *block = tarn_shmx_blk_alloc(heap, static_cast<uint32_t>(state.range(0)));
        benchmark::DoNotOptimize(block);
        tarn_shmx_blk_free(heap, block);
    }
}
BENCHMARK(creator_pair)->Arg(40)->Arg(200);

/** A visitor with a reserve of so many blocks, of every size, made once. */
TARN_SHMX visitor_with_reserve(uint32_t count)
{
    (void)own_heap();
    TARN_SHMX visitor = tarn_shmx_open(common->name);
    std::vector<void *> blocks;
    for (uint32_t i = 0; i < count; ++i)
    {
        blocks.push_back(tarn_shmx_blk_alloc(visitor, 20 + i % 400));
    }
    for (void *block : blocks)
    {
        tarn_shmx_blk_free(visitor, block);
    }
    return visitor;
}

void reserved_pair(benchmark::State &state)
{
    // They have the process's two user ids for as long as it runs.
    static TARN_SHMX small = visitor_with_reserve(10);
    static TARN_SHMX large = visitor_with_reserve(2000);
    TARN_SHMX visitor = state.range(1) == 10 ? small : large;
    for (auto _ : state)
    {
        void *block = tarn_shmx_blk_alloc(visitor, static_cast<uint32_t>(state.range(0)));
        benchmark::DoNotOptimize(block);
        tarn_shmx_blk_free(visitor, block);
    }
}
BENCHMARK(reserved_pair)->Args({40, 10})->Args({200, 10})->Args({40, 2000})->Args({200, 2000});

#if defined(WITH_BOOST)
void boost_pair(benchmark::State &state)
{
    namespace ipc = boost::interprocess;
    ipc::shared_memory_object::remove(common->name);
    {
        ipc::managed_shared_memory segment(ipc::create_only, common->name, 64u << 20);
        for (auto _ : state)
        {
            void *block = segment.allocate(static_cast<size_t>(state.range(0)));
            benchmark::DoNotOptimize(block);
            segment.deallocate(block);
        }
    }
    ipc::shared_memory_object::remove(common->name);
}
BENCHMARK(boost_pair)->Arg(40)->Arg(200);
#endif

/** Each allocation goes to the creator: what comes back is kept until the end. */
void visitor_through_creator(benchmark::State &state)
{
    const partner creator(role::creator);
    TARN_SHMX visitor = tarn_shmx_open((std::string(common->name) + "c").c_str());
    for (auto _ : state)
    {
        void *block = tarn_shmx_blk_alloc(visitor, 40);
        if (block == nullptr)
        {
            state.SkipWithError("no block");
            break;
        }
    }
    (void)tarn_shmx_destroy(visitor);
}
BENCHMARK(visitor_through_creator)->UseRealTime()->Iterations(3000);

void semaphore_ping_pong(benchmark::State &state)
{
    const partner other(role::semaphores);
    for (auto _ : state)
    {
        sem_post(&common->there);
        sem_wait(&common->back);
    }
}
BENCHMARK(semaphore_ping_pong)->UseRealTime()->Iterations(3000);

void event_ping_pong(benchmark::State &state)
{
    const partner other(role::events);
    TARN_SHMX visitor = tarn_shmx_open((std::string(common->name) + "e").c_str());
    for (auto _ : state)
    {
        (void)tarn_shmx_event_set(visitor, common->there_event);
        (void)tarn_shmx_event_wait(visitor, common->back_event, TARN_INFINITE);
    }
    (void)tarn_shmx_destroy(visitor);
}
BENCHMARK(event_ping_pong)->UseRealTime()->Iterations(3000);

void condition_ping_pong(benchmark::State &state)
{
    const partner other(role::condition);
    for (auto _ : state)
    {
        set_turn(1);
        wait_turn(0);
    }
}
BENCHMARK(condition_ping_pong)->UseRealTime()->Iterations(3000);

void make_ground()
{
    common = new (mmap(nullptr, sizeof(ground), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) ground{};
    std::snprintf(common->name, sizeof common->name, "bench_%d", static_cast<int>(getpid()));
}

} // namespace

int main(int argc, char **argv)
{
    make_ground();
    tarn_log_level_set(TARN_LOG_LEVEL_FATAL);
    (void)tarn_init();
    const int status = bench::run(
        argc, argv,
        {{"creator pair of 40 B beside Boost", "creator_pair/40", "boost_pair/40", 0.7},
         {"creator pair of 200 B beside Boost", "creator_pair/200", "boost_pair/200", 0.7},
         {"creator pair of 40 B beside malloc", "creator_pair/40", "malloc_pair/40", 6},
         {"creator pair of 200 B beside malloc", "creator_pair/200", "malloc_pair/200", 6},
         {"reserved pair of 40 B beside the creator's", "reserved_pair/40/10", "creator_pair/40",
          1},
         {"reserved pair of 200 B beside the creator's", "reserved_pair/200/10", "creator_pair/200",
          1},
         {"reserve of 2000 blocks beside one of 10", "reserved_pair/40/2000", "reserved_pair/40/10",
          2},
         {"visitor through the creator beside semaphores", "visitor_through_creator",
          "semaphore_ping_pong", 3},
         {"event beside mutex and condition", "event_ping_pong", "condition_ping_pong", 1.3}});
    (void)tarn_shmx_destroy(own_heap());
    tarn_uninit();
    return status;
}
