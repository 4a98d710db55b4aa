// The cooler's arithmetic: output code and current of the thermoelectric element, and one step of its regulator.
#pragma once

namespace thermal {

struct Span {
    float min, max;
};
Span CodeSpan();     // 8-bit output codes; the higher the code, the lower the current
Span CurrentSpan();  // ampere

double CodeOfCurrent(double current);
double CurrentOfCode(double code);

inline constexpr float NO_ERROR_YET = -200;  // last error of a regulator that has not run

struct RegulatorGains {
    float fKp, fKi, fKd;
};
// What a step makes of the error, target - temperature in degrees: by how much, in percent, the power has to fall.
float RegulatorOutput(const RegulatorGains& gains, float error, float lastError, float integral);

// Whether two temperatures in degrees, so many milliseconds apart, can both be true.
bool IsPlausible(float before, float now, float milliseconds);

// Below this error a step may round to the code in force.
bool IsCalm(float error);

}  // namespace thermal
