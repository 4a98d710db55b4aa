#include "common/Stretch.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

#include "common/Measure.h"

namespace kovtools {

namespace {

// Keeps 0 and 1, brings `middle` to one half, and is smooth between.
double Midtones(double x, double middle) { return (middle - 1) * x / ((2 * middle - 1) * x - middle); }
// The middle for which Midtones brings x to y.
double MiddleFor(double x, double y) { return x * (1 - y) / (x + y - 2 * x * y); }

}  // namespace

std::vector<uint8_t> MakeCurve(const std::vector<uint32_t>& histogram, Stretch stretch)
{
    const size_t n = histogram.size();
    std::vector<uint8_t> curve(n);
    if (stretch == Stretch::Linear) {
        for (size_t i = 0; i < n; ++i)
            curve[i] = static_cast<uint8_t>(i * 256 / n);
        return curve;
    }
    const double median = Quantile(histogram, 0.5), floor = std::max(1.0, static_cast<double>(n) / 4096);
    const double noise = std::max(median - Quantile(histogram, 0.16), floor);  // the lower side: stars do not widen it
    const double black = std::max(Quantile(histogram, 0.001) - floor, median - 2 * noise);
    // White lets a star's core reach the top, and noise alone does not fill the range.
    // What spreads wider than any noise is the subject itself.
    const double white = std::max(Quantile(histogram, 0.9998), median + 25 * std::min(noise, static_cast<double>(n) / 256));
    const auto share = [&](double v) { return std::clamp((v - black) / (white - black), 1e-6, 1.0); };
    // The sky to a dark grey, but no further than the brightest hundredth bears; never darker than it is.
    constexpr double SKY = 0.14, BRIGHT = 0.75;
    const double middle =
        std::min(0.5, std::max(MiddleFor(share(median), SKY), MiddleFor(share(Quantile(histogram, 0.99)), BRIGHT)));
    for (size_t i = 0; i < n; ++i) {
        const double x = std::clamp((static_cast<double>(i) - black) / (white - black), 0.0, 1.0);
        curve[i] = static_cast<uint8_t>(std::floor(Midtones(x, middle) * 255.0 + 0.5));
    }
    return curve;
}

namespace {

// Bilinear: each missing colour is the mean of its nearest samples.
std::vector<uint8_t> Interpolate(const std::vector<uint8_t>& mosaic, int width, int height, BayerPattern pattern)
{
    const auto& cell = CellColours(pattern);
    const auto red = std::find(cell.begin(), cell.end(), 0) - cell.begin(), redX = red % 2, redY = red / 2;
    const auto w = static_cast<size_t>(width), h = static_cast<size_t>(height);
    std::vector<uint8_t> rgb(3 * w * h);
    for (size_t y = 0; y < h; ++y) {
        const uint8_t* const row = &mosaic[y * w];
        const uint8_t* const above = &mosaic[(y == 0 ? 1 : y - 1) * w];
        const uint8_t* const below = &mosaic[(y + 1 == h ? h - 2 : y + 1) * w];
        const bool redRow = static_cast<int>(y & 1) == redY;
        for (size_t x = 0; x < w; ++x) {
            const size_t l = x == 0 ? 1 : x - 1, r = x + 1 == w ? w - 2 : x + 1;
            const auto mean = [](int sum, int count) { return static_cast<uint8_t>((sum + count / 2) / count); };
            const uint8_t beside = mean(row[l] + row[r], 2), over = mean(above[x] + below[x], 2);
            uint8_t* const out = &rgb[3 * (y * w + x)];
            const bool redColumn = static_cast<int>(x & 1) == redX;
            if (redRow != redColumn) {  // green
                out[0] = redRow ? beside : over;
                out[1] = row[x];
                out[2] = redRow ? over : beside;
            } else {
                const uint8_t diagonal = mean(above[l] + above[r] + below[l] + below[r], 4);
                out[0] = redRow ? row[x] : diagonal;
                out[1] = mean(row[l] + row[r] + above[x] + below[x], 4);
                out[2] = redRow ? diagonal : row[x];
            }
        }
    }
    return rgb;
}

}  // namespace

namespace {

// Which of red, green, blue a sample is.
struct ChannelOf {
    bool mosaic, colour;
    int width;
    const std::array<uint8_t, 4>& cell;
    size_t operator()(size_t i) const
    {
        if (!mosaic)
            return colour ? 2 - i % 3 : 1;
        const size_t x = i % static_cast<size_t>(width), y = i / static_cast<size_t>(width);
        return cell[(y & 1) * 2 + (x & 1)];
    }
};

// What to add to red, green and blue so that a dark sky is grey: light pollution and channel gains tint it. A bright
// subject keeps its colours.
std::array<int, 3> SkyShift(const FrameView& frame, const ChannelOf& channel)
{
    std::array<std::vector<uint32_t>, 3> histograms;
    histograms.fill(std::vector<uint32_t>(static_cast<size_t>(TopSample(frame.type)) + 1));
    for (size_t i = 0; i < frame.Samples(); ++i)
        ++histograms[channel(i)][static_cast<size_t>(frame.At(i))];
    constexpr double DARK = 0.25;  // of the brightest
    std::array<int, 3> shift{};
    const double green = Quantile(histograms[1], 0.5);
    for (size_t c = 0; c < 3; ++c) {
        const double median = Quantile(histograms[c], 0.5);
        if (median > DARK * Quantile(histograms[c], 0.9998))
            return {};
        shift[c] = static_cast<int>(green - median);
    }
    return shift;
}

}  // namespace

ScreenPicture RenderForScreen(const FrameView& frame, const CameraState& state, Stretch stretch)
{
    const BayerPattern pattern = DeliveredPattern(state);
    const bool mosaic = IsMosaic(state) && frame.width > 1 && frame.height > 1, colour = mosaic || frame.Channels() == 3;
    const ChannelOf channel{ mosaic, colour, frame.width, CellColours(pattern) };
    const std::array<int, 3> shift = colour && stretch == Stretch::Auto ? SkyShift(frame, channel) : std::array<int, 3>{};
    const auto shifted = [&](size_t i) {
        return static_cast<size_t>(std::clamp(frame.At(i) + shift[channel(i)], 0, TopSample(frame.type)));
    };
    std::vector<uint32_t> histogram(static_cast<size_t>(TopSample(frame.type)) + 1);
    for (size_t i = 0; i < frame.Samples(); ++i)
        ++histogram[shifted(i)];
    const std::vector<uint8_t> curve = MakeCurve(histogram, stretch);
    ScreenPicture out{ frame.width, frame.height, colour ? 3 : 1, std::vector<uint8_t>(frame.Samples()) };
    for (size_t i = 0; i < out.pixels.size(); ++i)
        out.pixels[i] = curve[shifted(i)];
    if (mosaic)
        out.pixels = Interpolate(out.pixels, frame.width, frame.height, pattern);
    else if (colour)  // the library delivers blue, green, red
        for (size_t i = 0; i < out.pixels.size(); i += 3)
            std::swap(out.pixels[i], out.pixels[i + 2]);
    return out;
}

}  // namespace kovtools
