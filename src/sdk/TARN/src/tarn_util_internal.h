// Private: big-endian words at any address, unchecked; for the sources of the util module.
#ifndef TARN_UTIL_INTERNAL_H
#define TARN_UTIL_INTERNAL_H

#include <bit>
#include <cstdint>
#include <cstring>

namespace tarn
{

inline uint64_t load_be64(const uint8_t *at) noexcept
{
    uint64_t word = 0;
    std::memcpy(&word, at, sizeof word);
    return std::endian::native == std::endian::little ? __builtin_bswap64(word) : word;
}

inline void store_be64(uint8_t *at, uint64_t word) noexcept
{
    word = std::endian::native == std::endian::little ? __builtin_bswap64(word) : word;
    std::memcpy(at, &word, sizeof word);
}

inline void store_be32(uint8_t *at, uint32_t word) noexcept
{
    word = std::endian::native == std::endian::little ? __builtin_bswap32(word) : word;
    std::memcpy(at, &word, sizeof word);
}

} // namespace tarn

#endif
