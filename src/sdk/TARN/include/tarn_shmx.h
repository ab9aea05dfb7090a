/** @file
 *  Shared heap: one named shared memory segment from which several processes allocate blocks.
 *
 *  One process, the creator, makes the heap and owns its free lists. Others, visitors, open it;
 *  each gets a user id of its own. A creator allocates by itself; a visitor asks the creator, whose
 *  request thread answers, and keeps blocks that it has freed for its own next allocations. Blocks
 *  never move and are never merged. An event is a block on which processes wake one another.
 *
 *  Addresses hold for one process; between processes a block is named by its data offset
 *  (tarn_shmx_ptr_to_offset()), an event by the offset that its creation returned. Offset 0 is
 *  none. Sizes in bytes, time-outs in milliseconds on the monotonic clock.
 *
 *  A user id belongs to the process until it destroys the handle or ends, whichever thread opened
 *  it and whether that thread still runs; the next visitor takes over the id of a process that has
 *  died. Blocks that a visitor has stay allocated after its end. After a fork the handle is the
 *  parent's: in the child nothing can be allocated or freed with it (ERROR), and destroying it
 *  there only frees memory. A daemon opens its heap after it has daemonised.
 *
 *  Every process with access can write anywhere in the segment. What is read from it is checked, so
 *  that nonsense there makes calls fail with an ERROR line; it may cost blocks, and locks whose
 *  words are overwritten may have to be waited for.
 *  A block's lock belongs to a thread; that of a thread that has ended is taken over, unless the
 *  system has given its id to a new thread.
 *
 *  The heap's name also names a semaphore (tarn_semaphore.h), which an application must not create
 *  itself. Names: 1 to 107 characters without '/'.
 *  Threads: any, except that destroying a handle needs that nobody else uses it. */
#ifndef TARN_SHMX_H
#define TARN_SHMX_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_shmx *TARN_SHMX;

/** Create a heap and serve its visitors from a thread of this process.
 *  @param name            copied
 *  @param size            of the data zone, which blocks are carved from
 *  @param meta_zone_size  of a zone for the application's own use, filled with zeros
 *  @param max_user_count  visitors at a time
 *  @return the handle; TARN_INVALID_HANDLE when the name is no good or in use, the sizes together
 *          exceed 4 GiB, the system refuses (ERROR) or memory ran out. */
TARN_API TARN_SHMX tarn_shmx_create(const char *name, uint32_t size, uint32_t meta_zone_size,
                                    uint32_t max_user_count);

/** Open a heap as a visitor.
 *  @return the handle; TARN_INVALID_HANDLE when the name stands for no heap or all user ids are
 *          taken (ERROR). */
TARN_API TARN_SHMX tarn_shmx_open(const char *name);

/** Close a heap; the creator's removes it. Blocks and events of the handle become invalid in this
 *  process. Visitors of a heap that was removed keep it mapped; their requests fail.
 *  @return true; false for null.
 *  Blocking: the creator's until its request thread has ended, about 100 ms. */
TARN_API bool tarn_shmx_destroy(TARN_SHMX shmx);

/** User id of the handle: 0 for the creator. */
TARN_API uint32_t tarn_shmx_user_id(TARN_SHMX shmx);

/** The application's zone, in no way aligned or locked; null for null. */
TARN_API void *tarn_shmx_meta_zone(TARN_SHMX shmx);
TARN_API uint32_t tarn_shmx_meta_zone_size(TARN_SHMX shmx);

/** Allocate a block, filled with zeros, 4-aligned.
 *  @param size  a visitor's must not be 0
 *  @return its data; null when the heap is exhausted (ERROR), and for a visitor also when all 100
 *          request slots are busy or the creator is gone or has not answered.
 *  Blocking: a visitor's up to 10 s, busily. */
TARN_API void *tarn_shmx_blk_alloc(TARN_SHMX shmx, uint32_t size);

/** The same with a line at a level of the caller's, at the caller's position. */
TARN_API void *tarn_shmx_blk_alloc_dbg(const char *file, int line, const char *func, int32_t level,
                                       TARN_SHMX shmx, uint32_t size);

/** Free a block, of any process. One that is free already is left alone (WARN); an address that is
 *  none of a block's, too (ERROR).
 *  Blocking: a visitor that frees another's block, up to 30 s for a request slot and 10 s for the
 *  creator's answer. */
TARN_API void tarn_shmx_blk_free(TARN_SHMX shmx, void *ptr);
TARN_API void tarn_shmx_blk_free_dbg(const char *file, int line, const char *func, int32_t level,
                                     TARN_SHMX shmx, void *ptr);

/** The same by data offset. */
TARN_API void tarn_shmx_blk_free_offset(TARN_SHMX shmx, uint32_t offset);

/** Lock a block for the calling thread; waits while its holder lives. Not recursive.
 *  @param ptr  a block's data: it is not checked, as there is no handle
 *  @return true when taken; false for null and when the system refuses (ERROR), as it does to a
 *          thread that holds the lock already. */
TARN_API bool tarn_shmx_blk_lock(void *ptr);

/** Unlock a block.
 *  @return true; false for null and when the calling thread does not hold the lock (ERROR). */
TARN_API bool tarn_shmx_blk_unlock(void *ptr);

/** The same with lines at a level of the caller's, at the caller's position. */
TARN_API bool tarn_shmx_blk_lock_dbg(const char *file, int line, const char *func, int32_t level,
                                     void *ptr);
TARN_API bool tarn_shmx_blk_unlock_dbg(const char *file, int line, const char *func, int32_t level,
                                       void *ptr);

/** Size of a block as it was asked for; 0 for null. The address is not checked. */
TARN_API uint32_t tarn_shmx_blk_size(void *ptr);

/** Data offset of an address in the heap; 0 for null and for addresses outside. */
TARN_API uint32_t tarn_shmx_ptr_to_offset(TARN_SHMX shmx, const void *ptr);

/** Address of a data offset in this process; null for 0 and for offsets outside. */
TARN_API void *tarn_shmx_offset_to_ptr(TARN_SHMX shmx, uint32_t offset);

/** Create an event.
 *  @param manual_reset   true: stays set until tarn_shmx_event_reset(); false: one wait that
 *                        succeeds clears it
 *  @param initial_state  true: set from the start
 *  @return its offset; 0 when no block could be had. */
TARN_API uint32_t tarn_shmx_event_create(TARN_SHMX shmx, bool manual_reset, bool initial_state);

/** Set the event: wakes all waiters of a manual-reset event, one of an auto-reset event. A waiter
 *  whose wake-up was lost with a process that died looks again within a second.
 *  @return true; false when there is no event at the offset (ERROR). */
TARN_API bool tarn_shmx_event_set(TARN_SHMX shmx, uint32_t event);

/** Clear the event; result as tarn_shmx_event_set(). */
TARN_API bool tarn_shmx_event_reset(TARN_SHMX shmx, uint32_t event);

/** Wait until the event is set, and clear an auto-reset event.
 *  @param timeout_ms  0 looks without waiting, and gives false also while another thread is inside
 *                     a call on the event; TARN_INFINITE without limit
 *  @return true when it was or became set in time; false otherwise, when it was destroyed
 *          meanwhile, and when there is no event at the offset (ERROR): then after timeout_ms, or
 *          after a second when there is no limit. */
TARN_API bool tarn_shmx_event_wait(TARN_SHMX shmx, uint32_t event, uint32_t timeout_ms);

/** Destroy an event and free its block. Its waiters return false. No other call may begin on it.
 *  @return true; false when there is no event at the offset (ERROR).
 *  Blocking: until the waiters have left; up to 3 s when one of them had been killed. */
TARN_API bool tarn_shmx_event_destroy(TARN_SHMX shmx, uint32_t event);

/** Text "TARNSHMXEVT_N" of an event, in a buffer of the calling thread that its next call uses
 *  again. */
TARN_API const char *tarn_shmx_event_name(uint32_t event);

/** Write a line of statistics: total, unused, reclaim (free in the class lists), used (ever
 *  carved), actual_used in bytes, usage in percent, and the number of free blocks of each class.
 *  Free large blocks count as used.
 *  @return length of the text, which is cut to the buffer; TARN_ERRLN when an argument is missing
 *          or the heap's lock could not be had. */
TARN_API int tarn_shmx_info_print(TARN_SHMX shmx, char *buffer, size_t buffer_len);

/** Who has a user id. */
typedef struct tarn_shmx_user
{
    uint32_t user_id;    /**< from 1 */
    uint32_t process_id; /**< may have ended: the next visitor takes the id over then */
} tarn_shmx_user;

/** A heap as it stands in its segment; sizes in bytes. */
typedef struct tarn_shmx_look
{
    uint32_t size; /**< sizeof(tarn_shmx_look), set before the call */
    uint32_t data_size;
    uint32_t meta_zone_size;
    uint32_t max_user_count;
    uint32_t user_count;     /**< user ids that are taken */
    uint32_t slot_count;     /**< request slots */
    uint32_t busy_slots;     /**< those that a request is in */
    uint32_t used_size;      /**< ever carved, of data_size */
    uint32_t free_count[16]; /**< free blocks of each class */
    uint32_t class_size[16]; /**< what a block of each class takes, its header included */
    uint32_t large_count;    /**< free blocks above the classes */
} tarn_shmx_look;

/** Look at a heap without becoming a visitor: takes no user id, so it works when none is left.
 *  @param look   out: its size set before
 *  @param users  out: the first of the user ids that are taken, in their order; null with
 *                max_users 0
 *  @return 0; -1 when the name stands for no shared memory object; -2 when that is no heap; -3
 *          when the heap's lock could not be had; TARN_ERRLN for a null argument or a wrong size.
 *  Blocking: up to 10 s for the heap's lock. */
TARN_API int tarn_shmx_look_at(const char *name, tarn_shmx_look *look, tarn_shmx_user *users,
                               uint32_t max_users);

TARN_END_DECLS

#endif
