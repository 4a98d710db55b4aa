// Beryl: a PYTHON sensor. The FPGA bins and times; lines have a fixed length, frames grow with the exposure.
#include <algorithm>
#include <cstdint>
#include <memory>

#include "virtual/BaseProfile.h"

namespace kovsim {
namespace {

enum Reg : uint16_t {
    REG_BLACK = 0x0080,
    REG_EXPOSURE = 0x00C9,  // units of 1000 / 72 us
    REG_ANALOG = 0x00CC,
    REG_DIGITAL = 0x00CD,  // 128 is unity
    REG_ROI_X = 0x0100,    // bits 0 to 6 first column / 8, from bit 7 on end / 4 with 16 columns beyond the picture
    REG_ROI_Y0 = 0x0101,
    REG_ROI_Y1 = 0x0102,  // end; in the high byte when binned, where only its low 8 bits fit
};

constexpr double LINE_US = 1100 / 72.0;
constexpr int BLANK = 18;

class BerylProfile final : public SensorProfile {
public:
    BerylProfile(const ModelFacts& facts, uint8_t bFirmware)
        : SensorProfile(facts, bFirmware, { .bWords = true, .bFpga = true, .bFpgaHold = true })
    {
        PowerOn();
    }

private:
    void Reset() override { Set({ { REG_ANALOG, 483 }, { REG_DIGITAL, 128 } }); }

    void Decode(Readout& r) const override
    {
        const Registers& s = m_sensor;
        r.bStreaming = m_bUsb && (m_fpga[0] & 0x11) == 0x01;
        FpgaSize(r);
        const int skipX = static_cast<int>(m_fpga.Bytes(2, 2)), skipY = static_cast<int>(m_fpga.Bytes(6, 2));
        if (skipY != 0 && skipY != 5)
            Fail(r, "the vertical constant belongs to another mode");
        r.iBin = skipY == 5 ? 2 : 1;
        r.iX = (s[REG_ROI_X] & 0x7F) * 8;
        r.iW = (s[REG_ROI_X] >> 7) * 4 - 16 - r.iX;
        r.iY = s[REG_ROI_Y0];
        // Binned, the end comes in the high byte, too large for the sensor or cut to nothing: read to the last row. The
        // FPGA takes the rows that it was told.
        const int end = r.iBin == 2 && (s[REG_ROI_Y1] & 0xFF) == 0 ? m_facts.iHeight : s[REG_ROI_Y1];
        r.iH = r.iOutH * r.iBin;
        if (r.iW != r.iOutW * r.iBin)
            Fail(r, "sensor and FPGA are told different widths");
        if (r.iBin == 1 ? end - r.iY != r.iH : end - r.iY < r.iH)
            Fail(r, "sensor and FPGA are told different heights");
        r.iX += (skipX - (r.iBin == 2 ? 2 : 0)) * r.iBin;

        if (m_fpga[10] != 0 && m_fpga[10] != 1 && m_fpga[10] != 17)
            Fail(r, "unknown output format");
        r.samples = m_fpga[10] == 17 ? Samples::Bits16 : Samples::Bits8;

        r.dExposureUs = s[REG_EXPOSURE] * 1000.0 / 72;
        r.dFrameUs = std::max((r.iH + BLANK) * LINE_US, r.dExposureUs + LINE_US);
        r.dReadoutUs = (r.iH + BLANK) * LINE_US;
        // Column amplifier words; each is taken to double the one before it.
        switch (s[REG_ANALOG]) {
        case 483: r.dGain = 1; break;
        case 35: r.dGain = 2; break;
        case 33: r.dGain = 4; break;
        case 65: r.dGain = 8; break;
        default: Fail(r, "unknown amplifier word"); break;
        }
        r.dGain *= s[REG_DIGITAL] / 128.0;
        FpgaGains(r, 12, 15);
        r.dBlack = s[REG_BLACK];
    }
};

}  // namespace

std::unique_ptr<Profile> MakeBeryl(const ModelFacts& facts, uint8_t bFirmware)
{
    return std::make_unique<BerylProfile>(facts, bFirmware);
}

}  // namespace kovsim
