#include "Finder.h"

#include <atomic>
#include <chrono>
#include <exception>
#include <thread>

#include "Camera.h"
#include "Library.h"
#include "Logic.h"

namespace kovindi {

namespace {

constexpr auto PERIOD = std::chrono::seconds(2);
std::atomic<bool> g_again{ false };

std::vector<Sighting> Models(const Library& library)
{
    std::vector<Sighting> seen;
    const int count = library.GetNumOfConnectedCameras();
    for (int i = 0; i < count; ++i) {
        Sighting s{};
        if (library.GetCameraProperty(&s.info, i) == KOV_SUCCESS)
            seen.push_back(s);
    }
    return seen;
}

void ReadIds(const Library& library, std::vector<Sighting>& seen)
{
    for (Sighting& s : seen) {
        if (IsOneOpen(s.info.Name))
            continue;  // which one, nothing tells: none is touched
        const int id = s.info.CameraID;
        KOV_ID text{};
        if (library.OpenCamera(id) == KOV_SUCCESS)
            s.id = library.GetID(id, &text) == KOV_SUCCESS ? IdText(text) : "";
        library.CloseCamera(id);
    }
}

}  // namespace

void LookAgain() { g_again = true; }

void StartFinder(std::function<void(std::vector<Sighting>)> onChange, std::function<void(std::string)> onError)
{
    std::thread([onChange = std::move(onChange), onError = std::move(onError)] {
        try {
            const auto library = BorrowLibrary();
            std::vector<std::string> before;
            for (;; std::this_thread::sleep_for(PERIOD)) {
                std::vector<Sighting> seen;
                {
                    const std::lock_guard opening(OpeningMutex());
                    seen = Models(*library);
                    std::vector<std::string> names;
                    for (const Sighting& s : seen)
                        names.emplace_back(s.info.Name);
                    if (!g_again.exchange(false) && names == before)
                        continue;
                    before = names;
                    ReadIds(*library, seen);
                }
                onChange(std::move(seen));
            }
        } catch (const std::exception& e) {
            onError(e.what());
        }
    }).detach();
}

}  // namespace kovindi
