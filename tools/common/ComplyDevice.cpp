// Checks of what the interface promises: controls, answers, time, streams, temperature, memory.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/ComplyRunner.h"

namespace kovtools {

namespace {

// Means of a grid of patches over a picture, of a few of their pixels: enough to see which part of it has changed.
class Patches {
public:
    explicit Patches(const FrameView& f)
    {
        const int rows = std::max(1, f.height / HIGH);
        for (int band = 0; band < rows; ++band) {
            std::vector<int> v;
            for (int y = band * HIGH; y < std::min(f.height, (band + 1) * HIGH); y += 4)
                for (int x = 0; x < f.width; x += 5)
                    v.push_back(f.At(static_cast<size_t>(y) * static_cast<size_t>(f.width) + static_cast<size_t>(x)));
            m_bands.push_back(std::move(v));
        }
    }
    // Mean squared difference of each band.
    std::vector<double> Against(const Patches& other) const
    {
        std::vector<double> apart;
        for (size_t b = 0; b < m_bands.size(); ++b) {
            double sum = 0;
            for (size_t i = 0; i < m_bands[b].size(); ++i)
                sum += std::pow(m_bands[b][i] - other.m_bands[b][i], 2);
            apart.push_back(sum / static_cast<double>(m_bands[b].size()));
        }
        return apart;
    }
    bool Same(const Patches& other) const { return m_bands == other.m_bands; }
    // Whether there is noise to tell frames by.
    bool Even() const
    {
        return std::all_of(m_bands.begin(), m_bands.end(), [](const auto& b) {
            return static_cast<size_t>(std::count(b.begin(), b.end(), b[0])) > b.size() / 10 * 9;
        });
    }

private:
    static constexpr int HIGH = 32;
    std::vector<std::vector<int>> m_bands;
};

// Frames of which one part is of this exposure and another is not: bands that differ far beyond what is usual, beside bands that
// do not.
int CountTorn(const std::vector<std::vector<double>>& apart)
{
    if (apart.size() < 4)
        return 0;
    std::vector<double> usual;
    for (size_t b = 0; b < apart[0].size(); ++b) {
        std::vector<double> v;
        v.reserve(apart.size());
        for (const auto& frame : apart)
            v.push_back(frame[b]);
        std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 4), v.end());
        usual.push_back(std::max(v[v.size() / 4], 1.0));
    }
    int torn = 0;
    for (const auto& frame : apart) {
        size_t far = 0;
        for (size_t b = 0; b < frame.size(); ++b)
            far += frame[b] > 4 * usual[b];
        torn += far > 0 && far < frame.size();
    }
    return torn;
}

}  // namespace

void ComplyRunner::Controls()
{
    int wrong = 0, loose = 0;
    std::string names;
    const auto readBack = [this](KOV_CONTROL_TYPE type, int32_t v) {
        int32_t now = 0;
        KOV_BOOL automatic = KOV_FALSE;
        Set(type, v);
        KOVGetControlValue(m_id, type, &now, &automatic);
        return now;
    };
    for (const Control& c : m_controls) {
        const KOV_CONTROL_TYPE t = c.caps.ControlType;
        const bool balance = t == CTRL_WB_R || t == CTRL_WB_B;  // means nothing without colours
        if (!c.caps.IsWritable || t == CTRL_COOLER_ON || (balance && m_info.IsColorCam == KOV_FALSE))
            continue;
        for (const int32_t v : { c.caps.MinValue, c.caps.MaxValue, c.caps.DefaultValue })
            if (std::abs(readBack(t, v) - v) > 1) {  // white balance may come back one lower
                ++wrong;
                names += std::string(" ") + c.caps.Name;
            }
        for (const int64_t v : { int64_t{ c.caps.MinValue } - 1, int64_t{ c.caps.MaxValue } + 1 }) {
            const int32_t now = readBack(t, static_cast<int32_t>(v));
            loose += now < c.caps.MinValue || now > c.caps.MaxValue;
        }
        Set(t, c.caps.DefaultValue);
        Set(t, c.caps.DefaultValue);  // gamma answers the first call after a value beyond its limits with its highest
    }
    Add("controls.readback", "controls that do not read back as set", wrong == 0, wrong, 0, "", "look at:" + names);
    Add("controls.limits", "controls that pass their limits", loose == 0, loose, 0, "", "a host must not rely on the limits told",
        Verdict::Warn);
}

void ComplyRunner::Errors()
{
    int wrong = 0;
    uint8_t byte = 0;
    wrong += KOVSetROIFormat(m_id, m_info.MaxWidth * 2, m_info.MaxHeight, 1, IMG_RAW8) != KOV_ERROR_BAD_SIZE;
    wrong += KOVSetROIFormat(m_id, 64, 64, 1, static_cast<IMG_TYPE>(7)) != KOV_ERROR_BAD_IMAGE_TYPE;
    wrong += KOVGetVideoData(m_id, &byte, 1, 0) != KOV_ERROR_BUFFER_SMALL;
    Add("errors.codes", "wrong answers to wrong calls", wrong == 0, wrong, 0, "", "library and camera do not fit together");
}

void ComplyRunner::Duration()
{
    Middle();
    double worst = 0;
    bool good = true;
    for (const double s : { 0.3, m_o.full ? 5.0 : 1.2 }) {
        Set(CTRL_EXPOSURE, static_cast<int32_t>(s * 1e6));
        const auto start = Clock::now();
        good = Snap(s + 20) && good;
        const double over = Seconds(start) - s;
        worst = std::max(worst, over);
        good = good && over > -0.1 * s && over < 2 + s;
    }
    Add("clock.exposure", "time of a snap over its exposure", good, worst, 2, "s",
        "frames come late or early: cable, port, or a busy machine");
}

void ComplyRunner::LongExposure()
{
    Middle();
    const double longest = Find(CTRL_EXPOSURE)->caps.MaxValue / 1e6, s = std::min(longest, m_o.full ? 60.0 : 3.0);
    Set(CTRL_EXPOSURE, static_cast<int32_t>(s * 1e6));
    const auto start = Clock::now();
    const bool taken = Snap(2 * s + 30);
    const double took = Seconds(start);
    Add("long.exposure", "time of a long exposure, asked for " + std::to_string(static_cast<int>(s)) + " s",
        taken && took > 0.95 * s && took < 2 * s + 3, took, 2 * s + 3, "s", "the exposure was given up, cut short or came late");
    Set(CTRL_EXPOSURE, static_cast<int32_t>(std::min(longest, 30.0) * 1e6));
    KOVStartExposure(m_id);
    Pause(0.5);
    const auto stop = Clock::now();
    const bool stopped = KOVStopExposure(m_id) == KOV_SUCCESS;
    const double waited = Seconds(stop);
    KOV_EXPOSURE_STATUS status = EXP_WORKING;
    KOVGetExpStatus(m_id, &status);
    Add("long.abort", "time to stop an exposure of half a minute", stopped && status == EXP_IDLE && waited < 6, waited, 6, "s",
        "the exposure does not end when it is stopped");
    Set(CTRL_EXPOSURE, 5000);
    const bool again = Snap(10);
    Add("long.after", "snaps that fail after the stop", again, !again, 0, "",
        "the camera is stuck after a stop: unplug it and plug it in again");
}

void ComplyRunner::Repeat()
{
    Middle();
    int failed = 0, rounds = 0;
    const auto start = Clock::now();
    for (; rounds < 100 && (m_o.full || Seconds(start) < 20); ++rounds) {
        Set(CTRL_EXPOSURE, 500000);
        failed += KOVStartExposure(m_id) != KOV_SUCCESS;
        Pause(rounds % 5 * 0.007);
        failed += KOVStopExposure(m_id) != KOV_SUCCESS;
        Set(CTRL_EXPOSURE, 5000);
        failed += !Snap(10);
    }
    Add("snap.repeat", "failures in " + std::to_string(rounds) + " rounds of start, abort, snap", failed == 0, failed, 0, "",
        "try another port and cable");
}

void ComplyRunner::Stream()
{
    Region(m_info.MaxWidth, m_info.MaxHeight, IMG_RAW8);
    Set(CTRL_EXPOSURE, 10000);
    Shot s = Blank();
    if (KOVStartVideoCapture(m_id) != KOV_SUCCESS)
        return Add("stream.rate", "video does not start", false, 0, 0, "", "see 'kovcam doctor'");
    const double length = m_o.full ? 60 : 6;
    std::vector<double> arrivals;
    std::vector<std::vector<double>> apart;
    int32_t dropped = 0, frozen = 0;
    Patches last(s.View());
    for (const auto start = Clock::now(); Seconds(start) < length;) {
        if (KOVGetVideoData(m_id, s.data.data(), static_cast<int32_t>(s.data.size()), 3000) != KOV_SUCCESS)
            continue;
        arrivals.push_back(Seconds(start));
        Patches now(s.View());
        if (arrivals.size() > 2) {  // the first may be of other settings
            frozen += now.Same(last) && !now.Even();
            apart.push_back(now.Against(last));
        }
        last = std::move(now);
    }
    KOVGetDroppedFrames(m_id, &dropped);
    KOVStopVideoCapture(m_id);
    const auto n = static_cast<double>(arrivals.size());
    Add("stream.rate", "full frames a second", n >= 2, n / length, 2 / length, "a second, at least",
        "no stream: cable, port, bandwidth");
    const double lost = n + dropped > 0 ? 100 * dropped / (n + dropped) : 100;
    Add("stream.lost", "frames lost", lost <= 2, lost, 2, "percent", "lower the bandwidth, use another port, leave hubs out");
    Add("stream.frozen", "frames that repeat the one before", frozen == 0, frozen, 0, "",
        "the camera sends the same picture again");
    const int torn = CountTorn(apart);
    Add("stream.torn", "frames of which a part is of another picture", torn == 0, torn, 0, "",
        "parts of frames are lost or changed places: cable, port; or something moves in view");
    std::vector<double> gaps;
    for (size_t i = 1; i < arrivals.size(); ++i)
        gaps.push_back(arrivals[i] - arrivals[i - 1]);
    std::sort(gaps.begin(), gaps.end());
    if (gaps.size() > 4)
        Add("stream.pace", "longest gap over the usual one", gaps.back() < 6 * gaps[gaps.size() / 2] + 0.2,
            gaps.back() / gaps[gaps.size() / 2], 6, "times", "a busy machine, or a link that stalls", Verdict::Warn);
}

void ComplyRunner::Temperature()
{
    if (Find(CTRL_TEMPERATURE) == nullptr)
        return Skip("temperature.sane", "the camera tells none");
    Pause(2);
    double low = 1e9, high = -1e9;
    for (int i = 0; i < 20; ++i) {
        const double now = ReadControl(m_id, CTRL_TEMPERATURE).value_or(-9999) / 10.0;
        low = std::min(low, now);
        high = std::max(high, now);
        Pause(0.5);
    }
    Add("temperature.sane", "temperature of the sensor", low > -50 && high < 70, high, 70, "C, at most",
        "the sensor tells nonsense, or is far too hot");
    Add("temperature.steady", "spread of the reading over ten seconds", high - low < 3, high - low, 3, "C", "the reading jumps");
}

void ComplyRunner::Cooler()
{
    if (m_info.IsCooled == KOV_FALSE)
        return Skip("cooler.works", "the camera has no cooler");
    Pause(2);  // the first reading comes a little after the camera was opened
    const double before = Now(CTRL_TEMPERATURE) / 10;
    Set(CTRL_TARGET_TEMP, static_cast<int32_t>(std::max(before - 10, -20.0)));
    Set(CTRL_COOLER_ON, 1);
    double now = before, power = 0;
    for (const auto start = Clock::now(); Seconds(start) < (m_o.full ? 120 : 40) && now > before - 3;) {
        Pause(0.4);
        now = Now(CTRL_TEMPERATURE) / 10;
        power = std::max(power, Now(CTRL_COOL_POWER_PERC));
    }
    Set(CTRL_COOLER_ON, 0);
    const double coldest = now;
    Add("cooler.works", "degrees cooled", coldest <= before - 1, before - coldest, 1, "C, at least",
        "is the cooler's supply plugged in? Else the temperature is not the sensor's");
    Add("cooler.power", "power told while it cooled", power > 0, power, 1, "percent, at least",
        "the camera does not drive its cooler");
    if (coldest > before - 1)
        return;
    for (const auto start = Clock::now(); Seconds(start) < (m_o.full ? 120 : 40) && now < coldest + 1;) {
        Pause(0.4);
        now = Now(CTRL_TEMPERATURE) / 10;
    }
    Add("cooler.off", "degrees warmer once it is off", now >= coldest + 0.5 && Now(CTRL_COOL_POWER_PERC) == 0, now - coldest, 0.5,
        "C, at least", "the cooler goes on, or the temperature is not the sensor's");
}

void ComplyRunner::Guide()
{
    int failed = 0;
    for (int pin = 0; pin < 4; ++pin) {
        failed += KOVPulseGuideOn(m_id, static_cast<KOV_GUIDE_DIRECTION>(pin)) != KOV_SUCCESS;
        failed += KOVPulseGuideOff(m_id, static_cast<KOV_GUIDE_DIRECTION>(pin)) != KOV_SUCCESS;
    }
    Add("guide.answers", "pins that do not answer", failed == 0, failed, 0, "", "the camera refuses requests");
}

void ComplyRunner::UserId()
{
    if (!m_o.writeId)
        return Skip("id.roundtrip", "writes into the camera's flash: only when asked for");
    if (m_info.IsUSB3Camera == KOV_FALSE)
        return Skip("id.roundtrip", "cameras of USB 2 have no flash for it");
    KOV_ID old{}, now{};
    const bool had = KOVGetID(m_id, &old) == KOV_SUCCESS;
    int wrong = 0;
    for (const KOV_ID id : { KOV_ID{ { 'c', 'o', 'm', 'p', 'l', 'y', 0, 0xFF } }, old }) {
        wrong += KOVSetID(m_id, id) != KOV_SUCCESS;
        wrong += KOVGetID(m_id, &now) != KOV_SUCCESS || !std::equal(id.id, id.id + sizeof id.id, now.id);
    }
    Add("id.roundtrip",
        had ? "answers that differ from the ID written"
            : "answers that differ from the ID written; it had none and now has zeros",
        wrong == 0, wrong, 0, "", "the camera's flash does not keep what is written");
}

}  // namespace kovtools
