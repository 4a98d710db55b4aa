#include "sensors/garnet/Garnet.h"

#include <algorithm>
#include <span>

#include "RegisterTables.h"
#include "base/Trace.h"
#include "platform/Platform.h"
#include "sensors/RegisterTable.h"
#include "usb/FirmwareImages.h"

namespace {

enum Reg : uint16_t {
    REG_TOP = 0x3002,
    REG_LEFT = 0x3004,
    REG_BOTTOM = 0x3006,
    REG_RIGHT = 0x3008,
    REG_FRAME_LINES = 0x300A,
    REG_LINE_CLOCKS = 0x300C,
    REG_SHUTTER = 0x3012,  // lines
    REG_RUN = 0x301A,      // RUN_ values
    REG_BLACK = 0x301E,    // 16 a step of brightness
    REG_VT_PIX_DIV = 0x302A,
    REG_VT_SYS_DIV = 0x302C,
    REG_PRE_DIV = 0x302E,
    REG_PLL_MULT = 0x3030,
    REG_BIN_MODE = 0x3032,
    REG_DATAPATH = 0x306E,
    REG_GREEN_1 = 0x3056,
    REG_BLUE = 0x3058,
    REG_RED = 0x305A,
    REG_GREEN_2 = 0x305C,
    REG_GLOBAL_GAIN = 0x305E,
    REG_ANALOG = 0x30B0,  // bits 5..4 amplifier stage; the rest goes with the clock
    REG_TEMP = 0x30B2,
    REG_TEMP_70 = 0x30C6,
    REG_TEMP_55 = 0x30C8,
};
enum : uint16_t {
    RUN_GO = 4316,
    RUN_STOP = 4312,
    RUN_STOP_AT_END = 4314,  // finishes the frame
};
constexpr int ANALOG_SLOW = 0x5300, ANALOG_NORMAL = 0x1300;  // REG_ANALOG at the slow clock and else

constexpr uint64_t EXP_SLOW = 100'000;                // us; from here on the slow clock
constexpr uint64_t EXP_REGISTER = 4'000'000;          // us; above it the host times the exposure
constexpr int64_t LINES_MAX = 65535;                  // shutter register
constexpr int32_t CLK_SLOW = 24, CLK_START = 48;      // MHz
constexpr int32_t HMAX_MIN = 1390, HMAX_MAX = 12287;  // clocks
constexpr int FRAME_EXTRA_LINES = 26, FRAME_EXTRA_CLOCKS = 358;
constexpr double LINK_USB2 = 42.0;  // megabytes per second
constexpr int IMAGE_ENDPOINT = 0x82;

constexpr ModelTraits Row(const char* className, const char* name, const wchar_t* key, int slot, uint16_t id, BayerPattern bayer,
                          bool color, bool usb3, int32_t clk)
{
    // clang-format off
    ModelTraits t = {
        .family = usb3 ? Family::GarnetS : Family::Garnet, .className = className, .name = name, .key = key,
        .guidSlot = slot, .products = { { id, nullptr } }, .width = 1280, .height = 960, .pixelSize = 3.75,
        .bayer = bayer, .isUsb3 = usb3, .elecPerADU = usb3 ? 3.520f : 3.712f, .propA = 2, .propB = 5, .propC = 48,
        .propD = 9, .gain = { 0, 100, 50 }, .exposure = { 64, 999000000, usb3 ? 14000 : 33000 }, .wbR = 52,
        .wbB = 95, .wbMax = 100, .brightness = { 0, 20, 0 }, .fpsPerc = usb3 ? 86 : 80,
        .fpsPercUsb3 = usb3 ? 100 : 0, .clock = clk, .hmax = 1650, .maxExposure = 1000000000, .autoGainMax = 50,
        .caps = CAP_COMMON | CAP_AUTO | CAP_WB, .start = START_HIGH_SPEED | START_AUTO_FPS, .bins = { 1, 2 },
        .controls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 7, 10, 11, 12, 14, -1 },  // the over clock in the middle
    };
    // clang-format on
    if (usb3)
        t.caps |= CAP_OVERCLK;
    else
        DropControl(t, CTRL_OVERCLK);
    return color ? t : Mono(t);
}

// Behind the key: GUID slot, product ID, cell, colour, USB 3, clock in MHz.
constexpr ModelTraits g_Mono =
    Row("CCameraSGarnetMono", "VYR KOVGarnetMono", L"SOFTWARE\\KOVGarnetMono", 1, 0xC07A, BAYER_RG, false, false, 0);
constexpr ModelTraits g_Col =
    Row("CCameraSGarnetCol", "VYR KOVGarnetCol", L"SOFTWARE\\KOVGarnetCol", 2, 0xC07B, BAYER_GR, true, false, 50);
constexpr ModelTraits g_MonoS =
    Row("CCameraSGarnetMono_S", "VYR KOVGarnetMono-S", L"SOFTWARE\\KOVGarnetMono-S", 8, 0xC07D, BAYER_GR, false, true, 100);
constexpr ModelTraits g_ColS =
    Row("CCameraSGarnetCol_S", "VYR KOVGarnetCol-S", L"SOFTWARE\\KOVGarnetCol-S", 9, 0xC07E, BAYER_GR, true, true, 100);

GarnetVars g_MonoVars, g_ColVars, g_MonoSVars, g_ColSVars;

// PLL of the sensor by requested rate in MHz; two columns for the third register: high speed, and half the clock.
struct PllRow {
    int rate;
    uint16_t sysDiv, pixDiv, preDivFast, preDiv, mult;
};
constexpr PllRow g_Pll[] = {
    { 6, 16, 4, 2, 4, 16 },  { 25, 2, 8, 3, 6, 25 },  { 27, 2, 10, 2, 4, 23 }, { 31, 2, 8, 6, 12, 63 },
    { 33, 2, 8, 6, 12, 66 }, { 40, 2, 8, 3, 6, 40 },  { 50, 1, 8, 3, 6, 25 },  { 55, 1, 10, 2, 4, 23 },
    { 62, 1, 8, 6, 12, 63 }, { 66, 1, 8, 6, 12, 66 }, { 80, 1, 8, 6, 12, 80 },
};

// Gain word: 32 is unity within each of the four amplifier stages of 16 steps.
int StageOf(int gain) { return std::clamp(gain / 16, 0, 3); }
int64_t GainWord(int64_t gain)  // wide, because a stored setting may hold anything
{
    static constexpr int offset[] = { 32, 0, -32, -64 };
    return 2 * gain + offset[StageOf(static_cast<int>(gain))];
}
// The monochrome models go on digitally, more steeply, where the amplifier ends.
int64_t MonoGainWord(int gain) { return gain > 79 ? 6 * (gain - 80) + 128 : gain > 63 ? 4 * gain - 192 : GainWord(gain); }

}  // namespace

struct GarnetForm {
    std::span<const RegEntry> initTable;
    int longLines;  // shutter of the host-timed mode
    int autoPerc, autoPercUsb3;
    uint8_t firmware;  // oldest firmware that needs no update; 0: the model carries none
};
static constexpr GarnetForm g_Usb2 = { g_GarnetUsb2Init, 12287, 80, 80, 3 };
static constexpr GarnetForm g_S = { g_GarnetSInit, 8191, 86, 100, 0 };

CGarnet::CGarnet(const ModelTraits& t, const GarnetForm& f, GarnetVars& v, void* handle)
    : CUsb2Model(t, handle), m_form(f), m_vars(v)
{
}

CCameraSGarnetMono::CCameraSGarnetMono(void* handle) : CWhole(g_Mono, g_Usb2, g_MonoVars, handle) {}
CCameraSGarnetCol::CCameraSGarnetCol(void* handle) : CWhole(g_Col, g_Usb2, g_ColVars, handle) {}
CCameraSGarnetMono_S::CCameraSGarnetMono_S(void* handle) : CWhole(g_MonoS, g_S, g_MonoSVars, handle) {}
CCameraSGarnetCol_S::CCameraSGarnetCol_S(void* handle) : CWhole(g_ColS, g_S, g_ColSVars, handle) {}

bool CGarnet::FirmwareStep()
{
    return m_form.firmware == 0 || UpdateTo(m_form.firmware, m_bIsColor ? FirmwareId::GarnetCol : FirmwareId::GarnetMono);
}

bool CGarnet::InitCamera()
{
    if (!m_bOpen)
        return false;
    const bool isUsb3 = m_traits.isUsb3;
    if (isUsb3) {
        model::InitLink(*this);
        model::ReadFirmwareVer(*this);
    } else {
        SendCMD(REQ_CLOCK_48MHZ);
        m_iCMOSClk = CLK_START;
        SendCMD(REQ_MODE_8BIT);
    }
    SendCMD(REQ_STOP_STREAM);
    model::RunTable16(*this, m_form.initTable);
    GetSensorTemp();  // latches the calibration words
    if (!isUsb3 && !m_bIsColor)
        SetMisc(m_bFlipRow, m_bFlipColumn);
    SetGamma(m_iGamma);
    SetRGBBalance(m_iWB_R, m_iWB_B, m_bAutoWB);
    SetBrightness(m_iBrightness);
    if (isUsb3)
        SetCMOSClk();
    if (m_bAutoFPS)
        m_iFPSPerc = m_bUSB3Host ? m_form.autoPercUsb3 : m_form.autoPerc;
    if (!isUsb3)
        SetCMOSClk();
    SetFPSPerc(m_iFPSPerc, m_bAutoFPS);
    SetGain(m_iGain, m_bAutoGain);
    SetExp(m_lExposure, m_bAutoExp);
    return true;
}

bool CGarnet::StartSensorStreaming() { return Write(REG_RUN, RUN_GO); }
bool CGarnet::StopSensorStreaming() { return Write(REG_RUN, RUN_STOP); }

bool CGarnet::SetOutput16Bits(bool on)
{
    m_bOutput16Bits = on;
    if (!m_traits.isUsb3)
        return SendTransferMode(on);
    const bool ok = SendTransferModeStopped(on);
    ResetEndPoint(IMAGE_ENDPOINT);
    return ok;
}

bool CGarnet::SetResolution(int width, int height, int bin, IMAGE_TYPE type)
{
    const bool isUsb3 = m_traits.isUsb3;
    if (isUsb3 && (height % 2 != 0 || width % 4 != 0))
        return false;
    if (!TakeRegion(width, height, bin, type, isUsb3 ? 1 : 1024))
        return false;
    SetStartPos(m_iStartX, m_iStartY);
    SetOutput16Bits(IsType16(type));
    if (isUsb3)
        SetTransferCount(long{ BytesPerPixel() } * SensorW() * SensorH());
    else
        SetCMOSClk();
    SetFPSPerc(m_iFPSPerc, m_bAutoFPS);
    Write(REG_FRAME_LINES, SensorH() + FRAME_EXTRA_LINES);
    return true;
}

void CGarnet::WriteStart()
{
    const bool stop = m_bCapturing;
    if (stop)
        Write(REG_RUN, RUN_STOP);
    Write(REG_TOP, m_iStartY + 2);
    Write(REG_LEFT, m_iStartX);
    Write(REG_BOTTOM, m_iStartY + SensorH() + 1);
    Write(REG_RIGHT, m_iStartX + SensorW() - 1);
    if (stop)
        Write(REG_RUN, RUN_GO);
}

bool CGarnet::Cam_SetResolution()
{
    Write(REG_BIN_MODE, 0);
    Write(REG_FRAME_LINES, SensorH() + FRAME_EXTRA_LINES);
    Write(REG_BOTTOM, SensorH() + m_iStartY + 1);
    Write(REG_RIGHT, SensorW() + m_iStartX - 1);
    const bool ok = Write(REG_DATAPATH, m_bIsColor ? 0x9210 : 0x9200);
    if (!m_traits.isUsb3)
        SetCMOSClk();
    return ok;
}

int64_t CGarnet::ShutterLines(int clock) const
{
    const uint64_t clocks = m_lExposure * static_cast<uint64_t>(clock) - FRAME_EXTRA_LINES;
    return static_cast<int64_t>(clocks / static_cast<uint64_t>(m_iHMAX));
}

bool CGarnet::SetFPSPerc(int percent, bool autoMode)
{
    TakePercentage(percent, autoMode, m_bUSB3Host ? m_form.autoPercUsb3 : m_form.autoPerc);
    double link = LINK_USB2;
    if (m_traits.isUsb3) {
        CalcMaxFPS();
        link = m_vars.bandwidthDivisor;
    }
    // The product is a 32-bit number and wraps.
    const uint32_t product = static_cast<uint32_t>(BytesPerPixel()) * static_cast<uint32_t>(m_iWidth) *
                             static_cast<uint32_t>(m_iHeight) * static_cast<uint32_t>(m_iBin) * static_cast<uint32_t>(m_iBin) *
                             static_cast<uint32_t>(m_iCMOSClk);
    const int lines = SensorH() + FRAME_EXTRA_LINES;
    m_iHMAX = TruncClamp((product * 100.0 / link / m_iFPSPerc + FRAME_EXTRA_CLOCKS) / lines, HMAX_MIN, HMAX_MAX);
    // QUIRK: refused after the percentage and the line length were stored: the host reads back what it set.
    if (m_lExposure > EXP_SLOW)
        return false;
    Write(REG_LINE_CLOCKS, m_iHMAX);
    if (!m_traits.isUsb3 && !m_bIsColor) {
        const double fps = m_iCMOSClk * 1000.0 * 1000.0 / (double(lines) * m_iHMAX - FRAME_EXTRA_CLOCKS);
        const double size = double(SensorW()) * SensorH() * BytesPerPixel() * fps / 1000.0 / 1000.0;
        TraceLine("clk:%d fps:%2.2f size:%2.2f  value:%d pkg:%x \n", m_iCMOSClk.Get(), fps, size, m_iFPSPerc.Get(),
                  static_cast<unsigned>(m_iHMAX));
    }
    m_iExpLines = static_cast<int32_t>(std::clamp<int64_t>(ShutterLines(m_iCMOSClk), 1, LINES_MAX));
    Write(REG_SHUTTER, m_iExpLines);
    return true;
}

bool CGarnet::GetFPSPerc(int* percent, bool* autoMode)
{
    *percent = m_iFPSPerc;
    *autoMode = m_bAutoFPS;
    return true;
}

void CGarnet::CalcMaxFPS()
{
    if (!m_traits.isUsb3 || m_lExposure >= EXP_SLOW)
        return;
    const int clocks = SensorH() * HMAX_MIN + 35782;
    const int32_t whole = static_cast<int32_t>(static_cast<uint32_t>(m_iCMOSClk) * 1000000u) / clocks;
    const auto fps = static_cast<float>(whole);
    m_fMaxFPS = fps;
    m_vars.bandwidthDivisor = m_bUSB3Host ? static_cast<int32_t>(fps * 1.2288e6 * BytesPerPixel() / 1000.0 / 1000.0) : 43;
    m_fMaxDataRate = static_cast<float>(static_cast<float>(SensorW() * SensorH()) * fps / 1000.0 / 1000.0);
}

bool CGarnet::SetCMOSClk()
{
    if (m_lExposure >= EXP_SLOW)
        return true;
    if (m_traits.isUsb3) {
        SetOverCLKPerc(m_iOverCLKPerc);
        return SetFPSPerc(m_iFPSPerc, m_bAutoFPS);
    }
    const int w = SensorW(), d = BytesPerPixel();
    const int rate = w > 1024                     ? 50 / d
                     : w > 960                    ? 62 / d
                     : w > 800                    ? 66 / d
                     : w > 480                    ? 80 / d
                     : w > 320 && m_bOutput16Bits ? 50
                                                  : 80;
    SetCMOSClk(rate);
    SetFPSPerc(m_iFPSPerc, m_bAutoFPS);
    return SetExp(m_lExposure, m_bAutoExp);
}

bool CGarnet::SetCMOSClk(int rate)
{
    const bool isUsb3 = m_traits.isUsb3;  // its bridge has no clock of its own to switch
    uint16_t analog = 0;
    if (rate == CLK_SLOW) {
        ReadCameraRegister(REG_ANALOG, &analog);
        Write(REG_RUN, RUN_STOP);
        platform::SleepMs(200);
        Write(REG_ANALOG, analog | ANALOG_SLOW);
        bool ok = Write(REG_RUN, RUN_GO);
        if (!isUsb3)
            ok = SendCMD(REQ_CLOCK_24MHZ);
        m_iCMOSClk = CLK_SLOW;
        return ok;
    }

    if (m_iCMOSClk == CLK_SLOW) {
        if (!isUsb3)
            SendCMD(REQ_CLOCK_48MHZ);
        ReadCameraRegister(REG_ANALOG, &analog);
        Write(REG_ANALOG, (analog & 0xFFF) | 0x1000);
    }
    Write(REG_SHUTTER, ShutterLines(rate));
    Write(REG_RUN, RUN_STOP_AT_END);
    if (m_bLongExp) {
        const int ms = (m_iHMAX * m_form.longLines + FRAME_EXTRA_LINES) / 24000;
        TraceLine("set clk from long exp, sleep %dms!\n", ms);
        platform::SleepMs(static_cast<uint32_t>(ms));
    } else {
        platform::SleepMs(static_cast<uint32_t>(m_lExposure / 500));
    }
    WritePll(rate);
    platform::SleepMs(10);
    const bool ok = Write(REG_RUN, RUN_GO);
    TraceLine("set clk %d M!\n", rate);
    // QUIRK: without high speed half the rate is kept, truncated: SetCMOSClk(33) leaves 16.
    m_iCMOSClk = isUsb3 || m_bHighSpeed ? rate : rate / 2;
    return ok;
}

void CGarnet::WritePll(int rate)
{
    PllRow row = { rate, 1, 4, 6, 6, static_cast<uint16_t>(rate) };  // _S above 32 MHz: any rate
    if (!m_traits.isUsb3 || rate <= 32) {
        const auto* p = std::find_if(std::begin(g_Pll), std::end(g_Pll), [=](const PllRow& r) { return r.rate == rate; });
        if (p == std::end(g_Pll)) {
            TraceLine("set clk %d error!\n", rate);
            return;
        }
        row = *p;
    }
    Write(REG_VT_SYS_DIV, row.sysDiv);
    Write(REG_VT_PIX_DIV, row.pixDiv);
    Write(REG_PRE_DIV, m_bHighSpeed ? row.preDivFast : row.preDiv);
    Write(REG_PLL_MULT, row.mult);
}

bool CGarnet::SetOverCLKPerc(int percent)
{
    if (!m_traits.isUsb3 || m_lExposure >= EXP_SLOW)
        return false;
    const int p = std::clamp(percent, 0, 30);
    SetCMOSClk(static_cast<int>((m_bHighSpeed ? 83 : 41) * (p / 100.0 + 1.0)));
    CalcMaxFPS();
    m_iOverCLKPerc = p;
    return true;
}

bool CGarnet::SetHighSpeedMode(bool on)
{
    if (m_lExposure >= EXP_SLOW)
        return false;
    m_bHighSpeed = on;
    SetCMOSClk();
    return true;
}

bool CGarnet::SetExp(uint64_t microseconds, bool autoMode)
{
    TakeExp(microseconds, autoMode);
    if (m_bLongExp)
        return true;  // the capture thread times the frame and leaves the mode itself
    if (m_lExposure >= EXP_SLOW) {
        if (m_iCMOSClk != CLK_SLOW) {
            TraceLine("exp > %dms Set slowest speed\n", 100);
            SetCMOSClk(CLK_SLOW);
        }
    } else if (m_iCMOSClk == CLK_SLOW) {
        TraceLine("exp < %dms recover speed\n", 100);
        SetCMOSClk();
    }
    TraceLine("set exp:0x%x mode:%d timeus:%d clk:%d\n", static_cast<unsigned>(m_iExpLines), int{ autoMode },
              static_cast<int>(m_lExposure), m_iCMOSClk.Get());

    const int64_t lines = std::max<int64_t>(ShutterLines(m_iCMOSClk), 1);
    m_iExpLines = static_cast<int32_t>(lines);
    if (lines <= LINES_MAX && m_lExposure <= EXP_REGISTER)
        return Write(REG_SHUTTER, lines);
    const bool ok = Write(REG_SHUTTER, m_form.longLines);
    m_bLongExp = true;
    TraceLine("-----Enter long exp mode\n");
    return ok;
}

bool CGarnet::SetGain(int gain, bool autoMode)
{
    TakeGain(gain, autoMode);
    const int base = m_iCMOSClk == CLK_SLOW ? ANALOG_SLOW : ANALOG_NORMAL;
    Write(REG_ANALOG, base | StageOf(m_iGain) << 4);
    if (!m_bIsColor)
        return Write(REG_GLOBAL_GAIN, MonoGainWord(m_iGain));
    Write(REG_GREEN_1, GainWord(m_iGain));
    Write(REG_GREEN_2, GainWord(m_iGain));
    return WriteBalance();
}

void CGarnet::SetRGBBalance(int red, int blue, bool autoMode)
{
    if (m_traits.isUsb3 && !m_bIsColor)
        return;
    TakeBalance(red, blue, autoMode);
    // QUIRK: the monochrome USB 2 model writes the two colour gains too.
    WriteBalance();
}

bool CGarnet::WriteBalance()
{
    Write(REG_RED, m_iWB_R * GainWord(m_iGain) / 55);
    return Write(REG_BLUE, m_iWB_B * GainWord(m_iGain) / 55);
}

bool CGarnet::SetBrightness(int value)
{
    m_iBrightness = value;
    return Write(REG_BLACK, int64_t{ value } * 16);
}

float CGarnet::GetSensorTemp()
{
    uint16_t at70 = m_vars.at70, at55 = m_vars.at55, raw = 0;
    if (at70 == 0 || at55 == 0) {
        ReadCameraRegister(REG_TEMP_70, &at70);
        ReadCameraRegister(REG_TEMP_55, &at55);
        m_vars.at70 = at70;
        m_vars.at55 = at55;
    }
    ReadCameraRegister(REG_TEMP, &raw);
    if (raw == 0) {
        // QUIRK: shared by all cameras of the class: the last good reading of any of them.
        m_fSensorTemp = m_vars.lastTemp.load();
        return m_fSensorTemp;
    }
    const int span = at70 - at55;  // 15 degrees
    const float slope = span != 0 ? 15.0f / static_cast<float>(span) : 0.0f;
    float t = static_cast<float>(raw * 0.75 - 280.0);  // calibration not to be trusted
    if (slope >= 0.5f && slope <= 1.0f)
        t = static_cast<float>(raw) * slope + static_cast<float>(55.0 - at55 * 15.0 / span);
    m_vars.lastTemp = t;
    m_fSensorTemp = t;
    return t;
}
