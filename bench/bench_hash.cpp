// Hash table: add, find and remove of all keys, beside uthash written by hand with the same key
// copies, the same look before an addition and one hash computation per operation. And adding to a
// sorted table beside the same order kept by uthash's sort.

#include "ratio.h"

#include "tarn_hash.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <random>

#include <uthash.h>

namespace
{

using key16 = std::array<unsigned char, 16>;

std::vector<key16> make_keys(size_t count)
{
    std::mt19937_64 random(1);
    std::vector<key16> keys(count);
    for (key16 &key : keys)
    {
        const uint64_t words[2] = {random(), random()};
        std::memcpy(key.data(), words, sizeof words);
    }
    return keys;
}

void tarn(benchmark::State &state)
{
    const auto keys = make_keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
    {
        TARN_HASH hash = tarn_hash_create(0);
        for (const key16 &key : keys)
        {
            tarn_hash_add_ex(hash, key.data(), key.size(), const_cast<key16 *>(&key));
        }
        for (const key16 &key : keys)
        {
            void *value = nullptr;
            benchmark::DoNotOptimize(tarn_hash_find_ex(hash, key.data(), key.size(), &value));
            benchmark::DoNotOptimize(value);
        }
        for (const key16 &key : keys)
        {
            benchmark::DoNotOptimize(tarn_hash_remove_ex(hash, key.data(), key.size()));
        }
        tarn_hash_destroy(hash);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) * 3);
}
BENCHMARK(tarn)->Arg(1000)->Arg(100000);

struct bare_item
{
    unsigned char *key;
    size_t key_len;
    const void *value;
    UT_hash_handle hh;
};

bool bare_add(bare_item *&table, const void *key, size_t key_len, const void *value)
{
    unsigned hashed = 0;
    bare_item *item = nullptr;
    HASH_VALUE(key, key_len, hashed);
    HASH_FIND_BYHASHVALUE(hh, table, key, key_len, hashed, item);
    if (item != nullptr)
    {
        item->value = value;
        return false;
    }
    item = static_cast<bare_item *>(std::malloc(sizeof(bare_item)));
    item->key = static_cast<unsigned char *>(std::malloc(key_len + 1));
    std::memcpy(item->key, key, key_len);
    item->key[key_len] = 0;
    item->key_len = key_len;
    item->value = value;
    HASH_ADD_KEYPTR_BYHASHVALUE(hh, table, item->key, key_len, hashed, item);
    return true;
}

const void *bare_find(bare_item *table, const void *key, size_t key_len)
{
    bare_item *item = nullptr;
    HASH_FIND(hh, table, key, key_len, item);
    return item != nullptr ? item->value : nullptr;
}

const void *bare_remove(bare_item *&table, const void *key, size_t key_len)
{
    bare_item *item = nullptr;
    HASH_FIND(hh, table, key, key_len, item);
    if (item == nullptr)
    {
        return nullptr;
    }
    HASH_DEL(table, item);
    const void *value = item->value;
    std::free(item->key);
    std::free(item);
    return value;
}

void uthash(benchmark::State &state)
{
    const auto keys = make_keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
    {
        bare_item *table = nullptr;
        for (const key16 &key : keys)
        {
            bare_add(table, key.data(), key.size(), &key);
        }
        for (const key16 &key : keys)
        {
            benchmark::DoNotOptimize(bare_find(table, key.data(), key.size()));
        }
        for (const key16 &key : keys)
        {
            benchmark::DoNotOptimize(bare_remove(table, key.data(), key.size()));
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0) * 3);
}
BENCHMARK(uthash)->Arg(1000)->Arg(100000);

int compare_keys(const void *a, const void *b)
{
    return std::memcmp(a, b, sizeof(key16));
}

int compare_items(const bare_item *a, const bare_item *b)
{
    return compare_keys(a->key, b->key);
}

void tarn_sorted(benchmark::State &state)
{
    const auto keys = make_keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
    {
        TARN_HASH hash = tarn_hash_create_ordered(compare_keys, nullptr);
        for (const key16 &key : keys)
        {
            tarn_hash_add_ex(hash, key.data(), key.size(), const_cast<key16 *>(&key));
        }
        tarn_hash_destroy(hash);
    }
}
BENCHMARK(tarn_sorted)->Arg(1000);

void uthash_sorted(benchmark::State &state)
{
    const auto keys = make_keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
    {
        bare_item *table = nullptr;
        for (const key16 &key : keys)
        {
            bare_add(table, key.data(), key.size(), &key);
            HASH_SORT(table, compare_items);
        }
        for (const key16 &key : keys)
        {
            bare_remove(table, key.data(), key.size());
        }
    }
}
BENCHMARK(uthash_sorted)->Arg(1000);

} // namespace

int main(int argc, char **argv)
{
    return bench::run(argc, argv,
                      {{"hash add+find+remove, n=1e3", "tarn/1000", "uthash/1000", 1.15},
                       {"hash add+find+remove, n=1e5", "tarn/100000", "uthash/100000", 1.15},
                       {"sorted hash add, n=1e3", "tarn_sorted/1000", "uthash_sorted/1000", 1}});
}
