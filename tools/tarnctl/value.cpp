#include "value.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace tarnctl
{
namespace
{

template <typename T>
std::string bytes_of(const T &value)
{
    std::string made(sizeof value, '\0');
    std::memcpy(made.data(), &value, sizeof value);
    return made;
}

template <typename T>
T value_of(std::string_view bytes)
{
    T value{};
    std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
    return value;
}

/** The low bytes of a number, in host order. */
std::string low_bytes(uint64_t number, size_t size)
{
    switch (size)
    {
    case 1:
        return bytes_of(static_cast<uint8_t>(number));
    case 2:
        return bytes_of(static_cast<uint16_t>(number));
    case 4:
        return bytes_of(static_cast<uint32_t>(number));
    default:
        return bytes_of(number);
    }
}

uint64_t unsigned_of(std::string_view bytes)
{
    switch (bytes.size())
    {
    case 1:
        return value_of<uint8_t>(bytes);
    case 2:
        return value_of<uint16_t>(bytes);
    case 4:
        return value_of<uint32_t>(bytes);
    default:
        return value_of<uint64_t>(bytes);
    }
}

int64_t signed_of(std::string_view bytes)
{
    switch (bytes.size())
    {
    case 1:
        return value_of<int8_t>(bytes);
    case 2:
        return value_of<int16_t>(bytes);
    case 4:
        return value_of<int32_t>(bytes);
    default:
        return value_of<int64_t>(bytes);
    }
}

uint64_t largest(size_t size, bool is_signed)
{
    return UINT64_MAX >> (64 - 8 * size + (is_signed ? 1 : 0));
}

bool read_signed(std::string_view text, size_t size, std::string *bytes)
{
    const bool is_negative = text.starts_with('-');
    uint64_t number = 0;
    if (!read_unsigned(text.substr(is_negative ? 1 : 0), &number) ||
        number > largest(size, true) + (is_negative ? 1 : 0))
    {
        return false;
    }
    *bytes = low_bytes(is_negative ? 0 - number : number, size);
    return true;
}

template <typename Real>
bool read_real(std::string_view text, std::string *bytes)
{
    Real number = 0;
    const char *const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || behind != end)
    {
        return false;
    }
    *bytes = bytes_of(number);
    return true;
}

bool read_boolean(std::string_view text, std::string *bytes)
{
    const bool is_true = text == "true" || text == "1";
    *bytes = std::string(1, is_true ? '\1' : '\0');
    return is_true || text == "false" || text == "0";
}

bool read_pair(std::string_view text, std::string *bytes)
{
    const size_t comma = text.find(',');
    uint64_t major = 0;
    uint64_t minor = 0;
    if (comma == std::string_view::npos || !read_unsigned(text.substr(0, comma), &major) ||
        !read_unsigned(text.substr(comma + 1), &minor) || minor > UINT32_MAX)
    {
        return false;
    }
    *bytes = bytes_of(major) + low_bytes(minor, 4) + std::string(4, '\0');
    return true;
}

int hex_digit(char c)
{
    uint8_t value = 0;
    const auto [behind, error] = std::from_chars(&c, &c + 1, value, 16);
    return error == std::errc() && behind == &c + 1 ? value : -1;
}

bool is_whole(const value_type &type, std::string_view bytes)
{
    return type.size == 0 || bytes.size() == type.size;
}

} // namespace

const value_type *find_type(std::span<const value_type> types, std::string_view name)
{
    const auto found = std::find_if(types.begin(), types.end(),
                                    [name](const value_type &row) { return row.name == name; });
    return found != types.end() ? &*found : nullptr;
}

const value_type *find_type(std::span<const value_type> types, uint8_t code)
{
    const auto found = std::find_if(types.begin(), types.end(),
                                    [code](const value_type &row) { return row.code == code; });
    return found != types.end() ? &*found : nullptr;
}

std::string type_names(std::span<const value_type> types)
{
    std::string names;
    for (const value_type &row : types)
    {
        if (row.kind != value_kind::block)
        {
            names.append(row.name).append(", ");
        }
    }
    return names + "hex";
}

std::string takes(const value_type &type)
{
    const auto limit = [&type](bool is_signed) {
        return std::to_string(largest(type.size, is_signed));
    };
    switch (type.kind)
    {
    case value_kind::null:
        return "nothing";
    case value_kind::boolean:
        return "true or false";
    case value_kind::signed_integer:
        return "a whole number, -" + std::to_string(largest(type.size, true) + 1) + " to " +
               limit(true);
    case value_kind::unsigned_integer:
        return "a whole number, 0 to " + limit(false);
    case value_kind::real32:
    case value_kind::real64:
        return "a number";
    case value_kind::bytes:
        return std::to_string(2 * type.size) + " hex digits";
    case value_kind::pair:
        return "MAJOR,MINOR, whole numbers of 64 and 32 bits";
    default:
        return "any text";
    }
}

bool read_hex(std::string_view text, std::string *bytes)
{
    bytes->clear();
    for (size_t i = 0; i + 1 < text.size(); i += 2)
    {
        const int high = hex_digit(text[i]);
        const int low = hex_digit(text[i + 1]);
        if (high < 0 || low < 0)
        {
            return false;
        }
        bytes->push_back(static_cast<char>(high << 4 | low));
    }
    return text.size() % 2 == 0;
}

bool read_unsigned(std::string_view text, uint64_t *out)
{
    const int base = text.starts_with("0x") ? 16 : 10;
    text.remove_prefix(base == 16 ? 2 : 0);
    const char *const end = text.data() + text.size();
    const auto [behind, error] = std::from_chars(text.data(), end, *out, base);
    return error == std::errc() && behind == end;
}

bool read_value(const value_type &type, std::string_view text, std::string *bytes)
{
    uint64_t number = 0;
    switch (type.kind)
    {
    case value_kind::null:
        bytes->clear();
        return text.empty();
    case value_kind::boolean:
        return read_boolean(text, bytes);
    case value_kind::signed_integer:
        return read_signed(text, type.size, bytes);
    case value_kind::unsigned_integer:
        if (!read_unsigned(text, &number) || number > largest(type.size, false))
        {
            return false;
        }
        *bytes = low_bytes(number, type.size);
        return true;
    case value_kind::real32:
        return read_real<float>(text, bytes);
    case value_kind::real64:
        return read_real<double>(text, bytes);
    case value_kind::bytes:
        return read_hex(text, bytes) && bytes->size() == type.size;
    case value_kind::pair:
        return read_pair(text, bytes);
    case value_kind::text:
        *bytes = text;
        return true;
    default:
        return false;
    }
}

std::string value_text(const value_type &type, std::string_view bytes)
{
    if (!is_whole(type, bytes))
    {
        return "(" + hex(bytes) + ")";
    }
    switch (type.kind)
    {
    case value_kind::boolean:
        return bytes[0] != '\0' ? "true" : "false";
    case value_kind::signed_integer:
        return std::to_string(signed_of(bytes));
    case value_kind::unsigned_integer:
        return std::to_string(unsigned_of(bytes));
    case value_kind::real32:
        return number_text(value_of<float>(bytes));
    case value_kind::real64:
        return number_text(value_of<double>(bytes));
    case value_kind::bytes:
        return hex(bytes);
    case value_kind::pair:
        return std::to_string(value_of<uint64_t>(bytes)) + "," +
               std::to_string(value_of<uint32_t>(bytes.substr(8)));
    case value_kind::text:
        return quoted(bytes);
    default:
        return "";
    }
}

void add_value(json &into, const value_type &type, std::string_view bytes)
{
    if (!is_whole(type, bytes) || (type.kind == value_kind::text && !is_utf8(bytes)))
    {
        into.key("hex").text(hex(bytes));
        return;
    }
    into.key("value");
    switch (type.kind)
    {
    case value_kind::boolean:
        into.truth(bytes[0] != '\0');
        break;
    case value_kind::signed_integer:
        into.number(signed_of(bytes));
        break;
    case value_kind::unsigned_integer:
        into.number(unsigned_of(bytes));
        break;
    case value_kind::real32:
        into.number(value_of<float>(bytes));
        break;
    case value_kind::real64:
        into.number(value_of<double>(bytes));
        break;
    case value_kind::text:
        into.text(bytes);
        break;
    case value_kind::bytes:
    case value_kind::pair:
        into.text(value_text(type, bytes));
        break;
    default:
        into.null();
    }
}

} // namespace tarnctl
