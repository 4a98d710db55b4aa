// Vector forms of the pixel operations, compiled for every instruction set that this architecture may offer; the best
// that the machine has is chosen once per call.
#pragma once
#include <cstddef>
#include <cstdint>

#include "imaging/Reference.h"
#include "imaging/Tables.h"

// The instruction sets that the kernels are compiled for: on x86 what machines with USB 3 have. Every file that includes Highway
// has to see the same choice.
// - AVX3_DL has to be asked for: its byte shuffles over whole tables are what demosaic and gamma are made of.
// - AVX3 without them, which servers of 2017 to 2020 have, takes 10 to 30 % less time than AVX2, which they get; SSSE3 without
//   SSE4 is of before 2008. Each would add a third to what the kernels take to compile.
// - The kernels keep vectors in structures, and those of SVE have no size: ARM gets NEON.
#define HWY_WANT_AVX3_DL 1
#define HWY_DISABLED_TARGETS (HWY_AVX3 | HWY_SSSE3 | HWY_SVE | HWY_SVE2 | HWY_SVE_256 | HWY_SVE2_128)

namespace imaging {

// Frames of this size and more are not taken for something that caches hold: their output is written past them or in strips, so
// that what it overwrites need not be read, and their rows are asked for in advance. In bytes.
inline constexpr size_t STREAM_FROM = size_t{ 8 } << 20;

// Rows [from, to) of the frame into `dst`, which is the whole output; `from` is even, and `to` too unless it is the height.
// Of the frame, these rows and the ones beside them have to be there.
void Demosaic(const BayerFrame& f, int from, int to, uint8_t* dst);    // 3 bytes a pixel
void DemosaicY8(const BayerFrame& f, int from, int to, uint8_t* dst);  // what RGB2Y8 makes of Demosaic, without the frame between
void Luminance(const uint8_t* rgb, uint8_t* dst, size_t n);
void FirstBytes(const uint8_t* rgb, uint8_t* dst, size_t n);
void Triple(const uint8_t* grey, uint8_t* dst, size_t n);  // each byte three times

// One output row of `bin` input rows of outWidth * bin samples. The output may be the beginning of the first row.
void BinRow(const uint8_t* const* rows, uint8_t* out, int outWidth, int bin, bool colour);
void BinRow(const uint16_t* const* rows, uint16_t* out, int outWidth, int bin, bool colour);

void Flip8(uint8_t* buf, int width, int height, bool reverseRows, bool mirrorRows);
void Flip16(uint16_t* buf, int width, int height, bool reverseRows, bool mirrorRows);

// `src` may be `dst`.
void MapBytes(const uint8_t* src, uint8_t* dst, size_t n, const uint8_t* lut);
void Rotate12(const uint16_t* src, uint16_t* dst, size_t n);
void SubtractDark(const uint8_t* src, uint8_t* dst, size_t n, uint32_t offset, const uint16_t* dark);

// How words that went through a table are laid down.
struct WordsTo {
    bool mirror = false;              // the first comes last
    bool past = false;                // past the caches, as CopyPast does; hwy::FlushStream at the end is the caller's
    const uint16_t* ahead = nullptr;  // as many words that are asked for meanwhile
};
// `src` may be `dst`, but not where it mirrors.
void MapWords(const uint16_t* src, uint16_t* dst, size_t n, const WordTables& t, const WordsTo& to = {});

// memcpy that leaves nothing of `dst` in the caches: for output of STREAM_FROM and more, whole or piece by piece. What it writes
// over is not read, and unlike the processor's own instruction for it, this does not depend on where in a page `dst` begins.
void CopyPast(const uint8_t* src, uint8_t* dst, size_t n);

}  // namespace imaging
