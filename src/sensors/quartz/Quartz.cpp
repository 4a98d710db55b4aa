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
              { .wHold = REG_HOLD, .wLeft = 0x3040, .wTop = 0x303C, .wBlack = REG_BLACK } },
    .law = { 17, 18, 1, 2, 16, 1, 0xFFFFFF, 2 },
    .initTable = g_QuartzInit, .initAfter = g_QuartzAfter, .wRegTail = 0x304B,
    .wRegOutput = 0x3046, .bOutputFast = 0xF0, .bOutputNormal = 0xF1, .bReadoutTrim = true,
    .iClkBin = 9281, .iClkNormal = 18562, .iClkFast = 37124, .iMinBin = 145, .iMinNormal = 203, .iMinFast = 196,
    .bClockKeepsGain = true, .wRegWidth = 0x3042, .wRegHeight = 0x303E,
    .bFpgaXBin = 0, .bFpgaYBin = 9, .bFpgaX = 0, .bFpgaY = 9,
    .iHighGainAbove = 60, .iGainStep = 3, .iGainBytes = 1, .bGainHeld = true, .bFPSFromLine = false,
};
constexpr QuartzTraits g_Onyx = {
    .fpga = { 18, 43272, 190906, 9281, 100, 100000, false,
              { .wHold = REG_HOLD, .wLeft = 0x303C, .wTop = 0x3038, .wBlack = REG_BLACK } },
    .law = { 17, 18, 1, 2, 16, 1, 0xFFFFFF, 2 },
    .initTable = g_OnyxInit, .initAfter = g_OnyxAfter, .wRegTail = 0x3049,
    .wRegOutput = 0x3044, .bOutputFast = 0xE0, .bOutputNormal = 0xE1, .bReadoutTrim = false,
    .iClkBin = 9281, .iClkNormal = 18562, .iClkFast = 37124, .iMinBin = 145, .iMinNormal = 292, .iMinFast = 249,
    .bClockKeepsGain = true, .wRegWidth = 0x303E, .wRegHeight = 0x303A,
    .bFpgaXBin = 2, .bFpgaYBin = 5, .bFpgaX = 4, .bFpgaY = 9,
    .iHighGainAbove = 60, .iGainStep = 1, .iGainBytes = 2, .bGainHeld = true, .bFPSFromLine = false,
};
// clang-format on
// QUIRK: SetGain leaves the high-gain bit alone on Pyrite, but a clock change sets it above gain 60.
constexpr QuartzTraits g_Pyrite = [] {
    QuartzTraits q = g_Onyx;
    q.iHighGainAbove = 0;
    q.bFPSFromLine = true;
    return q;
}();
// clang-format off
constexpr QuartzTraits g_Nephrite = {
    .fpga = { 21, 42830, 256981, 4640, 80, 500000, false,
              { .wHold = REG_HOLD, .wLeft = 0x303C, .wTop = 0x3038, .wBlack = REG_BLACK } },
    .law = { 20, 21, 1, 0, 19, 1, 0xFFFFFF, 2 },
    .initTable = g_NephriteInit, .initAfter = g_NephriteAfter, .wRegTail = 0x3049,
    .wRegOutput = 0x3044, .bOutputFast = 0x60, .bOutputNormal = 0x61, .bReadoutTrim = false,
    .iClkBin = 4640, .iClkNormal = 9280, .iClkFast = 18560, .iMinBin = 69, .iMinNormal = 138, .iMinFast = 138,
    .bClockKeepsGain = false, .wRegWidth = 0x303E, .wRegHeight = 0x303A,
    .bFpgaXBin = 2, .bFpgaYBin = 5, .bFpgaX = 4, .bFpgaY = 9,
    .iHighGainAbove = 0, .iGainStep = 3, .iGainBytes = 1, .bGainHeld = false, .bFPSFromLine = false,
};

// --- one row a model ---

constexpr ModelTraits g_QuartzCol = {
    .family = Family::Quartz, .szClass = "CCameraSQuartzCol", .szName = "VYR KOVQuartzCol",
    .szKey = L"SOFTWARE\\KOVQuartzCol", .aProducts = { { 0xC11A, nullptr } },
    .iWidth = 1936, .iHeight = 1096, .dPixelSize = 3.75, .bayer = BAYER_RG,
    .fElecPerADU = 3.584f, .iPropA = 10, .iPropB = 18, .iPropC = 300, .iPropD = 75,
    .gain = { 0, 600, 200 }, .exposure = { 32, 1000000000, 10000 }, .iWB_R = 52, .iWB_B = 95,
    .brightness = { 0, 240, 1 }, .iFPSPercUSB3 = 100, .iClk = 9281, .iHMAX = 203, .iMaxExposure = 1000000000,
    .iAutoGainMax = 300, .iAutoExpMaxCap = 1000, .wCaps = CAP_COMMON | CAP_AUTO | CAP_WB,
    .bStart = START_AUTO_FPS, .bClose = CLOSE_CLEARS_POINTER,
    .aBins = { 1 }, .aControls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 14, -1 },
};
// clang-format on

// QUIRK: the monochrome model lists CTRL_WB_B but not CTRL_WB_R.
constexpr ModelTraits g_QuartzMono = [] {
    ModelTraits t = Named(Mono(g_QuartzCol), "CCameraSQuartzMono", "VYR KOVQuartzMono", L"SOFTWARE\\KOVQuartzMono", 0xC11B);
    t.wCaps |= CAP_WB_B;
    constexpr int8_t controls[] = { 0, 1, 2, 4, 5, 6, 8, 9, 10, 11, 12, 14, -1 };
    std::copy(std::begin(controls), std::end(controls), t.aControls);
    return t;
}();

// clang-format off
constexpr ModelTraits g_OnyxCol = {
    .family = Family::Onyx, .szClass = "CCameraSOnyxCol", .szName = "VYR KOVOnyxCol",
    .szKey = L"SOFTWARE\\KOVOnyxCol", .aProducts = { { 0xC0FA, nullptr } },
    .iWidth = 1304, .iHeight = 976, .dPixelSize = 3.75, .bayer = BAYER_RG,
    .fElecPerADU = 4.688f, .iPropA = 10, .iPropB = 20, .iPropC = 350, .iPropD = 140,
    .gain = { 0, 600, 200 }, .exposure = { 32, 1000000000, 10000 }, .iWB_R = 52, .iWB_B = 95,
    .brightness = { 0, 240, 1 }, .iFPSPercUSB3 = 100, .iClk = 9281, .iHMAX = 292, .iMaxExposure = 1000000000,
    .iAutoGainMax = 300, .iAutoExpMaxCap = 1000, .wCaps = CAP_COMMON | CAP_AUTO | CAP_WB | CAP_FLIP,
    .bStart = START_AUTO_FPS | START_HARDWARE_BIN,
    .aBins = { 1, 2, 3 }, .aControls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 14, -1 },
};
// clang-format on
constexpr ModelTraits g_OnyxCol_C =
    Cooled(g_OnyxCol, "CCameraSOnyxCol_C", "VYR KOVOnyxCol-Cool", L"SOFTWARE\\KOVOnyxCol-C", 0xC0FB);
constexpr ModelTraits g_PyriteCol = [] {
    ModelTraits t = Named(g_OnyxCol, "CCameraSPyriteCol", "VYR KOVPyriteCol", L"SOFTWARE\\KOVPyriteCol", 0xC10A);
    t.family = Family::Pyrite;
    t.fElecPerADU = 0;
    t.iPropA = t.iPropB = 0;
    t.iPropC = t.iPropD = -1;
    t.bClose = CLOSE_CLEARS_POINTER;
    t.aBins[2] = 0;
    return t;
}();

// clang-format off
constexpr ModelTraits g_NephriteCol = {
    .family = Family::Nephrite, .szClass = "CCameraSNephriteCol", .szName = "VYR KOVNephriteCol",
    .szKey = L"SOFTWARE\\KOVNephriteCol", .aProducts = { { 0xC0EA, nullptr } },
    .iWidth = 1944, .iHeight = 1224, .dPixelSize = 3.75, .bayer = BAYER_RG,
    .fElecPerADU = 5.584f, .iPropA = 10, .iPropB = 26, .iPropC = 250, .iPropD = 75,
    .gain = { 0, 480, 200 }, .exposure = { 32, 1000000000, 10000 }, .iWB_R = 50, .iWB_B = 90,
    .brightness = { 0, 500, 1 }, .iClk = 4640, .iHMAX = 138, .iMaxExposure = 1000000000,
    .iAutoGainMax = 240, .iAutoExpMaxCap = 1000, .wCaps = CAP_COMMON | CAP_AUTO | CAP_WB | CAP_FLIP,
    .bStart = START_AUTO_FPS | START_HARDWARE_BIN,
    .aBins = { 1, 2 }, .aControls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 14, -1 },
    .aPhase = { { 2, -4, 0, -4, 0 } },
};
// clang-format on
constexpr ModelTraits g_NephriteCol_C =
    Cooled(g_NephriteCol, "CCameraSNephriteCol_C", "VYR KOVNephriteCol-Cool", L"SOFTWARE\\KOVNephriteCol-C", 0xC0EB);

// One pair a class.
template <const ModelTraits& t, const QuartzTraits& q>
ClassVars g_Vars{ { q.fpga.iUnitUSB3 }, { q.iMinNormal } };

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
    : CFpgaModel<Base>(t, q.fpga, v, handle), m_Q(q)
{
}

template <class Base>
void CQuartz<Base>::InitSensor()
{
    model::RunTable8(*this, m_Q.initTable);
    model::RunTable8(*this, m_Q.initAfter);
    this->Fpga(FPGA_RUN, RUN_RESET);
    platform::SleepMs(20);
    this->SendCMD(REQ_START_SENSOR_CLOCK);
    this->Write8(REG_MASTER_STOP, 1);
    this->Write8(m_Q.wRegTail, 0);
    this->FinishFpgaInit();
}

template <class Base>
bool CQuartz<Base>::SetOutput16Bits(bool on)
{
    this->TakeOutput16Bits(on);
    const bool fast = this->m_bHighSpeed && !on && !this->InHardBin2();
    this->Write8(m_Q.wRegOutput, fast ? m_Q.bOutputFast : m_Q.bOutputNormal);
    this->Write8(REG_ADC_BITS, fast || this->InHardBin2() ? 0 : 1);
    bool ok = this->Fpga(FPGA_FORMAT, fast ? 0 : on ? 17 : 1);
    if (m_Q.bReadoutTrim) {
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
        this->m_iCMOSClk = m_Q.iClkBin;
        this->m_Vars.iMinHMAX = m_Q.iMinBin;
        return this->Write8(REG_CLOCK, HighGainBit());
    }
    if (this->m_bHighSpeed && !this->m_bOutput16Bits) {
        this->m_iCMOSClk = m_Q.iClkFast;
        this->m_Vars.iMinHMAX = m_Q.iMinFast;
        return this->Write8(REG_CLOCK, HighGainBit());
    }
    this->m_iCMOSClk = m_Q.iClkNormal;
    this->m_Vars.iMinHMAX = m_Q.iMinNormal;
    return this->Write8(REG_CLOCK, HighGainBit() | 1);
}

template <class Base>
bool CQuartz<Base>::SetCMOSClk(int clock)
{
    this->m_iCMOSClk = clock;
    if (clock == m_Q.iClkBin && this->InHardBin2()) {
        this->m_Vars.iMinHMAX = m_Q.iMinBin;
        return this->Write8(REG_CLOCK, HighGainBit());
    }
    const bool known = clock == m_Q.iClkNormal || clock == m_Q.iClkFast;
    if (!known || this->m_Traits.family == Family::Nephrite)
        this->m_Vars.iMinHMAX = m_Q.iMinNormal;
    return this->Write8(REG_CLOCK, HighGainBit() + (clock == m_Q.iClkFast ? 0 : clock == m_Q.iClkNormal ? 1 : 2));
}

template <class Base>
bool CQuartz<Base>::SetExp(uint64_t microseconds, bool autoMode)
{
    this->TakeExp(microseconds, autoMode);
    this->SwitchLongExp(EXP_LONG, RUN_GO_LONG);

    const ExposureRegs r = CalcExposure(m_Q.law, this->m_lExposure, this->LineTime(), this->SensorH());
    this->m_iFrameTime = r.iFrameTime;
    this->m_iExpLines = r.iExpLines;
    this->Write8(REG_HOLD, 1);
    this->WriteVMAX(r.lVMAX);
    this->WriteBytes(REG_SHS, r.lSHS, 3);
    return this->Write8(REG_HOLD, 0);
}

template <class Base>
bool CQuartz<Base>::SetGain(int gain, bool autoMode)
{
    const int g = this->TakeGain(gain, autoMode);
    const bool high = m_Q.iHighGainAbove != 0 && g > m_Q.iHighGainAbove;
    if (m_Q.bGainHeld)
        this->Write8(REG_HOLD, 1);
    if (m_Q.iHighGainAbove != 0) {
        // QUIRK: a lost answer counts as 0, and so the divider becomes the fast one. In other modes the lines are too
        // short for it, and the host gets useless frames until a change of region or speed writes the clock again.
        uint8_t clk = 0;
        this->ReadSONYREG(REG_CLOCK, &clk);
        this->Write8(REG_CLOCK, high ? clk | 0x10u : clk & 0x0Fu);
    }
    const int code = (g - (high ? m_Q.iHighGainAbove : 0)) / m_Q.iGainStep;
    bool ok = this->WriteBytes(REG_GAIN, uint32_t(code), m_Q.iGainBytes);
    if (m_Q.bGainHeld)
        ok = this->Write8(REG_HOLD, 0);
    return ok;
}

template <class Base>
bool CQuartz<Base>::Cam_SetResolution()
{
    const bool bin = this->InHardBin2();
    this->Fpga(FPGA_HOLD, 1);
    this->Write8(REG_READ_MODE, bin ? 0x22 : 0);
    this->Fpga(FPGA_START_X, bin ? m_Q.bFpgaXBin : m_Q.bFpgaX);
    this->Fpga(FPGA_START_Y, bin ? m_Q.bFpgaYBin : m_Q.bFpgaY);
    this->WriteBytes(m_Q.wRegWidth, uint32_t(this->m_iWidth * this->m_iBin), 2);
    this->WriteBytes(m_Q.wRegHeight, uint32_t(this->m_iHeight * this->m_iBin), 2);
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
    return m_Q.bFPSFromLine ? this->FPSFromLine(this->SensorH()) : CFpgaModel<Base>::MaxFPSNow();
}

template class CQuartz<CCameraBase>;
template class CQuartz<CCameraCool>;
