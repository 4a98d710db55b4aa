#include "kovcam/serve/Columns.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace kovserve {

namespace {

// Columns become rows, in tiles that stay in the cache.
template <class From, class To>
void Transpose(const From* from, int width, int height, To* to)
{
    constexpr int TILE = 32;
    for (int y0 = 0; y0 < height; y0 += TILE)
        for (int x0 = 0; x0 < width; x0 += TILE)
            for (int x = x0; x < std::min(x0 + TILE, width); ++x)
                for (int y = y0; y < std::min(y0 + TILE, height); ++y)
                    to[static_cast<size_t>(x) * static_cast<size_t>(height) + static_cast<size_t>(y)] =
                        from[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
}

template <class To>
void TransposeColour(const uint8_t* from, int width, int height, To* to)
{
    constexpr int TILE = 32;
    for (int y0 = 0; y0 < height; y0 += TILE)
        for (int x0 = 0; x0 < width; x0 += TILE)
            for (int x = x0; x < std::min(x0 + TILE, width); ++x)
                for (int y = y0; y < std::min(y0 + TILE, height); ++y) {
                    const uint8_t* const bgr =
                        from + (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 3;
                    To* const rgb = to + (static_cast<size_t>(x) * static_cast<size_t>(height) + static_cast<size_t>(y)) * 3;
                    rgb[0] = bgr[2];
                    rgb[1] = bgr[1];
                    rgb[2] = bgr[0];
                }
}

}  // namespace

std::string Columns(const Frame& f, bool wide)
{
    const size_t sample = wide ? 4 : f.type == IMG_RAW16 ? 2 : 1;
    std::string out(
        static_cast<size_t>(f.width) * static_cast<size_t>(f.height) * static_cast<size_t>(f.View().Channels()) * sample, '\0');
    char* const to = out.data();
    const uint8_t* const bytes = f.pixels.data();
    const auto* const words = reinterpret_cast<const uint16_t*>(bytes);
    if (f.type == IMG_RGB24 && wide)
        TransposeColour(bytes, f.width, f.height, reinterpret_cast<int32_t*>(to));
    else if (f.type == IMG_RGB24)
        TransposeColour(bytes, f.width, f.height, reinterpret_cast<uint8_t*>(to));
    else if (f.type == IMG_RAW16 && wide)
        Transpose(words, f.width, f.height, reinterpret_cast<int32_t*>(to));
    else if (f.type == IMG_RAW16)
        Transpose(words, f.width, f.height, reinterpret_cast<uint16_t*>(to));
    else if (wide)
        Transpose(bytes, f.width, f.height, reinterpret_cast<int32_t*>(to));
    else
        Transpose(bytes, f.width, f.height, reinterpret_cast<uint8_t*>(to));
    return out;
}

void AppendColumn(const Frame& f, int x, std::string& out)
{
    out += '[';
    char number[8];
    const auto put = [&](uint32_t v) {
        const auto r = std::to_chars(number, number + sizeof(number), v);
        out.append(number, r.ptr);
    };
    for (int y = 0; y < f.height; ++y) {
        if (y != 0)
            out += ',';
        const size_t i = static_cast<size_t>(y) * static_cast<size_t>(f.width) + static_cast<size_t>(x);
        if (f.type == IMG_RGB24) {
            out += '[';
            put(f.pixels[i * 3 + 2]);
            out += ',';
            put(f.pixels[i * 3 + 1]);
            out += ',';
            put(f.pixels[i * 3]);
            out += ']';
        } else if (f.type == IMG_RAW16) {
            put(reinterpret_cast<const uint16_t*>(f.pixels.data())[i]);
        } else {
            put(f.pixels[i]);
        }
    }
    out += ']';
}

}  // namespace kovserve
