// Names of the benchmarks, and which yardstick belongs to which operation.
//
// A benchmark is called "operation/by/WIDTHxHEIGHT", where `by` is "kov" for the library and otherwise names a yardstick.
// After the run every "kov" line is set against all yardsticks of the same operation and size.
#pragma once
#include <benchmark/benchmark.h>

#include <functional>
#include <string>

namespace bench {

struct Size {
    int w, h;
};
inline constexpr Size g_Sizes[] = { { 1936, 1096 }, { 4656, 3520 } };

// The yardstick that no program can beat.
inline constexpr const char* FLOOR = "floor";

// Times `body` once per iteration.
inline void Register(const std::string& operation, const std::string& by, Size s, std::function<void()> body)
{
    const std::string name = operation + "/" + by + "/" + std::to_string(s.w) + "x" + std::to_string(s.h);
    benchmark::RegisterBenchmark(name.c_str(), [body = std::move(body)](benchmark::State& state) {
        for (auto _ : state) {
            body();
            benchmark::ClobberMemory();
        }
    })->Unit(benchmark::kMillisecond);
}

void RegisterPixelBenchmarks();
void RegisterCameraBenchmarks();
void RegisterBusBenchmarks();
// What a run under umockdev-wrapper does: prints the ms of one look at eight cameras behind libusb, the first and the median.
int CountBehindLibusb();
inline constexpr const char* COUNT_BEHIND_LIBUSB = "--count-behind-libusb";

}  // namespace bench
