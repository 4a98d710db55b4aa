// Runs the benchmarks and prints how the library stands against its yardsticks. --isa avx2 (or another of the names that are
// printed) measures a lesser instruction set, --isa all one after the other, with a column for each at the end.
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "base/Log.h"
#include "bench/Yardsticks.h"
#include "imaging/Kernels.h"

#include <hwy/highway.h>

namespace {

struct Set {
    int64_t target;
    const char* name;
};

// Collects the times. Their medians count: the repetitions of all benchmarks run interleaved, so that a disturbance hits
// both sides of a ratio.
class Ratios : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& r : runs) {
            if (r.run_type != Run::RT_Iteration || r.error_occurred)
                continue;
            const std::string& name = r.run_name.function_name;
            const size_t a = name.find('/'), b = name.rfind('/');
            if (a == std::string::npos || a == b)
                continue;
            // A benchmark that takes its own time has its reasons.
            const double ms = r.run_name.time_type.empty() ? r.GetAdjustedCPUTime() : r.GetAdjustedRealTime();
            Times& times = m_times[{ name.substr(b + 1), name.substr(0, a) }];
            times[name.substr(a + 1, b - a - 1)].push_back(ms);
            for (const auto& [counter, value] : r.counters) {
                if (counter.starts_with(bench::BESIDE))
                    times[counter.substr(bench::BESIDE.size())].push_back(value);
                else
                    m_figures[name.substr(0, a)][name.substr(b + 1)][counter].push_back(value);
            }
        }
    }

    // Tab-separated, for the picture of the documents.
    void PrintTable(const char* isa, std::FILE* pTsv)
    {
        std::printf(
            "\nmedians in ms, %s; a ratio to a yardstick above 1 is faster; the floor is memcpy, and output past the caches may "
            "pass it\n",
            isa);
        std::printf("%-11s %-40s %9s %9s %7s   %-28s %9s %7s\n", "frame", "operation", "ours", "floor", "ratio", "beside", "ms",
                    "faster");
        for (auto& [key, times] : m_times) {
            const auto own = times.find("kov"), floor = times.find(bench::FLOOR);
            if (own == times.end())
                continue;
            const double ms = m_bySet[key][isa] = Median(own->second), least = floor == times.end() ? 0 : Median(floor->second);
            for (auto& [by, theirs] : times) {
                if (by == "kov" || by == bench::FLOOR)
                    continue;
                const double other = Median(theirs);
                std::printf("%-11s %-40s %9.3f ", key.first.c_str(), key.second.c_str(), ms);
                if (least > 0)
                    std::printf("%9.3f %7.2f   ", least, ms / least);
                else
                    std::printf("%9s %7s   ", "", "");
                std::printf("%-28s %9.3f %7.2f\n", by.c_str(), other, other / ms);
                if (pTsv)
                    std::fprintf(pTsv, "%s\t%s\t%s\t%g\t%g\t%s\t%g\n", isa, key.first.c_str(), key.second.c_str(), ms, least,
                                 by.c_str(), other);
            }
        }
    }

    // Ours on each of the sets that were measured.
    void PrintSets(const std::vector<Set>& sets)
    {
        std::printf("\nours in ms on each instruction set\n%-11s %-40s", "frame", "operation");
        for (const Set& set : sets)
            std::printf(" %9s", set.name);
        for (auto& [key, ms] : m_bySet) {
            std::printf("\n%-11s %-40s", key.first.c_str(), key.second.c_str());
            for (const Set& set : sets)
                std::printf(" %9.3f", ms[set.name]);
        }
        std::printf("\n");
    }

    // For the next set.
    void Forget()
    {
        m_times.clear();
        m_figures.clear();
    }

    // What single benchmarks tell besides their time, medians too.
    void PrintFigures()
    {
        for (auto& [operation, rows] : m_figures) {
            std::printf("\n%-18s", operation.c_str());
            for (const auto& [counter, values] : rows.begin()->second)
                std::printf(" %*s", Wide(counter), counter.c_str());
            std::printf("\n");
            for (auto& [row, counters] : rows) {
                std::printf("%-18s", row.c_str());
                for (auto& [counter, values] : counters)
                    std::printf(" %*.3f", Wide(counter), Median(values));
                std::printf("\n");
            }
        }
    }

private:
    static int Wide(const std::string& counter) { return std::max(static_cast<int>(counter.size()), 9); }
    static double Median(std::vector<double>& v)
    {
        const auto middle = v.begin() + static_cast<ptrdiff_t>(v.size() / 2);
        std::nth_element(v.begin(), middle, v.end());
        return *middle;
    }
    std::map<std::string, std::map<std::string, std::map<std::string, std::vector<double>>>> m_figures;
    using Times = std::map<std::string, std::vector<double>>;  // by whom -> ms
    using Key = std::pair<std::string, std::string>;           // size, operation
    std::map<Key, Times> m_times;
    std::map<Key, std::map<std::string, double>> m_bySet;  // medians of ours
};

// Those that are to be measured: the best one, or what is wanted. None if the machine has no such.
std::vector<Set> ChooseSets(const std::string& wanted)
{
    std::vector<Set> all, chosen;
    std::printf("instruction sets:");
    for (int64_t rest = hwy::SupportedTargets() & HWY_TARGETS; rest != 0; rest &= rest - 1) {
        all.push_back({ rest & -rest, hwy::TargetName(rest & -rest) });
        std::printf(" %s", all.back().name);
    }
    std::printf("\n");
    if (wanted.empty())
        return { all.front() };
    std::copy_if(all.begin(), all.end(), std::back_inserter(chosen),
                 [&](const Set& set) { return wanted == "all" || strcasecmp(set.name, wanted.c_str()) == 0; });
    return chosen;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string(argv[1]) == bench::COUNT_BEHIND_LIBUSB)
        return bench::CountBehindLibusb();
    std::string isa, tsv;
    // Whatever comes later on the command line wins.
    std::vector<std::string> words = { argv[0], "--benchmark_repetitions=5", "--benchmark_enable_random_interleaving=true",
                                       "--benchmark_min_time=0.1" };
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if ((word == "--isa" || word == "--tsv") && i + 1 < argc)
            (word == "--isa" ? isa : tsv) = argv[++i];
        else
            words.push_back(word);
    }
    std::vector<char*> args;
    for (std::string& word : words)
        args.push_back(word.data());
    args.push_back(nullptr);
    int n = static_cast<int>(words.size());
    benchmark::Initialize(&n, args.data());
    if (benchmark::ReportUnrecognizedArguments(n, args.data()))
        return 1;
    const std::vector<Set> sets = ChooseSets(isa);
    if (sets.empty()) {
        std::fprintf(stderr, "kovbench: this machine does not have the instruction set %s; choose one of those above, or all\n",
                     isa.c_str());
        return 1;
    }
    std::FILE* const pTsv = tsv.empty() ? nullptr : std::fopen(tsv.c_str(), "w");
    if (!tsv.empty() && !pTsv) {
        std::fprintf(stderr, "kovbench: cannot write %s\n", tsv.c_str());
        return 1;
    }
    bench::RegisterPixelBenchmarks();
    bench::RegisterCameraBenchmarks();
    bench::RegisterBusBenchmarks();
    Ratios reporter;
    for (const Set& set : sets) {
        hwy::SetSupportedTargetsForTest(set.target);
        hwy::GetChosenTarget().Update(hwy::SupportedTargets());
        reporter.Forget();
        benchmark::RunSpecifiedBenchmarks(&reporter);
        reporter.PrintTable(set.name, pTsv);
        reporter.PrintFigures();
    }
    if (sets.size() > 1)
        reporter.PrintSets(sets);
    if (pTsv)
        std::fclose(pTsv);
    return 0;
}
