// SER video, version 3: frames as they come, then a time stamp for each.
#pragma once
#include <fstream>
#include <memory>
#include <string>

#include "common/Files.h"
#include "common/Frame.h"
#include "common/FrameClock.h"

namespace kovtools {

// Every frame has the shape that `state` tells. The file takes its name at Finish; a writer that is destroyed without it
// leaves nothing. All throw std::runtime_error.
class SerWriter {
public:
    SerWriter(const std::string& path, const CameraState& state);
    // Stamps are FrameClock's, of the start of the exposure. dropped and exposure as there.
    void Add(const FrameView& frame, FrameClock::Steady::time_point arrival, int dropped, double exposure);
    int Frames() const { return static_cast<int>(m_clock.Size()); }
    void Finish();  // writes the stamps, completes the head

private:
    void Head(int frames, FrameClock::Time start);
    CameraState m_state;
    std::string m_path;
    std::unique_ptr<WholeFile> m_whole;
    std::ofstream m_file;
    FrameClock m_clock;
};

}  // namespace kovtools
