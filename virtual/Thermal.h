// Cooler and temperature of a virtual camera.
#pragma once
#include <cstdint>

namespace kovsim {

constexpr double COOLER_KELVIN = 40;   // below the surroundings at full power
constexpr double COOLER_SECONDS = 60;  // time constant of the cold side
constexpr int DA_OFF = 255, DA_FULL = 40;

// Share of the full power that a code of the cooler's converter gives: a lower code drives more.
double PowerOfDA(uint8_t code);
// What the thermistor's converter shows, 8 bits: 10 kilohms at 25 degrees against 10 kilohms.
uint8_t ThermistorReading(double celsius);
// 12-bit two's complement, sixteenths of a degree.
uint16_t DigitalReading(double celsius);

// First order: the sensor follows ambient - 40 K * power. Exact between changes, whatever the steps.
class Thermal {
public:
    Thermal(double ambient, bool cooled) : m_dAmbient(ambient), m_dCelsius(ambient), m_bCooled(cooled) {}
    void SetDA(uint8_t code, double seconds);
    double At(double seconds);  // degrees Celsius at a time that does not run backwards
    uint8_t DA() const { return m_da; }
    double Power() const { return m_bCooled ? PowerOfDA(m_da) : 0; }

private:
    double m_dAmbient, m_dCelsius;
    bool m_bCooled;
    uint8_t m_da = DA_OFF;
    double m_dSeconds = 0;
};

}  // namespace kovsim
