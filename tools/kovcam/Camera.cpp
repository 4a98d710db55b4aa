#include "kovcam/Camera.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <limits>
#include <thread>

#include "camera/CCameraBase.h"
#include "common/Files.h"
#include "common/Host.h"
#include "common/Text.h"
#include "kovcam/Json.h"

namespace kovcam {

void Check(KOV_ERROR_CODE code, const std::string& what)
{
    if (code != KOV_SUCCESS)
        throw UserError(fmt::format("{}: {} (code {})", what, kovtools::ErrorText(code), static_cast<int>(code)));
}

const std::vector<ControlName> g_Controls = {
    { CTRL_GAIN, "gain" },
    { CTRL_EXPOSURE, "exposure" },
    { CTRL_GAMMA, "gamma" },
    { CTRL_WB_R, "wb-r" },
    { CTRL_WB_B, "wb-b" },
    { CTRL_BRIGHTNESS, "brightness" },
    { CTRL_BANDWIDTH, "bandwidth" },
    { CTRL_OVERCLK, "overclock" },
    { CTRL_TEMPERATURE, "temperature" },
    { CTRL_FLIP, "flip" },
    { CTRL_AUTOEXP_MAX_GAIN, "auto-max-gain" },
    { CTRL_AUTOEXP_MAX_EXP, "auto-max-exposure" },
    { CTRL_AUTOEXP_MAX_BRIGHTNESS, "auto-brightness" },
    { CTRL_HARDWARE_BIN, "hardware-bin" },
    { CTRL_HIGH_SPEED_MODE, "high-speed" },
    { CTRL_COOL_POWER_PERC, "cooler-power" },
    { CTRL_TARGET_TEMP, "target-temperature" },
    { CTRL_COOLER_ON, "cooler" },
};

KOV_CONTROL_TYPE ParseControl(const std::string& name)
{
    for (const ControlName& c : g_Controls)
        if (name == c.szName || name == std::to_string(c.type))
            return c.type;
    std::vector<std::string> names;
    names.reserve(std::size(g_Controls));
    for (const ControlName& c : g_Controls)
        names.push_back(c.szName);
    const std::vector<std::string> near = kovtools::Nearest(name, names);
    throw UserError(fmt::format("unknown control '{}'.{} Controls are: {}", name,
                                near.empty() ? "" : fmt::format(" Did you mean {}?", kovtools::Joined(near, " or ")),
                                kovtools::Joined(names)),
                    2);
}

const char* NameOf(KOV_CONTROL_TYPE type)
{
    for (const ControlName& c : g_Controls)
        if (c.type == type)
            return c.szName;
    return "?";
}

std::chrono::microseconds ParseTime(const std::string& text)
{
    try {
        return kovtools::ParseDuration(text);
    } catch (const std::invalid_argument& e) {
        throw UserError(e.what(), 2);
    }
}

double ParseSeconds(const std::string& text) { return static_cast<double>(ParseTime(text).count()) / 1e6; }

int32_t ParseExposure(const std::string& text)
{
    const int64_t us = ParseTime(text).count();
    if (us > std::numeric_limits<int32_t>::max())
        throw UserError(fmt::format("{} is too long: exposures go up to 2147 s", text), 2);
    return static_cast<int32_t>(us);
}

std::string ExposureText(int64_t us) { return kovtools::DurationText(std::chrono::microseconds(us)); }

// With neither form the camera's own setting stays.
static void AddSwitch(CLI::App& app, const std::string& name, std::optional<bool>& value, const char* on, const char* off)
{
    app.add_flag_callback(
        "--" + name, [&value] { value = true; }, on);
    app.add_flag_callback(
        "--no-" + name, [&value] { value = false; }, off);
}

void PictureOptions::AddTo(CLI::App& app, unsigned groups)
{
    if (groups & Exposure) {
        app.add_option("-e,--exposure", sExposure, "Exposure: 500us, 10ms, 2.5s, 2m");
        app.add_option("-g,--gain", iGain, "Gain, in the camera's unit (see 'kovcam controls')");
        app.add_option("--brightness", iBrightness, "Black level");
        app.add_option("--bandwidth", iBandwidth, "Percent of the USB link");
        app.add_option("--wb-r", whiteRed, "White balance, red");
        app.add_option("--wb-b", whiteBlue, "White balance, blue");
        AddSwitch(app, "high-speed", bHighSpeed, "10-bit readout, faster", "Readout of all bits");
        app.add_flag("--defaults", bDefaults, "Start from the defaults of all controls, not from what was set last");
    }
    if (groups & Geometry) {
        app.add_option("-b,--bin", iBin, "Binning factor, one of those that 'kovcam info' lists");
        AddSwitch(app, "hardware-bin", bHardwareBin, "Bin in the camera where it can", "Bin in this computer");
        app.add_option("-r,--region", sRegion, "Region in output pixels: WxH (centred) or WxH+X+Y");
        app.add_option("--flip", iFlip, "0 none, 1 horizontal, 2 vertical, 3 both")->check(CLI::Range(0, 3));
        app.add_option("--gamma", iGamma, "1 to 100, 50 is neutral");
    }
    if (groups & Format)
        app.add_option("-f,--format", sFormat, "raw8, raw16, rgb24 or y8");
    if (groups & Finish) {
        app.add_option("--dark", sDark, "Dark frame to subtract: a BMP of 'kovcam dark' (8-bit formats)");
        app.add_flag("--time-mark", bTimeMark, "Draw date and time into the picture (8-bit formats)");
    }
    if (groups & Cooler)
        app.add_option("--cool", iCool, "Cool to that many degrees first and hold it (cooled cameras)")
            ->check(CLI::Range(-80, 50));
    if (groups & Automation) {
        app.add_flag("--auto-exposure", bAutoExposure, "Let the camera regulate the exposure");
        app.add_flag("--auto-gain", bAutoGain, "Let the camera regulate the gain");
        app.add_flag("--auto-wb", bAutoBalance, "Let the camera balance the colours");
    }
}

std::vector<std::string> PictureOptions::Given() const
{
    std::vector<std::string> names;
    const auto add = [&](bool given, KOV_CONTROL_TYPE type) {
        if (given)
            names.push_back(NameOf(type));
    };
    add(!sExposure.empty() || bAutoExposure, CTRL_EXPOSURE);
    add(iGain >= 0 || bAutoGain, CTRL_GAIN);
    add(iBrightness >= 0, CTRL_BRIGHTNESS);
    add(iGamma >= 0, CTRL_GAMMA);
    add(iBandwidth >= 0, CTRL_BANDWIDTH);
    add(iFlip >= 0, CTRL_FLIP);
    add(whiteRed >= 0 || bAutoBalance, CTRL_WB_R);
    add(whiteBlue >= 0 || bAutoBalance, CTRL_WB_B);
    add(bHardwareBin.has_value(), CTRL_HARDWARE_BIN);
    add(bHighSpeed.has_value(), CTRL_HIGH_SPEED_MODE);
    add(iCool.has_value(), CTRL_TARGET_TEMP);
    add(iCool.has_value(), CTRL_COOLER_ON);
    return names;
}

int CountCameras()
{
    const int n = KOVGetNumOfConnectedCameras();
    if (n == 0)
        throw UserError(fmt::format("no camera found.\n"
                                    "  Looked for USB devices of vendor 0E5A on all ports.\n"
                                    "  Check the cable and that {}; if it does, run 'kovcam doctor': it tells\n"
                                    "  missing rights and whether another program holds the camera.\n"
                                    "  To try without a camera: kovsim run --camera QuartzCol -- kovcam list",
                                    kovtools::HOW_TO_SEE_A_CAMERA),
                        3);
    return n;
}

KOV_CAMERA_INFO InfoOf(int index)
{
    KOV_CAMERA_INFO info{};
    const KOV_ERROR_CODE code = KOVGetCameraProperty(&info, index);
    if (code == KOV_ERROR_NOT_OPEN)
        throw UserError(fmt::format("camera {}: a model that this library does not know", index));
    Check(code, fmt::format("camera {}", index));
    return info;
}

int FindCamera(const std::string& which)
{
    const int n = CountCameras();
    const bool bIndex = !which.empty() && which.find_first_not_of("0123456789") == std::string::npos;
    std::string names;
    int iHits = 0, iFound = -1;
    for (int i = 0; i < n; ++i) {
        KOV_CAMERA_INFO info{};
        if (KOVGetCameraProperty(&info, i) != KOV_SUCCESS)
            continue;
        names += fmt::format("\n  {}  {}", i, info.Name);
        if (bIndex ? std::to_string(i) == which : std::string(info.Name).find(which) != std::string::npos) {
            if (iHits++ == 0)
                iFound = i;
        }
    }
    if (names.empty())
        throw UserError("the connected cameras are models that this library does not know", 3);
    if (iHits == 0)
        throw UserError(fmt::format("no camera '{}'. There are:{}", which, names), 3);
    if (iHits > 1)
        throw UserError(which.empty()
                            ? fmt::format("more than one camera; choose one with --camera:{}", names)
                            : fmt::format("more than one camera fits '{}'; choose one with --camera INDEX:{}", which, names),
                        2);
    return iFound;
}

Camera::Camera(const std::string& which)
{
    const int iId = FindCamera(which);
    const KOV_ERROR_CODE code = KOVOpenCamera(iId);
    if (code != KOV_SUCCESS)
        KOVCloseCamera(iId);
    Check(code, "opening the camera");
    m_iId = iId;
    m_opened = Stopwatch();
    m_info = InfoOf(m_iId);
    Check(KOVGetROIFormat(m_iId, &m_iWidth, &m_iHeight, &m_iBin, &m_type), "format");
}

Camera::~Camera()
{
    if (m_iId >= 0)
        KOVCloseCamera(m_iId);
}

CCameraBase& Camera::Object() const { return *CCameraBase::FromID(m_iId); }

std::vector<KOV_CONTROL_CAPS> Camera::Controls() const { return kovtools::ControlsOf(m_iId); }

bool Camera::Has(KOV_CONTROL_TYPE type) const
{
    const std::vector<KOV_CONTROL_CAPS> all = Controls();
    return std::any_of(all.begin(), all.end(), [=](const KOV_CONTROL_CAPS& c) { return c.ControlType == type; });
}

KOV_CONTROL_CAPS Camera::Caps(KOV_CONTROL_TYPE type) const
{
    std::vector<std::string> names;
    for (const KOV_CONTROL_CAPS& caps : Controls()) {
        if (caps.ControlType == type)
            return caps;
        names.push_back(NameOf(caps.ControlType));
    }
    throw UserError(fmt::format("{} has no control '{}'; it has: {}", m_info.Name, NameOf(type), kovtools::Joined(names)), 2);
}

std::vector<Camera::Deviation> Camera::Deviations() const
{
    std::vector<Deviation> out;
    for (const KOV_CONTROL_CAPS& caps : Controls()) {
        if (!caps.IsWritable)
            continue;
        bool automatic = false;
        const int32_t value = Get(caps.ControlType, &automatic);
        // Where the camera can choose the bandwidth, it does so from the start.
        const bool usual =
            caps.ControlType == CTRL_BANDWIDTH && caps.IsAutoSupported ? automatic : value == caps.DefaultValue && !automatic;
        if (!usual)
            out.push_back({ NameOf(caps.ControlType), value, caps.DefaultValue, automatic });
    }
    return out;
}

void Camera::SetDefaults()
{
    for (const KOV_CONTROL_CAPS& caps : Controls())
        if (caps.IsWritable)
            Set(caps.ControlType, caps.DefaultValue, caps.ControlType == CTRL_BANDWIDTH && caps.IsAutoSupported);
}

int32_t Camera::Get(KOV_CONTROL_TYPE type, bool* pAuto) const
{
    // A cooled camera's temperature is read by a thread, first 0.4 s after the opening; before that it reads 0.
    if (type == CTRL_TEMPERATURE && m_info.IsCooled)
        Sleep(0.6 - m_opened.Seconds());
    int32_t value = 0;
    KOV_BOOL automatic = KOV_FALSE;
    Check(KOVGetControlValue(m_iId, type, &value, &automatic), NameOf(type));
    if (pAuto != nullptr)
        *pAuto = automatic != KOV_FALSE;
    return value;
}

void Camera::Set(KOV_CONTROL_TYPE type, int32_t value, bool automatic)
{
    Check(KOVSetControlValue(m_iId, type, value, automatic ? KOV_TRUE : KOV_FALSE), fmt::format("setting {}", NameOf(type)));
}

static IMG_TYPE ParseType(const std::string& text, IMG_TYPE standard)
{
    if (text.empty())
        return standard;
    for (const IMG_TYPE t : { IMG_RAW8, IMG_RGB24, IMG_RAW16, IMG_Y8 })
        if (text == kovtools::TypeName(t))
            return t;
    throw UserError(fmt::format("unknown format '{}'; formats are raw8, raw16, rgb24 and y8", text), 2);
}

void Camera::Apply(const PictureOptions& o, IMG_TYPE defaultType)
{
    m_type = ParseType(o.sFormat, defaultType);
    const std::vector<IMG_TYPE> types = kovtools::TypesOf(m_info);
    if (std::find(types.begin(), types.end(), m_type) == types.end()) {
        std::vector<std::string> names;
        names.reserve(types.size());
        for (const IMG_TYPE t : types)
            names.push_back(kovtools::TypeName(t));
        if (!o.sFormat.empty())
            throw UserError(fmt::format("{} does not deliver {}, but {}", m_info.Name, o.sFormat, kovtools::Joined(names)), 2);
        m_type = IMG_RAW8;
    }
    const std::vector<int> bins = kovtools::BinsOf(m_info);
    if (std::find(bins.begin(), bins.end(), o.iBin) == bins.end()) {
        std::vector<std::string> names;
        names.reserve(bins.size());
        for (const int b : bins)
            names.push_back(std::to_string(b));
        throw UserError(fmt::format("{} does not bin by {}; it bins by {}", m_info.Name, o.iBin, kovtools::Joined(names)), 2);
    }
    const int32_t exposure = o.sExposure.empty() ? -1 : ParseExposure(o.sExposure);
    if (o.bDefaults)
        SetDefaults();
    if (o.bHardwareBin)
        Set(CTRL_HARDWARE_BIN, *o.bHardwareBin);
    if (o.bHighSpeed)
        Set(CTRL_HIGH_SPEED_MODE, *o.bHighSpeed);

    int w = m_info.MaxWidth / o.iBin, h = m_info.MaxHeight / o.iBin, x = -1, y = -1;
    w -= w % 8;
    h -= h % 2;
    if (o.iBin == 1) {
        w = m_info.MaxWidth;
        h = m_info.MaxHeight;
    }
    if (!o.sRegion.empty()) {
        int used = 0;
        const int fields = std::sscanf(o.sRegion.c_str(), "%dx%d%n+%d+%d%n", &w, &h, &used, &x, &y, &used);
        if ((fields != 2 && fields != 4) || static_cast<size_t>(used) != o.sRegion.size())
            throw UserError(fmt::format("'{}' is no region; write WxH or WxH+X+Y", o.sRegion), 2);
    }
    Check(KOVSetROIFormat(m_iId, w, h, o.iBin, m_type), fmt::format("region {}x{} at bin {}", w, h, o.iBin));
    if (x >= 0)
        Check(KOVSetStartPos(m_iId, x, y), "start position");
    m_iWidth = w;
    m_iHeight = h;
    m_iBin = o.iBin;

    const auto set = [&](KOV_CONTROL_TYPE type, int value) {
        if (value >= 0)
            Set(type, value);
    };
    set(CTRL_BANDWIDTH, o.iBandwidth);
    set(CTRL_BRIGHTNESS, o.iBrightness);
    set(CTRL_GAMMA, o.iGamma);
    set(CTRL_FLIP, o.iFlip);
    if (o.whiteRed >= 0 || o.whiteBlue >= 0 || o.bAutoBalance) {
        Set(CTRL_WB_R, o.whiteRed >= 0 ? o.whiteRed : Get(CTRL_WB_R), o.bAutoBalance);
        Set(CTRL_WB_B, o.whiteBlue >= 0 ? o.whiteBlue : Get(CTRL_WB_B), o.bAutoBalance);
    }
    if (o.iGain >= 0 || o.bAutoGain)
        Set(CTRL_GAIN, o.iGain >= 0 ? o.iGain : Get(CTRL_GAIN), o.bAutoGain);
    if (exposure >= 0 || o.bAutoExposure)
        Set(CTRL_EXPOSURE, exposure >= 0 ? exposure : Get(CTRL_EXPOSURE), o.bAutoExposure);
    // Both would stay from an earlier run: the library keeps them with the settings.
    if (o.sDark.empty()) {
        KOVDisableDarkSubtract(m_iId);
    } else {
        if (m_type == IMG_RAW16)
            throw UserError("dark frames are subtracted from 8-bit formats only; add --format raw8, rgb24 or y8", 2);
        const std::string path = kovtools::AbsolutePath(o.sDark);
        if (path.size() > 255)
            throw UserError(fmt::format("the path of the dark frame is too long: {}", path), 2);
        KOV_BOOL on = KOV_TRUE;
        Check(KOVEnableDarkSubtract(m_iId, path.c_str(), &on), fmt::format("dark frame {}", o.sDark));
    }
    Object().SetTimeMark(o.bTimeMark);
}

void Camera::KeepSettings()
{
    // The library saves when video stops.
    Check(KOVStartVideoCapture(m_iId), "keeping the settings");
    Check(KOVStopVideoCapture(m_iId), "keeping the settings");
}

int Camera::ImageBytes() const { return m_iWidth * m_iHeight * (m_type == IMG_RGB24 ? 3 : m_type == IMG_RAW16 ? 2 : 1); }

double ClockRate()
{
    static const double s_rate = [] {
        const usbstack::Plugin* const p = kovtools::LoadedPlugin();
        return p != nullptr && p->clockRate > 0 ? p->clockRate : 1.0;
    }();
    return s_rate;
}

void Sleep(double seconds)
{
    const Stopwatch watch;
    for (double left = seconds; left > 0 && !Interrupted(); left = seconds - watch.Seconds())
        std::this_thread::sleep_for(std::chrono::duration<double>(std::min(left / ClockRate(), 0.05)));
}

static std::atomic<bool> g_Interrupted{ false };

bool Interrupted() { return g_Interrupted; }

void CatchInterrupts()
{
    const auto handler = [](int) {
        if (g_Interrupted.exchange(true))
            _exit(130);  // a second Ctrl-C does not wait
    };
    std::signal(SIGINT, handler);
    std::signal(SIGTERM, handler);
}

void Print(const Json& json) { fmt::print("{}\n", json.dump(2, ' ', false, Json::error_handler_t::replace)); }

Progress::Progress(std::string label) : m_sLabel(std::move(label)), m_bTerminal(kovtools::IsTerminal(stderr)) {}

Progress::~Progress() { End(); }

void Progress::Show(double done, const std::string& text)
{
    const auto now = std::chrono::steady_clock::now();
    const auto pause = m_bTerminal ? std::chrono::milliseconds(100) : std::chrono::milliseconds(10000);
    if (m_last.time_since_epoch().count() == 0 && !m_bTerminal)
        m_last = now;  // short work says nothing where nobody watches
    if (now - m_last < pause)
        return;
    m_last = now;
    m_bShown = true;
    if (!m_bTerminal) {
        fmt::print(stderr, "{} {}\n", m_sLabel, text);
        return;
    }
    std::string bar;
    if (done >= 0) {
        const int n = static_cast<int>(std::clamp(done, 0.0, 1.0) * 30);
        bar = fmt::format("[{}{}] ", std::string(static_cast<size_t>(n), '#'), std::string(static_cast<size_t>(30 - n), ' '));
    }
    fmt::print(stderr, "\r\033[K{} {}{}", m_sLabel, bar, text);
    std::fflush(stderr);
}

void Progress::End()
{
    if (m_bShown && m_bTerminal)
        fmt::print(stderr, "\r\033[K");
    m_bShown = false;
}

}  // namespace kovcam
