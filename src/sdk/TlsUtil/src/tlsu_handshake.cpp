// The handshake: its steps, connecting, and accepting peers.
//
// A peer may be silent, or send a byte now and then: each handshake has one deadline from its first
// step to its end, and each wait is a slice after which the thread's stop request is looked at.

#include "tlsu_session.h"

#include "tarn_thread.h"

#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>

namespace
{

// ---- steps -----------------------------------------------------------------------------------------

/** The state's text when it is not the one that was logged last, else null; under engine_lock. */
const char *changed_state(tlsu_session &tls)
{
    const char *const text = SSL_state_string_long(tls.ssl);
    if (tls.state_text != nullptr && std::strcmp(tls.state_text, text) == 0)
    {
        return nullptr;
    }
    tls.state_text = text;
    return text;
}

void log_state(const char *text)
{
    if (text != nullptr)
    {
        TARN_LOG_DEBUG("*** %s", text);
    }
}

/** Demand that the peer's certificate is issued to this name or numeric address. */
bool expect_name(tlsu_session &tls, const char *name)
{
    X509_VERIFY_PARAM *const param = SSL_get0_param(tls.ssl);
    if (X509_VERIFY_PARAM_set1_ip_asc(param, name) == 1)
    {
        return true;
    }
    ERR_clear_error(); // no address, so it is a name
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return X509_VERIFY_PARAM_set1_host(param, name, 0) == 1 &&
           (SSL_is_server(tls.ssl) == 1 || SSL_set_tlsext_host_name(tls.ssl, name) == 1);
}

/** Copy the peer's name, without the zone that a link-local address has on this machine only.
 *  @return false when there is none */
bool peer_name_of(const tlsu_session &tls, char *name, size_t size)
{
    const char *const given =
        tls.extra.peer_name != nullptr ? tls.extra.peer_name(tls.conn_h) : nullptr;
    if (given == nullptr)
    {
        return false;
    }
    const size_t length = std::strcspn(given, "%");
    if (length == 0 || length >= size)
    {
        return false;
    }
    std::memcpy(name, given, length);
    name[length] = '\0';
    return true;
}

bool needs_name(tlsu_session &tls)
{
    const tarn::critical_section_guard engine(tls.engine_lock);
    return (tls.extra.flags & TLSU_FLAG_CHECK_PEER_NAME) != 0 && tls.knows_name == 0;
}

/** Before the first step: the name is known only once the transport stands. */
bool prepare_name_check(tlsu_session &tls)
{
    if (!needs_name(tls))
    {
        return true;
    }
    char name[256]; // a host name has up to 253 characters
    if (!peer_name_of(tls, name, sizeof name))
    {
        TARN_LOG_ERROR("no peer name to check the certificate for");
        return false;
    }
    const tarn::critical_section_guard engine(tls.engine_lock);
    tls.knows_name = expect_name(tls, name) ? 1 : 0;
    return tls.knows_name != 0;
}

/** Say why a certificate was refused: the alert does not. */
void log_verify_result(tlsu_session &tls)
{
    long result = X509_V_OK;
    {
        const tarn::critical_section_guard engine(tls.engine_lock);
        result = SSL_get_verify_result(tls.ssl);
    }
    if (result != X509_V_OK)
    {
        TARN_LOG_WARN("peer certificate refused: %s", X509_verify_cert_error_string(result));
    }
}

bool is_stop_requested()
{
    return tarn_thread_sleep(0);
}

// ---- waiting for the end ---------------------------------------------------------------------------

/** Wait for bytes of the peer. While another thread reads, they are that thread's to receive; what
 *  is left to do is to wait until it has. That is rare: only a message behind the handshake that the
 *  peer has cut in two puts a session back into this state. */
int pump(tlsu_session &tls, uint32_t slice_ms)
{
    if (!tarn_critical_section_try_enter(tls.read_lock))
    {
        tarn_sleep_ms(1);
        return 0;
    }
    const tarn::scope_exit leave([&tls] { tarn_critical_section_leave(tls.read_lock); });
    return tlsu::advance(tls, slice_ms);
}

int fail(tlsu_session &tls, const char *why)
{
    TARN_LOG_ERROR("%s", why);
    tlsu::set_failed(tls);
    return TARN_ERRLN;
}

// ---- accepting -------------------------------------------------------------------------------------

/** How often a round of several handshakes comes back to each and to new peers. */
constexpr uint32_t round_ms = 20;

/** For so long a handshake is not given up for another peer's sake. */
constexpr uint32_t fair_chance_ms = 1000;

void remove_pending(tlsu_session &svr, uint32_t index)
{
    tlsu::pending_peer *const first = svr.pending + index;
    std::move(first + 1, svr.pending + svr.pending_count, first);
    --svr.pending_count;
}

/** Take in a peer that has connected.
 *  @return false when its connection has no session and was closed */
bool add_pending(tlsu_session &svr, void *cli_conn_h)
{
    TARN_LOG_TRACE("client [%p] accepted", cli_conn_h);
    const TLSU_SESSION tls = svr.conn_if.tls(cli_conn_h);
    if (tls == nullptr)
    {
        TARN_LOG_ERROR("client [%p] has no session", cli_conn_h);
        svr.conn_if.close(cli_conn_h);
        return false;
    }
    svr.pending[svr.pending_count++] = {cli_conn_h, tls, tarn_tick_ms()};
    return true;
}

/** Move one handshake on. Only behind the step it is asked whether its time is up: the caller may
 *  have been away for long while the peer's bytes were waiting. */
tlsu::outcome step_pending(const tlsu::pending_peer &peer, uint32_t wait_ms)
{
    if (tlsu::tls_read(peer.tls, nullptr, 0, wait_ms) < 0)
    {
        TARN_LOG_WARN("TLS handshake with client [%p] failed", peer.conn_h);
        tlsu::errors_print(TARN_LOG_LEVEL_WARN);
        return tlsu::outcome::fatal;
    }
    if (tlsu::is_handshake_finished(*peer.tls))
    {
        return tlsu::outcome::done;
    }
    if (tlsu::deadline(peer.start_tick, peer.tls->extra.handshake_timeout_ms).left_ms() == 0)
    {
        TARN_LOG_WARN("TLS handshake with client [%p] timed out", peer.conn_h);
        return tlsu::outcome::fatal;
    }
    return tlsu::outcome::again;
}

/** Move every handshake on, the oldest first, until one ends.
 *  @param cli_conn_h  out: the peer whose handshake is finished; null when it failed
 *  @return false when all go on */
bool step_all_pending(tlsu_session &svr, uint32_t wait_ms, void **cli_conn_h)
{
    for (uint32_t i = 0; i < svr.pending_count; ++i)
    {
        const tlsu::pending_peer peer = svr.pending[i];
        const tlsu::outcome how = step_pending(peer, wait_ms);
        if (how == tlsu::outcome::again)
        {
            continue;
        }
        remove_pending(svr, i);
        *cli_conn_h = how == tlsu::outcome::done ? peer.conn_h : nullptr;
        if (how == tlsu::outcome::fatal)
        {
            svr.conn_if.close(peer.conn_h); // its session ends with it
        }
        return true;
    }
    return false;
}

/** Length of one wait for one peer. */
uint32_t slice_ms(const tlsu_session &svr)
{
    return svr.extra.accept_now == nullptr
               ? tlsu::handshake_slice_ms
               : std::max(round_ms / std::max(svr.pending_count, 1u), 1u);
}

/** Whether one more peer can be taken in, if need be in the place of the oldest, which has had its
 *  chance then: as long as silent peers are few, none of them is cut short; when they are many, they
 *  do not keep others out. */
bool has_room(const tlsu_session &svr)
{
    return svr.pending_count < tlsu::max_pending ||
           tlsu::deadline(svr.pending[0].start_tick, fair_chance_ms).left_ms() == 0;
}

void drop_oldest(tlsu_session &svr)
{
    void *const cli_conn_h = svr.pending[0].conn_h;
    TARN_LOG_WARN("TLS handshake with client [%p] gives way to another", cli_conn_h);
    remove_pending(svr, 0);
    svr.conn_if.close(cli_conn_h);
}

/** Take in the peers that are waiting, if the connection can tell without waiting itself. */
void accept_others(tlsu_session &svr)
{
    while (svr.extra.accept_now != nullptr && has_room(svr))
    {
        void *const cli_conn_h = svr.extra.accept_now(svr.conn_h);
        if (cli_conn_h == nullptr)
        {
            return;
        }
        if (svr.pending_count == tlsu::max_pending)
        {
            drop_oldest(svr);
        }
        (void)add_pending(svr, cli_conn_h);
    }
}

} // namespace

namespace tlsu
{

bool is_handshake_finished(tlsu_session &tls)
{
    const tarn::critical_section_guard engine(tls.engine_lock);
    return SSL_is_init_finished(tls.ssl) == 1;
}

outcome do_ssl_handshake(tlsu_session &tls, bool is_writer)
{
    if (!prepare_name_check(tls))
    {
        return outcome::fatal;
    }
    const char *before = nullptr;
    const char *after = nullptr;
    outcome how = outcome::fatal;
    {
        const tarn::critical_section_guard engine(tls.engine_lock);
        before = changed_state(tls);
        forget_errors();
        how = classify(tls, SSL_do_handshake(tls.ssl));
        after = changed_state(tls);
    }
    log_state(before);
    log_state(after);
    if (how == outcome::fatal)
    {
        log_verify_result(tls);
    }
    // The step that ends the handshake leaves bytes behind as well, a failing one its alert.
    return send_pending(tls, is_writer) ? how : outcome::fatal;
}

int finish_handshake(tlsu_session &tls)
{
    if (is_handshake_finished(tls))
    {
        return 0;
    }
    const deadline limit(tarn_tick_ms(), tls.extra.handshake_timeout_ms);
    if (has_failed(tls))
    {
        return TARN_ERRLN;
    }
    if (do_ssl_handshake(tls, true) == outcome::fatal)
    {
        return fail(tls, "TLS handshake failed");
    }
    while (!is_handshake_finished(tls))
    {
        const uint32_t left_ms = limit.left_ms();
        if (left_ms == 0)
        {
            return fail(tls, "TLS handshake timed out");
        }
        if (is_stop_requested())
        {
            return fail(tls, "TLS handshake given up: the thread is asked to stop");
        }
        if (pump(tls, std::min(left_ms, handshake_slice_ms)) < 0)
        {
            return fail(tls, "TLS handshake failed");
        }
    }
    return 0;
}

int tls_connect(TLSU_SESSION tls)
{
    RVON(tls, TARN_ERRLN);
    // clang-format off
    RVOF(tls->conn_if.type( tls->conn_h ) == TLSU_CONN_TYPE_CLIENT, TARN_ERROR_LINE_NUMBER);
    // clang-format on
    RVON(tls->conn_if.connect, TARN_ERRLN);
    RVOF(!is_handshake_finished(*tls), TARN_ERRLN); // bytes of the old peer may be left inside
    if (const int rc = tls->conn_if.connect(tls->conn_h); rc != 0)
    {
        TARN_LOG_ERROR("connect failed, rc = %d", rc);
        return TARN_ERRLN;
    }
    if (const int rc = finish_handshake(*tls); rc < 0)
    {
        return rc;
    }
    TARN_LOG_INFO("current cipher: [%s]", tls_cipher_name(tls));
    return 0;
}

void *tls_accept(TLSU_SESSION tls_svr)
{
    RVON(tls_svr, NULL);
    // clang-format off
    RVOF(tls_svr->conn_if.type( tls_svr->conn_h ) == TLSU_CONN_TYPE_SERVER, NULL);
    // clang-format on
    RVON(tls_svr->conn_if.accept, NULL);
    RVON(tls_svr->conn_if.tls, NULL);
    RVON(tls_svr->conn_if.close, NULL);
    if (tls_svr->pending_count == 0)
    {
        void *const cli_conn_h = tls_svr->conn_if.accept(tls_svr->conn_h);
        RVON(cli_conn_h, NULL);
        (void)add_pending(*tls_svr, cli_conn_h);
    }
    void *ended = nullptr;
    while (tls_svr->pending_count != 0 && !step_all_pending(*tls_svr, slice_ms(*tls_svr), &ended))
    {
        if (is_stop_requested())
        {
            return nullptr;
        }
        accept_others(*tls_svr);
    }
    return ended;
}

} // namespace tlsu
