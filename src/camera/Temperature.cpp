// The two temperature forms that are not part of a sensor: a thermistor on an analogue input, and a digital sensor. Both
// stand behind one vendor request each.
#include <cstdint>
#include <optional>

#include "camera/CCameraBase.h"
#include "thermal/Thermistor.h"

namespace {

// QUIRK: one for the process. A failed reading of one camera shows the last good temperature of any camera.
Shared<float> s_fLastGoodTemp;

}  // namespace

float CCameraBase::GetTemp() { return m_bTempThrRun ? m_fSensorTemp.Get() : GetSensorTemp(); }

float CCameraBase::GetADTemp()
{
    // A failed transfer leaves zeros, which no thermistor gives.
    uint8_t b[2] = {};
    int32_t length = 2;
    SendCMD(REQ_ANALOG_TEMP, 0, 0, true, b, &length);
    return CalculTempuature(static_cast<uint8_t>((b[0] >> 4) | (b[1] << 4)), 10);
}

float CCameraBase::CalculTempuature(uint8_t ad, int seriesKOhm)
{
    const auto degrees = thermal::ThermistorDegrees(ad, seriesKOhm);
    if (degrees && *degrees >= static_cast<float>(m_iLUTMin) && static_cast<float>(m_iLUTMax) >= *degrees)
        s_fLastGoodTemp = *degrees;
    return s_fLastGoodTemp;
}

float CCameraBase::ReadDigitalTemp()
{
    uint8_t b[2] = {};
    int32_t length = 2;
    if (SendCMD(REQ_DIGITAL_TEMP, 0, 0, true, b, &length))
        if (const auto degrees = thermal::DigitalDegrees(b[0], b[1]))
            m_fSensorTemp = *degrees;
    return m_fSensorTemp;
}
