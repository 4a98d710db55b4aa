// All cameras of this machine, those that were here and may come back included.
#pragma once
#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "kovcam/serve/Engine.h"

namespace kovserve {

// A camera's ID is its place in the last enumeration of the bus. One that finds fewer cameras takes the IDs of the last ones
// away, also while they are open; and a camera that comes back may stand anywhere. So the bus is looked at only after every
// open camera has given a sign of life, those behind one that has gone are closed first and opened at their new places, and
// all are closed when the look leaves it open who is who. Cameras that expose, record or guide are never closed for that.
class Observatory {
public:
    Observatory();
    ~Observatory();
    Observatory(const Observatory&) = delete;
    Observatory& operator=(const Observatory&) = delete;

    using Engines = std::vector<std::shared_ptr<CameraEngine>>;
    Engines Cameras() const;                                 // a camera keeps its place in the list
    std::shared_ptr<CameraEngine> Find(size_t index) const;  // null when there is none

private:
    void Run();
    enum class Next { Later, Soon };  // Soon: something must be looked at, but not now
    Next Look();
    bool AllAnswer(const Engines& cameras);
    bool Rest(const Engines& cameras);
    void Enumerate(const Engines& open);
    bool IsClear(const Engines& open) const;
    void Place(const Engines& open);
    void LookSoon();
    bool IsStopping() const;

    Gate m_gate;
    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    Engines m_cameras;
    bool m_stop = false, m_asked = false;

    // The observatory's thread alone.
    int m_count = -1;                     // of the last enumeration
    std::map<int, std::string> m_models;  // of the places where no open camera stands
    bool m_unclear = false;               // all had to be closed to tell who is who, and could not be
    std::thread m_thread;
};

}  // namespace kovserve
