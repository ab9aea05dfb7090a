/** @file
 *  Lists: bounded, doubly linked, of item pointers.
 *
 *  Items are the caller's: never copied, compared by address only, never freed. Null is an ordinary
 *  item. A node that an item leaves is kept for the next push, so a list that has once been as long
 *  as it gets does not allocate again; nodes are freed with the list.
 *  Threads: one at a time per list; there is no lock inside. Nothing blocks.
 *  Callbacks may call any function on the list they were called for, tarn_list_destroy() included.
 *  A walk goes on behind items that are removed meanwhile, the current one included; items put in
 *  behind the next one are visited. */
#ifndef TARN_LIST_H
#define TARN_LIST_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_list *TARN_LIST;

/** True for an item that is looked for; arg1 and arg2 are the caller's. */
typedef bool (*tarn_list_pred)(void *item, void *arg1, void *arg2);

/** Called for an item; arg1 and arg2 are the caller's. */
typedef void (*tarn_list_fn)(void *item, void *arg1, void *arg2);

/** Create an empty list.
 *  @param max_size  most items it can hold, above 0; memory is taken as items come
 *  @return the handle, destroyed with tarn_list_destroy(); TARN_INVALID_HANDLE for 0 and when
 *          memory ran out. */
TARN_API TARN_LIST tarn_list_create(uint32_t max_size);

/** Destroy a list; items that are still in it are reported at WARN and left alone. Null is
 *  ignored. */
TARN_API void tarn_list_destroy(TARN_LIST l);

/** Number of items; 0 for null. */
TARN_API uint32_t tarn_list_count(TARN_LIST l);

/** Most items that the list can hold; 0 for null. */
TARN_API uint32_t tarn_list_max_size(TARN_LIST l);

/** True when nothing more can be put in; false for null. */
TARN_API bool tarn_list_is_full(TARN_LIST l);

/** The same as tarn_list_is_full(). */
TARN_API bool tarn_list_full(TARN_LIST l);

/** True when there is no item; true for null. */
TARN_API bool tarn_list_is_empty(TARN_LIST l);

/** The same as tarn_list_is_empty(). */
TARN_API bool tarn_list_empty(TARN_LIST l);

/** First item, left in the list; null when empty. */
TARN_API void *tarn_list_front(TARN_LIST l);

/** Last item, left in the list; null when empty. */
TARN_API void *tarn_list_back(TARN_LIST l);

/** Put an item in front of all others.
 *  @return true; false when the list is full, memory ran out or l is null. */
TARN_API bool tarn_list_push_front(TARN_LIST l, void *item);

/** Put an item behind all others.
 *  @return true; false when the list is full, memory ran out or l is null. */
TARN_API bool tarn_list_push_back(TARN_LIST l, void *item);

/** Take the first item out.
 *  @return the item; null when empty (reported at DEBUG) and for null. */
TARN_API void *tarn_list_pop_front(TARN_LIST l);

/** Take the last item out.
 *  @return the item; null when empty (reported at DEBUG) and for null. */
TARN_API void *tarn_list_pop_back(TARN_LIST l);

/** Item at a position, left in the list. Walks from the nearer end.
 *  @param index  0 is the front
 *  @return the item; null when index is not below the count. */
TARN_API void *tarn_list_get_at(TARN_LIST l, uint32_t index);

/** Put an item in so that it gets a position. Walks from the nearer end.
 *  @param index  0 is the front; the count and anything above appends
 *  @return true; false when the list is full, memory ran out or l is null. */
TARN_API bool tarn_list_insert(TARN_LIST l, uint32_t index, void *item);

/** First item for which pred is true, left in the list.
 *  @return the item; null when there is none, for a null list and a null pred. */
TARN_API void *tarn_list_find_if(TARN_LIST l, tarn_list_pred pred, void *arg1, void *arg2);

/** Take the first item out for which pred is true.
 *  @return the item; null when there is none, for a null list and a null pred. */
TARN_API void *tarn_list_remove_if(TARN_LIST l, tarn_list_pred pred, void *arg1, void *arg2);

/** Take the first occurrence of this very pointer out.
 *  @return the item; null when it is not in the list. */
TARN_API void *tarn_list_remove(TARN_LIST l, const void *item);

/** True when this very pointer is in the list. */
TARN_API bool tarn_list_contains(TARN_LIST l, const void *item);

/** Take all items out, at once; they are left alone. */
TARN_API void tarn_list_clear(TARN_LIST l);

/** Call fn(item, arg1, arg2) for each item from front to back. */
TARN_API void tarn_list_for_each(TARN_LIST l, tarn_list_fn fn, void *arg1, void *arg2);

/** Copy the item pointers, in list order.
 *  @return an array of tarn_list_count() pointers, freed with tarn_mem_free(); null when the list
 *          is empty or null and when memory ran out. */
TARN_API void **tarn_list_to_array(TARN_LIST l);

TARN_END_DECLS

#endif
