// Virtual cameras of each capture form behind the C interface, with faults; nothing may take longer than its limit.
#pragma once
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "KOVCamera2.h"
#include "camera/CCameraBase.h"
#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "virtual/VirtualBus.h"

inline constexpr int W = 320, H = 240;  // the region of most tests

// One model of each capture form. The region is large enough for more than one request a frame where the sensor is.
struct FormRow {
    const char* szName;
    uint16_t wProductId;
    int iFirmware;     // -1: the default
    bool bSmallChunk;  // loop of the USB 2 cameras
    bool bTag, bTail;  // marks beside the head
    int w, h;
    friend void PrintTo(const FormRow& f, std::ostream* p) { *p << f.szName; }
};

// clang-format off
inline constexpr FormRow g_FormRows[] = {
    //  name            ID      fw  small  tag    tail      w     h
    { "QuartzCol",    0xC11A,  -1, false, true,  true,  1936, 1096 },
    { "KyaniteCol",   0xC0B0,  -1, false, true,  true,  1600, 1200 },
    { "LapisCol17",   0xC0CA,  17, false, true,  true,  1936, 1216 },
    { "LapisCol18",   0xC0CA,  18, false, true,  true,  1936, 1216 },
    { "HaliteCol",    0xC08A,  -1, false, true,  true,  1600, 1200 },
    { "JasperCol",    0xC0AA,  -1, false, true,  true,  1944, 1224 },
    { "BerylCol",     0xC02A,  -1, false, true,  true,   640,  480 },
    { "GarnetMono",   0xC07A,  -1, true,  false, false, 1280,  960 },
    { "GarnetCol_S",  0xC07E,  -1, false, false, true,  1280,  960 },
    { "IoliteMono",   0xC09A,  -1, true,  false, false, 1280, 1024 },
    { "CobaltCol",    0xC03A,  -1, true,  false, false,  728,  512 },
    { "DuniteCol",    0xC04B,  -1, true,  false, false,  752,  480 },
};
// clang-format on

// The pattern in which each pixel names itself, for an exposure of its own.
class TimedPattern final : public kovsim::Scene {
public:
    explicit TimedPattern(double dExposureUs) : m_fRate(float(0.8e6 / 256 / dExposureUs)) {}
    void Render(const kovsim::ScreenGeometry& g, int firstRow, int rows, kovsim::Light* out) const override
    {
        for (int y = firstRow; y < firstRow + rows; ++y)
            for (int x = 0; x < g.iWidth; ++x) {
                const float v = float((x * 7 + y * 13) % 251) * m_fRate;
                *out++ = { v, v, v };
            }
    }
    bool InFullWells() const override { return true; }

private:
    const float m_fRate;
};

// A call that hangs ends the program and says which it was. Limits are real seconds, wide enough for a busy machine
// and sanitizers.
class Limit {
public:
    explicit Limit(const char* szWhat, int iSeconds = 60)
        : m_Thread([this, szWhat, iSeconds] {
              for (int i = 0; i < iSeconds * 100 && !m_bDone; ++i)
                  std::this_thread::sleep_for(std::chrono::milliseconds(10));
              if (!m_bDone) {
                  std::fprintf(stderr, "%s hangs\n", szWhat);
                  std::abort();
              }
          })
    {
    }
    ~Limit()
    {
        m_bDone = true;
        m_Thread.join();
    }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;

private:
    std::atomic<bool> m_bDone{ false };
    std::thread m_Thread;
};

// Polls a condition. The limit is real time.
inline bool Until(const std::function<bool()>& f, int iSeconds = 30)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(iSeconds);
    while (!f()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// Takes the video of one camera on a thread of its own and holds every frame against the first.
class Reader {
public:
    Reader(int id, size_t bytes, bool bCompare = true) : m_iId(id), m_bCompare(bCompare), m_Data(bytes)
    {
        m_Thread = std::thread([this] { Run(); });
    }
    ~Reader() { Stop(); }
    void Stop()
    {
        m_stop = true;
        if (m_Thread.joinable())
            m_Thread.join();
    }
    uint64_t Frames() const { return m_nFrames; }
    uint64_t TimeOuts() const { return m_nTimeOuts; }
    uint64_t Differing() const { return m_nDiffering; }
    bool WaitFor(uint64_t more, int iSeconds = 30) const
    {
        const uint64_t goal = Frames() + more;
        return Until([&] { return Frames() >= goal; }, iSeconds);
    }

private:
    void Run()
    {
        while (!m_stop) {
            const KOV_ERROR_CODE r = KOVGetVideoData(m_iId, m_Data.data(), int32_t(m_Data.size()), 300);
            if (r == KOV_ERROR_TIMEOUT) {
                ++m_nTimeOuts;
                continue;
            }
            if (r != KOV_SUCCESS) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            if (m_First.empty())
                m_First = m_Data;
            else if (m_bCompare && m_First != m_Data && ++m_nDiffering == 1)
                Tell();
            ++m_nFrames;
        }
    }

    void Tell() const
    {
        size_t n = 0, first = 0;
        for (size_t i = m_Data.size(); i-- > 0;)
            if (m_Data[i] != m_First[i]) {
                first = i;
                ++n;
            }
        std::printf("frame %d differs in %zu bytes; the first is byte %zu: %d instead of %d\n", int(m_nFrames), n, first,
                    m_Data[first], m_First[first]);
    }

    const int m_iId;
    const bool m_bCompare;
    std::vector<uint8_t> m_Data, m_First;
    std::atomic<bool> m_stop{ false };
    std::atomic<uint64_t> m_nFrames{ 0 }, m_nTimeOuts{ 0 }, m_nDiffering{ 0 };
    std::thread m_Thread;
};

class FaultTest : public testing::Test {
protected:
    void SetUp() override
    {
        char folder[] = "/tmp/kov-faults-XXXXXX";
        m_sConfig = mkdtemp(folder);
        setenv("XDG_CONFIG_HOME", m_sConfig.c_str(), 1);
        Speed(4);
    }
    void TearDown() override
    {
        CloseAll();
        platform::SetUsbStack(nullptr);
        m_pBus.reset();
        platform::SetClockRate(1);
        [[maybe_unused]] const int r = std::system(("rm -rf '" + m_sConfig + "'").c_str());
    }

    // A bus of its own, whose cameras and whose host live `rate` times as fast.
    void Speed(double rate)
    {
        CloseAll();
        platform::SetUsbStack(nullptr);
        m_pBus.reset();
        platform::SetClockRate(rate);
        m_pBus = std::make_unique<kovsim::VirtualBus>(rate);
        platform::SetUsbStack(m_pBus.get());
    }

    void Plug(const FormRow& f, std::shared_ptr<const kovsim::Scene> scene)
    {
        kovsim::CameraSettings s;
        s.wProductId = f.wProductId;
        s.iFirmware = f.iFirmware;
        s.dNoise = 0;
        s.iHotPixels = 0;
        s.scene = std::move(scene);
        m_pCam = &m_pBus->Plug(s);
    }
    void Open(int w, int h, int32_t us)
    {
        ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
        const Limit limit("KOVOpenCamera");
        ASSERT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
        ASSERT_EQ(KOVSetROIFormat(0, w, h, 1, IMG_RAW8), KOV_SUCCESS);
        KOVSetControlValue(0, CTRL_BANDWIDTH, 80, KOV_FALSE);
        ASSERT_EQ(KOVSetControlValue(0, CTRL_EXPOSURE, us, KOV_FALSE), KOV_SUCCESS);
        m_iBytes = size_t(w) * size_t(h);
    }
    void PlugAndOpen(const FormRow& f, int w, int h, int32_t us)
    {
        Plug(f, std::make_shared<TimedPattern>(us));
        Open(w, h, us);
    }

    void Fault(kovsim::FaultKind kind, uint32_t arg = 0, uint32_t after = 0, uint32_t times = 1)
    {
        m_pCam->Inject({ kind, arg, after, times });
    }

    static int32_t Dropped()
    {
        int32_t n = -1;
        EXPECT_EQ(KOVGetDroppedFrames(0, &n), KOV_SUCCESS);
        return n;
    }
    // How often the host sent it since the log was cleared. Value and index -1: any.
    int Sent(uint8_t bRequest, int value = -1, int index = -1) const
    {
        int n = 0;
        for (const kovsim::Request& r : m_pCam->Requests())
            n += !r.bIn && r.bRequest == bRequest && (value < 0 || r.wValue == value) && (index < 0 || r.wIndex == index);
        return n;
    }
    static void CloseAll()
    {
        const Limit limit("KOVCloseCamera");
        for (int id = 0; id < 4; ++id)
            KOVCloseCamera(id);
    }
    // The camera serves again as if nothing had been.
    void ExpectUsable(int w, int h, int32_t us)
    {
        ASSERT_NO_FATAL_FAILURE(Open(w, h, us));
        const Limit limit("video after the fault");
        ASSERT_EQ(KOVStartVideoCapture(0), KOV_SUCCESS);
        std::vector<uint8_t> data(m_iBytes);
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(KOVGetVideoData(0, data.data(), int32_t(data.size()), 200000), KOV_SUCCESS);
        EXPECT_EQ(KOVStopVideoCapture(0), KOV_SUCCESS);
        EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
    }

    std::unique_ptr<kovsim::VirtualBus> m_pBus;
    kovsim::VirtualCamera* m_pCam = nullptr;
    size_t m_iBytes = 0;

private:
    std::string m_sConfig;
};

class FormTest : public FaultTest, public testing::WithParamInterface<FormRow> {
protected:
    const FormRow& Form() const { return GetParam(); }
};

// What does not depend on the form: one of each loop and of each way to queue.
class SomeFormsTest : public FormTest {};

inline std::string NameOf(const testing::TestParamInfo<FormRow>& info) { return info.param.szName; }
