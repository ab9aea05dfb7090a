// tarnctl net: network interfaces of this machine.

#include "output.h"

#include "tarn_if.h"

#include <array>

#include <arpa/inet.h>
#include <net/if.h>

namespace tarnctl
{
namespace
{

/** Text of an IPv4 address; empty for none. */
std::string address_text(uint32_t address)
{
    char text[INET_ADDRSTRLEN] = "";
    return address != 0 && ::inet_ntop(AF_INET, &address, text, sizeof text) != nullptr ? text : "";
}

struct interface
{
    std::string name;
    uint32_t index = 0;
    bool is_physical = false;
    std::string hardware; ///< empty: of another kind
    std::string address;
    std::string netmask;
};

std::string hardware_text(const char *name)
{
    std::array<uint8_t, 6> mac = {};
    if (tarn_if_get_hwaddr(name, mac.data()) != 1)
    {
        return "";
    }
    char text[18];
    (void)std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2],
                        mac[3], mac[4], mac[5]);
    return text;
}

std::vector<interface> all_interfaces()
{
    std::vector<interface> all;
    struct if_nameindex *const first = ::if_nameindex();
    for (const struct if_nameindex *at = first; at != nullptr && at->if_index != 0; ++at)
    {
        const std::string name = at->if_name;
        all.push_back({name, at->if_index, tarn_if_is_physical(name.c_str()) == 1,
                       hardware_text(name.c_str()), address_text(tarn_if_get_ip(name.c_str())),
                       address_text(tarn_if_get_netmask(name.c_str()))});
    }
    if (first != nullptr)
    {
        ::if_freenameindex(first);
    }
    return all;
}

void print_json(const std::vector<interface> &all)
{
    json line;
    const auto text_or_null = [&line](const char *key, const std::string &value) {
        line.key(key);
        (void)(value.empty() ? line.null() : line.text(value));
    };
    line.begin_array();
    for (const interface &each : all)
    {
        line.begin_object().key("name").text(each.name).key("index").number(each.index);
        line.key("physical").truth(each.is_physical);
        text_or_null("hardware", each.hardware);
        text_or_null("address", each.address);
        text_or_null("netmask", each.netmask);
        line.end_object();
    }
    line.end_array().print();
}

int list(const arguments &given)
{
    const std::vector<interface> all = all_interfaces();
    if (given.has("json"))
    {
        print_json(all);
        return status_ok;
    }
    table rows({"NAME", ">INDEX", "KIND", "HARDWARE", "ADDRESS", "NETMASK"});
    const auto cell = [](const std::string &text) { return text.empty() ? "-" : text; };
    for (const interface &each : all)
    {
        rows.add({escaped(each.name), std::to_string(each.index),
                  each.is_physical ? "physical" : "virtual", cell(each.hardware),
                  cell(each.address), cell(each.netmask)});
    }
    rows.print();
    return status_ok;
}

int gateway(const arguments &given)
{
    const char *const name = given.operands()[0];
    const std::string_view text = name;
    if (text.empty() || text.size() > 15 || text.find('/') != std::string_view::npos)
    {
        return given.wrong_operand(0, text);
    }
    if (tarn_if_name_to_index(name) == 0)
    {
        return failed("there is no interface '" + shown(name) + "': see 'tarnctl net list'");
    }
    const std::string address = address_text(tarn_if_get_gateway(name));
    if (address.empty())
    {
        return failed("no default route goes through '" + shown(name) +
                      "': choose another interface, or add a route");
    }
    if (given.has("json"))
    {
        json line;
        line.begin_object().key("name").text(name).key("gateway").text(address);
        line.end_object().print();
        return status_ok;
    }
    (void)std::fprintf(out(), "%s\n", address.c_str());
    return status_ok;
}

constexpr operand gateway_operands[] = {
    {"IF", "the name of an interface, 1 to 15 characters without '/'"}};
constexpr option options[] = {json_option};

} // namespace

const command net_list_command = {
    "net", "list", "List the network interfaces with their addresses", nullptr, {}, options, list,
};

const command net_gateway_command = {
    "net",   "gateway",        "Print the gateway of an interface's default route",
    nullptr, gateway_operands, options,
    gateway,
};

} // namespace tarnctl
