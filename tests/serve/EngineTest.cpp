// Several cameras under one roof: what befalls one is no harm to the others.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "kovcam/serve/Observatory.h"
#include "virtual/InProcess.h"
#include "virtual/Scene.h"
#include "virtual/VirtualBus.h"

namespace {

using namespace std::chrono_literals;
using kovserve::CameraEngine;
using kovserve::Phase;
using Steady = std::chrono::steady_clock;

constexpr float FAINTEST = 3e4F;
constexpr uint16_t GARNET = 0xC07A, IOLITE = 0xC09A, QUARTZ = 0xC11B;

bool Until(const std::function<bool()>& condition, std::chrono::seconds limit = 90s)
{
    for (const auto end = Steady::now() + limit; Steady::now() < end; std::this_thread::sleep_for(20ms))
        if (condition())
            return true;
    return false;
}

// Cameras on a bus, the engines over them, and somebody who looks at those that are watched.
class House {
public:
    explicit House(const std::vector<uint16_t>& products)
    {
        for (size_t i = 0; i < products.size(); ++i) {
            kovsim::CameraSettings s;
            s.wProductId = products[i];
            s.uSeed = i + 1;
            s.dNoise = 0;
            s.scene = kovsim::Scene::Flat(FAINTEST * static_cast<float>(i + 1));  // twins are told apart by their light
            m_cameras.push_back(&m_bus.Plug(s));
        }
        kovsim::Attach(&m_bus);
        m_observatory = std::make_unique<kovserve::Observatory>();

        for (size_t i = 0; i < products.size(); ++i) {  // twins stand in the order in which they were plugged in
            const std::string token = m_cameras[i]->Facts().sToken;
            const auto all = m_observatory->Cameras();
            const auto it = std::find_if(all.begin(), all.end(), [&](const auto& e) {
                return e->Model().find(token) != std::string::npos &&
                       std::find(m_engines.begin(), m_engines.end(), e) == m_engines.end();
            });
            EXPECT_NE(it, all.end()) << token;
            m_engines.push_back(*it);
        }
        EXPECT_TRUE(Until([this] {
            return std::all_of(m_engines.begin(), m_engines.end(),
                               [](const auto& e) { return e->GetState()->phase == Phase::Idle; });
        }));
        // Frames that cost little: a machine that cannot compute them is slow to answer, too.
        for (const auto& e : m_engines) {
            e->SetControl("test", CTRL_GAIN, 0, false);
            e->SetControl("test", CTRL_EXPOSURE, 100000, false);
            e->SetRegion("test", { 0, 0, 320, 240, 1 }, IMG_RAW8);
        }
    }
    ~House()
    {
        m_stop = true;
        for (std::thread& t : m_viewers)
            t.join();
        m_engines.clear();
        m_observatory.reset();
        kovsim::Attach(nullptr);
    }

    kovsim::VirtualCamera& Camera(size_t i) { return *m_cameras[i]; }
    CameraEngine& Engine(size_t i) { return *m_engines[i]; }
    size_t Count() const { return m_engines.size(); }
    void Watch(size_t i)
    {
        m_viewers.emplace_back([this, i] {
            for (uint64_t last = 0; !m_stop;)
                if (const auto frame = m_engines[i]->WaitNewer(last, 100ms))
                    last = frame->sequence;
        });
    }
    // Of frames that come from now on; -1 when none comes.
    int Light(size_t i)
    {
        const uint64_t before = m_engines[i]->Newest() ? m_engines[i]->Newest()->sequence : 0;
        const auto frame = m_engines[i]->WaitNewer(before + 2, 30s);
        return frame ? frame->View().At(frame->pixels.size() / 2) : -1;
    }
    int Openings(size_t i) const
    {
        const auto journal = m_engines[i]->Journal();
        return static_cast<int>(
            std::count_if(journal.begin(), journal.end(), [](const auto& e) { return e.what.starts_with("opened"); }));
    }
    bool IsPhase(size_t i, Phase phase) const { return m_engines[i]->GetState()->phase == phase; }

private:
    kovsim::VirtualBus m_bus;
    std::vector<kovsim::VirtualCamera*> m_cameras;
    std::unique_ptr<kovserve::Observatory> m_observatory;
    std::vector<std::shared_ptr<CameraEngine>> m_engines;  // of the cameras, in their order
    std::atomic<bool> m_stop{ false };
    std::vector<std::thread> m_viewers;
};

struct GoneRow {
    const char* what;
    std::vector<uint16_t> products;
    size_t gone;
    bool watched, firstExposes;  // the others
};
const GoneRow GONE[] = {
    { "the last one, and nobody looks at the others", { GARNET, IOLITE, QUARTZ }, 2, false, false },
    { "the middle one", { GARNET, IOLITE, QUARTZ }, 1, true, false },
    { "the first one", { GARNET, IOLITE, QUARTZ }, 0, true, false },
    { "the middle one, while the first exposes", { GARNET, IOLITE, QUARTZ }, 1, false, true },
    { "the first of twins", { QUARTZ, QUARTZ, GARNET }, 0, true, false },
};

TEST(Serve, OneOfThreeGoesAndComesBack)
{
    for (const GoneRow& row : GONE) {
        SCOPED_TRACE(row.what);
        House house(row.products);
        std::vector<int> light;
        for (size_t i = 0; i < house.Count(); ++i) {
            light.push_back(house.Light(i));
            EXPECT_LT(light.back(), 255) << "cameras that are too bright are all alike";
            if (row.watched || i == row.gone)
                house.Watch(i);
        }
        int shots = 0;
        std::string disturbed;  // why an exposure failed
        std::atomic<bool> more{ row.firstExposes };
        std::thread exposing([&] {
            // One after the other, with gaps as imaging software leaves them.
            for (; more; std::this_thread::sleep_for(300ms)) {
                std::promise<std::string> ended;
                kovserve::ExposureRequest request;
                request.us = 3000000;
                request.type = IMG_RAW8;
                request.ended = [&](const std::string& error) { ended.set_value(error); };
                try {
                    house.Engine(0).StartExposure("test", request);
                    disturbed += ended.get_future().get();
                } catch (const std::exception& e) {
                    disturbed += e.what();
                }
                ++shots;
            }
        });
        // Whoever stands behind the one that goes has to be opened at another place.
        std::vector<size_t> behind;
        for (size_t i = 0; i < house.Count(); ++i) {
            const Phase phase = i == row.gone || row.watched ? Phase::Live
                                : i == 0 && row.firstExposes ? Phase::Exposing
                                                             : Phase::Idle;
            EXPECT_TRUE(Until([&] { return house.IsPhase(i, phase); })) << i;
            if (house.Engine(i).OpenId() > house.Engine(row.gone).OpenId())
                behind.push_back(i);
        }
        house.Camera(row.gone).Unplug();
        const auto begin = Steady::now();
        EXPECT_TRUE(Until([&] { return house.IsPhase(row.gone, Phase::Absent); })) << "its going is not told";
        std::printf("%s: told after %.1f s", row.what, std::chrono::duration<double>(Steady::now() - begin).count());
        for (const size_t i : behind) {
            EXPECT_TRUE(Until([&] { return house.Openings(i) > 1; })) << i;
        }
        for (size_t i = 0; i < house.Count(); ++i) {
            if (i != row.gone && row.watched) {
                EXPECT_NEAR(house.Light(i), light[i], 3) << i << " goes on meanwhile";
            }
        }
        house.Camera(row.gone).Replug();
        const auto back = Steady::now();
        EXPECT_TRUE(Until([&] { return house.IsPhase(row.gone, Phase::Live); })) << "it is not found again";
        std::printf(", live again after %.1f s; openings", std::chrono::duration<double>(Steady::now() - back).count());
        more = false;
        exposing.join();
        EXPECT_EQ(disturbed, "");
        EXPECT_TRUE(!row.firstExposes || shots > 1);
        for (size_t i = 0; i < house.Count(); ++i) {
            EXPECT_NEAR(house.Light(i), light[i], 3) << "camera " << i;
            // Opened; opened at another place while one was away; and back.
            EXPECT_LE(house.Openings(i), 3) << "camera " << i;
            std::printf(" %d", house.Openings(i));
        }
        std::printf("\n");
    }
}

// A camera that sends nothing, and one that another program has taken, are tried again ever more seldom, by themselves.
TEST(Serve, OneThatCannotBeUsedLeavesTheOthersAlone)
{
    House house({ GARNET, IOLITE, QUARTZ });
    house.Camera(1).Inject({ kovsim::FaultKind::NoFrame, 0, 0, 1000000 });
    for (size_t i = 0; i < house.Count(); ++i)
        house.Watch(i);
    EXPECT_TRUE(Until([&] { return house.IsPhase(1, Phase::Failed); }));
    EXPECT_NE(house.Engine(1).GetState()->problem, "");
    const auto problems = [&] {
        const auto journal = house.Engine(1).Journal();
        return std::count_if(journal.begin(), journal.end(),
                             [](const auto& e) { return e.what == "camera" && !e.result.empty(); });
    };
    house.Camera(1).SetOpenStatus(usbstack::Status::Busy);
    const auto before = problems();
    EXPECT_TRUE(Until([&] { return problems() >= before + 2 && house.IsPhase(1, Phase::Failed); })) << "it is not tried again";
    for (const size_t i : { 0u, 2u }) {
        EXPECT_GE(house.Light(i), 0);
        EXPECT_EQ(house.Openings(i), 1);
    }
    house.Camera(1).SetOpenStatus(usbstack::Status::Ok);
    house.Camera(1).ClearFaults();
    EXPECT_TRUE(Until([&] { return house.IsPhase(1, Phase::Live) && house.Light(1) >= 0; }));
}

TEST(Serve, GuidePulsesLastAsLongAsAsked)
{
    House house({ QUARTZ });
    house.Engine(0).SetControl("test", CTRL_EXPOSURE, 3000000, false);
    house.Watch(0);
    EXPECT_TRUE(Until([&] { return house.IsPhase(0, Phase::Live); }));
    for (const int direction : { 0, 1, 2, 3 }) {
        const auto begin = Steady::now();
        house.Engine(0).PulseGuide("test", static_cast<KOV_GUIDE_DIRECTION>(direction), 400ms);
        EXPECT_TRUE(house.Camera(0).GuidePin(direction));
        EXPECT_TRUE(Until([&] { return !house.Camera(0).GuidePin(direction); }, 5s));
        const double seconds = std::chrono::duration<double>(Steady::now() - begin).count();
        EXPECT_GE(seconds, 0.4);
        EXPECT_LT(seconds, 1.5) << "it lasts as long as a frame";
    }
}

}  // namespace
