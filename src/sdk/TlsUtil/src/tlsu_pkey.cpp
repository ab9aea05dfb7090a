// Private keys: generation and loading.

#include "tlsu_internal.h"

#include <openssl/core_names.h>
#include <openssl/decoder.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <cstdio>

namespace
{

constexpr int max_rsa_bits = OPENSSL_RSA_MAX_MODULUS_BITS; // larger ones can be made but not used

using decoder_owner = tarn::unique_handle<OSSL_DECODER_CTX *, OSSL_DECODER_CTX_free>;

} // namespace

namespace tlsu
{

int refuse_pass_phrase(char *, int, int, void *)
{
    return -1;
}

TLSU_PKEY rsa_key_generate(int bits)
{
    EVP_PKEY *const pkey = bits > 0 && bits <= max_rsa_bits
                               ? EVP_RSA_gen(static_cast<unsigned int>(bits)) // exponent 65537
                               : nullptr;
    if (pkey == nullptr)
    {
        (void)std::fputs("RSA_generate_key_ex failed.\n", stderr);
        ERR_print_errors_fp(stderr);
    }
    return pkey;
}

TLSU_PKEY pkey_create_from_aes256_enc_buf(const char *secret, const void *buf, int len)
{
    const bio_owner bio(bio_create_from_aes256cbc_secret(secret, buf, len));
    if (!bio)
    {
        TARN_LOG_ERROR("bio_create_from_aes256cbc_secret failed!");
        return nullptr;
    }
    EVP_PKEY *decoded = nullptr;
    const decoder_owner decoder(OSSL_DECODER_CTX_new_for_pkey(
        &decoded, "PEM", nullptr, nullptr, OSSL_KEYMGMT_SELECT_KEYPAIR, nullptr, nullptr));
    if (!decoder || OSSL_DECODER_CTX_get_num_decoders(decoder.get()) == 0)
    {
        TARN_LOG_ERROR("no suitable potential decoders found");
        return nullptr;
    }
    (void)OSSL_DECODER_CTX_set_pem_password_cb(decoder.get(), refuse_pass_phrase, nullptr);
    const int ok = OSSL_DECODER_from_bio(decoder.get(), bio.get());
    pkey_owner pkey(decoded);
    if (ok != 1 || !pkey)
    {
        TARN_LOG_ERROR("decoding failure");
        return nullptr;
    }
    return pkey.release();
}

} // namespace tlsu
