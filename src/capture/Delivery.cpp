// GetImage of all models: takes a raw frame from the exchange, plans what is to be made of it from the camera's state, and
// has it made in one walk, on the host's thread.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "base/Trace.h"
#include "camera/HotPixels.h"
#include "camera/MemoryFrame.h"
#include "camera/ModelTraits.h"
#include "capture/Capture.h"
#include "capture/Forms.h"
#include "exchange/FrameExchange.h"
#include "imaging/Bayer.h"
#include "imaging/CAlgorithm.h"
#include "imaging/Gamma.h"
#include "imaging/Reference.h"
#include "imaging/Tables.h"
#include "imaging/Walk.h"
#include "platform/Platform.h"

namespace {

constexpr uint64_t DARK_MIN_EXPOSURE = 500000;  // us; with automatic exposure no dark is subtracted below it

// At which bins the camera bins by itself while m_bHardwareBin is set, and what that leaves to the host.
enum class HardBin : uint8_t {
    All,           // frames of m_iWidth x m_iHeight at every bin
    TwoThreeFour,  // as All, but bin 4 is 2 in the camera and 2 on the host
    TwoFour,       // bin 2, and bin 4 as 2 and 2; bin 3 on the host alone
    Three,         // bin 3; others on the host alone
    Never,         // m_iBin squared pixels at every bin
};
// What the marks have taken is replaced by pixels from further down.
enum class Repair : uint8_t {
    FourBytes,     // first and last 32-bit word, from two rows away
    EightBytes,    // the first two words
    EightAndTail,  // and the last
    None,
};
enum class Flips : uint8_t { AfterBin, BeforeBin, NoBin };

//                     hardware bin, mark repair, head test, 12-bit rotation, flips, first row
struct DeliveryForm {
    Family family;
    HardBin hardBin;
    Repair repair;
    bool testHead;  // frames with a wrong head may lie in the exchange
    bool rotate12;  // 16-bit samples are 12 bits, low byte first, and go to the top of the word
    Flips flips;
    bool copyFirstRow;  // the first row is damaged and takes the third's place
};

// clang-format off
constexpr DeliveryForm g_DeliveryForms[] = {
//    family            hardware bin           repair                head   rotate flips             row
    { Family::Kyanite,  HardBin::TwoThreeFour, Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Marble,   HardBin::TwoFour,      Repair::FourBytes,    false, false, Flips::AfterBin,  true  },
    { Family::Ebony,    HardBin::Three,        Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Flint,    HardBin::Three,        Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Halite,   HardBin::Three,        Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Quartz,   HardBin::All,          Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Onyx,     HardBin::All,          Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Pyrite,   HardBin::All,          Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Nephrite, HardBin::All,          Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Lapis,    HardBin::All,          Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Beryl,    HardBin::All,          Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Jasper,   HardBin::All,          Repair::FourBytes,    false, false, Flips::AfterBin,  false },
    { Family::Garnet,   HardBin::All,          Repair::EightBytes,   true,  true,  Flips::AfterBin,  false },
    { Family::GarnetS,  HardBin::All,          Repair::EightAndTail, false, true,  Flips::AfterBin,  false },
    { Family::Cobalt,   HardBin::All,          Repair::EightBytes,   true,  true,  Flips::AfterBin,  false },
    { Family::Iolite,   HardBin::All,          Repair::EightBytes,   true,  true,  Flips::NoBin,     false },
    { Family::Agate,    HardBin::Never,        Repair::None,         false, true,  Flips::BeforeBin, false },
    { Family::Dunite,   HardBin::Never,        Repair::None,         false, true,  Flips::BeforeBin, false },
};
// clang-format on

const DeliveryForm& FormOf(const ModelTraits& t)
{
    for (const DeliveryForm& f : g_DeliveryForms)
        if (f.family == t.family)
            return f;
    return g_DeliveryForms[0];
}

// Geometry of one frame, read once: the host's setters may change it meanwhile, and nothing here may then leave a buffer.
struct Geometry {
    int w, h, bin;   // output pixels
    int rawW, rawH;  // pixels of the frame as it came
    int softBin;     // what the host bins; 1 is nothing
    bool is16, hardBin;
    int64_t Pixels() const { return int64_t{ rawW } * rawH; }
    int64_t Bytes() const { return Pixels() * (is16 ? 2 : 1); }
};

Geometry GeometryOf(const CCameraBase& cam, const DeliveryForm& f)
{
    Geometry g{};
    g.w = std::clamp<int>(cam.m_iWidth, 0, cam.m_iMaxWidth);
    g.h = std::clamp<int>(cam.m_iHeight, 0, cam.m_iMaxHeight);
    g.bin = std::clamp<int>(cam.m_iBin, 1, 16);
    g.is16 = cam.m_bOutput16Bits;
    g.hardBin = cam.m_bHardwareBin;

    int factor = g.bin;
    g.softBin = g.bin;
    if (g.hardBin) {
        const bool half = g.bin == 4 && (f.hardBin == HardBin::TwoThreeFour || f.hardBin == HardBin::TwoFour);
        const bool whole = f.hardBin == HardBin::All || f.hardBin == HardBin::TwoThreeFour
                               ? !half && (f.hardBin == HardBin::All || g.bin == 2 || g.bin == 3)
                               : (f.hardBin == HardBin::TwoFour && g.bin == 2) || (f.hardBin == HardBin::Three && g.bin == 3);
        if (half)
            factor = g.softBin = 2;
        else if (whole)
            factor = g.softBin = 1;
        else if (f.hardBin == HardBin::TwoThreeFour)
            g.softBin = 1;  // QUIRK: bins beyond the sensor's show a corner of the unbinned frame
    }
    if (f.flips == Flips::NoBin)
        g.softBin = 1;
    g.rawW = g.w * factor;
    g.rawH = g.h * factor;
    // A region that the sensor does not have cannot come from it.
    const int64_t room = int64_t{ cam.m_iMaxWidth } * cam.m_iMaxHeight;
    if (g.Pixels() > room) {
        g.rawH = g.rawW > 0 ? int(room / g.rawW) : 0;
        g.h = g.rawH / factor;
    }
    return g;
}

uint32_t Head(const uint8_t* p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

void CopyWord(uint8_t* p, int64_t to, int64_t from, int64_t words)
{
    if (to >= 0 && from >= 0 && to < words && from < words)
        std::memmove(p + 4 * to, p + 4 * from, 4);
}

void RepairMarks(uint8_t* p, const Geometry& g, const DeliveryForm& f, bool oneRow)
{
    const int64_t words = g.Bytes() / 4;
    const int64_t row = int64_t{ g.rawW } * (g.is16 ? 2 : 1);
    if (f.copyFirstRow && g.Bytes() >= 3 * row)
        std::memcpy(p, p + 2 * row, size_t(row));
    // QUIRK: a host sees the first pixels, and the last, as copies of those two rows further in: two rows keep the Bayer
    // phase, and the monochrome cameras take them too. Only GarnetMono on USB 2 takes one.
    const int64_t step = oneRow ? row / 4 : row / 2;
    if (f.repair == Repair::None)
        return;
    CopyWord(p, 0, step, words);
    if (f.repair != Repair::FourBytes)
        CopyWord(p, 1, step + 1, words);
    if (f.repair != Repair::EightBytes)
        CopyWord(p, words - 1, words - 1 - step, words);
}

// Adds the frame to the dark that is being taken.
void CollectDark(CCameraBase& cam, const Geometry& g, const uint8_t* p)
{
    uint16_t* const sum = cam.m_pDarkSum;
    const size_t full = size_t(cam.m_iMaxWidth) * size_t(cam.m_iMaxHeight);
    if (cam.m_iDarkCount == 0)
        std::memset(sum, 0, full * sizeof *sum);
    ++cam.m_iDarkCount;
    for (int64_t i = 0, n = g.Pixels(); i < n; ++i)
        sum[i] = uint16_t(sum[i] + p[i]);
    const int32_t wanted = std::max<int32_t>(cam.m_iDarkNum, 1);
    if (cam.m_iDarkCount < wanted)
        return;
    cam.m_iDarkCount = 0;
    if (wanted > 1)
        for (size_t i = 0; i < full; ++i)
            sum[i] = uint16_t(sum[i] / wanted);
    cam.AdjustDarkBuff(sum, cam.m_pDarkBuf);
    cam.m_bGettingDark = false;
}

// QUIRK: these models subtract the dark at any exposure, also with automatic exposure.
bool IgnoresDarkExposure(const ModelTraits& t)
{
    return !t.isColor && (t.family == Family::Quartz || t.family == Family::Lapis || t.family == Family::Beryl);
}

// Next acceptable frame. The wait starts anew for each frame that is passed over.
FrameExchange::Lease TakeFrame(CCameraBase& cam, const DeliveryForm& f, int32_t bytes, uint32_t waitMs)
{
    FrameExchange& fx = *cam.m_pFrameExchange;
    // A stretch of damaged frames is read through, but a stream that stays damaged (the host has changed the region while
    // it runs) must not hold a caller who has set a limit.
    const uint32_t start = platform::Ticks();
    const uint32_t limit = std::max<uint32_t>(5000, waitMs < 100000 ? 4 * waitMs : waitMs);
    while (FrameExchange::Lease lease = fx.Take(bytes, waitMs)) {
        if (!f.testHead)
            return lease;
        if (Head(lease.Frame()) == HEAD_B) {
            // At short exposures a damaged successor tells that this frame is torn. QUIRK: an infinite wait becomes
            // 498 ms for the look ahead.
            if (cam.m_bSnapMode || cam.m_lExposure >= 100000 || fx.PeekHead(HEAD_B, waitMs * 2 + 500))
                return lease;
            TraceLine("*next buf head error*\n");
        } else {
            TraceLine("*buf head error*\n");
        }
        if (platform::Ticks() - start > limit && waitMs != platform::WAIT_FOREVER)
            break;
    }
    return {};
}

// What the hot pixels of the frame become. HandleHotPixels repairs m_pImgBuf; of it only the listed pixels and their
// neighbours are filled in, so the cost goes with the list and not with the frame.
template <class T>
std::vector<imaging::Patch> RepairedPixels(CCameraBase& cam, const imaging::FramePlan& plan, int64_t count)
{
    std::vector<imaging::Patch> patches;
    const int64_t room = int64_t(SensorPixels(cam)) * (sizeof(T) == 1 ? 2 : 1);
    const auto list = [&](std::span<const int32_t> pixels) {
        for (const int32_t e : pixels)
            if (e >= 0 && e < count)
                patches.push_back({ size_t(e), 0 });
    };
    if (cam.m_bHPCEnable)
        list(HotPixelsOfRegion(cam));
    const size_t tableCount = patches.size();
    if (cam.m_bUsingDark)
        list(DarkPixelsOfRegion(cam));
    const auto before = [](const imaging::Patch& a, const imaging::Patch& b) { return a.at < b.at; };
    std::inplace_merge(patches.begin(), patches.begin() + ptrdiff_t(tableCount), patches.end(), before);

    T* const p = reinterpret_cast<T*>(cam.m_pImgBuf);
    const int64_t s = cam.m_bIsColor + 1, row = s * RepairFrameOf(cam).width;
    // Each pixel and its rows lie elsewhere in memory: they are asked for in good time, not waited for one by one.
    const auto ask = [&](const imaging::Patch& patch) {
        for (const int64_t step : { -row, int64_t{ 0 }, row })
            if (const int64_t at = int64_t(patch.at) + step; at >= 0 && at < count) {
                __builtin_prefetch(reinterpret_cast<const T*>(plan.raw) + at);
                __builtin_prefetch(p + at, 1);
                if (plan.dark)
                    __builtin_prefetch(plan.dark + at);
            }
    };
    constexpr size_t AHEAD = 8;
    for (size_t k = 0; k < patches.size(); ++k) {
        if (k + AHEAD < patches.size())
            ask(patches[k + AHEAD]);
        for (const int64_t step : { int64_t{ 0 }, -row, -s, s, row })
            if (const int64_t at = int64_t(patches[k].at) + step; at >= 0 && at < room)
                p[at] = at < count ? imaging::WorkedSample<T>(plan, size_t(at)) : T{ 0 };
    }
    cam.HandleHotPixels();
    for (imaging::Patch& patch : patches)
        patch.value = p[patch.at];
    return patches;
}

// What the tables of a plan are kept in meanwhile.
struct GammaTables {
    imaging::ByteTable bytes;
    imaging::WordTables words;
};

// The stages up to the hot pixels.
imaging::FramePlan PlanSamples(CCameraBase& cam, const ModelTraits& t, const DeliveryForm& f, const Geometry& g,
                               const uint8_t* raw, GammaTables& tables)
{
    imaging::FramePlan plan;
    plan.raw = raw;
    plan.rawWidth = g.rawW;
    plan.is16 = g.is16;
    plan.rotate12 = g.is16 && f.rotate12;
    if (!g.is16 && cam.m_bUsingDark && (!cam.m_bAutoExp || cam.m_lExposure >= DARK_MIN_EXPOSURE || IgnoresDarkExposure(t))) {
        plan.dark = cam.m_pDarkSum;
        plan.darkOffset = cam.m_iDarkAve;
    }
    if (cam.m_iGamma != 50) {
        if (g.is16) {
            cam.FillGamma16();
            tables.words = imaging::SnapshotGamma16(cam.m_pGamma16);
            plan.gamma16 = &tables.words;
        } else {
            tables.bytes = imaging::SnapshotGamma8(cam.m_Gamma8);
            plan.gamma8 = tables.bytes.data();
        }
    }
    return plan;
}

// The stages behind the hot pixels: flips and bin.
void PlanGeometry(imaging::FramePlan& plan, const CCameraBase& cam, const ModelTraits& t, const DeliveryForm& f,
                  const Geometry& g)
{
    plan.reverseRows = cam.m_bFlipColumn;
    plan.mirrorRows = cam.m_bFlipRow;
    plan.flipFirst = f.flips == Flips::BeforeBin;
    plan.bin = g.softBin;
    plan.colourBin = t.isColor;
    plan.width = g.w;
    plan.height = g.h;
    // Where more has come than is binned: the flips take the whole frame, or it is taken as if its rows were shorter.
    if (f.flips == Flips::NoBin && g.w > 0) {
        plan.width = g.rawW;
        plan.height = g.h * (g.rawW / g.w);
    } else if (g.softBin == 1) {
        plan.rawWidth = g.w;
    }
}

// Has the samples made in m_pImgBuf, for an output that takes them as a frame of another form. What is left to do.
imaging::FramePlan FinishInImgBuf(CCameraBase& cam, imaging::FramePlan plan, int w, int h, bool is16)
{
    plan.bytes = FrameBufferBytes(cam);
    imaging::Walk(plan, cam.m_pImgBuf);
    imaging::FramePlan rest;
    rest.raw = cam.m_pImgBuf;
    rest.is16 = is16;
    rest.rawWidth = rest.width = w;
    rest.height = h;
    return rest;
}

// The values of m_pImgBuf three times over, in fields of 10 bits.
void PutTenBitFields(const CCameraBase& cam, uint8_t* buffer, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        uint16_t w;
        std::memcpy(&w, cam.m_pImgBuf + 2 * i, sizeof w);
        const uint32_t v = w * 0x100401u;
        std::memcpy(buffer + 4 * i, &v, sizeof v);
    }
}

// Ends the plan with the output that the host has chosen, and has it walked. The output holds length bytes and no more,
// whatever the region has become.
void PutImage(CCameraBase& cam, const ModelTraits& t, imaging::FramePlan plan, uint8_t* buffer, int64_t length)
{
    using imaging::Output;
    const IMAGE_TYPE type = cam.m_ImgType;
    if (type == IMAGE_16BIT_ALT) {
        FinishInImgBuf(cam, plan, plan.width, plan.height, plan.is16);
        PutTenBitFields(cam, buffer, std::min(size_t(length) / 4, SensorPixels(cam)));
        return;
    }
    const bool colour = type == IMAGE_RGB24 || type == IMAGE_YUV;
    const Output output = colour                                                 ? (t.isColor ? Output::Colour24 : Output::Grey24)
                          : type == IMAGE_8BIT && t.isColor && !cam.m_bRawOutput ? Output::Luminance
                                                                                 : Output::Samples;
    const auto phase = imaging::PhaseAfterFlips(cam.m_ColorBayer, plan.mirrorRows, plan.reverseRows);
    if (output != Output::Samples && plan.is16)  // the depth is being changed: these take bytes for samples
        plan = FinishInImgBuf(cam, plan, plan.width, plan.height, false);
    const imaging::Gains gains = imaging::SnapshotGains();
    plan.output = output;
    plan.gains = &gains;
    plan.phase = phase.value_or(imaging::PHASE_RG);
    plan.bytes = size_t(length);
    const bool noPattern = !phase && (output == Output::Colour24 || output == Output::Luminance);
    const int h = plan.width > 0 ? int(std::min<int64_t>(plan.height, length / (int64_t{ plan.width } * (type == IMAGE_YUV ? 2
                                                                                                         : colour          ? 3
                                                                                                                           : 1))))
                                 : 0;
    if (type == IMAGE_YUV) {
        plan.bytes = size_t(h) * size_t(std::max(plan.width, 0)) * 3;
        if (!noPattern)
            imaging::Walk(plan, cam.m_pRGBBuf);
        cam.m_Algorithm.RGB2YUV2(cam.m_pRGBBuf, buffer, plan.width, h, true);
        return;
    }
    if (!noPattern)
        imaging::Walk(plan, buffer);
    if (type != IMAGE_16BIT && cam.m_bTimeMark && h >= cam.m_iHeight)  // the mark knows the image by m_iHeight
        cam.AddTimeMark(buffer, plan.width, type);
}

}  // namespace

bool DeliverImage(CCameraBase& cam, IModel& model, uint8_t* buffer, int length, uint32_t waitMs)
{
    // Two threads in here would work on one m_pImgBuf.
    const FrameExchange::Turn turn(*cam.m_pFrameExchange, waitMs);
    if (!turn)
        return false;
    const ModelTraits& t = model.Traits();
    const DeliveryForm& f = FormOf(t);
    const Geometry g = GeometryOf(cam, f);
    const FrameExchange::Lease lease = TakeFrame(cam, f, int32_t(g.Bytes()), waitMs);
    if (!lease)
        return false;

    uint8_t* const raw = lease.Frame();
    RepairMarks(raw, g, f, t.family == Family::Garnet && !t.isColor);
    if (!g.is16 && cam.m_bGettingDark)
        CollectDark(cam, g, raw);

    GammaTables gamma;
    imaging::FramePlan plan = PlanSamples(cam, t, f, g, raw, gamma);
    const auto patches =
        g.is16 ? RepairedPixels<uint16_t>(cam, plan, g.Pixels()) : RepairedPixels<uint8_t>(cam, plan, g.Pixels());
    plan.patches = patches;
    PlanGeometry(plan, cam, t, f, g);
    // QUIRK: where flips and no bin is the rule, bin 2 shows the beginning of the unbinned frame.
    if (f.flips == Flips::NoBin && g.rawW != g.w)
        plan = FinishInImgBuf(cam, plan, g.w, g.h, g.is16);
    PutImage(cam, t, plan, buffer, std::max(length, 0));
    return true;
}
