// TLS contexts: own certificate and key, trusted chain, and what all sessions of a context share.

#include "tlsu_internal.h"

namespace
{

/** Settings that every session of the context starts with. */
bool configure(SSL_CTX *ctx)
{
    (void)SSL_CTX_set_mode(ctx, SSL_MODE_AUTO_RETRY);
    // A peer that asks for another handshake would make a writer wait for its answers.
    (void)SSL_CTX_set_options(ctx, SSL_OP_NO_RENEGOTIATION);
    // Peers that resume a session hold its state themselves (tickets). The cache would keep every
    // session of the last hours, certificate included.
    (void)SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_OFF);
    // Without a context id OpenSSL refuses to resume any session whose peer may be verified.
    constexpr unsigned char session_context[] = {'t', 'a', 'r', 'n'};
    return SSL_CTX_set_session_id_context(ctx, session_context, sizeof session_context) == 1;
}

/** Load certificate and key, which must belong together. */
bool load_identity(SSL_CTX *ctx, const char *secret, const void *cert_buf, int cert_len,
                   const void *key_buf, int key_len)
{
    if (const int error = tlsu::ctx_load_cert(ctx, secret, cert_buf, cert_len); error != 0)
    {
        TARN_LOG_ERROR("fail to load cert! error = %d", error);
        return false;
    }
    if (const int error = tlsu::ctx_load_key(ctx, secret, key_buf, key_len); error != 0)
    {
        TARN_LOG_ERROR("fail to load key! error = %d", error);
        return false;
    }
    if (SSL_CTX_check_private_key(ctx) != 1)
    {
        TARN_LOG_ERROR("private key does not match the certificate public key");
        return false;
    }
    return true;
}

/** Load the chain, if there is one.
 *  @return number of its certificates */
int load_chain(SSL_CTX *ctx, const char *secret, const void *chain_buf, int chain_len)
{
    int cert_count = 0;
    const bool is_there = chain_buf != nullptr && chain_len != 0;
    const int rc =
        is_there ? tlsu::ctx_load_cert_chain(ctx, secret, chain_buf, chain_len, &cert_count) : 0;
    TARN_LOG(rc == 0 ? TARN_LOG_LEVEL_TRACE : TARN_LOG_LEVEL_ERROR,
             "load_cert_chain return %d, cert_count = %d", rc, cert_count);
    return cert_count;
}

} // namespace

namespace tlsu
{

int ctx_load_cert(TLSU_CTX ctx_h, const char *secret, const void *buf, int len)
{
    RVON(ctx_h, TARN_ERRLN);
    const bio_owner bio(bio_create_from_aes256cbc_secret(secret, buf, len));
    if (!bio)
    {
        TARN_LOG_ERROR("bio_from_aes256 failed!");
        return TARN_ERRLN;
    }
    const cert_owner cert(x509_read(bio.get()));
    if (!cert)
    {
        return TARN_ERRLN;
    }
    if (SSL_CTX_use_certificate(ctx_h, cert.get()) != 1)
    {
        TARN_LOG_ERROR("SSL_CTX_use_certificate failed");
        errors_print(TARN_LOG_LEVEL_ERROR);
        return TARN_ERRLN;
    }
    return 0;
}

int ctx_load_key(TLSU_CTX ctx_h, const char *secret, const void *buf, int len)
{
    RVON(ctx_h, TARN_ERRLN);
    const pkey_owner pkey(pkey_create_from_aes256_enc_buf(secret, buf, len));
    if (!pkey)
    {
        TARN_LOG_ERROR("pkey_load_from_aes256_enc_buf failed");
        return TARN_ERRLN;
    }
    if (SSL_CTX_use_PrivateKey(ctx_h, pkey.get()) != 1)
    {
        TARN_LOG_ERROR("SSL_CTX_use_PrivateKey failed");
        return TARN_ERRLN;
    }
    return 0;
}

int ctx_load_cert_chain(TLSU_CTX ctx_h, const char *secret, const void *buf, int len,
                        int *cert_count_out)
{
    RVON(ctx_h, TARN_ERRLN);
    const bio_owner bio(bio_create_from_aes256cbc_secret(secret, buf, len));
    if (!bio)
    {
        TARN_LOG_ERROR("bio_from_aes256 failed!");
        return TARN_ERRLN;
    }
    return x509_store_load_chain(SSL_CTX_get_cert_store(ctx_h), bio.get(), cert_count_out, nullptr);
}

TLSU_CTX ctx_create(const char *secret, const void *chain_buf, int chain_len, const void *cert_buf,
                    int cert_len, const void *key_buf, int key_len)
{
    RVON(secret, NULL);
    ctx_owner ctx(SSL_CTX_new(TLS_method()));
    if (!ctx || !configure(ctx.get()))
    {
        TARN_LOG_ERROR("Fail to create SSL_CTX!");
        return nullptr;
    }
    if (!load_identity(ctx.get(), secret, cert_buf, cert_len, key_buf, key_len))
    {
        return nullptr;
    }
    const int cert_count = load_chain(ctx.get(), secret, chain_buf, chain_len);
    // A peer's certificate is verified when it presents one. No callback: nothing is overlooked.
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_verify_depth(ctx.get(), cert_count + 1);
    return ctx.release();
}

} // namespace tlsu
