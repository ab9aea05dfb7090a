// RPC endpoints: frames that go out, and requests that wait for their replies.
//
// A request waits in the table from before its frame is sent until its sender stops waiting; it lies
// on the sender's stack, so it is looked into under the lock only, and completed there.

#include "tarn_rpc.h"

#include "tarn_check.h"
#include "tarn_os.h"
#include "tarn_rpc_internal.h"
#include "tarn_sys.h"
#include "tarn_wire.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace
{

using tarn::conn_link;
using tarn::critical_section_guard;
using tarn::link_pin;
using tarn::rpc_pending;
using tarn::rpc_pin;

constexpr uint32_t frame_magic = 0x54725043; ///< "TrPC"

/** Data of one write. The time limit is on each, so that a line is not dead for being slow. */
constexpr size_t send_piece = 65536;

// ---- frames -----------------------------------------------------------------------------------------

/** Say which part of a frame did not go out, by the count of bytes that did. */
void log_send_failure(TARN_RPC rpc, int64_t written, uint32_t data_len, int error)
{
    const char *const name = tarn::rpc_name(rpc);
    const tarn::error_text reason(error);
    const char *const text = reason.c_str();
    const int64_t sent = std::max<int64_t>(written, 0);
    switch (sent / 4)
    {
    case 0:
        TARN_LOG_ERROR("[%s] send FRAME_MAGIC failed, error = [%d] (%s)", name, error, text);
        break;
    case 1:
        TARN_LOG_ERROR("[%s] send msg_len failed, error = [%d] (%s)", name, error, text);
        break;
    case 2:
        TARN_LOG_ERROR("[%s] send seq_no failed, error = [%d] (%s)", name, error, text);
        break;
    case 3:
        TARN_LOG_ERROR("[%s] send msg_id failed, error = [%d] (%s)", name, error, text);
        break;
    case 4:
        TARN_LOG_ERROR("[%s] send data_len failed, error = [%d] (%s)", name, error, text);
        break;
    case 5:
        TARN_LOG_ERROR("[%s] send rsp_flag_or_code failed, error = [%d] (%s)", name, error, text);
        break;
    default:
        TARN_LOG_ERROR("[%s] send data failed, data_len = [%u], rc = [%d], error = [%d] (%s)", name,
                       data_len, static_cast<int>(sent - tarn::rpc_frame_header_size), error, text);
        break;
    }
}

/** Write header and data; what fits into one piece leaves together.
 *  @return bytes written; negative when none were */
int64_t write_frame(TARN_RPC rpc, conn_link *line, std::span<const uint8_t> header,
                    std::span<const uint8_t> data, uint32_t timeout_ms)
{
    int64_t written = 0;
    do
    {
        const auto piece = data.first(std::min(data.size(), send_piece));
        const tarn::send_part parts[] = {{header.data(), header.size()},
                                         {piece.data(), piece.size()}};
        const auto size = static_cast<int64_t>(header.size() + piece.size());
        const int64_t n = tarn::conn_write_link_parts(rpc->cli_h, line,
                                                      {parts, piece.empty() ? 1u : 2u}, timeout_ms);
        if (n != size)
        {
            return written != 0 ? written + std::max<int64_t>(n, 0) : n;
        }
        written += n;
        header = {};
        data = data.subspan(piece.size());
    } while (!data.empty());
    return written;
}

// ---- requests -----------------------------------------------------------------------------------------

bool is_waiting(const void *, void *value, void *, void *)
{
    return !tarn::rpc_is_done(*static_cast<rpc_pending *>(value));
}

void wake_pending(uint32_t, const void *, void *value, void *, void *)
{
    tarn::rpc_signal_set(static_cast<rpc_pending *>(value)->signal);
}

void fail_pending(uint32_t, const void *, void *value, void *, void *)
{
    auto *const request = static_cast<rpc_pending *>(value);
    if (!request->done)
    {
        request->reply_code = TARN_ERRLN;
        __atomic_store_n(&request->done, true, __ATOMIC_RELEASE);
        tarn::rpc_signal_set(request->signal);
    }
}

/** A waiter for a new request; null when memory ran out. */
tarn::rpc_waiter *take_waiter(TARN_RPC rpc)
{
    {
        const critical_section_guard guard(rpc->lock);
        if (rpc->waiters != nullptr)
        {
            return std::exchange(rpc->waiters, rpc->waiters->next);
        }
    }
    auto waiter = tarn::unique_mem<tarn::rpc_waiter>::make();
    RVON(waiter, NULL);
    waiter->signal = tarn::rpc_signal_create();
    RVON(waiter->signal, NULL);
    return waiter.release();
}

void give_waiter(TARN_RPC rpc, tarn::rpc_waiter *waiter)
{
    const critical_section_guard guard(rpc->lock);
    waiter->next = std::exchange(rpc->waiters, waiter);
}

/** Put a request into the table, if its line still stands and no other waits under its number. */
bool add_pending(TARN_RPC rpc, const conn_link *line, rpc_pending &request)
{
    const critical_section_guard guard(rpc->lock);
    if (rpc->line != line ||
        tarn_hash_find_ex(rpc->pending, &request.seq_no, sizeof request.seq_no, nullptr))
    {
        return false;
    }
    return tarn_hash_add_ex(rpc->pending, &request.seq_no, sizeof request.seq_no, &request) !=
           nullptr;
}

/** Take a request out of the table again; from here on nobody else touches it. Its sender may have
 *  been chosen to run the turns: another one is then. */
void remove_pending(TARN_RPC rpc, rpc_pending &request)
{
    const critical_section_guard guard(rpc->lock);
    (void)tarn_hash_remove_ex(rpc->pending, &request.seq_no, sizeof request.seq_no);
    if (!rpc->pumping && tarn::rpc_thread(rpc) == TARN_INVALID_HANDLE)
    {
        tarn::rpc_wake_next(rpc);
    }
}

/** Milliseconds that are left of a wait. */
uint32_t time_left(uint32_t start, uint32_t timeout_ms)
{
    if (timeout_ms == TARN_INFINITE)
    {
        return TARN_INFINITE;
    }
    const uint32_t passed = tarn_tick_ms_since(start);
    return passed < timeout_ms ? timeout_ms - passed : 0;
}

/** One step of a wait for a reply: a turn, when this thread is to run them, else a wait for its signal;
 *  both end early when the request is done. */
void wait_step(TARN_RPC rpc, rpc_pending &request, uint32_t left_ms)
{
    if (tarn::rpc_turn_depth(rpc) != 0)
    {
        tarn::rpc_conn_turn(rpc, std::min(left_ms, tarn::rpc_read_ms), &request);
    }
    else if (tarn::rpc_thread(rpc) == TARN_INVALID_HANDLE && tarn::rpc_pump_take(rpc))
    {
        const tarn::scope_exit give([&] { tarn::rpc_pump_give(rpc, true); });
        tarn::count_callback(rpc->foreign_turns);
        const tarn::callback_scope scope(rpc->foreign_turns);
        if (!tarn::rpc_is_done(request)) // by the pump before this one
        {
            tarn::rpc_conn_turn(rpc, std::min(left_ms, tarn::rpc_read_ms), &request);
        }
    }
    else
    {
        tarn::rpc_signal_wait(request.signal, left_ms);
    }
}

constexpr uint32_t stop_slice_ms = 100;

bool is_stopped(const rpc_pending &request)
{
    return request.stop != nullptr && __atomic_load_n(request.stop, __ATOMIC_ACQUIRE);
}

/** Wait until a request is done.
 *  @return false when the time passed, its sender gave up or the object is being destroyed */
bool wait_for_reply(TARN_RPC rpc, rpc_pending &request, uint32_t timeout_ms)
{
    if (tarn::rpc_turn_depth(rpc) == 0 && tarn::rpc_thread(rpc) != TARN_INVALID_HANDLE)
    {
        TARN_LOG_DEBUG("[%s] seq_no = [%u], msg_id = [%u] waiting for response in [%u] ms...",
                       tarn::rpc_name(rpc), request.seq_no, request.msg_id, timeout_ms);
    }
    else
    {
        TARN_LOG_DEBUG("[%s] seq_no = [%u], msg_id = [%u] run tarn_rpc_loop for response in [%u] "
                       "ms...",
                       tarn::rpc_name(rpc), request.seq_no, request.msg_id, timeout_ms);
    }
    const uint32_t start = tarn_tick_ms();
    for (uint32_t left = timeout_ms;;)
    {
        wait_step(rpc, request, request.stop != nullptr ? std::min(left, stop_slice_ms) : left);
        if (tarn::rpc_is_done(request))
        {
            return true;
        }
        left = time_left(start, timeout_ms);
        if (left == 0 || !tarn::rpc_is_alive(rpc) || is_stopped(request))
        {
            return false;
        }
    }
}

/** Send a request on a line; a failure ends the line.
 *  @return false on failure (logged) */
bool send_request(TARN_RPC rpc, conn_link *line, const rpc_pending &request, TARN_RPC_MSG msg,
                  bool wants_reply, uint32_t timeout_ms)
{
    const std::span<const uint8_t> data = msg != nullptr
                                              ? std::span<const uint8_t>(msg->data, msg->data_len)
                                              : std::span<const uint8_t>();
    const int64_t sent = tarn::rpc_send_frame(rpc, line, request.seq_no, request.msg_id,
                                              wants_reply ? 1 : 0, data, timeout_ms);
    if (sent >= 1)
    {
        return true;
    }
    const int error = errno;
    TARN_LOG_ERROR("[%s] send msg head return [%d], error = [%d] (%s)", tarn::rpc_name(rpc),
                   static_cast<int>(sent), error, tarn::error_text(error).c_str());
    tarn::rpc_line_fail(rpc, line);
    return false;
}

/** Send a request and wait; the request is in the table and is taken out here. */
int exchange_request(TARN_RPC rpc, conn_link *line, rpc_pending &request, TARN_RPC_MSG msg,
                     TARN_RPC_MSG *rsp_msg, uint32_t timeout_ms)
{
    bool replied = false;
    {
        const tarn::scope_exit remove([&] { remove_pending(rpc, request); });
        const uint32_t limit = std::clamp(timeout_ms, 1u, tarn::rpc_send_limit_ms);
        if (!send_request(rpc, line, request, msg, true, limit))
        {
            return TARN_ERRLN;
        }
        replied = wait_for_reply(rpc, request, timeout_ms);
    }
    // Out of the table: a reply that came between the end of the wait and that counts.
    if (!replied && !tarn::rpc_is_done(request))
    {
        if (is_stopped(request))
        {
            return TARN_ERRLN;
        }
        TARN_LOG_ERROR("[%s] seq_no = [%u], msg_id = [%u], wait reply timeout!",
                       tarn::rpc_name(rpc), request.seq_no, request.msg_id);
        tarn::rpc_line_fail(rpc, line);
        return TARN_ERRLN;
    }
    if (request.reply != nullptr && request.reply->data_len != 0)
    {
        *rsp_msg = std::exchange(request.reply, nullptr);
    }
    TARN_LOG_DEBUG("[%s] seq_no = [%u], msg_id = [%u], rsp_h = [%p], rc = [%d]",
                   tarn::rpc_name(rpc), request.seq_no, request.msg_id,
                   static_cast<void *>(*rsp_msg), request.reply_code);
    return request.reply_code;
}

int send_and_wait(TARN_RPC rpc, conn_link *line, rpc_pending &request, TARN_RPC_MSG msg,
                  TARN_RPC_MSG *rsp_msg, uint32_t timeout_ms)
{
    tarn::rpc_waiter *const waiter = take_waiter(rpc);
    RVON(waiter, TARN_ERRLN);
    const tarn::scope_exit give([&] { give_waiter(rpc, waiter); });
    request.signal = waiter->signal;
    const tarn::scope_exit unclaimed([&] {
        if (request.reply != nullptr)
        {
            (void)tarn_rpc_msg_release(request.reply);
        }
    });
    if (!add_pending(rpc, line, request))
    {
        TARN_LOG_ERROR("[%s] seq_no = [%u] is in use, or the line is gone", tarn::rpc_name(rpc),
                       request.seq_no);
        return TARN_ERRLN;
    }
    return exchange_request(rpc, line, request, msg, rsp_msg, timeout_ms);
}

} // namespace

namespace tarn
{

// ---- frames -----------------------------------------------------------------------------------------

int64_t rpc_send_frame(TARN_RPC rpc, conn_link *line, uint32_t seq_no, uint32_t msg_id,
                       uint32_t rsp_flag_or_code, std::span<const uint8_t> data,
                       uint32_t timeout_ms)
{
    const auto data_len = static_cast<uint32_t>(data.size());
    const uint32_t msg_len = rpc_body_header_size + data_len;
    uint8_t header[rpc_frame_header_size];
    wire_writer out(header);
    out.u32(frame_magic);
    out.u32(msg_len);
    out.u32(seq_no);
    out.u32(msg_id);
    out.u32(data_len);
    out.u32(rsp_flag_or_code);
    rpc_touch(rpc);
    TARN_LOG_DEBUG("[%s] send msg seq_no = [%u], id = [0x%x], msg_len = [%u], "
                   "rsp_flag_or_code = [0x%x]",
                   rpc_name(rpc), seq_no, msg_id, msg_len, rsp_flag_or_code);
    int64_t written = 0;
    int error = 0;
    {
        const critical_section_guard guard(rpc->send_cs);
        written = write_frame(rpc, line, header, data, timeout_ms);
        error = errno;
    }
    if (written != static_cast<int64_t>(sizeof header + data.size()))
    {
        log_send_failure(rpc, written, data_len, error);
        errno = error;
        return TARN_ERRLN;
    }
    if (!data.empty())
    {
        TARN_LOG_HEX(&tarn_default_logger, TARN_LOG_LEVEL_DEBUG, "TX:", data.data(), data_len);
    }
    return written;
}

void rpc_complete(TARN_RPC rpc, const rpc_frame_fields &fields, TARN_RPC_MSG msg)
{
    unique_rpc_msg reply(msg);
    void *found = nullptr;
    rpc_signal *signal = nullptr;
    {
        const critical_section_guard guard(rpc->lock);
        if (tarn_hash_find_ex(rpc->pending, &fields.seq_no, sizeof fields.seq_no, &found))
        {
            auto *const request = static_cast<rpc_pending *>(found);
            // The answer to a keep-alive has number 0 too, and a peer may answer twice.
            if (request->msg_id == fields.msg_id && !request->done)
            {
                request->reply = reply.release();
                request->reply_code = static_cast<int32_t>(fields.rsp_flag_or_code);
                signal = request->signal;
                __atomic_store_n(&request->done, true, __ATOMIC_RELEASE);
            }
        }
    }
    TARN_LOG_DEBUG("[%s] this is a reply message, find pending request = [%p]", rpc_name(rpc),
                   found);
    if (signal != nullptr)
    {
        TARN_LOG_DEBUG("[%s] set event to rsp with seq_no [%u]", rpc_name(rpc), fields.seq_no);
        // Not under the lock, which the sender that wakes wants to have at once.
        rpc_signal_set(signal);
    }
    else
    {
        TARN_LOG_DEBUG("[%s] no req match reply with seq_no [%u]", rpc_name(rpc), fields.seq_no);
    }
}

int rpc_msg_send_until(TARN_RPC rpc_h, uint32_t seq_no, uint32_t msg_id, TARN_RPC_MSG msg,
                       TARN_RPC_MSG *rsp_msg, uint32_t timeout_ms, const bool *stop)
{
    if (rsp_msg != nullptr)
    {
        *rsp_msg = nullptr;
    }
    RVON(rpc_h, TARN_ERRLN);
    if (rpc_h->type == RPC_OBJ_TYPE_SERVER)
    {
        TARN_LOG_ERROR("[%s] forbidden to send on server type rpc!", rpc_name(rpc_h));
        return TARN_ERRLN;
    }
    const rpc_pin pin(rpc_h);
    const link_pin line = rpc_hold_line(rpc_h);
    if (!line)
    {
        TARN_LOG_ERROR("[%s] has not connected!", rpc_name(rpc_h));
        return TARN_ERRLN;
    }
    TARN_LOG_DEBUG("seq_no = [%u], msg_id = [%u], msg_rsp_h = [%p]", seq_no, msg_id,
                   static_cast<void *>(rsp_msg));
    rpc_pending request = {.seq_no = seq_no,
                           .msg_id = msg_id & ~rpc_reply_bit,
                           .reply_code = 0,
                           .reply = nullptr,
                           .signal = nullptr,
                           .done = false,
                           .stop = stop};
    if (rsp_msg == nullptr)
    {
        return send_request(rpc_h, line.get(), request, msg, false, rpc_send_limit_ms) ? 0
                                                                                       : TARN_ERRLN;
    }
    if (msg != nullptr)
    {
        // Several threads may send one message.
        __atomic_store_n(&msg->rsp_flag_or_code, 1u, __ATOMIC_RELAXED);
    }
    return send_and_wait(rpc_h, line.get(), request, msg, rsp_msg, timeout_ms);
}

void rpc_free_waiters(TARN_RPC rpc)
{
    while (rpc->waiters != nullptr)
    {
        const unique_mem<rpc_waiter> waiter(std::exchange(rpc->waiters, rpc->waiters->next));
        rpc_signal_destroy(waiter->signal);
    }
}

// ---- table, under the lock --------------------------------------------------------------------------

void rpc_wake_next(TARN_RPC rpc)
{
    if (auto *const next = static_cast<rpc_pending *>(
            tarn_hash_find_if(rpc->pending, is_waiting, nullptr, nullptr)))
    {
        rpc_signal_set(next->signal);
    }
}

void rpc_wake_all(TARN_RPC rpc)
{
    tarn_hash_for_each(rpc->pending, wake_pending, nullptr, nullptr);
}

void rpc_fail_all(TARN_RPC rpc)
{
    tarn_hash_for_each(rpc->pending, fail_pending, nullptr, nullptr);
}

} // namespace tarn

int tarn_rpc_msg_send(TARN_RPC rpc_h, uint32_t seq_no, uint32_t msg_id, TARN_RPC_MSG msg,
                      TARN_RPC_MSG *rsp_msg, uint32_t timeout_ms)
{
    return tarn::rpc_msg_send_until(rpc_h, seq_no, msg_id, msg, rsp_msg, timeout_ms, nullptr);
}

int tarn_rpc_element_send(TARN_RPC rpc_h, uint32_t seq_no, uint32_t msg_id, uint16_t elm_id,
                          uint8_t elm_type, const void *value, uint32_t value_len,
                          TARN_RPC_MSG *rsp_msg, uint32_t timeout_ms)
{
    if (rsp_msg != nullptr)
    {
        *rsp_msg = nullptr;
    }
    const tarn::unique_rpc_msg msg(tarn_rpc_msg_create());
    RVON(msg, TARN_ERRLN);
    const int rc = tarn_rpc_msg_write_element_value(msg.get(), elm_id, elm_type, value, value_len);
    RVOF(0 == rc, TARN_ERRLN);
    return tarn_rpc_msg_send(rpc_h, seq_no, msg_id, msg.get(), rsp_msg, timeout_ms);
}
