// The camera's side of auto exposure and white balance: what of its state the decisions are made from, and where they go.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>

#include "automation/AutoExposure.h"
#include "automation/WhiteBalance.h"
#include "camera/CCameraBase.h"
#include "camera/MemoryFrame.h"
#include "camera/WhiteBalance.h"

namespace {

// QUIRK: of these models' 16-bit words the low byte is measured, of all others the high byte: auto exposure of the
// former settles at another brightness. The last two names belong to no camera.
constexpr const char* LOW_BYTE_NAMES[] = {
    "VYR KOVGarnetCol",  "VYR KOVGarnetMono",   "VYR KOVGarnetCol-S",   "VYR KOVGarnetMono-S",
    "VYR KOVIoliteMono", "VYR KOVGarnetCol-SC", "VYR KOVGarnetMono-SC",
};

automation::RawFrame RawFrameOf(CCameraBase& cam, const uint8_t* data)
{
    const MemoryFrame size = MemoryFrameOf(cam);
    return { data, FrameBufferBytes(cam), size.width, size.height };
}

// Binning sums samples: by software after the raw frame, and where the sensor makes a 2 of a bin of 4.
int BinScale(CCameraBase& cam, bool softBinSums)
{
    return (!cam.IsHardBinRun() && softBinSums ? cam.m_iBin * cam.m_iBin : 1) * (IsHalfHardBin(cam) ? 4 : 1);
}

class ExposureControl final : public automation::IExposureControl {
public:
    explicit ExposureControl(CCameraBase& cam) : m_cam(cam) {}
    int32_t TargetBrightness() const override { return m_cam.m_iDestBrightness; }
    int32_t GainMin() const override { return m_cam.m_iGainMin; }
    int32_t GainMax() const override { return m_cam.m_iGainMax; }
    int32_t GainCeiling() const override { return m_cam.m_iAutoGainMax; }
    int32_t ExposureCeiling() const override { return m_cam.m_iAutoExpMax; }
    int32_t Gain() const override { return m_cam.m_iGain; }
    uint64_t Exposure() const override { return m_cam.m_lExposure; }
    uint32_t ExposureLines() const override { return static_cast<uint32_t>(m_cam.m_iExpLines.Get()); }
    bool AutoGain() const override { return m_cam.m_bAutoGain; }
    bool AutoExposure() const override { return m_cam.m_bAutoExp; }
    void SetGain(int32_t gain) override { m_cam.SetGain(gain, m_cam.m_bAutoGain); }
    void SetExposure(uint64_t microseconds) override { m_cam.SetExp(microseconds, m_cam.m_bAutoExp); }

private:
    CCameraBase& m_cam;
};

}  // namespace

void CCameraBase::AutoExpGain(uint8_t* frame)
{
    const bool is16 = m_bOutput16Bits;
    const bool lowByte = std::any_of(std::begin(LOW_BYTE_NAMES), std::end(LOW_BYTE_NAMES),
                                     [this](const char* sz) { return std::strcmp(sz, m_pszName) == 0; });
    const int brightness = automation::Brightness(RawFrameOf(*this, frame), is16, lowByte, BinScale(*this, !is16));
    if (brightness == 0)
        return;
    ExposureControl control(*this);
    automation::StepExposure(control, brightness);
}

void StepWhiteBalance(CCameraBase& cam, const WBBlocks& blocks, bool block0IfFlat)
{
    if (const auto next =
            automation::NextBalance(blocks, block0IfFlat, cam.m_bAutoExp || cam.m_bAutoGain, { cam.m_iWB_R, cam.m_iWB_B }))
        cam.SetRGBBalance(next->red, next->blue, cam.m_bAutoWB);
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
                blocks.dev[c][j * WB_GRID + k] = dev[c];
                blocks.mean[c][j * WB_GRID + k] = mean[c];
            }
        }
    StepWhiteBalance(*this, blocks, true);
}

void CCameraBase::Get_variance_ave_RAW(uint8_t* frame, int x0, int y0, int blockW, int blockH, int pitch, int height, int* devR,
                                       int* devG, int* devB, int* meanR, int* meanG, int* meanB)
{
    const int measure[WB_COLORS] = { *devR, *devG, *devB };
    const auto s = automation::BlockStatistics({ frame, FrameBufferBytes(*this), pitch, height }, { x0, y0, blockW, blockH },
                                               m_BayerIdx[m_ColorBayer], measure, static_cast<uint32_t>(BinScale(*this, true)));
    *devR = s.dev[WB_RED];
    *devG = s.dev[WB_GREEN];
    *devB = s.dev[WB_BLUE];
    *meanR = s.mean[WB_RED];
    *meanG = s.mean[WB_GREEN];
    *meanB = s.mean[WB_BLUE];
}
