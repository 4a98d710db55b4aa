#include "kovcam/serve/GuidePulses.h"

#include <algorithm>

#include "kovcam/serve/Frame.h"

namespace kovserve {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

GuidePulses::GuidePulses(Gate& gate) : m_gate(gate), m_thread([this](const std::stop_token& stop) { Run(stop); }) {}

void GuidePulses::Attach(int id)
{
    const std::lock_guard lock(m_mutex);
    m_id = id;
    m_comesBack = false;
    m_wake.notify_all();
}

void GuidePulses::Detach(bool forAMoment)
{
    const std::lock_guard lock(m_mutex);
    if (m_id >= 0) {
        const Gate::Shared inside(m_gate);
        for (const Pulse& pulse : m_pulses)
            if (pulse.on)
                KOVPulseGuideOff(m_id, pulse.direction);
    }
    m_id = -1;
    m_pulses = {};
    m_comesBack = forAMoment;
    m_wake.notify_all();
}

void GuidePulses::Start(KOV_GUIDE_DIRECTION direction, std::chrono::milliseconds length)
{
    std::unique_lock lock(m_mutex);
    m_wake.wait_for(lock, 3s, [this] { return m_id >= 0 || !m_comesBack; });
    if (m_id < 0)
        throw CommandError("the camera is not open");
    Pulse& pulse = m_pulses[static_cast<size_t>(direction >> 1)];
    const Gate::Shared inside(m_gate);
    if (pulse.on && pulse.direction != direction)
        KOVPulseGuideOff(m_id, pulse.direction);
    KOVPulseGuideOn(m_id, direction);
    pulse = { true, direction, Steady::now() + length };
    m_wake.notify_all();
}

bool GuidePulses::AreRunning() const
{
    const std::lock_guard lock(m_mutex);
    return m_pulses[0].on || m_pulses[1].on;
}

void GuidePulses::EndThoseDue()
{
    for (Pulse& pulse : m_pulses)
        if (pulse.on && pulse.end <= Steady::now()) {
            const Gate::Shared inside(m_gate);
            KOVPulseGuideOff(m_id, pulse.direction);
            pulse.on = false;
        }
}

Steady::time_point GuidePulses::NextEnd() const
{
    auto next = Steady::time_point::max();
    for (const Pulse& pulse : m_pulses)
        if (pulse.on)
            next = std::min(next, pulse.end);
    return next;
}

void GuidePulses::Run(const std::stop_token& stop)
{
    std::unique_lock lock(m_mutex);
    while (!stop.stop_requested()) {
        EndThoseDue();
        const auto next = NextEnd();
        const auto isOther = [&] { return NextEnd() != next; };
        if (next == Steady::time_point::max())
            m_wake.wait(lock, stop, isOther);
        else
            m_wake.wait_until(lock, stop, next, isOther);
    }
}

}  // namespace kovserve
