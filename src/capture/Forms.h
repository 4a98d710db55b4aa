// What the families do differently in the capture thread: one row a family, one column a difference. What a row cannot
// say (the steps of the long exposures, the restarts) stands in SmallChunkLoop and LongExposure under the row's names.
#pragma once
#include <cstdint>

#include "camera/ModelTraits.h"

// How a frame names itself. The marks stand in place of image pixels.
constexpr uint32_t HEAD_B = 0xBB00AA11, TAIL_B = 0x11AA00BB;
enum class Marks : uint8_t {
    A,         // words 0x5A7E, tag ... tag, 0x3CF0; cleared before the frame is handed over
    B,         // first 32-bit word HEAD_B
    BAndTail,  // and last 32-bit word TAIL_B
};

// What runs beside the loop for the automation.
enum class Automation : uint8_t {
    Common,   // thread, short exposures only
    Iolite,   // thread, short exposures only, no white balance, pauses in long exposures
    Cobalt,   // thread with rules of its own; it also carries exposure and gain to the sensor
    OneShot,  // no thread that stays; one for a single step now and then
};

// How a long exposure is timed by the host, and how it ends.
enum class LongWay : uint8_t { Kyanite, Gate, Lapis, Ebony, Jasper, Garnet, Cobalt, Iolite, Dunite };

struct CaptureForm {
    Family family;
    bool smallChunk;  // loop of the USB 2 families: one buffer, other thresholds, frames with a bad head delivered
    uint32_t chunk;   // bytes of one bulk request
    Marks marks;
    bool capChunkWait;  // next chunk's wait: min(current, 100) ms; else frame time / N + 100
    Automation automation;
    bool queueFirst;  // requests are queued before the stream starts; sensor clock on first
    LongWay longWay;
    uint32_t longFirst;  // ms for the first chunk after a long exposure; 0: max(frame time, 2000)
    uint32_t longFixed;  // ms for the later ones; 0: frame time / N + longShare
    uint32_t longShare;
};

const CaptureForm& FormOf(Family family);
