// JSON escapes: any text there and back, any text unescaped.

#include "input.h"

#include "tarn_str.h"

#include <cstring>

using fuzz::require;

namespace
{

void round_trip(const char *text)
{
    const auto escaped = fuzz::own(tarn_str_escape_json(text));
    require(std::none_of(escaped.get(), escaped.get() + std::strlen(escaped.get()),
                         [](char c) { return static_cast<unsigned char>(c) < 32; }));
    const auto back = fuzz::own(tarn_str_unescape_json(escaped.get()));
    require(back && std::strcmp(back.get(), text) == 0);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::swallow_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const fuzz::exact_string text(data, size);
    round_trip(text.get());
    if (const auto plain = fuzz::own(tarn_str_unescape_json(text.get())); plain)
    {
        require(std::strlen(plain.get()) <= text.view().size());
        round_trip(plain.get());
    }
    return 0;
}
