#include "work_gate.h"

#include "protocol.h"

#include "tarn_log.h"
#include "tarn_sys.h"

namespace gatewayd
{
namespace
{

constexpr uint32_t max_wait_ms = 700; // of the two seconds that an end may take
/** A handler's answer is sent when it has returned, and nobody tells when that is done. */
constexpr uint32_t answer_ms = 100;

} // namespace

int code_of(set_result result)
{
    switch (result)
    {
    case set_result::invalid_name:
        return GATEWAYD_WRONG_NAME;
    case set_result::table_full:
        return GATEWAYD_TABLE_FULL;
    default:
        return GATEWAYD_OK;
    }
}

bool work_gate::open()
{
    start_ns_ = tarn_tick_ns();
    empty_ = tarn_event_create(true, false);
    return empty_ != TARN_INVALID_HANDLE;
}

// Each side writes its own word before it reads the other's, so one of them sees the other.
bool work_gate::enter()
{
    ++inside_;
    ++requests_;
    return !closed_;
}

void work_gate::leave()
{
    if (--inside_ == 0 && closed_)
    {
        (void)tarn_event_set(empty_);
    }
}

void work_gate::close()
{
    closed_ = true;
    if (inside_ != 0 && !tarn_event_wait(empty_, max_wait_ms))
    {
        TARN_LOG_WARN("%u requests still run", inside_.load());
    }
    if (connections_ != 0)
    {
        tarn_sleep_ms(answer_ms);
    }
}

uint64_t work_gate::uptime_ms() const
{
    return tarn_tick_ns_since(start_ns_) / 1000000;
}

} // namespace gatewayd
