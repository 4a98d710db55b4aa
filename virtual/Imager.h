// From light to the bytes of a frame: what the pixels and the converter of a sensor do.
//
// A pixel's electrons are
//     e = light * t + dark * 2^((T - 20) / 6) * t + hot * 2^((T - 20) / 6) * t        (at most the full well)
// with light the scene's electrons a second through the pixel's colour filter (without one: the mean of the three), t
// the exposure in seconds, T the sensor's temperature, dark 0.2 electrons a second, hot that of HotPixels(). The number is
//     n = trunc(black + (e + noise) * 2^bits / fullWell * gain * channelGain)         (0 to 2^bits - 1)
// in single precision; noise is Gaussian with the variance dNoise^2 * (e + readNoise^2). With dNoise 0 there is neither
// noise nor the even dark current, and n follows exactly from scene, exposure and gain.
//
// A binned cell adds the electrons of its pixels, and the noise of each; sums are converted with the pedestal as often
// as there are pixels, means with electrons and pedestal divided by their number. A colour sensor bins pixels of one
// colour: column c takes columns 2 * bin * (c / 2) + c % 2 + 2 * k, a mono sensor bin * c + k, k from 0 to bin - 1, and
// shift by the profile's iShiftX; rows likewise.
//
// Samples: 8 bits are n >> (bits - 8), 16 bits n << (16 - bits) low byte first.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "virtual/Profile.h"
#include "virtual/Scene.h"
#include "virtual/VirtualBus.h"

namespace kovsim {

constexpr double DARK_AT_20 = 0.2;   // electrons a second
constexpr double DARK_DOUBLING = 6;  // degrees

// Cheap and good enough to spread seeds (splitmix64).
uint64_t Mix(uint64_t x);

// Bytes of one frame for a readout.
uint32_t FrameBytes(const Readout& r);

// Not thread-safe; each camera has its own.
class Imager {
public:
    // hotPixels -1: one in 20,000.
    Imager(const ModelFacts& facts, uint64_t seed, double noise, int hotPixels);
    const std::vector<HotPixel>& HotPixels() const { return m_hot; }

    // Computes the scene's light ahead of the first frame: a large sensor takes a third of a second.
    void Prepare(const std::shared_ptr<const Scene>& scene, double shiftX, double shiftY) { RenderScene(scene, shiftX, shiftY); }

    struct Shot {
        double dExposureUs = 0;
        double dCelsius = 20;
        double dShiftX = 0, dShiftY = 0;  // arc seconds
        uint64_t uFrame = 0;              // picks the noise
    };
    void Expose(const Readout& r, const Shot& shot, const std::shared_ptr<const Scene>& scene, std::vector<uint8_t>& out);

private:
    void RenderScene(const std::shared_ptr<const Scene>& scene, double shiftX, double shiftY);
    void FillRow(int y, int x0, int n, float t, float dark, float hot, float* e) const;
    float ChannelGain(int x, int y, const Readout& r) const;

    ModelFacts m_facts;
    uint64_t m_uSeed;
    double m_dNoise;
    std::vector<HotPixel> m_hot;           // by row, then column
    std::vector<float> m_light;            // electrons a second behind the filters
    std::shared_ptr<const Scene> m_scene;  // what m_light shows
    double m_dShiftX = 0, m_dShiftY = 0;
};

}  // namespace kovsim
