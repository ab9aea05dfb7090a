// Shared heap: a segment with arbitrary bytes, opened and used by a visitor. The first bytes of the
// input choose what is kept sane, so that the later checks are reached as well; the rest is laid
// over the segment again and again.

#include "input.h"

#include "tarn.h"
#include "tarn_raii.h"
#include "tarn_semaphore.h"
#include "tarn_shm.h"
#include "tarn_shmx.h"
#include "tarn_shmx_internal.h"

#include <cstring>
#include <string>

#include <unistd.h>

namespace
{

constexpr uint32_t data_size = 4096;
constexpr uint32_t meta_size = 16;
constexpr uint32_t users = 3;
constexpr auto segment_size =
    static_cast<uint32_t>(tarn::shmx_segment_size(data_size, meta_size, users));

/** A creator that never answers, so that a visitor meets only what stands in the segment. */
class stage
{
public:
    stage() : name_("fuzz_shmx_" + std::to_string(::getpid()))
    {
        fuzz::swallow_log();
        fuzz::require(tarn_init());
        semaphore_ = tarn_semaphore_create(name_.c_str(), 0);
        shm_ = tarn_shm_create(name_.c_str(), segment_size);
        fuzz::require(semaphore_ != nullptr && shm_ != nullptr);
    }
    stage(const stage &) = delete;
    stage &operator=(const stage &) = delete;
    ~stage()
    {
        (void)tarn_shm_destroy(shm_);
        tarn_semaphore_destroy(semaphore_);
        tarn_uninit();
    }
    [[nodiscard]] const char *name() const
    {
        return name_.c_str();
    }
    [[nodiscard]] uint8_t *area() const
    {
        return static_cast<uint8_t *>(tarn_shm_buffer(shm_));
    }

private:
    std::string name_;
    TARN_SEMAPHORE semaphore_ = nullptr;
    TARN_SHM shm_ = nullptr;
};

/** Every word of the segment from the input; the lock words stay free, because an id of a living
 *  thread in one would only make the visitor wait for it. */
void lay_over(const stage &on, uint8_t choice, const uint8_t *data, size_t size)
{
    uint8_t *area = on.area();
    for (size_t i = 0; i < segment_size; ++i)
    {
        area[i] = size == 0 ? 0 : data[i % size];
    }
    tarn::shmx_view view{};
    tarn::shmx_set_view(&view, area, data_size, meta_size, users);
    tarn::shmx_init_slot(&view.header->lock);
    for (uint32_t id = 0; id <= users; ++id)
    {
        tarn::shmx_init_slot(&view.users[id].lock);
    }
    if ((choice & 1) != 0)
    {
        view.header->fourcc = tarn::shmx_fourcc;
    }
    if ((choice & 2) != 0)
    {
        view.header->user_table_size = 16 * (users + 1);
        view.header->meta_zone_size = meta_size;
        view.header->data_zone_size = data_size;
        view.header->max_user_count = users;
    }
    // Slots neither free nor posted: requests end at once instead of after their time.
    for (tarn::shmx_request_slot &slot : view.header->slots)
    {
        slot.state = static_cast<uint8_t>(slot.state | 0x10);
    }
    if ((choice & 4) != 0) // something that looks like an event
    {
        auto *block = reinterpret_cast<tarn::shmx_block_header *>(view.data + view.first_offset);
        auto *record = reinterpret_cast<tarn::shmx_event_record *>(block + 1);
        record->fourcc = tarn::shmx_event_fourcc;
        record->lock = 0;
        record->users = 0;
    }
}

/** Blocks that overlap an event leave their numbers in its lock word, like those of lay_over(). */
void free_event_lock(TARN_SHMX heap, uint32_t event)
{
    tarn::shmx_block_header *block = tarn::shmx_block_at(heap->view, tarn::block_offset{event});
    if (block != nullptr && event + sizeof *block + tarn::shmx_event_block_size <= data_size)
    {
        reinterpret_cast<tarn::shmx_event_record *>(block + 1)->lock = 0;
    }
}

/** What a visitor may do; own blocks only, so that no request has to wait for a creator. */
void use(TARN_SHMX heap, const uint8_t *data, size_t size)
{
    char line[300];
    (void)tarn_shmx_info_print(heap, line, sizeof line);
    (void)tarn_shmx_blk_alloc(heap, 40);
    for (size_t i = 0; i + 2 <= size && i < 64; i += 2)
    {
        const uint32_t offset = (data[i] | static_cast<uint32_t>(data[i + 1]) << 8) % 5000;
        void *ptr = tarn_shmx_offset_to_ptr(heap, offset);
        if (tarn::shmx_block_header *block =
                tarn::shmx_block_at(heap->view, tarn::shmx_block_of_address(heap->view, ptr)))
        {
            block->user_id = tarn_shmx_user_id(heap);
            tarn_shmx_blk_free(heap, ptr);
        }
        if (i % 4 == 0)
        {
            (void)tarn_shmx_blk_alloc(heap, data[i] + 1u);
        }
        free_event_lock(heap, offset);
        (void)tarn_shmx_event_wait(heap, offset, 0);
        (void)tarn_shmx_event_reset(heap, offset);
        (void)tarn_shmx_event_set(heap, offset);
    }
    free_event_lock(heap, heap->view.first_offset);
    (void)tarn_shmx_event_set(heap, heap->view.first_offset);
    (void)tarn_shmx_event_wait(heap, heap->view.first_offset, 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const stage on;
    if (size == 0)
    {
        return 0;
    }
    lay_over(on, data[0], data + 1, size - 1);
    TARN_SHMX heap = tarn_shmx_open(on.name());
    if (heap != nullptr)
    {
        use(heap, data + 1, size - 1);
        (void)tarn_shmx_destroy(heap);
    }
    return 0;
}
