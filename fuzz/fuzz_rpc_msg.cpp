// RPC messages: any bytes as the data of a received message, walked and looked up; any bytes as a
// list of writes, whose message must then read back whole.
//
// First byte of an input: how many bytes of the received message never came; when odd, lines of level
// DEBUG, with a dump for each walk and lookup, are made too.

#include "input.h"

#include "tarn_rpc_msg_internal.h"

#include <span>
#include <vector>

using fuzz::require;
using tarn::unique_rpc_msg;

namespace
{

/** What a walk saw of an element. */
struct seen
{
    uint16_t id;
    uint8_t type;
    const void *value; ///< null: cannot be taken
    uint32_t size;
};

/** The value operations on the current element must agree, and stay inside the data. */
seen look_at(TARN_RPC_MSG_ITER it)
{
    seen element = {tarn_rpc_msg_element_id(it), tarn_rpc_msg_element_type(it), nullptr, 0};
    const uint32_t children = tarn_rpc_msg_element_child_count(it);
    const int rc = tarn_rpc_msg_element_value_ptr(it, &element.value, &element.size);
    require(rc == 0 || rc == -1);
    require(rc != 0 || (!tarn::is_rpc_marker(element.type) && children == 0));
    const uint8_t *const data = tarn_rpc_msg_data(it->msg);
    const auto *const value = static_cast<const uint8_t *>(element.value);
    require(rc != 0 || (value >= data + it->offset + 3 &&
                        value + element.size <= data + tarn_rpc_msg_data_len(it->msg)));
    const std::unique_ptr<uint8_t[]> copy(new uint8_t[element.size]);
    uint32_t size = element.size;
    require(tarn_rpc_msg_element_value(it, copy.get(), &size) == rc && size == element.size);
    if (element.type == MSG_ELM_TYPE_STRING)
    {
        require(rc != 0 || std::equal(copy.get(), copy.get() + size, value));
    }
    if (size != 0)
    {
        --size;
        require(tarn_rpc_msg_element_value(it, copy.get(), &size) == -2);
    }
    return element;
}

std::vector<seen> walk(TARN_RPC_MSG msg)
{
    std::vector<seen> elements;
    TARN_RPC_MSG_ITER it = nullptr;
    require(tarn_rpc_msg_read_begin(msg, &it) == 0);
    if (tarn_rpc_msg_data_len(msg) == 0)
    {
        tarn_rpc_msg_read_end(&it);
        return elements;
    }
    do
    {
        require(elements.size() < tarn_rpc_msg_data_len(msg));
        elements.push_back(look_at(it));
    } while (tarn_rpc_msg_read_next(&it) == 0);
    require(it == nullptr && msg->ref_count == 1);
    return elements;
}

/** A lookup must find what comes first in the walk. */
void look_up(TARN_RPC_MSG msg, const std::vector<seen> &elements, uint16_t id, uint8_t type)
{
    const auto first = std::find_if(elements.begin(), elements.end(),
                                    [id](const seen &element) { return element.id == id; });
    const void *value = nullptr;
    uint32_t size = 0;
    const int rc = tarn_rpc_msg_get_element_ptr(msg, id, type, &value, &size);
    require(rc == (id == 0 || first == elements.end() ? -1937
                   : first->type != type              ? -1944
                   : first->value == nullptr          ? -1960
                                                      : 0));
    require(rc != 0 || (value == first->value && size == first->size));
    uint8_t copy[16];
    const int copied = tarn_rpc_msg_read_element(msg, id, type, copy, sizeof copy, &size);
    require((copied == 0) == (rc == 0 && size <= sizeof copy));
}

void look_up_all(TARN_RPC_MSG msg)
{
    const std::vector<seen> elements = walk(msg);
    look_up(msg, elements, 0, MSG_ELM_TYPE_NULL);
    look_up(msg, elements, 7, MSG_ELM_TYPE_UINT32);
    for (size_t i = 0; i < elements.size(); i += 1 + elements.size() / 16)
    {
        look_up(msg, elements, elements[i].id, elements[i].type);
        look_up(msg, elements, elements[i].id, MSG_ELM_TYPE_STRING);
    }
}

void receive(std::span<const uint8_t> input)
{
    const uint32_t missing = input[0];
    const auto arrived = input.subspan(1);
    const unique_rpc_msg msg(tarn::rpc_msg_from_frame(
        {1, 2, 0, static_cast<uint32_t>(arrived.size()) + missing}, arrived));
    require(msg.get() != nullptr);
    look_up_all(msg.get());
    const uint8_t value = 1; // a received message can be written to
    require(tarn_rpc_msg_write_element_value(msg.get(), 7, MSG_ELM_TYPE_UINT8, &value, 1) == 0);
    look_up_all(msg.get());
}

/** Every write takes a type, an id and the length that is given; the bytes behind it are its value,
 *  and the next write again. */
void build(std::span<const uint8_t> input)
{
    const unique_rpc_msg msg(tarn_rpc_msg_create());
    size_t written = 0;
    for (; input.size() >= 4; input = input.subspan(4))
    {
        const uint8_t type = input[0];
        const auto id = static_cast<uint16_t>(input[1] << 8 | input[2]);
        const uint32_t before = tarn_rpc_msg_data_len(msg.get());
        const size_t size = std::min<size_t>(input[3], input.size() - 4);
        std::vector<uint8_t> value(std::max<size_t>(size, 16) + 1); // every type finds its size
        std::copy_n(input.begin() + 4, size, value.begin());
        int rc = 0;
        switch (type)
        {
        case MSG_ELM_TYPE_OBJECT_BEGIN:
            rc = tarn_rpc_msg_write_object_begin(msg.get(), id);
            break;
        case MSG_ELM_TYPE_OBJECT_END:
            rc = tarn_rpc_msg_write_object_end(msg.get());
            break;
        case MSG_ELM_TYPE_ARRAY_BEGIN:
            rc = tarn_rpc_msg_write_array_begin(msg.get(), id);
            break;
        case MSG_ELM_TYPE_ARRAY_END:
            rc = tarn_rpc_msg_write_array_end(msg.get());
            break;
        default:
            rc = tarn_rpc_msg_write_element_value(msg.get(), id, type, value.data(),
                                                  static_cast<uint32_t>(size));
            break;
        }
        require((rc == 0) == (tarn_rpc_msg_data_len(msg.get()) > before));
        written += rc == 0 ? 1 : 0;
    }
    const std::vector<seen> elements = walk(msg.get());
    require(elements.size() == written);
    require(std::all_of(elements.begin(), elements.end(), [](const seen &element) {
        return element.id != 0 && (element.value != nullptr) != tarn::is_rpc_marker(element.type);
    }));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::swallow_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size != 0)
    {
        tarn_log_level_set(data[0] % 2 != 0 ? TARN_LOG_LEVEL_DEBUG : TARN_LOG_LEVEL_TRACE);
        receive({data, size});
        build({data, size});
    }
    return 0;
}
