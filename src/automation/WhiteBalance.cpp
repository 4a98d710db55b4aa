// Auto white balance: one step a call. The present balance is multiplied by the ratio that is measured, so the measurement
// has to show the balance in force: the raw mosaic does where the sensor applies it, a demosaiced image where the host does.
#include "automation/WhiteBalance.h"

#include <algorithm>
#include <cstdlib>

#include "automation/MemoryFrame.h"
#include "core/Arithmetic.h"
#include "core/CCameraBase.h"
#include "core/FrameSample.h"

namespace {

constexpr int LATTICE = 10;          // points a block in each direction; at each a 2 by 2 square is read
constexpr int BAND_REGULATED = 11;   // dead band while brightness is regulated too
constexpr int BAND = 5;
constexpr int LOW_BALANCE = 5;       // below, truncation alone could never raise the value

// New balance of one colour.
int32_t NewBalance(int32_t iOld, int32_t cG, int32_t c)
{
    const int32_t i = MulWrap(iOld, cG) / (c + 1);
    return i <= iOld && cG > c && iOld < LOW_BALANCE ? i + 1 : i;
}

}  // namespace

void StepWhiteBalance(CCameraBase& cam, const WBBlocks& blocks, bool bBlock0IfFlat)
{
    int32_t c[WB_COLORS];
    for (int k = 0; k < WB_COLORS; ++k) {
        const int32_t *const pDev = blocks.aDev[k], *const pMean = blocks.aMean[k];
        int32_t iDevs = 0;
        for (int b = 0; b < WB_BLOCKS; ++b)
            iDevs = AddWrap(iDevs, pDev[b]);
        float f = 0;  // single precision, in block order: the rounding is part of the result
        for (int b = 0; b < WB_BLOCKS; ++b)
            f += static_cast<float>(pDev[b]) * static_cast<float>(pMean[b]) / static_cast<float>(iDevs + 1);
        if (iDevs == 0 && bBlock0IfFlat)
            f = static_cast<float>(pMean[0]);
        c[k] = TruncToInt32(f);
    }

    const int32_t dR = std::abs(c[WB_GREEN] - c[WB_RED]), dB = std::abs(c[WB_GREEN] - c[WB_BLUE]);
    // While brightness is regulated too, colours move with it; a wider band keeps the two from chasing each other.
    const int32_t iBand = cam.m_bAutoExp || cam.m_bAutoGain ? BAND_REGULATED : BAND;
    if (dR < iBand && dB < iBand)
        return;
    cam.SetRGBBalance(NewBalance(cam.m_iWB_R, c[WB_GREEN], c[WB_RED]), NewBalance(cam.m_iWB_B, c[WB_GREEN], c[WB_BLUE]),
                      cam.m_bAutoWB);
}

void CCameraBase::AutoWhiBal(uint8_t* frame)
{
    if (m_bIsColor && !m_bOutput16Bits)
        AutoWB_RAW(frame);
}

void CCameraBase::AutoWB_RAW(uint8_t* frame)
{
    const auto [W, H] = MemoryFrameOf(*this);
    WBBlocks blocks;
    for (int j = 0; j < WB_GRID; ++j)
        for (int k = 0; k < WB_GRID; ++k) {
            int dev[WB_COLORS] = { 1, 1, 1 }, mean[WB_COLORS];
            Get_variance_ave_RAW(frame, k * W / WB_GRID, j * H / WB_GRID, W / WB_GRID, H / WB_GRID, W, H, &dev[WB_RED],
                                 &dev[WB_GREEN], &dev[WB_BLUE], &mean[WB_RED], &mean[WB_GREEN], &mean[WB_BLUE]);
            for (int c = 0; c < WB_COLORS; ++c) {
                blocks.aDev[c][j * WB_GRID + k] = dev[c];
                blocks.aMean[c][j * WB_GRID + k] = mean[c];
            }
        }
    StepWhiteBalance(*this, blocks, true);
}

void CCameraBase::Get_variance_ave_RAW(uint8_t* frame, int x0, int y0, int blockW, int blockH, int pitch, int /*height*/,
                                       int* devR, int* devG, int* devB, int* meanR, int* meanG, int* meanB)
{
    const uint8_t* const pIndex = m_BayerIdx[m_ColorBayer];
    const size_t nBytes = FrameBufferBytes(*this);
    const float fStepX = static_cast<float>(blockW) / 10.0f, fStepY = static_cast<float>(blockH) / 10.0f;
    // A block smaller than the lattice reads a little beside itself; beyond the buffer there is nothing to read.
    const auto visit = [&](auto use) {
        for (int i = 0; i < LATTICE; ++i)
            for (int j = 0; j < LATTICE; ++j)
                for (int k = 0; k < 4; ++k) {
                    const int y = y0 + static_cast<int>(static_cast<float>(i) * fStepY) + (k >> 1);
                    const int x = x0 + static_cast<int>(static_cast<float>(j) * fStepX) + (k & 1);
                    const auto index = static_cast<size_t>(int64_t{y} * pitch + x);
                    use(pIndex[(y & 1) * 2 + (x & 1)], index < nBytes ? SampleFrame(frame, index) : uint8_t{0});
                }
    };

    uint32_t aSum[WB_COLORS] = {}, aCount[WB_COLORS] = {}, aMean[WB_COLORS];
    visit([&](uint8_t c, uint8_t v) {
        aSum[c] += v;
        ++aCount[c];
    });
    int* const apMean[WB_COLORS] = { meanR, meanG, meanB };
    for (int c = 0; c < WB_COLORS; ++c) {
        aMean[c] = aSum[c] / (aCount[c] + 1);  // the added one serves a colour that the block does not have
        auto dwScaled = aMean[c];
        if (!IsHardBinRun())
            dwScaled *= static_cast<uint32_t>(m_iBin * m_iBin);
        if (IsHalfHardBin(*this))
            dwScaled *= 4;
        *apMean[c] = static_cast<int>(std::min(dwScaled, 255u));
    }

    // Deviation from the mean before scaling. Between the two passes USB may have put another frame there.
    int* const apDev[WB_COLORS] = { devR, devG, devB };
    const bool abMeasure[WB_COLORS] = { *devR != 0, *devG != 0, *devB != 0 };
    uint32_t aDiff[WB_COLORS] = {};
    visit([&](uint8_t c, uint8_t v) {
        aDiff[c] += abMeasure[c] ? static_cast<uint32_t>(std::abs(static_cast<int>(v) - static_cast<int>(aMean[c]))) : 1u;
    });
    for (int c = 0; c < WB_COLORS; ++c)
        *apDev[c] = static_cast<int>(aDiff[c] * 10 / (aCount[c] + 1));
}
