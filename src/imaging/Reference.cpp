#include "imaging/Reference.h"

#include <algorithm>

namespace imaging::reference {

namespace {

// The coordinate itself, or the nearest one of the same parity inside; 0 where there is none.
int Inside(int i, int size) { return i < size ? i : i >= 2 ? i - 2 : 0; }

int InsideFrom(int i, int size)
{
    while (i >= size)
        i -= 2;
    return i;
}

uint8_t Saturate(uint32_t v) { return static_cast<uint8_t>(std::min(v, 255u)); }

template <class PutCell>
void WalkCells(const BayerFrame& f, int from, int to, PutCell put)
{
    CellPixels px;
    for (int y = from; y < to; y += 2) {
        for (int x = 0; x < f.width; x += 2) {
            if (IsBorderCell(f, x, y))
                CopyCell(f, x, y, px);
            else
                BilinearCell(f, x, y, px);
            for (int j = 0; j < 2 && y + j < f.height; ++j)
                for (int i = 0; i < 2 && x + i < f.width; ++i)
                    put(static_cast<size_t>(y + j) * static_cast<size_t>(f.width) + static_cast<size_t>(x + i), px[j][i]);
        }
    }
}

// First sample of output place i. Mono blocks are dense; colour blocks take every second row and column.
int FirstOf(int i, int bin, bool colour) { return colour ? i / 2 * 2 * bin + (i & 1) : i * bin; }

// 8-bit frames add up and saturate; 16-bit frames are averaged.
// QUIRK: of a 16-bit colour frame each sample is divided before it is added, which loses its low bits; mono frames divide
// once at the end.
template <class T, class RowAt>
void SumBlocks(RowAt rowAt, T* out, int outWidth, int bin, bool colour)
{
    const int inWidth = outWidth * bin, step = colour ? 2 : 1;
    const auto b = static_cast<uint32_t>(bin);
    for (int x = 0; x < outWidth; ++x) {
        uint32_t sum = 0;
        for (int j = 0; j < bin; ++j) {
            const T* row = rowAt(j);
            for (int i = 0; i < bin; ++i) {
                const uint32_t v = row[InsideFrom(FirstOf(x, bin, colour) + i * step, inWidth)];
                sum += sizeof(T) == 2 && colour ? v / b / b : v;
            }
        }
        if (sizeof(T) == 2 && !colour)
            sum = sum / b / b;
        out[x] = static_cast<T>(std::min<uint32_t>(sum, static_cast<T>(~T{ 0 })));
    }
}

}  // namespace

bool IsBorderCell(const BayerFrame& f, int x, int y) { return x == 0 || y == 0 || x + 2 >= f.width || y + 2 >= f.height; }

void CopyCell(const BayerFrame& f, int x, int y, CellPixels out)
{
    const auto at = [&](int i, int j) { return f.Row(Inside(y + j, f.height))[Inside(x + i, f.width)]; };
    const int bx = f.phase.blueX, by = f.phase.blueY;
    const uint8_t blue = f.gains->blue[at(bx, by)];
    const uint8_t red = f.gains->red[at(1 - bx, 1 - by)];
    const int green = (at(1 - bx, by) + at(bx, 1 - by)) >> 1;
    for (int j = 0; j < 2; ++j) {
        for (int i = 0; i < 2; ++i) {
            const bool isGreen = (i == bx) != (j == by);
            out[j][i][0] = blue;
            out[j][i][1] = isGreen ? at(i, j) : static_cast<uint8_t>(green);
            out[j][i][2] = red;
        }
    }
}

void BilinearCell(const BayerFrame& f, int x, int y, CellPixels out)
{
    const ptrdiff_t w = f.width;
    for (int j = 0; j < 2; ++j) {
        for (int i = 0; i < 2; ++i) {
            const uint8_t* p = f.Row(y + j) + (x + i);
            const bool blueRow = j == f.phase.blueY, blueColumn = i == f.phase.blueX;
            int blue, green, red;
            if (blueRow != blueColumn) {
                const int beside = (p[-1] + p[1]) >> 1, above = (p[-w] + p[w]) >> 1;
                green = p[0];
                blue = blueRow ? beside : above;
                red = blueRow ? above : beside;
            } else {
                const int diagonal = (p[-w - 1] + p[-w + 1] + p[w - 1] + p[w + 1]) >> 2;
                green = (p[-w] + p[w] + p[-1] + p[1]) >> 2;
                blue = blueRow ? p[0] : diagonal;
                red = blueRow ? diagonal : p[0];
            }
            out[j][i][0] = f.gains->blue[static_cast<size_t>(blue)];
            out[j][i][1] = static_cast<uint8_t>(green);
            out[j][i][2] = f.gains->red[static_cast<size_t>(red)];
        }
    }
}

void Demosaic(const BayerFrame& f, int from, int to, uint8_t* dst)
{
    WalkCells(f, from, to, [dst](size_t i, const uint8_t* px) { std::copy_n(px, 3, dst + 3 * i); });
}

void DemosaicY8(const BayerFrame& f, int from, int to, uint8_t* dst)
{
    WalkCells(f, from, to, [dst](size_t i, const uint8_t* px) { dst[i] = Luminance(px[0], px[1], px[2]); });
}

// QUIRK: the weight of red falls on byte 0, where demosaic stores blue, and the other way round.
// QUIRK: no offset of 16, so white is 219.
uint8_t Luminance(uint8_t b0, uint8_t b1, uint8_t b2)
{
    return static_cast<uint8_t>((g_Tab098[b2] + g_Tab257[b0] + g_Tab504[b1]) >> 16);
}

void RGB2Y8(const uint8_t* src, uint8_t* dst, int width, int height)
{
    if (width < 1 || height < 1)
        return;
    for (size_t i = static_cast<size_t>(width) * static_cast<size_t>(height); i-- > 0;)
        dst[i] = Luminance(src[3 * i], src[3 * i + 1], src[3 * i + 2]);
}

// QUIRK: takes byte 0, which is blue.
void RGB2R8(const uint8_t* src, uint8_t* dst, int width, int height)
{
    if (width < 1 || height < 1)
        return;
    for (size_t i = static_cast<size_t>(width) * static_cast<size_t>(height); i-- > 0;)
        dst[i] = src[3 * i];
}

void RGB2YUV2(const uint8_t* src, uint8_t* dst, int width, int height, bool bottomUp)
{
    const auto term = [](const YuvTable& t, uint8_t v) { return static_cast<int32_t>(t[v]); };
    for (int y = 0; y < height; ++y) {
        const ptrdiff_t row = bottomUp ? height - 1 - y : y;
        const uint8_t* p = src + row * width * 3;
        uint8_t odd = 0;
        for (int x = 0; x < width; ++x, p += 3) {
            *dst++ = static_cast<uint8_t>(Luminance(p[0], p[1], p[2]) + 16);
            if (x % 2 == 0) {
                const int32_t c1 = term(g_Tab439, p[0]) - term(g_Tab071, p[2]) - term(g_Tab368, p[1]);
                const int32_t c2 = term(g_Tab439, p[2]) - term(g_Tab291, p[1]) - term(g_Tab148, p[0]);
                *dst++ = static_cast<uint8_t>((c1 >> 16) + 128);
                odd = static_cast<uint8_t>((c2 >> 16) + 128);
            } else {
                *dst++ = odd;
            }
        }
    }
}

template <class T>
void Bin(T* buf, int outWidth, int outHeight, int bin, bool colour)
{
    if (bin < 2 || outWidth < 1)
        return;
    // The output never overtakes what is still to be read.
    const ptrdiff_t inWidth = ptrdiff_t{ outWidth } * bin;
    for (int y = 0; y < outHeight; ++y)
        SumBlocks([&](int j) { return buf + BinSourceRow(y, j, outHeight, bin, colour) * inWidth; },
                  buf + ptrdiff_t{ y } * outWidth, outWidth, bin, colour);
}
template void Bin(uint8_t*, int, int, int, bool);
template void Bin(uint16_t*, int, int, int, bool);

int BinSourceRow(int y, int j, int outHeight, int bin, bool colour)
{
    return InsideFrom(FirstOf(y, bin, colour) + j * (colour ? 2 : 1), outHeight * bin);
}

template <class T>
void BinRow(const T* const* rows, T* out, int outWidth, int bin, bool colour)
{
    SumBlocks([rows](int j) { return rows[j]; }, out, outWidth, bin, colour);
}
template void BinRow(const uint8_t* const*, uint8_t*, int, int, bool);
template void BinRow(const uint16_t* const*, uint16_t*, int, int, bool);

template <class T>
void Flip(T* buf, int width, int height, bool reverseRows, bool mirrorRows)
{
    const ptrdiff_t w = width, h = height;
    if (w < 1)
        return;
    if (mirrorRows) {
        // With both flips, row r trades its first half for the second half of the row opposite, for all rows.
        // QUIRK: at an odd width the middle column keeps its order when both flips are on.
        for (ptrdiff_t r = 0; r < h; ++r)
            for (ptrdiff_t i = 0; i < w / 2; ++i)
                std::swap(buf[r * w + i], buf[(reverseRows ? h - 1 - r : r) * w + (w - 1 - i)]);
    } else if (reverseRows) {
        for (ptrdiff_t r = 0; r < h / 2; ++r)
            std::swap_ranges(buf + r * w, buf + (r + 1) * w, buf + (h - 1 - r) * w);
    }
}
template void Flip(uint8_t*, int, int, bool, bool);
template void Flip(uint16_t*, int, int, bool, bool);

void Gamma8(uint8_t* buf, size_t n, const uint8_t* lut)
{
    for (size_t i = 0; i < n; ++i)
        buf[i] = lut[buf[i]];
}

// A pixel no brighter than the dark frame becomes the offset, not 0: only the fixed pattern goes, the pedestal stays.
void SubtractDark(const uint8_t* src, uint8_t* dst, size_t n, uint32_t offset, const uint16_t* dark)
{
    for (size_t i = 0; i < n; ++i) {
        const uint32_t rest = src[i] > dark[i] ? Saturate(uint32_t{ src[i] } - dark[i]) : 0;
        dst[i] = Saturate(rest + std::min(offset, 255u));
    }
}

}  // namespace imaging::reference
