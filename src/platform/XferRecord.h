// The header that precedes every transfer exchanged with the driver; little-endian, packed: part of the wire format.
#pragma once
#include <cstdint>

#pragma pack(push, 1)
struct SetupPacket {
    uint8_t bmRequestType;
    uint8_t bRequest;
    uint16_t wValue;
    uint16_t wIndex;
    uint16_t wLength;
    uint32_t timeout;  // seconds
};
struct XferRecord {
    SetupPacket setup;  // control only
    uint8_t reserved;
    uint8_t bEndpointAddress;  // 0 for control
    uint32_t ntStatus;         // filled by the driver
    uint32_t usbdStatus;       // filled by the driver
    uint32_t isoPacketOffset;
    uint32_t isoPacketLength;  // bytes, 8 a packet
    uint32_t bufferOffset;     // 38 when data follow, 0 for direct transfers
    uint32_t bufferLength;
};
#pragma pack(pop)
static_assert(sizeof(SetupPacket) == 12 && sizeof(XferRecord) == 38);
constexpr uint32_t RECORD_SIZE = sizeof(XferRecord);
