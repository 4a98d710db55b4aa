// Pixel operations and demosaic on small frames worked out by hand, against the public operations.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <thread>
#include <vector>

#include "imaging/Bayer.h"
#include "imaging/CAlgorithm.h"
#include "imaging/Reference.h"

namespace {

using namespace imaging;
using Bytes = std::vector<uint8_t>;
using Pixel = std::array<int, 3>;  // blue, green, red

class Pixels : public testing::Test {
protected:
    void SetUp() override { a.RGBYUV_Init(); }
    void TearDown() override { a.RGBYUV_Init(); }
    CAlgorithm a;
};

Pixel At(const Bytes& rgb, int width, int x, int y)
{
    const uint8_t* p = rgb.data() + 3 * (y * width + x);
    return { p[0], p[1], p[2] };
}

// Rows of 10, 20, 30, ... plus the column number: every neighbour is told apart.
Bytes Ramp()
{
    Bytes v(36);
    for (int i = 0; i < 36; ++i)
        v[static_cast<size_t>(i)] = static_cast<uint8_t>(20 * (i / 6) + 3 * (i % 6) + (i % 6) * (i % 6));
    return v;
}

TEST_F(Pixels, SixBySixHasOneInterpolatedCell)
{
    Bytes src = Ramp(), out(108);
    const auto s = [&](int x, int y) { return int{ src[static_cast<size_t>(6 * y + x)] }; };
    a.Bayer2RGB24_BG(src.data(), out.data(), 6, 6);
    // Cell (2, 2): B G / G R.
    EXPECT_EQ(At(out, 6, 2, 2),
              (Pixel{ s(2, 2), (s(2, 1) + s(2, 3) + s(1, 2) + s(3, 2)) / 4, (s(1, 1) + s(3, 1) + s(1, 3) + s(3, 3)) / 4 }));
    EXPECT_EQ(At(out, 6, 3, 2), (Pixel{ (s(2, 2) + s(4, 2)) / 2, s(3, 2), (s(3, 1) + s(3, 3)) / 2 }));
    EXPECT_EQ(At(out, 6, 2, 3), (Pixel{ (s(2, 2) + s(2, 4)) / 2, s(2, 3), (s(1, 3) + s(3, 3)) / 2 }));
    EXPECT_EQ(At(out, 6, 3, 3),
              (Pixel{ (s(2, 2) + s(4, 2) + s(2, 4) + s(4, 4)) / 4, (s(3, 2) + s(3, 4) + s(2, 3) + s(4, 3)) / 4, s(3, 3) }));
    // All other cells take their own blue and red, and the mean of their greens where there is none.
    for (int y = 0; y < 6; y += 2) {
        for (int x = 0; x < 6; x += 2) {
            if (x == 2 && y == 2)
                continue;
            const int b = s(x, y), r = s(x + 1, y + 1), g1 = s(x + 1, y), g2 = s(x, y + 1);
            EXPECT_EQ(At(out, 6, x, y), (Pixel{ b, (g1 + g2) / 2, r }));
            EXPECT_EQ(At(out, 6, x + 1, y), (Pixel{ b, g1, r }));
            EXPECT_EQ(At(out, 6, x, y + 1), (Pixel{ b, g2, r }));
            EXPECT_EQ(At(out, 6, x + 1, y + 1), (Pixel{ b, (g1 + g2) / 2, r }));
        }
    }
}

// A scene with one value a colour, laid out for each sensor: each member has to give the colours back.
TEST_F(Pixels, FourPatternsFindTheirColours)
{
    struct {
        const char* cell;
        void (CAlgorithm::*frame)(uint8_t*, uint8_t*, int, int);
    } patterns[] = {
        { "RGGB", &CAlgorithm::Bayer2RGB24_RG },
        { "BGGR", &CAlgorithm::Bayer2RGB24_BG },
        { "GRBG", &CAlgorithm::Bayer2RGB24_GR },
        { "GBRG", &CAlgorithm::Bayer2RGB24_GB },
    };
    for (const auto& p : patterns) {
        Bytes src(100 * 8), out(3 * src.size());
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 100; ++x) {
                const char c = p.cell[2 * (y & 1) + (x & 1)];
                src[static_cast<size_t>(100 * y + x)] = c == 'R' ? 200 : c == 'G' ? 100 : 50;
            }
        (a.*p.frame)(src.data(), out.data(), 100, 8);
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 100; ++x)
                ASSERT_EQ(At(out, 100, x, y), (Pixel{ 50, 100, 200 })) << p.cell << ' ' << x << ' ' << y;
    }
}

TEST_F(Pixels, QuirkCellOperationsCarryTheOppositeName)
{
    Bytes src = Ramp(), frame(108), cell(108, 9);
    a.Bayer2RGB24_GR(src.data(), frame.data(), 6, 6);
    a.BayerBilinear_GB(src.data(), cell.data(), 2, 2, 6);
    a.BayerCopy_GB(src.data(), cell.data(), 4, 0, 6);
    for (const auto& [x, y] : { std::pair{ 2, 2 }, { 3, 3 }, { 4, 0 }, { 5, 0 }, { 4, 1 }, { 5, 1 } })
        EXPECT_EQ(At(cell, 6, x, y), At(frame, 6, x, y));
    for (const auto& [x, y] : { std::pair{ 0, 0 }, { 2, 1 }, { 2, 4 } })
        EXPECT_EQ(At(cell, 6, x, y), (Pixel{ 9, 9, 9 })) << "beside the cells";
    a.BayerCopy_RG(src.data(), cell.data(), 0, 0, 6);
    EXPECT_EQ(cell[0], src[0]);  // the cell begins with blue
}

TEST_F(Pixels, GreyStaysGreyAndGainsSaturatePerChannel)
{
    Bytes src(80 * 10, 77), out(3 * src.size());
    a.Bayer2RGB24_GB(src.data(), out.data(), 80, 10);
    EXPECT_EQ(out, Bytes(out.size(), 77));

    std::fill(src.begin(), src.end(), uint8_t{ 200 });
    a.SetRGBWB(1, 99);
    a.Bayer2RGB24_RG(src.data(), out.data(), 80, 10);
    for (int x : { 0, 5, 40, 79 })
        EXPECT_EQ(At(out, 80, x, 5), (Pixel{ 255, 200, 4 }));
}

TEST_F(Pixels, GainTables)
{
    a.SetRGBWB(100, 33);
    Gains g = SnapshotGains();
    EXPECT_EQ(g.red[127], 254);
    EXPECT_EQ(g.red[128], 255);
    EXPECT_EQ(g.blue[255], 168);  // 8415 / 50, cut
    EXPECT_FALSE(g.identity);
    CAlgorithm another;
    another.RGBYUV_Init();  // QUIRK: another camera's constructor takes the balance away
    EXPECT_TRUE(SnapshotGains().identity);
}

// A thread sanitizer sees here whether frames may be made while the balance changes.
TEST_F(Pixels, BalanceMayChangeDuringDemosaic)
{
    Bytes src(256 * 64, 100), out(3 * src.size());
    std::thread balance([this] {
        for (int i = 0; i < 200; ++i)
            a.SetRGBWB(50, i & 1 ? 50 : 99);
    });
    for (int i = 0; i < 50; ++i) {
        a.Bayer2RGB24_BG(src.data(), out.data(), 256, 64);
        ASSERT_TRUE(out[0] == 100 || out[0] == 198);
        ASSERT_TRUE(std::all_of(out.begin(), out.end(), [](uint8_t v) { return v == 100 || v == 198; }));
    }
    balance.join();
}

// The frame has been flipped before: whatever the flips, the colours are those of the unflipped frame.
TEST_F(Pixels, PhaseFollowsTheFlips)
{
    const char* cells[] = { "RGGB", "BGGR", "GRBG", "GBRG" };
    for (int pattern = 0; pattern < 4; ++pattern) {
        for (int flips = 0; flips < 4; ++flips) {
            const bool row = flips & 1, column = flips & 2;
            Bytes src(64);
            for (int i = 0; i < 64; ++i)
                src[static_cast<size_t>(i)] = static_cast<uint8_t>(cells[pattern][2 * (i / 8 & 1) + (i & 1)]);
            a.SoftMisc(src.data(), 8, 8, 1, false, column, row);
            const auto phase = PhaseAfterFlips(static_cast<BayerPattern>(pattern), row, column);
            ASSERT_TRUE(phase);
            EXPECT_EQ(src[static_cast<size_t>(8 * phase->blueY + phase->blueX)], 'B') << pattern << ' ' << flips;
            EXPECT_EQ(src[static_cast<size_t>(8 * (1 - phase->blueY) + 1 - phase->blueX)], 'R') << pattern << ' ' << flips;
        }
    }
    EXPECT_FALSE(PhaseAfterFlips(static_cast<BayerPattern>(4), false, false));
    EXPECT_FALSE(PhaseAfterFlips(static_cast<BayerPattern>(-1), false, false));
}

TEST_F(Pixels, QuirkLuminanceOfWhiteAndOfBlue)
{
    Bytes white(3 * 70, 255), y(70);
    a.RGB2Y8(white.data(), y.data(), 70, 1);
    EXPECT_EQ(y, Bytes(70, 219));
    // The weight of red serves blue: (4294901 >> 16) against (1637744 >> 16).
    Bytes colours = { 255, 0, 0, 0, 0, 255, 0, 255, 0 };
    a.RGB2Y8(colours.data(), y.data(), 3, 1);
    EXPECT_EQ(Bytes(y.begin(), y.begin() + 3), (Bytes{ 65, 24, 128 }));
    a.RGB2R8(colours.data(), y.data(), 3, 1);
    EXPECT_EQ(Bytes(y.begin(), y.begin() + 3), (Bytes{ 255, 0, 0 }));
}

TEST_F(Pixels, YuvWords)
{
    // Two rows of 3: white, blue, blue over black.
    Bytes src = { 255, 255, 255, 255, 0, 0, 255, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }, out(12);
    a.RGB2YUV2(src.data(), out.data(), 3, 2, false);
    // Blue: 65 + 16; 7336427 >> 16 = 111, + 128; the odd column keeps the second chroma of its left neighbour.
    const Bytes upper = { 235, 128, 81, 128, 81, 239 }, lower = { 16, 128, 16, 128, 16, 128 };
    Bytes want = upper;
    want.insert(want.end(), lower.begin(), lower.end());
    EXPECT_EQ(out, want);
    a.RGB2YUV2(src.data(), out.data(), 3, 2, true);
    want = lower;
    want.insert(want.end(), upper.begin(), upper.end());
    EXPECT_EQ(out, want);
}

TEST_F(Pixels, BinsOfConstantFrames)
{
    Bytes b8(64, 100);
    a.MonoBin(b8.data(), nullptr, 4, 4, 2, false);
    EXPECT_EQ(Bytes(b8.begin(), b8.begin() + 16), Bytes(16, 255));  // adds up
    std::vector<uint16_t> b16(64, 1000);
    a.MonoBin(nullptr, b16.data(), 4, 4, 2, true);
    EXPECT_EQ(b16[15], 1000);  // averages
    b16.assign(64, 3);
    a.ColorRAWBin(nullptr, b16.data(), 4, 4, 2, true);
    EXPECT_EQ(b16[0], 0);  // QUIRK: divided before it is added
    EXPECT_EQ(b16[16], 3);
    // A colour bin keeps the phases apart.
    for (size_t i = 0; i < 64; ++i)
        b8[i] = static_cast<uint8_t>(1 + 10 * (i / 8 & 1) + 5 * (i & 1));
    a.ColorRAWBin(b8.data(), nullptr, 4, 4, 2, false);
    EXPECT_EQ(Bytes(b8.begin(), b8.begin() + 8), (Bytes{ 4, 24, 4, 24, 44, 64, 44, 64 }));
    Bytes kept(64, 9), same = kept;
    a.MonoBin(kept.data(), nullptr, 8, 8, 1, false);
    EXPECT_EQ(kept, same);
}

TEST_F(Pixels, FlipsOfThreeRows)
{
    const Bytes src = { 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12 };  // 4 x 3
    const auto flipped = [&](bool rows, bool mirror) {
        Bytes v = src;
        a.SoftMisc(v.data(), 4, 3, 1, false, rows, mirror);
        return v;
    };
    EXPECT_EQ(flipped(false, false), src);
    EXPECT_EQ(flipped(false, true), (Bytes{ 4, 3, 2, 1, 8, 7, 6, 5, 12, 11, 10, 9 }));
    EXPECT_EQ(flipped(true, false), (Bytes{ 9, 10, 11, 12, 5, 6, 7, 8, 1, 2, 3, 4 }));
    EXPECT_EQ(flipped(true, true), (Bytes{ 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1 }));
    // With a bin the sizes count output pixels.
    Bytes v = { 1, 2, 3, 4, 5, 6, 7, 8 };
    a.SoftMisc(v.data(), 1, 1, 2, true, true, false);
    EXPECT_EQ(v, (Bytes{ 5, 6, 7, 8, 1, 2, 3, 4 }));
}

TEST_F(Pixels, DarkSubtraction)
{
    Bytes v = { 100, 10, 200, 0, 255, 255 };
    std::vector<uint16_t> dark = { 30, 30, 0, 0, 65535, 0 };
    a.SubtractDark(v.data(), 6, 1, 60, dark.data());
    EXPECT_EQ(v, (Bytes{ 130, 60, 255, 60, 60, 255 }));
    a.SubtractDark(v.data(), 6, 1, 1000, dark.data());
    EXPECT_EQ(v, Bytes(6, 255));
}

}  // namespace
