#include "virtual/Memory.h"

#include <algorithm>
#include <cstdio>

namespace kovsim {

SpiFlash::SpiFlash(std::string sFile) : m_sFile(std::move(sFile)), m_bytes(SIZE, 0xFF)
{
    if (m_sFile.empty())
        return;
    if (std::FILE* f = std::fopen(m_sFile.c_str(), "rb")) {
        const size_t got = std::fread(m_bytes.data(), 1, SIZE, f);
        (void)got;  // a shorter file leaves the rest erased
        std::fclose(f);
    } else {
        Save(0, SIZE);
    }
}

void SpiFlash::Save(uint32_t address, uint32_t length)
{
    if (m_sFile.empty())
        return;
    std::FILE* f = std::fopen(m_sFile.c_str(), "r+b");
    if (!f) {
        f = std::fopen(m_sFile.c_str(), "wb");
        address = 0;
        length = SIZE;
    }
    if (!f)
        return;
    if (std::fseek(f, long(address), SEEK_SET) == 0)
        std::fwrite(&m_bytes[address], 1, length, f);
    std::fclose(f);
}

bool SpiFlash::Read(uint32_t address, uint32_t length, double now, std::vector<uint8_t>* out) const
{
    if (Busy(now) || address > SIZE || length > SIZE - address)
        return false;
    out->assign(m_bytes.begin() + address, m_bytes.begin() + address + length);
    return true;
}

bool SpiFlash::Write(uint32_t address, const std::vector<uint8_t>& bytes, double now)
{
    if (Busy(now) || address > SIZE || bytes.size() > SIZE - address)
        return false;
    for (size_t i = 0; i < bytes.size(); ++i)
        m_bytes[address + i] &= bytes[i];
    if (!bytes.empty())
        Save(address, uint32_t(bytes.size()));
    return true;
}

bool SpiFlash::Erase(uint32_t sector, double now)
{
    if (Busy(now) || sector >= SIZE / SECTOR)
        return false;
    std::fill_n(m_bytes.begin() + ptrdiff_t{ sector } * SECTOR, SECTOR, uint8_t(0xFF));
    Save(sector * SECTOR, SECTOR);
    m_dBusyUntil = now + ERASE_US;
    return true;
}

std::vector<uint8_t> SpiFlash::Peek(uint32_t address, uint32_t length) const
{
    address = std::min(address, SIZE);
    length = std::min(length, SIZE - address);
    return { m_bytes.begin() + address, m_bytes.begin() + address + length };
}

void SpiFlash::Poke(uint32_t address, const std::vector<uint8_t>& bytes)
{
    if (address >= SIZE || bytes.empty())
        return;
    const size_t n = std::min<size_t>(bytes.size(), SIZE - address);
    std::copy_n(bytes.begin(), n, m_bytes.begin() + address);
    Save(address, uint32_t(n));
}

bool BridgeMemory::LoadFx2(uint16_t address, const std::vector<uint8_t>& bytes, std::optional<uint8_t>* pVersion)
{
    if (address == RESET_REGISTER && bytes.size() == 1) {
        if (bytes[0] & 1) {
            m_cpu = Cpu::Reset;
            m_loads.clear();
            return false;
        }
        if (m_cpu != Cpu::Reset)
            return false;
        // The loader is known by its two pieces; what it consists of is the host's affair.
        const std::vector<std::pair<uint16_t, size_t>> loader = { { uint16_t(0), 2048 }, { uint16_t(0x0800), 1427 } };
        if (m_loads == loader) {
            m_cpu = Cpu::Loader;
            return false;
        }
        m_cpu = Cpu::Firmware;
        if (m_loads.empty())
            return false;  // the old program starts again
        *pVersion = VersionIn(Read(0, 0x10000));
        return true;
    }
    m_loads.emplace_back(address, bytes.size());
    for (size_t i = 0; i < bytes.size(); ++i)
        m_ram[uint16_t(address + i)] = bytes[i];
    return false;
}

void BridgeMemory::LoadFx3(uint32_t address, const std::vector<uint8_t>& bytes)
{
    for (size_t i = 0; i < bytes.size(); ++i)
        m_ram[address + uint32_t(i)] = bytes[i];
}

std::vector<uint8_t> BridgeMemory::Read(uint32_t address, uint32_t length) const
{
    std::vector<uint8_t> out(length, 0);
    for (auto it = m_ram.lower_bound(address); it != m_ram.end() && it->first - address < length; ++it)
        out[it->first - address] = it->second;
    return out;
}

std::optional<uint8_t> VersionIn(const std::vector<uint8_t>& bytes)
{
    static constexpr char MARK[] = "KOVFW";
    const auto it = std::search(bytes.begin(), bytes.end(), MARK, MARK + 5);
    if (it == bytes.end() || bytes.end() - it <= 5)
        return std::nullopt;
    return it[5];
}

bool IsC2Image(const std::vector<uint8_t>& bytes)
{
    if (bytes.size() < 8 || bytes[0] != 0xC2)
        return false;
    for (size_t at = 8; at + 4 <= bytes.size();) {
        const size_t length = size_t(bytes[at]) << 8 | bytes[at + 1];
        const size_t address = size_t(bytes[at + 2]) << 8 | bytes[at + 3];
        // The end record starts the processor.
        if (length == 0x8001 && address == 0xE600)
            return at > 8 && at + 5 <= bytes.size() && (bytes[at + 4] & 1) == 0;
        if (length == 0 || length > 0x7FFF)
            return false;
        at += 4 + length;
    }
    return false;
}

}  // namespace kovsim
