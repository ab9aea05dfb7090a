// Ring buffers: two positions in storage of capacity + 1 bytes, one of which always stays unused.
//
// Invariants: head and tail lie in [buffer, buffer + size); head == tail means empty.

#include "tarn_ringbuf.h"

#include "tarn_modules.h"
#include "tarn_raii.h"

#include <algorithm>

struct tarn_ringbuf
{
    tarn_handle_header header;
    uint8_t *buffer;
    uint8_t *head; ///< write position
    uint8_t *tail; ///< read position
    uint32_t size; ///< capacity + 1
};
TARN_ASSERT_RECORD(tarn_ringbuf);

namespace
{

uint8_t *end_of(const tarn_ringbuf &rb)
{
    return rb.buffer + rb.size;
}

uint32_t used(const tarn_ringbuf &rb)
{
    return rb.head >= rb.tail ? static_cast<uint32_t>(rb.head - rb.tail)
                              : rb.size - static_cast<uint32_t>(rb.tail - rb.head);
}

uint32_t unused(const tarn_ringbuf &rb)
{
    return rb.size - 1 - used(rb);
}

uint32_t up_to_end(const tarn_ringbuf &rb, const uint8_t *position)
{
    return static_cast<uint32_t>(end_of(rb) - position);
}

/** Pass count bytes (at most size) from a position on to copy(piece, offset, length): one piece, or
 *  two when they wrap. Not inlined: writing and reading in one piece, the usual case, stand on their
 *  own before it and cost hardly more than the copy.
 *  @return the position behind them */
template <typename F>
[[gnu::noinline]] uint8_t *for_pieces(const tarn_ringbuf &rb, uint8_t *position, uint32_t count,
                                      F copy)
{
    const uint32_t first = up_to_end(rb, position);
    if (count < first)
    {
        copy(position, size_t{0}, count);
        return position + count;
    }
    copy(position, size_t{0}, first);
    if (count > first)
    {
        copy(rb.buffer, size_t{first}, count - first);
    }
    return rb.buffer + (count - first);
}

/** The position after p. */
uint8_t *wrap(const tarn_ringbuf &rb, const uint8_t *p)
{
    return rb.buffer + static_cast<size_t>(p + 1 - rb.buffer) % rb.size;
}

} // namespace

TARN_RINGBUF tarn_ringbuf_create(uint32_t capacity)
{
    RVOF(capacity < UINT32_MAX, TARN_INVALID_HANDLE); // the size is one more
    auto rb = tarn::make_object<tarn_ringbuf>(TARN_HANDLE_TYPE_RINGBUF);
    RVON(rb, TARN_INVALID_HANDLE);
    rb->size = capacity + 1;
    auto storage = tarn::unique_mem<uint8_t>::make_array(rb->size);
    if (!storage)
    {
        return TARN_INVALID_HANDLE;
    }
    rb->buffer = rb->head = rb->tail = storage.release();
    return rb.release();
}

void tarn_ringbuf_destroy(TARN_RINGBUF rb)
{
    if (rb == nullptr)
    {
        return;
    }
    tarn_mem_free(rb->buffer);
    tarn_mem_free(rb);
}

void tarn_ringbuf_reset(TARN_RINGBUF rb)
{
    RON(rb);
    rb->head = rb->tail = rb->buffer;
}

uint32_t tarn_ringbuf_capacity(TARN_RINGBUF rb)
{
    RVON(rb, 0);
    return rb->size - 1;
}

uint32_t tarn_ringbuf_bytes_unused(TARN_RINGBUF rb)
{
    RVON(rb, 0);
    return unused(*rb);
}

uint32_t tarn_ringbuf_bytes_used(TARN_RINGBUF rb)
{
    RVON(rb, 0);
    return used(*rb);
}

bool tarn_ringbuf_is_full(TARN_RINGBUF rb)
{
    RVON(rb, false);
    return unused(*rb) == 0;
}

bool tarn_ringbuf_is_empty(TARN_RINGBUF rb)
{
    RVON(rb, true);
    return used(*rb) == 0;
}

const uint8_t *tarn_ringbuf_tail(TARN_RINGBUF rb)
{
    RVON(rb, NULL);
    return rb->tail;
}

const uint8_t *tarn_ringbuf_head(TARN_RINGBUF rb)
{
    RVON(rb, NULL);
    return rb->head;
}

const uint8_t *tarn_ringbuf_end(TARN_RINGBUF rb)
{
    RVON(rb, NULL);
    return end_of(*rb);
}

uint32_t tarn_ringbuf_write(TARN_RINGBUF rb, const void *src, uint32_t count)
{
    RVON(rb, 0);
    RVOF(src != NULL || count == 0, 0);
    const uint32_t bytes_unused = unused(*rb);
    RVOF(bytes_unused > 0, 0);
    if (count <= bytes_unused && count < up_to_end(*rb, rb->head))
    {
        tarn_mem_copy(rb->head, src, count);
        rb->head += count;
        return count;
    }
    const uint32_t n = std::min(count, bytes_unused);
    const auto *from = static_cast<const uint8_t *>(src);
    rb->head = for_pieces(*rb, rb->head, n, [from](uint8_t *piece, size_t offset, uint32_t length) {
        tarn_mem_copy(piece, from + offset, length);
    });
    return n;
}

uint32_t tarn_ringbuf_read(TARN_RINGBUF rb, void *dst, uint32_t count)
{
    RVON(rb, 0);
    RVOF(dst != NULL || count == 0, 0);
    const uint32_t bytes_used = used(*rb);
    RVOF(bytes_used > 0, 0);
    if (count <= bytes_used && count < up_to_end(*rb, rb->tail))
    {
        tarn_mem_copy(dst, rb->tail, count);
        rb->tail += count;
        return count;
    }
    const uint32_t n = std::min(count, bytes_used);
    auto *to = static_cast<uint8_t *>(dst);
    rb->tail = for_pieces(*rb, rb->tail, n, [to](uint8_t *piece, size_t offset, uint32_t length) {
        tarn_mem_copy(to + offset, piece, length);
    });
    return n;
}

uint32_t tarn_ringbuf_memset(TARN_RINGBUF rb, int byte, uint32_t count)
{
    RVON(rb, 0);
    const uint32_t bytes_unused = unused(*rb);
    const uint32_t n = std::min(count, rb->size);
    rb->head = for_pieces(*rb, rb->head, n, [byte](uint8_t *piece, size_t, uint32_t length) {
        tarn_mem_set(piece, byte, length);
    });
    if (n > bytes_unused)
    {
        rb->tail = wrap(*rb, rb->head);
    }
    return n;
}

bool tarn_ringbuf_init(void)
{
    return true;
}

void tarn_ringbuf_uninit(void) {}
