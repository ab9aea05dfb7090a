// Multi-index hashes: lookups by computed keys, indexes, iterations by key, exhausted memory.

#include "support.h"

#include "tarn_mem_internal.h"
#include "tarn_mhash.h"
#include "tarn_mhash_internal.h"

#include <cstring>

using support::expect_check;

namespace
{

constexpr const char *no_key_text = "RVOF(0 == rc && key != ((void *)0) && key_len > 0,NULL)";
constexpr const char *not_found_text =
    "RVOF(tarn_hash_find_ex( k->htbl, key, key_len, &value_return ),NULL)";
constexpr const char *not_removed_text =
    "RVOF(tarn_hash_remove_ex( h->htbl_items, &value, sizeof(value) ) == value,NULL)";

struct person
{
    const char *name;
    int age; // negative: has none
};

int name_key(const void *value, const void **key, size_t *len)
{
    *key = static_cast<const person *>(value)->name;
    *len = std::strlen(static_cast<const person *>(value)->name);
    return 0;
}

// Builds every key in the same place.
int age_key(const void *value, const void **key, size_t *len)
{
    static int age;
    age = static_cast<const person *>(value)->age;
    *key = &age;
    *len = sizeof age;
    return age < 0 ? -1 : 0;
}

int by_age(const void *a, const void *b)
{
    return static_cast<const person *>(a)->age - static_cast<const person *>(b)->age;
}

bool is_age(const void *, void *value, void *age, void *)
{
    return static_cast<person *>(value)->age == *static_cast<int *>(age);
}

using names = std::vector<std::string>;

/** A set of four people. */
class MultiHash : public testing::Test
{
protected:
    ~MultiHash() override
    {
        tarn_mhash_destroy(set);
    }
    void fill(tarn_hash_cmp value_cmp = nullptr)
    {
        set = tarn_mhash_create(nullptr, value_cmp);
        for (person *p : {&ann, &bob, &cid, &dan})
        {
            EXPECT_EQ(tarn_mhash_add(set, p), p);
        }
    }
    person *find(tarn_mhash_key_func key_func, person sample)
    {
        return static_cast<person *>(tarn_mhash_find(set, key_func, &sample));
    }
    names names_of(tarn_mhash_key_func key_func)
    {
        names all;
        TARN_MHASH_ITEM item = nullptr;
        while ((item = tarn_mhash_next(set, key_func, item)) != nullptr)
        {
            all.emplace_back(static_cast<person *>(tarn_mhash_item_value(item))->name);
        }
        return all;
    }
    person ann = {"ann", 40};
    person bob = {"bob", 20};
    person cid = {"cid", 40};
    person dan = {"dan", -1};
    TARN_MHASH set = nullptr;
};

TEST_F(MultiHash, FindsByAnyKeyTheLastOfEquals)
{
    fill();
    EXPECT_EQ(tarn_mhash_add(set, &bob), &bob);
    EXPECT_EQ(tarn_mhash_count(set), 4u);
    for (const bool indexed : {false, true})
    {
        EXPECT_EQ(indexed, indexed && tarn::mhash_register_index(set, name_key) &&
                               tarn::mhash_register_index(set, age_key));
        EXPECT_EQ(find(name_key, {"bob", 0}), &bob);
        EXPECT_EQ(find(age_key, {"", 40}), &cid);
        EXPECT_EQ(find(name_key, {"dan", 0}), &dan);
        expect_check(not_found_text);
        EXPECT_EQ(find(age_key, {"", 21}), nullptr);
        expect_check(no_key_text);
        EXPECT_EQ(find(age_key, {"", -1}), nullptr);
        EXPECT_EQ(find(name_key, {"", 0}), nullptr); // an empty key is none
    }
    expect_check("RVON(key_func,NULL)");
    EXPECT_EQ(find(nullptr, {}), nullptr);
    expect_check("RVON(value,NULL)");
    EXPECT_EQ(tarn_mhash_add(set, nullptr), nullptr);
}

TEST_F(MultiHash, RemovesFromTheSetAndFromEveryIndex)
{
    fill();
    EXPECT_TRUE(tarn::mhash_register_index(set, name_key));
    EXPECT_TRUE(tarn::mhash_register_index(set, age_key));
    EXPECT_EQ(tarn_mhash_remove(set, &bob), &bob);
    expect_check(not_removed_text);
    expect_check("RVON(hitem,NULL)");
    EXPECT_EQ(tarn_mhash_remove(set, &bob), nullptr);
    expect_check(not_found_text);
    EXPECT_EQ(find(name_key, bob), nullptr);
    EXPECT_EQ(find(age_key, bob), nullptr);
    int forty = 40;
    EXPECT_EQ(tarn_mhash_count_if(set, is_age, &forty, nullptr), 2u);
    EXPECT_EQ(tarn_mhash_find_if(set, is_age, &forty, nullptr), &ann);
    EXPECT_EQ(tarn_mhash_remove_if(set, is_age, &forty, nullptr), &ann);
    EXPECT_EQ(find(name_key, ann), nullptr);
    EXPECT_EQ(tarn_mhash_add(set, &bob), &bob); // comes into the indexes again
    EXPECT_EQ(find(name_key, bob), &bob);
    EXPECT_EQ(names_of(nullptr), (names{"cid", "dan", "bob"}));
    EXPECT_EQ(names_of(name_key), (names{"cid", "dan", "bob"}));
}

TEST_F(MultiHash, RemoveAllReleasesValuesAndClearKeepsIndexes)
{
    fill();
    EXPECT_TRUE(tarn::mhash_register_index(set, name_key));
    std::vector<void *> released;
    const auto release = [](uint32_t index, const void *key, void *value, void *arg1, void *) {
        auto *all = static_cast<std::vector<void *> *>(arg1);
        EXPECT_EQ(index, all->size());
        EXPECT_EQ(std::memcmp(key, &value, sizeof value), 0); // keyed by address
        all->push_back(value);
    };
    expect_check("RON(value_release_func)");
    tarn_mhash_remove_all(set, nullptr, nullptr, nullptr);
    EXPECT_EQ(tarn_mhash_count(set), 4u);
    tarn_mhash_clear(set, release, &released, nullptr);
    EXPECT_EQ(released, (std::vector<void *>{&ann, &bob, &cid, &dan}));
    EXPECT_EQ(find(name_key, ann), &ann);
    tarn_mhash_add(set, &bob);
    released.clear();
    tarn_mhash_remove_all(set, release, &released, nullptr);
    EXPECT_EQ(released, std::vector<void *>{&bob});
    expect_check(not_found_text);
    EXPECT_EQ(find(name_key, ann), nullptr);
}

TEST_F(MultiHash, IterationByKeyOutlivesChangesOfTheSet)
{
    fill(by_age);
    EXPECT_EQ(names_of(nullptr), (names{"dan", "bob", "ann", "cid"}));
    EXPECT_EQ(names_of(age_key), (names{"bob", "cid"})); // dan has no key, ann gave way to cid
    EXPECT_EQ(names_of(name_key), (names{"dan", "bob", "ann", "cid"}));
    TARN_MHASH_ITEM item = tarn_mhash_next(set, name_key, nullptr);
    tarn_mhash_remove(set, &dan);
    tarn_mhash_remove(set, &bob); // may be freed by now: not to be handed out any more
    item = tarn_mhash_next(set, name_key, item);
    EXPECT_EQ(tarn_mhash_item_value(item), &ann);
    expect_check("RVOF(k->htbl != NULL && k->key_func == key_func,NULL)");
    EXPECT_EQ(tarn_mhash_next(set, age_key, item), nullptr); // another iteration's item
    item = tarn_mhash_next(set, name_key, item);
    EXPECT_EQ(tarn_mhash_item_value(item), &cid);
    EXPECT_EQ(tarn_mhash_next(set, name_key, item), nullptr);
    EXPECT_NE(tarn_mhash_next(set, name_key, nullptr), nullptr); // left unfinished
}

TEST_F(MultiHash, CallbackMayDestroyTheSet)
{
    fill();
    EXPECT_TRUE(tarn::mhash_register_index(set, name_key));
    const auto end_it = [](uint32_t index, const void *, void *, void *arg1, void *) {
        EXPECT_EQ(index, 0u);
        tarn_close_handle(arg1);
    };
    tarn_mhash_remove_all(set, end_it, set, nullptr);
    set = nullptr;
}

TEST_F(MultiHash, ExhaustedMemoryLeavesTheSetAsItWas)
{
    expect_check("RVON(items,TARN_INVALID_HANDLE)");
    expect_check("RVON(indexes,TARN_INVALID_HANDLE)");
    expect_check("RVON(hitem,NULL)");
    expect_check("RVON(added,NULL)");
    expect_check("RVON(k,NULL)");
    support::log_capture log;
    const auto probe = [](const std::function<bool()> &works) {
        return support::fail_each_allocation([&](size_t) {
            const bool worked = works();
            EXPECT_NE(worked, support::allocation_failed());
        });
    };
    EXPECT_EQ(probe([this] { return (set = tarn_mhash_create(nullptr, nullptr)) != nullptr; }), 3u);
    EXPECT_TRUE(log.contains("error", "failed to alloc memory for mhash object."));
    tarn_mhash_destroy(set);
    fill();
    person eve = {"eve", 60};
    EXPECT_EQ(probe([&] { return tarn_mhash_add(set, &eve) == &eve; }), 1u);
    EXPECT_EQ(tarn_mhash_count(set), 5u);
    EXPECT_EQ(probe([this] { return find(age_key, {"", 40}) == &cid; }), 1u);
}

size_t allocations_left = 0;
TARN_TEST_ROLE(iterate_until_memory_runs_out)
{
    person people[] = {{"ann", 40}, {"bob", 20}};
    TARN_MHASH set = tarn_mhash_create(nullptr, by_age);
    tarn_mhash_add(set, &people[0]);
    tarn_mhash_add(set, &people[1]);
    allocations_left = std::stoul(args[0]);
    tarn::mem_fail_hook = [](size_t) { return allocations_left-- == 0; };
    const bool begun = tarn_mhash_next(set, name_key, nullptr) != nullptr;
    tarn::mem_fail_hook = nullptr;
    tarn_mhash_destroy(set);
    return begun ? 1 : 0;
}

// Null where an item or a table is lacking; where buckets are, a hash table ends the process.
TEST(MultiHashFailure, IterationWithoutMemoryDoesNotBegin)
{
    const int expected[] = {0, 0, 255, 255, 0, 0, 0, 255, 255, 0, 1};
    for (size_t n = 0; n < std::size(expected); ++n)
    {
        auto child =
            support::child_process::role("iterate_until_memory_runs_out", {std::to_string(n)});
        EXPECT_EQ(child.wait(), expected[n]) << n;
    }
}

} // namespace
