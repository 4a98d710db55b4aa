// The capture thread against a scripted endpoint.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <thread>

#include "CaptureCamera.h"
#include "base/Log.h"
#include "capture/CaptureLoop.h"

namespace {

constexpr uint64_t PATIENT = 60000000;  // us of exposure, for a wait that no delay of the test can use up
constexpr int W = 64, H = 32, S = W * H;

std::vector<uint8_t> Cleared(std::vector<uint8_t> v)
{
    std::fill_n(v.begin(), 4, uint8_t{ 0 });
    std::fill_n(v.end() - 4, 4, uint8_t{ 0 });
    return v;
}

TEST(ModernLoop, StartsDeliversAndEndsInOrder)
{
    Rig r(Family::Quartz, true);
    r.cam.m_iDroppedFrames = 7;  // of the last capture
    ASSERT_TRUE(r.Starts());
    EXPECT_EQ(r.Log(), "out 170 0000 0000\nout 166 aaaa 0000\nout 169 0000 0000\nout 166 aaaa 0001\n");
    EXPECT_EQ(r.usb.dev.Events(), (std::vector<std::string>{ "abort 82", "reset 82", "size 82 100000" }));
    r.usb.dev.Clear();
    r.usb.dev.ClearEvents();

    for (unsigned i = 0; i < 5; ++i) {
        r.usb.Send(FrameA(S, i));
        EXPECT_EQ(r.Read(), Cleared(FrameA(S, i)));
        EXPECT_TRUE(r.Waiting(1));  // as many requests as chunks, always
    }
    EXPECT_EQ(r.cam.m_iDroppedFrames, 0u);
    EXPECT_EQ(r.cam.m_ExpStatus, EXP_WORKING);
    EXPECT_EQ(r.Log(), "");

    r.usb.Send(FrameA(S, 9));
    ASSERT_TRUE(Until([&] { return r.cam.m_pFrameExchange->Count() == 1; }));
    EXPECT_TRUE(r.cam.StopCapture());
    EXPECT_EQ(r.Log(), "out 166 aaaa 0000\nout 170 0000 0000\n");
    EXPECT_EQ(r.usb.dev.Events(), (std::vector<std::string>{ "abort 82", "reset 82", "abort 82" }));
    EXPECT_EQ(r.cam.m_pFrameExchange->Count(), 0);  // unread frames go
    EXPECT_EQ(r.usb.dev.Outstanding(), 0u);
}

TEST(AnyLoop, DamagedFramesAreDroppedAndResynchronised)
{
    for (const Family f : { Family::Quartz, Family::Marble, Family::Kyanite, Family::Lapis, Family::Halite, Family::Jasper,
                            Family::Beryl, Family::GarnetS, Family::Garnet, Family::Iolite, Family::Cobalt, Family::Dunite }) {
        SCOPED_TRACE(int(f));
        Rig r(f, false, W, H, "Damaged");
        r.cam.m_lExposure = PATIENT;
        ASSERT_TRUE(r.Starts());
        const bool bA = HasMarksA(f);
        const auto send = [&](unsigned seed) {
            r.usb.Send(FrameOf(f, S, seed));
            return r.Read();
        };
        const auto good = [&](unsigned seed) { return bA ? Cleared(FrameOf(f, S, seed)) : FrameOf(f, S, seed); };
        if (!bA && f != Family::GarnetS) {
            ASSERT_TRUE(r.SendBad(FrameOf(f, S, 9)));  // QUIRK: the first good frame of a video is lost, and not counted
        }
        EXPECT_EQ(send(1), good(1));
        uint32_t nDropped = 0;
        for (const int at : { 0, 1, S - 1, S - 4, -1 }) {
            auto bad = FrameOf(f, S, 2);
            if (at < 0)
                bad.resize(S - 1);
            else if (at > 1 && !bA && f != Family::GarnetS)
                continue;  // no tail
            else
                bad[size_t(at)] ^= 1;
            if (at == 1 && f == Family::GarnetS)
                continue;  // lengthens its lines at the fifth
            ASSERT_TRUE(r.SendBad(bad)) << at;
            EXPECT_EQ(r.cam.m_iDroppedFrames, ++nDropped) << at;
            EXPECT_EQ(send(3), good(3)) << at;
            EXPECT_EQ(r.cam.m_iDroppedFrames, nDropped);
        }
        EXPECT_TRUE(r.cam.Notes().empty() || f == Family::Cobalt) << r.cam.Notes()[0];
        r.cam.m_bCapturing = false;
        r.usb.Send(FrameOf(f, S, 4));
        EXPECT_TRUE(r.cam.Ended());
        EXPECT_EQ(r.cam.m_iDroppedFrames, 0u);
    }
}

// By the lines and the clocks of each sensor; the time of others is told by their model.
TEST(AnyLoop, TimeOfAFrameAndLinesOfAnExposure)
{
    const struct {
        Family family;
        int w, bin, us, exposure, lines;
    } rows[] = {
        { Family::Garnet, 64, 1, 1986, 4976, 3 },  // ((32 + 26) * 1650 - 358) / 48; (4976 - 26) / 1650
        { Family::Garnet, 64, 2, 3086, 4975, 2 }, { Family::Cobalt, 64, 1, 1986, 4979, 3 },
        { Family::Iolite, 64, 1, 205, 436, 2 },  // 32 * (64 + 244) / 48; (436 + 180) / 308
        { Family::Iolite, 64, 2, 496, 563, 1 },   { Family::Agate, 64, 1, 440, 1324, 2 },    // 660 clocks,
        { Family::Agate, 620, 1, 476, 1431, 1 },  { Family::Dunite, 620, 1, 454, 1366, 2 },  // or 94 and 61 more than the width
        { Family::Quartz, 64, 1, 500, 4976, 3 },
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << int(r.family) << ' ' << r.w << " bin " << r.bin);
        CaptureCamera cam(r.family, true, r.w, 32);
        cam.m_iBin = r.bin;
        cam.m_lExposure = uint64_t(r.exposure);
        EXPECT_EQ(FrameTime(cam, FormOf(r.family)), r.us);
        EXPECT_EQ(ExposureLines(cam, r.family, 1), r.lines);
    }
}

TEST(ModernLoop, FourEmptyFramesRestartTheStream)
{
    const FastClock fast(20);
    Rig r(Family::Nephrite, true);
    r.cam.StartCapture(false);
    ASSERT_TRUE(Until([&] { return r.Events("resetport") == 1; }));
    // The next restart is four passes away.
    ASSERT_TRUE(Until([&] { return r.usb.dev.Requests().size() >= 8; }));
    EXPECT_EQ(r.Log().substr(4 * 18, 4 * 18), "out 166 aaaa 0000\nout 170 0000 0000\nout 169 0000 0000\nout 166 aaaa 0001\n");
    EXPECT_EQ(r.cam.m_iDroppedFrames, 0u);
    r.usb.Send(FrameA(S, 3));
    EXPECT_EQ(r.Read(), Cleared(FrameA(S, 3)));
    // A halted endpoint counts as empty.
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(Until([&] { return r.usb.dev.Complete(usbstack::Status::Stall, 0); }));
    ASSERT_TRUE(Until([&] { return r.Events("resetport") == 2; }));
}

// In the small-chunk form the first bad frame after the switch to automatic only starts the count.
TEST(AnyLoop, BadFramesOnAutoLowerTheBandwidth)
{
    const struct {
        Family family;
        bool bAuto;
        int nBad;
        std::vector<std::string> asked;
    } rows[] = {
        { Family::Onyx, true, 7, { "fps 76", "fps 72" } }, { Family::Onyx, false, 4, {} },
        { Family::GarnetS, true, 3, { "fps 76" } },        { Family::Garnet, true, 3, {} },
        { Family::Garnet, true, 4, { "fps 76" } },         { Family::Iolite, true, 8, {} },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << int(row.family) << ' ' << row.nBad);
        const std::string sClass = "Bandwidth" + std::to_string(&row - rows);
        Rig r(row.family, true, W, H, sClass.c_str());
        r.cam.m_lExposure = PATIENT;
        ASSERT_TRUE(r.Starts());
        r.cam.m_bAutoFPS = row.bAuto;
        auto bad = FrameOf(row.family, S, 1);
        bad[0] = 0;
        for (int i = 0; i < row.nBad; ++i)
            ASSERT_TRUE(r.SendBad(bad));
        EXPECT_EQ(r.cam.Notes(), row.asked);
    }
}

TEST(ModernLoop, FullRingCountsDropsAndLeavesTheStreamAlone)
{
    Rig r(Family::Quartz, true);
    ASSERT_TRUE(r.Starts());
    r.usb.dev.ClearEvents();
    for (unsigned i = 0; i < 6; ++i) {
        r.usb.Send(FrameA(S, i));
        ASSERT_TRUE(r.Waiting(1));
        ASSERT_TRUE(Until([&] { return r.cam.m_iDroppedFrames == (i > 1 ? i - 1 : 0); }));
    }
    EXPECT_EQ(r.Read(), Cleared(FrameA(S, 0)));
    EXPECT_EQ(r.Read(), Cleared(FrameA(S, 1)));
    EXPECT_TRUE(r.usb.dev.Events().empty());
}

TEST(ModernLoop, ChunksOfALateFrameFindTheirPlaces)
{
    constexpr int BIG_W = 1024, BIG_H = 2100;
    for (const int h : { 2048, BIG_H }) {  // exactly two chunks, and a third of the rest
        SCOPED_TRACE(h);
        Rig r(Family::Kyanite, true, BIG_W, h);
        const size_t n = h == 2048 ? 2 : 3;
        r.cam.m_lExposure = 0;
        r.cam.m_iFrameTime = 100000;
        r.cam.StartCapture(false);
        ASSERT_TRUE(r.Waiting(n));
        for (unsigned i = 1; i < 4; ++i) {
            platform::SleepMs(300);  // a pass of 250 ms goes by empty
            EXPECT_EQ(r.usb.dev.Outstanding(), n);
            r.usb.Send(FrameA(size_t(BIG_W) * size_t(h), i));
            EXPECT_TRUE(r.Read() == Cleared(FrameA(size_t(BIG_W) * size_t(h), i)));
        }
    }
}

TEST(Snap, OneGoodFrameEndsIt)
{
    Rig r(Family::Quartz, true);
    r.cam.StartExposure();
    ASSERT_TRUE(r.Waiting(1));
    EXPECT_EQ(r.cam.m_ExpStatus, EXP_WORKING);
    r.usb.Send(FrameA(S, 1));
    ASSERT_TRUE(Until([&] { return r.cam.m_ExpStatus == EXP_SUCCESS; }));
    EXPECT_EQ(r.cam.m_pFrameExchange->Count(), 1);
    EXPECT_FALSE(r.cam.m_bCapturing);
    // At once the next one, while the thread may still be in its end sequence.
    r.cam.StartExposure();
    EXPECT_EQ(r.cam.m_ExpStatus, EXP_WORKING);
    EXPECT_EQ(r.cam.m_pFrameExchange->Count(), 0);  // before the new thread has done anything
    ASSERT_TRUE(Until([&] { return r.Log().size() >= 10 * 18; }));
    ASSERT_TRUE(r.Waiting(1));
    EXPECT_EQ(r.cam.m_pFrameExchange->Count(), 0);
    r.usb.Send(FrameA(S, 2));
    ASSERT_TRUE(Until([&] { return r.cam.m_ExpStatus == EXP_SUCCESS; }));
    ASSERT_TRUE(r.cam.Ended());
    EXPECT_EQ(r.Read(), Cleared(FrameA(S, 2)));  // left there by the end of the thread
    EXPECT_EQ(r.cam.m_ExpStatus, EXP_SUCCESS);
}

TEST(Snap, StoppedItStaysIdleWhateverComesLater)
{
    const FastClock fast(20);
    enum class Late { Start, GoodFrame, BadFrame };
    for (const Family f : { Family::Marble, Family::Garnet })
        for (const Late late : { Late::Start, Late::GoodFrame, Late::BadFrame })
            for (const bool bVideoCall : { false, true }) {
                SCOPED_TRACE(testing::Message() << int(f) << ' ' << int(late) << ' ' << bVideoCall);
                Rig r(f, true);
                std::atomic<bool> bHold{ late == Late::Start };
                r.cam.OnStream = [&] { Until([&] { return !bHold; }); };
                r.cam.m_lExposure = 10000000;
                r.cam.StartExposure();
                if (late != Late::Start) {
                    ASSERT_TRUE(r.Waiting(1));
                }
                if (bVideoCall)
                    r.cam.StopCapture();  // both give up after 5 s
                else
                    r.cam.StopExposure();
                EXPECT_EQ(r.cam.m_ExpStatus, EXP_IDLE);
                bHold = false;
                auto frame = FrameOf(f, S, 1);
                frame[0] ^= late == Late::BadFrame;
                if (late != Late::Start)
                    r.usb.Send(frame);
                ASSERT_TRUE(r.cam.Ended(60000));
                EXPECT_EQ(r.cam.m_ExpStatus, EXP_IDLE);
                EXPECT_EQ(r.cam.m_pFrameExchange->Count(), 0);
            }
}

// A host that stops just as the frame comes: whatever comes first, the stop has the last word.
TEST(Snap, StopAtTheMomentOfSuccess)
{
    Rig r(Family::Quartz, true);
    for (int i = 0; i < 300; ++i) {
        r.cam.StartExposure();
        ASSERT_TRUE(r.Waiting(1));
        std::thread sender([&] { r.usb.Send(FrameA(S, 1)); });
        std::this_thread::sleep_for(std::chrono::microseconds(i / 3));
        r.cam.StopExposure();
        const auto now = r.cam.m_ExpStatus.Get();
        sender.join();
        ASSERT_TRUE(r.cam.Ended());
        ASSERT_EQ(now, EXP_IDLE) << i;
        ASSERT_EQ(r.cam.m_ExpStatus, EXP_IDLE) << i;
        r.usb.Drop();
    }
}

// What throws ends the capture or the automation's step, never the process, and the next try works.
TEST(AnyLoop, NothingThrownEndsTheProcess)
{
    struct {
        Family f;
        const char* szAt;
        bool bSnap, bEnds;
    } rows[] = {
        { Family::Quartz, "stream", true, true },      { Family::Quartz, "stream", false, true },
        { Family::Garnet, "stream", false, true },     { Family::Quartz, "gain", false, false },
        { Family::Cobalt, "apply exp", false, false }, { Family::Agate, "model balance", false, false },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << int(row.f) << ' ' << row.szAt);
        Rig r(row.f, true, W, H, "Throws");
        r.cam.m_bAutoGain = r.cam.m_bAutoWB = true;
        r.cam.m_iDestBrightness = 250;
        r.cam.m_lExposure = row.f == Family::Agate ? 150000 : 1000;
        r.cam.sThrowsAt = row.szAt;
        r.cam.nThrows = 1;
        r.cam.StartCapture(row.bSnap);
        if (row.bEnds) {
            ASSERT_TRUE(r.cam.Ended());
            EXPECT_FALSE(r.cam.m_bCapturing);
            if (row.bSnap) {
                EXPECT_EQ(r.cam.m_ExpStatus, EXP_FAILED);
            }
            r.cam.StartCapture(row.bSnap);
        }
        r.usb.Repeat(FrameOf(row.f, S, 1));
        EXPECT_FALSE(r.Read().empty());
        EXPECT_TRUE(Until([&] { return row.bEnds || r.cam.CountOf(row.szAt) >= 2; }));
    }
}

TEST(Snap, FailsAfterASecondOfLostExposure)
{
    struct {
        uint64_t exposure;
        size_t mayFail;
    } rows[] = { { 2000000, 0 }, { 500000, 2 }, { 1000000, 1 } };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.exposure);
        Rig r(Family::Marble, true);
        r.cam.m_lExposure = row.exposure;
        r.cam.StartExposure();
        auto bad = FrameA(S, 1);
        bad[0] = 0;
        for (size_t i = 0; i <= row.mayFail; ++i) {
            ASSERT_TRUE(r.Waiting(1));
            EXPECT_EQ(r.cam.m_ExpStatus, EXP_WORKING);
            const size_t n = r.Events("reset 82");
            r.usb.Send(bad);
            ASSERT_TRUE(Until([&] { return r.Events("reset 82") > n; }));
        }
        ASSERT_TRUE(r.cam.Ended());
        EXPECT_EQ(r.cam.m_ExpStatus, EXP_FAILED);
        EXPECT_FALSE(r.cam.m_bCapturing);
    }
}

// QUIRK: the restart after four empty frames clears the count, so that below a third of a second a snap of the USB 3 forms goes
// on until it is stopped.
TEST(Snap, OfADeviceThatHasGone)
{
    const FastClock fast(20);
    for (const Family f : { Family::Quartz, Family::GarnetS, Family::Garnet, Family::Dunite })
        for (const uint64_t exposure : { 350000u, 20000u }) {
            SCOPED_TRACE(testing::Message() << int(f) << ' ' << exposure);
            Rig r(f, false);
            r.cam.m_lExposure = exposure;
            r.cam.StartExposure();
            ASSERT_TRUE(r.Waiting(1));
            r.usb.dev.Vanish();
            if (exposure == 350000 || f == Family::Garnet || f == Family::Dunite) {
                EXPECT_TRUE(Until([&] { return r.cam.m_ExpStatus == EXP_FAILED; }));
                continue;
            }
            platform::SleepMs(5000);
            EXPECT_EQ(r.cam.m_ExpStatus, EXP_WORKING);
            r.cam.StopExposure();
            EXPECT_EQ(r.cam.m_ExpStatus, EXP_IDLE);
        }
}

TEST(AnyLoop, EndsWhenTheDeviceHasGoneOrTheCameraCloses)
{
    const FastClock fast(20);
    for (const Family f : { Family::Kyanite, Family::Garnet, Family::Dunite, Family::Cobalt, Family::Iolite }) {
        Rig r(f, true);
        ASSERT_TRUE(r.Starts());
        r.usb.dev.Vanish();
        platform::SleepMs(3000);
        EXPECT_TRUE(r.cam.m_bCapturing);  // goes on until it is stopped
        r.cam.StopCapture();
        EXPECT_TRUE(r.cam.Ended(100000));
    }
    // A wait of minutes does not hold up the closing.
    Rig r(Family::Marble, true);
    r.cam.m_lExposure = 100000000;
    ASSERT_TRUE(r.Starts());
    EXPECT_FALSE(r.cam.StopCapture());  // gives up after 5 s
    // The next capture sees to it that the old thread goes.
    r.cam.m_lExposure = 1000;
    r.cam.StartCapture(false);
    r.usb.Repeat(FrameA(S, 5));
    EXPECT_FALSE(r.Read(60000).empty());
    EXPECT_TRUE(r.cam.StopCapture());
}

TEST(AnyLoop, SizesThatMakeNoFrameDoNoHarm)
{
    const FastClock fast(20);
    for (const Family f : { Family::Quartz, Family::Garnet }) {
        Rig r(f, true);
        r.cam.m_iWidth = 0;
        r.cam.StartCapture(false);
        platform::SleepMs(2000);
        r.cam.StopCapture();
        EXPECT_TRUE(r.cam.Ended(100000));
        r.cam.m_iWidth = W;
        r.cam.m_iHeight = 100 * H;  // more than the buffers hold
        r.usb.Repeat(FrameA(S, 5));
        r.cam.StartCapture(false);
        platform::SleepMs(2000);
        r.cam.StopCapture();
        EXPECT_TRUE(r.cam.Ended(100000));
    }
}

// --- USB 2 ------------------------------------------------------------------------------------------------------------

TEST(GarnetLoop, StartAndEndInOrder)
{
    for (const Family f : { Family::Garnet, Family::Agate, Family::Dunite }) {
        Rig r(f, false);
        r.cam.m_bOutput16Bits = true;
        ASSERT_TRUE(r.Starts());
        EXPECT_EQ(r.Log(),
                  "out 170 0000 0000\nout 166 aaaa 0000\nout 175 0000 0000\nout 169 0000 0000\nout 172 0000 0000\n"
                  "out 166 aaaa 0001\n");
        const char* const szSize = f == Family::Garnet ? "size 82 4b000" : "size 82 75400";
        EXPECT_EQ(r.usb.dev.Events(), (std::vector<std::string>{ "abort 82", "reset 82", szSize }));
        r.usb.dev.Clear();
        r.cam.StopCapture();
        EXPECT_EQ(r.Log(), "out 166 aaaa 0000\nout 170 0000 0000\n");
    }
}

TEST(GarnetLoop, QuirkFirstGoodFrameOfAVideoIsLost)
{
    Rig r(Family::Garnet, false);
    ASSERT_TRUE(r.Starts());
    r.usb.Send(FrameB(S, 1));
    ASSERT_TRUE(Until([&] { return r.Events("reset 82") == 2; }));
    ASSERT_TRUE(r.Waiting(1));
    EXPECT_EQ(r.cam.m_ExpStatus, EXP_SUCCESS);
    r.usb.Send(FrameB(S, 2));
    EXPECT_EQ(r.Read(), FrameB(S, 2));
    r.cam.StopCapture();

    r.cam.StartExposure();
    ASSERT_TRUE(r.Waiting(1));
    r.usb.Send(FrameB(S, 3));
    ASSERT_TRUE(r.cam.Ended());
    EXPECT_EQ(r.cam.m_ExpStatus, EXP_SUCCESS);
    EXPECT_EQ(r.Read(), FrameB(S, 3));
}

TEST(SmallChunkLoops, QuirkBadHeadIsDeliveredAndCountedAtShortExposures)
{
    for (const Family f : { Family::Garnet, Family::Iolite, Family::Cobalt, Family::Dunite })
        for (const uint64_t exposure : { 99999u, 100000u }) {
            Rig r(f, false);
            r.cam.m_lExposure = exposure;
            ASSERT_TRUE(r.Starts());
            auto bad = FrameB(S, 1);
            bad[3] = 0;
            ASSERT_TRUE(r.SendBad(bad));
            EXPECT_EQ(r.cam.m_iDroppedFrames, 1u);
            EXPECT_EQ(r.cam.m_pFrameExchange->Count(), exposure < 100000 ? 1 : 0) << int(f);
        }
}

// At the fourth the line is stretched where it can be; past the limit the camera is reset, and the count starts anew.
TEST(SmallChunkLoops, RunsOfBadFramesResetTheCamera)
{
    const struct {
        Family family;
        int limit;
        std::string sFourth, sReset;
        size_t nPorts;
    } rows[] = {
        { Family::Garnet, 20, "out 166 300c 0690\n", "out 166 300c 0690\nout 169 0000 0000\n", 1 },  // 1650 + 30
        { Family::Cobalt, 20, "out 166 300c 0690\n", "out 166 300c 0690\nout 169 0000 0000\n", 1 },
        { Family::Dunite, 20, "", "out 166 000c 0001\nout 169 0000 0000\n", 1 },
        { Family::Iolite, 30, "", "out 175 0000 0000\nout 166 001e 8000\n", 0 },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(int(row.family));
        Rig r(row.family, false, W, H, "Runs");
        r.cam.m_lExposure = PATIENT;
        ASSERT_TRUE(r.Starts());
        ASSERT_TRUE(Until([&] { return r.Log().find("out 169") != std::string::npos; }));
        r.usb.dev.Clear();
        for (int i = 1; i <= row.limit; ++i)
            ASSERT_TRUE(r.SendBad(Body(100, 1), i == 4 && !row.sFourth.empty() ? 2 : 1)) << i;
        EXPECT_EQ(r.Log(), row.sFourth);
        r.usb.dev.Clear();
        ASSERT_TRUE(r.SendBad(Body(100, 1)));
        ASSERT_TRUE(Until([&] { return r.usb.dev.Requests().size() == 2; }));
        EXPECT_EQ(r.Log(), row.sReset);
        EXPECT_EQ(r.Events("resetport"), row.nPorts);
        EXPECT_EQ(r.cam.m_iDroppedFrames, uint32_t(row.limit + 1));
        r.usb.dev.Clear();
        for (int i = 1; i <= 2; ++i)
            ASSERT_TRUE(r.SendBad(Body(100, 1)));
        EXPECT_EQ(r.Log(), "");
    }
}

TEST(GarnetLoop, SilenceResetsTheDeviceAfterFiftyOnePasses)
{
    const FastClock fast(50);
    Rig r(Family::Garnet, false);
    r.cam.m_lExposure = 0;  // short waits: frame time is 2 ms
    ASSERT_TRUE(r.Starts());
    ASSERT_TRUE(Until([&] { return r.usb.dev.Requests().size() >= 8; }, 10000));
    EXPECT_EQ(r.Log().substr(5 * 18, 3 * 18), "out 166 300c 0690\nout 175 0000 0000\nout 169 0000 0000\n");
}

TEST(GarnetSLoop, FifthBadFrameStretchesTheLine)
{
    Rig r(Family::GarnetS, false);
    r.cam.m_lExposure = PATIENT;
    ASSERT_TRUE(r.Starts());
    r.usb.dev.Clear();
    const std::string file = testing::TempDir() + "kov-line.log";
    std::remove(file.c_str());
    logging::Configure("info:capture", file.c_str());
    for (int i = 1; i <= 6; ++i) {
        ASSERT_TRUE(r.SendBad(FrameB(S, 2, false)));
        EXPECT_EQ(r.Log(), i < 5 ? "" : "out 166 300c 06d6\n") << i;  // 1650 + 100
    }
    logging::Configure(nullptr, nullptr);
    std::ifstream in(file);
    const std::string log(std::istreambuf_iterator<char>(in), {});
    EXPECT_NE(log.find("line length from 1650 to 1750: five frames damaged"), log.npos) << log;
}

TEST(SmallChunkLoops, CobaltQueuesFirst)
{
    Rig r(Family::Cobalt, true, W, H, "QueueFirst");
    r.cam.StartCapture(false);
    ASSERT_TRUE(Until([&] { return r.usb.dev.Requests().size() == 3; }));
    EXPECT_EQ(r.Log(), "out 170 0000 0000\nout 175 0000 0000\nout 169 0000 0000\n");
    EXPECT_EQ(r.Events("size 82 5b000"), 1u);
    EXPECT_EQ(r.usb.dev.Outstanding(), 1u);
    // Its own automation thread carries exposure and gain to the sensor.
    EXPECT_TRUE(Until([&] { return r.cam.CountOf("apply") >= 2; }));
    EXPECT_EQ(r.cam.Notes()[0], "apply exp");
    EXPECT_EQ(r.cam.Notes()[1], "apply gain");
    r.cam.StopCapture();
}

TEST(SmallChunkLoops, IoliteFixesTheBlackLevelAfter800Ms)
{
    const FastClock fast(10);
    Rig r(Family::Iolite, false, W, H, "Iolite");
    r.cam.m_bAutoBLBusy = true;
    r.usb.dev.OnIn = [](const RecordedRequest& q, uint8_t* p, uint16_t) {
        if (q.bRequest == 167)
            p[1] = uint8_t(q.wValue == 97 ? 0xFE : 109 - q.wValue);  // the first fails and counts as 0; -2, 10, 9
    };
    r.usb.dev.OnFail = [](const RecordedRequest& q) { return q.bRequest == 167 && q.wValue == 96; };
    const uint32_t dwStart = platform::Ticks();
    r.usb.Repeat(FrameB(S, 1));
    r.cam.StartCapture(false);
    ASSERT_TRUE(Until([&] { return r.cam.CountOf("offset") == 1; }));
    ASSERT_TRUE(Until([&] { return r.cam.m_bAutoBL.Get(); }));
    EXPECT_EQ(r.cam.Notes().front(), "offset 0 10");
    EXPECT_GT(r.cam.m_iAutoBLCount, 800);
    EXPECT_GE(platform::Ticks() - dwStart, 800u);
    EXPECT_EQ(r.Log().substr(0, 18 * 4), "out 170 0000 0000\nout 166 aaaa 0000\nout 175 0000 0000\nout 166 001e 8000\n");
}

// --- automation -------------------------------------------------------------------------------------------------------

TEST(Automation, ShortExposuresBesideTheLoopLongOnesInIt)
{
    for (const bool bLong : { false, true }) {
        SCOPED_TRACE(bLong);
        const FastClock fast(10);
        Rig r(Family::Quartz, true);
        r.cam.m_bAutoGain = true;
        r.cam.m_iDestBrightness = 250;  // far away: each step sets the gain
        r.cam.m_lExposure = bLong ? 100000 : 99999;
        const size_t before = r.cam.CountOf("gain");
        ASSERT_TRUE(r.Starts());
        if (!bLong) {
            EXPECT_TRUE(Until([&] { return r.cam.CountOf("gain") > before + 2; }));  // without any frame
            continue;
        }
        platform::SleepMs(1000);
        EXPECT_EQ(r.cam.CountOf("gain"), before);
        for (unsigned i = 0; i < 4; ++i) {
            const size_t n = r.cam.CountOf("gain");
            r.usb.Send(FrameA(S, i));
            EXPECT_FALSE(r.Read(30000).empty());
            if (i % 2 == 0) {
                EXPECT_TRUE(Until([&] { return r.cam.CountOf("gain") > n; }));
            }
            platform::SleepMs(300);
            if (i % 2 == 1) {
                EXPECT_EQ(r.cam.CountOf("gain"), n);
            }
        }
    }
}

TEST(Automation, QuirkGarnetColStandsStillFrom100Ms)
{
    for (const bool bColor : { false, true }) {
        Rig r(Family::Garnet, bColor);
        r.cam.m_bAutoGain = true;
        r.cam.m_iDestBrightness = 250;
        r.cam.m_lExposure = 100000;
        ASSERT_TRUE(r.Starts());
        ASSERT_TRUE(r.SendBad(FrameB(S, 1)));  // the first good one
        for (unsigned i = 0; i < 3; ++i) {     // each after the step on the one before
            r.usb.Send(FrameB(S, i));
            EXPECT_FALSE(r.Read(30000).empty());
        }
        EXPECT_EQ(r.cam.CountOf("gain") == 0, bColor);
    }
}

TEST(Automation, AgateTakesAOneShotThreadForShortExposures)
{
    Rig r(Family::Agate, true, W, H, "AgateAuto");
    r.cam.m_bAutoWB = true;
    r.cam.m_lExposure = 150000;  // two frames pass 200 ms
    ASSERT_TRUE(r.Starts());
    for (unsigned i = 0; i < 5; ++i) {
        r.usb.Send(FrameB(S, i));
        ASSERT_TRUE(Until([&] { return r.usb.Left() == 0; }) && r.Waiting(1));
        EXPECT_TRUE(Until([&] { return r.cam.CountOf("model balance") == (i + 1) / 2; })) << i;
        platform::SleepMs(30);
    }
    r.cam.m_lExposure = 500001;
    r.usb.Send(FrameB(S, 7));
    EXPECT_TRUE(Until([&] { return r.cam.CountOf("model balance") == 3; }));
}

}  // namespace
