#include "common/Measure.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace kovtools {

std::vector<uint32_t> Histogram(const FrameView& frame)
{
    std::vector<uint32_t> h(static_cast<size_t>(TopSample(frame.type)) + 1);
    for (size_t i = 0; i < frame.Samples(); ++i)
        ++h[static_cast<size_t>(frame.At(i))];
    return h;
}

double Quantile(const std::vector<uint32_t>& histogram, double share)
{
    uint64_t total = 0, sum = 0;
    for (const uint32_t n : histogram)
        total += n;
    for (size_t i = 0; i < histogram.size(); ++i)
        if (static_cast<double>(sum += histogram[i]) >= share * static_cast<double>(total) && sum > 0)
            return static_cast<double>(i);
    return histogram.empty() ? 0 : static_cast<double>(histogram.size() - 1);
}

FrameStatistics MeasureFrame(const FrameView& frame)
{
    FrameStatistics s;
    s.histogram = Histogram(frame);
    const auto total = static_cast<double>(frame.Samples());
    if (total == 0)
        return s;
    double sum = 0, squares = 0, saturated = 0;
    s.min = -1;
    for (size_t i = 0; i < s.histogram.size(); ++i) {
        const double n = s.histogram[i], v = static_cast<double>(i);
        if (n == 0)
            continue;
        s.min = s.min < 0 ? static_cast<int>(i) : s.min;
        s.max = static_cast<int>(i);
        sum += n * v;
        squares += n * v * v;
        saturated += static_cast<int>(i) >= SaturatedSample(frame.type) ? n : 0;
    }
    s.mean = sum / total;
    s.median = Quantile(s.histogram, 0.5);
    s.deviation = std::sqrt(std::max(0.0, squares / total - s.mean * s.mean));
    s.saturated = saturated / total;
    return s;
}

namespace {

// Brightness alone, in cells of the frame.
struct Plane {
    int width = 0, height = 0, cell = 1;  // pixels of the frame that a cell is wide
    std::vector<float> v;
    float At(int x, int y) const { return v[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)]; }
};

Plane MakePlane(const FrameView& f, bool mosaic)
{
    Plane p;
    p.cell = mosaic ? 2 : 1;
    p.width = f.width / p.cell;
    p.height = f.height / p.cell;
    p.v.reserve(static_cast<size_t>(p.width) * static_cast<size_t>(p.height));
    const auto pitch = static_cast<size_t>(f.width);
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x) {
            const size_t i = static_cast<size_t>(y * p.cell) * pitch + static_cast<size_t>(x * p.cell);
            const int sum =
                mosaic ? f.At(i) + f.At(i + 1) + f.At(i + pitch) + f.At(i + pitch + 1) : f.At(f.Channels() == 3 ? 3 * i + 1 : i);
            p.v.push_back(static_cast<float>(mosaic ? sum / 4.0 : sum));
        }
    return p;
}

float MedianOf(std::vector<float>& v)
{
    const auto middle = v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2);
    std::nth_element(v.begin(), middle, v.end());
    return *middle;
}

struct Sky {
    float level, noise;
};

// Median and spread of every k-th cell of a tile, so that each tile costs the same.
Sky MeasureSky(const Plane& p, int x0, int y0, int x1, int y1)
{
    constexpr int MOST = 4096;
    const int step = std::max(1, static_cast<int>(std::sqrt(static_cast<double>(x1 - x0) * (y1 - y0) / MOST)));
    std::vector<float> v;
    for (int y = y0; y < y1; y += step)
        for (int x = x0; x < x1; x += step)
            v.push_back(p.At(x, y));
    const float median = MedianOf(v);
    for (float& each : v)
        each = std::abs(each - median);
    constexpr float NORMAL = 1.4826f;  // from the median of deviations to their standard deviation
    return { median, std::max(NORMAL * MedianOf(v), 0.3f) };
}

constexpr int TILE = 64, APERTURE = 12;

// The sky just around a star: where it slopes, the tile's median is not it.
float SkyAround(const Plane& p, int px, int py)
{
    constexpr int INNER = APERTURE + 1, OUTER = APERTURE + 4;
    std::vector<float> v;
    for (int y = std::max(0, py - OUTER); y <= std::min(p.height - 1, py + OUTER); ++y)
        for (int x = std::max(0, px - OUTER); x <= std::min(p.width - 1, px + OUTER); ++x)
            if (const int d = (x - px) * (x - px) + (y - py) * (y - py); d >= INNER * INNER && d <= OUTER * OUTER)
                v.push_back(p.At(x, y));
    // Only the middle half counts, which noise leaves and neighbouring stars do not reach.
    std::sort(v.begin(), v.end());
    double sum = 0;
    for (size_t i = v.size() / 4; i < v.size() - v.size() / 4; ++i)
        sum += v[i];
    const size_t counted = v.size() - v.size() / 4 * 2;
    return v.empty() ? 0 : static_cast<float>(sum / static_cast<double>(counted));
}

// Centre and light within the aperture, by moments around the peak.
Star MeasureStar(const Plane& p, int px, int py, Sky sky)
{
    sky.level = SkyAround(p, px, py);
    Star s;
    s.peak = p.At(px, py) - sky.level;
    // Wide as the star itself: as far as the light falls, rings that still stand above the sky.
    int radius = 2;
    for (; radius < APERTURE; ++radius) {
        double ring = 0;
        int count = 0;
        for (int y = std::max(0, py - radius); y <= std::min(p.height - 1, py + radius); ++y)
            for (int x = std::max(0, px - radius); x <= std::min(p.width - 1, px + radius); ++x)
                if (const int d = (x - px) * (x - px) + (y - py) * (y - py);
                    d > (radius - 1) * (radius - 1) && d <= radius * radius) {
                    ring += p.At(x, y) - sky.level;
                    ++count;
                }
        if (count == 0 || ring / count < sky.noise / 4)
            break;
    }
    double sumX = 0, sumY = 0;
    const auto each = [&](auto&& visit) {
        for (int y = std::max(0, py - radius); y <= std::min(p.height - 1, py + radius); ++y)
            for (int x = std::max(0, px - radius); x <= std::min(p.width - 1, px + radius); ++x)
                if ((x - px) * (x - px) + (y - py) * (y - py) <= radius * radius)
                    visit(x, y, static_cast<double>(p.At(x, y) - sky.level));
    };
    each([&](int x, int y, double light) {
        s.flux += light;
        sumX += light * x;
        sumY += light * y;
    });
    if (s.flux <= 0)
        return s;
    s.x = sumX / s.flux;
    s.y = sumY / s.flux;
    std::vector<std::pair<double, double>> byRadius;
    each([&](int x, int y, double light) { byRadius.emplace_back(std::hypot(x - s.x, y - s.y), light); });
    std::sort(byRadius.begin(), byRadius.end());
    double sum = 0, before = 0;
    for (const auto& [r, light] : byRadius) {
        if (sum + light >= s.flux / 2) {
            s.hfr = light > 0 ? before + (r - before) * (s.flux / 2 - sum) / light : r;
            break;
        }
        sum += light;
        before = r;
    }
    return s;
}

}  // namespace

StarField MeasureStars(const FrameView& frame, const CameraState& state, double sigmas)
{
    StarField field;
    const Plane p = MakePlane(frame, IsMosaic(state));
    if (p.width < 3 || p.height < 3)
        return field;
    const Sky whole = MeasureSky(p, 0, 0, p.width, p.height);
    field.background = whole.level;
    field.noise = whole.noise;

    std::vector<uint8_t> taken(p.v.size());
    const float saturated = static_cast<float>(SaturatedSample(frame.type));
    struct Peak {
        float height;
        int x, y;
        Sky sky;
    };
    std::vector<Peak> peaks;
    for (int ty = 0; ty < p.height; ty += TILE)
        for (int tx = 0; tx < p.width; tx += TILE) {
            const int x1 = std::min(p.width, tx + TILE), y1 = std::min(p.height, ty + TILE);
            const Sky sky = MeasureSky(p, tx, ty, x1, y1);
            const float limit = sky.level + static_cast<float>(sigmas) * sky.noise;
            for (int y = std::max(1, ty); y < std::min(p.height - 1, y1); ++y)
                for (int x = std::max(1, tx); x < std::min(p.width - 1, x1); ++x) {
                    const float v = p.At(x, y);
                    if (v <= limit)
                        continue;
                    bool top = true;
                    int lit = 0;  // neighbours that share the light
                    for (int j = -1; j <= 1; ++j)
                        for (int i = -1; i <= 1; ++i) {
                            if (i == 0 && j == 0)
                                continue;
                            const float other = p.At(x + i, y + j);
                            top = top && (j < 0 || (j == 0 && i < 0) ? v > other : v >= other);
                            lit += other > sky.level + 2 * sky.noise;
                        }
                    constexpr int WIDER_THAN_A_PIXEL = 3;
                    if (top && lit >= WIDER_THAN_A_PIXEL)
                        peaks.push_back({ v - sky.level, x, y, sky });
                }
        }
    std::sort(peaks.begin(), peaks.end(), [](const Peak& a, const Peak& b) { return a.height > b.height; });
    std::vector<double> radii;
    for (const Peak& peak : peaks) {
        const size_t at = static_cast<size_t>(peak.y) * static_cast<size_t>(p.width) + static_cast<size_t>(peak.x);
        if (taken[at])
            continue;
        Star s = MeasureStar(p, peak.x, peak.y, peak.sky);
        if (s.flux <= 0 || s.hfr <= 0)
            continue;
        // A peak farther out in a star's light measures that star once more.
        const auto cx = std::clamp<long>(std::lround(s.x), 0, p.width - 1),
                   cy = std::clamp<long>(std::lround(s.y), 0, p.height - 1);
        if (taken[static_cast<size_t>(cy) * static_cast<size_t>(p.width) + static_cast<size_t>(cx)])
            continue;
        // Lesser peaks in the light of this star are its noise.
        const int reach = std::clamp(static_cast<int>(3 * s.hfr + 1), 2, APERTURE);
        for (int y = std::max(0, peak.y - reach); y <= std::min(p.height - 1, peak.y + reach); ++y)
            for (int x = std::max(0, peak.x - reach); x <= std::min(p.width - 1, peak.x + reach); ++x)
                taken[static_cast<size_t>(y) * static_cast<size_t>(p.width) + static_cast<size_t>(x)] = 1;
        s.saturated = p.At(peak.x, peak.y) >= saturated;
        s.x = s.x * p.cell + (p.cell - 1) / 2.0;
        s.y = s.y * p.cell + (p.cell - 1) / 2.0;
        s.flux *= p.cell * p.cell;
        s.hfr *= p.cell;
        if (!s.saturated)
            radii.push_back(s.hfr);
        field.stars.push_back(s);
    }
    std::stable_sort(field.stars.begin(), field.stars.end(), [](const Star& a, const Star& b) { return a.flux > b.flux; });
    if (!radii.empty()) {
        std::nth_element(radii.begin(), radii.begin() + static_cast<std::ptrdiff_t>(radii.size() / 2), radii.end());
        field.hfr = radii[radii.size() / 2];
    }
    return field;
}

}  // namespace kovtools
