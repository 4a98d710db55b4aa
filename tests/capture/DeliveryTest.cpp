// From a raw frame in the exchange to the bytes that the host gets.
#include <array>
#include <cmath>
#include <random>
#include <thread>

#include "CaptureCamera.h"
#include "camera/HotPixels.h"
#include "imaging/Bayer.h"
#include "support/InstructionSets.h"

namespace {

constexpr int W = 48, H = 24;
using Bytes = std::vector<uint8_t>;

struct Shot {
    explicit Shot(Family family, bool bColor, int w = W, int h = H) : cam(family, bColor, w, h) { cam.m_bAutoExp = false; }
    void Size(int w, int h, int bin)
    {
        cam.m_iWidth = w;
        cam.m_iHeight = h;
        cam.m_iBin = bin;
    }
    void Put(const Bytes& raw) { ASSERT_TRUE(cam.m_pFrameExchange->Insert(raw.data(), int32_t(raw.size()))); }
    Bytes Get(size_t n, uint32_t ms = 0)
    {
        Bytes out(n, 0xEE);
        return DeliverImage(cam, cam, out.data(), int(n), ms) ? out : Bytes{};
    }
    Bytes Get(const Bytes& raw, size_t n)
    {
        Put(raw);
        return Get(n);
    }
    CaptureCamera cam;
};

uint16_t W16(const Bytes& v, size_t i) { return uint16_t(v[2 * i] | v[2 * i + 1] << 8); }
void Set16(Bytes& v, size_t i, unsigned w)
{
    v[2 * i] = uint8_t(w);
    v[2 * i + 1] = uint8_t(w >> 8);
}

// The bytes of the marks by those of `rows` rows away.
Bytes Repaired(Bytes v, size_t rowBytes, size_t rows, size_t head, size_t tail)
{
    for (size_t i = 0; i < head; ++i)
        v[i] = v[i + rows * rowBytes];
    for (size_t i = v.size() - tail; i < v.size(); ++i)
        v[i] = v[i - rows * rowBytes];
    return v;
}

TEST(Delivery, MarksAreRepairedFromTheRowsThatEachModelTakes)
{
    struct {
        Family family;
        bool bColor;
        size_t rows, head, tail;
    } rows[] = {
        { Family::Quartz, true, 2, 4, 4 },  { Family::Quartz, false, 2, 4, 4 }, { Family::Garnet, false, 1, 8, 0 },
        { Family::Garnet, true, 2, 8, 0 },  { Family::Cobalt, true, 2, 8, 0 },  { Family::Iolite, false, 2, 8, 0 },
        { Family::GarnetS, true, 2, 8, 4 }, { Family::Agate, true, 0, 0, 0 },   { Family::Dunite, false, 0, 0, 0 },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(int(row.family));
        Shot s(row.family, row.bColor);
        s.cam.m_bSnapMode = true;
        Bytes raw = FrameB(W * H, 3);
        EXPECT_EQ(s.Get(raw, raw.size()), Repaired(raw, W, row.rows, row.head, row.tail));

        s.cam.m_bOutput16Bits = true;
        s.cam.m_ImgType = IMAGE_16BIT;
        raw = FrameB(2 * W * H, 3);
        Bytes expected = Repaired(raw, 2 * W, row.rows, row.head, row.tail);
        if (row.family != Family::Quartz)  // 12 bits, low byte first, to the top
            for (size_t i = 0; i < W * H; ++i) {
                const unsigned lo = raw.size() ? expected[2 * i] : 0u, hi = expected[2 * i + 1] & 15u;
                Set16(expected, i, (lo << 8) | (hi << 4));
            }
        EXPECT_EQ(s.Get(raw, raw.size()), expected);
    }
}

TEST(Delivery, MarbleTakesTheThirdRowForTheFirst)
{
    for (const int h : { H, 3 }) {
        Shot s(Family::Marble, true, W, h);
        const Bytes raw = FrameA(size_t(W * h), 3);
        Bytes expected = raw;
        std::copy_n(raw.begin() + 2 * W, W, expected.begin());
        EXPECT_EQ(s.Get(raw, raw.size()), Repaired(expected, W, 2, 0, 4)) << h;
    }
}

TEST(Delivery, SixteenBitFormats)
{
    Shot s(Family::Lapis, true);
    s.cam.m_bOutput16Bits = true;
    s.cam.m_ImgType = IMAGE_16BIT_ALT;
    s.cam.m_bTimeMark = s.cam.m_bUsingDark = true;  // never drawn nor subtracted here
    std::fill_n(s.cam.m_pDarkSum, W * H, uint16_t{ 7 });
    const Bytes raw = Body(2 * W * H, 1), fixed = Repaired(raw, 2 * W, 2, 4, 4);
    const Bytes alt = s.Get(raw, raw.size());
    ASSERT_EQ(alt.size(), raw.size());
    for (size_t i = 0; i < alt.size() / 4; ++i) {
        const uint32_t v = W16(fixed, i);
        const uint32_t want = v + (v << 10) + (v << 20);
        ASSERT_EQ(uint32_t(W16(alt, 2 * i) | W16(alt, 2 * i + 1) << 16), want) << i;
    }
    s.cam.m_ImgType = IMAGE_16BIT;
    EXPECT_EQ(s.Get(raw, raw.size()), fixed);
}

// A flat field of one colour per Bayer site: demosaic gives the same colour everywhere.
TEST(Delivery, ColourFormatsOfAFlatField)
{
    Shot s(Family::Quartz, true);
    s.cam.m_ColorBayer = BAYER_RG;
    Bytes raw(W * H);
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x)
            raw[size_t(y * W + x)] = y % 2 == 0 && x % 2 == 0 ? 200 : y % 2 == 1 && x % 2 == 1 ? 40 : 100;
    s.cam.m_ImgType = IMAGE_RGB24;
    for (const bool bFlip : { false, true }) {
        s.cam.m_bFlipRow = s.cam.m_bFlipColumn = bFlip;
        const Bytes rgb = s.Get(raw, 3 * raw.size());
        ASSERT_EQ(rgb.size(), 3 * raw.size());
        for (size_t i = 0; i < raw.size(); ++i) {
            ASSERT_EQ(rgb[3 * i], 40) << i;
            ASSERT_EQ(rgb[3 * i + 1], 100) << i;
            ASSERT_EQ(rgb[3 * i + 2], 200) << i;
        }
    }
    s.cam.m_ImgType = IMAGE_8BIT;
    s.cam.m_bRawOutput = false;
    // 0.257 of byte 0, 0.504 of byte 1, 0.098 of byte 2
    const int iLuma = int(0.257 * 40 + 0.504 * 100 + 0.098 * 200);
    for (const uint8_t b : s.Get(raw, raw.size()))
        ASSERT_NEAR(b, iLuma, 1);
    s.cam.m_bTimeMark = true;
    const Bytes marked = s.Get(raw, raw.size());
    EXPECT_GT(std::count(marked.begin(), marked.end(), 180), 0) << "the time mark";
    s.cam.m_bTimeMark = false;
    s.cam.m_ImgType = IMAGE_YUV;
    const Bytes yuv = s.Get(raw, 2 * raw.size());
    ASSERT_EQ(yuv.size(), 2 * raw.size());
    for (size_t i = 0; i < yuv.size(); i += 2)
        ASSERT_NEAR(yuv[i], iLuma + 16, 1);
}

// Which bins are left to the host is looked at with every model, in tests/device.
TEST(Delivery, OrderOfFlipAndBin)
{
    // 16-bit colour data lose low bits in binning, so a wrong order or size shows.
    Shot s(Family::Iolite, false);
    s.cam.m_bSnapMode = true;
    s.Size(W / 2, H / 2, 2);
    s.cam.m_bFlipRow = s.cam.m_bFlipColumn = true;
    const Bytes raw = FrameB(W * H, 5);
    Bytes fixed = Repaired(raw, W, 2, 8, 0);
    std::reverse(fixed.begin(), fixed.end());
    fixed.resize(raw.size() / 4);
    // QUIRK: Iolite in bin 2 shows the beginning of the unbinned frame.
    EXPECT_EQ(s.Get(raw, raw.size() / 4), fixed);
}

// Another thread of the host may be half-way through setting a region.
TEST(Delivery, RegionLargerThanTheSensorShowsTheRowsThatThereAre)
{
    Shot s(Family::Quartz, false);
    s.Size(W, H, 2);
    const Bytes out = s.Get(Bytes(W * H, 7), W * H);
    ASSERT_EQ(out.size(), size_t(W * H));
    EXPECT_EQ(std::count(out.begin(), out.end(), 28), W * H / 4);
    EXPECT_EQ(std::count(out.begin(), out.end(), 0xEE), W * H - W * H / 4);
}

TEST(Delivery, DarkIsCollectedAveragedAndSubtracted)
{
    Shot s(Family::Quartz, true);
    s.cam.m_bGettingDark = true;
    s.cam.m_iDarkNum = 3;
    std::fill_n(s.cam.m_pDarkSum, W * H, uint16_t{ 999 });
    for (const unsigned v : { 10u, 11u, 11u }) {
        EXPECT_TRUE(s.cam.m_bGettingDark);
        s.Get(Bytes(W * H, uint8_t(v)), W * H);
    }
    EXPECT_FALSE(s.cam.m_bGettingDark);
    EXPECT_EQ(s.cam.m_iDarkCount, 0);
    EXPECT_EQ(std::vector<uint16_t>(s.cam.m_pDarkSum, s.cam.m_pDarkSum + W * H), std::vector<uint16_t>(W * H, 10));  // 32 / 3

    s.cam.m_bOutput16Bits = true;
    s.cam.m_ImgType = IMAGE_16BIT;
    s.cam.m_bGettingDark = true;
    s.Get(Bytes(2 * W * H, 9), 2 * W * H);
    EXPECT_EQ(s.cam.m_iDarkCount, 0);  // not from 16-bit frames
}

TEST(Delivery, AutomaticExposureBelowHalfASecondSuspendsTheDark)
{
    struct {
        Family family;
        bool bColor;
        bool bAuto;
        uint64_t exposure;
        bool bSubtracts;
    } rows[] = {
        { Family::Quartz, true, false, 1000, true },   { Family::Quartz, true, true, 499999, false },
        { Family::Quartz, true, true, 500000, true },  { Family::Quartz, false, true, 1000, true },
        { Family::Lapis, false, true, 1000, true },    { Family::Beryl, false, true, 1000, true },
        { Family::Kyanite, false, true, 1000, false },
    };
    for (const auto& row : rows) {
        Shot s(row.family, row.bColor);
        s.cam.m_bUsingDark = true;
        s.cam.m_bAutoExp = row.bAuto;
        s.cam.m_lExposure = row.exposure;
        std::fill_n(s.cam.m_pDarkSum, W * H, uint16_t{ 7 });
        const Bytes out = s.Get(Bytes(W * H, 50), W * H);
        EXPECT_EQ(out[200] == 43, row.bSubtracts) << int(row.family) << ' ' << int(out[200]);
    }
}

TEST(Delivery, HeadTestPassesOverDamagedFrames)
{
    const Bytes good1 = FrameB(W * H, 1), good2 = FrameB(W * H, 2);
    Bytes bad = FrameB(W * H, 3);
    bad[0] = 0;
    const auto fixed = [](const Bytes& v) { return Repaired(v, W, 2, 8, 0); };
    {
        Shot s(Family::Cobalt, true);  // short exposure, video
        s.Put(good1);
        s.Put(good2);
        EXPECT_EQ(s.Get(W * H), fixed(good1));
    }
    {
        Shot s(Family::Cobalt, true);
        s.Put(good1);  // torn, as its successor tells
        s.Put(bad);
        std::thread later([&] {
            Until([&] { return s.cam.m_pFrameExchange->Count() == 0; });
            s.Put(good2);
            s.Put(good1);
        });
        EXPECT_EQ(s.Get(W * H, 2000), fixed(good2));
        later.join();
    }
    {
        Shot s(Family::Cobalt, true);
        s.cam.m_lExposure = 100000;
        s.Put(good1);
        s.Put(bad);
        EXPECT_EQ(s.Get(W * H), fixed(good1));  // no look ahead
        EXPECT_TRUE(s.Get(W * H).empty());      // the bad one goes, and nothing follows
        EXPECT_EQ(s.cam.m_pFrameExchange->Count(), 0);
    }
    {
        Shot s(Family::GarnetS, true);  // the thread has tested
        s.Put(bad);
        EXPECT_FALSE(s.Get(W * H).empty());
    }
}

// The stages one by one over the whole frame, in their scalar form.
template <class T>
Bytes StageByStage(CaptureCamera& cam, Bytes raw, int factor, int softBin, bool bRotate, bool bDark, size_t nOut)
{
    namespace ref = imaging::reference;
    const Family family = cam.Traits().family;
    const bool bColor = cam.m_bIsColor;
    const int w = cam.m_iWidth, h = cam.m_iHeight;
    const size_t n = raw.size() / sizeof(T);
    T* const p = reinterpret_cast<T*>(cam.m_pImgBuf);
    std::memcpy(p, raw.data(), raw.size());
    cam.FillGamma16();
    for (size_t i = 0; i < n; ++i) {
        if constexpr (sizeof(T) == 2) {
            p[i] = bRotate ? ref::Rotate12(p[i]) : p[i];
            p[i] = cam.m_iGamma != 50 ? cam.m_pGamma16[p[i]].load() : p[i];
        } else {
            if (bDark)
                ref::SubtractDark(p + i, p + i, 1, cam.m_iDarkAve, cam.m_pDarkSum + i);
            p[i] = cam.m_iGamma != 50 ? cam.m_Gamma8[p[i]].load() : p[i];
        }
    }
    cam.HandleHotPixels();
    const bool bFirst = family == Family::Agate || family == Family::Dunite;
    if (bFirst || family == Family::Iolite)
        ref::Flip(p, w * factor, h * factor, cam.m_bFlipColumn, cam.m_bFlipRow);
    ref::Bin(p, w, h, softBin, bColor);
    if (!bFirst && family != Family::Iolite)
        ref::Flip(p, w, h, cam.m_bFlipColumn, cam.m_bFlipRow);

    Bytes out(nOut, 0xEE);
    const imaging::Gains gains = imaging::SnapshotGains();
    const imaging::BayerFrame frame = { cam.m_pImgBuf, w, h,
                                        *imaging::PhaseAfterFlips(cam.m_ColorBayer, cam.m_bFlipRow, cam.m_bFlipColumn), &gains };
    if (cam.m_ImgType == IMAGE_RGB24 && bColor)
        ref::Demosaic(frame, 0, h, out.data());
    else if (cam.m_ImgType == IMAGE_RGB24)
        for (size_t i = 0; i < nOut; ++i)
            out[i] = cam.m_pImgBuf[i / 3];
    else if (bColor && cam.m_ImgType == IMAGE_8BIT && !cam.m_bRawOutput)
        ref::DemosaicY8(frame, 0, h, out.data());
    else
        std::memcpy(out.data(), p, nOut);
    return out;
}

class Walks : public OnInstructionSet {};
INSTANTIATE_TEST_SUITE_P(InstructionSet, Walks, testing::ValuesIn(InstructionSets()), InstructionSetName);

// Whatever regions and settings come together: one walk gives what the stages give one after the other.
TEST_P(Walks, EqualTheStages)
{
    struct {
        Family family;
        size_t rows, head, tail;
        bool bRotates, bBinsInside;
    } families[] = {
        { Family::Quartz, 2, 4, 4, false, true },
        { Family::Garnet, 2, 8, 0, true, true },
        { Family::Agate, 0, 0, 0, true, false },
        { Family::Iolite, 2, 8, 0, true, true },
    };
    std::mt19937_64 random{ uint64_t(GetParam()) };
    const auto below = [&](unsigned n) { return int(random() % n); };
    for (int round = 0; round < 1000; ++round) {
        const auto& f = families[below(4)];
        // Iolite has no colour. Garnet's monochrome model repairs from one row away.
        const bool bColor = f.family == Family::Garnet || (f.family != Family::Iolite && below(2));
        const int bin = below(3) ? 1 + below(4) : 1, w = 1 + below(below(8) ? 40 : 300), h = 4 + below(40);
        Shot s(f.family, bColor, w * bin + below(9), h * bin + below(9));
        CaptureCamera& cam = s.cam;
        cam.m_bIsColor = bColor;
        cam.m_bSnapMode = true;
        s.Size(w, h, bin);
        const bool b16 = below(3) == 0;
        cam.m_bOutput16Bits = b16;
        cam.m_ImgType = b16 ? IMAGE_16BIT : below(2) ? IMAGE_RGB24 : IMAGE_8BIT;
        cam.m_bRawOutput = below(2);
        cam.m_bHardwareBin = f.bBinsInside && below(4) == 0;
        cam.m_bFlipRow = below(2);
        cam.m_bFlipColumn = below(2);
        cam.m_ColorBayer = BayerPattern(below(4));
        cam.SetGamma(below(2) ? 50 : 1 + below(100));
        cam.m_Algorithm.SetRGBWB(below(2) ? 50 : below(260), below(2) ? 50 : below(260));
        const bool bHard = cam.IsHardBinRun();
        const int factor = bHard ? 1 : bin, softBin = f.family == Family::Iolite ? 1 : factor;
        const int rawW = w * factor;
        const auto n = unsigned(rawW * h * factor);
        cam.m_bUsingDark = below(2);
        cam.m_iDarkAve = unsigned(below(40));
        cam.m_bHPCEnable = below(2);
        for (unsigned i = 0; i < n; ++i) {
            cam.m_pDarkSum[i] = uint16_t(below(60));
            if (cam.m_bHPCEnable && below(9) == 0) {
                cam.m_pHPCBuf2[i] = 1;
                cam.m_pHotPixels[cam.m_iHPCNum] = int(i);
                cam.m_iHPCNum += 1;
            }
            if (below(20) == 0) {
                cam.m_pDarkPixels[cam.m_lDeadPixelNum] = int(i);
                cam.m_lDeadPixelNum += 1;
            }
        }
        Bytes raw = FrameB(n * (b16 ? 2 : 1), 1);
        const unsigned iHot = unsigned(1 + below(4));  // the rest is dark, so that hot pixels are seen
        for (size_t i = 4; i < raw.size(); ++i)
            raw[i] = uint8_t(random() % 4 < iHot ? random() : random() % 40);
        if (b16 && below(2))  // as a sensor of 12 bits gives them
            for (size_t i = 4; i < raw.size(); i += 2)
                raw[i] &= 0xF0;
        const size_t nOut = size_t(w) * size_t(h) * (b16 ? 2 : cam.m_ImgType == IMAGE_RGB24 ? 3 : 1);
        // CopyWord counts 32-bit words, rows need not be whole ones.
        const size_t words = raw.size() / 4, step = size_t(rawW) * (b16 ? 2 : 1) / 2 / (f.rows == 1 ? 2 : 1);
        Bytes fixed = raw;
        const auto word = [&](size_t to, size_t from) {
            if (to < words && from < words)
                std::copy_n(&fixed[4 * from], 4, &fixed[4 * to]);
        };
        for (size_t i = 0; i < f.head / 4; ++i)
            word(i, i + step);
        if (f.tail)
            word(words - 1, words - 1 - step);
        const bool bDark = cam.m_bUsingDark;
        const Bytes want = b16 ? StageByStage<uint16_t>(cam, fixed, factor, softBin, f.bRotates, bDark, nOut)
                               : StageByStage<uint8_t>(cam, fixed, factor, softBin, f.bRotates, bDark, nOut);
        ASSERT_EQ(s.Get(raw, nOut), want) << "round " << round << ": family " << int(f.family) << ", colour " << bColor << ", "
                                          << w << " x " << h << ", bin " << bin << ", hard " << bHard << ", type "
                                          << int(cam.m_ImgType);
        cam.m_Algorithm.SetRGBWB(50, 50);
    }
}

// As regions come and go, the pixels of table and dark frame are repaired where they then lie, and no others.
TEST(Delivery, RepairsFollowTheRegion)
{
    Shot s(Family::Quartz, false);
    CaptureCamera& cam = s.cam;
    cam.m_bHPCEnable = cam.m_bUsingDark = true;
    std::mt19937 random(7);
    std::vector<bool> hot(W * H), stays(W * H);  // on the sensor, none beside another
    for (int y = 1; y < H; y += 3)
        for (int x = 1; x < W; x += 3) {
            const int e = y * W + x, kind = x == y ? 0 : 1 + int(random() % 2);
            hot[size_t(e)] = true;
            stays[size_t(e)] = kind == 2;
            cam.m_pDarkBuf[e] = kind == 0 && y > 12 ? 60 : 0;  // so few that their mean is 0
            cam.m_pHPCBuf1[e] = kind == 1 || (kind == 0 && y <= 12);
        }
    cam.AdjustHPCTable(cam.m_pHPCBuf1, cam.m_pHPCBuf2);
    const struct {
        int x, y, w, h;
    } regions[] = { { 0, 0, W, H },    { 8, 4, 24, 12 }, { 0, 0, 24, 12 }, { 20, 10, 28, 14 },
                    { 4, 10, 20, 14 }, { 2, 2, 44, 20 }, { 0, 0, W, H } };
    for (const auto& r : regions) {
        cam.m_iStartX = r.x;
        cam.m_iStartY = r.y;
        s.Size(r.w, r.h, 1);
        FitHotPixels(cam);
        FitDarkFrame(cam);
        Bytes raw(size_t(r.w * r.h)), want(raw.size());
        for (size_t i = 0; i < raw.size(); ++i) {
            const size_t e = (size_t(r.y) + i / size_t(r.w)) * W + size_t(r.x) + i % size_t(r.w);
            raw[i] = hot[e] ? 200 : 20;
            want[i] = stays[e] ? 200 : 20;
        }
        Bytes got = s.Get(raw, raw.size());
        ASSERT_EQ(got.size(), want.size());
        // The marks' pixels are another matter.
        std::copy_n(want.begin(), 4, got.begin());
        std::copy(want.end() - 4, want.end(), got.end() - 4);
        EXPECT_EQ(got, want) << r.x << ' ' << r.y << ' ' << r.w << ' ' << r.h;
    }
}

TEST(Delivery, HotPixelsAtBothEndsAreRepairedFromThisFrame)
{
    Shot s(Family::Quartz, false);
    s.cam.m_bHPCEnable = true;
    s.cam.m_pHPCBuf1[1] = s.cam.m_pHPCBuf1[W * H - 2] = 1;
    s.cam.AdjustHPCTable(s.cam.m_pHPCBuf1, s.cam.m_pHPCBuf2);
    for (const uint8_t level : { uint8_t{ 60 }, uint8_t{ 100 } })
        EXPECT_EQ(s.Get(Bytes(W * H, level), W * H), Bytes(W * H, level));
}

TEST(Delivery, NothingComesAndNothingChanges)
{
    Shot s(Family::Quartz, true);
    Bytes out(W * H, 0x5A);
    EXPECT_FALSE(DeliverImage(s.cam, s.cam, out.data(), W * H, 0));
    EXPECT_EQ(out, Bytes(W * H, 0x5A));
}

TEST(Delivery, StaysInBoundsWhateverTheRegion)
{
    for (const Family f : { Family::Quartz, Family::Garnet, Family::Agate, Family::Marble, Family::Iolite })
        for (const bool bColor : { false, true })
            for (const IMAGE_TYPE type : { IMAGE_8BIT, IMAGE_RGB24, IMAGE_YUV, IMAGE_16BIT_ALT, IMAGE_16BIT })
                for (const auto& size : { std::array{ 2 * W, 2 * H, 3 }, std::array{ 0, 0, 1 }, std::array{ 1, 1, 1 },
                                          std::array{ W, H, 4 }, std::array{ 2, 1, 2 }, std::array{ -5, 3, 0 } })
                    for (const int length : { 0, 1, 100, 6 * W * H }) {
                        Shot s(f, bColor);
                        s.cam.m_bSnapMode = true;
                        s.cam.m_bRawOutput = length == 100;
                        s.cam.m_bOutput16Bits = type >= IMAGE_16BIT_ALT;
                        s.cam.m_ImgType = type;
                        s.cam.m_bTimeMark = true;
                        s.cam.m_bUsingDark = s.cam.m_bGettingDark = true;
                        s.cam.m_bFlipRow = true;
                        s.cam.m_iGamma = 60;
                        s.Put(FrameB(2 * W * H, 1));
                        s.Size(size[0], size[1], size[2]);
                        Bytes out(size_t(length) + 64, 0xEE);
                        DeliverImage(s.cam, s.cam, out.data(), length, 0);
                        ASSERT_EQ(Bytes(out.end() - 64, out.end()), Bytes(64, 0xEE));
                    }
}

TEST(Delivery, TwoReadersTakeTurns)
{
    Shot s(Family::Quartz, true, 640, 480);
    std::atomic<int> nGot{ 0 };
    std::atomic<bool> bEnd{ false };
    std::thread producer([&] {
        const Bytes a = Body(640 * 480, 7);
        while (!bEnd)
            if (!s.cam.m_pFrameExchange->Insert(a.data(), int32_t(a.size())))
                std::this_thread::yield();
    });
    const Bytes want = Repaired(Body(640 * 480, 7), 640, 2, 4, 4);
    const auto reader = [&] {
        for (int i = 0; i < 50; ++i) {
            const Bytes b = s.Get(640 * 480, 5000);
            if (b == want)
                ++nGot;
        }
    };
    std::thread one(reader), two(reader);
    one.join();
    two.join();
    bEnd = true;
    producer.join();
    EXPECT_EQ(nGot, 100);
}

}  // namespace
