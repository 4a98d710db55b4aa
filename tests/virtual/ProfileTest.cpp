// Register sequences worked out by hand against what the sensors are to make of them, and wrong ones against a wrong
// picture.
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

    Device(uint16_t id, bool bWords, uint8_t bFirmware = 20) : p(MakeProfile(id, bFirmware, true)), bWords(bWords) { p->PowerOn(); }

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
                if (bFpga) p->WriteFpga(reg, v);
                else if (bWords) EXPECT_TRUE(p->WriteReg16(reg, v)) << word;
                else EXPECT_TRUE(p->WriteReg8(reg, static_cast<uint8_t>(v))) << word;
            }
        }
        return *this;
    }
    Readout Now() const { return p->Current(); }
};

void ExpectWindow(const Readout& r, int x, int y, int w, int h, int bin, Samples samples)
{
    EXPECT_TRUE(r.bValid) << r.sWhy;
    EXPECT_EQ(r.iX, x);
    EXPECT_EQ(r.iY, y);
    EXPECT_EQ(r.iW, w);
    EXPECT_EQ(r.iH, h);
    EXPECT_EQ(r.iBin, bin);
    EXPECT_EQ(r.iOutW, w / bin);
    EXPECT_EQ(r.iOutH, h / bin);
    EXPECT_EQ(r.samples, samples);
}

double Db(double gain) { return 20 * std::log10(gain); }

// ---------------------------------------------------------------------------------------------------------------- Sony

const std::string g_FpgaInit = "f0=48 f10=1 f1=1 f12=128 f13=128 f14=128 f15=128 f1=0 ";
const std::string g_QuartzInit =
    "3003=1 305C=20 305D=0 305E=20 305F=0 3046=F1 3005=1 303A=8 3007=40 f0=0 c175 3002=1 304B=0 " + g_FpgaInit;
// 1936 x 1096 in 8 bits; line 1021 at 18562 kHz; 10 ms are 181 lines, so the shutter opens at 1114 - 181 - 1; gain 200.
const std::string g_QuartzFull =
    "3001=1 3040=0/2 303C=0/2 3001=0 3046=F1 3005=1 f10=1 3129=0 317C=0 31EC=E "
    "f1=1 3006=0 f2=0 f6=9 3042=790/2 303E=448/2 f4=1936/2 f8=1096/2 f1=0 "
    "3009=11 f1=1 f19=1021/2 f1=0 3001=1 f1=1 f16=1114/3 f1=0 3020=3A4/3 3001=0 3014=2E 300A=1/2 ";
const std::string g_SonyStart = "c169 3000=0 f0=33 ";

Device Quartz() { return std::move(Device(0xC11A, false).Do(g_QuartzInit + g_QuartzFull + g_SonyStart)); }

TEST(ProfileQuartz, FullFrame)
{
    Device d = Quartz();
    Readout r = d.Now();
    EXPECT_TRUE(r.bStreaming);
    EXPECT_FALSE(r.bHeld);
    ExpectWindow(r, 0, 0, 1936, 1096, 1, Samples::Bits8);
    EXPECT_NEAR(r.dFrameUs, 61275, 1);
    EXPECT_NEAR(r.dExposureUs, 181 * 55.005, 0.1);
    EXPECT_NEAR(Db(r.dGain), 46 * 0.3 + 6, 1e-9);
    EXPECT_EQ(r.dBlack, 1);
    EXPECT_EQ(r.dGainR, 1);

    d.Do("f1=1 f12=133 f15=243 f1=0 f10=17");
    EXPECT_NEAR(d.Now().dGainR, 133 / 128.0, 1e-9);
    EXPECT_NEAR(d.Now().dGainB, 243 / 128.0, 1e-9);
    EXPECT_EQ(d.Now().samples, Samples::Bits16);
    // A region is moved by the sensor alone.
    d.Do("3001=1 3040=1D4/2 303C=F8/2 3001=0 3042=3E8/2 303E=258/2 f4=1000/2 f8=600/2");
    ExpectWindow(d.Now(), 468, 248, 1000, 600, 1, Samples::Bits16);
    // The gate holds the read-out while the sensor runs on.
    EXPECT_TRUE(d.Do("f11=1").Now().bHeld);
    EXPECT_TRUE(d.Now().bStreaming);
    EXPECT_FALSE(d.Do("f11=0").Now().bHeld);
}

TEST(ProfileQuartz, FastAndBinned)
{
    Device d = Quartz();
    // Ten bits: converter, output and clock have to change together. The same line then takes half the time.
    EXPECT_FALSE(d.Do("3046=F0 3005=0 f10=0").Now().bValid);
    Readout r = d.Do("3129=1D 317C=12 31EC=37 3009=10").Now();
    EXPECT_TRUE(r.bValid) << r.sWhy;
    EXPECT_NEAR(r.dFrameUs, 1114 * 1021 / 37.124, 1);
    EXPECT_TRUE(d.Do("f19=196/2").Now().bValid);
    EXPECT_FALSE(d.Do("f19=195/2").Now().bValid);

    Device b = Quartz();
    b.Do("3046=F1 3005=0 f10=1 3006=22 f4=968/2 f8=548/2 3009=0 f19=145/2 f16=566/3 3020=2/3");
    ExpectWindow(b.Now(), 0, 0, 1936, 1096, 2, Samples::Bits8);
    EXPECT_FALSE(b.Now().bBinSums);
    EXPECT_NEAR(b.Now().dFrameUs, 566 * 145 / 9.281, 1);
    EXPECT_NEAR(Db(b.Now().dGain), 46 * 0.3, 1e-9);     // the clock write dropped the high-gain bit
}

TEST(ProfileQuartz, HoldsMakeGroupsOfWrites)
{
    Device d = Quartz();
    const double exposure = d.Now().dExposureUs;
    d.Do("3001=1 3020=0/3 3014=0");
    EXPECT_EQ(d.p->ReadReg8(0x3014), 0);                // reads back what was written
    EXPECT_EQ(d.Now().dExposureUs, exposure);
    EXPECT_NEAR(Db(d.Now().dGain), 19.8, 1e-9);
    d.Do("3001=0");
    EXPECT_NEAR(d.Now().dExposureUs, 1113 * 55.005, 0.3);
    EXPECT_NEAR(Db(d.Now().dGain), 6, 1e-9);
    d.Do("f1=1 f16=2000/3 f12=200");
    EXPECT_EQ(d.p->ReadFpga(12), 200);
    EXPECT_NEAR(d.Now().dFrameUs, 61275, 1);
    EXPECT_EQ(d.Now().dGainR, 1);
    EXPECT_TRUE(d.Do("f0=49 f0=33").Now().bStreaming);  // run state and gate are not held
    d.Do("f1=0");
    EXPECT_NEAR(d.Now().dFrameUs, 2000 * 55.005, 1);
    EXPECT_NEAR(d.Now().dGainR, 200 / 128.0, 1e-9);
}

TEST(ProfileQuartz, NoPictureWhenStopped)
{
    for (const char* szStop : { "3000=1", "c174", "c170", "f0=49", "f0=241", "f0=48", "f0=0" })
        EXPECT_FALSE(Quartz().Do(szStop).Now().bStreaming) << szStop;
    for (const char* szRun : { "f0=225", "f0=161" }) EXPECT_TRUE(Quartz().Do(szRun).Now().bStreaming) << szRun;
}

TEST(ProfileQuartz, WrongRegistersGiveNoPicture)
{
    for (const char* szWrong : {
             "f4=1932/2", "f8=1094/2", "3042=78C/2", "303E=446/2",  // sizes that differ between sensor and FPGA
             "f10=17 3005=0", "f10=0", "f10=2", "3046=F0",          // formats
             "3006=22", "3006=1",                                   // binning
             "3040=4/2", "f2=4", "f6=5", "f6=13",                   // shifted off the sensor
             "f16=1113/3", "3020=459/3", "f19=202/2", "3009=13",    // timing
             "3003=0", "305C=C", "3007=0", "304B=A", "3002=0",      // bring-up
         }) {
        const Readout r = Quartz().Do(szWrong).Now();
        EXPECT_FALSE(r.bValid) << szWrong;
        EXPECT_FALSE(r.sWhy.empty()) << szWrong;
        EXPECT_TRUE(r.bStreaming) << szWrong;
    }
    // A constant of another mode with room around the window: the picture is shifted instead.
    Device d = Quartz();
    d.Do("3040=8/2 303C=8/2 3042=780/2 303E=430/2 f4=1920/2 f8=1072/2 f6=5 f2=4");
    ExpectWindow(d.Now(), 12, 4, 1920, 1072, 1, Samples::Bits8);
    // Byte registers do not answer the word requests.
    EXPECT_FALSE(d.p->WriteReg16(0x3014, 1));
}

TEST(ProfileSony, OnyxGroup)
{
    const std::string init = "3003=1 305C=20 305D=0 305E=20 305F=0 3044=E1 3005=1 3036=8 3007=40 f0=0 c175 3002=1 3049=0 " + g_FpgaInit;
    const std::string full = "303C=0/2 3038=0/2 303E=518/2 303A=3D0/2 f2=4 f6=9 3006=0 f4=1304/2 f8=976/2 f10=1 3009=11 "
                             "f19=292/2 f16=994/3 3020=0/3 3014=8C/2 ";
    Device onyx(0xC0FA, false), pyrite(0xC10A, false);
    onyx.Do(init + full + g_SonyStart);
    pyrite.Do(init + full + g_SonyStart);
    ExpectWindow(onyx.Now(), 0, 0, 1304, 976, 1, Samples::Bits8);
    EXPECT_NEAR(onyx.Now().dFrameUs, 994 * 292 / 18.562, 1);
    EXPECT_NEAR(Db(onyx.Now().dGain), 20, 1e-9);        // 14 dB and the high-gain bit
    EXPECT_NEAR(Db(pyrite.Now().dGain), 14, 1e-9);      // its steps already span the range
    onyx.Do("3006=22 f2=2 f6=5 3005=0 f4=652/2 f8=488/2 3009=10 f19=145/2");
    ExpectWindow(onyx.Now(), 0, 0, 1304, 976, 2, Samples::Bits8);
    EXPECT_FALSE(onyx.Do("f6=9").Now().bValid);

    // The hardware path asked for with bins of 3: the FPGA cuts the corner of the plain picture.
    const Readout cut = Device(0xC0FA, false).Do(init + full + g_SonyStart + "303E=510/2 303A=3CC/2 f4=432/2 f8=324/2").Now();
    EXPECT_TRUE(cut.bValid) << cut.sWhy;
    EXPECT_EQ(cut.iBin, 1);
    EXPECT_EQ(cut.iW, 1296);
    EXPECT_EQ(cut.iOutW, 432);

    Device nephrite(0xC0EA, false);
    nephrite.Do("3003=1 305E=20 3063=74 3044=E1 3005=1 3036=C 3007=40 f0=0 c175 3002=1 3049=0 " + g_FpgaInit +
                "3044=61 303E=798/2 303A=4C8/2 f2=4 f6=9 f4=1944/2 f8=1224/2 3009=1 f19=138/2 f16=1245/3 3020=2/3 3014=42 " + g_SonyStart);
    ExpectWindow(nephrite.Now(), 0, 0, 1944, 1224, 1, Samples::Bits8);
    EXPECT_NEAR(nephrite.Now().dFrameUs, 1245 * 138 / 9.280, 1);
    EXPECT_NEAR(Db(nephrite.Now().dGain), 19.8, 1e-9);
    nephrite.Do("3005=0 3006=22 f2=2 f6=5 f4=972/2 f8=612/2 3009=0 f19=69/2");
    EXPECT_TRUE(nephrite.Now().bValid) << nephrite.Now().sWhy;
    EXPECT_EQ(nephrite.Now().iShiftX[0], 4);
    EXPECT_EQ(nephrite.Now().iShiftX[1], 4);
}

TEST(ProfileSony, JasperIsItsOwnMaster)
{
    Device d(0xC0AA, false);
    d.Do("3003=1 3044=61 3005=1 f0=0 f1=1 f10=1 f12=128 f13=128 f14=128 f15=128 3007=40 f1=1 f10=0 3001=1 303C=0/2 3038=0/2 3001=0 "
         "3006=0 f2=4 f6=13 303E=798/2 303A=4C8/2 f4=1944/2 f8=1224/2 3009=1 "
         "3001=1 301B=1130/2 3018=4DD/3 3020=38C/3 3014=C8/2 3001=0 c169 3000=0 3002=0 ");
    EXPECT_FALSE(d.Now().bStreaming);                   // the sync outputs are off
    Readout r = d.Do("3049=A").Now();
    EXPECT_TRUE(r.bStreaming);
    ExpectWindow(r, 0, 0, 1944, 1224, 1, Samples::Bits8);
    EXPECT_NEAR(r.dFrameUs, 1245 * 4400 / 148.5, 1);
    EXPECT_NEAR(r.dExposureUs, 337 * 4400 / 148.5 + 3.85, 0.1);
    EXPECT_EQ(d.Do("f1=5 f10=1").Now().samples, Samples::Bits16);   // FPGA 1 is the format, no hold
    EXPECT_TRUE(d.Now().bValid);
    EXPECT_FALSE(d.Do("f1=5 f10=0").Now().bValid);
    d.Do("f1=0 f10=0 3044=60 3005=0 3009=0 301B=44C/2");
    EXPECT_TRUE(d.Now().bValid) << d.Now().sWhy;
    EXPECT_NEAR(d.Now().dExposureUs, 337 * 1100 / 148.5 + 2.64, 0.1);
    // White balance: red on 14, blue on 13.
    EXPECT_NEAR(d.Do("f14=192").Now().dGainR, 1.5, 1e-9);
    // Binned windows carry 4 columns more.
    d.Do("f14=128 f1=1 3044=61 3006=22 f6=7 303E=79C/2 f4=972/2 f8=612/2 301B=898/2 3018=279/3 3020=0/3");
    ExpectWindow(d.Now(), 0, 0, 1944, 1224, 2, Samples::Bits8);
    EXPECT_FALSE(d.Do("3002=1").Now().bStreaming);
}

TEST(ProfileSony, Marble)
{
    Device d(0xC0DA, false);
    d.Do("3009=1 3059=0 300D=0 3004=0 31A4=1 31A5=1 f0=0 c175 3008=1 305E=0 " + g_FpgaInit +
         "300D=2 3059=2 f10=1 300E=0 3010=0 f2=0 f6=15 31A2=820/2 319E=C18/2 f4=3096/2 f8=2080/2 3101=30 f19=420/2 "
         "3007=1 f16=2125/3 3034=5CB/3 3041=0 3042=0 301B=1E 301F=B4/2 3007=0 3015=A/2 c169 3000=6 ");
    EXPECT_FALSE(d.Now().bStreaming);
    Readout r = d.Do("3000=0 f0=33").Now();
    EXPECT_TRUE(r.bStreaming);
    ExpectWindow(r, 0, 0, 3096, 2080, 1, Samples::Bits8);
    EXPECT_NEAR(r.dFrameUs, 2125 * 420 / 27.0, 1);
    EXPECT_NEAR(r.dExposureUs, 642 * 420 / 27.0 + 0.36, 0.01);
    EXPECT_NEAR(Db(r.dGain), 21, 1e-9);
    EXPECT_EQ(r.dBlack, 10);
    EXPECT_NEAR(d.Do("f10=17").Now().dExposureUs, 642 * 420 / 27.0 + 0.28, 0.01);
    EXPECT_FALSE(d.Do("300E=23").Now().bValid);         // half of the binning mode
    d.Do("3010=1 300D=9 f10=1 f6=11 f4=1548/2 f8=1040/2 3101=32 f19=73/2");
    ExpectWindow(d.Now(), 0, 0, 3096, 2080, 2, Samples::Bits8);
    EXPECT_FALSE(d.Do("3101=30").Now().bValid);
}

const std::string g_LapisFull =
    "200=1 21C=0 214=0 300=3 213=0 "
    "21C=11 214=1 2BC=10 2BF=20 2C0=2 2C6=3 2D2=F 412=20 413=20 41A=8 568=11 575=F "
    "20C=1 301=0/2 303=0/2 20C=0 217=4E6/2 307=4C0/2 305=790/2 221=0 292=20 294=20 ";

TEST(ProfileSony, LapisWithFpga)
{
    Device d(0xC0CA, false);
    d.Do(g_LapisFull + "f0=0 212=1 22E=0 f1=1 f0=48 f10=1 f12=128 f13=128 f14=128 f15=128 f1=0 c174 "
         "f1=1 f2=0 f3=0 f6=11 f7=0 f4=1936/2 f8=1216/2 f19=500/2 f1=0 20C=1 f1=1 f16=1254/3 f1=0 22A=0 29A=201/2 404=C8/2 20C=0 "
         "459=0 458=F0 c169 200=0 f0=33");
    Readout r = d.Now();
    EXPECT_TRUE(r.bStreaming);                          // on its own clock: the bridge's is stopped
    ExpectWindow(r, 0, 0, 1936, 1216, 1, Samples::Bits8);
    EXPECT_NEAR(r.dFrameUs, 1254 * 500 / 37.125, 1);
    EXPECT_NEAR(r.dExposureUs, 741 * 500 / 37.125 + 13.73, 0.1);
    EXPECT_NEAR(Db(r.dGain), 20, 1e-9);
    EXPECT_EQ(r.dBlack, 240);
    EXPECT_FALSE(d.Do("568=22").Now().bValid);
    d.Do("568=11");
    // A frame longer than the window by more than 100 ms carries the shutter pulses.
    d.Do("f16=20010/3 29A=A/2 244=4E6/3 247=4E18/3 24A=4E6/3 24D=4E18/3 25C=FF 22A=1");
    EXPECT_TRUE(d.Now().bValid) << d.Now().sWhy;
    EXPECT_FALSE(d.Do("24A=4E7/3").Now().bValid);
    EXPECT_TRUE(d.Do("22A=0 f11=1").Now().bHeld);
}

TEST(ProfileSony, LapisBelow18TimesItself)
{
    Device d(0xC0CE, false, 17);
    d.Do(g_LapisFull + "f0=0 f1=1 f10=1 f12=128 f13=128 f14=128 f15=128 c174 f1=1 f10=0 20C=1 21A=1CE/2 20C=0 "
         "20C=1 217=4E6/2 22A=0 29A=A/2 404=0/2 20C=0 c169 200=0 ");
    EXPECT_FALSE(d.Now().bStreaming);
    Readout r = d.Do("212=0 22E=A").Now();
    EXPECT_TRUE(r.bStreaming);
    ExpectWindow(r, 0, 0, 1936, 1216, 1, Samples::Bits8);
    EXPECT_NEAR(r.dFrameUs, 1254 * 462 / 74.25, 1);
    EXPECT_EQ(d.p->ReadFpga(29), 0);
    // Long mode: a slow clock and long lines; FPGA 11 means nothing.
    r = d.Do("292=5 294=5 20C=1 21A=800/2 20C=0 f11=1").Now();
    EXPECT_TRUE(r.bValid) << r.sWhy;
    EXPECT_FALSE(r.bHeld);
    EXPECT_NEAR(r.dExposureUs, 1244 * 2048 / 13.92 + 13.73, 1);
    EXPECT_FALSE(d.Do("294=20").Now().bValid);
    d.Do("294=5");
    EXPECT_EQ(d.Do("f1=17 f10=1").Now().samples, Samples::Bits16);
    EXPECT_FALSE(d.Do("f10=0").Now().bValid);
}

// ------------------------------------------------------------------------------------------------------------- Kyanite

const std::string g_Wake = "11=3C43 0=73 5F=D 61=0 0=173 ";
const std::string g_KyaniteInit = "A=1 1=2C 2=3 3=7E9 f0=0 f0=48 f10=1 f1=1 0=73 f10=1 f2=60 f6=13 f1=0 11=3C40 0=0 " + g_Wake +
                                  "118=DEF 11E=DEF 11C=DF0 109=E87 f4=4656/2 f8=3520/2 f1=1 f19=680/2 f1=0 11=3C40 0=0 ";
const std::string g_KyaniteFrame = "f1=1 f16=3720/3 f1=0 57=C67 52=1D5 54=100 1CC=1 f1=1 f2=60/2 1DC=20 1DD=DE4 f1=0 ";

TEST(ProfileKyanite, SleepsUntilWokenAndForgets)
{
    Device d(0xC0B0, true);
    d.Do(g_KyaniteInit + g_KyaniteFrame + "c169 f0=33");
    EXPECT_FALSE(d.Now().bStreaming);                   // asleep; the frame settings did not reach it
    EXPECT_FALSE(d.Now().bValid);
    d.Do(g_Wake);
    EXPECT_TRUE(d.Now().bStreaming);
    EXPECT_FALSE(d.Now().bValid);                       // awake without its window
    Readout r = d.Do(g_KyaniteFrame).Now();
    ExpectWindow(r, 0, 0, 4656, 3520, 1, Samples::Bits8);
    EXPECT_NEAR(r.dFrameUs, 3720 * 680 / 37.125, 1);
    EXPECT_NEAR(r.dExposureUs, 545 * 680 / 37.125, 0.1);
    EXPECT_NEAR(Db(r.dGain), 19.97, 0.01);
    EXPECT_EQ(r.dBlack, 1);
    EXPECT_EQ(r.dGainR, 1);
    EXPECT_NEAR(d.Do("f13=192").Now().dGainR, 1.5, 1e-9);
    // 0x0000 without bit 8, or awake by half.
    EXPECT_FALSE(d.Do("0=73").Now().bStreaming);
    EXPECT_FALSE(d.Do("0=173 5F=0").Now().bStreaming);

    // Under the gate of a long exposure the sleeping sensor keeps everything.
    d.Do("5F=D f0=225 f11=1 11=3C40 0=0 f11=17");
    EXPECT_TRUE(d.Now().bHeld);
    d.Do("f11=1 " + g_Wake + "f11=0");
    EXPECT_FALSE(d.Now().bHeld);
    EXPECT_TRUE(d.Now().bStreaming && d.Now().bValid) << d.Now().sWhy;
    // Without it they are gone, though they read back.
    d.Do("11=3C40 0=0 " + g_Wake);
    EXPECT_FALSE(d.Now().bValid);
    EXPECT_EQ(d.p->ReadReg16(0x0057), 0xC67);
}

TEST(ProfileKyanite, Binning)
{
    Device d(0xC0B0, true);
    d.Do(g_KyaniteInit + g_Wake + g_KyaniteFrame + "c169 ");
    const std::string bin2 = "f1=1 0=73 f2=60 f6=8 f10=16 f1=0 0=173 f4=2328/2 f8=1760/2 f19=397/2 f16=1960/3 57=1 f0=35 ";
    Readout r = d.Do(bin2).Now();
    ExpectWindow(r, 0, 0, 4656, 3520, 2, Samples::Bits16);
    EXPECT_TRUE(r.bBinSums);
    EXPECT_EQ(r.iShiftX[1], 0);
    EXPECT_EQ(r.iShiftY[0], 2);
    // The constant drops a row less in a stretched frame; bins of 4 come with the constant of 3.
    EXPECT_EQ(d.Do("f16=3568/3 f6=7").Now().iShiftY[1], 2);
    EXPECT_EQ(d.Do("f6=5").Now().iShiftY[1], -2);
    EXPECT_EQ(d.Do("f16=1960/3 f6=6").Now().iShiftY[0], -2);
    EXPECT_EQ(d.Do("f6=7").Now().iShiftY[0], 0);        // wrong: the picture is off by a row of cells
    for (const char* szWrong : { "f0=33", "f10=17", "f6=13", "f8=1758/2", "f19=396/2", "f2=0", "1DC=22", "f16=1959/3" })
        EXPECT_FALSE(d.Do(bin2 + szWrong).Now().bValid) << szWrong;

    // Bins of 3 from x 6, y 2: the FPGA counts binned columns.
    d.Do("f6=6 f10=0 f2=62/2 1DC=22 1DD=DE2 f4=1550/2 f8=1172/2 f19=397/2 f16=1960/3 57=1");
    ExpectWindow(d.Now(), 6, 2, 4650, 3516, 3, Samples::Bits8);
    EXPECT_EQ(d.Now().iShiftX[0], 0);
    EXPECT_EQ(d.Now().iShiftX[1], 2);
    EXPECT_EQ(d.Now().iShiftY[0], 4);
    EXPECT_EQ(d.Now().iShiftY[1], 6);
    EXPECT_FALSE(d.Do("f6=8").Now().bValid || d.Now().iShiftY[0] == 4);

    // A start without the lead of 60 columns: a small window shows other pixels.
    Device w(0xC0B1, true);
    w.Do(g_KyaniteInit + g_Wake + g_KyaniteFrame + "f4=1000/2 f8=800/2 f2=860/2 1DC=84 1DD=3A8 c169 f0=33");
    ExpectWindow(w.Now(), 800, 100, 1000, 800, 1, Samples::Bits8);
    EXPECT_EQ(w.Do("f2=800/2").Now().iX, 740);
    EXPECT_TRUE(w.Now().bValid);
}

// --------------------------------------------------------------------------------------------------------- Ebony group

TEST(ProfileEbonyGroup, EbonyFullFrame)
{
    Device d(0xC05A, false);
    d.Do("201=22 f0=0 f0=49 f10=1 f1=1 f2=8/2 208=3A/2 f6=1 f4=4944/2 f8=3284/2 20A=CD8/2 f19=585/2 f16=3302/3 f1=0 206=B8C/2 "
         "f12=4 230=E65/2 22C=EA90/2 232=E65/2 22E=E65/2 21F=64/2 c169 200=4 f0=33 ");
    Readout r = d.Now();
    EXPECT_TRUE(r.bStreaming);
    ExpectWindow(r, 0, 0, 4944, 3284, 1, Samples::Bits8);
    EXPECT_NEAR(r.dFrameUs, 3302 * 585 / 20.25, 1);
    EXPECT_NEAR(r.dExposureUs, 346 * 585 / 20.25, 0.1);
    EXPECT_NEAR(Db(r.dGain), 20, 0.05);
    EXPECT_NEAR(r.dGainR, 1.2, 0.01);                   // red 3753, shifted up by 4 bits
    EXPECT_NEAR(r.dGainB, 1, 1e-9);
    EXPECT_EQ(r.dBlack, 100);
    EXPECT_NEAR(Db(d.Do("f12=252").Now().dGain), 20 + Db(63), 0.05);
    // Long exposure: gate, then bit 1 of the mode, both back.
    EXPECT_EQ(d.p->ReadReg8(0x8200), 4);
    EXPECT_TRUE(d.Do("f0=161 f11=1 200=6").Now().bHeld);
    EXPECT_TRUE(d.Now().bStreaming);
    EXPECT_TRUE(d.Do("f11=0").Now().bHeld);
    EXPECT_FALSE(d.Do("200=4").Now().bHeld);
    EXPECT_TRUE(d.Now().bValid) << d.Now().sWhy;
    for (const char* szWrong : { "f2=0", "208=0/2", "208=34/2", "20A=CD4/2", "200=24", "f10=16", "f6=4", "232=E64/2", "f19=584/2" }) {
        Device e = Device(0xC05A, false);
        e.Do("201=22 f10=1 f2=8/2 208=3A/2 f6=1 f4=4944/2 f8=3284/2 20A=CD8/2 f19=585/2 f16=3302/3 206=B8C/2 f12=4 c169 200=4 f0=33");
        ASSERT_TRUE(e.Now().bValid) << e.Now().sWhy;
        EXPECT_FALSE(e.Do(szWrong).Now().bValid) << szWrong;
    }
    EXPECT_FALSE(d.Do("200=1").Now().bStreaming);
}

TEST(ProfileEbonyGroup, BinsOfThree)
{
    const std::string end = "f16=4000/3 206=1/2 f12=4 c169 ";
    Device halite(0xC08A, false);
    halite.Do("201=A2 21E=2 f2=4/2 208=20/2 f6=0 f4=2010/2 f8=1340/2 20A=540/2 f19=368/2 f10=16 " + end + "200=24 f0=33");
    ExpectWindow(halite.Now(), 6, 6, 6030, 4020, 3, Samples::Bits16);
    EXPECT_FALSE(halite.Do("200=4").Now().bValid);      // table and mode differ
    Device flint(0xC06A, false);
    flint.Do("201=A2 f2=2/2 208=18/2 f6=0 f4=2460/2 f8=1642/2 20A=66C/2 f19=240/2 f10=0 " + end + "200=54 f0=33");
    ExpectWindow(flint.Now(), 0, 0, 7380, 4926, 3, Samples::Bits8);
    EXPECT_EQ(flint.Now().iShiftX[1], 4);
    EXPECT_EQ(flint.Now().iShiftY[1], 0);
    Device ebony(0xC05A, false);
    ebony.Do("201=22 f2=4/2 208=34/2 f6=1 f4=1648/2 f8=1094/2 20A=44A/2 f19=310/2 f10=1 " + end + "200=74 f0=33");
    ExpectWindow(ebony.Now(), 0, 0, 4944, 3282, 3, Samples::Bits8);
    EXPECT_EQ(ebony.Now().iShiftX[0], 2);
    EXPECT_EQ(ebony.Now().iShiftX[1], 4);
    EXPECT_EQ(ebony.Now().iShiftY[1], 2);
}

// ------------------------------------------------------------------------------------------------------ Beryl and USB 2

TEST(ProfileBeryl, WindowAndFormats)
{
    Device d(0xC02A, true);
    d.Do("8=99 9=9 A=999 f0=0 f0=16 f10=1 f1=1 f12=128 f13=128 f14=128 f15=128 f1=0 100=5200 101=0 102=1E0 "
         "f1=1 f2=0 f6=0 f4=640/2 f8=480/2 f1=0 C9=2D0 CC=23 CD=100 80=1 c169 ");
    EXPECT_FALSE(d.Now().bStreaming);
    Readout r = d.Do("f0=1").Now();
    EXPECT_TRUE(r.bStreaming);
    ExpectWindow(r, 0, 0, 640, 480, 1, Samples::Bits8);
    EXPECT_NEAR(r.dExposureUs, 10000, 0.1);
    EXPECT_NEAR(r.dGain, 4, 1e-9);
    // 316 x 240 from 160, 120: the end 492 is no multiple of 8.
    d.Do("100=3D94 101=78 102=168 f4=316/2 f8=240/2");
    ExpectWindow(d.Now(), 160, 120, 316, 240, 1, Samples::Bits8);
    EXPECT_FALSE(d.Do("102=160").Now().bValid);
    // Binned, both forms of the end; the frame grows with the exposure.
    d.Do("100=5200 101=0 102=E000 f2=2 f6=5 f4=320/2 f8=240/2");
    ExpectWindow(d.Now(), 0, 0, 640, 480, 2, Samples::Bits8);
    EXPECT_TRUE(d.Do("102=1E0").Now().bValid);
    EXPECT_FALSE(d.Do("102=F0").Now().bValid);
    EXPECT_GT(d.Do("C9=A8C0").Now().dFrameUs, 600000);
    EXPECT_FALSE(d.Do("f0=17").Now().bStreaming);
}

const std::string g_GarnetFrame = "3002=2 3004=0 3006=3C1 3008=4FF 300A=3DA 300C=672 3012=3E7 301E=A0 ";

TEST(ProfileGarnet, ClocksAndGains)
{
    Device d(0xC07B, true);
    d.Do("c164 c171 c170 301A=1 3088=8000 301A=10D8 302C=1 302A=8 302E=3 3030=19 " + g_GarnetFrame + "c175 c169 301A=10DC ");
    Readout r = d.Now();
    EXPECT_TRUE(r.bStreaming);
    ExpectWindow(r, 0, 0, 1280, 960, 1, Samples::Bits8);
    EXPECT_NEAR(r.dFrameUs, 1000 * 1650 / 50.0, 1);     // 999 lines of exposure stretch the 986 of the frame
    EXPECT_NEAR(r.dExposureUs, (999 * 1650 + 26) / 50.0, 0.1);
    EXPECT_EQ(r.dBlack, 160);
    EXPECT_NEAR(d.Do("302E=6").Now().dFrameUs, 1000 * 1650 / 25.0, 1);
    // Gain 50: column gain 8, r 36; red and blue are the host's parts of it.
    r = d.Do("30B0=1330 3056=24 305C=24 305A=22 3058=3E").Now();
    EXPECT_NEAR(r.dGain, 9, 1e-9);
    EXPECT_NEAR(r.dGainR, 34 / 36.0, 1e-9);
    EXPECT_NEAR(r.dGainB, 62 / 36.0, 1e-9);
    EXPECT_NEAR(d.Do("305E=40").Now().dGain, 16, 1e-9);  // the common register sets all four
    EXPECT_NEAR(d.Now().dGainR, 1, 1e-9);
    // Slow clock: past the PLL, 24 MHz.
    EXPECT_NEAR(d.Do("30B0=5330 c163").Now().dFrameUs, 1000 * 1650 / 24.0, 1);
    EXPECT_EQ(d.Do("c172").Now().samples, Samples::Bits12Wire);
    for (const char* szWrong : { "300A=3D9", "300C=56D", "3002=0", "3012=0", "3008=500" }) {
        d.Do(g_GarnetFrame);
        EXPECT_FALSE(d.Do(szWrong).Now().bValid) << szWrong;
    }
    EXPECT_FALSE(d.Do("301A=10D8").Now().bStreaming);
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
    EXPECT_EQ(d.Do("c175").Now().dGain, 1);             // the write is lost for good
    EXPECT_EQ(d.Do("305E=40").Now().dGain, 2);
    EXPECT_FALSE(d.Now().bHeld);
}

TEST(ProfileGarnet, ThermometerFitsItsCalibration)
{
    Device d(0xC07D, true);
    const double t70 = d.p->ReadReg16(0x30C6), t55 = d.p->ReadReg16(0x30C8), slope = 15 / (t70 - t55);
    EXPECT_GE(slope, 0.5);
    EXPECT_LE(slope, 1.0);
    for (double celsius : { -20.0, 0.0, 21.3, 60.0 }) {
        d.p->SetTemperature(celsius);
        EXPECT_NEAR(55 + (d.p->ReadReg16(0x30B2) - t55) * slope, celsius, slope / 2 + 1e-9);
    }
}

TEST(ProfileGarnet, Usb3FormCountsItsTransfers)
{
    Device d(0xC07E, true);
    d.Do("301A=1 3088=8000 302C=1 302A=4 302E=6 3030=53 " + g_GarnetFrame + "c169 301A=10DC");
    EXPECT_NEAR(d.Now().dFrameUs, 1000 * 1650 / 83.0, 1);
    EXPECT_TRUE(d.Now().bStreaming && d.Now().bValid) << d.Now().sWhy;   // 25 units of 49152 from power on
    EXPECT_FALSE(d.Do("c172").Now().bValid);
    d.p->SetTransferCount(50);
    EXPECT_TRUE(d.Now().bValid);
    d.p->SetTransferCount(49);
    EXPECT_FALSE(d.Now().bValid);
}

TEST(ProfileCobalt, StreamsOnlyAfterItsController)
{
    Device d(0xC03A, true);
    d.Do("c164 c171 3040=41 3002=0 3004=0 300A=21D 3006=1FF 3008=2D7 300C=1D5 3012=64 c175 c169 ");
    EXPECT_FALSE(d.Now().bStreaming);
    const auto issue = [&](uint16_t command) {
        d.p->WriteReg16(0x0040, command);
        EXPECT_GE(d.p->ReadReg16(0x0040), 0x8000);      // busy for a while
        for (int i = 0; i < 100; ++i)
            if (const uint16_t v = d.p->ReadReg16(0x0040); v < 0x8000) return v;
        return uint16_t{ 6 };
    };
    d.Do("FC00=3100");
    EXPECT_NE(issue(0x8100), 0);                        // no state to be asked for
    EXPECT_EQ(issue(0x8101), 0);
    EXPECT_NE(d.p->ReadReg16(0xFC00) >> 8, 0x31);
    d.Do("FC00=2800");
    EXPECT_EQ(issue(0x8100), 0);
    EXPECT_EQ(issue(0x8101), 9);
    EXPECT_FALSE(d.Now().bStreaming);
    int polls = 1;
    while (issue(0x8101) == 9) ASSERT_LT(++polls, 100);
    EXPECT_EQ(d.p->ReadReg16(0xFC00), 0x3100);
    Readout r = d.Now();
    EXPECT_TRUE(r.bStreaming);
    ExpectWindow(r, 0, 0, 728, 512, 1, Samples::Bits8);
    EXPECT_NEAR(r.dFrameUs, 541 * 938 / 48.0, 1);       // 0x300C counts pairs
    EXPECT_NEAR(r.dExposureUs, (100 * 938 + 29) / 48.0, 0.1);
    // Stage words of gains 1.5, 3, 6, 12, 24, 48, 96.
    const std::pair<uint16_t, double> gains[] = { { 0x102F, 1.5 }, { 0x202F, 3 },   { 0x206F, 6 },  { 0x20AF, 12 },
                                                  { 0x20EF, 24 },  { 0x40EF, 48 }, { 0x80EF, 96 } };
    for (const auto& [word, gain] : gains) {
        for (uint16_t reg : std::initializer_list<uint16_t>{ 0x3056, 0x3058, 0x305A, 0x305C }) d.p->WriteReg16(reg, word);
        EXPECT_NEAR(d.Now().dGain, gain, gain * 0.02) << std::hex << word;
    }
    EXPECT_TRUE(d.p->WriteReg8(0xC850, 3));             // both widths
    EXPECT_TRUE(d.Do("c174").Now().bHeld);
    EXPECT_FALSE(d.Do("c175 300C=1D4").Now().bValid);   // 936 clocks for 938
}

TEST(ProfileDunite, MirroredStartAndGainWords)
{
    Device d(0xC04B, true);
    d.Do("AF=0 9A=2F0 A0=1E0 2C=0 D=320 2=4 1=1 3=1E0 4=2F0 5=3D C=1 B=64 c169");
    ExpectWindow(d.Now(), 0, 0, 752, 480, 1, Samples::Bits8);
    EXPECT_NEAR(d.Now().dExposureUs, (100 * 813 + 4) / 30.0, 0.1);
    EXPECT_NEAR(d.Do("c164").Now().dFrameUs, 525 * 813 / 48.0, 1);
    // 320 x 240 from 100, 60: column 752 + 1 - 100 - 320.
    d.Do("2=40 1=14D 3=F0 4=140 5=154");
    ExpectWindow(d.Now(), 100, 60, 320, 240, 1, Samples::Bits8);
    EXPECT_FALSE(d.Do("5=3D").Now().bValid);
    d.Do("5=154");
    const std::pair<const char*, double> gains[] = { { "35=10", 1 },    { "35=1F", 31 / 16.0 }, { "35=4E", 78 / 16.0 },
                                                     { "35=6F", 111 / 16.0 }, { "80=4FF", 111 / 16.0 * 15 / 4 }, { "80=4F4", 111 / 16.0 } };
    for (const auto& [szWrite, gain] : gains) EXPECT_NEAR(d.Do(szWrite).Now().dGain, gain, 1e-9) << szWrite;
    for (const char* szWrong : { "AF=3", "D=300", "B=0" }) EXPECT_FALSE(Device(d.p->Facts().wProductId, true).Do(szWrong).Now().bValid);
    Device agate(0xC01A, true);
    agate.Do("AF=0 9A=2F0 A0=1E0 2C=0 D=320 2=4 1=1 3=1E0 4=280 5=5E C=1 B=64 c169");
    EXPECT_FALSE(agate.Now().bValid);                   // row noise correction still on
    ExpectWindow(agate.Do("70=0 c163").Now(), 0, 0, 640, 480, 1, Samples::Bits8);
    EXPECT_NEAR(agate.Now().dExposureUs, (100 * 734 + 4) / 24.0, 0.1);
}

TEST(ProfileIolite, OffsetsGainsAndWidth)
{
    Device d(0xC09A, true);
    d.Do("29=0 3F=3 40=6 4A=60 4E=C 62=499 60=0 61=0 63=0 64=0 1=C 2=14 3=3FF 4=4FF B=1 9=64 c164 c169");
    ExpectWindow(d.Now(), 0, 0, 1280, 1024, 1, Samples::Bits8);
    EXPECT_NEAR(d.Now().dExposureUs, (100 * 1524 - 180) / 48.0, 0.1);
    const double black = d.Now().dBlack;
    EXPECT_NEAR(d.Do("60=108 61=108 63=104 64=104").Now().dBlack, black - 6, 1e-9);
    d.Do("62=1498");                                    // calibrates itself and shows what it found
    EXPECT_GT(d.p->ReadReg16(0x0060), 0);
    EXPECT_GT(d.Now().dBlack, black);
    const std::pair<const char*, double> gains[] = { { "35=A", 1.25 }, { "35=20", 4 }, { "35=51", 4.25 }, { "35=60", 8 }, { "35=61", 9 },
                                                     { "35=67", 15 },  { "35=267", 45 } };
    for (const auto& [szWrite, gain] : gains) EXPECT_NEAR(d.Do(szWrite).Now().dGain, gain, 1e-9) << szWrite;
    EXPECT_FALSE(d.Do("c172").Now().bValid);            // two bytes a pixel need the slow clock
    EXPECT_EQ(d.Do("c163").Now().samples, Samples::Bits12Wire);
    EXPECT_TRUE(d.Now().bValid);
    EXPECT_EQ(Device(0xC09A, true, 1).Do("c172").Now().samples, Samples::Bits8);
}

}  // namespace
