#include "kovcam/Run.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "common/CommandTable.h"
#include "common/Host.h"
#include "common/Text.h"
#include "kovcam/Camera.h"
#include "kovcam/Commands.h"

namespace kovcam {

// A word that is no command, told with those that come near; the parser would only miss one.
static void CheckVerb(const CLI::App& app, const std::vector<std::string>& arguments)
{
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& word = arguments[i];
        if (word == "-c" || word == "--camera") {
            ++i;
            continue;
        }
        if (word.starts_with('-'))
            continue;
        std::vector<std::string> verbs;
        for (const CLI::App* verb : app.get_subcommands([](const CLI::App*) { return true; }))
            verbs.push_back(verb->get_name());
        if (std::find(verbs.begin(), verbs.end(), word) != verbs.end())
            return;
        const std::vector<std::string> near = kovtools::Nearest(word, verbs);
        throw UserError(fmt::format("unknown command '{}'. {}", word,
                                    near.empty() ? "Commands are: " + kovtools::Joined(verbs)
                                                 : "Did you mean " + kovtools::Joined(near, " or ") + "?"),
                        2);
    }
}

int Run(int argc, char** argv,
        decltype(&kovserve::Serve) serve)  // NOLINT(bugprone-exception-escape): without memory there is nobody to tell
{
    CLI::App app(
        "kovcam - astronomy cameras from the command line\n"
        "Try it without a camera: kovsim run --camera QuartzCol -- kovcam snap",
        "kovcam");
    app.set_version_flag("--version", "kovcam " KOV_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    Globals g;
    app.add_option("-c,--camera", g.camera, "Camera: index, or a part of its name; needless with one camera");
    app.add_flag("--json", g.json, "Output for scripts");
    // Before any command runs: the library looks at the environment at its first line.
    int verbose = 0;
    app.add_flag_function(
           "-v,--verbose",
           [&](int64_t) {
               static constexpr const char* levels[] = { "info", "debug", "trace" };
               kovtools::SetVariable("KOV_LOG", levels[std::min(verbose++, 2)]);
           },
           "The library's log on standard error: restarts and lost frames; -vv each request too, -vvv everything")
        ->trigger_on_parse();
    AddControlCommands(app, g);
    AddPictureCommands(app, g);
    AddDarkCommands(app, g);
    AddCoolCommands(app, g);
    AddDeviceCommands(app, g);
    if (serve)
        AddServeCommand(app, serve);
    AddDoctorCommand(app, g);
    AddComplyCommand(app, g);
    std::string controls;
    for (const ControlName& c : g_Controls)
        controls += std::string(c.szName) + " ";
    kovtools::AddTableCommands(app, true, { { "control", controls }, { "--format", "raw8 raw16 rgb24 y8" } });
    CatchInterrupts();
    try {
        std::vector<std::string> arguments = kovtools::Arguments(argc, argv);
        CheckVerb(app, arguments);
        std::reverse(arguments.begin(), arguments.end());  // as the parser takes them
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    } catch (const UserError& e) {
        if (*e.what() != 0)  // the doctor has said it all
            fmt::print(stderr, "kovcam: {}\n", e.what());
        return e.iExit;
    } catch (const std::exception& e) {
        fmt::print(stderr, "kovcam: {}\n", e.what());
        return 1;
    }
    return 0;
}

}  // namespace kovcam
