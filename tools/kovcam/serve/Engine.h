// The engine room of `kovcam serve`: one owner a camera. Its thread alone opens the camera, sets it and takes frames; the
// board has what it publishes. A slow viewer skips frames and holds nobody up.
#pragma once
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "kovcam/serve/Board.h"
#include "kovcam/serve/DarkRoom.h"
#include "kovcam/serve/Device.h"
#include "kovcam/serve/Exposure.h"
#include "kovcam/serve/Gate.h"
#include "kovcam/serve/Gauge.h"
#include "kovcam/serve/GuidePulses.h"
#include "kovcam/serve/Recording.h"

namespace kovserve {

// Any thread may call everything here.
class CameraEngine {
public:
    // `place`: as in Place. `attention` is called, on the camera's thread, when the cameras of the bus should be looked at soon.
    CameraEngine(Gate& gate, std::string model, std::string key, int place, std::function<void()> attention);
    ~CameraEngine();
    CameraEngine(const CameraEngine&) = delete;
    CameraEngine& operator=(const CameraEngine&) = delete;

    const std::string& Key() const { return m_key; }  // model and count; the same after a restart
    const std::string& Model() const { return m_model; }

    KOV_CAMERA_INFO Info() const { return m_board.Info(); }
    StatePtr GetState() const { return m_board.GetState(); }
    kovtools::CameraState Settings() const { return m_board.Settings(); }  // at most half a second old
    FramePtr Newest() const { return m_board.Newest(); }
    StatisticsPtr NewestStatistics() const { return m_board.NewestStatistics(); }
    std::vector<JournalEntry> Journal() const { return m_board.Journal(); }
    std::vector<CoolingPoint> Cooling() const { return m_board.Cooling(); }
    uint64_t Version() const { return m_board.Version(); }
    // As Board::WaitNewer; keeps the video running.
    FramePtr WaitNewer(uint64_t after, std::chrono::milliseconds limit);

    // Each waits until it is done and throws CommandError. `who` goes into the journal.
    void SetControl(const std::string& who, KOV_CONTROL_TYPE type, int32_t value, bool automatic);
    void SetRegion(const std::string& who, const Region& region, IMG_TYPE type);
    void SetVideo(const std::string& who, bool on);
    void StartRecording(const std::string& who, const std::string& path, const Recording::OpenFile& open);
    void StopRecording(const std::string& who);
    void UseDark(const std::string& who, const std::filesystem::path& path);  // empty: none
    // `made` is called on the camera's thread. Abort ends it without a file.
    void TakeDark(const std::string& who, const std::filesystem::path& path, const DarkRoom::Made& made);
    void HotPixels(const std::string& who, const std::string& what);  // "load", "off" or "save"

    // Returns once the exposure is accepted; throws CommandError when another runs.
    void StartExposure(const std::string& who, ExposureRequest request);
    void Abort(const std::string& who);

    // The pulse ends by itself. A pulse on an axis ends the one that runs there; the other axis is left alone.
    void PulseGuide(const std::string& who, KOV_GUIDE_DIRECTION direction, std::chrono::milliseconds length);
    bool IsPulseGuiding() const { return m_pulses.AreRunning(); }

    // ---- for the observatory, whose looks at the bus need all cameras to stand still for a moment

    // Asks the camera for a sign of life. Its thread answers between two frames.
    void CallRoll();
    enum class Roll { Asked, Here, Doubtful, NotOpen };
    Roll RollAnswer() const;
    int OpenId() const;                                       // -1: it is closed
    int LostPlace() const;                                    // of a camera that answered no more; -1: it has not been lost
    std::chrono::steady_clock::time_point GoneSince() const;  // 0: it is here
    // No command is begun from now on. False, and nothing changes, when something runs that must not be disturbed.
    bool Hold();
    void Release();
    void Rest();  // of a camera that is held: closes it
    bool IsResting() const;
    // Where the camera stood in the last look. It is released, and opened.
    void Place(std::optional<int> id);

private:
    struct Command {
        std::string who, what;
        std::function<void()> work;
        std::shared_ptr<std::promise<void>> done;
    };
    enum class Wait { Yes, No };
    void Post(const std::string& who, const std::string& what, std::function<void()> work, Wait wait = Wait::Yes);

    // The camera's thread.
    void Run();
    void Step();
    void RunCommands();
    bool TakeCommand(Command* command);
    void RunCommand(const Command& command);
    void Open(int id);
    void RestoreAfterOpening();
    void Close(bool forAMoment);
    void AnswerRoll(uint64_t roll);
    void OnTrouble(const std::string& problem);
    void ShowClosed();
    void StepLive();
    void StopVideo();
    void StepExposure();
    void EndExposure(const std::string& error);
    void EndDark();
    void ForgetExposure();
    FramePtr Publish(std::shared_ptr<Frame> frame);
    void CountFrame(int dropped);
    void Refresh();
    Device& RequireOpen() const;      // throws CommandError
    void RequireNothingRuns() const;  // throws CommandError
    bool HasWork() const;             // m_mutex is held
    void Idle(std::chrono::milliseconds time);

    using Steady = std::chrono::steady_clock;
    Gate& m_gate;
    const std::string m_model, m_key;
    const std::function<void()> m_attention;
    Board m_board;

    // Guards what others ask of the camera's thread; no call of the library is made under it.
    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Command> m_commands;
    Steady::time_point m_lastViewer{};
    bool m_stop = false;
    bool m_working = false;  // a command is being carried out, or the camera opened
    bool m_exposureAccepted = false;
    bool m_held = false, m_restWanted = false, m_resting = false;
    std::optional<int> m_place;  // in the last look
    bool m_lost = false;         // it answered no more, at m_place
    Steady::time_point m_goneSince{};
    int m_openId = -1;
    uint64_t m_rollAsked = 0, m_rollAnswered = 0;
    Roll m_roll = Roll::NotOpen;

    // The camera's thread alone.
    std::unique_ptr<Device> m_device;
    std::unique_ptr<Exposure> m_exposure;
    DarkRoom m_darkRoom{ m_board };
    bool m_videoWanted = true;
    Region m_live;
    IMG_TYPE m_liveType = IMG_RAW8;
    std::optional<int32_t> m_coolTo;  // what the cooler held when the camera was closed
    uint64_t m_sequence = 0;
    Steady::time_point m_lastRefresh{}, m_lastFrame{}, m_rateStart{}, m_opened{}, m_openAfter{};
    std::chrono::seconds m_patience{};  // before the next try to open
    int m_rateFrames = 0;
    std::optional<Steady::time_point> m_silentSince;  // it did not answer the roll then

    Gauge m_gauge{ m_board };
    GuidePulses m_pulses{ m_gate };
    Recording m_recording{ m_board };
    std::thread m_thread;
};

}  // namespace kovserve
