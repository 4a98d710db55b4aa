// Light to numbers: exposure, gain, filters, noise, dark current, the sky. Windows, depths, bins and hot pixels are looked at
// through the driver, in device and auto.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>

#include "FakeProfile.h"
#include "virtual/Imager.h"
#include "virtual/Stars.h"

using namespace kovsim;
using fake::Host;

namespace {

Readout Full(const ModelFacts& f, Samples samples = Samples::Bits16)
{
    Readout r;
    r.iW = r.iOutW = f.iWidth;
    r.iH = r.iOutH = f.iHeight;
    r.samples = samples;
    return r;
}

std::vector<uint8_t> Take(Imager& imager, const Readout& r, const std::shared_ptr<const Scene>& scene, double us,
                          double celsius = 20, uint64_t frame = 0)
{
    std::vector<uint8_t> out;
    imager.Expose(r, { us, celsius, 0, 0, frame }, scene, out);
    return out;
}

// 16-bit samples back to numbers of the converter.
int Adu(const std::vector<uint8_t>& d, size_t i, int bits = 12) { return (d[2 * i] | d[2 * i + 1] << 8) >> (16 - bits); }

struct Stats {
    double mean, variance;
};
Stats StatsOf(const std::vector<uint8_t>& d)
{
    const size_t n = d.size() / 2;
    double sum = 0, sum2 = 0;
    for (size_t i = 0; i < n; ++i) {
        const double v = Adu(d, i);
        sum += v;
        sum2 += v * v;
    }
    return { sum / double(n), sum2 / double(n) - sum / double(n) * sum / double(n) };
}

}  // namespace

TEST(VirtualPhysics, TwelveBitWireOrderAndPadding)
{
    const auto f = fake::Facts(8, 8);
    Imager imager(f, 1, 0, 0);
    auto r = Full(f, Samples::Bits12Wire);
    r.dBlack = 0x5A3;
    r.iOutW = 10;  // more than the window has: black
    r.iOutH = 9;
    const auto d = Take(imager, r, Scene::Dark(), 1000);
    ASSERT_EQ(d.size(), 180u);
    for (size_t i = 0; i < d.size(); i += 2) {
        ASSERT_EQ(d[i], 0x5A);
        ASSERT_EQ(d[i + 1], 0x03);
    }
}

TEST(VirtualPhysics, ExposureGainPedestalWellAndColours)
{
    auto f = fake::Facts(16, 16);
    f.cfa = Cfa::RG;
    f.dFullWell = 4096;  // one electron a number at gain 1
    Imager imager(f, 1, 0, 0);
    auto r = Full(f);
    r.dBlack = 100;
    r.dGainR = 1.5;
    r.dGainB = 2;
    const auto scene = Scene::Colour(1000, 2000, 500);
    auto d = Take(imager, r, scene, 500000);
    EXPECT_EQ(Adu(d, 0), 100 + 750);
    EXPECT_EQ(Adu(d, 1), 100 + 1000);
    EXPECT_EQ(Adu(d, 16), 100 + 1000);
    EXPECT_EQ(Adu(d, 17), 100 + 500);
    r.iX = 1;  // the filter stays with the pixel
    d = Take(imager, r, scene, 500000);
    EXPECT_EQ(Adu(d, 0), 100 + 1000);
    r.iX = 0;
    r.dGain = 3;
    EXPECT_EQ(Adu(Take(imager, r, scene, 250000), 1), 100 + 1500);
    EXPECT_EQ(Adu(Take(imager, r, scene, 5e6), 1), 4095);  // converter
    r.dGain = 0.5;
    EXPECT_EQ(Adu(Take(imager, r, scene, 5e6), 1), 100 + 2048);  // full well
}

TEST(VirtualPhysics, NoiseHasTheVarianceOfItsElectrons)
{
    auto f = fake::Facts(500, 400);
    f.dFullWell = 4096;
    f.dReadNoise = 4;
    Imager imager(f, 3, 1, 0);
    auto r = Full(f);
    r.dBlack = 500;
    const auto lit = StatsOf(Take(imager, r, Scene::Flat(10000), 100000));  // 1000 electrons
    EXPECT_NEAR(lit.mean, 1500, 0.5 + 0.5);                                 // truncation costs half a number
    EXPECT_NEAR(lit.variance, 1000 + 16, 12);
    r.dGain = 2;
    const auto gained = StatsOf(Take(imager, r, Scene::Flat(5000), 100000));
    EXPECT_NEAR(gained.mean, 1500, 1);
    EXPECT_NEAR(gained.variance, 4 * (500 + 16), 30);

    // Another frame is another draw, the same frame and seed the same.
    r.dGain = 1;
    const auto a = Take(imager, r, Scene::Flat(100), 1000, 20, 1);
    EXPECT_EQ(a, Take(imager, r, Scene::Flat(100), 1000, 20, 1));
    EXPECT_NE(a, Take(imager, r, Scene::Flat(100), 1000, 20, 2));
    // A sum of four pixels has four times the variance.
    r.iBin = 2;
    r.iOutW = 250;
    r.iOutH = 200;
    r.bBinSums = true;
    EXPECT_NEAR(StatsOf(Take(imager, r, Scene::Flat(2500), 100000)).variance, 1000 + 4 * 16, 25);
}

TEST(VirtualPhysics, DarkCurrentDoublesEverySixDegrees)
{
    auto f = fake::Facts(300, 300);
    f.dFullWell = 4096;
    f.dReadNoise = 1;
    Imager imager(f, 3, 1, 0);
    auto r = Full(f);
    r.dBlack = 100;
    double last = 0;
    for (double celsius : { 14.0, 20.0, 26.0 }) {
        const double dark = StatsOf(Take(imager, r, Scene::Dark(), 1e9, celsius)).mean - 99.5;
        EXPECT_NEAR(dark, 1000 * DARK_AT_20 * std::exp2((celsius - 20) / 6), 1.5);
        if (last > 0) {
            EXPECT_NEAR(dark / last, 2, 0.05);
        }
        last = dark;
    }
}

TEST(VirtualPhysics, InvalidRegistersGiveNoiseOfTheAskedSize)
{
    const auto f = fake::Facts(33, 7);
    Imager imager(f, 1, 0, 0);
    auto r = Full(f, Samples::Bits8);
    r.bValid = false;
    const auto d = Take(imager, r, Scene::Dark(), 1000);
    ASSERT_EQ(d.size(), 33u * 7);
    EXPECT_NE(std::count(d.begin(), d.end(), d[0]), long(d.size()));
}

TEST(VirtualPhysics, NoiseIsCountedAndItsReasonToldOnce)
{
    auto settings = fake::Settings(fake::Facts());
    std::mutex mutex;
    std::vector<std::string> told;
    settings.onNoise = [&](const ModelFacts& facts, const std::string& why) {
        std::lock_guard lock(mutex);
        told.push_back(facts.sToken + ": " + why);
    };
    Host h(settings, 10);
    h.Start();
    h.Frame(64 * 48);
    EXPECT_EQ(h.camera.Counters().uContradicted, 0u);
    for (const uint16_t x : std::initializer_list<uint16_t>{ 7, 7, 8, 0, 8 }) {
        h.Set(fake::X, x);
        // Frames whose exposure began before come first.
        const uint64_t noise = h.camera.Counters().uContradicted, all = h.camera.Counters().uStarted;
        while (x != 0 ? h.camera.Counters().uContradicted < noise + 2 : h.camera.Counters().uStarted < all + 3)
            h.Frame(64 * 48);
    }
    h.Stop();
    EXPECT_EQ(h.camera.LastContradiction(), "X 8");
    std::lock_guard lock(mutex);
    EXPECT_EQ(told, (std::vector<std::string>{ "Fake: X 7", "Fake: X 8", "Fake: X 8" }));
}

TEST(VirtualHeld, ReleaseWithoutStreamingLosesTheExposure)
{
    Host h(fake::Settings(fake::Facts()), 10);
    h.Start();
    h.Frame(64 * 48);
    h.Set(fake::HELD, 1);
    h.Set(fake::STREAM, 0);  // survives this
    h.device->ResetPipe(0x82);
    const uint64_t before = h.camera.Counters().uStarted;
    h.Set(fake::STREAM, 1);
    h.Set(fake::HELD, 0);
    h.Frame(64 * 48);
    EXPECT_GT(h.camera.Counters().uStarted, before);
    h.Set(fake::HELD, 1);
    h.Set(fake::STREAM, 0);
    h.Set(fake::HELD, 0);
    h.device->ResetPipe(0x82);
    fake::Read r(100);
    ASSERT_EQ(h.device->SubmitBulk(r.Request()), usbstack::Status::Ok);
    EXPECT_FALSE(r.Wait(100));
}

TEST(VirtualSky, StarsLieWhereThePinholeSaysAndHaveTheirLight)
{
    // The projection once more, by vectors: the direction's components along the camera's axes.
    struct V {
        double x, y, z;
    };
    const auto dir = [](double ra, double dec) {
        const double a = ra * M_PI / 180, d = dec * M_PI / 180;
        return V{ std::cos(d) * std::cos(a), std::cos(d) * std::sin(a), std::sin(d) };
    };
    const auto dot = [](V a, V b) { return a.x * b.x + a.y * b.y + a.z * b.z; };
    const auto find = [](int hip) {
        for (const Star& s : Stars())
            if (s.iHip == hip)
                return s;
        ADD_FAILURE() << hip;
        return Star{};
    };
    for (double rotation : { 0.0, 30.0 }) {
        SkyView view;
        view.dRotation = rotation;
        view.dSkyMag = 30;
        const auto scene = Scene::Sky(view);
        const ScreenGeometry g{ 1936, 1096, 2.9, 40, -20 };  // shifted right and up, arc seconds
        std::vector<Light> light(size_t(g.iWidth) * size_t(g.iHeight));
        scene->Render(g, 0, 500, light.data());
        scene->Render(g, 500, g.iHeight - 500, light.data() + 500 * size_t(g.iWidth));  // in bands

        const V axis = dir(view.dRa, view.dDec);
        const V north = dir(view.dRa, view.dDec + 90), east = dir(view.dRa + 90, 0);
        const double c = std::cos(rotation * M_PI / 180), s = std::sin(rotation * M_PI / 180);
        for (int hip : { 17702, 17847, 17499 }) {  // Alcyone, Atlas, Electra
            const Star star = find(hip);
            const V v = dir(star.dRa, star.dDec);
            const double e = dot(v, east) / dot(v, axis), n = dot(v, north) / dot(v, axis);
            const double up = n * c + e * s, left = e * c - n * s;
            const double pxPerRad = 135000 / 2.9, px = 135.0 / 0.0029 * M_PI / 180 / 3600;
            const double x = 967.5 - left * pxPerRad + 40 * px, y = 547.5 - up * pxPerRad - 20 * px;
            double sum = 0, sx = 0, sy = 0, red = 0, blue = 0;
            for (int j = int(y) - 12; j <= int(y) + 13; ++j)
                for (int i = int(x) - 12; i <= int(x) + 13; ++i) {
                    const Light& l = light[size_t(j) * 1936 + size_t(i)];
                    sum += l.g;
                    sx += double(l.g) * i;
                    sy += double(l.g) * j;
                    red += l.r;
                    blue += l.b;
                }
            EXPECT_NEAR(sx / sum, x, 0.05) << hip;
            EXPECT_NEAR(sy / sum, y, 0.05) << hip;
            const double flux = 5e9 * M_PI / 4 * 0.05 * 0.05 * std::pow(10, -0.4 * star.dMag);
            EXPECT_NEAR(sum / flux, 1, 0.02) << hip;
            EXPECT_GT(blue, red * 1.3) << hip;  // hot stars
        }
    }
    const auto warning = [](const std::string& text) { return Scene::Parse(text, nullptr)->Warning({ 1936, 1096, 2.9 }); };
    EXPECT_EQ(warning("sky"), "");
    EXPECT_EQ(warning("sky:0.25,0.25,150"), "");
    const std::string starless = warning("sky:0.25,0.25,3000");
    double magnitude = 0, away = 0, ra = 0, dec = 0, focal = 0;
    ASSERT_EQ(std::sscanf(starless.c_str(),
                          "%*[^T]The nearest, of magnitude %lf, is %lf degrees away: take sky:%lf,%lf,%*f, or a "
                          "focal length of %lf",
                          &magnitude, &away, &ra, &dec, &focal),
              5)
        << starless;
    EXPECT_NEAR(away, std::acos(dot(dir(0.25, 0.25), dir(ra, dec))) * 180 / M_PI, 0.006);
    EXPECT_EQ(warning("sky:" + std::to_string(ra) + "," + std::to_string(dec) + ",3000"), "");
    EXPECT_EQ(warning("sky:0.25,0.25," + std::to_string(focal)), "");
    EXPECT_NE(warning("sky:0.25,0.25," + std::to_string(focal + 1)), "");
    EXPECT_NEAR(find(21421).dRa, 68.98, 0.01);  // Aldebaran
    EXPECT_GT(Stars().size(), 4000u);
}

TEST(VirtualScenes, TextFormsAndPictures)
{
    std::string error;
    for (const char* good : { "sky", "sky:84,0", "sky:84,-5.4,400", "flat:100", "colour:1,2,3", "dark", "pattern" }) {
        EXPECT_NE(Scene::Parse(good, &error), nullptr) << good << error;
    }
    for (const char* bad : { "", "moon", "flat", "flat:x", "flat:5z", "sky:1", "sky:1,99", "colour:1,2", "none.png" }) {
        error.clear();
        EXPECT_EQ(Scene::Parse(bad, &error), nullptr) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
    // Two pixels, red and blue.
    static const unsigned char png[] = { 0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x48,
                                         0x44, 0x52, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x08, 0x02, 0x00, 0x00,
                                         0x00, 0x7B, 0x40, 0xE8, 0xDD, 0x00, 0x00, 0x00, 0x0D, 0x49, 0x44, 0x41, 0x54, 0x78,
                                         0x9C, 0x63, 0xF8, 0xCF, 0x00, 0x04, 0xFF, 0x01, 0x07, 0x00, 0x01, 0xFF, 0xE2, 0x23,
                                         0x9E, 0x59, 0x00, 0x00, 0x00, 0x00, 0x49, 0x45, 0x4E, 0x44, 0xAE, 0x42, 0x60, 0x82 };
    const std::string path = testing::TempDir() + "kov_scene.png";
    for (size_t size : { sizeof png, size_t(40) }) {
        std::FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fwrite(png, 1, size, f);
        std::fclose(f);
        const auto scene = Scene::Picture(path, 1000, &error);
        if (size < sizeof png) {
            EXPECT_EQ(scene, nullptr);
            break;
        }
        ASSERT_NE(scene, nullptr) << error;
        Light light[4 * 2];
        scene->Render({ 4, 2, 3, 0, 0 }, 0, 2, light);  // stretched
        EXPECT_NEAR(light[1].r, 1000, 0.1);
        EXPECT_NEAR(light[1].b, 0, 0.1);
        EXPECT_NEAR(light[6].b, 1000, 0.1);
    }
    std::remove(path.c_str());
}

TEST(VirtualPhysics, TellsOnceThatTheMachineIsTooSlow)
{
    struct Slow final : Scene {
        void Render(const ScreenGeometry& g, int, int rows, Light* out) const override
        {
            std::this_thread::sleep_for(std::chrono::milliseconds(700));
            std::fill_n(out, g.iWidth * rows, Light{});
        }
    };
    for (const bool slow : { true, false }) {
        auto settings = fake::Settings(fake::Facts());
        if (slow)
            settings.scene = std::make_shared<Slow>();
        std::atomic<int> told = 0;
        settings.onSlow = [&](const ModelFacts&, double rate, double asked) {
            ++told;
            EXPECT_LT(rate, 0.9 * asked);
        };
        // A frame of the quick one takes 400 ms: even a busy machine is seldom later than that.
        Host h(settings, slow ? 1 : 0.025);
        h.Start();
        for (int i = 0; i < 3; ++i)
            h.Frame(1);
        h.camera.SetScene(slow ? std::make_shared<Slow>() : Scene::Pattern());  // not the sky: its stars take their time
        for (int i = 0; i < (slow ? 10 : 2); ++i)
            h.Frame(1);
        // An exposure that is held from the stream's begin, and by far longer than a frame, is not late.
        h.Stop();
        h.Set(fake::HELD, 1);
        h.Start();
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        h.Set(fake::HELD, 0);
        for (int i = 0; i < 2; ++i)
            h.Frame(1);
        EXPECT_EQ(told, slow ? 1 : 0);
    }
}
