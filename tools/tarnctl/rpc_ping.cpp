// tarnctl rpc ping: how long answers take.
//
// The request has a message id of the layer's own, of no meaning to it: every server's layer answers
// it by itself, whatever its application takes.

#include "rpc.h"

#include "output.h"

#include "tarn_process.h"
#include "tarn_sys.h"

#include <algorithm>

namespace tarnctl
{
namespace
{

constexpr uint32_t ping_message_id = 0;

struct settings
{
    uint32_t count = 4;
    uint32_t interval_ms = 1000;
    bool json = false;
};

/** Round trips so far, in milliseconds. */
struct tally
{
    uint32_t sent = 0;
    uint32_t received = 0;
    double min_ms = 0;
    double max_ms = 0;
    double sum_ms = 0;

    void add(double ms)
    {
        min_ms = received == 0 ? ms : std::min(min_ms, ms);
        max_ms = std::max(max_ms, ms);
        sum_ms += ms;
        ++received;
    }
    [[nodiscard]] double average() const
    {
        return received != 0 ? sum_ms / received : 0;
    }
};

/** Sends one and waits for its answer.
 *  @return milliseconds, or nothing */
std::optional<double> ping_once(TARN_RPC rpc, uint32_t seq_no, uint32_t timeout_ms)
{
    TARN_RPC_MSG rsp = nullptr;
    const uint64_t start = tarn_tick_ns();
    (void)tarn_rpc_msg_send(rpc, seq_no, ping_message_id, nullptr, &rsp, timeout_ms);
    const uint64_t passed = tarn_tick_ns_since(start);
    const rpc_msg_owner answer(rsp);
    // whatever the code: without an answer the connection is given up
    return tarn_rpc_is_connected(rpc) ? std::optional(static_cast<double>(passed) / 1e6)
                                      : std::nullopt;
}

void print_one(const settings &wanted, const rpc_target &target, uint32_t seq_no,
               std::optional<double> ms)
{
    if (wanted.json)
    {
        json line;
        line.begin_object().key("seq").number(seq_no).key("ms");
        (ms ? line.number(*ms) : line.null()).end_object().print();
    }
    else if (ms)
    {
        (void)std::fprintf(out(), "answer from %s: seq=%u time=%.3f ms\n", target.shown.c_str(),
                           seq_no, *ms);
    }
    else
    {
        (void)std::fprintf(out(), "no answer from %s: seq=%u\n", target.shown.c_str(), seq_no);
    }
}

void print_summary(const settings &wanted, const tally &all)
{
    if (wanted.json)
    {
        json line;
        line.begin_object().key("sent").number(all.sent).key("received").number(all.received);
        line.key("min_ms").number(all.min_ms).key("avg_ms").number(all.average());
        line.key("max_ms").number(all.max_ms).end_object().print();
        return;
    }
    (void)std::fprintf(out(), "%u sent, %u answered, %.0f%% lost\n", all.sent, all.received,
                       all.sent != 0 ? 100.0 * (all.sent - all.received) / all.sent : 0.0);
    if (all.received != 0)
    {
        (void)std::fprintf(out(), "min/avg/max = %.3f/%.3f/%.3f ms\n", all.min_ms, all.average(),
                           all.max_ms);
    }
}

/** Passes the time until the next one: the connection is kept alive, or made anew.
 *  @return false when the user wants to end */
bool wait_for_next(TARN_RPC rpc, uint32_t start, uint32_t interval_ms)
{
    constexpr uint32_t turn_ms = 500; // what a turn lasts when nothing comes
    for (uint32_t passed = tarn_tick_ms_since(start); passed < interval_ms;
         passed = tarn_tick_ms_since(start))
    {
        const uint32_t left = interval_ms - passed;
        if (tarn_process_wait_exit(left >= 2 * turn_ms ? 0 : left))
        {
            return false;
        }
        if (left >= 2 * turn_ms)
        {
            (void)tarn_rpc_loop(rpc);
        }
    }
    return !tarn_process_wait_exit(0);
}

int ping(const arguments &given)
{
    settings wanted;
    wanted.json = given.has("json");
    if (!given.number("count", 1, 1000000000, &wanted.count) ||
        !given.number("interval", 0, 3600000, &wanted.interval_ms))
    {
        return status_usage;
    }
    rpc_target target;
    if (const int result = read_target(given, 0, &target); result != status_ok)
    {
        return result;
    }
    const rpc_owner rpc = connect_to(target);
    if (!rpc)
    {
        return status_failed;
    }
    tally all;
    bool goes_on = true;
    while (goes_on && all.sent < wanted.count)
    {
        const uint32_t start = tarn_tick_ms();
        if (!tarn_rpc_is_connected(rpc.get()))
        {
            (void)tarn_rpc_loop(rpc.get());
        }
        const auto ms = ping_once(rpc.get(), ++all.sent, target.timeout_ms);
        if (ms)
        {
            all.add(*ms);
        }
        print_one(wanted, target, all.sent, ms);
        goes_on = flush_output() &&
                  (all.sent == wanted.count || wait_for_next(rpc.get(), start, wanted.interval_ms));
    }
    print_summary(wanted, all);
    return all.received == all.sent ? int{status_ok} : no_answer(target);
}

constexpr operand operands[] = {{target_name, target_takes}};
constexpr option options[] = {
    {"count", "N", "a whole number, 1 to 1000000000", "how many, default is 4"},
    {"interval", "MS", "a whole number of milliseconds, 0 to 3600000",
     "from one to the next, default is 1000"},
    json_option,
    tls_dir_option,
    timeout_option,
};

} // namespace

const command rpc_ping_command = {
    "rpc",   "ping", "Measure how long an RPC server takes to answer", nullptr, operands,
    options, ping,
};

} // namespace tarnctl
