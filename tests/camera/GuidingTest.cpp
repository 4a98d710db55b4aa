#include <gtest/gtest.h>

#include "camera/TestCamera.h"

namespace {

constexpr uint32_t ID_ADDRESS = 0x70000;

size_t Count(FakeUsbDevice& dev, bool bIn, uint8_t bRequest)
{
    const auto v = dev.Requests();
    return static_cast<size_t>(
        std::count_if(v.begin(), v.end(), [&](const RecordedRequest& r) { return r.bIn == bIn && r.bRequest == bRequest; }));
}

}  // namespace

TEST(Guiding, PinsAndTimedPulse)
{
    FakeUsb usb;
    TestCamera cam;
    const FastClock fast(20);
    const uint32_t dwStart = platform::Ticks();
    EXPECT_TRUE(cam.pulseGuide(KOV_GUIDE_1, 1000));  // closed: nothing sent, time spent all the same
    EXPECT_GE(platform::Ticks() - dwStart, 1000u);

    usb.Connect(cam);
    EXPECT_TRUE(cam.pulseGuideOn(KOV_GUIDE_3));
    usb.dev.OnFail = [](const RecordedRequest&) { return true; };
    EXPECT_TRUE(cam.pulseGuideOff(KOV_GUIDE_3));  // a failed request is not told
    usb.dev.OnFail = nullptr;
    EXPECT_TRUE(cam.pulseGuideOn(static_cast<GuideD>(4)));
    EXPECT_TRUE(cam.pulseGuide(static_cast<GuideD>(-1), 100000000));
    EXPECT_TRUE(cam.pulseGuide(KOV_GUIDE_2, 100));
    EXPECT_EQ(usb.dev.Log(), "out 176 0003 0000\nout 177 0003 0000\nout 176 0002 0000\nout 177 0002 0000\n");
}

TEST(Guiding, UserIdRoundTrip)
{
    FakeUsb usb;
    FakeFlash flash(usb.dev);
    TestCamera cam;
    KOV_ID id = { { 1, 2, 3, 4, 5, 6, 7, 8 } }, back = { { 9 } };
    EXPECT_FALSE(cam.ReadIDFromSPI(&back));
    EXPECT_FALSE(cam.WriteIDToSPI(id));
    EXPECT_EQ(usb.dev.Log(), "");

    usb.Connect(cam);
    EXPECT_FALSE(cam.ReadIDFromSPI(&back));  // nothing stored
    EXPECT_EQ(back.id[0], 9);
    EXPECT_EQ(Count(usb.dev, false, REQ_GPIF_32DQ), 2u);
    usb.dev.Clear();
    EXPECT_TRUE(cam.WriteIDToSPI(id));
    EXPECT_EQ(usb.dev.Log(),
              "out 190 0000 0000\nout 196 0001 0007\nin 196 0000 0007: 00\n"
              "out 194 0000 0700: 49 44 01 02 03 04 05 06 07 08 00 00 00 00 00 00 ... (256)\n"
              "in 195 0000 0700: 49 44 01 02 03 04 05 06 07 08 00 00 00 00 00 00 ... (256)\n"
              "out 190 0001 0000\n");
    EXPECT_TRUE(cam.ReadIDFromSPI(&back));
    EXPECT_EQ(back.id[7], 8);
}

TEST(Guiding, UserIdRetriesThreeTimesAndErasesOnce)
{
    FakeUsb usb;
    FakeFlash flash(usb.dev);
    TestCamera cam;
    usb.Connect(cam);
    flash.iDeadWrites = 2;
    EXPECT_TRUE(cam.WriteIDToSPI({ { 5 } }));
    EXPECT_EQ(Count(usb.dev, false, REQ_FLASH_WRITE), 3u);
    EXPECT_EQ(Count(usb.dev, false, REQ_FLASH_ERASE), 1u);
    flash.iDeadWrites = 3;
    EXPECT_FALSE(cam.WriteIDToSPI({ { 6 } }));
    EXPECT_EQ(flash.At(ID_ADDRESS)[0], 0xFF);  // stays erased

    usb.dev.Clear();
    flash.bEraseFails = true;
    EXPECT_FALSE(cam.WriteIDToSPI({ { 7 } }));
    EXPECT_EQ(usb.dev.Log(), "out 190 0000 0000\nout 196 0001 0007\nout 190 0001 0000\n");
}
