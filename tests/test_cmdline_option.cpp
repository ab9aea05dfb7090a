// The option parser and the help printer.

#include "support.h"
#include "support_log.h"

#include "tarn_cmdline_option.h"

#include <iterator>
#include <sstream>

using support::expect_check;

namespace
{

// ---- parser ----------------------------------------------------------------------------------

struct stored_values
{
    uint8_t all, verbose, either, named_flag;
    int number, bare_number;
    const char *file;
    const char *only_long;
};
stored_values stored;

const tarn_cmdline_option table[] = {
    {"a", "all", nullptr, "", 1, &stored.all},
    {"v", nullptr, nullptr, "", 1, &stored.verbose},
    {"xy", nullptr, nullptr, "", 1, &stored.either},
    {"z", "zed", "WHAT", "", 1, &stored.named_flag}, // a flag that says it takes an argument
    {"n", "num", "NUM", "", 2, &stored.number},
    {"b", "bare", nullptr, "", 2, &stored.bare_number}, // a value without a name for it
    {"f", "config", "FILE", "", 3, &stored.file},
    {nullptr, "conf", "FILE", "", 3, &stored.only_long},
    {"q", "quiet", nullptr, "", 1, nullptr},
    {"t", "type0", "T", "", 0, &stored.all},
    {"T", "type65", "T", "", 65, &stored.all},
    {nullptr, nullptr, "IGNORED", "", 1, nullptr}, // no end row: it has a value name
    {nullptr, nullptr, nullptr, nullptr, 0, nullptr},
};

int parse(const std::string &line, int allow_unknown, const tarn_cmdline_option *options = table)
{
    static std::vector<std::string> words; // the stored values point into them
    std::istringstream in("prog " + line);
    words.assign(std::istream_iterator<std::string>(in), {});
    std::vector<char *> argv; // without a null at its end
    for (std::string &word : words)
    {
        argv.push_back(word == "''" ? word.data() + 2 : word.data());
    }
    return tarn_cmdline_option_parse(static_cast<int>(argv.size()), argv.data(), options,
                                     allow_unknown);
}

/** Result, stored values and log lines of one call, e.g. "2 a n=5 | error: no argument for -f". */
std::string outcome(const std::string &line, int allow_unknown = 0)
{
    stored = {};
    const support::log_capture log;
    const int rc = parse(line, allow_unknown);
    std::string text = rc < 0 ? "fail" : std::to_string(rc);
    text += stored.all == 1 ? " a" : "";
    text += stored.verbose == 1 ? " v" : "";
    text += stored.either == 1 ? " x" : "";
    text += stored.named_flag == 1 ? " z" : "";
    text += stored.number != 0 ? " n=" + std::to_string(stored.number) : "";
    text += stored.bare_number != 0 ? " b=" + std::to_string(stored.bare_number) : "";
    text += stored.file != nullptr ? " f=" + std::string(stored.file) : "";
    text += stored.only_long != nullptr ? " conf=" + std::string(stored.only_long) : "";
    for (const std::string &message : log.lines())
    {
        text += " | " + support::without_prefix(message);
    }
    return text;
}

TEST(Parse, GivesMaskValuesAndMessages)
{
    const struct
    {
        const char *line;
        int allow_unknown;
        const char *expected;
    } cases[] = {
        {"", 0, "0"},
        {"one -a three", 0, "10 a"}, // bits 1 and 3
        {"'' -a", 0, "2 a"},
        // long options
        {"--config=app.ini", 0, "0 f=app.ini"},
        {"--config app.ini", 0, "0 f=app.ini"},
        {"--config=a=b", 0, "0 f=a=b"},
        {"--config=-d", 0, "0 f=-d"},
        {"--conf app.ini x", 0, "8 conf=app.ini"}, // a name that begins another one
        {"--configx", 0, "fail | error: invalid option --configx"},
        {"--con=x", 0, "fail | error: invalid option --con=x"},
        {"--config= x", 0, "4 | error: no argument for --config"},
        {"--config -a", 0, "0 a | error: no argument for --config"},
        {"--config", 0, "0 | error: no argument for --config"},
        {"--config ''", 0, "0 f="},
        {"--all=no", 0, "0 a"},
        {"--zed=1", 0, "0 z | warn: --zed should not has value name"},
        {"--quiet", 0, "fail | error: no value specified for --quiet"},
        {"--type0=1", 0, "fail | error: invalid type 0 for --type0"},
        {"--type65", 0, "fail | error: invalid type 65 for --type65"},
        {"--num=12x --num 34", 0, "0 n=34"},
        {"--num=-7", 0, "0 n=-7"},
        {"--bare=3", 0, "0 b=3 | warn: no value name specified for --bare"},
        {"--=x", 0, "fail | error: invalid option --=x"},
        // short options and clusters
        {"-av", 0, "0 a v"},
        {"-y", 0, "0 x"},
        {"-f app.ini x", 0, "8 f=app.ini"},
        {"-fpp.ini", 0, "0 f=pp.ini"}, // p is no option
        {"-f -a", 0, "0 a | error: no argument for -f"},
        {"-f", 0, "0 | error: no argument for -f"},
        {"-fa", 0, "fail | error: no argument specified for -f"},
        {"-af app.ini", 0, "0 a f=app.ini"},
        {"-a!v", 0, "0 a"}, // dropped behind a flag
        {"-n5", 0, "0 n=5"},
        {"-n 99999999999", 0, "0 n=1215752191"},
        {"-bv", 0, "0 v | warn: no value name specified for -b"}, // "v" as a number, and then -v
        {"-b7 -b 8", 0,
         "0 b=8 | warn: no value name specified for -b | warn: no value name specified for -b"},
        {"-z", 0, "0 z | warn: -z should not has value name"},
        {"-za", 0, "fail | error: no argument specified for -z"},
        {"-q", 0, "fail | error: no value specified for -q"},
        {"-aq", 0, "fail a | error: no value specified for -q"},
        {"-T x", 0, "fail | error: invalid type 84 for -A"}, // code of the character, type as one
        {"-t", 0, "fail | error: invalid type 116 for -"},   // type 0 as a character ends the line
        {"-a -%s -v", 0, "fail a | error: invalid option -%s"},
        {"-\xE4", 0, "fail | error: invalid option -\xE4"},
        // unknown options allowed: skipped, not in the mask
        {"--bogus", 1, "0"},
        {"--bogus -w -a x", 1, "16 a"},
        {"--bogus", 2, "fail | error: invalid option --bogus"}, // only 1 allows
        {"--quiet", 1, "fail | error: no value specified for --quiet"},
        // the end of the options
        {"-a -- -v --x y", 0, "56 a"},
        {"-- --", 0, "4"},
        {"--config -- x", 0, "8 | error: no argument for --config"},
        // a lone dash goes as the last look-up went
        {"-", 0, "fail | error: invalid option -"},
        {"-", 1, "0"},
        {"-a -", 0, "0 a"},
        {"x -", 0, "fail | error: invalid option -"},
        {"--all - -w -", 1, "0 a"},
        {"-w -", 1, "0"},
        {"-a!v -", 0, "0 a"},
        {"--all --config - x", 0, "16 a | error: no argument for --config"}, // never a value
    };
    for (const auto &c : cases)
    {
        EXPECT_EQ(outcome(c.line, c.allow_unknown), c.expected) << c.line;
    }
}

TEST(Parse, TakesThirtyOneArgumentsAndNoMore)
{
    std::string line;
    for (int i = 0; i < 30; ++i)
    {
        line += "x ";
    }
    EXPECT_EQ(outcome(line + "-a"), "2147483646 a");
    EXPECT_EQ(static_cast<uint32_t>(parse(line + "x", 1)), 0xFFFFFFFE); // reads as an error
    EXPECT_EQ(outcome(line + "-a x"), "fail a | error: too much arguments");
    EXPECT_EQ(outcome(line + "-f x"), "2147483646 f=x"); // the 32nd is a value
    EXPECT_EQ(outcome(line + "-f x x"), "fail f=x | error: too much arguments");
    EXPECT_EQ(outcome(line + "-- -a"), "fail | error: too much arguments");
}

TEST(Parse, ReadsNothingBeyondItsArguments)
{
    const tarn_cmdline_option nothing[] = {{nullptr, nullptr, nullptr, "", 3, &stored.file}};
    char word[] = "-f";
    char *argv[] = {word, word, nullptr};
    for (const int argc : {-5, 0, 1, 2, 9})
    {
        EXPECT_EQ(tarn_cmdline_option_parse(argc, argv, table, 0), 0);
    }
    EXPECT_LT(parse("-a", 0, nothing), 0);
    EXPECT_EQ(parse("-a x --all - --", 1, nothing), 4);
    expect_check("RVON(argv,TARN_ERRLN)");
    expect_check("RVON(options,TARN_ERRLN)");
    EXPECT_LT(tarn_cmdline_option_parse(2, nullptr, table, 0), 0);
    EXPECT_LT(parse("-a", 0, nullptr), 0);
    EXPECT_EQ(tarn_cmdline_option_count(table), 12u);
    EXPECT_EQ(tarn_cmdline_option_count(nothing), 0u);
    EXPECT_EQ(tarn_cmdline_option_count(nullptr), 0u);
}

// ---- help ------------------------------------------------------------------------------------

std::string printed(const tarn_cmdline_option *options)
{
    testing::internal::CaptureStdout();
    tarn_cmdline_option_print(options);
    return testing::internal::GetCapturedStdout();
}

TEST(Print, AlignsTheDescriptions)
{
    const tarn_cmdline_option options[] = {
        {"f", "config", "FILE", "specify a config file", 3, nullptr},
        {"xy", nullptr, nullptr, "two letters", 1, nullptr},
        {"n", nullptr, "NUM", "100%s", 2, nullptr},
        {nullptr, nullptr, "NAMELESS", "skipped", 1, nullptr},
        {"", "help", nullptr, nullptr, 1, nullptr},
        {nullptr, nullptr, nullptr, nullptr, 0, nullptr},
    };
    const support::log_capture log;
    EXPECT_EQ(printed(options), "  -f, --config=FILE    specify a config file\n"
                                "  -x, -y               two letters\n"
                                "  -n NUM               100%s\n"
                                "  --help               \n");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(support::without_prefix(log.lines()[0]), "warn: skip invalid option");
    EXPECT_EQ(printed(options + 5), "");
    expect_check("RON(options)");
    EXPECT_EQ(printed(nullptr), "");
}

TEST(Print, CutsOptionTextsAtTheirBuffer)
{
    const std::string name(5000, 'n');
    const tarn_cmdline_option options[] = {{"s", name.c_str(), "V", "long", 3, nullptr},
                                           {name.c_str(), nullptr, nullptr, "many", 1, nullptr},
                                           {nullptr, nullptr, nullptr, nullptr, 0, nullptr}};
    const std::vector<std::string> lines = support::split_lines(printed(options));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "  -s, --" + std::string(1017, 'n') + "    long");
    EXPECT_TRUE(lines[1].size() == lines[0].size() && lines[1].ends_with("-n, -n,    many"));
}

} // namespace
