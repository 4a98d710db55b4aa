#include "kovcam/serve/Board.h"

#include <algorithm>
#include <utility>

namespace kovserve {

using namespace std::chrono_literals;

namespace {

constexpr size_t JOURNAL_LENGTH = 200;

}  // namespace

const char* NameOf(Phase phase)
{
    switch (phase) {
    case Phase::Absent: return "absent";
    case Phase::Closed: return "closed";
    case Phase::Opening: return "opening";
    case Phase::Idle: return "idle";
    case Phase::Live: return "live";
    case Phase::Exposing: return "exposing";
    case Phase::Downloading: return "downloading";
    case Phase::Failed: return "failed";
    }
    return "?";
}

const ControlState* Setup::Find(KOV_CONTROL_TYPE wanted) const
{
    const auto it = std::find_if(controls.begin(), controls.end(), [&](const ControlState& c) { return c.type == wanted; });
    return it == controls.end() ? nullptr : &*it;
}

StatePtr Board::GetState() const
{
    const std::lock_guard lock(m_mutex);
    return m_state;
}

void Board::Modify(const std::function<void(State&)>& change)
{
    const std::lock_guard lock(m_mutex);
    auto next = std::make_shared<State>(*m_state);
    change(*next);
    m_state = std::move(next);
    ++m_version;
}

KOV_CAMERA_INFO Board::Info() const
{
    const std::lock_guard lock(m_mutex);
    return m_info;
}

void Board::SetInfo(const KOV_CAMERA_INFO& info)
{
    const std::lock_guard lock(m_mutex);
    m_info = info;
}

kovtools::CameraState Board::Settings() const
{
    const std::lock_guard lock(m_mutex);
    return m_settings;
}

void Board::SetSettings(const kovtools::CameraState& settings)
{
    const std::lock_guard lock(m_mutex);
    m_settings = settings;
    if (!m_info.IsCooled || !settings.temperature)
        return;
    const auto now = Clock::now();
    if (m_cooling.empty() || now - m_cooling.back().when >= 2s)
        m_cooling.push_back({ now, *settings.temperature, settings.coolerPower.value_or(0), settings.target });
    while (m_cooling.front().when < now - 1h)
        m_cooling.pop_front();
}

std::vector<CoolingPoint> Board::Cooling() const
{
    const std::lock_guard lock(m_mutex);
    return { m_cooling.begin(), m_cooling.end() };
}

void Board::Publish(FramePtr frame)
{
    const std::lock_guard lock(m_mutex);
    m_newest = std::move(frame);
    m_newFrame.notify_all();
}

FramePtr Board::Newest() const
{
    const std::lock_guard lock(m_mutex);
    return m_newest;
}

FramePtr Board::WaitNewer(uint64_t after, std::chrono::milliseconds limit) const
{
    std::unique_lock lock(m_mutex);
    const auto isNew = [&] { return m_newest && m_newest->sequence > after; };
    m_newFrame.wait_for(lock, limit, [&] { return m_over || isNew(); });
    return !m_over && isNew() ? m_newest : nullptr;
}

void Board::Publish(StatisticsPtr statistics)
{
    const std::lock_guard lock(m_mutex);
    m_statistics = std::move(statistics);
    ++m_version;
}

StatisticsPtr Board::NewestStatistics() const
{
    const std::lock_guard lock(m_mutex);
    return m_statistics;
}

void Board::Note(const std::string& who, const std::string& what, const std::string& result)
{
    const std::lock_guard lock(m_mutex);
    m_journal.push_back({ ++m_journalNumber, Clock::now(), who, what, result });
    if (m_journal.size() > JOURNAL_LENGTH)
        m_journal.pop_front();
    ++m_version;
}

std::vector<JournalEntry> Board::Journal() const
{
    const std::lock_guard lock(m_mutex);
    return { m_journal.begin(), m_journal.end() };
}

void Board::End()
{
    const std::lock_guard lock(m_mutex);
    m_over = true;
    m_newFrame.notify_all();
}

}  // namespace kovserve
