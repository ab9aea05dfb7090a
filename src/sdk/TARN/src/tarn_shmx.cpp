// Shared heap: the segment's life, users, and the way of each block to and from the application.
//
// Roles: the creator's threads and its request thread "shmx_blk_alloc_proc" take blocks from the
// record in tarn_shmx_heap.cpp; visitors ask through tarn_shmx_request.cpp. A handle's own lock
// guards the record or the reserve, the header lock in the segment stands before it for those who
// follow the shared format. The handle's own lock is what keeps the record whole when the shared
// one is overwritten.

#include "tarn_shmx.h"

#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_shmx_internal.h"
#include "tarn_str.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>

TARN_ASSERT_RECORD(tarn_shmx);

namespace
{

using tarn::block_offset;
using tarn::data_of;
using tarn::raw;

constexpr size_t max_name_length = 107;

void destroy_handle(TARN_SHMX shmx)
{
    (void)tarn_shmx_destroy(shmx);
}
using object_owner = tarn::unique_handle<TARN_SHMX, destroy_handle>;

object_owner make_shmx_object()
{
    object_owner owner(tarn::make_object<tarn_shmx>(TARN_HANDLE_TYPE_SHMX).release());
    if (owner)
    {
        (void)tarn::shmx_thread_id(); // from its first call on forks are counted
        owner.get()->fork_generation = tarn::shmx_fork_generation();
        owner.get()->process_id = tarn::shmx_process_id();
    }
    return owner;
}

// ---- creation -----------------------------------------------------------------------------------

void *shmx_blk_req_proc(void *shmx, void *)
{
    tarn::shmx_serve_requests(static_cast<TARN_SHMX>(shmx));
    return nullptr;
}

/** Everything in the segment but the fourcc. A new segment is filled with zeros. */
void write_segment(const tarn::shmx_view &view)
{
    tarn::shmx_segment_header *header = view.header;
    header->user_table_size = 16 * (view.max_user_count + 1);
    header->meta_zone_size = view.meta_size;
    header->data_zone_size = view.data_size;
    header->max_user_count = view.max_user_count;
    header->spare_offset = view.first_offset;
    tarn::shmx_init_slot(&header->lock);
    for (uint32_t id = 0; id <= view.max_user_count; ++id)
    {
        tarn::shmx_init_slot(&view.users[id].lock);
        view.users[id].process_id = 0;
    }
    tarn_mem_zero(view.meta, view.meta_size);
}

bool make_segment(TARN_SHMX shmx, const char *name, uint32_t size, uint32_t meta_zone_size,
                  uint32_t max_user_count)
{
    const uint64_t total = tarn::shmx_segment_size(size, meta_zone_size, max_user_count);
    shmx->shm = total < UINT32_MAX ? tarn_shm_create(name, static_cast<uint32_t>(total))
                                   : TARN_INVALID_HANDLE;
    if (shmx->shm == TARN_INVALID_HANDLE)
    {
        TARN_LOG_ERROR("failed to create share memory object with name [%s] size [%u]", name, size);
        return false;
    }
    tarn::shmx_set_view(&shmx->view, tarn_shm_buffer(shmx->shm), size, meta_zone_size,
                        max_user_count);
    write_segment(shmx->view);
    return true;
}

/** Semaphore, record, thread; the fourcc last: who sees it finds a heap that answers. */
bool start_serving(TARN_SHMX shmx, const char *name)
{
    shmx->semaphore = tarn_semaphore_create(name, 0);
    if (shmx->semaphore == TARN_INVALID_HANDLE)
    {
        TARN_LOG_ERROR("failed to create semaphore object with name [%s]", name);
        return false;
    }
    shmx->gate.can_barrier = tarn::shmx_allow_barrier() ? 1 : 0;
    if (!tarn::shmx_heap_open(&shmx->heap, shmx->view))
    {
        TARN_LOG_ERROR("cannot allocate memory for share memory extension!");
        return false;
    }
    shmx->thread = tarn_thread_start(shmx_blk_req_proc, shmx, nullptr, 0, "shmx_blk_alloc_proc");
    if (shmx->thread == TARN_INVALID_HANDLE)
    {
        return false;
    }
    tarn::shmx_store(shmx->view.header->fourcc, tarn::shmx_fourcc, std::memory_order_release);
    return true;
}

// ---- opening ------------------------------------------------------------------------------------

bool has_fourcc(const tarn::shmx_segment_header *header)
{
    const uint32_t fourcc = tarn::shmx_load(header->fourcc, std::memory_order_acquire);
    if (fourcc != tarn::shmx_fourcc)
    {
        TARN_LOG_ERROR("invalid fourcc [0x%x]", fourcc);
    }
    return fourcc == tarn::shmx_fourcc;
}

bool attach(TARN_SHMX shmx, const char *name)
{
    shmx->shm = tarn_shm_open(name);
    if (shmx->shm == TARN_INVALID_HANDLE)
    {
        TARN_LOG_ERROR("failed to open share memory object with name [%s]", name);
        return false;
    }
    if (!tarn::shmx_map_zones(shmx))
    {
        return false;
    }
    shmx->semaphore = tarn_semaphore_open(name);
    if (shmx->semaphore == TARN_INVALID_HANDLE)
    {
        TARN_LOG_ERROR("failed to open semaphore object with name [%s]", name);
        return false;
    }
    return has_fourcc(shmx->view.header);
}

// ---- user ids -----------------------------------------------------------------------------------

/** Take the lock of a user entry for this process, from nobody or from a process that is gone. The
 *  word holds the process id, which is the thread id of its first thread: it stays valid however
 *  long the opening thread lives. */
bool take_user(tarn::shmx_user_entry &entry, uint32_t process_id)
{
    uint32_t *word = tarn::shmx_slot_word(&entry.lock);
    uint32_t seen = tarn::shmx_load(*word);
    const uint32_t owner = seen & tarn::lock_owner_mask;
    if (owner == process_id || (owner != 0 && !tarn::process_is_gone(static_cast<int>(owner))))
    {
        return false;
    }
    // Exactly what was seen is replaced, so of two processes only one gets the id.
    return std::atomic_ref(*word).compare_exchange_strong(seen, process_id,
                                                          std::memory_order_acq_rel);
}

void release_user(tarn::shmx_user_entry &entry, uint32_t process_id)
{
    tarn::shmx_store(entry.process_id, 0);
    uint32_t *word = tarn::shmx_slot_word(&entry.lock);
    uint32_t seen = tarn::shmx_load(*word);
    while ((seen & tarn::lock_owner_mask) == process_id &&
           !std::atomic_ref(*word).compare_exchange_weak(seen, 0, std::memory_order_acq_rel))
    {
    }
}

bool take_user_id(TARN_SHMX shmx)
{
    for (uint32_t id = 1; id <= shmx->view.max_user_count; ++id)
    {
        tarn::shmx_user_entry &entry = shmx->view.users[id];
        if (take_user(entry, shmx->process_id))
        {
            const uint32_t dirty = tarn::shmx_load(entry.process_id);
            if (dirty != 0)
            {
                TARN_LOG_INFO("takeover user_id [%u] with dirty pid [%d]", id,
                              static_cast<int>(dirty));
            }
            tarn::shmx_store(entry.process_id, shmx->process_id);
            shmx->user_id = id;
            return true;
        }
    }
    TARN_LOG_ERROR("no user id available");
    return false;
}

// ---- blocks -------------------------------------------------------------------------------------

/** What log lines show of a block. */
struct shown_block
{
    uint32_t offset;
    uint32_t data_offset;
    void *header;
    void *data;
};

shown_block shown(const tarn::shmx_view &view, block_offset block)
{
    void *data = tarn::shmx_data_at(view, block);
    return {raw(block), raw(data_of(block)), view.data + raw(block), data};
}

void log_overwritten(TARN_SHMX shmx)
{
    if (std::atomic_ref(shmx->heap.overwritten).exchange(0, std::memory_order_relaxed) != 0)
    {
        TARN_LOG_ERROR("links of the share memory heap were overwritten and have been restored");
    }
}

void log_alloc(const tarn::shmx_view &view, const tarn::heap_report &report, uint32_t size,
               uint32_t user_id)
{
    if (!TARN_LOG_ENABLED(TARN_LOG_LEVEL_DEBUG))
    {
        return;
    }
    if (report.from_list && report.list != tarn::shmx_large_list)
    {
        TARN_LOG_DEBUG("from spare cache, index = [%d], offset = <%u>, alloc_size = [%u], "
                       "data_size = [%u], user_id = [%u], next = [%u]",
                       static_cast<int>(report.list), raw(report.block), report.alloc_size, size,
                       user_id, report.next);
    }
    const shown_block block = shown(view, report.block);
    TARN_LOG_DEBUG("blk offset = <%u>, ptr = [%u](%p), req_size = [%u], overhead = [%u], "
                   "alloc_size = [%u], data_size = [%u], spare_offset = <%u>",
                   block.offset, block.data_offset, block.data, size, report.alloc_size - size,
                   report.alloc_size, size, report.spare_offset);
    if (user_id != 0)
    {
        TARN_LOG_DEBUG("user_id = [%u], blk offset = <%u>(%p), ptr = [%u](%p), req_size = [%u], "
                       "alloc_size = [%u]",
                       user_id, block.offset, block.header, block.data_offset, block.data, size,
                       report.alloc_size);
    }
}

void log_free(TARN_SHMX shmx, const tarn::heap_report &report)
{
    if (!TARN_LOG_ENABLED(TARN_LOG_LEVEL_DEBUG))
    {
        return;
    }
    if (report.owner != 0)
    {
        const shown_block block = shown(shmx->view, report.block);
        void *account = &shmx->heap.user_blocks[report.owner];
        TARN_LOG_DEBUG("find by user_id = [%u] get [%p]", report.owner, account);
        TARN_LOG_DEBUG("remove record <%u>(%p) from user_id [%u][%p] return [%u](%p)", block.offset,
                       block.header, report.owner, account, block.data_offset, block.data);
    }
    if (report.list != tarn::shmx_large_list)
    {
        TARN_LOG_DEBUG("shm_hdr->spare_blocks[ %d ] = <%u>, next = <%u>",
                       static_cast<int>(report.list), raw(report.block), report.next);
    }
}

void log_already_freed(const tarn::shmx_view &view, block_offset block)
{
    const shown_block at = shown(view, block);
    TARN_LOG_WARN("shmx_blk = <%u>(%p), ptr = [%u](%p) already freed previously", at.offset,
                  at.header, at.data_offset, at.data);
}

/** Runs an operation on the record under both locks.
 *  @return false when the header lock could not be had */
template <typename Operation>
bool with_heap(TARN_SHMX shmx, Operation operation)
{
    const tarn::shmx_word_guard header(tarn::shmx_slot_word(&shmx->view.header->lock));
    if (!header)
    {
        return false;
    }
    const tarn::shmx_gate gate(&shmx->gate);
    operation();
    return true;
}

/** Clear a block that this process has just got. */
void clear_data(const tarn::shmx_view &view, block_offset block, uint32_t alloc_size)
{
    std::memset(tarn::shmx_data_at(view, block), 0, alloc_size - sizeof(tarn::shmx_block_header));
}

/** A size that no heap of this size can give. */
bool is_too_large(TARN_SHMX shmx, uint32_t size)
{
    if (size <= shmx->view.data_size)
    {
        return false;
    }
    TARN_LOG_ERROR("share memory exhausted!");
    return true;
}

block_offset alloc_cleared(TARN_SHMX shmx, uint32_t size)
{
    uint32_t alloc_size = 0;
    const block_offset block = tarn::shmx_blk_alloc_by_creator(shmx, size, 0, &alloc_size);
    if (block != block_offset::none)
    {
        clear_data(shmx->view, block, alloc_size);
    }
    return block;
}

/** A block of the reserve that is still this visitor's.
 *  @param alloc_size  receives its size */
block_offset take_reserved(TARN_SHMX shmx, uint32_t size, uint32_t *alloc_size)
{
    const tarn::shmx_word_guard guard(&shmx->lock);
    if (!guard)
    {
        return block_offset::none;
    }
    for (;;)
    {
        const block_offset block{tarn::shmx_reserve_take(&shmx->reserve, size + 32, alloc_size)};
        if (block == block_offset::none)
        {
            return block;
        }
        // Another process may have freed it by mistake.
        const tarn::shmx_block_header *header = tarn::shmx_block_at(shmx->view, block);
        if (header != nullptr && tarn::shmx_load(header->user_id) == shmx->user_id)
        {
            return block;
        }
    }
}

/** Make a block that was got from the creator or the reserve this application's. */
void hand_out(TARN_SHMX shmx, block_offset block, uint32_t alloc_size, uint32_t size)
{
    tarn::shmx_block_header *header = tarn::shmx_block_at(shmx->view, block);
    tarn::shmx_store(header->user_id, shmx->user_id);
    tarn::shmx_store(header->data_size, size);
    tarn::shmx_init_slot(&header->lock);
    clear_data(shmx->view, block, alloc_size);
}

void log_visitor_alloc(TARN_SHMX shmx, bool is_reserved, block_offset block, uint32_t size,
                       uint32_t alloc_size)
{
    if (!TARN_LOG_ENABLED(TARN_LOG_LEVEL_DEBUG))
    {
        return;
    }
    const shown_block at = shown(shmx->view, block);
    // clang-format off
    if (is_reserved)
    {
        TARN_LOG_DEBUG("from cache, offset = <%u>(%p), ptr = [%u](%p), request size = [%u], alloc size = [%u]",
                       at.offset, at.header, at.data_offset, at.data, size, alloc_size);
        return;
    }
    TARN_LOG_DEBUG("from creator, offset = <%u>(%p), ptr = [%u](%p), request size = [%u], alloc size = [%u]",
                   at.offset, at.header, at.data_offset, at.data, size, alloc_size);
    // clang-format on
}

block_offset shmx_blk_alloc_by_visitor(TARN_SHMX shmx, uint32_t size)
{
    RVOZ(size, block_offset::none); // a request for nothing would be none
    uint32_t alloc_size = 0;
    block_offset block = take_reserved(shmx, size, &alloc_size);
    const bool is_reserved = block != block_offset::none;
    if (!is_reserved)
    {
        block = tarn::shmx_request_alloc(shmx, size);
        if (block == block_offset::none)
        {
            return block;
        }
        alloc_size = tarn::shmx_checked_alloc_size(shmx->view, block);
        if (alloc_size < size + 32)
        {
            TARN_LOG_ERROR("the answer <%u> is no block of %u bytes", raw(block), size);
            return block_offset::none;
        }
    }
    hand_out(shmx, block, alloc_size, size);
    log_visitor_alloc(shmx, is_reserved, block, size, alloc_size);
    return block;
}

tarn::reserve_result reserve_block(TARN_SHMX shmx, block_offset block, uint32_t alloc_size)
{
    const tarn::shmx_word_guard guard(&shmx->lock);
    return guard ? tarn::shmx_reserve_put(&shmx->reserve, raw(block), alloc_size)
                 : tarn::reserve_result::no_memory;
}

/** Keep an own block for reuse.
 *  @return false when the creator has to take it */
bool keep_own(TARN_SHMX shmx, const shown_block &at, block_offset block, uint32_t alloc_size)
{
    const tarn::reserve_result result = reserve_block(shmx, block, alloc_size);
    if (result == tarn::reserve_result::already_there)
    {
        log_already_freed(shmx->view, block);
    }
    else if (result == tarn::reserve_result::kept)
    {
        TARN_LOG_DEBUG("add shmx_blk <%u>(%p) ptr [%u](%p) to reserved table, alloc_size = [%u]",
                       at.offset, at.header, at.data_offset, at.data, alloc_size);
    }
    return result != tarn::reserve_result::no_memory;
}

bool shmx_blk_free_by_visitor(TARN_SHMX shmx, block_offset block, uint32_t owner)
{
    const shown_block at = shown(shmx->view, block);
    const uint32_t alloc_size = tarn::shmx_checked_alloc_size(shmx->view, block);
    if (alloc_size == 0)
    {
        TARN_LOG_ERROR("<%u>(%p) is no block", at.offset, at.header);
        return false;
    }
    if (owner == shmx->user_id && keep_own(shmx, at, block, alloc_size))
    {
        return true;
    }
    TARN_LOG_DEBUG("request shmx_blk <%u>(%p) ptr [%u](%p) to creator, alloc_size = [%u]",
                   at.offset, at.header, at.data_offset, at.data, alloc_size);
    if (!tarn::shmx_request_free(shmx, block, owner))
    {
        TARN_LOG_ERROR("failed to request shmx_blk <%u>(%p) ptr [%u](%p) to creator, "
                       "alloc_size = [%u]",
                       at.offset, at.header, at.data_offset, at.data, alloc_size);
        return false;
    }
    return true;
}

void free_address(TARN_SHMX shmx, const void *ptr)
{
    const block_offset block = tarn::shmx_block_of_address(shmx->view, ptr);
    if (block == block_offset::none)
    {
        TARN_LOG_ERROR("%p is no address of a block", ptr);
        return;
    }
    (void)tarn::shmx_blk_free(shmx, block);
}

} // namespace

// ---- for the other files of the heap ------------------------------------------------------------

namespace tarn
{

bool shmx_map_zones(TARN_SHMX shmx)
{
    auto *header = static_cast<shmx_segment_header *>(tarn_shm_buffer(shmx->shm));
    const uint64_t mapped = tarn_shm_size(shmx->shm);
    if (mapped < sizeof *header || !has_fourcc(header))
    {
        return false;
    }
    const uint32_t table_size = shmx_load(header->user_table_size);
    const uint32_t meta_size = shmx_load(header->meta_zone_size);
    const uint32_t data_size = shmx_load(header->data_zone_size);
    const uint32_t users = shmx_load(header->max_user_count);
    if (table_size != 16 * (uint64_t{users} + 1) ||
        shmx_segment_size(data_size, meta_size, users) > mapped)
    {
        TARN_LOG_ERROR("zones of %u, %u and %u bytes do not fit into the segment", table_size,
                       meta_size, data_size);
        return false;
    }
    shmx_set_view(&shmx->view, header, data_size, meta_size, users);
    return true;
}

bool shmx_is_in_own_process(TARN_SHMX shmx)
{
    if (shmx->fork_generation == shmx_fork_generation())
    {
        return true;
    }
    TARN_LOG_ERROR("the share memory heap was opened by the parent process");
    return false;
}

block_offset shmx_blk_alloc_by_creator(TARN_SHMX shmx, uint32_t size, uint32_t user_id,
                                       uint32_t *alloc_size)
{
    if (is_too_large(shmx, size))
    {
        return block_offset::none;
    }
    if (shmx_fit_of(size).list == shmx_large_list)
    {
        TARN_LOG_DEBUG("@@@@ large size request, size = [%u] @@@@", size);
    }
    heap_report report{};
    bool is_there = false;
    const bool locked = with_heap(
        shmx, [&] { is_there = shmx_heap_alloc(&shmx->heap, shmx->view, size, user_id, &report); });
    if (!locked)
    {
        TARN_LOG_ERROR("failed to lock shmx header");
        return block_offset::none;
    }
    if (shmx_load(shmx->heap.overwritten) != 0)
    {
        log_overwritten(shmx);
    }
    if (!is_there)
    {
        TARN_LOG_ERROR("share memory exhausted!");
        return block_offset::none;
    }
    log_alloc(shmx->view, report, size, user_id);
    *alloc_size = report.alloc_size;
    return report.block;
}

bool shmx_blk_free_by_creator(TARN_SHMX shmx, block_offset block, uint32_t owner)
{
    heap_report report{};
    heap_free_result result = heap_free_result::no_block;
    const bool locked = with_heap(
        shmx, [&] { result = shmx_heap_free(&shmx->heap, shmx->view, block, owner, &report); });
    if (!locked)
    {
        TARN_LOG_ERROR("failed to lock shmx header");
        return false;
    }
    if (shmx_load(shmx->heap.overwritten) != 0)
    {
        log_overwritten(shmx);
    }
    switch (result)
    {
    case heap_free_result::freed:
        log_free(shmx, report);
        return true;
    case heap_free_result::already_freed:
        log_already_freed(shmx->view, block);
        return false;
    case heap_free_result::other_owner:
        TARN_LOG_WARN("block <%u> is not of user_id = [%u]", raw(block), owner);
        return false;
    default:
        TARN_LOG_ERROR("no block begins at <%u>", raw(block));
        return false;
    }
}

block_offset shmx_blk_alloc(TARN_SHMX shmx, uint32_t size)
{
    if (!shmx_is_in_own_process(shmx))
    {
        return block_offset::none;
    }
    if (shmx->user_id == 0)
    {
        return alloc_cleared(shmx, size);
    }
    return is_too_large(shmx, size) ? block_offset::none : shmx_blk_alloc_by_visitor(shmx, size);
}

bool shmx_blk_free(TARN_SHMX shmx, block_offset block)
{
    if (!shmx_is_in_own_process(shmx))
    {
        return false;
    }
    if (shmx->user_id == 0)
    {
        return shmx_blk_free_by_creator(shmx, block, heap_any_owner);
    }
    const uint32_t owner = shmx_load(shmx_block_at(shmx->view, block)->user_id);
    if (owner == shmx_freed)
    {
        log_already_freed(shmx->view, block);
        return false;
    }
    return shmx_blk_free_by_visitor(shmx, block, owner);
}

} // namespace tarn

// ---- the interface ------------------------------------------------------------------------------

TARN_SHMX tarn_shmx_create(const char *name, uint32_t size, uint32_t meta_zone_size,
                           uint32_t max_user_count)
{
    RVON(name, TARN_INVALID_HANDLE);
    if (tarn_str_len(name) > max_name_length)
    {
        TARN_LOG_ERROR("name = [%s] is too long ", name);
        return TARN_INVALID_HANDLE;
    }
    object_owner owner = make_shmx_object();
    if (!owner)
    {
        TARN_LOG_ERROR("cannot allocate memory for share memory extension!");
        return TARN_INVALID_HANDLE;
    }
    if (!make_segment(owner.get(), name, size, meta_zone_size, max_user_count) ||
        !start_serving(owner.get(), name))
    {
        return TARN_INVALID_HANDLE;
    }
    return owner.release();
}

TARN_SHMX tarn_shmx_open(const char *name)
{
    RVON(name, TARN_INVALID_HANDLE);
    if (tarn_str_len(name) > max_name_length)
    {
        TARN_LOG_ERROR("The name of the share memory object is too long.");
        return TARN_INVALID_HANDLE;
    }
    object_owner owner = make_shmx_object();
    if (!owner)
    {
        TARN_LOG_ERROR("cannot allocate memory for share memory item!");
        return TARN_INVALID_HANDLE;
    }
    if (!attach(owner.get(), name) || !take_user_id(owner.get()))
    {
        return TARN_INVALID_HANDLE;
    }
    return owner.release();
}

bool tarn_shmx_destroy(TARN_SHMX shmx)
{
    RVON(shmx, false);
    // In the child of a fork there is no request thread, and segment and user id are the parent's.
    if (shmx->fork_generation == tarn::shmx_fork_generation())
    {
        if (shmx->thread != TARN_INVALID_HANDLE)
        {
            tarn_thread_stop(shmx->thread);
        }
        if (shmx->user_id != 0)
        {
            release_user(shmx->view.users[shmx->user_id], shmx->process_id);
        }
        tarn_semaphore_destroy(shmx->semaphore);
        if (shmx->shm != TARN_INVALID_HANDLE)
        {
            (void)tarn_shm_destroy(shmx->shm);
        }
    }
    tarn::shmx_heap_close(&shmx->heap);
    tarn::shmx_reserve_close(&shmx->reserve);
    tarn_mem_free(shmx);
    return true;
}

uint32_t tarn_shmx_user_id(TARN_SHMX shmx)
{
    RVON(shmx, 0);
    return shmx->user_id;
}

void *tarn_shmx_meta_zone(TARN_SHMX shmx)
{
    RVON(shmx, NULL);
    return shmx->view.meta;
}

uint32_t tarn_shmx_meta_zone_size(TARN_SHMX shmx)
{
    RVON(shmx, 0);
    return shmx->view.meta_size;
}

void *tarn_shmx_blk_alloc(TARN_SHMX shmx, uint32_t size)
{
    RVON(shmx, NULL);
    const block_offset block = tarn::shmx_blk_alloc(shmx, size);
    return block == block_offset::none ? nullptr : tarn::shmx_data_at(shmx->view, block);
}

void *tarn_shmx_blk_alloc_dbg(const char *file, int line, const char *func, int32_t level,
                              TARN_SHMX shmx, uint32_t size)
{
    RVON(shmx, NULL);
    const block_offset block = tarn::shmx_blk_alloc(shmx, size);
    void *data = nullptr;
    uint32_t alloc_size = 0;
    if (block != block_offset::none)
    {
        data = tarn::shmx_data_at(shmx->view, block);
        alloc_size = tarn::shmx_checked_alloc_size(shmx->view, block);
    }
    (void)tarn_log_print(&tarn_default_logger, level, file, line, func,
                         "tarn_shmx_blk_alloc data_size = [%u], alloc_size = [%u], return [%u](%p)",
                         size, alloc_size, raw(data_of(block)), data);
    return data;
}

void tarn_shmx_blk_free(TARN_SHMX shmx, void *ptr)
{
    RON(shmx);
    RON(ptr);
    free_address(shmx, ptr);
}

void tarn_shmx_blk_free_dbg(const char *file, int line, const char *func, int32_t level,
                            TARN_SHMX shmx, void *ptr)
{
    RON(shmx);
    RON(ptr);
    const block_offset block = tarn::shmx_block_of_address(shmx->view, ptr);
    const uint32_t alloc_size = tarn::shmx_checked_alloc_size(shmx->view, block);
    (void)tarn_log_print(&tarn_default_logger, level, file, line, func,
                         "tarn_shmx_blk_free shmx_blk = [%u](%p), alloc_size = [%u]", raw(block),
                         ptr, alloc_size);
    free_address(shmx, ptr);
}

void tarn_shmx_blk_free_offset(TARN_SHMX shmx, uint32_t offset)
{
    RON(shmx);
    RON(offset);
    void *ptr = tarn_shmx_offset_to_ptr(shmx, offset);
    if (ptr == nullptr)
    {
        TARN_LOG_ERROR("[%u] is no offset of a block", offset);
        return;
    }
    free_address(shmx, ptr);
}

bool tarn_shmx_blk_lock(void *ptr)
{
    RVON(ptr, false);
    uint8_t *slot = static_cast<uint8_t *>(ptr) - sizeof(tarn::shmx_lock_slot);
    return tarn::shmx_lock(tarn::shmx_slot_word(slot)) == 0;
}

bool tarn_shmx_blk_unlock(void *ptr)
{
    RVON(ptr, false);
    uint8_t *slot = static_cast<uint8_t *>(ptr) - sizeof(tarn::shmx_lock_slot);
    return tarn::shmx_unlock(tarn::shmx_slot_word(slot));
}

bool tarn_shmx_blk_lock_dbg(const char *file, int line, const char *func, int32_t level, void *ptr)
{
    (void)tarn_log_print(&tarn_default_logger, level, file, line, func,
                         "tarn_shmx_blk_lock [%p] begin", ptr);
    const bool result = tarn_shmx_blk_lock(ptr);
    (void)tarn_log_print(&tarn_default_logger, level, file, line, func,
                         "tarn_shmx_blk_lock [%p] end, result = %d", ptr, result ? 1 : 0);
    return result;
}

bool tarn_shmx_blk_unlock_dbg(const char *file, int line, const char *func, int32_t level,
                              void *ptr)
{
    (void)tarn_log_print(&tarn_default_logger, level, file, line, func,
                         "tarn_shmx_blk_unlock [%p] begin", ptr);
    const bool result = tarn_shmx_blk_unlock(ptr);
    (void)tarn_log_print(&tarn_default_logger, level, file, line, func,
                         "tarn_shmx_blk_unlock [%p] end", ptr);
    return result;
}

uint32_t tarn_shmx_blk_size(void *ptr)
{
    RVON(ptr, 0);
    const auto *block = reinterpret_cast<const tarn::shmx_block_header *>(
        static_cast<const uint8_t *>(ptr) - sizeof(tarn::shmx_block_header));
    return tarn::shmx_load(block->data_size);
}

uint32_t tarn_shmx_ptr_to_offset(TARN_SHMX shmx, const void *ptr)
{
    RVON(shmx, 0);
    const auto at = reinterpret_cast<uintptr_t>(ptr);
    const auto zone = reinterpret_cast<uintptr_t>(shmx->view.data);
    return at < zone || at - zone >= shmx->view.data_size ? 0 : static_cast<uint32_t>(at - zone);
}

void *tarn_shmx_offset_to_ptr(TARN_SHMX shmx, uint32_t offset)
{
    RVON(shmx, NULL);
    return offset == 0 || offset >= shmx->view.data_size ? nullptr : shmx->view.data + offset;
}

bool tarn_shmx_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_shmx_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
