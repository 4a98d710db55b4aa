// One row a model: everything in which the constructors of the model classes differ. A row names what it does not share
// with most models; rows that begin as another model's are made with Named, Mono and Cooled.
#pragma once
#include <cstdint>
#include <initializer_list>

#include "KOVCamera2.h"

// clang-format off
enum class Family : uint8_t {
    Garnet, GarnetS, Cobalt, Agate, Dunite, Iolite, Beryl, Jasper, Nephrite, Onyx, Pyrite, Quartz, Lapis, Marble, Kyanite,
    Ebony, Flint, Halite,
};
// clang-format on

struct ProductName {
    uint16_t productId;  // 0 ends the list
    const char* name;    // name after open, or nullptr: the constructor's stays
};

struct PhaseRow {
    uint8_t bin;            // 0 ends the list
    int8_t x1, y1, x2, y2;  // shifts of an even and of an odd coordinate, sensor pixels
};

struct Range {
    int32_t min, max, def;
};

// Availability flags; gain, exposure and gamma are always there.
enum : uint16_t {
    CAP_BRIGHTNESS = 1,
    CAP_BANDWIDTH = 2,
    CAP_WB_R = 4,
    CAP_WB_B = 8,
    CAP_BANDWIDTH_AUTO = 16,
    CAP_OVERCLK = 32,
    CAP_TEMPERATURE = 64,
    CAP_FLIP = 128,
    CAP_AUTO = 256,
    CAP_WB = CAP_WB_R | CAP_WB_B,
    CAP_COMMON = CAP_BRIGHTNESS | CAP_BANDWIDTH | CAP_BANDWIDTH_AUTO | CAP_TEMPERATURE,  // of most models
};
enum : uint8_t {
    TYPE_RAW8 = 1,
    TYPE_RGB24 = 2,
    TYPE_Y8 = 4,
    TYPE_RAW16 = 8,
    TYPES_COLOR = TYPE_RAW8 | TYPE_RGB24 | TYPE_Y8 | TYPE_RAW16,
};
// Start values that differ.
enum : uint8_t { START_HARDWARE_BIN = 1, START_HIGH_SPEED = 2, START_AUTO_FPS = 4 };
// What CloseCamera does with the link.
enum : uint8_t { CLOSE_LINK = 1, CLOSE_CLEARS_POINTER = 2 };

struct ModelTraits {
    Family family;
    const char* className;         // "CCameraSQuartzCol"
    const char* name;              // model string
    const wchar_t* key;            // settings key
    int guidSlot = 10;             // 1 to 10
    ProductName products[6] = {};  // accepted by OpenCamera
    int width, height;             // sensor pixels
    double pixelSize;              // um
    BayerPattern bayer;
    bool isColor = true, isUsb3 = true, hasCooler = false;
    float elecPerADU = 0;
    int32_t propA = 0, propB = 0, propC = -1, propD = -1;
    Range gain, exposure;  // exposure in us
    int32_t wbR, wbB, wbMin = 1, wbMax = 99;
    Range brightness;
    int32_t bandwidthMin = 40, bandwidthMax = 100;
    int32_t fpsPerc = 80, fpsPercUsb3 = 80;
    int32_t clock, hmax;          // start values; clock in kHz or MHz by family
    int32_t maxExposure;          // us
    int32_t autoGainMax = 0;      // 0: the base's stays
    int32_t autoExpMaxCap = -1;   // s; -1: none
    uint16_t caps;                // CAP_
    uint8_t types = TYPES_COLOR;  // TYPE_
    uint8_t start;                // START_
    uint8_t close = CLOSE_LINK | CLOSE_CLEARS_POINTER;
    int8_t bins[5];           // supported bins, zero-ended
    int8_t controls[20];      // control list, ended by -1
    PhaseRow phases[4] = {};  // hot-pixel shifts of hardware binning
    bool isDdr = false;       // hardware binning sums
};

// Another model's row under names of its own. Variants of the product ID stay accepted.
constexpr ModelTraits Named(ModelTraits t, const char* className, const char* name, const wchar_t* key, uint16_t productId)
{
    t.className = className;
    t.name = name;
    t.key = key;
    t.products[0] = { productId, nullptr };
    return t;
}

constexpr void DropControl(ModelTraits& t, int control)
{
    int n = 0;
    for (int i = 0; t.controls[i] >= 0; ++i)
        if (t.controls[i] != control)
            t.controls[n++] = t.controls[i];
    t.controls[n] = -1;
}

// The monochrome form of a model: no white balance, raw images only.
constexpr ModelTraits Mono(ModelTraits t)
{
    t.isColor = false;
    t.caps &= ~CAP_WB;
    t.types &= TYPE_RAW8 | TYPE_RAW16;
    DropControl(t, CTRL_WB_R);
    DropControl(t, CTRL_WB_B);
    return t;
}

// The cooled form of a model: on CCameraCool, with the three cooler controls behind the others.
constexpr ModelTraits Cooled(const ModelTraits& base, const char* className, const char* name, const wchar_t* key,
                             uint16_t productId)
{
    ModelTraits t = Named(base, className, name, key, productId);
    t.hasCooler = true;
    int n = 0;
    while (t.controls[n] >= 0)
        ++n;
    for (const auto control : { CTRL_COOL_POWER_PERC, CTRL_TARGET_TEMP, CTRL_COOLER_ON })
        t.controls[n++] = static_cast<int8_t>(control);
    t.controls[n] = -1;
    return t;
}
