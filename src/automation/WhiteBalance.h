// The part of auto white balance that is the same whether the raw mosaic or a demosaiced image was measured.
#pragma once
#include <cstdint>

class CCameraBase;

constexpr int WB_GRID = 16;                      // blocks in each direction
constexpr int WB_BLOCKS = WB_GRID * WB_GRID;
enum { WB_RED, WB_GREEN, WB_BLUE, WB_COLORS };

// What was measured, by colour and block; block (row j, column k) is entry 16 j + k.
struct WBBlocks {
    int32_t aDev[WB_COLORS][WB_BLOCKS];
    int32_t aMean[WB_COLORS][WB_BLOCKS];
};

// Weights each block's colour by its texture, so that sky and background count little; derives new balances from the
// present ones and sets them unless the colours agree. bBlock0IfFlat: a colour without any texture takes the mean of
// block 0; otherwise it counts as 0.
void StepWhiteBalance(CCameraBase& cam, const WBBlocks& blocks, bool bBlock0IfFlat);
