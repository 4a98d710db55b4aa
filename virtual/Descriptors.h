// USB descriptors of a virtual camera.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace kovsim {

constexpr uint16_t VENDOR_ID = 0x0E5A;
constexpr uint8_t BULK_IN = 0x82;

struct DescriptorFacts {
    uint16_t wVendorId, wProductId;
    uint8_t bFirmware;
    bool bUSB3Device, bUSB3Host;
    std::string sProduct, sSerial;
};

// The descriptor that GET_DESCRIPTOR asks for with wValue = type << 8 | index; empty: stall.
std::vector<uint8_t> Descriptor(const DescriptorFacts& f, uint8_t type, uint8_t index);

}  // namespace kovsim
