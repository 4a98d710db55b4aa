// The USB stack over libusb-1.0.
#pragma once
#include "platform/UsbStack.h"

namespace usbstack {

// The stack of this process; it is never destroyed. Any thread may call it. While no device is open, no thread of ours runs
// and no device node is open; libusb's context, with its thread that hears of plugs, is kept from the first look at the bus.
// A child made by fork starts with a fresh stack; device handles that it inherited answer Gone.
IStack& LibusbStack();

// Ends what is kept while no device is open, as the unloading of the library does. Tests: before a fake system goes.
void ForgetLibusb();

}  // namespace usbstack
