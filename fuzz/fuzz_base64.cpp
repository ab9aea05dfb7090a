// Base64: any bytes as the text of a decode, against a decoder that goes character by character;
// and any bytes through encode and decode.

#include "input.h"

#include "tarn_util.h"

#include <cstring>
#include <string>
#include <string_view>

using fuzz::require;

namespace
{

unsigned six_bits(std::string_view text, size_t position)
{
    constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t index =
        position < text.size() ? alphabet.find(text[position]) : std::string_view::npos;
    return index != std::string_view::npos ? static_cast<unsigned>(index) : 0;
}

std::string plain_decode(std::string_view text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); i += 4)
    {
        unsigned bits = 0;
        for (size_t k = 0; k < 4; ++k)
        {
            bits = bits << 6 | six_bits(text, i + k);
        }
        for (const int shift : {16, 8, 0})
        {
            bytes.push_back(static_cast<char>(bits >> shift));
        }
    }
    const size_t padding =
        (text[text.size() - 1] == '=' ? 1u : 0u) + (text[text.size() - 2] == '=' ? 1u : 0u);
    bytes.resize(bytes.size() - padding);
    return bytes;
}

void decode_equals(std::string_view text, std::string_view expected)
{
    size_t length = 0;
    uint8_t *bytes = tarn_base64_decode(text.data(), text.size(), &length);
    require(bytes != nullptr && length == expected.size());
    require(std::memcmp(bytes, expected.data(), length) == 0 && bytes[length] == 0);
    tarn_mem_free(bytes);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    if (size > 1)
    {
        decode_equals(input, plain_decode(input));
    }
    else
    {
        require(tarn_base64_decode(input.data(), size, nullptr) == nullptr);
    }

    size_t length = 0;
    char *text = tarn_base64_encode(data, size, &length);
    require(text != nullptr && std::strlen(text) == length && length == (size + 2) / 3 * 4);
    if (size != 0)
    {
        decode_equals(text, input);
    }
    tarn_mem_free(text);
    return 0;
}
