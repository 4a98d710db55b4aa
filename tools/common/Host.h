// What the tools need of the system that they run on. One source file a platform, in posix/ and windows/.
#pragma once
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/UsbStack.h"

namespace kovtools {

// The command line after the program's name, in UTF-8; the terminal is set to show that.
std::vector<std::string> Arguments(int argc, char** argv);
std::filesystem::path ProgramFolder();   // where this program's own file stands; empty when that cannot be told
const usbstack::Plugin* LoadedPlugin();  // of virtual cameras, when this process runs with them
void SetVariable(const char* name, const std::string& value);  // of the environment, for this process
bool IsTerminal(std::FILE*);
extern const char* const HOW_TO_SEE_A_CAMERA;  // "that 'lsusb ...' lists the camera"
extern const bool READS_PICTURES;              // whether PNG files can be scenes of virtual cameras

// Runs a program to its end with the virtual cameras of `plugin`, a file named PLUGIN_FILE, and with `simText` for
// KOVSIM; returns its exit code: 127 and a line on standard error when there is no such program, 126 when it cannot be
// run. "kovcam" is taken from ProgramFolder() where it stands there.
extern const char* const PLUGIN_FILE;
int RunWithPlugin(const std::vector<std::string>& program, const std::filesystem::path& plugin, const std::string& simText);

}  // namespace kovtools
