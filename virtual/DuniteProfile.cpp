// Agate and Dunite (one sensor, Agate's window stops at 640 columns) and Iolite: word registers below 0x100 on the clock of
// the USB 2 bridge.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

#include "virtual/BaseProfile.h"

namespace kovsim {
namespace {

constexpr const char* WHY_AUTO = "the sensor's own exposure control is on";
constexpr const char* WHY_TILES = "the gain tiles do not cover the sensor";
constexpr const char* WHY_FLIP = "the columns come in the wrong order";
constexpr const char* WHY_ANALOG = "the analog stages are not set up";

// 0x000D bit 5 reads the columns backwards: these boards carry the sensor mirrored.
constexpr Need g_DuniteNeeds[] = {
    { 0x00AF, 0, 3, WHY_AUTO },   { 0x009A, 752, 0, WHY_TILES },    { 0x00A0, 480, 0, WHY_TILES },
    { 0x002C, 0, 4, WHY_ANALOG }, { 0x000D, 800, 0x300, WHY_FLIP },
};
constexpr Need g_AgateNeeds[] = { { 0x0070, 0, 20, WHY_ANALOG } };
constexpr Need g_IoliteNeeds[] = {
    { 0x0029, 0, 0x61, WHY_ANALOG }, { 0x003F, 3, 0, WHY_ANALOG },  { 0x0040, 6, 0, WHY_ANALOG },
    { 0x004A, 96, 0, WHY_ANALOG },   { 0x004E, 12, 0, WHY_ANALOG },
};

class DuniteProfile final : public SensorProfile {
public:
    // Dunite's bridge starts with its 30 MHz interface clock.
    DuniteProfile(const ModelFacts& facts, uint8_t bFirmware)
        : SensorProfile(facts, bFirmware,
                        { .bWords = true, .bClockGates = true, .iMHz = facts.sToken.starts_with("Agate") ? 24 : 30 }),
          m_bAgate(facts.sToken.starts_with("Agate"))
    {
        PowerOn();
    }

private:
    void Reset() override
    {
        SetReset(g_DuniteNeeds);
        if (m_bAgate)
            SetReset(g_AgateNeeds);
        const auto w = static_cast<uint16_t>(m_facts.iWidth);
        Set({ { 0x0001, 1 },
              { 0x0002, 4 },
              { 0x0003, 480 },
              { 0x0004, w },
              { 0x0005, 94 },
              { 0x0006, 45 },
              { 0x000B, 480 },
              { 0x0035, 16 },
              { 0x0080, 0x4F4 } });
    }

    void Decode(Readout& r) const override
    {
        const Registers& s = m_sensor;
        r.bStreaming = m_bUsb;
        Check(r, g_DuniteNeeds);
        if (m_bAgate)
            Check(r, g_AgateNeeds);
        r.iW = r.iOutW = s[0x0004];
        r.iH = r.iOutH = s[0x0003];
        r.iX = m_facts.iWidth + 1 - s[0x0001] - r.iW;  // counted from the right
        r.iY = s[0x0002] - 4;
        r.samples = m_b16 ? Samples::Bits12Wire : Samples::Bits8;
        const int blank = s[0x0005], lines = s[0x000B];
        if (blank < (m_bAgate ? 94 : 61) || blank + r.iW < 660)
            Fail(r, "the line is too short for the window");
        if (lines == 0)
            Fail(r, "no exposure is set");
        const double lineUs = 1.0 * (r.iW + blank) / m_iMHz;
        r.dFrameUs = std::max(r.iH + s[0x0006], lines + 1) * lineUs;
        r.dExposureUs = lines * lineUs + 4.0 / m_iMHz;
        // Analog in sixteenths; the low four bits of the tile gains in quarters.
        r.dGain = (s[0x0035] & 0x7F) / 16.0 * ((s[0x0080] & 0x0F) / 4.0);
        r.dBlack = 4;
    }

    const bool m_bAgate;
};

class IoliteProfile final : public SensorProfile {
public:
    IoliteProfile(const ModelFacts& facts, uint8_t bFirmware)
        : SensorProfile(facts, bFirmware, { .bWords = true, .bClockGates = true, .iMHz = 48 })
    {
        PowerOn();
    }

    void Command(uint8_t request) override
    {
        if (request == 172 && m_bFirmware < 2)
            return;  // unknown to those
        SensorProfile::Command(request);
    }

private:
    static constexpr uint16_t CALIBRATE = 5272, MANUAL = 1177;
    static constexpr uint16_t g_Offsets[] = { 0x0060, 0x0061, 0x0063, 0x0064 };  // sign in bit 8
    static constexpr int NATURAL_BLACK = 8, BLACK_TARGET = 24;

    void Reset() override
    {
        SetReset(g_IoliteNeeds);
        Set({ { 0x0001, 12 },
              { 0x0002, 20 },
              { 0x0003, 1023 },
              { 0x0004, 1279 },
              { 0x0009, 1049 },
              { 0x001E, 0x8000 },
              { 0x0035, 8 },
              { 0x0062, MANUAL } });
    }

    // The automatic calibration leaves its result in the offset registers.
    void Wrote(uint16_t reg) override
    {
        if (reg == 0x0062 && m_sensor[reg] == CALIBRATE)
            for (uint16_t offset : g_Offsets)
                m_sensor.Put(offset, BLACK_TARGET - NATURAL_BLACK);
    }

    // To 0x20 eighths; bit 6 doubles; from 0x61 on 9, 10 and so on; bits 8 up are a digital factor less one.
    static double Gain(uint16_t word)
    {
        const int low = word & 0x7F;
        const double analog = low <= 0x20 ? low / 8.0 : low <= 0x60 ? (low & 0x3F) / 4.0 : low - 0x58;
        return analog * (1 + (word >> 8));
    }

    void Decode(Readout& r) const override
    {
        const Registers& s = m_sensor;
        // Bit 8 of 0x001E waits for a restart (0x000B) before each frame. The host stops the clock inside that frame, so that
        // what comes after the clock's return is the frame it asked for either way.
        r.bStreaming = m_bUsb;
        Check(r, g_IoliteNeeds);
        r.iX = s[0x0002] - 20;
        r.iY = s[0x0001] - 12;
        r.iW = r.iOutW = s[0x0004] + 1;
        r.iH = r.iOutH = s[0x0003] + 1;
        r.samples = m_b16 ? Samples::Bits12Wire : Samples::Bits8;
        if (m_b16 && m_iMHz != 24)
            Fail(r, "two bytes a pixel are too many at 48 MHz");
        const int lines = s[0x0009];
        if (lines == 0)
            Fail(r, "no exposure is set");
        const double line = r.iW + 244;
        r.dFrameUs = std::max(r.iH + 26, lines + 1) * line / m_iMHz;
        r.dExposureUs = (lines * line - 180) / m_iMHz;
        r.dGain = Gain(s[0x0035]);
        r.dBlack = NATURAL_BLACK;
        for (uint16_t reg : g_Offsets) {
            const int size = s[reg] & 0xFF;
            r.dBlack += ((s[reg] & 0x100) != 0 ? -size : size) / 4.0;
        }
    }
};

}  // namespace

std::unique_ptr<Profile> MakeDunite(const ModelFacts& facts, uint8_t bFirmware)
{
    return std::make_unique<DuniteProfile>(facts, bFirmware);
}

std::unique_ptr<Profile> MakeIolite(const ModelFacts& facts, uint8_t bFirmware)
{
    return std::make_unique<IoliteProfile>(facts, bFirmware);
}

}  // namespace kovsim
