// Sockets: the system calls.

#include "tarn_socket_port.h"

#include "tarn_socket_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

static_assert(sizeof(tarn::socket_address::form) >= sizeof(sockaddr_storage) &&
              alignof(tarn::socket_address) >= alignof(sockaddr_storage));
static_assert(sizeof(tarn::interface_address::name) == IFNAMSIZ);
static_assert(tarn::socket_port::max_local_path == sizeof(sockaddr_un::sun_path));

namespace
{

constexpr size_t local_header = offsetof(sockaddr_un, sun_path);

template <typename Address>
tarn::socket_address pack(const Address &address, size_t length = sizeof(Address))
{
    tarn::socket_address packed{};
    std::memcpy(packed.form, &address, sizeof address);
    packed.length = static_cast<uint32_t>(length);
    return packed;
}

/** Zero beyond the bytes that the system gave. */
template <typename Address>
Address unpack(const tarn::socket_address &packed)
{
    Address address{};
    std::memcpy(&address, packed.form, std::min<size_t>(packed.length, sizeof address));
    return address;
}

const sockaddr *input(const tarn::socket_address &address)
{
    return reinterpret_cast<const sockaddr *>(address.form);
}

/** Calls a function that fills in an address. */
template <typename Call>
auto with_output(tarn::socket_address &out, Call call)
{
    out = {};
    socklen_t length = sizeof out.form;
    const auto result = call(reinterpret_cast<sockaddr *>(out.form), &length);
    // The system reports the length of the whole address, also when it had to cut it.
    out.length = result < 0 ? 0 : std::min<socklen_t>(length, sizeof out.form);
    return result;
}

int flags_of(tarn::socket_port::transfer mode)
{
    using tarn::socket_port::transfer;
    return (mode == transfer::block ? 0 : MSG_DONTWAIT) | (mode == transfer::peek ? MSG_PEEK : 0);
}

uint32_t type_of_family(int family)
{
    switch (family)
    {
    case AF_INET:
        return TARN_SOCKET_TYPE_IPV4;
    case AF_INET6:
        return TARN_SOCKET_TYPE_IPV6;
    case AF_UNIX:
        return TARN_SOCKET_TYPE_LOCAL;
    default:
        return 0;
    }
}

void set_int(int fd, int level, int option, int value)
{
    (void)::setsockopt(fd, level, option, &value, sizeof value);
}

bool has_ipv4(const ifaddrs &entry)
{
    return entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_INET;
}

uint32_t ipv4_of_entry(const sockaddr *address)
{
    sockaddr_in in{};
    if (address != nullptr && address->sa_family == AF_INET)
    {
        std::memcpy(&in, address, sizeof in);
    }
    return in.sin_addr.s_addr;
}

} // namespace

namespace tarn
{

// ---- names to addresses --------------------------------------------------------------------------

resolved_addresses::resolved_addresses(const char *host, const char *port)
{
    // Without type and protocol each address would come once per kind of socket, datagrams too, for
    // which a connect succeeds at once.
    addrinfo hints{};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo *list = nullptr;
    error_ = ::getaddrinfo(host, port, &hints, &list);
    if (error_ == 0)
    {
        list_ = list;
        next_ = list;
    }
}

resolved_addresses::~resolved_addresses()
{
    if (list_ != nullptr)
    {
        ::freeaddrinfo(static_cast<addrinfo *>(list_));
    }
}

const char *resolved_addresses::error_text() const
{
    return ::gai_strerror(error_);
}

bool resolved_addresses::next(resolved_address &out)
{
    const auto *entry = static_cast<const addrinfo *>(next_);
    if (entry == nullptr)
    {
        return false;
    }
    next_ = entry->ai_next;
    out = {};
    out.domain = entry->ai_family;
    out.type = entry->ai_socktype;
    out.protocol = entry->ai_protocol;
    out.sock_type = type_of_family(entry->ai_family);
    out.address.length = std::min<socklen_t>(entry->ai_addrlen, sizeof out.address.form);
    std::memcpy(out.address.form, entry->ai_addr, out.address.length);
    return true;
}

namespace socket_port
{

// ---- addresses -----------------------------------------------------------------------------------

socket_address ipv4_address(uint32_t ip, uint16_t port)
{
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = port;
    in.sin_addr.s_addr = ip;
    return pack(in);
}

socket_address ipv6_address(const uint8_t *ip, uint16_t port)
{
    sockaddr_in6 in{};
    in.sin6_family = AF_INET6;
    in.sin6_port = port;
    std::memcpy(&in.sin6_addr, ip, sizeof in.sin6_addr);
    return pack(in);
}

socket_address local_address(std::string_view path)
{
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    const size_t length = std::min(path.size(), sizeof un.sun_path);
    std::memcpy(un.sun_path, path.data(), length);
    return pack(un, local_header + length);
}

uint32_t type_of(const socket_address &address)
{
    return type_of_family(unpack<sockaddr>(address).sa_family);
}

uint32_t type_of_domain(int domain)
{
    return type_of_family(domain);
}

uint32_t ipv4_of(const socket_address &address)
{
    return unpack<sockaddr_in>(address).sin_addr.s_addr;
}

void ipv6_of(const socket_address &address, uint8_t *ip)
{
    const auto in = unpack<sockaddr_in6>(address);
    std::memcpy(ip, &in.sin6_addr, sizeof in.sin6_addr);
}

uint16_t port_of(const socket_address &address)
{
    // at the same place in both families
    return unpack<sockaddr_in>(address).sin_port;
}
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));

std::string_view local_path_of(const socket_address &address)
{
    const size_t length = std::min<size_t>(address.length, sizeof(sockaddr_un));
    return length <= local_header
               ? std::string_view()
               : std::string_view(reinterpret_cast<const char *>(address.form) + local_header,
                                  length - local_header);
}

// ---- sockets -------------------------------------------------------------------------------------

int open(int domain, int type, int protocol)
{
    return ::socket(domain, type | SOCK_CLOEXEC, protocol);
}

int shut_down(int fd)
{
    return ::shutdown(fd, SHUT_RDWR);
}

int bind(int fd, const socket_address &address)
{
    return ::bind(fd, input(address), address.length);
}

int listen(int fd, int backlog)
{
    return ::listen(fd, backlog);
}

int accept(int fd, socket_address &peer)
{
    return with_output(peer, [fd](sockaddr *address, socklen_t *length) {
        return ::accept4(fd, address, length, SOCK_CLOEXEC);
    });
}

int connect(int fd, const socket_address &address)
{
    return ::connect(fd, input(address), address.length);
}

int disconnect(int fd)
{
    sockaddr unspecified{};
    unspecified.sa_family = AF_UNSPEC;
    return ::connect(fd, &unspecified, sizeof unspecified);
}

int own_address(int fd, socket_address &out)
{
    return with_output(out, [fd](sockaddr *address, socklen_t *length) {
        return ::getsockname(fd, address, length);
    });
}

int peer_address(int fd, socket_address &out)
{
    return with_output(out, [fd](sockaddr *address, socklen_t *length) {
        return ::getpeername(fd, address, length);
    });
}

int peer_credentials(int fd, socket_credentials &out)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    const int result = ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
    if (result == 0 && peer.uid == UINT32_MAX)
    {
        errno = ENOTCONN; // the system answers for a socket without peer too
        return -1;
    }
    if (result == 0)
    {
        out = {peer.pid, peer.uid, peer.gid};
    }
    return result;
}

int get_flags(int fd)
{
    return ::fcntl(fd, F_GETFL);
}

int set_flags(int fd, int flags)
{
    return ::fcntl(fd, F_SETFL, flags);
}

int set_nonblocking(int fd, int flags)
{
    return set_flags(fd, flags | O_NONBLOCK);
}

int make_nonblocking(int fd)
{
    const int flags = get_flags(fd);
    if (flags < 0)
    {
        return -1;
    }
    return (flags & O_NONBLOCK) != 0 ? 0 : set_nonblocking(fd, flags);
}

int set_option(int fd, option which, int value)
{
    const bool tcp = which == option::tcp_nodelay;
    const int name = which == option::broadcast    ? SO_BROADCAST
                     : which == option::reuse_addr ? SO_REUSEADDR
                                                   : TCP_NODELAY;
    return ::setsockopt(fd, tcp ? static_cast<int>(IPPROTO_TCP) : SOL_SOCKET, name, &value,
                        sizeof value);
}

int bind_to_device(int fd, const char *if_name)
{
    const size_t length = std::strlen(if_name);
    if (length >= IFNAMSIZ)
    {
        errno = ENODEV;
        return -1;
    }
    return ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, if_name, static_cast<socklen_t>(length));
}

void enable_keep_alive(int fd)
{
    set_int(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    set_int(fd, IPPROTO_TCP, TCP_KEEPIDLE, 30);
    set_int(fd, IPPROTO_TCP, TCP_KEEPINTVL, 3);
    set_int(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
}

int take_error(int fd, int &error)
{
    error = 0;
    socklen_t length = sizeof error;
    return ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
}

int wait(int fd, readiness what, const deadline &limit)
{
    pollfd entry{fd, static_cast<short>(what == readiness::read ? POLLIN : POLLOUT), 0};
    const int ready = retry_eintr([&] {
        timespec left{};
        if (!limit.infinite())
        {
            const uint64_t ns = limit.left_ns();
            left.tv_sec = static_cast<time_t>(ns / 1000000000);
            left.tv_nsec = static_cast<long>(ns % 1000000000);
        }
        return ::ppoll(&entry, 1, limit.infinite() ? nullptr : &left, nullptr);
    });
    if (ready == 1 && (entry.revents & POLLNVAL) != 0)
    {
        errno = EBADF;
        return -1;
    }
    return ready;
}

ptrdiff_t receive(int fd, void *buf, size_t size, transfer mode)
{
    return ::recv(fd, buf, size, flags_of(mode));
}

int set_receive_limit(int fd, uint32_t ms)
{
    timeval limit{};
    limit.tv_sec = static_cast<time_t>(ms / 1000);
    limit.tv_usec = static_cast<suseconds_t>(ms % 1000 * 1000);
    return ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

ptrdiff_t receive_from(int fd, void *buf, size_t size, socket_address &from, transfer mode)
{
    return with_output(from, [&](sockaddr *address, socklen_t *length) {
        return ::recvfrom(fd, buf, size, flags_of(mode), address, length);
    });
}

ptrdiff_t send(int fd, const void *buf, size_t len)
{
    return ::send(fd, buf, len, MSG_NOSIGNAL);
}

ptrdiff_t send_to(int fd, const void *buf, size_t len, const socket_address &to)
{
    return ::sendto(fd, buf, len, MSG_NOSIGNAL, input(to), to.length);
}

ptrdiff_t send_parts(int fd, std::span<const send_part> parts, size_t skip, transfer mode)
{
    iovec vectors[max_send_parts];
    size_t count = 0;
    for (const send_part &part : parts)
    {
        const size_t left_out = std::min(skip, part.size);
        skip -= left_out;
        if (part.size > left_out && count < max_send_parts)
        {
            const auto *rest = static_cast<const unsigned char *>(part.data) + left_out;
            vectors[count++] = {const_cast<unsigned char *>(rest), part.size - left_out};
        }
    }
    msghdr message{};
    message.msg_iov = vectors;
    message.msg_iovlen = count;
    return ::sendmsg(fd, &message, flags_of(mode) | MSG_NOSIGNAL);
}

// ---- files of local sockets ----------------------------------------------------------------------

unique_fd open_directory(const char *path)
{
    return unique_fd(::open(path, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

int remove_file(int directory, const char *name)
{
    return ::unlinkat(directory, name, 0) == 0 || errno == ENOENT ? 0 : -1;
}

int set_socket_file_mode(int directory, const char *name, uint32_t mode)
{
    // The descriptor pins the file: what is put in its place meanwhile keeps its mode. Such a
    // descriptor takes no fchmod(), only a change through its name in /proc.
    const unique_fd file(::openat(directory, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status
    {
    };
    if (!file || ::fstat(file.get(), &status) != 0)
    {
        return -1;
    }
    if (!S_ISSOCK(status.st_mode))
    {
        errno = ENOTSOCK;
        return -1;
    }
    char path[32];
    (void)std::snprintf(path, sizeof path, "/proc/self/fd/%d", file.get());
    return ::chmod(path, mode);
}

// ---- the host ------------------------------------------------------------------------------------

unique_mem<interface_address> read_interface_addresses(size_t &count)
{
    count = 0;
    ifaddrs *list = nullptr;
    if (::getifaddrs(&list) != 0)
    {
        return {};
    }
    const scope_exit free_list([list] { ::freeifaddrs(list); });
    size_t found = 0;
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next)
    {
        found += has_ipv4(*entry) ? 1 : 0;
    }
    auto addresses = unique_mem<interface_address>::make_array(found);
    if (!addresses)
    {
        return {};
    }
    for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next)
    {
        if (has_ipv4(*entry))
        {
            interface_address &out = addresses.get()[count++];
            (void)std::snprintf(out.name, sizeof out.name, "%s", entry->ifa_name);
            out.ip = ipv4_of_entry(entry->ifa_addr);
            out.netmask = ipv4_of_entry(entry->ifa_netmask);
        }
    }
    return addresses;
}

} // namespace socket_port
} // namespace tarn
