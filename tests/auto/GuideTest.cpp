// Guide pins move the sky by what they should.
#include "auto/AutoBench.h"

namespace {

class GuideTest : public AutoTest {
protected:
    struct Spot {
        double x = 0, y = 0;
    };
    // Centre of the brightest star: mean place of what is over half of the maximum near it.
    Spot Star() const
    {
        int bx = 0, by = 0;
        for (int y = 4; y < m_iH - 4; ++y)
            for (int x = 4; x < m_iW - 4; ++x)
                if (At(x, y) > At(bx, by))
                    bx = x, by = y;
        double n = 0, sx = 0, sy = 0;
        for (int y = std::max(0, by - 30); y < std::min(m_iH, by + 30); ++y)
            for (int x = std::max(0, bx - 30); x < std::min(m_iW, bx + 30); ++x)
                if (At(x, y) > At(bx, by) / 2)
                    n += 1, sx += x, sy += y;
        return { sx / n, sy / n };
    }
};

TEST_F(GuideTest, PinsMoveTheSky)
{
    kovsim::CameraSettings s = Quiet(0xC11B);
    kovsim::SkyView view;  // Alcyone in the middle, 0.77 arc seconds a pixel
    view.dRa = 56.8711;
    view.dDec = 24.1051;
    view.dFocalMm = 1000;
    s.scene = kovsim::Scene::Sky(view);
    Open(s);
    Region(800, 600);
    Set(CTRL_GAIN, 0);
    Set(CTRL_EXPOSURE, 300000);
    const double dScale = 206.265 * 3.75 / view.dFocalMm;
    ASSERT_TRUE(TakeSnap());
    Spot last = Star();
    ASSERT_NEAR(last.x, 400, 60);
    ASSERT_NEAR(last.y, 300, 60);
    double dLastX = m_pDevice->GuideX(), dLastY = m_pDevice->GuideY();
    ASSERT_EQ(dLastX, 0);

    // Up, down, right, left; each for 4 seconds and more: 30 arc seconds, 39 pixels.
    const struct {
        KOV_GUIDE_DIRECTION pin;
        int x, y;
    } rows[] = { { KOV_GUIDE_0, 0, -1 }, { KOV_GUIDE_1, 0, 1 }, { KOV_GUIDE_2, 1, 0 }, { KOV_GUIDE_3, -1, 0 } };
    for (const auto& r : rows) {
        const uint32_t t0 = platform::Ticks();
        if (r.pin % 2 == 0) {
            ASSERT_EQ(KOVPulseGuideOn(0, r.pin), KOV_SUCCESS);
            EXPECT_TRUE(m_pDevice->GuidePin(r.pin));
            platform::SleepMs(4000);
            ASSERT_EQ(KOVPulseGuideOff(0, r.pin), KOV_SUCCESS);
        } else {
            EXPECT_TRUE(m_pCam->pulseGuide(r.pin, 4000));
        }
        const double dMost = 7.5e-3 * (platform::Ticks() - t0);
        for (int pin = 0; pin < 4; ++pin)
            EXPECT_FALSE(m_pDevice->GuidePin(pin));
        const double dX = m_pDevice->GuideX() - dLastX, dY = m_pDevice->GuideY() - dLastY;
        EXPECT_GE(dX * r.x + dY * r.y, 29.8);
        EXPECT_LE(dX * r.x + dY * r.y, dMost + 0.2);
        EXPECT_EQ(r.x == 0 ? dX : dY, 0);
        ASSERT_TRUE(TakeSnap());
        const Spot now = Star();
        EXPECT_NEAR(now.x - last.x, dX / dScale, 0.5) << "pin " << r.pin;
        EXPECT_NEAR(now.y - last.y, dY / dScale, 0.5) << "pin " << r.pin;
        last = now;
        dLastX += dX;
        dLastY += dY;
    }
    m_pDevice->ClearRequests();
    EXPECT_EQ(KOVPulseGuideOn(0, static_cast<KOV_GUIDE_DIRECTION>(4)), KOV_SUCCESS);
    EXPECT_TRUE(m_pDevice->Requests().empty());
}

}  // namespace
