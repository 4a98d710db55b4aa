// The entry that the library looks for. It offers the bus that this process has attached, else the one that KOVSIM asks for.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "virtual/InProcess.h"
#include "virtual/SimOptions.h"

namespace kovsim {
namespace {

std::atomic<const usbstack::Plugin*> g_Attached = nullptr;
std::unique_ptr<VirtualBus> g_OwnBus;  // of KOVSimAttach

const usbstack::Plugin* FromEnvironment()
{
    const char* szText = std::getenv("KOVSIM");
    if (!szText || !*szText)
        return nullptr;
    SimOptions options;
    std::string error;
    VirtualBus* bus = nullptr;
    try {
        const bool ok = ParseSimOptions(szText, &options, &error);
        // Who asked for virtual cameras never gets real ones instead: a mistake leaves an empty bus.
        bus = new VirtualBus(options.dRate);
        if (!ok)
            std::fprintf(stderr, "KOVSIM: %s\n", error.c_str());
        PlugAll(*bus, options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "KOVSIM: %s\n", e.what());
    }
    return bus ? &bus->Offer() : nullptr;
}

VirtualCamera* OwnCamera(int index)
{
    if (!g_OwnBus)
        return nullptr;
    const auto cameras = g_OwnBus->Cameras();
    return index >= 0 && size_t(index) < cameras.size() ? cameras[size_t(index)] : nullptr;
}

}  // namespace

void Attach(VirtualBus* bus) { g_Attached.store(bus ? &bus->Offer() : nullptr, std::memory_order_release); }

}  // namespace kovsim

extern "C" {

KOV_PLUGIN_EXPORT const usbstack::Plugin* KOVUsbStackPlugin()
{
    if (const usbstack::Plugin* const p = kovsim::g_Attached.load(std::memory_order_acquire))
        return p;
    // Lives to the end of the process: its threads must not meet destructors that run at exit.
    static const usbstack::Plugin* const s_plugin = kovsim::FromEnvironment();
    return s_plugin;
}

int KOVSimAttach(const char* text, char* error, int size)
{
    std::string why;
    try {
        kovsim::SimOptions options;
        if (kovsim::ParseSimOptions(text, &options, &why)) {
            auto bus = std::make_unique<kovsim::VirtualBus>(options.dRate);
            kovsim::PlugAll(*bus, options);
            kovsim::Attach(bus.get());
            kovsim::g_OwnBus = std::move(bus);
        }
    } catch (const std::exception& e) {
        why = e.what();
    }
    if (size > 0)
        std::snprintf(error, size_t(size), "%s", why.c_str());
    return why.empty() ? 0 : -1;
}

void KOVSimDetach(void)
{
    kovsim::Attach(nullptr);
    kovsim::g_OwnBus.reset();
}

int KOVSimUnplug(int index)
{
    kovsim::VirtualCamera* const camera = kovsim::OwnCamera(index);
    if (camera)
        camera->Unplug();
    return camera ? 0 : -1;
}

int KOVSimReplug(int index)
{
    kovsim::VirtualCamera* const camera = kovsim::OwnCamera(index);
    if (camera)
        camera->Replug();
    return camera ? 0 : -1;
}

}  // extern "C"
