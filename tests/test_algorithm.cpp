// Checksums, greatest common divisor, the walk over two lists.

#include "support.h"

#include "tarn_algorithm.h"
#include "tarn_event.h"
#include "tarn_thread.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <numeric>

using support::expect_check;

namespace
{

using bytes = std::vector<uint8_t>;

bytes pattern(size_t size)
{
    bytes data(size);
    for (size_t i = 0; i < size; ++i)
    {
        data[i] = static_cast<uint8_t>(i * 151 + i / 256);
    }
    return data;
}

TEST(Crc16, EqualsTheBitwiseDefinition)
{
    EXPECT_EQ(tarn_algorithm_crc16("123456789", 9), 0x4B37);
    EXPECT_EQ(tarn_algorithm_crc16(nullptr, 0), 0xFFFF);
    const bytes data = pattern(300);
    uint32_t crc = 0xFFFF;
    for (uint16_t length = 1; length <= data.size(); ++length)
    {
        crc ^= data[length - 1u];
        for (int bit = 0; bit < 8; ++bit)
        {
            crc = (crc & 1) != 0 ? crc >> 1 ^ 0xA001 : crc >> 1;
        }
        ASSERT_EQ(tarn_algorithm_crc16(data.data(), length), crc);
    }
}

uint32_t word_by_word(const uint8_t *data, size_t len)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < len; i += 2)
    {
        uint16_t word = 0;
        std::memcpy(&word, data + i, std::min<size_t>(2, len - i));
        sum += word;
    }
    sum = (sum >> 16) + (sum & 0xFFFF);
    return ~((sum >> 16) + (sum & 0xFFFF));
}

TEST(Checksum, AddsHostOrderWordsInThirtyTwoBits)
{
    const uint16_t words[] = {0x0001, 0xF203, 0xF4F5, 0xF6F7}; // the example of RFC 1071
    EXPECT_EQ(tarn_algorithm_checksum(words, sizeof words), 0xFFFF220Du);
    EXPECT_EQ(tarn_algorithm_checksum(nullptr, 0), 0xFFFFFFFFu);
    const bytes data = pattern(1201);
    for (size_t length = 0; length < data.size(); ++length)
    {
        ASSERT_EQ(tarn_algorithm_checksum(data.data() + 1, length),
                  word_by_word(data.data() + 1, length));
    }
    // 65538 words of 0xFFFF: the sum passes 2^32 and loses that carry
    const bytes large(size_t{2} * 65538, 0xFF);
    EXPECT_EQ(tarn_algorithm_checksum(large.data(), large.size()), ~uint32_t{0xFFFE});
}

TEST(Gcd, EqualsTheStandardOne)
{
    const uint64_t values[] = {0,       1,       2,          12,         18,         35,
                               1 << 20, 6700417, 4294967296, UINT64_MAX, 1ull << 63, 3ull << 40};
    for (const uint64_t a : values)
    {
        for (const uint64_t b : values)
        {
            EXPECT_EQ(tarn_algorithm_gcd(a, b), std::gcd(a, b)) << a << " " << b;
        }
    }
}

// ---- the walk ------------------------------------------------------------------------------------

/** The walk asks whether the thread has to stop; the main thread's answer is the exit event. */
class ForEachPair : public testing::Test
{
protected:
    std::vector<int> results_; ///< of the calls, then 0
    std::string calls_;        ///< "a1 a2 b1 b2 "

    int run(const char *list1, const char *list2)
    {
        calls_.clear();
        return tarn_algorithm_for_each_pair(&results_, &calls_, list1, list2, on_pair, this);
    }

private:
    static int on_pair(void *a, void *b, const char *item1, const char *item2, void *ctx)
    {
        auto &self = *static_cast<ForEachPair *>(ctx);
        EXPECT_TRUE(a == &self.results_ && b == &self.calls_);
        const auto n = std::count(self.calls_.begin(), self.calls_.end(), ' ');
        self.calls_ += item1 != nullptr ? item1 : "-";
        self.calls_ += std::string(item2 != nullptr ? item2 : "-") + " ";
        return n < std::ssize(self.results_) ? self.results_[static_cast<size_t>(n)] : 0;
    }
    support::layer layer_;
};

TEST_F(ForEachPair, CallsForEveryPairUntilAResultEndsALoop)
{
    const struct
    {
        std::vector<int> results;
        const char *list1;
        const char *list2;
        int result;
        const char *calls;
    } table[] = {
        {{}, "a,b;c", "1|2 3", 0, "a1 a2 a3 b1 b2 b3 c1 c2 c3 "},
        {{}, " a,,b; ", "|1", 0, "a1 b1 "},
        {{}, "a b", nullptr, 0, "a- b- "},
        {{}, "a b", ",;", 0, ""},
        {{}, "", "1", 0, ""},
        {{0, 1, 0, -3}, "a b", "1 2 3", 0, "a1 a2 b1 b2 b3 "},
        {{0, 2}, "a b", "1 2 3", 2, "a1 a2 "},
        {{1, 5}, "a b c", nullptr, 5, "a- b- "},
        {{-9}, "a", "1", -9, "a1 "},
        {{3}, nullptr, "1,2", 3, "-1,2 "}, // as given
        {{3}, nullptr, nullptr, 3, "-- "},
    };
    for (const auto &row : table)
    {
        results_ = row.results;
        EXPECT_EQ(run(row.list1, row.list2), row.result);
        EXPECT_EQ(calls_, row.calls);
    }
}

TEST_F(ForEachPair, EndsWhenTheThreadIsAskedToStop)
{
    struct shared
    {
        TARN_EVENT entered = tarn_event_create(true, false);
        std::atomic<int> calls = 0;
    } state;
    const auto proc = [](void *arg, void *) -> void * {
        const auto wait_for_stop = [](void *, void *, const char *, const char *, void *ctx) {
            ++static_cast<shared *>(ctx)->calls;
            tarn_event_set(static_cast<shared *>(ctx)->entered);
            EXPECT_TRUE(tarn_thread_sleep(10000));
            return 0;
        };
        (void)tarn_algorithm_for_each_pair(nullptr, nullptr, "a b", "1 2", wait_for_stop, arg);
        return nullptr;
    };
    const TARN_THREAD thread = tarn_thread_start(proc, &state, nullptr, 1000, "walk");
    ASSERT_TRUE(tarn_event_wait(state.entered, 10000));
    tarn_thread_stop(thread);
    EXPECT_EQ(state.calls, 1);
    tarn_event_destroy(state.entered);
}

TEST_F(ForEachPair, ReportsMissingFunctionAndMemory)
{
    expect_check("RVON(fn,TARN_ERRLN)");
    expect_check("RVON(items1,TARN_ERRLN)");
    expect_check("RVON(items2,TARN_ERRLN)");
    EXPECT_LT(tarn_algorithm_for_each_pair(nullptr, nullptr, "a", "1", nullptr, nullptr), 0);
    const auto failures = support::fail_each_allocation([&](size_t) {
        const int rc = run("a", "1");
        EXPECT_EQ(rc < 0, support::allocation_failed());
        EXPECT_EQ(calls_, support::allocation_failed() ? "" : "a1 ");
    });
    EXPECT_EQ(failures, 2u);
}

} // namespace
