#pragma once

// What a tool's command-line parser decided.

namespace aovsimtool {

// kRun: go ahead; kHelp: print the help text and exit 0; kError: print the
// one-line problem and exit 2.
enum class ParseOutcome { kRun, kHelp, kError };

}  // namespace aovsimtool
