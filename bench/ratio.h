// Our time beside that of the bare call or library, as a ratio; what the benchmarks have in common.
//
// A benchmark file defines both cases with BENCHMARK() and ends with
//
//     int main(int argc, char **argv)
//     {
//         return ratio::run(argc, argv, {{"read+write", "ours/4096", "bare/4096", 1.2}});
//     }
//
// which prints the times and then "read+write: ours/bare = 1.07 (at most 1.20)". Cases go by the
// name that Google Benchmark shows without suffixes ("function/argument"). All cases run nine times,
// in turns, and the fastest run of each counts: other work on the machine only ever adds. Compared
// is CPU time; wall-clock time where a case asks for it with UseRealTime().
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace ratio
{

struct pair
{
    std::string name;
    std::string ours;
    std::string bare;
    double at_most = 0; ///< the ratio that we want to keep; 0: none. Speed of at least 0.8: 1 / 0.8
};

/** Shows the fastest run of each case and keeps its time for the ratios. */
class reporter : public benchmark::ConsoleReporter
{
public:
    // No colours: the output is read by scripts as well.
    reporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run> &runs) override
    {
        const Run *fastest = nullptr;
        for (const Run &run : runs)
        {
            if (run.error_occurred || (run.run_type == Run::RT_Iteration &&
                                       (fastest == nullptr || seconds(run) < seconds(*fastest))))
            {
                fastest = &run;
            }
        }
        if (fastest == nullptr) // only aggregates, which come in a call of their own
        {
            return;
        }
        const std::string &args = fastest->run_name.args;
        seconds_[fastest->run_name.function_name + (args.empty() ? "" : "/" + args)] =
            seconds(*fastest);
        ConsoleReporter::ReportRuns({*fastest});
    }
    /** Pairs of which one side was filtered out are left out. */
    void print(const std::vector<pair> &pairs) const
    {
        for (const pair &p : pairs)
        {
            const auto ours = seconds_.find(p.ours);
            const auto bare = seconds_.find(p.bare);
            if (ours == seconds_.end() || bare == seconds_.end())
            {
                continue;
            }
            const double value = ours->second / bare->second;
            std::printf("%s: ours/bare = %.2f", p.name.c_str(), value);
            if (p.at_most > 0)
            {
                std::printf(" (at most %.2f)%s", p.at_most, value > p.at_most ? " ABOVE" : "");
            }
            std::printf("\n");
        }
    }

private:
    static double seconds(const Run &run)
    {
        const double time =
            run.run_name.time_type.empty() ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
        return time / benchmark::GetTimeUnitMultiplier(run.time_unit);
    }
    std::map<std::string, double> seconds_;
};

/** Runs the benchmarks and prints the ratios; arguments of the command line win over ours. */
inline int run(int argc, char **argv, const std::vector<pair> &pairs)
{
    std::vector<std::string> defaults = {"--benchmark_repetitions=9",
                                         "--benchmark_enable_random_interleaving=true",
                                         "--benchmark_min_time=0.05"};
    std::vector<char *> arguments = {argv[0]};
    for (std::string &argument : defaults)
    {
        arguments.push_back(argument.data());
    }
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
    {
        return 1;
    }
    reporter shown;
    benchmark::RunSpecifiedBenchmarks(&shown);
    shown.print(pairs);
    benchmark::Shutdown();
    return 0;
}

} // namespace ratio
