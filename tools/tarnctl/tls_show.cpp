// tarnctl tls show: what a file of credentials holds.

#include "tls.h"

#include "certificate.h"
#include "output.h"

#include <cerrno>

namespace tarnctl
{
namespace
{

/** The secret's file: as given, else beside the file. */
std::string secret_path(const arguments &given, const std::string &path)
{
    if (const char *const named = given.value("secret"))
    {
        return named;
    }
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "secret" : path.substr(0, slash + 1) + "secret";
}

/** Plain PEM text of a file's content; nothing after a message. */
std::optional<std::string> plain_text(const arguments &given, const std::string &path,
                                      const std::string &content)
{
    if (content.find("-----BEGIN ") != std::string::npos)
    {
        return content;
    }
    const std::string secret_file = secret_path(given, path);
    const auto secret = read_secret(secret_file);
    if (!secret)
    {
        (void)failed(shown(path) + " is enciphered and " + shown(secret_file) +
                     " cannot be read: " + error_text(errno) + ", name it with --secret");
        return std::nullopt;
    }
    const tlsu_if *const table = tls_table();
    std::string plain(content.size(), '\0');
    const auto size = static_cast<int>(content.size());
    const int length =
        table != nullptr && size > 0
            ? table->aes256cbc_dec(secret->c_str(), content.data(), size, plain.data(), size)
            : 0;
    plain.resize(length > 0 ? static_cast<size_t>(length) : 0);
    if (table != nullptr && plain.find("-----BEGIN ") == std::string::npos)
    {
        (void)failed(shown(path) + " is neither a PEM file nor enciphered with the secret in " +
                     shown(secret_file) + ": name another one with --secret");
    }
    return plain.find("-----BEGIN ") != std::string::npos ? std::optional(plain) : std::nullopt;
}

void print_json(const std::vector<pem_block> &blocks)
{
    json line;
    line.begin_array();
    for (const pem_block &block : blocks)
    {
        const auto seen = read_certificate(block.bytes);
        line.begin_object().key("kind").text(block.label);
        if (block.label == "CERTIFICATE" && seen)
        {
            line.key("subject").text(seen->subject).key("issuer").text(seen->issuer);
            line.key("serial").text(seen->serial).key("not_before").text(seen->not_before);
            line.key("not_after").text(seen->not_after).key("valid").truth(!seen->is_expired);
        }
        line.end_object();
    }
    line.end_array().print();
}

void print_text(const std::vector<pem_block> &blocks)
{
    for (const pem_block &block : blocks)
    {
        const auto seen = read_certificate(block.bytes);
        if (block.label != "CERTIFICATE" || !seen)
        {
            (void)std::fprintf(out(), "%s, %zu bytes\n", shown(block.label).c_str(),
                               block.bytes.size());
            continue;
        }
        (void)std::fprintf(out(),
                           "CERTIFICATE\n  subject   %s\n  issuer    %s\n  serial    %s\n"
                           "  validity  %s to %s%s\n",
                           seen->subject.c_str(), seen->issuer.c_str(), seen->serial.c_str(),
                           seen->not_before.c_str(), seen->not_after.c_str(),
                           seen->is_expired ? ", NOT VALID NOW" : "");
    }
}

int show(const arguments &given)
{
    const std::string path = given.operands()[0];
    const auto content = read_file(path);
    if (!content)
    {
        return failed("cannot read " + shown(path) + ": " + error_text(errno) +
                      ", check the name and the rights");
    }
    const auto text = plain_text(given, path, *content);
    if (!text)
    {
        return status_failed;
    }
    const std::vector<pem_block> blocks = read_pem(*text);
    if (blocks.empty())
    {
        return failed(shown(path) + " holds nothing that is whole: make it anew");
    }
    given.has("json") ? print_json(blocks) : print_text(blocks);
    return status_ok;
}

constexpr operand operands[] = {{"FILE", "the name of a certificate, chain or key file"}};
constexpr option options[] = {
    {"secret", "FILE", "the name of a file with the secret on its one line",
     "what an enciphered FILE is enciphered with, default is 'secret' beside it"},
    json_option,
};

} // namespace

const command tls_show_command = {
    "tls",
    "show",
    "Print who is in a certificate file: subject, issuer, serial number, validity",
    "Of a key nothing but its kind is printed.\n",
    operands,
    options,
    show,
};

} // namespace tarnctl
