// Regular expressions: fixed patterns on any text; offsets, copies and counts must agree.

#include "input.h"

#include "tarn_regex.h"

using fuzz::require;

namespace
{

constexpr const char *patterns[] = {
    "a(b)",
    "[0-9]+",
    "x*",
    "^(\\w+)\\s*=\\s*(.*)$",
    "(a|b)*c?",
    "(?i)(get|put) (/[^ ]*)",
    "a(?=(b))|\\Kc",
    "(.)\\1",
    "\\b|$",
    "(\\((?:[^()]|(?1))*\\))",
    "(*LIMIT_MATCH=2000)(a+)+b",
    "(*UTF)(*UCP)\\w*",
    "[^\\x00-\\x7f]|",
};
TARN_REGEX compiled[std::size(patterns)];

void match(TARN_REGEX re, std::string_view text)
{
    size_t count = 0;
    for (const auto *result = tarn_regex_match_all(re, text.data()); result != nullptr;
         result = result->next)
    {
        ++count;
        require(result->start <= result->end && result->end <= text.size());
        require(text.substr(result->start, result->end - result->start) == result->text);
    }
    require(tarn_regex_match(re, text.data()) == count);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz::swallow_log();
    for (size_t i = 0; i < std::size(patterns); ++i)
    {
        compiled[i] = tarn_regex_create(patterns[i]);
        require(compiled[i] != nullptr);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const fuzz::exact_string text(data, size);
    for (TARN_REGEX re : compiled)
    {
        match(re, text.view());
    }
    return 0;
}
