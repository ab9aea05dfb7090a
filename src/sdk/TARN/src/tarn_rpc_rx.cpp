// RPC endpoints: the turns of the loop, and the receive machine.
//
// Everything here is done by the pump, and nests: a handler that sends a request runs further turns
// inside its own. So all state is in the object, and a frame is taken out of it whole (its message is
// a copy, the machine stands at the start of the next frame) before its handler is called. After any
// callback the object may be on its way out or have another line; both are looked at before going on.

#include "tarn_check.h"
#include "tarn_os.h"
#include "tarn_rpc_internal.h"
#include "tarn_sys.h"
#include "tarn_wire.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace
{

using tarn::conn_link;
using tarn::link_pin;
using tarn::rpc_frame_fields;
using tarn::rpc_pending;
using tarn::rpc_rx_state;

constexpr uint8_t magic_bytes[4] = {0x54, 0x72, 0x50, 0x43};
constexpr uint32_t min_frame = 8; ///< seq_no and msg_id

/** The turns that the calling thread is inside, innermost first. */
class [[nodiscard]] turn_scope
{
public:
    explicit turn_scope(const tarn_rpc *rpc) noexcept : rpc_(rpc), outer_(innermost)
    {
        innermost = this;
    }
    turn_scope(const turn_scope &) = delete;
    turn_scope &operator=(const turn_scope &) = delete;
    ~turn_scope()
    {
        innermost = outer_;
    }
    static uint32_t depth(const tarn_rpc *rpc) noexcept
    {
        uint32_t count = 0;
        for (const turn_scope *turn = innermost; turn != nullptr; turn = turn->outer_)
        {
            count += turn->rpc_ == rpc ? 1 : 0;
        }
        return count;
    }

private:
    static constinit thread_local const turn_scope *innermost;
    const tarn_rpc *rpc_;
    const turn_scope *outer_;
};
constinit thread_local const turn_scope *turn_scope::innermost = nullptr;

// ---- handling of frames -----------------------------------------------------------------------------

/** Requests with ids of the layer's own. */
int rpc_msg_internal_handler(TARN_RPC rpc, uint32_t msg_id, TARN_RPC_MSG msg, TARN_RPC_MSG rsp_msg)
{
    RVON(msg, TARN_ERRLN);
    RVON_TEXT(msg->data, TARN_ERRLN, "RVON(msg->data,TARN_ERRLN)");
    switch (msg_id)
    {
    case TARN_RPC_MSG_FILE_BEGIN:
        return tarn::on_rpc_file_recv_begin(rpc, msg, rsp_msg);
    case TARN_RPC_MSG_FILE_BLOCK:
        return tarn::on_rpc_file_recv_block(rpc, msg, rsp_msg);
    case TARN_RPC_MSG_FILE_END:
        return tarn::on_rpc_file_recv_end(rpc, msg, rsp_msg);
    default:
        TARN_LOG_WARN("unknown msg_id [%u]", msg_id);
        return TARN_ERRLN;
    }
}

/** Call the handler of a request. */
int dispatch(TARN_RPC rpc, const rpc_frame_fields &fields, TARN_RPC_MSG msg, TARN_RPC_MSG reply)
{
    const char *const name = tarn::rpc_name(rpc);
    if (fields.msg_id < TARN_RPC_MSG_ID_MIN)
    {
        TARN_LOG_DEBUG("[%s] call rpc_msg_internal_handler with msg_id [%u]", name, fields.msg_id);
        return rpc_msg_internal_handler(rpc, fields.msg_id, msg, reply);
    }
    if (rpc->callbacks.on_msg == nullptr)
    {
        TARN_LOG_DEBUG("[%s] MSG drop message", name);
        return 0;
    }
    TARN_LOG_DEBUG("[%s] call on_msg with seq_no [%u]", name, fields.seq_no);
    return rpc->callbacks.on_msg(rpc, fields.seq_no, fields.msg_id, msg, reply, rpc->context);
}

/** Run a request and send its reply, on the line that it came on. */
void handle_request(TARN_RPC rpc, conn_link *line, const rpc_frame_fields &fields, TARN_RPC_MSG msg)
{
    TARN_LOG_DEBUG("[%s] this is a request message, rsp_flag_or_code = [%x]", tarn::rpc_name(rpc),
                   fields.rsp_flag_or_code);
    tarn::unique_rpc_msg reply(fields.rsp_flag_or_code != 0 ? tarn_rpc_msg_create() : nullptr);
    const int code = dispatch(rpc, fields, msg, reply.get());
    if (code < 0)
    {
        reply.reset();
    }
    if (!tarn::rpc_is_alive(rpc))
    {
        return; // destroyed by its handler, the line is down
    }
    const std::span<const uint8_t> data =
        reply ? std::span<const uint8_t>(reply.get()->data, reply.get()->data_len)
              : std::span<const uint8_t>();
    const uint32_t msg_id = fields.msg_id | tarn::rpc_reply_bit;
    const int64_t rc =
        tarn::rpc_send_frame(rpc, line, fields.seq_no, msg_id, static_cast<uint32_t>(code), data,
                             tarn::rpc_send_limit_ms);
    TARN_LOG_DEBUG("[%s] send reply msg, seq_no = [%u], msg_id = [0x%x], data_len = [%u], "
                   "rsp_code = [0x%x], rc = [%d]",
                   tarn::rpc_name(rpc), fields.seq_no, msg_id, static_cast<uint32_t>(data.size()),
                   static_cast<uint32_t>(code), static_cast<int>(rc));
    if (rc < 0)
    {
        // The peer may have a part of the frame and would take the next one for the rest of it.
        tarn::rpc_line_fail(rpc, line);
    }
}

/** Keep a request until the turns above have ended; takes the message over.
 *  @return false when too many wait already, or memory ran out */
bool queue_request(rpc_rx_state &rx, const rpc_frame_fields &fields, tarn::unique_rpc_msg &msg)
{
    auto item = tarn::unique_mem<tarn::rpc_queued>::make();
    if (rx.queued >= tarn::rpc_max_queued || !item)
    {
        return false;
    }
    item->fields = fields;
    item->msg = msg.release();
    tarn::rpc_queued **const end = rx.queue != nullptr ? rx.queue_end : &rx.queue;
    *end = item.release();
    rx.queue_end = &(*end)->next;
    ++rx.queued;
    return true;
}

/** Read the fields of a body.
 *  @return true for a reply */
bool read_fields(std::span<const uint8_t> body, rpc_frame_fields &fields)
{
    tarn::wire_reader in(body);
    fields = {};
    fields.seq_no = in.u32();
    const uint32_t id = in.u32();
    fields.msg_id = id & ~tarn::rpc_reply_bit;
    if (body.size() >= tarn::rpc_body_header_size)
    {
        fields.data_len = in.u32();
        fields.rsp_flag_or_code = in.u32();
    }
    return (id & tarn::rpc_reply_bit) != 0;
}

/** The message of a body.
 *  @return false when the frame is to be dropped */
bool make_message(const rpc_frame_fields &fields, std::span<const uint8_t> body,
                  tarn::unique_rpc_msg &msg)
{
    if (fields.data_len == 0)
    {
        return true;
    }
    msg.reset(tarn::rpc_msg_from_frame(fields, body.subspan(tarn::rpc_body_header_size)));
    if (!msg)
    {
        TARN_LOG_ERROR("no memory for a message of %u bytes, frame dropped", fields.data_len);
        return false;
    }
    TARN_LOG_HEX(&tarn_default_logger, TARN_LOG_LEVEL_DEBUG, "msg data", msg.get()->data,
                 tarn::rpc_msg_dump_len(*msg.get()));
    return true;
}

bool exceeds_limit(TARN_RPC rpc, uint32_t size)
{
    const uint32_t limit = __atomic_load_n(&rpc->frame_limit, __ATOMIC_RELAXED);
    return limit != 0 && size > limit;
}

/** Take a whole frame out of the machine and handle it.
 *  @return false when the line is to be given up (logged) */
bool handle_frame(TARN_RPC rpc, conn_link *line, std::span<const uint8_t> body)
{
    rpc_frame_fields fields;
    const bool is_reply = read_fields(body, fields);
    const char *const name = tarn::rpc_name(rpc);
    TARN_LOG_DEBUG("[%s] rx_len = [%u], rx_size = [%u]", name, static_cast<uint32_t>(body.size()),
                   rpc->rx.body_size);
    TARN_LOG_DEBUG("[%s] MSG received, msg_id = [%u], seq_no = [%u], rsp_flag_or_code = [%d], "
                   "len = [%u], is_reply = [%d]",
                   name, fields.msg_id, fields.seq_no, static_cast<int>(fields.rsp_flag_or_code),
                   fields.data_len, is_reply ? 1 : 0);
    tarn::unique_rpc_msg msg;
    if (exceeds_limit(rpc, fields.data_len))
    {
        TARN_LOG_WARN("[%s] data of %u bytes are above the limit", name, fields.data_len);
        return false;
    }
    if (!make_message(fields, body, msg))
    {
        return true;
    }
    if (is_reply)
    {
        tarn::rpc_complete(rpc, fields, msg.release());
    }
    else if (turn_scope::depth(rpc) <= tarn::rpc_max_depth)
    {
        handle_request(rpc, line, fields, msg.get());
    }
    else if (!queue_request(rpc->rx, fields, msg))
    {
        TARN_LOG_WARN("[%s] too many requests while replies are awaited", name);
        return false;
    }
    rpc->rx.since_activity = 0;
    tarn::rpc_touch(rpc);
    return true;
}

/** Handle requests that were kept for later. @return true when there were any */
bool drain_queue(TARN_RPC rpc, conn_link *line)
{
    rpc_rx_state &rx = rpc->rx;
    const uint32_t generation = rx.generation;
    bool any = false;
    while (rx.queue != nullptr && turn_scope::depth(rpc) <= tarn::rpc_max_depth)
    {
        const tarn::unique_mem<tarn::rpc_queued> item(std::exchange(rx.queue, rx.queue->next));
        --rx.queued;
        const tarn::unique_rpc_msg msg(item->msg);
        handle_request(rpc, line, item->fields, msg.get());
        tarn::rpc_touch(rpc);
        any = true;
        if (!tarn::rpc_is_alive(rpc) || rx.generation != generation)
        {
            break;
        }
    }
    return any;
}

// ---- receive machine --------------------------------------------------------------------------------

enum class step
{
    more,  ///< all bytes are taken, no frame is whole
    frame, ///< a frame is whole
    fail   ///< the line is of no more use
};

/** One byte of magic or msg_len. */
void header_byte(TARN_RPC rpc, uint8_t byte)
{
    rpc_rx_state &rx = rpc->rx;
    if (rx.header_bytes < sizeof magic_bytes)
    {
        rx.msg_len = 0;
        // A byte that does not match is not tried again as the first of a magic, deliberately.
        rx.header_bytes = byte == magic_bytes[rx.header_bytes] ? rx.header_bytes + 1 : 0;
        return;
    }
    rx.msg_len = rx.msg_len << 8 | byte;
    if (++rx.header_bytes != 8)
    {
        return;
    }
    rx.received = 0;
    if (rx.msg_len == 0)
    {
        TARN_LOG_DEBUG("[%s] traditional keep alive received", tarn::rpc_name(rpc));
        rx.since_activity = 0;
        tarn::rpc_touch(rpc);
        rx.header_bytes = 0;
    }
    else if (rx.msg_len < min_frame)
    {
        TARN_LOG_WARN("[%s] invalid frame size [%u]!", tarn::rpc_name(rpc), rx.msg_len);
        rx.header_bytes = 0;
    }
}

/** Room for a body that has come so far: never more than double of what arrived. */
bool grow_body(rpc_rx_state &rx, size_t needed)
{
    if (needed <= rx.body_size)
    {
        return true;
    }
    const size_t size = std::min<size_t>(std::max(needed, size_t{rx.body_size} * 2), rx.msg_len);
    void *const body = tarn_mem_realloc(rx.body, size);
    if (body == nullptr)
    {
        return false;
    }
    rx.body = static_cast<uint8_t *>(body);
    rx.body_size = static_cast<uint32_t>(size);
    return true;
}

/** Take bytes of a body.
 *  @param body  out: the whole body, valid until the next read or step */
step body_bytes(TARN_RPC rpc, std::span<const uint8_t> &body)
{
    rpc_rx_state &rx = rpc->rx;
    const uint32_t n = std::min(rx.msg_len - rx.received, rx.chunk_len - rx.chunk_pos);
    const uint8_t *const from = rx.chunk + rx.chunk_pos;
    rx.chunk_pos += n;
    if (n == rx.msg_len)
    {
        body = {from, n}; // no need to collect what is all there
        rx.header_bytes = 0;
        return step::frame;
    }
    if (!grow_body(rx, size_t{rx.received} + n))
    {
        TARN_LOG_ERROR("[%s] no memory for a frame of %u bytes", tarn::rpc_name(rpc), rx.msg_len);
        return step::fail;
    }
    tarn_mem_copy(rx.body + rx.received, from, n);
    rx.received += n;
    if (rx.received < rx.msg_len)
    {
        return step::more;
    }
    body = {rx.body, rx.msg_len};
    rx.header_bytes = 0;
    return step::frame;
}

/** Take bytes up to the end of a frame. */
step next_frame(TARN_RPC rpc, std::span<const uint8_t> &body)
{
    rpc_rx_state &rx = rpc->rx;
    while (rx.chunk_pos < rx.chunk_len)
    {
        if (rx.header_bytes < 8)
        {
            header_byte(rpc, rx.chunk[rx.chunk_pos++]);
            continue;
        }
        if (exceeds_limit(rpc, rx.msg_len))
        {
            TARN_LOG_WARN("[%s] a frame of %u bytes is above the limit", tarn::rpc_name(rpc),
                          rx.msg_len);
            return step::fail;
        }
        if (const step result = body_bytes(rpc, body); result != step::more)
        {
            return result;
        }
    }
    return step::more;
}

// ---- turns ------------------------------------------------------------------------------------------

/** Sleep that a stop of the loop thread, or the destroy, ends. */
void pause(TARN_RPC rpc, uint32_t ms)
{
    if (tarn::rpc_thread(rpc) != TARN_INVALID_HANDLE && tarn_thread_self_name() != nullptr)
    {
        // The thread's own stop event; a destroy sets that one too.
        (void)tarn_thread_sleep(ms);
        return;
    }
    (void)tarn_event_wait(rpc->closing, ms);
}

/** A client's turn while it is down. */
void connect_client(TARN_RPC rpc, uint32_t wait_ms)
{
    if (rpc->last_attempt != 0)
    {
        const uint32_t active = __atomic_load_n(&rpc->last_activity, __ATOMIC_RELAXED);
        const uint32_t since = std::min(tarn_tick_ms_since(rpc->last_attempt),
                                        active != 0 ? tarn_tick_ms_since(active) : TARN_INFINITE);
        if (since < rpc->reconnect_ms)
        {
            pause(rpc, std::min(rpc->reconnect_ms - since, wait_ms));
            return;
        }
    }
    const int rc = tarn_conn_connect(rpc->cli_h);
    TARN_LOG_DEBUG("connect to [%s] return [%d]", tarn_conn_peer_endpoint(rpc->cli_h), rc);
    rpc->last_attempt = tarn_tick_ms();
    if (rc == 0)
    {
        tarn::rpc_touch(rpc);
    }
    else if (tarn::rpc_is_alive(rpc))
    {
        pause(rpc, std::min(rpc->reconnect_ms - 1, wait_ms));
    }
}

/** A turn while the connection is down. */
void turn_down(TARN_RPC rpc, uint32_t wait_ms)
{
    tarn::rpc_line_lost(rpc);
    if (rpc->type == RPC_OBJ_TYPE_CLIENT)
    {
        connect_client(rpc, wait_ms);
        return;
    }
    if (std::exchange(rpc->broken_shown, uint8_t{1}) == 0)
    {
        TARN_LOG_DEBUG("[%s] conn broken!", tarn::rpc_name(rpc));
        tarn::rpc_report_end(rpc);
        return;
    }
    pause(rpc, wait_ms); // waits to be destroyed
}

/** True when nothing whole has come for too long. Bytes of a frame that is still under way count, as
 *  long as they come at a useful rate. */
bool is_mute(TARN_RPC rpc)
{
    const uint32_t silence =
        tarn_tick_ms_since(__atomic_load_n(&rpc->last_activity, __ATOMIC_RELAXED));
    return rpc->type == RPC_OBJ_TYPE_SERVER_CONN && silence > 3 * rpc->keep_alive_ms &&
           rpc->rx.since_activity < silence;
}

void end_mute(TARN_RPC rpc, conn_link *line)
{
    TARN_LOG_WARN("[%s] conn timeout!", tarn::rpc_name(rpc));
    rpc->broken_shown = 1;
    tarn::conn_disconnect_link(rpc->cli_h, line);
    tarn::rpc_report_end(rpc);
}

void send_keep_alive(TARN_RPC rpc, conn_link *line)
{
    TARN_LOG_DEBUG("[%s] send keep alive", tarn::rpc_name(rpc));
    const int64_t rc = tarn::rpc_send_frame(rpc, line, 0, 0, 0, {}, tarn::rpc_send_limit_ms);
    if (rc < 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("[%s] send keep alive return [%d], error = [%d] (%s)", tarn::rpc_name(rpc),
                       static_cast<int>(rc), error, tarn::error_text(error).c_str());
        tarn::rpc_line_fail(rpc, line);
    }
}

/** Nothing came. */
void turn_idle(TARN_RPC rpc, conn_link *line, bool whole_wait)
{
    if (whole_wait && turn_scope::depth(rpc) == 1 && rpc->callbacks.on_idle != nullptr)
    {
        const uint32_t generation = rpc->rx.generation;
        rpc->callbacks.on_idle(rpc, rpc->context);
        if (!tarn::rpc_is_alive(rpc) || rpc->rx.generation != generation)
        {
            return;
        }
    }
    if (rpc->type == RPC_OBJ_TYPE_CLIENT)
    {
        const uint32_t active = __atomic_load_n(&rpc->last_activity, __ATOMIC_RELAXED);
        if (tarn_tick_ms_since(active) >= rpc->keep_alive_ms)
        {
            send_keep_alive(rpc, line);
        }
    }
    else if (is_mute(rpc))
    {
        end_mute(rpc, line);
    }
}

/** Read from the line into the chunk, which is empty.
 *  @return false when nothing is to be parsed */
bool turn_read(TARN_RPC rpc, conn_link *line, uint32_t wait_ms)
{
    rpc_rx_state &rx = rpc->rx;
    const int n = tarn_conn_read(rpc->cli_h, rx.chunk, tarn::rpc_chunk_size, wait_ms);
    const int error = errno;
    TARN_LOG_DEBUG("tarn_conn_read receive len = [%d]", n);
    if (!tarn::rpc_is_alive(rpc))
    {
        return false; // a callback of the disconnect
    }
    if (n > 0)
    {
        TARN_LOG_HEX(&tarn_default_logger, TARN_LOG_LEVEL_DEBUG, "RX", rx.chunk,
                     static_cast<uint32_t>(n));
        rx.chunk_pos = 0;
        rx.chunk_len = static_cast<uint32_t>(n);
        rx.since_activity += std::min(rx.chunk_len, UINT32_MAX - rx.since_activity);
        return true;
    }
    if (n == 0)
    {
        turn_idle(rpc, line, wait_ms >= tarn::rpc_read_ms);
    }
    else
    {
        TARN_LOG_ERROR("[%s] recv error, len = [%d], error = [%d](%s)", tarn::rpc_name(rpc), n,
                       error, tarn::error_text(error).c_str());
    }
    return false;
}

/** The line to work on, with the receive state made fit for it; empty while it is down. */
link_pin sync_line(TARN_RPC rpc)
{
    conn_link *line = nullptr;
    uint32_t generation = 0;
    {
        const tarn::critical_section_guard guard(rpc->lock);
        generation = tarn::rpc_generation(rpc);
        if (rpc->line != nullptr && tarn_conn_is_connected(rpc->cli_h))
        {
            line = rpc->line;
            tarn::link_ref(line);
        }
    }
    if (rpc->rx.generation != generation)
    {
        tarn::rpc_rx_reset(rpc);
        rpc->rx.generation = generation;
    }
    return link_pin(line);
}

bool has_chunk(rpc_rx_state &rx)
{
    if (rx.chunk == nullptr)
    {
        rx.chunk = static_cast<uint8_t *>(tarn_mem_realloc(nullptr, tarn::rpc_chunk_size));
    }
    return rx.chunk != nullptr;
}

} // namespace

namespace tarn
{

uint32_t rpc_turn_depth(const tarn_rpc *rpc)
{
    return turn_scope::depth(rpc);
}

void rpc_rx_reset(TARN_RPC rpc)
{
    rpc_rx_state &rx = rpc->rx;
    while (rx.queue != nullptr)
    {
        const unique_mem<rpc_queued> item(std::exchange(rx.queue, rx.queue->next));
        const unique_rpc_msg msg(item->msg);
    }
    rx.queued = 0;
    rx.chunk_pos = 0;
    rx.chunk_len = 0;
    rx.header_bytes = 0;
    rx.since_activity = 0;
}

void rpc_rx_free(TARN_RPC rpc)
{
    rpc_rx_reset(rpc);
    tarn_mem_free(std::exchange(rpc->rx.chunk, nullptr));
    tarn_mem_free(std::exchange(rpc->rx.body, nullptr));
    rpc->rx.body_size = 0;
}

void rpc_rx_fsm(TARN_RPC rpc, conn_link *line, const rpc_pending *until)
{
    const uint32_t generation = rpc->rx.generation;
    std::span<const uint8_t> body;
    for (;;)
    {
        const step next = next_frame(rpc, body);
        if (next == step::more)
        {
            return;
        }
        if (next == step::fail || !handle_frame(rpc, line, body))
        {
            rpc_rx_free(rpc);
            rpc_line_fail(rpc, line);
            return;
        }
        // What is left of the chunk is for the turn outside, or of a line that has ended.
        if (!rpc_is_alive(rpc) || rpc->rx.generation != generation ||
            rpc_generation(rpc) != generation || (until != nullptr && rpc_is_done(*until)))
        {
            return;
        }
    }
}

void rpc_conn_turn(TARN_RPC rpc, uint32_t wait_ms, const rpc_pending *until)
{
    const turn_scope scope(rpc);
    if (!rpc_is_alive(rpc))
    {
        return;
    }
    const link_pin line = sync_line(rpc);
    if (!line)
    {
        turn_down(rpc, wait_ms);
        return;
    }
    if (!has_chunk(rpc->rx))
    {
        pause(rpc, wait_ms); // no memory just now
        return;
    }
    if (drain_queue(rpc, line.get()))
    {
        return;
    }
    if (rpc->rx.chunk_pos < rpc->rx.chunk_len || turn_read(rpc, line.get(), wait_ms))
    {
        rpc_rx_fsm(rpc, line.get(), until);
        if (rpc_is_alive(rpc) && is_mute(rpc))
        {
            end_mute(rpc, line.get());
        }
    }
}

} // namespace tarn
