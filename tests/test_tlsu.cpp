// The TLS utility without sessions: the table, digests, ciphers, keys, certificates, contexts.

#include "tlsu_support.h"

#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>

using namespace tlsu_test;
using support::expect_check;
using support::log_capture;

namespace
{

std::string hex_of(const std::string &bytes)
{
    std::string text;
    for (const char c : bytes)
    {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(c));
        text += digits;
    }
    return text;
}

std::string digest_of(int id, const std::string &data)
{
    std::string out(64, '\0');
    const int n = tls().digest_data(id, data.data(), length(data), out.data(), length(out));
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

// ---- the table -------------------------------------------------------------------------------------

TEST(Table, IsFilledUpToTheCallersSize)
{
    expect_check("RVON(tlsu_if,TARN_ERROR_LINE_NUMBER)");
    EXPECT_LT(tlsu_if_get(nullptr), 0);

    tlsu_if part{};
    part.size = offsetof(tlsu_if, aes256cbc_enc);
    EXPECT_EQ(tlsu_if_get(&part), 0);
    EXPECT_EQ(part.size, 320u);
    EXPECT_EQ(part.aes256cbc_dec, tls().aes256cbc_dec);
    EXPECT_EQ(part.aes256cbc_enc, nullptr);

    tlsu_if none{};
    EXPECT_EQ(tlsu_if_get(&none), 0);
    EXPECT_EQ(none.digest_data, nullptr);

    struct
    {
        tlsu_if table;
        uint64_t behind;
    } large{};
    large.table.size = sizeof large;
    EXPECT_EQ(tlsu_if_get(&large.table), 0);
    EXPECT_EQ(large.table.errors_print, tls().errors_print);
    EXPECT_EQ(large.behind, 0u);
}

TARN_TEST_ROLE(fetch_twice)
{
    tarn_log_level_set(TARN_LOG_LEVEL_TRACE);
    for (int i = 0; i < 2; ++i)
    {
        tlsu_if table{};
        table.size = sizeof table;
        if (tlsu_if_get(&table) != 0)
        {
            return 1;
        }
    }
    return 0;
}

TEST(Table, StartsOpensslOnce)
{
    auto process = support::child_process::role("fetch_twice");
    const std::string output = process.read_rest();
    EXPECT_EQ(process.wait(), 0);
    const size_t version = output.find("] openssl version info:\n\nOpenSSL 3");
    ASSERT_NE(version, std::string::npos) << output;
    EXPECT_EQ(output.find("openssl version info", version + 10), std::string::npos);
    EXPECT_NE(output.find("] init crypto & ssl", version), std::string::npos);
}

// ---- digests ---------------------------------------------------------------------------------------

TEST(Digest, OfEveryIdIsThatOfTheOpensslProgram)
{
    // from id 2 on; a digest that the program cannot make is not to be had here either
    const std::string names[] = {"md4",        "md5",        "md5-sha1", "blake2b512", "blake2s256",
                                 "sha1",       "sha224",     "sha256",   "sha384",     "sha512",
                                 "sha512-224", "sha512-256", "sha3-224", "sha3-256",   "sha3-384",
                                 "sha3-512",   "shake128",   "shake256", "mdc2",       "rmd160",
                                 "whirlpool",  "sm3"};
    const support::temp_dir dir;
    support::write_file(dir.file("data"), "abc");
    expect_check("RVON(md,TARN_ERROR_LINE_NUMBER)");
    expect_check("RVOF(digest_len >= EVP_MD_size( md ),TARN_ERROR_LINE_NUMBER)");
    int id = TLSU_DIGEST_MD4;
    for (const std::string &name : names)
    {
        const std::string output = openssl(
            {"dgst", "-provider", "legacy", "-provider", "default", "-" + name, dir.file("data")},
            {}, false);
        const size_t at = output.find(")= ");
        const std::string expected =
            at != std::string::npos ? output.substr(at + 3, output.size() - at - 4) : "";
        std::string digest = digest_of(id, "abc");
        EXPECT_EQ(hex_of(digest), expected) << name;
        EXPECT_TRUE(!digest.empty() || name == "mdc2") << name;
        digest.assign(digest.size(), '#');
        EXPECT_LT(tls().digest_data(id++, "abc", 3, digest.data(), length(digest) - 1), 0) << name;
        EXPECT_EQ(digest.find_first_not_of('#'), std::string::npos) << name;
    }
    EXPECT_EQ(id, TLSU_DIGEST_SM3 + 1);
    for (const int unknown : {-1, 0, 1, 24, 1 << 30})
    {
        EXPECT_EQ(digest_of(unknown, "abc"), "");
    }
    EXPECT_EQ(hex_of(digest_of(TLSU_DIGEST_MD5, "")), "d41d8cd98f00b204e9800998ecf8427e");
}

// ---- AES-256-CBC -----------------------------------------------------------------------------------

TEST(Cipher, NeverWritesPastItsOutput)
{
    const log_capture log;
    constexpr char guard = '#';
    for (int size = 0; size <= 70; ++size)
    {
        const std::string text(static_cast<size_t>(size), 'x');
        const int padded = (size / 16 + 1) * 16;
        for (int room = 0; room <= padded + 1; ++room)
        {
            // a heap block of its own shows a byte too many to AddressSanitizer as well
            std::vector<char> out(static_cast<size_t>(room) + 16, guard);
            const int n = tls().aes256cbc_enc(secret, text.data(), size, out.data(), room);
            EXPECT_EQ(n >= padded, room >= padded) << size << " in " << room;
            EXPECT_EQ(std::string(out.end() - 16, out.end()), std::string(16, guard));
        }
        const std::string cipher = encipher(text);
        EXPECT_EQ(length(cipher), padded);
        for (int room = 0; room <= size; ++room)
        {
            std::vector<char> out(static_cast<size_t>(room) + 16, guard);
            const int n = tls().aes256cbc_dec(secret, cipher.data(), padded, out.data(), room);
            EXPECT_EQ(n == size, room == size);
            EXPECT_EQ(std::string(out.end() - 16, out.end()), std::string(16, guard));
        }
    }
    EXPECT_TRUE(log.contains("error", "out_buf_len [15] too small!"));
}

TEST(Cipher, IsThatOfTheOpensslProgram)
{
    const std::string key = hex_of(digest_of(TLSU_DIGEST_SHA256, secret));
    const std::string iv = hex_of(digest_of(TLSU_DIGEST_MD5, secret));
    const support::temp_dir dir;
    const std::string text = "what the other side enciphered";
    support::write_file(dir.file("plain"), text);
    openssl({"enc", "-aes-256-cbc", "-K", key, "-iv", iv, "-in", dir.file("plain"), "-out",
             dir.file("cipher")});
    EXPECT_EQ(decipher(support::read_file(dir.file("cipher"))), text);
    EXPECT_EQ(encipher(text), support::read_file(dir.file("cipher")));
}

TEST(Cipher, RefusesWhatDoesNotBelongTogether)
{
    const log_capture log;
    const std::string cipher = encipher("sixteen bytes and some more");
    std::string out(cipher.size(), '#');
    const auto decipher_as = [&out](const char *with, const std::string &from) {
        return tls().aes256cbc_dec(with, from.data(), length(from), out.data(), length(out));
    };
    EXPECT_EQ(decipher_as("another secret", cipher), 0);
    EXPECT_EQ(decipher_as(secret, cipher.substr(0, 16)), 0);
    EXPECT_EQ(decipher_as(secret, cipher.substr(0, 31)), 0);
    EXPECT_EQ(decipher_as(secret, cipher.substr(1)), 0);
    std::string flipped = cipher;
    flipped.back() = static_cast<char>(flipped.back() ^ 1);
    EXPECT_EQ(decipher_as(secret, flipped), 0);
    EXPECT_EQ(out, std::string(out.size(), '#')) << "written on failure";
    EXPECT_EQ(log.count("EVP_DecryptFinal_ex failed"), 5u);

    expect_check("RVOF(in_len > 0,TARN_ERRLN)");
    expect_check("RVON(secret,TARN_ERRLN)");
    EXPECT_LT(decipher_as(secret, ""), 0);
    EXPECT_LT(decipher_as(nullptr, cipher), 0);
}

// ---- keys ------------------------------------------------------------------------------------------

pkey_owner load_key(const std::string &text)
{
    const std::string enciphered = encipher(text);
    return pkey_owner(
        tls().pkey_create_from_aes256_enc_buf(secret, enciphered.data(), length(enciphered)));
}

std::string generate_key(const std::vector<std::string> &how)
{
    const support::temp_dir dir;
    std::vector<std::string> arguments = {"genpkey", "-out", dir.file("key")};
    arguments.insert(arguments.end(), how.begin(), how.end());
    openssl(arguments);
    return support::read_file(dir.file("key"));
}

TEST(Key, OfEveryKindSignsWhatItsOwnerVerifies)
{
    for (const auto &how : std::vector<std::vector<std::string>>{
             {"-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256"},
             {"-algorithm", "ED25519"},
             {"-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048"}})
    {
        const pkey_owner key = load_key(generate_key(how));
        ASSERT_TRUE(key) << how[1];
        const identity made = make_identity({"self", "self", true}, key.get(), key.get());
        const store_owner store(tls().x509_store_new());
        const bio_owner bio = text_bio(made.cert_text);
        EXPECT_EQ(tls().x509_store_load_chain(store.get(), bio.get(), nullptr, nullptr), 0);
        testing::internal::CaptureStdout();
        EXPECT_EQ(tls().verify_cert(store.get(), made.cert.get()), 1) << how[1];
        testing::internal::GetCapturedStdout();
        EXPECT_TRUE(made.make_ctx(made.cert_text)) << how[1];
    }
}

TEST(Key, IsRefusedWhenItIsNotAPlainPrivateKey)
{
    const log_capture log;
    // asking for the pass phrase would wait for standard input
    const std::string locked =
        generate_key({"-algorithm", "ED25519", "-aes256", "-pass", "pass:x"});
    EXPECT_FALSE(load_key(locked));
    const support::temp_dir dir;
    support::write_file(dir.file("key"), all().root.key_text);
    EXPECT_FALSE(load_key(openssl({"pkey", "-in", dir.file("key"), "-pubout"})));
    EXPECT_FALSE(load_key(all().root.cert_text));
    EXPECT_FALSE(load_key("no key"));
    EXPECT_EQ(log.count("decoding failure"), 4u);
    EXPECT_EQ(tls().pkey_create_from_aes256_enc_buf(secret, "0123456789abcdef", 16), nullptr);
    EXPECT_TRUE(log.contains("decrypt error"));
    EXPECT_TRUE(log.contains("bio_create_from_aes256cbc_secret failed!"));
    testing::internal::CaptureStderr();
    EXPECT_EQ(tls().rsa_key_generate(64), nullptr);
    EXPECT_EQ(tls().rsa_key_generate(1 << 20), nullptr);
    EXPECT_TRUE(
        testing::internal::GetCapturedStderr().starts_with("RSA_generate_key_ex failed.\n"));
}

TEST(Key, IsSavedForItsOwnerOnly)
{
    const support::temp_dir dir;
    const auto mode = [](const std::string &path) {
        struct stat status = {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0);
        return status.st_mode & 07777;
    };
    const std::string fresh = dir.file("new/place/key");
    EXPECT_EQ(tls().pkey_save(shared_key(0), nullptr, fresh.c_str()), 0);
    EXPECT_EQ(mode(fresh), 0600u);
    EXPECT_TRUE(load_key(support::read_file(fresh)));

    const std::string open = dir.file("open");
    support::write_file(open, "what was there before, which is longer\n" + std::string(9999, '-'));
    EXPECT_EQ(::chmod(open.c_str(), 0644), 0);
    EXPECT_EQ(tls().pkey_save(shared_key(0), nullptr, open.c_str()), 0);
    EXPECT_EQ(mode(open), 0600u);
    EXPECT_EQ(support::read_file(open), support::read_file(fresh));

    EXPECT_EQ(tls().pkey_save(shared_key(0), secret, dir.file("locked").c_str()), 0);
    EXPECT_EQ(decipher(support::read_file(dir.file("locked"))), support::read_file(fresh));

    ASSERT_EQ(::symlink("target", dir.file("link").c_str()), 0);
    expect_check("RVOF(make_private_file(path),TARN_ERRLN)");
    EXPECT_LT(tls().pkey_save(shared_key(0), nullptr, dir.file("link").c_str()), 0);
    EXPECT_NE(::access(dir.file("target").c_str(), F_OK), 0);
    expect_check("RVOF(tarn_file_write_buffer(path, pem.bytes, pem.size),TARN_ERRLN)");
    EXPECT_LT(tls().x509_save(all().root.cert.get(), nullptr, dir.path().c_str()), 0);
}

// ---- certificates ----------------------------------------------------------------------------------

cert_owner with_serial(const std::string &serial)
{
    return cert_owner(tls().x509_create(2, "subject", "issuer", serial.data(), length(serial),
                                        1700000000, 10, shared_key(0)));
}

TEST(Certificate, HasWhatItWasMadeWith)
{
    log_capture log;
    const cert_owner cert = with_serial("\x01\xab");
    ASSERT_TRUE(cert);
    EXPECT_TRUE(log.contains("set serial number [01AB]..."));
    EXPECT_TRUE(log.contains("set subject name to subject..."));
    EXPECT_TRUE(log.contains("set issuer name to issuer..."));
    EXPECT_EQ(tls().x509_sign(cert.get(), TLSU_DIGEST_SHA384, shared_key(1)), 0);
    const support::temp_dir dir;
    EXPECT_EQ(tls().x509_save(cert.get(), nullptr, dir.file("cert").c_str()), 0);
    const std::string text = openssl({"x509", "-in", dir.file("cert"), "-noout", "-text"});
    for (const char *expected :
         {"Version: 3 (0x2)", "Serial Number: 427 (0x1ab)", "Issuer: CN = issuer\n",
          "Subject: CN = subject\n", "Not Before: Nov 14 22:13:20 2023 GMT",
          "Not After : Nov 24 22:13:20 2023 GMT", "sha384WithRSAEncryption"})
    {
        EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
    }
    const bio_owner bio = text_bio(support::read_file(dir.file("cert")));
    const cert_owner again(tls().x509_read(bio.get()));
    ASSERT_TRUE(again);
    EXPECT_STREQ(tls().x509_print(again.get()), "Version: 3 (0x2)\nSerial Number: 01:ab\n");
    expect_check("RVON(md,TARN_ERRLN)");
    EXPECT_LT(tls().x509_sign(cert.get(), 99, shared_key(1)), 0);
    EXPECT_EQ(tls().x509_read(bio.get()), nullptr) << "a second one";
    EXPECT_TRUE(log.contains("error", "PEM_read_bio_X509 failed!"));
}

TEST(Certificate, ShowsSerialsOfAnyLength)
{
    const auto text_of = [](const cert_owner &cert) {
        const char *const text = tls().x509_serial_number_get(cert.get());
        return std::string(text != nullptr ? text : "none");
    };
    EXPECT_EQ(text_of(with_serial("\x0f")), std::string(31, '0') + "F");
    EXPECT_EQ(text_of(with_serial(std::string(16, '\xfe'))),
              std::string(16, 'F').replace(0, 16, "FEFEFEFEFEFEFEFE") + "FEFEFEFEFEFEFEFE");
    EXPECT_EQ(text_of(with_serial(std::string(1, '\0'))), std::string(32, '0'));
    expect_check("RVOF(length <= serial_digits && BN_is_negative(number.get()) == 0,NULL)");
    EXPECT_EQ(text_of(with_serial(std::string(17, '\x01'))), "none");

    const cert_owner huge = with_serial(std::string(2000, '\xcd'));
    EXPECT_EQ(text_of(huge), "none");
    const std::string print = tls().x509_print(huge.get());
    EXPECT_LE(print.size(), 4095u);
    EXPECT_GT(print.size(), 4090u);
    EXPECT_TRUE(print.starts_with("Version: 3 (0x2)\nSerial Number: cd:cd:"));
    EXPECT_TRUE(print.ends_with(":cd\n"));

    // the texts belong to the thread
    const char *const mine = tls().x509_serial_number_get(with_serial("\x0f").get());
    std::thread([&] { text_of(with_serial("\x0e")); }).join();
    EXPECT_STREQ(mine, (std::string(31, '0') + "F").c_str());
}

TEST(Certificate, CarriesTextExtensions)
{
    const cert_owner cert = with_serial("\x01");
    constexpr const char *oid = "1.3.6.1.4.1.55555.1.7";
    const auto get = [&cert](const char *of, int *len) {
        const tarn::unique_mem<char> text(
            tls().x509_ext_str_get(cert.get(), of, "plant", "plant name", len));
        return std::string(text ? text.get() : "none");
    };
    int len = -7;
    EXPECT_EQ(get(oid, &len), "none");
    EXPECT_EQ(len, -7);
    EXPECT_EQ(tls().x509_add_ext_str(cert.get(), oid, "plant", "plant name", "north \xe2\x82\xac"),
              0);
    EXPECT_EQ(get(oid, &len), "north \xe2\x82\xac");
    EXPECT_EQ(len, 9);
    EXPECT_EQ(get("plant", nullptr), "north \xe2\x82\xac") << "by the registered name";
    EXPECT_EQ(get("2.5.29.19", nullptr), "none");
    expect_check("RVON(object,NULL)");
    EXPECT_EQ(get("no oid", nullptr), "none");

    // many threads register one OID
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back([] {
            const cert_owner own = with_serial("\x02");
            EXPECT_EQ(
                tls().x509_add_ext_str(own.get(), "1.3.6.1.4.1.55555.1.8", nullptr, nullptr, "x"),
                0);
        });
    }
    for (auto &thread : threads)
    {
        thread.join();
    }
}

// ---- verification ----------------------------------------------------------------------------------

store_owner store_of(const std::string &chain, unsigned long flags = 0)
{
    store_owner store(tls().x509_store_new());
    const bio_owner bio = text_bio(chain);
    EXPECT_EQ(tls().x509_store_load_chain(store.get(), bio.get(), nullptr, nullptr), 0);
    EXPECT_EQ(X509_STORE_set_flags(store.get(), flags), 1);
    return store;
}

/** Verify without a look at what is printed.
 *  @return the codes of the failed checks in order, then "ok" or "failed" */
std::string verdict(const store_owner &store, TLSU_CERT cert)
{
    log_capture log;
    testing::internal::CaptureStdout();
    const int result = tls().verify_cert(store.get(), cert);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(log.contains(result == 1 ? "verify cert chain: OK"
                                         : "verify cert chain failed, error = ["));
    std::string codes;
    for (const std::string &message : log.messages())
    {
        int code = 0;
        if (std::sscanf(message.c_str(), "error %d at", &code) == 1 ||
            std::sscanf(message.c_str(), "[CRL path] error %d at", &code) == 1)
        {
            codes += std::to_string(code) + " ";
        }
    }
    return codes + (result == 1 ? "ok" : "failed");
}

/** Certificates with extensions that the table does not make, and revocation lists: by the program,
 *  with the tests' root. */
class program_ca
{
public:
    program_ca()
    {
        support::write_file(dir_.file("root"), all().root.cert_text);
        support::write_file(dir_.file("key"), all().root.key_text);
        support::write_file(dir_.file("leaf_key"), all().client.key_text);
    }
    cert_owner sign(const std::string &extension, const std::string &subject = "/CN=special")
    {
        openssl({"req", "-new", "-key", dir_.file("leaf_key"), "-subj", subject, "-out",
                 dir_.file("req")});
        support::write_file(dir_.file("ext"), extension);
        openssl({"x509", "-req", "-in", dir_.file("req"), "-CA", dir_.file("root"), "-CAkey",
                 dir_.file("key"), "-set_serial", "77", "-extfile", dir_.file("ext"), "-out",
                 dir_.file("cert")});
        const bio_owner bio = text_bio(support::read_file(dir_.file("cert")));
        return cert_owner(tls().x509_read(bio.get()));
    }
    /** @param revoked  lines of the database */
    std::string crl(const std::string &last, const std::string &next, const std::string &revoked)
    {
        support::write_file(dir_.file("db"), revoked);
        support::write_file(dir_.file("cnf"), "[ca]\ndefault_ca=c\n[c]\ndatabase=" +
                                                  dir_.file("db") + "\ndefault_md=sha256\n");
        openssl({"ca", "-gencrl", "-config", dir_.file("cnf"), "-cert", dir_.file("root"),
                 "-keyfile", dir_.file("key"), "-crl_lastupdate", last, "-crl_nextupdate", next,
                 "-out", dir_.file("crl")});
        return support::read_file(dir_.file("crl"));
    }

private:
    support::temp_dir dir_;
};

TEST(Verify, PrintsTheChainItFound)
{
    const store_owner store = store_of(all().chain);
    testing::internal::CaptureStdout();
    EXPECT_EQ(tls().verify_cert(store.get(), all().server.cert.get()), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Chain:\ndepth = 0: CN = server (untrusted)\ndepth = 1: CN = middle\n"
              "depth = 2: CN = root\n");
    EXPECT_EQ(verdict(store, all().stranger.cert.get()), "20 failed");
    expect_check("RVON(store,TARN_ERRLN)");
    EXPECT_LT(tls().verify_cert(nullptr, all().server.cert.get()), 0);
}

constexpr unsigned long crl_check = 0x4;
constexpr unsigned long allow_proxy = 0x40;
constexpr unsigned long policy_check = 0x80;
constexpr unsigned long explicit_policy = 0x100;

TEST(Verify, OverlooksExactlyTheListedFaults)
{
    const auto leaf = [](const wish &wanted, const TLSU_PKEY issuer_key) {
        return make_identity(wanted, shared_key(2), issuer_key).cert;
    };
    const TLSU_PKEY root_key = shared_key(0);
    const std::string &root = all().root.cert_text;
    program_ca program;

    EXPECT_EQ(verdict(store_of(root), leaf({"l", "root", false, "", -9 * day, 5}, root_key).get()),
              "10 ok");
    EXPECT_EQ(verdict(store_of(root), all().other.cert.get()), "18 ok");
    EXPECT_EQ(verdict(store_of(root), program.sign("1.2.3.4=critical,ASN1:UTF8String:x").get()),
              "34 ok");
    EXPECT_EQ(verdict(store_of(root, policy_check | explicit_policy), all().middle.cert.get()),
              "43 ok");
    EXPECT_EQ(verdict(store_of(root, allow_proxy),
                      program
                          .sign("proxyCertInfo=critical,language:id-ppl-anyLanguage,pathlen:1",
                                "/CN=root/CN=special")
                          .get()),
              "37 ok");
    const store_owner for_servers = store_of(root);
    EXPECT_EQ(X509_STORE_set_purpose(for_servers.get(), 2), 1);
    EXPECT_EQ(verdict(for_servers, program.sign("extendedKeyUsage=clientAuth").get()), "26 ok");

    // an issuer that is no authority
    const identity fake = make_identity({"fake", "root"}, shared_key(1), root_key);
    EXPECT_EQ(verdict(store_of(root + fake.cert_text), leaf({"l", "fake"}, shared_key(1)).get()),
              "79 ok");
    // a path of two authorities below one that allows one
    identity narrow;
    narrow.cert = cert_owner(tls().x509_create(2, "narrow", "narrow", "\x09", 1,
                                               std::time(nullptr) - day, 9, shared_key(3)));
    EXPECT_EQ(tls().x509_add_ext_str(narrow.cert.get(), "2.5.29.19", nullptr, nullptr,
                                     "\x30\x06\x01\x01\xff\x02\x01\x01"),
              0);
    EXPECT_EQ(tls().x509_sign(narrow.cert.get(), TLSU_DIGEST_SHA256, shared_key(3)), 0);
    const support::temp_dir dir;
    EXPECT_EQ(tls().x509_save(narrow.cert.get(), nullptr, dir.file("narrow").c_str()), 0);
    const identity first = make_identity({"first", "narrow", true}, shared_key(0), shared_key(3));
    const identity second = make_identity({"second", "first", true}, shared_key(1), shared_key(0));
    EXPECT_EQ(verdict(store_of(support::read_file(dir.file("narrow")) + first.cert_text +
                               second.cert_text),
                      leaf({"l", "second"}, shared_key(1)).get()),
              "25 ok");

    const std::string old = "20200101000000Z";
    const std::string recent = "20240101000000Z";
    const std::string far = "20991231000000Z";
    EXPECT_EQ(
        verdict(store_of(root + program.crl(old, recent, ""), crl_check), all().middle.cert.get()),
        "12 ok");
    EXPECT_EQ(verdict(store_of(root + program.crl("20990101000000Z", far, ""), crl_check),
                      all().middle.cert.get()),
              "11 ok");

    // and none of these
    EXPECT_EQ(verdict(store_of(root), leaf({"l", "root", false, "", day}, root_key).get()),
              "9 failed");
    EXPECT_EQ(verdict(store_of(root), leaf({"l", "root"}, shared_key(1)).get()), "7 failed");
    EXPECT_EQ(verdict(store_of(root), all().server.cert.get()), "20 failed");
    EXPECT_EQ(verdict(store_of(root, crl_check), all().middle.cert.get()), "3 failed");
    const std::string revoked =
        "R\t" + far.substr(2) + "\t200101000000Z\t4D\tunknown\t/CN=special\n";
    EXPECT_EQ(verdict(store_of(root + program.crl(old, far, revoked), crl_check),
                      program.sign("keyUsage=digitalSignature").get()),
              "23 failed");
    const store_owner shallow = store_of(root);
    EXPECT_EQ(verdict(shallow, leaf({"l", "root", false, "", -9 * day, 5}, shared_key(1)).get()),
              "7 failed")
        << "a tolerated fault does not hide another";
}

// ---- stores and contexts ---------------------------------------------------------------------------

TEST(Store, CountsWhatItLoads)
{
    log_capture log;
    const store_owner store(tls().x509_store_new());
    const bio_owner bio =
        text_bio(all().chain + program_ca().crl("20200101000000Z", "20991231000000Z", ""));
    int certs = 0;
    int crls = 0;
    EXPECT_EQ(tls().x509_store_load_chain(store.get(), bio.get(), &certs, &crls), 0);
    EXPECT_EQ(certs, 2);
    EXPECT_EQ(crls, 1);
    EXPECT_TRUE(log.contains("X509 info num = 2, cert_count = 2, crl_count = 1"));
    const bio_owner broken =
        text_bio("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    EXPECT_LT(tls().x509_store_load_chain(store.get(), broken.get(), &certs, &crls), 0);
    EXPECT_EQ(certs, 2);
}

TEST(Context, IsMadeOfMatchingCredentialsOnly)
{
    log_capture log;
    const ctx_owner ctx = all().server.make_ctx(all().chain);
    ASSERT_TRUE(ctx);
    EXPECT_EQ(SSL_CTX_get_verify_depth(ctx.get()), 3);
    EXPECT_TRUE(log.contains("load_cert_chain return 0, cert_count = 2"));

    identity mixed;
    mixed.cert_text = all().server.cert_text;
    mixed.key_text = all().root.key_text;
    EXPECT_FALSE(mixed.make_ctx(all().chain));
    mixed.key_text = "no key";
    EXPECT_FALSE(mixed.make_ctx(all().chain));
    EXPECT_TRUE(log.contains("error", "pkey_load_from_aes256_enc_buf failed"));
    EXPECT_TRUE(log.contains("error", "fail to load key! error = -"));
    mixed.cert_text = "no certificate";
    EXPECT_FALSE(mixed.make_ctx(all().chain));
    EXPECT_TRUE(log.contains("error", "PEM_read_bio_X509 failed!"));
    EXPECT_TRUE(log.contains("error", "fail to load cert! error = -"));

    const pkey_owner weak(tls().rsa_key_generate(1024));
    const identity small = make_identity({"small", "small"}, weak.get(), weak.get());
    EXPECT_FALSE(small.make_ctx(all().chain));
    EXPECT_TRUE(log.contains("ee key too small"));

    const std::string text = encipher(all().server.cert_text);
    EXPECT_EQ(tls().ctx_create("wrong", text.data(), length(text), text.data(), length(text),
                               text.data(), length(text)),
              nullptr);
    EXPECT_TRUE(log.contains("error", "bio_from_aes256 failed!"));
}

TEST(Context, LivesWithoutAChain)
{
    log_capture log;
    const ctx_owner broken = all().server.make_ctx("-----BEGIN CERTIFICATE-----\nA\n");
    ASSERT_TRUE(broken);
    EXPECT_TRUE(log.contains("error", "load_cert_chain return -"));
    EXPECT_EQ(SSL_CTX_get_verify_depth(broken.get()), 1);
}

TEST(Context, GivesUpCleanlyWithoutMemory)
{
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL);
    const size_t failures = support::fail_each_allocation([](size_t) {
        const ctx_owner ctx = all().server.make_ctx(all().chain);
        EXPECT_TRUE(ctx || support::allocation_failed());
    });
    EXPECT_GT(failures, 3u);
}

} // namespace
