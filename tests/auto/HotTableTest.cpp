// The hot-pixel table: searched on a sensor whose hot pixels are known, kept in the camera's flash, followed by the
// repair through regions and bins.
#include <set>

#include "auto/AutoBench.h"

namespace {

constexpr uint32_t TABLE = 0x40000;

// The table as it lies in flash: pages of 2048 pixels; a byte of 8 pixels is two, an end of page two more.
Bytes Encode(const std::set<int>& hot, int pixels)
{
    Bytes bits(static_cast<size_t>(pixels / 8));
    for (const int i : hot)
        bits[static_cast<size_t>(i / 8)] = static_cast<uint8_t>(bits[static_cast<size_t>(i / 8)] | 1 << i % 8);
    Bytes t = { 'K', 'O', 'V', 'D', 0, 0, 0, 0 };
    for (size_t k = 0; k < bits.size(); ++k) {
        if (k != 0 && k % 256 == 0)
            t.insert(t.end(), { 0, 0 });
        if (bits[k] != 0)
            t.insert(t.end(), { static_cast<uint8_t>(k % 16 * 16 + k / 16 % 16), bits[k] });
    }
    for (size_t i = 0; i < 4; ++i)
        t[4 + i] = static_cast<uint8_t>(t.size() >> (24 - 8 * i));
    return t;
}

std::set<int> Decode(const Bytes& t)
{
    std::set<int> hot;
    const size_t length = size_t{ t[4] } << 24 | size_t{ t[5] } << 16 | size_t{ t[6] } << 8 | t[7];
    size_t page = 0;
    for (size_t at = 8; at + 1 < std::min(length, t.size()); at += 2) {
        if (t[at] == 0 && t[at + 1] == 0) {
            ++page;
            continue;
        }
        for (int b = 0; b < 8; ++b)
            if (t[at + 1] >> b & 1)
                hot.insert(static_cast<int>(page * 2048 + static_cast<size_t>(t[at] % 16 * 16 + t[at] / 16) * 8) + b);
    }
    return hot;
}

class HotTableTest : public AutoTest {
protected:
    void OpenDark(uint16_t wProductId, int iHotPixels, bool bTable)
    {
        kovsim::CameraSettings s = Quiet(wProductId);
        s.scene = kovsim::Scene::Dark();
        s.iHotPixels = iHotPixels;
        const Patience patience;
        if (bTable) {
            kovsim::VirtualCamera& device = Plug(s);
            const int w = device.Facts().iWidth;
            std::set<int> hot;
            for (const kovsim::HotPixel& p : device.HotPixels())
                hot.insert(p.y * w + p.x);
            device.SetFlash(TABLE, Encode(hot, w * device.Facts().iHeight));
            m_pDevice = &device;
            ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
            ASSERT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
            m_pCam = CCameraBase::FromID(0);
            EXPECT_EQ(InTable(), static_cast<int>(hot.size()));
        } else {
            Open(s);
        }
    }
    int InTable() const
    {
        int inDark = 0, inTable = -1;
        m_pCam->GetHPSum(&inDark, &inTable);
        return inTable;
    }
    std::set<int> HotPlaces() const
    {
        std::set<int> hot;
        for (const kovsim::HotPixel& p : m_pDevice->HotPixels())
            hot.insert(p.y * m_pCam->m_iMaxWidth + p.x);
        return hot;
    }
    // Pixels that are off the level of their phase: above by what the repair looks for, or below. The border is left
    // out: cells there reach over the edge of the region.
    struct Off {
        int iHot = 0, iHoles = 0;
    };
    Off Uneven() const
    {
        Off off;
        for (int phase = 0; phase < 4; ++phase) {
            Bytes v;
            for (int y = 6 + phase / 2; y < m_iH - 6; y += 2)
                for (int x = 6 + phase % 2; x < m_iW - 6; x += 2)
                    v.push_back(At(x, y));
            Bytes sorted = v;
            std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2), sorted.end());
            const int iLevel = sorted[sorted.size() / 2];
            for (const int p : v) {
                off.iHot += p - iLevel > 30 && iLevel <= p * 7 / 10;
                off.iHoles += p < iLevel - 2;
            }
        }
        return off;
    }
};

TEST_F(HotTableTest, SearchedSavedAndLoaded)
{
    NewBus(20);
    ASSERT_NO_FATAL_FAILURE(OpenDark(0xC11B, 300, false));
    EXPECT_FALSE(m_pCam->IsHPCEnable()) << "a new camera has no table";
    Region(m_pCam->m_iMaxWidth, m_pCam->m_iMaxHeight);
    Set(CTRL_GAIN, 200);
    Set(CTRL_EXPOSURE, 200000);

    const auto StandOuts = [&] {
        std::set<int> hot;
        for (int i = 0; i < m_iW * m_iH; ++i)
            if (m_pCam->m_pDarkBuf[i] > m_pCam->m_iDarkAve + 30)
                hot.insert(i);
        return hot;
    };
    const std::set<int> real = HotPlaces();
    // The exposure is lowered until as many stand out as are wanted.
    int iFound = 0;
    unsigned long uRunning = 0;
    Bytes frame(m_Frame.size());
    const auto search = [&](int iMin, int iMax) {
        return m_pCam->AutoGetHPC(&iFound, iMin, iMax, &uRunning, frame.data(), static_cast<int>(frame.size()));
    };
    m_pDevice->SetFlash(TABLE, Bytes(0x30000, 0));  // only an erased flash takes a table
    ASSERT_TRUE(search(120, 160));
    EXPECT_GE(iFound, 120);
    EXPECT_LE(iFound, 160);
    EXPECT_EQ(uRunning, static_cast<unsigned long>(iFound));
    EXPECT_LT(Now(CTRL_EXPOSURE), 200000);

    const Bytes flash = m_pDevice->Flash(TABLE, 0x30000);
    const std::set<int> table = Decode(flash);
    EXPECT_EQ(table, StandOuts());
    EXPECT_EQ(static_cast<int>(table.size()), iFound);
    EXPECT_TRUE(std::includes(real.begin(), real.end(), table.begin(), table.end())) << "no pixel but hot ones";

    // It travels with the camera, and is at work from the start.
    ASSERT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
    m_pDevice->PowerCycle();
    ASSERT_NO_FATAL_FAILURE(Reopen());
    EXPECT_TRUE(m_pCam->IsHPCEnable());
    unsigned long uCount = 0;
    EXPECT_TRUE(m_pCam->ChangeHPCStatus(HPC_QUERY, &uCount));
    EXPECT_EQ(uCount, table.size());
    // Repaired to the neighbours' level; hot pixels that the table does not know stay.
    Set(CTRL_GAIN, 200);
    Set(CTRL_EXPOSURE, 200000);
    m_pDevice->SetScene(kovsim::Scene::Flat(600));
    ASSERT_TRUE(TakeSnap());
    ASSERT_TRUE(TakeSnap());
    const int iFlat = At(m_iW / 2 + 1, m_iH / 2 + 1);
    ASSERT_GT(iFlat, 10);
    int nLeft = 0;
    for (const int i : real)
        if (table.count(i) != 0)
            EXPECT_NEAR(m_Frame[static_cast<size_t>(i)], iFlat, 1) << i % m_iW << ' ' << i / m_iW;
        else
            nLeft += m_Frame[static_cast<size_t>(i)] > iFlat + 30;
    EXPECT_GT(nLeft, 10);
}

// --- the table through the geometries

struct Shape {
    uint16_t wProductId;
    std::vector<int> hardBins, softBins;
    bool bFull;
};
std::string NameOf(const Shape& s)
{
    for (const ModelRow& m : Models())
        if (m.wProductId == s.wProductId)
            return m.sClass.substr(8);
    return "unknown";
}
void PrintTo(const Shape& s, std::ostream* p) { *p << NameOf(s); }

class HotShapeTest : public HotTableTest, public testing::WithParamInterface<Shape> {};

TEST_P(HotShapeTest, EvenPictureInEveryMode)
{
    const Shape& shape = GetParam();
    NewBus(10);
    int iPixels = 0;
    for (const ModelRow& m : Models())
        if (m.wProductId == shape.wProductId)
            iPixels = m.iWidth * m.iHeight;
    ASSERT_NO_FATAL_FAILURE(OpenDark(shape.wProductId, iPixels / 1500, true));
    m_pDevice->SetScene(kovsim::Scene::Flat(50));
    const auto check = [&](int w, int h, int bin, bool bHard, bool bStart) {
        SCOPED_TRACE(testing::Message() << w << " x " << h << ", bin " << bin << (bHard ? " in hardware" : "")
                                        << (bStart ? ", with a start" : ""));
        if (!shape.hardBins.empty())
            Set(CTRL_HARDWARE_BIN, bHard);
        Region(w, h, bin);
        if (bStart) {
            ASSERT_EQ(KOVSetStartPos(0, 52, 30), KOV_SUCCESS);
        }
        for (const auto c : { CTRL_WB_R, CTRL_WB_B })
            KOVSetControlValue(0, c, 50, KOV_FALSE);
        Set(CTRL_GAIN, 200);
        Set(CTRL_EXPOSURE, 800000);
        ASSERT_TRUE(TakeSnap());
        EXPECT_EQ(Uneven().iHot, 0) << "followed the region";
        EXPECT_EQ(Uneven().iHoles, 0);
        m_pCam->SetHPCStates(false);
        ASSERT_TRUE(TakeSnap());
        EXPECT_GT(Uneven().iHot, 5) << "nothing to repair";
        EXPECT_TRUE(m_pCam->SetHPCStates(true));
        ASSERT_TRUE(TakeSnap());
        EXPECT_EQ(Uneven().iHot, 0) << "loaded in this region";
    };
    if (shape.bFull)
        check(m_pCam->m_iMaxWidth, m_pCam->m_iMaxHeight, 1, false, false);
    check(320, 240, 1, false, true);
    for (const int bin : shape.softBins)
        check(256, 192, bin, false, true);
    for (const int bin : shape.hardBins) {
        // QUIRK: Flint's window moves in steps of 12 pixels at bin 3, its start position in steps of 4; in between the
        // table is up to two pixels off. A width that centres it on a step.
        const int w = bin == 3 ? 252 : 256;
        check(w, 192, bin, true, false);
        check(w, 192, bin, true, true);
    }
}

INSTANTIATE_TEST_SUITE_P(Models, HotShapeTest,
                         testing::Values(Shape{ 0xC0FA, { 2 }, { 2 }, true }, Shape{ 0xC07D, {}, { 2 }, true },
                                         Shape{ 0xC0B0, { 2, 3, 4 }, { 2 }, false }, Shape{ 0xC0EA, { 2 }, {}, false },
                                         Shape{ 0xC05A, { 3 }, {}, false }, Shape{ 0xC06A, { 3 }, {}, false }),
                         [](const auto& info) { return NameOf(info.param); });

}  // namespace
