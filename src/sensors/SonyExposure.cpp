#include "sensors/SonyExposure.h"

#include <algorithm>

#include "sensors/FpgaModel.h"

ExposureRegs CalcExposure(const ExposureLaw& law, uint64_t exp, float lineTime, int sensorH, float t0)
{
    ExposureRegs r;
    r.frameTime = TruncToInt(float(sensorH + law.frameLines) * lineTime + t0);
    const float lines = (float(exp) - t0) / lineTime;
    if (exp <= uint64_t(std::max(r.frameTime, 0))) {
        const int vmax = sensorH + law.minVmax;
        const int shs = std::clamp(vmax - TruncToInt(lines) - law.shsBias, law.shsMin, sensorH + law.shsMaxLines);
        r.vmax = uint32_t(vmax);
        r.shs = uint32_t(shs);
    } else {
        r.vmax = uint32_t(TruncToInt(std::min(lines, 2e9f)) + law.longBias);
        r.shs = uint32_t(law.longShs);
    }
    r.vmax = std::min(r.vmax, law.vmaxCap);
    r.expLines = int32_t(r.vmax - r.shs) - law.expLinesBias;
    return r;
}
