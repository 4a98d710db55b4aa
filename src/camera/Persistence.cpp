// What outlives the process: the dark frame as a BMP file on the host, the hot-pixel table compressed in the camera's own
// flash.
#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "base/Attempt.h"
#include "base/Trace.h"
#include "camera/CCameraBase.h"
#include "camera/HotPixels.h"
#include "camera/MemoryFrame.h"
#include "platform/Platform.h"

namespace {

// --- dark file: 8 bits a pixel, uncompressed, full sensor, rows in the order of memory (upside down to viewers) ------

constexpr uint32_t FILE_HEADER = 14, INFO_HEADER = 40, PALETTE = 1024, PIXELS_AT = FILE_HEADER + INFO_HEADER + PALETTE;

struct FileClose {
    void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileClose>;

uint32_t Get16(const uint8_t* p) { return p[0] | uint32_t{ p[1] } << 8; }
uint32_t Get32(const uint8_t* p) { return Get16(p) | Get16(p + 2) << 16; }
void Put16(uint8_t* p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
void Put32(uint8_t* p, uint32_t v)
{
    Put16(p, v);
    Put16(p + 2, v >> 16);
}

// Rows padded to 4 bytes.
uint32_t ImageBytes(int width, int height)
{
    return static_cast<uint32_t>(height) * (((static_cast<uint32_t>(width) * 8 + 31) >> 3) & 0x1FFFFFFC);
}

// --- table in flash --------------------------------------------------------------------------------------------------

constexpr uint32_t TABLE_ADDRESS = 0x40000, SECTOR = 0x10000, TABLE_LIMIT = 3 * SECTOR;
constexpr int32_t BLOCK = 2048, FLASH_PAGE = 256;
constexpr int TRIES = 3;
constexpr char MAGIC[] = { 'K', 'O', 'V', 'D' };
constexpr int32_t TABLE_HEADER = 8;
constexpr uint32_t PAD = 2 * BLOCK;  // a read or write of whole pages may reach beyond the table

int32_t WholePages(int32_t i) { return (i + FLASH_PAGE - 1) / FLASH_PAGE * FLASH_PAGE; }
uint32_t BlockAddress(int32_t block) { return TABLE_ADDRESS + static_cast<uint32_t>(block * BLOCK); }

// Position within a page of 256, with its halves exchanged as the table stores it. Its own inverse.
uint8_t SwapNibbles(uint8_t b) { return static_cast<uint8_t>((b & 15) << 4 | b >> 4); }

// The table needs the image path of the bridge out of the way.
class FlashAccess {
public:
    explicit FlashAccess(CCameraFX3& cam) : m_cam(cam) { m_cam.EnableGPIF32DQ(false); }
    ~FlashAccess()
    {
        Attempt("leaving the flash", [this] { m_cam.EnableGPIF32DQ(true); });
    }
    FlashAccess(const FlashAccess&) = delete;
    FlashAccess& operator=(const FlashAccess&) = delete;

private:
    CCameraFX3& m_cam;
};

// Only what is read back counts, not the results of the transfers.
bool WriteBlock(CCameraFX3& cam, uint8_t* data, int32_t length, uint32_t address, uint8_t* back)
{
    const auto n = static_cast<uint32_t>(length);
    for (int i = 0; i < TRIES; ++i) {
        cam.WriteToSPIFlash(data, n, address, REQ_FLASH_WRITE);
        cam.ReadFromSPIFlash(back, n, address, REQ_FLASH_READ);
        if (std::memcmp(data, back, n) == 0)
            return true;
    }
    return false;
}

bool WriteTable(CCameraFX3& cam, uint8_t* data, int32_t length)
{
    if (length > static_cast<int32_t>(TABLE_LIMIT))
        return false;
    const uint32_t first = TABLE_ADDRESS / SECTOR, sectors = (static_cast<uint32_t>(length) + SECTOR - 1) / SECTOR;
    for (uint32_t s = first; s < first + sectors; ++s)
        if (cam.EraseSectorOfSPIFlash(s, REQ_FLASH_ERASE) != FX3_FW_SUCCESS)
            return false;
    uint8_t back[BLOCK] = {};
    const int32_t blocks = length / BLOCK, rest = length % BLOCK;
    for (int32_t b = 0; b < blocks; ++b)
        if (!WriteBlock(cam, data + ptrdiff_t{ b } * BLOCK, BLOCK, BlockAddress(b), back))
            return false;
    // QUIRK: a table that ends with a whole block is reported as failed, though it stands in the flash and loads.
    return rest != 0 && WriteBlock(cam, data + ptrdiff_t{ blocks } * BLOCK, WholePages(rest), BlockAddress(blocks), back);
}

}  // namespace

int CCameraBase::LoadBMPFromFile(const char* path)
{
    const File file(platform::OpenFile(path, "rb"));
    if (!file) {
        m_bUsingDark = false;
        TraceLine("Open file %s failed!\n", path);
        return 6;
    }
    uint8_t header[FILE_HEADER], info[INFO_HEADER];
    if (std::fread(header, 1, FILE_HEADER, file.get()) < FILE_HEADER) {
        TraceLine("Read bmp header failed!\n");
        return 0;
    }
    if (header[0] != 'B' || header[1] != 'M')
        return 0;
    if (std::fread(info, 1, INFO_HEADER, file.get()) < INFO_HEADER) {
        TraceLine("Read bmp infomation failed!\n");
        return 0;
    }
    if (Get32(info + 4) != static_cast<uint32_t>(m_iMaxWidth) || Get32(info + 8) != static_cast<uint32_t>(m_iMaxHeight))
        return 7;
    if (Get16(info + 14) != 8)
        return 0;

    std::vector<uint8_t> pixels(SensorPixels(*this));
    const uint32_t pixelsAt = Get32(header + 10);
    const bool there = pixelsAt <= INT32_MAX && std::fseek(file.get(), static_cast<long>(pixelsAt), SEEK_SET) == 0;
    if (!there || std::fread(pixels.data(), 1, pixels.size(), file.get()) < pixels.size()) {
        // QUIRK: a file that is cut off counts as good. What is missing is dark.
    }
    std::copy(pixels.begin(), pixels.end(), m_pDarkBuf);
    AdjustDarkBuff(m_pDarkBuf, m_pDarkSum);
    m_bUsingDark = true;
    // The path may be m_szBMPPath itself.
    const size_t n = std::min(std::strlen(path), sizeof m_szBMPPath - 1);
    std::memmove(m_szBMPPath, path, n);
    m_szBMPPath[n] = 0;
    TraceLine("Open file %s --> succeed!\n", path);
    return 1;
}

int CCameraBase::SaveBMPToFile(const char* path)
{
    // As many bytes as CreateBMP takes, which is more where a width is not a multiple of four.
    std::vector<uint8_t> pixels(std::max(SensorPixels(*this), size_t{ ImageBytes(m_iMaxWidth, m_iMaxHeight) }));
    for (size_t i = 0; i < SensorPixels(*this); ++i)
        pixels[i] = static_cast<uint8_t>(m_pDarkBuf[i]);
    CreateBMP(m_iMaxWidth, m_iMaxHeight, pixels.data(), path);
    const size_t n = std::min(std::strlen(path), sizeof m_szBMPPath - 1);
    std::memmove(m_szBMPPath, path, n);
    m_szBMPPath[n] = 0;
    TraceLine("Save file %s --> succeed!\n", path);
    return 1;  // QUIRK: also when nothing could be written
}

int CCameraBase::CreateBMP(int width, int height, uint8_t* pixels, const char* path)
{
    const uint32_t image = ImageBytes(width, height);
    uint8_t ab[PIXELS_AT] = { 'B', 'M' };
    Put32(ab + 2, image + PIXELS_AT);
    Put32(ab + 10, PIXELS_AT);
    uint8_t* const info = ab + FILE_HEADER;
    Put32(info, INFO_HEADER);
    Put32(info + 4, static_cast<uint32_t>(width));
    Put32(info + 8, static_cast<uint32_t>(height));
    Put16(info + 12, 1);  // planes
    Put16(info + 14, 8);  // bits a pixel
    Put32(info + 20, image);
    Put32(info + 32, 256);  // colours used
    for (size_t i = 0; i < 256; ++i)
        std::memset(ab + FILE_HEADER + INFO_HEADER + 4 * i, static_cast<int>(i), 3);

    const File file(platform::OpenFile(path, "wb+"));
    if (!file)
        return 0;
    std::fwrite(ab, 1, sizeof ab, file.get());
    std::fwrite(pixels, 1, image, file.get());
    return 1;
}

// Area in flash: magic, length L (4 bytes, high byte first), then records of two bytes. (0, 0) ends a page of 256 source
// bytes; (position, value) is a byte of the page that is not 0.
uint8_t* CCameraBase::Compress(uint8_t* src, int n, int* outLen)
{
    const size_t source = static_cast<size_t>(std::max(n, 0));
    auto* const out = static_cast<uint8_t*>(std::calloc(source + PAD, 1));
    if (!out)
        throw std::bad_alloc();
    const auto z = static_cast<int32_t>(std::count_if(src, src + source, [](uint8_t b) { return b != 0; }));
    const auto L = static_cast<uint32_t>(std::min(2 * z + 2 * n / 256 + 6, n));
    std::memcpy(out, MAGIC, sizeof MAGIC);
    for (int i = 0; i < 4; ++i)
        out[4 + i] = static_cast<uint8_t>(L >> (24 - 8 * i));

    // QUIRK: a table that does not fit ends 4 bytes short of n and drops the rest without a word; L is then n. Where n is
    // no multiple of 256, L falls short of *outLen by 1 or 2, and at 2 (n % 256 below 128) the reader, which goes by L,
    // misses the last record.
    uint8_t* p = out + TABLE_HEADER;
    int bound = 12;
    for (int i = 0; i < n && bound < n; ++i) {
        const auto low = static_cast<uint8_t>(i);
        if (src[i] != 0) {
            *p++ = SwapNibbles(low);
            *p++ = src[i];
            bound += 2;
        }
        if (low == 255 && i != n - 1) {
            p += 2;
            bound += 2;
        }
    }
    *outLen = static_cast<int>(p - out);
    return out;
}

// src holds L bytes, one more where L is odd.
uint8_t* CCameraBase::Uncompress(uint8_t* src, int L)
{
    const size_t output = SensorPixels(*this) / 8;
    auto* const out = static_cast<uint8_t*>(std::calloc(output + 1, 1));
    if (!out)
        throw std::bad_alloc();
    size_t page = 0;
    for (int o = TABLE_HEADER; o < L; o += 2) {
        const uint8_t a = src[o], v = src[o + 1];
        if (a == 0 && v == 0) {
            ++page;
            continue;
        }
        const size_t at = page * 256 + SwapNibbles(a);
        if (at >= output) {
            std::free(out);
            return nullptr;
        }
        out[at] = v;
    }
    return out;
}

// Host, capture stopped: the image path of the bridge is off meanwhile. The table is what stands out of the dark frame
// that was collected last.
bool CCameraBase::SaveHPCTable()
{
    const size_t bytes = SensorPixels(*this) / 8;
    std::vector<uint8_t> bits(bytes);
    const FlashAccess access(*this);
    const uint32_t ave = m_iDarkAve;
    std::vector<int32_t> hot;
    for (size_t i = 0; i < 8 * bytes; ++i)
        if (StandsOut(m_pDarkBuf[i], ave)) {
            hot.push_back(static_cast<int32_t>(i));
            bits[i / 8] = static_cast<uint8_t>(bits[i / 8] | 1 << (i % 8));
        }
    SetHotPixels(*this, std::move(hot));
    int length = 0;
    const std::unique_ptr<uint8_t, void (*)(void*)> table(Compress(bits.data(), static_cast<int>(bytes), &length), &std::free);
    return WriteTable(*this, table.get(), length);
}

// Host, capture stopped. That there is no table is normal: few cameras have one.
bool CCameraBase::LoadHPCTable()
{
    const auto n = static_cast<int32_t>(SensorPixels(*this) / 8);
    std::vector<uint8_t> ab(BLOCK);  // until it tells that there is a table
    const FlashAccess access(*this);
    const auto read = [&](int32_t block, int32_t length) {
        return ReadFromSPIFlash(ab.data() + ptrdiff_t{ block } * BLOCK, static_cast<uint32_t>(length), BlockAddress(block),
                                REQ_FLASH_READ);
    };
    bool ok = read(0, BLOCK);
    if (std::memcmp(ab.data(), MAGIC, sizeof MAGIC) != 0)
        return false;
    const auto L = static_cast<int32_t>(uint32_t{ ab[4] } << 24 | uint32_t{ ab[5] } << 16 | uint32_t{ ab[6] } << 8 | ab[7]);
    if (L > n)  // signed: a negative length passes, and is an empty table
        return false;
    ab.resize(static_cast<size_t>(n) + PAD);
    TraceLine("LoadHPC: Compressed length: %d :\n", L);

    const int32_t blocks = L / BLOCK, rest = L % BLOCK;
    bool goOn = true;
    for (int32_t b = 1; b < blocks && goOn; ++b) {
        goOn = false;
        for (int i = 0; i < TRIES && !goOn; ++i) {
            ok = goOn = read(b, BLOCK);
            TraceLine(goOn ? "success %d\n" : "fail %d\n", b);
        }
    }
    // Below one block this reads behind a table that is here already: no harm.
    if (goOn && rest > 0)
        ok = read(blocks > 1 ? blocks : 1, WholePages(rest));

    // QUIRK: the result is that of the last flash read; a table cut off by a failed one is used as far as it goes.
    const std::unique_ptr<uint8_t, void (*)(void*)> unpacked(Uncompress(ab.data(), L), &std::free);
    if (!unpacked)
        return false;
    std::vector<int32_t> hot;
    for (int32_t k = 0; k < n; ++k)
        for (unsigned bits = unpacked.get()[k]; bits != 0; bits &= bits - 1)
            hot.push_back(8 * k + std::countr_zero(bits));
    SetHotPixels(*this, std::move(hot));
    FitHotPixels(*this);
    return ok;
}
