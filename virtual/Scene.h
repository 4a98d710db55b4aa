// What a virtual camera looks at. A scene gives light; the camera makes electrons, noise and numbers of it.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

namespace kovsim {

// Light on one sensor pixel, electrons a second in red, green and blue light.
struct Light { float r, g, b; };

struct SkyView {
    double dRa = 56.75, dDec = 24.12;   // degrees; the Pleiades
    double dFocalMm = 135;
    double dRotation = 0;               // degrees, east of north
    double dSeeing = 4;                 // arc seconds, full width at half maximum
    double dApertureMm = 50;
    double dSkyMag = 20.5;              // magnitudes a square arc second
};

class Scene {
public:
    virtual ~Scene() = default;
    // Light over the full sensor, row after row, width * height entries; the pixel pitch in micrometres. shiftX and
    // shiftY are how far guiding has moved the scene, in arc seconds. Called once a shift, then kept by the camera.
    virtual void Render(int width, int height, double pixelUm, double shiftX, double shiftY, Light* out) const = 0;
    virtual bool Moves() const { return false; }  // whether the shift matters

    static std::shared_ptr<const Scene> Sky(const SkyView& view = {});
    static std::shared_ptr<const Scene> Flat(float electronsPerSecond);                   // grey
    static std::shared_ptr<const Scene> Colour(float r, float g, float b);                // electrons a second
    static std::shared_ptr<const Scene> Dark();
    // Each pixel names itself: value (x * 7 + y * 13) mod 251 of 256, scaled so that 10 ms at gain 1 gives that 8-bit
    // number, the same in all colours.
    static std::shared_ptr<const Scene> Pattern();
    // PNG, 8 or 16 bits, grey or RGB; stretched over the sensor; white gives that many electrons a second. Null and
    // *error when it cannot be read.
    static std::shared_ptr<const Scene> Picture(const std::string& path, float white, std::string* error);
    // "sky[:ra,dec,focal]", "flat:N", "dark", "pattern", a path of a PNG. Null and *error when it cannot be read.
    static std::shared_ptr<const Scene> Parse(const std::string& text, std::string* error);
};

}  // namespace kovsim
