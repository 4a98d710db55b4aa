#include "thermal/Cooler.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace thermal {

namespace {

struct DACurrentRow {
    double da, current;  // a lower code drives more current; 255 is off
};

// Currents in ampere. How the pairs were found is not known.
constexpr DACurrentRow g_DACurrentTable[] = {
    { 255, 0 },    { 220, 0.1 },  { 200, 0.19 }, { 180, 0.31 }, { 160, 0.45 },  { 140, 0.62 },
    { 120, 0.81 }, { 100, 1.03 }, { 80, 1.29 },  { 60, 1.55 },  { 47.3, 1.73 }, { 40, 1.83 },
};

constexpr float RATE_LIMIT = 2.0f;  // degrees per second; a faster change is a false reading
constexpr double CALM_ERROR = 0.4;  // degrees

// Looks x up in column From and gives what stands in column To: interpolated in the first interval whose middle is no
// further than half its width, else the row whose From is nearest.
template <double DACurrentRow::*From, double DACurrentRow::*To>
double LookUp(double x)
{
    for (size_t i = 1; i < std::size(g_DACurrentTable); ++i) {
        const DACurrentRow &a = g_DACurrentTable[i - 1], &b = g_DACurrentTable[i];
        if (std::fabs(static_cast<float>(b.*From - a.*From) * 0.5f) >=
            std::fabs(static_cast<float>(x - (a.*From + b.*From) * 0.5)))
            return (x - a.*From) * (b.*To - a.*To) / (b.*From - a.*From) + a.*To;
    }
    const auto* const nearest =
        std::min_element(std::begin(g_DACurrentTable), std::end(g_DACurrentTable),
                         [x](const auto& a, const auto& b) { return std::fabs(x - a.*From) < std::fabs(x - b.*From); });
    return nearest->*To;
}

template <double DACurrentRow::*Column>
Span SpanOf()
{
    const auto [low, high] = std::minmax_element(std::begin(g_DACurrentTable), std::end(g_DACurrentTable),
                                                 [](const auto& a, const auto& b) { return a.*Column < b.*Column; });
    return { static_cast<float>((*low).*Column), static_cast<float>((*high).*Column) };
}

}  // namespace

Span CodeSpan() { return SpanOf<&DACurrentRow::da>(); }
Span CurrentSpan() { return SpanOf<&DACurrentRow::current>(); }
double CodeOfCurrent(double current) { return LookUp<&DACurrentRow::current, &DACurrentRow::da>(current); }
double CurrentOfCode(double code) { return LookUp<&DACurrentRow::da, &DACurrentRow::current>(code); }

float RegulatorOutput(const RegulatorGains& gains, float error, float lastError, float integral)
{
    const float change = lastError == NO_ERROR_YET ? 0.0f : (error - lastError) * gains.fKd;
    return integral * gains.fKi + error * gains.fKp + change;
}

bool IsPlausible(float before, float now, float milliseconds)
{
    return !(std::fabs((now - before) * 1000 / milliseconds) >= RATE_LIMIT);
}

bool IsCalm(float error) { return static_cast<double>(std::fabs(error)) <= CALM_ERROR; }

}  // namespace thermal
