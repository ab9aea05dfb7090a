#include "text_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace gatewayd
{
namespace
{

/** Closes a descriptor at the end of its scope. */
class open_file
{
public:
    // Not blocking: opening a pipe would wait for its writer.
    explicit open_file(const char *path)
        : fd_(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC))
    {
    }
    open_file(const open_file &) = delete;
    open_file &operator=(const open_file &) = delete;
    ~open_file()
    {
        if (fd_ >= 0)
        {
            ::close(fd_);
        }
    }
    [[nodiscard]] int fd() const
    {
        return fd_;
    }

private:
    int fd_;
};

/** Text of an errno value that no other thread overwrites. */
const char *error_text(int error)
{
    const char *const text = strerrordesc_np(error);
    return text != nullptr ? text : "unknown error";
}

bool is_file(int fd)
{
    struct stat status = {};
    return ::fstat(fd, &status) == 0 && (S_ISREG(status.st_mode) || S_ISCHR(status.st_mode));
}

} // namespace

text_result read_text_file(const char *path, std::span<char> buffer)
{
    const open_file file(path);
    if (file.fd() < 0)
    {
        return {{}, error_text(errno)};
    }
    if (!is_file(file.fd()))
    {
        return {{}, "not a file"};
    }
    size_t length = 0;
    while (length < buffer.size())
    {
        const ssize_t n = ::read(file.fd(), buffer.data() + length, buffer.size() - length);
        if (n == 0)
        {
            return {{buffer.data(), length}};
        }
        if (n > 0)
        {
            length += static_cast<size_t>(n);
        }
        else if (errno != EINTR)
        {
            return {{}, error_text(errno)};
        }
    }
    return {{}, "too large"};
}

std::string_view take_line(std::string_view *text)
{
    const std::string_view line = text->substr(0, text->find('\n'));
    text->remove_prefix(std::min(line.size() + 1, text->size()));
    return line;
}

std::string_view trimmed(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

} // namespace gatewayd
