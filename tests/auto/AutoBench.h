// What the library does by itself, on virtual cameras whose clock runs fast.
#pragma once
#include <chrono>
#include <cmath>
#include <functional>
#include <thread>

#include "camera/CCameraCool.h"
#include "device/DeviceFixture.h"

using Bytes = std::vector<uint8_t>;

class AutoTest : public DeviceTest {
protected:
    // While one lives the library's time limits are long: a control transfer that a busy machine is late with does not
    // fail. The camera's clock goes on.
    class Patience {
    public:
        Patience() : m_dRate(platform::ClockRate()) { platform::SetClockRate(std::min(m_dRate, 2.0)); }
        ~Patience() { platform::SetClockRate(m_dRate); }
        Patience(const Patience&) = delete;
        Patience& operator=(const Patience&) = delete;

    private:
        double m_dRate;
    };
    // Plugs a camera and opens it under the next ID.
    void Open(const kovsim::CameraSettings& s)
    {
        const Patience patience;
        m_pDevice = &Plug(s);
        m_iId = KOVGetNumOfConnectedCameras() - 1;
        ASSERT_EQ(KOVOpenCamera(m_iId), KOV_SUCCESS);
        m_pCam = CCameraBase::FromID(m_iId);
        ASSERT_NE(m_pCam, nullptr);
    }
    void Set(KOV_CONTROL_TYPE c, int32_t v, bool bAuto = false)
    {
        const Patience patience;
        ASSERT_EQ(KOVSetControlValue(m_iId, c, v, bAuto ? KOV_TRUE : KOV_FALSE), KOV_SUCCESS) << c << " := " << v;
    }
    int32_t Now(KOV_CONTROL_TYPE c) const { return Get(m_iId, c); }
    void Region(int w, int h, int bin = 1, IMG_TYPE type = IMG_RAW8)
    {
        const Patience patience;
        ASSERT_EQ(KOVSetROIFormat(m_iId, w, h, bin, type), KOV_SUCCESS);
        m_iW = w;
        m_iH = h;
        m_Frame.assign(static_cast<size_t>(w) * static_cast<size_t>(h) * (type == IMG_RGB24 ? 3 : type == IMG_RAW16 ? 2 : 1), 0);
    }
    void Start() { ASSERT_EQ(KOVStartVideoCapture(m_iId), KOV_SUCCESS); }
    void Stop() { ASSERT_EQ(KOVStopVideoCapture(m_iId), KOV_SUCCESS); }
    // Next frame of a video into m_Frame.
    bool Next(int waitMs = 60000)
    {
        return KOVGetVideoData(m_iId, m_Frame.data(), static_cast<int32_t>(m_Frame.size()), waitMs) == KOV_SUCCESS;
    }
    // A camera that has just got a new scene, or a busy machine, may miss the first frame's time limit.
    bool TakeSnap()
    {
        for (int i = 0; i < 20; ++i)
            if (Snap(m_iId, m_Frame))
                return true;
        return false;
    }
    uint8_t At(int x, int y) const
    {
        return m_Frame[static_cast<size_t>(y) * static_cast<size_t>(m_iW) + static_cast<size_t>(x)];
    }

    // Polls a condition; the limit is real time.
    static bool Until(const std::function<bool()>& f, int iSeconds = 150)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(iSeconds);
        while (!f()) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
        return true;
    }

    kovsim::VirtualCamera* m_pDevice = nullptr;
    CCameraBase* m_pCam = nullptr;
    int m_iId = 0, m_iW = 0, m_iH = 0;
    Bytes m_Frame;
};

// One model of each way to expose; the others share theirs with one of these.
inline std::vector<ModelRow> OneOfEachKind()
{
    std::vector<ModelRow> rows;
    for (const ModelRow& m : Models())
        for (const int w : { 0xC01A, 0xC02A, 0xC03B, 0xC07A, 0xC07E, 0xC08A, 0xC09A, 0xC0AA, 0xC0B0, 0xC0CA, 0xC0DA, 0xC11A })
            if (m.wProductId == w)
                rows.push_back(m);
    return rows;
}
inline std::string ClassName(const testing::TestParamInfo<ModelRow>& info) { return info.param.sClass.substr(8); }
