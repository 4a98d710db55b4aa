// A picture for the eye from samples of a camera.
#pragma once
#include <cstdint>
#include <vector>

#include "common/Frame.h"

namespace kovtools {

enum class Stretch { Linear, Auto };

// From sample to display byte; histogram[v] is how many samples have the value v. Auto lifts the faint end as far as the
// bright parts bear it: a dark sky shows its stars, a bright subject that fills the frame stays as it is.
std::vector<uint8_t> MakeCurve(const std::vector<uint32_t>& histogram, Stretch stretch);

struct ScreenPicture {
    int width = 0, height = 0, channels = 1;  // 1 grey; 3 red, green, blue
    std::vector<uint8_t> pixels;
};
// A mosaic is interpolated to colours. The frame has the type and shape that `state` tells.
ScreenPicture RenderForScreen(const FrameView& frame, const CameraState& state, Stretch stretch);

}  // namespace kovtools
