// Taking pictures with progress; used by snap, video and the commands built on them.
#pragma once
#include <functional>

#include "kovcam/Camera.h"
#include "kovcam/Output.h"

namespace kovcam {

// A picture record with everything but the data.
Picture Describe(const Camera& cam, const std::string& imageType = "Light Frame");
// One exposure, with a bar on exposures over a second. Ctrl-C throws. false: the camera gave up.
bool TakeSnap(Camera& cam, Picture& p, const std::string& label = "exposing");

struct VideoResult { int iFrames = 0, iDropped = 0, iTimeouts = 0; double dSeconds = 0; };
// Video until onFrame returns false, Ctrl-C, or three time-outs in a row (then a UserError).
VideoResult RunVideo(Camera& cam, const std::function<bool(Picture&)>& onFrame);

}  // namespace kovcam
