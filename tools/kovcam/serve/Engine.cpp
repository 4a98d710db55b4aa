#include "kovcam/serve/Engine.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "common/Files.h"

namespace kovserve {

using namespace std::chrono_literals;

namespace {

constexpr auto FRAME_WAIT = 50ms;      // a command waits at most this long behind the video
constexpr auto VIEWER_PATIENCE = 10s;  // the video goes on that long after the last viewer
constexpr auto REFRESH_EVERY = 500ms;
constexpr auto COMMAND_LIMIT = 20s;
// The library opens some cameras anew by itself, when they have not stood a long exposure.
constexpr auto SILENCE = 1500ms;
constexpr auto FIRST_PATIENCE = 2s, LONGEST_PATIENCE = 60s;  // between two tries to open a camera

}  // namespace

CameraEngine::CameraEngine(Gate& gate, std::string model, std::string key, int place, std::function<void()> attention)
    : m_gate(gate), m_model(std::move(model)), m_key(std::move(key)), m_attention(std::move(attention)), m_place(place),
      m_thread([this] { Run(); })
{
}

CameraEngine::~CameraEngine()
{
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
        m_wake.notify_all();
    }
    m_board.End();
    m_thread.join();
}

FramePtr CameraEngine::WaitNewer(uint64_t after, std::chrono::milliseconds limit)
{
    const auto note = [this] {
        const std::lock_guard lock(m_mutex);
        m_lastViewer = Steady::now();
        m_wake.notify_all();
    };
    note();
    FramePtr frame = m_board.WaitNewer(after, limit);
    note();
    return frame;
}

// ---- commands

void CameraEngine::Post(const std::string& who, const std::string& what, std::function<void()> work, Wait wait)
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
    if (wait == Wait::No)
        return;
    if (result.wait_for(COMMAND_LIMIT) != std::future_status::ready)
        throw CommandError(fmt::format("the camera is busy; it did not answer within {} s", COMMAND_LIMIT.count()));
    result.get();
}

bool CameraEngine::TakeCommand(Command* command)
{
    const std::lock_guard lock(m_mutex);
    m_working = !m_held && !m_commands.empty();
    if (!m_working)
        return false;
    *command = std::move(m_commands.front());
    m_commands.pop_front();
    return true;
}

void CameraEngine::RunCommands()
{
    for (Command c; TakeCommand(&c);)
        RunCommand(c);
}

void CameraEngine::RunCommand(const Command& c)
{
    std::string error;
    try {
        c.work();
        if (m_device)
            Refresh();  // who asked finds it in the state
        c.done->set_value();
    } catch (const std::exception& e) {
        error = e.what();
        c.done->set_exception(std::make_exception_ptr(CommandError(error)));
    }
    m_board.Note(c.who, c.what, error);
}

Device& CameraEngine::RequireOpen() const
{
    if (m_device)
        return *m_device;
    const StatePtr s = GetState();
    throw CommandError(s->problem.empty() ? "the camera is not open yet" : s->problem);
}

void CameraEngine::RequireNothingRuns() const
{
    if (m_exposure)
        throw CommandError("an exposure runs; abort it or wait for its end");
    if (m_darkRoom.IsCollecting())
        throw CommandError("a dark frame is being collected; abort it or wait for its end");
    if (GetState()->recording)
        throw CommandError("a recording runs, whose frames must stay alike; stop it first");
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
    Post(who, automatic ? fmt::format("{}: automatic", c->name) : fmt::format("{}: {}", c->name, value),
         [=, this] { RequireOpen().Set(type, value, automatic); });
}

void CameraEngine::SetRegion(const std::string& who, const Region& region, IMG_TYPE type)
{
    Post(who, fmt::format("region {}x{}+{}+{}, bin {}", region.width, region.height, region.x, region.y, region.bin), [=, this] {
        Device& device = RequireOpen();
        RequireNothingRuns();
        StopVideo();
        try {
            device.ApplyRegion(region, type);
        } catch (const CommandError&) {
            device.ApplyRegion(m_live, m_liveType);
            throw;
        }
        m_live = device.ActualRegion(&m_liveType);
    });
}

void CameraEngine::SetVideo(const std::string& who, bool on)
{
    Post(who, on ? "video on" : "video off", [=, this] { m_videoWanted = on; });
}

void CameraEngine::StartExposure(const std::string& who, ExposureRequest request)
{
    {
        const StatePtr s = GetState();
        if (s->controls.empty() || s->phase == Phase::Absent)
            throw CommandError(s->problem.empty() ? "the camera is not open yet" : s->problem);
        if (s->recording)
            throw CommandError("a recording runs; stop it first");
        const std::lock_guard lock(m_mutex);
        if (m_exposureAccepted)
            throw CommandError("an exposure runs already");
        m_exposureAccepted = true;
    }
    const double seconds = static_cast<double>(request.us) / 1e6;
    const auto post = [=, this] {
        try {
            Device& device = RequireOpen();
            RequireNothingRuns();
            m_exposure = std::make_unique<Exposure>(device, m_board, request);
            m_exposure->Begin();
        } catch (const std::exception& e) {
            if (m_exposure) {
                EndExposure(e.what());
            } else {
                ForgetExposure();
                request.ended(e.what());
            }
            throw;
        }
    };
    try {
        Post(who,
             request.count == 1 ? fmt::format("exposure of {:g} s", seconds)
                                : fmt::format("{} exposures of {:g} s", request.count, seconds),
             post, Wait::No);
    } catch (const CommandError&) {
        ForgetExposure();
        throw;
    }
}

void CameraEngine::ForgetExposure()
{
    const std::lock_guard lock(m_mutex);
    m_exposureAccepted = false;
}

void CameraEngine::Abort(const std::string& who)
{
    Post(who, "abort", [this] {
        if (m_exposure)
            EndExposure("aborted");
        if (m_darkRoom.IsCollecting())
            EndDark();
    });
}

void CameraEngine::StartRecording(const std::string& who, const std::string& path, const Recording::OpenFile& open)
{
    Post(who, fmt::format("recording {}", path), [=, this] {
        RequireOpen();
        RequireNothingRuns();
        m_recording.Start(path, open);
        m_videoWanted = true;
    });
}

void CameraEngine::StopRecording(const std::string& who)
{
    Post(who, "recording ends", [this] { m_recording.Finish(); });
}

void CameraEngine::UseDark(const std::string& who, const std::filesystem::path& path)
{
    Post(who, path.empty() ? "no dark frame" : fmt::format("dark frame {}", kovtools::TextOf(path.filename())),
         [=, this] { RequireOpen().UseDark(path); });
}

void CameraEngine::TakeDark(const std::string& who, const std::filesystem::path& path, const DarkRoom::Made& made)
{
    Post(who, fmt::format("collecting the dark frame {}", kovtools::TextOf(path.filename())), [=, this] {
        Device& device = RequireOpen();
        RequireNothingRuns();
        StopVideo();
        m_darkRoom.Begin(device, path, made);
    });
}

void CameraEngine::HotPixels(const std::string& who, const std::string& what)
{
    Post(who, fmt::format("hot pixels: {}", what), [=, this] {
        Device& device = RequireOpen();
        RequireNothingRuns();
        StopVideo();  // the table is in the flash, which cannot be reached beside a video
        device.ChangeHotPixels(what);
    });
}

void CameraEngine::PulseGuide(const std::string& who, KOV_GUIDE_DIRECTION direction, std::chrono::milliseconds length)
{
    m_pulses.Start(direction, length);
    m_board.Note(who, fmt::format("guide pulse {} for {} ms", static_cast<int>(direction), length.count()), "");
}

// ---- for the observatory

void CameraEngine::CallRoll()
{
    const std::lock_guard lock(m_mutex);
    ++m_rollAsked;
    m_wake.notify_all();
}

CameraEngine::Roll CameraEngine::RollAnswer() const
{
    const std::lock_guard lock(m_mutex);
    return m_rollAnswered == m_rollAsked ? m_roll : Roll::Asked;
}

int CameraEngine::OpenId() const
{
    const std::lock_guard lock(m_mutex);
    return m_openId;
}

int CameraEngine::LostPlace() const
{
    const std::lock_guard lock(m_mutex);
    return m_lost && m_place ? *m_place : -1;
}

std::chrono::steady_clock::time_point CameraEngine::GoneSince() const
{
    const std::lock_guard lock(m_mutex);
    return m_goneSince;
}

bool CameraEngine::Hold()
{
    const StatePtr s = GetState();
    const std::lock_guard lock(m_mutex);
    if (m_working || !m_commands.empty() || m_exposureAccepted || s->recording || s->darkFrames > 0 || m_pulses.AreRunning())
        return false;
    m_held = true;
    return true;
}

void CameraEngine::Release()
{
    const std::lock_guard lock(m_mutex);
    m_held = m_restWanted = m_resting = false;
    m_wake.notify_all();
}

void CameraEngine::Rest()
{
    const std::lock_guard lock(m_mutex);
    m_restWanted = true;
    m_resting = false;
    m_wake.notify_all();
}

bool CameraEngine::IsResting() const
{
    const std::lock_guard lock(m_mutex);
    return m_resting;
}

void CameraEngine::Place(std::optional<int> id)
{
    const std::lock_guard lock(m_mutex);
    if (m_lost || m_place != id) {
        m_openAfter = {};
        m_patience = {};
    }
    if (id)
        m_goneSince = {};
    else if (m_place && !m_lost)
        m_goneSince = Steady::now();
    m_place = id;
    m_lost = false;
    m_held = m_restWanted = m_resting = false;
    m_wake.notify_all();
}

// ---- the camera's thread

void CameraEngine::Run()
{
    for (;;) {
        {
            const std::lock_guard lock(m_mutex);
            if (m_stop)
                break;
        }
        try {
            Step();
        } catch (const std::exception& e) {
            OnTrouble(e.what());
        }
    }
    EndExposure("the server is stopping");
    Close(false);
    std::deque<Command> left;
    {
        const std::lock_guard lock(m_mutex);
        left.swap(m_commands);
    }
    for (Command& c : left)
        c.done->set_exception(std::make_exception_ptr(CommandError("the server is stopping")));
}

bool CameraEngine::HasWork() const
{
    return m_stop || m_rollAsked != m_rollAnswered || (m_held ? m_restWanted && !m_resting : !m_commands.empty());
}

void CameraEngine::Idle(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    if (!HasWork())
        m_wake.wait_for(lock, time);
}

void CameraEngine::Step()
{
    bool rest = false, watched = false;
    std::optional<int> open;
    uint64_t roll = 0;
    {
        const std::lock_guard lock(m_mutex);
        rest = m_restWanted;
        watched = Steady::now() - m_lastViewer < VIEWER_PATIENCE;
        roll = m_rollAsked != m_rollAnswered ? m_rollAsked : 0;
        if (!m_device && !m_held && m_place && !m_lost && Steady::now() >= m_openAfter)
            open = m_place;
        m_working = open.has_value();
    }
    if (roll != 0)
        AnswerRoll(roll);
    if (rest) {
        Close(true);
        {
            const std::lock_guard lock(m_mutex);
            m_resting = true;
        }
        return Idle(200ms);
    }
    if (open)
        Open(*open);
    RunCommands();
    if (!m_device) {
        ShowClosed();
        return Idle(200ms);
    }
    if (m_exposure)
        StepExposure();
    else if (m_darkRoom.IsCollecting() || GetState()->recording || (m_videoWanted && watched))
        StepLive();
    else {
        StopVideo();
        Idle(100ms);
    }
    if (m_device && Steady::now() - m_lastRefresh >= REFRESH_EVERY)
        Refresh();
}

void CameraEngine::Open(int id)
{
    m_board.Modify([](State& s) { s.phase = Phase::Opening; });
    try {
        m_device = std::make_unique<Device>(m_gate, id);
        RestoreAfterOpening();
    } catch (const std::exception& e) {
        return OnTrouble(e.what());
    }
    {
        const std::lock_guard lock(m_mutex);
        m_openId = id;
    }
    m_pulses.Attach(id);
    m_silentSince.reset();
    m_lastFrame = m_opened = Steady::now();
    m_board.SetInfo(m_device->Info());
    Refresh();
    m_board.Modify([](State& s) {
        s.phase = Phase::Idle;
        s.problem.clear();
    });
    m_board.Note("server", fmt::format("opened {}", m_device->Info().Name), "");
}

// The region and the cooler of before, when the camera has been away; at first the picture that a person wants to see.
void CameraEngine::RestoreAfterOpening()
{
    try {
        if (m_live.width > 0)
            m_device->ApplyRegion(m_live, m_liveType);
        else if (m_device->Info().IsColorCam)
            m_device->ApplyRegion({}, IMG_RGB24);
    } catch (const CommandError&) {
        // it stays as it opened
    }
    m_live = m_device->ActualRegion(&m_liveType);
    if (m_coolTo) {
        m_device->Set(CTRL_TARGET_TEMP, *m_coolTo);
        m_device->Set(CTRL_COOLER_ON, 1);
    }
}

void CameraEngine::Close(bool forAMoment)
{
    m_recording.Finish();
    if (m_darkRoom.IsCollecting())
        m_darkRoom.End(nullptr);
    if (m_device) {
        const StatePtr s = GetState();
        const ControlState* const target = s->coolerOn ? s->Find(CTRL_TARGET_TEMP) : nullptr;
        m_coolTo = target != nullptr ? std::optional(target->value) : std::nullopt;
        m_pulses.Detach(forAMoment);
        m_device.reset();
        const std::lock_guard lock(m_mutex);
        m_openId = -1;
    }
    ShowClosed();
}

void CameraEngine::ShowClosed()
{
    bool present = false;
    {
        const std::lock_guard lock(m_mutex);
        present = m_place && !m_lost;
    }
    const Phase phase = present ? Phase::Closed : Phase::Absent;
    if (GetState()->phase != phase && !(present && GetState()->phase == Phase::Failed))
        m_board.Modify([&](State& s) {
            s.phase = phase;
            s.framesPerSecond = 0;
            s.problem = present ? "" : "the camera is not connected; it goes on when it comes back";
        });
}

void CameraEngine::AnswerRoll(uint64_t roll)
{
    Roll answer = Roll::NotOpen;
    if (m_device) {
        answer = m_device->Answers() ? Roll::Here : Roll::Doubtful;
        const bool wasSilent = m_silentSince.has_value();
        if (answer == Roll::Here)
            m_silentSince.reset();
        else if (!wasSilent)
            m_silentSince = Steady::now();
        if (wasSilent != m_silentSince.has_value())
            m_board.Modify([&](State& s) { s.problem = wasSilent ? "" : "the camera does not answer"; });
    }
    if (m_silentSince && Steady::now() - *m_silentSince > SILENCE) {
        OnTrouble("the camera does not answer any more");
        answer = Roll::NotOpen;
    }
    const std::lock_guard lock(m_mutex);
    m_roll = answer;
    m_rollAnswered = roll;
}

// The camera is closed. One that is still on the bus is opened again, ever more seldom, for it may stay as it is.
void CameraEngine::OnTrouble(const std::string& problem)
{
    const bool lost = m_device && !m_device->Answers();
    EndExposure(lost ? "the camera fell out" : problem);
    m_silentSince.reset();
    m_patience = std::clamp<std::chrono::seconds>(2 * m_patience, FIRST_PATIENCE, LONGEST_PATIENCE);
    {
        const std::lock_guard lock(m_mutex);
        if (lost)
            m_goneSince = Steady::now();
        m_lost = m_lost || lost;
        m_openAfter = Steady::now() + m_patience;
        m_working = false;
    }
    m_board.Note("server", "camera", lost ? "the camera fell out" : problem);
    Close(false);
    if (!lost)
        m_board.Modify([&](State& s) {
            s.phase = Phase::Failed;
            s.problem = problem;
            s.framesPerSecond = 0;
        });
    m_attention();
}

// ---- video

void CameraEngine::StepLive()
{
    if (!m_device->IsVideo()) {
        m_device->StartVideo();
        m_lastFrame = m_rateStart = Steady::now();
        m_rateFrames = 0;
        m_board.Modify([](State& s) { s.phase = Phase::Live; });
    }
    if (std::shared_ptr<Frame> frame = m_device->NextFrame(FRAME_WAIT)) {
        CountFrame(frame->dropped);
        m_recording.Offer(Publish(std::move(frame)));
        if (m_darkRoom.IsCollecting() && m_darkRoom.Step(*m_device))
            EndDark();
        return;
    }
    // Long, since closing a camera takes its cooler's power away; a machine under load is no cable that fell out.
    const auto exposure = std::chrono::duration<double>(3 * m_device->Settings().exposure);
    if (Steady::now() - m_lastFrame > 8s + exposure)
        throw CommandError("no frames come. Check cable and port; 'kovcam doctor' tells more");
}

void CameraEngine::StopVideo()
{
    m_device->StopVideo();
    if (!m_exposure && GetState()->phase == Phase::Live)
        m_board.Modify([](State& s) {
            s.phase = Phase::Idle;
            s.framesPerSecond = 0;
        });
}

FramePtr CameraEngine::Publish(std::shared_ptr<Frame> frame)
{
    frame->sequence = ++m_sequence;
    FramePtr published = std::move(frame);
    m_board.Publish(published);
    m_patience = {};
    return published;
}

void CameraEngine::CountFrame(int dropped)
{
    const auto now = Steady::now();
    m_lastFrame = now;
    ++m_rateFrames;
    const double seconds = std::chrono::duration<double>(now - m_rateStart).count();
    if (seconds < 1)
        return;
    m_board.Modify([&](State& s) {
        s.framesPerSecond = m_rateFrames / seconds;
        s.frames += m_rateFrames;
        s.dropped = dropped;
        s.problem.clear();
    });
    m_rateStart = now;
    m_rateFrames = 0;
}

void CameraEngine::EndDark()
{
    m_darkRoom.End(m_device.get());
    StopVideo();
    m_device->ApplyRegion(m_live, m_liveType);
}

// ---- exposures

void CameraEngine::StepExposure()
{
    std::string error;
    bool over = false;
    try {
        if (std::shared_ptr<Frame> frame = m_exposure->Step()) {
            m_exposure->Request().taken(Publish(std::move(frame)), m_exposure->Shot());
            over = m_exposure->IsOver();
        } else {
            Idle(m_exposure->Pause());
        }
    } catch (const std::exception& e) {  // also of a file that cannot be written
        error = e.what();
        over = true;
    }
    if (over)
        EndExposure(error);
}

void CameraEngine::EndExposure(const std::string& error)
{
    const std::unique_ptr<Exposure> exposure = std::move(m_exposure);
    if (!exposure)
        return;
    exposure->Restore(m_live, m_liveType);
    ForgetExposure();
    m_board.Modify([&](State& s) {
        s.phase = Phase::Idle;
        s.shot = s.shots = 0;
        if (!error.empty() && error != "aborted")
            s.problem = error;
    });
    if (!error.empty())
        m_board.Note("camera", "exposure", error);
    exposure->Request().ended(error);
}

// ---- state

void CameraEngine::Refresh()
{
    m_lastRefresh = Steady::now();
    Setup setup = m_device->ReadSetup();
    // A cooled camera measures for the first time 0.6 s after it was opened.
    const bool measured = !m_device->Info().IsCooled || Steady::now() - m_opened > 1500ms;
    kovtools::CameraState settings = m_device->Settings();
    if (!measured)
        settings.temperature.reset();
    m_board.SetSettings(settings);
    if (m_exposure)
        m_exposure->Hide(setup, m_live, m_liveType);
    const StatePtr before = GetState();
    const bool known = measured && setup.Find(CTRL_TEMPERATURE) != nullptr;
    if (static_cast<const Setup&>(*before) == setup && before->temperature.has_value() == known)
        return;
    m_board.Modify([&](State& s) {
        static_cast<Setup&>(s) = std::move(setup);
        s.temperature.reset();
        s.coolerPower.reset();
        if (const ControlState* c = s.Find(CTRL_TEMPERATURE); known)
            s.temperature = c->value / 10.0;
        if (const ControlState* c = s.Find(CTRL_COOL_POWER_PERC))
            s.coolerPower = c->value;
        if (const ControlState* c = s.Find(CTRL_COOLER_ON))
            s.coolerOn = c->value != 0;
    });
}

}  // namespace kovserve
