#include "rpc.h"

#include "output.h"
#include "value.h"

namespace tarnctl
{
namespace
{

/** Most that a peer may have us keep of one frame. */
constexpr uint32_t frame_limit = 64u << 20;

/** True for what is one address: the layer would take some of these characters for a list. */
bool is_address(std::string_view text)
{
    return !text.empty() && text.find_first_of(",;| ") == std::string_view::npos;
}

bool read_address(std::string_view text, rpc_target *out)
{
    constexpr std::string_view local = "local:";
    if (text.starts_with(local))
    {
        out->addr = text.substr(local.size());
        return is_address(out->addr);
    }
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
    {
        return false;
    }
    std::string_view addr = text.substr(0, colon);
    if (addr.starts_with('[') && addr.ends_with(']'))
    {
        addr = addr.substr(1, addr.size() - 2); // as IPv6 addresses are written beside a port
    }
    uint64_t port = 0;
    out->addr = addr;
    out->port = text.substr(colon + 1);
    return is_address(addr) && read_unsigned(out->port, &port) && port >= 1 && port <= 65535;
}

} // namespace

int read_target(const arguments &given, size_t place, rpc_target *out)
{
    const char *const text = given.operands()[place];
    if (!read_address(text, out))
    {
        return given.wrong_operand(place, text);
    }
    out->shown = shown(text);
    if (!given.number("timeout", 1, 3600000, &out->timeout_ms))
    {
        return status_usage;
    }
    const char *const dir = given.value("tls-dir");
    if (dir == nullptr)
    {
        return status_ok;
    }
    if (out->port.empty())
    {
        return wrong("--tls-dir goes with ADDR:PORT only, a local socket speaks no TLS");
    }
    return out->credentials.load(dir) ? status_ok : status_failed;
}

rpc_owner connect_to(const rpc_target &target)
{
    TARN_RPC rpc = nullptr;
    if (tarn_rpc_client_create(target.credentials.get(), nullptr, nullptr, target.addr.c_str(),
                               target.port.empty() ? nullptr : target.port.c_str(),
                               target.timeout_ms, nullptr, nullptr, &rpc) != 0)
    {
        (void)failed("the credentials are no good, make new ones with 'tarnctl tls init --force'");
        return nullptr;
    }
    rpc_owner made(rpc);
    tarn_rpc_set_frame_limit(rpc, frame_limit);
    (void)tarn_rpc_loop(rpc); // its first turn connects
    if (!tarn_rpc_is_connected(rpc))
    {
        (void)failed("cannot connect to " + target.shown +
                     (target.credentials.get() != nullptr
                          ? ": check that the server runs there with credentials of the same root"
                          : ": check that the server runs there") +
                     ", -v shows more");
        return nullptr;
    }
    return made;
}

int no_answer(const rpc_target &target)
{
    return failed("no answer from " + target.shown +
                  " within the time or the connection broke: check that it is an RPC server" +
                  (target.credentials.get() == nullptr && !target.port.empty()
                       ? " without TLS (or give --tls-dir)"
                       : "") +
                  ", or give a longer --timeout");
}

} // namespace tarnctl
