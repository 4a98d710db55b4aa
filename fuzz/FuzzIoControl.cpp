// The driver's requests as the adapter decodes them: any record, in a block of exactly the told size, so that an offset or
// a length that leads out of it traps. The device answers everything.
#include <algorithm>
#include <cstdlib>
#include <memory>

#include "platform/InterfaceGuids.h"
#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "tests/support/RecordingStack.h"

namespace {

constexpr uint32_t CODES[] = {
    platform::IO_CONTROL,
    platform::IO_BUFFERED,
    platform::IO_DIRECT,
    platform::IO_DRIVER_VERSION,
    platform::IO_STACK_VERSION,
    platform::IO_ALT_SETTING,
    platform::IO_USB_ADDRESS,
    platform::IO_CYCLE_PORT,
    platform::IO_RESET_PIPE,
    platform::IO_RESET_PARENT_PORT,
    platform::IO_SET_TRANSFER_SIZE,
    platform::IO_DRIVER_NAME,
    platform::IO_FRIENDLY_NAME,
    platform::IO_ABORT_PIPE,
    platform::IO_DEVICE_SPEED,
    0x220FFF,
};

struct Device {
    Device()
    {
        dev.OnBulk = [](uint8_t* p, uint32_t n) {
            std::fill_n(p, n, uint8_t{ 0x55 });
            return int64_t{ n };
        };
        platform::SetUsbStack(&stack);
        Reopen();
    }
    void Reopen()
    {
        auto& driver = platform::UsbDriver();
        const auto list = driver.GetClassDevs(platform::g_InterfaceGuids[platform::GUID_COUNT - 1]);
        std::string sPath;
        if (platform::IsDeviceOpen(handle))
            driver.Close(handle);
        if (!list || !driver.EnumInterface(list, 0) || !driver.GetInterfacePath(list, 0, &sPath))
            std::abort();
        driver.DestroyList(list);
        handle = driver.Open(sPath.c_str());
    }
    RecordingStack stack;
    FakeUsbDevice& dev = stack.Add(0xC11A);
    platform::DeviceHandle handle = platform::INVALID_DEVICE;
};

}  // namespace

// Bytes: code; bit 0 overlapped, bit 1 another output; size of that output, low byte first; then the block.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    static Device& s_device = *new Device;
    if (size < 4)
        return 0;
    const uint32_t dwCode = CODES[pData[0] % std::size(CODES)];
    const bool bOverlapped = pData[1] & 1, bOther = pData[1] & 2;
    const uint32_t dwIn = uint32_t(size - 4), dwOther = pData[2] | uint32_t(pData[3]) << 8;
    const std::unique_ptr<uint8_t[]> block(new uint8_t[dwIn]), other(new uint8_t[dwOther]);
    std::copy(pData + 4, pData + size, block.get());

    auto& driver = platform::UsbDriver();
    platform::Overlapped o{};
    o.hEvent = platform::MakeEvent();
    uint32_t dwBytes = 0;
    driver.IoControl(s_device.handle, dwCode, block.get(), dwIn, bOther ? other.get() : block.get(), bOther ? dwOther : dwIn,
                     &dwBytes, bOverlapped ? &o : nullptr);
    if (bOverlapped)
        driver.GetResult(s_device.handle, &o, &dwBytes, true);
    platform::FreeEvent(o.hEvent);
    s_device.dev.Clear();
    s_device.dev.ClearEvents();
    if (dwCode == platform::IO_CYCLE_PORT)  // the handle is dead
        s_device.Reopen();
    return 0;
}
