// The framework brings main(); this is what makes it a driver of these cameras.
#include <indidevapi.h>

#include <cstdlib>
#include <string>

#include "Devices.h"
#include "Finder.h"
#include "MainThread.h"

namespace {

struct Loader {
    Loader()
    {
        kovindi::StartMainThreadQueue();
        kovindi::StartFinder(
            [](std::vector<kovindi::Sighting> seen) {
                kovindi::OnMainThread([seen = std::move(seen)] { kovindi::Devices::Instance().Update(seen); });
            },
            [](const std::string& why) {
                kovindi::OnMainThread([why] { IDMessage(nullptr, "indi_kov_ccd: %s", why.c_str()); });
            });
        std::atexit([] { kovindi::Devices::Instance().EndAll(); });
    }
} g_loader;

}  // namespace
