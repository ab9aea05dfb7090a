// Private: the TLS session; for tlsu_session.cpp, tlsu_handshake.cpp and tlsu_transport.cpp only.
//
// Network bytes go into read_bio and come out of write_bio; SSL works between the two and the plain
// text. Three locks, taken in this order, so that a reading and a writing thread do not wait for
// each other's traffic:
//
//   read_lock    the right to receive, and the plain text in stock; held across receive
//   send_lock    the right to send, which keeps the records in order; held across send
//   engine_lock  ssl and both BIOs; a leaf, held around calls of OpenSSL only
//
// A thread that has bytes to send only because it reads (answers to the peer) never waits for
// send_lock: who holds it looks for more bytes when it has given it up. So a writer that is blocked,
// because the peer does not read, never blocks reading; without that, two peers that both write at
// full speed would stop each other for ever.
//
// Bytes are received into the memory of read_bio itself while OpenSSL sees it empty, and taken out
// of write_bio by exchanging its memory for an empty one: copies would cost a third of the
// enciphering.
#ifndef TLSU_SESSION_H
#define TLSU_SESSION_H

#include "tlsu_internal.h"

#include "tarn_critical_section.h"
#include "tarn_ringbuf.h"
#include "tarn_sys.h"

#include <openssl/buffer.h>

#include <type_traits>

namespace tlsu
{

inline constexpr int plain_piece_size = 4096;
inline constexpr uint32_t default_piece_size = 4096;
inline constexpr uint32_t max_piece_size = 65536;
inline constexpr uint32_t plain_capacity = 1048576;
inline constexpr uint32_t default_handshake_timeout_ms = 10000;
inline constexpr uint32_t handshake_slice_ms = 100;
inline constexpr uint32_t max_pending = 32;

/** A peer whose handshake is under way in tls_accept. */
struct pending_peer
{
    void *conn_h;
    TLSU_SESSION tls;
    uint32_t start_tick;
};

} // namespace tlsu

struct tlsu_session
{
    tlsu_conn_if conn_if;
    void *conn_h;
    TLSU_CTX ctx_h;
    SSL *ssl;               ///< owns both BIOs
    BIO *read_bio;          ///< from the network to OpenSSL
    BIO *write_bio;         ///< from OpenSSL to the network
    BUF_MEM *received;      ///< the memory of read_bio
    BUF_MEM *filling;       ///< the memory of write_bio
    BUF_MEM *sending;       ///< what was taken out of write_bio; under send_lock
    const char *state_text; ///< last one that was logged; OpenSSL's, static
    TARN_RINGBUF plain;     ///< deciphered, not read yet

    TARN_CRITICAL_SECTION read_lock;
    TARN_CRITICAL_SECTION send_lock;
    TARN_CRITICAL_SECTION engine_lock;
    int32_t last_error;   ///< atomic: SSL_get_error() of the last operation
    uint8_t has_failed;   ///< atomic: nothing more can be sent or received
    uint8_t knows_name;   ///< under engine_lock: the peer's name was asked for
    uint8_t writer_sends; ///< under engine_lock: a writer is going to send all of write_bio

    tlsu_conn_if_ex extra;  ///< what the creator asked for, zeros replaced; its base is unused
    uint32_t pending_count; ///< listening sessions
    tlsu::pending_peer pending[tlsu::max_pending]; ///< oldest first
};
static_assert(std::is_standard_layout_v<tlsu_session> &&
              std::is_trivially_destructible_v<tlsu_session>);

namespace tlsu
{

/** How an operation of OpenSSL ended. */
enum class outcome
{
    done = 0,
    again = 1, ///< wants to read or write
    fatal = 2
};

/** A stretch of time on the millisecond tick. */
class deadline
{
public:
    deadline(uint32_t start_tick, uint32_t length_ms) : start_(start_tick), length_(length_ms) {}
    [[nodiscard]] uint32_t left_ms() const
    {
        const uint32_t passed = tarn_tick_ms_since(start_);
        return passed < length_ ? length_ - passed : 0;
    }

private:
    uint32_t start_;
    uint32_t length_;
};

bool has_failed(const tlsu_session &tls);
void set_failed(tlsu_session &tls);

/** The same, because of the connection: SSL_get_error() has nothing to say of it. */
void set_connection_failed(tlsu_session &tls);

/** Empty the thread's queue of errors: what stands in it is taken for the next operation's. */
void forget_errors();

/** Note SSL_get_error() of an operation; under engine_lock, right behind it. */
outcome classify(tlsu_session &tls, int result);

bool is_handshake_finished(tlsu_session &tls);

/** One step of the handshake. What it wants to send is sent, an alert as well. */
outcome do_ssl_handshake(tlsu_session &tls, bool is_writer);

/** Work on the handshake until it is finished, its time is up or the thread is asked to stop. Does
 *  nothing when it is finished already.
 *  @return 0; negative on failure, which ends the session */
int finish_handshake(tlsu_session &tls);

/** Receive once and work on what came; the caller has read_lock. Plain text goes into stock.
 *  @return 0; negative when the session has ended */
int advance(tlsu_session &tls, uint32_t timeout_ms);

/** Send what OpenSSL wants to be sent.
 *  @param is_writer  true: wait for another thread that is sending; false: leave the bytes to it,
 *                    and to a writer that has bytes of its own there
 *  @return false on failure, which ends the session */
bool send_pending(tlsu_session &tls, bool is_writer);

} // namespace tlsu

#endif
