#include "common/Comply.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <thread>

#include "common/ComplyRunner.h"

namespace kovtools {

const char* VerdictText(CheckResult::Verdict verdict)
{
    static constexpr const char* texts[] = { "PASS", "WARN", "FAIL", "skip" };
    return texts[static_cast<size_t>(verdict)];
}

namespace {

constexpr const char* GROUPS[] = {
    "controls", "errors", "formats", "bins",  "regions", "light", "exposure", "gain",   "noise",       "lines",  "bits",  "flips",
    "colours",  "dark",   "hot",     "black", "clock",   "long",  "snap",     "stream", "temperature", "cooler", "guide", "id",
};

}  // namespace

std::vector<std::string> ComplianceGroups() { return { std::begin(GROUPS), std::end(GROUPS) }; }

void ComplyRunner::Run()
{
    static constexpr void (ComplyRunner::*checks[])() = {
        &ComplyRunner::Controls,    &ComplyRunner::Errors,       &ComplyRunner::Formats,   &ComplyRunner::Bins,
        &ComplyRunner::Regions,     &ComplyRunner::Light,        &ComplyRunner::Exposure,  &ComplyRunner::Gain,
        &ComplyRunner::Noise,       &ComplyRunner::Lines,        &ComplyRunner::Bits,      &ComplyRunner::Flips,
        &ComplyRunner::Colours,     &ComplyRunner::Dark,         &ComplyRunner::HotPixels, &ComplyRunner::Black,
        &ComplyRunner::Duration,    &ComplyRunner::LongExposure, &ComplyRunner::Repeat,    &ComplyRunner::Stream,
        &ComplyRunner::Temperature, &ComplyRunner::Cooler,       &ComplyRunner::Guide,     &ComplyRunner::UserId,
    };
    static_assert(std::size(checks) == std::size(GROUPS));
    // What others of them begin with.
    static constexpr std::string_view lit[] = { "exposure", "gain", "noise", "lines", "bits", "colours", "dark", "hot" };
    KOVGetCameraProperty(&m_info, m_id);
    const auto types = TypesOf(m_info);
    m_type = std::find(types.begin(), types.end(), IMG_RAW16) != types.end() ? IMG_RAW16 : IMG_RAW8;
    Remember();
    for (size_t i = 0; i < std::size(checks); ++i) {
        const std::string name = GROUPS[i];
        if (m_o.cancelled && m_o.cancelled())
            break;
        const auto& only = m_o.only;
        const bool begins =
            name == "light" && std::find_first_of(only.begin(), only.end(), std::begin(lit), std::end(lit)) != only.end();
        if (!only.empty() && std::find(only.begin(), only.end(), name) == only.end() && !begins)
            continue;
        if (m_o.onCheck)
            m_o.onCheck(name);
        Settle();
        const auto check = checks[i];
        try {
            (this->*check)();
        } catch (const std::runtime_error& e) {
            Add(name.c_str(), e.what(), false, 0, 0, "", "the camera gave up in the midst of this check; see 'kovcam doctor'");
        }
        KOVStopVideoCapture(m_id);
        KOVStopExposure(m_id);
    }
    Restore();
}

void ComplyRunner::Add(const char* check, const std::string& what, bool good, double measured, double limit, const char* unit,
                       const std::string& hint, Verdict otherwise)
{
    m_out.results.push_back({ good ? Verdict::Pass : otherwise, check, what, measured, limit, unit, good ? "" : hint });
}

void ComplyRunner::Skip(const char* check, const std::string& why)
{
    m_out.results.push_back({ Verdict::Skipped, check, why, 0, 0, "", "" });
}

void ComplyRunner::Remember()
{
    for (const KOV_CONTROL_CAPS& caps : ControlsOf(m_id)) {
        Control c{ caps, 0, KOV_FALSE };
        if (KOVGetControlValue(m_id, caps.ControlType, &c.value, &c.automatic) == KOV_SUCCESS)
            m_controls.push_back(c);
    }
    KOVGetROIFormat(m_id, &m_w, &m_h, &m_bin, &m_was);
    KOVGetStartPos(m_id, &m_x, &m_y);
    // From the same state every time.
    for (const Control& c : m_controls)
        if (c.caps.IsWritable && c.caps.ControlType != CTRL_COOLER_ON)
            Set(c.caps.ControlType, c.caps.DefaultValue);
}

void ComplyRunner::Restore()
{
    KOVSetROIFormat(m_id, m_w, m_h, m_bin, m_was);
    KOVSetStartPos(m_id, m_x, m_y);
    for (const Control& c : m_controls)
        if (c.caps.IsWritable)
            KOVSetControlValue(m_id, c.caps.ControlType, c.value, c.automatic);
}

const ComplyRunner::Control* ComplyRunner::Find(KOV_CONTROL_TYPE type) const
{
    const auto c =
        std::find_if(m_controls.begin(), m_controls.end(), [=](const Control& k) { return k.caps.ControlType == type; });
    return c == m_controls.end() ? nullptr : &*c;
}

void ComplyRunner::Pause(double seconds) const
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds / m_o.clockRate));
}

void ComplyRunner::Middle() { Region(std::min(480, m_info.MaxWidth / 8 * 8), std::min(320, m_info.MaxHeight / 2 * 2), m_type); }

// Some families leave the mode of long exposures with the first frame after one, and change the length of a line there: only
// an exposure that is set afterwards is right.
void ComplyRunner::Settle()
{
    Middle();
    Set(CTRL_EXPOSURE, 5000);
    try {
        Take();
    } catch (const std::runtime_error&) {
        // The check that comes meets it too, and says so.
    }
    Set(CTRL_EXPOSURE, 5000);
}

Shot ComplyRunner::Blank() const
{
    Shot s;
    s.state = ReadCameraState(m_id);
    s.data.resize(s.View().Bytes());
    return s;
}

Shot ComplyRunner::Take(Shot* other)
{
    Shot s = Blank();
    if (other != nullptr) {
        *other = s;
        std::fill(other->data.begin(), other->data.end(), uint8_t{ 0xA5 });
    }
    if (KOVStartVideoCapture(m_id) != KOV_SUCCESS)
        throw std::runtime_error("video does not start");
    for (int i = 0; i < 4; ++i) {
        Shot& into = other != nullptr && i % 2 == 0 ? *other : s;
        const int32_t wait = static_cast<int32_t>(2000 * s.state.exposure + 5000);
        const KOV_ERROR_CODE code = KOVGetVideoData(m_id, into.data.data(), static_cast<int32_t>(into.data.size()), wait);
        if (code != KOV_SUCCESS) {
            KOVStopVideoCapture(m_id);
            throw std::runtime_error(std::string("no frame: ") + ErrorText(code));
        }
    }
    KOVStopVideoCapture(m_id);
    return s;
}

double ComplyRunner::LevelAt(double exposureUs)
{
    Set(CTRL_EXPOSURE, static_cast<int32_t>(exposureUs));
    return MeanOf(Take().View());
}

bool ComplyRunner::Snap(double patience)
{
    if (KOVStartExposure(m_id) != KOV_SUCCESS)
        return false;
    KOV_EXPOSURE_STATUS status = EXP_WORKING;
    for (const auto start = Clock::now(); status == EXP_WORKING && Seconds(start) < patience * std::max(1.0, m_o.clockRate);) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        KOVGetExpStatus(m_id, &status);
    }
    if (status != EXP_SUCCESS) {
        KOVStopExposure(m_id);
        return false;
    }
    Shot s = Blank();
    return KOVGetDataAfterExp(m_id, s.data.data(), static_cast<int32_t>(s.data.size())) == KOV_SUCCESS;
}

Compliance RunCompliance(int32_t id, const ComplianceOptions& options)
{
    Compliance out;
    ComplyRunner(id, options, out).Run();
    return out;
}

}  // namespace kovtools
