#include "ReplayPlan.h"

#include <cstdio>

#include "Failure.h"

namespace aovsimtool {

bool fitReplayOptions(const ReplayPlan& plan, Options* options, std::string* problem) {
    char line[256];
    if (options->events_given && static_cast<uint64_t>(options->events) > plan.events) {
        std::snprintf(line, sizeof(line), "--events %d: the recording holds %llu events",
                      options->events, static_cast<unsigned long long>(plan.events));
        return fail(problem, line);
    }
    if (!options->events_given && options->duration <= 0) {
        options->events = static_cast<int>(plan.events);
    }
    if (options->replay_speed <= 0) {
        return true;  // as fast as the library takes the events
    }
    // The pace of the recording up to the last event the run waits for is
    // taken as that of the whole recording: an upper bound for fewer events.
    const double paced = plan.span_s / options->replay_speed;
    const double wait = paced * 1.25 + kReplaySlackSeconds;
    if (wait > kMaxSeconds) {
        std::snprintf(line, sizeof(line),
                      "--speed %g: the recording's %.3f s would take %.0f s, more than %.0f s; "
                      "use a speed of at least %g or max",
                      options->replay_speed, plan.span_s, paced, kMaxSeconds,
                      plan.span_s * 1.25 / (kMaxSeconds - kReplaySlackSeconds));
        return fail(problem, line);
    }
    if (options->timeout > 0 && options->timeout < wait && options->duration <= 0) {
        std::snprintf(line, sizeof(line),
                      "--timeout %g: the recording takes %.1f s at speed %g; give at least %.1f",
                      options->timeout, paced, options->replay_speed, wait);
        return fail(problem, line);
    }
    if (options->timeout <= 0) {
        options->timeout = wait;
    }
    return true;
}

}  // namespace aovsimtool
