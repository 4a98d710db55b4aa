// Hot pixels and dark frames: how dark frame and hot-pixel table follow the geometry, and the repair of a frame. Collecting
// itself stands in the image delivery.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <utility>
#include <vector>

#include "camera/CCameraBase.h"
#include "camera/HotPixels.h"
#include "camera/MemoryFrame.h"

namespace {

constexpr int PAIRS = 8, ROWS = 5;  // BinPhaseTable
constexpr int8_t NO_ENTRY = 127;

constexpr uint32_t HOT_8BIT = 30, HOT_16BIT = 7680;  // a hot pixel exceeds its neighbours by more

// Pair k of a BinPhaseTable row: byte 0 shifts columns, byte 1 rows.
int8_t Phase(const CCameraBase& cam, int row, int k, int byte)
{
    return row >= 0 && row < ROWS ? cam.m_pTable80[row * 2 * PAIRS + 2 * k + byte] : NO_ENTRY;
}
int ShiftOf(int8_t c) { return c == NO_ENTRY ? 0 : c; }

// All targets of one row (byte 1) or column (byte 0): pairs of its parity up to the first empty one. An empty first
// pair means no shift.
int TargetsOf(const CCameraBase& cam, const RegionMapping& m, int i, int byte, int target[PAIRS / 2])
{
    int n = 0;
    for (int k = i & 1; k < PAIRS; k += 2) {
        const int8_t c = Phase(cam, m.bin, k, byte);
        if (c == NO_ENTRY && n != 0)
            break;
        target[n++] = m.Target(i, ShiftOf(c));
        if (c == NO_ENTRY)
            break;
    }
    return n;
}

void SortUnique(std::vector<int32_t>& list)
{
    std::sort(list.begin(), list.end());
    list.erase(std::unique(list.begin(), list.end()), list.end());
}

std::vector<int32_t> SetFlags(const int32_t* flags, size_t n)
{
    std::vector<int32_t> list;
    for (size_t i = 0; i < n; ++i)
        if (flags[i] != 0)
            list.push_back(static_cast<int32_t>(i));
    return list;
}

// Where the hot pixels of the sensor land in the region, ascending.
std::vector<int32_t> Land(const CCameraBase& cam, const RegionMapping& m, std::span<const int32_t> sensor)
{
    std::vector<int32_t> landed;
    const auto land = [&](int row, int column) {
        if (m.Inside(row, column))
            landed.push_back(static_cast<int32_t>(m.Place(row, column)));
    };
    for (const int32_t e : sensor) {
        const int64_t fromStart = e - m.Source(0);
        const int64_t row = fromStart / m.sensorWidth, column = fromStart % m.sensorWidth;
        if (fromStart < 0 || row >= m.rows || column >= m.columns)
            continue;
        const int i = static_cast<int>(row), j = static_cast<int>(column);
        if (!m.hardBin) {
            land(i, j);
            continue;
        }
        int rowTargets[PAIRS / 2], columnTargets[PAIRS / 2];
        const int rows = TargetsOf(cam, m, i, 1, rowTargets), columns = TargetsOf(cam, m, j, 0, columnTargets);
        for (int k = 0; k < columns; ++k)
            for (int l = 0; l < rows; ++l)
                land(rowTargets[l], columnTargets[k]);
    }
    SortUnique(landed);
    return landed;
}

// Maps hot pixels of the sensor to the flags of the region. `set`: which flags are set, before and after.
void MapFlags(CCameraBase& cam, std::span<const int32_t> sensor, int32_t* flags, std::vector<int32_t>& set)
{
    const RegionMapping m(cam);
    // QUIRK: with hardware binning a count of flags is taken for one of bytes, so only the first quarter is cleared: old
    // flags behind it stay, and their pixels go on being repaired.
    const size_t cleared = m.hardBin ? (m.elements + 3) / 4 : m.elements;
    const auto kept = std::lower_bound(set.begin(), set.end(), static_cast<int64_t>(cleared));
    std::for_each(set.begin(), kept, [&](int32_t e) { flags[e] = 0; });
    set.erase(set.begin(), kept);
    for (const int32_t e : Land(cam, m, sensor)) {
        flags[e] = 1;
        set.push_back(e);
    }
    SortUnique(set);
}

// m_pHotPixels: those set flags of m_pHPCBuf2 that lie within the region.
void ListHotPixels(CCameraBase& cam, std::span<const int32_t> set)
{
    const auto elements = static_cast<int64_t>(RegionMapping(cam).elements);
    const auto n = std::lower_bound(set.begin(), set.end(), elements) - set.begin();
    const size_t before = std::min(static_cast<size_t>(cam.m_iHPCNum), SensorPixels(cam));
    cam.m_iHPCNum = 0;
    std::fill_n(cam.m_pHotPixels, before, 0);
    std::copy_n(set.begin(), n, cam.m_pHotPixels);
    cam.m_iHPCNum = static_cast<int32_t>(n);
}

// The frame in m_pImgBuf as elements of T, with its bounds.
template <class T>
struct Frame {
    T* p;
    size_t n;     // elements of the buffer
    int W, H, s;  // s: distance of the neighbours of one colour

    Frame(CCameraBase& cam, int w, int h)
        : p(reinterpret_cast<T*>(cam.m_pImgBuf)), n(FrameBufferBytes(cam) / sizeof(T)), W(w), H(h), s(cam.m_bIsColor + 1)
    {
    }
    // Runs `inner` on entries with neighbours on both sides; the others take one neighbour as it is. QUIRK: the first
    // rows take the right one also in the last column, which is the first pixel of the next row.
    template <class Inner>
    void Repair(std::span<const int32_t> entries, Inner inner) const
    {
        for (const int32_t entry : entries) {
            const auto e = static_cast<uint32_t>(entry);
            const int y = static_cast<int>(e / static_cast<uint32_t>(W)), x = static_cast<int>(e % static_cast<uint32_t>(W));
            const bool first = x < s || y < s;
            if (!first && x < W - s && y < H - s) {
                inner(e, x, y);
                continue;
            }
            const size_t from = first ? size_t{ e } + static_cast<size_t>(s) : size_t{ e } - static_cast<size_t>(s);
            if (e < n && from < n)
                p[e] = p[from];
        }
    }
};

template <class T>
bool DeNoise(CCameraBase& cam, const Frame<T>& f, int x, int y)
{
    constexpr uint32_t LIMIT = sizeof(T) == 1 ? HOT_8BIT : HOT_16BIT;
    const size_t flags = SensorPixels(cam);
    const auto place = [&](int px, int py) { return static_cast<size_t>(int64_t{ py } * f.W + px); };
    const size_t centre = place(x, y);
    if (centre >= f.n)
        return false;
    const uint32_t c = f.p[centre];
    uint32_t sum = 0, count = 0;
    const int neighbours[4][2] = { { x, y - f.s }, { x - f.s, y }, { x + f.s, y }, { x, y + f.s } };
    for (const auto& [nx, ny] : neighbours) {
        if (nx < 0 || ny < 0 || nx >= f.W || ny >= f.H)
            continue;
        const size_t at = place(nx, ny);
        if (at >= f.n || (at < flags && cam.m_pHPCBuf2[at] != 0))
            continue;
        const uint32_t v = f.p[at];
        // One neighbour that comes close clears the pixel of suspicion.
        if (c <= v || c - v <= LIMIT || v > c * 7 / 10)
            return false;
        sum += v;
        ++count;
    }
    // QUIRK: a pixel whose neighbours are all in the table becomes black.
    f.p[centre] = static_cast<T>(count != 0 ? sum / count : 0);
    return true;
}

template <class T>
void Handle(CCameraBase& cam)
{
    const MemoryFrame size = RepairFrameOf(cam);
    const Frame<T> f(cam, size.width, size.height);
    const bool b14Bit = std::any_of(std::begin(NAMES_14BIT), std::end(NAMES_14BIT),
                                    [&](const char* sz) { return std::strstr(cam.m_pszName, sz) != nullptr; });
    if (cam.m_bHPCEnable)
        f.Repair(HotPixelsOfRegion(cam), [&](uint32_t e, int x, int y) {
            // The repaired value is to look like an ADC code again.
            if (DeNoise(cam, f, x, y) && sizeof(T) == 2)
                f.p[e] = static_cast<T>(f.p[e] & (b14Bit ? 0xFFFC : 0xFFF0));
        });
    if (cam.m_bUsingDark)
        f.Repair(DarkPixelsOfRegion(cam), [&](uint32_t e, int, int) {
            const size_t left = size_t{ e } - static_cast<size_t>(f.s), right = size_t{ e } + static_cast<size_t>(f.s);
            if (right < f.n)
                f.p[e] = static_cast<T>((f.p[left] + f.p[right]) >> 1);
        });
}

}  // namespace

RegionMapping::RegionMapping(CCameraBase& cam)
    : sensorWidth(cam.m_iMaxWidth), rows(cam.m_iBin * cam.m_iHeight), columns(cam.m_iBin * cam.m_iWidth),
      rowOffset(cam.m_bBottomUp ? cam.m_iMaxHeight - cam.m_iStartY - rows : cam.m_iStartY.Get()), columnOffset(cam.m_iStartX),
      bin(cam.m_iBin), divisor(IsHalfHardBin(cam) ? 2 : bin), hardBin(cam.IsHardBinRun()), keepsSum(cam.m_bDDR),
      pitch(hardBin ? cam.m_iWidth * (bin == 4 ? 2 : 1) : columns), height(hardBin ? cam.m_iHeight * (bin == 4 ? 2 : 1) : rows),
      elements(std::min(static_cast<size_t>(pitch) * static_cast<size_t>(height), SensorPixels(cam)))
{
}

int CCameraBase::GettingDark(bool on, uint64_t /*ignored*/)
{
    const uint64_t ms = m_lExposure / 1000;
    m_iDarkNum = ms <= 100 ? 5 : ms <= 325 ? 4 : ms <= 550 ? 3 : ms <= 775 ? 2 : 1;
    {
        const MutexLock lock(m_hot.mutex);
        m_hot.dark.reset();
    }
    m_bGettingDark = on;  // last: the thread in GetImage acts on it
    return m_iDarkNum;
}

void ForgetStandOuts(CCameraBase& cam)
{
    const size_t n = std::min(static_cast<size_t>(cam.m_lDeadPixelNum), SensorPixels(cam));
    for (size_t k = 0; k < n; ++k) {
        cam.m_pDarkTmp[cam.m_pDarkPixels[k]] = 0;
        cam.m_pDarkPixels[k] = 0;
    }
    cam.m_lDeadPixelNum = 0;
}

void CCameraBase::AdjustDarkBuff(uint16_t* src, uint16_t* dst)
{
    const RegionMapping m(*this);
    const auto sensor = static_cast<int64_t>(SensorPixels(*this));
    std::vector<int> columnTargets;  // target of each column
    if (m.hardBin) {
        std::memset(dst, 0, 2 * m.elements);
        for (int j = 0; j < m.columns; ++j)
            columnTargets.push_back(m.Target(j, ShiftOf(Phase(*this, m.divisor, j & 1, 0))));
    }
    for (int i = 0; i < m.rows; ++i) {
        const int64_t row = m.Source(i);
        const int64_t first = std::clamp<int64_t>(-row, 0, m.columns),
                      end = std::clamp(sensor - row, first, int64_t{ m.columns });
        if (!m.hardBin) {
            const auto to = static_cast<int64_t>(m.Place(i, 0));
            const int64_t room = std::clamp(static_cast<int64_t>(m.elements) - to, first, end);
            std::copy(src + row + first, src + row + room, dst + to + first);
            continue;
        }
        const int ti = m.Target(i, ShiftOf(Phase(*this, m.divisor, i & 1, 1)));
        for (int64_t j = first; j < end; ++j) {
            const int tj = columnTargets[static_cast<size_t>(j)];
            if (!m.Inside(ti, tj))
                continue;
            uint16_t& w = dst[m.Place(ti, tj)];
            w = static_cast<uint16_t>(w + src[row + j]);
        }
    }

    // QUIRK: from here on it is m_pDarkSum that is worked on, whatever dst was.
    if (m.hardBin && !m_bDDR)
        for (size_t k = 0; k < m.elements; ++k)
            m_pDarkSum[k] = static_cast<uint16_t>(m_pDarkSum[k] / m.divisor / m.divisor);
    // The sum wraps on very bright dark frames of large sensors.
    const uint32_t sum = std::accumulate(m_pDarkSum, m_pDarkSum + m.elements, uint32_t{ 0 });
    const uint32_t ave = m.elements != 0 ? sum / static_cast<uint32_t>(m.elements) : 0;
    m_iDarkAve = ave;

    ForgetStandOuts(*this);
    int32_t found = 0;
    for (size_t k = 0; k < m.elements; ++k)
        if (StandsOut(m_pDarkSum[k], ave)) {
            m_pDarkPixels[found++] = static_cast<int32_t>(k);
            m_pDarkTmp[k] = 1;
        }
    m_lDeadPixelNum = found;

    const MutexLock lock(m_hot.mutex);
    m_hot.dark.reset();
    // While a collection runs m_pDarkSum goes on changing.
    if (src == m_pDarkBuf && dst == m_pDarkSum && !m_bGettingDark)
        m_hot.dark = m;
}

void FitDarkFrame(CCameraBase& cam)
{
    {
        const MutexLock lock(cam.m_hot.mutex);
        if (!cam.m_bGettingDark && cam.m_hot.dark == RegionMapping(cam))
            return;
    }
    cam.AdjustDarkBuff(cam.m_pDarkBuf, cam.m_pDarkSum);
}

// The caller may have written the flags itself: what counts is what stands there.
void CCameraBase::AdjustHPCTable(int32_t* src, int32_t* dst)
{
    const MutexLock lock(m_hot.mutex);
    const size_t n = SensorPixels(*this);
    const std::vector<int32_t> sensor = SetFlags(src, n);
    std::vector<int32_t> set = SetFlags(dst, n);
    MapFlags(*this, sensor, dst, set);
    m_hot.sensor = SetFlags(m_pHPCBuf1, n);
    m_hot.region = SetFlags(m_pHPCBuf2, n);
    ListHotPixels(*this, m_hot.region);
}

void FitHotPixels(CCameraBase& cam)
{
    HotPixelState& hot = cam.m_hot;
    const MutexLock lock(hot.mutex);
    MapFlags(cam, hot.sensor, cam.m_pHPCBuf2, hot.region);
    ListHotPixels(cam, hot.region);
}

void SetHotPixels(CCameraBase& cam, std::vector<int32_t> sensor)
{
    const MutexLock lock(cam.m_hot.mutex);
    for (const int32_t e : cam.m_hot.sensor)
        cam.m_pHPCBuf1[e] = 0;
    for (const int32_t e : sensor)
        cam.m_pHPCBuf1[e] = 1;
    cam.m_hot.sensor = std::move(sensor);
}

void ForgetHotPixels(CCameraBase& cam)
{
    SetHotPixels(cam, {});
    const MutexLock lock(cam.m_hot.mutex);
    for (const int32_t e : cam.m_hot.region)
        cam.m_pHPCBuf2[e] = 0;
    cam.m_hot.region.clear();
    ListHotPixels(cam, {});
}

std::span<const int32_t> HotPixelsOfRegion(const CCameraBase& cam)
{
    return { cam.m_pHotPixels, std::min(static_cast<size_t>(cam.m_iHPCNum), SensorPixels(cam)) };
}

std::span<const int32_t> DarkPixelsOfRegion(const CCameraBase& cam)
{
    return { cam.m_pDarkPixels, std::min(static_cast<size_t>(cam.m_lDeadPixelNum), SensorPixels(cam)) };
}

void CCameraBase::HandleHotPixels()
{
    if (m_bOutput16Bits)
        Handle<uint16_t>(*this);
    else
        Handle<uint8_t>(*this);
}

bool CCameraBase::DeNoiseHPC(int x, int y, int W, int H)
{
    return m_bOutput16Bits ? DeNoise(*this, Frame<uint16_t>(*this, W, H), x, y)
                           : DeNoise(*this, Frame<uint8_t>(*this, W, H), x, y);
}
