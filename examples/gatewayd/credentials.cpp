#include "credentials.h"

#include "settings.h"
#include "text_file.h"

#include "tarn_log.h"
#include "tlsu.h"

#include <array>
#include <cstdio>

#include <sys/stat.h>

namespace gatewayd
{
namespace
{

/** The files, and the record that points to them. */
struct credentials_store
{
    std::array<char, 256> secret;
    std::array<char, 65536> chain;
    std::array<char, 16384> cert;
    std::array<char, 16384> key;
    tlsu_credentials record;
    char error[256];
};
credentials_store store;

bool fail(const char *file, const char *why)
{
    (void)std::snprintf(store.error, sizeof store.error, "%s: %s", file, why);
    return false;
}

bool read_file(const char *dir, const char *file, std::span<char> buffer, std::string_view *out)
{
    char path[max_path];
    (void)std::snprintf(path, sizeof path, "%s/%s", dir, file);
    const text_result read = read_text_file(path, buffer);
    *out = read.text;
    return read.error == nullptr || fail(file, read.error);
}

bool read_part(const char *dir, const char *file, std::span<char> buffer, const void **bytes,
               int32_t *length)
{
    std::string_view text;
    if (!read_file(dir, file, buffer, &text))
    {
        return false;
    }
    *bytes = text.data();
    *length = static_cast<int32_t>(text.size());
    return true;
}

/** The secret is the first line of its file. */
bool read_secret(const char *dir)
{
    std::string_view text;
    if (!read_file(dir, "secret", std::span(store.secret).first(store.secret.size() - 1), &text))
    {
        return false;
    }
    std::string_view line = take_line(&text);
    line.remove_suffix(line.ends_with('\r') ? 1 : 0);
    if (line.empty())
    {
        return fail("secret", "there is none in it");
    }
    char *const start = store.secret.data() + (line.data() - store.secret.data());
    start[line.size()] = '\0';
    store.record.secret = start;
    char path[max_path];
    struct stat status = {};
    (void)std::snprintf(path, sizeof path, "%s/secret", dir);
    if (::stat(path, &status) == 0 && (status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
    {
        TARN_LOG_WARN("%s can be read by others, its mode should be 0600", path);
    }
    return true;
}

/** Deciphers everything once: afterwards, in the background, nobody would see what is wrong. */
bool fit_together()
{
    tlsu_if tls{};
    tls.size = sizeof tls;
    if (tlsu_if_get(&tls) != 0)
    {
        return fail("TLS", "not in this build");
    }
    const tlsu_credentials &own = store.record;
    TLSU_CTX ctx = tls.ctx_create(own.secret, own.chain, own.chain_len, own.cert, own.cert_len,
                                  own.key, own.key_len);
    if (ctx == nullptr)
    {
        return fail("server.cert, server.key", "not a pair, or not enciphered with the secret");
    }
    int count = 0;
    const int rc = tls.ctx_load_cert_chain(ctx, own.secret, own.chain, own.chain_len, &count);
    tls.ctx_destroy(ctx);
    return (rc == 0 && count > 0) ||
           fail("server.chain", "no certificates, or not enciphered with the secret");
}

} // namespace

credentials_result read_credentials(const char *dir)
{
    tlsu_credentials &own = store.record;
    own = {};
    own.size = sizeof own;
    own.flags = TLSU_FLAG_REQUIRE_PEER_CERT;
    store.error[0] = '\0';
    const bool usable = read_secret(dir) &&
                        read_part(dir, "server.chain", store.chain, &own.chain, &own.chain_len) &&
                        read_part(dir, "server.cert", store.cert, &own.cert, &own.cert_len) &&
                        read_part(dir, "server.key", store.key, &own.key, &own.key_len) &&
                        fit_together();
    return {usable ? &own : nullptr, store.error};
}

} // namespace gatewayd
