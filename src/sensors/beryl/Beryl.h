// Beryl: 640 x 480 global shutter with a PYTHON sensor behind an FPGA.
#pragma once
#include <cstdint>

#include "sensors/FpgaModel.h"

class CBeryl : public CFpgaModel<CCameraPython> {
public:
    CBeryl(const ModelTraits& t, ClassVars& v, void* handle);
    bool SetGain(int gain, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;
    bool SetBrightness(int value) override;
    bool SetOutput16Bits(bool on) override;
    bool Cam_SetResolution() override;
    bool StartSensorStreaming() override { return Fpga(FPGA_RUN, 0x01); }
    bool StopSensorStreaming() override { return Fpga(FPGA_RUN, 0x11); }

protected:
    void InitSensor() override;
    void InitClock() override {}
    bool WriteStart(int x, int y) override;
    bool WriteHMAX() override { return true; }  // the value is kept and nothing written
    int RoundX(int x) const override { return x & ~7; }

private:
    uint16_t ColumnWord() const;  // first and last column, in units of eight
};

KOV_MODEL(CCameraSBerylCol, CBeryl);
KOV_MODEL(CCameraSBerylMono, CBeryl);
