// Typed data values: conversions between the stored types and the plain C types.
//
// Every conversion takes the same road. The source, a stored value or a setter's argument, is read
// as a number (a text through the pattern that the target's row of the type table names); one table
// by form of number and form of target turns it into the target's bits. The way to text goes
// through the printf format of the source's row.
//
// No step is undefined for any input: what C leaves open (NaN and numbers beyond an integer's range)
// gives the nearest limit, and 0 for NaN.

#include "tarn_data.h"

#include "tarn_check.h"
#include "tarn_data_internal.h"
#include "tarn_str.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cctype>
#include <cinttypes>
#include <limits>
#include <optional>
#include <string_view>

using tarn::data_form;
using tarn::data_type;
using tarn::data_type_of;
using tarn::text_pattern;

namespace
{

/** A source on its way to its target. */
struct number
{
    uint64_t bits = 0; ///< of an integer: extended to 64 bits; of a real: its IEEE bits
    double real = 0;   ///< of a real
    uint8_t truth = 0; ///< as boolean; of a boolean its byte
    uint8_t width = 0; ///< bytes of the type that it comes from; 0: from a text
    bool is_real = false;
    bool is_signed = false; ///< of an integer: how to read the bits
    bool rounds = false;    ///< of a real: an integer is the nearest one, not the one towards zero
};

// ---- numbers ------------------------------------------------------------------------------------

constexpr uint64_t sign_extend(uint64_t bits, size_t width)
{
    const size_t shift = 64 - 8 * width;
    return static_cast<uint64_t>(static_cast<int64_t>(bits << shift) >> shift);
}

/** Cut towards zero. */
template <typename Integer>
Integer cut_to(double x)
{
    using limits = std::numeric_limits<Integer>;
    constexpr double beyond = 2.0 * static_cast<double>(uint64_t{1} << (limits::digits - 1));
    if (x != x)
    {
        return 0;
    }
    if (x >= beyond)
    {
        return limits::max();
    }
    constexpr double lowest = limits::is_signed ? -beyond : 0.0;
    return x <= lowest ? limits::min() : static_cast<Integer>(x);
}

number integer_number(uint64_t bits, bool is_signed, uint8_t width = 0)
{
    number result;
    result.bits = bits;
    result.is_signed = is_signed;
    result.width = width;
    result.truth = bits != 0;
    return result;
}

number real_number(double real, uint64_t bits = 0, uint8_t width = 0)
{
    number result;
    result.is_real = true;
    result.real = real;
    result.bits = bits;
    result.width = width;
    result.truth = real != 0.0; // holds for NaN
    return result;
}

/** The number in a scalar of this type. */
number decode(const data_type &type, uint64_t raw)
{
    number result;
    switch (type.form)
    {
    case data_form::boolean:
        result = integer_number(raw, false, type.width);
        result.truth = static_cast<uint8_t>(raw);
        return result;
    case data_form::integer:
        return integer_number(type.is_signed ? sign_extend(raw, type.width) : raw, type.is_signed,
                              type.width);
    case data_form::real:
        return real_number(type.width == sizeof(float)
                               ? double{std::bit_cast<float>(static_cast<uint32_t>(raw))}
                               : std::bit_cast<double>(raw),
                           raw, type.width);
    case data_form::pointer:
        result = integer_number(sign_extend(raw, 4), true, type.width);
        result.truth = raw != 0;
        return result;
    default:
        return result;
    }
}

// ---- the table of numbers and targets -----------------------------------------------------------

/** The bits of the target's value; its width cuts them. */
using conversion = uint64_t (*)(const number &from, const data_type &to);

uint64_t to_truth(const number &from, const data_type &)
{
    return from.truth;
}

uint64_t integer_to_integer(const number &from, const data_type &)
{
    return from.bits;
}

template <typename Source>
uint64_t real_bits(Source value, const data_type &to)
{
    return to.width == sizeof(float) ? std::bit_cast<uint32_t>(static_cast<float>(value))
                                     : std::bit_cast<uint64_t>(static_cast<double>(value));
}

uint64_t integer_to_real(const number &from, const data_type &to)
{
    return from.is_signed ? real_bits(static_cast<int64_t>(from.bits), to)
                          : real_bits(from.bits, to);
}

/** A pointer takes the low half of a 64-bit source. */
uint64_t integer_to_pointer(const number &from, const data_type &)
{
    return from.width == 8 ? sign_extend(from.bits, 4) : from.bits;
}

uint64_t real_to_integer(const number &from, const data_type &to)
{
    double x = from.real;
    if (from.rounds)
    {
        // Not round(): 0.49999999999999994 gives 1 in this way, deliberately.
        x = x < 0 ? x - 0.5 : x + 0.5;
    }
    // Negative numbers go through the signed type for unsigned targets too.
    const bool as_unsigned = to.width == 8 && !to.is_signed && x > 0;
    return as_unsigned ? cut_to<uint64_t>(x) : static_cast<uint64_t>(cut_to<int64_t>(x));
}

/** Between the same types the bits stay, a NaN's payload with them. */
uint64_t real_to_real(const number &from, const data_type &to)
{
    return from.width == to.width ? from.bits : real_bits(from.real, to);
}

uint64_t real_to_pointer(const number &from, const data_type &)
{
    return static_cast<uint64_t>(int64_t{cut_to<int32_t>(from.real)});
}

/** By form of the number (integer, real) and of the target; none: cannot be converted. */
constexpr conversion conversions[2][static_cast<size_t>(data_form::count)] = {
    // invalid, null, boolean, integer, real, pointer, pair, text
    {nullptr, nullptr, to_truth, integer_to_integer, integer_to_real, integer_to_pointer, nullptr,
     nullptr},
    {nullptr, nullptr, to_truth, real_to_integer, real_to_real, real_to_pointer, nullptr, nullptr},
};

bool convert(const number &from, const data_type &to, void *out)
{
    const conversion step = conversions[from.is_real ? 1 : 0][static_cast<size_t>(to.form)];
    if (step == nullptr)
    {
        return false;
    }
    tarn::store_scalar(out, to.width, step(from, to));
    return true;
}

// ---- from text ----------------------------------------------------------------------------------

/** Reals are scanned in a copy of this size; a longer number is cut. */
constexpr size_t scan_size = 512;

std::string_view without_leading_white(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    return text;
}

/** Takes the prefix 0x off a text where a hexadecimal digit follows. */
bool take_hex_prefix(std::string_view &text)
{
    const bool found = (text.starts_with("0x") || text.starts_with("0X")) && text.size() > 2 &&
                       std::isxdigit(static_cast<unsigned char>(text[2])) != 0;
    text.remove_prefix(found ? 2 : 0);
    return found;
}

/** The 64 bits of the number at the start of a text; beyond -2^63 .. 2^64 - 1 those of the nearest
 *  limit.
 *  @param base  0: decimal, 0x hexadecimal or 0 octal; 16: hexadecimal, 0x or not */
std::optional<uint64_t> scan_bits(std::string_view text, int base)
{
    text = without_leading_white(text);
    const bool negative = text.starts_with('-');
    text.remove_prefix(negative || text.starts_with('+') ? 1 : 0);
    if (take_hex_prefix(text))
    {
        base = 16;
    }
    else if (base == 0)
    {
        base = text.starts_with('0') ? 8 : 10;
    }
    uint64_t magnitude = 0;
    const auto end = text.data() + text.size();
    const std::errc result = std::from_chars(text.data(), end, magnitude, base).ec;
    if (result == std::errc::invalid_argument)
    {
        return std::nullopt;
    }
    if (result == std::errc::result_out_of_range)
    {
        magnitude = std::numeric_limits<uint64_t>::max();
    }
    return negative ? uint64_t{0} - std::min(magnitude, uint64_t{1} << 63) : magnitude;
}

std::optional<number> scan_truth(std::string_view text)
{
    char word[sizeof "false"] = "";
    if (text.size() < sizeof word)
    {
        text.copy(word, sizeof word);
    }
    const bool is_true = tarn_str_equal_nocase(word, "true");
    return is_true || tarn_str_equal_nocase(word, "false")
               ? std::optional(integer_number(is_true ? 1 : 0, false))
               : std::nullopt;
}

std::optional<number> scan_address(std::string_view text)
{
    if (without_leading_white(text).starts_with("(nil)"))
    {
        return integer_number(0, false);
    }
    const auto bits = scan_bits(text, 16);
    return bits ? std::optional(integer_number(*bits, false)) : std::nullopt;
}

std::optional<number> scan_integer(std::string_view text, text_pattern pattern)
{
    const auto bits = scan_bits(text, 0);
    if (!bits)
    {
        return std::nullopt;
    }
    switch (pattern)
    {
    case text_pattern::int32:
        return integer_number(sign_extend(*bits, 4), true);
    case text_pattern::low32:
        return integer_number(*bits & 0xFFFFFFFFu, false);
    default:
        return integer_number(*bits, false);
    }
}

std::optional<number> scan_real(std::string_view text, text_pattern pattern)
{
    char copy[scan_size];
    text = without_leading_white(text);
    copy[text.copy(copy, sizeof copy - 1)] = '\0';
    float single_value = 0;
    double double_value = 0;
    if (pattern == text_pattern::real64 ? tarn_str_scanf(copy, "%lf", &double_value) != 1
                                        : tarn_str_scanf(copy, "%f", &single_value) != 1)
    {
        return std::nullopt;
    }
    return real_number(pattern == text_pattern::real64 ? double_value : double{single_value});
}

/** The number in a text; none when there is none. */
std::optional<number> scan(std::string_view text, text_pattern pattern)
{
    switch (pattern)
    {
    case text_pattern::none:
        return std::nullopt;
    case text_pattern::truth:
        return scan_truth(text);
    case text_pattern::real32:
    case text_pattern::real64:
        return scan_real(text, pattern);
    case text_pattern::address:
        return scan_address(text);
    default:
        return scan_integer(text, pattern);
    }
}

/** A string's bytes up to its first NUL. */
std::string_view text_of(const tarn_data &data)
{
    return {data.buffer, strnlen(data.buffer, data.word.length)};
}

// ---- to text ------------------------------------------------------------------------------------

/** Room for the text of any value; longer ones are cut. */
using text_room = char[100];

/** @param printed  what tarn_str_printf() says: the length that the text should have
 *  @return length of what stands in the room */
size_t fitted(int printed)
{
    return static_cast<size_t>(std::clamp(printed, 0, static_cast<int>(sizeof(text_room)) - 1));
}

size_t print_scalar(const data_type &type, uint64_t raw, text_room &out)
{
    const number value = decode(type, raw);
    switch (type.form)
    {
    case data_form::boolean:
        return fitted(tarn_str_printf(out, sizeof out, type.print, value.truth ? "true" : "false"));
    case data_form::integer:
        return fitted(
            type.is_signed
                ? tarn_str_printf(out, sizeof out, type.print, static_cast<int32_t>(value.bits))
                : tarn_str_printf(out, sizeof out, type.print, static_cast<uint32_t>(value.bits)));
    case data_form::real:
        return fitted(tarn_str_printf(out, sizeof out, type.print, value.real));
    case data_form::pointer:
        return fitted(tarn_str_printf(out, sizeof out, type.print,
                                      reinterpret_cast<void *>(static_cast<uintptr_t>(raw))));
    default:
        return fitted(tarn_str_printf(out, sizeof out, "%s", type.print));
    }
}

/** @return length of the text; none when the value lacks its pair or buffer */
std::optional<size_t> print(const tarn_data &data, text_room &out)
{
    const data_type &type = data_type_of(data.type);
    if (type.form == data_form::pair)
    {
        return data.word.pair == nullptr
                   ? std::nullopt
                   : std::optional(fitted(tarn_str_printf(out, sizeof out, "%" PRIu64 ",%" PRIu32,
                                                          data.word.pair->major_part,
                                                          data.word.pair->minor_part)));
    }
    if (type.form == data_form::text)
    {
        if (data.buffer == nullptr)
        {
            return std::nullopt;
        }
        const size_t length = text_of(data).copy(out, sizeof out - 1);
        out[length] = '\0';
        return length;
    }
    return print_scalar(type, tarn::load_scalar(&data.word, type.width), out);
}

// ---- getters and setters ------------------------------------------------------------------------

/** The number in a stored value; none when it lacks its buffer or holds no such text. */
std::optional<number> number_of(const tarn_data &data, text_pattern pattern)
{
    const data_type &type = data_type_of(data.type);
    if (type.form == data_form::pair)
    {
        const tarn_data_pair *const pair = data.word.pair;
        number result = integer_number(pair != nullptr ? pair->major_part : 0, false);
        result.truth = pair != nullptr;
        return result;
    }
    if (type.form == data_form::text)
    {
        return data.buffer != nullptr ? scan(text_of(data), pattern) : std::nullopt;
    }
    return decode(type, tarn::load_scalar(&data.word, type.width));
}

bool get_as(const tarn_data &data, uint8_t target, void *value)
{
    const data_type &to = data_type_of(target);
    const auto from = number_of(data, to.get_pattern);
    return from && convert(*from, to, value);
}

bool set_as(tarn_data *data, uint8_t source, const void *value)
{
    const data_type &from = data_type_of(source);
    const data_type &to = data_type_of(data->type);
    const uint64_t raw = tarn::load_scalar(value, from.width);
    if (to.form == data_form::text)
    {
        text_room text;
        const auto size = static_cast<uint32_t>(print_scalar(from, raw, text) + 1);
        return tarn::data_replace_string(data, text, size, size);
    }
    number n = decode(from, raw);
    n.rounds = source == TARN_DATA_TYPE_DOUBLE;
    return convert(n, to, &data->word);
}

} // namespace

#define TARN_DATA_ACCESS_AS(name, c_type, code)                                                    \
    bool tarn_data_get_as_##name(TARN_DATA data, c_type *value)                                    \
    {                                                                                              \
        RVON(data, false);                                                                         \
        RVON(value, false);                                                                        \
        return get_as(*data, code, value);                                                         \
    }                                                                                              \
    bool tarn_data_set_as_##name(TARN_DATA data, c_type value)                                     \
    {                                                                                              \
        RVON(data, false);                                                                         \
        return set_as(data, code, &value);                                                         \
    }

TARN_DATA_ACCESS_AS(boolean, uint8_t, TARN_DATA_TYPE_BOOLEAN)
TARN_DATA_ACCESS_AS(uint8, uint8_t, TARN_DATA_TYPE_UINT8)
TARN_DATA_ACCESS_AS(uint16, uint16_t, TARN_DATA_TYPE_UINT16)
TARN_DATA_ACCESS_AS(uint32, uint32_t, TARN_DATA_TYPE_UINT32)
TARN_DATA_ACCESS_AS(uint64, uint64_t, TARN_DATA_TYPE_UINT64)
TARN_DATA_ACCESS_AS(int8, int8_t, TARN_DATA_TYPE_INT8)
TARN_DATA_ACCESS_AS(int16, int16_t, TARN_DATA_TYPE_INT16)
TARN_DATA_ACCESS_AS(int32, int32_t, TARN_DATA_TYPE_INT32)
TARN_DATA_ACCESS_AS(int64, int64_t, TARN_DATA_TYPE_INT64)
TARN_DATA_ACCESS_AS(float, float, TARN_DATA_TYPE_FLOAT)
TARN_DATA_ACCESS_AS(double, double, TARN_DATA_TYPE_DOUBLE)

bool tarn_data_get_as_string(TARN_DATA data, char *buffer, int32_t *len)
{
    RVON(data, false);
    RVON_TEXT(buffer, false, "RVON(value,false)");
    RVON_TEXT(len, false, "RVON(value,false)");
    text_room text;
    const auto length = print(*data, text);
    if (!length || *len <= static_cast<int32_t>(*length))
    {
        return false;
    }
    tarn_mem_copy(buffer, text, *length);
    tarn_mem_zero(buffer + *length, static_cast<size_t>(*len) - *length);
    *len = static_cast<int32_t>(*length) + 1;
    return true;
}

bool tarn_data_set_as_string(TARN_DATA data, const char *value)
{
    RVON(data, false);
    RVON(value, false);
    const data_type &to = data_type_of(data->type);
    if (to.form == data_form::text)
    {
        // Not the length of the text: the value keeps its own. Nor is a text read beyond that, which
        // may be the value's own buffer, without NUL.
        const uint32_t length = data->word.length;
        const auto size = static_cast<uint32_t>(strnlen(value, length));
        return tarn::data_replace_string(data, value, size, length);
    }
    const auto from = scan(value, to.set_pattern);
    return from && convert(*from, to, &data->word);
}
