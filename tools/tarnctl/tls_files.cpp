#include "tls.h"

#include "output.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tarnctl
{
namespace
{

constexpr size_t largest_file = 1 << 20;

/** Closes a descriptor at the end of its scope; errno stays. */
class open_file
{
public:
    explicit open_file(int fd) : fd_(fd) {}
    open_file(const open_file &) = delete;
    open_file &operator=(const open_file &) = delete;
    ~open_file()
    {
        const int error = errno;
        if (fd_ >= 0)
        {
            ::close(fd_);
        }
        errno = error;
    }
    [[nodiscard]] int fd() const
    {
        return fd_;
    }

private:
    int fd_;
};

bool is_regular(int fd)
{
    struct stat status = {};
    if (::fstat(fd, &status) != 0)
    {
        return false;
    }
    errno = EINVAL;
    return S_ISREG(status.st_mode);
}

bool write_all(int fd, std::string_view content)
{
    while (!content.empty())
    {
        const ssize_t n = ::write(fd, content.data(), content.size());
        if (n < 0 && errno != EINTR)
        {
            return false;
        }
        content.remove_prefix(n > 0 ? static_cast<size_t>(n) : 0);
    }
    return true;
}

} // namespace

std::optional<std::string> read_file(const std::string &path)
{
    // not blocking: opening a pipe would wait for its writer
    const open_file file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.fd() < 0 || !is_regular(file.fd()))
    {
        return std::nullopt;
    }
    std::string content;
    char part[16384];
    for (;;)
    {
        const ssize_t n = ::read(file.fd(), part, sizeof part);
        if (n == 0)
        {
            return content;
        }
        if (n < 0 && errno != EINTR)
        {
            return std::nullopt;
        }
        content.append(part, n > 0 ? static_cast<size_t>(n) : 0);
        if (content.size() > largest_file)
        {
            errno = EFBIG;
            return std::nullopt;
        }
    }
}

int write_new_file(const std::string &path, std::string_view content, unsigned mode)
{
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const open_file file(::open(path.c_str(), flags, 0600));
    if (file.fd() < 0 || ::fchmod(file.fd(), mode) != 0 || !write_all(file.fd(), content))
    {
        return errno;
    }
    return 0;
}

std::optional<std::string> read_secret(const std::string &path)
{
    std::optional<std::string> secret = read_file(path);
    if (secret)
    {
        secret->erase(std::min(secret->find('\n'), secret->size()));
    }
    if (secret && (secret->empty() || secret->find('\0') != std::string::npos))
    {
        errno = EINVAL;
        return std::nullopt;
    }
    return secret;
}

const tlsu_if *tls_table()
{
    static tlsu_if table = {};
    table.size = sizeof table;
    if (tlsu_if_get(&table) != 0)
    {
        (void)failed("this build has no TLS, use one that was made with TARN_WITH_TLS=ON");
        return nullptr;
    }
    return &table;
}

bool client_credentials::load(const std::string &dir)
{
    if (tls_table() == nullptr)
    {
        return false;
    }
    const auto complain = [&](const char *name) {
        (void)failed("cannot read " + shown(dir + "/" + name) + ": " + error_text(errno) +
                     "; make it with 'tarnctl tls init " + shown(dir) + "'");
        return false;
    };
    const auto secret = read_secret(dir + "/secret");
    if (!secret)
    {
        return complain("secret");
    }
    secret_ = *secret;
    const std::pair<const char *, std::string *> files[] = {
        {"client.chain", &chain_}, {"client.cert", &cert_}, {"client.key", &key_}};
    for (const auto &[name, content] : files)
    {
        auto read = read_file(dir + "/" + name);
        if (!read)
        {
            return complain(name);
        }
        *content = std::move(*read);
    }
    const auto length = [](const std::string &text) { return static_cast<int32_t>(text.size()); };
    record_ = {sizeof record_,  TLSU_FLAG_REQUIRE_PEER_CERT,
               secret_.c_str(), chain_.data(),
               cert_.data(),    key_.data(),
               length(chain_),  length(cert_),
               length(key_),    0};
    loaded_ = true;
    return true;
}

} // namespace tarnctl
