#pragma once

// The simulation's trace: one line per platform call, kernel request and
// library log line, in the order they happen, from any thread.

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <string>

#include "aovbase/Mutex.h"
#include "aovsim/Format.h"
#include "aovsim/TimelineHooks.h"

namespace aovsim {

enum class TraceSource {
    kPlatform,  // sensor list, sensors, customisation, coordinator, pipes
    kKernel,    // the emulated driver
    kLibrary,   // the library's own log lines
    kSystem,    // the system layer (aov-sim)
    kEvent,     // events delivered to the system layer
};

const char* traceSourceTag(TraceSource source);

class Trace {
  public:
    using Sink = std::function<void(TraceSource, const std::string&)>;

    // Lines go to `sink`, one at a time under the trace's lock (so the sink
    // must not record itself); with none they are only counted.
    void setSink(Sink sink);

    void record(TraceSource source, const std::string& line);
    void recordf(TraceSource source, const char* format, ...) __attribute__((format(printf, 3, 4)));
    // A refused platform call or request: recorded as "REFUSED <what>" and counted.
    void refusal(TraceSource source, const char* format, ...) __attribute__((format(printf, 3, 4)));

    uint64_t refusals() const;

    // The timeline the components report their timing to; null (the default)
    // when none is recorded.
    void setTimeline(TimelineHooks* timeline) { timeline_.store(timeline); }
    TimelineHooks* timeline() const { return timeline_.load(std::memory_order_acquire); }

  private:
    void emit(TraceSource source, const std::string& line);

    mutable aov::Mutex mutex_;
    Sink sink_ AOV_GUARDED_BY(mutex_);
    uint64_t refusals_ AOV_GUARDED_BY(mutex_) = 0;
    std::atomic<TimelineHooks*> timeline_{nullptr};
};

// Times one platform call for the trace's timeline, when there is one.
class PlatformCallSpan {
  public:
    PlatformCallSpan(Trace& trace, const char* name)
        : hooks_(trace.timeline()),
          name_(name),
          begin_(hooks_ != nullptr ? TimelineHooks::Clock::now()
                                   : TimelineHooks::Clock::time_point()) {}
    ~PlatformCallSpan() {
        if (hooks_ != nullptr) {
            hooks_->platformCall(name_, begin_);
        }
    }
    PlatformCallSpan(const PlatformCallSpan&) = delete;
    PlatformCallSpan& operator=(const PlatformCallSpan&) = delete;

  private:
    TimelineHooks* hooks_;
    const char* name_;
    TimelineHooks::Clock::time_point begin_;
};

}  // namespace aovsim
