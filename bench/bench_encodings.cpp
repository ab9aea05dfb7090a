// Base64, MD5 and checksums: OpenSSL's functions or the plain loop beside ours, on the same bytes.

#include "ratio.h"

#include "tarn_algorithm.h"
#include "tarn_md5.h"
#include "tarn_util.h"

#include <openssl/evp.h>

#include <array>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{

constexpr size_t mebibyte = size_t{1} << 20;

/** Bytes without a pattern, the same in every run. */
std::vector<uint8_t> some_bytes(size_t size)
{
    std::vector<uint8_t> bytes(size);
    uint32_t state = 1;
    for (uint8_t &byte : bytes)
    {
        state = state * 1664525 + 1013904223;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

void count_bytes(benchmark::State &state, size_t size)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}

// ---- Base64 --------------------------------------------------------------------------------------
// The bare one writes into a buffer that is there already; ours allocates its result.

void base64_encode_bare(benchmark::State &state)
{
    const std::vector<uint8_t> data = some_bytes(mebibyte);
    std::vector<uint8_t> out(data.size() / 3 * 4 + 8);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(
            EVP_EncodeBlock(out.data(), data.data(), static_cast<int>(data.size())));
        benchmark::ClobberMemory();
    }
    count_bytes(state, data.size());
}

void base64_encode_ours(benchmark::State &state)
{
    const std::vector<uint8_t> data = some_bytes(mebibyte);
    for (auto _ : state)
    {
        char *text = tarn_base64_encode(data.data(), data.size(), nullptr);
        benchmark::DoNotOptimize(text);
        benchmark::ClobberMemory();
        tarn_mem_free(text);
    }
    count_bytes(state, data.size());
}

/** 1 MiB of Base64. */
std::string some_text()
{
    const std::vector<uint8_t> data = some_bytes(mebibyte / 4 * 3);
    char *text = tarn_base64_encode(data.data(), data.size(), nullptr);
    const std::string result = text;
    tarn_mem_free(text);
    return result;
}

void base64_decode_bare(benchmark::State &state)
{
    const std::string text = some_text();
    std::vector<uint8_t> out(text.size());
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(EVP_DecodeBlock(out.data(),
                                                 reinterpret_cast<const uint8_t *>(text.data()),
                                                 static_cast<int>(text.size())));
        benchmark::ClobberMemory();
    }
    count_bytes(state, text.size());
}

void base64_decode_ours(benchmark::State &state)
{
    const std::string text = some_text();
    for (auto _ : state)
    {
        uint8_t *data = tarn_base64_decode(text.data(), text.size(), nullptr);
        benchmark::DoNotOptimize(data);
        benchmark::ClobberMemory();
        tarn_mem_free(data);
    }
    count_bytes(state, text.size());
}

// ---- MD5 -----------------------------------------------------------------------------------------

void md5_bare(benchmark::State &state)
{
    const std::vector<uint8_t> data = some_bytes(16 * mebibyte);
    std::array<uint8_t, EVP_MAX_MD_SIZE> digest{};
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(
            EVP_Digest(data.data(), data.size(), digest.data(), nullptr, EVP_md5(), nullptr));
        benchmark::ClobberMemory();
    }
    count_bytes(state, data.size());
}

void md5_ours(benchmark::State &state)
{
    const std::vector<uint8_t> data = some_bytes(16 * mebibyte);
    std::array<char, 2 * TARN_MD5_DIGEST_LENGTH + 1> text{};
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(tarn_md5_str(data.data(), data.size(), text.data(), text.size()));
        benchmark::ClobberMemory();
    }
    count_bytes(state, data.size());
}

// ---- checksums -----------------------------------------------------------------------------------

constexpr uint16_t frame_size = 60000;

/** The CRC's low and high bytes in a table each, one byte after the other. */
class two_table_crc
{
public:
    two_table_crc()
    {
        for (uint32_t byte = 0; byte < 256; ++byte)
        {
            uint32_t value = byte;
            for (int bit = 0; bit < 8; ++bit)
            {
                value = (value >> 1) ^ ((value & 1) != 0 ? 0xA001u : 0u);
            }
            high_[byte] = static_cast<uint8_t>(value);
            low_[byte] = static_cast<uint8_t>(value >> 8);
        }
    }
    [[nodiscard]] uint16_t of(const uint8_t *data, uint16_t len) const
    {
        uint8_t high = 0xFF;
        uint8_t low = 0xFF;
        while (len-- != 0)
        {
            const unsigned index = high ^ *data++;
            high = low ^ high_[index];
            low = low_[index];
        }
        return static_cast<uint16_t>(low << 8 | high);
    }

private:
    std::array<uint8_t, 256> high_{};
    std::array<uint8_t, 256> low_{};
};

void crc16_bare(benchmark::State &state)
{
    const std::vector<uint8_t> data = some_bytes(frame_size);
    const two_table_crc crc;
    if (crc.of(data.data(), frame_size) != tarn_algorithm_crc16(data.data(), frame_size))
    {
        std::abort();
    }
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(crc.of(data.data(), frame_size));
    }
    count_bytes(state, data.size());
}

void crc16_ours(benchmark::State &state)
{
    const std::vector<uint8_t> data = some_bytes(frame_size);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(tarn_algorithm_crc16(data.data(), frame_size));
    }
    count_bytes(state, data.size());
}

/** As a caller who does not know the length would compile it. */
[[gnu::noipa]] uint32_t word_by_word(const uint16_t *words, size_t count)
{
    uint32_t sum = 0;
    for (; count != 0; --count)
    {
        sum += *words++;
    }
    sum = (sum >> 16) + (sum & 0xFFFF);
    return ~((sum >> 16) + (sum & 0xFFFF));
}

void checksum_bare(benchmark::State &state)
{
    const std::vector<uint8_t> data = some_bytes(frame_size);
    const auto *words = reinterpret_cast<const uint16_t *>(data.data());
    if (word_by_word(words, frame_size / 2) != tarn_algorithm_checksum(data.data(), frame_size))
    {
        std::abort();
    }
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(word_by_word(words, frame_size / 2));
    }
    count_bytes(state, data.size());
}

void checksum_ours(benchmark::State &state)
{
    const std::vector<uint8_t> data = some_bytes(frame_size);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(tarn_algorithm_checksum(data.data(), frame_size));
    }
    count_bytes(state, data.size());
}

BENCHMARK(base64_encode_bare)->Unit(benchmark::kMicrosecond);
BENCHMARK(base64_encode_ours)->Unit(benchmark::kMicrosecond);
BENCHMARK(base64_decode_bare)->Unit(benchmark::kMicrosecond);
BENCHMARK(base64_decode_ours)->Unit(benchmark::kMicrosecond);
BENCHMARK(md5_bare)->Unit(benchmark::kMicrosecond);
BENCHMARK(md5_ours)->Unit(benchmark::kMicrosecond);
BENCHMARK(crc16_bare)->Unit(benchmark::kMicrosecond);
BENCHMARK(crc16_ours)->Unit(benchmark::kMicrosecond);
BENCHMARK(checksum_bare)->Unit(benchmark::kMicrosecond);
BENCHMARK(checksum_ours)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv)
{
    return bench::run(argc, argv,
                      {
                          {"Base64 encode 1 MiB", "base64_encode_ours", "base64_encode_bare", 1.25},
                          {"Base64 decode 1 MiB", "base64_decode_ours", "base64_decode_bare", 1.25},
                          {"MD5 16 MiB", "md5_ours", "md5_bare", 1.17},
                          {"CRC-16", "crc16_ours", "crc16_bare", 1.0},
                          {"Internet checksum", "checksum_ours", "checksum_bare", 0.25},
                      });
}
