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
    std::string Path(const char* szName) const
    {
        return testing::TempDir() + "kov-auto-" + std::to_string(getpid()) + szName;
    }
    static Bytes ReadFile(const std::string& sPath)
    {
        std::ifstream in(sPath, std::ios::binary);
        return { std::istreambuf_iterator<char>(in), {} };
    }
    static void WriteFile(const std::string& sPath, const Bytes& b)
    {
        std::ofstream(sPath, std::ios::binary)
            .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
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
    const int W = m_iW, H = m_iH;
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

    // The file: 8 bits, grey palette, rows in the order of memory.
    const std::string sPath = Path("dark.bmp");
    EXPECT_EQ(m_pCam->SaveBMPToFile(sPath.c_str()), 1);
    const Bytes file = ReadFile(sPath);
    ASSERT_EQ(file.size(), 1078 + dark.size());
    const auto u32 = [&](size_t at) { return file[at] | file[at + 1] << 8 | file[at + 2] << 16 | file[at + 3] << 24; };
    EXPECT_EQ(file[0] | file[1] << 8, 0x4D42);
    EXPECT_EQ(u32(2), static_cast<int>(file.size()));
    EXPECT_EQ(u32(10), 1078);
    EXPECT_EQ(u32(18), W);
    EXPECT_EQ(u32(22), H);
    EXPECT_EQ(u32(26), 1 | 8 << 16);
    EXPECT_EQ(u32(46), 256);
    EXPECT_EQ(u32(54 + 4 * 200), 200 | 200 << 8 | 200 << 16);
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
                ASSERT_EQ(At(x, y), Less(part[static_cast<size_t>(y * 320 + x)], darkAt(x, y), iPartMean))
                    << x << ' ' << y;
    }
    // 16 bits: neither collected nor subtracted.
    m_pCam->UsingDark(false);
    Region(320, 240, 1, IMG_RAW16);
    ASSERT_TRUE(TakeSnap());
    const Bytes wide = m_Frame;
    m_pCam->UsingDark(true);
    m_pCam->m_lDeadPixelNum = 0;
    m_pCam->GettingDark(true, 0);
    ASSERT_TRUE(TakeSnap());
    EXPECT_EQ(m_Frame, wide);
    EXPECT_TRUE(m_pCam->IsGetDarkOver());
    std::remove(sPath.c_str());
}

// Real hot pixels: the dark frame finds them, subtraction and repair leave an even picture.
TEST_F(DarkTest, HotPixelsOfTheDarkFrameAreRepaired)
{
    kovsim::CameraSettings s = Quiet(0xC0FA);
    s.scene = kovsim::Scene::Dark();
    s.iHotPixels = 200;
    ASSERT_NO_FATAL_FAILURE(Open(s));
    Region(m_pCam->m_iMaxWidth, m_pCam->m_iMaxHeight);
    Set(CTRL_GAIN, 150);
    Set(CTRL_EXPOSURE, 900000);
    ASSERT_NO_FATAL_FAILURE(Collect(1));
    const Bytes dark = m_Frame;
    const int iMean = static_cast<int>(m_pCam->m_iDarkAve);
    std::vector<int> hot;
    for (size_t i = 0; i < dark.size(); ++i)
        if (dark[i] > iMean + 30)
            hot.push_back(static_cast<int>(i));
    ASSERT_GT(hot.size(), 50u);
    EXPECT_LE(hot.size(), m_pDevice->HotPixels().size());
    int inDark = 0, inTable = 0;
    m_pCam->GetHPSum(&inDark, &inTable);
    EXPECT_EQ(inDark, static_cast<int>(hot.size()));
    EXPECT_EQ(inTable, 0);
    const std::string sPath = Path("hot.bmp");
    m_pCam->SaveBMPToFile(sPath.c_str());
    ASSERT_EQ(Enable(sPath), KOV_SUCCESS);
    m_pDevice->SetScene(kovsim::Scene::Flat(2000));
    ASSERT_TRUE(TakeSnap());
    ASSERT_TRUE(TakeSnap());
    for (const int i : hot) {
        const int x = i % m_iW, y = i / m_iW;
        // Red, green and blue differ.
        const int iFlat = At(m_iW / 2 / 2 * 2 + x % 2, m_iH / 2 / 2 * 2 + y % 2);
        if (std::find(hot.begin(), hot.end(), i + 2) == hot.end() &&
            std::find(hot.begin(), hot.end(), i - 2) == hot.end()) {
            EXPECT_NEAR(m_Frame[static_cast<size_t>(i)], iFlat, 1) << x << ' ' << y;
        }
    }
    std::remove(sPath.c_str());
}

TEST_F(DarkTest, FilesThatAreNoDarkFrame)
{
    ASSERT_NO_FATAL_FAILURE(OpenSmall(0xC02B, kovsim::Scene::Dark()));
    const std::string sPath = Path("codes.bmp");
    const auto put32 = [](Bytes& b, size_t at, uint32_t v) {
        for (int i = 0; i < 4; ++i)
            b[at + static_cast<size_t>(i)] = static_cast<uint8_t>(v >> 8 * i);
    };
    Bytes good(1078 + 640 * 480, 20);
    std::fill_n(good.begin(), 54, uint8_t{ 0 });
    good[0] = 'B';
    good[1] = 'M';
    good[28] = 8;
    put32(good, 10, 1078);
    put32(good, 18, 640);
    put32(good, 22, 480);
    const auto with = [&](auto change) {
        Bytes b = good;
        change(b);
        return b;
    };
    const struct { const char* szWhat; Bytes file; KOV_ERROR_CODE code;
    } rows[] = {
        { "good", good, KOV_SUCCESS },
        { "wrong kind", with([](Bytes& b) { b[1] = 'P'; }), KOV_ERROR_BAD_FILE },
        { "too wide", with([&](Bytes& b) { put32(b, 18, 641); }), KOV_ERROR_BAD_FILE },
        { "rows from the bottom", with([&](Bytes& b) { put32(b, 22, static_cast<uint32_t>(-480)); }),
          KOV_ERROR_BAD_FILE },
        { "24 bits", with([](Bytes& b) { b[28] = 24; }), KOV_ERROR_BAD_FILE },
        { "empty", {}, KOV_ERROR_BAD_FILE },
        { "cut in the first header", with([](Bytes& b) { b.resize(13); }), KOV_ERROR_BAD_FILE },
        { "cut in the second header", with([](Bytes& b) { b.resize(53); }), KOV_ERROR_BAD_FILE },
        { "cut in the pixels", with([](Bytes& b) { b.resize(1078 + 640 * 100); }),
          KOV_SUCCESS },  // QUIRK: counts as good
    };
    for (const auto& r : rows)
        for (const bool bBefore : { false, true }) {
            SCOPED_TRACE(testing::Message() << r.szWhat << (bBefore ? ", on before" : ""));
            WriteFile(sPath, r.file);
            m_pCam->UsingDark(bBefore);
            EXPECT_EQ(Enable(sPath), r.code);
            EXPECT_EQ(Enabled(), bBefore || r.code == KOV_SUCCESS) << "a bad file leaves the switch alone";
        }
    // What was cut off is dark.
    EXPECT_EQ(m_pCam->m_pDarkBuf[640 * 100 - 1], 20);
    EXPECT_EQ(m_pCam->m_pDarkBuf[640 * 100], 0);
    // A path that leads nowhere switches subtraction off.
    m_pCam->UsingDark(true);
    EXPECT_EQ(Enable(sPath + "/missing"), KOV_ERROR_BAD_PATH);
    EXPECT_FALSE(Enabled());
    if (geteuid() != 0) {
        chmod(sPath.c_str(), 0);
        m_pCam->UsingDark(true);
        EXPECT_EQ(Enable(sPath), KOV_ERROR_BAD_PATH);
        EXPECT_FALSE(Enabled());
    }
    std::remove(sPath.c_str());
}

// Automatic exposure below half a second suspends subtraction, but on four monochrome models.
TEST_F(DarkTest, AutomaticExposureSuspendsIt)
{
    const struct { uint16_t wProductId; bool bSuspends; } rows[] = {
        { 0xC11A, true },  { 0xC07A, true },  { 0xC0CA, true },  { 0xC02A, true },
        { 0xC11B, false }, { 0xC0CB, false }, { 0xC0CD, false }, { 0xC02B, false },
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(testing::Message() << std::hex << r.wProductId);
        Clock(20);
        ASSERT_NO_FATAL_FAILURE(OpenSmall(r.wProductId, kovsim::Scene::Dark()));
        Region(320, 240);
        // A dark frame of 50 subtracts to black and puts its mean back: 50 wherever it is applied.
        std::fill_n(m_pCam->m_pDarkBuf, m_pCam->m_iMaxWidth * m_pCam->m_iMaxHeight, uint16_t{ 50 });
        m_pCam->AdjustDarkBuff(m_pCam->m_pDarkBuf, m_pCam->m_pDarkSum);
        m_pCam->UsingDark(true);
        const auto subtracted = [&](int32_t iExposure, bool bAuto) {
            Set(CTRL_EXPOSURE, iExposure, bAuto);
            EXPECT_TRUE(TakeSnap());
            return At(100, 100) == 50;
        };
        EXPECT_TRUE(subtracted(499999, false));
        EXPECT_EQ(subtracted(499999, true), !r.bSuspends);
        EXPECT_TRUE(subtracted(500000, true));
        KOVCloseCamera(m_iId);
    }
}

}  // namespace
