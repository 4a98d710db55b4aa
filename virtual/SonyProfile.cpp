// Quartz, Onyx, Pyrite, Nephrite, Jasper, Marble, Lapis: byte registers; on all but Jasper and the Lapis boards with
// firmware below 18 the sensor is the slave of an FPGA, which owns line and frame length.
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "virtual/BaseProfile.h"

namespace kovsim {
namespace {

// A register whose value follows the read-out mode: 12 or 14 bits, binned by the sensor, fast with 10 bits.
struct ModeReg {
    uint16_t reg;
    uint8_t full, bin, fast;
};

// Codes of the clock-select register. The clock is the one that line lengths are counted in; a line shorter than the
// converter needs gives no picture.
struct ClockRow {
    uint8_t code;
    bool bBin;
    double dKHz;
    uint16_t minLine, minLineFast;
};

enum class Format : uint8_t { Fpga10, Jasper, LapisOld };

struct SonyTraits {
    Format format = Format::Fpga10;
    uint16_t x = 0, y = 0, w = 0, h = 0;  // window, two bytes each
    uint16_t hold = 0;                    // its page holds the standby register too
    uint16_t shutter = 0;
    int shutterBytes = 0;
    uint32_t lead = 0;                    // lines at the end of a frame that never expose
    double t0 = 0, t016 = 0, t0Fast = 0;  // us of exposure beyond whole lines: 8 bits, 16 bits, fast
    uint16_t gain = 0;
    int gainBytes = 0;
    double gainDb = 0;    // dB a step
    uint16_t gain2 = 0;   // second amplifier in the same steps
    bool bBoost = false;  // bit 4 of the clock register adds 6 dB
    uint16_t black = 0;
    uint16_t clock = 0;
    uint8_t clockMask = 0xFF;
    uint16_t clock2 = 0;  // has to repeat the clock register
    uint16_t frameReg = 0;
    int frameBytes = 0;
    uint16_t lineReg = 0;                                  // 0: the FPGA's
    uint16_t syncStop = 0, syncOut = 0;                    // master: started by 0 and 10; 0: slave of the FPGA
    bool bBridgeClock = false;                             // clocked by the bridge, request 175
    uint32_t blank = 0;                                    // lines of a frame beyond those sent
    int skipX = 0, skipXBin = 0, skipY = 0, skipYBin = 0;  // due in FPGA 2, 3 and 6, 7; another value shifts; -1: unused
    int binMargin = 0;                                     // columns that the window has to be wider when binned
    bool bCuts = false;                                    // the FPGA may be told a third of the window, see DecodeWindow
    int binShiftX = 0;
    uint16_t fpgaR = 12, fpgaB = 15;
    std::span<const Need> bins = {};  // registers and values of 2x2
    std::span<const Need> needs = {};
    std::span<const ModeReg> modes = {};
    std::span<const ClockRow> clocks = {};
};

constexpr const char* WHY_RESET = "the sensor was never taken out of reset";
constexpr const char* WHY_INPUT = "the input clock is set for another crystal";
constexpr const char* WHY_CROP = "the sensor is not in window mode";
constexpr const char* WHY_SLAVE = "the sensor drives the sync lines against the FPGA";
constexpr const char* WHY_MARGIN = "the optical-black rows are set wrong";

constexpr Need g_Bin3006[] = { { 0x3006, 0x22, 0, "" } };
constexpr Need g_BinMarble[] = { { 0x300E, 0x23, 0, "" }, { 0x3010, 1, 0, "" } };

constexpr Need g_QuartzNeeds[] = {
    { 0x3003, 1, 0, WHY_RESET },       { 0x305C, 0x20, 0x0C, WHY_INPUT }, { 0x305D, 0, 3, WHY_INPUT },
    { 0x305E, 0x20, 0x10, WHY_INPUT }, { 0x305F, 0, 1, WHY_INPUT },       { 0x303A, 8, 12, WHY_MARGIN },
    { 0x3007, 0x40, 0, WHY_CROP },     { 0x3002, 1, 0, WHY_SLAVE },       { 0x304B, 0, 10, WHY_SLAVE },
};
constexpr Need g_OnyxNeeds[] = {
    { 0x3003, 1, 0, WHY_RESET }, { 0x3036, 8, 20, WHY_MARGIN }, { 0x3007, 0x40, 0, WHY_CROP },
    { 0x3002, 1, 0, WHY_SLAVE }, { 0x3049, 0, 10, WHY_SLAVE },
};
constexpr Need g_NephriteNeeds[] = {
    { 0x3003, 1, 0, WHY_RESET },    { 0x305E, 0x20, 0x10, WHY_INPUT }, { 0x3063, 0x74, 0x54, WHY_INPUT },
    { 0x3036, 12, 20, WHY_MARGIN }, { 0x3007, 0x40, 0, WHY_CROP },     { 0x3002, 1, 0, WHY_SLAVE },
    { 0x3049, 0, 10, WHY_SLAVE },
};
constexpr Need g_JasperNeeds[] = { { 0x3003, 1, 0, WHY_RESET }, { 0x3007, 0x40, 0, WHY_CROP } };
constexpr Need g_MarbleNeeds[] = {
    { 0x3009, 1, 0, WHY_RESET }, { 0x3004, 0, 1, WHY_CROP },  { 0x31A4, 1, 0, WHY_CROP },
    { 0x31A5, 1, 0, WHY_CROP },  { 0x3008, 1, 0, WHY_SLAVE }, { 0x305E, 0, 10, WHY_SLAVE },
};
constexpr Need g_LapisNeeds[] = {
    { 0x0300, 3, 0, WHY_CROP },
    { 0x0213, 0, 1, WHY_RESET },
    { 0x0212, 1, 0, WHY_SLAVE },
    { 0x022E, 0, 10, WHY_SLAVE },
};
constexpr Need g_LapisOldNeeds[] = { { 0x0300, 3, 0, WHY_CROP }, { 0x0213, 0, 1, WHY_RESET } };

constexpr ModeReg g_QuartzModes[] = {
    { 0x3046, 0xF1, 0xF1, 0xF0 }, { 0x3005, 1, 0, 0 },          { 0x3129, 0, 0, 0x1D },
    { 0x317C, 0, 0, 0x12 },       { 0x31EC, 0x0E, 0x0E, 0x37 },
};
constexpr ModeReg g_OnyxModes[] = { { 0x3044, 0xE1, 0xE1, 0xE0 }, { 0x3005, 1, 0, 0 } };
constexpr ModeReg g_NephriteModes[] = { { 0x3044, 0x61, 0x61, 0x60 }, { 0x3005, 1, 0, 0 } };
constexpr ModeReg g_MarbleModes[] = { { 0x300D, 2, 9, 0 }, { 0x3059, 2, 2, 0 } };
constexpr ModeReg g_LapisModes[] = {
    { 0x021C, 0x11, 0x11, 0x10 }, { 0x0214, 1, 1, 0 },    { 0x02BC, 0x10, 0x10, 0x30 }, { 0x02BF, 0x20, 0x20, 0x40 },
    { 0x02C0, 2, 2, 1 },          { 0x02C6, 3, 3, 1 },    { 0x02D2, 0x0F, 0x0F, 5 },    { 0x0412, 0x20, 0x20, 0x40 },
    { 0x0413, 0x20, 0x20, 0x40 }, { 0x041A, 8, 8, 0x0F }, { 0x0568, 0x11, 0x11, 0x22 }, { 0x0575, 0x0F, 0x0F, 0x0B },
};

constexpr ClockRow g_QuartzClocks[] = {
    { 0, false, 37124, 406, 196 },
    { 1, false, 18562, 203, 98 },
    { 2, false, 9281, 203, 98 },
    { 0, true, 9281, 145, 145 },
};
constexpr ClockRow g_OnyxClocks[] = {
    { 0, false, 37124, 584, 249 },
    { 1, false, 18562, 292, 125 },
    { 2, false, 9281, 292, 125 },
    { 0, true, 9281, 145, 145 },
};
constexpr ClockRow g_NephriteClocks[] = {
    { 0, false, 18560, 276, 138 },
    { 1, false, 9280, 138, 69 },
    { 2, false, 4640, 138, 69 },
    { 0, true, 4640, 69, 69 },
};
// Lines count periods of 148.5 MHz whatever the code; the code only says how short a line may be.
constexpr ClockRow g_JasperClocks[] = {
    { 0, false, 148500, 2200, 1100 },
    { 1, false, 148500, 2200, 2200 },
    { 2, false, 148500, 4400, 4400 },
    { 0, true, 148500, 2200, 2200 },
};
constexpr ClockRow g_MarbleClocks[] = { { 0x30, false, 27000, 419, 210 }, { 0x32, true, 6750, 73, 73 } };
constexpr ClockRow g_LapisClocks[] = { { 0x20, false, 37125, 230, 181 } };
constexpr ClockRow g_LapisOldClocks[] = { { 0x20, false, 74250, 462, 360 }, { 5, false, 13920, 462, 360 } };

// clang-format off
constexpr SonyTraits g_Quartz = {
    .format = Format::Fpga10, .x = 0x3040, .y = 0x303C, .w = 0x3042, .h = 0x303E, .hold = 0x3001,
    .shutter = 0x3020, .shutterBytes = 3, .lead = 1, .gain = 0x3014, .gainBytes = 1, .gainDb = 0.3, .bBoost = true,
    .black = 0x300A, .clock = 0x3009, .clockMask = 0x0F, .bBridgeClock = true, .blank = 18,
    .skipX = 0, .skipXBin = 0, .skipY = 9, .skipYBin = 9, .fpgaR = 12, .fpgaB = 15,
    .bins = g_Bin3006, .needs = g_QuartzNeeds, .modes = g_QuartzModes, .clocks = g_QuartzClocks,
};
// clang-format on
constexpr SonyTraits MakeOnyx(bool bPyrite)
{
    SonyTraits t = g_Quartz;
    t.x = 0x303C, t.y = 0x3038, t.w = 0x303E, t.h = 0x303A;
    t.gainBytes = 2, t.gainDb = 0.1;
    // The clock register carries bit 4 on Pyrite too, but its gain register spans the whole range without it.
    t.bBoost = !bPyrite;
    t.skipX = 4, t.skipXBin = 2, t.skipYBin = 5;
    t.bCuts = !bPyrite;
    t.needs = g_OnyxNeeds, t.modes = g_OnyxModes, t.clocks = g_OnyxClocks;
    return t;
}
constexpr SonyTraits g_Onyx = MakeOnyx(false), g_Pyrite = MakeOnyx(true);
constexpr SonyTraits MakeNephrite()
{
    SonyTraits t = g_Pyrite;
    t.gainBytes = 1, t.gainDb = 0.3;
    t.blank = 21, t.binShiftX = 4;
    t.needs = g_NephriteNeeds, t.modes = g_NephriteModes, t.clocks = g_NephriteClocks;
    return t;
}
constexpr SonyTraits g_Nephrite = MakeNephrite();
constexpr SonyTraits MakeJasper()
{
    SonyTraits t = g_Pyrite;
    t.format = Format::Jasper;
    t.lead = 0, t.t0 = t.t016 = 3.85, t.t0Fast = 2.64;
    t.frameReg = 0x3018, t.frameBytes = 3, t.lineReg = 0x301B;
    t.syncStop = 0x3002, t.syncOut = 0x3049;
    t.bBridgeClock = false, t.blank = 21;
    t.skipXBin = 4, t.skipY = 13, t.skipYBin = 7, t.binMargin = 4;
    t.fpgaR = 14, t.fpgaB = 13;  // its cell begins with the row of the blue pixels
    t.needs = g_JasperNeeds, t.modes = g_NephriteModes, t.clocks = g_JasperClocks;
    return t;
}
constexpr SonyTraits g_Jasper = MakeJasper();
// clang-format off
constexpr SonyTraits g_Marble = {
    .format = Format::Fpga10, .x = 0x319C, .y = 0x31A0, .w = 0x319E, .h = 0x31A2, .hold = 0x3007,
    .shutter = 0x3034, .shutterBytes = 3, .t0 = 0.36, .t016 = 0.28, .t0Fast = 0.36,
    .gain = 0x301F, .gainBytes = 2, .gainDb = 0.1, .gain2 = 0x301B, .black = 0x3015,
    .clock = 0x3101, .clockMask = 0xFF, .bBridgeClock = true, .blank = 29,
    .skipX = 0, .skipXBin = 0, .skipY = 15, .skipYBin = 11, .fpgaR = 12, .fpgaB = 15,
    .bins = g_BinMarble, .needs = g_MarbleNeeds, .modes = g_MarbleModes, .clocks = g_MarbleClocks,
};
constexpr SonyTraits g_Lapis = {
    .format = Format::Fpga10, .x = 0x0301, .y = 0x0303, .w = 0x0305, .h = 0x0307, .hold = 0x020C,
    .shutter = 0x029A, .shutterBytes = 2, .t0 = 13.73, .t016 = 13.73, .t0Fast = 13.73,
    .gain = 0x0404, .gainBytes = 2, .gainDb = 0.1, .black = 0x0458,
    // The bridge's clock stays stopped on these boards (bring-up ends with request 174): they have their own.
    .clock = 0x0292, .clockMask = 0xFF, .clock2 = 0x0294, .blank = 38,
    .skipX = 0, .skipXBin = 0, .skipY = 11, .skipYBin = 11, .fpgaR = 12, .fpgaB = 15,
    .needs = g_LapisNeeds, .modes = g_LapisModes, .clocks = g_LapisClocks,
};
// clang-format on
constexpr SonyTraits MakeLapisOld()
{
    SonyTraits t = g_Lapis;
    t.format = Format::LapisOld;
    t.frameReg = 0x0217, t.frameBytes = 2, t.lineReg = 0x021A;
    t.syncStop = 0x0212, t.syncOut = 0x022E;
    t.skipX = t.skipY = -1;
    t.needs = g_LapisOldNeeds, t.clocks = g_LapisOldClocks;
    return t;
}
constexpr SonyTraits g_LapisOld = MakeLapisOld();

class SonyProfile final : public SensorProfile {
public:
    SonyProfile(const ModelFacts& facts, uint8_t bFirmware, const SonyTraits& t)
        : SensorProfile(facts, bFirmware,
                        { .bBytes = true,
                          .iHold = t.hold,
                          .bFpga = true,
                          .bFpgaHold = t.format == Format::Fpga10,
                          .bClockRuns = !t.bBridgeClock }),
          t(t)
    {
        PowerOn();
    }

    // Boards without the FPGA's register file know only its output stage, which cannot be read.
    uint8_t ReadFpga(uint16_t reg) override { return t.format == Format::LapisOld ? uint8_t{ 0 } : SensorProfile::ReadFpga(reg); }

private:
    void Reset() override
    {
        SetReset(t.needs);
        m_sensor.Put(t.hold & 0xFF00, 1);  // standby
        if (t.syncStop != 0)
            m_sensor.Put(t.syncStop, 1);
    }

    void Decode(Readout& r) const override
    {
        const Registers& s = m_sensor;
        const bool bSync = t.syncStop != 0 ? s[t.syncStop] == 0 && s[t.syncOut] == 10 : FpgaRuns();
        r.bStreaming = m_bUsb && s[t.hold & 0xFF00] == 0 && bSync && (m_bClock || !t.bBridgeClock);
        r.bHeld = (m_fpga[11] & 1) != 0 && t.syncStop == 0;
        Check(r, t.needs);
        const bool bFast = DecodeFormat(r);
        DecodeWindow(r);
        for (const ModeReg& mode : t.modes)
            if (s[mode.reg] != (bFast ? mode.fast : r.iBin == 2 ? mode.bin : mode.full))
                Fail(r, "converter and output format disagree on the bits");
        if (bFast && r.iBin == 2)
            Fail(r, "the fast output cannot carry binned samples");
        DecodeTiming(r, bFast);
        const uint32_t steps = s.Bytes(t.gain, t.gainBytes) + (t.gain2 != 0 ? s[t.gain2] : 0u);
        r.dGain = FromDb(steps * t.gainDb + (t.bBoost && (s[t.clock] & 0x10) != 0 ? 6 : 0));
        FpgaGains(r, t.fpgaR, t.fpgaB);
        r.dBlack = s.Bytes(t.black, 2);
    }

    // The output stage: 16 bits or 8, and whether it takes the fast path.
    bool DecodeFormat(Readout& r) const
    {
        uint16_t format = t.format == Format::Fpga10 ? m_fpga[10] : m_fpga[1];
        if (t.format == Format::Jasper && format == 5)
            format = 17;
        if (format != 0 && format != 1 && format != 17)
            Fail(r, "unknown output format");
        r.samples = format == 17 ? Samples::Bits16 : Samples::Bits8;
        if (t.format != Format::Fpga10 && m_fpga[10] != (format == 17 ? 1 : 0))
            Fail(r, "output format and word width disagree");
        return format == 0;
    }

    void DecodeWindow(Readout& r) const
    {
        size_t nSet = 0, nOff = 0;
        for (const Need& bin : t.bins) {
            nSet += m_sensor[bin.reg] == bin.value;
            nOff += m_sensor[bin.reg] == 0;
        }
        r.iBin = nSet == t.bins.size() && nSet != 0 ? 2 : 1;
        if (r.iBin == 1 && nOff != t.bins.size())
            Fail(r, "unknown binning mode");
        const bool bBin = r.iBin == 2;
        r.iX = static_cast<int>(m_sensor.Bytes(t.x, 2));
        r.iY = static_cast<int>(m_sensor.Bytes(t.y, 2));
        // Counted in pixels before binning.
        r.iW = static_cast<int>(m_sensor.Bytes(t.w, 2)) - (bBin ? t.binMargin : 0);
        r.iH = static_cast<int>(m_sensor.Bytes(t.h, 2));
        if (t.format == Format::LapisOld) {
            r.iOutW = r.iW;
            r.iOutH = r.iH;
        } else {
            FpgaSize(r);
        }
        // Onyx keeps the FPGA at a third of the window when a host asks for bins of 3 with the hardware path chosen: the
        // FPGA sends the corner of the full-resolution picture.
        const bool bCut = t.bCuts && !bBin && r.iW == 3 * r.iOutW && r.iH == 3 * r.iOutH;
        if (!bCut && (r.iW != r.iOutW * r.iBin || r.iH != r.iOutH * r.iBin))
            Fail(r, "sensor and FPGA are told different sizes");
        if (t.skipX >= 0) {
            r.iX += (static_cast<int>(m_fpga.Bytes(2, 2)) - (bBin ? t.skipXBin : t.skipX)) * r.iBin;
            r.iY += (static_cast<int>(m_fpga.Bytes(6, 2)) - (bBin ? t.skipYBin : t.skipY)) * r.iBin;
        }
        if (bBin)
            r.iShiftX[0] = r.iShiftX[1] = t.binShiftX;
    }

    void DecodeTiming(Readout& r, bool bFast) const
    {
        const Registers& s = m_sensor;
        const uint32_t line = t.lineReg != 0 ? s.Bytes(t.lineReg, 2) : FpgaLine();
        const uint32_t frame = t.frameReg != 0 ? s.Bytes(t.frameReg, t.frameBytes) : FpgaFrame();
        const double t0 = bFast ? t.t0Fast : r.samples == Samples::Bits16 ? t.t016 : t.t0;
        const ClockRow* pClock = nullptr;
        for (const ClockRow& row : t.clocks)
            if (row.code == (s[t.clock] & t.clockMask) && row.bBin == (r.iBin == 2))
                pClock = &row;
        if (pClock == nullptr)
            return Fail(r, "the clock does not fit the mode");
        if (t.clock2 != 0 && s[t.clock2] != s[t.clock])
            Fail(r, "the two clock dividers differ");
        if (line < (bFast ? pClock->minLineFast : pClock->minLine))
            Fail(r, "the line is too short for the converter");
        if (frame < static_cast<uint32_t>(r.iOutH) + t.blank)
            Fail(r, "the frame is too short for the window");
        Timing(r, pClock->dKHz, line, frame, s.Bytes(t.shutter, t.shutterBytes), t.lead, t0);
        if (m_facts.sToken.starts_with("Lapis") && s[0x022A] == 1)
            CheckPulses(r, frame);
    }

    // The shutter pulses of long frames: two pairs of first and last line.
    void CheckPulses(Readout& r, uint32_t frame) const
    {
        const uint32_t first = static_cast<uint32_t>(r.iH) + 38, last = frame - 18 > 0xFFFFF ? 0xFFFFF : frame - 18;
        const Registers& s = m_sensor;
        if (s[0x025C] != 0xFF || s.Bytes(0x0244, 3) != first || s.Bytes(0x024A, 3) != first || s.Bytes(0x0247, 3) != last ||
            s.Bytes(0x024D, 3) != last)
            Fail(r, "the shutter pulses do not fit the frame");
    }

    const SonyTraits& t;
};

}  // namespace

std::unique_ptr<Profile> MakeSony(const ModelFacts& facts, uint8_t bFirmware)
{
    const struct {
        const char* szFamily;
        const SonyTraits& t;
    } families[] = {
        { "Quartz", g_Quartz },
        { "Onyx", g_Onyx },
        { "Pyrite", g_Pyrite },
        { "Nephrite", g_Nephrite },
        { "Jasper", g_Jasper },
        { "Marble", g_Marble },
        { "Lapis", bFirmware < 18 ? g_LapisOld : g_Lapis },
    };
    for (const auto& family : families)
        if (facts.sToken.starts_with(family.szFamily))
            return std::make_unique<SonyProfile>(facts, bFirmware, family.t);
    return nullptr;
}

}  // namespace kovsim
