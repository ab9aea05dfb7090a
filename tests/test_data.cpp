// Typed data values: the conversion tables, raw access, lists, the byte form, memory that runs out.

#include "support.h"

#include "tarn_data.h"
#include "tarn_data_internal.h"
#include "tarn_mem_internal.h"

#include <array>
#include <cstring>
#include <limits>

using support::allocation_failed;
using support::expect_check;
using support::fail_each_allocation;
using support::log_capture;
using tarn::unique_data;
using namespace std::string_literals;

namespace
{

constexpr const char *fails = "fails";
constexpr double not_a_number = std::numeric_limits<double>::quiet_NaN();
constexpr double infinite = std::numeric_limits<double>::infinity();

template <typename T>
unique_data make(uint8_t type, T value)
{
    return unique_data(tarn_data_alloc(type, &value, nullptr));
}

/** A string of exactly these bytes. */
unique_data text(std::string_view bytes)
{
    const auto length = static_cast<uint32_t>(bytes.size());
    return unique_data(tarn_data_alloc(TARN_DATA_TYPE_STRING, bytes.data(), &length));
}

unique_data null_value()
{
    return unique_data(tarn_data_alloc(TARN_DATA_TYPE_NULL, nullptr, nullptr));
}

std::string bytes_of(TARN_DATA string)
{
    return {tarn_data_get_str_buffer(string), tarn_data_get_str_len(string)};
}

template <typename T>
std::string shown(T value)
{
    char out[32];
    std::snprintf(out, sizeof out, "%.*g", sizeof value == 4 ? 9 : 17, static_cast<double>(value));
    return std::is_floating_point_v<T> ? out : std::to_string(value);
}

template <typename T>
std::string got(bool (*get)(TARN_DATA, T *), TARN_DATA data)
{
    T value = 77;
    const bool done = get(data, &value);
    EXPECT_TRUE(done || value == 77) << "written on failure";
    return done ? shown(value) : "-";
}

/** All getters of numbers, in the order of the type codes; "-" for a failure. */
std::string got_numbers(TARN_DATA d)
{
    return got(tarn_data_get_as_boolean, d) + " " + got(tarn_data_get_as_uint8, d) + " " +
           got(tarn_data_get_as_uint16, d) + " " + got(tarn_data_get_as_uint32, d) + " " +
           got(tarn_data_get_as_uint64, d) + " " + got(tarn_data_get_as_int8, d) + " " +
           got(tarn_data_get_as_int16, d) + " " + got(tarn_data_get_as_int32, d) + " " +
           got(tarn_data_get_as_int64, d) + " " + got(tarn_data_get_as_float, d) + " " +
           got(tarn_data_get_as_double, d);
}

std::string got_text(TARN_DATA data)
{
    char out[128];
    int32_t length = sizeof out;
    if (!tarn_data_get_as_string(data, out, &length))
    {
        return fails;
    }
    EXPECT_EQ(length, static_cast<int32_t>(std::strlen(out)) + 1);
    return out;
}

// ---- conversion tables ---------------------------------------------------------------------------

TEST(DataGet, EveryStoredTypeGivesTheStatedResults)
{
    const tarn_data_pair pair = {0x8000000100000102, 7};
    unique_data bare_pair = make(TARN_DATA_TYPE_PAIR, pair);
    tarn_mem_free(std::exchange(bare_pair.get()->word.pair, nullptr));
    const struct
    {
        unique_data value;
        const char *numbers; // boolean, uint8 to uint64, int8 to int64, float, double
        std::string text;
    } rows[] = {
        // clang-format off
        {null_value(), "0 0 0 0 0 0 0 0 0 0 0", "nil"},
        {make<uint8_t>(TARN_DATA_TYPE_BOOLEAN, 1), "1 1 1 1 1 1 1 1 1 1 1", "true"},
        {make<uint8_t>(TARN_DATA_TYPE_BOOLEAN, 200), "200 200 200 200 200 -56 200 200 200 200 200", "true"},
        {make<uint8_t>(TARN_DATA_TYPE_UINT8, 200), "1 200 200 200 200 -56 200 200 200 200 200", "200"},
        {make<int8_t>(TARN_DATA_TYPE_INT8, -2), "1 254 65534 4294967294 18446744073709551614 -2 -2 -2 -2 -2 -2", "-2"},
        {make<uint16_t>(TARN_DATA_TYPE_UINT16, 0xFF00), "1 0 65280 65280 65280 0 -256 65280 65280 65280 65280", "65280"},
        {make<int16_t>(TARN_DATA_TYPE_INT16, -32767), "1 1 32769 4294934529 18446744073709518849 1 -32767 -32767 -32767 -32767 -32767", "-32767"},
        {make<uint32_t>(TARN_DATA_TYPE_UINT32, 0xFFFFFF80), "1 128 65408 4294967168 4294967168 -128 -128 -128 4294967168 4.2949673e+09 4294967168", "4294967168"},
        {make<int32_t>(TARN_DATA_TYPE_INT32, -3), "1 253 65533 4294967293 18446744073709551613 -3 -3 -3 -3 -3 -3", "-3"},
        {make<uint64_t>(TARN_DATA_TYPE_UINT64, 0x100000005), "1 5 5 5 4294967301 5 5 5 4294967301 4.2949673e+09 4294967301", "5l"},
        {make<uint64_t>(TARN_DATA_TYPE_UINT64, 0x8000000000000000), "1 0 0 0 9223372036854775808 0 0 0 -9223372036854775808 9.22337204e+18 9.2233720368547758e+18", "0l"},
        {make<int64_t>(TARN_DATA_TYPE_INT64, -4294967297), "1 255 65535 4294967295 18446744069414584319 -1 -1 -1 -4294967297 -4.2949673e+09 -4294967297", "-1l"},
        {make<float>(TARN_DATA_TYPE_FLOAT, -2.5f), "1 254 65534 4294967294 18446744073709551614 -2 -2 -2 -2 -2.5 -2.5", "-2.500000"},
        {make<float>(TARN_DATA_TYPE_FLOAT, 300.75f), "1 44 300 300 300 44 300 300 300 300.75 300.75", "300.750000"},
        {make<double>(TARN_DATA_TYPE_DOUBLE, 2.9), "1 2 2 2 2 2 2 2 2 2.9000001 2.8999999999999999", "2.900000l"},
        {make<double>(TARN_DATA_TYPE_DOUBLE, 0x1.8p63), "1 255 65535 4294967295 13835058055282163712 -1 -1 -1 9223372036854775807 1.38350581e+19 1.3835058055282164e+19", "13835058055282163712.000000l"},
        {make<double>(TARN_DATA_TYPE_DOUBLE, -1e30), "1 0 0 0 9223372036854775808 0 0 0 -9223372036854775808 -1.00000002e+30 -1e+30", "-1000000000000000019884624838656.000000l"},
        {make<double>(TARN_DATA_TYPE_DOUBLE, infinite), "1 255 65535 4294967295 18446744073709551615 -1 -1 -1 9223372036854775807 inf inf", "infl"},
        {make<double>(TARN_DATA_TYPE_DOUBLE, not_a_number), "1 0 0 0 0 0 0 0 0 nan nan", "nanl"},
        {make<double>(TARN_DATA_TYPE_DOUBLE, 1e308), "1 255 65535 4294967295 18446744073709551615 -1 -1 -1 9223372036854775807 inf 1e+308", // 316 characters, cut
         "100000000000000001097906362944045541740492309677311846336810682903157585404911491537163328978494688"},
        {make<uint64_t>(TARN_DATA_TYPE_POINTER, 0x1FFFFFFFE), "1 254 65534 4294967294 18446744073709551614 -2 -2 -2 -2 -2 -2", "0x1fffffffe"},
        {make<uint64_t>(TARN_DATA_TYPE_POINTER, 0x100000000), "1 0 0 0 0 0 0 0 0 0 0", "0x100000000"},
        {make(TARN_DATA_TYPE_PAIR, pair), "1 2 258 258 9223372041149743362 2 258 258 -9223372032559808254 9.22337204e+18 9.2233720411497431e+18", "9223372041149743362,7"},
        {std::move(bare_pair), "0 0 0 0 0 0 0 0 0 0 0", fails},
        {text("TRUE\0"s), "1 - - - - - - - - - -", "TRUE"},
        {text("False"), "0 - - - - - - - - - -", "False"},
        {text("yes"), "- - - - - - - - - - -", "yes"},
        {text(" -1\0"s), "- 255 65535 4294967295 4294967295 -1 -1 -1 4294967295 -1 -1", " -1"},
        {text("0x1234567890"), "- 144 30864 878082192 878082192 -112 30864 878082192 878082192 7.81874954e+10 78187495424", "0x1234567890"},
        {text("0107l"), "- 71 71 71 71 71 71 71 71 107 107", "0107l"},
        {text("0x"), "- 0 0 0 0 0 0 0 0 - -", "0x"},
        {text("0.1fl"), "- 0 0 0 0 0 0 0 0 0.100000001 0.10000000149011612", "0.1fl"},
        {text("+99999999999999999999"), "- 255 65535 4294967295 4294967295 -1 -1 -1 4294967295 1.00000002e+20 1.0000000200408773e+20", "+99999999999999999999"},
        {text("7\0009"s), "- 7 7 7 7 7 7 7 7 7 7", "7"},
        {text(" \t\n"), "- - - - - - - - - - -", " \t\n"},
        {text(std::string(150, 'a')), "- - - - - - - - - - -", std::string(99, 'a')},
        // clang-format on
    };
    for (const auto &row : rows)
    {
        EXPECT_EQ(got_numbers(row.value.get()), row.numbers);
        EXPECT_EQ(got_text(row.value.get()), row.text);
    }
}

TEST(DataGet, TextIsPaddedWithinItsRoom)
{
    const unique_data value = make<uint8_t>(TARN_DATA_TYPE_BOOLEAN, 0);
    std::string out(9, 'x');
    for (const int32_t room : {-1, 0, 5})
    {
        int32_t length = room;
        EXPECT_FALSE(tarn_data_get_as_string(value.get(), out.data(), &length));
        EXPECT_EQ(length, room);
        EXPECT_EQ(out, "xxxxxxxxx");
    }
    int32_t length = 8;
    EXPECT_TRUE(tarn_data_get_as_string(value.get(), out.data(), &length));
    EXPECT_EQ(length, 6);
    EXPECT_EQ(out, "false\0\0\0x"s);
}

/** A value as setters find it. */
unique_data fresh(uint8_t type)
{
    return type == TARN_DATA_TYPE_STRING ? text("abcd") : make(type, tarn_data_pair{});
}

/** The raw value, whatever its type. */
std::string stored(TARN_DATA data)
{
    if (tarn_data_get_type(data) == TARN_DATA_TYPE_STRING)
    {
        return bytes_of(data);
    }
    // The getter of the value's own type gives the raw value; a pointer's does not.
    uint64_t word = 0;
    EXPECT_TRUE(tarn_data_get_value(data, &word, nullptr));
    std::istringstream columns(got_numbers(data));
    std::string column = shown(word);
    for (int i = TARN_DATA_TYPE_NULL; data->type < TARN_DATA_TYPE_POINTER && i < data->type; ++i)
    {
        columns >> column;
    }
    return column;
}

TEST(DataSet, EverySourceGivesTheStatedResults)
{
#define SET(type, value)                                                                           \
#type " " #value, [](TARN_DATA d) { return tarn_data_set_as_##type(d, value); }
    const struct
    {
        const char *name;
        bool (*set)(TARN_DATA);
        const char *expected; // boolean, uint8 to uint64, int8 to int64, float, double, pointer
        std::string text;
    } rows[] = {
        // clang-format off
        {SET(boolean, 2), "2 2 2 2 2 2 2 2 2 2 2 2", "true\0"s},
        {SET(boolean, 0), "0 0 0 0 0 0 0 0 0 0 0 0", "false\0"s},
        {SET(uint8, 200), "1 200 200 200 200 -56 200 200 200 200 200 200", "200\0"s},
        {SET(int8, -2), "1 254 65534 4294967294 18446744073709551614 -2 -2 -2 -2 -2 -2 18446744073709551614", "-2\0"s},
        {SET(uint16, 0xFF00), "1 0 65280 65280 65280 0 -256 65280 65280 65280 65280 65280", "65280\0"s},
        {SET(int16, -300), "1 212 65236 4294966996 18446744073709551316 -44 -300 -300 -300 -300 -300 18446744073709551316", "-300\0"s},
        {SET(uint32, 0xFFFFFFFE), "1 254 65534 4294967294 4294967294 -2 -2 -2 4294967294 4.2949673e+09 4294967294 4294967294", "4294967294\0"s},
        {SET(int32, -1), "1 255 65535 4294967295 18446744073709551615 -1 -1 -1 -1 -1 -1 18446744073709551615", "-1\0"s},
        {SET(uint64, 0x1FFFFFFFE), "1 254 65534 4294967294 8589934590 -2 -2 -2 8589934590 8.58993459e+09 8589934590 18446744073709551614", "4294967294l\0"s},
        {SET(int64, -4294967291), "1 5 5 5 18446744069414584325 5 5 5 -4294967291 -4.2949673e+09 -4294967291 5", "5l\0"s},
        {SET(float, 2.5f), "1 2 2 2 2 2 2 2 2 2.5 2.5 2", "2.500000\0"s},
        {SET(float, -300.9f), "1 212 65236 4294966996 18446744073709551316 -44 -300 -300 -300 -300.899994 -300.89999389648438 18446744073709551316", "-300.899994\0"s},
        {SET(float, 0x1p63f), "1 255 65535 4294967295 9223372036854775808 -1 -1 -1 9223372036854775807 9.22337204e+18 9.2233720368547758e+18 2147483647", "9223372036854775808.000000\0"s},
        {SET(float, static_cast<float>(not_a_number)), "1 0 0 0 0 0 0 0 0 nan nan 0", "nan\0"s},
        {SET(double, 2.5), "1 3 3 3 3 3 3 3 3 2.5 2.5 2", "2.500000l\0"s},
        {SET(double, -2.5), "1 253 65533 4294967293 18446744073709551613 -3 -3 -3 -3 -2.5 -2.5 18446744073709551614", "-2.500000l\0"s},
        {SET(double, 0.49999999999999994), "1 1 1 1 1 1 1 1 1 0.5 0.49999999999999994 0", "0.500000l\0"s},
        {SET(double, 0x1.8p63), "1 255 65535 4294967295 13835058055282163712 -1 -1 -1 9223372036854775807 1.38350581e+19 1.3835058055282164e+19 2147483647", "13835058055282163712.000000l\0"s},
        {SET(double, -infinite), "1 0 0 0 9223372036854775808 0 0 0 -9223372036854775808 -inf -inf 18446744071562067968", "-infl\0"s},
        // a string keeps its length
        {SET(string, "True"), "1 - - - - - - - - - - -", "True"},
        {SET(string, "-4294967297"), "- 255 65535 4294967295 18446744069414584319 -1 -1 -1 -1 -4.2949673e+09 -4294967297 18446743787748822377", "-429"},
        {SET(string, "0x1FFFFFFFF"), "- 255 65535 4294967295 8589934591 -1 -1 -1 -1 8.58993459e+09 8589934591 8589934591", "0x1F"},
        {SET(string, "18446744073709551615"), "- 255 65535 4294967295 18446744073709551615 -1 -1 -1 -1 1.84467441e+19 1.8446744073709552e+19 18446744073709551615", "1844"},
        {SET(string, "0.1"), "- 0 0 0 0 0 0 0 0 0.100000001 0.10000000000000001 0", "0.1\0"s},
        {SET(string, "(nil)"), "- - - - - - - - - - - 0", "(nil"},
        {SET(string, ""), "- - - - - - - - - - - -", "\0\0\0\0"s},
        // clang-format on
    };
#undef SET
    for (const auto &row : rows)
    {
        SCOPED_TRACE(row.name);
        std::istringstream expected(row.expected);
        for (uint8_t type = TARN_DATA_TYPE_BOOLEAN; type <= TARN_DATA_TYPE_POINTER; ++type)
        {
            const unique_data value = fresh(type);
            std::string column;
            expected >> column;
            EXPECT_EQ(row.set(value.get()) ? stored(value.get()) : "-", column) << int{type};
            EXPECT_TRUE(column != "-" || stored(value.get()) == "0") << "changed on failure";
        }
        const unique_data string = fresh(TARN_DATA_TYPE_STRING);
        EXPECT_TRUE(row.set(string.get()));
        EXPECT_EQ(bytes_of(string.get()), row.text);
        EXPECT_FALSE(row.set(fresh(TARN_DATA_TYPE_PAIR).get()));
        EXPECT_FALSE(row.set(null_value().get()));
    }
}

TEST(DataSet, SourceMayBeTheOwnBuffer)
{
    const unique_data value = text("abcdef"); // no NUL
    const uint32_t length = 3;
    EXPECT_TRUE(tarn_data_set_as_string(value.get(), tarn_data_get_str_buffer(value.get())));
    EXPECT_EQ(bytes_of(value.get()), "abcdef");
    char *const middle = tarn_data_get_str_buffer(value.get()) + 2;
    EXPECT_TRUE(tarn_data_set_value(value.get(), middle, &length));
    EXPECT_TRUE(tarn_data_copy(value.get(), value.get()));
    EXPECT_EQ(bytes_of(value.get()), "cde");
}

// ---- raw access and copies ------------------------------------------------------------------------

TEST(Data, RawValuesOfEveryTypeComeBack)
{
    for (uint8_t type = TARN_DATA_TYPE_NULL; type < TARN_DATA_TYPE_STRING; ++type)
    {
        const tarn_data_pair in = {0x0102030405060708, 0x090A0B0C};
        std::array<uint8_t, 17> out;
        out.fill(0xEE);
        const unique_data value = make(type, in);
        EXPECT_EQ(tarn_data_get_type(value.get()), type);
        EXPECT_TRUE(tarn_data_get_value(value.get(), out.data(), nullptr));
        const size_t width = tarn::data_type_of(type).width;
        EXPECT_EQ(std::memcmp(out.data(), &in, width), 0);
        EXPECT_EQ(out[width], 0xEE) << int{type};
    }
    for (const uint8_t invalid : std::initializer_list<uint8_t>{0, 16, 255})
    {
        EXPECT_EQ(tarn_data_alloc(invalid, "12345678", nullptr), nullptr);
    }
}

TEST(Data, StringIsReadIntoRoomEnough)
{
    const unique_data value = text("abc");
    char out[4] = "...";
    uint32_t length = 0;
    EXPECT_TRUE(tarn_data_get_value(value.get(), nullptr, &length));
    EXPECT_EQ(length--, 3u);
    EXPECT_FALSE(tarn_data_get_value(value.get(), out, &length));
    EXPECT_STREQ(out, "...");
    length = 4;
    EXPECT_TRUE(tarn_data_get_value(value.get(), out, &length));
    EXPECT_EQ(length, 3u);
    EXPECT_STREQ(out, "abc");

    const log_capture log;
    length = 0;
    EXPECT_EQ(tarn_data_alloc(TARN_DATA_TYPE_STRING, "a", &length), nullptr);
    EXPECT_EQ(tarn_data_alloc(TARN_DATA_TYPE_STRING, "a", nullptr), nullptr);
    EXPECT_FALSE(tarn_data_set_value(value.get(), "x", &length));
    EXPECT_FALSE(tarn_data_set_value(value.get(), "x", nullptr));
    EXPECT_EQ(bytes_of(value.get()), "abc");
    EXPECT_TRUE(log.lines().empty());
}

TEST(Data, CopyTakesTypeOfSourceButKeepsAPairThatIsThere)
{
    const unique_data first = make(TARN_DATA_TYPE_PAIR, tarn_data_pair{1, 1});
    const unique_data second = make(TARN_DATA_TYPE_PAIR, tarn_data_pair{2, 2});
    const unique_data null = null_value();
    EXPECT_TRUE(tarn_data_copy(first.get(), second.get()));
    EXPECT_EQ(got_text(first.get()), "1,1");
    EXPECT_TRUE(tarn_data_copy(null.get(), second.get()));
    EXPECT_EQ(got_text(null.get()), "2,2");

    const unique_data other = text("x");
    EXPECT_TRUE(tarn_data_copy(other.get(), text("longer than before").get()));
    expect_check("RVOF(src->type == dst->type,false)");
    EXPECT_FALSE(tarn_data_copy(other.get(), second.get()));
    EXPECT_FALSE(tarn_data_copy(other.get(), null_value().get()));
    EXPECT_EQ(bytes_of(other.get()), "longer than before");
}

TEST(Data, MissingArgumentsAreRefusedAndLogged)
{
    const unique_data number = make<uint8_t>(TARN_DATA_TYPE_UINT8, 1);
    const unique_data string = text("1");
    const TARN_DATA n = number.get();
    char byte = 1;
    uint8_t small = 1;
    int32_t room = 1;
    const struct
    {
        std::string text;
        std::function<bool()> refused;
    } rows[] = {
        // clang-format off
        {"RVON(param1,NULL)", [&] { return !tarn_data_alloc(TARN_DATA_TYPE_UINT8, nullptr, nullptr); }},
        {"RVON(data,NULL)", [&] { return !tarn_data_dup(nullptr); }},
        {"RVON(data,NULL)", [&] { return !tarn_data_dup_list(nullptr); }},
        {"RVON(param1,false)", [&] { return !tarn_data_set_value(n, nullptr, nullptr); }},
        {"RVON(param2,false)", [&] { return !tarn_data_get_value(string.get(), &byte, nullptr); }},
        {"RVON(data,false)", [&] { return !tarn_data_get_as_uint8(nullptr, &small); }},
        {"RVON(value,false)", [&] { return !tarn_data_get_as_uint8(n, nullptr); }},
        {"RVON(value,false)", [&] { return !tarn_data_get_as_string(n, nullptr, &room); }},
        {"RVON(value,false)", [&] { return !tarn_data_get_as_string(n, &byte, nullptr); }},
        {"RVON(value,false)", [&] { return !tarn_data_set_as_string(n, nullptr); }},
        {"RVON(src,false)", [&] { return !tarn_data_copy(nullptr, nullptr); }},
        {"RVON(dst,false)", [&] { return !tarn_data_copy(nullptr, n); }},
        {"RVON(data_handle,0)", [&] { return tarn_data_write_to_buf(nullptr, &byte, 1) == 0; }},
        {"RVON(buf,0)", [&] { return tarn_data_write_to_buf(n, nullptr, 1) == 0; }},
        {"RVOF(buf_len > 0,0)", [&] { return tarn_data_write_to_buf(n, &byte, 0) == 0; }},
        {"RVON(buf,TARN_INVALID_HANDLE)", [&] { return !tarn_data_alloc_from_buf(nullptr, 1, nullptr); }},
        {"RVOF(buf_len > 0,TARN_INVALID_HANDLE)", [&] { return !tarn_data_alloc_from_buf(&byte, 0, nullptr); }},
        {"RVON(data_handle,false)", [&] { return !tarn_data_add_tail(nullptr, n); }},
        {"RVON(tail_data_handle,false)", [&] { return !tarn_data_add_tail(n, nullptr); }},
        {"RVON(old_head,NULL)", [&] { return !tarn_data_remove_head(nullptr); }},
        {"RVON(data,0)", [&] { return tarn_data_count(nullptr) == 0; }},
        {"RVOF(TARN_DATA_TYPE_STRING == data->type,0)", [&] { return tarn_data_get_str_len(n) == 0; }},
        {"RVOF(TARN_DATA_TYPE_STRING == data->type,NULL)", [&] { return !tarn_data_get_str_buffer(n); }},
        // clang-format on
    };
    for (const auto &row : rows)
    {
        const log_capture log;
        expect_check(row.text);
        EXPECT_TRUE(row.refused()) << row.text;
        EXPECT_TRUE(log.contains("debug", row.text + " failed"));
    }
    EXPECT_EQ(tarn_data_get_next(nullptr), nullptr);
    tarn_data_destroy(nullptr);
}

// ---- lists ----------------------------------------------------------------------------------------

unique_data list_of(std::initializer_list<uint8_t> numbers)
{
    unique_data list;
    for (const uint8_t n : numbers)
    {
        unique_data value = make(TARN_DATA_TYPE_UINT8, n);
        if (list)
        {
            EXPECT_TRUE(tarn_data_add_tail(list.get(), value.release()));
        }
        else
        {
            list = std::move(value);
        }
    }
    return list;
}

/** The numbers of a list, whose links are held against each other. */
std::vector<int> numbers_of(TARN_DATA list)
{
    std::vector<int> numbers;
    TARN_DATA last = list;
    for (TARN_DATA data = list; data != nullptr; last = std::exchange(data, data->next))
    {
        EXPECT_EQ(tarn_data_get_at(list, static_cast<uint32_t>(numbers.size())), data);
        EXPECT_EQ(data == list, data->role != TARN_DATA_ROLE_CHILD);
        EXPECT_TRUE(data == list || (data->tail == data && data->count == 1));
        numbers.push_back(std::stoi(got_text(data)));
    }
    EXPECT_EQ(list->tail, last);
    EXPECT_EQ(tarn_data_count(list), numbers.size());
    return numbers;
}

TEST(DataList, AppendsValuesAndWholeLists)
{
    const unique_data list = list_of({1, 2});
    ASSERT_TRUE(tarn_data_add_tail(list.get(), list_of({3, 4, 5}).release()));
    EXPECT_EQ(numbers_of(list.get()), (std::vector{1, 2, 3, 4, 5}));
    EXPECT_EQ(tarn_data_count(tarn_data_get_at(list.get(), 2)), 3u);
    EXPECT_EQ(tarn_data_get_at(list.get(), UINT32_MAX), nullptr);

    const unique_data copy(tarn_data_dup_list(list.get()));
    EXPECT_EQ(numbers_of(copy.get()), numbers_of(list.get()));
    const unique_data one(tarn_data_dup(tarn_data_get_next(list.get())));
    EXPECT_EQ(numbers_of(one.get()), (std::vector{2}));
    EXPECT_EQ(one.get()->role, uint32_t{TARN_DATA_ROLE_SINGLE});
}

TEST(DataList, RefusesChildrenAndItself)
{
    const unique_data list = list_of({1, 2});
    const unique_data single = list_of({3});
    const TARN_DATA child = tarn_data_get_next(list.get());
    {
        const log_capture log;
        EXPECT_FALSE(tarn_data_add_tail(single.get(), child));
        EXPECT_FALSE(tarn_data_add_tail(list.get(), list.get()));
        EXPECT_EQ(tarn_data_remove_head(child), nullptr);
        EXPECT_TRUE(log.lines().empty());
    }
    expect_check("RVOF(head_data->role != TARN_DATA_ROLE_CHILD,false)");
    EXPECT_FALSE(tarn_data_add_tail(child, single.get()));
    EXPECT_EQ(numbers_of(list.get()), (std::vector{1, 2}));
    EXPECT_EQ(numbers_of(single.get()), (std::vector{3}));
}

TEST(DataList, RemovedHeadLeavesAHeadBehind)
{
    const unique_data removed = list_of({1, 2});
    const unique_data list(tarn_data_remove_head(removed.get()));
    EXPECT_EQ(numbers_of(removed.get()), (std::vector{1}));
    EXPECT_EQ(removed.get()->role, uint32_t{TARN_DATA_ROLE_SINGLE});
    ASSERT_EQ(numbers_of(list.get()), (std::vector{2}));
    EXPECT_EQ(list.get()->role, uint32_t{TARN_DATA_ROLE_HEAD});
    EXPECT_TRUE(tarn_data_add_tail(list.get(), list_of({7}).release()));
    EXPECT_EQ(numbers_of(list.get()), (std::vector{2, 7}));
    EXPECT_EQ(tarn_data_remove_head(removed.get()), nullptr);
}

// ---- byte form ------------------------------------------------------------------------------------

using bytes = std::vector<uint8_t>;

bytes written(TARN_DATA list, uint32_t room = 256)
{
    bytes out(room);
    out.resize(tarn_data_write_to_buf(list, out.data(), room));
    return out;
}

unique_data parsed(const bytes &in, uint32_t *used = nullptr)
{
    return unique_data(tarn_data_alloc_from_buf(in.data(), static_cast<uint32_t>(in.size()), used));
}

/** A value of every type, two strings. */
const bytes every_type = {
    // clang-format off
    1, 2, 1, 3, 0xFE, 4, 1, 2, 5, 1, 2, 3, 4, 6, 1, 2, 3, 4, 5, 6, 7, 8, 7, 0xFE, 8, 0xFF, 0xFE,
    9, 0x80, 0, 0, 1, 10, 0x80, 0, 0, 0, 0, 0, 0, 2, 11, 0x3F, 0xC0, 0, 0, 12, 0xC0, 4, 0, 0, 0, 0, 0, 0,
    13, 0xDE, 0xAD, 0xBE, 0xEF, 14, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12,
    15, 0, 0, 0, 3, 'a', 'b', 0, 15, 0, 0, 0, 0,
    // clang-format on
};

TEST(DataBuffer, ListIsWrittenByteForByte)
{
    const unique_data list = make<uint8_t>(TARN_DATA_TYPE_BOOLEAN, 1);
    tarn_data_add_tail(list.get(), make<int16_t>(TARN_DATA_TYPE_INT16, -2).release());
    tarn_data_add_tail(list.get(), text("ab\0"s).release());
    EXPECT_EQ(written(list.get()), (bytes{2, 1, 8, 0xFF, 0xFE, 15, 0, 0, 0, 3, 'a', 'b', 0}));
    EXPECT_EQ(written(tarn_data_get_next(list.get())).size(), 11u);

    const unique_data pointer = make<uint64_t>(TARN_DATA_TYPE_POINTER, 0x1122334455667788);
    EXPECT_EQ(written(pointer.get()), (bytes{13, 0x55, 0x66, 0x77, 0x88}));
    EXPECT_EQ(stored(parsed(written(pointer.get())).get()), shown(uint64_t{0x55667788}));
}

TEST(DataBuffer, EveryTypeComesBackAsItWasSent)
{
    uint32_t used = 0;
    const unique_data list = parsed(every_type, &used);
    EXPECT_EQ(used, every_type.size());
    ASSERT_EQ(tarn_data_count(list.get()), 16u);
    EXPECT_EQ(written(list.get()), every_type);
    EXPECT_EQ(written(unique_data(tarn_data_dup_list(list.get())).get()), every_type);
    std::string texts;
    for (TARN_DATA data = list.get(); data != nullptr; data = tarn_data_get_next(data))
    {
        texts += got_text(data) + " ";
    }
    EXPECT_EQ(texts, "nil true 254 258 16909060 84281096l -2 -2 -2147483647 2l 1.500000 "
                     "-2.500000l 0xdeadbeef 72623859790382856,151653132 ab fails ");
    // the last is an empty string, which has no buffer
    EXPECT_EQ(got_numbers(tarn_data_get_at(list.get(), 15)), "- - - - - - - - - - -");
}

TEST(DataBuffer, ReadingStopsAtAZeroTypeOrTheEnd)
{
    uint32_t used = 99;
    EXPECT_FALSE(parsed({0, 1, 1}, &used));
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(tarn_data_count(parsed({1, 3, 7, 0, 1}, &used).get()), 2u);
    EXPECT_EQ(used, 3u);
}

TEST(DataBuffer, CutOrUnknownElementGivesNoListAndSaysWhy)
{
    size_t whole = 0; // lengths that end behind an element
    for (size_t length = 1; length < every_type.size(); ++length)
    {
        const log_capture log;
        const bytes cut(every_type.data(), every_type.data() + length); // ASan sees its end
        const bool is_whole = static_cast<bool>(parsed(cut));
        whole += is_whole ? 1 : 0;
        EXPECT_EQ(!is_whole, log.contains("error", "create_single_data_from_buffer: data_size = "));
    }
    EXPECT_EQ(whole, 15u);

    const std::pair<bytes, const char *> rows[] = {
        {{1, 14, 1, 2, 3, 4, 5, 6, 7, 8, 9}, "data_size = 13 > buf_len = 10"},
        {{14, 1, 2, 3, 4, 5, 6, 7}, "data_size = 9 > buf_len = 8"},
        {{15, 0, 0, 1}, "data_size = 5 > buf_len = 4"},
        {{15, 0, 0, 1, 0, 'a'}, "data_size = 261 > buf_len = 6"},
        {{15, 0xFF, 0xFF, 0xFF, 0xFF, 'a'}, "data_size = 2147483647 > buf_len = 6"},
        {{1, 16}, "create_single_data_from_buffer: unknown data type = 16"},
        {{255, 1, 1}, "unknown data type = 255"},
    };
    for (const auto &[in, message] : rows)
    {
        const log_capture log;
        uint32_t used = 99;
        EXPECT_FALSE(parsed(in, &used));
        EXPECT_EQ(used, 99u);
        EXPECT_TRUE(log.contains("error", message)) << message;
    }
}

TEST(DataBuffer, ListThatDoesNotFitIsAFailure)
{
    expect_check("RVOF(len > 0,0)");
    const unique_data list = parsed(every_type);
    for (uint32_t room = 1; room <= every_type.size(); ++room)
    {
        bytes out(room); // ASan sees its end
        EXPECT_EQ(tarn_data_write_to_buf(list.get(), out.data(), room),
                  room == every_type.size() ? room : 0);
    }
}

TEST(DataBuffer, LongListsNeedNeitherStackNorTime)
{
    const bytes nulls(500000, TARN_DATA_TYPE_NULL);
    unique_data list = parsed(nulls);
    ASSERT_EQ(tarn_data_count(list.get()), nulls.size());
    ASSERT_TRUE(tarn_data_add_tail(list.get(), tarn_data_dup_list(list.get())));
    EXPECT_EQ(tarn_data_count(tarn_data_get_next(list.get())), 2 * nulls.size() - 1);
    EXPECT_EQ(written(list.get(), 1000000).size(), 2 * nulls.size());
    tarn_close_handle(list.release());

    EXPECT_EQ(tarn::data_read_list(nulls.data(), 100, nullptr, 99), nullptr);
    const unique_data limited(tarn::data_read_list(nulls.data(), 99, nullptr, 99));
    EXPECT_EQ(tarn_data_count(limited.get()), 99u);
}

// ---- memory that runs out -------------------------------------------------------------------------

/** Runs an operation with each of its allocations failing in turn; only then may it fail. */
void each_failure(size_t allocations, const std::function<bool()> &operation)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_INFO); // a failing allocation fails a check
    EXPECT_EQ(fail_each_allocation([&](size_t) {
                  const bool done = operation();
                  EXPECT_EQ(done, !allocation_failed());
              }),
              allocations);
}

TEST(DataMemory, CreatorsLeaveNothingBehind)
{
    const bytes in = {2, 1, 14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 2, 15, 0, 0, 0, 1, 'x', 1};
    const unique_data list = parsed(in);
    each_failure(1, [&] { return static_cast<bool>(make<uint8_t>(TARN_DATA_TYPE_UINT8, 1)); });
    each_failure(2, [&] { return static_cast<bool>(fresh(TARN_DATA_TYPE_PAIR)); });
    each_failure(2, [&] { return static_cast<bool>(fresh(TARN_DATA_TYPE_STRING)); });
    each_failure(6, [&] { return static_cast<bool>(parsed(in)); });
    each_failure(6, [&] { return unique_data(tarn_data_dup_list(list.get())).get() != nullptr; });

    const log_capture log;
    each_failure(2, [&] { return static_cast<bool>(parsed({15, 0, 0, 0, 2, 'h', 'i'})); });
    EXPECT_TRUE(log.contains(
        "error", "create_single_data_from_buffer: fail to alloc memory for string, len = 2"));
}

TEST(DataMemory, StringThatCannotBeSetHasNoBufferAndFailsSafely)
{
    const unique_data other = text("other");
    const std::function<bool(TARN_DATA)> setters[] = {
        [](TARN_DATA d) { return tarn_data_set_as_string(d, "new"); },
        [](TARN_DATA d) { return tarn_data_set_as_double(d, 1e300); },
        [](TARN_DATA d) { return tarn_data_set_as_boolean(d, 1); },
        [&](TARN_DATA d) { return tarn_data_copy(d, other.get()); },
        [](TARN_DATA d) {
            const uint32_t length = 9;
            return tarn_data_set_value(d, "nine byte", &length);
        }};
    for (const auto &set : setters)
    {
        const unique_data value = text("old text");
        each_failure(1, [&] { return set(value.get()); });
        EXPECT_NE(tarn_data_get_str_buffer(value.get()), nullptr);

        const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
        fail_each_allocation([&](size_t nth) { nth == 1 ? (void)set(value.get()) : (void)0; });
        char out[16];
        uint32_t room = sizeof out;
        EXPECT_EQ(tarn_data_get_str_buffer(value.get()), nullptr);
        EXPECT_EQ(got_numbers(value.get()) + got_text(value.get()), "- - - - - - - - - - -fails");
        EXPECT_FALSE(tarn_data_get_value(value.get(), out, &room));
        EXPECT_TRUE(written(value.get()).empty());
        EXPECT_EQ(tarn_data_dup(value.get()), nullptr);
    }
}

TEST(DataMemory, NullValueStaysNullWhenACopyFails)
{
    for (const uint8_t type : {TARN_DATA_TYPE_PAIR, TARN_DATA_TYPE_STRING})
    {
        const unique_data source = fresh(type);
        const unique_data null = null_value();
        each_failure(1, [&] {
            const bool done = tarn_data_copy(null.get(), source.get());
            EXPECT_EQ(null.get()->type, done ? type : +TARN_DATA_TYPE_NULL);
            return done;
        });
    }
}

TEST(DataMemory, LengthInABufferIsNotAllocatedBeforeItsBytesAreThere)
{
    static size_t largest;
    largest = 0;
    tarn::mem_fail_hook.store([](size_t size) {
        largest = std::max(largest, size);
        return false;
    });
    EXPECT_FALSE(parsed({15, 0xFF, 0xFF, 0xFF, 0xFF, 'a'}));
    tarn::mem_fail_hook.store(nullptr);
    EXPECT_LE(largest, 1024u);
}

TEST(DataModule, StartAndTeardownLogTheirNames)
{
    const log_capture log;
    {
        const support::layer started;
    }
    EXPECT_TRUE(log.contains("trace", "tarn_data_init"));
    EXPECT_TRUE(log.contains("trace", "tarn_data_uninit"));
}

} // namespace
