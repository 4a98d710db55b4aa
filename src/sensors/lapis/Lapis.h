// Lapis: global shutter, 1936 x 1216. From firmware 18 on the FPGA owns the frame; before, the sensor does.
#pragma once
#include <cstdint>

#include "sensors/FpgaModel.h"

template <class Base>
class CLapis : public CFpgaModel<Base> {
public:
    CLapis(const ModelTraits& t, ClassVars& v, void* handle);
    bool SetGain(int gain, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;
    bool SetHardwareBin(bool) override { return false; }  // nothing is stored
    bool SetOutput16Bits(bool on) override;
    bool Cam_SetResolution() override;
    bool SetCMOSClk() override;
    bool SetCMOSClk(int clock) override;
    bool StartSensorStreaming() override;
    bool StopSensorStreaming() override;

protected:
    void InitSensor() override;
    void InitControls() override { SetOutput16Bits(this->m_bOutput16Bits); }
    void InitClock() override;
    void ResolutionClock() override {}
    bool WriteHMAX() override;
    bool SpeedMatters() const override { return true; }
    int32_t ClockFloor() const override { return NormalClock(); }
    bool BalanceHolds() const override { return !IsOld(); }

private:
    bool IsOld() const { return this->m_FirmwareVer < 18; }
    int32_t NormalClock() const { return IsOld() ? 74250 : 37125; }  // kHz
    void SwitchLong();
};

KOV_MODEL(CCameraSLapisCol, CLapis<CCameraBase>);
KOV_MODEL(CCameraSLapisMono, CLapis<CCameraBase>);
KOV_MODEL(CCameraSLapisCol_C, CLapis<CCameraCool>);
KOV_MODEL(CCameraSLapisMono_C, CLapis<CCameraCool>);
