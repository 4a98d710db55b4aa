// The ten device-interface GUIDs. Their order is the order of enumeration and so of camera IDs.
#pragma once
#include <cstdint>

#include "platform/UsbDriver.h"

namespace platform {

constexpr int GUID_COUNT = 10;
constexpr uint16_t CAMERA_VENDOR_ID = 0x0E5A;

// Ours; whoever installs the Windows driver uses the same ones. Slot n of the model table is entry n - 1.
extern const Guid g_InterfaceGuids[GUID_COUNT];

// Where no driver installation ties devices to GUIDs: the slot (1 to 10) of a product ID of our vendor. The tenth also
// stands for product IDs that this library does not know.
int InterfaceSlotOf(uint16_t productId);

}  // namespace platform
