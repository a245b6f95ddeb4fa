#pragma once

// Turns what the session reports, as it happens, into timeline records:
// calls become slices on their thread's tracks, the system layer's steps run
// from one to the next, each delivered event with all its stages is linked to
// its driver signal, wake and notifyEvent for the flow, and the counters are
// sampled. Every time is given by the caller, so the collector itself is
// deterministic; it is not thread-safe (Timeline serialises the calls).
// At most `maxRecords` are kept; the rest are counted.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "TimelineRecord.h"

namespace aovsimtool {

class TimelineCollector {
  public:
    using Clock = std::chrono::steady_clock;

    TimelineCollector(Clock::time_point start, size_t maxRecords);

    // The driver queued event `sequence`, stamped `at`, and was done
    // signalling at `now`. `served`: the driver runs in aov-kdev.
    void eventQueued(bool served, uint32_t sequence, Clock::time_point at, Clock::time_point now,
                     size_t depth, bool overwrote);
    void queueDepth(bool served, Clock::time_point now, size_t depth, uint64_t dropped);
    // aov-kdev's driver served `request` with `result`.
    void requestServed(unsigned int request, Clock::time_point begin, Clock::time_point end,
                       int result);
    void monitorWoke(Clock::time_point at);
    void platformCall(TimelineRole role, const char* name, Clock::time_point begin,
                      Clock::time_point now);
    void libraryCall(const char* name, Clock::time_point begin, Clock::time_point now,
                     long long result);
    void marker(Clock::time_point now, const char* name, nlohmann::json args);
    // A step line begins the next step and ends the one in progress; an empty
    // line only ends it.
    void step(const std::string& line, Clock::time_point now);
    void kernelRequest(TimelineRole role, unsigned int request, const std::string& decoded,
                       Clock::time_point begin, Clock::time_point now, int result);
    void notifyEntry(Clock::time_point now);
    void notifyExit(Clock::time_point begin, Clock::time_point now);
    void callbackEntry(uint32_t sequence, bool matched, Clock::time_point signal,
                       Clock::time_point now);
    void callbackReturn(TimelineRole role, uint64_t number, Clock::time_point now);
    // Ends the step in progress; nothing is kept after.
    void finish(Clock::time_point now);

    const std::vector<TimelineRecord>& records() const { return records_; }
    uint64_t recordsDropped() const { return dropped_records_; }

  private:
    int64_t sinceStart(Clock::time_point t) const;
    size_t add(RecordKind kind, TimelineTrack track, int64_t begin, int64_t end, std::string name,
               nlohmann::json args = nlohmann::json());
    size_t add(RecordKind kind, TimelineTrack track, Clock::time_point begin, Clock::time_point end,
               std::string name, nlohmann::json args = nlohmann::json());
    void droppedCounter(bool served, Clock::time_point now);

    const Clock::time_point start_;
    const size_t max_records_;
    std::vector<TimelineRecord> records_;
    uint64_t dropped_records_ = 0;
    bool finished_ = false;

    // The step in progress.
    bool in_step_ = false;
    std::string step_name_;
    int64_t step_begin_ = 0;

    // The buffer task, as seen from outside: from a successful startDevice
    // to the first dequeue that succeeds.
    bool device_starting_ = false;
    Clock::time_point start_device_begin_;

    uint64_t delivered_ = 0;
    uint64_t dropped_events_ = 0;

    // The notification in progress on the monitor thread.
    size_t wake_record_ = TimelineRecord::kNone;
    Clock::time_point wake_{};
    Clock::time_point notify_{};
    bool dequeued_ = false;
    Clock::time_point dequeue_begin_{}, dequeue_end_{};
    uint32_t sequence_ = 0;
    bool matched_ = false;
    Clock::time_point signal_{}, callback_{};
    size_t callback_record_ = TimelineRecord::kNone;  // waits for its notifyEvent
};

}  // namespace aovsimtool
