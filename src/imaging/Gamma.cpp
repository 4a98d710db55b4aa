#include "imaging/Gamma.h"

#include <algorithm>
#include <cmath>

namespace imaging {

namespace {

template <class T>
void Fill(std::atomic<T>* table, int last, int hundredths)
{
    const float exponent = static_cast<float>(hundredths) / 100.0f, top = static_cast<float>(last);
    for (int i = 0; i <= last; ++i) {
        const float v = std::pow(static_cast<float>(i) / top, exponent) * top;
        table[i].store(static_cast<T>(std::min(v, top)), std::memory_order_relaxed);
    }
}

}  // namespace

void FillGamma8(std::atomic<uint8_t>* table, int hundredths) { Fill(table, 255, hundredths); }
void FillGamma16(std::atomic<uint16_t>* table, int hundredths) { Fill(table, 65535, hundredths); }

ByteTable SnapshotGamma8(const std::atomic<uint8_t>* table)
{
    ByteTable lut;
    for (size_t i = 0; i < lut.size(); ++i)
        lut[i] = table[i].load(std::memory_order_relaxed);
    return lut;
}

WordTables SnapshotGamma16(const std::atomic<uint16_t>* table)
{
    WordTables t{ .all = table, .of12 = {} };
    for (size_t i = 0; i < t.of12.size(); ++i)
        t.of12[i] = table[16 * i].load(std::memory_order_relaxed);
    return t;
}

}  // namespace imaging
