// What all model classes do alike, over any of the three bases. A family derives from CModel<Base> and adds its sensor.
//
//   template <class Base> class CQuartz : public CModel<Base> { ... };          family
//   class CCameraSQuartzCol final : public CQuartz<CCameraBase> { ... };        model
//
// The model's constructor ends with FinishConstruction(), because that calls virtual operations.
#pragma once
#include "capture/Capture.h"
#include "core/CCameraBase.h"
#include "sensors/ModelTraits.h"
#include "thermal/CCameraCool.h"
#include "usb/CUsbLink.h"

// The bodies, written once for all bases (Model.cpp).
namespace model {
void ApplyTraits(CCameraBase& cam, const ModelTraits& t);                      // constructor, up to LoadSetting
void FinishConstruction(CCameraBase& cam, const ModelTraits& t);               // LoadSetting and what follows it
bool OpenCamera(CCameraBase& cam, IModel& m, int deviceIndex);
bool CloseCamera(CCameraBase& cam, CCameraCool* pCool, const ModelTraits& t);
bool StartCapture(CCameraBase& cam, const ModelTraits& t, CaptureSession& s, bool snap);
bool StopCapture(CCameraBase& cam, const ModelTraits& t, CaptureSession& s);
void StartCooler(CCameraCool& cam);                                            // InitCamera of the cooled models
// InitCamera's common steps: host speed and its percentage, hot-pixel table.
void InitLink(CCameraBase& cam);
bool ReconnectAfterUpdate(CCameraBase& cam);                                   // after a firmware update
bool UpdateFirmware(CCameraBase& cam, const uint8_t* pImage, int32_t iSize, uint8_t needed);
}  // namespace model

template <class Base>
class CModel : public Base, public IModel {
public:
    explicit CModel(const ModelTraits& t) : Base(t.iWidth, t.iHeight), m_Traits(t), m_Session(*this, *this)
    {
        model::ApplyTraits(*this, t);
    }
    // Saves and closes, unless the C interface has done so (it empties the link first).
    ~CModel() override
    {
        this->m_bCapturing = false;
        m_Session.Wait(platform::WAIT_FOREVER);
    }

    const ModelTraits& Traits() const override { return m_Traits; }
    bool OpenCamera(int deviceIndex) override { return model::OpenCamera(*this, *this, deviceIndex); }
    bool CloseCamera() override { return model::CloseCamera(*this, Cool(), m_Traits); }
    bool StartCapture(bool snap) override { return model::StartCapture(*this, m_Traits, m_Session, snap); }
    bool StopCapture() override { return model::StopCapture(*this, m_Traits, m_Session); }
    bool GetImage(uint8_t* buffer, int size, uint32_t waitMs) override
    {
        return DeliverImage(*this, *this, buffer, size, waitMs);
    }

protected:
    void FinishConstruction() { model::FinishConstruction(*this, m_Traits); }
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
