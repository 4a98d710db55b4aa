#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <utility>

#include "kovcam/serve/Engine.h"

namespace kovserve {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

Observatory::Observatory()
{
    Scan();
    m_thread = std::thread([this] { Run(); });
}

Observatory::~Observatory()
{
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
        m_wake.notify_all();
    }
    m_thread.join();
    m_cameras.clear();
}

std::vector<std::shared_ptr<CameraEngine>> Observatory::Cameras() const
{
    const std::lock_guard lock(m_mutex);
    return m_cameras;
}

std::shared_ptr<CameraEngine> Observatory::Find(size_t index) const
{
    const std::lock_guard lock(m_mutex);
    return index < m_cameras.size() ? m_cameras[index] : nullptr;
}

void Observatory::RequestScan()
{
    const std::lock_guard lock(m_mutex);
    m_scanAsked = true;
    m_wake.notify_all();
}

// A camera's ID is its place in the last enumeration, and an enumeration that finds fewer cameras takes the IDs of the
// last ones away while they are open; they can be closed only when the bus has as many again. So the bus is looked at
// only when every open camera has just sent a frame, or when all have been closed first.
void Observatory::Run()
{
    for (;;) {
        bool asked = false;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait_for(lock, 2s, [this] { return m_stop || m_scanAsked; });
            if (m_stop)
                return;
            asked = std::exchange(m_scanAsked, false);
        }
        const auto cameras = Cameras();
        bool busy = false, allAlive = true;
        for (const auto& c : cameras) {
            const StatePtr s = c->GetState();
            const std::lock_guard lock(c->m_mutex);
            busy = busy || s->recording || s->darkFrames > 0 || c->m_exposureAccepted || s->phase == Phase::Opening;
            const bool alive = s->phase == Phase::Live && Steady::now().time_since_epoch() - c->m_lastFrameTime.load() < 500ms;
            allAlive = allAlive && (!c->m_open || alive);
        }
        if (asked && busy) {
            RequestScan();  // when they have done
            std::this_thread::sleep_for(200ms);
            continue;
        }
        if (!asked) {
            if (busy || !allAlive)
                continue;
            int count = 0;
            {
                const Gate::Alone alone(m_gate);
                count = KOVGetNumOfConnectedCameras();
            }
            if (count == m_count)
                continue;
        }
        for (const auto& c : cameras) {
            const std::lock_guard lock(c->m_mutex);
            c->m_restWanted = true;
            c->m_resting = false;
            c->m_wake.notify_all();
        }
        const auto resting = [](const std::shared_ptr<CameraEngine>& c) {
            const std::lock_guard lock(c->m_mutex);
            return c->m_resting;
        };
        while (!std::all_of(cameras.begin(), cameras.end(), resting)) {
            {
                const std::lock_guard lock(m_mutex);
                if (m_stop)
                    return;
            }
            std::this_thread::sleep_for(20ms);
        }
        Scan();
        if (asked)
            std::this_thread::sleep_for(1s);  // a camera that stays away is not looked for without pause
    }
}

void Observatory::Scan()
{
    std::map<std::string, int> found;  // key to ID
    int count = 0;
    {
        const Gate::Alone alone(m_gate);
        count = KOVGetNumOfConnectedCameras();
        // The object of a camera that went in the moment of a look; it takes up the ID of whatever has it now.
        std::erase_if(m_stuck, [](int id) { return KOVCloseCamera(id) == KOV_SUCCESS; });
        std::map<std::string, int> models;
        for (int i = 0; i < count; ++i) {
            KOV_CAMERA_INFO info{};
            if (KOVGetCameraProperty(&info, i) != KOV_SUCCESS)
                continue;
            const int n = ++models[info.Name];
            found[n == 1 ? std::string(info.Name) : fmt::format("{} #{}", info.Name, n)] = i;
        }
    }
    const std::lock_guard lock(m_mutex);
    m_count = count;
    for (const auto& [key, id] : found) {
        const auto known = [&, &key = key](const std::shared_ptr<CameraEngine>& c) { return c->Key() == key; };
        if (std::none_of(m_cameras.begin(), m_cameras.end(), known))
            m_cameras.push_back(std::make_shared<CameraEngine>(*this, key));
    }
    for (const auto& c : m_cameras) {
        const auto it = found.find(c->Key());
        const std::lock_guard inside(c->m_mutex);
        c->m_present = it != found.end();
        c->m_wantedId = c->m_present ? it->second : -1;
        c->m_restWanted = false;
        c->m_wake.notify_all();
    }
    ++m_version;
}

}  // namespace kovserve
