#include "virtual/BaseProfile.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace kovsim {

void Registers::Put(uint16_t reg, uint16_t value, When when)
{
    Cell& cell = m_cells[reg];
    cell.written = value;
    cell.bHeld = when == When::OnRelease;
    if (when == When::Now)
        cell.live = value;
}

void Registers::Release()
{
    for (auto& [reg, cell] : m_cells) {
        if (cell.bHeld)
            cell.live = cell.written;
        cell.bHeld = false;
    }
}

void Registers::Lose(uint16_t reg)
{
    Cell& cell = m_cells[reg];
    cell.live = 0;
    cell.bHeld = false;
}

uint16_t Registers::Written(uint16_t reg) const
{
    const auto it = m_cells.find(reg);
    return it == m_cells.end() ? uint16_t{ 0 } : it->second.written;
}

uint16_t Registers::operator[](uint16_t reg) const
{
    const auto it = m_cells.find(reg);
    return it == m_cells.end() ? uint16_t{ 0 } : it->second.live;
}

uint32_t Registers::Bytes(uint16_t reg, int count) const
{
    uint32_t value = 0;
    for (int i = count - 1; i >= 0; --i)
        value = value << 8 | ((*this)[static_cast<uint16_t>(reg + i)] & 0xFFu);
    return value;
}

double FromDb(double dB) { return std::pow(10.0, dB / 20); }

SensorProfile::SensorProfile(const ModelFacts& facts, uint8_t bFirmware, const Wiring& wiring)
    : m_bFirmware(bFirmware), m_wiring(wiring)
{
    m_facts = facts;
}

void SensorProfile::PowerOn()
{
    m_sensor.Clear();
    m_fpga.Clear();
    m_bUsb = m_b16 = false;
    m_bClock = m_wiring.bClockRuns;
    m_iMHz = m_wiring.iMHz;
    // One whole frame of 8 bits.
    m_uTransferUnits = (static_cast<uint32_t>(m_facts.iWidth * m_facts.iHeight) + 49151) / 49152;
    Reset();
}

bool SensorProfile::Write(uint16_t reg, uint16_t value)
{
    using When = Registers::When;
    if (m_wiring.bClockGates && !m_bClock) {
        m_sensor.Put(reg, value, When::Never);
        return true;
    }
    const bool bHold = m_wiring.iHold >= 0 && m_sensor[static_cast<uint16_t>(m_wiring.iHold)] == 1;
    // The hold register itself and the standby register in front of it (0x3000, 0x0200) act at once.
    const bool bAtOnce = reg == m_wiring.iHold || reg == (m_wiring.iHold & 0xFF00);
    m_sensor.Put(reg, value, bHold && !bAtOnce ? When::OnRelease : When::Now);
    if (reg == m_wiring.iHold && value == 0)
        m_sensor.Release();
    Wrote(reg);
    return true;
}

bool SensorProfile::WriteReg16(uint16_t reg, uint16_t value) { return m_wiring.bWords && Write(reg, value); }
bool SensorProfile::WriteReg8(uint16_t reg, uint8_t value) { return m_wiring.bBytes && Write(reg, value); }

void SensorProfile::WriteFpga(uint16_t reg, uint16_t value)
{
    if (!m_wiring.bFpga)
        return;
    // Run state, hold and long-exposure gate are never held.
    const bool bHeld = m_wiring.bFpgaHold && m_fpga[1] == 1 && reg != 0 && reg != 1 && reg != 11;
    m_fpga.Put(reg, value & 0xFF, bHeld ? Registers::When::OnRelease : Registers::When::Now);
    if (m_wiring.bFpgaHold && reg == 1 && m_fpga[1] == 0)
        m_fpga.Release();
}

uint8_t SensorProfile::ReadFpga(uint16_t reg)
{
    if (!m_wiring.bFpga)
        return 0;
    switch (reg) {
    case 29: return 2;  // version: major, then four digits
    case 30: return 0x17;
    case 31: return 0x04;
    default: return static_cast<uint8_t>(m_fpga.Written(reg));
    }
}

void SensorProfile::Command(uint8_t request)
{
    switch (request) {
    case 163: m_iMHz = 24; break;
    case 164: m_iMHz = 48; break;
    case 169: m_bUsb = true; break;
    case 170: m_bUsb = false; break;
    case 171: m_b16 = false; break;
    case 172: m_b16 = true; break;
    case 174: m_bClock = false; break;
    case 175: m_bClock = true; break;
    default: break;
    }
}

Readout SensorProfile::Current() const
{
    Readout r;
    Decode(r);
    if (m_wiring.bClockGates) {
        r.bHeld = !m_bClock;
        r.dAfterHoldUs = r.dExposureUs;  // the lines of the shutter count only while the clock runs
    }
    const int W = m_facts.iWidth, H = m_facts.iHeight;
    if (r.iX < 0 || r.iY < 0 || r.iW <= 0 || r.iH <= 0 || r.iX + r.iW > W || r.iY + r.iH > H)
        Fail(r, "the window reaches beyond the sensor");
    if (r.iOutW <= 0 || r.iOutH <= 0 || r.iOutW > W || r.iOutH > H)
        Fail(r, "the size sent is not one of this sensor");
    if (!r.bValid) {
        // The numbers of a contradiction may be anything; whoever makes the noise still needs usable ones.
        r.iX = std::clamp(r.iX, 0, W - 1);
        r.iY = std::clamp(r.iY, 0, H - 1);
        r.iW = std::clamp(r.iW, 1, W - r.iX);
        r.iH = std::clamp(r.iH, 1, H - r.iY);
        r.iOutW = std::clamp(r.iOutW, 1, W);
        r.iOutH = std::clamp(r.iOutH, 1, H);
        r.dFrameUs = std::max(r.dFrameUs, 5000.0);
    }
    return r;
}

void SensorProfile::Fail(Readout& r, const char* szWhy)
{
    if (r.bValid)
        r.sWhy = szWhy;
    r.bValid = false;
}

void SensorProfile::Set(std::initializer_list<std::pair<uint16_t, uint16_t>> values)
{
    for (const auto& [reg, value] : values)
        m_sensor.Put(reg, value);
}

void SensorProfile::SetReset(std::span<const Need> needs)
{
    for (const Need& need : needs)
        m_sensor.Put(need.reg, need.reset);
}

void SensorProfile::Check(Readout& r, std::span<const Need> needs) const
{
    for (const Need& need : needs)
        if (m_sensor[need.reg] != need.value)
            Fail(r, need.szWhy);
}

void SensorProfile::FpgaSize(Readout& r) const
{
    r.iOutW = static_cast<int>(m_fpga.Bytes(4, 2));
    r.iOutH = static_cast<int>(m_fpga.Bytes(8, 2));
}

void SensorProfile::FpgaGains(Readout& r, uint16_t regR, uint16_t regB) const
{
    double green = 0;
    for (uint16_t reg = 12; reg <= 15; ++reg)
        if (reg != regR && reg != regB)
            green += m_fpga[reg] / 256.0;
    r.dGain *= green;
    if (green > 0) {
        r.dGainR = m_fpga[regR] / 128.0 / green;
        r.dGainB = m_fpga[regB] / 128.0 / green;
    }
}

void SensorProfile::Timing(Readout& r, double dKHz, uint32_t line, uint32_t frame, uint32_t shutter, uint32_t lead,
                           double t0) const
{
    const double lineUs = line * 1000.0 / dKHz;
    r.dFrameUs = lineUs * frame;
    r.dReadoutUs = std::min(r.dFrameUs, lineUs * r.iH);
    if (frame <= shutter + lead)
        Fail(r, "the shutter opens after the end of the frame");
    else
        r.dExposureUs = lineUs * (frame - shutter - lead) + t0;
}

}  // namespace kovsim
