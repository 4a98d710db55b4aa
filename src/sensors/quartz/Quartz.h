// Quartz, Onyx, Pyrite and Nephrite: rolling shutter sensors of one kind behind an FPGA that owns the frame length.
#pragma once
#include <cstdint>
#include <span>

#include "sensors/FpgaModel.h"
#include "sensors/RegisterTable.h"
#include "sensors/SonyExposure.h"

// In what the families differ; the rows stand in Quartz.cpp.
struct QuartzTraits {
    FpgaTraits fpga;
    ExposureLaw law;
    std::span<const RegEntry> initTable, initAfter;  // register table, and the bytes after it
    uint16_t regTail;                                // byte cleared after the clock has started
    uint16_t regOutput;
    uint8_t outputFast, outputNormal;    // 8-bit high speed, and all else
    bool readoutTrim;                    // three more bytes follow the output mode
    int32_t clkBin, clkNormal, clkFast;  // kHz
    int32_t minBin, minNormal, minFast;  // shortest line, clocks
    bool clockKeepsGain;                 // the clock register carries the high-gain bit
    uint16_t regWidth, regHeight;
    uint8_t fpgaXBin, fpgaYBin, fpgaX, fpgaY;  // FPGA 2 and 6 in hardware bin 2, and otherwise
    int highGainAbove;                         // 0.1 dB; 0: no second amplifier range
    int gainStep, gainBytes;                   // 0.1 dB a step of the gain register, and its width
    bool gainHeld;
    bool fpsFromLine;  // CalcMaxFPS counts lines instead of the frame time
};

template <class Base>
class CQuartz : public CFpgaModel<Base> {
public:
    CQuartz(const ModelTraits& t, const QuartzTraits& q, ClassVars& v, void* handle);
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
    float MaxFPSNow() override;

private:
    uint32_t HighGainBit() const { return m_quartz.clockKeepsGain && this->m_iGain > 60 ? 0x10 : 0; }
    const QuartzTraits& m_quartz;
};

KOV_MODEL(CCameraSQuartzCol, CQuartz<CCameraBase>);
KOV_MODEL(CCameraSQuartzMono, CQuartz<CCameraBase>);
KOV_MODEL(CCameraSOnyxCol, CQuartz<CCameraBase>);
KOV_MODEL(CCameraSOnyxCol_C, CQuartz<CCameraCool>);
KOV_MODEL(CCameraSPyriteCol, CQuartz<CCameraBase>);
KOV_MODEL(CCameraSNephriteCol, CQuartz<CCameraBase>);
KOV_MODEL(CCameraSNephriteCol_C, CQuartz<CCameraCool>);
