#include "sensors/quartz/Quartz.h"

#include <algorithm>

#include "RegisterTables.h"
#include "sensors/SonyExposure.h"

namespace {

enum Reg : uint16_t {
    REG_STANDBY = 0x3000,   // 1 sleeps
    REG_HOLD = 0x3001,      // 1 keeps sensor writes back until 0
    REG_MASTER_STOP = 0x3002,
    REG_ADC_BITS = 0x3005,  // 0 10-bit, 1 12-bit
    REG_READ_MODE = 0x3006, // 0x22 bins 2 x 2
    REG_WINDOW_MODE = 0x3007,
    REG_CLOCK = 0x3009,     // bits 1..0 divider, bit 4 high conversion gain
    REG_BLACK = 0x300A,     // 2 bytes
    REG_GAIN = 0x3014,      // 0.3 dB a step
    REG_SHS = 0x3020,       // 3 bytes
    REG_WINDOW_TOP = 0x303C, REG_WINDOW_HEIGHT = 0x303E, REG_WINDOW_LEFT = 0x3040, REG_WINDOW_WIDTH = 0x3042,
    REG_OUTPUT = 0x3046,    // 0xF0 fast 8-bit path, 0xF1 normal
    // Not in any document at hand; the values belong to the ADC width.
    REG_UNK_3129 = 0x3129, REG_UNK_317C = 0x317C, REG_UNK_31EC = 0x31EC,
};

constexpr uint64_t EXP_MIN = 32, EXP_MAX = 1'000'000'000, EXP_LONG = 1'000'000;  // us
constexpr int GAIN_MAX = 600, GAIN_HIGH_ABOVE = 60;                              // 0.1 dB
constexpr int32_t CLK_BIN = 9281, CLK_NORMAL = 18562, CLK_FAST = 37124;          // kHz
constexpr int32_t HMAX_BIN = 145, HMAX_FAST = 196, HMAX_NORMAL = 203;            // clocks

constexpr ExposureLaw g_Law = { 17, 18, 1, 2, 16, 1, 0xFFFFFF, 2 };
constexpr FpgaTraits g_Fpga = { 18, 43272, 360715, CLK_BIN, 100, 100000, false };

constexpr uint16_t CAPS = CAP_BRIGHTNESS | CAP_BANDWIDTH | CAP_BANDWIDTH_AUTO | CAP_TEMPERATURE | CAP_AUTO;

constexpr ModelTraits g_Col = {
    .family = Family::Quartz, .szClass = "CCameraSQuartzCol", .szName = "VYR KOVQuartzCol",
    .szKey = L"SOFTWARE\\KOVQuartzCol", .iGuidSlot = 10, .aProducts = { { 0xC11A, nullptr } },
    .iWidth = 1936, .iHeight = 1096, .dPixelSize = 3.75, .bayer = BAYER_RG, .bColor = true, .bUSB3 = true, .bCooler = false,
    .fElecPerADU = 3.584f, .iPropA = 10, .iPropB = 18, .iPropC = 300, .iPropD = 75,
    .gain = { 0, 600, 200 }, .exposure = { 32, 1000000000, 10000 }, .iWB_R = 52, .iWB_B = 95, .iWBMin = 1, .iWBMax = 99,
    .brightness = { 0, 240, 1 }, .iBandwidthMin = 40, .iBandwidthMax = 100, .iFPSPerc = 80, .iFPSPercUSB3 = 100,
    .iClk = 9281, .iHMAX = 203, .iMaxExposure = 1000000000, .iAutoGainMax = 300, .iAutoExpMaxCap = 1000,
    .wCaps = CAPS | CAP_WB_R | CAP_WB_B, .bTypes = TYPE_RAW8 | TYPE_RGB24 | TYPE_Y8 | TYPE_RAW16,
    .bStart = START_AUTO_FPS, .bClose = CLOSE_CLEARS_POINTER,
    .aBins = { 1 }, .aControls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 14, -1 }, .aPhase = {}, .bDDR = false,
};

// QUIRK: the monochrome model lists CTRL_WB_B but not CTRL_WB_R.
constexpr ModelTraits MonoOf(ModelTraits t)
{
    t.szClass = "CCameraSQuartzMono";
    t.szName = "VYR KOVQuartzMono";
    t.szKey = L"SOFTWARE\\KOVQuartzMono";
    t.aProducts[0] = { 0xC11B, nullptr };
    t.bColor = false;
    t.wCaps = CAPS | CAP_WB_B;
    t.bTypes = TYPE_RAW8 | TYPE_RAW16;
    constexpr int8_t controls[] = { 0, 1, 2, 4, 5, 6, 8, 9, 10, 11, 12, 14, -1 };
    std::copy(std::begin(controls), std::end(controls), t.aControls);
    return t;
}
constexpr ModelTraits g_Mono = MonoOf(g_Col);

ClassVars g_ColVars{ { g_Fpga.iUnitUSB3 }, { HMAX_NORMAL } };
ClassVars g_MonoVars{ { g_Fpga.iUnitUSB3 }, { HMAX_NORMAL } };

}  // namespace

CQuartz::CQuartz(const ModelTraits& t, ClassVars& v, void* handle) : CFpgaModel(t, g_Fpga, v, handle) {}

CCameraSQuartzCol::CCameraSQuartzCol(void* handle) : CQuartz(g_Col, g_ColVars, handle)
{
    FinishConstruction();
}

CCameraSQuartzMono::CCameraSQuartzMono(void* handle) : CQuartz(g_Mono, g_MonoVars, handle)
{
    FinishConstruction();
}

void CQuartz::InitSensor()
{
    model::RunTable8(*this, g_QuartzInit);
    static constexpr RegEntry after[] = {
        { 0x305C, 0x20 }, { 0x305D, 0x00 }, { 0x305E, 0x20 }, { 0x305F, 0x00 }, { REG_OUTPUT, 0xF1 }, { REG_ADC_BITS, 1 },
        { 0x303A, 8 }, { REG_WINDOW_MODE, 0x40 },
    };
    model::RunTable8(*this, after);
    Fpga(FPGA_RUN, RUN_RESET);
    platform::SleepMs(20);
    SendCMD(REQ_START_SENSOR_CLOCK);
    Write8(REG_MASTER_STOP, 1);
    Write8(0x304B, 0);
    Fpga(FPGA_RUN, RUN_IDLE);
    Fpga(FPGA_FORMAT, 1);
    Fpga(FPGA_HOLD, 1);
    UnityGains();
    Fpga(FPGA_HOLD, 0);
}

bool CQuartz::SetOutput16Bits(bool on)
{
    m_bOutput16Bits = on;
    SelectBandwidthUnit();
    if (m_bHighSpeed && !on && !InHardBin2()) {
        Write8(REG_OUTPUT, 0xF0);
        Write8(REG_ADC_BITS, 0);
        Fpga(FPGA_FORMAT, 0);
        Write8(REG_UNK_3129, 0x1D);
        Write8(REG_UNK_317C, 0x12);
        return Write8(REG_UNK_31EC, 0x37);
    }
    Write8(REG_OUTPUT, 0xF1);
    Write8(REG_ADC_BITS, InHardBin2() ? 0 : 1);
    Fpga(FPGA_FORMAT, on ? 17 : 1);
    Write8(REG_UNK_3129, 0);
    Write8(REG_UNK_317C, 0);
    return Write8(REG_UNK_31EC, 0x0E);
}

bool CQuartz::SetCMOSClk()
{
    const uint8_t g = m_iGain > GAIN_HIGH_ABOVE ? 0x10 : 0;  // the divider shares its register with the high-gain bit
    if (InHardBin2()) {
        m_iCMOSClk = CLK_BIN;
        m_Vars.iMinHMAX = HMAX_BIN;
        return Write8(REG_CLOCK, g);
    }
    if (m_bHighSpeed && !m_bOutput16Bits) {
        m_iCMOSClk = CLK_FAST;
        m_Vars.iMinHMAX = HMAX_FAST;
        return Write8(REG_CLOCK, g);
    }
    m_iCMOSClk = CLK_NORMAL;
    m_Vars.iMinHMAX = HMAX_NORMAL;
    return Write8(REG_CLOCK, g | 1u);
}

bool CQuartz::SetCMOSClk(int clock)
{
    const uint8_t g = m_iGain > GAIN_HIGH_ABOVE ? 0x10 : 0;
    m_iCMOSClk = clock;
    if (clock == CLK_BIN && InHardBin2()) {
        m_Vars.iMinHMAX = HMAX_BIN;
        return Write8(REG_CLOCK, g);
    }
    if (clock == CLK_NORMAL)
        return Write8(REG_CLOCK, g + 1u);
    if (clock == CLK_FAST)
        return Write8(REG_CLOCK, g);
    m_Vars.iMinHMAX = HMAX_NORMAL;
    return Write8(REG_CLOCK, g + 2u);
}

bool CQuartz::SetExp(uint64_t microseconds, bool autoMode)
{
    m_bAutoExp = autoMode;
    m_lExposure = std::clamp(microseconds, EXP_MIN, EXP_MAX);
    // QUIRK: the mode goes to sensor byte 0 here, to FPGA register 0 when streaming starts.
    if (m_lExposure >= EXP_LONG) {
        if (!m_bLongExp) {
            Write8(0, RUN_GO_LONG);
            m_bLongExp = true;
        }
    } else if (m_bLongExp) {
        Write8(0, RUN_GO);
        SetCMOSClk();
        m_bLongExp = false;
    }

    const ExposureRegs r = CalcExposure(g_Law, m_lExposure, LineTime(), SensorH());
    m_iFrameTime = r.iFrameTime;
    m_iExpLines = r.iExpLines;
    Write8(REG_HOLD, 1);
    Fpga(FPGA_HOLD, 1);
    WriteFpga(FPGA_VMAX, r.lVMAX, 3);
    Fpga(FPGA_HOLD, 0);
    WriteBytes(REG_SHS, r.lSHS, 3);
    return Write8(REG_HOLD, 0);
}

bool CQuartz::SetGain(int gain, bool autoMode)
{
    m_bAutoGain = autoMode;
    m_iGain = std::clamp(gain, 0, GAIN_MAX);
    const bool bHigh = m_iGain > GAIN_HIGH_ABOVE;
    Write8(REG_HOLD, 1);
    uint8_t clk = 0;
    ReadSONYREG(REG_CLOCK, &clk);
    Write8(REG_CLOCK, bHigh ? clk | 0x10u : clk & 0x0Fu);
    Write8(REG_GAIN, uint32_t((m_iGain - (bHigh ? GAIN_HIGH_ABOVE : 0)) / 3));
    return Write8(REG_HOLD, 0);
}

bool CQuartz::SetBrightness(int value)
{
    m_iBrightness = value;
    Write8(REG_BLACK + 1, uint32_t(value) >> 8);
    return Write8(REG_BLACK, uint32_t(value));
}

bool CQuartz::WriteStart(int x, int y)
{
    Write8(REG_HOLD, 1);
    WriteBytes(REG_WINDOW_LEFT, uint32_t(x), 2);
    WriteBytes(REG_WINDOW_TOP, uint32_t(y), 2);
    return Write8(REG_HOLD, 0);
}

bool CQuartz::Cam_SetResolution()
{
    Fpga(FPGA_HOLD, 1);
    Write8(REG_READ_MODE, InHardBin2() ? 0x22 : 0);
    WriteFpga(FPGA_START_X, 0, 2);
    WriteFpga(FPGA_START_Y, 9, 2);
    WriteBytes(REG_WINDOW_WIDTH, uint32_t(m_iWidth * m_iBin), 2);
    WriteBytes(REG_WINDOW_HEIGHT, uint32_t(m_iHeight * m_iBin), 2);
    WriteSensorSizeToFpga();
    return Fpga(FPGA_HOLD, 0);
}

bool CQuartz::StartSensorStreaming()
{
    Write8(REG_STANDBY, 0);
    platform::SleepMs(20);
    return Fpga(FPGA_RUN, m_bLongExp ? RUN_GO_LONG : RUN_GO);
}

bool CQuartz::StopSensorStreaming()
{
    Fpga(FPGA_RUN, m_bLongExp ? RUN_STOP_LONG : RUN_STOP);
    return Write8(REG_STANDBY, 1);
}
