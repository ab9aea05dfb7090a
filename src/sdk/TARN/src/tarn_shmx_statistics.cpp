// Shared heap: what its zones hold, told to a user of the heap and to somebody outside.
//
// All of it is read from the segment, where other processes write: counts end at what an honest heap
// could have, and nothing is changed.

#include "tarn_shmx.h"

#include "tarn_raii.h"
#include "tarn_shm.h"
#include "tarn_shmx_internal.h"
#include "tarn_str.h"
#include "tarn_text.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace
{

using tarn::block_offset;

// ---- statistics ---------------------------------------------------------------------------------

struct statistics
{
    std::array<uint32_t, tarn::shmx_class_count> counts;
    uint32_t large; ///< free blocks above the classes
    uint32_t used;
    bool has_loop;
};

/** Count the blocks of a list; stops at nonsense, and where no honest list could go on. */
uint32_t count_list(const tarn::shmx_view &view, size_t list, bool *has_loop)
{
    const uint32_t head = tarn::shmx_load(view.header->spare_blocks[list]);
    const uint32_t limit = view.data_size / tarn::shmx_smallest_block;
    uint32_t count = 0;
    for (uint32_t at = head; at != 0; ++count)
    {
        const tarn::shmx_block_header *block = tarn::shmx_block_at(view, block_offset{at});
        if (block == nullptr || count > limit)
        {
            *has_loop = *has_loop || block != nullptr;
            break;
        }
        at = tarn::shmx_load(block->next);
        if (at == head)
        {
            *has_loop = true;
            ++count;
            break;
        }
    }
    return count;
}

/** @return false when the header lock could not be had */
bool gather(TARN_SHMX shmx, statistics *out)
{
    const tarn::shmx_word_guard header(tarn::shmx_slot_word(&shmx->view.header->lock));
    if (!header)
    {
        return false;
    }
    for (size_t list = 0; list < tarn::shmx_class_count; ++list)
    {
        out->counts[list] = count_list(shmx->view, list, &out->has_loop);
    }
    bool large_loop = false; // the statistics line does not show that list, nor its faults
    out->large = count_list(shmx->view, tarn::shmx_large_list, &large_loop);
    out->used = std::min(tarn::shmx_load(shmx->view.header->spare_offset), shmx->view.data_size);
    return true;
}

// ---- a look from outside ------------------------------------------------------------------------

/** Holds a mapped segment for its scope. */
void detach(TARN_SHM shm)
{
    (void)tarn_shm_destroy(shm);
}
using shm_owner = tarn::unique_handle<TARN_SHM, detach>;

bool is_heap(TARN_SHM shm)
{
    const auto *header = static_cast<const tarn::shmx_segment_header *>(tarn_shm_buffer(shm));
    return tarn_shm_size(shm) >= sizeof *header &&
           tarn::shmx_load(header->fourcc, std::memory_order_acquire) == tarn::shmx_fourcc;
}

/** The user ids that are taken. */
void look_at_users(const tarn::shmx_view &view, tarn_shmx_look *look, tarn_shmx_user *users,
                   uint32_t max_users)
{
    for (uint32_t id = 1; id <= view.max_user_count; ++id)
    {
        const uint32_t owner =
            tarn::shmx_load(*tarn::shmx_slot_word(&view.users[id].lock)) & tarn::lock_owner_mask;
        if (owner == 0)
        {
            continue;
        }
        if (look->user_count < max_users)
        {
            users[look->user_count] = {id, owner};
        }
        ++look->user_count;
    }
}

void look_at_slots(const tarn::shmx_view &view, tarn_shmx_look *look)
{
    look->slot_count = tarn::shmx_slot_count;
    for (const tarn::shmx_request_slot &slot : view.header->slots)
    {
        look->busy_slots +=
            tarn::shmx_load(slot.state) != static_cast<uint8_t>(tarn::slot_state::free) ? 1 : 0;
    }
}

/** @return false when the header lock could not be had */
bool look_at_blocks(TARN_SHMX shmx, tarn_shmx_look *look)
{
    statistics found{};
    if (!gather(shmx, &found))
    {
        return false;
    }
    for (size_t list = 0; list < tarn::shmx_class_count; ++list)
    {
        look->free_count[list] = found.counts[list];
        look->class_size[list] = tarn::shmx_class_sizes[list];
    }
    look->large_count = found.large;
    look->used_size = found.used;
    return true;
}

/** Digits in groups of three, whatever the locale. */
void append_grouped(tarn::text_writer &text, int64_t value)
{
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value < 0 ? -value : value).ptr;
    const auto count = static_cast<size_t>(end - digits);
    if (value < 0)
    {
        text.append('-');
    }
    for (size_t i = 0; i < count; ++i)
    {
        if (i != 0 && (count - i) % 3 == 0)
        {
            text.append(',');
        }
        text.append(digits[i]);
    }
}

int write_statistics(const tarn::shmx_view &view, const statistics &found, char *buffer,
                     size_t buffer_len)
{
    int64_t reclaim = 0;
    for (size_t list = 0; list < tarn::shmx_class_count; ++list)
    {
        reclaim += int64_t{tarn::shmx_class_sizes[list]} * found.counts[list];
    }
    const int64_t actual_used = int64_t{found.used} - reclaim;
    const double usage = view.data_size == 0 ? 0.0
                                             : 100.0 * static_cast<double>(actual_used) /
                                                   static_cast<double>(view.data_size);
    tarn::text_writer text(buffer, buffer_len);
    const auto part = [&text](const char *name, int64_t value) {
        text.append(name);
        append_grouped(text, value);
    };
    part("total = ", view.data_size);
    part(", unused = ", int64_t{view.data_size} - found.used);
    part(", reclaim = ", reclaim);
    part(", used = ", found.used);
    part(", actual_used = ", actual_used);
    char percent[48];
    (void)tarn_str_printf(percent, sizeof percent, ", usage = %.2f%%, [", usage);
    text.append(percent);
    for (size_t list = 0; list < tarn::shmx_class_count; ++list)
    {
        text.append(list == 0 ? "" : ",").append_int(found.counts[list]);
    }
    text.append(']');
    return static_cast<int>(text.length());
}

} // namespace

int tarn_shmx_info_print(TARN_SHMX shmx, char *buffer, size_t buffer_len)
{
    RVON(shmx, TARN_ERRLN);
    RVON(buffer, TARN_ERRLN);
    RVOZ(buffer_len, TARN_ERRLN);
    statistics found{};
    if (!gather(shmx, &found))
    {
        TARN_LOG_ERROR("failed to lock shmx header");
        return TARN_ERRLN;
    }
    if (found.has_loop)
    {
        TARN_LOG_ERROR("loop list detected!");
    }
    return write_statistics(shmx->view, found, buffer, buffer_len);
}

int tarn_shmx_look_at(const char *name, tarn_shmx_look *look, tarn_shmx_user *users,
                      uint32_t max_users)
{
    RVON(name, TARN_ERRLN);
    RVON(look, TARN_ERRLN);
    RVOF(look->size == sizeof *look, TARN_ERRLN);
    RVOF(users != NULL || max_users == 0, TARN_ERRLN);
    const shm_owner shm(tarn_shm_open(name));
    if (!shm)
    {
        return -1;
    }
    tarn_shmx seen{}; // no handle: nothing but the mapped zones is in use
    seen.shm = shm.get();
    if (!is_heap(shm.get()) || !tarn::shmx_map_zones(&seen))
    {
        return -2;
    }
    tarn_shmx_look found{};
    found.size = sizeof found;
    found.data_size = seen.view.data_size;
    found.meta_zone_size = seen.view.meta_size;
    found.max_user_count = seen.view.max_user_count;
    if (!look_at_blocks(&seen, &found))
    {
        return -3;
    }
    look_at_users(seen.view, &found, users, max_users);
    look_at_slots(seen.view, &found);
    *look = found;
    return 0;
}
