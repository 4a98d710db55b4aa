// Plays the kernel driver over a USB stack: decodes the driver's requests and calls the stack. Used wherever there is no
// such driver, and on every platform for virtual cameras.
#pragma once
#include "platform/UsbDriver.h"
#include "platform/UsbStack.h"

namespace platform {

// The stack in use: one set by SetUsbStack, else the plugin's at this moment (see UsbStack.h), else the native one.
usbstack::IStack& UsbStack();
// In-process virtual bus. No device may be open. nullptr brings the default back.
void SetUsbStack(usbstack::IStack* stack);

// What each platform brings along.
usbstack::PluginEntry FindPluginEntry();  // of a plugin that is loaded in this process; nullptr when there is none
usbstack::IStack& NativeStack();
// The kernel driver; nullptr where there is none. It gives way to the adapter when a stack was set or a plugin is there.
IUsbDriver* NativeDriver();

}  // namespace platform
