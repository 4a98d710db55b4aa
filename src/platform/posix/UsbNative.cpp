// USB on POSIX systems: no kernel driver of ours, libusb as the stack.
#include <dlfcn.h>

#include "platform/UsbAdapter.h"
#include "platform/UsbDriver.h"
#include "platform/posix/LibusbStack.h"

namespace platform {

usbstack::PluginEntry FindPluginEntry()
{
    return reinterpret_cast<usbstack::PluginEntry>(dlsym(RTLD_DEFAULT, "KOVUsbStackPlugin"));
}

usbstack::IStack& NativeStack() { return usbstack::LibusbStack(); }
IUsbDriver* NativeDriver() { return nullptr; }

}  // namespace platform
