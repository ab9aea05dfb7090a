/** @file
 *  Multi-index hashes: a set of value pointers that can be looked up by any number of computed keys.
 *
 *  Values are the caller's: told apart by their address, never copied or freed. A key function says
 *  under which bytes a value is found; looking up takes the key of a sample and gives the value
 *  with the same key. Of several values with equal keys the one that comes last in order counts.
 *  A lookup by key computes the keys of all values: its time grows with the set.
 *  Order and comparators: as in tarn_hash.h. key_cmp sees the bytes of the value's address in the
 *  set itself, and computed keys where a key function orders the iteration.
 *  Threads: one at a time per set; there is no lock inside. Nothing blocks.
 *  Callbacks may call any function on the set they were called for, tarn_mhash_destroy() included;
 *  comparators leave their set alone. Memory that runs out inside a hash table is treated as in
 *  tarn_hash.h. */
#ifndef TARN_MHASH_H
#define TARN_MHASH_H

#include "tarn.h"
#include "tarn_hash.h"

TARN_BEGIN_DECLS

typedef struct tarn_mhash *TARN_MHASH;

/** An item of an iteration. */
typedef TARN_HASH_ITEM TARN_MHASH_ITEM;

/** Compute the key of a value.
 *  @param value        of the set, or the sample of a lookup
 *  @param key_out      receives the key's bytes, valid until the next call of the function
 *  @param key_len_out  receives their number, above 0
 *  @return 0; anything else: the value has no such key. */
typedef int (*tarn_mhash_key_func)(const void *value, const void **key_out, size_t *key_len_out);

/** Create an empty set.
 *  @param key_cmp,value_cmp  order of the set, as in tarn_hash_create_ordered(); may be null
 *  @return the handle, destroyed with tarn_mhash_destroy(); TARN_INVALID_HANDLE when memory ran
 *          out (ERROR). */
TARN_API TARN_MHASH tarn_mhash_create(tarn_hash_cmp key_cmp, tarn_hash_cmp value_cmp);

/** Destroy a set; values are left alone. Null is ignored. */
TARN_API void tarn_mhash_destroy(TARN_MHASH h);

/** Put a value in; one that is in the set already stays once.
 *  @param value  not null
 *  @return the value; null when it is null or memory ran out. */
TARN_API void *tarn_mhash_add(TARN_MHASH h, void *value);

/** Look a value up by key.
 *  @param key_func  computes the keys
 *  @param sample    handed to key_func for the wanted key; borrowed for the call
 *  @return the value; null when no value has the sample's key, the sample has none or memory ran
 *          out. */
TARN_API void *tarn_mhash_find(TARN_MHASH h, tarn_mhash_key_func key_func, const void *sample);

/** First value in order for which cond_func is true, which gets the address of the value pointer as
 *  its key; null when there is none. */
TARN_API void *tarn_mhash_find_if(TARN_MHASH h, tarn_hash_pred cond_func, void *arg1, void *arg2);

/** Number of values for which cond_func is true. */
TARN_API uint32_t tarn_mhash_count_if(TARN_MHASH h, tarn_hash_pred cond_func, void *arg1,
                                      void *arg2);

/** Number of values; 0 for null. */
TARN_API uint32_t tarn_mhash_count(TARN_MHASH h);

/** Take a value out.
 *  @return the value; null when it is not in the set. */
TARN_API void *tarn_mhash_remove(TARN_MHASH h, void *value);

/** Take the first value in order out for which cond_func is true.
 *  @return the value; null when there is none. */
TARN_API void *tarn_mhash_remove_if(TARN_MHASH h, tarn_hash_pred cond_func, void *arg1, void *arg2);

/** Take all values out and forget all indexes.
 *  @param value_release_func  called for each value, which is out of the set by then, so it may
 *                             free it; null: nothing is done at all */
TARN_API void tarn_mhash_remove_all(TARN_MHASH h, tarn_hash_fn value_release_func, void *arg1,
                                    void *arg2);

/** Take all values out; indexes stay as they are.
 *  @param fn  as in tarn_hash_clear(); may be null */
TARN_API void tarn_mhash_clear(TARN_MHASH h, tarn_hash_fn fn, void *arg1, void *arg2);

/** Step through a set by hand.
 *  @param key_func  null: all values in the set's order; as in tarn_hash_next(), whoever removes
 *                   the value steps on first.
 *                   Else one value per key that it computes, ordered by these keys when the set has
 *                   a key_cmp: the values that were there at the first step and are still in the
 *                   set, so values may be removed on the way. A set has room for one such iteration:
 *                   beginning another, or reaching the end, ends it and its items.
 *  @param item      null: the first one
 *  @return the item behind it; null at the end, and when memory ran out. */
TARN_API TARN_MHASH_ITEM tarn_mhash_next(TARN_MHASH h, tarn_mhash_key_func key_func,
                                         TARN_MHASH_ITEM item);

/** An item's value. */
TARN_API void *tarn_mhash_item_value(TARN_MHASH_ITEM item);

TARN_END_DECLS

#endif
