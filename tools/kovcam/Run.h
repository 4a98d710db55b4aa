// kovcam: the cameras from the command line.
#pragma once
#include "kovcam/serve/Server.h"

namespace kovcam {

// The program; the exit code. `serve` is kovserve::Serve where that is linked, else null: there is no such command then.
int Run(int argc, char** argv, decltype(&kovserve::Serve) serve);

}  // namespace kovcam
