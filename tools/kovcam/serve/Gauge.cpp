#include "kovcam/serve/Gauge.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>

#include "kovcam/serve/Measure.h"

namespace kovserve {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

Gauge::Gauge(Board& board) : m_board(board), m_thread([this](const std::stop_token& stop) { Run(stop); }) {}

void Gauge::Run(const std::stop_token& stop)
{
    std::mutex mutex;
    std::condition_variable_any pause;
    std::unique_lock lock(mutex);
    for (uint64_t last = 0; !stop.stop_requested();) {
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
        // At most five a second, and never more than a third of a core.
        pause.wait_for(lock, stop, std::max<Steady::duration>(200ms, 2 * (Steady::now() - begin)), [] { return false; });
    }
}

}  // namespace kovserve
