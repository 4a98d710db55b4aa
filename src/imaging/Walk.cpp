#include "imaging/Walk.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "imaging/Kernels.h"

#include <hwy/cache_control.h>

namespace imaging {

namespace {

// Rows of a strip take about this much, which with what is made of them fits into the inner cache of all machines.
constexpr size_t STRIP_BYTES = size_t{ 32 } << 10;
constexpr size_t PAD = 64;

// n bytes of an output of `whole`.
void Put(const uint8_t* from, uint8_t* to, size_t n, size_t whole)
{
    if (whole < STREAM_FROM)
        std::copy_n(from, n, to);
    else
        CopyPast(from, to, n);
}

int BytesOf(const FramePlan& m)
{
    switch (m.output) {
    case Output::Samples: return m.is16 ? 2 : 1;
    case Output::Grey24:
    case Output::Colour24: return 3;
    case Output::Luminance: return 1;
    }
    return 1;
}

// n samples from place `at` on, patches left out. False: nothing was done, and the raw samples are what is wanted.
template <class T>
bool WorkSamples(const FramePlan& m, size_t at, size_t n, T* out)
{
    const T* now = reinterpret_cast<const T*>(m.raw) + at;
    const T* const raw = now;
    if constexpr (sizeof(T) == 2) {
        if (m.rotate12)
            Rotate12(now, out, n), now = out;
        if (m.gamma16)
            MapWords(now, out, n, *m.gamma16), now = out;
    } else {
        if (m.dark)
            SubtractDark(now, out, n, m.darkOffset, m.dark + at), now = out;
        if (m.gamma8)
            MapBytes(now, out, n, m.gamma8), now = out;
    }
    return now != raw;
}

// The same. A table takes about as long as memory does, so what the samples from place `next` on need is asked for meanwhile;
// what is done sooner is better left to the machine's own prefetchers.
template <class T>
bool WorkRow(const FramePlan& m, size_t at, size_t n, T* out, size_t next)
{
    constexpr size_t PIECE = 512 / sizeof(T), LINE = 64 / sizeof(T);
    if (!m.gamma8 && !m.gamma16)
        return WorkSamples(m, at, n, out);
    for (size_t i = 0; i < n; i += PIECE) {
        const size_t piece = std::min(PIECE, n - i);
        for (size_t k = i; k < i + piece; k += LINE) {
            hwy::Prefetch(reinterpret_cast<const T*>(m.raw) + next + k);
            if (m.dark) {
                hwy::Prefetch(m.dark + next + k);
                hwy::Prefetch(m.dark + next + k + LINE / 2);
            }
        }
        WorkSamples(m, at + i, piece, out + i);
    }
    return true;
}

template <class T>
class Walker {
public:
    explicit Walker(const FramePlan& plan)
        : m(plan), m_width(static_cast<size_t>(plan.width)), m_rawWidth(static_cast<size_t>(plan.rawWidth)),
          m_mapsRows(plan.is16 && plan.gamma16 && !plan.rotate12),
          m_mapMirrors(m_mapsRows && plan.mirrorRows && (plan.bin == 1 || plan.flipFirst)),
          m_plainRows(!plan.rotate12 && !plan.dark && !plan.gamma8 && !plan.gamma16 && plan.patches.empty()),
          m_plainFrame(m_plainRows && plan.bin == 1 && !plan.mirrorRows && plan.rawWidth == plan.width)
    {
        const size_t rows = (plan.bin > 1 ? static_cast<size_t>(plan.bin) : 0) + 2;
        m_scratch = std::make_unique_for_overwrite<T[]>(rows * (m_rawWidth + PAD));
    }

    void Samples(uint8_t* dst)
    {
        const size_t rowBytes = m_width * sizeof(T), bytes = std::min(m.bytes, rowBytes * static_cast<size_t>(m.height));
        if (m_plainFrame && !m.reverseRows) {
            Put(m.raw, dst, bytes, bytes);
            return;
        }
        const auto row = [this](int y, uint8_t* to) {
            T* const out = reinterpret_cast<T*>(to);
            if (const T* const from = RowAt(y, out); from != out)
                std::memcpy(out, from, m_width * sizeof(T));
        };
        const bool suits = reinterpret_cast<uintptr_t>(dst) % alignof(T) == 0;
        m_mapsPast = suits && m_mapsRows && m.bin == 1 && bytes >= STREAM_FROM;
        PutRows(dst, rowBytes, bytes, suits, row);
        if (m_mapsPast)
            hwy::FlushStream();
    }

    void Grey(uint8_t* dst) requires(sizeof(T) == 1)
    {
        const size_t rowBytes = 3 * m_width;
        PutRows(dst, rowBytes, rowBytes * static_cast<size_t>(RowsThatFit(m)), true,
                [this](int y, uint8_t* to) { Triple(RowAt(y, Scratch(0)), to, m_width); });
    }

    // A strip holds its rows and one on each side, which the next strip takes over.
    template <class Kernel>
    void Bayer(Kernel kernel, uint8_t* dst) requires(sizeof(T) == 1)
    {
        const int rows = RowsThatFit(m);
        if (m_plainFrame && !m.reverseRows) {
            kernel(BayerFrame{ m.raw, m.width, rows, m.phase, m.gains }, 0, rows, dst);
            return;
        }
        if (m.width < 1)
            return;
        const int step = std::clamp(static_cast<int>(STRIP_BYTES / m_width) & ~1, 8, 256);
        const auto strip = std::make_unique_for_overwrite<T[]>(static_cast<size_t>(step + 2) * m_width + PAD);
        int top = 0, end = 0;  // rows in the strip
        for (int y = 0; y < rows; y += step) {
            const int to = std::min(y + step, rows), first = std::max(y - 1, 0), last = std::min(to + 1, rows);
            const auto row = [&](int r) { return strip.get() + static_cast<size_t>(r - first) * m_width; };
            if (end > first)
                std::memmove(strip.get(), strip.get() + static_cast<size_t>(first - top) * m_width,
                             static_cast<size_t>(end - first) * m_width);
            for (top = first; end < last; ++end)
                if (const T* const from = RowAt(end, row(end)); from != row(end))
                    std::memcpy(row(end), from, m_width);
            kernel(BayerFrame{ strip.get(), m.width, rows, m.phase, m.gains, top }, y, to, dst);
        }
    }

private:
    // The first `bytes` of rows that `make` writes: in place if that is small enough, or they go past the caches by themselves,
    // and the place suits; else as strips.
    template <class Make>
    void PutRows(uint8_t* dst, size_t rowBytes, size_t bytes, bool suits, Make make) const
    {
        const size_t step = std::max<size_t>(STRIP_BYTES / rowBytes, 1);
        std::unique_ptr<uint8_t[]> strip;
        size_t at = 0;
        int y = 0;
        if (suits && (bytes < STREAM_FROM || m_mapsPast))
            for (; at + rowBytes <= bytes; at += rowBytes)
                make(y++, dst + at);
        if (at < bytes)
            strip = std::make_unique_for_overwrite<uint8_t[]>(step * rowBytes);
        for (; at < bytes; at += step * rowBytes) {
            const size_t n = std::min(step * rowBytes, bytes - at);
            for (size_t k = 0; k < n; k += rowBytes)
                make(y++, strip.get() + k);
            Put(strip.get(), dst + at, n, bytes);
        }
    }

    T* Scratch(int k) const { return m_scratch.get() + static_cast<size_t>(k) * (m_rawWidth + PAD); }
    const T* RawRow(int r) const { return reinterpret_cast<const T*>(m.raw) + static_cast<size_t>(r) * m_rawWidth; }

    // Each of these gives the row where it already lies, or makes it in `out` and gives that.

    const T* Worked(int r, T* out) const
    {
        if (m_plainRows)
            return RawRow(r);
        const size_t at = static_cast<size_t>(r) * m_rawWidth;
        const int next = std::clamp(m.reverseRows ? r - 1 : r + 1, 0, m.height * m.bin - 1);
        const T* row = out;
        if constexpr (sizeof(T) == 2) {
            if (m_mapsRows)  // the second scratch row is looked at again at once
                MapWords(RawRow(r), out, m_rawWidth, *m.gamma16, { m_mapMirrors, m_mapsPast && out != Scratch(1), RawRow(next) });
        }
        if (!m_mapsRows && !WorkRow(m, at, m_rawWidth, out, static_cast<size_t>(next) * m_rawWidth))
            row = RawRow(r);
        auto patch =
            std::lower_bound(m.patches.begin(), m.patches.end(), at, [](const Patch& p, size_t place) { return p.at < place; });
        if (patch == m.patches.end() || patch->at >= at + m_rawWidth)
            return row;
        if (row != out)
            row = static_cast<T*>(std::memcpy(out, row, m_rawWidth * sizeof(T)));
        for (; patch != m.patches.end() && patch->at < at + m_rawWidth; ++patch)
            out[m_mapMirrors ? at + m_rawWidth - 1 - patch->at : patch->at - at] = static_cast<T>(patch->value);
        return row;
    }

    const T* BeforeBin(int r, T* out) const
    {
        const auto worked = [this](int i, T* p) { return Worked(i, p); };
        return m.flipFirst ? Flipped(worked, r, m.height * m.bin, m_width * static_cast<size_t>(m.bin), out) : Worked(r, out);
    }

    const T* Binned(int y, T* out) const
    {
        if (m.bin <= 1)
            return BeforeBin(y, out);
        const T* rows[MAX_BIN];
        for (int j = 0; j < m.bin; ++j)
            rows[j] = BeforeBin(reference::BinSourceRow(y, j, m.height, m.bin, m.colourBin), Scratch(2 + j));
        const bool far = m_rawWidth * static_cast<size_t>(m.height) * static_cast<size_t>(m.bin) * sizeof(T) >= STREAM_FROM;
        if (far && m_plainRows && !m.flipFirst && (m.width % 2 == 0 || !m.colourBin))
            BinRawRows(rows, out, y);
        else
            BinRow(rows, out, m.width, m.bin, m.colourBin);
        return out;
    }

    // Piece by piece; those of the next output row are asked for meanwhile: sums take less time than memory does, and in each
    // new page it would be waited for.
    void BinRawRows(const T** rows, T* out, int y) const
    {
        constexpr int PIECE = 1024 / sizeof(T), LINE = 64 / sizeof(T);
        const int piece = std::max(PIECE / m.bin & ~1, 2), next = std::clamp(m.reverseRows ? y - 1 : y + 1, 0, m.height - 1);
        for (int x = 0; x < m.width; x += piece) {
            const int n = std::min(piece, m.width - x);
            for (int j = 0; j < m.bin; ++j) {
                const T* const ahead = RawRow(reference::BinSourceRow(next, j, m.height, m.bin, m.colourBin)) + x * m.bin;
                for (int k = 0; k < n * m.bin; k += LINE)
                    hwy::Prefetch(ahead + k);
            }
            BinRow(rows, out + x, n, m.bin, m.colourBin);
            for (int j = 0; j < m.bin; ++j)
                rows[j] += n * m.bin;
        }
    }

    const T* RowAt(int y, T* out) const
    {
        const auto binned = [this](int i, T* p) { return Binned(i, p); };
        return m.flipFirst ? Binned(y, out) : Flipped(binned, y, m.height, m_width, out);
    }

    template <class Make>
    const T* Flipped(Make make, int y, int height, size_t width, T* out) const
    {
        const T* row = make(m.reverseRows ? height - 1 - y : y, out);
        if (!m.mirrorRows)
            return row;
        if (row != out)
            std::memcpy(out, row, width * sizeof(T));
        if constexpr (sizeof(T) == 1)
            Flip8(out, static_cast<int>(width), 1, false, true);
        else if (!m_mapMirrors)
            Flip16(out, static_cast<int>(width), 1, false, true);
        // QUIRK: at an odd width the middle column keeps its order when both flips are on.
        if (m.reverseRows && width % 2 != 0)
            out[width / 2] = make(y, Scratch(1))[width / 2];
        return out;
    }

    const FramePlan& m;
    const size_t m_width, m_rawWidth;
    const bool m_mapsRows, m_mapMirrors;   // all that is done to a row is a table, which flips it too
    const bool m_plainRows, m_plainFrame;  // the raw rows, or the raw frame, are what is wanted
    bool m_mapsPast = false;               // the table writes rows of the output past the caches
    std::unique_ptr<T[]> m_scratch;        // one row for the output, one for the odd middle, those of a bin
};

}  // namespace

int RowsThatFit(const FramePlan& m)
{
    const size_t rowBytes = static_cast<size_t>(std::max(m.width, 0)) * static_cast<size_t>(BytesOf(m));
    return rowBytes == 0 ? 0 : static_cast<int>(std::min(static_cast<size_t>(std::max(m.height, 0)), m.bytes / rowBytes));
}

void Walk(const FramePlan& m, uint8_t* dst)
{
    if (m.width < 1 || m.height < 1)
        return;
    if (m.is16) {
        Walker<uint16_t>(m).Samples(dst);
        return;
    }
    Walker<uint8_t> walker(m);
    switch (m.output) {
    case Output::Samples: walker.Samples(dst); break;
    case Output::Grey24: walker.Grey(dst); break;
    case Output::Colour24: walker.Bayer(Demosaic, dst); break;
    case Output::Luminance: walker.Bayer(DemosaicY8, dst); break;
    }
}

template <class T>
T WorkedSample(const FramePlan& m, size_t at)
{
    T v;
    return WorkSamples(m, at, 1, &v) ? v : reinterpret_cast<const T*>(m.raw)[at];
}
template uint8_t WorkedSample(const FramePlan&, size_t);
template uint16_t WorkedSample(const FramePlan&, size_t);

}  // namespace imaging
