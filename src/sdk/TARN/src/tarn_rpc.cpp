// RPC endpoints: the object, its life, its line and its loop. Sending is in tarn_rpc_send.cpp,
// receiving in tarn_rpc_rx.cpp, servers in tarn_rpc_server.cpp, files in tarn_rpc_file*.cpp.

#include "tarn_rpc.h"

#include "tarn_check.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_rpc_internal.h"
#include "tarn_str.h"
#include "tarn_sys.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace
{

using tarn::conn_link;
using tarn::critical_section_guard;
using tarn::link_pin;
using tarn::rpc_pin;

// ---- record ---------------------------------------------------------------------------------------

void free_record(TARN_RPC rpc)
{
    if (rpc->cli_h != nullptr)
    {
        tarn::conn_unref(rpc->cli_h);
    }
    tarn::rpc_rx_free(rpc);
    tarn::rpc_free_waiters(rpc);
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
    // A callback may have stopped this thread: senders that wait run the turns from then on.
    const tarn::scope_exit give(
        [&] { tarn::rpc_pump_give(rpc, tarn::rpc_thread(rpc) == TARN_INVALID_HANDLE); });
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
    tarn::rpc_wake_all(rpc);
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
        (void)__atomic_add_fetch(&rpc->generation, 1, __ATOMIC_RELAXED);
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
        (void)__atomic_add_fetch(&rpc->generation, 1, __ATOMIC_RELAXED);
        rpc_fail_all(rpc);
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
        rpc_wake_next(rpc);
    }
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
