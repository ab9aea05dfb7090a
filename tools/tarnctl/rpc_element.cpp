// Elements on the command line:
//
//   ID:TYPE=VALUE      to the end of the argument
//   ID:{  ID:[         begin an object, an array; elements follow as arguments of their own, and
//   }  ]               end it
//   ID:{ID:TYPE=VALUE ID:TYPE="VALUE WITH BLANKS"}
//                      the same in one argument: what stands behind the bracket is read word by
//                      word, a word ends at a blank, a comma or a closing bracket

#include "rpc_element.h"

#include "output.h"
#include "value.h"

namespace tarnctl
{
namespace
{

constexpr value_type types[] = {
    {"null", MSG_ELM_TYPE_NULL, value_kind::null, 0},
    {"bool", MSG_ELM_TYPE_BOOL, value_kind::boolean, 1},
    {"int8", MSG_ELM_TYPE_INT8, value_kind::signed_integer, 1},
    {"int16", MSG_ELM_TYPE_INT16, value_kind::signed_integer, 2},
    {"int32", MSG_ELM_TYPE_INT32, value_kind::signed_integer, 4},
    {"int64", MSG_ELM_TYPE_INT64, value_kind::signed_integer, 8},
    {"uint8", MSG_ELM_TYPE_UINT8, value_kind::unsigned_integer, 1},
    {"uint16", MSG_ELM_TYPE_UINT16, value_kind::unsigned_integer, 2},
    {"uint32", MSG_ELM_TYPE_UINT32, value_kind::unsigned_integer, 4},
    {"uint64", MSG_ELM_TYPE_UINT64, value_kind::unsigned_integer, 8},
    {"handle", MSG_ELM_TYPE_HANDLE, value_kind::unsigned_integer, 8},
    {"float", MSG_ELM_TYPE_FLOAT, value_kind::real32, 4},
    {"double", MSG_ELM_TYPE_DOUBLE, value_kind::real64, 8},
    {"bytes16", MSG_ELM_TYPE_BYTES16, value_kind::bytes, 16},
    {"string", MSG_ELM_TYPE_STRING, value_kind::text, 0},
    {"object", MSG_ELM_TYPE_OBJECT_BEGIN, value_kind::block, 0},
    {"array", MSG_ELM_TYPE_ARRAY_BEGIN, value_kind::block, 0},
};

// ---- from the command line ----------------------------------------------------------------------

class element_writer
{
public:
    explicit element_writer(TARN_RPC_MSG msg) : msg_(msg) {}

    int argument(std::string_view text)
    {
        if (text == "}" || text == "]")
        {
            return close(text[0]);
        }
        uint16_t id = 0;
        std::string_view rest = text;
        if (!take_id(&rest, &id))
        {
            return complain(text);
        }
        if (rest.starts_with('{') || rest.starts_with('['))
        {
            const int result = open(id, rest[0], text);
            return result != status_ok ? result : words(rest.substr(1));
        }
        return value(id, rest, text);
    }
    int end()
    {
        return open_.empty()
                   ? int{status_ok}
                   : wrong(std::string("ELEM: '") + open_.back() + "' is missing at the end");
    }

private:
    static int complain(std::string_view text)
    {
        return wrong("ELEM '" + shown(text) + "': takes " + element_takes);
    }
    static bool take_id(std::string_view *text, uint16_t *id)
    {
        const size_t colon = text->find(':');
        uint64_t number = 0;
        if (colon == std::string_view::npos || !read_unsigned(text->substr(0, colon), &number) ||
            number < 1 || number > UINT16_MAX)
        {
            return false;
        }
        *id = static_cast<uint16_t>(number);
        text->remove_prefix(colon + 1);
        return true;
    }
    int open(uint16_t id, char bracket, std::string_view text)
    {
        const bool is_object = bracket == '{';
        open_.push_back(is_object ? '}' : ']');
        const int rc = is_object ? tarn_rpc_msg_write_object_begin(msg_, id)
                                 : tarn_rpc_msg_write_array_begin(msg_, id);
        return rc == 0 ? int{status_ok} : does_not_fit(text);
    }
    int close(char bracket)
    {
        if (open_.empty() || open_.back() != bracket)
        {
            return wrong(std::string("ELEM '") + bracket + "': there is none such to end here");
        }
        open_.pop_back();
        (void)(bracket == '}' ? tarn_rpc_msg_write_object_end(msg_)
                              : tarn_rpc_msg_write_array_end(msg_));
        return status_ok;
    }
    static int does_not_fit(std::string_view text)
    {
        return wrong("ELEM '" + shown(text) +
                     "': an array takes elements of the type of its first one");
    }
    /** @param text  TYPE=VALUE
     *  @param whole  for messages */
    int value(uint16_t id, std::string_view text, std::string_view whole)
    {
        const size_t equals = text.find('=');
        const std::string_view name = text.substr(0, equals);
        const bool is_hex = name == "hex"; // the bytes of a string
        const value_type *const type = find_type(types, is_hex ? "string" : name);
        if (type == nullptr || type->kind == value_kind::block)
        {
            return wrong("ELEM '" + shown(whole) + "': TYPE takes " + type_names(types));
        }
        if (equals == std::string_view::npos && type->kind != value_kind::null)
        {
            return complain(whole);
        }
        const std::string_view given =
            equals == std::string_view::npos ? std::string_view() : text.substr(equals + 1);
        std::string bytes;
        if (is_hex ? !read_hex(given, &bytes) : !read_value(*type, given, &bytes))
        {
            return wrong("ELEM '" + shown(whole) + "': " + std::string(name) + " takes " +
                         (is_hex ? "pairs of hex digits" : takes(*type)));
        }
        return tarn_rpc_msg_write_element_value(msg_, id, type->code, bytes.c_str(),
                                                static_cast<uint32_t>(bytes.size())) == 0
                   ? int{status_ok}
                   : does_not_fit(whole);
    }
    /** Reads what stands behind an opening bracket. */
    int words(std::string_view text)
    {
        int result = status_ok;
        while (result == status_ok)
        {
            text.remove_prefix(std::min(text.find_first_not_of(" \t,"), text.size()));
            if (text.empty())
            {
                break;
            }
            const bool is_end = text[0] == '}' || text[0] == ']';
            if (is_end)
            {
                result = close(text[0]);
                text.remove_prefix(1);
                continue;
            }
            result = word(&text);
        }
        return result;
    }
    /** Reads one element of such a row. */
    int word(std::string_view *text)
    {
        const std::string_view whole = *text;
        uint16_t id = 0;
        if (!take_id(text, &id))
        {
            return complain(whole);
        }
        if (text->starts_with('{') || text->starts_with('['))
        {
            const char bracket = text->front();
            text->remove_prefix(1);
            return open(id, bracket, whole);
        }
        const size_t equals = text->find_first_of("= \t,}]");
        if (equals != std::string_view::npos && (*text)[equals] == '=' &&
            text->substr(equals + 1).starts_with('"'))
        {
            return quoted_value(id, text, equals + 1, whole);
        }
        const size_t end = std::min(text->find_first_of(" \t,}]"), text->size());
        const int result = value(id, text->substr(0, end), whole);
        text->remove_prefix(end);
        return result;
    }
    /** A value in double quotes, with \" and \\ in it. */
    int quoted_value(uint16_t id, std::string_view *text, size_t quote, std::string_view whole)
    {
        std::string made(text->substr(0, quote));
        size_t at = quote + 1;
        while (at < text->size() && (*text)[at] != '"')
        {
            at += (*text)[at] == '\\' && at + 1 < text->size() ? 1 : 0;
            made.push_back((*text)[at++]);
        }
        if (at == text->size())
        {
            return wrong("ELEM '" + shown(whole) + "': the closing '\"' is missing");
        }
        text->remove_prefix(at + 1);
        return value(id, made, whole);
    }

    TARN_RPC_MSG msg_;
    std::string open_; ///< closing brackets that are due
};

// ---- from a message -----------------------------------------------------------------------------

/** One element of a walk. */
struct element
{
    uint16_t id;
    uint8_t code;
    uint32_t child_count;
    bool is_whole;     ///< its value could be taken
    std::string bytes; ///< in host order
};

element current(TARN_RPC_MSG_ITER it)
{
    element made = {tarn_rpc_msg_element_id(it),
                    tarn_rpc_msg_element_type(it),
                    tarn_rpc_msg_element_child_count(it),
                    false,
                    {}};
    const void *at = nullptr;
    uint32_t length = 0;
    if (tarn_rpc_msg_element_value_ptr(it, &at, &length) == 0)
    {
        made.bytes.resize(length);
        made.is_whole =
            length == 0 || tarn_rpc_msg_element_value(it, made.bytes.data(), &length) == 0;
    }
    return made;
}

/** Walks through all elements; a function for each but the end markers, and one for these. */
template <typename Each, typename End>
void walk(TARN_RPC_MSG msg, Each each, End end)
{
    TARN_RPC_MSG_ITER it = nullptr;
    if (msg == nullptr || tarn_rpc_msg_data_len(msg) == 0 || tarn_rpc_msg_read_begin(msg, &it) != 0)
    {
        return;
    }
    do
    {
        const element seen = current(it);
        if (seen.code == MSG_ELM_TYPE_OBJECT_END || seen.code == MSG_ELM_TYPE_ARRAY_END)
        {
            end();
        }
        else
        {
            each(seen);
        }
    } while (tarn_rpc_msg_read_next(&it) == 0);
}

/** Type of a code that no row has: a peer may send any. */
constexpr value_type unknown_type = {"unknown", 0, value_kind::null, 0};

const value_type &type_of(const element &seen)
{
    const value_type *const row = find_type(types, seen.code);
    return row != nullptr ? *row : unknown_type;
}

} // namespace

int write_elements(std::span<const char *const> texts, TARN_RPC_MSG msg)
{
    element_writer writer(msg);
    for (const char *const text : texts)
    {
        if (const int result = writer.argument(text); result != status_ok)
        {
            return result;
        }
    }
    return writer.end();
}

void print_elements(TARN_RPC_MSG msg)
{
    static constexpr size_t deepest = 40; // of what is indented
    size_t depth = 0;
    walk(
        msg,
        [&depth](const element &seen) {
            const value_type &type = type_of(seen);
            std::string line(2 * std::min(depth, deepest), ' ');
            line += std::to_string(seen.id) + " " + type.name;
            if (type.kind == value_kind::block)
            {
                line += " (" + std::to_string(seen.child_count) + ")";
                ++depth;
            }
            else if (!seen.is_whole && type.kind != value_kind::null)
            {
                line += " (cut off)";
            }
            else if (type.kind != value_kind::null)
            {
                line += " " + value_text(type, seen.bytes);
            }
            (void)std::fprintf(out(), "%s\n", line.c_str());
        },
        [&depth] { depth -= depth > 0 ? 1 : 0; });
}

void add_elements(json &into, TARN_RPC_MSG msg)
{
    size_t depth = 0;
    into.begin_array();
    const auto end = [&] {
        if (depth > 0)
        {
            --depth;
            into.end_array().end_object();
        }
    };
    walk(
        msg,
        [&](const element &seen) {
            const value_type &type = type_of(seen);
            into.begin_object().key("id").number(uint32_t{seen.id}).key("type").text(type.name);
            if (type.kind == value_kind::block)
            {
                into.key("elements").begin_array();
                ++depth;
                return;
            }
            add_value(into, seen.is_whole ? type : unknown_type, seen.bytes);
            into.end_object();
        },
        end);
    while (depth > 0)
    {
        end();
    }
    into.end_array();
}

} // namespace tarnctl
