// The sensor's side of a virtual camera: when frames are exposed and read out, and how they enter the bridge's FIFO.
#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "virtual/Camera.h"

namespace kovsim {
namespace {

constexpr double MIN_PERIOD_US = 200;      // registers that ask for less contradict themselves
constexpr double SLOW_US = 500000;         // real time that a run must lose before that is worth a word
constexpr double SLOW_SHARE = 0.1;         // and of the run
constexpr uint32_t TRANSFER_UNIT = 49152;  // of request 181

void Put16(uint8_t* p, unsigned v)
{
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}

void Put32(uint8_t* p, uint32_t v)
{
    Put16(p, v & 0xFFFF);
    Put16(p + 2, v >> 16);
}

}  // namespace

double Camera::PeriodUs(const Readout& r) const
{
    double us = std::max({ r.dFrameUs, r.dExposureUs, MIN_PERIOD_US });
    if (m_settings.dLinkMBs > 0)
        us = std::max(us, FrameBytes(r) / m_settings.dLinkMBs);
    return us;
}

// The thread of the sensor. A frame takes its registers when its exposure begins (a held one when it is released), is
// computed while it is being exposed, and enters the FIFO when its read-out is over. A machine that computes too slowly
// makes the camera slower; it loses no frame for that.
void Camera::SensorThread()
{
    enum class Phase { Idle, Expose, Held, ReadOut } phase = Phase::Idle;
    Lock lock(m_mutex);
    Readout r;
    std::shared_ptr<const std::vector<uint8_t>> pixels;
    double start = 0, end = 0;  // of the exposure in work
    double counted = 0;         // of it before the clock stopped
    uint64_t plug = 0, stops = 0;

    const auto sleepUntil = [&](double us) { m_wake.wait_until(lock, m_clock.RealTime(us)); };
    const auto begin = [&](double at) {
        phase = Phase::Expose;
        r = m_now;
        plug = m_uPlug;
        stops = m_uStops;
        start = at;
        end = start + PeriodUs(r);
        pixels = Develop(lock, r, r.dExposureUs);
    };

    while (!m_bQuit) {
        if (m_slow == Slow::Seen)
            TellSlow(lock);
        if (!m_bPresent) {
            phase = Phase::Idle;
            if (m_dReturnAt < 0) {
                m_wake.wait(lock);
            } else if (m_clock.Now() < m_dReturnAt) {
                sleepUntil(m_dReturnAt);
            } else {
                Boot();
                PlugIn();
            }
            continue;
        }
        const bool on = m_now.bStreaming, held = m_now.bHeld;
        // Streaming ended, if only for a moment: the exposure in work is lost. A hold survives it, since some
        // cameras put the sensor's output to sleep meanwhile.
        if (plug != m_uPlug || (phase != Phase::Held && stops != m_uStops))
            phase = Phase::Idle;
        switch (phase) {
        case Phase::Idle:
            plug = m_uPlug;
            stops = m_uStops;
            counted = 0;
            m_uRunFrames = 0;
            m_dRunLostUs = 0;
            if (held)
                phase = Phase::Held;
            else if (on) {
                // The scene may still have been in work when the host began.
                if (m_dStreamAt >= 0)
                    CountLate(m_clock.Now() - std::exchange(m_dStreamAt, -1), PeriodUs(m_now));
                begin(m_clock.Now());
            } else if (m_bUsed && m_prepared != m_scene)
                Prepare(lock);
            else
                m_wake.wait(lock);
            break;
        case Phase::Expose:
            if (held) {
                counted = std::max(0.0, m_dHeldAt - start);
                phase = Phase::Held;
            } else if (m_clock.Now() < end) {
                sleepUntil(end);
            } else {
                Emit(std::move(pixels));
                // What came late is made up for, as long as it is less than a frame.
                const double now = m_clock.Now(), period = PeriodUs(r);
                CountLate(now - end, period);
                begin(now - end < period ? end : now);
            }
            break;
        case Phase::Held:
            if (held) {
                m_wake.wait(lock);
            } else if (!on) {
                phase = Phase::Idle;
            } else {
                r = m_now;
                stops = m_uStops;
                const double whole = std::max(0.0, m_dReleasedAt - m_dHeldAt) + r.dAfterHoldUs;
                // Where the release ends the exposure the rows are read out; where a clock was stopped the rest of the
                // frame follows.
                end = m_dReleasedAt + (r.dAfterHoldUs > 0
                                           ? std::max(0.0, r.dAfterHoldUs - counted) + std::max(0.0, r.dFrameUs - r.dExposureUs)
                                       : r.dReadoutUs > 0 ? r.dReadoutUs
                                                          : r.dFrameUs);
                phase = Phase::ReadOut;
                pixels = Develop(lock, r, whole);
            }
            break;
        case Phase::ReadOut:
            if (m_clock.Now() < end) {
                sleepUntil(end);
            } else {
                CountLate(m_clock.Now() - end, PeriodUs(r));
                m_dStreamAt = -1;  // a stream that began held has had its first exposure
                Emit(std::move(pixels));
                phase = Phase::Idle;
            }
            break;
        }
    }
}

void Camera::CountLate(double lateUs, double periodUs)
{
    ++m_uRunFrames;
    if (lateUs < periodUs)
        return;
    m_dRunLostUs += lateUs;
    const double due = double(m_uRunFrames) * periodUs;
    if (m_slow != Slow::No || m_dRunLostUs < SLOW_US * m_clock.Rate() || m_dRunLostUs < SLOW_SHARE * due)
        return;
    m_slow = Slow::Seen;
    m_dAskedRate = 1e6 / periodUs;
    m_dSlowRate = double(m_uRunFrames) * 1e6 / (due + m_dRunLostUs);
}

void Camera::TellSlow(Lock& lock)
{
    m_slow = Slow::Told;
    if (!m_settings.onSlow)
        return;
    const double rate = m_dSlowRate, asked = m_dAskedRate;
    lock.unlock();
    m_settings.onSlow(m_facts, rate, asked);
    lock.lock();
}

void Camera::Prepare(Lock& lock)
{
    MoveGuide();
    const auto scene = m_prepared = m_scene;
    const double x = m_dGuideX, y = m_dGuideY;
    lock.unlock();
    m_imager.Prepare(scene, x, y);
    lock.lock();
}

std::shared_ptr<const std::vector<uint8_t>> Camera::Develop(Lock& lock, const Readout& r, double exposureUs)
{
    MoveGuide();
    const Imager::Shot shot{ exposureUs, Celsius(), m_dGuideX, m_dGuideY, m_uFrame++ };
    const auto scene = m_prepared = m_scene;
    const bool tell = !r.bValid && (!m_bNoise || m_sContradiction != r.sWhy) && m_settings.onNoise;
    m_bNoise = !r.bValid;
    if (m_bNoise) {
        ++m_counters.uContradicted;
        m_sContradiction = r.sWhy;
    }
    lock.unlock();
    if (tell)
        m_settings.onNoise(m_facts, r.sWhy);
    auto pixels = m_pool->Take();
    m_imager.Expose(r, shot, scene, *pixels);
    lock.lock();
    return pixels;
}

void Camera::Emit(std::shared_ptr<const std::vector<uint8_t>> pixels)
{
    // What the host has not fetched of the older frames by now must fit into the FIFO; what does not is gone, newest first.
    uint64_t waiting = 0;
    for (const FrameInFlight& f : m_frames)
        waiting += f.uSize - f.uSent;
    while (waiting > FIFO_BYTES && !m_frames.empty()) {
        FrameInFlight& f = m_frames.back();
        const uint32_t cut = uint32_t(std::min<uint64_t>(waiting - FIFO_BYTES, f.uSize - f.uSent));
        f.uSize -= cut;
        waiting -= cut;
        if (f.bGood && !f.bStall)
            ++m_counters.uSpoiled;
        f.bGood = false;
        if (f.uSize == f.uSent)
            m_frames.pop_back();
    }

    FrameInFlight f;
    f.uFull = f.uSize = uint32_t(pixels->size());
    f.pixels = std::move(pixels);
    if (f.uFull < 8)
        return;  // the marks would not fit on it
    ++m_counters.uStarted;

    // Frame faults first: their count runs by frames.
    const auto fault = [this](FaultKind kind, uint32_t* puArg = nullptr) { return TakeFault(kind, nullptr, puArg); };
    if (fault(FaultKind::StallBulk)) {
        FrameInFlight stall;
        stall.bStall = true;
        m_frames.push_back(stall);
        ++m_counters.uSpoiled;
        m_bus.Pump();
        return;
    }
    bool send = true;
    uint32_t missing = 0;
    if (fault(FaultKind::NoFrame))
        send = false;
    if (fault(FaultKind::ShortFrame, &missing)) {
        f.uSize -= std::min(missing, f.uSize);
        f.bGood = false;
    }
    const bool badHead = fault(FaultKind::BadHead), badTail = fault(FaultKind::BadTail), badTag = fault(FaultKind::BadTag);
    f.bGood = f.bGood && !badHead && !badTail && !badTag;

    const uint16_t tag = ++m_wTag;
    switch (m_facts.marks) {
    case Marks::A:
        Put16(f.head, badHead ? 0x7E5A : 0x5A7E);
        Put16(f.head + 2, tag);
        Put16(f.tail, badTag ? tag ^ 0x5555u : tag);
        Put16(f.tail + 2, badTail ? 0xF03C : 0x3CF0);
        f.uHead = f.uTail = 4;
        break;
    case Marks::BTail:
        Put32(f.tail, badTail ? 0xBB00AA11 : 0x11AA00BB);
        f.uTail = 4;
        [[fallthrough]];
    case Marks::B:
        Put32(f.head, badHead ? 0x11AA00BB : 0xBB00AA11);
        f.uHead = 4;
        break;
    }

    // These bridges end a frame after the count of units that the host has told; a wrong count cuts it at a unit.
    const uint32_t units = (f.uFull + TRANSFER_UNIT - 1) / TRANSFER_UNIT;
    if (m_facts.marks == Marks::BTail && m_uTransferCount != units) {
        f.uSize = std::min(f.uSize, std::min(m_uTransferCount, f.uFull / TRANSFER_UNIT) * TRANSFER_UNIT);
        f.bGood = false;
    }
    if (!send || f.uSize == 0) {
        ++m_counters.uSpoiled;
        m_counters.uWithheld += !send;
        return;
    }
    if (f.bGood) {
        for (Fault& x : m_faults)
            if (x.kind < FaultKind::SlowControl && x.uAfterFrames)
                --x.uAfterFrames;
    } else {
        ++m_counters.uSpoiled;
    }
    m_frames.push_back(std::move(f));
    m_bus.Pump();
}

}  // namespace kovsim
