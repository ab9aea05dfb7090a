// Hash tables: uthash for buckets, growth and sorting; around it key copies, walks that survive
// changes, and sorting that waits for the end of an iteration.
//
// Invariants: an item is one block with its key behind it; its hh.tbl is null from the moment it is
// out of the table. A callback may change or destroy the table that it is called for: each walk
// registers where it stands, whoever removes an item moves the walks off it, and what is removed
// during a walk (the record included, when it is destroyed) is freed by the outermost walk, because
// the callback still holds the key.

#include "tarn_hash.h"

#include "tarn_hash_jenkins.h"
#include "tarn_modules.h"
#include "tarn_raii.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace
{

/** uthash cannot undo a half-done insertion into its buckets. */
[[noreturn]] void exit_without_memory(const char *what)
{
    TARN_LOG_FATAL("%s", what);
    std::exit(-1);
}

} // namespace

#define uthash_malloc(size) tarn_mem_alloc(size)
#define uthash_free(ptr, size) tarn_mem_free(ptr)
#define uthash_bzero(ptr, size) ((void)0) // blocks come zero-filled
#define uthash_fatal(what) exit_without_memory(what)
#define HASH_FUNCTION(key, size, hashed) (hashed) = tarn::jenkins_hash(key, size)
#include <uthash.h>

namespace
{

class walk;

} // namespace

struct tarn_hash_item
{
    char *key; ///< key_len bytes and a NUL, in the same block
    uint64_t key_len;
    void *value;
    UT_hash_handle hh;
};
static_assert(sizeof(void *) != 8 || sizeof(tarn_hash_item) % 16 == 0,
              "keys are aligned like blocks, for comparators that read numbers from them");

struct tarn_hash
{
    tarn_handle_header header;
    tarn_hash_item *items; ///< uthash head: the first item in order, null when empty
    tarn_hash_cmp key_cmp;
    tarn_hash_cmp value_cmp;
    uint8_t in_iteration;    ///< 1: sorting waits
    uint8_t sort_pending;    ///< 1: something changed meanwhile
    uint8_t destroyed;       ///< 1: the outermost walk frees the record
    walk *walks;             ///< innermost of those that run
    tarn_hash_item *removed; ///< stack through hh.next: removed while a walk runs
};
TARN_ASSERT_RECORD(tarn_hash);

namespace
{

/** uthash holds the length of a key in 32 bits. */
constexpr size_t max_key_len = 0xFFFFFF00;

tarn_hash_item *next_of(const tarn_hash_item *item)
{
    return static_cast<tarn_hash_item *>(item->hh.next);
}

tarn_hash_item *prev_of(const tarn_hash_item *item)
{
    return static_cast<tarn_hash_item *>(item->hh.prev);
}

tarn_hash_item *last_of(const tarn_hash *hash)
{
    UT_hash_table *table = hash->items->hh.tbl;
    return static_cast<tarn_hash_item *>(ELMT_FROM_HH(table, table->tail));
}

bool is_in_table(const tarn_hash_item *item)
{
    return item->hh.tbl != nullptr;
}

void free_chain(tarn_hash_item *item)
{
    while (item != nullptr)
    {
        tarn_mem_free(std::exchange(item, next_of(item)));
    }
}

unsigned hash_value(const void *key, size_t key_len)
{
    unsigned value = 0;
    HASH_VALUE(key, key_len, value);
    return value;
}

tarn_hash_item *find_item(const tarn_hash *hash, const void *key, size_t key_len, unsigned hashed)
{
    tarn_hash_item *found = nullptr;
    HASH_FIND_BYHASHVALUE(hh, hash->items, key, key_len, hashed, found);
    return found;
}

tarn_hash_item *find_item(const tarn_hash *hash, const void *key, size_t key_len)
{
    return find_item(hash, key, key_len, hash_value(key, key_len));
}

tarn_hash_item *make_item(const void *key, size_t key_len, void *value)
{
    auto *item =
        static_cast<tarn_hash_item *>(tarn_mem_alloc(sizeof(tarn_hash_item) + key_len + 1));
    if (item != nullptr)
    {
        item->key = reinterpret_cast<char *>(item + 1);
        item->key_len = key_len;
        item->value = value;
        tarn_mem_copy(item->key, key, key_len);
    }
    return item;
}

bool is_ordered(const tarn_hash *hash)
{
    return hash->key_cmp != nullptr || hash->value_cmp != nullptr;
}

int compare(const tarn_hash *hash, const tarn_hash_item *a, const tarn_hash_item *b)
{
    return hash->key_cmp != nullptr ? hash->key_cmp(a->key, b->key)
                                    : hash->value_cmp(a->value, b->value);
}

/** Move the last item to its place among the others: they are in order, and the last of them comes
 *  behind it. */
void sort_last_in(tarn_hash *hash)
{
    tarn_hash_item *last = last_of(hash);
    tarn_hash_item *new_last = prev_of(last);
    tarn_hash_item *before = prev_of(new_last);
    while (before != nullptr && compare(hash, before, last) > 0)
    {
        before = prev_of(before);
    }
    tarn_hash_item *behind = before != nullptr ? next_of(before) : hash->items;
    new_last->hh.next = nullptr;
    last->hh.tbl->tail = &new_last->hh;
    last->hh.prev = before;
    last->hh.next = behind;
    behind->hh.prev = last;
    if (before != nullptr)
    {
        before->hh.next = last;
    }
    else
    {
        hash->items = last;
    }
}

/** Restore the order. Owners may change what their values, or what keys refer to, compare like, so
 *  every pair is looked at; usually nothing but the item added last is out of place. */
void sort(tarn_hash *hash)
{
    if (hash->items == nullptr || !is_ordered(hash))
    {
        return;
    }
    tarn_hash_item *item = hash->items;
    tarn_hash_item *next = next_of(item);
    while (next != nullptr && compare(hash, item, next) <= 0)
    {
        item = std::exchange(next, next_of(next));
    }
    if (next == nullptr)
    {
        return;
    }
    if (next_of(next) == nullptr)
    {
        sort_last_in(hash);
        return;
    }
    const auto by_comparator = [hash](const tarn_hash_item *a, const tarn_hash_item *b) {
        return compare(hash, a, b);
    };
    HASH_SRT(hh, hash->items, by_comparator);
}

void order_changed(tarn_hash *hash)
{
    if (hash->in_iteration != 0)
    {
        hash->sort_pending = 1;
    }
    else if (is_ordered(hash))
    {
        sort(hash);
    }
}

void drop_all(tarn_hash *hash);

/** One walk in order that survives whatever its callback does. */
class [[nodiscard]] walk
{
public:
    enum class sorting
    {
        goes_on,
        waits ///< for the outermost walk of this kind, which calls end()
    };
    // Not inlined: g++ 12 would report the address kept here, which the destructor takes back.
    [[gnu::noinline]] walk(tarn_hash *hash, sorting kind)
        : hash_(hash), outer_(hash->walks), next_(hash->items),
          holds_sorting_(kind == sorting::waits && hash->in_iteration == 0)
    {
        hash->walks = this;
        if (holds_sorting_)
        {
            hash->in_iteration = 1;
            hash->sort_pending = 0;
        }
    }
    walk(const walk &) = delete;
    walk &operator=(const walk &) = delete;
    // No sorting in here: comparators may reach a cancellation point.
    ~walk()
    {
        release_sorting();
        hash_->walks = outer_;
        if (outer_ == nullptr)
        {
            free_chain(std::exchange(hash_->removed, nullptr));
            if (hash_->destroyed != 0)
            {
                drop_all(hash_);
                tarn_mem_free(hash_);
            }
        }
    }
    /** On to the next item; null at the end. */
    tarn_hash_item *step()
    {
        tarn_hash_item *item = next_;
        next_ = item != nullptr ? next_of(item) : nullptr;
        return item;
    }
    /** Behind the last step of a walk that made sorting wait. */
    void end()
    {
        if (holds_sorting_)
        {
            release_sorting();
            if (std::exchange(hash_->sort_pending, uint8_t{0}) != 0)
            {
                sort(hash_);
            }
        }
    }
    static void item_leaves(const tarn_hash *hash, const tarn_hash_item *item)
    {
        for (walk *w = hash->walks; w != nullptr; w = w->outer_)
        {
            w->next_ = w->next_ == item ? next_of(item) : w->next_;
        }
    }
    static void all_leave(const tarn_hash *hash)
    {
        for (walk *w = hash->walks; w != nullptr; w = w->outer_)
        {
            w->next_ = nullptr;
        }
    }

private:
    void release_sorting()
    {
        if (holds_sorting_)
        {
            hash_->in_iteration = 0;
        }
    }
    tarn_hash *hash_;
    walk *outer_;
    tarn_hash_item *next_;
    bool holds_sorting_;
};

void free_item(tarn_hash *hash, tarn_hash_item *item)
{
    if (hash->walks == nullptr)
    {
        tarn_mem_free(item);
        return;
    }
    item->hh.tbl = nullptr;
    item->hh.next = std::exchange(hash->removed, item);
}

void drop_all(tarn_hash *hash)
{
    walk::all_leave(hash);
    tarn_hash_item *item = hash->items;
    HASH_CLEAR(hh, hash->items);
    while (item != nullptr)
    {
        free_item(hash, std::exchange(item, next_of(item)));
    }
}

void *remove_item(tarn_hash *hash, tarn_hash_item *item)
{
    void *value = item->value;
    walk::item_leaves(hash, item);
    HASH_DELETE(hh, hash->items, item);
    free_item(hash, item);
    return value;
}

} // namespace

TARN_HASH tarn_hash_create(int)
{
    auto hash = tarn::make_object<tarn_hash>(TARN_HANDLE_TYPE_HASH);
    if (!hash)
    {
        TARN_LOG_ERROR("fail to alloc memory for hash object.");
        return TARN_INVALID_HANDLE;
    }
    return hash.release();
}

TARN_HASH tarn_hash_create_ordered(tarn_hash_cmp key_cmp, tarn_hash_cmp value_cmp)
{
    TARN_HASH hash = tarn_hash_create(0);
    if (hash != nullptr)
    {
        hash->key_cmp = key_cmp;
        hash->value_cmp = value_cmp;
    }
    return hash;
}

void tarn_hash_destroy(TARN_HASH hash)
{
    if (hash == nullptr)
    {
        return;
    }
    drop_all(hash);
    if (hash->walks != nullptr)
    {
        hash->destroyed = 1;
        return;
    }
    tarn_mem_free(hash);
}

void *tarn_hash_add_ex(TARN_HASH hash, const void *key, size_t key_len, void *value)
{
    RVON(hash, NULL);
    RVON(key, NULL);
    const size_t len = key_len != 0 ? key_len : std::strlen(static_cast<const char *>(key));
    RVOF(len <= max_key_len, NULL);
    const unsigned hashed = hash_value(key, len);
    // A length of 0 deliberately finds nothing but the empty key, which has that length.
    if (len == key_len)
    {
        if (tarn_hash_item *known = find_item(hash, key, len, hashed); known != nullptr)
        {
            return std::exchange(known->value, value);
        }
    }
    tarn_hash_item *hitem = make_item(key, len, value);
    RVON(hitem, NULL);
    HASH_ADD_KEYPTR_BYHASHVALUE(hh, hash->items, hitem->key, len, hashed, hitem);
    order_changed(hash);
    return value;
}

void *tarn_hash_add(TARN_HASH hash, const char *key, void *value)
{
    return tarn_hash_add_ex(hash, key, key != nullptr ? std::strlen(key) : 0, value);
}

bool tarn_hash_find_ex(TARN_HASH hash, const void *key, size_t key_len, void **value_out)
{
    RVON(hash, false);
    RVON(key, false);
    const size_t len = key_len != 0 ? key_len : std::strlen(static_cast<const char *>(key));
    const tarn_hash_item *found = find_item(hash, key, len);
    if (found != nullptr && value_out != nullptr)
    {
        *value_out = found->value;
    }
    return found != nullptr;
}

bool tarn_hash_find(TARN_HASH hash, const char *key, void **value_out)
{
    return tarn_hash_find_ex(hash, key, 0, value_out);
}

void *tarn_hash_remove_ex(TARN_HASH hash, const void *key, size_t key_len)
{
    RVON(hash, NULL);
    RVON(key, NULL);
    tarn_hash_item *hitem = find_item(hash, key, key_len);
    RVON(hitem, NULL);
    void *value = remove_item(hash, hitem);
    order_changed(hash);
    return value;
}

void *tarn_hash_remove(TARN_HASH hash, const char *key)
{
    return tarn_hash_remove_ex(hash, key, key != nullptr ? std::strlen(key) : 0);
}

uint32_t tarn_hash_count(TARN_HASH hash)
{
    RVON(hash, 0);
    return HASH_COUNT(hash->items);
}

uint32_t tarn_hash_count_if(TARN_HASH hash, tarn_hash_pred pred, void *arg1, void *arg2)
{
    RVON(hash, 0);
    RVON(pred, 0);
    uint32_t count = 0;
    walk w(hash, walk::sorting::goes_on);
    while (const tarn_hash_item *item = w.step())
    {
        count += pred(item->key, item->value, arg1, arg2) ? 1 : 0;
    }
    return count;
}

void *tarn_hash_find_if(TARN_HASH hash, tarn_hash_pred pred, void *arg1, void *arg2)
{
    RVON(hash, NULL);
    RVON(pred, NULL);
    walk w(hash, walk::sorting::goes_on);
    while (const tarn_hash_item *item = w.step())
    {
        if (pred(item->key, item->value, arg1, arg2))
        {
            return item->value;
        }
    }
    return nullptr;
}

void *tarn_hash_remove_if(TARN_HASH hash, tarn_hash_pred pred, void *arg1, void *arg2)
{
    RVON(hash, NULL);
    RVON(pred, NULL);
    walk w(hash, walk::sorting::goes_on);
    while (tarn_hash_item *item = w.step())
    {
        if (pred(item->key, item->value, arg1, arg2))
        {
            if (is_in_table(item))
            {
                (void)remove_item(hash, item);
                order_changed(hash);
            }
            return item->value;
        }
    }
    return nullptr;
}

void tarn_hash_for_each(TARN_HASH hash, tarn_hash_fn fn, void *arg1, void *arg2)
{
    RON(hash);
    RON(fn);
    walk w(hash, walk::sorting::waits);
    uint32_t index = 0;
    while (const tarn_hash_item *item = w.step())
    {
        fn(index++, item->key, item->value, arg1, arg2);
    }
    w.end();
}

void tarn_hash_clear(TARN_HASH hash, tarn_hash_fn fn, void *arg1, void *arg2)
{
    RON(hash);
    if (fn == nullptr)
    {
        drop_all(hash);
        return;
    }
    // Out of the table before the call: the callback may free the value, which no comparator and
    // no lookup must meet any more.
    walk w(hash, walk::sorting::waits);
    uint32_t index = 0;
    while (tarn_hash_item *item = w.step())
    {
        (void)remove_item(hash, item);
        fn(index++, item->key, item->value, arg1, arg2);
    }
    w.end();
}

uint32_t tarn_hash_merge(TARN_HASH dst, TARN_HASH src, tarn_hash_pred pred, void *arg1, void *arg2)
{
    RVON(dst, 0);
    RVON(src, 0);
    const uint32_t before = HASH_COUNT(dst->items);
    walk target(dst, walk::sorting::waits);
    walk w(src, walk::sorting::goes_on);
    while (const tarn_hash_item *item = w.step())
    {
        if (pred == nullptr || pred(item->key, item->value, arg1, arg2))
        {
            (void)tarn_hash_add_ex(dst, item->key, item->key_len, item->value);
        }
    }
    target.end();
    const uint32_t after = HASH_COUNT(dst->items);
    return after > before ? after - before : 0; // pred may have removed some
}

bool tarn_hash_is_equal(TARN_HASH a, TARN_HASH b)
{
    RVON(a, false);
    RVON(b, false);
    if (HASH_COUNT(a->items) != HASH_COUNT(b->items))
    {
        return false;
    }
    for (const tarn_hash_item *item = a->items; item != nullptr; item = next_of(item))
    {
        if (find_item(b, item->key, item->key_len, item->hh.hashv) == nullptr)
        {
            return false;
        }
    }
    return true;
}

TARN_HASH_ITEM tarn_hash_next(TARN_HASH hash, TARN_HASH_ITEM item)
{
    RVON(hash, NULL);
    if (item == nullptr)
    {
        return hash->items;
    }
    return is_in_table(item) ? next_of(item) : nullptr;
}

const void *tarn_hash_item_key(TARN_HASH_ITEM item)
{
    RVON(item, NULL);
    return item->key;
}

void *tarn_hash_item_value(TARN_HASH_ITEM item)
{
    RVON(item, NULL);
    return item->value;
}

bool tarn_hash_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_hash_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
