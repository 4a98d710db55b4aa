#include "common/Canvas.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "common/Png.h"

namespace kovtools {

namespace {

// Characters 32 to 126, five columns each, bit 0 at the top.
constexpr uint8_t FONT[95][5] = {
    { 0x00, 0x00, 0x00, 0x00, 0x00 }, { 0x00, 0x00, 0x5F, 0x00, 0x00 }, { 0x00, 0x07, 0x00, 0x07, 0x00 },
    { 0x14, 0x7F, 0x14, 0x7F, 0x14 }, { 0x24, 0x2A, 0x7F, 0x2A, 0x12 }, { 0x23, 0x13, 0x08, 0x64, 0x62 },
    { 0x36, 0x49, 0x55, 0x22, 0x50 }, { 0x00, 0x05, 0x03, 0x00, 0x00 }, { 0x00, 0x1C, 0x22, 0x41, 0x00 },
    { 0x00, 0x41, 0x22, 0x1C, 0x00 }, { 0x14, 0x08, 0x3E, 0x08, 0x14 }, { 0x08, 0x08, 0x3E, 0x08, 0x08 },
    { 0x00, 0x50, 0x30, 0x00, 0x00 }, { 0x08, 0x08, 0x08, 0x08, 0x08 }, { 0x00, 0x60, 0x60, 0x00, 0x00 },
    { 0x20, 0x10, 0x08, 0x04, 0x02 },
    { 0x3E, 0x51, 0x49, 0x45, 0x3E }, { 0x00, 0x42, 0x7F, 0x40, 0x00 }, { 0x42, 0x61, 0x51, 0x49, 0x46 },  // 0 1 2
    { 0x21, 0x41, 0x45, 0x4B, 0x31 }, { 0x18, 0x14, 0x12, 0x7F, 0x10 }, { 0x27, 0x45, 0x45, 0x45, 0x39 },
    { 0x3C, 0x4A, 0x49, 0x49, 0x30 }, { 0x01, 0x71, 0x09, 0x05, 0x03 }, { 0x36, 0x49, 0x49, 0x49, 0x36 },
    { 0x06, 0x49, 0x49, 0x29, 0x1E },
    { 0x00, 0x36, 0x36, 0x00, 0x00 }, { 0x00, 0x56, 0x36, 0x00, 0x00 }, { 0x08, 0x14, 0x22, 0x41, 0x00 },  // : ; <
    { 0x14, 0x14, 0x14, 0x14, 0x14 }, { 0x00, 0x41, 0x22, 0x14, 0x08 }, { 0x02, 0x01, 0x51, 0x09, 0x06 },
    { 0x32, 0x49, 0x79, 0x41, 0x3E },
    { 0x7E, 0x11, 0x11, 0x11, 0x7E }, { 0x7F, 0x49, 0x49, 0x49, 0x36 }, { 0x3E, 0x41, 0x41, 0x41, 0x22 },  // A B C
    { 0x7F, 0x41, 0x41, 0x22, 0x1C }, { 0x7F, 0x49, 0x49, 0x49, 0x41 }, { 0x7F, 0x09, 0x09, 0x09, 0x01 },
    { 0x3E, 0x41, 0x49, 0x49, 0x7A }, { 0x7F, 0x08, 0x08, 0x08, 0x7F }, { 0x00, 0x41, 0x7F, 0x41, 0x00 },
    { 0x20, 0x40, 0x41, 0x3F, 0x01 }, { 0x7F, 0x08, 0x14, 0x22, 0x41 }, { 0x7F, 0x40, 0x40, 0x40, 0x40 },
    { 0x7F, 0x02, 0x0C, 0x02, 0x7F }, { 0x7F, 0x04, 0x08, 0x10, 0x7F }, { 0x3E, 0x41, 0x41, 0x41, 0x3E },
    { 0x7F, 0x09, 0x09, 0x09, 0x06 }, { 0x3E, 0x41, 0x51, 0x21, 0x5E }, { 0x7F, 0x09, 0x19, 0x29, 0x46 },
    { 0x46, 0x49, 0x49, 0x49, 0x31 }, { 0x01, 0x01, 0x7F, 0x01, 0x01 }, { 0x3F, 0x40, 0x40, 0x40, 0x3F },
    { 0x1F, 0x20, 0x40, 0x20, 0x1F }, { 0x3F, 0x40, 0x38, 0x40, 0x3F }, { 0x63, 0x14, 0x08, 0x14, 0x63 },
    { 0x07, 0x08, 0x70, 0x08, 0x07 }, { 0x61, 0x51, 0x49, 0x45, 0x43 },
    { 0x00, 0x7F, 0x41, 0x41, 0x00 }, { 0x02, 0x04, 0x08, 0x10, 0x20 }, { 0x00, 0x41, 0x41, 0x7F, 0x00 },  // [ \ ]
    { 0x04, 0x02, 0x01, 0x02, 0x04 }, { 0x80, 0x80, 0x80, 0x80, 0x80 }, { 0x00, 0x01, 0x02, 0x04, 0x00 },
    { 0x20, 0x54, 0x54, 0x54, 0x78 }, { 0x7F, 0x48, 0x44, 0x44, 0x38 }, { 0x38, 0x44, 0x44, 0x44, 0x20 },  // a b c
    { 0x38, 0x44, 0x44, 0x48, 0x7F }, { 0x38, 0x54, 0x54, 0x54, 0x18 }, { 0x08, 0x7E, 0x09, 0x01, 0x02 },
    { 0x18, 0xA4, 0xA4, 0xA4, 0x7C }, { 0x7F, 0x08, 0x04, 0x04, 0x78 }, { 0x00, 0x44, 0x7D, 0x40, 0x00 },
    { 0x40, 0x80, 0x84, 0x7D, 0x00 }, { 0x7F, 0x10, 0x28, 0x44, 0x00 }, { 0x00, 0x41, 0x7F, 0x40, 0x00 },
    { 0x7C, 0x04, 0x18, 0x04, 0x78 }, { 0x7C, 0x08, 0x04, 0x04, 0x78 }, { 0x38, 0x44, 0x44, 0x44, 0x38 },
    { 0xFC, 0x24, 0x24, 0x24, 0x18 }, { 0x18, 0x24, 0x24, 0x18, 0xFC }, { 0x7C, 0x08, 0x04, 0x04, 0x08 },
    { 0x48, 0x54, 0x54, 0x54, 0x20 }, { 0x04, 0x3F, 0x44, 0x40, 0x20 }, { 0x3C, 0x40, 0x40, 0x20, 0x7C },
    { 0x1C, 0x20, 0x40, 0x20, 0x1C }, { 0x3C, 0x40, 0x30, 0x40, 0x3C }, { 0x44, 0x28, 0x10, 0x28, 0x44 },
    { 0x1C, 0xA0, 0xA0, 0xA0, 0x7C }, { 0x44, 0x64, 0x54, 0x4C, 0x44 },
    { 0x00, 0x08, 0x36, 0x41, 0x00 }, { 0x00, 0x00, 0x7F, 0x00, 0x00 }, { 0x00, 0x41, 0x36, 0x08, 0x00 },  // { | }
    { 0x08, 0x04, 0x08, 0x10, 0x08 },
};

// Calls dot(column, row) for each lit dot of a text, in dots of the font.
template <class F>
void Dots(const std::string& text, F dot)
{
    int x = 0;
    for (const char ch : text) {
        const unsigned i = static_cast<unsigned char>(ch) - 32u;
        const uint8_t* pGlyph = FONT[i < 95 ? i : '?' - 32];
        for (int c = 0; c < 5; ++c)
            for (int r = 0; r < 8; ++r)
                if (pGlyph[c] >> r & 1)
                    dot(x + c, r);
        x += 6;
    }
}

}  // namespace

Canvas::Canvas(int width, int height, Colour ground)
    : m_iWidth(width), m_iHeight(height), m_Rgb(3 * static_cast<size_t>(width) * static_cast<size_t>(height))
{
    Box(0, 0, width, height, ground);
}

Canvas Canvas::Load(const std::string& path)
{
    int iWidth = 0, iHeight = 0;
    std::vector<uint8_t> rgb = ReadPngFile(path, &iWidth, &iHeight);
    Canvas c(iWidth, iHeight, BLACK);
    c.m_Rgb.swap(rgb);
    return c;
}

void Canvas::Save(const std::string& path) const { WritePngFile(path, m_iWidth, m_iHeight, 3, m_Rgb.data()); }

Colour Canvas::At(int x, int y) const
{
    const uint8_t* p = &m_Rgb[3 * (static_cast<size_t>(y) * static_cast<size_t>(m_iWidth) + static_cast<size_t>(x))];
    return { p[0], p[1], p[2] };
}

void Canvas::Set(int x, int y, Colour c, double cover)
{
    if (x < 0 || y < 0 || x >= m_iWidth || y >= m_iHeight)
        return;
    uint8_t* p = &m_Rgb[3 * (static_cast<size_t>(y) * static_cast<size_t>(m_iWidth) + static_cast<size_t>(x))];
    const uint8_t ab[] = { c.r, c.g, c.b };
    for (int i = 0; i < 3; ++i)
        p[i] = static_cast<uint8_t>(std::lround(p[i] + (ab[i] - p[i]) * cover));
}

void Canvas::Box(int x, int y, int w, int h, Colour c)
{
    for (int j = y; j < y + h; ++j)
        for (int i = x; i < x + w; ++i)
            Set(i, j, c);
}

void Canvas::Line(double x0, double y0, double x1, double y1, Colour c, double width)
{
    const double dx = x1 - x0, dy = y1 - y0, length2 = dx * dx + dy * dy;
    const int iLeft = static_cast<int>(std::floor(std::min(x0, x1) - width)), iRight = static_cast<int>(std::ceil(std::max(x0, x1) + width));
    const int iTop = static_cast<int>(std::floor(std::min(y0, y1) - width)), iBottom = static_cast<int>(std::ceil(std::max(y0, y1) + width));
    for (int y = std::max(iTop, 0); y <= std::min(iBottom, m_iHeight - 1); ++y)
        for (int x = std::max(iLeft, 0); x <= std::min(iRight, m_iWidth - 1); ++x) {
            const double t = length2 > 0 ? std::clamp(((x - x0) * dx + (y - y0) * dy) / length2, 0.0, 1.0) : 0;
            const double d = std::hypot(x - x0 - t * dx, y - y0 - t * dy);
            const double cover = std::clamp(width / 2 + 0.5 - d, 0.0, 1.0);
            if (cover > 0)
                Set(x, y, c, cover);
        }
}

void Canvas::Text(int x, int y, const std::string& text, Colour c, int scale)
{
    Dots(text, [&](int i, int j) { Box(x + i * scale, y + j * scale, scale, scale, c); });
}

void Canvas::TextDown(int x, int y, const std::string& text, Colour c, int scale)
{
    Dots(text, [&](int i, int j) { Box(x + (8 - j) * scale, y + i * scale, scale, scale, c); });
}

Canvas Canvas::Part(int x, int y, int w, int h) const
{
    Canvas out(w, h, BLACK);
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i)
            if (x + i >= 0 && y + j >= 0 && x + i < m_iWidth && y + j < m_iHeight)
                out.Set(i, j, At(x + i, y + j));
    return out;
}

Canvas Canvas::Resized(int w, int h) const
{
    Canvas out(w, h, BLACK);
    for (int j = 0; j < h; ++j)
        for (int i = 0; i < w; ++i) {
            const int x0 = i * m_iWidth / w, y0 = j * m_iHeight / h;
            const int x1 = std::max(x0 + 1, (i + 1) * m_iWidth / w), y1 = std::max(y0 + 1, (j + 1) * m_iHeight / h);
            int r = 0, g = 0, b = 0;
            for (int y = y0; y < y1; ++y)
                for (int x = x0; x < x1; ++x) {
                    const Colour c = At(x, y);
                    r += c.r;
                    g += c.g;
                    b += c.b;
                }
            const int n = (x1 - x0) * (y1 - y0);
            out.Set(i, j, { static_cast<uint8_t>(r / n), static_cast<uint8_t>(g / n), static_cast<uint8_t>(b / n) });
        }
    return out;
}

void Canvas::Paste(const Canvas& other, int x, int y)
{
    for (int j = 0; j < other.m_iHeight; ++j)
        for (int i = 0; i < other.m_iWidth; ++i)
            Set(x + i, y + j, other.At(i, j));
}

namespace {

// One axis: from data to round limits and ticks.
struct Axis {
    double lo = 0, hi = 1, step = 0.2;
    bool bLog = false;

    void Fit(double min, double max, bool log)
    {
        bLog = log;
        if (log) {
            lo = std::floor(std::log10(std::max(min, 1e-9)));
            hi = std::max(std::ceil(std::log10(std::max(max, 1e-9))), lo + 1);
            step = 1;
            return;
        }
        if (max - min < 1e-9) {
            min -= 1;
            max += 1;
        }
        const double raw = (max - min) / 6, magnitude = std::pow(10, std::floor(std::log10(raw))), f = raw / magnitude;
        step = magnitude * (f <= 1 ? 1 : f <= 2 ? 2 : f <= 5 ? 5 : 10);
        lo = std::floor(min / step + 1e-9) * step;
        hi = std::ceil(max / step - 1e-9) * step;
    }
    double Place(double v) const { return ((bLog ? std::log10(std::max(v, 1e-9)) : v) - lo) / (hi - lo); }
    int Ticks() const { return static_cast<int>(std::floor((hi - lo) / step + 1e-6)); }
    std::string Label(int i) const
    {
        const double v = bLog ? std::pow(10, lo + i * step) : lo + i * step;
        return fmt::format("{:g}", std::abs(v) < step / 1e6 ? 0 : v);
    }
};

}  // namespace

Canvas Plot(const PlotOptions& o, const std::vector<Curve>& curves)
{
    Canvas c(o.iWidth, o.iHeight, WHITE);
    Axis x, left, right;
    bool bRight = false;
    const auto fit = [&](Axis& a, bool log, auto take) {
        double min = 1e300, max = -1e300;
        for (const Curve& k : curves)
            take(k, min, max);
        if (min > max)
            min = 0, max = 1;
        a.Fit(min, max, log);
    };
    const auto spread = [](const std::vector<double>& v, double& min, double& max) {
        for (const double d : v)
            min = std::min(min, d), max = std::max(max, d);
    };
    double dEnd = 0;
    fit(x, false, [&](const Curve& k, double& min, double& max) {
        spread(k.x, min, max);
        dEnd = max;
    });
    x.hi = std::max(dEnd, x.lo + x.step);  // curves run to the right edge
    fit(left, o.bLogLeft, [&](const Curve& k, double& min, double& max) { if (!k.bRight) spread(k.y, min, max); });
    fit(right, false, [&](const Curve& k, double& min, double& max) {
        if (k.bRight) {
            bRight = true;
            spread(k.y, min, max);
        }
    });
    if (o.dRightMax > o.dRightMin)
        right.Fit(o.dRightMin, o.dRightMax, false);

    const int x0 = 100, x1 = o.iWidth - (bRight ? 100 : 30), y0 = 74, y1 = o.iHeight - 70;
    const auto px = [&](double v) { return x0 + x.Place(v) * (x1 - x0); };
    const auto py = [&](const Axis& a, double v) { return y1 - a.Place(v) * (y1 - y0); };

    c.Text(x0, 14, o.sTitle, BLACK, 2);
    int at = x0;
    for (const Curve& k : curves) {  // the legend
        c.Line(at, 50, at + 24, 50, k.colour, 3);
        c.Text(at + 32, 43, k.sName, k.colour, 2);
        at += 32 + Canvas::TextWidth(k.sName) + 24;
    }
    for (int i = 0; i <= x.Ticks(); ++i) {
        const double v = px(x.lo + i * x.step);
        c.Line(v, y0, v, y1, PALE);
        c.Text(static_cast<int>(v) - Canvas::TextWidth(x.Label(i)) / 2, y1 + 10, x.Label(i), BLACK);
    }
    for (int i = 0; i <= left.Ticks(); ++i) {
        const double v = y1 - (y1 - y0) * static_cast<double>(i) / left.Ticks();
        c.Line(x0, v, x1, v, PALE);
        c.Text(x0 - 8 - Canvas::TextWidth(left.Label(i)), static_cast<int>(v) - 7, left.Label(i), BLACK);
    }
    if (bRight)
        for (int i = 0; i <= right.Ticks(); ++i) {
            const double v = y1 - (y1 - y0) * static_cast<double>(i) / right.Ticks();
            c.Line(x1, v, x1 + 5, v, GREY);
            c.Text(x1 + 10, static_cast<int>(v) - 7, right.Label(i), BLACK);
        }
    for (const Curve& k : curves) {
        const Axis& a = k.bRight ? right : left;
        for (size_t i = 1; i < k.x.size(); ++i) {
            const double xa = px(k.x[i - 1]), xb = px(k.x[i]), ya = py(a, k.y[i - 1]), yb = py(a, k.y[i]);
            if (k.bSteps) {
                c.Line(xa, ya, xb, ya, k.colour, 2);
                c.Line(xb, ya, xb, yb, k.colour, 2);
            } else {
                c.Line(xa, ya, xb, yb, k.colour, 2);
            }
        }
    }
    c.Line(x0, y0, x0, y1, GREY);
    c.Line(x0, y1, x1, y1, GREY);
    if (bRight)
        c.Line(x1, y0, x1, y1, GREY);
    c.Text((x0 + x1 - Canvas::TextWidth(o.sX)) / 2, o.iHeight - 30, o.sX, BLACK);
    c.TextDown(8, (y0 + y1 - Canvas::TextWidth(o.sLeft)) / 2, o.sLeft, BLACK);
    if (bRight)
        c.TextDown(o.iWidth - 26, (y0 + y1 - Canvas::TextWidth(o.sRight)) / 2, o.sRight, BLACK);
    return c;
}

}  // namespace kovtools
