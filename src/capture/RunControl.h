// When a capture thread has to end, what it may still tell the host, and sleeps that know it.
#pragma once
#include <algorithm>
#include <atomic>

#include "base/Mutex.h"
#include "camera/CCameraBase.h"

class RunControl {
public:
    RunControl(CCameraBase& cam, bool snap) : m_cam(cam), m_snap(snap) {}

    // --- host ---
    // From here on the run changes neither m_bCapturing nor m_ExpStatus nor the exchange's frames. A snap becomes idle.
    // The thread ends when it comes to it; a run that has ended before is left alone.
    void Stop()
    {
        const MutexLock l(m_mutex);
        if (!m_live)
            return;
        m_live = false;
        m_cam.m_bCapturing = false;
        if (m_snap)
            m_cam.m_ExpStatus = EXP_IDLE;
    }
    // As Stop, but at once, and the camera's state is the caller's business: it is closed or a newer run takes over. Other
    // than m_bCapturing it also cuts sleeps and waits short.
    void Abandon()
    {
        const MutexLock l(m_mutex);
        m_live = false;
        m_abandoned = true;
    }
    // m_bCapturing, never between the two fields that End writes.
    bool IsCapturing() const
    {
        const MutexLock l(m_mutex);
        return m_cam.m_bCapturing;
    }

    // --- the run's threads ---
    bool IsRunning() const { return m_live && m_cam.m_bCapturing; }
    void Tell(KOV_EXPOSURE_STATUS status)
    {
        const MutexLock l(m_mutex);
        if (m_live)
            m_cam.m_ExpStatus = status;
    }
    // The run is over by itself, in a snap with this outcome. Capturing ends first: a host that sees the outcome may start
    // the next exposure at once.
    void End(KOV_EXPOSURE_STATUS outcome)
    {
        const MutexLock l(m_mutex);
        if (!m_live)
            return;
        m_live = false;
        m_cam.m_bCapturing = false;
        if (m_snap)
            m_cam.m_ExpStatus = outcome;
    }
    // Runs `insert` unless the run has been stopped.
    template <class Insert>
    bool Deliver(Insert insert)
    {
        const MutexLock l(m_mutex);
        return m_live && insert();
    }

    void Sleep(int64_t ms) const
    {
        for (; ms > 0 && !m_abandoned; ms -= SLICE)
            platform::SleepMs(uint32_t(std::min(ms, SLICE)));
    }
    bool WaitEvent(platform::EventHandle h, uint32_t ms) const
    {
        for (int64_t left = ms;; left -= SLICE) {
            if (platform::WaitEvent(h, uint32_t(std::min(left, SLICE))) == platform::WAIT_SIGNALLED)
                return true;
            if (left <= SLICE || m_abandoned)
                return false;
        }
    }

private:
    static constexpr int64_t SLICE = 200;  // ms; bounds how late an abandoned thread notices
    CCameraBase& m_cam;
    const bool m_snap;
    mutable Mutex m_mutex;             // a leaf lock: the run's end and the host's stop are one step each
    std::atomic<bool> m_live{ true };  // written under it
    std::atomic<bool> m_abandoned{ false };
};
