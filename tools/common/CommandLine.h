#pragma once

// What a tool's command-line parser decided, the tools' exit codes, and how a
// tool ends on bad input.

#include <string>

namespace aovsimtool {

// kRun: go ahead; kHelp: print the help text and exit 0; kError: print the
// one-line problem and exit 2.
enum class ParseOutcome { kRun, kHelp, kError };

constexpr int kExitOk = 0;
constexpr int kExitRuntimeFailure =
    1;                            // a service refused, the events did not come, the server failed
constexpr int kExitBadInput = 2;  // options, scenario, or a request the catalogue lacks

// Prints "<tool>: error: <problem>" on standard error, the problem made one
// short printable line, and returns kExitBadInput.
int badInput(const char* tool, const std::string& problem);

}  // namespace aovsimtool
