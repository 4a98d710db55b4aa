// The general loaders against USB 3 cameras: SPI flash, I2C EEPROM, RAM of the boot loader.
#include "firmware/FirmwareBench.h"

#include "platform/InterfaceGuids.h"

namespace {

using kovsim::FaultKind;
using usbstack::Status;

void Put32(Bytes& b, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        b.push_back(uint8_t(v >> (8 * i)));
}

Bytes Pattern(size_t n)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = uint8_t(i * 7 + i / 251 + 1);
    return b;
}

class Loaders : public FirmwareBench, public CCameraFX3 {
protected:
    static constexpr uint16_t QUARTZ = 0xC11A;

    void Attach(bool bBootLoader = false)
    {
        ReplaceLink(nullptr);
        m_bOpen = false;
        NewBus();
        PlugOne(QUARTZ, -1, bBootLoader);
        Link();
    }
    void Link()
    {
        auto link = std::make_unique<CUsbLink>(nullptr, platform::g_InterfaceGuids[platform::GUID_COUNT - 1], true);
        ASSERT_TRUE(link->Open(0));
        ReplaceLink(link.release());
        m_bOpen = true;
    }
    void TearDown() override
    {
        ReplaceLink(nullptr);
        FirmwareBench::TearDown();
        std::remove(m_sFile.c_str());
    }
    // Through a file, as a host would.
    FX3_FWDWNLOAD_ERROR_CODE Download(const Bytes& image, FX3_FWDWNLOAD_MEDIA_TYPE media)
    {
        const Limit limit("DownloadFw");
        std::FILE* f = std::fopen(m_sFile.c_str(), "wb");
        EXPECT_EQ(std::fwrite(image.data(), 1, image.size(), f), image.size());
        std::fclose(f);
        return DownloadFw(m_sFile.c_str(), media);
    }
    int Count(uint8_t bRequest, bool bIn = false) const
    {
        int n = 0;
        for (const kovsim::Request& r : m_pCam->Requests())
            n += r.bRequest == bRequest && r.bIn == bIn;
        return n;
    }

private:
    const std::string m_sFile = testing::TempDir() + "kov_loader_" + std::to_string(getpid()) + ".img";
};

TEST_F(Loaders, FilesThatCannotBeRead)
{
    Attach();
    for (const auto media : { FX3_MEDIA_RAM, FX3_MEDIA_I2C, FX3_MEDIA_SPI, FX3_FWDWNLOAD_MEDIA_TYPE(0) }) {
        EXPECT_EQ(DownloadFw("/nowhere/firmware.img", media), FX3_FW_NO_FILE);
        EXPECT_EQ(DownloadFw("", media), FX3_FW_NO_FILE);
        EXPECT_EQ(DownloadFw(testing::TempDir().c_str(), media), FX3_FW_NO_FILE);
        EXPECT_EQ(Download({}, media), FX3_FW_NO_FILE);
    }
    EXPECT_EQ(DownloadFw("/proc/self/mem", FX3_MEDIA_SPI), FX3_FW_NO_FILE);  // opens, but has no size
    for (const int media : { -1, 0, 4 })
        EXPECT_EQ(Download(Pattern(100), FX3_FWDWNLOAD_MEDIA_TYPE(media)), FX3_FW_BAD_MEDIA_TYPE);
    EXPECT_TRUE(m_pCam->Requests().empty());
    // Closed: every loader ends at its first transfer.
    m_bOpen = false;
    EXPECT_EQ(Download(Pattern(100), FX3_MEDIA_SPI), FX3_FW_ERASE_FAILED);
    EXPECT_EQ(EraseSectorOfSPIFlash(0, 196), FX3_FW_FAILED);
    Bytes eeprom = Pattern(100);
    eeprom[2] = 4;
    EXPECT_EQ(Download(eeprom, FX3_MEDIA_I2C), FX3_FW_FAILED);
    EXPECT_FALSE(IsBootLoaderRunning());
    EXPECT_TRUE(m_pCam->Requests().empty());
}

TEST_F(Loaders, SpiFlash)
{
    Attach();
    m_pCam->SetFlash(0, Bytes(0x30000, 0));  // unless erased, nothing can be written
    const Bytes image = Pattern(65537);
    ASSERT_EQ(Download(image, FX3_MEDIA_SPI), FX3_FW_SUCCESS);
    EXPECT_EQ(m_pCam->Flash(0, 65537), image);
    // QUIRK: the last 256 bytes are filled up with what the block before left.
    EXPECT_EQ(m_pCam->Flash(65537, 255), Bytes(image.begin() + 63489, image.begin() + 63744));
    EXPECT_EQ(m_pCam->Flash(65792, 1), Bytes{ 0xFF });
    EXPECT_EQ(m_pCam->Flash(0x20000, 1), Bytes{ 0 });  // the third sector is as it was
    EXPECT_EQ(Count(196), 2);
    EXPECT_GT(Count(196, true), 2);  // an erase takes its time
    EXPECT_EQ(Count(194), 33);

    uint8_t back[300];
    ASSERT_TRUE(ReadFromSPIFlash(back, sizeof back, 0x10200 - 0x200, 195));
    EXPECT_EQ(back[0], image[0x10000]);
    ASSERT_TRUE(ReadFromSPIFlash(back, sizeof back, 0x1FF, 195));  // addresses are cut to 256 bytes
    EXPECT_TRUE(std::equal(back, back + sizeof back, image.begin() + 0x100));
}

TEST_F(Loaders, SpiFlashFailures)
{
    const Bytes image = Pattern(0x10000 + 5000);
    struct Case { FaultKind kind; uint32_t arg, times; FX3_FWDWNLOAD_ERROR_CODE code; };
    for (const Case& c : { Case{ FaultKind::FlashEraseFails, 0, 1, FX3_FW_ERASE_FAILED },
                           Case{ FaultKind::FailControl, 196, 1, FX3_FW_ERASE_FAILED },
                           Case{ FaultKind::FailControl, 194, 1, FX3_FW_FAILED },
                           Case{ FaultKind::FailControl, 0, 1000, FX3_FW_ERASE_FAILED },
                           Case{ FaultKind::SlowControl, 1500, 1, FX3_FW_ERASE_FAILED },
                           Case{ FaultKind::FlashWriteFails, 0, 1000, FX3_FW_SUCCESS } }) {  // nothing is compared
        SCOPED_TRACE(testing::Message() << int(c.kind) << " " << c.arg);
        Attach();
        m_pCam->Inject({ c.kind, c.arg, 0, c.times });
        EXPECT_EQ(Download(image, FX3_MEDIA_SPI), c.code);
        EXPECT_EQ(m_pCam->Flash(0, 1), Bytes{ 0xFF });
    }
    // Larger than the flash: the first sector that is not there refuses.
    Attach();
    EXPECT_EQ(DownloadBuftoSPIFLASH(Bytes((4u << 20) + 1).data(), (4u << 20) + 1, 196), FX3_FW_ERASE_FAILED);
    EXPECT_EQ(Count(194), 0);
}

// At every request: refused, and the camera gone for good.
TEST_F(Loaders, SpiFlashEndsAtTheFirstFailure)
{
    const Bytes image = Pattern(5000);
    int iRequests = 0;
    for (int iAt = 0; iAt <= iRequests; ++iAt)
        for (const bool bGone : { false, true }) {
            SCOPED_TRACE(testing::Message() << "request " << iAt << (bGone ? " gone" : " refused"));
            Attach();
            int n = 0;
            bool bErasing = true, bHit = false;
            m_pTap->OnControl = [&](const ControlSetup& s) {
                bErasing = s.bRequest == 196;
                // The polls of an erase count as one.
                n += !s.bIn || n == 1;
                bHit = bHit || (n - 1 == iAt && (iAt != 1 || s.bIn));
                if (bHit && bGone)
                    m_pCam->Unplug();
                return bHit && !bGone ? Status::Stall : Status::Ok;
            };
            const auto code = Download(image, FX3_MEDIA_SPI);
            if (!bHit)
                EXPECT_EQ(code, FX3_FW_SUCCESS);
            else
                EXPECT_EQ(code, bErasing ? FX3_FW_ERASE_FAILED : FX3_FW_FAILED);
            iRequests = std::max(iRequests, n);
        }
    EXPECT_EQ(iRequests, 5);  // erase, polls, three blocks
}

TEST_F(Loaders, I2cEeprom)
{
    const auto Read = [&](uint16_t wDevice, uint16_t wAddress) {
        uint8_t b = 0;
        int32_t n = 1;
        EXPECT_TRUE(SendCMD(187, wDevice, wAddress, true, &b, &n));
        return b;
    };
    struct Case { uint8_t code; uint32_t size; };
    for (const Case& c : { Case{ 2, 4096 }, Case{ 3, 8192 }, Case{ 4, 16384 }, Case{ 5, 32768 }, Case{ 6, 65536 } }) {
        SCOPED_TRACE(c.size);
        Attach();
        Bytes image = Pattern(c.size * 2 + 100);
        image[2] = uint8_t(0xF1 | c.code << 1);
        ASSERT_EQ(Download(image, FX3_MEDIA_I2C), FX3_FW_SUCCESS);
        for (const uint32_t at : { 0u, 2u, 2047u, 2048u, c.size - 1, c.size, 2 * c.size - 1, 2 * c.size + 99 })
            EXPECT_EQ(Read(uint16_t(at / c.size), uint16_t(at % c.size)), image[at]) << at;
        // Filled with zeros up to a multiple of 64; the rest is untouched.
        EXPECT_EQ(Read(2, 100), 0);
        EXPECT_EQ(Read(2, 127), 0);
        EXPECT_EQ(Read(2, 128), 0xFF);
        EXPECT_EQ(Count(187, true), 1 + 8 + 3);
    }
    Attach();
    for (const uint8_t head : { uint8_t{ 0xF0 }, uint8_t{ 0xF1 }, uint8_t{ 0xF2 }, uint8_t{ 0xF3 } }) {
        Bytes image = Pattern(3000);
        image[2] = head;
        EXPECT_EQ(Download(image, FX3_MEDIA_I2C), FX3_FW_BAD_I2C_SIZE);
    }
    EXPECT_EQ(Download({ 1, 2 }, FX3_MEDIA_I2C), FX3_FW_BAD_I2C_SIZE);
    EXPECT_TRUE(m_pCam->Requests().empty());

    // Each of its requests refused: a page, the rest, the read-back.
    Bytes image = Pattern(2048 + 10);
    image[2] = 4;
    for (int iAt = 0; iAt < 4; ++iAt) {
        int n = 0;
        m_pTap->OnControl = [&](const ControlSetup&) { return n++ == iAt ? Status::Stall : Status::Ok; };
        EXPECT_EQ(Download(image, FX3_MEDIA_I2C), iAt < 3 ? FX3_FW_FAILED : FX3_FW_SUCCESS);
    }
}

// Two sections, the second longer than a block, and the entry.
Bytes RamImage()
{
    Bytes b = { 'C', 'Y', 0x1C, 0xB0 };
    Put32(b, 2);
    Put32(b, 0x100);
    for (int i = 0; i < 8; ++i)
        b.push_back(uint8_t(0xA0 + i));
    Put32(b, 1000);
    Put32(b, 0x4003'0000);
    const Bytes data = Pattern(4000);
    b.insert(b.end(), data.begin(), data.end());
    Put32(b, 0);
    Put32(b, 0x4003'0000);
    Put32(b, 0xDEADBEEF);  // checksum; not compared
    return b;
}

TEST_F(Loaders, RamOfTheBootLoader)
{
    Attach(true);
    EXPECT_TRUE(IsBootLoaderRunning());
    uint8_t ver = 0;
    EXPECT_FALSE(GetFirmwareVer(&ver));
    EXPECT_EQ(ver, 1);  // QUIRK: no answer reads as version 1
    const Bytes image = RamImage();
    const uint8_t bAddress = m_pBus->Enumerate().at(0).bAddress;
    ASSERT_EQ(Download(image, FX3_MEDIA_RAM), FX3_FW_SUCCESS);
    const auto log = m_pCam->Requests();
    Bytes ram;
    int iWrites = 0;
    for (const kovsim::Request& r : log)
        if (r.bRequest == 160 && !r.bIn && r.wLength != 0 && r.wIndex == 0x4003 && ++iWrites % 3 == 0)
            ram.insert(ram.end(), r.data.begin(), r.data.end());
    EXPECT_EQ(iWrites, 6);  // QUIRK: every block three times
    EXPECT_EQ(ram, Pattern(4000));
    EXPECT_EQ(log.back().wValue, 0);
    EXPECT_EQ(log.back().wIndex, 0x4003);
    EXPECT_EQ(log.back().wLength, 0);

    // The new firmware enumerates anew and serves; the boot loader has gone.
    ASSERT_TRUE(Until([&] { return m_pBus->Enumerate().size() == 1; }));
    EXPECT_NE(m_pBus->Enumerate().at(0).bAddress, bAddress);
    EXPECT_FALSE(GetFirmwareVer(&ver));
    ASSERT_NO_FATAL_FAILURE(Link());
    EXPECT_TRUE(GetFirmwareVer(&ver));
    EXPECT_EQ(ver, m_pCam->Firmware());
    EXPECT_FALSE(IsBootLoaderRunning());
    EXPECT_EQ(Download(image, FX3_MEDIA_RAM), FX3_FW_FAILED);
}

// A block is written three times and only the last time counts.
TEST_F(Loaders, RamFailures)
{
    const Bytes image = RamImage();
    for (const bool bIn : { false, true })
        for (const int iBad : { 1, 2, 3 }) {
            SCOPED_TRACE(testing::Message() << (bIn ? "read" : "write") << " refused " << iBad << " times");
            Attach(true);
            int n = 0;
            m_pTap->OnControl = [&](const ControlSetup& s) {
                return s.bIn == bIn && s.wLength != 0 && n++ < iBad ? Status::Stall : Status::Ok;
            };
            EXPECT_EQ(Download(image, FX3_MEDIA_RAM), iBad < 3 ? FX3_FW_SUCCESS : FX3_FW_FAILED);
        }
    // Gone at any request. The start of the program is not looked at, so it alone does not fail.
    for (int iAt = 0; iAt < 19; ++iAt) {
        SCOPED_TRACE(iAt);
        Attach(true);
        int n = 0;
        m_pTap->OnControl = [&](const ControlSetup&) {
            if (n++ == iAt)
                m_pCam->Unplug();
            return Status::Ok;
        };
        EXPECT_EQ(Download(image, FX3_MEDIA_RAM), iAt < 18 ? FX3_FW_FAILED : FX3_FW_SUCCESS);
    }
}

TEST_F(Loaders, DamagedRamImages)
{
    Attach(true);
    const Bytes good = RamImage();
    for (const char* head : { "XY", "CX", "ZZ" }) {
        Bytes image = good;
        std::copy_n(head, 2, image.begin());
        EXPECT_EQ(Download(image, FX3_MEDIA_RAM), FX3_FW_BAD_SIGNATURE);
    }
    EXPECT_EQ(Download({ 'C' }, FX3_MEDIA_RAM), FX3_FW_BAD_SIGNATURE);
    EXPECT_TRUE(m_pCam->Requests().empty());
    // Cut anywhere before the end mark it is refused, at the latest when its data run out; nothing is started.
    for (size_t n = 2; n + 4 < good.size(); n += n < 40 || n + 40 > good.size() ? 1 : 509) {
        SCOPED_TRACE(n);
        const auto code = Download(Bytes(good.begin(), good.begin() + ptrdiff_t(n)), FX3_MEDIA_RAM);
        // A block that is longer than all of the image is told apart from one that only runs out of it.
        EXPECT_EQ(code, n >= 28 && n < 2048 ? FX3_FW_BLOCK_TOO_LONG : FX3_FW_SECTION_TOO_LONG);
    }
    EXPECT_EQ(m_pBus->Enumerate().size(), 1u);
    EXPECT_TRUE(IsBootLoaderRunning());
    // The count of bytes wraps: the last of these sections is one word long, and zeros behind it end the image.
    for (const uint32_t dwWords : { 0x3FFFFFFFu, 0xFFFFFFFFu, 0x40000001u }) {
        Bytes image = { 'C', 'Y', 0, 0 };
        Put32(image, dwWords);
        Put32(image, 0x100);
        image.resize(3000);
        EXPECT_EQ(Download(image, FX3_MEDIA_RAM), dwWords == 0x40000001u ? FX3_FW_SUCCESS : FX3_FW_SECTION_TOO_LONG);
    }
}

}  // namespace
