#include <fmt/format.h>

#include <algorithm>

#include "camera/CCameraBase.h"
#include "common/Comply.h"
#include "common/Plot.h"
#include "common/Text.h"
#include "kovcam/Camera.h"
#include "kovcam/Commands.h"
#include "kovcam/Json.h"

namespace kovcam {

namespace {

using Verdict = kovtools::CheckResult::Verdict;

struct ComplyOptions {
    bool full = false, dark = false, id = false;
    std::string plot;
    std::vector<std::string> only;
};

std::vector<kovtools::Plot> Linearity(const std::string& camera, const kovtools::Compliance& c)
{
    using Form = kovtools::Curve::Form;
    using kovtools::Ink;
    std::vector<double> line, off;
    const double range = c.levels.back() - c.levels.front();
    for (size_t i = 0; i < c.levels.size(); ++i) {
        line.push_back(c.zero + c.slope * c.exposures[i]);
        off.push_back(100 * (c.levels[i] - line[i]) / range);
    }
    return { { camera + ": level against exposure",
               "exposure, ms",
               "mean of the samples",
               "",
               { { "straight line", Ink::Grey, false, c.exposures, line },
                 { "measured", Ink::Blue, false, c.exposures, c.levels, Form::Points } } },
             { camera + ": deviation from the straight line",
               "exposure, ms",
               "percent of the range",
               "",
               { { "", Ink::Blue, false, c.exposures, off }, { "", Ink::Blue, false, c.exposures, off, Form::Points } } } };
}

kovtools::Plot Noise(const std::string& camera, const kovtools::Compliance& c)
{
    using kovtools::Curve;
    std::vector<Curve> curves = { { "measured", kovtools::Ink::Red, false, c.means, c.variances, Curve::Form::Points } };
    if (c.electronsPerSample > 0) {
        std::vector<double> told;
        for (const double mean : c.means)
            told.push_back(c.variances.front() + (mean - c.means.front()) / c.electronsPerSample);
        curves.insert(curves.begin(), { fmt::format("{:.3g} electrons a sample, as told", c.electronsPerSample),
                                        kovtools::Ink::Grey, false, c.means, told });
    }
    return { camera + ": noise against level", "mean of the samples", "variance", "", curves };
}

void DrawCurves(const ComplyOptions& o, const std::string& camera, const kovtools::Compliance& c)
{
    std::vector<kovtools::Plot> plots;
    if (c.slope != 0)
        plots = Linearity(camera, c);
    if (!c.means.empty())
        plots.push_back(Noise(camera, c));
    if (plots.empty())
        throw UserError("nothing to draw: the curves are those of the checks 'exposure' and 'noise', which need light");
    kovtools::DrawPlots(o.plot, plots, o.dark);
}

// CLI's verdict on a name: empty, or what is wrong with it.
std::string GroupFault(const std::string& name)
{
    const std::vector<std::string> groups = kovtools::ComplianceGroups();
    if (std::find(groups.begin(), groups.end(), name) != groups.end())
        return {};
    const std::vector<std::string> near = kovtools::Nearest(name, groups);
    return fmt::format("no group of checks is called '{}'.{} They are {}", name,
                       near.empty() ? "" : fmt::format(" Did you mean {}?", kovtools::Joined(near, " or ")),
                       kovtools::Joined(groups));
}

void Comply(const Globals& g, const ComplyOptions& o)
{
    Camera cam(g.camera);
    Progress progress("checking");
    kovtools::ComplianceOptions options;
    options.full = o.full;
    options.only = o.only;
    options.clockRate = ClockRate();
    options.writeId = o.id;
    const bool repaired = cam.Object().IsHPCEnable();
    options.repair = [&](bool on) { return cam.Object().ChangeHPCStatus(on ? HPC_LOAD : HPC_OFF, nullptr); };
    options.cancelled = [] { return Interrupted(); };
    options.onCheck = [&](const std::string& name) { progress.Show(-1, name); };
    const kovtools::Compliance c = kovtools::RunCompliance(cam.Id(), options);
    if (repaired)
        options.repair(true);
    progress.End();
    int counts[4] = {};
    Json list = Json::array();
    for (const kovtools::CheckResult& r : c.results) {
        ++counts[static_cast<size_t>(r.verdict)];
        if (g.json) {
            list.push_back({ { "check", r.check },
                             { "verdict", VerdictText(r.verdict) },
                             { "what", r.what },
                             { "measured", r.measured },
                             { "limit", r.limit },
                             { "unit", r.unit },
                             { "hint", r.hint } });
            continue;
        }
        if (r.verdict == Verdict::Skipped)
            fmt::print("{:<5} {:<18} {}\n", VerdictText(r.verdict), r.check, r.what);
        else
            fmt::print("{:<5} {:<18} {}: {:.4g}, limit {:.4g} {}\n", VerdictText(r.verdict), r.check, r.what, r.measured, r.limit,
                       r.unit);
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
    p->add_flag("--id", o->id, "Also write the user ID in the camera's flash, read it back and put the old one there again");
    p->add_option("--check", o->only, "Only those of this group, or of several with commas; see the manual page")
        ->delimiter(',')
        ->check(CLI::Validator(GroupFault, "GROUP"));
    if (kovtools::DRAWS_PLOTS) {
        auto* const plot = p->add_option("--plot", o->plot, "Draw linearity and noise into this PNG");
        p->add_flag("--dark-plot", o->dark, "The picture on dark ground")->needs(plot);
    }
    p->callback([&g, o] { Comply(g, *o); });
}

}  // namespace kovcam
