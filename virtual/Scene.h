// What a virtual camera looks at. A scene gives light; the camera makes electrons, noise and numbers of it.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

namespace kovsim {

// Light on one sensor pixel, electrons a second in red, green and blue light. A pixel without a colour filter sees the
// mean of the three.
struct Light {
    float r, g, b;
};

// The sensor that a scene falls on.
struct ScreenGeometry {
    int iWidth = 0, iHeight = 0;  // full sensor, pixels
    double dPixelUm = 0;          // pixel pitch
    double dShiftX = 0;           // how far guiding has moved the scene, arc seconds: right
    double dShiftY = 0;           // and down
};

struct SkyView {
    double dRa = 56.75, dDec = 24.12;  // degrees; the Pleiades
    double dFocalMm = 135;
    double dRotation = 0;  // degrees, east of north
    double dSeeing = 4;    // arc seconds, full width at half maximum
    double dApertureMm = 50;
    double dSkyMag = 20.5;  // magnitudes a square arc second
    double dBlurUm = 8;     // spot of the lens, full width at half maximum; adds to the seeing in square
};

class Scene {
public:
    virtual ~Scene() = default;
    // Light on rows firstRow to firstRow + rows - 1 of the sensor, row after row, rows * width entries. Called for all
    // rows once a shift; the camera keeps the result. Any thread, several at a time.
    virtual void Render(const ScreenGeometry& geometry, int firstRow, int rows, Light* out) const = 0;
    virtual bool Moves() const { return false; }        // whether the shift matters
    virtual bool InFullWells() const { return false; }  // light in full wells a second instead of electrons
    // Arc seconds that one pixel covers; 0 where that has no meaning. The camera ignores shifts far below it.
    virtual double PixelScale(double /*pixelUm*/) const { return 0; }
    // What surprises who looks at it through this sensor, and the way out, in one line; empty: nothing does.
    virtual std::string Warning(const ScreenGeometry& /*geometry*/) const { return {}; }

    // Sensor up is at the position angle dRotation, east lies 90 degrees left of it. At rotation 0 a star at the
    // standard coordinates (xi east, eta north) falls on column (W - 1) / 2 - xi * f / pitch and row
    // (H - 1) / 2 - eta * f / pitch, pixel centres at whole numbers. Green light of magnitude 0 is 5e9 electrons a
    // second and square metre; the other colours follow a black body of the star's B-V.
    static std::shared_ptr<const Scene> Sky(const SkyView& view = {});
    static std::shared_ptr<const Scene> Flat(float electronsPerSecond);     // grey
    static std::shared_ptr<const Scene> Colour(float r, float g, float b);  // electrons a second
    static std::shared_ptr<const Scene> Dark();
    // Each pixel names itself: value (x * 7 + y * 13) mod 251 of 256, scaled so that 10 ms at gain 1 gives that 8-bit
    // number, the same in all colours.
    static std::shared_ptr<const Scene> Pattern();
    // PNG, 8 or 16 bits, grey or RGB; stretched over the sensor; white gives that many electrons a second. Null and
    // *error when it cannot be read.
    static std::shared_ptr<const Scene> Picture(const std::string& path, float white, std::string* error);
    // "sky[:ra,dec,focal]", "flat:N", "colour:R,G,B", "dark", "pattern", a path of a PNG. Null and *error when it cannot be read.
    static std::shared_ptr<const Scene> Parse(const std::string& text, std::string* error);
};

}  // namespace kovsim
