// Every pixel operation in its plain scalar form. This is the meaning of the operations: the vector forms have to agree
// with it byte for byte. Sizes below 1 do nothing.
//
// Cameras only make even sizes. At odd sizes a cell that is cut by the edge is completed with the nearest samples of the
// same phase inside the frame, and nothing outside the frame is read or written.
#pragma once
#include <cstddef>
#include <cstdint>

#include "imaging/Tables.h"

namespace imaging {

// Where the 2 by 2 cell holds its blue sample; red lies diagonally opposite.
struct BayerPhase {
    int blueX, blueY;
};
inline constexpr BayerPhase PHASE_RG = { 1, 1 }, PHASE_BG = { 0, 0 }, PHASE_GR = { 0, 1 }, PHASE_GB = { 1, 0 };

struct BayerFrame {
    const uint8_t* src;
    int width, height;  // of the whole frame
    BayerPhase phase;
    const Gains* gains;
    int top = 0;  // the row that `src` begins with, where only a strip of the frame is there

    const uint8_t* Row(ptrdiff_t y) const { return src + (y - top) * width; }
};

using CellPixels = uint8_t[2][2][3];  // row, column, (blue, green, red)

namespace reference {

// The 2 by 2 cell at (x, y), both even. CopyCell looks at nothing outside the cell; BilinearCell needs one sample more
// on each side.
void CopyCell(const BayerFrame& f, int x, int y, CellPixels out);
void BilinearCell(const BayerFrame& f, int x, int y, CellPixels out);
// Cells of the outermost ring are copied, all others interpolated.
bool IsBorderCell(const BayerFrame& f, int x, int y);

void Demosaic(const BayerFrame& f, int from, int to, uint8_t* dst);
void DemosaicY8(const BayerFrame& f, int from, int to, uint8_t* dst);

uint8_t Luminance(uint8_t b0, uint8_t b1, uint8_t b2);
void RGB2Y8(const uint8_t* src, uint8_t* dst, int width, int height);
void RGB2R8(const uint8_t* src, uint8_t* dst, int width, int height);
void RGB2YUV2(const uint8_t* src, uint8_t* dst, int width, int height, bool bottomUp);

// In place. Nothing happens for bins below 2.
template <class T>
void Bin(T* buf, int outWidth, int outHeight, int bin, bool colour);
// Input row that is the j-th of output row y, and one output row of its `bin` input rows.
int BinSourceRow(int y, int j, int outHeight, int bin, bool colour);
template <class T>
void BinRow(const T* const* rows, T* out, int outWidth, int bin, bool colour);

template <class T>
void Flip(T* buf, int width, int height, bool reverseRows, bool mirrorRows);

void Gamma8(uint8_t* buf, size_t n, const uint8_t* lut);
void SubtractDark(const uint8_t* src, uint8_t* dst, size_t n, uint32_t offset, const uint16_t* dark);
// 12 bits, low byte first on the wire, to the top of the word.
constexpr uint16_t Rotate12(uint16_t w) { return static_cast<uint16_t>((((w & 0xFFu) * 16) + ((w & 0xF00u) >> 8)) * 16); }

}  // namespace reference
}  // namespace imaging
