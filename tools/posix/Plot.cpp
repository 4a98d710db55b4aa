#include "common/Plot.h"

#include <cairo.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <stdexcept>

#include "common/Files.h"

namespace kovtools {

extern const bool DRAWS_PLOTS = true;

namespace {

struct Colour {
    double r, g, b;
};
constexpr Colour Rgb(unsigned code) { return { (code >> 16) / 255.0, (code >> 8 & 255) / 255.0, (code & 255) / 255.0 }; }

struct Theme {
    Colour ground, text, faint, grid;
    std::array<Colour, 4> inks;
};
// The inks differ in lightness too, and for eyes that tell no red from green.
constexpr Theme LIGHT{
    Rgb(0xffffff), Rgb(0x1c1c20), Rgb(0x5c5c64), Rgb(0xe2e2e6), { Rgb(0x1f5fae), Rgb(0xc2410c), Rgb(0x0f766e), Rgb(0x7a7a82) }
};
constexpr Theme DARK{
    Rgb(0x17171b), Rgb(0xececf0), Rgb(0xa8a8b2), Rgb(0x34343c), { Rgb(0x6cb0ff), Rgb(0xff9a5c), Rgb(0x4fd1b5), Rgb(0x9a9aa4) }
};

// A surface with its context.
class Page {
public:
    Page(int width, int height, const Theme& theme)
        : m_surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height), &cairo_surface_destroy),
          m_cairo(cairo_create(m_surface.get()), &cairo_destroy)
    {
        Use(theme.ground);
        cairo_paint(*this);
    }
    operator cairo_t*() const { return m_cairo.get(); }
    void Use(const Colour& c) const { cairo_set_source_rgb(*this, c.r, c.g, c.b); }

    enum class Align { Left, Middle, Right };
    void Font(double size, bool bold = false) const
    {
        cairo_select_font_face(*this, "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                               bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
        cairo_set_font_size(*this, size);
    }
    double WidthOf(const std::string& text) const
    {
        cairo_text_extents_t e;
        cairo_text_extents(*this, text.c_str(), &e);
        return e.x_advance;
    }
    // y is the line that the letters stand on.
    void Text(double x, double y, const std::string& text, Align align = Align::Left) const
    {
        cairo_move_to(*this, x - WidthOf(text) * (align == Align::Middle ? 0.5 : align == Align::Right ? 1 : 0), y);
        cairo_show_text(*this, text.c_str());
    }
    // Reads from below upwards, its middle at y, standing on the line at x.
    void TextUp(double x, double y, const std::string& text) const
    {
        cairo_save(*this);
        cairo_translate(*this, x, y);
        cairo_rotate(*this, -M_PI / 2);
        Text(0, 0, text, Align::Middle);
        cairo_restore(*this);
    }
    void Line(double x0, double y0, double x1, double y1, double width) const
    {
        cairo_set_line_width(*this, width);
        cairo_move_to(*this, x0, y0);
        cairo_line_to(*this, x1, y1);
        cairo_stroke(*this);
    }
    void Save(const std::string& path) const
    {
        WholeFile whole(path);
        const cairo_status_t status = cairo_surface_write_to_png(m_surface.get(), whole.Temporary().c_str());
        if (status != CAIRO_STATUS_SUCCESS)
            FailToWrite(path, cairo_status_to_string(status));
        whole.Commit();
    }

private:
    std::unique_ptr<cairo_surface_t, void (*)(cairo_surface_t*)> m_surface;
    std::unique_ptr<cairo_t, void (*)(cairo_t*)> m_cairo;
};

// From values to a span of pixels, with places for ticks.
class Scale {
public:
    // tight: ends with the values, not with the ticks around them.
    Scale(double low, double high, bool log, int wanted, bool tight = false) : m_log(log)
    {
        if (log) {
            low = std::log10(std::max(low, 1e-12));
            high = std::log10(std::max(high, 1e-12));
        }
        if (high - low < 1e-9) {
            const double half = std::max(std::abs(low) * 0.05, 0.5);
            low -= half;
            high += half;
        }
        if (log && high - low > 0.8) {
            m_low = std::floor(low * 1.0000001);
            m_high = std::ceil(high * 0.9999999);
            m_step = std::max(1.0, std::ceil((m_high - m_low) / (wanted + 1)));
            return;
        }
        if (log) {  // less than a decade: numbers as on a straight axis
            m_plainTicks = true;
            m_low = low - 0.04 * (high - low);
            m_high = high + 0.04 * (high - low);
            m_step = Nice((std::pow(10, m_high) - std::pow(10, m_low)) / wanted);
            return;
        }
        m_step = Nice((high - low) / wanted);
        m_first = std::floor(low / m_step + 1e-6) * m_step;
        m_low = tight ? low : m_first;
        m_high = tight ? high : std::ceil(high / m_step - 1e-6) * m_step;
    }
    // 0 at the low end, 1 at the high one.
    double At(double v) const { return ((m_log ? std::log10(std::max(v, 1e-12)) : v) - m_low) / (m_high - m_low); }
    std::vector<double> Ticks() const
    {
        std::vector<double> out;
        if (m_plainTicks) {
            const double first = std::ceil(std::pow(10, m_low) / m_step) * m_step;
            for (int i = 0; first + i * m_step <= std::pow(10, m_high); ++i)
                out.push_back(first + i * m_step);
            return out;
        }
        const double first = m_log ? m_low : m_first;
        for (int i = 0; first + i * m_step <= m_high + m_step * 1e-6; ++i) {
            const double v = first + i * m_step;
            out.push_back(m_log ? std::pow(10, v) : std::abs(v) < m_step * 1e-6 ? 0 : v);
        }
        return out;
    }
    std::string Label(double v) const
    {
        if (m_log && !m_plainTicks)
            return v >= 1e5 || v < 1e-3 ? fmt::format("{:.0e}", v) : fmt::format("{:g}", v);
        const int decimals = std::max(0, static_cast<int>(std::ceil(-std::log10(m_step) - 1e-6)));
        const std::string s = fmt::format("{:.{}f}", v, decimals);
        return s.starts_with('-') ? "\u2212" + s.substr(1) : s;
    }

private:
    static double Nice(double step)
    {
        const double unit = std::pow(10, std::floor(std::log10(step)));
        const double f = step / unit;
        return unit * (f <= 1 ? 1 : f <= 2 ? 2 : f <= 5 ? 5 : 10);
    }
    bool m_log, m_plainTicks = false;
    double m_low = 0, m_high = 1, m_step = 1, m_first = 0;
};

struct Range {
    double low = INFINITY, high = -INFINITY;
    void Take(const std::vector<double>& values, bool log)
    {
        for (const double v : values)
            if (std::isfinite(v) && (!log || v > 0)) {
                low = std::min(low, v);
                high = std::max(high, v);
            }
    }
    Scale Make(bool log, int wanted, bool tight = false) const
    {
        return low > high ? Scale(log ? 1 : 0, log ? 10 : 1, log, wanted) : Scale(low, high, log, wanted, tight);
    }
};

constexpr int WIDTH = 1200, HEIGHT = 700;
// Sizes that stay legible when the picture is shown half as large.
constexpr double TITLE = 30, LABEL = 25, TICK = 23, LINE = 3.5;

struct Frame {
    double left, top, right, bottom;
};

void DrawCurve(const Page& page, const Theme& theme, const Curve& c, const Frame& f, const Scale& sx, const Scale& sy)
{
    const auto px = [&](size_t i) { return f.left + sx.At(c.x[i]) * (f.right - f.left); };
    const auto py = [&](size_t i) { return f.bottom - sy.At(c.y[i]) * (f.bottom - f.top); };
    page.Use(theme.inks[static_cast<size_t>(c.ink)]);
    cairo_set_line_width(page, LINE);
    cairo_set_line_join(page, CAIRO_LINE_JOIN_ROUND);
    const double dashes[] = { 12, 9 };
    cairo_set_dash(page, dashes, c.form == Curve::Form::Dashes ? 2 : 0, 0);
    cairo_new_path(page);
    for (size_t i = 0; i < c.x.size(); ++i) {
        if (c.form == Curve::Form::Points) {
            cairo_new_sub_path(page);
            cairo_arc(page, px(i), py(i), 6, 0, 2 * M_PI);
            continue;
        }
        if (c.form == Curve::Form::Steps && i > 0)
            cairo_line_to(page, px(i), py(i - 1));
        cairo_line_to(page, px(i), py(i));
    }
    c.form == Curve::Form::Points ? cairo_fill(page) : cairo_stroke(page);
    cairo_set_dash(page, nullptr, 0, 0);
}

void DrawLegend(const Page& page, const Theme& theme, const Plot& plot, const Frame& f)
{
    page.Font(LABEL);
    double x = f.right;
    for (auto c = plot.curves.rbegin(); c != plot.curves.rend(); ++c) {
        if (c->name.empty())
            continue;
        x -= page.WidthOf(c->name);
        page.Use(theme.text);
        page.Text(x, f.top - 18, c->name);
        Curve sample{ "", c->ink, false, { 0, 1 }, { 0.5, 0.5 }, c->form };
        const Frame box{ x - 48, f.top - 34, x - 10, f.top - 18 };
        DrawCurve(page, theme, sample, box, Scale(0, 1, false, 1), Scale(0, 1, false, 1));
        x -= 48 + 26;
    }
}

void DrawPlot(const Page& page, const Theme& theme, const Plot& plot, double top)
{
    Range rx, left, right;
    bool hasRight = false;
    for (const Curve& c : plot.curves) {
        rx.Take(c.x, plot.logX);
        (c.right ? right : left).Take(c.y, !c.right && plot.logLeft);
        hasRight = hasRight || c.right;
    }
    if (plot.rightMin != plot.rightMax)
        right.low = plot.rightMin, right.high = plot.rightMax;
    const Scale sx = rx.Make(plot.logX, 8, true), sl = left.Make(plot.logLeft, 5), sr = right.Make(false, 5);

    page.Font(TICK);
    const auto widest = [&](const Scale& s) {
        double w = 0;
        for (const double v : s.Ticks())
            w = std::max(w, page.WidthOf(s.Label(v)));
        return w;
    };
    const Frame f{ 34 + LABEL + widest(sl) + 26, top + 108, hasRight ? WIDTH - 34 - LABEL - widest(sr) - 22 : WIDTH - 40.0,
                   top + HEIGHT - 104 };
    page.Font(TITLE, true);
    page.Use(theme.text);
    page.Text(f.left, top + 46, plot.title);

    page.Font(TICK);
    for (const double v : sx.Ticks()) {
        const double x = f.left + sx.At(v) * (f.right - f.left);
        if (x < f.left - 1 || x > f.right + 1)
            continue;
        page.Use(theme.grid);
        page.Line(x, f.top, x, f.bottom, 1.5);
        page.Use(theme.faint);
        page.Text(x, f.bottom + 34, sx.Label(v), Page::Align::Middle);
    }
    for (const double v : sl.Ticks()) {
        const double y = f.bottom - sl.At(v) * (f.bottom - f.top);
        page.Use(theme.grid);
        page.Line(f.left, y, f.right, y, 1.5);
        page.Use(theme.faint);
        page.Text(f.left - 14, y + TICK * 0.35, sl.Label(v), Page::Align::Right);
    }
    if (hasRight)
        for (const double v : sr.Ticks()) {
            const double y = f.bottom - sr.At(v) * (f.bottom - f.top);
            page.Use(theme.faint);
            page.Line(f.right, y, f.right + 8, y, 1.5);
            page.Text(f.right + 16, y + TICK * 0.35, sr.Label(v));
        }
    page.Use(theme.faint);
    page.Line(f.left, f.bottom, f.right, f.bottom, 2);

    page.Font(LABEL);
    page.Use(theme.text);
    page.Text((f.left + f.right) / 2, f.bottom + 78, plot.x, Page::Align::Middle);
    page.TextUp(34 + LABEL * 0.3, (f.top + f.bottom) / 2, plot.left);
    if (hasRight)
        page.TextUp(WIDTH - 24, (f.top + f.bottom) / 2, plot.right);

    cairo_save(page);
    cairo_rectangle(page, f.left - 1, f.top - LINE, f.right - f.left + 2, f.bottom - f.top + 2 * LINE);
    cairo_clip(page);
    for (const Curve& c : plot.curves)
        DrawCurve(page, theme, c, f, sx, c.right ? sr : sl);
    cairo_restore(page);
    DrawLegend(page, theme, plot, f);
}

using Surface = std::unique_ptr<cairo_surface_t, void (*)(cairo_surface_t*)>;

// Each pixel is the brightest of the 4 x 4 blocks of its part of the picture, by their means: noise evens out, stars stay.
Surface ShrunkByStars(cairo_surface_t* picture, int width, int height)
{
    constexpr int BLOCK = 4;
    const int w = cairo_image_surface_get_width(picture), h = cairo_image_surface_get_height(picture);
    const Surface from(cairo_image_surface_create(CAIRO_FORMAT_RGB24, w, h), &cairo_surface_destroy);
    cairo_t* const copy = cairo_create(from.get());  // of whatever depth the file has
    cairo_set_source_surface(copy, picture, 0, 0);
    cairo_paint(copy);
    cairo_destroy(copy);
    Surface to(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height), &cairo_surface_destroy);
    cairo_surface_flush(from.get());
    const unsigned char* const source = cairo_image_surface_get_data(from.get());
    const int pitch = cairo_image_surface_get_stride(from.get());
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            int best[3] = {}, bestSum = -1;
            for (int by = y * h / height; by + BLOCK <= std::min(h, (y + 1) * h / height + BLOCK - 1); by += BLOCK)
                for (int bx = x * w / width; bx + BLOCK <= std::min(w, (x + 1) * w / width + BLOCK - 1); bx += BLOCK) {
                    int sum[3] = {};
                    for (int i = 0; i < BLOCK * BLOCK; ++i)
                        for (int c = 0; c < 3; ++c)
                            sum[c] += source[(by + i / BLOCK) * pitch + (bx + i % BLOCK) * 4 + c];
                    if (sum[0] + sum[1] + sum[2] > bestSum) {
                        bestSum = sum[0] + sum[1] + sum[2];
                        std::copy(sum, sum + 3, best);
                    }
                }
            unsigned char* const pixel = cairo_image_surface_get_data(to.get()) +
                                         ptrdiff_t{ y } * cairo_image_surface_get_stride(to.get()) + ptrdiff_t{ x } * 4;
            for (int c = 0; c < 3; ++c)
                pixel[c] = static_cast<unsigned char>(best[c] / (BLOCK * BLOCK));
        }
    cairo_surface_mark_dirty(to.get());
    return to;
}

}  // namespace

void DrawPlots(const std::string& path, const std::vector<Plot>& plots, bool dark)
{
    const Theme& theme = dark ? DARK : LIGHT;
    const Page page(WIDTH, HEIGHT * static_cast<int>(plots.size()), theme);
    for (size_t i = 0; i < plots.size(); ++i)
        DrawPlot(page, theme, plots[i], static_cast<double>(i) * HEIGHT);
    page.Save(path);
}

void DrawSheet(const std::string& path, const Sheet& s)
{
    constexpr int GAP = 10, CAPTION = 38;
    const Theme& theme = s.dark ? DARK : LIGHT;
    const int n = static_cast<int>(s.pictures.size()), columns = std::max(1, std::min(s.columns, n)),
              rows = (n + columns - 1) / columns;
    const bool captions = std::any_of(s.pictures.begin(), s.pictures.end(), [](const auto& p) { return !p.caption.empty(); });
    const int below = captions ? CAPTION : 0;
    const Page page(GAP + columns * (s.tileWidth + GAP), GAP + rows * (s.tileHeight + below + GAP), theme);
    for (int i = 0; i < n; ++i) {
        const Sheet::Picture& p = s.pictures[static_cast<size_t>(i)];
        Surface picture(cairo_image_surface_create_from_png(p.file.c_str()), &cairo_surface_destroy);
        if (cairo_surface_status(picture.get()) != CAIRO_STATUS_SUCCESS)
            throw std::runtime_error(p.file + ": " + cairo_status_to_string(cairo_surface_status(picture.get())));
        const bool part = s.cropWidth > 0;
        const double whole = std::min(s.tileWidth / static_cast<double>(cairo_image_surface_get_width(picture.get())),
                                      s.tileHeight / static_cast<double>(cairo_image_surface_get_height(picture.get())));
        if (s.keepStars && !part && whole < 0.25)
            picture = ShrunkByStars(picture.get(), static_cast<int>(cairo_image_surface_get_width(picture.get()) * whole),
                                    static_cast<int>(cairo_image_surface_get_height(picture.get()) * whole));
        const double w = part ? s.cropWidth : cairo_image_surface_get_width(picture.get());
        const double h = part ? s.cropHeight : cairo_image_surface_get_height(picture.get());
        const double scale = std::min(s.tileWidth / w, s.tileHeight / h);
        const auto column = i % columns, row = i / columns;
        const double left = GAP + column * (s.tileWidth + GAP), top = GAP + row * (s.tileHeight + below + GAP);
        cairo_save(page);
        cairo_translate(page, std::round(left + (s.tileWidth - w * scale) / 2), std::round(top + (s.tileHeight - h * scale) / 2));
        cairo_rectangle(page, 0, 0, std::round(w * scale), std::round(h * scale));
        cairo_clip(page);
        cairo_scale(page, scale, scale);
        cairo_set_source_surface(page, picture.get(), part ? -s.cropX : 0, part ? -s.cropY : 0);
        cairo_pattern_set_filter(cairo_get_source(page),
                                 scale > 1 ? CAIRO_FILTER_NEAREST : CAIRO_FILTER_GOOD);  // enlarged pixels stay pixels
        cairo_paint(page);
        cairo_restore(page);
        double size = 24;
        for (page.Font(size); size > 10 && page.WidthOf(p.caption) > s.tileWidth; page.Font(size))
            size -= 1;
        page.Use(theme.text);
        page.Text(left + s.tileWidth / 2.0, top + s.tileHeight + 26, p.caption, Page::Align::Middle);
    }
    page.Save(path);
}

}  // namespace kovtools
