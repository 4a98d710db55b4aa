// The pixel toolbox. It holds no data: all tables are process-wide. Nothing allocates, fails or takes a lock; sizes
// below 1 do nothing. Every operation equals its scalar reference form (imaging/Reference.h) byte for byte.
#pragma once
#include <cstdint>

#include "base/Export.h"

class KOV_CLASS CAlgorithm {
public:
    void RGBYUV_Init();                    // fills the colour tables, gain tables to identity
    void SetRGBWB(int wbRed, int wbBlue);  // 50 is unity; process-wide

    void RGB2YUV2(uint8_t* src, uint8_t* dst, int width, int height, bool bottomUp);
    void RGB2Y8(uint8_t* src, uint8_t* dst, int width, int height);
    void RGB2R8(uint8_t* src, uint8_t* dst, int width, int height);
    void MonoBin(uint8_t* buf8, uint16_t* buf16, int outWidth, int outHeight, int bin, bool is16);
    void ColorRAWBin(uint8_t* buf8, uint16_t* buf16, int outWidth, int outHeight, int bin, bool is16);
    void SoftMisc(uint8_t* buf, int width, int height, int bin, bool is16, bool reverseRows, bool mirrorRows);
    void Gamma(uint8_t* buf, uint8_t* lut, int width, int height);
    void Gamma(uint16_t* buf, uint16_t* lut, int width, int height);
    void SubtractDark(uint8_t* buf, int width, int height, uint32_t offset, uint16_t* dark);

    // Demosaic to 3 bytes a pixel: blue, green, red. Named for the sensor's cell.
    void Bayer2RGB24_RG(uint8_t* src, uint8_t* dst, int width, int height);
    void Bayer2RGB24_BG(uint8_t* src, uint8_t* dst, int width, int height);
    void Bayer2RGB24_GR(uint8_t* src, uint8_t* dst, int width, int height);
    void Bayer2RGB24_GB(uint8_t* src, uint8_t* dst, int width, int height);
    // One 2 by 2 cell at (x, y). QUIRK: named by the output byte order, so RG serves a cell that begins with blue.
    void BayerCopy_RG(uint8_t* src, uint8_t* dst, int x, int y, int width);
    void BayerCopy_BG(uint8_t* src, uint8_t* dst, int x, int y, int width);
    void BayerCopy_GR(uint8_t* src, uint8_t* dst, int x, int y, int width);
    void BayerCopy_GB(uint8_t* src, uint8_t* dst, int x, int y, int width);
    void BayerBilinear_RG(uint8_t* src, uint8_t* dst, int x, int y, int width);
    void BayerBilinear_BG(uint8_t* src, uint8_t* dst, int x, int y, int width);
    void BayerBilinear_GR(uint8_t* src, uint8_t* dst, int x, int y, int width);
    void BayerBilinear_GB(uint8_t* src, uint8_t* dst, int x, int y, int width);
};
