#include "common/Frame.h"

#include <cmath>
#include <stdexcept>
#include <string_view>

namespace kovtools {

const char* ErrorText(KOV_ERROR_CODE code)
{
    switch (code) {
    case KOV_SUCCESS: return "success";
    case KOV_ERROR_BAD_INDEX: return "camera index out of range";
    case KOV_ERROR_BAD_ID: return "camera ID out of range";
    case KOV_ERROR_BAD_CONTROL: return "the camera has no such control";
    case KOV_ERROR_NOT_OPEN: return "the camera is not open, or the model is unknown";
    case KOV_ERROR_OPEN_FAILED: return "the camera could not be opened; is another program using it? Try 'kovcam doctor'";
    case KOV_ERROR_BAD_PATH: return "the file cannot be opened";
    case KOV_ERROR_BAD_FILE: return "not an 8-bit BMP of the full sensor size";
    case KOV_ERROR_BAD_SIZE: return "the camera refuses this region; widths are multiples of 4 (8 on some), heights even";
    case KOV_ERROR_BAD_IMAGE_TYPE: return "unknown image type";
    case KOV_ERROR_OUT_OF_BOUNDS: return "the start position is refused";
    case KOV_ERROR_TIMEOUT: return "no frame came in time; check cable and port, lower the bandwidth, or try 'kovcam doctor'";
    case KOV_ERROR_BUFFER_SMALL: return "the buffer is too small";
    case KOV_ERROR_VIDEO_ACTIVE: return "video is running";
    case KOV_ERROR_EXPOSING: return "an exposure is running";
    case KOV_ERROR_GENERAL: return "the camera refused";
    }
    return "unknown error";
}

const char* TypeName(IMG_TYPE type)
{
    switch (type) {
    case IMG_RAW8: return "raw8";
    case IMG_RGB24: return "rgb24";
    case IMG_RAW16: return "raw16";
    case IMG_Y8: return "y8";
    default: return "?";
    }
}

const char* PatternName(BayerPattern pattern)
{
    static constexpr const char* names[] = { "RGGB", "BGGR", "GRBG", "GBRG" };
    return names[pattern & 3];
}

std::vector<IMG_TYPE> TypesOf(const KOV_CAMERA_INFO& info)
{
    std::vector<IMG_TYPE> types;
    for (const IMG_TYPE t : info.SupportedImgTypes) {
        if (t == IMG_END)
            break;
        types.push_back(t);
    }
    return types;
}

std::vector<int> BinsOf(const KOV_CAMERA_INFO& info)
{
    std::vector<int> bins;
    for (const int32_t b : info.SupportedBins) {
        if (b == 0)
            break;
        bins.push_back(b);
    }
    return bins;
}

std::vector<KOV_CONTROL_CAPS> ControlsOf(int32_t id)
{
    int32_t count = 0;
    KOVGetNumOfControls(id, &count);
    std::vector<KOV_CONTROL_CAPS> all;
    for (int32_t i = 0; i < count; ++i)
        if (KOV_CONTROL_CAPS caps{}; KOVGetControlCaps(id, i, &caps) == KOV_SUCCESS)
            all.push_back(caps);
    return all;
}

std::optional<int32_t> ReadControl(int32_t id, KOV_CONTROL_TYPE control)
{
    int32_t value = 0;
    KOV_BOOL automatic = KOV_FALSE;
    for (const KOV_CONTROL_CAPS& caps : ControlsOf(id))
        if (caps.ControlType == control)
            return KOVGetControlValue(id, control, &value, &automatic) == KOV_SUCCESS ? std::optional(value) : std::nullopt;
    return std::nullopt;
}

CameraState ReadCameraState(int32_t id)
{
    CameraState s;
    const auto check = [](KOV_ERROR_CODE code) {
        if (code != KOV_SUCCESS)
            throw std::runtime_error(std::string("the camera's state: ") + ErrorText(code));
    };
    check(KOVGetCameraProperty(&s.info, id));
    check(KOVGetROIFormat(id, &s.width, &s.height, &s.bin, &s.type));
    check(KOVGetStartPos(id, &s.startX, &s.startY));
    s.exposure = ReadControl(id, CTRL_EXPOSURE).value_or(0) / 1e6;
    s.gain = ReadControl(id, CTRL_GAIN).value_or(0);
    s.offset = ReadControl(id, CTRL_BRIGHTNESS).value_or(0);
    s.gamma = ReadControl(id, CTRL_GAMMA).value_or(50);
    s.flip = ReadControl(id, CTRL_FLIP).value_or(0) & 3;
    s.hardwareBin = ReadControl(id, CTRL_HARDWARE_BIN).value_or(0) != 0;
    s.highSpeed = ReadControl(id, CTRL_HIGH_SPEED_MODE).value_or(0) != 0;
    KOV_BOOL dark = KOV_FALSE;
    if (KOVEnableDarkSubtract(id, "", &dark) == KOV_SUCCESS)
        s.darkSubtracted = dark != KOV_FALSE && s.type != IMG_RAW16;
    if (const auto t = ReadControl(id, CTRL_TEMPERATURE))
        s.temperature = *t / 10.0;
    if (ReadControl(id, CTRL_COOLER_ON).value_or(0) != 0) {
        s.target = ReadControl(id, CTRL_TARGET_TEMP);
        s.coolerPower = ReadControl(id, CTRL_COOL_POWER_PERC);
    }
    return s;
}

const std::array<uint8_t, 4>& CellColours(BayerPattern pattern)
{
    static constexpr std::array<uint8_t, 4> colours[4] = { { 0, 1, 1, 2 }, { 2, 1, 1, 0 }, { 1, 0, 2, 1 }, { 1, 2, 0, 1 } };
    return colours[pattern & 3];
}

BayerPattern Exchanged(BayerPattern pattern, bool columns, bool rows)
{
    static constexpr BayerPattern table[4][4] = {
        { BAYER_RG, BAYER_GR, BAYER_GB, BAYER_BG },
        { BAYER_BG, BAYER_GB, BAYER_GR, BAYER_RG },
        { BAYER_GR, BAYER_RG, BAYER_BG, BAYER_GB },
        { BAYER_GB, BAYER_BG, BAYER_RG, BAYER_GR },
    };
    return table[pattern & 3][(columns ? 1 : 0) | (rows ? 2 : 0)];
}

BayerPattern DeliveredPattern(const CameraState& state)
{
    return Exchanged(state.info.BayerPattern, (state.flip & 1) != 0, (state.flip & 2) != 0);
}

bool IsMosaic(const CameraState& state)
{
    return state.info.IsColorCam != KOV_FALSE && (state.type == IMG_RAW8 || state.type == IMG_RAW16);
}

namespace {

// How the gain setting acts; of the families whose models tell electrons per ADU.
struct GainLaw {
    std::string_view family;
    int adcBits;
    int tenthsOfDb;  // step of the sensor, tenths of a decibel; 0: the staged law of Garnet
};
constexpr GainLaw g_Laws[] = {
    { "Garnet", 12, 0 }, { "Jasper", 12, 1 }, { "Nephrite", 12, 3 }, { "Onyx", 12, 1 },
    { "Quartz", 12, 3 }, { "Lapis", 12, 1 },  { "Marble", 14, 1 },   { "Kyanite", 12, 1 },
};

// Stages of 1, 2, 4 and 8, each refined in steps of a thirty-second; the monochrome models go on steeper above 63.
double GarnetGain(int g, bool colour)
{
    const int stage = g < 16 ? 0 : g < 32 ? 1 : g < 48 ? 2 : 3;
    const int word = colour || g < 64 ? 2 * g + 32 * (1 - stage) : g < 80 ? 4 * g - 192 : 6 * (g - 80) + 128;
    return word / 32.0 * (1 << stage);
}

}  // namespace

std::optional<double> ElectronsPerSample(const CameraState& s)
{
    const bool colour = s.info.IsColorCam != KOV_FALSE;
    const bool pure = s.type == IMG_RAW8 || s.type == IMG_RAW16 || (s.type == IMG_Y8 && !colour);
    if (s.info.ElecPerADU <= 0 || !pure || s.gamma != 50 || (s.bin > 1 && s.hardwareBin))
        return std::nullopt;
    for (const GainLaw& law : g_Laws) {
        if (std::string_view(s.info.Name).find(law.family) == std::string_view::npos)
            continue;
        const int tenths = law.tenthsOfDb == 0 ? 0 : s.gain / law.tenthsOfDb * law.tenthsOfDb;
        const double gain = law.tenthsOfDb == 0 ? GarnetGain(s.gain, colour) : std::pow(10.0, tenths / 200.0);
        const double fullScale = static_cast<double>(s.info.ElecPerADU) * (1 << law.adcBits) / gain;
        // Binning in software sums samples of 8 bits and averages those of 16.
        return fullScale / (TopSample(s.type) + 1) * (s.type == IMG_RAW16 ? s.bin * s.bin : 1);
    }
    return std::nullopt;
}

}  // namespace kovtools
