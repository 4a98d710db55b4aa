// Exposures that the host times: what goes to the camera, in which order, and how long the pause lasts.
#include "CaptureCamera.h"
#include "capture/RunControl.h"

namespace {

constexpr int WIDE = 64, HIGH = 32, SIZE = WIDE * HIGH;

struct LongRow {
    const char* szName;
    Family family;
    uint64_t exposure;  // us
    int clock;
    uint8_t firmware;
    const char* szPass;  // log of one pass, without the start of the thread
    uint32_t msLeast, msMost;
    friend void PrintTo(const LongRow& r, std::ostream* p) { *p << r.szName; }
};

// Registers of the fake sensor: aaaa streaming, bbbb sleep.
const LongRow g_Rows[] = {
    { "Kyanite", Family::Kyanite, 2000000, 37125, 3,
      "out 166 0060 0011\nout 189 0001 0001\nout 189 0013 0072\nout 189 0014 0006\nout 189 0001 0000\n"
      "out 189 000b 0001\nout 166 bbbb 0000\nout 189 000b 0011\nout 189 000b 0001\nout 166 bbbb 0001\nout 189 000b 0000\n",
      2000, 2600 },
    { "Quartz", Family::Quartz, 1999999, 18562, 3, "out 189 000b 0001\nout 189 000b 0000\n", 1800, 2300 },
    { "QuartzOneSecond", Family::Quartz, 1000000, 18562, 3, "out 189 000b 0001\nout 189 000b 0000\n", 1000, 1400 },
    { "LapisNew", Family::Lapis, 5000000, 37125, 18, "out 189 000b 0001\nout 189 000b 0000\n", 5000, 5600 },
    { "LapisOldShort", Family::Lapis, 800000, 13920, 17, "", 600, 1000 },
    { "LapisOld", Family::Lapis, 4000000, 13920, 17, "", 3800, 4400 },
    { "Ebony", Family::Ebony, 3000000, 20250, 3,
      "out 189 000b 0001\nin 183 8200 0000: 04\nout 182 0200 0006\nout 182 0200 0004\nout 189 000b 0000\n", 3000, 3600 },
    { "Jasper", Family::Jasper, 4000000, 2320, 3, "", 4000, 4600 },
    // Allowance: 1650 * 12287 / 24 us + 200 ms = 1044 ms; 8 steps of 500 ms in 5 s less that, then (5000 - 1044 - 200) % 500.
    { "Garnet", Family::Garnet, 5000000, 24, 3, "out 174 0000 0000\nout 175 0000 0000\n", 200 + 3500 + 256, 4800 },
    { "GarnetS", Family::GarnetS, 5000000, 24, 3, "out 174 0000 0000\nout 175 0000 0000\n", 200 + 3500 + 256, 4800 },
    { "Cobalt", Family::Cobalt, 61000000, 24, 3, "out 166 3012 2fff\nout 174 0000 0000\nout 175 0000 0000\n", 59000, 62000 },
    { "Iolite", Family::Iolite, 12300000, 24, 3,
      "out 166 0009 3000\nout 166 001e 8100\nout 166 000b 0001\nout 174 0000 0000\nout 175 0000 0000\n", 12400, 13400 },
    { "Dunite", Family::Dunite, 12300000, 24, 3, "out 166 000b 6000\nout 174 0000 0000\nout 175 0000 0000\n", 12500, 13500 },
};

class LongExposure : public testing::TestWithParam<LongRow> {};

// One snap; how long it took.
uint32_t Snap(Rig& r, const LongRow& row)
{
    r.cam.m_lExposure = row.exposure;
    r.cam.m_bLongExp = true;
    r.cam.m_iCMOSClk = row.clock;
    r.cam.m_FirmwareVer = row.firmware;
    r.usb.dev.OnIn = [](const RecordedRequest&, uint8_t* p, uint16_t n) { std::memset(p, 4, n); };
    r.usb.dev.Clear();
    // The frame lies ready, and the pass lasts as long as the pause.
    r.usb.Send(FrameOf(row.family, SIZE, 1));
    const uint32_t dwStart = platform::Ticks();
    r.cam.StartExposure();
    EXPECT_TRUE(Until([&] { return r.cam.m_ExpStatus == EXP_SUCCESS; }));
    const uint32_t dwTook = platform::Ticks() - dwStart;
    EXPECT_TRUE(r.cam.Ended());
    return dwTook;
}

TEST_P(LongExposure, OneFrameOnePass)
{
    const LongRow& row = GetParam();
    const FastClock fast(row.exposure > 20000000 ? 40 : 10);
    Rig r(row.family, false, WIDE, HIGH, row.szName);
    uint32_t dwTook = UINT32_MAX;
    const uint32_t dwMost = row.msMost * 3 / 2;  // every sleep oversleeps, ten times as much as on the real clock
    for (int i = 0; i < 4 && dwTook > dwMost; ++i) {
        dwTook = Snap(r, row);
        EXPECT_GE(dwTook, row.msLeast);
    }
    EXPECT_LE(dwTook, dwMost);
    EXPECT_FALSE(r.Read(0).empty());
    EXPECT_TRUE(r.cam.m_bLongExp);

    const std::string sLog = r.Log(), sPass = row.szPass;
    const std::string sStarted = row.family == Family::Cobalt ? "out 169 0000 0000\n" : "out 166 aaaa 0001\n";
    const size_t at = sLog.find(sStarted) + sStarted.size();
    const size_t end = sLog.rfind("out 166 aaaa 0000\n");
    ASSERT_LE(at, end);
    EXPECT_EQ(sLog.substr(at, end - at), sPass);
}

INSTANTIATE_TEST_SUITE_P(Families, LongExposure, testing::ValuesIn(g_Rows),
                         [](const auto& info) { return std::string(info.param.szName); });

TEST(LongExposureEnd, KyaniteGivesTheSensorItsSettingsAgain)
{
    const FastClock fast(20);
    Rig r(Family::Kyanite, true);
    r.cam.m_bLongExp = true;
    r.cam.m_lExposure = 1000000;
    r.cam.m_iStartX = 12;
    r.usb.Send(FrameA(SIZE, 1));
    r.cam.StartExposure();
    ASSERT_TRUE(Until([&] { return r.cam.m_ExpStatus == EXP_SUCCESS; }));
    EXPECT_EQ(r.cam.Notes(), (std::vector<std::string>{ "gain 50", "start 12 0", "brightness 7" }));
}

TEST(LongExposureEnd, ShorterExposureEndsThePauseAndTheMode)
{
    struct {
        Family family;
        uint64_t shorter;
        std::string sTail;  // log after the pause
        std::vector<std::string> asked;
    } rows[] = {
        // (1000000 * 24 - 26) / 1650 = 14545
        { Family::Garnet,
          1000000,
          "out 175 0000 0000\nout 175 0000 0000\nout 166 3012 38d1\n",
          { "brightness 7", "gain 60", "temp" } },
        { Family::Garnet,
          50000,
          "out 175 0000 0000\nout 175 0000 0000\nout 166 3012 02d7\n",
          { "brightness 7", "temp", "clock" } },
        { Family::GarnetS,
          50000,
          "out 175 0000 0000\nout 175 0000 0000\nout 166 3012 02d7\n",
          { "brightness 7", "temp", "clock", "fps 80" } },
        // (24 * 50000 + 180) / (64 + 244) = 3896
        { Family::Iolite, 50000, "out 175 0000 0000\nout 163 0000 0000\nout 166 001e 8000\nout 166 0009 0f38\n", {} },
        // (24 * 50000 - 4) / (64 + 596) = 1818
        { Family::Dunite, 50000, "out 175 0000 0000\nout 166 000c 0001\nout 166 000b 071a\n", {} },
        { Family::Jasper, 50000, "out 182 305d 000d\n", { "exp 50000" } },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(int(row.family));
        SCOPED_TRACE(row.shorter);
        const FastClock fast(20);
        Rig r(row.family, false, WIDE, HIGH, "Leaving");
        r.cam.m_lExposure = 200000000;
        r.cam.m_bLongExp = true;
        r.cam.m_iCMOSClk = 24;
        const bool bFormA = row.family == Family::Jasper;  // throws away what came before its clock changed
        if (!bFormA)
            r.usb.Send(FrameB(SIZE, 1, row.family == Family::GarnetS));
        r.cam.StartExposure();
        const std::string sMark = bFormA ? "out 182 305d 000d\n" : "out 174 0000 0000\n";
        ASSERT_TRUE(Until([&] { return r.Log().find(sMark) != std::string::npos; }));
        if (bFormA) {
            platform::SleepMs(3000);
            r.usb.Send(FrameA(SIZE, 1));
            EXPECT_EQ(r.cam.m_iCMOSClk, 2320);
        }
        r.cam.m_lExposure = row.shorter;
        if (row.shorter == 1000000)
            r.cam.m_iGain = 60;  // changed while the clock stands
        ASSERT_TRUE(Until([&] { return r.cam.m_ExpStatus == EXP_SUCCESS; }));
        ASSERT_TRUE(r.cam.Ended());
        EXPECT_FALSE(r.cam.m_bLongExp);
        EXPECT_EQ(r.cam.Notes(), row.asked);
        const std::string sLog = r.Log();
        const size_t end = sLog.rfind("out 166 aaaa 0000\n");
        EXPECT_EQ(sLog.substr(end - row.sTail.size(), row.sTail.size()), row.sTail);
    }
}

// Kyanite, Quartz and Ebony notice within a step of 200 ms; new Lapis firmware keeps one to five steps back.
TEST(LongExposureEnd, AChangeOrAStopOpensTheGate)
{
    for (const Family f : { Family::Kyanite, Family::Quartz, Family::Lapis, Family::Ebony })
        for (const bool bStop : { false, true }) {
            SCOPED_TRACE(testing::Message() << int(f) << (bStop ? " stop" : " change"));
            const FastClock fast(20);
            Rig r(f, false, WIDE, HIGH, "Gate");
            r.cam.m_FirmwareVer = 18;
            r.cam.m_bLongExp = true;
            r.cam.m_lExposure = 60000000;
            r.cam.StartExposure();
            ASSERT_TRUE(Until([&] { return r.Log().find("out 189 000b 0001") != std::string::npos; }));
            platform::SleepMs(2000);
            const uint32_t dwStart = platform::Ticks();
            if (bStop)
                r.cam.StopExposure();
            else
                r.cam.m_lExposure = 5000000;
            ASSERT_TRUE(Until([&] { return r.Log().find("out 189 000b 0000") != std::string::npos; }));
            EXPECT_LT(platform::Ticks() - dwStart, 5000u);
            r.usb.Send(FrameA(SIZE, 1));
            EXPECT_TRUE(r.cam.Ended(100000));
            EXPECT_EQ(r.cam.m_ExpStatus, bStop ? EXP_IDLE : EXP_SUCCESS);
        }
}

TEST(LongExposureEnd, CobaltLeavesThroughItsInnerSetters)
{
    const FastClock fast(20);
    Rig r(Family::Cobalt, true, WIDE, HIGH, "CobaltLeaving");
    r.cam.m_lExposure = 61000000;
    r.cam.m_bLongExp = true;
    r.cam.m_iCMOSClk = 24;
    r.cam.m_iHMAX = 4095;
    r.usb.Send(FrameB(SIZE, 1));
    r.cam.StartExposure();
    ASSERT_TRUE(Until([&] { return r.Log().find("out 174") != std::string::npos; }));
    r.cam.m_lExposure = 1000000;
    ASSERT_TRUE(Until([&] { return r.cam.m_ExpStatus == EXP_SUCCESS; }));
    EXPECT_EQ(r.cam.Notes(), (std::vector<std::string>{ "apply gain", "apply exp" }));
    // (24 * 1000000 - 29) / 4095 = 5860
    EXPECT_NE(r.Log().find("out 174 0000 0000\nout 175 0000 0000\nout 175 0000 0000\nout 166 3012 16e4\nout 169 0000 0000\n"),
              std::string::npos);
}

TEST(Lapis, OldFirmwareIsKeptAliveAndRestartedWhenTheExposureChanges)
{
    const FastClock fast(50);
    Rig r(Family::Lapis, true, WIDE, HIGH, "LapisAlive");
    r.cam.m_FirmwareVer = 17;
    r.cam.m_bLongExp = true;
    r.cam.m_lExposure = 40000000;
    r.cam.StartExposure();
    ASSERT_TRUE(r.Waiting(1));
    EXPECT_EQ(r.Events("reset 82"), 1u);
    const uint32_t dwStart = platform::Ticks();
    ASSERT_TRUE(Until([&] { return r.Events("reset 82") == 2; }, 10000));
    EXPECT_GE(platform::Ticks() - dwStart, 18000u);  // the hundredth step of 200 ms
    ASSERT_TRUE(r.Waiting(1));
    r.usb.dev.Clear();
    r.cam.m_lExposure = 2000000;
    r.usb.Send(FrameA(SIZE, 4));  // lands in the buffer that the new requests fill
    ASSERT_TRUE(Until([&] { return r.cam.m_ExpStatus == EXP_SUCCESS; }));
    ASSERT_TRUE(r.cam.Ended());
    EXPECT_EQ(r.Log(), "out 182 0212 0001\nout 182 0200 0001\nout 166 aaaa 0001\nout 166 aaaa 0000\nout 170 0000 0000\n");
    EXPECT_EQ(r.Read(0)[5], FrameA(SIZE, 4)[5]);
}

TEST(Lapis, ReconnectsAfterALostExposure)
{
    const FastClock fast(20);
    Rig r(Family::Lapis, true, WIDE, HIGH, "LapisLost");
    r.cam.m_FirmwareVer = 18;
    r.cam.m_bLongExp = true;
    r.cam.m_lExposure = 2000000;
    r.cam.StartCapture(false);
    ASSERT_TRUE(Until([&] { return r.Log().find("out 189 000b 0001") != std::string::npos; }));
    r.cam.sThrowsAt = "open";  // as of a driver that refuses to close: the first try has failed
    r.cam.nThrows = 1;
    r.usb.dev.Vanish();
    r.usb.dev.Return();  // as another device: the old handle is stale
    r.usb.dev.Clear();
    ASSERT_TRUE(Until([&] { return r.cam.CountOf("open") == 2; }));
    ASSERT_TRUE(r.Waiting(1));
    EXPECT_EQ(r.Log().substr(0, 4 * 18), "out 166 aaaa 0000\nout 170 0000 0000\nout 169 0000 0000\nout 166 aaaa 0001\n");
    r.usb.Send(FrameA(SIZE, 6));
    EXPECT_FALSE(r.Read(60000).empty());

    // QUIRK: when it does not come back, the thread ends as it stands and the camera counts as capturing and closed.
    r.cam.bFound = false;
    r.usb.dev.Vanish();
    ASSERT_TRUE(Until([&] { return r.cam.CountOf("open") == 4; }, 10000));
    ASSERT_TRUE(r.cam.Ended());
    EXPECT_TRUE(r.cam.m_bCapturing);
    EXPECT_FALSE(r.cam.m_bOpen);
}

}  // namespace

// A newer run has the camera then.
TEST(RunControl, AnAbandonedRunChangesNothing)
{
    Rig r(Family::Quartz, false);
    r.cam.m_bCapturing = true;
    r.cam.m_ExpStatus = EXP_WORKING;
    RunControl old(r.cam, true);
    old.Abandon();
    old.Tell(EXP_FAILED);
    old.End(EXP_FAILED);
    old.Stop();
    EXPECT_FALSE(old.IsRunning() || old.Deliver([] { return true; }));
    EXPECT_TRUE(r.cam.m_bCapturing);
    EXPECT_EQ(r.cam.m_ExpStatus, EXP_WORKING);
}
