// tarnctl log-level: the level of a running daemon, by its level file.
//
// The directory of these files is open to every user, so a file is read and written only when it is
// a regular one at that very place. It is written over, not replaced: the daemon watches the file.

#include "output.h"

#include "tarn_log.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarnctl
{
namespace
{

constexpr char level_dir[] = "/tmp/tarn_log_level";
constexpr size_t longest_text = 1024;

bool is_level(const char *text)
{
    return std::strcmp(log_level_to_str(log_level_from_str(text)), text) == 0;
}

/** The text of a level file; nothing, with errno, when it cannot be had. */
std::optional<std::string> exchange_text(const std::string &path, const char *level)
{
    const int access = level != nullptr ? O_RDWR : O_RDONLY;
    const int fd = ::open(path.c_str(), access | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
    {
        return std::nullopt;
    }
    struct stat status = {};
    char text[longest_text];
    ssize_t n = -1;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))
    {
        errno = EINVAL;
    }
    else if (level != nullptr)
    {
        // first the new text, then its end: the daemon never finds the file empty
        const std::string line = std::string(level) + "\n";
        n = ::pwrite(fd, line.data(), line.size(), 0);
        n = n == static_cast<ssize_t>(line.size()) && ::ftruncate(fd, n) == 0
                ? static_cast<ssize_t>(line.copy(text, sizeof text))
                : -1;
    }
    else
    {
        n = ::read(fd, text, sizeof text);
    }
    const int error = errno;
    ::close(fd);
    errno = error;
    return n >= 0 ? std::optional(std::string(text, static_cast<size_t>(n))) : std::nullopt;
}

std::string trimmed(std::string text)
{
    constexpr char blanks[] = " \t\r\n";
    text.erase(text.find_last_not_of(blanks) + 1);
    text.erase(0, std::min(text.find_first_not_of(blanks), text.size()));
    return text;
}

int cannot_use(const std::string &name, bool writes)
{
    if (errno == ENOENT)
    {
        return failed("'" + shown(name) + "' has no level file in " + level_dir +
                      ": check the name, and that it runs as a daemon");
    }
    return failed(std::string("cannot ") + (writes ? "write " : "read ") + level_dir + "/" +
                  shown(name) + ": " + error_text(errno) + ", check who owns it");
}

int log_level(const arguments &given)
{
    const std::string name = given.operands()[0];
    const char *const level = given.operand_or_null(1);
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
    {
        return given.wrong_operand(0, name);
    }
    std::string wanted = level != nullptr ? level : "";
    std::transform(wanted.begin(), wanted.end(), wanted.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (level != nullptr && !is_level(wanted.c_str()))
    {
        return given.wrong_operand(1, level);
    }
    const auto text = exchange_text(std::string(level_dir) + "/" + name,
                                    level != nullptr ? wanted.c_str() : nullptr);
    if (!text)
    {
        return cannot_use(name, level != nullptr);
    }
    const std::string now = trimmed(*text);
    if (given.has("json"))
    {
        json line;
        line.begin_object().key("name").text(name).key("level").text(now).end_object().print();
        return status_ok;
    }
    (void)std::fprintf(out(), "%s\n", escaped(now).c_str());
    return status_ok;
}

constexpr operand operands[] = {
    {"NAME", "the name of a daemon, without '/'"},
    {"LEVEL", "FATAL, ERROR, WARN, INFO, TRACE or DEBUG", operand::maybe},
};
constexpr option options[] = {json_option};

} // namespace

const command log_level_command = {
    "log-level",
    "",
    "Print the log level of a running daemon, or set it",
    "TRACE shows less than DEBUG. The daemon takes a new level within about a second.\n",
    operands,
    options,
    log_level,
};

} // namespace tarnctl
