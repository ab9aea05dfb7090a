// Certificates: making, signing, reading, and the texts of their fields and extensions.
//
// A certificate may be a peer's, so no field has a length that can be relied on: texts are bounded,
// extension data is copied by its length.

#include "tlsu_internal.h"

#include "tarn_str.h"
#include "tarn_text.h"
#include "tarn_thread.h"

#include <openssl/bn.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string_view>

namespace
{

using bn_owner = tarn::unique_handle<BIGNUM *, BN_free>;
using integer_owner = tarn::unique_handle<ASN1_INTEGER *, ASN1_INTEGER_free>;
using octets_owner = tarn::unique_handle<ASN1_OCTET_STRING *, ASN1_OCTET_STRING_free>;
using extension_owner = tarn::unique_handle<X509_EXTENSION *, X509_EXTENSION_free>;

// ---- texts that belong to a thread -----------------------------------------------------------------

constexpr size_t serial_digits = 32;

/** On the heap: 4 KiB more of thread-local storage would come off every small stack. */
struct thread_texts
{
    char print[4096];
    char serial[serial_digits + 1];
};

constinit tarn_tls_key texts_key = 0; // made once, before the table is handed out

thread_texts *texts_of_thread()
{
    auto *texts = static_cast<thread_texts *>(tarn_tls_get(texts_key));
    if (texts == nullptr)
    {
        auto made = tarn::unique_mem<thread_texts>::make();
        if (made && tarn_tls_set(texts_key, made.get()))
        {
            texts = made.release();
        }
    }
    return texts;
}

// ---- making a certificate --------------------------------------------------------------------------

bool set_serial(X509 *cert, const void *serial, int serial_len)
{
    const bn_owner number(
        BN_bin2bn(static_cast<const unsigned char *>(serial), serial_len, nullptr));
    const tlsu::text_owner hex(number ? BN_bn2hex(number.get()) : nullptr);
    const integer_owner integer(number ? BN_to_ASN1_INTEGER(number.get(), nullptr) : nullptr);
    if (!hex || !integer)
    {
        TARN_LOG_ERROR("BN_to_ASN1_INTEGER failed");
        return false;
    }
    TARN_LOG_TRACE("set serial number [%s]...", hex.get());
    if (X509_set_serialNumber(cert, integer.get()) != 1)
    {
        TARN_LOG_ERROR("X509_set_serialNumber failed");
        return false;
    }
    return true;
}

bool set_common_name(X509_NAME *name, const char *text)
{
    if (X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char *>(text), -1, -1, 0) != 1)
    {
        TARN_LOG_ERROR("X509_NAME_add_entry_by_txt failed");
        return false;
    }
    return true;
}

bool set_names(X509 *cert, const char *cert_name, const char *issuer_name)
{
    TARN_LOG_TRACE("set subject name to %s...", cert_name);
    if (!set_common_name(X509_get_subject_name(cert), cert_name))
    {
        return false;
    }
    TARN_LOG_TRACE("set issuer name to %s...", issuer_name);
    return set_common_name(X509_get_issuer_name(cert), issuer_name);
}

bool set_validity(X509 *cert, int64_t begin_date, int days)
{
    std::time_t begin = static_cast<std::time_t>(begin_date);
    if (X509_time_adj_ex(X509_getm_notBefore(cert), 0, 0, &begin) == nullptr ||
        X509_time_adj_ex(X509_getm_notAfter(cert), days, 0, &begin) == nullptr)
    {
        TARN_LOG_ERROR("X509_time_adj_ex failed");
        return false;
    }
    return true;
}

/** Ed25519 and Ed448 hash inside the signature and refuse a digest of the caller's. */
bool signs_without_digest(const EVP_PKEY *pkey)
{
    return EVP_PKEY_is_a(pkey, "ED25519") == 1 || EVP_PKEY_is_a(pkey, "ED448") == 1;
}

int sign(X509 *cert, EVP_PKEY *pkey, const EVP_MD *md)
{
    if (X509_sign(cert, pkey, md) <= 0)
    {
        TARN_LOG_ERROR("X509_sign failed");
        return TARN_ERRLN;
    }
    return 0;
}

// ---- extensions ------------------------------------------------------------------------------------

/** Two threads that register one new OID at the same time would make two of it. */
constinit tarn::static_mutex oid_lock;

int find_or_register(const char *oid, const char *short_name, const char *long_name)
{
    const tarn::lock_guard lock(oid_lock);
    const int known = OBJ_txt2nid(oid);
    return known != NID_undef ? known : OBJ_create(oid, short_name, long_name);
}

/** The object of an OID, owned by OpenSSL's table; null when the text is none. */
ASN1_OBJECT *object_of(const char *oid, const char *short_name, const char *long_name)
{
    const int nid = find_or_register(oid, short_name, long_name);
    if (nid == NID_undef)
    {
        TARN_LOG_ERROR("OBJ_create failed");
        return nullptr;
    }
    return OBJ_nid2obj(nid);
}

// ---- texts -----------------------------------------------------------------------------------------

void append_hex(tarn::text_writer &text, unsigned char byte)
{
    constexpr char digits[] = "0123456789abcdef";
    text.append(digits[byte >> 4]).append(digits[byte & 15]);
}

/** "Serial Number: 0a:0b" and a newline; bytes that do not fit are left out. */
void append_serial(tarn::text_writer &text, size_t size, const ASN1_INTEGER *serial)
{
    text.append("Serial Number: ");
    const unsigned char *const bytes = ASN1_STRING_get0_data(serial);
    const size_t room = (size - text.length() - 2) / 3; // newline, terminator; "0a:" each
    const size_t count = std::min(static_cast<size_t>(ASN1_STRING_length(serial)), room);
    for (size_t i = 0; i < count; ++i)
    {
        if (i != 0)
        {
            text.append(':');
        }
        append_hex(text, bytes[i]);
    }
    text.append('\n');
}

} // namespace

namespace tlsu
{

bool x509_texts_init()
{
    return tarn_tls_key_create(&texts_key, tarn_mem_free);
}

TLSU_CERT x509_create(int version, const char *cert_name, const char *issuer_name,
                      const void *serial, int serial_len, int64_t begin_date, int days,
                      TLSU_PKEY pkey)
{
    RVON(cert_name, NULL);
    RVON(issuer_name, NULL);
    RVOF(serial_len <= 0 || serial != NULL, NULL);
    RVON(pkey, NULL);
    cert_owner cert(X509_new());
    RVON(cert, NULL);
    if (X509_set_version(cert.get(), version) != 1)
    {
        TARN_LOG_ERROR("X509_set_version failed");
        return nullptr;
    }
    if (serial_len >= 1 && !set_serial(cert.get(), serial, serial_len))
    {
        return nullptr;
    }
    if (!set_validity(cert.get(), begin_date, days) ||
        !set_names(cert.get(), cert_name, issuer_name))
    {
        return nullptr;
    }
    if (X509_set_pubkey(cert.get(), pkey) != 1)
    {
        TARN_LOG_ERROR("X509_set_pubkey failed");
        return nullptr;
    }
    return cert.release();
}

TLSU_CERT x509_read(TLSU_BIO bio)
{
    RVON(bio, NULL);
    X509 *const cert = PEM_read_bio_X509(bio, nullptr, refuse_pass_phrase, nullptr);
    if (cert == nullptr)
    {
        TARN_LOG_ERROR("PEM_read_bio_X509 failed!");
    }
    return cert;
}

int x509_sign(TLSU_CERT cert, int digest_id, TLSU_PKEY pkey)
{
    RVON(cert, TARN_ERRLN);
    RVON(pkey, TARN_ERRLN);
    if (signs_without_digest(pkey))
    {
        return sign(cert, pkey, nullptr);
    }
    const digest_owner md = fetch_digest(digest_id);
    RVON(md, TARN_ERRLN);
    return sign(cert, pkey, md.get());
}

const char *x509_print(TLSU_CERT cert)
{
    RVON(cert, NULL);
    thread_texts *const texts = texts_of_thread();
    RVON(texts, NULL);
    const int version = static_cast<int>(X509_get_version(cert));
    char first_line[64];
    (void)tarn_str_printf(first_line, sizeof first_line, "Version: %d (0x%x)\n", version + 1,
                          static_cast<unsigned int>(version));
    tarn::text_writer text(texts->print, sizeof texts->print);
    append_serial(text.append(first_line), sizeof texts->print, X509_get0_serialNumber(cert));
    return texts->print;
}

const char *x509_serial_number_get(TLSU_CERT cert)
{
    RVON(cert, NULL);
    const ASN1_INTEGER *const serial = X509_get0_serialNumber(cert);
    if (serial == nullptr)
    {
        TARN_LOG_ERROR("X509_get_serialNumber failed");
        return nullptr;
    }
    const bn_owner number(ASN1_INTEGER_to_BN(serial, nullptr));
    if (!number)
    {
        TARN_LOG_ERROR("ASN1_INTEGER_to_BN failed");
        return nullptr;
    }
    const text_owner hex(BN_bn2hex(number.get()));
    if (!hex)
    {
        TARN_LOG_ERROR("BN_bn2hex failed");
        return nullptr;
    }
    const size_t length = std::strlen(hex.get());
    RVOF(length <= serial_digits && BN_is_negative(number.get()) == 0, NULL);
    thread_texts *const texts = texts_of_thread();
    RVON(texts, NULL);
    std::memset(texts->serial, '0', serial_digits - length);
    std::memcpy(texts->serial + serial_digits - length, hex.get(), length + 1);
    return texts->serial;
}

char *x509_ext_str_get(TLSU_CERT cert, const char *oid, const char *short_name,
                       const char *long_name, int *len_out)
{
    RVON(cert, NULL);
    RVON(oid, NULL);
    const ASN1_OBJECT *const object = object_of(oid, short_name, long_name);
    RVON(object, NULL);
    X509_EXTENSION *const extension = X509_get_ext(cert, X509_get_ext_by_OBJ(cert, object, -1));
    if (extension == nullptr)
    {
        return nullptr;
    }
    const ASN1_OCTET_STRING *const data = X509_EXTENSION_get_data(extension);
    const int length = ASN1_STRING_length(data);
    auto copy = tarn::unique_mem<char>::make_array(static_cast<size_t>(length) + 1);
    RVON(copy, NULL);
    tarn_mem_copy(copy.get(), ASN1_STRING_get0_data(data), static_cast<size_t>(length));
    if (len_out != nullptr)
    {
        *len_out = length;
    }
    return copy.release();
}

int x509_add_ext_str(TLSU_CERT cert, const char *oid, const char *short_name, const char *long_name,
                     const char *text)
{
    RVON(cert, TARN_ERRLN);
    RVON(oid, TARN_ERRLN);
    RVON(text, TARN_ERRLN);
    ASN1_OBJECT *const object = object_of(oid, short_name, long_name);
    RVON(object, TARN_ERRLN);
    const octets_owner data(ASN1_OCTET_STRING_new());
    if (!data ||
        ASN1_OCTET_STRING_set(data.get(), reinterpret_cast<const unsigned char *>(text), -1) != 1)
    {
        TARN_LOG_ERROR("ASN1_OCTET_STRING_set failed");
        return TARN_ERRLN;
    }
    const extension_owner extension(X509_EXTENSION_create_by_OBJ(nullptr, object, 0, data.get()));
    if (!extension || X509_add_ext(cert, extension.get(), -1) != 1)
    {
        TARN_LOG_ERROR("X509_add_ext failed");
        return TARN_ERRLN;
    }
    return 0;
}

} // namespace tlsu
