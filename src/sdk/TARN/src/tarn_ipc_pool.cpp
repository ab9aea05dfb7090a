// Local IPC: the threads that run handlers, shared by all connections of the process.
//
// Frames pass through a short queue. A frame is let in only while there are fewer frames waiting or
// being handled than threads, so each has a thread to itself and no handler waits for another one;
// while the queue is full but a thread is free, the receiving thread waits for its turn. A thread
// that is done looks for the next frame before it goes back to the pool; and of the threads that are
// being woken there is one at a time, which wakes the next when it finds more than one frame. So a
// burst of short handlers costs a wake-up or two instead of one per frame.

#include "tarn_ipc_internal.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_thread_pool.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace
{

using tarn::ipc_conn;
using tarn::ipc_frame;

/** Guarded by the lock; lives as long as the process. */
struct handler_pool
{
    std::mutex lock;
    std::condition_variable idle;  ///< no worker is left
    std::condition_variable taken; ///< the queue got shorter, or no more is let in
    TARN_THREAD_POOL threads = nullptr;
    ipc_frame *first = nullptr;
    ipc_frame *last = nullptr;
    uint32_t queued = 0;
    uint32_t busy = 0;     ///< workers that run a handler
    uint32_t workers = 0;  ///< launched and not yet gone
    uint32_t waiting = 0;  ///< receiving threads before a full queue
    bool starting = false; ///< one of them has not looked into the queue yet
};
tarn::immortal<handler_pool> immortal_pool;
handler_pool &pool = immortal_pool.get();

void *worker_proc(void *, void *);

constexpr uint32_t queue_size = 64;
/** A frame before a full queue counts as refused after that long: the threads that are free cannot
 *  be had. Long enough for a busy machine, where a post that is refused would be lost. */
constexpr std::chrono::milliseconds queue_limit{1000};

/** All threads run handlers, or there are none. */
bool is_full()
{
    return pool.threads == nullptr || pool.busy >= tarn::ipc_pool_size;
}

/** Wait for a place in the queue. */
bool enter_queue(std::unique_lock<std::mutex> &lock)
{
    const auto has_place = [] {
        return pool.queued < queue_size && pool.queued + pool.busy < tarn::ipc_pool_size;
    };
    if (!is_full() && !has_place())
    {
        ++pool.waiting;
        (void)pool.taken.wait_for(lock, queue_limit, [&] { return is_full() || has_place(); });
        --pool.waiting;
    }
    return !is_full() && has_place();
}

void push(ipc_frame *frame)
{
    frame->next = nullptr;
    (pool.first == nullptr ? pool.first : pool.last->next) = frame;
    pool.last = frame;
    ++pool.queued;
}

ipc_frame *pop()
{
    ipc_frame *const frame = pool.first;
    if (frame != nullptr)
    {
        pool.first = frame->next;
        --pool.queued;
    }
    return frame;
}

/** Take a frame back. @return false when a worker has it already */
bool remove(const ipc_frame *frame)
{
    ipc_frame *before = nullptr;
    for (ipc_frame *at = pool.first; at != nullptr; before = at, at = at->next)
    {
        if (at == frame)
        {
            (before == nullptr ? pool.first : before->next) = at->next;
            pool.last = pool.last == at ? before : pool.last;
            --pool.queued;
            return true;
        }
    }
    return false;
}

/** Announce a worker, when there is work for one more and none on its way. Under the lock.
 *  @return the pool to launch it in; null for none */
TARN_THREAD_POOL want_worker()
{
    if (pool.starting || pool.queued == 0 || pool.threads == nullptr ||
        pool.workers == tarn::ipc_pool_size)
    {
        return nullptr;
    }
    pool.starting = true;
    ++pool.workers;
    return pool.threads;
}

void worker_gone()
{
    if (--pool.workers == 0)
    {
        pool.idle.notify_all();
    }
}

/** A worker that has left is not counted any more, but its thread may still be on its way back. */
constexpr uint32_t launch_limit_ms = 100;

/** Launch an announced worker. */
bool launch(TARN_THREAD_POOL threads)
{
    if (threads == nullptr ||
        tarn_thread_pool_start_thread_ex(threads, launch_limit_ms, worker_proc, nullptr, nullptr))
    {
        return true;
    }
    const std::lock_guard lock(pool.lock);
    pool.starting = false;
    worker_gone();
    return false;
}

/** Run a frame's handler; the reference of the connection goes with it. */
void handle(ipc_frame *taken)
{
    tarn::frame_owner frame(taken);
    const tarn::conn_ref_owner conn(taken->conn);
    if (taken->comm.cmd == tarn::ipc_response)
    {
        tarn::ipc_response_handler(conn.get(), std::move(frame));
    }
    else
    {
        tarn::ipc_request_handler(conn.get(), std::move(frame));
    }
}

/** The counts of a worker; right also when a handler ends its thread. */
class [[nodiscard]] worker
{
public:
    worker() = default;
    worker(const worker &) = delete;
    worker &operator=(const worker &) = delete;
    ~worker()
    {
        const std::lock_guard lock(pool.lock);
        finish_one();
        worker_gone();
    }
    /** The next frame, and the wake-up of a helper when there are more; null at the end. */
    ipc_frame *next()
    {
        ipc_frame *frame = nullptr;
        TARN_THREAD_POOL helper = nullptr;
        {
            const std::lock_guard lock(pool.lock);
            if (!std::exchange(looked_, true))
            {
                pool.starting = false;
            }
            finish_one();
            frame = pop();
            if (frame != nullptr)
            {
                busy_ = true;
                ++pool.busy;
                helper = want_worker();
                if (pool.waiting != 0)
                {
                    pool.taken.notify_all();
                }
            }
        }
        (void)launch(helper);
        return frame;
    }

private:
    void finish_one()
    {
        pool.busy -= busy_ ? 1 : 0;
        busy_ = false;
    }
    bool busy_ = false;
    bool looked_ = false;
};

void *worker_proc(void *, void *)
{
    worker self;
    while (ipc_frame *const frame = self.next())
    {
        handle(frame);
    }
    return nullptr;
}

} // namespace

namespace tarn
{

bool ipc_submit(ipc_conn *conn, frame_owner &frame)
{
    ipc_frame *const submitted = frame.get();
    submitted->conn = conn;
    ipc_conn_ref(conn);
    if (ipc_limit.handle_inline)
    {
        handle(frame.release());
        return true;
    }
    const cancel_guard no_cancel; // the frame would stay in two hands
    conn_ref_owner ref(conn);
    TARN_THREAD_POOL threads = nullptr;
    {
        std::unique_lock lock(pool.lock);
        if (!enter_queue(lock))
        {
            return false;
        }
        push(submitted);
        threads = want_worker();
    }
    if (!launch(threads))
    {
        const std::lock_guard lock(pool.lock);
        if (remove(submitted))
        {
            return false;
        }
    }
    (void)frame.release(); // it may be gone already
    (void)ref.release();
    return true;
}

} // namespace tarn

bool tarn_ipc_init(void)
{
    const std::lock_guard lock(pool.lock);
    if (pool.threads != nullptr)
    {
        return true;
    }
    pool.threads = tarn_thread_pool_create(tarn::ipc_pool_size);
    TARN_LOG_DEBUG("create thread pool, size = [%d]", static_cast<int>(tarn::ipc_pool_size));
    return pool.threads != nullptr;
}

void tarn_ipc_uninit(void)
{
    TARN_THREAD_POOL threads = nullptr;
    ipc_frame *left = nullptr;
    {
        std::unique_lock lock(pool.lock);
        threads = std::exchange(pool.threads, nullptr);
        pool.taken.notify_all();
        pool.idle.wait(lock, [] { return pool.workers == 0; });
        left = std::exchange(pool.first, nullptr);
        pool.queued = 0;
    }
    // Only what no thread could be started for.
    while (left != nullptr)
    {
        ipc_frame *const frame = std::exchange(left, left->next);
        const tarn::conn_ref_owner conn(frame->conn);
        tarn::ipc_frame_free(frame);
    }
    tarn_thread_pool_destroy(threads);
}
