// What table, dark frame and repair agree on.
#pragma once
#include <cstdint>

// A pixel that stands out in a dark frame of this mean.
inline bool StandsOut(uint16_t wValue, uint32_t dwMean) { return wValue > dwMean && wValue - dwMean > 30; }

// Models with a 14-bit ADC, by a part of their name; all others have 12 bits.
constexpr const char* NAMES_14BIT[] = { "Marble", "Ebony", "Flint", "Halite" };
