#include "point_mirror.h"

#include "scoped_lock.h"

#include "tarn_process.h"

#include <bit>
#include <cstring>

namespace gatewayd
{

static_assert(GATEWAYD_HEAP_POINTS == max_points && GATEWAYD_HEAP_NAME_SIZE == max_point_name + 1);

bool point_mirror::open(const char *name)
{
    lock_ = tarn_critical_section_create();
    return lock_ != TARN_INVALID_HANDLE && make_heap(name) && points_.add_listener(on_change, this);
}

bool point_mirror::make_heap(const char *name)
{
    constexpr uint32_t spare = 4096; // for what the heap itself needs
    heap_ = tarn_shmx_create(name, GATEWAYD_HEAP_TABLE_SIZE + spare, GATEWAYD_HEAP_META_SIZE,
                             GATEWAYD_HEAP_READERS);
    void *const block = heap_ != TARN_INVALID_HANDLE
                            ? tarn_shmx_blk_alloc(heap_, GATEWAYD_HEAP_TABLE_SIZE)
                            : nullptr;
    if (block == nullptr)
    {
        return false;
    }
    table_ = static_cast<gatewayd_heap_point *>(gatewayd_heap_aligned(block));
    meta_ = static_cast<gatewayd_heap_meta *>(gatewayd_heap_aligned(tarn_shmx_meta_zone(heap_)));
    meta_->version = GATEWAYD_HEAP_VERSION;
    meta_->point_size = sizeof(gatewayd_heap_point);
    meta_->capacity = GATEWAYD_HEAP_POINTS;
    meta_->table_offset = tarn_shmx_ptr_to_offset(heap_, block);
    meta_->pid = static_cast<uint32_t>(tarn_process_id());
    __atomic_store_n(&meta_->magic, GATEWAYD_HEAP_MAGIC, __ATOMIC_RELEASE);
    return true;
}

void point_mirror::close()
{
    if (meta_ != nullptr)
    {
        __atomic_store_n(&meta_->closed, 1, __ATOMIC_RELEASE);
        meta_ = nullptr;
    }
    if (heap_ != TARN_INVALID_HANDLE)
    {
        (void)tarn_shmx_destroy(heap_);
        heap_ = TARN_INVALID_HANDLE;
    }
    tarn_critical_section_destroy(lock_);
    lock_ = TARN_INVALID_HANDLE;
}

void point_mirror::on_change(void *self, const point &changed)
{
    static_cast<point_mirror *>(self)->take_over(changed);
}

// Changes may be told in another order than they were made. So the latest value is what is written,
// and points that are told of later but stand before this one in the table come with it.
void point_mirror::take_over(const point &changed)
{
    const scoped_lock lock(lock_);
    point latest = {};
    while (count_ <= changed.place && points_.at(count_, &latest))
    {
        add(latest);
    }
    if (points_.at(changed.place, &latest))
    {
        write(latest);
    }
    __atomic_store_n(&meta_->changes, ++changes_, __ATOMIC_RELEASE);
}

void point_mirror::add(const point &added)
{
    std::memcpy(table_[added.place].name, added.name, sizeof added.name);
    write(added);
    __atomic_store_n(&meta_->count, ++count_, __ATOMIC_RELEASE);
}

void point_mirror::write(const point &latest)
{
    gatewayd_heap_point &out = table_[latest.place];
    uint32_t &sequence = sequences_[latest.place];
    // release: the odd number is there before the value, and the value before the even number
    __atomic_store_n(&out.sequence, ++sequence, __ATOMIC_RELAXED);
    __atomic_store_n(&out.value_bits, std::bit_cast<uint64_t>(latest.value), __ATOMIC_RELEASE);
    __atomic_store_n(&out.time_ms, latest.time_ms, __ATOMIC_RELEASE);
    __atomic_store_n(&out.sequence, ++sequence, __ATOMIC_RELEASE);
}

} // namespace gatewayd
