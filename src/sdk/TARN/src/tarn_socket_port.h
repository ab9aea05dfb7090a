// Private: what sockets need of the operating system; for tarn_socket*.cpp and what includes
// tarn_socket_internal.h.
//
// Everything works on descriptors. Unless stated: -1 with errno set on failure, nothing is logged,
// nothing is repeated after EINTR, only what says so blocks. Written in
// linux/tarn_socket_linux.cpp.
#ifndef TARN_SOCKET_PORT_H
#define TARN_SOCKET_PORT_H

#include "tarn_os.h"
#include "tarn_raii.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace tarn
{

class deadline;

/** An address of any family in the system's own form. */
struct socket_address
{
    uint32_t length; ///< bytes of the form that count
    alignas(8) unsigned char form[128];
};

/** Bytes to be sent, borrowed. */
struct send_part
{
    const void *data;
    size_t size;
};

/** The process at the other end of a local socket, as it was when it connected. */
struct socket_credentials
{
    int32_t pid;
    uint32_t uid;
    uint32_t gid;
};

/** One IPv4 address of an interface. */
struct interface_address
{
    char name[16];
    uint32_t ip;
    uint32_t netmask;
};

/** One answer of a name look-up. */
struct resolved_address
{
    int domain;
    int type;
    int protocol;
    uint32_t sock_type; ///< TARN_SOCKET_TYPE_*, 0 for another family
    socket_address address;
};

/** The addresses of a host and port for TCP, in the resolver's order. */
class [[nodiscard]] resolved_addresses
{
public:
    /** Looks them up; blocks without limit. A null host stands for any local address. */
    resolved_addresses(const char *host, const char *port);
    resolved_addresses(const resolved_addresses &) = delete;
    resolved_addresses &operator=(const resolved_addresses &) = delete;
    ~resolved_addresses();
    /** 0, or the resolver's error code. */
    [[nodiscard]] int error() const noexcept
    {
        return error_;
    }
    /** Text of error(). Static. */
    [[nodiscard]] const char *error_text() const;
    /** Moves on to the next address; false at the end. */
    bool next(resolved_address &out);

private:
    void *list_ = nullptr;
    void *next_ = nullptr;
    int error_;
};

namespace socket_port
{

/* ---- addresses: never fail ---------------------------------------------------------------------- */

socket_address ipv4_address(uint32_t ip, uint16_t port);
/** @param ip  16 bytes */
socket_address ipv6_address(const uint8_t *ip, uint16_t port);
/** A path, or an abstract name behind a leading NUL.
 *  @param path  at most max_local_path bytes; what is beyond is cut */
socket_address local_address(std::string_view path);
inline constexpr size_t max_local_path = 108;

/** TARN_SOCKET_TYPE_* of an address or of a domain of socket(); 0 for any other. */
uint32_t type_of(const socket_address &address);
uint32_t type_of_domain(int domain);

/** Parts of an address whose type was tested. */
uint32_t ipv4_of(const socket_address &address);
void ipv6_of(const socket_address &address, uint8_t *ip);
uint16_t port_of(const socket_address &address);
/** The bytes of a local address as they stand: empty for an unnamed one, a leading NUL for an
 *  abstract one; only a path may have a terminating NUL among them. Borrowed from address. */
std::string_view local_path_of(const socket_address &address);

/* ---- sockets ------------------------------------------------------------------------------------ */

/** A new descriptor, close-on-exec. */
int open(int domain, int type, int protocol);
int shut_down(int fd);
int bind(int fd, const socket_address &address);
int listen(int fd, int backlog);
/** A new descriptor, close-on-exec and blocking whatever fd is. Blocks when fd does. */
int accept(int fd, socket_address &peer);
/** Starts to connect; blocks when fd does. */
int connect(int fd, const socket_address &address);
/** Takes back a connect that failed or is under way, so that another can begin. */
int disconnect(int fd);
int own_address(int fd, socket_address &out);
int peer_address(int fd, socket_address &out);
int peer_credentials(int fd, socket_credentials &out);

/** File status flags, to be given back to set_flags(). */
int get_flags(int fd);
int set_flags(int fd, int flags);
/** Makes the descriptor non-blocking when it is not yet. */
int make_nonblocking(int fd);
int set_nonblocking(int fd, int flags);

enum class option
{
    broadcast,
    reuse_addr,
    tcp_nodelay
};
int set_option(int fd, option which, int value);
/** Longer names than an interface can have fail with ENODEV, instead of being cut to the name of
 *  another interface. */
int bind_to_device(int fd, const char *if_name);
/** Probes after 30 s of silence, every 3 s, 3 times. Failures are ignored: local sockets know no
 *  probes. */
void enable_keep_alive(int fd);
/** Takes the pending error: 0 when there was none. */
int take_error(int fd, int &error);

enum class readiness
{
    read, ///< bytes, a peer, the end of the stream or an error
    write ///< room, a finished connect or an error
};
/** Waits for the descriptor; goes on after a signal with the time that is left.
 *  @return 1 ready; 0 when the time was up; -1 on failure. */
int wait(int fd, readiness what, const deadline &limit);

enum class transfer
{
    block, ///< wait as long as it takes, unless the descriptor is non-blocking
    poll,  ///< EAGAIN instead of waiting
    peek   ///< as poll, and the bytes stay unread
};
/** @return bytes; 0 at the end of the stream. */
ptrdiff_t receive(int fd, void *buf, size_t size, transfer mode);
/** Let receives that block give up (EAGAIN) after a time, kept to a tick of the system's timer, which
 *  may be 10 ms; 0: never. */
int set_receive_limit(int fd, uint32_t ms);
/** The sender's address is left empty when there is none. */
ptrdiff_t receive_from(int fd, void *buf, size_t size, socket_address &from, transfer mode);
/** Sending to a peer that closed fails with EPIPE, without a signal. */
ptrdiff_t send(int fd, const void *buf, size_t len);
ptrdiff_t send_to(int fd, const void *buf, size_t len, const socket_address &to);
/** One system call for the first max_send_parts parts.
 *  @param skip  bytes at the beginning that went out already */
ptrdiff_t send_parts(int fd, std::span<const send_part> parts, size_t skip, transfer mode);
inline constexpr size_t max_send_parts = 16;

/* ---- files of local sockets --------------------------------------------------------------------- */

/** A handle on a directory, for the calls below; fails on a symbolic link. */
unique_fd open_directory(const char *path);
/** Removes a file that is no directory; links are not followed. 0 also when there is none. */
int remove_file(int directory, const char *name);
/** Sets the mode of a socket's file; anything else of that name, a link or another kind of file,
 *  fails and stays as it is. */
int set_socket_file_mode(int directory, const char *name, uint32_t mode);

/* ---- the host ----------------------------------------------------------------------------------- */

/** All IPv4 addresses of all interfaces; empty when there is none or memory ran out.
 *  @param count  out */
unique_mem<interface_address> read_interface_addresses(size_t &count);

} // namespace socket_port
} // namespace tarn

#endif
