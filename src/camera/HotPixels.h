// Hot pixels and dark frames as lists: what a frame is repaired by, and how the lists follow the region.
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "base/Mutex.h"

class CCameraBase;

// A pixel that stands out in a dark frame of this mean.
inline bool StandsOut(uint16_t value, uint32_t mean) { return value > mean && value - mean > 30; }

// Models with a 14-bit ADC, by a part of their name; all others have 12 bits.
constexpr const char* NAMES_14BIT[] = { "Marble", "Ebony", "Flint", "Halite" };

// What a geometry makes of the full sensor: which window is read, and where its pixels land.
struct RegionMapping {
    explicit RegionMapping(CCameraBase& cam);
    bool operator==(const RegionMapping&) const = default;

    // Index in the full sensor of the first pixel of a row of the window.
    int64_t Source(int row) const { return int64_t{ sensorWidth } * (row + rowOffset) + columnOffset; }
    // Binned place of a row or column, with the colour phase of the sensor pixel kept.
    int Target(int i, int shift) const { return (i + shift) / (2 * divisor) * 2 + (i & 1); }
    size_t Place(int row, int column) const
    {
        return static_cast<size_t>(row) * static_cast<size_t>(pitch) + static_cast<size_t>(column);
    }
    bool Inside(int row, int column) const
    {
        return row >= 0 && row < height && column >= 0 && column < pitch && Place(row, column) < elements;
    }

    int sensorWidth;
    int rows, columns;  // window in sensor pixels
    int rowOffset, columnOffset;
    int bin, divisor;  // divisor of hardware binning; the host bins the rest of a 4
    bool hardBin, keepsSum;
    int pitch, height;  // of the target
    size_t elements;    // of the target; never more than the sensor has, whatever the fields of the camera say
};

// Lists behind the flags of a CCameraBase, whose buffers of a word a pixel are neither searched nor cleared as a whole.
// Host threads, under `mutex`.
struct HotPixelState {
    Mutex mutex;
    std::vector<int32_t> sensor KOV_TSA(guarded_by(mutex));  // set flags of m_pHPCBuf1, ascending
    std::vector<int32_t> region
        KOV_TSA(guarded_by(mutex));  // set flags of m_pHPCBuf2, ascending, with those that older geometries have left
    std::optional<RegionMapping> dark
        KOV_TSA(guarded_by(mutex));  // what m_pDarkSum and the stand-out list are made for, from m_pDarkBuf
};

// Frame delivery: what to repair in the region in force. Ascending indices of the frame as it lies in memory, before
// binning by software: sorted by row, then column. Valid until the region or the table changes. A region that changes
// while a frame is delivered can leave entries behind the frame's end.
std::span<const int32_t> HotPixelsOfRegion(const CCameraBase& cam);
// As above, of pixels that stand out of the dark frame; their values are in m_pDarkSum.
std::span<const int32_t> DarkPixelsOfRegion(const CCameraBase& cam);

// After a change of region: brings table and dark frame to it. Costs nothing where nothing has changed.
void FitHotPixels(CCameraBase& cam);
void FitDarkFrame(CCameraBase& cam);

// Exchanges the hot pixels of the sensor, ascending indices; those of the region follow by FitHotPixels.
void SetHotPixels(CCameraBase& cam, std::vector<int32_t> sensor);
// Empties table and flags by their lists.
void ForgetHotPixels(CCameraBase& cam);
// Empties m_pDarkPixels and m_pDarkTmp by the list, which is short: neither is ever touched as a whole, so they cost next to no
// memory.
void ForgetStandOuts(CCameraBase& cam);
