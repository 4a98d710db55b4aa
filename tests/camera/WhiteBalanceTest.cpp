#include "camera/WhiteBalance.h"

#include <gtest/gtest.h>

#include <memory>

#include "camera/TestCamera.h"

namespace {

class WhiteBalance : public testing::Test {
protected:
    WhiteBalance()
    {
        cam.m_bIsColor = true;
        cam.m_iWB_R = cam.m_iWB_B = 50;
    }
    // A mosaic with these values, in the phases of m_ColorBayer.
    std::vector<uint8_t> Mosaic(uint8_t r, uint8_t g, uint8_t b)
    {
        const uint8_t a[] = { r, g, b };
        const char* const szCell = std::array{ "0112", "2110", "1021", "1201" }[static_cast<size_t>(cam.m_ColorBayer)];
        std::vector<uint8_t> frame(320 * 320);
        for (size_t y = 0; y < 320; ++y)
            for (size_t x = 0; x < 320; ++x)
                frame[y * 320 + x] = a[szCell[y % 2 * 2 + x % 2] - '0'];
        return frame;
    }
    // What a step asks for, given these colours of all blocks.
    Asked StepFor(int r, int g, int b, bool bFallback = true, int iTexture0 = 0)
    {
        auto p = std::make_unique<WBBlocks>();
        for (int c = 0; c < 3; ++c)
            for (int k = 0; k < WB_BLOCKS; ++k) {
                p->dev[c][k] = k != 0 ? 0 : iTexture0;
                p->mean[c][k] = k != 0 ? 1 : std::array{ r, g, b }[static_cast<size_t>(c)];
            }
        StepWhiteBalance(cam, *p, bFallback);
        return cam.Asked();
    }
    TestCamera cam{ 320, 320 };
};

}  // namespace

TEST_F(WhiteBalance, FlatColoursOnTheMosaic)
{
    for (const BayerPattern p : { BAYER_RG, BAYER_BG, BAYER_GR, BAYER_GB }) {
        cam.m_ColorBayer = p;
        cam.m_iWB_R = cam.m_iWB_B = 50;
        auto grey = Mosaic(100, 100, 100), red = Mosaic(100, 200, 200);
        cam.AutoWhiBal(grey.data());
        EXPECT_EQ(cam.Asked(), Asked{}) << p;
        // Means carry the added one: 99 and 199, 198; weighted 98, 198, 197.
        cam.AutoWhiBal(red.data());
        EXPECT_EQ(cam.Asked(), Asked{ "wb 100 50" }) << p;
    }
    cam.m_bOutput16Bits = true;
    auto frame = Mosaic(0, 200, 200);
    cam.AutoWhiBal(frame.data());
    cam.m_bOutput16Bits = false;
    cam.m_bIsColor = false;
    cam.AutoWhiBal(frame.data());
    EXPECT_EQ(cam.Asked(), Asked{});
}

TEST_F(WhiteBalance, OneBlock)
{
    // Red 10 and 30 in turn, of 100 samples: sum 2000, mean 19, differences 9 and 11 make 1000.
    auto frame = Mosaic(10, 40, 0);
    for (size_t y = 0; y < 320; y += 2)
        for (size_t x = 0; x < 320; x += 4)
            frame[y * 320 + x] = 30;
    int dev[3] = { 1, 0, 1 }, mean[3];
    const auto measure = [&](int block) {
        dev[0] = dev[2] = 1;
        dev[1] = 0;
        cam.Get_variance_ave_RAW(frame.data(), 0, 0, block, block, 320, 320, &dev[0], &dev[1], &dev[2], &mean[0], &mean[1],
                                 &mean[2]);
    };
    measure(40);  // points at every fourth column: only the 30s
    EXPECT_EQ(mean[0], 29);
    EXPECT_EQ(dev[0], 100 * 10 / 101);
    measure(20);
    EXPECT_EQ(mean[0], 19);
    EXPECT_EQ(dev[0], 1000 * 10 / 101);
    EXPECT_EQ(dev[1], 200 * 10 / 201);  // not measured: one a sample
    EXPECT_EQ(mean[1], 39);
    EXPECT_EQ(mean[2], 0);
    EXPECT_EQ(dev[2], 0);
    cam.m_iBin = 4;
    measure(20);
    EXPECT_EQ(mean[0], 255);             // 19 * 16, limited
    EXPECT_EQ(dev[0], 1000 * 10 / 101);  // of the unscaled mean
    cam.m_bHardwareBin = true;
    measure(20);
    EXPECT_EQ(mean[0], 76);
}

TEST_F(WhiteBalance, TextureWeighs)
{
    // Half the frame is flat blue sky, the rest textured grey: the sky hardly counts.
    auto frame = Mosaic(0, 0, 160);
    for (size_t y = 160; y < 320; ++y)
        for (size_t x = 0; x < 320; ++x)
            frame[y * 320 + x] = (x / 2 + y / 2) % 2 ? 140 : 60;
    cam.AutoWB_RAW(frame.data());
    EXPECT_EQ(cam.Asked(), Asked{});
}

TEST_F(WhiteBalance, Decision)
{
    EXPECT_EQ(StepFor(100, 200, 100, true, 2), Asked{ "wb 99 99" });  // 2 / (2 + 1) of it: 50 * 133 / 67
    cam.m_iWB_R = cam.m_iWB_B = 50;
    EXPECT_EQ(StepFor(100, 200, 200), Asked{ "wb 99 49" });  // 50 * 200 / 101, / 201
    cam.m_iWB_R = cam.m_iWB_B = 50;
    EXPECT_EQ(StepFor(100, 104, 100), Asked{});
    EXPECT_EQ(StepFor(100, 106, 100, true, 2), Asked{});  // 2 / (2 + 1) of it: 66 and 70
    EXPECT_EQ(StepFor(100, 105, 100), (Asked{ "wb 51 51" }));
    cam.m_iWB_R = cam.m_iWB_B = 50;
    cam.m_bAutoGain = true;
    EXPECT_EQ(StepFor(100, 108, 100), Asked{});
    EXPECT_EQ(StepFor(100, 110, 100), Asked{});
    EXPECT_EQ(StepFor(100, 111, 111), (Asked{ "wb 54 49" }));
    cam.m_bAutoGain = false;
    cam.m_iWB_R = 4;  // truncation alone would keep it at 4 for ever
    cam.m_iWB_B = 5;
    EXPECT_EQ(StepFor(100, 120, 118), (Asked{ "wb 5 5" }));
    EXPECT_EQ(StepFor(100, 200, 200, false), Asked{});  // without the fallback all are 0
}
