// Strings: hexadecimal text of byte strings, in both directions.

#include "tarn_str.h"

#include "tarn_check.h"
#include "tarn_str_internal.h"

#include <cstring>

int tarn_str_to_hex(const void *str, size_t str_len, char *hex, size_t hex_len)
{
    RVON(str, -1);
    RVON(hex, -2);
    RVOF_TEXT(str_len <= hex_len / 2, -2, "RVOF(str_len * 2 <= hex_len,-2)"); // cannot wrap
    const auto *const bytes = static_cast<const uint8_t *>(str);
    for (size_t i = 0; i < str_len; ++i)
    {
        hex[2 * i] = tarn::hex_digits[bytes[i] >> 4];
        hex[2 * i + 1] = tarn::hex_digits[bytes[i] & 15];
    }
    if (2 * str_len < hex_len)
    {
        hex[2 * str_len] = '\0';
    }
    return 0;
}

int tarn_str_from_hex(const char *text, size_t text_len, void *out, size_t out_len)
{
    // The lines name the arguments after those of the opposite direction, in its order.
    RVON_TEXT(text, -1, "RVON(str,-1)");
    RVON_TEXT(out, -2, "RVON(hex,-2)");
    const size_t pairs = text_len / 2 + text_len % 2;
    RVOF_TEXT(pairs <= out_len, -2, "RVOF(str_len * 2 >= hex_len,-2)");
    auto *const bytes = static_cast<uint8_t *>(out);
    for (size_t i = 0; i < text_len; i += 2)
    {
        const int first = tarn::hex_value(text[i]);
        const int second = i + 1 < text_len ? tarn::hex_value(text[i + 1]) : -1;
        if (first >= 0)
        {
            bytes[i / 2] = static_cast<uint8_t>(second >= 0 ? first << 4 | second : first);
        }
    }
    return 0;
}

char *tarn_str_from_hex2(const char *hex_str)
{
    RVON(hex_str, NULL);
    const size_t hex_len = std::strlen(hex_str);
    RVOF(hex_len > 0, NULL);
    // clang-format off
    RVOF(( hex_len % 2 ) == 0, NULL);
    // clang-format on
    auto str = tarn::make_text(hex_len / 2 + 1);
    RVON(str, NULL);
    for (size_t i = 0; i < hex_len; i += 2)
    {
        const int high = tarn::hex_value(hex_str[i]);
        const int low = tarn::hex_value(hex_str[i + 1]);
        if (high < 0 || low < 0)
        {
            return nullptr;
        }
        str.get()[i / 2] = static_cast<char>(high << 4 | low);
    }
    return str.release();
}
