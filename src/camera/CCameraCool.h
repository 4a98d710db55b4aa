// Adds the cooler to CCameraBase: power to DA code, a regulator, and the thread that reads the temperature and runs it.
#pragma once
#include <cstdint>

#include "base/Arithmetic.h"
#include "base/Export.h"
#include "camera/CCameraBase.h"
#include "platform/Platform.h"

class KOV_CLASS CCameraCool : public CCameraBase {
public:
    CCameraCool(int width, int height);
    // Waits for the thread. A class that overrides GetSensorTemp has to call StopAutoTempThr in its own destructor: the
    // thread calls that operation.
    ~CCameraCool() override;

    struct PID {
        Shared<float> fErr, fLastErr, fKp, fKi, fKd, fOut, fIntegral, fIntegralMax, fIntegralMin;
    };

    void SetDA(int code);
    int CalculDA(float current);
    int CalculIPerc(int code);
    void SetPowerPerc(float percent);
    int GetPowerPerc() const { return TruncToInt32(m_fCoolPowerPerc); }
    void PID_init(float kp, float ki, float kd);
    void AutoTemp(float temperature);  // one regulator step
    void SetAutoTemp(bool on, float target);
    void GetAutoTemp(bool* on, float* target) const;
    bool IsAutoTempWorking() const { return m_bTempThrRun; }
    void StartAutoTempThr(void* self);
    void StopAutoTempThr();  // host; power 0. Afterwards the thread does not run any more

    float m_fDAMin = 0, m_fDAMax = 0, m_fCurrentMax = 0;
    Shared<int32_t> m_iCurDA;
    Shared<uint32_t> m_dwLastTempTick;
    Shared<float> m_fLastTemp;
    PID m_PID;
    platform::Thread m_tempThread;

protected:
    float m_fCurrentMin = 0;
};
