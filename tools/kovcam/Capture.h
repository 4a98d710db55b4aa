// Taking pictures with progress; used by snap, video and the commands built on them.
#pragma once
#include <functional>

#include "common/FitsHeader.h"
#include "common/FrameClock.h"
#include "kovcam/Camera.h"

namespace kovcam {

// One delivered image with what a file should say about it.
struct Picture {
    std::vector<uint8_t> data;
    kovtools::CameraState state;
    kovtools::FrameTimes times;
    kovtools::FrameClock::Steady::time_point arrival;  // of a video's frame
    int dropped = 0;                                   // frames lost since the video began

    kovtools::FrameView View() const { return { data.data(), state.width, state.height, state.type }; }
};

// A picture record with everything but the data.
Picture Describe(const Camera& cam);
// One exposure, with a bar on exposures over a second. Ctrl-C throws. false: the camera gave up.
bool TakeSnap(Camera& cam, Picture& p, const std::string& label = "exposing");

struct VideoResult {
    int frames = 0, dropped = 0, timeouts = 0;
    double seconds = 0;
};
// Video until onFrame returns false, Ctrl-C, or three time-outs in a row (then a UserError).
VideoResult RunVideo(Camera& cam, const std::function<bool(Picture&)>& onFrame);

}  // namespace kovcam
