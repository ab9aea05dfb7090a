// Private: what the sources of the TLS utility share; for tlsu_*.cpp only.
#ifndef TLSU_INTERNAL_H
#define TLSU_INTERNAL_H

#include "tlsu.h"

#include "tarn.h"
#include "tarn_raii.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cstddef>

namespace tlsu
{

// ---- owners --------------------------------------------------------------------------------------

inline void free_bio(BIO *bio)
{
    (void)BIO_free(bio);
}

inline void free_text(char *text)
{
    OPENSSL_free(text);
}

using bio_owner = tarn::unique_handle<BIO *, free_bio>;
using pkey_owner = tarn::unique_handle<EVP_PKEY *, EVP_PKEY_free>;
using cert_owner = tarn::unique_handle<X509 *, X509_free>;
using ctx_owner = tarn::unique_handle<SSL_CTX *, SSL_CTX_free>;
using ssl_owner = tarn::unique_handle<SSL *, SSL_free>;
using digest_owner = tarn::unique_handle<EVP_MD *, EVP_MD_free>;
/** A text that OpenSSL allocated. */
using text_owner = tarn::unique_handle<char *, free_text>;

/** A block that is wiped before it is freed; empty when memory ran out. */
class [[nodiscard]] secret_mem
{
public:
    explicit secret_mem(size_t size_bytes) : block_(tarn_mem_alloc(size_bytes)), size_(size_bytes)
    {
    }
    secret_mem(const secret_mem &) = delete;
    secret_mem &operator=(const secret_mem &) = delete;
    ~secret_mem()
    {
        if (block_)
        {
            OPENSSL_cleanse(block_.get(), size_);
        }
    }
    [[nodiscard]] unsigned char *get() const noexcept
    {
        return block_.get();
    }
    explicit operator bool() const noexcept
    {
        return static_cast<bool>(block_);
    }

private:
    tarn::unique_mem<unsigned char> block_;
    size_t size_;
};

// ---- pieces that are no entries of the table -------------------------------------------------------

/** Pass phrase callback that has none. Without it OpenSSL would ask on the terminal. */
int refuse_pass_phrase(char *buffer, int size, int for_writing, void *context);

/** The digest of an id, or an empty owner. */
digest_owner fetch_digest(int id);

/** Make what the texts of a thread are kept in; once, before the table is handed out. */
bool x509_texts_init();

/** Turns some failed checks of a certificate into passed ones, for verify_cert only: in a session
 *  it would admit any peer that signed its own certificate. */
int x509_store_ctx_verify_callback(int ok, X509_STORE_CTX *ctx);

// ---- entries of the table, documented in tlsu.h ----------------------------------------------------

int digest_data(int id, const void *data, int len, void *out, int digest_len);
int aes256cbc_dec(const char *secret, const void *in, int in_len, void *out, int out_buf_len);
int aes256cbc_enc(const char *secret, const void *in, int in_len, void *out, int out_buf_len);
TLSU_BIO bio_create_from_aes256cbc_secret(const char *secret, const void *buf, int len);
TLSU_PKEY rsa_key_generate(int bits);
TLSU_PKEY pkey_create_from_aes256_enc_buf(const char *secret, const void *buf, int len);
int pkey_save(TLSU_PKEY pkey, const char *secret, const char *path);
int ctx_load_cert(TLSU_CTX ctx_h, const char *secret, const void *buf, int len);
int ctx_load_key(TLSU_CTX ctx_h, const char *secret, const void *buf, int len);
TLSU_CERT x509_create(int version, const char *cert_name, const char *issuer_name,
                      const void *serial, int serial_len, int64_t begin_date, int days,
                      TLSU_PKEY pkey);
TLSU_CERT x509_read(TLSU_BIO bio);
const char *x509_print(TLSU_CERT cert);
char *x509_ext_str_get(TLSU_CERT cert, const char *oid, const char *short_name,
                       const char *long_name, int *len_out);
const char *x509_serial_number_get(TLSU_CERT cert);
int x509_sign(TLSU_CERT cert, int digest_id, TLSU_PKEY pkey);
int x509_add_ext_str(TLSU_CERT cert, const char *oid, const char *short_name, const char *long_name,
                     const char *text);
int x509_save(TLSU_CERT cert, const char *secret, const char *path);
int x509_store_load_chain(TLSU_STORE store, TLSU_BIO bio, int *cert_count_out, int *crl_count_out);
int ctx_load_cert_chain(TLSU_CTX ctx_h, const char *secret, const void *buf, int len,
                        int *cert_count_out);
TLSU_CTX ctx_create(const char *secret, const void *chain_buf, int chain_len, const void *cert_buf,
                    int cert_len, const void *key_buf, int key_len);
TLSU_SESSION tls_create(TLSU_CTX ctx_h, const tlsu_conn_if *conn_if, void *conn_h);
void tls_destroy(TLSU_SESSION tls);
int tls_connect(TLSU_SESSION tls);
void *tls_accept(TLSU_SESSION tls_svr);
void *tls_conn_get(TLSU_SESSION tls);
const char *tls_cipher_name(TLSU_SESSION tls);
int tls_error_get(TLSU_SESSION tls);
const char *error_text_get(unsigned long code);
int tls_read(TLSU_SESSION tls, void *buffer, int num, uint32_t timeout_ms);
int tls_write(TLSU_SESSION tls, const void *bytes, int num);
TLSU_CERT tls_peer_cert(TLSU_SESSION tls);
int verify_cert(TLSU_STORE store, TLSU_CERT cert);
void errors_print(int32_t level);

} // namespace tlsu

#endif
