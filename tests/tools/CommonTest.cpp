// What tools, drivers and servers share, on made-up frames and on virtual cameras.
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "common/FitsHeader.h"
#include "common/FrameClock.h"
#include "common/Measure.h"
#include "common/Stretch.h"
#include "common/Text.h"
#include "support/TempStore.h"
#include "virtual/InProcess.h"

using namespace kovtools;

TEST(Text, DurationsCarryTheirUnitAndAnglesTheirKind)
{
    struct {
        const char* text;
        int64_t us;
    } const good[] = { { "500us", 500 }, { "2.5s", 2500000 }, { "1 ms", 1000 }, { "2m", 120000000 } };
    for (const auto& g : good)
        EXPECT_EQ(ParseDuration(g.text).count(), g.us) << g.text;
    for (const char* bad : { "1", "", "s", "-1s", "1e30s", "nan s", "10lightyears" })
        EXPECT_THROW(ParseDuration(bad), std::invalid_argument) << bad;
    EXPECT_NEAR(ParseAngle("05:35:17.3", true), 83.822083, 1e-6);
    EXPECT_NEAR(ParseAngle("-00 23 28", false), -0.391111, 1e-6);
    EXPECT_DOUBLE_EQ(ParseAngle("83.5", true), 83.5);
    for (const char* bad : { "91", "12:60", "12:", "", "1:2:3:4", "x" })
        EXPECT_THROW(ParseAngle(bad, false), std::invalid_argument) << bad;
    for (const char* bad : { "NAXIS=1", "BZERO=0", "TOOLONGKEY=1", "=1", "A B=1", "KEY" })
        EXPECT_THROW(ParseFitsCard(bad), std::invalid_argument) << bad;
    EXPECT_EQ(std::get<int64_t>(ParseFitsCard("a=12").value), 12);
    EXPECT_EQ(std::get<std::string>(ParseFitsCard("A=12x").value), "12x");
}

namespace {

struct Level {
    double mean, variance;
};

// Mean and noise of a flat field: from the difference of two frames, so that the pattern of the sensor drops out.
Level MeasureLevel(int id, int exposureUs, std::vector<uint8_t> (&frames)[2], const CameraState& state)
{
    EXPECT_EQ(KOVSetControlValue(id, CTRL_EXPOSURE, exposureUs, KOV_FALSE), KOV_SUCCESS);
    EXPECT_EQ(KOVStartVideoCapture(id), KOV_SUCCESS);
    for (int i = 0; i < 4; ++i) {  // the first ones may still have the exposure of before
        std::vector<uint8_t>& f = frames[i & 1];
        EXPECT_EQ(KOVGetVideoData(id, f.data(), static_cast<int32_t>(f.size()), 20000), KOV_SUCCESS);
    }
    KOVStopVideoCapture(id);
    const FrameView a{ frames[0].data(), state.width, state.height, state.type },
        b{ frames[1].data(), state.width, state.height, state.type };
    double sum = 0, difference = 0, squares = 0;
    for (size_t i = 0; i < a.Samples(); ++i) {
        const double d = a.At(i) - b.At(i);
        sum += a.At(i) + b.At(i);
        difference += d;
        squares += d * d;
    }
    const auto n = static_cast<double>(a.Samples());
    return { sum / n / 2, (squares / n - difference * difference / n / n) / 2 };
}

}  // namespace

// EGAIN is what a photon-transfer measurement finds.
TEST(Frame, ElectronsPerSampleByPhotonTransfer)
{
    const TempStore store;
    struct {
        const char* model;
        int gain;
        IMG_TYPE type;
        int bin;
    } const rows[] = {
        { "QuartzMono", 0, IMG_RAW16, 1 },   { "QuartzMono", 100, IMG_RAW16, 1 },  { "QuartzMono", 100, IMG_RAW8, 1 },
        { "MarbleMono", 0, IMG_RAW16, 1 },   { "MarbleMono", 85, IMG_RAW16, 1 },   { "MarbleMono", 0, IMG_RAW8, 2 },
        { "GarnetMono_S", 0, IMG_RAW16, 1 }, { "GarnetMono_S", 20, IMG_RAW16, 1 }, { "LapisMono", 60, IMG_RAW16, 2 },
        { "KyaniteMono", 50, IMG_RAW16, 1 },
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.model << " gain " << row.gain << " type " << row.type << " bin " << row.bin);
        char error[256];
        ASSERT_EQ(KOVSimAttach((std::string(row.model) + ";scene=flat:100000;hot=0").c_str(), error, sizeof error), 0) << error;
        ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
        ASSERT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
        ASSERT_EQ(KOVSetROIFormat(0, 480, 320, row.bin, row.type), KOV_SUCCESS);
        if (row.bin > 1)
            KOVSetControlValue(0, CTRL_HARDWARE_BIN, 0, KOV_FALSE);
        EXPECT_EQ(KOVSetControlValue(0, CTRL_GAIN, row.gain, KOV_FALSE), KOV_SUCCESS);
        const CameraState state = ReadCameraState(0);
        std::vector<uint8_t> frames[2];
        for (auto& f : frames)
            f.resize(FrameView{ nullptr, state.width, state.height, state.type }.Bytes());
        const Level dim = MeasureLevel(0, 5000, frames, state), bright = MeasureLevel(0, 25000, frames, state);
        ASSERT_TRUE(ElectronsPerSample(state));
        const double found = (bright.mean - dim.mean) / (bright.variance - dim.variance);
        EXPECT_NEAR(*ElectronsPerSample(state) / found, 1, 0.04) << found << " by photon transfer";
        KOVCloseCamera(0);
        KOVSimDetach();
    }
}

TEST(Measure, StarsAreFoundWhereTheyAreAndAsWideAsTheyAre)
{
    constexpr int W = 400, H = 300;
    constexpr double SIGMA = 2.0;
    struct {
        double x, y, flux;
    } const stars[] = { { 50.3, 60.7, 90000 }, { 200.0, 150.0, 30000 }, { 330.5, 220.2, 12000 }, { 120, 250, 6000 } };
    std::mt19937 random(5);
    std::normal_distribution<double> noise(0, 12);
    std::vector<uint8_t> data(2 * W * H);
    const auto put = [&](int x, int y, double v) {
        const size_t i = 2 * static_cast<size_t>(y * W + x);
        const int n = static_cast<int>(std::clamp(v, 0.0, 65535.0));
        data[i] = static_cast<uint8_t>(n);
        data[i + 1] = static_cast<uint8_t>(n >> 8);
    };
    for (int y = 0; y < H; ++y)
        for (int x = 0; x < W; ++x) {
            double v = 1000 + 0.5 * x + noise(random);  // a gradient, as of the moon
            for (const auto& s : stars)
                v += s.flux / (2 * M_PI * SIGMA * SIGMA) *
                     std::exp(-(std::pow(x - s.x, 2) + std::pow(y - s.y, 2)) / (2 * SIGMA * SIGMA));
            put(x, y, v);
        }
    put(300, 50, 30000);                // a hot pixel
    for (const int i : { 0, 1, 2, 3 })  // light at the edge of the brightest star, not another one
        put(59 + i % 2, 60 + i / 2, 1200 + (i == 0));
    CameraState state;
    state.width = W;
    state.height = H;
    state.type = IMG_RAW16;
    const StarField field = MeasureStars({ data.data(), W, H, IMG_RAW16 }, state);
    ASSERT_EQ(field.stars.size(), std::size(stars));
    for (size_t i = 0; i < std::size(stars); ++i) {
        EXPECT_NEAR(field.stars[i].x, stars[i].x, 0.25) << i;
        EXPECT_NEAR(field.stars[i].y, stars[i].y, 0.25) << i;
        EXPECT_NEAR(field.stars[i].flux / stars[i].flux, 1, 0.1) << i;
    }
    EXPECT_NEAR(field.hfr, 1.1774 * SIGMA, 0.2);  // half of a Gaussian's light
    EXPECT_NEAR(field.background, 1100, 15);
}

TEST(FrameClock, StampsFollowTheCameraNotTheReader)
{
    using namespace std::chrono;
    FrameClock clock;
    const auto zero = steady_clock::now();
    // 30 ms a frame; a reader that is late, now and then for several frames, and four frames that were dropped.
    for (int i = 0, number = 0; i < 100; ++i, ++number) {
        const int dropped = i < 60 ? 0 : 4;
        const double late = i % 10 == 7 ? 55 : i % 10 == 8 ? 27 : (i * 37 % 11) * 0.8;
        clock.Add(zero + microseconds(static_cast<int64_t>(1000 * (30.0 * (i + dropped) + late))), dropped, 0.02);
    }
    const auto starts = clock.Starts();
    ASSERT_EQ(starts.size(), 100u);
    for (size_t i = 1; i < starts.size(); ++i)
        EXPECT_NEAR(duration<double>(starts[i] - starts[i - 1]).count(), i == 60 ? 0.150 : 0.030, 0.0005) << i;
}

// The sky of a star field comes out dark and its stars bright; a moon that fills the frame keeps its tones.
TEST(Stretch, ShowsBothAStarFieldAndAMoon)
{
    std::vector<uint32_t> sky(65536), moon(65536);
    for (int i = -200; i <= 200; ++i)
        sky[static_cast<size_t>(1000 + i)] = static_cast<uint32_t>(1e5 * std::exp(-i * i / 5000.0));
    for (size_t i = 1500; i < 40000; i += 50)
        sky[i] += 2;
    for (size_t i = 12000; i < 52000; ++i)
        moon[i] = 50;
    const auto s = MakeCurve(sky, Stretch::Auto), m = MakeCurve(moon, Stretch::Auto);
    EXPECT_GT(s[1000], 15);
    EXPECT_LT(s[1000], 60);
    EXPECT_GT(s[3000], 120);
    EXPECT_NEAR(m[32000], 128, 30);
    EXPECT_GT(m[45000] - m[20000], 100);
}
