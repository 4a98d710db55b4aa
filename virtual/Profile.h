// The sensor side of a virtual camera: registers in, readout out. One profile a sensor family, written from the sensor's
// and the FPGA's point of view.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

namespace kovsim {

enum class Cfa : uint8_t { Mono, RG, BG, GR, GB };

// Marks that the bridge lays over the frame.
enum class Marks : uint8_t {
    A,      // first word 0x5A7E, tag; last words tag, 0x3CF0 (16-bit little-endian)
    B,      // first 32-bit word 0xBB00AA11
    BTail,  // and last 32-bit word 0x11AA00BB
};

enum class Samples : uint8_t {
    Bits8,       // one byte
    Bits16,      // little-endian, sample at the top of the word
    Bits12Wire,  // 12 bits, low byte first on the wire: word w = (sample >> 4 & 0xFF) and (sample & 0xF) << 8, see Pack12
};

// Fixed facts of a model.
struct ModelFacts {
    uint16_t wProductId = 0;
    std::string sToken;  // "QuartzCol", "KyaniteCol_C", "LapisMono-A"
    int iWidth = 0, iHeight = 0;
    double dPixelUm = 0;
    Cfa cfa = Cfa::Mono;
    bool bUSB3 = true, bCooled = false;
    int iAdcBits = 12;
    double dFullWell = 20000;  // electrons
    double dReadNoise = 2.5;   // electrons
    Marks marks = Marks::A;
    enum class Temp : uint8_t { None, Digital, Thermistor, Register } temp = Temp::None;
    uint8_t bFirmware = 20;  // default firmware version
};

// What the registers ask for at this moment.
struct Readout {
    bool bStreaming = false;  // sensor awake, clocked and told to send, FPGA (where there is one) running
    bool bHeld = false;       // long exposure: read-out held back; the frame after release holds the whole time
    int iX = 0, iY = 0;       // window on the sensor, pixels
    int iW = 0, iH = 0;       // window on the sensor, before binning
    int iBin = 1;             // done by sensor or FPGA
    bool bBinSums = false;    // sum (saturating) or mean
    // Where a binned cell of even / odd column and row lies off the place of a host-binned cell, sensor pixels, added to its
    // coordinates. Shifted cells may reach past the window and the edge of the sensor; an unbinned window never does.
    int iShiftX[2] = { 0, 0 }, iShiftY[2] = { 0, 0 };
    int iOutW = 0, iOutH = 0;  // samples sent; a window that asks for less or more than iW / iBin is cut or padded with black
    Samples samples = Samples::Bits8;
    double dExposureUs = 0;  // of a frame that is not held
    // What integrates on after the release of a held frame: a sensor whose clock was stopped goes on counting its
    // shutter's lines from where it stood. 0 where the release itself ends the exposure.
    double dAfterHoldUs = 0;
    double dFrameUs = 0;  // period: line length * frame length / clock
    // Time in which the rows come after the release of a held frame; the blank lines that stretch a frame to a long
    // exposure do not come again. 0: a whole period.
    double dReadoutUs = 0;
    double dGain = 1;               // linear, analog and digital
    double dGainR = 1, dGainB = 1;  // channel gains over green
    double dBlack = 0;              // pedestal, in ADU of the ADC (iAdcBits)
    bool bValid = true;             // false: the registers contradict each other; the camera sends noise of the asked size
    std::string sWhy;               // why not
};

// Keeps the registers of sensor and FPGA. Not thread-safe: the camera calls it under its lock.
class Profile {
public:
    virtual ~Profile() = default;
    const ModelFacts& Facts() const { return m_facts; }

    virtual void PowerOn() = 0;                                 // registers to reset values
    virtual bool WriteReg16(uint16_t reg, uint16_t value) = 0;  // false: the device stalls the request
    virtual bool WriteReg8(uint16_t reg, uint8_t value) = 0;
    virtual uint16_t ReadReg16(uint16_t reg) = 0;
    virtual uint8_t ReadReg8(uint16_t reg) = 0;
    virtual void WriteFpga(uint16_t reg, uint16_t value) = 0;
    virtual uint8_t ReadFpga(uint16_t reg) = 0;         // also 29, 30, 31: version
    virtual void Command(uint8_t request) = 0;          // 163, 164, 169, 170, 171, 172, 174, 175
    virtual void SetTransferCount(uint32_t units) = 0;  // of 49152 bytes
    virtual Readout Current() const = 0;
    // Sensor temperature for a profile whose registers show it (Temp::Register).
    virtual void SetTemperature(double /*celsius*/) {}

protected:
    ModelFacts m_facts;
};

// nullptr: unknown product ID. firmware and the host's speed matter to some families.
std::unique_ptr<Profile> MakeProfile(uint16_t wProductId, uint8_t bFirmware, bool bUSB3Host);
// All 44 product IDs with their facts, in ascending order.
const ModelFacts* AllModels(int* piCount);

}  // namespace kovsim
