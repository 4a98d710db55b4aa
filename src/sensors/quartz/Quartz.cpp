#include "sensors/quartz/Quartz.h"

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "RegisterTables.h"
#include "platform/Platform.h"

namespace {

enum Reg : uint16_t {
    REG_STANDBY = 0x3000,  // 1 sleeps
    REG_HOLD = 0x3001,     // 1 keeps sensor writes back until 0
    REG_MASTER_STOP = 0x3002,
    REG_ADC_BITS = 0x3005,   // 0 10-bit, 1 12-bit
    REG_READ_MODE = 0x3006,  // 0x22 bins 2 x 2
    REG_WINDOW_MODE = 0x3007,
    REG_CLOCK = 0x3009,  // bits 1..0 divider, bit 4 high conversion gain
    REG_BLACK = 0x300A,  // 2 bytes
    REG_GAIN = 0x3014,
    REG_SHS = 0x3020,  // 3 bytes
    // Not in any document at hand; the values belong to the ADC width.
    REG_UNK_3129 = 0x3129,
    REG_UNK_317C = 0x317C,
    REG_UNK_31EC = 0x31EC,
};

constexpr uint64_t EXP_LONG = 1'000'000;  // us

constexpr RegEntry g_QuartzAfter[] = {
    { 0x305C, 0x20 }, { 0x305D, 0x00 },    { 0x305E, 0x20 }, { 0x305F, 0x00 },
    { 0x3046, 0xF1 }, { REG_ADC_BITS, 1 }, { 0x303A, 8 },    { REG_WINDOW_MODE, 0x40 },
};
constexpr RegEntry g_OnyxAfter[] = { { 0x3044, 0xE1 }, { REG_ADC_BITS, 1 }, { 0x3036, 8 }, { REG_WINDOW_MODE, 0x40 } };
constexpr RegEntry g_NephriteAfter[] = {
    { 0x305E, 0x20 }, { 0x3063, 0x74 }, { 0x3044, 0xE1 }, { REG_ADC_BITS, 1 }, { 0x3036, 12 }, { REG_WINDOW_MODE, 0x40 },
};

// --- one row a family ---

// clang-format off
constexpr QuartzTraits g_Quartz = {
    .fpga = { 18, 43272, 360715, 9281, 100, 100000, false,
              { .hold = REG_HOLD, .left = 0x3040, .top = 0x303C, .black = REG_BLACK } },
    .law = { 17, 18, 1, 2, 16, 1, 0xFFFFFF, 2 },
    .initTable = g_QuartzInit, .initAfter = g_QuartzAfter, .regTail = 0x304B,
    .regOutput = 0x3046, .outputFast = 0xF0, .outputNormal = 0xF1, .readoutTrim = true,
    .clkBin = 9281, .clkNormal = 18562, .clkFast = 37124, .minBin = 145, .minNormal = 203, .minFast = 196,
    .clockKeepsGain = true, .regWidth = 0x3042, .regHeight = 0x303E,
    .fpgaXBin = 0, .fpgaYBin = 9, .fpgaX = 0, .fpgaY = 9,
    .highGainAbove = 60, .gainStep = 3, .gainBytes = 1, .gainHeld = true, .fpsFromLine = false,
};
constexpr QuartzTraits g_Onyx = {
    .fpga = { 18, 43272, 190906, 9281, 100, 100000, false,
              { .hold = REG_HOLD, .left = 0x303C, .top = 0x3038, .black = REG_BLACK } },
    .law = { 17, 18, 1, 2, 16, 1, 0xFFFFFF, 2 },
    .initTable = g_OnyxInit, .initAfter = g_OnyxAfter, .regTail = 0x3049,
    .regOutput = 0x3044, .outputFast = 0xE0, .outputNormal = 0xE1, .readoutTrim = false,
    .clkBin = 9281, .clkNormal = 18562, .clkFast = 37124, .minBin = 145, .minNormal = 292, .minFast = 249,
    .clockKeepsGain = true, .regWidth = 0x303E, .regHeight = 0x303A,
    .fpgaXBin = 2, .fpgaYBin = 5, .fpgaX = 4, .fpgaY = 9,
    .highGainAbove = 60, .gainStep = 1, .gainBytes = 2, .gainHeld = true, .fpsFromLine = false,
};
// clang-format on
// QUIRK: SetGain leaves the high-gain bit alone on Pyrite, but a clock change sets it above gain 60.
constexpr QuartzTraits g_Pyrite = [] {
    QuartzTraits q = g_Onyx;
    q.highGainAbove = 0;
    q.fpsFromLine = true;
    return q;
}();
// clang-format off
constexpr QuartzTraits g_Nephrite = {
    .fpga = { 21, 42830, 256981, 4640, 80, 500000, false,
              { .hold = REG_HOLD, .left = 0x303C, .top = 0x3038, .black = REG_BLACK } },
    .law = { 20, 21, 1, 0, 19, 1, 0xFFFFFF, 2 },
    .initTable = g_NephriteInit, .initAfter = g_NephriteAfter, .regTail = 0x3049,
    .regOutput = 0x3044, .outputFast = 0x60, .outputNormal = 0x61, .readoutTrim = false,
    .clkBin = 4640, .clkNormal = 9280, .clkFast = 18560, .minBin = 69, .minNormal = 138, .minFast = 138,
    .clockKeepsGain = false, .regWidth = 0x303E, .regHeight = 0x303A,
    .fpgaXBin = 2, .fpgaYBin = 5, .fpgaX = 4, .fpgaY = 9,
    .highGainAbove = 0, .gainStep = 3, .gainBytes = 1, .gainHeld = false, .fpsFromLine = false,
};

// --- one row a model ---

constexpr ModelTraits g_QuartzCol = {
    .family = Family::Quartz, .className = "CCameraSQuartzCol", .name = "VYR KOVQuartzCol",
    .key = L"SOFTWARE\\KOVQuartzCol", .products = { { 0xC11A, nullptr } },
    .width = 1936, .height = 1096, .pixelSize = 3.75, .bayer = BAYER_RG,
    .elecPerADU = 3.584f, .propA = 10, .propB = 18, .propC = 300, .propD = 75,
    .gain = { 0, 600, 200 }, .exposure = { 32, 1000000000, 10000 }, .wbR = 52, .wbB = 95,
    .brightness = { 0, 240, 1 }, .fpsPercUsb3 = 100, .clock = 9281, .hmax = 203, .maxExposure = 1000000000,
    .autoGainMax = 300, .autoExpMaxCap = 1000, .caps = CAP_COMMON | CAP_AUTO | CAP_WB,
    .start = START_AUTO_FPS, .close = CLOSE_CLEARS_POINTER,
    .bins = { 1 }, .controls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 14, -1 },
};
// clang-format on

// QUIRK: the monochrome model lists CTRL_WB_B but not CTRL_WB_R.
constexpr ModelTraits g_QuartzMono = [] {
    ModelTraits t = Named(Mono(g_QuartzCol), "CCameraSQuartzMono", "VYR KOVQuartzMono", L"SOFTWARE\\KOVQuartzMono", 0xC11B);
    t.caps |= CAP_WB_B;
    constexpr int8_t controls[] = { 0, 1, 2, 4, 5, 6, 8, 9, 10, 11, 12, 14, -1 };
    std::copy(std::begin(controls), std::end(controls), t.controls);
    return t;
}();

// clang-format off
constexpr ModelTraits g_OnyxCol = {
    .family = Family::Onyx, .className = "CCameraSOnyxCol", .name = "VYR KOVOnyxCol",
    .key = L"SOFTWARE\\KOVOnyxCol", .products = { { 0xC0FA, nullptr } },
    .width = 1304, .height = 976, .pixelSize = 3.75, .bayer = BAYER_RG,
    .elecPerADU = 4.688f, .propA = 10, .propB = 20, .propC = 350, .propD = 140,
    .gain = { 0, 600, 200 }, .exposure = { 32, 1000000000, 10000 }, .wbR = 52, .wbB = 95,
    .brightness = { 0, 240, 1 }, .fpsPercUsb3 = 100, .clock = 9281, .hmax = 292, .maxExposure = 1000000000,
    .autoGainMax = 300, .autoExpMaxCap = 1000, .caps = CAP_COMMON | CAP_AUTO | CAP_WB | CAP_FLIP,
    .start = START_AUTO_FPS | START_HARDWARE_BIN,
    .bins = { 1, 2, 3 }, .controls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 14, -1 },
};
// clang-format on
constexpr ModelTraits g_OnyxCol_C =
    Cooled(g_OnyxCol, "CCameraSOnyxCol_C", "VYR KOVOnyxCol-Cool", L"SOFTWARE\\KOVOnyxCol-C", 0xC0FB);
constexpr ModelTraits g_PyriteCol = [] {
    ModelTraits t = Named(g_OnyxCol, "CCameraSPyriteCol", "VYR KOVPyriteCol", L"SOFTWARE\\KOVPyriteCol", 0xC10A);
    t.family = Family::Pyrite;
    t.elecPerADU = 0;
    t.propA = t.propB = 0;
    t.propC = t.propD = -1;
    t.close = CLOSE_CLEARS_POINTER;
    t.bins[2] = 0;
    return t;
}();

// clang-format off
constexpr ModelTraits g_NephriteCol = {
    .family = Family::Nephrite, .className = "CCameraSNephriteCol", .name = "VYR KOVNephriteCol",
    .key = L"SOFTWARE\\KOVNephriteCol", .products = { { 0xC0EA, nullptr } },
    .width = 1944, .height = 1224, .pixelSize = 3.75, .bayer = BAYER_RG,
    .elecPerADU = 5.584f, .propA = 10, .propB = 26, .propC = 250, .propD = 75,
    .gain = { 0, 480, 200 }, .exposure = { 32, 1000000000, 10000 }, .wbR = 50, .wbB = 90,
    .brightness = { 0, 500, 1 }, .clock = 4640, .hmax = 138, .maxExposure = 1000000000,
    .autoGainMax = 240, .autoExpMaxCap = 1000, .caps = CAP_COMMON | CAP_AUTO | CAP_WB | CAP_FLIP,
    .start = START_AUTO_FPS | START_HARDWARE_BIN,
    .bins = { 1, 2 }, .controls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 14, -1 },
    .phases = { { 2, -4, 0, -4, 0 } },
};
// clang-format on
constexpr ModelTraits g_NephriteCol_C =
    Cooled(g_NephriteCol, "CCameraSNephriteCol_C", "VYR KOVNephriteCol-Cool", L"SOFTWARE\\KOVNephriteCol-C", 0xC0EB);

// One pair a class.
template <const ModelTraits& t, const QuartzTraits& q>
ClassVars g_Vars{ { q.fpga.unitUsb3 }, { q.minNormal } };

}  // namespace

CCameraSQuartzCol::CCameraSQuartzCol(void* handle) : CWhole(g_QuartzCol, g_Quartz, g_Vars<g_QuartzCol, g_Quartz>, handle) {}
CCameraSQuartzMono::CCameraSQuartzMono(void* handle) : CWhole(g_QuartzMono, g_Quartz, g_Vars<g_QuartzMono, g_Quartz>, handle) {}
CCameraSOnyxCol::CCameraSOnyxCol(void* handle) : CWhole(g_OnyxCol, g_Onyx, g_Vars<g_OnyxCol, g_Onyx>, handle) {}
CCameraSOnyxCol_C::CCameraSOnyxCol_C(void* handle) : CWhole(g_OnyxCol_C, g_Onyx, g_Vars<g_OnyxCol_C, g_Onyx>, handle) {}
CCameraSPyriteCol::CCameraSPyriteCol(void* handle) : CWhole(g_PyriteCol, g_Pyrite, g_Vars<g_PyriteCol, g_Pyrite>, handle) {}
CCameraSNephriteCol::CCameraSNephriteCol(void* handle)
    : CWhole(g_NephriteCol, g_Nephrite, g_Vars<g_NephriteCol, g_Nephrite>, handle)
{
}
CCameraSNephriteCol_C::CCameraSNephriteCol_C(void* handle)
    : CWhole(g_NephriteCol_C, g_Nephrite, g_Vars<g_NephriteCol_C, g_Nephrite>, handle)
{
}

template <class Base>
CQuartz<Base>::CQuartz(const ModelTraits& t, const QuartzTraits& q, ClassVars& v, void* handle)
    : CFpgaModel<Base>(t, q.fpga, v, handle), m_quartz(q)
{
}

template <class Base>
void CQuartz<Base>::InitSensor()
{
    model::RunTable8(*this, m_quartz.initTable);
    model::RunTable8(*this, m_quartz.initAfter);
    this->Fpga(FPGA_RUN, RUN_RESET);
    platform::SleepMs(20);
    this->SendCMD(REQ_START_SENSOR_CLOCK);
    this->Write8(REG_MASTER_STOP, 1);
    this->Write8(m_quartz.regTail, 0);
    this->FinishFpgaInit();
}

template <class Base>
bool CQuartz<Base>::SetOutput16Bits(bool on)
{
    this->TakeOutput16Bits(on);
    const bool fast = this->m_bHighSpeed && !on && !this->InHardBin2();
    this->Write8(m_quartz.regOutput, fast ? m_quartz.outputFast : m_quartz.outputNormal);
    this->Write8(REG_ADC_BITS, fast || this->InHardBin2() ? 0 : 1);
    bool ok = this->Fpga(FPGA_FORMAT, fast ? 0 : on ? 17 : 1);
    if (m_quartz.readoutTrim) {
        this->Write8(REG_UNK_3129, fast ? 0x1D : 0);
        this->Write8(REG_UNK_317C, fast ? 0x12 : 0);
        ok = this->Write8(REG_UNK_31EC, fast ? 0x37 : 0x0E);
    }
    return ok;
}

template <class Base>
bool CQuartz<Base>::SetCMOSClk()
{
    if (this->InHardBin2()) {
        this->m_iCMOSClk = m_quartz.clkBin;
        this->m_vars.minHmax = m_quartz.minBin;
        return this->Write8(REG_CLOCK, HighGainBit());
    }
    if (this->m_bHighSpeed && !this->m_bOutput16Bits) {
        this->m_iCMOSClk = m_quartz.clkFast;
        this->m_vars.minHmax = m_quartz.minFast;
        return this->Write8(REG_CLOCK, HighGainBit());
    }
    this->m_iCMOSClk = m_quartz.clkNormal;
    this->m_vars.minHmax = m_quartz.minNormal;
    return this->Write8(REG_CLOCK, HighGainBit() | 1);
}

template <class Base>
bool CQuartz<Base>::SetCMOSClk(int clock)
{
    this->m_iCMOSClk = clock;
    if (clock == m_quartz.clkBin && this->InHardBin2()) {
        this->m_vars.minHmax = m_quartz.minBin;
        return this->Write8(REG_CLOCK, HighGainBit());
    }
    const bool known = clock == m_quartz.clkNormal || clock == m_quartz.clkFast;
    if (!known || this->m_traits.family == Family::Nephrite)
        this->m_vars.minHmax = m_quartz.minNormal;
    return this->Write8(REG_CLOCK, HighGainBit() + (clock == m_quartz.clkFast ? 0 : clock == m_quartz.clkNormal ? 1 : 2));
}

template <class Base>
bool CQuartz<Base>::SetExp(uint64_t microseconds, bool autoMode)
{
    this->TakeExp(microseconds, autoMode);
    this->SwitchLongExp(EXP_LONG, RUN_GO_LONG);

    const ExposureRegs r = CalcExposure(m_quartz.law, this->m_lExposure, this->LineTime(), this->SensorH());
    this->m_iFrameTime = r.frameTime;
    this->m_iExpLines = r.expLines;
    this->Write8(REG_HOLD, 1);
    this->WriteVMAX(r.vmax);
    this->WriteBytes(REG_SHS, r.shs, 3);
    return this->Write8(REG_HOLD, 0);
}

template <class Base>
bool CQuartz<Base>::SetGain(int gain, bool autoMode)
{
    const int g = this->TakeGain(gain, autoMode);
    const bool high = m_quartz.highGainAbove != 0 && g > m_quartz.highGainAbove;
    if (m_quartz.gainHeld)
        this->Write8(REG_HOLD, 1);
    if (m_quartz.highGainAbove != 0) {
        // QUIRK: a lost answer counts as 0, and so the divider becomes the fast one. In other modes the lines are too
        // short for it, and the host gets useless frames until a change of region or speed writes the clock again.
        uint8_t clk = 0;
        this->ReadSONYREG(REG_CLOCK, &clk);
        this->Write8(REG_CLOCK, high ? clk | 0x10u : clk & 0x0Fu);
    }
    const int code = (g - (high ? m_quartz.highGainAbove : 0)) / m_quartz.gainStep;
    bool ok = this->WriteBytes(REG_GAIN, uint32_t(code), m_quartz.gainBytes);
    if (m_quartz.gainHeld)
        ok = this->Write8(REG_HOLD, 0);
    return ok;
}

template <class Base>
bool CQuartz<Base>::Cam_SetResolution()
{
    const bool bin = this->InHardBin2();
    this->Fpga(FPGA_HOLD, 1);
    this->Write8(REG_READ_MODE, bin ? 0x22 : 0);
    this->Fpga(FPGA_START_X, bin ? m_quartz.fpgaXBin : m_quartz.fpgaX);
    this->Fpga(FPGA_START_Y, bin ? m_quartz.fpgaYBin : m_quartz.fpgaY);
    this->WriteBytes(m_quartz.regWidth, uint32_t(this->m_iWidth * this->m_iBin), 2);
    this->WriteBytes(m_quartz.regHeight, uint32_t(this->m_iHeight * this->m_iBin), 2);
    this->WriteSensorSizeToFpga();
    return this->Fpga(FPGA_HOLD, 0);
}

template <class Base>
bool CQuartz<Base>::StartSensorStreaming()
{
    this->Write8(REG_STANDBY, 0);
    platform::SleepMs(20);
    return this->Go();
}

template <class Base>
bool CQuartz<Base>::StopSensorStreaming()
{
    this->Halt();
    return this->Write8(REG_STANDBY, 1);
}

template <class Base>
float CQuartz<Base>::MaxFPSNow()
{
    return m_quartz.fpsFromLine ? this->FPSFromLine(this->SensorH()) : CFpgaModel<Base>::MaxFPSNow();
}

template class CQuartz<CCameraBase>;
template class CQuartz<CCameraCool>;
