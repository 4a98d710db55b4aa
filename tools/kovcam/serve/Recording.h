// A video on its way into a file: a queue between the camera's thread and the disk.
#pragma once
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

#include "kovcam/serve/Board.h"

namespace kovserve {

// A file that takes each frame.
class Recorder {
public:
    virtual ~Recorder() = default;
    virtual void Write(const Frame& frame) = 0;  // throws std::runtime_error
    virtual void Close() = 0;                    // throws std::runtime_error
};

// One recording at a time. The file is opened, written and closed on a thread of its own; the board tells how far it is.
class Recording {
public:
    using OpenFile = std::function<std::unique_ptr<Recorder>(const Frame& first)>;

    explicit Recording(Board& board);
    ~Recording();  // what is queued is written
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    // The camera's thread.
    void Start(const std::string& path, OpenFile open);  // throws CommandError when one runs
    void Offer(const FramePtr& frame);                   // lost when the disk is too slow
    void Finish();                                       // waits until the file is whole

private:
    enum class Phase { Off, On, Ending };
    void Run(const std::stop_token& stop);
    void Write(const FramePtr& frame);
    void CloseFile(std::string error);

    Board& m_board;
    std::mutex m_mutex;  // guards what follows
    std::condition_variable_any m_wake;
    Phase m_phase = Phase::Off;
    std::deque<FramePtr> m_queue;
    OpenFile m_open;
    std::string m_path;

    std::unique_ptr<Recorder> m_file;  // the recording's thread alone
    std::jthread m_thread;
};

}  // namespace kovserve
