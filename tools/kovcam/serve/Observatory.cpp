#include "kovcam/serve/Observatory.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <iterator>
#include <utility>

namespace kovserve {

using namespace std::chrono_literals;

namespace {

using Engines = Observatory::Engines;

// Those of `cameras` that are to be held stay held until Release.
bool HoldAll(const Engines& cameras)
{
    for (size_t i = 0; i < cameras.size(); ++i)
        if (!cameras[i]->Hold()) {
            for (size_t j = 0; j < i; ++j)
                cameras[j]->Release();
            return false;
        }
    return true;
}

void ReleaseAll(const Engines& cameras)
{
    for (const auto& c : cameras)
        c->Release();
}

template <class Condition>
Engines Those(const Engines& cameras, Condition condition)
{
    Engines out;
    std::copy_if(cameras.begin(), cameras.end(), std::back_inserter(out), condition);
    return out;
}

bool Contains(const Engines& cameras, const std::shared_ptr<CameraEngine>& camera)
{
    return std::find(cameras.begin(), cameras.end(), camera) != cameras.end();
}

Engines OpenOnes(const Engines& cameras)
{
    return Those(cameras, [](const auto& c) { return c->OpenId() >= 0; });
}

}  // namespace

Observatory::Observatory()
{
    Look();
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

Engines Observatory::Cameras() const
{
    const std::lock_guard lock(m_mutex);
    return m_cameras;
}

std::shared_ptr<CameraEngine> Observatory::Find(size_t index) const
{
    const std::lock_guard lock(m_mutex);
    return index < m_cameras.size() ? m_cameras[index] : nullptr;
}

void Observatory::LookSoon()
{
    const std::lock_guard lock(m_mutex);
    m_asked = true;
    m_wake.notify_all();
}

bool Observatory::IsStopping() const
{
    const std::lock_guard lock(m_mutex);
    return m_stop;
}

void Observatory::Run()
{
    auto pause = 2000ms;
    for (;;) {
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait_for(lock, pause, [this] { return m_stop || m_asked; });
            if (m_stop)
                return;
            m_asked = false;
        }
        pause = Look() == Next::Soon ? 200ms : 2000ms;
    }
}

// A camera that is in the middle of something may take its time; then the look is put off.
bool Observatory::AllAnswer(const Engines& cameras)
{
    for (const auto& c : cameras)
        c->CallRoll();
    const auto end = std::chrono::steady_clock::now() + 1s;
    const auto asked = [](const auto& c) { return c->RollAnswer() == CameraEngine::Roll::Asked; };
    while (std::any_of(cameras.begin(), cameras.end(), asked)) {
        if (IsStopping() || std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return std::none_of(cameras.begin(), cameras.end(),
                        [](const auto& c) { return c->RollAnswer() == CameraEngine::Roll::Doubtful; });
}

// Closes cameras that are held. False at the end of the server.
bool Observatory::Rest(const Engines& cameras)
{
    for (const auto& c : cameras)
        c->Rest();
    while (!std::all_of(cameras.begin(), cameras.end(), [](const auto& c) { return c->IsResting(); })) {
        if (IsStopping())
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

void Observatory::Enumerate(const Engines& open)
{
    const Gate::Alone alone(m_gate);
    m_count = KOVGetNumOfConnectedCameras();
    std::erase_if(alone.Stuck(), [](int id) { return KOVCloseCamera(id) == KOV_SUCCESS; });
    m_models.clear();
    for (int id = 0; id < m_count; ++id) {
        const bool taken = std::any_of(open.begin(), open.end(), [&](const auto& c) { return c->OpenId() == id; });
        if (KOV_CAMERA_INFO info{}; !taken && KOVGetCameraProperty(&info, id) == KOV_SUCCESS)
            m_models[id] = info.Name;
    }
}

// Whether those that stayed open still stand where they stood: a camera that came in before one of them moves its model
// to a place where no open camera stands.
bool Observatory::IsClear(const Engines& open) const
{
    return std::none_of(open.begin(), open.end(), [this](const auto& c) {
        return c->OpenId() >= m_count ||
               std::any_of(m_models.begin(), m_models.end(), [&](const auto& m) { return m.second == c->Model(); });
    });
}

Observatory::Next Observatory::Look()
{
    const Engines cameras = Cameras();
    if (!AllAnswer(cameras))
        return Next::Soon;
    // Behind the first that has gone everybody moves up.
    int gone = INT_MAX;
    for (const auto& c : cameras)
        if (c->LostPlace() >= 0)
            gone = std::min(gone, c->LostPlace());
    Engines open = OpenOnes(cameras);
    const auto isBehind = [&](const auto& c) { return c->OpenId() > gone; };
    // Should another that is not open have gone, too, these would lose their IDs.
    const auto isAtRisk = [&, n = static_cast<int>(open.size())](const auto& c) { return c->OpenId() >= n || isBehind(c); };
    // Those that are closed are held as well: none may open a place that is just being given away.
    const Engines held = Those(cameras, [&](const auto&c) { return m_unclear || c->OpenId() < 0 || isAtRisk(c); }),
                  behind = Those(open, isBehind);
    if (!HoldAll(held))
        return Next::Soon;
    if (!Rest(behind))
        return Next::Later;
    open = OpenOnes(cameras);
    const int before = m_count;
    Enumerate(open);
    if (m_count == before && gone == INT_MAX && !m_unclear) {
        ReleaseAll(held);
        return Next::Later;
    }
    m_unclear = !IsClear(open);
    if (m_unclear && HoldAll(open)) {
        if (!Rest(open))
            return Next::Later;
        open.clear();
        Enumerate(open);
        m_unclear = false;
    }
    Place(open);
    ReleaseAll(held);
    return m_unclear ? Next::Soon : Next::Later;
}

// Cameras of a model are told apart by their order alone, which is that of their sockets: one that comes back is thought to
// be in its own again.
void Observatory::Place(const Engines& open)
{
    const Engines cameras = Cameras();
    Engines closed = Those(cameras, [&](const auto& c) { return !Contains(open, c); });
    // Those that are here first; of the others the one that went last, as when a look missed it.
    std::stable_sort(closed.begin(), closed.end(), [](const auto& a, const auto& b) {
        const auto from = a->GoneSince(), other = b->GoneSince();
        constexpr std::chrono::steady_clock::time_point HERE{};
        return from == HERE ? other != HERE : other != HERE && from > other;
    });
    std::map<std::string, int> left;  // places of a model
    for (const auto& [id, model] : m_models)
        ++left[model];
    Engines here;
    for (const auto& c : closed) {
        // A model of which one is open can be told apart only when all are closed.
        const bool doubtful = std::any_of(open.begin(), open.end(), [&](const auto& o) { return o->Model() == c->Model(); });
        if (doubtful || left[c->Model()]-- <= 0)
            c->Place(std::nullopt);
        else
            here.push_back(c);
    }
    auto places = m_models;
    for (const auto& c : Those(cameras, [&](const auto& e) { return Contains(here, e); })) {
        const auto it = std::find_if(places.begin(), places.end(), [&](const auto& m) { return m.second == c->Model(); });
        c->Place(it->first);
        places.erase(it);
    }
    if (m_unclear)
        return;
    const std::lock_guard lock(m_mutex);
    for (const auto& [id, model] : places) {
        const auto n = 1 + std::count_if(m_cameras.begin(), m_cameras.end(),
                                         [&, &model = model](const auto& c) { return c->Model() == model; });
        m_cameras.push_back(std::make_shared<CameraEngine>(m_gate, model, n == 1 ? model : fmt::format("{} #{}", model, n), id,
                                                           [this] { LookSoon(); }));
    }
}

}  // namespace kovserve
