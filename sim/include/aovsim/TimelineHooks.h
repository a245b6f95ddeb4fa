#pragma once

// Optional timing hooks through which the simulation reports to a session
// timeline. The components reach them through their Trace; when nobody
// records a timeline the pointer is null and each hook costs one load.

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace aovsim {

class TimelineHooks {
  public:
    using Clock = std::chrono::steady_clock;

    virtual ~TimelineHooks() = default;

    // The driver queued event `sequence`, stamped `at`, and signalled; `depth`
    // events are pending; `overwrote`: the oldest was overwritten to make room.
    virtual void eventQueued(uint32_t sequence, Clock::time_point at, size_t depth,
                             bool overwrote) = 0;
    // The driver's queue shrank to `depth`, `dropped` of the events taken out
    // lost (to a failed dequeue, to the stop) rather than handed out.
    virtual void queueDepth(size_t depth, uint64_t dropped) = 0;
    // The event monitor returned from its wait at `at`.
    virtual void monitorWoke(Clock::time_point at) = 0;
    // A platform call named `name` ran from `begin` until now.
    virtual void platformCall(const char* name, Clock::time_point begin) = 0;
    // The library wrote an error line.
    virtual void libraryError(const char* text) = 0;
    // A server of the driver's node served `request` from `begin` to `end`
    // with `result`.
    virtual void requestServed(unsigned int /*request*/, Clock::time_point /*begin*/,
                               Clock::time_point /*end*/, int /*result*/) {}
};

}  // namespace aovsim
