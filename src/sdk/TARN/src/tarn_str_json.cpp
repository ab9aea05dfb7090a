// Strings: the escapes of JSON strings, in both directions.

#include "tarn_str.h"

#include "tarn_str_internal.h"

#include <cstring>
#include <string_view>

namespace
{

constexpr size_t unicode_escape_length = 6; // \uXXXX

/** Letter behind the backslash of a two-character escape; 0 for bytes that have none. */
constexpr char short_escape(char c)
{
    switch (c)
    {
    case '"':
    case '\\':
        return c;
    case '\b':
        return 'b';
    case '\t':
        return 't';
    case '\n':
        return 'n';
    case '\f':
        return 'f';
    case '\r':
        return 'r';
    default:
        return '\0';
    }
}

/** The other way round; the slash is read escaped as well, although it is not written so. */
constexpr char short_unescape(char letter)
{
    switch (letter)
    {
    case '"':
    case '\\':
    case '/':
        return letter;
    case 'b':
        return '\b';
    case 't':
        return '\t';
    case 'n':
        return '\n';
    case 'f':
        return '\f';
    case 'r':
        return '\r';
    default:
        return '\0';
    }
}

constexpr bool is_control(char c)
{
    return static_cast<unsigned char>(c) < 32;
}

constexpr size_t escaped_length(char c)
{
    return short_escape(c) != '\0' ? 2 : is_control(c) ? unicode_escape_length : 1;
}

/** Write one byte escaped.
 *  @return behind what was written */
char *put_escaped(char *out, char c)
{
    if (const char letter = short_escape(c); letter != '\0')
    {
        *out++ = '\\';
        *out++ = letter;
    }
    else if (is_control(c))
    {
        constexpr std::string_view prefix = "\\u00";
        out += prefix.copy(out, prefix.size());
        *out++ = tarn::hex_digits[static_cast<unsigned char>(c) >> 4];
        *out++ = tarn::hex_digits[c & 15];
    }
    else
    {
        *out++ = c;
    }
    return out;
}

/** Read \uXXXX; stops at the first character that does not fit, so never behind the NUL. */
bool read_unit(const char *json, uint32_t &unit)
{
    if (json[0] != '\\' || json[1] != 'u')
    {
        return false;
    }
    unit = 0;
    for (size_t i = 2; i < unicode_escape_length; ++i)
    {
        const int digit = tarn::hex_value(json[i]);
        if (digit < 0)
        {
            return false;
        }
        unit = unit << 4 | static_cast<uint32_t>(digit);
    }
    return true;
}

/** Read \uXXXX, or two of them for a surrogate pair; json moves behind. */
bool read_code_point(const char *&json, uint32_t &code_point)
{
    if (!read_unit(json, code_point))
    {
        return false;
    }
    json += unicode_escape_length;
    if (code_point < 0xD800 || code_point > 0xDFFF)
    {
        return true;
    }
    uint32_t low = 0;
    if (code_point >= 0xDC00 || !read_unit(json, low) || low < 0xDC00 || low > 0xDFFF)
    {
        return false;
    }
    json += unicode_escape_length;
    code_point = 0x10000 + ((code_point & 0x3FF) << 10) + (low & 0x3FF);
    return true;
}

/** Write a code point up to 0x10FFFF as UTF-8, which is shorter than its escape.
 *  @return behind what was written */
char *put_utf8(char *out, uint32_t code_point)
{
    const auto tail = [code_point](unsigned shift) {
        return static_cast<char>(0x80 | (code_point >> shift & 0x3F));
    };
    if (code_point < 0x80)
    {
        *out++ = static_cast<char>(code_point);
        return out;
    }
    if (code_point < 0x800)
    {
        *out++ = static_cast<char>(0xC0 | code_point >> 6);
    }
    else if (code_point < 0x10000)
    {
        *out++ = static_cast<char>(0xE0 | code_point >> 12);
        *out++ = tail(6);
    }
    else
    {
        *out++ = static_cast<char>(0xF0 | code_point >> 18);
        *out++ = tail(12);
        *out++ = tail(6);
    }
    *out++ = tail(0);
    return out;
}

/** @return false at an escape that is unknown or broken */
bool unescape(const char *json, char *out)
{
    while (*json != '\0')
    {
        if (*json != '\\')
        {
            *out++ = *json++;
        }
        else if (const char c = short_unescape(json[1]); c != '\0')
        {
            *out++ = c;
            json += 2;
        }
        else
        {
            uint32_t code_point = 0;
            if (!read_code_point(json, code_point))
            {
                return false;
            }
            out = put_utf8(out, code_point);
        }
    }
    return true;
}

} // namespace

char *tarn_str_escape_json(const char *str)
{
    str = str != nullptr ? str : "";
    uint64_t size = 1;
    for (const char *c = str; *c != '\0'; ++c)
    {
        size += escaped_length(*c);
    }
    auto out = tarn::make_text(size);
    RVON(out, NULL);
    for (char *end = out.get(); *str != '\0'; ++str)
    {
        end = put_escaped(end, *str);
    }
    return out.release();
}

char *tarn_str_unescape_json(const char *str)
{
    RVON(str, NULL);
    auto out = tarn::make_text(uint64_t{std::strlen(str)} + 1);
    if (out && !unescape(str, out.get()))
    {
        out.reset();
    }
    RVON(out, NULL);
    return out.release();
}
