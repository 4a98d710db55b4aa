// Preloaded into the driver: virtual cameras as kovsim has them, with cables that a test may pull and guide pins that
// tell what they do. Commands are lines of the pipe KOV_TESTBUS_PIPE; edges of pins are lines of the file
// KOV_TESTBUS_PINS.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "virtual/SimOptions.h"

namespace {

void Obey(kovsim::VirtualBus* bus, const std::string& path)
{
    std::fstream pipe(path);  // for writing too: so it has no end when a writer closes it
    for (std::string line; std::getline(pipe, line);) {
        std::istringstream words(line);
        std::string verb;
        size_t n = 0;
        uint32_t kind = 0, times = 1, arg = 0;
        words >> verb >> n >> kind >> times >> arg;
        const auto cameras = bus->Cameras();
        if (n >= cameras.size())
            continue;
        if (verb == "unplug")
            cameras[n]->Unplug();
        else if (verb == "replug")
            cameras[n]->Replug();
        else if (verb == "fault")
            cameras[n]->Inject({ static_cast<kovsim::FaultKind>(kind), arg, 0, times });
    }
}

void WatchPins(kovsim::VirtualBus* bus, const std::string& path)
{
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr)
        return;
    const auto cameras = bus->Cameras();
    std::vector<unsigned> before(cameras.size());
    const auto start = std::chrono::steady_clock::now();
    for (;; std::this_thread::sleep_for(std::chrono::microseconds(500)))
        for (size_t n = 0; n < cameras.size(); ++n)
            for (int pin = 0; pin < 4; ++pin) {
                const unsigned bit = 1u << pin, now = cameras[n]->GuidePin(pin) ? bit : 0;
                if ((before[n] & bit) == now)
                    continue;
                before[n] ^= bit;
                const std::chrono::duration<double, std::milli> t = std::chrono::steady_clock::now() - start;
                std::fprintf(file, "%zu %d %d %.2f\n", n, pin, now != 0, t.count());
                std::fflush(file);
            }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) const usbstack::Plugin* KOVUsbStackPlugin()
{
    static const usbstack::Plugin* const plugin = []() -> const usbstack::Plugin* {
        kovsim::SimOptions options;
        std::string error;
        const char* text = std::getenv("KOVSIM");
        if (text == nullptr || !kovsim::ParseSimOptions(text, &options, &error)) {
            std::fprintf(stderr, "test bus: %s\n", error.c_str());
            return nullptr;
        }
        auto* bus = new kovsim::VirtualBus(options.dRate);
        for (const auto& settings : options.cameras)
            bus->Plug(settings);
        if (const char* path = std::getenv("KOV_TESTBUS_PIPE"))
            std::thread(Obey, bus, std::string(path)).detach();
        if (const char* path = std::getenv("KOV_TESTBUS_PINS"))
            std::thread(WatchPins, bus, std::string(path)).detach();
        return &bus->Offer();
    }();
    return plugin;
}
