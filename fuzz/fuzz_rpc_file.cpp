// The file receiver of RPC endpoints: a list of messages with any bytes, each to one of the three
// handlers. An input is a sequence of pieces: a byte that chooses the handler (low bits) and whether
// the token of the last BEGIN goes in front (bit 7), a byte with the length, the bytes.

#include "input.h"

#include "tarn_rpc_internal.h"

#include <cstring>
#include <span>
#include <string>

#include <unistd.h>

using fuzz::require;
using tarn::unique_rpc_msg;

namespace
{

std::string path;

int on_begin(const char *name, uint32_t, const char **dst_path, void *context)
{
    require(name != nullptr && *name != '\0' && context == nullptr);
    *dst_path = path.c_str();
    return 0;
}

unique_rpc_msg message(std::span<const uint8_t> bytes, const uint64_t *token)
{
    std::string data;
    if (token != nullptr)
    {
        const unique_rpc_msg front(tarn_rpc_msg_create());
        (void)tarn_rpc_msg_write_element_value(front.get(), MSG_ELM_FILE_TOKEN, MSG_ELM_TYPE_UINT64,
                                               token, 0);
        data.assign(reinterpret_cast<const char *>(front.get()->data), front.get()->data_len);
    }
    data.append(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    if (data.empty())
    {
        return {};
    }
    const tarn::rpc_frame_fields fields = {1, 10, 1, static_cast<uint32_t>(data.size())};
    return unique_rpc_msg(tarn::rpc_msg_from_frame(
        fields, {reinterpret_cast<const uint8_t *>(data.data()), data.size()}));
}

void handle(TARN_RPC rpc, uint8_t which, std::span<const uint8_t> bytes, uint64_t &token)
{
    const unique_rpc_msg msg = message(bytes, (which & 0x80) != 0 ? &token : nullptr);
    if (!msg)
    {
        return; // never reaches a handler
    }
    const unique_rpc_msg reply((which & 0x40) != 0 ? nullptr : tarn_rpc_msg_create());
    switch (which % 4)
    {
    case 0:
        if (tarn::on_rpc_file_recv_begin(rpc, msg.get(), reply.get()) == 0)
        {
            require(tarn_rpc_msg_read_element(reply.get(), MSG_ELM_FILE_TOKEN, MSG_ELM_TYPE_UINT64,
                                              &token, sizeof token, nullptr) == 0);
        }
        break;
    case 1:
        (void)tarn::on_rpc_file_recv_end(rpc, msg.get(), reply.get());
        break;
    default:
        (void)tarn::on_rpc_file_recv_block(rpc, msg.get(), reply.get());
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool started = [] {
        fuzz::swallow_log();
        path = "/tmp/tarn_fuzz_rpc_file." + std::to_string(::getpid());
        return tarn_init();
    }();
    require(started);
    TARN_RPC rpc = tarn::rpc_make(RPC_OBJ_TYPE_CLIENT, nullptr, nullptr);
    require(rpc != nullptr);
    tarn_rpc_set_file_callbacks(rpc, on_begin, nullptr, nullptr, nullptr);
    uint64_t token = 0;
    for (size_t at = 0; at + 2 <= size;)
    {
        const uint8_t which = data[at];
        const size_t n = std::min<size_t>(data[at + 1], size - at - 2);
        handle(rpc, which, {data + at + 2, n}, token);
        at += 2 + n;
    }
    tarn::rpc_close_receivers(rpc);
    tarn::rpc_discard(rpc);
    (void)::unlink(path.c_str());
    return 0;
}
