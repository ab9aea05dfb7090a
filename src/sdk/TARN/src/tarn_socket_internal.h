// Private: the socket record, and what the layers above need beyond the public header; for
// tarn_socket*.cpp, connections, local IPC and the tests.
#ifndef TARN_SOCKET_INTERNAL_H
#define TARN_SOCKET_INTERNAL_H

#include "tarn_socket.h"

#include "tarn_raii.h"
#include "tarn_socket_port.h"
#include "tarn_sys.h"

#include <cstdint>
#include <span>

struct tarn_socket
{
    tarn_handle_header header;
    uint32_t sock_type; ///< TARN_SOCKET_TYPE_*
    int32_t handle;     ///< descriptor; never changes while the object lives
    /** 1 once shut down; atomic. A shutdown that comes before the system's connect does not end
     *  that connect: the connecting thread looks here afterwards. */
    uint32_t shut_down;
    uint32_t receive_limit_ms; ///< that the system keeps by itself, 0: none; of the only reader
};
TARN_ASSERT_RECORD(tarn_socket);

namespace tarn
{

using socket_owner = unique_handle<TARN_SOCKET, tarn_socket_destroy>;

/** A point in time that a wait must not pass. */
class deadline
{
public:
    explicit deadline(uint32_t timeout_ms)
        : start_(timeout_ms == TARN_INFINITE ? 0 : tarn_tick_ns()), timeout_ms_(timeout_ms)
    {
    }
    [[nodiscard]] bool infinite() const
    {
        return timeout_ms_ == TARN_INFINITE;
    }
    /** Nanoseconds that are left; 0 when the time is up. Not for an infinite one. */
    [[nodiscard]] uint64_t left_ns() const
    {
        const uint64_t whole = uint64_t{timeout_ms_} * 1000000;
        const uint64_t passed = tarn_tick_ns_since(start_);
        return passed < whole ? whole - passed : 0;
    }

private:
    uint64_t start_;
    uint32_t timeout_ms_;
};

/* ---- traffic ------------------------------------------------------------------------------------ */

inline constexpr int receive_timed_out = -2;

/** tarn_socket_recv() that tells the end of the stream apart.
 *  @param timeout_ms  0 counts as 1; without limit EINTR surfaces
 *  @return bytes; 0 when the peer has closed; -1 on failure, with errno; receive_timed_out. */
int socket_receive(TARN_SOCKET p, void *buf, size_t size, uint32_t timeout_ms);

/** tarn_socket_recv() of a stream that nobody else reads: the system waits inside the call, which
 *  spares the two calls that look and wait. */
int socket_receive_alone(TARN_SOCKET p, void *buf, size_t size, uint32_t timeout_ms);

/** Send several spans as one: in one system call as far as the kernel takes them, so that they
 *  share segments and no peer waits for a delayed acknowledgement. Goes on after a short count or
 *  a signal.
 *  @param parts       at most socket_port::max_send_parts; empty ones are allowed
 *  @param timeout_ms  for all of it; TARN_INFINITE: only a shutdown ends it
 *  @return bytes sent, counted from the beginning of the first part: all of them on success, fewer
 *          with errno set when an error or the limit (ETIMEDOUT) came between; -1 when an error
 *          came before the first byte. */
int64_t socket_send_parts(TARN_SOCKET p, std::span<const send_part> parts, uint32_t timeout_ms);

/** The process at the other end of a connected local socket.
 *  @return false, with errno, for any other socket. */
bool socket_peer_credentials(TARN_SOCKET p, socket_credentials *out);

/* ---- connects that another thread may end ------------------------------------------------------- */

/** Where a thread shows the socket that it connects. Zero is a valid start. The fields belong to
 *  the functions below, which share one lock. */
struct connect_slot
{
    TARN_SOCKET socket;
    bool aborted;
};

/** Show a socket before it is connected; it stays the caller's.
 *  @return false when the slot was aborted: do not connect. */
bool socket_publish(connect_slot &slot, TARN_SOCKET p);

/** Take the socket back; from here on no socket_abort() touches it, so it may be destroyed.
 *  @return false when the slot was aborted meanwhile: the socket is of no use. */
bool socket_unpublish(connect_slot &slot);

/** Shut the published socket down, if there is one, and refuse later ones. */
void socket_abort(connect_slot &slot);

/** Allow sockets again. */
void socket_abort_clear(connect_slot &slot);

/** tarn_socket_create_tcp_connection_with_timeout() that an aborted slot ends for good. */
TARN_SOCKET socket_create_tcp_connection(const char *host, const char *port, const char *device,
                                         connect_slot &slot, uint32_t timeout_ms);

/* ---- between the sources of this module --------------------------------------------------------- */

/** False: traffic is logged. Relaxed: a line more or less round a change does not matter. */
bool socket_quiet();

/** Wait for a descriptor; a failure is logged. */
int socket_wait(TARN_SOCKET p, socket_port::readiness what, const deadline &limit);

bool socket_is_shut_down(TARN_SOCKET p);

/** tarn_socket_shutdown() without its log line, and the line alone, for which the socket may be
 *  gone already. */
int socket_shut_down(TARN_SOCKET p);
void socket_log_shutdown(const void *p, int result);

/** Accept a peer of the socket's family; empty when none came in time, and on failure.
 *  @param peer  out: its address */
socket_owner socket_accept(TARN_SOCKET p, socket_address &peer, uint32_t timeout_ms);

/** Read the interface addresses anew; returns their number. */
size_t socket_host_read();
void socket_host_forget();

/** Connect to an address of the socket's family; result as the public connects. */
int socket_connect(TARN_SOCKET p, const socket_address &address, uint32_t timeout_ms);

} // namespace tarn

/** Traffic lines are shown only when asked for. */
#define TARN_SOCKET_LOG(...)                                                                       \
    do                                                                                             \
    {                                                                                              \
        if (!tarn::socket_quiet())                                                                 \
        {                                                                                          \
            TARN_LOG_INFO(__VA_ARGS__);                                                            \
        }                                                                                          \
    } while (0)

#endif
