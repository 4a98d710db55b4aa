// Garnet: word registers from 0x3000, rolling shutter counted in lines, clock from the sensor's own PLL. The USB 2 boards
// feed it from the bridge, the USB 3 boards (_S) from a crystal of 24 MHz.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <memory>

#include "virtual/BaseProfile.h"

namespace kovsim {
namespace {

enum Reg : uint16_t {
    REG_TOP = 0x3002,
    REG_LEFT = 0x3004,
    REG_BOTTOM = 0x3006,
    REG_RIGHT = 0x3008,  // first and last, inclusive
    REG_FRAME = 0x300A,
    REG_LINE = 0x300C,
    REG_SHUTTER = 0x3012,
    REG_RUN = 0x301A,  // bit 2 sends frames
    REG_BLACK = 0x301E,
    REG_PLL_PIX = 0x302A,
    REG_PLL_SYS = 0x302C,
    REG_PLL_PRE = 0x302E,
    REG_PLL_MUL = 0x3030,
    REG_GAIN_GR = 0x3056,
    REG_GAIN_B = 0x3058,
    REG_GAIN_R = 0x305A,
    REG_GAIN_GB = 0x305C,    // 32 is unity
    REG_GAIN_ALL = 0x305E,   // sets the four
    REG_SEQUENCER = 0x3088,  // where the sequencer program goes
    REG_COLUMN = 0x30B0,     // bits 4, 5 column gain 1 to 8, bit 14 PLL bypassed
    REG_TEMP = 0x30B2,
    REG_TEMP70 = 0x30C6,
    REG_TEMP55 = 0x30C8,
};

constexpr int FIRST_ROW = 2, BLANK = 26;
constexpr uint32_t LINE_MIN = 1390;
constexpr int COUNTS55 = 447, COUNTS70 = 467;  // counts of the thermometer at 55 and 70 degrees

class GarnetProfile final : public SensorProfile {
public:
    GarnetProfile(const ModelFacts& facts, uint8_t bFirmware)
        : SensorProfile(facts, bFirmware, { .bWords = true, .bClockGates = true })
    {
        PowerOn();
    }

    void SetTemperature(double celsius) override
    {
        m_dTemperature = celsius;
        const double counts = COUNTS55 + (celsius - 55) * (COUNTS70 - COUNTS55) / 15;
        m_sensor.Put(REG_TEMP, static_cast<uint16_t>(std::clamp(std::lround(counts), 1L, 1023L)));
    }

    // The thermometer stands still with the clock.
    uint16_t ReadReg16(uint16_t reg) override
    {
        return reg == REG_TEMP && !m_bClock ? uint16_t{ 0 } : SensorProfile::ReadReg16(reg);
    }

private:
    void Reset() override
    {
        Set({ { REG_TOP, FIRST_ROW },
              { REG_BOTTOM, 961 },
              { REG_RIGHT, 1279 },
              { REG_FRAME, 990 },
              { REG_LINE, 1650 },
              { REG_SHUTTER, 100 },
              { REG_COLUMN, 0x1300 },
              { REG_TEMP70, COUNTS70 },
              { REG_TEMP55, COUNTS55 },
              { REG_GAIN_GR, 32 },
              { REG_GAIN_B, 32 },
              { REG_GAIN_R, 32 },
              { REG_GAIN_GB, 32 },
              { REG_GAIN_ALL, 32 } });
        SetTemperature(m_dTemperature);
    }

    void Wrote(uint16_t reg) override
    {
        if (reg != REG_GAIN_ALL)
            return;
        for (Reg each : { REG_GAIN_GR, REG_GAIN_B, REG_GAIN_R, REG_GAIN_GB })
            m_sensor.Put(each, m_sensor[REG_GAIN_ALL]);
    }

    double MHz() const
    {
        const Registers& s = m_sensor;
        const double input = m_facts.bUSB3 ? 24 : m_iMHz;
        if ((s[REG_COLUMN] & 0x4000) != 0)
            return input;
        const double divider = 1.0 * s[REG_PLL_PRE] * s[REG_PLL_SYS] * s[REG_PLL_PIX];
        return divider > 0 ? input * s[REG_PLL_MUL] / divider : 0;
    }

    void Decode(Readout& r) const override
    {
        const Registers& s = m_sensor;
        r.bStreaming = m_bUsb && (s[REG_RUN] & 4) != 0;
        if (s[REG_SEQUENCER] == 0)
            Fail(r, "no sequencer program was loaded");
        r.iX = s[REG_LEFT];
        r.iY = s[REG_TOP] - FIRST_ROW;
        r.iW = r.iOutW = s[REG_RIGHT] - r.iX + 1;
        r.iH = r.iOutH = s[REG_BOTTOM] - s[REG_TOP] + 1;
        r.samples = m_b16 ? Samples::Bits12Wire : Samples::Bits8;
        if (m_facts.bUSB3) {
            // The USB 3 bridge ends a frame at the count it was told, in units of 49152 bytes.
            const auto bytes =
                static_cast<uint32_t>(std::max(r.iOutW, 0)) * static_cast<uint32_t>(std::max(r.iOutH, 0)) * (m_b16 ? 2 : 1);
            if (m_uTransferUnits != (bytes + 49151) / 49152)
                Fail(r, "the transfer count does not fit the frame");
        }
        const double mhz = MHz();
        const uint32_t line = s[REG_LINE], shutter = s[REG_SHUTTER];
        if (mhz <= 0)
            return Fail(r, "the PLL is not set");
        if (line < LINE_MIN)
            Fail(r, "the line is too short");
        if (s[REG_FRAME] < r.iH + BLANK)
            Fail(r, "the frame is too short for the window");
        if (shutter == 0)
            Fail(r, "no exposure is set");
        // A shutter beyond the frame stretches it.
        r.dFrameUs = std::max<uint32_t>(s[REG_FRAME], shutter + 1) * (line / mhz);
        r.dExposureUs = (1.0 * shutter * line + 26) / mhz;
        const double green = (s[REG_GAIN_GR] + s[REG_GAIN_GB]) / 64.0;
        r.dGain = green * (1 << (s[REG_COLUMN] >> 4 & 3));
        if (green > 0) {
            r.dGainR = s[REG_GAIN_R] / 32.0 / green;
            r.dGainB = s[REG_GAIN_B] / 32.0 / green;
        }
        r.dBlack = s[REG_BLACK];
    }

    double m_dTemperature = 20;
};

}  // namespace

std::unique_ptr<Profile> MakeGarnet(const ModelFacts& facts, uint8_t bFirmware)
{
    return std::make_unique<GarnetProfile>(facts, bFirmware);
}

}  // namespace kovsim
