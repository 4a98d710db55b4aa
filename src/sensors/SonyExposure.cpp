#include "sensors/SonyExposure.h"

#include <algorithm>

#include "sensors/FpgaModel.h"

ExposureRegs CalcExposure(const ExposureLaw& law, uint64_t exp, float lineTime, int sensorH, float t0)
{
    ExposureRegs r;
    r.iFrameTime = TruncToInt(float(sensorH + law.iFrameLines) * lineTime + t0);
    const float lines = (float(exp) - t0) / lineTime;
    if (exp <= uint64_t(std::max(r.iFrameTime, 0))) {
        const int vmax = sensorH + law.iMinVMAX;
        const int shs = std::clamp(vmax - TruncToInt(lines) - law.iShsBias, law.iShsMin, sensorH + law.iShsMaxLines);
        r.lVMAX = uint32_t(vmax);
        r.lSHS = uint32_t(shs);
    } else {
        r.lVMAX = uint32_t(TruncToInt(std::min(lines, 2e9f)) + law.iLongBias);
        r.lSHS = uint32_t(law.iLongShs);
    }
    r.lVMAX = std::min(r.lVMAX, law.lVMAXCap);
    r.iExpLines = int32_t(r.lVMAX - r.lSHS) - law.iExpLinesBias;
    return r;
}
