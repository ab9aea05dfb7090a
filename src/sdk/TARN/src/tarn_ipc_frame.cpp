// Local IPC: coding of frames, and the machine that finds them in what a peer sends.
//
// A frame that is wrong never ends a connection: the machine drops it and hunts for the next begin
// tag. Memory for a payload is taken when its length is known, and not cleared.

#include "tarn_check.h"
#include "tarn_data_internal.h"
#include "tarn_ipc_internal.h"
#include "tarn_sys.h"
#include "tarn_wire.h"

#include <algorithm>
#include <cerrno>

namespace
{

using tarn::frame_owner;
using tarn::ipc_conn;
using tarn::ipc_frame;
using tarn::ipc_line;
using tarn::ipc_p;
using tarn::ipc_receiver;

enum state : uint32_t
{
    hunt,
    begin_tag,
    number,
    command,
    length,
    data,
    end_tag
};

constexpr size_t tag_size = sizeof TARN_IPC_COMM_BEGIN_TAG - 1;

/** Bytes of one value. */
uint64_t value_size(const tarn_data &value)
{
    switch (value.type)
    {
    case TARN_DATA_TYPE_STRING:
        return 1 + 4 + uint64_t{value.word.length};
    case TARN_DATA_TYPE_PAIR:
        return 1 + 8 + 4;
    case TARN_DATA_TYPE_POINTER:
        return 1 + 4;
    default:
        return 1 + uint64_t{tarn::data_type_of(value.type).width};
    }
}

// ---- sending ----------------------------------------------------------------------------------------

/** Say which field a frame was cut in. */
void log_cut(const ipc_conn *conn, int64_t sent, size_t data_len, int error)
{
    const auto at = static_cast<uint64_t>(std::max<int64_t>(sent, 0));
    if (at < 3)
    {
        TARN_LOG_TRACE("[%s:%s] send TARN_IPC_COMM_BEGIN_TAG failed, error = [%d]", conn->callee,
                       conn->caller_text, error);
    }
    else if (at < 4)
    {
        TARN_LOG_TRACE("[%s:%s] send &comm_data->seq_num failed, error = [%d]", conn->callee,
                       conn->caller_text, error);
    }
    else if (at < 5)
    {
        TARN_LOG_TRACE("[%s:%s] send &comm_data->cmd failed, error = [%d]", conn->callee,
                       conn->caller_text, error);
    }
    else if (at < tarn::ipc_frame_head)
    {
        TARN_LOG_TRACE("[%s:%s] send &data_len failed, error = [%d]", conn->callee,
                       conn->caller_text, error);
    }
    else if (at < tarn::ipc_frame_head + data_len)
    {
        TARN_LOG_TRACE("[%s:%s] send comm_data->data_buf failed, error = [%d]", conn->callee,
                       conn->caller_text, error);
    }
    else
    {
        TARN_LOG_TRACE("[%s:%s] send TARN_IPC_COMM_END_TAG failed, error = [%d]", conn->callee,
                       conn->caller_text, error);
    }
}

/** Counts a thread in a line's senders. */
class [[nodiscard]] sender
{
public:
    explicit sender(ipc_line *line) : line_(line)
    {
        (void)__atomic_add_fetch(&line_->senders, 1, __ATOMIC_RELAXED);
    }
    sender(const sender &) = delete;
    sender &operator=(const sender &) = delete;
    ~sender()
    {
        (void)__atomic_sub_fetch(&line_->senders, 1, __ATOMIC_RELAXED);
    }

private:
    ipc_line *line_;
};

/** Send parts under the send lock. A line on which less went out is shut down: its peer would take
 *  the next frame for the rest of this one.
 *  @return bytes sent, with errno when that is not all */
int64_t send_whole(ipc_line *line, std::span<const tarn::send_part> parts, int64_t whole)
{
    const sender counted(line);
    const tarn::cancel_guard no_cancel; // a frame is not left half sent
    const tarn::critical_section_guard guard(line->send_lock);
    if (tarn::ipc_load(line->dead) != 0 || line->sock == TARN_INVALID_HANDLE)
    {
        errno = ENOTCONN;
        return -1;
    }
    const int64_t sent = tarn::socket_send_parts(line->sock, parts, tarn::ipc_limit.send_ms);
    if (sent != whole)
    {
        const tarn::errno_keeper keep;
        tarn::ipc_store(line->dead, 1);
        (void)tarn::socket_shut_down(line->sock);
    }
    return sent;
}

// ---- requests that the pool refused -------------------------------------------------------------------

bool start_request(ipc_conn *conn, frame_owner &frame)
{
    const uint32_t stuck = __atomic_load_n(&frame.get()->line->senders, __ATOMIC_RELAXED);
    return stuck < tarn::ipc_max_senders && tarn::ipc_submit(conn, frame);
}

/** Keep a refused request, behind the others. */
void park(ipc_conn *conn, frame_owner frame)
{
    ipc_frame *const parked = frame.release();
    parked->refused_at = tarn_tick_ms();
    parked->next = nullptr;
    ipc_frame **end = &conn->parked;
    while (*end != nullptr)
    {
        end = &(*end)->next;
    }
    *end = parked;
    ++conn->parked_count;
}

/** Room for one more; each that is there moves within a few tries. */
bool make_room(ipc_conn *conn)
{
    while (conn->parked_count >= tarn::ipc_max_parked)
    {
        const uint32_t next_ms = tarn::ipc_retry_parked(conn);
        if (conn->parked_count >= tarn::ipc_max_parked &&
            (tarn::ipc_load(conn->closing) != 0 || tarn_thread_sleep(next_ms)))
        {
            return false;
        }
    }
    return true;
}

// ---- dispatch -----------------------------------------------------------------------------------------

void dispatch_request(ipc_conn *conn, frame_owner frame)
{
    frame.get()->comm.need_response = 1;
    frame.get()->refusals = 1;
    if (!start_request(conn, frame) && make_room(conn))
    {
        park(conn, std::move(frame));
    }
}

/** An answer reaches its caller also when no pool thread is free: its handler is short and calls
 *  nothing, and the threads may be busy because their handlers wait for answers. */
void dispatch_response(ipc_conn *conn, frame_owner frame)
{
    const bool small = frame.get()->comm.data_len <= tarn::ipc_inline_response;
    if (small || !tarn::ipc_submit(conn, frame))
    {
        tarn::ipc_response_handler(conn, std::move(frame));
    }
}

void dispatch_post(ipc_conn *conn, frame_owner frame)
{
    frame.get()->comm.need_response = 0;
    if (!start_request(conn, frame))
    {
        TARN_LOG_TRACE("[%s:%s] fail to start request handler for post message", conn->callee,
                       conn->caller_text);
    }
}

void dispatch(ipc_conn *conn, frame_owner frame)
{
    switch (frame.get()->comm.cmd)
    {
    case tarn::ipc_heartbeat:
        tarn::ipc_touch(conn);
        break;
    case tarn::ipc_request:
        dispatch_request(conn, std::move(frame));
        break;
    case tarn::ipc_response:
        dispatch_response(conn, std::move(frame));
        break;
    case tarn::ipc_post:
        dispatch_post(conn, std::move(frame));
        break;
    default:
        TARN_LOG_ERROR("[%p:%s:%s] unknown command [%d]", ipc_p(conn), conn->callee,
                       conn->caller_text, frame.get()->comm.cmd);
        break;
    }
}

// ---- the machine --------------------------------------------------------------------------------------

void enter(ipc_receiver &rx, state next)
{
    rx.state = next;
    rx.index = 0;
    if (next == hunt && rx.discard == tarn::ipc_discard_frame)
    {
        rx.discard = tarn::ipc_discard_none;
    }
}

/** Memory for the frame whose length is known. */
bool make_frame(ipc_conn *conn)
{
    ipc_receiver &rx = conn->receiver;
    if (rx.frame != nullptr && rx.data_len > rx.room)
    {
        tarn::ipc_frame_free(std::exchange(rx.frame, nullptr));
    }
    if (rx.frame == nullptr)
    {
        auto *const frame =
            static_cast<ipc_frame *>(tarn_mem_realloc(nullptr, sizeof(ipc_frame) + rx.data_len));
        RVON(frame, false);
        *frame = {};
        rx.frame = frame;
        rx.room = rx.data_len;
    }
    rx.frame->comm = {rx.seq_num, rx.cmd, rx.data_len, 0, {}};
    return true;
}

/** A whole frame is there. */
void complete(ipc_conn *conn)
{
    ipc_receiver &rx = conn->receiver;
    TARN_LOG_DEBUG("[%p:%s:%s] package received, seq_num = [%u], cmd = [%u]", ipc_p(conn),
                   conn->callee, conn->caller_text, rx.seq_num, rx.cmd);
    if (rx.discard == tarn::ipc_discard_none)
    {
        frame_owner frame(std::exchange(rx.frame, nullptr));
        frame.get()->line = conn->line; // only this thread changes it
        if (conn->line != nullptr)
        {
            tarn::ipc_line_ref(conn->line);
            dispatch(conn, std::move(frame));
        }
    }
    enter(rx, hunt);
}

size_t in_begin_tag(ipc_conn *conn, uint8_t byte)
{
    ipc_receiver &rx = conn->receiver;
    if (byte != static_cast<uint8_t>(TARN_IPC_COMM_BEGIN_TAG[rx.index]))
    {
        // The byte is not looked at again, even when it begins a tag: peers rely on it being lost.
        TARN_LOG_TRACE("[%p:%s:%s] incorrect header tag", ipc_p(conn), conn->callee,
                       conn->caller_text);
        enter(rx, hunt);
    }
    else if (++rx.index == tag_size)
    {
        enter(rx, number);
    }
    return 1;
}

size_t in_length(ipc_conn *conn, uint8_t byte)
{
    ipc_receiver &rx = conn->receiver;
    rx.data_len = (rx.index == 0 ? 0 : rx.data_len << 8) | byte;
    if (++rx.index < 4)
    {
        return 1;
    }
    if (rx.data_len > tarn::ipc_max_data)
    {
        TARN_LOG_DEBUG("[%p:%s:%s] data length too long", ipc_p(conn), conn->callee,
                       conn->caller_text);
        enter(rx, hunt);
        return 1;
    }
    if (!make_frame(conn))
    {
        return 0;
    }
    enter(rx, rx.data_len == 0 ? end_tag : data);
    return 1;
}

size_t in_data(ipc_conn *conn, const uint8_t *bytes, size_t len)
{
    ipc_receiver &rx = conn->receiver;
    const size_t n = std::min<size_t>(rx.data_len - rx.index, len);
    tarn_mem_copy(tarn::ipc_payload(rx.frame) + rx.index, bytes, n);
    rx.index += static_cast<uint32_t>(n);
    if (rx.index == rx.data_len)
    {
        enter(rx, end_tag);
    }
    return n;
}

size_t in_end_tag(ipc_conn *conn, uint8_t byte)
{
    ipc_receiver &rx = conn->receiver;
    if (byte != static_cast<uint8_t>(TARN_IPC_COMM_END_TAG[rx.index]))
    {
        TARN_LOG_TRACE("[%p] recv_tail get incorrect header tag!", ipc_p(conn));
        enter(rx, hunt);
    }
    else if (++rx.index == tag_size)
    {
        complete(conn);
    }
    return 1;
}

} // namespace

namespace tarn
{

void ipc_frame_free(ipc_frame *frame)
{
    if (frame->line != nullptr)
    {
        ipc_line_unref(frame->line);
    }
    tarn_mem_free(frame);
}

uint32_t ipc_args_size(TARN_DATA args)
{
    uint64_t size = 0;
    uint32_t count = 0;
    for (const tarn_data *value = args; value != nullptr; value = value->next)
    {
        size += value_size(*value);
        const bool complete = value->type == TARN_DATA_TYPE_PAIR     ? value->word.pair != nullptr
                              : value->type == TARN_DATA_TYPE_STRING ? !lacks_buffer(*value)
                                                                     : true;
        if (!complete || size > ipc_max_args || ++count > ipc_max_values)
        {
            return 0;
        }
    }
    return static_cast<uint32_t>(size);
}

bool ipc_read_args(std::span<const uint8_t> rest, TARN_DATA *out)
{
    *out = TARN_INVALID_HANDLE;
    if (rest.size() <= 1)
    {
        return true;
    }
    *out = data_read_list(rest.data(), static_cast<uint32_t>(rest.size()), nullptr, ipc_max_values);
    return *out != TARN_INVALID_HANDLE;
}

bool ipc_send_comm_data(ipc_conn *conn, ipc_line *line, uint8_t seq_num, uint8_t cmd,
                        uint32_t func_id, uint32_t word, std::span<const uint8_t> rest)
{
    uint8_t head[ipc_frame_head + ipc_payload_head];
    const size_t data_len = ipc_payload_head + rest.size();
    wire_writer out(head);
    out.bytes(TARN_IPC_COMM_BEGIN_TAG, tag_size);
    out.u8(seq_num);
    out.u8(cmd);
    out.u32(static_cast<uint32_t>(data_len));
    out.u32(func_id);
    out.u32(word);
    const send_part parts[] = {
        {head, sizeof head}, {rest.data(), rest.size()}, {TARN_IPC_COMM_END_TAG, tag_size}};
    const auto whole = static_cast<int64_t>(ipc_frame_head + data_len + tag_size);
    const int64_t sent = send_whole(line, parts, whole);
    if (sent == whole)
    {
        ipc_touch(conn);
        return true;
    }
    const int error = errno;
    ipc_drop_line(conn, ipc_broken, line);
    log_cut(conn, sent, data_len, error);
    return false;
}

size_t ipc_conn_recv_fsm(ipc_conn *conn, const uint8_t *bytes, size_t len)
{
    RVOF(len > 0, 0);
    ipc_receiver &rx = conn->receiver;
    switch (rx.state)
    {
    case hunt:
        if (*bytes == static_cast<uint8_t>(TARN_IPC_COMM_BEGIN_TAG[0]))
        {
            enter(rx, begin_tag);
            rx.index = 1;
        }
        return 1;
    case begin_tag:
        return in_begin_tag(conn, *bytes);
    case number:
        rx.seq_num = *bytes;
        enter(rx, command);
        return 1;
    case command:
        rx.cmd = *bytes;
        enter(rx, length);
        return 1;
    case length:
        return in_length(conn, *bytes);
    case data:
        return in_data(conn, bytes, len);
    case end_tag:
        return in_end_tag(conn, *bytes);
    default:
        TARN_LOG_TRACE("[%p:%s:%s] unknown comm state [%d]", ipc_p(conn), conn->callee,
                       conn->caller_text, static_cast<int>(rx.state));
        enter(rx, hunt);
        return 0;
    }
}

void ipc_feed(ipc_conn *conn, std::span<const uint8_t> chunk)
{
    while (!chunk.empty())
    {
        const size_t used = ipc_conn_recv_fsm(conn, chunk.data(), chunk.size());
        if (used == 0)
        {
            TARN_LOG_TRACE("[%p:%p:%p:%s:%s] ipc_conn_recv_fsm return 0!", ipc_p(conn->server),
                           ipc_p(conn), ipc_p(conn->line), conn->callee, conn->caller_text);
            enter(conn->receiver, hunt);
            return;
        }
        chunk = chunk.subspan(used);
    }
}

void ipc_receiver_reset(ipc_conn *conn)
{
    ipc_receiver &rx = conn->receiver;
    if (rx.frame != nullptr)
    {
        ipc_frame_free(rx.frame);
    }
    rx = {};
}

uint32_t ipc_retry_parked(ipc_conn *conn)
{
    for (ipc_frame **at = &conn->parked; *at != nullptr;)
    {
        ipc_frame *const parked = *at;
        const uint32_t waited = tarn_tick_ms_since(parked->refused_at);
        if (waited < ipc_limit.retry_ms)
        {
            return ipc_limit.retry_ms - waited; // those behind it came later
        }
        *at = parked->next;
        --conn->parked_count;
        frame_owner frame(parked);
        if (start_request(conn, frame))
        {
            continue;
        }
        if (++parked->refusals < ipc_max_attempts)
        {
            park(conn, std::move(frame));
            continue;
        }
        TARN_LOG_TRACE("[%s:%s] fail to start request handler", conn->callee, conn->caller_text);
    }
    return TARN_INFINITE;
}

} // namespace tarn
