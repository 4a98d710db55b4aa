#include "sensors/ebony/Ebony.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>

#include "RegisterTables.h"
#include "platform/Platform.h"

namespace {

enum Reg : uint16_t {
    REG_STANDBY = 0x0200,  // 1 sleeps; else the read-out mode
    REG_SHS = 0x0206,      // 2 bytes
    REG_TOP = 0x0208,      // 2 bytes
    REG_LINES = 0x020A,    // 2 bytes
};

constexpr uint64_t EXP_LONG = 2'000'000;  // us
constexpr int GAIN_LIMIT = 240;           // 0.1 dB of analog gain; beyond it: digital
constexpr int32_t CLK = 20250;            // kHz

// { frame time, shortest frame, bias, lowest SHS, highest SHS, stretched VMAX, cap, m_iExpLines, SHS when stretched }
constexpr ExposureLaw Law(int lines) { return { lines, lines + 1, 0, 0, lines, 0, 0xFFFFFF, 0, 1 }; }

// clang-format off
constexpr EbonyTraits g_Ebony = {
    .fpga = { 18, 43272, 325643, CLK, 80, 100000, true, { .black = 0x021F } }, .law = Law(17),
    .initTable = g_EbonyInit, .modeFull = g_EbonyModeFull, .modeBin3 = g_EbonyModeBin3, .formatFollowsBin = false,
    .minFull = 585, .minBin3 = 310, .fpgaYFull = 1, .fpgaYBin3 = 1, .lineMargin = 4,
    .columnOffset = 8, .topFull = 58, .topBin3 = 52, .roundBin3 = 6, .standbyBin3 = 116, .gainLimitBin3 = 180,
    .regBlue = 0x0230, .regRed = 0x022C, .regGreen1 = 0x0232, .regGreen2 = 0x022E, .redShift = 4,
    .expLinesBin3 = 3, .fpsLinesBin3 = 1,
};
constexpr EbonyTraits g_Flint = {
    .fpga = { 14, 43272, 333333, CLK, 80, 100000, true, { .black = 0x0216 } }, .law = Law(13),
    .initTable = g_FlintInit, .modeFull = g_FlintModeFull, .modeBin3 = g_FlintModeBin3, .formatFollowsBin = true,
    .minFull = 858, .minBin3 = 240, .fpgaYFull = 3, .fpgaYBin3 = 0, .lineMargin = 2,
    .columnOffset = 4, .topFull = 24, .topBin3 = 24, .roundBin3 = 0, .standbyBin3 = 84, .gainLimitBin3 = 180,
    .regBlue = 0x0226, .regRed = 0x0222, .regGreen1 = 0x0228, .regGreen2 = 0x0224, .redShift = 0,
    .expLinesBin3 = 2, .fpsLinesBin3 = 2,
};
// clang-format on
constexpr EbonyTraits g_Halite = [] {
    EbonyTraits e = g_Flint;
    e.fpga.vBlank = 24;
    e.law = Law(23);
    e.initTable = g_HaliteInit;
    e.modeFull = g_HaliteModeFull;
    e.modeBin3 = g_HaliteModeBin3;
    e.minFull = 706;
    e.minBin3 = 368;
    e.fpgaYFull = 4;
    e.lineMargin = 4;
    e.topBin3 = 26;
    e.standbyBin3 = 36;
    e.gainLimitBin3 = 240;
    e.expLinesBin3 = 1;
    e.fpsLinesBin3 = 1;
    return e;
}();

// clang-format off
constexpr ModelTraits g_EbonyCol = {
    .family = Family::Ebony, .className = "CCameraSEbonyCol", .name = "VYR KOVEbonyCol-Cool",
    .key = L"SOFTWARE\\KOVEbonyCol", .products = { { 0xC05A, nullptr } },
    .width = 4944, .height = 3284, .pixelSize = 4.86, .bayer = BAYER_RG, .hasCooler = true,
    .gain = { 0, 600, 200 }, .exposure = { 32, 1000000000, 10000 }, .wbR = 60, .wbB = 99,
    .brightness = { 0, 1024, 0 }, .clock = CLK, .hmax = 585, .maxExposure = 1000000000,
    .autoGainMax = 300, .autoExpMaxCap = 1000, .caps = CAP_COMMON | CAP_FLIP | CAP_WB,
    .start = START_AUTO_FPS | START_HARDWARE_BIN, .close = 0,
    .bins = { 1, 2, 3 }, .controls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 15, 16, 17, -1 },
    .phases = { { 3, -2, 0, -4, -2 } },
};
// clang-format on
constexpr ModelTraits g_FlintCol = [] {
    ModelTraits t = Named(g_EbonyCol, "CCameraSFlintCol", "VYR KOVFlintCol-Cool", L"SOFTWARE\\KOVFlintCol", 0xC06A);
    t.family = Family::Flint;
    t.width = 7380;
    t.height = 4928;
    t.pixelSize = 5.97;
    t.hmax = 858;
    t.autoExpMaxCap = -1;
    t.phases[0] = { 3, -4, 0, -4, 0 };
    return t;
}();
constexpr ModelTraits g_HaliteCol = [] {
    ModelTraits t = Named(g_FlintCol, "CCameraSHaliteCol", "VYR KOVHaliteCol-Cool", L"SOFTWARE\\KOVHaliteCol", 0xC08A);
    t.family = Family::Halite;
    t.width = 6036;
    t.height = 4032;
    t.hmax = 706;
    t.phases[0] = {};
    return t;
}();

template <const EbonyTraits& e>
ClassVars g_Vars{ { e.fpga.unitUsb2 }, { e.minFull } };

// White balance as an offset of the analog gain, dB.
double BalanceDb(int x) { return 20 * std::log10(x < 51 ? x / 100.0 + 0.5 : x / 50.0); }

// Analog gain word for tenths of dB.
uint32_t GainWord(double tenths)
{
    return static_cast<uint32_t>(std::max(0, static_cast<int>(4095 - 4095 * std::pow(10.0, -tenths / 10 / 20))));
}

}  // namespace

CEbony::CEbony(const ModelTraits& t, const EbonyTraits& e, ClassVars& v, void* handle)
    : CFpgaModel(t, e.fpga, v, handle), m_ebony(e)
{
}

CCameraSEbonyCol::CCameraSEbonyCol(void* handle) : CWhole(g_EbonyCol, g_Ebony, g_Vars<g_Ebony>, handle) {}
CCameraSFlintCol::CCameraSFlintCol(void* handle) : CWhole(g_FlintCol, g_Flint, g_Vars<g_Flint>, handle) {}
CCameraSHaliteCol::CCameraSHaliteCol(void* handle) : CWhole(g_HaliteCol, g_Halite, g_Vars<g_Halite>, handle) {}

void CEbony::InitSensor()
{
    model::RunTable8(*this, m_ebony.initTable);
    Fpga(FPGA_RUN, RUN_RESET);
    platform::SleepMs(20);
    Fpga(FPGA_RUN, RUN_STOP);
    Fpga(FPGA_FORMAT, 1);
}

bool CEbony::SetResolution(int width, int height, int bin, IMAGE_TYPE type)
{
    if (!CFpgaModel::SetResolution(width, height, bin, type))
        return false;
    SetGain(m_iGain, m_bAutoGain);  // hardware bin 3 has another limit
    return true;
}

bool CEbony::SetOutput16Bits(bool on)
{
    TakeOutput16Bits(on);
    if (m_ebony.formatFollowsBin && InHardBin3())
        return Fpga(FPGA_FORMAT, on ? 16 : 0);
    return Fpga(FPGA_FORMAT, on ? 17 : 1);
}

bool CEbony::SetHighSpeedMode(bool on)
{
    m_bHighSpeed = on;
    return true;
}

bool CEbony::SetCMOSClk() { return SetCMOSClk(CLK); }

bool CEbony::SetCMOSClk(int clock)
{
    if (m_bOpen)
        m_iCMOSClk = clock;
    return true;
}

unsigned long CEbony::GetFrameTime() const
{
    return static_cast<unsigned long>(TruncToInt(float(Lines(m_ebony.expLinesBin3) + m_ebony.law.frameLines) * LineTime()));
}

bool CEbony::SetExp(uint64_t microseconds, bool autoMode)
{
    TakeExp(microseconds, autoMode);
    SwitchLongExp(EXP_LONG, 0xA1);
    // m_iFrameTime stays unset on this family: the capture loop's waits follow the exposure alone.
    const ExposureRegs r = CalcExposure(m_ebony.law, m_lExposure, LineTime(), Lines(m_ebony.expLinesBin3));
    m_iExpLines = r.expLines;
    WriteVMAX(r.vmax);
    return WriteBytes(REG_SHS, r.shs, 2);
}

bool CEbony::SetGain(int gain, bool autoMode)
{
    const int g = TakeGain(gain, autoMode);
    const int limit = InHardBin3() ? m_ebony.gainLimitBin3 : GAIN_LIMIT;
    const int a = std::min(g, limit);
    const uint32_t green = GainWord(a);
    const uint32_t red = GainWord(BalanceDb(m_iWB_R) * 10 + a);
    const uint32_t blue = GainWord(BalanceDb(m_iWB_B) * 10 + a);
    const int digital = g <= limit ? 4 : std::min(static_cast<int>(4 * std::pow(10.0, (g - limit) / 10.0 / 20)), 255);
    Fpga(FPGA_GAIN_A, uint32_t(digital));
    WriteBytes(m_ebony.regBlue, blue, 2);
    WriteBytes(m_ebony.regRed, red << m_ebony.redShift, 2);
    WriteBytes(m_ebony.regGreen1, green, 2);
    return WriteBytes(m_ebony.regGreen2, green, 2);
}

void CEbony::SetRGBBalance(int red, int blue, bool autoMode)
{
    TakeBalance(red, blue, autoMode);
    SetGain(m_iGain, m_bAutoGain);
}

float CEbony::GetSensorTemp()
{
    m_fSensorTemp = GetADTemp();
    return m_fSensorTemp;
}

int CEbony::RoundX(int x) const
{
    return m_ebony.roundBin3 != 0 && m_iBin == 3 ? x / m_ebony.roundBin3 * m_ebony.roundBin3 : x & ~3;
}

bool CEbony::WriteStart(int x, int y)
{
    const bool b3 = InHardBin3();
    Fpga(FPGA_HOLD, 1);
    // QUIRK: on Flint and Halite x is a multiple of 4 in bin 3 too, so x / 3 may be odd: a host then sees red and blue
    // change places with green.
    WriteFpga(FPGA_START_X, uint32_t(b3 ? x / 3 + m_ebony.columnOffset / 2 : x + m_ebony.columnOffset), 2);
    Fpga(FPGA_HOLD, 0);
    const bool capturing = m_bCapturing;
    if (capturing)
        Fpga(FPGA_RUN, RUN_STOP);
    bool ok = WriteBytes(REG_TOP, uint32_t(y + (b3 ? m_ebony.topBin3 : m_ebony.topFull)), 2);
    if (capturing)
        ok = Fpga(FPGA_RUN, RunValue());
    return ok;
}

bool CEbony::Cam_SetResolution()
{
    const bool b3 = InHardBin3();
    m_vars.minHmax = b3 ? m_ebony.minBin3 : m_ebony.minFull;
    Fpga(FPGA_HOLD, 1);
    Fpga(FPGA_START_Y, b3 ? m_ebony.fpgaYBin3 : m_ebony.fpgaYFull);
    model::RunTable8(*this, b3 ? m_ebony.modeBin3 : m_ebony.modeFull);
    WriteBytes(REG_LINES, uint32_t(SensorH() + m_ebony.lineMargin), 2);
    WriteSensorSizeToFpga();
    return Fpga(FPGA_HOLD, 0);
}

bool CEbony::StartSensorStreaming()
{
    Write8(REG_STANDBY, InHardBin3() ? m_ebony.standbyBin3 : 4);
    platform::SleepMs(10);
    return Fpga(FPGA_RUN, RunValue());
}

bool CEbony::StopSensorStreaming()
{
    Fpga(FPGA_RUN, RUN_STOP);
    return Write8(REG_STANDBY, 1);
}

float CEbony::MaxFPSNow() { return FPSFromLine(Lines(m_ebony.expLinesBin3)); }
