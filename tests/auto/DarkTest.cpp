// Dark frames: collected by delivering frames, kept in a file, subtracted where they belong.
#include <fstream>

#include "auto/AutoBench.h"

namespace {

// What a pixel becomes: dark out, the dark's mean back in.
int Less(int p, int dark, int mean) { return std::min((p > dark ? p - dark : 0) + mean, 255); }

class DarkTest : public AutoTest {
protected:
    void OpenSmall(uint16_t wProductId, std::shared_ptr<const kovsim::Scene> scene)
    {
        kovsim::CameraSettings s = Quiet(wProductId);
        s.scene = std::move(scene);
        ASSERT_NO_FATAL_FAILURE(Open(s));
        Region(m_pCam->m_iMaxWidth, m_pCam->m_iMaxHeight);
    }
    // The dark frame of the full sensor, from frames of a video.
    void Collect(int iFrames)
    {
        EXPECT_EQ(m_pCam->GettingDark(true, 0), iFrames);
        Start();
        for (int n = 0; n < iFrames; ++n) {
            EXPECT_TRUE(m_pCam->IsGetDarkOver()) << "QUIRK: true means that it still runs";
            ASSERT_TRUE(Next());
        }
        EXPECT_FALSE(m_pCam->IsGetDarkOver());
        Stop();
    }
    std::string Path(const char* szName) const { return testing::TempDir() + "kov-auto-" + std::to_string(getpid()) + szName; }
    static Bytes ReadFile(const std::string& sPath)
    {
        std::ifstream in(sPath, std::ios::binary);
        return { std::istreambuf_iterator<char>(in), {} };
    }
    KOV_ERROR_CODE Enable(const std::string& sPath)
    {
        KOV_BOOL on = KOV_TRUE;
        return KOVEnableDarkSubtract(m_iId, sPath.c_str(), &on);
    }
    bool Enabled()
    {
        KOV_BOOL on = KOV_FALSE;
        EXPECT_EQ(KOVEnableDarkSubtract(m_iId, nullptr, &on), KOV_SUCCESS);
        return on == KOV_TRUE;
    }
};

TEST_F(DarkTest, CollectedSavedLoadedAndSubtracted)
{
    // A pattern for a dark frame: any pixel out of place would show.
    ASSERT_NO_FATAL_FAILURE(OpenSmall(0xC0FA, kovsim::Scene::Pattern()));
    const int W = m_iW;
    Set(CTRL_GAIN, 0);
    Set(CTRL_EXPOSURE, 5000);
    ASSERT_TRUE(TakeSnap());
    const Bytes dark = m_Frame;
    ASSERT_NO_FATAL_FAILURE(Collect(5));
    uint64_t sum = 0;
    for (size_t i = 0; i < dark.size(); ++i) {
        ASSERT_EQ(m_pCam->m_pDarkBuf[i], dark[i]) << i;
        sum += dark[i];
    }
    const int iMean = static_cast<int>(sum / dark.size());
    EXPECT_EQ(m_pCam->m_iDarkAve, iMean);

    // Rows of the file in the order of memory; its head is looked at in the core.
    const std::string sPath = Path("dark.bmp");
    EXPECT_EQ(m_pCam->SaveBMPToFile(sPath.c_str()), 1);
    const Bytes file = ReadFile(sPath);
    ASSERT_EQ(file.size(), 1078 + dark.size());
    EXPECT_TRUE(std::equal(dark.begin(), dark.end(), file.begin() + 1078));

    // Switched on by the file, in an object that has not seen the dark frame.
    ASSERT_NO_FATAL_FAILURE(Reopen());
    EXPECT_FALSE(Enabled());
    ASSERT_EQ(Enable(sPath), KOV_SUCCESS);
    EXPECT_TRUE(Enabled());
    m_pCam->m_lDeadPixelNum = 0;  // the repair of what stands out is a matter of its own
    Set(CTRL_GAIN, 0);
    Set(CTRL_EXPOSURE, 10000);
    KOVDisableDarkSubtract(m_iId);
    ASSERT_TRUE(TakeSnap());
    const Bytes light = m_Frame;
    ASSERT_EQ(Enable(sPath), KOV_SUCCESS);
    m_pCam->m_lDeadPixelNum = 0;
    ASSERT_TRUE(TakeSnap());
    for (size_t i = 8; i < light.size() - 8; ++i)
        ASSERT_EQ(m_Frame[i], Less(light[i], dark[i], iMean)) << i;

    // The dark frame follows the region, whose mean is its own.
    for (const bool bStart : { false, true }) {
        KOVDisableDarkSubtract(m_iId);
        Region(320, 240);
        if (bStart) {
            ASSERT_EQ(KOVSetStartPos(m_iId, 100, 60), KOV_SUCCESS);
        }
        Set(CTRL_EXPOSURE, 10000);
        ASSERT_TRUE(TakeSnap());
        const Bytes part = m_Frame;
        m_pCam->UsingDark(true);
        if (bStart)
            EXPECT_EQ(KOVSetStartPos(m_iId, 100, 60), KOV_SUCCESS);
        else
            Region(320, 240);
        const int x0 = m_pCam->m_iStartX, y0 = m_pCam->m_iStartY;
        sum = 0;
        const auto darkAt = [&](int x, int y) { return dark[static_cast<size_t>((y0 + y) * W + x0 + x)]; };
        for (int y = 0; y < 240; ++y)
            for (int x = 0; x < 320; ++x)
                sum += darkAt(x, y);
        const int iPartMean = static_cast<int>(sum / (320 * 240));
        m_pCam->m_lDeadPixelNum = 0;
        ASSERT_TRUE(TakeSnap());
        for (int y = 1; y < 239; ++y)
            for (int x = 0; x < 320; ++x)
                ASSERT_EQ(At(x, y), Less(part[static_cast<size_t>(y * 320 + x)], darkAt(x, y), iPartMean)) << x << ' ' << y;
    }
    std::remove(sPath.c_str());
}

}  // namespace
