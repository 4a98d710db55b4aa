// What flips make of a Bayer pattern.
#pragma once
#include <optional>

#include "KOVCamera2.h"
#include "imaging/Reference.h"

namespace imaging {

// The cell that a frame begins with after the flips: a mirrored row exchanges its columns, reversed rows its rows.
// None for a pattern that is no pattern.
std::optional<BayerPhase> PhaseAfterFlips(BayerPattern pattern, bool flipRow, bool flipColumn);

}  // namespace imaging
