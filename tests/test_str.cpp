// Integer printing, hexadecimal, XML and JSON escapes, trimming, splitting, case. Inputs and outputs
// stand in heap blocks of their exact size, so that AddressSanitizer sees a byte too many.

#include "support.h"

#include "tarn_str.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <optional>

using support::expect_check;

namespace
{

/** A string in a block that ends with its NUL. */
class exact : std::unique_ptr<char[]>
{
public:
    explicit exact(std::string_view text) : unique_ptr(new char[text.size() + 1])
    {
        get()[text.copy(get(), text.size())] = '\0';
    }
    operator char *() const // NOLINT: stands for a plain string
    {
        return get();
    }
};

/** Takes over a result of the layer. */
std::optional<std::string> taken(char *str)
{
    const std::unique_ptr<char, void (*)(void *)> owner(str, tarn_mem_free);
    return str != nullptr ? std::optional<std::string>(str) : std::nullopt;
}

/** Result of a call and what it left in a block of this size: "3 -10#" is 3, three characters and
 *  a byte that stayed. NULs are shown as '0'. */
template <typename Call>
std::string filled(size_t size, Call call)
{
    const std::unique_ptr<char[]> block(new char[size]);
    std::memset(block.get(), '#', size);
    const int64_t rc = call(block.get(), size);
    std::replace(block.get(), block.get() + size, '\0', '0');
    return std::to_string(rc) + " " + std::string(block.get(), size);
}

/** The bytes 1 to 255. */
std::string all_bytes()
{
    std::string bytes(255, '\0');
    std::iota(bytes.begin(), bytes.end(), '\x01');
    return bytes;
}

// ---- integers ------------------------------------------------------------------------------------

TEST(PrintInt, CopiesLeadingDigitsAndTerminatesOnlyWithRoom)
{
    const auto print = [](int64_t value, int base, size_t size) {
        return filled(size, [&](char *buf, size_t) {
            return tarn_str_print_int(size != 0 ? buf : nullptr, size, value, base);
        });
    };
    EXPECT_EQ(print(255, 16, 0), "2 ");
    EXPECT_EQ(print(255, 16, 1), "1 f");
    EXPECT_EQ(print(255, 16, 2), "2 ff");
    EXPECT_EQ(print(255, 16, 5), "2 ff0##");
    EXPECT_EQ(print(0, 10, 1), "1 0");
    EXPECT_EQ(print(-10, 10, 0), "3 ");
    EXPECT_EQ(print(-10, 10, 1), "0 #");
    EXPECT_EQ(print(-10, 10, 2), "2 -1");
    EXPECT_EQ(print(-10, 10, 3), "3 -10");
    EXPECT_EQ(print(-10, 10, 5), "3 -100#");
    EXPECT_EQ(print(INT64_MIN, 10, 20), "20 -9223372036854775808");
    EXPECT_EQ(print(INT64_MIN, 2, 0), "65 ");
}

TEST(PrintInt, EveryBaseReadsBackAndOthersAreRefused)
{
    char text[66];
    for (int base = 2; base <= 36; ++base)
    {
        for (const uint64_t value : {uint64_t{35}, UINT64_MAX})
        {
            ASSERT_GT(tarn_str_print_uint(text, sizeof text, value, base), 0);
            EXPECT_EQ(std::strtoull(text, nullptr, base), value);
        }
    }
    EXPECT_EQ(taken(tarn_str_from_int(INT32_MIN)), "-2147483648");
    expect_check("RVOF(base >= 2 && base <= 36,TARN_ERRLN)");
    expect_check("RVOF(0 == size,TARN_ERRLN)");
    for (const int base : {-1, 0, 1, 37})
    {
        EXPECT_LT(tarn_str_print_uint(text, sizeof text, 1, base), 0);
        EXPECT_LT(tarn_str_print_int(text, sizeof text, -1, base), 0);
    }
    EXPECT_LT(tarn_str_print_uint(nullptr, 1, 1, 10), 0);
    EXPECT_LT(tarn_str_print_int(nullptr, 1, -1, 10), 0);
}

// ---- hexadecimal ---------------------------------------------------------------------------------

TEST(Hex, RoundTripsEveryByteInEitherCase)
{
    const std::string bytes = all_bytes() + std::string(1, '\0');
    const size_t size = 2 * bytes.size();
    const std::unique_ptr<char[]> hex(new char[size]); // no room for the NUL
    ASSERT_EQ(tarn_str_to_hex(bytes.data(), bytes.size(), hex.get(), size), 0);
    EXPECT_EQ(std::string(hex.get(), 8), "01020304");
    for (const auto change : {tarn_str_to_lower, tarn_str_to_upper})
    {
        const exact text(std::string_view(hex.get(), size));
        (void)change(text);
        std::string back(bytes.size(), '#');
        EXPECT_EQ(tarn_str_from_hex(text, size, back.data(), back.size()), 0);
        EXPECT_EQ(back, bytes);
        char *const block = tarn_str_from_hex2(text);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(std::memcmp(block, bytes.c_str(), bytes.size() + 1), 0);
        tarn_mem_free(block);
    }
}

TEST(Hex, WritesTheNulOnlyWhereItHasRoom)
{
    const auto write = [](char *out, size_t size) {
        return tarn_str_to_hex("\x0f\xa0", 2, out, size);
    };
    EXPECT_EQ(filled(4, write), "0 0fa0");
    EXPECT_EQ(filled(6, write), "0 0fa00#");
    expect_check("RVOF(str_len * 2 <= hex_len,-2)");
    EXPECT_EQ(filled(3, write), "-2 ###");
    char out[2];
    EXPECT_EQ(tarn_str_to_hex("a", SIZE_MAX / 2 + 1, out, 2), -2); // twice that wraps to 0
}

TEST(Hex, ReadsNeitherBeyondItsCharactersNorOtherCharacters)
{
    const auto read = [](std::string_view text, size_t out_len) {
        const std::vector<char> digits(text.begin(), text.end()); // without NUL
        return filled(out_len, [&](char *out, size_t size) {
            return tarn_str_from_hex(digits.data(), digits.size(), out, size);
        });
    };
    EXPECT_EQ(read("4142", 4), "0 AB##"); // nothing behind the last pair is touched
    EXPECT_EQ(read("41424", 3), "0 AB\x04");
    EXPECT_EQ(read("7g41", 2), std::string("0 \x07") + "A");
    EXPECT_EQ(read("g7-1 1+10x41", 6), "0 ####0A");
    expect_check("RVOF(str_len * 2 >= hex_len,-2)");
    EXPECT_EQ(read("41424", 2), "-2 ##");
}

TEST(Hex, NewBufferTakesWholePairsOfDigitsOnly)
{
    expect_check("RVOF(hex_len > 0,NULL)");
    expect_check("RVOF(( hex_len % 2 ) == 0,NULL)");
    for (const char *text : {"", "414", "4g", "g4", " 4", "0x", "41\xff\xff", "+1"})
    {
        EXPECT_EQ(taken(tarn_str_from_hex2(exact(text))), std::nullopt) << text;
    }
}

// ---- XML -----------------------------------------------------------------------------------------

TEST(Xml, RoundTripsEveryByte)
{
    const exact text(all_bytes());
    const auto xml = taken(tarn_str_escape_xml(text));
    ASSERT_TRUE(xml);
    EXPECT_EQ(xml->size(), 275u);
    EXPECT_EQ(taken(tarn_str_unescape_xml(exact(*xml))), all_bytes());
    EXPECT_EQ(filled(xml->size(),
                     [&](char *out, size_t size) { return tarn_str_to_xml_str(text, out, size); }),
              "275 " + *xml);
    EXPECT_EQ(filled(255,
                     [source = exact(*xml)](char *out, size_t size) {
                         return tarn_str_from_xml_str(source, out, size);
                     }),
              "255 " + all_bytes());
    EXPECT_EQ(taken(tarn_str_escape_xml("<>&'\"")), "&lt;&gt;&amp;&apos;&quot;");
}

TEST(Xml, EveryAmpersandMustBeginAnEntity)
{
    EXPECT_EQ(taken(tarn_str_unescape_xml("&amp;&lt;")), "&<");
    EXPECT_EQ(taken(tarn_str_unescape_xml("&amp;lt;")), "&lt;");
    for (const char *text : {"&copy;", "a & b", "&", "&l", "&lt", "&LT;", "&#60;", "x&quot"})
    {
        const exact xml(text);
        char out[16];
        EXPECT_EQ(taken(tarn_str_unescape_xml(xml)), std::nullopt) << text;
        EXPECT_EQ(tarn_str_from_xml_str(xml, out, sizeof out), -5) << text;
    }
}

TEST(Xml, BuffersAreFilledToTheLastByteAndNoFurther)
{
    const auto to = [](char *out, size_t size) { return tarn_str_to_xml_str("a<b", out, size); };
    const auto from = [](char *out, size_t size) {
        return tarn_str_from_xml_str("a&lt;b", out, size);
    };
    EXPECT_EQ(filled(7, to), "6 a&lt;b0");
    EXPECT_EQ(filled(6, to), "6 a&lt;b");
    EXPECT_EQ(filled(4, to), "-4 a###"); // an entity is written whole or not at all
    EXPECT_EQ(filled(4, from), "3 a<b0");
    EXPECT_EQ(filled(3, from), "3 a<b");
    EXPECT_EQ(filled(2, from), "-4 a<");
}

// ---- JSON ----------------------------------------------------------------------------------------

TEST(Json, RoundTripsEveryByte)
{
    const auto json = taken(tarn_str_escape_json(exact(all_bytes())));
    ASSERT_TRUE(json);
    EXPECT_EQ(taken(tarn_str_unescape_json(exact(*json))), all_bytes());
    EXPECT_EQ(taken(tarn_str_escape_json("\t\x01\x0b\x1f/\x7f\"\\\xc3\xa9")),
              "\\t\\u0001\\u000b\\u001f/\x7f\\\"\\\\\xc3\xa9");
    EXPECT_EQ(taken(tarn_str_escape_json(nullptr)), "");
    const std::string controls(1000, '\x01'); // the output is six times as long
    EXPECT_EQ(taken(tarn_str_escape_json(exact(controls)))->size(), 6000u);
}

/** UTF-8 of a code point. */
std::string utf8_of(uint32_t c)
{
    std::string tail;
    uint32_t room = 0x80; // what the lead byte can hold
    for (; c >= room; c >>= 6, room = room == 0x80 ? 0x20 : room >> 1)
    {
        tail.insert(tail.begin(), static_cast<char>(0x80 | (c & 0x3F)));
    }
    return static_cast<char>(room == 0x80 ? c : (0xFF00 >> (tail.size() + 1) & 0xFF) | c) + tail;
}

TEST(Json, ReadsEveryCodePoint)
{
    for (uint32_t c = 0; c <= 0x10FFFF; ++c)
    {
        char text[16];
        const uint32_t high = 0xD800 + ((c - 0x10000) >> 10);
        const uint32_t low = 0xDC00 + (c & 0x3FF);
        (void)(c < 0x10000 ? tarn_str_printf(text, sizeof text, c % 2 ? "\\u%04x" : "\\u%04X", c)
                           : tarn_str_printf(text, sizeof text, "\\u%04x\\u%04X", high, low));
        if (c >= 0xD800 && c <= 0xDFFF)
        {
            const support::level_scope quiet(TARN_LOG_LEVEL_INFO);
            ASSERT_EQ(tarn_str_unescape_json(text), nullptr) << text;
            continue;
        }
        ASSERT_EQ(taken(tarn_str_unescape_json(text)), utf8_of(c).c_str()) << text;
    }
}

TEST(Json, ReadsKnownEscapesAndRefusesOthers)
{
    EXPECT_EQ(taken(tarn_str_unescape_json("\\ud83d\\ude00")), "\xF0\x9F\x98\x80");
    EXPECT_EQ(taken(tarn_str_unescape_json("\\\"\\/\\\\\\b\\f\\n\\r\\t\"\x01")),
              "\"/\\\b\f\n\r\t\"\x01");
    expect_check("RVON(out,NULL)");
    for (const char *text : {"\\q", "\\", "ab\\", "\\u", "\\u123", "\\u12g4", "\\U0041", "\\ud83d",
                             "\\ud83d\\", "\\ud83d\\u", "\\ud83d\\ude0", "\\ud83dx\\ude00",
                             "\\ud83d\\u0041", "\\ud83d\\ud83d", "\\udE00", "\\x41"})
    {
        EXPECT_EQ(taken(tarn_str_unescape_json(exact(text))), std::nullopt) << text;
    }
}

// ---- duplication, trimming, splitting, case --------------------------------------------------------

TEST(Str, DuplicatesWholeOrByCount)
{
    EXPECT_EQ(taken(tarn_str_dup(exact(""))), "");
    const std::unique_ptr<char[]> block(new char[4]{'a', '\0', 'b', 'c'});
    char *const copy = tarn_str_ndup(block.get(), 4);
    EXPECT_EQ(std::memcmp(copy, "a\0bc", 5), 0);
    tarn_mem_free(copy);
    expect_check("RVOF(n < SIZE_MAX,NULL)");
    EXPECT_EQ(tarn_str_ndup("a", SIZE_MAX), nullptr);
}

TEST(Str, TrimsAndKnowsEmptyStrings)
{
    using pair = std::pair<const char *, const char *>;
    for (const auto &[text, trimmed] : {pair{"", ""}, pair{" \t\n\v\f\r ", ""}, pair{"a", "a"},
                                        pair{"  a b\t", "a b"}, pair{"\xa0 \x85", "\xa0 \x85"}})
    {
        const exact str(text);
        EXPECT_EQ(taken(tarn_str_trim_dup(str)), trimmed);
        EXPECT_EQ(tarn_str_is_empty(str), *trimmed == '\0');
        EXPECT_EQ(tarn_str_trim(str), static_cast<char *>(str));
        EXPECT_STREQ(str, trimmed);
    }
    EXPECT_TRUE(tarn_str_is_empty(nullptr));
}

TEST(Str, SplitsIntoOneBlock)
{
    const auto split = [](std::string_view text, char delimiter) {
        std::vector<std::string> pieces;
        char **const block = tarn_str_split(exact(text), delimiter);
        for (char **piece = block; piece != nullptr && *piece != nullptr; ++piece)
        {
            pieces.emplace_back(*piece);
        }
        EXPECT_NE(block, nullptr);
        tarn_mem_free(block);
        return pieces;
    };
    using list = std::vector<std::string>;
    EXPECT_EQ(split(",a,,b,", ','), (list{"a", "b"}));
    EXPECT_EQ(split(",,,", ','), list{});
    EXPECT_EQ(split(" a\tb ", ' '), (list{"a\tb"}));
    EXPECT_EQ(split("a b", '\0'), (list{"a b"}));
    expect_check("RVOF(!tarn_str_is_empty( str ),NULL)");
    EXPECT_EQ(tarn_str_split(nullptr, ','), nullptr);
    EXPECT_EQ(tarn_str_split(" \t", ' '), nullptr);
}

TEST(Str, ChangesAndComparesAsciiLettersOnly)
{
    const exact text("aZ@[`{\xe4\xc4-aZ");
    EXPECT_STREQ(tarn_str_to_upper(text), "AZ@[`{\xe4\xc4-AZ");
    EXPECT_STREQ(tarn_str_to_lower(text), "az@[`{\xe4\xc4-az");
    EXPECT_STREQ(tarn_str_remove_char(text, 'a'), "z@[`{\xe4\xc4-z");
    EXPECT_STREQ(tarn_str_remove_char(text, '\0'), "z@[`{\xe4\xc4-z");
    for (const auto equal : {tarn_str_equal, tarn_str_equal_nocase})
    {
        EXPECT_TRUE(equal(nullptr, nullptr));
        EXPECT_FALSE(equal(nullptr, ""));
        EXPECT_FALSE(equal("", nullptr));
        EXPECT_TRUE(equal("aB", exact("aB")));
        EXPECT_FALSE(equal("a", exact("ab")));
        EXPECT_FALSE(equal("@", exact("`")));
    }
    EXPECT_FALSE(tarn_str_equal("aB", "Ab"));
    EXPECT_TRUE(tarn_str_equal_nocase("aB\xe4", "Ab\xe4"));
    EXPECT_FALSE(tarn_str_equal_nocase("\xe4", "\xc4"));
}

TEST(Str, LibraryFunctionsAreBounded)
{
    char text[8] = "ab";
    EXPECT_STREQ(tarn_str_ncat(text, "cdef", 3), "abcd");
    EXPECT_STREQ(tarn_str_ncat(text, "xyz", 0), "abcd");
    EXPECT_EQ(tarn_str_printf(text, 4, "%d", 12345), 5); // cut, but the whole length is told
}

// ---- no argument, no memory -----------------------------------------------------------------------

TEST(Str, MissingArgumentsAreToldByPosition)
{
    expect_check("RVON(str,-1)");
    expect_check("RVON(hex,-2)");
    expect_check("RVON(xml_str,-2)");
    expect_check("RVOF(size > 0,-3)");
    char out[4];
    for (const auto convert : {tarn_str_to_xml_str, tarn_str_from_xml_str})
    {
        EXPECT_EQ(convert(nullptr, out, 4), -1);
        EXPECT_EQ(convert("a", nullptr, 4), -2);
        EXPECT_EQ(convert("a", out, 0), -3);
    }
    EXPECT_EQ(tarn_str_to_hex(nullptr, 1, out, 2), -1);
    EXPECT_EQ(tarn_str_to_hex("a", 1, nullptr, 2), -2);
    EXPECT_EQ(tarn_str_from_hex(nullptr, 2, out, 1), -1);
    EXPECT_EQ(tarn_str_from_hex("61", 2, nullptr, 1), -2);
}

TEST(Str, WithoutArgumentOrMemoryThereIsNoString)
{
    expect_check("RVON(hex_str,NULL)");
    expect_check("RVON(copy,NULL)");
    expect_check("RVON(str,NULL)");
    expect_check("RVON(xml_str,NULL)");
    expect_check("RVON(out,NULL)");
    expect_check("RVON(block,NULL)");
    const auto probe = [](auto create, const auto &...arguments) {
        const auto run = [&](size_t) {
            void *const str = create(arguments...);
            EXPECT_EQ(str == nullptr, support::allocation_failed());
            tarn_mem_free(str);
        };
        EXPECT_EQ(support::fail_each_allocation(run), 1u);
    };
    for (const auto create : {tarn_str_from_hex2, tarn_str_escape_xml, tarn_str_unescape_xml,
                              tarn_str_unescape_json, tarn_str_dup, tarn_str_trim_dup})
    {
        EXPECT_EQ(create(nullptr), nullptr);
        probe(create, "00");
    }
    probe(tarn_str_escape_json, "00");
    probe(tarn_str_from_int, 1);
    probe(tarn_str_ndup, "a", size_t{1});
    probe(tarn_str_split, "a", ',');
}

} // namespace
