// Kyanite: 4656 x 3520 with a frame buffer on the camera. The sensor sleeps whenever it is not needed.
#pragma once
#include <cstdint>

#include "sensors/FpgaModel.h"

template <class Base>
class CKyanite : public CFpgaModel<Base> {
public:
    CKyanite(const ModelTraits& t, ClassVars& v, void* handle);
    bool SetResolution(int width, int height, int bin, IMAGE_TYPE type) override;
    bool SetGain(int gain, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;
    bool SetBrightness(int value) override;
    bool SetHighSpeedMode(bool on) override;
    bool SetHardwareBin(bool on) override;
    bool SetOutput16Bits(bool on) override;
    bool Cam_SetResolution() override;
    bool SetCMOSClk() override;
    bool SetCMOSClk(int clock) override;
    bool InitSensorBinning(int bin);
    bool StartSensorStreaming() override;
    bool StopSensorStreaming() override;
    bool WakeUpSensor() override;
    bool SleepSensor() override;
    // A deeper sleep for the middle of a long exposure; nothing here uses the pair.
    bool SleepSensorLongExp();
    bool WakeSensorLongExp();

protected:
    void InitSensor() override;
    void InitClock() override;
    void InitDone() override { SleepSensor(); }
    bool WriteStart(int x, int y) override;
    int RoundX(int x) const override { return this->m_iBin == 3 ? x / 6 * 6 : x & ~3; }
    bool BinMatters() const override { return this->m_iBin >= 2 && this->m_iBin <= 4; }
    bool IsHardSize() const override { return this->InHardBin(); }
    int HardSizeFactor() const override { return this->m_iBin == 4 ? 2 : 1; }
    FpgaReg RedGain() const override { return FPGA_GAIN_B; }
    FpgaReg BlueGain() const override { return FPGA_GAIN_C; }

private:
    uint8_t RunValue() const;
    bool Reg(uint16_t reg, uint32_t value) { return this->WriteCameraRegister(reg, static_cast<uint16_t>(value)); }
};

KOV_MODEL(CCameraSKyaniteCol, CKyanite<CCameraBase>);
KOV_MODEL(CCameraSKyaniteMono, CKyanite<CCameraBase>);
KOV_MODEL(CCameraSKyaniteCol_C, CKyanite<CCameraCool>);
KOV_MODEL(CCameraSKyaniteMono_C, CKyanite<CCameraCool>);
