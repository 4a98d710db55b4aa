#include "common/FitsHeader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <stdexcept>
#include <system_error>

#include "common/Text.h"

namespace kovtools {

std::vector<FitsCard> MakeFitsCards(const CameraState& s, const FrameTimes& times, const FitsNotes& notes)
{
    std::vector<FitsCard> cards;
    const auto add = [&](const char* key, auto value, const char* comment, int decimals = 6) {
        if constexpr (std::is_same_v<decltype(value), int>)
            cards.push_back({ key, int64_t{ value }, comment, decimals });
        else
            cards.push_back({ key, value, comment, decimals });
    };
    const auto text = [&](const char* key, const std::string& value, const char* comment) {
        if (!value.empty())
            cards.push_back({ key, value, comment });
    };
    text("INSTRUME", s.info.Name, "camera model");
    text("IMAGETYP", notes.imageType, "kind of image");
    text("OBJECT", notes.object, "what was pictured");
    text("TELESCOP", notes.telescope, "telescope or lens");
    if (notes.focalLength)
        add("FOCALLEN", *notes.focalLength, "[mm] focal length", 2);
    if (notes.ra) {
        add("RA", *notes.ra, "[deg] right ascension of the picture's centre");
        text("OBJCTRA", SexagesimalText(*notes.ra, true), "[h m s] the same");
    }
    if (notes.dec) {
        add("DEC", *notes.dec, "[deg] declination of the picture's centre");
        text("OBJCTDEC", SexagesimalText(*notes.dec, false), "[d m s] the same");
    }
    add("EXPTIME", s.exposure, "[s] exposure");
    add("GAIN", s.gain, "gain setting of the camera");
    add("OFFSET", s.offset, "black level setting of the camera");
    if (const auto electrons = ElectronsPerSample(s))
        add("EGAIN", *electrons, "[e-/ADU] of these samples");
    if (s.gamma != 50)
        add("GAMMA", s.gamma, "gamma setting, 50 is linear");
    add("XBINNING", s.bin, "binning of columns");
    add("YBINNING", s.bin, "binning of rows");
    add("XPIXSZ", s.info.PixelSize * s.bin, "[um] pixel pitch, binning counted in", 3);
    add("YPIXSZ", s.info.PixelSize * s.bin, "[um] pixel pitch, binning counted in", 3);
    add("XORGSUBF", s.startX * s.bin, "[pixel] first column of the region, unbinned");
    add("YORGSUBF", s.startY * s.bin, "[pixel] first row of the region, unbinned");
    static constexpr const char* flips[] = { "None", "Mirror", "Flip", "Flip/Mirror" };
    text("FLIPSTAT", flips[s.flip & 3], "Mirror: columns reversed, Flip: rows reversed");
    if (s.temperature)
        add("CCD-TEMP", *s.temperature, "[deg C] sensor temperature", 1);
    if (s.target)
        add("SET-TEMP", *s.target, "[deg C] cooler target", 1);
    if (s.coolerPower)
        add("COOLPOWR", *s.coolerPower, "[percent] cooler power", 0);
    if (IsMosaic(s)) {
        text("BAYERPAT", PatternName(DeliveredPattern(s)), "colour cell from the first pixel on");
        add("XBAYROFF", 0, "columns from the cell's corner");
        add("YBAYROFF", 0, "rows from the cell's corner");
    }
    text("ROWORDER", "TOP-DOWN", "the first row of the file is the top one");
    text("DATE-OBS", UtcText(times.start), "[UTC] start of exposure");
    text("DATE-END", UtcText(times.end), "[UTC] end of exposure");
    text("SWCREATE", notes.software, "program that wrote this file");
    for (const FitsCard& own : notes.more) {
        const auto same = std::find_if(cards.begin(), cards.end(), [&](const FitsCard& c) { return c.key == own.key; });
        if (same != cards.end() && own.key != "HISTORY" && own.key != "COMMENT")
            *same = own;
        else
            cards.push_back(own);
    }
    if (s.darkSubtracted && notes.history.empty())
        cards.push_back({ "HISTORY", std::string("dark frame subtracted"), "" });
    for (const std::string& line : notes.history)
        cards.push_back({ "HISTORY", line, "" });
    return cards;
}

FitsCard ParseFitsCard(const std::string& text)
{
    const size_t at = text.find('=');
    FitsCard card;
    card.key = text.substr(0, at);
    std::transform(card.key.begin(), card.key.end(), card.key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const bool allowed = !card.key.empty() && card.key.size() <= 8 &&
                         card.key.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_") == std::string::npos;
    if (at == std::string::npos || !allowed)
        throw std::invalid_argument(
            fmt::format("'{}' is no keyword; write KEY=VALUE, the key 1 to 8 of A-Z, 0-9, - and _", text));
    static constexpr const char* own[] = { "SIMPLE", "BITPIX", "EXTEND", "BZERO", "BSCALE", "END", "CONTINUE" };
    if (card.key.starts_with("NAXIS") || std::find(std::begin(own), std::end(own), card.key) != std::end(own))
        throw std::invalid_argument(fmt::format("the keyword {} belongs to the image itself", card.key));
    const std::string value = text.substr(at + 1);
    const char *first = value.data(), *last = first + value.size();
    int64_t whole = 0;
    double number = 0;
    if (value.find_first_of("\r\n") != std::string::npos)
        throw std::invalid_argument(fmt::format("the value of {} has more than one line", card.key));
    if (value == "T" || value == "F")
        card.value = value == "T";
    else if (const auto r = std::from_chars(first, last, whole); r.ec == std::errc() && r.ptr == last)
        card.value = whole;
    else if (const auto d = std::from_chars(first, last, number); d.ec == std::errc() && d.ptr == last && std::isfinite(number))
        card.value = number, card.decimals = -1;
    else
        card.value = value;
    return card;
}

}  // namespace kovtools
