// Keys and certificates as PEM files.
//
// The file layer gives new files the permissions that the umask leaves. A private key in plain text
// must not be readable for others at any moment, so its file is made with mode 0600 first.

#include "tlsu_internal.h"

#include "tarn_dir.h"
#include "tarn_file.h"
#include "tarn_os.h"

#include <openssl/pem.h>

#include <climits>

#include <fcntl.h>
#include <sys/stat.h>

namespace
{

/** The bytes that a memory BIO holds. */
struct pem_text
{
    const char *bytes;
    size_t size;
};

pem_text text_of(BIO *bio)
{
    char *bytes = nullptr;
    const long size = BIO_get_mem_data(bio, &bytes);
    return {bytes, size > 0 ? static_cast<size_t>(size) : 0};
}

int open_private(const char *path)
{
    return tarn::retry_eintr([path] {
        return open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    });
}

/** Make sure that the file is there and that only its owner may use it. */
bool make_private_file(const char *path)
{
    tarn::unique_fd fd(open_private(path));
    if (!fd && errno == ENOENT)
    {
        (void)tarn_dir_create_for_file(path);
        fd.reset(open_private(path));
    }
    if (!fd || fchmod(fd.get(), 0600) != 0)
    {
        const int error = errno;
        TARN_LOG_ERROR("fail to create %s, error = %d (%s)", path, error,
                       tarn::error_text(error).c_str());
        return false;
    }
    return true;
}

int save_enciphered(const pem_text &pem, const char *secret, const char *path)
{
    RVOF(pem.size <= INT_MAX / 2, TARN_ERRLN);
    auto enciphered = tarn::unique_mem<char>::make_array(2 * pem.size);
    RVON(enciphered, TARN_ERRLN);
    const int length = tlsu::aes256cbc_enc(secret, pem.bytes, static_cast<int>(pem.size),
                                           enciphered.get(), static_cast<int>(2 * pem.size));
    RVOF(length > 0, TARN_ERRLN);
    RVOF(tarn_file_write_buffer(path, enciphered.get(), static_cast<size_t>(length)), TARN_ERRLN);
    return 0;
}

} // namespace

namespace tlsu
{

int pkey_save(TLSU_PKEY pkey, const char *secret, const char *path)
{
    RVON(pkey, TARN_ERRLN);
    RVON(path, TARN_ERRLN);
    const bio_owner bio(BIO_new(BIO_s_mem())); // wiped when it is freed
    RVON(bio, TARN_ERRLN);
    if (PEM_write_bio_PrivateKey(bio.get(), pkey, nullptr, nullptr, 0, nullptr, nullptr) != 1)
    {
        TARN_LOG_ERROR("PEM_write_bio_PrivateKey failed");
        return TARN_ERRLN;
    }
    const pem_text pem = text_of(bio.get());
    if (secret != nullptr)
    {
        return save_enciphered(pem, secret, path);
    }
    RVOF(make_private_file(path), TARN_ERRLN);
    RVOF(tarn_file_write_buffer(path, pem.bytes, pem.size), TARN_ERRLN);
    return 0;
}

int x509_save(TLSU_CERT cert, const char *secret, const char *path)
{
    RVON(cert, TARN_ERRLN);
    RVON(path, TARN_ERRLN);
    const bio_owner bio(BIO_new(BIO_s_mem()));
    RVON(bio, TARN_ERRLN);
    if (PEM_write_bio_X509(bio.get(), cert) != 1)
    {
        TARN_LOG_ERROR("PEM_write_bio_X509 failed");
        return TARN_ERRLN;
    }
    const pem_text pem = text_of(bio.get());
    if (secret != nullptr)
    {
        return save_enciphered(pem, secret, path);
    }
    RVOF(tarn_file_write_buffer(path, pem.bytes, pem.size), TARN_ERRLN);
    return 0;
}

} // namespace tlsu
