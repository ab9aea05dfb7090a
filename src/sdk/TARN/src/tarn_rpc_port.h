// Private: what senders of RPC requests wait on; for tarn_rpc*.cpp. Written in
// linux/tarn_rpc_linux.cpp.
//
// In place of an event: whoever sets an event holds its mutex, and the sender that wakes runs into it.
// With a sender per connection that was two more switches of threads in each call. A signal has no
// mutex; in return it must not be freed while anybody may still set it.
#ifndef TARN_RPC_PORT_H
#define TARN_RPC_PORT_H

#include <cstdint>

namespace tarn
{

struct rpc_signal;

/** @return null when memory ran out */
rpc_signal *rpc_signal_create();
void rpc_signal_destroy(rpc_signal *signal);

/** Let one wait through, now or later; never blocks. */
void rpc_signal_set(rpc_signal *signal);

/** Wait until it is set, ms on the monotonic clock at most (TARN_INFINITE: no limit); may return
 *  without cause. A cancellation point. */
void rpc_signal_wait(rpc_signal *signal, uint32_t ms);

} // namespace tarn

#endif
