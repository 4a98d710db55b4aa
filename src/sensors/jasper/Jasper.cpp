#include "sensors/jasper/Jasper.h"

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "platform/Platform.h"
#include "sensors/SonyExposure.h"

namespace {

enum Reg : uint16_t {
    REG_STANDBY = 0x3000,
    REG_HOLD = 0x3001,
    REG_MASTER_STOP = 0x3002,
    REG_RESET = 0x3003,
    REG_ADC_BITS = 0x3005,
    REG_READ_MODE = 0x3006,
    REG_WINDOW_MODE = 0x3007,
    REG_CLOCK = 0x3009,  // 0 148.5 MHz, 1 half, 2 a quarter
    REG_BLACK = 0x300A,  // 2 bytes
    REG_GAIN = 0x3014,   // 2 bytes, 0.1 dB
    REG_VMAX = 0x3018,   // 3 bytes
    REG_HMAX = 0x301B,   // 2 bytes
    REG_SHS = 0x3020,    // 3 bytes
    REG_WINDOW_TOP = 0x3038,
    REG_WINDOW_HEIGHT = 0x303A,
    REG_WINDOW_LEFT = 0x303C,
    REG_WINDOW_WIDTH = 0x303E,
    REG_OUTPUT = 0x3044,  // 0x60 fast 8-bit path, 0x61 normal
    REG_SYNC = 0x3049,
    REG_INPUT_CLOCK = 0x305D,  // 13 slow clock of long exposures, 6 normal
};

// On this family FPGA register 1 is the output format and register 10 its width.
constexpr uint16_t FPGA_OUTPUT = 1;

constexpr uint64_t EXP_SLOW_CLOCK = 500'000;                                                    // us
constexpr int32_t CLK_SLOWEST = 2320, CLK_SLOW = 37125, CLK_NORMAL = 74250, CLK_FAST = 148500;  // kHz

constexpr FpgaTraits g_Fpga = { 21, 42830,  256981, CLK_SLOW,
                                80, 500000, false,  { REG_HOLD, REG_WINDOW_LEFT, REG_WINDOW_TOP, REG_BLACK } };

// clang-format off
constexpr ModelTraits g_Col = {
    .family = Family::Jasper, .className = "CCameraSJasperCol", .name = "VYR KOVJasperCol",
    .key = L"SOFTWARE\\KOVJasperCol",
    .products = { { 0xC0AA, nullptr }, { 0xC0AC, "VYR KOVJasperCol-A" }, { 0xC0AD, "VYR KOVJasperCol-B" } },
    .width = 1944, .height = 1224, .pixelSize = 2.80, .bayer = BAYER_GB,
    .elecPerADU = 4.0f, .propA = 9, .propB = 25,
    .gain = { 0, 480, 200 }, .exposure = { 32, 4000000, 10000 }, .wbR = 52, .wbB = 95,
    .brightness = { 0, 240, 1 }, .clock = 37125, .hmax = 4400, .maxExposure = 4000000,
    .autoGainMax = 240, .autoExpMaxCap = 4, .caps = CAP_COMMON | CAP_AUTO | CAP_WB, .start = START_AUTO_FPS,
    .bins = { 1, 2 }, .controls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 14, -1 },
};
// clang-format on

ClassVars g_Vars{ { g_Fpga.unitUsb3 }, { 4400 } };

}  // namespace

CCameraSJasperCol::CCameraSJasperCol(void* handle) : CFpgaModel(g_Col, g_Fpga, g_Vars, handle) { FinishConstruction(); }

void CCameraSJasperCol::InitSensor()
{
    Write8(REG_RESET, 1);
    platform::SleepMs(20);
    Write8(REG_OUTPUT, 0x61);
    Write8(REG_ADC_BITS, 1);
    Fpga(FPGA_RUN, RUN_RESET);
    platform::SleepMs(20);
    Fpga(FPGA_OUTPUT, 1);
    Fpga(FPGA_FORMAT, 1);
    UnityGains();
    Write8(REG_WINDOW_MODE, 0x40);
}

bool CCameraSJasperCol::SetOutput16Bits(bool on)
{
    TakeOutput16Bits(on);
    const bool fast = m_bHighSpeed && !on && !InHardBin2();
    Write8(REG_OUTPUT, fast ? 0x60 : 0x61);
    Write8(REG_ADC_BITS, fast || InHardBin2() ? 0 : 1);
    Fpga(FPGA_OUTPUT, fast ? 0 : on ? 5 : 1);
    return Fpga(FPGA_FORMAT, on ? 1 : 0);
}

bool CCameraSJasperCol::SetCMOSClk()
{
    return SetCMOSClk(InHardBin2() ? CLK_SLOW : m_bHighSpeed && !m_bOutput16Bits ? CLK_FAST : CLK_NORMAL);
}

bool CCameraSJasperCol::SetCMOSClk(int clock)
{
    bool ok = true;
    if (m_iCMOSClk == CLK_SLOWEST && clock != CLK_SLOWEST)
        Write8(REG_INPUT_CLOCK, 6);
    switch (clock) {
    case CLK_SLOWEST:
        ok = Write8(REG_INPUT_CLOCK, 13);
        m_vars.minHmax = 4400;
        break;
    case CLK_NORMAL:
        ok = Write8(REG_CLOCK, 1);
        m_vars.minHmax = 2200;
        break;
    case CLK_FAST:
        ok = Write8(REG_CLOCK, 0);
        m_vars.minHmax = 1100;
        break;
    default:
        ok = Write8(REG_CLOCK, clock == CLK_SLOW && InHardBin2() ? 0 : 2);
        m_vars.minHmax = 4400;
        break;
    }
    if (InHardBin2())
        m_vars.minHmax = 2200;
    m_iCMOSClk = clock;
    return ok;
}

int32_t CCameraSJasperCol::LineFromTime(float lineTime) const
{
    const float halves = lineTime * float(m_iCMOSClk) * 2.0f / 1000.0f;
    return int32_t(uint32_t(std::min(halves, 4e9f)) * uint32_t(Ratio()) >> 1);
}

bool CCameraSJasperCol::WriteHMAX() { return WriteHeld({ { REG_HMAX, uint32_t(m_iHMAX), 2 } }); }

float CCameraSJasperCol::MaxFPSNow()
{
    return float(m_iCMOSClk) * 1000.0f * float(Ratio()) / float(m_iHMAX * (SensorH() + m_fpga.vBlank));
}

bool CCameraSJasperCol::SetExp(uint64_t microseconds, bool autoMode)
{
    TakeExp(microseconds, autoMode);
    if (!m_bLongExp) {
        const bool slow = m_iCMOSClk == CLK_SLOW || m_iCMOSClk == CLK_SLOWEST;
        if (m_lExposure < EXP_SLOW_CLOCK && slow) {
            SetCMOSClk();
            SetFPSPerc(m_iFPSPerc, m_bAutoFPS);
        } else if (m_lExposure >= EXP_SLOW_CLOCK && m_iCMOSClk != CLK_SLOW) {
            SetCMOSClk(CLK_SLOW);
            SetFPSPerc(m_iFPSPerc, m_bAutoFPS);
        }
    }
    const float t0 = m_bHighSpeed ? 2.64f : 3.85f;  // us
    const auto clocks = m_iHMAX / Ratio() * 2;
    const float line = float(clocks) * 1000.0f / float(m_iCMOSClk * 2);
    static constexpr ExposureLaw law = { 20, 21, 0, 0, 20, 1, 0xFFFFF, 1 };
    const ExposureRegs r = CalcExposure(law, m_lExposure, line, SensorH(), t0);
    m_iFrameTime = r.frameTime;
    m_iExpLines = r.expLines;
    return WriteHeld({ { REG_VMAX, r.vmax, 3 }, { REG_SHS, r.shs, 3 } });
}

bool CCameraSJasperCol::SetGain(int gain, bool autoMode)
{
    const int g = TakeGain(gain, autoMode);
    return WriteHeld({ { REG_GAIN, uint32_t(g), 2 } });
}

bool CCameraSJasperCol::Cam_SetResolution()
{
    const bool bin = InHardBin2();
    Write8(REG_READ_MODE, bin ? 0x22 : 0);
    Fpga(FPGA_START_X, 4);
    Fpga(FPGA_START_Y, bin ? 7 : 13);
    WriteBytes(REG_WINDOW_WIDTH, uint32_t(m_iWidth * m_iBin + (bin ? 4 : 0)), 2);
    WriteBytes(REG_WINDOW_HEIGHT, uint32_t(m_iHeight * m_iBin), 2);
    WriteFpga(FPGA_WIDTH, uint32_t(SensorW()), 2);
    return WriteFpga(FPGA_HEIGHT, uint32_t(SensorH()), 2);
}

bool CCameraSJasperCol::StartSensorStreaming()
{
    Write8(REG_STANDBY, 0);
    platform::SleepMs(10);
    Write8(REG_MASTER_STOP, 0);
    platform::SleepMs(50);
    return Write8(REG_SYNC, 10);
}

bool CCameraSJasperCol::StopSensorStreaming()
{
    Write8(REG_STANDBY, 1);
    return Write8(REG_MASTER_STOP, 1);
}
