// Firmware images for every loader, in a block of exactly their size. The first byte chooses the loader, the second whether the
// camera reads back what was written.
#include <algorithm>
#include <memory>
#include <vector>

#include "fuzz/FuzzLink.h"
#include "usb/CCameraFX3.h"
#include "usb/FirmwareImages.h"

namespace {

struct Loader final : CCameraFX3 {
    Loader()
    {
        link.OnVendor = [this](const SetupPacket& s, uint8_t* p, uint32_t n) {
            if (!(s.bmRequestType & 0x80)) {
                last.assign(p, p + n);
                return static_cast<int32_t>(n);
            }
            std::fill_n(p, n, uint8_t{ 0 });
            if (faithful)
                std::copy_n(last.begin(), std::min<size_t>(last.size(), n), p);
            return static_cast<int32_t>(n);
        };
        link.Connect(*this);
        SetFirmware(FirmwareId::LoaderPart1, { part.data(), static_cast<int32_t>(part.size()) });
        SetFirmware(FirmwareId::LoaderPart2, { part.data(), static_cast<int32_t>(part.size()) });
    }
    FuzzLink link{ 0xC11A };
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
    return 0;
}
