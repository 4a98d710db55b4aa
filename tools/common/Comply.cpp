#include "common/Comply.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>

#include "common/Frame.h"

namespace kovtools {

const char* VerdictText(CheckResult::Verdict verdict)
{
    static constexpr const char* texts[] = { "PASS", "WARN", "FAIL", "skip" };
    return texts[static_cast<size_t>(verdict)];
}

namespace {

using Verdict = CheckResult::Verdict;
using Clock = std::chrono::steady_clock;

struct Shot {
    std::vector<uint8_t> data;
    CameraState state;
    FrameView View() const { return { data.data(), state.width, state.height, state.type }; }
};

double MeanOf(const FrameView& f)
{
    double sum = 0;
    for (size_t i = 0; i < f.Samples(); ++i)
        sum += f.At(i);
    return sum / static_cast<double>(f.Samples());
}

// Mean of squared differences over the variance of `a`: near 0 for the same picture, near 2 for pictures that share nothing.
double Difference(const FrameView& a, const std::vector<double>& b)
{
    double sum = 0, squares = 0, apart = 0, sumB = 0;
    const auto n = static_cast<double>(a.Samples());
    for (size_t i = 0; i < a.Samples(); ++i) {
        sum += a.At(i);
        squares += double(a.At(i)) * a.At(i);
        sumB += b[i];
    }
    for (size_t i = 0; i < a.Samples(); ++i)
        apart += std::pow(a.At(i) - sum / n - b[i] + sumB / n, 2);
    const double variance = squares / n - sum / n * (sum / n);
    return variance <= 0 ? 2 : apart / n / variance;
}

class Runner {
public:
    Runner(int32_t id, const ComplianceOptions& o, Compliance& out) : m_id(id), m_o(o), m_out(out) {}

    void Run()
    {
        struct Check { const char* name; void (Runner::*run)(); };
        static constexpr Check checks[] = {
            { "controls", &Runner::Controls }, { "errors", &Runner::Errors },           { "formats", &Runner::Formats },
            { "regions", &Runner::Regions },   { "light", &Runner::Light },             { "exposure", &Runner::Exposure },
            { "gain", &Runner::Gain },         { "noise", &Runner::Noise },             { "rows", &Runner::Rows },
            { "flips", &Runner::Flips },       { "black", &Runner::Black },             { "clock", &Runner::Duration },
            { "snap", &Runner::Repeat },       { "stream", &Runner::Stream },           { "temperature", &Runner::Temperature },
            { "cooler", &Runner::Cooler },     { "guide", &Runner::Guide },
        };
        KOVGetCameraProperty(&m_info, m_id);
        const auto types = TypesOf(m_info);
        m_type = std::find(types.begin(), types.end(), IMG_RAW16) != types.end() ? IMG_RAW16 : IMG_RAW8;
        Remember();
        for (const Check& c : checks) {
            if (m_o.cancelled && m_o.cancelled())
                break;
            // Others need what "light" finds.
            if (!m_o.only.empty() && m_o.only != c.name && std::string(c.name) != "light")
                continue;
            if (m_o.onCheck)
                m_o.onCheck(c.name);
            try {
                (this->*c.run)();
            } catch (const std::exception& e) {
                Add(c.name, e.what(), false, 0, 0, "", "the camera gave up in the midst of this check");
            }
            KOVStopVideoCapture(m_id);
            KOVStopExposure(m_id);
        }
        Restore();
    }

private:
    void Add(const char* check, const std::string& what, bool good, double measured, double limit, const char* unit, const std::string& hint,
             Verdict otherwise = Verdict::Fail)
    {
        m_out.results.push_back({ good ? Verdict::Pass : otherwise, check, what, measured, limit, unit, good ? "" : hint });
    }
    void Skip(const char* check, const std::string& why) { m_out.results.push_back({ Verdict::Skipped, check, why, 0, 0, "", "" }); }

    struct Control { KOV_CONTROL_CAPS caps; int32_t value; KOV_BOOL automatic; };
    void Remember()
    {
        int32_t n = 0;
        KOVGetNumOfControls(m_id, &n);
        for (int32_t i = 0; i < n; ++i) {
            Control c{};
            if (KOVGetControlCaps(m_id, i, &c.caps) == KOV_SUCCESS && KOVGetControlValue(m_id, c.caps.ControlType, &c.value, &c.automatic) == KOV_SUCCESS)
                m_controls.push_back(c);
        }
        KOVGetROIFormat(m_id, &m_w, &m_h, &m_bin, &m_was);
        KOVGetStartPos(m_id, &m_x, &m_y);
        // From the same state every time.
        for (const Control& c : m_controls)
            if (c.caps.IsWritable && c.caps.ControlType != CTRL_COOLER_ON)
                KOVSetControlValue(m_id, c.caps.ControlType, c.caps.DefaultValue, KOV_FALSE);
    }
    void Restore()
    {
        KOVSetROIFormat(m_id, m_w, m_h, m_bin, m_was);
        KOVSetStartPos(m_id, m_x, m_y);
        for (const Control& c : m_controls)
            if (c.caps.IsWritable)
                KOVSetControlValue(m_id, c.caps.ControlType, c.value, c.automatic);
    }
    const Control* Find(KOV_CONTROL_TYPE type) const
    {
        const auto c = std::find_if(m_controls.begin(), m_controls.end(), [=](const Control& k) { return k.caps.ControlType == type; });
        return c == m_controls.end() ? nullptr : &*c;
    }
    void Set(KOV_CONTROL_TYPE type, int32_t value) { KOVSetControlValue(m_id, type, value, KOV_FALSE); }
    double Seconds(Clock::time_point since) const { return m_o.clockRate * std::chrono::duration<double>(Clock::now() - since).count(); }

    // The last of a few frames, so that what was set is in it; with `other` the one before too.
    Shot Take(Shot* other = nullptr)
    {
        Shot s;
        s.state = ReadCameraState(m_id);
        s.data.resize(s.View().Bytes());
        if (other != nullptr)
            *other = s;
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
    bool Region(int w, int h, IMG_TYPE type, int bin = 1) { return KOVSetROIFormat(m_id, w, h, bin, type) == KOV_SUCCESS; }
    void Middle() { Region(std::min(480, m_info.MaxWidth / 8 * 8), std::min(320, m_info.MaxHeight / 2 * 2), m_type); }
    double LevelAt(double exposureUs)
    {
        Set(CTRL_EXPOSURE, static_cast<int32_t>(exposureUs));
        return MeanOf(Take().View());
    }

    void Controls()
    {
        int wrong = 0, loose = 0;
        std::string names;
        for (const Control& c : m_controls) {
            const KOV_CONTROL_TYPE t = c.caps.ControlType;
            const bool balance = t == CTRL_WB_R || t == CTRL_WB_B;  // means nothing without colours
            if (!c.caps.IsWritable || t == CTRL_COOLER_ON || (balance && m_info.IsColorCam == KOV_FALSE))
                continue;
            for (const int32_t v : { c.caps.MinValue, c.caps.MaxValue, c.caps.DefaultValue }) {
                int32_t now = 0;
                KOV_BOOL automatic = KOV_FALSE;
                Set(t, v);
                KOVGetControlValue(m_id, t, &now, &automatic);
                if (now != v && std::abs(now - v) > 1) {  // white balance may come back one lower
                    ++wrong;
                    names += std::string(" ") + c.caps.Name;
                }
            }
            for (const int64_t v : { int64_t{ c.caps.MinValue } - 1, int64_t{ c.caps.MaxValue } + 1 }) {
                int32_t now = 0;
                KOV_BOOL automatic = KOV_FALSE;
                Set(t, static_cast<int32_t>(v));
                KOVGetControlValue(m_id, t, &now, &automatic);
                loose += now < c.caps.MinValue || now > c.caps.MaxValue;
            }
            Set(t, c.caps.DefaultValue);
            Set(t, c.caps.DefaultValue);  // gamma answers the first call after a value beyond its limits with its highest
        }
        Add("controls.readback", "controls that do not read back as set", wrong == 0, wrong, 0, "", "look at:" + names);
        Add("controls.limits", "controls that pass their limits", loose == 0, loose, 0, "", "a host must not rely on the limits told", Verdict::Warn);
    }
    void Errors()
    {
        int wrong = 0;
        uint8_t byte = 0;
        wrong += KOVSetROIFormat(m_id, m_info.MaxWidth * 2, m_info.MaxHeight, 1, IMG_RAW8) != KOV_ERROR_BAD_SIZE;
        wrong += KOVSetROIFormat(m_id, 64, 64, 1, static_cast<IMG_TYPE>(7)) != KOV_ERROR_BAD_IMAGE_TYPE;
        wrong += KOVGetVideoData(m_id, &byte, 1, 0) != KOV_ERROR_BUFFER_SMALL;
        Add("errors.codes", "wrong answers to wrong calls", wrong == 0, wrong, 0, "", "library and camera do not fit together");
    }
    void Formats()
    {
        int missing = 0, stale = 0;
        std::string names;
        Set(CTRL_EXPOSURE, 5000);
        for (const int bin : BinsOf(m_info))
            for (const IMG_TYPE type : TypesOf(m_info)) {
                if (!m_o.full && bin > 1 && type != m_type)
                    continue;
                try {
                    if (!Region(m_info.MaxWidth / bin / 8 * 8, m_info.MaxHeight / bin / 2 * 2, type, bin))
                        throw std::runtime_error("refused");
                    Shot other;
                    const Shot s = Take(&other);
                    // The end of a frame is somewhere else than zero where light or noise is.
                    stale += s.data.size() != s.View().Bytes();
                } catch (const std::exception&) {
                    ++missing;
                    names += std::string(" ") + TypeName(type) + "/" + std::to_string(bin);
                }
            }
        Add("formats.frames", "formats and bins that bring no frame", missing + stale == 0, missing + stale, 0, "", "lower the bandwidth; look at:" + names);
    }

    std::vector<double> Part(const Shot& whole, int x, int y, const FrameView& f) const
    {
        std::vector<double> v;
        for (int j = 0; j < f.height; ++j)
            for (int i = 0; i < f.width; ++i)
                v.push_back(whole.View().At(static_cast<size_t>(y + j) * static_cast<size_t>(whole.state.width) + static_cast<size_t>(x + i)));
        return v;
    }
    // A scene with structure in it; the exposure that shows it.
    bool FindStructure(Shot* whole)
    {
        Region(m_info.MaxWidth, m_info.MaxHeight, m_type);
        for (int us = 2000; us <= 512000; us *= 4) {
            Set(CTRL_EXPOSURE, us);
            Shot before;
            *whole = Take(&before);
            std::vector<double> v;
            for (size_t i = 0; i < before.View().Samples(); ++i)
                v.push_back(before.View().At(i));
            if (MeanOf(whole->View()) > 0.9 * TopSample(m_type))
                return false;
            if (Difference(whole->View(), v) < 0.5)
                return true;
        }
        return false;
    }
    void Regions()
    {
        int off = 0;
        Shot whole;
        const bool structure = FindStructure(&whole);
        double worst = 0;
        const int w = m_info.MaxWidth / 4 / 8 * 8, h = m_info.MaxHeight / 4 / 2 * 2;
        for (const auto& [x, y] : { std::pair{ 0, 0 }, std::pair{ m_info.MaxWidth - w, 0 }, std::pair{ 0, m_info.MaxHeight - h },
                                    std::pair{ (m_info.MaxWidth - w) / 2 / 4 * 4, (m_info.MaxHeight - h) / 2 / 4 * 4 } }) {
            int32_t gotX = -1, gotY = -1;
            if (!Region(w, h, m_type) || KOVSetStartPos(m_id, x, y) != KOV_SUCCESS || KOVGetStartPos(m_id, &gotX, &gotY) != KOV_SUCCESS ||
                std::abs(gotX - x) > 8 || std::abs(gotY - y) > 4) {
                ++off;
                continue;
            }
            const Shot part = Take();
            const std::vector<double> same = Part(whole, gotX, gotY, part.View());
            double mean = 0, variance = 0;
            for (const double v : same)
                mean += v / static_cast<double>(same.size());
            for (const double v : same)
                variance += (v - mean) * (v - mean) / static_cast<double>(same.size());
            if (structure && variance > 4 * std::max(mean, 16.0))
                worst = std::max(worst, Difference(part.View(), same));
        }
        Add("regions.places", "corners that a region does not reach", off == 0, off, 0, "", "the camera moves regions; read the start position back");
        if (!structure)
            Skip("regions.content", "needs something with structure in view");
        else
            Add("regions.content", "difference of a region from its part of the whole", worst < 1, worst, 1, "of the variance",
                "the region shows another place than it tells, or the scene moved");
    }

    void Light()
    {
        Middle();
        Set(CTRL_GAIN, Find(CTRL_GAIN)->caps.MinValue);
        const double top = TopSample(m_type);
        m_dark = LevelAt(Find(CTRL_EXPOSURE)->caps.MinValue);
        for (double us = 500; us <= 2e6; us *= 2) {
            const double level = LevelAt(us);
            if (level > 0.9 * top)
                break;
            if (level - m_dark > 0.15 * top) {
                m_exposure = us;
                break;
            }
        }
        if (m_exposure == 0)
            Add("light", "light to measure with", false, 0, 15, "percent", "point the camera at something evenly bright; the checks that need light are skipped", Verdict::Warn);
        else
            Add("light", "exposure to a seventh of the range", true, m_exposure / 1000, 2000, "ms", "");
    }
    bool NeedsLight(const char* check)
    {
        if (m_exposure == 0)
            Skip(check, "needs light");
        Middle();
        return m_exposure != 0;
    }
    void Exposure()
    {
        if (!NeedsLight("exposure.linear"))
            return;
        const double top = TopSample(m_type);
        double sx = 0, sy = 0, sxx = 0, sxy = 0;
        const int points = m_o.full ? 24 : 8;
        for (int i = 1; i <= points; ++i) {
            const double us = m_exposure * (0.25 + 2.75 * i / points);
            const double level = LevelAt(us);
            if (level > 0.85 * top)
                break;
            m_out.exposures.push_back(us / 1000);
            m_out.levels.push_back(level);
            sx += us, sy += level, sxx += us * us, sxy += us * level;
        }
        const auto n = static_cast<double>(m_out.levels.size());
        const double slope = (n * sxy - sx * sy) / (n * sxx - sx * sx), zero = (sy - slope * sx) / n;
        double worst = 0;
        for (size_t i = 0; i < m_out.levels.size(); ++i)
            worst = std::max(worst, std::abs(m_out.levels[i] - zero - slope * m_out.exposures[i] * 1000));
        const double range = n > 1 ? m_out.levels.back() - m_out.levels.front() : 0;
        Add("exposure.linear", "deviation of the level from a line", n > 3 && worst < 0.02 * range, n > 3 ? 100 * worst / std::max(range, 1e-9) : 100, 2, "percent of the range",
            "the light is not steady, or the camera's exposures are not what it tells");
        Add("exposure.zero", "level that no exposure would give, less the darkest", std::abs(zero - m_dark) < 0.03 * top,
            100 * (zero - m_dark) / top, 3, "percent of the top", "exposures are longer or shorter by a fixed time");
    }
    void Gain()
    {
        if (!NeedsLight("gain.law"))
            return;
        const KOV_CONTROL_CAPS caps = Find(CTRL_GAIN)->caps;
        const int low = caps.MinValue, high = low + (caps.MaxValue - low) / (caps.MaxValue > 150 ? 8 : 6);
        Set(CTRL_GAIN, low);
        const CameraState a = ReadCameraState(m_id);
        const double first = LevelAt(m_exposure) - m_dark;
        Set(CTRL_GAIN, high);
        const CameraState b = ReadCameraState(m_id);
        Set(CTRL_EXPOSURE, Find(CTRL_EXPOSURE)->caps.MinValue);
        const double dark = MeanOf(Take().View());
        const auto ea = ElectronsPerSample(a), eb = ElectronsPerSample(b);
        const double told = ea && eb ? *ea / *eb : 0;
        const double shorter = told > 1 ? m_exposure / told : m_exposure / 4;  // stays in range
        const double ratio = (LevelAt(shorter) - dark) / first * m_exposure / shorter;
        Set(CTRL_GAIN, low);
        if (told > 0)
            Add("gain.law", "level ratio of two gains against the law", std::abs(ratio / told - 1) < 0.08, ratio, told, "times", "the gain is another than the model's");
        else
            Add("gain.law", "level ratio of a higher gain", ratio > 1.05, ratio, 1.05, "times, at least", "the gain does nothing");
    }
    void Noise()
    {
        if (!NeedsLight("noise.transfer"))
            return;
        const CameraState state = ReadCameraState(m_id);
        for (const double factor : { 0.1, 0.5, 1.0, 2.0 }) {
            Set(CTRL_EXPOSURE, static_cast<int32_t>(m_exposure * factor));
            Shot a;
            const Shot b = Take(&a);
            double difference = 0, squares = 0;
            for (size_t i = 0; i < a.View().Samples(); ++i) {
                const double d = a.View().At(i) - b.View().At(i);
                difference += d;
                squares += d * d;
            }
            const auto n = static_cast<double>(a.View().Samples());
            m_out.means.push_back((MeanOf(a.View()) + MeanOf(b.View())) / 2);
            m_out.variances.push_back((squares / n - difference * difference / n / n) / 2);
        }
        const double found = (m_out.means.back() - m_out.means.front()) / (m_out.variances.back() - m_out.variances.front());
        const auto told = ElectronsPerSample(state);
        // Mixed channels with gains of their own lie off the green ones' figure.
        const double limit = IsMosaic(state) ? 0.6 : 0.12;
        if (!told)
            Skip("noise.transfer", "the model tells no electrons per sample");
        else
            Add("noise.transfer", "electrons per sample by photon transfer, told / found", std::abs(*told / found - 1) < limit, *told / found, 1, "", "flicker of the light, or the gain is another than told");
    }
    void Rows()
    {
        if (!NeedsLight("rows.alive"))
            return;
        Region(m_info.MaxWidth, m_info.MaxHeight, m_type);
        Set(CTRL_EXPOSURE, static_cast<int32_t>(m_exposure));
        const Shot s = Take();
        std::vector<double> rows;
        for (int y = 0; y < s.state.height; ++y) {
            double sum = 0;
            for (int x = 0; x < s.state.width; ++x)
                sum += s.View().At(static_cast<size_t>(y) * static_cast<size_t>(s.state.width) + static_cast<size_t>(x));
            rows.push_back(sum / s.state.width);
        }
        int bad = 0, first = -1;
        for (size_t y = 2; y + 2 < rows.size(); ++y) {  // against rows of the same colour
            const double around = (rows[y - 2] + rows[y + 2]) / 2;
            if (std::abs(rows[y] - around) > 0.25 * std::max(around - m_dark, 1.0) && std::abs(rows[y - 2] - rows[y + 2]) < 0.1 * std::max(around, 1.0)) {
                ++bad;
                first = first < 0 ? static_cast<int>(y) : first;
            }
        }
        Add("rows.alive", "rows that differ from their neighbours", bad == 0, bad, 0, "", "look at row " + std::to_string(first));
    }
    void Flips()
    {
        Shot whole;
        if (!FindStructure(&whole)) {
            Skip("flips.mirror", "needs something with structure in view");
            return;
        }
        double worst = 0;
        for (int flip = 1; flip <= 3; ++flip) {
            Set(CTRL_FLIP, flip);
            const Shot s = Take();
            std::vector<double> turned;
            for (int y = 0; y < s.state.height; ++y)
                for (int x = 0; x < s.state.width; ++x)
                    turned.push_back(whole.View().At(static_cast<size_t>(flip & 2 ? s.state.height - 1 - y : y) * static_cast<size_t>(s.state.width) +
                                                     static_cast<size_t>(flip & 1 ? s.state.width - 1 - x : x)));
            worst = std::max(worst, Difference(s.View(), turned));
        }
        Set(CTRL_FLIP, 0);
        Add("flips.mirror", "difference of flipped pictures from the mirrored one", worst < 1, worst, 1, "of the variance", "a flip does another thing, or the scene moved");
    }
    void Black()
    {
        const Control* const c = Find(CTRL_BRIGHTNESS);
        if (c == nullptr)
            return Skip("black.level", "the camera has no such control");
        Middle();
        Set(CTRL_EXPOSURE, Find(CTRL_EXPOSURE)->caps.MinValue);
        Set(CTRL_BRIGHTNESS, c->caps.MinValue);
        const double low = MeanOf(Take().View());
        Set(CTRL_BRIGHTNESS, c->caps.MinValue + (c->caps.MaxValue - c->caps.MinValue) / 2);
        const double high = MeanOf(Take().View());
        Set(CTRL_BRIGHTNESS, c->caps.DefaultValue);
        Add("black.level", "rise of the level by half of the range", high > low + 0.001 * TopSample(m_type), high - low, 0.001 * TopSample(m_type), "samples, at least", "the black level does nothing");
    }
    void Duration()
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
        Add("clock.exposure", "time of a snap over its exposure", good, worst, 2, "s", "frames come late or early: cable, port, or a busy machine");
    }
    bool Snap(double patience)
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
        Shot s;
        s.state = ReadCameraState(m_id);
        s.data.resize(s.View().Bytes());
        return KOVGetDataAfterExp(m_id, s.data.data(), static_cast<int32_t>(s.data.size())) == KOV_SUCCESS;
    }
    void Repeat()
    {
        Middle();
        int failed = 0;
        const int times = m_o.full ? 100 : 10;
        for (int i = 0; i < times; ++i) {
            Set(CTRL_EXPOSURE, 500000);
            failed += KOVStartExposure(m_id) != KOV_SUCCESS;
            std::this_thread::sleep_for(std::chrono::milliseconds(i % 5 * 7));
            failed += KOVStopExposure(m_id) != KOV_SUCCESS;
            Set(CTRL_EXPOSURE, 5000);
            failed += !Snap(10);
        }
        Add("snap.repeat", "failures in " + std::to_string(times) + " rounds of start, abort, snap", failed == 0, failed, 0, "", "try another port and cable");
    }
    void Stream()
    {
        Region(m_info.MaxWidth, m_info.MaxHeight, IMG_RAW8);
        Set(CTRL_EXPOSURE, 10000);
        Shot s;
        s.state = ReadCameraState(m_id);
        s.data.resize(s.View().Bytes());
        if (KOVStartVideoCapture(m_id) != KOV_SUCCESS)
            return Add("stream.rate", "video does not start", false, 0, 0, "", "see 'kovcam doctor'");
        const double length = m_o.full ? 60 : 6;
        std::vector<double> arrivals;
        int32_t dropped = 0;
        for (const auto start = Clock::now(); Seconds(start) < length;)
            if (KOVGetVideoData(m_id, s.data.data(), static_cast<int32_t>(s.data.size()), 3000) == KOV_SUCCESS)
                arrivals.push_back(Seconds(start));
        KOVGetDroppedFrames(m_id, &dropped);
        KOVStopVideoCapture(m_id);
        const auto n = static_cast<double>(arrivals.size());
        Add("stream.rate", "full frames a second", n >= 2, n / length, 2 / length, "a second, at least", "no stream: cable, port, bandwidth");
        const double lost = n + dropped > 0 ? 100 * dropped / (n + dropped) : 100;
        Add("stream.lost", "frames lost", lost <= 2, lost, 2, "percent", "lower the bandwidth, use another port, leave hubs out");
        std::vector<double> gaps;
        for (size_t i = 1; i < arrivals.size(); ++i)
            gaps.push_back(arrivals[i] - arrivals[i - 1]);
        std::sort(gaps.begin(), gaps.end());
        if (gaps.size() > 4)
            Add("stream.pace", "longest gap over the usual one", gaps.back() < 6 * gaps[gaps.size() / 2] + 0.2, gaps.back() / gaps[gaps.size() / 2], 6, "times", "a busy machine, or a link that stalls", Verdict::Warn);
    }
    void Temperature()
    {
        if (Find(CTRL_TEMPERATURE) == nullptr)
            return Skip("temperature.sane", "the camera tells none");
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        const double first = ReadControl(m_id, CTRL_TEMPERATURE).value_or(-9999) / 10.0;
        std::this_thread::sleep_for(std::chrono::seconds(1));
        const double then = ReadControl(m_id, CTRL_TEMPERATURE).value_or(-9999) / 10.0;
        Add("temperature.sane", "temperature of the sensor", first > -50 && first < 70, first, 70, "C, at most", "the sensor tells nonsense, or is far too hot");
        Add("temperature.steady", "change in a second", std::abs(then - first) < 3, std::abs(then - first), 3, "C", "the reading jumps");
    }
    void Cooler()
    {
        if (m_info.IsCooled == KOV_FALSE)
            return Skip("cooler.works", "the camera has no cooler");
        const double before = ReadControl(m_id, CTRL_TEMPERATURE).value_or(0) / 10.0;
        Set(CTRL_TARGET_TEMP, static_cast<int32_t>(std::max(before - 10, -20.0)));
        KOVSetControlValue(m_id, CTRL_COOLER_ON, 1, KOV_FALSE);
        const double wait = m_o.full ? 120 : 30;
        double now = before;
        for (const auto start = Clock::now(); Seconds(start) < wait && now > before - 2;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            now = ReadControl(m_id, CTRL_TEMPERATURE).value_or(0) / 10.0;
        }
        KOVSetControlValue(m_id, CTRL_COOLER_ON, 0, KOV_FALSE);
        Add("cooler.works", "degrees cooled in half a minute", now <= before - 2, before - now, 2, "C, at least", "is the cooler's supply plugged in?");
    }
    void Guide()
    {
        int failed = 0;
        for (int pin = 0; pin < 4; ++pin) {
            failed += KOVPulseGuideOn(m_id, static_cast<KOV_GUIDE_DIRECTION>(pin)) != KOV_SUCCESS;
            failed += KOVPulseGuideOff(m_id, static_cast<KOV_GUIDE_DIRECTION>(pin)) != KOV_SUCCESS;
        }
        Add("guide.answers", "pins that do not answer", failed == 0, failed, 0, "", "the camera refuses requests");
    }

    int32_t m_id;
    const ComplianceOptions& m_o;
    Compliance& m_out;
    KOV_CAMERA_INFO m_info{};
    IMG_TYPE m_type = IMG_RAW8, m_was = IMG_RAW8;
    std::vector<Control> m_controls;
    int32_t m_w = 0, m_h = 0, m_bin = 1, m_x = 0, m_y = 0;
    double m_dark = 0, m_exposure = 0;  // level without light; us to a good level, 0: there is no light
};

}  // namespace

Compliance RunCompliance(int32_t id, const ComplianceOptions& options)
{
    Compliance out;
    Runner(id, options, out).Run();
    return out;
}

}  // namespace kovtools
