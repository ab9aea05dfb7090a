/** @file
 *  RPC endpoints: framed requests and replies between processes, over one TCP, TLS or local
 *  connection (tarn_conn.h) each.
 *
 *  Three kinds of objects share one handle type. A server listens and makes a server connection of
 *  each peer that it admits. A server connection answers requests, and may send its own. A client
 *  connects, reconnects (at most once a second, for ever), keeps the line alive and sends requests.
 *  A request has a sequence number of the caller's choice, which its reply repeats; two requests
 *  that wait on one object at the same time have different ones. Message ids from 1000 up are the
 *  application's; those below are the layer's own (file transfer: tarn_rpc_file.h).
 *
 *  Loop: receiving, and every callback, is done by turns of the object's loop: on a thread of its
 *  own (tarn_rpc_loop_start(), which for a server connection is the application's to call, as a rule
 *  in on_connected), or in turns that the application runs with tarn_rpc_loop(). A sender that waits
 *  for a reply runs the turns itself when there is no such thread or when it is that thread, so a
 *  callback may send requests on its own object.
 *
 *  Life: callbacks may call any function on the object that they are given, its destroy included:
 *  the memory goes when the callbacks have returned. tarn_rpc_destroy() ends what other threads are
 *  blocked in on the object; they get a negative result.
 *
 *  Time-outs in milliseconds; TARN_INFINITE has no limit.
 *  Threads: any thread may send at any time; whole frames go out one after the other. No function
 *  may be called on a handle after its destroy, except by calls that are inside already. */
#ifndef TARN_RPC_H
#define TARN_RPC_H

#include "tarn.h"
#include "tarn_conn.h"
#include "tarn_rpc_msg.h"

TARN_BEGIN_DECLS

typedef struct tarn_rpc *TARN_RPC;
typedef struct tarn_rpc_callback TARN_RPC_CALLBACK;

/** Kinds of objects. */
enum
{
    RPC_OBJ_TYPE_SERVER = 1,
    RPC_OBJ_TYPE_SERVER_CONN = 2,
    RPC_OBJ_TYPE_CLIENT = 3
};

/** The lowest message id that goes to the application. */
#define TARN_RPC_MSG_ID_MIN 1000u

/** A peer was accepted by a server.
 *  @param rpc        the server
 *  @param context    the server's
 *  @param peer_addr  the peer's address, valid during the call
 *  @param conn       the new server connection; nothing is received before its loop is started
 *  @param callbacks  in/out; its callbacks, the server's own (without on_idle) to begin with
 *  @param conn_context  in/out; its context, null to begin with
 *  @return 0 admits the peer; anything else turns it away, conn is destroyed then. */
typedef int (*tarn_rpc_on_peer_connecting)(TARN_RPC rpc, void *context, const char *peer_addr,
                                           TARN_RPC conn, TARN_RPC_CALLBACK *callbacks,
                                           void **conn_context);

/** A client connected, or a server connection was admitted. */
typedef void (*tarn_rpc_on_connected)(TARN_RPC rpc, void *context);

/** The connection broke, timed out or was closed; once per connection. A client connects again by
 *  itself; a server connection is of no more use and is the application's to destroy, here or later.
 *  Without this callback a server connection destroys itself. */
typedef void (*tarn_rpc_on_disconnected)(TARN_RPC rpc, void *context);

/** A request arrived.
 *  @param msg      its data, borrowed for the call (take a reference to keep it); null when it had
 *                  none. Nothing in it is trusted
 *  @param rsp_msg  takes the data of the reply, borrowed; null when the requester wants none
 *  @return the reply's code; a negative one leaves out the reply's data. The code travels in any
 *          case. */
typedef int (*tarn_rpc_on_msg)(TARN_RPC rpc, uint32_t seq_no, uint32_t msg_id, TARN_RPC_MSG msg,
                               TARN_RPC_MSG rsp_msg, void *context);

/** Nothing was received for 500 ms. Not called from the turns of a sender inside a callback. */
typedef void (*tarn_rpc_on_idle)(TARN_RPC rpc, void *context);

/** What an application is told. Any callback may be null, but without on_peer_connecting a server
 *  turns every peer away. */
struct tarn_rpc_callback
{
    uint32_t size; /**< sizeof(TARN_RPC_CALLBACK) */
    tarn_rpc_on_peer_connecting on_peer_connecting;
    tarn_rpc_on_connected on_connected;
    tarn_rpc_on_disconnected on_disconnected;
    tarn_rpc_on_msg on_msg; /**< without it every request is answered with code 0 */
    tarn_rpc_on_idle on_idle;
};

/* ---- creation and life -------------------------------------------------------------------------- */

/** Create a server, which listens at once and accepts when its loop runs. Addresses, ports and
 *  credentials as tarn_conn_server_create().
 *  @param timeout    how long one turn waits for a peer
 *  @param max_conn   most connections at a time
 *  @param callbacks  copied; may be null. A record that is too small (WARN) is left out, and the
 *                    context with it
 *  @param rpc_h      out; destroyed with tarn_rpc_destroy()
 *  @return 0; negative when the address cannot be bound, rpc_h is null or memory ran out. */
TARN_API int tarn_rpc_server_create(const struct tlsu_credentials *secret, const char *bind_addr,
                                    const char *bind_port, uint32_t timeout, uint32_t max_conn,
                                    const TARN_RPC_CALLBACK *callbacks, void *context,
                                    TARN_RPC *rpc_h);

/** Create a client; its loop connects it. Addresses, ports and credentials as tarn_conn_create().
 *  @param timeout  of a connect
 *  @return as tarn_rpc_server_create(). */
TARN_API int tarn_rpc_client_create(const struct tlsu_credentials *secret, const char *bind_addr,
                                    const char *bind_port, const char *peer_addr,
                                    const char *peer_port, uint32_t timeout,
                                    const TARN_RPC_CALLBACK *callbacks, void *context,
                                    TARN_RPC *rpc_h);

/** Stop the loop, close the connection and free the object; null is ignored. on_disconnected is
 *  called if the connection stood. A server closes its connections: on_disconnected is called for
 *  each, and those without that callback are destroyed.
 *  Waits for callbacks that run on other threads; from inside a callback of the object it does not
 *  wait. */
TARN_API void tarn_rpc_destroy(TARN_RPC rpc_h);

/* ---- loop --------------------------------------------------------------------------------------- */

/** Run the loop on a thread of its own.
 *  @return 0; negative when one runs already or cannot be started. */
TARN_API int tarn_rpc_loop_start(TARN_RPC rpc_h);

/** Stop that thread; the connection stays. Waits for the current turn, but not for itself when it is
 *  called from a callback.
 *  @return 0; negative when none runs (of a server: 0). */
TARN_API int tarn_rpc_loop_stop(TARN_RPC rpc_h);

/** Run one turn on the calling thread: a server accepts at most one peer, within its time-out; a
 *  client that is down connects (or waits until a second has passed since the last attempt); a
 *  connection reads what there is within 500 ms and handles it.
 *  @return 0; negative while the object's own thread runs; -1000 for an object of unknown type. */
TARN_API int tarn_rpc_loop(TARN_RPC rpc_h);

/** True while the connection is up; for a server while it listens. */
TARN_API bool tarn_rpc_is_connected(TARN_RPC rpc_h);

/* ---- sending ------------------------------------------------------------------------------------ */

/** Send a request, and wait for its reply when one is asked for.
 *  @param seq_no      of no other request that waits on this object
 *  @param msg_id      bit 31 is ignored
 *  @param msg         the data; null for none. Borrowed for the call
 *  @param rsp_msg     null: do not wait. Else out: the reply's data, the caller's to release; null
 *                     when it has none. It may come with a negative code as well
 *  @param timeout_ms  for the reply. When it passes, the connection is closed, because a stream that
 *                     stands still cannot be told from one that is lost; a client connects again
 *  @return the reply's code; 0 when no reply was asked for; negative when it could not be sent, the
 *          connection broke or the time passed. A code that the peer's handler returned may be
 *          negative, too. */
TARN_API int tarn_rpc_msg_send(TARN_RPC rpc_h, uint32_t seq_no, uint32_t msg_id, TARN_RPC_MSG msg,
                               TARN_RPC_MSG *rsp_msg, uint32_t timeout_ms);

/** The same with a message of one element, made for the call.
 *  @param elm_id,elm_type,value,value_len  as tarn_rpc_msg_write_element_value() */
TARN_API int tarn_rpc_element_send(TARN_RPC rpc_h, uint32_t seq_no, uint32_t msg_id,
                                   uint16_t elm_id, uint8_t elm_type, const void *value,
                                   uint32_t value_len, TARN_RPC_MSG *rsp_msg, uint32_t timeout_ms);

/* ---- accessors ---------------------------------------------------------------------------------- */

/** "ADDRESS:PORT" of a server, "LOCAL<->PEER" of the others. Valid until the destroy. */
TARN_API const char *tarn_rpc_name(TARN_RPC rpc_h);

/** RPC_OBJ_TYPE_*; 0 for null. */
TARN_API uint32_t tarn_rpc_type(TARN_RPC rpc_h);

/** The connection, which stays the object's own; null for a server. */
TARN_API TARN_CONN tarn_rpc_conn(TARN_RPC rpc_h);

/** Address text of the peer; null for a server. Valid until the destroy. */
TARN_API const char *tarn_rpc_peer_address(TARN_RPC rpc_h);

/** The context that its callbacks get. */
TARN_API void *tarn_rpc_context(TARN_RPC rpc_h);

/** A number that the application may keep with the object, 100 to begin with; the layer makes no use
 *  of it.
 *  @return 0; -1 for the value 0 */
TARN_API int tarn_rpc_set_tunable(TARN_RPC rpc_h, uint32_t value);
TARN_API uint32_t tarn_rpc_get_tunable(TARN_RPC rpc_h);

/** Limit what a peer may announce: a frame or its data above this many bytes close the connection.
 *  Without a limit (0, as created) memory is still taken only for bytes that arrive. On a server:
 *  for connections that are accepted from then on. */
TARN_API void tarn_rpc_set_frame_limit(TARN_RPC rpc_h, uint32_t max_bytes);

TARN_END_DECLS

#endif
