// What the model classes need of the capture pipeline: the capture thread and the delivery of images. The loop stands
// once; what a family does differently is its form (src/capture/Forms.*).
#pragma once
#include <cstdint>
#include <memory>

#include "camera/CCameraBase.h"

struct ModelTraits;

// What shared code asks of a model class beyond the virtual operations of CCameraBase. Callable from WorkingThread and
// host unless told otherwise.
class IModel {
public:
    virtual ~IModel() = default;
    virtual const ModelTraits& Traits() const = 0;

    virtual bool StartSensorStreaming() { return true; }  // where a family has the pair
    virtual bool StopSensorStreaming() { return true; }
    virtual int32_t GetRealImageSize() = 0;  // bytes of one raw frame at the current settings
    virtual bool SetOutput16Bits(bool on) = 0;
    virtual bool Cam_SetResolution() { return true; }
    virtual bool SetCMOSClk() { return true; }  // chooses the clock from the mode
    virtual bool SetCMOSClk(int /*clock*/) { return true; }
    virtual void CalcMaxFPS() {}
    virtual bool FirmwareStep() { return true; }  // last step of OpenCamera

    virtual bool WakeUpSensor() { return true; }                                           // Kyanite
    virtual bool SleepSensor() { return true; }                                            // Kyanite
    virtual bool ApplyExp() { return true; }                                               // Cobalt: the inner SetExp()
    virtual bool ApplyGain() { return true; }                                              // Cobalt: the inner SetGain()
    virtual bool SetBLOffset(bool /*automatic*/, char, char, char, char) { return true; }  // Iolite
    virtual void ModelWhiteBalance(uint8_t* /*frame*/) {}  // Agate, DuniteCol: AutoWhiBal of the class
};

// The capture thread of one camera with its auxiliary thread. Start and Wait: host.
class CaptureSession {
public:
    CaptureSession(CCameraBase& cam, IModel& model);
    ~CaptureSession();  // waits for the threads; stopped
    // Starts a capture: its fields, an empty exchange, the thread. An earlier thread that is still in its end sequence is
    // waited for by the new thread, not by the caller. False when the system has no thread; a snap has failed then.
    bool Start(bool snap);
    // m_bCapturing. A snap that is about to end has told its outcome when this returns.
    bool IsCapturing() const;
    // Host. The capture is over for the host; its thread ends when it comes to it.
    void Stop();
    // platform::WAIT_SIGNALLED once the thread has ended. WAIT_FOREVER ends it: sleeps and waits are cut short, and the
    // automation thread is waited for too; for closing the camera.
    uint32_t Wait(uint32_t ms);

private:
    struct Impl;
    std::unique_ptr<Impl> m_p;
};

// Body of GetImage for all models.
bool DeliverImage(CCameraBase& cam, IModel& model, uint8_t* buffer, int length, uint32_t waitMs);
