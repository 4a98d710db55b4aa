// A single exposure or a series of them, from what it changes on the camera to what the video gets back.
#pragma once
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "kovcam/serve/Board.h"
#include "kovcam/serve/Device.h"

namespace kovserve {

struct ExposureRequest {
    int64_t us = 0;
    Region region;  // width 0: the whole frame at this bin
    IMG_TYPE type = IMG_RAW16;
    std::optional<bool> highSpeed;
    int count = 1;
    // Exactly the region that was asked for, unflipped, also where the model takes only coarser ones.
    bool exact = false;
    // On the camera's thread, for each frame; and once at the end, with a text when it ended badly.
    std::function<void(const FramePtr&, int shot)> taken = [](const FramePtr&, int) {};
    std::function<void(const std::string& error)> ended = [](const std::string&) {};
};

// The camera's thread alone; the board tells how far it is.
class Exposure {
public:
    Exposure(Device& device, Board& board, ExposureRequest request);

    void Begin();  // throws CommandError; Restore is needed then too
    // What is next: starts a shot, or looks for its frame. The frame once it is there. Throws CommandError.
    std::shared_ptr<Frame> Step();
    bool IsOver() const { return m_shot >= m_request.count; }
    int Shot() const { return m_shot; }       // taken
    std::chrono::milliseconds Pause() const;  // until the next Step is of use
    const ExposureRequest& Request() const { return m_request; }
    // Takes out of a setup what the exposure has changed for itself.
    void Hide(Setup& setup, const Region& liveRegion, IMG_TYPE liveType) const;
    // Gives the camera back as it was; what it refuses is left.
    void Restore(const Region& liveRegion, IMG_TYPE liveType);

private:
    using Steady = std::chrono::steady_clock;
    void Change(KOV_CONTROL_TYPE control, int32_t value);
    Steady::duration Left() const { return std::chrono::microseconds(m_request.us) - (Steady::now() - m_start); }

    Device& m_device;
    Board& m_board;
    const ExposureRequest m_request;
    Device::Cut m_cut;
    int m_shot = 0;
    bool m_started = false;
    Steady::time_point m_start;
    Clock::time_point m_startUtc;
    struct Before {
        KOV_CONTROL_TYPE control;
        int32_t value;
        bool automatic;
    };
    std::vector<Before> m_before;
    std::optional<Before> m_liveExposure;
};

}  // namespace kovserve
