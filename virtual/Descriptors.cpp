#include "virtual/Descriptors.h"

namespace kovsim {
namespace {

enum DescriptorType : uint8_t { DEVICE = 1, CONFIG = 2, STRING = 3, QUALIFIER = 6, BOS = 15 };

uint8_t Lo(unsigned v) { return uint8_t(v); }
uint8_t Hi(unsigned v) { return uint8_t(v >> 8); }

std::vector<uint8_t> String(const std::string& s)
{
    std::vector<uint8_t> d = { uint8_t(2 + 2 * s.size()), STRING };
    for (char c : s) {
        d.push_back(uint8_t(c));
        d.push_back(0);
    }
    return d;
}

}  // namespace

std::vector<uint8_t> Descriptor(const DescriptorFacts& f, uint8_t type, uint8_t index)
{
    const bool super = f.bUSB3Device && f.bUSB3Host;
    switch (type) {
    case DEVICE: {
        if (index != 0)
            return {};
        // A USB 3 device behind a USB 2 host says 2.1, which announces a BOS descriptor.
        const unsigned usb = super ? 0x0300 : f.bUSB3Device ? 0x0210 : 0x0200;
        return { 18,
                 DEVICE,
                 Lo(usb),
                 Hi(usb),
                 0,
                 0,
                 0,
                 uint8_t(super ? 9 : 64),  // at SuperSpeed an exponent
                 Lo(f.wVendorId),
                 Hi(f.wVendorId),
                 Lo(f.wProductId),
                 Hi(f.wProductId),
                 f.bFirmware,
                 0,
                 1,
                 2,
                 3,
                 1 };
    }
    case CONFIG: {
        if (index != 0)
            return {};
        const unsigned packet = super ? 1024 : 512;
        const unsigned total = 9 + 9 + 7 + (super ? 6 : 0);
        std::vector<uint8_t> d = { 9,
                                   CONFIG,
                                   Lo(total),
                                   Hi(total),
                                   1,
                                   1,
                                   0,
                                   0x80,
                                   uint8_t(super ? 100 : 250),  // 800 and 500 mA
                                   9,
                                   4,
                                   0,
                                   0,
                                   1,
                                   0xFF,
                                   0,
                                   0,
                                   0,
                                   7,
                                   5,
                                   BULK_IN,
                                   2,
                                   Lo(packet),
                                   Hi(packet),
                                   0 };
        if (super)
            d.insert(d.end(), { 6, 0x30, 15, 0, 0, 0 });  // bursts of 16 packets
        return d;
    }
    case STRING:
        switch (index) {
        case 0: return { 4, STRING, 0x09, 0x04 };
        case 1: return String("KOV");
        case 2: return String(f.sProduct);
        case 3: return String(f.sSerial);
        default: return {};
        }
    case QUALIFIER:
        if (super)
            return {};
        return { 10, QUALIFIER, 0x00, 0x02, 0, 0, 0, 64, 1, 0 };
    case BOS:
        if (!f.bUSB3Device || index != 0)
            return {};
        return { 5,  BOS, 22, 0, 2,    7, 16, 2,  0x02, 0,   0, 0,  // USB 2.0 extension: LPM
                 10, 16,  3,  0, 0x0E, 0, 3,  10, 0xFF, 0x07 };     // SuperSpeed: full, high and super
    default: return {};
    }
}

}  // namespace kovsim
