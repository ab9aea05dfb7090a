// Arrays of bits: filling, copying, shifting, printing.
//
// Everything is done in runs of bits that lie within one byte of the destination, and in whole
// bytes or words between them; no byte is read or written that holds no bit of the range.

#include "tarn_util.h"

#include "tarn_file_port.h"
#include "tarn_os.h"
#include "tarn_raii.h"
#include "tarn_str.h"
#include "tarn_util_internal.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <string_view>

namespace
{

constexpr uint64_t byte_bits = 8;
constexpr uint64_t word_bits = 64;

uint64_t size_in_bits(size_t len) noexcept
{
    return uint64_t{len} * byte_bits;
}

/** What of a range lies within the array. */
uint64_t clipped(size_t len, uint64_t offset, uint64_t count) noexcept
{
    const uint64_t size = size_in_bits(len);
    return offset < size ? std::min(count, size - offset) : 0;
}

// ---- runs within a byte --------------------------------------------------------------------------

/** 1 to 8 bits from any position, as a number. */
unsigned get_bits(const uint8_t *buf, uint64_t bit, uint64_t count) noexcept
{
    const uint8_t *at = buf + bit / byte_bits;
    const auto skipped = static_cast<unsigned>(bit % byte_bits);
    const unsigned in_second = skipped + count > byte_bits ? at[1] : 0;
    const unsigned window = (unsigned{at[0]} << 8 | in_second) << skipped & 0xFFFF;
    return window >> (16 - count);
}

/** 1 to 8 bits to a position from which they stay within one byte. */
void put_bits(uint8_t *buf, uint64_t bit, uint64_t count, unsigned value) noexcept
{
    uint8_t &byte = buf[bit / byte_bits];
    const auto shift = static_cast<unsigned>(byte_bits - bit % byte_bits - count);
    const unsigned mask = ((1u << count) - 1) << shift;
    byte = static_cast<uint8_t>((byte & ~mask) | (value << shift & mask));
}

// ---- words ---------------------------------------------------------------------------------------

/** 64 bits from any position; the ninth byte is looked at only when it holds one of them. */
uint64_t get_word(const uint8_t *buf, uint64_t bit) noexcept
{
    const uint8_t *at = buf + bit / byte_bits;
    const auto skipped = static_cast<unsigned>(bit % byte_bits);
    const uint64_t word = tarn::load_be64(at);
    return skipped == 0 ? word : word << skipped | at[sizeof word] >> (byte_bits - skipped);
}

// ---- copying -------------------------------------------------------------------------------------

struct bit_copy
{
    uint8_t *dst;
    uint64_t dst_bit;
    const uint8_t *src;
    uint64_t src_bit;

    void run(uint64_t at, uint64_t count) const noexcept
    {
        if (count == word_bits)
        {
            tarn::store_be64(dst + (dst_bit + at) / byte_bits, get_word(src, src_bit + at));
        }
        else
        {
            put_bits(dst, dst_bit + at, count, get_bits(src, src_bit + at, count));
        }
    }
};

/** Next run when edge bits are missing to the next byte boundary of the destination. */
uint64_t run_length(uint64_t edge, uint64_t left) noexcept
{
    if (edge != 0)
    {
        return std::min(edge, left);
    }
    return left >= word_bits ? word_bits : std::min(left, byte_bits);
}

void copy_forward(const bit_copy &copy, uint64_t count) noexcept
{
    for (uint64_t done = 0; done < count;)
    {
        const uint64_t edge = -(copy.dst_bit + done) % byte_bits;
        const uint64_t length = run_length(edge, count - done);
        copy.run(done, length);
        done += length;
    }
}

void copy_backward(const bit_copy &copy, uint64_t count) noexcept
{
    while (count != 0)
    {
        const uint64_t edge = (copy.dst_bit + count) % byte_bits;
        const uint64_t length = run_length(edge, count);
        count -= length;
        copy.run(count, length);
    }
}

/** Both ranges begin at a byte boundary. */
void copy_bytes(uint8_t *dst, const uint8_t *src, uint64_t count) noexcept
{
    const auto whole = static_cast<size_t>(count / byte_bits);
    const uint64_t rest = count % byte_bits;
    // taken before the move, which may write over it
    const unsigned last = rest != 0 ? get_bits(src + whole, 0, rest) : 0;
    tarn_mem_move(dst, src, whole);
    if (rest != 0)
    {
        put_bits(dst + whole, 0, rest, last);
    }
}

/** As if by way of a temporary copy of the source: ranges that overlap are copied from the end that
 *  is read before it is written. */
void copy_bits(uint8_t *dst, uint64_t dst_bit, const uint8_t *src, uint64_t src_bit,
               uint64_t count) noexcept
{
    const bit_copy copy = {dst + dst_bit / byte_bits, dst_bit % byte_bits,
                           src + src_bit / byte_bits, src_bit % byte_bits};
    if (copy.dst_bit == 0 && copy.src_bit == 0)
    {
        copy_bytes(copy.dst, copy.src, count);
    }
    else if (std::less<>()(copy.src, static_cast<const uint8_t *>(copy.dst)) ||
             (copy.src == copy.dst && copy.src_bit < copy.dst_bit))
    {
        copy_backward(copy, count);
    }
    else
    {
        copy_forward(copy, count);
    }
}

// ---- filling and shifting ------------------------------------------------------------------------

void fill_bits(uint8_t *buf, uint64_t offset, uint64_t count, bool ones) noexcept
{
    const unsigned value = ones ? 0xFF : 0;
    const uint64_t head = std::min(-offset % byte_bits, count);
    if (head != 0)
    {
        put_bits(buf, offset, head, value);
    }
    const uint64_t middle = offset + head;
    const uint64_t tail = (count - head) % byte_bits;
    const auto whole = static_cast<size_t>((count - head) / byte_bits);
    tarn_mem_set(buf + middle / byte_bits, static_cast<int>(value), whole);
    if (tail != 0)
    {
        put_bits(buf, middle + whole * byte_bits, tail, value);
    }
}

bool fills_with_a_value(int fill) noexcept
{
    return fill == 0 || fill == 1;
}

/** Rotates size bits toward bit 0 by n, which is below size. */
bool rotate_left(uint8_t *buf, uint64_t size, uint64_t n)
{
    auto front = tarn::unique_mem<uint8_t>::make_array(static_cast<size_t>((n + 7) / byte_bits));
    RVON(front, false);
    copy_bits(front.get(), 0, buf, 0, n);
    copy_bits(buf, 0, buf, n, size - n);
    copy_bits(buf, size - n, front.get(), 0, n);
    return true;
}

// ---- printing ------------------------------------------------------------------------------------

/** Collects text for a descriptor; once it has failed it stays failed. */
class fd_text
{
public:
    explicit fd_text(int fd) noexcept : fd_(fd) {}
    void append(std::string_view text)
    {
        while (!text.empty())
        {
            const size_t n = std::min(text.size(), sizeof buffer_ - used_);
            std::memcpy(buffer_ + used_, text.data(), n);
            used_ += n;
            text.remove_prefix(n);
            if (used_ == sizeof buffer_)
            {
                (void)flush();
            }
        }
    }
    void append(char c)
    {
        append(std::string_view(&c, 1));
    }
    bool flush()
    {
        good_ = good_ && tarn::file_write_all(fd_, buffer_, used_);
        used_ = 0;
        return good_;
    }
    [[nodiscard]] bool good() const noexcept
    {
        return good_;
    }

private:
    int fd_;
    bool good_ = true;
    size_t used_ = 0;
    char buffer_[1024]; // small enough for the stack of any thread
};

void append_bits(fd_text &out, const uint8_t *bytes, uint64_t offset, uint64_t count,
                 uint32_t group)
{
    uint32_t in_group = 0;
    for (uint64_t bit = offset; count != 0 && out.good(); ++bit, --count)
    {
        out.append(get_bits(bytes, bit, 1) != 0 ? '1' : '0');
        if (group > 0 && ++in_group == group)
        {
            out.append(' ');
            in_group = 0;
        }
    }
}

/** The title may be of any length. */
bool append_heading(fd_text &out, const char *title, int len)
{
    constexpr const char *format = "[%s] len = %d\n";
    const int length = tarn_str_printf(nullptr, 0, format, title, len);
    RVOF(length >= 0, false);
    const size_t size = static_cast<size_t>(length) + 1;
    auto text = tarn::unique_mem<char>::make_array(size);
    RVON(text, false);
    (void)tarn_str_printf(text.get(), size, format, title, len);
    out.append(text.get());
    return true;
}

tarn::unique_fd duplicate(int fd)
{
    tarn::unique_fd copy = tarn::duplicate_fd(fd);
    if (!copy)
    {
        const int error = errno;
        TARN_LOG_ERROR("dup failed, error = %d (%s)", error, tarn::error_text(error).c_str());
    }
    return copy;
}

} // namespace

bool tarn_bit_set_ones(void *buf, size_t len, uint64_t bit_offset, uint64_t bit_count)
{
    return tarn_bit_fill(buf, len, bit_offset, bit_count, 1);
}

bool tarn_bit_fill(void *buf, size_t len, uint64_t bit_offset, uint64_t bit_count, int value)
{
    RVON(buf, false);
    const uint64_t count = clipped(len, bit_offset, bit_count);
    if (count != 0)
    {
        fill_bits(static_cast<uint8_t *>(buf), bit_offset, count, value != 0);
    }
    return true;
}

bool tarn_bit_copy(void *dst, uint64_t dst_bit, const void *src, uint64_t src_bit,
                   uint64_t bit_count)
{
    RVON(dst, false);
    RVON(src, false);
    copy_bits(static_cast<uint8_t *>(dst), dst_bit, static_cast<const uint8_t *>(src), src_bit,
              bit_count);
    return true;
}

bool tarn_bit_shift_left(void *buf, size_t len, uint64_t n, int fill)
{
    RVON(buf, false);
    auto *bytes = static_cast<uint8_t *>(buf);
    const uint64_t size = size_in_bits(len);
    if (n == 0 || size == 0)
    {
        return true;
    }
    if (!fills_with_a_value(fill))
    {
        return rotate_left(bytes, size, n % size);
    }
    const uint64_t vacated = std::min(n, size);
    copy_bits(bytes, 0, bytes, vacated, size - vacated);
    fill_bits(bytes, size - vacated, vacated, fill == 1);
    return true;
}

bool tarn_bit_shift_right(void *buf, size_t len, uint64_t n, int fill)
{
    RVON(buf, false);
    auto *bytes = static_cast<uint8_t *>(buf);
    const uint64_t size = size_in_bits(len);
    if (n == 0 || size == 0)
    {
        return true;
    }
    if (!fills_with_a_value(fill))
    {
        return rotate_left(bytes, size, (size - n % size) % size);
    }
    const uint64_t vacated = std::min(n, size);
    copy_bits(bytes, vacated, bytes, 0, size - vacated);
    fill_bits(bytes, 0, vacated, fill == 1);
    return true;
}

bool tarn_bit_print(int fd, const void *buf, uint64_t bit_offset, uint64_t bit_count,
                    uint32_t group, bool newline)
{
    RVON(buf, false);
    const tarn::unique_fd copy = duplicate(fd);
    if (!copy)
    {
        return false;
    }
    fd_text out(copy.get());
    append_bits(out, static_cast<const uint8_t *>(buf), bit_offset, bit_count, group);
    if (newline)
    {
        out.append('\n');
    }
    return out.flush();
}

bool tarn_bit_print_detail(int fd, const char *title, const void *buf, size_t len)
{
    RVON(buf, false);
    const tarn::unique_fd copy = duplicate(fd);
    if (!copy)
    {
        return false;
    }
    const int count = static_cast<int>(std::min(len, size_t{INT_MAX}));
    fd_text out(copy.get());
    if (!append_heading(out, title != nullptr ? title : "", count))
    {
        return false;
    }
    const auto *bytes = static_cast<const uint8_t *>(buf);
    for (int i = 0; i < count && out.good(); ++i)
    {
        char label[32];
        (void)tarn_str_printf(label, sizeof label, "[%d]: %02X - ", i, unsigned{bytes[i]});
        out.append(label);
        append_bits(out, bytes + i, 0, byte_bits, 0);
        out.append('\n');
    }
    return out.flush();
}
