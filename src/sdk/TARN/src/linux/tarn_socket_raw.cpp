// Sockets: one IPv4/UDP datagram as a hand-built packet, for use before an interface has an
// address.

#include "tarn_socket.h"

#include "tarn_algorithm.h"
#include "tarn_os.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

/** All fields in network byte order. */
struct raw_packet
{
    uint8_t version_and_length;
    uint8_t type_of_service;
    uint16_t total_length;
    uint16_t identification;
    uint16_t fragment;
    uint8_t time_to_live;
    uint8_t protocol;
    uint16_t header_checksum;
    uint32_t source;
    uint32_t destination;
    uint16_t source_port;
    uint16_t destination_port;
    uint16_t udp_length;
    uint16_t udp_checksum;
    uint8_t data[512];
};
static_assert(sizeof(raw_packet) == 540 && offsetof(raw_packet, source) == 12 &&
              offsetof(raw_packet, source_port) == 20 && offsetof(raw_packet, data) == 28);

constexpr size_t ip_header_size = offsetof(raw_packet, source_port);
constexpr size_t udp_header_size = offsetof(raw_packet, data) - ip_header_size;

uint16_t network_order(size_t value)
{
    return htons(static_cast<uint16_t>(value));
}

uint16_t checksum(const raw_packet &packet, size_t size)
{
    return static_cast<uint16_t>(tarn_algorithm_checksum(&packet, size));
}

/** Addresses, ports and payload are in place. The datagram's checksum covers a header of length,
 *  protocol and addresses alone, which is what stands in the packet's own header while the rest of
 *  it is still zero. */
void complete(raw_packet &packet, size_t length)
{
    packet.protocol = IPPROTO_UDP;
    packet.udp_length = network_order(length + udp_header_size);
    packet.total_length = packet.udp_length;
    const size_t size = ip_header_size + udp_header_size + length;
    packet.udp_checksum = checksum(packet, size);

    packet.total_length = network_order(size);
    packet.version_and_length = 0x45;
    packet.fragment = htons(0x4000); // don't fragment
    packet.time_to_live = 64;
    packet.header_checksum = checksum(packet, ip_header_size);
}

} // namespace

int tarn_socket_send_raw_udp(int if_index, const uint8_t *dst_mac, uint32_t dst_ip,
                             uint16_t dst_port, uint32_t src_ip, uint16_t src_port,
                             const void *data, int len)
{
    RVON(dst_mac, -1);
    RVOF(len >= 0, -1);
    RVOF(data != NULL || len == 0, -1);
    raw_packet packet{};
    if (static_cast<size_t>(len) > sizeof packet.data)
    {
        TARN_LOG_ERROR("sizeof packet.data = %d, len = %d", static_cast<int>(sizeof packet.data),
                       len);
        return -1;
    }
    const tarn::unique_fd fd(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_IP)));
    if (!fd)
    {
        TARN_LOG_ERROR("failed to create socket, error = %d", errno);
        return -1;
    }
    sockaddr_ll link{};
    link.sll_family = AF_PACKET;
    link.sll_protocol = htons(ETH_P_IP);
    link.sll_ifindex = if_index;
    link.sll_halen = ETH_ALEN;
    std::memcpy(link.sll_addr, dst_mac, ETH_ALEN);
    const auto *address = reinterpret_cast<const sockaddr *>(&link);
    if (::bind(fd.get(), address, sizeof link) != 0)
    {
        TARN_LOG_ERROR("failed to bind, error = %d", errno);
        return -1;
    }
    const auto length = static_cast<size_t>(len);
    packet.source = src_ip;
    packet.destination = dst_ip;
    packet.source_port = src_port;
    packet.destination_port = dst_port;
    tarn_mem_copy(packet.data, data, length);
    complete(packet, length);
    const ssize_t sent = tarn::retry_eintr([&] {
        return ::sendto(fd.get(), &packet, offsetof(raw_packet, data) + length, 0, address,
                        sizeof link);
    });
    if (sent < 0)
    {
        TARN_LOG_ERROR("failed to bind, error = %d", errno); // deliberately the text of the bind
    }
    return static_cast<int>(sent);
}
