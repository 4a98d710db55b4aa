// One camera: a worker thread that makes all calls into the camera's copy of the library, and a thread for the guide
// port, since a pulse has to end in time while the worker waits for a frame. Knows nothing of the framework.
#pragma once
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Library.h"
#include "Logic.h"

namespace kovindi {

// Held while a camera is opened, so that no look around the bus gets in the way.
std::mutex& OpeningMutex();
bool IsOneOpen(const std::string& model);  // by a Camera of this process; any thread

// What pictures look like: the wish of a client, or what the camera made of it.
struct Format {
    Region region;  // unbinned pixels
    int bin = 1;
    IMG_TYPE type = IMG_RAW8;
    friend bool operator==(const Format&, const Format&) = default;
    size_t Pixels() const { return static_cast<size_t>(Width()) * static_cast<size_t>(Height()); }
    size_t Bytes() const { return Pixels() * (type == IMG_RGB24 ? 3 : type == IMG_RAW16 ? 2 : 1); }
    int Width() const { return region.width / bin; }
    int Height() const { return region.height / bin; }
};

struct ControlState {
    KOV_CONTROL_TYPE type;
    int32_t value;
    bool automatic;
    friend bool operator==(const ControlState&, const ControlState&) = default;
};
using ControlStates = std::vector<ControlState>;
const ControlState* Find(const ControlStates& states, KOV_CONTROL_TYPE type);

struct Opened {
    KOV_CAMERA_INFO info;
    std::vector<KOV_CONTROL_CAPS> controls;
    ControlStates states;
    Format format;
    bool dark;                    // a dark frame is subtracted, since the last session
    std::optional<int> firmware;  // version, where it can be told
};

struct VideoCount {
    int frames;
    double seconds;
    int dropped;
};

// What a camera tells. Called on its threads; each call is to return soon, and none comes after Ended().
class Listener {
public:
    virtual ~Listener() = default;
    virtual void OnOpened(const Opened& facts) = 0;
    virtual void OnOpenFailed(const std::string& why) = 0;
    virtual void OnClosed() = 0;
    virtual void OnFormat(const Format& inForce) = 0;
    virtual void OnControls(const ControlStates& states) = 0;  // when a value differs from the last one told
    virtual void OnRefused(const std::string& why) = 0;        // a wish that the camera did not fulfil
    virtual void OnExposed(int tag, const Format& format, const std::vector<uint8_t>& image) = 0;
    virtual void OnExposureFailed(int tag, const std::string& why) = 0;
    virtual void OnFrame(const Format& format, std::vector<uint8_t>& image) = 0;  // the image may be changed
    virtual void OnVideoCount(const VideoCount& count) = 0;                       // about once a second
    virtual void OnVideoEnded(const std::string& why) = 0;                        // by itself, not by StopVideo
    virtual void OnPulseDone(int axis) = 0;
    virtual void OnDark(bool done, bool inUse, const std::string& what) = 0;
    virtual void OnVerified() = 0;
    virtual void OnEnded() = 0;
};

class Camera {
public:
    // The place among the cameras of this model and ID, from 1.
    Camera(std::string model, std::string id, int ordinal, Listener& listener);
    ~Camera();  // after OnEnded
    Camera(const Camera&) = delete;
    Camera& operator=(const Camera&) = delete;

    // Each returns at once; the worker does it in the order of the calls. Any thread.
    void Open();
    void Close();
    void SetFormat(const Format& wish);
    void SetControl(KOV_CONTROL_TYPE type, int32_t value, bool automatic);
    void StartExposure(double seconds, int tag);  // the tag comes back with the picture or the failure
    void StopExposure();
    void StartVideo();
    void StopVideo();
    void TakeDark(int frames, const std::string& path);
    void LoadDark(const std::string& path);
    void ClearDark();
    // Ends the pulse that runs on that axis (0: pins 0 and 1, 1: pins 2 and 3) and begins this one.
    void Verify();  // between captures: a short exposure, so that HasFailed() tells whether the camera is still there
    void Pulse(int pin, std::chrono::milliseconds length);
    void End();  // closes and ends the threads; OnEnded is the last that comes

    bool HasFailed() const { return m_failed; }  // nothing good came since the last failure

private:
    using Clock = std::chrono::steady_clock;
    enum class Doing { Nothing, Exposure, Video, Dark };

    void Post(std::function<void()> work);
    void Work();
    std::chrono::milliseconds Step();
    void DoOpen();  // under OpeningMutex
    int OpenOneOf(const std::vector<int>& places);
    void DoClose();
    void DoSetFormat(const Format& wish);
    Opened Describe();
    ControlStates ReadControls();
    void TellControls();
    void DoStartExposure(double seconds, int tag);
    void StepExposure();
    void DoStartVideo();
    void StepVideo();
    void EndVideo();
    void DoTakeDark(int frames, const std::string& path);
    void FinishDark();
    bool IsDarkInUse() const;
    void TellDark(bool done, const std::string& what);
    void Halt();  // ends whatever runs
    void Fail(const std::string& why);
    std::string Name(KOV_CONTROL_TYPE type) const;

    void WorkPulses();
    void SetPin(int pin, bool on);

    const std::string m_model, m_id;
    const int m_ordinal;
    Listener& m_listener;
    std::atomic<bool> m_failed{ false };

    std::mutex m_mutex;  // of the queue
    std::condition_variable m_wake;
    std::deque<std::function<void()>> m_queue;
    bool m_ending = false;

    // The worker's own from here on.
    std::shared_ptr<const Library> m_library;
    int m_place = -1;  // ID in the copy's table; -1: closed
    KOV_CAMERA_INFO m_info{};
    std::optional<int> m_firmware;
    std::vector<KOV_CONTROL_CAPS> m_controls;
    ControlStates m_told;
    Format m_format;
    std::vector<uint8_t> m_image;
    Doing m_doing = Doing::Nothing;
    Clock::time_point m_started, m_lastFrame, m_lastLook, m_lastCount;
    double m_exposure = 0;  // seconds
    int m_tag = 0;
    int m_frames = 0;
    std::optional<DarkMean> m_dark;
    int m_darkWanted = 0;
    std::string m_darkPath;
    Format m_afterDark;

    // The guide port: the wishes and the running pulses, by axis.
    std::mutex m_pulseMutex;
    std::condition_variable m_pulseWake;
    struct Running {
        int pin;
        Clock::time_point end;
    };
    std::array<std::optional<std::pair<int, std::chrono::milliseconds>>, 2> m_asked;
    bool m_pulsesEnd = false;
    // Held during a call to the port, and while the worker gives the port away or takes it back.
    std::mutex m_portMutex;
    int m_portPlace = -1;

    std::thread m_pulseThread, m_worker;
};

}  // namespace kovindi
