// Ring buffers: a queue of bytes that wraps, and the overwriting fill.

#include "support.h"

#include "tarn_ringbuf.h"

#include <algorithm>
#include <random>

using support::expect_check;

namespace
{

std::string read(TARN_RINGBUF rb, uint32_t count)
{
    std::string bytes(count, '?');
    bytes.resize(tarn_ringbuf_read(rb, bytes.data(), count));
    return bytes;
}

TEST(RingBuffer, TakesAndGivesNoMoreThanThereIs)
{
    TARN_RINGBUF rb = tarn_ringbuf_create(4);
    EXPECT_EQ(tarn_ringbuf_write(rb, "abcdef", 6), 4u);
    EXPECT_TRUE(tarn_ringbuf_is_full(rb));
    expect_check("RVOF(bytes_unused > 0,0)");
    EXPECT_EQ(tarn_ringbuf_write(rb, "g", 1), 0u);
    EXPECT_EQ(read(rb, 10), "abcd");
    expect_check("RVOF(bytes_used > 0,0)");
    EXPECT_EQ(read(rb, 1), "");
    EXPECT_EQ(tarn_ringbuf_end(rb) - tarn_ringbuf_tail(rb), 1);
    EXPECT_EQ(tarn_ringbuf_write(rb, "xyz", 3), 3u);
    EXPECT_EQ(tarn_ringbuf_end(rb) - tarn_ringbuf_head(rb), 3);
    tarn_ringbuf_reset(rb);
    EXPECT_TRUE(tarn_ringbuf_is_empty(rb));
    EXPECT_EQ(tarn_ringbuf_end(rb) - tarn_ringbuf_head(rb), 5);
    EXPECT_EQ(tarn_ringbuf_write(rb, nullptr, 0), 0u); // no length, no pointer needed
    tarn_close_handle(rb);
}

TEST(RingBuffer, FillOverwritesTheOldestData)
{
    TARN_RINGBUF rb = tarn_ringbuf_create(4);
    EXPECT_EQ(tarn_ringbuf_write(rb, "abc", 3), 3u);
    EXPECT_EQ(tarn_ringbuf_memset(rb, 'x', 3), 3u);
    EXPECT_TRUE(tarn_ringbuf_is_full(rb));
    EXPECT_EQ(read(rb, 9), "cxxx");
    EXPECT_EQ(tarn_ringbuf_memset(rb, 'y', 2), 2u); // there is room: nothing is lost
    EXPECT_EQ(read(rb, 9), "yy");
    EXPECT_EQ(tarn_ringbuf_memset(rb, 0x100 + 'z', 0xFFFFFFFF), 5u); // head comes back to itself
    EXPECT_EQ(read(rb, 9), "zzzz");
    tarn_ringbuf_destroy(rb);
    rb = tarn_ringbuf_create(0); // holds nothing at all
    EXPECT_EQ(tarn_ringbuf_memset(rb, 'x', 7), 1u);
    EXPECT_TRUE(tarn_ringbuf_is_full(rb) && tarn_ringbuf_is_empty(rb));
    tarn_ringbuf_destroy(rb);
}

TEST(RingBuffer, BehavesLikeAQueueAtEveryPosition)
{
    std::mt19937 random(5);
    for (const uint32_t capacity : {1u, 2u, 7u, 64u})
    {
        TARN_RINGBUF rb = tarn_ringbuf_create(capacity);
        std::string model;
        for (int step = 0; step < 3000; ++step)
        {
            const uint32_t count = 1 + static_cast<uint32_t>(random()) % (capacity + 3);
            std::string bytes(count, static_cast<char>(step));
            if (random() % 8 == 0)
            {
                ASSERT_EQ(tarn_ringbuf_memset(rb, step, count), std::min(count, capacity + 1));
                model += bytes;
                model.erase(0, model.size() - std::min<size_t>(model.size(), capacity));
            }
            else if (random() % 2 == 0 && model.size() < capacity)
            {
                std::generate(bytes.begin(), bytes.end(), [&] { return char(random() % 128); });
                const size_t n = tarn_ringbuf_write(rb, bytes.data(), count);
                ASSERT_EQ(n, std::min<size_t>(count, capacity - model.size()));
                model.append(bytes, 0, n);
            }
            else if (!model.empty())
            {
                ASSERT_EQ(read(rb, count), model.substr(0, count));
                model.erase(0, count);
            }
            ASSERT_EQ(tarn_ringbuf_bytes_used(rb), model.size());
            ASSERT_EQ(tarn_ringbuf_bytes_unused(rb), tarn_ringbuf_capacity(rb) - model.size());
        }
        tarn_ringbuf_destroy(rb);
    }
}

TEST(RingBuffer, RefusesWhatItCannotHold)
{
    expect_check("RVOF(capacity < UINT32_MAX,TARN_INVALID_HANDLE)");
    EXPECT_EQ(tarn_ringbuf_create(0xFFFFFFFF), nullptr);
    expect_check("RVON(rb,TARN_INVALID_HANDLE)");
    const auto create = [](size_t) {
        TARN_RINGBUF rb = tarn_ringbuf_create(16);
        EXPECT_EQ(rb == nullptr, support::allocation_failed());
        tarn_ringbuf_destroy(rb);
    };
    EXPECT_EQ(support::fail_each_allocation(create), 2u);
}

} // namespace
