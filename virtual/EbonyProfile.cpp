// Ebony, Flint, Halite: large cooled sensors with byte registers from 0x0200 and analog gain words that also carry the
// white balance. The sensor counts rows, the FPGA columns; binned, the sensor sends 3x3 means.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

#include "virtual/BaseProfile.h"

namespace kovsim {
namespace {

constexpr const char* WHY_INIT = "the sensor was never set up";

struct EbonyTraits {
    const char* szFamily;
    uint8_t modeBin;      // 0x0200 of the 3x3 mode; 4 is the full mode
    int lead;             // columns that the FPGA drops in front, binned half of them
    int top, topBin;      // first light row
    int extraRows;        // rows that the sensor counts beyond the picture
    int skipY, skipYBin;  // FPGA 6
    bool bBinFormat;      // binned samples come on the narrow path: FPGA 10 without bit 0
    uint32_t minLine, minLineBin, blank;
    uint16_t black;
    uint16_t gainR, gainB, gainG[2];
    int shiftR;        // bits by which the red word is shifted up
    uint16_t modeReg;  // register that the two read-out tables are known to set differently, 0: none
    uint8_t modeFull, modeBinned;
    int binShiftX[2], binShiftY[2];
    Need init;
};

// Families of the group.
//   bin    lead top     rows skipY  format min line  blank black   R       B       G                 <<  table register
constexpr EbonyTraits g_Groups[] = {
    { "Ebony",
      0x74,
      8,
      58,
      52,
      4,
      1,
      1,
      false,
      585,
      310,
      18,
      0x021F,
      0x022C,
      0x0230,
      { 0x0232, 0x022E },
      4,
      0,
      0,
      0,
      { 2, 4 },
      { 0, 2 },
      { 0x0201, 0x22, 0, WHY_INIT } },
    { "Flint",
      0x54,
      4,
      24,
      24,
      2,
      3,
      0,
      true,
      858,
      240,
      14,
      0x0216,
      0x0222,
      0x0226,
      { 0x0228, 0x0224 },
      0,
      0,
      0,
      0,
      { 4, 4 },
      { 0, 0 },
      { 0x0201, 0xA2, 0, WHY_INIT } },
    { "Halite",
      0x24,
      4,
      24,
      26,
      4,
      4,
      0,
      true,
      706,
      368,
      24,
      0x0216,
      0x0222,
      0x0226,
      { 0x0228, 0x0224 },
      0,
      0x021E,
      0x48,
      2,
      { 0, 0 },
      { 0, 0 },
      { 0x0201, 0xA2, 0, WHY_INIT } },
};

class EbonyProfile final : public SensorProfile {
public:
    EbonyProfile(const ModelFacts& facts, uint8_t bFirmware, const EbonyTraits& t)
        : SensorProfile(facts, bFirmware, { .bBytes = true, .bFpga = true, .bFpgaHold = true }), t(t)
    {
        PowerOn();
    }

    // Bit 15 of the address asks for a read; 0x8200 is the mode register.
    uint8_t ReadReg8(uint16_t reg) override { return SensorProfile::ReadReg8(reg & 0x7FFF); }

private:
    void Reset() override
    {
        Set({ { t.init.reg, t.init.reset }, { 0x0200, 1 } });
        for (uint16_t reg = 13; reg <= 15; ++reg)
            m_fpga.Put(reg, 128);
    }

    void Decode(Readout& r) const override
    {
        const Registers& s = m_sensor;
        Check(r, { &t.init, 1 });
        // Mode: bit 0 standby, bit 1 read-out held (set for the middle of a long exposure), the rest selects.
        const uint16_t mode = s[0x0200] & 0xFC;
        r.bStreaming = m_bUsb && FpgaRuns() && (s[0x0200] & 1) == 0;
        r.bHeld = (m_fpga[11] & 1) != 0 || (s[0x0200] & 3) == 2;
        const bool bBin = mode == (t.modeBin & 0xFC);
        if (!bBin && mode != 4)
            Fail(r, "unknown read-out mode");
        r.iBin = bBin ? 3 : 1;
        if (t.modeReg != 0 && s[t.modeReg] != (bBin ? t.modeBinned : t.modeFull))
            Fail(r, "mode and read-out table differ");

        const bool bNarrow = bBin && t.bBinFormat;
        if ((m_fpga[10] & ~0x10) != (bNarrow ? 0 : 1))
            Fail(r, "output format does not fit the mode");
        r.samples = (m_fpga[10] & 0x10) != 0 ? Samples::Bits16 : Samples::Bits8;

        FpgaSize(r);
        r.iX = (static_cast<int>(m_fpga.Bytes(2, 2)) - (bBin ? t.lead / 2 : t.lead)) * r.iBin;
        r.iY = static_cast<int>(s.Bytes(0x0208, 2)) - (bBin ? t.topBin : t.top);
        r.iY += (static_cast<int>(m_fpga.Bytes(6, 2)) - (bBin ? t.skipYBin : t.skipY)) * r.iBin;
        r.iW = r.iOutW * r.iBin;
        r.iH = r.iOutH * r.iBin;
        // Rows are counted as sent.
        if (static_cast<int>(s.Bytes(0x020A, 2)) != r.iOutH + t.extraRows)
            Fail(r, "sensor and FPGA are told different heights");
        if (bBin) {
            std::copy_n(t.binShiftX, 2, r.iShiftX);
            std::copy_n(t.binShiftY, 2, r.iShiftY);
        }

        const uint32_t line = FpgaLine(), frame = FpgaFrame();
        if (line < (bBin ? t.minLineBin : t.minLine))
            Fail(r, "the line is too short for the mode");
        if (frame < static_cast<uint32_t>(r.iOutH) + t.blank)
            Fail(r, "the frame is too short for the window");
        Timing(r, 20250, line, frame, s.Bytes(0x0206, 2), 0, 0);

        const double green = Amplifier(s.Bytes(t.gainG[0], 2));
        if (s.Bytes(t.gainG[0], 2) != s.Bytes(t.gainG[1], 2))
            Fail(r, "the two green gains differ");
        r.dGain = green * m_fpga[12] / 4;  // here FPGA 12 is a common gain in quarters
        r.dGainR = Amplifier(s.Bytes(t.gainR, 2) >> t.shiftR) / green;
        r.dGainB = Amplifier(s.Bytes(t.gainB, 2)) / green;
        r.dBlack = s.Bytes(t.black, 2);
    }

    // The word is the part of full scale taken off the ramp: 0 is unity, 4095 without limit.
    static double Amplifier(uint32_t word) { return 4095.0 / std::max(4095.0 - (word & 0xFFF), 0.5); }

    const EbonyTraits& t;
};

}  // namespace

std::unique_ptr<Profile> MakeEbonyGroup(const ModelFacts& facts, uint8_t bFirmware)
{
    for (const EbonyTraits& t : g_Groups)
        if (facts.sToken.starts_with(t.szFamily))
            return std::make_unique<EbonyProfile>(facts, bFirmware, t);
    return nullptr;
}

}  // namespace kovsim
