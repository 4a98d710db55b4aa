// What a program that is run with virtual cameras preloads: the library finds this entry and takes its bus.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "virtual/SimOptions.h"

extern "C" KOV_PLUGIN_EXPORT const usbstack::Plugin* KOVUsbStackPlugin()
{
    // Lives to the end of the process: its threads must not meet destructors that run at exit.
    static const usbstack::Plugin* const s_pPlugin = []() -> const usbstack::Plugin* {
        const char* szText = std::getenv("KOVSIM");
        if (!szText || !*szText) return nullptr;
        kovsim::SimOptions options;
        std::string error;
        kovsim::VirtualBus* bus = nullptr;
        try {
            const bool ok = kovsim::ParseSimOptions(szText, &options, &error);
            // Who asked for virtual cameras never gets real ones instead: a mistake leaves an empty bus.
            bus = new kovsim::VirtualBus(options.dRate);
            if (!ok) std::fprintf(stderr, "KOVSIM: %s\n", error.c_str());
            for (auto& settings : options.cameras) {
                settings.onNoise = [](const kovsim::ModelFacts& facts, const std::string& why) {
                    std::fprintf(stderr, "KOVSIM: %s sends noise, its registers contradict each other: %s\n",
                                 facts.sToken.c_str(), why.c_str());
                };
                bus->Plug(settings);
            }
            return new usbstack::Plugin{ 1, bus, options.dRate };
        } catch (const std::exception& e) {
            std::fprintf(stderr, "KOVSIM: %s\n", e.what());
            return bus ? new usbstack::Plugin{ 1, bus, options.dRate } : nullptr;
        }
    }();
    return s_pPlugin;
}
