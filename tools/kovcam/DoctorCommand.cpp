#include <fmt/format.h>

#include <algorithm>

#include "common/Doctor.h"
#include "common/Files.h"
#include "kovcam/Camera.h"
#include "kovcam/Commands.h"
#include "kovcam/Json.h"

namespace kovcam {

namespace {

using kovtools::Finding;

std::string Indented(const std::string& text, int columns)
{
    std::string out;
    for (const char c : text)
        out += c == '\n' ? "\n" + std::string(static_cast<size_t>(columns), ' ') : std::string(1, c);
    return out;
}

void Tell(const Globals& g, const std::vector<Finding>& findings)
{
    const auto problems = std::count_if(findings.begin(), findings.end(),
                                        [](const Finding& f) { return f.severity == Finding::Severity::Problem; });
    Json list = Json::array();
    for (const Finding& f : findings) {
        if (g.json) {
            list.push_back(
                { { "state", SeverityText(f.severity) }, { "check", f.check }, { "text", f.text }, { "command", f.command } });
            continue;
        }
        fmt::print("{:<8} {}\n", SeverityText(f.severity), Indented(f.text, 9));
        if (!f.command.empty())
            fmt::print("         mend: {}\n", Indented(f.command, 15));
    }
    if (g.json)
        Print(list);
    else
        fmt::print("{}\n", problems == 0 ? "all well" : fmt::format("{} problem{}", problems, problems == 1 ? "" : "s"));
    if (problems > 0)
        throw UserError("", 1);
}

}  // namespace

void AddDoctorCommand(CLI::App& app, Globals& g)
{
    auto* p = app.add_subcommand("doctor", "Find out what keeps cameras from working, and how to mend it");
    auto root = std::make_shared<std::string>("/");
#ifndef _WIN32
    p->add_option("--root", *root, "Examine the system under this folder; nothing is opened then");
#endif
    auto report = std::make_shared<std::string>();
    p->add_option("--report", *report, "Write all that helps others to help you into this file");
    p->callback([&g, root, report] {
        if (!report->empty())
            return WriteReport(*report);
        Tell(g, kovtools::Examine({ kovtools::PathOf(*root), true }));
    });
}

}  // namespace kovcam
