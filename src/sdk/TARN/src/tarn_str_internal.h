// Private: pieces that the string module's sources share; for tarn_str*.cpp, and
// for the util module, which spells bytes in hex as well.
#ifndef TARN_STR_INTERNAL_H
#define TARN_STR_INTERNAL_H

#include "tarn_raii.h"

#include <array>
#include <cstdint>
#include <utility>

namespace tarn
{

inline constexpr char hex_digits[] = "0123456789abcdef";

namespace str_detail
{

constexpr std::array<int8_t, 256> make_hex_values()
{
    std::array<int8_t, 256> values{};
    values.fill(-1);
    for (int8_t i = 0; i < 10; ++i)
    {
        values[static_cast<size_t>('0' + i)] = i;
    }
    for (int8_t i = 0; i < 6; ++i)
    {
        values[static_cast<size_t>('a' + i)] = static_cast<int8_t>(10 + i);
        values[static_cast<size_t>('A' + i)] = static_cast<int8_t>(10 + i);
    }
    return values;
}

inline constexpr std::array<int8_t, 256> hex_values = make_hex_values();

} // namespace str_detail

/** 0 to 15, or -1 for a character that is no hexadecimal digit. */
constexpr int hex_value(char c) noexcept
{
    return str_detail::hex_values[static_cast<unsigned char>(c)];
}

/** A zero-filled buffer for a text; empty when memory ran out. The size is taken in 64 bits, so
 *  that a sum of piece lengths cannot wrap on a host with 32-bit sizes. */
inline unique_mem<char> make_text(uint64_t size)
{
    return std::in_range<size_t>(size) ? unique_mem<char>::make_array(static_cast<size_t>(size))
                                       : unique_mem<char>();
}

} // namespace tarn

#endif
