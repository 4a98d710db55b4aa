// The process-wide tables of the pixel toolbox.
#pragma once
#include <array>
#include <atomic>
#include <cstdint>

namespace imaging {

using ByteTable = std::array<uint8_t, 256>;
using YuvTable = std::array<uint32_t, 256>;

// A word for each sample of 16 bits, and of those the ones for samples that end in four zeros, as the codes of a sensor of 12
// bits do.
struct WordTables {
    const std::atomic<uint16_t>* all;  // 65536
    std::array<uint16_t, 4096> of12;
};

// 65536ths per step. The products are formed in double precision and cut. Every camera's constructor asks for the same
// values, so the tables are constants.
constexpr YuvTable MakeYuvTable(double weight)
{
    YuvTable t{};
    for (unsigned i = 0; i < 256; ++i)
        t[i] = static_cast<uint32_t>(i * weight);
    return t;
}

inline constexpr YuvTable g_Tab257 = MakeYuvTable(16842.752);
inline constexpr YuvTable g_Tab504 = MakeYuvTable(33030.144);
inline constexpr YuvTable g_Tab098 = MakeYuvTable(6422.528);
inline constexpr YuvTable g_Tab439 = MakeYuvTable(28770.304);
inline constexpr YuvTable g_Tab071 = MakeYuvTable(4653.056);
inline constexpr YuvTable g_Tab368 = MakeYuvTable(24117.248);
inline constexpr YuvTable g_Tab291 = MakeYuvTable(19070.976);
inline constexpr YuvTable g_Tab148 = MakeYuvTable(9699.328);

// Gains of the software white balance. Host and automation threads rewrite them while frames are demosaiced.
// QUIRK: one pair for the whole process, so the balance set last holds for every camera, and a camera object's
// constructor resets it.
extern std::atomic<uint8_t> g_BlueLUT[256], g_RedLUT[256];

// What a frame operation works with: the gain tables at its start.
struct Gains {
    ByteTable blue, red;
    bool identity;
    // Where all 256 entries of both tables are min(i * factor >> GAIN_SHIFT, 255), which those of a balance below 200 are,
    // the factors; else 0.
    uint16_t blueFactor, redFactor;
};
inline constexpr int GAIN_SHIFT = 14;
Gains SnapshotGains();

}  // namespace imaging
