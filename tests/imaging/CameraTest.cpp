// What a camera object adds to the pixel operations: gamma tables, pattern and flips, the switch of image types.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "camera/TestCamera.h"

namespace {

struct Camera : TestCamera {
    Camera() : TestCamera(64, 32) {}
};

// The reference values were computed outside of this program, in single precision.
TEST(Gamma, Tables)
{
    Camera cam;
    cam.m_iGamma = 50;
    EXPECT_TRUE(cam.SetGamma(100));  // exponent 0.5
    EXPECT_EQ(cam.m_Gamma8[0], 0);
    EXPECT_EQ(cam.m_Gamma8[1], 15);    // sqrt(1 / 255) * 255 = 15.97
    EXPECT_EQ(cam.m_Gamma8[64], 127);  // 127.75
    EXPECT_EQ(cam.m_Gamma8[255], 255);
    cam.FillGamma16();
    EXPECT_EQ(cam.m_pGamma16[1], 255);  // 255.998
    EXPECT_EQ(cam.m_pGamma16[16384], 32767);
    EXPECT_EQ(cam.m_pGamma16[65535], 65535);
    EXPECT_TRUE(cam.SetGamma(1));      // exponent 1.98
    EXPECT_EQ(cam.m_Gamma8[128], 65);  // 65.15
    EXPECT_EQ(cam.m_Gamma8[255], 255);
    cam.FillGamma16();
    EXPECT_EQ(cam.m_pGamma16[32768], 16612);  // 16612.6
}

TEST(Gamma, QuirkUpperLimitLooksAtTheOldValue)
{
    Camera cam;
    cam.m_iGamma = 50;
    cam.SetGamma(150);
    EXPECT_EQ(cam.GetGamma(), 150);
    EXPECT_EQ(cam.m_Gamma8[0], 255);  // exponent 0
    cam.SetGamma(30);
    EXPECT_EQ(cam.GetGamma(), 100);  // the 30 is lost
    EXPECT_EQ(cam.m_Gamma8[64], 127);
    cam.SetGamma(30);
    EXPECT_EQ(cam.GetGamma(), 30);
    cam.SetGamma(-5);
    EXPECT_EQ(cam.GetGamma(), -5);
    cam.SetGamma(60);
    EXPECT_EQ(cam.GetGamma(), 60);
}

TEST(Bayer, NoPatternNoPicture)
{
    Camera cam;
    std::vector<uint8_t> src(96 * 20), rgb(3 * src.size(), 9);
    cam.m_ColorBayer = static_cast<BayerPattern>(7);
    cam.Bayer2RGB24(src.data(), rgb.data(), 96, 20);
    EXPECT_EQ(rgb, std::vector<uint8_t>(rgb.size(), 9));
}

TEST(TimeMark, OnlyOnEightBitImages)
{
    Camera cam;
    cam.m_iHeight = 30;
    for (int type = 0; type <= 4; ++type) {
        std::vector<uint8_t> image(300 * 30 * 3, 10);
        cam.AddTimeMark(image.data(), 300, static_cast<IMAGE_TYPE>(type));
        const auto marked = static_cast<size_t>(std::count(image.begin(), image.end(), 180));
        EXPECT_EQ(marked != 0, type == IMAGE_8BIT || type == IMAGE_RGB24) << type;
        EXPECT_EQ(image.size() - marked, static_cast<size_t>(std::count(image.begin(), image.end(), 10)));
    }
}

}  // namespace
