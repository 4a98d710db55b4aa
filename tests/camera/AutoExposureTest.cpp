#include <gtest/gtest.h>

#include <cstring>

#include "camera/TestCamera.h"

namespace {

struct Case {
    const char* szWhat;
    bool bExp, bGain;
    uint64_t E;
    int L, G;
    int v;  // every byte of the frame; the measured brightness is one more
    Asked expected;
};

}  // namespace

TEST(AutoExposure, Decisions)
{
    // Target 100, gain 0 to 300 (steps 3 and 6), gain ceiling 50, exposure ceiling 30 s.
    const Case cases[] = {
        { "dead band, lower end", true, true, 10000, 100, 20, 84, {} },
        { "dead band, upper end", true, true, 10000, 100, 20, 114, {} },
        { "dark, exposure", true, false, 10000, 100, 20, 83, { "exp 10800 1" } },
        { "bright, exposure", true, false, 10000, 100, 20, 115, { "exp 9600 1" } },
        { "dark, gain", false, true, 10000, 100, 20, 83, { "gain 26 1" } },
        { "dark, gain at its ceiling", false, true, 10000, 100, 48, 83, { "gain 50 1" } },
        { "bright, gain", false, true, 10000, 100, 20, 115, { "gain 17 1" } },
        { "bright, gain has no floor here", false, true, 10000, 100, 1, 115, { "gain -2 1" } },
        { "dark, both", true, true, 100000, 100, 20, 83, { "gain 23 1", "exp 108000 1", "gain 26 1" } },
        { "dark, both, long", true, true, 100001, 100, 20, 83, { "gain 23 1", "gain 29 1" } },
        { "dark, both, long, gain at its ceiling", true, true, 100001, 100, 50, 83, { "gain 50 1", "exp 108001 1" } },
        { "dark, exposure ceiling", true, false, 29999999, 100, 20, 0, { "exp 30000000 1" } },
        { "bright, both", true, true, 10000, 100, 20, 115, { "exp 9600 1", "gain 17 1" } },
        { "bright, both, gain floor", true, true, 10000, 100, 2, 115, { "exp 9600 1", "gain 1 1" } },
        { "bright, both, long", true, true, 100001, 100, 20, 115, { "exp 96001 1" } },
        { "bright, long, no line hold", true, false, 100001, 1, 20, 115, { "exp 96001 1" } },
        { "bright, 2 lines held", true, true, 10000, 2, 20, 128, { "gain 17 1", "gain 14 1" } },
        { "bright, 2 lines, end of the hold", true, true, 10000, 2, 20, 129, { "exp 9250 1", "gain 17 1", "gain 14 1" } },
        { "bright, 3 lines", true, false, 10000, 3, 20, 128, { "exp 9275 1" } },
        { "bright, 2 lines, exposure only", true, false, 10000, 2, 20, 128, {} },
        { "dark, 1 line held", true, true, 10000, 1, 20, 59, { "gain 23 1", "gain 26 1" } },
        { "dark, 1 line, exposure only", true, false, 10000, 1, 20, 59, {} },
        { "dark, 2 lines at 40 percent", true, false, 10000, 2, 20, 59, { "exp 12000 1" } },
        { "dark, 1 line, end of the hold", true, false, 10000, 1, 20, 54, { "exp 12250 1" } },
        { "black", true, false, 10000, 100, 20, 0, { "exp 14950 1" } },
        { "neither", false, false, 10000, 100, 20, 83, { "gain 26 0" } },
    };
    TestCamera cam;
    std::vector<uint8_t> frame(160 * 120);
    for (const Case& c : cases) {
        cam.m_bAutoExp = c.bExp;
        cam.m_bAutoGain = c.bGain;
        cam.m_lExposure = c.E;
        cam.m_iExpLines = c.L;
        cam.m_iGain = c.G;
        std::fill(frame.begin(), frame.end(), static_cast<uint8_t>(c.v));
        cam.AutoExpGain(frame.data());
        EXPECT_EQ(cam.Asked(), c.expected) << c.szWhat;
    }
}

TEST(AutoExposure, LinesAndTargetAreTakenAsTheyStand)
{
    TestCamera cam;
    std::vector<uint8_t> frame(160 * 120, 115);
    cam.m_bAutoExp = cam.m_bAutoGain = true;
    cam.m_iGain = 20;
    cam.iLinesAfterExp = 2;  // the model counts the new exposure in lines before the second gain step is decided
    cam.AutoExpGain(frame.data());
    EXPECT_EQ(cam.Asked(), (Asked{ "exp 9600 1", "gain 17 1", "gain 14 1" }));
    cam.m_lExposure = 10000;
    cam.m_iGain = 20;
    cam.m_iExpLines = 100;
    cam.iLinesAfterExp = 3;
    cam.AutoExpGain(frame.data());
    EXPECT_EQ(cam.Asked(), (Asked{ "exp 9600 1", "gain 17 1" }));

    cam.iLinesAfterExp = -1;
    cam.m_iExpLines = 100;
    cam.m_bAutoGain = false;
    cam.m_iDestBrightness = 0;  // black is too bright
    std::fill(frame.begin(), frame.end(), uint8_t{ 0 });
    cam.AutoExpGain(frame.data());
    EXPECT_EQ(cam.Asked(), Asked{ "exp 9576 1" });

    // QUIRK: this many seconds overflow to no ceiling.
    cam.m_iDestBrightness = 100;
    cam.m_iAutoExpMax = 3000;
    cam.m_lExposure = 4'000'000'000;
    cam.AutoExpGain(frame.data());
    EXPECT_EQ(cam.Asked(), Asked{ "exp 5980000000 1" });
}

TEST(AutoExposure, MeasuresTheGridOfTheMiddle)
{
    // 64 by 48 points, of which those strictly within these bounds count; the second frame has points on each of them.
    struct {
        size_t w, h, left, right, top, bottom;
    } rows[] = { { 160, 120, 32, 128, 24, 96 }, { 64, 60, 12, 51, 12, 48 } };
    for (const auto& r : rows) {
        TestCamera cam(int(r.w), int(r.h));
        cam.m_bAutoExp = true;
        const auto measure = [&](std::vector<uint8_t>& frame) {
            cam.m_lExposure = 10000;
            cam.AutoExpGain(frame.data());
            return cam.Asked();
        };
        std::vector<uint8_t> points(r.w * r.h, 0), others(r.w * r.h, 255);
        for (size_t j = 0; j < 48; ++j)
            for (size_t i = 0; i < 64; ++i) {
                const size_t x = i * r.w / 64, y = j * r.h / 48;
                if (x > r.left && x < r.right && y > r.top && y < r.bottom) {
                    points[y * r.w + x] = 255;
                    others[y * r.w + x] = 0;
                }
            }
        EXPECT_EQ(measure(points), Asked{ "exp 6125 1" }) << r.w;   // 255
        EXPECT_EQ(measure(others), Asked{ "exp 14950 1" }) << r.w;  // 1
    }
}

TEST(AutoExposure, BinningAndDepth)
{
    TestCamera cam(160, 120);
    cam.m_bAutoExp = true;
    std::vector<uint8_t> frame(2 * 160 * 120, 20);
    const auto measure = [&] {
        cam.m_lExposure = 10000;
        cam.AutoExpGain(frame.data());
        return cam.Asked();
    };
    // Software binning will sum: 21 * 4.
    cam.m_iBin = 2;
    cam.m_iWidth = 80;
    cam.m_iHeight = 60;
    EXPECT_EQ(measure(), Asked{ "exp 10800 1" });
    std::fill(frame.begin(), frame.end(), uint8_t{ 200 });
    EXPECT_EQ(measure(), Asked{ "exp 6125 1" });  // limited to 255
    // The sensor has binned already.
    cam.m_bHardwareBin = true;
    std::fill(frame.begin(), frame.end(), uint8_t{ 83 });
    EXPECT_EQ(measure(), Asked{ "exp 10800 1" });
    // 2 by sensor, 2 by host.
    cam.m_iBin = 4;
    cam.m_iWidth = 40;
    cam.m_iHeight = 30;
    std::fill(frame.begin(), frame.end(), uint8_t{ 20 });
    EXPECT_EQ(measure(), Asked{ "exp 10800 1" });

    cam.m_bHardwareBin = false;
    cam.m_iBin = 1;
    cam.m_iWidth = 160;
    cam.m_iHeight = 120;
    cam.m_bOutput16Bits = true;
    for (size_t i = 0; i < frame.size(); ++i)
        frame[i] = i % 2 ? 83 : 115;
    EXPECT_EQ(measure(), Asked{ "exp 10800 1" });  // high byte
    cam.m_pszName = "VYR KOVGarnetMono-S";
    EXPECT_EQ(measure(), Asked{ "exp 9600 1" });  // QUIRK: low byte
    cam.m_pszName = "VYR KOVGarnetMono-SX";
    EXPECT_EQ(measure(), Asked{ "exp 10800 1" });
}

TEST(AutoExposure, ImpossibleGeometryStaysWithinTheFrame)
{
    TestCamera cam(16, 12);
    std::vector<uint8_t> frame(2 * 16 * 12, 83);
    cam.m_bAutoExp = true;
    cam.m_iWidth = 64;
    cam.m_iHeight = 64;
    cam.m_iBin = 4;
    cam.AutoExpGain(frame.data());
    cam.m_iWidth = cam.m_iHeight = 1;
    cam.m_iBin = 1;
    cam.Asked();
    cam.AutoExpGain(frame.data());
    EXPECT_EQ(cam.Asked(), Asked{});
}
