// The hot-pixel table as hosts and tools use it: the search for one, by hand or by itself, loading, and on and off.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "base/Trace.h"
#include "camera/CCameraBase.h"
#include "camera/HotPixels.h"
#include "platform/Platform.h"

namespace {

constexpr uint32_t POLL_SNAP_MS = 1, POLL_DARK_MS = 2;
constexpr int32_t STEP_FIRST = 10000, STEP_MAX = 300000;  // us

// Takes snaps until a dark frame has been collected. A failed snap is just repeated. False when that has become hopeless:
// capture does not start, or no frame comes and the search is to stop.
bool CollectBySnaps(CCameraBase& cam, uint8_t* buf, int length)
{
    while (cam.m_bGettingDark) {
        cam.m_ExpStatus = EXP_WORKING;  // before the start: a quick snap has its outcome when StartCapture returns
        if (!cam.StartCapture(true))
            return false;
        while (cam.m_ExpStatus == EXP_WORKING) {
            const bool ended = !cam.m_bHPCRun && !cam.m_bCapturing;  // the capture thread tells the outcome right after
            platform::SleepMs(POLL_SNAP_MS);
            if (ended && cam.m_ExpStatus == EXP_WORKING)
                return false;
        }
        if (cam.m_ExpStatus == EXP_SUCCESS) {
            cam.GetImage(buf, length, platform::WAIT_FOREVER);
            platform::SleepMs(POLL_DARK_MS);
        } else if (!cam.m_bHPCRun) {
            return false;
        }
    }
    return true;
}

// Half a secant step towards the middle of the wanted range, from the last two (exposure, count) points.
int32_t ExposureStep(int min, int max, int N, int prevN, uint64_t exposure, uint64_t prevExp)
{
    if (prevN == 0 || N < 100 || N == prevN)
        return STEP_FIRST;
    const double exp = std::fabs(static_cast<double>(static_cast<int64_t>(exposure - prevExp)));
    const double middle = (static_cast<double>(min) + max) / 2;
    const double d = std::fabs(middle - N) * (exp * 0.5) / std::fabs(static_cast<double>(N - prevN));
    return static_cast<int32_t>(std::min(d, static_cast<double>(STEP_MAX)));
}

}  // namespace

bool CCameraBase::ManualHPC(bool save, int* count)
{
    if (save)
        return SaveHPCTable();
    m_bHPCRun = true;
    GettingDark(true, m_lExposure);
    while (m_bGettingDark && m_bHPCRun)
        platform::SleepMs(POLL_DARK_MS);
    if (!m_bHPCRun)
        TraceLine("get hpc num exit\n");
    *count = m_lDeadPixelNum;
    return true;
}

bool CCameraBase::AutoGetHPC(int* found, int minNum, int maxNum, unsigned long* running, uint8_t* buf, int bufLen)
{
    TraceLine("start\n");
    if (minNum >= maxNum || m_bCapturing)
        return false;
    m_bUsingDark = false;
    SetHPCStates(false);
    uint64_t exposure = m_lExposure, prevExp = 0;
    int prevN = 0;
    ForgetStandOuts(*this);
    m_bHPCRun = true;

    TraceLine("GettingDark-->\n");
    GettingDark(true, exposure);
    bool usable = CollectBySnaps(*this, buf, bufLen);
    TraceLine("m_bGettingDark: %d \n", static_cast<int>(m_bGettingDark));
    TraceLine("GettingDark <--\n");

    // No limit on the number of rounds: ChangeHPCStatus(HPC_STOP) ends it, after the round that runs.
    while (usable && m_bHPCRun) {
        const int N = m_lDeadPixelNum;
        TraceLine("iOldDeadpixNum :%d m_lDeadPixelNum:%d oldexp: %d exposure:%d\n", prevN, N, static_cast<int>(prevExp),
                  static_cast<int>(m_lExposure));
        *running = static_cast<unsigned long>(N);
        if (minNum <= N && N <= maxNum)
            break;
        const int32_t step = ExposureStep(minNum, maxNum, N, prevN, m_lExposure, prevExp);
        TraceLine("iDeltaExp %d\n", step);
        prevExp = m_lExposure;
        if (N < minNum)
            exposure += static_cast<uint64_t>(step);
        else
            exposure -= static_cast<uint64_t>(step);  // may wrap; the model clamps
        SetExp(exposure, false);
        prevN = N;
        TraceLine("2 GettingDark-->\n");
        GettingDark(true, m_lExposure);
        usable = CollectBySnaps(*this, buf, bufLen);
        TraceLine("2 GettingDark <--\n");
    }
    if (!usable || !m_bHPCRun) {
        // A collection that could not end must not begin again by itself with the next capture, nor go on in the next one.
        m_bGettingDark = false;
        if (!usable)
            m_iDarkCount = 0;
        TraceLine("Auto get HPC exit\n");
        return false;
    }
    *found = m_lDeadPixelNum;
    return SaveHPCTable();
}

bool CCameraBase::SetHPCStates(bool on)
{
    if (on)
        return ChangeHPCStatus(HPC_LOAD, nullptr);
    m_bHPCEnable = false;
    ForgetHotPixels(*this);
    return false;  // QUIRK: a host is told of a failure
}

bool CCameraBase::ChangeHPCStatus(HPCStatus status, unsigned long* count)
{
    switch (status) {
    case HPC_STOP: m_bHPCRun = false; return false;
    case HPC_LOAD:
        m_bHPCEnable = true;
        if (!LoadHPCTable()) {
            TraceLine("Load HPC table error\n");
            m_bHPCEnable = false;
            return false;
        }
        TraceLine("Load HPC table success\n");
        if (count)
            *count = static_cast<unsigned long>(m_iHPCNum.Get());
        return true;
    case HPC_OFF: return SetHPCStates(false);
    case HPC_QUERY:
        // QUIRK: USB 2 models have no table and never clear the flag that the settings have stored: a host reads "on", with
        // no pixels.
        if (m_bHPCEnable)
            *count = static_cast<unsigned long>(m_iHPCNum.Get());
        return m_bHPCEnable;
    }
    return false;
}
