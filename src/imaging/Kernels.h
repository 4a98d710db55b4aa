// Vector forms of the pixel operations, compiled for every instruction set that this architecture may offer; the best
// that the machine has is chosen once per call.
#pragma once
#include <cstddef>
#include <cstdint>

#include "imaging/Reference.h"

// Highway leaves this set of targets out unless asked for: its byte shuffles over whole tables are what demosaic and
// gamma are made of. Every file that includes Highway has to see the same choice.
#define HWY_WANT_AVX3_DL 1

namespace imaging {

void Demosaic(const BayerFrame& f, uint8_t* dst);    // 3 bytes a pixel
void DemosaicY8(const BayerFrame& f, uint8_t* dst);  // what RGB2Y8 makes of Demosaic, without the frame between
void Luminance(const uint8_t* rgb, uint8_t* dst, size_t n);
void FirstBytes(const uint8_t* rgb, uint8_t* dst, size_t n);

// Bin 2 to 4 in place; outWidth and outHeight even for the colour forms.
void MonoBin8(uint8_t* buf, int outWidth, int outHeight, int bin);
void MonoBin16(uint16_t* buf, int outWidth, int outHeight, int bin);
void ColorBin8(uint8_t* buf, int outWidth, int outHeight, int bin);
void ColorBin16(uint16_t* buf, int outWidth, int outHeight, int bin);

void Flip8(uint8_t* buf, int width, int height, bool reverseRows, bool mirrorRows);
void Flip16(uint16_t* buf, int width, int height, bool reverseRows, bool mirrorRows);

void MapBytes(uint8_t* buf, size_t n, const uint8_t* lut);
void SubtractDark(uint8_t* buf, size_t n, uint32_t offset, const uint16_t* dark);

}  // namespace imaging
