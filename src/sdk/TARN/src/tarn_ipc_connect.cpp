// Local IPC: names, named sockets, and the way from a socket to a server's greeting.

#include "tarn_ipc_internal.h"
#include "tarn_os.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace
{

using tarn::ipc_attempt;
using tarn::ipc_p;

/** Receive the greeting.
 *  @param buf  what is received at most: with more room than the greeting takes, more may come
 *  @return bytes received, fewer than the greeting when it did not come in time */
size_t receive_greeting(TARN_SOCKET sock, std::span<uint8_t> buf)
{
    const tarn::deadline limit(tarn::ipc_limit.greeting_ms);
    size_t got = 0;
    while (got < tarn::ipc_greeting_size)
    {
        const auto left_ms = static_cast<uint32_t>(limit.left_ns() / 1000000);
        const int n = left_ms == 0
                          ? 0
                          : tarn::socket_receive(sock, buf.data() + got, buf.size() - got, left_ms);
        if (n <= 0)
        {
            break;
        }
        got += static_cast<size_t>(n);
    }
    return got;
}

bool check_greeting(const ipc_attempt &names, std::span<const uint8_t> got)
{
    if (got.size() < tarn::ipc_greeting_size)
    {
        TARN_LOG_TRACE("[%p:%s:%s] negotiation buffer size error (%d).", ipc_p(names.who),
                       names.callee, names.caller, static_cast<int>(got.size()));
        return false;
    }
    if (std::memcmp(got.data(), TARN_IPC_NEGOTIATION, tarn::ipc_greeting_size) != 0)
    {
        char text[tarn::ipc_greeting_size + 1];
        tarn::ipc_copy_shown(text, sizeof text, reinterpret_cast<const char *>(got.data()),
                             tarn::ipc_greeting_size);
        TARN_LOG_TRACE("[%p:%s:%s] negotiation data error (%s).", ipc_p(names.who), names.callee,
                       names.caller, text);
        return false;
    }
    return true;
}

} // namespace

namespace tarn
{

void ipc_copy_shown(char *out, size_t size, const char *text, size_t length)
{
    const size_t n = std::min(length, size - 1);
    for (size_t i = 0; i < n; ++i)
    {
        const auto byte = static_cast<unsigned char>(text[i]);
        out[i] = byte < 0x20 || byte == 0x7F ? '?' : text[i];
    }
    out[n] = '\0';
}

void ipc_copy_name(char (&out)[ipc_name_size], const char *name)
{
    const size_t length = strnlen(name, ipc_name_size - 1);
    std::memcpy(out, name, length);
    out[length] = '\0';
}

socket_owner ipc_create_socket(const char *name)
{
    socket_owner sock(conn_local_stream_socket());
    if (!sock)
    {
        TARN_LOG_TRACE("[%s] create socket failed, error = [%d].", name, errno);
        return sock;
    }
    if (tarn_socket_bind_local(sock.get(), name) != 0)
    {
        const int error = errno;
        TARN_LOG_TRACE("[%s] fail to bind, error = [%d].", name, error);
        sock.reset();
        errno = error;
    }
    return sock;
}

socket_owner ipc_connect_to_server(const ipc_attempt &names, socket_owner sock, connect_slot &slot,
                                   std::span<uint8_t> buf, size_t &received)
{
    if (!socket_publish(slot, sock.get()))
    {
        return {};
    }
    bool stands = false;
    if (tarn_socket_connect_local_with_timeout(sock.get(), names.callee, ipc_limit.connect_ms) == 0)
    {
        received = receive_greeting(sock.get(), buf);
        stands = check_greeting(names, buf.first(received));
    }
    else
    {
        TARN_LOG_TRACE("[%p:%s:%s] connect failed, err = [%d]", ipc_p(names.who), names.callee,
                       names.caller, errno);
    }
    const bool kept = socket_unpublish(slot);
    return stands && kept ? std::move(sock) : socket_owner();
}

} // namespace tarn
