// MD5 (RFC 1321): the digest itself, contexts, texts and files.

#include "tarn_md5.h"

#include "tarn_file_port.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_str.h"

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstring>
#include <utility>

namespace
{

constexpr size_t block_size = 64;
constexpr size_t file_buffer_size = 64 * 1024;

struct md5_state
{
    uint32_t chain[4];
    uint64_t length; ///< bytes so far; modulo block_size of them wait in block
    uint8_t block[block_size];
};

} // namespace

struct tarn_md5
{
    tarn_handle_header header;
    md5_state state;
    uint8_t digest[TARN_MD5_DIGEST_LENGTH]; ///< of the last message that ended
};
TARN_ASSERT_RECORD(tarn_md5);

namespace
{

// ---- the transformation of one block -------------------------------------------------------------

/** Integer part of 2^32 * |sin(i + 1)|. */
constexpr std::array<uint32_t, 64> sines = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

/** Rotations, four per round. */
constexpr std::array<int, 16> rotations = {
    7, 12, 17, 22, 5, 9, 14, 20, 4, 11, 16, 23, 6, 10, 15, 21,
};

/** Word of the block that a step takes: in order, then in strides of 5, 3 and 7. */
constexpr size_t word_of_step(size_t step)
{
    constexpr std::array<size_t, 4> stride = {1, 5, 3, 7};
    constexpr std::array<size_t, 4> start = {0, 1, 5, 0};
    return (start[step / 16] + stride[step / 16] * step) % 16;
}

template <size_t Round>
uint32_t mix(uint32_t b, uint32_t c, uint32_t d) noexcept
{
    if constexpr (Round == 0)
    {
        return d ^ (b & (c ^ d));
    }
    else if constexpr (Round == 1)
    {
        // the two halves have no bit in common; a sum lets the processor start with either
        return (b & d) + (c & ~d);
    }
    else if constexpr (Round == 2)
    {
        return b ^ c ^ d;
    }
    else
    {
        return c ^ (b | ~d);
    }
}

/** One step; instead of moving the four values round, each step names them anew. */
template <size_t Step>
void run_step(uint32_t (&v)[4], const uint32_t (&words)[16]) noexcept
{
    constexpr size_t first = (64 - Step) % 4;
    uint32_t &a = v[first];
    const uint32_t b = v[(first + 1) % 4];
    a += sines[Step] + words[word_of_step(Step)];
    a += mix<Step / 16>(b, v[(first + 2) % 4], v[(first + 3) % 4]);
    a = b + std::rotl(a, rotations[Step / 16 * 4 + Step % 4]);
}

template <size_t... Step>
void run_steps(uint32_t (&v)[4], const uint32_t (&words)[16],
               std::index_sequence<Step...> /*all*/) noexcept
{
    (run_step<Step>(v, words), ...);
}

uint32_t little_endian(uint32_t word) noexcept
{
    return std::endian::native == std::endian::big ? __builtin_bswap32(word) : word;
}

void add_blocks(md5_state &state, const uint8_t *data, size_t count) noexcept
{
    uint32_t v[4] = {state.chain[0], state.chain[1], state.chain[2], state.chain[3]};
    for (; count != 0; --count, data += block_size)
    {
        const uint32_t before[4] = {v[0], v[1], v[2], v[3]};
        uint32_t words[16];
        std::memcpy(words, data, sizeof words);
        for (uint32_t &word : words)
        {
            word = little_endian(word);
        }
        run_steps(v, words, std::make_index_sequence<64>());
        for (size_t i = 0; i < 4; ++i)
        {
            v[i] += before[i];
        }
    }
    std::copy(v, v + 4, state.chain);
}

// ---- messages ------------------------------------------------------------------------------------

void start(md5_state &state) noexcept
{
    state = {{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, 0, {}};
}

void add(md5_state &state, const uint8_t *data, size_t len) noexcept
{
    const auto waiting = static_cast<size_t>(state.length % block_size);
    state.length += len;
    if (waiting != 0)
    {
        const size_t taken = std::min(len, block_size - waiting);
        tarn_mem_copy(state.block + waiting, data, taken);
        data += taken;
        len -= taken;
        if (waiting + taken < block_size)
        {
            return;
        }
        add_blocks(state, state.block, 1);
    }
    add_blocks(state, data, len / block_size);
    tarn_mem_copy(state.block, data + len / block_size * block_size, len % block_size);
}

/** Pads the message, writes its digest and starts a new one. */
void finish(md5_state &state, uint8_t *digest) noexcept
{
    constexpr size_t length_size = 8;
    uint8_t tail[block_size] = {0x80};
    uint8_t bit_length[length_size];
    for (size_t i = 0; i < length_size; ++i)
    {
        bit_length[i] = static_cast<uint8_t>(state.length << 3 >> (8 * i));
    }
    // one byte 0x80 and then zeros, up to eight bytes before the end of a block
    const auto waiting = static_cast<size_t>(state.length % block_size);
    add(state, tail, 1 + (2 * block_size - length_size - 1 - waiting) % block_size);
    add(state, bit_length, length_size);
    for (size_t i = 0; i < 4; ++i)
    {
        const uint32_t word = little_endian(state.chain[i]);
        std::memcpy(digest + 4 * i, &word, sizeof word);
    }
    start(state);
}

/** Adds all that is left in a descriptor; false when it cannot be read to its end. */
bool add_file(md5_state &state, int fd, uint8_t *buffer, size_t size)
{
    int64_t n = 0;
    while ((n = tarn::file_read_some(fd, buffer, size)) > 0)
    {
        add(state, buffer, static_cast<size_t>(n));
    }
    return n == 0;
}

} // namespace

TARN_MD5 tarn_md5_create(void)
{
    auto ctx = tarn::make_object<tarn_md5>(TARN_HANDLE_TYPE_MD5);
    RVON(ctx, TARN_INVALID_HANDLE);
    start(ctx->state);
    return ctx.release();
}

void tarn_md5_destroy(TARN_MD5 ctx)
{
    tarn_mem_free(ctx);
}

bool tarn_md5_update(TARN_MD5 ctx, const void *data, size_t len)
{
    RVON(ctx, false);
    RVOF(data != NULL || len == 0, false);
    add(ctx->state, static_cast<const uint8_t *>(data), len);
    return true;
}

bool tarn_md5_final(TARN_MD5 ctx, uint8_t *digest)
{
    RVON(ctx, false);
    RVON(digest, false);
    finish(ctx->state, ctx->digest);
    std::memcpy(digest, ctx->digest, TARN_MD5_DIGEST_LENGTH);
    return true;
}

int tarn_md5_final_str(TARN_MD5 ctx, char *text, size_t size)
{
    RVON(ctx, -1);
    RVON(text, -2);
    RVOF(size > TARN_MD5_DIGEST_LENGTH * 2, -2);
    finish(ctx->state, ctx->digest);
    return tarn_str_to_hex(ctx->digest, sizeof ctx->digest, text, size);
}

int tarn_md5_str(const void *data, size_t len, char *text, size_t size)
{
    RVOF(data != NULL || len == 0, -1);
    RVON(text, -2);
    RVOF(size > TARN_MD5_DIGEST_LENGTH * 2, -2);
    md5_state state;
    uint8_t digest[TARN_MD5_DIGEST_LENGTH];
    start(state);
    add(state, static_cast<const uint8_t *>(data), len);
    finish(state, digest);
    return tarn_str_to_hex(digest, sizeof digest, text, size);
}

int tarn_md5_file(const char *path, char *md5_str, size_t md5_str_size)
{
    RVON(path, -1);
    RVON(md5_str, -2);
    RVOF(md5_str_size > TARN_MD5_DIGEST_LENGTH * 2, -2);
    const tarn::unique_fd fp(tarn::file_open_read(path));
    RVON(fp, TARN_ERRLN);
    const auto buffer = tarn::unique_mem<uint8_t>::make_array(file_buffer_size);
    RVON(buffer, TARN_ERRLN);
    md5_state state;
    start(state);
    RVOF(add_file(state, fp.get(), buffer.get(), file_buffer_size), TARN_ERRLN);
    const uint64_t length = state.length;
    uint8_t digest[TARN_MD5_DIGEST_LENGTH];
    finish(state, digest);
    (void)tarn_str_to_hex(digest, sizeof digest, md5_str, md5_str_size);
    TARN_LOG_TRACE("%s len %d md5 %s", path, static_cast<int>(std::min(length, uint64_t{INT_MAX})),
                   md5_str);
    return 0;
}

bool tarn_md5_init(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
    return true;
}

void tarn_md5_uninit(void)
{
    TARN_LOG_EMPTY(TARN_LOG_LEVEL_TRACE);
}
