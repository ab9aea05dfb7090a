// The frame of a benchmark program: runs ours and the bare thing in turn, several times over, and
// ends with one line per comparison, "disabled log: ours/bare = 1.3 (limit 2.0)".
//
// The two sides of a ratio are the best of their repetitions: what else runs on the machine only
// ever adds time. Real time counts where the benchmark asks for it (UseRealTime, UseManualTime), else
// processor time.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <map>
#include <string>
#include <vector>

namespace bench
{

/** One comparison: names of benchmarks, "function" or "function/argument". */
struct ratio
{
    const char *title;
    const char *ours;
    const char *bare;
    double limit;
};

/** Keeps the best time of each benchmark, and prints the median of its repetitions. */
class best_reporter : public benchmark::ConsoleReporter
{
public:
    best_reporter() : ConsoleReporter(OO_Tabular) {}

    static std::string name_of(const Run &run)
    {
        const std::string &arguments = run.run_name.args;
        return run.run_name.function_name + (arguments.empty() ? "" : "/" + arguments);
    }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        std::vector<Run> shown;
        for (const Run &run : runs)
        {
            if (run.error_occurred || run.repetitions == 1 || run.aggregate_name == "median")
            {
                shown.push_back(run);
            }
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
            {
                const bool real = !run.run_name.time_type.empty();
                const double time = real ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
                const auto [entry, is_new] = best_.emplace(name_of(run), time);
                entry->second = is_new ? time : std::min(entry->second, time);
            }
        }
        if (!shown.empty())
        {
            ConsoleReporter::ReportRuns(shown);
        }
    }

    /** A comparison of which a side did not run has no line. */
    void print(const ratio &wanted) const
    {
        const auto ours = best_.find(wanted.ours);
        const auto bare = best_.find(wanted.bare);
        if (ours != best_.end() && bare != best_.end() && bare->second > 0)
        {
            const double value = ours->second / bare->second;
            std::printf("%s: ours/bare = %.2f (limit %.2f)%s\n", wanted.title, value, wanted.limit,
                        value > wanted.limit ? " MISSED" : "");
        }
    }

private:
    std::map<std::string, double> best_;
};

/** The whole of main: arguments of the command line override these defaults. */
inline int run(int argc, char **argv, std::initializer_list<ratio> ratios)
{
    char repetitions[] = "--benchmark_repetitions=9";
    char interleaving[] = "--benchmark_enable_random_interleaving=true";
    char min_time[] = "--benchmark_min_time=0.1";
    std::vector<char *> arguments = {argv[0], repetitions, interleaving, min_time};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data()))
    {
        return 1;
    }
    best_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const ratio &wanted : ratios)
    {
        reporter.print(wanted);
    }
    return 0;
}

} // namespace bench
