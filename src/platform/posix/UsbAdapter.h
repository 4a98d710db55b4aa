// Plays the kernel driver over a USB stack: decodes the driver's requests and calls the stack. Used wherever there is no
// such driver, and on every platform for virtual cameras.
#pragma once
#include "platform/UsbStack.h"

namespace platform {

// The stack in use: one set by SetUsbStack, else the plugin's (see UsbStack.h), else libusb.
usbstack::IStack& UsbStack();
// In-process virtual bus. No device may be open. nullptr brings the default back.
void SetUsbStack(usbstack::IStack* pStack);

}  // namespace platform
