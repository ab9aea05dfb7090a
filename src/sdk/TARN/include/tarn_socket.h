/** @file
 *  Sockets: one object over IPv4, IPv6 and local sockets, with a time-out for every operation that
 *  blocks.
 *
 *  IPv4 addresses are uint32_t and ports uint16_t in network byte order, IPv6 addresses 16 bytes.
 *  Time-outs are milliseconds on the monotonic clock; TARN_INFINITE has no limit. A finite time-out
 *  is kept also when signal handlers run: the wait goes on with the time that is left.
 *  Results are those of the system call, 0 or a count on success and -1 with errno set on failure,
 *  unless a function says otherwise; null, a socket without descriptor and a socket of another
 *  family fail. Nothing is retried: a send, or a receive without limit, that a signal handler
 *  interrupts fails with EINTR. A peer that closed gives EPIPE, never a signal.
 *
 *  A local socket is named by a service name NAME: either in the abstract namespace, as
 *  "/tarn/sock/NAME" cut to 106 characters, or as the file "/tmp/tarn/NAME.sock". A name for a file
 *  has no '/' in it and at most 92 characters.
 *
 *  Traffic is logged at INFO when the environment variable TARN_LOG_SOCKET is 1 at start-up, and is
 *  not logged otherwise.
 *  Threads: one at a time per socket, with one exception: tarn_socket_shutdown() from another
 *  thread ends a blocked connect, accept, receive and send at once. Only the thread that uses a
 *  socket, or one that knows that none does any more, destroys it: closing a descriptor neither
 *  wakes a thread that is blocked on it nor keeps its number from being given out again. */
#ifndef TARN_SOCKET_H
#define TARN_SOCKET_H

#include "tarn.h"

TARN_BEGIN_DECLS

typedef struct tarn_socket *TARN_SOCKET;

/** Descriptor of a socket that has none. */
#ifndef INVALID_SOCKET
#define INVALID_SOCKET (-1)
#endif

/** Address family of a socket. */
enum
{
    TARN_SOCKET_TYPE_IPV4 = 1,
    TARN_SOCKET_TYPE_IPV6 = 2,
    TARN_SOCKET_TYPE_LOCAL = 3
};

/** Result of a connect that found no answer in time. */
enum
{
    TARN_SOCKET_CONNECT_TIMEOUT = -2
};

/* ---- life ------------------------------------------------------------------------------------- */

/** Create a socket, which child processes do not inherit.
 *  @param domain,type,protocol  as of the system's socket(): AF_INET, SOCK_STREAM, 0
 *  @return the handle, destroyed with tarn_socket_destroy(); TARN_INVALID_HANDLE when the system
 *          refuses it or memory ran out. */
TARN_API TARN_SOCKET tarn_socket_create(int domain, int type, int protocol);

/** Shut both directions down for good: ends what other threads are blocked in on this socket, and
 *  the peer reads the end of the stream. A connect that begins later fails with ECONNABORTED.
 *  Threads: any, as long as the socket is not destroyed. */
TARN_API int tarn_socket_shutdown(TARN_SOCKET p);

/** Shut down, close and free a socket; null is ignored. The file of a local socket stays. errno is
 *  kept. */
TARN_API void tarn_socket_destroy(TARN_SOCKET p);

/** The descriptor, which stays the socket's own; INVALID_SOCKET for null. */
TARN_API int tarn_socket_get_handle(TARN_SOCKET p);

/** TARN_SOCKET_TYPE_*; 0 for null and for a socket of any other family. */
TARN_API uint32_t tarn_socket_get_type(TARN_SOCKET p);

/* ---- names ------------------------------------------------------------------------------------ */

/** Bind to an address; 0 is any address, port 0 lets the system choose one. */
TARN_API int tarn_socket_bind(TARN_SOCKET p, uint32_t ip, uint16_t port);

/** The same for IPv6, without flow information and scope.
 *  @param ip  16 bytes */
TARN_API int tarn_socket_bind_ipv6(TARN_SOCKET p, const uint8_t *ip, uint16_t port);

/** Bind to the abstract name of a service.
 *  @return 0; -1 (ERROR). */
TARN_API int tarn_socket_bind_local(TARN_SOCKET p, const char *name);

/** Bind to the file of a service, to which every local user may connect: makes the directory when
 *  it is missing, replaces a file that is there, and sets the mode 0666 whatever the umask.
 *  @return 0; TARN_ERRLN (ERROR); -1 for wrong arguments. */
TARN_API int tarn_socket_bind_local_not_abstract(TARN_SOCKET p, const char *name);

/** Local IPv4 address of a socket; 0 when it has none. */
TARN_API uint32_t tarn_socket_get_sock_addr(TARN_SOCKET p);

/* ---- connecting ------------------------------------------------------------------------------- */

/* Every connect turns TCP keep-alive on: probes after 30 s of silence, 3 s apart, the third without
 * an answer breaks the connection. A socket whose connect failed is of no further use. */

/** Connect.
 *  @param timeout_ms  0 tries once without waiting
 *  @return 0; -1 on failure; -2 when there was no answer in time, with errno ETIMEDOUT. */
TARN_API int tarn_socket_connect_with_timeout(TARN_SOCKET p, uint32_t ip, uint16_t port,
                                              uint32_t timeout_ms);

/** The same for IPv6.
 *  @param ip  16 bytes */
TARN_API int tarn_socket_connect_ipv6_with_timeout(TARN_SOCKET p, const uint8_t *ip, uint16_t port,
                                                   uint32_t timeout_ms);

/** The same by the abstract name of a service; waits while the server's backlog is full. */
TARN_API int tarn_socket_connect_local_with_timeout(TARN_SOCKET p, const char *name,
                                                    uint32_t timeout_ms);

/** The same by the file of a service. */
TARN_API int tarn_socket_connect_local_not_abstract(TARN_SOCKET p, const char *name,
                                                    uint32_t timeout_ms);

/** Resolve and connect an existing socket: each address of its family in turn until one answers or
 *  the calling thread is asked to stop (tarn_thread_sleep()). Resolving has no time-out.
 *  @param host,port   names or numbers; one of them may be null
 *  @param device      interface to bind to first; null for none
 *  @param timeout_ms  per address
 *  @return as the last connect; -2 when there was no address to try; -1 when resolving or binding
 *          failed. */
TARN_API int tarn_socket_connect_ex(TARN_SOCKET p, const char *host, const char *port,
                                    const char *device, uint32_t timeout_ms);

/** Resolve and connect a new TCP socket: each address in turn, on a socket of its own, until one
 *  answers or the calling thread is asked to stop (tarn_thread_sleep()). Resolving has no time-out.
 *  @param host,port   names or numbers; one of them may be null
 *  @param device      interface to bind to; null for none
 *  @param connecting  out: the socket of the attempt that runs, null between attempts and at the
 *                     end; for tarn_socket_abort_connect() only. May be null
 *  @param timeout_ms  per address
 *  @return the connected socket, destroyed by the caller; TARN_INVALID_HANDLE when no address
 *          answered. */
TARN_API TARN_SOCKET tarn_socket_create_tcp_connection_with_timeout(const char *host,
                                                                    const char *port,
                                                                    const char *device,
                                                                    TARN_SOCKET *connecting,
                                                                    uint32_t timeout_ms);

/** End the attempt that runs in another thread's tarn_socket_create_tcp_connection_with_timeout();
 *  that call then goes on to its next address. Shutting the published socket down directly would
 *  race with its destruction.
 *  @param connecting  the pointer that was handed to that call
 *  @return true when an attempt was running. */
TARN_API bool tarn_socket_abort_connect(TARN_SOCKET *connecting);

/** Look whether the connection stands: no error is pending and the peer has not closed. Never
 *  blocks and reads nothing; a pending error is taken, left in errno and not reported again. */
TARN_API bool tarn_socket_is_connected(TARN_SOCKET p);

/* ---- listening -------------------------------------------------------------------------------- */

/** Listen with a backlog of the low 16 bits of backlog, at most 128. */
TARN_API int tarn_socket_listen(TARN_SOCKET p, int backlog);

/** Wait for a peer and accept it. The first call makes the listening descriptor non-blocking.
 *  @param ip,port     out: the peer's, written on success; may be null
 *  @param timeout_ms  0 counts as 1
 *  @return a new socket of the same family, destroyed by the caller; TARN_INVALID_HANDLE when no
 *          peer came in time, on failure and for a peer of another family. When descriptors or
 *          memory ran out it returns after up to 100 ms, so that a loop does not spin. */
TARN_API TARN_SOCKET tarn_socket_accept(TARN_SOCKET p, uint32_t *ip, uint16_t *port,
                                        uint32_t timeout_ms);

/** The same for IPv6.
 *  @param ip  out: 16 bytes; may be null */
TARN_API TARN_SOCKET tarn_socket_accept_ipv6(TARN_SOCKET p, uint8_t *ip, uint16_t *port,
                                             uint32_t timeout_ms);

/** The same for local sockets.
 *  @param name  out: the peer's service name, terminated and cut to name_size bytes; empty when the
 *               peer has none. May be null */
TARN_API TARN_SOCKET tarn_socket_accept_local(TARN_SOCKET p, char *name, size_t name_size,
                                              uint32_t timeout_ms);

/* ---- options ---------------------------------------------------------------------------------- */

TARN_API int tarn_socket_setopt_broadcast(TARN_SOCKET p, int value);   /**< SO_BROADCAST */
TARN_API int tarn_socket_setopt_reuse_addr(TARN_SOCKET p, int value);  /**< SO_REUSEADDR */
TARN_API int tarn_socket_setopt_tcp_nodelay(TARN_SOCKET p, int value); /**< TCP_NODELAY */

/** Use one interface only; needs privileges.
 *  @param if_name  empty: any interface again */
TARN_API int tarn_socket_setopt_bind_to_device(TARN_SOCKET p, const char *if_name);

/* ---- traffic ---------------------------------------------------------------------------------- */

/** Wait until a receive would not block: bytes, a peer, the end of the stream or an error.
 *  @param timeout_ms  0 counts as 1
 *  @return 1; 0 when nothing came in time; -1 on failure; 0 for wrong arguments. */
TARN_API int tarn_socket_wait_for_recv(TARN_SOCKET p, uint32_t timeout_ms);

/** Receive what is there, at most size bytes.
 *  @param timeout_ms  0 counts as 1
 *  @return bytes; 0 when nothing came in time; -1 on failure, and with errno ECONNRESET when the
 *          peer has closed. An empty datagram counts as closed. */
TARN_API int tarn_socket_recv(TARN_SOCKET p, void *buf, size_t size, uint32_t timeout_ms);

/** Receive one datagram; what is beyond size bytes is lost.
 *  @param ip,port     out: the sender's, written with the bytes; may be null
 *  @param timeout_ms  0 only looks, unlike tarn_socket_recv()
 *  @return bytes; 0 when nothing came in time and for a sender without IPv4 address, whose datagram
 *          is lost; -1 on failure. */
TARN_API int tarn_socket_recvfrom(TARN_SOCKET p, void *buf, size_t size, uint32_t *ip,
                                  uint16_t *port, uint32_t timeout_ms);

/** Send; blocks while the peer does not read, without time-out: only tarn_socket_shutdown() ends
 *  it.
 *  @return bytes sent, fewer than len when a signal or a shutdown came between; -1 on failure. */
TARN_API int tarn_socket_send(TARN_SOCKET p, const void *buf, size_t len);

/** Send one datagram to an IPv4 address. */
TARN_API int tarn_socket_sendto(TARN_SOCKET p, const void *buf, size_t len, uint32_t ip,
                                uint16_t port);

/** Send one IPv4/UDP datagram as a hand-built packet through an interface, which needs no address;
 *  needs privileges.
 *  @param if_index  of the interface that sends
 *  @param dst_mac   6 bytes: hardware address that the frame goes to
 *  @param data      the payload; may be null when len is 0
 *  @param len       0 to 512
 *  @return bytes of the packet, len + 28; -1 on failure (ERROR). */
TARN_API int tarn_socket_send_raw_udp(int if_index, const uint8_t *dst_mac, uint32_t dst_ip,
                                      uint16_t dst_port, uint32_t src_ip, uint16_t src_port,
                                      const void *data, int len);

/* ---- the host's IPv4 addresses, as they were at tarn_init() ------------------------------------ */

/** Broadcast address of the interface that has the socket's local address.
 *  @param ip  out: written on success
 *  @return 1; 0 when the local address is none of an interface's. */
TARN_API int tarn_socket_get_broadcast_addr(TARN_SOCKET p, uint32_t *ip);

/** 1 when an interface has the address; else 0. */
TARN_API int tarn_socket_is_local_addr(uint32_t ip);

/** Address of an interface; 0 when it has none. */
TARN_API uint32_t tarn_socket_get_if_addr(const char *if_name);

/* ---- byte order: host to network and back ------------------------------------------------------ */

TARN_API uint16_t tarn_socket_htons(uint16_t value);
TARN_API uint16_t tarn_socket_ntohs(uint16_t value);
TARN_API uint32_t tarn_socket_htonl(uint32_t value);
TARN_API uint32_t tarn_socket_ntohl(uint32_t value);
TARN_API uint64_t tarn_socket_htonll(uint64_t value);
TARN_API uint64_t tarn_socket_ntohll(uint64_t value);

TARN_END_DECLS

#endif
