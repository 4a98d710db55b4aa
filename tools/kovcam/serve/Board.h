// What the owner of a camera publishes, for any number of viewers. Any thread may call everything here.
#pragma once
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

#include "kovcam/serve/Frame.h"

namespace kovserve {

class Board {
public:
    StatePtr GetState() const;
    void Modify(const std::function<void(State&)>& change);
    KOV_CAMERA_INFO Info() const;
    void SetInfo(const KOV_CAMERA_INFO& info);
    kovtools::CameraState Settings() const;
    void SetSettings(const kovtools::CameraState& settings);  // of a cooled camera also a point of the cooler's course
    std::vector<CoolingPoint> Cooling() const;                // of the last hour, oldest first

    void Publish(FramePtr frame);
    FramePtr Newest() const;
    // The newest frame if it is newer than `after`, else waits for one; null after `limit`, and at the end.
    FramePtr WaitNewer(uint64_t after, std::chrono::milliseconds limit) const;
    void Publish(StatisticsPtr statistics);
    StatisticsPtr NewestStatistics() const;

    void Note(const std::string& who, const std::string& what, const std::string& result);  // result: empty when it went well
    std::vector<JournalEntry> Journal() const;

    uint64_t Version() const { return m_version.load(); }  // changes whenever state, statistics or journal do
    void End();                                            // nobody waits here any more

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_newFrame;
    KOV_CAMERA_INFO m_info{};
    kovtools::CameraState m_settings;
    StatePtr m_state = std::make_shared<State>();
    FramePtr m_newest;
    StatisticsPtr m_statistics;
    std::deque<JournalEntry> m_journal;
    uint64_t m_journalNumber = 0;
    std::deque<CoolingPoint> m_cooling;
    bool m_over = false;
    std::atomic<uint64_t> m_version{ 1 };
};

}  // namespace kovserve
