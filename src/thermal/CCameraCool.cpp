// The cooler: an 8-bit output drives a thermoelectric element, a regulator holds its temperature.
#include "thermal/CCameraCool.h"

#include <algorithm>
#include <cmath>

#include "base/Attempt.h"
#include "base/Log.h"

namespace {

struct DACurrentRow {
    double dDA, dCurrent;  // a lower code drives more current; 255 is off
};

// Currents in ampere. How the pairs were found is not known.
constexpr DACurrentRow g_DACurrentTable[] = {
    { 255, 0 },    { 220, 0.1 },  { 200, 0.19 }, { 180, 0.31 }, { 160, 0.45 },  { 140, 0.62 },
    { 120, 0.81 }, { 100, 1.03 }, { 80, 1.29 },  { 60, 1.55 },  { 47.3, 1.73 }, { 40, 1.83 },
};

constexpr float NO_ERROR_YET = -200;            // PID::fLastErr
constexpr float KP = 0.2f, KI = 0, KD = 0.6f;   // a PD regulator: the integral is summed and not used
constexpr float RATE_LIMIT = 2.0f;              // degrees per second; a faster change is a false reading
constexpr double CALM_ERROR = 0.4;              // degrees; below, a step may round to the same code

constexpr uint32_t SLICE_MS = 10;               // latency of a stop
constexpr uint32_t START_DELAY_MS = 200;
constexpr int SLICES_BEFORE_READ = 20, SLICES_AFTER_READ = 159, READS_PER_STEP = 2;
constexpr uint32_t STOP_LIMIT_MS = 500;

// QUIRK: one for the process. A code that another camera has just sent is not sent to this one, and m_iCurDA stays.
Shared<int32_t> s_iLastDA;

// Looks x up in column From and gives what stands in column To: interpolated in the first interval whose middle is no
// further than half its width, else the row whose From is nearest.
template <double DACurrentRow::*From, double DACurrentRow::*To>
double LookUp(double x)
{
    for (size_t i = 1; i < std::size(g_DACurrentTable); ++i) {
        const DACurrentRow &a = g_DACurrentTable[i - 1], &b = g_DACurrentTable[i];
        if (std::fabs(static_cast<float>(b.*From - a.*From) * 0.5f) >=
            std::fabs(static_cast<float>(x - (a.*From + b.*From) * 0.5)))
            return (x - a.*From) * (b.*To - a.*To) / (b.*From - a.*From) + a.*To;
    }
    const auto* const pNearest =
        std::min_element(std::begin(g_DACurrentTable), std::end(g_DACurrentTable),
                         [x](const auto& a, const auto& b) { return std::fabs(x - a.*From) < std::fabs(x - b.*From); });
    return pNearest->*To;
}

// Sleeps in slices. False as soon as the thread is to end.
bool SleepSlices(const CCameraCool& cam, int iSlices)
{
    for (int i = 0; i < iSlices; ++i) {
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
void AutoTempThread(void* pCamera)
{
    CCameraCool& cam = *static_cast<CCameraCool*>(pCamera);
    logging::SetThreadName("cooler");
    if (Attempt("cooler", [&cam] { Regulate(cam); }))
        return;
    Attempt("switching the cooler off", [&cam] { cam.SetPowerPerc(0); });
    cam.m_bTempThrRun = false;
}

}  // namespace

CCameraCool::CCameraCool(int width, int height) : CCameraBase(width, height)
{
    const auto [minDA, maxDA] = std::minmax_element(std::begin(g_DACurrentTable), std::end(g_DACurrentTable),
                                                    [](const auto& a, const auto& b) { return a.dDA < b.dDA; });
    const auto [minI, maxI] = std::minmax_element(std::begin(g_DACurrentTable), std::end(g_DACurrentTable),
                                                  [](const auto& a, const auto& b) { return a.dCurrent < b.dCurrent; });
    m_fDAMin = static_cast<float>(minDA->dDA);
    m_fDAMax = static_cast<float>(maxDA->dDA);
    m_fCurrentMin = static_cast<float>(minI->dCurrent);
    m_fCurrentMax = static_cast<float>(maxI->dCurrent);
    m_bAutoTemp = false;
    m_dwLastTempTick = 0;
    m_fLastTemp = -100.0f;
    PID_init(KP, KI, KD);
}

CCameraCool::~CCameraCool()
{
    m_bTempThrRun = false;
    m_TempThread.Wait(platform::WAIT_FOREVER);
}

// --- power ------------------------------------------------------------------------------------------------------------

void CCameraCool::SetDA(int code)
{
    if (code == s_iLastDA)
        return;
    m_iCurDA = code;
    s_iLastDA = code;
    int32_t iLength = 0;
    SendCMD(REQ_COOLER_DA, static_cast<uint16_t>(code), 0, false, nullptr, &iLength);
}

int CCameraCool::CalculDA(float current)
{
    const int iCode = TruncToInt32(LookUp<&DACurrentRow::dCurrent, &DACurrentRow::dDA>(current));
    return std::clamp(iCode, static_cast<int>(m_fDAMin), static_cast<int>(m_fDAMax));
}

int CCameraCool::CalculIPerc(int code)
{
    const auto fCurrent = static_cast<float>(LookUp<&DACurrentRow::dDA, &DACurrentRow::dCurrent>(code));
    return TruncToInt32(std::min(std::max(fCurrent, 0.0f), m_fCurrentMax) * 100 / m_fCurrentMax);
}

void CCameraCool::SetPowerPerc(float percent)
{
    const float fFloor = m_fCurrentMin * 100 / m_fCurrentMax;
    const float f = std::min(percent > fFloor ? percent : fFloor, 100.0f);
    SetDA(CalculDA(m_fCurrentMax * f / 100));
    m_fCoolPowerPerc = f;
}

// --- regulator --------------------------------------------------------------------------------------------------------

void CCameraCool::PID_init(float kp, float ki, float kd)
{
    m_PID.fKp = kp;
    m_PID.fKi = ki;
    m_PID.fKd = kd;
    m_PID.fLastErr = NO_ERROR_YET;
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
    const uint32_t dwNow = platform::Ticks();
    if (m_dwLastTempTick != 0 && m_fLastTemp != 0.0f) {
        const float fRate = (temperature - m_fLastTemp) * 1000 / static_cast<float>(dwNow - m_dwLastTempTick);
        if (std::fabs(fRate) >= RATE_LIMIT)
            return;  // the next sample is compared with the older one, over the longer time
    }
    m_fLastTemp = temperature;
    m_dwLastTempTick = dwNow;
    if (!m_bAutoTemp)
        return;

    // A positive error: colder than wanted, power falls.
    const float fErr = static_cast<float>(m_iTargetTemp.Get()) - temperature;
    m_PID.fErr = fErr;
    m_PID.fIntegral += fErr;
    const float fLast = m_PID.fLastErr;
    const float fD = fLast == NO_ERROR_YET ? 0.0f : (fErr - fLast) * m_PID.fKd;
    const float fOut = m_PID.fIntegral * m_PID.fKi + fErr * m_PID.fKp + fD;
    m_PID.fLastErr = fErr;
    m_PID.fOut = fOut;

    float fPower = m_fCoolPowerPerc;
    if (fOut == 0.0f || static_cast<double>(std::fabs(fErr)) <= CALM_ERROR) {
        SetPowerPerc(fPower - fOut);
        return;
    }
    // A small step may round to the code in force: go on until the output really changes. fPower is not clamped, so a
    // limit ends it at the latest; so does a step too small to change fPower.
    const int iCode = m_iCurDA;
    do {
        if ((fPower >= 100 && fOut <= 0) || (fPower <= 0 && fOut >= 0))
            return;
        const float fNext = fPower - fOut;
        if (!(fNext < fPower || fNext > fPower))
            return;
        fPower = fNext;
        SetPowerPerc(fPower);
    } while (m_iCurDA == iCode);
}

// --- thread -----------------------------------------------------------------------------------------------------------

void CCameraCool::StartAutoTempThr(void* self)
{
    if (m_bTempThrRun)
        return;
    m_bTempThrRun = true;
    if (!m_TempThread.Start(&AutoTempThread, self))
        m_bTempThrRun = false;
}

void CCameraCool::StopAutoTempThr()
{
    if (m_bTempThrRun) {
        m_bTempThrRun = false;
        m_TempThread.Wait(STOP_LIMIT_MS);
        SetPowerPerc(0);
    }
    // Whoever stops it is about to take the link or the object away. At worst one control transfer is still out, which
    // has a time limit of its own.
    m_TempThread.Wait(platform::WAIT_FOREVER);
}
