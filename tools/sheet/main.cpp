// kovsheet: pictures side by side with captions.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Plot.h"

namespace {

struct Options {
    std::string out, tile = "320x240", crop;
    std::vector<std::string> pictures;
    kovtools::Sheet sheet;
};

void Make(Options o)
{
    kovtools::Sheet& s = o.sheet;
    if (std::sscanf(o.tile.c_str(), "%dx%d", &s.tileWidth, &s.tileHeight) != 2 || s.tileWidth < 1 || s.tileHeight < 1)
        throw std::runtime_error("--tile: WIDTHxHEIGHT expected");
    if (!o.crop.empty() && std::sscanf(o.crop.c_str(), "%dx%d+%d+%d", &s.cropWidth, &s.cropHeight, &s.cropX, &s.cropY) != 4)
        throw std::runtime_error("--crop: WIDTHxHEIGHT+X+Y expected");
    for (const std::string& item : o.pictures) {
        const size_t at = item.find('=');
        s.pictures.push_back({ item.substr(0, at), at == std::string::npos ? "" : item.substr(at + 1) });
    }
    kovtools::DrawSheet(o.out, s);
}

}  // namespace

int main(int argc, char** argv)  // NOLINT(bugprone-exception-escape): without memory there is nobody to tell
{
    CLI::App app("kovsheet - puts PNG pictures side by side", "kovsheet");
    Options o;
    app.add_option("out", o.out, "PNG to write")->required();
    app.add_option("pictures", o.pictures, "FILE or FILE=CAPTION")->required();
    app.add_option("--columns", o.sheet.columns, "Pictures in a row")->check(CLI::PositiveNumber);
    app.add_option("--tile", o.tile, "Largest size of a picture")->capture_default_str();
    app.add_option("--crop", o.crop, "Part of each picture: WxH+X+Y");
    app.add_flag("--dark", o.sheet.dark, "Dark ground");
    app.add_flag("--stars", o.sheet.keepStars, "Keep stars where a picture is shrunk");
    CLI11_PARSE(app, argc, argv);
    try {
        Make(o);
    } catch (const std::exception& e) {
        fmt::print(stderr, "kovsheet: {}\n", e.what());
        return 1;
    }
    return 0;
}
