// Checks of what pictures show: places, light, gain, noise, lines, bits, colours, dark.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <tuple>
#include <utility>
#include <vector>

#include "common/ComplyRunner.h"
#include "common/Files.h"

namespace kovtools {

double MeanOf(const FrameView& f)
{
    double sum = 0;
    for (size_t i = 0; i < f.Samples(); ++i)
        sum += f.At(i);
    return sum / static_cast<double>(f.Samples());
}

namespace {

int Sample(const FrameView& f, int x, int y)
{
    return f.At(static_cast<size_t>(y) * static_cast<size_t>(f.width) + static_cast<size_t>(x));
}

// Mean of squared differences over the variance of `a`: near 0 for the same picture, near 2 for pictures that share nothing.
double Difference(const FrameView& a, const std::vector<double>& b)
{
    double sum = 0, squares = 0, apart = 0, sumB = 0;
    const auto n = static_cast<double>(a.Samples());
    for (size_t i = 0; i < a.Samples(); ++i) {
        sum += a.At(i);
        squares += double(a.At(i)) * a.At(i);
        sumB += b[i];
    }
    for (size_t i = 0; i < a.Samples(); ++i)
        apart += std::pow(a.At(i) - sum / n - b[i] + sumB / n, 2);
    const double variance = squares / n - sum / n * (sum / n);
    return variance <= 0 ? 2 : apart / n / variance;
}

// Means of squares of two by two, in which the colours of a cell do not show.
Shot Cells(const Shot& s)
{
    Shot c;
    c.state = s.state;
    c.state.width /= 2, c.state.height /= 2, c.state.type = IMG_RAW16;
    for (int y = 0; y < c.state.height; ++y)
        for (int x = 0; x < c.state.width; ++x) {
            const int sum = Sample(s.View(), 2 * x, 2 * y) + Sample(s.View(), 2 * x + 1, 2 * y) +
                            Sample(s.View(), 2 * x, 2 * y + 1) + Sample(s.View(), 2 * x + 1, 2 * y + 1);
            c.data.push_back(static_cast<uint8_t>(sum / 4));
            c.data.push_back(static_cast<uint8_t>(sum / 4 >> 8));
        }
    return c;
}

double SaturatedShare(const FrameView& f)
{
    size_t n = 0;
    for (size_t i = 0; i < f.Samples(); ++i)
        n += f.At(i) >= SaturatedSample(f.type);
    return static_cast<double>(n) / static_cast<double>(f.Samples());
}
constexpr double TOO_MANY = 0.003;  // saturated samples: means are no longer proportional to the light

// The rectangle of the size of `f` that begins at x, y of a picture.
std::vector<double> Part(const FrameView& whole, int x, int y, const FrameView& f)
{
    std::vector<double> v;
    v.reserve(f.Samples());
    for (int j = 0; j < f.height; ++j)
        for (int i = 0; i < f.width; ++i)
            v.push_back(Sample(whole, x + i, y + j));
    return v;
}

double Correlation(const std::vector<double>& a, const std::vector<double>& b)
{
    double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
    const auto n = static_cast<double>(a.size());
    for (size_t i = 0; i < a.size(); ++i) {
        sa += a[i], sb += b[i];
        saa += a[i] * a[i], sbb += b[i] * b[i], sab += a[i] * b[i];
    }
    const double va = saa - sa * sa / n, vb = sbb - sb * sb / n;
    return va > 0 && vb > 0 ? (sab - sa * sb / n) / std::sqrt(va * vb) : 0;
}

// Mean of a square of `side` pixels from x, y on.
double BlockMean(const FrameView& f, int x, int y, int side)
{
    double sum = 0;
    for (int j = 0; j < side; ++j)
        for (int i = 0; i < side; ++i)
            sum += Sample(f, x + i, y + j);
    return sum / side / side;
}

// How well the middle of a binned picture resembles that of the whole one, square by square. Sensors that bin by colour shift
// their cells by some pixels, which is theirs to do.
double Resemblance(const Shot& whole, const Shot& binned)
{
    constexpr int SIDE = 24, REACH = 1200;  // whole cells of every bin; pixels of the sensor
    const int bin = binned.state.bin, side = SIDE / bin;
    const int x0 = std::max(0, binned.state.width - REACH / bin) / 2, y0 = std::max(0, binned.state.height - REACH / bin) / 2;
    double best = -1;
    for (int dy = -2 * bin; dy <= 2 * bin; dy += bin)
        for (int dx = -2 * bin; dx <= 2 * bin; dx += bin) {
            std::vector<double> a, b;
            for (int y = y0; y + side <= binned.state.height - y0; y += side)
                for (int x = x0; x + side <= binned.state.width - x0; x += side) {
                    const int wx = (binned.state.startX + x) * bin - whole.state.startX + dx,
                              wy = (binned.state.startY + y) * bin - whole.state.startY + dy;
                    if (wx < 0 || wy < 0 || wx + SIDE > whole.state.width || wy + SIDE > whole.state.height)
                        continue;
                    a.push_back(BlockMean(whole.View(), wx, wy, SIDE));
                    b.push_back(BlockMean(binned.View(), x, y, side));
                }
            best = std::max(best, Correlation(a, b));
        }
    return best;
}

// Means of the red, green, green and blue pixels by the cell order that the state tells.
std::array<double, 4> CellMeans(const Shot& s)
{
    std::array<double, 4> sites{};  // first row left and right, second row
    for (int y = 0; y < s.state.height; ++y)
        for (int x = 0; x < s.state.width; ++x)
            sites[static_cast<size_t>(y % 2 * 2 + x % 2)] +=
                Sample(s.View(), x, y) * 4.0 / static_cast<double>(s.View().Samples());
    switch (DeliveredPattern(s.state)) {
    case BAYER_RG: return { sites[0], sites[1], sites[2], sites[3] };
    case BAYER_BG: return { sites[3], sites[1], sites[2], sites[0] };
    case BAYER_GR: return { sites[1], sites[0], sites[3], sites[2] };
    default: return { sites[2], sites[0], sites[3], sites[1] };
    }
}

// A dark frame of 0 in its left half and `step` in its right one.
std::string StepBitmap(int width, int height, uint8_t step)
{
    std::string file(1078, '\0');
    const auto put = [&](size_t at, int v, size_t bytes) {
        for (size_t i = 0; i < bytes; ++i)
            file[at + i] = static_cast<char>(v >> (8 * i));
    };
    file[0] = 'B', file[1] = 'M';
    put(2, width * height + 1078, 4), put(10, 1078, 4), put(14, 40, 4), put(18, width, 4), put(22, height, 4);
    put(26, 1, 2), put(28, 8, 2), put(34, width * height, 4), put(46, 256, 4);
    for (int i = 0; i < 256; ++i)
        put(54 + 4 * static_cast<size_t>(i), i * 0x010101, 3);
    const std::string row = std::string(static_cast<size_t>(width / 2), '\0') +
                            std::string(static_cast<size_t>(width - width / 2), static_cast<char>(step));
    for (int y = 0; y < height; ++y)
        file += row;
    return file;
}

// Lines that differ from those of the same colour on both sides of them.
int OddLines(const std::vector<double>& means, double dark, int* first)
{
    int odd = 0;
    for (size_t i = 2; i + 2 < means.size(); ++i) {
        const double around = (means[i - 2] + means[i + 2]) / 2;
        if (std::abs(means[i] - around) > 0.25 * std::max(around - dark, 1.0) &&
            std::abs(means[i - 2] - means[i + 2]) < 0.1 * std::max(around, 1.0)) {
            *first = odd == 0 ? static_cast<int>(i) : *first;
            ++odd;
        }
    }
    return odd;
}

}  // namespace

void ComplyRunner::Formats()
{
    int missing = 0;
    double slowest = 1e9, unsteady = 0;
    std::string names;
    double levels[4] = { -1, -1, -1, -1 };  // by type, without bin
    for (const int bin : BinsOf(m_info))
        for (const IMG_TYPE type : TypesOf(m_info)) {
            if (!m_o.full && bin > 1 && type != m_type)
                continue;
            try {
                if (!Region(m_info.MaxWidth / bin / 8 * 8, m_info.MaxHeight / bin / 2 * 2, type, bin))
                    throw std::runtime_error("refused");
                Set(CTRL_EXPOSURE, 5000);  // after the format: some families keep the lines of an exposure, not its time
                const auto start = Clock::now();
                Shot other;
                const Shot s = Take(&other);
                slowest = std::min(slowest, 4 / Seconds(start));
                // What a frame does not reach is as it was: 0 in the one, A5 in the other.
                const auto untouched = [](const Shot& shot, uint8_t v) {
                    return std::all_of(shot.data.end() - 64, shot.data.end(), [v](uint8_t b) { return b == v; });
                };
                if (untouched(s, 0) && untouched(other, 0xA5))
                    throw std::runtime_error("cut off");
                const double level = MeanOf(s.View()) / TopSample(type);
                unsteady = std::max(unsteady, std::abs(MeanOf(other.View()) / TopSample(type) - level));
                if (bin == 1)
                    levels[type & 3] = level;
            } catch (const std::runtime_error&) {
                ++missing;
                names += std::string(" ") + TypeName(type) + "/" + std::to_string(bin);
            }
        }
    Add("formats.frames", "formats and bins that bring no whole frame", missing == 0, missing, 0, "",
        "lower the bandwidth; look at:" + names);
    Add("formats.rate", "frames a second of the slowest, start and stop included", slowest > 0.5, slowest, 0.5,
        "a second, at least", "cable, port, bandwidth", Verdict::Warn);
    Add("formats.steady", "change of the level from frame to frame", unsteady < 0.02, 100 * unsteady, 2, "percent of the top",
        "the light flickers, or the frames do", Verdict::Warn);
    if (levels[IMG_RAW8] >= 0 && levels[IMG_RAW16] >= 0) {
        const double apart = std::abs(levels[IMG_RAW8] - levels[IMG_RAW16]);
        Add("formats.level", "level of 8 bits against that of 16", apart < 0.02, 100 * apart, 2, "percent of the top",
            "samples of 8 and 16 bits are scaled differently");
    }
}

bool ComplyRunner::FindStructure(Shot* whole)
{
    Whole();
    for (int us = 2000; us <= 512000; us *= 4) {
        Set(CTRL_EXPOSURE, us);
        Shot before;
        *whole = Take(&before);
        if (MeanOf(whole->View()) > 0.9 * TopSample(m_type))
            return false;
        const Shot a = Cells(*whole), b = Cells(before);
        if (Difference(a.View(), Part(b.View(), 0, 0, b.View())) < 0.3)
            return true;
    }
    return false;
}

void ComplyRunner::Bins()
{
    Shot whole;
    if (BinsOf(m_info).size() < 2)
        return Skip("bins.content", "the camera does not bin");
    if (!FindStructure(&whole))
        return Skip("bins.content", "needs something with structure in view");
    const double exposure = Now(CTRL_EXPOSURE);
    double worst = 1;
    std::string names;
    for (const int hard : { 0, 1 }) {
        if (hard && Find(CTRL_HARDWARE_BIN) == nullptr)
            continue;
        Set(CTRL_HARDWARE_BIN, hard);
        for (const int bin : BinsOf(m_info)) {
            if (bin == 1)
                continue;
            Set(CTRL_EXPOSURE, static_cast<int32_t>(exposure / bin / bin));  // as sums would otherwise saturate
            if (!Region(m_info.MaxWidth / bin / 8 * 8, m_info.MaxHeight / bin / 2 * 2, m_type, bin))
                continue;
            const double alike = Resemblance(whole, Take());
            if (std::strstr(m_info.Name, "Iolite") != nullptr ||
                (std::strstr(m_info.Name, "Onyx") != nullptr && hard && bin == 3)) {
                Add("bins.model", "likeness in bin " + std::to_string(bin) + ", which this model does not do", false, alike, 0.7,
                    "at least, 1 is the same",
                    "it shows a part of the unbinned frame on every camera of this model: leave this bin alone", Verdict::Warn);
                continue;
            }
            if (alike < 0.7)
                names += std::string(hard ? " hardware " : " software ") + std::to_string(bin);
            worst = std::min(worst, alike);
        }
    }
    Set(CTRL_HARDWARE_BIN, 0);
    Add("bins.content", "likeness of binned pictures and the whole one", worst > 0.7, worst, 0.7, "at least, 1 is the same",
        "the bin covers another part of the sensor, or the scene moved:" + names);
}

void ComplyRunner::Regions()
{
    int off = 0, wrong = 0;
    Shot whole;
    const bool structure = FindStructure(&whole);
    double worst = 0;
    const int w = m_info.MaxWidth / 4 / 8 * 8, h = m_info.MaxHeight / 4 / 2 * 2, midX = (m_info.MaxWidth - w) / 2 / 4 * 4,
              midY = (m_info.MaxHeight - h) / 2 / 4 * 4;
    // The whole one ends before the sensor does where its width is no multiple of eight.
    const int right = whole.state.startX + whole.state.width - w, bottom = whole.state.startY + whole.state.height - h;
    std::vector<std::pair<int, int>> places = { { 0, 0 }, { right, 0 }, { 0, bottom }, { right, bottom }, { midX, midY } };
    for (int i = 1; i < 16; i += m_o.full ? 1 : 5)  // every alignment
        places.emplace_back(midX + i, midY + 16 - i);
    for (const auto& [x, y] : places) {
        int32_t gotX = -1, gotY = -1;
        if (!Region(w, h, m_type) || KOVSetStartPos(m_id, x, y) != KOV_SUCCESS ||
            KOVGetStartPos(m_id, &gotX, &gotY) != KOV_SUCCESS || std::abs(gotX - x) > 8 || std::abs(gotY - y) > 4) {
            ++off;
            continue;
        }
        const Shot part = Take();
        const std::vector<double> same = Part(whole.View(), std::clamp(gotX - whole.state.startX, 0, whole.state.width - w),
                                              std::clamp(gotY - whole.state.startY, 0, whole.state.height - h), part.View());
        double mean = 0, variance = 0;
        for (const double v : same)
            mean += v / static_cast<double>(same.size());
        for (const double v : same)
            variance += (v - mean) * (v - mean) / static_cast<double>(same.size());
        if (structure && variance > 4 * std::max(mean, 16.0))
            worst = std::max(worst, Difference(part.View(), same));
    }
    for (const auto& [width, height] : { std::pair{ m_info.MaxWidth, m_info.MaxHeight },
                                         { m_info.MaxWidth / 2 / 8 * 8, m_info.MaxHeight / 2 / 2 * 2 },
                                         { 320, 240 },
                                         { 64, 64 } }) {
        int32_t gotW = 0, gotH = 0, bin = 0;
        IMG_TYPE type = IMG_END;
        const bool set = Region(width, height, m_type) && KOVGetROIFormat(m_id, &gotW, &gotH, &bin, &type) == KOV_SUCCESS;
        wrong += !set || gotW != width || gotH != height;
        Take();
    }
    Add("regions.places", "corners and alignments that a region does not reach", off == 0, off, 0, "",
        "the camera moves regions; read the start position back");
    Add("regions.sizes", "sizes that are not as asked for", wrong == 0, wrong, 0, "", "the camera changes sizes; read them back");
    if (!structure)
        Skip("regions.content", "needs something with structure in view");
    else
        Add("regions.content", "difference of a region from its part of the whole", worst < 0.5, worst, 0.5, "of the variance",
            "the region shows another place than it tells, or the scene moved");
}

void ComplyRunner::Light()
{
    Middle();
    Set(CTRL_GAIN, Find(CTRL_GAIN)->caps.MinValue);
    const double top = TopSample(m_type);
    m_dark = LevelAt(Find(CTRL_EXPOSURE)->caps.MinValue);
    for (int us = 500; us <= 2000000; us *= 2) {
        const double level = LevelAt(us);
        if (level > 0.9 * top)
            break;
        if (level - m_dark > 0.15 * top) {
            m_exposure = us;
            break;
        }
    }
    if (m_exposure == 0)
        Add("light", "light to measure with", false, 0, 15, "percent",
            "point the camera at something evenly bright; the checks that need light are skipped", Verdict::Warn);
    else
        Add("light", "exposure to a seventh of the range", true, m_exposure / 1000, 2000, "ms", "");
}

bool ComplyRunner::NeedsLight(const char* check)
{
    if (m_exposure == 0)
        Skip(check, "needs light");
    Middle();
    return m_exposure != 0;
}

void ComplyRunner::Exposure()
{
    if (!NeedsLight("exposure.linear"))
        return;
    const double top = TopSample(m_type);
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    const int points = m_o.full ? 24 : 8;
    bool saturated = false;
    for (int i = 1; i <= points; ++i) {
        const double us = m_exposure * (0.25 + 2.75 * i / points);
        Set(CTRL_EXPOSURE, static_cast<int32_t>(us));
        const Shot s = Take();
        const double level = MeanOf(s.View());
        saturated = SaturatedShare(s.View()) > TOO_MANY;
        if (saturated || level > 0.85 * top)
            break;
        m_out.exposures.push_back(us / 1000);
        m_out.levels.push_back(level);
        sx += us, sy += level, sxx += us * us, sxy += us * level;
    }
    const auto n = static_cast<double>(m_out.levels.size());
    if (n < 4 && saturated && m_out.levels.size() > 0 && m_out.levels.back() < 0.4 * top)
        return Skip("exposure.linear", "the light is too uneven");
    if (n < 4)
        return Add("exposure.linear", "points of the line before the top", false, n, 4, "at least",
                   "the level rises faster than the exposure, or the light is not steady");
    const double slope = (n * sxy - sx * sy) / (n * sxx - sx * sx), zero = (sy - slope * sx) / n;
    double worst = 0;
    for (size_t i = 0; i < m_out.levels.size(); ++i)
        worst = std::max(worst, std::abs(m_out.levels[i] - zero - slope * m_out.exposures[i] * 1000));
    m_out.slope = slope * 1000;
    m_out.zero = zero;
    const double range = std::max(m_out.levels.back() - m_out.levels.front(), 1e-9);
    Add("exposure.linear", "deviation of the level from a line", worst < 0.02 * range, 100 * worst / range, 2,
        "percent of the range", "the light is not steady, or the camera's exposures are not what it tells");
    Add("exposure.zero", "level that no exposure would give, less the darkest", std::abs(zero - m_dark) < 0.03 * top,
        100 * (zero - m_dark) / top, 3, "percent of the top", "exposures are longer or shorter by a fixed time");
}

void ComplyRunner::Gain()
{
    if (!NeedsLight("gain.law"))
        return;
    const KOV_CONTROL_CAPS caps = Find(CTRL_GAIN)->caps;
    const double darkest = Find(CTRL_EXPOSURE)->caps.MinValue;
    const int steps = m_o.full ? 16 : 5, reach = (caps.MaxValue - caps.MinValue) / 3;
    Set(CTRL_GAIN, caps.MinValue);
    const auto unit = ElectronsPerSample(ReadCameraState(m_id));
    double last = 1, worst = 0, falls = 0, ratio = 1;
    int at = caps.MinValue, measured = 0;
    for (int i = 1; i <= steps; ++i) {
        const int gain = caps.MinValue + reach * i / steps;
        Set(CTRL_GAIN, gain);
        const auto now = ElectronsPerSample(ReadCameraState(m_id));
        const double told = unit && now ? *unit / *now : 0;
        // So long that the higher gain stays in range; both gains at the same exposure, whose own law is another check's.
        const double us = std::max(m_exposure / std::max({ 1.0, told, last }), 500.0);
        const double dark = LevelAt(darkest);
        Set(CTRL_EXPOSURE, static_cast<int32_t>(us));
        const Shot bright = Take();
        const double level = MeanOf(bright.View());
        if (SaturatedShare(bright.View()) > TOO_MANY)
            break;
        Set(CTRL_GAIN, caps.MinValue);
        ratio = (level - dark) / std::max(LevelAt(us) - LevelAt(darkest), 1e-9);
        if (told > 0 && std::abs(ratio / told - 1) > worst) {
            worst = std::abs(ratio / told - 1);
            at = gain;
        }
        falls = std::max(falls, 1 - ratio / last);
        last = ratio;
        ++measured;
    }
    Set(CTRL_GAIN, caps.MinValue);
    if (measured == 0)
        return Skip("gain.law", "the light is too uneven or too strong");
    if (unit)
        Add("gain.law", "deviation of the level from the gain's law, up to gain " + std::to_string(caps.MinValue + reach),
            worst < 0.08, 100 * worst, 8, "percent", "the gain is another than the model's; look at gain " + std::to_string(at));
    else
        Add("gain.law", "level ratio of a third of the gain's range", ratio > 1.05, ratio, 1.05, "times, at least",
            "the gain does nothing");
    Add("gain.steps", "fall of the level at a higher gain", falls < 0.03, 100 * falls, 3, "percent",
        "a step of the gain goes the wrong way");
}

void ComplyRunner::Noise()
{
    if (!NeedsLight("noise.transfer"))
        return;
    const CameraState state = ReadCameraState(m_id);
    for (const double factor : { 0.1, 0.5, 1.0, 2.0 }) {
        Set(CTRL_EXPOSURE, static_cast<int32_t>(m_exposure * factor));
        Shot a;
        const Shot b = Take(&a);
        if (SaturatedShare(b.View()) > TOO_MANY)
            break;
        double difference = 0, squares = 0;
        for (size_t i = 0; i < a.View().Samples(); ++i) {
            const double d = a.View().At(i) - b.View().At(i);
            difference += d;
            squares += d * d;
        }
        const auto n = static_cast<double>(a.View().Samples());
        m_out.means.push_back((MeanOf(a.View()) + MeanOf(b.View())) / 2);
        m_out.variances.push_back((squares / n - difference * difference / n / n) / 2);
    }
    const double found = (m_out.means.back() - m_out.means.front()) / (m_out.variances.back() - m_out.variances.front());
    const auto told = ElectronsPerSample(state);
    // Mixed channels with gains of their own lie off the green ones' figure.
    m_out.electronsPerSample = told.value_or(0);
    const double limit = IsMosaic(state) ? 0.6 : 0.12;
    if (!told)
        Add("noise.transfer", "samples of level per sample of variance: the model tells no electrons",
            std::isfinite(found) && found > 0, found, 0, "more than", "there is no noise of light in the pictures");
    else
        Add("noise.transfer", "electrons per sample by photon transfer, told against found", std::abs(*told / found - 1) < limit,
            100 * std::abs(*told / found - 1), 100 * limit, "percent apart",
            "flicker of the light, or the gain is another than told");
}

void ComplyRunner::Lines()
{
    if (!NeedsLight("lines.rows"))
        return;
    Whole();
    Set(CTRL_EXPOSURE, static_cast<int32_t>(m_exposure));
    const Shot s = Take();
    std::vector<double> rows(static_cast<size_t>(s.state.height)), columns(static_cast<size_t>(s.state.width));
    for (int y = 0; y < s.state.height; ++y)
        for (int x = 0; x < s.state.width; ++x) {
            const int v = Sample(s.View(), x, y);
            rows[static_cast<size_t>(y)] += static_cast<double>(v) / s.state.width;
            columns[static_cast<size_t>(x)] += static_cast<double>(v) / s.state.height;
        }
    for (const auto& [check, name, means] :
         { std::tuple{ "lines.rows", "row", &rows }, std::tuple{ "lines.columns", "column", &columns } }) {
        int first = -1;
        const int odd = OddLines(*means, m_dark, &first);
        Add(check, std::string(name) + "s that differ from their neighbours", odd == 0, odd, 0, "",
            "look at " + std::string(name) + " " + std::to_string(first));
    }
}

void ComplyRunner::Bits()
{
    if (!NeedsLight("bits.alive"))
        return;
    // By share: the first and last samples of a frame are not always the sensor's.
    size_t ones[16] = {}, n = 0;
    for (const double factor : { 0.0, 0.25, 1.0, 2.0, 4.0, 8.0 }) {
        Set(CTRL_EXPOSURE, std::max(Find(CTRL_EXPOSURE)->caps.MinValue, static_cast<int32_t>(m_exposure * factor)));
        const Shot s = Take();
        n += s.View().Samples();
        for (size_t i = 0; i < s.View().Samples(); ++i)
            for (unsigned bit = 0; bit < 16; ++bit)
                ones[bit] += static_cast<unsigned>(s.View().At(i)) >> bit & 1;
    }
    // Below the lowest that moves is what the converter does not have.
    unsigned moving = 0;
    for (unsigned bit = 0; bit < 16; ++bit)
        moving |= static_cast<unsigned>(ones[bit] > n / 1000 && ones[bit] < n - n / 1000) << bit;
    const unsigned top = static_cast<unsigned>(TopSample(m_type)), lowest = moving & (~moving + 1);
    const unsigned expected = moving == 0 ? top : top & ~(lowest - 1);
    int stuck = 0;
    std::string names;
    for (unsigned bit = 0; bit < 16; ++bit)
        if (expected & ~moving & 1u << bit) {
            ++stuck;
            names += " " + std::to_string(bit);
        }
    Add("bits.alive", "bits of the samples that never change from dark to bright", stuck == 0, stuck, 0, "",
        "look at bit" + names);
}

void ComplyRunner::Flips()
{
    Shot whole;
    if (!FindStructure(&whole))
        return Skip("flips.mirror", "needs something with structure in view");
    double worst = 0;
    for (int flip = 1; flip <= 3; ++flip) {
        Set(CTRL_FLIP, flip);
        const Shot s = Take();
        std::vector<double> turned;
        for (int y = 0; y < s.state.height; ++y)
            for (int x = 0; x < s.state.width; ++x)
                turned.push_back(
                    Sample(whole.View(), flip & 1 ? s.state.width - 1 - x : x, flip & 2 ? s.state.height - 1 - y : y));
        worst = std::max(worst, Difference(s.View(), turned));
    }
    Set(CTRL_FLIP, 0);
    Add("flips.mirror", "difference of flipped pictures from the mirrored one", worst < 0.5, worst, 0.5, "of the variance",
        "a flip does another thing, or the scene moved");
}

// Green pixels are alike and the others not, wherever a flip has put them.
void ComplyRunner::Colours()
{
    if (m_info.IsColorCam == KOV_FALSE)
        return Skip("colours.green", "the camera sees no colours");
    if (!NeedsLight("colours.green"))
        return;
    const Control *const red = Find(CTRL_WB_R), *const blue = Find(CTRL_WB_B);
    if (red != nullptr && blue != nullptr) {  // apart from each other, even in white light
        Set(CTRL_WB_R, red->caps.MaxValue - 1);
        Set(CTRL_WB_B, blue->caps.MaxValue / 2);
    }
    Set(CTRL_EXPOSURE, static_cast<int32_t>(m_exposure / 2));
    std::array<double, 4> straight{};
    double green = 0, moved = 0;
    for (int flip = 0; flip <= 3; ++flip) {
        Set(CTRL_FLIP, flip);
        const auto means = CellMeans(Take());
        if (flip == 0)
            straight = means;
        green = std::max(green, std::abs(means[1] - means[2]) / means[1]);
        for (size_t i = 0; i < 4; ++i)
            moved = std::max(moved, std::abs(means[i] - straight[i]) / straight[i]);
    }
    Set(CTRL_FLIP, 0);
    if (red != nullptr && blue != nullptr) {
        Set(CTRL_WB_R, red->caps.DefaultValue);
        Set(CTRL_WB_B, blue->caps.DefaultValue);
    }
    const double apart = std::max(std::abs(straight[0] - straight[1]), std::abs(straight[3] - straight[1])) / straight[1];
    if (apart < 0.1 && green < 0.05)
        return Skip("colours.green", "red, green and blue pixels are alike in this light");
    Add("colours.green", "difference of the two green pixels of a cell", green < 0.05, 100 * green, 5, "percent",
        "the colour cell is another than the model's, or the light is uneven");
    Add("colours.flips", "change of a colour's level by flips", moved < 0.05, 100 * moved, 5, "percent",
        "flips do not move the colour cell as they should");
}

// Level of the left half less that of the right one.
double ComplyRunner::HalvesApart()
{
    const Shot s = Take();
    double halves[2] = {};
    for (int y = 0; y < s.state.height; ++y)
        for (int x = 0; x < s.state.width; ++x)
            halves[x >= s.state.width / 2] += Sample(s.View(), x, y);
    return (halves[0] - halves[1]) / static_cast<double>(s.View().Samples()) * 2;
}

void ComplyRunner::Dark()
{
    if (!NeedsLight("dark.subtract"))
        return;
    Region(m_info.MaxWidth, m_info.MaxHeight, IMG_RAW8);
    if (ReadCameraState(m_id).darkSubtracted)
        return Skip("dark.subtract", "a dark frame is in use; switch it off first");
    constexpr uint8_t STEP = 16;
    const auto path = std::filesystem::temp_directory_path() / ("kovcomply-" + std::to_string(std::random_device{}()) + ".bmp");
    std::ofstream(path, std::ios::binary) << StepBitmap(m_info.MaxWidth, m_info.MaxHeight, STEP);
    Set(CTRL_EXPOSURE, static_cast<int32_t>(m_exposure));
    const double before = HalvesApart();
    KOV_BOOL on = KOV_TRUE;
    const KOV_ERROR_CODE code = KOVEnableDarkSubtract(m_id, TextOf(path).c_str(), &on);
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    if (code != KOV_SUCCESS)
        return Add("dark.subtract", ErrorText(code), false, code, 0, "",
                   "the dark frame was not taken; is the folder for temporary files writable?");
    const double step = HalvesApart() - before;
    KOVDisableDarkSubtract(m_id);
    const double after = HalvesApart();
    Add("dark.subtract", "error of what a dark frame takes away", std::abs(step - STEP) < 1.5, std::abs(step - STEP), 1.5,
        "samples", "dark frames are not subtracted pixel by pixel");
    Add("dark.off", "what is left of it when it is off", std::abs(after - before) < 1.5, std::abs(after - before), 1.5, "samples",
        "dark subtraction does not end");
}

// Pixels that stand out by themselves in two pictures; stars and edges cover several.
size_t ComplyRunner::CountHot(double* level)
{
    Shot other;
    const Shot shot = Take(&other);
    const FrameView a = shot.View(), b = other.View();
    double squares = 0;
    for (size_t i = 0; i < a.Samples(); i += 7)
        squares += std::pow(std::min(a.At(i), b.At(i)) - std::max(a.At(i), b.At(i)), 2);
    *level = MeanOf(a);
    const double out =
        *level + std::max(0.01 * TopSample(m_type), 6 * std::sqrt(squares * 7 / static_cast<double>(a.Samples()) / 2));
    const auto hot = [&](int x, int y) { return Sample(a, x, y) > out && Sample(b, x, y) > out; };
    size_t n = 0;
    for (int y = 1; y + 1 < a.height; ++y)
        for (int x = 1; x + 1 < a.width; ++x)
            n += hot(x, y) && !hot(x - 1, y) && !hot(x + 1, y) && !hot(x, y - 1) && !hot(x, y + 1);
    return n;
}

void ComplyRunner::HotPixels()
{
    Whole();
    Set(CTRL_EXPOSURE, std::min(m_o.full ? 5'000'000 : 1'000'000, Find(CTRL_EXPOSURE)->caps.MaxValue));
    double level = 0;
    const size_t n = CountHot(&level);
    if (level - m_dark > 0.05 * TopSample(m_type))
        return Skip("hot.count", "needs darkness: put the cap on and run again with '--check hot'");
    const double share = 1e6 * static_cast<double>(n) / (static_cast<double>(m_info.MaxWidth) * m_info.MaxHeight);
    Add("hot.count", "pixels that stand out alone in the dark", share < 1000, share, 1000, "of a million",
        "a worn or overheated sensor; make a table: kovcam hotpixels search");
    if (!m_o.repair)
        return;
    if (!m_o.repair(true))
        return Skip("hot.repair", "the camera holds no table of hot pixels: kovcam hotpixels search");
    const size_t left = CountHot(&level);
    m_o.repair(false);
    Add("hot.repair", "of them left with the camera's table", n < 10 || left < n / 2 + 1, static_cast<double>(left),
        static_cast<double>(n) / 2, "pixels",
        "the table is of another sensor or too old; make a new one: kovcam hotpixels search");
}

void ComplyRunner::Black()
{
    Middle();
    Set(CTRL_EXPOSURE, Find(CTRL_EXPOSURE)->caps.MinValue);
    double low = 1e9, high = 0;
    for (int i = 0; i < 8; ++i) {
        const double level = MeanOf(Take().View());
        low = std::min(low, level);
        high = std::max(high, level);
        Pause(m_o.full ? 2 : 0.5);
    }
    const double top = TopSample(m_type);
    Add("black.steady", "drift of the dark level", high - low < 0.01 * top, 100 * (high - low) / top, 1, "percent of the top",
        "the black level wanders; let the camera warm up and shade it");
    const Control* const c = Find(CTRL_BRIGHTNESS);
    if (c == nullptr)
        return Skip("black.level", "the camera has no such control");
    Set(CTRL_BRIGHTNESS, c->caps.MinValue);
    low = MeanOf(Take().View());
    Set(CTRL_BRIGHTNESS, c->caps.MinValue + (c->caps.MaxValue - c->caps.MinValue) / 2);
    high = MeanOf(Take().View());
    Set(CTRL_BRIGHTNESS, c->caps.DefaultValue);
    Add("black.level", "rise of the level by half of the range", high > low + 0.001 * top, high - low, 0.001 * top,
        "samples, at least", "the black level does nothing");
}

}  // namespace kovtools
