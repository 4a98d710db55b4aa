// Runs the benchmarks and prints how the library stands against its yardsticks. KOV_BENCH_TARGET=AVX2 (or another of the
// names that are printed) measures a lesser instruction set.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "base/Log.h"
#include "bench/Yardsticks.h"
#include "imaging/Kernels.h"

#include <hwy/highway.h>

namespace {

// Collects the times; of repetitions the best counts, since disturbances only ever add.
class Ratios : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration || r.error_occurred)
                continue;
            const std::string& name = r.run_name.function_name;
            const size_t a = name.find('/'), b = name.rfind('/');
            if (a == std::string::npos || a == b)
                continue;
            Times& times = m_times[{ name.substr(b + 1), name.substr(0, a) }];
            // A benchmark that takes its own time has its reasons.
            const double ms = r.run_name.time_type.empty() ? r.GetAdjustedCPUTime() : r.GetAdjustedRealTime();
            const auto [it, isNew] = times.emplace(name.substr(a + 1, b - a - 1), ms);
            if (!isNew && ms < it->second)
                it->second = ms;
        }
    }

    void PrintTable() const
    {
        std::printf("\n%-11s %-28s %9s   %-24s %9s   %s\n", "frame", "operation", "ms", "beside", "ms", "times as fast");
        for (const auto& [key, times] : m_times) {
            const auto own = times.find("kov");
            if (own == times.end())
                continue;
            for (const auto& [by, ms] : times)
                if (by != "kov")
                    std::printf("%-11s %-28s %9.3f   %-24s %9.3f   %6.2f\n", key.first.c_str(), key.second.c_str(),
                                own->second, by.c_str(), ms, ms / own->second);
        }
    }

private:
    using Times = std::map<std::string, double>;                       // by whom -> ms
    std::map<std::pair<std::string, std::string>, Times> m_times;      // (size, operation)
};

// False if the machine has no such target.
bool ChooseTarget(const char* wanted)
{
    int64_t chosen = 0;
    std::printf("instruction sets:");
    for (int64_t rest = hwy::SupportedTargets() & HWY_TARGETS; rest != 0; rest &= rest - 1) {
        const char* name = hwy::TargetName(rest & -rest);
        if (wanted && std::strcmp(name, wanted) == 0)
            chosen = rest & -rest;
        std::printf(" %s", name);
    }
    std::printf("; measured: %s\n", wanted ? wanted : "the first");
    hwy::SetSupportedTargetsForTest(chosen);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
    return !wanted || chosen != 0;
}

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    if (!ChooseTarget(std::getenv("KOV_BENCH_TARGET"))) {
        std::fprintf(stderr, "kovbench: this machine does not have the instruction set that KOV_BENCH_TARGET names\n");
        return 1;
    }
    logging::Configure(nullptr, nullptr);
    benchmark::RegisterBenchmark("log line, off", [](benchmark::State& state) {
        int i = 0;
        for (auto _ : state) {
            KOV_LOG(Debug, "%d", i);
            benchmark::DoNotOptimize(++i);
        }
    });
    bench::RegisterPixelBenchmarks();
    bench::RegisterCameraBenchmarks();
    Ratios reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintTable();
    return 0;
}
