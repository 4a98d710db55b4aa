// Virtual cameras on the network, as USB/IP devices.
#pragma once
#include <string>

#include "virtual/VirtualBus.h"

namespace kovsim {

struct ServeOptions {
    std::string sAddress = "127.0.0.1";
    int iPort = 3240;  // 0: any that is free
};

// Serves the cameras of the bus until the process ends; throws std::runtime_error where it cannot listen. A thread a
// connection; what a client does wrong ends its connection with a line on standard error.
void Serve(VirtualBus& bus, const ServeOptions& options);

}  // namespace kovsim
