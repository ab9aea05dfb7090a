// Sockets: local names, in the abstract namespace and as files.
//
// /tmp/tarn is open to every user, so whatever stands there may be another user's: the directory is
// opened without following a link, and everything that is done to a socket's file goes through that
// descriptor.

#include "tarn_socket.h"

#include "tarn_dir.h"
#include "tarn_os.h"
#include "tarn_socket_internal.h"
#include "tarn_text.h"

#include <cerrno>
#include <cstring>
#include <string_view>

namespace os = tarn::socket_port;

namespace
{

constexpr std::string_view abstract_prefix = "/tarn/sock/";
constexpr std::string_view file_prefix = "/tmp/tarn/";
constexpr std::string_view file_suffix = ".sock";
constexpr const char *file_directory = "/tmp/tarn";
constexpr uint32_t file_directory_mode = 0777;
constexpr uint32_t file_mode = 0666;
/** Text of an abstract name, without the leading NUL. */
constexpr size_t max_abstract_text = 106;
constexpr size_t max_file_path = os::max_local_path - 1;

/** A local address and the text that log lines show for it. */
struct local_name
{
    explicit local_name(const char *name);
    char path[os::max_local_path + 1];
    tarn::socket_address address;
};

local_name::local_name(const char *name) : path{}, address{}
{
    // The leading NUL of the address is not part of the text.
    char abstract[1 + max_abstract_text + 1] = {};
    tarn::text_writer text(abstract + 1, sizeof abstract - 1);
    text.append(abstract_prefix).append(name);
    if (text.truncated())
    {
        TARN_LOG_WARN("%s is too long for a socket name and is cut", name);
    }
    std::memcpy(path, text.c_str(), text.length());
    address = os::local_address({abstract, 1 + text.length()});
}

struct file_name
{
    char path[os::max_local_path];
    tarn::socket_address address;
    /** The path's last component. */
    [[nodiscard]] const char *base() const
    {
        return path + file_prefix.size();
    }
};

/** False, with errno, for a name that would leave the directory or lose its suffix. */
bool make_file_name(const char *name, file_name &out)
{
    if (std::strchr(name, '/') != nullptr)
    {
        errno = EINVAL;
        return false;
    }
    tarn::text_writer text(out.path, max_file_path + 1);
    text.append(file_prefix).append(name).append(file_suffix);
    if (text.truncated())
    {
        errno = ENAMETOOLONG;
        return false;
    }
    out.address = os::local_address({out.path, text.length()});
    return true;
}

std::string_view service_name_of(const tarn::socket_address &peer)
{
    std::string_view text = os::local_path_of(peer);
    if (text.starts_with('\0'))
    {
        text = text.substr(1, text.find('\0', 1) - 1);
        return text.starts_with(abstract_prefix) ? text.substr(abstract_prefix.size())
                                                 : std::string_view();
    }
    text = text.substr(0, text.find('\0'));
    const size_t around = file_prefix.size() + file_suffix.size();
    return text.size() >= around && text.starts_with(file_prefix) && text.ends_with(file_suffix)
               ? text.substr(file_prefix.size(), text.size() - around)
               : std::string_view();
}

int bind_failed(const char *path, int error)
{
    TARN_LOG_ERROR("bind %s failed, error = %d (%s)", path, error, tarn::error_text(error).c_str());
    errno = error;
    return TARN_ERRLN;
}

/** The file gets its mode through the directory's descriptor: /tmp/tarn is open to every user, who
 *  could put a link in the file's place before a change by path. */
int bind_file(TARN_SOCKET p, const file_name &file)
{
    if (!tarn_dir_is_exist(file_directory))
    {
        (void)tarn_dir_create(file_directory, file_directory_mode);
    }
    const tarn::unique_fd directory = os::open_directory(file_directory);
    if (!directory || os::remove_file(directory.get(), file.base()) != 0 ||
        os::bind(p->handle, file.address) != 0)
    {
        return bind_failed(file.path, errno);
    }
    if (os::set_socket_file_mode(directory.get(), file.base(), file_mode) != 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("chmod %s failed, error = %d (%s)", file.path, error,
                       tarn::error_text(error).c_str());
        errno = error;
        return TARN_ERRLN;
    }
    return 0;
}

} // namespace

int tarn_socket_bind_local(TARN_SOCKET p, const char *name)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVOF(TARN_SOCKET_TYPE_LOCAL == p->sock_type, -1);
    RVON(name, -1);
    const local_name local(name);
    const int result = os::bind(p->handle, local.address);
    if (result != 0)
    {
        (void)bind_failed(local.path, errno);
    }
    return result;
}

int tarn_socket_bind_local_not_abstract(TARN_SOCKET p, const char *name)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVOF(TARN_SOCKET_TYPE_LOCAL == p->sock_type, -1);
    RVON(name, -1);
    file_name file{};
    return make_file_name(name, file) ? bind_file(p, file) : bind_failed(name, errno);
}

int tarn_socket_connect_local_with_timeout(TARN_SOCKET p, const char *name, uint32_t timeout_ms)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVOF(TARN_SOCKET_TYPE_LOCAL == p->sock_type, -1);
    RVON(name, -1);
    return tarn::socket_connect(p, local_name(name).address, timeout_ms);
}

int tarn_socket_connect_local_not_abstract(TARN_SOCKET p, const char *name, uint32_t timeout_ms)
{
    RVON(p, -1);
    RVOF(p->handle != INVALID_SOCKET, -1);
    RVOF(TARN_SOCKET_TYPE_LOCAL == p->sock_type, -1);
    RVON(name, -1);
    file_name file{};
    return make_file_name(name, file) ? tarn::socket_connect(p, file.address, timeout_ms) : -1;
}

TARN_SOCKET tarn_socket_accept_local(TARN_SOCKET p, char *name, size_t name_size,
                                     uint32_t timeout_ms)
{
    RVON(p, TARN_INVALID_HANDLE);
    RVOF(p->handle != INVALID_SOCKET, TARN_INVALID_HANDLE);
    RVOF(TARN_SOCKET_TYPE_LOCAL == p->sock_type, TARN_INVALID_HANDLE);
    tarn::socket_address peer{};
    tarn::socket_owner accepted = tarn::socket_accept(p, peer, timeout_ms);
    if (accepted && name != nullptr && name_size != 0)
    {
        tarn::text_writer(name, name_size).append(service_name_of(peer));
    }
    return accepted.release();
}
