// Private: bounded text building without allocation; for the layer's own sources.
//
// What does not fit is cut, the text is always terminated. Nothing here takes a lock, allocates or
// looks at the locale, so signal handlers may use it.
#ifndef TARN_TEXT_H
#define TARN_TEXT_H

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace tarn
{

/** Appends to a caller's buffer. */
class text_writer
{
public:
    /** @param size  of the buffer, terminator included; at least 1 */
    text_writer(char *buffer, size_t size) noexcept : buffer_(buffer), size_(size)
    {
        buffer_[0] = '\0';
    }
    text_writer &append(std::string_view text) noexcept
    {
        const size_t room = size_ - 1 - length_;
        const size_t n = text.size() < room ? text.size() : room;
        truncated_ = truncated_ || n < text.size();
        if (n != 0)
        {
            std::memcpy(buffer_ + length_, text.data(), n);
        }
        length_ += n;
        buffer_[length_] = '\0';
        return *this;
    }
    text_writer &append(char c) noexcept
    {
        return append(std::string_view(&c, 1));
    }
    text_writer &append_int(int64_t value) noexcept
    {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        return append(std::string_view(digits, static_cast<size_t>(end - digits)));
    }
    /** Two or three digits with leading zeros. */
    text_writer &append_padded(uint32_t value, size_t width) noexcept
    {
        char digits[10];
        for (size_t i = width; i-- > 0; value /= 10)
        {
            digits[i] = static_cast<char>('0' + value % 10);
        }
        return append(std::string_view(digits, width));
    }
    [[nodiscard]] size_t length() const noexcept
    {
        return length_;
    }
    [[nodiscard]] bool truncated() const noexcept
    {
        return truncated_;
    }
    [[nodiscard]] const char *c_str() const noexcept
    {
        return buffer_;
    }

private:
    char *buffer_;
    size_t size_;
    size_t length_ = 0;
    bool truncated_ = false;
};

} // namespace tarn

#endif
