#include "kovcam/Output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "common/Fits.h"
#include "common/Host.h"
#include "common/Png.h"
#include "imaging/CAlgorithm.h"
#include "kovcam/Camera.h"

namespace kovcam {

namespace {

int Channels(const Picture& p)
{
    return p.type == IMG_RGB24 ? 3 : 1;
}

size_t Pixels(const Picture& p)
{
    return static_cast<size_t>(p.iWidth) * static_cast<size_t>(p.iHeight);
}

// A curve from sample to display byte. Black is a little under the median, white lets a star's core reach the top, and
// between them the inverse hyperbolic sine keeps faint light visible.
std::vector<uint8_t> MakeCurve(const std::vector<uint32_t>& histogram, Stretch stretch)
{
    const size_t n = histogram.size();
    std::vector<uint8_t> curve(n);
    if (stretch == Stretch::None) {
        for (size_t i = 0; i < n; ++i)
            curve[i] = static_cast<uint8_t>(i * 256 / n);
        return curve;
    }
    uint64_t total = 0;
    for (const uint32_t h : histogram)
        total += h;
    const auto quantile = [&](double q) {
        uint64_t sum = 0;
        for (size_t i = 0; i < n; ++i)
            if (static_cast<double>(sum += histogram[i]) >= q * static_cast<double>(total))
                return static_cast<double>(i);
        return static_cast<double>(n - 1);
    };
    const double median = quantile(0.5), spread = std::max(quantile(0.84) - median, static_cast<double>(n) / 4096);
    const double black = median - 0.5 * spread;
    const double white = std::max(quantile(0.9997), median + 20 * spread);
    const double soft = 5 * spread;
    const double top = std::asinh((white - black) / soft);
    for (size_t i = 0; i < n; ++i) {
        const double v = std::asinh(std::max(0.0, static_cast<double>(i) - black) / soft) / top;
        curve[i] = static_cast<uint8_t>(std::clamp(v, 0.0, 1.0) * 255.0 + 0.5);
    }
    return curve;
}

}  // namespace

void WriteFits(const std::string& path, const Picture& p)
{
    kovtools::FitsFile f(path, p.iWidth, p.iHeight, Channels(p), p.type == IMG_RAW16);
    f.Key("INSTRUME", p.sCamera, "camera model");
    f.Key("IMAGETYP", p.sImageType, "kind of image");
    f.Key("EXPTIME", p.dExposure, 6, "[s] exposure");
    f.Key("GAIN", p.iGain, "gain setting of the camera");
    f.Key("OFFSET", p.iOffset, "black level setting of the camera");
    if (p.dElecPerADU > 0)
        f.Key("EGAIN", p.dElecPerADU, 4, "[e-/ADU] as the model tells it");
    f.Key("XBINNING", p.iBin, "binning of columns");
    f.Key("YBINNING", p.iBin, "binning of rows");
    f.Key("XPIXSZ", p.dPixelUm * p.iBin, 3, "[um] pixel pitch, binning counted in");
    f.Key("YPIXSZ", p.dPixelUm * p.iBin, 3, "[um] pixel pitch, binning counted in");
    if (p.bHasTemp)
        f.Key("CCD-TEMP", p.dTemp, 1, "[deg C] sensor temperature");
    if (p.bHasTarget)
        f.Key("SET-TEMP", p.dTarget, 1, "[deg C] cooler target");
    if (p.bColor && Channels(p) == 1 && p.type != IMG_Y8) {
        f.Key("BAYERPAT", PatternText(p.pattern), "colour cell from the first pixel of the first row");
        f.Key("XBAYROFF", 0, "columns from the cell's corner");
        f.Key("YBAYROFF", 0, "rows from the cell's corner");
    }
    f.Key("ROWORDER", std::string("TOP-DOWN"), "the first row of the file is the top one");
    f.Key("DATE-OBS", UtcNow(p.start), "[UTC] start of exposure");
    f.Key("DATE-END", UtcNow(p.end), "[UTC] end of exposure");
    f.Key("SWCREATE", std::string("kovcam " KOV_VERSION), "program that wrote this file");

    if (Channels(p) == 3) {
        std::vector<uint8_t> plane(Pixels(p));
        for (size_t c = 0; c < 3; ++c) {  // the library delivers blue, green, red
            for (size_t i = 0; i < plane.size(); ++i)
                plane[i] = p.data[3 * i + 2 - c];
            f.Plane(plane.data());
        }
    } else {
        f.Plane(p.data.data());
    }
    f.Close();
}

// What a PNG shows: grey, or red, green, blue (mosaics are interpolated).
static std::vector<uint8_t> Render(const Picture& p, Stretch stretch, int* pChannels)
{
    const size_t n = Pixels(p) * static_cast<size_t>(Channels(p));
    std::vector<uint16_t> wide;
    if (p.type == IMG_RAW16) {
        wide.resize(n);
        std::memcpy(wide.data(), p.data.data(), 2 * n);
    }
    std::vector<uint32_t> histogram(wide.empty() ? 256 : 65536);
    for (size_t i = 0; i < n; ++i)
        ++histogram[wide.empty() ? p.data[i] : wide[i]];
    const std::vector<uint8_t> curve = MakeCurve(histogram, stretch);
    std::vector<uint8_t> shown(n);
    for (size_t i = 0; i < n; ++i)
        shown[i] = curve[wide.empty() ? p.data[i] : wide[i]];

    const bool bMosaic = p.bColor && (p.type == IMG_RAW8 || p.type == IMG_RAW16);
    const bool bEven = p.iWidth % 2 == 0 && p.iHeight % 2 == 0;
    if (bMosaic && bEven) {
        std::vector<uint8_t> rgb(3 * Pixels(p));
        CAlgorithm a;
        using Demosaic = void (CAlgorithm::*)(uint8_t*, uint8_t*, int, int);
        static constexpr Demosaic forms[] = { &CAlgorithm::Bayer2RGB24_RG, &CAlgorithm::Bayer2RGB24_BG,
                                              &CAlgorithm::Bayer2RGB24_GR, &CAlgorithm::Bayer2RGB24_GB };
        (a.*forms[p.pattern & 3])(shown.data(), rgb.data(), p.iWidth, p.iHeight);
        shown.swap(rgb);
    }
    *pChannels = p.type == IMG_RGB24 || (bMosaic && bEven) ? 3 : 1;
    if (*pChannels == 3)
        for (size_t i = 0; i < shown.size(); i += 3)
            std::swap(shown[i], shown[i + 2]);
    return shown;
}

void WritePng(const std::string& path, const Picture& p, Stretch stretch)
{
    int channels;
    const std::vector<uint8_t> shown = Render(p, stretch, &channels);
    kovtools::WritePngFile(path, p.iWidth, p.iHeight, channels, shown.data());
}

SerWriter::SerWriter(const std::string& path, const Picture& first)
    : m_File(kovtools::PathOf(path), std::ios::binary | std::ios::trunc), m_sPath(path), m_Shape(first)
{
    m_Shape.data.clear();
    Header(0);
}

SerWriter::~SerWriter()
{
    try {
        Finish();
    } catch (const std::exception&) {
    }
}

static int64_t SerTicks(std::chrono::system_clock::time_point t)
{
    // 100 ns since the year 1.
    return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count() / 100 + 621355968000000000LL;
}

void SerWriter::Header(int frames)
{
    static constexpr int cell[] = { 8, 11, 9, 10 };  // RGGB, BGGR, GRBG, GBRG
    const bool bMosaic = m_Shape.bColor && (m_Shape.type == IMG_RAW8 || m_Shape.type == IMG_RAW16);
    const int color = m_Shape.type == IMG_RGB24 ? 101 : bMosaic ? cell[m_Shape.pattern & 3] : 0;
    const auto put32 = [&](int v) { m_File.write(reinterpret_cast<const char*>(&v), 4); };
    const auto text = [&](std::string s) {
        s.resize(40);
        m_File.write(s.data(), 40);
    };
    const int64_t start = m_Times.empty() ? 0 : m_Times.front();
    m_File.seekp(0);
    m_File.write("LUCAM-RECORDER", 14);
    put32(0);
    put32(color);
    put32(0);  // as other writers of the format: samples little-endian
    put32(m_Shape.iWidth);
    put32(m_Shape.iHeight);
    put32(m_Shape.type == IMG_RAW16 ? 16 : 8);
    put32(frames);
    text("");
    text(m_Shape.sCamera);
    text("");
    m_File.write(reinterpret_cast<const char*>(&start), 8);  // local time is not told: UTC in both
    m_File.write(reinterpret_cast<const char*>(&start), 8);
    m_File.seekp(0, std::ios::end);
    if (!m_File)
        throw UserError(fmt::format("cannot write {}. Is the folder there and writable, and the disk not full?", m_sPath));
}

void SerWriter::Add(const Picture& p)
{
    m_File.write(reinterpret_cast<const char*>(p.data.data()), static_cast<std::streamsize>(p.data.size()));
    if (!m_File)
        throw UserError(fmt::format("writing {} failed after {} frames: is the disk full?", m_sPath, m_Times.size()));
    m_Times.push_back(SerTicks(p.start));
}

void SerWriter::Finish()
{
    if (!m_File.is_open())
        return;
    m_File.seekp(0, std::ios::end);
    m_File.write(reinterpret_cast<const char*>(m_Times.data()), static_cast<std::streamsize>(8 * m_Times.size()));
    Header(static_cast<int>(m_Times.size()));
    m_File.close();
}

}  // namespace kovcam
