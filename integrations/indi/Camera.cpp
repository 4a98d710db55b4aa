#include "Camera.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <set>
#include <utility>

#include "common/Files.h"
#include "common/Firmware.h"
#include "common/Frame.h"

namespace kovindi {

using namespace std::chrono_literals;

namespace {

constexpr auto LOOK_AT_CONTROLS = 1s;
constexpr auto FRAME_WAIT = 100ms;  // a wish of a client is looked at that often while no frame comes
constexpr auto PATIENCE = 15s;      // beyond the exposure; the library itself waits for ever for a camera that sends nothing
constexpr auto VERIFY_PATIENCE = 5s;
constexpr int32_t VERIFY_US = 10000;
constexpr const char* NO_FRAME = "the camera sent no good frame. Check cable, port and hub; 'kovcam doctor' tells more";

std::chrono::duration<double> Seconds(double s) { return std::chrono::duration<double>(s); }

// Of the models that are open; never destroyed, since cameras are closed while the process ends.
struct OpenModels {
    std::mutex mutex;
    std::multiset<std::string> names;
};

OpenModels& TheOpenModels()
{
    static auto* models = new OpenModels;
    return *models;
}

}  // namespace

const ControlState* Find(const ControlStates& states, KOV_CONTROL_TYPE type)
{
    const auto it = std::find_if(states.begin(), states.end(), [=](const ControlState& s) { return s.type == type; });
    return it == states.end() ? nullptr : &*it;
}

Camera::Camera(std::string model, std::string id, int ordinal, Listener& listener)
    : m_model(std::move(model)), m_id(std::move(id)), m_ordinal(ordinal), m_listener(listener)
{
    m_pulseThread = std::thread([this] { WorkPulses(); });
    m_worker = std::thread([this] { Work(); });
}

Camera::~Camera() { m_worker.join(); }

std::mutex& OpeningMutex()
{
    static std::mutex mutex;
    return mutex;
}

bool IsOneOpen(const std::string& model)
{
    OpenModels& open = TheOpenModels();
    const std::lock_guard lock(open.mutex);
    return open.names.count(model) != 0;
}

void Camera::Open()
{
    Post([this] {
        try {
            const std::lock_guard opening(OpeningMutex());
            DoOpen();
        } catch (const std::exception& e) {
            m_listener.OnOpenFailed(e.what());
        }
    });
}
void Camera::Verify()
{
    Post([this] {
        if (m_place < 0 || m_doing != Doing::Nothing)
            return;
        const ControlState* before = Find(m_told, CTRL_EXPOSURE);
        m_library->SetControlValue(m_place, CTRL_EXPOSURE, VERIFY_US, KOV_FALSE);
        m_library->StartExposure(m_place);
        KOV_EXPOSURE_STATUS status = EXP_WORKING;
        for (const auto end = Clock::now() + VERIFY_PATIENCE; status == EXP_WORKING && Clock::now() < end;) {
            std::this_thread::sleep_for(10ms);
            m_library->GetExpStatus(m_place, &status);
        }
        m_failed = status != EXP_SUCCESS;
        if (status == EXP_SUCCESS) {
            m_image.resize(m_format.Bytes());
            m_library->GetDataAfterExp(m_place, m_image.data(), static_cast<int32_t>(m_image.size()));
        } else {
            m_library->StopExposure(m_place);
        }
        if (before != nullptr)
            m_library->SetControlValue(m_place, CTRL_EXPOSURE, before->value, before->automatic ? KOV_TRUE : KOV_FALSE);
        m_listener.OnVerified();
    });
}
void Camera::Close()
{
    Post([this] {
        DoClose();
        m_listener.OnClosed();
    });
}
void Camera::SetFormat(const Format& wish)
{
    Post([this, wish] { DoSetFormat(wish); });
}
void Camera::StartExposure(double seconds, int tag)
{
    Post([this, seconds, tag] { DoStartExposure(seconds, tag); });
}
void Camera::StopExposure()
{
    Post([this] {
        if (m_doing == Doing::Exposure)
            Halt();
    });
}
void Camera::StartVideo()
{
    Post([this] { DoStartVideo(); });
}
void Camera::StopVideo()
{
    Post([this] {
        if (m_doing == Doing::Video)
            Halt();
    });
}
void Camera::TakeDark(int frames, const std::string& path)
{
    Post([this, frames, path] { DoTakeDark(frames, path); });
}
void Camera::LoadDark(const std::string& path)
{
    Post([this, path] {
        KOV_BOOL on = KOV_TRUE;
        const KOV_ERROR_CODE code = m_place < 0 ? KOV_ERROR_NOT_OPEN : m_library->EnableDarkSubtract(m_place, path.c_str(), &on);
        TellDark(code == KOV_SUCCESS, code == KOV_SUCCESS ? "dark frame " + path + " is subtracted from 8-bit pictures"
                                      : code == KOV_ERROR_BAD_PATH
                                          ? "cannot open the dark frame " + path + ". Take one, or set DARK_FILE"
                                          : path + " is no dark frame of this camera. Take a new one");
    });
}
void Camera::ClearDark()
{
    Post([this] {
        if (m_place >= 0)
            m_library->DisableDarkSubtract(m_place);
        TellDark(true, "no dark frame is subtracted");
    });
}
void Camera::SetControl(KOV_CONTROL_TYPE type, int32_t value, bool automatic)
{
    Post([this, type, value, automatic] {
        const KOV_ERROR_CODE code =
            m_place < 0 ? KOV_ERROR_NOT_OPEN : m_library->SetControlValue(m_place, type, value, automatic ? KOV_TRUE : KOV_FALSE);
        if (code != KOV_SUCCESS)
            m_listener.OnRefused(Name(type) + " " + std::to_string(value) + ": " + kovtools::ErrorText(code));
        m_told.clear();  // what it made of the value is told in any case
        TellControls();
    });
}

void Camera::End()
{
    Post([this] {
        DoClose();
        m_ending = true;
    });
}

void Camera::Post(std::function<void()> work)
{
    {
        const std::lock_guard lock(m_mutex);
        m_queue.push_back(std::move(work));
    }
    m_wake.notify_one();
}

void Camera::Work()
{
    std::chrono::milliseconds wait = 0ms;
    while (!m_ending) {
        std::deque<std::function<void()>> queue;
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait_for(lock, wait, [this] { return !m_queue.empty(); });
            queue.swap(m_queue);
        }
        wait = 0ms;
        for (const auto& work : queue) {
            try {
                work();
            } catch (const std::exception& e) {
                m_listener.OnRefused(e.what());
            }
        }
        if (!m_ending)
            wait = Step();
    }
    {
        const std::lock_guard lock(m_pulseMutex);
        m_pulsesEnd = true;
    }
    m_pulseWake.notify_one();
    m_pulseThread.join();
    m_library.reset();
    m_listener.OnEnded();
}

// A turn of what runs. Returns how long the worker may rest.
std::chrono::milliseconds Camera::Step()
{
    try {
        if (m_place >= 0 && m_doing != Doing::Dark && Clock::now() - m_lastLook > LOOK_AT_CONTROLS)
            TellControls();
        switch (m_doing) {
        case Doing::Nothing: return LOOK_AT_CONTROLS;
        case Doing::Exposure: StepExposure(); return m_doing == Doing::Nothing ? 0ms : m_exposure > 1 ? 20ms : 2ms;
        case Doing::Video:
        case Doing::Dark: StepVideo(); return 0ms;
        }
    } catch (const std::exception& e) {
        Fail(e.what());
    }
    return 0ms;
}

// --- open and close ---

void Camera::DoOpen()
{
    if (m_place >= 0) {
        m_listener.OnOpened(Describe());
        return;
    }
    if (m_library == nullptr)
        m_library = BorrowLibrary();
    const int count = m_library->GetNumOfConnectedCameras();
    std::vector<int> places;
    for (int i = 0; i < count; ++i) {
        KOV_CAMERA_INFO info{};
        if (m_library->GetCameraProperty(&info, i) == KOV_SUCCESS && m_model == info.Name)
            places.push_back(i);
    }
    // The one at its own place first: equal cameras keep their names as long as none of them is plugged elsewhere.
    if (m_ordinal <= static_cast<int>(places.size()))
        std::rotate(places.begin(), places.begin() + (m_ordinal - 1), places.begin() + m_ordinal);
    m_place = OpenOneOf(places);
    if (m_place < 0) {
        m_failed = true;
        m_listener.OnOpenFailed(places.empty() ? m_model + " is not on the bus any more. Is it plugged in?"
                                               : m_model +
                                                     " does not open: another program may hold it, or you may not write its "
                                                     "device. 'kovcam doctor' tells which, and what mends it");
        return;
    }
    m_failed = false;
    {
        OpenModels& open = TheOpenModels();
        const std::lock_guard lock(open.mutex);
        open.names.insert(m_model);
    }
    Opened opened = Describe();
    {
        const std::lock_guard lock(m_portMutex);
        m_portPlace = m_place;
    }
    m_listener.OnOpened(opened);
}

int Camera::OpenOneOf(const std::vector<int>& places)
{
    for (const int i : places) {
        KOV_ID id{};
        const kovtools::OpeningOfCamera opening;
        if (m_library->OpenCamera(i) == KOV_SUCCESS &&
            (m_id.empty() || (m_library->GetID(i, &id) == KOV_SUCCESS && IdText(id) == m_id))) {
            m_firmware = opening.FirmwareVersion();
            return i;
        }
        m_library->CloseCamera(i);  // an open that failed counts as open
    }
    return -1;
}

Opened Camera::Describe()
{
    Opened opened{};
    m_library->GetCameraProperty(&m_info, m_place);
    int32_t count = 0;
    m_library->GetNumOfControls(m_place, &count);
    m_controls.assign(static_cast<size_t>(count), {});
    for (int i = 0; i < count; ++i)
        m_library->GetControlCaps(m_place, i, &m_controls[static_cast<size_t>(i)]);
    int32_t width = 0, height = 0, bin = 1;
    m_library->GetROIFormat(m_place, &width, &height, &bin, &m_format.type);
    m_format.bin = std::max(1, bin);
    m_format.region = { 0, 0, width * m_format.bin, height * m_format.bin };
    m_told = ReadControls();
    opened.info = m_info;
    opened.controls = m_controls;
    opened.states = m_told;
    opened.format = m_format;
    opened.dark = IsDarkInUse();
    opened.firmware = m_firmware;
    return opened;
}

void Camera::DoClose()
{
    if (m_place < 0)
        return;
    Halt();
    {
        const std::lock_guard lock(m_portMutex);
        m_portPlace = -1;
        // A camera that is closed within a pulse would hold its pin for ever.
        for (const auto pin : { KOV_GUIDE_0, KOV_GUIDE_1, KOV_GUIDE_2, KOV_GUIDE_3 })
            m_library->PulseGuideOff(m_place, pin);
    }
    m_library->CloseCamera(m_place);
    m_place = -1;
    OpenModels& open = TheOpenModels();
    const std::lock_guard lock(open.mutex);
    open.names.erase(open.names.find(m_model));
}

// --- settings ---

std::string Camera::Name(KOV_CONTROL_TYPE type) const
{
    for (const KOV_CONTROL_CAPS& c : m_controls)
        if (c.ControlType == type)
            return ElementName(c);
    return "control " + std::to_string(static_cast<int>(type));
}

ControlStates Camera::ReadControls()
{
    m_lastLook = Clock::now();
    ControlStates states;
    for (const KOV_CONTROL_CAPS& c : m_controls) {
        int32_t value = 0;
        KOV_BOOL automatic = KOV_FALSE;
        m_library->GetControlValue(m_place, c.ControlType, &value, &automatic);
        states.push_back({ c.ControlType, value, automatic != KOV_FALSE });
    }
    return states;
}

void Camera::TellControls()
{
    if (m_place < 0)
        return;
    ControlStates states = ReadControls();
    if (states == m_told)
        return;
    m_told = states;
    m_listener.OnControls(states);
}

void Camera::DoSetFormat(const Format& wish)
{
    if (m_place < 0 || m_doing != Doing::Nothing) {
        m_listener.OnRefused("the format changes only between captures");
        m_listener.OnFormat(m_format);
        return;
    }
    KOV_ERROR_CODE code = KOV_ERROR_BAD_SIZE;
    for (const auto& [width, height] : SizesToTry(wish.region, wish.bin, m_info.MaxWidth, m_info.MaxHeight)) {
        code = m_library->SetROIFormat(m_place, width, height, wish.bin, wish.type);
        if (code != KOV_SUCCESS)
            continue;
        m_format = wish;
        m_format.region.width = width * wish.bin;
        m_format.region.height = height * wish.bin;
        break;
    }
    if (code != KOV_SUCCESS) {
        m_listener.OnRefused("the camera takes no region of " + std::to_string(wish.region.width) + " x " +
                             std::to_string(wish.region.height) + " at bin " + std::to_string(wish.bin) + ": " +
                             kovtools::ErrorText(code));
        m_listener.OnFormat(m_format);
        return;
    }
    Region& r = m_format.region;
    m_library->SetStartPos(m_place, wish.region.x / wish.bin, wish.region.y / wish.bin);
    int32_t x = 0, y = 0;
    m_library->GetStartPos(m_place, &x, &y);
    r.x = StartInForce(wish.region.x, x, wish.bin, r.width, m_info.MaxWidth);
    r.y = StartInForce(wish.region.y, y, wish.bin, r.height, m_info.MaxHeight);
    m_listener.OnFormat(m_format);
}

// --- captures ---

void Camera::Fail(const std::string& why)
{
    const Doing was = std::exchange(m_doing, Doing::Nothing);
    m_failed = true;
    if (m_place >= 0 && was == Doing::Exposure)
        m_library->StopExposure(m_place);
    else if (m_place >= 0 && was != Doing::Nothing)
        m_library->StopVideoCapture(m_place);
    if (was == Doing::Exposure)
        m_listener.OnExposureFailed(m_tag, why);
    else if (was == Doing::Video)
        m_listener.OnVideoEnded(why);
    else if (was == Doing::Dark)
        TellDark(false, "no dark frame: " + why);
}

void Camera::Halt()
{
    const Doing was = std::exchange(m_doing, Doing::Nothing);
    if (was == Doing::Exposure)
        m_library->StopExposure(m_place);
    else if (was != Doing::Nothing)
        m_library->StopVideoCapture(m_place);
}

void Camera::DoStartExposure(double seconds, int tag)
{
    if (m_place < 0 || m_doing != Doing::Nothing) {
        m_listener.OnExposureFailed(
            tag, m_place < 0 ? "the camera is not open" : "the camera is busy with another capture. Stop that first");
        return;
    }
    m_library->SetControlValue(m_place, CTRL_EXPOSURE, static_cast<int32_t>(std::lround(seconds * 1e6)), KOV_FALSE);
    m_exposure = seconds;
    m_tag = tag;
    m_started = Clock::now();
    m_doing = Doing::Exposure;
    m_library->StartExposure(m_place);
}

void Camera::StepExposure()
{
    KOV_EXPOSURE_STATUS status = EXP_FAILED;
    m_library->GetExpStatus(m_place, &status);
    if (status == EXP_WORKING && Clock::now() - m_started < Seconds(m_exposure) + PATIENCE)
        return;
    if (status != EXP_SUCCESS) {
        Fail(NO_FRAME);
        return;
    }
    m_doing = Doing::Nothing;
    m_image.resize(m_format.Bytes());
    if (const KOV_ERROR_CODE code = m_library->GetDataAfterExp(m_place, m_image.data(), static_cast<int32_t>(m_image.size()));
        code != KOV_SUCCESS) {
        m_failed = true;
        m_listener.OnExposureFailed(m_tag, std::string("the picture could not be read: ") + kovtools::ErrorText(code));
        return;
    }
    m_failed = false;
    m_listener.OnExposed(m_tag, m_format, m_image);
}

void Camera::DoStartVideo()
{
    if (m_place < 0 || m_doing != Doing::Nothing) {
        m_listener.OnVideoEnded(m_place < 0 ? "the camera is not open"
                                            : "the camera is busy with another capture. Stop that first");
        return;
    }
    if (m_library->StartVideoCapture(m_place) != KOV_SUCCESS) {
        m_failed = true;
        m_listener.OnVideoEnded("video did not start. Is the camera still plugged in?");
        return;
    }
    m_doing = Doing::Video;
    m_frames = 0;
    m_started = m_lastFrame = m_lastCount = Clock::now();
    m_image.resize(m_format.Bytes());
}

void Camera::StepVideo()
{
    const KOV_ERROR_CODE code = m_library->GetVideoData(m_place, m_image.data(), static_cast<int32_t>(m_image.size()),
                                                        static_cast<int32_t>(FRAME_WAIT.count()));
    const auto now = Clock::now();
    if (code == KOV_SUCCESS) {
        m_failed = false;
        m_lastFrame = now;
        ++m_frames;
        if (m_doing == Doing::Video) {
            m_listener.OnFrame(m_format, m_image);
        } else {
            m_dark->Add(m_image.data());
            if (m_dark->Count() == m_darkWanted)
                FinishDark();
        }
    } else {
        const ControlState* exposure = Find(m_told, CTRL_EXPOSURE);
        if (now - m_lastFrame > 2 * Seconds(exposure != nullptr ? exposure->value / 1e6 : 0) + PATIENCE / 3)
            Fail(NO_FRAME);
    }
    if (m_doing == Doing::Video && now - m_lastCount > 1s) {
        int32_t dropped = 0;
        m_library->GetDroppedFrames(m_place, &dropped);
        m_listener.OnVideoCount({ m_frames, std::chrono::duration<double>(now - m_lastCount).count(), dropped });
        m_frames = 0;
        m_lastCount = now;
    }
}

// --- dark frames ---

bool Camera::IsDarkInUse() const
{
    KOV_BOOL on = KOV_FALSE;
    if (m_place >= 0)
        m_library->EnableDarkSubtract(m_place, "", &on);
    return on != KOV_FALSE;
}

void Camera::TellDark(bool done, const std::string& what) { m_listener.OnDark(done, IsDarkInUse(), what); }

void Camera::DoTakeDark(int frames, const std::string& path)
{
    if (m_place < 0 || m_doing != Doing::Nothing) {
        TellDark(false, "a dark frame is taken between captures. Stop the capture first");
        return;
    }
    m_afterDark = m_format;
    m_library->DisableDarkSubtract(m_place);
    for (const KOV_CONTROL_TYPE type : { CTRL_EXPOSURE, CTRL_GAIN })  // what changes by itself between frames is no dark frame
        if (const ControlState* s = Find(m_told, type); s != nullptr && s->automatic)
            m_library->SetControlValue(m_place, type, s->value, KOV_FALSE);
    DoSetFormat({ { 0, 0, m_info.MaxWidth, m_info.MaxHeight }, 1, IMG_RAW8 });
    DoStartVideo();
    if (m_doing != Doing::Video)
        return;
    m_doing = Doing::Dark;
    m_dark.emplace(m_info.MaxWidth, m_info.MaxHeight);
    m_darkWanted = std::max(1, frames);
    m_darkPath = path;
}

void Camera::FinishDark()
{
    Halt();
    const std::vector<uint8_t> bmp = m_dark->Bmp();
    m_dark.reset();
    DoSetFormat(m_afterDark);
    try {
        kovtools::WholeFile whole(m_darkPath);
        std::ofstream file(kovtools::PathOf(whole.Temporary()), std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(bmp.data()), static_cast<std::streamsize>(bmp.size()));
        file.close();
        if (!file)
            kovtools::FailToWrite(m_darkPath, std::strerror(errno));
        whole.Commit();
    } catch (const std::runtime_error& e) {
        TellDark(false, std::string(e.what()) + " Else set DARK_FILE to another place");
        return;
    }
    LoadDark(m_darkPath);
}

// --- guide port ---

void Camera::Pulse(int pin, std::chrono::milliseconds length)
{
    {
        const std::lock_guard lock(m_pulseMutex);
        m_asked[static_cast<size_t>(pin / 2)] = { pin, length };
    }
    m_pulseWake.notify_one();
}

void Camera::SetPin(int pin, bool on)
{
    const std::lock_guard lock(m_portMutex);
    if (m_portPlace >= 0)
        (on ? m_library->PulseGuideOn : m_library->PulseGuideOff)(m_portPlace, static_cast<KOV_GUIDE_DIRECTION>(pin));
}

void Camera::WorkPulses()
{
    std::array<std::optional<Running>, 2> running;
    std::unique_lock lock(m_pulseMutex);
    while (!m_pulsesEnd) {
        auto next = Clock::time_point::max();
        for (const auto& r : running)
            if (r)
                next = std::min(next, r->end);
        const auto asked = [this] { return m_pulsesEnd || m_asked[0] || m_asked[1]; };
        if (next == Clock::time_point::max())
            m_pulseWake.wait(lock, asked);
        else
            m_pulseWake.wait_until(lock, next, asked);
        for (size_t axis = 0; axis < running.size() && !m_pulsesEnd; ++axis) {
            const auto wish = std::exchange(m_asked[axis], std::nullopt);
            auto& r = running[axis];
            lock.unlock();
            if (r && (wish || r->end <= Clock::now())) {
                SetPin(r->pin, false);
                r.reset();
                if (!wish)
                    m_listener.OnPulseDone(static_cast<int>(axis));
            }
            if (wish && wish->second > 0ms) {
                SetPin(wish->first, true);
                r = Running{ wish->first, Clock::now() + wish->second };
            } else if (wish) {
                m_listener.OnPulseDone(static_cast<int>(axis));
            }
            lock.lock();
        }
    }
}

}  // namespace kovindi
