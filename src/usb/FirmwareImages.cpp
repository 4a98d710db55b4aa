#include "usb/FirmwareImages.h"

#include <array>
#include <optional>

#include "FirmwareData.h"

namespace {

std::array<std::optional<FirmwareImage>, FIRMWARE_COUNT> g_Override;

}  // namespace

FirmwareImage FindFirmware(FirmwareId id)
{
    const auto i = static_cast<size_t>(id);
    return g_Override.at(i) ? *g_Override[i] : g_FirmwareData[i];
}

void SetFirmware(FirmwareId id, FirmwareImage image) { g_Override.at(static_cast<size_t>(id)) = image; }
void ClearFirmware() { g_Override = {}; }
