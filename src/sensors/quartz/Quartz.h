// Quartz: 1936 x 1096 rolling shutter, FPGA owns the frame length.
#pragma once
#include "sensors/FpgaModel.h"

class CQuartz : public CFpgaModel<CCameraBase> {
public:
    CQuartz(const ModelTraits& t, ClassVars& v, void* handle);
    bool SetGain(int gain, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;
    bool SetBrightness(int value) override;
    bool SetOutput16Bits(bool on) override;
    bool Cam_SetResolution() override;
    bool SetCMOSClk() override;
    bool SetCMOSClk(int clock) override;
    bool StartSensorStreaming() override;
    bool StopSensorStreaming() override;

protected:
    void InitSensor() override;
    bool WriteStart(int x, int y) override;
};

class KOV_CLASS CCameraSQuartzCol final : public CQuartz {
public:
    explicit CCameraSQuartzCol(void* handle = nullptr);
    ~CCameraSQuartzCol() override { Shutdown(); }
};

class KOV_CLASS CCameraSQuartzMono final : public CQuartz {
public:
    explicit CCameraSQuartzMono(void* handle = nullptr);
    ~CCameraSQuartzMono() override { Shutdown(); }
};
