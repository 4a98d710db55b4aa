// The checks of Comply.h by room: ComplyDevice.cpp has what the interface promises, ComplyPicture.cpp what pictures show.
#pragma once
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Comply.h"
#include "common/Frame.h"

namespace kovtools {

// One picture, and what was in force.
struct Shot {
    std::vector<uint8_t> data;
    CameraState state;
    FrameView View() const { return { data.data(), state.width, state.height, state.type }; }
};

double MeanOf(const FrameView& f);

class ComplyRunner {
public:
    ComplyRunner(int32_t id, const ComplianceOptions& o, Compliance& out) : m_id(id), m_o(o), m_out(out) {}
    void Run();

private:
    using Verdict = CheckResult::Verdict;
    using Clock = std::chrono::steady_clock;
    struct Control {
        KOV_CONTROL_CAPS caps;
        int32_t value;
        KOV_BOOL automatic;
    };

    // --- the checks, in their order -----------------------------------------------------------------------------
    void Controls();
    void Errors();
    void Formats();
    void Bins();
    void Regions();
    void Light();
    void Exposure();
    void Gain();
    void Noise();
    void Lines();
    void Bits();
    void Flips();
    void Colours();
    void Dark();
    void HotPixels();
    void Black();
    void Duration();
    void LongExposure();
    void Repeat();
    void Stream();
    void Temperature();
    void Cooler();
    void Guide();
    void UserId();

    // --- what they share ----------------------------------------------------------------------------------------
    void Add(const char* check, const std::string& what, bool good, double measured, double limit, const char* unit,
             const std::string& hint, Verdict otherwise = Verdict::Fail);
    void Skip(const char* check, const std::string& why);
    void Remember();
    void Restore();
    const Control* Find(KOV_CONTROL_TYPE type) const;
    void Set(KOV_CONTROL_TYPE type, int32_t value) { KOVSetControlValue(m_id, type, value, KOV_FALSE); }
    double Now(KOV_CONTROL_TYPE type) const { return ReadControl(m_id, type).value_or(0); }
    double Seconds(Clock::time_point since) const
    {
        return m_o.clockRate * std::chrono::duration<double>(Clock::now() - since).count();
    }
    void Pause(double seconds) const;  // of the camera's time
    bool Region(int w, int h, IMG_TYPE type, int bin = 1) { return KOVSetROIFormat(m_id, w, h, bin, type) == KOV_SUCCESS; }
    void Whole() { Region(m_info.MaxWidth / 8 * 8, m_info.MaxHeight / 2 * 2, m_type); }
    void Middle();
    void Settle();
    Shot Blank() const;  // room for a picture of what is in force
    // The last of a few frames, so that what was set is in it; with `other` the one before too. Throws std::runtime_error.
    Shot Take(Shot* other = nullptr);
    double LevelAt(double exposureUs);
    bool Snap(double patience);
    bool NeedsLight(const char* check);
    bool FindStructure(Shot* whole);  // an exposure that shows a scene with structure in it; false: there is none
    size_t CountHot(double* level);
    double HalvesApart();

    int32_t m_id;
    const ComplianceOptions& m_o;
    Compliance& m_out;
    KOV_CAMERA_INFO m_info{};
    IMG_TYPE m_type = IMG_RAW8, m_was = IMG_RAW8;
    std::vector<Control> m_controls;
    int32_t m_w = 0, m_h = 0, m_bin = 1, m_x = 0, m_y = 0;
    double m_dark = 0, m_exposure = 0;  // level without light; us to a good level, 0: there is no light
};

}  // namespace kovtools
