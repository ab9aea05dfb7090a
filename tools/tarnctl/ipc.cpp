// tarnctl ipc call: one call of a function of another process on this machine.

#include "output.h"
#include "owner.h"
#include "value.h"

#include "tarn_ipc.h"
#include "tarn_process.h"

#include <cstring>

namespace tarnctl
{
namespace
{

using ipc_owner = owner<TARN_IPC, tarn_ipc_destroy>;
using data_owner = owner<TARN_DATA, tarn_data_destroy>;

constexpr value_type types[] = {
    {"null", TARN_DATA_TYPE_NULL, value_kind::null, 0},
    {"bool", TARN_DATA_TYPE_BOOLEAN, value_kind::boolean, 1},
    {"int8", TARN_DATA_TYPE_INT8, value_kind::signed_integer, 1},
    {"int16", TARN_DATA_TYPE_INT16, value_kind::signed_integer, 2},
    {"int32", TARN_DATA_TYPE_INT32, value_kind::signed_integer, 4},
    {"int64", TARN_DATA_TYPE_INT64, value_kind::signed_integer, 8},
    {"uint8", TARN_DATA_TYPE_UINT8, value_kind::unsigned_integer, 1},
    {"uint16", TARN_DATA_TYPE_UINT16, value_kind::unsigned_integer, 2},
    {"uint32", TARN_DATA_TYPE_UINT32, value_kind::unsigned_integer, 4},
    {"uint64", TARN_DATA_TYPE_UINT64, value_kind::unsigned_integer, 8},
    {"float", TARN_DATA_TYPE_FLOAT, value_kind::real32, 4},
    {"double", TARN_DATA_TYPE_DOUBLE, value_kind::real64, 8},
    {"pointer", TARN_DATA_TYPE_POINTER, value_kind::unsigned_integer, 8},
    {"pair", TARN_DATA_TYPE_PAIR, value_kind::pair, 16},
    {"string", TARN_DATA_TYPE_STRING, value_kind::text, 0},
};

constexpr char value_takes[] = "values as TYPE=VALUE";

/** Reads one argument into the list. @return status_ok, or status_usage after a message */
int add_argument(std::string_view text, data_owner &list)
{
    const size_t equals = text.find('=');
    const std::string_view name = text.substr(0, equals);
    const bool is_hex = name == "hex"; // a string by its bytes, without the NUL of a text
    const value_type *const type = find_type(types, is_hex ? "string" : name);
    if (type == nullptr || (equals == std::string_view::npos && type->kind != value_kind::null))
    {
        return wrong("VALUE '" + shown(text) + "': takes " + value_takes + ", TYPE one of " +
                     type_names(types));
    }
    const std::string_view given =
        equals == std::string_view::npos ? std::string_view() : text.substr(equals + 1);
    std::string bytes;
    if (is_hex ? !read_hex(given, &bytes) || bytes.empty() : !read_value(*type, given, &bytes))
    {
        return wrong("VALUE '" + shown(text) + "': " + std::string(name) + " takes " +
                     (is_hex ? "pairs of hex digits" : takes(*type)));
    }
    const bool is_text = type->kind == value_kind::text && !is_hex;
    const auto length = static_cast<uint32_t>(bytes.size() + (is_text ? 1 : 0));
    data_owner value(tarn_data_alloc(type->code, bytes.c_str(), &length));
    if (!list)
    {
        list = std::move(value);
    }
    else if (tarn_data_add_tail(list.get(), value.get()))
    {
        (void)value.release();
    }
    return status_ok;
}

/** A value's bytes in host order; of a text without its NUL. */
std::string bytes_of(TARN_DATA value, const value_type &type)
{
    if (type.kind == value_kind::text)
    {
        const char *const at = tarn_data_get_str_buffer(value);
        std::string text(at != nullptr ? at : "", at != nullptr ? tarn_data_get_str_len(value) : 0);
        if (text.ends_with('\0'))
        {
            text.pop_back();
        }
        return text;
    }
    std::string bytes(type.size, '\0');
    if (type.size != 0 && !tarn_data_get_value(value, bytes.data(), nullptr))
    {
        bytes.clear();
    }
    return bytes;
}

void print_json(int32_t code, TARN_DATA values)
{
    json line;
    line.begin_object().key("code").number(int64_t{code}).key("values").begin_array();
    for (TARN_DATA at = values; at != nullptr; at = tarn_data_get_next(at))
    {
        if (const value_type *const type = find_type(types, tarn_data_get_type(at)))
        {
            line.begin_object().key("type").text(type->name);
            add_value(line, *type, bytes_of(at, *type));
            line.end_object();
        }
    }
    line.end_array().end_object().print();
}

void print_text(int32_t code, TARN_DATA values)
{
    (void)std::fprintf(out(), "code %d\n", code);
    for (TARN_DATA at = values; at != nullptr; at = tarn_data_get_next(at))
    {
        if (const value_type *const type = find_type(types, tarn_data_get_type(at)))
        {
            const std::string text = value_text(*type, bytes_of(at, *type));
            (void)std::fprintf(out(), "%s%s%s\n", type->name, text.empty() ? "" : " ",
                               text.c_str());
        }
    }
}

/** What a connection has to have; this program answers no calls. */
constexpr tarn_ipc_callbacks no_callbacks = {
    [](TARN_IPC, const char *, void *, TARN_IPC) {},
    [](TARN_IPC, const char *, void *, TARN_IPC) {},
    [](TARN_IPC, uint32_t, TARN_DATA, TARN_DATA *, void *) -> int32_t { return -1; }, nullptr};

int call(const arguments &given)
{
    const auto operands = given.operands();
    uint64_t function = 0;
    if (operands[0][0] == '\0')
    {
        return given.wrong_operand(0, operands[0]);
    }
    if (!read_unsigned(operands[1], &function) || function > UINT32_MAX)
    {
        return given.wrong_operand(1, operands[1]);
    }
    data_owner values;
    for (const char *const text : operands.subspan(2))
    {
        if (const int result = add_argument(text, values); result != status_ok)
        {
            return result;
        }
    }
    const std::string caller = "tarnctl-" + std::to_string(tarn_process_id());
    const ipc_owner conn(tarn_ipc_open(operands[0], caller.c_str(), &no_callbacks));
    if (!conn)
    {
        return failed("cannot connect to '" + shown(operands[0]) +
                      "': check that a process serves that name on this machine");
    }
    int32_t code = 0;
    TARN_DATA results = nullptr;
    const int32_t rc =
        tarn_ipc_call(conn.get(), static_cast<uint32_t>(function), values.get(), &code, &results);
    const data_owner owned(results);
    if (rc != 0)
    {
        return failed("no answer from '" + shown(operands[0]) + "' (" + std::to_string(rc) +
                      "): check that it is well and that the values are not too many");
    }
    given.has("json") ? print_json(code, results) : print_text(code, results);
    return code >= 0 ? int{status_ok}
                     : failed("the function refuses the call with code " + std::to_string(code) +
                              ", see its documentation for what it takes");
}

constexpr operand operands[] = {
    {"NAME", "the name of an IPC server on this machine"},
    {"FUNC", "the number of a function, 0 to 4294967295"},
    {"VALUE", value_takes, operand::repeated},
};
constexpr option options[] = {json_option};

} // namespace

const command ipc_call_command = {
    "ipc",
    "call",
    "Call a function of a process on this machine and print what it gives",
    "TYPE is null, bool, int8 to int64, uint8 to uint64, float, double, pointer, pair (MAJOR,MINOR),\n"
    "string (sent with a NUL behind it) or hex (a string, given by its bytes):\n"
    "  tarnctl ipc call gatewayd 3 string=room/1 double=21.5\n",
    operands,
    options,
    call,
};

} // namespace tarnctl
