#include <fmt/format.h>

#include <algorithm>

#include "common/Comply.h"
#include "common/Plot.h"
#include "kovcam/Camera.h"
#include "kovcam/Commands.h"
#include "kovcam/Json.h"

namespace kovcam {

namespace {

using Verdict = kovtools::CheckResult::Verdict;

struct ComplyOptions {
    bool full = false, dark = false;
    std::string plot, only;
};

void DrawCurves(const ComplyOptions& o, const std::string& camera, const kovtools::Compliance& c)
{
    using kovtools::Curve;
    const auto both = [](const std::vector<double>& x, const std::vector<double>& y, kovtools::Ink ink) {
        return std::vector<Curve>{ { "", kovtools::Ink::Grey, false, x, y }, { "measured", ink, false, x, y, Curve::Form::Points } };
    };
    kovtools::DrawPlots(o.plot, { { camera + ": level against exposure", "exposure, ms", "mean of the samples", "", both(c.exposures, c.levels, kovtools::Ink::Blue) },
                                  { camera + ": noise against level", "mean of the samples", "variance", "", both(c.means, c.variances, kovtools::Ink::Red) } }, o.dark);
}

void Comply(const Globals& g, const ComplyOptions& o)
{
    Camera cam(g.camera);
    Progress progress("checking");
    kovtools::ComplianceOptions options;
    options.full = o.full;
    options.only = o.only;
    options.clockRate = ClockRate();
    options.cancelled = [] { return Interrupted(); };
    options.onCheck = [&](const std::string& name) { progress.Show(-1, name); };
    const kovtools::Compliance c = kovtools::RunCompliance(cam.Id(), options);
    progress.End();
    int counts[4] = {};
    Json list = Json::array();
    for (const kovtools::CheckResult& r : c.results) {
        ++counts[static_cast<size_t>(r.verdict)];
        if (g.json) {
            list.push_back({ { "check", r.check }, { "verdict", VerdictText(r.verdict) }, { "what", r.what }, { "measured", r.measured },
                             { "limit", r.limit }, { "unit", r.unit }, { "hint", r.hint } });
            continue;
        }
        if (r.verdict == Verdict::Skipped)
            fmt::print("{:<5} {:<18} {}\n", VerdictText(r.verdict), r.check, r.what);
        else
            fmt::print("{:<5} {:<18} {}: {:.4g}, limit {:.4g} {}\n", VerdictText(r.verdict), r.check, r.what, r.measured, r.limit, r.unit);
        if (!r.hint.empty())
            fmt::print("      {:<18} {}\n", "", r.hint);
    }
    if (!o.plot.empty())
        DrawCurves(o, cam.Info().Name, c);
    if (g.json)
        Print({ { "camera", cam.Info().Name }, { "full", o.full }, { "results", list } });
    else
        fmt::print("{} passed, {} warned, {} failed, {} skipped\n", counts[0], counts[1], counts[2], counts[3]);
    if (Interrupted())
        throw UserError("interrupted; the later checks were not made", 130);
    if (counts[static_cast<size_t>(Verdict::Fail)] > 0)
        throw UserError("", 1);
}

}  // namespace

void AddComplyCommand(CLI::App& app, Globals& g)
{
    auto* p = app.add_subcommand("comply", "Check that the camera does what it promises; wants even light");
    auto o = std::make_shared<ComplyOptions>();
    p->add_flag("--full", o->full, "More and longer of each check");
    p->add_option("--check", o->only, "Only these: controls, errors, formats, regions, light, exposure, gain, noise, rows, flips, black, "
                                      "clock, snap, stream, temperature, cooler or guide");
    if (kovtools::DRAWS_PLOTS) {
        auto* const plot = p->add_option("--plot", o->plot, "Draw linearity and noise into this PNG");
        p->add_flag("--dark-plot", o->dark, "The picture on dark ground")->needs(plot);
    }
    p->callback([&g, o] { Comply(g, *o); });
}

}  // namespace kovcam
