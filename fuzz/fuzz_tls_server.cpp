// The peer of a server-side TLS session sends arbitrary bytes: from the start, behind a handshake
// that was in order, or as changes to what a client of our own sends.
//
// Byte 0 chooses which (0, 1, 2 by its low bits), byte 1 how many bytes each receive gives. Nothing
// waits: a receive that has nothing left ends the connection.

#include "input.h"

#include "tlsu.h"

#include <cstring>
#include <ctime>
#include <string>

using fuzz::require;

namespace
{

tlsu_if tls{};
TLSU_CTX ctx = nullptr;

/** One end. A client that has nothing to receive lets its server work first. */
struct end
{
    bool is_client = false;
    end *server = nullptr; ///< of a client
    end *peer = nullptr;   ///< where sent bytes go; null: nowhere
    std::string in;
    size_t taken = 0;
    size_t chunk = 4096;
    std::string_view changes; ///< to what this end sends: offset in 16 bits, then a byte to xor
    size_t sent = 0;
    bool ends_when_empty = false;
    TLSU_SESSION session = nullptr;

    void change(char *bytes, size_t size) const
    {
        for (size_t i = 0; i + 2 < changes.size(); i += 3)
        {
            const size_t at = static_cast<uint8_t>(changes[i]) * size_t{256} +
                              static_cast<uint8_t>(changes[i + 1]);
            if (at >= sent && at < sent + size)
            {
                bytes[at - sent] = static_cast<char>(bytes[at - sent] ^ changes[i + 2]);
            }
        }
    }
    int send(const void *bytes, int len)
    {
        std::string copy(static_cast<const char *>(bytes), static_cast<size_t>(len));
        change(copy.data(), copy.size());
        sent += copy.size();
        if (peer != nullptr)
        {
            peer->in += copy;
        }
        return len;
    }
    int receive(void *buffer, int max_len)
    {
        if (taken == in.size() && server != nullptr)
        {
            while (server->taken < server->in.size() &&
                   tls.tls_read(server->session, nullptr, 0, 0) >= 0)
            {
            }
        }
        if (taken == in.size())
        {
            return ends_when_empty ? -1 : 0;
        }
        const size_t n = std::min({chunk, in.size() - taken, static_cast<size_t>(max_len)});
        in.copy(static_cast<char *>(buffer), n, taken);
        taken += n;
        return static_cast<int>(n);
    }
};

end &self(void *conn_h)
{
    return *static_cast<end *>(conn_h);
}

void open(end *e)
{
    static const tlsu_conn_if conn_if = {
        .size = sizeof conn_if,
        .type = [](void *h) { return self(h).is_client ? TLSU_CONN_TYPE_CLIENT : 3; },
        .tls = [](void *h) { return self(h).session; },
        .close = [](void *) {},
        .connect = [](void *) { return 0; },
        .accept = [](void *) -> void * { return nullptr; },
        .send = [](void *h, const void *bytes, int len) { return self(h).send(bytes, len); },
        .receive = [](void *h, void *buffer, int max_len,
                      uint32_t) { return self(h).receive(buffer, max_len); }};
    e->session = tls.tls_create(ctx, &conn_if, e);
    require(e->session != nullptr);
}

/** Read until the end, and write in between. */
void serve(end *e)
{
    char buffer[257];
    int n = 0;
    while (n >= 0)
    {
        n = tls.tls_read(e->session, buffer, sizeof buffer, 0);
        require(n <= static_cast<int>(sizeof buffer));
        if (n > 0)
        {
            (void)tls.tls_write(e->session, buffer, n);
        }
    }
    require(tls.tls_read(e->session, buffer, sizeof buffer, 0) < 0);
    require(tls.tls_write(e->session, buffer, 1) < 0);
    tls.x509_free(tls.tls_peer_cert(e->session));
    (void)tls.error_text_get(static_cast<unsigned long>(tls.tls_error_get(e->session)));
    tls.errors_print(TARN_LOG_LEVEL_DEBUG);
}

void make_ctx()
{
    constexpr const char *secret = "fuzz";
    const std::string path = "/tmp/fuzz_tls_server_" + std::to_string(std::time(nullptr));
    char key_text[4096];
    char cert_text[4096];
    const auto load = [&path](char *out, size_t size) {
        std::FILE *const file = std::fopen(path.c_str(), "rb");
        require(file != nullptr);
        const size_t n = std::fread(out, 1, size, file);
        std::fclose(file);
        (void)std::remove(path.c_str());
        return static_cast<int>(n);
    };
    const TLSU_PKEY key = tls.rsa_key_generate(2048);
    const TLSU_CERT cert =
        tls.x509_create(2, "fuzz", "fuzz", "\x01", 1, std::time(nullptr) - 9, 9, key);
    require(tls.x509_sign(cert, TLSU_DIGEST_SHA256, key) == 0);
    require(tls.pkey_save(key, secret, path.c_str()) == 0);
    const int key_len = load(key_text, sizeof key_text);
    require(tls.x509_save(cert, secret, path.c_str()) == 0);
    const int cert_len = load(cert_text, sizeof cert_text);
    ctx = tls.ctx_create(secret, cert_text, cert_len, cert_text, cert_len, key_text, key_len);
    require(ctx != nullptr);
    tls.x509_free(cert);
    tls.pkey_free(key);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::swallow_log();
    tls.size = sizeof tls;
    require(tlsu_if_get(&tls) == 0);
    make_ctx();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
    {
        return 0;
    }
    const std::string_view bytes(reinterpret_cast<const char *>(data) + 2, size - 2);
    const int way = data[0] % 4;
    end server;
    end client;
    server.chunk = data[1] + size_t{1};
    open(&server);
    if (way == 1 || way == 2)
    {
        client.is_client = client.ends_when_empty = true;
        client.server = client.peer = &server;
        server.peer = &client;
        client.changes = way == 2 ? bytes : std::string_view();
        open(&client);
        const bool connected = tls.tls_connect(client.session) == 0;
        require(connected || way == 2);
        if (connected)
        {
            (void)tls.tls_write(client.session, "hello", 5);
        }
    }
    server.in += way == 2 ? std::string_view() : bytes;
    server.ends_when_empty = true;
    serve(&server);
    tls.tls_destroy(client.session);
    tls.tls_destroy(server.session);
    return 0;
}
