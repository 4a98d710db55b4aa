// Auto white balance: what is measured of a frame, and the balance that follows from it.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>

#include "automation/AutoExposure.h"

constexpr int WB_GRID = 16;  // blocks in each direction
constexpr int WB_BLOCKS = WB_GRID * WB_GRID;
enum { WB_RED, WB_GREEN, WB_BLUE, WB_COLORS };

// What was measured, by colour and block; block (row j, column k) is entry 16 j + k.
struct WBBlocks {
    int32_t dev[WB_COLORS][WB_BLOCKS];
    int32_t mean[WB_COLORS][WB_BLOCKS];
};

namespace automation {

struct Block {
    int x, y, width, height;
};  // samples
struct ColourStatistics {
    int dev[WB_COLORS], mean[WB_COLORS];
};

// Mean and deviation of the colours of a block of a Bayer mosaic; rows are frame.width samples apart. `cell`: colours of the 2 by
// 2 cell. A colour whose dev in `measure` is 0 counts points in place of deviations. `scale` multiplies the means alone, up to
// 255.
ColourStatistics BlockStatistics(const RawFrame& frame, const Block& block, const uint8_t cell[4], const int measure[WB_COLORS],
                                 uint32_t scale);

struct Balance {
    int32_t red, blue;
};

// Weights each block's colour by its texture, so that sky and background count little, and derives the next balance from the
// present one; none where the colours agree. block0IfFlat: a colour without any texture takes the mean of block 0; otherwise it
// counts as 0. brightnessMoves: exposure or gain are regulated too.
std::optional<Balance> NextBalance(const WBBlocks& blocks, bool block0IfFlat, bool brightnessMoves, Balance now);

}  // namespace automation
