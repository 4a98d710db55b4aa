#include "kovcam/serve/Engine.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "common/Files.h"
#include "kovcam/serve/DarkRoom.h"
#include "kovcam/serve/Measure.h"

namespace kovserve {

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;

namespace {

constexpr auto FRAME_WAIT = 50ms;         // a command waits at most this long behind the video
constexpr auto VIEWER_PATIENCE = 10s;     // the video goes on that long after the last viewer
constexpr auto REFRESH_EVERY = 500ms;
constexpr size_t JOURNAL_LENGTH = 200;
constexpr size_t RECORD_QUEUE = 32;       // frames that wait for the disk before some are dropped

void Check(KOV_ERROR_CODE code)
{
    if (code != KOV_SUCCESS)
        throw CommandError(kovtools::ErrorText(code));
}

std::chrono::microseconds Microseconds(double seconds)
{
    return std::chrono::microseconds(std::llround(seconds * 1e6));
}

int BytesOf(IMG_TYPE type)
{
    return type == IMG_RGB24 ? 3 : type == IMG_RAW16 ? 2 : 1;
}

int64_t SizeOf(const Region& r, IMG_TYPE type)
{
    return int64_t{ r.width } * r.height * BytesOf(type);
}

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

const ControlState* State::Find(KOV_CONTROL_TYPE wanted) const
{
    const auto it = std::find_if(controls.begin(), controls.end(), [&](const ControlState& c) { return c.type == wanted; });
    return it == controls.end() ? nullptr : &*it;
}

// Buffers of frames that nobody looks at any more are used again; a large allocation a frame costs page faults.
class CameraEngine::FramePool : public std::enable_shared_from_this<CameraEngine::FramePool> {
public:
    std::shared_ptr<Frame> Take()
    {
        std::unique_ptr<Frame> frame;
        {
            const std::lock_guard lock(m_mutex);
            if (!m_free.empty()) {
                frame = std::move(m_free.back());
                m_free.pop_back();
            }
        }
        if (!frame)
            frame = std::make_unique<Frame>();
        return { frame.release(), [pool = shared_from_this()](Frame* f) { pool->Give(std::unique_ptr<Frame>(f)); } };
    }

private:
    void Give(std::unique_ptr<Frame> frame)
    {
        const std::lock_guard lock(m_mutex);
        if (m_free.size() < 4)
            m_free.push_back(std::move(frame));
    }
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Frame>> m_free;
};

struct CameraEngine::Job {
    ExposureRequest request;
    int shot = 0;
    bool started = false;
    Steady::time_point start;
    Clock::time_point startUtc;
    // What the exposure changes and the video gets back.
    int32_t liveExposure = 0, liveFlip = 0, liveSpeed = 0;
    bool liveAuto = false, flipChanged = false, binChanged = false, speedChanged = false, regionChanged = false, exposureChanged = false;
    bool binHere = false;   // the region is beyond what the model bins: read unbinned, binned by us
    Region cut;             // of the delivered frame, when exact
};

CameraEngine::CameraEngine(Observatory& observatory, std::string key)
    : m_observatory(observatory), m_key(std::move(key)), m_state(std::make_shared<State>()), m_pool(std::make_shared<FramePool>())
{
    m_statisticsThread = std::thread([this] { RunStatistics(); });
    m_pulseThread = std::thread([this] { RunPulses(); });
    m_recordThread = std::thread([this] { RunRecorder(); });
    m_thread = std::thread([this] { Run(); });
}

CameraEngine::~CameraEngine()
{
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
        m_wake.notify_all();
        m_newFrame.notify_all();
    }
    m_thread.join();
    {
        const std::lock_guard lock(m_pulseMutex);
        m_pulseStop = true;
        m_pulseWake.notify_all();
    }
    {
        const std::lock_guard lock(m_recordMutex);
        m_recordStop = true;
        m_recordWake.notify_all();
    }
    m_statisticsThread.join();
    m_pulseThread.join();
    m_recordThread.join();
}

// ---- what viewers see

KOV_CAMERA_INFO CameraEngine::Info() const
{
    const std::lock_guard lock(m_mutex);
    return m_info;
}

StatePtr CameraEngine::GetState() const
{
    const std::lock_guard lock(m_mutex);
    return m_state;
}

kovtools::CameraState CameraEngine::Settings() const
{
    const std::lock_guard lock(m_mutex);
    return m_cameraState;
}

FramePtr CameraEngine::Newest() const
{
    const std::lock_guard lock(m_mutex);
    return m_newest;
}

FramePtr CameraEngine::WaitNewer(uint64_t after, std::chrono::milliseconds limit)
{
    std::unique_lock lock(m_mutex);
    m_lastViewer = Steady::now();
    m_wake.notify_all();
    m_newFrame.wait_for(lock, limit, [&] { return m_stop || (m_newest && m_newest->sequence > after); });
    m_lastViewer = Steady::now();
    return m_newest && m_newest->sequence > after ? m_newest : nullptr;
}

std::vector<CoolingPoint> CameraEngine::Cooling() const
{
    const std::lock_guard lock(m_mutex);
    return { m_cooling.begin(), m_cooling.end() };
}

StatisticsPtr CameraEngine::NewestStatistics() const
{
    const std::lock_guard lock(m_mutex);
    return m_statistics;
}

std::vector<JournalEntry> CameraEngine::Journal() const
{
    const std::lock_guard lock(m_mutex);
    return { m_journal.begin(), m_journal.end() };
}

// ---- commands

void CameraEngine::Note(const std::string& who, const std::string& what, const std::string& result)
{
    const std::lock_guard lock(m_mutex);
    m_journal.push_back({ ++m_journalNumber, Clock::now(), who, what, result });
    if (m_journal.size() > JOURNAL_LENGTH)
        m_journal.pop_front();
    Touch();
}

void CameraEngine::Post(const std::string& who, const std::string& what, std::function<void()> work, bool wait)
{
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> result = done->get_future();
    {
        const std::lock_guard lock(m_mutex);
        if (m_stop)
            throw CommandError("the server is stopping");
        m_commands.push_back({ who, what, std::move(work), done });
        m_wake.notify_all();
    }
    if (!wait)
        return;
    if (result.wait_for(20s) != std::future_status::ready)
        throw CommandError("the camera is busy; it did not answer within 20 s");
    result.get();
}

void CameraEngine::RunCommands()
{
    for (;;) {
        Command c;
        {
            const std::lock_guard lock(m_mutex);
            if (m_commands.empty())
                return;
            c = std::move(m_commands.front());
            m_commands.pop_front();
        }
        std::string error;
        try {
            c.work();
            c.done->set_value();
        } catch (const std::exception& e) {
            error = e.what();
            c.done->set_exception(std::make_exception_ptr(CommandError(error)));
        }
        Note(c.who, c.what, error);
        Refresh(true);
    }
}

void CameraEngine::RequireOpen() const
{
    if (m_id < 0) {
        const StatePtr s = GetState();
        throw CommandError(s->problem.empty() ? "the camera is not open yet" : s->problem);
    }
}

void CameraEngine::SetControl(const std::string& who, KOV_CONTROL_TYPE type, int32_t value, bool automatic)
{
    const StatePtr s = GetState();
    const ControlState* const c = s->Find(type);
    if (c == nullptr)
        throw CommandError(s->controls.empty() ? "the camera is not open yet" : "this camera has no such control");
    if (!c->writable)
        throw CommandError(fmt::format("{} can only be read", c->name));
    if (automatic && !c->canBeAutomatic)
        throw CommandError(fmt::format("{} cannot be left to the camera", c->name));
    if (value < c->min || value > c->max)
        throw CommandError(fmt::format("{} takes {} to {}", c->name, c->min, c->max));
    Post(who, automatic ? fmt::format("{}: automatic", c->name) : fmt::format("{}: {}", c->name, value), [=, this] {
        RequireOpen();
        // A change of the region comes with these: the picture in between is not wanted.
        const Gate::Shared inside(m_observatory.m_gate);
        Check(KOVSetControlValue(m_id, type, value, automatic ? KOV_TRUE : KOV_FALSE));
    }, true);
}

void CameraEngine::SetRegion(const std::string& who, const Region& region, IMG_TYPE type)
{
    Post(who, fmt::format("region {}x{}+{}+{}, bin {}", region.width, region.height, region.x, region.y, region.bin), [=, this] {
        RequireOpen();
        if (m_job || !m_darkPath.empty())
            throw CommandError("an exposure runs; abort it or wait for its end");
        if (GetState()->recording)
            throw CommandError("a recording runs; its frames must stay of one size");
        StopVideo();
        const Region before = m_live;
        const IMG_TYPE typeBefore = m_liveType;
        try {
            ApplyRegion(region, type);
        } catch (const CommandError&) {
            ApplyRegion(before, typeBefore);
            throw;
        }
        m_live = ActualRegion(&m_liveType);
    }, true);
}

void CameraEngine::SetVideo(const std::string& who, bool on)
{
    Post(who, on ? "video on" : "video off", [=, this] { m_videoWanted = on; }, true);
}

void CameraEngine::StartExposure(const std::string& who, ExposureRequest request)
{
    {
        const std::lock_guard lock(m_mutex);
        if (m_state->controls.empty())
            throw CommandError(m_state->problem.empty() ? "the camera is not open yet" : m_state->problem);
        if (m_exposureAccepted)
            throw CommandError("an exposure runs already");
        if (m_state->recording)
            throw CommandError("a recording runs; stop it first");
        m_exposureAccepted = true;
    }
    const std::string what = request.count == 1 ? fmt::format("exposure of {:g} s", static_cast<double>(request.us) / 1e6)
                                                : fmt::format("{} exposures of {:g} s", request.count, static_cast<double>(request.us) / 1e6);
    const auto ended = request.ended;
    auto job = std::make_shared<std::unique_ptr<Job>>(std::make_unique<Job>());
    (*job)->request = std::move(request);
    Post(who, what, [=, this] {
        m_job = std::move(*job);
        try {
            RequireOpen();
            if (!m_darkPath.empty())
                throw CommandError("a dark frame is being collected; abort it or wait for its end");
            BeginJob();
        } catch (const std::exception& e) {
            EndJob(e.what());
            throw;
        }
    }, false);
}

void CameraEngine::Abort(const std::string& who)
{
    Post(who, "abort", [this] {
        if (m_job)
            EndJob("aborted");
        if (!m_darkPath.empty())
            EndDark();
    }, true);
}

// ---- the camera's thread

void CameraEngine::Run()
{
    while (true) {
        {
            const std::lock_guard lock(m_mutex);
            if (m_stop)
                break;
        }
        try {
            Step();
        } catch (const std::exception& e) {
            if (m_job)
                EndJob(e.what());
            Fail(e.what());
            m_observatory.RequestScan();
            Idle(500ms);
        }
    }
    if (m_job)
        EndJob("the server is stopping");
    Close();
    std::deque<Command> left;
    {
        const std::lock_guard lock(m_mutex);
        left.swap(m_commands);
    }
    for (Command& c : left)
        c.done->set_exception(std::make_exception_ptr(CommandError("the server is stopping")));
}

void CameraEngine::Idle(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    if (m_commands.empty() && !m_stop)
        m_wake.wait_for(lock, time);
}

void CameraEngine::Step()
{
    bool present = false, rest = false, watched = false;
    {
        const std::lock_guard lock(m_mutex);
        present = m_present;
        rest = m_restWanted;
        watched = Steady::now() - m_lastViewer < VIEWER_PATIENCE;
    }
    const bool busy = m_job != nullptr || GetState()->recording || !m_darkPath.empty();
    if (rest && !busy) {
        Close();
        const std::lock_guard lock(m_mutex);
        m_resting = true;
    } else if (present && m_id < 0) {
        Open();
    }
    RunCommands();
    if (m_id < 0) {
        Idle(200ms);
        return;
    }
    if (m_job)
        StepJob();
    else if ((m_videoWanted && (watched || GetState()->recording)) || !m_darkPath.empty())
        StepLive();
    else {
        StopVideo();
        Idle(100ms);
    }
    Refresh(false);
}

void CameraEngine::Open()
{
    Modify([](State& s) { s.phase = Phase::Opening; });
    int id = -1;
    {
        const std::lock_guard lock(m_mutex);
        id = m_wantedId;
    }
    KOV_ERROR_CODE code;
    KOV_CAMERA_INFO info{};
    {
        const Gate::Alone alone(m_observatory.m_gate);
        code = KOVOpenCamera(id);
        if (code != KOV_SUCCESS)
            KOVCloseCamera(id);
        else
            KOVGetCameraProperty(&info, id);
    }
    if (code != KOV_SUCCESS) {
        Fail(kovtools::ErrorText(code));
        m_observatory.RequestScan();
        Idle(2000ms);
        return;
    }
    m_id = id;
    {
        const std::lock_guard lock(m_pulseMutex);
        m_pulseId = id;
    }
    {
        const std::lock_guard lock(m_mutex);
        m_info = info;
    }
    Modify([](State& s) {
        s.phase = Phase::Idle;
        s.problem.clear();
    });
    // The region of before, when the camera has been away; at first the picture that a person wants to see.
    if (m_live.width == 0 && info.IsColorCam) {
        try {
            ApplyRegion({}, IMG_RGB24);
        } catch (const CommandError&) {
        }
    } else if (m_live.width > 0) {
        try {
            ApplyRegion(m_live, m_liveType);
        } catch (const CommandError&) {
        }
    }
    m_live = ActualRegion(&m_liveType);
    if (m_coolTo) {
        const Gate::Shared inside(m_observatory.m_gate);
        KOVSetControlValue(m_id, CTRL_TARGET_TEMP, *m_coolTo, KOV_FALSE);
        KOVSetControlValue(m_id, CTRL_COOLER_ON, 1, KOV_FALSE);
    }
    m_lastFrame = Steady::now();
    m_open = true;
    Refresh(true);
    Note("server", fmt::format("opened {}", info.Name), "");
}

void CameraEngine::Close()
{
    m_open = false;
    FinishRecording();
    m_darkPath.clear();
    if (m_id >= 0) {
        const StatePtr s = GetState();
        const ControlState* const target = s->coolerOn ? s->Find(CTRL_TARGET_TEMP) : nullptr;
        m_coolTo = target != nullptr ? std::optional(target->value) : std::nullopt;
        {
            const std::lock_guard lock(m_pulseMutex);
            m_pulseId = -1;
            m_pulses = {};
        }
        const Gate::Alone alone(m_observatory.m_gate);
        if (m_video)
            KOVStopVideoCapture(m_id);
        if (KOVCloseCamera(m_id) != KOV_SUCCESS)
            m_observatory.m_stuck.push_back(m_id);
        m_id = -1;
        m_video = false;
    }
    bool present = false;
    {
        const std::lock_guard lock(m_mutex);
        present = m_present;
        m_exposureAccepted = false;
    }
    const Phase phase = present ? Phase::Closed : Phase::Absent;
    if (GetState()->phase != phase && GetState()->phase != Phase::Failed)
        Modify([&](State& s) {
            s.phase = phase;
            s.framesPerSecond = 0;
            s.problem = present ? "" : "the camera is not connected; it goes on when it comes back";
        });
}

void CameraEngine::Fail(const std::string& problem)
{
    if (GetState()->phase != Phase::Failed || GetState()->problem != problem)
        Note("server", "camera", problem);
    Modify([&](State& s) {
        s.phase = Phase::Failed;
        s.problem = problem;
        s.framesPerSecond = 0;
    });
}

void CameraEngine::StartVideo()
{
    if (m_video)
        return;
    const Gate::Shared inside(m_observatory.m_gate);
    Check(KOVStartVideoCapture(m_id));
    m_video = true;
    m_lastFrame = m_rateStart = Steady::now();
    m_rateFrames = 0;
    Modify([](State& s) { s.phase = Phase::Live; });
}

void CameraEngine::StopVideo()
{
    if (m_video) {
        const Gate::Shared inside(m_observatory.m_gate);
        KOVStopVideoCapture(m_id);
        m_video = false;
    }
    if (!m_job && GetState()->phase == Phase::Live)
        Modify([](State& s) {
            s.phase = Phase::Idle;
            s.framesPerSecond = 0;
        });
}

std::shared_ptr<Frame> CameraEngine::NewFrame()
{
    IMG_TYPE type = IMG_RAW8;
    const Region r = ActualRegion(&type);
    auto frame = m_pool->Take();
    frame->pixels.resize(static_cast<size_t>(SizeOf(r, type)));
    // What changes rarely is as it was at the last look; asking for all of it takes transfers.
    static_cast<kovtools::CameraState&>(*frame) = m_cameraState;
    frame->width = r.width;
    frame->height = r.height;
    frame->bin = r.bin;
    frame->startX = r.x;
    frame->startY = r.y;
    frame->type = type;
    frame->exposure = Get(CTRL_EXPOSURE) / 1e6;
    frame->gain = Get(CTRL_GAIN);
    frame->mosaic.reset();
    if (kovtools::IsMosaic(*frame))
        frame->mosaic = kovtools::DeliveredPattern(*frame);
    return frame;
}

void CameraEngine::Publish(std::shared_ptr<Frame> frame)
{
    frame->sequence = ++m_sequence;
    const FramePtr published = std::move(frame);
    {
        const std::lock_guard lock(m_mutex);
        m_newest = published;
        m_newFrame.notify_all();
    }
    RecordFrame(published);
}

void CameraEngine::CountFrame()
{
    const auto now = Steady::now();
    m_lastFrame = now;
    m_lastFrameTime = now.time_since_epoch();
    ++m_rateFrames;
    const double seconds = std::chrono::duration<double>(now - m_rateStart).count();
    if (seconds < 1)
        return;
    Modify([&](State& s) {
        s.framesPerSecond = m_rateFrames / seconds;
        s.frames += m_rateFrames;
        s.dropped = m_dropped;
        if (s.phase == Phase::Failed)
            s.phase = Phase::Live;
        s.problem.clear();
    });
    m_rateStart = now;
    m_rateFrames = 0;
}

void CameraEngine::StepLive()
{
    StartVideo();
    std::shared_ptr<Frame> frame;
    KOV_ERROR_CODE code;
    {
        const Gate::Shared inside(m_observatory.m_gate);
        frame = NewFrame();
        code = KOVGetVideoData(m_id, frame->pixels.data(), static_cast<int32_t>(frame->pixels.size()),
                               static_cast<int32_t>(FRAME_WAIT.count()));
        KOVGetDroppedFrames(m_id, &m_dropped);
    }
    if (code == KOV_SUCCESS) {
        frame->arrival = Steady::now();
        frame->dropped = m_dropped;
        frame->end = Clock::now();
        frame->start = frame->end - Microseconds(frame->exposure);
        Publish(std::move(frame));
        CountFrame();
        if (!m_darkPath.empty())
            StepDark();
        return;
    }
    if (code != KOV_ERROR_TIMEOUT)
        throw CommandError(kovtools::ErrorText(code));
    // Long, since closing a camera takes its cooler's power away; a machine under load is no cable that fell out.
    const auto patience = 8s + Microseconds(3 * frame->exposure);
    if (Steady::now() - m_lastFrame > patience) {
        Fail("no frames come. Check cable and port; 'kovcam doctor' tells more");
        m_lastFrame = Steady::now();
        m_observatory.RequestScan();
    }
}

// ---- regions

Region CameraEngine::ActualRegion(IMG_TYPE* type) const
{
    Region r;
    Check(KOVGetROIFormat(m_id, &r.width, &r.height, &r.bin, type));
    Check(KOVGetStartPos(m_id, &r.x, &r.y));
    return r;
}

// What the model takes nearest to what is asked: widths by 8, heights by 2.
void CameraEngine::ApplyRegion(const Region& region, IMG_TYPE type)
{
    const Gate::Shared inside(m_observatory.m_gate);
    const int bin = std::max(1, region.bin);
    Region r = region;
    const int fullWidth = m_info.MaxWidth / bin, fullHeight = m_info.MaxHeight / bin;
    if (r.width <= 0 || r.height <= 0) {
        r = { 0, 0, fullWidth, fullHeight, bin };
    }
    r.width = std::clamp(r.width, 8, fullWidth);
    r.height = std::clamp(r.height, 8, fullHeight);
    const bool whole = r.width == fullWidth && r.height == fullHeight;
    if (!whole || bin > 1) {
        r.width -= r.width % 8;
        r.height -= r.height % 2;
    }
    KOV_ERROR_CODE code = KOVSetROIFormat(m_id, r.width, r.height, bin, type);
    // Some models take only sizes whose pixels fill whole kilobytes.
    if (code == KOV_ERROR_BAD_SIZE) {
        r.width -= r.width % 32;
        r.height -= r.height % 32;
        code = KOVSetROIFormat(m_id, std::max(32, r.width), std::max(32, r.height), bin, type);
    }
    Check(code);
    if (!whole)
        Check(KOVSetStartPos(m_id, std::max(0, r.x), std::max(0, r.y)));
}

// A region to the pixel: the next larger one that the model takes, from which the frame is cut. Where its alignment
// leaves the edge of the sensor out of reach, the sensor is read unbinned and binned here, by the library's own rule.
void CameraEngine::ApplyExact(const ExposureRequest& request)
{
    const Gate::Shared inside(m_observatory.m_gate);
    const Region& want = request.region;
    const auto covers = [&](const Region& got) {
        return got.bin == want.bin && got.x <= want.x && got.y <= want.y && got.x + got.width >= want.x + want.width &&
               got.y + got.height >= want.y + want.height;
    };
    const int fullWidth = m_info.MaxWidth / want.bin, fullHeight = m_info.MaxHeight / want.bin;
    const auto up = [](int value, int step) { return (value + step - 1) / step * step; };
    for (const int step : { 8, 32 }) {
        const int x = want.x / step * step, y = want.y / step * step;
        const int width = std::min(up(want.x + want.width - x, step), fullWidth / step * step);
        const int height = std::min(up(want.y + want.height - y, step), fullHeight / 2 * 2);
        if (width < 1 || height < 1 || KOVSetROIFormat(m_id, width, height, want.bin, request.type) != KOV_SUCCESS)
            continue;
        KOVSetStartPos(m_id, std::min(x, fullWidth - width), std::min(y, fullHeight - height));
        IMG_TYPE type{};
        const Region got = ActualRegion(&type);
        if (covers(got)) {
            m_job->cut = { want.x - got.x, want.y - got.y, want.width, want.height, want.bin };
            return;
        }
    }
    Check(KOVSetROIFormat(m_id, m_info.MaxWidth, m_info.MaxHeight, 1, request.type));
    m_job->binHere = want.bin > 1;
    m_job->cut = want;
}

void CameraEngine::CutExact(Frame& frame) const
{
    const Region& cut = m_job->cut;
    if (m_job->binHere)
        BinFrame(frame, cut.bin);
    if (cut.x == 0 && cut.y == 0 && cut.width == frame.width && cut.height == frame.height)
        return;
    const size_t pixel = static_cast<size_t>(BytesOf(frame.type));
    const size_t row = static_cast<size_t>(cut.width) * pixel;
    for (int y = 0; y < cut.height; ++y)
        std::memmove(frame.pixels.data() + static_cast<size_t>(y) * row,
                     frame.pixels.data() + (static_cast<size_t>(y + cut.y) * static_cast<size_t>(frame.width) + static_cast<size_t>(cut.x)) * pixel,
                     row);
    frame.pixels.resize(row * static_cast<size_t>(cut.height));
    if (frame.mosaic)
        frame.mosaic = kovtools::Exchanged(*frame.mosaic, (cut.x & 1) != 0, (cut.y & 1) != 0);
    frame.width = cut.width;
    frame.height = cut.height;
    frame.startX += cut.x;
    frame.startY += cut.y;
}

// ---- exposures

void CameraEngine::BeginJob()
{
    Job& job = *m_job;
    const ExposureRequest& request = job.request;
    StopVideo();
    {
        const Gate::Shared inside(m_observatory.m_gate);
        KOV_BOOL automatic = KOV_FALSE;
        Check(KOVGetControlValue(m_id, CTRL_EXPOSURE, &job.liveExposure, &automatic));
        job.liveAuto = automatic != KOV_FALSE;
        if (request.exact && Has(CTRL_FLIP)) {
            job.liveFlip = Get(CTRL_FLIP);
            job.flipChanged = job.liveFlip != 0;
            if (job.flipChanged)
                Check(KOVSetControlValue(m_id, CTRL_FLIP, 0, KOV_FALSE));
        }
        // Cameras add the charges of a bin up where the library takes the mean: a bin is to mean the same at every region.
        if (request.exact && Has(CTRL_HARDWARE_BIN) && Get(CTRL_HARDWARE_BIN) != 0) {
            Check(KOVSetControlValue(m_id, CTRL_HARDWARE_BIN, 0, KOV_FALSE));
            job.binChanged = true;
        }
        if (request.highSpeed && Has(CTRL_HIGH_SPEED_MODE)) {
            job.liveSpeed = Get(CTRL_HIGH_SPEED_MODE);
            job.speedChanged = job.liveSpeed != (*request.highSpeed ? 1 : 0);
            if (job.speedChanged)
                Check(KOVSetControlValue(m_id, CTRL_HIGH_SPEED_MODE, *request.highSpeed ? 1 : 0, KOV_FALSE));
        }
    }
    job.regionChanged = true;
    if (request.exact)
        ApplyExact(request);
    else
        ApplyRegion(request.region, request.type);
    job.exposureChanged = true;
    {
        const Gate::Shared inside(m_observatory.m_gate);
        Check(KOVSetControlValue(m_id, CTRL_EXPOSURE, static_cast<int32_t>(request.us), KOV_FALSE));
    }
    Modify([&](State& s) {
        s.phase = Phase::Exposing;
        s.exposureUs = request.us;
        s.shots = request.count;
        s.shot = 0;
        s.exposureStart = Steady::now();
        s.framesPerSecond = 0;
        s.problem.clear();
    });
}

void CameraEngine::StepJob()
{
    Job& job = *m_job;
    if (!job.started) {
        const Gate::Shared inside(m_observatory.m_gate);
        if (const KOV_ERROR_CODE code = KOVStartExposure(m_id); code != KOV_SUCCESS)
            return EndJob(kovtools::ErrorText(code));
        job.started = true;
        job.start = Steady::now();
        job.startUtc = Clock::now();
        Modify([&](State& s) {
            s.phase = Phase::Exposing;
            s.shot = job.shot + 1;
            s.exposureStart = job.start;
        });
    }
    KOV_EXPOSURE_STATUS status = EXP_FAILED;
    KOV_ERROR_CODE code;
    {
        const Gate::Shared inside(m_observatory.m_gate);
        code = KOVGetExpStatus(m_id, &status);
    }
    if (code != KOV_SUCCESS)
        return EndJob(kovtools::ErrorText(code));
    if (status == EXP_SUCCESS)
        return FetchShot();
    if (status == EXP_WORKING) {
        // The library waits for ever for a camera that has gone silent.
        if (Steady::now() - job.start > std::chrono::microseconds(job.request.us) + 30s) {
            m_observatory.RequestScan();
            return EndJob("no frame came within 30 s of the exposure's end. Check cable and port");
        }
        const auto left = std::chrono::microseconds(job.request.us) - (Steady::now() - job.start);
        Idle(left > 100ms ? 20ms : 2ms);
        return;
    }
    m_observatory.RequestScan();
    EndJob("the camera delivered no frame. Check cable and port");
}

void CameraEngine::FetchShot()
{
    Job& job = *m_job;
    Modify([](State& s) { s.phase = Phase::Downloading; });
    std::shared_ptr<Frame> frame;
    {
        const Gate::Shared inside(m_observatory.m_gate);
        frame = NewFrame();
        Check(KOVGetDataAfterExp(m_id, frame->pixels.data(), static_cast<int32_t>(frame->pixels.size())));
    }
    frame->start = job.startUtc;
    frame->end = job.startUtc + Microseconds(frame->exposure);
    if (job.request.exact)
        CutExact(*frame);
    const FramePtr taken = frame;
    Publish(std::move(frame));
    ++job.shot;
    job.started = false;
    if (job.request.taken)
        job.request.taken(taken, job.shot);
    if (job.shot >= job.request.count)
        EndJob("");
}

void CameraEngine::EndJob(const std::string& error)
{
    const std::unique_ptr<Job> job = std::move(m_job);
    if (m_id >= 0) {
        // The camera may have gone; then what follows is refused, and a later opening sets the region.
        {
            const Gate::Shared inside(m_observatory.m_gate);
            if (job->started)
                KOVStopExposure(m_id);
            if (job->flipChanged)
                KOVSetControlValue(m_id, CTRL_FLIP, job->liveFlip, KOV_FALSE);
            if (job->binChanged)
                KOVSetControlValue(m_id, CTRL_HARDWARE_BIN, 1, KOV_FALSE);
            if (job->speedChanged)
                KOVSetControlValue(m_id, CTRL_HIGH_SPEED_MODE, job->liveSpeed, KOV_FALSE);
        }
        if (job->regionChanged) {
            try {
                ApplyRegion(m_live, m_liveType);
            } catch (const CommandError&) {
            }
        }
        if (job->exposureChanged) {
            const Gate::Shared inside(m_observatory.m_gate);
            KOVSetControlValue(m_id, CTRL_EXPOSURE, job->liveExposure, job->liveAuto ? KOV_TRUE : KOV_FALSE);
        }
    }
    {
        const std::lock_guard lock(m_mutex);
        m_exposureAccepted = false;
    }
    Modify([&](State& s) {
        s.phase = Phase::Idle;
        s.shot = s.shots = 0;
        if (!error.empty() && error != "aborted")
            s.problem = error;
    });
    if (!error.empty())
        Note("camera", "exposure", error);
    if (job->request.ended)
        job->request.ended(error);
}

// ---- state

int32_t CameraEngine::Get(KOV_CONTROL_TYPE type) const
{
    int32_t value = 0;
    KOV_BOOL automatic = KOV_FALSE;
    KOVGetControlValue(m_id, type, &value, &automatic);
    return value;
}

bool CameraEngine::Has(KOV_CONTROL_TYPE type) const
{
    return GetState()->Find(type) != nullptr;
}

void CameraEngine::Modify(const std::function<void(State&)>& change)
{
    const std::lock_guard lock(m_mutex);
    auto next = std::make_shared<State>(*m_state);
    change(*next);
    m_state = std::move(next);
    Touch();
}

void CameraEngine::Refresh(bool force)
{
    if (m_id < 0 || (!force && Steady::now() - m_lastRefresh < REFRESH_EVERY))
        return;
    m_lastRefresh = Steady::now();
    std::vector<ControlState> controls;
    IMG_TYPE type = IMG_RAW8;
    Region region;
    bool dark = false, hotOn = false;
    int hot = 0;
    {
        const Gate::Shared inside(m_observatory.m_gate);
        int32_t n = 0;
        if (KOVGetNumOfControls(m_id, &n) != KOV_SUCCESS)
            return;
        for (int i = 0; i < n; ++i) {
            KOV_CONTROL_CAPS caps{};
            if (KOVGetControlCaps(m_id, i, &caps) != KOV_SUCCESS)
                continue;
            ControlState c;
            c.type = caps.ControlType;
            c.name = caps.Name;
            c.description = caps.Description;
            c.min = caps.MinValue;
            c.max = caps.MaxValue;
            c.standard = caps.DefaultValue;
            c.canBeAutomatic = caps.IsAutoSupported != KOV_FALSE;
            c.writable = caps.IsWritable != KOV_FALSE;
            KOV_BOOL automatic = KOV_FALSE;
            KOVGetControlValue(m_id, c.type, &c.value, &automatic);
            c.automatic = automatic != KOV_FALSE;
            controls.push_back(std::move(c));
        }
        region = m_job ? m_live : ActualRegion(&type);
        if (m_job)
            type = m_liveType;
        KOV_BOOL on = KOV_FALSE;
        KOVEnableDarkSubtract(m_id, "", &on);
        dark = on != KOV_FALSE;
        DarkState(m_id, &hot, &hotOn);
        const kovtools::CameraState settings = kovtools::ReadCameraState(m_id);
        const std::lock_guard lock(m_mutex);
        m_cameraState = settings;
    }
    if (m_info.IsCooled && m_cameraState.temperature) {
        const auto now = Clock::now();
        const std::lock_guard lock(m_mutex);
        if (m_cooling.empty() || now - m_cooling.back().when >= 2s)
            m_cooling.push_back({ now, *m_cameraState.temperature, m_cameraState.coolerPower.value_or(0), m_cameraState.target });
        while (m_cooling.front().when < now - 1h)
            m_cooling.pop_front();
    }
    const auto same = [](const ControlState& a, const ControlState& b) { return a.type == b.type && a.value == b.value && a.automatic == b.automatic; };
    const StatePtr before = GetState();
    if (before->region.width == region.width && before->region.height == region.height && before->region.x == region.x &&
        before->region.y == region.y && before->region.bin == region.bin && before->type == type && before->darkInUse == dark && before->hotPixelsOn == hotOn && before->hotPixels == hot &&
        std::equal(controls.begin(), controls.end(), before->controls.begin(), before->controls.end(), same))
        return;
    Modify([&](State& s) {
        s.controls = std::move(controls);
        s.region = region;
        s.type = type;
        s.darkInUse = dark;
        s.hotPixelsOn = hotOn;
        s.hotPixels = hot;
        s.temperature.reset();
        s.coolerPower.reset();
        if (const ControlState* c = s.Find(CTRL_TEMPERATURE))
            s.temperature = c->value / 10.0;
        if (const ControlState* c = s.Find(CTRL_COOL_POWER_PERC))
            s.coolerPower = c->value;
        if (const ControlState* c = s.Find(CTRL_COOLER_ON))
            s.coolerOn = c->value != 0;
    });
}

// ---- dark frames and hot pixels

void CameraEngine::UseDark(const std::string& who, const std::filesystem::path& path)
{
    Post(who, path.empty() ? "no dark frame" : fmt::format("dark frame {}", kovtools::TextOf(path.filename())), [=, this] {
        RequireOpen();
        const Gate::Shared inside(m_observatory.m_gate);
        KOV_BOOL on = KOV_TRUE;
        Check(path.empty() ? KOVDisableDarkSubtract(m_id) : KOVEnableDarkSubtract(m_id, std::filesystem::absolute(path).string().c_str(), &on));
    }, true);
}

void CameraEngine::TakeDark(const std::string& who, const std::filesystem::path& path,
                            const std::function<void(const std::filesystem::path&, const std::string&)>& made)
{
    Post(who, fmt::format("collecting the dark frame {}", kovtools::TextOf(path.filename())), [=, this] {
        RequireOpen();
        if (m_job || GetState()->recording || !m_darkPath.empty())
            throw CommandError("the camera is busy");
        StopVideo();
        // Dark frames are of 8 bits and the whole sensor; an automatic exposure would make them of no exposure at all.
        ApplyRegion({}, IMG_RAW8);
        const Gate::Shared inside(m_observatory.m_gate);
        Check(KOVSetControlValue(m_id, CTRL_EXPOSURE, Get(CTRL_EXPOSURE), KOV_FALSE));
        Check(KOVSetControlValue(m_id, CTRL_GAIN, Get(CTRL_GAIN), KOV_FALSE));
        BeginDark(m_id);
        m_darkPath = path;
        m_darkMade = made;
        Modify([](State& s) {
            s.darkDone = 0;
            s.darkFrames = 1;
        });
    }, true);
}

void CameraEngine::StepDark()
{
    int done = 0, frames = 1;
    if (IsCollecting(m_id, &done, &frames)) {
        Modify([&](State& s) {
            s.darkDone = done;
            s.darkFrames = std::max(1, frames);
        });
        return;
    }
    const std::filesystem::path path = m_darkPath;
    std::string error;
    try {
        const std::string text = SaveDark(m_id, path);
        m_darkMade(path, text);
    } catch (const std::exception& e) {
        error = e.what();
    }
    EndDark();
    Note("camera", fmt::format("dark frame {}", kovtools::TextOf(path.filename())), error);
}

void CameraEngine::EndDark()
{
    m_darkPath.clear();
    StopVideo();
    DropDark(m_id);
    Modify([](State& s) { s.darkFrames = s.darkDone = 0; });
    ApplyRegion(m_live, m_liveType);
}

void CameraEngine::HotPixels(const std::string& who, const std::string& what)
{
    Post(who, fmt::format("hot pixels: {}", what), [=, this] {
        RequireOpen();
        if (m_job || GetState()->recording || !m_darkPath.empty())
            throw CommandError("the camera is busy");
        StopVideo();  // the table is in the flash, which cannot be reached beside a video
        const Gate::Shared inside(m_observatory.m_gate);
        ChangeHotPixels(m_id, what);
    }, true);
}

// ---- statistics

void CameraEngine::RunStatistics()
{
    uint64_t last = 0;
    for (;;) {
        FramePtr frame;
        {
            std::unique_lock lock(m_mutex);
            m_newFrame.wait(lock, [&] { return m_stop || (m_newest && m_newest->sequence != last); });
            if (m_stop)
                return;
            frame = m_newest;
        }
        const auto begin = Steady::now();
        last = frame->sequence;
        StatisticsPtr result;
        try {
            result = Measure(*frame);
        } catch (const std::exception&) {
            continue;  // out of memory: the next frame is measured
        }
        std::unique_lock lock(m_mutex);
        m_statistics = result;
        Touch();
        // At most five a second, and never more than a third of a core.
        const auto pause = std::max<Steady::duration>(200ms, 2 * (Steady::now() - begin));
        m_newFrame.wait_for(lock, pause, [&] { return m_stop; });
    }
}

// ---- guide pulses

void CameraEngine::PulseGuide(const std::string& who, KOV_GUIDE_DIRECTION direction, std::chrono::milliseconds length)
{
    {
        const std::lock_guard lock(m_pulseMutex);
        if (m_pulseId < 0)
            throw CommandError("the camera is not open");
        Pulse& pulse = m_pulses[static_cast<size_t>(direction >> 1)];
        const Gate::Shared inside(m_observatory.m_gate);
        if (pulse.on && pulse.direction != direction)
            KOVPulseGuideOff(m_pulseId, pulse.direction);
        KOVPulseGuideOn(m_pulseId, direction);
        pulse = { true, direction, Steady::now() + length };
        m_pulseWake.notify_all();
    }
    Note(who, fmt::format("guide pulse {} for {} ms", static_cast<int>(direction), length.count()), "");
}

bool CameraEngine::IsPulseGuiding() const
{
    const std::lock_guard lock(m_pulseMutex);
    return m_pulses[0].on || m_pulses[1].on;
}

void CameraEngine::RunPulses()
{
    std::unique_lock lock(m_pulseMutex);
    while (!m_pulseStop) {
        auto next = Steady::time_point::max();
        for (Pulse& pulse : m_pulses) {
            if (!pulse.on)
                continue;
            if (pulse.end <= Steady::now()) {
                pulse.on = false;
                if (m_pulseId >= 0) {
                    const Gate::Shared inside(m_observatory.m_gate);
                    KOVPulseGuideOff(m_pulseId, pulse.direction);
                }
            } else {
                next = std::min(next, pulse.end);
            }
        }
        if (next == Steady::time_point::max())
            m_pulseWake.wait(lock);
        else
            m_pulseWake.wait_until(lock, next);
    }
}

// ---- recording

void CameraEngine::StartRecording(const std::string& who, const std::string& path,
                                  const std::function<std::unique_ptr<Recorder>(const Frame&)>& open)
{
    Post(who, fmt::format("recording {}", path), [=, this] {
        RequireOpen();
        if (m_job)
            throw CommandError("an exposure runs");
        const std::lock_guard lock(m_recordMutex);
        if (m_recordOn || m_recordBusy)
            throw CommandError("a recording runs already");
        m_recordOpen = open;
        m_recordPath = path;
        m_recordQueue.clear();
        m_recordOn = true;
        m_videoWanted = true;
        Modify([&](State& s) {
            s.recording = true;
            s.recordingPath = path;
            s.recordedFrames = s.recordedBytes = s.recordingLost = 0;
        });
    }, true);
}

void CameraEngine::StopRecording(const std::string& who)
{
    Post(who, "recording ends", [this] { FinishRecording(); }, true);
}

void CameraEngine::FinishRecording()
{
    std::unique_lock lock(m_recordMutex);
    m_recordOn = false;
    m_recordWake.notify_all();
    m_recordWake.wait(lock, [this] { return m_recordStop || !GetState()->recording; });
}

void CameraEngine::RecordFrame(const FramePtr& frame)
{
    const std::lock_guard lock(m_recordMutex);
    if (!m_recordOn || m_job)
        return;
    if (m_recordQueue.size() >= RECORD_QUEUE) {
        Modify([](State& s) { ++s.recordingLost; });
        return;
    }
    m_recordQueue.push_back(frame);
    m_recordWake.notify_all();
}

void CameraEngine::RunRecorder()
{
    std::unique_ptr<Recorder> recorder;
    std::unique_lock lock(m_recordMutex);
    const auto end = [&](const std::string& error) {
        std::string text = error;
        if (recorder) {
            try {
                recorder->Close();
            } catch (const std::exception& e) {
                text = text.empty() ? e.what() : text;
            }
            recorder.reset();
        }
        Modify([&](State& s) {
            s.recording = false;
            if (!text.empty())
                s.problem = text;
        });
        Note("camera", fmt::format("recorded {}", m_recordPath), text);
    };
    for (;;) {
        m_recordWake.wait(lock, [&] { return m_recordStop || !m_recordQueue.empty() || (!m_recordOn && GetState()->recording); });
        if (m_recordQueue.empty()) {
            if (m_recordStop)
                return;
            end("");
            m_recordWake.notify_all();
            continue;
        }
        const FramePtr frame = std::move(m_recordQueue.front());
        m_recordQueue.pop_front();
        m_recordBusy = true;
        std::string error;
        lock.unlock();
        try {
            if (!recorder)
                recorder = m_recordOpen(*frame);
            recorder->Write(*frame);
            Modify([&](State& s) {
                ++s.recordedFrames;
                s.recordedBytes += static_cast<int64_t>(frame->pixels.size());
            });
        } catch (const std::exception& e) {
            error = e.what();
        }
        lock.lock();
        if (!error.empty()) {
            m_recordOn = false;
            m_recordQueue.clear();
            end(error);
        }
        m_recordBusy = false;
        m_recordWake.notify_all();
    }
}

}  // namespace kovserve
