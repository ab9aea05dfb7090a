// Taking the command line apart. The layer's own parser is for daemons: it reads at most 31
// arguments, takes "12x" for 12 and reports into the log; a terminal deserves better answers.

#include "command.h"

#include "output.h"
#include "value.h"

#include <algorithm>

namespace tarnctl
{
namespace
{

const option *find_option(const command &row, std::string_view name)
{
    const auto found = std::find_if(row.options.begin(), row.options.end(),
                                    [name](const option &each) { return each.name == name; });
    return found != row.options.end() ? &*found : nullptr;
}

/** The options that a subcommand has, for the message about one that it has not. */
std::string known_options(const command &row)
{
    std::string text;
    for (const option &each : row.options)
    {
        text.append("--").append(each.name).append(", ");
    }
    return text + "-v and --help";
}

} // namespace

bool arguments::read_option(std::string_view text, std::span<char *const> argv, size_t *place)
{
    const size_t equals = text.find('=');
    const option *const row =
        text.starts_with("--") ? find_option(*row_, text.substr(2, equals - 2)) : nullptr;
    if (row == nullptr)
    {
        (void)wrong("'" + shown(text) + "' is no option of it, it has " + known_options(*row_));
        return false;
    }
    const std::string name = std::string("--") + row->name;
    if (row->value_name == nullptr)
    {
        if (equals != std::string_view::npos)
        {
            (void)wrong(name + " takes no value");
            return false;
        }
        options_.push_back({row, nullptr});
        return true;
    }
    const char *value = nullptr;
    if (equals != std::string_view::npos)
    {
        value = text.data() + equals + 1; // to the end of the argument
    }
    else if (*place + 1 < argv.size() && !std::string_view(argv[*place + 1]).starts_with("--"))
    {
        value = argv[++*place];
    }
    if (value == nullptr || *value == '\0')
    {
        (void)wrong(name + " takes " + row->takes);
        return false;
    }
    options_.push_back({row, value});
    return true;
}

bool arguments::check_operands() const
{
    size_t place = 0;
    for (const operand &each : row_->operands)
    {
        if (each.count == operand::repeated)
        {
            return true;
        }
        if (place == operands_.size() && each.count == operand::once)
        {
            (void)wrong(std::string(each.name) + " is missing, it takes " + each.takes);
            return false;
        }
        place += place < operands_.size() ? 1 : 0;
    }
    if (place < operands_.size())
    {
        (void)wrong("'" + shown(operands_[place]) + "' is one argument too many");
        return false;
    }
    return true;
}

bool arguments::read(const command &row, std::span<char *const> argv)
{
    row_ = &row;
    bool only_operands = false;
    for (size_t place = 0; place < argv.size(); ++place)
    {
        const std::string_view text = argv[place];
        if (only_operands || text.size() < 2 || text[0] != '-')
        {
            operands_.push_back(argv[place]);
        }
        else if (text == "--")
        {
            only_operands = true;
        }
        else if (text == "--help" || text == "-h")
        {
            help_ = true;
        }
        else if (text == "-v" || text == "-vv")
        {
            verbosity_ += static_cast<int>(text.size()) - 1;
        }
        else if (!read_option(text, argv, &place))
        {
            return false;
        }
    }
    return help_ || check_operands();
}

bool arguments::has(std::string_view name) const
{
    return std::any_of(options_.begin(), options_.end(),
                       [name](const found &each) { return each.row->name == name; });
}

const char *arguments::value(std::string_view name) const
{
    const auto last = std::find_if(options_.rbegin(), options_.rend(),
                                   [name](const found &each) { return each.row->name == name; });
    return last != options_.rend() ? last->value : nullptr;
}

bool arguments::number(std::string_view name, uint64_t min, uint64_t max, uint64_t *out) const
{
    const char *const text = value(name);
    if (text == nullptr)
    {
        return true;
    }
    uint64_t number = 0;
    if (!read_unsigned(text, &number) || number < min || number > max)
    {
        (void)wrong_value(name);
        return false;
    }
    *out = number;
    return true;
}

bool arguments::number(std::string_view name, uint64_t min, uint64_t max, uint32_t *out) const
{
    uint64_t wide = *out;
    if (!number(name, min, max, &wide))
    {
        return false;
    }
    *out = static_cast<uint32_t>(wide);
    return true;
}

int arguments::wrong_operand(size_t place, std::string_view given) const
{
    const operand &row = row_->operands[std::min(place, row_->operands.size() - 1)];
    return wrong(std::string(row.name) + " '" + shown(given) + "': takes " + row.takes);
}

int arguments::wrong_value(std::string_view name) const
{
    const option *const row = find_option(*row_, name);
    return wrong(std::string("--") + row->name + "=" + shown(value(name)) + ": takes " +
                 row->takes);
}

} // namespace tarnctl
