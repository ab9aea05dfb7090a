// Network interfaces: the default gateway, from the kernel's routing messages.
//
// The routes come in several datagrams with many messages each. Every datagram is parsed where it
// stands before the next one takes its place in the buffer.

#include "tarn_if.h"

#include "tarn_if_internal.h"
#include "tarn_os.h"

#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace
{

constexpr size_t datagram_size = 8192;
/** The kernel answers at once; a dump that stops half-way must not hold its reader for ever. */
constexpr time_t answer_timeout_s = 3;

/** The request's number and the one that would end the read differ deliberately: replies carry the
 *  request's number, so the read ends with the dump's own end mark. */
constexpr uint32_t request_sequence = 0;
constexpr uint32_t expected_sequence = 1;

struct route_request
{
    nlmsghdr header;
    rtmsg message;
};
static_assert(sizeof(route_request) == 28);

/** Bytes of a message or attribute with the padding behind it. */
constexpr size_t padded(size_t length)
{
    return (length + NLMSG_ALIGNTO - 1) & ~(size_t{NLMSG_ALIGNTO} - 1);
}
static_assert(NLMSG_ALIGNTO == RTA_ALIGNTO && sizeof(nlmsghdr) == 16);

template <typename T>
T read_front(std::span<const unsigned char> bytes)
{
    T value{};
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

std::span<const unsigned char> without_front(std::span<const unsigned char> bytes, size_t length)
{
    return bytes.subspan(std::min(padded(length), bytes.size()));
}

void read_attribute(uint16_t type, std::span<const unsigned char> payload,
                    tarn::route_record &route)
{
    if (payload.size() < sizeof(uint32_t))
    {
        return;
    }
    const auto value = read_front<uint32_t>(payload);
    switch (type)
    {
    case RTA_DST:
        route.destination = value;
        break;
    case RTA_OIF:
        route.if_index = value;
        break;
    case RTA_GATEWAY:
        route.gateway = value;
        break;
    case RTA_PREFSRC:
        route.preferred_source = value;
        break;
    default:
        break;
    }
}

/** @param body  what follows the message's header
 *  @return false when it is no IPv4 route of the main table */
bool read_route(std::span<const unsigned char> body, tarn::route_record &route)
{
    if (body.size() < sizeof(rtmsg))
    {
        return false;
    }
    const auto message = read_front<rtmsg>(body);
    if (message.rtm_family != AF_INET || message.rtm_table != RT_TABLE_MAIN)
    {
        return false;
    }
    for (body = without_front(body, sizeof message); body.size() >= sizeof(rtattr);)
    {
        const auto attribute = read_front<rtattr>(body);
        if (attribute.rta_len < sizeof attribute || attribute.rta_len > body.size())
        {
            break;
        }
        read_attribute(attribute.rta_type,
                       body.subspan(sizeof attribute, attribute.rta_len - sizeof attribute), route);
        body = without_front(body, attribute.rta_len);
    }
    return true;
}

struct gateway_search
{
    const char *if_name;
    uint32_t gateway;
};

bool look_for_default(const tarn::route_record &route, void *context)
{
    auto &search = *static_cast<gateway_search *>(context);
    char destination[INET_ADDRSTRLEN] = "";
    (void)::inet_ntop(AF_INET, &route.destination, destination, sizeof destination);
    // Deliberately a part of the text only, which 10.0.0.0 holds too; a default route comes first.
    if (std::strstr(destination, "0.0.0.0") == nullptr)
    {
        return false;
    }
    char name[IF_NAMESIZE] = "";
    if (::if_indextoname(route.if_index, name) == nullptr || std::strcmp(name, search.if_name) != 0)
    {
        return false;
    }
    search.gateway = route.gateway;
    return true;
}

bool send_request(int fd)
{
    route_request request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = request_sequence;
    request.header.nlmsg_pid = static_cast<uint32_t>(::getpid());
    const timeval timeout = {answer_timeout_s, 0};
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    return tarn::retry_eintr([&] { return ::send(fd, &request, sizeof request, 0); }) ==
           static_cast<ssize_t>(sizeof request);
}

/** Receives one datagram of the kernel's; others are dropped.
 *  @return its length; -1, with errno, also when it did not fit */
ssize_t receive_datagram(int fd, std::span<unsigned char> buffer)
{
    for (;;)
    {
        sockaddr_nl sender{};
        iovec vector = {buffer.data(), buffer.size()};
        msghdr message{};
        message.msg_name = &sender;
        message.msg_namelen = sizeof sender;
        message.msg_iov = &vector;
        message.msg_iovlen = 1;
        const ssize_t n = tarn::retry_eintr([&] { return ::recvmsg(fd, &message, 0); });
        if (n >= 0 && (message.msg_flags & MSG_TRUNC) != 0)
        {
            errno = EMSGSIZE;
            return -1;
        }
        if (n < 0 || sender.nl_pid == 0)
        {
            return n;
        }
    }
}

/** Reads the whole answer.
 *  @return false when it broke off, with errno */
bool read_nl_sock(int fd, uint32_t sequence, uint32_t process, gateway_search &search)
{
    alignas(nlmsghdr) unsigned char buffer[datagram_size];
    auto reading = tarn::route_reading::more;
    while (reading == tarn::route_reading::more)
    {
        const ssize_t n = receive_datagram(fd, buffer);
        if (n < 0)
        {
            TARN_LOG_ERROR("socket read error!");
            return false;
        }
        reading = tarn::read_route_datagram({buffer, static_cast<size_t>(n)}, sequence, process,
                                            look_for_default, &search);
    }
    if (reading == tarn::route_reading::broken)
    {
        TARN_LOG_ERROR("error in received packet!");
        errno = EPROTO;
    }
    return reading == tarn::route_reading::done;
}

} // namespace

namespace tarn
{

route_reading read_route_datagram(std::span<const unsigned char> datagram, uint32_t sequence,
                                  uint32_t process, route_visitor visit, void *context)
{
    if (datagram.empty())
    {
        return route_reading::broken;
    }
    while (!datagram.empty())
    {
        if (datagram.size() < sizeof(nlmsghdr))
        {
            return route_reading::broken;
        }
        const auto header = read_front<nlmsghdr>(datagram);
        if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size() ||
            header.nlmsg_type == NLMSG_ERROR)
        {
            return route_reading::broken;
        }
        if (header.nlmsg_type == NLMSG_DONE)
        {
            return route_reading::done;
        }
        route_record route{};
        if (header.nlmsg_type == RTM_NEWROUTE &&
            read_route(datagram.subspan(sizeof header, header.nlmsg_len - sizeof header), route) &&
            visit(route, context))
        {
            return route_reading::done;
        }
        const bool last = (header.nlmsg_flags & NLM_F_MULTI) == 0;
        if (last || (header.nlmsg_seq == sequence && header.nlmsg_pid == process))
        {
            return route_reading::done;
        }
        datagram = without_front(datagram, header.nlmsg_len);
    }
    return route_reading::more;
}

} // namespace tarn

uint32_t tarn_if_get_gateway(const char *if_name)
{
    RVON(if_name, 0);
    const tarn::unique_fd fd(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!fd)
    {
        TARN_LOG_ERROR("failed to create socket! error = %d", errno);
        return 0;
    }
    if (!send_request(fd.get()))
    {
        TARN_LOG_ERROR("write to socket failed, error = %d", errno);
        return 0;
    }
    gateway_search search = {if_name, 0};
    if (!read_nl_sock(fd.get(), expected_sequence, static_cast<uint32_t>(::getpid()), search))
    {
        TARN_LOG_ERROR("read from socket failed, error = %d", errno);
        return 0;
    }
    return search.gateway;
}
