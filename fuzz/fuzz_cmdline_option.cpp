// Command-line options: any arguments, one per line of the input, against a table with a row of
// every kind, sound and unsound ones.

#include "input.h"

#include "tarn_cmdline_option.h"

#include <vector>

using fuzz::require;

namespace
{

struct values
{
    uint8_t verbose = 0;
    int number = 0;
    const char *text = nullptr;
    const char *file = nullptr;
};

void parse(const std::vector<char *> &argv, const std::vector<fuzz::exact_string> &arguments,
           int allow_unknown)
{
    values got;
    const tarn_cmdline_option options[] = {
        {"vq", "verbose", nullptr, "flag", TARN_CMDLINE_OPTION_FLAG, &got.verbose},
        {"n", "number", "N", "integer", TARN_CMDLINE_OPTION_INTEGER, &got.number},
        {"t", nullptr, "TEXT", "string", TARN_CMDLINE_OPTION_STRING, &got.text},
        {nullptr, "file", "FILE", "string", TARN_CMDLINE_OPTION_STRING, &got.file},
        {"w", "warned", "NAME", "flag with a value name", TARN_CMDLINE_OPTION_FLAG, &got.verbose},
        {"i", "int", nullptr, "value without a name", TARN_CMDLINE_OPTION_INTEGER, &got.number},
        {"z", "none", nullptr, "no place for the value", TARN_CMDLINE_OPTION_FLAG, nullptr},
        {"y", "type", nullptr, "no such type", 9, &got.number},
        {nullptr, nullptr, "X", "no name", TARN_CMDLINE_OPTION_FLAG, &got.verbose},
        {"", "", nullptr, "empty names", TARN_CMDLINE_OPTION_FLAG, &got.verbose},
        {nullptr, nullptr, nullptr, nullptr, 0, nullptr},
    };
    const auto argc = static_cast<int>(argv.size()) - 1;
    const int mask = tarn_cmdline_option_parse(argc, argv.data(), options, allow_unknown);
    require(mask < 0 || argc >= 31 || mask >> argc == 0);
    require(mask < 0 || (mask & 1) == 0);
    require(got.verbose <= 1);
    for (const char *value : {got.text, got.file})
    {
        require(value == nullptr ||
                std::any_of(arguments.begin(), arguments.end(), [value](const auto &argument) {
                    return value >= argument.view().begin() && value <= argument.view().end();
                }));
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
    std::string_view rest(reinterpret_cast<const char *>(data), size);
    std::vector<fuzz::exact_string> arguments;
    arguments.emplace_back("program");
    while (!rest.empty())
    {
        const size_t length = std::min(rest.find('\n'), rest.size());
        arguments.emplace_back(rest.substr(0, length));
        rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    std::vector<char *> argv;
    for (const auto &argument : arguments)
    {
        argv.push_back(argument.get());
    }
    argv.push_back(nullptr);
    for (const int allow_unknown : {0, 1})
    {
        parse(argv, arguments, allow_unknown);
    }
    return 0;
}
