#include "settings.h"

#include "text_file.h"

#include "tarn_process.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

namespace gatewayd
{
namespace
{

constexpr uint32_t min_period_ms = 10;
constexpr uint32_t max_period_ms = 3600000;
constexpr size_t max_config_size = 65536;

bool is_letter_or_digit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// The name becomes a part of file names.
bool store_name(settings *into, std::string_view value)
{
    const auto is_name_byte = [](char c) {
        return is_letter_or_digit(c) || c == '_' || c == '.' || c == '-';
    };
    if (value.empty() || value.size() >= sizeof into->name || !is_letter_or_digit(value.front()) ||
        !std::all_of(value.begin(), value.end(), is_name_byte))
    {
        return false;
    }
    into->name[value.copy(into->name, sizeof into->name - 1)] = '\0';
    return true;
}

bool store_period(settings *into, std::string_view value)
{
    uint32_t ms = 0;
    const char *const end = value.data() + value.size();
    const auto [behind, error] = std::from_chars(value.data(), end, ms);
    if (error != std::errc() || behind != end || ms < min_period_ms || ms > max_period_ms)
    {
        return false;
    }
    into->period_ms = ms;
    return true;
}

/** A line without its comment and the blanks around it. */
std::string_view without_comment(std::string_view line)
{
    for (size_t i = 0; i < line.size(); ++i)
    {
        if (line[i] == '#' && (i == 0 || blanks.find(line[i - 1]) != std::string_view::npos))
        {
            line = line.substr(0, i);
        }
    }
    return trimmed(line);
}

/** A place in the configuration file, for messages. */
struct file_position
{
    const char *path;
    unsigned line;
};

bool complain(const file_position &at, std::string_view what, const char *why)
{
    (void)std::fprintf(stderr, "%s: %s:%u: %s: %s\n", tarn_process_program_name(), at.path, at.line,
                       shown_text(what).c_str(), why);
    return false;
}

bool complain_of_key(const file_position &at, std::string_view key)
{
    char known[256] = "unknown key, known are";
    size_t length = std::string_view(known).size();
    for (const setting &row : setting_table)
    {
        const int n = std::snprintf(known + length, sizeof known - length, " %s", row.key);
        length = std::min(length + static_cast<size_t>(n), sizeof known - 1);
    }
    return complain(at, key, known);
}

bool complain_of_value(const file_position &at, const setting &row, std::string_view value)
{
    char why[256];
    (void)std::snprintf(why, sizeof why, "'%s' is no value for it; it takes %s",
                        shown_text(value).c_str(), row.takes);
    return complain(at, row.key, why);
}

bool store_line(const file_position &at, std::string_view line, settings *into)
{
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos)
    {
        return complain(at, line, "not of the form KEY = VALUE");
    }
    const std::string_view key = trimmed(line.substr(0, equals));
    const std::string_view value = trimmed(line.substr(equals + 1));
    const setting *const row = find_setting(key);
    if (row == nullptr)
    {
        return complain_of_key(at, key);
    }
    return row->store(into, value) || complain_of_value(at, *row, value);
}

} // namespace

const setting setting_table[setting_count] = {
    {"name", "NAME", "name of this instance, default is gatewayd",
     "1 to 63 letters, digits, '_', '.' and '-', the first a letter or digit", store_name},
    {"period", "MS", "period of the telemetry in milliseconds, default is 1000",
     "a whole number of milliseconds, 10 to 3600000", store_period},
};

const setting *find_setting(std::string_view key)
{
    const auto *const found = std::find_if(std::begin(setting_table), std::end(setting_table),
                                           [key](const setting &row) { return row.key == key; });
    return found != std::end(setting_table) ? found : nullptr;
}

bool read_config_file(const char *path, settings *into)
{
    static std::array<char, max_config_size> buffer; // once, before threads run
    const text_result read = read_text_file(path, buffer);
    if (read.error != nullptr)
    {
        (void)std::fprintf(stderr, "%s: cannot read the configuration file %s: %s\n",
                           tarn_process_program_name(), path, read.error);
        return false;
    }
    std::string_view text = read.text;
    for (file_position at = {path, 1}; !text.empty(); ++at.line)
    {
        const std::string_view line = without_comment(take_line(&text));
        if (!line.empty() && !store_line(at, line, into))
        {
            return false;
        }
    }
    return true;
}

shown_text::shown_text(std::string_view text)
{
    constexpr std::string_view cut_mark = "...";
    size_t length = text.copy(text_, sizeof text_ - 1);
    std::replace_if(
        text_, text_ + length,
        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7f; }, '?');
    if (length < text.size())
    {
        cut_mark.copy(text_ + length - cut_mark.size(), cut_mark.size());
    }
    text_[length] = '\0';
}

} // namespace gatewayd
