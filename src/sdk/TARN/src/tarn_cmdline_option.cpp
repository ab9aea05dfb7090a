// Command-line options: the table-driven parser and the help printer.

#include "tarn_cmdline_option.h"

#include "tarn_text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace
{

using row = tarn_cmdline_option;

constexpr int max_index = 31; // the mask of positional arguments has 32 bits
constexpr size_t option_text_size = 1024;

bool is_end(const row &r)
{
    return r.short_names == nullptr && r.long_name == nullptr && r.value_name == nullptr;
}

bool has_short_name(const row &r, char c)
{
    return r.short_names != nullptr && c != '\0' && std::strchr(r.short_names, c) != nullptr;
}

bool takes_value(const row &r)
{
    return r.type == TARN_CMDLINE_OPTION_INTEGER || r.type == TARN_CMDLINE_OPTION_STRING;
}

void store(const row &r, const char *text)
{
    if (r.type == TARN_CMDLINE_OPTION_INTEGER)
    {
        *static_cast<int *>(r.value) = static_cast<int>(std::strtol(text, nullptr, 10));
    }
    else
    {
        *static_cast<const char **>(r.value) = text;
    }
}

/** One walk over the arguments. */
class parser
{
public:
    parser(int argc, char *const *argv, const row *options, bool allow_unknown) noexcept
        : argc_(argc), argv_(argv), options_(options), allow_unknown_(allow_unknown)
    {
    }

    int parse()
    {
        unsigned mask = 0;
        bool only_positional = false;
        for (index_ = 1; index_ < argc_ && argv_[index_] != nullptr; ++index_)
        {
            if (index_ > max_index)
            {
                TARN_LOG_ERROR("too much arguments");
                return TARN_ERRLN;
            }
            const std::string_view argument = argv_[index_];
            if (only_positional || !argument.starts_with('-'))
            {
                mask |= 1u << index_;
            }
            else if (argument == "--")
            {
                only_positional = true;
            }
            else if (const int rc = parse_option(argv_[index_]); rc < 0)
            {
                return rc;
            }
        }
        return static_cast<int>(mask);
    }

private:
    /** How an option argument was taken; failures are negative results of parse(). */
    static constexpr int recognised = 0;
    static constexpr int unknown = 1;

    int parse_option(const char *argument)
    {
        const int rc = argument[1] == '-' ? parse_long(argument + 2) : parse_cluster(argument + 1);
        if (rc == unknown && !allow_unknown_)
        {
            TARN_LOG_ERROR("invalid option %s", argument);
            return TARN_ERRLN;
        }
        return rc;
    }

    const row *find_long(std::string_view text)
    {
        for (const row *r = options_; !is_end(*r); ++r)
        {
            const std::string_view name = r->long_name != nullptr ? r->long_name : "";
            if (r->long_name != nullptr && text.starts_with(name) &&
                (text.size() == name.size() || text[name.size()] == '='))
            {
                return r;
            }
        }
        return nullptr;
    }

    const row *find_short(char c)
    {
        for (const row *r = options_; !is_end(*r); ++r)
        {
            if (has_short_name(*r, c))
            {
                return r;
            }
        }
        return nullptr;
    }

    /** Take the next argument as a value, unless it looks like an option. */
    const char *next_value()
    {
        if (index_ + 1 >= argc_ || argv_[index_ + 1] == nullptr || argv_[index_ + 1][0] == '-')
        {
            return nullptr;
        }
        return argv_[++index_];
    }

    int parse_long(const char *text)
    {
        const row *const r = find_long(text);
        last_lookup_found_ = r != nullptr;
        if (r == nullptr)
        {
            return unknown;
        }
        if (r->value == nullptr)
        {
            TARN_LOG_ERROR("no value specified for --%s", r->long_name);
            return TARN_ERRLN;
        }
        if (r->type == TARN_CMDLINE_OPTION_FLAG)
        {
            *static_cast<uint8_t *>(r->value) = 1;
            if (r->value_name != nullptr)
            {
                TARN_LOG_WARN("--%s should not has value name", r->long_name);
            }
            return recognised;
        }
        if (!takes_value(*r))
        {
            TARN_LOG_ERROR("invalid type %d for --%s", static_cast<int>(r->type), r->long_name);
            return TARN_ERRLN;
        }
        if (r->value_name == nullptr)
        {
            TARN_LOG_WARN("no value name specified for --%s", r->long_name);
        }
        const char *const behind = text + std::strlen(r->long_name);
        const char *const value = *behind == '\0'     ? next_value()
                                  : behind[1] != '\0' ? behind + 1
                                                      : nullptr;
        if (value == nullptr)
        {
            TARN_LOG_ERROR("no argument for --%s", r->long_name);
            return recognised;
        }
        store(*r, value);
        return recognised;
    }

    int parse_cluster(const char *cluster)
    {
        if (*cluster == '\0')
        {
            // A lone "-" has no character to look up: the last look-up decides.
            return last_lookup_found_ ? recognised : unknown;
        }
        for (const char *c = cluster; *c != '\0'; ++c)
        {
            const row *const r = find_short(*c);
            last_lookup_found_ = r != nullptr;
            if (r == nullptr)
            {
                return unknown;
            }
            const bool more_options = c[1] != '\0' && find_short(c[1]) != nullptr;
            if (const int rc = parse_short(*r, *c, c + 1, more_options); rc < 0)
            {
                return rc;
            }
            if (!more_options)
            {
                break; // what follows was the value, or is dropped behind a flag
            }
        }
        return recognised;
    }

    /** @param rest          the cluster behind c
     *  @param more_options  the rest begins with another known option */
    int parse_short(const row &r, char c, const char *rest, bool more_options)
    {
        if (r.value == nullptr)
        {
            TARN_LOG_ERROR("no value specified for -%c", c);
            return TARN_ERRLN;
        }
        if (more_options && r.value_name != nullptr)
        {
            TARN_LOG_ERROR("no argument specified for -%c", c);
            return TARN_ERRLN;
        }
        if (r.type == TARN_CMDLINE_OPTION_FLAG)
        {
            *static_cast<uint8_t *>(r.value) = 1;
            if (r.value_name != nullptr)
            {
                TARN_LOG_WARN("-%c should not has value name", c);
            }
            return recognised;
        }
        if (!takes_value(r))
        {
            // The two values are deliberately in this order: the line has always shown the
            // character's code as the type and the type's character as the option.
            TARN_LOG_ERROR("invalid type %d for -%c", c, static_cast<int>(r.type));
            return TARN_ERRLN;
        }
        if (r.value_name == nullptr)
        {
            TARN_LOG_WARN("no value name specified for -%c", c);
        }
        const char *const value = *rest != '\0' ? rest : next_value();
        if (value == nullptr)
        {
            TARN_LOG_ERROR("no argument for -%c", c);
            return recognised;
        }
        store(r, value);
        return recognised;
    }

    int argc_;
    char *const *argv_;
    const row *options_;
    bool allow_unknown_;
    int index_ = 0;
    bool last_lookup_found_ = false;
};

/** What stands in the left column of the help: "-f, --config=FILE". */
size_t write_option_text(const row &r, char *out, size_t size)
{
    tarn::text_writer text(out, size);
    for (const char *c = r.short_names; c != nullptr && *c != '\0'; ++c)
    {
        text.append(text.length() != 0 ? ", -" : "-").append(*c);
    }
    if (r.long_name == nullptr)
    {
        if (r.value_name != nullptr)
        {
            text.append(' ').append(r.value_name);
        }
        return text.length();
    }
    text.append(text.length() != 0 ? ", --" : "--").append(r.long_name);
    if (r.value_name != nullptr)
    {
        text.append('=').append(r.value_name);
    }
    return text.length();
}

bool is_printable(const row &r)
{
    return r.short_names != nullptr || r.long_name != nullptr;
}

} // namespace

int tarn_cmdline_option_parse(int argc, char *const *argv, const tarn_cmdline_option *options,
                              int allow_unknown)
{
    RVON(argv, TARN_ERRLN);
    RVON(options, TARN_ERRLN);
    return parser(argc, argv, options, allow_unknown == 1).parse();
}

void tarn_cmdline_option_print(const tarn_cmdline_option *options)
{
    RON(options);
    constexpr int indent = 2;
    constexpr size_t gap = 4;
    char text[option_text_size];
    size_t longest = 0;
    for (const row *r = options; !is_end(*r); ++r)
    {
        if (!is_printable(*r))
        {
            TARN_LOG_WARN("skip invalid option");
            continue;
        }
        longest = std::max(longest, write_option_text(*r, text, sizeof text));
    }
    for (const row *r = options; !is_end(*r); ++r)
    {
        if (is_printable(*r))
        {
            const size_t length = write_option_text(*r, text, sizeof text);
            std::printf("%*s%s%*s%s\n", indent, "", text, static_cast<int>(longest + gap - length),
                        "", r->description != nullptr ? r->description : "");
        }
    }
}

uint32_t tarn_cmdline_option_count(const tarn_cmdline_option *options)
{
    uint32_t count = 0;
    while (options != nullptr && !is_end(options[count]))
    {
        ++count;
    }
    return count;
}
