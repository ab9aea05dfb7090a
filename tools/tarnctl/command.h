// What a subcommand is: a row with its place in the command line, what it takes, and its function.
//
// This program is written for the terminal, not for a gateway's long run: it uses the standard
// library's strings and vectors, and simply ends when memory runs out.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarnctl
{

/** Exit status of the program. */
enum status : int
{
    status_ok = 0,
    status_failed = 1, ///< what was asked for could not be done
    status_usage = 2   ///< the command line is wrong
};

struct option
{
    const char *name;        ///< without "--"
    const char *value_name;  ///< in the help text; null: a switch
    const char *takes;       ///< in the message about a value that is none
    const char *description; ///< in the help text
};

/** An argument that is no option. */
struct operand
{
    const char *name;  ///< as in the usage line
    const char *takes; ///< in the message about one that is missing or wrong
    enum how_often
    {
        once,
        maybe, ///< and so are all behind it
        repeated
    } count = once;
};

class arguments;

struct command
{
    const char *group;   ///< first word
    const char *name;    ///< second word; empty: there is none
    const char *summary; ///< one line, without a full stop
    const char *details; ///< further lines of the help text; may be null
    std::span<const operand> operands;
    std::span<const option> options;
    int (*run)(const arguments &given); ///< gives a status
};

/** Option rows that several subcommands have. */
inline constexpr option json_option = {"json", nullptr, nullptr, "print JSON, for programs"};
inline constexpr option tls_dir_option = {"tls-dir", "DIR",
                                          "a directory made by 'tarnctl tls init'",
                                          "speak TLS with the client credentials in DIR"};
inline constexpr option timeout_option = {"timeout", "MS",
                                          "a whole number of milliseconds, 1 to 3600000",
                                          "how long to wait for each answer, default is 5000"};

/** The arguments of one subcommand, taken apart and counted. Texts point into argv. */
class arguments
{
public:
    /** Takes argv apart; a message has gone out when it gives false. */
    [[nodiscard]] bool read(const command &row, std::span<char *const> argv);

    [[nodiscard]] const command &row() const
    {
        return *row_;
    }
    [[nodiscard]] bool wants_help() const
    {
        return help_;
    }
    [[nodiscard]] int verbosity() const
    {
        return verbosity_;
    }
    [[nodiscard]] bool has(std::string_view name) const;
    /** An option's value, or null; NUL-terminated. */
    [[nodiscard]] const char *value(std::string_view name) const;
    /** All operands; NUL-terminated. */
    [[nodiscard]] std::span<const char *const> operands() const
    {
        return operands_;
    }
    [[nodiscard]] const char *operand_or_null(size_t place) const
    {
        return place < operands_.size() ? operands_[place] : nullptr;
    }
    /** Reads an option's whole number; out stays as it is when the option is absent.
     *  @return false after a message */
    [[nodiscard]] bool number(std::string_view name, uint64_t min, uint64_t max,
                              uint64_t *out) const;
    [[nodiscard]] bool number(std::string_view name, uint64_t min, uint64_t max,
                              uint32_t *out) const;
    /** The message about a wrong operand, by its place in the row.
     *  @return status_usage */
    int wrong_operand(size_t place, std::string_view given) const;
    /** The same about an option's value. */
    int wrong_value(std::string_view name) const;

private:
    struct found
    {
        const option *row;
        const char *value;
    };
    [[nodiscard]] bool read_option(std::string_view text, std::span<char *const> argv,
                                   size_t *place);
    [[nodiscard]] bool check_operands() const;

    const command *row_ = nullptr;
    std::vector<found> options_;
    std::vector<const char *> operands_;
    bool help_ = false;
    int verbosity_ = 0;
};

// The table's rows, one file per group.
extern const command rpc_call_command;
extern const command rpc_ping_command;
extern const command rpc_send_command;
extern const command ipc_call_command;
extern const command log_level_command;
extern const command shm_list_command;
extern const command shm_info_command;
extern const command serial_list_command;
extern const command serial_monitor_command;
extern const command net_list_command;
extern const command net_gateway_command;
extern const command tls_init_command;
extern const command tls_show_command;
extern const command points_watch_command;

} // namespace tarnctl
