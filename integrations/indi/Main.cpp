// The framework brings main(); this is what makes it a driver of these cameras.
#include <indidevapi.h>

#include <unistd.h>

#include <cstdio>
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
        // Handlers run from the last to the first: a second thread that ends the process too, since the server does not read
        // what it writes, waits here for the one that closes the cameras.
        std::atexit([] {
            for (;;)
                pause();
        });
        std::atexit([] {
            kovindi::Devices::Instance().EndAll();
            // No statics are destroyed under the threads that look for cameras or hang in one.
            std::fflush(nullptr);
            _exit(EXIT_SUCCESS);
        });
    }
} g_loader;

}  // namespace
