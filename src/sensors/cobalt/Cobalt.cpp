#include "sensors/cobalt/Cobalt.h"

#include <algorithm>
#include <atomic>

#include "RegisterTables.h"
#include "platform/Platform.h"
#include "sensors/RegisterTable.h"

namespace {

enum Reg : uint16_t {
    REG_MAILBOX = 0x0040,    // a write starts a command; bit 15 reads as set while it runs, else the result
    REG_PARAMETER = 0xFC00,  // byte argument or result in the high byte
    REG_TOP = 0x3002,
    REG_LEFT = 0x3004,
    REG_BOTTOM = 0x3006,
    REG_RIGHT = 0x3008,
    REG_FRAME_LINES = 0x300A,
    REG_LINE_CLOCKS = 0x300C,  // half of m_iHMAX
    REG_SHUTTER = 0x3012,      // lines
    REG_BLACK = 0x301E,        // 16 a step of brightness
    REG_UNK_3040 = 0x3040,     // 65 as the last step of the bring-up; meaning not known
    REG_GREEN_1 = 0x3056,
    REG_BLUE = 0x3058,
    REG_RED = 0x305A,
    REG_GREEN_2 = 0x305C,
};
enum : uint16_t { CMD_SET_STATE = 0x8100, CMD_GET_STATE = 0x8101, CMD_BUSY = 0x8000 };
enum : uint8_t { STATE_CHANGE_CONFIG = 0x28, STATE_STREAMING = 0x31 };
constexpr int RESULT_BUSY = 9;
constexpr int MAILBOX_POLLS = 100;  // no delay between them: each is a control transfer

constexpr uint64_t EXP_SLOW = 600'000;         // us; from here on the slow clock
constexpr uint64_t EXP_REGISTER = 60'000'000;  // us; above it the host times the exposure
constexpr int64_t LINES_MAX = 65535;
constexpr int LINES_LONG = 12287;                  // shutter of the host-timed mode
constexpr int32_t CLK_SLOW = 24, CLK_NORMAL = 48;  // MHz
constexpr int32_t HMAX_SLOW = 4095;                // clocks; also tells that the slow clock is in use
constexpr int LINE_EXTRA_CLOCKS = 210, FRAME_EXTRA_LINES = 29;
constexpr double LINK_RATE = 35.5;  // megabytes per second

// Addresses of the init table that are one byte wide.
constexpr uint16_t g_ByteRegs[] = { 0xC962, 0xC86C, 0x9427, 0xC850, 0xC83D, 0xC83C, 0xC864, 0xC8FF };

// clang-format off
constexpr ModelTraits g_Col = {
    .family = Family::Cobalt, .className = "CCameraSCobaltCol", .name = "VYR KOVCobaltCol",
    .key = L"SOFTWARE\\KOVCobaltCol", .guidSlot = 7,
    .products = { { 0xC03A, "VYR KOVCobaltCol-A" }, { 0xC03B, nullptr }, { 0xC03C, "VYR KOVCobaltCol-B" } },
    .width = 728, .height = 512, .pixelSize = 5.60, .bayer = BAYER_GR, .isUsb3 = false,
    .gain = { 0, 100, 50 }, .exposure = { 64, 64000000, 33000 }, .wbR = 41, .wbB = 94, .wbMax = 100,
    .brightness = { 0, 20, 0 }, .bandwidthMin = 50, .fpsPercUsb3 = 0, .clock = CLK_NORMAL, .hmax = 938,
    .maxExposure = 60000000, .caps = CAP_BRIGHTNESS | CAP_BANDWIDTH | CAP_WB, .start = 0,
    .bins = { 1, 2 }, .controls = { 0, 1, 2, 3, 4, 5, 6, 9, 10, 11, 12, -1 },
};
// clang-format on

std::atomic<int32_t> s_lastGain{ -1 };  // gain in force; shared by all cameras of the class

constexpr uint16_t VarAddress(uint16_t driver, uint16_t offset) { return static_cast<uint16_t>((driver | ~31u) << 10 | offset); }

}  // namespace

CCameraSCobaltCol::CCameraSCobaltCol(void* handle) : CUsb2Model(g_Col, handle) { FinishConstruction(); }

bool CCameraSCobaltCol::InitCamera()
{
    if (!m_bOpen)
        return false;
    m_iCMOSClk = CLK_NORMAL;
    SendCMD(REQ_CLOCK_48MHZ);
    SendCMD(REQ_MODE_8BIT);
    RunInitTable();
    changeConfig();
    SetGain(m_iGain, m_bAutoGain);
    SetGamma(m_iGamma);
    SetRGBBalance(m_iWB_R, m_iWB_B, m_bAutoWB);
    SetBrightness(m_iBrightness);
    FitLine(m_iFPSPerc, m_bAutoFPS);
    Write(REG_UNK_3040, 65);
    return true;
}

void CCameraSCobaltCol::RunInitTable()
{
    for (const RegEntry& e : g_CobaltInit) {
        if (e.address == REG_DELAY)
            platform::SleepMs(e.wValue);
        else if (e.address == REG_MAILBOX)
            issueCommand(e.wValue);
        else if (std::find(std::begin(g_ByteRegs), std::end(g_ByteRegs), e.address) != std::end(g_ByteRegs))
            WriteCameraRegisterByte(e.address, static_cast<uint8_t>(e.wValue));
        else
            WriteCameraRegister(e.address, e.wValue);
    }
}

bool CCameraSCobaltCol::SetOutput16Bits(bool on)
{
    m_bOutput16Bits = on;
    return SettleAndSendTransferMode(on);
}

bool CCameraSCobaltCol::SetResolution(int width, int height, int bin, IMAGE_TYPE type)
{
    if (!m_bOpen || !TakeRegion(width, height, bin, type, 1024))
        return false;
    ApplyRegion(type);
    return true;
}

bool CCameraSCobaltCol::Cam_SetResolution()
{
    if (m_bCapturing)
        SendCMD(REQ_STOP_STREAM);
    Write(REG_TOP, m_iStartY);
    Write(REG_LEFT, m_iStartX);
    Write(REG_FRAME_LINES, SensorH() + FRAME_EXTRA_LINES);
    Write(REG_BOTTOM, SensorH() + m_iStartY - 1);
    Write(REG_RIGHT, SensorW() + m_iStartX - 1);
    FitLine(m_iFPSPerc, m_bAutoFPS);
    return Reexpose();
}

void CCameraSCobaltCol::WriteStart()
{
    const bool stop = m_bCapturing;
    if (stop)
        SendCMD(REQ_STOP_STREAM);
    Write(REG_TOP, m_iStartY);
    Write(REG_LEFT, m_iStartX);
    Write(REG_BOTTOM, m_iStartY + SensorH() - 1);
    Write(REG_RIGHT, m_iStartX + SensorW() - 1);
    if (stop)
        SendCMD(REQ_START_STREAM);
}

void CCameraSCobaltCol::WriteLineClocks() { Write(REG_LINE_CLOCKS, m_iHMAX / 2); }

bool CCameraSCobaltCol::SetFPSPerc(int percent, bool autoMode) { return FitLine(percent, autoMode) && Reexpose(); }

bool CCameraSCobaltCol::Reexpose()
{
    m_lastExp = 0;  // while capture runs, the same exposure has to be applied again
    return SetExp(m_lExposure, m_bAutoExp);
}

bool CCameraSCobaltCol::FitLine(int percent, bool autoMode)
{
    if (m_lExposure > EXP_SLOW)
        return false;
    TakePercentage(percent, autoMode, 80);
    m_bAutoFPS = false;  // QUIRK: never on, whatever was asked
    const double clocks = static_cast<double>(int64_t{ BytesPerPixel() } * m_iCMOSClk * SensorW() * SensorH());
    const int lines = SensorH() + FRAME_EXTRA_LINES;
    m_iHMAX = TruncClamp((clocks * 100.0 / LINK_RATE / m_iFPSPerc + LINE_EXTRA_CLOCKS) / lines, SensorW() + LINE_EXTRA_CLOCKS,
                         INT32_MAX);
    WriteLineClocks();
    m_iExpLines = static_cast<int32_t>(std::clamp<int64_t>(ShutterLines(), 1, 4095));
    Write(REG_SHUTTER, m_iExpLines);
    return true;
}

bool CCameraSCobaltCol::GetFPSPerc(int* percent, bool* autoMode)
{
    *percent = m_iFPSPerc;
    *autoMode = m_bAutoFPS;
    return true;
}

bool CCameraSCobaltCol::SetCMOSClk(int clock)
{
    m_iCMOSClk = clock;
    if (clock != CLK_NORMAL && clock != CLK_SLOW)
        return true;
    return SendCMD(clock == CLK_NORMAL ? REQ_CLOCK_48MHZ : REQ_CLOCK_24MHZ);
}

bool CCameraSCobaltCol::SetExp(uint64_t microseconds, bool autoMode)
{
    TakeExp(microseconds, autoMode);
    return m_bCapturing ? true : ApplyExp();
}

bool CCameraSCobaltCol::ApplyExp()
{
    if ((m_bCapturing && m_lExposure == m_lastExp) || m_bLongExp)
        return true;
    m_lastExp = m_lExposure.Get();
    if (m_lExposure >= EXP_SLOW) {
        if (m_iHMAX != HMAX_SLOW) {
            m_normalHMAX = m_iHMAX.Get();
            SetCMOSClk(CLK_SLOW);
            m_iHMAX = HMAX_SLOW;
            WriteLineClocks();
        }
    } else if (m_iHMAX == HMAX_SLOW) {
        SetCMOSClk(CLK_NORMAL);
        FitLine(m_iFPSPerc, m_bAutoFPS);
        // QUIRK: the line length from before the slow clock stands, also when the region or the bandwidth has changed
        // meanwhile.
        m_iHMAX = m_normalHMAX.Get();
        WriteLineClocks();
    }
    const int64_t lines = std::max<int64_t>(ShutterLines(), 1);
    m_iExpLines = static_cast<int32_t>(lines);
    if (lines <= LINES_MAX && m_lExposure <= EXP_REGISTER)
        return Write(REG_SHUTTER, lines);
    // QUIRK: in regions narrower than about 228 the lines are so short that 450 to 600 ms no longer fit the register. A
    // host then gets a frame of about 86 ms, and an exposure of 1 s set after it changes nothing.
    const bool ok = Write(REG_SHUTTER, LINES_LONG);
    m_bLongExp = true;
    platform::SleepMs(100);
    return ok;
}

int64_t CCameraSCobaltCol::ShutterLines() const
{
    const uint64_t clocks = static_cast<uint64_t>(m_iCMOSClk) * m_lExposure - FRAME_EXTRA_LINES;
    return static_cast<int64_t>(clocks / static_cast<uint64_t>(m_iHMAX));
}

bool CCameraSCobaltCol::SetGain(int gain, bool autoMode)
{
    TakeGain(gain, autoMode);
    return m_bCapturing ? true : ApplyGain();
}

float CCameraSCobaltCol::GainFactor() const
{
    const int g = m_iGain;
    const double f = g <= 16   ? g * 0.0625 + 1
                     : g <= 32 ? g * 0.125
                     : g <= 48 ? (g - 32.0) * 0.25 + 4
                     : g <= 64 ? (g - 48.0) * 0.5 + 8
                     : g <= 80 ? g + 16.0 - 64
                               : (g - 80.0) * 1.6 + 32;
    return static_cast<float>(f);
}

bool CCameraSCobaltCol::ApplyGain()
{
    const int32_t g = m_iGain;
    // QUIRK: with two cameras of the class capturing, a gain that the other one has just taken counts as unchanged.
    if (s_lastGain.exchange(g) == g && m_bCapturing)
        return true;
    Write(REG_GREEN_1, GainValue2Reg(GainFactor()));
    Write(REG_GREEN_2, GainValue2Reg(GainFactor()));
    return WriteBalance();
}

bool CCameraSCobaltCol::WriteBalance()
{
    Write(REG_RED, GainValue2Reg(static_cast<float>(m_iWB_R * 0.02 * GainFactor())));
    return Write(REG_BLUE, GainValue2Reg(static_cast<float>(m_iWB_B * 0.02 * GainFactor())));
}

int CCameraSCobaltCol::GainValue2Reg(float gain)
{
    const double g = std::clamp(gain, 1.0f, 128.0f);
    if (g <= 2)
        return static_cast<int>(g * 31.5) | 0x1000;
    if (g <= 4)
        return static_cast<int>(g * 15.75) | 0x2000;
    if (g <= 8)
        return static_cast<int>(g * 7.875) | 0x2040;
    if (g <= 16)
        return static_cast<int>(g * 3.9375) | 0x2080;
    if (g <= 32)
        return static_cast<int>(g * 1.96875) | 0x20C0;
    if (g <= 64)
        return static_cast<int>(g - 1) | 0x40C0;
    return static_cast<int>(g * 0.5 - 1) | 0x80C0;
}

void CCameraSCobaltCol::SetRGBBalance(int red, int blue, bool autoMode)
{
    TakeBalance(red, blue, autoMode);
    WriteBalance();
}

bool CCameraSCobaltCol::SetBrightness(int value)
{
    m_iBrightness = value;
    return Write(REG_BLACK, int64_t{ value } * 16);
}

int CCameraSCobaltCol::WriteVar16(uint16_t driver, uint16_t offset, uint16_t value)
{
    WriteCameraRegister(VarAddress(driver, offset), value);
    return 1;
}

uint16_t CCameraSCobaltCol::ReadVar16(uint16_t driver, uint16_t offset)
{
    uint16_t value = 0;
    ReadCameraRegister(VarAddress(driver, offset), &value);
    return value;
}

int CCameraSCobaltCol::issueCommand(uint16_t command)
{
    WriteCameraRegister(REG_MAILBOX, command);
    for (int i = 0; i < MAILBOX_POLLS; ++i) {
        // QUIRK: a failed read counts as 0, so a dead camera answers "success" at the first poll.
        uint16_t result = 0;
        if (!ReadCameraRegister(REG_MAILBOX, &result))
            result = 0;
        if (result < CMD_BUSY)
            return result;
    }
    return MAILBOX_TIMEOUT;
}

int CCameraSCobaltCol::setState(uint8_t state)
{
    Write(REG_PARAMETER, state << 8);
    return issueCommand(CMD_SET_STATE);
}

int CCameraSCobaltCol::getState(uint8_t* state)
{
    const int result = issueCommand(CMD_GET_STATE);
    if (result != 0 || state == nullptr)
        return result;
    uint16_t value = 0;
    ReadCameraRegister(REG_PARAMETER, &value);
    *state = static_cast<uint8_t>(value >> 8);
    return 0;
}

int CCameraSCobaltCol::changeConfig()
{
    if (const int result = setState(STATE_CHANGE_CONFIG); result != 0)
        return result;
    int result = RESULT_BUSY;
    for (int i = 0; i < MAILBOX_POLLS && result == RESULT_BUSY; ++i)
        result = issueCommand(CMD_GET_STATE);
    if (result != 0)
        return result == RESULT_BUSY ? MAILBOX_TIMEOUT : result;
    uint16_t value = 0;
    ReadCameraRegister(REG_PARAMETER, &value);
    return value >> 8 == STATE_STREAMING ? 0 : MAILBOX_WRONG_STATE;
}
