// The reader with which tarnctl shows certificates: PEM text first, then the DER inside, and the same
// bytes as DER at once, which mutations reach more easily. What it gives is fit for a terminal.

#include "certificate.h"
#include "input.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

using fuzz::require;

namespace
{

bool is_printable(std::string_view text)
{
    return std::none_of(text.begin(), text.end(), [](char c) {
        return (static_cast<uint8_t>(c) < ' ' && c != '\n' && c != '\t') || c == 0x7F;
    });
}

void look_at(std::string_view der)
{
    if (const auto seen = tarnctl::read_certificate(der))
    {
        require(is_printable(seen->subject) && is_printable(seen->issuer));
        require(is_printable(seen->serial) && seen->serial.size() <= 2 * der.size());
        require(seen->not_before.size() == sizeof "2026-11-22 00:00:00 UTC" - 1);
        require(seen->not_after.size() == seen->not_before.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    look_at(input);
    for (const tarnctl::pem_block &block : tarnctl::read_pem(input))
    {
        require(block.bytes.size() <= size);
        look_at(block.bytes);
    }
    return 0;
}
