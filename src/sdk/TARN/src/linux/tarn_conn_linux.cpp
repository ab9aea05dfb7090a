// What connections need of the system beyond sockets.

#include "tarn_conn_internal.h"

#include <arpa/inet.h>
#include <sys/socket.h>

namespace tarn
{

TARN_SOCKET conn_local_stream_socket()
{
    return tarn_socket_create(AF_UNIX, SOCK_STREAM, 0);
}

void conn_ipv6_text(const uint8_t *ip, char *out, size_t size)
{
    if (inet_ntop(AF_INET6, ip, out, static_cast<socklen_t>(size)) == nullptr)
    {
        *out = '\0';
    }
}

} // namespace tarn
