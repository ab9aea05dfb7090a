// Checksums, greatest common divisor, the walk over two lists.

#include "tarn_algorithm.h"

#include "tarn_modules.h"
#include "tarn_raii.h"
#include "tarn_str.h"
#include "tarn_thread.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <string_view>

namespace
{

// ---- CRC-16 --------------------------------------------------------------------------------------

constexpr size_t crc_slices = 8;
using crc_table = std::array<uint16_t, 256>;

/** Table k gives what a byte adds to the value when k more bytes follow it, so that eight bytes are
 *  looked up side by side instead of one after the other. Table 0 is the usual one. */
constexpr std::array<crc_table, crc_slices> make_crc_tables()
{
    std::array<crc_table, crc_slices> tables{};
    for (uint32_t byte = 0; byte < 256; ++byte)
    {
        uint32_t value = byte;
        for (int bit = 0; bit < 8; ++bit)
        {
            value = (value >> 1) ^ ((value & 1) != 0 ? 0xA001u : 0u);
        }
        tables[0][byte] = static_cast<uint16_t>(value);
    }
    for (size_t k = 1; k < crc_slices; ++k)
    {
        for (size_t byte = 0; byte < 256; ++byte)
        {
            const uint16_t value = tables[k - 1][byte];
            tables[k][byte] = static_cast<uint16_t>(value >> 8 ^ tables[0][value & 0xFF]);
        }
    }
    return tables;
}
constexpr auto crc_tables = make_crc_tables();
static_assert(crc_tables[0][1] == 0xC0C1 && crc_tables[0][255] == 0x4040);

uint32_t crc_of_eight(uint32_t crc, const uint8_t *p) noexcept
{
    const auto &t = crc_tables;
    return uint32_t{t[7][(crc ^ p[0]) & 0xFF]} ^ t[6][(crc >> 8) ^ p[1]] ^ t[5][p[2]] ^ t[4][p[3]] ^
           t[3][p[4]] ^ t[2][p[5]] ^ t[1][p[6]] ^ t[0][p[7]];
}

// ---- Internet checksum ---------------------------------------------------------------------------

/** Sums of 16-bit words in host order, modulo 2^32.
 *
 *  The words are taken in pairs, x = high * 65536 + low in either byte order. As high + low is
 *  x - 65535 * high, the pairs are summed as they are and only the high halves are split off. Four
 *  pairs side by side, each with sums of its own: the compiler makes vector code of that. */
struct word_sums
{
    static constexpr size_t lanes = 4;
    static constexpr size_t block_size = lanes * sizeof(uint32_t);
    uint32_t pairs[lanes] = {};
    uint32_t high_halves[lanes] = {};

    void add_block(const uint8_t *data) noexcept
    {
        uint32_t block[lanes];
        std::memcpy(block, data, sizeof block);
        for (size_t i = 0; i < lanes; ++i)
        {
            pairs[i] += block[i];
        }
        for (size_t i = 0; i < lanes; ++i)
        {
            high_halves[i] += block[i] >> 16;
        }
    }
    [[nodiscard]] uint32_t total() const noexcept
    {
        uint32_t sum = 0;
        for (size_t i = 0; i < lanes; ++i)
        {
            sum += pairs[i] - 65535 * high_halves[i];
        }
        return sum;
    }
};

uint32_t sum_words(const uint8_t *data, size_t len) noexcept
{
    constexpr size_t block = word_sums::block_size;
    word_sums even; // two, so that an addition need not wait for the one before
    word_sums odd;
    for (; len >= 2 * block; len -= 2 * block, data += 2 * block)
    {
        even.add_block(data);
        odd.add_block(data + block);
    }
    if (len >= block)
    {
        even.add_block(data);
        len -= block;
        data += block;
    }
    uint32_t sum = even.total() + odd.total();
    for (uint16_t word = 0; len >= sizeof word; len -= sizeof word, data += sizeof word)
    {
        std::memcpy(&word, data, sizeof word);
        sum += word;
    }
    if (len != 0)
    {
        sum += std::endian::native == std::endian::big ? uint32_t{*data} << 8 : *data;
    }
    return sum;
}

// ---- lists ---------------------------------------------------------------------------------------

/** A copy of a list in which NULs stand for the separators. */
class item_list
{
public:
    explicit item_list(const char *list)
        : length_(tarn_str_len(list)), text_(tarn::unique_mem<char>::make_array(length_ + 1))
    {
        if (text_)
        {
            std::replace_copy_if(
                list, list + length_, text_.get(), [](char c) { return is_separator(c); }, '\0');
        }
    }
    explicit operator bool() const noexcept
    {
        return static_cast<bool>(text_);
    }
    /** The item that begins at or behind a place; null behind the last one. */
    [[nodiscard]] const char *item_from(const char *place) const noexcept
    {
        const char *const end = text_.get() + length_;
        const char *const item = std::find_if(place, end, [](char c) { return c != '\0'; });
        return item != end ? item : nullptr;
    }
    [[nodiscard]] const char *first() const noexcept
    {
        return item_from(text_.get());
    }
    [[nodiscard]] const char *next(const char *item) const noexcept
    {
        return item_from(item + tarn_str_len(item));
    }

private:
    static bool is_separator(char c) noexcept
    {
        return std::string_view(",;| ").find(c) != std::string_view::npos;
    }
    size_t length_;
    tarn::unique_mem<char> text_;
};

/** What every call of one walk has in common. */
struct pair_walk
{
    void *a;
    void *b;
    tarn_algorithm_pair_proc fn;
    void *ctx;
    int result = 0; ///< of the last call

    /** @return false once the walk has to end */
    bool inner(const char *item1, const item_list &list2)
    {
        for (const char *item2 = list2.first(); item2 != nullptr; item2 = list2.next(item2))
        {
            if (!call(item1, item2))
            {
                return false;
            }
            if (result > 0)
            {
                break;
            }
        }
        return true;
    }
    bool call(const char *item1, const char *item2)
    {
        if (tarn_thread_sleep(0)) // the thread has been asked to stop
        {
            return false;
        }
        result = fn(a, b, item1, item2, ctx);
        return result <= 1;
    }
};

} // namespace

uint16_t tarn_algorithm_crc16(const void *data, uint16_t len)
{
    RVOF(data != NULL || len == 0, 0);
    const auto *at = static_cast<const uint8_t *>(data);
    size_t left = len;
    uint32_t crc = 0xFFFF;
    for (; left >= crc_slices; left -= crc_slices, at += crc_slices)
    {
        crc = crc_of_eight(crc, at);
    }
    for (; left != 0; --left, ++at)
    {
        crc = crc >> 8 ^ crc_tables[0][(crc ^ *at) & 0xFF];
    }
    return static_cast<uint16_t>(crc);
}

uint32_t tarn_algorithm_checksum(const void *data, size_t len)
{
    RVOF(data != NULL || len == 0, 0);
    uint32_t sum = sum_words(static_cast<const uint8_t *>(data), len);
    sum = (sum >> 16) + (sum & 0xFFFF);
    sum = (sum >> 16) + (sum & 0xFFFF);
    return ~sum;
}

uint64_t tarn_algorithm_gcd(uint64_t a, uint64_t b)
{
    if (a == 0 || b == 0)
    {
        return a | b;
    }
    const int twos = std::countr_zero(a | b);
    a >>= std::countr_zero(a);
    while (b != 0)
    {
        b >>= std::countr_zero(b);
        if (a > b)
        {
            std::swap(a, b);
        }
        b -= a;
    }
    return a << twos;
}

int tarn_algorithm_for_each_pair(void *a, void *b, const char *list1, const char *list2,
                                 tarn_algorithm_pair_proc fn, void *ctx)
{
    RVON(fn, TARN_ERRLN);
    if (list1 == nullptr)
    {
        return fn(a, b, list1, list2, ctx);
    }
    const item_list items1(list1);
    RVON(items1, TARN_ERRLN);
    const item_list items2(list2 != nullptr ? list2 : "");
    RVON(items2, TARN_ERRLN);
    pair_walk walk = {a, b, fn, ctx};
    for (const char *item1 = items1.first(); item1 != nullptr; item1 = items1.next(item1))
    {
        if (!(list2 != nullptr ? walk.inner(item1, items2) : walk.call(item1, nullptr)))
        {
            break;
        }
    }
    return walk.result;
}

bool tarn_algorithm_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_algorithm_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
