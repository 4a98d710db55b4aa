// What the table of a program's commands and options is good for besides --help: completion in the shell, and the manual.
#pragma once
#include <CLI/CLI.hpp>
#include <map>
#include <string>

namespace kovtools {

// Values of options ("--camera") and positionals ("control") that the table does not tell: words, or a command in $(...).
using CompletionValues = std::map<std::string, std::string>;

// Adds `completion bash|zsh` and, hidden, `manual [COMMAND]`, which prints a page for scdoc: of the command, or of the
// program. Commands with a page of their own are only named on the program's page; otherwise all stand on it. Call it last.
void AddTableCommands(CLI::App& app, bool pageEach, const CompletionValues& values);

}  // namespace kovtools
