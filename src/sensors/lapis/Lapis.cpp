#include "sensors/lapis/Lapis.h"

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "RegisterTables.h"
#include "platform/Platform.h"
#include "sensors/RegisterTable.h"

namespace {

enum Reg : uint16_t {
    REG_STANDBY = 0x0200,
    REG_HOLD = 0x020C,
    REG_MASTER_STOP = 0x0212,
    REG_ADC = 0x0214,
    REG_VMAX = 0x0217,
    REG_HMAX = 0x021A,
    REG_OUTPUT = 0x021C,
    REG_CLOCK = 0x0221,
    REG_PULSE = 0x022A,  // 1: the sensor's own shutter pulse generator
    REG_SYNC = 0x022E,
    REG_PULSE_UP1 = 0x0244,
    REG_PULSE_DOWN1 = 0x0247,
    REG_PULSE_UP2 = 0x024A,
    REG_PULSE_DOWN2 = 0x024D,  // 3 bytes each
    REG_PULSE_MASK = 0x025C,
    REG_CLOCK_A = 0x0292,
    REG_CLOCK_B = 0x0294,
    REG_SVR = 0x029A,  // 2 bytes, shutter line
    REG_WINDOW_LEFT = 0x0301,
    REG_WINDOW_TOP = 0x0303,
    REG_WINDOW_WIDTH = 0x0305,
    REG_WINDOW_HEIGHT = 0x0307,
    REG_GAIN = 0x0404,   // 2 bytes, 0.1 dB
    REG_BLACK = 0x0458,  // 2 bytes
};

constexpr float T0 = 13.73f;  // us, part of the exposure outside the counted lines
constexpr int32_t CLK_LONG = 13920;

constexpr FpgaTraits g_Fpga = { 38, 43272, 390000, 37125, 80, 0, true, { REG_HOLD, REG_WINDOW_LEFT, REG_WINDOW_TOP, REG_BLACK } };

// The two output modes: 10-bit fast and 12-bit normal. Addresses without a name are in no document at hand.
struct ModeRow {
    uint16_t reg;
    uint8_t fast, normal;
};
constexpr ModeRow g_Modes[] = {
    { REG_OUTPUT, 0x10, 0x11 }, { REG_ADC, 0, 1 },   { 0x02BC, 0x30, 0x10 }, { 0x02BF, 0x40, 0x20 },
    { 0x02C0, 1, 2 },           { 0x02C6, 1, 3 },    { 0x02D2, 5, 0x0F },    { 0x0412, 0x40, 0x20 },
    { 0x0413, 0x40, 0x20 },     { 0x041A, 0x0F, 8 }, { 0x0568, 0x22, 0x11 }, { 0x0575, 0x0B, 0x0F },
};

// QUIRK: all four classes accept the product IDs of the two LapisMono variants and take their names.
// clang-format off
constexpr ModelTraits g_Col = {
    .family = Family::Lapis, .className = "CCameraSLapisCol", .name = "VYR KOVLapisCol",
    .key = L"SOFTWARE\\KOVLapisCol",
    .products = { { 0xC0CA, nullptr }, { 0xC0CE, "VYR KOVLapisMono-A" }, { 0xC0CF, "VYR KOVLapisMono-B" } },
    .width = 1936, .height = 1216, .pixelSize = 5.86, .bayer = BAYER_RG,
    .elecPerADU = 7.920f, .propA = 10, .propB = 27, .propC = 300, .propD = 90,
    .gain = { 0, 400, 200 }, .exposure = { 32, 300000000, 10000 }, .wbR = 60, .wbB = 99,
    .brightness = { 0, 240, 1 }, .clock = 74250, .hmax = 1440, .maxExposure = 300000000, .autoGainMax = 200,
    .caps = CAP_COMMON | CAP_AUTO | CAP_WB, .start = START_AUTO_FPS, .close = CLOSE_CLEARS_POINTER,
    .bins = { 1, 2 }, .controls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 14, -1 },
};
// clang-format on
constexpr ModelTraits g_Mono = [] {
    ModelTraits t = Named(Mono(g_Col), "CCameraSLapisMono", "VYR KOVLapisMono", L"SOFTWARE\\KOVLapisMono", 0xC0CB);
    t.bayer = BAYER_GR;
    t.wbR = 52;
    t.wbB = 95;
    return t;
}();
constexpr ModelTraits CooledLapis(const ModelTraits& base, const char* className, const char* name, const wchar_t* key,
                                  uint16_t productId)
{
    ModelTraits t = Cooled(base, className, name, key, productId);
    t.exposure.max = t.maxExposure = 1000000000;
    return t;
}
constexpr ModelTraits g_Col_C =
    CooledLapis(g_Col, "CCameraSLapisCol_C", "VYR KOVLapisCol-Cool", L"SOFTWARE\\KOVLapisCol-C", 0xC0CC);
constexpr ModelTraits g_Mono_C =
    CooledLapis(g_Mono, "CCameraSLapisMono_C", "VYR KOVLapisMono-Cool", L"SOFTWARE\\KOVLapisMono-C", 0xC0CD);

template <const ModelTraits& t>
ClassVars g_Vars{ { g_Fpga.unitUsb2 }, { 462 } };

}  // namespace

CCameraSLapisCol::CCameraSLapisCol(void* handle) : CWhole(g_Col, g_Vars<g_Col>, handle) {}
CCameraSLapisMono::CCameraSLapisMono(void* handle) : CWhole(g_Mono, g_Vars<g_Mono>, handle) {}
CCameraSLapisCol_C::CCameraSLapisCol_C(void* handle) : CWhole(g_Col_C, g_Vars<g_Col_C>, handle) {}
CCameraSLapisMono_C::CCameraSLapisMono_C(void* handle) : CWhole(g_Mono_C, g_Vars<g_Mono_C>, handle) {}

template <class Base>
CLapis<Base>::CLapis(const ModelTraits& t, ClassVars& v, void* handle) : CFpgaModel<Base>(t, g_Fpga, v, handle)
{
    // The firmware is not known yet: the old one's clock until InitCamera has read it.
    this->m_iCMOSClk = NormalClock();
}

template <class Base>
void CLapis<Base>::InitSensor()
{
    model::RunTable8(*this, g_LapisInit);
    static constexpr RegEntry after[] = { { REG_OUTPUT, 0 }, { REG_ADC, 0 }, { 0x0300, 3 }, { 0x0213, 0 } };
    model::RunTable8(*this, after);
    this->Fpga(FPGA_RUN, RUN_RESET);
    platform::SleepMs(20);
    if (IsOld()) {
        this->Fpga(FPGA_HOLD, 1);  // not a hold here: the output format, and it stays
        this->Fpga(FPGA_FORMAT, 1);
        this->UnityGains();
    } else {
        this->Write8(REG_MASTER_STOP, 1);
        this->Write8(REG_SYNC, 0);
        this->Fpga(FPGA_HOLD, 1);
        this->Fpga(FPGA_RUN, RUN_IDLE);
        this->Fpga(FPGA_FORMAT, 1);
        this->UnityGains();
        this->Fpga(FPGA_HOLD, 0);
    }
    this->SendCMD(REQ_STOP_SENSOR_CLOCK);
}

template <class Base>
void CLapis<Base>::InitClock()
{
    SetCMOSClk();
    this->SetFPSPerc(this->m_iFPSPerc, this->m_bAutoFPS);
}

template <class Base>
bool CLapis<Base>::SetOutput16Bits(bool on)
{
    this->TakeOutput16Bits(on);
    const bool fast = this->m_bHighSpeed && !on;
    this->m_vars.minHmax = fast ? (IsOld() ? 360 : 181) : (IsOld() ? 462 : 230);
    for (const ModeRow& r : g_Modes)
        this->Write8(r.reg, fast ? r.fast : r.normal);
    const uint32_t format = fast ? 0 : on ? 17 : 1;
    if (!IsOld())
        return this->Fpga(FPGA_FORMAT, format);
    this->Fpga(FPGA_HOLD, format);
    return this->Fpga(FPGA_FORMAT, on ? 1 : 0);
}

template <class Base>
bool CLapis<Base>::SetCMOSClk()
{
    return SetCMOSClk(NormalClock());
}

template <class Base>
bool CLapis<Base>::SetCMOSClk(int clock)
{
    bool ok = true;
    if (clock == CLK_LONG) {
        this->Write8(REG_CLOCK_A, 5);
        ok = this->Write8(REG_CLOCK_B, 5);
    } else if (clock == 37125 || clock == 74250) {
        this->Write8(REG_CLOCK, 0);
        this->Write8(REG_CLOCK_A, 0x20);
        ok = this->Write8(REG_CLOCK_B, 0x20);
    }
    this->m_iCMOSClk = clock;
    return ok;
}

template <class Base>
bool CLapis<Base>::WriteHMAX()
{
    if (!IsOld())
        return CFpgaModel<Base>::WriteHMAX();
    return this->WriteHeld({ { REG_HMAX, uint32_t(this->m_iHMAX), 2 } });
}

// Enters, follows or leaves the long-exposure mode by m_lExposure. In the mode the line grows with the exposure.
template <class Base>
void CLapis<Base>::SwitchLong()
{
    const uint64_t us = this->m_lExposure;
    if (us < (IsOld() ? 400'000u : 4'000'000u)) {
        if (!this->m_bLongExp)
            return;
        this->m_iHMAX = this->m_vars.savedHmax;
        this->m_bLongExp = false;
        WriteHMAX();
        if (IsOld())
            SetCMOSClk(74250);
        else
            this->Write8(0, RUN_GO);
        return;
    }
    if (!this->m_bLongExp) {
        this->m_vars.savedHmax = this->m_iHMAX;
        this->m_bLongExp = true;
        if (IsOld()) {
            this->Write8(REG_CLOCK_A, 5);
            this->Write8(REG_CLOCK_B, 5);
            this->m_iCMOSClk = CLK_LONG;
        } else {
            this->Write8(0, RUN_GO_LONG);
        }
    }
    if (IsOld()) {
        struct Step {
            uint64_t below;
            int32_t hmax;
        };
        static constexpr Step steps[] = {
            { 9'000'000, 2048 },   { 18'000'000, 4096 },   { 36'000'000, 8192 },
            { 72'000'000, 16384 }, { 144'000'000, 32768 }, { UINT64_MAX, 65535 },
        };
        this->m_iHMAX = std::find_if(std::begin(steps), std::end(steps), [=](const Step& s) { return us < s.below; })->hmax;
    } else {
        this->m_iHMAX = us < 100'000'000 ? 5376 : 36864;
    }
    WriteHMAX();
}

template <class Base>
bool CLapis<Base>::SetExp(uint64_t microseconds, bool autoMode)
{
    this->TakeExp(microseconds, autoMode);
    SwitchLong();

    const int sensorH = this->SensorH();
    const float lineTime = this->LineTime();
    uint32_t lines = uint32_t(sensorH + 38), svr = 10;
    this->m_iFrameTime = TruncToInt(float(lines) * lineTime + T0);
    this->CalcMaxFPS();
    const int64_t us = int64_t(this->m_lExposure.Get());
    const int32_t n = TruncToInt(std::min((float(us) - T0) / lineTime, 2e9f));
    if (us <= this->m_iFrameTime)
        svr = n == 0 ? uint32_t(sensorH + 37) : lines - uint32_t(n);
    else
        lines = uint32_t(n + 10);
    svr = std::max(svr, 10u);
    lines = std::min(lines, IsOld() ? 65535u : 0xFFFFFFu);
    this->m_iExpLines = int32_t(lines - svr);

    this->Write8(REG_HOLD, 1);
    if (IsOld())
        this->WriteBytes(REG_VMAX, lines, 2);
    else
        this->WriteVMAX(lines);
    if (us - this->m_iFrameTime > 100'000) {
        const uint32_t a = uint32_t(this->m_iBin * this->m_iHeight + 38), b = std::min(lines - 18, 0xFFFFFu);
        this->WriteBytes(REG_PULSE_UP1, a, 3);
        this->WriteBytes(REG_PULSE_DOWN1, b, 3);
        this->WriteBytes(REG_PULSE_UP2, a, 3);
        this->WriteBytes(REG_PULSE_DOWN2, b, 3);
        this->Write8(REG_PULSE_MASK, 0xFF);
        this->Write8(REG_PULSE, 1);
    } else {
        this->Write8(REG_PULSE, 0);
    }
    this->WriteBytes(REG_SVR, svr, 2);
    return this->Write8(REG_HOLD, 0);
}

template <class Base>
bool CLapis<Base>::SetGain(int gain, bool autoMode)
{
    const int g = this->TakeGain(gain, autoMode);
    return this->WriteHeld({ { REG_GAIN, uint32_t(g), 2 } });
}

template <class Base>
bool CLapis<Base>::Cam_SetResolution()
{
    const uint32_t w = uint32_t(this->m_iWidth * this->m_iBin), h = uint32_t(this->m_iHeight * this->m_iBin);
    this->WriteBytes(REG_VMAX, h + 38, 2);
    this->WriteBytes(REG_WINDOW_HEIGHT, h, 2);
    this->WriteBytes(REG_WINDOW_WIDTH, w, 2);
    if (!IsOld())
        this->Fpga(FPGA_HOLD, 1);
    this->WriteFpga(FPGA_START_X, 0, 2);
    this->WriteFpga(FPGA_START_Y, 11, 2);
    this->WriteFpga(FPGA_WIDTH, w, 2);  // this FPGA is told the size before binning
    bool ok = this->WriteFpga(FPGA_HEIGHT, h, 2);
    if (!IsOld())
        ok = this->Fpga(FPGA_HOLD, 0);
    return ok;
}

template <class Base>
bool CLapis<Base>::StartSensorStreaming()
{
    this->Write8(REG_STANDBY, 0);
    platform::SleepMs(10);
    if (!IsOld())
        return this->Go();
    this->Write8(REG_MASTER_STOP, 0);
    platform::SleepMs(50);
    return this->Write8(REG_SYNC, 10);
}

template <class Base>
bool CLapis<Base>::StopSensorStreaming()
{
    if (IsOld())
        this->Write8(REG_MASTER_STOP, 1);
    else
        this->Halt();
    return this->Write8(REG_STANDBY, 1);
}

template class CLapis<CCameraBase>;
template class CLapis<CCameraCool>;
