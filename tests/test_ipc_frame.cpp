// Local IPC: the receive machine by itself, and the sequence numbers.

#include "support_ipc.h"

#include <cstring>
#include <random>
#include <string>
#include <vector>

using support::ipc_times;

namespace
{

/** A connection without socket, whose handlers run inside the machine. */
class machine
{
public:
    machine() : conn(tarn::ipc_conn_create("callee", "caller", nullptr))
    {
        conn.get()->cb = side.callbacks();
        side.on_call = [this](TARN_IPC, uint32_t func_id, TARN_DATA in, TARN_DATA *) {
            seen.push_back(std::to_string(func_id) + ":" + support::ipc_text_of(in));
            return 0;
        };
        EXPECT_TRUE(tarn::ipc_adopt(conn.get(), tarn::socket_owner()));
    }
    void feed(const std::string &bytes)
    {
        tarn::ipc_feed(conn.get(), {reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()});
    }
    size_t step(const std::string &bytes)
    {
        return tarn::ipc_conn_recv_fsm(conn.get(), reinterpret_cast<const uint8_t *>(bytes.data()),
                                       bytes.size());
    }
    uint32_t state() const
    {
        return conn.get()->receiver.state;
    }

    const ipc_times times{[](tarn::ipc_limits &limit) { limit.handle_inline = true; }};
    support::ipc_side side;
    tarn::conn_ref_owner conn;
    std::vector<std::string> seen;
};

std::string big(uint32_t value)
{
    return {static_cast<char>(value >> 24), static_cast<char>(value >> 16),
            static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string raw_frame(uint8_t cmd, const std::string &payload)
{
    return "STX" + std::string{1, static_cast<char>(cmd)} +
           big(static_cast<uint32_t>(payload.size())) + payload + "ETX";
}

std::string post(uint32_t func_id, const std::string &text)
{
    return raw_frame(4, big(func_id) + big(0) + '\x0F' + big(static_cast<uint32_t>(text.size())) +
                            text + '\0');
}

} // namespace

TEST(IpcFrame, EachStateTakesWhatItSays)
{
    machine m;
    const std::string bytes = post(1, "abc");
    const size_t payload = bytes.size() - 12;
    const uint32_t after[] = {1, 1, 2, 3, 4, 4, 4, 4, 5};
    for (size_t i = 0; i < std::size(after); ++i)
    {
        EXPECT_EQ(m.step(bytes.substr(i)), 1u);
        EXPECT_EQ(m.state(), after[i]);
    }
    EXPECT_EQ(m.step(bytes.substr(9, 4)), 4u);
    EXPECT_EQ(m.step(bytes.substr(13)), payload - 4);
    EXPECT_EQ(m.state(), 6u);
    m.feed("ETX");
    EXPECT_EQ(m.state(), 0u);
    EXPECT_EQ(m.seen, std::vector<std::string>{"1:abc"});
    support::expect_check("RVOF(len > 0,0)");
    EXPECT_EQ(m.step(""), 0u);
    m.conn.get()->receiver.state = 7;
    const support::log_capture log;
    EXPECT_EQ(m.step("x"), 0u);
    EXPECT_TRUE(log.contains("callee:caller] unknown comm state [7]"));
    EXPECT_EQ(m.state(), 0u);
}

TEST(IpcFrame, AnyChunkingGivesTheSameFrames)
{
    std::string stream = "garbage";
    std::vector<std::string> expected;
    for (uint32_t i = 0; i < 50; ++i)
    {
        const std::string text(i * 7, static_cast<char>('a' + i % 26));
        stream += post(i, text) + (i % 3 == 0 ? "noise " : "");
        expected.push_back(std::to_string(i) + ":" + text);
    }
    std::mt19937 random(1);
    for (const size_t longest : {size_t{1}, size_t{2}, size_t{13}, size_t{500}, stream.size()})
    {
        machine m;
        for (size_t at = 0; at < stream.size();)
        {
            const size_t n = 1 + random() % longest;
            m.feed(stream.substr(at, n));
            at += n;
        }
        EXPECT_EQ(m.seen, expected) << longest;
    }
}

TEST(IpcFrame, ABadFrameIsDroppedAndTheNextOneFound)
{
    const std::string good = post(2, "x");
    struct
    {
        const char *title;
        std::string bytes;
        const char *line;
        bool next_is_seen = true;
    } cases[] = {
        {"other second byte", "SxX", "incorrect header tag"},
        {"other third byte", "STx", "incorrect header tag"},
        {"doubled S", "S", "incorrect header tag", false},
        {"too long", "STX" + std::string{1, 4} + big(524289), "data length too long"},
        {"longest number", "STX" + std::string{1, 4} + big(0xFFFFFFFF), "data length too long"},
        {"end tag", "STX" + std::string{1, 4} + big(0) + "ETY", "recv_tail get incorrect"},
        {"heartbeat", raw_frame(1, ""), "package received, seq_num = [1], cmd = [1]"},
        {"command 0", raw_frame(0, ""), "unknown command [0]"},
        {"command 255", raw_frame(255, "data"), "unknown command [255]"},
        {"no func_id", raw_frame(4, "abc"), "len = [3] < func_id size"},
        {"no word", raw_frame(4, big(1) + "abc"), "len = [7] < args_out_from_caller size"},
        {"no such type", raw_frame(2, big(1) + big(0) + "\x63z"), "fail to extract args_in"},
        {"cut value", raw_frame(2, big(1) + big(0) + "\x05\x01\x02"), "fail to extract args_in"},
        {"too many values", raw_frame(2, big(1) + big(0) + std::string(200000, 1)),
         "fail to extract args_in"},
        {"unasked answer", raw_frame(3, big(1) + big(0)), "find request error, seq_num = [1]"},
    };
    for (const auto &each : cases)
    {
        machine m;
        const support::log_capture log;
        m.feed(each.bytes);
        m.feed(good);
        EXPECT_TRUE(log.contains(each.line)) << each.title;
        EXPECT_EQ(m.seen.size(), each.next_is_seen ? 1u : 0u) << each.title;
    }
}

TEST(IpcFrame, PayloadsAreCutAtEachByte)
{
    // A function, a word, two texts, the terminator.
    const auto text = [](const std::string &of) {
        return '\x0F' + big(static_cast<uint32_t>(of.size())) + of;
    };
    const std::string whole = big(7) + big(1) + text("k") + text("abc") + '\0';
    const size_t first_text = 8 + text("k").size();
    for (size_t n = 0; n < whole.size(); ++n)
    {
        machine m;
        const support::log_capture log;
        m.feed(raw_frame(4, whole.substr(0, n)) + post(2, "x"));
        ASSERT_FALSE(m.seen.empty()) << n;
        EXPECT_EQ(m.seen.back(), "2:x") << n;
        // One byte may be the terminator, which is not asked for.
        const bool is_whole = n == 8 || n == 9 || n == first_text || n == whole.size() - 1;
        EXPECT_EQ(m.seen.size(), is_whole ? 2u : 1u) << n;
        const char *const line = n < 4   ? "< func_id size"
                                 : n < 8 ? "< args_out_from_caller size"
                                         : "fail to extract args_in";
        EXPECT_EQ(log.contains(line), !is_whole) << n;
    }
}

TEST(IpcFrame, MemoryIsTakenForTheLengthAndKeptForTheNextFrame)
{
    machine m;
    const std::string header = "STX" + std::string{1, 4};
    m.feed(header + big(1000));
    const tarn::ipc_frame *const kept = m.conn.get()->receiver.frame;
    ASSERT_NE(kept, nullptr);
    m.feed(std::string(1000, 'x') + "no." + header + big(900));
    EXPECT_EQ(m.conn.get()->receiver.frame, kept);
    m.feed(std::string(900, 'x') + "no." + header + big(524288));
    EXPECT_EQ(m.conn.get()->receiver.room, 524288u);
    m.feed(std::string(524288, 'x') + "ETX");
    EXPECT_EQ(m.conn.get()->receiver.frame, nullptr); // it went to a handler
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    EXPECT_GE(support::fail_each_allocation([&](size_t) { m.feed(post(1, "poor")); }), 1u);
    EXPECT_EQ(m.seen.back(), "1:poor");
}

TEST(IpcNumbers, GoRoundWithoutZeroAndReuseThoseOfLateAnswersLast)
{
    tarn::ipc_line line{};
    EXPECT_EQ(tarn::ipc_get_next_seqnum(&line), 1);
    line.last_number = 254;
    EXPECT_EQ(tarn::ipc_get_next_seqnum(&line), 255);
    EXPECT_EQ(tarn::ipc_get_next_seqnum(&line), 2); // 1 is in use
    line.numbers[3] = tarn::ipc_number_late;
    for (int i = 4; i < 255; ++i)
    {
        EXPECT_EQ(tarn::ipc_get_next_seqnum(&line), i);
    }
    EXPECT_EQ(tarn::ipc_get_next_seqnum(&line), 3);
    EXPECT_EQ(tarn::ipc_get_next_seqnum(&line), 0);
}
