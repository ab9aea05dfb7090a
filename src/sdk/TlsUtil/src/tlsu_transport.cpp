// From OpenSSL to the connection: bytes in pieces, in order, whichever threads made them.

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
 *  caller has send_lock, which guards what is taken out. */
void take_out(tlsu_session &tls)
{
    const tarn::critical_section_guard engine(tls.engine_lock);
    std::swap(tls.filling, tls.sending);
    tls.filling->length = 0;
    (void)BIO_set_mem_buf(tls.write_bio, tls.filling, BIO_NOCLOSE);
}

bool has_pending(tlsu_session &tls)
{
    const tarn::critical_section_guard engine(tls.engine_lock);
    return BIO_ctrl_pending(tls.write_bio) != 0;
}

/** Take send_lock.
 *  @return false when another thread has it and is not to be waited for */
bool become_sender(tlsu_session &tls, bool waits)
{
    if (!waits)
    {
        return tarn_critical_section_try_enter(tls.send_lock);
    }
    tarn_critical_section_enter(tls.send_lock);
    return true;
}

} // namespace

namespace tlsu
{

bool send_pending(tlsu_session &tls, bool waits_for_sender)
{
    do
    {
        if (!become_sender(tls, waits_for_sender))
        {
            return true;
        }
        const tarn::scope_exit leave([&tls] { tarn_critical_section_leave(tls.send_lock); });
        take_out(tls);
        if (!send_taken(tls))
        {
            set_connection_failed(tls);
            return false;
        }
        // Asked only when the lock has been given up: a thread that could not get it just before
        // has left its bytes behind.
    } while (has_pending(tls));
    return true;
}

} // namespace tlsu
