/** @file
 *  The TLS utility: OpenSSL behind one table of functions. TLS contexts from enciphered
 *  credentials, TLS sessions over any byte connection, certificates, digests, AES-256-CBC, RSA keys.
 *
 *  A user sets the size of a tlsu_if record, has it filled by tlsu_if_get() and calls through it; a
 *  session reaches the network only through the tlsu_conn_if record that its creator supplies. No
 *  OpenSSL header is needed on either side: the records of OpenSSL appear as opaque handles.
 *
 *  Lengths are int, in bytes; a negative one is refused. Results: 0, a count or a length on
 *  success, negative (TARN_ERRLN) on failure, null where a handle or text is returned. Outputs are
 *  written on success only. Failures of OpenSSL are logged with the name of its function; the
 *  calling thread's queue of OpenSSL errors keeps the details until tlsu_if::errors_print or the
 *  next TLS call of that thread.
 *
 *  Credentials (certificate, private key, chain) are handed in as AES-256-CBC ciphertext of PEM
 *  text with the secret it was made with (tlsu_if::aes256cbc_enc makes such a buffer). An encrypted
 *  PEM inside is refused, never asked a pass phrase for.
 *
 *  What a session checks of its peer: a certificate that the peer presents must lead to a
 *  certificate of the context's chain. By default a client without a certificate is admitted, no
 *  host name is compared, and revocation lists are loaded but not consulted; the flags of
 *  tlsu_credentials ask for more. tlsu_if::verify_cert is another matter: it checks one certificate
 *  for its caller and overlooks a fixed list of faults; no session ever uses it.
 *
 *  Threads: any, each on its own objects. A session serves one reading and one writing thread at a
 *  time: neither waits for the other's network traffic. Destroy it when both have left. */
#ifndef TLSU_H
#define TLSU_H

#include "tarn_api.h"

#include <stdint.h>

TARN_BEGIN_DECLS

/** Records of OpenSSL, to be passed around only. */
typedef struct bio_st *TLSU_BIO;
typedef struct evp_pkey_st *TLSU_PKEY;
typedef struct x509_st *TLSU_CERT;
typedef struct x509_store_st *TLSU_STORE;
typedef struct ssl_ctx_st *TLSU_CTX;

/** One TLS session over one connection. */
typedef struct tlsu_session *TLSU_SESSION;

/** Digest ids of digest_data and x509_sign. */
enum
{
    TLSU_DIGEST_MD4 = 2,
    TLSU_DIGEST_MD5 = 3,
    TLSU_DIGEST_MD5_SHA1 = 4,
    TLSU_DIGEST_BLAKE2B_512 = 5,
    TLSU_DIGEST_BLAKE2S_256 = 6,
    TLSU_DIGEST_SHA1 = 7,
    TLSU_DIGEST_SHA224 = 8,
    TLSU_DIGEST_SHA256 = 9,
    TLSU_DIGEST_SHA384 = 10,
    TLSU_DIGEST_SHA512 = 11,
    TLSU_DIGEST_SHA512_224 = 12,
    TLSU_DIGEST_SHA512_256 = 13,
    TLSU_DIGEST_SHA3_224 = 14,
    TLSU_DIGEST_SHA3_256 = 15,
    TLSU_DIGEST_SHA3_384 = 16,
    TLSU_DIGEST_SHA3_512 = 17,
    TLSU_DIGEST_SHAKE128 = 18, /**< 16 bytes */
    TLSU_DIGEST_SHAKE256 = 19, /**< 32 bytes */
    TLSU_DIGEST_MDC2 = 20,     /**< left out of many builds of OpenSSL */
    TLSU_DIGEST_RIPEMD160 = 21,
    TLSU_DIGEST_WHIRLPOOL = 22,
    TLSU_DIGEST_SM3 = 23
};

/** What tlsu_conn_if::type says of a connection. Any other value is the incoming end of one, which
 *  accepts the handshake but is neither connected nor listened on. */
enum
{
    TLSU_CONN_TYPE_CLIENT = 1,
    TLSU_CONN_TYPE_SERVER = 2
};

/** Strictness that credentials ask for; 0 checks what the head of this file says. */
enum
{
    /** Refuse a peer without a certificate. */
    TLSU_FLAG_REQUIRE_PEER_CERT = 1u << 0,
    /** Refuse a peer whose certificate is not issued to the name or address that
     *  tlsu_conn_if_ex::peer_name gives. A client then also sends that name to the server. */
    TLSU_FLAG_CHECK_PEER_NAME = 1u << 1,
    /** Refuse everything below TLS 1.3. */
    TLSU_FLAG_TLS13_ONLY = 1u << 2
};

/** What a TLS connection or server is created with; borrowed for that call. */
typedef struct tlsu_credentials
{
    uint32_t size;      /**< sizeof(tlsu_credentials) */
    uint32_t flags;     /**< TLSU_FLAG_*, handed on in tlsu_conn_if_ex */
    const char *secret; /**< of all three buffers */
    const void
        *chain; /**< certificates (and revocation lists) to trust and to present; enciphered */
    const void *cert; /**< own certificate; enciphered */
    const void *key;  /**< its private key; enciphered */
    int32_t chain_len;
    int32_t cert_len;
    int32_t key_len;
    int32_t reserved; /**< 0 */
} tlsu_credentials;

/** The connection under a session. conn_h is the handle that the session was created with. All
 *  entries are called on the thread that uses the session, without a lock that another session call
 *  would need; receive and send may run at the same time, never two of a kind. */
typedef struct tlsu_conn_if
{
    uint32_t size; /**< sizeof(tlsu_conn_if), or of a record that begins with one */

    /** TLSU_CONN_TYPE_CLIENT, TLSU_CONN_TYPE_SERVER, or another value for an incoming one. */
    int (*type)(void *conn_h);

    /** The connection's session; null when it has none. */
    TLSU_SESSION (*tls)(void *conn_h);

    /** Destroy a connection that accept made, its session included. */
    void (*close)(void *conn_h);

    /** Connect the transport.
     *  @return 0; anything else is a failure */
    int (*connect)(void *conn_h);

    /** Wait for one peer on a listening connection.
     *  @return a new connection, its session created; null when none came */
    void *(*accept)(void *conn_h);

    /** Send all of the bytes, at most 4096 (tlsu_conn_if_ex::piece_size). A short positive count is
     *  taken for the rest still to be sent.
     *  @return bytes sent; 0 or negative on failure, which ends the session */
    int (*send)(void *conn_h, const void *bytes, int len);

    /** Receive at most max_len bytes (4096, or tlsu_conn_if_ex::piece_size) within timeout_ms.
     *  @return byte count; 0 when nothing came; negative when the connection is closed or broken,
     *          which ends the session */
    int (*receive)(void *conn_h, void *buffer, int max_len, uint32_t timeout_ms);
} tlsu_conn_if;

/** The connection under a session together with what else its creator asks for. tls_create reads
 *  it when base.size covers it; the members up to a smaller size are used, later ones count as
 *  0. */
typedef struct tlsu_conn_if_ex
{
    tlsu_conn_if base; /**< base.size = sizeof(tlsu_conn_if_ex) */

    uint32_t flags; /**< TLSU_FLAG_* */

    /** Most time from the first byte to the end of a handshake, however the peer dribbles.
     *  Milliseconds; 0 stands for 10000. */
    uint32_t handshake_timeout_ms;

    /** The peer's host name or numeric address, for TLSU_FLAG_CHECK_PEER_NAME; asked for once, when
     *  the transport stands and the handshake begins. Without one the handshake fails. */
    const char *(*peer_name)(void *conn_h);

    /** Accept without waiting; may be null. With it, tls_accept goes on accepting peers while
     *  handshakes are under way; without it, a peer that stalls keeps the others waiting for up
     *  to handshake_timeout_ms.
     *  @return as accept */
    void *(*accept_now)(void *conn_h);

    /** Most bytes that send and receive are called with; 0 stands for 4096, the upper limit is 65536.
     *  A TLS record has up to 16 KiB and some: in pieces of 4096 it takes five calls each way, which
     *  halves the throughput of a fast network. */
    uint32_t piece_size;
} tlsu_conn_if_ex;

/** The table. Slot by slot; entries of one kind of object stand together. */
typedef struct tlsu_if
{
    uint32_t size; /**< of the caller's record, set before tlsu_if_get() */

    /* ---- digests and ciphers ---------------------------------------------------------------- */

    /** Digest of len bytes.
     *  @param id       TLSU_DIGEST_*
     *  @param out_len  room in out; what a digest needs is its result
     *  @return the digest's length; negative for an unknown id, one that this OpenSSL does not
     *          have, and a short out */
    int (*digest_data)(int id, const void *data, int len, void *out, int out_len);

    /** Decipher, with a key and an initial vector made of the secret. out may be in.
     *  @param out_len  room in out; in_len always suffices
     *  @return length of the plain text; 0 when OpenSSL refuses (wrong secret, truncated or changed
     *          ciphertext, as far as the padding shows it); negative for bad arguments and when the
     *          plain text does not fit */
    int (*aes256cbc_dec)(const char *secret, const void *in, int in_len, void *out, int out_len);

    /** Encipher; the reverse of aes256cbc_dec. out may be in.
     *  @param out_len  room in out, at least (in_len / 16 + 1) * 16
     *  @return length of the ciphertext, that number; 0 when OpenSSL refuses; negative for bad
     *          arguments and a short out */
    int (*aes256cbc_enc)(const char *secret, const void *in, int in_len, void *out, int out_len);

    /** New memory BIO with the plain text of an enciphered buffer.
     *  @return freed with bio_free, which wipes it; null when it cannot be deciphered */
    TLSU_BIO (*bio_create_from_aes256cbc_secret)(const char *secret, const void *buf, int len);
    void (*bio_free)(TLSU_BIO bio); /**< null is ignored */

    /* ---- keys ------------------------------------------------------------------------------- */

    /** Make an RSA key pair with the public exponent 65537. Takes its time: seconds for 4096 bits.
     *  @param bits  512 to 16384
     *  @return freed with pkey_free; null on failure, described on standard error */
    TLSU_PKEY (*rsa_key_generate)(int bits);

    /** Private key of any supported kind from an enciphered PEM buffer.
     *  @return freed with pkey_free; null on failure */
    TLSU_PKEY (*pkey_create_from_aes256_enc_buf)(const char *secret, const void *buf, int len);
    void (*pkey_free)(TLSU_PKEY pkey); /**< null is ignored */

    /** Write a private key as PEM.
     *  @param secret  enciphers the file; null: plain text, in a file that only its owner may read
     *                 and that must not be a symbolic link
     *  @return 0; negative on failure */
    int (*pkey_save)(TLSU_PKEY pkey, const char *secret, const char *path);

    /* ---- loading a context ------------------------------------------------------------------ */

    /** Install an enciphered PEM certificate in a context.
     *  @return 0; negative on failure */
    int (*ctx_load_cert)(TLSU_CTX ctx_h, const char *secret, const void *buf, int len);

    /** Install an enciphered PEM private key in a context.
     *  @return 0; negative on failure */
    int (*ctx_load_key)(TLSU_CTX ctx_h, const char *secret, const void *buf, int len);

    /* ---- certificates ----------------------------------------------------------------------- */

    /** New certificate, still to be signed. Subject and issuer are one CN entry each.
     *  @param version       0 to 2 for X.509 versions 1 to 3
     *  @param cert_name     ASCII
     *  @param issuer_name   ASCII
     *  @param serial        big-endian; may be null
     *  @param serial_len    0 sets no serial number
     *  @param begin_date    seconds since 1970-01-01 00:00:00 UTC
     *  @param days          validity from begin_date on; may be negative
     *  @param pkey          whose public half is certified
     *  @return freed with x509_free; null on failure */
    TLSU_CERT(*x509_create)
    (int version, const char *cert_name, const char *issuer_name, const void *serial,
     int serial_len, int64_t begin_date, int days, TLSU_PKEY pkey);

    /** Next certificate of a PEM text; null when there is none. Freed with x509_free. */
    TLSU_CERT (*x509_read)(TLSU_BIO bio);
    void (*x509_free)(TLSU_CERT cert); /**< null is ignored */

    /** Version and serial number as lines of text, cut to 4095 bytes. Valid until the thread's next
     *  call; null for null or without memory. */
    const char *(*x509_print)(TLSU_CERT cert);

    /** Data of an extension.
     *  @param oid         dotted, or a name that OpenSSL knows; registered in the process, with the
     *                     names, when it is new
     *  @param short_name  may be null
     *  @param long_name   may be null
     *  @param len_out     may be null; the data's length, which may contain zero bytes
     *  @return the data with a zero byte behind it, freed with tarn_mem_free(); null when there is
     *          no such extension */
    char *(*x509_ext_str_get)(TLSU_CERT cert, const char *oid, const char *short_name,
                              const char *long_name, int *len_out);

    /** Serial number, 32 upper-case hexadecimal digits with leading zeros. Valid until the thread's
     *  next call; null for longer and for negative ones. */
    const char *(*x509_serial_number_get)(TLSU_CERT cert);

    /** Sign a certificate with the issuer's key; the last step of making one.
     *  @param digest_id  TLSU_DIGEST_*; not looked at for keys that sign without (Ed25519)
     *  @return 0; negative on failure */
    int (*x509_sign)(TLSU_CERT cert, int digest_id, TLSU_PKEY pkey);

    /** Add a text as an extension, without its terminator; names as in x509_ext_str_get.
     *  @return 0; negative on failure */
    int (*x509_add_ext_str)(TLSU_CERT cert, const char *oid, const char *short_name,
                            const char *long_name, const char *text);

    /** Write a certificate as PEM; secret null: as plain text.
     *  @return 0; negative on failure */
    int (*x509_save)(TLSU_CERT cert, const char *secret, const char *path);

    /* ---- stores of trusted certificates ----------------------------------------------------- */

    TLSU_STORE (*x509_store_new)(void); /**< freed with x509_store_free; null without memory */
    void (*x509_store_free)(TLSU_STORE store); /**< null is ignored */

    /** Add every certificate and revocation list of a PEM text to a store.
     *  @param cert_count_out  may be null
     *  @param crl_count_out   may be null
     *  @return 0; negative on failure, some of them may be in the store then */
    int (*x509_store_load_chain)(TLSU_STORE store, TLSU_BIO bio, int *cert_count_out,
                                 int *crl_count_out);

    /** The same with an enciphered buffer and the store of a context; what stands in it is also
     *  used to complete the chain that the own certificate is presented with.
     *  @return 0; negative on failure */
    int (*ctx_load_cert_chain)(TLSU_CTX ctx_h, const char *secret, const void *buf, int len,
                               int *cert_count_out);

    /* ---- contexts --------------------------------------------------------------------------- */

    /** New context: own certificate and key, which must match, and the chain. A chain that cannot
     *  be loaded is reported and leaves the context without anything to trust; none
     *  (chain_len 0) is in order.
     *  @return destroyed with ctx_destroy; null on failure */
    TLSU_CTX(*ctx_create)
    (const char *secret, const void *chain_buf, int chain_len, const void *cert_buf, int cert_len,
     const void *key_buf, int key_len);

    /** Sessions of the context keep what they need of it. Null is ignored. */
    void (*ctx_destroy)(TLSU_CTX ctx_h);

    /* ---- sessions --------------------------------------------------------------------------- */

    /** New session; nothing is sent yet.
     *  @param conn_if  copied; may be the base of a tlsu_conn_if_ex
     *  @param conn_h   handed to its entries; must outlive the session
     *  @return destroyed with tls_destroy; null on failure */
    TLSU_SESSION (*tls_create)(TLSU_CTX ctx_h, const tlsu_conn_if *conn_if, void *conn_h);

    /** Free a session; null is ignored. Sends nothing, so it never blocks: the peer sees the
     *  transport close. Peers that a listening session has in hand are closed. */
    void (*tls_destroy)(TLSU_SESSION tls);

    /** Connect the transport and shake hands. Blocks for the connect and up to the handshake's
     *  time-out; a stop request of the calling loop thread ends it within 100 ms. Once per session.
     *  @return 0; negative on failure */
    int (*tls_connect)(TLSU_SESSION tls);

    /** Wait for a peer on a listening session and shake hands with it. Blocks in the connection's
     *  accept; then, while a handshake is under way, up to its time-out or a stop request. With
     *  tlsu_conn_if_ex::accept_now up to 32 handshakes advance side by side, and the first that is
     *  finished is returned: one that stalls or fails holds up the others for no more than some
     *  20 ms, and when 32 stall, the oldest gives way once it has had a second. Without, one that
     *  stalls holds up the others for as long as its time-out.
     *  @return the peer's connection; null when none came, one failed (it is closed), or the calling
     *          loop thread is asked to stop; handshakes in hand go on with the next call */
    void *(*tls_accept)(TLSU_SESSION tls_svr);

    void *(*tls_conn_get)(TLSU_SESSION tls);          /**< its conn_h; null for null */
    const char *(*tls_cipher_name)(TLSU_SESSION tls); /**< "(NONE)" before the handshake */
    /** SSL_get_error() of the session's last operation of OpenSSL. */
    int (*tls_error_get)(TLSU_SESSION tls);
    /** Text of such a code, or reason text of an error of OpenSSL's queue. Static, never null. */
    const char *(*error_text_get)(unsigned long code);

    /** Read deciphered bytes. Receives at most once, and only when none are in stock.
     *  @param buffer  null, with num 0, only moves the handshake on
     *  @return byte count; 0 when there is nothing yet, which a part of a record gives as well as
     *          the time-out; negative when the session has ended, by the peer or by a failure.
     *          Bytes that came before the end are handed out first. */
    int (*tls_read)(TLSU_SESSION tls, void *buffer, int num, uint32_t timeout_ms);

    /** Write bytes, all of them. Blocks in the connection's send. Before the end of the handshake it
     *  works on that first, for at most the handshake's time-out.
     *  @return num; negative on failure, which ends the session */
    int (*tls_write)(TLSU_SESSION tls, const void *bytes, int num);

    /** The peer's certificate, freed with x509_free; null when it has none. */
    TLSU_CERT (*tls_peer_cert)(TLSU_SESSION tls);

    /* ---- checking certificates -------------------------------------------------------------- */

    /** Check a certificate against a store, overlooking certain faults on purpose: expired
     *  certificate, list not yet valid or expired, self-signed leaf, path length exceeded, wrong
     *  purpose, unknown critical extension, issuer that is no authority, authority where a leaf is
     *  wanted, no explicit policy. A chain that is found good is printed on standard output.
     *  @return 1 when good, 0 otherwise; negative for bad arguments */
    int (*verify_cert)(TLSU_STORE store, TLSU_CERT cert);

    /** Log the calling thread's queue of OpenSSL errors, and empty it. */
    void (*errors_print)(int32_t level);
} tlsu_if;

/** Fill in the table: as many bytes of it as the size in the caller's record says. The first call in
 *  the process logs the version of OpenSSL and initialises it, with its older digests where they are
 *  installed.
 *  @param tlsu_if  its size set by the caller, before; afterwards that of the whole table, 320 bytes
 *                  on 64-bit machines, unless it was too small for the size itself
 *  @return 0; negative for null, and in a build without TLS, where the record stays as it is. */
TARN_API int tlsu_if_get(struct tlsu_if *tlsu_if);

TARN_END_DECLS

#endif
