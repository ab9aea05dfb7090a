// From OpenSSL to the connection: bytes in pieces, in order, whichever threads made them.
//
// A reader sends its own answers only. A writer's records are the writer's to send, with whatever
// stands before and behind them: a reader that took them over could wait for a peer whose reader
// does the same, and nobody would read any more.

#include "tlsu_session.h"

#include <algorithm>
#include <utility>

namespace
{

/** Send a whole piece: a connection may take less than it was given, but what it left out would
 *  be missing in the middle of a record. */
bool send_piece(tlsu_session &tls, const char *bytes, int length)
{
    for (int sent = 0; sent < length;)
    {
        TARN_LOG_DEBUG("send [%d] bytes", length - sent);
        const int n = tls.conn_if.send(tls.conn_h, bytes + sent, length - sent);
        if (n <= 0 || n > length - sent)
        {
            return false;
        }
        sent += n;
    }
    return true;
}

/** Send what has been taken out, piece by piece. */
bool send_taken(tlsu_session &tls)
{
    const size_t length = tls.sending->length;
    for (size_t offset = 0; offset < length; offset += tls.extra.piece_size)
    {
        const size_t piece = std::min<size_t>(length - offset, tls.extra.piece_size);
        // behind a record that was cut off nothing makes sense to the peer
        if (tlsu::has_failed(tls) ||
            !send_piece(tls, tls.sending->data + offset, static_cast<int>(piece)))
        {
            return false;
        }
    }
    return true;
}

/** Take everything out of the BIO at once and give it the emptied memory of the last time. The
 *  caller has send_lock, which guards what is taken out.
 *  @return false when there is a writer's record among it and the caller is not the writer */
bool take_out(tlsu_session &tls, bool is_writer)
{
    const tarn::critical_section_guard engine(tls.engine_lock);
    if (!is_writer && tls.writer_sends != 0)
    {
        return false;
    }
    std::swap(tls.filling, tls.sending);
    tls.filling->length = 0;
    (void)BIO_set_mem_buf(tls.write_bio, tls.filling, BIO_NOCLOSE);
    return true;
}

/** True when there is more for the caller to send. The writer's duty ends with the look that finds
 *  nothing, under the same lock. */
bool has_pending(tlsu_session &tls, bool is_writer)
{
    const tarn::critical_section_guard engine(tls.engine_lock);
    const bool more = BIO_ctrl_pending(tls.write_bio) != 0;
    if (is_writer && !more)
    {
        tls.writer_sends = 0;
    }
    return more && (is_writer || tls.writer_sends == 0);
}

/** Take send_lock.
 *  @return false when another thread has it and is not to be waited for */
bool become_sender(tlsu_session &tls, bool is_writer)
{
    if (!is_writer)
    {
        return tarn_critical_section_try_enter(tls.send_lock);
    }
    tarn_critical_section_enter(tls.send_lock);
    return true;
}

} // namespace

namespace tlsu
{

bool send_pending(tlsu_session &tls, bool is_writer)
{
    do
    {
        if (!become_sender(tls, is_writer))
        {
            return true;
        }
        const tarn::scope_exit leave([&tls] { tarn_critical_section_leave(tls.send_lock); });
        if (!take_out(tls, is_writer))
        {
            return true;
        }
        if (!send_taken(tls))
        {
            set_connection_failed(tls);
            return false;
        }
        // Asked only when the lock has been given up: a thread that could not get it just before
        // has left its bytes behind.
    } while (has_pending(tls, is_writer));
    return true;
}

} // namespace tlsu
