#include "sensors/kyanite/Kyanite.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <span>

#include "RegisterTables.h"
#include "platform/Platform.h"

namespace {

enum Reg16 : uint16_t {
    REG_POWER = 0x0000,  // 0 asleep, 0x73 awake, 0x173 awake and running
    REG_UNK_06 = 0x0006,
    REG_UNK_0A = 0x000A,  // deep sleep
    REG_CLOCKS = 0x0011,  // 0x3C40 off, 0x3C43 on
    REG_GAIN = 0x0052,
    REG_GAIN2 = 0x0054,    // 256 is unity, 1 dB a 16 / 0.9375 steps
    REG_SHUTTER = 0x0057,  // lines
    REG_UNK_5F = 0x005F,
    REG_UNK_61 = 0x0061,  // written at every wake-up
    REG_FRAME = 0x0109,
    REG_V_END1 = 0x0118,
    REG_V_END2 = 0x011C,
    REG_V_END3 = 0x011E,
    REG_BLACK = 0x01CC,
    REG_FIRST_ROW = 0x01DC,
    REG_LAST_ROW = 0x01DD,
};

constexpr uint64_t EXP_LONG = 1'000'000;                             // us
constexpr int GAIN_FIRST_STAGE = 300;                                // 0.1 dB
constexpr int32_t CLK = 37125;                                       // kHz
constexpr int32_t HMAX_BIN = 397, HMAX_FAST = 435, HMAX_FULL = 680;  // clocks

constexpr FpgaTraits g_Fpga = { 200, 43272, 390906, CLK, 100, 0, true };

// clang-format off
constexpr ModelTraits g_Col = {
    .family = Family::Kyanite, .className = "CCameraSKyaniteCol", .name = "VYR KOVKyaniteCol",
    .key = L"SOFTWARE\\KOVKyaniteCol", .products = { { 0xC0B0, nullptr } },
    .width = 4656, .height = 3520, .pixelSize = 3.75, .bayer = BAYER_GR,
    .elecPerADU = 4.960f, .propA = 10, .propB = 21, .propC = 250, .propD = 50,
    .gain = { 0, 600, 200 }, .exposure = { 32, 1000000000, 10000 }, .wbR = 52, .wbB = 95,
    .brightness = { 0, 240, 1 }, .bandwidthMin = 45, .fpsPercUsb3 = 100, .clock = CLK, .hmax = HMAX_FULL,
    .maxExposure = 1000000000, .autoGainMax = 300, .autoExpMaxCap = 1000,
    .caps = CAP_COMMON | CAP_AUTO | CAP_FLIP | CAP_WB,
    .start = START_AUTO_FPS | START_HARDWARE_BIN, .close = CLOSE_CLEARS_POINTER,
    .bins = { 1, 2, 3, 4 }, .controls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 14, -1 },
    .phases = { { 2, 0, -2, 0, -2 }, { 3, 0, -4, -2, -6 }, { 4, 0, 2, 0, 2 } }, .isDdr = true,
};
// clang-format on
constexpr ModelTraits g_Mono =
    Named(Mono(g_Col), "CCameraSKyaniteMono", "VYR KOVKyaniteMono", L"SOFTWARE\\KOVKyaniteMono", 0xC0B2);
constexpr ModelTraits g_Col_C =
    Cooled(g_Col, "CCameraSKyaniteCol_C", "VYR KOVKyaniteCol-Cool", L"SOFTWARE\\KOVKyaniteCol-C", 0xC0B1);
constexpr ModelTraits g_Mono_C =
    Cooled(g_Mono, "CCameraSKyaniteMono_C", "VYR KOVKyaniteMono-Cool", L"SOFTWARE\\KOVKyaniteMono-C", 0xC0B3);

template <const ModelTraits& t>
ClassVars g_Vars{ { g_Fpga.unitUsb3 }, { HMAX_FULL } };

}  // namespace

CCameraSKyaniteCol::CCameraSKyaniteCol(void* handle) : CWhole(g_Col, g_Vars<g_Col>, handle) {}
CCameraSKyaniteMono::CCameraSKyaniteMono(void* handle) : CWhole(g_Mono, g_Vars<g_Mono>, handle) {}
CCameraSKyaniteCol_C::CCameraSKyaniteCol_C(void* handle) : CWhole(g_Col_C, g_Vars<g_Col_C>, handle) {}
CCameraSKyaniteMono_C::CCameraSKyaniteMono_C(void* handle) : CWhole(g_Mono_C, g_Vars<g_Mono_C>, handle) {}

template <class Base>
CKyanite<Base>::CKyanite(const ModelTraits& t, ClassVars& v, void* handle) : CFpgaModel<Base>(t, g_Fpga, v, handle)
{
    this->m_iHMAX = v.minHmax;  // of the class's last camera
}

template <class Base>
void CKyanite<Base>::InitSensor()
{
    model::RunTable16(*this, g_KyaniteInit);
    this->Fpga(FPGA_RUN, RUN_RESET);
    platform::SleepMs(20);
    this->Fpga(FPGA_RUN, RUN_IDLE);
    this->Fpga(FPGA_FORMAT, 1);
}

template <class Base>
void CKyanite<Base>::InitClock()
{
    SetCMOSClk();
    InitSensorBinning(this->m_iBin);
}

template <class Base>
bool CKyanite<Base>::SetCMOSClk()
{
    return SetCMOSClk(CLK);
}

template <class Base>
bool CKyanite<Base>::SetCMOSClk(int clock)
{
    this->m_iCMOSClk = clock;
    return true;
}

template <class Base>
bool CKyanite<Base>::SetOutput16Bits(bool on)
{
    this->TakeOutput16Bits(on);  // the format itself belongs to the read-out mode
    return true;
}

template <class Base>
bool CKyanite<Base>::InitSensorBinning(int bin)
{
    this->Fpga(FPGA_HOLD, 1);
    this->m_iBin = bin;
    const bool b16 = this->m_bOutput16Bits;
    if (this->InHardBin()) {
        const bool b3 = bin == 3;
        model::RunTable16(*this, b3 ? std::span(g_KyaniteModeBin3) : std::span(g_KyaniteModeBin2));
        this->Fpga(FPGA_START_X, 60);
        this->Fpga(FPGA_START_Y, b3 ? 6 : 8);
        this->Fpga(FPGA_FORMAT, b16 ? 16 : 0);
        this->m_vars.minHmax = HMAX_BIN;
        this->m_bSensorHighBits = false;
    } else {
        const bool fast = this->m_bHighSpeed && !b16;
        model::RunTable16(*this, fast ? std::span(g_KyaniteModeFast) : std::span(g_KyaniteModeFull));
        this->Fpga(FPGA_FORMAT, fast ? 0 : b16 ? 17 : 1);
        this->Fpga(FPGA_START_X, 60);
        this->Fpga(FPGA_START_Y, 13);
        this->m_vars.minHmax = fast ? HMAX_FAST : HMAX_FULL;
        this->m_bSensorHighBits = !fast;
    }
    return this->Fpga(FPGA_HOLD, 0);
}

template <class Base>
bool CKyanite<Base>::SetResolution(int width, int height, int bin, IMAGE_TYPE type)
{
    if (!model::RegionFits(*this, width, height, bin, type) || !this->AcceptsSize(width, height))
        return false;
    this->m_iHeight = height;
    this->m_iWidth = width;
    this->m_iStartX = (this->m_iMaxWidth - width * bin) / 2;
    this->m_iStartY = (this->m_iMaxHeight - height * bin) / 2;
    WakeUpSensor();
    SetOutput16Bits(type == IMAGE_16BIT_ALT || type == IMAGE_16BIT);
    if ((this->m_bHardwareBin && bin != this->m_iBin) || type != this->m_ImgType)
        InitSensorBinning(bin);
    this->m_iBin = bin;
    this->m_ImgType = type;
    this->SetStartPos(this->m_iStartX, this->m_iStartY);
    Cam_SetResolution();
    if (this->m_bOpen)
        SetCMOSClk();
    this->SetFPSPerc(this->m_iFPSPerc, this->m_bAutoFPS);
    SetExp(this->m_lExposure, this->m_bAutoExp);
    SleepSensor();
    return true;
}

template <class Base>
bool CKyanite<Base>::Cam_SetResolution()
{
    const int bin = this->m_iBin, h = this->m_iHeight * bin;
    this->Fpga(FPGA_HOLD, 1);
    // QUIRK: the start row is scaled by the bin here; SetStartPos, which every start of streaming repeats, writes it
    // unscaled.
    Reg(REG_FIRST_ROW, uint32_t(this->m_iStartY * bin + 32));
    Reg(REG_LAST_ROW, uint32_t((this->m_iHeight + this->m_iStartY) * bin + 36));
    Reg(REG_V_END1, uint32_t(h + 47));
    Reg(REG_V_END3, uint32_t(h + 47));
    Reg(REG_V_END2, uint32_t(h + 48));
    Reg(REG_FRAME, uint32_t(h + 199));
    this->WriteSensorSizeToFpga();
    return this->Fpga(FPGA_HOLD, 0);
}

template <class Base>
bool CKyanite<Base>::WriteStart(int x, int y)
{
    const int bin = this->m_iBin;
    const int column = this->InHardBin() ? x / (bin == 4 ? 2 : bin) : x;
    this->Fpga(FPGA_HOLD, 1);
    this->WriteFpga(FPGA_START_X, uint32_t(column + 60), 2);
    this->Fpga(FPGA_HOLD, 0);
    const bool capturing = this->m_bCapturing;
    if (capturing)
        this->Halt();
    Reg(REG_FIRST_ROW, uint32_t(y + 32));
    bool ok = Reg(REG_LAST_ROW, uint32_t(y + bin * this->m_iHeight + 36));
    if (capturing)
        ok = this->Fpga(FPGA_RUN, RunValue());
    return ok;
}

template <class Base>
uint8_t CKyanite<Base>::RunValue() const
{
    return this->m_bLongExp ? (this->InHardBin() ? 0xE3 : RUN_GO_LONG) : this->InHardBin() ? 0x23 : RUN_GO;
}

template <class Base>
bool CKyanite<Base>::SetExp(uint64_t microseconds, bool autoMode)
{
    this->TakeExp(microseconds, autoMode);
    const bool hard = this->InHardBin();
    if (this->m_lExposure >= EXP_LONG) {
        if (!this->m_bLongExp) {
            this->Fpga(FPGA_RUN, hard ? 0xA3 : 0xA1);
            this->m_bLongExp = true;
        }
    } else if (this->m_bLongExp) {
        this->Fpga(FPGA_RUN, hard ? 0x23 : 0x21);
        if (this->m_bOpen)
            SetCMOSClk();
        this->m_bLongExp = false;
    }

    const int sensorH = this->SensorH();
    const float lineTime = this->LineTime();
    this->m_iFrameTime = TruncToInt(float(sensorH + 199) * lineTime);
    this->CalcMaxFPS();
    const uint64_t us = this->m_lExposure;
    const int n = TruncToInt(float(us) / lineTime);
    const bool isShort = us <= uint64_t(std::max<int32_t>(this->m_iFrameTime, 0));
    const uint32_t vmax = std::min(uint32_t(isShort ? sensorH + 200 : n + 1), 0xFFFFFFu);
    const int shutter = isShort ? std::max(sensorH + 200 - n, 1) : 1;
    this->m_iExpLines = int32_t(vmax) - shutter - 2;

    this->Fpga(FPGA_HOLD, 1);
    this->WriteFpga(FPGA_VMAX, vmax, 3);
    if (hard) {
        // The picture's first line moves when the frame is stretched.
        const bool stretched = int64_t{ vmax } >= this->m_iHeight * this->m_iBin + 48;
        const bool b2 = this->m_iBin == 2;
        this->Fpga(FPGA_START_Y, stretched ? (b2 ? 7 : 5) : (b2 ? 8 : 6));
    }
    this->Fpga(FPGA_HOLD, 0);
    return Reg(REG_SHUTTER, uint32_t(shutter));
}

template <class Base>
bool CKyanite<Base>::SetGain(int gain, bool autoMode)
{
    const int g = this->TakeGain(gain, autoMode);
    const auto code = [](int tenths) { return TruncToInt(float(tenths) / 0.9375f + 256.0f); };
    if (g <= GAIN_FIRST_STAGE) {
        Reg(REG_GAIN, uint32_t(code(g)));
        return Reg(REG_GAIN2, 256);
    }
    Reg(REG_GAIN, 576);
    return Reg(REG_GAIN2, uint32_t(std::min(code(g - GAIN_FIRST_STAGE), 575)));
}

template <class Base>
bool CKyanite<Base>::SetBrightness(int value)
{
    this->m_iBrightness = value;
    return Reg(REG_BLACK, uint32_t(value));
}

template <class Base>
bool CKyanite<Base>::SetHighSpeedMode(bool on)
{
    this->m_bHighSpeed = on;
    if (this->InHardBin() || this->m_bOutput16Bits)
        return true;
    const bool capturing = this->m_bCapturing;
    this->StopCapture();
    InitSensorBinning(this->m_iBin);
    Cam_SetResolution();
    this->SetStartPos(this->m_iStartX, this->m_iStartY);
    SetExp(this->m_lExposure, this->m_bAutoExp);
    SetGain(this->m_iGain, this->m_bAutoGain);
    this->SetFPSPerc(this->m_iFPSPerc, this->m_bAutoFPS);
    if (capturing)
        this->StartCapture(false);
    return true;
}

template <class Base>
bool CKyanite<Base>::SetHardwareBin(bool on)
{
    const bool changed = this->m_bHardwareBin != on;
    this->m_bHardwareBin = on;
    if (changed && BinMatters())
        InitSensorBinning(this->m_iBin);
    return CFpgaModel<Base>::SetHardwareBin(on);
}

template <class Base>
bool CKyanite<Base>::SleepSensor()
{
    Reg(REG_CLOCKS, 0x3C40);
    return Reg(REG_POWER, 0);
}

template <class Base>
bool CKyanite<Base>::WakeUpSensor()
{
    Reg(REG_CLOCKS, 0x3C43);
    Reg(REG_POWER, 0x73);
    platform::SleepMs(1);
    Reg(REG_UNK_5F, 13);
    Reg(REG_UNK_61, 0);
    return Reg(REG_POWER, 0x173);
}

template <class Base>
bool CKyanite<Base>::SleepSensorLongExp()
{
    Reg(REG_UNK_06, 29695);
    Reg(REG_UNK_0A, 8192);
    Reg(REG_CLOCKS, 0x3C42);
    return Reg(REG_POWER, 99);
}

template <class Base>
bool CKyanite<Base>::WakeSensorLongExp()
{
    Reg(REG_CLOCKS, 0x3C43);
    Reg(REG_UNK_0A, 0);
    Reg(REG_POWER, 0x73);
    Reg(REG_UNK_5F, 13);
    Reg(REG_UNK_61, 0);
    Reg(REG_UNK_06, 29696);
    return Reg(REG_POWER, 0x173);
}

template <class Base>
bool CKyanite<Base>::StartSensorStreaming()
{
    WakeUpSensor();
    // A sensor that slept has to be told these again.
    SetExp(this->m_lExposure, this->m_bAutoExp);
    SetGain(this->m_iGain, this->m_bAutoGain);
    SetBrightness(this->m_iBrightness);
    this->SetStartPos(this->m_iStartX, this->m_iStartY);
    return this->Fpga(FPGA_RUN, RunValue());
}

template <class Base>
bool CKyanite<Base>::StopSensorStreaming()
{
    this->Halt();
    return SleepSensor();
}

template class CKyanite<CCameraBase>;
template class CKyanite<CCameraCool>;
