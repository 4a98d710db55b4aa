// Garnet: 1280 x 960 sensor with 16-bit registers, exposure counted in lines. Two bridges: USB 2, and USB 3 in the _S
// models, which time the link differently.
#pragma once
#include <atomic>
#include <cstdint>

#include "base/Export.h"
#include "sensors/Usb2Model.h"

// Shared by all cameras of one class.
struct GarnetVars {
    std::atomic<uint16_t> at70{ 0 }, at55{ 0 };   // thermometer words of 70 and 55 degrees, 0 until read
    std::atomic<float> lastTemp{ 0 };             // degrees Celsius
    std::atomic<int32_t> bandwidthDivisor{ 91 };  // _S: megabytes per second of the full frame rate
};
struct GarnetForm;  // what the bridge makes different

class KOV_CLASS CGarnet : public CUsb2Model {
public:
    CGarnet(const ModelTraits& t, const GarnetForm& f, GarnetVars& v, void* handle);

    bool InitCamera() override;
    bool SetResolution(int width, int height, int bin, IMAGE_TYPE type) override;
    bool SetGain(int gain, bool autoMode) override;
    bool SetBrightness(int value) override;
    bool SetHighSpeedMode(bool on) override;
    bool SetFPSPerc(int percent, bool autoMode) override;
    bool GetFPSPerc(int* percent, bool* autoMode) override;
    bool SetOverCLKPerc(int percent) override;
    void SetRGBBalance(int red, int blue, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;
    float GetSensorTemp() override;

    bool StartSensorStreaming() override;
    bool StopSensorStreaming() override;
    bool SetOutput16Bits(bool on) override;
    bool Cam_SetResolution() override;
    bool SetCMOSClk() override;
    bool SetCMOSClk(int rate) override;  // MHz; 24 is the clock of exposures from 0.1 s on
    void CalcMaxFPS() override;
    bool FirmwareStep() override;

protected:
    bool MovesAtFullSize() const override { return true; }
    void WriteStart() override;

private:
    int64_t ShutterLines(int clock) const;  // m_lExposure at a clock in MHz; not limited
    void WritePll(int rate);
    bool WriteBalance();  // red and blue, from m_iGain and the white balance

    const GarnetForm& m_form;
    GarnetVars& m_vars;
};

KOV_MODEL(CCameraSGarnetMono, CGarnet);
KOV_MODEL(CCameraSGarnetCol, CGarnet);
KOV_MODEL(CCameraSGarnetMono_S, CGarnet);
KOV_MODEL(CCameraSGarnetCol_S, CGarnet);
