// Ebony, Flint and Halite: large cooled sensors that bin by three themselves.
#pragma once
#include <cstdint>
#include <span>

#include "sensors/FpgaModel.h"
#include "sensors/RegisterTable.h"
#include "sensors/SonyExposure.h"

// In what the three differ; the rows stand in Ebony.cpp.
struct EbonyTraits {
    FpgaTraits fpga;
    ExposureLaw law;
    std::span<const RegEntry> initTable, modeFull, modeBin3;
    bool formatFollowsBin;                           // FPGA 10 is 16 or 0 in hardware bin 3
    int32_t minFull, minBin3;                        // shortest line, clocks
    uint8_t fpgaYFull, fpgaYBin3;                    // FPGA 6
    int lineMargin;                                  // lines beyond the picture that the sensor sends
    int columnOffset;                                // first column in FPGA 2, 3
    int topFull, topBin3;                            // first row of the sensor
    int roundBin3;                                   // start column at bin 3 is a multiple of it; 0: of 4 as ever
    uint8_t standbyBin3;                             // standby register when streaming in hardware bin 3
    int gainLimitBin3;                               // 0.1 dB of analog gain in hardware bin 3
    uint16_t regBlue, regRed, regGreen1, regGreen2;  // analog gain words, 2 bytes each
    int redShift;
    int expLinesBin3;  // lines counted for an output line in hardware bin 3, by exposure and frame rate
    int fpsLinesBin3;  // the same, by the bandwidth
};

class CEbony : public CFpgaModel<CCameraCool> {
public:
    CEbony(const ModelTraits& t, const EbonyTraits& e, ClassVars& v, void* handle);
    bool SetResolution(int width, int height, int bin, IMAGE_TYPE type) override;
    bool SetGain(int gain, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;
    bool SetHighSpeedMode(bool on) override;
    void SetRGBBalance(int red, int blue, bool autoMode) override;
    float GetSensorTemp() override;
    bool SetOutput16Bits(bool on) override;
    bool IsHardBinRun() override { return InHardBin3(); }
    bool Cam_SetResolution() override;
    bool SetCMOSClk() override;
    bool SetCMOSClk(int clock) override;
    bool StartSensorStreaming() override;
    bool StopSensorStreaming() override;
    unsigned long GetFrameTime() const;  // us

protected:
    void InitSensor() override;
    bool WriteStart(int x, int y) override;
    int RoundX(int x) const override;
    bool BinMatters() const override { return m_iBin != 1 && m_iBin != 2; }
    bool IsHardSize() const override { return InHardBin3(); }
    int SensorLines() const override { return Lines(m_ebony.fpsLinesBin3); }
    float MaxFPSNow() override;

private:
    bool InHardBin3() const { return m_bHardwareBin && m_iBin == 3; }
    int Lines(int factorBin3) const { return m_iHeight * (InHardBin3() ? factorBin3 : m_iBin.Get()); }
    uint8_t RunValue() const { return m_bLongExp ? 0xA1 : RUN_GO; }
    const EbonyTraits& m_ebony;
};

KOV_MODEL(CCameraSEbonyCol, CEbony);
KOV_MODEL(CCameraSFlintCol, CEbony);
KOV_MODEL(CCameraSHaliteCol, CEbony);
