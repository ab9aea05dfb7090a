// tarnctl: looks at and talks to what is built with libtarn, from a terminal or a script.
//
// The table of subcommands below is the whole of it: a subcommand is a row in the file of its group.
// Everything goes through the public interface of the library, as any user's program would.

#include "command.h"
#include "output.h"

#include "tarn.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tarnctl
{
namespace
{

constexpr const command *command_table[] = {
    &rpc_call_command,       &rpc_ping_command,     &rpc_send_command,    &ipc_call_command,
    &log_level_command,      &shm_list_command,     &shm_info_command,    &serial_list_command,
    &serial_monitor_command, &net_list_command,     &net_gateway_command, &tls_init_command,
    &tls_show_command,       &points_watch_command,
};

std::string full_name(const command &row)
{
    return std::string(row.group) + (row.name[0] != '\0' ? " " : "") + row.name;
}

// ---- help ---------------------------------------------------------------------------------------

std::string usage_line(const command &row)
{
    std::string line = "tarnctl " + full_name(row);
    for (const operand &each : row.operands)
    {
        const std::string name = each.name;
        switch (each.count)
        {
        case operand::once:
            line += " " + name;
            break;
        case operand::maybe:
            line += " [" + name + "]";
            break;
        case operand::repeated:
            line += " [" + name + "...]";
            break;
        }
    }
    return line + (row.options.empty() ? "" : " [OPTION...]");
}

/** Two columns, the first as wide as its widest cell. */
class help_rows
{
public:
    void add(std::string left, std::string right)
    {
        widest_ = std::max(widest_, left.size());
        rows_.emplace_back(std::move(left), std::move(right));
    }
    void print() const
    {
        for (const auto &[left, right] : rows_)
        {
            (void)std::fprintf(out(), "  %-*s  %s\n", static_cast<int>(widest_), left.c_str(),
                               right.c_str());
        }
    }

private:
    size_t widest_ = 0;
    std::vector<std::pair<std::string, std::string>> rows_;
};

void print_help(const command &row)
{
    (void)std::fprintf(out(), "Usage: %s\n\n%s.\n\n", usage_line(row).c_str(), row.summary);
    if (!row.operands.empty())
    {
        help_rows operands;
        for (const operand &each : row.operands)
        {
            operands.add(each.name, each.takes);
        }
        operands.print();
        (void)std::fputc('\n', out());
    }
    help_rows options;
    for (const option &each : row.options)
    {
        const bool has_value = each.value_name != nullptr;
        options.add(std::string("--") + each.name +
                        (has_value ? std::string("=") + each.value_name : ""),
                    each.description);
    }
    options.add("-v", "show the library's warnings and errors on standard error; -vv: all lines");
    options.add("--help", "print this text");
    options.print();
    if (row.details != nullptr)
    {
        (void)std::fprintf(out(), "\n%s", row.details);
    }
}

/** @param group  empty: all */
void print_overview(std::string_view group)
{
    (void)std::fprintf(out(), "Usage: tarnctl %s\n\n",
                       group.empty() ? "SUBCOMMAND ..."
                                     : (std::string(group) + " SUBCOMMAND ...").c_str());
    help_rows rows;
    for (const command *const row : command_table)
    {
        if (group.empty() || group == row->group)
        {
            rows.add(full_name(*row), row->summary);
        }
    }
    rows.print();
    (void)std::fputs("\n'tarnctl SUBCOMMAND --help' says what each takes.\n"
                     "Exit status: 0 done, 1 failed, 2 wrong usage.\n",
                     out());
}

// ---- dispatch -----------------------------------------------------------------------------------

bool is_help(std::string_view text)
{
    return text == "--help" || text == "-h";
}

/** Words of the table, each once: groups, or the names in a group. */
std::string words(std::string_view group)
{
    std::vector<std::string> found;
    for (const command *const row : command_table)
    {
        const std::string word = group.empty() ? row->group : row->name;
        if ((group.empty() || group == row->group) &&
            std::find(found.begin(), found.end(), word) == found.end())
        {
            found.push_back(word);
        }
    }
    std::string text;
    for (const std::string &word : found)
    {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

bool is_group(std::string_view word)
{
    return std::any_of(std::begin(command_table), std::end(command_table),
                       [word](const command *row) { return row->group == word; });
}

const command *find_command(std::string_view group, std::string_view name)
{
    const auto *const found =
        std::find_if(std::begin(command_table), std::end(command_table), [&](const command *row) {
            return row->group == group && (row->name[0] == '\0' || row->name == name);
        });
    return found != std::end(command_table) ? *found : nullptr;
}

/** The layer writes nothing unless it is asked to: its lines are for whoever looks for a cause. */
void set_library_log(int verbosity)
{
    tarn_default_logger.enabled = verbosity > 0 ? 1 : 0;
    tarn_log_level_set(verbosity > 1 ? TARN_LOG_LEVEL_DEBUG : TARN_LOG_LEVEL_WARN);
}

int run_command(const arguments &given)
{
    set_library_log(given.verbosity());
    if (!tarn_init())
    {
        return failed("the library cannot be started; -v shows why");
    }
    set_library_log(given.verbosity()); // the environment may have another level
    const int result = given.row().run(given);
    tarn_uninit();
    return result;
}

int dispatch_command(std::string_view group, std::span<char *const> argv)
{
    const command *const row = find_command(group, argv.empty() ? "" : argv[0]);
    if (row == nullptr && argv.empty())
    {
        return wrong("a subcommand is missing, it takes " + words(group));
    }
    if (row == nullptr && is_help(argv[0]))
    {
        print_overview(group);
        return status_ok;
    }
    if (row == nullptr)
    {
        return wrong("'" + shown(argv[0]) + "' is no subcommand, it takes " + words(group));
    }
    set_message_prefix("tarnctl " + full_name(*row));
    arguments given;
    if (!given.read(*row, argv.subspan(row->name[0] != '\0' ? 1 : 0)))
    {
        return status_usage;
    }
    if (given.wants_help())
    {
        print_help(*row);
        return status_ok;
    }
    return run_command(given);
}

int dispatch(std::span<char *const> argv)
{
    if (argv.empty())
    {
        return wrong("a subcommand is missing, it takes " + words("") + "; see tarnctl --help");
    }
    const std::string_view first = argv[0];
    if (is_help(first))
    {
        print_overview("");
        return status_ok;
    }
    if (first == "--version")
    {
        (void)std::fprintf(out(), "tarnctl %s\n", tarn_version());
        return status_ok;
    }
    if (!is_group(first))
    {
        return wrong("'" + shown(first) + "' is no subcommand, it takes " + words("") +
                     "; see tarnctl --help");
    }
    set_message_prefix("tarnctl " + std::string(first));
    return dispatch_command(first, argv.subspan(1));
}

int run(std::span<char *const> argv)
{
    if (!open_output())
    {
        return failed("cannot write to standard output, open it for the program");
    }
    const int result = dispatch(argv);
    const bool is_written = flush_output();
    if (is_written || result != status_ok)
    {
        return result;
    }
    // a reader that has had enough is told nothing
    return output_error() == EPIPE
               ? int{status_failed}
               : failed("cannot write the output: " + error_text(output_error()) +
                        ", make room for it");
}

} // namespace
} // namespace tarnctl

int main(int argc, char **argv)
{
    return tarnctl::run(std::span(argv, static_cast<size_t>(argc)).subspan(argc > 0 ? 1 : 0));
}
