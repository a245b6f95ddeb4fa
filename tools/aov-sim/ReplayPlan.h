#pragma once

// Fits aov-sim's options to the recording it replays: the events to wait
// for are the recording's own unless --events says otherwise (and no more
// than it holds), and the wait announced covers the recorded pace at the
// chosen speed. A speed at which the recording would take more than the
// longest wait allowed is refused.

#include <string>

#include "Options.h"
#include "ReplayNode.h"

namespace aovsimtool {

// Extra seconds on top of the recorded pace: the library's start and stop.
constexpr double kReplaySlackSeconds = 5;

// True when `options` were fitted; else false with `problem` set to one line
// naming the problem.
[[nodiscard]] bool fitReplayOptions(const ReplayPlan& plan, Options* options, std::string* problem);

}  // namespace aovsimtool
