// The command line is gone through twice.
//
// The layer's parser does everything in one go: with -d it returns in the background, where the
// terminal and the current directory are gone; and it takes the instance lock, whose name it has to
// be told. But that name may stand on the command line or in the configuration file, paths there
// may be relative, and a mistake in either belongs on the terminal, with an exit status that a
// script sees. So a first pass only looks: the same options, nothing done but to store their
// values. With them the configuration file is read and every value tested. Then the short form of
// the layer's parser, which sees no arguments, takes the instance lock, or reports that another
// instance has it, and gives the process the instance's name, which its level file has. What is left
// for the long form is to set the log level and to go to the background.

#include "command_line.h"

#include "credentials.h"

#include "tarn_process.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string_view>

namespace gatewayd
{
namespace
{

/** What stands on the command line; texts point into argv and are null when absent. */
struct arguments
{
    bool daemon;
    bool help;
    bool version;
    const char *config_file;
    const char *log_level;
    const char *values[setting_count]; ///< in the order of the settings' table
};

constexpr size_t standard_count = 5;
using own_rows = std::array<tarn_cmdline_option, setting_count + 1>;
using all_rows = std::array<tarn_cmdline_option, standard_count + setting_count + 1>;

constexpr char level_takes[] = "DEBUG, TRACE, INFO, WARN, ERROR or FATAL";

/** The options that are ours, as the layer's parser and its help take them. All values are texts:
 *  the parser's integers take "12x" for 12 and "x" for 0. */
own_rows make_own_rows(arguments *found)
{
    own_rows rows{};
    for (size_t i = 0; i < setting_count; ++i)
    {
        rows[i].long_name = setting_table[i].key;
        rows[i].value_name = setting_table[i].value_name;
        rows[i].description = setting_table[i].description;
        rows[i].type = TARN_CMDLINE_OPTION_STRING;
        rows[i].value = &found->values[i];
    }
    return rows;
}

/** All options, for the first pass. Nobody prints this table; its descriptions say what an option
 *  takes. */
all_rows make_all_rows(const own_rows &own, arguments *found)
{
    constexpr uint32_t flag = TARN_CMDLINE_OPTION_FLAG;
    constexpr uint32_t text = TARN_CMDLINE_OPTION_STRING;
    all_rows rows = {{
        {"d", "daemon", nullptr, nullptr, flag, &found->daemon},
        {"f", "config", "FILE", "the name of a file", text, &found->config_file},
        {nullptr, "log-level", "LEVEL", level_takes, text, &found->log_level},
        {nullptr, "help", nullptr, nullptr, flag, &found->help},
        {"v", "version", nullptr, nullptr, flag, &found->version},
    }};
    std::copy(own.begin(), own.end(), rows.begin() + standard_count);
    for (size_t i = 0; i < setting_count; ++i)
    {
        rows[standard_count + i].description = setting_table[i].takes;
    }
    return rows;
}

bool complain(const char *option, const char *takes)
{
    (void)std::fprintf(stderr, "%s: %s: takes %s\n", tarn_process_program_name(), option, takes);
    return false;
}

/** True when the argument is this option and its value is not in the same argument. */
bool is_bare(std::string_view argument, const tarn_cmdline_option &row)
{
    if (argument.starts_with("--"))
    {
        return argument.substr(2) == row.long_name;
    }
    // alone, or the last of a cluster of short options
    return row.short_names != nullptr && argument.starts_with('-') &&
           argument.find(row.short_names[0]) == argument.size() - 1;
}

/** True when the argument is "--OPTION=" for this option. */
bool is_empty(std::string_view argument, const tarn_cmdline_option &row)
{
    return argument.starts_with("--") && argument.ends_with('=') &&
           is_bare(argument.substr(0, argument.size() - 1), row);
}

/** The layer's parser reports an option without its value and goes on. A daemon that runs with half
 *  of what its user wanted is worse than one that does not start. */
bool have_all_values(int argc, char *const *argv, const all_rows &rows)
{
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i)
    {
        const bool value_follows = i + 1 < argc && argv[i + 1][0] != '-';
        for (const tarn_cmdline_option &row : std::span(rows).first(rows.size() - 1))
        {
            if (row.value_name != nullptr &&
                (is_empty(argv[i], row) || (!value_follows && is_bare(argv[i], row))))
            {
                return complain(shown_text(argv[i]).c_str(), row.description);
            }
        }
    }
    return true;
}

bool complain_of_value(const char *option, const char *value, const char *takes)
{
    char given[128];
    (void)std::snprintf(given, sizeof given, "--%s=%s", option, shown_text(value).c_str());
    return complain(given, takes);
}

/** The layer's parser would test the level in the background only. A text that is no level is read
 *  as some level, but not as one of that name. */
bool is_level(const char *name)
{
    return std::strcmp(log_level_to_str(log_level_from_str(name)), name) == 0 ||
           complain_of_value("log-level", name, level_takes);
}

bool store_values(const arguments &found, settings *into)
{
    for (size_t i = 0; i < setting_count; ++i)
    {
        const setting &row = setting_table[i];
        if (found.values[i] != nullptr && !row.store(into, found.values[i]))
        {
            return complain_of_value(row.key, found.values[i], row.takes);
        }
    }
    return true;
}

/** What only several settings together tell. */
bool fit_together(settings *all)
{
    // Both are names of local sockets.
    if (std::strcmp(all->local, all->name) == 0)
    {
        return complain_of_value("local", all->local, "another name than that of the instance");
    }
    if (all->tls_dir[0] == '\0')
    {
        return true;
    }
    const credentials_result read = read_credentials(all->tls_dir);
    all->tls = read.credentials;
    if (read.error[0] != '\0')
    {
        (void)std::fprintf(stderr, "%s: --tls-dir=%s: takes %s: %s\n", tarn_process_program_name(),
                           all->tls_dir, find_setting("tls-dir")->takes, read.error);
        return false;
    }
    return true;
}

/** The instance lock, and the process's name. */
bool become_instance(char *const *argv, const settings &all)
{
    return tarn_process_parse_cmdline(1, argv, all.name, TARN_VERSION_STRING, "", true, nullptr) ==
           0;
}

} // namespace

std::optional<int> enter_process(int argc, char *const *argv, settings *out)
{
    arguments found{};
    const own_rows own = make_own_rows(&found);
    const all_rows rows = make_all_rows(own, &found);
    const int strangers = tarn_cmdline_option_parse(argc, argv, rows.data(), 0);
    if (strangers < 0)
    {
        // the reason is in the parser's log line
        (void)std::fprintf(stderr, "Try '%s --help' for more information.\n",
                           tarn_process_program_name());
        return EXIT_FAILURE;
    }
    const bool runs = strangers == 0 && !found.help && !found.version;
    if (runs && !(have_all_values(argc, argv, rows) &&
                  (found.log_level == nullptr || is_level(found.log_level)) &&
                  (found.config_file == nullptr || read_config_file(found.config_file, out)) &&
                  store_values(found, out) && fit_together(out) && become_instance(argv, *out)))
    {
        return EXIT_FAILURE;
    }
    // From here on in the background with -d. The file has been read: its name is not asked for.
    const int rc = tarn_process_parse_cmdline_ex(argc, argv, out->name, TARN_VERSION_STRING, "",
                                                 false, nullptr, own.data(), 0);
    if (rc == 0)
    {
        return std::nullopt;
    }
    return strangers == 0 && !runs ? EXIT_SUCCESS : EXIT_FAILURE; // help and version are no failure
}

} // namespace gatewayd
