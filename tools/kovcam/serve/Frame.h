// What the engine publishes: frames, their statistics, and the state of a camera. All are immutable once published, so
// that any number of viewers reads them without a lock and without a copy.
#pragma once
#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Frame.h"
#include "common/Measure.h"

namespace kovserve {

using Clock = std::chrono::system_clock;

// What was asked for could not be carried out; the text tells why, for people.
class CommandError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One picture as the library delivered it, with what was in force. The region is on the unflipped sensor.
struct Frame : kovtools::CameraState {
    uint64_t sequence = 0;                          // counts the camera's frames from 1
    std::optional<BayerPattern> mosaic;             // cell at the first pixel of a raw colour frame, after region and flip
    Clock::time_point start, end;                   // of the exposure, as well as a host can tell
    std::chrono::steady_clock::time_point arrival;  // when the library handed it over
    int dropped = 0;                                // frames lost since the video began
    std::vector<uint8_t> pixels;

    kovtools::FrameView View() const { return { pixels.data(), width, height, type }; }
};
using FramePtr = std::shared_ptr<const Frame>;

struct Statistics {
    uint64_t sequence = 0;          // of the frame
    kovtools::FrameStatistics all;  // of all channels together
    kovtools::StarField field;
    std::vector<uint8_t> curve;  // the automatic stretch: from a sample to a byte of the screen
    int channels = 1;            // 1, or 3: red, green, blue
    struct Channel {
        std::array<uint32_t, 256> histogram{};
        double median = 0;
    };  // over the range of the samples
    std::array<Channel, 3> channel;
};
using StatisticsPtr = std::shared_ptr<const Statistics>;

enum class Phase { Absent, Closed, Opening, Idle, Live, Exposing, Downloading, Failed };
const char* NameOf(Phase phase);

struct ControlState {
    KOV_CONTROL_TYPE type{};
    std::string name, description;
    int32_t value = 0, min = 0, max = 0, standard = 0;
    bool automatic = false, canBeAutomatic = false, writable = false;
    bool operator==(const ControlState&) const = default;
};

struct Region {  // output pixels
    int x = 0, y = 0, width = 0, height = 0, bin = 1;
    bool operator==(const Region&) const = default;
};

// What a camera is set to.
struct Setup {
    Region region;
    IMG_TYPE type = IMG_RAW8;
    std::vector<ControlState> controls;
    bool darkInUse = false;
    std::string darkName;  // of its file, where it was chosen here
    bool hotPixelsOn = false;
    int hotPixels = 0;  // in the table that is in use
    bool operator==(const Setup&) const = default;

    const ControlState* Find(KOV_CONTROL_TYPE type) const;
};

// Everything that a client can ask about a camera without disturbing it.
struct State : Setup {
    Phase phase = Phase::Closed;
    std::string problem;  // of phase Failed or Absent: what to do, in words
    double framesPerSecond = 0;
    int64_t frames = 0, dropped = 0;
    int darkDone = 0, darkFrames = 0;  // of a dark frame that is being collected; 0 frames: none is
    // A single exposure or a series.
    int64_t exposureUs = 0;
    int shot = 0, shots = 0;
    std::chrono::steady_clock::time_point exposureStart{};
    // A recording.
    bool recording = false;
    std::string recordingPath;
    int64_t recordedFrames = 0, recordedBytes = 0, recordingLost = 0;  // lost: the disk was too slow
    std::optional<double> temperature, coolerPower;
    bool coolerOn = false;
};
// A point of the cooler's course.
struct CoolingPoint {
    Clock::time_point when;
    double temperature = 0, power = 0;
    std::optional<double> target;
};
using StatePtr = std::shared_ptr<const State>;

// A line of what was asked of a camera and how it ended.
struct JournalEntry {
    uint64_t number = 0;
    Clock::time_point when;
    std::string who, what, result;  // result is empty when it went well
};

}  // namespace kovserve
