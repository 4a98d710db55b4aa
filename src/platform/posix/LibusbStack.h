// The USB stack over libusb-1.0.
#pragma once
#include "platform/UsbStack.h"

namespace usbstack {

// The stack of this process; it is never destroyed. Any thread may call it. Nothing runs and nothing stays open while no
// device is open. A child made by fork starts with a fresh stack; device handles that it inherited answer Gone.
IStack& LibusbStack();

}  // namespace usbstack
