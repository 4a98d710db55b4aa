// Size of a raw frame as it lies in memory, before binning by software.
#pragma once
#include "camera/CCameraBase.h"

struct MemoryFrame {
    int width, height;
};

// Binning by 4 in hardware is 2 in the sensor; the host does the rest.
inline bool IsHalfHardBin(const CCameraBase& cam) { return cam.m_bHardwareBin && cam.m_iBin == 4; }

inline MemoryFrame MemoryFrameOf(CCameraBase& cam)
{
    const int factor = (cam.IsHardBinRun() ? 1 : cam.m_iBin.Get()) * (IsHalfHardBin(cam) ? 2 : 1);
    return { cam.m_iWidth * factor, cam.m_iHeight * factor };
}

// The same as the repair of hot pixels takes it: a bin of 4 doubles the frame only where the sensor bins at it.
inline MemoryFrame RepairFrameOf(CCameraBase& cam)
{
    const int bin = cam.m_iBin, factor = cam.IsHardBinRun() ? (bin == 4 ? 2 : 1) : bin;
    return { cam.m_iWidth * factor, cam.m_iHeight * factor };
}

inline size_t SensorPixels(const CCameraBase& cam)
{
    return static_cast<size_t>(cam.m_iMaxWidth) * static_cast<size_t>(cam.m_iMaxHeight);
}
inline size_t FrameBufferBytes(const CCameraBase& cam) { return 2 * SensorPixels(cam); }
