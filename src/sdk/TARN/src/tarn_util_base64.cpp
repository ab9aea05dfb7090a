// Base64 (RFC 4648, standard alphabet).
//
// Both tables are built by the compiler: they are there before start-up, and no thread can meet a
// half-filled one.

#include "tarn_util.h"

#include "tarn_raii.h"
#include "tarn_util_internal.h"

#include <array>
#include <cstring>

namespace
{

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/** More bytes have a text whose length does not fit into size_t. */
constexpr size_t longest_input = SIZE_MAX / 4 * 3 - 3;

/** The two characters of every 12 bits: half the look-ups of one character at a time. */
struct character_pair
{
    char text[2];
};

constexpr std::array<character_pair, 4096> make_pairs()
{
    std::array<character_pair, 4096> pairs{};
    for (size_t bits = 0; bits < pairs.size(); ++bits)
    {
        pairs[bits] = {{alphabet[bits >> 6], alphabet[bits & 63]}};
    }
    return pairs;
}
constexpr auto pairs = make_pairs();

/** Six bits of every byte; 0 for those that are not of the alphabet. */
constexpr std::array<uint8_t, 256> make_decoding_table()
{
    std::array<uint8_t, 256> table{};
    for (size_t index = 0; index < 64; ++index)
    {
        table[static_cast<unsigned char>(alphabet[index])] = static_cast<uint8_t>(index);
    }
    return table;
}
constexpr auto decoding_table = make_decoding_table();

/** Two characters for bits 11 to 0. */
void put_pair(uint64_t bits, char *out) noexcept
{
    std::memcpy(out, pairs[bits & 0xFFF].text, 2);
}

void encode_group(const uint8_t *in, char *out) noexcept
{
    const uint32_t bits = uint32_t{in[0]} << 16 | uint32_t{in[1]} << 8 | in[2];
    put_pair(bits >> 12, out);
    put_pair(bits, out + 2);
}

void encode(const uint8_t *in, size_t len, char *out) noexcept
{
    for (; len >= 8; len -= 6, in += 6, out += 8) // takes six of the eight bytes that it loads
    {
        const uint64_t bits = tarn::load_be64(in);
        put_pair(bits >> 52, out);
        put_pair(bits >> 40, out + 2);
        put_pair(bits >> 28, out + 4);
        put_pair(bits >> 16, out + 6);
    }
    for (; len >= 3; len -= 3, in += 3, out += 4)
    {
        encode_group(in, out);
    }
    if (len != 0)
    {
        uint8_t rest[3] = {};
        std::memcpy(rest, in, len);
        encode_group(rest, out);
        std::memset(out + 1 + len, '=', 3 - len);
    }
}

/** The three bytes of four characters, in the upper part of the word. */
uint32_t decode_group(const uint8_t *in) noexcept
{
    return uint32_t{decoding_table[in[0]]} << 26 | uint32_t{decoding_table[in[1]]} << 20 |
           uint32_t{decoding_table[in[2]]} << 14 | uint32_t{decoding_table[in[3]]} << 8;
}

/** out_len ends within the last group. Each group but that one is stored as four bytes, the last
 *  of which the next group writes over: at least one byte of it is part of the output. */
void decode(const uint8_t *in, size_t len, uint8_t *out, size_t out_len) noexcept
{
    for (; len > 4; len -= 4, in += 4, out += 3, out_len -= 3)
    {
        tarn::store_be32(out, decode_group(in));
    }
    uint8_t group[4] = {};
    uint8_t bytes[4];
    std::memcpy(group, in, len);
    tarn::store_be32(bytes, decode_group(group));
    std::memcpy(out, bytes, out_len);
}

} // namespace

char *tarn_base64_encode(const void *data, size_t len, size_t *out_len)
{
    RVOF(data != NULL || len == 0, NULL);
    RVOF(len <= longest_input, NULL);
    const size_t text_len = (len / 3 + (len % 3 != 0 ? 1 : 0)) * 4;
    auto encoded_data = tarn::unique_mem<char>::make_array(text_len + 1);
    RVON(encoded_data, NULL);
    encode(static_cast<const uint8_t *>(data), len, encoded_data.get());
    if (out_len != nullptr)
    {
        *out_len = text_len;
    }
    return encoded_data.release();
}

uint8_t *tarn_base64_decode(const char *text, size_t input_length, size_t *out_len)
{
    RVON(text, NULL);
    RVOF(input_length > 1, NULL);
    size_t length = (input_length / 4 + (input_length % 4 != 0 ? 1 : 0)) * 3;
    // two tests, one not bound to the other: "AB=C" loses a byte as well
    length -= text[input_length - 1] == '=' ? 1 : 0;
    length -= text[input_length - 2] == '=' ? 1 : 0;
    auto decoded_data = tarn::unique_mem<uint8_t>::make_array(length + 1);
    RVON(decoded_data, NULL);
    decode(reinterpret_cast<const uint8_t *>(text), input_length, decoded_data.get(), length);
    if (out_len != nullptr)
    {
        *out_len = length;
    }
    return decoded_data.release();
}
