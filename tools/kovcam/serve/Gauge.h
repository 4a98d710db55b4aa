// Measures the newest frame beside the video, on a thread of its own.
#pragma once
#include <condition_variable>
#include <mutex>
#include <thread>

#include "kovcam/serve/Board.h"

namespace kovserve {

class Gauge {
public:
    explicit Gauge(Board& board);
    ~Gauge();  // after the board's end
    Gauge(const Gauge&) = delete;
    Gauge& operator=(const Gauge&) = delete;

private:
    void Run();

    Board& m_board;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::thread m_thread;
};

}  // namespace kovserve
