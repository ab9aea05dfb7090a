// Small text files, read whole: the configuration, and what the kernel shows in /proc and /sys. And
// the little that is needed to take them apart.
#pragma once

#include <span>
#include <string_view>

namespace gatewayd
{

/** What a read gave. */
struct text_result
{
    std::string_view text;       ///< the content, in the reader's buffer
    const char *error = nullptr; ///< why there is none; static text
};

/** Reads a file into buffer. What is no file, a pipe for one, is refused rather than waited for; so
 *  is what does not fit, and /dev/zero never does. */
text_result read_text_file(const char *path, std::span<char> buffer);

/** Blanks, as they stand around words. */
inline constexpr std::string_view blanks = " \t\r\n";

/** Takes the first line off a text, its end included. */
std::string_view take_line(std::string_view *text);

/** The text without blanks around it. */
std::string_view trimmed(std::string_view text);

} // namespace gatewayd
