#include "usb/FirmwareImages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <numeric>

#include "support/TempStore.h"
#include "tests/usb/FakeDriver.h"
#include "usb/CCameraFX3.h"
#include "usb/CUsbLink.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes Pattern(size_t n, uint8_t seed)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = uint8_t(seed + i * 7 + i / 251);
    return b;
}

// A C2 image of exactly n bytes: records of at most 0x3FF bytes, then the end record.
Bytes C2Image(size_t n)
{
    Bytes b = { 0xC2, 0x47, 0x05, 0x31, 0x21, 0, 0, 4 };
    uint16_t wAddress = 0x100;
    while (b.size() + 5 < n) {
        const size_t size = std::min<size_t>(0x3FF, n - 5 - b.size() - 4);
        const Bytes d = Pattern(size, uint8_t(wAddress));
        b.insert(b.end(), { uint8_t(size >> 8), uint8_t(size), uint8_t(wAddress >> 8), uint8_t(wAddress) });
        b.insert(b.end(), d.begin(), d.end());
        wAddress = uint16_t(wAddress + size);
    }
    b.insert(b.end(), { 0x80, 0x01, 0xE6, 0x00, 0x00 });
    return b;
}

struct Loader : testing::Test, StackScope, CCameraFX3 {
    FakeUsbDevice& dev = stack.Add(0xC11A);
    Bytes part1 = Pattern(2048, 1), part2 = Pattern(1427, 2);
    Bytes memory = Bytes(1 << 20);  // what writes leave and reads bring: EEPROM or RAM by address
    uint8_t bReadRequest = 169;     // reads by this request come from the memory

    Loader()
    {
        ReplaceLink(new CUsbLink(nullptr, m_guid, true));
        m_bOpen = true;
        SetFirmware(FirmwareId::LoaderPart1, { part1.data(), int32_t(part1.size()) });
        SetFirmware(FirmwareId::LoaderPart2, { part2.data(), int32_t(part2.size()) });
        dev.OnFail = [this](const RecordedRequest& r) {
            if (!r.bIn && r.bRequest == bReadRequest)
                std::copy(r.data.begin(), r.data.end(), memory.begin() + At(r));
            return false;
        };
        dev.OnIn = [this](const RecordedRequest& r, uint8_t* p, uint16_t n) {
            if (r.bRequest == bReadRequest)
                std::copy_n(memory.begin() + At(r), n, p);
        };
    }
    ~Loader() override
    {
        ClearFirmware();
        ReplaceLink(nullptr);
    }
    static ptrdiff_t At(const RecordedRequest& r) { return r.wValue + (ptrdiff_t{ r.wIndex } << 16); }
    // "in|out request value index length" of each, without the data.
    std::vector<std::string> Shapes()
    {
        std::vector<std::string> v;
        for (const RecordedRequest& r : dev.Take()) {
            char sz[64];
            std::snprintf(sz, sizeof sz, "%s %u %04x %04x %u", r.bIn ? "in" : "out", r.bRequest, r.wValue, r.wIndex, r.wLength);
            v.push_back(sz);
        }
        return v;
    }
};
using Lines = std::vector<std::string>;
const Lines g_LoaderStart = { "out 160 e600 0000 1", "out 160 0000 0000 2048", "out 160 0800 0000 1427", "out 160 e600 0000 1" };

Lines operator+(Lines a, const Lines& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

TEST_F(Loader, UpdateWritesComparesAndStartsTheImage)
{
    const Bytes image = C2Image(4299);
    EXPECT_TRUE(UpdateFW(image.data(), 4299));
    const auto requests = dev.Requests();
    EXPECT_EQ(requests[0].data, Bytes{ 1 });  // hold, then run
    EXPECT_EQ(requests[1].data, part1);
    EXPECT_EQ(requests[2].data, part2);
    EXPECT_EQ(requests[3].data, Bytes{ 0 });
    EXPECT_EQ(requests[4].data, Bytes(image.begin(), image.begin() + 4096));
    EXPECT_EQ(requests[9].wValue, 0x100);  // the first record, behind the hold
    EXPECT_EQ(requests[9].data, Bytes(image.begin() + 12, image.begin() + 12 + 0x3FF));
    const Lines got = Shapes();
    const Lines expected = g_LoaderStart + Lines{ "out 169 0000 0000 4096", "out 169 1000 0000 203",  "in 169 0000 0000 4096",
                                                  "in 169 1000 0000 203",   "out 160 e600 0000 1",    "out 160 0100 0000 1023",
                                                  "out 160 04ff 0000 1023", "out 160 08fe 0000 1023", "out 160 0cfd 0000 1023",
                                                  "out 160 10fc 0000 174",  "out 160 e600 0000 1" };
    EXPECT_EQ(got, expected);
    dev.Clear();
    EXPECT_TRUE(UpdateFW(image.data(), 0));
    EXPECT_EQ(Shapes(), g_LoaderStart) << "no length, no records";
}

TEST_F(Loader, BlockSizes)
{
    const auto Written = [&](int32_t n) {
        const Bytes image = Pattern(size_t(n), 3);
        dev.Clear();
        const bool bOk = UpdateFW(image.data(), n);
        Lines v;
        for (const std::string& s : Shapes())
            if (s.starts_with("out 169"))
                v.push_back(s);
        return std::pair(bOk, v);
    };
    EXPECT_EQ(Written(4096), std::pair(true, Lines{ "out 169 0000 0000 4096" }));
    EXPECT_EQ(Written(5000), std::pair(true, Lines{ "out 169 0000 0000 4096", "out 169 1000 0000 904" }));
    // QUIRK: the second half is never written, so all three attempts fail.
    std::fill(memory.begin(), memory.end(), uint8_t{ 0 });
    const Lines two = { "out 169 0000 0000 4096", "out 169 1000 0000 0" };
    EXPECT_EQ(Written(8192), std::pair(false, two + two + two));
}

TEST_F(Loader, QuirkThirdGoodAttemptCountsAsFailure)
{
    const Bytes image = C2Image(600);
    for (const int iGoodAttempt : { 1, 2, 3, 4 }) {
        int iReads = 0;
        dev.OnIn = [&](const RecordedRequest& r, uint8_t* p, uint16_t n) {
            if (r.bRequest == 169 && ++iReads >= iGoodAttempt)
                std::copy_n(memory.begin(), n, p);
        };
        EXPECT_EQ(UpdateFW(image.data(), 600), iGoodAttempt < 3);
        EXPECT_EQ(iReads, std::min(iGoodAttempt, 3));
        // The image is started whatever the comparison said.
        EXPECT_EQ(dev.Take().back().data, Bytes{ 0 });
    }
}

// Every request of an update refused once, twice, always: a block is tried three times, of which the last does not count;
// nothing else is looked at.
TEST_F(Loader, RefusedRequests)
{
    const Bytes image = C2Image(4299);
    UpdateFW(image.data(), 4299);
    const auto all = dev.Take();
    ASSERT_EQ(all.size(), 15u);
    for (size_t i = 0; i < all.size(); ++i)
        for (const int iTimes : { 1, 2, 1000 }) {
            SCOPED_TRACE(testing::Message() << all[i].Text().substr(0, 18) << ", refused " << iTimes << " times");
            std::fill(memory.begin(), memory.end(), uint8_t{ 0 });
            dev.OnFail = [&, n = 0](const RecordedRequest& r) mutable {
                if (r.bIn == all[i].bIn && r.bRequest == all[i].bRequest && r.wValue == all[i].wValue && n++ < iTimes)
                    return true;
                if (!r.bIn && r.bRequest == 169)
                    std::copy(r.data.begin(), r.data.end(), memory.begin() + At(r));
                return false;
            };
            const bool bBlock = all[i].bRequest == 169;
            EXPECT_EQ(UpdateFW(image.data(), 4299), !bBlock || iTimes == 1);
            EXPECT_EQ(std::equal(image.begin(), image.end(), memory.begin()), !bBlock || all[i].bIn || iTimes < 3);
        }
}

TEST_F(Loader, WithoutTheLoaderNothingIsSent)
{
    SetFirmware(FirmwareId::LoaderPart2, {});
    const Bytes image = C2Image(600);
    EXPECT_FALSE(UpdateFW(image.data(), 600));
    EXPECT_FALSE(EraseFlash());
    EXPECT_FALSE(UpdateFW(nullptr, 0));
    EXPECT_EQ(Shapes(), Lines{});
}

TEST_F(Loader, RamLoadIgnoresErrorsAndStaysInsideTheImage)
{
    Bytes image = C2Image(600);
    dev.OnFail = [](const RecordedRequest&) { return true; };
    EXPECT_TRUE(UpdateFW2RAM(image.data(), 0));  // the length is not needed
    EXPECT_EQ(Shapes(), (Lines{ "out 160 e600 0000 1", "out 160 0100 0000 583", "out 160 e600 0000 1" }));
    // A record that claims more than there is, and an image without an end record.
    image[8] = 0x7F;
    EXPECT_TRUE(UpdateFW2RAM(image.data(), 600));
    EXPECT_EQ(Shapes(), (Lines{ "out 160 e600 0000 1", "out 160 e600 0000 1" }));
    image = C2Image(600);
    image.resize(595);
    EXPECT_TRUE(UpdateFW2RAM(image.data(), 595));
    EXPECT_EQ(Shapes().size(), 3u);
}

TEST_F(Loader, EraseFlashWritesAnEmptyHead)
{
    EXPECT_TRUE(EraseFlash());
    const auto r = dev.Requests().at(4);
    EXPECT_EQ(r.data.size(), 4096u);
    EXPECT_EQ(r.data[0], 0xC2);
    EXPECT_EQ(std::accumulate(r.data.begin() + 1, r.data.end(), 0), 0);
    EXPECT_EQ(Shapes(), g_LoaderStart + (Lines{ "out 169 0000 0000 4096", "in 169 0000 0000 4096" }));
    dev.OnIn = nullptr;
    EXPECT_FALSE(EraseFlash());
    EXPECT_EQ(Shapes().size(), 4u + 6);
}

TEST_F(Loader, AddressHalves)
{
    uint8_t ab[2] = {};
    EXPECT_TRUE(DownloadBufferToDevice(0x40012345, 2, ab, 160));
    EXPECT_TRUE(UploadBufferFromDevice(0x40012345, 2, ab, 160));
    EXPECT_TRUE(SetProgramEntry(160, 0x40012345));  // QUIRK: the other way round
    EXPECT_TRUE(IsBootLoaderRunning());
    EXPECT_TRUE(WriteToSPIFlash(ab, 2, 0x40000, 194));
    EXPECT_TRUE(ReadFromSPIFlash(ab, 2, 0x70100, 195));
    EXPECT_EQ(Shapes(), (Lines{ "out 160 2345 4001 2", "in 160 2345 4001 2", "out 160 4001 2345 0", "in 160 0000 0000 1",
                                "out 194 0000 0400 2", "in 195 0000 0701 2" }));
}

TEST_F(Loader, SectorErasePollsUntilIdle)
{
    int iBusy = 3;
    dev.OnIn = [&](const RecordedRequest&, uint8_t* p, uint16_t) { p[0] = iBusy > 0 ? uint8_t(iBusy--) : uint8_t(0); };
    EXPECT_EQ(EraseSectorOfSPIFlash(0x10007, 196), FX3_FW_SUCCESS);  // 16 bits of the sector
    EXPECT_EQ(Shapes(), (Lines{ "out 196 0001 0007 0", "in 196 0000 0007 1", "in 196 0000 0007 1", "in 196 0000 0007 1",
                                "in 196 0000 0007 1" }));
    dev.OnFail = [](const RecordedRequest&) { return true; };
    EXPECT_FALSE(IsBootLoaderRunning());
}

TEST_F(Loader, SpiImage)
{
    Bytes image = Pattern(65537, 9);
    EXPECT_EQ(DownloadBuftoSPIFLASH(image.data(), 65537, 196), FX3_FW_SUCCESS);
    const auto requests = dev.Requests();
    int iErased = 0;
    uint32_t dwWritten = 0;
    for (const RecordedRequest& r : requests) {
        iErased += !r.bIn && r.bRequest == 196 ? 1 : 0;
        if (r.bRequest == 194) {
            EXPECT_EQ(r.wIndex, dwWritten >> 8);
            dwWritten += r.wLength;
        }
    }
    EXPECT_EQ(iErased, 2);
    EXPECT_EQ(dwWritten, 65792u);
    // QUIRK: behind the image the last page holds what the one before left.
    const Bytes& last = requests.back().data;
    ASSERT_EQ(last.size(), 256u);
    EXPECT_EQ(last[0], image[65536]);
    EXPECT_EQ(last[1], image[63489]);

    dev.Clear();
    EXPECT_EQ(DownloadBuftoSPIFLASH(image.data(), 4096, 196), FX3_FW_SUCCESS);
    EXPECT_EQ(Shapes().size(), 4u) << "erase, its poll, two blocks";

    for (int iRefused = 0; iRefused < 5; ++iRefused) {  // erase, its poll, three blocks
        dev.OnFail = [n = 0, iRefused](const RecordedRequest&) mutable { return n++ == iRefused; };
        dev.Clear();
        EXPECT_EQ(DownloadBuftoSPIFLASH(image.data(), 5000, 196), iRefused < 2 ? FX3_FW_ERASE_FAILED : FX3_FW_FAILED);
        EXPECT_EQ(Shapes().size(), size_t(iRefused + 1)) << "ends at the first failure";
    }
}

TEST_F(Loader, I2cImage)
{
    Bytes image = Pattern(0x48000 + 100, 4);
    image[2] = 4;  // 4096-byte devices
    EXPECT_EQ(DownloadBuftoI2CE2PROM(image.data(), 2048, 186), FX3_FW_SUCCESS);
    EXPECT_EQ(Shapes(), (Lines{ "out 186 0000 0000 2048" }));  // a whole page, no read-back
    EXPECT_EQ(DownloadBuftoI2CE2PROM(image.data(), 2 * 4096 + 100, 186), FX3_FW_SUCCESS);
    const auto requests = dev.Requests();
    EXPECT_EQ(requests[4].data.size(), 128u);  // padded to 64 with zeros
    EXPECT_EQ(requests[4].data[99], image[8291]);
    EXPECT_EQ(requests[4].data[100], 0);
    EXPECT_EQ(Shapes(), (Lines{ "out 186 0000 0000 2048", "out 186 0000 0800 2048", "out 186 0001 0000 2048",
                                "out 186 0001 0800 2048", "out 186 0002 0000 128", "in 187 0002 0000 128" }));

    // Eight devices, then the first again.
    EXPECT_EQ(DownloadBuftoI2CE2PROM(image.data(), 8 * 4096 + 2048, 186), FX3_FW_SUCCESS);
    EXPECT_EQ(Shapes().back(), "out 186 0000 0000 2048");

    // The large device: its halves and its neighbour have numbers of their own.
    image[2] = 0xFF;
    EXPECT_EQ(DownloadBuftoI2CE2PROM(image.data(), 0x48000, 186), FX3_FW_SUCCESS);
    const Lines pages = Shapes();
    ASSERT_EQ(pages.size(), 0x48000u / 2048);
    const char* const aszFirst[] = { "out 186 0000 0000 2048", "out 186 0004 0000 2048", "out 186 0001 0000 2048",
                                     "out 186 0005 0000 2048", "out 186 0005 0000 2048" };
    for (size_t i = 0; i < std::size(aszFirst); ++i)
        EXPECT_EQ(pages[i * 32], aszFirst[i]);

    for (const int code : { 0, 1 }) {
        image[2] = static_cast<uint8_t>(code << 1);
        EXPECT_EQ(DownloadBuftoI2CE2PROM(image.data(), 4096, 186), FX3_FW_BAD_I2C_SIZE);
    }
    EXPECT_EQ(DownloadBuftoI2CE2PROM(image.data(), 2, 186), FX3_FW_BAD_I2C_SIZE);
    EXPECT_EQ(Shapes(), Lines{});
    for (const int code : { 2, 3, 4, 5, 6 }) {  // where a device ends the next one begins
        image[2] = static_cast<uint8_t>(0xF1 | code << 1);
        EXPECT_EQ(DownloadBuftoI2CE2PROM(image.data(), (1024 << code) + 2048, 186), FX3_FW_SUCCESS);
        const Lines device = Shapes();
        EXPECT_EQ(device[device.size() - 2].substr(0, 12), "out 186 0000") << code;
        EXPECT_EQ(device.back(), "out 186 0001 0000 2048") << code;
    }
    image[2] = 4;
    for (int iRefused = 0; iRefused < 4; ++iRefused) {  // page, rest, read-back
        dev.OnFail = [n = 0, iRefused](const RecordedRequest&) mutable { return n++ == iRefused; };
        EXPECT_EQ(DownloadBuftoI2CE2PROM(image.data(), 2048 + 10, 186), iRefused < 3 ? FX3_FW_FAILED : FX3_FW_SUCCESS);
    }
}

TEST_F(Loader, RamImage)
{
    bReadRequest = 160;
    memory.resize(0x110000);
    Bytes image = {
        'C', 'Y', 0, 0, 2, 0, 0, 0, 0x00, 0x01, 0x03, 0x00, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0, 0x45, 0x23, 0x01, 0x40
    };
    const auto Load = [&] { return DownloadFwToRam(image.data(), uint32_t(image.size()), 160); };
    EXPECT_EQ(Load(), FX3_FW_SUCCESS);
    const Lines tries = { "out 160 0100 0003 8", "in 160 0100 0003 8" };
    EXPECT_EQ(Shapes(), tries + tries + tries + Lines{ "out 160 2345 4001 0" });  // QUIRK: written three times

    // Only the last try counts.
    for (const bool bIn : { false, true })
        for (const int iRefused : { 2, 3 }) {
            dev.OnFail = [=, n = 0](const RecordedRequest& r) mutable {
                return r.bIn == bIn && r.wLength != 0 && n++ < iRefused;
            };
            EXPECT_EQ(Load(), iRefused < 3 ? FX3_FW_SUCCESS : FX3_FW_FAILED);
        }
    dev.OnFail = nullptr;
    dev.OnIn = nullptr;  // reads zeros: a difference
    EXPECT_EQ(Load(), FX3_FW_FAILED);

    image[0] = 'X';
    dev.Clear();
    EXPECT_EQ(Load(), FX3_FW_BAD_SIGNATURE);
    EXPECT_EQ(DownloadFwToRam(image.data(), 1, 160), FX3_FW_BAD_SIGNATURE);
    EXPECT_EQ(Shapes(), Lines{});
}

TEST_F(Loader, RamImageThatEndsTooEarly)
{
    bReadRequest = 160;
    Bytes image = { 'C', 'Y', 0, 0, 8, 0, 0, 0, 0, 0, 0, 0 };
    image.resize(36, 1);
    image.shrink_to_fit();
    // 32 bytes claimed, 24 there: written with zeros for the rest, then error 5.
    EXPECT_EQ(DownloadFwToRam(image.data(), 36, 160), FX3_FW_SECTION_TOO_LONG);
    EXPECT_EQ(dev.Take().front().data.back(), 0);
    image[5] = 1;  // a block longer than the whole image
    EXPECT_EQ(DownloadFwToRam(image.data(), 36, 160), FX3_FW_BLOCK_TOO_LONG);
    EXPECT_EQ(Shapes(), Lines{});

    // A section of two words and one of a thousand, cut anywhere before the end mark. A block that is longer than all of
    // the image is told apart from one that only runs out of it.
    Bytes whole = { 'C', 'Y', 0, 0, 2, 0, 0, 0, 0, 1, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 0xE8, 3, 0, 0, 0, 0x30, 0, 0 };
    whole.resize(28 + 4000, 6);
    for (size_t n = 2; n < whole.size(); n += n < 40 || n + 40 > whole.size() ? 1 : 509) {
        image.assign(whole.begin(), whole.begin() + ptrdiff_t(n));
        image.shrink_to_fit();
        EXPECT_EQ(DownloadFwToRam(image.data(), uint32_t(n), 160),
                  n >= 28 && n < 2048 ? FX3_FW_BLOCK_TOO_LONG : FX3_FW_SECTION_TOO_LONG)
            << n;
    }
    // The count of bytes wraps: the last of these sections is one word long, and zeros behind it end the image.
    for (const uint8_t b : { uint8_t{ 0x3F }, uint8_t{ 0xFF }, uint8_t{ 0x40 } }) {
        const uint8_t lo = b == 0x40 ? 0 : 0xFF;
        image = { 'C', 'Y', 0, 0, uint8_t(lo | 1), lo, lo, b, 0, 1, 0, 0 };
        image.resize(3000);
        EXPECT_EQ(DownloadFwToRam(image.data(), 3000, 160), b == 0x40 ? FX3_FW_SUCCESS : FX3_FW_SECTION_TOO_LONG);
    }
}

TEST_F(Loader, FromFile)
{
    const TempStore store;
    const std::string sPath = (store.Dir() / "image.bin").string(), sFolder = store.Dir().string();
    const char* const szPath = sPath.c_str();
    std::ofstream file(sPath, std::ios::binary);
    EXPECT_EQ(DownloadFw(szPath, FX3_MEDIA_RAM), FX3_FW_NO_FILE);  // empty
    const Bytes image = { 'C', 'Y', 4, 0, 0, 0, 0, 0, 0x45, 0x23, 0x01, 0x40 };
    file.write(reinterpret_cast<const char*>(image.data()), std::streamsize(image.size()));
    file.close();
    EXPECT_EQ(DownloadFw(szPath, FX3_FWDWNLOAD_MEDIA_TYPE(0)), FX3_FW_BAD_MEDIA_TYPE);
    EXPECT_EQ(Shapes(), Lines{});
    EXPECT_EQ(DownloadFw(szPath, FX3_MEDIA_RAM), FX3_FW_SUCCESS);
    EXPECT_EQ(DownloadFw(szPath, FX3_MEDIA_I2C), FX3_FW_SUCCESS);
    EXPECT_EQ(DownloadFw(szPath, FX3_MEDIA_SPI), FX3_FW_SUCCESS);
    EXPECT_EQ(Shapes(), (Lines{ "out 160 2345 4001 0", "out 186 0000 0000 64", "in 187 0000 0000 64", "out 196 0001 0000 0",
                                "in 196 0000 0000 1", "out 194 0000 0000 256" }));
    std::filesystem::remove(sPath);
    EXPECT_EQ(DownloadFw(szPath, FX3_MEDIA_RAM), FX3_FW_NO_FILE);
    EXPECT_EQ(DownloadFw(sFolder.c_str(), FX3_MEDIA_RAM), FX3_FW_NO_FILE);
    EXPECT_EQ(DownloadFw("/proc/self/mem", FX3_MEDIA_RAM), FX3_FW_NO_FILE);  // opens, but has no size
}

}  // namespace
