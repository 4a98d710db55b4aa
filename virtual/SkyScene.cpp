// The sky: real stars through a lens of given focal length, on a background of even brightness.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <numbers>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "virtual/Scene.h"
#include "virtual/Stars.h"

namespace kovsim {

std::vector<Star> ParseStars(const char* pText)
{
    std::vector<Star> stars;
    while (*pText) {
        const char* pEnd = pText;
        while (*pEnd && *pEnd != '\n')
            ++pEnd;
        const std::string sLine(pText, pEnd);
        Star s{ 0, 0, 0, 0, 0.6 };  // an unknown colour is taken as the sun's
        if (std::sscanf(sLine.c_str(), "%d,%lf,%lf,%lf,%lf", &s.iHip, &s.dRa, &s.dDec, &s.dMag, &s.dBV) >= 4)
            stars.push_back(s);
        pText = *pEnd ? pEnd + 1 : pEnd;
    }
    return stars;
}

const std::vector<Star>& Stars()
{
    // Never destroyed: sensors run until the process has ended.
    static const auto* const s_stars = [] {
        auto* const all = new std::vector<Star>;
        std::set<int> seen;
        for (const char* const* pp = g_StarFiles; *pp; ++pp)
            for (const Star& s : ParseStars(*pp))
                if (seen.insert(s.iHip).second)
                    all->push_back(s);
        return all;
    }();
    return *s_stars;
}

namespace {

constexpr double RAD = std::numbers::pi / 180;
constexpr double ARCSEC = RAD / 3600;
constexpr double SIGMA_OF_FWHM = 0.42466;  // 1 / (2 sqrt(2 ln 2))
constexpr double ELECTRONS_OF_MAG0 = 5e9;  // a second and square metre, in green light
// Part of a star's light lies in a wider Gaussian: it stands for the wings that air and glass give a real star.
constexpr float HALO_SHARE = 0.08f;
constexpr double HALO_WIDTH = 3.5;  // over the core
constexpr double R_NM = 620, G_NM = 530, B_NM = 460;

// Photons of a black body, any scale.
double Planck(double nm, double kelvin) { return 1 / (std::pow(nm, 4) * std::expm1(1.43878e7 / (nm * kelvin))); }

// Red and blue over green for a colour index; a star of 6000 K is white.
void ColourOf(double bv, double* pRed, double* pBlue)
{
    const double b = std::clamp(bv, -0.4, 2.5);
    const double t = 4600 * (1 / (0.92 * b + 1.7) + 1 / (0.92 * b + 0.62));  // Ballesteros 2012
    const double white = 6000;
    *pRed = Planck(R_NM, t) / Planck(G_NM, t) / (Planck(R_NM, white) / Planck(G_NM, white));
    *pBlue = Planck(B_NM, t) / Planck(G_NM, t) / (Planck(B_NM, white) / Planck(G_NM, white));
}

class SkyScene final : public Scene {
public:
    explicit SkyScene(const SkyView& v)
        : m_view(v), m_dZero(ELECTRONS_OF_MAG0 * (std::numbers::pi / 4 * v.dApertureMm * v.dApertureMm * 1e-6))
    {
    }

    bool Moves() const override { return true; }
    double PixelScale(double pixelUm) const override { return pixelUm / 1000 / m_view.dFocalMm / ARCSEC; }

    std::string Warning(const ScreenGeometry& g) const override
    {
        const double halfW = g.iWidth / 2.0 * g.dPixelUm / 1000, halfH = g.iHeight / 2.0 * g.dPixelUm / 1000;  // mm
        double focal = 0;  // mm, at which the first star comes onto the sensor
        for (const Spot& s : Spots())
            focal = std::max(focal, std::min(halfW / std::fabs(s.dRight), halfH / std::fabs(s.dDown)));
        if (focal > m_view.dFocalMm)
            return {};
        const auto distance = [this](const Star& s) {
            const double dec0 = m_view.dDec * RAD, dec = s.dDec * RAD;
            return std::acos(std::clamp(
                       std::sin(dec0) * std::sin(dec) + std::cos(dec0) * std::cos(dec) * std::cos((s.dRa - m_view.dRa) * RAD),
                       -1.0, 1.0)) /
                   RAD;
        };
        const Star& nearest = *std::min_element(Stars().begin(), Stars().end(),
                                                [&](const Star& a, const Star& b) { return distance(a) < distance(b); });
        char text[300];
        std::snprintf(text, sizeof text,
                      "no star known here falls on the sensor, %.2f x %.2f degrees at %g mm of focal length. The nearest, of "
                      "magnitude %.1f, is %.2f degrees away: take sky:%.3f,%.3f,%g, or a focal length of %g mm or less",
                      2 * std::atan(halfW / m_view.dFocalMm) / RAD, 2 * std::atan(halfH / m_view.dFocalMm) / RAD, m_view.dFocalMm,
                      nearest.dMag, distance(nearest), nearest.dRa, nearest.dDec, m_view.dFocalMm, std::floor(focal));
        return text;
    }

    void Render(const ScreenGeometry& g, int firstRow, int rows, Light* out) const override
    {
        const double scale = PixelScale(g.dPixelUm);  // arc seconds a pixel
        const double pxPerRad = m_view.dFocalMm * 1000 / g.dPixelUm;
        const float sky = float(m_dZero * std::pow(10, -0.4 * m_view.dSkyMag) * scale * scale);
        std::fill_n(out, size_t(rows) * size_t(g.iWidth), Light{ sky, sky, sky * 1.1f });  // a moonless sky is bluish

        const double fwhm = std::hypot(m_view.dSeeing / scale, m_view.dBlurUm / g.dPixelUm);
        const double sigma = std::max(fwhm * SIGMA_OF_FWHM, 0.05);
        const int reach = int(std::ceil(4 * HALO_WIDTH * sigma)) + 1;
        std::vector<float> coreX(size_t(2 * reach + 1)), coreY(coreX), haloX(coreX), haloY(coreX);
        for (const Spot& s : Spots()) {
            const double x = (g.iWidth - 1) / 2.0 + s.dRight * pxPerRad + g.dShiftX / scale;
            const double y = (g.iHeight - 1) / 2.0 + s.dDown * pxPerRad + g.dShiftY / scale;
            if (x < -reach || x > g.iWidth + reach || y < firstRow - reach || y > firstRow + rows + reach)
                continue;
            const int cx = int(std::lround(x)), cy = int(std::lround(y));
            Weights(x, cx, sigma, reach, 1 - HALO_SHARE, coreX);
            Weights(y, cy, sigma, reach, 1, coreY);
            Weights(x, cx, sigma * HALO_WIDTH, reach, HALO_SHARE, haloX);
            Weights(y, cy, sigma * HALO_WIDTH, reach, 1, haloY);
            const int x0 = std::max(0, cx - reach), x1 = std::min(g.iWidth - 1, cx + reach);
            const int y0 = std::max(firstRow, cy - reach), y1 = std::min(firstRow + rows - 1, cy + reach);
            for (int py = y0; py <= y1; ++py) {
                Light* row = out + size_t(py - firstRow) * size_t(g.iWidth);
                for (int px = x0; px <= x1; ++px) {
                    const int dx = px - cx + reach, dy = py - cy + reach;
                    const auto i = size_t(dx), j = size_t(dy);
                    const float w = coreX[i] * coreY[j] + haloX[i] * haloY[j];
                    row[px].r += s.light.r * w;
                    row[px].g += s.light.g * w;
                    row[px].b += s.light.b * w;
                }
            }
        }
    }

private:
    struct Spot {
        double dRight, dDown;  // tangents from the centre
        Light light;           // of the whole star
    };

    // The stars in front of the lens, worked out when the first picture is made.
    const std::vector<Spot>& Spots() const
    {
        std::call_once(m_once, [this] {
            const SkyView& v = m_view;
            const double ra0 = v.dRa * RAD, dec0 = v.dDec * RAD;
            const double sinRot = std::sin(v.dRotation * RAD), cosRot = std::cos(v.dRotation * RAD);
            for (const Star& s : Stars()) {
                const double ra = s.dRa * RAD, dec = s.dDec * RAD;
                const double cosC = std::sin(dec0) * std::sin(dec) + std::cos(dec0) * std::cos(dec) * std::cos(ra - ra0);
                if (cosC < 0.2)
                    continue;  // nothing images 78 degrees off its axis
                const double xi = std::cos(dec) * std::sin(ra - ra0) / cosC;
                const double eta = (std::cos(dec0) * std::sin(dec) - std::sin(dec0) * std::cos(dec) * std::cos(ra - ra0)) / cosC;
                Spot p;
                p.dRight = -(xi * cosRot - eta * sinRot);
                p.dDown = -(xi * sinRot + eta * cosRot);
                double red, blue;
                ColourOf(s.dBV, &red, &blue);
                const double flux = m_dZero * std::pow(10, -0.4 * s.dMag);
                p.light = { float(flux * red), float(flux), float(flux * blue) };
                m_spots.push_back(p);
            }
        });
        return m_spots;
    }

    // What falls of a Gaussian around pos on each of the pixels centre - reach to centre + reach.
    static void Weights(double pos, int centre, double sigma, int reach, float share, std::vector<float>& w)
    {
        const double k = 1 / (sigma * std::numbers::sqrt2);
        double before = std::erf((centre - reach - 0.5 - pos) * k);
        for (int i = -reach; i <= reach; ++i) {
            const double after = std::erf((centre + i + 0.5 - pos) * k);
            const int at = i + reach;
            w[size_t(at)] = share * float((after - before) / 2);
            before = after;
        }
    }

    const SkyView m_view;
    const double m_dZero;  // electrons a second of magnitude 0
    mutable std::once_flag m_once;
    mutable std::vector<Spot> m_spots;
};

}  // namespace

std::shared_ptr<const Scene> Scene::Sky(const SkyView& view) { return std::make_shared<SkyScene>(view); }

}  // namespace kovsim
