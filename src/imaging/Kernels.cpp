#include "imaging/Kernels.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <type_traits>
#include <utility>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "imaging/Kernels.cpp"
#include <hwy/cache_control.h>
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace imaging {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Four samples come with one load, and two results leave with one store: loads and stores are what limits this.
template <bool kMirror>
HWY_INLINE void MapAnyWords(const uint16_t* src, uint16_t* dst, size_t n, const std::atomic<uint16_t>* lut)
{
    const auto map = [lut](uint64_t v) { return uint32_t{ lut[v & 0xFFFF].load(std::memory_order_relaxed) }; };
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        uint64_t v;
        std::memcpy(&v, src + (kMirror ? n - i - 4 : i), sizeof v);
        uint32_t first = map(v) | map(v >> 16) << 16, second = map(v >> 32) | map(v >> 48) << 16;
        if constexpr (kMirror)
            first = std::rotl(std::exchange(second, std::rotl(first, 16)), 16);
        std::memcpy(dst + i, &first, sizeof first);
        std::memcpy(dst + i + 2, &second, sizeof second);
    }
    for (; i < n; ++i)
        dst[i] = lut[src[kMirror ? n - 1 - i : i]].load(std::memory_order_relaxed);
}

#if HWY_TARGET == HWY_SCALAR  // a machine without any of the vector sets

void MapWords(const uint16_t* src, uint16_t* dst, size_t n, const WordTables& t, const WordsTo& to)
{
    to.mirror ? MapAnyWords<true>(src, dst, n, t.all) : MapAnyWords<false>(src, dst, n, t.all);
}
void MapBytes(const uint8_t* src, uint8_t* dst, size_t n, const uint8_t* lut)
{
    std::transform(src, src + n, dst, [lut](uint8_t v) { return lut[v]; });
}
void Luminance(const uint8_t* rgb, uint8_t* dst, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        dst[i] = reference::Luminance(rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]);
}
void FirstBytes(const uint8_t* rgb, uint8_t* dst, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        dst[i] = rgb[3 * i];
}
void Triple(const uint8_t* grey, uint8_t* dst, size_t n)
{
    for (size_t i = 0; i < n; ++i)
        std::fill_n(dst + 3 * i, 3, grey[i]);
}
void Demosaic(const BayerFrame& f, int from, int to, uint8_t* dst) { reference::Demosaic(f, from, to, dst); }
void DemosaicY8(const BayerFrame& f, int from, int to, uint8_t* dst) { reference::DemosaicY8(f, from, to, dst); }
void BinRow8(const uint8_t* const* rows, uint8_t* out, int w, int bin, bool colour)
{
    reference::BinRow(rows, out, w, bin, colour);
}
void BinRow16(const uint16_t* const* rows, uint16_t* out, int w, int bin, bool colour)
{
    reference::BinRow(rows, out, w, bin, colour);
}
void Flip8(uint8_t* buf, int w, int h, bool rows, bool mirror) { reference::Flip(buf, w, h, rows, mirror); }
void Flip16(uint16_t* buf, int w, int h, bool rows, bool mirror) { reference::Flip(buf, w, h, rows, mirror); }
void Rotate12(const uint16_t* src, uint16_t* dst, size_t n) { std::transform(src, src + n, dst, reference::Rotate12); }
void SubtractDark(const uint8_t* src, uint8_t* dst, size_t n, uint32_t offset, const uint16_t* dark)
{
    reference::SubtractDark(src, dst, n, offset, dark);
}
void CopyPast(const uint8_t* src, uint8_t* dst, size_t n) { std::copy_n(src, n, dst); }

#else

// Row tails are finished with short vectors before the scalar loop takes over.
template <class T>
using Full = hn::ScalableTag<T>;
template <class T>
using Short = hn::CappedTag<T, 16 / sizeof(T)>;

// --- bytes through a table ------------------------------------------------------------------------------------------

#  undef KOV_SHUFFLED_TABLE  // of the target before
#  if HWY_TARGET == HWY_AVX3_DL
#    define KOV_SHUFFLED_TABLE 1
// 128 entries a shuffle: two shuffles and a blend serve 64 bytes.
class Table {
public:
    explicit Table(const uint8_t* lut)
    {
        for (size_t k = 0; k < 4; ++k)
            m_part[k] = _mm512_loadu_si512(lut + 64 * k);
    }
    template <class V>
    V Map(V v) const
    {
        const __m512i low = _mm512_permutex2var_epi8(m_part[0], v.raw, m_part[1]);
        const __m512i high = _mm512_permutex2var_epi8(m_part[2], v.raw, m_part[3]);
        return V{ _mm512_mask_blend_epi8(_mm512_movepi8_mask(v.raw), low, high) };
    }

private:
    __m512i m_part[4];
};
#  elif HWY_TARGET == HWY_AVX2
#    define KOV_SHUFFLED_TABLE 1
// 16 entries a shuffle, which gives 0 to lanes with bit 7 set. Index i, less 16 a step without wrapping, takes part in the
// steps up to its own; each holds by what its part differs from the one before, so the last one taken is what remains. The
// upper half of the indices goes its own way with bit 7 turned.
class Table {
public:
    explicit Table(const uint8_t* lut)
    {
        for (size_t k = 0; k < 16; ++k) {
            m_step[k] = hn::LoadDup128(m_d, lut + 16 * k);
            if (k % 8 != 0)
                m_step[k] = hn::Xor(m_step[k], hn::LoadDup128(m_d, lut + 16 * (k - 1)));
        }
    }
    template <class V>
    V Map(V v) const
    {
        const hn::RebindToSigned<decltype(m_d)> di;
        const auto less = hn::Set(di, 16);
        auto low = hn::BitCast(di, v), high = hn::Xor(low, hn::Set(di, -128));
        V fromLow = hn::TableLookupBytesOr0(m_step[0], v), fromHigh = hn::TableLookupBytesOr0(m_step[8], hn::BitCast(m_d, high));
        for (size_t k = 1; k < 8; ++k) {
            low = hn::SaturatedSub(low, less);
            high = hn::SaturatedSub(high, less);
            fromLow = hn::Xor(fromLow, hn::TableLookupBytesOr0(m_step[k], hn::BitCast(m_d, low)));
            fromHigh = hn::Xor(fromHigh, hn::TableLookupBytesOr0(m_step[8 + k], hn::BitCast(m_d, high)));
        }
        return hn::Or(fromLow, fromHigh);
    }

private:
    Full<uint8_t> m_d;
    hn::Vec<Full<uint8_t> > m_step[16];
};
#  elif HWY_TARGET == HWY_NEON && HWY_ARCH_ARM_A64
#    define KOV_SHUFFLED_TABLE 1
// 64 entries a shuffle, which leaves the lanes alone whose index is not among them.
class Table {
public:
    explicit Table(const uint8_t* lut)
    {
        for (size_t k = 0; k < 4; ++k)
            m_part[k] = vld1q_u8_x4(lut + 64 * k);
    }
    template <class V>
    V Map(V v) const
    {
        uint8x16_t index = v.raw, out = vqtbl4q_u8(m_part[0], index);
        for (size_t k = 1; k < 4; ++k) {
            index = vsubq_u8(index, vdupq_n_u8(64));
            out = vqtbx4q_u8(out, m_part[k], index);
        }
        return V(out);
    }

private:
    uint8x16x4_t m_part[4];
};
#  else
#    define KOV_SHUFFLED_TABLE 0
class Table {
public:
    explicit Table(const uint8_t* lut) : m_lut(lut) {}
    template <class V>
    V Map(V v) const
    {
        const Full<uint8_t> d;
        HWY_ALIGN uint8_t lanes[HWY_MAX_BYTES];
        hn::Store(v, d, lanes);
        for (size_t i = 0; i < hn::Lanes(d); ++i)
            lanes[i] = m_lut[lanes[i]];
        return hn::Load(d, lanes);
    }

private:
    const uint8_t* m_lut;
};
#  endif

void MapBytes(const uint8_t* src, uint8_t* dst, size_t n, const uint8_t* lut)
{
    size_t i = 0;
#  if KOV_SHUFFLED_TABLE
    const Full<uint8_t> d;
    if (n >= hn::Lanes(d)) {
        const Table table(lut);
        for (; i + hn::Lanes(d) <= n; i += hn::Lanes(d))
            hn::StoreU(table.Map(hn::LoadU(d, src + i)), d, dst + i);
    }
#  endif
    for (; i + 8 <= n; i += 8) {
        const uint8_t* p = src + i;
        uint8_t* q = dst + i;
        const uint8_t a = lut[p[0]], b = lut[p[1]], c = lut[p[2]], e = lut[p[3]];
        const uint8_t f = lut[p[4]], g = lut[p[5]], h = lut[p[6]], j = lut[p[7]];
        q[0] = a, q[1] = b, q[2] = c, q[3] = e, q[4] = f, q[5] = g, q[6] = h, q[7] = j;
    }
    for (; i < n; ++i)
        dst[i] = lut[src[i]];
}

void Rotate12(const uint16_t* src, uint16_t* dst, size_t n)
{
    const Full<uint16_t> d;
    size_t i = 0;
    for (; i + hn::Lanes(d) <= n; i += hn::Lanes(d)) {
        const auto v = hn::LoadU(d, src + i);
        hn::StoreU(hn::Or(hn::ShiftLeft<8>(v), hn::And(hn::ShiftRight<4>(v), hn::Set(d, 0x00F0))), d, dst + i);
    }
    std::transform(src + i, src + n, dst + i, reference::Rotate12);
}

void Triple(const uint8_t* grey, uint8_t* dst, size_t n)
{
    const Full<uint8_t> d;
    size_t i = 0;
    for (; i + hn::Lanes(d) <= n; i += hn::Lanes(d)) {
        const auto v = hn::LoadU(d, grey + i);
        hn::StoreInterleaved3(v, v, v, d, dst + 3 * i);
    }
    for (; i < n; ++i)
        std::fill_n(dst + 3 * i, 3, grey[i]);
}

// --- luminance ------------------------------------------------------------------------------------------------------

// The sum of the three table entries in 16 bits. An entry is i * w + cut(i * r) with w the whole and r the fractional
// part of the weight. w is split into bytes; neither the sum of the upper nor that of the lower parts passes 65535:
//   upper: 255 * (65 + 129 + 25) = 55845,   lower: 255 * (202 + 6 + 22) + cuts (at most 191 + 36 + 134) = 59011.
// The cut is an upper half of a product with r rounded up to 16 bits; exact for all 256 indices.
template <class D16, class V16>
HWY_INLINE V16 LuminanceOf(D16 d, V16 b0, V16 b1, V16 b2)
{
    const auto mul = [&](V16 v, int k) HWY_ATTR { return hn::Mul(v, hn::Set(d, static_cast<uint16_t>(k))); };
    const auto cut = [&](V16 v, int k) HWY_ATTR { return hn::MulHigh(v, hn::Set(d, static_cast<uint16_t>(k))); };
    const V16 cuts = hn::Add(hn::Add(cut(b0, 49284), cut(b1, 9438)), cut(b2, 34604));
    const V16 lower = hn::Add(hn::Add(mul(b0, 202), mul(b1, 6)), hn::Add(mul(b2, 22), cuts));
    const V16 upper = hn::Add(hn::Add(mul(b0, 65), mul(b1, 129)), mul(b2, 25));
    return hn::ShiftRight<8>(hn::Add(upper, hn::ShiftRight<8>(lower)));
}

// Words of even and of odd columns, as bytes.
template <class V16>
using BytesOf = hn::Vec<hn::Repartition<uint8_t, hn::DFromV<V16> > >;
template <class V16>
HWY_INLINE BytesOf<V16> Join(V16 even, V16 odd)
{
    return hn::BitCast(hn::Repartition<uint8_t, hn::DFromV<V16> >(), hn::Or(even, hn::ShiftLeft<8>(odd)));
}

template <class V8>
HWY_INLINE V8 LuminanceOfBytes(V8 b0, V8 b1, V8 b2)
{
    const hn::RepartitionToWide<hn::DFromV<V8> > d16;
    const auto low = hn::Set(d16, 0x00FF);
    const auto w0 = hn::BitCast(d16, b0), w1 = hn::BitCast(d16, b1), w2 = hn::BitCast(d16, b2);
    return Join(LuminanceOf(d16, hn::And(w0, low), hn::And(w1, low), hn::And(w2, low)),
                LuminanceOf(d16, hn::ShiftRight<8>(w0), hn::ShiftRight<8>(w1), hn::ShiftRight<8>(w2)));
}

void Luminance(const uint8_t* rgb, uint8_t* dst, size_t n)
{
    const Full<uint8_t> d;
    size_t i = 0;
    for (; i + hn::Lanes(d) <= n; i += hn::Lanes(d)) {
        hn::Vec<decltype(d)> b0, b1, b2;
        hn::LoadInterleaved3(d, rgb + 3 * i, b0, b1, b2);
        hn::StoreU(LuminanceOfBytes(b0, b1, b2), d, dst + i);
    }
    for (; i < n; ++i)
        dst[i] = reference::Luminance(rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]);
}

void FirstBytes(const uint8_t* rgb, uint8_t* dst, size_t n)
{
    const Full<uint8_t> d;
    size_t i = 0;
    for (; i + hn::Lanes(d) <= n; i += hn::Lanes(d)) {
        hn::Vec<decltype(d)> b0, b1, b2;
        hn::LoadInterleaved3(d, rgb + 3 * i, b0, b1, b2);
        hn::StoreU(b0, d, dst + i);
    }
    for (; i < n; ++i)
        dst[i] = rgb[3 * i];
}

// --- demosaic -------------------------------------------------------------------------------------------------------

// JoinForPixels: bytes as StorePixels takes them. StorePixels<kStream>: past the caches, to an address aligned for a vector.
#  undef KOV_JOIN_CUTS  // words above 255 become 255
#  if HWY_TARGET == HWY_AVX3_DL
#    define KOV_JOIN_CUTS 0
struct Interleave {
    uint8_t first[3][64];  // of blue (0 to 63) and green (64 to 127)
    uint8_t red[3][64];
    uint64_t isRed[3];
};
constexpr Interleave MakeInterleave()
{
    Interleave t{};
    for (unsigned j = 0; j < 192; ++j) {
        const unsigned pixel = j / 3, channel = j % 3;
        t.first[j / 64][j % 64] = static_cast<uint8_t>(channel == 1 ? 64 + pixel : pixel);
        t.red[j / 64][j % 64] = static_cast<uint8_t>(pixel);
        t.isRed[j / 64] |= uint64_t{ channel == 2 } << (j % 64);
    }
    return t;
}
alignas(64) constexpr Interleave g_Interleave = MakeInterleave();

template <bool kStream, class V8>
HWY_INLINE void StorePixels(V8 blue, V8 green, V8 red, uint8_t* dst)
{
    for (size_t k = 0; k < 3; ++k) {
        const __m512i first = _mm512_permutex2var_epi8(blue.raw, _mm512_load_si512(g_Interleave.first[k]), green.raw);
        const __m512i all =
            _mm512_mask_permutexvar_epi8(first, g_Interleave.isRed[k], _mm512_load_si512(g_Interleave.red[k]), red.raw);
        if constexpr (kStream)
            _mm512_stream_si512(reinterpret_cast<__m512i*>(dst + 64 * k), all);
        else
            _mm512_storeu_si512(dst + 64 * k, all);
    }
}
#  elif HWY_TARGET == HWY_AVX2
#    define KOV_JOIN_CUTS 1
// Half a vector is 16 pixels, as joined the even columns before the odd ones, and three blocks of 16 bytes: byte j of block k
// belongs to channel (k + j) % 3. So one shuffle brings all of a channel to its bytes of the three blocks.
struct Interleave {
    uint8_t source[3][32];
    uint8_t second[32], third[32];  // FF: the channel after that of the block's byte 0, the one after that
};
constexpr Interleave MakeInterleave()
{
    Interleave t{};
    for (unsigned j = 0; j < 32; ++j) {
        for (unsigned channel = 0; channel < 3; ++channel) {
            const unsigned byte = j % 16, block = (channel + 2 * byte) % 3, pixel = (16 * block + byte) / 3;
            t.source[channel][j] = static_cast<uint8_t>(pixel % 2 * 8 + pixel / 2);
        }
        t.second[j] = j % 16 % 3 == 1 ? 0xFF : 0;
        t.third[j] = j % 16 % 3 == 2 ? 0xFF : 0;
    }
    return t;
}
alignas(64) constexpr Interleave g_Interleave = MakeInterleave();

template <bool kStream, class V8>
HWY_INLINE void StorePixels(V8 blue, V8 green, V8 red, uint8_t* dst)
{
    const hn::DFromV<V8> d;
    const __m256i second = hn::Load(d, g_Interleave.second).raw, third = hn::Load(d, g_Interleave.third).raw;
    const __m256i b = _mm256_shuffle_epi8(blue.raw, hn::Load(d, g_Interleave.source[0]).raw);
    const __m256i g = _mm256_shuffle_epi8(green.raw, hn::Load(d, g_Interleave.source[1]).raw);
    const __m256i r = _mm256_shuffle_epi8(red.raw, hn::Load(d, g_Interleave.source[2]).raw);
    const __m256i block0 = _mm256_blendv_epi8(_mm256_blendv_epi8(b, g, second), r, third);
    const __m256i block1 = _mm256_blendv_epi8(_mm256_blendv_epi8(g, r, second), b, third);
    const __m256i block2 = _mm256_blendv_epi8(_mm256_blendv_epi8(r, b, second), g, third);
    const auto store = [=](ptrdiff_t at, __m256i v) HWY_ATTR {
        if constexpr (kStream)
            _mm256_stream_si256(reinterpret_cast<__m256i*>(dst + at), v);
        else
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + at), v);
    };
    store(0, _mm256_permute2x128_si256(block0, block1, 0x20));
    store(32, _mm256_blend_epi32(block2, block0, 0xF0));
    store(64, _mm256_permute2x128_si256(block1, block2, 0x31));
}
#  else
#    define KOV_JOIN_CUTS 0
template <bool kStream, class V8>
HWY_INLINE void StorePixels(V8 blue, V8 green, V8 red, uint8_t* dst)
{
    const hn::DFromV<V8> d;
    if constexpr (kStream) {
        const size_t lanes = hn::Lanes(d);
        HWY_ALIGN uint8_t pixels[3 * HWY_MAX_BYTES];
        hn::StoreInterleaved3(blue, green, red, d, pixels);
        for (size_t k = 0; k < 3; ++k)
            hn::Stream(hn::Load(d, pixels + k * lanes), d, dst + k * lanes);
    } else {
        hn::StoreInterleaved3(blue, green, red, d, dst);
    }
}
#  endif

template <class V16>
HWY_INLINE BytesOf<V16> JoinForPixels(V16 even, V16 odd)
{
#  if HWY_TARGET == HWY_AVX2
    return BytesOf<V16>{ _mm256_packus_epi16(even.raw, odd.raw) };
#  else
    return Join(even, odd);
#  endif
}

// `kColourOdd` tells which of the columns has the colour sites of the row; `own` is the colour of the row's sites, `other` that
// of the rows above and below. 0: even columns, 1: odd ones.
template <bool kColourOdd, class D8, class V16>
HWY_INLINE void Interpolate(D8 d8, const uint8_t* p, ptrdiff_t pitch, V16& own0, V16& own1, V16& green0, V16& green1, V16& other0,
                            V16& other1)
{
    const hn::RepartitionToWide<D8> d16;
    const auto load = [&](const uint8_t* q) HWY_ATTR { return hn::BitCast(d16, hn::LoadU(d8, q)); };
    const auto low = [&](auto v) HWY_ATTR { return hn::And(v, hn::Set(d16, 0x00FF)); };
    const auto high = [&](auto v) HWY_ATTR { return hn::ShiftRight<8>(v); };

    const auto here = load(p), left = load(p - 1), right = load(p + 1);
    const auto north = load(p - pitch), south = load(p + pitch);
    const auto even = low(here), odd = high(here);
    const auto columnEven = hn::Add(low(north), low(south)), columnOdd = hn::Add(high(north), high(south));
    if constexpr (kColourOdd) {
        const auto nextColumn = hn::Add(high(load(p - pitch + 1)), high(load(p + pitch + 1)));
        const auto cross = hn::ShiftRight<2>(hn::Add(columnOdd, hn::Add(even, high(right))));
        const auto diagonal = hn::ShiftRight<2>(hn::Add(columnEven, nextColumn));
        own0 = hn::ShiftRight<1>(hn::Add(low(left), odd)), own1 = odd;
        green0 = even, green1 = cross;
        other0 = hn::ShiftRight<1>(columnEven), other1 = diagonal;
    } else {
        const auto previousColumn = hn::Add(low(load(p - pitch - 1)), low(load(p + pitch - 1)));
        const auto cross = hn::ShiftRight<2>(hn::Add(columnEven, hn::Add(low(left), odd)));
        const auto diagonal = hn::ShiftRight<2>(hn::Add(previousColumn, columnOdd));
        own0 = even, own1 = hn::ShiftRight<1>(hn::Add(even, high(right)));
        green0 = cross, green1 = odd;
        other0 = diagonal, other1 = hn::ShiftRight<1>(columnOdd);
    }
}

// How red and blue get their gains.
enum class GainWay { None, Factor, Lookup };

// `kCut`: what the gain makes too large is cut here.
template <GainWay kWay, bool kCut, class V16>
HWY_INLINE V16 WithGain(V16 v, uint16_t factor)
{
    const hn::DFromV<V16> d;
    if constexpr (kWay != GainWay::Factor)
        return v;
    const V16 product = hn::MulHigh(hn::ShiftLeft<16 - GAIN_SHIFT>(v), hn::Set(d, factor));
    return kCut ? hn::Min(product, hn::Set(d, uint16_t{ 255 })) : product;
}

// Where pixels of a row go: that of column `first` to `at`, the others before and behind it.
template <bool kY8>
struct PixelRow {
    static constexpr ptrdiff_t BYTES = kY8 ? 1 : 3;
    uint8_t* at;
    ptrdiff_t first;
    uint8_t* Pixel(ptrdiff_t x) const { return at + BYTES * (x - first); }
};

// What does not change along an inner row.
template <bool kY8, GainWay kWay, bool kColourOdd, bool kBlueRow>
class InnerRow {
public:
    HWY_INLINE InnerRow(const BayerFrame& f, ptrdiff_t y, const Table& blueTable, const Table& redTable)
        : m_row(f.Row(y)), m_width(f.width), m_ahead(std::min<ptrdiff_t>(ROWS_AHEAD, f.height - 1 - y) * f.width),
          m_blueFactor(f.gains->blueFactor), m_redFactor(f.gains->redFactor), m_blueTable(blueTable), m_redTable(redTable)
    {
    }

    // A vector of pixels from column x on.
    template <bool kStream, class D8>
    HWY_INLINE void Put(D8 d8, ptrdiff_t x, PixelRow<kY8> out) const
    {
        constexpr bool kCut = kY8 || !KOV_JOIN_CUTS;
        const hn::RepartitionToWide<D8> d16;
        hn::Vec<decltype(d16)> blue0, blue1, green0, green1, red0, red1;
        hwy::Prefetch(m_row + x + m_ahead);
        if constexpr (kBlueRow)
            Interpolate<kColourOdd>(d8, m_row + x, m_width, blue0, blue1, green0, green1, red0, red1);
        else
            Interpolate<kColourOdd>(d8, m_row + x, m_width, red0, red1, green0, green1, blue0, blue1);
        blue0 = WithGain<kWay, kCut>(blue0, m_blueFactor), blue1 = WithGain<kWay, kCut>(blue1, m_blueFactor);
        red0 = WithGain<kWay, kCut>(red0, m_redFactor), red1 = WithGain<kWay, kCut>(red1, m_redFactor);
        if constexpr (kY8 && kWay != GainWay::Lookup) {
            hn::StoreU(Join(LuminanceOf(d16, blue0, green0, red0), LuminanceOf(d16, blue1, green1, red1)), d8, out.Pixel(x));
        } else if constexpr (kY8) {
            const auto blue = m_blueTable.Map(Join(blue0, blue1)), red = m_redTable.Map(Join(red0, red1));
            hn::StoreU(LuminanceOfBytes(blue, Join(green0, green1), red), d8, out.Pixel(x));
        } else {
            auto blue = JoinForPixels(blue0, blue1), red = JoinForPixels(red0, red1);
            if constexpr (kWay == GainWay::Lookup)
                blue = m_blueTable.Map(blue), red = m_redTable.Map(red);
            StorePixels<kStream>(blue, JoinForPixels(green0, green1), red, out.Pixel(x));
        }
    }
    // Columns x to `end`. The last vector may begin before x, where it holds the same as what stands there.
    template <class D8>
    HWY_INLINE void PutAll(D8 d8, ptrdiff_t x, ptrdiff_t end, PixelRow<kY8> out) const
    {
        const ptrdiff_t step = static_cast<ptrdiff_t>(hn::Lanes(d8));
        for (; x < end; x += step)
            Put<false>(d8, std::min(x, end - step), out);
    }

private:
    // Two rows at a time read two new ones; those of the next turn are asked for.
    static constexpr int ROWS_AHEAD = 3;
    const uint8_t* const m_row;
    const ptrdiff_t m_width, m_ahead;
    const uint16_t m_blueFactor, m_redFactor;
    const Table &m_blueTable, &m_redTable;
};

constexpr ptrdiff_t LINE = 64;
// Lanes of the longest vector with which rows are written past the caches, and the shortest row.
constexpr ptrdiff_t STREAM_LANES = 64, STREAM_WIDTH = 2 * LINE + 2;

// The end of a row and the beginning of the next, between which no line of memory begins: past the caches whole lines are
// written, since a line that is written in both ways has to be fetched and to be waited for.
class Seam {
public:
    // The row's end, from column `first` on, which belongs to `to`.
    PixelRow<false> Begin(uint8_t* to, ptrdiff_t first, ptrdiff_t pixels)
    {
        m_to = to;
        m_n = 0;
        return Add(first, pixels);
    }
    // The next row's beginning.
    PixelRow<false> Join(ptrdiff_t pixels) { return Add(0, pixels); }
    void Write() const
    {
        const Full<uint8_t> d;
        const uint8_t* const from = m_bytes + SLACK;
        if (m_n % LINE != 0 || reinterpret_cast<uintptr_t>(m_to) % LINE != 0)
            std::memcpy(m_to, from, static_cast<size_t>(m_n));  // the first one and the last one of some rows
        else
            for (ptrdiff_t i = 0; i < m_n; i += static_cast<ptrdiff_t>(hn::Lanes(d)))
                hn::Stream(hn::LoadU(d, from + i), d, m_to + i);
    }

private:
    static constexpr ptrdiff_t SLACK = 3 * STREAM_LANES;  // what vectors write beside it
    // An end is what two rows of different beginnings leave, and a vector.
    static constexpr ptrdiff_t MOST = 3 * (2 * LINE + STREAM_LANES + 2);
    PixelRow<false> Add(ptrdiff_t first, ptrdiff_t pixels)
    {
        const PixelRow<false> at{ m_bytes + SLACK + m_n, first };
        m_n += 3 * pixels;
        return at;
    }
    uint8_t* m_to = nullptr;
    ptrdiff_t m_n = 0;
    uint8_t m_bytes[2 * SLACK + MOST];
};

// Rows `from` to `to` of a frame. kColourOdd, kBlueRow: of the upper row of a cell.
template <bool kY8, GainWay kWay, bool kColourOdd, bool kBlueRow>
class RowsOfCells {
public:
    HWY_INLINE RowsOfCells(const BayerFrame& f, uint8_t* dst)
        : m_f(f), m_dst(dst), m_width(f.width), m_height(f.height), m_endX((m_width - 1) & ~ptrdiff_t{ 1 }),
          m_endY((m_height - 1) & ~ptrdiff_t{ 1 }), m_blueTable(f.gains->blue.data()), m_redTable(f.gains->red.data())
    {
        m_stream = !kY8 && m_width % 2 == 0 && reinterpret_cast<uintptr_t>(dst) % 2 == 0 && m_endX >= STREAM_WIDTH &&
                   m_height > 0 && m_step <= STREAM_LANES &&
                   3 * static_cast<size_t>(m_width) * static_cast<size_t>(m_height) >= STREAM_FROM;
    }

    HWY_INLINE void Make(ptrdiff_t from, ptrdiff_t to)
    {
        if constexpr (!kY8)
            if (m_stream)
                m_seam.Begin(Row(from).at, 0, 0);
        for (ptrdiff_t y = from; y < to; y += 2) {
            const bool inner = y >= 2 && y < m_endY && m_endX - 2 >= m_step;
            inner ? Inner(y) : Outer(y);
        }
        if constexpr (!kY8) {
            if (m_stream) {
                m_seam.Write();
                hwy::FlushStream();
            }
        }
    }

private:
    PixelRow<kY8> Row(ptrdiff_t y) const { return { m_dst + y * m_width * PixelRow<kY8>::BYTES, 0 }; }

    // The cells of columns fromX to toX. The lower row need not be there.
    void Cells(ptrdiff_t y, ptrdiff_t fromX, ptrdiff_t toX, PixelRow<kY8> upper, PixelRow<kY8> lower) const
    {
        CellPixels px;
        for (ptrdiff_t x = fromX; x < toX; x += 2) {
            const int cx = static_cast<int>(x), cy = static_cast<int>(y);
            if (reference::IsBorderCell(m_f, cx, cy))
                reference::CopyCell(m_f, cx, cy, px);
            else
                reference::BilinearCell(m_f, cx, cy, px);
            for (ptrdiff_t j = 0; j < 2 && y + j < m_height; ++j) {
                for (ptrdiff_t i = 0; i < 2 && x + i < m_width; ++i) {
                    const uint8_t* p = px[j][i];
                    uint8_t* const out = (j == 0 ? upper : lower).Pixel(x + i);
                    if constexpr (kY8)
                        *out = reference::Luminance(p[0], p[1], p[2]);
                    else
                        std::copy_n(p, 3, out);
                }
            }
        }
    }

    void Outer(ptrdiff_t y)
    {
        Cells(y, 0, m_width, Row(y), Row(y + 1));
        if constexpr (!kY8) {
            if (m_stream) {
                m_seam.Write();
                m_seam.Begin(Row(y + 2).at, 0, 0);
            }
        }
    }

    // Both rows advance together: past the caches, it is the walks to the next pages that take the time, and those of two
    // streams overlap.
    HWY_INLINE void Inner(ptrdiff_t y)
    {
        const InnerRow<kY8, kWay, kColourOdd, kBlueRow> upper(m_f, y, m_blueTable, m_redTable);
        const InnerRow<kY8, kWay, !kColourOdd, !kBlueRow> lower(m_f, y + 1, m_blueTable, m_redTable);
        const PixelRow<kY8> toUpper = Row(y), toLower = Row(y + 1);
        if constexpr (!kY8) {
            if (m_stream) {
                Streamed(y, upper, lower, toUpper, toLower);
                return;
            }
        }
        ptrdiff_t x = 2;
        for (; x + m_step <= m_endX; x += m_step) {
            upper.template Put<false>(m_d, x, toUpper);
            lower.template Put<false>(m_d, x, toLower);
        }
        upper.PutAll(m_d, x, m_endX, toUpper);
        lower.PutAll(m_d, x, m_endX, toLower);
        Cells(y, 0, 2, toUpper, toLower);
        Cells(y, m_endX, m_width, toUpper, toLower);
    }

    template <class Upper, class Lower>
    HWY_INLINE void Streamed(ptrdiff_t y, const Upper& upper, const Lower& lower, PixelRow<false> toUpper,
                             PixelRow<false> toLower)
    {
        // As many columns as a line has bytes make three whole lines.
        const ptrdiff_t u0 = FirstAligned(toUpper), l0 = FirstAligned(toLower);
        const ptrdiff_t columns = (m_endX - std::max(u0, l0)) / LINE * LINE, u1 = u0 + columns, l1 = l0 + columns;
        Seam between;
        const auto upperHead = m_seam.Join(u0), upperTail = between.Begin(toUpper.Pixel(u1), u1, m_width - u1);
        const auto lowerHead = between.Join(l0);
        upper.PutAll(m_d, 2, std::max(u0, 2 + m_step), upperHead);
        lower.PutAll(m_d, 2, std::max(l0, 2 + m_step), lowerHead);
        Cells(y, 0, 2, upperHead, lowerHead);
        m_seam.Write();
        for (ptrdiff_t u = u0, l = l0; u < u1; u += m_step, l += m_step) {
            upper.template Put<true>(m_d, u, toUpper);
            lower.template Put<true>(m_d, l, toLower);
        }
        const auto lowerTail = m_seam.Begin(toLower.Pixel(l1), l1, m_width - l1);
        upper.PutAll(m_d, u1, m_endX, upperTail);
        lower.PutAll(m_d, l1, m_endX, lowerTail);
        Cells(y, m_endX, m_width, upperTail, lowerTail);
        between.Write();
    }

    // The first column with which a line begins: three bytes a pixel reach every even place within one line of columns.
    static ptrdiff_t FirstAligned(PixelRow<false> out)
    {
        ptrdiff_t x = 2;
        while (reinterpret_cast<uintptr_t>(out.Pixel(x)) % LINE != 0)
            x += 2;
        return x;
    }

    const Full<uint8_t> m_d;
    const ptrdiff_t m_step = static_cast<ptrdiff_t>(hn::Lanes(m_d));
    const BayerFrame& m_f;
    uint8_t* const m_dst;
    const ptrdiff_t m_width, m_height, m_endX, m_endY;  // endX, endY: first column and row behind the inner cells
    const Table m_blueTable, m_redTable;
    bool m_stream;
    Seam m_seam;  // of the row above
};

// A function for each way and pattern: together, compilers took many minutes over it where sanitizers watch the memory.
template <bool kY8, GainWay kWay, bool kColourOdd, bool kBlueRow>
HWY_NOINLINE void DemosaicRows(const BayerFrame& f, int from, int to, uint8_t* dst)
{
    RowsOfCells<kY8, kWay, kColourOdd, kBlueRow>(f, dst).Make(from, to);
}

template <bool kY8, GainWay kWay>
void DemosaicPattern(const BayerFrame& f, int from, int to, uint8_t* dst)
{
    if (f.phase.blueY == 0)
        (f.phase.blueX == 1 ? DemosaicRows<kY8, kWay, true, true> : DemosaicRows<kY8, kWay, false, true>)(f, from, to, dst);
    else
        (f.phase.blueX == 0 ? DemosaicRows<kY8, kWay, true, false> : DemosaicRows<kY8, kWay, false, false>)(f, from, to, dst);
}

template <bool kY8>
void DemosaicAs(const BayerFrame& f, int from, int to, uint8_t* dst)
{
    if (f.width < 1)
        return;
    if (f.gains->identity)
        DemosaicPattern<kY8, GainWay::None>(f, from, to, dst);
    else if (f.gains->blueFactor != 0)
        DemosaicPattern<kY8, GainWay::Factor>(f, from, to, dst);
    else
        DemosaicPattern<kY8, GainWay::Lookup>(f, from, to, dst);
}

void Demosaic(const BayerFrame& f, int from, int to, uint8_t* dst) { DemosaicAs<false>(f, from, to, dst); }
void DemosaicY8(const BayerFrame& f, int from, int to, uint8_t* dst) { DemosaicAs<true>(f, from, to, dst); }

// --- binning --------------------------------------------------------------------------------------------------------

// All reads of a vector come before its write, and the output never overtakes the input, so a frame may be binned in place.

// A unit is what stays together: one sample of a mono frame, a pair of neighbours of a colour frame.
template <class Unit, class D8>
HWY_INLINE size_t Bin8Loop(D8 d8, const uint8_t* a, const uint8_t* b, uint8_t* out, size_t x, size_t n)
{
    const hn::Repartition<Unit, D8> du;
    const size_t lanes = hn::Lanes(d8);
    for (; x + lanes <= n; x += lanes) {
        const auto s0 = hn::BitCast(du, hn::SaturatedAdd(hn::LoadU(d8, a + 2 * x), hn::LoadU(d8, b + 2 * x)));
        const auto s1 = hn::BitCast(du, hn::SaturatedAdd(hn::LoadU(d8, a + 2 * x + lanes), hn::LoadU(d8, b + 2 * x + lanes)));
        hn::StoreU(hn::SaturatedAdd(hn::BitCast(d8, hn::ConcatEven(du, s1, s0)), hn::BitCast(d8, hn::ConcatOdd(du, s1, s0))), d8,
                   out + x);
    }
    return x;
}

template <class Unit>
HWY_INLINE void Bin8(const uint8_t* a, const uint8_t* b, uint8_t* out, size_t outWidth)
{
    constexpr bool kColour = sizeof(Unit) == 2;
    size_t x = Bin8Loop<Unit>(Full<uint8_t>(), a, b, out, 0, outWidth);
    x = Bin8Loop<Unit>(Short<uint8_t>(), a, b, out, x, outWidth);
    for (; x < outWidth; ++x) {
        const size_t i = kColour ? x / 2 * 4 + (x & 1) : 2 * x, j = i + sizeof(Unit);
        out[x] = static_cast<uint8_t>(std::min(a[i] + a[j] + b[i] + b[j], 255));
    }
}

template <bool kColour, class D16>
HWY_INLINE size_t Bin16Loop(D16 d, const uint16_t* a, const uint16_t* b, uint16_t* out, size_t x, size_t n)
{
    const hn::RepartitionToWide<D16> d32;
    const size_t lanes = hn::Lanes(d);
    const auto rows = [&](size_t i) HWY_ATTR {
        const auto v = hn::LoadU(d, a + i), w = hn::LoadU(d, b + i);
        if constexpr (kColour) {
            return hn::BitCast(d32, hn::Add(hn::ShiftRight<2>(v), hn::ShiftRight<2>(w)));
        } else {
            const auto v32 = hn::BitCast(d32, v), w32 = hn::BitCast(d32, w), low = hn::Set(d32, 0xFFFFu);
            const auto even = hn::Add(hn::And(v32, low), hn::And(w32, low));
            const auto odd = hn::Add(hn::ShiftRight<16>(v32), hn::ShiftRight<16>(w32));
            return hn::ShiftRight<2>(hn::Add(even, odd));
        }
    };
    for (; x + lanes <= n; x += lanes) {
        const auto s0 = rows(2 * x), s1 = rows(2 * x + lanes);
        if constexpr (kColour)
            hn::StoreU(hn::Add(hn::BitCast(d, hn::ConcatEven(d32, s1, s0)), hn::BitCast(d, hn::ConcatOdd(d32, s1, s0))), d,
                       out + x);
        else
            hn::StoreU(hn::ConcatEven(d, hn::BitCast(d, s1), hn::BitCast(d, s0)), d, out + x);
    }
    return x;
}

template <bool kColour>
HWY_INLINE void Bin16(const uint16_t* a, const uint16_t* b, uint16_t* out, size_t outWidth)
{
    size_t x = Bin16Loop<kColour>(Full<uint16_t>(), a, b, out, 0, outWidth);
    x = Bin16Loop<kColour>(Short<uint16_t>(), a, b, out, x, outWidth);
    for (; x < outWidth; ++x) {
        if constexpr (kColour) {
            const size_t i = x / 2 * 4 + (x & 1), j = i + 2;
            out[x] = static_cast<uint16_t>((a[i] >> 2) + (a[j] >> 2) + (b[i] >> 2) + (b[j] >> 2));
        } else {
            out[x] = static_cast<uint16_t>((a[2 * x] + a[2 * x + 1] + b[2 * x] + b[2 * x + 1]) >> 2);
        }
    }
}

// Larger bins: the rows of a block are added up first, which the compiler turns into vectors, then the columns.
template <int kBin, bool kColour, class T>
HWY_INLINE void BinMany(const T* const* rows, T* outRow, size_t outWidth)
{
    constexpr size_t CHUNK = 256;  // output pixels; even
    using Sum = std::conditional_t<sizeof(T) == 1, uint16_t, uint32_t>;
    constexpr uint32_t kArea = kBin * kBin;
    Sum column[CHUNK * kBin];
    for (size_t x0 = 0; x0 < outWidth; x0 += CHUNK) {
        const size_t n = std::min(CHUNK, outWidth - x0), in = n * kBin;
        std::fill_n(column, in, Sum{ 0 });
        for (size_t j = 0; j < kBin; ++j) {
            const T* row = rows[j] + x0 * kBin;
            for (size_t i = 0; i < in; ++i)
                column[i] = static_cast<Sum>(column[i] + (kColour && sizeof(T) == 2 ? row[i] / kArea : row[i]));
        }
        T* out = outRow + x0;
        for (size_t x = 0; x < n; ++x) {
            const Sum* c = column + (kColour ? x / 2 * 2 * kBin + (x & 1) : x * kBin);
            uint32_t sum = 0;
            for (size_t i = 0; i < kBin; ++i)
                sum += c[i * (kColour ? 2 : 1)];
            if constexpr (sizeof(T) == 1)
                out[x] = static_cast<T>(std::min(sum, 255u));
            else
                out[x] = static_cast<T>(kColour ? std::min(sum, 65535u) : sum / kArea);
        }
    }
}

// A size below 1 is no size.
HWY_INLINE size_t Size(int n) { return static_cast<size_t>(std::max(n, 0)); }

template <bool kColour, class T>
HWY_INLINE void BinRowAs(const T* const* rows, T* out, int w, int bin)
{
    using Unit = std::conditional_t<kColour, uint16_t, uint8_t>;
    if (bin < 2 || bin > 4 || (kColour && w % 2 != 0))
        reference::BinRow(rows, out, w, bin, kColour);
    else if (bin == 3)
        BinMany<3, kColour>(rows, out, Size(w));
    else if (bin == 4)
        BinMany<4, kColour>(rows, out, Size(w));
    else if constexpr (sizeof(T) == 1)
        Bin8<Unit>(rows[0], rows[1], out, Size(w));
    else
        Bin16<kColour>(rows[0], rows[1], out, Size(w));
}

void BinRow8(const uint8_t* const* rows, uint8_t* out, int w, int bin, bool colour)
{
    colour ? BinRowAs<true>(rows, out, w, bin) : BinRowAs<false>(rows, out, w, bin);
}
void BinRow16(const uint16_t* const* rows, uint16_t* out, int w, int bin, bool colour)
{
    colour ? BinRowAs<true>(rows, out, w, bin) : BinRowAs<false>(rows, out, w, bin);
}

// --- flips ----------------------------------------------------------------------------------------------------------

template <class D>
HWY_INLINE hn::Vec<D> Reversed(D d, hn::Vec<D> v)
{
    if constexpr (sizeof(hn::TFromD<D>) == 1) {
        const hn::RepartitionToWide<D> wide;
        const auto pairs = hn::Reverse(wide, hn::BitCast(wide, v));
        return hn::BitCast(d, hn::Or(hn::ShiftLeft<8>(pairs), hn::ShiftRight<8>(pairs)));
    } else {
        return hn::Reverse(d, v);
    }
}

template <class D>
HWY_INLINE size_t SwapReversedLoop(D d, hn::TFromD<D>* a, hn::TFromD<D>* end, size_t i, size_t n)
{
    const size_t lanes = hn::Lanes(d);
    for (; i + lanes <= n; i += lanes) {
        hn::TFromD<D>* b = end - i - lanes;
        const auto va = hn::LoadU(d, a + i), vb = hn::LoadU(d, b);
        hn::StoreU(Reversed(d, vb), d, a + i);
        hn::StoreU(Reversed(d, va), d, b);
    }
    return i;
}

// Trades the n elements from `a` on for the n before `end`, in reverse. The two do not overlap.
template <class T>
HWY_INLINE void SwapReversed(T* a, T* end, size_t n)
{
    size_t i = SwapReversedLoop(Full<T>(), a, end, 0, n);
    i = SwapReversedLoop(Short<T>(), a, end, i, n);
    for (; i < n; ++i)
        std::swap(a[i], *(end - 1 - i));
}

template <class T>
HWY_INLINE void SwapRows(T* a, T* b, size_t n)
{
    const Full<T> d;
    size_t i = 0;
    for (; i + hn::Lanes(d) <= n; i += hn::Lanes(d)) {
        const auto va = hn::LoadU(d, a + i), vb = hn::LoadU(d, b + i);
        hn::StoreU(vb, d, a + i);
        hn::StoreU(va, d, b + i);
    }
    std::swap_ranges(a + i, a + n, b + i);
}

template <class T>
HWY_INLINE void Flip(T* buf, size_t w, size_t h, bool reverseRows, bool mirrorRows)
{
    if (mirrorRows && reverseRows && w % 2 == 0) {
        SwapReversed(buf, buf + w * h, w * h / 2);  // the rotation turns the whole buffer round
    } else if (mirrorRows) {
        for (size_t r = 0; r < h; ++r)
            SwapReversed(buf + r * w, buf + (reverseRows ? h - r : r + 1) * w, w / 2);
    } else if (reverseRows) {
        for (size_t r = 0; r < h / 2; ++r)
            SwapRows(buf + r * w, buf + (h - 1 - r) * w, w);
    }
}

void Flip8(uint8_t* buf, int w, int h, bool rows, bool mirror) { Flip(buf, Size(w), Size(h), rows, mirror); }
void Flip16(uint16_t* buf, int w, int h, bool rows, bool mirror) { Flip(buf, Size(w), Size(h), rows, mirror); }

// --- words through a table ------------------------------------------------------------------------------------------

constexpr size_t WORDS_OF_LINE = 32;

// Whether all are codes of a sensor of 12 bits, which end in four zeros. n is a multiple of 32.
HWY_INLINE bool Are12(const uint16_t* src, size_t n)
{
    const Full<uint16_t> d;
    auto bits = hn::Zero(d);
    for (size_t i = 0; i < n; i += hn::Lanes(d))
        bits = hn::Or(bits, hn::LoadU(d, src + i));
    return hn::AllTrue(d, hn::Eq(hn::And(bits, hn::Set(d, 0xF)), hn::Zero(d)));
}

// A line of memory, by the table that fits into the first cache.
template <bool kMirror, bool kPast>
HWY_INLINE void MapLine12(const uint16_t* src, uint16_t* dst, const uint16_t* lut)
{
    const hn::CappedTag<uint16_t, 8> d8;
    const hn::Repartition<uint64_t, decltype(d8)> d64;
    const auto map = [lut](uint64_t v) { return lut[(v & 0xFFFF) >> 4]; };
    // Each insertion waits for the one before it, so two halves are put together side by side.
    const auto four = [&](const uint16_t* p) {
        constexpr size_t FLIP = kMirror ? 3 : 0;
        uint64_t v;
        std::memcpy(&v, p, sizeof v);
        auto r = hn::InsertLane(hn::Zero(d8), 0 ^ FLIP, map(v));
        r = hn::InsertLane(r, 1 ^ FLIP, map(v >> 16));
        r = hn::InsertLane(r, 2 ^ FLIP, map(v >> 32));
        return hn::BitCast(d64, hn::InsertLane(r, 3 ^ FLIP, map(v >> 48)));
    };
    for (size_t i = 0; i < WORDS_OF_LINE; i += 8) {
        const uint16_t* const p = src + (kMirror ? WORDS_OF_LINE - 8 - i : i);
        const auto all = hn::BitCast(d8, hn::InterleaveLower(four(p + (kMirror ? 4 : 0)), four(p + (kMirror ? 0 : 4))));
        if constexpr (kPast)
            hn::Stream(all, d8, dst + i);
        else
            hn::StoreU(all, d8, dst + i);
    }
}

template <bool kMirror, bool kPast>
void MapWordsTo(const uint16_t* src, uint16_t* dst, size_t n, const WordTables& t, const uint16_t* ahead)
{
    constexpr size_t MOST = 8 * WORDS_OF_LINE;
    const auto from = [=](size_t i, size_t k) { return kMirror ? n - i - k : i; };
    const size_t unaligned = reinterpret_cast<uintptr_t>(dst) / sizeof *dst % WORDS_OF_LINE;
    size_t i = kPast && unaligned != 0 ? std::min(WORDS_OF_LINE - unaligned, n) : 0;
    MapAnyWords<kMirror>(src + from(0, i), dst, i, t.all);
    while (n - i >= WORDS_OF_LINE) {
        const size_t end = i + std::min(MOST, (n - i) / WORDS_OF_LINE * WORDS_OF_LINE), k = end - i;
        if (ahead)
            for (size_t line = 0; line < k; line += WORDS_OF_LINE)
                hwy::Prefetch(ahead + from(i, k) + line);
        if (Are12(src + from(i, k), k)) {
            for (; i < end; i += WORDS_OF_LINE)
                MapLine12<kMirror, kPast>(src + from(i, WORDS_OF_LINE), dst + i, t.of12.data());
        } else {
            MapAnyWords<kMirror>(src + from(i, k), dst + i, k, t.all);
            i = end;
        }
    }
    MapAnyWords<kMirror>(src + from(i, n - i), dst + i, n - i, t.all);
}

void MapWords(const uint16_t* src, uint16_t* dst, size_t n, const WordTables& t, const WordsTo& to)
{
    if (to.past)
        to.mirror ? MapWordsTo<true, true>(src, dst, n, t, to.ahead) : MapWordsTo<false, true>(src, dst, n, t, to.ahead);
    else
        to.mirror ? MapWordsTo<true, false>(src, dst, n, t, to.ahead) : MapWordsTo<false, false>(src, dst, n, t, to.ahead);
}

// --- dark frame -----------------------------------------------------------------------------------------------------

// A dark value of 255 or more leaves nothing of any pixel, so eight bits of it are enough. Gives how many it has done.
template <class D>
size_t SubtractDarkLoop(D d8, const uint8_t* src, uint8_t* dst, size_t from, size_t n, uint32_t offset, const uint16_t* dark)
{
    const hn::RepartitionToWide<D> d16;
    const size_t lanes = hn::Lanes(d8);
    const auto full = hn::Set(d16, 255);
    const auto add = hn::Set(d8, static_cast<uint8_t>(std::min(offset, 255u)));
    size_t i = from;
    for (; i + lanes <= n; i += lanes) {
        const auto low = hn::Min(hn::LoadU(d16, dark + i), full), high = hn::Min(hn::LoadU(d16, dark + i + lanes / 2), full);
        const auto d = hn::ConcatEven(d8, hn::BitCast(d8, high), hn::BitCast(d8, low));
        hn::StoreU(hn::SaturatedAdd(hn::SaturatedSub(hn::LoadU(d8, src + i), d), add), d8, dst + i);
    }
    return i;
}

void SubtractDark(const uint8_t* src, uint8_t* dst, size_t n, uint32_t offset, const uint16_t* dark)
{
    size_t i = SubtractDarkLoop(Full<uint8_t>(), src, dst, 0, n, offset, dark);
    i = SubtractDarkLoop(Short<uint8_t>(), src, dst, i, n, offset, dark);
    reference::SubtractDark(src + i, dst + i, n - i, offset, dark + i);
}

// --- copies past the caches -----------------------------------------------------------------------------------------

void CopyPast(const uint8_t* src, uint8_t* dst, size_t n)
{
    constexpr size_t LINE = 64, AHEAD = 8 * LINE;
    const hn::CappedTag<uint8_t, LINE> d;
    const size_t lanes = hn::Lanes(d), head = std::min((LINE - reinterpret_cast<uintptr_t>(dst) % LINE) % LINE, n);
    std::copy_n(src, head, dst);  // there may be nothing at all, and no memory
    size_t i = head;
    for (; i + LINE <= n; i += LINE) {
        hwy::Prefetch(src + i + AHEAD);
        for (size_t k = 0; k < LINE; k += lanes)
            hn::Stream(hn::LoadU(d, src + i + k), d, dst + i + k);
    }
    std::copy_n(src + i, n - i, dst + i);
    hwy::FlushStream();
}

#endif  // HWY_SCALAR

}  // namespace HWY_NAMESPACE
}  // namespace imaging
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace imaging {

HWY_EXPORT(MapBytes);
HWY_EXPORT(MapWords);
HWY_EXPORT(Rotate12);
HWY_EXPORT(Luminance);
HWY_EXPORT(FirstBytes);
HWY_EXPORT(Triple);
HWY_EXPORT(Demosaic);
HWY_EXPORT(DemosaicY8);
HWY_EXPORT(BinRow8);
HWY_EXPORT(BinRow16);
HWY_EXPORT(Flip8);
HWY_EXPORT(Flip16);
HWY_EXPORT(SubtractDark);
HWY_EXPORT(CopyPast);

void MapBytes(const uint8_t* src, uint8_t* dst, size_t n, const uint8_t* lut)
{
    HWY_DYNAMIC_DISPATCH(MapBytes)(src, dst, n, lut);
}
void Rotate12(const uint16_t* src, uint16_t* dst, size_t n) { HWY_DYNAMIC_DISPATCH(Rotate12)(src, dst, n); }
void Luminance(const uint8_t* rgb, uint8_t* dst, size_t n) { HWY_DYNAMIC_DISPATCH(Luminance)(rgb, dst, n); }
void FirstBytes(const uint8_t* rgb, uint8_t* dst, size_t n) { HWY_DYNAMIC_DISPATCH(FirstBytes)(rgb, dst, n); }
void Triple(const uint8_t* grey, uint8_t* dst, size_t n) { HWY_DYNAMIC_DISPATCH(Triple)(grey, dst, n); }
void Demosaic(const BayerFrame& f, int from, int to, uint8_t* dst) { HWY_DYNAMIC_DISPATCH(Demosaic)(f, from, to, dst); }
void DemosaicY8(const BayerFrame& f, int from, int to, uint8_t* dst) { HWY_DYNAMIC_DISPATCH(DemosaicY8)(f, from, to, dst); }
void BinRow(const uint8_t* const* rows, uint8_t* out, int w, int bin, bool colour)
{
    HWY_DYNAMIC_DISPATCH(BinRow8)(rows, out, w, bin, colour);
}
void BinRow(const uint16_t* const* rows, uint16_t* out, int w, int bin, bool colour)
{
    HWY_DYNAMIC_DISPATCH(BinRow16)(rows, out, w, bin, colour);
}
void Flip8(uint8_t* buf, int w, int h, bool rows, bool mirror) { HWY_DYNAMIC_DISPATCH(Flip8)(buf, w, h, rows, mirror); }
void Flip16(uint16_t* buf, int w, int h, bool rows, bool mirror) { HWY_DYNAMIC_DISPATCH(Flip16)(buf, w, h, rows, mirror); }
void SubtractDark(const uint8_t* src, uint8_t* dst, size_t n, uint32_t offset, const uint16_t* dark)
{
    HWY_DYNAMIC_DISPATCH(SubtractDark)(src, dst, n, offset, dark);
}
void CopyPast(const uint8_t* src, uint8_t* dst, size_t n) { HWY_DYNAMIC_DISPATCH(CopyPast)(src, dst, n); }

void MapWords(const uint16_t* src, uint16_t* dst, size_t n, const WordTables& t, const WordsTo& to)
{
    HWY_DYNAMIC_DISPATCH(MapWords)(src, dst, n, t, to);
}

}  // namespace imaging
#endif
