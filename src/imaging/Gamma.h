// The tables of a gamma. Entry i is cut(min((i / last) ^ e * last, last)), each step in single precision. A host may have a
// table filled anew while frames are mapped with it: entries are relaxed atomics, and such a frame may be mapped partly with
// old values.
#pragma once
#include <atomic>
#include <cstdint>

#include "imaging/Tables.h"

namespace imaging {

// `hundredths`: the exponent times 100. 256 and 65536 entries. One thread at a time.
void FillGamma8(std::atomic<uint8_t>* table, int hundredths);
void FillGamma16(std::atomic<uint16_t>* table, int hundredths);

// The table as it is now. Of the larger one, only what samples of 12 bits need is copied.
ByteTable SnapshotGamma8(const std::atomic<uint8_t>* table);
WordTables SnapshotGamma16(const std::atomic<uint16_t>* table);

}  // namespace imaging
