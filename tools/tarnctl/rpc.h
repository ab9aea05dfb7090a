// What the rpc subcommands share: where the server is, and the connection to it.
#pragma once

#include "command.h"
#include "owner.h"
#include "tls.h"

#include "tarn_rpc.h"

namespace tarnctl
{

using rpc_owner = owner<TARN_RPC, tarn_rpc_destroy>;
using rpc_msg_owner = owner<TARN_RPC_MSG, tarn_rpc_msg_release>;

inline constexpr char target_name[] = "ADDR:PORT|local:NAME";
inline constexpr char target_takes[] =
    "an address and a port as in 127.0.0.1:7700, or local:NAME for a local socket";

/** A server, and what it takes to reach it. */
struct rpc_target
{
    std::string shown; ///< for messages
    std::string addr;
    std::string port; ///< empty: local
    client_credentials credentials;
    uint32_t timeout_ms = 5000; ///< of a connect and of an answer
};

/** Reads the operand at a place and the options --tls-dir and --timeout.
 *  @return status_ok, or another after a message */
int read_target(const arguments &given, size_t place, rpc_target *out);

/** Connects. @return null after a message */
rpc_owner connect_to(const rpc_target &target);

/** The message about a request without an answer. @return status_failed */
int no_answer(const rpc_target &target);

} // namespace tarnctl
