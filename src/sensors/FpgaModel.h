// What the USB 3 families with an FPGA do alike: bring-up, bandwidth to line length, regions, streaming, white balance.
// A family derives from CFpgaModel<Base>, fills in the pure steps and overrides where it leaves the common form.
#pragma once
#include <atomic>
#include <cstdint>
#include <initializer_list>

#include "sensors/CCameraPython.h"
#include "sensors/Model.h"

// FPGA registers.
enum FpgaReg : uint16_t {
    FPGA_RUN = 0,         // streaming control, values below
    FPGA_HOLD = 1,        // 1 keeps writes back until 0; then they take effect together
    FPGA_START_X = 2,     // 2 bytes
    FPGA_WIDTH = 4,       // 2 bytes, pixels
    FPGA_START_Y = 6,     // 2 bytes, a constant of the mode
    FPGA_HEIGHT = 8,      // 2 bytes, lines
    FPGA_FORMAT = 10,     // 0 fast 8-bit path, 1 8-bit, 16 and 17 16-bit
    FPGA_LONG_GATE = 11,  // long exposure gate
    FPGA_GAIN_A = 12,
    FPGA_GAIN_B = 13,
    FPGA_GAIN_C = 14,
    FPGA_GAIN_D = 15,  // channel gains, 128 is unity
    FPGA_VMAX = 16,    // frame length, lines, 3 bytes
    FPGA_HMAX = 19,    // line length, sensor clocks, 2 bytes
};
enum FpgaRun : uint8_t {
    RUN_RESET = 0x00,
    RUN_IDLE = 0x30,
    RUN_STOP = 0x31,
    RUN_STOP_LONG = 0xF1,
    RUN_GO = 0x21,
    RUN_GO_LONG = 0xE1,
};

// Shared by all cameras of one class, as the field's hosts know it: the last camera that changed its mode decides.
struct ClassVars {
    std::atomic<int32_t> bandwidthUnit;   // bytes a second at one percent, divided by 10
    std::atomic<int32_t> minHmax;         // smallest line length of the sensor mode, clocks
    std::atomic<int32_t> savedHmax{ 0 };  // Lapis: line length before a long exposure
};

// Where a sensor with byte registers keeps what most families write alike. 0: the family writes it itself.
struct SensorRegs {
    uint16_t hold = 0;           // 1 keeps writes back until 0
    uint16_t left = 0, top = 0;  // start of the window, 2 bytes each
    uint16_t black = 0;          // 2 bytes
};

// Consecutive byte registers of the sensor, low byte first.
struct RegBytes {
    uint16_t reg;
    uint32_t value;
    int n = 1;
};

// One row a family.
struct FpgaTraits {
    int vBlank;                  // lines that a frame needs beyond the picture
    int32_t unitUsb2, unitUsb3;  // bandwidthUnit by host port
    int32_t clockFloor;          // below it a slow long-exposure clock runs and bandwidth is left alone
    int autoPercUsb3;            // bandwidth on auto; 80 on a USB 2 host everywhere
    uint64_t fpsLimit;           // us; CalcMaxFPS only below it, 0: always
    bool rateCounts16Bits;       // the data rate counts two bytes a pixel in 16-bit mode
    SensorRegs regs = {};
};

template <class Base>
class CFpgaModel : public CModel<Base> {
public:
    CFpgaModel(const ModelTraits& t, const FpgaTraits& f, ClassVars& v, void* handle)
        : CModel<Base>(t, handle), m_fpga(f), m_vars(v)
    {
    }

    bool InitCamera() override;
    bool SetResolution(int width, int height, int bin, IMAGE_TYPE type) override;
    bool SetStartPos(int x, int y) override;
    bool SetFPSPerc(int percent, bool autoMode) override;
    bool GetFPSPerc(int* percent, bool* autoMode) override;
    bool SetHighSpeedMode(bool on) override;
    bool SetHardwareBin(bool on) override;
    bool SetBrightness(int value) override;
    void SetRGBBalance(int red, int blue, bool autoMode) override;
    float GetSensorTemp() override { return this->ReadDigitalTemp(); }
    int32_t GetRealImageSize() override;
    void CalcMaxFPS() override;

protected:
    // --- steps of a family ---
    virtual void InitSensor() = 0;  // register table and the sequence after it
    virtual void InitControls() {}  // after gamma, balance and brightness
    virtual void InitClock() { this->SetCMOSClk(); }
    virtual void ResolutionClock() { InitClock(); }      // SetResolution's choice of the clock
    virtual void InitDone() {}                           // last step of InitCamera
    virtual bool WriteStart(int x, int y);               // sensor pixels, rounded and in range; by SensorRegs
    virtual bool WriteHMAX();                            // m_iHMAX to its register
    virtual int32_t LineFromTime(float lineTime) const;  // us to the unit of m_iHMAX, before the limits
    virtual bool AcceptsSize(int width, int height) const { return height % 2 == 0 && width % 4 == 0; }
    virtual int RoundX(int x) const { return x & ~3; }             // x >= 0
    virtual bool BinMatters() const { return this->m_iBin != 1; }  // hardware binning plays a part at this bin
    // High speed plays a part in the mode in force.
    virtual bool SpeedMatters() const { return !InHardBin2(); }
    // The hardware path is in use as far as the frame size goes.
    virtual bool IsHardSize() const { return this->m_bHardwareBin; }
    virtual int HardSizeFactor() const { return 1; }       // the sensor sends that many times m_iWidth then
    virtual int SensorLines() const { return SensorH(); }  // lines in the frame-length sum
    virtual float MaxFPSNow();                             // frames a second for CalcMaxFPS
    virtual int32_t ClockFloor() const { return m_fpga.clockFloor; }
    virtual FpgaReg RedGain() const { return FPGA_GAIN_A; }
    virtual FpgaReg BlueGain() const { return FPGA_GAIN_D; }
    virtual bool BalanceHolds() const { return true; }  // white balance is written inside an FPGA hold
    virtual void AfterSetFPS() { this->SetExp(this->m_lExposure, this->m_bAutoExp); }

    // --- tools for a family ---
    int SensorW() const { return this->m_iWidth * (IsHardSize() ? HardSizeFactor() : this->m_iBin.Get()); }
    int SensorH() const { return this->m_iHeight * (IsHardSize() ? HardSizeFactor() : this->m_iBin.Get()); }
    bool InHardBin2() const { return this->m_bHardwareBin && this->m_iBin == 2; }
    // The same where hardware binning serves every bin at which it matters.
    bool InHardBin() const { return this->m_bHardwareBin && BinMatters(); }
    int AutoPerc() const { return this->m_bUSB3Host ? m_fpga.autoPercUsb3 : 80; }
    // First step of SetOutput16Bits.
    void TakeOutput16Bits(bool on)
    {
        this->m_bOutput16Bits = on;
        m_vars.bandwidthUnit = this->m_bUSB3Host ? m_fpga.unitUsb3 : m_fpga.unitUsb2;
    }
    // Consecutive byte registers, low byte first.
    bool WriteBytes(uint16_t reg, uint32_t value, int n);
    bool WriteFpga(uint16_t reg, uint32_t value, int n);
    // Sensor registers that take effect together.
    bool WriteHeld(std::initializer_list<RegBytes> writes);
    bool Write8(uint16_t reg, uint32_t value) { return this->WriteSONYREG(reg, static_cast<uint8_t>(value)); }
    bool Fpga(uint16_t reg, uint32_t value) { return this->WriteFPGAREG(reg, static_cast<uint16_t>(value)); }
    void UnityGains()
    {
        for (uint16_t r = FPGA_GAIN_A; r <= FPGA_GAIN_D; ++r)
            Fpga(r, 128);
    }
    void WriteSensorSizeToFpga()
    {
        WriteFpga(FPGA_WIDTH, uint32_t(SensorW()), 2);
        WriteFpga(FPGA_HEIGHT, uint32_t(SensorH()), 2);
    }
    // Starts and stops the FPGA's stream, in the form of the exposure.
    bool Go() { return Fpga(FPGA_RUN, this->m_bLongExp ? RUN_GO_LONG : RUN_GO); }
    bool Halt() { return Fpga(FPGA_RUN, this->m_bLongExp ? RUN_STOP_LONG : RUN_STOP); }
    // Last part of most bring-ups: FPGA idle, 8-bit format, unity gains.
    void FinishFpgaInit()
    {
        Fpga(FPGA_RUN, RUN_IDLE);
        Fpga(FPGA_FORMAT, 1);
        Fpga(FPGA_HOLD, 1);
        UnityGains();
        Fpga(FPGA_HOLD, 0);
    }
    // Enters or leaves the long-exposure mode by m_lExposure.
    // QUIRK: the mode goes to sensor byte 0 here, to FPGA register 0 when streaming starts.
    void SwitchLongExp(uint64_t from, uint8_t longMode)
    {
        if (this->m_lExposure >= from) {
            if (!this->m_bLongExp) {
                Write8(0, longMode);
                this->m_bLongExp = true;
            }
        } else if (this->m_bLongExp) {
            Write8(0, RUN_GO);
            this->SetCMOSClk();
            this->m_bLongExp = false;
        }
    }
    bool WriteVMAX(uint32_t vmax)
    {
        Fpga(FPGA_HOLD, 1);
        WriteFpga(FPGA_VMAX, vmax, 3);
        return Fpga(FPGA_HOLD, 0);
    }
    // Frames a second from clock and line length.
    float FPSFromLine(int lines) const
    {
        return float(this->m_iCMOSClk) * 1000.0f / float(this->m_iHMAX * (lines + m_fpga.vBlank));
    }
    // Line time in us, rounded to single precision at every step.
    float LineTime() const { return float(this->m_iHMAX) * 1000.0f / float(this->m_iCMOSClk); }

    const FpgaTraits& m_fpga;
    ClassVars& m_vars;
};

// Truncates like the processor's own conversion; out of range gives the most negative number instead of undefined.
inline int32_t TruncToInt(float f) { return f >= -2147483648.0f && f < 2147483648.0f ? static_cast<int32_t>(f) : INT32_MIN; }

extern template class CFpgaModel<CCameraBase>;
extern template class CFpgaModel<CCameraCool>;
extern template class CFpgaModel<CCameraPython>;
