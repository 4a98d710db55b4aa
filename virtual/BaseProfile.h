// What all profiles share: register spaces with hold, the commands of the bridge, the FPGA and the checks of a read-out.
#pragma once
#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <span>
#include <utility>

#include "virtual/Profile.h"

namespace kovsim {

// One register space. A cell keeps the value last written, which reads back, and the value in force. They differ inside
// a hold, and for good when the write never reached the logic behind the register.
class Registers {
public:
    enum class When : uint8_t { Now, OnRelease, Never };

    void Clear() { m_cells.clear(); }
    void Put(uint16_t reg, uint16_t value, When when = When::Now);
    void Release();           // held values come into force, all at once
    void Lose(uint16_t reg);  // the value in force falls back to 0; what was written still reads back
    uint16_t Written(uint16_t reg) const;
    uint16_t operator[](uint16_t reg) const;        // in force
    uint32_t Bytes(uint16_t reg, int count) const;  // consecutive byte registers in force, low byte first

private:
    struct Cell {
        uint16_t written = 0, live = 0;
        bool bHeld = false;
    };
    std::map<uint16_t, Cell> m_cells;
};

// A register that bring-up has to set; with another value the sensor gives no usable picture. The reset value differs, so
// that a missing write shows.
struct Need {
    uint16_t reg, value, reset;
    const char* szWhy;
};

// How the sensor of a family hangs on the bridge.
struct Wiring {
    bool bBytes = false, bWords = false;  // access forms that the sensor answers; the others stall
    int iHold = -1;                       // hold register of the sensor: 1 holds, 0 releases
    bool bFpga = false;
    bool bFpgaHold = false;    // FPGA register 1 is the hold
    bool bClockGates = false;  // the sensor lives on the bridge's clock: stopped, it holds its read-out and takes no writes
    bool bClockRuns = true;    // at power on
    int iMHz = 24;             // bridge clock at power on
};

class SensorProfile : public Profile {
public:
    SensorProfile(const ModelFacts& facts, uint8_t bFirmware, const Wiring& wiring);
    void PowerOn() override;
    bool WriteReg16(uint16_t reg, uint16_t value) override;
    bool WriteReg8(uint16_t reg, uint8_t value) override;
    uint16_t ReadReg16(uint16_t reg) override { return m_sensor.Written(reg); }
    uint8_t ReadReg8(uint16_t reg) override { return static_cast<uint8_t>(m_sensor.Written(reg)); }
    void WriteFpga(uint16_t reg, uint16_t value) override;
    uint8_t ReadFpga(uint16_t reg) override;
    void Command(uint8_t request) override;
    void SetTransferCount(uint32_t units) override { m_uTransferUnits = units; }
    Readout Current() const override;

protected:
    virtual void Reset() {}                     // puts reset values that are not 0
    virtual void Wrote(uint16_t /*reg*/) {}     // after a write to the sensor
    virtual void Decode(Readout& r) const = 0;  // fills r; contradictions go to Fail

    static void Fail(Readout& r, const char* szWhy);  // the first reason stays
    void Set(std::initializer_list<std::pair<uint16_t, uint16_t>> values);
    void SetReset(std::span<const Need> needs);
    void Check(Readout& r, std::span<const Need> needs) const;

    // FPGA. Register 0: bit 0 frames enabled, bit 4 stopped, bit 5 out of reset, bit 1 binning sensor, bits 6 and 7 long
    // exposure, which change nothing here: the gate in register 11 does the holding.
    bool FpgaRuns() const { return (m_fpga[0] & 0x31) == 0x21; }
    void FpgaSize(Readout& r) const;                                 // registers 4, 5 and 8, 9: what is sent
    void FpgaGains(Readout& r, uint16_t regR, uint16_t regB) const;  // registers 12 to 15, the other two are green
    uint32_t FpgaLine() const { return m_fpga.Bytes(19, 2); }
    uint32_t FpgaFrame() const { return m_fpga.Bytes(16, 3); }
    // Exposure from whole lines: the shutter opens at line `shutter` and closes `lead` lines before the frame's end.
    void Timing(Readout& r, double dKHz, uint32_t line, uint32_t frame, uint32_t shutter, uint32_t lead, double t0) const;

    Registers m_sensor, m_fpga;
    const uint8_t m_bFirmware;
    bool m_bUsb = false;   // requests 169, 170
    bool m_bClock = true;  // requests 174, 175
    bool m_b16 = false;    // requests 171, 172
    int m_iMHz = 24;       // requests 163, 164
    uint32_t m_uTransferUnits = 0;

private:
    bool Write(uint16_t reg, uint16_t value);
    const Wiring m_wiring;
};

double FromDb(double dB);

std::unique_ptr<Profile> MakeSony(const ModelFacts& facts, uint8_t bFirmware);  // Quartz Onyx Pyrite Nephrite Jasper Marble Lapis
std::unique_ptr<Profile> MakeEbonyGroup(const ModelFacts& facts, uint8_t bFirmware);  // Ebony Flint Halite
std::unique_ptr<Profile> MakeKyanite(const ModelFacts& facts, uint8_t bFirmware);
std::unique_ptr<Profile> MakeBeryl(const ModelFacts& facts, uint8_t bFirmware);
std::unique_ptr<Profile> MakeGarnet(const ModelFacts& facts, uint8_t bFirmware);
std::unique_ptr<Profile> MakeCobalt(const ModelFacts& facts, uint8_t bFirmware);
std::unique_ptr<Profile> MakeDunite(const ModelFacts& facts, uint8_t bFirmware);  // and Agate
std::unique_ptr<Profile> MakeIolite(const ModelFacts& facts, uint8_t bFirmware);

}  // namespace kovsim
