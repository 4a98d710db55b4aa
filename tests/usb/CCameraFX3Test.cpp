#include "usb/CCameraFX3.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <utility>

#include "tests/usb/FakeDriver.h"
#include "usb/CUsbLink.h"

namespace {

struct Camera : StackScope, CCameraFX3 {
    FakeUsbDevice& dev;
    explicit Camera(usbstack::Speed speed = usbstack::Speed::Super) : dev(stack.Add(0xC11A, speed))
    {
        ReplaceLink(new CUsbLink(nullptr, m_guid, true));
        m_bOpen = true;
    }
    ~Camera() { ReplaceLink(nullptr); }  // before the stack goes
    std::string Log()
    {
        const std::string s = dev.Log();
        dev.Clear();
        return s;
    }
};

TEST(CCameraFX3, EveryOperationsRequest)
{
    Camera cam;
    uint8_t b = 0, out[3] = { 1, 2, 3 };
    uint16_t w = 0;
    cam.dev.OnIn = [](const RecordedRequest& r, uint8_t* p, uint16_t n) {
        for (uint16_t i = 0; i < n; ++i)
            p[i] = uint8_t(r.bRequest + i);
    };
    EXPECT_TRUE(cam.SendCMD(169));
    EXPECT_EQ(cam.Log(), "out 169 0000 0000\n");
    EXPECT_TRUE(cam.WriteCameraRegister(0x301A, 0x10DC));
    EXPECT_EQ(cam.Log(), "out 166 301a 10dc\n");
    EXPECT_TRUE(cam.ReadCameraRegister(0x3000, &w));
    EXPECT_EQ(w, 0xA7A8);  // high byte first
    EXPECT_EQ(cam.Log(), "in 167 3000 0000: a7 a8\n");
    EXPECT_TRUE(cam.WriteCameraRegisterByte(0x3012, 0xFE));
    EXPECT_TRUE(cam.WriteSONYREG(0x3013, 1));
    EXPECT_EQ(cam.Log(), "out 182 3012 00fe\nout 182 3013 0001\n");
    EXPECT_TRUE(cam.ReadCameraRegisterByte(0x3012, &b));
    EXPECT_EQ(b, 0xB7);
    EXPECT_TRUE(cam.ReadSONYREG(0x3013, &b));
    EXPECT_EQ(cam.Log(), "in 183 3012 0000: b7\nin 183 3013 0000: b7\n");
    EXPECT_TRUE(cam.WriteFPGAREG(0, 0x31));
    EXPECT_TRUE(cam.ReadFPGAREG(11, &b));
    EXPECT_EQ(b, 0xBC);
    EXPECT_EQ(cam.Log(), "out 189 0000 0031\nin 188 000b 0000: bc\n");
    uint8_t aSub[4];
    uint32_t dwVersion = 0;
    EXPECT_TRUE(cam.GetFPGAVer(&b, aSub) && cam.GetFPGAVerVal(&out[0], &dwVersion));
    EXPECT_EQ(dwVersion, 0x0B0C0B0Cu);
    EXPECT_EQ(out[0], 0xBC);
    EXPECT_EQ(cam.Log(), "in 188 001d 0000: bc\nin 188 001e 0000: bc\nin 188 001f 0000: bc\n");
    EXPECT_TRUE(cam.EnableGPIF32DQ(true));
    EXPECT_TRUE(cam.EnableGPIF32DQ(false));
    EXPECT_EQ(cam.Log(), "out 190 0001 0000\nout 190 0000 0000\n");
    out[0] = 1;
    int32_t n = 3;
    EXPECT_TRUE(cam.SendCMD(194, 5, 6, false, out, &n));
    EXPECT_EQ(n, 3);
    EXPECT_TRUE(cam.SendCMD(195, 7, 8, true, out, &n));
    EXPECT_EQ(out[2], 197);
    EXPECT_EQ(cam.Log(), "out 194 0005 0006: 01 02 03\nin 195 0007 0008: c3 c4 c5\n");
    for (const RecordedRequest& r : (cam.SendCMD(170), cam.dev.Take()))
        EXPECT_EQ(r.dwTimeoutMs, 1000u);  // 500 ms in whole seconds
}

TEST(CCameraFX3, BitFields)
{
    const struct {
        uint8_t first, last;
        uint16_t value;
        const char* szWritten;
    } words[] = {
        { 5, 5, 1, "out 166 0010 a525\n" },  // inclusive
        { 4, 7, 0, "out 166 0010 a505\n" },     { 0, 15, 0x1234, "out 166 0010 1234\n" },
        { 8, 11, 0xFF, "out 166 0010 af05\n" },  // excess bits of the value stay out
        { 7, 6, 0xFF, "out 166 0010 a505\n" },  { 40, 50, 1, "out 166 0010 a505\n" },
        { 12, 255, 0, "out 166 0010 0505\n" },
    };
    Camera cam;
    cam.dev.OnIn = [](const RecordedRequest&, uint8_t* p, uint16_t n) {
        p[0] = 0xA5;
        if (n > 1)
            p[1] = 0x05;
    };
    for (const auto& r : words) {
        EXPECT_TRUE(cam.WriteCameraRegister_B(0x10, r.first, r.last, r.value));
        EXPECT_EQ(cam.Log(), std::string("in 167 0010 0000: a5 05\n") + r.szWritten);
    }
    const struct {
        uint8_t first, end, value;
        const char* szWritten;
    } bytes[] = {
        { 1, 2, 1, "out 182 0010 00a7\n" },
        { 5, 5, 1, "out 182 0010 00a5\n" },  // QUIRK: empty field, old value written back
        { 4, 8, 3, "out 182 0010 0035\n" },
        { 0, 7, 0, "out 182 0010 0080\n" },  // the end bit stays out
    };
    for (const auto& r : bytes) {
        EXPECT_TRUE(cam.WriteCameraRegisterByte_B(0x10, r.first, r.end, r.value));
        EXPECT_EQ(cam.Log(), std::string("in 183 0010 0000: a5\n") + r.szWritten);
    }
    // A read that fails counts as 0 and the write goes out all the same.
    cam.dev.OnFail = [](const RecordedRequest& r) { return r.bIn; };
    EXPECT_TRUE(cam.WriteCameraRegister_B(0x10, 4, 4, 1));
    EXPECT_TRUE(cam.WriteCameraRegisterByte_B(0x10, 4, 5, 1));
    EXPECT_EQ(cam.Log(), "in 167 0010 0000\nout 166 0010 0010\nin 183 0010 0000\nout 182 0010 0010\n");
}

TEST(CCameraFX3, Versions)
{
    Camera cam;
    uint8_t reply[2] = { 'V', 3 };
    cam.dev.OnIn = [&](const RecordedRequest& r, uint8_t* p, uint16_t) {
        if (r.bRequest == 173) {
            p[0] = reply[0];
            p[1] = reply[1];
        } else {
            p[0] = r.wValue == 29 ? 7 : r.wValue == 30 ? 0x12 : 0x34;
        }
    };
    uint8_t v = 0;
    EXPECT_TRUE(cam.GetFirmwareVer(&v));
    EXPECT_EQ(v, 3);
    EXPECT_EQ(cam.GetFWVer(), 3);
    reply[0] = 'X';
    EXPECT_TRUE(cam.GetFirmwareVer(&v));
    EXPECT_EQ(v, 1);
    cam.Log();
    uint8_t sub[4];
    EXPECT_TRUE(cam.GetFPGAVer(&v, sub));
    EXPECT_EQ(v, 7);
    EXPECT_EQ(std::vector<uint8_t>(sub, sub + 4), (std::vector<uint8_t>{ 1, 2, 3, 4 }));
    EXPECT_EQ(cam.Log(), "in 188 001d 0000: 07\nin 188 001e 0000: 12\nin 188 001f 0000: 34\n");
    // Only the last transfer's result counts.
    cam.dev.OnFail = [](const RecordedRequest& r) { return r.wValue == 30 || r.bRequest == 173; };
    EXPECT_TRUE(cam.GetFPGAVer(&v, sub));
    EXPECT_EQ(sub[0], 0);
    EXPECT_FALSE(cam.GetFirmwareVer(&v));
    EXPECT_EQ(v, 1);  // QUIRK: no reply reads as version 1
}

TEST(CCameraFX3, UsbThreeHost)
{
    Camera cam;
    uint8_t reply = 1;
    cam.dev.OnIn = [&](const RecordedRequest&, uint8_t* p, uint16_t) { p[0] = reply; };
    EXPECT_TRUE(cam.IsUSB3Host());
    reply = 2;
    EXPECT_FALSE(cam.IsUSB3Host());
    reply = 1;
    cam.dev.OnFail = [](const RecordedRequest&) { return true; };
    EXPECT_FALSE(cam.IsUSB3Host());
}

TEST(CCameraFX3, EndpointAndDeviceReset)
{
    Camera cam;
    EXPECT_TRUE(cam.ResetEndPoint(0x17));  // the argument has no effect
    EXPECT_TRUE(cam.ResetDevice());
    EXPECT_EQ(cam.dev.Events(), (std::vector<std::string>{ "abort 82", "reset 82", "resetport" }));
    EXPECT_EQ(cam.Log(), "");
}

TEST(CCameraFX3, ClosedSendsNothing)
{
    Camera cam;
    cam.m_bOpen = false;
    cam.dev.ClearEvents();
    uint16_t w = 9;
    uint8_t b = 9, sub[4] = {}, data[64] = { 'C', 'Y', 0xC };
    uint32_t u = 0;
    int32_t n = 1;
    EXPECT_FALSE(cam.SendCMD(169));
    EXPECT_FALSE(cam.SendCMD(169, 0, 0, true, &b, &n));
    EXPECT_FALSE(cam.WriteCameraRegister(1, 1));
    EXPECT_FALSE(cam.ReadCameraRegister(1, &w));
    EXPECT_EQ(w, 0);
    EXPECT_FALSE(cam.ReadFPGAREG(1, &b));
    EXPECT_EQ(b, 9);
    EXPECT_FALSE(cam.GetFirmwareVer(&b));
    EXPECT_EQ(b, 9);  // as the caller set it
    EXPECT_FALSE(cam.ReadCameraRegisterByte(1, &b));
    EXPECT_EQ(b, 0);
    EXPECT_FALSE(cam.WriteCameraRegister_B(1, 0, 1, 1));
    EXPECT_FALSE(cam.WriteCameraRegisterByte_B(1, 0, 1, 1));
    EXPECT_FALSE(cam.WriteFPGAREG(1, 1));
    EXPECT_FALSE(cam.EnableGPIF32DQ(true));
    EXPECT_FALSE(cam.GetFPGAVer(&b, sub));
    EXPECT_FALSE(cam.GetFPGAVerVal(&b, &u));
    EXPECT_FALSE(cam.IsUSB3Host());
    EXPECT_FALSE(cam.ResetEndPoint(0x82));
    EXPECT_FALSE(cam.ResetDevice());
    EXPECT_FALSE(cam.UpdateFW(data, 5));
    EXPECT_FALSE(cam.UpdateFW2RAM(data, 5));
    EXPECT_FALSE(cam.EraseFlash());
    EXPECT_FALSE(cam.IsBootLoaderRunning());
    EXPECT_FALSE(cam.SetProgramEntry(160, 1));
    EXPECT_EQ(cam.EraseSectorOfSPIFlash(0, 196), FX3_FW_FAILED);
    EXPECT_EQ(cam.Log(), "");
    EXPECT_TRUE(cam.dev.Events().empty());
}

void ExpectGivenUpAfterHalfASecond(Camera& cam)
{
    uint8_t b = 0;
    const uint32_t start = platform::Ticks();
    EXPECT_FALSE(cam.ReadCameraRegisterByte(1, &b));
    const uint32_t took = platform::Ticks() - start;
    EXPECT_GE(took, 490u);
    EXPECT_LT(took, 750u);
    EXPECT_EQ(b, 0);
}

// Given up after half a second and cancelled: the requests behind it reach the camera, also when the reply never comes.
TEST(CCameraFX3, SlowReplyFailsAlone)
{
    Camera cam;
    std::atomic<bool> bSlow = true, bAborted = false;
    cam.dev.OnAbortControl = [&] { bAborted = true; };
    cam.dev.OnIn = [&](const RecordedRequest&, uint8_t* p, uint16_t) {
        const uint32_t dwStart = platform::Ticks();
        for (const bool bWait = bSlow.exchange(false); bWait && !bAborted && platform::Ticks() - dwStart < 5000;)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        p[0] = 5;
    };
    ExpectGivenUpAfterHalfASecond(cam);
    EXPECT_TRUE(bAborted);
    for (int i = 0; i < 3; ++i) {
        uint8_t b = 0;
        EXPECT_TRUE(cam.ReadCameraRegisterByte(2, &b));
        EXPECT_EQ(b, 5);
    }
}

// A device that keeps time limits is asked by the thread that waits for the answer, for half a second too.
TEST(CCameraFX3, KeptTimeLimitsNeedNoOtherThread)
{
    Camera cam;
    cam.dev.keepsTimeLimits = true;
    cam.dev.failStatus = usbstack::Status::TimedOut;
    const std::thread::id caller = std::this_thread::get_id();
    bool slow = true;
    cam.dev.OnFail = [&](const RecordedRequest& r) {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        if (slow)
            platform::SleepMs(r.dwTimeoutMs);
        return std::exchange(slow, false);
    };
    ExpectGivenUpAfterHalfASecond(cam);
    uint8_t b = 0;
    EXPECT_TRUE(cam.ReadCameraRegisterByte(2, &b));
}

// Registers written by several threads while another takes the link away and brings it back.
TEST(CCameraFX3, LinkReplacedUnderTraffic)
{
    for (const bool keeps : { false, true }) {
        Camera cam;
        cam.dev.keepsTimeLimits = keeps;
        std::atomic<bool> bStop = false;
        std::atomic<int> iGood = 0;
        const auto Traffic = [&](uint8_t value) {
            while (!bStop) {
                iGood += cam.WriteCameraRegisterByte(value, value) ? 1 : 0;
                cam.ResetEndPoint(0x82);
            }
        };
        std::thread a(Traffic, uint8_t{ 1 }), b(Traffic, uint8_t{ 2 });
        for (int i = 0; i < 30; ++i) {
            cam.ReplaceLink(nullptr);
            cam.ReplaceLink(new CUsbLink(nullptr, cam.m_guid, true));
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        bStop = true;
        a.join();
        b.join();
        EXPECT_GT(iGood, 0);
        for (const RecordedRequest& r : cam.dev.Take())
            EXPECT_EQ(r.wValue, r.wIndex);  // no request was put together from two
    }
}

}  // namespace
