// TLS sessions: creation, reading, writing, and what can be asked of them.
//
// Errors of OpenSSL are read with a thread's queue of errors, so each operation begins with an empty
// queue, and its result is judged right behind it under the same lock.

#include "tlsu_session.h"

#include <openssl/err.h>

#include <algorithm>
#include <cstring>

namespace
{

/** Largest plain text of one record. More in one call would only pile up in the BIO. */
constexpr int max_record = 16384;

using session_owner = tarn::unique_handle<TLSU_SESSION, tlsu::tls_destroy>;

/** Where a reader wants its bytes. */
struct sink
{
    unsigned char *out;
    int room;
    int filled;
};

// ---- creation --------------------------------------------------------------------------------------

/** Copy what the caller's record has, by the size it gives. */
void copy_conn_if(tlsu_session &tls, const tlsu_conn_if *conn_if)
{
    std::memcpy(&tls.conn_if, conn_if, std::min<size_t>(conn_if->size, sizeof tls.conn_if));
    std::memcpy(&tls.extra, conn_if, std::min<size_t>(conn_if->size, sizeof tls.extra));
    if (tls.extra.handshake_timeout_ms == 0)
    {
        tls.extra.handshake_timeout_ms = tlsu::default_handshake_timeout_ms;
    }
    tls.extra.piece_size = tls.extra.piece_size == 0
                               ? tlsu::default_piece_size
                               : std::min(tls.extra.piece_size, tlsu::max_piece_size);
}

bool create_memory(tlsu_session &tls)
{
    tls.received = BUF_MEM_new();
    tls.filling = BUF_MEM_new();
    tls.sending = BUF_MEM_new();
    if (tls.received == nullptr || tls.filling == nullptr || tls.sending == nullptr ||
        BUF_MEM_grow(tls.received, tls.extra.piece_size) == 0)
    {
        TARN_LOG_ERROR("BUF_MEM_new failed");
        return false;
    }
    tls.received->length = 0;
    return true;
}

/** A memory BIO over memory that stays the session's. */
tlsu::bio_owner make_bio(BUF_MEM *memory)
{
    tlsu::bio_owner bio(BIO_new(BIO_s_mem()));
    if (!bio || BIO_set_mem_buf(bio.get(), memory, BIO_NOCLOSE) != 1)
    {
        TARN_LOG_ERROR("BIO_new failed");
        return {};
    }
    return bio;
}

/** BIOs for both directions; OpenSSL's object owns them from then on. */
bool connect_bios(tlsu_session &tls)
{
    tlsu::bio_owner read_bio = make_bio(tls.received);
    tlsu::bio_owner write_bio = make_bio(tls.filling);
    if (!read_bio || !write_bio)
    {
        return false;
    }
    tls.read_bio = read_bio.release();
    tls.write_bio = write_bio.release();
    SSL_set_bio(tls.ssl, tls.read_bio, tls.write_bio);
    return true;
}

/** What the creator asked for beyond the context's settings. */
bool apply_flags(tlsu_session &tls)
{
    if ((tls.extra.flags & TLSU_FLAG_REQUIRE_PEER_CERT) != 0)
    {
        SSL_set_verify(tls.ssl, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    return (tls.extra.flags & TLSU_FLAG_TLS13_ONLY) == 0 ||
           SSL_set_min_proto_version(tls.ssl, TLS1_3_VERSION) == 1;
}

bool create_ssl(tlsu_session &tls)
{
    tls.ssl = SSL_new(tls.ctx_h);
    if (tls.ssl == nullptr)
    {
        TARN_LOG_ERROR("SSL_new failed");
        return false;
    }
    (void)SSL_set_mode(tls.ssl, SSL_MODE_AUTO_RETRY);
    if (tls.conn_if.type(tls.conn_h) == TLSU_CONN_TYPE_CLIENT)
    {
        SSL_set_connect_state(tls.ssl);
    }
    else
    {
        SSL_set_accept_state(tls.ssl);
    }
    return connect_bios(tls) && apply_flags(tls);
}

bool create_locks(tlsu_session &tls)
{
    tls.read_lock = tarn_critical_section_create();
    tls.send_lock = tarn_critical_section_create();
    tls.engine_lock = tarn_critical_section_create();
    return tls.read_lock != nullptr && tls.send_lock != nullptr && tls.engine_lock != nullptr;
}

// ---- reading ---------------------------------------------------------------------------------------

/** Take all plain text that OpenSSL has: to the reader as long as it has room, then into stock.
 *  Under engine_lock.
 *  @return again; fatal when the session has ended or the stock is full */
tlsu::outcome take_plain(tlsu_session &tls, sink &reader)
{
    unsigned char piece[tlsu::plain_piece_size];
    for (;;)
    {
        const int room = std::min(reader.room - reader.filled, tlsu::plain_piece_size);
        tlsu::forget_errors();
        const int n = room > 0 ? SSL_read(tls.ssl, reader.out + reader.filled, room)
                               : SSL_read(tls.ssl, piece, tlsu::plain_piece_size);
        if (const tlsu::outcome how = tlsu::classify(tls, n); how != tlsu::outcome::done)
        {
            return how;
        }
        if (room > 0)
        {
            reader.filled += n;
        }
        else if (const auto count = static_cast<uint32_t>(n);
                 tarn_ringbuf_write(tls.plain, piece, count) != count)
        {
            return tlsu::outcome::fatal;
        }
    }
}

/** What received bytes have led to. */
struct progress
{
    tlsu::outcome how; ///< done only while the handshake is not finished
    bool has_answer;   ///< something is to be sent
};

/** Show received bytes to OpenSSL and take the plain text that they make, if the handshake is
 *  finished. They have been received into the BIO's memory, which is right only because OpenSSL
 *  goes on until it has read all that was there. */
progress decipher_received(tlsu_session &tls, int count, sink &reader)
{
    const tarn::critical_section_guard engine(tls.engine_lock);
    if (BIO_ctrl_pending(tls.read_bio) != 0)
    {
        return {tlsu::outcome::fatal, false};
    }
    tls.received->length = static_cast<size_t>(count);
    (void)BIO_set_mem_buf(tls.read_bio, tls.received, BIO_NOCLOSE);
    const tlsu::outcome how =
        SSL_is_init_finished(tls.ssl) == 1 ? take_plain(tls, reader) : tlsu::outcome::done;
    return {how, BIO_ctrl_pending(tls.write_bio) != 0};
}

/** The same behind the end of the handshake, with what its last bytes left over. */
progress decipher_rest(tlsu_session &tls, sink &reader)
{
    const tarn::critical_section_guard engine(tls.engine_lock);
    const tlsu::outcome how = take_plain(tls, reader);
    return {how, BIO_ctrl_pending(tls.write_bio) != 0};
}

/** Work on received bytes: the rest of the handshake, then plain text.
 *  @return again; fatal when the session has ended */
tlsu::outcome process_received(tlsu_session &tls, int count, sink &reader)
{
    progress made = decipher_received(tls, count, reader);
    if (made.how == tlsu::outcome::done)
    {
        const tlsu::outcome step = tlsu::do_ssl_handshake(tls, false);
        if (step != tlsu::outcome::done)
        {
            return step;
        }
        made = decipher_rest(tls, reader);
    }
    // an answer to the peer, or the alert that says why the session ends
    return made.has_answer && !tlsu::send_pending(tls, false) ? tlsu::outcome::fatal : made.how;
}

/** Receive once and work on it; the caller has read_lock.
 *  @return 0; negative when the session has ended */
int receive_once(tlsu_session &tls, sink &reader, uint32_t timeout_ms)
{
    if (tlsu::has_failed(tls))
    {
        return TARN_ERRLN;
    }
    if (tarn_ringbuf_is_empty(tls.plain))
    {
        tarn_ringbuf_reset(tls.plain); // so that the same few pages of it serve again and again
    }
    const int max_len = static_cast<int>(tls.extra.piece_size);
    const int byte_count = tls.conn_if.receive(tls.conn_h, tls.received->data, max_len, timeout_ms);
    TARN_LOG_DEBUG("byte_count = [%d]", byte_count);
    if (byte_count < 0 || byte_count > max_len)
    {
        tlsu::set_connection_failed(tls);
        return TARN_ERRLN;
    }
    if (byte_count > 0 && process_received(tls, byte_count, reader) == tlsu::outcome::fatal)
    {
        tlsu::set_failed(tls);
        return TARN_ERRLN;
    }
    return 0;
}

int take_from_stock(tlsu_session &tls, const sink &reader)
{
    return reader.room > 0 ? static_cast<int>(tarn_ringbuf_read(tls.plain, reader.out,
                                                                static_cast<uint32_t>(reader.room)))
                           : 0;
}

// ---- writing ---------------------------------------------------------------------------------------

tlsu::outcome write_plain(tlsu_session &tls, const unsigned char *bytes, int count)
{
    const tarn::critical_section_guard engine(tls.engine_lock);
    tls.writer_sends = 1;
    tlsu::forget_errors();
    return tlsu::classify(tls, SSL_write(tls.ssl, bytes, count));
}

/** Encipher and send up to one record's worth.
 *  @return again when the handshake has to be worked on first */
tlsu::outcome write_record(tlsu_session &tls, const unsigned char *bytes, int count)
{
    if (tlsu::has_failed(tls))
    {
        return tlsu::outcome::fatal;
    }
    const tlsu::outcome how = write_plain(tls, bytes, count);
    return tlsu::send_pending(tls, true) ? how : tlsu::outcome::fatal;
}

} // namespace

namespace tlsu
{

bool has_failed(const tlsu_session &tls)
{
    return __atomic_load_n(&tls.has_failed, __ATOMIC_RELAXED) != 0;
}

void set_failed(tlsu_session &tls)
{
    __atomic_store_n(&tls.has_failed, 1, __ATOMIC_RELAXED); // nothing else is published by it
}

void set_connection_failed(tlsu_session &tls)
{
    __atomic_store_n(&tls.last_error, SSL_ERROR_SYSCALL, __ATOMIC_RELAXED);
    set_failed(tls);
}

void forget_errors()
{
    if (ERR_peek_error() != 0) // clearing goes through the whole queue, empty or not
    {
        ERR_clear_error();
    }
}

outcome classify(tlsu_session &tls, int result)
{
    const int error = SSL_get_error(tls.ssl, result);
    __atomic_store_n(&tls.last_error, error, __ATOMIC_RELAXED);
    switch (error)
    {
    case SSL_ERROR_NONE:
        return outcome::done;
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
        return outcome::again;
    default: // the peer's close_notify among them
        return outcome::fatal;
    }
}

TLSU_SESSION tls_create(TLSU_CTX ctx_h, const tlsu_conn_if *conn_if, void *conn_h)
{
    RVON(ctx_h, NULL);
    RVON(conn_if, NULL);
    session_owner tls(static_cast<TLSU_SESSION>(tarn_mem_alloc(sizeof(tlsu_session))));
    RVON(tls, NULL);
    copy_conn_if(*tls.get(), conn_if);
    RVON(tls.get()->conn_if.type, NULL);
    RVON(tls.get()->conn_if.send, NULL);
    RVON(tls.get()->conn_if.receive, NULL);
    tls.get()->conn_h = conn_h;
    tls.get()->ctx_h = ctx_h;
    tls.get()->plain = tarn_ringbuf_create(plain_capacity);
    RVON(tls.get()->plain, NULL);
    RVOF(create_locks(*tls.get()), NULL);
    RVOF(create_memory(*tls.get()), NULL);
    RVOF(create_ssl(*tls.get()), NULL);
    return tls.release();
}

void tls_destroy(TLSU_SESSION tls)
{
    if (tls == nullptr)
    {
        return;
    }
    for (uint32_t i = 0; i < tls->pending_count; ++i)
    {
        tls->conn_if.close(tls->pending[i].conn_h);
    }
    SSL_free(tls->ssl);
    BUF_MEM_free(tls->received);
    BUF_MEM_free(tls->filling);
    BUF_MEM_free(tls->sending);
    tarn_ringbuf_destroy(tls->plain);
    tarn_critical_section_destroy(tls->read_lock);
    tarn_critical_section_destroy(tls->send_lock);
    tarn_critical_section_destroy(tls->engine_lock);
    tarn_mem_free(tls);
}

int advance(tlsu_session &tls, uint32_t timeout_ms)
{
    sink nobody{nullptr, 0, 0};
    return receive_once(tls, nobody, timeout_ms);
}

int tls_read(TLSU_SESSION tls, void *buffer, int num, uint32_t timeout_ms)
{
    RVON(tls, TARN_ERRLN);
    RVOF(num >= 0, TARN_ERRLN);
    const tarn::critical_section_guard reader_role(tls->read_lock);
    sink reader{static_cast<unsigned char *>(buffer), buffer != nullptr ? num : 0, 0};
    if (!tarn_ringbuf_is_empty(tls->plain))
    {
        return take_from_stock(*tls, reader);
    }
    const int rc = receive_once(*tls, reader, timeout_ms);
    // what came before the end is handed out first; the end is told by the next call
    return rc < 0 && reader.filled == 0 && tarn_ringbuf_is_empty(tls->plain) ? rc : reader.filled;
}

int tls_write(TLSU_SESSION tls, const void *bytes, int num)
{
    RVON(tls, TARN_ERRLN);
    RVOF(bytes != NULL || num == 0, TARN_ERRLN);
    RVOF(num >= 0, TARN_ERRLN);
    TARN_LOG_HEX(&tarn_default_logger, TARN_LOG_LEVEL_DEBUG, "[TX]", bytes,
                 static_cast<uint32_t>(num));
    const auto *const from = static_cast<const unsigned char *>(bytes);
    int rc = finish_handshake(*tls);
    for (int written = 0; rc == 0 && written < num;)
    {
        const int count = std::min(num - written, max_record);
        switch (write_record(*tls, from + written, count))
        {
        case outcome::done:
            written += count;
            break;
        case outcome::again: // half of a message behind the handshake has come in
            rc = finish_handshake(*tls);
            break;
        case outcome::fatal:
            set_failed(*tls);
            rc = TARN_ERRLN;
            break;
        }
    }
    return rc < 0 ? rc : num;
}

void *tls_conn_get(TLSU_SESSION tls)
{
    RVON(tls, NULL);
    return tls->conn_h;
}

const char *tls_cipher_name(TLSU_SESSION tls)
{
    RVON(tls, NULL);
    const tarn::critical_section_guard engine(tls->engine_lock);
    return SSL_get_cipher_name(tls->ssl);
}

int tls_error_get(TLSU_SESSION tls)
{
    RVON(tls, SSL_ERROR_SSL);
    return __atomic_load_n(&tls->last_error, __ATOMIC_RELAXED);
}

TLSU_CERT tls_peer_cert(TLSU_SESSION tls)
{
    RVON(tls, NULL);
    const tarn::critical_section_guard engine(tls->engine_lock);
    return SSL_get1_peer_certificate(tls->ssl);
}

} // namespace tlsu
