// Private: records and steps of local IPC; for tarn_ipc*.cpp and the tests.
//
// Locks, outer to inner: a server's lock; a line's send lock; a connection's lock. The send lock is
// held while a frame goes out, the others only round changes of fields.
#ifndef TARN_IPC_INTERNAL_H
#define TARN_IPC_INTERNAL_H

#include "tarn_ipc.h"

#include "tarn_conn_internal.h"
#include "tarn_critical_section.h"
#include "tarn_event.h"
#include "tarn_list.h"
#include "tarn_raii.h"
#include "tarn_socket_internal.h"
#include "tarn_thread.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace tarn
{

/* ---- the wire ---------------------------------------------------------------------------------- */

inline constexpr uint32_t ipc_max_data = 524288; ///< bytes of a frame's payload
inline constexpr uint32_t ipc_payload_head = 8;  ///< function number and one word
inline constexpr uint32_t ipc_frame_head = 9;    ///< begin tag, number, command, length
/** Bytes of arguments: what is left beside the head and the terminating zero. */
inline constexpr uint32_t ipc_max_args = ipc_max_data - ipc_payload_head - 1;
/** Values of a list from a peer: a value takes 64 bytes in memory, whatever it took in the frame. */
inline constexpr uint32_t ipc_max_values = 131072;

#define TARN_IPC_COMM_BEGIN_TAG "STX"
#define TARN_IPC_COMM_END_TAG "ETX"
/** Greeting of a server, its terminating zero included. */
#define TARN_IPC_NEGOTIATION "TARN_IPC_NEGOTIATION"
inline constexpr size_t ipc_greeting_size = sizeof TARN_IPC_NEGOTIATION;
static_assert(ipc_greeting_size == 21);

enum ipc_command : uint8_t
{
    ipc_heartbeat = 1,
    ipc_request = 2,
    ipc_response = 3,
    ipc_post = 4
};

/** A frame in memory, and the form of a request buffer: the payload goes on behind the record. */
struct IPC_COMM_DATA
{
    uint8_t seq_num;
    uint8_t cmd;
    uint32_t data_len; ///< in the order of the host
    uint8_t need_response;
    uint8_t data_buf[3];
};
static_assert(sizeof(IPC_COMM_DATA) == TARN_IPC_REQUEST_BUFFER_MIN);
static_assert(offsetof(IPC_COMM_DATA, data_buf) == ipc_frame_head);
static_assert(ipc_max_data + sizeof(IPC_COMM_DATA) == TARN_IPC_REQUEST_BUFFER_MAX);

/* ---- records ----------------------------------------------------------------------------------- */

struct ipc_conn;
struct ipc_server;

enum ipc_number : uint8_t
{
    ipc_number_free = 0,
    ipc_number_used,
    /** Its call gave up, and the answer may still come: used again only when no other is free. */
    ipc_number_late
};

/** One standing of a connection: a socket and all that ends with it. Counted, so that a handler or
 *  a caller of a line that was lost never touches the next one. */
struct ipc_line
{
    uint32_t refs; ///< atomic
    /** Written under both locks, read under either; the receiving thread closes it. */
    TARN_SOCKET sock;
    TARN_CRITICAL_SECTION send_lock; ///< whole frames
    uint32_t senders;                ///< atomic: threads that send or wait for it
    uint8_t dead;                    ///< atomic: nothing more is sent
    uint8_t last_number;             ///< this and the table: under the connection's lock
    uint8_t numbers[256];            ///< ipc_number
};

/** A call that waits, on its caller's stack; all under the connection's lock. */
struct ipc_pending
{
    uint32_t func_id;
    uint8_t seq_num;
    bool done; ///< answered; set without: the line was lost
    bool linked;
    int32_t return_value;
    TARN_DATA args_out;
    uint64_t ticket; ///< tells it from later calls with its number
    TARN_EVENT event;
};

/** A frame that came, on its way to its handler. One block with the payload. */
struct ipc_frame
{
    ipc_frame *next;
    ipc_conn *conn; ///< with a reference while it is in the pool
    ipc_line *line; ///< it came on; with a reference
    uint32_t refusals;
    uint32_t refused_at; ///< tick
    IPC_COMM_DATA comm;
};

/** The receive machine. Of the receiving thread alone. */
struct ipc_receiver
{
    uint32_t state; ///< 0 hunt, 1 begin tag, 2 number, 3 command, 4 length, 5 data, 6 end tag
    uint32_t index; ///< in the field
    uint8_t seq_num;
    uint8_t cmd;
    uint32_t data_len;
    ipc_frame *frame; ///< from the length on; kept when a frame is dropped that it can hold
    uint32_t room;    ///< payload bytes that frame can hold
    uint8_t discard;  ///< ipc_discard
};

enum ipc_discard : uint8_t
{
    ipc_discard_none = 0,
    ipc_discard_frame, ///< until the machine hunts again
    ipc_discard_all
};

enum ipc_status : uint32_t
{
    ipc_disconnected = 0,
    ipc_connected = 1,
    ipc_broken = 3
};

inline constexpr size_t ipc_name_size = 110;

struct ipc_conn
{
    tarn_handle_header header;
    uint32_t refs; ///< atomic: the handle, frames in the pool, callers, the thread's pass
    char callee[ipc_name_size];
    char caller[ipc_name_size];
    char caller_text[ipc_name_size]; ///< for log lines: the peer chose the name
    tarn_ipc_callbacks cb;
    ipc_server *server;          ///< with a reference; null: a client's
    TARN_THREAD thread;          ///< atomic
    TARN_EVENT admitted;         ///< manual: the server lets frames in
    connect_slot slot;           ///< shows the connecting socket
    TARN_CRITICAL_SECTION lock;  ///< guards the fields down to tickets
    ipc_line *line;              ///< stays after a loss until the next
    TARN_LIST request_list;      ///< of ipc_pending; null: released
    uint8_t greeted;             ///< frames may go out
    uint8_t reported;            ///< on_connected was called, on_disconnected not yet
    uint64_t tickets;            ///< given out
    uint32_t status;             ///< ipc_status; atomic, written under lock
    uint8_t closing;             ///< atomic, written under lock
    uint8_t auto_connect;        ///< fixed
    uint32_t last_activity_tick; ///< atomic
    callback_count callbacks;
    /* of the receiving thread */
    ipc_receiver receiver;
    ipc_frame *parked; ///< requests that the pool refused, oldest first
    uint32_t parked_count;
    uint8_t *buffer;
};
TARN_ASSERT_RECORD(ipc_conn);

struct ipc_server
{
    tarn_handle_header header;
    uint32_t refs; ///< atomic: the handle, connections, the thread's pass
    char name[ipc_name_size];
    tarn_ipc_server_callbacks cb;
    TARN_SOCKET sock;
    TARN_THREAD thread;         ///< atomic
    TARN_CRITICAL_SECTION lock; ///< guards conn_list
    TARN_LIST conn_list;
    uint8_t closing;          ///< atomic, written under lock
    callback_count callbacks; ///< its own and those of its connections
};
TARN_ASSERT_RECORD(ipc_server);
static_assert(sizeof(ipc_server) != sizeof(ipc_conn), "the size tells a server from a connection");

inline TARN_IPC handle_of(ipc_conn *conn)
{
    return reinterpret_cast<TARN_IPC>(conn);
}
inline TARN_IPC handle_of(ipc_server *svr)
{
    return reinterpret_cast<TARN_IPC>(svr);
}
/** The record of a handle; null when it is of another kind. */
ipc_conn *ipc_conn_of(TARN_IPC handle);
ipc_server *ipc_server_of(TARN_IPC handle);

template <typename T>
T ipc_load(const T &field)
{
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}
template <typename T>
void ipc_store(T &field, std::type_identity_t<T> value)
{
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

/* ---- times and limits: a test changes them while no server and no connection exists -------------- */

struct ipc_limits
{
    uint32_t response_ms = 30000; ///< a call waits so long
    uint32_t slice_ms = 1000;     ///< it looks at the clock so often
    uint32_t connect_ms = 5000;
    uint32_t greeting_ms = 3000;
    uint32_t start_ms = 3000;  ///< a thread has to run by then
    uint32_t send_ms = 5000;   ///< for one frame, while the peer does not read
    uint32_t retry_ms = 300;   ///< between attempts to start a request handler
    uint32_t accept_ms = 1000; ///< between looks for a dead connection
    uint32_t resolve_ms = 200; ///< between questions for the callbacks of a caller
    uint32_t reconnect_ms = 1000;
    /** Runs handlers in place of the pool, for tests of the receive machine by itself. */
    bool handle_inline = false;
};
extern ipc_limits ipc_limit;

inline constexpr uint32_t ipc_pool_size = 256;
inline constexpr uint32_t ipc_max_requests = 300;
inline constexpr uint32_t ipc_max_attempts = 3;
/** Refused requests that a connection keeps; with this many it reads on only after they moved. */
inline constexpr uint32_t ipc_max_parked = 32;
/** With so many threads stuck in sending to a peer, its requests count as refused: one that sends
 *  requests and reads no answers does not get the whole pool. */
inline constexpr uint32_t ipc_max_senders = 64;
/** Answers up to this size are taken in by the receiving thread itself, which saves a wake-up;
 *  longer ones take long enough to read that other answers should not wait for them. */
inline constexpr uint32_t ipc_inline_response = 16384;
inline constexpr uint32_t ipc_buffer_size = 65536;

/* ---- frames: tarn_ipc_frame.cpp ------------------------------------------------------------------- */

/** The payload of a frame. */
inline uint8_t *ipc_payload(ipc_frame *frame)
{
    return reinterpret_cast<uint8_t *>(frame) + offsetof(ipc_frame, comm) + ipc_frame_head;
}
void ipc_frame_free(ipc_frame *frame);
using frame_owner = unique_handle<ipc_frame *, ipc_frame_free>;

/** Bytes that a list takes in its byte form; 0 when it is not complete or exceeds the limits. */
uint32_t ipc_args_size(TARN_DATA args);

/** Read the arguments behind a payload's head.
 *  @param rest  with the terminator
 *  @param out   null when there are none
 *  @return false when they are malformed */
bool ipc_read_args(std::span<const uint8_t> rest, TARN_DATA *out);

/** Send one frame, in one system call where the socket takes it.
 *  @param word  second word of the payload: what the caller wants, or the return value
 *  @param rest  the payload behind it
 *  @return false when it did not go out whole: the line is of no use any more then */
bool ipc_send_comm_data(ipc_conn *conn, ipc_line *line, uint8_t seq_num, uint8_t cmd,
                        uint32_t func_id, uint32_t word, std::span<const uint8_t> rest);

/** Feed the receive machine.
 *  @return bytes taken; 0 on failure */
size_t ipc_conn_recv_fsm(ipc_conn *conn, const uint8_t *bytes, size_t len);

/** Feed it all of a chunk, and reset it after a failure. */
void ipc_feed(ipc_conn *conn, std::span<const uint8_t> chunk);

/** Back to hunting, with no frame begun. */
void ipc_receiver_reset(ipc_conn *conn);

/** Try again to start handlers of requests that were refused, where it is time.
 *  @return milliseconds to the next try; TARN_INFINITE when nothing is parked */
uint32_t ipc_retry_parked(ipc_conn *conn);

/* ---- handlers: tarn_ipc_call.cpp ------------------------------------------------------------------ */

void ipc_request_handler(ipc_conn *conn, frame_owner frame);
void ipc_response_handler(ipc_conn *conn, frame_owner frame);

/** Take a free sequence number; under the connection's lock.
 *  @return 0 when there is none */
uint8_t ipc_get_next_seqnum(ipc_line *line);

/* ---- the pool: tarn_ipc_pool.cpp ------------------------------------------------------------------ */

/** Hand a frame to its handler on a pool thread.
 *  @return false when all threads are busy: the frame stays the caller's */
bool ipc_submit(ipc_conn *conn, frame_owner &frame);

/* ---- connections: tarn_ipc.cpp -------------------------------------------------------------------- */

void ipc_conn_ref(ipc_conn *conn);
void ipc_conn_unref(ipc_conn *conn);
void ipc_line_ref(ipc_line *line);
void ipc_line_unref(ipc_line *line);

using conn_ref_owner = unique_handle<ipc_conn *, ipc_conn_unref>;
using line_owner = unique_handle<ipc_line *, ipc_line_unref>;

/** One more reference for a scope. */
inline conn_ref_owner ipc_pin(ipc_conn *conn)
{
    ipc_conn_ref(conn);
    return conn_ref_owner(conn);
}

/** The line of a connection on which frames may go out; empty otherwise. */
line_owner ipc_hold_line(ipc_conn *conn);

/** A connection without line, with one reference; empty when memory ran out. */
conn_ref_owner ipc_conn_create(const char *callee, const char *caller, ipc_server *svr);

/** Make a socket the line of a connection.
 *  @return false when it is closing or memory ran out; the socket is gone then */
bool ipc_adopt(ipc_conn *conn, socket_owner sock);

/** End the line: wake its callers and whoever is blocked on its socket.
 *  @param line  only if it is this one; null: whichever it is */
void ipc_drop_line(ipc_conn *conn, uint32_t status, const ipc_line *line = nullptr);

/** Call on_connected, unless the connection is closing. */
void ipc_report_connected(ipc_conn *conn, const char *name);

/** Start the receiving thread, which begins to work when it is stored in the connection. */
TARN_THREAD ipc_start_thread(ipc_conn *conn);

/** End a connection and drop the reference of its handle or its server's list, without waiting for
 *  its handlers. Nothing when that is under way already. */
void ipc_conn_destroy(ipc_conn *conn);

/** Count an on_call that is going to run; false when the connection is closing. */
bool ipc_begin_call(ipc_conn *conn);

void ipc_touch(ipc_conn *conn);

/** True inside on_connected and on_disconnected of this connection, on this thread: what it waits
 *  for could not be received. */
bool ipc_is_receiving(const ipc_conn *conn);

/* ---- connecting: tarn_ipc_connect.cpp ------------------------------------------------------------- */

/** A local socket with a name, or empty (logged). */
socket_owner ipc_create_socket(const char *name);

/** Copy a name, cut to 109 bytes; the second for log lines, its control bytes replaced. */
void ipc_copy_name(char (&out)[ipc_name_size], const char *name);
void ipc_copy_shown(char *out, size_t size, const char *text, size_t length);

/** Names of a connection that is being made, for the log. */
struct ipc_attempt
{
    const void *who;
    const char *callee;
    const char *caller;
};

/** Connect a named socket to a server and take its greeting.
 *  @param slot      shows the socket meanwhile
 *  @param buf       room for the greeting and what may come with it
 *  @param received  out
 *  @return empty when that failed (logged) or was aborted */
socket_owner ipc_connect_to_server(const ipc_attempt &names, socket_owner sock, connect_slot &slot,
                                   std::span<uint8_t> buf, size_t &received);

/* ---- servers: tarn_ipc_server.cpp ----------------------------------------------------------------- */

void ipc_server_ref(ipc_server *svr);
void ipc_server_unref(ipc_server *svr);
int ipc_server_destroy(ipc_server *svr);

/** Take a dead connection out of the list and destroy it; one at most. */
void ipc_server_remove_inactive_connection(ipc_server *svr);

inline void *ipc_p(const void *pointer)
{
    return const_cast<void *>(pointer);
}

} // namespace tarn

#endif
