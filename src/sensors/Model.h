// What all model classes do alike, over any of the three bases. A family derives from CModel<Base> and adds its sensor.
//
//   template <class Base> class CQuartz : public CModel<Base> { ... };          family
//   class CCameraSQuartzCol final : public CWhole<CQuartz<CCameraBase>> { ... };  model
//
// A model class holds its constructor, which names its rows, and nothing else. A family of one model is a final class of
// its own, without CWhole.
#pragma once
#include <span>
#include <utility>

#include "capture/Capture.h"
#include "core/CCameraBase.h"
#include "sensors/ModelTraits.h"
#include "sensors/RegisterTable.h"
#include "thermal/CCameraCool.h"
#include "usb/CUsbLink.h"

// The bodies, written once for all bases (Model.cpp).
namespace model {
void ApplyTraits(CCameraBase& cam, const ModelTraits& t, void* handle);  // constructor, up to LoadSetting
void FinishConstruction(CCameraBase& cam, const ModelTraits& t);         // LoadSetting and what follows it
bool OpenCamera(CCameraBase& cam, IModel& m, int deviceIndex);
bool CloseCamera(CCameraBase& cam, CCameraCool* pCool, const ModelTraits& t, CaptureSession& s);
bool StartCapture(CCameraBase& cam, const ModelTraits& t, CaptureSession& s, bool snap);
bool StopCapture(CCameraBase& cam, const ModelTraits& t, CaptureSession& s);
void StartCooler(CCameraCool& cam);  // InitCamera of the cooled models
// InitCamera's first steps on a USB 3 bridge: speed of the host port and its percentage, hot-pixel table.
void InitLink(CCameraBase& cam);
// Body of FirmwareStep: brings the camera to firmware `needed` and restarts it. A null image skips the update.
bool UpdateFirmware(CCameraBase& cam, const ModelTraits& t, const uint8_t* pImage, int32_t iSize, uint8_t needed);
// Writes a register table, delays included; the rows as 8-bit or as 16-bit registers.
void RunTable8(CCameraBase& cam, std::span<const RegEntry> table);
void RunTable16(CCameraBase& cam, std::span<const RegEntry> table);
// The sensor's window fits and nothing is zero or negative. Does not test a family's alignment.
bool RegionFits(const CCameraBase& cam, int width, int height, int bin, int type);
}  // namespace model

template <class Base>
class CModel : public Base, public IModel {
public:
    // handle: a window that is to hear of arrivals and removals, or nullptr.
    CModel(const ModelTraits& t, void* handle) : Base(t.iWidth, t.iHeight), m_Traits(t), m_Session(*this, *this)
    {
        model::ApplyTraits(*this, t, handle);
    }

    const ModelTraits& Traits() const override { return m_Traits; }
    bool OpenCamera(int deviceIndex) override { return model::OpenCamera(*this, *this, deviceIndex); }
    bool CloseCamera() override { return model::CloseCamera(*this, Cool(), m_Traits, m_Session); }
    bool StartCapture(bool snap) override { return model::StartCapture(*this, m_Traits, m_Session, snap); }
    bool StopCapture() override { return model::StopCapture(*this, m_Traits, m_Session); }
    bool GetImage(uint8_t* buffer, int size, uint32_t waitMs) override
    {
        return DeliverImage(*this, *this, buffer, size, waitMs);
    }

protected:
    // Last step of every constructor; needs the virtual operations of the whole family.
    void FinishConstruction() { model::FinishConstruction(*this, m_Traits); }
    // First step of every destructor: threads must end while the class is still whole. Saves and closes, unless the C
    // interface owns the object and has closed it already.
    void Shutdown()
    {
        if (!this->m_bOwnedByFrame) {
            if (Cool() == nullptr)
                this->SaveSetting(m_Traits.szKey);
            CloseCamera();
        }
        if (CCameraCool* pCool = Cool())
            pCool->StopAutoTempThr();
        this->m_bCapturing = false;
        m_Session.Wait(platform::WAIT_FOREVER);
    }
    // The cooler part of this camera, or nullptr.
    CCameraCool* Cool()
    {
        if constexpr (std::is_base_of_v<CCameraCool, Base>)
            return this;
        else
            return nullptr;
    }
    const ModelTraits& m_Traits;

private:
    CaptureSession m_Session;
};

// Both ends of a model's life, over a family that implements all operations.
template <class Family>
class CWhole : public Family {
public:
    template <class... Args>
    explicit CWhole(Args&&... args) : Family(std::forward<Args>(args)...)
    {
        this->FinishConstruction();
    }
    ~CWhole() override { this->Shutdown(); }
};
