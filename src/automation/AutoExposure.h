// Auto exposure and gain: what a raw frame's brightness is, and which way one step moves gain and exposure.
#pragma once
#include <cstddef>
#include <cstdint>

namespace automation {

// A raw frame of width * height samples in `bytes` bytes, of which USB may be rewriting some.
struct RawFrame {
    const uint8_t* data;
    size_t bytes;
    int width, height;
};

// Brightness of the middle three fifths of the frame, 1 to 255. 0: the frame is too small to have a middle. 16-bit samples
// are taken by one of their bytes. `scale`: what a binned frame's samples stand below the delivered ones.
int Brightness(const RawFrame& frame, bool is16, bool lowByte, int scale);

// The camera as one step sees it. Everything is asked afresh wherever it counts: the model may have changed it meanwhile.
class IExposureControl {
public:
    virtual int32_t TargetBrightness() const = 0;
    virtual int32_t GainMin() const = 0;
    virtual int32_t GainMax() const = 0;
    virtual int32_t GainCeiling() const = 0;
    virtual int32_t ExposureCeiling() const = 0;  // s
    virtual int32_t Gain() const = 0;
    virtual uint64_t Exposure() const = 0;  // us
    virtual uint32_t ExposureLines() const = 0;
    virtual bool AutoGain() const = 0;
    virtual bool AutoExposure() const = 0;
    virtual void SetGain(int32_t gain) = 0;
    virtual void SetExposure(uint64_t microseconds) = 0;

protected:
    ~IExposureControl() = default;
};

// Moves exposure, gain or both a little towards the target, unless `brightness` is close to it.
void StepExposure(IExposureControl& camera, int brightness);

}  // namespace automation
