// Firmware images for every loader, in a block of exactly their size. The first byte chooses the loader, the second whether the
// camera reads back what was written.
#include <algorithm>
#include <cstdlib>
#include <memory>

#include "platform/UsbAdapter.h"
#include "tests/support/RecordingStack.h"
#include "usb/CCameraFX3.h"
#include "usb/CUsbLink.h"
#include "usb/FirmwareImages.h"

namespace {

struct Loader final : CCameraFX3 {
    Loader()
    {
        device.OnFail = [this](const RecordedRequest& r) {
            if (!r.bIn)
                last = r.data;
            return false;
        };
        device.OnIn = [this](const RecordedRequest&, uint8_t* p, uint16_t n) {
            if (faithful)
                std::copy_n(last.begin(), std::min<size_t>(last.size(), n), p);
        };
        platform::SetUsbStack(&stack);
        ReplaceLink(new CUsbLink(nullptr, m_guid, true));
        m_bOpen = true;
        SetFirmware(FirmwareId::LoaderPart1, { part.data(), static_cast<int32_t>(part.size()) });
        SetFirmware(FirmwareId::LoaderPart2, { part.data(), static_cast<int32_t>(part.size()) });
    }
    ~Loader()
    {
        ClearFirmware();
        ReplaceLink(nullptr);
        platform::SetUsbStack(nullptr);
    }
    RecordingStack stack;
    FakeUsbDevice& device = stack.Add(0xC11A);
    std::vector<uint8_t> part = std::vector<uint8_t>(64), last;
    bool faithful = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Loader& loader = *new Loader;
    if (size < 2 || size > 65536)
        return 0;
    const size_t n = size - 2;
    const std::unique_ptr<uint8_t[]> image(new uint8_t[n]);
    std::copy(data + 2, data + size, image.get());
    loader.faithful = data[1] & 1;
    switch (data[0] % 5) {
    case 0: loader.UpdateFW(image.get(), static_cast<int32_t>(n)); break;
    case 1:
        if (n > 0)  // without a length the end mark is the end
            loader.UpdateFW2RAM(image.get(), static_cast<int32_t>(n));
        break;
    case 2: loader.DownloadFwToRam(image.get(), static_cast<uint32_t>(n), 160); break;
    case 3: loader.DownloadBuftoI2CE2PROM(image.get(), static_cast<int32_t>(n), 186); break;
    default: loader.DownloadBuftoSPIFLASH(image.get(), static_cast<uint32_t>(n), 196); break;
    }
    loader.device.Clear();
    loader.device.ClearEvents();
    return 0;
}
