// Sensor temperature of all forms against the device's own, and the cooler as a control loop around a real time
// constant.
#include "auto/AutoBench.h"

namespace {

class ThermalTest : public AutoTest {
protected:
    void OpenAt(uint16_t wProductId, double dAmbient)
    {
        kovsim::CameraSettings s = Quiet(wProductId);
        s.scene = kovsim::Scene::Dark();
        s.dAmbient = dAmbient;
        Open(s);
    }
    double Told() const { return Now(CTRL_TEMPERATURE) / 10.0; }
    double Real() const { return m_pDevice->Temperature(); }
};

TEST_F(ThermalTest, EveryFormTellsTheTemperature)
{
    // Half a step of each sensor, and the tenth of a degree that the control cuts off. The thermistor's converter has
    // 8 bits: 0.4 degrees a step at 20, 1 at -18.
    const struct {
        uint16_t wProductId;
        double dTolerance;
        std::vector<double> ambients;
    } rows[] = {
        { 0xC11A, 0.14, { -17.7, 3.1, 24.6, 41.3 } },
        { 0xC02B, 0.14, { -0.6 } },
        { 0xC0DD, 0.14, { 33.3 } },  // digital
        { 0xC07A, 0.5, { -17.7, 3.1, 24.6, 41.3 } },
        { 0xC07E, 0.5, { 10 } },  // register
        { 0xC05A, 0.7, { -17.7, 41.3 } },
        { 0xC06A, 0.7, { 3.1 } },
        { 0xC08A, 0.7, { 24.6 } },  // thermistor
    };
    for (const auto& r : rows)
        for (const double dAmbient : r.ambients) {
            NewBus(50);
            OpenAt(r.wProductId, dAmbient);
            SCOPED_TRACE(testing::Message() << std::hex << r.wProductId << std::dec << " at " << dAmbient);
            // On cooled cameras the value is that of the thread, whose first reading comes after 0.4 seconds.
            EXPECT_TRUE(Until([&] { return std::fabs(Told() - Real()) <= r.dTolerance; }, 10)) << Told();
            KOVCloseCamera(m_iId);
        }
    // Cameras without a sensor tell 0.
    for (const uint16_t w : { uint16_t{ 0xC01A }, uint16_t{ 0xC03B }, uint16_t{ 0xC04A }, uint16_t{ 0xC09A } }) {
        NewBus(50);
        OpenAt(w, 30);
        EXPECT_EQ(Now(CTRL_TEMPERATURE), 0);
        KOVCloseCamera(m_iId);
    }
}

class CoolerTest : public ThermalTest, public testing::WithParamInterface<std::pair<uint16_t, double>> {};

TEST_P(CoolerTest, ReachesAndHolds)
{
    const double dTolerance = GetParam().second;
    NewBus(100);
    OpenAt(GetParam().first, 20);
    EXPECT_EQ(m_pDevice->CoolerDA(), 255);
    Set(CTRL_TARGET_TEMP, -10);
    EXPECT_EQ(Now(CTRL_COOL_POWER_PERC), 0) << "a target alone switches nothing on";
    Set(CTRL_COOLER_ON, 1);
    EXPECT_EQ(Now(CTRL_COOLER_ON), 1);
    const auto near = [&] { return std::fabs(Real() + 10) <= dTolerance; };
    // Two minutes of the camera's time within the tolerance.
    uint32_t dwSince = platform::Ticks();
    EXPECT_TRUE(Until([&] {
        if (!near())
            dwSince = platform::Ticks();
        return platform::Ticks() - dwSince >= 120000;
    })) << Real()
        << " degrees at " << Now(CTRL_COOL_POWER_PERC) << " %";
    EXPECT_NEAR(Told(), Real(), dTolerance);
    // 30 of 40 kelvin.
    EXPECT_NEAR(m_pDevice->CoolerPower(), 0.75, 0.05);
    EXPECT_GT(Now(CTRL_COOL_POWER_PERC), 50);
    EXPECT_LT(Now(CTRL_COOL_POWER_PERC), 100);

    // A false reading far off is no reason to change the power.
    auto& cool = dynamic_cast<CCameraCool&>(*m_pCam);
    m_pDevice->ClearRequests();
    cool.m_fLastTemp = static_cast<float>(Real());
    cool.m_dwLastTempTick = platform::Ticks();
    const int32_t iPower = Now(CTRL_COOL_POWER_PERC);
    cool.AutoTemp(60);
    EXPECT_NEAR(Now(CTRL_COOL_POWER_PERC), iPower, 5);

    // Off: no power, and it stays off while the sensor grows warm.
    Set(CTRL_COOLER_ON, 0);
    EXPECT_EQ(Now(CTRL_COOL_POWER_PERC), 0);
    EXPECT_EQ(m_pDevice->CoolerPower(), 0);
    EXPECT_TRUE(Until([&] { return Real() > 10 && Told() > 9; }));
    EXPECT_EQ(m_pDevice->CoolerPower(), 0);

    // Closing switches it off.
    Set(CTRL_COOLER_ON, 1);
    EXPECT_TRUE(Until([&] { return m_pDevice->CoolerPower() > 0.01; }));
    ASSERT_EQ(KOVCloseCamera(m_iId), KOV_SUCCESS);
    EXPECT_EQ(m_pDevice->CoolerPower(), 0);
    m_pDevice->ClearRequests();
    platform::SleepMs(8000);
    EXPECT_TRUE(m_pDevice->Requests().empty()) << "the regulator is gone";
}

INSTANTIATE_TEST_SUITE_P(Models, CoolerTest,
                         testing::Values(std::pair<uint16_t, double>{ 0xC0B1, 0.5 }, std::pair<uint16_t, double>{ 0xC08A, 1.2 }),
                         [](const auto& info) { return info.param.first == 0xC0B1 ? "KyaniteCol_C" : "HaliteCol"; });

}  // namespace
