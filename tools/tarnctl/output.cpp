#include "output.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace tarnctl
{
namespace
{

FILE *results = stdout;
int first_error = 0; ///< of a flush
std::string prefix = "tarnctl";

int say(const std::string &message, int result)
{
    (void)flush_output();
    (void)std::fprintf(stderr, "%s: %s\n", prefix.c_str(), message.c_str());
    return result;
}

/** Length of the UTF-8 character at the beginning; 0: there is none. C1 control characters, which
 *  terminals obey, count as none. */
size_t utf8_length(std::string_view text)
{
    const auto byte = [text](size_t i) {
        return i < text.size() ? static_cast<uint8_t>(text[i]) : uint8_t{0};
    };
    const auto follows = [&byte](size_t i) { return (byte(i) & 0xC0) == 0x80; };
    const uint8_t lead = byte(0);
    if (lead < 0x80)
    {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF)
    {
        return follows(1) && !(lead == 0xC2 && byte(1) < 0xA0) ? 2 : 0;
    }
    if ((lead & 0xF0) == 0xE0)
    {
        const bool overlong = lead == 0xE0 && byte(1) < 0xA0;
        const bool surrogate = lead == 0xED && byte(1) >= 0xA0;
        return follows(1) && follows(2) && !overlong && !surrogate ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4)
    {
        const bool overlong = lead == 0xF0 && byte(1) < 0x90;
        const bool beyond = lead == 0xF4 && byte(1) >= 0x90;
        return follows(1) && follows(2) && follows(3) && !overlong && !beyond ? 4 : 0;
    }
    return 0;
}

bool is_control(char c)
{
    return static_cast<uint8_t>(c) < ' ' || c == 0x7F;
}

void append_hex(std::string &into, char byte)
{
    constexpr char digits[] = "0123456789abcdef";
    into.push_back(digits[static_cast<uint8_t>(byte) >> 4]);
    into.push_back(digits[static_cast<uint8_t>(byte) & 15]);
}

/** Copies a text with what stands for some characters, and hex escapes for what no terminal should
 *  get.
 *  @param stand_in  empty for a character without one */
template <typename StandIn>
std::string escape(std::string_view text, StandIn stand_in)
{
    std::string made;
    while (!text.empty())
    {
        size_t length = utf8_length(text);
        if (const std::string other = stand_in(text[0]); !other.empty())
        {
            made.append(other);
        }
        else if (length == 0 || is_control(text[0]))
        {
            made.append("\\x");
            append_hex(made, text[0]);
            length = 1;
        }
        else
        {
            made.append(text.substr(0, length));
        }
        text.remove_prefix(length);
    }
    return made;
}

/** Width on the terminal, as far as one column per character goes. */
size_t width(std::string_view text)
{
    return static_cast<size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

template <typename Real>
std::string real_text(Real value)
{
    char digits[64];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    return {digits, end};
}

} // namespace

bool open_output()
{
    const int fd = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    FILE *const stream = fd >= 0 ? ::fdopen(fd, "w") : nullptr;
    if (stream == nullptr)
    {
        return false;
    }
    if (::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) // it is closed: then nobody wants to see that
    {
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        (void)::dup2(nowhere, STDOUT_FILENO);
    }
    (void)std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    results = stream;
    return true;
}

FILE *out()
{
    return results;
}

bool flush_output()
{
    errno = 0;
    const bool is_written = std::fflush(results) == 0 && std::ferror(results) == 0;
    if (!is_written && first_error == 0)
    {
        first_error = errno != 0 ? errno : EPIPE; // an earlier write failed, mostly for that reason
    }
    return is_written;
}

int output_error()
{
    return first_error;
}

bool output_is_terminal()
{
    return ::isatty(::fileno(results)) == 1;
}

void set_message_prefix(std::string text)
{
    prefix = std::move(text);
}

int failed(const std::string &message)
{
    return say(message, status_failed);
}

int wrong(const std::string &message)
{
    return say(message, status_usage);
}

void note(const std::string &message)
{
    (void)say(message, status_ok);
}

std::string shown(std::string_view text)
{
    constexpr size_t longest = 60;
    std::string made = escaped(text.substr(0, longest));
    std::replace_if(made.begin(), made.end(), is_control, '?');
    return text.size() > longest ? made + "..." : made;
}

std::string escaped(std::string_view text)
{
    return escape(text, [](char c) { return c == '\n' || c == '\t' ? std::string(1, c) : ""; });
}

std::string quoted(std::string_view text)
{
    return "\"" +
           escape(text,
                  [](char c) -> std::string {
                      switch (c)
                      {
                      case '\n':
                          return "\\n";
                      case '\t':
                          return "\\t";
                      case '"':
                          return "\\\"";
                      case '\\':
                          return "\\\\";
                      default:
                          return "";
                      }
                  }) +
           "\"";
}

bool is_utf8(std::string_view text)
{
    while (!text.empty())
    {
        const size_t length = utf8_length(text);
        if (length == 0)
        {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string hex(std::string_view bytes)
{
    std::string made;
    made.reserve(2 * bytes.size());
    for (const char byte : bytes)
    {
        append_hex(made, byte);
    }
    return made;
}

std::string size_text(double bytes)
{
    constexpr const char *units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    while (bytes >= 1024 && unit + 1 < std::size(units))
    {
        bytes /= 1024;
        ++unit;
    }
    char made[48];
    (void)std::snprintf(made, sizeof made, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units[unit]);
    return made;
}

std::string error_text(int error)
{
    return std::strerror(error);
}

std::string number_text(double value)
{
    return real_text(value);
}

std::string number_text(float value)
{
    return real_text(value);
}

// ---- tables -------------------------------------------------------------------------------------

table::table(std::vector<std::string> heads)
{
    for (std::string &head : heads)
    {
        right_.push_back(head.starts_with('>'));
        head.erase(0, right_.back() ? 1 : 0);
    }
    rows_.push_back(std::move(heads));
}

void table::add(std::vector<std::string> cells)
{
    cells.resize(right_.size());
    rows_.push_back(std::move(cells));
}

void table::print() const
{
    std::vector<size_t> widths(right_.size());
    for (const auto &row : rows_)
    {
        for (size_t i = 0; i < row.size(); ++i)
        {
            widths[i] = std::max(widths[i], width(row[i]));
        }
    }
    for (const auto &row : rows_)
    {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i)
        {
            const std::string gap(widths[i] - width(row[i]), ' ');
            line.append(i == 0 ? "" : "  ").append(right_[i] ? gap + row[i] : row[i] + gap);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        (void)std::fprintf(out(), "%s\n", line.c_str());
    }
}

// ---- JSON ---------------------------------------------------------------------------------------

void json::separate()
{
    if (!first_)
    {
        line_.append(", ");
    }
    first_ = false;
}

json &json::raw(std::string_view text)
{
    separate();
    line_.append(text);
    return *this;
}

json &json::begin_object()
{
    (void)raw("{");
    first_ = true;
    return *this;
}

json &json::end_object()
{
    line_.push_back('}');
    first_ = false;
    return *this;
}

json &json::begin_array()
{
    (void)raw("[");
    first_ = true;
    return *this;
}

json &json::end_array()
{
    line_.push_back(']');
    first_ = false;
    return *this;
}

json &json::key(std::string_view name)
{
    (void)text(name);
    line_.append(": ");
    first_ = true;
    return *this;
}

json &json::text(std::string_view value)
{
    (void)raw("\"");
    while (!value.empty())
    {
        const size_t length = utf8_length(value);
        if (length == 0)
        {
            line_.push_back('?');
        }
        else if (value[0] == '"' || value[0] == '\\')
        {
            line_.append({'\\', value[0]});
        }
        else if (is_control(value[0]))
        {
            line_.append("\\u00");
            append_hex(line_, value[0]);
        }
        else
        {
            line_.append(value.substr(0, length));
        }
        value.remove_prefix(std::max<size_t>(length, 1));
    }
    line_.push_back('"');
    return *this;
}

json &json::number(uint64_t value)
{
    return raw(std::to_string(value));
}

json &json::number(int64_t value)
{
    return raw(std::to_string(value));
}

template <typename Real>
json &json::real(Real value)
{
    return std::isfinite(value) ? raw(number_text(value)) : text(number_text(value));
}

json &json::number(double value)
{
    return real(value);
}

json &json::number(float value)
{
    return real(value);
}

json &json::truth(bool value)
{
    return raw(value ? "true" : "false");
}

json &json::null()
{
    return raw("null");
}

void json::print()
{
    (void)std::fprintf(out(), "%s\n", line_.c_str());
    line_.clear();
    first_ = true;
}

} // namespace tarnctl
