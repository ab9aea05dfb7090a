// Messages: bytes against a table written by hand and against an independent reader, refusals,
// lookups, data of any content and length, failing allocations, references between threads.

#include "support.h"

#include "tarn_mem_internal.h"
#include "tarn_rpc_msg_internal.h"
#include "tarn_str.h"
#include "tarn_sys.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <thread>
#include <tuple>

using support::log_capture;
using tarn::unique_rpc_msg;

namespace
{

using bytes = std::vector<uint8_t>;

struct table_row
{
    const char *line; ///< as rpc_msg.py shows the element
    const char *hex;
};
constexpr table_row table[] = {
    {"object_begin 10 9", "01000a00000009"},
    {"uint8 11 200", "1e000bc8"},
    {"uint16 12 4660", "1f000c1234"},
    {"uint32 13 305419896", "20000d12345678"},
    {"uint64 14 72623859790382856", "21000e0102030405060708"},
    {"int8 15 -2", "14000ffe"},
    {"int16 16 -2", "150010fffe"},
    {"int32 17 -2", "160011fffffffe"},
    {"int64 18 -2", "170012fffffffffffffffe"},
    {"array_begin 19 2", "03001300000002"},
    {"string 20 6162", "3c001400000002616200"},
    {"string 20", "3c00140000000000"},
    {"array_end 19", "040013"},
    {"object_end 10", "02000a"},
    {"bool 21 1", "0b001501"},
    {"float 22 1.5", "2800163fc00000"},
    {"double 23 -2.25", "290017c002000000000000"},
    {"handle 24 287454020", "0a00180000000011223344"},
    {"bytes16 25 000102030405060708090a0b0c0d0e0f", "3200190f0e0d0c0b0a09080706050403020100"},
    {"null 26", "00001a"},
    {"string 4660 00ff00", "3c12340000000300ff0000"},
};

std::string table_hex()
{
    std::string hex;
    for (const table_row &row : table)
    {
        hex += row.hex;
    }
    return hex;
}

/** A big-endian number in hexadecimal. */
std::string number(uint64_t n, int size)
{
    char hex[17];
    (void)snprintf(hex, sizeof hex, "%0*llx", 2 * size, static_cast<unsigned long long>(n));
    return hex;
}

std::string hex_of(const unique_rpc_msg &msg)
{
    std::string hex;
    const uint8_t *const data = tarn_rpc_msg_data(msg.get());
    std::for_each(data, data + tarn_rpc_msg_data_len(msg.get()),
                  [&](uint8_t byte) { hex += number(byte, 1); });
    return hex;
}

void expect_checks(std::initializer_list<const char *> texts)
{
    std::for_each(texts.begin(), texts.end(), support::expect_check);
}

template <typename T>
int write(TARN_RPC_MSG msg, uint16_t id, uint8_t type, T value)
{
    return tarn_rpc_msg_write_element_value(msg, id, type, &value, sizeof value);
}

int write_text(TARN_RPC_MSG msg, uint16_t id, const char *text, uint32_t size = 0)
{
    return tarn_rpc_msg_write_element_value(msg, id, MSG_ELM_TYPE_STRING, text, size);
}

int write_null(TARN_RPC_MSG msg, uint16_t id)
{
    return tarn_rpc_msg_write_element_value(msg, id, MSG_ELM_TYPE_NULL, nullptr, 0);
}

unique_rpc_msg make_table()
{
    unique_rpc_msg owner(tarn_rpc_msg_create());
    const TARN_RPC_MSG msg = owner.get();
    const std::array<uint64_t, 2> sixteen = {0x0706050403020100, 0x0f0e0d0c0b0a0908};
    for (const int rc : {
             tarn_rpc_msg_write_object_begin(msg, 10),
             write<uint8_t>(msg, 11, MSG_ELM_TYPE_UINT8, 200),
             write<uint16_t>(msg, 12, MSG_ELM_TYPE_UINT16, 0x1234),
             write<uint32_t>(msg, 13, MSG_ELM_TYPE_UINT32, 0x12345678),
             write<uint64_t>(msg, 14, MSG_ELM_TYPE_UINT64, 0x0102030405060708),
             write<int8_t>(msg, 15, MSG_ELM_TYPE_INT8, -2),
             write<int16_t>(msg, 16, MSG_ELM_TYPE_INT16, -2),
             write<int32_t>(msg, 17, MSG_ELM_TYPE_INT32, -2),
             write<int64_t>(msg, 18, MSG_ELM_TYPE_INT64, -2),
             tarn_rpc_msg_write_array_begin(msg, 19),
             write_text(msg, 20, "ab"),
             write_text(msg, 20, ""),
             tarn_rpc_msg_write_array_end(msg),
             tarn_rpc_msg_write_object_end(msg),
             write<uint8_t>(msg, 21, MSG_ELM_TYPE_BOOL, 1),
             write(msg, 22, MSG_ELM_TYPE_FLOAT, 1.5F),
             write(msg, 23, MSG_ELM_TYPE_DOUBLE, -2.25),
             write<uint64_t>(msg, 24, MSG_ELM_TYPE_HANDLE, 0x11223344),
             write(msg, 25, MSG_ELM_TYPE_BYTES16, sixteen),
             write_null(msg, 26),
             write_text(msg, 0x1234, "\0\xff", 3),
         })
    {
        EXPECT_EQ(rc, 0);
    }
    return owner;
}

unique_rpc_msg received(const bytes &arrived, uint32_t data_len)
{
    return unique_rpc_msg(tarn::rpc_msg_from_frame({1, 2, 3, data_len}, arrived));
}

unique_rpc_msg received(const std::string &hex)
{
    bytes data(hex.size() / 2);
    EXPECT_EQ(tarn_str_from_hex(hex.data(), hex.size(), data.data(), data.size()), 0);
    return received(data, static_cast<uint32_t>(data.size()));
}

/** Reads the current element and writes it to another message.
 *  @return false when its value cannot be taken */
bool copy_element(TARN_RPC_MSG_ITER it, TARN_RPC_MSG to)
{
    const uint16_t id = tarn_rpc_msg_element_id(it);
    const uint8_t type = tarn_rpc_msg_element_type(it);
    uint8_t value[64] = {};
    const void *ptr = nullptr;
    uint32_t len = sizeof value;
    uint32_t ptr_len = 0;
    const int rc = tarn_rpc_msg_element_value(it, value, &len);
    EXPECT_EQ(tarn_rpc_msg_element_value_ptr(it, &ptr, &ptr_len), rc);
    switch (type)
    {
    case MSG_ELM_TYPE_OBJECT_BEGIN:
        return tarn_rpc_msg_write_object_begin(to, id) == 0;
    case MSG_ELM_TYPE_OBJECT_END:
        return tarn_rpc_msg_write_object_end(to) == 0;
    case MSG_ELM_TYPE_ARRAY_BEGIN:
        return tarn_rpc_msg_write_array_begin(to, id) == 0;
    case MSG_ELM_TYPE_ARRAY_END:
        return tarn_rpc_msg_write_array_end(to) == 0;
    default:
        EXPECT_EQ(rc == 0 ? len : 0, ptr_len);
        return rc == 0 && tarn_rpc_msg_write_element_value(to, id, type, value, len) == 0;
    }
}

/** Copies a message with elements up to the first that cannot be taken, which must be the last. */
unique_rpc_msg copy(const unique_rpc_msg &msg)
{
    unique_rpc_msg to(tarn_rpc_msg_create());
    TARN_RPC_MSG_ITER it = nullptr;
    EXPECT_EQ(tarn_rpc_msg_read_begin(msg.get(), &it), 0);
    bool whole = true;
    do
    {
        EXPECT_TRUE(whole);
        whole = copy_element(it, to.get());
    } while (tarn_rpc_msg_read_next(&it) == 0);
    EXPECT_EQ(it, nullptr);
    return to;
}

// ---- the format ----------------------------------------------------------------------------------

TEST(RpcMsg, BytesAreThoseOfTheTable)
{
    const auto msg = make_table();
    EXPECT_EQ(hex_of(msg), table_hex());
    EXPECT_EQ(hex_of(copy(received(table_hex()))), table_hex());
    TARN_RPC_MSG_ITER it = nullptr;
    EXPECT_EQ(tarn_rpc_msg_read_begin(msg.get(), &it), 0);
    for (const uint32_t count : {9, 0, 0, 0, 0, 0, 0, 0, 0, 2})
    {
        EXPECT_EQ(tarn_rpc_msg_element_child_count(it), count);
        EXPECT_EQ(tarn_rpc_msg_next_element(it), 0);
    }
    tarn_rpc_msg_read_end(&it);
}

TEST(RpcMsg, IndependentReaderAndWriterAgree)
{
    auto python = support::child_process::program(
        {"/usr/bin/env", "python3", TARN_TEST_DATA_DIR "/rpc_msg.py", hex_of(make_table())});
    for (const table_row &row : table)
    {
        EXPECT_EQ(python.read_line(), row.line);
    }
    EXPECT_EQ(python.read_line(), table_hex());
    EXPECT_EQ(python.wait(), 0);
}

// ---- writing -------------------------------------------------------------------------------------

TEST(RpcMsg, RefusedElementsLeaveTheMessageAsItWas)
{
    expect_checks({"RVOF(elm_id != 0,-2)", "RVOF(elm_id != 0,-1)", "RVON(msg_h,-1)",
                   "RVOF(value != NULL || !has_value,-1)"});
    const auto owner = make_table();
    const TARN_RPC_MSG msg = owner.get();
    log_capture log;
    using refusal = std::tuple<int, uint16_t, uint8_t, uint32_t, const char *>;
    for (const auto &[expected, id, type, len, line] : {
             refusal(-2, 0, MSG_ELM_TYPE_UINT8, 1, "elm_id != 0"),
             refusal(-1, 1, MSG_ELM_TYPE_OBJECT_BEGIN, 0, "unexpected elm_type [1]"),
             refusal(-1, 1, MSG_ELM_TYPE_ARRAY_END, 0, "unexpected elm_type [4]"),
             refusal(-1, 1, MSG_ELM_TYPE_UINT16, 4, "len [4] for type [31], expect len [2]!"),
             refusal(-1, 1, 99, 1, "invalid value len [1] for type [99], expect len [0]!"),
         })
    {
        const uint64_t value = 0;
        EXPECT_EQ(tarn_rpc_msg_write_element_value(msg, id, type, &value, len), expected);
        EXPECT_TRUE(log.contains(line)) << line;
    }
    EXPECT_EQ(write_text(msg, 1, nullptr), -1);
    EXPECT_EQ(tarn_rpc_msg_write_element_value(msg, 1, MSG_ELM_TYPE_INT8, nullptr, 0), -1);
    EXPECT_EQ(write_null(nullptr, 1), -1);
    EXPECT_EQ(tarn_rpc_msg_write_object_begin(msg, 0), -1);
    EXPECT_EQ(tarn_rpc_msg_write_array_end(msg), -1);
    EXPECT_TRUE(log.contains("error", "invalid operation"));
    EXPECT_EQ(hex_of(owner), table_hex());
}

TEST(RpcMsg, ArraysHoldOneTypeAndEndAsArrays)
{
    const unique_rpc_msg owner(tarn_rpc_msg_create());
    const TARN_RPC_MSG msg = owner.get();
    log_capture log;
    expect_checks({"RVOF(0 == rc,rc)"});
    EXPECT_EQ(tarn_rpc_msg_write_array_begin(msg, 1), 0);
    EXPECT_EQ(tarn_rpc_msg_write_object_end(msg), -1);
    EXPECT_EQ(write<int8_t>(msg, 2, MSG_ELM_TYPE_INT8, 5), 0);
    EXPECT_EQ(write_text(msg, 3, "x"), -1);
    EXPECT_TRUE(log.contains("error", "elm_type [60] mismatch, expect [20]"));
    EXPECT_EQ(tarn_rpc_msg_write_object_begin(msg, 3), -1);
    EXPECT_EQ(tarn_rpc_msg_write_array_end(msg), 0);
    EXPECT_EQ(tarn_rpc_msg_write_array_begin(msg, 4), 0);
    EXPECT_EQ(write_null(msg, 5), 0); // a type like any other
    EXPECT_EQ(write<int8_t>(msg, 6, MSG_ELM_TYPE_INT8, 5), -1);
    EXPECT_EQ(tarn_rpc_msg_write_array_end(msg), 0);
    EXPECT_EQ(hex_of(owner), "0300010000000114000205040001"
                             "03000400000001000005040004");
}

TEST(RpcMsg, ObjectsNestWithoutLimitAndMayBeLeftOpen)
{
    const unique_rpc_msg msg(tarn_rpc_msg_create());
    constexpr uint16_t depth = 3 * tarn::rpc_own_open_objects;
    std::string expected;
    for (uint16_t i = 1; i <= depth; ++i)
    {
        EXPECT_EQ(tarn_rpc_msg_write_object_begin(msg.get(), i), 0);
        expected += "01" + number(i, 2) + number(i > 2 && i < depth ? 1 : 0, 4);
    }
    for (uint16_t i = depth; i > 2; --i)
    {
        EXPECT_EQ(tarn_rpc_msg_write_object_end(msg.get()), 0);
        expected += "02" + number(i, 2);
    }
    EXPECT_EQ(hex_of(msg), expected);
    for (uint16_t i = 1; i < depth; ++i)
    {
        EXPECT_EQ(tarn_rpc_msg_write_object_begin(msg.get(), i), 0);
    }
}

TEST(RpcMsg, GrowsByStepsAndNeverPastItsLimit)
{
    const unique_rpc_msg owner(tarn_rpc_msg_create());
    const TARN_RPC_MSG msg = owner.get();
    EXPECT_EQ(write_text(msg, 1, std::string(65536 - 8, 'b').c_str()), 0);
    EXPECT_EQ(msg->capacity, 65536u);
    EXPECT_EQ(write<uint8_t>(msg, 2, MSG_ELM_TYPE_UINT8, 7), 0);
    EXPECT_EQ(msg->capacity, 2u * 65536);
    EXPECT_EQ(write_text(msg, 3, std::string(200000, 'l').c_str()), 0);
    EXPECT_EQ(msg->capacity, 5u * 65536);
    const uint32_t before = msg->data_len;
    expect_checks(
        {"RVOF(capacity <= max_capacity,false)", "RVOF(tarn::grow(msg_h, element_size),-1)"});
    for (const uint32_t len : {0xFFFFFFFFu, 0xFFFFFFF8u, 0xFFFFFFF7u, 0xFFFF0000u})
    {
        EXPECT_EQ(write_text(msg, 4, "", len), -1);
    }
    EXPECT_EQ(msg->data_len, before);
}

TEST(RpcMsg, FailingAllocationsLeaveAMessageThatCanBeReleased)
{
    expect_checks({"RVON(data,TARN_INVALID_HANDLE)", "RVON(msg,TARN_INVALID_HANDLE)",
                   "RVON(further,-1)", "RVOF(grow(msg_h, size),-1)", "RVON(data,false)",
                   "RVON(it,-1)"});
    const uint32_t filling = 65536 - 7 * tarn::rpc_own_open_objects;
    const size_t failures = support::fail_each_allocation([&](size_t) {
        const unique_rpc_msg msg(tarn_rpc_msg_create());
        const unique_rpc_msg incomplete = received({MSG_ELM_TYPE_NULL, 0, 1}, 10);
        if (!msg || !incomplete)
        {
            EXPECT_TRUE(support::allocation_failed());
            return;
        }
        EXPECT_EQ(write_text(msg.get(), 1, std::string(filling - 8, 'f').c_str()), 0);
        uint32_t count = 0;
        while (count <= tarn::rpc_own_open_objects &&
               tarn_rpc_msg_write_object_begin(msg.get(), 2) == 0)
        {
            ++count;
        }
        EXPECT_EQ(tarn_rpc_msg_data_len(msg.get()), filling + 7 * count);
        TARN_RPC_MSG_ITER it = nullptr;
        const int rc = tarn_rpc_msg_read_begin(msg.get(), &it);
        EXPECT_EQ(rc == 0, it != nullptr);
        tarn_rpc_msg_read_end(&it);
    });
    // two messages of two blocks each, more data, a fifth open object, an iterator; log lines
    EXPECT_GE(failures, 7u);
}

TEST(RpcMsg, BuildingAndReadingAllocatesMessageAndIteratorOnly)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO); // dumps need memory
    static std::atomic<size_t> count{0};
    tarn::mem_fail_hook.store([](size_t) {
        count.fetch_add(1);
        return false;
    });
    {
        const auto msg = copy(make_table());
        uint8_t value = 0;
        EXPECT_EQ(tarn_rpc_msg_read_element(msg.get(), 21, MSG_ELM_TYPE_BOOL, &value, 1, nullptr),
                  0);
    }
    tarn::mem_fail_hook.store(nullptr);
    EXPECT_EQ(count.load(), 5u); // two messages of two blocks and an iterator
}

// ---- reading -------------------------------------------------------------------------------------

TEST(RpcMsg, IteratorEndsOnceAndKeepsTheMessage)
{
    const TARN_RPC_MSG msg = tarn_rpc_msg_create();
    TARN_RPC_MSG_ITER it = nullptr;
    EXPECT_EQ(tarn_rpc_msg_read_begin(msg, &it), 0); // at the end from the start
    expect_checks({"RVOF((*it)->offset < (*it)->msg->data_len,TARN_ERRLN)", "RVON(itor,TARN_ERRLN)",
                   "RVOF(it->offset < it->msg->data_len,-1)",
                   "RVOF(it->offset < it->msg->data_len,0)",
                   "RVOF(it->offset < it->msg->data_len,TARN_RPC_INVALID_ELEM_ID)",
                   "RVOF(it->offset < it->msg->data_len,MSG_ELM_TYPE_NULL)", "RVON(it,-1)",
                   "RVON(elm_value,-2)", "RVON(elm_value_len,-3)"});
    const void *value = nullptr;
    uint32_t size = 0;
    EXPECT_LT(tarn_rpc_msg_read_next(&it), 0);
    ASSERT_NE(it, nullptr);
    EXPECT_EQ(tarn_rpc_msg_next_element(it), -1);
    EXPECT_EQ(tarn_rpc_msg_element_id(it), TARN_RPC_INVALID_ELEM_ID);
    EXPECT_EQ(tarn_rpc_msg_element_type(it), MSG_ELM_TYPE_NULL);
    EXPECT_EQ(tarn_rpc_msg_element_child_count(it), 0u);
    EXPECT_EQ(tarn_rpc_msg_element_value_ptr(it, &value, &size), -1);
    EXPECT_EQ(tarn_rpc_msg_element_value(it, &value, &size), -1);
    EXPECT_EQ(write<uint8_t>(msg, 1, MSG_ELM_TYPE_UINT8, 9), 0); // now there is an element
    EXPECT_EQ(tarn_rpc_msg_element_value_ptr(it, nullptr, &size), -2);
    EXPECT_EQ(tarn_rpc_msg_element_value(it, nullptr, &size), -2);
    EXPECT_EQ(tarn_rpc_msg_element_value(it, &value, nullptr), -3);
    log_capture log;
    EXPECT_EQ(tarn_rpc_msg_element_value(it, &value, &size), -2);
    EXPECT_TRUE(log.contains("error", "element type [30], value_len [0] < actual size [1]"));
    EXPECT_EQ(tarn_rpc_msg_release(msg), 1); // the iterator's
    EXPECT_EQ(tarn_rpc_msg_element_id(it), 1);
    EXPECT_EQ(tarn_rpc_msg_next_element(it), -2);
    tarn_rpc_msg_read_end(&it);
    EXPECT_LT(tarn_rpc_msg_read_next(&it), 0);
    EXPECT_EQ(tarn_rpc_msg_next_element(nullptr), -1);
    tarn_rpc_msg_read_end(nullptr);
}

TEST(RpcMsg, LookupsFindTheFirstAtAnyDepthAndNameEachFailure)
{
    const auto owner = make_table();
    const TARN_RPC_MSG msg = owner.get();
    log_capture log;
    uint32_t n = 0;
    uint32_t size = 0;
    const void *ptr = nullptr;
    EXPECT_EQ(tarn_rpc_msg_read_element(msg, 13, MSG_ELM_TYPE_UINT32, &n, sizeof n, &size), 0);
    EXPECT_EQ(n, 0x12345678u);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(tarn_rpc_msg_get_element_ptr(msg, 20, MSG_ELM_TYPE_STRING, &ptr, &size), 0);
    EXPECT_EQ(std::string_view(static_cast<const char *>(ptr), size), "ab");
    using failure = std::tuple<int, int, TARN_RPC_MSG, uint16_t, uint8_t, const char *>;
    for (const auto &[read, get, where, id, type, line] : {
             failure(-1880, -1933, nullptr, 13, MSG_ELM_TYPE_UINT32, "failed to read message!"),
             failure(-1884, -1937, msg, 7, MSG_ELM_TYPE_UINT32, ""),
             failure(-1884, -1937, msg, 0, MSG_ELM_TYPE_NULL, ""),
             failure(-1891, -1944, msg, 13, MSG_ELM_TYPE_INT32, "type [32], expect [22]"),
             failure(-1902, -1960, msg, 10, MSG_ELM_TYPE_OBJECT_BEGIN, "invalid elm_type [1]"),
         })
    {
        EXPECT_EQ(tarn_rpc_msg_read_element(where, id, type, &n, sizeof n, &size), read);
        EXPECT_EQ(tarn_rpc_msg_get_element_ptr(where, id, type, &ptr, &size), get);
        EXPECT_TRUE(log.contains(line)) << line;
    }
    EXPECT_TRUE(log.contains("error", "failed to read element value, rc = [-1]"));
    EXPECT_TRUE(log.contains("failed to get element [10] pointer with type [1], rc = [-1]"));
    EXPECT_EQ(tarn_rpc_msg_read_element(msg, 13, MSG_ELM_TYPE_UINT32, &n, 3, nullptr), -1902);
    EXPECT_EQ(n, 0x12345678u);
    EXPECT_EQ(msg->ref_count, 1u);
}

// ---- received messages ---------------------------------------------------------------------------

TEST(RpcMsg, DataCutAtAnyByteGivesTheElementsBeforeTheCut)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    std::string before;
    for (const table_row &row : table)
    {
        const std::string hex = row.hex;
        if (hex[0] == '0' && hex[1] < '5' && hex[1] > '0') // counts come after the fact
        {
            const auto cut = received("00ffff" + hex.substr(0, hex.size() - 2));
            EXPECT_EQ(hex_of(copy(cut)).substr(0, 6), "00ffff");
            continue;
        }
        for (size_t length = 0; length < hex.size(); length += 2)
        {
            const auto msg = received("00ffff" + before + hex.substr(0, length));
            EXPECT_EQ(hex_of(copy(msg)), "00ffff" + before);
            uint64_t value[2];
            EXPECT_NE(
                tarn_rpc_msg_read_element(msg.get(), 26, MSG_ELM_TYPE_BYTES16, value, 16, nullptr),
                0);
        }
        before += hex;
    }
}

TEST(RpcMsg, LyingStringLengthEndsTheWalk)
{
    for (const uint32_t length : {4u, 5u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFF0u, 0xFFFFFFF8u,
                                  0xFFFFFFF9u, 0xFFFFFFFCu, 0xFFFFFFFFu})
    {
        const auto msg = received("0000013c0002" + number(length, 4) + "00000000");
        EXPECT_EQ(hex_of(copy(msg)), "000001") << length;
        const void *ptr = nullptr;
        uint32_t size = 0;
        EXPECT_EQ(tarn_rpc_msg_get_element_ptr(msg.get(), 2, MSG_ELM_TYPE_STRING, &ptr, &size),
                  -1960);
        EXPECT_EQ(tarn_rpc_msg_read_element(msg.get(), 3, MSG_ELM_TYPE_NULL, &size, 0, nullptr),
                  -1884);
    }
}

TEST(RpcMsg, FrameGivesFieldsAndStatedLength)
{
    const auto owner = received({MSG_ELM_TYPE_UINT8, 0, 1, 42, 43}, 4);
    const TARN_RPC_MSG msg = owner.get();
    EXPECT_EQ(hex_of(owner), "1e00012a"); // the rest is left out
    EXPECT_EQ(tarn_rpc_msg_data(msg)[4], 0);
    EXPECT_EQ(msg->seq_no, 1u);
    EXPECT_EQ(msg->msg_id, 2u);
    EXPECT_EQ(msg->rsp_flag_or_code, 3u);
    EXPECT_EQ(tarn_rpc_msg_seq_no(msg), 0x01000000u);
    EXPECT_EQ(tarn_rpc_msg_id(msg), 0x02000000u);
    EXPECT_EQ(tarn_rpc_msg_time_stamp(msg), 0u);
    tarn_rpc_msg_set_time_stamp(msg, tarn_tick_ms() - 5000);
    EXPECT_GE(tarn_rpc_msg_elapsed_ms(msg), 5000u);
    tarn_rpc_msg_set_user_value(msg, UINT64_MAX);
    EXPECT_EQ(tarn_rpc_msg_user_value(msg), UINT64_MAX);
    tarn_close_handle(msg); // no kind: does nothing
    EXPECT_EQ(tarn_rpc_msg_add_ref(msg), 2);
    EXPECT_EQ(tarn_rpc_msg_release(msg), 1);
    expect_checks({"RVON(msg_h,TARN_ERRLN)"});
    EXPECT_LT(tarn_rpc_msg_add_ref(nullptr), 0);
    EXPECT_LT(tarn_rpc_msg_release(nullptr), 0);
}

TEST(RpcMsg, BytesThatNeverCameAreZerosAndCostNothing)
{
    const auto resident_pages = [] {
        const std::string statm = support::read_file("/proc/self/statm");
        return std::stoul(statm.substr(statm.find(' ')));
    };
    constexpr uint32_t stated = 1U << 26;
    const size_t start = resident_pages();
    tarn::unique_mem<uint8_t> zeros(tarn_mem_alloc(stated)); // tools for testing may write them
    const size_t zero_pages = resident_pages() - start;
    zeros.reset();
    const size_t before = resident_pages();
    const bytes one = {MSG_ELM_TYPE_UINT8, 0, 1, 42};
    const auto msg = received(one, stated);
    EXPECT_EQ(tarn_rpc_msg_data_len(msg.get()), stated);
    uint8_t value = 0;
    EXPECT_EQ(tarn_rpc_msg_read_element(msg.get(), 1, MSG_ELM_TYPE_UINT8, &value, 1, nullptr), 0);
    EXPECT_EQ(tarn_rpc_msg_read_element(msg.get(), 7, MSG_ELM_TYPE_UINT8, &value, 1, nullptr),
              -1884);
    EXPECT_EQ(tarn_rpc_msg_data(msg.get())[stated - 1], 0);
    EXPECT_LT(resident_pages(), before + zero_pages + 2048);

    static std::atomic<size_t> asked{0};
    support::expect_check("RVON(data,TARN_INVALID_HANDLE)");
    tarn::mem_fail_hook.store([](size_t size) {
        size_t none = 0;
        return asked.compare_exchange_strong(none, size);
    });
    EXPECT_FALSE(received(one, UINT32_MAX));
    tarn::mem_fail_hook.store(nullptr);
    EXPECT_EQ(asked.load(), size_t{1} << 32);
}

TEST(RpcMsg, LastOfManyThreadsFreesTheMessage)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
    constexpr int rounds = support::with_sanitizer ? 300 : 3000;
    auto msg = make_table();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        (void)tarn_rpc_msg_add_ref(msg.get());
        threads.emplace_back([shared = unique_rpc_msg(msg.get())] {
            for (int round = 0; round < rounds; ++round)
            {
                TARN_RPC_MSG_ITER it = nullptr;
                EXPECT_EQ(tarn_rpc_msg_read_begin(shared.get(), &it), 0);
                EXPECT_EQ(tarn_rpc_msg_next_element(it), 0);
                EXPECT_GT(tarn_rpc_msg_add_ref(shared.get()), 1);
                tarn_rpc_msg_read_end(&it);
                EXPECT_GT(tarn_rpc_msg_release(shared.get()), 0);
            }
        });
    }
    msg.reset();
    for (std::thread &thread : threads)
    {
        thread.join();
    }
}

} // namespace
