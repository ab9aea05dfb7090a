// What fuzz targets share: inputs in heap blocks of their exact size, so that AddressSanitizer sees
// a byte too many; requirements that end the run; log lines that are formatted but not written.
#pragma once

#include "tarn_log.h"
#include "tarn_log_internal.h"
#include "tarn_mem.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

namespace fuzz
{

/** What must hold for every input; the input that breaks it is reported as a crash. */
inline void require(bool holds)
{
    if (!holds)
    {
        std::abort();
    }
}

/** A string up to the first NUL of a text, its own NUL at the end of the block. */
class exact_string
{
public:
    explicit exact_string(std::string_view text)
        : length_(std::min(text.find('\0'), text.size())), block_(new char[length_ + 1])
    {
        block_[text.copy(block_.get(), length_)] = '\0';
    }
    exact_string(const uint8_t *data, size_t size)
        : exact_string(std::string_view(reinterpret_cast<const char *>(data), size))
    {
    }
    [[nodiscard]] char *get() const
    {
        return block_.get();
    }
    [[nodiscard]] std::string_view view() const
    {
        return {block_.get(), length_};
    }

private:
    size_t length_;
    std::unique_ptr<char[]> block_;
};

/** Takes over a string that the layer allocated. */
using owned_string = std::unique_ptr<char, void (*)(void *)>;
inline owned_string own(char *str)
{
    return {str, tarn_mem_free};
}

/** Every line is formatted, foreign bytes included, and then dropped. */
inline void swallow_log()
{
    tarn::log_tap.store([](int32_t, std::string_view) {});
    tarn_log_level_set(TARN_LOG_LEVEL_DEBUG);
}

} // namespace fuzz
