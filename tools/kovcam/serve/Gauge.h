// Measures the newest frame beside the video, on a thread of its own.
#pragma once
#include <stop_token>
#include <thread>

#include "kovcam/serve/Board.h"

namespace kovserve {

class Gauge {
public:
    explicit Gauge(Board& board);  // goes after the board's end
    Gauge(const Gauge&) = delete;
    Gauge& operator=(const Gauge&) = delete;

private:
    void Run(const std::stop_token& stop);

    Board& m_board;
    std::jthread m_thread;
};

}  // namespace kovserve
