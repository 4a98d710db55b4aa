// Cobalt: word registers and a small controller behind a mailbox. Frames come only once the controller has accepted the
// configuration.
#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <memory>

#include "virtual/BaseProfile.h"

namespace kovsim {
namespace {

enum Reg : uint16_t {
    REG_COMMAND = 0x0040,    // bit 15 while the controller works, then the result
    REG_PARAMETER = 0xFC00,  // argument and answer in the high byte
    REG_TOP = 0x3002,
    REG_LEFT = 0x3004,
    REG_BOTTOM = 0x3006,
    REG_RIGHT = 0x3008,
    REG_FRAME = 0x300A,
    REG_LINE = 0x300C,  // in pairs of clocks
    REG_SHUTTER = 0x3012,
    REG_BLACK = 0x301E,
    REG_READ_MODE = 0x3040,
    REG_GAIN_GR = 0x3056,
    REG_GAIN_B = 0x3058,
    REG_GAIN_R = 0x305A,
    REG_GAIN_GB = 0x305C,
};

enum : uint16_t { CMD_SET_STATE = 0x8100, CMD_GET_STATE = 0x8101, CMD_SEQUENCER = 0x8606 };
enum : uint16_t { RESULT_OK = 0, RESULT_UNKNOWN = 5, RESULT_BUSY = 9, RESULT_REFUSED = 12 };
enum : uint8_t { STATE_IDLE = 0x10, STATE_CHANGE = 0x28, STATE_STREAMING = 0x31 };

constexpr int BLANK = 29;
constexpr Need g_Needs[] = { { REG_READ_MODE, 65, 0, "the read mode is not set" } };

class CobaltProfile final : public SensorProfile {
public:
    CobaltProfile(const ModelFacts& facts, uint8_t bFirmware)
        : SensorProfile(facts, bFirmware, { .bBytes = true, .bWords = true, .bClockGates = true })
    {
        PowerOn();
    }

    bool WriteReg16(uint16_t reg, uint16_t value) override
    {
        if (reg != REG_COMMAND)
            return SensorProfile::WriteReg16(reg, value);
        if (m_bClock)
            Issue(value);
        return true;
    }

    uint16_t ReadReg16(uint16_t reg) override
    {
        if (reg != REG_COMMAND)
            return SensorProfile::ReadReg16(reg);
        if (!m_bClock)
            return m_wCommand;  // it cannot work
        if (m_iWorking > 0) {
            --m_iWorking;
            return m_wCommand;
        }
        return m_wResult;
    }

private:
    void Reset() override
    {
        SetReset(g_Needs);
        Set({ { REG_BOTTOM, 511 }, { REG_RIGHT, 727 }, { REG_FRAME, 541 }, { REG_LINE, 469 }, { REG_SHUTTER, 100 } });
        for (Reg reg : { REG_GAIN_GR, REG_GAIN_B, REG_GAIN_R, REG_GAIN_GB })
            m_sensor.Put(reg, 0x101F);
        m_bState = STATE_IDLE;
        m_wCommand = 0x8000;
        m_wResult = RESULT_OK;
        m_iWorking = m_iChanging = 0;
    }

    void Issue(uint16_t command)
    {
        m_wCommand = command | 0x8000;
        m_iWorking = 2;  // polls that find it busy
        m_wResult = RESULT_OK;
        switch (command) {
        case CMD_SET_STATE:
            if (m_sensor[REG_PARAMETER] >> 8 != STATE_CHANGE) {
                m_wResult = RESULT_REFUSED;
            } else {
                m_bState = STATE_CHANGE;
                m_iChanging = 2;
            }
            break;
        case CMD_GET_STATE:
            if (m_iChanging > 0) {
                if (--m_iChanging == 0)
                    m_bState = STATE_STREAMING;
                m_wResult = RESULT_BUSY;
            } else {
                m_sensor.Put(REG_PARAMETER, static_cast<uint16_t>(m_bState << 8));
            }
            break;
        case CMD_SEQUENCER: break;
        default: m_wResult = RESULT_UNKNOWN; break;
        }
    }

    // Bits 0 to 5 in units of 1 / 31.5, bits 6 and 7 double up to three times, bits 12 to 15 are one of 1, 2, 4, 8.
    static double Gain(uint16_t word) { return (word & 0x3F) / 31.5 * (1 << (word >> 6 & 3)) * (word >> 12); }

    void Decode(Readout& r) const override
    {
        const Registers& s = m_sensor;
        r.bStreaming = m_bUsb && m_bState == STATE_STREAMING;
        Check(r, g_Needs);
        r.iX = s[REG_LEFT];
        r.iY = s[REG_TOP];
        r.iW = r.iOutW = s[REG_RIGHT] - r.iX + 1;
        r.iH = r.iOutH = s[REG_BOTTOM] - r.iY + 1;
        r.samples = m_b16 ? Samples::Bits12Wire : Samples::Bits8;
        const int line = s[REG_LINE] * 2;
        // Half a line length loses its odd clock.
        if (line + 1 < r.iW + 210)
            Fail(r, "the line is too short for the window");
        if (s[REG_FRAME] < r.iH + BLANK)
            Fail(r, "the frame is too short for the window");
        if (s[REG_SHUTTER] == 0)
            Fail(r, "no exposure is set");
        r.dFrameUs = 1.0 * std::max<int>(s[REG_FRAME], s[REG_SHUTTER] + 1) * line / m_iMHz;
        r.dExposureUs = (1.0 * s[REG_SHUTTER] * line + 29) / m_iMHz;
        r.dGain = (Gain(s[REG_GAIN_GR]) + Gain(s[REG_GAIN_GB])) / 2;
        if (r.dGain > 0) {
            r.dGainR = Gain(s[REG_GAIN_R]) / r.dGain;
            r.dGainB = Gain(s[REG_GAIN_B]) / r.dGain;
        }
        r.dBlack = s[REG_BLACK];
    }

    uint8_t m_bState = STATE_IDLE;
    uint16_t m_wCommand = 0x8000, m_wResult = RESULT_OK;
    int m_iWorking = 0, m_iChanging = 0;
};

}  // namespace

std::unique_ptr<Profile> MakeCobalt(const ModelFacts& facts, uint8_t bFirmware)
{
    return std::make_unique<CobaltProfile>(facts, bFirmware);
}

}  // namespace kovsim
