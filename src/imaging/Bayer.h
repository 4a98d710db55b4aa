// From a raw colour frame, already flipped, to what the host asked for. Host threads; no lock.
#pragma once
#include <cstdint>
#include <optional>

#include "KOVCamera2.h"
#include "imaging/Reference.h"

class CCameraBase;

namespace imaging {

// The cell that a frame begins with after the flips: a mirrored row exchanges its columns, reversed rows its rows.
// None for a pattern that is no pattern.
std::optional<BayerPhase> PhaseAfterFlips(BayerPattern pattern, bool flipRow, bool flipColumn);

// Byte for byte what Bayer2RGB24 and then RGB2Y8 deliver, without the colour frame between. `dst` holds width * height
// bytes and does not overlap `src`.
void Bayer2Y8(const CCameraBase& camera, const uint8_t* src, uint8_t* dst, int width, int height);

}  // namespace imaging
