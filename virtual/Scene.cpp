// The simple scenes and the text form of all.
#include "virtual/Scene.h"

#include <algorithm>
#include <cstdio>

namespace kovsim {
namespace {

class EvenScene final : public Scene {
public:
    explicit EvenScene(Light light) : m_light(light) {}
    void Render(const ScreenGeometry& g, int, int rows, Light* out) const override
    {
        std::fill_n(out, size_t(rows) * size_t(g.iWidth), m_light);
    }

private:
    Light m_light;
};

class PatternScene final : public Scene {
public:
    bool InFullWells() const override { return true; }
    void Render(const ScreenGeometry& g, int firstRow, int rows, Light* out) const override
    {
        for (int y = firstRow; y < firstRow + rows; ++y)
            for (int x = 0; x < g.iWidth; ++x) {
                // Half a step up, so that rounding of the product falls on neither side.
                const float f = (float((x * 7 + y * 13) % 251) + 0.5f) / 256.0f / 0.01f;
                *out++ = { f, f, f };
            }
    }
};

}  // namespace

std::shared_ptr<const Scene> Scene::Colour(float r, float g, float b) { return std::make_shared<EvenScene>(Light{ r, g, b }); }
std::shared_ptr<const Scene> Scene::Flat(float e) { return Colour(e, e, e); }
std::shared_ptr<const Scene> Scene::Dark() { return Flat(0); }
std::shared_ptr<const Scene> Scene::Pattern() { return std::make_shared<PatternScene>(); }

std::shared_ptr<const Scene> Scene::Parse(const std::string& text, std::string* error)
{
    const size_t colon = text.find(':');
    const std::string kind = text.substr(0, colon);
    const std::string args = colon == std::string::npos ? "" : text.substr(colon + 1);
    char tail;
    const auto fail = [&](const char* form) {
        if (error)
            *error = "scene \"" + text + "\": expected " + form;
        return nullptr;
    };
    if (kind == "dark")
        return args.empty() ? Dark() : fail("dark");
    if (kind == "pattern")
        return args.empty() ? Pattern() : fail("pattern");
    if (kind == "flat") {
        float e;
        if (std::sscanf(args.c_str(), "%f%c", &e, &tail) != 1 || !(e >= 0))
            return fail("flat:N, N electrons a second on each pixel");
        return Flat(e);
    }
    if (kind == "colour" || kind == "color") {
        float r, g, b;
        if (std::sscanf(args.c_str(), "%f,%f,%f%c", &r, &g, &b, &tail) != 3 || !(r >= 0 && g >= 0 && b >= 0))
            return fail("colour:R,G,B, electrons a second");
        return Colour(r, g, b);
    }
    if (kind == "sky") {
        SkyView v;
        if (!args.empty()) {
            const int n = std::sscanf(args.c_str(), "%lf,%lf,%lf%c", &v.dRa, &v.dDec, &v.dFocalMm, &tail);
            if ((n != 2 && n != 3) || !(v.dDec >= -90 && v.dDec <= 90) || !(v.dFocalMm > 0))
                return fail("sky or sky:RA,DEC or sky:RA,DEC,FOCAL in degrees and millimetres");
        }
        return Sky(v);
    }
    // A flux that fills most sensors' wells in about 50 ms.
    if (text.size() > 4 && text.compare(text.size() - 4, 4, ".png") == 0)
        return Picture(text, 200000, error);
    return fail("sky[:RA,DEC[,FOCAL]], flat:N, colour:R,G,B, dark, pattern or the path of a .png file");
}

}  // namespace kovsim
