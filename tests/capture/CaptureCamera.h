// A camera of any family without its sensor: it notes what the capture thread asks of the model, and a scripted bulk
// endpoint plays the camera's frames.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "camera/ModelTraits.h"
#include "capture/Capture.h"
#include "platform/UsbAdapter.h"
#include "support/RecordingStack.h"
#include "usb/CUsbLink.h"

inline ModelTraits TraitsOf(Family family, bool bColor, const char* szClass)
{
    ModelTraits t{};
    t.family = family;
    t.isColor = bColor;
    t.className = szClass;
    return t;
}

class CaptureCamera : public CCameraBase, public IModel {
public:
    CaptureCamera(Family family, bool bColor, int width, int height, const char* szClass = "Test")
        : CCameraBase(width, height), m_traits(TraitsOf(family, bColor, szClass)), m_session(*this, *this)
    {
        m_bIsColor = bColor;
        m_iGamma = 50;
        m_lExposure = 1000;
        m_iFrameTime = 500;
        m_iCMOSClk = 48;
        m_iHMAX = 1650;
        m_iFPSPerc = 80;
        m_bRawOutput = true;
        m_iGainMax = 100;
        m_iGain = 50;
        m_iBrightness = 7;
    }
    ~CaptureCamera() override
    {
        m_bCapturing = false;
        m_session.Wait(platform::WAIT_FOREVER);
    }

    // --- as the model classes do it ---
    bool StartCapture(bool snap) override
    {
        if (!m_bOpen)
            return false;
        if (m_session.IsCapturing())
            return true;
        m_session.Start(snap);
        return true;
    }
    bool StopCapture() override
    {
        if (!m_session.IsCapturing())
            return true;
        m_session.Stop();
        return m_session.Wait(5000) == platform::WAIT_SIGNALLED;
    }
    bool GetImage(uint8_t* p, int n, uint32_t ms) override { return DeliverImage(*this, *this, p, n, ms); }
    bool Ended(uint32_t ms = 5000) { return m_session.Wait(ms) == platform::WAIT_SIGNALLED; }

    bool OpenCamera(int) override
    {
        Note("open");
        return m_bOpen = bFound && m_pUsbLink && m_pUsbLink->Open(0);
    }
    bool InitCamera() override { return true; }
    bool CloseCamera() override { return true; }
    bool SetResolution(int, int, int, IMAGE_TYPE) override { return true; }
    bool SetStartPos(int x, int y) override
    {
        Note("start " + std::to_string(x) + " " + std::to_string(y));
        return true;
    }
    bool SetGain(int gain, bool) override
    {
        Note("gain " + std::to_string(gain));
        m_iGain = gain;
        return true;
    }
    bool SetBrightness(int v) override
    {
        Note("brightness " + std::to_string(v));
        return true;
    }
    bool SetFPSPerc(int v, bool) override
    {
        Note("fps " + std::to_string(v));
        m_iFPSPerc = v;
        return true;
    }
    void SetRGBBalance(int, int, bool) override { Note("balance"); }
    bool SetExp(uint64_t us, bool) override
    {
        Note("exp " + std::to_string(us));
        return true;
    }
    float GetSensorTemp() override
    {
        Note("temp");
        return 0;
    }

    const ModelTraits& Traits() const override { return m_traits; }
    bool StartSensorStreaming() override
    {
        MayThrow("stream");
        if (OnStream)
            OnStream();
        return WriteCameraRegister(0xAAAA, 1);
    }
    bool StopSensorStreaming() override { return WriteCameraRegister(0xAAAA, 0); }
    int32_t GetRealImageSize() override { return m_iWidth * m_iHeight * m_iBin * m_iBin * (m_bOutput16Bits ? 2 : 1); }
    bool SetOutput16Bits(bool on) override { return SendCMD(on ? REQ_MODE_16BIT : REQ_MODE_8BIT); }
    bool SetCMOSClk() override
    {
        Note("clock");
        return true;
    }
    bool WakeUpSensor() override { return WriteCameraRegister(0xBBBB, 1); }
    bool SleepSensor() override { return WriteCameraRegister(0xBBBB, 0); }
    bool ApplyExp() override
    {
        Note("apply exp");
        return true;
    }
    bool ApplyGain() override
    {
        Note("apply gain");
        return true;
    }
    bool SetBLOffset(bool, char a, char, char c, char) override
    {
        Note("offset " + std::to_string(a) + " " + std::to_string(c));
        m_bAutoBLBusy = false;
        return true;
    }
    void ModelWhiteBalance(uint8_t*) override { Note("model balance"); }

    void Note(const std::string& s)
    {
        {
            const std::lock_guard l(m_mutex);
            m_notes.push_back(s);
        }
        MayThrow(s);
    }
    void MayThrow(const std::string& s)
    {
        if (!sThrowsAt.empty() && s.rfind(sThrowsAt, 0) == 0 && nThrows.fetch_sub(1) > 0)
            throw std::bad_alloc();
    }
    std::vector<std::string> Notes() const
    {
        const std::lock_guard l(m_mutex);
        return m_notes;
    }
    size_t CountOf(const std::string& sPrefix) const
    {
        const auto v = Notes();
        return size_t(std::count_if(v.begin(), v.end(), [&](const auto& s) { return s.rfind(sPrefix, 0) == 0; }));
    }
    std::atomic<bool> bFound{ true };
    // What is asked of the model by this name, "stream" the first, throws so many times.
    std::string sThrowsAt;
    std::atomic<int> nThrows{ 0 };
    std::function<void()> OnStream;

private:
    const ModelTraits m_traits;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_notes;
    CaptureSession m_session;
};

// The camera's side of the bulk endpoint. A frame that is shorter than asked for ends in a short request.
class FakeCamera {
public:
    explicit FakeCamera(bool bUSB2 = false) : dev(stack.Add(0xFFFF, bUSB2 ? usbstack::Speed::High : usbstack::Speed::Super))
    {
        platform::SetUsbStack(&stack);
        dev.OnBulk = [this](uint8_t* p, uint32_t n) { return Next(p, n); };
    }
    ~FakeCamera() { platform::SetUsbStack(nullptr); }
    void Connect(CCameraBase& cam)
    {
        cam.ReplaceLink(new CUsbLink(nullptr, cam.m_guid, true));
        cam.m_bOpen = true;
    }
    // Into requests that wait already, or into later ones.
    void Send(std::vector<uint8_t> frame)
    {
        {
            const std::lock_guard l(m_mutex);
            m_frames.push_back(std::move(frame));
        }
        dev.Pump();
    }
    // Sends a frame time and again. The script's frames go first.
    void Repeat(std::vector<uint8_t> frame)
    {
        {
            const std::lock_guard l(m_mutex);
            m_endless = std::move(frame);
        }
        dev.Pump();
    }
    void Drop()
    {
        const std::lock_guard l(m_mutex);
        m_frames.clear();
        m_at = 0;
    }
    size_t Left() const
    {
        const std::lock_guard l(m_mutex);
        return m_frames.size();
    }

    RecordingStack stack;
    FakeUsbDevice& dev;

private:
    int64_t Next(uint8_t* p, uint32_t n)
    {
        const std::lock_guard l(m_mutex);
        if (m_frames.empty() && !m_endless.empty()) {
            platform::SleepMs(1);
            m_frames.push_back(m_endless);
        }
        if (m_frames.empty())
            return -1;
        const std::vector<uint8_t>& f = m_frames.front();
        const size_t got = std::min<size_t>(n, f.size() - m_at);
        if (got != 0)
            std::memcpy(p, f.data() + m_at, got);
        m_at += got;
        if (m_at == f.size()) {
            m_frames.pop_front();
            m_at = 0;
        }
        return int64_t(got);
    }
    mutable std::mutex m_mutex;
    std::deque<std::vector<uint8_t>> m_frames;
    std::vector<uint8_t> m_endless;
    size_t m_at = 0;
};

class FastClock {
public:
    explicit FastClock(double rate) { platform::SetClockRate(rate); }
    ~FastClock() { platform::SetClockRate(1.0); }
};

template <class Cond>
bool Until(Cond cond, uint32_t realMs = 20000)
{
    const uint32_t dwTicks = uint32_t(realMs * platform::ClockRate()), dwStart = platform::Ticks();
    while (!cond()) {
        if (platform::Ticks() - dwStart > dwTicks)
            return false;
        platform::SleepMs(uint32_t(platform::ClockRate()));
    }
    return true;
}

// A camera on its endpoint, opened.
struct Rig {
    explicit Rig(Family family, bool bColor, int w = 64, int h = 32, const char* szClass = "Test")
        : usb(family == Family::Garnet || family == Family::Cobalt || family == Family::Iolite || family == Family::Agate ||
              family == Family::Dunite),
          cam(family, bColor, w, h, szClass)
    {
        usb.Connect(cam);
        usb.dev.Clear();
        usb.dev.ClearEvents();
    }
    ~Rig()
    {
        cam.m_bCapturing = false;
        cam.Ended(platform::WAIT_FOREVER);
        cam.ReplaceLink(nullptr);
    }
    // A video, whose first request waits.
    bool Starts() { return cam.StartCapture(false) && Waiting(1); }
    std::vector<uint8_t> Read(uint32_t ms = 3000)
    {
        std::vector<uint8_t> v(size_t(cam.GetRealImageSize()));
        return cam.m_pFrameExchange->Read(v.data(), int32_t(v.size()), ms) ? v : std::vector<uint8_t>{};
    }
    size_t Events(const std::string& s) const
    {
        const auto v = usb.dev.Events();
        return size_t(std::count(v.begin(), v.end(), s));
    }
    bool Waiting(size_t n)
    {
        return Until([&] { return usb.dev.Outstanding() == n; });
    }
    // Sends a frame that the thread throws away, and waits until it asks for the next one.
    bool SendBad(std::vector<uint8_t> frame, size_t nResets = 1)
    {
        const size_t n = Events("reset 82");
        usb.Send(std::move(frame));
        return Until([&] { return Events("reset 82") == n + nResets; }) && Waiting(1);
    }
    std::string Log() const { return usb.dev.Log(); }

    FakeCamera usb;
    CaptureCamera cam;
};

inline void Put16(std::vector<uint8_t>& v, size_t at, uint16_t w)
{
    v[at] = uint8_t(w);
    v[at + 1] = uint8_t(w >> 8);
}
// A frame of `bytes` that is told by its `seed`; every byte differs from its place in another chunk.
inline std::vector<uint8_t> Body(size_t bytes, unsigned seed)
{
    std::vector<uint8_t> v(bytes);
    for (size_t i = 0; i < bytes; ++i)
        v[i] = uint8_t(i * 31 + (i >> 12) * 7 + seed);
    return v;
}
inline std::vector<uint8_t> FrameA(size_t bytes, unsigned seed)
{
    auto v = Body(bytes, seed);
    Put16(v, 0, 0x5A7E);
    Put16(v, 2, uint16_t(seed));
    Put16(v, bytes - 4, uint16_t(seed));
    Put16(v, bytes - 2, 0x3CF0);
    return v;
}
inline std::vector<uint8_t> FrameB(size_t bytes, unsigned seed, bool bTail = false)
{
    auto v = Body(bytes, seed);
    Put16(v, 0, 0xAA11);
    Put16(v, 2, 0xBB00);
    if (bTail) {
        Put16(v, bytes - 4, 0x00BB);
        Put16(v, bytes - 2, 0x11AA);
    }
    return v;
}
inline bool HasMarksA(Family f)
{
    return f != Family::Garnet && f != Family::GarnetS && f != Family::Cobalt && f != Family::Iolite && f != Family::Dunite &&
           f != Family::Agate;
}
// With the marks of the family.
inline std::vector<uint8_t> FrameOf(Family f, size_t bytes, unsigned seed)
{
    return HasMarksA(f) ? FrameA(bytes, seed) : FrameB(bytes, seed, f == Family::GarnetS);
}
