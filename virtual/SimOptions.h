// The text that says which virtual cameras a program is to see, as in the environment variable KOVSIM:
//
//   QuartzCol,QuartzMono;scene=sky;rate=1;seed=7;usb2;firmware=17;flash=/home/me/flash.bin
//
// First the model tokens, then options for all of them.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "virtual/VirtualBus.h"

namespace kovsim {

constexpr uint32_t VANISH_MS = 1500;

struct SimOptions {
    std::vector<CameraSettings> cameras;
    double dRate = 1;
    uint32_t uVanishAfter = 0;  // frames until each camera is pulled out for VANISH_MS; 0: never
};

// False and *error, which names the options and, for an unknown model, the tokens.
bool ParseSimOptions(const std::string& text, SimOptions* options, std::string* error);
// Plugs the cameras in; what they have to tell about themselves goes to standard error.
void PlugAll(VirtualBus& bus, SimOptions options);
// The model tokens in lines of at most 100 characters, and the options.
std::string SimHelp();

}  // namespace kovsim
