// kovsim: runs any program that uses the library with virtual cameras instead of real ones.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "common/CommandTable.h"
#include "common/Host.h"
#include "common/Text.h"
#ifdef KOV_SERVES
#  include "kovsim/Serve.h"
#endif
#include "virtual/SimOptions.h"

namespace fs = std::filesystem;

namespace {

std::vector<kovsim::ModelFacts> Models()
{
    int n = 0;
    const kovsim::ModelFacts* p = kovsim::AllModels(&n);
    return { p, p + n };
}

// Throws for a model that is none, with the names that come closest.
void CheckModels(const std::string& list)
{
    std::vector<std::string> names;
    for (const kovsim::ModelFacts& m : Models())
        names.push_back(m.sToken);
    for (const std::string& token : CLI::detail::split(list, ',')) {
        const auto is = [&](const std::string& name) { return kovtools::Lower(name) == kovtools::Lower(token); };
        if (std::any_of(names.begin(), names.end(), is))
            continue;
        const std::vector<std::string> near = kovtools::Nearest(token, names);
        throw std::runtime_error(fmt::format("no model '{}'.{} All are listed by 'kovsim models'.", token,
                                             near.empty() ? "" : fmt::format(" Near it: {}.", kovtools::Joined(near))));
    }
}

// The library to preload: beside this program, in the build tree, or where it was installed.
fs::path FindPlugin()
{
    std::error_code ec;
    const fs::path here = kovtools::ProgramFolder();
    std::string looked;
    for (const char* dir : { ".", "../virtual", "../" KOV_LIBDIR "/kovcamera2" }) {
        fs::path p = fs::weakly_canonical(here / dir / kovtools::PLUGIN_FILE, ec);
        if (fs::exists(p, ec))
            return p;
        looked += "\n  " + p.string();
    }
    throw std::runtime_error(
        fmt::format("{} is missing. Looked for:{}\nInstall it with './dev install'.", kovtools::PLUGIN_FILE, looked));
}

struct CameraOptions {
    std::string sCameras = "QuartzCol";
    bool bUsb2 = false;
    std::vector<std::pair<const char*, std::string>> values;  // option name in KOVSIM, text
};

// What KOVSIM says for these options, checked.
std::string SimText(const CameraOptions& o, kovsim::SimOptions* pParsed)
{
    CheckModels(o.sCameras);
    std::string text = o.sCameras;
    for (const auto& [name, value] : o.values) {
        if (value.find(';') != std::string::npos)
            throw std::runtime_error(fmt::format("--{}: a semicolon is not possible here", name));
        if (!value.empty())
            text += fmt::format(";{}={}", name, value);
    }
    if (o.bUsb2)
        text += ";usb2";
    std::string error;
    if (!kovsim::ParseSimOptions(text, pParsed, &error))
        throw std::runtime_error(error.substr(0, error.find('\n')));
    return text;
}

// The options live as long as the command.
std::shared_ptr<CameraOptions> AddCameraOptions(CLI::App& command)
{
    auto o = std::make_shared<CameraOptions>();
    o->values.reserve(16);
    command.add_option("-c,--camera", o->sCameras, "Models, separated by commas (see 'kovsim models')")->capture_default_str();
    const auto option = [&](const char* szName, const char* szHelp) {
        o->values.emplace_back(szName, "");
        command.add_option(std::string("--") + szName, o->values.back().second, szHelp);
    };
    option("scene", "What they look at (see 'kovsim scenes')");
    option("rate", "Clock: so many times faster than real time");
    option("seed", "Noise and hot pixels; the same number gives the same camera");
    option("firmware", "Version that the firmware tells");
    option("flash", "File that keeps the camera's flash from run to run");
    option("serial", "Serial number");
    option("noise", "Factor of all noise; 0 for none");
    option("hot", "Number of hot pixels");
    option("ambient", "Surroundings, degrees Celsius");
    option("link", "Limit of the link, MB/s");
    option("vanish", "Frames until each camera is pulled out; it returns 1.5 s later");
    command.add_flag("--usb2", o->bUsb2, "Plugged into a USB 2 port");
    return o;
}

void PrintModels(bool bJson)
{
    if (!bJson)
        fmt::print("{:<16} {:>4}  {:>13} {:>6}  {:<7} {:<7} {:<6} {}\n", "model", "ID", "pixels", "um", "colour", "cooled", "USB",
                   "converter");
    std::string json;
    static constexpr const char* cells[] = { "mono", "RGGB", "BGGR", "GRBG", "GBRG" };
    for (const kovsim::ModelFacts& m : Models()) {
        const char* szCell = cells[static_cast<size_t>(m.cfa)];
        if (bJson)
            json +=
                fmt::format(R"({}{{"model": "{}", "productId": {}, "width": {}, "height": {}, "pixelSize": {}, "cell": "{}", )"
                            R"("cooled": {}, "usb": {}, "bits": {}}})",
                            json.empty() ? "" : ",\n ", m.sToken, m.wProductId, m.iWidth, m.iHeight, m.dPixelUm, szCell,
                            m.bCooled, m.bUSB3 ? 3 : 2, m.iAdcBits);
        else
            fmt::print("{:<16} {:04x}  {:>5} x {:>5} {:>6.2f}  {:<7} {:<7} USB {}  {} bits\n", m.sToken, m.wProductId, m.iWidth,
                       m.iHeight, m.dPixelUm, szCell, m.bCooled ? "yes" : "-", m.bUSB3 ? 3 : 2, m.iAdcBits);
    }
    if (bJson)
        fmt::print("[{}]\n", json);
}

constexpr const char* SCENES =
    "A scene is what all cameras of a run look at:\n"
    "  sky                    the Pleiades through 135 mm of focal length\n"
    "  sky:RA,DEC             another place, degrees; stars to magnitude 8, and fainter ones within 15 degrees of\n"
    "                         the Pleiades (56.75,24.12) and of Orion (84,0)\n"
    "  sky:RA,DEC,FOCAL       and another focal length, millimetres; a field so small that it has no star is told\n"
    "  flat:N                 N electrons a second on each pixel\n"
    "  colour:R,G,B           the same in three colours\n"
    "  pattern                each pixel names its place: at 10 ms and gain 1 it reads (7 x + 13 y) mod 251\n"
    "  dark                   the cap is on\n"
    "  FILE.png               a picture, stretched over the sensor\n";

}  // namespace

int main(int argc, char** argv)  // NOLINT(bugprone-exception-escape): without memory there is nobody to tell
{
    CLI::App app(
        "kovsim - virtual cameras for any program that uses libKOVCamera2\n"
        "Example: kovsim run --camera QuartzCol,LapisMono_C --scene sky -- kovcam list",
        "kovsim");
    app.set_version_flag("--version", "kovsim " KOV_VERSION);
    app.require_subcommand(1);
    int iExit = 0;

    auto* pRun = app.add_subcommand("run", "Run a program that sees virtual cameras; write -- before the program");
    const auto pCameras = AddCameraOptions(*pRun);
    std::vector<std::string> program;
    pRun->add_option("program", program, "Program and its arguments")->required();
    pRun->positionals_at_end();
    pRun->callback([&] {
        kovsim::SimOptions parsed;
        const std::string text = SimText(*pCameras, &parsed);
        iExit = kovtools::RunWithPlugin(program, FindPlugin(), text);
    });

#ifdef KOV_SERVES
    auto* pServe = app.add_subcommand(
        "serve", "Virtual cameras as USB/IP devices, for a system that takes them for real ones; Ctrl-C ends it");
    const auto pServed = AddCameraOptions(*pServe);
    kovsim::ServeOptions serve;
    pServe->add_option("--listen", serve.sAddress, "Address to listen at; 0.0.0.0 offers the cameras to the network")
        ->capture_default_str();
    pServe->add_option("--port", serve.iPort, "Port; 0 takes a free one")->check(CLI::Range(0, 65535))->capture_default_str();
    pServe->callback([&] {
        kovsim::SimOptions parsed;
        SimText(*pServed, &parsed);
        kovsim::VirtualBus bus(parsed.dRate);
        kovsim::PlugAll(bus, std::move(parsed));
        kovsim::Serve(bus, serve);
    });
#endif

    auto* pModels = app.add_subcommand("models", "The models that can be had");
    auto pJson = std::make_shared<bool>(false);
    pModels->add_flag("--json", *pJson, "Output for scripts");
    pModels->callback([pJson] { PrintModels(*pJson); });
    app.add_subcommand("scenes", "The scenes that they can look at")->callback([] {
        fmt::print("{}", SCENES);
        if (!kovtools::READS_PICTURES)
            fmt::print("This build cannot read pictures: it knows no PNG library for this system.\n");
    });

    kovtools::AddTableCommands(
        app, false, { { "--camera", "$(kovsim models | sed '1d;s/ .*//')" }, { "--scene", "sky flat: colour: pattern dark" } });

    try {
        std::vector<std::string> arguments = kovtools::Arguments(argc, argv);
        std::reverse(arguments.begin(), arguments.end());  // as the parser takes them
        app.parse(std::move(arguments));
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    } catch (const std::exception& e) {
        fmt::print(stderr, "kovsim: {}\n", e.what());
        return 2;
    }
    return iExit;
}
