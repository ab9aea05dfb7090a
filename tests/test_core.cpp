// Start-up and teardown of the module table, the generic close, check macros, memory wrappers.

#include "support.h"

#include "tarn_critical_section.h"
#include "tarn_event.h"
#include "tarn_modules.h"
#include "tarn_semaphore.h"

#include <algorithm>

#include <unistd.h>

using support::expect_check;
using support::log_capture;

namespace
{

// ---- start-up and teardown -----------------------------------------------------------------------

std::vector<std::string> calls;

/** Replaces both tables by functions that record their calls, one position failing. */
class recorded_modules
{
public:
    recorded_modules()
    {
        calls.clear();
        fill(std::make_index_sequence<tarn::module_count>());
    }
    recorded_modules(const recorded_modules &) = delete;
    recorded_modules &operator=(const recorded_modules &) = delete;
    ~recorded_modules()
    {
        tarn::module_start_table = starts_;
        tarn::module_stop_table = stops_;
        failing = tarn::module_count;
    }
    static inline size_t failing = tarn::module_count;

private:
    template <size_t... I>
    void fill(std::index_sequence<I...>)
    {
        ((tarn::module_start_table[I] = &start<I>), ...);
        ((tarn::module_stop_table[I] = &stop<I>), ...);
    }
    template <size_t I>
    static bool start()
    {
        calls.push_back("+" + std::to_string(I));
        return I != failing;
    }
    template <size_t I>
    static void stop()
    {
        calls.push_back("-" + std::to_string(I));
    }
    std::array<tarn::module_start, tarn::module_count> starts_ = tarn::module_start_table;
    std::array<tarn::module_stop, tarn::module_count> stops_ = tarn::module_stop_table;
};

TEST(Init, CountsNestedUsersAndStartsOnce)
{
    const recorded_modules modules;
    log_capture log;
    ASSERT_TRUE(tarn_init());
    EXPECT_EQ(calls.size(), tarn::module_count);
    ASSERT_TRUE(tarn_init());
    EXPECT_EQ(calls.size(), tarn::module_count);
    tarn_uninit();
    EXPECT_EQ(calls.size(), tarn::module_count);
    tarn_uninit();
    ASSERT_EQ(calls.size(), 2 * tarn::module_count);
    for (size_t i = 0; i < tarn::module_count; ++i)
    {
        EXPECT_EQ(calls[i], "+" + std::to_string(i));
        EXPECT_EQ(calls[tarn::module_count + i], "-" + std::to_string(i));
    }
    const std::vector<std::string> counts = {"init_count = 1", "init_count = 2", "init_count = 2",
                                             "init_count = 1"};
    EXPECT_EQ(log.messages(), counts);
    EXPECT_TRUE(log.contains("trace", "init_count = 1"));
}

TEST(Init, FailureRollsBackTheFirstTeardownEntries)
{
    const recorded_modules modules;
    for (size_t position = 0; position < tarn::module_count; ++position)
    {
        recorded_modules::failing = position;
        calls.clear();
        log_capture log;
        EXPECT_FALSE(tarn_init());
        EXPECT_TRUE(log.contains("fatal", "failed at " + std::to_string(position)));
        ASSERT_EQ(calls.size(), position + 1 + position);
        for (size_t k = 0; k < position; ++k)
        {
            EXPECT_EQ(calls[position + 1 + k], "-" + std::to_string(position - 1 - k));
        }
    }
    recorded_modules::failing = tarn::module_count;
    calls.clear();
    EXPECT_TRUE(tarn_init()); // starts again from the first module
    EXPECT_EQ(calls.front(), "+0");
    tarn_uninit();
}

TEST(Init, TeardownTableIsTheReverseOfTheStartUpTable)
{
    std::vector<tarn::module_stop> expected;
#define TARN_PUSH_STOP(name) expected.insert(expected.begin(), tarn_##name##_uninit);
    TARN_MODULE_LIST(TARN_PUSH_STOP)
#undef TARN_PUSH_STOP
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), tarn::module_stop_table.begin()));
    EXPECT_EQ(tarn::module_start_table[0], tarn_mem_init);
    EXPECT_EQ(tarn::module_start_table[18], tarn_process_init);
    EXPECT_EQ(tarn::module_start_table[33], tarn_md5_init);
}

TEST(Init, TeardownTooManyLeavesTheNextStartUpWithoutWork)
{
    const recorded_modules modules;
    tarn_uninit(); // -1
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(tarn_init()); // 0, starts nothing
    EXPECT_TRUE(calls.empty());
    EXPECT_TRUE(tarn_init());
    EXPECT_EQ(calls.size(), tarn::module_count);
    tarn_uninit();
}

TEST(Init, RealModulesSurviveEveryRollBackWithoutLeak)
{
    {
        const support::layer once; // the signal pipe is made once and stays
    }
    const support::leak_check leaks;
    const auto starts = tarn::module_start_table;
    for (size_t position = 0; position < tarn::module_count; ++position)
    {
        tarn::module_start_table[position] = [] { return false; };
        EXPECT_FALSE(tarn_init());
        tarn::module_start_table = starts;
    }
    EXPECT_TRUE(tarn_init());
    tarn_uninit();
}

// ---- handles -------------------------------------------------------------------------------------

TEST(CloseHandle, ReleasesByTagAndIgnoresUnknownKinds)
{
    tarn_close_handle(tarn_critical_section_create());
    tarn_close_handle(tarn_event_create(true, false));
    tarn_close_handle(tarn_semaphore_create(nullptr, 0));
    tarn_close_handle(nullptr);
    for (const uint16_t tag : std::initializer_list<uint16_t>{0, 19, 27, 65535})
    {
        tarn_handle_header stranger = {sizeof stranger, tag};
        tarn_close_handle(&stranger); // on the stack: freeing it would crash
    }
}

TEST(CloseHandle, DebugFormNamesItsCaller)
{
    log_capture log;
    TARN_EVENT event = tarn_event_create(true, false);
    EXPECT_EQ(reinterpret_cast<tarn_handle_header *>(event)->type, TARN_HANDLE_TYPE_EVENT);
    tarn_close_handle_dbg(event, "f.c", 12, "fn");
    EXPECT_TRUE(log.contains("info", "from [f.c:12:fn] obj_h = [0x"));
}

// ---- check macros --------------------------------------------------------------------------------

int evaluations = 0;

const char *counted(const char *p)
{
    ++evaluations;
    return p;
}

int failing_rvon(const char *p)
{
    RVON(counted(p), TARN_ERRLN);
    return 1;
}

int failing_block(bool pass)
{
    int reached = 0;
    do
    {
        BOF(pass);
        BOT(!pass);
        BON(pass ? "" : NULL);
        reached = 1;
    } while (0);
    return reached;
}

void failing_ro(int *steps, const void *p, int n)
{
    RON(p);
    ++*steps;
    ROT(n % 2 == 1);
    ++*steps;
}

TEST(CheckMacros, LogTheirSourceTextAndReturnTheValueOnce)
{
    log_capture log;
    expect_check("RVON(counted(p),TARN_ERRLN)");
    const int line = failing_rvon(nullptr);
    EXPECT_LT(line, -100);
    EXPECT_EQ(evaluations, 1);
    EXPECT_TRUE(log.contains("debug", "[test_core.cpp:" + std::to_string(-line) +
                                          ":failing_rvon] RVON(counted(p),TARN_ERRLN) failed"));
    evaluations = 0;
    EXPECT_EQ(failing_rvon(""), 1);
    EXPECT_EQ(evaluations, 1);
    const support::level_scope quiet(TARN_LOG_LEVEL_TRACE);
    EXPECT_EQ(failing_rvon(nullptr), line); // the value does not depend on the level
    EXPECT_EQ(log.messages().size(), 1u);
}

TEST(CheckMacros, LeaveABlockOrAFunctionWithoutValue)
{
    EXPECT_EQ(failing_block(true), 1);
    expect_check("BOF(pass)");
    EXPECT_EQ(failing_block(false), 0);
    int steps = 0;
    expect_check("RON(p)");
    failing_ro(&steps, nullptr, 0);
    EXPECT_EQ(steps, 0);
    log_capture log;
    expect_check("ROT(n % 2 == 1)"); // a percent sign in the text is no format
    failing_ro(&steps, &steps, 1);
    EXPECT_EQ(steps, 1);
    failing_ro(&steps, &steps, 2);
    EXPECT_EQ(steps, 3);
}

// ---- memory --------------------------------------------------------------------------------------

TEST(Memory, BlocksAreZeroFilledAndZeroLengthsTouchNothing)
{
    auto *block = static_cast<unsigned char *>(tarn_mem_alloc(64));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::count(block, block + 64, 0), 64);
    tarn_mem_set(block, 0x1FF, 4);
    EXPECT_EQ(block[3], 0xFF);
    tarn_mem_move(block + 1, block, 4);
    EXPECT_EQ(block[4], 0xFF);
    EXPECT_GT(tarn_mem_compare("\x80", "\x01", 1), 0);
    block = static_cast<unsigned char *>(tarn_mem_realloc(block, 128));
    EXPECT_EQ(block[4], 0xFF);
    tarn_mem_free(block);
    tarn_mem_free(nullptr);
    tarn_mem_copy(nullptr, nullptr, 0);
    tarn_mem_zero(nullptr, 0);
    EXPECT_EQ(tarn_mem_compare(nullptr, nullptr, 0), 0);
}

TEST(Memory, UsageIsLogged)
{
    log_capture log;
    tarn_mem_usage_print();
    EXPECT_TRUE(log.contains("debug", "[" + std::to_string(getpid()) + "] statm = "));
}

TEST(Memory, FailingAllocationsGiveInvalidHandles)
{
    expect_check("RVON(cs,TARN_INVALID_HANDLE)");
    expect_check("RVON(ev,TARN_INVALID_HANDLE)");
    expect_check("RVON(sem,TARN_INVALID_HANDLE)");
    expect_check("RVON(system,TARN_INVALID_HANDLE)");
    const auto probe = [](auto create) {
        return support::fail_each_allocation([&](size_t) {
            void *handle = create();
            EXPECT_EQ(handle == nullptr, support::allocation_failed());
            tarn_close_handle(handle);
        });
    };
    EXPECT_EQ(probe(tarn_critical_section_create), 1u);
    EXPECT_EQ(probe([] { return tarn_event_create(false, false); }), 1u);
    EXPECT_EQ(probe([] { return tarn_semaphore_create(nullptr, 1); }), 2u);
    EXPECT_EQ(probe([] { return tarn_semaphore_create(support::unique_name().c_str(), 1); }), 1u);
}

} // namespace
