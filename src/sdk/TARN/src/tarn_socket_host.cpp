// Sockets: the host's IPv4 addresses, and byte order.
//
// The addresses are read once at start-up and only looked at afterwards; the lock is there for
// threads that outlive the teardown.

#include "tarn_socket.h"

#include "tarn_check.h"
#include "tarn_raii.h"
#include "tarn_socket_internal.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <optional>
#include <span>
#include <utility>

namespace
{

struct interface_list
{
    tarn::static_mutex lock;
    tarn::interface_address *entries TARN_GUARDED_BY(lock) = nullptr;
    size_t count TARN_GUARDED_BY(lock) = 0;
};
constinit interface_list interfaces;

/** The first interface address for which the test holds. */
template <typename Test>
std::optional<tarn::interface_address> find_interface(Test test)
{
    const tarn::lock_guard lock(interfaces.lock);
    const std::span entries(interfaces.entries, interfaces.count);
    const auto found = std::find_if(entries.begin(), entries.end(), test);
    return found == entries.end() ? std::nullopt : std::optional(*found);
}

void replace_interfaces(tarn::interface_address *entries, size_t count)
{
    const tarn::lock_guard lock(interfaces.lock);
    tarn_mem_free(std::exchange(interfaces.entries, entries));
    interfaces.count = count;
}

} // namespace

namespace tarn
{

size_t socket_host_read()
{
    size_t count = 0;
    auto entries = socket_port::read_interface_addresses(count);
    replace_interfaces(entries.release(), count);
    return count;
}

void socket_host_forget()
{
    replace_interfaces(nullptr, 0);
}

} // namespace tarn

int tarn_socket_get_broadcast_addr(TARN_SOCKET p, uint32_t *ip)
{
    RVON(p, 0);
    RVOF_TEXT(p->handle != INVALID_SOCKET, 0, "RVOF(p->handle != INVALID_SOCKET,-1)");
    RVON(ip, 0);
    const uint32_t own = tarn_socket_get_sock_addr(p);
    const auto found = find_interface([own](const auto &entry) { return entry.ip == own; });
    if (!found)
    {
        return 0;
    }
    *ip = found->ip | ~found->netmask;
    return 1;
}

int tarn_socket_is_local_addr(uint32_t ip)
{
    return find_interface([ip](const auto &entry) { return entry.ip == ip; }) ? 1 : 0;
}

uint32_t tarn_socket_get_if_addr(const char *if_name)
{
    RVON(if_name, 0);
    const auto found = find_interface(
        [if_name](const auto &entry) { return std::strcmp(entry.name, if_name) == 0; });
    return found ? found->ip : 0;
}

// ---- byte order ----------------------------------------------------------------------------------

namespace
{

/** Both directions are the same step. */
template <typename T>
T swap_to_big_endian(T value)
{
    if constexpr (std::endian::native == std::endian::little)
    {
        auto bytes = std::bit_cast<std::array<unsigned char, sizeof(T)>>(value);
        std::reverse(bytes.begin(), bytes.end());
        return std::bit_cast<T>(bytes);
    }
    return value;
}

} // namespace

uint16_t tarn_socket_htons(uint16_t value)
{
    return swap_to_big_endian(value);
}

uint16_t tarn_socket_ntohs(uint16_t value)
{
    return swap_to_big_endian(value);
}

uint32_t tarn_socket_htonl(uint32_t value)
{
    return swap_to_big_endian(value);
}

uint32_t tarn_socket_ntohl(uint32_t value)
{
    return swap_to_big_endian(value);
}

uint64_t tarn_socket_htonll(uint64_t value)
{
    return swap_to_big_endian(value);
}

uint64_t tarn_socket_ntohll(uint64_t value)
{
    return swap_to_big_endian(value);
}
