#include "virtual/Thermal.h"

#include <algorithm>
#include <cmath>

namespace kovsim {

double PowerOfDA(uint8_t code)
{
    const double drive = double(DA_OFF - std::clamp<int>(code, DA_FULL, DA_OFF)) / (DA_OFF - DA_FULL);
    return std::pow(drive, 1.7);  // close to the measured current of the output stage
}

uint8_t ThermistorReading(double celsius)
{
    // Steinhart-Hart through three points of the part: 97.60 kOhm at -20, 10 at 25, 1.741 at 70 degrees.
    struct Curve {
        double a, b, c;
        Curve()
        {
            const double l1 = std::log(97.6037), l2 = std::log(10.0), l3 = std::log(1.7411);
            const double y1 = 1 / 253.15, y2 = 1 / 298.15, y3 = 1 / 343.15;
            const double g2 = (y2 - y1) / (l2 - l1), g3 = (y3 - y1) / (l3 - l1);
            c = (g3 - g2) / (l3 - l2) / (l1 + l2 + l3);
            b = g2 - c * (l1 * l1 + l1 * l2 + l2 * l2);
            a = y1 - (b + l1 * l1 * c) * l1;
        }
        double Celsius(double kilohm) const
        {
            const double l = std::log(kilohm);
            return 1 / (a + b * l + c * l * l * l) - 273.15;
        }
    };
    static const Curve s_curve;
    int best = 1;
    for (int ad = 1; ad < 256; ++ad) {
        const auto off = [&](int v) { return std::fabs(s_curve.Celsius(10.0 * v / (256 - v)) - celsius); };
        if (off(ad) < off(best))
            best = ad;
    }
    return uint8_t(best);
}

uint16_t DigitalReading(double celsius) { return uint16_t(int(std::lround(std::clamp(celsius, -128.0, 127.9) * 16)) & 0xFFF); }

double Thermal::At(double seconds)
{
    if (seconds > m_dSeconds) {
        const double goal = m_dAmbient - COOLER_KELVIN * Power();
        m_dCelsius = goal + (m_dCelsius - goal) * std::exp((m_dSeconds - seconds) / COOLER_SECONDS);
        m_dSeconds = seconds;
    }
    return m_dCelsius;
}

void Thermal::SetDA(uint8_t code, double seconds)
{
    At(seconds);
    m_da = code;
}

}  // namespace kovsim
