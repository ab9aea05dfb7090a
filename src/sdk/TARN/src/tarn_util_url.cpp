// Percent-encoding and the query string of a URL.

#include "tarn_util.h"

#include "tarn_raii.h"
#include "tarn_str_internal.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace
{

using owned_text = tarn::unique_mem<char>;

/** Letters, digits and "-_.~"; not the C library's isalnum, which asks the locale. */
bool stays_plain(char c) noexcept
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.' || c == '~';
}

/** Value of a hex digit of either case; 0 for any other character. */
unsigned nibble(char c) noexcept
{
    return static_cast<unsigned>(std::max(tarn::hex_value(c), 0));
}

char *encode_byte(char c, char *out) noexcept
{
    if (stays_plain(c) || c == ' ')
    {
        *out++ = c == ' ' ? '+' : c;
        return out;
    }
    const auto byte = static_cast<unsigned char>(c);
    *out++ = '%';
    *out++ = tarn::hex_digits[byte >> 4];
    *out++ = tarn::hex_digits[byte & 15];
    return out;
}

owned_text copy(std::string_view text)
{
    auto out = owned_text::make_array(text.size() + 1);
    if (out)
    {
        tarn_mem_copy(out.get(), text.data(), text.size());
    }
    return out;
}

/** Decoding never makes a text longer. */
owned_text decode(std::string_view text)
{
    auto result = owned_text::make_array(text.size() + 1);
    if (!result)
    {
        return result;
    }
    char *out = result.get();
    for (size_t i = 0; i < text.size(); ++i)
    {
        if (text[i] != '%')
        {
            *out++ = text[i] == '+' ? ' ' : text[i];
        }
        else if (text.size() - i > 2)
        {
            *out++ = static_cast<char>(nibble(text[i + 1]) << 4 | nibble(text[i + 2]));
            i += 2;
        }
    }
    return result;
}

/** Cuts the text at the separator: returns what stands before it, leaves what stands behind. */
std::string_view take_until(std::string_view &text, char separator) noexcept
{
    const size_t end = std::min(text.find(separator), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return taken;
}

size_t count_parameters(std::string_view query) noexcept
{
    return static_cast<size_t>(std::count(query.begin(), query.end(), '&')) + 1;
}

bool every_parameter_has_a_value(std::string_view query) noexcept
{
    for (size_t n = count_parameters(query); n != 0; --n)
    {
        if (take_until(query, '&').find('=') == std::string_view::npos)
        {
            return false;
        }
    }
    return true;
}

/** Owns an array of owned texts, ended by null; a partly filled one as well. */
class text_array
{
public:
    text_array() = default;
    text_array(const text_array &) = delete;
    text_array &operator=(const text_array &) = delete;
    ~text_array()
    {
        for (char **text = slots_.get(); text != nullptr && *text != nullptr; ++text)
        {
            tarn_mem_free(*text);
        }
    }
    /** Fills it with the decoded names and values; false when memory ran out. */
    bool decode_parameters(std::string_view query)
    {
        const size_t count = count_parameters(query);
        slots_ = tarn::unique_mem<char *>::make_array(2 * count + 1);
        if (!slots_)
        {
            return false;
        }
        for (size_t i = 0; i < count; ++i)
        {
            std::string_view value = take_until(query, '&');
            char **const pair = slots_.get() + 2 * i;
            pair[0] = decode(take_until(value, '=')).release();
            pair[1] = pair[0] != nullptr ? decode(value).release() : nullptr;
            if (pair[1] == nullptr)
            {
                return false;
            }
        }
        return true;
    }
    char **release() noexcept
    {
        return slots_.release();
    }

private:
    tarn::unique_mem<char *> slots_;
};

} // namespace

char *tarn_url_encode(const char *str)
{
    RVON(str, NULL);
    const std::string_view text = str;
    const auto escaped =
        std::count_if(text.begin(), text.end(), [](char c) { return !stays_plain(c) && c != ' '; });
    owned_text out = tarn::make_text(text.size() + 2 * static_cast<uint64_t>(escaped) + 1);
    RVON(out, NULL);
    char *end = out.get();
    for (const char c : text)
    {
        end = encode_byte(c, end);
    }
    return out.release();
}

char *tarn_url_decode(const char *str)
{
    RVON(str, NULL);
    owned_text out = decode(str);
    RVON(out, NULL);
    return out.release();
}

char *tarn_url_parse(const char *url, char **query_out, char ***params_out)
{
    RVON(url, NULL);
    const std::string_view whole = url;
    const size_t mark = whole.find('?');
    owned_text location = copy(whole.substr(0, mark));
    RVON(location, NULL);
    if (mark == std::string_view::npos)
    {
        return location.release();
    }
    const std::string_view query = whole.substr(mark + 1);
    const bool wants_params = params_out != nullptr && every_parameter_has_a_value(query);
    text_array params;
    if (wants_params)
    {
        RVOF(params.decode_parameters(query), NULL);
    }
    if (query_out != nullptr)
    {
        owned_text query_copy = copy(query);
        RVON(query_copy, NULL);
        *query_out = query_copy.release();
    }
    if (wants_params)
    {
        *params_out = params.release();
    }
    return location.release();
}
