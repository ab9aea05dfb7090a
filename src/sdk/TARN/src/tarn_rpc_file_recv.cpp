// RPC file transfer: the receiver.

#include "tarn_rpc_internal.h"

namespace tarn
{

int on_rpc_file_recv_begin(TARN_RPC, TARN_RPC_MSG, TARN_RPC_MSG)
{
    return TARN_ERRLN;
}

int on_rpc_file_recv_block(TARN_RPC, TARN_RPC_MSG, TARN_RPC_MSG)
{
    return TARN_ERRLN;
}

int on_rpc_file_recv_end(TARN_RPC, TARN_RPC_MSG, TARN_RPC_MSG)
{
    return TARN_ERRLN;
}

void rpc_close_receivers(TARN_RPC) {}

} // namespace tarn
