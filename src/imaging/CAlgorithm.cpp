#include "imaging/CAlgorithm.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "imaging/Kernels.h"
#include "imaging/Reference.h"
#include "imaging/Tables.h"

namespace imaging {

std::atomic<uint8_t> g_BlueLUT[256], g_RedLUT[256];

namespace {

// min(i * balance / 50, 255). The product wraps at 32 bits, where it is not defined, for balances no caller has.
void FillGain(std::atomic<uint8_t>* table, int balance)
{
    for (int i = 0; i < 256; ++i) {
        const int product = static_cast<int>(static_cast<uint32_t>(i) * static_cast<uint32_t>(balance));
        table[i].store(static_cast<uint8_t>(std::min(product / 50, 255)), std::memory_order_relaxed);
    }
}

// Identity before the first camera exists.
const bool g_Filled = (FillGain(g_BlueLUT, 50), FillGain(g_RedLUT, 50), true);

size_t Pixels(int width, int height)
{
    return width < 1 || height < 1 ? 0 : static_cast<size_t>(width) * static_cast<size_t>(height);
}

void DemosaicWith(BayerPhase phase, const uint8_t* src, uint8_t* dst, int width, int height)
{
    const Gains gains = SnapshotGains();
    Demosaic({ src, width, height, phase, &gains }, 0, height, dst);
}

template <class T>
void BinFrame(T* buf, int outWidth, int outHeight, int bin, bool colour)
{
    if (bin < 2 || bin > 4 || outWidth < 1) {
        reference::Bin(buf, outWidth, outHeight, bin, colour);
        return;
    }
    const ptrdiff_t inWidth = ptrdiff_t{ outWidth } * bin;
    for (int y = 0; y < outHeight; ++y) {
        const T* rows[4];
        for (int j = 0; j < bin; ++j)
            rows[j] = buf + reference::BinSourceRow(y, j, outHeight, bin, colour) * inWidth;
        BinRow(rows, buf + ptrdiff_t{ y } * outWidth, outWidth, bin, colour);
    }
}

// One cell of the operations that work without a frame height: every row that the rule needs is there.
template <class Rule>
void OneCell(Rule rule, BayerPhase phase, const uint8_t* src, uint8_t* dst, int x, int y, int width)
{
    const Gains gains = SnapshotGains();
    CellPixels px;
    rule({ src, width, y + 2, phase, &gains }, x, y, px);
    for (int j = 0; j < 2; ++j)
        for (int i = 0; i < 2 && x + i < width; ++i)
            std::copy_n(px[j][i], 3, dst + 3 * (static_cast<ptrdiff_t>(y + j) * width + x + i));
}

}  // namespace

namespace {

// ceil(balance * 2^14 / 50): for i below 256 the product is too large by less than a 50th, the step of the exact quotients.
uint16_t FactorOf(const ByteTable& table)
{
    const uint32_t balance = table[50], factor = ((balance << GAIN_SHIFT) + 49) / 50;
    if (balance == 0 || balance >= 200)
        return 0;
    for (uint32_t i = 0; i < 256; ++i)
        if (table[i] != std::min(i * factor >> GAIN_SHIFT, 255u))
            return 0;
    return static_cast<uint16_t>(factor);
}

}  // namespace

// A frame may be made half with the old and half with the new balance: the entries are read one by one.
Gains SnapshotGains()
{
    Gains g;
    g.identity = true;
    for (size_t i = 0; i < 256; ++i) {
        g.blue[i] = g_BlueLUT[i].load(std::memory_order_relaxed);
        g.red[i] = g_RedLUT[i].load(std::memory_order_relaxed);
        g.identity = g.identity && g.blue[i] == i && g.red[i] == i;
    }
    g.blueFactor = FactorOf(g.blue);
    g.redFactor = FactorOf(g.red);
    if (g.blueFactor == 0 || g.redFactor == 0)
        g.blueFactor = g.redFactor = 0;
    return g;
}

}  // namespace imaging

using namespace imaging;

void CAlgorithm::SetRGBWB(int wbRed, int wbBlue)
{
    FillGain(g_BlueLUT, wbBlue);
    FillGain(g_RedLUT, wbRed);
}

void CAlgorithm::RGBYUV_Init()
{
    SetRGBWB(50, 50);  // the colour tables are constants
}

void CAlgorithm::RGB2YUV2(uint8_t* src, uint8_t* dst, int width, int height, bool bottomUp)
{
    reference::RGB2YUV2(src, dst, width, height, bottomUp);
}

void CAlgorithm::RGB2Y8(uint8_t* src, uint8_t* dst, int width, int height) { Luminance(src, dst, Pixels(width, height)); }

void CAlgorithm::RGB2R8(uint8_t* src, uint8_t* dst, int width, int height) { FirstBytes(src, dst, Pixels(width, height)); }

void CAlgorithm::MonoBin(uint8_t* buf8, uint16_t* buf16, int outWidth, int outHeight, int bin, bool is16)
{
    if (is16)
        BinFrame(buf16, outWidth, outHeight, bin, false);
    else
        BinFrame(buf8, outWidth, outHeight, bin, false);
}

void CAlgorithm::ColorRAWBin(uint8_t* buf8, uint16_t* buf16, int outWidth, int outHeight, int bin, bool is16)
{
    if (is16)
        BinFrame(buf16, outWidth, outHeight, bin, true);
    else
        BinFrame(buf8, outWidth, outHeight, bin, true);
}

void CAlgorithm::SoftMisc(uint8_t* buf, int width, int height, int bin, bool is16, bool reverseRows, bool mirrorRows)
{
    if (is16)
        Flip16(reinterpret_cast<uint16_t*>(buf), width * bin, height * bin, reverseRows, mirrorRows);
    else
        Flip8(buf, width * bin, height * bin, reverseRows, mirrorRows);
}

void CAlgorithm::Gamma(uint8_t* buf, uint8_t* lut, int width, int height) { MapBytes(buf, buf, Pixels(width, height), lut); }

void CAlgorithm::Gamma(uint16_t* buf, uint16_t* lut, int width, int height)
{
    for (size_t i = 0, n = Pixels(width, height); i < n; ++i)
        buf[i] = lut[buf[i]];
}

void CAlgorithm::SubtractDark(uint8_t* buf, int width, int height, uint32_t offset, uint16_t* dark)
{
    imaging::SubtractDark(buf, buf, Pixels(width, height), offset, dark);
}

// The frame operations carry the name of the sensor's cell, the cell operations that of the byte order they make.
#define KOV_BAYER(frameName, cellName, phase)                                                    \
  void CAlgorithm::Bayer2RGB24_##frameName(uint8_t* src, uint8_t* dst, int width, int height)    \
  {                                                                                              \
    DemosaicWith(phase, src, dst, width, height);                                                \
  }                                                                                              \
  void CAlgorithm::BayerCopy_##cellName(uint8_t* src, uint8_t* dst, int x, int y, int width)     \
  {                                                                                              \
    OneCell(reference::CopyCell, phase, src, dst, x, y, width);                                  \
  }                                                                                              \
  void CAlgorithm::BayerBilinear_##cellName(uint8_t* src, uint8_t* dst, int x, int y, int width) \
  {                                                                                              \
    OneCell(reference::BilinearCell, phase, src, dst, x, y, width);                              \
  }
KOV_BAYER(RG, BG, PHASE_RG)
KOV_BAYER(BG, RG, PHASE_BG)
KOV_BAYER(GR, GB, PHASE_GR)
KOV_BAYER(GB, GR, PHASE_GB)
#undef KOV_BAYER
