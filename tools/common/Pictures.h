// Picture files. Each appears whole or not at all, and replaces an older one of its name. All throw std::runtime_error.
#pragma once
#include <string>
#include <vector>

#include "common/FitsHeader.h"
#include "common/Frame.h"
#include "common/Stretch.h"

namespace kovtools {

// Colour images become three planes, red first.
void WriteFits(const std::string& path, const FrameView& frame, const std::vector<FitsCard>& cards);

// For the eye: a mosaic is shown in colour.
void WritePng(const std::string& path, const FrameView& frame, const CameraState& state, Stretch stretch);

// The samples as they are, 8 or 16 bits, uncompressed; a mosaic stays one. The camera stands in Model, exposure, gain
// and time in the description.
void WriteTiff(const std::string& path, const FrameView& frame, const CameraState& state, const FrameTimes& times);
extern const bool WRITES_TIFF;  // whether this build can

}  // namespace kovtools
