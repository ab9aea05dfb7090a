// What a certificate says of itself. The utility's table tells version and serial number only; the
// rest is read here from the PEM text, as far as a person wants to know it.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnctl
{

struct certificate
{
    std::string subject; ///< "CN=name, O=other"
    std::string issuer;
    std::string serial;     ///< hex digits
    std::string not_before; ///< "2026-11-22 00:00:00 UTC"
    std::string not_after;
    bool is_expired = false; ///< or not valid yet
};

/** Takes a DER certificate apart. @return nothing when it is none */
std::optional<certificate> read_certificate(std::string_view der);

/** One block of a PEM text. */
struct pem_block
{
    std::string label; ///< "CERTIFICATE"
    std::string bytes;
};

/** All blocks of a PEM text that are whole. */
std::vector<pem_block> read_pem(std::string_view text);

} // namespace tarnctl
