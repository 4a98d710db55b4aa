// The cooler: an 8-bit output drives a thermoelectric element, a regulator holds its temperature.
#include "camera/CCameraCool.h"

#include <algorithm>
#include <cstdint>
#include <exception>

#include "base/Attempt.h"
#include "base/Log.h"
#include "thermal/Cooler.h"

namespace {

constexpr float KP = 0.2f, KI = 0, KD = 0.6f;  // a PD regulator: the integral is summed and not used

constexpr uint32_t SLICE_MS = 10;  // latency of a stop
constexpr uint32_t START_DELAY_MS = 200;
constexpr int SLICES_BEFORE_READ = 20, SLICES_AFTER_READ = 159, READS_PER_STEP = 2;
constexpr uint32_t STOP_LIMIT_MS = 500;

// QUIRK: one for the process. A code that another camera has just sent is not sent to this one, and m_iCurDA stays.
Shared<int32_t> s_iLastDA;

// Sleeps in slices. False as soon as the thread is to end.
bool SleepSlices(const CCameraCool& cam, int slices)
{
    for (int i = 0; i < slices; ++i) {
        platform::SleepMs(SLICE_MS);
        if (!cam.m_bTempThrRun)
            return false;
    }
    return true;
}

void Regulate(CCameraCool& cam)
{
    platform::SleepMs(START_DELAY_MS);
    while (cam.m_bTempThrRun) {
        cam.AutoTemp(cam.m_fSensorTemp);
        for (int i = 0; i < READS_PER_STEP; ++i) {
            if (!SleepSlices(cam, SLICES_BEFORE_READ))
                return;
            cam.GetSensorTemp();
            if (!SleepSlices(cam, SLICES_AFTER_READ))
                return;
        }
    }
}

// cooler thread. Start: StartAutoTempThr. Stop: m_bTempThrRun cleared, seen after 10 ms or one control transfer. A
// regulator that failed must not leave its last power on.
void AutoTempThread(void* camera)
{
    CCameraCool& cam = *static_cast<CCameraCool*>(camera);
    logging::SetThreadName("cooler");
    if (Attempt("cooler", [&cam] { Regulate(cam); }))
        return;
    Attempt("switching the cooler off", [&cam] { cam.SetPowerPerc(0); });
    cam.m_bTempThrRun = false;
}

}  // namespace

CCameraCool::CCameraCool(int width, int height) : CCameraBase(width, height)
{
    const auto [minCode, maxCode] = thermal::CodeSpan();
    const auto [minCurrent, maxCurrent] = thermal::CurrentSpan();
    m_fDAMin = minCode;
    m_fDAMax = maxCode;
    m_fCurrentMin = minCurrent;
    m_fCurrentMax = maxCurrent;
    m_bAutoTemp = false;
    m_dwLastTempTick = 0;
    m_fLastTemp = -100.0f;
    PID_init(KP, KI, KD);
}

CCameraCool::~CCameraCool()
{
    m_bTempThrRun = false;
    m_tempThread.Wait(platform::WAIT_FOREVER);
}

// --- power ------------------------------------------------------------------------------------------------------------

void CCameraCool::SetDA(int code)
{
    if (code == s_iLastDA)
        return;
    m_iCurDA = code;
    s_iLastDA = code;
    int32_t length = 0;
    SendCMD(REQ_COOLER_DA, static_cast<uint16_t>(code), 0, false, nullptr, &length);
}

int CCameraCool::CalculDA(float current)
{
    const int code = TruncToInt32(thermal::CodeOfCurrent(current));
    return std::clamp(code, static_cast<int>(m_fDAMin), static_cast<int>(m_fDAMax));
}

int CCameraCool::CalculIPerc(int code)
{
    const auto current = static_cast<float>(thermal::CurrentOfCode(code));
    return TruncToInt32(std::min(std::max(current, 0.0f), m_fCurrentMax) * 100 / m_fCurrentMax);
}

void CCameraCool::SetPowerPerc(float percent)
{
    const float floor = m_fCurrentMin * 100 / m_fCurrentMax;
    const float f = std::min(percent > floor ? percent : floor, 100.0f);
    SetDA(CalculDA(m_fCurrentMax * f / 100));
    m_fCoolPowerPerc = f;
}

// --- regulator --------------------------------------------------------------------------------------------------------

void CCameraCool::PID_init(float kp, float ki, float kd)
{
    m_PID.fKp = kp;
    m_PID.fKi = ki;
    m_PID.fKd = kd;
    m_PID.fLastErr = thermal::NO_ERROR_YET;
    m_PID.fErr = 0.0f;
    m_PID.fOut = 0.0f;
    m_PID.fIntegral = 0.0f;
    m_PID.fIntegralMax = 20.0f;  // kept, never applied
    m_PID.fIntegralMin = -20.0f;
}

void CCameraCool::SetAutoTemp(bool on, float target)
{
    m_bAutoTemp = on;
    m_iTargetTemp = TruncToInt32(target);
    PID_init(KP, KI, KD);
}

void CCameraCool::GetAutoTemp(bool* on, float* target) const
{
    *on = m_bAutoTemp;
    *target = static_cast<float>(m_iTargetTemp.Get());
}

void CCameraCool::AutoTemp(float temperature)
{
    const uint32_t now = platform::Ticks();
    if (m_dwLastTempTick != 0 && m_fLastTemp != 0.0f &&
        !thermal::IsPlausible(m_fLastTemp, temperature, static_cast<float>(now - m_dwLastTempTick)))
        return;  // the next sample is compared with the older one, over the longer time
    m_fLastTemp = temperature;
    m_dwLastTempTick = now;
    if (!m_bAutoTemp)
        return;

    // A positive error: colder than wanted, power falls.
    const float error = static_cast<float>(m_iTargetTemp.Get()) - temperature;
    m_PID.fErr = error;
    m_PID.fIntegral += error;
    const float change = thermal::RegulatorOutput({ m_PID.fKp, m_PID.fKi, m_PID.fKd }, error, m_PID.fLastErr, m_PID.fIntegral);
    m_PID.fLastErr = error;
    m_PID.fOut = change;

    float power = m_fCoolPowerPerc;
    if (change == 0.0f || thermal::IsCalm(error)) {
        SetPowerPerc(power - change);
        return;
    }
    // A small step may round to the code in force: go on until the output really changes. power is not clamped, so a
    // limit ends it at the latest; so does a step too small to change power.
    const int code = m_iCurDA;
    do {
        if ((power >= 100 && change <= 0) || (power <= 0 && change >= 0))
            return;
        const float next = power - change;
        if (!(next < power || next > power))
            return;
        power = next;
        SetPowerPerc(power);
    } while (m_iCurDA == code);
}

// --- thread -----------------------------------------------------------------------------------------------------------

void CCameraCool::StartAutoTempThr(void* self)
{
    if (m_bTempThrRun)
        return;
    m_bTempThrRun = true;
    if (!m_tempThread.Start(&AutoTempThread, self))
        m_bTempThrRun = false;
}

void CCameraCool::StopAutoTempThr()
{
    if (m_bTempThrRun) {
        m_bTempThrRun = false;
        m_tempThread.Wait(STOP_LIMIT_MS);
        SetPowerPerc(0);
    }
    // Whoever stops it is about to take the link or the object away. At worst one control transfer is still out, which
    // has a time limit of its own.
    m_tempThread.Wait(platform::WAIT_FOREVER);
}
