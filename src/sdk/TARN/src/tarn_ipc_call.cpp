// Local IPC: calls and the handlers of what comes in.
//
// A call that waits has a record on its caller's stack, in the connection's list. Whoever completes it
// does all of that under the connection's lock, and the caller takes it out of the list under the same
// lock before it returns: nobody touches the record later. Sequence numbers are short, so the number
// of a call that gave up is not used again, as long as there are others, until its late answer came.

#include "tarn_check.h"
#include "tarn_data_internal.h"
#include "tarn_ipc_internal.h"
#include "tarn_os.h"
#include "tarn_sys.h"
#include "tarn_wire.h"

#include <algorithm>
#include <cstring>

namespace
{

using tarn::frame_owner;
using tarn::IPC_COMM_DATA;
using tarn::ipc_conn;
using tarn::ipc_frame;
using tarn::ipc_line;
using tarn::ipc_p;
using tarn::ipc_pending;
using tarn::unique_data;

/** A request that is being sent. */
struct request
{
    uint32_t func_id;
    bool wants_out;
    std::span<const uint8_t> rest; ///< the payload behind its head
};

// ---- calls ------------------------------------------------------------------------------------------

/** One call: its sequence number and, when it waits for an answer, its record. */
class [[nodiscard]] call
{
public:
    call(ipc_conn *conn, ipc_line *line, uint32_t func_id) : conn_(conn), line_(line)
    {
        pending_.func_id = func_id;
        pending_.return_value = -8;
    }
    call(const call &) = delete;
    call &operator=(const call &) = delete;
    /** Also the way out of a caller that is cancelled while it waits. */
    ~call()
    {
        leave();
        tarn_event_destroy(pending_.event);
        tarn_data_destroy(pending_.args_out);
    }

    /** Get ready to be answered; false when memory ran out. */
    bool expect_answer()
    {
        pending_.event = tarn_event_create(false, false);
        return pending_.event != TARN_INVALID_HANDLE;
    }
    /** Get a number, and into the list when an answer is expected.
     *  @return 0, or the call's result */
    int32_t enter();
    [[nodiscard]] uint8_t seq_num() const
    {
        return pending_.seq_num;
    }
    /** Wait for the answer. */
    void wait();
    /** Take the answer.
     *  @return false when none came */
    bool finish(int32_t *ret, TARN_DATA *args_out);

private:
    void leave();

    ipc_conn *conn_;
    ipc_line *line_;
    ipc_pending pending_{};
    bool sent_ = false; ///< an answer may come
};

int32_t call::enter()
{
    const tarn::critical_section_guard guard(conn_->lock);
    if (conn_->line != line_ || conn_->status != tarn::ipc_connected)
    {
        return conn_->closing != 0 ? -10 : -6;
    }
    pending_.seq_num = tarn::ipc_get_next_seqnum(line_);
    if (pending_.seq_num == 0)
    {
        return -9;
    }
    if (pending_.event == TARN_INVALID_HANDLE)
    {
        return 0;
    }
    if (conn_->request_list == TARN_INVALID_HANDLE)
    {
        return -10;
    }
    if (tarn_list_is_full(conn_->request_list) ||
        !tarn_list_push_back(conn_->request_list, &pending_))
    {
        return -11;
    }
    pending_.ticket = ++conn_->tickets;
    pending_.linked = true;
    return 0;
}

void call::wait()
{
    sent_ = true;
    const uint32_t start = tarn_tick_ms();
    const uint32_t limit = tarn::ipc_limit.response_ms;
    TARN_LOG_DEBUG("[%s:%s:%u] wait for response, tick = [%u]", conn_->callee, conn_->caller_text,
                   pending_.func_id, start);
    for (uint32_t passed = 0; passed <= limit; passed = tarn_tick_ms_since(start))
    {
        if (tarn_event_wait(pending_.event, std::min(tarn::ipc_limit.slice_ms, limit - passed + 1)))
        {
            return;
        }
    }
}

/** Out of the list, the number back. */
void call::leave()
{
    const tarn::critical_section_guard guard(conn_->lock);
    if (pending_.linked)
    {
        (void)tarn_list_remove(conn_->request_list, &pending_);
        pending_.linked = false;
    }
    if (pending_.seq_num != 0)
    {
        const bool late = sent_ && !pending_.done;
        line_->numbers[pending_.seq_num] = late ? tarn::ipc_number_late : tarn::ipc_number_free;
        pending_.seq_num = 0;
    }
}

bool call::finish(int32_t *ret, TARN_DATA *args_out)
{
    leave();
    TARN_LOG_DEBUG("[%s:%s:%u] return value = [%d], tick = [%u]", conn_->callee, conn_->caller_text,
                   pending_.func_id, pending_.return_value, tarn_tick_ms());
    if (!pending_.done)
    {
        return false;
    }
    *ret = pending_.return_value;
    if (args_out != nullptr)
    {
        *args_out = std::exchange(pending_.args_out, nullptr);
    }
    return true;
}

void log_refused(const ipc_conn *conn, uint32_t func_id, int32_t result)
{
    switch (result)
    {
    case -9:
        TARN_LOG_WARN("no available sequence number!");
        TARN_LOG_TRACE("[%s:%s:%u] get seqnum failed!", conn->callee, conn->caller_text, func_id);
        break;
    case -10:
        TARN_LOG_TRACE("[%s:%s:%u] request list has been released!", conn->callee,
                       conn->caller_text, func_id);
        break;
    case -11:
        TARN_LOG_TRACE("[%s:%s:%u] request list full!", conn->callee, conn->caller_text, func_id);
        break;
    default:
        break;
    }
}

int32_t no_answer(const ipc_conn *conn, uint32_t func_id)
{
    TARN_LOG_TRACE("[%s:%s:%u] send request timeout!", conn->callee, conn->caller_text, func_id);
    return -13;
}

int32_t send_request(ipc_conn *conn, const request &what, int32_t *ret, TARN_DATA *args_out)
{
    const tarn::conn_ref_owner pin = tarn::ipc_pin(conn);
    const tarn::line_owner line = tarn::ipc_hold_line(conn);
    RVON_TEXT(line, -6, "RVOF(conn->status == 1,-6)");
    if (ret != nullptr && tarn::ipc_is_receiving(conn))
    {
        return no_answer(conn, what.func_id); // this thread would have to receive it
    }
    call own(conn, line.get(), what.func_id);
    if (ret != nullptr && !own.expect_answer())
    {
        TARN_LOG_TRACE("[%s:%s] create event failed", conn->callee, conn->caller_text);
        return -7;
    }
    if (const int32_t result = own.enter(); result != 0)
    {
        log_refused(conn, what.func_id, result);
        return result;
    }
    const uint8_t cmd = ret != nullptr ? tarn::ipc_request : tarn::ipc_post;
    if (!tarn::ipc_send_comm_data(conn, line.get(), own.seq_num(), cmd, what.func_id,
                                  what.wants_out ? 1 : 0, what.rest))
    {
        TARN_LOG_TRACE("[%s:%s:%u] fail to send request!", conn->callee, conn->caller_text,
                       what.func_id);
        return -12;
    }
    if (ret == nullptr)
    {
        return 0;
    }
    own.wait();
    return own.finish(ret, args_out) ? 0 : no_answer(conn, what.func_id);
}

/** Write a request into a buffer of any alignment; the buffer has room for it. */
void write_request(uint8_t *buffer, uint32_t func_id, bool need_response, uint32_t args_size,
                   TARN_DATA args_in)
{
    const uint32_t data_len = tarn::ipc_payload_head + args_size + 1;
    const IPC_COMM_DATA head = {
        0, need_response ? tarn::ipc_request : tarn::ipc_post, data_len, 0, {}};
    std::memcpy(buffer, &head, tarn::ipc_frame_head);
    tarn::wire_writer out({buffer + tarn::ipc_frame_head, data_len});
    out.u32(func_id);
    out.u32(0); // the call fills it in
    if (args_in != TARN_INVALID_HANDLE)
    {
        (void)tarn_data_write_to_buf(args_in, buffer + tarn::ipc_frame_head + out.position(),
                                     args_size);
    }
    buffer[tarn::ipc_frame_head + data_len - 1] = 0;
}

/** Room for a request's arguments; 0 when they do not fit. */
uint64_t request_size(TARN_DATA args_in, uint32_t *args_size)
{
    *args_size = args_in != TARN_INVALID_HANDLE ? tarn::ipc_args_size(args_in) : 0;
    return args_in != TARN_INVALID_HANDLE && *args_size == 0
               ? 0
               : uint64_t{tarn::ipc_frame_head} + tarn::ipc_payload_head + *args_size + 1;
}

// ---- requests that come in ----------------------------------------------------------------------------

/** True when a value is one of a list's. */
bool holds(TARN_DATA list, const tarn_data *value)
{
    while (list != nullptr && list != value)
    {
        list = list->next;
    }
    return list != nullptr && value != nullptr;
}

/** Runs on_call with its count. */
int32_t run_on_call(ipc_conn *conn, uint32_t func_id, TARN_DATA args_in, TARN_DATA *args_out)
{
    const tarn::callback_scope scope(conn->callbacks);
    if (conn->server == nullptr)
    {
        return conn->cb.on_call(tarn::handle_of(conn), func_id, args_in, args_out, conn->cb.object);
    }
    const tarn::callback_scope server_scope(conn->server->callbacks);
    return conn->cb.on_call(tarn::handle_of(conn), func_id, args_in, args_out, conn->cb.object);
}

/** Answer a request. Results that do not fit are reported as -1, without them. */
void respond(ipc_conn *conn, ipc_frame *frame, uint32_t func_id, int32_t ret, TARN_DATA args_out)
{
    uint32_t size = args_out != nullptr ? tarn::ipc_args_size(args_out) : 0;
    uint8_t little[512];
    tarn::unique_mem<uint8_t> large;
    uint8_t *rest = little;
    if (size >= sizeof little)
    {
        large.reset(static_cast<uint8_t *>(tarn_mem_realloc(nullptr, size_t{size} + 1)));
        rest = large ? large.get() : little;
        size = large ? size : 0;
    }
    if (args_out != nullptr && (size == 0 || tarn_data_write_to_buf(args_out, rest, size) == 0))
    {
        ret = -1;
        size = 0;
    }
    rest[size] = 0;
    (void)tarn::ipc_send_comm_data(conn, frame->line, frame->comm.seq_num, tarn::ipc_response,
                                   func_id, static_cast<uint32_t>(ret), {rest, size_t{size} + 1});
}

/** Let on_call answer a request whose arguments were read. */
void answer(ipc_conn *conn, ipc_frame *frame, uint32_t func_id, bool wants_out, unique_data args_in)
{
    if (!tarn::ipc_begin_call(conn))
    {
        return; // being destroyed
    }
    TARN_DATA args_out = TARN_INVALID_HANDLE;
    const int32_t ret = run_on_call(conn, func_id, args_in.get(), wants_out ? &args_out : nullptr);
    // Results may be taken from the arguments, or have taken them in: what is one is freed once.
    const bool within = holds(args_in.get(), args_out);
    if (!within && holds(args_out, args_in.get()))
    {
        (void)args_in.release();
    }
    const unique_data results(within ? nullptr : args_out);
    if (frame->comm.need_response != 0)
    {
        respond(conn, frame, func_id, ret, args_out);
    }
}

// ---- answers that come in -----------------------------------------------------------------------------

bool has_number(void *item, void *seq_num, void *)
{
    return static_cast<ipc_pending *>(item)->seq_num == *static_cast<uint8_t *>(seq_num);
}

/** The call that waits for an answer of this line; under the lock. */
ipc_pending *find_pending(ipc_conn *conn, const ipc_frame *frame)
{
    uint8_t seq_num = frame->comm.seq_num;
    return frame->line == conn->line && conn->request_list != TARN_INVALID_HANDLE
               ? static_cast<ipc_pending *>(
                     tarn_list_find_if(conn->request_list, has_number, &seq_num, nullptr))
               : nullptr;
}

/** What a call needs to be recognised by. */
struct awaited
{
    uint32_t func_id;
    uint64_t ticket;
};

/** Find the call of an answer. A late one frees its number instead. */
bool find_call(ipc_conn *conn, ipc_frame *frame, awaited *out)
{
    const tarn::critical_section_guard guard(conn->lock);
    if (const ipc_pending *const pending = find_pending(conn, frame))
    {
        *out = {pending->func_id, pending->ticket};
        return true;
    }
    uint8_t &number = frame->line->numbers[frame->comm.seq_num];
    if (number == tarn::ipc_number_late)
    {
        number = tarn::ipc_number_free;
    }
    return false;
}

/** Hand an answer over, when its call still waits.
 *  @param ret  null: it has none */
void complete_call(ipc_conn *conn, const ipc_frame *frame, uint64_t ticket, const int32_t *ret,
                   unique_data args_out)
{
    const tarn::critical_section_guard guard(conn->lock);
    ipc_pending *const pending = find_pending(conn, frame);
    if (pending == nullptr || pending->ticket != ticket || pending->done)
    {
        return;
    }
    pending->done = true;
    pending->return_value = ret != nullptr ? *ret : pending->return_value;
    pending->args_out = args_out.release();
    (void)tarn_event_set(pending->event);
}

} // namespace

namespace tarn
{

uint8_t ipc_get_next_seqnum(ipc_line *line)
{
    for (const ipc_number wanted : {ipc_number_free, ipc_number_late})
    {
        uint8_t number = line->last_number;
        for (int i = 0; i < 256; ++i)
        {
            number = static_cast<uint8_t>(number + 1);
            if (number != 0 && line->numbers[number] == wanted)
            {
                line->numbers[number] = ipc_number_used;
                line->last_number = number;
                return number;
            }
        }
    }
    return 0;
}

void ipc_request_handler(ipc_conn *conn, frame_owner frame)
{
    if (conn->cb.on_call == nullptr)
    {
        return;
    }
    ipc_touch(conn);
    const void *const svr = ipc_p(conn->server);
    const uint32_t data_len = frame.get()->comm.data_len;
    wire_reader in({ipc_payload(frame.get()), data_len});
    const uint32_t func_id = in.u32();
    if (!in.ok())
    {
        TARN_LOG_TRACE("[%p:%p,%s:%s] len = [%d] < func_id size", ipc_p(svr), ipc_p(conn),
                       conn->callee, conn->caller_text, static_cast<int>(data_len));
        return;
    }
    const uint32_t wants_out = in.u32();
    if (!in.ok())
    {
        TARN_LOG_TRACE("[%p:%p:%s:%s] len = [%d] < args_out_from_caller size", ipc_p(svr),
                       ipc_p(conn), conn->callee, conn->caller_text, static_cast<int>(data_len));
        return;
    }
    TARN_DATA args_in = TARN_INVALID_HANDLE;
    if (!ipc_read_args({ipc_payload(frame.get()) + in.position(), in.remaining()}, &args_in))
    {
        TARN_LOG_TRACE("[%p:%p:%s:%s] fail to extract args_in", ipc_p(svr), ipc_p(conn),
                       conn->callee, conn->caller_text);
        return;
    }
    answer(conn, frame.get(), func_id, wants_out != 0, unique_data(args_in));
    TARN_LOG_DEBUG("[%p:%p:%s:%s] exit request handler", ipc_p(svr), ipc_p(conn), conn->callee,
                   conn->caller_text);
}

void ipc_response_handler(ipc_conn *conn, frame_owner frame)
{
    ipc_touch(conn);
    const void *const svr = ipc_p(conn->server);
    awaited call{};
    if (!find_call(conn, frame.get(), &call))
    {
        TARN_LOG_DEBUG("[%p:%p:%s:%s] find request error, seq_num = [%d]", ipc_p(svr), ipc_p(conn),
                       conn->callee, conn->caller_text, frame.get()->comm.seq_num);
        return;
    }
    const uint32_t data_len = frame.get()->comm.data_len;
    wire_reader in({ipc_payload(frame.get()), data_len});
    const uint32_t func_id = in.u32();
    if (!in.ok())
    {
        TARN_LOG_TRACE("[%p:%p:%s:%s] len = [%d] < func_id size", ipc_p(svr), ipc_p(conn),
                       conn->callee, conn->caller_text, static_cast<int>(data_len));
        return;
    }
    if (func_id != call.func_id)
    {
        TARN_LOG_TRACE("[%p:%p:%s:%s] func_id mismatch, req = [%d], rsp = [%d] ", ipc_p(svr),
                       ipc_p(conn), conn->callee, conn->caller_text, static_cast<int>(call.func_id),
                       static_cast<int>(func_id));
        return;
    }
    const auto ret = static_cast<int32_t>(in.u32());
    const bool has_ret = in.ok();
    if (!has_ret)
    {
        TARN_LOG_TRACE("[%p:%p:%s:%s] buffer without return value", ipc_p(svr), ipc_p(conn),
                       conn->callee, conn->caller_text);
    }
    const std::span<const uint8_t> payload(ipc_payload(frame.get()), data_len);
    TARN_DATA args_out = TARN_INVALID_HANDLE;
    if (!ipc_read_args(payload.subspan(has_ret ? ipc_payload_head : sizeof func_id), &args_out))
    {
        TARN_LOG_TRACE("[%p:%p:%s:%s] fail to extract args_out, data_len = [%d]", ipc_p(svr),
                       ipc_p(conn), conn->callee, conn->caller_text, static_cast<int>(data_len));
    }
    complete_call(conn, frame.get(), call.ticket, has_ret ? &ret : nullptr, unique_data(args_out));
}

} // namespace tarn

int32_t tarn_ipc_format_request_buffer(TARN_IPC conn, uint32_t func_id, TARN_DATA args_in,
                                       void *buffer, uint32_t *buffer_len, bool need_response)
{
    // The check texts show the arguments as they stand here.
    // clang-format off
    RVON(conn, -1);
    RVON(buffer, -2);
    RVON(buffer_len, -3);
    RVOF(*buffer_len > sizeof( IPC_COMM_DATA ), -4);
    // clang-format on
    const ipc_conn *const c = tarn::ipc_conn_of(conn);
    RVON(c, -5);
    uint32_t args_size = 0;
    const uint64_t size = request_size(args_in, &args_size);
    if (size == 0 || size > *buffer_len)
    {
        TARN_LOG_TRACE("[%s:%s] fail to write args_in buffer!", c->callee, c->caller_text);
        return -6;
    }
    write_request(static_cast<uint8_t *>(buffer), func_id, need_response, args_size, args_in);
    *buffer_len = static_cast<uint32_t>(size);
    return 0;
}

int32_t tarn_ipc_call_by_request_buffer(TARN_IPC conn, const void *buffer, uint32_t buffer_len,
                                        int32_t *ret, TARN_DATA *args_out)
{
    // The check texts show the arguments as they stand here.
    // clang-format off
    RVON(conn, -1);
    RVON(buffer, -3);
    RVOF(buffer_len >= sizeof( IPC_COMM_DATA ), -3);
    RVOT(ret == NULL && args_out != NULL, -2);
    // clang-format on
    IPC_COMM_DATA comm_data{}; // a copy: the buffer need not be aligned
    std::memcpy(&comm_data, buffer, sizeof comm_data);
    const uint64_t data_len = comm_data.data_len;
    RVOF_TEXT(data_len + tarn::ipc_frame_head <= buffer_len, -4,
              "RVOF(comm_data->data_len + ( comm_data->data_buf - (uint8_t*) comm_data ) <= "
              "buffer_len,-4)");
    RVOF(data_len > tarn::ipc_payload_head && data_len <= tarn::ipc_max_data, -4);
    ipc_conn *const c = tarn::ipc_conn_of(conn);
    RVON(c, -5);
    const std::span payload(static_cast<const uint8_t *>(buffer) + tarn::ipc_frame_head,
                            static_cast<size_t>(data_len));
    const uint32_t func_id = tarn::wire_reader(payload).u32();
    return send_request(c, {func_id, args_out != nullptr, payload.subspan(tarn::ipc_payload_head)},
                        ret, args_out);
}

int32_t tarn_ipc_call(TARN_IPC conn, uint32_t func_id, TARN_DATA args_in, int32_t *ret,
                      TARN_DATA *args_out)
{
    RVON(conn, -1);
    RVOT(ret == NULL && args_out != NULL, -2);
    ipc_conn *const c = tarn::ipc_conn_of(conn);
    if (c == nullptr)
    {
        TARN_LOG_WARN("func_id = [%d], ipc is not conn type", static_cast<int>(func_id));
        return -3;
    }
    RVOF(tarn::ipc_load(c->status) == tarn::ipc_connected, -4);
    uint32_t args_size = 0;
    const uint64_t size =
        std::max<uint64_t>(request_size(args_in, &args_size), TARN_IPC_REQUEST_BUFFER_MIN + 1);
    const tarn::unique_mem<uint8_t> comm_data(tarn_mem_realloc(nullptr, size));
    RVON(comm_data, -5);
    auto length = static_cast<uint32_t>(size);
    const bool need_response = ret != nullptr;
    const int32_t formatted = tarn_ipc_format_request_buffer(
        conn, func_id, args_in, comm_data.get(), &length, need_response);
    if (formatted != 0)
    {
        return formatted - 100;
    }
    const int32_t sent =
        tarn_ipc_call_by_request_buffer(conn, comm_data.get(), length, ret, args_out);
    return sent != 0 ? sent - 200 : 0;
}
