// Parsed configuration and BOS descriptors.
#pragma once
#include <cstdint>
#include <memory>

#include "platform/UsbDriver.h"
#include "usb/EndPoints.h"

// Descriptors are little-endian.
inline uint16_t U16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }

struct InterfaceObject {
    CCyUSBEndPoint* endPoints[32] = {};  // entry 0 belongs to the control endpoint, which CUsbLink owns
    uint8_t bLength = 0, bDescriptorType = 0, bInterfaceNumber = 0, bAlternateSetting = 0, bNumEndpoints = 0;
    uint8_t bInterfaceClass = 0, bInterfaceSubClass = 0, bInterfaceProtocol = 0, iInterface = 0;
    uint8_t altSettings = 0;    // interface objects with the same number
    uint16_t wTotalLength = 0;  // head and endpoint descriptors
    ~InterfaceObject();         // deletes entries 1 and up
};

struct ConfigObject {
    InterfaceObject* interfaces[8] = {};
    uint8_t bLength = 0, bDescriptorType = 0;
    uint16_t wTotalLength = 0;
    uint8_t bNumInterfaces = 0, bConfigurationValue = 0, iConfiguration = 0, bmAttributes = 0, bMaxPower = 0;
    uint8_t altInterfaces = 0;  // interface objects built, alternate settings included
    ~ConfigObject();
};

struct BosUsb20Extension {
    uint8_t bLength, bDescriptorType, bDevCapabilityType;
    uint32_t attributes;
};
struct BosSuperSpeed {
    uint8_t bLength, bDescriptorType, bDevCapabilityType, bmAttributes;
    uint16_t wSpeedsSupported;
    uint8_t bFunctionalitySupport, bU1DevExitLat;
    uint16_t wU2DevExitLat;
};
struct BosContainerId {
    uint8_t bLength, bDescriptorType, bDevCapabilityType;
    uint8_t containerId[16];
};

struct BosObject {
    std::unique_ptr<BosContainerId> containerId;
    std::unique_ptr<BosUsb20Extension> usb20;
    std::unique_ptr<BosSuperSpeed> superSpeed;
    uint8_t bLength = 0, bDescriptorType = 0;
    uint16_t wTotalLength = 0;
    uint8_t bNumDeviceCaps = 0;
};

// Parse a raw descriptor of `size` bytes. They read nothing beyond it; what is cut off counts as absent. A block that
// cannot be walked (a length of 0, a head that does not fit) throws a const char*, which CUsbLink::Open catches.
// device goes to the endpoints. The caller owns the result.
ConfigObject* ParseConfig(platform::DeviceHandle device, const uint8_t* raw, uint32_t size, bool superSpeed);
BosObject* ParseBos(const uint8_t* raw, uint32_t size);
