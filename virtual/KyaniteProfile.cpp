// Kyanite: word registers at small addresses, a frame buffer behind the FPGA, a sensor that sleeps between captures.
// Columns are the FPGA's alone, rows are told to both; binned samples are sums.
#include <cstdint>
#include <initializer_list>
#include <memory>

#include "virtual/BaseProfile.h"

namespace kovsim {
namespace {

enum Reg : uint16_t {
    REG_POWER = 0x0000,  // 0 asleep, 0x73 up, 0x173 up and sending
    REG_INIT = 0x0001,
    REG_WAKE = 0x0011,    // 0x3C40 asleep, 0x3C43 awake
    REG_GAIN_A = 0x0052,  // 256 is unity, 0.09375 dB a step
    REG_GAIN_B = 0x0054,
    REG_SHUTTER = 0x0057,
    REG_WAKE_A = 0x005F,
    REG_WAKE_B = 0x0061,  // 13 and 0 once awake
    REG_BLACK = 0x01CC,
    REG_TOP = 0x01DC,
    REG_END = 0x01DD,
};

class KyaniteProfile final : public SensorProfile {
public:
    KyaniteProfile(const ModelFacts& facts, uint8_t bFirmware)
        : SensorProfile(facts, bFirmware, { .bWords = true, .bFpga = true, .bFpgaHold = true })
    {
        PowerOn();
    }

    bool WriteReg16(uint16_t reg, uint16_t value) override
    {
        // Asleep, only the two power registers listen, except under the long-exposure gate, where the FPGA keeps the
        // sensor's interface up.
        if (Asleep() && !Gated() && reg != REG_POWER && reg != REG_WAKE) {
            m_sensor.Put(reg, value, Registers::When::Never);
            return true;
        }
        return SensorProfile::WriteReg16(reg, value);
    }

private:
    bool Asleep() const { return m_sensor[REG_WAKE] == 0x3C40 && m_sensor[REG_POWER] == 0; }
    bool Gated() const { return (m_fpga[11] & 1) != 0; }

    void Reset() override
    {
        for (uint16_t reg = 12; reg <= 15; ++reg)
            m_fpga.Put(reg, 128);  // bring-up leaves them
    }

    // What a host sets frame by frame does not survive the sleep.
    void Wrote(uint16_t) override
    {
        if (!Asleep() || Gated())
            return;
        for (Reg reg : { REG_GAIN_A, REG_GAIN_B, REG_SHUTTER, REG_BLACK, REG_TOP, REG_END })
            m_sensor.Lose(reg);
    }

    void Decode(Readout& r) const override
    {
        const Registers& s = m_sensor;
        const bool bAwake = s[REG_WAKE] == 0x3C43 && s[REG_POWER] == 0x173 && s[REG_WAKE_A] == 13 && s[REG_WAKE_B] == 0;
        r.bHeld = Gated();
        r.bStreaming = m_bUsb && FpgaRuns() && (bAwake || r.bHeld);
        if (s[REG_INIT] == 0)
            Fail(r, "the sensor was never set up");

        FpgaSize(r);
        r.iY = s[REG_TOP] - 32;
        r.iH = s[REG_END] - 36 - r.iY;
        // The rows that the sensor reads over the rows that the FPGA sends give the binning; run state, vertical constant
        // and format have to agree with it.
        const int skip = static_cast<int>(m_fpga.Bytes(6, 2));
        for (int bin : { 2, 3 })
            if (r.iOutH > 0 && r.iH == bin * r.iOutH)
                r.iBin = bin;
        const bool bBin = r.iBin != 1;
        if (r.iH != r.iBin * r.iOutH)
            Fail(r, "sensor and FPGA are told different heights");
        if (FpgaRuns() && ((m_fpga[0] & 2) != 0) != bBin)
            Fail(r, "run state and binning differ");
        if (skip < (bBin ? 5 : 13) || skip > (r.iBin == 3 ? 6 : bBin ? 8 : 13))
            Fail(r, "the vertical constant belongs to another mode");
        const uint16_t path = m_fpga[10] & ~0x10;
        if (path > (bBin ? 0 : 1))
            Fail(r, "output format does not fit the mode");
        r.samples = (m_fpga[10] & 0x10) != 0 ? Samples::Bits16 : Samples::Bits8;
        if (m_fpga[10] == 16 && !bBin)
            Fail(r, "the fast output carries 8 bits only");
        r.iX = (static_cast<int>(m_fpga.Bytes(2, 2)) - 60) * r.iBin;
        r.iW = r.iOutW * r.iBin;

        const uint32_t line = FpgaLine(), frame = FpgaFrame();
        r.bBinSums = bBin;
        if (bBin) {
            // The constant is the number of binned rows dropped in front. A stretched frame begins one row later. Bins of
            // 4 are 2x2 here with the constant of 3x3, which moves them up by two rows of cells.
            const int late = frame < static_cast<uint32_t>(r.iH) + 48 ? 0 : 1;
            const int moved = (skip - ((r.iBin == 2 ? 8 : 6) - late)) * r.iBin;
            r.iShiftX[1] = r.iBin == 3 ? 2 : 0;
            r.iShiftY[0] = (r.iBin == 3 ? 4 : 2) + moved;
            r.iShiftY[1] = (r.iBin == 3 ? 6 : 2) + moved;
        }
        if (line < (bBin ? 397u : path == 0 ? 435u : 680u))
            Fail(r, "the line is too short for the mode");
        if (frame < static_cast<uint32_t>(r.iOutH) + 200)
            Fail(r, "the frame is too short for the window");
        Timing(r, 37125, line, frame, s[REG_SHUTTER], 0, 0);

        r.dGain = FromDb((s[REG_GAIN_A] + s[REG_GAIN_B] - 512) * 0.09375);
        FpgaGains(r, 13, 14);  // of the cell G R / B G
        r.dBlack = s[REG_BLACK];
    }
};

}  // namespace

std::unique_ptr<Profile> MakeKyanite(const ModelFacts& facts, uint8_t bFirmware)
{
    return std::make_unique<KyaniteProfile>(facts, bFirmware);
}

}  // namespace kovsim
