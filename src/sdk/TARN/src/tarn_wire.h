// Private: big-endian bytes in a bounded span; for the layer's own sources.
//
// Neither side ever touches a byte outside its span, whatever lengths it is told. The first access
// that does not fit fails, and everything after it too: a caller reads or writes a whole record and
// asks once whether all of it was there. Bytes are moved one by one with shifts, so the byte order
// and the alignment of the host do not matter.
#ifndef TARN_WIRE_H
#define TARN_WIRE_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <utility>

namespace tarn
{

/** The position in a span, and the one place where an access is held against its end. */
template <typename Byte>
class wire_cursor
{
public:
    explicit wire_cursor(std::span<Byte> span) noexcept
        : begin_(span.data()), next_(begin_), end_(begin_ + span.size())
    {
    }

    /** False from the first access on that did not fit. */
    [[nodiscard]] bool ok() const noexcept
    {
        return needed_ == 0;
    }
    /** Bytes read or written so far. */
    [[nodiscard]] size_t position() const noexcept
    {
        return static_cast<size_t>(next_ - begin_);
    }
    /** Bytes up to the end; none after a failure. */
    [[nodiscard]] size_t remaining() const noexcept
    {
        return static_cast<size_t>(end_ - next_);
    }
    /** After a failure: the size that the span had to have for the access that failed. */
    [[nodiscard]] uint64_t needed() const noexcept
    {
        return needed_;
    }

protected:
    /** The next n bytes; null when they are not all there. */
    Byte *take(uint32_t n) noexcept
    {
        if (n > remaining()) [[unlikely]]
        {
            needed_ = ok() ? uint64_t{position()} + n : needed_;
            end_ = next_;
            return nullptr;
        }
        return std::exchange(next_, next_ + n);
    }

private:
    Byte *begin_;
    Byte *next_;
    Byte *end_;
    uint64_t needed_ = 0; ///< 0: nothing has failed
};

/** Takes numbers and bytes from the front of a span; gives 0 and empty spans after a failure. */
class wire_reader : public wire_cursor<const uint8_t>
{
public:
    using wire_cursor::wire_cursor;

    uint8_t u8() noexcept
    {
        return static_cast<uint8_t>(number<1>());
    }
    uint16_t u16() noexcept
    {
        return static_cast<uint16_t>(number<2>());
    }
    uint32_t u32() noexcept
    {
        return static_cast<uint32_t>(number<4>());
    }
    uint64_t u64() noexcept
    {
        return number<8>();
    }
    /** The next n bytes, where they stand. */
    std::span<const uint8_t> bytes(uint32_t n) noexcept
    {
        const uint8_t *const field = take(n);
        return field != nullptr ? std::span(field, n) : std::span<const uint8_t>();
    }

private:
    template <size_t N>
    uint64_t number() noexcept
    {
        const uint8_t *const field = take(N);
        return field != nullptr ? join(field, std::make_index_sequence<N>()) : 0;
    }
    /** One expression, which compilers turn into one load and a swap; a loop they do not. */
    template <size_t... I>
    static uint64_t join(const uint8_t *from, std::index_sequence<I...>) noexcept
    {
        return ((uint64_t{from[I]} << (8 * (sizeof...(I) - 1 - I))) | ...);
    }
};

/** Puts numbers and bytes at the front of a span; writes nothing more after a failure. */
class wire_writer : public wire_cursor<uint8_t>
{
public:
    using wire_cursor::wire_cursor;

    void u8(uint8_t value) noexcept
    {
        number<1>(value);
    }
    void u16(uint16_t value) noexcept
    {
        number<2>(value);
    }
    void u32(uint32_t value) noexcept
    {
        number<4>(value);
    }
    void u64(uint64_t value) noexcept
    {
        number<8>(value);
    }
    /** @param data  n bytes outside the span; may be null when n is 0 */
    void bytes(const void *data, uint32_t n) noexcept
    {
        if (uint8_t *const field = take(n); field != nullptr && n != 0)
        {
            std::memcpy(field, data, n);
        }
    }

private:
    template <size_t N>
    void number(uint64_t value) noexcept
    {
        if (uint8_t *const field = take(N); field != nullptr)
        {
            split(value, field, std::make_index_sequence<N>());
        }
    }
    template <size_t... I>
    static void split(uint64_t value, uint8_t *to, std::index_sequence<I...>) noexcept
    {
        ((to[I] = static_cast<uint8_t>(value >> (8 * (sizeof...(I) - 1 - I)))), ...);
    }
};

} // namespace tarn

#endif
