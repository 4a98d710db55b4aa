// GetImage of all models: takes a raw frame from the exchange and makes of it what the host asked for. All pixel work of
// a frame happens here, on the host's thread, in place in m_pImgBuf.
#include <algorithm>
#include <cstring>

#include "capture/Capture.h"
#include "imaging/Bayer.h"
#include "imaging/Gamma.h"
#include "sensors/ModelTraits.h"

namespace {

constexpr uint32_t HEAD_B = 0xBB00AA11;
constexpr uint64_t DARK_MIN_EXPOSURE = 500000;  // us; with automatic exposure no dark is subtracted below it

// At which bins the camera bins by itself while m_bHardwareBin is set, and what that leaves to the host.
enum class HardBin : uint8_t {
    All,         // frames of m_iWidth x m_iHeight at every bin
    TwoThreeFour,// as All, but bin 4 is 2 in the camera and 2 on the host
    TwoFour,     // bin 2, and bin 4 as 2 and 2; bin 3 on the host alone
    Three,       // bin 3; others on the host alone
    Never,       // m_iBin squared pixels at every bin
};
// What the marks have taken is replaced by pixels from further down.
enum class Repair : uint8_t {
    FourBytes,   // first and last 32-bit word, from two rows away
    EightBytes,  // the first two words
    EightAndTail,// and the last
    None,
};
enum class Flips : uint8_t { AfterBin, BeforeBin, NoBin };

//                     hardware bin, mark repair, head test, 12-bit rotation, flips, first row
struct DeliveryForm {
    Family family;
    HardBin hardBin;
    Repair repair;
    bool bTestHead;       // frames with a wrong head may lie in the exchange
    bool bRotate12;       // 16-bit samples are 12 bits, low byte first, and go to the top of the word
    Flips flips;
    bool bCopyFirstRow;   // the first row is damaged and takes the third's place
};

// clang-format off
constexpr DeliveryForm g_Forms[] = {
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
    for (const DeliveryForm& f : g_Forms)
        if (f.family == t.family)
            return f;
    return g_Forms[0];
}

// Geometry of one frame, read once: the host's setters may change it meanwhile, and nothing here may then leave a buffer.
struct Geometry {
    int w, h, bin;         // output pixels
    int rawW, rawH;        // pixels of the frame as it came
    int softBin;           // what the host bins; 1 is nothing
    bool is16, bHardBin;
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
    g.bHardBin = cam.m_bHardwareBin;

    int factor = g.bin;
    g.softBin = g.bin;
    if (g.bHardBin) {
        const bool bHalf = g.bin == 4 && (f.hardBin == HardBin::TwoThreeFour || f.hardBin == HardBin::TwoFour);
        const bool bWhole = f.hardBin == HardBin::All || f.hardBin == HardBin::TwoThreeFour
                                ? !bHalf && (f.hardBin == HardBin::All || g.bin == 2 || g.bin == 3)
                                : (f.hardBin == HardBin::TwoFour && g.bin == 2) || (f.hardBin == HardBin::Three && g.bin == 3);
        if (bHalf)
            factor = g.softBin = 2;
        else if (bWhole)
            factor = g.softBin = 1;
        else if (f.hardBin == HardBin::TwoThreeFour)
            g.softBin = 1;  // QUIRK: bins beyond the sensor's show a corner of the unbinned frame
    }
    if (f.flips == Flips::NoBin)
        g.softBin = 1;
    g.rawW = g.w * factor;
    g.rawH = g.h * factor;
    // A region that the sensor does not have cannot come from it.
    const int64_t lRoom = int64_t{ cam.m_iMaxWidth } * cam.m_iMaxHeight;
    if (g.Pixels() > lRoom) {
        g.rawH = g.rawW > 0 ? int(lRoom / g.rawW) : 0;
        g.h = g.rawH / factor;
    }
    return g;
}

uint32_t Word(const uint8_t* p, int64_t n)
{
    uint32_t v;
    std::memcpy(&v, p + 4 * n, sizeof v);
    return v;
}

void CopyWord(uint8_t* p, int64_t to, int64_t from, int64_t words)
{
    if (to >= 0 && from >= 0 && to < words && from < words)
        std::memmove(p + 4 * to, p + 4 * from, 4);
}

void RepairMarks(uint8_t* p, const Geometry& g, const DeliveryForm& f, bool bOneRow)
{
    const int64_t words = g.Bytes() / 4;
    const int64_t row = int64_t{ g.rawW } * (g.is16 ? 2 : 1);
    if (f.bCopyFirstRow && g.Bytes() >= 3 * row)
        std::memcpy(p, p + 2 * row, size_t(row));
    // Two rows down, which keeps the Bayer phase.
    const int64_t step = bOneRow ? row / 4 : row / 2;
    if (f.repair == Repair::None)
        return;
    CopyWord(p, 0, step, words);
    if (f.repair != Repair::FourBytes)
        CopyWord(p, 1, step + 1, words);
    if (f.repair != Repair::EightBytes)
        CopyWord(p, words - 1, words - 1 - step, words);
}

void Rotate12(uint8_t* p, int64_t pixels)
{
    for (int64_t i = 0; i < pixels; ++i) {
        uint16_t w;
        std::memcpy(&w, p + 2 * i, sizeof w);
        w = uint16_t((((w & 0xFFu) * 16) + ((w & 0xF00u) >> 8)) * 16);
        std::memcpy(p + 2 * i, &w, sizeof w);
    }
}

// Adds the frame to the dark that is being taken.
void CollectDark(CCameraBase& cam, const Geometry& g)
{
    uint16_t* const pSum = cam.m_pDarkSum;
    const size_t full = size_t(cam.m_iMaxWidth) * size_t(cam.m_iMaxHeight);
    if (cam.m_iDarkCount == 0)
        std::memset(pSum, 0, full * sizeof *pSum);
    ++cam.m_iDarkCount;
    const uint8_t* const p = cam.m_pImgBuf;
    for (int64_t i = 0, n = g.Pixels(); i < n; ++i)
        pSum[i] = uint16_t(pSum[i] + p[i]);
    const int32_t iWanted = std::max<int32_t>(cam.m_iDarkNum, 1);
    if (cam.m_iDarkCount < iWanted)
        return;
    cam.m_iDarkCount = 0;
    if (iWanted > 1)
        for (size_t i = 0; i < full; ++i)
            pSum[i] = uint16_t(pSum[i] / iWanted);
    cam.AdjustDarkBuff(pSum, cam.m_pDarkBuf);
    cam.m_bGettingDark = false;
}

// QUIRK: these models subtract the dark at any exposure, also with automatic exposure.
bool IgnoresDarkExposure(const ModelTraits& t)
{
    return !t.bColor && (t.family == Family::Quartz || t.family == Family::Lapis || t.family == Family::Beryl);
}

// Next acceptable frame into m_pImgBuf. The wait starts anew for each frame that is passed over.
bool TakeFrame(CCameraBase& cam, const DeliveryForm& f, int32_t iBytes, uint32_t dwWaitMs)
{
    FrameExchange& fx = *cam.m_pFrameExchange;
    // A stretch of damaged frames is read through, but a stream that stays damaged (the host has changed the region while
    // it runs) must not hold a caller who has set a limit.
    const uint32_t dwStart = platform::Ticks();
    const uint32_t dwLimit = std::max<uint32_t>(5000, dwWaitMs < 100000 ? 4 * dwWaitMs : dwWaitMs);
    while (fx.Read(cam.m_pImgBuf, iBytes, dwWaitMs)) {
        if (!f.bTestHead)
            return true;
        if (Word(cam.m_pImgBuf, 0) == HEAD_B) {
            // At short exposures a damaged successor tells that this frame is torn. QUIRK: an infinite wait becomes
            // 498 ms for the look ahead.
            if (cam.m_bSnapMode || cam.m_lExposure >= 100000 || fx.PeekHead(HEAD_B, dwWaitMs * 2 + 500))
                return true;
            TraceLine("*next buf head error*\n");
        } else {
            TraceLine("*buf head error*\n");
        }
        if (platform::Ticks() - dwStart > dwLimit && dwWaitMs != platform::WAIT_FOREVER)
            return false;
    }
    return false;
}

}  // namespace

bool DeliverImage(CCameraBase& cam, IModel& model, uint8_t* pBuffer, int iLength, uint32_t dwWaitMs)
{
    // Two threads in here would work on one m_pImgBuf.
    const FrameExchange::Turn turn(*cam.m_pFrameExchange, dwWaitMs);
    if (!turn)
        return false;
    const ModelTraits& t = model.Traits();
    const DeliveryForm& f = FormOf(t);
    const Geometry g = GeometryOf(cam, f);
    if (!TakeFrame(cam, f, int32_t(g.Bytes()), dwWaitMs))
        return false;

    uint8_t* const p = cam.m_pImgBuf;
    uint16_t* const p16 = reinterpret_cast<uint16_t*>(p);
    CAlgorithm& alg = cam.m_Algorithm;
    RepairMarks(p, g, f, t.family == Family::Garnet && !t.bColor);
    if (f.bRotate12 && g.is16)
        Rotate12(p, g.Pixels());

    if (!g.is16) {
        if (cam.m_bGettingDark)
            CollectDark(cam, g);
        if (cam.m_bUsingDark && (!cam.m_bAutoExp || cam.m_lExposure >= DARK_MIN_EXPOSURE || IgnoresDarkExposure(t)))
            alg.SubtractDark(p, g.rawW, g.rawH, cam.m_iDarkAve, cam.m_pDarkSum);
    }
    if (cam.m_iGamma != 50) {
        if (g.is16)
            imaging::ApplyGamma16(cam, p16, int(g.Pixels()));
        else
            imaging::ApplyGamma8(cam, p, int(g.Pixels()));
    }
    cam.HandleHotPixels();

    // QUIRK: where flips and no bin is the rule, bin 2 shows the corner of the unbinned frame.
    const int flipBin = f.flips == Flips::AfterBin ? 1 : g.rawW > 0 && g.w > 0 ? g.rawW / g.w : 1;
    if (f.flips != Flips::AfterBin)
        alg.SoftMisc(p, g.w, g.h, flipBin, g.is16, cam.m_bFlipColumn, cam.m_bFlipRow);
    if (g.softBin > 1) {
        if (t.bColor)
            alg.ColorRAWBin(p, p16, g.w, g.h, g.softBin, g.is16);
        else
            alg.MonoBin(p, p16, g.w, g.h, g.softBin, g.is16);
    }
    if (f.flips == Flips::AfterBin)
        alg.SoftMisc(p, g.w, g.h, 1, g.is16, cam.m_bFlipColumn, cam.m_bFlipRow);

    // The output holds `length` bytes and no more, whatever the region has become.
    const int64_t lLength = std::max(iLength, 0);
    const size_t dwCopy = size_t(std::min<int64_t>(lLength, 2 * int64_t{ cam.m_iMaxWidth } * cam.m_iMaxHeight));
    const auto rows = [&](int bytesPerPixel) {
        return g.w > 0 ? int(std::min<int64_t>(g.h, lLength / (int64_t{ g.w } * bytesPerPixel))) : 0;
    };
    const IMAGE_TYPE type = cam.m_ImgType;
    int h = 0;
    switch (type) {
    case IMAGE_8BIT:
        h = rows(1);
        if (!t.bColor || cam.m_bRawOutput) {
            std::memcpy(pBuffer, p, dwCopy);
        } else {
            imaging::Bayer2Y8(cam, p, pBuffer, g.w, h);
        }
        break;
    case IMAGE_RGB24:
        h = rows(3);
        if (t.bColor)
            cam.Bayer2RGB24(p, pBuffer, g.w, h);
        else
            for (int64_t i = 0, n = int64_t{ g.w } * h; i < n; ++i)
                std::memset(pBuffer + 3 * i, p[i], 3);
        break;
    case IMAGE_YUV:
        h = rows(2);
        if (t.bColor)
            cam.Bayer2RGB24(p, cam.m_pRGBBuf, g.w, h);
        else
            for (int64_t i = 0, n = int64_t{ g.w } * h; i < n; ++i)
                std::memset(cam.m_pRGBBuf + 3 * i, p[i], 3);
        alg.RGB2YUV2(cam.m_pRGBBuf, pBuffer, g.w, h, true);
        return true;
    case IMAGE_16BIT_ALT:
        // The value three times over, in fields of 10 bits.
        for (size_t i = 0; i < std::min(size_t(lLength) / 4, dwCopy / 2); ++i) {
            const uint32_t v = p16[i] * 0x100401u;
            std::memcpy(pBuffer + 4 * i, &v, sizeof v);
        }
        return true;
    case IMAGE_16BIT:
        std::memcpy(pBuffer, p, dwCopy);
        return true;
    }
    if (cam.m_bTimeMark && h >= cam.m_iHeight)  // the mark knows the image by m_iHeight
        cam.AddTimeMark(pBuffer, g.w, type);
    return true;
}
