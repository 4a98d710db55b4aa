#include "sensors/iolite/Iolite.h"

#include <algorithm>
#include <cmath>

#include "platform/Platform.h"
#include "sensors/RegisterTable.h"

namespace {

enum Reg : uint16_t {
    REG_TOP = 0x01,   // 12 more than the row
    REG_LEFT = 0x02,  // 20 more than the column
    REG_HEIGHT = 0x03,
    REG_WIDTH = 0x04,    // less 1
    REG_SHUTTER = 0x09,  // lines
    REG_RESTART = 0x0B,
    REG_UNK_1E = 0x1E,  // 0x8000 in normal running
    REG_GAIN = 0x35,
    REG_BLACK_MODE = 0x62,
};
constexpr uint16_t g_BlackRegs[] = { 0x60, 0x61, 0x63, 0x64 };  // offsets of the four pixel phases
enum : uint16_t { BLACK_AUTO = 5272, BLACK_MANUAL = 1177 };

constexpr uint64_t EXP_REGISTER = 10'000'000;  // us; above it the host times the exposure
constexpr uint32_t LINES_MAX = 16383;
constexpr int32_t CLK_SLOW = 24, CLK_NORMAL = 48;  // MHz
constexpr uint8_t FIRMWARE_16BIT = 2;              // first one that can send 16 bits

// clang-format off
constexpr ModelTraits g_Mono = {
    .family = Family::Iolite, .className = "CCameraSIoliteMono", .name = "VYR KOVIoliteMono",
    .key = L"SOFTWARE\\KOVIoliteMono", .guidSlot = 3, .products = { { 0xC09A, nullptr } },
    .width = 1280, .height = 1024, .pixelSize = 5.20, .bayer = BAYER_RG, .isColor = false, .isUsb3 = false,
    .gain = { 0, 100, 50 }, .exposure = { 32, 999000000, 33000 }, .wbR = 0, .wbB = 0, .wbMin = 0, .wbMax = 0,
    .brightness = {}, .bandwidthMin = 1, .bandwidthMax = 2, .fpsPerc = 0, .fpsPercUsb3 = 0, .clock = CLK_NORMAL,
    .hmax = 0, .maxExposure = 1000000000, .caps = CAP_AUTO, .types = TYPE_RAW8 | TYPE_RAW16, .start = 0,
    .bins = { 1, 2 }, .controls = { 0, 1, 2, 9, 10, 11, 12, 14, -1 },
};
// clang-format on

// Word of the gain register: three runs.
constexpr int GainWord(int i) { return i < 23 ? 0x0A + i : i < 46 ? 0x51 + i - 23 : 0x25A + i - 46; }
static_assert(GainWord(22) == 0x20 && GainWord(45) == 0x67 && GainWord(59) == 0x267);

}  // namespace

CCameraSIoliteMono::CCameraSIoliteMono(void* handle) : CUsb2Model(g_Mono, handle)
{
    m_bAutoBL = true;
    FinishConstruction();
}

bool CCameraSIoliteMono::InitCamera()
{
    if (!m_bOpen)
        return false;
    m_bCapturing = false;
    model::ReadFirmwareVer(*this);
    if (m_FirmwareVer < FIRMWARE_16BIT)
        m_bOutput16Bits = false;
    static constexpr RegEntry init[] = { { 0x29, 0 }, { 0x3F, 3 }, { 0x40, 6 }, { 0x4A, 96 }, { 0x4E, 12 } };
    model::RunTable16(*this, init);
    SetBLOffset(m_bAutoBL, static_cast<char>(m_iBL_EE.Get()), static_cast<char>(m_iBL_OO.Get()),
                static_cast<char>(m_iBL_EO.Get()), static_cast<char>(m_iBL_OE.Get()));
    SetGain(m_iGain, m_bAutoGain);
    SetExp(m_lExposure, m_bAutoExp);
    SetGamma(m_iGamma);
    SetCMOSClk(m_iCMOSClk);
    return true;
}

bool CCameraSIoliteMono::SetCMOSClk(int clock)
{
    if (clock != CLK_SLOW && clock != CLK_NORMAL)
        return false;
    m_iCMOSClk = clock;
    return SendCMD(clock == CLK_SLOW ? REQ_CLOCK_24MHZ : REQ_CLOCK_48MHZ);
}

bool CCameraSIoliteMono::SetOutput16Bits(bool on)
{
    m_bOutput16Bits = on;
    if (on) {
        SetCMOSClk(CLK_SLOW);
        SetExp(m_lExposure, m_bAutoExp);
        platform::SleepMs(200);
        return SendTransferMode(true);
    }
    SendTransferMode(false);
    // QUIRK: after 16-bit mode this finds 24: the camera stays slow until a host sets speed or bandwidth.
    return SetCMOSClk(m_iCMOSClk);
}

bool CCameraSIoliteMono::SetResolution(int width, int height, int bin, IMAGE_TYPE type)
{
    if (!TakeRegion(width, height, bin, type, 1))
        return false;
    PlaceRegion();
    SetOutput16Bits(IsType16(type));
    if (m_bLongExp) {
        SendCMD(REQ_START_SENSOR_CLOCK);
        platform::SleepMs(500);
        Write(REG_RESTART, 1);
        Write(REG_UNK_1E, 0x8000);
    }
    Cam_SetResolution();
    SetExp(m_lExposure, m_bAutoExp);  // lines are as long as the region is wide
    return true;
}

bool CCameraSIoliteMono::Cam_SetResolution()
{
    WriteStart();
    Write(REG_HEIGHT, SensorH() - 1);
    Write(REG_WIDTH, SensorW() - 1);
    return Write(REG_RESTART, 1);
}

void CCameraSIoliteMono::WriteStart()
{
    Write(REG_TOP, m_iStartY + 12);
    Write(REG_LEFT, m_iStartX + 20);
}

bool CCameraSIoliteMono::SetFPSPerc(int percent, bool /*autoMode*/)
{
    // QUIRK: a refused value is stored all the same and read back.
    m_iFPSPerc = percent;
    if (percent != 1 && percent != 2)
        return false;
    SetCMOSClk(percent == 1 ? CLK_SLOW : CLK_NORMAL);
    SetExp(m_lExposure, m_bAutoExp);
    return true;
}

bool CCameraSIoliteMono::GetFPSPerc(int* percent, bool* autoMode)
{
    *percent = m_iFPSPerc;
    *autoMode = false;
    return true;
}

bool CCameraSIoliteMono::SetHighSpeedMode(bool on)
{
    m_bHighSpeed = on;
    SetCMOSClk(on ? CLK_NORMAL : CLK_SLOW);
    SetExp(m_lExposure, m_bAutoExp);
    return true;
}

void CCameraSIoliteMono::SetRGBBalance(int /*red*/, int /*blue*/, bool autoMode) { m_bAutoWB = autoMode; }

bool CCameraSIoliteMono::SetExp(uint64_t microseconds, bool autoMode)
{
    TakeExp(microseconds, autoMode);
    // 32 bits, wrapping: exposures from 89 s count a wrong number of lines, but those the host times anyway.
    const uint32_t clocks = static_cast<uint32_t>(m_iCMOSClk) * static_cast<uint32_t>(m_lExposure) + 180;
    const uint32_t lines = std::max(clocks / static_cast<uint32_t>(SensorW() + 244), 1u);
    m_iExpLines = static_cast<int32_t>(lines);
    if (m_bLongExp)
        return true;  // the capture thread leaves the mode
    if (lines <= LINES_MAX && m_lExposure <= EXP_REGISTER)
        return Write(REG_SHUTTER, lines);
    // QUIRK: the slow clock is not stored; m_iCMOSClk keeps telling the other one.
    const bool ok = SendCMD(REQ_CLOCK_24MHZ);
    m_bLongExp = true;
    return ok;
}

bool CCameraSIoliteMono::SetGain(int gain, bool autoMode)
{
    m_bAutoGain = autoMode;
    const int g = std::clamp(gain, 0, 100), n = m_bOutput16Bits ? 50 : 60;
    bool ok = Write(REG_GAIN, GainWord(g == 100 ? n - 1 : static_cast<int>(std::lround(n * g / 100.0))));
    // QUIRK: a failed write leaves the gain at 1.
    m_iGain = ok ? g : 1;
    if (m_bAutoBL) {
        m_iAutoBLCount = 0;
        m_bAutoBLBusy = true;
        ok = Write(REG_BLACK_MODE, BLACK_AUTO);
    }
    return ok;
}

bool CCameraSIoliteMono::SetBLOffset(bool automatic, char a, char b, char c, char d)
{
    m_bAutoBL = automatic;
    m_bAutoBLBusy = automatic;
    if (automatic)
        return Write(REG_BLACK_MODE, BLACK_AUTO);
    const bool ok = Write(REG_BLACK_MODE, BLACK_MANUAL);
    const char offsets[] = { a, b, c, d };
    for (size_t i = 0; i < 4; ++i) {
        // QUIRK: the sign goes on above bit 8, which is already set then: -1 is written as 0xFFFF.
        const int v = static_cast<signed char>(offsets[i]);  // NOLINT(bugprone-signed-char-misuse): the sign is meant
        Write(g_BlackRegs[i], v < 0 ? v | 0x100 : v);
    }
    m_iBL_EE = static_cast<uint8_t>(a);
    m_iBL_OO = static_cast<uint8_t>(b);
    m_iBL_EO = static_cast<uint8_t>(c);
    m_iBL_OE = static_cast<uint8_t>(d);
    return ok;
}

bool CCameraSIoliteMono::GetBLOffset(bool* automatic, char* a, char* b, char* c, char* d)
{
    *automatic = m_bAutoBL;
    const uint8_t saved[] = { m_iBL_EE, m_iBL_OO, m_iBL_EO, m_iBL_OE };
    char* const out[] = { a, b, c, d };
    bool ok = true;
    for (size_t i = 0; i < 4; ++i) {
        uint16_t value = 0;
        const bool read = ReadCameraRegister(g_BlackRegs[i], &value);
        *out[i] = static_cast<char>(read ? value & 0xFF : saved[i]);
        ok = ok && read;
    }
    return ok;
}
