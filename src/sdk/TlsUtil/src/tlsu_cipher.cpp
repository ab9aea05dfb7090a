// AES-256-CBC with a secret text, and the memory BIO that credentials are read from.
//
// Key: SHA-256 of the text; initial vector: MD5 of it. The padding adds 1 to 16 bytes, so every
// length of plain text has one length of ciphertext, and deciphering never yields as much as went
// in. Nothing authenticates the ciphertext: a wrong secret shows only in the padding, by chance not
// even there, so what reads the plain text must take any bytes.

#include "tlsu_internal.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace
{

constexpr int block_size = 16;

inline void free_cipher_ctx(EVP_CIPHER_CTX *ctx)
{
    EVP_CIPHER_CTX_free(ctx); // wipes its key
}
using cipher_ctx_owner = tarn::unique_handle<EVP_CIPHER_CTX *, free_cipher_ctx>;

/** Key and initial vector of a secret, wiped at the end of the scope. */
class key_material
{
public:
    explicit key_material(const char *secret)
    {
        const size_t length = std::strlen(secret);
        is_valid_ = EVP_Digest(secret, length, key_, nullptr, EVP_sha256(), nullptr) == 1 &&
                    EVP_Digest(secret, length, iv_, nullptr, EVP_md5(), nullptr) == 1;
    }
    key_material(const key_material &) = delete;
    key_material &operator=(const key_material &) = delete;
    ~key_material()
    {
        OPENSSL_cleanse(key_, sizeof key_);
        OPENSSL_cleanse(iv_, sizeof iv_);
    }
    [[nodiscard]] bool is_valid() const
    {
        return is_valid_;
    }
    [[nodiscard]] const unsigned char *key() const
    {
        return key_;
    }
    [[nodiscard]] const unsigned char *iv() const
    {
        return iv_;
    }

private:
    unsigned char key_[32];
    unsigned char iv_[16];
    bool is_valid_;
};

cipher_ctx_owner make_cipher_ctx()
{
    cipher_ctx_owner ctx(EVP_CIPHER_CTX_new());
    if (!ctx)
    {
        TARN_LOG_ERROR("EVP_CIPHER_CTX_new failed");
    }
    return ctx;
}

/** @param out  room for in_len + 16 bytes
 *  @return length of the plain text; 0 after a failure */
int decipher(const key_material &material, const void *in, int in_len, unsigned char *out)
{
    const cipher_ctx_owner ctx = make_cipher_ctx();
    if (!ctx)
    {
        return 0;
    }
    int length = 0;
    int rest = 0;
    if (EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, material.key(), material.iv()) !=
        1)
    {
        TARN_LOG_ERROR("EVP_DecryptInit failed");
        return 0;
    }
    if (EVP_DecryptUpdate(ctx.get(), out, &length, static_cast<const unsigned char *>(in),
                          in_len) != 1)
    {
        TARN_LOG_ERROR("EVP_DecryptUpdate failed");
        return 0;
    }
    if (EVP_DecryptFinal_ex(ctx.get(), out + length, &rest) != 1)
    {
        TARN_LOG_ERROR("EVP_DecryptFinal_ex failed");
        return 0;
    }
    return length + rest;
}

/** @param out  room for the padded length
 *  @return the padded length; 0 after a failure */
int encipher(const key_material &material, const void *in, int in_len, unsigned char *out)
{
    const cipher_ctx_owner ctx = make_cipher_ctx();
    if (!ctx)
    {
        return 0;
    }
    int length = 0;
    int rest = 0;
    if (EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, material.key(), material.iv()) !=
        1)
    {
        TARN_LOG_ERROR("EVP_EncryptInit_ex failed");
        return 0;
    }
    if (EVP_EncryptUpdate(ctx.get(), out, &length, static_cast<const unsigned char *>(in),
                          in_len) != 1)
    {
        TARN_LOG_ERROR("EVP_EncryptUpdate failed");
        return 0;
    }
    if (EVP_EncryptFinal_ex(ctx.get(), out + length, &rest) != 1)
    {
        TARN_LOG_ERROR("EVP_EncryptFinal_ex failed");
        return 0;
    }
    return length + rest;
}

} // namespace

namespace tlsu
{

int aes256cbc_dec(const char *secret, const void *in, int in_len, void *out, int out_buf_len)
{
    RVON(secret, TARN_ERRLN);
    RVON(in, TARN_ERRLN);
    RVOF(in_len > 0, TARN_ERRLN);
    RVOF(out != NULL || out_buf_len == 0, TARN_ERRLN);
    RVOF(out_buf_len >= 0, TARN_ERRLN);
    // The padding is looked at last: until then a whole block more than the plain text is written.
    const secret_mem scratch(static_cast<size_t>(in_len) + block_size);
    RVON(scratch, TARN_ERRLN);
    const key_material material(secret);
    RVOF(material.is_valid(), 0);
    const int length = decipher(material, in, in_len, scratch.get());
    if (length > out_buf_len)
    {
        TARN_LOG_ERROR("out_buf_len [%d] too small!", out_buf_len);
        return TARN_ERRLN;
    }
    tarn_mem_copy(out, scratch.get(), static_cast<size_t>(length));
    return length;
}

int aes256cbc_enc(const char *secret, const void *in, int in_len, void *out, int out_buf_len)
{
    RVON(secret, TARN_ERRLN);
    RVOF(in != NULL || in_len == 0, TARN_ERRLN);
    RVOF(in_len >= 0, TARN_ERRLN);
    RVON(out, TARN_ERRLN);
    if (out_buf_len < std::max(in_len, block_size) ||
        out_buf_len / block_size < in_len / block_size + 1)
    {
        TARN_LOG_ERROR("out_buf_len [%d] too small!", out_buf_len);
        return TARN_ERRLN;
    }
    const key_material material(secret);
    RVOF(material.is_valid(), 0);
    // an address for OpenSSL, which takes a null with no bytes for a misuse
    return encipher(material, in_len != 0 ? in : "", in_len, static_cast<unsigned char *>(out));
}

TLSU_BIO bio_create_from_aes256cbc_secret(const char *secret, const void *buf, int len)
{
    RVON(secret, NULL);
    RVON(buf, NULL);
    RVOF(len > 0, NULL);
    const secret_mem text(static_cast<size_t>(len));
    RVON(text, NULL);
    const int length = aes256cbc_dec(secret, buf, len, text.get(), len);
    if (length <= 0)
    {
        TARN_LOG_ERROR("decrypt error");
        return nullptr;
    }
    text.get()[length] = '\0'; // the padding took at least one byte
    bio_owner bio(BIO_new(BIO_s_mem()));
    if (!bio)
    {
        TARN_LOG_ERROR("BIO_new failed");
        return nullptr;
    }
    if (BIO_write(bio.get(), text.get(), length) != length)
    {
        TARN_LOG_ERROR("BIO_write failed");
        return nullptr;
    }
    return bio.release();
}

} // namespace tlsu
