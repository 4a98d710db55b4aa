#include "kovcam/serve/Recording.h"

#include <fmt/format.h>

#include <utility>

namespace kovserve {

namespace {

constexpr size_t QUEUE = 32;  // frames that wait for the disk before some are dropped

}  // namespace

Recording::Recording(Board& board) : m_board(board), m_thread([this](const std::stop_token& stop) { Run(stop); }) {}

Recording::~Recording() { Finish(); }

void Recording::Start(const std::string& path, OpenFile open)
{
    const std::lock_guard lock(m_mutex);
    if (m_phase != Phase::Off)
        throw CommandError("a recording runs already");
    m_phase = Phase::On;
    m_open = std::move(open);
    m_path = path;
    m_board.Modify([&](State& s) {
        s.recording = true;
        s.recordingPath = path;
        s.recordedFrames = s.recordedBytes = s.recordingLost = 0;
    });
}

void Recording::Offer(const FramePtr& frame)
{
    const std::lock_guard lock(m_mutex);
    if (m_phase != Phase::On)
        return;
    if (m_queue.size() >= QUEUE) {
        m_board.Modify([](State& s) { ++s.recordingLost; });
        return;
    }
    m_queue.push_back(frame);
    m_wake.notify_all();
}

void Recording::Finish()
{
    std::unique_lock lock(m_mutex);
    if (m_phase == Phase::On)
        m_phase = Phase::Ending;
    m_wake.notify_all();
    m_wake.wait(lock, [this] { return m_phase == Phase::Off; });
}

void Recording::Run(const std::stop_token& stop)
{
    std::unique_lock lock(m_mutex);
    while (m_wake.wait(lock, stop, [this] { return m_phase == Phase::Ending || !m_queue.empty(); })) {
        const FramePtr frame = m_queue.empty() ? nullptr : m_queue.front();
        if (frame)
            m_queue.pop_front();
        std::string error;
        lock.unlock();
        try {
            if (frame)
                Write(frame);
        } catch (const std::exception& e) {
            error = e.what();
        }
        const bool over = !frame || !error.empty();
        if (over)
            CloseFile(std::move(error));
        lock.lock();
        if (over) {
            m_queue.clear();
            m_phase = Phase::Off;
            m_wake.notify_all();
        }
    }
}

void Recording::Write(const FramePtr& frame)
{
    if (!m_file)
        m_file = m_open(*frame);
    m_file->Write(*frame);
    m_board.Modify([&](State& s) {
        ++s.recordedFrames;
        s.recordedBytes += static_cast<int64_t>(frame->pixels.size());
    });
}

void Recording::CloseFile(std::string error)
{
    try {
        if (m_file)
            m_file->Close();
    } catch (const std::exception& e) {
        error = error.empty() ? e.what() : error;
    }
    m_file.reset();
    m_board.Modify([&](State& s) {
        s.recording = false;
        if (!error.empty())
            s.problem = error;
    });
    m_board.Note("camera", fmt::format("recorded {}", m_path), error);
}

}  // namespace kovserve
