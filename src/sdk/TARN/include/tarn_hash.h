/** @file
 *  Hash tables: from byte-string keys to value pointers, with an order of iteration.
 *
 *  The table owns a copy of each key, with a NUL behind it; a key may hold any bytes. Values are
 *  the caller's: never copied or freed, null is an ordinary value. Lengths in bytes.
 *  Order: as inserted; in a table with a comparator sorted by it after each change (stable; keys
 *  if key_cmp is given, else values). Sorting costs one pass over the table when the order is
 *  right but for the newest item. It waits while tarn_hash_for_each(), tarn_hash_clear() or
 *  tarn_hash_merge() runs and is made up for at its end.
 *  Threads: one at a time per table; there is no lock inside. Nothing blocks.
 *  Callbacks may call any function on the table they were called for, tarn_hash_destroy() included:
 *  the key that they were given stays valid until they return, and a walk goes on behind items that
 *  are removed meanwhile. An item added meanwhile is visited, unless it was added during the call
 *  for the last one. Comparators are no callbacks in this sense: they leave their table alone.
 *  When there is no memory for the buckets of a table (with its first item, and when it grows) the
 *  process exits with status -1. */
#ifndef TARN_HASH_H
#define TARN_HASH_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_hash *TARN_HASH;

/** An item of a table: valid until it is removed. */
typedef struct tarn_hash_item *TARN_HASH_ITEM;

/** Compares two keys or two values.
 *  @return below, equal to or above 0 when a comes before, beside or behind b. */
typedef int (*tarn_hash_cmp)(const void *a, const void *b);

/** True for an item that is looked for; arg1 and arg2 are the caller's. */
typedef bool (*tarn_hash_pred)(const void *key, void *value, void *arg1, void *arg2);

/** Called for an item; index counts the calls from 0, arg1 and arg2 are the caller's. */
typedef void (*tarn_hash_fn)(uint32_t index, const void *key, void *value, void *arg1, void *arg2);

/** Create an empty table that keeps the order of insertion.
 *  @param ignored  any value
 *  @return the handle, destroyed with tarn_hash_destroy(); TARN_INVALID_HANDLE when memory ran out
 *          (ERROR). */
TARN_API TARN_HASH tarn_hash_create(int ignored);

/** Create an empty table that sorts itself.
 *  @param key_cmp    may be null: values are compared
 *  @param value_cmp  used when key_cmp is null; may be null: order of insertion
 *  @return as tarn_hash_create(). */
TARN_API TARN_HASH tarn_hash_create_ordered(tarn_hash_cmp key_cmp, tarn_hash_cmp value_cmp);

/** Destroy a table with its items and key copies; values are left alone. Null is ignored. */
TARN_API void tarn_hash_destroy(TARN_HASH hash);

/** Put a value in under a key, or replace the value that is there (which does not sort again).
 *  @param key      copied
 *  @param key_len  at most 0xFFFFFF00. 0: the key is NUL-terminated and is not looked up but comes
 *                  in once more, even if it is there already (except the empty key)
 *  @return the value replaced; the new value when the key is new; null when the arguments are
 *          wrong or memory ran out. */
TARN_API void *tarn_hash_add_ex(TARN_HASH hash, const void *key, size_t key_len, void *value);

/** The same with a NUL-terminated key, which is looked up. */
TARN_API void *tarn_hash_add(TARN_HASH hash, const char *key, void *value);

/** Look a key up; takes the same time in tables of any size.
 *  @param key_len    0: the key is NUL-terminated
 *  @param value_out  receives the value when the key is there; may be null
 *  @return true when the key is there. */
TARN_API bool tarn_hash_find_ex(TARN_HASH hash, const void *key, size_t key_len, void **value_out);

/** The same with a NUL-terminated key. */
TARN_API bool tarn_hash_find(TARN_HASH hash, const char *key, void **value_out);

/** Remove the item with a key.
 *  @param key_len  as it stands: 0 is the empty key
 *  @return its value; null when the key is not there. */
TARN_API void *tarn_hash_remove_ex(TARN_HASH hash, const void *key, size_t key_len);

/** The same with a NUL-terminated key. */
TARN_API void *tarn_hash_remove(TARN_HASH hash, const char *key);

/** Number of items; 0 for null. */
TARN_API uint32_t tarn_hash_count(TARN_HASH hash);

/** Number of items for which pred is true. */
TARN_API uint32_t tarn_hash_count_if(TARN_HASH hash, tarn_hash_pred pred, void *arg1, void *arg2);

/** Value of the first item in order for which pred is true; null when there is none. */
TARN_API void *tarn_hash_find_if(TARN_HASH hash, tarn_hash_pred pred, void *arg1, void *arg2);

/** Remove the first item in order for which pred is true.
 *  @return its value; null when there is none. */
TARN_API void *tarn_hash_remove_if(TARN_HASH hash, tarn_hash_pred pred, void *arg1, void *arg2);

/** Call fn(index, key, value, arg1, arg2) for each item in order. */
TARN_API void tarn_hash_for_each(TARN_HASH hash, tarn_hash_fn fn, void *arg1, void *arg2);

/** Remove all items.
 *  @param fn  called for each item, which is out of the table by then, so it may free the value;
 *             may be null */
TARN_API void tarn_hash_clear(TARN_HASH hash, tarn_hash_fn fn, void *arg1, void *arg2);

/** Add items of another table as tarn_hash_add_ex() would; one sort at the end.
 *  @param dst   receives the items
 *  @param src   keeps its items
 *  @param pred  true for the items to be added; null: all
 *  @return by how much the number of items in dst grew. */
TARN_API uint32_t tarn_hash_merge(TARN_HASH dst, TARN_HASH src, tarn_hash_pred pred, void *arg1,
                                  void *arg2);

/** True when both tables hold the same number of items and b has every key of a; values do not
 *  count. */
TARN_API bool tarn_hash_is_equal(TARN_HASH a, TARN_HASH b);

/** Step through a table by hand. Whoever removes the item steps on first; a sorted table changes
 *  its order with each change.
 *  @param item  null: the first one
 *  @return the item behind it in order; null at the end. */
TARN_API TARN_HASH_ITEM tarn_hash_next(TARN_HASH hash, TARN_HASH_ITEM item);

/** The table's copy of an item's key, NUL-terminated; valid as long as the item. */
TARN_API const void *tarn_hash_item_key(TARN_HASH_ITEM item);

/** An item's value. */
TARN_API void *tarn_hash_item_value(TARN_HASH_ITEM item);

TARN_END_DECLS

#endif
