// Lists: order and bounds, reuse of nodes, walks whose callbacks change the list.

#include "support.h"

#include "tarn_list.h"
#include "tarn_mem_internal.h"

#include <random>

using support::expect_check;

namespace
{

char items[8]; // what an item is does not matter: only its address is used

std::vector<void *> content(TARN_LIST l)
{
    void **array = tarn_list_to_array(l);
    std::vector<void *> all(array, array + (array != nullptr ? tarn_list_count(l) : 0));
    tarn_mem_free(array);
    return all;
}

TARN_LIST list_of(size_t count)
{
    TARN_LIST l = tarn_list_create(8);
    for (size_t i = 0; i < count; ++i)
    {
        EXPECT_TRUE(tarn_list_push_back(l, &items[i]));
    }
    return l;
}

/** Hands a C++ callable through as a callback. */
using question = std::function<bool(void *)>;
bool ask(void *item, void *arg1, void *)
{
    return (*static_cast<question *>(arg1))(item);
}
void call(void *item, void *arg1, void *)
{
    (void)ask(item, arg1, nullptr);
}

TEST(List, KeepsToItsBoundAndSaysSo)
{
    expect_check("RVOF(max_size > 0,TARN_INVALID_HANDLE)");
    EXPECT_EQ(tarn_list_create(0), nullptr);
    TARN_LIST l = tarn_list_create(1);
    EXPECT_TRUE(tarn_list_is_empty(l) && tarn_list_empty(l) && !tarn_list_is_full(l));
    EXPECT_EQ(tarn_list_front(l), nullptr);
    EXPECT_EQ(tarn_list_back(l), nullptr);
    expect_check("RVOF(l->count > 0,NULL)");
    EXPECT_EQ(tarn_list_pop_front(l), nullptr);
    EXPECT_EQ(tarn_list_get_at(l, 0), nullptr);
    EXPECT_TRUE(tarn_list_push_back(l, &items[0]));
    EXPECT_TRUE(tarn_list_is_full(l) && tarn_list_full(l) && !tarn_list_empty(l));
    expect_check("RVOF(l->count < l->max_size,false)");
    EXPECT_FALSE(tarn_list_push_back(l, &items[1]));
    EXPECT_FALSE(tarn_list_push_front(l, &items[1]));
    expect_check("RVOF(index < l->count,NULL)");
    EXPECT_EQ(tarn_list_get_at(l, 1), nullptr);
    support::log_capture log;
    char text[64];
    std::snprintf(text, sizeof text, "list[%p] is not empty! count = 1", static_cast<void *>(l));
    tarn_close_handle(l);
    EXPECT_TRUE(log.contains("warn", text));
}

TEST(List, NodesAreReusedAndAFailingAllocationChangesNothing)
{
    TARN_LIST l = list_of(8);
    tarn_list_clear(l);
    tarn::mem_fail_hook = [](size_t) { return true; }; // from here on there are no allocations
    for (size_t i = 0; i < 14; ++i)
    {
        EXPECT_TRUE(tarn_list_push_front(l, &items[i % 8]));
        EXPECT_TRUE(i % 2 == 0 ? tarn_list_push_back(l, l) && tarn_list_remove(l, l) == l
                               : tarn_list_pop_back(l) != nullptr);
    }
    tarn::mem_fail_hook = nullptr;
    tarn_list_clear(l);
    tarn_list_destroy(l);

    expect_check("RVON(list,TARN_INVALID_HANDLE)");
    expect_check("RVON(item,false)");
    expect_check("RVON(array,NULL)");
    const auto failing = [](size_t nth) {
        TARN_LIST list = tarn_list_create(3);
        EXPECT_EQ(list == nullptr, nth == 1);
        if (list != nullptr)
        {
            EXPECT_EQ(tarn_list_push_back(list, &items[0]), nth != 2);
            EXPECT_EQ(tarn_list_insert(list, 9, &items[1]), nth != 3);
            EXPECT_EQ(content(list).size(), nth == 4 ? 0 : tarn_list_count(list));
            tarn_list_clear(list);
        }
        tarn_list_destroy(list);
    };
    EXPECT_EQ(support::fail_each_allocation(failing), 4u);
}

TEST(List, BehavesLikeAVector)
{
    std::mt19937 random(3);
    TARN_LIST l = tarn_list_create(8);
    std::vector<void *> model;
    for (int step = 0; step < 2000; ++step)
    {
        void *item = &items[random() % 8];
        const auto index = static_cast<uint32_t>(random() % 10); // also beyond the end
        const auto at = std::find(model.begin(), model.end(), item);
        if (random() % 2 == 0 && model.size() < 8)
        {
            EXPECT_TRUE(tarn_list_insert(l, index, item));
            model.insert(model.begin() + std::min<ptrdiff_t>(index, std::ssize(model)), item);
        }
        else if (index < 2 && !model.empty())
        {
            const auto end = index == 0 ? model.begin() : model.end() - 1;
            EXPECT_EQ(index == 0 ? tarn_list_pop_front(l) : tarn_list_pop_back(l), *end);
            model.erase(end);
        }
        else
        {
            EXPECT_EQ(tarn_list_contains(l, item), at != model.end());
            EXPECT_EQ(tarn_list_remove(l, item), at != model.end() ? item : nullptr);
            model.erase(at, at + (at != model.end() ? 1 : 0));
        }
        ASSERT_EQ(content(l), model);
        for (uint32_t i = 0; i < model.size(); ++i)
        {
            ASSERT_EQ(tarn_list_get_at(l, i), model[i]);
        }
    }
    tarn_list_clear(l);
    tarn_list_destroy(l);
}

TEST(List, WalkGoesOnBehindItemsThatItsCallbackRemoves)
{
    // removed[i] leave during the call for item i
    const std::vector<std::vector<size_t>> removed = {{0}, {2}, {}, {1, 3, 4}, {}, {6, 7}};
    TARN_LIST l = list_of(8);
    std::vector<void *> seen;
    question remove = [&](void *item) {
        seen.push_back(item);
        for (const size_t i : removed[static_cast<size_t>(static_cast<char *>(item) - items)])
        {
            EXPECT_EQ(tarn_list_remove(l, &items[i]), &items[i]);
            EXPECT_TRUE(tarn_list_push_front(l, &items[i])); // takes the same node again
            EXPECT_EQ(tarn_list_pop_front(l), &items[i]);
        }
        return false;
    };
    tarn_list_for_each(l, call, &remove, nullptr);
    EXPECT_EQ(seen, (std::vector<void *>{&items[0], &items[1], &items[3], &items[5]}));
    EXPECT_EQ(content(l), std::vector<void *>{&items[5]});

    // the item leaves before the predicate says that it is the one: not removed twice
    question removes = [&](void *item) {
        return tarn_list_remove(l, item) == item && tarn_list_push_back(l, &items[1]);
    };
    EXPECT_EQ(tarn_list_remove_if(l, ask, &removes, nullptr), &items[5]);
    EXPECT_EQ(tarn_list_pop_front(l), &items[1]);
    tarn_list_destroy(l);
}

TEST(List, NestedWalksSurviveClearAndDestroy)
{
    for (const bool destroy : {false, true})
    {
        TARN_LIST l = list_of(4);
        size_t calls = 0;
        question inner = [&](void *item) {
            if (++calls; item == &items[1])
            {
                tarn_list_clear(l);
                tarn_list_destroy(destroy ? l : nullptr);
            }
            return false;
        };
        question outer = [&](void *) {
            return tarn_list_find_if(l, ask, &inner, nullptr) != nullptr;
        };
        EXPECT_EQ(tarn_list_find_if(l, ask, &outer, nullptr), nullptr);
        EXPECT_EQ(calls, 2u);
        tarn_list_destroy(destroy ? nullptr : l);
    }
}

} // namespace
