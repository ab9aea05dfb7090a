// The credentials that TLS is served with, from a directory as `tarnctl tls init` makes it.
#pragma once

struct tlsu_credentials;

namespace gatewayd
{

struct credentials_result
{
    /** Of the server, asking every client for a certificate; lives as long as the process. Null on
     *  failure. */
    const tlsu_credentials *credentials;
    const char *error; ///< why there are none, empty on success; lives as long as the process
};

/** Reads DIR/secret and the enciphered files DIR/server.chain, server.cert and server.key, and tests
 *  that they belong together. Once, before threads run.
 *  @param dir  absolute */
credentials_result read_credentials(const char *dir);

} // namespace gatewayd
