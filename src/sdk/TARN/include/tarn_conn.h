/** @file
 *  Connections: one byte stream between two endpoints, over TCP, TLS or a local socket; and the
 *  server that accepts and keeps them.
 *
 *  With a port an endpoint is a TCP one, and TLS when credentials are given; without a port its
 *  address is the name of a local service (credentials are then ignored, with a WARN line). Address
 *  and port may each be a list, separated by any of ",", ";", "|" and blank: a connect tries every
 *  port of the first address until one answers, then goes on to the next address, which replaces
 *  the connection before it: the last address that is tried decides.
 *  TCP connections send at once (TCP_NODELAY).
 *
 *  A TLS client has its time-out for the handshake too, 10 s when that is 0 or TARN_INFINITE. A
 *  server gives each peer 10 s and works on up to 32 handshakes side by side: a peer that stalls or
 *  fails in its handshake holds up the others for some 20 ms at most. While 32 peers stall, the
 *  oldest of them gives way to a new one, but not before it has had a second: that second is the
 *  longest that the others wait.
 *
 *  A break is found by a read that fails: it disconnects, which calls on_disconnect, once per
 *  connection that stood. A failed or short write only reports.
 *
 *  Threads: one reading and one writing thread at a time; any thread may disconnect, which ends what
 *  the others are blocked in. Callbacks may call any function on their connection, its destroy
 *  included. tarn_conn_destroy() is called when no other thread is going to use the handle; it waits
 *  for callbacks that run on other threads, and none is made after it.
 *  Time-outs in milliseconds; TARN_INFINITE has no limit. */
#ifndef TARN_CONN_H
#define TARN_CONN_H

#include "tarn.h"
#include "tarn_socket.h"

TARN_BEGIN_DECLS

/** Not handles of the generic close: tarn_close_handle() does not know them. */
typedef struct tarn_conn *TARN_CONN;
typedef struct tarn_conn_server *TARN_CONN_SERVER;

struct tlsu_credentials; /* tlsu.h */

/** A connection stands.
 *  @return 0; anything else ends it: a connect then fails, an accepted peer is turned away. */
typedef int (*tarn_conn_on_connect)(TARN_CONN conn, void *context);

/** A connection that stood is gone. */
typedef void (*tarn_conn_on_disconnect)(TARN_CONN conn, void *context);

/* ---- connections ------------------------------------------------------------------------------- */

/** Create a client; nothing is connected yet. Texts are copied.
 *  @param secret     null: no TLS. Borrowed for the call
 *  @param bind_addr  own address or local name; null: the system chooses, or for a local client a
 *                    name of its own is made
 *  @param bind_port  own port; null: any
 *  @param peer_addr  addresses, or the name of a local service; not null
 *  @param peer_port  ports; null: local
 *  @param timeout    of a connect, per address; then of a TLS handshake
 *  @param on_connect,on_disconnect  may be null
 *  @return the connection, destroyed with tarn_conn_destroy(); null when peer_addr is missing, the
 *          credentials make no TLS context, or memory ran out. */
TARN_API TARN_CONN tarn_conn_create(const struct tlsu_credentials *secret, const char *bind_addr,
                                    const char *bind_port, const char *peer_addr,
                                    const char *peer_port, uint32_t timeout,
                                    tarn_conn_on_connect on_connect,
                                    tarn_conn_on_disconnect on_disconnect, void *context);

/** Disconnect and free; null is ignored. From inside a callback of the connection the memory goes
 *  when the callback has returned. */
TARN_API void tarn_conn_destroy(TARN_CONN conn);

/** Connect a client. One that stands is disconnected first.
 *  @return 0; TARN_ERRLN when no address answered, the handshake failed, on_connect refused, the
 *          connection was disconnected meanwhile, or it is no client (ERROR). Blocks up to the
 *          time-out per address, for the look-up of names, and with TLS up to the time-out of the
 *          handshake. */
TARN_API int tarn_conn_connect(TARN_CONN conn);

/** End the connection; on_disconnect is called if it stood. */
TARN_API void tarn_conn_disconnect(TARN_CONN conn);

/** Read what is there, at most size bytes, above 0.
 *  @return bytes; 0 when nothing came within timeout; negative when the connection is gone: it is
 *          then disconnected. */
TARN_API int tarn_conn_read(TARN_CONN conn, void *buffer, size_t size, uint32_t timeout);

/** Write; blocks while the peer does not read: a disconnect by another thread ends that.
 *  @param length  above 0
 *  @return bytes; fewer than length, or negative, when the connection failed (ERROR) or is not
 *          connected. The peer may then have a part. */
TARN_API int tarn_conn_write(TARN_CONN conn, const void *buffer, size_t length);

TARN_API bool tarn_conn_is_connected(TARN_CONN conn);
/** True for a connection that a server has accepted. */
TARN_API bool tarn_conn_is_incoming(TARN_CONN conn);

/** "LOCAL<->PEER", and the two endpoints, "ADDRESS:PORT" or a local name. Valid until the connection
 *  is destroyed. */
TARN_API const char *tarn_conn_name(TARN_CONN conn);
TARN_API const char *tarn_conn_local_endpoint(TARN_CONN conn);
TARN_API const char *tarn_conn_peer_endpoint(TARN_CONN conn);

/** The socket, which stays the connection's own and goes with its disconnect; null while there is
 *  none. */
TARN_API TARN_SOCKET tarn_conn_socket(TARN_CONN conn);

/** Milliseconds since the last successful read or complete write. A connection that had none
 *  begins to count with this call. */
TARN_API uint32_t tarn_conn_idle_ms(TARN_CONN conn);

/* ---- servers ----------------------------------------------------------------------------------- */

/** Create a server that listens.
 *  @param secret         null: no TLS. Borrowed for the call
 *  @param addr           address to listen on, or the name of a local service; not null
 *  @param port           null: local
 *  @param timeout        how long one accept waits
 *  @param max_conn       most connections at a time; also the backlog
 *  @param on_connect     a peer was accepted; not null. It takes the connection over: it is
 *                        destroyed with tarn_conn_destroy(), at the latest by on_disconnect
 *  @param on_disconnect  an accepted connection broke, or its server is being destroyed; null: the
 *                        server destroys the connection
 *  @return the server, destroyed with tarn_conn_server_destroy(); null when an argument is missing,
 *          the address cannot be bound (ERROR), the credentials make no TLS context, or memory ran
 *          out. */
TARN_API TARN_CONN_SERVER tarn_conn_server_create(const struct tlsu_credentials *secret,
                                                  const char *addr, const char *port,
                                                  uint32_t timeout, uint32_t max_conn,
                                                  tarn_conn_on_connect on_connect,
                                                  tarn_conn_on_disconnect on_disconnect,
                                                  void *context);

/** Accept on a thread of its own, which calls on_connect.
 *  @return 0; TARN_ERRLN when one runs already or cannot be started. */
TARN_API int tarn_conn_server_loop_start(TARN_CONN_SERVER svr);

/** Stop that thread, if it runs; peers may still connect to the backlog. */
TARN_API void tarn_conn_server_loop_stop(TARN_CONN_SERVER svr);

/** Accept at most one peer on the calling thread; waits up to the server's time-out, and with TLS
 *  for the end of a handshake, which may go on with the next call.
 *  @return 0; TARN_ERRLN while the server's own thread runs. */
TARN_API int tarn_conn_server_loop(TARN_CONN_SERVER svr);

/** Stop accepting, let go of every connection (on_disconnect is called for each, its reads fail)
 *  and free the server; null is ignored. May be called from inside the callbacks. */
TARN_API void tarn_conn_server_destroy(TARN_CONN_SERVER svr);

/** The listening socket, which stays the server's own. */
TARN_API TARN_SOCKET tarn_conn_server_socket(TARN_CONN_SERVER svr);

TARN_END_DECLS

#endif
