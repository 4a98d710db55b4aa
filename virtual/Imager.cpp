#include "virtual/Imager.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace kovsim {
namespace {

constexpr int GAUSS_BITS = 12;
constexpr int GAUSS_SIZE = 1 << GAUSS_BITS;

// Evenly spaced quantiles of the normal distribution, scaled to a variance of exactly 1. Drawing one at random costs a
// multiplication and a load; the price is that nothing lies beyond 3.7 sigma.
// A function of its own: as a lambda it is taken for constexpr, and the compiler spends seconds on working it out.
std::array<float, GAUSS_SIZE> NormalQuantiles()
{
    std::array<double, GAUSS_SIZE> q;
    double sum2 = 0;
    for (int i = 0; i < GAUSS_SIZE; ++i) {
        const double p = (i + 0.5) / GAUSS_SIZE;
        double lo = -6, hi = 6;
        for (int n = 0; n < 50; ++n) {
            const double mid = (lo + hi) / 2;
            (0.5 * std::erfc(-mid / std::sqrt(2.0)) < p ? lo : hi) = mid;
        }
        q[size_t(i)] = lo;
        sum2 += lo * lo;
    }
    std::array<float, GAUSS_SIZE> table;
    for (size_t i = 0; i < table.size(); ++i)
        table[i] = float(q[i] / std::sqrt(sum2 / GAUSS_SIZE));
    return table;
}

const std::array<float, GAUSS_SIZE>& Gauss()
{
    static const std::array<float, GAUSS_SIZE> s_table = NormalQuantiles();
    return s_table;
}

// 0 red, 1 green, 2 blue; -1 no filter.
int FilterAt(Cfa cfa, int x, int y)
{
    static constexpr int8_t s_filters[5][4] = {
        { -1, -1, -1, -1 },  // Mono
        { 0, 1, 1, 2 },      // RG
        { 2, 1, 1, 0 },      // BG
        { 1, 0, 2, 1 },      // GR
        { 1, 2, 0, 1 },      // GB
    };
    return s_filters[size_t(cfa)][(y & 1) * 2 + (x & 1)];
}

constexpr int MAX_SHIFT = 16;

// First sensor pixel of cell c, from the window's start.
int CellStart(int c, int bin, bool colour, const int shift[2])
{
    const int off = std::clamp(shift[c & 1], -MAX_SHIFT, MAX_SHIFT);
    return (colour && bin > 1 ? 2 * bin * (c >> 1) + (c & 1) : bin * c) + off;
}

// Numbers of the converter to the bytes of a frame. A loop each, so that the compiler can make wide code of it.
void Store(Samples samples, int bits, const int* numbers, int count, uint8_t* out)
{
    switch (samples) {
    case Samples::Bits8:
        for (int i = 0; i < count; ++i)
            out[i] = uint8_t(numbers[i] >> (bits - 8));
        break;
    case Samples::Bits16:
        for (int i = 0; i < count; ++i) {
            const int w = numbers[i] << (16 - bits);
            out[ptrdiff_t{ 2 } * i] = uint8_t(w);
            out[2 * i + 1] = uint8_t(w >> 8);
        }
        break;
    case Samples::Bits12Wire:
        for (int i = 0; i < count; ++i) {
            const int n12 = bits >= 12 ? numbers[i] >> (bits - 12) : numbers[i] << (12 - bits);
            out[ptrdiff_t{ 2 } * i] = uint8_t(n12 >> 4);
            out[2 * i + 1] = uint8_t(n12 & 0xF);
        }
        break;
    }
}

// Adds noise of the variance e * gain2 + floor to each of count electrons. What the vector unit cannot do, the drawing, is
// a loop of its own over a block that stays in the cache.
void AddNoise(float* e, int count, float gain2, float floor, uint64_t& rng)
{
    constexpr int BLOCK = 256, DRAWS = 4;  // numbers of GAUSS_BITS out of one step of the generator, from its better half
    const float* gauss = Gauss().data();
    float drawn[BLOCK];
    for (int at = 0; at < count; at += BLOCK) {
        for (int i = 0; i < BLOCK; i += DRAWS) {
            rng = rng * 6364136223846793005u + 1442695040888963407u;
            for (int k = 0; k < DRAWS; ++k)
                drawn[i + k] = gauss[rng >> (64 - GAUSS_BITS * (k + 1)) & (GAUSS_SIZE - 1)];
        }
        const int n = std::min(BLOCK, count - at);
        for (int i = 0; i < n; ++i)
            e[at + i] += std::sqrt(e[at + i] * gain2 + floor) * drawn[i];
    }
}

}  // namespace

uint64_t Mix(uint64_t x)
{
    x += 0x9E3779B97F4A7C15;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EB;
    return x ^ (x >> 31);
}

uint32_t FrameBytes(const Readout& r)
{
    if (r.iOutW <= 0 || r.iOutH <= 0)
        return 0;
    return uint32_t(r.iOutW) * uint32_t(r.iOutH) * (r.samples == Samples::Bits8 ? 1u : 2u);
}

Imager::Imager(const ModelFacts& facts, uint64_t seed, double noise, int hotPixels)
    : m_facts(facts), m_uSeed(seed), m_dNoise(noise)
{
    const int64_t pixels = int64_t(facts.iWidth) * facts.iHeight;
    const int64_t count = hotPixels >= 0 ? hotPixels : pixels / 20000;
    uint64_t s = Mix(seed ^ 0x480751);
    for (int64_t i = 0; i < count && pixels > 0; ++i) {
        const uint64_t at = (s = Mix(s)) % uint64_t(pixels);
        const double u = double((s = Mix(s)) >> 11) / 9007199254740992.0;
        // From barely seen to saturated within seconds, as many in each octave.
        m_hot.push_back({ int(at % uint64_t(facts.iWidth)), int(at / uint64_t(facts.iWidth)), 200 * std::pow(100.0, u) });
    }
    std::sort(m_hot.begin(), m_hot.end(),
              [](const HotPixel& a, const HotPixel& b) { return a.y != b.y ? a.y < b.y : a.x < b.x; });
    m_hot.erase(
        std::unique(m_hot.begin(), m_hot.end(), [](const HotPixel& a, const HotPixel& b) { return a.x == b.x && a.y == b.y; }),
        m_hot.end());
}

void Imager::RenderScene(const std::shared_ptr<const Scene>& scene, double shiftX, double shiftY)
{
    const int w = m_facts.iWidth, h = m_facts.iHeight;
    if (m_scene == scene && !m_light.empty()) {
        // A tenth of a pixel is seen in a centroid, a hundredth hardly.
        const double tolerance = 0.01 * scene->PixelScale(m_facts.dPixelUm);
        if (!scene->Moves() || std::max(std::fabs(shiftX - m_dShiftX), std::fabs(shiftY - m_dShiftY)) <= tolerance)
            return;
    }
    m_scene = scene;
    m_dShiftX = shiftX;
    m_dShiftY = shiftY;
    m_light.resize(size_t(w) * size_t(h));
    const ScreenGeometry geometry{ w, h, m_facts.dPixelUm, shiftX, shiftY };
    const float scale = scene->InFullWells() ? float(m_facts.dFullWell) : 1.0f;
    constexpr int BAND = 64;
    std::vector<Light> band(size_t(w) * BAND);
    for (int y0 = 0; y0 < h; y0 += BAND) {
        const int rows = std::min(BAND, h - y0);
        scene->Render(geometry, y0, rows, band.data());
        for (int y = y0; y < y0 + rows; ++y) {
            const Light* in = &band[size_t(y - y0) * size_t(w)];
            float* out = &m_light[size_t(y) * size_t(w)];
            const int even = FilterAt(m_facts.cfa, 0, y), odd = FilterAt(m_facts.cfa, 1, y);
            for (int x = 0; x < w; ++x) {
                const int filter = x & 1 ? odd : even;
                const Light l = in[x];
                out[x] = scale * (filter < 0 ? (l.r + l.g + l.b) / 3 : filter == 0 ? l.r : filter == 1 ? l.g : l.b);
            }
        }
    }
}

// Electrons of n pixels of row y from column x0 on. Pixels beyond the sensor see nothing.
void Imager::FillRow(int y, int x0, int n, float t, float dark, float hot, float* e) const
{
    std::fill_n(e, n, 0.0f);
    if (y < 0 || y >= m_facts.iHeight)
        return;
    const int from = std::max(x0, 0), to = std::min(x0 + n, m_facts.iWidth);
    const float* light = &m_light[size_t(y) * size_t(m_facts.iWidth)];
    for (int x = from; x < to; ++x)
        e[x - x0] = light[x] * t + dark;
    auto it = std::lower_bound(m_hot.begin(), m_hot.end(), y, [](const HotPixel& p, int row) { return p.y < row; });
    for (; it != m_hot.end() && it->y == y; ++it)
        if (it->x >= from && it->x < to)
            e[it->x - x0] += float(it->dElectronsPerSecond) * hot;
    const float well = float(m_facts.dFullWell);
    for (int i = 0; i < n; ++i)
        e[i] = std::min(e[i], well);
}

float Imager::ChannelGain(int x, int y, const Readout& r) const
{
    const int filter = FilterAt(m_facts.cfa, x, y);
    return float(filter == 0 ? r.dGainR : filter == 2 ? r.dGainB : 1.0);
}

void Imager::Expose(const Readout& r, const Shot& shot, const std::shared_ptr<const Scene>& scene, std::vector<uint8_t>& out)
{
    out.resize(FrameBytes(r));
    uint64_t rng = Mix(m_uSeed ^ Mix(shot.uFrame));
    if (!r.bValid) {
        for (size_t i = 0; i + 8 <= out.size() + 7; i += 8) {
            rng = Mix(rng);
            std::memcpy(&out[i], &rng, std::min<size_t>(8, out.size() - i));
        }
        return;
    }
    RenderScene(scene, shot.dShiftX, shot.dShiftY);

    const bool colour = m_facts.cfa != Cfa::Mono;
    const int bin = std::max(r.iBin, 1), bits = m_facts.iAdcBits, top = (1 << bits) - 1;
    const float pixels = float(bin * bin);
    const float t = float(shot.dExposureUs / 1e6);
    const float warm = float(std::exp2((shot.dCelsius - 20) / DARK_DOUBLING)) * t;
    const float dark = m_dNoise > 0 ? float(DARK_AT_20) * warm : 0.0f;
    const float share = r.bBinSums ? 1.0f : 1 / pixels;  // of the cell's electrons that counts
    const float black = float(r.dBlack) * (r.bBinSums ? pixels : 1.0f);
    const float noise2 = float(m_dNoise * m_dNoise), read2 = float(m_facts.dReadNoise * m_facts.dReadNoise) * noise2 * pixels;
    const int cellsW = std::clamp(r.iW / bin, 0, r.iOutW), cellsH = std::clamp(r.iH / bin, 0, r.iOutH);
    const int bytes = r.samples == Samples::Bits8 ? 1 : 2;

    // One row of sensor pixels with room for cells that are shifted out of the window.
    const int margin = MAX_SHIFT, span = cellsW * bin + 2 * bin + 2 * margin;
    std::vector<float> pixelsRow, cells(size_t(cellsW) + 1);  // an even number is converted
    std::vector<int> numbers(size_t(cellsW) + 1);
    if (bin > 1)
        pixelsRow.resize(size_t(span));

    for (int cy = 0; cy < r.iOutH; ++cy) {
        uint8_t* row = out.data() + size_t(cy) * size_t(r.iOutW) * size_t(bytes);
        int filled = 0;
        if (cy < cellsH) {
            filled = cellsW;
            const int step = colour && bin > 1 ? 2 : 1;
            const int y0 = r.iY + CellStart(cy, bin, colour, r.iShiftY);
            float k[2];
            for (int p = 0; p < 2; ++p)
                k[p] = float(double(1 << bits) / m_facts.dFullWell * r.dGain) * share *
                       ChannelGain(r.iX + CellStart(p, bin, colour, r.iShiftX), y0, r);
            if (bin == 1) {
                FillRow(y0, r.iX + CellStart(0, 1, colour, r.iShiftX), cellsW, t, dark, warm, cells.data());
            } else {
                std::fill(cells.begin(), cells.end(), 0.0f);
                for (int j = 0; j < bin; ++j) {
                    FillRow(y0 + j * step, r.iX - margin, span, t, dark, warm, pixelsRow.data());
                    for (int cx = 0; cx < cellsW; ++cx) {
                        const int start = margin + CellStart(cx, bin, colour, r.iShiftX);
                        const float* e = &pixelsRow[size_t(start)];
                        for (int i = 0; i < bin; ++i)
                            cells[size_t(cx)] += e[ptrdiff_t{ i } * step];
                    }
                }
            }
            if (noise2 > 0)
                AddNoise(cells.data(), cellsW, noise2, read2, rng);
            for (int x = 0; x < cellsW; x += 2) {
                numbers[size_t(x)] = int(std::clamp(black + cells[size_t(x)] * k[0], 0.0f, float(top)));
                numbers[size_t(x) + 1] = int(std::clamp(black + cells[size_t(x) + 1] * k[1], 0.0f, float(top)));
            }
            Store(r.samples, bits, numbers.data(), cellsW, row);
        }
        const int pad = int(std::clamp(float(r.dBlack), 0.0f, float(top)));
        for (int x = filled; x < r.iOutW; ++x)
            Store(r.samples, bits, &pad, 1, row + ptrdiff_t{ x } * bytes);
    }
}

}  // namespace kovsim
