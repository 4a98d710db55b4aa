// Memories behind the bridge: SPI flash, I2C EEPROM, and the program memory with what runs in it.
#pragma once
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kovsim {

// NOR flash: a write clears bits and never sets one, an erase sets a sector's and takes time.
class SpiFlash {
public:
    static constexpr uint32_t SIZE = 4u << 20, SECTOR = 0x10000, PAGE = 256;
    static constexpr double ERASE_US = 50000;

    // A file keeps the contents; one that cannot be read or written means memory only.
    explicit SpiFlash(std::string sFile);
    // False: busy or beyond the end.
    bool Read(uint32_t address, uint32_t length, double now, std::vector<uint8_t>* out) const;
    bool Write(uint32_t address, const std::vector<uint8_t>& bytes, double now);
    bool Erase(uint32_t sector, double now);
    bool Busy(double now) const { return now < m_dBusyUntil; }
    // Behind the chip's back.
    std::vector<uint8_t> Peek(uint32_t address, uint32_t length) const;
    void Poke(uint32_t address, const std::vector<uint8_t>& bytes);

private:
    void Save(uint32_t address, uint32_t length);
    std::string m_sFile;
    std::vector<uint8_t> m_bytes;
    double m_dBusyUntil = 0;
};

// What the bridge's processor is doing.
enum class Cpu : uint8_t {
    Firmware,    // all vendor requests
    Reset,       // held by the reset register: memory loads only
    Loader,      // USB 2: the EEPROM loader: memory loads, and 169 with data
    BootLoader,  // no firmware found: memory loads only
};

// Program memory of the bridge. On USB 2 the 8051's 64 KiB with the reset register, on USB 3 a sparse 32-bit space.
class BridgeMemory {
public:
    static constexpr uint16_t RESET_REGISTER = 0xE600;

    Cpu State() const { return m_cpu; }
    void SetState(Cpu cpu) { m_cpu = cpu; }

    // Request 160 of a USB 2 bridge. A write to the reset register stops the processor or starts what lies in memory;
    // returns true when that is a new firmware, whose version comes in *pVersion (empty: the image does not tell).
    bool LoadFx2(uint16_t address, const std::vector<uint8_t>& bytes, std::optional<uint8_t>* pVersion);
    void LoadFx3(uint32_t address, const std::vector<uint8_t>& bytes);
    std::vector<uint8_t> Read(uint32_t address, uint32_t length) const;

private:
    Cpu m_cpu = Cpu::Firmware;
    std::map<uint32_t, uint8_t> m_ram;
    // Loads since the processor was stopped: tell the EEPROM loader from a firmware.
    std::vector<std::pair<uint16_t, size_t>> m_loads;
};

// A firmware image carries its version as the bytes "KOVFW" and one more; empty where it does not.
std::optional<uint8_t> VersionIn(const std::vector<uint8_t>& bytes);
// Whether bytes begin with a complete image in the C2 load format.
bool IsC2Image(const std::vector<uint8_t>& bytes);

}  // namespace kovsim
