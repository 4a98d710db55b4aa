#include "kovcam/serve/Measure.h"

#include <algorithm>

#include "common/Stretch.h"

namespace kovserve {

namespace {

constexpr size_t SAMPLED_PIXELS = 1'000'000;

void FillChannels(const Frame& frame, Statistics& out)
{
    const kovtools::FrameView view = frame.View();
    const bool mosaic = frame.mosaic && frame.width > 1 && frame.height > 1;
    out.channels = mosaic || view.Channels() == 3 ? 3 : 1;
    // Whole colour cells, evenly spread.
    int step = 2;
    while (view.Pixels() / static_cast<size_t>(step * step) * 4 > SAMPLED_PIXELS)
        step += 2;
    const int shift = view.Is16() ? 8 : 0;
    std::array<uint64_t, 3> count{};
    const auto add = [&](size_t channel, int sample) {
        ++out.channel[channel].histogram[static_cast<size_t>(sample >> shift)];
        ++count[channel];
    };
    for (int y0 = 0; y0 < frame.height; y0 += step)
        for (int x0 = 0; x0 < frame.width; x0 += step)
            for (int d = 0; d < 4; ++d) {
                const int x = x0 + (d & 1), y = y0 + (d >> 1);
                if (x >= frame.width || y >= frame.height)
                    continue;
                const size_t pixel = static_cast<size_t>(y) * static_cast<size_t>(frame.width) + static_cast<size_t>(x);
                if (view.Channels() == 3)
                    for (size_t c = 0; c < 3; ++c)
                        add(c, view.At(pixel * 3 + 2 - c));  // blue comes first in memory
                else
                    add(mosaic ? kovtools::CellColours(*frame.mosaic)[static_cast<size_t>(d)] : size_t{ 0 }, view.At(pixel));
            }
    for (size_t c = 0; c < static_cast<size_t>(out.channels); ++c) {
        uint64_t below = 0;
        size_t v = 0;
        while (v < 255 && 2 * (below += out.channel[c].histogram[v]) < count[c])
            ++v;
        out.channel[c].median = static_cast<double>(v << shift);
    }
}

// Of the best stars: the brightest that are not saturated. A hot pixel that a demosaic has spread looks like a faint star,
// and a bright one like a star that is sharper than a lens can make it.
double BestRadius(const kovtools::StarField& field)
{
    constexpr size_t BEST = 10;
    constexpr double SHARPEST = 0.5;  // pixels
    std::vector<double> radii;
    for (const kovtools::Star& s : field.stars)  // the brightest come first
        if (!s.saturated && s.hfr >= SHARPEST && radii.size() < BEST)
            radii.push_back(s.hfr);
    if (radii.empty())
        return 0;
    const auto middle = radii.begin() + static_cast<std::ptrdiff_t>(radii.size() / 2);
    std::nth_element(radii.begin(), middle, radii.end());
    return *middle;
}

}  // namespace

StatisticsPtr Measure(const Frame& frame)
{
    auto out = std::make_shared<Statistics>();
    out->sequence = frame.sequence;
    out->all = kovtools::MeasureFrame(frame.View());
    out->curve = kovtools::MakeCurve(out->all.histogram, kovtools::Stretch::Auto);
    out->field = kovtools::MeasureStars(frame.View(), frame);
    out->field.hfr = BestRadius(out->field);
    FillChannels(frame, *out);
    return out;
}

}  // namespace kovserve
