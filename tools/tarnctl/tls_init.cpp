// tarnctl tls init: a root, and of it the credentials of a server and of a client.
//
// The root's key is used for the two signatures and then forgotten: who could read it could make
// credentials that every member of the set trusts. New credentials are a new set.

#include "tls.h"

#include "output.h"
#include "owner.h"

#include "tarn_dir.h"
#include "tarn_sys.h"
#include "tarn_util.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include <unistd.h>

namespace tarnctl
{
namespace
{

constexpr const char *file_names[] = {"secret",       "server.chain", "server.cert", "server.key",
                                      "client.chain", "client.cert",  "client.key",  "root.pem"};
constexpr int64_t day_s = 86400;

struct settings
{
    std::string dir;
    std::string common_name = "tarn-server";
    uint32_t days = 3650;
    uint32_t bits = 2048;
};

/** Random bytes from the system, in hex digits; each id holds 122 random bits. */
std::string random_digits(size_t ids)
{
    std::string digits;
    for (size_t i = 0; i < ids; ++i)
    {
        digits += tarn_uuid_str_gen();
    }
    std::erase(digits, '-');
    return digits;
}

// Handles of the table, freed through it.
struct pkey_free
{
    void operator()(TLSU_PKEY key) const
    {
        tls_table()->pkey_free(key);
    }
};
struct cert_free
{
    void operator()(TLSU_CERT cert) const
    {
        tls_table()->x509_free(cert);
    }
};
using pkey_owner = std::unique_ptr<std::remove_pointer_t<TLSU_PKEY>, pkey_free>;
using cert_owner = std::unique_ptr<std::remove_pointer_t<TLSU_CERT>, cert_free>;

struct identity
{
    pkey_owner key;
    cert_owner cert;
};

/** Makes a key and its certificate, signed by the issuer, or by itself without one. */
std::optional<identity> make_identity(const settings &wanted, const std::string &name,
                                      const std::string &issuer_name, const identity *issuer)
{
    const tlsu_if &table = *tls_table();
    identity made;
    made.key.reset(table.rsa_key_generate(static_cast<int>(wanted.bits)));
    std::string serial(16, '\0');
    const std::string digits = random_digits(1);
    for (size_t i = 0; i < serial.size(); ++i)
    {
        serial[i] = static_cast<char>(std::strtoul(digits.substr(2 * i, 2).c_str(), nullptr, 16));
    }
    serial[0] = static_cast<char>((serial[0] & 0x3F) | 0x40); // positive, and of full length
    // from a day before now: the clocks of gateways are not all right
    made.cert.reset(made.key ? table.x509_create(2, name.c_str(), issuer_name.c_str(),
                                                 serial.data(), static_cast<int>(serial.size()),
                                                 tarn_time_now() - day_s,
                                                 static_cast<int>(wanted.days) + 1, made.key.get())
                             : nullptr);
    // basic constraints in DER: a sequence, for the root with the one truth that it is an authority
    constexpr char is_authority[] = "\x30\x03\x01\x01\xff";
    const bool is_root = issuer == nullptr;
    const TLSU_PKEY signer = is_root ? made.key.get() : issuer->key.get();
    if (!made.cert ||
        (is_root && table.x509_add_ext_str(made.cert.get(), "2.5.29.19", nullptr, nullptr,
                                           is_authority) != 0) ||
        table.x509_sign(made.cert.get(), TLSU_DIGEST_SHA256, signer) != 0)
    {
        return std::nullopt;
    }
    return made;
}

/** Files of a set that is being made, in a directory beside their place. */
class workshop
{
public:
    explicit workshop(const std::string &dir) : path_(dir + "/.tarnctl-" + std::string(6, 'X'))
    {
        is_made_ = ::mkdtemp(path_.data()) != nullptr;
    }
    workshop(const workshop &) = delete;
    workshop &operator=(const workshop &) = delete;
    ~workshop()
    {
        if (is_made_)
        {
            for (const char *const name : file_names)
            {
                (void)::unlink(file(name).c_str());
            }
            (void)::rmdir(path_.c_str());
        }
    }
    [[nodiscard]] bool is_made() const
    {
        return is_made_;
    }
    [[nodiscard]] std::string file(const char *name) const
    {
        return path_ + "/" + name;
    }

private:
    std::string path_;
    bool is_made_;
};

/** Writes one side's three files. */
bool save_side(const workshop &shop, const std::string &side, const std::string &secret,
               const identity &root, const identity &own)
{
    const tlsu_if &table = *tls_table();
    const auto path = [&](const char *part) { return shop.file((side + part).c_str()); };
    // the key's file first, for its owner alone: the table writes into what is there
    return write_new_file(path(".key"), "", 0600) == 0 &&
           table.pkey_save(own.key.get(), secret.c_str(), path(".key").c_str()) == 0 &&
           table.x509_save(root.cert.get(), secret.c_str(), path(".chain").c_str()) == 0 &&
           table.x509_save(own.cert.get(), secret.c_str(), path(".cert").c_str()) == 0;
}

/** Makes the whole set in the workshop. */
bool make_set(const settings &wanted, const workshop &shop)
{
    const std::string secret = random_digits(2);
    const std::string root_name = wanted.common_name + " root " + random_digits(1).substr(0, 8);
    const auto root = make_identity(wanted, root_name, root_name, nullptr);
    const auto server =
        root ? make_identity(wanted, wanted.common_name, root_name, &*root) : std::nullopt;
    const auto client =
        server ? make_identity(wanted, wanted.common_name + " client", root_name, &*root)
               : std::nullopt;
    return client && save_side(shop, "server", secret, *root, *server) &&
           save_side(shop, "client", secret, *root, *client) &&
           tls_table()->x509_save(root->cert.get(), nullptr, shop.file("root.pem").c_str()) == 0 &&
           write_new_file(shop.file("secret"), secret + "\n", 0600) == 0;
}

/** Puts the set in its place. */
int publish(const settings &wanted, const workshop &shop)
{
    for (const char *const name : file_names)
    {
        const std::string path = wanted.dir + "/" + name;
        if (::rename(shop.file(name).c_str(), path.c_str()) != 0)
        {
            return failed("cannot write " + shown(path) + ": " + error_text(errno) +
                          ", check the rights on the directory");
        }
    }
    return status_ok;
}

/** @return status_ok when nothing would be written over */
int look_for_old_files(const settings &wanted)
{
    for (const char *const name : file_names)
    {
        const std::string path = wanted.dir + "/" + name;
        if (::access(path.c_str(), F_OK) == 0 || errno != ENOENT)
        {
            return failed(shown(path) + " is there already: choose another directory, or give "
                                        "--force to make all files anew");
        }
    }
    return status_ok;
}

/** Names that a certificate takes, and a table of one text per name. */
bool is_name(std::string_view text)
{
    return !text.empty() && text.size() <= 40 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

int init(const arguments &given)
{
    settings wanted;
    wanted.dir = given.operands()[0];
    if (wanted.dir.empty())
    {
        return given.wrong_operand(0, wanted.dir);
    }
    if (const char *const name = given.value("cn"))
    {
        wanted.common_name = name;
    }
    if (!is_name(wanted.common_name))
    {
        return given.wrong_value("cn");
    }
    if (!given.number("days", 1, 36500, &wanted.days) ||
        !given.number("bits", 2048, 8192, &wanted.bits))
    {
        return status_usage;
    }
    if (tls_table() == nullptr)
    {
        return status_failed;
    }
    if (tarn_dir_create(wanted.dir.c_str(), 0700) != 0 || !tarn_dir_is_exist(wanted.dir.c_str()))
    {
        return failed("cannot make the directory " + shown(wanted.dir) +
                      ": choose another place, or check the rights there");
    }
    if (!given.has("force"))
    {
        if (const int result = look_for_old_files(wanted); result != status_ok)
        {
            return result;
        }
    }
    const workshop shop(wanted.dir);
    if (!shop.is_made() || !make_set(wanted, shop))
    {
        return failed("cannot make the credentials in " + shown(wanted.dir) +
                      ": check the rights on it and the space there, -v shows more");
    }
    if (const int result = publish(wanted, shop); result != status_ok)
    {
        return result;
    }
    (void)std::fprintf(out(), "credentials of '%s' in %s, valid for %u days\n",
                       wanted.common_name.c_str(), shown(wanted.dir).c_str(), wanted.days);
    return status_ok;
}

constexpr operand operands[] = {{"DIR", "the name of a directory, made when it is missing"}};
constexpr option options[] = {
    {"cn", "NAME", "1 to 40 ASCII characters", "the server's name, default is tarn-server"},
    {"days", "N", "a whole number, 1 to 36500", "how long they are valid, default is 3650"},
    {"bits", "N", "a whole number, 2048 to 8192", "size of the RSA keys, default is 2048"},
    {"force", nullptr, nullptr, "replace the files of an earlier set"},
};

} // namespace

const command tls_init_command = {
    "tls",
    "init",
    "Make a root certificate and the credentials of a server and a client",
    "DIR gets server.chain, server.cert, server.key and the same of client, enciphered with what\n"
    "stands in DIR/secret, and root.pem. A client needs secret and client.*, a server secret and\n"
    "server.*. The root's key is not kept: new credentials are a new set.\n",
    operands,
    options,
    init,
};

} // namespace tarnctl
