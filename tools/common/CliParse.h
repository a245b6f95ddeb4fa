#pragma once

// Runs a CLI11 parser and turns what it throws into a ParseOutcome. CLI11
// reports through exceptions: include this only from files built with them.

#include <CLI/CLI.hpp>
#include <string>

#include "CommandLine.h"

namespace aovsimtool {

// kHelp with the help text in `message`, kError with the parser's complaint
// as one line, else kRun.
[[nodiscard]] ParseOutcome parseCommandLine(CLI::App& app, int argc, const char* const* argv,
                                            std::string* message);

}  // namespace aovsimtool
