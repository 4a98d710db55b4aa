#include "sensors/marble/Marble.h"

#include <atomic>
#include <cstdint>

#include "RegisterTables.h"
#include "platform/Platform.h"
#include "sensors/RegisterTable.h"
#include "sensors/SonyExposure.h"

namespace {

enum Reg : uint16_t {
    REG_STANDBY = 0x3000,
    REG_HOLD = 0x3007,
    REG_MASTER_STOP = 0x3008,
    REG_OUTPUT_BITS = 0x300D,  // 0 fast 8-bit path, 2 normal, 9 binned
    REG_READ_MODE = 0x300E,    // 0x23 bins 2 x 2, with 0x3010 = 1
    REG_READ_MODE2 = 0x3010,
    REG_BLACK = 0x3015,      // 2 bytes
    REG_HIGH_GAIN = 0x301B,  // 30 above gain 30
    REG_GAIN = 0x301F,       // 2 bytes, 0.1 dB
    REG_SHS = 0x3034,        // 3 bytes
    REG_UNK_3041 = 0x3041,
    REG_UNK_3042 = 0x3042,
    REG_OUTPUT_PATH = 0x3059,  // 0 fast, 2 normal
    REG_CLOCK = 0x3101,        // 0x30 27 MHz, 0x32 a quarter
    REG_WINDOW_LEFT = 0x319C,
    REG_WINDOW_WIDTH = 0x319E,
    REG_WINDOW_TOP = 0x31A0,
    REG_WINDOW_HEIGHT = 0x31A2,
};

constexpr uint64_t EXP_LONG = 1'000'000;                              // us
constexpr int GAIN_HIGH_ABOVE = 30;                                   // 0.1 dB
constexpr int32_t CLK_BIN = 6750, CLK_NORMAL = 27000;                 // kHz
constexpr int32_t HMAX_BIN = 73, HMAX_FAST = 210, HMAX_NORMAL = 419;  // clocks

constexpr FpgaTraits g_Fpga = { 29, 43000,  385000, CLK_BIN,
                                60, 600000, true,   { REG_HOLD, REG_WINDOW_LEFT, REG_WINDOW_TOP, REG_BLACK } };
constexpr ExposureLaw g_Law = { 28, 29, 0, 0, 28, 1, 0xFFFFF, 1 };

// clang-format off
constexpr ModelTraits g_Col = {
    .family = Family::Marble, .className = "CCameraSMarbleCol", .name = "VYR KOVMarbleCol",
    .key = L"SOFTWARE\\KOVMarbleCol", .products = { { 0xC0DA, nullptr } },
    .width = 3096, .height = 2080, .pixelSize = 2.40, .bayer = BAYER_RG,
    .elecPerADU = 0.916f, .propA = 25, .propB = 25, .propC = 300, .propD = 340,
    .gain = { 0, 510, 210 }, .exposure = { 32, 1024000000, 10000 }, .wbR = 70, .wbB = 90,
    .brightness = { 0, 600, 10 }, .fpsPercUsb3 = 60, .clock = 6750, .hmax = 420, .maxExposure = 1024000000,
    .autoGainMax = 255, .autoExpMaxCap = 1024, .caps = CAP_COMMON | CAP_AUTO | CAP_FLIP | CAP_WB,
    .start = START_AUTO_FPS | START_HARDWARE_BIN,
    .bins = { 1, 2, 3, 4 }, .controls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 14, -1 },
};
// clang-format on
constexpr ModelTraits g_Mono = Named(Mono(g_Col), "CCameraSMarbleMono", "VYR KOVMarbleMono", L"SOFTWARE\\KOVMarbleMono", 0xC0DC);
constexpr ModelTraits g_Col_C =
    Cooled(g_Col, "CCameraSMarbleCol_C", "VYR KOVMarbleCol-Cool", L"SOFTWARE\\KOVMarbleCol-C", 0xC0DB);
constexpr ModelTraits g_Mono_C =
    Cooled(g_Mono, "CCameraSMarbleMono_C", "VYR KOVMarbleMono-Cool", L"SOFTWARE\\KOVMarbleMono-C", 0xC0DD);

template <const ModelTraits& t>
ClassVars g_Vars{ { g_Fpga.unitUsb3 }, { HMAX_NORMAL } };

}  // namespace

CCameraSMarbleCol::CCameraSMarbleCol(void* handle) : CWhole(g_Col, g_Vars<g_Col>, handle) {}
CCameraSMarbleMono::CCameraSMarbleMono(void* handle) : CWhole(g_Mono, g_Vars<g_Mono>, handle) {}
CCameraSMarbleCol_C::CCameraSMarbleCol_C(void* handle) : CWhole(g_Col_C, g_Vars<g_Col_C>, handle) {}
CCameraSMarbleMono_C::CCameraSMarbleMono_C(void* handle) : CWhole(g_Mono_C, g_Vars<g_Mono_C>, handle) {}

template <class Base>
CMarble<Base>::CMarble(const ModelTraits& t, ClassVars& v, void* handle) : CFpgaModel<Base>(t, g_Fpga, v, handle)
{
}

template <class Base>
void CMarble<Base>::InitSensor()
{
    model::RunTable8(*this, g_MarbleInit);
    static constexpr RegEntry after[] = {
        { REG_OUTPUT_PATH, 0 }, { REG_OUTPUT_BITS, 0 }, { 0x3004, 0 }, { 0x31A4, 1 }, { 0x31A5, 1 },
    };
    model::RunTable8(*this, after);
    this->Fpga(FPGA_RUN, RUN_RESET);
    platform::SleepMs(20);
    this->SendCMD(REQ_START_SENSOR_CLOCK);
    this->Write8(REG_MASTER_STOP, 1);
    this->Write8(0x305E, 0);
    this->FinishFpgaInit();
}

template <class Base>
bool CMarble<Base>::SetOutput16Bits(bool on)
{
    this->TakeOutput16Bits(on);
    if (this->m_bHighSpeed && !on && !this->InHardBin()) {
        this->m_vars.minHmax = HMAX_FAST;
        this->Write8(REG_OUTPUT_BITS, 0);
        this->Fpga(FPGA_FORMAT, 0);
        return this->Write8(REG_OUTPUT_PATH, 0);
    }
    this->m_vars.minHmax = this->InHardBin() ? HMAX_BIN : HMAX_NORMAL;
    this->Write8(REG_OUTPUT_BITS, this->InHardBin() ? 9 : 2);
    this->Write8(REG_OUTPUT_PATH, 2);
    return this->Fpga(FPGA_FORMAT, on ? 17 : 1);
}

template <class Base>
bool CMarble<Base>::SetCMOSClk()
{
    return SetCMOSClk(this->InHardBin() ? CLK_BIN : CLK_NORMAL);
}

template <class Base>
bool CMarble<Base>::SetCMOSClk(int clock)
{
    this->m_iCMOSClk = clock;
    if (clock != CLK_BIN && clock != CLK_NORMAL)
        return true;
    return this->Write8(REG_CLOCK, clock == CLK_BIN ? 0x32 : 0x30);
}

template <class Base>
bool CMarble<Base>::SetExp(uint64_t microseconds, bool autoMode)
{
    this->TakeExp(microseconds, autoMode);
    this->SwitchLongExp(EXP_LONG, RUN_GO_LONG);

    // The wish for hardware binning costs 16 lines at every bin.
    const int lines = this->m_iHeight * this->m_iBin + (this->m_bHardwareBin ? 16 : 0);
    const float t0 = this->m_bOutput16Bits ? 0.28f : 0.36f;  // us
    const ExposureRegs r = CalcExposure(g_Law, this->m_lExposure, this->LineTime(), lines, t0);
    this->m_iFrameTime = r.frameTime;
    this->m_iExpLines = r.expLines;
    this->Write8(REG_HOLD, 1);
    this->WriteVMAX(r.vmax);
    this->WriteBytes(REG_SHS, r.shs, 3);
    this->Write8(REG_UNK_3041, 0);
    this->Write8(REG_UNK_3042, 0);
    return this->Write8(REG_HOLD, 0);
}

template <class Base>
bool CMarble<Base>::SetGain(int gain, bool autoMode)
{
    const int g = this->TakeGain(gain, autoMode);
    const bool isHigh = g > GAIN_HIGH_ABOVE;
    const uint32_t high = isHigh ? GAIN_HIGH_ABOVE : 0;
    return this->WriteHeld({ { REG_HIGH_GAIN, high }, { REG_GAIN, uint32_t(g) - high, 2 } });
}

template <class Base>
bool CMarble<Base>::Cam_SetResolution()
{
    const bool bin = this->InHardBin();
    this->Fpga(FPGA_HOLD, 1);
    this->Write8(REG_READ_MODE, bin ? 0x23 : 0);
    this->Write8(REG_READ_MODE2, bin ? 1 : 0);
    this->Fpga(FPGA_START_X, 0);
    this->Fpga(FPGA_START_Y, bin ? 11 : 15);
    this->WriteBytes(REG_WINDOW_HEIGHT, uint32_t(this->m_iHeight * this->m_iBin), 2);
    this->WriteBytes(REG_WINDOW_WIDTH, uint32_t(this->m_iWidth * this->m_iBin), 2);
    this->WriteSensorSizeToFpga();
    return this->Fpga(FPGA_HOLD, 0);
}

template <class Base>
bool CMarble<Base>::StartSensorStreaming()
{
    this->Write8(REG_STANDBY, 6);
    platform::SleepMs(2);
    this->Write8(REG_STANDBY, 0);
    platform::SleepMs(10);
    return this->Go();
}

template <class Base>
bool CMarble<Base>::StopSensorStreaming()
{
    this->Halt();
    return this->Write8(REG_STANDBY, 1);
}

template class CMarble<CCameraBase>;
template class CMarble<CCameraCool>;
