/** @file
 *  Local IPC: numbered calls between processes of one machine, over named local sockets.
 *
 *  A process that offers functions creates a server under a name (the callee name); a process that
 *  wants them opens a connection to it from a name of its own (the caller name), which no other
 *  socket may hold at that time. Once it stands, both sides may call each other. Names are cut to
 *  95 characters when they become socket names, equally on both sides. They are not authenticated:
 *  who has to know asks tarn_ipc_get_peer().
 *
 *  Arguments and results are lists of typed data (tarn_data.h) of at most 131072 values and 524279
 *  bytes in their byte form.
 *
 *  Callbacks: on_call runs on one of 256 threads that all connections of the process share, several
 *  at a time and in any order; the others run on threads of the server or the connection. A callback
 *  may call any function on the connection or server that it was called for, its destroy included. A
 *  call with a result that is made on its own connection inside on_connected or on_disconnected is
 *  not answered there and fails with -13; post messages go out. on_call may still be running while
 *  on_disconnected is called; on the server's side none begins afterwards.
 *  Threads: any function from any thread; destroy as the last call on a handle. */
#ifndef TARN_IPC_H
#define TARN_IPC_H

#include "tarn.h"
#include "tarn_data.h"

TARN_BEGIN_DECLS

/** A server or a connection. */
typedef struct tarn_ipc *TARN_IPC;

/** Most bytes that a request buffer takes, and the fewest that are accepted as one. */
#define TARN_IPC_REQUEST_BUFFER_MAX 524300u
#define TARN_IPC_REQUEST_BUFFER_MIN 12u

/** The connection stands.
 *  @param name    the callee's on the client's side, the caller's on the server's side
 *  @param object  of the callback set
 *  @param same    the connection again */
typedef void (*tarn_ipc_on_connected)(TARN_IPC conn, const char *name, void *object, TARN_IPC same);

/** The connection is lost, or is being destroyed. An asynchronous client gets it after each vain
 *  attempt to connect, too. */
typedef void (*tarn_ipc_on_disconnected)(TARN_IPC conn, const char *caller_name, void *object,
                                         TARN_IPC same);

/** The peer calls a function.
 *  @param args_in   its arguments, null for none; borrowed for the call, never destroyed by it
 *  @param args_out  place for results, which are taken over: a list of its own, or args_in or a
 *                   value of its list; null when the caller wants none
 *  @return handed to the caller. It gets -1 instead when the results cannot be sent. */
typedef int32_t (*tarn_ipc_on_call)(TARN_IPC conn, uint32_t func_id, TARN_DATA args_in,
                                    TARN_DATA *args_out, void *object);

/** Callbacks of a connection; copied. */
typedef struct tarn_ipc_callbacks
{
    tarn_ipc_on_connected on_connected;
    tarn_ipc_on_disconnected on_disconnected;
    tarn_ipc_on_call on_call;
    void *object; /**< handed to each */
} tarn_ipc_callbacks;

/** A client has connected to a server: fill in the callbacks of its connection, all three.
 *  @param cb_func  out
 *  @param object   the server's
 *  @param conn     the connection, for tarn_ipc_get_peer(); nothing can be sent yet
 *  @return 0 when it is filled in; any other value: asked again up to 10 times, 200 ms apart, while
 *          no other client is accepted. */
typedef int32_t (*tarn_ipc_on_connect)(TARN_IPC server, const char *caller_name,
                                       tarn_ipc_callbacks *cb_func, void *object, TARN_IPC conn);

/** Callbacks of a server; copied. */
typedef struct tarn_ipc_server_callbacks
{
    tarn_ipc_on_connect on_connect;
    void *object; /**< handed to it */
} tarn_ipc_server_callbacks;

/* ---- servers and connections ------------------------------------------------------------------ */

/** Create a server, which accepts clients on a thread of its own.
 *  @param name            not empty
 *  @param max_connection  clients at a time, above 0; a lost one counts until the server has removed
 *                         it, one per second or per new client
 *  @return the server, destroyed with tarn_ipc_destroy(); TARN_INVALID_HANDLE for wrong arguments,
 *          when the name is taken, memory or threads ran out. */
TARN_API TARN_IPC tarn_ipc_create(const char *name, uint32_t max_connection,
                                  const tarn_ipc_server_callbacks *cb_func);

/** Open a connection and wait until it stands; on_connected is called before it returns. A
 *  connection that is lost stays so.
 *  @return the connection, destroyed with tarn_ipc_destroy(); TARN_INVALID_HANDLE for wrong
 *          arguments, when there is no server, it did not greet, or the caller name is taken.
 *  Blocking: up to 5 s to connect and 3 s for the server's greeting. */
TARN_API TARN_IPC tarn_ipc_open(const char *callee_name, const char *caller_name,
                                const tarn_ipc_callbacks *cb_func);

/** Open a connection that connects on its thread, and again whenever it is lost, at once and then
 *  every second. What the server sends together with its greeting is discarded.
 *  @return the connection, destroyed with tarn_ipc_destroy(); TARN_INVALID_HANDLE for wrong
 *          arguments, when memory or threads ran out. */
TARN_API TARN_IPC tarn_ipc_open_async(const char *callee_name, const char *caller_name,
                                      const tarn_ipc_callbacks *cb_func);

/** Destroy a server with all its connections, or a client's connection. Calls that wait fail with
 *  -13; on_disconnected is called when on_connected was. Afterwards no callback runs or will, other
 *  than those that the call was made in.
 *  @return 1; 0 (WARN) for a connection of a server, which goes with it, and for anything else.
 *  Blocking: until running callbacks have returned. */
TARN_API int tarn_ipc_destroy(TARN_IPC handle);

/** The process at the other end, as it was when it connected or began to listen.
 *  @param pid,uid,gid  out: each may be null
 *  @return true; false when the connection does not stand. */
TARN_API bool tarn_ipc_get_peer(TARN_IPC conn, int32_t *pid, uint32_t *uid, uint32_t *gid);

/* ---- calls ------------------------------------------------------------------------------------ */

/** Call a function of the peer.
 *  @param func_id   the application's number
 *  @param args_in   borrowed; null for none
 *  @param ret       out: what on_call returned; -8 when the response lacked it. Null: a post
 *                   message, which is not answered
 *  @param args_out  out: its results, destroyed by the caller, null for none; may be null
 *  @return 0 success; -1 conn null; -2 args_out without ret; -3 not a connection (WARN); -4 not
 *          connected; -5 out of memory; below -100: 100 less than a failure of
 *          tarn_ipc_format_request_buffer(); below -200: 200 less than one of
 *          tarn_ipc_call_by_request_buffer().
 *  Blocking: up to 30 s for the answer, after up to 5 s while the peer does not read. */
TARN_API int32_t tarn_ipc_call(TARN_IPC conn, uint32_t func_id, TARN_DATA args_in, int32_t *ret,
                               TARN_DATA *args_out);

/** Write a request that can be sent many times.
 *  @param buffer         out: of any alignment
 *  @param buffer_len     in: room at buffer, at most TARN_IPC_REQUEST_BUFFER_MAX of use; out: bytes
 *                        used, 18 and the byte form of args_in
 *  @param need_response  false for a post message
 *  @return 0 success; -1 conn null; -2 buffer null; -3 buffer_len null; -4 room for no more than
 *          TARN_IPC_REQUEST_BUFFER_MIN; -5 not a connection; -6 the arguments do not fit. */
TARN_API int32_t tarn_ipc_format_request_buffer(TARN_IPC conn, uint32_t func_id, TARN_DATA args_in,
                                                void *buffer, uint32_t *buffer_len,
                                                bool need_response);

/** Send a request of tarn_ipc_format_request_buffer().
 *  @param buffer      borrowed and not changed: several threads may send one
 *  @param buffer_len  bytes of it
 *  @param ret         out: as tarn_ipc_call(); it decides whether an answer is asked for
 *  @param args_out    as tarn_ipc_call()
 *  @return 0 success; -1 conn null; -2 args_out without ret; -3 no or too short a buffer; -4 the
 *          request is longer than the buffer, or is none; -5 not a connection; -6 not connected; -7
 *          out of memory; -9 255 calls are waiting on this connection; -10 it is being destroyed;
 *          -11 too many calls wait; -12 sending failed; -13 no answer within 30 s, or the connection
 *          was lost.
 *  Blocking: as tarn_ipc_call(); a cancellation point while it waits for the answer. */
TARN_API int32_t tarn_ipc_call_by_request_buffer(TARN_IPC conn, const void *buffer,
                                                 uint32_t buffer_len, int32_t *ret,
                                                 TARN_DATA *args_out);

TARN_END_DECLS

#endif
