// Each command adds itself to the program.
#pragma once
#include <CLI/CLI.hpp>
#include <string>

#include "kovcam/serve/Server.h"

namespace kovcam {

struct Globals {
    std::string camera;
    bool json = false;
};

// list, info, controls, get, set
void AddControlCommands(CLI::App& app, Globals& g);
// snap, video, bench
void AddPictureCommands(CLI::App& app, Globals& g);
// dark, hotpixels
void AddDarkCommands(CLI::App& app, Globals& g);
// cool, autoexposure
void AddCoolCommands(CLI::App& app, Globals& g);
// guide, id, firmware
void AddDeviceCommands(CLI::App& app, Globals& g);
// serve
void AddServeCommand(CLI::App& app, decltype(&kovserve::Serve) serve);
// doctor
void AddDoctorCommand(CLI::App& app, Globals& g);
// comply
void AddComplyCommand(CLI::App& app, Globals& g);

// System, findings, cameras, a test frame's figures and the log of all that, as text. Throws std::runtime_error.
void WriteReport(const std::string& path);

}  // namespace kovcam
