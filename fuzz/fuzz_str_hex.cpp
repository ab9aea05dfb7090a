// Hexadecimal: any bytes there and back; any text as digits, checked against the C library.

#include "input.h"

#include "tarn_str.h"

#include <cctype>
#include <cstring>
#include <vector>

using fuzz::require;

namespace
{

void round_trip(const uint8_t *data, size_t size)
{
    const std::unique_ptr<char[]> hex(new char[2 * size]); // no room for the NUL
    require(tarn_str_to_hex(data, size, hex.get(), 2 * size) == 0);
    const std::unique_ptr<uint8_t[]> back(new uint8_t[size]);
    require(tarn_str_from_hex(hex.get(), 2 * size, back.get(), size) == 0);
    require(std::equal(data, data + size, back.get()));
}

bool is_digit(uint8_t c)
{
    return std::isxdigit(c) != 0;
}

/** A pair of characters as the C library reads it; 0xEE, the fill byte, when it begins with no
 *  digit. */
uint8_t pair_value(const uint8_t *data, size_t size)
{
    const char text[] = {static_cast<char>(data[0]), size > 1 ? static_cast<char>(data[1]) : '\0',
                         '\0'};
    return is_digit(data[0])
               ? static_cast<uint8_t>(std::strtoul(
                     std::string(text, is_digit(text[1]) ? 2 : 1).c_str(), nullptr, 16))
               : 0xEE;
}

void read_text(const uint8_t *data, size_t size)
{
    const size_t out_size = (size + 1) / 2;
    const std::unique_ptr<uint8_t[]> out(new uint8_t[out_size]);
    std::memset(out.get(), 0xEE, out_size);
    require(tarn_str_from_hex(reinterpret_cast<const char *>(data), size, out.get(), out_size) ==
            0);
    for (size_t i = 0; i < out_size; ++i)
    {
        require(out[i] == pair_value(data + 2 * i, size - 2 * i));
    }
    if (out_size != 0)
    {
        require(tarn_str_from_hex(reinterpret_cast<const char *>(data), size, out.get(),
                                  out_size - 1) == -2);
    }
}

void read_string(const uint8_t *data, size_t size)
{
    const fuzz::exact_string text(data, size);
    const auto digits = text.view();
    const auto bytes = fuzz::own(tarn_str_from_hex2(text.get()));
    require((bytes != nullptr) == (!digits.empty() && digits.size() % 2 == 0 &&
                                   std::all_of(digits.begin(), digits.end(), [](char c) {
                                       return is_digit(static_cast<uint8_t>(c));
                                   })));
    if (bytes)
    {
        std::vector<char> hex(digits.size());
        require(tarn_str_to_hex(bytes.get(), digits.size() / 2, hex.data(), hex.size()) == 0);
        (void)tarn_str_to_lower(text.get());
        require(std::string_view(hex.data(), hex.size()) == digits);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::swallow_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    round_trip(data, size);
    read_text(data, size);
    read_string(data, size);
    return 0;
}
