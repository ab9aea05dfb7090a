// Connections: the object, its life, connect and disconnect, reading and writing. Addresses are in
// tarn_conn_address.cpp, TLS in tarn_conn_tls.cpp, the server in tarn_conn_server.cpp.
//
// Who frees what:
// - The record has a reference for its handle and one for every call that is inside. A destroy takes
//   the handle's away, so a callback may destroy the connection under the calls that led to it.
// - A link (socket and session) has a reference for being current and one for every thread that
//   reads or writes on it. A disconnect takes it away and shuts it down, which wakes those threads;
//   the last of them closes. So no descriptor is closed under a call, and a reader that finds the
//   break of an old link never takes down a new one.
// - on_disconnect belongs to whoever clears is_connected, under the lock, together with taking the
//   link away: it is called once, as the last thing that call does.
//
// Locks: the record's lock guards link and texts; a server's list lock guards its list. Under either
// only the callback lock below is taken, which guards the counts of running callbacks.

#include "tarn_conn.h"

#include "tarn_check.h"
#include "tarn_conn_internal.h"
#include "tarn_modules.h"
#include "tarn_os.h"
#include "tarn_process.h"
#include "tarn_raii.h"
#include "tarn_str.h"
#include "tarn_sys.h"
#include "tarn_text.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <mutex>

namespace
{

using tarn::conn_link;
using tarn::conn_pin;
using tarn::link_pin;

template <typename T>
T load(const T &field)
{
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <typename T>
void store(T &field, T value)
{
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

bool stands(TARN_CONN conn)
{
    return load(conn->is_connected) != 0;
}

void touch(TARN_CONN conn)
{
    __atomic_store_n(&conn->last_tick, tarn_tick_ms(), __ATOMIC_RELAXED);
}

int clamp_length(size_t length)
{
    return static_cast<int>(std::min<size_t>(length, INT_MAX));
}

// ---- callbacks that run ---------------------------------------------------------------------------

std::mutex callback_lock;
tarn::immortal<std::condition_variable> immortal_event;
std::condition_variable &callback_ended = immortal_event.get();

void end_callback(tarn::callback_count &count)
{
    const std::lock_guard lock(callback_lock);
    --count.running;
    callback_ended.notify_all();
}

/** Wait until the links that were taken down are closed: until then their address is in use. A
 *  thread that is inside a call on one leaves within moments; the limit is for one that has called
 *  us from there. */
void wait_for_leaving(tarn::callback_count &count)
{
    constexpr std::chrono::milliseconds limit(200);
    const tarn::cancel_guard no_cancel;
    std::unique_lock lock(callback_lock);
    (void)callback_ended.wait_for(lock, limit, [&] { return count.running == 0; });
}

/** The callbacks that the calling thread is inside, innermost first. */
constinit thread_local const tarn::callback_scope *inside = nullptr;

// ---- record ---------------------------------------------------------------------------------------

void free_record(TARN_CONN conn)
{
    if (conn->owns_tls_ctx != 0 && conn->tls_ctx_h != nullptr)
    {
        tarn::conn_tls()->ctx_destroy(conn->tls_ctx_h);
    }
    if (conn->server != nullptr)
    {
        tarn::conn_server_unref(conn->server);
    }
    for (tarn::conn_text *text = conn->texts; text != nullptr;)
    {
        tarn_mem_free(std::exchange(text, text->next));
    }
    tarn_mem_free(conn->bind_addr);
    tarn_mem_free(conn->bind_port);
    tarn_mem_free(conn->peer_addr);
    tarn_mem_free(conn->peer_port);
    tarn_critical_section_destroy(conn->lock);
    tarn_mem_free(conn);
}

void unref(TARN_CONN conn)
{
    if (__atomic_sub_fetch(&conn->refs, 1, __ATOMIC_ACQ_REL) == 0)
    {
        free_record(conn);
    }
}

/** Copy a text that may be missing. */
bool copy_text(char **out, const char *text)
{
    *out = text != nullptr ? tarn_str_dup(text) : nullptr;
    return text == nullptr || *out != nullptr;
}

/** Publish a text; the one before stays readable. */
void publish_text(TARN_CONN conn, const char *&slot, std::string_view text)
{
    if (const char *const now = load(slot); now != nullptr && text == now)
    {
        return;
    }
    auto *const kept =
        static_cast<tarn::conn_text *>(tarn_mem_alloc(sizeof(tarn::conn_text) + text.size()));
    if (kept == nullptr)
    {
        return; // the older text stays
    }
    tarn_mem_copy(kept->text, text.data(), text.size());
    const tarn::critical_section_guard guard(conn->lock);
    kept->next = conn->texts;
    conn->texts = kept;
    store(slot, static_cast<const char *>(kept->text));
}

const char *shown(const char *const &slot)
{
    const char *const text = load(slot);
    return text != nullptr ? text : "";
}

void set_endpoint(TARN_CONN conn, const char *&slot, const char *addr, const char *port)
{
    char text[512];
    tarn::text_writer endpoint(text, sizeof text);
    endpoint.append(addr != nullptr ? addr : "");
    if (tarn::conn_is_set(port))
    {
        endpoint.append(':').append(port);
    }
    publish_text(conn, slot, endpoint.c_str());
    char both[1024];
    tarn::text_writer name(both, sizeof both);
    name.append(shown(conn->local_name)).append("<->").append(shown(conn->peer_name));
    publish_text(conn, conn->name, name.c_str());
}

// ---- connect --------------------------------------------------------------------------------------

/** Connect a link through its session. */
bool connect_tls(TARN_CONN conn, conn_link *link)
{
    const tlsu_if *const tls = tarn::conn_tls();
    const int rc = tls->tls_connect(link->tls_h);
    if (rc == 0)
    {
        TARN_LOG_TRACE("TLS connect success");
        return true;
    }
    const int code = tls->tls_error_get(link->tls_h);
    TARN_LOG_ERROR("TLS connect failed, rc = %d", rc);
    TARN_LOG_ERROR("SSL_get_error() return %d (%s)", code,
                   tls->error_text_get(static_cast<unsigned long>(code)));
    tls->errors_print(TARN_LOG_LEVEL_ERROR);
    tarn::conn_disconnect_link(conn, link);
    return false;
}

bool connect_plain(TARN_CONN conn, conn_link *link)
{
    (void)tarn::conn_walk_connect(link);
    do
    {
        BOF_TEXT(link->sock != TARN_INVALID_HANDLE, "BOF(conn->sock != TARN_INVALID_HANDLE)");
        TARN_LOG_TRACE("connect success");
        return true;
    } while (0);
    tarn::conn_disconnect_link(conn, link);
    return false;
}

/** Tell the upper level; it may refuse.
 *  @return 0, or a negative result after the connection was taken down */
int report_connect(TARN_CONN conn, link_pin &link)
{
    if (!tarn::conn_mark_connected(conn, link.get()))
    {
        return TARN_ERRLN;
    }
    if (conn->on_connect == nullptr)
    {
        return 0;
    }
    tarn::count_callback(conn->callbacks);
    const int rc = [&] {
        const tarn::callback_scope scope(conn->callbacks);
        return conn->on_connect(conn, conn->context);
    }();
    if (rc != 0)
    {
        TARN_LOG_ERROR("cb_on_connect return %d", rc);
        tarn::conn_disconnect_link(conn, link.get(), &link);
        return TARN_ERRLN;
    }
    return 0;
}

// ---- read and write -------------------------------------------------------------------------------

/** Read through a session. It reports 0 for a part of a record too: go on until there are bytes, or
 *  the time is up. */
int read_tls(conn_link *link, void *buffer, int size, uint32_t timeout_ms)
{
    const tlsu_if *const tls = tarn::conn_tls();
    const uint32_t start = tarn_tick_ms();
    for (uint32_t left = timeout_ms;;)
    {
        const int n = tls->tls_read(link->tls_h, buffer, size, left);
        if (n != 0)
        {
            return n;
        }
        if (timeout_ms != TARN_INFINITE)
        {
            const uint32_t passed = tarn_tick_ms_since(start);
            if (passed >= timeout_ms)
            {
                return 0;
            }
            left = timeout_ms - passed;
        }
    }
}

/** Read from a socket; a signal handler that ran is no failure. */
int read_plain(conn_link *link, void *buffer, int size, uint32_t timeout_ms)
{
    const int n =
        tarn::socket_receive_alone(link->sock, buffer, static_cast<size_t>(size), timeout_ms);
    return n < 0 && errno == EINTR ? 0 : n;
}

const char *transport_name(const conn_link *link)
{
    return link->tls_h != nullptr ? "TLS" : "TCP";
}

size_t total_size(std::span<const tarn::send_part> parts)
{
    size_t size = 0;
    for (const tarn::send_part &part : parts)
    {
        size += part.size;
    }
    return size;
}

/** One record of a session holds this much; bytes beyond it are a record of their own. */
constexpr size_t record_size = 16384;

/** Write parts through a session, gathered into as few records as hold them. */
int64_t write_tls(conn_link *link, std::span<const tarn::send_part> parts)
{
    const tlsu_if *const tls = tarn::conn_tls();
    if (parts.size() == 1)
    {
        return tls->tls_write(link->tls_h, parts[0].data, clamp_length(parts[0].size));
    }
    const size_t room = std::min(total_size(parts), record_size);
    const tarn::unique_mem<char> record(tarn_mem_realloc(nullptr, room));
    if (!record)
    {
        return TARN_ERRLN;
    }
    int64_t written = 0;
    size_t filled = 0;
    const auto flush = [&] {
        const int n =
            filled == 0 ? 0 : tls->tls_write(link->tls_h, record.get(), static_cast<int>(filled));
        written += std::max(n, 0);
        const bool whole = n == static_cast<int>(filled);
        filled = 0;
        return whole;
    };
    for (const tarn::send_part &part : parts)
    {
        for (size_t done = 0; done < part.size;)
        {
            const size_t n = std::min(part.size - done, room - filled);
            tarn_mem_copy(record.get() + filled, static_cast<const char *>(part.data) + done, n);
            filled += n;
            done += n;
            if (filled == room && !flush())
            {
                return written != 0 ? written : TARN_ERRLN;
            }
        }
    }
    return flush() || written != 0 ? written : TARN_ERRLN;
}

void log_write_failure(conn_link *link, int error)
{
    if (link->tls_h != nullptr)
    {
        const tlsu_if *const tls = tarn::conn_tls();
        const int code = tls->tls_error_get(link->tls_h);
        TARN_LOG_ERROR("SSL_write error = %d (%s)", code,
                       tls->error_text_get(static_cast<unsigned long>(code)));
        return;
    }
    TARN_LOG_ERROR("tarn_socket_send error = %d (%s)", error, tarn::error_text(error).c_str());
}

} // namespace

namespace tarn
{

// ---- references -----------------------------------------------------------------------------------

void link_ref(conn_link *link)
{
    (void)__atomic_add_fetch(&link->refs, 1, __ATOMIC_RELAXED);
}

void link_unref(conn_link *link)
{
    if (__atomic_sub_fetch(&link->refs, 1, __ATOMIC_ACQ_REL) != 0)
    {
        return;
    }
    // The session first: freeing it touches the socket no more.
    if (link->tls_h != nullptr)
    {
        TARN_LOG_TRACE("destroy tls_h");
        conn_tls()->tls_destroy(link->tls_h);
    }
    if (link->sock != TARN_INVALID_HANDLE)
    {
        TARN_LOG_TRACE("close sock");
        (void)socket_unpublish(link->slot);
        tarn_socket_destroy(link->sock);
    }
    TARN_CONN const conn = link->leaving;
    tarn_mem_free(link->peer_host);
    tarn_mem_free(link);
    if (conn != nullptr)
    {
        end_callback(conn->leaving);
        conn_unref(conn);
    }
}

void conn_ref(TARN_CONN conn)
{
    (void)__atomic_add_fetch(&conn->refs, 1, __ATOMIC_RELAXED);
}

void conn_unref(TARN_CONN conn)
{
    unref(conn);
}

conn_pin::conn_pin(TARN_CONN conn) : conn_(conn)
{
    conn_ref(conn);
}

conn_pin::~conn_pin()
{
    conn_unref(conn_);
}

link_pin conn_hold_link(TARN_CONN conn)
{
    const critical_section_guard guard(conn->lock);
    if (conn->link != nullptr)
    {
        link_ref(conn->link);
    }
    return link_pin(conn->link);
}

// ---- making ---------------------------------------------------------------------------------------

TARN_CONN conn_make(uint32_t kind, const char *bind_addr, const char *bind_port,
                    const char *peer_addr, const char *peer_port, uint32_t timeout_ms)
{
    auto owner = unique_mem<tarn_conn>::make();
    RVON(owner, NULL);
    TARN_CONN conn = owner.release();
    conn->kind = kind;
    conn->timeout_ms = timeout_ms;
    conn->refs = 1;
    conn->lock = tarn_critical_section_create();
    if (conn->lock == TARN_INVALID_HANDLE || !copy_text(&conn->bind_addr, bind_addr) ||
        !copy_text(&conn->bind_port, bind_port) || !copy_text(&conn->peer_addr, peer_addr) ||
        !copy_text(&conn->peer_port, peer_port))
    {
        unref(conn);
        return nullptr;
    }
    conn_set_local(conn, bind_addr, bind_port);
    conn_set_peer(conn, peer_addr, peer_port);
    return conn;
}

conn_link *conn_make_link(TARN_CONN conn)
{
    auto link = unique_mem<conn_link>::make();
    RVON(link, NULL);
    link->refs = 1;
    link->kind = conn->kind;
    link->timeout_ms = conn->timeout_ms;
    link->conn = conn;
    if (conn->tls_ctx_h != nullptr)
    {
        link->tls_h = conn_tls()->tls_create(conn->tls_ctx_h, &conn->tls_io.base, link.get());
        RVON_TEXT(link->tls_h, NULL, "RVON(conn->tls_h,TARN_ERRLN)");
    }
    return link.release();
}

bool conn_set_link(TARN_CONN conn, conn_link *link)
{
    {
        const critical_section_guard guard(conn->lock);
        if (load(conn->destroyed) == 0)
        {
            conn->link = link;
            return true;
        }
    }
    link_unref(link);
    return false;
}

bool conn_mark_connected(TARN_CONN conn, const conn_link *link)
{
    const critical_section_guard guard(conn->lock);
    if (conn->link != link)
    {
        return false;
    }
    store(conn->is_connected, uint8_t{1});
    return true;
}

void conn_set_peer(TARN_CONN conn, const char *addr, const char *port)
{
    set_endpoint(conn, conn->peer_name, addr, port);
}

void conn_set_local(TARN_CONN conn, const char *addr, const char *port)
{
    set_endpoint(conn, conn->local_name, addr, port);
}

// ---- ending ---------------------------------------------------------------------------------------

void conn_disconnect_link(TARN_CONN conn, const conn_link *link, link_pin *held)
{
    const conn_pin pin(conn);
    conn_link *taken = nullptr;
    bool report = false;
    TARN_LOG_TRACE("peer name = [%s]", shown(conn->peer_name));
    {
        const critical_section_guard guard(conn->lock);
        if (link != nullptr && conn->link != link)
        {
            return; // an older link: it is down already
        }
        taken = std::exchange(conn->link, nullptr);
        if (taken != nullptr)
        {
            conn_ref(conn);
            taken->leaving = conn;
            count_callback(conn->leaving);
        }
        report = conn->is_connected != 0 && conn->on_disconnect != nullptr;
        store(conn->is_connected, uint8_t{0});
        if (report)
        {
            count_callback(conn->callbacks);
        }
    }
    if (taken != nullptr)
    {
        socket_abort(taken->slot);
        link_unref(taken);
    }
    if (held != nullptr)
    {
        held->reset();
    }
    if (report)
    {
        TARN_LOG_TRACE("call on_disconnect");
        const callback_scope scope(conn->callbacks);
        conn->on_disconnect(conn, conn->context);
    }
}

void conn_abort(TARN_CONN conn)
{
    if (const link_pin link = conn_hold_link(conn))
    {
        socket_abort(link->slot);
    }
}

// ---- callbacks ------------------------------------------------------------------------------------

void count_callback(callback_count &count)
{
    const std::lock_guard lock(callback_lock);
    ++count.running;
}

callback_scope::callback_scope(callback_count &count) noexcept : count_(count), outer_(inside)
{
    inside = this;
}

callback_scope::~callback_scope()
{
    inside = outer_;
    end_callback(count_);
}

uint32_t own_callbacks(const callback_count &count)
{
    uint32_t own = 0;
    for (const callback_scope *scope = inside; scope != nullptr; scope = scope->outer_)
    {
        own += &scope->count_ == &count ? 1 : 0;
    }
    return own;
}

void wait_for_callbacks(const callback_count &count)
{
    const cancel_guard no_cancel;
    const uint32_t own = own_callbacks(count);
    std::unique_lock lock(callback_lock);
    callback_ended.wait(lock, [&] { return count.running <= own; });
}

// ---- gathered write -------------------------------------------------------------------------------

int64_t conn_write_parts(TARN_CONN conn, std::span<const send_part> parts, uint32_t timeout_ms)
{
    RVOF_TEXT(total_size(parts) > 0, TARN_ERRLN, "RVOF(buf_len > 0,TARN_ERRLN)");
    RVOF_TEXT(stands(conn), TARN_ERRLN, "RVOF(conn->is_connected,TARN_ERRLN)");
    const conn_pin pin(conn);
    const link_pin link = conn_hold_link(conn);
    if (!link)
    {
        return TARN_ERRLN; // disconnected just now
    }
    return conn_write_link_parts(conn, link.get(), parts, timeout_ms);
}

int64_t conn_write_link_parts(TARN_CONN conn, conn_link *link, std::span<const send_part> parts,
                              uint32_t timeout_ms)
{
    const size_t length = total_size(parts);
    for (const send_part &part : parts)
    {
        TARN_LOG_HEX(&tarn_default_logger, TARN_LOG_LEVEL_DEBUG, transport_name(link), part.data,
                     static_cast<uint32_t>(part.size));
    }
    const int64_t written = link->tls_h != nullptr
                                ? write_tls(link, parts)
                                : socket_send_parts(link->sock, parts, timeout_ms);
    if (written == static_cast<int64_t>(length))
    {
        touch(conn);
    }
    else
    {
        const errno_keeper keep;
        log_write_failure(link, errno);
    }
    return written;
}

} // namespace tarn

// ---- public -----------------------------------------------------------------------------------------

TARN_CONN tarn_conn_create(const struct tlsu_credentials *secret, const char *bind_addr,
                           const char *bind_port, const char *peer_addr, const char *peer_port,
                           uint32_t timeout, tarn_conn_on_connect on_connect,
                           tarn_conn_on_disconnect on_disconnect, void *context)
{
    TARN_LOG_TRACE("secret = %p, bind_addr = %s, bind_port = %s, peer_addr = %s, peer_port = %s, "
                   "timeout = %u, on_connect = %p, on_disconnect = %p",
                   static_cast<const void *>(secret), bind_addr != nullptr ? bind_addr : "",
                   bind_port != nullptr ? bind_port : "", peer_addr != nullptr ? peer_addr : "",
                   peer_port != nullptr ? peer_port : "", timeout,
                   reinterpret_cast<void *>(on_connect), reinterpret_cast<void *>(on_disconnect));
    RVON(peer_addr, NULL);
    const bool network = tarn::conn_is_set(bind_port) || tarn::conn_is_set(peer_port);
    TLSU_CTX tls_ctx_h = nullptr;
    do
    {
        if (secret != nullptr && tarn::conn_is_set(peer_port))
        {
            if (!tarn::conn_has_tls())
            {
                break;
            }
            tls_ctx_h = tarn::conn_make_tls_context(secret);
            BON(tls_ctx_h);
        }
        else if (secret != nullptr)
        {
            TARN_LOG_WARN("credentials are not used without a port: %s", peer_addr);
        }
        char generated[TARN_NAME_MAX];
        if (!network && !tarn::conn_is_set(bind_addr))
        {
            // So that every local client has a name that its server can tell it by.
            static constinit std::atomic<int> counter{0};
            (void)tarn_str_printf(generated, sizeof generated, "%s_%d_%d",
                                  tarn_process_program_name(), tarn_process_id(),
                                  counter.fetch_add(1, std::memory_order_relaxed));
            TARN_LOG_DEBUG("generate bind_addr [%s]", generated);
            bind_addr = generated;
        }
        TARN_CONN conn =
            tarn::conn_make(tarn::conn_client, bind_addr, bind_port, peer_addr, peer_port, timeout);
        BON(conn);
        conn->tls_ctx_h = tls_ctx_h;
        conn->owns_tls_ctx = 1;
        // A peer that is silent behind the connect has no more time than one that does not answer.
        tarn::conn_fill_tls_io(&conn->tls_io, tls_ctx_h != nullptr ? secret->flags : 0,
                               timeout == TARN_INFINITE ? 0 : timeout);
        conn->on_connect = on_connect;
        conn->on_disconnect = on_disconnect;
        conn->context = context;
        return conn;
    } while (0);
    if (tls_ctx_h != nullptr)
    {
        tarn::conn_tls()->ctx_destroy(tls_ctx_h);
    }
    return nullptr;
}

void tarn_conn_destroy(TARN_CONN conn)
{
    if (conn == nullptr)
    {
        return;
    }
    TARN_LOG_TRACE("conn_h = [%p]", static_cast<void *>(conn));
    {
        const tarn::critical_section_guard guard(conn->lock);
        if (conn->destroyed != 0)
        {
            return; // a destroy is under way, this is a callback of its
        }
        store(conn->destroyed, uint8_t{1});
    }
    tarn::conn_disconnect_link(conn, nullptr);
    tarn::wait_for_callbacks(conn->callbacks);
    unref(conn);
}

int tarn_conn_connect(TARN_CONN conn)
{
    RVON(conn, TARN_ERRLN);
    if (conn->kind != tarn::conn_client)
    {
        TARN_LOG_ERROR("cannot do connect on incoming or server socket!");
        return TARN_ERRLN;
    }
    const conn_pin pin(conn);
    if (tarn::conn_hold_link(conn))
    {
        tarn::conn_disconnect_link(conn, nullptr); // its session knows the old peer
    }
    wait_for_leaving(conn->leaving);
    TARN_LOG_TRACE("connecting to %s", shown(conn->peer_name));
    conn_link *const made = tarn::conn_make_link(conn);
    if (made == nullptr)
    {
        return TARN_ERRLN;
    }
    tarn::link_ref(made);
    link_pin link(made);
    if (!tarn::conn_set_link(conn, made))
    {
        return TARN_ERRLN;
    }
    const bool connected =
        link->tls_h != nullptr ? connect_tls(conn, link.get()) : connect_plain(conn, link.get());
    return connected ? report_connect(conn, link) : TARN_ERRLN;
}

void tarn_conn_disconnect(TARN_CONN conn)
{
    RON(conn);
    tarn::conn_disconnect_link(conn, nullptr);
}

int tarn_conn_read(TARN_CONN conn, void *buffer, size_t size, uint32_t timeout)
{
    RVON(conn, TARN_ERRLN);
    if (!stands(conn))
    {
        return TARN_ERRLN;
    }
    RVON(buffer, TARN_ERRLN);
    RVOF(size > 0, TARN_ERRLN); // nothing read would look like the end
    const conn_pin pin(conn);
    link_pin link = tarn::conn_hold_link(conn);
    if (!link)
    {
        return TARN_ERRLN;
    }
    const int n = link->tls_h != nullptr
                      ? read_tls(link.get(), buffer, clamp_length(size), timeout)
                      : read_plain(link.get(), buffer, clamp_length(size), timeout);
    if (n > 0)
    {
        touch(conn);
        TARN_LOG_HEX(&tarn_default_logger, TARN_LOG_LEVEL_DEBUG, transport_name(link.get()), buffer,
                     static_cast<uint32_t>(n));
    }
    else if (n < 0)
    {
        TARN_LOG_TRACE("shutdown socket");
        tarn::conn_disconnect_link(conn, link.get(), &link);
    }
    return n;
}

int tarn_conn_write(TARN_CONN conn, const void *buffer, size_t length)
{
    RVON(conn, TARN_ERRLN);
    RVOF(buffer != NULL || length == 0, TARN_ERRLN);
    const tarn::send_part part = {buffer, static_cast<size_t>(clamp_length(length))};
    return static_cast<int>(tarn::conn_write_parts(conn, {&part, 1}, TARN_INFINITE));
}

bool tarn_conn_is_connected(TARN_CONN conn)
{
    RVON(conn, false);
    return stands(conn);
}

bool tarn_conn_is_incoming(TARN_CONN conn)
{
    RVON(conn, false);
    return conn->kind == tarn::conn_incoming;
}

const char *tarn_conn_name(TARN_CONN conn)
{
    RVON(conn, NULL);
    return shown(conn->name);
}

const char *tarn_conn_local_endpoint(TARN_CONN conn)
{
    RVON(conn, NULL);
    return shown(conn->local_name);
}

const char *tarn_conn_peer_endpoint(TARN_CONN conn)
{
    RVON(conn, NULL);
    return shown(conn->peer_name);
}

TARN_SOCKET tarn_conn_socket(TARN_CONN conn)
{
    RVON(conn, NULL);
    const link_pin link = tarn::conn_hold_link(conn);
    return link && stands(conn) ? link->sock : TARN_INVALID_HANDLE;
}

uint32_t tarn_conn_idle_ms(TARN_CONN conn)
{
    RVON(conn, 0);
    uint32_t none = 0;
    const uint32_t now = tarn_tick_ms();
    if (__atomic_compare_exchange_n(&conn->last_tick, &none, now, false, __ATOMIC_RELAXED,
                                    __ATOMIC_RELAXED))
    {
        return 0;
    }
    return tarn_tick_ms_since(none);
}
