#include "kovcam/serve/Gauge.h"

#include <algorithm>

#include "kovcam/serve/Measure.h"

namespace kovserve {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

Gauge::Gauge(Board& board) : m_board(board), m_thread([this] { Run(); }) {}

Gauge::~Gauge()
{
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
        m_wake.notify_all();
    }
    m_thread.join();
}

void Gauge::Run()
{
    uint64_t last = 0;
    std::unique_lock lock(m_mutex);
    while (!m_stop) {
        lock.unlock();
        const FramePtr frame = m_board.WaitNewer(last, 1s);
        const auto begin = Steady::now();
        if (frame) {
            last = frame->sequence;
            try {
                m_board.Publish(Measure(*frame));
            } catch (const std::exception&) {
                // out of memory: the next frame is measured
            }
        }
        lock.lock();
        // At most five a second, and never more than a third of a core.
        const auto pause = std::max<Steady::duration>(200ms, 2 * (Steady::now() - begin));
        m_wake.wait_for(lock, pause, [this] { return m_stop; });
    }
}

}  // namespace kovserve
