#include "kovcam/serve/Exposure.h"

#include <cmath>
#include <utility>

namespace kovserve {

using namespace std::chrono_literals;

Exposure::Exposure(Device& device, Board& board, ExposureRequest request)
    : m_device(device), m_board(board), m_request(std::move(request))
{
}

// Where the camera has the control, and only if it stands otherwise.
void Exposure::Change(KOV_CONTROL_TYPE control, int32_t value)
{
    if (!m_device.Find(control))
        return;
    bool automatic = false;
    const int32_t before = m_device.Get(control, &automatic);
    if (before == value && !automatic)
        return;
    m_before.push_back({ control, before, automatic });
    m_device.Set(control, value);
}

void Exposure::Begin()
{
    m_device.StopVideo();
    if (m_request.exact) {
        Change(CTRL_FLIP, 0);
        // Cameras add the charges of a bin up where the library takes the mean: a bin is to mean the same at every region.
        Change(CTRL_HARDWARE_BIN, 0);
    }
    if (m_request.highSpeed)
        Change(CTRL_HIGH_SPEED_MODE, *m_request.highSpeed ? 1 : 0);
    if (m_request.exact)
        m_cut = m_device.ApplyExact(m_request.region, m_request.type);
    else
        m_device.ApplyRegion(m_request.region, m_request.type);
    bool automatic = false;
    const int32_t exposure = m_device.Get(CTRL_EXPOSURE, &automatic);
    m_liveExposure = { CTRL_EXPOSURE, exposure, automatic };
    m_device.Set(CTRL_EXPOSURE, static_cast<int32_t>(m_request.us));
    m_board.Modify([&](State& s) {
        s.phase = Phase::Exposing;
        s.exposureUs = m_request.us;
        s.shots = m_request.count;
        s.shot = 0;
        s.exposureStart = Steady::now();
        s.framesPerSecond = 0;
        s.problem.clear();
    });
}

std::shared_ptr<Frame> Exposure::Step()
{
    if (!m_started) {
        m_device.StartExposure();
        m_started = true;
        m_start = Steady::now();
        m_startUtc = Clock::now();
        m_board.Modify([&](State& s) {
            s.phase = Phase::Exposing;
            s.shot = m_shot + 1;
            s.exposureStart = m_start;
        });
    }
    switch (m_device.ExposureStatus()) {
    case EXP_WORKING:
        // The library waits for ever for a camera that has gone silent.
        if (Left() < -30s)
            throw CommandError("no frame came within 30 s of the exposure's end. Check cable and port");
        return nullptr;
    case EXP_SUCCESS: break;
    default: throw CommandError("the exposure failed. Check cable and port");
    }
    m_board.Modify([](State& s) { s.phase = Phase::Downloading; });
    std::shared_ptr<Frame> frame = m_device.FetchExposure();
    frame->start = m_startUtc;
    frame->end = m_startUtc + std::chrono::microseconds(std::llround(frame->exposure * 1e6));
    if (m_request.exact)
        CutFrame(*frame, m_cut);
    ++m_shot;
    m_started = false;
    return frame;
}

std::chrono::milliseconds Exposure::Pause() const { return Left() > 100ms ? 20ms : 2ms; }

void Exposure::Hide(Setup& setup, const Region& liveRegion, IMG_TYPE liveType) const
{
    setup.region = liveRegion;
    setup.type = liveType;
    const auto hide = [&](const Before& b) {
        for (ControlState& c : setup.controls)
            if (c.type == b.control) {
                c.value = b.value;
                c.automatic = b.automatic;
            }
    };
    for (const Before& b : m_before)
        hide(b);
    if (m_liveExposure)
        hide(*m_liveExposure);
}

void Exposure::Restore(const Region& liveRegion, IMG_TYPE liveType)
{
    if (m_started)
        m_device.StopExposure();
    const auto giveBack = [this](const Before& b) {
        try {
            m_device.Set(b.control, b.value, b.automatic);
        } catch (const CommandError&) {
        }
    };
    for (const Before& b : m_before)
        giveBack(b);
    try {
        m_device.ApplyRegion(liveRegion, liveType);
    } catch (const CommandError&) {
    }
    if (m_liveExposure)
        giveBack(*m_liveExposure);
}

}  // namespace kovserve
