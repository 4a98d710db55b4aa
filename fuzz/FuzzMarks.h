// The marks of a frame, as the models of both forms send them.
#pragma once
#include <algorithm>
#include <cstdint>

// Bit 0: head, bit 2: tail, bit 1: of which form. At least 8 bytes.
inline void PutMarks(uint8_t* p, uint32_t size, uint8_t marks)
{
    static constexpr uint8_t heads[2][4] = { { 0x7E, 0x5A, 1, 0 }, { 0x11, 0xAA, 0, 0xBB } },
                             tails[2][4] = { { 1, 0, 0xF0, 0x3C }, { 0xBB, 0, 0xAA, 0x11 } };
    if (marks & 1)
        std::copy_n(heads[marks >> 1 & 1], 4, p);
    if (marks & 4)
        std::copy_n(tails[marks >> 1 & 1], 4, p + size - 4);
}
