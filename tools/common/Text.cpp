#include "common/Text.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace kovtools {

std::chrono::microseconds ParseDuration(const std::string& text)
{
    size_t used = 0;
    double value = -1;
    try {
        value = std::stod(text, &used);
    } catch (const std::exception&) {
    }
    struct Unit {
        const char* name;
        double microseconds;
    };
    static constexpr Unit units[] = { { "us", 1 }, { "ms", 1e3 }, { "s", 1e6 }, { "m", 6e7 }, { "min", 6e7 }, { "h", 3.6e9 } };
    const std::string name = text.substr(std::min(text.find_first_not_of(' ', used), text.size()));
    const Unit* const unit = std::find_if(std::begin(units), std::end(units), [&](const Unit& u) { return name == u.name; });
    constexpr double LONGEST = 1e14;  // three years; no sum of such overflows
    if (value >= 0 && value * (unit == std::end(units) ? 1 : unit->microseconds) <= LONGEST) {  // neither negative nor NaN
        if (unit != std::end(units))
            return std::chrono::microseconds(std::llround(value * unit->microseconds));
        if (name.empty())
            throw std::invalid_argument(fmt::format("'{}' tells no unit: write {}s, {}ms or {}us", text, text, text, text));
    }
    throw std::invalid_argument(fmt::format("'{}' is no duration; write a number with us, ms, s, m or h, such as 10ms", text));
}

std::string DurationText(std::chrono::microseconds duration)
{
    const double us = static_cast<double>(duration.count());
    return us < 1e3   ? fmt::format("{} us", duration.count())
           : us < 1e6 ? fmt::format("{:.4g} ms", us / 1e3)
                      : fmt::format("{:.4g} s", us / 1e6);
}

double ParseAngle(const std::string& text, bool hours)
{
    std::string s = text;
    std::replace(s.begin(), s.end(), ':', ' ');
    const bool negative = s.starts_with('-');
    double part[3] = {};
    int used = 0;
    const int count = std::sscanf(s.c_str(), "%lf%n%lf%n%lf%n", &part[0], &used, &part[1], &used, &part[2], &used);
    const bool good = count >= 1 && static_cast<size_t>(used) == s.size() &&
                      (count == 1 || (part[1] >= 0 && part[1] < 60 && part[2] >= 0 && part[2] < 60));
    const double size = std::abs(part[0]) + part[1] / 60 + part[2] / 3600;
    const double degrees = (negative ? -size : size) * (hours && count > 1 ? 15 : 1);
    if (!good || !std::isfinite(degrees) || degrees < (hours ? 0 : -90) || degrees > (hours ? 360 : 90))
        throw std::invalid_argument(
            hours ? fmt::format("'{}' is no right ascension; write 05:35:17 (hours) or 83.822 (degrees)", text)
                  : fmt::format("'{}' is no declination; write -05:23:28 or -5.391 (degrees)", text));
    return degrees;
}

std::string SexagesimalText(double degrees, bool hours)
{
    const int64_t hundredths = std::llround(std::abs(degrees) / (hours ? 15 : 1) * 360000);
    return fmt::format("{}{:02} {:02} {:02}.{:02}",
                       hours         ? ""
                       : degrees < 0 ? "-"
                                     : "+",
                       hundredths / 360000, hundredths / 6000 % 60, hundredths / 100 % 60, hundredths % 100);
}

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

std::string UtcText(std::chrono::system_clock::time_point time)
{
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03}", fmt::gmtime(static_cast<std::time_t>(ms / 1000)), ms % 1000);
}

namespace {

// Letters to change, add or drop to make one of the other.
size_t Distance(const std::string& a, const std::string& b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{ 0 });
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            row[j] = std::min({ above + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1]) });
            diagonal = above;
        }
    }
    return row[b.size()];
}

}  // namespace

std::vector<std::string> Nearest(const std::string& typed, const std::vector<std::string>& names)
{
    const std::string wanted = Lower(typed);
    std::vector<std::pair<size_t, std::string>> near;
    for (const std::string& name : names) {
        const std::string other = Lower(name);
        const bool part = wanted.size() > 2 && other.find(wanted) != std::string::npos;
        const size_t distance = part ? 0 : Distance(wanted, other);
        if (distance <= std::max<size_t>(2, wanted.size() / 2))
            near.emplace_back(distance, name);
    }
    std::sort(near.begin(), near.end());
    std::vector<std::string> out;
    for (size_t i = 0; i < near.size() && i < 4 && near[i].first <= near[0].first + 2; ++i)
        out.push_back(near[i].second);
    return out;
}

std::string Joined(const std::vector<std::string>& parts, const std::string& separator)
{
    std::string s;
    for (const std::string& p : parts)
        s += (s.empty() ? "" : separator) + p;
    return s;
}

}  // namespace kovtools
