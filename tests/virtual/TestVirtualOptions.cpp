// The text of KOVSIM, and the entry that a preloaded library offers.
#include <gtest/gtest.h>

#include <cstdlib>

#include "virtual/Profile.h"
#include "virtual/SimOptions.h"

using namespace kovsim;

TEST(VirtualOptions, CamerasWithTheirSettings)
{
    SimOptions o;
    std::string error;
    ASSERT_TRUE(
        ParseSimOptions("quartzcol,QuartzMono;scene=flat:9;rate=2.5;seed=7;usb2;firmware=17;flash=/x;noise=0", &o, &error))
        << error;
    ASSERT_EQ(o.cameras.size(), 2u);
    EXPECT_EQ(o.dRate, 2.5);
    EXPECT_NE(o.cameras[0].wProductId, o.cameras[1].wProductId);
    EXPECT_EQ(o.cameras[0].uSeed, 7u);
    EXPECT_EQ(o.cameras[1].uSeed, 8u);
    EXPECT_EQ(o.cameras[1].sFlashFile, "/x.2");
    EXPECT_EQ(o.cameras[1].iFirmware, 17);
    EXPECT_EQ(o.cameras[1].dNoise, 0);
    EXPECT_FALSE(o.cameras[0].bUSB3Host);
    EXPECT_NE(o.cameras[0].scene, nullptr);
}

TEST(VirtualOptions, MistakesNameWhatWouldDo)
{
    for (const char* bad : { "", "Nikon", "QuartzCol;", "QuartzCol;rate=x", "QuartzCol;firmware=300", "QuartzCol;scene=moon",
                             "QuartzCol;usb2=1", "QuartzCol;seed=" }) {
        SimOptions o;
        std::string error;
        const bool ok = ParseSimOptions(bad, &o, &error);
        if (std::string(bad) == "QuartzCol;") {
            EXPECT_TRUE(ok);
            continue;
        }
        EXPECT_FALSE(ok) << bad;
        EXPECT_TRUE(o.cameras.empty());
        EXPECT_NE(error.find("KyaniteCol_C"), std::string::npos) << error;
        EXPECT_NE(error.find("scene="), std::string::npos);
    }
}

TEST(VirtualOptions, EveryTokenPlugsACamera)
{
    int count = 0;
    const ModelFacts* models = AllModels(&count);
    EXPECT_EQ(count, 44);
    for (int i = 0; i < count; ++i) {
        const ModelFacts& m = models[i];
        SCOPED_TRACE(m.sToken);
        EXPECT_TRUE(i == 0 || m.wProductId > models[i - 1].wProductId);
        const auto p = MakeProfile(m.wProductId, 20, true);
        ASSERT_NE(p, nullptr);
        p->PowerOn();
        p->Command(169);
        p->Command(175);
        // Fresh from power on nothing gives a picture, and yet the read-out has a size that can be worked with.
        const Readout r = p->Current();
        EXPECT_FALSE(r.bStreaming && r.bValid);
        EXPECT_GE(r.iOutW, 1);
        EXPECT_LE(r.iX + r.iW, m.iWidth);
        SimOptions o;
        std::string error;
        ASSERT_TRUE(ParseSimOptions(m.sToken + ";scene=dark;hot=0", &o, &error)) << error;
        VirtualBus bus;
        bus.Plug(o.cameras.at(0));
        const auto list = bus.Enumerate();
        ASSERT_EQ(list.size(), 1u);
        EXPECT_EQ(list[0].productId, m.wProductId);
    }
    EXPECT_EQ(MakeProfile(0xC000, 20, true), nullptr);
}
