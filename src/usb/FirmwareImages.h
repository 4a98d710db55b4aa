// Firmware images that are compiled in from data/firmware (see the README there). None ship with the sources.
#pragma once
#include <cstdint>

enum class FirmwareId { GarnetMono, GarnetCol, IoliteMono, CobaltCol, LoaderPart1, LoaderPart2 };
constexpr int FIRMWARE_COUNT = 6;

struct FirmwareImage {
    const uint8_t* data = nullptr;
    int32_t size = 0;  // bytes
    explicit operator bool() const { return data != nullptr; }
};

// An image that was absent at build time is null; the caller then leaves the camera as it is. Any thread.
FirmwareImage FindFirmware(FirmwareId id);

// Tests only: stands in for an image (a null one for "absent"); the bytes must live until ClearFirmware, which brings
// the compiled-in images back. Not while a camera is being opened.
void SetFirmware(FirmwareId id, FirmwareImage image);
void ClearFirmware();
