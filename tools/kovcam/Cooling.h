// The cooler, for the commands that need a cold sensor.
#pragma once
#include <functional>
#include <vector>

#include "kovcam/Camera.h"

namespace kovcam {

struct CoolSample {
    double dSeconds, dCelsius, dPower;
};

constexpr double STABLE_WITHIN = 0.5, STABLE_FOR = 60;  // degrees, seconds

// Samples temperature and power every two seconds until onSample returns false or Ctrl-C.
std::vector<CoolSample> WatchCooler(Camera& cam, const std::function<bool(const std::vector<CoolSample>&)>& onSample);
// Whether the temperature has stayed near the target for long enough.
bool IsStable(const std::vector<CoolSample>& samples, double target);
// Switches the cooler on. A camera without one is a UserError.
void StartCooler(Camera& cam, int target);
// Brings the camera to the temperature that the options ask for, if any. Ctrl-C and half an hour without success throw.
void CoolFor(Camera& cam, const PictureOptions& o);

}  // namespace kovcam
