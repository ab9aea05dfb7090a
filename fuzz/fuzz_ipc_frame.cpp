// The receive machine of local IPC with its handlers: bytes of any origin in chunks of any size give
// what the same bytes in one chunk give, and whatever is sent back is whole frames.

#include "input.h"

#include "tarn_data_internal.h"
#include "tarn_ipc_internal.h"
#include "tarn_wire.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace
{

using fuzz::require;

/** What came of a stream. */
struct outcome
{
    std::vector<uint32_t> calls; ///< function numbers, and how many arguments each got
    std::vector<uint8_t> sent;
    uint32_t state = 0;
    bool answered = false;
    bool operator==(const outcome &) const = default;
};

/** Answers with its arguments, a value inside them, or one of its own that holds them. */
int32_t on_call(TARN_IPC, uint32_t func_id, TARN_DATA in, TARN_DATA *out, void *object)
{
    auto *const seen = static_cast<outcome *>(object);
    seen->calls.push_back(func_id);
    seen->calls.push_back(tarn_data_count(in));
    if (out != nullptr && in != nullptr)
    {
        const uint8_t one = 1;
        switch (func_id % 4)
        {
        case 0:
            *out = in;
            break;
        case 1:
            *out = tarn_data_get_next(in);
            break;
        case 2:
            *out = tarn_data_alloc(TARN_DATA_TYPE_UINT8, &one, nullptr);
            (void)tarn_data_add_tail(*out, in);
            break;
        default:
            break;
        }
    }
    return static_cast<int32_t>(func_id);
}

/** A connection on a socket pair, with one call that waits. */
class connection
{
public:
    explicit connection(outcome &result)
        : result_(result), conn_(tarn::ipc_conn_create("callee", "caller", nullptr))
    {
        require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair_) == 0);
        auto sock = tarn::make_object<tarn_socket>(TARN_HANDLE_TYPE_SOCKET);
        sock->sock_type = TARN_SOCKET_TYPE_LOCAL;
        sock->handle = pair_[0];
        conn_.get()->cb.on_call = on_call;
        conn_.get()->cb.object = &result;
        conn_.get()->greeted = 1;
        require(tarn::ipc_adopt(conn_.get(), tarn::socket_owner(sock.release())));
        pending_.seq_num = 1;
        pending_.func_id = 1;
        pending_.event = tarn_event_create(false, false);
        require(tarn_list_push_back(conn_.get()->request_list, &pending_));
    }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;
    ~connection()
    {
        receive();
        result_.state = conn_.get()->receiver.state;
        result_.answered = pending_.done;
        (void)tarn_list_remove(conn_.get()->request_list, &pending_);
        tarn_data_destroy(pending_.args_out);
        tarn_event_destroy(pending_.event);
        ::close(pair_[1]);
    }
    void feed(std::span<const uint8_t> chunk)
    {
        tarn::ipc_feed(conn_.get(), chunk);
        receive();
    }

private:
    void receive()
    {
        uint8_t buffer[65536];
        ssize_t n = 0;
        while ((n = ::recv(pair_[1], buffer, sizeof buffer, MSG_DONTWAIT)) > 0)
        {
            result_.sent.insert(result_.sent.end(), buffer, buffer + n);
        }
    }

    outcome &result_;
    tarn::conn_ref_owner conn_;
    tarn::ipc_pending pending_{};
    int pair_[2]{};
};

/** Every answer is a frame of command 3, nothing stands between them. */
void check_frames(std::span<const uint8_t> sent)
{
    while (!sent.empty())
    {
        tarn::wire_reader in(sent);
        require(std::memcmp(in.bytes(3).data(), "STX", 3) == 0);
        (void)in.u8();
        require(in.u8() == tarn::ipc_response);
        const uint32_t length = in.u32();
        require(length >= 9 && length <= tarn::ipc_max_data);
        require(in.bytes(length).back() == 0);
        require(std::memcmp(in.bytes(3).data(), "ETX", 3) == 0 && in.ok());
        sent = sent.subspan(in.position());
    }
}

/** @param sizes  of the chunks, in turn; empty: all at once */
outcome run(std::span<const uint8_t> stream, std::span<const uint8_t> sizes)
{
    outcome result;
    connection conn(result);
    for (size_t i = 0; !stream.empty(); ++i)
    {
        const size_t wanted = sizes.empty() ? stream.size() : size_t{1} + sizes[i % sizes.size()];
        const size_t n = std::min(wanted, stream.size());
        conn.feed(stream.first(n));
        stream = stream.subspan(n);
    }
    return result;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::swallow_log();
    tarn::ipc_limit.handle_inline = true;
    tarn::ipc_limit.send_ms = 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    // A socket holds the answers to so many bytes without being read.
    if (size < 4 || size > 4000)
    {
        return 0;
    }
    const std::span input(bytes, size);
    const outcome whole = run(input.subspan(4), {});
    const outcome pieces = run(input.subspan(4), input.first(4));
    check_frames(whole.sent);
    require(whole == pieces);
    return 0;
}
