// When a capture thread has to end, and sleeps that know it.
#pragma once
#include <algorithm>
#include <atomic>

#include "core/CCameraBase.h"

class RunControl {
public:
    explicit RunControl(const CCameraBase& cam) : m_cam(cam) {}

    // The threads of this run are to end without delay: the camera is closed or a newer run has taken over. Other than
    // m_bCapturing it also cuts sleeps and waits short.
    void Abandon() { m_bAbandoned = true; }
    bool IsAbandoned() const { return m_bAbandoned; }
    bool IsRunning() const { return m_cam.m_bCapturing && !m_bAbandoned; }

    void Sleep(int64_t ms) const
    {
        for (; ms > 0 && !m_bAbandoned; ms -= SLICE)
            platform::SleepMs(uint32_t(std::min(ms, SLICE)));
    }
    bool WaitEvent(platform::EventHandle h, uint32_t ms) const
    {
        for (int64_t left = ms;; left -= SLICE) {
            if (platform::WaitEvent(h, uint32_t(std::min(left, SLICE))) == platform::WAIT_SIGNALLED)
                return true;
            if (left <= SLICE || m_bAbandoned)
                return false;
        }
    }

private:
    static constexpr int64_t SLICE = 200;  // ms; bounds how late an abandoned thread notices
    const CCameraBase& m_cam;
    std::atomic<bool> m_bAbandoned{ false };
};
