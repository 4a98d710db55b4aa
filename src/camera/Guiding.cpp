// Guide port and user ID: straight to the camera's firmware, the same on every model.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "camera/CCameraBase.h"
#include "platform/Platform.h"

namespace {

constexpr uint32_t ID_SECTOR = 7;
constexpr uint16_t ID_PAGE = 1792;  // first page of that sector, in units of 256 bytes
constexpr int32_t PAGE_BYTES = 256;
constexpr int ID_WRITE_TRIES = 3;
constexpr size_t ID_END = 2 + sizeof(KOV_ID);  // letters and ID; the rest of the page means nothing

bool IsDirection(GuideD d) { return static_cast<uint32_t>(d) <= 3; }

void Guide(CCameraFX3& cam, VendorRequest request, GuideD direction)
{
    int32_t length = 0;
    cam.SendCMD(request, static_cast<uint16_t>(direction), 0, false, nullptr, &length);
}

bool TransferPage(CCameraFX3& cam, bool input, uint8_t* page)
{
    int32_t length = PAGE_BYTES;
    return cam.SendCMD(input ? REQ_FLASH_READ : REQ_FLASH_WRITE, 0, ID_PAGE, input, page, &length);
}

}  // namespace

bool CCameraBase::pulseGuideOn(GuideD direction)
{
    if (IsDirection(direction))
        Guide(*this, REQ_GUIDE_ON, direction);
    return true;
}

bool CCameraBase::pulseGuideOff(GuideD direction)
{
    if (IsDirection(direction))
        Guide(*this, REQ_GUIDE_OFF, direction);
    return true;
}

bool CCameraBase::pulseGuide(GuideD direction, int milliseconds)
{
    if (!IsDirection(direction))
        return true;
    pulseGuideOn(direction);
    platform::SleepMs(static_cast<uint32_t>(std::max(0, milliseconds)));  // also when the camera is closed
    return pulseGuideOff(direction);
}

bool CCameraBase::ReadIDFromSPI(KOV_ID* out)
{
    EnableGPIF32DQ(false);
    uint8_t page[PAGE_BYTES] = {};
    const bool ok = TransferPage(*this, true, page) && page[0] == 'I' && page[1] == 'D';
    if (ok)
        std::memcpy(out->id, page + 2, sizeof out->id);
    EnableGPIF32DQ(true);
    return ok;
}

bool CCameraBase::WriteIDToSPI(KOV_ID value)
{
    EnableGPIF32DQ(false);
    bool ok = false;
    // Erased once; a retry writes over what the try before has left.
    if (EraseSectorOfSPIFlash(ID_SECTOR, REQ_FLASH_ERASE) == FX3_FW_SUCCESS) {
        uint8_t page[PAGE_BYTES] = { 'I', 'D' }, back[PAGE_BYTES] = {};
        std::memcpy(page + 2, value.id, sizeof value.id);
        // Only what is read back counts, not the results of the transfers.
        for (int i = 0; i < ID_WRITE_TRIES && !ok; ++i) {
            TransferPage(*this, false, page);
            TransferPage(*this, true, back);
            ok = std::memcmp(page, back, ID_END) == 0;
        }
    }
    EnableGPIF32DQ(true);
    return ok;
}
