// One open camera as its thread sees it: the calls of the library, each inside the gate.
#pragma once
#include <chrono>
#include <filesystem>
#include <memory>

#include "kovcam/serve/Frame.h"
#include "kovcam/serve/Gate.h"

class CCameraBase;

namespace kovserve {

class FramePool;

// The camera's thread alone. Everything throws CommandError when the library refuses.
class Device {
public:
    Device(Gate& gate, int id);  // opens it
    ~Device();                   // closes it
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    int Id() const { return m_id; }
    const KOV_CAMERA_INFO& Info() const { return m_info; }
    bool Answers() const;
    Setup ReadSetup();
    const kovtools::CameraState& Settings() const { return m_settings; }  // as of the last ReadSetup

    int32_t Get(KOV_CONTROL_TYPE type, bool* automatic = nullptr) const;
    std::optional<int32_t> Find(KOV_CONTROL_TYPE type) const;  // nothing where the camera has no such control
    void Set(KOV_CONTROL_TYPE type, int32_t value, bool automatic = false);

    Region ActualRegion(IMG_TYPE* type) const;
    // What the model takes nearest to what is asked, width or height 0: all of it.
    void ApplyRegion(const Region& region, IMG_TYPE type);
    // A region to the pixel is the next larger one that the model takes, from which the frame is cut. Where its alignment
    // leaves the edge of the sensor out of reach, the sensor is read unbinned and binned here, by the library's own rule.
    struct Cut {
        Region part;
        bool binHere = false;
    };
    Cut ApplyExact(const Region& region, IMG_TYPE type);

    void StartVideo();
    void StopVideo();
    bool IsVideo() const { return m_video; }
    std::shared_ptr<Frame> NextFrame(std::chrono::milliseconds limit);  // null when none came

    void StartExposure();
    void StopExposure();  // never throws
    KOV_EXPOSURE_STATUS ExposureStatus() const;
    std::shared_ptr<Frame> FetchExposure();  // waits without limit unless the status tells EXP_SUCCESS

    void UseDark(const std::filesystem::path& path);  // empty: none
    void BeginDark();
    bool IsCollectingDark(int* done, int* frames) const;
    void DropDark();
    std::string SaveDark(const std::filesystem::path& path);
    void ChangeHotPixels(const std::string& what);

private:
    // Inside the gate already.
    Region ActualRegionInside(IMG_TYPE* type) const;
    std::shared_ptr<Frame> NewFrameInside();

    Gate& m_gate;
    const int m_id;
    CCameraBase* m_object = nullptr;
    KOV_CAMERA_INFO m_info{};
    kovtools::CameraState m_settings;
    bool m_video = false;
    std::string m_darkName;
    const std::shared_ptr<FramePool> m_pool;
};

void CutFrame(Frame& frame, const Device::Cut& cut);

}  // namespace kovserve
