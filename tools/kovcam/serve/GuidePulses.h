// Pulses on the guide port. They end by themselves, on a thread of their own, so that a slow frame makes none longer.
#pragma once
#include <array>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stop_token>
#include <thread>

#include "KOVCamera2.h"
#include "kovcam/serve/Gate.h"

namespace kovserve {

// Any thread may call everything here; Attach and Detach are the camera's thread's.
class GuidePulses {
public:
    explicit GuidePulses(Gate& gate);

    void Attach(int id);           // of an open camera
    void Detach(bool forAMoment);  // before it is closed; for a moment: a pulse waits for it

    // A pulse on an axis ends the one that runs there; the other axis is left alone. Throws CommandError.
    void Start(KOV_GUIDE_DIRECTION direction, std::chrono::milliseconds length);
    bool AreRunning() const;

private:
    void Run(const std::stop_token& stop);
    void EndThoseDue();  // m_mutex is held
    std::chrono::steady_clock::time_point NextEnd() const;
    struct Pulse {
        bool on = false;
        KOV_GUIDE_DIRECTION direction{};
        std::chrono::steady_clock::time_point end{};
    };

    Gate& m_gate;
    mutable std::mutex m_mutex;  // may be held while the gate is waited for
    std::condition_variable_any m_wake;
    std::array<Pulse, 2> m_pulses;  // an axis each
    bool m_comesBack = false;
    int m_id = -1;
    std::jthread m_thread;
};

}  // namespace kovserve
