// Base64, URLs, UUID text, byte order, bit arrays.

#include "support.h"

#include "tarn_util.h"

#include <algorithm>
#include <random>
#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

using namespace std::string_view_literals;
using support::expect_check;

namespace
{

using bytes = std::vector<uint8_t>;

/** Takes over a text of the layer. */
std::string taken(void *text)
{
    const std::string copy = text != nullptr ? static_cast<char *>(text) : "(null)";
    tarn_mem_free(text);
    return copy;
}

bytes random_bytes(size_t size, size_t seed)
{
    std::minstd_rand random(static_cast<unsigned>(seed));
    bytes result(size);
    std::generate(result.begin(), result.end(),
                  [&] { return static_cast<uint8_t>(random() >> 8); });
    return result;
}

// ---- Base64 --------------------------------------------------------------------------------------

std::string encoded(std::string_view data)
{
    size_t length = 99;
    const std::string text = taken(tarn_base64_encode(data.data(), data.size(), &length));
    EXPECT_EQ(length, text.size());
    return text;
}

std::string decoded(std::string_view text)
{
    // a copy that ends with the text, so that reading on would be seen
    const std::vector<char> exact(text.begin(), text.end());
    size_t length = 99;
    uint8_t *data = tarn_base64_decode(exact.data(), exact.size(), &length);
    const std::string result(reinterpret_cast<char *>(data), length);
    EXPECT_EQ(data[length], 0);
    tarn_mem_free(data);
    return result;
}

TEST(Base64, EncodesAndComesBackAtEveryLength)
{
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(encoded("M"), "TQ==");
    EXPECT_EQ(encoded("Ma"), "TWE=");
    EXPECT_EQ(encoded("foobarfoo\xfb\xff\xfe"), "Zm9vYmFyZm9v+//+");
    const bytes data = random_bytes(300, 1);
    for (size_t length = 1; length <= data.size(); ++length)
    {
        const std::string part(data.begin(), data.begin() + static_cast<ptrdiff_t>(length));
        ASSERT_EQ(decoded(encoded(part)), part);
    }
}

TEST(Base64, DecodeRejectsNothing)
{
    EXPECT_EQ(decoded("T!E="), "L\1"sv);            // as if TAE=
    EXPECT_EQ(decoded("T\xff\x80\0"sv), "L\0\0"sv); // bytes above 127 and NUL are ordinary here
    EXPECT_EQ(decoded("TW"), "M`\0"sv);             // a group that is not whole
    EXPECT_EQ(decoded("TW=u"), "M`"sv);             // the last but one '=' counts by itself
    EXPECT_EQ(decoded("=="), "\0"sv);
    EXPECT_EQ(decoded("TWFu\n"), "Man\0\0\0"sv);
}

TEST(Base64, ReportsBadArgumentsAndMemoryThatRanOut)
{
    expect_check("RVOF(input_length > 1,NULL)");
    expect_check("RVON(text,NULL)");
    expect_check("RVOF(len <= longest_input,NULL)");
    size_t length = 99;
    EXPECT_EQ(tarn_base64_decode("T", 1, &length), nullptr);
    EXPECT_EQ(tarn_base64_decode(nullptr, 4, &length), nullptr);
    EXPECT_EQ(tarn_base64_encode("M", SIZE_MAX, &length), nullptr);
    EXPECT_EQ(length, 99u);
    expect_check("RVON(encoded_data,NULL)");
    expect_check("RVON(decoded_data,NULL)");
    const auto failures = support::fail_each_allocation([](size_t nth) {
        const std::string text = taken(tarn_base64_encode("Man", 3, nullptr));
        const std::string data = taken(tarn_base64_decode("TWFu", 4, nullptr));
        EXPECT_EQ(text, nth == 1 ? "(null)" : "TWFu");
        EXPECT_EQ(data, nth == 2 ? "(null)" : "Man");
    });
    EXPECT_EQ(failures, 2u);
}

// ---- URL -----------------------------------------------------------------------------------------

TEST(Url, EncodesStrictlyAndDecodesLeniently)
{
    EXPECT_EQ(taken(tarn_url_encode("aZ09-_.~ +/\xc3\xbc")), "aZ09-_.~+%2b%2f%c3%bc");
    std::string all;
    for (int byte = 1; byte < 256; ++byte)
    {
        all.push_back(static_cast<char>(byte));
    }
    EXPECT_EQ(taken(tarn_url_decode(taken(tarn_url_encode(all.c_str())).c_str())), all);
    EXPECT_EQ(taken(tarn_url_decode("a+b%2B%2b%4")), "a b++4");
    EXPECT_EQ(taken(tarn_url_decode("a%")), "a");
    EXPECT_EQ(taken(tarn_url_decode("%%41%5g%\xff\x31.")), "\4\61P\1.");
}

struct parsed
{
    std::string location;
    std::string query = "(none)"; ///< the output was left as it was
    std::vector<std::string> params = {"(none)"};
};

parsed parse(const char *url)
{
    char *query = nullptr;
    char **params = nullptr;
    parsed result{taken(tarn_url_parse(url, &query, &params))};
    if (query != nullptr)
    {
        result.query = taken(query);
    }
    if (params != nullptr)
    {
        result.params.clear();
        for (char **text = params; *text != nullptr; ++text)
        {
            result.params.push_back(taken(*text));
        }
        tarn_mem_free(params);
    }
    return result;
}

TEST(Url, ParsesTheQuery)
{
    const std::pair<const char *, parsed> table[] = {
        {"/a?x=1&y=%41", {"/a", "x=1&y=%41", {"x", "1", "y", "A"}}},
        {"/a?x", {"/a", "x"}},
        {"/a?x=1&y", {"/a", "x=1&y"}},
        {"/a?x=1&", {"/a", "x=1&"}},
        {"/a?", {"/a", ""}},
        {"/a%41", {"/a%41"}},
        {"?a=b=c?d&=&%3D=+", {"", "a=b=c?d&=&%3D=+", {"a", "b=c?d", "", "", "=", " "}}},
    };
    for (const auto &[url, expected] : table)
    {
        const parsed result = parse(url);
        EXPECT_EQ(result.location, expected.location) << url;
        EXPECT_EQ(result.query, expected.query) << url;
        EXPECT_EQ(result.params, expected.params) << url;
    }
    EXPECT_EQ(taken(tarn_url_parse("/a?x=1", nullptr, nullptr)), "/a");
}

TEST(Url, ReportsNullAndMemoryThatRanOut)
{
    for (const char *check :
         {"RVON(url,NULL)", "RVON(str,NULL)", "RVON(out,NULL)", "RVON(location,NULL)",
          "RVON(query_copy,NULL)", "RVOF(params.decode_parameters(query),NULL)"})
    {
        expect_check(check);
    }
    EXPECT_EQ(tarn_url_parse(nullptr, nullptr, nullptr), nullptr);
    for (const auto convert : {tarn_url_encode, tarn_url_decode})
    {
        EXPECT_EQ(convert(nullptr), nullptr);
        support::fail_each_allocation([&](size_t nth) {
            const std::string text = taken(convert("a"));
            EXPECT_EQ(text, nth == 1 ? "(null)" : "a");
        });
    }
    const auto failures = support::fail_each_allocation([](size_t) {
        const parsed result = parse("/a?x=1&y=2");
        EXPECT_EQ(result.location == "(null)", support::allocation_failed());
        EXPECT_EQ(result.query == "(none)", support::allocation_failed());
        EXPECT_EQ(result.params.size(), support::allocation_failed() ? 1u : 4u);
    });
    EXPECT_EQ(failures, 7u);
}

// ---- UUID ----------------------------------------------------------------------------------------

TEST(Uuid, IsATextPerThreadAndAllZeroWithoutTheKernelsFile)
{
    const char *mine = tarn_uuid_str_gen();
    const std::string first = mine;
    std::string other;
    std::thread([&] { other = tarn_uuid_str_gen(); }).join();
    EXPECT_EQ(mine, first);
    EXPECT_NE(other, first);
    EXPECT_EQ(other.size(), 36u);
    EXPECT_EQ(other.find_first_not_of("0123456789abcdef-"), std::string::npos);

    const support::log_capture log;
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_STREQ(tarn_uuid_str_gen(), "00000000-0000-0000-0000-000000000000");
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(log.contains("error", "fail to open /proc/sys/kernel/random/uuid"));
}

// ---- byte order ----------------------------------------------------------------------------------

TEST(ByteOrder, WorksOnUnalignedWordsAndStopsAtTheCount)
{
    const struct
    {
        size_t (*function)(void *, size_t);
        size_t count;
        bytes expected;
    } table[] = {
        {tarn_util_reverse_bytes, 5, {5, 4, 3, 2, 1, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}},
        {tarn_util_swap16, 3, {2, 1, 4, 3, 6, 5, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}},
        {tarn_util_swap32, 2, {4, 3, 2, 1, 8, 7, 6, 5, 9, 10, 11, 12, 13, 14, 15, 16, 17}},
        {tarn_util_swap64, 2, {8, 7, 6, 5, 4, 3, 2, 1, 16, 15, 14, 13, 12, 11, 10, 9, 17}},
        {tarn_util_swap_halves, 2, {3, 4, 1, 2, 7, 8, 5, 6, 9, 10, 11, 12, 13, 14, 15, 16, 17}},
        {tarn_util_reverse_words, 3, {5, 6, 3, 4, 1, 2, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17}},
    };
    expect_check("RVON(buf,0)");
    for (const auto &row : table)
    {
        bytes buffer = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17};
        EXPECT_EQ(row.function(buffer.data() + 1, row.count), row.count);
        EXPECT_EQ(bytes(buffer.begin() + 1, buffer.end()), row.expected);
        EXPECT_EQ(row.function(nullptr, 1), 0u);
    }
}

// ---- bit arrays ----------------------------------------------------------------------------------
// Everything is held against the same operation on a vector of single bits.

std::vector<bool> bits_of(const bytes &data)
{
    std::vector<bool> bits;
    for (size_t i = 0; i < 8 * data.size(); ++i)
    {
        bits.push_back((data[i / 8] & 0x80 >> i % 8) != 0);
    }
    return bits;
}

TEST(Bits, FillSetsExactlyTheBitsWithinTheBuffer)
{
    constexpr size_t length = 5;
    for (size_t i = 0; i < 43 * 43 * 3; ++i)
    {
        const size_t offset = i % 43;
        const size_t count = i / 43 % 43;
        const int value = static_cast<int>(i / 43 / 43) - 1;
        bytes buffer = random_bytes(length + 1, 3);
        std::vector<bool> expected = bits_of(buffer);
        for (size_t k = offset; k < std::min(offset + count, 8 * length); ++k)
        {
            expected[k] = value != 0;
        }
        ASSERT_TRUE(tarn_bit_fill(buffer.data(), length, offset, count, value));
        ASSERT_EQ(bits_of(buffer), expected) << offset << " " << count;
    }
    bytes buffer(3, 0);
    EXPECT_TRUE(tarn_bit_set_ones(buffer.data(), 2, 12, UINT64_MAX));
    EXPECT_TRUE(tarn_bit_set_ones(buffer.data(), 2, UINT64_MAX, UINT64_MAX));
    EXPECT_EQ(buffer, (bytes{0, 0x0F, 0}));
}

TEST(Bits, CopyIsRightForEveryOffsetAndOverlap)
{
    std::mt19937 random(5);
    for (int round = 0; round < 20000; ++round)
    {
        const size_t count = random() % (round % 4 < 2 ? 20 : 200);
        const size_t from = random() % 64;
        const size_t to = random() % 64;
        bytes source = random_bytes(33, random());
        bytes other = random_bytes(33, random());
        bytes &target = round % 2 == 0 ? source : other;
        const std::vector<bool> before = bits_of(source);
        std::vector<bool> expected = bits_of(target);
        std::copy_n(before.begin() + static_cast<ptrdiff_t>(from), count,
                    expected.begin() + static_cast<ptrdiff_t>(to));
        ASSERT_TRUE(tarn_bit_copy(target.data(), to, source.data(), from, count));
        ASSERT_EQ(bits_of(target), expected) << from << " to " << to << ", " << count;
    }
    bytes exact(33, 0); // to the last bit and not a byte further
    EXPECT_TRUE(tarn_bit_copy(exact.data(), 3, exact.data(), 1, 261));
    EXPECT_TRUE(tarn_bit_copy(exact.data(), 1, exact.data(), 3, 261));
}

TEST(Bits, ShiftsFillOrRotate)
{
    const bytes data = random_bytes(11, 7);
    constexpr ptrdiff_t size = 88;
    for (ptrdiff_t n = 0; n <= 2 * size; ++n)
    {
        for (const int fill : {0, 1, 2, -1})
        {
            const bool rotates = fill != 0 && fill != 1;
            const ptrdiff_t moved = rotates ? n % size : std::min(n, size);
            std::vector<bool> left = bits_of(data);
            std::vector<bool> right = left;
            std::rotate(left.begin(), left.begin() + moved, left.end());
            std::rotate(right.begin(), right.end() - moved, right.end());
            if (!rotates)
            {
                std::fill(left.end() - moved, left.end(), fill == 1);
                std::fill(right.begin(), right.begin() + moved, fill == 1);
            }
            bytes to_left = data;
            bytes to_right = data;
            ASSERT_TRUE(tarn_bit_shift_left(to_left.data(), 11, static_cast<uint64_t>(n), fill));
            ASSERT_TRUE(tarn_bit_shift_right(to_right.data(), 11, static_cast<uint64_t>(n), fill));
            ASSERT_EQ(bits_of(to_left), left) << n << " " << fill;
            ASSERT_EQ(bits_of(to_right), right) << n << " " << fill;
        }
    }
    expect_check("RVON(front,false)");
    support::fail_each_allocation([](size_t nth) {
        uint8_t byte = 0x81;
        EXPECT_TRUE(tarn_bit_shift_left(&byte, 0, 1, 2));
        EXPECT_EQ(tarn_bit_shift_left(&byte, 1, 1, 2), nth != 1);
        EXPECT_EQ(byte, nth != 1 ? 0x03 : 0x81);
    });
}

std::string printed(const std::function<bool(int)> &print)
{
    const support::leak_check no_leak;
    const support::temp_dir dir;
    const std::string name = dir.file("out");
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_TRUE(print(fd));
    EXPECT_EQ(::close(fd), 0); // still open
    return support::read_file(name);
}

TEST(Bits, Print)
{
    const bytes data = {0xA5, 0x0F};
    EXPECT_EQ(printed([&](int fd) { return tarn_bit_print(fd, data.data(), 2, 10, 4, true); }),
              "1001 0100 00\n");
    EXPECT_EQ(printed([&](int fd) { return tarn_bit_print(fd, data.data(), 0, 8, 4, false); }),
              "1010 0101 ");
    const bytes many(1000, 0xFF); // more than one write
    EXPECT_EQ(printed([&](int fd) { return tarn_bit_print(fd, many.data(), 0, 8000, 0, false); }),
              std::string(8000, '1'));
    const std::string title(5000, '%');
    EXPECT_EQ(printed([&](int fd) {
                  return tarn_bit_print_detail(fd, title.c_str(), data.data(), data.size());
              }),
              "[" + title + "] len = 2\n[0]: A5 - 10100101\n[1]: 0F - 00001111\n");
    const support::log_capture log;
    EXPECT_FALSE(tarn_bit_print(-1, "a", 0, 8, 0, true));
    EXPECT_FALSE(tarn_bit_print_detail(-1, nullptr, "a", 1));
    EXPECT_EQ(log.count("dup failed, error = 9 (Bad file descriptor)"), 2u);
}

} // namespace
