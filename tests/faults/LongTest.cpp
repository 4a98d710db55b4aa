// Exposures of a minute that the host times, whole: what the camera is sent and when, how bright the frame is, how soon a
// change and a stop are noticed, and what becomes of a camera that goes meanwhile.
#include "faults/FaultBench.h"

namespace {

using kovsim::Request;

constexpr double RATE = 10;
constexpr int W = 320, H = 240;
constexpr int32_t MINUTE = 60000000, TENTH = 6000000;
// Device ms that a busy machine may add to a single step at this rate.
constexpr double SLACK = 4000;

struct Step {
    uint8_t bRequest;
    int value, index;   // -1: any
    double dGapMs;      // at least, since the step before
};

struct LongRow {
    const char* szName;
    uint16_t wProductId;
    int iFirmware;
    int iStepMs;                   // of the sleeps in which a change is noticed
    std::vector<Step> steps;       // for a minute
    size_t nRelease;               // the step that ends the exposure
};

constexpr uint8_t W16 = 166, R8 = 183, W8 = 182, FPGA = 189, STOP_CLOCK = 174, START_CLOCK = 175;

std::vector<LongRow> Rows()
{
    return {
        { "KyaniteCol_C", 0xC0B1, -1, 200,
          { { W16, 96, 17, 0 }, { FPGA, 1, 1, 0 }, { FPGA, 19, -1, 0 }, { FPGA, 20, -1, 0 }, { FPGA, 1, 0, 0 },
            { FPGA, 11, 1, 0 }, { W16, 0x11, 0x3C40, 0 }, { W16, 0, 0, 0 }, { FPGA, 11, 17, 0 },
            { FPGA, 11, 1, 60000 }, { W16, 0x11, 0x3C43, 0 }, { W16, 0, 0x73, 0 }, { W16, 0x5F, 13, 1 },
            { W16, 0x61, 0, 0 }, { W16, 0, 0x173, 0 }, { FPGA, 11, 0, 10 } }, 9 },
        { "LapisCol18", 0xC0CA, 18, 200, { { FPGA, 11, 1, 0 }, { FPGA, 11, 0, 60000 } }, 1 },
        { "LapisCol17", 0xC0CA, 17, 200, {}, 0 },  // the sensor counts by itself
        { "HaliteCol", 0xC08A, -1, 200,
          { { FPGA, 11, 1, 0 }, { R8, 0x8200, 0, 1000 }, { W8, 0x0200, 6, 0 }, { W8, 0x0200, 4, 59000 }, { FPGA, 11, 0, 10 } },
          3 },
        // The clock stands still for the exposure less what the sensor's own 12287 lines take: 1044 ms, and 200 before.
        { "GarnetMono", 0xC07A, -1, 500, { { STOP_CLOCK, 0, 0, 0 }, { START_CLOCK, 0, 0, 58500 } }, 1 },
    };
}

class LongTest : public FaultTest, public testing::WithParamInterface<LongRow> {
protected:
    void Prepare(int32_t us)
    {
        Speed(RATE);
        kovsim::CameraSettings s;
        s.wProductId = GetParam().wProductId;
        s.iFirmware = GetParam().iFirmware;
        s.dNoise = 0;
        s.iHotPixels = 0;
        s.scene = kovsim::Scene::Dark();
        m_pCam = &m_pBus->Plug(s);
        ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
        const Limit limit("KOVOpenCamera");
        ASSERT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
        ASSERT_EQ(KOVSetROIFormat(0, W, H, 1, Bits() == 16 ? IMG_RAW16 : IMG_RAW8), KOV_SUCCESS);
        KOVSetControlValue(0, CTRL_WB_R, 50, KOV_FALSE);
        KOVSetControlValue(0, CTRL_WB_B, 50, KOV_FALSE);
        ASSERT_EQ(KOVSetControlValue(0, CTRL_GAIN, 0, KOV_FALSE), KOV_SUCCESS);
        Mean(10000);  // computes the scene: the large sensors take longer for that than the host waits for a frame
        ASSERT_EQ(KOVSetControlValue(0, CTRL_EXPOSURE, us, KOV_FALSE), KOV_SUCCESS);
        m_pCam->ClearRequests();
    }
    int Bits() const { return GetParam().wProductId == 0xC07A ? 8 : 16; }

    static KOV_EXPOSURE_STATUS Status()
    {
        KOV_EXPOSURE_STATUS s = EXP_IDLE;
        EXPECT_EQ(KOVGetExpStatus(0, &s), KOV_SUCCESS);
        return s;
    }

    // Mean of one snap, in 8-bit numbers.
    double Mean(int32_t us)
    {
        EXPECT_EQ(KOVSetControlValue(0, CTRL_EXPOSURE, us, KOV_FALSE), KOV_SUCCESS);
        m_pCam->ClearRequests();
        EXPECT_EQ(KOVStartExposure(0), KOV_SUCCESS);
        EXPECT_TRUE(Until([] { return Status() != EXP_WORKING; }, 60));
        if (Status() != EXP_SUCCESS) {
            ADD_FAILURE() << "no frame: status " << Status() << ", " << m_pCam->CurrentReadout().sWhy;
            KOVStopExposure(0);
            return 0;
        }
        std::vector<uint8_t> data(size_t(W) * H * (Bits() / 8));
        EXPECT_EQ(KOVGetDataAfterExp(0, data.data(), int32_t(data.size())), KOV_SUCCESS);
        double sum = 0;
        for (size_t i = 0; i < data.size(); ++i)
            sum += Bits() == 8 ? data[i] : i & 1 ? data[i] : data[i] / 256.0;
        return sum / (W * H);
    }

    // The host's requests that matter: no cooler, no thermometer.
    std::vector<Request> Log() const
    {
        std::vector<Request> log;
        for (const Request& r : m_pCam->Requests())
            if (r.bIn ? r.bRequest == R8 && r.wValue == 0x8200 : r.bRequest != 178)
                log.push_back(r);
        return log;
    }
    static bool Fits(const Request& r, const Step& s)
    {
        return r.bRequest == s.bRequest && (s.value < 0 || r.wValue == s.value) && (s.index < 0 || r.wIndex == s.index);
    }
    // Where the exposure's steps begin in the log, or its end.
    size_t FindPass(const std::vector<Request>& log) const
    {
        const auto& steps = GetParam().steps;
        size_t at = 0;
        while (at < log.size() && !(Fits(log[at], steps[0]) && (at + 1 == log.size() || Fits(log[at + 1], steps[1]))))
            ++at;
        return at;
    }
    bool IsExposing() const
    {
        const auto log = Log();
        if (GetParam().steps.empty())
            return Sent(169) > 0 && log.back().bRequest != 169;
        return FindPass(log) + GetParam().nRelease <= log.size() && FindPass(log) < log.size();
    }
    // Device time of the release, or 0.
    bool IsReleased() const
    {
        const auto log = Log();
        return FindPass(log) + GetParam().nRelease < log.size();
    }
    // ms of exposure by the camera's own account of the last pass.
    double Exposed(double told) const
    {
        if (GetParam().steps.empty())
            return told;
        const auto log = Log();
        const size_t at = FindPass(log);
        const size_t nBegin = GetParam().wProductId == 0xC0B1 ? 5 : 0;  // Kyanite prepares before it shuts the gate
        const double held = double(log[at + GetParam().steps.size() - 1].uTimeUs - log[at + nBegin].uTimeUs) / 1000;
        return held + m_pCam->CurrentReadout().dAfterHoldUs / 1000;
    }
};

TEST_P(LongTest, MinuteAgainstATenthOfIt)
{
    ASSERT_NO_FATAL_FAILURE(Prepare(TENTH));
    const auto& steps = GetParam().steps;
    const double dark = Mean(TENTH);
    // Two thirds of the range for a minute.
    m_pCam->SetScene(kovsim::Scene::Flat(float(m_pCam->Facts().dFullWell * 0.66 / 60)));
    Mean(10000);
    const double tenth = Mean(TENTH) - dark, tTenth = Exposed(TENTH / 1000.0);
    const double minute = Mean(MINUTE) - dark, tMinute = Exposed(MINUTE / 1000.0);

    const auto log = Log();
    const size_t at = steps.empty() ? 0 : FindPass(log);
    ASSERT_LE(at + steps.size(), log.size());
    for (size_t i = 0; i < steps.size(); ++i) {
        const Request& r = log[at + i];
        SCOPED_TRACE(testing::Message() << "step " << i << ": request " << int(r.bRequest) << ", " << r.wValue << ", " << r.wIndex);
        EXPECT_TRUE(Fits(r, steps[i]));
        if (i > 0) {
            EXPECT_GE(double(r.uTimeUs - log[at + i - 1].uTimeUs) / 1000 + 1, steps[i].dGapMs);
        }
    }
    if (steps.empty()) {
        EXPECT_EQ(Sent(FPGA, 11), 0);
    }
    // Sleeps add up what a busy machine oversleeps; the frame holds the time that really passed.
    EXPECT_GE(tMinute, 0.99 * MINUTE / 1000);
    EXPECT_LE(tMinute, 1.4 * MINUTE / 1000);
    EXPECT_GT(tenth, 5);
    EXPECT_NEAR(minute / tenth / (tMinute / tTenth), 1, Bits() == 8 ? 0.06 : 0.02) << minute << " against " << tenth;
}

TEST_P(LongTest, ChangeIsNoticedAtTheNextStep)
{
    ASSERT_NO_FATAL_FAILURE(Prepare(MINUTE));
    ASSERT_EQ(KOVStartExposure(0), KOV_SUCCESS);
    ASSERT_TRUE(Until([&] { return IsExposing(); }));
    platform::SleepMs(3000);
    const bool bOld = GetParam().steps.empty();
    m_pCam->ClearRequests();
    const uint32_t t0 = platform::Ticks();
    ASSERT_EQ(KOVSetControlValue(0, CTRL_EXPOSURE, 5000000, KOV_FALSE), KOV_SUCCESS);
    const auto released = [&] {
        if (bOld)
            return Sent(W8, 530, 1) > 0 && Sent(W8, 512, 1) > 0;
        const Step& s = GetParam().steps[GetParam().nRelease];
        return Sent(s.bRequest, s.value, s.index) > 0;
    };
    ASSERT_TRUE(Until(released));
    // One step, and what follows the steps: Lapis keeps two of its steps back, Garnet up to half a second.
    EXPECT_LE(platform::Ticks() - t0, 2 * GetParam().iStepMs + 600 + SLACK);
    if (!bOld) {
        EXPECT_TRUE(Until([] { return Status() == EXP_SUCCESS; }));
    }
    const Limit limit("KOVStopExposure");
    EXPECT_EQ(KOVStopExposure(0), KOV_SUCCESS);
}

TEST_P(LongTest, StopIsNoticedAtTheNextStep)
{
    for (const bool bVideo : { false, true }) {
        ASSERT_NO_FATAL_FAILURE(Prepare(MINUTE));
        ASSERT_EQ(bVideo ? KOVStartVideoCapture(0) : KOVStartExposure(0), KOV_SUCCESS);
        ASSERT_TRUE(Until([&] { return IsExposing(); }));
        platform::SleepMs(3000);
        const Limit limit("a stop during a long exposure");
        const uint32_t t0 = platform::Ticks();
        EXPECT_EQ(bVideo ? KOVStopVideoCapture(0) : KOVStopExposure(0), KOV_SUCCESS);
        // The step, what is left of the exposure's end, and the wait for a frame: never the minute.
        EXPECT_LE(platform::Ticks() - t0, 5000 + SLACK);
        if (!bVideo) {
            EXPECT_EQ(Status(), EXP_IDLE);
        }
        EXPECT_TRUE(Until([&] { return Sent(170) >= 2; })) << "the stream is stopped";
        EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
    }
}

INSTANTIATE_TEST_SUITE_P(Long, LongTest, testing::ValuesIn(Rows()),
                         [](const auto& info) { return std::string(info.param.szName); });

// Of every form, with the exposure from which it counts as long.
TEST_P(FormTest, UnpluggedDuringALongExposure)
{
    Speed(RATE);
    const uint16_t id = Form().wProductId;
    const int32_t us = id == 0xC03A ? 64000000 : id == 0xC09A || id == 0xC04B ? 12000000 : 5000000;
    ASSERT_NO_FATAL_FAILURE(PlugAndOpen(Form(), W, H, us));
    const bool bLapis = id == 0xC0CA;
    const auto status = [] {
        KOV_EXPOSURE_STATUS s = EXP_IDLE;
        KOVGetExpStatus(0, &s);
        return s;
    };
    for (const bool bStop : { true, false }) {
        SCOPED_TRACE(bStop ? "stopped" : "left alone");
        const uint64_t good = m_pCam->Counters().uGood;
        ASSERT_EQ(KOVStartExposure(0), KOV_SUCCESS);
        platform::SleepMs(2000);
        EXPECT_EQ(CCameraBase::FromID(0)->m_bLongExp, id != 0xC0AA) << "Jasper's longest is four seconds";
        m_pCam->Unplug();
        const Limit limit("a long exposure of a camera that goes");
        if (!bStop) {
            // QUIRK: Lapis looks for its camera when the exposure has ended and nothing came. When it finds none the
            // thread ends and leaves the exposure running, on a camera that is no longer open.
            if (bLapis) {
                EXPECT_TRUE(Until([] { return !CCameraBase::FromID(0)->m_bOpen; }));
                platform::SleepMs(3000);
                EXPECT_EQ(status(), EXP_WORKING);
            } else {
                EXPECT_TRUE(Until([&] { return status() != EXP_WORKING; }));
                // Beryl has no gate, and Dunite's clock runs on for a moment: a frame may have come before.
                EXPECT_EQ(status(), m_pCam->Counters().uGood > good ? EXP_SUCCESS : EXP_FAILED);
            }
        }
        EXPECT_EQ(KOVStopExposure(0), KOV_SUCCESS);
        EXPECT_EQ(status(), EXP_IDLE);
        EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
        m_pCam->Replug();
        if (bStop) {
            ASSERT_NO_FATAL_FAILURE(Open(W, H, us));
        }
    }
    ExpectUsable(W, H, 20000);
}

class LapisTest : public FaultTest, public testing::WithParamInterface<int> {};

// The camera comes back while the exposure still runs: the thread finds it under its new address and starts the stream
// again.
TEST_P(LapisTest, ReconnectsToACameraThatCameBack)
{
    Speed(RATE);
    const FormRow form{ "LapisCol", 0xC0CA, GetParam(), false, true, true, W, H };
    ASSERT_NO_FATAL_FAILURE(PlugAndOpen(form, W, H, 10000000));
    ASSERT_EQ(KOVStartVideoCapture(0), KOV_SUCCESS);
    platform::SleepMs(3000);
    const uint8_t old = m_pBus->Enumerate().at(0).bAddress;
    m_pCam->ClearRequests();
    Fault(kovsim::FaultKind::Vanish, 1000);
    ASSERT_TRUE(Until([&] { return Sent(169) > 0; })) << "not found again";
    EXPECT_NE(m_pBus->Enumerate().at(0).bAddress, old);
    EXPECT_TRUE(CCameraBase::FromID(0)->m_bOpen);
    EXPECT_EQ(Sent(170), 1);
    const Limit limit("a stop after the reconnection");
    EXPECT_EQ(KOVStopVideoCapture(0), KOV_SUCCESS);
    EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
    ExpectUsable(W, H, 20000);
}

INSTANTIATE_TEST_SUITE_P(Firmware, LapisTest, testing::Values(17, 18));

}  // namespace
