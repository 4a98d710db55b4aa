// When the frames of a video were taken.
#pragma once
#include <chrono>
#include <cstdint>
#include <vector>

namespace kovtools {

// Cameras send frames without a time. What a program sees is when it got them, and a loaded machine gets them late, several
// at once even. While nothing is changed a camera sends at an even pace, and no frame is seen before it was sent: so the
// stamps are the straight line through number and arrival that lies below all arrivals and closest to them. A change of the
// exposure, or a pause that frames went missing in without being counted, begins a new line.
class FrameClock {
public:
    using Steady = std::chrono::steady_clock;
    using Time = std::chrono::system_clock::time_point;

    // dropped: frames lost since the capture began, as the library counts them. exposure in seconds.
    void Add(Steady::time_point arrival, int dropped, double exposure);
    size_t Size() const { return m_frames.size(); }
    // Start of each frame's exposure; strictly increasing.
    std::vector<Time> Starts() const;

private:
    struct Frame {
        double arrival;
        int64_t number;
        double exposure;
    };  // s since the first
    // Arrival of each frame of [first, last) on the line of that stretch.
    void Fit(size_t first, size_t last, std::vector<double>& line) const;
    bool BeginsAnew(size_t i, double usual) const;

    Time m_zero{};
    Steady::time_point m_first{};
    std::vector<Frame> m_frames;
};

}  // namespace kovtools
