#include "kovcam/serve/Gate.h"

namespace kovserve {

Gate::Shared::Shared(Gate& gate) : m_gate(gate)
{
    std::unique_lock lock(m_gate.m_mutex);
    m_gate.m_change.wait(lock, [this] { return !m_gate.m_alone && m_gate.m_waiting == 0; });
    ++m_gate.m_inside;
}

Gate::Shared::~Shared()
{
    const std::lock_guard lock(m_gate.m_mutex);
    --m_gate.m_inside;
    m_gate.m_change.notify_all();
}

Gate::Alone::Alone(Gate& gate) : m_gate(gate)
{
    std::unique_lock lock(m_gate.m_mutex);
    ++m_gate.m_waiting;
    m_gate.m_change.wait(lock, [this] { return !m_gate.m_alone && m_gate.m_inside == 0; });
    --m_gate.m_waiting;
    m_gate.m_alone = true;
}

Gate::Alone::~Alone()
{
    const std::lock_guard lock(m_gate.m_mutex);
    m_gate.m_alone = false;
    m_gate.m_change.notify_all();
}

}  // namespace kovserve
