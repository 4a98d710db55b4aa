// A camera that falls off the bus at the worst moment: every call ends in time, and once it is back on the bus it can be
// found, opened and used again.
#include "faults/FaultBench.h"

namespace {

using kovsim::FaultKind;

constexpr int32_t US = 20000;

KOV_EXPOSURE_STATUS Status()
{
    KOV_EXPOSURE_STATUS s = EXP_IDLE;
    EXPECT_EQ(KOVGetExpStatus(0, &s), KOV_SUCCESS);
    return s;
}

TEST_P(FormTest, UnpluggedDuringVideo)
{
    ASSERT_NO_FATAL_FAILURE(PlugAndOpen(Form(), W, H, US));
    ASSERT_EQ(KOVStartVideoCapture(0), KOV_SUCCESS);
    std::vector<uint8_t> data(m_iBytes);
    {
        const Limit limit("video of a camera that goes");
        ASSERT_EQ(KOVGetVideoData(0, data.data(), int32_t(data.size()), 200000), KOV_SUCCESS);
        m_pCam->Unplug();
        // What lies in the ring may still come; then nothing but time-outs, and the controls fail or do nothing.
        KOV_ERROR_CODE r = KOV_SUCCESS;
        for (int i = 0; i < 4 && r == KOV_SUCCESS; ++i)
            r = KOVGetVideoData(0, data.data(), int32_t(data.size()), 500);
        EXPECT_EQ(r, KOV_ERROR_TIMEOUT);
        for (int c = CTRL_GAIN; c <= CTRL_COOLER_ON; ++c) {
            int32_t v;
            KOV_BOOL a;
            KOVGetControlValue(0, KOV_CONTROL_TYPE(c), &v, &a);
            KOVSetControlValue(0, KOV_CONTROL_TYPE(c), 1, KOV_FALSE);
        }
        KOVPulseGuideOn(0, KOV_GUIDE_0);
        KOV_ID id;
        EXPECT_EQ(KOVGetID(0, &id), KOV_ERROR_GENERAL);
        EXPECT_EQ(KOVGetVideoData(0, data.data(), int32_t(data.size()), 3000), KOV_ERROR_TIMEOUT);
        EXPECT_EQ(KOVStopVideoCapture(0), KOV_SUCCESS);
        EXPECT_EQ(KOVStartVideoCapture(0), KOV_SUCCESS) << "the camera still counts as open";
        EXPECT_EQ(KOVGetVideoData(0, data.data(), int32_t(data.size()), 500), KOV_ERROR_TIMEOUT);
        EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
        EXPECT_EQ(KOVGetNumOfConnectedCameras(), 0);
        EXPECT_NE(KOVOpenCamera(0), KOV_SUCCESS);
    }
    m_pCam->Replug();
    ExpectUsable(W, H, US);
}

// A host that waits without limit for a frame that will not come is set free by the close.
TEST_P(SomeFormsTest, CloseFreesAWaitingReader)
{
    ASSERT_NO_FATAL_FAILURE(PlugAndOpen(Form(), W, H, 350000));
    Fault(FaultKind::NoFrame, 0, 0, 100000);
    ASSERT_EQ(KOVStartExposure(0), KOV_SUCCESS);
    m_pCam->Unplug();
    ASSERT_TRUE(Until([] { return Status() == EXP_FAILED; }));
    std::atomic<bool> bInside{ false }, bBack{ false };
    std::thread reader([&] {
        std::vector<uint8_t> data(m_iBytes);
        bInside = true;
        KOVGetDataAfterExp(0, data.data(), int32_t(data.size()));
        bBack = true;
    });
    Until([&] { return bInside.load(); });
    platform::SleepMs(200);
    EXPECT_FALSE(bBack);
    const Limit limit("KOVCloseCamera with a reader inside");
    EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
    reader.join();
}

TEST_P(SomeFormsTest, UnpluggedDuringStopAndClose)
{
    Plug(Form(), std::make_shared<TimedPattern>(US));
    std::vector<uint8_t> data(W * H);
    // From the moment before the call to well inside its waits.
    for (const bool bClose : { false, true })
        for (const int us : { 0, 500, 2000, 8000, 30000 }) {
            SCOPED_TRACE(testing::Message() << (bClose ? "close" : "stop") << ", unplugged after " << us << " us");
            ASSERT_NO_FATAL_FAILURE(Open(W, H, US));
            ASSERT_EQ(KOVStartVideoCapture(0), KOV_SUCCESS);
            if (us % 1000 == 0)
                KOVGetVideoData(0, data.data(), int32_t(data.size()), 200000);
            std::thread unplug([&] {
                std::this_thread::sleep_for(std::chrono::microseconds(us));
                m_pCam->Unplug();
            });
            {
                const Limit limit(bClose ? "KOVCloseCamera" : "KOVStopVideoCapture");
                if (!bClose) {
                    EXPECT_EQ(KOVStopVideoCapture(0), KOV_SUCCESS);
                }
                EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
            }
            unplug.join();
            m_pCam->Replug();
        }
    ExpectUsable(W, H, US);
}

}  // namespace
