// Durations, times and names, as people write them.
#pragma once
#include <chrono>
#include <string>
#include <vector>

namespace kovtools {

// "500us", "10ms", "2.5s", "2m" or "2min", "1h"; a number alone is refused, for nobody knows what it means.
// Throws std::invalid_argument with a text for people.
std::chrono::microseconds ParseDuration(const std::string& text);
std::string DurationText(std::chrono::microseconds duration);  // "10 ms"

// An angle in degrees: "-5.391", or sexagesimal "-05:23:28" (also with blanks). With `hours` a sexagesimal text counts
// hours, 15 degrees each. Throws std::invalid_argument.
double ParseAngle(const std::string& text, bool hours);
// "05 35 17.30" of 83.822; `hours` as above.
std::string SexagesimalText(double degrees, bool hours);

std::string Lower(std::string text);  // ASCII letters

std::string UtcText(std::chrono::system_clock::time_point time);  // 2026-11-24T20:15:30.123

// Those of `names` that come closest to what was typed, at most four; empty where nothing is near.
std::vector<std::string> Nearest(const std::string& typed, const std::vector<std::string>& names);
std::string Joined(const std::vector<std::string>& parts, const std::string& separator = ", ");

}  // namespace kovtools
