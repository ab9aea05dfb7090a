// RPC replies that arrive when the time of their requests ends: whoever wins, a request has one
// outcome, its own, and nothing is left of the other.

#include "rpc_support.h"

#include <algorithm>
#include <thread>

using namespace rpc_test;
using support::wait_until;

namespace
{

class RpcRace : public RpcBase
{
};
INSTANTIATE_TEST_SUITE_P(Transports, RpcRace, kinds,
                         [](const auto &kind) { return std::string(kind.param); });

/** Answers after as many microseconds as the request says, with what it says. */
int answer_late(TARN_RPC rpc, uint32_t seq, uint32_t id, TARN_RPC_MSG msg, TARN_RPC_MSG rsp)
{
    tarn_sleep_us(static_cast<uint32_t>(std::stoul(text_of(msg))));
    return echo(rpc, seq, id, msg, rsp);
}

struct tally
{
    std::atomic<uint32_t> answered{0};
    std::atomic<uint32_t> late{0};
};

/** Rounds of one client, whose handler's delay follows the limit: longer after each answer, shorter
 *  after each time-out, so that about one round in ten is lost. The limit grows where the machine is
 *  too slow for it. */
void race(const transport &at, uint32_t rounds, tally &count)
{
    uint32_t limit_ms = 1;
    uint32_t delay_us = 500;
    const rpc_owner client = connected_client(at, nullptr, 1);
    for (uint32_t i = 0; i < rounds; ++i)
    {
        ASSERT_TRUE(wait_until([&] { return tarn_rpc_is_connected(client.get()); }, 30000));
        // One number for all: the reply of a round before would be taken for this one's.
        const std::string text = std::to_string(delay_us) + " of round " + std::to_string(i);
        const outcome got = call(client.get(), 7, text, limit_ms);
        if (got.code == 7)
        {
            ASSERT_EQ(got.text, text);
            ++count.answered;
            delay_us += 5 + delay_us / 64;
        }
        else
        {
            ASSERT_LT(got.code, 0);
            ASSERT_EQ(got.text, "");
            ++count.late;
            limit_ms += delay_us == 0 ? 1 : 0;
            delay_us -= std::min(delay_us, 45 + delay_us / 8);
        }
    }
    const tarn::critical_section_guard guard(client->lock);
    EXPECT_EQ(tarn_hash_count(client->pending), 0u);
}

TEST_P(RpcRace, EveryRequestHasOneOutcome)
{
    // On local sockets, where a new line costs least, a hundred thousand in all.
    const std::string kind = GetParam();
    const uint32_t whole = kind == "local" ? 100000 : kind == "tcp" ? 3000 : 300;
    const uint32_t clients = kind == "tls" ? 4 : 50;
    const uint32_t rounds = std::max(whole / clients / (support::with_sanitizer ? 20 : 1), 75u);
    server svr(at_, answer_late);
    svr.start();
    const support::level_scope quiet(TARN_LOG_LEVEL_FATAL); // each time-out has its line
    tally count;
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < clients; ++t)
    {
        threads.emplace_back([&] { race(at_, rounds, count); });
    }
    for (std::thread &thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(count.answered + count.late, clients * rounds);
    EXPECT_GT(count.answered, 0u);
    EXPECT_GT(count.late, 0u);
    RecordProperty("late", static_cast<int>(count.late));
}

} // namespace
