// One step a call. All state lies in the camera's settings.
#include "automation/AutoExposure.h"

#include <algorithm>

#include "base/Arithmetic.h"
#include "base/FrameSample.h"

namespace automation {

namespace {

constexpr int GRID_COLUMNS = 64, GRID_ROWS = 48;
constexpr uint64_t LONG_EXPOSURE = 100000;  // us; above, gain moves before exposure when it is too dark

struct Step {
    IExposureControl& cam;
    int B;  // measured
    int T = cam.TargetBrightness();
    // QUIRK: a range below 100 (Agate and Dunite: 1 to 100) gives a small step of 0: automatic gain never comes down.
    int range = cam.GainMax() - cam.GainMin();
    int small = range / 100;
    int large = 2 * range / 100;

    int Percent(int p) const { return MulWrap(T, p) / 100; }
    bool TooDark() const { return B < SubWrap(T, Percent(15)); }
    bool TooBright() const { return B > AddWrap(T, Percent(15)); }

    // One sensor line is a large step of a very short exposure, so its band is wider. QUIRK: Beryl counts no lines, which
    // reads as 0: its exposure is left alone within 45 % of the target, however long it is.
    bool LineHold() const
    {
        const auto within = [this](int p) { return B > SubWrap(T, Percent(p)) && B < AddWrap(T, Percent(p)); };
        const auto lines = cam.ExposureLines();
        return (lines < 3 && within(30)) || (lines < 2 && within(45));
    }
    bool Short() const { return cam.Exposure() <= LONG_EXPOSURE; }

    // G + step, up to the ceiling.
    void GainUp(int step) const { cam.SetGain(std::min(cam.GainCeiling(), AddWrap(cam.Gain(), step))); }
    void GainDown() const { cam.SetGain(std::max(1, SubWrap(cam.Gain(), small))); }

    void ExposureUp() const
    {
        // QUIRK: the product wraps in 32 bits. From 2148 to 4294 seconds it is negative, and no ceiling at all.
        const auto ceiling = static_cast<uint64_t>(int64_t{ MulWrap(cam.ExposureCeiling(), 1000000) });
        const uint64_t E = cam.Exposure();
        cam.SetExposure(std::min(ceiling, E + E * static_cast<uint64_t>(int64_t{ T } - B) / 200));
    }
    void ExposureDown() const
    {
        const uint64_t E = cam.Exposure();
        cam.SetExposure(E - E * static_cast<uint64_t>(int64_t{ B } - T) / 400);
    }

    // The two orders differ on purpose: going up, gain moves before and after exposure; going down, only after it. Long
    // exposures brighten by gain first and darken by exposure first.
    void Brighten() const
    {
        if (!cam.AutoExposure()) {
            GainUp(large);
        } else if (!cam.AutoGain()) {
            if (!LineHold())
                ExposureUp();
        } else {
            GainUp(small);
            if (Short()) {
                if (!LineHold())
                    ExposureUp();
                GainUp(small);
            } else if (cam.Gain() != cam.GainCeiling()) {
                GainUp(large);
            } else {
                ExposureUp();
            }
        }
    }
    void Darken() const
    {
        if (!cam.AutoExposure()) {
            cam.SetGain(SubWrap(cam.Gain(), small));  // no lower limit here: the model has one
        } else if (!Short()) {
            ExposureDown();
        } else if (!cam.AutoGain()) {
            if (!LineHold())
                ExposureDown();
        } else {
            if (!LineHold())
                ExposureDown();
            GainDown();
            if (cam.ExposureLines() < 3)
                GainDown();
        }
    }
};

}  // namespace

int Brightness(const RawFrame& frame, bool is16, bool lowByte, int scale)
{
    const int W = frame.width, H = frame.height;
    uint32_t sum = 0, count = 0;
    for (int j = 0; j < GRID_ROWS; ++j) {
        const int y = static_cast<int>(static_cast<float>(j) * (static_cast<float>(H) / 48.0f));
        if (y <= H / 5 || y >= 4 * H / 5)
            continue;
        for (int i = 0; i < GRID_COLUMNS; ++i) {
            const int x = static_cast<int>(static_cast<float>(i) * (static_cast<float>(W) * 0.015625f));
            if (x <= W / 5 || x >= 4 * W / 5)
                continue;
            size_t index = static_cast<size_t>(y) * static_cast<size_t>(W) + static_cast<size_t>(x);
            if (is16)
                index = 2 * index + (lowByte ? 0 : 1);
            ++count;
            if (index < frame.bytes)
                sum += SampleFrame(frame.data, index);
        }
    }
    if (count == 0)
        return 0;

    const int B = static_cast<int>(sum / count) + 1;  // a black frame does not read as zero
    return std::min(B * scale, 255);
}

void StepExposure(IExposureControl& camera, int brightness)
{
    const Step step{ camera, brightness };
    if (step.TooDark())
        step.Brighten();
    else if (step.TooBright())
        step.Darken();
}

}  // namespace automation
