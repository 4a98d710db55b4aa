#include <gtest/gtest.h>

#include <cmath>

#include "camera/TestCamera.h"
#include "thermal/Thermistor.h"

using CoolCamera = TestCameraOf<CCameraCool>;

namespace {

// The code sent last is one for the process; makes sure that the next one differs from it.
void Forget(CCameraCool& cam) { cam.SetDA(-1); }

void Reply(FakeUsbDevice& dev, uint8_t b0, uint8_t b1)
{
    dev.OnIn = [=](const RecordedRequest&, uint8_t* p, uint16_t n) {
        ASSERT_EQ(n, 2);
        p[0] = b0;
        p[1] = b1;
    };
}

}  // namespace

TEST(Thermal, Thermistor)
{
    FakeUsb usb;
    TestCamera cam;
    EXPECT_EQ(cam.CalculTempuature(128, 10), 25.0f);  // as much as the series resistor
    for (const int ad : { 0, 11, 233, 255 })          // beyond the table: the last good one
        EXPECT_EQ(cam.CalculTempuature(static_cast<uint8_t>(ad), 10), 25.0f) << ad;
    EXPECT_NEAR(cam.CalculTempuature(12, 10), 111.0f, 0.01f);
    EXPECT_NEAR(cam.CalculTempuature(232, 10), -19.83f, 0.01f);
    TestCamera other;
    EXPECT_NEAR(other.CalculTempuature(0, 10), -19.83f, 0.01f);  // QUIRK: shared by all cameras
    float fBefore = 200;
    for (int ad = 12; ad <= 232; ++ad) {
        const float f = cam.CalculTempuature(static_cast<uint8_t>(ad), 10);
        EXPECT_LT(f, fBefore) << ad;
        fBefore = f;
    }

    // The curve is smooth: an error of a thousandth in any row is a kink.
    for (size_t i = 1; i + 1 < g_ThermistorTable.size(); ++i) {
        const double ln[] = { std::log(g_ThermistorTable[i - 1].kOhm), std::log(g_ThermistorTable[i].kOhm),
                              std::log(g_ThermistorTable[i + 1].kOhm) };
        EXPECT_NEAR(ln[0] - 2 * ln[1] + ln[2], 2e-4, 2.5e-4) << g_ThermistorTable[i].degrees;
    }

    usb.Connect(cam);
    Reply(usb.dev, 0x0F, 0xF8);  // 0x80 between two nibbles that do not count
    EXPECT_EQ(cam.GetADTemp(), 25.0f);
    EXPECT_EQ(usb.dev.Log(), "in 199 0000 0000: 0f f8\n");
    cam.CalculTempuature(232, 10);
    usb.dev.OnFail = [](const RecordedRequest&) { return true; };
    EXPECT_NEAR(cam.GetADTemp(), -19.83f, 0.01f) << "no reading: the last good one";
}

TEST(Thermal, DigitalForm)
{
    FakeUsb usb;
    TestCamera cam;
    EXPECT_EQ(cam.ReadDigitalTemp(), 0.0f);
    usb.Connect(cam);
    const struct {
        uint8_t b0, b1;
        float f;
    } rows[] = {
        { 0x0F, 0x19, 25.0f },   { 0x00, 0xFF, -1.0f },   { 0xF0, 0x7F, 127.9375f },
        { 0x00, 0x80, -128.0f }, { 0x10, 0x00, 0.0625f }, { 0x0F, 0x00, 0.0625f },  // QUIRK: zero is no reading
    };
    for (const auto& r : rows) {
        Reply(usb.dev, r.b0, r.b1);
        EXPECT_EQ(cam.ReadDigitalTemp(), r.f);
    }
    Reply(usb.dev, 0, 0x19);
    usb.dev.OnFail = [](const RecordedRequest&) { return true; };
    EXPECT_EQ(cam.ReadDigitalTemp(), 0.0625f);
    EXPECT_EQ(cam.m_fSensorTemp, 0.0625f);
}

TEST(Cooler, PowerToCode)
{
    FakeUsb usb;
    CoolCamera cam;
    usb.Connect(cam);
    EXPECT_EQ(cam.m_fDAMin, 40.0f);
    EXPECT_EQ(cam.m_fDAMax, 255.0f);
    EXPECT_EQ(cam.m_fCurrentMax, 1.83f);
    EXPECT_EQ(cam.m_fLastTemp, -100.0f);
    const struct {
        float fPercent;
        int iCode;
        float fStored;
    } rows[] = {
        { 100, 40, 100 }, { 0, 255, 0 }, { 50, 110, 50 }, { 150, 40, 100 }, { -5, 255, 0 }, { 33.9f, 139, 33.9f }, { 6, 217, 6 },
    };
    for (const auto& r : rows) {
        Forget(cam);
        usb.dev.Clear();
        cam.SetPowerPerc(r.fPercent);
        cam.SetPowerPerc(r.fPercent);  // the same code goes out once
        ASSERT_EQ(usb.dev.Requests().size(), 1u);
        EXPECT_EQ(usb.dev.Requests()[0].bRequest, REQ_COOLER_DA);
        EXPECT_EQ(usb.dev.Requests()[0].wValue, r.iCode) << r.fPercent;
        EXPECT_EQ(cam.m_iCurDA, r.iCode);
        EXPECT_EQ(cam.m_fCoolPowerPerc, r.fStored);
    }
    cam.SetPowerPerc(33.9f);
    EXPECT_EQ(cam.GetPowerPerc(), 33);
    const struct {
        int iCode, iPercent;
    } codes[] = { { 255, 0 }, { 40, 100 }, { 110, 50 }, { 300, 0 }, { 0, 100 } };
    for (const auto& r : codes)
        EXPECT_EQ(cam.CalculIPerc(r.iCode), r.iPercent) << r.iCode;
    for (float f = -0.5f; f < 3; f += 0.01f) {
        EXPECT_GE(cam.CalculDA(f), 40);
        EXPECT_LE(cam.CalculDA(f), 255);
    }
}

TEST(Cooler, QuirkTheLastCodeIsSharedByAllCameras)
{
    FakeUsb usb;
    CoolCamera a, b;
    usb.Connect(a);
    usb.Connect(b);
    a.SetDA(100);
    b.SetDA(120);
    usb.dev.Clear();
    a.SetDA(120);
    EXPECT_EQ(usb.dev.Log(), "");
    EXPECT_EQ(a.m_iCurDA, 100);
}

TEST(Cooler, RegulatorStep)
{
    CoolCamera cam;
    const auto threeSecondsLater = [&] { cam.m_dwLastTempTick = platform::Ticks() - 3000; };
    Forget(cam);
    cam.SetPowerPerc(0);
    cam.SetAutoTemp(true, -10.9f);
    EXPECT_EQ(cam.m_iTargetTemp, -10);
    EXPECT_EQ(cam.m_PID.fLastErr, -200.0f);

    cam.AutoTemp(20);  // first step: no derivative; goes on until the code changes
    EXPECT_EQ(cam.m_PID.fErr, -30.0f);
    EXPECT_EQ(cam.m_PID.fOut, -30.0f * 0.2f);
    EXPECT_EQ(cam.m_fCoolPowerPerc, 30.0f * 0.2f);
    EXPECT_EQ(cam.m_iCurDA, 217);

    threeSecondsLater();
    cam.AutoTemp(28);  // 8 degrees within 3 seconds
    EXPECT_EQ(cam.m_fLastTemp, 20.0f);
    EXPECT_EQ(cam.m_PID.fLastErr, -30.0f);
    cam.AutoTemp(19);
    EXPECT_EQ(cam.m_fLastTemp, 19.0f);
    EXPECT_NEAR(cam.m_PID.fOut, -5.2f, 1e-5f);
    EXPECT_NEAR(cam.m_fCoolPowerPerc, 11.2f, 1e-5f);

    cam.m_bAutoTemp = false;  // the filter runs on, the output stays
    threeSecondsLater();
    cam.AutoTemp(18);
    EXPECT_EQ(cam.m_fLastTemp, 18.0f);
    EXPECT_NEAR(cam.m_fCoolPowerPerc, 11.2f, 1e-5f);
}

TEST(Cooler, SmallErrorsStepOnceLargerOnesInsist)
{
    CoolCamera cam;
    Forget(cam);
    const auto step = [&](float fPower, float fTemp) {
        cam.SetPowerPerc(fPower);
        cam.SetAutoTemp(true, 20);
        cam.m_dwLastTempTick = 0;
        cam.AutoTemp(fTemp);
    };
    step(50, 19.61f);  // e = 0.39: one step of 0.078, which rounds to the same code
    EXPECT_EQ(cam.m_iCurDA, 110);
    EXPECT_NEAR(cam.m_fCoolPowerPerc, 49.922f, 1e-4f);
    step(50, 19.58f);  // e = 0.42: steps of 0.084 until the code changes
    EXPECT_EQ(cam.m_iCurDA, 111);
    EXPECT_NEAR(cam.m_fCoolPowerPerc, 49.664f, 1e-3f);
    step(100, 25);  // at the limit: nothing left to do
    EXPECT_EQ(cam.m_fCoolPowerPerc, 100.0f);
    step(100, 19);  // but to leave it, where it is too cold
    EXPECT_LT(cam.m_fCoolPowerPerc, 100.0f);
    step(0, 10);
    EXPECT_EQ(cam.m_fCoolPowerPerc, 0.0f);
    // The code never changes for this camera because another one has sent it: the step ends at the limit.
    CoolCamera other;
    step(50, 19.5f);
    other.SetPowerPerc(49.6f);
    cam.m_dwLastTempTick = 0;
    cam.AutoTemp(19.5f);
    EXPECT_GE(cam.m_fCoolPowerPerc, 0.0f);
    // An output too small to move the power must not turn for ever.
    cam.SetPowerPerc(50);
    cam.PID_init(1e-9f, 0, 0);
    cam.m_dwLastTempTick = 0;
    cam.AutoTemp(19.0f);
    EXPECT_EQ(cam.m_fCoolPowerPerc, 50.0f);
}

TEST(Cooler, ThreadReadsRegulatesAndStops)
{
    FakeUsb usb;
    const FastClock fast(10);  // slow enough for sleeps of 10 ms to be told from their overhead
    CoolCamera cam;
    usb.Connect(cam);
    cam.fTemp = 19.0f;
    cam.m_fSensorTemp = 20.0f;
    Forget(cam);
    cam.SetPowerPerc(0);
    cam.SetAutoTemp(true, 0);
    const uint32_t dwStart = platform::Ticks();
    cam.StartAutoTempThr(static_cast<CCameraCool*>(&cam));
    EXPECT_TRUE(cam.IsAutoTempWorking());
    EXPECT_EQ(cam.GetTemp(), 20.0f);  // readers do not touch the device
    while (cam.iTempReads < 4 && platform::Ticks() - dwStart < 60000)
        platform::SleepMs(50);
    const uint32_t dwTook = platform::Ticks() - dwStart;
    EXPECT_GE(cam.iTempReads, 4);
    EXPECT_GE(dwTook, 400u + 3 * 1790u);
    EXPECT_GT(cam.m_fCoolPowerPerc, 0.0f);
    cam.StopAutoTempThr();
    EXPECT_FALSE(cam.IsAutoTempWorking());
    EXPECT_EQ(cam.m_tempThread.Wait(5000), platform::WAIT_SIGNALLED);
    EXPECT_EQ(cam.m_fCoolPowerPerc, 0.0f);
    EXPECT_EQ(usb.dev.Requests().back().wValue, 255);
    const int iReads = cam.iTempReads;
    platform::SleepMs(4000);
    EXPECT_EQ(cam.iTempReads, iReads);
    cam.StartAutoTempThr(static_cast<CCameraCool*>(&cam));
    EXPECT_TRUE(cam.IsAutoTempWorking());
    // A thread that has to give up switches the cooler off.
    cam.SetPowerPerc(80);
    cam.bThrows = true;
    EXPECT_EQ(cam.m_tempThread.Wait(60000), platform::WAIT_SIGNALLED);
    EXPECT_FALSE(cam.IsAutoTempWorking());
    EXPECT_EQ(cam.m_fCoolPowerPerc, 0.0f);
}
