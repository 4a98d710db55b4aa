// jpeglib.h leaves these to who includes it.
#include <cstddef>
#include <cstdio>

#include <jpeglib.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <tuple>

#include "kovcam/serve/Measure.h"

namespace kovserve {

namespace {

// From a sample to a byte of the screen: the frame's own stretch, or black, white and the midtone that a viewer has set.
std::vector<uint8_t> CurveOf(const Frame& frame, const Statistics* statistics, const View& view)
{
    const size_t size = static_cast<size_t>(kovtools::TopSample(frame.type)) + 1;
    if (view.automatic && statistics != nullptr && statistics->curve.size() == size)
        return statistics->curve;
    std::vector<uint8_t> curve(size);
    const double span = std::max(1e-6, view.white - view.black), m = view.middle;
    for (size_t i = 0; i < size; ++i) {
        const double v = std::clamp((static_cast<double>(i) / static_cast<double>(size - 1) - view.black) / span, 0.0, 1.0);
        curve[i] = static_cast<uint8_t>(std::lround(255 * (v <= 0 ? 0 : v >= 1 ? 1 : (m - 1) * v / ((2 * m - 1) * v - m))));
    }
    return curve;
}
using Curve = std::vector<uint8_t>;

template <class Sample>
struct Source {
    const Sample* pixels;
    int width, height;
    const uint8_t* colours;  // of the mosaic's cell; null: grey

    uint32_t At(int x, int y) const
    {
        return pixels[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)];
    }
};

// The mean of a few samples of each colour in a cell of the source. They are stretched before: a star of a few pixels would
// drown among those of the sky.
template <class Sample>
void Cell(const Source<Sample>& s, const Curve& curve, int x0, int y0, int x1, int y1, uint8_t out[3])
{
    if (s.colours == nullptr) {
        uint64_t sum = 0, n = 0;
        const int sx = std::max(1, (x1 - x0) / 4), sy = std::max(1, (y1 - y0) / 4);
        for (int y = y0; y < y1; y += sy)
            for (int x = x0; x < x1; x += sx, ++n)
                sum += curve[s.At(x, y)];
        out[0] = out[1] = out[2] = static_cast<uint8_t>(sum / std::max<uint64_t>(1, n));
        return;
    }
    // Whole colour cells, so that each colour is there.
    x0 = std::min(x0, s.width - 2);
    y0 = std::min(y0, s.height - 2);
    x1 = std::max(x1, x0 + 2);
    y1 = std::max(y1, y0 + 2);
    uint64_t sum[3] = {};
    uint32_t n[3] = {};
    const int sx = std::max(2, (x1 - x0) / 4 & ~1), sy = std::max(2, (y1 - y0) / 4 & ~1);
    for (int y = y0; y + 1 < y1 + 1 && y + 1 < s.height; y += sy)
        for (int x = x0; x + 1 < x1 + 1 && x + 1 < s.width; x += sx)
            for (int d = 0; d < 4; ++d) {
                const int px = x + (d & 1), py = y + (d >> 1);
                const uint8_t c = s.colours[(py & 1) * 2 + (px & 1)];
                sum[c] += curve[s.At(px, py)];
                ++n[c];
            }
    for (int c = 0; c < 3; ++c)
        out[c] = n[c] != 0 ? static_cast<uint8_t>(sum[c] / n[c]) : 0;
}

// Bilinear: the mean of the neighbours of each colour in a window of three by three.
template <class Sample>
void Demosaiced(const Source<Sample>& s, int x, int y, uint32_t out[3])
{
    const uint8_t own = s.colours[(y & 1) * 2 + (x & 1)];
    uint32_t sum[3] = {}, n[3] = {};
    for (int py = std::max(0, y - 1); py <= std::min(s.height - 1, y + 1); ++py)
        for (int px = std::max(0, x - 1); px <= std::min(s.width - 1, x + 1); ++px) {
            const uint8_t c = s.colours[(py & 1) * 2 + (px & 1)];
            sum[c] += s.At(px, py);
            ++n[c];
        }
    for (uint8_t c = 0; c < 3; ++c)
        out[c] = c == own ? s.At(x, y) : n[c] != 0 ? sum[c] / n[c] : 0;
}

template <class Sample>
void Fill(const Source<Sample>& s, const Curve& curve, double left, double top, double scale, Picture& out)
{
    for (int y = 0; y < out.height; ++y) {
        uint8_t* to = out.rgb.data() + static_cast<size_t>(y) * static_cast<size_t>(out.width) * 3;
        const int y0 = std::min(s.height - 1, static_cast<int>(top + y * scale));
        const int y1 = std::clamp(static_cast<int>(top + (y + 1) * scale), y0 + 1, s.height);
        for (int x = 0; x < out.width; ++x, to += 3) {
            const int x0 = std::min(s.width - 1, static_cast<int>(left + x * scale));
            const int x1 = std::clamp(static_cast<int>(left + (x + 1) * scale), x0 + 1, s.width);
            if (scale >= 2 || s.colours == nullptr) {
                Cell(s, curve, x0, y0, x1, y1, to);
                continue;
            }
            uint32_t v[3];
            Demosaiced(s, x0, y0, v);
            for (size_t c = 0; c < 3; ++c)
                to[c] = curve[v[c]];
        }
    }
}

// Blue, green, red from the library.
void FillColour(const Frame& f, const Curve& curve, double left, double top, double scale, Picture& out)
{
    for (int y = 0; y < out.height; ++y) {
        uint8_t* to = out.rgb.data() + static_cast<size_t>(y) * static_cast<size_t>(out.width) * 3;
        const int y0 = std::min(f.height - 1, static_cast<int>(top + y * scale));
        const int y1 = std::clamp(static_cast<int>(top + (y + 1) * scale), y0 + 1, f.height);
        const int sy = std::max(1, (y1 - y0) / 4);
        for (int x = 0; x < out.width; ++x, to += 3) {
            const int x0 = std::min(f.width - 1, static_cast<int>(left + x * scale));
            const int x1 = std::clamp(static_cast<int>(left + (x + 1) * scale), x0 + 1, f.width);
            const int sx = std::max(1, (x1 - x0) / 4);
            uint32_t sum[3] = {}, n = 0;
            for (int py = y0; py < y1; py += sy)
                for (int px = x0; px < x1; px += sx, ++n) {
                    const uint8_t* p =
                        f.pixels.data() + (static_cast<size_t>(py) * static_cast<size_t>(f.width) + static_cast<size_t>(px)) * 3;
                    sum[0] += curve[p[2]];
                    sum[1] += curve[p[1]];
                    sum[2] += curve[p[0]];
                }
            for (size_t c = 0; c < 3; ++c)
                to[c] = static_cast<uint8_t>(sum[c] / n);
        }
    }
}

template <class Sample>
void BinSamples(Frame& f, int bin)
{
    auto* const data = reinterpret_cast<Sample*>(f.pixels.data());
    const int width = f.width / bin, height = f.height / bin;
    const bool mosaic = f.mosaic.has_value();
    const int step = mosaic ? 2 : 1;
    const auto n = static_cast<uint32_t>(bin);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const int x0 = mosaic ? x / 2 * 2 * bin + (x & 1) : x * bin, y0 = mosaic ? y / 2 * 2 * bin + (y & 1) : y * bin;
            uint32_t sum = 0;
            for (int j = 0; j < bin; ++j)
                for (int i = 0; i < bin; ++i) {
                    // The last half cell of an odd width has no neighbours of its colour any more.
                    const int sx = std::min(x0 + i * step, f.width - 1), sy = std::min(y0 + j * step, f.height - 1);
                    sum += data[static_cast<size_t>(sy) * static_cast<size_t>(f.width) + static_cast<size_t>(sx)];
                }
            data[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)] =
                sizeof(Sample) == 1 ? static_cast<Sample>(std::min<uint32_t>(sum, 255)) : static_cast<Sample>(sum / n / n);
        }
    f.width = width;
    f.height = height;
    f.bin *= bin;
    f.startX /= bin;
    f.startY /= bin;
    f.pixels.resize(static_cast<size_t>(width) * static_cast<size_t>(height) * sizeof(Sample));
}

}  // namespace

bool View::operator<(const View& o) const
{
    return std::tie(x, y, width, height, outWidth, automatic, black, white, middle, quality) <
           std::tie(o.x, o.y, o.width, o.height, o.outWidth, o.automatic, o.black, o.white, o.middle, o.quality);
}

void BinFrame(Frame& frame, int bin)
{
    if (frame.type == IMG_RAW16)
        BinSamples<uint16_t>(frame, bin);
    else
        BinSamples<uint8_t>(frame, bin);
}

Picture Render(const Frame& frame, const Statistics* statistics, const View& view)
{
    double left = std::clamp(view.x, 0.0, frame.width - 1.0), top = std::clamp(view.y, 0.0, frame.height - 1.0);
    double width = view.width > 0 ? std::min(view.width, frame.width - left) : frame.width - left;
    double height = view.height > 0 ? std::min(view.height, frame.height - top) : frame.height - top;
    width = std::max(1.0, width);
    height = std::max(1.0, height);
    const double scale = std::max(1.0, width / std::max(1, view.outWidth > 0 ? view.outWidth : 1280));
    Picture out;
    out.width = std::max(1, static_cast<int>(width / scale));
    out.height = std::max(1, static_cast<int>(height / scale));
    out.rgb.resize(static_cast<size_t>(out.width) * static_cast<size_t>(out.height) * 3);
    const Curve curve = CurveOf(frame, statistics, view);
    const uint8_t* const colours =
        frame.mosaic && frame.width > 1 && frame.height > 1 ? kovtools::CellColours(*frame.mosaic).data() : nullptr;
    if (frame.type == IMG_RGB24)
        FillColour(frame, curve, left, top, scale, out);
    else if (frame.type == IMG_RAW16)
        Fill(Source<uint16_t>{ reinterpret_cast<const uint16_t*>(frame.pixels.data()), frame.width, frame.height, colours },
             curve, left, top, scale, out);
    else
        Fill(Source<uint8_t>{ frame.pixels.data(), frame.width, frame.height, colours }, curve, left, top, scale, out);
    return out;
}

namespace {

struct JpegError {
    jpeg_error_mgr manager;
    std::jmp_buf jump;
};

// Everything that a jump leaves behind lives outside of it.
bool Compress(jpeg_compress_struct& c, JpegError& error, const Picture& picture, int quality, unsigned char** memory,
              unsigned long* size)
{
    if (setjmp(error.jump) != 0)
        return false;
    jpeg_create_compress(&c);
    jpeg_mem_dest(&c, memory, size);
    c.image_width = static_cast<JDIMENSION>(picture.width);
    c.image_height = static_cast<JDIMENSION>(picture.height);
    c.input_components = 3;
    c.in_color_space = JCS_RGB;
    jpeg_set_defaults(&c);
    jpeg_set_quality(&c, quality, TRUE);
    jpeg_start_compress(&c, TRUE);
    while (c.next_scanline < c.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(picture.rgb.data()) + static_cast<size_t>(c.next_scanline) * c.image_width * 3;
        jpeg_write_scanlines(&c, &row, 1);
    }
    jpeg_finish_compress(&c);
    return true;
}

}  // namespace

std::string Jpeg(const Picture& picture, int quality)
{
    jpeg_compress_struct c{};
    JpegError error{};
    c.err = jpeg_std_error(&error.manager);
    error.manager.error_exit = [](j_common_ptr p) { std::longjmp(reinterpret_cast<JpegError*>(p->err)->jump, 1); };
    unsigned char* memory = nullptr;
    unsigned long size = 0;
    const bool ok = Compress(c, error, picture, quality, &memory, &size);
    std::string out;
    if (ok)
        out.assign(reinterpret_cast<const char*>(memory), size);
    jpeg_destroy_compress(&c);
    std::free(memory);
    if (!ok)
        throw std::runtime_error("the picture could not be compressed");
    return out;
}

}  // namespace kovserve
