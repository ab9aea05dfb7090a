// An RPC message's elements, written again.
#pragma once

#include "tarn_rpc_msg.h"

namespace gatewayd
{

/** Answers with the elements of the request, byte for byte.
 *  @param reply  null: nobody wants to know
 *  @return a code of protocol.h */
int echo_elements(TARN_RPC_MSG msg, TARN_RPC_MSG reply);

} // namespace gatewayd
