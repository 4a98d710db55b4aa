// The vector forms against the scalar reference, on every instruction set that this machine has.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "imaging/CAlgorithm.h"
#include "imaging/Kernels.h"
#include "imaging/Walk.h"
#include "support/InstructionSets.h"

namespace {

using namespace imaging;

// n elements between guards, which Guarded() looks at. An address sanitizer guards better: for it the block is bare.
template <class T>
class Block {
public:
    explicit Block(size_t n) : m_n(n), m_v(n + 2 * GUARD, GUARD_VALUE) {}
    T* data() { return m_v.data() + GUARD; }
    size_t size() const { return m_n; }
    std::vector<T> Content() const { return { m_v.begin() + OFFSET, m_v.end() - OFFSET }; }
    bool Guarded() const
    {
        for (size_t i = 0; i < GUARD; ++i)
            if (m_v[i] != GUARD_VALUE || m_v[m_v.size() - 1 - i] != GUARD_VALUE)
                return false;
        return true;
    }

private:
#ifdef __SANITIZE_ADDRESS__
    static constexpr size_t GUARD = 0;
#else
    static constexpr size_t GUARD = 200;
#endif
    static constexpr ptrdiff_t OFFSET = GUARD;
    static constexpr T GUARD_VALUE = 0x5A;
    size_t m_n;
    std::vector<T> m_v;
};

enum Fill { RANDOM, EXTREME, FILLS };

template <class T>
std::vector<T> Data(size_t n, int fill, unsigned seed)
{
    std::mt19937 random(seed);
    std::vector<T> v(n);
    for (T& x : v)
        x = static_cast<T>(fill == RANDOM ? random() : (random() & 1) * 0xFFFFu);
    return v;
}

Gains GainsOf(int red, int blue)
{
    CAlgorithm a;
    a.SetRGBWB(red, blue);
    const Gains g = SnapshotGains();
    a.RGBYUV_Init();
    return g;
}

std::string Case(int w, int h, int fill, int extra)
{
    return std::to_string(w) + " x " + std::to_string(h) + " fill " + std::to_string(fill) + " case " + std::to_string(extra);
}

class Kernels : public OnInstructionSet {};

// Runs both forms on copies of the same data, in place.
template <class T, class Reference, class Vector>
void CompareInPlace(size_t n, int fill, const std::string& name, Reference reference, Vector vector)
{
    std::vector<T> want = Data<T>(n, fill, static_cast<unsigned>(n));
    Block<T> got(n);
    std::copy(want.begin(), want.end(), got.data());
    reference(want.data());
    vector(got.data());
    ASSERT_EQ(got.Content(), want) << name;
    ASSERT_TRUE(got.Guarded()) << name;
}

TEST_P(Kernels, Demosaic)
{
    Gains gains[] = { GainsOf(50, 50), GainsOf(13, 99), GainsOf(70, 52) };
    ASSERT_TRUE(gains[0].identity);
    ASSERT_FALSE(gains[1].identity);
    gains[2].blue[200] ^= 1;  // no balance gives such a table: it is looked up
    gains[2].blueFactor = gains[2].redFactor = 0;
    std::vector<std::pair<int, int>> sizes = { { 140, 9 }, { 259, 6 }, { 1936, 6 }, { 0, 4 }, { 4, 0 }, { -2, 4 } };
    for (int w = 1; w <= 70; ++w)
        for (int h : { 1, 2, 3, 4, 5, 6, 7, 12 })
            sizes.emplace_back(w, h);
    for (int h = 1; h <= 70; ++h)
        sizes.emplace_back(7, h), sizes.emplace_back(38, h);
    for (const auto& [w, h] : sizes) {
        const size_t n = w < 1 || h < 1 ? 0 : static_cast<size_t>(w) * static_cast<size_t>(h);
        for (int fill = 0; fill < FILLS; ++fill) {
            const std::vector<uint8_t> src = Data<uint8_t>(n, fill, 7);
            int extra = 0;
            for (const Gains& g : gains) {
                for (const BayerPhase phase : { PHASE_RG, PHASE_BG, PHASE_GR, PHASE_GB }) {
                    const BayerFrame f = { src.data(), w, h, phase, &g };
                    const std::string name = Case(w, h, fill, extra++);
                    std::vector<uint8_t> want(3 * n), wantY(n);
                    reference::Demosaic(f, 0, h, want.data());
                    reference::RGB2Y8(want.data(), wantY.data(), w, h);
                    Block<uint8_t> got(3 * n), gotY(n);
                    imaging::Demosaic(f, 0, h, got.data());
                    imaging::DemosaicY8(f, 0, h, gotY.data());
                    ASSERT_EQ(got.Content(), want) << name;
                    ASSERT_EQ(gotY.Content(), wantY) << name;
                    ASSERT_TRUE(got.Guarded() && gotY.Guarded()) << name;
                }
            }
        }
    }
}

// Large frames of even width are written past the cache, in whole lines across the ends of rows; also a strip at a time.
TEST_P(Kernels, DemosaicOfLargeFrames)
{
    const Gains gains = GainsOf(50, 50);
    for (const auto& [w, h] :
         { std::pair{ 2413, 1200 }, { 2414, 1200 }, { 128, 22000 }, { 130, 22000 }, { 132, 22001 }, { 190, 15000 } }) {
        const size_t n = static_cast<size_t>(w) * static_cast<size_t>(h);
        const std::vector<uint8_t> src = Data<uint8_t>(n, RANDOM, 9);
        const BayerFrame f = { src.data(), w, h, PHASE_GR, &gains };
        std::vector<uint8_t> want(3 * n), got(3 * n + 3);
        reference::Demosaic(f, 0, h, want.data());
        for (const size_t shift : { 0u, 1u, 2u }) {
            for (const int strip : { h, 22 }) {
                std::fill(got.begin(), got.end(), uint8_t{ 0x5A });
                for (int y = 0; y < h; y += strip)
                    imaging::Demosaic(f, y, std::min(y + strip, h), got.data() + shift);
                ASSERT_TRUE(std::equal(want.begin(), want.end(), got.data() + shift)) << w << " x " << h << " + " << shift;
                ASSERT_EQ(std::count(got.begin(), got.begin() + ptrdiff_t(shift), 0x5A), ptrdiff_t(shift));
                ASSERT_EQ(std::count(got.begin() + ptrdiff_t(shift + 3 * n), got.end(), 0x5A), ptrdiff_t(3 - shift));
            }
        }
    }
}

TEST_P(Kernels, WalksOfLargeFrames)
{
    const int w = 3001, h = 3001;
    const size_t n = static_cast<size_t>(w) * static_cast<size_t>(h);
    const auto raw = Data<uint8_t>(n, RANDOM, 12), lut = Data<uint8_t>(256, RANDOM, 13);
    FramePlan plan;
    plan.raw = raw.data();
    plan.rawWidth = plan.width = w;
    plan.height = h;
    plan.bytes = 3 * n;
    Block<uint8_t> plain(n);
    Walk(plan, plain.data());
    ASSERT_EQ(plain.Content(), raw);
    ASSERT_TRUE(plain.Guarded());
    plan.gamma8 = lut.data();
    plan.reverseRows = true;
    std::vector<uint8_t> want;
    for (int y = h - 1; y >= 0; --y)
        for (int x = 0; x < w; ++x)
            want.push_back(lut[raw[static_cast<size_t>(y) * size_t(w) + size_t(x)]]);
    Block<uint8_t> rows(n), grey(3 * n);
    Walk(plan, rows.data());
    ASSERT_EQ(rows.Content(), want);
    plan.output = Output::Grey24;
    Walk(plan, grey.data());
    for (size_t i = 0; i < 3 * n; ++i)
        ASSERT_EQ(grey.data()[i], want[i / 3]) << i;
    ASSERT_TRUE(rows.Guarded() && grey.Guarded());
    for (int bin = 2; bin <= 4; ++bin)
        for (const bool colour : { false, true }) {
            FramePlan binned;
            binned.raw = raw.data();
            binned.rawWidth = 3000;
            binned.bin = bin;
            binned.width = binned.height = 3000 / bin;
            binned.colourBin = colour;
            binned.reverseRows = colour;
            binned.bytes = static_cast<size_t>(binned.width * binned.height);
            want = raw;
            reference::Bin(want.data(), binned.width, binned.height, bin, colour);
            reference::Flip(want.data(), binned.width, binned.height, colour, false);
            want.resize(binned.bytes);
            Block<uint8_t> got(binned.bytes);
            Walk(binned, got.data());
            ASSERT_EQ(got.Content(), want) << bin << colour;
            ASSERT_TRUE(got.Guarded()) << bin << colour;
        }
}

// Rows of 12-bit codes and of any words take turns, in pieces too; large frames go past the caches, except at odd addresses.
TEST_P(Kernels, WordsThroughATable)
{
    const auto values = Data<uint16_t>(65536, RANDOM, 14);
    const std::vector<std::atomic<uint16_t>> all(values.begin(), values.end());
    WordTables tables{ all.data(), {} };
    for (size_t i = 0; i < tables.of12.size(); ++i)
        tables.of12[i] = values[i << 4];
    for (const auto& [w, h] : { std::pair{ 3000, 1420 }, { 3001, 1421 }, { 700, 7 }, { 33, 5 } }) {
        const size_t width = static_cast<size_t>(w), n = width * static_cast<size_t>(h);
        auto raw = Data<uint16_t>(n, RANDOM, 15);
        for (size_t i = 0; i < n; ++i)
            if (i / width % 3 != 0 && i % 1500 != 299)
                raw[i] &= 0xFFF0;
        const std::vector<Patch> patches = { { 0, 1 }, { width - 1, 2 }, { 2 * width + 5, 3 }, { n / 2, 4 }, { n - 2, 5 } };
        for (int k = 0; k < 12; ++k) {
            const bool reverse = k & 1, mirror = k & 2;
            const size_t shift = static_cast<size_t>(k / 4);
            FramePlan plan;
            plan.raw = reinterpret_cast<const uint8_t*>(raw.data());
            plan.is16 = true;
            plan.rawWidth = plan.width = w;
            plan.height = h;
            plan.gamma16 = &tables;
            plan.patches = patches;
            plan.reverseRows = reverse;
            plan.mirrorRows = mirror;
            plan.bytes = 2 * n;
            std::vector<uint16_t> want;
            for (const uint16_t v : raw)
                want.push_back(values[v]);
            for (const Patch& patch : patches)
                want[patch.at] = patch.value;
            reference::Flip(want.data(), w, h, reverse, mirror);
            Block<uint8_t> got(2 * n + 2);
            Walk(plan, got.data() + shift);
            ASSERT_EQ(std::memcmp(got.data() + shift, want.data(), 2 * n), 0) << w << " " << k;
            ASSERT_TRUE(got.Guarded()) << w << " " << k;
        }
    }
}

// All sums of the luminance, over a lattice that holds every value of each byte with every value of another.
TEST_P(Kernels, LuminanceOfEveryPair)
{
    std::vector<uint8_t> rgb;
    for (int fixed : { 0, 1, 127, 254, 255 })
        for (int a = 0; a < 256; ++a)
            for (int b = 0; b < 256; ++b)
                for (int k = 0; k < 3; ++k)
                    for (int c = 0; c < 3; ++c)
                        rgb.push_back(static_cast<uint8_t>(c == k ? fixed : c == (k + 1) % 3 ? a : b));
    const int n = static_cast<int>(rgb.size() / 3);
    std::vector<uint8_t> want(rgb.size() / 3), got(rgb.size() / 3);
    reference::RGB2Y8(rgb.data(), want.data(), n, 1);
    Luminance(rgb.data(), got.data(), got.size());
    ASSERT_EQ(got, want);
}

TEST_P(Kernels, RowsOfPixels)
{
    for (int n = 0; n <= 200; ++n) {
        const size_t size = static_cast<size_t>(n);
        for (int fill = 0; fill < FILLS; ++fill) {
            const std::string name = Case(n, 1, fill, 0);
            const auto rgb = Data<uint8_t>(3 * size, fill, 3);
            auto lut = Data<uint8_t>(256, RANDOM, 4);
            auto dark = Data<uint16_t>(size, fill, 5);
            for (size_t i = 0; i < size; i += 2)
                dark[i] &= 0x1FF;
            std::vector<uint8_t> wantY(size), wantR(size);
            reference::RGB2Y8(rgb.data(), wantY.data(), n, 1);
            reference::RGB2R8(rgb.data(), wantR.data(), n, 1);
            Block<uint8_t> gotY(size), gotR(size);
            Luminance(rgb.data(), gotY.data(), size);
            FirstBytes(rgb.data(), gotR.data(), size);
            ASSERT_EQ(gotY.Content(), wantY) << name;
            ASSERT_EQ(gotR.Content(), wantR) << name;
            ASSERT_TRUE(gotY.Guarded() && gotR.Guarded()) << name;
            for (size_t at = 0; at < 64; at += 7) {  // places in a line of memory
                Block<uint8_t> copied(at + 3 * size);
                CopyPast(rgb.data(), copied.data() + at, 3 * size);
                ASSERT_TRUE(std::equal(rgb.begin(), rgb.end(), copied.data() + at) && copied.Guarded()) << name << " at " << at;
            }
            CompareInPlace<uint8_t>(
                size, fill, name, [&](uint8_t* p) { reference::Gamma8(p, size, lut.data()); },
                [&](uint8_t* p) { CAlgorithm().Gamma(p, lut.data(), n, 1); });
            for (uint32_t offset : { 0u, 17u, 255u, 70000u, 0xFFFFFFFFu })
                CompareInPlace<uint8_t>(
                    size, fill, name, [&](uint8_t* p) { reference::SubtractDark(p, p, size, offset, dark.data()); },
                    [&](uint8_t* p) { SubtractDark(p, p, size, offset, dark.data()); });
        }
    }
}

TEST_P(Kernels, Binning)
{
    CAlgorithm a;
    for (int w = 1; w <= 600; w += w < 70 ? 1 : 53) {
        for (int h : { 1, 2, 3, 6 }) {
            for (int bin = 1; bin <= 5; ++bin) {
                const size_t n = static_cast<size_t>(w * bin) * static_cast<size_t>(h * bin);
                for (int fill = 0; fill < FILLS; ++fill) {
                    const std::string name = Case(w, h, fill, bin);
                    CompareInPlace<uint8_t>(
                        n, fill, name, [&](uint8_t* p) { reference::Bin(p, w, h, bin, false); },
                        [&](uint8_t* p) { a.MonoBin(p, nullptr, w, h, bin, false); });
                    CompareInPlace<uint16_t>(
                        n, fill, name, [&](uint16_t* p) { reference::Bin(p, w, h, bin, false); },
                        [&](uint16_t* p) { a.MonoBin(nullptr, p, w, h, bin, true); });
                    CompareInPlace<uint8_t>(
                        n, fill, name, [&](uint8_t* p) { reference::Bin(p, w, h, bin, true); },
                        [&](uint8_t* p) { a.ColorRAWBin(p, nullptr, w, h, bin, false); });
                    CompareInPlace<uint16_t>(
                        n, fill, name, [&](uint16_t* p) { reference::Bin(p, w, h, bin, true); },
                        [&](uint16_t* p) { a.ColorRAWBin(nullptr, p, w, h, bin, true); });
                }
            }
        }
    }
}

TEST_P(Kernels, Flips)
{
    for (int w = 1; w <= 140; w += w < 70 ? 1 : 17) {
        for (int h = 1; h <= 7; ++h) {
            const size_t n = static_cast<size_t>(w * h);
            for (int flip = 0; flip < 4; ++flip) {
                const bool rows = flip & 1, mirror = flip & 2;
                const std::string name = Case(w, h, 0, flip);
                CompareInPlace<uint8_t>(
                    n, RANDOM, name, [&](uint8_t* p) { reference::Flip(p, w, h, rows, mirror); },
                    [&](uint8_t* p) { Flip8(p, w, h, rows, mirror); });
                CompareInPlace<uint16_t>(
                    n, RANDOM, name, [&](uint16_t* p) { reference::Flip(p, w, h, rows, mirror); },
                    [&](uint16_t* p) { Flip16(p, w, h, rows, mirror); });
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(InstructionSet, Kernels, testing::ValuesIn(InstructionSets()), InstructionSetName);

}  // namespace
