/** @file
 *  Memory: the wrappers through which the whole layer allocates, fills and copies.
 *
 *  What a function of the layer returns on the heap is freed with tarn_mem_free().
 *  Threads: any. Sizes in bytes. A length of 0 never touches the pointers, which may then be
 *  null. */
#ifndef TARN_MEM_H
#define TARN_MEM_H

#include "tarn_api.h"

#include <stddef.h>

TARN_BEGIN_DECLS

/** Allocate one zero-filled block.
 *  @return the block, owned by the caller; null when memory ran out. */
TARN_API void *tarn_mem_alloc(size_t size_bytes);

/** Change the size of a block (null: a new one); bytes gained are not cleared.
 *  @return the block at its new place; null when memory ran out, the old one then stands. */
TARN_API void *tarn_mem_realloc(void *ptr, size_t size_bytes);

/** Free a block; null is ignored. errno is kept. */
TARN_API void tarn_mem_free(void *ptr);

/** Fill n bytes with the low 8 bits of byte. */
TARN_API void tarn_mem_set(void *ptr, int byte, size_t n);

/** Fill n bytes with zero. */
TARN_API void tarn_mem_zero(void *ptr, size_t n);

/** Copy n bytes between areas that do not overlap. */
TARN_API void tarn_mem_copy(void *dst, const void *src, size_t n);

/** Copy n bytes between areas that may overlap. */
TARN_API void tarn_mem_move(void *dst, const void *src, size_t n);

/** Compare n bytes as unsigned values.
 *  @return below, equal to or above 0, as memcmp. */
TARN_API int tarn_mem_compare(const void *lhs, const void *rhs, size_t n);

/** Log the process's memory figures (/proc/PID/statm, in pages) at DEBUG. */
TARN_API void tarn_mem_usage_print(void);

TARN_END_DECLS

#endif
