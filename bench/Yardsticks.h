// Names of the benchmarks, and which yardstick belongs to which operation.
//
// A benchmark is called "operation/by/WIDTHxHEIGHT", where `by` is "kov" for the library and otherwise names a yardstick.
// After the run every "kov" line is set against all yardsticks of the same operation and size.
#pragma once
#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace bench {

struct Size {
    int w, h;
};
inline constexpr Size g_Sizes[] = { { 1936, 1096 }, { 4656, 3520 } };

// The yardstick that no program can beat.
inline constexpr const char* FLOOR = "floor";
// A counter of this name and more is a yardstick that the run has taken by itself, in milliseconds.
inline const std::string BESIDE = "beside ";

// Buffers that are made when a benchmark that needs them begins. Copies share them.
template <class T>
class Lazy {
public:
    explicit Lazy(std::function<std::unique_ptr<T>()> make) : m_state(std::make_shared<State>(std::move(make))) {}
    T& operator*() const
    {
        if (!m_state->made)
            m_state->made = m_state->make();
        return *m_state->made;
    }
    T* operator->() const { return &**this; }

private:
    struct State {
        explicit State(std::function<std::unique_ptr<T>()> how) : make(std::move(how)) {}
        std::function<std::unique_ptr<T>()> make;
        std::unique_ptr<T> made;
    };
    std::shared_ptr<State> m_state;
};

// Times `body` once per iteration, after one that makes what is lazy.
inline void Register(const std::string& operation, const std::string& by, Size s, std::function<void()> body)
{
    const std::string name = operation + "/" + by + "/" + std::to_string(s.w) + "x" + std::to_string(s.h);
    benchmark::RegisterBenchmark(name.c_str(), [body = std::move(body)](benchmark::State& state) {
        body();
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
