// RPC endpoints: the object, its life, its line, and requests. Receiving is in tarn_rpc_rx.cpp,
// servers in tarn_rpc_server.cpp, files in tarn_rpc_file*.cpp.

#include "tarn_rpc.h"

#include "tarn_check.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_rpc_internal.h"
#include "tarn_str.h"
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

// ---- record ---------------------------------------------------------------------------------------

void free_record(TARN_RPC rpc)
{
    if (rpc->cli_h != nullptr)
    {
        tarn::conn_unref(rpc->cli_h);
    }
    tarn::rpc_rx_free(rpc);
    tarn_hash_destroy(rpc->pending);
    tarn_hash_destroy(rpc->receivers);
    tarn_hash_destroy(rpc->conn_table);
    tarn_critical_section_destroy(rpc->lock);
    tarn_critical_section_destroy(rpc->receivers_cs);
    tarn_critical_section_destroy(rpc->conn_table_cs);
    tarn_critical_section_destroy(rpc->send_cs);
    tarn_event_destroy(rpc->closing);
    tarn_mem_free(rpc->bind_addr);
    tarn_mem_free(rpc->bind_port);
    tarn_mem_free(rpc->peer_addr);
    tarn_mem_free(rpc->peer_port);
    tarn_mem_free(rpc->name);
    if (rpc->owner != nullptr)
    {
        tarn::rpc_unref(rpc->owner);
    }
    tarn_mem_free(rpc);
}

void take_callbacks(TARN_RPC rpc, const TARN_RPC_CALLBACK *callbacks, void *context)
{
    if (callbacks == nullptr)
    {
        return;
    }
    if (callbacks->size < sizeof *callbacks)
    {
        TARN_LOG_WARN("TARN_RPC_CALLBACK size too small!");
        return;
    }
    rpc->callbacks = *callbacks;
    rpc->callbacks.size = sizeof *callbacks;
    rpc->context = context;
}

// ---- callbacks of a client's connection -------------------------------------------------------------

int on_client_connect(TARN_CONN, void *context)
{
    auto *const rpc = static_cast<TARN_RPC>(context);
    const rpc_pin pin(rpc);
    tarn::rpc_line_up(rpc);
    if (rpc->callbacks.on_connected != nullptr)
    {
        rpc->callbacks.on_connected(rpc, rpc->context);
    }
    return 0;
}

void on_client_disconnect(TARN_CONN, void *context)
{
    auto *const rpc = static_cast<TARN_RPC>(context);
    const rpc_pin pin(rpc);
    TARN_LOG_TRACE("[%s] rpc = [%p]", tarn::rpc_name(rpc), static_cast<void *>(rpc));
    tarn::rpc_line_lost(rpc);
    if (rpc->callbacks.on_disconnected != nullptr)
    {
        rpc->callbacks.on_disconnected(rpc, rpc->context);
    }
}

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

// ---- requests -----------------------------------------------------------------------------------------

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

bool is_waiting(const void *, void *value, void *, void *)
{
    return !tarn::rpc_is_done(*static_cast<rpc_pending *>(value));
}

/** Set the event of one request that waits. */
void wake_next(TARN_RPC rpc)
{
    if (auto *const next = static_cast<rpc_pending *>(
            tarn_hash_find_if(rpc->pending, is_waiting, nullptr, nullptr)))
    {
        (void)tarn_event_set(next->event);
    }
}

/** Take a request out of the table again; from here on nobody else touches it. Its sender may have
 *  been chosen to run the turns: another one is then. */
void remove_pending(TARN_RPC rpc, rpc_pending &request)
{
    const critical_section_guard guard(rpc->lock);
    (void)tarn_hash_remove_ex(rpc->pending, &request.seq_no, sizeof request.seq_no);
    if (!rpc->pumping && tarn::rpc_thread(rpc) == TARN_INVALID_HANDLE)
    {
        wake_next(rpc);
    }
}

void wake_pending(uint32_t, const void *, void *value, void *, void *)
{
    (void)tarn_event_set(static_cast<rpc_pending *>(value)->event);
}

void fail_pending(uint32_t, const void *, void *value, void *, void *)
{
    auto *const request = static_cast<rpc_pending *>(value);
    if (!request->done)
    {
        request->reply_code = TARN_ERRLN;
        __atomic_store_n(&request->done, true, __ATOMIC_RELEASE);
        (void)tarn_event_set(request->event);
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

/** One step of a wait for a reply: a turn, when this thread is to run them, else a wait on the event;
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
        (void)tarn_event_wait(request.event, left_ms);
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
    const tarn::unique_handle<TARN_EVENT, tarn_event_destroy> event(
        tarn_event_create(false, false));
    RVON(event, TARN_ERRLN);
    request.event = event.get();
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

// ---- loop ---------------------------------------------------------------------------------------------

void *rpc_conn_proc(void *arg, void *)
{
    auto *const rpc = static_cast<TARN_RPC>(arg);
    const rpc_pin pin(rpc);
    // Not before the starter has stored the thread, which a destroy inside a callback has to find;
    // nor while a sender finishes a turn of its own.
    if (tarn::rpc_thread(rpc) == TARN_INVALID_HANDLE || !tarn::rpc_pump_take(rpc))
    {
        (void)tarn_thread_sleep(1);
        return nullptr;
    }
    const tarn::scope_exit give([&] { tarn::rpc_pump_give(rpc, false); });
    tarn::rpc_conn_turn(rpc, tarn::rpc_read_ms, nullptr);
    return nullptr;
}

/** A turn on a thread that is not the object's own. */
int run_foreign_turn(TARN_RPC rpc)
{
    if (tarn::rpc_turn_depth(rpc) != 0)
    {
        tarn::rpc_conn_turn(rpc, tarn::rpc_read_ms, nullptr);
        return 0;
    }
    RVOF_TEXT(TARN_INVALID_HANDLE == tarn::rpc_thread(rpc), TARN_ERRLN,
              "RVOF(TARN_INVALID_HANDLE == rpc->thread,TARN_ERRLN)");
    if (!tarn::rpc_pump_take(rpc))
    {
        (void)tarn_event_wait(rpc->closing, 10); // a sender runs the turns just now
        return 0;
    }
    const tarn::scope_exit give([&] { tarn::rpc_pump_give(rpc, true); });
    tarn::count_callback(rpc->foreign_turns);
    const tarn::callback_scope scope(rpc->foreign_turns);
    tarn::rpc_conn_turn(rpc, tarn::rpc_read_ms, nullptr);
    return 0;
}

int start_conn_loop(TARN_RPC rpc)
{
    RVOF_TEXT(TARN_INVALID_HANDLE == tarn::rpc_thread(rpc), TARN_ERRLN,
              "RVOF(TARN_INVALID_HANDLE == rpc->thread,TARN_ERRLN)");
    TARN_THREAD thread = tarn_thread_start(rpc_conn_proc, rpc, nullptr, 0, "rpc_conn_proc");
    RVOF_TEXT(thread != TARN_INVALID_HANDLE, TARN_ERRLN,
              "RVOF(rpc->thread != TARN_INVALID_HANDLE,TARN_ERRLN)");
    TARN_THREAD none = nullptr;
    if (!__atomic_compare_exchange_n(&rpc->thread, &none, thread, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE))
    {
        tarn_thread_stop(thread); // another one was quicker
        return TARN_ERRLN;
    }
    return 0;
}

/** Stop the loop thread; senders that wait run the turns from then on.
 *  @return false when there is none */
bool stop_conn_loop(TARN_RPC rpc)
{
    TARN_THREAD thread = __atomic_exchange_n(&rpc->thread, nullptr, __ATOMIC_ACQ_REL);
    if (thread == TARN_INVALID_HANDLE)
    {
        return false;
    }
    tarn_thread_stop(thread);
    const critical_section_guard guard(rpc->lock);
    tarn_hash_for_each(rpc->pending, wake_pending, nullptr, nullptr);
    return true;
}

/** Mark as destroyed. @return false when it is marked already */
bool begin_destroy(TARN_RPC rpc)
{
    const critical_section_guard guard(rpc->lock);
    return __atomic_exchange_n(&rpc->destroyed, uint8_t{1}, __ATOMIC_ACQ_REL) == 0;
}

void destroy_conn(TARN_RPC rpc)
{
    // First what wakes the others, then the waits: callbacks that wait for replies, and the loop
    // thread's read or connect, end by themselves now.
    tarn::rpc_line_lost(rpc);
    if (rpc->detached != 0)
    {
        tarn::conn_abort(rpc->cli_h);
    }
    else if (rpc->cli_h != nullptr)
    {
        tarn_conn_destroy(rpc->cli_h);
    }
    (void)stop_conn_loop(rpc);
    tarn::wait_for_callbacks(rpc->foreign_turns);
    tarn::rpc_leave_table(rpc);
    tarn::rpc_close_receivers(rpc);
}

} // namespace

namespace tarn
{

// ---- references -----------------------------------------------------------------------------------

void rpc_ref(TARN_RPC rpc)
{
    (void)__atomic_add_fetch(&rpc->refs, 1, __ATOMIC_RELAXED);
}

void rpc_unref(TARN_RPC rpc)
{
    if (__atomic_sub_fetch(&rpc->refs, 1, __ATOMIC_ACQ_REL) == 0)
    {
        free_record(rpc);
    }
}

rpc_pin::~rpc_pin()
{
    rpc_unref(rpc_);
}

// ---- making ---------------------------------------------------------------------------------------

TARN_RPC rpc_make(uint32_t type, const TARN_RPC_CALLBACK *callbacks, void *context)
{
    auto owner = make_object<tarn_rpc>(TARN_HANDLE_TYPE_RPC);
    RVON(owner, NULL);
    TARN_RPC rpc = owner.release();
    rpc->type = type;
    rpc->refs = 1;
    rpc->tunable = 100;
    rpc->keep_alive_ms = rpc_keep_alive_ms;
    rpc->reconnect_ms = rpc_reconnect_ms;
    rpc->lock = tarn_critical_section_create();
    rpc->send_cs = tarn_critical_section_create();
    rpc->receivers_cs = tarn_critical_section_create();
    rpc->pending = tarn_hash_create(0);
    rpc->receivers = tarn_hash_create(0);
    rpc->closing = tarn_event_create(true, false);
    const bool table_made =
        type != RPC_OBJ_TYPE_SERVER ||
        ((rpc->conn_table = tarn_hash_create(0)) != TARN_INVALID_HANDLE &&
         (rpc->conn_table_cs = tarn_critical_section_create()) != TARN_INVALID_HANDLE);
    if (!table_made || rpc->lock == TARN_INVALID_HANDLE || rpc->send_cs == TARN_INVALID_HANDLE ||
        rpc->receivers_cs == TARN_INVALID_HANDLE || rpc->pending == TARN_INVALID_HANDLE ||
        rpc->receivers == TARN_INVALID_HANDLE || rpc->closing == TARN_INVALID_HANDLE)
    {
        rpc_unref(rpc);
        return nullptr;
    }
    take_callbacks(rpc, callbacks, context);
    return rpc;
}

void rpc_discard(TARN_RPC rpc)
{
    rpc_unref(rpc);
}

const char *rpc_name(TARN_RPC rpc)
{
    return rpc->type == RPC_OBJ_TYPE_SERVER ? rpc->name : tarn_conn_name(rpc->cli_h);
}

TARN_THREAD rpc_thread(TARN_RPC rpc)
{
    return __atomic_load_n(&rpc->thread, __ATOMIC_ACQUIRE);
}

void rpc_touch(TARN_RPC rpc)
{
    __atomic_store_n(&rpc->last_activity, tarn_tick_ms(), __ATOMIC_RELAXED);
}

// ---- line -------------------------------------------------------------------------------------------

void rpc_line_up(TARN_RPC rpc)
{
    rpc_line_lost(rpc);
    const link_pin link = conn_hold_link(rpc->cli_h);
    const critical_section_guard guard(rpc->lock);
    if (link && rpc->destroyed == 0)
    {
        __atomic_store_n(&link->send_limit_ms, rpc_send_limit_ms, __ATOMIC_RELAXED);
        link_ref(link.get());
        rpc->line = link.get();
        ++rpc->generation;
    }
}

void rpc_line_lost(TARN_RPC rpc)
{
    conn_link *lost = nullptr;
    {
        const critical_section_guard guard(rpc->lock);
        lost = std::exchange(rpc->line, nullptr);
        if (lost == nullptr)
        {
            return;
        }
        ++rpc->generation;
        tarn_hash_for_each(rpc->pending, fail_pending, nullptr, nullptr);
    }
    rpc_close_receivers(rpc);
    link_unref(lost);
}

link_pin rpc_hold_line(TARN_RPC rpc)
{
    const critical_section_guard guard(rpc->lock);
    if (rpc->line == nullptr || socket_is_shut_down(rpc->line->sock))
    {
        return {};
    }
    link_ref(rpc->line);
    return link_pin(rpc->line);
}

void rpc_line_fail(TARN_RPC rpc, conn_link *line)
{
    if (rpc_turn_depth(rpc) == 0)
    {
        bool pumped = rpc_thread(rpc) != TARN_INVALID_HANDLE;
        {
            const critical_section_guard guard(rpc->lock);
            pumped = pumped || rpc->pumping;
        }
        if (pumped)
        {
            socket_abort(line->slot); // the pump's read fails
            return;
        }
    }
    conn_disconnect_link(rpc->cli_h, line);
}

// ---- pump -------------------------------------------------------------------------------------------

bool rpc_pump_take(TARN_RPC rpc)
{
    const critical_section_guard guard(rpc->lock);
    return !std::exchange(rpc->pumping, true);
}

void rpc_pump_give(TARN_RPC rpc, bool hand_over)
{
    const critical_section_guard guard(rpc->lock);
    rpc->pumping = false;
    if (hand_over)
    {
        wake_next(rpc);
    }
}

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
    const send_part parts[] = {{header, sizeof header}, {data.data(), data.size()}};
    int64_t written = 0;
    int error = 0;
    {
        const critical_section_guard guard(rpc->send_cs);
        written =
            conn_write_link_parts(rpc->cli_h, line, {parts, data.empty() ? 1u : 2u}, timeout_ms);
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
    bool taken = false;
    {
        const critical_section_guard guard(rpc->lock);
        if (tarn_hash_find_ex(rpc->pending, &fields.seq_no, sizeof fields.seq_no, &found))
        {
            auto *const request = static_cast<rpc_pending *>(found);
            // The answer to a keep-alive has number 0 too, and a peer may answer twice.
            taken = request->msg_id == fields.msg_id && !request->done;
            if (taken)
            {
                request->reply = reply.release();
                request->reply_code = static_cast<int32_t>(fields.rsp_flag_or_code);
                __atomic_store_n(&request->done, true, __ATOMIC_RELEASE);
                (void)tarn_event_set(request->event);
            }
        }
    }
    TARN_LOG_DEBUG("[%s] this is a reply message, find pending request = [%p]", rpc_name(rpc),
                   found);
    if (taken)
    {
        TARN_LOG_DEBUG("[%s] set event to rsp with seq_no [%u]", rpc_name(rpc), fields.seq_no);
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
                           .event = nullptr,
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

} // namespace tarn

// ---- life ---------------------------------------------------------------------------------------------

int tarn_rpc_client_create(const struct tlsu_credentials *secret, const char *bind_addr,
                           const char *bind_port, const char *peer_addr, const char *peer_port,
                           uint32_t timeout, const TARN_RPC_CALLBACK *callbacks, void *context,
                           TARN_RPC *rpc_h)
{
    RVON(rpc_h, TARN_ERRLN);
    TARN_RPC rpc = tarn::rpc_make(RPC_OBJ_TYPE_CLIENT, callbacks, context);
    RVON(rpc, TARN_ERRLN);
    const auto copy = [](const char *text) {
        return text != nullptr ? tarn_str_dup(text) : nullptr;
    };
    rpc->bind_addr = copy(bind_addr);
    rpc->bind_port = copy(bind_port);
    rpc->peer_addr = copy(peer_addr);
    rpc->peer_port = copy(peer_port);
    rpc->cli_h = tarn_conn_create(secret, bind_addr, bind_port, peer_addr, peer_port, timeout,
                                  on_client_connect, on_client_disconnect, rpc);
    if (rpc->cli_h == TARN_INVALID_HANDLE)
    {
        tarn::rpc_discard(rpc);
        TARN_CHECK_FAILED("RVON(rpc,TARN_ERRLN)");
        return TARN_ERRLN;
    }
    tarn::conn_ref(rpc->cli_h);
    *rpc_h = rpc;
    return 0;
}

void tarn_rpc_destroy(TARN_RPC rpc_h)
{
    if (rpc_h == nullptr)
    {
        return;
    }
    const rpc_pin pin(rpc_h);
    if (!begin_destroy(rpc_h))
    {
        return; // under way; this is a callback of its, or another thread that came second
    }
    TARN_LOG_TRACE("rpc_h = [%p]", static_cast<void *>(rpc_h));
    (void)tarn_event_set(rpc_h->closing);
    if (rpc_h->type == RPC_OBJ_TYPE_SERVER)
    {
        tarn_conn_server_destroy(rpc_h->svr_h);
        tarn::wait_for_callbacks(rpc_h->foreign_turns);
    }
    else
    {
        TARN_LOG_TRACE("[%s]", tarn::rpc_name(rpc_h));
        destroy_conn(rpc_h);
    }
    tarn::rpc_unref(rpc_h); // the handle's
}

// ---- loop ---------------------------------------------------------------------------------------------

int tarn_rpc_loop_start(TARN_RPC rpc_h)
{
    RVON(rpc_h, TARN_ERRLN);
    switch (rpc_h->type)
    {
    case RPC_OBJ_TYPE_SERVER:
        return tarn_conn_server_loop_start(rpc_h->svr_h);
    case RPC_OBJ_TYPE_SERVER_CONN:
    case RPC_OBJ_TYPE_CLIENT:
        return start_conn_loop(rpc_h);
    default:
        return TARN_ERRLN;
    }
}

int tarn_rpc_loop_stop(TARN_RPC rpc_h)
{
    RVON(rpc_h, TARN_ERRLN);
    if (rpc_h->type == RPC_OBJ_TYPE_SERVER)
    {
        tarn_conn_server_loop_stop(rpc_h->svr_h);
        return 0;
    }
    RVOF_TEXT(stop_conn_loop(rpc_h), TARN_ERRLN,
              "RVOF(rpc->thread != TARN_INVALID_HANDLE,TARN_ERRLN)");
    return 0;
}

int tarn_rpc_loop(TARN_RPC rpc_h)
{
    RVON(rpc_h, TARN_ERRLN);
    const rpc_pin pin(rpc_h);
    switch (rpc_h->type)
    {
    case RPC_OBJ_TYPE_SERVER:
        return tarn_conn_server_loop(rpc_h->svr_h);
    case RPC_OBJ_TYPE_SERVER_CONN:
    case RPC_OBJ_TYPE_CLIENT:
        return run_foreign_turn(rpc_h);
    default:
        return -1000;
    }
}

bool tarn_rpc_is_connected(TARN_RPC rpc_h)
{
    RVON(rpc_h, false);
    if (rpc_h->type == RPC_OBJ_TYPE_SERVER)
    {
        return rpc_h->svr_h != nullptr;
    }
    RVON_TEXT(rpc_h->cli_h, false, "RVON(rpc->conn.cli_h,false)");
    return static_cast<bool>(tarn::rpc_hold_line(rpc_h));
}

// ---- sending ------------------------------------------------------------------------------------------

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

// ---- accessors ------------------------------------------------------------------------------------------

const char *tarn_rpc_name(TARN_RPC rpc_h)
{
    RVON(rpc_h, NULL);
    return tarn::rpc_name(rpc_h);
}

uint32_t tarn_rpc_type(TARN_RPC rpc_h)
{
    RVON(rpc_h, 0);
    return rpc_h->type;
}

TARN_CONN tarn_rpc_conn(TARN_RPC rpc_h)
{
    RVON(rpc_h, NULL);
    return rpc_h->cli_h;
}

const char *tarn_rpc_peer_address(TARN_RPC rpc_h)
{
    RVON(rpc_h, NULL);
    return rpc_h->cli_h != nullptr ? tarn_conn_peer_endpoint(rpc_h->cli_h) : nullptr;
}

void *tarn_rpc_context(TARN_RPC rpc_h)
{
    RVON(rpc_h, NULL);
    return rpc_h->context;
}

int tarn_rpc_set_tunable(TARN_RPC rpc_h, uint32_t value)
{
    RVON(rpc_h, -1);
    RVOZ(value, -1);
    rpc_h->tunable = value;
    return 0;
}

uint32_t tarn_rpc_get_tunable(TARN_RPC rpc_h)
{
    RVON(rpc_h, 0);
    return rpc_h->tunable;
}

void tarn_rpc_set_frame_limit(TARN_RPC rpc_h, uint32_t max_bytes)
{
    RON(rpc_h);
    __atomic_store_n(&rpc_h->frame_limit, max_bytes, __ATOMIC_RELAXED);
}

// ---- module -------------------------------------------------------------------------------------------

bool tarn_rpc_init(void)
{
    return true; // the element sizes are a compile-time table
}

void tarn_rpc_uninit(void) {}
