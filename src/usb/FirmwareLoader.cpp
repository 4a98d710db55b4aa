// Loaders of CCameraFX3: the EEPROM of the USB 2 bridges, RAM and EEPROM of the USB 3 ones, and the SPI flash.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/Platform.h"
#include "usb/CCameraFX3.h"
#include "usb/FirmwareImages.h"

namespace {

constexpr uint16_t CPU_CONTROL = 0xE600;  // of the FX2; 1 holds the processor
constexpr uint16_t LOADER_PART2_AT = 0x0800;
constexpr uint8_t REQ_EEPROM = REQ_START_STREAM;  // with the loader running, the same number reaches the EEPROM
constexpr int32_t EEPROM_BLOCK = 4096;
constexpr int32_t EEPROM_SIZE = 65536;
constexpr int ATTEMPTS = 3;

constexpr int32_t C2_HEAD = 8, C2_RECORD_HEAD = 4;
constexpr uint8_t C2_END[4] = { 0x80, 0x01, 0xE6, 0x00 };

constexpr uint32_t PAGE = 2048;        // of all the USB 3 loaders
constexpr uint32_t FLASH_GRAIN = 256;  // flash addresses go out in units of this
constexpr uint32_t I2C_GRAIN = 64;
constexpr uint32_t ERASE_LIMIT_MS = 60'000;

uint32_t U32(const uint8_t* p) { return p[0] | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

// A copy of n bytes from at on; zeros stand for what the image does not have.
void CopyWithin(uint8_t* output, const uint8_t* image, uint32_t length, uint32_t at, uint32_t n)
{
    const uint32_t have = at < length ? std::min(n, length - at) : 0;
    if (have != 0)
        std::memcpy(output, image + at, have);
    std::memset(output + have, 0, n - have);
}

struct FreeDeleter {
    void operator()(uint8_t* p) const { std::free(p); }
};
struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

}  // namespace

// --- FX2: RAM and I2C EEPROM ----------------------------------------------------------------------------------------

bool CCameraFX3::HaltProcessor(bool halt)
{
    uint8_t b = halt ? 1 : 0;
    return Command(false, REQ_FX2_RAM, CPU_CONTROL, 0, &b, 1);
}

// Puts the EEPROM loader into RAM and runs it. False, with nothing sent, when the loader was not built in.
bool CCameraFX3::StartEepromLoader()
{
    const FirmwareImage part1 = FindFirmware(FirmwareId::LoaderPart1), part2 = FindFirmware(FirmwareId::LoaderPart2);
    if (!part1 || !part2)
        return false;
    // Copies: a transfer takes a writable buffer, for both directions alike.
    std::vector<uint8_t> a(part1.data, part1.data + part1.size), b(part2.data, part2.data + part2.size);
    HaltProcessor(true);
    Command(false, REQ_FX2_RAM, 0, 0, a.data(), part1.size);
    Command(false, REQ_FX2_RAM, LOADER_PART2_AT, 0, b.data(), part2.size);
    HaltProcessor(false);
    return true;
}

bool CCameraFX3::UpdateFW(const uint8_t* image, int32_t length)
{
    if (!m_bOpen || !image || length < 0 || !StartEepromLoader())
        return false;
    const int32_t blocks = int32_t((int64_t{ length } + EEPROM_BLOCK - 1) / EEPROM_BLOCK);
    std::vector<uint8_t> sent(image, image + length);
    std::vector<uint8_t> back(std::max(size_t{ EEPROM_SIZE }, size_t(blocks) * EEPROM_BLOCK));

    // QUIRK: the last of several blocks takes the remainder, so an image of a whole number of blocks sends a last block
    // of no bytes and never compares equal.
    const auto Blocks = [&](bool input, uint8_t* p) {
        for (int32_t b = 0; b < blocks; ++b) {
            const int32_t size = blocks == 1 ? length : b == blocks - 1 ? length % EEPROM_BLOCK : EEPROM_BLOCK;
            Command(input, REQ_EEPROM, uint16_t(b << 12), 0, p + ptrdiff_t{ b } * EEPROM_BLOCK, size);
        }
    };
    int attempt = 1;
    for (;; ++attempt) {
        Blocks(false, sent.data());
        std::fill(back.begin(), back.end(), uint8_t{ 0 });
        Blocks(true, back.data());
        if (std::equal(sent.begin(), sent.end(), back.begin()) || attempt == ATTEMPTS)
            break;
    }
    if (length > 0)  // without a length the records would tell their end, and there are none
        UpdateFW2RAM(image, length);
    // QUIRK: the third attempt counts as a failure even when it compared equal.
    return attempt < ATTEMPTS;
}

bool CCameraFX3::UpdateFW2RAM(const uint8_t* image, int32_t length)
{
    if (!m_bOpen || !image)
        return false;
    const auto Fits = [&](int64_t end) { return length <= 0 || end <= length; };
    HaltProcessor(true);
    std::vector<uint8_t> data;
    for (int64_t at = C2_HEAD; Fits(at + C2_RECORD_HEAD);) {
        const uint8_t* const r = image + at;
        if (std::equal(C2_END, C2_END + sizeof C2_END, r))
            break;
        const int32_t size = r[0] << 8 | r[1];
        at += C2_RECORD_HEAD + size;
        if (!Fits(at))
            break;
        data.assign(r + C2_RECORD_HEAD, r + C2_RECORD_HEAD + size);
        Command(false, REQ_FX2_RAM, uint16_t(r[2] << 8 | r[3]), 0, data.data(), size);
    }
    HaltProcessor(false);
    return true;  // QUIRK: whatever became of the transfers
}

bool CCameraFX3::EraseFlash()
{
    if (!m_bOpen || !StartEepromLoader())
        return false;
    std::vector<uint8_t> block(EEPROM_BLOCK), back(EEPROM_BLOCK);
    block[0] = 0xC2;
    int attempt = 1;
    for (;; ++attempt) {
        Command(false, REQ_EEPROM, 0, 0, block.data(), EEPROM_BLOCK);
        std::fill(back.begin(), back.end(), uint8_t{ 0 });
        Command(true, REQ_EEPROM, 0, 0, back.data(), EEPROM_BLOCK);
        if (block == back || attempt == ATTEMPTS)
            break;
    }
    return attempt < ATTEMPTS;  // QUIRK: as in UpdateFW
}

// --- FX3 RAM --------------------------------------------------------------------------------------------------------

bool CCameraFX3::DownloadBufferToDevice(uint32_t address, uint16_t length, uint8_t* data, uint8_t request)
{
    return Command(false, request, uint16_t(address), uint16_t(address >> 16), data, length);
}

bool CCameraFX3::UploadBufferFromDevice(uint32_t address, uint16_t length, uint8_t* data, uint8_t request)
{
    return Command(true, request, uint16_t(address), uint16_t(address >> 16), data, length);
}

// QUIRK: halves the other way round than in DownloadBufferToDevice.
bool CCameraFX3::SetProgramEntry(uint8_t request, uint32_t address)
{
    return Command(false, request, uint16_t(address >> 16), uint16_t(address));
}

bool CCameraFX3::IsBootLoaderRunning()
{
    uint8_t b = 0;
    return Command(true, REQ_FX2_RAM, 0, 0, &b, 1);
}

FX3_FWDWNLOAD_ERROR_CODE CCameraFX3::DownloadFwToRam(uint8_t* data, uint32_t length, uint8_t request)
{
    if (length < 2 || data[0] != 'C' || data[1] != 'Y')
        return FX3_FW_BAD_SIGNATURE;
    uint8_t block[PAGE], back[PAGE];
    for (uint32_t at = 4;;) {
        if (at > length || length - at < 8)
            return FX3_FW_SECTION_TOO_LONG;
        uint32_t left = U32(data + at) * 4;  // the product wraps
        const bool end = U32(data + at) == 0;
        uint32_t address = U32(data + at + 4);
        at += 8;
        if (end) {
            DownloadBufferToDevice(address, 0, nullptr, request);
            return FX3_FW_SUCCESS;
        }
        while (left > 0) {
            const uint16_t n = uint16_t(std::min(left, PAGE));
            if (n > length)
                return FX3_FW_BLOCK_TOO_LONG;
            CopyWithin(block, data, length, at, n);
            // QUIRK: all three tries are made, a good block is written three times; only the last one counts.
            bool good = false;
            for (int i = 0; i < ATTEMPTS; ++i) {
                std::memset(back, 0, n);
                good = DownloadBufferToDevice(address, n, block, request) && UploadBufferFromDevice(address, n, back, request) &&
                       std::memcmp(block, back, n) == 0;
            }
            if (!good)
                return FX3_FW_FAILED;
            address += n;
            left -= n;
            at += n;
            if (at > length)
                return FX3_FW_SECTION_TOO_LONG;
        }
    }
}

// --- SPI flash ------------------------------------------------------------------------------------------------------

FX3_FWDWNLOAD_ERROR_CODE CCameraFX3::EraseSectorOfSPIFlash(uint32_t sector, uint8_t request)
{
    const uint16_t number = uint16_t(sector);
    if (!Command(false, request, 1, number))
        return FX3_FW_FAILED;
    // Polled without a pause. An erase takes seconds at most; a camera that stays busy for ever must not hold a host.
    const uint32_t start = platform::Ticks();
    uint8_t busy = 1;
    do {
        if (!Command(true, request, 0, number, &busy, 1) || platform::Ticks() - start > ERASE_LIMIT_MS)
            return FX3_FW_FAILED;
    } while (busy != 0);
    return FX3_FW_SUCCESS;
}

bool CCameraFX3::WriteToSPIFlash(uint8_t* data, uint32_t length, uint32_t address, uint8_t request)
{
    return Command(false, request, 0, uint16_t(address >> 8), data, int32_t(length));
}

bool CCameraFX3::ReadFromSPIFlash(uint8_t* data, uint32_t length, uint32_t address, uint8_t request)
{
    return Command(true, request, 0, uint16_t(address >> 8), data, int32_t(length));
}

FX3_FWDWNLOAD_ERROR_CODE CCameraFX3::DownloadBuftoSPIFLASH(uint8_t* data, uint32_t length, uint8_t request)
{
    const uint32_t sectors = (length >> 16) + ((length & 0xFFFF) != 0 ? 1 : 0);
    for (uint32_t s = 0; s < sectors; ++s)
        if (EraseSectorOfSPIFlash(s, request) != FX3_FW_SUCCESS)
            return FX3_FW_ERASE_FAILED;

    const uint64_t qwTotal = (uint64_t{ length } + FLASH_GRAIN - 1) / FLASH_GRAIN * FLASH_GRAIN;
    uint8_t staging[PAGE] = {};
    for (uint64_t qwAt = 0; qwAt < qwTotal; qwAt += PAGE) {
        const uint32_t n = uint32_t(std::min<uint64_t>(qwTotal - qwAt, PAGE));
        // QUIRK: past the image the flash takes what the page before left in the buffer.
        const uint32_t have = qwAt < length ? std::min(n, uint32_t(length - qwAt)) : 0;
        std::memcpy(staging, data + qwAt, have);
        // QUIRK: always request 194, whatever `request` is; that one only erases.
        if (!WriteToSPIFlash(staging, n, uint32_t(qwAt), REQ_FLASH_WRITE))
            return FX3_FW_FAILED;
    }
    return FX3_FW_SUCCESS;
}

// --- I2C EEPROM of the FX3 ------------------------------------------------------------------------------------------

FX3_FWDWNLOAD_ERROR_CODE CCameraFX3::DownloadBuftoI2CE2PROM(uint8_t* data, int32_t length, uint8_t request)
{
    static constexpr uint32_t s_sizes[8] = { 0, 0, 4096, 8192, 16384, 32768, 65536, 65536 };
    const unsigned code = length > 2 ? (data[2] >> 1) & 7u : 0u;
    const uint32_t deviceSize = s_sizes[code];
    if (deviceSize == 0)
        return FX3_FW_BAD_I2C_SIZE;
    const bool large = code == 7;

    uint8_t staging[PAGE];
    uint16_t device = 0, address = 0;
    uint32_t done = 0;
    for (; uint32_t(length) - done >= PAGE;) {
        std::memcpy(staging, data + done, PAGE);
        if (!Command(false, request, device, address, staging, PAGE))
            return FX3_FW_FAILED;
        done += PAGE;
        address = uint16_t(address + PAGE);
        if (done % deviceSize != 0)
            continue;
        address = 0;
        if (!large)
            device = uint16_t((device + 1) & 7);
        else if (done < 0x20000)
            device = 4;
        else
            device = device == 4 ? 1 : 5;
    }
    const uint32_t rest = uint32_t(length) - done;
    if (rest == 0)
        return FX3_FW_SUCCESS;
    const uint32_t n = (rest + I2C_GRAIN - 1) / I2C_GRAIN * I2C_GRAIN;
    CopyWithin(staging, data, uint32_t(length), done, n);
    // QUIRK: read back, but not compared.
    if (!Command(false, request, device, address, staging, int32_t(n)) ||
        !Command(true, REQ_I2C_READ, device, address, staging, int32_t(n)))
        return FX3_FW_FAILED;
    return FX3_FW_SUCCESS;
}

FX3_FWDWNLOAD_ERROR_CODE CCameraFX3::DownloadFw(const char* path, FX3_FWDWNLOAD_MEDIA_TYPE media)
{
    const std::unique_ptr<std::FILE, FileCloser> file(platform::OpenFile(path, "rb"));
    if (!file || std::fseek(file.get(), 0, SEEK_END) != 0)
        return FX3_FW_NO_FILE;
    const long size = std::ftell(file.get());
    if (size <= 0 || size > INT32_MAX || std::fseek(file.get(), 0, SEEK_SET) != 0)
        return FX3_FW_NO_FILE;
    const std::unique_ptr<uint8_t, FreeDeleter> p(static_cast<uint8_t*>(std::calloc(size_t(size), 1)));
    if (!p || std::fread(p.get(), 1, size_t(size), file.get()) != size_t(size))
        return FX3_FW_NO_FILE;
    switch (media) {
    case FX3_MEDIA_RAM: return DownloadFwToRam(p.get(), uint32_t(size), REQ_FX2_RAM);
    case FX3_MEDIA_I2C: return DownloadBuftoI2CE2PROM(p.get(), int32_t(size), REQ_I2C_WRITE);
    case FX3_MEDIA_SPI: return DownloadBuftoSPIFLASH(p.get(), uint32_t(size), REQ_FLASH_ERASE);
    }
    return FX3_FW_BAD_MEDIA_TYPE;
}
