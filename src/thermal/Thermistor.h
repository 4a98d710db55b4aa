// What the two temperature inputs read: a thermistor of 10 kOhm at 25 degrees in a voltage divider, and a digital sensor.
#pragma once
#include <array>
#include <cstdint>
#include <optional>

struct ThermistorRow {
    int32_t degrees;  // Celsius, ascending by one
    double kOhm;      // descending
};
extern const std::array<ThermistorRow, 134> g_ThermistorTable;

namespace thermal {

// Degrees Celsius of an 8-bit reading with the thermistor on the low side of a divider of `seriesKOhm`. None outside the table.
std::optional<float> ThermistorDegrees(uint8_t reading, int seriesKOhm);

// Degrees Celsius of the two bytes of a digital sensor: 12 bits, two's complement, 0.0625 degrees a step, low bits in the upper
// half of byte 0. QUIRK: 0 counts as no reading, so 0.0 degrees never shows.
std::optional<float> DigitalDegrees(uint8_t byte0, uint8_t byte1);

}  // namespace thermal
