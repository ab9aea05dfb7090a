// URLs: any text through parse and decode, and through encode and back.

#include "input.h"

#include "tarn_util.h"

#include <algorithm>
#include <cstring>
#include <string>

using fuzz::own;
using fuzz::require;

namespace
{

void free_params(char **params)
{
    for (char **text = params; *text != nullptr; ++text)
    {
        tarn_mem_free(*text);
    }
    tarn_mem_free(params);
}

/** Location and query together are the URL again; the parameters are as many as promised. */
void parse(const char *url)
{
    char *query_text = nullptr;
    char **params = nullptr;
    const auto location = own(tarn_url_parse(url, &query_text, &params));
    const auto query = own(query_text);
    require(location != nullptr);
    std::string joined = location.get();
    if (query != nullptr)
    {
        joined.append("?").append(query.get());
    }
    require(joined == url);
    if (params != nullptr)
    {
        size_t count = 0;
        while (params[count] != nullptr)
        {
            ++count;
        }
        const std::string_view pairs = query.get();
        require(count == 2 * static_cast<size_t>(1 + std::count(pairs.begin(), pairs.end(), '&')));
        free_params(params);
    }
}

void decode(const char *text)
{
    const auto decoded = own(tarn_url_decode(text));
    require(decoded != nullptr && std::strlen(decoded.get()) <= std::strlen(text));
}

void round_trip(const char *text)
{
    const auto encoded = own(tarn_url_encode(text));
    require(encoded != nullptr);
    const auto decoded = own(tarn_url_decode(encoded.get()));
    require(decoded != nullptr && std::strcmp(text, decoded.get()) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const fuzz::exact_string text(data, size);
    parse(text.get());
    decode(text.get());
    round_trip(text.get());
    return 0;
}
