// The engine room of `kovcam serve`: one owner a camera. Its thread alone opens the camera, sets it and takes frames;
// viewers get what it publishes. A slow viewer skips frames and holds nobody up.
#pragma once
#include <atomic>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kovcam/serve/Frame.h"

namespace kovserve {

// A command that could not be carried out; the text tells why, for people.
class CommandError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Looking for cameras, opening and closing must not overlap with other calls of the library. Whoever wants that waits
// until the others have left, and they do not come in before it is done.
class Gate {
public:
    class Shared {
    public:
        explicit Shared(Gate& gate);
        ~Shared();
        Shared(const Shared&) = delete;
        Shared& operator=(const Shared&) = delete;

    private:
        Gate& m_gate;
    };
    class Alone {
    public:
        explicit Alone(Gate& gate);
        ~Alone();
        Alone(const Alone&) = delete;
        Alone& operator=(const Alone&) = delete;

    private:
        Gate& m_gate;
    };

private:
    std::mutex m_mutex;
    std::condition_variable m_change;
    int m_inside = 0, m_waiting = 0;
    bool m_alone = false;
};

struct ExposureRequest {
    int64_t us = 0;
    Region region;               // width 0: the whole frame at this bin
    IMG_TYPE type = IMG_RAW16;
    std::optional<bool> highSpeed;
    int count = 1;
    // Exactly the region that was asked for, unflipped, also where the model takes only coarser ones.
    bool exact = false;
    // On the camera's thread, for each frame; and once at the end, with a text when it ended badly.
    std::function<void(const FramePtr&, int shot)> taken;
    std::function<void(const std::string& error)> ended;
};

// A file that takes each frame of the video.
class Recorder {
public:
    virtual ~Recorder() = default;
    virtual void Write(const Frame& frame) = 0;  // throws std::runtime_error
    virtual void Close() = 0;                    // throws std::runtime_error
};

class Observatory;

// Any thread may call everything here.
class CameraEngine {
public:
    CameraEngine(Observatory& observatory, std::string key);
    ~CameraEngine();
    CameraEngine(const CameraEngine&) = delete;
    CameraEngine& operator=(const CameraEngine&) = delete;

    const std::string& Key() const { return m_key; }  // model and count; the same after a restart
    KOV_CAMERA_INFO Info() const;
    StatePtr GetState() const;
    kovtools::CameraState Settings() const;  // as of the last look, at most half a second old
    FramePtr Newest() const;
    // The newest frame if it is newer than `after`, else waits for one; null after `limit`. Keeps the video running.
    FramePtr WaitNewer(uint64_t after, std::chrono::milliseconds limit);
    StatisticsPtr NewestStatistics() const;
    std::vector<JournalEntry> Journal() const;
    std::vector<CoolingPoint> Cooling() const;  // of the last hour, oldest first
    // Changes whenever state, statistics or journal do.
    uint64_t Version() const { return m_version.load(); }

    // Each waits until it is done and throws CommandError. `who` goes into the journal.
    void SetControl(const std::string& who, KOV_CONTROL_TYPE type, int32_t value, bool automatic);
    void SetRegion(const std::string& who, const Region& region, IMG_TYPE type);
    void SetVideo(const std::string& who, bool on);
    void StartRecording(const std::string& who, const std::string& path,
                        const std::function<std::unique_ptr<Recorder>(const Frame& first)>& open);
    void StopRecording(const std::string& who);
    void UseDark(const std::string& who, const std::filesystem::path& path);  // empty: none
    // Collects a dark frame of the whole sensor while the video runs, at the exposure that is set; `made` is called on the
    // camera's thread. Abort ends it without a file.
    void TakeDark(const std::string& who, const std::filesystem::path& path,
                  const std::function<void(const std::filesystem::path&, const std::string& text)>& made);
    void HotPixels(const std::string& who, const std::string& what);  // "load", "off" or "save"

    // Returns once the exposure is accepted; throws CommandError when another runs.
    void StartExposure(const std::string& who, ExposureRequest request);
    void Abort(const std::string& who);

    // The pulse ends by itself. A pulse on an axis ends the one that runs there; the other axis is left alone.
    void PulseGuide(const std::string& who, KOV_GUIDE_DIRECTION direction, std::chrono::milliseconds length);
    bool IsPulseGuiding() const;

private:
    friend class Observatory;
    struct Command {
        std::string who, what;
        std::function<void()> work;
        std::shared_ptr<std::promise<void>> done;
    };
    struct Job;
    class FramePool;

    void Post(const std::string& who, const std::string& what, std::function<void()> work, bool wait);
    void Note(const std::string& who, const std::string& what, const std::string& result);
    void Touch() { ++m_version; }

    // The camera's thread.
    void Run();
    void Step();
    void RunCommands();
    void Open();
    void Close();
    void StepLive();
    void StartVideo();
    void StopVideo();
    void BeginJob();
    void StepJob();
    void EndJob(const std::string& error);
    void FetchShot();
    void ApplyRegion(const Region& region, IMG_TYPE type);
    Region ActualRegion(IMG_TYPE* type) const;
    void ApplyExact(const ExposureRequest& request);
    void CutExact(Frame& frame) const;
    std::shared_ptr<Frame> NewFrame();
    void Publish(std::shared_ptr<Frame> frame);
    void Refresh(bool force);
    void Modify(const std::function<void(State&)>& change);
    void Fail(const std::string& problem);
    int32_t Get(KOV_CONTROL_TYPE type) const;
    bool Has(KOV_CONTROL_TYPE type) const;
    void RequireOpen() const;
    void Idle(std::chrono::milliseconds time);
    void CountFrame();
    void StepDark();
    void EndDark();
    void RecordFrame(const FramePtr& frame);
    void FinishRecording();

    void RunStatistics();
    void RunPulses();
    void RunRecorder();

    Observatory& m_observatory;
    const std::string m_key;

    // Guards what is published and what is asked; no call of the library is made under it.
    mutable std::mutex m_mutex;
    std::condition_variable m_wake;      // the camera's thread
    std::condition_variable m_newFrame;  // viewers and the statistics
    std::deque<Command> m_commands;
    KOV_CAMERA_INFO m_info{};
    StatePtr m_state;
    FramePtr m_newest;
    StatisticsPtr m_statistics;
    std::deque<JournalEntry> m_journal;
    uint64_t m_journalNumber = 0;
    std::deque<CoolingPoint> m_cooling;
    std::chrono::steady_clock::time_point m_lastViewer{};
    std::atomic<uint64_t> m_version{ 1 };
    bool m_stop = false;
    // What the observatory wants: while it looks for cameras all rest, closed.
    bool m_present = false, m_restWanted = false, m_resting = false;
    int m_wantedId = -1;
    bool m_exposureAccepted = false;
    // For the observatory: whether the camera is open, and when its last frame of a video came.
    std::atomic<bool> m_open{ false };
    std::atomic<std::chrono::steady_clock::duration> m_lastFrameTime{};

    // The camera's thread alone.
    int m_id = -1;
    bool m_videoWanted = true, m_video = false;
    Region m_live;
    IMG_TYPE m_liveType = IMG_RAW8;
    std::unique_ptr<Job> m_job;
    std::filesystem::path m_darkPath;  // of the dark frame that is being collected
    std::function<void(const std::filesystem::path&, const std::string&)> m_darkMade;
    uint64_t m_sequence = 0;
    kovtools::CameraState m_cameraState;
    std::chrono::steady_clock::time_point m_lastRefresh{}, m_lastFrame{}, m_rateStart{};
    int m_rateFrames = 0;
    int32_t m_dropped = 0;
    std::optional<int32_t> m_coolTo;  // what the cooler held when the camera was closed
    std::shared_ptr<FramePool> m_pool;

    // Pulses, guarded by their own mutex.
    mutable std::mutex m_pulseMutex;
    std::condition_variable m_pulseWake;
    struct Pulse { bool on = false; KOV_GUIDE_DIRECTION direction{}; std::chrono::steady_clock::time_point end{}; };
    std::array<Pulse, 2> m_pulses;
    bool m_pulseStop = false;
    int m_pulseId = -1;

    // The recording, guarded by its own mutex.
    std::mutex m_recordMutex;
    std::condition_variable m_recordWake;
    std::deque<FramePtr> m_recordQueue;
    std::function<std::unique_ptr<Recorder>(const Frame&)> m_recordOpen;
    std::string m_recordPath;
    bool m_recordOn = false, m_recordBusy = false, m_recordStop = false;

    std::thread m_statisticsThread, m_pulseThread, m_recordThread, m_thread;
};

// All cameras of this machine, those that were here and may come back included.
class Observatory {
public:
    Observatory();
    ~Observatory();
    Observatory(const Observatory&) = delete;
    Observatory& operator=(const Observatory&) = delete;

    std::vector<std::shared_ptr<CameraEngine>> Cameras() const;  // a camera keeps its place in the list
    std::shared_ptr<CameraEngine> Find(size_t index) const;      // null when there is none
    uint64_t Version() const { return m_version.load(); }

private:
    friend class CameraEngine;
    void Run();
    void Scan();
    void RequestScan();

    Gate m_gate;
    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::vector<std::shared_ptr<CameraEngine>> m_cameras;
    std::atomic<uint64_t> m_version{ 1 };
    int m_count = -1;
    std::vector<int> m_stuck;  // guarded by the gate: IDs whose object could not be closed since the bus has fewer cameras
    bool m_stop = false, m_scanAsked = false;
    std::thread m_thread;
};

}  // namespace kovserve
