// Multi-index hashes: a table of the values, keyed by their addresses, and standing indexes from
// computed keys to values.
//
// The index table is keyed by the address of the key function. Lookups do not leave an index behind:
// with an unregistered key function they pass over all values. An iteration by key needs a table of
// its own to step through; the set keeps the one of the current iteration.
//
// Callbacks may destroy the set that they were called for; a function that touches the set behind a
// callback holds a `use` of it.

#include "tarn_mhash.h"

#include "tarn_check.h"
#include "tarn_mhash_internal.h"
#include "tarn_modules.h"
#include "tarn_raii.h"

#include <utility>

namespace
{

struct mhash_index
{
    tarn_mhash_key_func key_func;
    TARN_HASH htbl; ///< computed key to value
};

using hash_owner = tarn::unique_handle<TARN_HASH, tarn_hash_destroy>;

} // namespace

struct tarn_mhash
{
    tarn_handle_header header;
    tarn_hash_cmp key_cmp;
    tarn_hash_cmp value_cmp;
    TARN_HASH htbl_items;  ///< address of the value, as bytes, to value
    TARN_HASH indexes;     ///< address of the key function, as bytes, to mhash_index
    mhash_index iteration; ///< of the iteration by key that runs; no table: none
    uint32_t uses;
    uint8_t destroyed; ///< 1: the last use frees the record
};
TARN_ASSERT_RECORD(tarn_mhash);

namespace
{

void drop_index(uint32_t, const void *, void *value, void *, void *)
{
    auto *index = static_cast<mhash_index *>(value);
    tarn_hash_destroy(index->htbl);
    tarn_mem_free(index);
}

void end_iteration(TARN_MHASH h)
{
    tarn_hash_destroy(std::exchange(h->iteration.htbl, nullptr));
}

void free_set(TARN_MHASH h)
{
    tarn_hash_destroy(h->htbl_items);
    tarn_hash_clear(h->indexes, drop_index, nullptr, nullptr);
    tarn_hash_destroy(h->indexes);
    end_iteration(h);
    tarn_mem_free(h);
}

/** Keeps the record of a set for its scope. */
class [[nodiscard]] use
{
public:
    explicit use(TARN_MHASH h) : h_(h)
    {
        ++h_->uses;
    }
    use(const use &) = delete;
    use &operator=(const use &) = delete;
    ~use()
    {
        if (--h_->uses == 0 && h_->destroyed != 0)
        {
            free_set(h_);
        }
    }

private:
    TARN_MHASH h_;
};

struct computed_key
{
    const void *bytes = nullptr;
    size_t len = 0;
};

/** False when the value has no key of this kind. */
bool compute_key(tarn_mhash_key_func key_func, const void *value, computed_key &out)
{
    return key_func(value, &out.bytes, &out.len) == 0 && out.bytes != nullptr && out.len > 0;
}

/** Put a value into an index; one without such a key is left out. False when memory ran out. */
bool add_to_index(const mhash_index &index, void *value)
{
    computed_key k;
    return !compute_key(index.key_func, value, k) ||
           tarn_hash_add_ex(index.htbl, k.bytes, k.len, value) != nullptr;
}

void add_to_each_index(uint32_t, const void *, void *index, void *value, void *)
{
    (void)add_to_index(*static_cast<mhash_index *>(index), value);
}

void remove_from_each_index(uint32_t, const void *, void *value, void *removed, void *)
{
    const auto *index = static_cast<mhash_index *>(value);
    computed_key k;
    if (compute_key(index->key_func, removed, k) &&
        tarn_hash_find_ex(index->htbl, k.bytes, k.len, nullptr))
    {
        (void)tarn_hash_remove_ex(index->htbl, k.bytes, k.len);
    }
}

/** Adds a value to the index in arg1; true when that failed, which ends the pass. */
bool fails_to_add(const void *, void *value, void *index, void *)
{
    return !add_to_index(*static_cast<mhash_index *>(index), value);
}

/** An index of all values in the set's order; empty when memory ran out. */
hash_owner build_index(TARN_MHASH h, tarn_mhash_key_func key_func)
{
    hash_owner plain(tarn_hash_create(0));
    mhash_index index = {key_func, plain.get()};
    if (!plain || tarn_hash_find_if(h->htbl_items, fails_to_add, &index, nullptr) != nullptr)
    {
        return {};
    }
    if (h->key_cmp == nullptr && h->value_cmp == nullptr)
    {
        return plain;
    }
    // Filled in one go, so that it is sorted once and not once per value.
    hash_owner ordered(tarn_hash_create_ordered(h->key_cmp, h->value_cmp));
    const uint32_t count = tarn_hash_count(plain.get());
    if (!ordered || tarn_hash_merge(ordered.get(), plain.get(), nullptr, nullptr, nullptr) != count)
    {
        return {};
    }
    return ordered;
}

const mhash_index *registered_index(TARN_MHASH h, tarn_mhash_key_func key_func)
{
    void *index = nullptr;
    (void)tarn_hash_find_ex(h->indexes, &key_func, sizeof key_func, &index);
    return static_cast<mhash_index *>(index);
}

/** A pass over all values in place of an index. */
struct search
{
    tarn_mhash_key_func key_func;
    computed_key wanted;
    void *found; ///< the last value with the wanted key
};

void match(uint32_t, const void *, void *value, void *arg, void *)
{
    auto *s = static_cast<search *>(arg);
    computed_key k;
    if (compute_key(s->key_func, value, k) && k.len == s->wanted.len &&
        tarn_mem_compare(k.bytes, s->wanted.bytes, k.len) == 0)
    {
        s->found = value;
    }
}

TARN_HASH_ITEM begin_iteration(TARN_MHASH h, tarn_mhash_key_func key_func)
{
    end_iteration(h);
    hash_owner k = build_index(h, key_func);
    RVON(k, NULL);
    h->iteration = {key_func, k.release()};
    return tarn_hash_next(h->iteration.htbl, nullptr);
}

} // namespace

bool tarn::mhash_register_index(TARN_MHASH h, tarn_mhash_key_func key_func)
{
    auto index = unique_mem<mhash_index>::make();
    RVON(index, false);
    hash_owner htbl = build_index(h, key_func);
    RVON(htbl, false);
    *index = {key_func, htbl.get()};
    RVON(tarn_hash_add_ex(h->indexes, &key_func, sizeof key_func, index.get()), false);
    (void)htbl.release();
    (void)index.release();
    return true;
}

TARN_MHASH tarn_mhash_create(tarn_hash_cmp key_cmp, tarn_hash_cmp value_cmp)
{
    auto h = tarn::make_object<tarn_mhash>(TARN_HANDLE_TYPE_MHASH);
    if (!h)
    {
        TARN_LOG_ERROR("failed to alloc memory for mhash object.");
        return TARN_INVALID_HANDLE;
    }
    hash_owner items(tarn_hash_create_ordered(key_cmp, value_cmp));
    RVON(items, TARN_INVALID_HANDLE);
    hash_owner indexes(tarn_hash_create(0));
    RVON(indexes, TARN_INVALID_HANDLE);
    h->key_cmp = key_cmp;
    h->value_cmp = value_cmp;
    h->htbl_items = items.release();
    h->indexes = indexes.release();
    return h.release();
}

void tarn_mhash_destroy(TARN_MHASH h)
{
    if (h == nullptr)
    {
        return;
    }
    if (h->uses > 0)
    {
        tarn_hash_clear(h->htbl_items, nullptr, nullptr, nullptr); // ends the walk over it
        h->destroyed = 1;
        return;
    }
    free_set(h);
}

void *tarn_mhash_add(TARN_MHASH h, void *value)
{
    RVON(h, NULL);
    RVON(value, NULL);
    const use in_use(h);
    void *added = tarn_hash_add_ex(h->htbl_items, &value, sizeof value, value);
    RVON(added, NULL);
    tarn_hash_for_each(h->indexes, add_to_each_index, value, nullptr);
    return value;
}

void *tarn_mhash_find(TARN_MHASH h, tarn_mhash_key_func key_func, const void *sample)
{
    RVON(h, NULL);
    RVON(key_func, NULL);
    const use in_use(h);
    const void *key = nullptr;
    size_t key_len = 0;
    const int rc = key_func(sample, &key, &key_len);
    RVOF_TEXT(rc == 0 && key != nullptr && key_len > 0, NULL,
              "RVOF(0 == rc && key != ((void *)0) && key_len > 0,NULL)");
    void *value_return = nullptr;
    if (const mhash_index *k = registered_index(h, key_func); k != nullptr)
    {
        (void)tarn_hash_find_ex(k->htbl, key, key_len, &value_return);
    }
    else
    {
        // The key function may build its keys in one place, so the wanted one is copied.
        const auto copy = tarn::unique_mem<char>::make_array(key_len);
        RVON_TEXT(copy, NULL, "RVON(k,NULL)");
        tarn_mem_copy(copy.get(), key, key_len);
        search s = {key_func, {copy.get(), key_len}, nullptr};
        tarn_hash_for_each(h->htbl_items, match, &s, nullptr);
        value_return = s.found;
    }
    RVOF_TEXT(value_return != nullptr, NULL,
              "RVOF(tarn_hash_find_ex( k->htbl, key, key_len, &value_return ),NULL)");
    return value_return;
}

void *tarn_mhash_find_if(TARN_MHASH h, tarn_hash_pred cond_func, void *arg1, void *arg2)
{
    RVON(h, NULL);
    RVON(cond_func, NULL);
    const use in_use(h);
    return tarn_hash_find_if(h->htbl_items, cond_func, arg1, arg2);
}

uint32_t tarn_mhash_count_if(TARN_MHASH h, tarn_hash_pred cond_func, void *arg1, void *arg2)
{
    RVON(h, 0);
    RVON(cond_func, 0);
    const use in_use(h);
    return tarn_hash_count_if(h->htbl_items, cond_func, arg1, arg2);
}

uint32_t tarn_mhash_count(TARN_MHASH h)
{
    RVON(h, 0);
    return tarn_hash_count(h->htbl_items);
}

void *tarn_mhash_remove(TARN_MHASH h, void *value)
{
    RVON(h, NULL);
    RVON(value, NULL);
    const use in_use(h);
    // clang-format off
    RVOF(tarn_hash_remove_ex( h->htbl_items, &value, sizeof(value) ) == value, NULL);
    // clang-format on
    tarn_hash_for_each(h->indexes, remove_from_each_index, value, nullptr);
    return value;
}

void *tarn_mhash_remove_if(TARN_MHASH h, tarn_hash_pred cond_func, void *arg1, void *arg2)
{
    RVON(h, NULL);
    RVON(cond_func, NULL);
    const use in_use(h);
    void *value = tarn_hash_remove_if(h->htbl_items, cond_func, arg1, arg2);
    if (value != nullptr)
    {
        tarn_hash_for_each(h->indexes, remove_from_each_index, value, nullptr);
    }
    return value;
}

void tarn_mhash_remove_all(TARN_MHASH h, tarn_hash_fn value_release_func, void *arg1, void *arg2)
{
    RON(h);
    RON(value_release_func);
    const use in_use(h);
    tarn_hash_clear(h->htbl_items, value_release_func, arg1, arg2);
    tarn_hash_clear(h->indexes, drop_index, nullptr, nullptr);
}

void tarn_mhash_clear(TARN_MHASH h, tarn_hash_fn fn, void *arg1, void *arg2)
{
    RON(h);
    const use in_use(h);
    tarn_hash_clear(h->htbl_items, fn, arg1, arg2);
}

TARN_MHASH_ITEM tarn_mhash_next(TARN_MHASH h, tarn_mhash_key_func key_func, TARN_MHASH_ITEM item)
{
    RVON(h, NULL);
    if (key_func == nullptr)
    {
        return tarn_hash_next(h->htbl_items, item);
    }
    if (const mhash_index *k = registered_index(h, key_func); k != nullptr)
    {
        return tarn_hash_next(k->htbl, item);
    }
    const use in_use(h);
    if (item == nullptr)
    {
        item = begin_iteration(h, key_func);
    }
    else
    {
        const mhash_index *k = &h->iteration;
        RVOF(k->htbl != NULL && k->key_func == key_func, NULL);
        item = tarn_hash_next(k->htbl, item);
    }
    for (; item != nullptr; item = tarn_hash_next(h->iteration.htbl, item))
    {
        // The owner may have taken the value out, and freed it, since the iteration began.
        const void *value = tarn_hash_item_value(item);
        if (tarn_hash_find_ex(h->htbl_items, &value, sizeof value, nullptr))
        {
            return item;
        }
    }
    end_iteration(h);
    return nullptr;
}

void *tarn_mhash_item_value(TARN_MHASH_ITEM item)
{
    return tarn_hash_item_value(item);
}

bool tarn_mhash_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_mhash_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
