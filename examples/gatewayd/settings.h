// What a user can set, on the command line as --KEY=VALUE and in the configuration file as
// KEY = VALUE. One table describes all of it; a new setting is a member and a row.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

struct tlsu_credentials;

namespace gatewayd
{

constexpr size_t max_path = 4096;

struct settings
{
    char name[64] = "gatewayd"; ///< of this instance: its lock, and whatever it opens to others
    uint32_t period_ms = 1000;  ///< of the telemetry
    char rpc_addr[64] = "127.0.0.1";
    uint16_t rpc_port = 0;       ///< 0: no RPC over TCP
    char local[64] = "";         ///< empty: no RPC over a local socket
    char tls_dir[max_path] = ""; ///< empty: TCP without TLS
    char serial[max_path] = "";  ///< empty: no serial line
    uint32_t baud = 115200;
    char spool[max_path] = ""; ///< empty: no files are taken
    uint32_t max_conn = 32;    ///< of each server
    /** The credentials in tls_dir; null without. They live as long as the process. */
    const struct tlsu_credentials *tls = nullptr;
};

struct setting
{
    const char *key;
    const char *value_name;  ///< in the help text
    const char *description; ///< in the help text
    const char *takes;       ///< in the message about a value that is none
    /** Stores a value, or leaves everything as it is and gives false. */
    bool (*store)(settings *into, std::string_view value);
};

inline constexpr size_t setting_count = 10;
extern const setting setting_table[setting_count];

/** The row of a key; null when there is none. */
const setting *find_setting(std::string_view key);

/** Stores the settings of a configuration file: KEY = VALUE lines; '#' at the beginning of a line
 *  or behind a blank starts a comment; a key that comes again overrides.
 *  @return false after a message on standard error that names file, line and key */
bool read_config_file(const char *path, settings *into);

/** A piece of foreign text, made fit for a message: cut when long, without control characters. */
class shown_text
{
public:
    explicit shown_text(std::string_view text);
    [[nodiscard]] const char *c_str() const
    {
        return text_;
    }

private:
    char text_[64];
};

} // namespace gatewayd
