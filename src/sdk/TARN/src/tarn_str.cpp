// Strings: integers, duplication, trimming, splitting, case, and the C library's functions under
// the layer's names. Hexadecimal, XML and JSON stand in tarn_str_hex.cpp, tarn_str_xml.cpp and
// tarn_str_json.cpp.
//
// Bytes are handed to the C library's character tests as unsigned char: a plain char above 127
// would index in front of its tables.

#include "tarn_str.h"

#include "tarn_modules.h"
#include "tarn_str_internal.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <strings.h>

namespace
{

bool is_space(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

char ascii_lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

char ascii_upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

/** Copy the leading digits that fit; the NUL only when there is room behind all of them.
 *  @return characters copied, or all digits for size 0 */
int put_digits(char *buf, size_t size, uint64_t value, int base)
{
    char text[64]; // base 2
    const char *const end = std::to_chars(text, text + sizeof text, value, base).ptr;
    const auto digits = static_cast<size_t>(end - text);
    if (size == 0)
    {
        return static_cast<int>(digits);
    }
    const size_t copied = std::min(size, digits);
    std::memcpy(buf, text, copied);
    if (size > digits)
    {
        buf[digits] = '\0';
    }
    return static_cast<int>(copied);
}

/** The next piece between delimiters from text on; text moves behind it. Empty at the end. */
std::string_view next_piece(const char *&text, char delimiter)
{
    while (*text != '\0' && *text == delimiter)
    {
        ++text;
    }
    const char *const start = text;
    while (*text != '\0' && *text != delimiter)
    {
        ++text;
    }
    return {start, static_cast<size_t>(text - start)};
}

size_t count_pieces(const char *text, char delimiter)
{
    size_t count = 0;
    while (!next_piece(text, delimiter).empty())
    {
        ++count;
    }
    return count;
}

} // namespace

int tarn_str_print_uint(char *buf, size_t size, uint64_t value, int base)
{
    RVOF(base >= 2 && base <= 36, TARN_ERRLN);
    if (buf == nullptr)
    {
        RVOF(0 == size, TARN_ERRLN);
    }
    return put_digits(buf, size, value, base);
}

int tarn_str_print_int(char *buf, size_t size, int64_t value, int base)
{
    RVOF(base >= 2 && base <= 36, TARN_ERRLN);
    if (buf == nullptr)
    {
        RVOF(0 == size, TARN_ERRLN);
    }
    if (value >= 0)
    {
        return put_digits(buf, size, static_cast<uint64_t>(value), base);
    }
    const uint64_t magnitude = 0 - static_cast<uint64_t>(value); // INT64_MIN has one too
    switch (size)
    {
    case 0:
        return 1 + put_digits(nullptr, 0, magnitude, base);
    case 1:
        return 0; // never a sign without a digit
    default:
        buf[0] = '-';
        return 1 + put_digits(buf + 1, size - 1, magnitude, base);
    }
}

char *tarn_str_from_int(int32_t value)
{
    char text[12]; // -2147483648
    (void)tarn_str_print_int(text, sizeof text, value, 10);
    return tarn_str_dup(text);
}

char *tarn_str_dup(const char *str)
{
    RVON(str, NULL);
    return tarn_str_ndup(str, std::strlen(str));
}

char *tarn_str_ndup(const char *str, size_t n)
{
    RVON(str, NULL);
    RVOF(n < SIZE_MAX, NULL);
    auto copy = tarn::make_text(n + 1);
    RVON(copy, NULL);
    tarn_mem_copy(copy.get(), str, n);
    return copy.release();
}

char *tarn_str_trim(char *str)
{
    RVON(str, NULL);
    const char *start = str;
    while (is_space(*start))
    {
        ++start;
    }
    size_t length = std::strlen(start);
    while (length != 0 && is_space(start[length - 1]))
    {
        --length;
    }
    std::memmove(str, start, length);
    str[length] = '\0';
    return str;
}

char *tarn_str_trim_dup(const char *str)
{
    char *const copy = tarn_str_dup(str);
    return copy != nullptr ? tarn_str_trim(copy) : nullptr;
}

bool tarn_str_is_empty(const char *str)
{
    while (str != nullptr && is_space(*str))
    {
        ++str;
    }
    return str == nullptr || *str == '\0';
}

char **tarn_str_split(const char *str, char delimiter)
{
    // clang-format off
    RVOF(!tarn_str_is_empty( str ), NULL);
    // clang-format on
    // One block: the pointers, the null behind them, the text whose pieces they point to.
    const uint64_t array_bytes = (count_pieces(str, delimiter) + uint64_t{1}) * sizeof(char *);
    auto block = tarn::make_text(array_bytes + std::strlen(str) + 1);
    RVON(block, NULL);
    char *const text = block.get() + array_bytes;
    auto **const pieces = reinterpret_cast<char **>(block.release());
    char **piece = pieces;
    const char *rest = str;
    for (auto found = next_piece(rest, delimiter); !found.empty();
         found = next_piece(rest, delimiter))
    {
        *piece = text + (found.data() - str);
        std::memcpy(*piece, found.data(), found.size()); // the block's zeros end it
        ++piece;
    }
    return pieces;
}

char *tarn_str_remove_char(char *str, char ch)
{
    RVON(str, NULL);
    *std::remove(str, str + std::strlen(str), ch) = '\0';
    return str;
}

char *tarn_str_to_upper(char *str)
{
    RVON(str, NULL);
    std::transform(str, str + std::strlen(str), str, ascii_upper);
    return str;
}

char *tarn_str_to_lower(char *str)
{
    RVON(str, NULL);
    std::transform(str, str + std::strlen(str), str, ascii_lower);
    return str;
}

bool tarn_str_equal(const char *a, const char *b)
{
    return a == b || (a != nullptr && b != nullptr && std::strcmp(a, b) == 0);
}

bool tarn_str_equal_nocase(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr)
    {
        return a == b;
    }
    while (*a != '\0' && ascii_lower(*a) == ascii_lower(*b))
    {
        ++a;
        ++b;
    }
    return ascii_lower(*a) == ascii_lower(*b);
}

char *tarn_str_ncpy(char *dst, const char *src, size_t n)
{
    return std::strncpy(dst, src, n);
}

int tarn_str_cmp(const char *a, const char *b)
{
    return std::strcmp(a, b);
}

int tarn_str_casecmp(const char *a, const char *b)
{
    return ::strcasecmp(a, b);
}

char *tarn_str_str(const char *text, const char *searched)
{
    return const_cast<char *>(std::strstr(text, searched));
}

size_t tarn_str_len(const char *str)
{
    return std::strlen(str);
}

char *tarn_str_chr(const char *str, int ch)
{
    return const_cast<char *>(std::strchr(str, ch));
}

char *tarn_str_rchr(const char *str, int ch)
{
    return const_cast<char *>(std::strrchr(str, ch));
}

char *tarn_str_tok(char *str, const char *set, char **state)
{
    return ::strtok_r(str, set, state);
}

char *tarn_str_ncat(char *dst, const char *src, size_t size)
{
    // size - 1 of 0 would append without any bound
    return size != 0 ? std::strncat(dst, src, size - 1) : dst;
}

int tarn_str_printf(char *buf, size_t size, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(buf, size, format, args);
    va_end(args);
    return length;
}

int tarn_str_scanf(const char *str, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int stored = std::vsscanf(str, format, args);
    va_end(args);
    return stored;
}

bool tarn_str_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_str_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
