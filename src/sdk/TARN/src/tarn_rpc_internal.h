// Private: the RPC record, and what its sources share; for tarn_rpc*.cpp, tests, fuzz targets and
// benchmarks.
//
// Who frees what: the record has a reference for its handle and one for every call that is inside, so
// a callback may destroy its object under the calls that led to it. The record has a reference on its
// connection's memory, and on its server's record.
//
// Line: the link of a connection that stands, with a generation number. What began on one line (a
// request that waits, half a frame, a reply to be sent) never goes on with the next.
//
// Pump: whoever runs turns of the loop, one thread at a time. It alone touches the receive state.
//
// Locks: lock guards the line, the pending table and the pump; conn_table_cs a server's table;
// receivers_cs the file receivers; all are leaves. send_cs is held while one frame is written and
// nothing else is taken under it.
#ifndef TARN_RPC_INTERNAL_H
#define TARN_RPC_INTERNAL_H

#include "tarn_rpc.h"
#include "tarn_rpc_file.h"

#include "tarn_conn_internal.h"
#include "tarn_event.h"
#include "tarn_hash.h"
#include "tarn_raii.h"
#include "tarn_rpc_msg_internal.h"
#include "tarn_rpc_port.h"
#include "tarn_thread.h"

#include <span>

namespace tarn
{

inline constexpr uint32_t rpc_reply_bit = 0x80000000u;
inline constexpr uint32_t rpc_frame_header_size = 24;
inline constexpr uint32_t rpc_body_header_size = 16; ///< what msg_len counts beside the data
inline constexpr uint32_t rpc_chunk_size = 65536;    ///< most bytes of one read
inline constexpr uint32_t rpc_read_ms = 500;
inline constexpr uint32_t rpc_keep_alive_ms = 10000;
inline constexpr uint32_t rpc_reconnect_ms = 1001; ///< from one attempt to the next
/** A peer that takes no bytes for so long is gone; it must not hold the loop for ever. */
inline constexpr uint32_t rpc_send_limit_ms = 30000;
/** Turns inside callbacks inside turns: below this, requests wait and replies alone are handled. */
inline constexpr uint32_t rpc_max_depth = 16;
/** Requests that may wait there. */
inline constexpr uint32_t rpc_max_queued = 4096;

/** A request that waits for its reply; on the stack of its sender, completed under the lock. */
struct rpc_pending
{
    uint32_t seq_no;
    uint32_t msg_id;
    int32_t reply_code;
    TARN_RPC_MSG reply; ///< until the sender takes it
    rpc_signal *signal; ///< of its waiter
    bool done;          ///< atomic; set under the lock
    const bool *stop;   ///< atomic; ends the wait; null: nothing does
};

/** What a sender waits on. It may be set late, when its sender has gone and another one has it: so it
 *  is kept for the next until the object goes, and whoever wakes looks whether there is a reason. */
struct rpc_waiter
{
    rpc_waiter *next;
    rpc_signal *signal;
};

/** A request that waits for the turns above it to end. */
struct rpc_queued
{
    rpc_queued *next;
    rpc_frame_fields fields;
    TARN_RPC_MSG msg;
};

/** The receive machine. */
struct rpc_rx_state
{
    uint8_t *chunk; ///< bytes as read; those from chunk_pos to chunk_len are not parsed yet
    uint32_t chunk_pos;
    uint32_t chunk_len;
    uint32_t header_bytes; ///< of magic and msg_len that have been seen
    uint32_t msg_len;
    uint32_t received; ///< bytes of the body that have been seen
    uint8_t *body;     ///< a body that came in pieces; grows with them, never shrinks
    uint32_t body_size;
    uint32_t generation;     ///< the line that all of this belongs to
    uint32_t since_activity; ///< bytes read since the last whole frame
    rpc_queued *queue;       ///< oldest first
    rpc_queued **queue_end;  ///< null while the queue is empty
    uint32_t queued;
};

/** What an RPC object is asked and told of files. */
struct rpc_file_callbacks
{
    tarn_rpc_on_file_recv_begin on_begin;
    tarn_rpc_on_file_recv_progress on_progress;
    tarn_rpc_on_file_recv_end on_end;
    void *begin_context; ///< the setter leaves it null, deliberately
    void *context;
};

} // namespace tarn

struct tarn_rpc
{
    tarn_handle_header header;
    char *bind_addr;
    char *bind_port;
    char *peer_addr;
    char *peer_port;
    char *name; ///< of a server
    uint32_t type;
    TARN_RPC_CALLBACK callbacks; ///< fixed before the loop runs, like context
    void *context;
    TARN_CONN_SERVER svr_h; ///< of a server
    TARN_CONN cli_h;        ///< of the others, with a reference
    TARN_THREAD thread;     ///< atomic; null: no loop thread
    uint32_t tunable;
    uint32_t frame_limit; ///< 0: none
    TARN_HASH conn_table; ///< of a server: its connections by their TARN_CONN
    TARN_CRITICAL_SECTION conn_table_cs;
    tarn::rpc_rx_state rx; ///< of the pump
    uint32_t keep_alive_ms;
    uint32_t reconnect_ms;
    uint32_t last_activity; ///< tick, atomic; 0: never
    uint32_t last_attempt;  ///< tick of a client's last connect; of the pump
    TARN_CRITICAL_SECTION lock;
    TARN_HASH pending;         ///< tarn::rpc_pending by seq_no
    tarn::rpc_waiter *waiters; ///< that nobody uses just now; under lock
    tarn::conn_link *line;     ///< with a reference; null while the connection is down
    uint32_t generation;       ///< of the line; atomic, changed under lock
    bool pumping;              ///< somebody runs turns
    uint8_t destroyed;         ///< atomic; set under lock
    uint8_t reported;          ///< atomic; server connection: its end was reported
    uint8_t detached;     ///< server connection that was turned away: the connection is not its own
    uint8_t broken_shown; ///< of the pump
    TARN_CRITICAL_SECTION send_cs;
    TARN_HASH receivers; ///< files being received, by token
    TARN_CRITICAL_SECTION receivers_cs;
    tarn::rpc_file_callbacks file;
    TARN_RPC owner;     ///< of a server connection: its server, with a reference
    uint32_t refs;      ///< atomic
    TARN_EVENT closing; ///< set by the destroy
    /** Turns that run outside the loop thread; of a server, reports of its connections' ends. */
    tarn::callback_count foreign_turns;
};
TARN_ASSERT_RECORD(tarn_rpc);

namespace tarn
{

/** Keeps an object's memory. */
class [[nodiscard]] rpc_pin
{
public:
    explicit rpc_pin(TARN_RPC rpc) : rpc_(rpc)
    {
        (void)__atomic_add_fetch(&rpc->refs, 1, __ATOMIC_RELAXED);
    }
    rpc_pin(const rpc_pin &) = delete;
    rpc_pin &operator=(const rpc_pin &) = delete;
    ~rpc_pin();

private:
    TARN_RPC rpc_;
};

/** The same by hand. */
void rpc_ref(TARN_RPC rpc);
void rpc_unref(TARN_RPC rpc);

/** False once a destroy has begun. */
inline bool rpc_is_alive(TARN_RPC rpc)
{
    return __atomic_load_n(&rpc->destroyed, __ATOMIC_ACQUIRE) == 0;
}

inline uint32_t rpc_generation(TARN_RPC rpc)
{
    return __atomic_load_n(&rpc->generation, __ATOMIC_RELAXED);
}

/** Name for log lines. */
const char *rpc_name(TARN_RPC rpc);

void rpc_touch(TARN_RPC rpc);

inline bool rpc_is_done(const rpc_pending &request)
{
    return __atomic_load_n(&request.done, __ATOMIC_ACQUIRE);
}

/* ---- tarn_rpc.cpp ------------------------------------------------------------------------------- */

/** A new object of a type, with its reference for the handle; null when memory ran out. */
TARN_RPC rpc_make(uint32_t type, const TARN_RPC_CALLBACK *callbacks, void *context);

/** Give an object that nobody knows yet back. */
void rpc_discard(TARN_RPC rpc);

/** The connection stands: a new line. */
void rpc_line_up(TARN_RPC rpc);

/** The line is gone: requests that wait on it fail, files that are being received are closed. Does
 *  nothing while it is down. */
void rpc_line_lost(TARN_RPC rpc);

/** The line, held; empty while it is down. */
link_pin rpc_hold_line(TARN_RPC rpc);

/** End a line that is of no more use. The pump notices and reports it; without a loop thread the
 *  caller does. */
void rpc_line_fail(TARN_RPC rpc, conn_link *line);

/** The object's loop thread. */
TARN_THREAD rpc_thread(TARN_RPC rpc);

/** Become the pump. @return false while another thread is */
bool rpc_pump_take(TARN_RPC rpc);
/** @param hand_over  wake a sender that waits, to run the turns */
void rpc_pump_give(TARN_RPC rpc, bool hand_over);

/* ---- tarn_rpc_send.cpp -------------------------------------------------------------------------- */

/** Write a frame.
 *  @param data        may be empty
 *  @param timeout_ms  of each 64 KiB of it
 *  @return bytes written; negative, with the failing part logged and errno kept */
int64_t rpc_send_frame(TARN_RPC rpc, conn_link *line, uint32_t seq_no, uint32_t msg_id,
                       uint32_t rsp_flag_or_code, std::span<const uint8_t> data,
                       uint32_t timeout_ms);

/** tarn_rpc_msg_send() with a reply that its caller may give up: within a tenth of a second after stop
 *  (atomic) has become true; the line is kept then. */
int rpc_msg_send_until(TARN_RPC rpc, uint32_t seq_no, uint32_t msg_id, TARN_RPC_MSG msg,
                       TARN_RPC_MSG *rsp_msg, uint32_t timeout_ms, const bool *stop);

/** Hand a reply to the request that waits for it; takes the message over. */
void rpc_complete(TARN_RPC rpc, const rpc_frame_fields &fields, TARN_RPC_MSG msg);

/** Free the waiters, of which none is in use any more. */
void rpc_free_waiters(TARN_RPC rpc);

/** Under the lock: wake one request that waits, or all, or let all fail. */
void rpc_wake_next(TARN_RPC rpc);
void rpc_wake_all(TARN_RPC rpc);
void rpc_fail_all(TARN_RPC rpc);

/* ---- tarn_rpc_rx.cpp ---------------------------------------------------------------------------- */

/** How deep the calling thread is inside turns of this object; 0: outside. */
uint32_t rpc_turn_depth(const tarn_rpc *rpc);

/** One turn of the loop, by the pump.
 *  @param wait_ms  longest read
 *  @param until    stop parsing when this request is done; may be null */
void rpc_conn_turn(TARN_RPC rpc, uint32_t wait_ms, const rpc_pending *until);

/** Parse bytes that were read from a line, and handle the frames that become whole. */
void rpc_rx_fsm(TARN_RPC rpc, conn_link *line, const rpc_pending *until);

/** Forget what was received of a line. */
void rpc_rx_reset(TARN_RPC rpc);
/** Free the buffers too. */
void rpc_rx_free(TARN_RPC rpc);

/* ---- tarn_rpc_server.cpp ------------------------------------------------------------------------ */

/** Take a server connection out of its server's table, if it is there. */
void rpc_leave_table(TARN_RPC rpc);

/** Report the end of a server connection, once: its callback, or its destroy. */
void rpc_report_end(TARN_RPC rpc);

/* ---- tarn_rpc_file_recv.cpp --------------------------------------------------------------------- */

int on_rpc_file_recv_begin(TARN_RPC rpc, TARN_RPC_MSG request, TARN_RPC_MSG reply);
int on_rpc_file_recv_block(TARN_RPC rpc, TARN_RPC_MSG request, TARN_RPC_MSG reply);
int on_rpc_file_recv_end(TARN_RPC rpc, TARN_RPC_MSG request, TARN_RPC_MSG reply);

/** Close all files that an object is receiving, and remember how far they came. */
void rpc_close_receivers(TARN_RPC rpc);

} // namespace tarn

#endif
