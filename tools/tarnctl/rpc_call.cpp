// tarnctl rpc call: one request and its answer.

#include "rpc_element.h"

#include "output.h"
#include "value.h"

#include <charconv>

namespace tarnctl
{
namespace
{

bool read_message_id(std::string_view text, uint32_t *id)
{
    uint64_t number = 0;
    if (!read_unsigned(text, &number) || number < TARN_RPC_MSG_ID_MIN || number > INT32_MAX)
    {
        return false;
    }
    *id = static_cast<uint32_t>(number);
    return true;
}

void print_answer(const arguments &given, int code, TARN_RPC_MSG answer)
{
    if (given.has("json"))
    {
        json line;
        line.begin_object().key("code").number(code).key("elements");
        add_elements(line, answer);
        line.end_object().print();
        return;
    }
    (void)std::fprintf(out(), "code %d\n", code);
    print_elements(answer);
}

int call(const arguments &given)
{
    rpc_target target;
    uint32_t id = 0;
    if (!read_message_id(given.operands()[1], &id))
    {
        return given.wrong_operand(1, given.operands()[1]);
    }
    const rpc_msg_owner request(tarn_rpc_msg_create());
    const auto elements = given.operands().subspan(2);
    if (const int result = write_elements(elements, request.get()); result != status_ok)
    {
        return result;
    }
    if (const int result = read_target(given, 0, &target); result != status_ok)
    {
        return result;
    }
    const rpc_owner rpc = connect_to(target);
    if (!rpc)
    {
        return status_failed;
    }
    TARN_RPC_MSG rsp = nullptr;
    const int code = tarn_rpc_msg_send(rpc.get(), 1, id, elements.empty() ? nullptr : request.get(),
                                       &rsp, target.timeout_ms);
    const rpc_msg_owner answer(rsp);
    // without an answer the connection is given up, so on one that stands a code is the peer's
    if (code < 0 && !tarn_rpc_is_connected(rpc.get()))
    {
        return no_answer(target);
    }
    print_answer(given, code, answer.get());
    return code >= 0 ? int{status_ok}
                     : failed("the server refuses the request with code " + std::to_string(code) +
                              ", see its documentation for what it takes");
}

constexpr operand operands[] = {
    {target_name, target_takes},
    {"ID", "a message id, 1000 to 2147483647"},
    {"ELEM", element_takes, operand::repeated},
};
constexpr option options[] = {json_option, tls_dir_option, timeout_option};

} // namespace

const command rpc_call_command = {
    "rpc",
    "call",
    "Send a request to an RPC server and print the answer as a tree",
    "TYPE is null, bool, int8 to int64, uint8 to uint64, handle, float, double, bytes16, string\n"
    "or hex (a string, given by its bytes). Objects and arrays in several arguments, or in one:\n"
    "  tarnctl rpc call 127.0.0.1:7700 1002 1:string=a/b 2:double=21.5\n"
    "  tarnctl rpc call local:gw 1100 3:{ 4:int32=5 5:string='two words' }\n"
    "  tarnctl rpc call local:gw 1100 '3:[1:{2:uint8=1 3:string=\"two words\"}]'\n",
    operands,
    options,
    call,
};

} // namespace tarnctl
