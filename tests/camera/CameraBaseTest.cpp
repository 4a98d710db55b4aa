#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

#include "camera/TestCamera.h"

TEST(CameraBase, FreshObject)
{
    TestCamera cam(160, 120);
    EXPECT_EQ(cam.m_szBins[1], 0);
    EXPECT_EQ(cam.m_pTable80[79], 127);
    EXPECT_EQ(cam.m_iPropC, -1);
    EXPECT_TRUE(cam.m_bUSB3Camera);
    cam.m_bHardwareBin = true;
    EXPECT_FALSE(cam.IsHardBinRun());
    cam.m_iBin = 2;
    EXPECT_TRUE(cam.IsHardBinRun());
}

TEST(CameraBase, PropertiesStayWithinTheRecord)
{
    TestCamera cam;
    const std::string sLong(100, 'x');
    cam.m_pszName = sLong.c_str();
    std::fill(std::begin(cam.m_szBins), std::end(cam.m_szBins), int8_t{ 3 });  // no end mark
    cam.m_bImgRAW8 = cam.m_bImgRGB24 = cam.m_bImgY8 = cam.m_bImgRAW16 = true;
    KOV_CAMERA_INFO info;
    std::memset(&info, 0x55, sizeof info);
    cam.GetCameraProperty(&info);
    EXPECT_EQ(std::string(info.Name), std::string(63, 'x'));
    EXPECT_EQ(info.SupportedBins[15], 3);
    const IMG_TYPE aTypes[] = { IMG_RAW8, IMG_RGB24, IMG_Y8, IMG_RAW16, IMG_END };
    EXPECT_EQ(std::memcmp(info.SupportedImgTypes, aTypes, sizeof aTypes), 0);
    EXPECT_EQ(info.HasGuidePort, KOV_TRUE);
    EXPECT_EQ(info.HasShutter, KOV_FALSE);

    cam.m_szBins[2] = 0;
    cam.m_bImgRGB24 = false;
    cam.GetCameraProperty(&info);
    EXPECT_EQ(info.SupportedBins[2], 0);
    EXPECT_EQ(info.SupportedImgTypes[1], IMG_Y8);
}

TEST(CameraBase, Commands)
{
    FakeUsb usb;
    TestCamera cam;
    EXPECT_FALSE(cam.StopSensorCLK());
    EXPECT_FALSE(cam.m_bSensorCLKStopped);
    EXPECT_FALSE(cam.SetTransferCount(1));

    usb.Connect(cam);
    EXPECT_TRUE(cam.StartUSBStreaming());
    EXPECT_TRUE(cam.StopUSBStreaming());
    EXPECT_TRUE(cam.StopSensorCLK());
    EXPECT_TRUE(cam.m_bSensorCLKStopped);
    usb.dev.OnFail = [](const RecordedRequest&) { return true; };
    EXPECT_FALSE(cam.StartSensorCLK());
    EXPECT_TRUE(cam.m_bSensorCLKStopped);
    usb.dev.OnFail = nullptr;
    EXPECT_TRUE(cam.StartSensorCLK());
    EXPECT_FALSE(cam.m_bSensorCLKStopped);
    for (const long bytes : { 0L, 49152L, 49153L, static_cast<long>(49152LL * 65537) })
        EXPECT_TRUE(cam.SetTransferCount(bytes));
    EXPECT_EQ(usb.dev.Log(),
              "out 169 0000 0000\nout 170 0000 0000\nout 174 0000 0000\nout 175 0000 0000\n"
              "out 175 0000 0000\n"
              "out 181 0000 0000\nout 181 0000 0001\nout 181 0000 0002\nout 181 0001 0001\n");
}

TEST(CameraBase, ReconnectBuildsANewLinkAndTriesTwice)
{
    FakeUsb usb;
    TestCamera cam;
    cam.m_iDevIndex = 3;
    EXPECT_FALSE(cam.ReConnectCamera());  // no link
    EXPECT_EQ(cam.Asked(), Asked{});

    usb.Connect(cam);
    const FastClock fast(1000);
    const uint32_t dwStart = platform::Ticks();
    cam.bResult = false;
    EXPECT_FALSE(cam.ReConnectCamera());
    EXPECT_GE(platform::Ticks() - dwStart, 1050u);
    EXPECT_EQ(cam.Asked(), (Asked{ "open 3", "open 3" }));
    EXPECT_FALSE(cam.m_bOpen);
    ASSERT_TRUE(cam.m_pUsbLink);
    EXPECT_TRUE(cam.m_pUsbLink->IsOpen());
    EXPECT_EQ(usb.dev.OpenHandles(), 1);
    cam.bResult = true;
    EXPECT_TRUE(cam.ReConnectCamera());
    EXPECT_EQ(cam.Asked(), Asked{ "open 3" });
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// On boards with 2 GB the largest sensor must not cost what its buffers add up to.
TEST(CameraBase, BuffersCostNothingUntilUsed)
{
    const auto rssPages = [] {
        long size = 0, resident = 0;
        std::ifstream("/proc/self/statm") >> size >> resident;
        return resident;
    };
    const long lBefore = rssPages();
    TestCamera cam(5496, 3672);
    EXPECT_LT((rssPages() - lBefore) * 4, 64 * 1024) << "KiB";
}
#endif
