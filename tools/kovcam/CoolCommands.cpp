#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "common/Plot.h"
#include "kovcam/Capture.h"
#include "kovcam/Commands.h"
#include "kovcam/Cooling.h"
#include "kovcam/Json.h"

namespace kovcam {

std::vector<CoolSample> WatchCooler(Camera& cam, const std::function<bool(const std::vector<CoolSample>&)>& onSample)
{
    std::vector<CoolSample> samples;
    const Stopwatch watch;
    while (!Interrupted()) {
        samples.push_back({ watch.Seconds(), cam.Get(CTRL_TEMPERATURE) / 10.0, double(cam.Get(CTRL_COOL_POWER_PERC)) });
        if (!onSample(samples))
            break;
        Sleep(2);
    }
    return samples;
}

bool IsStable(const std::vector<CoolSample>& samples, double target)
{
    const double end = samples.back().dSeconds;
    if (end < STABLE_FOR)
        return false;
    return std::all_of(samples.begin(), samples.end(), [&](const CoolSample& s) {
        return s.dSeconds < end - STABLE_FOR || std::abs(s.dCelsius - target) <= STABLE_WITHIN;
    });
}

void StartCooler(Camera& cam, int target)
{
    if (!cam.Info().IsCooled)
        throw UserError(fmt::format("{} has no cooler", cam.Info().Name), 2);
    cam.Set(CTRL_TARGET_TEMP, target);
    cam.Set(CTRL_COOLER_ON, 1);
}

static std::string Live(const CoolSample& s, int target)
{
    return fmt::format("{:5.1f} C, target {} C, power {:.0f} %", s.dCelsius, target, s.dPower);
}

void CoolFor(Camera& cam, const PictureOptions& o)
{
    if (!o.iCool)
        return;
    StartCooler(cam, *o.iCool);
    Progress progress("cooling");
    const auto samples = WatchCooler(cam, [&](const std::vector<CoolSample>& s) {
        progress.Show(-1, Live(s.back(), *o.iCool));
        return !IsStable(s, *o.iCool) && s.back().dSeconds < 1800;
    });
    progress.End();
    if (Interrupted())
        throw UserError("interrupted while cooling", 130);
    if (!IsStable(samples, *o.iCool))
        throw UserError(fmt::format("{} C is not reached: {} after half an hour. Choose a warmer target", *o.iCool,
                                    Live(samples.back(), *o.iCool)),
                        4);
}

namespace {

// A picture of the course, where the build can draw one.
struct PlotOptions {
    std::string file;
    bool dark = false;

    void AddTo(CLI::App& app, const char* what)
    {
        if (!kovtools::DRAWS_PLOTS)
            return;
        auto* const option = app.add_option("--plot", file, what);
        app.add_flag("--dark-plot", dark, "The picture on dark ground")->needs(option);
    }
};

struct CoolOptions {
    std::optional<int> iTarget;
    std::string sFor;
    bool bUntilStable = false, bOff = false;
    PlotOptions plot;
};

void PlotCooler(const PlotOptions& o, const std::string& camera, int target, const std::vector<CoolSample>& samples)
{
    kovtools::Curve temperature{ "temperature", kovtools::Ink::Blue, false, {}, {} };
    kovtools::Curve power{ "power", kovtools::Ink::Red, true, {}, {}, kovtools::Curve::Form::Steps };
    for (const CoolSample& s : samples) {
        temperature.x.push_back(s.dSeconds / 60);
        temperature.y.push_back(s.dCelsius);
        power.x.push_back(s.dSeconds / 60);
        power.y.push_back(s.dPower);
    }
    const kovtools::Curve goal{ fmt::format("target {}{} °C", target < 0 ? "−" : "", std::abs(target)),
                                kovtools::Ink::Grey,
                                false,
                                { 0, temperature.x.back() },
                                { double(target), double(target) },
                                kovtools::Curve::Form::Dashes };
    kovtools::Plot plot{ camera + ": cooling", "minutes", "sensor, °C", "cooler power, percent", { goal, power, temperature } };
    plot.rightMax = 100;
    kovtools::DrawPlots(o.file, { plot }, o.dark);
}

void Cool(const Globals& g, const CoolOptions& o)
{
    Camera cam(g.camera);
    if (o.bOff) {
        if (!cam.Info().IsCooled)
            throw UserError(fmt::format("{} has no cooler", cam.Info().Name), 2);
        cam.Set(CTRL_COOLER_ON, 0);
        fmt::print("the cooler is off\n");
        return;
    }
    const int target = *o.iTarget;
    const double limit = o.sFor.empty() ? 0 : ParseSeconds(o.sFor);
    StartCooler(cam, target);
    Progress progress("cooling");
    const auto samples = WatchCooler(cam, [&](const std::vector<CoolSample>& s) {
        progress.Show(limit > 0 ? s.back().dSeconds / limit : -1, Live(s.back(), target));
        return (limit <= 0 || s.back().dSeconds < limit) && !(o.bUntilStable && IsStable(s, target));
    });
    progress.End();
    const bool bStable = IsStable(samples, target);
    const CoolSample& last = samples.back();
    if (!o.plot.file.empty())
        PlotCooler(o.plot, cam.Info().Name, target, samples);
    if (g.json) {
        Print({ { "seconds", last.dSeconds },
                { "temperature", last.dCelsius },
                { "target", target },
                { "power", last.dPower },
                { "stable", bStable } });
    } else {
        if (!o.plot.file.empty())
            fmt::print("{}\n", o.plot.file);
        fmt::print("{:.1f} C after {:.1f} minutes, power {:.0f} %: {}\n", last.dCelsius, last.dSeconds / 60, last.dPower,
                   bStable ? fmt::format("stable within {} degrees for {:.0f} s", STABLE_WITHIN, STABLE_FOR) : "not stable yet");
        fmt::print(
            "the cooler goes off now: it works only while a program holds the camera.\n"
            "  For cold pictures: kovcam snap --cool {}, or leave 'kovcam cool' running\n",
            target);
    }
    if (o.bUntilStable && !bStable)
        throw UserError(Interrupted() ? "interrupted before the temperature was stable" : "the temperature is not stable yet",
                        Interrupted() ? 130 : 4);
}

struct AutoOptions {
    PictureOptions picture;
    int iFrames = 300, iTarget = -1, iMaxGain = -1;
    std::string sMaxExposure;
    bool bKeepGain = false;
    PlotOptions plot;
};

struct AutoStep {
    double dSeconds;
    int32_t iExposure, iGain;
    double dMean;
};

// The step after which neither exposure nor gain moved any more, or the size of the list. Frames alone do not tell: the
// camera measures a few times a second, whatever the rate.
size_t SettledAt(const std::vector<AutoStep>& s, size_t quiet)
{
    size_t n = s.size();
    while (n > 0 && s[n - 1].iExposure == s.back().iExposure && s[n - 1].iGain == s.back().iGain)
        --n;
    constexpr double QUIET_SECONDS = 2;
    return n < s.size() && s.size() - n > quiet && s.back().dSeconds - s[n].dSeconds > QUIET_SECONDS ? n : s.size();
}

void PlotCourse(const PlotOptions& o, const std::string& camera, int target, const std::vector<AutoStep>& steps)
{
    using Form = kovtools::Curve::Form;
    kovtools::Curve exposure{ "exposure", kovtools::Ink::Blue, false, {}, {}, Form::Steps };
    kovtools::Curve brightness{ "brightness", kovtools::Ink::Red, true, {}, {} };
    kovtools::Curve gain{ "gain", kovtools::Ink::Green, true, {}, {}, Form::Steps };
    for (size_t i = 0; i < steps.size(); ++i) {
        for (kovtools::Curve* c : { &exposure, &brightness, &gain })
            c->x.push_back(static_cast<double>(i + 1));
        exposure.y.push_back(steps[i].iExposure / 1e3);
        brightness.y.push_back(steps[i].dMean);
        gain.y.push_back(steps[i].iGain);
    }
    const kovtools::Curve goal{ fmt::format("target {}", target),   kovtools::Ink::Grey, true, { 1, exposure.x.back() },
                                { double(target), double(target) }, Form::Dashes };
    kovtools::Plot plot{
        camera + ": auto exposure", "frames", "exposure, ms", "brightness, gain", { goal, gain, brightness, exposure }
    };
    plot.logLeft = true;
    kovtools::DrawPlots(o.file, { plot }, o.dark);
}

void AutoExposure(const Globals& g, AutoOptions o)
{
    Camera cam(g.camera);
    o.picture.bAutoExposure = true;
    o.picture.bAutoGain = !o.bKeepGain;
    if (o.picture.bDefaults)
        cam.SetDefaults();  // before the three that are no option of a picture
    o.picture.bDefaults = false;
    if (o.iTarget >= 0)
        cam.Set(CTRL_AUTOEXP_MAX_BRIGHTNESS, o.iTarget);
    if (o.iMaxGain >= 0)
        cam.Set(CTRL_AUTOEXP_MAX_GAIN, o.iMaxGain);
    if (!o.sMaxExposure.empty())
        cam.Set(CTRL_AUTOEXP_MAX_EXP, std::max(1, ParseExposure(o.sMaxExposure) / 1000000));
    cam.Apply(o.picture, IMG_RAW8);
    if (cam.Type() == IMG_RAW16)
        throw UserError("the brightness is shown for 8-bit formats; leave --format raw16 out", 2);
    std::vector<AutoStep> steps;
    Progress progress("auto exposure");
    const Stopwatch watch;
    constexpr size_t QUIET = 20;  // frames without a change: settled
    RunVideo(cam, [&](Picture& p) {
        const uint64_t sum = std::accumulate(p.data.begin(), p.data.end(), uint64_t{ 0 });
        steps.push_back({ watch.Seconds(), cam.Get(CTRL_EXPOSURE), cam.Get(CTRL_GAIN),
                          static_cast<double>(sum) / static_cast<double>(p.data.size()) });
        const AutoStep& s = steps.back();
        progress.Show(-1, fmt::format("frame {}: exposure {}, gain {}, brightness {:.0f}", steps.size(),
                                      ExposureText(s.iExposure), s.iGain, s.dMean));
        return SettledAt(steps, QUIET) == steps.size() && steps.size() < static_cast<size_t>(o.iFrames);
    });
    progress.End();
    if (steps.empty())
        throw UserError("interrupted before the first frame", 130);
    const size_t n = SettledAt(steps, QUIET);
    const bool bSettled = n < steps.size();
    const AutoStep& last = steps.back();
    const int32_t target = cam.Get(CTRL_AUTOEXP_MAX_BRIGHTNESS);
    if (!o.plot.file.empty())
        PlotCourse(o.plot, cam.Info().Name, target, steps);
    if (g.json) {
        Json list = Json::array();
        for (const AutoStep& s : steps)
            list.push_back({ s.dSeconds, s.iExposure, s.iGain, s.dMean });
        Print({ { "settled", bSettled },
                { "frames", n },
                { "exposure", last.iExposure },
                { "gain", last.iGain },
                { "brightness", last.dMean },
                { "target", target },
                { "steps", list } });
    } else {
        if (!o.plot.file.empty())
            fmt::print("{}\n", o.plot.file);
        // The course, a line for each change, thinned where it is long.
        const size_t every = std::max<size_t>(1, n / 20);
        fmt::print("{:>6} {:>9} {:>11} {:>6} {:>11}\n", "frame", "seconds", "exposure", "gain", "brightness");
        for (size_t i = 0; i < steps.size(); ++i)
            if (i % every == 0 ? i <= n : i == n || i + 1 == steps.size())
                fmt::print("{:>6} {:>9.2f} {:>11} {:>6} {:>11.1f}\n", i + 1, steps[i].dSeconds, ExposureText(steps[i].iExposure),
                           steps[i].iGain, steps[i].dMean);
        if (bSettled)
            fmt::print("settled after {} frames, {:.1f} s: exposure {}, gain {}, brightness {:.0f} (target {})\n", n + 1,
                       steps[n].dSeconds, ExposureText(last.iExposure), last.iGain, last.dMean, target);
        else
            fmt::print("not settled after {} frames; brightness {:.0f}, target {}\n", steps.size(), last.dMean, target);
    }
    if (!bSettled)
        throw UserError(
            Interrupted() ? "interrupted" : "auto exposure did not settle; is there light, and is the target within reach?",
            Interrupted() ? 130 : 4);
}

}  // namespace

void AddCoolCommands(CLI::App& app, Globals& g)
{
    auto* pCool = app.add_subcommand("cool", "Cool the sensor and show temperature and power; Ctrl-C ends it");
    auto c = std::make_shared<CoolOptions>();
    auto* pTo = pCool->add_option("--to", c->iTarget, "Target, whole degrees Celsius")->check(CLI::Range(-80, 50));
    pCool->add_option("--for", c->sFor, "End after that time, such as 10m");
    pCool->add_flag("--until-stable", c->bUntilStable, "End when the temperature has stayed near the target for a minute");
    c->plot.AddTo(*pCool, "Draw temperature and power into this PNG");
    auto* pOff = pCool->add_flag("--off", c->bOff, "Switch the cooler off")->excludes(pTo);
    pCool->callback([&g, c, pOff] {
        if (!c->iTarget && !*pOff)
            throw UserError("give --to DEGREES or --off", 2);
        Cool(g, *c);
    });

    auto* pAuto = app.add_subcommand("autoexposure", "Let the camera find exposure and gain, and show the course");
    auto a = std::make_shared<AutoOptions>();
    a->picture.AddTo(*pAuto, PictureOptions::Exposure | PictureOptions::Geometry | PictureOptions::Format);
    pAuto->add_option("-n,--frames", a->iFrames, "Give up after that many frames")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    pAuto->add_option("--target", a->iTarget, "Brightness to reach")->check(CLI::Range(0, 255));
    pAuto->add_option("--max-gain", a->iMaxGain, "Highest gain");
    pAuto->add_option("--max-exposure", a->sMaxExposure, "Longest exposure, whole seconds, such as 2s");
    pAuto->add_flag("--keep-gain", a->bKeepGain, "Move the exposure alone");
    a->plot.AddTo(*pAuto, "Draw the course into this PNG");
    pAuto->callback([&g, a] { AutoExposure(g, *a); });
}

}  // namespace kovcam
