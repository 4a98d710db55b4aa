// Exposure of the rolling-shutter families whose FPGA owns the frame length and whose sensor holds the shutter line.
#pragma once
#include <cstdint>

// How a family counts lines. n is the exposure in whole lines.
struct ExposureLaw {
    int iFrameLines;   // lines beyond the picture in the frame time
    int iMinVMAX;      // lines beyond the picture in the shortest frame
    int iShsBias;      // SHS = VMAX - n - iShsBias in a frame that is not stretched
    int iShsMin;       // lowest SHS there
    int iShsMaxLines;  // highest SHS there, lines beyond the picture
    int iLongBias;     // VMAX = n + iLongBias in a stretched frame
    uint32_t lVMAXCap;
    int iExpLinesBias;  // m_iExpLines = VMAX - SHS - iExpLinesBias
    int iLongShs = 0;   // SHS in a stretched frame
};

struct ExposureRegs {
    uint32_t lVMAX;      // frame length, lines
    uint32_t lSHS;       // line at which integration starts
    int32_t iFrameTime;  // us, shortest frame
    int32_t iExpLines;
};

// exp in us, lineTime in us, sensorH lines that leave the sensor. t0: part of the exposure, in us, that the shutter line
// does not count. Every step is single precision.
ExposureRegs CalcExposure(const ExposureLaw& law, uint64_t exp, float lineTime, int sensorH, float t0 = 0.0f);
