// XML entities: any text there and back, any text unescaped, into new strings and into buffers of
// every kind of size.

#include "input.h"

#include "tarn_str.h"

#include <cstring>

using fuzz::require;

namespace
{

using convert = int64_t (*)(const char *, char *, size_t);

/** The buffer form against the new string: the same result in whatever fits. */
void into_buffers(convert call, const char *from, const char *expected)
{
    const size_t length = expected != nullptr ? std::strlen(expected) : std::strlen(from);
    for (const size_t size : {length / 2 + 1, length, length + 1})
    {
        if (size == 0)
        {
            continue;
        }
        const std::unique_ptr<char[]> out(new char[size]);
        const int64_t rc = call(from, out.get(), size);
        if (expected == nullptr)
        {
            require(rc == -5 || (rc == -4 && size <= length));
            continue;
        }
        require(rc == (size < length ? -4 : static_cast<int64_t>(length)));
        require(rc < 0 || std::memcmp(out.get(), expected, std::min(size, length + 1)) == 0);
    }
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
    const auto escaped = fuzz::own(tarn_str_escape_xml(text.get()));
    const auto back = fuzz::own(tarn_str_unescape_xml(escaped.get()));
    require(back && back.get() == text.view());
    require(std::strpbrk(escaped.get(), "<>'\"") == nullptr);
    into_buffers(tarn_str_to_xml_str, text.get(), escaped.get());

    const auto plain = fuzz::own(tarn_str_unescape_xml(text.get()));
    into_buffers(tarn_str_from_xml_str, text.get(), plain.get());
    return 0;
}
