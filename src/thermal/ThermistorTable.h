// The curve of the analogue temperature input: a thermistor of 10 kOhm at 25 degrees, one row a degree.
#pragma once
#include <array>
#include <cstdint>

struct ThermistorRow {
    int32_t iDegrees;  // Celsius, ascending
    double dKOhm;      // descending
};
extern const std::array<ThermistorRow, 134> g_ThermistorTable;
