// Register sequences worked out by hand against what the sensors are to make of them, and wrong ones against a wrong
// picture. Regions, depths and bins as the driver writes them are looked at in tests/device.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "virtual/Profile.h"

namespace {

using namespace kovsim;

// A camera under test and its host. Scripts hold one write a word: "3001=1" a sensor register (hexadecimal), "f16=90" an
// FPGA register (decimal), "c175" a command. "3020=3A4/2" writes 2 byte registers, low byte first; "f4=1936/2" likewise.
struct Device {
    std::unique_ptr<Profile> p;
    bool bWords;

    Device(uint16_t id, bool bWords, uint8_t bFirmware = 20) : p(MakeProfile(id, bFirmware, true)), bWords(bWords)
    {
        p->PowerOn();
    }

    Device& Do(const std::string& sScript)
    {
        std::istringstream in(sScript);
        for (std::string word; in >> word;) {
            if (word[0] == 'c') {
                p->Command(static_cast<uint8_t>(std::stoi(word.substr(1))));
                continue;
            }
            const bool bFpga = word[0] == 'f';
            const int base = bFpga ? 10 : 16;
            const size_t equals = word.find('='), slash = word.find('/');
            auto reg = static_cast<uint16_t>(std::stoi(word.substr(bFpga, equals - bFpga), nullptr, base));
            auto value = static_cast<uint32_t>(std::stol(word.substr(equals + 1, slash - equals - 1), nullptr, base));
            const int bytes = slash == std::string::npos ? 0 : std::stoi(word.substr(slash + 1));
            for (int i = 0; i < std::max(bytes, 1); ++i, ++reg, value >>= 8) {
                const auto v = static_cast<uint16_t>(bytes != 0 ? value & 0xFF : value);
                if (bFpga)
                    p->WriteFpga(reg, v);
                else if (bWords)
                    EXPECT_TRUE(p->WriteReg16(reg, v)) << word;
                else
                    EXPECT_TRUE(p->WriteReg8(reg, static_cast<uint8_t>(v))) << word;
            }
        }
        return *this;
    }
    Readout Now() const { return p->Current(); }
    bool Valid(const std::string& sScript) { return Do(sScript).Now().bValid; }
    bool Streams(const std::string& sScript) { return Do(sScript).Now().bStreaming; }
};

double Db(double gain) { return 20 * std::log10(gain); }

const std::string g_FpgaInit = "f0=48 f10=1 f1=1 f12=128 f13=128 f14=128 f15=128 f1=0 ";
const std::string g_SonyStart = "c169 3000=0 f0=33 ";
// 1936 x 1096 in 8 bits; line 1021 at 18562 kHz; 10 ms are 181 lines, so the shutter opens at 1114 - 181 - 1; gain 200.
const std::string g_Quartz =
    "3003=1 305C=20 305D=0 305E=20 305F=0 3046=F1 3005=1 303A=8 3007=40 f0=0 c175 3002=1 304B=0 " + g_FpgaInit +
    "3001=1 3040=0/2 303C=0/2 3001=0 3046=F1 3005=1 f10=1 3129=0 317C=0 31EC=E f1=1 3006=0 f2=0 f6=9 3042=790/2 303E=448/2 "
    "f4=1936/2 f8=1096/2 f1=0 3009=11 f1=1 f19=1021/2 f1=0 3001=1 f1=1 f16=1114/3 f1=0 3020=3A4/3 3001=0 3014=2E 300A=1/2 " +
    g_SonyStart;
const std::string g_Onyx =
    "3003=1 305C=20 305D=0 305E=20 305F=0 3044=E1 3005=1 3036=8 3007=40 f0=0 c175 3002=1 3049=0 " + g_FpgaInit +
    "303C=0/2 3038=0/2 303E=518/2 303A=3D0/2 f2=4 f6=9 3006=0 f4=1304/2 f8=976/2 f10=1 3009=11 f19=292/2 f16=994/3 3020=0/3 "
    "3014=8C/2 " +
    g_SonyStart;
const std::string g_Nephrite =
    "3003=1 305E=20 3063=74 3044=E1 3005=1 3036=C 3007=40 f0=0 c175 3002=1 3049=0 " + g_FpgaInit +
    "3044=61 303E=798/2 303A=4C8/2 f2=4 f6=9 f4=1944/2 f8=1224/2 3009=1 f19=138/2 f16=1245/3 3020=2/3 3014=42 " + g_SonyStart;
const std::string g_Jasper =
    "3003=1 3044=61 3005=1 f0=0 f1=1 f10=1 f12=128 f13=128 f14=128 f15=128 3007=40 f1=1 f10=0 3001=1 303C=0/2 3038=0/2 3001=0 "
    "3006=0 f2=4 f6=13 303E=798/2 303A=4C8/2 f4=1944/2 f8=1224/2 3009=1 3001=1 301B=1130/2 3018=4DD/3 3020=38C/3 3014=C8/2 "
    "3001=0 c169 3000=0 3002=0 3049=A ";
const std::string g_Marble =
    "3009=1 3059=0 300D=0 3004=0 31A4=1 31A5=1 f0=0 c175 3008=1 305E=0 " + g_FpgaInit +
    "300D=2 3059=2 f10=1 300E=0 3010=0 f2=0 f6=15 31A2=820/2 319E=C18/2 f4=3096/2 f8=2080/2 3101=30 f19=420/2 3007=1 "
    "f16=2125/3 3034=5CB/3 3041=0 3042=0 301B=1E 301F=B4/2 3007=0 3015=A/2 c169 3000=6 3000=0 f0=33 ";
const std::string g_LapisFull =
    "200=1 21C=0 214=0 300=3 213=0 21C=11 214=1 2BC=10 2BF=20 2C0=2 2C6=3 2D2=F 412=20 413=20 41A=8 568=11 575=F "
    "20C=1 301=0/2 303=0/2 20C=0 217=4E6/2 307=4C0/2 305=790/2 221=0 292=20 294=20 ";
const std::string g_Lapis18 =
    g_LapisFull +
    "f0=0 212=1 22E=0 f1=1 f0=48 f10=1 f12=128 f13=128 f14=128 f15=128 f1=0 c174 f1=1 f2=0 f3=0 f6=11 f7=0 f4=1936/2 f8=1216/2 "
    "f19=500/2 f1=0 20C=1 f1=1 f16=1254/3 f1=0 22A=0 29A=201/2 404=C8/2 20C=0 459=0 458=F0 c169 200=0 f0=33 ";
const std::string g_Lapis17 =
    g_LapisFull +
    "f0=0 f1=1 f10=1 f12=128 f13=128 f14=128 f15=128 c174 f1=1 f10=0 20C=1 21A=1CE/2 20C=0 20C=1 217=4E6/2 22A=0 29A=A/2 404=0/2 "
    "20C=0 c169 200=0 212=0 22E=A ";
const std::string g_Wake = "11=3C43 0=73 5F=D 61=0 0=173 ";
const std::string g_KyaniteInit = "A=1 1=2C 2=3 3=7E9 f0=0 f0=48 f10=1 f1=1 0=73 f10=1 f2=60 f6=13 f1=0 11=3C40 0=0 " + g_Wake +
                                  "118=DEF 11E=DEF 11C=DF0 109=E87 f4=4656/2 f8=3520/2 f1=1 f19=680/2 f1=0 11=3C40 0=0 ";
const std::string g_KyaniteFrame = "f1=1 f16=3720/3 f1=0 57=C67 52=1D5 54=100 1CC=1 f1=1 f2=60/2 1DC=20 1DD=DE4 f1=0 ";
const std::string g_Kyanite = g_KyaniteInit + g_Wake + g_KyaniteFrame + "c169 f0=33 ";
const std::string g_Kyanite2 =
    g_Kyanite + "f0=49 f1=1 0=73 f2=60 f6=8 f10=16 f1=0 0=173 f4=2328/2 f8=1760/2 f19=397/2 f16=1960/3 57=1 f0=35 ";
const std::string g_Ebony =
    "201=22 f0=0 f0=49 f10=1 f1=1 f2=8/2 208=3A/2 f6=1 f4=4944/2 f8=3284/2 20A=CD8/2 f19=585/2 f16=3302/3 f1=0 206=B8C/2 f12=4 "
    "230=E65/2 22C=EA90/2 232=E65/2 22E=E65/2 21F=64/2 c169 200=4 f0=33 ";
const std::string g_Beryl =
    "8=99 9=9 A=999 f0=0 f0=16 f10=1 f1=1 f12=128 f13=128 f14=128 f15=128 f1=0 100=5200 101=0 102=1E0 f1=1 f2=0 f6=0 f4=640/2 "
    "f8=480/2 f1=0 C9=2D0 CC=23 CD=100 80=1 c169 f0=1 ";
const std::string g_GarnetFrame = "3002=2 3004=0 3006=3C1 3008=4FF 300A=3DA 300C=672 3012=3E7 301E=A0 ";
// 999 lines of exposure stretch the 986 of the frame.
const std::string g_Garnet =
    "c164 c171 c170 301A=1 3088=8000 301A=10D8 302C=1 302A=8 302E=3 3030=19 " + g_GarnetFrame + "c175 c169 301A=10DC ";
const std::string g_GarnetS = "301A=1 3088=8000 302C=1 302A=4 302E=6 3030=53 " + g_GarnetFrame + "c169 301A=10DC ";
const std::string g_Dunite = "AF=0 9A=2F0 A0=1E0 2C=0 D=320 2=4 1=1 3=1E0 4=2F0 5=3D C=1 B=64 c169 ";
const std::string g_Agate = "AF=0 9A=2F0 A0=1E0 2C=0 D=320 2=4 1=1 3=1E0 4=280 5=5E C=1 B=64 c169 70=0 c163 ";
const std::string g_Iolite = "29=0 3F=3 40=6 4A=60 4E=C 62=499 60=0 61=0 63=0 64=0 1=C 2=14 3=3FF 4=4FF B=1 9=64 c164 c169 ";

// A full frame that the sensor makes sense of. Each word of `stops` ends the stream, each of `wrong` the picture: sizes that
// differ between sensor and FPGA, formats, half of a binning mode, windows off the sensor, timing, bring-up.
struct Script {
    const char* szName;
    uint16_t id;
    bool bWords;
    uint8_t bFirmware;
    std::string sScript;
    int w, h, bin;
    double dFrameUs, dExposureUs, dDb;
    std::vector<std::string> stops, wrong;
    friend void PrintTo(const Script& s, std::ostream* p) { *p << s.szName; }
};
// clang-format off
const Script g_Scripts[] = {
    { "Quartz", 0xC11A, false, 20, g_Quartz, 1936, 1096, 1, 1114 * 1021 / 18.562, 181 * 1021 / 18.562, 46 * 0.3 + 6,
      { "3000=1", "c174", "c170", "f0=49", "f0=241", "f0=48", "f0=0" },
      { "f4=1932/2", "f8=1094/2", "3042=78C/2", "303E=446/2", "f10=17 3005=0", "f10=0", "f10=2", "3046=F0", "3006=22", "3006=1",
        "3040=4/2", "f2=4", "f6=5", "f6=13", "f16=1113/3", "3020=459/3", "f19=202/2", "3009=13", "3003=0", "305C=C", "3007=0",
        "304B=A", "3002=0", "3046=F0 3005=0 f10=0", "3046=F0 3005=0 f10=0 3129=1D 317C=12 31EC=37 3009=10 f19=195/2" } },
    // Ten bits: converter, output and clock change together, and the same line takes half the time.
    { "QuartzFast", 0xC11A, false, 20, g_Quartz + "3046=F0 3005=0 f10=0 3129=1D 317C=12 31EC=37 3009=10 ", 1936, 1096, 1,
      1114 * 1021 / 37.124, 181 * 1021 / 37.124, 46 * 0.3 + 6, {}, { "3129=0" } },
    { "QuartzBin2", 0xC11A, false, 20, g_Quartz + "3005=0 3006=22 f4=968/2 f8=548/2 3009=0 f19=145/2 f16=566/3 3020=2/3 ",
      1936, 1096, 2, 566 * 145 / 9.281, 563 * 145 / 9.281, 46 * 0.3, {}, {} },
    { "Onyx", 0xC0FA, false, 20, g_Onyx, 1304, 976, 1, 994 * 292 / 18.562, 993 * 292 / 18.562, 20, {}, { "f6=5" } },
    { "Pyrite", 0xC10A, false, 20, g_Onyx, 1304, 976, 1, 994 * 292 / 18.562, 993 * 292 / 18.562, 14, {}, {} },  // no high-gain bit
    { "OnyxBin2", 0xC0FA, false, 20, g_Onyx + "3006=22 f2=2 f6=5 3005=0 f4=652/2 f8=488/2 3009=10 f19=145/2 ", 1304, 976, 2,
      994 * 145 / 9.281, 993 * 145 / 9.281, 20, {}, { "f6=9" } },
    { "Nephrite", 0xC0EA, false, 20, g_Nephrite, 1944, 1224, 1, 1245 * 138 / 9.280, 1242 * 138 / 9.280, 19.8, {}, {} },
    // FPGA 1 is the format and no hold; binned windows carry 4 columns more.
    { "Jasper", 0xC0AA, false, 20, g_Jasper, 1944, 1224, 1, 1245 * 4400 / 148.5, 337 * 4400 / 148.5 + 3.85, 20,
      { "3049=0", "3002=1" }, { "f1=5" } },
    { "JasperFast", 0xC0AA, false, 20, g_Jasper + "f1=0 f10=0 3044=60 3005=0 3009=0 301B=44C/2 ", 1944, 1224, 1,
      1245 * 1100 / 148.5, 337 * 1100 / 148.5 + 2.64, 20, {}, {} },
    { "Marble", 0xC0DA, false, 20, g_Marble, 3096, 2080, 1, 2125 * 420 / 27.0, 642 * 420 / 27.0 + 0.36, 21,
      { "3000=6" }, { "300E=23" } },
    { "MarbleBin2", 0xC0DA, false, 20, g_Marble + "300E=23 3010=1 300D=9 f6=11 f4=1548/2 f8=1040/2 3101=32 f19=73/2 ", 3096, 2080, 2,
      2125 * 73 / 6.75, 642 * 73 / 6.75 + 0.36, 21, {}, { "3101=30" } },
    // On its own clock: the bridge's is stopped. Then with the shutter pulses of a frame that is 100 ms longer than the window.
    { "Lapis18", 0xC0CA, false, 20, g_Lapis18, 1936, 1216, 1, 1254 * 500 / 37.125, 741 * 500 / 37.125 + 13.73, 20, {}, { "568=22" } },
    { "Lapis18Pulses", 0xC0CA, false, 20,
      g_Lapis18 + "f16=20010/3 29A=A/2 244=4E6/3 247=4E18/3 24A=4E6/3 24D=4E18/3 25C=FF 22A=1 ", 1936, 1216, 1,
      20010 * 500 / 37.125, 20000 * 500 / 37.125 + 13.73, 20, {}, { "24A=4E7/3" } },
    { "Lapis17", 0xC0CE, false, 17, g_Lapis17, 1936, 1216, 1, 1254 * 462 / 74.25, 1244 * 462 / 74.25 + 13.73, 0, { "22E=0" }, {} },
    { "Lapis17Slow", 0xC0CE, false, 17, g_Lapis17 + "292=5 294=5 20C=1 21A=800/2 20C=0 f11=1 ", 1936, 1216, 1,
      1254 * 2048 / 13.92, 1244 * 2048 / 13.92 + 13.73, 0, {}, { "294=20", "f1=17 f10=0" } },
    { "Kyanite", 0xC0B0, true, 20, g_Kyanite, 4656, 3520, 1, 3720 * 680 / 37.125, 545 * 680 / 37.125, 19.97, { "f0=49" }, {} },
    { "KyaniteBin2", 0xC0B0, true, 20, g_Kyanite2, 4656, 3520, 2, 1960 * 397 / 37.125, 1959 * 397 / 37.125, 19.97, {},
      { "f0=33", "f10=17", "f6=13", "f8=1758/2", "f19=396/2", "f2=0", "1DC=22", "f16=1959/3" } },
    { "Ebony", 0xC05A, false, 20, g_Ebony, 4944, 3284, 1, 3302 * 585 / 20.25, 346 * 585 / 20.25, 20, { "200=1" },
      { "f2=0", "208=0/2", "208=34/2", "20A=CD4/2", "200=24", "f10=16", "f6=4", "f19=584/2" } },
    { "Beryl", 0xC02A, true, 20, g_Beryl, 640, 480, 1, 0, 10000, Db(4), { "f0=17", "f0=16" }, { "102=160" } },
    { "BerylBin2", 0xC02A, true, 20, g_Beryl + "102=E000 f2=2 f6=5 f4=320/2 f8=240/2 ", 640, 480, 2, 0, 10000, Db(4), {}, { "102=F0" } },
    { "Garnet", 0xC07B, true, 20, g_Garnet, 1280, 960, 1, 1000 * 1650 / 50.0, (999 * 1650 + 26) / 50.0, 0, { "301A=10D8" },
      { "300A=3D9", "300C=56D", "3002=0", "3012=0", "3008=500" } },
    { "GarnetSlow", 0xC07B, true, 20, g_Garnet + "30B0=5330 c163 ", 1280, 960, 1, 1000 * 1650 / 24.0, (999 * 1650 + 26) / 24.0,
      Db(8), {}, {} },
    { "GarnetS", 0xC07E, true, 20, g_GarnetS, 1280, 960, 1, 1000 * 1650 / 83.0, (999 * 1650 + 26) / 83.0, 0, {}, { "c172" } },
    { "Dunite", 0xC04B, true, 20, g_Dunite, 752, 480, 1, 0, (100 * 813 + 4) / 30.0, 0, {}, { "5=3C", "AF=3", "D=300", "B=0" } },
    { "DuniteFast", 0xC04B, true, 20, g_Dunite + "c164 ", 752, 480, 1, 525 * 813 / 48.0, (100 * 813 + 4) / 48.0, 0, {}, {} },
    { "Agate", 0xC01A, true, 20, g_Agate, 640, 480, 1, 0, (100 * 734 + 4) / 24.0, 0, {}, { "70=3" } },  // row noise correction on
    { "Iolite", 0xC09A, true, 20, g_Iolite, 1280, 1024, 1, 0, (100 * 1524 - 180) / 48.0, 0, {}, { "c172" } },  // slow clock only
};
// clang-format on

class ProfileTest : public testing::TestWithParam<Script> {
protected:
    Device Fresh() const
    {
        return std::move(Device(GetParam().id, GetParam().bWords, GetParam().bFirmware).Do(GetParam().sScript));
    }
};

TEST_P(ProfileTest, SetupAndWhatSpoilsIt)
{
    const Script& s = GetParam();
    const Readout r = Fresh().Now();
    ASSERT_TRUE(r.bValid) << r.sWhy;
    EXPECT_TRUE(r.bStreaming);
    EXPECT_FALSE(r.bHeld);
    EXPECT_EQ((std::vector{ r.iX, r.iY, r.iW, r.iH, r.iBin, r.iOutW, r.iOutH }),
              (std::vector{ 0, 0, s.w, s.h, s.bin, s.w / s.bin, s.h / s.bin }));
    if (s.dFrameUs != 0) {
        EXPECT_NEAR(r.dFrameUs, s.dFrameUs, 1);
    }
    EXPECT_NEAR(r.dExposureUs, s.dExposureUs, 0.2);
    EXPECT_NEAR(Db(r.dGain), s.dDb, 0.05);
    for (const std::string& sStop : s.stops)
        EXPECT_FALSE(Fresh().Streams(sStop)) << sStop;
    for (const std::string& sWrong : s.wrong) {
        const Readout w = Fresh().Do(sWrong).Now();
        EXPECT_FALSE(w.bValid) << sWrong;
        EXPECT_FALSE(w.sWhy.empty()) << sWrong;
    }
}
INSTANTIATE_TEST_SUITE_P(All, ProfileTest, testing::ValuesIn(g_Scripts), [](const auto& info) { return info.param.szName; });

Device Quartz() { return std::move(Device(0xC11A, false).Do(g_Quartz)); }

TEST(ProfileQuartz, ShiftsColoursAndGate)
{
    // A constant of another mode with room around the window: the picture is shifted instead.
    const Readout r = Quartz().Do("3040=8/2 303C=8/2 3042=780/2 303E=430/2 f4=1920/2 f8=1072/2 f6=5 f2=4").Now();
    EXPECT_TRUE(r.bValid) << r.sWhy;
    EXPECT_EQ(r.iX, 12);
    EXPECT_EQ(r.iY, 4);
    Device d = Quartz();
    d.Do("f1=1 f12=133 f15=243 f1=0 f10=17");
    EXPECT_NEAR(d.Now().dGainR, 133 / 128.0, 1e-9);
    EXPECT_NEAR(d.Now().dGainB, 243 / 128.0, 1e-9);
    EXPECT_EQ(d.Now().samples, Samples::Bits16);
    // The gate holds the read-out while the sensor runs on.
    EXPECT_TRUE(d.Do("f11=1").Now().bHeld && d.Now().bStreaming);
    EXPECT_FALSE(d.Do("f11=0").Now().bHeld);
    EXPECT_TRUE(d.Streams("f0=225") && d.Streams("f0=161"));
    EXPECT_FALSE(d.p->WriteReg16(0x3014, 1)) << "byte registers do not answer the word requests";
}

TEST(ProfileQuartz, HoldsMakeGroupsOfWrites)
{
    Device d = Quartz();
    const Readout before = d.Now();
    d.Do("3001=1 3020=0/3 3014=0");
    EXPECT_EQ(d.p->ReadReg8(0x3014), 0);  // reads back what was written
    EXPECT_EQ(d.Now().dExposureUs, before.dExposureUs);
    EXPECT_EQ(d.Now().dGain, before.dGain);
    d.Do("3001=0");
    EXPECT_NEAR(d.Now().dExposureUs, 1113 * 55.005, 0.3);
    EXPECT_NEAR(Db(d.Now().dGain), 6, 1e-9);
    d.Do("f1=1 f16=2000/3 f12=200");
    EXPECT_EQ(d.p->ReadFpga(12), 200);
    EXPECT_EQ(d.Now().dFrameUs, before.dFrameUs);
    EXPECT_EQ(d.Now().dGainR, 1);
    EXPECT_TRUE(d.Streams("f0=49 f0=33"));  // run state and gate are not held
    d.Do("f1=0");
    EXPECT_NEAR(d.Now().dFrameUs, 2000 * 55.005, 1);
    EXPECT_NEAR(d.Now().dGainR, 200 / 128.0, 1e-9);
}

TEST(ProfileKyanite, SleepsUntilWokenAndForgets)
{
    Device d(0xC0B0, true);
    d.Do(g_KyaniteInit + g_KyaniteFrame + "c169 f0=33");
    EXPECT_FALSE(d.Now().bStreaming);  // asleep; the frame settings did not reach it
    EXPECT_FALSE(d.Now().bValid);
    EXPECT_TRUE(d.Streams(g_Wake));
    EXPECT_FALSE(d.Now().bValid);  // awake without its window
    EXPECT_TRUE(d.Valid(g_KyaniteFrame));
    EXPECT_NEAR(d.Do("f13=192").Now().dGainR, 1.5, 1e-9);
    EXPECT_FALSE(d.Streams("0=73"));  // without bit 8, or awake by half
    EXPECT_FALSE(d.Streams("0=173 5F=0"));
    // Under the gate of a long exposure the sleeping sensor keeps everything.
    EXPECT_TRUE(d.Do("5F=D f0=225 f11=1 11=3C40 0=0 f11=17").Now().bHeld);
    d.Do("f11=1 " + g_Wake + "f11=0");
    EXPECT_FALSE(d.Now().bHeld);
    EXPECT_TRUE(d.Now().bStreaming && d.Now().bValid) << d.Now().sWhy;
    // Without it they are gone, though they read back.
    EXPECT_FALSE(d.Valid("11=3C40 0=0 " + g_Wake));
    EXPECT_EQ(d.p->ReadReg16(0x0057), 0xC67);
}

TEST(ProfileEbonyGroup, GainsAndGate)
{
    Device d(0xC05A, false);
    const Readout r = d.Do(g_Ebony).Now();
    EXPECT_NEAR(r.dGainR, 1.2, 0.01);  // red 3753, shifted up by 4 bits
    EXPECT_NEAR(r.dGainB, 1, 1e-9);
    EXPECT_EQ(r.dBlack, 100);
    EXPECT_NEAR(Db(d.Do("f12=252").Now().dGain), 20 + Db(63), 0.05);
    // Long exposure: gate, then bit 1 of the mode, both back.
    EXPECT_EQ(d.p->ReadReg8(0x8200), 4);
    EXPECT_TRUE(d.Do("f0=161 f11=1 200=6").Now().bHeld && d.Now().bStreaming);
    EXPECT_TRUE(d.Do("f11=0").Now().bHeld);
    EXPECT_FALSE(d.Do("200=4").Now().bHeld);
    EXPECT_TRUE(d.Now().bValid) << d.Now().sWhy;

    // Bins of 3 whose table and mode differ.
    const std::string halite =
        "201=A2 21E=2 f2=4/2 208=20/2 f6=0 f4=2010/2 f8=1340/2 20A=540/2 f19=368/2 f10=16 f16=4000/3 206=1/2 "
        "f12=4 c169 f0=33 200=";
    EXPECT_TRUE(Device(0xC08A, false).Valid(halite + "24"));
    EXPECT_FALSE(Device(0xC08A, false).Valid(halite + "4"));
}

TEST(ProfileGarnet, Gains)
{
    Device d(0xC07B, true);
    // Gain 50: column gain 8, r 36; red and blue are the host's parts of it.
    const Readout r = d.Do(g_Garnet + "30B0=1330 3056=24 305C=24 305A=22 3058=3E").Now();
    EXPECT_EQ(r.dBlack, 160);
    EXPECT_NEAR(r.dGain, 9, 1e-9);
    EXPECT_NEAR(r.dGainR, 34 / 36.0, 1e-9);
    EXPECT_NEAR(r.dGainB, 62 / 36.0, 1e-9);
    EXPECT_NEAR(d.Do("305E=40").Now().dGain, 16, 1e-9);  // the common register sets all four
    EXPECT_NEAR(d.Now().dGainR, 1, 1e-9);
    EXPECT_NEAR(d.Do("302E=6").Now().dFrameUs, 1000 * 1650 / 25.0, 1);
    EXPECT_EQ(d.Do("c172").Now().samples, Samples::Bits12Wire);
    // The USB 3 form counts its transfers of 49152 bytes, 25 from power on.
    Device s(0xC07E, true);
    s.Do(g_GarnetS + "c172").p->SetTransferCount(50);
    EXPECT_TRUE(s.Now().bValid);
    s.p->SetTransferCount(49);
    EXPECT_FALSE(s.Now().bValid);
}

TEST(ProfileGarnet, StoppedClockHoldsAndHearsNothing)
{
    Device d(0xC07A, true);
    d.Do("c164 301A=1 3088=8000 30B0=5300 c163 " + g_GarnetFrame + "3012=2FFF c175 c169 301A=10DC c174");
    Readout r = d.Now();
    EXPECT_TRUE(r.bStreaming && r.bHeld);
    EXPECT_NEAR(r.dAfterHoldUs, (12287 * 1650 + 26) / 24.0, 1);
    d.p->SetTemperature(25);
    EXPECT_EQ(d.p->ReadReg16(0x30B2), 0);
    EXPECT_EQ(d.Do("305E=40").Now().dGain, 1);
    EXPECT_EQ(d.Do("c175").Now().dGain, 1);  // the write is lost for good
    EXPECT_EQ(d.Do("305E=40").Now().dGain, 2);
    EXPECT_FALSE(d.Now().bHeld);
}

TEST(ProfileCobalt, StreamsOnlyAfterItsController)
{
    Device d(0xC03A, true);
    d.Do("c164 c171 3040=41 3002=0 3004=0 300A=21D 3006=1FF 3008=2D7 300C=1D5 3012=64 c175 c169 ");
    EXPECT_FALSE(d.Now().bStreaming);
    const auto issue = [&](uint16_t command) {
        d.p->WriteReg16(0x0040, command);
        EXPECT_GE(d.p->ReadReg16(0x0040), 0x8000);  // busy for a while
        for (int i = 0; i < 100; ++i)
            if (const uint16_t v = d.p->ReadReg16(0x0040); v < 0x8000)
                return v;
        return uint16_t{ 6 };
    };
    d.Do("FC00=3100");
    EXPECT_NE(issue(0x8100), 0);  // no state to be asked for
    EXPECT_EQ(issue(0x8101), 0);
    EXPECT_NE(d.p->ReadReg16(0xFC00) >> 8, 0x31);
    d.Do("FC00=2800");
    EXPECT_EQ(issue(0x8100), 0);
    EXPECT_EQ(issue(0x8101), 9);
    EXPECT_FALSE(d.Now().bStreaming);
    int polls = 1;
    while (issue(0x8101) == 9)
        ASSERT_LT(++polls, 100);
    EXPECT_EQ(d.p->ReadReg16(0xFC00), 0x3100);
    Readout r = d.Now();
    EXPECT_TRUE(r.bStreaming);
    EXPECT_NEAR(r.dFrameUs, 541 * 938 / 48.0, 1);  // 0x300C counts pairs
    EXPECT_NEAR(r.dExposureUs, (100 * 938 + 29) / 48.0, 0.1);
    // Stage words of gains 1.5, 3, 6, 12, 24, 48, 96.
    const std::pair<uint16_t, double> gains[] = { { 0x102F, 1.5 }, { 0x202F, 3 },  { 0x206F, 6 }, { 0x20AF, 12 },
                                                  { 0x20EF, 24 },  { 0x40EF, 48 }, { 0x80EF, 96 } };
    for (const auto& [word, gain] : gains) {
        for (uint16_t reg : std::initializer_list<uint16_t>{ 0x3056, 0x3058, 0x305A, 0x305C })
            d.p->WriteReg16(reg, word);
        EXPECT_NEAR(d.Now().dGain, gain, gain * 0.02) << std::hex << word;
    }
    EXPECT_TRUE(d.p->WriteReg8(0xC850, 3));  // both widths
    EXPECT_TRUE(d.Do("c174").Now().bHeld);
    EXPECT_FALSE(d.Do("c175 300C=1D4").Now().bValid);  // 936 clocks for 938
}

TEST(ProfileDunite, MirroredStartAndGainWords)
{
    Device d(0xC04B, true);
    // 320 x 240 from 100, 60: column 752 + 1 - 100 - 320.
    const Readout r = d.Do(g_Dunite + "2=40 1=14D 3=F0 4=140 5=154").Now();
    EXPECT_TRUE(r.bValid) << r.sWhy;
    EXPECT_EQ((std::vector{ r.iX, r.iY, r.iW, r.iH }), (std::vector{ 100, 60, 320, 240 }));
    const std::pair<const char*, double> gains[] = { { "35=10", 1 },
                                                     { "35=1F", 31 / 16.0 },
                                                     { "35=4E", 78 / 16.0 },
                                                     { "35=6F", 111 / 16.0 },
                                                     { "80=4FF", 111 / 16.0 * 15 / 4 },
                                                     { "80=4F4", 111 / 16.0 } };
    for (const auto& [szWrite, gain] : gains)
        EXPECT_NEAR(d.Do(szWrite).Now().dGain, gain, 1e-9) << szWrite;
}

TEST(ProfileIolite, OffsetsAndGains)
{
    Device d(0xC09A, true);
    const double black = d.Do(g_Iolite).Now().dBlack;
    EXPECT_NEAR(d.Do("60=108 61=108 63=104 64=104").Now().dBlack, black - 6, 1e-9);
    d.Do("62=1498");  // calibrates itself and shows what it found
    EXPECT_GT(d.p->ReadReg16(0x0060), 0);
    EXPECT_GT(d.Now().dBlack, black);
    const std::pair<const char*, double> gains[] = { { "35=20", 4 }, { "35=51", 4.25 }, { "35=60", 8 },
                                                     { "35=61", 9 }, { "35=67", 15 },   { "35=267", 45 } };
    for (const auto& [szWrite, gain] : gains)
        EXPECT_NEAR(d.Do(szWrite).Now().dGain, gain, 1e-9) << szWrite;
    EXPECT_EQ(d.Do("c172 c163").Now().samples, Samples::Bits12Wire);
    EXPECT_TRUE(d.Now().bValid);
    EXPECT_EQ(Device(0xC09A, true, 1).Do("c172").Now().samples, Samples::Bits8);
}

}  // namespace
