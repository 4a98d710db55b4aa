// Looks around the bus every two seconds, on a thread and with a copy of the library of its own.
#pragma once
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "KOVCamera2.h"

namespace kovindi {

struct Sighting {
    KOV_CAMERA_INFO info;
    std::optional<std::string> id;  // user ID; empty: none stored; no value: not looked at, one of the model is in use
};

// Begins to look, until the process ends. `onChange` gets all cameras whenever the models on the bus differ from last
// time, and `onError` why there can be none; both on the finder's thread.
void StartFinder(std::function<void(std::vector<Sighting>)> onChange, std::function<void(std::string)> onError);
void LookAgain();  // soon, and tells the result in any case

}  // namespace kovindi
