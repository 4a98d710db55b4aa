// A register table: a constant array of (address, value). Address 0xFFFF is a delay of `value` milliseconds.
#pragma once
#include <cstdint>

struct RegEntry {
    uint16_t address, wValue;
};
static_assert(sizeof(RegEntry) == 4);
constexpr uint16_t REG_DELAY = 0xFFFF;
