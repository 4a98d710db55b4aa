// One pass over a frame: from the raw rows to the rows of the output, strip by strip, so that what lies between stays in a
// core's cache. It knows no camera: memory in, memory out.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>

#include "imaging/Reference.h"
#include "imaging/Tables.h"

namespace imaging {

// A sample of the raw frame and what stands in its place.
struct Patch {
    size_t at;
    uint16_t value;
};

enum class Output : uint8_t {
    Samples,    // as they are, 1 or 2 bytes
    Grey24,     // 8-bit samples three times
    Colour24,   // 8-bit samples, demosaiced to 3 bytes a pixel
    Luminance,  // 8-bit samples, demosaiced to luminance
};

// The stages of a frame in their order; what is empty or 1 is left out. All memory stays the caller's and outlives the walk.
struct FramePlan {
    const uint8_t* raw = nullptr;  // rawWidth x (height * bin) samples at least
    int rawWidth = 0;              // width * bin
    bool is16 = false;             // samples of 2 bytes, aligned

    // Of each sample by itself.
    bool rotate12 = false;           // 16 bits
    const uint16_t* dark = nullptr;  // 8 bits; one entry a raw sample
    uint32_t darkOffset = 0;
    const uint8_t* gamma8 = nullptr;  // 256 entries
    const WordTables* gamma16 = nullptr;
    std::span<const Patch> patches;  // ascending by place; after all of the above

    // Of the geometry.
    bool reverseRows = false, mirrorRows = false;
    bool flipFirst = false;  // before the bin, which is not the same where sizes are odd
    int bin = 1;             // 1 to MAX_BIN
    bool colourBin = false;
    int width = 0, height = 0;  // after the bin

    Output output = Output::Samples;
    BayerPhase phase = PHASE_RG;  // after the flips
    const Gains* gains = nullptr;
    size_t bytes = 0;  // room of the output; rows that do not fit are left out, but of
                       // Samples the last one is cut
};
inline constexpr int MAX_BIN = 16;

// Rows of the output that fit. For all but Samples this is the height that demosaic sees.
int RowsThatFit(const FramePlan& plan);
void Walk(const FramePlan& plan, uint8_t* dst);

// One raw sample as the walk makes it, before patches. T is the plan's sample.
template <class T>
T WorkedSample(const FramePlan& plan, size_t at);

}  // namespace imaging
