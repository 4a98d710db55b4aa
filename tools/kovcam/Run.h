// kovcam: the cameras from the command line.
#pragma once

namespace CLI {  // NOLINT(readability-identifier-naming): the parser's own name
class App;
}

namespace kovcam {

struct Globals;
using AddCommands = void (*)(CLI::App& app, Globals& g);

// The program, with `more` of its commands where that is not null; the exit code.
int Run(int argc, char** argv, AddCommands more);

// serve, which links the shared library and is not built for Windows.
void AddServeCommand(CLI::App& app, Globals& g);

}  // namespace kovcam
