#include <gtest/gtest.h>

#include <thread>

#include "camera/TestCamera.h"

namespace {

constexpr int W = 32, H = 16;

class HotPixels : public testing::Test {
protected:
    HotPixels() { std::fill_n(cam.m_pImgBuf, 2 * W * H, uint8_t{ 0 }); }
    uint8_t& At(int x, int y) { return cam.m_pImgBuf[y * W + x]; }
    uint16_t& At16(int x, int y) { return reinterpret_cast<uint16_t*>(cam.m_pImgBuf)[y * W + x]; }
    void List(std::initializer_list<std::pair<int, int>> pixels)
    {
        for (const auto& [x, y] : pixels)
            cam.m_pHPCBuf1[y * W + x] = 1;
        cam.AdjustHPCTable(cam.m_pHPCBuf1, cam.m_pHPCBuf2);
        cam.m_bHPCEnable = true;
    }
    void Around(int x, int y, int c, int up, int left, int right, int down)
    {
        At(x, y) = static_cast<uint8_t>(c);
        At(x, y - 1) = static_cast<uint8_t>(up);
        At(x - 1, y) = static_cast<uint8_t>(left);
        At(x + 1, y) = static_cast<uint8_t>(right);
        At(x, y + 1) = static_cast<uint8_t>(down);
    }
    TestCamera cam{ W, H };
};

}  // namespace

TEST_F(HotPixels, APixelIsRepairedOnlyIfItLooksHot)
{
    const struct {
        int n[4];
        int iAfter;
    } rows[] = {
        { { 120, 130, 120, 120 }, 122 }, { { 120, 171, 120, 120 }, 200 },  // 29 below
        { { 120, 120, 150, 120 }, 200 },                                   // above seven tenths
        { { 140, 140, 140, 140 }, 140 }, { { 120, 120, 120, 201 }, 200 },
    };
    List({ { 10, 5 } });
    for (const auto& r : rows) {
        Around(10, 5, 200, r.n[0], r.n[1], r.n[2], r.n[3]);
        cam.HandleHotPixels();
        EXPECT_EQ(At(10, 5), r.iAfter);
    }
    cam.m_bHPCEnable = false;
    Around(10, 5, 200, 0, 0, 0, 0);
    cam.HandleHotPixels();
    EXPECT_EQ(At(10, 5), 200);
}

TEST_F(HotPixels, NeighboursInTheTableDoNotCount)
{
    List({ { 10, 5 }, { 11, 5 } });
    Around(10, 5, 200, 120, 120, 190, 120);
    At(12, 5) = At(11, 4) = At(11, 6) = 185;
    cam.HandleHotPixels();
    EXPECT_EQ(At(10, 5), 120);
    EXPECT_EQ(At(11, 5), 190);
    List({ { 10, 4 }, { 9, 5 }, { 10, 6 } });
    Around(10, 5, 200, 100, 100, 100, 100);
    EXPECT_TRUE(cam.DeNoiseHPC(10, 5, W, H));
    EXPECT_EQ(At(10, 5), 0);  // QUIRK: nobody left to ask
}

TEST_F(HotPixels, BordersTakeOneNeighbourUnseen)
{
    cam.m_bIsColor = true;  // neighbours 2 away
    for (int i = 0; i < W * H; ++i)
        cam.m_pImgBuf[i] = static_cast<uint8_t>(i % 251);
    List({ { 1, 8 }, { 8, 1 }, { W - 1, 0 }, { W - 2, 8 }, { 8, H - 2 } });
    const uint8_t aExpected[] = { At(3, 8), At(10, 1), At(1, 1), At(W - 4, 8), At(6, H - 2) };
    cam.HandleHotPixels();
    EXPECT_EQ(At(1, 8), aExpected[0]);
    EXPECT_EQ(At(8, 1), aExpected[1]);
    EXPECT_EQ(At(W - 1, 0), aExpected[2]);  // QUIRK: from the next row
    EXPECT_EQ(At(W - 2, 8), aExpected[3]);
    EXPECT_EQ(At(8, H - 2), aExpected[4]);
}

TEST_F(HotPixels, SixteenBitsKeepTheAdcPattern)
{
    cam.m_bOutput16Bits = true;
    List({ { 10, 5 } });
    const auto repaired = [&](const char* szName, int n) {
        cam.m_pszName = szName;
        At16(10, 5) = 60000;
        At16(10, 4) = At16(9, 5) = At16(11, 5) = At16(10, 6) = static_cast<uint16_t>(n);
        cam.HandleHotPixels();
        return int{ At16(10, 5) };
    };
    EXPECT_EQ(repaired("VYR KOVQuartzCol", 1007), 992);
    for (const char* const szName : { "VYR KOVMarbleMono-C", "VYR KOVEbonyCol", "VYR KOVFlintCol", "VYR KOVHaliteCol" })
        EXPECT_EQ(repaired(szName, 1007), 1004) << szName;
    EXPECT_EQ(repaired("VYR KOVQuartzCol", 42001), 60000);
    At16(10, 5) = 8679;
    At16(10, 4) = At16(9, 5) = At16(11, 5) = At16(10, 6) = 1000;
    EXPECT_FALSE(cam.DeNoiseHPC(10, 5, W, H));  // 7679 above
    At16(10, 5) = 8681;
    EXPECT_TRUE(cam.DeNoiseHPC(10, 5, W, H));
}

TEST_F(HotPixels, StandOutOfADarkFrame)
{
    std::fill_n(cam.m_pDarkBuf, W * H, uint16_t{ 10 });
    cam.m_pDarkBuf[5 * W + 9] = 40;
    cam.m_pDarkBuf[6 * W + 9] = 41;
    cam.AdjustDarkBuff(cam.m_pDarkBuf, cam.m_pDarkSum);
    EXPECT_EQ(cam.m_iDarkAve, 10u);
    EXPECT_EQ(cam.m_lDeadPixelNum, 1);
    EXPECT_EQ(cam.m_pDarkPixels[0], 6 * W + 9);
    EXPECT_EQ(cam.m_pDarkTmp[6 * W + 9], 1);

    cam.m_bUsingDark = true;  // repaired without a look at the value
    Around(9, 6, 7, 0, 100, 105, 0);
    cam.HandleHotPixels();
    EXPECT_EQ(At(9, 6), 102);

    // A window: the dark frame moves along, and what fell out is forgotten. Its own mean counts: 12.
    cam.m_pDarkBuf[6 * W + 9] = 60;
    cam.m_iWidth = 8;
    cam.m_iHeight = 4;
    cam.m_iStartX = 4;
    cam.m_iStartY = 4;
    cam.AdjustDarkBuff(cam.m_pDarkBuf, cam.m_pDarkSum);
    EXPECT_EQ(cam.m_lDeadPixelNum, 1);
    EXPECT_EQ(cam.m_pDarkPixels[0], 2 * 8 + 5);
    EXPECT_EQ(cam.m_pDarkTmp[6 * W + 9], 0);
    cam.m_bBottomUp = true;  // rows 16 - 4 - 4 = 8 up: another place
    cam.AdjustDarkBuff(cam.m_pDarkBuf, cam.m_pDarkSum);
    EXPECT_EQ(cam.m_lDeadPixelNum, 0);
}

TEST_F(HotPixels, HardwareBinningFollowsThePhaseTable)
{
    cam.m_bHardwareBin = true;
    cam.m_iBin = 2;
    cam.m_iWidth = W / 2;
    cam.m_iHeight = H / 2;
    cam.m_pTable80[2 * 16 + 2] = 2;  // odd columns shift by 2
    std::fill_n(cam.m_pDarkBuf, W * H, uint16_t{ 8 });
    cam.m_pDarkBuf[1 * W + 3] = 408;
    cam.AdjustDarkBuff(cam.m_pDarkBuf, cam.m_pDarkSum);
    // Four sensor pixels of one colour to each: column 3 + 2 belongs to the second odd one; row 1 to the first.
    EXPECT_EQ(cam.m_pDarkSum[1 * 16 + 3], (3 * 8 + 408) / 2 / 2);
    EXPECT_EQ(cam.m_pDarkSum[0 * 16 + 2], 8);
    EXPECT_EQ(cam.m_pDarkSum[0 * 16 + 1], 4);  // half of the first odd cell has moved on
    EXPECT_EQ(cam.m_lDeadPixelNum, 1);
    EXPECT_EQ(cam.m_pDarkPixels[0], 16 + 3);
    cam.m_bDDR = true;  // such a sensor sums
    cam.AdjustDarkBuff(cam.m_pDarkBuf, cam.m_pDarkSum);
    EXPECT_EQ(cam.m_pDarkSum[1 * 16 + 3], 3 * 8 + 408);

    // Bin 4: two by the sensor, two by the host.
    cam.m_bDDR = false;
    cam.m_iBin = 4;
    cam.m_iWidth = W / 4;
    cam.m_iHeight = H / 4;
    cam.AdjustDarkBuff(cam.m_pDarkBuf, cam.m_pDarkSum);
    EXPECT_EQ(cam.m_pDarkSum[1 * 16 + 3], (3 * 8 + 408) / 2 / 2);
}

// The flag alone does not bin: such a camera sends the whole frame at bin 4.
TEST(HotPixelsAtBin4, FrameOfACameraThatBinsByThreeOnly)
{
    struct : TestCamera {
        using TestCamera::TestCamera;
        bool IsHardBinRun() override { return m_bHardwareBin && m_iBin == 3; }
    } cam(16, 8);
    cam.m_bHardwareBin = cam.m_bHPCEnable = true;
    cam.m_iBin = 4;
    cam.m_iWidth = 4;
    cam.m_iHeight = 2;
    cam.m_pHPCBuf1[5 * 16 + 10] = 1;
    cam.AdjustHPCTable(cam.m_pHPCBuf1, cam.m_pHPCBuf2);
    std::fill_n(cam.m_pImgBuf, 16 * 8, uint8_t{ 100 });
    cam.m_pImgBuf[5 * 16 + 10] = 200;
    cam.m_pImgBuf[4 * 16 + 10] = 120;  // the row above counts
    cam.HandleHotPixels();
    EXPECT_EQ(cam.m_pImgBuf[5 * 16 + 10], 105);
}

TEST_F(HotPixels, ShiftsPullNothingIntoTheRegion)
{
    cam.m_bHardwareBin = true;
    cam.m_iBin = 2;
    cam.m_iWidth = W / 4;
    cam.m_iHeight = H / 2;
    cam.m_pTable80[2 * 16 + 4] = -4;  // even columns
    cam.m_pTable80[2 * 16] = 0;
    cam.m_pHPCBuf1[W / 2] = 1;
    cam.AdjustHPCTable(cam.m_pHPCBuf1, cam.m_pHPCBuf2);
    EXPECT_EQ(cam.m_iHPCNum, 0);
}

TEST_F(HotPixels, TableReachesSeveralBinnedPixels)
{
    cam.m_bHardwareBin = true;
    cam.m_iBin = 2;
    cam.m_iWidth = W / 2;
    cam.m_iHeight = H / 2;
    int8_t* const pRow = cam.m_pTable80 + 2 * 16;
    pRow[0] = 0;  // even columns: shifts 0 and -4, then the list ends
    pRow[4] = -4;
    pRow[12] = 8;  // behind the end
    const int iOld = (W / 2) * (H / 2) - 1;
    cam.m_pHPCBuf2[iOld] = 1;            // of an older geometry
    cam.m_pHPCBuf2[W * H / 16 - 1] = 1;  // the last one of the quarter that is cleared
    cam.m_pHPCBuf1[0 * W + 8] = 1;
    cam.m_pHPCBuf1[5 * W + 9] = 1;  // odd and odd: no entries, shift 0
    cam.m_pHPCBuf1[9 * W] = 1;      // shifted it falls off the row's beginning
    cam.AdjustHPCTable(cam.m_pHPCBuf1, cam.m_pHPCBuf2);
    ASSERT_EQ(cam.m_iHPCNum, 5);
    EXPECT_EQ(cam.m_pHotPixels[0], 4 / 4 * 2);
    EXPECT_EQ(cam.m_pHotPixels[1], 8 / 4 * 2);
    EXPECT_EQ(cam.m_pHotPixels[2], (5 / 4 * 2 + 1) * (W / 2) + 9 / 4 * 2 + 1);
    EXPECT_EQ(cam.m_pHotPixels[3], (9 / 4 * 2 + 1) * (W / 2));
    EXPECT_EQ(cam.m_pHotPixels[4], iOld);  // QUIRK: only a quarter is cleared
    // The rows of the repaired frame are the binned ones.
    cam.m_bHPCEnable = true;
    std::fill_n(cam.m_pImgBuf, W * H, uint8_t{ 100 });
    const auto e = static_cast<uint32_t>(cam.m_pHotPixels[2]);
    cam.m_pImgBuf[e] = 200;
    cam.m_pImgBuf[e - W / 2] = 120;
    cam.HandleHotPixels();
    EXPECT_EQ(cam.m_pImgBuf[e], 105);
}

TEST_F(HotPixels, ImpossibleGeometryStaysWithinTheBuffers)
{
    for (const int iBin : { 1, 2, 3, 4, 9 })
        for (const bool bHard : { false, true }) {
            cam.m_bHardwareBin = bHard;
            cam.m_iBin = iBin;
            cam.m_iWidth = W;
            cam.m_iHeight = H;
            cam.m_iStartX = W / 2;
            cam.m_iStartY = -3;
            cam.m_bUsingDark = cam.m_bHPCEnable = true;
            std::fill_n(cam.m_pHPCBuf1, W * H, 1);
            std::fill_n(cam.m_pDarkBuf, W * H, uint16_t{ 1 });
            cam.m_pDarkBuf[77] = 60000;
            cam.AdjustDarkBuff(cam.m_pDarkBuf, cam.m_pDarkSum);
            cam.AdjustHPCTable(cam.m_pHPCBuf1, cam.m_pHPCBuf2);
            EXPECT_LE(cam.m_iHPCNum, W * H);
            cam.HandleHotPixels();
            cam.m_iWidth = 3;  // the lists are of another geometry now
            cam.m_iHeight = 1;
            cam.HandleHotPixels();
        }
}

TEST_F(HotPixels, DarkFramesWantedByExposure)
{
    const struct {
        uint64_t us;
        int n;
    } rows[] = {
        { 100999, 5 }, { 101000, 4 }, { 325000, 4 }, { 326000, 3 }, { 550000, 3 }, { 551000, 2 }, { 775999, 2 }, { 776000, 1 },
    };
    for (const auto& r : rows) {
        cam.m_lExposure = r.us;
        EXPECT_EQ(cam.GettingDark(true, 0), r.n) << r.us;
        EXPECT_TRUE(cam.IsGetDarkOver());  // QUIRK: true while it runs
    }
}

TEST_F(HotPixels, SearchForATable)
{
    FakeUsb usb;
    FakeFlash flash(usb.dev);
    usb.Connect(cam);
    const FastClock fast(100);
    int found = 0;
    unsigned long running = 0;
    const auto search = [&](uint64_t lExp, int iMin, int iMax) {
        cam.m_lExposure = lExp;
        cam.Asked();
        return cam.AutoGetHPC(&found, iMin, iMax, &running, nullptr, 0);
    };
    cam.OnImage = [&] {  // one stand-out pixel a millisecond
        cam.m_lDeadPixelNum = static_cast<int32_t>(cam.m_lExposure / 1000);
        cam.m_bGettingDark = false;
    };
    EXPECT_FALSE(search(10000, 20, 20));
    EXPECT_EQ(cam.Asked(), Asked{});
    EXPECT_TRUE(search(10000, 20, 30));
    EXPECT_EQ(cam.Asked(), (Asked{ "start 1", "image", "exp 20000 0", "start 1", "image" }));
    EXPECT_EQ(found, 20);
    EXPECT_EQ(running, 20u);
    EXPECT_TRUE(search(200000, 100, 121));  // then steps of half the secant towards 110.5
    EXPECT_EQ(cam.Asked(), (Asked{ "start 1", "image", "exp 190000 0", "start 1", "image", "exp 150250 0", "start 1", "image",
                                   "exp 130624 0", "start 1", "image", "exp 121057 0", "start 1", "image" }));

    // A failed snap is repeated.
    cam.snapResult = EXP_FAILED;
    int iStarts = 0;
    cam.OnImage = nullptr;
    std::thread host([&] {
        while (iStarts++ < 20)
            platform::SleepMs(50);
        cam.ChangeHPCStatus(HPC_STOP, nullptr);
    });
    EXPECT_FALSE(search(10000, 20, 30));  // no frame ever comes; the stop gets it out
    host.join();
    EXPECT_FALSE(cam.m_bGettingDark);

    // The stop counts after the round that runs.
    cam.snapResult = EXP_SUCCESS;
    cam.OnImage = [&] {
        cam.ChangeHPCStatus(HPC_STOP, nullptr);
        cam.m_bGettingDark = false;
    };
    EXPECT_FALSE(search(10000, 20, 30));
    EXPECT_EQ(cam.Asked(), (Asked{ "start 1", "image" }));
    cam.bResult = false;  // capture does not start
    EXPECT_FALSE(search(10000, 20, 30));
    cam.m_bCapturing = true;
    EXPECT_FALSE(search(10000, 20, 30));
    EXPECT_EQ(cam.Asked(), Asked{});
    cam.ReplaceLink(nullptr);
}

TEST_F(HotPixels, ManualCollectionWaitsForFramesOrTheStop)
{
    int n = 0;
    cam.m_lDeadPixelNum = 12;
    std::thread host([&] {
        platform::SleepMs(20);
        cam.m_bGettingDark = false;
    });
    EXPECT_TRUE(cam.ManualHPC(false, &n));
    host.join();
    EXPECT_EQ(n, 12);
    std::thread stopper([&] {
        while (!cam.m_bHPCRun || !cam.m_bGettingDark)
            platform::SleepMs(1);
        cam.ChangeHPCStatus(HPC_STOP, nullptr);
    });
    EXPECT_TRUE(cam.ManualHPC(false, &n));
    stopper.join();
    EXPECT_TRUE(cam.m_bGettingDark);
}
