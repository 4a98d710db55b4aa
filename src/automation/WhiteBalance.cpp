// One step a call. The present balance is multiplied by the ratio that is measured, so the measurement has to show the
// balance in force: the raw mosaic does where the sensor applies it, a demosaiced image where the host does.
#include "automation/WhiteBalance.h"

#include <algorithm>
#include <cstdlib>

#include "base/Arithmetic.h"
#include "base/FrameSample.h"

namespace automation {

namespace {

constexpr int LATTICE = 10;         // points a block in each direction; at each a 2 by 2 square is read
constexpr int BAND_REGULATED = 11;  // dead band while brightness is regulated too
constexpr int BAND = 5;
constexpr int LOW_BALANCE = 5;  // below, truncation alone could never raise the value

// New balance of one colour.
int32_t NewBalance(int32_t old, int32_t green, int32_t c)
{
    const int32_t i = MulWrap(old, green) / (c + 1);
    return i <= old && green > c && old < LOW_BALANCE ? i + 1 : i;
}

}  // namespace

std::optional<Balance> NextBalance(const WBBlocks& blocks, bool block0IfFlat, bool brightnessMoves, Balance now)
{
    int32_t c[WB_COLORS];
    for (int k = 0; k < WB_COLORS; ++k) {
        const int32_t *const dev = blocks.dev[k], *const mean = blocks.mean[k];
        int32_t devs = 0;
        for (int b = 0; b < WB_BLOCKS; ++b)
            devs = AddWrap(devs, dev[b]);
        float f = 0;  // single precision, in block order: the rounding is part of the result
        for (int b = 0; b < WB_BLOCKS; ++b)
            f += static_cast<float>(dev[b]) * static_cast<float>(mean[b]) / static_cast<float>(devs + 1);
        if (devs == 0 && block0IfFlat)
            f = static_cast<float>(mean[0]);
        c[k] = TruncToInt32(f);
    }

    const int32_t offRed = std::abs(c[WB_GREEN] - c[WB_RED]), offBlue = std::abs(c[WB_GREEN] - c[WB_BLUE]);
    // While brightness is regulated too, colours move with it; a wider band keeps the two from chasing each other.
    const int32_t band = brightnessMoves ? BAND_REGULATED : BAND;
    if (offRed < band && offBlue < band)
        return std::nullopt;
    return Balance{ NewBalance(now.red, c[WB_GREEN], c[WB_RED]), NewBalance(now.blue, c[WB_GREEN], c[WB_BLUE]) };
}

ColourStatistics BlockStatistics(const RawFrame& frame, const Block& block, const uint8_t cell[4], const int measure[WB_COLORS],
                                 uint32_t scale)
{
    const float stepX = static_cast<float>(block.width) / 10.0f, stepY = static_cast<float>(block.height) / 10.0f;
    // A block smaller than the lattice reads a little beside itself; beyond the buffer there is nothing to read.
    const auto visit = [&](auto use) {
        for (int i = 0; i < LATTICE; ++i)
            for (int j = 0; j < LATTICE; ++j)
                for (int k = 0; k < 4; ++k) {
                    const int y = block.y + static_cast<int>(static_cast<float>(i) * stepY) + (k >> 1);
                    const int x = block.x + static_cast<int>(static_cast<float>(j) * stepX) + (k & 1);
                    const auto index = static_cast<size_t>(int64_t{ y } * frame.width + x);
                    use(cell[(y & 1) * 2 + (x & 1)], index < frame.bytes ? SampleFrame(frame.data, index) : uint8_t{ 0 });
                }
    };

    uint32_t sum[WB_COLORS] = {}, count[WB_COLORS] = {}, mean[WB_COLORS];
    visit([&](uint8_t c, uint8_t v) {
        sum[c] += v;
        ++count[c];
    });
    ColourStatistics s;
    for (int c = 0; c < WB_COLORS; ++c) {
        mean[c] = sum[c] / (count[c] + 1);  // the added one serves a colour that the block does not have
        s.mean[c] = static_cast<int>(std::min(mean[c] * scale, 255u));
    }

    // Deviation from the mean before scaling. Between the two passes USB may have put another frame there.
    uint32_t diff[WB_COLORS] = {};
    visit([&](uint8_t c, uint8_t v) {
        diff[c] += measure[c] != 0 ? static_cast<uint32_t>(std::abs(static_cast<int>(v) - static_cast<int>(mean[c]))) : 1u;
    });
    for (int c = 0; c < WB_COLORS; ++c)
        s.dev[c] = static_cast<int>(diff[c] * 10 / (count[c] + 1));
    return s;
}

}  // namespace automation
