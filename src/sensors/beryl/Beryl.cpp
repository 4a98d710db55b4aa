#include "sensors/beryl/Beryl.h"

#include <algorithm>
#include <cstdint>

#include "RegisterTables.h"
#include "platform/Platform.h"

namespace {

enum Reg : uint16_t {
    REG_BLACK = 0x0080,
    REG_EXPOSURE = 0x00C9,  // in 1/72 ms
    REG_ANALOG_GAIN = 0x00CC,
    REG_DIGITAL_GAIN = 0x00CD,
    REG_COLUMNS = 0x0100,
    REG_FIRST_ROW = 0x0101,
    REG_LAST_ROW = 0x0102,
};

constexpr FpgaTraits g_Fpga = { 18, 43272, 190906, 72, 100, 100000, false };
constexpr int32_t HMAX_MIN = 1100;

// clang-format off
constexpr ModelTraits g_Col = {
    .family = Family::Beryl, .className = "CCameraSBerylCol", .name = "VYR KOVBerylCol",
    .key = L"SOFTWARE\\KOVBerylCol", .products = { { 0xC02A, nullptr } },
    .width = 640, .height = 480, .pixelSize = 3.75, .bayer = BAYER_RG,
    .gain = { 0, 600, 200 }, .exposure = { 32, 1000000000, 10000 }, .wbR = 52, .wbB = 95,
    .brightness = { 0, 240, 1 }, .fpsPercUsb3 = 100, .clock = 72, .hmax = 4500, .maxExposure = 1000000000,
    .autoGainMax = 300, .autoExpMaxCap = 1000, .caps = CAP_COMMON | CAP_AUTO | CAP_FLIP | CAP_WB,
    .start = START_AUTO_FPS | START_HARDWARE_BIN,
    .bins = { 1, 2 }, .controls = { 0, 1, 2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 14, -1 },
};
// clang-format on

// QUIRK: the monochrome model offers the colour formats and both white balances, which do nothing, and starts with
// CTRL_AUTOEXP_MAX_EXP at 0.
constexpr ModelTraits g_Mono = [] {
    ModelTraits t = Named(g_Col, "CCameraSBerylMono", "VYR KOVBerylMono", L"SOFTWARE\\KOVBerylMono", 0xC02B);
    t.pixelSize = 4.80;
    t.isColor = false;
    t.gain = { 0, 100, 50 };
    t.exposure = { 32, 500000, 10000 };
    t.maxExposure = 500000;
    t.autoGainMax = 50;
    t.autoExpMaxCap = 0;
    return t;
}();

ClassVars g_ColVars{ { g_Fpga.unitUsb3 }, { HMAX_MIN } };
ClassVars g_MonoVars{ { g_Fpga.unitUsb3 }, { HMAX_MIN } };

}  // namespace

CBeryl::CBeryl(const ModelTraits& t, ClassVars& v, void* handle) : CFpgaModel(t, g_Fpga, v, handle) {}

CCameraSBerylCol::CCameraSBerylCol(void* handle) : CWhole(g_Col, g_ColVars, handle) {}
CCameraSBerylMono::CCameraSBerylMono(void* handle) : CWhole(g_Mono, g_MonoVars, handle) {}

void CBeryl::InitSensor()
{
    model::RunTable16(*this, g_BerylInit);
    Fpga(FPGA_RUN, RUN_RESET);
    platform::SleepMs(20);
    Fpga(FPGA_RUN, 0x10);
    Fpga(FPGA_FORMAT, 1);
    Fpga(FPGA_HOLD, 1);
    UnityGains();
    Fpga(FPGA_HOLD, 0);
}

bool CBeryl::SetOutput16Bits(bool on)
{
    TakeOutput16Bits(on);
    return Fpga(FPGA_FORMAT, on ? 17 : m_bHighSpeed && !InHardBin2() ? 0 : 1);
}

bool CBeryl::SetExp(uint64_t microseconds, bool autoMode)
{
    TakeExp(microseconds, autoMode);
    m_bLongExp = m_lExposure >= 2'000'000;
    // QUIRK: the register takes the request before the limits, so an oversize one overflows it while CTRL_EXPOSURE reads
    // the limit.
    return WriteCameraRegister(REG_EXPOSURE, static_cast<uint16_t>(microseconds * 72 / 1000));
}

bool CBeryl::SetGain(int gain, bool autoMode)
{
    const int g = TakeGain(gain, autoMode);
    // QUIRK: the colour model's range goes to 600, but above 100 nothing reaches the sensor.
    if (g > 100)
        return true;
    struct Step {
        int below, stage, offset;
    };
    static constexpr Step steps[] = { { 16, 483, 8 }, { 32, 35, -8 }, { 48, 33, -24 }, { 64, 65, -40 }, { 101, 65, -56 } };
    const Step& s = *std::find_if(std::begin(steps), std::end(steps), [=](const Step& x) { return g < x.below; });
    WriteCameraRegister(REG_ANALOG_GAIN, static_cast<uint16_t>(s.stage));
    return WriteCameraRegister(REG_DIGITAL_GAIN, static_cast<uint16_t>((g + s.offset) * 16));
}

bool CBeryl::SetBrightness(int value)
{
    m_iBrightness = value;
    return WriteCameraRegister(REG_BLACK, static_cast<uint16_t>(value));
}

uint16_t CBeryl::ColumnWord() const
{
    const uint32_t x = uint32_t(m_iStartX), last = uint32_t(m_iBin * m_iWidth) + x + 16;
    return static_cast<uint16_t>((last << 8 | x) / 8);
}

bool CBeryl::WriteStart(int, int y)
{
    WriteCameraRegister(REG_COLUMNS, ColumnWord());
    WriteCameraRegister(REG_FIRST_ROW, static_cast<uint16_t>(y));
    return WriteCameraRegister(REG_LAST_ROW, static_cast<uint16_t>(y + m_iHeight * m_iBin));
}

bool CBeryl::Cam_SetResolution()
{
    const bool bin = InHardBin2();
    const int last = m_iStartY + m_iHeight * m_iBin;
    Fpga(FPGA_HOLD, 1);
    Fpga(FPGA_START_X, bin ? 2 : 0);
    Fpga(FPGA_START_Y, bin ? 5 : 0);
    WriteCameraRegister(REG_LAST_ROW, static_cast<uint16_t>(bin ? last << 8 : last));
    WriteCameraRegister(REG_COLUMNS, ColumnWord());
    WriteCameraRegister(REG_FIRST_ROW, static_cast<uint16_t>(m_iStartY));
    WriteSensorSizeToFpga();
    return Fpga(FPGA_HOLD, 0);
}
