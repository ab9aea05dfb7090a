/** @file
 *  Ring buffers: a queue of bytes in storage of fixed size.
 *
 *  All sizes in bytes. Data goes in at the write position and out at the read position; both wrap
 *  at the end of the storage, which has one byte more than the capacity: with that byte left
 *  unused, equal positions mean empty.
 *  Threads: one at a time per buffer; there is no lock inside. Nothing blocks. */
#ifndef TARN_RINGBUF_H
#define TARN_RINGBUF_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_ringbuf *TARN_RINGBUF;

/** Create an empty ring buffer.
 *  @param capacity  most bytes that it holds at a time; up to 0xFFFFFFFE
 *  @return the handle, destroyed with tarn_ringbuf_destroy(); TARN_INVALID_HANDLE for 0xFFFFFFFF
 *          and when memory ran out. */
TARN_API TARN_RINGBUF tarn_ringbuf_create(uint32_t capacity);

/** Destroy a ring buffer with what is in it; null is ignored. */
TARN_API void tarn_ringbuf_destroy(TARN_RINGBUF rb);

/** Forget all data. */
TARN_API void tarn_ringbuf_reset(TARN_RINGBUF rb);

/** Most bytes that the buffer holds at a time; 0 for null. */
TARN_API uint32_t tarn_ringbuf_capacity(TARN_RINGBUF rb);

/** Bytes that can still be written; 0 for null. */
TARN_API uint32_t tarn_ringbuf_bytes_unused(TARN_RINGBUF rb);

/** Bytes that can be read; 0 for null. */
TARN_API uint32_t tarn_ringbuf_bytes_used(TARN_RINGBUF rb);

/** True when nothing more can be written; false for null. */
TARN_API bool tarn_ringbuf_is_full(TARN_RINGBUF rb);

/** True when there is nothing to read; true for null. */
TARN_API bool tarn_ringbuf_is_empty(TARN_RINGBUF rb);

/** Read position: where the oldest byte is. The data goes on up to tarn_ringbuf_end() and then from
 *  the start of the storage, which is tarn_ringbuf_end() minus capacity minus 1.
 *  @return into the storage, valid until the buffer is destroyed; null for null. */
TARN_API const uint8_t *tarn_ringbuf_tail(TARN_RINGBUF rb);

/** Write position: where the next byte goes; as tarn_ringbuf_tail(). */
TARN_API const uint8_t *tarn_ringbuf_head(TARN_RINGBUF rb);

/** End of the storage, one past its last byte; as tarn_ringbuf_tail(). */
TARN_API const uint8_t *tarn_ringbuf_end(TARN_RINGBUF rb);

/** Put bytes in; never over unread ones.
 *  @param src    count bytes outside the buffer; may be null when count is 0
 *  @return number of bytes taken, the first ones of src; 0 when the buffer is full. */
TARN_API uint32_t tarn_ringbuf_write(TARN_RINGBUF rb, const void *src, uint32_t count);

/** Take bytes out.
 *  @param dst    room for count bytes outside the buffer; may be null when count is 0
 *  @return number of bytes given; 0 when the buffer is empty. */
TARN_API uint32_t tarn_ringbuf_read(TARN_RINGBUF rb, void *dst, uint32_t count);

/** Put count bytes of one value in, over the oldest data when there is not enough room: the buffer
 *  is full then.
 *  @param byte   its low 8 bits
 *  @return number of bytes written: count, at most capacity + 1 (of which capacity stay). */
TARN_API uint32_t tarn_ringbuf_memset(TARN_RINGBUF rb, int byte, uint32_t count);

TARN_END_DECLS

#endif
