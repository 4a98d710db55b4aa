// Marble: 3096 x 2080; the sensor bins by two itself, a bin of four is finished on the host.
#pragma once
#include <cstdint>

#include "sensors/FpgaModel.h"

template <class Base>
class CMarble : public CFpgaModel<Base> {
public:
    CMarble(const ModelTraits& t, ClassVars& v, void* handle);
    bool SetGain(int gain, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;
    bool SetOutput16Bits(bool on) override;
    bool IsHardBinRun() override { return this->InHardBin(); }
    bool Cam_SetResolution() override;
    bool SetCMOSClk() override;
    bool SetCMOSClk(int clock) override;
    bool StartSensorStreaming() override;
    bool StopSensorStreaming() override;

protected:
    void InitSensor() override;
    bool BinMatters() const override { return this->m_iBin == 2 || this->m_iBin == 4; }
    bool SpeedMatters() const override { return !this->InHardBin() && !this->m_bOutput16Bits; }
    bool IsHardSize() const override { return this->InHardBin(); }
    int HardSizeFactor() const override { return this->m_iBin == 4 ? 2 : 1; }
};

KOV_MODEL(CCameraSMarbleCol, CMarble<CCameraBase>);
KOV_MODEL(CCameraSMarbleMono, CMarble<CCameraBase>);
KOV_MODEL(CCameraSMarbleCol_C, CMarble<CCameraCool>);
KOV_MODEL(CCameraSMarbleMono_C, CMarble<CCameraCool>);
