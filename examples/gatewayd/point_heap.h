/** @file
 *  Where gatewayd shows its points to other processes: a shared heap (tarn_shmx.h) of the instance's
 *  name, that any local process may open and read. C11 and C++.
 *
 *  The heap's meta zone holds one gatewayd_heap_meta, and a block of the heap holds the table: one
 *  gatewayd_heap_point per point, in the order of their creation. Both begin at the first address
 *  of their zone or block that is a multiple of 8, which is the same place in every process.
 *
 *      TARN_SHMX heap = tarn_shmx_open("gatewayd");
 *      gatewayd_heap_view view;
 *      if (heap != TARN_INVALID_HANDLE && gatewayd_heap_attach(heap, &view))
 *      {
 *          for (uint32_t i = 0; i < gatewayd_heap_count(&view); ++i)
 *          {
 *              gatewayd_heap_value point;
 *              if (gatewayd_heap_read(&view, i, &point)) ...
 *          }
 *      }
 *
 *  Reading needs no lock and never stops the daemon:
 *  - A point stays at its place for as long as the heap exists, its name never changes, and points
 *    are never removed. The count grows when a new point is whole.
 *  - A point's sequence number is odd while its value is being written, and another even number
 *    afterwards. Who finds the same even number before and after he has read value and time has a
 *    pair that belongs together; who does not tries again. A writer needs a few instructions, so a
 *    number that stays odd belongs to a daemon that was killed; there is one such point at most.
 *  - The change counter goes up after a change has been written: as long as it stands, there is
 *    nothing new to read.
 *  - An orderly end sets closed; after that, or when the process of pid is gone, a reader closes the
 *    heap and may open the one that a successor has made.
 *
 *  Any process with access can write anything in here. A reader trusts nothing: the functions below
 *  stay within the mapping whatever stands in it, but a name may hold any bytes. gatewayd itself
 *  never reads it. */
#ifndef GATEWAYD_POINT_HEAP_H
#define GATEWAYD_POINT_HEAP_H

#include "tarn_shmx.h"
#include "tarn_sys.h"

#include <string.h>

#define GATEWAYD_HEAP_MAGIC 0x54505747u /**< "GWPT" */
#define GATEWAYD_HEAP_VERSION 1u        /**< of this layout */
#define GATEWAYD_HEAP_POINTS 1024u      /**< places in the table */
#define GATEWAYD_HEAP_NAME_SIZE 64u     /**< of a name with its NUL */

/** Processes that can have the heap open at a time, besides the daemon. */
#define GATEWAYD_HEAP_READERS 64u

/** What stands in the meta zone. All but the words that are said to change is written before magic
 *  is. */
typedef struct gatewayd_heap_meta
{
    uint32_t magic;        /**< GATEWAYD_HEAP_MAGIC once the rest is valid; 0 before */
    uint32_t version;      /**< GATEWAYD_HEAP_VERSION */
    uint32_t point_size;   /**< sizeof(gatewayd_heap_point) */
    uint32_t capacity;     /**< GATEWAYD_HEAP_POINTS */
    uint32_t table_offset; /**< data offset of the table's block */
    uint32_t pid;          /**< of the daemon */
    uint32_t count;        /**< changes: points in the table */
    uint32_t closed;       /**< changes: 1 when the daemon has ended */
    uint64_t changes;      /**< changes: of values since the daemon's start, new points included */
    uint64_t reserved;     /**< 0 */
} gatewayd_heap_meta;

/** A point. */
typedef struct gatewayd_heap_point
{
    char name[GATEWAYD_HEAP_NAME_SIZE]; /**< filled up with NULs */
    uint32_t sequence;                  /**< changes: odd while the next two are being written */
    uint32_t reserved;                  /**< 0 */
    uint64_t value_bits;                /**< changes: the value, a double, as its bits */
    uint64_t time_ms;                   /**< changes: of the last change, since 1970-01-01 UTC */
} gatewayd_heap_point;

#ifdef __cplusplus
#define GATEWAYD_STATIC_ASSERT static_assert
#else
#define GATEWAYD_STATIC_ASSERT _Static_assert
#endif
GATEWAYD_STATIC_ASSERT(sizeof(gatewayd_heap_meta) == 48, "a shared layout");
GATEWAYD_STATIC_ASSERT(offsetof(gatewayd_heap_meta, table_offset) == 16, "a shared layout");
GATEWAYD_STATIC_ASSERT(offsetof(gatewayd_heap_meta, count) == 24, "a shared layout");
GATEWAYD_STATIC_ASSERT(offsetof(gatewayd_heap_meta, changes) == 32, "a shared layout");
GATEWAYD_STATIC_ASSERT(sizeof(gatewayd_heap_point) == 88, "a shared layout");
GATEWAYD_STATIC_ASSERT(offsetof(gatewayd_heap_point, sequence) == 64, "a shared layout");
GATEWAYD_STATIC_ASSERT(offsetof(gatewayd_heap_point, value_bits) == 72, "a shared layout");
GATEWAYD_STATIC_ASSERT(offsetof(gatewayd_heap_point, time_ms) == 80, "a shared layout");
GATEWAYD_STATIC_ASSERT(sizeof(double) == sizeof(uint64_t), "a shared layout");

/** Bytes that zone and block have: what is in them, and room for their alignment. */
#define GATEWAYD_HEAP_META_SIZE ((uint32_t)sizeof(gatewayd_heap_meta) + 8u)
#define GATEWAYD_HEAP_TABLE_SIZE ((uint32_t)sizeof(gatewayd_heap_point) * GATEWAYD_HEAP_POINTS + 8u)

/** An opened heap; valid until the heap's handle is destroyed. */
typedef struct gatewayd_heap_view
{
    const gatewayd_heap_meta *meta;
    const gatewayd_heap_point *table;
} gatewayd_heap_view;

/** One point as it was at one moment. */
typedef struct gatewayd_heap_value
{
    char name[GATEWAYD_HEAP_NAME_SIZE]; /**< with a NUL; not trusted */
    double value;
    uint64_t time_ms;
} gatewayd_heap_value;

/** The first address from start on that is a multiple of 8. */
static inline void *gatewayd_heap_aligned(void *start)
{
    return (char *)start + ((8u - (uintptr_t)start % 8u) % 8u);
}

/** Find meta record and table in an opened heap.
 *  @return false when the heap is not one of gatewayd's, or of another layout, or not yet whole */
static inline bool gatewayd_heap_attach(TARN_SHMX heap, gatewayd_heap_view *view)
{
    void *const zone = tarn_shmx_meta_zone(heap);
    if (zone == NULL || tarn_shmx_meta_zone_size(heap) < GATEWAYD_HEAP_META_SIZE)
    {
        return false;
    }
    const gatewayd_heap_meta *const meta = (const gatewayd_heap_meta *)gatewayd_heap_aligned(zone);
    if (__atomic_load_n(&meta->magic, __ATOMIC_ACQUIRE) != GATEWAYD_HEAP_MAGIC ||
        meta->version != GATEWAYD_HEAP_VERSION || meta->capacity != GATEWAYD_HEAP_POINTS ||
        meta->point_size != sizeof(gatewayd_heap_point))
    {
        return false;
    }
    /* read once: another process could change it between check and use */
    const uint32_t offset = __atomic_load_n(&meta->table_offset, __ATOMIC_RELAXED);
    void *const block = tarn_shmx_offset_to_ptr(heap, offset);
    if (block == NULL || offset > UINT32_MAX - GATEWAYD_HEAP_TABLE_SIZE ||
        tarn_shmx_offset_to_ptr(heap, offset + GATEWAYD_HEAP_TABLE_SIZE - 1) == NULL)
    {
        return false;
    }
    view->meta = meta;
    view->table = (const gatewayd_heap_point *)gatewayd_heap_aligned(block);
    return true;
}

/** Number of points. */
static inline uint32_t gatewayd_heap_count(const gatewayd_heap_view *view)
{
    const uint32_t count = __atomic_load_n(&view->meta->count, __ATOMIC_ACQUIRE);
    return count < GATEWAYD_HEAP_POINTS ? count : GATEWAYD_HEAP_POINTS;
}

/** Changes of values since the daemon's start. */
static inline uint64_t gatewayd_heap_changes(const gatewayd_heap_view *view)
{
    return __atomic_load_n(&view->meta->changes, __ATOMIC_ACQUIRE);
}

/** True when the daemon has ended in an orderly way. */
static inline bool gatewayd_heap_is_closed(const gatewayd_heap_view *view)
{
    return __atomic_load_n(&view->meta->closed, __ATOMIC_ACQUIRE) != 0;
}

/** Copy a point as it is now.
 *  @param place  below gatewayd_heap_count()
 *  @return false when there is no such place, and when no whole value could be had in half a second
 *          because its writer was killed
 *  Blocking: while the writer is held up in the middle of the point, which is next to never. */
static inline bool gatewayd_heap_read(const gatewayd_heap_view *view, uint32_t place,
                                      gatewayd_heap_value *out)
{
    if (place >= gatewayd_heap_count(view))
    {
        return false;
    }
    const gatewayd_heap_point *const point = &view->table[place];
    for (int tries = 0; tries < 5000; ++tries)
    {
        if (tries >= 100)
        {
            tarn_sleep_us(100); /* the writer waits for a processor */
        }
        /* acquire: none of these reads moves before the one above it */
        const uint32_t before = __atomic_load_n(&point->sequence, __ATOMIC_ACQUIRE);
        const uint64_t bits = __atomic_load_n(&point->value_bits, __ATOMIC_ACQUIRE);
        const uint64_t time_ms = __atomic_load_n(&point->time_ms, __ATOMIC_ACQUIRE);
        const uint32_t after = __atomic_load_n(&point->sequence, __ATOMIC_RELAXED);
        if (before == after && before % 2 == 0)
        {
            memcpy(out->name, point->name, sizeof out->name);
            out->name[sizeof out->name - 1] = '\0';
            memcpy(&out->value, &bits, sizeof out->value);
            out->time_ms = time_ms;
            return true;
        }
    }
    return false;
}

#endif
