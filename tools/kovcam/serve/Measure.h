// What is told about a frame, and how one is shown.
#pragma once
#include <string>
#include <vector>

#include "kovcam/serve/Frame.h"

namespace kovserve {

// Levels, stars and the automatic stretch; the histograms of the channels are of a grid of samples where the frame is
// large. Throws std::bad_alloc.
StatisticsPtr Measure(const Frame& frame);

// Bins in place: mono frames cell by cell, mosaics within their colours; 8-bit sums cut at 255, 16-bit means. The
// library's own rule, for the regions that its alignment does not reach.
void BinFrame(Frame& frame, int bin);

// How a picture is to be shown.
struct View {
    double x = 0, y = 0, width = 0, height = 0;  // part of the frame, in its pixels; width 0: all
    int outWidth = 0;                            // pixels of the picture at most
    bool automatic = true;                       // the frame's own stretch
    double black = 0, white = 1, middle = 0.5;   // else these: shares of full scale, midtone of what lies between
    int quality = 80;
    bool operator<(const View& o) const;
};

struct Picture {
    int width = 0, height = 0;
    std::vector<uint8_t> rgb;
};
// Stretched and scaled; mosaics in colour.
Picture Render(const Frame& frame, const Statistics* statistics, const View& view);
std::string Jpeg(const Picture& picture, int quality);  // throws std::runtime_error

}  // namespace kovserve
