// The receive machine of RPC endpoints: a stream of any bytes in chunks of any sizes, against a plain
// reading of the same stream; replies go to a socket that nobody reads from.

#include "input.h"

#include "tarn_rpc_internal.h"

#include <cstring>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using fuzz::require;

namespace
{

struct request
{
    uint32_t seq_no;
    uint32_t msg_id;
    std::string data;
    bool operator==(const request &) const = default;
};

std::vector<request> seen;

int on_msg(TARN_RPC, uint32_t seq_no, uint32_t msg_id, TARN_RPC_MSG msg, TARN_RPC_MSG, void *)
{
    const uint32_t size = msg != nullptr ? tarn_rpc_msg_data_len(msg) : 0;
    const auto *bytes =
        reinterpret_cast<const char *>(msg != nullptr ? tarn_rpc_msg_data(msg) : nullptr);
    // What never came is zero, and may be more than is worth comparing.
    seen.push_back({seq_no, msg_id, std::string(bytes, bytes + std::min(size, 4096u))});
    return 0;
}

uint32_t word(const uint8_t *at)
{
    return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

/** The requests of a stream, read in one go. */
std::vector<request> plain_reading(const uint8_t *data, size_t size, uint32_t limit)
{
    std::vector<request> all;
    size_t matched = 0;
    for (size_t at = 0; at < size;)
    {
        matched = data[at++] == static_cast<uint8_t>("TrPC"[matched]) ? matched + 1 : 0;
        if (matched < 4)
        {
            continue;
        }
        matched = 0;
        if (size - at < 4)
        {
            break;
        }
        const uint32_t len = word(data + at);
        at += 4;
        if (len < 8)
        {
            continue;
        }
        if (len > limit && at < size)
        {
            break; // the line ends here
        }
        if (size - at < len)
        {
            break;
        }
        const uint8_t *const body = data + at;
        at += len;
        const uint32_t data_len = len >= 16 ? word(body + 8) : 0;
        if (data_len > limit)
        {
            break;
        }
        if ((body[4] & 0x80) != 0 || word(body + 4) < TARN_RPC_MSG_ID_MIN)
        {
            continue;
        }
        std::string bytes;
        if (data_len != 0)
        {
            const size_t there = std::min<size_t>(data_len, len - 16);
            bytes.assign(reinterpret_cast<const char *>(body + 16), there);
            bytes.resize(std::min(data_len, 4096u));
        }
        all.push_back({word(body), word(body + 4), bytes});
    }
    return all;
}

/** An endpoint over one end of a socket pair; nothing is read from either. */
class endpoint
{
public:
    endpoint()
    {
        fuzz::swallow_log();
        require(tarn_init());
        const TARN_RPC_CALLBACK callbacks = {sizeof callbacks, nullptr, nullptr,
                                             nullptr,          on_msg,  nullptr};
        rpc_ = tarn::rpc_make(RPC_OBJ_TYPE_CLIENT, &callbacks, nullptr);
        rpc_->cli_h = tarn_conn_create(nullptr, nullptr, nullptr, "nowhere", nullptr, 1, nullptr,
                                       nullptr, nullptr);
        tarn::conn_ref(rpc_->cli_h);
        tarn_rpc_set_frame_limit(rpc_, limit);
        rpc_->rx.chunk = static_cast<uint8_t *>(tarn_mem_alloc(tarn::rpc_chunk_size));
    }
    void run(const uint8_t *data, size_t size, size_t step)
    {
        seen.clear();
        tarn::conn_link line{}; // without a socket: replies fail
        line.refs = 1;
        line.kind = tarn::conn_client;
        line.conn = rpc_->cli_h;
        tarn::rpc_rx_reset(rpc_);
        for (size_t at = 0; at < size && rpc_->rx.chunk != nullptr; at += step)
        {
            const size_t n = std::min(step, size - at);
            std::memcpy(rpc_->rx.chunk, data + at, n);
            rpc_->rx.chunk_pos = 0;
            rpc_->rx.chunk_len = static_cast<uint32_t>(n);
            tarn::rpc_rx_fsm(rpc_, &line, nullptr);
        }
        if (rpc_->rx.chunk == nullptr) // given up
        {
            rpc_->rx.chunk = static_cast<uint8_t *>(tarn_mem_alloc(tarn::rpc_chunk_size));
        }
    }
    static constexpr uint32_t limit = 1u << 20;

private:
    TARN_RPC rpc_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static endpoint end;
    if (size < 2)
    {
        return 0;
    }
    const size_t step = size_t{1} + data[0];
    const std::vector<uint8_t> stream(data + 1, data + size);
    end.run(stream.data(), stream.size(), step);
    require(seen == plain_reading(stream.data(), stream.size(), endpoint::limit));
    end.run(stream.data(), stream.size(), tarn::rpc_chunk_size);
    require(seen == plain_reading(stream.data(), stream.size(), endpoint::limit));
    return 0;
}
