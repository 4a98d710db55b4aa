// Jasper: rolling shutter sensor with its own frame counter; the FPGA only formats.
#pragma once
#include <cstdint>

#include "base/Export.h"
#include "sensors/FpgaModel.h"

class KOV_CLASS CCameraSJasperCol final : public CFpgaModel<CCameraBase> {
public:
    explicit CCameraSJasperCol(void* handle = nullptr);
    ~CCameraSJasperCol() override { Shutdown(); }
    bool SetGain(int gain, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;
    bool SetOutput16Bits(bool on) override;
    bool Cam_SetResolution() override;
    bool SetCMOSClk() override;
    bool SetCMOSClk(int clock) override;
    bool StartSensorStreaming() override;
    bool StopSensorStreaming() override;

protected:
    void InitSensor() override;
    bool WriteHMAX() override;
    int32_t LineFromTime(float lineTime) const override;
    void AfterSetFPS() override {}  // the exposure is left as it is
    float MaxFPSNow() override;
    FpgaReg RedGain() const override { return FPGA_GAIN_C; }
    FpgaReg BlueGain() const override { return FPGA_GAIN_B; }
    bool BalanceHolds() const override { return false; }

private:
    // m_iHMAX counts periods of 148.5 MHz whatever the clock.
    int32_t Ratio() const { return m_iCMOSClk > 0 ? 148500 / m_iCMOSClk : 1; }
};
