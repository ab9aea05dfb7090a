// The interface table and the start of OpenSSL.
//
// The older digests (MD4, Whirlpool) come from OpenSSL's legacy provider. It is loaded beside the
// default one: loading it alone would take the others away.
//
// OpenSSL's own clean-up at exit is switched off: it would pull its tables from under loop threads
// that still run while the process ends.

#include "tlsu_internal.h"

#include "tarn_check.h"

#include <openssl/err.h>
#include <openssl/provider.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace
{

constexpr tlsu_if table = {
    .size = sizeof(tlsu_if),
    .digest_data = tlsu::digest_data,
    .aes256cbc_dec = tlsu::aes256cbc_dec,
    .aes256cbc_enc = tlsu::aes256cbc_enc,
    .bio_create_from_aes256cbc_secret = tlsu::bio_create_from_aes256cbc_secret,
    .bio_free = tlsu::free_bio,
    .rsa_key_generate = tlsu::rsa_key_generate,
    .pkey_create_from_aes256_enc_buf = tlsu::pkey_create_from_aes256_enc_buf,
    .pkey_free = EVP_PKEY_free,
    .pkey_save = tlsu::pkey_save,
    .ctx_load_cert = tlsu::ctx_load_cert,
    .ctx_load_key = tlsu::ctx_load_key,
    .x509_create = tlsu::x509_create,
    .x509_read = tlsu::x509_read,
    .x509_free = X509_free,
    .x509_print = tlsu::x509_print,
    .x509_ext_str_get = tlsu::x509_ext_str_get,
    .x509_serial_number_get = tlsu::x509_serial_number_get,
    .x509_sign = tlsu::x509_sign,
    .x509_add_ext_str = tlsu::x509_add_ext_str,
    .x509_save = tlsu::x509_save,
    .x509_store_new = X509_STORE_new,
    .x509_store_free = X509_STORE_free,
    .x509_store_load_chain = tlsu::x509_store_load_chain,
    .ctx_load_cert_chain = tlsu::ctx_load_cert_chain,
    .ctx_create = tlsu::ctx_create,
    .ctx_destroy = SSL_CTX_free,
    .tls_create = tlsu::tls_create,
    .tls_destroy = tlsu::tls_destroy,
    .tls_connect = tlsu::tls_connect,
    .tls_accept = tlsu::tls_accept,
    .tls_conn_get = tlsu::tls_conn_get,
    .tls_cipher_name = tlsu::tls_cipher_name,
    .tls_error_get = tlsu::tls_error_get,
    .error_text_get = tlsu::error_text_get,
    .tls_read = tlsu::tls_read,
    .tls_write = tlsu::tls_write,
    .tls_peer_cert = tlsu::tls_peer_cert,
    .verify_cert = tlsu::verify_cert,
    .errors_print = tlsu::errors_print,
};

// Users of a binary built earlier call through fixed places.
#define TLSU_ASSERT_SLOT(number, entry)                                                            \
    static_assert(offsetof(tlsu_if, entry) == (number) * sizeof(void *))
static_assert(sizeof(tlsu_if) == 40 * sizeof(void *));
static_assert(sizeof(void *) != 8 || sizeof(tlsu_if) == 320);
static_assert(offsetof(tlsu_if, size) == 0 && sizeof(tlsu_if::size) == 4);
TLSU_ASSERT_SLOT(1, digest_data);
TLSU_ASSERT_SLOT(2, aes256cbc_dec);
TLSU_ASSERT_SLOT(3, aes256cbc_enc);
TLSU_ASSERT_SLOT(4, bio_create_from_aes256cbc_secret);
TLSU_ASSERT_SLOT(5, bio_free);
TLSU_ASSERT_SLOT(6, rsa_key_generate);
TLSU_ASSERT_SLOT(7, pkey_create_from_aes256_enc_buf);
TLSU_ASSERT_SLOT(8, pkey_free);
TLSU_ASSERT_SLOT(9, pkey_save);
TLSU_ASSERT_SLOT(10, ctx_load_cert);
TLSU_ASSERT_SLOT(11, ctx_load_key);
TLSU_ASSERT_SLOT(12, x509_create);
TLSU_ASSERT_SLOT(13, x509_read);
TLSU_ASSERT_SLOT(14, x509_free);
TLSU_ASSERT_SLOT(15, x509_print);
TLSU_ASSERT_SLOT(16, x509_ext_str_get);
TLSU_ASSERT_SLOT(17, x509_serial_number_get);
TLSU_ASSERT_SLOT(18, x509_sign);
TLSU_ASSERT_SLOT(19, x509_add_ext_str);
TLSU_ASSERT_SLOT(20, x509_save);
TLSU_ASSERT_SLOT(21, x509_store_new);
TLSU_ASSERT_SLOT(22, x509_store_free);
TLSU_ASSERT_SLOT(23, x509_store_load_chain);
TLSU_ASSERT_SLOT(24, ctx_load_cert_chain);
TLSU_ASSERT_SLOT(25, ctx_create);
TLSU_ASSERT_SLOT(26, ctx_destroy);
TLSU_ASSERT_SLOT(27, tls_create);
TLSU_ASSERT_SLOT(28, tls_destroy);
TLSU_ASSERT_SLOT(29, tls_connect);
TLSU_ASSERT_SLOT(30, tls_accept);
TLSU_ASSERT_SLOT(31, tls_conn_get);
TLSU_ASSERT_SLOT(32, tls_cipher_name);
TLSU_ASSERT_SLOT(33, tls_error_get);
TLSU_ASSERT_SLOT(34, error_text_get);
TLSU_ASSERT_SLOT(35, tls_read);
TLSU_ASSERT_SLOT(36, tls_write);
TLSU_ASSERT_SLOT(37, tls_peer_cert);
TLSU_ASSERT_SLOT(38, verify_cert);
TLSU_ASSERT_SLOT(39, errors_print);

constinit std::once_flag started;
constinit bool is_usable = false; // written inside the once only

void load_legacy_digests()
{
    if (OSSL_PROVIDER_try_load(nullptr, "legacy", 1) == nullptr)
    {
        ERR_clear_error();
        TARN_LOG_TRACE("the legacy provider of openssl is not installed: no MD4, no Whirlpool");
    }
}

void start_openssl()
{
    TARN_LOG_TRACE("openssl version info:\n\n%s\n%s\n%s\n%s\n", OpenSSL_version(OPENSSL_VERSION),
                   OpenSSL_version(OPENSSL_CFLAGS), OpenSSL_version(OPENSSL_BUILT_ON),
                   OpenSSL_version(OPENSSL_PLATFORM));
    constexpr uint64_t strings = OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS;
    constexpr uint64_t algorithms = OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS;
    bool ok = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;
    ok = OPENSSL_init_ssl(0, nullptr) == 1 && ok;
    ok = OPENSSL_init_ssl(strings, nullptr) == 1 && ok;
    TARN_LOG_TRACE("init crypto & ssl");
    ok = OPENSSL_init_crypto(algorithms, nullptr) == 1 && ok;
    ok = OPENSSL_init_ssl(algorithms | strings, nullptr) == 1 && ok;
    load_legacy_digests();
    is_usable = ok && tlsu::x509_texts_init();
}

} // namespace

int tlsu_if_get(struct tlsu_if *out)
{
    RVON_TEXT(out, TARN_ERROR_LINE_NUMBER, "RVON(tlsu_if,TARN_ERROR_LINE_NUMBER)");
    std::call_once(started, start_openssl);
    if (!is_usable)
    {
        TARN_LOG_ERROR("openssl cannot be initialised");
        return TARN_ERRLN;
    }
    std::memcpy(out, &table, std::min<size_t>(out->size, sizeof table));
    return 0;
}
