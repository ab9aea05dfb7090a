/** @file
 *  C++: sockets, connections, RPC, local calls, objects of the TLS utility. Part of tarn.hpp, which
 *  says what holds for all of it.
 *
 *  Handlers. A connection, RPC endpoint or IPC connection reports to one handler object through
 *  members with the names of the callbacks, each optional: member functions, or lambdas put together
 *  by handlers():
 *
 *      auto handler = tarn::handlers(
 *          tarn::on_connected([](tarn::rpc_ref peer) { peer.loop_start(); }),
 *          tarn::on_msg([&](tarn::rpc_ref, const tarn::rpc_request &request) { return 0; }));
 *      auto server = tarn::rpc::server(options, handler);
 *
 *  The handler is borrowed: it stays at its place until the owner is closed, and is declared before
 *  it. Where a server makes connections, they report to the same handler unless it says otherwise.
 *  A callback that answers with an int may return nothing: that counts as 0. */
#ifndef TARN_CXX_NET_HPP
#define TARN_CXX_NET_HPP

#include "tarn_conn.h"
#include "tarn_cxx_data.hpp"
#include "tarn_cxx_owner.hpp"
#include "tarn_ipc.h"
#include "tarn_rpc.h"
#include "tarn_rpc_file.h"
#include "tarn_socket.h"
#include "tlsu.h"

namespace tarn
{
inline namespace v1
{

// ---- sockets -------------------------------------------------------------------------------------

class socket_ref : public handle_ref<TARN_SOCKET>
{
public:
    using handle_ref::handle_ref;
    int bind(uint32_t ip, uint16_t port) const
    {
        return tarn_socket_bind(handle_, ip, port);
    }
    int bind_local(const char *name) const
    {
        return tarn_socket_bind_local(handle_, name);
    }
    int listen(int backlog) const
    {
        return tarn_socket_listen(handle_, backlog);
    }
    int connect_local(const char *name, uint32_t timeout_ms) const
    {
        return tarn_socket_connect_local_with_timeout(handle_, name, timeout_ms);
    }
    int wait_for_recv(uint32_t timeout_ms) const
    {
        return tarn_socket_wait_for_recv(handle_, timeout_ms);
    }
    int recv(bytes buffer, uint32_t timeout_ms) const
    {
        return tarn_socket_recv(handle_, buffer.data(), buffer.size(), timeout_ms);
    }
    int send(const_bytes data) const
    {
        return tarn_socket_send(handle_, data.data(), data.size());
    }
    int shutdown() const
    {
        return tarn_socket_shutdown(handle_);
    }
};
class socket : public owner<socket_ref, tarn_socket_destroy>
{
public:
    using owner::owner;
    static socket create(int domain, int type, int protocol = 0)
    {
        return socket(tarn_socket_create(domain, type, protocol));
    }
    /** tarn_socket_create_tcp_connection_with_timeout() */
    static socket connect_tcp(const char *host, const char *port, uint32_t timeout_ms)
    {
        return socket(tarn_socket_create_tcp_connection_with_timeout(host, port, nullptr, nullptr,
                                                                     timeout_ms));
    }
    /** tarn_socket_accept() on a listening one */
    static socket accept(socket_ref listening, uint32_t timeout_ms)
    {
        return socket(tarn_socket_accept(listening.get(), nullptr, nullptr, timeout_ms));
    }
    /** tarn_socket_accept_local() on a listening one */
    static socket accept_local(socket_ref listening, uint32_t timeout_ms)
    {
        return socket(tarn_socket_accept_local(listening.get(), nullptr, 0, timeout_ms));
    }
};

// ---- handlers ------------------------------------------------------------------------------------

namespace detail
{

// One record per callback: a part of a handler set, which carries the callable under that name.
// clang-format off
template <typename F> struct on_connect_part { F on_connect; };
template <typename F> struct on_disconnect_part { F on_disconnect; };
template <typename F> struct on_peer_connecting_part { F on_peer_connecting; };
template <typename F> struct on_connected_part { F on_connected; };
template <typename F> struct on_disconnected_part { F on_disconnected; };
template <typename F> struct on_msg_part { F on_msg; };
template <typename F> struct on_idle_part { F on_idle; };
template <typename F> struct on_call_part { F on_call; };

// Whether a handler has a member of that name, and whether it can be called with these arguments.
template <typename H> using name_on_connect = decltype(&H::on_connect);
template <typename H> using name_on_disconnect = decltype(&H::on_disconnect);
template <typename H> using name_on_peer_connecting = decltype(&H::on_peer_connecting);
template <typename H> using name_on_connected = decltype(&H::on_connected);
template <typename H> using name_on_disconnected = decltype(&H::on_disconnected);
template <typename H> using name_on_msg = decltype(&H::on_msg);
template <typename H> using name_on_idle = decltype(&H::on_idle);
template <typename H> using name_on_call = decltype(&H::on_call);

template <typename H, typename... A> using call_on_connect = decltype(std::declval<H &>().on_connect(std::declval<A>()...));
template <typename H, typename... A> using call_on_disconnect = decltype(std::declval<H &>().on_disconnect(std::declval<A>()...));
template <typename H, typename... A> using call_on_peer_connecting = decltype(std::declval<H &>().on_peer_connecting(std::declval<A>()...));
template <typename H, typename... A> using call_on_connected = decltype(std::declval<H &>().on_connected(std::declval<A>()...));
template <typename H, typename... A> using call_on_disconnected = decltype(std::declval<H &>().on_disconnected(std::declval<A>()...));
template <typename H, typename... A> using call_on_msg = decltype(std::declval<H &>().on_msg(std::declval<A>()...));
template <typename H, typename... A> using call_on_idle = decltype(std::declval<H &>().on_idle(std::declval<A>()...));
template <typename H, typename... A> using call_on_call = decltype(std::declval<H &>().on_call(std::declval<A>()...));
// clang-format on

template <typename Void, template <typename...> class Op, typename... Args>
inline constexpr bool detected_v = false;
template <template <typename...> class Op, typename... Args>
inline constexpr bool detected_v<std::void_t<Op<Args...>>, Op, Args...> = true;

/** True when the handler has the callback. One of the right name that cannot be called as the layer
 *  calls it would silently never be: that does not compile. */
template <template <typename...> class Name, template <typename...> class Call, typename H,
          typename... Args>
constexpr bool handles()
{
    constexpr bool callable = detected_v<void, Call, H, Args...>;
    static_assert(callable || !detected_v<void, Name, H>,
                  "a callback of this handler has other parameters than it is called with");
    return callable;
}

/** Several parts in one object. */
template <typename... Parts>
struct handler_set : Parts...
{
};

} // namespace detail

// clang-format off
template <typename F> detail::on_connect_part<F> on_connect(F f) { return {std::move(f)}; }
template <typename F> detail::on_disconnect_part<F> on_disconnect(F f) { return {std::move(f)}; }
template <typename F> detail::on_peer_connecting_part<F> on_peer_connecting(F f) { return {std::move(f)}; }
template <typename F> detail::on_connected_part<F> on_connected(F f) { return {std::move(f)}; }
template <typename F> detail::on_disconnected_part<F> on_disconnected(F f) { return {std::move(f)}; }
template <typename F> detail::on_msg_part<F> on_msg(F f) { return {std::move(f)}; }
template <typename F> detail::on_idle_part<F> on_idle(F f) { return {std::move(f)}; }
template <typename F> detail::on_call_part<F> on_call(F f) { return {std::move(f)}; }
// clang-format on

/** Make a handler of lambdas, each named by one of the functions above. */
template <typename... Parts>
[[nodiscard]] detail::handler_set<Parts...> handlers(Parts... parts)
{
    return {std::move(parts)...};
}

// ---- connections ---------------------------------------------------------------------------------

class conn_ref : public handle_ref<TARN_CONN>
{
public:
    using handle_ref::handle_ref;
    int connect() const
    {
        return tarn_conn_connect(handle_);
    }
    void disconnect() const
    {
        tarn_conn_disconnect(handle_);
    }
    int read(bytes buffer, uint32_t timeout_ms) const
    {
        return tarn_conn_read(handle_, buffer.data(), buffer.size(), timeout_ms);
    }
    int write(const_bytes data) const
    {
        return tarn_conn_write(handle_, data.data(), data.size());
    }
    [[nodiscard]] bool is_connected() const
    {
        return tarn_conn_is_connected(handle_);
    }
    [[nodiscard]] const char *name() const
    {
        return tarn_conn_name(handle_);
    }
};

/** Where a client connects; as tarn_conn_create() and tarn_rpc_client_create(). */
struct client_options
{
    const char *peer_addr = nullptr;
    const char *peer_port = nullptr;
    uint32_t timeout_ms = 5000;
    const struct tlsu_credentials *secret = nullptr;
    const char *bind_addr = nullptr;
    const char *bind_port = nullptr;
};
/** Where a server listens; as tarn_conn_server_create() and tarn_rpc_server_create(). */
struct server_options
{
    const char *bind_addr = nullptr;
    const char *bind_port = nullptr;
    uint32_t timeout_ms = 1000;
    uint32_t max_conn = 64;
    const struct tlsu_credentials *secret = nullptr;
};

namespace detail
{

template <typename H>
int conn_connected(TARN_CONN conn, void *context)
{
    if constexpr (handles<name_on_connect, call_on_connect, H, conn_ref>())
    {
        return call_or(0, [&] { return static_cast<H *>(context)->on_connect(conn_ref(conn)); });
    }
    return 0;
}

template <typename H>
constexpr tarn_conn_on_disconnect conn_disconnected()
{
    if constexpr (handles<name_on_disconnect, call_on_disconnect, H, conn_ref>())
    {
        return [](TARN_CONN conn, void *context) {
            (void)static_cast<H *>(context)->on_disconnect(conn_ref(conn));
        };
    }
    return nullptr; // which for a server is not the same as a callback that does nothing
}

} // namespace detail

/** A client's connection, or one that a server's on_connect has taken over. */
class conn : public owner<conn_ref, tarn_conn_destroy>
{
public:
    using owner::owner;
    static conn client(const client_options &o)
    {
        return conn(tarn_conn_create(o.secret, o.bind_addr, o.bind_port, o.peer_addr, o.peer_port,
                                     o.timeout_ms, nullptr, nullptr, nullptr));
    }
    /** @param handler  borrowed: on_connect(conn_ref), on_disconnect(conn_ref) */
    template <typename H>
    static conn client(const client_options &o, H &handler)
    {
        return conn(tarn_conn_create(o.secret, o.bind_addr, o.bind_port, o.peer_addr, o.peer_port,
                                     o.timeout_ms, detail::conn_connected<H>,
                                     detail::conn_disconnected<H>(), &handler));
    }
};

class conn_server_ref : public handle_ref<TARN_CONN_SERVER>
{
public:
    using handle_ref::handle_ref;
    int loop_start() const
    {
        return tarn_conn_server_loop_start(handle_);
    }
    void loop_stop() const
    {
        tarn_conn_server_loop_stop(handle_);
    }
    int loop() const
    {
        return tarn_conn_server_loop(handle_);
    }
    [[nodiscard]] socket_ref socket() const
    {
        return tarn_conn_server_socket(handle_);
    }
};
class conn_server : public owner<conn_server_ref, tarn_conn_server_destroy>
{
public:
    using owner::owner;
    /** @param handler  borrowed: on_connect(conn_ref), on_disconnect(conn_ref), of every connection;
     *                  who takes one over and who destroys it is as tarn_conn_server_create() says */
    template <typename H>
    static conn_server create(const server_options &o, H &handler)
    {
        return conn_server(tarn_conn_server_create(o.secret, o.bind_addr, o.bind_port, o.timeout_ms,
                                                   o.max_conn, detail::conn_connected<H>,
                                                   detail::conn_disconnected<H>(), &handler));
    }
};

// ---- RPC -----------------------------------------------------------------------------------------

class rpc_ref : public handle_ref<TARN_RPC>
{
public:
    using handle_ref::handle_ref;
    int loop_start() const
    {
        return tarn_rpc_loop_start(handle_);
    }
    int loop_stop() const
    {
        return tarn_rpc_loop_stop(handle_);
    }
    int loop() const
    {
        return tarn_rpc_loop(handle_);
    }
    [[nodiscard]] bool is_connected() const
    {
        return tarn_rpc_is_connected(handle_);
    }
    [[nodiscard]] const char *name() const
    {
        return tarn_rpc_name(handle_);
    }
    [[nodiscard]] conn_ref conn() const
    {
        return tarn_rpc_conn(handle_);
    }
    /** Send a request without asking for a reply. */
    int send(uint32_t seq_no, uint32_t msg_id, rpc_message_ref msg = {}) const
    {
        return tarn_rpc_msg_send(handle_, seq_no, msg_id, msg.get(), nullptr, 0);
    }
    /** Send a request and wait for its reply.
     *  @param reply  out: its data, empty when it has none
     *  @return as tarn_rpc_msg_send() */
    int call(uint32_t seq_no, uint32_t msg_id, rpc_message_ref msg, rpc_message &reply,
             uint32_t timeout_ms) const
    {
        TARN_RPC_MSG received = nullptr;
        const int code =
            tarn_rpc_msg_send(handle_, seq_no, msg_id, msg.get(), &received, timeout_ms);
        reply.reset(received);
        return code;
    }
};

/** What on_msg is told; borrowed for the call. */
struct rpc_request
{
    uint32_t seq_no;
    uint32_t msg_id;
    rpc_message_ref msg;   ///< empty when it had no data
    rpc_message_ref reply; ///< empty when the requester wants none
};

/** What on_peer_connecting may change of a new connection. */
class rpc_peer
{
public:
    rpc_peer(TARN_RPC_CALLBACK *callbacks, void **context) noexcept
        : callbacks_(callbacks), context_(context)
    {
    }
    /** Have the connection report to a handler of its own, borrowed as any. */
    template <typename H>
    void use(H &handler);

private:
    TARN_RPC_CALLBACK *callbacks_;
    void **context_;
};

namespace detail
{

template <typename H>
int rpc_admit(TARN_RPC server, void *context, const char *address, TARN_RPC conn,
              TARN_RPC_CALLBACK *callbacks, void **conn_context)
{
    *conn_context = context;
    if constexpr (handles<name_on_peer_connecting, call_on_peer_connecting, H, rpc_ref,
                          const char *, rpc_ref, rpc_peer>())
    {
        return call_or(0, [&] {
            return static_cast<H *>(context)->on_peer_connecting(
                rpc_ref(server), address, rpc_ref(conn), rpc_peer(callbacks, conn_context));
        });
    }
    return 0;
}

template <typename H>
int rpc_message_arrived(TARN_RPC rpc, uint32_t seq_no, uint32_t msg_id, TARN_RPC_MSG msg,
                        TARN_RPC_MSG reply, void *context)
{
    const rpc_request request{seq_no, msg_id, msg, reply};
    return call_or(0, [&] { return static_cast<H *>(context)->on_msg(rpc_ref(rpc), request); });
}

template <typename H>
TARN_RPC_CALLBACK rpc_callbacks()
{
    TARN_RPC_CALLBACK c{};
    c.size = sizeof c;
    c.on_peer_connecting = rpc_admit<H>;
    if constexpr (handles<name_on_connected, call_on_connected, H, rpc_ref>())
    {
        c.on_connected = [](TARN_RPC rpc, void *context) {
            (void)static_cast<H *>(context)->on_connected(rpc_ref(rpc));
        };
    }
    if constexpr (handles<name_on_disconnected, call_on_disconnected, H, rpc_ref>())
    {
        c.on_disconnected = [](TARN_RPC rpc, void *context) {
            (void)static_cast<H *>(context)->on_disconnected(rpc_ref(rpc));
        };
    }
    if constexpr (handles<name_on_msg, call_on_msg, H, rpc_ref, const rpc_request &>())
    {
        c.on_msg = rpc_message_arrived<H>;
    }
    if constexpr (handles<name_on_idle, call_on_idle, H, rpc_ref>())
    {
        c.on_idle = [](TARN_RPC rpc, void *context) {
            (void)static_cast<H *>(context)->on_idle(rpc_ref(rpc));
        };
    }
    return c;
}

} // namespace detail

template <typename H>
void rpc_peer::use(H &handler)
{
    *callbacks_ = detail::rpc_callbacks<H>();
    *context_ = &handler;
}

/** A server, a client, or a server connection that the application destroys by it:
 *  on_disconnected(rpc_ref peer) { tarn::rpc gone(peer.get()); } */
class rpc : public owner<rpc_ref, tarn_rpc_destroy>
{
public:
    using owner::owner;
    /** @param handler  borrowed: on_peer_connecting(rpc_ref server, const char *peer_addr, rpc_ref
     *                  conn, rpc_peer), without which every peer is admitted; and those of client()
     *                  for the connections. on_connected starts a connection's loop. Without
     *                  on_disconnected a connection that broke destroys itself */
    template <typename H>
    static rpc server(const server_options &o, H &handler)
    {
        const TARN_RPC_CALLBACK callbacks = detail::rpc_callbacks<H>();
        TARN_RPC made = nullptr;
        const int result = tarn_rpc_server_create(o.secret, o.bind_addr, o.bind_port, o.timeout_ms,
                                                  o.max_conn, &callbacks, &handler, &made);
        return rpc(result == 0 ? made : nullptr);
    }
    /** @param handler  borrowed: on_connected(rpc_ref), on_disconnected(rpc_ref), on_idle(rpc_ref),
     *                  on_msg(rpc_ref, const rpc_request &) */
    template <typename H>
    static rpc client(const client_options &o, H &handler)
    {
        const TARN_RPC_CALLBACK callbacks = detail::rpc_callbacks<H>();
        return client(o, &callbacks, &handler);
    }
    static rpc client(const client_options &o)
    {
        return client(o, nullptr, nullptr);
    }

private:
    static rpc client(const client_options &o, const TARN_RPC_CALLBACK *callbacks, void *context)
    {
        TARN_RPC made = nullptr;
        const int result =
            tarn_rpc_client_create(o.secret, o.bind_addr, o.bind_port, o.peer_addr, o.peer_port,
                                   o.timeout_ms, callbacks, context, &made);
        return rpc(result == 0 ? made : nullptr);
    }
};

/** A file being sent; calls f(uint32_t percent, const char *error) on its thread. */
class rpc_file_send
    : public callback_owner<handle_ref<TARN_RPC_FILE_SEND>, tarn_rpc_file_send_destroy>
{
public:
    using callback_owner::callback_owner;
    template <typename F>
    static rpc_file_send begin(rpc_ref rpc, const char *src_path, const char *dst_name,
                               uint32_t timeout_ms, F f)
    {
        return rpc_file_send(std::move(f), [&](detail::callable_of<F> *callable) {
            return tarn_rpc_file_send_begin(rpc.get(), src_path, dst_name, 0, timeout_ms, entry<F>,
                                            callable);
        });
    }

private:
    template <typename F>
    static void entry(TARN_RPC_FILE_SEND, uint32_t percent, const char *error, void *arg)
    {
        auto *const running = static_cast<detail::callable_of<F> *>(arg);
        const detail::running_call call(running);
        (void)running->call(percent, error);
    }
};

// ---- local calls ---------------------------------------------------------------------------------

class ipc_ref : public handle_ref<TARN_IPC>
{
public:
    using handle_ref::handle_ref;
    /** Call a function of the peer.
     *  @param ret      out: what the function returned
     *  @param results  out: its results, empty for none; null: not asked for
     *  @return as tarn_ipc_call() */
    int32_t call(uint32_t func_id, data_ref args, int32_t &ret, data *results = nullptr) const
    {
        TARN_DATA received = nullptr;
        const int32_t code = tarn_ipc_call(handle_, func_id, args.get(), &ret,
                                           results != nullptr ? &received : nullptr);
        if (results != nullptr)
        {
            results->reset(received);
        }
        return code;
    }
    /** Send a message that is not answered. */
    int32_t post(uint32_t func_id, data_ref args = {}) const
    {
        return tarn_ipc_call(handle_, func_id, args.get(), nullptr, nullptr);
    }
    bool get_peer(int32_t *pid, uint32_t *uid, uint32_t *gid) const
    {
        return tarn_ipc_get_peer(handle_, pid, uid, gid);
    }
};

namespace detail
{

template <typename H>
void ipc_connected(TARN_IPC conn, const char *name, void *object, TARN_IPC)
{
    if constexpr (handles<name_on_connected, call_on_connected, H, ipc_ref, const char *>())
    {
        (void)static_cast<H *>(object)->on_connected(ipc_ref(conn), name);
    }
}

template <typename H>
void ipc_disconnected(TARN_IPC conn, const char *name, void *object, TARN_IPC)
{
    if constexpr (handles<name_on_disconnected, call_on_disconnected, H, ipc_ref, const char *>())
    {
        (void)static_cast<H *>(object)->on_disconnected(ipc_ref(conn), name);
    }
}

template <typename H>
int32_t ipc_called(TARN_IPC conn, uint32_t func_id, TARN_DATA args, TARN_DATA *results,
                   void *object)
{
    if constexpr (handles<name_on_call, call_on_call, H, ipc_ref, uint32_t, data_ref, data *>())
    {
        data filled;
        const int32_t code = call_or(int32_t{0}, [&] {
            return static_cast<H *>(object)->on_call(ipc_ref(conn), func_id, data_ref(args),
                                                     results != nullptr ? &filled : nullptr);
        });
        if (results != nullptr)
        {
            *results = filled.release();
        }
        return code;
    }
    return 0;
}

template <typename H>
tarn_ipc_callbacks ipc_callbacks(H &handler)
{
    return {ipc_connected<H>, ipc_disconnected<H>, ipc_called<H>, &handler};
}

} // namespace detail

/** A server or a client's connection. The handler, borrowed, has on_connected(ipc_ref, const char
 *  *name), on_disconnected(ipc_ref, const char *name) and int32_t on_call(ipc_ref, uint32_t func_id,
 *  data_ref args, data *results), where results is null when the caller wants none. */
class ipc : public owner<ipc_ref, tarn_ipc_destroy>
{
public:
    using owner::owner;
    /** All connections report to the one handler; on_call on several threads at a time. */
    template <typename H>
    static ipc create(const char *name, uint32_t max_connection, H &handler)
    {
        const tarn_ipc_server_callbacks callbacks = {
            [](TARN_IPC, const char *, tarn_ipc_callbacks *out, void *object, TARN_IPC) -> int32_t {
                *out = detail::ipc_callbacks(*static_cast<H *>(object));
                return 0;
            },
            &handler};
        return ipc(tarn_ipc_create(name, max_connection, &callbacks));
    }
    template <typename H>
    static ipc open(const char *callee_name, const char *caller_name, H &handler)
    {
        const tarn_ipc_callbacks callbacks = detail::ipc_callbacks(handler);
        return ipc(tarn_ipc_open(callee_name, caller_name, &callbacks));
    }
    template <typename H>
    static ipc open_async(const char *callee_name, const char *caller_name, H &handler)
    {
        const tarn_ipc_callbacks callbacks = detail::ipc_callbacks(handler);
        return ipc(tarn_ipc_open_async(callee_name, caller_name, &callbacks));
    }
};

// ---- objects of the TLS utility ------------------------------------------------------------------

/** Owner of an object that a function of a tlsu_if table made; the table, borrowed, frees it. */
template <typename Handle, auto Free>
class [[nodiscard]] tls_owner : public handle_ref<Handle>
{
public:
    tls_owner() noexcept = default;
    tls_owner(const tlsu_if &table, Handle handle) noexcept
        : handle_ref<Handle>(handle), table_(&table)
    {
    }
    tls_owner(tls_owner &&other) noexcept
        : handle_ref<Handle>(other.release()), table_(other.table_)
    {
    }
    tls_owner &operator=(tls_owner &&other) noexcept
    {
        if (this != &other)
        {
            reset();
            table_ = other.table_;
            this->handle_ = other.release();
        }
        return *this;
    }
    ~tls_owner()
    {
        reset();
    }
    [[nodiscard]] Handle release() noexcept
    {
        return std::exchange(this->handle_, nullptr);
    }
    void reset() noexcept
    {
        if (Handle old = release(); old != nullptr)
        {
            const detail::no_cancel guard;
            (table_->*Free)(old);
        }
    }

private:
    const tlsu_if *table_ = nullptr;
};
using tls_bio = tls_owner<TLSU_BIO, &tlsu_if::bio_free>;
using tls_pkey = tls_owner<TLSU_PKEY, &tlsu_if::pkey_free>;
using tls_cert = tls_owner<TLSU_CERT, &tlsu_if::x509_free>;
using tls_store = tls_owner<TLSU_STORE, &tlsu_if::x509_store_free>;
using tls_ctx = tls_owner<TLSU_CTX, &tlsu_if::ctx_destroy>;
using tls_session = tls_owner<TLSU_SESSION, &tlsu_if::tls_destroy>;

} // namespace v1
} // namespace tarn

#endif
