// One row a model: everything in which the constructors of the model classes differ.
#pragma once
#include <cstdint>
#include <initializer_list>

#include "KOVCamera2.h"

enum class Family : uint8_t {
    Garnet, GarnetS, Cobalt, Agate, Dunite, Iolite, Beryl, Jasper, Nephrite, Onyx, Pyrite, Quartz, Lapis, Marble, Kyanite,
    Ebony, Flint, Halite,
};

struct ProductName {
    uint16_t wProductId;   // 0 ends the list
    const char* szName;    // name after open, or nullptr: the constructor's stays
};

struct PhaseRow {
    uint8_t bin;           // 0 ends the list
    int8_t x1, y1, x2, y2; // shifts of an even and of an odd coordinate, sensor pixels
};

struct Range { int32_t iMin, iMax, iDef; };

// Availability flags; gain, exposure and gamma are always there.
enum : uint16_t {
    CAP_BRIGHTNESS = 1, CAP_BANDWIDTH = 2, CAP_WB_R = 4, CAP_WB_B = 8, CAP_BANDWIDTH_AUTO = 16, CAP_OVERCLK = 32,
    CAP_TEMPERATURE = 64, CAP_FLIP = 128, CAP_AUTO = 256,
};
enum : uint8_t { TYPE_RAW8 = 1, TYPE_RGB24 = 2, TYPE_Y8 = 4, TYPE_RAW16 = 8 };
// Start values that differ.
enum : uint8_t { START_HARDWARE_BIN = 1, START_HIGH_SPEED = 2, START_AUTO_FPS = 4 };
// What CloseCamera does with the link.
enum : uint8_t { CLOSE_LINK = 1, CLOSE_CLEARS_POINTER = 2 };

struct ModelTraits {
    Family family;
    const char* szClass;         // "CCameraSQuartzCol"
    const char* szName;          // model string
    const wchar_t* szKey;        // settings key
    int iGuidSlot;               // 1 to 10
    ProductName aProducts[6];    // accepted by OpenCamera
    int iWidth, iHeight;         // sensor pixels
    double dPixelSize;           // um
    BayerPattern bayer;
    bool bColor, bUSB3, bCooler;
    float fElecPerADU;
    int32_t iPropA, iPropB, iPropC, iPropD;
    Range gain, exposure;        // exposure in us
    int32_t iWB_R, iWB_B, iWBMin, iWBMax;
    Range brightness;
    int32_t iBandwidthMin, iBandwidthMax;
    int32_t iFPSPerc, iFPSPercUSB3;
    int32_t iClk, iHMAX;         // start values; clock in kHz or MHz by family
    int32_t iMaxExposure;        // us
    int32_t iAutoGainMax;        // 0: the base's stays
    int32_t iAutoExpMaxCap;      // s; -1: none
    uint16_t wCaps;              // CAP_
    uint8_t bTypes;              // TYPE_
    uint8_t bStart;              // START_
    uint8_t bClose;              // CLOSE_
    int8_t aBins[5];             // supported bins, zero-ended
    int8_t aControls[20];        // control list, ended by -1
    PhaseRow aPhase[4];          // hot-pixel shifts of hardware binning
    bool bDDR;                   // hardware binning sums
};

// The cooled form of a model: on CCameraCool, with the three cooler controls behind the others.
constexpr ModelTraits Cooled(ModelTraits t, const char* szClass, const char* szName, const wchar_t* szKey,
                             uint16_t wProductId)
{
    t.szClass = szClass;
    t.szName = szName;
    t.szKey = szKey;
    t.aProducts[0] = { wProductId, nullptr };
    t.bCooler = true;
    int n = 0;
    while (t.aControls[n] >= 0)
        ++n;
    for (const auto control : { CTRL_COOL_POWER_PERC, CTRL_TARGET_TEMP, CTRL_COOLER_ON })
        t.aControls[n++] = static_cast<int8_t>(control);
    t.aControls[n] = -1;
    return t;
}
