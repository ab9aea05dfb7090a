// Hash tables: keys, order, walks whose callbacks change the table, exhausted memory.

#include "support.h"

#include "tarn_hash.h"
#include "tarn_hash_jenkins.h"
#include "tarn_mem_internal.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <limits>
#include <random>
#include <set>

#include <uthash.h>

using support::expect_check;

namespace
{

char values[6]; // what a value is does not matter: only its address is used

using strings = std::vector<std::string>;

template <typename T, typename F>
std::vector<T> each(TARN_HASH hash, F part)
{
    std::vector<T> all;
    for (TARN_HASH_ITEM item = nullptr; (item = tarn_hash_next(hash, item)) != nullptr;)
    {
        all.emplace_back(part(item));
    }
    return all;
}
strings keys_of(TARN_HASH hash)
{
    return each<std::string>(hash, [](TARN_HASH_ITEM item) {
        return static_cast<const char *>(tarn_hash_item_key(item));
    });
}
std::vector<int> numbers_of(TARN_HASH hash)
{
    return each<int>(hash, [](TARN_HASH_ITEM item) {
        return *static_cast<const int *>(tarn_hash_item_value(item));
    });
}

int by_text(const void *a, const void *b)
{
    return std::strcmp(static_cast<const char *>(a), static_cast<const char *>(b));
}

int by_number(const void *a, const void *b)
{
    return *static_cast<const int *>(a) - *static_cast<const int *>(b);
}

TARN_HASH hash_of(const strings &keys, tarn_hash_cmp key_cmp = nullptr)
{
    TARN_HASH hash = tarn_hash_create_ordered(key_cmp, nullptr);
    for (const std::string &key : keys)
    {
        EXPECT_EQ(tarn_hash_add(hash, key.c_str(), hash), hash);
    }
    return hash;
}

/** Hands a C++ callable through as a callback. */
using question = std::function<bool(const char *key, void *value)>;
bool ask(const void *key, void *value, void *arg1, void *)
{
    return (*static_cast<question *>(arg1))(static_cast<const char *>(key), value);
}
void call(uint32_t, const void *key, void *value, void *arg1, void *)
{
    (void)ask(key, value, arg1, nullptr);
}

TEST(Hash, ReplacesAndRemovesByExactKey)
{
    TARN_HASH hash = tarn_hash_create(17);
    EXPECT_EQ(tarn_hash_count(hash), 0u);
    EXPECT_EQ(tarn_hash_next(hash, nullptr), nullptr);
    const size_t lengths[] = {4, 3, 2, 1};
    for (size_t i = 0; i < 4; ++i)
    {
        EXPECT_EQ(tarn_hash_add_ex(hash, "a\0bc", lengths[i], &values[i]), &values[i]);
    }
    EXPECT_EQ(tarn_hash_add(hash, "a", &values[5]), &values[3]); // the value that was there
    EXPECT_EQ(tarn_hash_count(hash), 4u);
    void *value = nullptr;
    EXPECT_TRUE(tarn_hash_find_ex(hash, "a\0b", 3, &value));
    EXPECT_EQ(value, &values[1]);
    EXPECT_FALSE(tarn_hash_find_ex(hash, "a\0c", 3, &value));
    EXPECT_EQ(value, &values[1]);                            // untouched
    EXPECT_TRUE(tarn_hash_find_ex(hash, "a\0c", 0, &value)); // measured: "a"
    EXPECT_EQ(value, &values[5]);
    EXPECT_EQ(tarn_hash_remove_ex(hash, "a\0", 2), &values[2]);
    EXPECT_EQ(tarn_hash_remove(hash, "a"), &values[5]);
    expect_check("RVON(hitem,NULL)");
    EXPECT_EQ(tarn_hash_remove(hash, "a"), nullptr);
    expect_check("RVON(key,NULL)");
    EXPECT_EQ(tarn_hash_add(hash, nullptr, hash), nullptr);
    EXPECT_EQ(tarn_hash_remove(hash, nullptr), nullptr);
    expect_check("RVON(key,false)");
    EXPECT_FALSE(tarn_hash_find(hash, nullptr, nullptr));
    EXPECT_EQ(tarn_hash_count(hash), 2u);
    tarn_close_handle(hash);
}

TEST(Hash, KeyOfUnstatedLengthAlwaysComesInOnceMore)
{
    TARN_HASH hash = tarn_hash_create(0);
    EXPECT_EQ(tarn_hash_add_ex(hash, "a", 0, &values[0]), &values[0]);
    EXPECT_EQ(tarn_hash_add_ex(hash, "a", 0, &values[1]), &values[1]);
    EXPECT_TRUE(tarn_hash_find(hash, "a", nullptr));
    expect_check("RVON(hitem,NULL)");
    EXPECT_EQ(tarn_hash_remove_ex(hash, "a", 0), nullptr); // looks for the empty key
    // the empty key has that length, so it is found; it does not stand in for other keys
    EXPECT_EQ(tarn_hash_add(hash, "", &values[2]), &values[2]);
    EXPECT_EQ(tarn_hash_add_ex(hash, "", 0, &values[3]), &values[2]);
    EXPECT_EQ(tarn_hash_add_ex(hash, "b", 0, &values[4]), &values[4]);
    EXPECT_EQ(keys_of(hash), (strings{"a", "a", "", "b"}));
    EXPECT_EQ(tarn_hash_remove(hash, ""), &values[3]);
    tarn_hash_destroy(hash);
}

TEST(Hash, HashesLikeUthash)
{
    std::mt19937 random(1);
    for (size_t len = 0; len < 64; ++len)
    {
        std::vector<uint8_t> key(len); // of exactly this size: a read too far is found
        std::generate(key.begin(), key.end(), [&] { return static_cast<uint8_t>(random()); });
        unsigned expected = 0;
        HASH_JEN(key.data(), len, expected);
        EXPECT_EQ(tarn::jenkins_hash(key.data(), len), expected) << len;
    }
}

TEST(Hash, LookupStaysFlat)
{
    const auto lookup_time = [](uint32_t count) {
        TARN_HASH hash = tarn_hash_create(0);
        for (uint32_t i = 0; i < count; ++i)
        {
            tarn_hash_add_ex(hash, &i, sizeof i, hash);
        }
        EXPECT_EQ(tarn_hash_count(hash), count);
        std::clock_t best = std::numeric_limits<std::clock_t>::max(); // of the processor
        for (int round = 0; round < 7; ++round)
        {
            const std::clock_t start = std::clock();
            for (uint32_t i = 0; i < 20000; ++i)
            {
                const uint32_t key = i * 7919 % count;
                EXPECT_TRUE(tarn_hash_find_ex(hash, &key, sizeof key, nullptr));
            }
            best = std::min(best, std::clock() - start);
        }
        tarn_hash_destroy(hash);
        return best;
    };
    // Ten times the cost is a cache that is too small; a linear search would be the thousandfold.
    EXPECT_LT(lookup_time(100000), 50 * lookup_time(100));
}

TEST(HashOrder, WithoutComparatorIsInsertion)
{
    TARN_HASH hash = hash_of({"d", "a", "c", "b"});
    tarn_hash_add(hash, "a", &values[0]); // stays where it is
    tarn_hash_add(hash, "c", tarn_hash_remove(hash, "c"));
    EXPECT_EQ(keys_of(hash), (strings{"d", "a", "b", "c"}));
    tarn_hash_destroy(hash);
}

TEST(HashOrder, FollowsTheComparatorAfterEachChange)
{
    TARN_HASH hash = tarn_hash_create_ordered(by_text, by_number); // the second is not looked at
    std::set<std::string> model;
    std::mt19937 random(7);
    for (int step = 0; step < 300; ++step)
    {
        const std::string key(1, static_cast<char>('a' + random() % 20));
        const bool is_new = model.insert(key).second;
        (void)(is_new ? tarn_hash_add(hash, key.c_str(), hash)
                      : tarn_hash_remove(hash, key.c_str()));
        model.erase(is_new ? "" : key);
        ASSERT_EQ(keys_of(hash), strings(model.begin(), model.end()));
    }
    tarn_hash_destroy(hash);
}

TEST(HashOrder, ByValueIsStableAndNotRestoredByAReplacement)
{
    int n[] = {5, 1, 5, 3, 9};
    const int keys[] = {0, 1, 2, 3};
    TARN_HASH hash = tarn_hash_create_ordered(nullptr, by_number);
    for (const int &key : keys)
    {
        tarn_hash_add_ex(hash, &key, sizeof key, &n[key]);
    }
    EXPECT_EQ(numbers_of(hash), (std::vector<int>{1, 3, 5, 5}));
    n[0] = 7; // values may change by themselves: the first of the equals shows its place
    EXPECT_EQ(numbers_of(hash), (std::vector<int>{1, 3, 7, 5}));
    EXPECT_EQ(tarn_hash_add_ex(hash, &keys[1], sizeof(int), &n[4]), &n[1]);
    EXPECT_EQ(numbers_of(hash), (std::vector<int>{9, 3, 7, 5}));
    EXPECT_EQ(tarn_hash_remove_ex(hash, &keys[3], sizeof(int)), &n[3]);
    EXPECT_EQ(numbers_of(hash), (std::vector<int>{5, 7, 9})); // any change restores all of it
    tarn_hash_destroy(hash);
}

TEST(HashWalk, SortingWaitsForTheOutermostIteration)
{
    TARN_HASH hash = hash_of({"b", "c", "d"}, by_text);
    question inner = [&](const char *key, void *) {
        return *key == 'c' && !tarn_hash_find(hash, "a", nullptr) && tarn_hash_add(hash, "a", hash);
    };
    strings seen;
    question outer = [&](const char *key, void *) {
        seen.emplace_back(key);
        tarn_hash_for_each(hash, call, &inner, nullptr);
        EXPECT_EQ(keys_of(hash), (strings{"b", "c", "d", "a"}));
        return true;
    };
    tarn_hash_for_each(hash, call, &outer, nullptr);
    EXPECT_EQ(seen, (strings{"b", "c", "d", "a"}));
    EXPECT_EQ(keys_of(hash), (strings{"a", "b", "c", "d"}));
    tarn_hash_destroy(hash);
}

TEST(HashWalk, GoesOnBehindItemsThatItsCallbackRemoves)
{
    for (const tarn_hash_cmp order : {tarn_hash_cmp{nullptr}, tarn_hash_cmp{by_text}})
    {
        TARN_HASH hash = hash_of({"a", "b", "c", "d", "e"}, order);
        strings seen;
        question remove = [&](const char *key, void *) {
            seen.emplace_back(key);
            tarn_hash_remove(hash, key);
            EXPECT_EQ(seen.back(), key); // the key outlives its item until the callback returns
            return *key == 'b' && tarn_hash_remove(hash, "c") && tarn_hash_remove(hash, "d");
        };
        tarn_hash_for_each(hash, call, &remove, nullptr);
        EXPECT_EQ(seen, (strings{"a", "b", "e"}));
        EXPECT_EQ(tarn_hash_count(hash), 0u);
        tarn_hash_destroy(hash);
    }
}

TEST(HashWalk, EveryKindSurvivesClearAndDestroyInItsCallback)
{
    static void (*const kinds[])(TARN_HASH, void *) = {
        [](TARN_HASH h, void *q) { tarn_hash_for_each(h, call, q, nullptr); },
        [](TARN_HASH h, void *q) { tarn_hash_clear(h, call, q, nullptr); },
        [](TARN_HASH h, void *q) { EXPECT_EQ(tarn_hash_count_if(h, ask, q, nullptr), 1u); },
        [](TARN_HASH h, void *q) { EXPECT_EQ(tarn_hash_find_if(h, ask, q, nullptr), h); },
        [](TARN_HASH h, void *q) { EXPECT_EQ(tarn_hash_remove_if(h, ask, q, nullptr), h); },
        [](TARN_HASH h, void *q) { EXPECT_EQ(tarn_hash_merge(h, h, ask, q, nullptr), 0u); },
    };
    for (const auto kind : kinds)
    {
        for (const bool destroy : {false, true})
        {
            TARN_HASH hash = hash_of({"a", "b", "c"});
            size_t calls = 0;
            question end_it = [&](const char *, void *) {
                tarn_hash_clear(hash, nullptr, nullptr, nullptr);
                tarn_hash_destroy(destroy ? hash : nullptr);
                return ++calls == 1;
            };
            kind(hash, &end_it);
            EXPECT_EQ(calls, 1u);
            tarn_hash_destroy(destroy ? nullptr : hash);
        }
    }
}

TEST(HashWalk, ClearedItemsAreGoneBeforeTheirCallbackFreesThem)
{
    TARN_HASH hash = tarn_hash_create_ordered(nullptr, by_number);
    const auto add = [hash](int number) {
        return tarn_hash_add_ex(hash, &number, sizeof number, new int(number)) != nullptr;
    };
    EXPECT_TRUE(add(8) && add(7) && add(9));
    std::vector<int> seen;
    question release = [&](const char *, void *value) {
        seen.push_back(*static_cast<int *>(value));
        delete static_cast<int *>(value); // comparators must not meet it again
        return seen.size() == 2 && add(1);
    };
    tarn_hash_clear(hash, call, &release, nullptr);
    EXPECT_EQ(seen, (std::vector<int>{7, 8, 9, 1}));
    EXPECT_EQ(tarn_hash_count(hash), 0u);
    tarn_hash_destroy(hash);
}

TEST(HashWalk, FindsCountsMergesAndCompares)
{
    TARN_HASH hash = hash_of({"b", "a", "c"});
    question not_a = [](const char *key, void *) { return *key != 'a'; };
    EXPECT_EQ(tarn_hash_count_if(hash, ask, &not_a, nullptr), 2u);
    EXPECT_EQ(tarn_hash_find_if(hash, ask, &not_a, nullptr), hash);
    TARN_HASH into = hash_of({"d", "c"}, by_text);
    EXPECT_FALSE(tarn_hash_is_equal(hash, into));
    EXPECT_EQ(tarn_hash_merge(into, hash, ask, &not_a, nullptr), 1u);
    EXPECT_EQ(keys_of(into), (strings{"b", "c", "d"}));
    EXPECT_FALSE(tarn_hash_is_equal(hash, into)); // as many, but others
    EXPECT_EQ(tarn_hash_remove(into, "d"), into);
    EXPECT_EQ(tarn_hash_merge(into, hash, nullptr, nullptr, nullptr), 1u);
    EXPECT_TRUE(tarn_hash_is_equal(hash, into));
    EXPECT_EQ(tarn_hash_remove_if(hash, ask, &not_a, nullptr), hash);
    EXPECT_EQ(keys_of(hash), (strings{"a", "c"}));
    tarn_hash_destroy(into);
    tarn_hash_destroy(hash);
}

TEST(HashFailure, ExhaustedMemoryLeavesTheTableAsItWas)
{
    support::log_capture log;
    TARN_HASH hash = nullptr;
    EXPECT_EQ(support::fail_each_allocation([&](size_t) { hash = tarn_hash_create(0); }), 1u);
    EXPECT_TRUE(log.contains("error", "fail to alloc memory for hash object."));
    tarn_hash_add(hash, "a", hash);
    expect_check("RVON(hitem,NULL)");
    const auto add = [hash](size_t) {
        const bool added = tarn_hash_add(hash, "b", hash) != nullptr;
        EXPECT_NE(added, support::allocation_failed());
        EXPECT_EQ(keys_of(hash), added ? (strings{"a", "b"}) : strings{"a"});
    };
    EXPECT_EQ(support::fail_each_allocation(add), 1u);
    tarn_hash_destroy(hash);
}

size_t allocations_left = 0;
TARN_TEST_ROLE(fill_until_memory_runs_out)
{
    TARN_HASH hash = tarn_hash_create(0);
    allocations_left = std::stoul(args[0]);
    tarn::mem_fail_hook = [](size_t size) { return size % 512 == 0 && allocations_left-- == 0; };
    for (uint32_t i = 0; i < 1000; ++i)
    {
        tarn_hash_add_ex(hash, &i, sizeof i, hash);
    }
    tarn_hash_destroy(hash);
    return 0;
}

// Bucket arrays have 512 bytes at first and twice as many each time the table grows.
TEST(HashFailure, TableWithoutMemoryForBucketsEndsTheProcess)
{
    for (const char *bucket_arrays : {"0", "1", "2"})
    {
        auto child = support::child_process::role("fill_until_memory_runs_out", {bucket_arrays});
        EXPECT_TRUE(child.wait_for_line("out of memory"));
        EXPECT_EQ(child.wait(), 255);
    }
}

} // namespace
