// What a fake device tells of itself first.
#pragma once
#include <cstdint>
#include <vector>

inline std::vector<uint8_t> DeviceDescriptor(bool bSuper, uint16_t wVendorId, uint16_t wProductId, uint16_t wVersion)
{
    const auto lo = [](uint16_t w) { return static_cast<uint8_t>(w & 0xFF); };
    const auto hi = [](uint16_t w) { return static_cast<uint8_t>(w >> 8); };
    // clang-format off
    return { 18, 1, 0, lo(bSuper ? 3 : 2), 0, 0, 0, lo(bSuper ? 9 : 64), lo(wVendorId), hi(wVendorId), lo(wProductId),
             hi(wProductId), lo(wVersion), hi(wVersion), 1, 2, 3, 1 };
    // clang-format on
}
