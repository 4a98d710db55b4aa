// What all model classes do alike, over any of the three bases. A family derives from CModel<Base> and adds its sensor.
//
//   template <class Base> class CQuartz : public CModel<Base> { ... };          family
//   KOV_MODEL(CCameraSQuartzCol, CQuartz<CCameraBase>);                         model
//
// A model class holds its constructor, which names its rows and stands in the family's .cpp, and nothing else. A family
// of one model is a final class of its own.
#pragma once
#include <algorithm>
#include <cstdint>
#include <span>
#include <utility>

#include "base/Export.h"
#include "camera/CCameraBase.h"
#include "camera/CCameraCool.h"
#include "camera/ModelTraits.h"
#include "capture/Capture.h"
#include "platform/Platform.h"
#include "sensors/RegisterTable.h"
#include "usb/CUsbLink.h"

// The bodies, written once for all bases (Model.cpp).
namespace model {
void ApplyTraits(CCameraBase& cam, const ModelTraits& t, void* handle);  // constructor, up to LoadSetting
void FinishConstruction(CCameraBase& cam, const ModelTraits& t);         // LoadSetting and what follows it
bool OpenCamera(CCameraBase& cam, IModel& m, int deviceIndex);
bool CloseCamera(CCameraBase& cam, CCameraCool* cool, const ModelTraits& t, CaptureSession& s);
bool StartCapture(CCameraBase& cam, const ModelTraits& t, CaptureSession& s, bool snap);
bool StopCapture(CCameraBase& cam, const ModelTraits& t, CaptureSession& s);
void StartCooler(CCameraCool& cam);  // InitCamera of the cooled models
// InitCamera's first steps on a USB 3 bridge: speed of the host port and its percentage, hot-pixel table.
void InitLink(CCameraBase& cam);
// Body of FirmwareStep: brings the camera to firmware `needed` and restarts it. A null image skips the update.
bool UpdateFirmware(CCameraBase& cam, const ModelTraits& t, const uint8_t* image, int32_t size, uint8_t needed);
// Writes a register table, delays included; the rows as 8-bit or as 16-bit registers.
void RunTable8(CCameraBase& cam, std::span<const RegEntry> table);
void RunTable16(CCameraBase& cam, std::span<const RegEntry> table);
uint8_t ReadFirmwareVer(CCameraBase& cam);  // into m_FirmwareVer; 0 when the read fails
// The sensor's window fits and nothing is zero or negative. Does not test a family's alignment.
bool RegionFits(const CCameraBase& cam, int width, int height, int bin, int type);
// Stores a region that fits and centres it.
void TakeRegion(CCameraBase& cam, int width, int height, int bin, IMAGE_TYPE type);
// Stores a start, moved so far that the region stays on the sensor.
void TakeStart(CCameraBase& cam, int x, int y);
// Dark frame, and on a USB 3 bridge the hot-pixel table, to the region.
void FitTables(CCameraBase& cam, const ModelTraits& t);
}  // namespace model

template <class Base>
class CModel : public Base, public IModel {
public:
    // handle: a window that is to hear of arrivals and removals, or nullptr.
    CModel(const ModelTraits& t, void* handle) : Base(t.width, t.height), m_traits(t), m_session(*this, *this)
    {
        model::ApplyTraits(*this, t, handle);
    }

    const ModelTraits& Traits() const override { return m_traits; }
    bool OpenCamera(int deviceIndex) override { return model::OpenCamera(*this, *this, deviceIndex); }
    bool CloseCamera() override { return model::CloseCamera(*this, Cool(), m_traits, m_session); }
    bool StartCapture(bool snap) override { return model::StartCapture(*this, m_traits, m_session, snap); }
    bool StopCapture() override { return model::StopCapture(*this, m_traits, m_session); }
    bool GetImage(uint8_t* buffer, int size, uint32_t waitMs) override
    {
        return DeliverImage(*this, *this, buffer, size, waitMs);
    }

protected:
    // Last step of every constructor; needs the virtual operations of the whole family.
    void FinishConstruction() { model::FinishConstruction(*this, m_traits); }
    // First step of every destructor: threads must end, and a host that waits for a frame must leave, while the class is
    // still whole. Saves and closes, unless the C interface owns the object and has closed it already.
    void Shutdown()
    {
        if (!this->m_ownedByFrame) {
            if (Cool() == nullptr)
                this->SaveSetting(m_traits.key);
            CloseCamera();
        }
        if (CCameraCool* cool = Cool())
            cool->StopAutoTempThr();
        m_session.Stop();
        m_session.Wait(platform::WAIT_FOREVER);
        this->m_pFrameExchange->Shut();
    }
    // First steps of the setters: what the host asks for, within the limits of the row, is stored.
    int TakeGain(int gain, bool autoMode)
    {
        this->m_bAutoGain = autoMode;
        return this->m_iGain = std::clamp(gain, m_traits.gain.min, m_traits.gain.max);
    }
    void TakeExp(uint64_t microseconds, bool autoMode)
    {
        this->m_bAutoExp = autoMode;
        const Range& r = m_traits.exposure;
        this->m_lExposure = std::clamp(microseconds, uint64_t(r.min), uint64_t(r.max));
    }
    void TakeBalance(int red, int blue, bool autoMode)
    {
        this->m_iWB_R = std::clamp(red, m_traits.wbMin, m_traits.wbMax);
        this->m_iWB_B = std::clamp(blue, m_traits.wbMin, m_traits.wbMax);
        this->m_bAutoWB = autoMode;
    }
    // QUIRK: on the switch to auto the argument is ignored; while auto is on, it is taken.
    void TakePercentage(int percent, bool autoMode, int autoPercent)
    {
        const int taken = std::clamp(percent, m_traits.bandwidthMin, m_traits.bandwidthMax);
        this->m_iFPSPerc = !autoMode || this->m_bAutoFPS ? taken : autoPercent;
        this->m_bAutoFPS = autoMode;
    }
    // The cooler part of this camera, or nullptr.
    CCameraCool* Cool()
    {
        if constexpr (std::is_base_of_v<CCameraCool, Base>)
            return this;
        else
            return nullptr;
    }
    const ModelTraits& m_traits;

private:
    CaptureSession m_session;
};

// A family that is built to the end.
template <class Family>
class CWhole : public Family {
public:
    template <class... Args>
    explicit CWhole(Args&&... args) : Family(std::forward<Args>(args)...)
    {
        this->FinishConstruction();
    }
};

// Declares the final class of a model. Its destructor cannot move to CWhole: threads, the host's among them, may still call
// virtual operations then, and the destructor of a base changes the class of the object under them.
#define KOV_MODEL(name, family)                        \
  class KOV_CLASS name final : public CWhole<family> { \
public:                                                \
    explicit name(void* handle = nullptr);             \
    ~name() override { this->Shutdown(); }             \
  }
