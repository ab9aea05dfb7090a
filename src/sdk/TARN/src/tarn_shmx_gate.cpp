// The creator's gate: how a thread that is not favoured gets in.
//
// The favoured thread stores inside, then loads taken; any other stores taken, then loads inside.
// Each side needs a full barrier between the two, so that not both miss each other. The favoured
// one has only the compiler's; the other calls for a barrier on all processors, which falls before
// or after the favoured thread's pair wherever that is.

#include "tarn_shmx_internal.h"

namespace tarn
{
namespace
{

/** Deal with the favoured thread; the gate is taken. */
void pass_favoured(shmx_gate_words &gate, uint32_t self)
{
    const uint32_t favoured = shmx_load(gate.favoured);
    const bool is_server = shmx_load(gate.server) == self;
    if (favoured == shmx_no_favourite || favoured == self)
    {
        return; // not inside when it comes this way
    }
    if (favoured == 0)
    {
        const uint32_t next = shmx_load(gate.can_barrier) != 0 ? self : shmx_no_favourite;
        shmx_store(gate.favoured, is_server ? 0 : next);
        return;
    }
    if (!is_server)
    {
        shmx_store(gate.favoured, shmx_no_favourite);
    }
    shmx_barrier_everywhere();
    while (shmx_load(gate.inside, std::memory_order_acquire) != 0)
    {
        shmx_yield();
    }
}

} // namespace

void shmx_enter_gate(shmx_gate_words &gate)
{
    while (std::atomic_ref(gate.taken).exchange(1, std::memory_order_acquire) != 0)
    {
        shmx_yield();
    }
    pass_favoured(gate, shmx_thread_id());
}

} // namespace tarn
