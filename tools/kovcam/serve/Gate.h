// Looking for cameras, opening and closing must not overlap with other calls of the library.
#pragma once
#include <condition_variable>
#include <mutex>
#include <vector>

namespace kovserve {

// Whoever wants to be alone waits until the others have left, and they do not come in before it is done. Not to be entered
// twice by one thread.
class Gate {
public:
    class Shared {
    public:
        explicit Shared(Gate& gate);
        ~Shared();
        Shared(const Shared&) = delete;
        Shared& operator=(const Shared&) = delete;

    private:
        Gate& m_gate;
    };
    class Alone {
    public:
        explicit Alone(Gate& gate);
        ~Alone();
        Alone(const Alone&) = delete;
        Alone& operator=(const Alone&) = delete;

        // IDs whose object could not be closed, because the bus had fewer cameras by then. They can be when it has as many again.
        std::vector<int>& Stuck() const { return m_gate.m_stuck; }

    private:
        Gate& m_gate;
    };

private:
    std::mutex m_mutex;
    std::condition_variable m_change;
    int m_inside = 0, m_waiting = 0;
    bool m_alone = false;
    std::vector<int> m_stuck;  // whoever is alone
};

}  // namespace kovserve
