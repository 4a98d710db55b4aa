// kovsheet: pictures side by side with captions.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "common/Canvas.h"

using kovtools::Canvas;

namespace {

struct Options {
    std::string sOut, sTile = "320x240", sCrop;
    int iColumns = 3;
    bool bDark = false;
    std::vector<std::string> pictures;
};

void Make(const Options& o)
{
    int w = 0, h = 0, x = 0, y = 0, cw = 0, ch = 0;
    if (std::sscanf(o.sTile.c_str(), "%dx%d", &w, &h) != 2 || w < 1 || h < 1)
        throw std::runtime_error("--tile: WIDTHxHEIGHT expected");
    if (!o.sCrop.empty() && std::sscanf(o.sCrop.c_str(), "%dx%d+%d+%d", &cw, &ch, &x, &y) != 4)
        throw std::runtime_error("--crop: WIDTHxHEIGHT+X+Y expected");
    constexpr int GAP = 8, CAPTION = 24;
    const int n = static_cast<int>(o.pictures.size()), columns = std::min(o.iColumns, n), rows = (n + columns - 1) / columns;
    const kovtools::Colour ground = o.bDark ? kovtools::Colour{ 24, 24, 28 } : kovtools::WHITE;
    Canvas sheet(GAP + columns * (w + GAP), GAP + rows * (h + CAPTION + GAP), ground);
    for (int i = 0; i < n; ++i) {
        const std::string& item = o.pictures[static_cast<size_t>(i)];
        const size_t at = item.find('=');
        Canvas c = Canvas::Load(item.substr(0, at));
        if (cw > 0)
            c = c.Part(x, y, cw, ch);
        // The whole picture, its shape kept.
        const double f = std::min(static_cast<double>(w) / c.Width(), static_cast<double>(h) / c.Height());
        const int iw = std::max(1, static_cast<int>(c.Width() * f)), ih = std::max(1, static_cast<int>(c.Height() * f));
        const int left = GAP + i % columns * (w + GAP), top = GAP + i / columns * (h + CAPTION + GAP);
        sheet.Paste(iw == c.Width() && ih == c.Height() ? c : c.Resized(iw, ih), left + (w - iw) / 2, top + (h - ih) / 2);
        const std::string caption = at == std::string::npos ? "" : item.substr(at + 1);
        const int scale = Canvas::TextWidth(caption) <= w ? 2 : 1;
        sheet.Text(left + (w - Canvas::TextWidth(caption, scale)) / 2, top + h + 4, caption, o.bDark ? kovtools::PALE : kovtools::BLACK, scale);
    }
    sheet.Save(o.sOut);
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app("kovsheet - puts PNG pictures side by side", "kovsheet");
    Options o;
    app.add_option("out", o.sOut, "PNG to write")->required();
    app.add_option("pictures", o.pictures, "FILE or FILE=CAPTION")->required();
    app.add_option("--columns", o.iColumns, "Pictures in a row")->check(CLI::PositiveNumber);
    app.add_option("--tile", o.sTile, "Largest size of a picture")->capture_default_str();
    app.add_option("--crop", o.sCrop, "Part of each picture: WxH+X+Y");
    app.add_flag("--dark", o.bDark, "Dark ground");
    CLI11_PARSE(app, argc, argv);
    try {
        Make(o);
    } catch (const std::exception& e) {
        fmt::print(stderr, "kovsheet: {}\n", e.what());
        return 1;
    }
    return 0;
}
