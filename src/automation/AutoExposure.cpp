// Auto exposure and gain: one step a call. Measures the middle of a raw frame, compares it with the target and moves
// exposure, gain or both a little. All state lies in the camera's settings.
#include <algorithm>
#include <cstring>

#include "automation/MemoryFrame.h"
#include "core/Arithmetic.h"
#include "core/CCameraBase.h"
#include "core/FrameSample.h"

namespace {

constexpr int GRID_COLUMNS = 64, GRID_ROWS = 48;
constexpr uint64_t LONG_EXPOSURE = 100000;  // us; above, gain moves before exposure when it is too dark

// QUIRK: of these models' 16-bit words the low byte is measured, of all others the high byte: auto exposure of the
// former settles at another brightness. The last two names belong to no camera.
constexpr const char* LOW_BYTE_NAMES[] = {
    "VYR KOVGarnetCol",    "VYR KOVGarnetMono",    "VYR KOVGarnetCol-S",   "VYR KOVGarnetMono-S",
    "VYR KOVIoliteMono",   "VYR KOVGarnetCol-SC",  "VYR KOVGarnetMono-SC",
};

// Brightness of the middle three fifths of the frame, 1 to 255. 0: the frame is too small to have a middle.
int Measure(CCameraBase& cam, const uint8_t* pFrame)
{
    const MemoryFrame size = MemoryFrameOf(cam);
    const int W = size.iWidth, H = size.iHeight;
    const bool b16 = cam.m_bOutput16Bits;
    const bool bLow = std::any_of(std::begin(LOW_BYTE_NAMES), std::end(LOW_BYTE_NAMES),
                                  [&](const char* sz) { return std::strcmp(sz, cam.m_pszName) == 0; });
    const size_t nBytes = FrameBufferBytes(cam);

    uint32_t dwSum = 0, dwCount = 0;
    for (int j = 0; j < GRID_ROWS; ++j) {
        const int y = static_cast<int>(static_cast<float>(j) * (static_cast<float>(H) / 48.0f));
        if (y <= H / 5 || y >= 4 * H / 5)
            continue;
        for (int i = 0; i < GRID_COLUMNS; ++i) {
            const int x = static_cast<int>(static_cast<float>(i) * (static_cast<float>(W) * 0.015625f));
            if (x <= W / 5 || x >= 4 * W / 5)
                continue;
            size_t index = static_cast<size_t>(y) * static_cast<size_t>(W) + static_cast<size_t>(x);
            if (b16)
                index = 2 * index + (bLow ? 0 : 1);
            ++dwCount;
            if (index < nBytes)
                dwSum += SampleFrame(pFrame, index);
        }
    }
    if (dwCount == 0)
        return 0;

    int B = static_cast<int>(dwSum / dwCount) + 1;  // a black frame does not read as zero
    if (!cam.IsHardBinRun() && !b16)
        B *= cam.m_iBin * cam.m_iBin;  // software binning sums 8-bit samples
    if (cam.m_bHardwareBin && cam.m_iBin == 4)
        B *= 4;
    return std::min(B, 255);
}

// One step of one camera. The fields are read afresh wherever they count: the model may have changed them meanwhile.
struct Step {
    CCameraBase& cam;
    int B;                 // measured
    int T = cam.m_iDestBrightness;
    // QUIRK: a range below 100 (Agate and Dunite: 1 to 100) gives a small step of 0: automatic gain never comes down.
    int iRange = cam.m_iGainMax - cam.m_iGainMin;
    int iSmall = iRange / 100;
    int iLarge = 2 * iRange / 100;

    int Percent(int p) const { return MulWrap(T, p) / 100; }
    bool TooDark() const { return B < SubWrap(T, Percent(15)); }
    bool TooBright() const { return B > AddWrap(T, Percent(15)); }

    // One sensor line is a large step of a very short exposure, so its band is wider. QUIRK: Beryl counts no lines, which
    // reads as 0: its exposure is left alone within 45 % of the target, however long it is.
    bool LineHold() const
    {
        const auto within = [this](int p) { return B > SubWrap(T, Percent(p)) && B < AddWrap(T, Percent(p)); };
        const auto dwLines = static_cast<uint32_t>(cam.m_iExpLines.Get());
        return (dwLines < 3 && within(30)) || (dwLines < 2 && within(45));
    }
    bool Short() const { return cam.m_lExposure <= LONG_EXPOSURE; }

    // G + step, up to the ceiling.
    void GainUp(int iStep) const { cam.SetGain(std::min(cam.m_iAutoGainMax.Get(), AddWrap(cam.m_iGain, iStep)), cam.m_bAutoGain); }
    void GainDown() const { cam.SetGain(std::max(1, SubWrap(cam.m_iGain, iSmall)), cam.m_bAutoGain); }

    void ExposureUp() const
    {
        // QUIRK: the product wraps in 32 bits. From 2148 to 4294 seconds it is negative, and no ceiling at all.
        const auto lCeiling = static_cast<uint64_t>(int64_t{MulWrap(cam.m_iAutoExpMax, 1000000)});
        const uint64_t E = cam.m_lExposure;
        cam.SetExp(std::min(lCeiling, E + E * static_cast<uint64_t>(int64_t{T} - B) / 200), cam.m_bAutoExp);
    }
    void ExposureDown() const
    {
        const uint64_t E = cam.m_lExposure;
        cam.SetExp(E - E * static_cast<uint64_t>(int64_t{B} - T) / 400, cam.m_bAutoExp);
    }

    // The two orders differ on purpose: going up, gain moves before and after exposure; going down, only after it. Long
    // exposures brighten by gain first and darken by exposure first.
    void Brighten() const
    {
        if (!cam.m_bAutoExp) {
            GainUp(iLarge);
        } else if (!cam.m_bAutoGain) {
            if (!LineHold())
                ExposureUp();
        } else {
            GainUp(iSmall);
            if (Short()) {
                if (!LineHold())
                    ExposureUp();
                GainUp(iSmall);
            } else if (cam.m_iGain != cam.m_iAutoGainMax) {
                GainUp(iLarge);
            } else {
                ExposureUp();
            }
        }
    }
    void Darken() const
    {
        if (!cam.m_bAutoExp) {
            cam.SetGain(SubWrap(cam.m_iGain, iSmall), cam.m_bAutoGain);  // no lower limit here: the model has one
        } else if (!Short()) {
            ExposureDown();
        } else if (!cam.m_bAutoGain) {
            if (!LineHold())
                ExposureDown();
        } else {
            if (!LineHold())
                ExposureDown();
            GainDown();
            if (static_cast<uint32_t>(cam.m_iExpLines.Get()) < 3)
                GainDown();
        }
    }
};

}  // namespace

void CCameraBase::AutoExpGain(uint8_t* frame)
{
    const int B = Measure(*this, frame);
    if (B == 0)
        return;
    const Step step{*this, B};
    if (step.TooDark())
        step.Brighten();
    else if (step.TooBright())
        step.Darken();
}
