// Network interfaces, against what `ip -j` prints of a namespace's own interfaces; raw datagrams,
// received by the kernel's UDP at the far end of a veth pair.

#include "support.h"
#include "support_net.h"

#include "tarn_if.h"
#include "tarn_if_internal.h"
#include "tarn_os.h"
#include "tarn_socket.h"

#include <cerrno>
#include <cstring>
#include <thread>

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using support::expect_check;
using support::in_namespace;
using support::leak_check;
using support::log_capture;
using support::shell;

namespace
{

const bool allowed = support::allow_namespaces();

std::string dotted(uint32_t ip)
{
    char text[INET_ADDRSTRLEN] = "";
    return ip == 0 ? "" : ::inet_ntop(AF_INET, &ip, text, sizeof text);
}

/** First value of a key in the output of `ip -j`, without quotes; empty when there is none. */
std::string value_of(const std::string &json, const std::string &key)
{
    const std::string mark = "\"" + key + "\":";
    const size_t at = json.find(mark);
    if (at == std::string::npos)
    {
        return "";
    }
    const size_t begin = at + mark.size() + (json[at + mark.size()] == '"' ? 1 : 0);
    return json.substr(begin, json.find_first_of("\",}", begin) - begin);
}

std::string netmask_of_prefix(const std::string &length)
{
    return length.empty() ? "" : dotted(htonl(~uint32_t{0} << (32 - std::stoul(length))));
}

void expect_as_ip_prints(const std::string &name)
{
    SCOPED_TRACE(name);
    const std::string link = shell("ip -j link show dev " + name);
    const std::string address = shell("ip -j -4 addr show dev " + name);
    const std::string route = shell("ip -j -4 route show default dev " + name);
    uint8_t mac[6] = {};
    char text[18] = "";
    if (tarn_if_get_hwaddr(name.c_str(), mac) == 1)
    {
        (void)std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1],
                            mac[2], mac[3], mac[4], mac[5]);
    }
    EXPECT_EQ(text, value_of(link, "link_type") == "ether" ? value_of(link, "address") : "");
    EXPECT_EQ(dotted(tarn_if_get_ip(name.c_str())), value_of(address, "local"));
    EXPECT_EQ(dotted(tarn_if_get_netmask(name.c_str())),
              netmask_of_prefix(value_of(address, "prefixlen")));
    EXPECT_EQ(dotted(tarn_if_get_gateway(name.c_str())), value_of(route, "gateway"));
    const uint32_t index = tarn_if_name_to_index(name.c_str());
    EXPECT_EQ(std::to_string(index), value_of(link, "ifindex"));
    char back[IF_NAMESIZE] = "";
    EXPECT_STREQ(tarn_if_index_to_name(index, back, sizeof back), name.c_str());
}

std::vector<std::string> interface_names()
{
    std::vector<std::string> names;
    struct if_nameindex *list = ::if_nameindex();
    for (const struct if_nameindex *entry = list; entry->if_index != 0; ++entry)
    {
        names.emplace_back(entry->if_name);
    }
    ::if_freenameindex(list);
    return names;
}

/** A dummy and a VLAN on it; a bridge stands in where the kernel was built without them. */
void add_alone(const std::string &name, const std::string &kinds)
{
    (void)shell("ip link add " + kinds + " 2>/dev/null || ip link add " + name + " type bridge");
    testing::Test::RecordProperty("kind_of_" + name,
                                  value_of(shell("ip -j -d link show dev " + name), "info_kind"));
}

TEST(Interface, ValuesAreThoseThatIpPrints)
{
    const leak_check leaks;
    for (const std::string &name : interface_names())
    {
        expect_as_ip_prints(name); // the machine's own
    }
    in_namespace([] {
        (void)shell("ip link add ev0 type veth peer name ev1");
        add_alone("ed0", "ed0 type dummy");
        add_alone("ed0.7", "link ed0 name ed0.7 type vlan id 7");
        (void)shell("for i in ev0 ev1 ed0 ed0.7; do ip link set $i up; done; "
                    "ip addr add 10.1.2.3/20 dev ed0; ip addr add 172.16.9.1/30 dev ed0.7; "
                    "ip addr add 10.77.0.1/24 dev ev0; ip route add default via 10.77.0.254; "
                    "ip route add default via 172.16.9.2 metric 9 table 100; "
                    "for i in $(seq 1 120); do echo route add 192.0.2.$i via 10.77.0.$i; "
                    "echo route add 198.18.$i.0/24 via 10.77.0.$i; "
                    "echo route add 198.19.$i.0/24 via 10.77.0.$i; done | ip -batch -");
        ASSERT_EQ(interface_names().size(), 5u);
        for (const std::string &name : interface_names())
        {
            expect_as_ip_prints(name);
        }
        EXPECT_EQ(dotted(tarn_if_get_gateway("ev0")), "10.77.0.254");
        EXPECT_EQ(tarn_if_get_gateway("ed0"), 0u);
        // A destination counts when its text has 0.0.0.0 in it.
        (void)shell("ip route add 20.0.0.0/8 via 10.1.2.4 dev ed0");
        EXPECT_EQ(dotted(tarn_if_get_gateway("ed0")), "10.1.2.4");
        // Far more routes than a datagram holds, and the one that is looked for last.
        (void)shell("ip route del default; ip route add 200.0.0.0/8 via 10.77.0.9; ");
        EXPECT_EQ(dotted(tarn_if_get_gateway("ev0")), "10.77.0.9");
    });
}

TEST(Interface, TextsThatAreNoNamesGiveNothing)
{
    expect_check("RVON(if_name,0)");
    expect_check("RVON(mac,0)");
    expect_check("RVON(if_name,TARN_ERRLN)");
    const log_capture log;
    uint8_t mac[6] = {1};
    for (const char *name :
         {"", "no_such_if", "lo0123456789012345", "lo;id", static_cast<const char *>(nullptr)})
    {
        EXPECT_EQ(tarn_if_get_hwaddr(name, mac), 0);
        EXPECT_EQ(tarn_if_get_ip(name), 0u);
        EXPECT_EQ(tarn_if_get_netmask(name), 0u);
        EXPECT_EQ(tarn_if_get_gateway(name), 0u);
    }
    EXPECT_TRUE(log.contains("failed to call ioctl on [no_such_if], error = [19]"));
    EXPECT_TRUE(log.contains("failed to call ioctl on no_such_if, error = 19"));
    EXPECT_EQ(tarn_if_get_hwaddr("lo", mac), 0);
    EXPECT_EQ(mac[0], 1);
    EXPECT_TRUE(log.contains("sa_family of lo is [772], expect [1]"));
    EXPECT_EQ(tarn_if_get_hwaddr("lo", nullptr), 0);
    EXPECT_LT(tarn_if_first_physical_name_get(nullptr), 0);
    char name[IF_NAMESIZE] = "?";
    EXPECT_EQ(tarn_if_index_to_name(0x7FFFFFF0, name, sizeof name), nullptr);
    EXPECT_EQ(tarn_if_name_to_index("no_such_if"), 0u);
}

/** Puts a tree of one's own in the place of /sys/class/net, in the calling thread's namespace. */
void make_class_tree(const std::vector<std::pair<std::string, std::string>> &links)
{
    ASSERT_EQ(::mount("none", "/sys/class/net", "tmpfs", 0, nullptr), 0);
    for (const auto &[name, target] : links)
    {
        ASSERT_EQ(::symlink(target.c_str(), ("/sys/class/net/" + name).c_str()), 0);
    }
}

// In a process of its own, because the list is built once per process.
TARN_TEST_ROLE(physical)
{
    std::atomic<int> result{0};
    const auto expect = [&result](bool holds, int line) {
        if (!holds)
        {
            result = line;
        }
    };
    char *name = nullptr;
    uint8_t mac[6];
    in_namespace([&] {
        make_class_tree({{"lo", "../../devices/virtual/net/lo"}, {"wlan0", "../../devices/pci/w"}});
        expect(tarn_if_first_physical_name_get(&name) < 0 && name == nullptr, __LINE__);
        (void)::mkdir("/sys/class/net/e_directory", 0700);
        for (int i = 30; i >= 10; --i)
        {
            const std::string entry = "/sys/class/net/eth" + std::to_string(i);
            expect(::symlink("../../devices/pci0/net/x", entry.c_str()) == 0, __LINE__);
        }
        expect(::symlink("../../devices/virtual/net/e0", "/sys/class/net/e0") == 0, __LINE__);
        expect(::symlink("../../devices/pci0/net/x", "/sys/class/net/eth1") == 0, __LINE__);
        (void)shell("ip link add eth30 type veth peer name eth10");
        name = static_cast<char *>(tarn_mem_alloc(8));
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
        {
            threads.emplace_back([&] {
                char *own = nullptr;
                expect(tarn_if_first_physical_name_get(&own) == 0, __LINE__);
                tarn_mem_free(own);
            });
        }
        for (auto &thread : threads)
        {
            thread.join();
        }
        expect(tarn_if_first_physical_name_get(&name) == 0, __LINE__);
        expect(std::string(name) == "eth1", __LINE__);
        expect(tarn_if_get_hwaddr_by_index(1, mac) == 1, __LINE__);  // eth10
        expect(tarn_if_get_hwaddr_by_index(2, mac) == 0, __LINE__);  // eth11, which is no interface
        expect(tarn_if_get_hwaddr_by_index(21, mac) == 1, __LINE__); // eth30
        expect(tarn_if_get_hwaddr_by_index(22, mac) == 0, __LINE__);
    });
    tarn_mem_free(name);
    return result;
}

TEST(Interface, PhysicalListIsSortedAndBuiltOnceFound)
{
    auto child = support::child_process::role("physical");
    const std::string output = child.read_rest();
    EXPECT_EQ(child.wait(), 0) << "line of the failure, modulo 256\n" << output;
}

TEST(Interface, PhysicalTestReadsLinksAndKeepsForeignTextFromTheShell)
{
    in_namespace([] {
        make_class_tree({{"eth0", "../../devices/pci0000:00/net/eth0"},
                         {"eth10", "../../devices/virtual/net/eth10"},
                         {"we$rd", "../../devices/virtual/net/we$rd"},
                         {"ok'name", "../../devices/pci/net/x"}});
        const std::string witness = support::temp_dir().path();
        const std::pair<std::string, int> cases[] = {
            {"eth0", 1},
            {"eth10", 0},
            {"eth1", 0}, // part of a virtual one's line
            {"eth99", 1},
            {"we$rd", 0},
            {"ok'name", 1},
            {"e$rd", 0},
            {"no$ne", 1},
            {"", 1},
            {"--help", 1},
            {"-r", 1},
            {"x; touch " + witness, 1},
            {"$(touch " + witness + ")", 1},
            {"`touch " + witness + "`", 1},
            {"eth0\ntouch " + witness, 1},
            {std::string(5000, 'e'), 1},
        };
        for (const auto &[name, expected] : cases)
        {
            EXPECT_EQ(tarn_if_is_physical(name.c_str()), expected) << name;
        }
        EXPECT_NE(::access(witness.c_str(), F_OK), 0);
        ASSERT_EQ(::mount("none", "/sys/class", "tmpfs", 0, nullptr), 0);
        const log_capture log;
        EXPECT_EQ(tarn_if_is_physical("no$ne"), 0);
        EXPECT_TRUE(log.contains("error", "failed to execute "));
        char *name = nullptr;
        EXPECT_LT(tarn_if_first_physical_name_get(&name), 0);
        EXPECT_TRUE(log.contains("failed to open dir [/sys/class/net], error = [2]"));
    });
}

// ---- routing messages ----------------------------------------------------------------------------

struct message_builder
{
    std::vector<unsigned char> bytes;
    void add(uint16_t type, uint16_t flags, uint32_t sequence,
             const std::vector<unsigned char> &body)
    {
        const nlmsghdr header = {static_cast<uint32_t>(sizeof(nlmsghdr) + body.size()), type, flags,
                                 sequence, 42};
        const auto *begin = reinterpret_cast<const unsigned char *>(&header);
        bytes.insert(bytes.end(), begin, begin + sizeof header);
        bytes.insert(bytes.end(), body.begin(), body.end());
        bytes.resize((bytes.size() + 3) & ~size_t{3});
    }
};

std::vector<unsigned char> route(unsigned char family, unsigned char table,
                                 const std::vector<std::pair<uint16_t, uint32_t>> &attributes)
{
    std::vector<unsigned char> body(sizeof(rtmsg));
    body[offsetof(rtmsg, rtm_family)] = family;
    body[offsetof(rtmsg, rtm_table)] = table;
    for (const auto &[type, value] : attributes)
    {
        const rtattr header = {sizeof(rtattr) + sizeof value, type};
        const auto *begin = reinterpret_cast<const unsigned char *>(&header);
        body.insert(body.end(), begin, begin + sizeof header);
        begin = reinterpret_cast<const unsigned char *>(&value);
        body.insert(body.end(), begin, begin + sizeof value);
    }
    return body;
}

struct reading
{
    tarn::route_reading end;
    std::vector<tarn::route_record> routes;
};

reading read(const std::vector<unsigned char> &bytes)
{
    reading result{};
    result.end = tarn::read_route_datagram(
        bytes, 1, 42,
        [](const tarn::route_record &record, void *context) {
            static_cast<reading *>(context)->routes.push_back(record);
            return false;
        },
        &result);
    return result;
}

TEST(RouteMessages, AreReadOneByOneUntilTheEndAndNeverBeyondTheDatagram)
{
    using tarn::route_reading;
    message_builder datagram;
    datagram.add(RTM_NEWROUTE, NLM_F_MULTI, 0,
                 route(AF_INET, RT_TABLE_MAIN, {{RTA_DST, 5}, {RTA_GATEWAY, 6}, {RTA_PREFSRC, 7}}));
    datagram.add(RTM_NEWROUTE, NLM_F_MULTI, 0, route(AF_INET, RT_TABLE_MAIN, {{RTA_OIF, 8}}));
    datagram.add(RTM_NEWROUTE, NLM_F_MULTI, 0, route(AF_INET, RT_TABLE_LOCAL, {{RTA_OIF, 9}}));
    datagram.add(RTM_NEWROUTE, NLM_F_MULTI, 0, route(AF_INET6, RT_TABLE_MAIN, {{RTA_OIF, 9}}));
    datagram.add(RTM_NEWADDR, NLM_F_MULTI, 0, route(AF_INET, RT_TABLE_MAIN, {{RTA_OIF, 9}}));
    datagram.add(RTM_NEWROUTE, NLM_F_MULTI, 0, {1, 2});
    reading all = read(datagram.bytes);
    EXPECT_EQ(all.end, route_reading::more);
    ASSERT_EQ(all.routes.size(), 2u);
    EXPECT_EQ(all.routes[0].destination, 5u);
    EXPECT_EQ(all.routes[0].gateway, 6u);
    EXPECT_EQ(all.routes[0].preferred_source, 7u);
    EXPECT_EQ(all.routes[1].destination, 0u); // not the one before's
    EXPECT_EQ(all.routes[1].if_index, 8u);
    for (const auto &[type, flags, sequence, end] :
         {std::tuple(NLMSG_DONE, NLM_F_MULTI, 0u, route_reading::done),
          std::tuple(NLMSG_ERROR, NLM_F_MULTI, 0u, route_reading::broken),
          std::tuple(int{RTM_NEWROUTE}, 0, 0u, route_reading::done),
          std::tuple(int{RTM_NEWROUTE}, NLM_F_MULTI, 1u, route_reading::done)})
    {
        message_builder ended = datagram;
        ended.add(static_cast<uint16_t>(type), static_cast<uint16_t>(flags), sequence,
                  route(AF_INET, RT_TABLE_MAIN, {}));
        EXPECT_EQ(read(ended.bytes).end, end) << type;
    }
    for (size_t length = 0; length < datagram.bytes.size(); ++length)
    {
        const std::vector<unsigned char> cut(
            datagram.bytes.begin(), datagram.bytes.begin() + static_cast<ptrdiff_t>(length));
        EXPECT_LE(read(cut).routes.size(), 2u);
        std::vector<unsigned char> spoilt = datagram.bytes;
        spoilt[length] = 0xFF;
        (void)read(spoilt);
    }
    EXPECT_EQ(read({}).end, route_reading::broken);
}

// ---- raw datagrams -------------------------------------------------------------------------------

/** A socket of the kernel's UDP on 10.66.0.2, and what it receives as "ADDRESS:PORT bytes". */
struct udp_receiver
{
    udp_receiver() : fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_in own = {AF_INET, htons(7777), {inet_addr("10.66.0.2")}, {}};
        EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr *>(&own), sizeof own), 0);
        const timeval timeout = {10, 0};
        EXPECT_EQ(::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout), 0);
    }
    std::string receive() const
    {
        char buf[1024];
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t n =
            ::recvfrom(fd.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &length);
        EXPECT_GE(n, 0);
        return dotted(from.sin_addr.s_addr) + ":" + std::to_string(ntohs(from.sin_port)) + " " +
               std::string(buf, static_cast<size_t>(std::max<ssize_t>(n, 0)));
    }
    tarn::unique_fd fd;
};

TEST(RawDatagram, ArrivesAtTheKernelsUdpThroughAnInterfaceWithoutAddress)
{
    expect_check("RVOF(len >= 0,-1)");
    expect_check("RVOF(data != NULL || len == 0,-1)");
    const leak_check leaks;
    in_namespace([] {
        (void)shell("ip link add ev0 type veth peer name ev1; ip link set ev0 up; "
                    "ip addr add 10.66.0.2/24 dev ev1; ip link set ev1 up; "
                    "echo 0 > /proc/sys/net/ipv4/conf/all/rp_filter; "
                    "echo 0 > /proc/sys/net/ipv4/conf/ev1/rp_filter");
        uint8_t mac[6] = {};
        ASSERT_EQ(tarn_if_get_hwaddr("ev1", mac), 1);
        const int index = static_cast<int>(tarn_if_name_to_index("ev0"));
        const udp_receiver receiver;
        const tarn::unique_fd tap(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, htons(ETH_P_IP)));
        for (const int length : {0, 1, 2, 511, 512})
        {
            const std::string payload(static_cast<size_t>(length),
                                      static_cast<char>('a' + length % 7));
            EXPECT_EQ(tarn_socket_send_raw_udp(index, mac, inet_addr("10.66.0.2"), htons(7777),
                                               inet_addr("10.66.0.9"), htons(68), payload.data(),
                                               length),
                      length + 28);
            EXPECT_EQ(receiver.receive(), "10.66.0.9:68 " + payload);
            unsigned char packet[1024];
            ASSERT_EQ(::recv(tap.get(), packet, sizeof packet, 0), length + 28);
            EXPECT_EQ(std::memcmp(packet, "\x45\0", 2), 0);
            EXPECT_EQ(packet[2] * 256 + packet[3], length + 28);
            EXPECT_EQ(std::memcmp(packet + 4, "\0\0\x40\0\x40\x11", 6), 0);
            EXPECT_NE(packet[26] * 256 + packet[27], 0); // 0 would switch the check off
            while (::recv(tap.get(), packet, sizeof packet, MSG_DONTWAIT) > 0)
            {
                // seen again at the far end
            }
        }
        EXPECT_EQ(shell("awk '/^Udp:/ {print $4}' /proc/net/snmp | tail -n 1"), "0\n");
        const log_capture log;
        const std::string large(513, 'x');
        const auto refused = [&](int at, const void *data, int length) {
            EXPECT_EQ(tarn_socket_send_raw_udp(at, mac, 1, 1, 1, 1, data, length), -1);
        };
        refused(index, large.data(), 513);
        EXPECT_TRUE(log.contains("sizeof packet.data = 512, len = 513"));
        refused(index, large.data(), -1);
        refused(index, nullptr, 1);
        refused(0x7FFFFFF0, nullptr, 0);
        EXPECT_TRUE(log.contains("failed to bind, error = 19"));
    });
}

} // namespace
