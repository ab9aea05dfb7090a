// What the benchmarks over TLS share: a certificate made for the run, and a context of it.
#pragma once

#include "tlsu.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include <unistd.h>

namespace tls_bench
{

inline void require(bool holds, const char *what)
{
    if (!holds)
    {
        std::fprintf(stderr, "%s failed\n", what);
        std::exit(1);
    }
}

inline const tlsu_if &tls()
{
    static const tlsu_if table = [] {
        tlsu_if t{};
        t.size = sizeof t;
        require(tlsu_if_get(&t) == 0, "tlsu_if_get");
        return t;
    }();
    return table;
}

inline constexpr const char *secret = "bench";

/** A file of the table's making, as the enciphered buffer that it is. */
inline std::vector<char> read_and_remove(const std::string &path)
{
    std::vector<char> bytes(16384);
    std::FILE *const file = std::fopen(path.c_str(), "rb");
    require(file != nullptr, "fopen");
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file));
    std::fclose(file);
    std::remove(path.c_str());
    return bytes;
}

/** A certificate that signs itself and trusts itself, and its key; enciphered. */
struct credentials
{
    std::vector<char> key;
    std::vector<char> cert;
    tlsu_credentials record{};

    credentials()
    {
        const std::string path = "/tmp/bench_tls_" + std::to_string(getpid());
        const TLSU_PKEY pkey = tls().rsa_key_generate(2048);
        const unsigned char serial[] = {1};
        const TLSU_CERT x509 =
            tls().x509_create(0, "bench", "bench", serial, 1, std::time(nullptr) - 3600, 30, pkey);
        require(tls().x509_sign(x509, TLSU_DIGEST_SHA256, pkey) == 0, "x509_sign");
        require(tls().pkey_save(pkey, secret, path.c_str()) == 0, "pkey_save");
        key = read_and_remove(path);
        require(tls().x509_save(x509, secret, path.c_str()) == 0, "x509_save");
        cert = read_and_remove(path);
        tls().x509_free(x509);
        tls().pkey_free(pkey);
        record.size = sizeof record;
        record.secret = secret;
        record.chain = record.cert = cert.data();
        record.chain_len = record.cert_len = static_cast<int32_t>(cert.size());
        record.key = key.data();
        record.key_len = static_cast<int32_t>(key.size());
    }
};

inline const tlsu_credentials &own()
{
    static const credentials made;
    return made.record;
}

inline TLSU_CTX ctx()
{
    static const TLSU_CTX shared =
        tls().ctx_create(own().secret, own().chain, own().chain_len, own().cert, own().cert_len,
                         own().key, own().key_len);
    require(shared != nullptr, "ctx_create");
    return shared;
}

} // namespace tls_bench
