// What the tests of the TLS utility share: the table, credentials made through it, the openssl
// program, connections in memory and over sockets.
#pragma once

#include "support.h"

#include "tarn_mem.h"
#include "tarn_raii.h"
#include "tlsu.h"

#include <condition_variable>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

// Settings of OpenSSL that the table leaves at their defaults and a few tests need otherwise.
extern "C"
{
long SSL_CTX_ctrl(struct ssl_ctx_st *ctx, int command, long value, void *pointer);
int SSL_CTX_get_verify_depth(const struct ssl_ctx_st *ctx);
int X509_STORE_set_flags(struct x509_store_st *store, unsigned long flags);
int X509_STORE_set_purpose(struct x509_store_st *store, int purpose);
}

namespace tlsu_test
{

inline const tlsu_if &tls()
{
    static const tlsu_if table = [] {
        tlsu_if t{};
        t.size = sizeof t;
        EXPECT_EQ(tlsu_if_get(&t), 0);
        return t;
    }();
    return table;
}

/** Fix the protocol version of a context: 2 or 3 for TLS 1.2 and 1.3. */
inline void use_only_tls(TLSU_CTX ctx, int minor)
{
    constexpr int set_min_proto_version = 123;
    constexpr int set_max_proto_version = 124;
    const long version = 0x0301 + minor;
    EXPECT_EQ(SSL_CTX_ctrl(ctx, set_min_proto_version, version, nullptr), 1);
    EXPECT_EQ(SSL_CTX_ctrl(ctx, set_max_proto_version, version, nullptr), 1);
}

// ---- owners ----------------------------------------------------------------------------------------

template <typename Handle, auto Entry>
void free_through_table(Handle handle)
{
    (tls().*Entry)(handle);
}
template <typename Handle, auto Entry>
using owner = tarn::unique_handle<Handle, free_through_table<Handle, Entry>>;
using bio_owner = owner<TLSU_BIO, &tlsu_if::bio_free>;
using pkey_owner = owner<TLSU_PKEY, &tlsu_if::pkey_free>;
using cert_owner = owner<TLSU_CERT, &tlsu_if::x509_free>;
using store_owner = owner<TLSU_STORE, &tlsu_if::x509_store_free>;
using ctx_owner = owner<TLSU_CTX, &tlsu_if::ctx_destroy>;
using session_owner = owner<TLSU_SESSION, &tlsu_if::tls_destroy>;

// ---- credentials -----------------------------------------------------------------------------------

inline constexpr const char *secret = "a secret of the tests";
inline constexpr int64_t day = 86400;

inline int length(const std::string &text)
{
    return static_cast<int>(text.size());
}

inline std::string encipher(const std::string &text, const char *with = secret)
{
    std::string out((text.size() / 16 + 1) * 16, '\0');
    EXPECT_EQ(tls().aes256cbc_enc(with, text.data(), length(text), out.data(), length(out)),
              length(out));
    return out;
}

inline std::string decipher(const std::string &text, const char *with = secret)
{
    std::string out(text.size(), '\0');
    const int n = tls().aes256cbc_dec(with, text.data(), length(text), out.data(), length(out));
    EXPECT_GT(n, 0);
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

inline bio_owner text_bio(const std::string &text)
{
    const std::string enciphered = encipher(text);
    return bio_owner(
        tls().bio_create_from_aes256cbc_secret(secret, enciphered.data(), length(enciphered)));
}

/** Run the openssl program; with ok it has to succeed.
 *  @return what it wrote on either output */
inline std::string openssl(std::vector<std::string> arguments, const std::string &input = {},
                           bool ok = true)
{
    arguments.insert(arguments.begin(), {"/usr/bin/env", "openssl"});
    auto program = support::child_process::program(arguments);
    if (!input.empty())
    {
        program.write_line(input);
    }
    program.close_input();
    const std::string output = program.read_rest();
    EXPECT_TRUE(program.wait() == 0 || !ok) << arguments[2] << ": " << output;
    return output;
}

/** What a certificate is to be like. */
struct wish
{
    std::string subject;
    std::string issuer;
    bool is_ca = false;
    std::string dns_name = {}; ///< as the only subject alternative name
    int64_t begin = -day;      ///< from now
    int days = 30;
};

/** A key and its certificate, as PEM texts as well. */
struct identity
{
    TLSU_PKEY key = nullptr; ///< lives as long as the process
    cert_owner cert;
    std::string key_text;
    std::string cert_text;

    [[nodiscard]] ctx_owner make_ctx(const std::string &chain) const
    {
        const std::string trusted = encipher(chain);
        const std::string own = encipher(cert_text);
        const std::string own_key = encipher(key_text);
        return ctx_owner(tls().ctx_create(secret, trusted.data(), length(trusted), own.data(),
                                          length(own), own_key.data(), length(own_key)));
    }
};

/** Keys take their time: the same few serve all certificates. */
inline TLSU_PKEY shared_key(size_t number)
{
    static const std::vector<TLSU_PKEY> keys = [] {
        std::vector<TLSU_PKEY> made;
        for (int i = 0; i < 4; ++i)
        {
            made.push_back(tls().rsa_key_generate(2048));
            EXPECT_NE(made.back(), nullptr);
        }
        return made;
    }();
    return keys.at(number);
}

inline identity make_identity(const wish &wanted, TLSU_PKEY key, TLSU_PKEY issuer_key)
{
    static unsigned char serial = 0;
    ++serial;
    identity made;
    made.key = key;
    made.cert =
        cert_owner(tls().x509_create(2, wanted.subject.c_str(), wanted.issuer.c_str(), &serial, 1,
                                     std::time(nullptr) + wanted.begin, wanted.days, key));
    EXPECT_TRUE(made.cert);
    if (wanted.is_ca)
    {
        EXPECT_EQ(tls().x509_add_ext_str(made.cert.get(), "2.5.29.19", nullptr, nullptr,
                                         "\x30\x03\x01\x01\xff"),
                  0);
    }
    if (const size_t size = wanted.dns_name.size(); size != 0)
    {
        const std::string names = {'\x30', static_cast<char>(size + 2), '\x82',
                                   static_cast<char>(size)};
        EXPECT_EQ(tls().x509_add_ext_str(made.cert.get(), "2.5.29.17", nullptr, nullptr,
                                         (names + wanted.dns_name).c_str()),
                  0);
    }
    EXPECT_EQ(tls().x509_sign(made.cert.get(), TLSU_DIGEST_SHA256, issuer_key), 0);

    const support::temp_dir dir;
    EXPECT_EQ(tls().x509_save(made.cert.get(), secret, dir.file("cert").c_str()), 0);
    EXPECT_EQ(tls().pkey_save(key, secret, dir.file("key").c_str()), 0);
    made.cert_text = decipher(support::read_file(dir.file("cert")));
    made.key_text = decipher(support::read_file(dir.file("key")));
    return made;
}

/** A root, an intermediate, leaves of it, and what does not belong to them. */
struct authority
{
    identity root = make_identity({"root", "root", true}, shared_key(0), shared_key(0));
    identity middle = make_identity({"middle", "root", true}, shared_key(1), shared_key(0));
    identity server =
        make_identity({"server", "middle", false, "gateway.test"}, shared_key(2), shared_key(1));
    identity client = make_identity({"client", "middle"}, shared_key(2), shared_key(1));
    identity other = make_identity({"other", "other", true}, shared_key(3), shared_key(3));
    identity stranger = make_identity({"stranger", "other"}, shared_key(2), shared_key(3));
    std::string chain = root.cert_text + middle.cert_text;
};

inline const authority &all()
{
    static const authority made;
    return made;
}

/** What an end of a TLS connection is created with. */
class credentials
{
public:
    explicit credentials(const identity &who, uint32_t flags = TLSU_FLAG_REQUIRE_PEER_CERT,
                         const char *with = secret)
        : chain_(encipher(all().chain)), cert_(encipher(who.cert_text)),
          key_(encipher(who.key_text)), record_{sizeof record_, flags,
                                                with,           chain_.data(),
                                                cert_.data(),   key_.data(),
                                                length(chain_), length(cert_),
                                                length(key_),   0}
    {
    }
    [[nodiscard]] const tlsu_credentials *get() const
    {
        return &record_;
    }

private:
    std::string chain_;
    std::string cert_;
    std::string key_;
    tlsu_credentials record_;
};

/** Those of the two ends that know each other. */
inline const credentials &server_credentials()
{
    static const credentials made(all().server);
    return made;
}
inline const credentials &client_credentials()
{
    static const credentials made(all().client);
    return made;
}

/** The authority as files that the openssl program reads. */
class pem_files
{
public:
    pem_files()
    {
        support::write_file(path("chain"), all().chain);
        support::write_file(path("root"), all().root.cert_text);
        support::write_file(path("middle"), all().middle.cert_text);
        write("server", all().server);
        write("client", all().client);
        write("stranger", all().stranger);
    }
    [[nodiscard]] std::string path(const std::string &name) const
    {
        return dir_.file(name);
    }
    /** Options that make the program present an identity; none for an empty name. */
    [[nodiscard]] std::vector<std::string> present(const std::string &name) const
    {
        return name.empty() ? std::vector<std::string>()
                            : std::vector<std::string>{"-cert",       path(name),
                                                       "-key",        path(name + "_key"),
                                                       "-cert_chain", path("middle")};
    }

private:
    void write(const std::string &name, const identity &of) const
    {
        support::write_file(path(name), of.cert_text);
        support::write_file(path(name + "_key"), of.key_text);
    }
    support::temp_dir dir_;
};

/** Starts the openssl program, to talk with. */
inline support::child_process start_openssl(std::vector<std::string> arguments,
                                            const std::vector<std::string> &more)
{
    arguments.insert(arguments.begin(), {"/usr/bin/env", "openssl"});
    arguments.insert(arguments.end(), more.begin(), more.end());
    return support::child_process::program(arguments);
}

/** Port on which s_server says that it listens; 0 when it says nothing. */
inline uint16_t port_of_s_server(support::child_process &program)
{
    std::string line;
    do
    {
        line = program.read_line();
    } while (!line.empty() && !line.starts_with("ACCEPT "));
    const size_t colon = line.rfind(':');
    EXPECT_NE(colon, std::string::npos) << line;
    return colon == std::string::npos ? uint16_t{0}
                                      : static_cast<uint16_t>(std::stoi(line.substr(colon + 1)));
}

// ---- connections -----------------------------------------------------------------------------------

/** Where the two ways to connect meet: the entries of a connection record over virtual functions. */
class connection
{
public:
    explicit connection(int type) : type_(type) {}
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;
    virtual ~connection() = default;

    virtual int send(const char *bytes, int len) = 0;
    virtual int receive(char *buffer, int max_len, uint32_t timeout_ms) = 0;
    virtual int connect()
    {
        return 0;
    }
    virtual connection *accept(bool)
    {
        return nullptr;
    }
    virtual void close() {}

    /** The record; flags and the like are set by the test before open(). */
    tlsu_conn_if_ex record = {
        .base = {
            .size = sizeof(tlsu_conn_if_ex),
            .type = [](void *h) { return self(h).type_; },
            .tls = [](void *h) { return self(h).session.get(); },
            .close = [](void *h) { self(h).close(); },
            .connect = [](void *h) { return self(h).connect(); },
            .accept = [](void *h) -> void * { return self(h).accept(true); },
            .send = [](void *h, const void *bytes,
                       int len) { return self(h).send(static_cast<const char *>(bytes), len); },
            .receive =
                [](void *h, void *buffer, int max_len, uint32_t timeout_ms) {
                    return self(h).receive(static_cast<char *>(buffer), max_len, timeout_ms);
                }},
        .flags = 0,
        .handshake_timeout_ms = 0,
        .peer_name = [](void *h) -> const char * {
            return self(h).peer_name.empty() ? nullptr : self(h).peer_name.c_str();
        },
        .accept_now = nullptr,
        .piece_size = 0};
    std::string peer_name;
    session_owner session;

    bool open(const ctx_owner &ctx)
    {
        session = session_owner(tls().tls_create(ctx.get(), &record.base, this));
        return static_cast<bool>(session);
    }
    /** The accepting side's part of the handshake. */
    bool shake_hands()
    {
        return tls().tls_write(session.get(), nullptr, 0) == 0;
    }
    int write(const std::string &text)
    {
        return tls().tls_write(session.get(), text.data(), length(text));
    }
    /** Reads until there are so many bytes, or the end. */
    std::string read(size_t size, int at_once = 65536)
    {
        std::string all;
        std::vector<char> buffer(static_cast<size_t>(at_once));
        while (all.size() < size)
        {
            const int n =
                tls().tls_read(session.get(), buffer.data(),
                               std::min(at_once, static_cast<int>(size - all.size())), 10000);
            if (n < 0)
            {
                break;
            }
            all.append(buffer.data(), static_cast<size_t>(n));
        }
        return all;
    }
    /** The next read finds the session ended. */
    bool is_at_end()
    {
        char byte = 0;
        int n = 0;
        while (n == 0)
        {
            n = tls().tls_read(session.get(), &byte, 1, 10000);
        }
        return n < 0;
    }

protected:
    static connection &self(void *handle)
    {
        return *static_cast<connection *>(handle);
    }

private:
    int type_;
};

/** One end of a connection in memory, which can be made difficult. */
class memory_connection : public connection
{
public:
    using connection::connection;
    ~memory_connection() override
    {
        cut();
    }
    size_t max_receive = SIZE_MAX;   ///< bytes per receive
    size_t max_send = SIZE_MAX;      ///< bytes per send
    size_t capacity = SIZE_MAX;      ///< bytes on the way from here; send waits beyond
    std::atomic<int> sends_left{-1}; ///< then send fails; -1: never
    std::atomic<int> largest_send{0};
    std::atomic<int> largest_receive{0};

    static void join(memory_connection &a, memory_connection &b)
    {
        a.wire_ = b.wire_ = std::make_shared<wire>();
        a.in_ = b.out_ = &a.wire_->ways[0];
        a.out_ = b.in_ = &a.wire_->ways[1];
    }
    /** Bytes for this end, from nowhere. */
    void put(const std::string &bytes)
    {
        const std::lock_guard lock(wire_->mutex);
        in_->bytes += bytes;
        wire_->changed.notify_all();
    }
    /** The transport ends, in both directions. */
    void cut()
    {
        if (wire_)
        {
            const std::lock_guard lock(wire_->mutex);
            wire_->is_cut = true;
            wire_->changed.notify_all();
        }
    }
    /** Bytes on the way to this end. */
    size_t waiting()
    {
        const std::lock_guard lock(wire_->mutex);
        return in_->size();
    }
    int send(const char *bytes, int len) override
    {
        largest_send = std::max<int>(largest_send, len);
        std::unique_lock lock(wire_->mutex);
        wire_->changed.wait(lock, [this] { return wire_->is_cut || out_->size() < capacity; });
        if (wire_->is_cut || sends_left == 0)
        {
            return -1;
        }
        sends_left -= sends_left > 0 ? 1 : 0;
        const size_t n = std::min(static_cast<size_t>(len), max_send);
        out_->bytes.append(bytes, n);
        wire_->changed.notify_all();
        return static_cast<int>(n);
    }
    int receive(char *buffer, int max_len, uint32_t timeout_ms) override
    {
        largest_receive = std::max<int>(largest_receive, max_len);
        std::unique_lock lock(wire_->mutex);
        wire_->changed.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                [this] { return wire_->is_cut || in_->size() != 0; });
        if (in_->size() == 0)
        {
            return wire_->is_cut ? -1 : 0;
        }
        const size_t n = std::min({static_cast<size_t>(max_len), max_receive, in_->size()});
        in_->take(buffer, n);
        wire_->changed.notify_all();
        return static_cast<int>(n);
    }

private:
    struct way
    {
        std::string bytes;
        size_t taken = 0; ///< from their start
        [[nodiscard]] size_t size() const
        {
            return bytes.size() - taken;
        }
        void take(char *out, size_t n)
        {
            bytes.copy(out, n, taken);
            taken += n;
            if (taken > bytes.size() / 2)
            {
                bytes.erase(0, std::exchange(taken, 0));
            }
        }
    };
    struct wire
    {
        std::mutex mutex;
        std::condition_variable changed;
        way ways[2];
        bool is_cut = false;
    };
    std::shared_ptr<wire> wire_;
    way *in_ = nullptr;
    way *out_ = nullptr;
};

/** A connection over a socket, for the openssl program at the other end. */
class socket_connection : public connection
{
public:
    socket_connection(int type, int fd) : connection(type), fd_(fd) {}
    ~socket_connection() override
    {
        ::close(fd_);
    }
    int send(const char *bytes, int len) override
    {
        return static_cast<int>(::send(fd_, bytes, static_cast<size_t>(len), MSG_NOSIGNAL));
    }
    [[nodiscard]] bool waits_to_be_read(uint32_t timeout_ms = 10000) const
    {
        pollfd waited{fd_, POLLIN, 0};
        return ::poll(&waited, 1, static_cast<int>(timeout_ms)) == 1;
    }
    int receive(char *buffer, int max_len, uint32_t timeout_ms) override
    {
        if (!waits_to_be_read(timeout_ms))
        {
            return 0;
        }
        const ssize_t n = ::recv(fd_, buffer, static_cast<size_t>(max_len), 0);
        return n > 0 ? static_cast<int>(n) : -1;
    }

private:
    int fd_;
};

} // namespace tlsu_test
