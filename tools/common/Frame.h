// A delivered image and the state of the camera that took it: what files, drivers and servers say about a picture.
#pragma once
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KOVCamera2.h"

namespace kovtools {

// Somebody's image, as the library delivers it: rows from the top, no padding. The data must outlive the view.
struct FrameView {
    const uint8_t* data = nullptr;
    int width = 0, height = 0;
    IMG_TYPE type = IMG_RAW8;

    size_t Pixels() const { return static_cast<size_t>(width) * static_cast<size_t>(height); }
    int Channels() const { return type == IMG_RGB24 ? 3 : 1; }
    size_t Samples() const { return Pixels() * static_cast<size_t>(Channels()); }
    bool Is16() const { return type == IMG_RAW16; }
    size_t Bytes() const { return Samples() * (Is16() ? 2 : 1); }
    int At(size_t sample) const  // data of 16 bits are little-endian on every machine
    {
        return Is16() ? data[2 * sample] | data[2 * sample + 1] << 8 : data[sample];
    }
};

// The largest sample of a type; white of a picture.
constexpr int TopSample(IMG_TYPE type) { return type == IMG_RAW16 ? 65535 : 255; }
// From here on a sample counts as saturated: cameras of 10 bits end at 65472.
constexpr int SaturatedSample(IMG_TYPE type) { return type == IMG_RAW16 ? 65472 : 255; }

// What was in force when an image was taken. A control that the camera lacks is at its neutral value.
struct CameraState {
    KOV_CAMERA_INFO info{};
    double exposure = 0;                 // s
    int gain = 0, offset = 0;            // in the camera's units
    int gamma = 50;                      // 50 is neutral
    int flip = 0;                        // 0 none, 1 horizontal, 2 vertical, 3 both
    int width = 0, height = 0, bin = 1;  // output pixels
    int startX = 0, startY = 0;          // of the region, output pixels
    IMG_TYPE type = IMG_RAW8;
    bool hardwareBin = false, highSpeed = false, darkSubtracted = false;
    std::optional<double> temperature;  // degrees Celsius; a cooled camera first knows it 0.6 s after it was opened
    std::optional<double> target;       // of the cooler, while it is on
    std::optional<double> coolerPower;  // percent
};

// Asks the open camera; throws std::runtime_error when it answers with an error. Any thread.
CameraState ReadCameraState(int32_t id);
std::vector<KOV_CONTROL_CAPS> ControlsOf(int32_t id);
// One control; nothing where the camera has no such control.
std::optional<int32_t> ReadControl(int32_t id, KOV_CONTROL_TYPE control);

const char* ErrorText(KOV_ERROR_CODE code);     // what happened and, where there is one, what to do next
const char* TypeName(IMG_TYPE type);            // "raw8"
const char* PatternName(BayerPattern pattern);  // "RGGB"
std::vector<IMG_TYPE> TypesOf(const KOV_CAMERA_INFO& info);
std::vector<int> BinsOf(const KOV_CAMERA_INFO& info);

// Colour (0 red, 1 green, 2 blue) of a cell's four pixels, row by row.
const std::array<uint8_t, 4>& CellColours(BayerPattern pattern);
// The cell with its columns, its rows or both exchanged: what a flip makes of it, and where a mosaic begins one pixel later.
BayerPattern Exchanged(BayerPattern pattern, bool columns, bool rows);
// Cell order of the delivered mosaic from its first pixel on: regions begin on a whole cell, flips turn it.
BayerPattern DeliveredPattern(const CameraState& state);
// Whether the samples are a mosaic of colours.
bool IsMosaic(const CameraState& state);

// Electrons that one step of the delivered samples stands for, green pixels of a colour camera. Nothing where the model
// tells no figure, where the samples are not linear (gamma) or mixed (RGB24, Y8 of colours), and at hardware binning,
// which sums on some models and averages on others.
std::optional<double> ElectronsPerSample(const CameraState& state);

}  // namespace kovtools
