#include "sensors/agate/Agate.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <vector>

#include "automation/WhiteBalance.h"
#include "base/FrameSample.h"
#include "camera/WhiteBalance.h"
#include "imaging/CAlgorithm.h"
#include "sensors/RegisterTable.h"

struct AgateForm {
    int blank;       // least blanking of a line, clocks
    bool isAgate;    // Agate's longer bring-up
    int wbTopStart;  // upper limit of the balance while the object is built; 99 afterwards
};

namespace {

enum Reg : uint16_t {
    REG_LEFT = 0x01,  // 1 more than the column
    REG_TOP = 0x02,   // 4 more than the row
    REG_HEIGHT = 0x03,
    REG_WIDTH = 0x04,
    REG_BLANK = 0x05,
    REG_UNK_07 = 0x07,   // 392 brings it back from the long-exposure mode
    REG_SHUTTER = 0x0B,  // lines
    REG_RESTART = 0x0C,
    REG_ANALOG = 0x35,
    REG_DIGITAL = 0x80,  // gain
};
constexpr uint64_t EXP_REGISTER = 10'000'000;  // us; above it the host times the exposure
constexpr uint32_t LINES_MAX = 32767;
constexpr int LINE_CLOCKS = 660;  // shortest line
constexpr int DIGITAL_FROM = 48;  // index of the first digital gain
constexpr int ANALOG_PARKED = 111, DIGITAL_PARKED = 1268;
constexpr int WB_MIN = 1, WB_TOP = 99;

constexpr ModelTraits Row(const char* className, const char* name, const wchar_t* key, int slot, int width, bool color, int wbMax,
                          int32_t expMax, int32_t maxExposure, int32_t clk)
{
    // clang-format off
    const ModelTraits t = {
        .family = width == 640 ? Family::Agate : Family::Dunite, .className = className, .name = name, .key = key,
        .guidSlot = slot, .width = width, .height = 480, .pixelSize = 6.00, .bayer = BAYER_BG, .isUsb3 = false,
        .gain = { 1, 100, 50 }, .exposure = { 32, expMax, 33000 }, .wbR = color ? 45 : 0, .wbB = color ? 70 : 0,
        .wbMin = color ? 1 : 0, .wbMax = wbMax, .brightness = {}, .bandwidthMin = 1, .bandwidthMax = 2,
        .fpsPerc = 0, .fpsPercUsb3 = 0, .clock = clk, .hmax = 0, .maxExposure = maxExposure, .caps = CAP_WB,
        .types = TYPE_RAW8 | TYPE_RGB24 | TYPE_Y8, .start = 0, .bins = { 1 },
        .controls = { 0, 1, 2, 3, 4, 9, 10, 11, 12, -1 },
    };
    // clang-format on
    return color ? t : Mono(t);
}
constexpr ModelTraits With(ModelTraits t, std::initializer_list<ProductName> products)
{
    std::copy(products.begin(), products.end(), t.products);
    return t;
}

// Behind the key: slot, width, colour, upper balance, control limit of exposure, longest exposure, MHz.
constexpr ModelTraits g_AgateCol =
    With(Row("CCameraSAgateCol", "VYR KOVAgateCol", L"SOFTWARE\\KOVAgateCol", 6, 640, true, 99, 30000000, 4000000, 24),
         { { 0xC01A, nullptr } });
constexpr ModelTraits g_DuniteMono =
    With(Row("CCameraSDuniteMono", "VYR KOVDuniteMono", L"SOFTWARE\\KOVDuniteMono", 5, 752, false, 0, 999000000, 1000000000, 30),
         { { 0xC04A, nullptr }, { 0xC04C, "TORMELD KOVDuniteMono-A" }, { 0xC04D, "TORMELD KOVDuniteMono-B" } });
constexpr ModelTraits g_DuniteCol =
    With(Row("CCameraSDuniteCol", "VYR KOVDuniteCol", L"SOFTWARE\\KOVDuniteCol", 4, 752, true, 100, 999000000, 1000000000, 30),
         { { 0xC04B, nullptr }, { 0xC04E, "TORMELD KOVDuniteCol-A" }, { 0xC04F, "TORMELD KOVDuniteCol-B" } });

constexpr AgateForm g_Agate = { 94, true, 99 };
// QUIRK: the colour model takes a stored balance of 100 as it is; set by the host, 100 becomes 99.
constexpr AgateForm g_Dunite = { 61, false, 100 };

std::atomic<int> g_AgateIndex, g_DuniteMonoIndex, g_DuniteColIndex;

// Word of the gain register: four runs.
constexpr int GainWord(int i)
{
    return i < 16 ? 0x10 + i : i < 40 ? 0x20 + 2 * (i - 16) : i < DIGITAL_FROM ? 0x68 + i - 40 : 0x4F4 + i - DIGITAL_FROM;
}
static_assert(GainWord(39) == 0x4E && GainWord(47) == ANALOG_PARKED);
static_assert(GainWord(48) == DIGITAL_PARKED && GainWord(59) == 0x4FF);

}  // namespace

CAgate::CAgate(const ModelTraits& t, const AgateForm& f, std::atomic<int>& lastIndex, void* handle)
    : CUsb2Model(t, handle), m_wbTop(f.wbTopStart), m_form(f), m_lastIndex(lastIndex)
{
}

void CAgate::FinishConstruction()
{
    CUsb2Model::FinishConstruction();
    m_wbTop = WB_TOP;
}

CCameraSAgateCol::CCameraSAgateCol(void* handle) : CWhole(g_AgateCol, g_Agate, g_AgateIndex, handle) {}
CCameraSDuniteMono::CCameraSDuniteMono(void* handle) : CWhole(g_DuniteMono, g_Dunite, g_DuniteMonoIndex, handle) {}
CCameraSDuniteCol::CCameraSDuniteCol(void* handle) : CWhole(g_DuniteCol, g_Dunite, g_DuniteColIndex, handle) {}

bool CAgate::InitCamera()
{
    if (!m_bOpen)
        return false;
    static constexpr RegEntry init[] = {
        { 0xAF, 0 }, { 0x9A, 752 }, { 0xA0, 480 }, { 0x2C, 0 }, { 0x0D, 800 }, { 0x70, 0 },
    };
    model::RunTable16(*this, { init, std::size(init) - (m_form.isAgate ? 0 : 1) });
    m_bCapturing = false;
    model::ReadFirmwareVer(*this);
    SetGain(m_iGain, m_bAutoGain);
    SetExp(m_lExposure, m_bAutoExp);
    SetGamma(m_iGamma);
    // QUIRK: Dunite starts with a clock of 30, which the switch refuses: the camera keeps the one it woke up with.
    SetCMOSClk(m_iCMOSClk);
    if (m_form.isAgate)
        SetRGBBalance(m_iWB_R, m_iWB_B, m_bAutoWB);
    return true;
}

bool CAgate::SetCMOSClk(int clock)
{
    if (clock != 24 && clock != 48)
        return false;
    m_iCMOSClk = clock;
    return SendCMD(clock == 24 ? REQ_CLOCK_24MHZ : REQ_CLOCK_48MHZ);
}

bool CAgate::SetOutput16Bits(bool on)
{
    m_bOutput16Bits = on;
    return SettleAndSendTransferMode(on);
}

int32_t CAgate::GetRealImageSize() { return SensorW() * SensorH() * BytesPerPixel(); }

bool CAgate::SetResolution(int width, int height, int bin, IMAGE_TYPE type)
{
    if (!TakeRegion(width, height, bin, type, 1))
        return false;
    ApplyRegion(type, { { REG_RESTART, 1 }, { REG_UNK_07, 392 } });
    SetExp(m_lExposure, m_bAutoExp);  // lines are as long as the region is wide
    return true;
}

bool CAgate::Cam_SetResolution()
{
    Write(REG_TOP, m_iStartY + 4);
    Write(REG_LEFT, m_iStartX + 1);
    Write(REG_HEIGHT, SensorH());
    Write(REG_WIDTH, SensorW());
    Write(REG_BLANK, SensorW() >= 627 ? m_form.blank : std::max(LINE_CLOCKS - m_iWidth, m_form.blank));
    return Write(REG_RESTART, 1);
}

void CAgate::WriteStart()
{
    Write(REG_TOP, m_iStartY + 4);
    // QUIRK: mirrored here and only here: the same start shows another part of the scene than after a change of region.
    Write(REG_LEFT, m_iMaxWidth + 1 - m_iStartX - m_iWidth);
}

bool CAgate::SetExp(uint64_t microseconds, bool autoMode)
{
    TakeExp(microseconds, autoMode);
    const int blank = std::max(LINE_CLOCKS - SensorW(), m_form.blank);
    // 32 bits, wrapping: exposures from 89 s (at 48 MHz) count wrong lines, but those the host times anyway.
    const uint32_t clocks = static_cast<uint32_t>(m_iCMOSClk) * static_cast<uint32_t>(m_lExposure) - 4;
    const uint32_t lines = std::max(clocks / static_cast<uint32_t>(blank + SensorW()), 1u);
    m_iExpLines = static_cast<int32_t>(lines);
    if (lines > LINES_MAX || m_lExposure > EXP_REGISTER) {
        m_bLongExp = true;
        return true;
    }
    return m_bLongExp ? true : Write(REG_SHUTTER, lines);
}

bool CAgate::SetGain(int gain, bool autoMode)
{
    TakeGain(gain, autoMode);
    const int i = static_cast<int>(std::lround(m_iGain * 60 / 100.0)) - 1;
    // QUIRK: one camera of the class parks by what another one had.
    const int last = m_lastIndex.exchange(i);
    if (i >= DIGITAL_FROM) {
        if (last < DIGITAL_FROM)
            Write(REG_ANALOG, ANALOG_PARKED);
        return Write(REG_DIGITAL, GainWord(i));
    }
    if (last > DIGITAL_FROM)
        Write(REG_DIGITAL, DIGITAL_PARKED);
    return Write(REG_ANALOG, GainWord(i));
}

void CAgate::SetRGBBalance(int red, int blue, bool autoMode)
{
    m_bAutoWB = autoMode;
    if (!m_bIsColor)
        return;
    m_iWB_R = std::clamp(red, WB_MIN, m_wbTop);
    m_iWB_B = std::clamp(blue, WB_MIN, m_wbTop);
    m_Algorithm.SetRGBWB(m_iWB_R, m_iWB_B);
}

void CAgate::AutoWhiBal(uint8_t* frame)
{
    if (!m_bIsColor || m_bOutput16Bits || !m_bAutoWB)
        return;
    const int w = SensorW(), h = SensorH();
    const size_t pixels = static_cast<size_t>(w) * static_cast<size_t>(h);
    std::vector<uint8_t> raw(pixels), rgb(3 * pixels);
    for (size_t i = 0; i < pixels; ++i)
        raw[i] = SampleFrame(frame, i);
    // By the sensor's cell alone: flips happen later, on delivery. The balance in force is part of the demosaic.
    switch (m_ColorBayer) {
    case BAYER_RG: m_Algorithm.Bayer2RGB24_RG(raw.data(), rgb.data(), w, h); break;
    case BAYER_BG: m_Algorithm.Bayer2RGB24_BG(raw.data(), rgb.data(), w, h); break;
    case BAYER_GR: m_Algorithm.Bayer2RGB24_GR(raw.data(), rgb.data(), w, h); break;
    case BAYER_GB: m_Algorithm.Bayer2RGB24_GB(raw.data(), rgb.data(), w, h); break;
    }
    AutoWB(rgb.data());
}

void CAgate::AutoWB(uint8_t* rgb)
{
    const int W = m_iWidth, H = m_iHeight;
    if (W < WB_GRID || H < WB_GRID)
        return;  // no block would hold a pixel
    WBBlocks b;
    for (int j = 0; j < WB_GRID; ++j)
        for (int k = 0; k < WB_GRID; ++k) {
            const int i = j * WB_GRID + k;
            for (auto& dev : b.dev)
                dev[i] = 1;
            Get_variance_ave(rgb, k * W / WB_GRID, j * H / WB_GRID, W / WB_GRID, H / WB_GRID, &b.dev[WB_BLUE][i],
                             &b.dev[WB_GREEN][i], &b.dev[WB_RED][i], &b.mean[WB_BLUE][i], &b.mean[WB_GREEN][i],
                             &b.mean[WB_RED][i]);
        }
    StepWhiteBalance(*this, b, false);
}

void CAgate::Get_variance_ave(uint8_t* rgb, int x0, int y0, int blockW, int blockH, int* dev0, int* dev1, int* dev2, int* mean0,
                              int* mean1, int* mean2)
{
    int* const devs[] = { dev0, dev1, dev2 };
    int* const means[] = { mean0, mean1, mean2 };
    const int n = blockW * blockH;
    for (int c = 0; c < 3; ++c) {
        const auto visit = [&](auto use) {
            for (int y = y0; y < y0 + blockH; ++y)
                for (int x = x0; x < x0 + blockW; ++x)
                    use(int{ rgb[3 * (size_t(y) * size_t(m_iWidth) + size_t(x)) + size_t(c)] });
        };
        int sum = 0, diff = 0;
        visit([&](int v) { sum += v; });
        const int mean = sum / n + 1;
        const bool measure = *devs[c] != 0;
        visit([&](int v) { diff += measure ? std::abs(v - mean) : 1; });
        *means[c] = mean;
        *devs[c] = diff / n;
    }
}
