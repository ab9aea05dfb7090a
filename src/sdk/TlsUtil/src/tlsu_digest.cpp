// Message digests by id.
//
// They are fetched by name: a digest that a build or a provider does not have is then simply not
// there, while OpenSSL's constant objects exist for digests that cannot be used as well.

#include "tlsu_internal.h"

#include <openssl/err.h>

#include <iterator>

namespace
{

/** From id TLSU_DIGEST_MD4 on. */
constexpr const char *digest_names[] = {
    "MD4",      "MD5",        "MD5-SHA1",  "BLAKE2B-512", "BLAKE2S-256",  "SHA1",
    "SHA2-224", "SHA2-256",   "SHA2-384",  "SHA2-512",    "SHA2-512/224", "SHA2-512/256",
    "SHA3-224", "SHA3-256",   "SHA3-384",  "SHA3-512",    "SHAKE-128",    "SHAKE-256",
    "MDC2",     "RIPEMD-160", "WHIRLPOOL", "SM3",
};
static_assert(std::size(digest_names) == TLSU_DIGEST_SM3 - TLSU_DIGEST_MD4 + 1);

} // namespace

namespace tlsu
{

digest_owner fetch_digest(int id)
{
    if (id < TLSU_DIGEST_MD4 || id > TLSU_DIGEST_SM3)
    {
        return {};
    }
    return digest_owner(EVP_MD_fetch(nullptr, digest_names[id - TLSU_DIGEST_MD4], nullptr));
}

int digest_data(int id, const void *data, int len, void *out, int digest_len)
{
    RVOF(data != NULL || len == 0, TARN_ERROR_LINE_NUMBER);
    RVOF(len >= 0, TARN_ERROR_LINE_NUMBER);
    RVON(out, TARN_ERROR_LINE_NUMBER);
    const digest_owner fetched = fetch_digest(id);
    const EVP_MD *const md = fetched.get();
    RVON(md, TARN_ERROR_LINE_NUMBER);
    // clang-format off
    RVOF(digest_len >= EVP_MD_size( md ), TARN_ERROR_LINE_NUMBER);
    // clang-format on
    unsigned int length = 0;
    if (EVP_Digest(data, static_cast<size_t>(len), static_cast<unsigned char *>(out), &length, md,
                   nullptr) != 1)
    {
        TARN_LOG_ERROR("EVP_Digest failed");
        return TARN_ERRLN;
    }
    return static_cast<int>(length);
}

} // namespace tlsu
