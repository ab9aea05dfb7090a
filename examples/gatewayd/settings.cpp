#include "settings.h"

#include "text_file.h"

#include "tarn_process.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace gatewayd
{
namespace
{

constexpr size_t max_config_size = 65536;

bool is_letter_or_digit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

template <size_t Size>
void copy_text(char (&into)[Size], std::string_view value)
{
    into[value.copy(into, Size - 1)] = '\0';
}

// A name becomes a part of file names and of names of sockets.
template <size_t Size>
bool take_name(char (&into)[Size], std::string_view value)
{
    const auto is_name_byte = [](char c) {
        return is_letter_or_digit(c) || c == '_' || c == '.' || c == '-';
    };
    if (value.empty() || value.size() >= Size || !is_letter_or_digit(value.front()) ||
        !std::all_of(value.begin(), value.end(), is_name_byte))
    {
        return false;
    }
    copy_text(into, value);
    return true;
}

template <typename Number>
bool take_number(Number *into, std::string_view value, uint32_t lowest, uint32_t highest)
{
    uint32_t number = 0;
    const char *const end = value.data() + value.size();
    const auto [behind, error] = std::from_chars(value.data(), end, number);
    if (error != std::errc() || behind != end || number < lowest || number > highest)
    {
        return false;
    }
    *into = static_cast<Number>(number);
    return true;
}

/** A path from the root on: in the background there is no other current directory than that. */
bool make_absolute(char (&into)[max_path], std::string_view value)
{
    const auto is_control = [](char c) { return static_cast<unsigned char>(c) < ' '; };
    if (value.empty() || std::any_of(value.begin(), value.end(), is_control))
    {
        return false;
    }
    size_t length = 0;
    if (value.front() != '/')
    {
        if (::getcwd(into, sizeof into) == nullptr)
        {
            return false;
        }
        length = std::strlen(into);
        length -= length == 1 ? 1 : 0; // the root
        if (length + 1 < sizeof into)
        {
            into[length++] = '/';
        }
    }
    if (length + value.size() >= sizeof into)
    {
        return false;
    }
    value.copy(into + length, value.size());
    into[length + value.size()] = '\0';
    return true;
}

bool is_directory(const char *path, int access)
{
    struct stat status = {};
    return ::stat(path, &status) == 0 && S_ISDIR(status.st_mode) && ::access(path, access) == 0;
}

bool is_terminal_device(const char *path)
{
    const int fd = ::open(path, O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    const bool is_tty = fd >= 0 && ::isatty(fd) == 1;
    if (fd >= 0)
    {
        ::close(fd);
    }
    return is_tty;
}

/** Stores a path that passes a test. */
template <typename Test>
bool take_path(char (&into)[max_path], std::string_view value, size_t longest, Test test)
{
    char path[max_path];
    if (!make_absolute(path, value) || std::strlen(path) > longest || !test(path))
    {
        return false;
    }
    copy_text(into, path);
    return true;
}

// ---- one per setting ----------------------------------------------------------------------------

bool store_name(settings *into, std::string_view value)
{
    return take_name(into->name, value);
}

bool store_period(settings *into, std::string_view value)
{
    return take_number(&into->period_ms, value, 10, 3600000);
}

bool store_rpc_addr(settings *into, std::string_view value)
{
    char text[sizeof into->rpc_addr];
    unsigned char bytes[16];
    if (value.size() >= sizeof text || value.find('\0') != std::string_view::npos)
    {
        return false;
    }
    copy_text(text, value);
    if (::inet_pton(AF_INET, text, bytes) != 1 && ::inet_pton(AF_INET6, text, bytes) != 1)
    {
        return false;
    }
    copy_text(into->rpc_addr, text);
    return true;
}

bool store_rpc_port(settings *into, std::string_view value)
{
    return take_number(&into->rpc_port, value, 0, 65535);
}

bool store_local(settings *into, std::string_view value)
{
    return take_name(into->local, value);
}

bool store_tls_dir(settings *into, std::string_view value)
{
    return take_path(into->tls_dir, value, max_path - 32,
                     [](const char *path) { return is_directory(path, R_OK | X_OK); });
}

bool store_serial(settings *into, std::string_view value)
{
    return take_path(into->serial, value, 256, is_terminal_device);
}

bool store_baud(settings *into, std::string_view value)
{
    return take_number(&into->baud, value, 50, 4000000);
}

bool store_spool(settings *into, std::string_view value)
{
    return take_path(into->spool, value, max_path - 300,
                     [](const char *path) { return is_directory(path, W_OK | X_OK); });
}

bool store_max_conn(settings *into, std::string_view value)
{
    return take_number(&into->max_conn, value, 1, 256);
}

// ---- the configuration file ---------------------------------------------------------------------

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

constexpr char name_takes[] =
    "1 to 63 letters, digits, '_', '.' and '-', the first a letter or digit";

const setting setting_table[setting_count] = {
    {"name", "NAME",
     "name of this instance, of its IPC server and its shared heap, default is gatewayd",
     name_takes, store_name},
    {"period", "MS", "period of the telemetry in milliseconds, default is 1000",
     "a whole number of milliseconds, 10 to 3600000", store_period},
    {"rpc-addr", "ADDR", "address to serve RPC on, default is 127.0.0.1",
     "an IPv4 or IPv6 address in numbers", store_rpc_addr},
    {"rpc-port", "PORT", "TCP port to serve RPC on, default is 0 for none",
     "a whole number, 0 to 65535", store_rpc_port},
    {"local", "NAME", "serve RPC on a local socket of this name, too", name_takes, store_local},
    {"tls-dir", "DIR", "serve TCP with TLS, with the credentials of this directory",
     "the path of a directory as 'tarnctl tls init' makes it", store_tls_dir},
    {"serial", "DEVICE", "read points from a serial port, as lines of the form name=value",
     "the path of a serial device", store_serial},
    {"baud", "RATE", "rate of the serial port, default is 115200",
     "a whole number of bits per second, 50 to 4000000", store_baud},
    {"spool", "DIR", "take files that clients send, into this directory",
     "the path of a directory that can be written to", store_spool},
    {"max-conn", "N", "connections that each server takes at a time, default is 32",
     "a whole number, 1 to 256", store_max_conn},
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
