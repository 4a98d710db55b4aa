// What can be measured on a frame: brightness and stars.
#pragma once
#include <cstdint>
#include <vector>

#include "common/Frame.h"

namespace kovtools {

std::vector<uint32_t> Histogram(const FrameView& frame);                // 256 or 65536 values, of all channels together
double Quantile(const std::vector<uint32_t>& histogram, double share);  // the smallest value that so many lie at or below

struct FrameStatistics {
    int min = 0, max = 0;
    double mean = 0, median = 0, deviation = 0;  // samples
    double saturated = 0;                        // share of the samples, 0 to 1
    std::vector<uint32_t> histogram;
};
FrameStatistics MeasureFrame(const FrameView& frame);

struct Star {
    double x = 0, y = 0;  // centre, pixels of the frame; the centre of the first pixel is 0
    double flux = 0;      // samples above the background
    double peak = 0;      // above the background
    double hfr = 0;       // radius around the centre that holds half of the flux, pixels
    bool saturated = false;
};
struct StarField {
    double background = 0, noise = 0;  // median and standard deviation of the sky, samples
    double hfr = 0;                    // median of the unsaturated stars', pixels; 0 without stars
    std::vector<Star> stars;           // brightest first
};
// Stars whose peak rises `sigmas` over the sky around them and that are wider than a hot pixel. A mosaic is looked at in
// cells of two by two, an RGB24 image by its green. The frame has the type and shape that `state` tells.
StarField MeasureStars(const FrameView& frame, const CameraState& state, double sigmas = 6);

}  // namespace kovtools
