// Credentials in a directory, as 'tarnctl tls init' makes and TLS connections take them.
//
//   secret                           one line: what all enciphered files are enciphered with
//   {server,client}.{chain,cert,key}  enciphered PEM: whom to trust, who one is, the key to it
//   root.pem                         the root certificate in plain, for other programs
#pragma once

#include "command.h"

#include "tlsu.h"

namespace tarnctl
{

/** The table of the TLS utility. @return null, after a message, in a build without it */
const tlsu_if *tls_table();

/** Reads a file whole. @return empty, with errno, when it cannot be read; not a regular file: EINVAL */
std::optional<std::string> read_file(const std::string &path);

/** Writes a file that must not be there yet.
 *  @param mode  its permissions, whatever the umask
 *  @return 0 or an error number */
int write_new_file(const std::string &path, std::string_view content, unsigned mode);

/** The secret in a file of one line. */
std::optional<std::string> read_secret(const std::string &path);

/** What a client connects with; keeps the texts that the record points to. */
class client_credentials
{
public:
    /** @return false after a message */
    [[nodiscard]] bool load(const std::string &dir);
    [[nodiscard]] const tlsu_credentials *get() const
    {
        return loaded_ ? &record_ : nullptr;
    }

private:
    bool loaded_ = false;
    std::string secret_;
    std::string chain_;
    std::string cert_;
    std::string key_;
    tlsu_credentials record_ = {};
};

} // namespace tarnctl
