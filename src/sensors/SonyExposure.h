// Exposure of the rolling-shutter families whose FPGA owns the frame length and whose sensor holds the shutter line.
#pragma once
#include <cstdint>

// How a family counts lines. n is the exposure in whole lines.
struct ExposureLaw {
    int frameLines;   // lines beyond the picture in the frame time
    int minVmax;      // lines beyond the picture in the shortest frame
    int shsBias;      // SHS = VMAX - n - shsBias in a frame that is not stretched
    int shsMin;       // lowest SHS there
    int shsMaxLines;  // highest SHS there, lines beyond the picture
    int longBias;     // VMAX = n + longBias in a stretched frame
    uint32_t vmaxCap;
    int expLinesBias;  // m_iExpLines = VMAX - SHS - expLinesBias
    int longShs = 0;   // SHS in a stretched frame
};

struct ExposureRegs {
    uint32_t vmax;      // frame length, lines
    uint32_t shs;       // line at which integration starts
    int32_t frameTime;  // us, shortest frame
    int32_t expLines;
};

// exp in us, lineTime in us, sensorH lines that leave the sensor. t0: part of the exposure, in us, that the shutter line
// does not count. Every step is single precision.
ExposureRegs CalcExposure(const ExposureLaw& law, uint64_t exp, float lineTime, int sensorH, float t0 = 0.0f);
